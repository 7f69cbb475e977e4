// The training run of a profile-guided build: the library built with
// -fprofile-generate reads, prints, copies, searches and releases documents
// that this program makes up, in both memory regimes, and the counts it
// leaves behind guide the optimized build. The documents are generated (a
// fixed seed), not taken from any benchmark input, so that the profile
// describes common XML rather than one corpus: records with a varying number
// of attributes, prefixed names, references and CDATA now and then, text in
// leaves, some depth, LF or CRLF line ends, attributes after one space or
// each on a line of its own, both quotes; and one large document.
#include <cstdint>
#include <cstdio>
#include <string>

#include "krv_xml.h"

namespace {

struct Rng {
    uint64_t s;
    uint32_t next()
    {
        s = s * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>(s >> 33);
    }
    uint32_t below(uint32_t n) { return next() % n; }
};

const char *const kWords[] = {"id",   "name", "type",   "status", "code", "lang", "scope",
                              "kind", "ref",  "weight", "title",  "unit", "mode", "value"};
constexpr uint32_t kWordCount = sizeof kWords / sizeof kWords[0];

void word(Rng &r, std::string &out, uint32_t most)
{
    uint32_t len = 1 + r.below(most);
    for (uint32_t i = 0; i < len; ++i) {
        uint32_t c = r.below(40);
        out += c < 26 ? static_cast<char>('a' + c) : c < 36 ? static_cast<char>('0' + c - 26) : ' ';
    }
}

// A value or text: mostly plain, sometimes with a reference.
void run(Rng &r, std::string &out, uint32_t most)
{
    word(r, out, most);
    switch (r.below(16)) {
    case 0:
        out += "&amp;";
        word(r, out, 8);
        break;
    case 1:
        out += "&#x41;&lt;";
        break;
    default:
        break;
    }
}

// Line breaks and indents: LF and spaces, or CRLF and tabs; attributes
// after one space, or each on a line of its own, and sometimes a space
// before a tag's end.
struct Layout {
    const char *indent;
    const char *end;
    const char *beforeAttr;
};

void element(Rng &r, std::string &out, uint32_t depth, const Layout &layout)
{
    bool prefixed = r.below(6) == 0;
    std::string name = prefixed ? "p:" : "";
    name += kWords[r.below(kWordCount)];
    name += depth < 2 ? "s" : "";
    out += '<';
    out += name;
    uint32_t attrs = r.below(9);
    for (uint32_t i = 0; i < attrs; ++i) {
        out += layout.beforeAttr;
        out += r.below(10) == 0 ? "p:" : "";
        out += kWords[(i * 5 + r.below(2)) % kWordCount];
        out += std::to_string(i);
        char quote = r.below(6) == 0 ? '\'' : '"';
        out += '=';
        out += quote;
        run(r, out, r.below(4) == 0 ? 48 : 12);
        out += quote;
    }
    uint32_t shape = r.below(8);
    if (r.below(4) == 0) {
        out += ' ';
    }
    if (depth > 12 || shape < 3) {
        out += "/>";
    } else if (shape < 6 || depth > 6) {
        out += '>';
        if (r.below(12) == 0) {
            out += "<![CDATA[";
            word(r, out, 40);
            out += "]]>";
        } else {
            run(r, out, r.below(3) == 0 ? 120 : 24);
        }
        out += "</" + name + '>';
    } else {
        out += '>';
        uint32_t children = 1 + r.below(depth < 2 ? 60 : 6);
        for (uint32_t i = 0; i < children; ++i) {
            out += layout.indent;
            if (r.below(40) == 0) {
                out += "<!-- note -->";
            }
            element(r, out, depth + 1, layout);
        }
        out += layout.end;
        out += "</" + name + '>';
    }
}

// A document of `top` elements under its root.
std::string document(uint64_t seed, int top)
{
    Rng r{seed};
    Layout layout = seed % 4 == 0 ? Layout{"\r\n\t", "\r\n", " "} : Layout{"\n  ", "\n", " "};
    if (seed % 3 == 0) {
        layout.beforeAttr = seed % 4 == 0 ? "\r\n\t\t" : "\n    ";
    }
    std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<root xmlns:p=\"urn:p\">";
    for (int i = 0; i < top; ++i) {
        out += layout.end;
        element(r, out, 1, layout);
    }
    out += layout.end;
    out += "</root>\n";
    return out;
}

// About 5.6 MB: a session tree of it passes 16 MB, where the parser starts
// asking for memory ahead.
constexpr int kLargeTop = 1500;

int exercise(const std::string &text, bool session)
{
    XmlNode *doc = nullptr;
    uint32_t rc = session ? KRV_XML_ParseEx(text.c_str(), &doc) : KRV_XML_Parse(text.c_str(), &doc);
    if (rc != KRV_XML_OK) {
        std::fprintf(stderr, "pgo_train: parse failed: 0x%08x\n", rc);
        return 1;
    }
    char *printed = nullptr;
    if (KRV_XML_Transform(doc, &printed) == KRV_XML_OK) {
        KRV_XML_FreeMem(printed);
    }
    XmlNode *copy = nullptr;
    if (KRV_XML_CloneNode(doc, &copy) == KRV_XML_OK) {
        KRV_XML_FreeNode(copy);
    }
    XmlNode *found = nullptr;
    for (const char *url : {"root.ids.2", "root.names", "root.p:codes.1"}) {
        KRV_XML_GetNodeByUrl(doc, url, &found);
    }
    KRV_XML_FreeNode(doc);
    return 0;
}

}  // namespace

int main()
{
    for (uint64_t seed = 1; seed <= 24; ++seed) {
        std::string text = document(seed, 40);
        for (int pass = 0; pass < 4; ++pass) {
            if (exercise(text, true) != 0 || exercise(text, false) != 0) {
                return 1;
            }
        }
    }
    // One document large enough for the paths of large sessions.
    std::string text = document(25, kLargeTop);
    return exercise(text, true) != 0 || exercise(text, false) != 0 ? 1 : 0;
}
