// Tokenizer and Decoder suites: token kinds and lengths, and the decoding of names, values and texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "test_support.h"
#include "xml/xml_parser_internal.h"

TEST(Tokenizer, TokenKindsAndLengths)
{
    struct Case {
        const char *text;
        uint32_t result;
        const char *token;  // the token's first bytes (its length is tokenLen); null: no token
        uint32_t tokenLen;
    } cases[] = {
        {"a=b", 1, "a", 1}, {"a-->", 1, "a", 1}, {"x/>", 1, "x", 1}, {"ab\tc", 2, "ab", 2}, {"a]]>", 1, "a", 1},
        {"a--b", 4, "a--b", 4}, {"a-b/c]d", 7, "a-b/c]d", 7}, {"<![CDATA[a<b>c]]>d e", 18, "<![CDATA[a<b>c]]>d", 18},
        {"<![CDATA[x]]><![CDATA[y]]>z", 27, "<![CDATA[x]]><![CDATA[y]]>z", 27},
        {"ab<![CDATA[ ]]> c", 15, "ab<![CDATA[ ]]>", 15}, {"</x", 2, "</", 2}, {"<x", 1, "<", 1}, {"/>", 2, "/>", 2},
        {"/x", 0, "/", 0}, {"-->", 0, "-->", 0}, {"]]>x", 0, "]]>", 0}, {"\"", 1, "\"", 1}, {"'", 1, "'", 1},
        {"=", 1, "=", 1}, {">", 1, ">", 1}, {"<!-- c --> word", 4, "word", 4},
        {"  <!-- c --> word", 1, "<", 1},  // skipping stops at the white space
        {"  \r\n\t ", 0, nullptr, 0}, {"", 0, nullptr, 0}, {"<![CDATA[open", 0, nullptr, 0}, {"<!-- open", 0, nullptr, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        XmlParser p{};
        p.input = p.pos = c.text;
        EXPECT_EQ(Parser_getNextToken(&p), c.result);
        if (c.token == nullptr) {
            EXPECT_TRUE(p.token == nullptr && p.tokenSeen == 0);
            // white space only: pos ends on the NUL, no failure
            EXPECT_TRUE(c.text[0] == '<' || (*p.pos == '\0' && p.scanFailed == 0));
            continue;
        }
        ASSERT_NE(p.token, nullptr);
        EXPECT_EQ(p.tokenLen, c.tokenLen);
        EXPECT_EQ(std::string(p.token, std::strlen(c.token)), c.token);
        EXPECT_TRUE(p.tokenSeen == 1 && p.pos == p.token + p.tokenLen);
    }
}

// The end of a CDATA section is the first "]]>" (none past a NUL) wherever the text falls against 16-byte
// blocks: random texts over a small alphabet, started at every offset, against strstr.
TEST(Tokenizer, CdataEndIsTheFirstCloseFromTheStart)
{
    alignas(16) char buf[160];
    const char alphabet[] = "]]]>>a";
    uint32_t seed = 12345;
    auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
    for (int round = 0; round < 4000; ++round) {
        size_t len = next() % 80, at = next() % 16;
        std::memset(buf, 'a', sizeof buf);
        for (size_t i = 0; i < len; ++i) {
            buf[at + i] = alphabet[next() % (sizeof alphabet - 1)];
        }
        buf[at + len] = '\0';
        if (round % 4 == 0 && len > 2) {
            buf[at + next() % len] = '\0';  // a NUL inside, before or past the close
        }
        for (size_t start = at; start <= at + len; ++start) {
            ASSERT_EQ(xmlp::findCdataEnd(buf + start), std::strstr(buf + start, "]]>"))
                << "text '" << std::string(buf + at, len) << "' from " << start - at;
        }
    }
}

// Entities, character references (UTF-8 at each length boundary) and CDATA, read alike into the heap and
// into a session, zero past the text; refused runs clear the field.
TEST(Decoder, EntitiesReferencesAndCdataInBothRegimes)
{
    struct Case {
        const char *run, *expect;
    } ok[] = {
        {"plain", "plain"}, {"a&lt;b&gt;c", "a<b>c"}, {"&amp;amp;", "&amp;"}, {"&apos;&quot;", "'\""}, {"&#65;", "A"},
        {"&#0065;", "A"}, {"&#x41;", "A"}, {"&#x0041;", "A"}, {"&#x6a;&#x6A;", "jj"}, {"&#9;&#10;&#13;", "\t\n\r"},
        // UTF-8 lengths at each boundary
        {"&#127;", "\x7f"}, {"&#128;", "\xC2\x80"}, {"&#233;", "\xC3\xA9"}, {"&#x7FF;", "\xDF\xBF"},
        {"&#x800;", "\xE0\xA0\x80"}, {"&#x20AC;", "\xE2\x82\xAC"}, {"&#xFFFD;", "\xEF\xBF\xBD"},
        {"&#x10000;", "\xF0\x90\x80\x80"}, {"&#x1F600;", "\xF0\x9F\x98\x80"}, {"&#x10FFFF;", "\xF4\x8F\xBF\xBF"},
        {"<![CDATA[x<y&z]]>", "x<y&z"},
        {"a<![CDATA[b]]>c", "abc"}, {"<![CDATA[a]]><![CDATA[&lt;]]>", "a&lt;"}, {"<![CDATA[]] ]]>", "]] "},
        {"<![CDATA[a]]]]>", "a]]"}, {"line\r\nend", "line\r\nend"}, {"<b", "<b"},
        {"<![CDATA[]]>", ""},  // an empty CDATA still yields a string
        // runs longer than one wide step, with references on either side of its edge
        {"0123456789abcdef&amp;0123456789abcde&lt;", "0123456789abcdef&0123456789abcde<"},
        {"0123456789abcde&gt;<![CDATA[0123456789abcdef&]]>x&#65;", "0123456789abcde>0123456789abcdef&xA"},
        {"0123456789abcdef0123456789abcdef0", "0123456789abcdef0123456789abcdef0"},
        {"0123456789abcdef<b0123456789abcdef", "0123456789abcdef<b0123456789abcdef"},
    };
    XmlMemSession *session = XML_MemSessionBegin(kSessionInitialSize);
    for (const Case &c : ok) {
        for (XmlMemSession *in : {static_cast<XmlMemSession *>(nullptr), session}) {
            SCOPED_TRACE(std::string(c.run) + (in != nullptr ? " (session)" : " (heap)"));
            char *out = krvtest::Sentinel<char>();
            size_t len = std::strlen(c.run), used = std::strlen(c.expect);
            EXPECT_EQ(Parser_CopyBufToString(in, c.run, static_cast<uint32_t>(len), &out), KRV_XML_OK);
            EXPECT_EQ(krvtest::Str(out), c.expect);
            EXPECT_EQ(std::string(out + used, len + 1 - used), std::string(len + 1 - used, '\0'));
            if (in == nullptr) {
                krvHeapFree(out);
            }
        }
    }
    XML_MemSessionEnd(session);
    // Refused runs; a length (0: the whole text) cuts a run short of a construct that the text completes.
    struct Bad {
        const char *run;
        uint32_t len;
    } bad[] = {
        {"&#X41;", 0}, {"&#;", 0}, {"&#x;", 0}, {"&#65", 0}, {"&#6a;", 0}, {"&#xG;", 0}, {"&#0;", 0}, {"&#8;", 0},
        {"&#31;", 0}, {"&#xD800;", 0}, {"&#xDFFF;", 0}, {"&#xFFFE;", 0}, {"&#xFFFF;", 0}, {"&#x110000;", 0},
        {"&#99999999999;", 0}, {"&nbsp;", 0}, {"&AMP;", 0}, {"a & b", 0}, {"&", 0}, {"&amp", 0}, {"&lt", 0},
        {"<![CDATA[open", 0}, {"a&amp;", 4}, {"&#65;", 4}, {"<![CDATA[x]]>tail", 12},
    };
    for (const Bad &b : bad) {
        SCOPED_TRACE(b.run);
        krvtest::LeakGuard guard;
        char *out = krvtest::Sentinel<char>();
        uint32_t len = b.len != 0 ? b.len : static_cast<uint32_t>(std::strlen(b.run));
        EXPECT_EQ(Parser_CopyBufToString(nullptr, b.run, len, &out), static_cast<int32_t>(KRV_XML_ERR_SYNTAX));
        EXPECT_EQ(out, nullptr);
    }
}

TEST(Decoder, EmptyRunsNullArgumentsHugeRunsAndAllocationFailure)
{
    const int32_t invalid = KRV_XML_ERR_INVALID_PARAM, syntax = KRV_XML_ERR_SYNTAX, noMemory = KRV_XML_ERR_NO_MEMORY;
    char *out = krvtest::Sentinel<char>();
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "x", 0, &out), KRV_XML_OK);
    EXPECT_EQ(out, krvtest::Sentinel<char>()) << "untouched";
    EXPECT_EQ(Parser_CopyBufToString(nullptr, nullptr, 1, &out), invalid);
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "x", 1, nullptr), invalid);
    // A run of 2^31 bytes is refused before anything is read or allocated.
    krvtest::LeakGuard guard;
    long before = krv_test::AllocationCount();
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "x", 0x80000000u, &out), syntax);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(krv_test::AllocationCount(), before);
    // The longest run, 2^31 - 1 bytes, is more than a session holds: refused before a byte is read or written.
    XmlMemSession *session = XML_MemSessionBegin(kSessionInitialSize);
    const int32_t freeBefore = session->freeBytes;
    out = krvtest::Sentinel<char>();
    EXPECT_EQ(Parser_CopyBufToString(session, "x", 0x7FFFFFFFu, &out), noMemory);
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(session->freeBytes == freeBefore && session->nextBlock == nullptr);
    XML_MemSessionEnd(session);
    // A NUL inside a run is a plain byte: copied, and the run goes on.
    ASSERT_EQ(Parser_CopyBufToString(nullptr, "a\0b&amp;", 8, &out), KRV_XML_OK);
    EXPECT_EQ(std::string(out, 5), std::string("a\0b&", 5));
    krvHeapFree(out);
    // A failed copy clears the field.
    out = krvtest::Sentinel<char>();
    krv_test::FailAllocationAt(1);
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "abc", 3, &out), noMemory);
    krv_test::FailAllocationAt(0);
    EXPECT_EQ(out, nullptr);
}

// Names divide at their first colon, into new strings or in place (the local name moved to the front).
TEST(Decoder, SplitNamespaceAtTheFirstColon)
{
    const int32_t syntax = KRV_XML_ERR_SYNTAX;
    struct Case {
        const char *name;
        int32_t rc;
        const char *prefix, *local;
    } cases[] = {
        {"x", KRV_XML_OK, nullptr, "x"}, {"p:x", KRV_XML_OK, "p", "x"}, {"p:q:r", KRV_XML_OK, "p", "q:r"},
        {"xmlns:p", KRV_XML_OK, "xmlns", "p"}, {":x", syntax, nullptr, nullptr}, {"x:", syntax, nullptr, nullptr},
        {"p:&bad;", syntax, nullptr, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        krvtest::LeakGuard guard;
        char *prefix = nullptr, *local = nullptr, buf[32], *name = buf;
        uint32_t len = static_cast<uint32_t>(std::strlen(c.name));
        EXPECT_EQ(Parser_SplitNamespace(nullptr, c.name, len, &prefix, &local, 1), c.rc);
        EXPECT_EQ(krvtest::Str(prefix) + "|" + krvtest::Str(local), krvtest::Str(c.prefix) + "|" + krvtest::Str(c.local));
        krvHeapFree(prefix);
        krvHeapFree(local);
        if (c.rc == KRV_XML_OK) {
            std::strcpy(buf, c.name);
            prefix = nullptr;
            EXPECT_EQ(Parser_SplitNamespace(nullptr, buf, len, &prefix, &name, 0), KRV_XML_OK);
            EXPECT_STREQ(buf, c.local);
            krvHeapFree(prefix);
        }
    }
}
