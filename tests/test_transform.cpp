// Transform, Escape and MemBuf suites: the whole, head, tail and file transforms, escaping, the output buffer.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "test_support.h"
#include "xml/xml_internal.h"

namespace {

const auto parse = [](const char *text) { return krvtest::MustParse(text, false); };
const auto linksOf = [](const XmlNode *n) { return std::make_tuple(n->parent, n->next, n->prev); };

// config version=2 with server (host=a&b), port (8080), empty (""), list (item "x<y", item).
struct Example { XmlNode *config, *server, *port, *list, *item1, *item2; };

Example makeExample()
{
    XmlNode *c = parse("<config version='2'><server host='a&amp;b'/><port>8080</port><empty><![CDATA[]]></empty>"
                       "<list><item>x&lt;y</item><item/></list></config>");
    return {c, c->firstChild, c->firstChild->next, c->lastChild, c->lastChild->firstChild, c->lastChild->lastChild};
}

const char kExampleWhole[] =
    "<config version=\"2\">\n<server host=\"a&amp;b\"/>\n<port>8080</port>\n<empty></empty>\n"
    "<list>\n<item>x&lt;y</item>\n<item/>\n</list>\n</config>\n";

using TransformFn = uint32_t (*)(XmlNode *, char **);
const TransformFn kStringForms[] = {KRV_XML_Transform, KRV_XML_TransformHead, KRV_XML_TransformTail};

// The text of a string transform, "<null>" when none was handed out, or "<rc N>" on failure.
std::string run(TransformFn fn, XmlNode *top)
{
    char *out = nullptr;
    const uint32_t rc = fn(top, &out);
    std::string text = rc != KRV_XML_OK ? "<rc " + std::to_string(rc) + ">" : out != nullptr ? out : "<null>";
    KRV_XML_FreeMem(out);
    return text;
}

// Whole, head and tail of trees of every shape, and of inner nodes of the example tree, whose links stay. Bare
// shapes of elements are left to the random trees below.
TEST(Transform, WholeHeadAndTailOfEveryShape)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    XmlNode *lost = parse("<a><b>kept</b></a>");
    EXPECT_EQ(KRV_XML_SetNode(lost, nullptr, nullptr, "lost"), KRV_XML_OK);
    XmlNode *emptyPrefix = krvtest::Element("a", nullptr, "v");
    emptyPrefix->nsPrefix = static_cast<char *>(XML_Calloc(1, 1));  // creation would drop an empty prefix
    struct Case { const char *what; XmlNode *top; const char *text[3]; };  // whole, head, tail
    const Case cases[] = {
        {"value", parse("<a>v</a>"), {"<a>v</a>\n", "<a>v</a>\n", "<null>"}},
        {"empty value", parse("<a><![CDATA[]]></a>"), {"<a></a>\n", "<a></a>\n", "<null>"}},
        {"value and a child: the value is lost", lost,
         {"<a>\n<b>kept</b>\n</a>\n", "<a>\n<b>kept</b>\n", "</b>\n</a>\n"}},
        {"attributes in list order, a null value, prefixes", parse("<p:a x='1' y='' q:x='&lt;'><p:b/></p:a>"),
         {"<p:a x=\"1\" y=\"\" q:x=\"&lt;\">\n<p:b/>\n</p:a>\n", "<p:a x=\"1\" y=\"\" q:x=\"&lt;\">\n<p:b>\n",
          "</p:b>\n</p:a>\n"}},
        {"an empty prefix is written", emptyPrefix, {"<:a>v</:a>\n", "<:a>v</:a>\n", "<null>"}},
        {"last leaf with a value: head writes it whole, tail closes it again", parse("<a><b>v</b></a>"),
         {"<a>\n<b>v</b>\n</a>\n", "<a>\n<b>v</b>\n", "</b>\n</a>\n"}},
        {"an element top", krvtest::Element("x", nullptr, "1"), {"<x>1</x>\n", "<x>1</x>\n", "<null>"}},
        {"inner node with siblings", e.list,
         {"<list>\n<item>x&lt;y</item>\n<item/>\n</list>\n", "<list>\n<item>x&lt;y</item>\n<item>\n",
          "</item>\n</list>\n"}},
        {"inner leaf with a value", e.port, {"<port>8080</port>\n", "<port>8080</port>\n", "<null>"}},
        {"inner leaf without value", e.item2, {"<item/>\n", "<item>\n", "<null>"}},
        {"example", e.config,  // freed last
         {kExampleWhole,
          "<config version=\"2\">\n<server host=\"a&amp;b\"/>\n<port>8080</port>\n<empty></empty>\n"
          "<list>\n<item>x&lt;y</item>\n<item>\n",
          "</item>\n</list>\n</config>\n"}},
    };
    for (const Case &c : cases) {
        const auto links = linksOf(c.top);
        for (int mode = 0; mode < 3; ++mode) {
            EXPECT_EQ(run(kStringForms[mode], c.top), c.text[mode]) << c.what << ", mode " << mode;
        }
        EXPECT_EQ(linksOf(c.top), links) << c.what;
        if (c.top->parent == nullptr) {
            KRV_XML_FreeNode(c.top);
        }
    }
}

// A random element of bare tags, as its whole text: a leaf or one to three children, now and then below a chain
// deeper than a walk looks ahead; below a chain of at least minChain more levels when that is given.
std::string grow(std::mt19937 &rng, int &budget, unsigned minChain = 0)
{
    static const char *const kNames[] = {"a", "bb", "p:c", "deep"};
    std::vector<std::string> chain{kNames[rng() % 4]};
    const unsigned length = rng() % 4 == 0 ? 17 + rng() % 24 : 0;
    for (unsigned n = std::max(minChain, length); n > 0 && budget > 0; --n, --budget) {
        chain.push_back(kNames[rng() % 4]);
    }
    std::string text;
    const unsigned pick = rng() % 6;
    for (unsigned i = 0, n = pick < 2 ? 0 : pick < 4 ? 1 : pick - 2; i < n && budget > 0; ++i) {
        --budget;
        text += grow(rng, budget);
    }
    for (auto name = chain.rbegin(); name != chain.rend(); ++name) {
        text = text.empty() ? "<" + *name + "/>\n" : "<" + *name + ">\n" + text + "</" + *name + ">\n";
    }
    return text;
}

// Head and tail from the whole text of bare tags into t[1], t[2]: the head keeps start tags and leaves, the tail end
// tags; a last leaf (followed by an end tag, or the top itself) is left open in the head and closed in the tail.
void headAndTail(const std::string &whole, std::string *t)
{
    for (size_t at = 0, end; at < whole.size(); at = end + 1) {
        end = whole.find('\n', at);
        const std::string line = whole.substr(at, end - at), name = line.substr(1, line.size() - 3);
        const bool closed = whole.compare(end + 1, 2, "</") == 0;
        if (line[1] == '/') {
            t[2] += line + "\n";
        } else if (line[line.size() - 2] != '/' || !(closed || end + 1 == whole.size())) {
            t[1] += line + "\n";
        } else {
            t[1] += "<" + name + ">\n";
            t[2] += closed ? "</" + name + ">\n" : "";
        }
    }
}

// Random trees with siblings at every level, printed from the document and from its first child. Every other
// tree begins with a chain deeper than the printer's probe for deep trees, which then climbs once per run of
// end tags. Heap requests over 1 MB are refused meanwhile (the texts are a few KB), so that a walk that goes
// round in circles ends in a refusal instead of filling the memory.
TEST(Transform, DeepChainsWithSiblingsAtEveryLevel)
{
    krvtest::LeakGuard guard;
    struct SizeCap {
        SizeCap() { krv_test::RefuseAllocationsOver(size_t{1} << 20); }
        ~SizeCap() { krv_test::RefuseAllocationsOver(0); }
    } cap;
    std::mt19937 rng(20261126);
    for (int round = 0; round < 40; ++round) {
        int budget = 400;
        std::string texts[6];  // whole, head and tail of the document, then of its first child, which has a sibling
        texts[0] = "<r>\n" + (texts[3] = grow(rng, budget, round % 2 == 0 ? 80 : 0));
        for (int kids = 1; kids < 2 || (budget > 0 && rng() % 3 != 0); ++kids) {
            texts[0] += grow(rng, budget);
        }
        texts[0] += "</r>\n";
        headAndTail(texts[0], texts);
        headAndTail(texts[3], texts + 3);
        for (bool session : {false, true}) {
            XmlNode *doc = krvtest::MustParse(texts[0], session);
            ASSERT_NE(doc, nullptr);
            for (int i = 0; i < 6; ++i) {
                const std::string &text = texts[i].empty() ? "<null>" : texts[i];
                EXPECT_EQ(run(kStringForms[i % 3], i < 3 ? doc : doc->firstChild), text)
                    << (session ? "session" : "heap") << ", round " << round << ", text " << i;
            }
            KRV_XML_FreeNode(doc);
        }
    }
}

TEST(Transform, RefusedArgumentsAndNamelessNodes)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    char *out = krvtest::Sentinel<char>();
    XmlNode *attr = e.server->firstAttr;
    for (TransformFn fn : kStringForms) {
        EXPECT_EQ(fn(nullptr, &out), KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(fn(e.config, nullptr), KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(fn(attr, &out), KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(KRV_XML_TransformFile(nullptr, "x"), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_TransformFile(e.config, nullptr), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_TransformFile(attr, "x"), KRV_XML_ERR_INVALID_PARAM);
    // A null name below the top node, on an attribute or on the top node itself: refused, no text handed out,
    // the top node's links restored.
    const std::tuple<XmlNode *, XmlNode *, TransformFn> nameless[] = {
        {e.item2, e.list, KRV_XML_Transform},    {e.item2, e.list, KRV_XML_TransformHead},
        {e.item2, e.list, KRV_XML_TransformTail}, {e.list, e.list, KRV_XML_TransformTail},
        {attr, e.server, KRV_XML_Transform},     {attr, e.server, KRV_XML_TransformHead},
    };
    for (const auto &[n, top, fn] : nameless) {
        const auto links = linksOf(top);
        char *name = std::exchange(n->name, nullptr);
        EXPECT_EQ(fn(top, &out), KRV_XML_ERR_INVALID_PARAM);
        n->name = name;
        EXPECT_EQ(linksOf(top), links);
    }
    EXPECT_EQ(out, krvtest::Sentinel<char>());
    e.item1->name[0] = '\0';  // an empty name is still a name
    EXPECT_EQ(run(KRV_XML_Transform, e.item1), "<>x&lt;y</>\n");
    e.item1->name[0] = 'i';
    EXPECT_EQ(run(KRV_XML_Transform, e.config), kExampleWhole);
    KRV_XML_FreeNode(e.config);
}

TEST(Transform, FileHoldsExactlyTheText)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    const std::string path = krvtest::TempFile("file.xml", std::string(5000, 'o').c_str());  // longer: truncated
    const std::string absent = krvtest::TempFile("absent.xml");
    ASSERT_EQ(KRV_XML_TransformFile(e.config, path.c_str()), KRV_XML_OK);
    EXPECT_EQ(krvtest::ReadFile(path), kExampleWhole);  // byte for byte: no NUL after the text
    // A failure while building touches no file, existing or not.
    char *name = std::exchange(e.item2->name, nullptr);
    EXPECT_EQ(KRV_XML_TransformFile(e.config, path.c_str()), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_TransformFile(e.config, absent.c_str()), KRV_XML_ERR_INVALID_PARAM);
    e.item2->name = name;
    EXPECT_EQ(krvtest::ReadFile(path), kExampleWhole);
    EXPECT_NE(::access(absent.c_str(), F_OK), 0) << "file created";
    EXPECT_EQ(KRV_XML_TransformFile(e.config, "/nonexistent-dir/x/out.xml"), KRV_XML_ERR_FILE_OPEN);
    std::remove(path.c_str());
    KRV_XML_FreeNode(e.config);
    // A full device: a text larger than the stdio buffer (the write fails) and a short one (only the flush fails).
    for (size_t size : {size_t{1} << 20, size_t{10}}) {
        XmlNode *n = krvtest::Element("n", nullptr, std::string(size, 'v').c_str());
        if (::access("/dev/full", W_OK) == 0) {
            EXPECT_EQ(KRV_XML_TransformFile(n, "/dev/full"), KRV_XML_ERR_FILE_WRITE) << size;
        }
        KRV_XML_FreeNode(n);
    }
}

// Where the heap grants no more than the finished text needs, the output still grows to it; one byte less and
// the transform fails without output.
TEST(Transform, OutputFitsTheHeapThatHoldsItsText)
{
    krvtest::LeakGuard guard;
    std::string refs;
    for (int i = 0; i < 600; ++i) {
        refs += "&amp;&lt;";  // each reference is written back as it stands
    }
    const std::string doc =
        "<r a=\"" + refs + "\"><x>" + std::string(9000, 'v') + "</x><y><z>" + refs + "</z><w/></y></r>";
    for (bool session : {false, true}) {
        XmlNode *tree = krvtest::MustParse(doc, session), *node = nullptr;
        ASSERT_EQ(KRV_XML_GetNodeByUrl(tree, "r.y.z", &node), KRV_XML_OK);
        for (int i = 0; i < 6; ++i) {
            SCOPED_TRACE((session ? "session, form " : "heap, form ") + std::to_string(i % 3) + ", top " + "rz"[i / 3]);
            const TransformFn fn = kStringForms[i % 3];
            XmlNode *from = i < 3 ? tree : node;
            const std::string expected = run(fn, from);
            ASSERT_NE(expected.rfind("<rc ", 0), 0u) << expected;
            if (expected == "<null>") {
                continue;  // an empty text (the tail of a node with children) takes no memory
            }
            char *text = krvtest::Sentinel<char>();
            krv_test::RefuseAllocationsOver(expected.size());
            EXPECT_EQ(fn(from, &text), KRV_XML_ERR_NO_MEMORY);
            EXPECT_EQ(text, krvtest::Sentinel<char>());
            krv_test::RefuseAllocationsOver(expected.size() + 1);
            const std::string grown = run(fn, from);
            krv_test::RefuseAllocationsOver(0);
            EXPECT_TRUE(grown == expected) << "the text differs";
        }
        KRV_XML_FreeNode(tree);
    }
}

TEST(Escape, ElementTextAndAttributeValues)
{
    krvtest::LeakGuard guard;
    const std::pair<const char *, const char *> cases[] = {
        {"a&b", "a&amp;b"}, {"AT&T;", "AT&amp;T;"}, {"x<y>z", "x&lt;y&gt;z"},
        {"It's \"ok\"", "It&apos;s &quot;ok&quot;"}, {"&amp;lt;", "&amp;lt;"}, {"&lt", "&amp;lt"},
        {"&#169;", "&#169;"}, {"&#x1F600;", "&#x1F600;"}, {"&#x110000;", "&amp;#x110000;"},
        {"\"'<>&", "&quot;&apos;&lt;&gt;&amp;"}, {"end&", "end&amp;"}, {"&#X41;", "&amp;#X41;"},
        {"&#1114111;", "&#1114111;"}, {"&#1114112;", "&amp;#1114112;"}, {"&#0;&#;&#x;", "&#0;&#;&#x;"},
        {"&#00000000000000000065;", "&#00000000000000000065;"}, {"&#xaF;&#xg;", "&#xaF;&amp;#xg;"},
        {"&#12a;", "&amp;#12a;"}, {"&quot;&apos;&gt;", "&quot;&apos;&gt;"}, {"&Lt;&;", "&amp;Lt;&amp;;"},
        {"&a&lt;", "&amp;a&lt;"}, {"&x;&y", "&amp;x;&amp;y"}, {"&&amp;", "&amp;&amp;"}, {"&#12", "&amp;#12"},
        {"&#4294967361;", "&amp;#4294967361;"},  // 2^32 + 65: no wrap-around
        {"caf\xc3\xa9\t\r\n\x01;#", "caf\xc3\xa9\t\r\n\x01;#"},
    };
    for (const auto &[in, out] : cases) {
        XmlNode *e = krvtest::Element("e", nullptr, in);
        ASSERT_EQ(KRV_XML_AddAttr(e, nullptr, "a", in), KRV_XML_OK);
        EXPECT_EQ(run(KRV_XML_Transform, e), std::string("<e a=\"") + out + "\">" + out + "</e>\n") << in;
        KRV_XML_FreeNode(e);
    }
}

// Every position of a markup character, and of the end, relative to the 16-byte blocks the scan reads: the value
// sits at each offset of an aligned buffer whose bytes after its end are markup that must not count.
TEST(Escape, EveryLengthAndAlignment)
{
    krvtest::LeakGuard guard;
    alignas(16) char storage[64 + 16];
    XmlNode *e = krvtest::Element("e", nullptr, "v");
    char *const owned = e->value;
    const char *const entities[] = {"&quot;", "&apos;", "&lt;", "&gt;", "&amp;", "b"};
    for (size_t offset = 0; offset < 16; ++offset) {
        for (size_t length = 0; length <= 40; ++length) {
            for (int m = 0; m < 6; ++m) {
                for (size_t at = 0; at < (length > 0 ? length : 1); at += (length > 20 ? 3 : 1)) {
                    std::memset(storage, '<', sizeof storage);
                    std::memset(storage + offset, 'b', length);
                    storage[offset + length] = '\0';
                    storage[offset + at] = length > 0 ? "\"'<>&b"[m] : '\0';
                    e->value = storage + offset;
                    const std::string b(length > 0 ? at : 0, 'b'), rest(length > 0 ? length - at - 1 : 0, 'b');
                    EXPECT_EQ(run(KRV_XML_Transform, e), "<e>" + b + (length > 0 ? entities[m] : "") + rest + "</e>\n")
                        << "offset " << offset << ", length " << length << ", '" << "\"'<>&b"[m] << "' at " << at;
                }
            }
        }
    }
    e->value = owned;
    KRV_XML_FreeNode(e);
}

constexpr uint32_t kAnyCapacity = UINT32_MAX;

struct Buf {
    XmlMemBuf b;
    Buf() { XML_MembufInit(&b); }
    ~Buf() { XML_MembufDestroy(&b); }
    // The content, flagged when the storage or the terminator is missing.
    std::string content() const
    {
        return b.data == nullptr ? "<no storage>"
                                 : std::string(b.data, b.length) + (b.data[b.length] == '\0' ? "" : "<no NUL>");
    }
    // Checks that a call succeeded and left this content and capacity.
    void expect(uint32_t rc, const std::string &text, uint32_t capacity = kAnyCapacity) const
    {
        EXPECT_EQ(rc, KRV_XML_OK) << text.substr(0, 40);
        EXPECT_EQ(content(), text);
        EXPECT_TRUE(capacity == kAnyCapacity || b.capacity == capacity) << b.capacity << " for " << text.substr(0, 40);
    }
};

// Growth is measured from the length but added to the capacity; shrinking reallocates only past 1024 spare bytes;
// a refused request is asked once more for the exact size, and zero bytes need no heap at all.
TEST(MemBuf, CapacityRuleAndExactRetryWorkedNumbers)
{
    krvtest::LeakGuard guard;
    Buf buf, fresh;
    const std::string x(1023, 'x'), hundred(100, 'h'), more(3000, 'm'), big(6000, 'b');
    buf.expect(XML_MemBufAppend(&buf.b, "q"), "q", 1024);  // 1025 bytes of storage
    buf.expect(XML_MemBufAppendStr(&buf.b, x.c_str()), "q" + x, 1024);
    buf.expect(XML_MemBufAppend(&buf.b, "y"), "q" + x + "y", 2048);
    XML_MembufDestroy(&buf.b);
    buf.expect(XML_MemBufAppendStr(&buf.b, hundred.c_str()), hundred, 1024);
    buf.expect(XML_MemBufAppendStr(&buf.b, more.c_str()), hundred + more, 4024);
    XML_MembufDestroy(&buf.b);
    buf.expect(XML_MemBufAssign(&buf.b, big.data(), 6000), big, 6000);
    buf.expect(XML_MemBufAssign(&buf.b, big.data(), 5000), big.substr(0, 5000), 6000);
    buf.expect(XML_MemBufAssign(&buf.b, "abc", 3), "abc", 1027);
    buf.expect(XML_MemBufAppendStr(&buf.b, "defghij"), "abcdefghij", 1027);
    const char *before = buf.b.data;
    buf.expect(XML_MemBufAssign(&buf.b, "xyz", 3), "xyz", 1027);
    EXPECT_EQ(buf.b.data, before);  // exactly 1024 spare: the storage stays
    krv_test::FailAllocationAt(1);
    buf.expect(XML_MemBufAppendStr(&buf.b, more.c_str()), "xyz" + more, 3003);
    krv_test::FailAllocationAt(1);
    buf.expect(XML_MemBufAssignStr(&buf.b, big.c_str()), big, 6000);
    krv_test::FailAllocationAt(1);
    fresh.expect(XML_MemBufAssign(&fresh.b, "z", 0), "<no storage>");
    EXPECT_FALSE(krv_test::FailurePending());
    krv_test::FailAllocationAt(0);
}

// Null arguments, empty inputs, inserts at every place and sources inside the buffer itself.
TEST(MemBuf, InsertAssignAndNullInputs)
{
    krvtest::LeakGuard guard;
    XML_MembufInit(nullptr);
    XML_MembufDestroy(nullptr);
    for (uint32_t rc : {XML_MemBufAssign(nullptr, "a", 1), XML_MemBufAssignStr(nullptr, "a"),
                        XML_MemBufAppend(nullptr, "a"), XML_MemBufAppendStr(nullptr, "a"),
                        XML_MemBufInsert(nullptr, "a", 1, 0)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    Buf buf;
    for (uint32_t rc : {XML_MemBufAppendStr(&buf.b, ""), XML_MemBufAppendStr(&buf.b, nullptr),
                        XML_MemBufAppend(&buf.b, nullptr), XML_MemBufInsert(&buf.b, nullptr, 5, 0)}) {
        buf.expect(rc, "<no storage>");
    }
    buf.expect(XML_MemBufAssign(&buf.b, "zzz", 0), "");  // zero bytes still read as ""
    buf.expect(XML_MemBufAssign(&buf.b, "a\0b", 3), std::string("a\0b", 3));  // bytes go in as they are
    buf.expect(XML_MemBufAppend(&buf.b, "\0"), std::string("a\0b\0", 4));
    buf.expect(XML_MemBufAssignStr(&buf.b, nullptr), "<no storage>", 0);  // a null source empties
    EXPECT_TRUE(buf.b.length == 0 && buf.b.growStep == 1024);
    buf.expect(XML_MemBufAssignStr(&buf.b, "abc"), "abc");
    buf.expect(XML_MemBufInsert(&buf.b, "XY", 2, 1), "aXYbc");
    buf.expect(XML_MemBufInsert(&buf.b, "<", 1, 0), "<aXYbc");
    buf.expect(XML_MemBufInsert(&buf.b, ">!", 2, 6), "<aXYbc>!");  // at the length: appends
    // Past the end: refused whatever the source and count; past 4 GiB: refused before the source is read.
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "z", 1, 9), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, nullptr, 1, 9), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "z", 0, 9), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "z", UINT32_MAX, 0), KRV_XML_ERR_NO_MEMORY);
    EXPECT_EQ(buf.content(), "<aXYbc>!");
    // Sources straddling the position, moved by a reallocation, and a tail assigned with and without reallocation.
    const std::string big(2000, 'w'), text = std::string(3000, '-') + "tail";
    buf.expect(XML_MemBufAssignStr(&buf.b, "0123456789"), "0123456789");
    buf.expect(XML_MemBufInsert(&buf.b, buf.b.data + 3, 4, 5), "01234345656789");
    buf.expect(XML_MemBufAssignStr(&buf.b, big.c_str()), big);
    buf.expect(XML_MemBufInsert(&buf.b, buf.b.data, 2000, 0), big + big);
    buf.expect(XML_MemBufAssignStr(&buf.b, text.c_str()), text);
    buf.expect(XML_MemBufAssign(&buf.b, buf.b.data + 3000, 4), "tail");
    buf.expect(XML_MemBufAssign(&buf.b, buf.b.data + 2, 2), "il");
}

}  // namespace
