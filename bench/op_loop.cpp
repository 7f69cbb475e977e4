// Repeats one operation of our library on one file, for profilers
// (perf record, valgrind --tool=callgrind): everything the operation needs is
// prepared before the loop, so the profile holds that operation and little
// else.
//
// Usage: krvbench_op parse|print|clone|free|lookup heap|session FILE [REPEATS]
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "krv_xml.h"

namespace {

XmlNode *parse(const std::string &text, bool session)
{
    XmlNode *doc = nullptr;
    uint32_t rc = session ? KRV_XML_ParseEx(text.c_str(), &doc) : KRV_XML_Parse(text.c_str(), &doc);
    if (rc != KRV_XML_OK) {
        std::fprintf(stderr, "parse failed: 0x%08x\n", rc);
        std::exit(1);
    }
    return doc;
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s parse|print|clone|free|lookup heap|session FILE [REPEATS]\n", argv[0]);
        return 2;
    }
    std::string op = argv[1];
    bool session = std::strcmp(argv[2], "session") == 0;
    int repeats = argc > 4 ? std::atoi(argv[4]) : 10;
    std::ifstream in(argv[3], std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", argv[3]);
        return 2;
    }
    std::ostringstream ss;
    ss << in.rdbuf();
    const std::string text = ss.str();
    mallopt(M_MMAP_MAX, 0);  // as the peer driver: keep pages once touched
    mallopt(M_TRIM_THRESHOLD, INT32_MAX);

    // The lookup path: the last child of the root named like its first child.
    std::string url;
    if (op == "lookup") {
        XmlNode *doc = parse(text, session);
        size_t n = 0;
        for (XmlNode *c = doc->firstChild; c != nullptr; c = c->next) {
            n += c->name != nullptr && std::strcmp(c->name, doc->firstChild->name) == 0 ? 1 : 0;
        }
        url = std::string(doc->name) + "." + doc->firstChild->name + "." + std::to_string(n);
        KRV_XML_FreeNode(doc);
    }

    for (int i = 0; i < repeats; ++i) {
        if (op == "parse") {
            KRV_XML_FreeNode(parse(text, session));
            continue;
        }
        XmlNode *doc = parse(text, session);
        if (op == "print") {
            char *out = nullptr;
            KRV_XML_Transform(doc, &out);
            KRV_XML_FreeMem(out);
        } else if (op == "clone") {
            XmlNode *copy = nullptr;
            KRV_XML_CloneNode(doc, &copy);
            KRV_XML_FreeNode(copy);
        } else if (op == "lookup") {
            XmlNode *found = nullptr;
            for (int k = 0; k < 1000; ++k) {
                KRV_XML_GetNodeByUrl(doc, url.c_str(), &found);
            }
        }
        KRV_XML_FreeNode(doc);  // "free" is this alone
    }
    return 0;
}
