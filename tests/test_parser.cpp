// Parser suite: the document driver, attributes, the entry points, the file
// functions, failure handling and limits.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"
#include "xml/xml_parser_internal.h"

namespace {

std::string str(const char *s)
{
    return s != nullptr ? std::string(s) : std::string("~");
}

int depthOf(const XmlNode *n)
{
    int d = 0;
    for (; n->parent != nullptr; n = n->parent) {
        ++d;
    }
    return d;
}

// One line per element in document order: depth, prefix:name, value and
// attributes. Also checks the links that the dump does not show.
std::string dump(XmlNode *doc)
{
    auto qname = [](const XmlNode *n) {
        std::string prefix = n->nsPrefix != nullptr ? std::string(n->nsPrefix) + ":" : "";
        return prefix + str(n->name) + "=" + str(n->value);
    };
    std::string s;
    for (XmlNode *n = doc; n != nullptr; n = KRV_XML_Iterator(n)) {
        s += std::to_string(depthOf(n)) + " " + qname(n);
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            s += " " + qname(a);
            EXPECT_EQ(a->parent, n);
            EXPECT_EQ(a->kind, KRV_XML_NODE_ATTRIBUTE);
            EXPECT_EQ(a->mem, doc->mem);
        }
        s += ";";
        EXPECT_EQ(n->nameOwned, 1);
        EXPECT_EQ(n->mem, doc->mem);
        if (n->firstChild != nullptr) {
            XmlNode *last = n->firstChild;
            for (; last->next != nullptr; last = last->next) {
                EXPECT_EQ(last->next->prev, last);
            }
            EXPECT_EQ(n->lastChild, last);
            EXPECT_EQ(n->value, nullptr) << "an element with children has no text";
        }
    }
    return s;
}

uint32_t parse(const char *text, bool session, XmlNode **out)
{
    return session ? KRV_XML_ParseEx(text, out) : KRV_XML_Parse(text, out);
}

}  // namespace

TEST(Parser, AcceptedDocuments)
{
    struct Case {
        const char *text;
        const char *tree;
    } cases[] = {
        {"<r/>", "0 r=~;"}, {"  <r></r>  ", "0 r=~;"},
        {"<?xml version='1.0'?><!-- c --><!DOCTYPE r [<!ELEMENT r ANY>]><?pi x?><r>t</r><!-- end -->",
         "0 r=t;"},
        {"<?XML version='1.0'?><r/>", "0 r=~;"}, {"<!DOCTYPE r SYSTEM \"a>b\"><r/>", "0 r=~;"},
        {"<r><a>1</a><b x='2'/><c/></r>", "0 r=~;1 a=1;1 b=~ x=2;1 c=~;"},
        {"<p:r><p:a>x</p:a></p:r>", "0 p:r=~;1 p:a=x;"}, {"<r>  x y  </r>", "0 r=  x y  ;"},
        {"<r>\n  x</r>", "0 r=  x;"},
        {"<r>\t x</r>", "0 r= x;"},  // the SPACE after the TAB is kept
        {"<r>a &amp; b</r>", "0 r=a & b;"}, {"<r><![CDATA[<x>]]></r>", "0 r=<x>;"}, {"<r>  </r>", "0 r=  ;"},
        {"<r><!--c--></r>", "0 r=~;"}, {"<r><a></a> </r>", "0 r=~;1 a=~;"}, {"<r><a/> </r>", "0 r=~;1 a=~;"},
        {"<r>/x</r>", "0 r=/x;"}, {"<r>]]></r>", "0 r=]]>;"}, {"<r>x<!--c--></r>", "0 r=x;"},
        {"<r>a\r\nb </r >", "0 r=a\r\nb ;"},
        {"<r\n  a = \"1\"\tb='x\"y' c=\"it's\" d='1 < 2' e='&lt;&#65;'\n/>",
         "0 r=~ a=1 b=x\"y c=it's d=1 < 2 e=<A;"},
        {"<a x=''>t</a>", "0 a=t x=~;"}, {"<a p:x='1' q:x='2' x='3'/>", "0 a=~ p:x=1 q:x=2 x=3;"},
        {"<a p:q:r='1' xmlns:p='urn:x' xmlns='d'/>", "0 a=~ p:q:r=1 xmlns:p=urn:x xmlns=d;"},
        {"<p:a x='1'/>", "0 p:a=~ x=1;"}, {"<a><b><c/></b><d>1</d></a>", "0 a=~;1 b=~;2 c=~;1 d=1;"},
        // prefixed names closed after text, a comment, children, or spaces
        {"<p:a>x<!--c--></p:a>", "0 p:a=x;"}, {"<p:a><q:b k:x='1' y=''/></p:a >", "0 p:a=~;1 q:b=~ k:x=1 y=~;"},
        {"<ab:c><a:bc/></ab:c>", "0 ab:c=~;1 a:bc=~;"},
        {"<r><!--x--><a/><?p?><b/></r>", "0 r=~;1 a=~;1 b=~;"}, {"<r/>\n<!-- tail -->\n<?pi?>\n", "0 r=~;"},
        {"<r>x</r>\0<junk", "0 r=x;"}, {"<r>'q' \"d\" =</r>", "0 r='q' \"d\" =;"},
        {"<?xml version=\"1.0\"?>\n<cfg:root xmlns:cfg='urn:c' id='7'>\n"
         "  <item n='1'>one &amp; <![CDATA[<two>]]></item>\n  <item n='2'/>\n"
         "  <group><leaf>  x\t</leaf><empty></empty></group>\n</cfg:root>\n",
         "0 cfg:root=~ xmlns:cfg=urn:c id=7;1 item=one & <two> n=1;1 item=~ n=2;1 group=~;"
         "2 leaf=  x\t;2 empty=~;"},
    };
    for (bool session : {false, true}) {
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(c.text) + (session ? " (session)" : " (heap)"));
            krvtest::LeakGuard guard;
            XmlNode *doc = nullptr;
            ASSERT_EQ(parse(c.text, session, &doc), KRV_XML_OK);
            ASSERT_NE(doc, nullptr);
            EXPECT_EQ(doc->kind, KRV_XML_NODE_DOCUMENT);
            EXPECT_EQ(doc->ownsSession, 1);
            EXPECT_EQ(dump(doc), c.tree) << "heap and session parses give equal trees";
            EXPECT_EQ(doc->mem != nullptr, session);
            KRV_XML_FreeNode(doc);
        }
    }
}

TEST(Parser, RefusedDocuments)
{
    // More refusals; the reporting test below has one case of every reason.
    const char *cases[] = {
        " \t\r\n", "<?xml version='1.0'?>", "<!-- only -->", "<!DOCTYPE r>", "<r></r>x",
        "<r><a></a>x</r>", ">", "<r>></r>", "<abc>x</ab>", "<ab>x</abc>", "<r></R>", "<p:a></a>",
        "<a></p:a>", "</r>", "<r></r></r>", "<r></r", "<r>x</r y>", "<r>", "<r><a/>", "<r><a></a>",
        "<r a='1'>", "<r a='1'/", "<r>x</", "<!-- a ---><r/>", "<r/><!-- c", "<r/><!---->x",
        "<r a='&bad;'/>", "<&lt/>", "<a:/>", "<:a></:a>", "<a:></a:>", "<r x:='1'/>", "<a x>",
        "<a x=\"1'/>", "<a p:x='1' p:x='2'/>", "<a x='1' y/>", "<a x='1'/ >", "<a x='1' ='2'/>",
        "<a x='1' '/>", "<a x='1' \"/>", "<a x='1' </a>", "</", "<r/><",
        "<ab:c></a:bc>", "<a:bc></ab:c>", "<p:a></p:ab>", "<p:ab></p:a>", "<p:a></p>",
        "<p:a>x<!--c--></p:b>", "<p:a><!--c--></pa>",
        // refusals after top-level followers were built (heap)
        "<r/><s><t/>", "<r/><s a='1' a='2'/>", "<r><a/></r><s>x<t/></s>",
    };
    for (bool session : {false, true}) {
        for (const char *text : cases) {
            SCOPED_TRACE(std::string(text) + (session ? " (session)" : " (heap)"));
            krvtest::LeakGuard guard;
            XmlNode *doc = reinterpret_cast<XmlNode *>(0x1);
            EXPECT_EQ(parse(text, session, &doc), KRV_XML_ERR_SYNTAX);
            EXPECT_EQ(doc, nullptr);
        }
    }
}

TEST(Parser, TopLevelFollowersOnTheHeapOnly)
{
    krvtest::LeakGuard guard;
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_Parse("<r/><s>t</s>\n<u/>", &doc), KRV_XML_OK);
    EXPECT_EQ(dump(doc), "0 r=~;0 s=t;0 u=~;");
    EXPECT_EQ(doc->next->prev, doc);
    EXPECT_EQ(doc->next->next->prev, doc->next);
    KRV_XML_FreeNode(doc);  // releases the followers too
    for (const char *text : {"<r/><s/>", "<r></r><!-- c --><s/>"}) {
        doc = reinterpret_cast<XmlNode *>(0x1);
        EXPECT_EQ(KRV_XML_ParseEx(text, &doc), KRV_XML_ERR_SYNTAX);
        EXPECT_EQ(doc, nullptr);
    }
}

TEST(Parser, EntryPointArgumentsAndCallerText)
{
    XmlNode *keep = reinterpret_cast<XmlNode *>(0x1);
    for (uint32_t rc : {KRV_XML_Parse("", &keep), KRV_XML_ParseEx("", &keep), KRV_XML_Parse(nullptr, &keep),
                        KRV_XML_ParseFile(nullptr, &keep), KRV_XML_ParseFileEx(nullptr, &keep),
                        KRV_XML_Parse("<r/>", nullptr), KRV_XML_ParseEx("<r/>", nullptr),
                        KRV_XML_ParseFile("x", nullptr), KRV_XML_ParseFileEx("x", nullptr)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(keep, reinterpret_cast<XmlNode *>(0x1));

    // The text is only read, and the tree does not point into it.
    krvtest::LeakGuard guard;
    std::string text = "<r a='1'>v</r>";
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_ParseEx(text.c_str(), &doc), KRV_XML_OK);
    EXPECT_EQ(text, "<r a='1'>v</r>");
    std::fill(text.begin(), text.end(), 'z');
    EXPECT_STREQ(doc->name, "r");
    EXPECT_STREQ(doc->value, "v");
    EXPECT_STREQ(doc->firstAttr->value, "1");
    KRV_XML_FreeNode(doc);
}

// ===== Files ===============================================================

namespace {

std::string writeTemp(const std::string &name, const std::string &bytes)
{
    std::string path = ::testing::TempDir() + "krvxml_parser_" + name;
    FILE *f = std::fopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr);
    if (f != nullptr) {
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
    return path;
}

// Counting replacements for the file functions, with switchable faults.
struct FileLog {
    std::vector<std::string> calls;
    bool failOpen = false;
    bool failSeekBack = false;
    bool shortRead = false;
    long tellAnswer = -2;  // -2: the real answer
    int closes = 0;
} g_log;

FILE *logOpen(const char *path, const char *mode)
{
    g_log.calls.push_back(std::string("open ") + mode);
    return g_log.failOpen ? nullptr : std::fopen(path, mode);
}
int logSeek(FILE *f, long off, int origin)
{
    g_log.calls.push_back("seek " + std::to_string(off) + " " + std::to_string(origin));
    if (origin == SEEK_SET && g_log.failSeekBack) {
        return -1;
    }
    return std::fseek(f, off, origin);
}
int logClose(FILE *f)
{
    g_log.calls.push_back("close");
    ++g_log.closes;
    return std::fclose(f);
}
size_t logRead(void *buf, size_t size, size_t count, FILE *f)
{
    g_log.calls.push_back("read " + std::to_string(size) + " " + std::to_string(count));
    size_t got = std::fread(buf, size, count, f);
    return g_log.shortRead && got > 0 ? got - 1 : got;
}
long logTell(FILE *f)
{
    g_log.calls.push_back("tell");
    long real = std::ftell(f);
    return g_log.tellAnswer == -2 ? real : g_log.tellAnswer;
}

class ParserFiles : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_log = FileLog();
        ASSERT_EQ(KRV_XML_RegFileFunc(logOpen, logSeek, logClose, logRead, logTell), KRV_XML_OK);
    }
    void TearDown() override
    {
        EXPECT_EQ(KRV_XML_RegFileFunc(std::fopen, std::fseek, std::fclose, std::fread, std::ftell),
                  KRV_XML_OK);
    }
};

}  // namespace

TEST_F(ParserFiles, OneParseMakesTheExpectedCalls)
{
    std::string path = writeTemp("ok.xml", "<r>x</r>");
    for (bool session : {false, true}) {
        krvtest::LeakGuard guard;
        g_log.calls.clear();
        XmlNode *doc = nullptr;
        ASSERT_EQ(session ? KRV_XML_ParseFileEx(path.c_str(), &doc) : KRV_XML_ParseFile(path.c_str(), &doc),
                  KRV_XML_OK);
        EXPECT_STREQ(doc->value, "x");
        EXPECT_EQ(doc->mem != nullptr, session);
        std::vector<std::string> expect = {"open rb", "seek 0 2", "tell", "seek 0 0", "read 1 8", "close"};
        EXPECT_EQ(g_log.calls, expect);
        KRV_XML_FreeNode(doc);
    }
}

TEST_F(ParserFiles, LoadFailuresReleaseEverythingAndCloseOnce)
{
    std::string path = writeTemp("fail.xml", "<r/>");
    std::string empty = writeTemp("empty.xml", "");
    struct Case {
        const char *what;
        void (*arrange)();
        const std::string *file;
        uint32_t rc;
        std::vector<std::string> calls;
    } cases[] = {
        {"open fails", [] { g_log.failOpen = true; }, &path, KRV_XML_ERR_FILE_OPEN, {"open rb"}},
        {"seek back fails", [] { g_log.failSeekBack = true; }, &path, KRV_XML_ERR_FILE_READ,
         {"open rb", "seek 0 2", "tell", "seek 0 0", "close"}},
        {"short read", [] { g_log.shortRead = true; }, &path, KRV_XML_ERR_FILE_READ,
         {"open rb", "seek 0 2", "tell", "seek 0 0", "read 1 4", "close"}},
        {"negative size", [] { g_log.tellAnswer = -1; }, &path, KRV_XML_ERR_FILE_READ,
         {"open rb", "seek 0 2", "tell", "close"}},
        {"4 GiB", [] { g_log.tellAnswer = 0x100000000L; }, &path, KRV_XML_ERR_FILE_READ,
         {"open rb", "seek 0 2", "tell", "close"}},
        {"empty file", [] {}, &empty, KRV_XML_ERR_SYNTAX, {"open rb", "seek 0 2", "tell", "close"}},
    };
    for (const Case &c : cases) {
        for (bool session : {false, true}) {
            SCOPED_TRACE(std::string(c.what) + (session ? " (session)" : " (heap)"));
            g_log = FileLog();
            c.arrange();
            krvtest::LeakGuard guard;
            long allocsBefore = krv_test::AllocationCount();
            XmlNode *doc = reinterpret_cast<XmlNode *>(0x1);
            uint32_t rc = session ? KRV_XML_ParseFileEx(c.file->c_str(), &doc)
                                  : KRV_XML_ParseFile(c.file->c_str(), &doc);
            EXPECT_EQ(rc, c.rc);
            EXPECT_EQ(doc, session ? nullptr : reinterpret_cast<XmlNode *>(0x1));
            EXPECT_EQ(g_log.calls, c.calls);
            EXPECT_EQ(g_log.closes, c.rc == KRV_XML_ERR_FILE_OPEN ? 0 : 1);
            if (g_log.tellAnswer != -2) {
                // A refused size makes no buffer: only the parser state was allocated.
                EXPECT_EQ(krv_test::AllocationCount() - allocsBefore, 1);
            }
        }
    }
}

TEST_F(ParserFiles, RegisterRefusesNullFunctionsAndKeepsTheOldOnes)
{
    EXPECT_EQ(KRV_XML_RegFileFunc(nullptr, logSeek, logClose, logRead, logTell), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_RegFileFunc(logOpen, nullptr, logClose, logRead, logTell), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_RegFileFunc(logOpen, logSeek, nullptr, logRead, logTell), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_RegFileFunc(logOpen, logSeek, logClose, nullptr, logTell), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_RegFileFunc(logOpen, logSeek, logClose, logRead, nullptr), KRV_XML_ERR_INVALID_PARAM);
    g_log.calls.clear();
    EXPECT_EQ(XML_Fopen("/nonexistent/krvxml", "rb"), nullptr);
    EXPECT_EQ(g_log.calls, std::vector<std::string>{"open rb"});
}

// ===== Failure sweeps ======================================================

namespace {

// Enough attributes on one tag to bring in the duplicate check's hash set.
std::string sweepText()
{
    std::string s = "<?xml version='1.0'?><!-- c --><p:r xmlns:p='u'";
    for (int i = 0; i < 40; ++i) {
        s += " a" + std::to_string(i) + "='v&amp;" + std::to_string(i) + "'";
    }
    s += "><a>text &#233;</a><b x='1'/><c><d/><e> </e></c><p:f><![CDATA[z]]></p:f></p:r>";
    return s;
}

}  // namespace

TEST(Parser, EveryAllocationFailureReleasesEverything)
{
    const std::string text = sweepText();
    KrvXmlParseInfo info{};
    for (int mode = 0; mode < 6; ++mode) {  // the four entry points, then the reporting one in both regimes
        SCOPED_TRACE(mode);
        std::string path = writeTemp("sweep.xml", text);
        long points = krvtest::SweepAllocationFailures(
            [] { return reinterpret_cast<XmlNode *>(0x1); },
            [&](XmlNode *&doc) {
                switch (mode) {
                case 0: return KRV_XML_Parse(text.c_str(), &doc);
                case 1: return KRV_XML_ParseEx(text.c_str(), &doc);
                case 2: return KRV_XML_ParseFile(path.c_str(), &doc);
                case 3: return KRV_XML_ParseFileEx(path.c_str(), &doc);
                default: {
                    uint32_t flags = mode == 5 ? KRV_XML_PARSE_SESSION : 0;
                    return KRV_XML_ParseWithInfo(text.c_str(), flags, &doc, &info);
                }
                }
            },
            [&](uint32_t rc, XmlNode *&doc) {
                if (mode >= 4) {
                    EXPECT_EQ(info.result, rc);
                    EXPECT_STREQ(info.reason, rc == KRV_XML_OK ? "ok" : "out of memory");
                }
                if (rc == KRV_XML_OK) {
                    XmlNode *ref = nullptr;
                    ASSERT_EQ(KRV_XML_Parse(text.c_str(), &ref), KRV_XML_OK);
                    EXPECT_EQ(dump(doc), dump(ref));
                    KRV_XML_FreeNode(ref);
                    KRV_XML_FreeNode(doc);
                    return;
                }
                EXPECT_TRUE(rc == KRV_XML_ERR_NO_MEMORY || rc == KRV_XML_ERR_SYNTAX) << rc;
                EXPECT_EQ(doc, mode == 2 ? reinterpret_cast<XmlNode *>(0x1) : nullptr);
            });
        EXPECT_GT(points, mode == 0 || mode == 2 || mode == 4 ? 100 : 2);
    }
}

// ===== Limits ==============================================================

TEST(Parser, MillionDeepNestingOnASmallStack)
{
    const int levels = 1000000;
    std::string text;
    for (int i = 0; i < levels; ++i) {
        text += "<a>";
    }
    text += "x";
    for (int i = 0; i < levels; ++i) {
        text += "</a>";
    }
    for (bool session : {false, true}) {
        krvtest::OnSmallStack([&] {
            XmlNode *doc = nullptr;
            ASSERT_EQ(parse(text.c_str(), session, &doc), KRV_XML_OK);
            XmlNode *n = doc;
            int depth = 0;
            for (; n->firstChild != nullptr; n = n->firstChild) {
                ++depth;
            }
            EXPECT_EQ(depth, levels - 1);
            EXPECT_STREQ(n->value, "x");
            KRV_XML_FreeNode(doc);
        });
    }
}

// ===== Reporting where a parse stopped =====================================

TEST(Parser, InfoNamesLineColumnAndReasonOfEveryFailure)
{
    struct Case {
        const char *text;
        uint32_t line;
        uint32_t column;
        const char *reason;
    } cases[] = {
        // first and last byte
        {"x<r/>", 1, 1, "text before the root element"},
        {"\xEF\xBB\xBF<r/>", 1, 1, "text before the root element"}, {"<r/>>", 1, 5, "unexpected '>'"},
        // prolog
        {"<?xml version='1.0'", 1, 1, "unterminated XML declaration"},
        {"<!DOCTYPE r", 1, 1, "unterminated document type declaration"},
        {"<!DOCTYPE r \"x>", 1, 1, "unterminated document type declaration"},
        {"<!-- c -->\n", 2, 1, "no root element"},
        // tokenizer
        {"<!-->", 1, 1, "malformed comment"}, {"<r/>\n<!-- a --->", 2, 1, "malformed comment"},
        {"<r><!-- c</r>", 1, 4, "unterminated comment"}, {"<r>x<!-- c", 1, 5, "unterminated comment"},
        {"<r/><?pi", 1, 5, "unterminated processing instruction"},
        {"<r><![CDATA[x</r>", 1, 4, "unterminated CDATA section"},
        {"<r>a<![CDATA[x</r>", 1, 5, "unterminated CDATA section"},
        // decoder
        {"<r>&bogus;</r>", 1, 4, "unknown entity"}, {"<a x='&lt'/>", 1, 7, "unknown entity"},
        {"<r>&#X41;</r>", 1, 4, "malformed character reference"},
        {"<r>ab&#;</r>", 1, 6, "malformed character reference"},
        {"<r>&#x110000;</r>", 1, 4, "character reference out of range"},
        {"<r>&#xD800;</r>", 1, 4, "character reference to a forbidden character"},
        {"<a x='<![CDATA[' ]]>'/>", 1, 7, "CDATA section runs past the end of its text"},
        // names and attributes
        {"<:a/>", 1, 2, "colon at the start or end of a name"},
        {"<a: x='1'/>", 1, 2, "colon at the start or end of a name"},
        {"<a:>x</a:>", 1, 8, "colon at the start or end of a name"},
        {"<r :x='1'/>", 1, 4, "colon at the start or end of a name"},
        {"<a x='1'y='2'/>", 1, 9, "missing white space before an attribute"},
        {"<a x/>", 1, 4, "attribute without value"}, {"<a x=1/>", 1, 6, "attribute value not quoted"},
        {"<a x='1/>", 1, 6, "unterminated attribute value"},
        {"<a x='1' x='2'/>", 1, 10, "duplicate attribute"},
        {"<a p:x='1'\n   p:x='2'/>", 2, 4, "duplicate attribute"},
        {"<a x='1' <b/>", 1, 10, "unexpected markup in a start tag"},
        {"<r a='1'", 1, 9, "start tag not closed"}, {"<r", 1, 3, "start tag not closed"},
        {"<", 1, 1, "missing element name"},
        // driver
        {"<r><a></b></r>", 1, 9, "end tag does not match the open element"},
        {"<r>x</y>", 1, 7, "end tag does not match the open element"},
        {"<r/></r>", 1, 5, "end tag without an open element"},
        {"<r></r x>", 1, 8, "end tag not closed by '>'"},
        {"<r>x</r", 1, 8, "end tag not closed by '>'"}, {"<r>x<a/></r>", 1, 5, "mixed content"},
        {"<r><a/>x</r>", 1, 8, "mixed content"}, {"<r/>x", 1, 5, "text outside the root element"},
        {"<r>/></r>", 1, 4, "unexpected '/>'"}, {"<r/><s/>", 1, 5, "second top-level element"},
        {"<r><a>", 1, 7, "text ends inside an element"}, {"<r>x", 1, 5, "text ends inside an element"},
        // line ends: LF and CR LF, columns in bytes
        {"<r>\n  <a>\n</b></r>", 3, 3, "end tag does not match the open element"},
        {"<r>\r\n  <a>\r\n</b></r>", 3, 3, "end tag does not match the open element"},
        {"<r>\r\n<a/>\r\n", 3, 1, "text ends inside an element"},
        {"<r>\r\n\xC3\xA9&x;</r>", 2, 3, "unknown entity"},
    };
    for (const Case &c : cases) {
        for (uint32_t extra : {0u, KRV_XML_PARSE_SESSION}) {
            if (extra == 0 && std::strcmp(c.reason, "second top-level element") == 0) {
                continue;  // a heap parse takes followers
            }
            SCOPED_TRACE(std::string(c.text) + (extra != 0 ? " (session)" : " (heap)"));
            krvtest::LeakGuard guard;
            KrvXmlParseInfo info{};
            XmlNode *doc = reinterpret_cast<XmlNode *>(0x1);
            EXPECT_EQ(KRV_XML_ParseWithInfo(c.text, extra, &doc, &info), KRV_XML_ERR_SYNTAX);
            EXPECT_EQ(doc, nullptr);
            EXPECT_EQ(info.result, KRV_XML_ERR_SYNTAX);
            EXPECT_STREQ(info.reason, c.reason);
            EXPECT_EQ(info.line, c.line);
            EXPECT_EQ(info.column, c.column);
            // The offset agrees with line and column.
            std::string text(c.text);
            ASSERT_LE(info.offset, text.size());
            size_t lineStart = text.rfind('\n', info.offset == 0 ? 0 : info.offset - 1);
            lineStart = lineStart == std::string::npos || info.offset == 0 ? 0 : lineStart + 1;
            EXPECT_EQ(info.offset - lineStart + 1, c.column);
        }
    }
}

TEST(Parser, InfoOnSuccessAndOnFailuresOutsideTheText)
{
    krvtest::LeakGuard guard;
    KrvXmlParseInfo info{};
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_ParseWithInfo("<r>\n <a/>\n</r>\n", 0, &doc, &info), KRV_XML_OK);
    EXPECT_EQ(info.result, KRV_XML_OK);
    EXPECT_STREQ(info.reason, "ok");
    EXPECT_EQ(info.offset, 15u);
    EXPECT_EQ(info.line, 4u);
    EXPECT_EQ(info.column, 1u);
    KRV_XML_FreeNode(doc);

    doc = reinterpret_cast<XmlNode *>(0x1);
    info = KrvXmlParseInfo{};
    EXPECT_EQ(KRV_XML_ParseWithInfo("", 0, &doc, &info), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(doc, reinterpret_cast<XmlNode *>(0x1));
    EXPECT_EQ(info.result, KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(info.line, 0u);
    EXPECT_NE(info.reason, nullptr);
    EXPECT_EQ(KRV_XML_ParseWithInfo("<r/>", 0x2, &doc, &info), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(doc, reinterpret_cast<XmlNode *>(0x1));

    // Loading failures.
    EXPECT_EQ(KRV_XML_ParseFileWithInfo("/nonexistent/krvxml.xml", 0, &doc, &info), KRV_XML_ERR_FILE_OPEN);
    EXPECT_EQ(doc, reinterpret_cast<XmlNode *>(0x1));
    EXPECT_EQ(info.result, KRV_XML_ERR_FILE_OPEN);
    EXPECT_STREQ(info.reason, "cannot open the file");
    EXPECT_EQ(info.line, 0u);
    std::string empty = writeTemp("info_empty.xml", "");
    EXPECT_EQ(KRV_XML_ParseFileWithInfo(empty.c_str(), KRV_XML_PARSE_SESSION, &doc, &info),
              KRV_XML_ERR_SYNTAX);
    EXPECT_EQ(doc, nullptr);
    EXPECT_STREQ(info.reason, "empty file");
    // A refused file text is reported in the file's lines.
    std::string bad = writeTemp("info_bad.xml", "<r>\r\n</s>");
    doc = reinterpret_cast<XmlNode *>(0x1);
    EXPECT_EQ(KRV_XML_ParseFileWithInfo(bad.c_str(), 0, &doc, &info), KRV_XML_ERR_SYNTAX);
    EXPECT_EQ(doc, reinterpret_cast<XmlNode *>(0x1));
    EXPECT_STREQ(info.reason, "end tag does not match the open element");
    EXPECT_EQ(info.line, 2u);
    EXPECT_EQ(info.column, 3u);
    EXPECT_EQ(info.offset, 7u);
    // A null info is allowed.
    EXPECT_EQ(KRV_XML_ParseWithInfo("<r/>", 0, &doc, nullptr), KRV_XML_OK);
    KRV_XML_FreeNode(doc);
}

TEST(Parser, InfoEntryPointsMatchThePlainOnes)
{
    const std::string big = sweepText();
    const char *texts[] = {big.c_str(), "<r/><s/>", "<r>x</r>", "<r><a>", "<a x='1' x='2'/>", "x", " "};
    for (const char *text : texts) {
        for (bool session : {false, true}) {
            SCOPED_TRACE(std::string(text) + (session ? " (session)" : " (heap)"));
            krvtest::LeakGuard guard;
            XmlNode *plain = reinterpret_cast<XmlNode *>(0x1);
            XmlNode *info = reinterpret_cast<XmlNode *>(0x1);
            KrvXmlParseInfo report{};
            uint32_t rc = parse(text, session, &plain);
            EXPECT_EQ(KRV_XML_ParseWithInfo(text, session ? KRV_XML_PARSE_SESSION : 0, &info, &report), rc);
            EXPECT_EQ(report.result, rc);
            EXPECT_EQ(info == nullptr, plain == nullptr);
            if (rc == KRV_XML_OK) {
                EXPECT_EQ(dump(info), dump(plain));
                EXPECT_EQ(info->mem != nullptr, session);
            }
            KRV_XML_FreeNode(plain);
            KRV_XML_FreeNode(info);

            std::string path = writeTemp("same.xml", text);
            plain = reinterpret_cast<XmlNode *>(0x1);
            info = reinterpret_cast<XmlNode *>(0x1);
            rc = session ? KRV_XML_ParseFileEx(path.c_str(), &plain) : KRV_XML_ParseFile(path.c_str(), &plain);
            EXPECT_EQ(KRV_XML_ParseFileWithInfo(path.c_str(), session ? KRV_XML_PARSE_SESSION : 0, &info,
                                                &report),
                      rc);
            if (rc == KRV_XML_OK) {
                EXPECT_EQ(dump(info), dump(plain));
                KRV_XML_FreeNode(plain);
                KRV_XML_FreeNode(info);
            } else {
                EXPECT_EQ(info, plain);
            }
        }
    }
}
