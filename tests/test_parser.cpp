// Parser suite: the document driver, attributes, entry points, files, failure handling and failure reports.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/fuzz_checks.h"
#include "test_support.h"
#include "xml/xml_parser_internal.h"

using krvtest::Sentinel;
using krvtest::Str;

namespace {

// One line per element in document order: depth, prefix:name=value and attributes. Also checks what it does
// not show: links, session and name ownership, and that a name with a colon is divided at its first one.
std::string dump(XmlNode *doc)
{
    std::string s;
    for (XmlNode *top = doc; top != nullptr; top = top->next) {
        EXPECT_EQ(krvfuzz::CheckLinks(top), "");
    }
    for (XmlNode *n = doc; n != nullptr; n = KRV_XML_Iterator(n)) {
        EXPECT_EQ(n->nameOwned, 1);
        int depth = 0;
        for (const XmlNode *p = n->parent; p != nullptr; p = p->parent) {
            ++depth;
        }
        s += std::to_string(depth);
        for (XmlNode *a = n; a != nullptr; a = a == n ? n->firstAttr : a->next) {  // the element, then its attributes
            EXPECT_TRUE(a->nsPrefix != nullptr || a->name == nullptr || std::strchr(a->name, ':') == nullptr);
            EXPECT_EQ(a->mem, doc->mem);
            s += " " + (a->nsPrefix != nullptr ? std::string(a->nsPrefix) + ":" : "") + Str(a->name) + "=" + Str(a->value);
        }
        s += ";";
    }
    return s;
}

// count attributes " name='value'", each '#' in name and value standing for the attribute's index.
std::string attrs(int count, const std::string &name, const std::string &value)
{
    std::string s;
    for (int i = 0; i < count; ++i) {
        s += " " + name + "='" + value + "'";
        for (size_t at; (at = s.find('#')) != std::string::npos;) {
            s.replace(at, 1, std::to_string(i));
        }
    }
    return s;
}

// Logging replacements for the file functions, with switchable faults.
struct FileLog {
    std::vector<std::string> calls;
    bool failOpen = false, failSeekBack = false, shortRead = false;
    long tellAnswer = -2;  // -2: the real answer
    int opens = 0, closes = 0;
} g_log;

FILE *logOpen(const char *path, const char *mode)
{
    g_log.calls.push_back(std::string("open ") + mode);
    FILE *f = g_log.failOpen ? nullptr : std::fopen(path, mode);
    g_log.opens += f != nullptr ? 1 : 0;
    return f;
}
int logSeek(FILE *f, long off, int origin)
{
    g_log.calls.push_back("seek " + std::to_string(off) + " " + std::to_string(origin));
    return origin == SEEK_SET && g_log.failSeekBack ? -1 : std::fseek(f, off, origin);
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
    return g_log.tellAnswer == -2 ? std::ftell(f) : g_log.tellAnswer;
}

}  // namespace

// Documents accepted (with their trees) and refused; the failure report test has one refusal of every reason.
TEST(Parser, AcceptedAndRefusedDocuments)
{
    struct Case {
        const char *text, *tree;
    } cases[] = {
        {"<r/>", "0 r=~;"}, {"  <r></r>  ", "0 r=~;"}, {"<?XML version='1.0'?><r/>", "0 r=~;"},
        {"<?xml version='1.0'?><!-- c --><!DOCTYPE r [<!ELEMENT r ANY>]><?pi x?><r>t</r><!-- end -->", "0 r=t;"},
        {"<!DOCTYPE r SYSTEM \"a>b\"><r/>", "0 r=~;"}, {"<r><a>1</a><b x='2'/><c/></r>", "0 r=~;1 a=1;1 b=~ x=2;1 c=~;"},
        {"<p:r><p:a>x</p:a></p:r>", "0 p:r=~;1 p:a=x;"}, {"<r>  x y  </r>", "0 r=  x y  ;"}, {"<r>\n  x</r>", "0 r=  x;"},
        {"<r>\t x</r>", "0 r= x;"}, {"<r>a &amp; b</r>", "0 r=a & b;"}, {"<r><![CDATA[<x>]]></r>", "0 r=<x>;"},
        {"<r><![CDATA[x]]]></r>", "0 r=x];"}, {"<r>  </r>", "0 r=  ;"},
        {"<r><![CDATA[x]]]]]]]]]]]]]]]]]]>y</r>", "0 r=x]]]]]]]]]]]]]]]]y;"},
        // texts that are, or only begin like, one CDATA section
        {"<r>  <![CDATA[x]]></r>", "0 r=  x;"}, {"<r><![CDATA[a]]><![CDATA[b&lt;]]></r>", "0 r=ab&lt;;"},
        {"<r><![CDATA[]]></r>", "0 r=;"}, {"<r><![CDATA[a]]>&amp;</r>", "0 r=a&;"}, {"<r><!--c--></r>", "0 r=~;"},
        {"<r><a></a> </r>", "0 r=~;1 a=~;"}, {"<r><a/> </r>", "0 r=~;1 a=~;"}, {"<r>/x</r>", "0 r=/x;"},
        {"<r>]]></r>", "0 r=]]>;"}, {"<r>x<!--c--></r>", "0 r=x;"}, {"<r>a\r\nb </r >", "0 r=a\r\nb ;"},
        {"<r\n  a = \"1\"\tb='x\"y' c=\"it's\" d='1 < 2' e='&lt;&#65;'\n/>", "0 r=~ a=1 b=x\"y c=it's d=1 < 2 e=<A;"},
        {"<a x=''>t</a>", "0 a=t x=~;"}, {"<a p:x='1' q:x='2' x='3'/>", "0 a=~ p:x=1 q:x=2 x=3;"},
        {"<a p:q:r='1' xmlns:p='urn:x' xmlns='d'/>", "0 a=~ p:q:r=1 xmlns:p=urn:x xmlns=d;"},
        {"<p:a x='1'/>", "0 p:a=~ x=1;"}, {"<a><b><c/></b><d>1</d></a>", "0 a=~;1 b=~;2 c=~;1 d=1;"},
        // prefixed names closed after text, a comment, children, or spaces
        {"<p:a>x<!--c--></p:a>", "0 p:a=x;"}, {"<p:a><q:b k:x='1' y=''/></p:a >", "0 p:a=~;1 q:b=~ k:x=1 y=~;"},
        {"<ab:c><a:bc/></ab:c>", "0 ab:c=~;1 a:bc=~;"},
        // names ending in a byte that may start "/>", "-->" or "]]>"
        {"<r><a- x='1'>t</a-></r>", "0 r=~;1 a-=t x=1;"}, {"<r><a/ x='1'>t</a/ ></r>", "0 r=~;1 a/=t x=1;"},
        {"<r><a] x='1'></a]></r>", "0 r=~;1 a]=~ x=1;"},
        // a CDATA section is a word, also where it names a later attribute
        {"<a <![CDATA[y]]>='2' x='1'/>", "0 a=~ y=2 x=1;"}, {"<a x='1' <![CDATA[y]]>='2'/>", "0 a=~ x=1 y=2;"},
        // an empty tag's colon counts as last against its name token, which a reference makes longer
        {"<a&#58;/>", "0 a:=~;"}, {"<b&#58;c/>", "0 b:c=~;"},
        // attribute names like, or unlike, those of the tag before
        {"<r><e ab='1' m:x='2'/><e ax='3' m:x='4'/><e m:xy='5' ab='6'/><e id='7'/><e idx='8'/><e id ='9'/></r>",
         "0 r=~;1 e=~ ab=1 m:x=2;1 e=~ ax=3 m:x=4;1 e=~ m:xy=5 ab=6;1 e=~ id=7;1 e=~ idx=8;1 e=~ id=9;"},
        {"<r><!--x--><a/><?p?><b/></r>", "0 r=~;1 a=~;1 b=~;"}, {"<r/>\n<!-- tail -->\n<?pi?>\n", "0 r=~;"},
        {"<r>x</r>\0<junk", "0 r=x;"}, {"<r>'q' \"d\" =</r>", "0 r='q' \"d\" =;"},
        {"<?xml version=\"1.0\"?>\n<cfg:root xmlns:cfg='urn:c' id='7'>\n"
         "  <item n='1'>one &amp; <![CDATA[<two>]]></item>\n  <item n='2'/>\n"
         "  <group><leaf>  x\t</leaf><empty></empty></group>\n</cfg:root>\n",
         "0 cfg:root=~ xmlns:cfg=urn:c id=7;1 item=one & <two> n=1;1 item=~ n=2;1 group=~;2 leaf=  x\t;2 empty=~;"},
    };
    const char *refused[] = {
        " \t\r\n", "<?xml version='1.0'?>", "<!-- only -->", "<!DOCTYPE r>", "<r></r>x", "<r><a></a>x</r>", ">",
        "<r>></r>", "<abc>x</ab>", "<ab>x</abc>", "<r></R>", "<p:a></a>", "<a></p:a>", "</r>", "<r></r></r>",
        "<r></r", "<r>x</r y>", "<r>", "<r><a/>", "<r><a></a>", "<r a='1'>", "<r a='1'/", "<r>x</", "<!-- a ---><r/>",
        "<r/><!-- c", "<r/><!---->x", "<r a='&bad;'/>", "<&lt/>", "<a:/>", "<:a></:a>", "<a:></a:>", "<r x:='1'/>",
        "<a x>", "<a x=\"1'/>", "<a p:x='1' p:x='2'/>", "<r><a x='1' y='2' x='3'/></r>", "<a x='1' y/>",
        "<a x='1'/ >", "<a x='1' ='2'/>", "<a x='1' '/>", "<a x='1' \"/>", "<a x='1' </a>", "</", "<r/><",
        "<ab:c></a:bc>", "<a:bc></ab:c>", "<p:a></p:ab>", "<p:ab></p:a>", "<p:a></p>", "<p:a>x<!--c--></p:b>",
        "<p:a><!--c--></pa>", "<r><a/ x='1'>t</a/></r>", "<r><a-- x='1'>t</a--></r>", "<r><a]] x='1'></a]]></r>",
        "<r><ab x='1'>t</ab\0>", "<r><e a='1' b='2'/><e a='1' a='2'/></r>", "<r><e ab='1'/><e ax='1' ax='2'/></r>",
        "<a&#58; x='1'/>", "<a&#58;></a&#58;>",
        // refusals after top-level followers were built (heap)
        "<r/><s><t/>", "<r/><s a='1' a='2'/>", "<r><a/></r><s>x<t/></s>",
    };
    for (bool session : {false, true}) {
        const std::string regime = session ? " (session)" : " (heap)";
        for (const Case &c : cases) {
            SCOPED_TRACE(c.text + regime);
            krvtest::LeakGuard guard;
            XmlNode *doc = nullptr;
            ASSERT_EQ(krvtest::ParseIn(session, c.text, &doc), KRV_XML_OK);
            EXPECT_TRUE(doc->kind == KRV_XML_NODE_DOCUMENT && doc->ownsSession == 1 && (doc->mem != nullptr) == session);
            EXPECT_EQ(dump(doc), c.tree);
            KRV_XML_FreeNode(doc);
        }
        for (const char *text : refused) {
            SCOPED_TRACE(text + regime);
            krvtest::LeakGuard guard;
            XmlNode *doc = Sentinel();
            EXPECT_EQ(krvtest::ParseIn(session, text, &doc), KRV_XML_ERR_SYNTAX);
            EXPECT_EQ(doc, nullptr);
        }
    }
}

// A text's buffer is as long as its run in the input and zero past the decoded text, on the heap and in a
// session: after references in long runs and after a text that is one CDATA section.
TEST(Parser, TextBuffersAreZeroPastTheirText)
{
    for (bool session : {false, true}) {
        for (const std::string text :
             {"<r><![CDATA[abc]]></r>", "<r>0123456789abcde&amp;0123456789abcdef&lt;&lt;&lt;&lt;&#x20AC;&#233;</r>",
              "<r>&quot;0123456789abcdef0123456789<![CDATA[&lt;]]>0123456789abcdef&apos;</r>"}) {
            SCOPED_TRACE(text + (session ? " (session)" : " (heap)"));
            size_t run = text.rfind('<') - text.find('>') - 1;
            XmlNode *doc = nullptr;
            ASSERT_EQ(krvtest::ParseIn(session, text.c_str(), &doc), KRV_XML_OK);
            ASSERT_NE(doc->value, nullptr);
            size_t used = std::strlen(doc->value);
            ASSERT_LT(used, run);
            EXPECT_EQ(std::string(doc->value + used, run + 1 - used), std::string(run + 1 - used, '\0'));
            KRV_XML_FreeNode(doc);
        }
    }
}

// Start tags and leaves that a session reads in one pass, or begins to and leaves to other steps, give the
// results, trees and failure reports of the heap parse and of the token steps alone.
TEST(Parser, SessionOnePassReadsAgreeWithHeapAndTokenSteps)
{
    const std::string many = "<p:e" + attrs(40, "a#", "#") + "/>", big = "<e" + attrs(30, "b#", std::string(300, 'v'));
    // Wide tags: names past the filter go through a table (a repeat found there, or among the first names);
    // past its room, a table that grows and a keyed set.
    auto wide = [](int count, const std::string &extra, int valueLen, const std::string &end = "/>") {
        return "<w" + attrs(count, "c#_x", std::string(valueLen, 'v')) + extra + end;
    };
    std::vector<std::string> bodies = {
        wide(60, "", 3) + wide(127, "", 2) + wide(129, "", 2) + wide(70, "", 200), wide(60, " c0_x='1'", 3),
        wide(60, " c42_x='1'", 3), wide(40, "", 150) + wide(70, " c65_x='1'", 200),
        wide(40, "", 150) + wide(70, " c3_x='1'", 200),
        wide(1100, "", 1) + wide(130, "", 2, ">t</w>") + wide(600, "", 40), wide(1100, " c1030_x='1'", 1),
        wide(300, " c5_x='1'", 1), wide(300, " p:c5_x='1' q:c5_x='2'", 1),
        wide(300, " c1&#95;x='1'", 1),  // decodes to a repeat
        wide(300, " c1&#95;y='1'", 1), wide(300, " c300_x='a&lt;b' ", 1), wide(700, " bad", 1),
        "<a x='1' y='a&amp;b' z='2'/><b k='3'/>", many + many + "<q:f x='1'/>", "<a x='1'/>" + big + "/><c y='2'/>",
        // the same tag running out of the block with, past that point, a value to decode or a carved name
        "<a x='1'/>" + big + " z='a&lt;b'/><c y='2'/>", "<a x='1'/>" + big + " b3='x'/>",
    };
    for (int k = 0; k < 160; ++k) {  // the text before the tag moves its block's end by 8 bytes each time
        bodies.push_back("<a v='" + std::string(5600 + 8 * k, 'f') + "'/>" + wide(24, "", 10));
    }
    for (size_t len : {1, 7, 8, 15, 16, 17, 24, 32, 33, 4095, 4096, 4097}) {
        bodies.push_back("<a>" + std::string(len, 'x') + "</a><p:b k='1'>y</p:b >");
    }
    for (const char *leaf :
         {"<a>x &amp; y</a>", "<a>&#x20AC;&lt;</a >", "<a>x&bogus;</a>", "<a>x&amp;</b>", "<a>x</b>", "<a>x</ab>",
          "<ab>x</a>", "<a>x</a\n>", "<a>x</a/>", "<a>x<![CDATA[y]]></a>", "<a>>x</a>", "<a>/>x</a>", "<a>x]]>y</a>",
          "<a>x-->y</a>", "<a>x/>y</a>", "<a>x?>y</a>", "<a>x </a>", "<a>x\r\ny\t</a>", "<a:b>x</a:b>", "<a:b>x</a:c>",
          "<a:b>x</b>", "<a>x<b/></a>", "<a>x"}) {
        bodies.push_back(std::string(leaf) + "<c>z</c>");
    }
    bodies.emplace_back();
    for (int i = 0; i < 400; ++i) {
        bodies.back() += "<b>" + std::string(i % 29 + 1, 't') + "</b>";
    }
    for (const std::string &body : bodies) {
        const std::string text = "<r>" + body + "</r>";
        SCOPED_TRACE(text.substr(0, 40) + " (" + std::to_string(text.size()) + " bytes)");
        krvtest::LeakGuard guard;
        XmlNode *heap = nullptr, *session = nullptr, *slow = nullptr, *doc = nullptr;
        uint32_t rc = KRV_XML_Parse(text.c_str(), &heap);
        EXPECT_EQ(KRV_XML_ParseEx(text.c_str(), &session), rc);
        krv_test::UseFastParser(false);
        EXPECT_EQ(KRV_XML_Parse(text.c_str(), &slow), rc);
        krv_test::UseFastParser(true);
        if (rc == KRV_XML_OK && session != nullptr) {
            EXPECT_EQ(dump(session), dump(heap));
            EXPECT_EQ(dump(slow), dump(heap));
        }
        KrvXmlParseInfo heapInfo{}, sessionInfo{};
        EXPECT_EQ(KRV_XML_ParseWithInfo(text.c_str(), 0, &doc, &heapInfo), rc);
        KRV_XML_FreeNode(doc);
        EXPECT_EQ(KRV_XML_ParseWithInfo(text.c_str(), KRV_XML_PARSE_SESSION, &doc, &sessionInfo), rc);
        EXPECT_EQ(sessionInfo.offset, heapInfo.offset);
        EXPECT_STREQ(sessionInfo.reason, heapInfo.reason);
        for (XmlNode *d : {slow, heap, session, doc}) {
            KRV_XML_FreeNode(d);
        }
    }
}

// A session carves each piece from the first block with room for it; tags of many sizes (nothing to decode, so
// each string's size is known) cross block ends at every point, long names leaving blocks a little room.
TEST(Parser, SessionPiecesLandInTheFirstBlockWithRoom)
{
    for (bool longNames : {false, true}) {
        SCOPED_TRACE(longNames ? "long names" : "short names");
        std::string text = "<root>";
        for (int i = 0; i < 600; ++i) {
            int attrCount = i % 50 == 7 ? 30 : i % 13, valueLen = i % 50 == 7 ? 300 : 1 + (i * 7) % 41;
            text += "<e" + std::to_string(i % 5);
            for (int a = 0; a < attrCount; ++a) {
                text += (longNames && i % 2 == 0 ? " attribute" : " a") + std::to_string(a) + "='" +
                        std::string(valueLen + a % 3, 'v') + "'";
            }
            text += i % 7 != 0 ? "/>" : ">" + std::string(1 + (i * 11) % 29, 't') + "</e" + std::to_string(i % 5) + ">";
        }
        XmlNode *doc = nullptr;
        ASSERT_EQ(KRV_XML_ParseEx((text + "</root>").c_str(), &doc), KRV_XML_OK);
        std::vector<XmlMemSession *> blocks;
        for (XmlMemSession *b = doc->mem; b != nullptr; b = b->nextBlock) {
            blocks.push_back(b);
        }
        ASSERT_GT(blocks.size(), 20u);
        std::vector<size_t> smallest(blocks.size(), SIZE_MAX);
        auto piece = [&](const void *at, size_t bytes) {  // the smallest piece found in each block
            const size_t header = (sizeof(XmlMemSession) + 7) & ~size_t{7};
            for (size_t i = 0; at != nullptr && i < blocks.size(); ++i) {
                auto *data = reinterpret_cast<const uint8_t *>(blocks[i]) + header;
                if (at >= data && at < data + blocks[i]->capacity) {
                    smallest[i] = std::min(smallest[i], bytes);
                    return;
                }
            }
            EXPECT_EQ(at, nullptr) << "a piece outside the session";
        };
        auto str = [&](const char *s) { piece(s, s == nullptr ? 0 : (std::strlen(s) + 8) & ~size_t{7}); };
        size_t attrsSeen = 0;
        for (XmlNode *n = doc->firstChild; n != nullptr; n = KRV_XML_Iterator(n)) {
            piece(n, offsetof(XmlNode, nameTable));
            str(n->name);
            str(n->value);
            for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next, ++attrsSeen) {
                piece(a, offsetof(XmlNode, prev));
                str(a->name);
                str(a->value);
            }
        }
        EXPECT_GT(attrsSeen, 3000u);
        size_t later = SIZE_MAX;
        for (size_t i = blocks.size(); i-- > 0;) {
            EXPECT_LT(static_cast<size_t>(blocks[i]->freeBytes), later)
                << "block " << i << " had room for a piece carved after it";
            later = std::min(later, smallest[i]);
        }
        KRV_XML_FreeNode(doc);
    }
}

TEST(Parser, EntryPointsTopLevelFollowersAndCallerText)
{
    XmlNode *keep = Sentinel();
    for (uint32_t rc : {KRV_XML_Parse("", &keep), KRV_XML_ParseEx("", &keep), KRV_XML_Parse(nullptr, &keep),
                        KRV_XML_ParseFile(nullptr, &keep), KRV_XML_ParseFileEx(nullptr, &keep),
                        KRV_XML_Parse("<r/>", nullptr), KRV_XML_ParseEx("<r/>", nullptr),
                        KRV_XML_ParseFile("x", nullptr), KRV_XML_ParseFileEx("x", nullptr)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(keep, Sentinel());
    // Further top-level elements are kept by the heap parse (the failure reports show a session's refusal).
    krvtest::LeakGuard guard;
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_Parse("<r/><s>t</s>\n<u/>", &doc), KRV_XML_OK);
    EXPECT_EQ(dump(doc), "0 r=~;0 s=t;0 u=~;");
    EXPECT_TRUE(doc->next->prev == doc && doc->next->next->prev == doc->next);
    KRV_XML_FreeNode(doc);
    // The text is only read, and the tree does not point into it.
    std::string text = "<r a='1'>v</r>";
    ASSERT_EQ(KRV_XML_ParseEx(text.c_str(), &doc), KRV_XML_OK);
    EXPECT_EQ(text, "<r a='1'>v</r>");
    std::fill(text.begin(), text.end(), 'z');
    EXPECT_EQ(Str(doc->name) + Str(doc->value) + Str(doc->firstAttr->value), "rv1");
    KRV_XML_FreeNode(doc);
}

// Every way a load can fail releases everything and closes the file exactly once; a size that cannot be
// used (negative, 4 GiB and more: never cut to its low 32 bits) is refused before a buffer or a read.
TEST(Parser, FileLoadingCallsAndFailures)
{
    const std::string good = krvtest::TempFile("good.xml", "<r>x</r>"), empty = krvtest::TempFile("empty.xml", "");
    const std::string locked = krvtest::TempFile("locked.xml", "<r/>"), dir = krvtest::TempFile("dir");
    const std::string missing = krvtest::TempFile("missing.xml");
    mkdir(dir.c_str(), 0700);
    chmod(locked.c_str(), 0);
    const std::vector<std::string> unread = {"open rb", "seek 0 2", "tell", "close"};
    const std::vector<std::string> read = {"open rb", "seek 0 2", "tell", "seek 0 0", "read 1 8", "close"};
    struct Case {
        const char *what;
        const std::string *path;
        void (*arrange)();
        uint32_t rc;
        std::vector<std::string> calls;  // empty: not compared
    } cases[] = {
        {"good", &good, [] {}, KRV_XML_OK, read},
        {"open fails", &good, [] { g_log.failOpen = true; }, KRV_XML_ERR_FILE_OPEN, {"open rb"}},
        {"missing", &missing, [] {}, KRV_XML_ERR_FILE_OPEN, {"open rb"}},
        {"directory", &dir, [] {}, KRV_XML_ERR_FILE_READ, {}},  // opens (glibc), then fails to read
        {"unreadable", &locked, [] {}, geteuid() == 0 ? KRV_XML_OK : KRV_XML_ERR_FILE_OPEN, {}},
        {"seek back fails", &good, [] { g_log.failSeekBack = true; }, KRV_XML_ERR_FILE_READ,
         {"open rb", "seek 0 2", "tell", "seek 0 0", "close"}},
        {"short read", &good, [] { g_log.shortRead = true; }, KRV_XML_ERR_FILE_READ, read},
        {"negative size", &good, [] { g_log.tellAnswer = -1; }, KRV_XML_ERR_FILE_READ, unread},
        {"4 GiB", &good, [] { g_log.tellAnswer = 1L << 32; }, KRV_XML_ERR_FILE_READ, unread},
        {"4 GiB and 4 bytes", &good, [] { g_log.tellAnswer = (1L << 32) + 4; }, KRV_XML_ERR_FILE_READ, unread},
        {"empty file", &empty, [] {}, KRV_XML_ERR_SYNTAX, unread},
    };
    ASSERT_EQ(KRV_XML_RegFileFunc(logOpen, logSeek, logClose, logRead, logTell), KRV_XML_OK);
    for (const Case &c : cases) {
        for (bool session : {false, true}) {
            SCOPED_TRACE(std::string(c.what) + (session ? " (session)" : " (heap)"));
            g_log = FileLog();
            c.arrange();
            krvtest::LeakGuard guard;
            long allocsBefore = krv_test::AllocationCount();
            XmlNode *doc = Sentinel();
            EXPECT_EQ(krvtest::ParseFileIn(session, c.path->c_str(), &doc), c.rc);
            if (c.rc == KRV_XML_OK) {
                EXPECT_EQ(doc->mem != nullptr, session);
                KRV_XML_FreeNode(doc);
            } else {
                EXPECT_EQ(doc, session ? nullptr : Sentinel());
            }
            if (!c.calls.empty()) {
                EXPECT_EQ(g_log.calls, c.calls);
            }
            EXPECT_EQ(g_log.opens, g_log.closes) << "a handle was left open or closed twice";
            // With a size from tell that cannot be used, only the parser state was allocated.
            EXPECT_TRUE(g_log.tellAnswer == -2 || krv_test::AllocationCount() - allocsBefore == 1);
        }
    }
    // Registering refuses any null function and keeps the old ones.
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(KRV_XML_RegFileFunc(k == 0 ? nullptr : logOpen, k == 1 ? nullptr : logSeek,
                                      k == 2 ? nullptr : logClose, k == 3 ? nullptr : logRead,
                                      k == 4 ? nullptr : logTell),
                  KRV_XML_ERR_INVALID_PARAM);
    }
    g_log.calls.clear();
    EXPECT_EQ(XML_Fopen("/nonexistent/krvxml", "rb"), nullptr);
    EXPECT_EQ(g_log.calls, std::vector<std::string>{"open rb"});
    EXPECT_EQ(KRV_XML_RegFileFunc(std::fopen, std::fseek, std::fclose, std::fread, std::ftell), KRV_XML_OK);
    chmod(locked.c_str(), 0600);
    for (const std::string &p : {good, empty, locked}) {
        std::remove(p.c_str());
    }
    rmdir(dir.c_str());
}

// Every entry point with every allocation failing in turn; the text needs the duplicate check's hash set, tags
// larger than a session block or running past its end, an attribute table that grows twice and a long text.
TEST(Parser, EveryAllocationFailureReleasesEverything)
{
    std::string text = "<?xml version='1.0'?><!-- c --><p:r xmlns:p='u'" + attrs(40, "a#", "v&amp;#") +
                       "><a>text &#233;</a><b x='1' q:y='2'/><c><d/><e> </e></c><p:f><![CDATA[z]]></p:f><h" +
                       attrs(30, "h#", std::string(300, 'v')) + "/>";
    for (int k = 0; k < 6; ++k) {
        text += "<k" + attrs(20, "k#", std::string(100 + k, 'v')) + "/>";
    }
    text += "<m" + attrs(1030, "m#", "") + "/><g>" + std::string(9000, 'g') + "</g></p:r>";
    const std::string path = krvtest::TempFile("sweep.xml", text.c_str());
    XmlNode *ref = nullptr;
    ASSERT_EQ(KRV_XML_Parse(text.c_str(), &ref), KRV_XML_OK);
    const std::string expected = dump(ref);
    KRV_XML_FreeNode(ref);
    KrvXmlParseInfo info{};
    for (int run = 0; run < 14; ++run) {  // four plain entry points, three reporting ones; two ways to fail
        const int mode = run % 7;
        SCOPED_TRACE(run);
        long points = krvtest::SweepAllocationFailures(
            [] { return Sentinel(); },
            [&](XmlNode *&doc) {
                switch (mode) {
                case 0: return KRV_XML_Parse(text.c_str(), &doc);
                case 1: return KRV_XML_ParseEx(text.c_str(), &doc);
                case 2: return KRV_XML_ParseFile(path.c_str(), &doc);
                case 3: return KRV_XML_ParseFileEx(path.c_str(), &doc);
                case 6: return KRV_XML_ParseFileWithInfo(path.c_str(), 0, &doc, &info);
                default: return KRV_XML_ParseWithInfo(text.c_str(), mode == 5 ? KRV_XML_PARSE_SESSION : 0, &doc, &info);
                }
            },
            [&](uint32_t rc, XmlNode *&doc) {
                if (mode >= 4) {
                    EXPECT_EQ(info.result, rc);
                    EXPECT_STREQ(info.reason, rc == KRV_XML_OK ? "ok" : "out of memory");
                }
                if (rc == KRV_XML_OK) {
                    EXPECT_EQ(dump(doc), expected);
                    KRV_XML_FreeNode(doc);
                    return;
                }
                EXPECT_TRUE(rc == KRV_XML_ERR_NO_MEMORY || rc == KRV_XML_ERR_SYNTAX) << rc;  // as documented
                EXPECT_EQ(doc, mode == 2 || mode == 6 ? Sentinel() : nullptr);
            },
            run < 7 ? krvtest::Failing::OnlyKth : krvtest::Failing::KthOnward);
        EXPECT_GT(points, mode == 1 || mode == 3 || mode == 5 ? 2 : 100);
    }
    std::remove(path.c_str());
}

TEST(Parser, InfoNamesLineColumnAndReasonOfEveryFailure)
{
    struct Case {
        const char *text;
        uint32_t line, column;
        const char *reason;
    } cases[] = {
        // first and last byte; prolog
        {"x<r/>", 1, 1, "text before the root element"}, {"\xEF\xBB\xBF<r/>", 1, 1, "text before the root element"},
        {"<r/>>", 1, 5, "unexpected '>'"}, {"<?xml version='1.0'", 1, 1, "unterminated XML declaration"},
        {"<!DOCTYPE r", 1, 1, "unterminated document type declaration"},
        {"<!DOCTYPE r \"x>", 1, 1, "unterminated document type declaration"}, {"<!-- c -->\n", 2, 1, "no root element"},
        // tokenizer
        {"<!-->", 1, 1, "malformed comment"}, {"<r/>\n<!-- a --->", 2, 1, "malformed comment"},
        {"<r><!-- c</r>", 1, 4, "unterminated comment"}, {"<r>x<!-- c", 1, 5, "unterminated comment"},
        {"<r/><?pi", 1, 5, "unterminated processing instruction"},
        {"<r><![CDATA[x</r>", 1, 4, "unterminated CDATA section"}, {"<r>a<![CDATA[x</r>", 1, 5, "unterminated CDATA section"},
        // decoder
        {"<r>&bogus;</r>", 1, 4, "unknown entity"}, {"<a x='&lt'/>", 1, 7, "unknown entity"},
        {"<r>&quote;</r>", 1, 4, "unknown entity"}, {"<a x='&aposs;'/>", 1, 7, "unknown entity"},
        {"<r>a&ampl;</r>", 1, 5, "unknown entity"}, {"<r>&gtt;</r>", 1, 4, "unknown entity"},
        {"<r>&#X41;</r>", 1, 4, "malformed character reference"}, {"<r>ab&#;</r>", 1, 6, "malformed character reference"},
        {"<r>&#x110000;</r>", 1, 4, "character reference out of range"},
        {"<r>&#xD800;</r>", 1, 4, "character reference to a forbidden character"},
        {"<a x='<![CDATA[' ]]>'/>", 1, 7, "CDATA section runs past the end of its text"},
        // names and attributes
        {"<:a/>", 1, 2, "colon at the start or end of a name"}, {"<a: x='1'/>", 1, 2, "colon at the start or end of a name"},
        {"<a:>x</a:>", 1, 8, "colon at the start or end of a name"}, {"<r :x='1'/>", 1, 4, "colon at the start or end of a name"},
        {"<a x='1'y='2'/>", 1, 9, "missing white space before an attribute"}, {"<a x/>", 1, 4, "attribute without value"},
        {"<a x=1/>", 1, 6, "attribute value not quoted"}, {"<a x='1/>", 1, 6, "unterminated attribute value"},
        {"<a x='1' x='2'/>", 1, 10, "duplicate attribute"}, {"<a p:x='1'\n   p:x='2'/>", 2, 4, "duplicate attribute"},
        {"<r><a x='1' y='2' y='3'/></r>", 1, 19, "duplicate attribute"},
        {"<a x='1' <b/>", 1, 10, "unexpected markup in a start tag"}, {"<r a='1'", 1, 9, "start tag not closed"},
        {"<r", 1, 3, "start tag not closed"}, {"<", 1, 1, "missing element name"},
        // driver
        {"<r><a></b></r>", 1, 9, "end tag does not match the open element"},
        {"<r>x</y>", 1, 7, "end tag does not match the open element"}, {"<r/></r>", 1, 5, "end tag without an open element"},
        {"<r></r x>", 1, 8, "end tag not closed by '>'"}, {"<r>x</r", 1, 8, "end tag not closed by '>'"},
        {"<r>x<a/></r>", 1, 5, "mixed content"}, {"<r><a/>x</r>", 1, 8, "mixed content"},
        {"<r/>x", 1, 5, "text outside the root element"}, {"<r>/></r>", 1, 4, "unexpected '/>'"},
        {"<r/><s/>", 1, 5, "second top-level element"},
        {"<r></r><!-- c --><s/>", 1, 18, "second top-level element"}, {"<r><a>", 1, 7, "text ends inside an element"},
        {"<r>x", 1, 5, "text ends inside an element"},
        // line ends: LF and CR LF, columns in bytes
        {"<r>\n  <a>\n</b></r>", 3, 3, "end tag does not match the open element"},
        {"<r>\r\n  <a>\r\n</b></r>", 3, 3, "end tag does not match the open element"},
        {"<r>\r\n<a/>\r\n", 3, 1, "text ends inside an element"}, {"<r>\r\n\xC3\xA9&x;</r>", 2, 3, "unknown entity"},
    };
    for (const Case &c : cases) {
        for (uint32_t flags : {0u, KRV_XML_PARSE_SESSION}) {
            if (flags == 0 && std::strcmp(c.reason, "second top-level element") == 0) {
                continue;  // a heap parse takes followers
            }
            SCOPED_TRACE(std::string(c.text) + (flags != 0 ? " (session)" : " (heap)"));
            krvtest::LeakGuard guard;
            KrvXmlParseInfo info{};
            XmlNode *doc = Sentinel();
            EXPECT_EQ(KRV_XML_ParseWithInfo(c.text, flags, &doc, &info), KRV_XML_ERR_SYNTAX);
            EXPECT_TRUE(doc == nullptr && info.result == KRV_XML_ERR_SYNTAX);
            EXPECT_STREQ(info.reason, c.reason);
            EXPECT_TRUE(info.line == c.line && info.column == c.column) << info.line << ":" << info.column;
            const std::string text(c.text);
            ASSERT_LE(info.offset, text.size());
            size_t lineStart = info.offset == 0 ? std::string::npos : text.rfind('\n', info.offset - 1);
            EXPECT_EQ(info.offset - (lineStart == std::string::npos ? 0 : lineStart + 1) + 1, c.column)
                << "the offset agrees with line and column";
        }
    }
}

TEST(Parser, InfoOnSuccessAndOnFailuresOutsideTheText)
{
    krvtest::LeakGuard guard;
    KrvXmlParseInfo info{};
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_ParseWithInfo("<r>\n <a/>\n</r>\n", 0, &doc, &info), KRV_XML_OK);
    EXPECT_TRUE(info.result == KRV_XML_OK && info.offset == 15 && info.line == 4 && info.column == 1);
    EXPECT_STREQ(info.reason, "ok");
    KRV_XML_FreeNode(doc);
    doc = Sentinel();
    info = KrvXmlParseInfo{};
    EXPECT_EQ(KRV_XML_ParseWithInfo("", 0, &doc, &info), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_TRUE(info.result == KRV_XML_ERR_INVALID_PARAM && info.line == 0 && info.reason != nullptr);
    EXPECT_EQ(KRV_XML_ParseWithInfo("<r/>", 0x2, &doc, &info), KRV_XML_ERR_INVALID_PARAM) << "unknown flag";
    EXPECT_EQ(doc, Sentinel());
    // Loading failures, and a refused file text reported in the file's lines.
    EXPECT_EQ(KRV_XML_ParseFileWithInfo("/nonexistent/krvxml.xml", 0, &doc, &info), KRV_XML_ERR_FILE_OPEN);
    EXPECT_EQ(doc, Sentinel());
    EXPECT_TRUE(info.result == KRV_XML_ERR_FILE_OPEN && info.line == 0);
    EXPECT_STREQ(info.reason, "cannot open the file");
    const std::string empty = krvtest::TempFile("info_empty.xml", ""), bad = krvtest::TempFile("info_bad.xml", "<r>\r\n</s>");
    EXPECT_EQ(KRV_XML_ParseFileWithInfo(empty.c_str(), KRV_XML_PARSE_SESSION, &doc, &info), KRV_XML_ERR_SYNTAX);
    EXPECT_EQ(doc, nullptr);
    EXPECT_STREQ(info.reason, "empty file");
    doc = Sentinel();
    EXPECT_EQ(KRV_XML_ParseFileWithInfo(bad.c_str(), 0, &doc, &info), KRV_XML_ERR_SYNTAX);
    EXPECT_EQ(doc, Sentinel());
    EXPECT_STREQ(info.reason, "end tag does not match the open element");
    EXPECT_TRUE(info.line == 2 && info.column == 3 && info.offset == 7);
    EXPECT_EQ(KRV_XML_ParseWithInfo("<r/>", 0, &doc, nullptr), KRV_XML_OK) << "a null info is allowed";
    KRV_XML_FreeNode(doc);
    std::remove(empty.c_str());
    std::remove(bad.c_str());
}
