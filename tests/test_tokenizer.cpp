// Tokenizer and Decoder suites: skipping, token kinds and lengths, and the
// decoding of names, values and texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "test_support.h"
#include "xml/xml_parser_internal.h"

namespace {

XmlParser parserOver(const char *text)
{
    XmlParser p{};
    p.input = text;
    p.pos = text;
    return p;
}

}  // namespace

TEST(Tokenizer, SkipMiscAcceptsAndRefusesCommentsAndInstructions)
{
    const int32_t ok = KRV_XML_OK, bad = static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
    struct Case {
        const char *text;
        int32_t rc;
        size_t stopsAt;  // offset of pos after a successful skip
    } cases[] = {
        {"<!---->x", ok, 7}, {"<!-- a -- b -->x", ok, 15}, {"<?>x", ok, 3},
        {"<!-- a -->\n<!--b--> <?pi x?>\t<r/>", ok, 29},
        {" <!-- c -->", ok, 1},  // white space first: stops before the comment
        {"<r/>", ok, 0}, {"<!-->", bad, 0}, {"<!--->", bad, 0}, {"<!-- a --->", bad, 0}, {"<!-- a", bad, 0},
        {"<?pi", bad, 0}, {"<!-- ok --><?pi", bad, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        XmlParser p = parserOver(c.text);
        EXPECT_EQ(Parser_skipMisc(&p), c.rc);
        if (c.rc == KRV_XML_OK) {
            EXPECT_EQ(static_cast<size_t>(p.pos - c.text), c.stopsAt);
        } else {
            EXPECT_EQ(p.scanFailed, 1u);
        }
    }
}

TEST(Tokenizer, TokenKindsAndLengths)
{
    struct Case {
        const char *text;
        uint32_t result;
        const char *token;  // expected token bytes (length tokenLen), null: untouched
        uint32_t tokenLen;
    } cases[] = {
        {"a=b", 1, "a", 1}, {"a-->", 1, "a", 1}, {"x/>", 1, "x", 1}, {"ab\tc", 2, "ab", 2},
        {"a]]>", 1, "a", 1}, {"a-b/c]d", 7, "a-b/c]d", 7},
        {"<![CDATA[a<b>c]]>d e", 18, "<![CDATA[a<b>c]]>d", 18},
        {"<![CDATA[x]]><![CDATA[y]]>z", 27, "<![CDATA[x]]><![CDATA[y]]>z", 27},
        {"ab<![CDATA[ ]]> c", 15, "ab<![CDATA[ ]]>", 15}, {"</x", 2, "</", 2}, {"<x", 1, "<", 1},
        {"/>", 2, "/>", 2}, {"/x", 0, "/", 0}, {"-->", 0, "-->", 0}, {"]]>x", 0, "]]>", 0},
        {"\"", 1, "\"", 1}, {"'", 1, "'", 1}, {"=", 1, "=", 1}, {">", 1, ">", 1},
        {"<!-- c --> word", 4, "word", 4},
        {"  <!-- c --> word", 1, "<", 1},  // skipping stops at the white space
        {"  \r\n\t ", 0, nullptr, 0}, {"", 0, nullptr, 0}, {"<![CDATA[open", 0, nullptr, 0},
        {"<!-- open", 0, nullptr, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        XmlParser p = parserOver(c.text);
        EXPECT_EQ(Parser_getNextToken(&p), c.result);
        if (c.token == nullptr) {
            EXPECT_EQ(p.token, nullptr);
            EXPECT_EQ(p.tokenSeen, 0u);
            if (c.text[0] != '<') {  // white space only: pos ends on the NUL, no failure
                EXPECT_EQ(*p.pos, '\0');
                EXPECT_EQ(p.scanFailed, 0u);
            }
            continue;
        }
        ASSERT_NE(p.token, nullptr);
        EXPECT_EQ(p.tokenLen, c.tokenLen);
        EXPECT_EQ(std::string(p.token, std::strlen(c.token)), c.token);
        EXPECT_EQ(p.tokenSeen, 1u);
        EXPECT_EQ(p.pos, p.token + p.tokenLen);
    }
}

// ===== Decoder =============================================================

namespace {

struct Decoded {
    int32_t rc;
    std::string text;
};

Decoded decode(const std::string &run, XmlMemSession *session = nullptr)
{
    char *out = reinterpret_cast<char *>(0x1);  // must be replaced or cleared
    int32_t rc = Parser_CopyBufToString(session, run.c_str(), static_cast<uint32_t>(run.size()), &out);
    Decoded d{rc, out != nullptr ? std::string(out) : std::string()};
    if (session == nullptr && out != nullptr) {
        krvHeapFree(out);
    }
    return d;
}

}  // namespace

TEST(Decoder, EntitiesReferencesAndCdata)
{
    struct Case {
        const char *run;
        const char *expect;
    } ok[] = {
        {"plain", "plain"}, {"a&lt;b&gt;c", "a<b>c"}, {"&amp;amp;", "&amp;"}, {"&apos;&quot;", "'\""},
        {"&#65;", "A"}, {"&#0065;", "A"}, {"&#x41;", "A"}, {"&#x0041;", "A"}, {"&#x6a;&#x6A;", "jj"},
        // UTF-8 lengths at each boundary
        {"&#127;", "\x7f"}, {"&#128;", "\xC2\x80"}, {"&#233;", "\xC3\xA9"}, {"&#x7FF;", "\xDF\xBF"},
        {"&#x800;", "\xE0\xA0\x80"}, {"&#x20AC;", "\xE2\x82\xAC"}, {"&#xFFFD;", "\xEF\xBF\xBD"},
        {"&#x1F600;", "\xF0\x9F\x98\x80"}, {"&#x10FFFF;", "\xF4\x8F\xBF\xBF"}, {"&#9;&#10;&#13;", "\t\n\r"},
        {"<![CDATA[x<y&z]]>", "x<y&z"}, {"a<![CDATA[b]]>c", "abc"}, {"<![CDATA[a]]><![CDATA[&lt;]]>", "a&lt;"},
        {"<![CDATA[]] ]]>", "]] "}, {"line\r\nend", "line\r\nend"}, {"<b", "<b"},
    };
    for (const Case &c : ok) {
        SCOPED_TRACE(c.run);
        Decoded d = decode(c.run);
        EXPECT_EQ(d.rc, KRV_XML_OK);
        EXPECT_EQ(d.text, c.expect);
    }
    // Refused runs; a length cuts the run short of a construct that the
    // text itself completes.
    struct Bad {
        const char *run;
        uint32_t len;  // 0: the whole text
    } bad[] = {
        {"&#X41;", 0}, {"&#;", 0}, {"&#x;", 0}, {"&#65", 0}, {"&#6a;", 0}, {"&#xG;", 0}, {"&#0;", 0},
        {"&#8;", 0}, {"&#31;", 0}, {"&#xD800;", 0}, {"&#xDFFF;", 0}, {"&#xFFFE;", 0}, {"&#xFFFF;", 0},
        {"&#x110000;", 0}, {"&#99999999999;", 0}, {"&nbsp;", 0}, {"&AMP;", 0}, {"a & b", 0}, {"&", 0},
        {"&amp", 0}, {"&lt", 0}, {"<![CDATA[open", 0},
        {"a&amp;", 4}, {"&#65;", 4}, {"<![CDATA[x]]>tail", 12},
    };
    for (const Bad &b : bad) {
        SCOPED_TRACE(b.run);
        krvtest::LeakGuard guard;
        char *out = reinterpret_cast<char *>(0x1);
        uint32_t len = b.len != 0 ? b.len : static_cast<uint32_t>(std::strlen(b.run));
        EXPECT_EQ(Parser_CopyBufToString(nullptr, b.run, len, &out), static_cast<int32_t>(KRV_XML_ERR_SYNTAX));
        EXPECT_EQ(out, nullptr);
    }
}

TEST(Decoder, EmptyRunsNullArgumentsAndHugeRuns)
{
    char *out = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "x", 0, &out), KRV_XML_OK);
    EXPECT_EQ(out, reinterpret_cast<char *>(0x1));  // untouched
    EXPECT_EQ(Parser_CopyBufToString(nullptr, nullptr, 1, &out),
              static_cast<int32_t>(KRV_XML_ERR_INVALID_PARAM));
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "x", 1, nullptr),
              static_cast<int32_t>(KRV_XML_ERR_INVALID_PARAM));
    // A run of 2^31 bytes is refused before anything is read or allocated.
    krvtest::LeakGuard guard;
    long before = krv_test::AllocationCount();
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "x", 0x80000000u, &out),
              static_cast<int32_t>(KRV_XML_ERR_SYNTAX));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(krv_test::AllocationCount(), before);
}

TEST(Decoder, SessionAndHeapAgreeAndAllocationFailureClearsTheField)
{
    XmlMemSession *session = XML_MemSessionBegin(kSessionInitialSize);
    ASSERT_NE(session, nullptr);
    const char run[] = "<![CDATA[]]>";
    char *out = nullptr;
    EXPECT_EQ(Parser_CopyBufToString(session, run, 12, &out), KRV_XML_OK);
    ASSERT_NE(out, nullptr);  // an empty CDATA still yields a string
    EXPECT_STREQ(out, "");
    Decoded d = decode("a&#233;b", session);
    EXPECT_EQ(d.text, "a\xC3\xA9" "b");
    XML_MemSessionEnd(session);

    krvtest::LeakGuard guard;
    krv_test::FailAllocationAt(1);
    out = reinterpret_cast<char *>(0x1);
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "abc", 3, &out),
              static_cast<int32_t>(KRV_XML_ERR_NO_MEMORY));
    krv_test::FailAllocationAt(0);
    EXPECT_EQ(out, nullptr);
}

TEST(Decoder, SplitNamespaceAtTheFirstColon)
{
    struct Case {
        const char *name;
        int32_t rc;
        const char *prefix;
        const char *local;
    } cases[] = {
        {"x", KRV_XML_OK, nullptr, "x"}, {"p:x", KRV_XML_OK, "p", "x"}, {"p:q:r", KRV_XML_OK, "p", "q:r"},
        {"xmlns:p", KRV_XML_OK, "xmlns", "p"},
        {":x", static_cast<int32_t>(KRV_XML_ERR_SYNTAX), nullptr, nullptr},
        {"x:", static_cast<int32_t>(KRV_XML_ERR_SYNTAX), nullptr, nullptr},
        {"p:&bad;", static_cast<int32_t>(KRV_XML_ERR_SYNTAX), nullptr, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        krvtest::LeakGuard guard;
        char *prefix = nullptr;
        char *local = nullptr;
        uint32_t len = static_cast<uint32_t>(std::strlen(c.name));
        EXPECT_EQ(Parser_SplitNamespace(nullptr, c.name, len, &prefix, &local, 1), c.rc);
        EXPECT_EQ(prefix != nullptr ? std::string(prefix) : "<null>", c.prefix ? c.prefix : "<null>");
        EXPECT_EQ(local != nullptr ? std::string(local) : "<null>", c.local ? c.local : "<null>");
        krvHeapFree(prefix);
        krvHeapFree(local);

        // The in-place split moves the local name to the front of the string.
        if (c.rc == KRV_XML_OK && c.local != nullptr && std::strchr(c.name, '&') == nullptr) {
            char buf[32];
            std::strcpy(buf, c.name);
            char *name = buf;
            prefix = nullptr;
            EXPECT_EQ(Parser_SplitNamespace(nullptr, buf, len, &prefix, &name, 0), KRV_XML_OK);
            EXPECT_STREQ(buf, c.local);
            krvHeapFree(prefix);
        }
    }
}
