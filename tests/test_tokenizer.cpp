// Tokenizer and Decoder suites: token kinds and lengths, and the decoding of
// names, values and texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "test_support.h"
#include "xml/xml_parser_internal.h"

TEST(Tokenizer, TokenKindsAndLengths)
{
    const auto cases = krvtest::DataRows("tokens.txt");
    EXPECT_GT(cases.size(), 20u);
    for (const auto &c : cases) {
        SCOPED_TRACE(c[0]);
        XmlParser p{};
        p.input = p.pos = c[0].c_str();
        EXPECT_EQ(Parser_getNextToken(&p), std::stoul(c.at(1)));
        if (c[2].empty()) {  // no token
            EXPECT_TRUE(p.token == nullptr && p.tokenSeen == 0);
            if (c[0][0] != '<') {  // white space only: pos ends on the NUL, no failure
                EXPECT_TRUE(*p.pos == '\0' && p.scanFailed == 0);
            }
            continue;
        }
        ASSERT_NE(p.token, nullptr);
        EXPECT_EQ(p.tokenLen, std::stoul(c.at(3)));
        EXPECT_EQ(std::string(p.token, c[2].size()), c[2]);
        EXPECT_TRUE(p.tokenSeen == 1 && p.pos == p.token + p.tokenLen);
    }
}

// ===== Decoder =============================================================

// Entities, character references (UTF-8 at each length boundary) and CDATA,
// read alike into the heap and into a session; refused runs clear the field.
TEST(Decoder, EntitiesReferencesAndCdataInBothRegimes)
{
    const auto cases = krvtest::DataRows("decode.txt");
    EXPECT_GT(cases.size(), 50u);
    XmlMemSession *session = XML_MemSessionBegin(kSessionInitialSize);
    for (const auto &c : cases) {
        const bool refused = c.at(1) == "refused";
        const auto len = static_cast<uint32_t>(c.size() > 2 ? std::stoul(c[2]) : c[0].size());
        for (XmlMemSession *in : {static_cast<XmlMemSession *>(nullptr), session}) {
            SCOPED_TRACE(c[0] + (in != nullptr ? " (session)" : " (heap)"));
            krvtest::LeakGuard guard;
            char *out = krvtest::Sentinel<char>();
            EXPECT_EQ(Parser_CopyBufToString(in, c[0].c_str(), len, &out),
                      refused ? static_cast<int32_t>(KRV_XML_ERR_SYNTAX) : KRV_XML_OK);
            EXPECT_EQ(refused ? std::string("~") : c[1], krvtest::Str(out));
            if (in == nullptr) {
                krvHeapFree(out);
            }
        }
    }
    XML_MemSessionEnd(session);
}

TEST(Decoder, EmptyRunsNullArgumentsHugeRunsAndAllocationFailure)
{
    char *out = krvtest::Sentinel<char>();
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "x", 0, &out), KRV_XML_OK);
    EXPECT_EQ(out, krvtest::Sentinel<char>()) << "untouched";
    EXPECT_EQ(Parser_CopyBufToString(nullptr, nullptr, 1, &out), static_cast<int32_t>(KRV_XML_ERR_INVALID_PARAM));
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "x", 1, nullptr), static_cast<int32_t>(KRV_XML_ERR_INVALID_PARAM));
    // A run of 2^31 bytes is refused before anything is read or allocated.
    krvtest::LeakGuard guard;
    long before = krv_test::AllocationCount();
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "x", 0x80000000u, &out), static_cast<int32_t>(KRV_XML_ERR_SYNTAX));
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(krv_test::AllocationCount(), before);
    // A failed copy clears the field.
    out = krvtest::Sentinel<char>();
    krv_test::FailAllocationAt(1);
    EXPECT_EQ(Parser_CopyBufToString(nullptr, "abc", 3, &out), static_cast<int32_t>(KRV_XML_ERR_NO_MEMORY));
    krv_test::FailAllocationAt(0);
    EXPECT_EQ(out, nullptr);
}

TEST(Decoder, SplitNamespaceAtTheFirstColon)
{
    struct Case {
        const char *name;
        int32_t rc;
        const char *prefix, *local;
    } cases[] = {
        {"x", KRV_XML_OK, nullptr, "x"}, {"p:x", KRV_XML_OK, "p", "x"}, {"p:q:r", KRV_XML_OK, "p", "q:r"},
        {"xmlns:p", KRV_XML_OK, "xmlns", "p"}, {":x", static_cast<int32_t>(KRV_XML_ERR_SYNTAX), nullptr, nullptr},
        {"x:", static_cast<int32_t>(KRV_XML_ERR_SYNTAX), nullptr, nullptr},
        {"p:&bad;", static_cast<int32_t>(KRV_XML_ERR_SYNTAX), nullptr, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        krvtest::LeakGuard guard;
        char *prefix = nullptr, *local = nullptr;
        uint32_t len = static_cast<uint32_t>(std::strlen(c.name));
        EXPECT_EQ(Parser_SplitNamespace(nullptr, c.name, len, &prefix, &local, 1), c.rc);
        EXPECT_EQ(krvtest::Str(prefix) + "|" + krvtest::Str(local), krvtest::Str(c.prefix) + "|" + krvtest::Str(c.local));
        krvHeapFree(prefix);
        krvHeapFree(local);

        // The in-place split moves the local name to the front of the string.
        if (c.rc == KRV_XML_OK) {
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
