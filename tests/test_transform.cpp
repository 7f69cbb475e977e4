// Transform, Escape and MemBuf suites: the transforms (whole, head, tail,
// file), escaping of values and the growable output buffer.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>

#include "test_support.h"
#include "xml/xml_internal.h"

namespace {

// ----- fixtures -----------------------------------------------------------------

struct Attr { const char *name, *value, *prefix = nullptr; };

// An element (or another kind) with its attributes and children; the
// children are linked by hand (the insertion functions live elsewhere).
XmlNode *el(const char *name, const char *value = nullptr, std::initializer_list<XmlNode *> kids = {},
            std::initializer_list<Attr> attrs = {}, const char *prefix = nullptr,
            int32_t kind = KRV_XML_NODE_ELEMENT)
{
    XmlNode *n = nullptr;
    EXPECT_EQ(KRV_XML_CreateNode(kind, prefix, name, value, &n), KRV_XML_OK);
    for (const Attr &a : attrs) {
        XmlNode *attr = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
        EXPECT_EQ(XML_SetNode(nullptr, attr, a.prefix, a.name, a.value), KRV_XML_OK);
        EXPECT_EQ(XML_AddAttrNode(attr, n), KRV_XML_OK);
    }
    for (XmlNode *kid : kids) {
        kid->parent = n;
        kid->prev = std::exchange(n->lastChild, kid);
        (kid->prev != nullptr ? kid->prev->next : n->firstChild) = kid;
    }
    return n;
}

// Creation drops empty strings: this gives the node an empty value or prefix
// of its own.
XmlNode *withEmpty(XmlNode *n, char *XmlNode::*field)
{
    n->*field = static_cast<char *>(XML_Calloc(1, 1));
    n->valueOwned = n->valueOwned || field == &XmlNode::value;
    return n;
}

// The example tree: config version=2 with server (host=a&b), port (8080),
// empty (""), list (item "x<y", item).
struct Example { XmlNode *config, *server, *port, *empty, *list, *item1, *item2; };

Example makeExample()
{
    Example e{};
    e.list = el("list", nullptr, {e.item1 = el("item", "x<y"), e.item2 = el("item")});
    e.server = el("server", nullptr, {}, {{"host", "a&b"}});
    e.port = el("port", "8080");
    e.empty = withEmpty(el("empty"), &XmlNode::value);
    e.config = el("config", nullptr, {e.server, e.port, e.empty, e.list}, {{"version", "2"}});
    return e;
}

const char kExampleWhole[] =
    "<config version=\"2\">\n<server host=\"a&amp;b\"/>\n<port>8080</port>\n<empty></empty>\n"
    "<list>\n<item>x&lt;y</item>\n<item/>\n</list>\n</config>\n";
const char kExampleHead[] =
    "<config version=\"2\">\n<server host=\"a&amp;b\"/>\n<port>8080</port>\n<empty></empty>\n"
    "<list>\n<item>x&lt;y</item>\n<item>\n";
const char kExampleTail[] = "</item>\n</list>\n</config>\n";
const char kListWhole[] = "<list>\n<item>x&lt;y</item>\n<item/>\n</list>\n";
const char kListHead[] = "<list>\n<item>x&lt;y</item>\n<item>\n";
const char kListTail[] = "</item>\n</list>\n";

using TransformFn = uint32_t (*)(XmlNode *, char **);
const TransformFn kStringForms[] = {KRV_XML_Transform, KRV_XML_TransformHead, KRV_XML_TransformTail};

// The text of a string transform, "<null>" when none was handed out, or
// "<rc N>" on failure.
std::string run(TransformFn fn, XmlNode *top)
{
    char *out = nullptr;
    const uint32_t rc = fn(top, &out);
    std::string text = rc != KRV_XML_OK ? "<rc " + std::to_string(rc) + ">" : out != nullptr ? out : "<null>";
    KRV_XML_FreeMem(out);
    return text;
}

std::string repeat(const std::string &unit, size_t times)
{
    std::string out;
    for (size_t i = 0; i < times; ++i) {
        out += unit;
    }
    return out;
}

std::string readFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string tempPath(const char *tag)
{
    return testing::TempDir() + "krvxml_transform_" + tag + "_" + std::to_string(::getpid()) + ".xml";
}

using Links = std::tuple<XmlNode *, XmlNode *, XmlNode *>;
Links linksOf(const XmlNode *n)
{
    return Links{n->parent, n->next, n->prev};
}

// ----- Transform ----------------------------------------------------------------

TEST(Transform, ExampleTreeWholeHeadAndTail)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    EXPECT_EQ(run(KRV_XML_Transform, e.config), kExampleWhole);
    EXPECT_EQ(run(KRV_XML_TransformHead, e.config), kExampleHead);
    EXPECT_EQ(run(KRV_XML_TransformTail, e.config), kExampleTail);
    KRV_XML_FreeNode(e.config);
}

TEST(Transform, ValuesAttributesAndShapes)
{
    krvtest::LeakGuard guard;
    struct Case { const char *what; XmlNode *top; const char *text[3]; };  // whole, head, tail
    const Case cases[] = {
        {"null value", el("a"), {"<a/>\n", "<a>\n", "<null>"}},
        {"value", el("a", "v"), {"<a>v</a>\n", "<a>v</a>\n", "<null>"}},
        {"empty value", withEmpty(el("a"), &XmlNode::value), {"<a></a>\n", "<a></a>\n", "<null>"}},
        {"value and a child: the value is lost", el("a", "lost", {el("b", "kept")}),
         {"<a>\n<b>kept</b>\n</a>\n", "<a>\n<b>kept</b>\n", "</b>\n</a>\n"}},
        {"attributes in list order, a null value, prefixes",
         el("a", nullptr, {el("b", nullptr, {}, {}, "p")}, {{"x", "1"}, {"y", nullptr}, {"x", "<", "q"}}, "p"),
         {"<p:a x=\"1\" y=\"\" q:x=\"&lt;\">\n<p:b/>\n</p:a>\n", "<p:a x=\"1\" y=\"\" q:x=\"&lt;\">\n<p:b>\n",
          "</p:b>\n</p:a>\n"}},
        {"an empty prefix is written", withEmpty(el("a", "v"), &XmlNode::nsPrefix),
         {"<:a>v</:a>\n", "<:a>v</:a>\n", "<null>"}},
        {"head closes leaves that have a next sibling", el("a", nullptr, {el("b"), el("c")}),
         {"<a>\n<b/>\n<c/>\n</a>\n", "<a>\n<b/>\n<c>\n", "</c>\n</a>\n"}},
        {"children off the chain of last children", el("a", nullptr, {el("b", nullptr, {el("c")}), el("d")}),
         {"<a>\n<b>\n<c/>\n</b>\n<d/>\n</a>\n", "<a>\n<b>\n<c>\n<d>\n", "</c>\n</b>\n</d>\n</a>\n"}},
        {"last leaf with a value: head writes it whole, tail closes it again", el("a", nullptr, {el("b", "v")}),
         {"<a>\n<b>v</b>\n</a>\n", "<a>\n<b>v</b>\n", "</b>\n</a>\n"}},
        {"a document prints as an element", el("doc", nullptr, {el("x", "1")}, {}, nullptr, KRV_XML_NODE_DOCUMENT),
         {"<doc>\n<x>1</x>\n</doc>\n", "<doc>\n<x>1</x>\n", "</x>\n</doc>\n"}},
    };
    for (const Case &c : cases) {
        for (int mode = 0; mode < 3; ++mode) {
            EXPECT_EQ(run(kStringForms[mode], c.top), c.text[mode]) << c.what << ", mode " << mode;
        }
        KRV_XML_FreeNode(c.top);
    }
}

TEST(Transform, InnerNodePrintsItsSubTreeAndKeepsItsLinks)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    const Links port = linksOf(e.port), list = linksOf(e.list), item2 = linksOf(e.item2);
    EXPECT_EQ(run(KRV_XML_Transform, e.port), "<port>8080</port>\n");
    EXPECT_EQ(run(KRV_XML_Transform, e.list), kListWhole);
    EXPECT_EQ(run(KRV_XML_TransformHead, e.item2), "<item>\n");
    EXPECT_EQ(run(KRV_XML_TransformTail, e.item2), "<null>");
    EXPECT_TRUE(linksOf(e.port) == port && linksOf(e.list) == list && linksOf(e.item2) == item2);
    EXPECT_EQ(run(KRV_XML_Transform, e.config), kExampleWhole);
    KRV_XML_FreeNode(e.config);
}

TEST(Transform, RefusedArgumentsAndNamelessNodes)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    char *const sentinel = reinterpret_cast<char *>(&e);
    char *out = sentinel;
    XmlNode *attr = e.server->firstAttr;
    for (TransformFn fn : kStringForms) {
        EXPECT_EQ(fn(nullptr, &out), KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(fn(e.config, nullptr), KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(fn(attr, &out), KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(KRV_XML_TransformFile(nullptr, "x"), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_TransformFile(e.config, nullptr), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_TransformFile(attr, "x"), KRV_XML_ERR_INVALID_PARAM);

    // A null name below the top node, on an attribute or on the top node
    // itself: refused, no text handed out, the top node's links restored.
    const std::tuple<XmlNode *, XmlNode *, TransformFn> nameless[] = {
        {e.item2, e.list, KRV_XML_Transform},    {e.item2, e.list, KRV_XML_TransformHead},
        {e.item2, e.list, KRV_XML_TransformTail}, {e.list, e.list, KRV_XML_TransformTail},
        {attr, e.server, KRV_XML_Transform},     {attr, e.server, KRV_XML_TransformHead},
    };
    for (const auto &[n, top, fn] : nameless) {
        const Links links = linksOf(top);
        char *name = std::exchange(n->name, nullptr);
        EXPECT_EQ(fn(top, &out), KRV_XML_ERR_INVALID_PARAM);
        n->name = name;
        EXPECT_EQ(linksOf(top), links);
    }
    EXPECT_EQ(out, sentinel);
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
    const std::string path = tempPath("file"), absent = tempPath("absent");
    std::ofstream(path) << std::string(5000, 'o');  // longer than the text: truncated
    ASSERT_EQ(KRV_XML_TransformFile(e.config, path.c_str()), KRV_XML_OK);
    EXPECT_EQ(readFile(path), kExampleWhole);  // byte for byte: no NUL after the text

    // A failure while building touches no file, existing or not.
    char *name = std::exchange(e.item2->name, nullptr);
    EXPECT_EQ(KRV_XML_TransformFile(e.config, path.c_str()), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_TransformFile(e.config, absent.c_str()), KRV_XML_ERR_INVALID_PARAM);
    e.item2->name = name;
    EXPECT_EQ(readFile(path), kExampleWhole);
    EXPECT_NE(::access(absent.c_str(), F_OK), 0) << "file created";
    EXPECT_EQ(KRV_XML_TransformFile(e.config, "/nonexistent-dir/x/out.xml"), KRV_XML_ERR_FILE_OPEN);
    std::remove(path.c_str());
    KRV_XML_FreeNode(e.config);

    // A full device: a text larger than the stdio buffer (the write fails)
    // and a short one (only the flush fails).
    for (size_t size : {size_t{1} << 20, size_t{10}}) {
        XmlNode *n = el("n", std::string(size, 'v').c_str());
        if (::access("/dev/full", W_OK) == 0) {
            EXPECT_EQ(KRV_XML_TransformFile(n, "/dev/full"), KRV_XML_ERR_FILE_WRITE) << size;
        }
        KRV_XML_FreeNode(n);
    }
}

// Every allocation of every transform may fail: the right code, nothing
// handed out, no file created, the top node's links restored, nothing leaked.
TEST(Transform, AllocationFailureSweep)
{
    krvtest::LeakGuard guard;
    const std::string path = tempPath("sweep");
    std::remove(path.c_str());
    struct Fixture { Example e; Links links; char *out; };
    const std::pair<TransformFn, const char *> forms[] = {
        {KRV_XML_Transform, kListWhole}, {KRV_XML_TransformHead, kListHead},
        {KRV_XML_TransformTail, kListTail}, {nullptr, kListWhole},  // null: the file form
    };
    for (const auto &[fn, expected] : forms) {
        long points = krvtest::SweepAllocationFailures(
            [] { Example e = makeExample(); return new Fixture{e, linksOf(e.list), nullptr}; },
            [fn = fn, &path](Fixture *f) {
                return fn != nullptr ? fn(f->e.list, &f->out) : KRV_XML_TransformFile(f->e.list, path.c_str());
            },
            [fn = fn, text = expected, &path](uint32_t rc, Fixture *f) {
                EXPECT_EQ(linksOf(f->e.list), f->links);
                if (rc == KRV_XML_OK) {
                    EXPECT_EQ(fn != nullptr ? std::string(f->out) : readFile(path), text);
                } else {
                    EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
                    EXPECT_EQ(f->out, nullptr);
                    EXPECT_NE(::access(path.c_str(), F_OK), 0) << "file created";
                }
                std::remove(path.c_str());
                KRV_XML_FreeMem(f->out);
                KRV_XML_FreeNode(f->e.config);
                delete f;
            });
        EXPECT_GE(points, 1);
    }
}

// An output of about 40 KB outgrows its first block several times: every
// growth is a failure point, and a failure there leaves nothing behind.
TEST(Transform, GrowingOutputFailsCleanlyAtEveryGrowth)
{
    krvtest::LeakGuard guard;
    constexpr int kKids = 1500;
    const std::string expected = "<r>\n" + repeat("<k a=\"1&amp;2\">text &lt; more</k>\n", kKids) + "</r>\n";
    struct Fixture { XmlNode *root; char *out; };
    long points = krvtest::SweepAllocationFailures(
        [] {
            XmlNode *root = el("r");
            for (int i = 0; i < kKids; ++i) {
                krvtest::LinkChild(root, el("k", "text < more", {}, {{"a", "1&2"}}));
            }
            return new Fixture{root, nullptr};
        },
        [](Fixture *f) { return KRV_XML_Transform(f->root, &f->out); },
        [&expected](uint32_t rc, Fixture *f) {
            if (rc == KRV_XML_OK) {
                EXPECT_TRUE(f->out != nullptr && f->out == expected);
            } else {
                EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
                EXPECT_EQ(f->out, nullptr);
            }
            KRV_XML_FreeMem(f->out);
            KRV_XML_FreeNode(f->root);
            delete f;
        });
    EXPECT_GE(points, 3);  // the first block and at least two growths
}

// A chain 1,000,000 deep whose leaf has 100,000 attributes prints on a
// 256 KiB stack.
TEST(Transform, DeepChainAndLongAttributeListUseConstantStack)
{
    krvtest::LeakGuard guard;
    constexpr int kDepth = 1000000, kAttrs = 100000;
    XmlNode *top = el("d");
    for (int i = 0; i < kAttrs; ++i) {  // linked by hand: adding walks the list
        XmlNode *a = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
        ASSERT_EQ(XML_SetNode(nullptr, a, nullptr, "k", "v"), KRV_XML_OK);
        a->parent = top;
        a->next = std::exchange(top->firstAttr, a);
    }
    for (int i = 1; i < kDepth; ++i) {
        top = el("d", nullptr, {top});
    }
    std::string text[3];
    krvtest::OnSmallStack([&] {
        for (int mode = 0; mode < 3; ++mode) {
            text[mode] = run(kStringForms[mode], top);
        }
    });

    const std::string leaf = "<d k=\"v\"" + repeat(" k=\"v\"", kAttrs - 1);
    const std::string opens = repeat("<d>\n", kDepth - 1), closes = repeat("</d>\n", kDepth - 1);
    const std::string expected[] = {opens + leaf + "/>\n" + closes, opens + leaf + ">\n", "</d>\n" + closes};
    for (int mode = 0; mode < 3; ++mode) {
        EXPECT_TRUE(text[mode] == expected[mode]) << mode << ": " << text[mode].substr(0, 80);
    }
    KRV_XML_FreeNode(top);
}

// ----- Escape -------------------------------------------------------------------

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
        XmlNode *e = el("e", in, {}, {{"a", in}});
        EXPECT_EQ(run(KRV_XML_Transform, e), std::string("<e a=\"") + out + "\">" + out + "</e>\n") << in;
        KRV_XML_FreeNode(e);
    }
}

// Every position of a markup character, and of the end, relative to the
// 16-byte blocks the scan reads: the value is placed at each offset of an
// aligned buffer and has each length up to 40.
TEST(Escape, EveryLengthAndAlignment)
{
    krvtest::LeakGuard guard;
    const std::pair<char, const char *> marks[] = {
        {'"', "&quot;"}, {'\'', "&apos;"}, {'<', "&lt;"}, {'>', "&gt;"}, {'&', "&amp;"}, {'x', "x"},
    };
    alignas(16) char storage[64 + 16];
    XmlNode *e = el("e", "v");
    char *const owned = e->value;
    for (size_t offset = 0; offset < 16; ++offset) {
        for (size_t length = 0; length <= 40; ++length) {
            for (const auto &[mark, entity] : marks) {
                for (size_t at = 0; at < length; at += (length > 20 ? 3 : 1)) {
                    std::string text(length, 'b');
                    text[at] = mark;
                    std::memset(storage, '<', sizeof storage);  // bytes after the end must not count
                    std::memcpy(storage + offset, text.c_str(), length + 1);
                    e->value = storage + offset;
                    const std::string want = "<e>" + std::string(at, 'b') + entity +
                                             std::string(length - at - 1, 'b') + "</e>\n";
                    EXPECT_EQ(run(KRV_XML_Transform, e), want) << "offset " << offset << ", length " << length
                                                               << ", '" << mark << "' at " << at;
                }
            }
            std::memset(storage, '<', sizeof storage);
            std::memcpy(storage + offset, std::string(length, 'b').c_str(), length + 1);
            e->value = storage + offset;
            EXPECT_EQ(run(KRV_XML_Transform, e), "<e>" + std::string(length, 'b') + "</e>\n")
                << "offset " << offset << ", length " << length;
        }
    }
    e->value = owned;
    KRV_XML_FreeNode(e);
}

// Many ampersands must not make escaping quadratic: neither the search for
// the ';' ending a candidate nor the test of a candidate.
TEST(Escape, LinearInTheTextLength)
{
    krvtest::LeakGuard guard;
    const std::pair<std::string, std::string> cases[] = {
        {repeat("abcdefghi&", 500000), repeat("abcdefghi&amp;", 500000)},  // 5 MB, no ';' at all
        {repeat("&", 2000000) + ";", repeat("&amp;", 2000000) + ";"},      // one far ';'
    };
    for (const auto &[in, out] : cases) {
        XmlNode *e = el("e", in.c_str());
        const auto start = std::chrono::steady_clock::now();
        const std::string text = run(KRV_XML_Transform, e);
        const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        KRV_XML_FreeNode(e);
        EXPECT_EQ(text, "<e>" + out + "</e>\n");
        EXPECT_LT(seconds, 2.0) << "escaping " << in.size() << " bytes";
    }
}

// ----- MemBuf -------------------------------------------------------------------

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
};

TEST(MemBuf, CapacityRuleWorkedNumbers)
{
    krvtest::LeakGuard guard;
    Buf buf;
    ASSERT_EQ(XML_MemBufAppend(&buf.b, "q"), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 1024u);  // 1025 bytes of storage
    ASSERT_EQ(XML_MemBufAppendStr(&buf.b, std::string(1023, 'x').c_str()), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 1024u);
    ASSERT_EQ(XML_MemBufAppend(&buf.b, "y"), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 2048u);
    EXPECT_EQ(buf.content(), "q" + std::string(1023, 'x') + "y");

    // Growth is measured from the length but added to the capacity.
    const std::string hundred(100, 'h'), more(3000, 'm'), big(6000, 'b');
    XML_MembufDestroy(&buf.b);
    ASSERT_EQ(XML_MemBufAppendStr(&buf.b, hundred.c_str()), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufAppendStr(&buf.b, more.c_str()), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 4024u);
    EXPECT_EQ(buf.content(), hundred + more);

    // Shrinking reallocates only when more than 1024 bytes would be spare.
    XML_MembufDestroy(&buf.b);
    ASSERT_EQ(XML_MemBufAssign(&buf.b, big.data(), 6000), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufAssign(&buf.b, big.data(), 5000), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 6000u);
    ASSERT_EQ(XML_MemBufAssign(&buf.b, "abc", 3), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 1027u);
    ASSERT_EQ(XML_MemBufAppendStr(&buf.b, "defghij"), KRV_XML_OK);
    const char *before = buf.b.data;
    ASSERT_EQ(XML_MemBufAssign(&buf.b, "xyz", 3), KRV_XML_OK);
    EXPECT_EQ(buf.b.data, before);  // exactly 1024 spare: the storage stays
    EXPECT_EQ(buf.content(), "xyz");
}

TEST(MemBuf, NullArgumentsAndEmptyInputs)
{
    krvtest::LeakGuard guard;
    XML_MembufInit(nullptr);
    XML_MembufDestroy(nullptr);
    EXPECT_EQ(XML_MemBufAssign(nullptr, "a", 1), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufAssignStr(nullptr, "a"), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufAppend(nullptr, "a"), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufAppendStr(nullptr, "a"), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufInsert(nullptr, "a", 1, 0), KRV_XML_ERR_INVALID_PARAM);

    Buf buf;
    EXPECT_EQ(XML_MemBufAppendStr(&buf.b, ""), KRV_XML_OK);
    EXPECT_EQ(XML_MemBufAppendStr(&buf.b, nullptr), KRV_XML_OK);
    EXPECT_EQ(XML_MemBufAppend(&buf.b, nullptr), KRV_XML_OK);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, nullptr, 5, 0), KRV_XML_OK);
    EXPECT_EQ(buf.content(), "<no storage>");
    ASSERT_EQ(XML_MemBufAssign(&buf.b, "zzz", 0), KRV_XML_OK);  // zero bytes still read as ""
    EXPECT_EQ(buf.content(), "");

    // Bytes go in as they are, NULs included; a null source empties.
    ASSERT_EQ(XML_MemBufAssign(&buf.b, "a\0b", 3), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufAppend(&buf.b, "\0"), KRV_XML_OK);
    EXPECT_EQ(buf.content(), std::string("a\0b\0", 4));
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, nullptr), KRV_XML_OK);
    EXPECT_EQ(buf.content(), "<no storage>");
    EXPECT_TRUE(buf.b.length == 0 && buf.b.capacity == 0 && buf.b.growStep == 1024);
}

TEST(MemBuf, InsertAndAssign)
{
    krvtest::LeakGuard guard;
    Buf buf;
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, "abc"), KRV_XML_OK);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "XY", 2, 1), KRV_XML_OK);
    EXPECT_EQ(buf.content(), "aXYbc");
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "<", 1, 0), KRV_XML_OK);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, ">!", 2, 6), KRV_XML_OK);  // at the length: appends
    // Past the end: refused whatever the source and count.
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "z", 1, 9), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, nullptr, 1, 9), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "z", 0, 9), KRV_XML_ERR_INVALID_PARAM);
    // A content that would pass 4 GiB is refused before the source is read.
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "z", UINT32_MAX, 0), KRV_XML_ERR_NO_MEMORY);
    EXPECT_EQ(buf.content(), "<aXYbc>!");

    // Sources inside the buffer itself: straddling the position, moved by a
    // reallocation, and a tail assigned with and without reallocation.
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, "0123456789"), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufInsert(&buf.b, buf.b.data + 3, 4, 5), KRV_XML_OK);
    EXPECT_EQ(buf.content(), "01234345656789");
    const std::string big(2000, 'w'), text = std::string(3000, '-') + "tail";
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, big.c_str()), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufInsert(&buf.b, buf.b.data, 2000, 0), KRV_XML_OK);
    EXPECT_EQ(buf.content(), big + big);
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, text.c_str()), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufAssign(&buf.b, buf.b.data + 3000, 4), KRV_XML_OK);
    EXPECT_EQ(buf.content(), "tail");
    ASSERT_EQ(XML_MemBufAssign(&buf.b, buf.b.data + 2, 2), KRV_XML_OK);
    EXPECT_EQ(buf.content(), "il");
}

// When the first request fails, one more is made for the exact size; zero
// bytes into a buffer without storage succeed even without the heap.
TEST(MemBuf, AllocationFailureRetriesWithTheExactSize)
{
    krvtest::LeakGuard guard;
    Buf buf;
    const std::string more(1500, 'm'), big(5000, 'b');
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, "abc"), KRV_XML_OK);
    krv_test::FailAllocationAt(1);
    ASSERT_EQ(XML_MemBufAppendStr(&buf.b, more.c_str()), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 1503u);
    EXPECT_EQ(buf.content(), "abc" + more);
    krv_test::FailAllocationAt(1);
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, big.c_str()), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 5000u);
    EXPECT_EQ(buf.content(), big);

    Buf fresh;
    krv_test::FailAllocationAt(1);
    EXPECT_EQ(XML_MemBufAssign(&fresh.b, "z", 0), KRV_XML_OK);
    EXPECT_FALSE(krv_test::FailurePending());
    krv_test::FailAllocationAt(0);
    EXPECT_EQ(fresh.content(), "<no storage>");
}

}  // namespace
