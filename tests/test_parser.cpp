// Parser suite: the document driver, attributes, the entry points, the file
// functions, failure handling and limits.
#include <gtest/gtest.h>

#include <pthread.h>

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
    std::string s;
    for (XmlNode *n = doc; n != nullptr; n = KRV_XML_Iterator(n)) {
        s += std::to_string(depthOf(n)) + " ";
        if (n->nsPrefix != nullptr) {
            s += std::string(n->nsPrefix) + ":";
        }
        s += str(n->name) + "=" + str(n->value);
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            s += " ";
            if (a->nsPrefix != nullptr) {
                s += std::string(a->nsPrefix) + ":";
            }
            s += str(a->name) + "=" + str(a->value);
            EXPECT_EQ(a->parent, n);
            EXPECT_EQ(a->kind, KRV_XML_NODE_ATTRIBUTE);
        }
        s += ";";
        EXPECT_EQ(n->nameOwned, 1);
        if (n->firstChild != nullptr) {
            XmlNode *last = n->firstChild;
            while (last->next != nullptr) {
                EXPECT_EQ(last->next->prev, last);
                last = last->next;
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
        {"<r/>", "0 r=~;"},
        {"  <r></r>  ", "0 r=~;"},
        {"<?xml version='1.0'?><!-- c --><!DOCTYPE r [<!ELEMENT r ANY>]><?pi x?><r>t</r><!-- end -->",
         "0 r=t;"},
        {"<?XML version='1.0'?><r/>", "0 r=~;"},
        {"<!DOCTYPE r SYSTEM \"a>b\"><r/>", "0 r=~;"},
        {"<r><a>1</a><b x='2'/><c/></r>", "0 r=~;1 a=1;1 b=~ x=2;1 c=~;"},
        {"<p:r><p:a>x</p:a></p:r>", "0 p:r=~;1 p:a=x;"},
        {"<r>  x y  </r>", "0 r=  x y  ;"},
        {"<r>\n  x</r>", "0 r=  x;"},
        {"<r>\t x</r>", "0 r= x;"},  // the SPACE after the TAB is kept
        {"<r>a &amp; b</r>", "0 r=a & b;"},
        {"<r><![CDATA[<x>]]></r>", "0 r=<x>;"},
        {"<r>  </r>", "0 r=  ;"},
        {"<r><!--c--></r>", "0 r=~;"},
        {"<r><a></a> </r>", "0 r=~;1 a=~;"},
        {"<r><a/> </r>", "0 r=~;1 a=~;"},
        {"<r>/x</r>", "0 r=/x;"},
        {"<r>]]></r>", "0 r=]]>;"},
        {"<r>x<!--c--></r>", "0 r=x;"},
        {"<r>a\r\nb </r >", "0 r=a\r\nb ;"},
        {"<r\n  a = \"1\"\tb='x\"y' c=\"it's\" d='1 < 2' e='&lt;&#65;'\n/>",
         "0 r=~ a=1 b=x\"y c=it's d=1 < 2 e=<A;"},
        {"<a x=''>t</a>", "0 a=t x=~;"},
        {"<a p:x='1' q:x='2' x='3'/>", "0 a=~ p:x=1 q:x=2 x=3;"},
        {"<a p:q:r='1' xmlns:p='urn:x' xmlns='d'/>", "0 a=~ p:q:r=1 xmlns:p=urn:x xmlns=d;"},
        {"<p:a x='1'/>", "0 p:a=~ x=1;"},
        {"<a><b><c/></b><d>1</d></a>", "0 a=~;1 b=~;2 c=~;1 d=1;"},
        {"<r><!--x--><a/><?p?><b/></r>", "0 r=~;1 a=~;1 b=~;"},
        {"<r/>\n<!-- tail -->\n<?pi?>\n", "0 r=~;"},
        {"<r>x</r>\0<junk", "0 r=x;"},
        {"<r>'q' \"d\" =</r>", "0 r='q' \"d\" =;"},
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
            EXPECT_EQ(dump(doc), c.tree);
            for (XmlNode *n = doc; n != nullptr; n = KRV_XML_Iterator(n)) {
                EXPECT_EQ(n->mem, doc->mem);
            }
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
        "<r a='1'>", "<r a='1'/", "<r>x</", "<!-- c", "<?pi", "<!--->", "<!-- a ---><r/>",
        "<r/><!-- c", "<r/><!---->x", "<r>&nbsp;</r>", "<r>&#0;</r>", "<r>a & b</r>",
        "<r a='&bad;'/>", "<&lt/>", "<a:/>", "<:a></:a>", "<a:></a:>", "<r x:='1'/>", "<a x>",
        "<a x=\"1'/>", "<a p:x='1' p:x='2'/>", "<a x='1' y/>", "<a x='1'/ >", "<a x='1' ='2'/>",
        "<a x='1' '/>", "<a x='1' \"/>", "<a x='1' </a>", "</", "<r/><",
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

TEST(Parser, HeapAndSessionParsesGiveEqualTrees)
{
    const char *text =
        "<?xml version=\"1.0\"?>\n<cfg:root xmlns:cfg='urn:c' id='7'>\n"
        "  <item n='1'>one &amp; <![CDATA[<two>]]></item>\n  <item n='2'/>\n"
        "  <group><leaf>  x\t</leaf><empty></empty></group>\n</cfg:root>\n";
    krvtest::LeakGuard guard;
    XmlNode *heap = nullptr;
    XmlNode *sess = nullptr;
    ASSERT_EQ(KRV_XML_Parse(text, &heap), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_ParseEx(text, &sess), KRV_XML_OK);
    EXPECT_EQ(dump(heap), dump(sess));
    EXPECT_EQ(dump(heap),
              "0 cfg:root=~ xmlns:cfg=urn:c id=7;1 item=one & <two> n=1;1 item=~ n=2;1 group=~;"
              "2 leaf=  x\t;2 empty=~;");
    for (XmlNode *n = heap; n != nullptr; n = KRV_XML_Iterator(n)) {
        EXPECT_EQ(n->mem, nullptr);
    }
    ASSERT_NE(sess->mem, nullptr);
    for (XmlNode *n = sess; n != nullptr; n = KRV_XML_Iterator(n)) {
        EXPECT_EQ(n->mem, sess->mem);
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            EXPECT_EQ(a->mem, sess->mem);
            EXPECT_EQ(a->valueOwned, 1);
        }
    }
    KRV_XML_FreeNode(heap);
    KRV_XML_FreeNode(sess);
}

TEST(Parser, AttributeRecordsAndEmptyValues)
{
    krvtest::LeakGuard guard;
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_Parse("<a x='' y=\"v\"/>", &doc), KRV_XML_OK);
    XmlNode *x = doc->firstAttr;
    ASSERT_NE(x, nullptr);
    EXPECT_STREQ(x->name, "x");
    EXPECT_EQ(x->value, nullptr);
    EXPECT_EQ(x->valueOwned, 1);
    EXPECT_EQ(x->nameOwned, 1);
    ASSERT_NE(x->next, nullptr);
    EXPECT_STREQ(x->next->value, "v");
    EXPECT_EQ(x->next->next, nullptr);
    EXPECT_EQ(doc->value, nullptr);
    KRV_XML_FreeNode(doc);
}

TEST(Parser, TopLevelFollowersOnTheHeapOnly)
{
    krvtest::LeakGuard guard;
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_Parse("<r/><s>t</s>\n<u/>", &doc), KRV_XML_OK);
    ASSERT_NE(doc->next, nullptr);
    EXPECT_STREQ(doc->next->name, "s");
    EXPECT_STREQ(doc->next->value, "t");
    EXPECT_EQ(doc->next->parent, nullptr);
    EXPECT_EQ(doc->next->prev, doc);
    ASSERT_NE(doc->next->next, nullptr);
    EXPECT_STREQ(doc->next->next->name, "u");
    KRV_XML_FreeNode(doc);  // releases the followers too

    doc = reinterpret_cast<XmlNode *>(0x1);
    EXPECT_EQ(KRV_XML_ParseEx("<r/><s/>", &doc), KRV_XML_ERR_SYNTAX);
    EXPECT_EQ(doc, nullptr);
    EXPECT_EQ(KRV_XML_ParseEx("<r></r><!-- c --><s/>", &doc), KRV_XML_ERR_SYNTAX);
}

TEST(Parser, EntryPointArgumentsAndCallerText)
{
    XmlNode *keep = reinterpret_cast<XmlNode *>(0x1);
    EXPECT_EQ(KRV_XML_Parse("", &keep), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_ParseEx("", &keep), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_Parse(nullptr, &keep), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_ParseFile(nullptr, &keep), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_ParseFileEx(nullptr, &keep), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(keep, reinterpret_cast<XmlNode *>(0x1));
    EXPECT_EQ(KRV_XML_Parse("<r/>", nullptr), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_ParseEx("<r/>", nullptr), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_ParseFile("x", nullptr), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_ParseFileEx("x", nullptr), KRV_XML_ERR_INVALID_PARAM);

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

TEST(Parser, MissingAndMinimalFiles)
{
    XmlNode *doc = reinterpret_cast<XmlNode *>(0x1);
    EXPECT_EQ(KRV_XML_ParseFile("/nonexistent/krvxml.xml", &doc), KRV_XML_ERR_FILE_OPEN);
    EXPECT_EQ(doc, reinterpret_cast<XmlNode *>(0x1));
    EXPECT_EQ(KRV_XML_ParseFileEx("/nonexistent/krvxml.xml", &doc), KRV_XML_ERR_FILE_OPEN);
    EXPECT_EQ(doc, nullptr);
    std::string path = writeTemp("min.xml", "<r/>");
    ASSERT_EQ(KRV_XML_ParseFile(path.c_str(), &doc), KRV_XML_OK);
    EXPECT_STREQ(doc->name, "r");
    KRV_XML_FreeNode(doc);
    // A refused text leaves a plain file parse's variable alone.
    std::string bad = writeTemp("bad.xml", "<r>");
    doc = reinterpret_cast<XmlNode *>(0x1);
    EXPECT_EQ(KRV_XML_ParseFile(bad.c_str(), &doc), KRV_XML_ERR_SYNTAX);
    EXPECT_EQ(doc, reinterpret_cast<XmlNode *>(0x1));
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
    for (int mode = 0; mode < 4; ++mode) {
        SCOPED_TRACE(mode);
        std::string path = writeTemp("sweep.xml", text);
        long points = krvtest::SweepAllocationFailures(
            [] { return reinterpret_cast<XmlNode *>(0x1); },
            [&](XmlNode *&doc) {
                switch (mode) {
                case 0: return KRV_XML_Parse(text.c_str(), &doc);
                case 1: return KRV_XML_ParseEx(text.c_str(), &doc);
                case 2: return KRV_XML_ParseFile(path.c_str(), &doc);
                default: return KRV_XML_ParseFileEx(path.c_str(), &doc);
                }
            },
            [&](uint32_t rc, XmlNode *&doc) {
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
        EXPECT_GT(points, mode % 2 == 0 ? 100 : 2);
    }
}

// ===== Limits ==============================================================

namespace {

struct DeepRun {
    int levels;
    bool session;
    uint32_t rc;
    std::string shape;
};

void *parseDeep(void *arg)
{
    auto *run = static_cast<DeepRun *>(arg);
    std::string text;
    text.reserve(static_cast<size_t>(run->levels) * 8);
    for (int i = 0; i < run->levels; ++i) {
        text += "<a>";
    }
    text += "x";
    for (int i = 0; i < run->levels; ++i) {
        text += "</a>";
    }
    XmlNode *doc = nullptr;
    run->rc = parse(text.c_str(), run->session, &doc);
    if (run->rc == KRV_XML_OK) {
        XmlNode *n = doc;
        int depth = 0;
        while (n->firstChild != nullptr) {
            n = n->firstChild;
            ++depth;
        }
        run->shape = std::to_string(depth) + " " + str(n->value);
        KRV_XML_FreeNode(doc);
    }
    return nullptr;
}

}  // namespace

TEST(Parser, MillionDeepNestingOnASmallStack)
{
    for (bool session : {false, true}) {
        DeepRun run{1000000, session, 0, ""};
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setstacksize(&attr, 256 * 1024);
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, &attr, parseDeep, &run), 0);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attr);
        EXPECT_EQ(run.rc, KRV_XML_OK);
        EXPECT_EQ(run.shape, "999999 x");
    }
}

TEST(Parser, HundredThousandAttributesInLinearTime)
{
    std::string text = "<r";
    for (int i = 0; i < 100000; ++i) {
        text += " a" + std::to_string(i) + "='" + std::to_string(i) + "'";
    }
    krvtest::LeakGuard guard;
    for (bool session : {false, true}) {
        auto t0 = std::chrono::steady_clock::now();
        XmlNode *doc = nullptr;
        ASSERT_EQ(parse((text + "/>").c_str(), session, &doc), KRV_XML_OK);
        double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_LT(secs, 1.0);
        int count = 0;
        const XmlNode *last = nullptr;
        for (XmlNode *a = doc->firstAttr; a != nullptr; a = a->next) {
            last = a;
            ++count;
        }
        EXPECT_EQ(count, 100000);
        EXPECT_STREQ(last->name, "a99999");
        KRV_XML_FreeNode(doc);
        // A repeat at the very end is still found, also when it differs only
        // in prefix from earlier ones it must not be.
        doc = reinterpret_cast<XmlNode *>(0x1);
        EXPECT_EQ(parse((text + " a17='x'/>").c_str(), session, &doc), KRV_XML_ERR_SYNTAX);
        EXPECT_EQ(doc, nullptr);
        ASSERT_EQ(parse((text + " p:a17='x' q:a17='y'/>").c_str(), session, &doc), KRV_XML_OK);
        KRV_XML_FreeNode(doc);
        EXPECT_EQ(parse((text + " p:a17='x' p:a17='y'/>").c_str(), session, &doc), KRV_XML_ERR_SYNTAX);
    }
}

// ===== Reporting where a parse stopped =====================================

TEST(Parser, InfoNamesLineColumnAndReasonOfEveryFailure)
{
    struct Case {
        const char *text;
        uint32_t flags;
        uint32_t line;
        uint32_t column;
        const char *reason;
    } cases[] = {
        // first and last byte
        {"x<r/>", 0, 1, 1, "text before the root element"},
        {"\xEF\xBB\xBF<r/>", 0, 1, 1, "text before the root element"},
        {"<r/>>", 0, 1, 5, "unexpected '>'"},
        // prolog
        {"<?xml version='1.0'", 0, 1, 1, "unterminated XML declaration"},
        {"<!DOCTYPE r", 0, 1, 1, "unterminated document type declaration"},
        {"<!DOCTYPE r \"x>", 0, 1, 1, "unterminated document type declaration"},
        {"<!-- c -->\n", 0, 2, 1, "no root element"},
        // tokenizer
        {"<!-->", 0, 1, 1, "malformed comment"},
        {"<r/>\n<!-- a --->", 0, 2, 1, "malformed comment"},
        {"<r><!-- c</r>", 0, 1, 4, "unterminated comment"},
        {"<r>x<!-- c", 0, 1, 5, "unterminated comment"},
        {"<r/><?pi", 0, 1, 5, "unterminated processing instruction"},
        {"<r><![CDATA[x</r>", 0, 1, 4, "unterminated CDATA section"},
        {"<r>a<![CDATA[x</r>", 0, 1, 5, "unterminated CDATA section"},
        // decoder
        {"<r>&bogus;</r>", 0, 1, 4, "unknown entity"},
        {"<a x='&lt'/>", 0, 1, 7, "unknown entity"},
        {"<r>&#X41;</r>", 0, 1, 4, "malformed character reference"},
        {"<r>ab&#;</r>", 0, 1, 6, "malformed character reference"},
        {"<r>&#x110000;</r>", 0, 1, 4, "character reference out of range"},
        {"<r>&#xD800;</r>", 0, 1, 4, "character reference to a forbidden character"},
        {"<a x='<![CDATA[' ]]>'/>", 0, 1, 7, "CDATA section runs past the end of its text"},
        // names and attributes
        {"<:a/>", 0, 1, 2, "colon at the start or end of a name"},
        {"<a: x='1'/>", 0, 1, 2, "colon at the start or end of a name"},
        {"<a:>x</a:>", 0, 1, 8, "colon at the start or end of a name"},
        {"<r :x='1'/>", 0, 1, 4, "colon at the start or end of a name"},
        {"<a x='1'y='2'/>", 0, 1, 9, "missing white space before an attribute"},
        {"<a x/>", 0, 1, 4, "attribute without value"},
        {"<a x=1/>", 0, 1, 6, "attribute value not quoted"},
        {"<a x='1/>", 0, 1, 6, "unterminated attribute value"},
        {"<a x='1' x='2'/>", 0, 1, 10, "duplicate attribute"},
        {"<a p:x='1'\n   p:x='2'/>", KRV_XML_PARSE_SESSION, 2, 4, "duplicate attribute"},
        {"<a x='1' <b/>", 0, 1, 10, "unexpected markup in a start tag"},
        {"<r a='1'", 0, 1, 9, "start tag not closed"},
        {"<r", 0, 1, 3, "start tag not closed"},
        {"<", 0, 1, 1, "missing element name"},
        // driver
        {"<r><a></b></r>", 0, 1, 9, "end tag does not match the open element"},
        {"<r>x</y>", 0, 1, 7, "end tag does not match the open element"},
        {"<r/></r>", 0, 1, 5, "end tag without an open element"},
        {"<r></r x>", 0, 1, 8, "end tag not closed by '>'"},
        {"<r>x</r", 0, 1, 8, "end tag not closed by '>'"},
        {"<r>x<a/></r>", 0, 1, 5, "mixed content"},
        {"<r><a/>x</r>", 0, 1, 8, "mixed content"},
        {"<r/>x", 0, 1, 5, "text outside the root element"},
        {"<r>/></r>", 0, 1, 4, "unexpected '/>'"},
        {"<r/><s/>", KRV_XML_PARSE_SESSION, 1, 5, "second top-level element"},
        {"<r><a>", 0, 1, 7, "text ends inside an element"},
        {"<r>x", 0, 1, 5, "text ends inside an element"},
        // line ends: LF and CR LF, columns in bytes
        {"<r>\n  <a>\n</b></r>", 0, 3, 3, "end tag does not match the open element"},
        {"<r>\r\n  <a>\r\n</b></r>", 0, 3, 3, "end tag does not match the open element"},
        {"<r>\r\n<a/>\r\n", KRV_XML_PARSE_SESSION, 3, 1, "text ends inside an element"},
        {"<r>\r\n\xC3\xA9&x;</r>", 0, 2, 3, "unknown entity"},
    };
    for (const Case &c : cases) {
        for (uint32_t extra : {0u, KRV_XML_PARSE_SESSION}) {
            SCOPED_TRACE(std::string(c.text) + (c.flags | extra ? " (session)" : " (heap)"));
            krvtest::LeakGuard guard;
            KrvXmlParseInfo info{};
            XmlNode *doc = reinterpret_cast<XmlNode *>(0x1);
            EXPECT_EQ(KRV_XML_ParseWithInfo(c.text, c.flags | extra, &doc, &info), KRV_XML_ERR_SYNTAX);
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

TEST(Parser, InfoUnderAllocationFailures)
{
    const std::string text = sweepText();
    for (uint32_t flags : {0u, KRV_XML_PARSE_SESSION}) {
        KrvXmlParseInfo info{};
        krvtest::SweepAllocationFailures(
            [] { return reinterpret_cast<XmlNode *>(0x1); },
            [&](XmlNode *&doc) { return KRV_XML_ParseWithInfo(text.c_str(), flags, &doc, &info); },
            [&](uint32_t rc, XmlNode *&doc) {
                EXPECT_EQ(info.result, rc);
                if (rc == KRV_XML_OK) {
                    EXPECT_STREQ(info.reason, "ok");
                    KRV_XML_FreeNode(doc);
                } else {
                    EXPECT_STREQ(info.reason, "out of memory");
                    EXPECT_EQ(doc, nullptr);
                }
            });
    }
}
