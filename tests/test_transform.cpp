// Transform, Escape and MemBuf suites: the transforms (whole, head, tail,
// file), escaping of values and the growable output buffer.
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

// ----- fixtures -----------------------------------------------------------------

XmlNode *parse(const char *text)
{
    return krvtest::MustParse(text, false);
}

// Creation and parsing drop empty strings: this gives the node an empty
// value or prefix of its own.
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
    e.config = parse("<config version='2'><server host='a&amp;b'/><port>8080</port><empty><![CDATA[]]></empty>"
                     "<list><item>x&lt;y</item><item/></list></config>");
    e.server = e.config->firstChild;
    e.port = e.server->next;
    e.empty = e.port->next;
    e.list = e.config->lastChild;
    e.item1 = e.list->firstChild;
    e.item2 = e.list->lastChild;
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

using Links = std::tuple<XmlNode *, XmlNode *, XmlNode *>;
Links linksOf(const XmlNode *n)
{
    return Links{n->parent, n->next, n->prev};
}

// ----- Transform ----------------------------------------------------------------

// Whole, head and tail of trees of every shape, and of inner nodes of the
// example tree, whose links stay as they were.
TEST(Transform, WholeHeadAndTailOfEveryShape)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    XmlNode *lost = parse("<a><b>kept</b></a>");
    EXPECT_EQ(KRV_XML_SetNode(lost, nullptr, nullptr, "lost"), KRV_XML_OK);
    struct Case { const char *what; XmlNode *top; const char *text[3]; };  // whole, head, tail
    const Case cases[] = {
        {"null value", parse("<a/>"), {"<a/>\n", "<a>\n", "<null>"}},
        {"value", parse("<a>v</a>"), {"<a>v</a>\n", "<a>v</a>\n", "<null>"}},
        {"empty value", parse("<a><![CDATA[]]></a>"), {"<a></a>\n", "<a></a>\n", "<null>"}},
        {"value and a child: the value is lost", lost,
         {"<a>\n<b>kept</b>\n</a>\n", "<a>\n<b>kept</b>\n", "</b>\n</a>\n"}},
        {"attributes in list order, a null value, prefixes", parse("<p:a x='1' y='' q:x='&lt;'><p:b/></p:a>"),
         {"<p:a x=\"1\" y=\"\" q:x=\"&lt;\">\n<p:b/>\n</p:a>\n", "<p:a x=\"1\" y=\"\" q:x=\"&lt;\">\n<p:b>\n",
          "</p:b>\n</p:a>\n"}},
        {"an empty prefix is written", withEmpty(krvtest::Element("a", nullptr, "v"), &XmlNode::nsPrefix),
         {"<:a>v</:a>\n", "<:a>v</:a>\n", "<null>"}},
        {"head closes leaves that have a next sibling", parse("<a><b/><c/></a>"),
         {"<a>\n<b/>\n<c/>\n</a>\n", "<a>\n<b/>\n<c>\n", "</c>\n</a>\n"}},
        {"children off the chain of last children", parse("<a><b><c/></b><d/></a>"),
         {"<a>\n<b>\n<c/>\n</b>\n<d/>\n</a>\n", "<a>\n<b>\n<c>\n<d>\n", "</c>\n</b>\n</d>\n</a>\n"}},
        {"last leaf with a value: head writes it whole, tail closes it again", parse("<a><b>v</b></a>"),
         {"<a>\n<b>v</b>\n</a>\n", "<a>\n<b>v</b>\n", "</b>\n</a>\n"}},
        {"an element top", krvtest::Element("x", nullptr, "1"), {"<x>1</x>\n", "<x>1</x>\n", "<null>"}},
        {"inner node with siblings", e.list, {kListWhole, kListHead, kListTail}},
        {"inner leaf with a value", e.port, {"<port>8080</port>\n", "<port>8080</port>\n", "<null>"}},
        {"inner leaf without value", e.item2, {"<item/>\n", "<item>\n", "<null>"}},
        {"example", e.config, {kExampleWhole, kExampleHead, kExampleTail}},  // freed last
    };
    for (const Case &c : cases) {
        const Links links = linksOf(c.top);
        for (int mode = 0; mode < 3; ++mode) {
            EXPECT_EQ(run(kStringForms[mode], c.top), c.text[mode]) << c.what << ", mode " << mode;
        }
        EXPECT_EQ(linksOf(c.top), links) << c.what;
        if (c.top->parent == nullptr) {
            KRV_XML_FreeNode(c.top);
        }
    }
}

// Random trees of chains deeper than a walk looks ahead, with siblings at
// every level, against texts built by recursion over the same shapes.
struct Shape {
    std::string name;
    std::vector<Shape> kids;
};

Shape growShape(std::mt19937 &rng, int &budget)
{
    static const char *const kNames[] = {"a", "bb", "p:c", "deep"};
    Shape top{kNames[rng() % 4], {}};
    Shape *s = &top;
    for (unsigned chain = rng() % 4 == 0 ? 17 + rng() % 24 : 0; chain > 0 && budget > 0; --chain, --budget) {
        s->kids.push_back(Shape{kNames[rng() % 4], {}});
        s = &s->kids.back();
    }
    const unsigned pick = rng() % 6;  // a leaf, one child or two to three
    for (unsigned i = 0, n = pick < 2 ? 0 : pick < 4 ? 1 : pick - 2; i < n && budget > 0; ++i) {
        --budget;
        s->kids.push_back(growShape(rng, budget));
    }
    return top;
}

// What each form writes for the sub-tree of s; `last`: s has no next sibling.
std::string wholeOf(const Shape &s)
{
    if (s.kids.empty()) {
        return "<" + s.name + "/>\n";
    }
    std::string text = "<" + s.name + ">\n";
    for (const Shape &k : s.kids) {
        text += wholeOf(k);
    }
    return text + "</" + s.name + ">\n";
}

std::string headOf(const Shape &s, bool last)
{
    if (s.kids.empty()) {
        return "<" + s.name + (last ? ">\n" : "/>\n");
    }
    std::string text = "<" + s.name + ">\n";
    for (size_t i = 0; i < s.kids.size(); ++i) {
        text += headOf(s.kids[i], i + 1 == s.kids.size());
    }
    return text;
}

std::string tailOf(const Shape &s, bool last, bool top)
{
    if (s.kids.empty()) {
        return last && !top ? "</" + s.name + ">\n" : "";
    }
    std::string text;
    for (size_t i = 0; i < s.kids.size(); ++i) {
        text += tailOf(s.kids[i], i + 1 == s.kids.size(), false);
    }
    return text + "</" + s.name + ">\n";
}

TEST(Transform, DeepChainsWithSiblingsAtEveryLevel)
{
    krvtest::LeakGuard guard;
    std::mt19937 rng(20261126);
    const auto orNull = [](const std::string &t) { return t.empty() ? std::string("<null>") : t; };
    for (int round = 0; round < 40; ++round) {
        int budget = 400;
        Shape root{"r", {}};
        while (root.kids.size() < 2 || (budget > 0 && rng() % 3 != 0)) {
            root.kids.push_back(growShape(rng, budget));
        }
        const std::string text = wholeOf(root);
        for (bool session : {false, true}) {
            XmlNode *doc = krvtest::MustParse(text, session);
            ASSERT_NE(doc, nullptr);
            // The document, and its first child, which has a next sibling.
            const std::pair<XmlNode *, const Shape *> tops[] = {{doc, &root}, {doc->firstChild, &root.kids[0]}};
            for (const auto &[top, shape] : tops) {
                SCOPED_TRACE(std::string(session ? "session" : "heap") + ", round " + std::to_string(round) +
                             (top == doc ? ", document" : ", first child"));
                EXPECT_EQ(run(KRV_XML_Transform, top), wholeOf(*shape));
                EXPECT_EQ(run(KRV_XML_TransformHead, top), headOf(*shape, true));
                EXPECT_EQ(run(KRV_XML_TransformTail, top), orNull(tailOf(*shape, true, true)));
            }
            KRV_XML_FreeNode(doc);
        }
    }
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

    // A full device: a text larger than the stdio buffer (the write fails)
    // and a short one (only the flush fails).
    for (size_t size : {size_t{1} << 20, size_t{10}}) {
        XmlNode *n = krvtest::Element("n", nullptr, std::string(size, 'v').c_str());
        if (::access("/dev/full", W_OK) == 0) {
            EXPECT_EQ(KRV_XML_TransformFile(n, "/dev/full"), KRV_XML_ERR_FILE_WRITE) << size;
        }
        KRV_XML_FreeNode(n);
    }
}

// Where the heap grants no more than the finished text needs, the output
// still grows to it; one byte less and the transform fails without output.
TEST(Transform, OutputFitsTheHeapThatHoldsItsText)
{
    krvtest::LeakGuard guard;
    const std::string big(9000, 'v');
    std::string refs;
    for (int i = 0; i < 600; ++i) {
        refs += "&amp;&lt;";  // each reference is written back as it stands
    }
    const std::string doc = "<r a=\"" + refs + "\"><x>" + big + "</x><y><z>" + refs + "</z><w/></y></r>";
    using Transform = uint32_t (*)(XmlNode *, char **);
    const std::pair<const char *, Transform> transforms[] = {
        {"whole", KRV_XML_Transform}, {"head", KRV_XML_TransformHead}, {"tail", KRV_XML_TransformTail}};
    for (bool session : {false, true}) {
        XmlNode *tree = krvtest::MustParse(doc, session);
        XmlNode *node = nullptr;
        ASSERT_EQ(KRV_XML_GetNodeByUrl(tree, "r.y.z", &node), KRV_XML_OK);
        for (const auto &[name, transform] : transforms) {
            for (XmlNode *from : {tree, node}) {
                SCOPED_TRACE(std::string(name) + (session ? " session" : " heap") + (from == tree ? " r" : " z"));
                char *text = nullptr;
                ASSERT_EQ(transform(from, &text), KRV_XML_OK);
                if (text == nullptr) {
                    continue;  // an empty text (the tail of a node with children) takes no memory
                }
                const std::string expected = text;
                KRV_XML_FreeMem(text);
                char *sentinel = krvtest::Sentinel<char>();
                text = sentinel;
                krv_test::RefuseAllocationsOver(expected.size());
                EXPECT_EQ(transform(from, &text), KRV_XML_ERR_NO_MEMORY);
                EXPECT_EQ(text, sentinel);
                krv_test::RefuseAllocationsOver(expected.size() + 1);
                uint32_t rc = transform(from, &text);
                krv_test::RefuseAllocationsOver(0);
                ASSERT_EQ(rc, KRV_XML_OK);
                EXPECT_TRUE(text == expected) << "the text differs";
                KRV_XML_FreeMem(text);
            }
        }
        KRV_XML_FreeNode(tree);
    }
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
        XmlNode *e = krvtest::Element("e", nullptr, in);
        ASSERT_EQ(KRV_XML_AddAttr(e, nullptr, "a", in), KRV_XML_OK);
        EXPECT_EQ(run(KRV_XML_Transform, e), std::string("<e a=\"") + out + "\">" + out + "</e>\n") << in;
        KRV_XML_FreeNode(e);
    }
}

// Every position of a markup character, and of the end, relative to the
// 16-byte blocks the scan reads: the value sits at each offset of an aligned
// buffer whose bytes after its end are markup that must not count.
TEST(Escape, EveryLengthAndAlignment)
{
    krvtest::LeakGuard guard;
    alignas(16) char storage[64 + 16];
    XmlNode *e = krvtest::Element("e", nullptr, "v");
    char *const owned = e->value;
    for (size_t offset = 0; offset < 16; ++offset) {
        for (size_t length = 0; length <= 40; ++length) {
            for (const auto &[mark, entity] : {std::pair<char, const char *>{'"', "&quot;"}, {'\'', "&apos;"},
                                               {'<', "&lt;"}, {'>', "&gt;"}, {'&', "&amp;"}, {'b', "b"}}) {
                for (size_t at = 0; at < std::max<size_t>(length, 1); at += (length > 20 ? 3 : 1)) {
                    std::memset(storage, '<', sizeof storage);
                    std::memset(storage + offset, 'b', length);
                    storage[offset + length] = '\0';
                    storage[offset + at] = length > 0 ? mark : '\0';
                    e->value = storage + offset;
                    const std::string b(length > 0 ? at : 0, 'b'), rest(length > 0 ? length - at - 1 : 0, 'b');
                    EXPECT_EQ(run(KRV_XML_Transform, e), "<e>" + b + (length > 0 ? entity : "") + rest + "</e>\n")
                        << "offset " << offset << ", length " << length << ", '" << mark << "' at " << at;
                }
            }
        }
    }
    e->value = owned;
    KRV_XML_FreeNode(e);
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
    for (uint32_t rc : {XML_MemBufAssign(nullptr, "a", 1), XML_MemBufAssignStr(nullptr, "a"),
                        XML_MemBufAppend(nullptr, "a"), XML_MemBufAppendStr(nullptr, "a"),
                        XML_MemBufInsert(nullptr, "a", 1, 0)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    Buf buf;
    for (uint32_t rc : {XML_MemBufAppendStr(&buf.b, ""), XML_MemBufAppendStr(&buf.b, nullptr),
                        XML_MemBufAppend(&buf.b, nullptr), XML_MemBufInsert(&buf.b, nullptr, 5, 0)}) {
        EXPECT_EQ(rc, KRV_XML_OK);
    }
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
