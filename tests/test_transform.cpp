// MemBuf, Escape and Transform suites: the growable output buffer, escaping
// of values and the transforms (whole, head, tail, file).
#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "test_support.h"
#include "xml/xml_internal.h"

namespace {

// ----- tree building (the insertion functions live elsewhere) --------------

XmlNode *makeElement(const char *name, const char *value = nullptr, const char *prefix = nullptr)
{
    XmlNode *node = nullptr;
    EXPECT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, prefix, name, value, &node), KRV_XML_OK);
    return node;
}

// Gives node the empty string as its value (creation drops empty strings).
void setEmptyValue(XmlNode *node)
{
    static char empty[] = "";
    node->value = empty;
    node->valueOwned = 0;
}

XmlNode *appendChild(XmlNode *parent, XmlNode *child)
{
    child->parent = parent;
    child->prev = parent->lastChild;
    if (parent->lastChild != nullptr) {
        parent->lastChild->next = child;
    } else {
        parent->firstChild = child;
    }
    parent->lastChild = child;
    return child;
}

XmlNode *addAttr(XmlNode *element, const char *name, const char *value, const char *prefix = nullptr)
{
    XmlNode *attr = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    EXPECT_NE(attr, nullptr);
    EXPECT_EQ(XML_SetNode(nullptr, attr, prefix, name, value), KRV_XML_OK);
    EXPECT_EQ(XML_AddAttrNode(attr, element), KRV_XML_OK);
    return attr;
}

// The example tree: config version=2 with server (host=a&b), port (8080),
// empty (""), list (item "x<y", item).
struct Example {
    XmlNode *config, *server, *port, *empty, *list, *item1, *item2;
};

Example makeExample()
{
    Example e{};
    e.config = makeElement("config");
    addAttr(e.config, "version", "2");
    e.server = appendChild(e.config, makeElement("server"));
    addAttr(e.server, "host", "a&b");
    e.port = appendChild(e.config, makeElement("port", "8080"));
    e.empty = appendChild(e.config, makeElement("empty"));
    setEmptyValue(e.empty);
    e.list = appendChild(e.config, makeElement("list"));
    e.item1 = appendChild(e.list, makeElement("item", "x<y"));
    e.item2 = appendChild(e.list, makeElement("item"));
    return e;
}

const char kExampleWhole[] =
    "<config version=\"2\">\n<server host=\"a&amp;b\"/>\n<port>8080</port>\n<empty></empty>\n"
    "<list>\n<item>x&lt;y</item>\n<item/>\n</list>\n</config>\n";
const char kExampleHead[] =
    "<config version=\"2\">\n<server host=\"a&amp;b\"/>\n<port>8080</port>\n<empty></empty>\n"
    "<list>\n<item>x&lt;y</item>\n<item>\n";
const char kExampleTail[] = "</item>\n</list>\n</config>\n";

using TransformFn = uint32_t (*)(XmlNode *, char **);

// Runs a string transform; returns the text, or "<null>" when none was
// handed out, or "<rc N>" on failure.
std::string run(TransformFn fn, XmlNode *top)
{
    char *out = nullptr;
    uint32_t rc = fn(top, &out);
    if (rc != KRV_XML_OK) {
        return "<rc " + std::to_string(rc) + ">";
    }
    if (out == nullptr) {
        return "<null>";
    }
    std::string text(out);
    KRV_XML_FreeMem(out);
    return text;
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

// ----- MemBuf ---------------------------------------------------------------

struct Buf {
    XmlMemBuf b;
    Buf() { XML_MembufInit(&b); }
    ~Buf() { XML_MembufDestroy(&b); }
    std::string content() const { return b.data == nullptr ? std::string() : std::string(b.data, b.length); }
};

TEST(MemBuf, CapacityRuleWorkedNumbers)
{
    krvtest::LeakGuard guard;
    {
        Buf buf;
        EXPECT_EQ(buf.b.growStep, 1024u);
        ASSERT_EQ(XML_MemBufAppendStr(&buf.b, "q"), KRV_XML_OK);
        EXPECT_EQ(buf.b.length, 1u);
        EXPECT_EQ(buf.b.capacity, 1024u);
        EXPECT_EQ(buf.b.data[1], '\0');
        for (int i = 1; i < 1024; ++i) {
            ASSERT_EQ(XML_MemBufAppend(&buf.b, "x"), KRV_XML_OK);
        }
        EXPECT_EQ(buf.b.capacity, 1024u);  // 1024 single appends: one allocation
        ASSERT_EQ(XML_MemBufAppend(&buf.b, "y"), KRV_XML_OK);
        EXPECT_EQ(buf.b.length, 1025u);
        EXPECT_EQ(buf.b.capacity, 2048u);
        EXPECT_EQ(buf.b.data[1024], 'y');
        EXPECT_EQ(buf.b.data[0], 'q');
    }
    {
        // Growth is measured from the length but added to the capacity.
        Buf buf;
        std::string hundred(100, 'h');
        ASSERT_EQ(XML_MemBufAppendStr(&buf.b, hundred.c_str()), KRV_XML_OK);
        ASSERT_EQ(buf.b.capacity, 1024u);
        std::string more(3000, 'm');
        ASSERT_EQ(XML_MemBufAppendStr(&buf.b, more.c_str()), KRV_XML_OK);
        EXPECT_EQ(buf.b.capacity, 4024u);
        EXPECT_EQ(buf.content(), hundred + more);
    }
    {
        Buf buf;
        std::string big(6000, 'b');
        ASSERT_EQ(XML_MemBufAssign(&buf.b, big.data(), 6000), KRV_XML_OK);
        ASSERT_EQ(XML_MemBufAssign(&buf.b, big.data(), 5000), KRV_XML_OK);
        EXPECT_EQ(buf.b.capacity, 6000u);  // 1000 spare bytes: the storage stays
        ASSERT_EQ(XML_MemBufAssign(&buf.b, "abc", 3), KRV_XML_OK);
        EXPECT_EQ(buf.b.capacity, 1027u);
        EXPECT_EQ(buf.content(), "abc");
        ASSERT_EQ(XML_MemBufAppendStr(&buf.b, "defghij"), KRV_XML_OK);
        const char *before = buf.b.data;
        ASSERT_EQ(XML_MemBufAssign(&buf.b, "xyz", 3), KRV_XML_OK);
        EXPECT_EQ(buf.b.data, before);  // exactly growStep spare: stays
        EXPECT_EQ(buf.b.capacity, 1027u);
        EXPECT_STREQ(buf.b.data, "xyz");
    }
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
    EXPECT_EQ(buf.b.data, nullptr);
    EXPECT_EQ(buf.b.length, 0u);

    // Zero bytes into a buffer without storage still read as "".
    ASSERT_EQ(XML_MemBufAssign(&buf.b, "zzz", 0), KRV_XML_OK);
    ASSERT_NE(buf.b.data, nullptr);
    EXPECT_STREQ(buf.b.data, "");

    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, "content"), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, nullptr), KRV_XML_OK);
    EXPECT_EQ(buf.b.data, nullptr);
    EXPECT_EQ(buf.b.length, 0u);
    EXPECT_EQ(buf.b.capacity, 0u);
    EXPECT_EQ(buf.b.growStep, 1024u);

    // Bytes go in as they are, NULs included.
    ASSERT_EQ(XML_MemBufAssign(&buf.b, "a\0b", 3), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufAppend(&buf.b, "\0"), KRV_XML_OK);
    EXPECT_EQ(buf.content(), std::string("a\0b\0", 4));
    EXPECT_EQ(buf.b.data[4], '\0');
}

TEST(MemBuf, InsertAndAssign)
{
    krvtest::LeakGuard guard;
    Buf buf;
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, "abc"), KRV_XML_OK);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "XY", 2, 1), KRV_XML_OK);
    EXPECT_STREQ(buf.b.data, "aXYbc");
    EXPECT_EQ(buf.b.length, 5u);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "<", 1, 0), KRV_XML_OK);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, ">!", 2, 6), KRV_XML_OK);  // at length: appends
    EXPECT_STREQ(buf.b.data, "<aXYbc>!");
    // Past the end: refused whatever the source and count.
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "z", 1, 9), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, nullptr, 1, 9), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "z", 0, 9), KRV_XML_ERR_INVALID_PARAM);
    // A count that would pass 4 GiB is refused before the source is read.
    EXPECT_EQ(XML_MemBufInsert(&buf.b, "z", UINT32_MAX, 0), KRV_XML_ERR_NO_MEMORY);
    EXPECT_STREQ(buf.b.data, "<aXYbc>!");
    EXPECT_EQ(buf.b.length, 8u);

    // A source inside the buffer itself.
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, "0123456789"), KRV_XML_OK);
    // Part of the source before the position, part after it.
    ASSERT_EQ(XML_MemBufInsert(&buf.b, buf.b.data + 3, 4, 5), KRV_XML_OK);
    EXPECT_STREQ(buf.b.data, "01234345656789");
    // Insertion that reallocates.
    std::string big(2000, 'w');
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, big.c_str()), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufInsert(&buf.b, buf.b.data, 2000, 0), KRV_XML_OK);
    EXPECT_EQ(buf.content(), big + big);
    // Assignment from its own tail, shrinking with and without reallocation.
    std::string text = std::string(3000, '-') + "tail";
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, text.c_str()), KRV_XML_OK);
    ASSERT_EQ(XML_MemBufAssign(&buf.b, buf.b.data + 3000, 4), KRV_XML_OK);
    EXPECT_STREQ(buf.b.data, "tail");
    ASSERT_EQ(XML_MemBufAssign(&buf.b, buf.b.data + 2, 2), KRV_XML_OK);
    EXPECT_STREQ(buf.b.data, "il");
}

TEST(MemBuf, AllocationFailureRetriesWithTheExactSize)
{
    krvtest::LeakGuard guard;
    Buf buf;
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, "abc"), KRV_XML_OK);
    std::string more(1500, 'm');
    krv_test::FailAllocationAt(1);
    ASSERT_EQ(XML_MemBufAppendStr(&buf.b, more.c_str()), KRV_XML_OK);
    EXPECT_FALSE(krv_test::FailurePending());
    EXPECT_EQ(buf.b.capacity, 1503u);  // the exact size
    EXPECT_EQ(buf.content(), "abc" + more);


    // The retry applies to assignment and insertion alike.
    krv_test::FailAllocationAt(1);
    ASSERT_EQ(XML_MemBufInsert(&buf.b, "<>", 2, 0), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 1505u);
    krv_test::FailAllocationAt(1);
    std::string big(5000, 'b');
    ASSERT_EQ(XML_MemBufAssignStr(&buf.b, big.c_str()), KRV_XML_OK);
    EXPECT_EQ(buf.b.capacity, 5000u);
    EXPECT_EQ(buf.content(), big);
}

// ----- Escape ---------------------------------------------------------------

struct EscapeCase {
    const char *in;
    const char *out;
};

const EscapeCase kEscapeCases[] = {
    {"a&b", "a&amp;b"},
    {"AT&T;", "AT&amp;T;"},
    {"x<y>z", "x&lt;y&gt;z"},
    {"It's \"ok\"", "It&apos;s &quot;ok&quot;"},
    {"&amp;lt;", "&amp;lt;"},
    {"&#169;", "&#169;"},
    {"&#x1F600;", "&#x1F600;"},
    {"&#x110000;", "&amp;#x110000;"},
    {"&lt", "&amp;lt"},
    {"\"'<>&", "&quot;&apos;&lt;&gt;&amp;"},
    {"end&", "end&amp;"},
    {"&#X41;", "&amp;#X41;"},
    {"&#1114111;", "&#1114111;"},
    {"&#1114112;", "&amp;#1114112;"},
    {"&#0;&#;&#x;", "&#0;&#;&#x;"},
    {"&#00000000000000000065;", "&#00000000000000000065;"},
    {"&#xaF;&#xg;", "&#xaF;&amp;#xg;"},
    {"&#12a;", "&amp;#12a;"},
    {"&quot;&apos;&gt;", "&quot;&apos;&gt;"},
    {"&Lt;&;", "&amp;Lt;&amp;;"},
    {"&a&lt;", "&amp;a&lt;"},
    {"&x;&y", "&amp;x;&amp;y"},
    {"&&amp;", "&amp;&amp;"},
    {"caf\xc3\xa9\t\r\n\x01;#", "caf\xc3\xa9\t\r\n\x01;#"},
};

TEST(Escape, ElementTextAndAttributeValues)
{
    krvtest::LeakGuard guard;
    for (const EscapeCase &c : kEscapeCases) {
        SCOPED_TRACE(c.in);
        XmlNode *e = makeElement("e", c.in);
        addAttr(e, "a", c.in);
        EXPECT_EQ(run(KRV_XML_Transform, e),
                  std::string("<e a=\"") + c.out + "\">" + c.out + "</e>\n");
        KRV_XML_FreeNode(e);
    }
}

// The reference test done the plain way: cut the candidate up to the first
// ';' and look at it. Random texts over the characters that matter must come
// out the same.
std::string plainEscape(const std::string &t)
{
    std::string out;
    for (size_t i = 0; i < t.size(); ++i) {
        const char c = t[i];
        const char *entity = c == '"' ? "&quot;" : c == '\'' ? "&apos;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : nullptr;
        if (entity != nullptr || c != '&') {
            out += entity != nullptr ? std::string(entity) : std::string(1, c);
            continue;
        }
        size_t end = t.find(';', i + 1);
        bool ref = false;
        if (end != std::string::npos) {
            std::string cand = t.substr(i, end - i + 1);
            if (cand.compare(0, 2, "&#") == 0) {
                size_t k = cand[2] == 'x' ? 3 : 2;
                const std::string digits = k == 3 ? "0123456789abcdefABCDEF" : "0123456789";
                unsigned long value = 0;
                ref = true;
                for (; ref && k + 1 < cand.size(); ++k) {
                    size_t d = digits.find(cand[k]);
                    value = value * (digits.size() == 10 ? 10 : 16) + (d > 15 ? d - 6 : d);
                    ref = d != std::string::npos && value <= 0x10FFFF;
                }
            } else {
                ref = cand == "&lt;" || cand == "&gt;" || cand == "&amp;" || cand == "&apos;" || cand == "&quot;";
            }
        }
        out += ref ? "&" : "&amp;";
    }
    return out;
}

TEST(Escape, RandomTextsMatchThePlainReferenceTest)
{
    krvtest::LeakGuard guard;
    const char alphabet[] = "&&&;;##xX019fFgaltmpquos<>\"' ";
    std::mt19937 rng(12345);
    XmlNode *e = makeElement("e");
    for (int n = 0; n < 20000; ++n) {
        std::string text(rng() % 16, ' ');
        for (char &c : text) {
            c = alphabet[rng() % (sizeof alphabet - 1)];
        }
        e->value = const_cast<char *>(text.c_str());
        ASSERT_EQ(run(KRV_XML_Transform, e), "<e>" + plainEscape(text) + "</e>\n") << text;
    }
    e->value = nullptr;
    KRV_XML_FreeNode(e);
}

// Many ampersands must not make escaping quadratic: neither the search for
// the ';' ending a candidate nor the test of the candidate.
TEST(Escape, LinearInTheTextLength)
{
    krvtest::LeakGuard guard;
    struct Big {
        std::string in, out;
    };
    std::vector<Big> cases(3);
    for (int i = 0; i < 500000; ++i) {
        cases[0].in += "abcdefghi&";
        cases[0].out += "abcdefghi&amp;";
    }
    cases[1].in = std::string(2000000, '&') + ";";
    for (int i = 0; i < 2000000; ++i) {
        cases[1].out += "&amp;";
    }
    cases[1].out += ";";
    for (int i = 0; i < 400000; ++i) {
        cases[2].in += "&#00000&lt;";
        cases[2].out += "&amp;#00000&lt;";
    }
    for (const Big &c : cases) {
        XmlNode *e = makeElement("e");
        e->value = const_cast<char *>(c.in.c_str());
        auto start = std::chrono::steady_clock::now();
        std::string text = run(KRV_XML_Transform, e);
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        e->value = nullptr;
        KRV_XML_FreeNode(e);
        EXPECT_EQ(text, "<e>" + c.out + "</e>\n");
        EXPECT_LT(seconds, 2.0) << "escaping " << c.in.size() << " bytes";
    }
}

// ----- Transform -------------------------------------------------------------

TEST(Transform, ExampleTreeWholeHeadAndTail)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    EXPECT_EQ(run(KRV_XML_Transform, e.config), kExampleWhole);
    EXPECT_EQ(run(KRV_XML_TransformHead, e.config), kExampleHead);
    EXPECT_EQ(run(KRV_XML_TransformTail, e.config), kExampleTail);
    // Head, caller's content, tail: a well-formed frame.
    KRV_XML_FreeNode(e.config);
}

TEST(Transform, LeavesValuesAndAttributes)
{
    krvtest::LeakGuard guard;
    struct Case {
        const char *what;
        XmlNode *(*make)();
        const char *whole, *head, *tail;
    };
    const Case cases[] = {
        {"no value", [] { return makeElement("a"); }, "<a/>\n", "<a>\n", "<null>"},
        {"value", [] { return makeElement("a", "v"); }, "<a>v</a>\n", "<a>v</a>\n", "<null>"},
        {"empty value",
         [] {
             XmlNode *a = makeElement("a");
             setEmptyValue(a);
             return a;
         },
         "<a></a>\n", "<a></a>\n", "<null>"},
        {"value and a child: the value is lost",
         [] {
             XmlNode *a = makeElement("a", "lost");
             appendChild(a, makeElement("b", "kept"));
             return a;
         },
         "<a>\n<b>kept</b>\n</a>\n", "<a>\n<b>kept</b>\n", "</b>\n</a>\n"},
        {"attributes: order, null value, prefixes",
         [] {
             XmlNode *a = makeElement("a", nullptr, "p");
             addAttr(a, "x", "1");
             addAttr(a, "y", nullptr);
             addAttr(a, "x", "<", "q");
             appendChild(a, makeElement("b", nullptr, "p"));
             return a;
         },
         "<p:a x=\"1\" y=\"\" q:x=\"&lt;\">\n<p:b/>\n</p:a>\n", "<p:a x=\"1\" y=\"\" q:x=\"&lt;\">\n<p:b>\n",
         "</p:b>\n</p:a>\n"},
        {"head closes leaves that have a next sibling",
         [] {
             XmlNode *a = makeElement("a");
             appendChild(a, makeElement("b"));
             appendChild(a, makeElement("c"));
             return a;
         },
         "<a>\n<b/>\n<c/>\n</a>\n", "<a>\n<b/>\n<c>\n", "</c>\n</a>\n"},
        {"last leaf with a value: head writes it whole, tail closes it again",
         [] {
             XmlNode *a = makeElement("a");
             appendChild(a, makeElement("b", "v"));
             return a;
         },
         "<a>\n<b>v</b>\n</a>\n", "<a>\n<b>v</b>\n", "</b>\n</a>\n"},
        {"a document prints as an element",
         [] {
             XmlNode *d = nullptr;
             EXPECT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, "doc", nullptr, &d), KRV_XML_OK);
             appendChild(d, makeElement("x", "1"));
             return d;
         },
         "<doc>\n<x>1</x>\n</doc>\n", "<doc>\n<x>1</x>\n", "</x>\n</doc>\n"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        XmlNode *top = c.make();
        EXPECT_EQ(run(KRV_XML_Transform, top), c.whole);
        EXPECT_EQ(run(KRV_XML_TransformHead, top), c.head);
        EXPECT_EQ(run(KRV_XML_TransformTail, top), c.tail);
        KRV_XML_FreeNode(top);
    }
}

TEST(Transform, InnerNodePrintsItsSubTreeAndKeepsItsLinks)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    const Links port = linksOf(e.port), list = linksOf(e.list), item2 = linksOf(e.item2);
    EXPECT_EQ(run(KRV_XML_Transform, e.port), "<port>8080</port>\n");
    EXPECT_EQ(run(KRV_XML_Transform, e.list), "<list>\n<item>x&lt;y</item>\n<item/>\n</list>\n");
    EXPECT_EQ(run(KRV_XML_TransformHead, e.list), "<list>\n<item>x&lt;y</item>\n<item>\n");
    EXPECT_EQ(run(KRV_XML_TransformTail, e.list), "</item>\n</list>\n");
    EXPECT_EQ(run(KRV_XML_Transform, e.item2), "<item/>\n");
    EXPECT_EQ(run(KRV_XML_TransformTail, e.item2), "<null>");
    EXPECT_EQ(linksOf(e.port), port);
    EXPECT_EQ(linksOf(e.list), list);
    EXPECT_EQ(linksOf(e.item2), item2);
    EXPECT_EQ(run(KRV_XML_Transform, e.config), kExampleWhole);
    KRV_XML_FreeNode(e.config);
}

TEST(Transform, RefusedArgumentsAndNamelessNodes)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    char *sentinel = reinterpret_cast<char *>(&e);
    char *out = sentinel;
    const TransformFn fns[] = {KRV_XML_Transform, KRV_XML_TransformHead, KRV_XML_TransformTail};
    for (TransformFn fn : fns) {
        EXPECT_EQ(fn(nullptr, &out), KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(fn(e.config, nullptr), KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(fn(e.server->firstAttr, &out), KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(KRV_XML_TransformFile(nullptr, "x"), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_TransformFile(e.config, nullptr), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_TransformFile(e.server->firstAttr, "x"), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(e.server->firstAttr->next, nullptr);
    EXPECT_EQ(e.server->firstAttr->parent, e.server);

    // A null name deep in the sub-tree, on an element or an attribute.
    const Links list = linksOf(e.list);
    XmlNode *nameless[] = {e.item2, e.server->firstAttr};
    for (XmlNode *n : nameless) {
        char *name = n->name;
        n->name = nullptr;
        EXPECT_EQ(KRV_XML_Transform(e.config, &out), KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(KRV_XML_TransformHead(e.config, &out), KRV_XML_ERR_INVALID_PARAM);
        n->name = name;
    }
    e.item1->name[0] = '\0';  // an empty name is still a name
    EXPECT_EQ(run(KRV_XML_Transform, e.item1), "<>x&lt;y</>\n");
    e.item1->name[0] = 'i';
    char *name = e.list->name;
    e.list->name = nullptr;
    EXPECT_EQ(KRV_XML_TransformTail(e.list, &out), KRV_XML_ERR_INVALID_PARAM);
    e.list->name = name;
    EXPECT_EQ(out, sentinel);
    EXPECT_EQ(linksOf(e.list), list);
    EXPECT_EQ(run(KRV_XML_Transform, e.config), kExampleWhole);
    KRV_XML_FreeNode(e.config);
}

TEST(Transform, FileHoldsExactlyTheText)
{
    krvtest::LeakGuard guard;
    Example e = makeExample();
    const std::string path = tempPath("file");
    {
        std::ofstream old(path);
        old << std::string(5000, 'o');  // longer than the text: truncated
    }
    ASSERT_EQ(KRV_XML_TransformFile(e.list, path.c_str()), KRV_XML_OK);
    EXPECT_EQ(readFile(path), run(KRV_XML_Transform, e.list));
    ASSERT_EQ(KRV_XML_TransformFile(e.config, path.c_str()), KRV_XML_OK);
    std::string content = readFile(path);
    EXPECT_EQ(content, kExampleWhole);
    EXPECT_EQ(content.find('\0'), std::string::npos);

    // A failure while building never touches the file.
    char *name = e.item2->name;
    e.item2->name = nullptr;
    EXPECT_EQ(KRV_XML_TransformFile(e.config, path.c_str()), KRV_XML_ERR_INVALID_PARAM);
    const std::string absent = tempPath("absent");
    EXPECT_EQ(KRV_XML_TransformFile(e.config, absent.c_str()), KRV_XML_ERR_INVALID_PARAM);
    e.item2->name = name;
    EXPECT_EQ(readFile(path), kExampleWhole);
    EXPECT_EQ(std::fopen(absent.c_str(), "r"), nullptr);

    EXPECT_EQ(KRV_XML_TransformFile(e.config, "/nonexistent-dir/x/out.xml"), KRV_XML_ERR_FILE_OPEN);
    std::remove(path.c_str());

    // Writes that cannot complete on a full device: larger than one stdio
    // buffer (the write fails) and a short one (only the flush fails).
    if (std::FILE *probe = std::fopen("/dev/full", "w")) {
        std::fclose(probe);
        for (size_t size : {size_t{1} << 20, size_t{10}}) {
            XmlNode *node = makeElement("n");
            std::string value(size, 'v');
            node->value = const_cast<char *>(value.c_str());
            EXPECT_EQ(KRV_XML_TransformFile(node, "/dev/full"), KRV_XML_ERR_FILE_WRITE) << size;
            node->value = nullptr;
            KRV_XML_FreeNode(node);
        }
    }
    KRV_XML_FreeNode(e.config);
}

// Every allocation of every transform may fail: the right code, nothing
// handed out, the top node's links restored, nothing leaked.
TEST(Transform, AllocationFailureSweep)
{
    krvtest::LeakGuard guard;
    static const std::string longValue(20000, '<');
    std::string escaped;
    for (size_t i = 0; i < longValue.size(); ++i) {
        escaped += "&lt;";
    }
    const std::string path = tempPath("sweep");
    std::remove(path.c_str());
    struct Fixture {
        Example e;
        Links links;
        char *out;
    };
    const TransformFn fns[] = {KRV_XML_Transform, KRV_XML_TransformHead, KRV_XML_TransformTail, nullptr};
    for (TransformFn fn : fns) {
        long points = krvtest::SweepAllocationFailures(
            [] {
                auto *f = new Fixture{makeExample(), {}, nullptr};
                XML_Free(nullptr, f->e.item1->value);
                f->e.item1->value = const_cast<char *>(longValue.c_str());
                f->e.item1->valueOwned = 0;
                f->links = linksOf(f->e.list);
                return f;
            },
            [fn, &path](Fixture *f) {
                return fn != nullptr ? fn(f->e.list, &f->out) : KRV_XML_TransformFile(f->e.list, path.c_str());
            },
            [fn, &path, &escaped](uint32_t rc, Fixture *f) {
                EXPECT_EQ(linksOf(f->e.list), f->links);
                if (rc != KRV_XML_OK) {
                    EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
                    EXPECT_EQ(f->out, nullptr);
                    if (fn == nullptr) {
                        EXPECT_EQ(std::fopen(path.c_str(), "r"), nullptr) << "file created";
                    }
                } else if (fn == KRV_XML_Transform) {
                    EXPECT_EQ(std::string(f->out), "<list>\n<item>" + escaped + "</item>\n<item/>\n</list>\n");
                }
                KRV_XML_FreeMem(f->out);
                KRV_XML_FreeNode(f->e.config);
                delete f;
            });
        EXPECT_GE(points, 1);
    }
    std::remove(path.c_str());
}

// A chain 1,000,000 deep and a 100,000 long attribute list print on a
// 256 KiB stack.
TEST(Transform, DeepChainAndLongAttributeListUseConstantStack)
{
    krvtest::LeakGuard guard;
    constexpr int kDepth = 1000000;
    constexpr int kAttrs = 100000;
    XmlNode *top = makeElement("d");
    XmlNode *leaf = top;
    for (int i = 1; i < kDepth; ++i) {
        leaf = appendChild(leaf, makeElement("d"));
    }
    // Linked by hand: appending one by one walks the whole list each time.
    XmlNode *last = nullptr;
    for (int i = 0; i < kAttrs; ++i) {
        XmlNode *a = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
        ASSERT_EQ(XML_SetNode(nullptr, a, nullptr, "k", "v"), KRV_XML_OK);
        a->parent = leaf;
        (last == nullptr ? leaf->firstAttr : last->next) = a;
        last = a;
    }

    struct Job {
        XmlNode *top;
        std::string whole, head, tail;
    } job{top, {}, {}, {}};
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 256 * 1024);
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, &attr,
                  [](void *arg) -> void * {
                      auto *j = static_cast<Job *>(arg);
                      j->whole = run(KRV_XML_Transform, j->top);
                      j->head = run(KRV_XML_TransformHead, j->top);
                      j->tail = run(KRV_XML_TransformTail, j->top);
                      return nullptr;
                  },
                  &job),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);

    std::string attrs;
    for (int i = 0; i < kAttrs; ++i) {
        attrs += i == 0 ? "k=\"v\"" : " k=\"v\"";
    }
    std::string opens, closes;
    for (int i = 1; i < kDepth; ++i) {
        opens += "<d>\n";
        closes += "</d>\n";
    }
    EXPECT_TRUE(job.whole == opens + "<d " + attrs + "/>\n" + closes) << job.whole.substr(0, 80);
    EXPECT_TRUE(job.head == opens + "<d " + attrs + ">\n") << job.head.substr(0, 80);
    EXPECT_TRUE(job.tail == "</d>\n" + closes) << job.tail.substr(0, 80);
    KRV_XML_FreeNode(top);
}

}  // namespace
