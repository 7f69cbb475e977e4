// Hardening suites: allocation failure in every allocating call, hostile
// inputs (deep nesting on a small stack, wide tags, long texts, broken files),
// parallel parsing and printing, and replays of fuzz crash inputs.
#include <gtest/gtest.h>

#include <dirent.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/edit_case.h"
#include "fuzz/fuzz_checks.h"
#include "fuzz/parse_case.h"
#include "fuzz/path_values_case.h"
#include "test_support.h"

namespace {

using krvfuzz::CheckLinks;
using krvfuzz::Dump;

constexpr const char *kDocument =
    "<?xml version=\"1.0\"?>\n<!-- sample -->\n"
    "<config version=\"2\" p:mode=\"fast\"><server host=\"a&amp;b\" port=\"80\"/>"
    "<port>8080</port><list><item>x&lt;y</item><item/><item>&#233;<![CDATA[<raw>]]></item></list>"
    "<empty></empty></config>\n";

std::string TempPath(const std::string &leaf)
{
    return ::testing::TempDir() + "krvxml_hardening_" + std::to_string(getpid()) + "_" + leaf;
}

void WriteFile(const std::string &path, const std::string &content)
{
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << content;
}

std::string ReadFile(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

XmlNode *MustParse(const char *text, bool session)
{
    XmlNode *doc = nullptr;
    uint32_t rc = session ? KRV_XML_ParseEx(text, &doc) : KRV_XML_Parse(text, &doc);
    EXPECT_EQ(rc, KRV_XML_OK);
    return doc;
}

XmlNode *Find(XmlNode *doc, const char *path)
{
    XmlNode *n = nullptr;
    EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, path, &n), KRV_XML_OK) << path;
    return n;
}

// ---------------------------------------------------------------------------
// Allocation failure in every allocating call.

XmlNode *const kOutSentinel = reinterpret_cast<XmlNode *>(0x5EA1);
char *const kTextSentinel = reinterpret_cast<char *>(0x5EA2);

// What a failed call must leave in its out-argument.
enum class OutRule { None, Untouched, Null };

struct Fixture {
    XmlNode *tree = nullptr;  // the tree the call works on (may be null)
    XmlNode *node = nullptr;  // the node inside it the call is about
    XmlNode *out = kOutSentinel;
    char *text = kTextSentinel;
    std::string before;       // Dump(tree) before the call
    std::string saved;        // a string the call's failure may drop
    KrvXmlParseInfo info{};
};

struct AllocatingCall {
    AllocatingCall(const char *n, const char *p, bool s, std::vector<uint32_t> c, OutRule r,
                   std::function<uint32_t(Fixture &)> fn, std::function<void(Fixture &)> undo = nullptr,
                   const char *doc = kDocument)
        : name(n), path(p), session(s), codes(std::move(c)), outRule(r), call(std::move(fn)),
          repair(std::move(undo)), document(doc)
    {
    }
    const char *name;
    const char *path;  // node of the document the call is about; null: no tree
    bool session;      // regime of the tree (or of the parse)
    std::vector<uint32_t> codes;
    OutRule outRule;
    std::function<uint32_t(Fixture &)> call;
    // Undoes the documented effect of a failure (a dropped value) so that the
    // tree can be compared with its former dump; null when there is none.
    std::function<void(Fixture &)> repair;
    const char *document;  // the text the fixture's tree is parsed from
};

std::string BigText(char c)
{
    return std::string(20000, c);  // larger than a session's first block
}

void RunSweep(const AllocatingCall &c)
{
    SCOPED_TRACE(c.name);
    long points = krvtest::SweepAllocationFailures(
        [&]() {
            Fixture f;
            if (c.path != nullptr) {
                f.tree = MustParse(c.document, c.session);
                f.node = Find(f.tree, c.path);
                if (c.session) {  // a new session block must reach the heap
                    krvtest::SpendSessionSlab(f.tree->mem);
                }
                f.before = Dump(f.tree);
            }
            return f;
        },
        [&](Fixture &f) { return c.call(f); },
        [&](uint32_t rc, Fixture &f) {
            if (rc != KRV_XML_OK) {
                bool listed = false;
                for (uint32_t code : c.codes) {
                    listed = listed || code == rc;
                }
                EXPECT_TRUE(listed) << "unexpected result " << std::hex << rc;
                if (c.outRule == OutRule::Untouched) {
                    EXPECT_EQ(f.out, kOutSentinel) << "out-argument written on failure";
                    EXPECT_EQ(f.text, kTextSentinel) << "text handed out on failure";
                } else if (c.outRule == OutRule::Null) {
                    EXPECT_EQ(f.out, nullptr) << "out-argument not cleared on failure";
                }
                if (f.tree != nullptr) {
                    if (c.repair) {
                        c.repair(f);
                    }
                    EXPECT_EQ(Dump(f.tree), f.before) << "failed call changed the tree";
                    EXPECT_EQ(CheckLinks(f.tree), "");
                }
            } else {
                EXPECT_EQ(CheckLinks(f.tree), "");
                if (f.out != kOutSentinel) {
                    EXPECT_EQ(CheckLinks(f.out), "");
                    KRV_XML_FreeNode(f.out);
                }
            }
            if (f.text != kTextSentinel) {
                KRV_XML_FreeMem(f.text);
            }
            KRV_XML_FreeNode(f.tree);
        });
    EXPECT_GT(points, 0) << "the call never reached an allocation";
}

TEST(AllocationFailure, EveryAllocatingCallFailsCleanly)
{
    krvtest::LeakGuard guard;
    const std::string file = TempPath("sweep.xml");
    WriteFile(file, kDocument);
    const std::string outFile = TempPath("sweep_out.xml");
    const std::string big = BigText('v');
    // The parse of a document that outgrows the session's first block.
    const std::string bigDoc = "<r><a>" + big + "</a><b x=\"" + big + "\"/></r>";
    const std::vector<uint32_t> kNoMemory{KRV_XML_ERR_NO_MEMORY};
    const std::vector<uint32_t> kParse{KRV_XML_ERR_NO_MEMORY, KRV_XML_ERR_SYNTAX};
    auto restoreValue = [](Fixture &f) {
        EXPECT_EQ(f.node->value, nullptr) << "documented: the value is gone after a failed typed write";
        krv_test::FailAllocationAt(0);
        EXPECT_EQ(KRV_XML_SetNode(f.node, nullptr, nullptr, f.saved.c_str()), KRV_XML_OK);
    };
    auto restoreAttr = [](Fixture &f) {
        const char *v = "";
        EXPECT_EQ(KRV_XML_GetAttr(f.node, nullptr, "port", &v), KRV_XML_OK);
        EXPECT_EQ(v, nullptr) << "documented: the value is gone after a failed typed write";
        EXPECT_EQ(KRV_XML_SetAttr(f.node, nullptr, "port", f.saved.c_str()), KRV_XML_OK);
    };
    uint32_t u16 = 443;
    int32_t i32 = -123456;

    const std::vector<AllocatingCall> calls = {
        {"Parse", nullptr, false, kParse, OutRule::Null,
         [&](Fixture &f) { return KRV_XML_Parse(kDocument, &f.out); }},
        {"ParseEx", nullptr, true, kParse, OutRule::Null,
         [&](Fixture &f) { return KRV_XML_ParseEx(bigDoc.c_str(), &f.out); }},
        {"ParseWithInfo heap", nullptr, false, kParse, OutRule::Null,
         [&](Fixture &f) {
             uint32_t rc = KRV_XML_ParseWithInfo(kDocument, 0, &f.out, &f.info);
             EXPECT_EQ(f.info.result, rc);
             return rc;
         }},
        {"ParseWithInfo session", nullptr, true, kParse, OutRule::Null,
         [&](Fixture &f) {
             uint32_t rc = KRV_XML_ParseWithInfo(bigDoc.c_str(), KRV_XML_PARSE_SESSION, &f.out, &f.info);
             EXPECT_EQ(f.info.result, rc);
             return rc;
         }},
        {"ParseFile", nullptr, false, kParse, OutRule::Untouched,
         [&](Fixture &f) { return KRV_XML_ParseFile(file.c_str(), &f.out); }},
        {"ParseFileEx", nullptr, true, kParse, OutRule::Null,
         [&](Fixture &f) { return KRV_XML_ParseFileEx(file.c_str(), &f.out); }},
        {"ParseFileWithInfo session", nullptr, true, kParse, OutRule::Null,
         [&](Fixture &f) {
             uint32_t rc = KRV_XML_ParseFileWithInfo(file.c_str(), KRV_XML_PARSE_SESSION, &f.out, &f.info);
             EXPECT_EQ(f.info.result, rc);
             return rc;
         }},
        {"CreateNode element", nullptr, false, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) { return KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, "p", "name", "value", &f.out); }},
        {"CreateNodeEx document", nullptr, true, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) {
             return KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, "p", "doc", big.c_str(), &f.out);
         }},
        {"CreateNodeEx in a session", "config", true, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) {
             return KRV_XML_CreateNodeEx(f.tree->mem, KRV_XML_NODE_ELEMENT, "p", "n", big.c_str(), &f.out);
         }},
        {"SetNode heap", "config.port", false, kNoMemory, OutRule::None,
         [&](Fixture &f) { return KRV_XML_SetNode(f.node, "q", "newname", "new value"); }},
        {"SetNode session", "config.port", true, kNoMemory, OutRule::None,
         [&](Fixture &f) { return KRV_XML_SetNode(f.node, nullptr, nullptr, big.c_str()); }},
        {"AddAttr heap", "config.server", false, kNoMemory, OutRule::None,
         [&](Fixture &f) { return KRV_XML_AddAttr(f.node, "p", "extra", "value"); }},
        {"AddAttr session", "config.server", true, kNoMemory, OutRule::None,
         [&](Fixture &f) { return KRV_XML_AddAttr(f.node, "p", "extra", big.c_str()); }},
        {"SetAttr heap", "config.server", false, kNoMemory, OutRule::None,
         [&](Fixture &f) { return KRV_XML_SetAttr(f.node, nullptr, "host", "elsewhere"); }},
        {"SetAttr session", "config.server", true, kNoMemory, OutRule::None,
         [&](Fixture &f) { return KRV_XML_SetAttr(f.node, nullptr, "host", big.c_str()); }},
        {"SetNodeValueEx heap", "config.port", false, kNoMemory, OutRule::None,
         [&](Fixture &f) {
             f.saved = f.node->value;
             return KRV_XML_SetNodeValueEx(f.node, KRV_XML_VALUE_INT32, &i32);
         },
         restoreValue},
        {"SetAttrValueEx existing", "config.server", false, kNoMemory, OutRule::None,
         [&](Fixture &f) {
             f.saved = "80";
             return KRV_XML_SetAttrValueEx(f.node, nullptr, "port", KRV_XML_VALUE_UINT16, &u16);
         },
         restoreAttr},
        {"SetAttrValueEx new", "config.list", false, kNoMemory, OutRule::None,
         [&](Fixture &f) { return KRV_XML_SetAttrValueEx(f.node, "p", "count", KRV_XML_VALUE_UINT16, &u16); }},
        {"CloneNodeSelf heap", "config.server", false, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) { return KRV_XML_CloneNodeSelf(f.node, &f.out); }},
        {"CloneNode heap", "config", false, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) { return KRV_XML_CloneNode(f.node, &f.out); }},
        {"CloneNode session document", "r", true, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) { return KRV_XML_CloneNode(f.node, &f.out); }, nullptr, bigDoc.c_str()},
        // The copy of a long text needs a new block of the session.
        {"CloneNode session element", "r.a", true, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) { return KRV_XML_CloneNode(f.node, &f.out); }, nullptr, bigDoc.c_str()},
        // Long texts make the output buffer grow more than once.
        {"Transform", "r", false, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) { return KRV_XML_Transform(f.node, &f.text); }, nullptr, bigDoc.c_str()},
        {"TransformHead", "config.list", true, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) { return KRV_XML_TransformHead(f.node, &f.text); }},
        {"TransformTail", "config", false, kNoMemory, OutRule::Untouched,
         [&](Fixture &f) { return KRV_XML_TransformTail(f.node, &f.text); }},
        {"TransformFile", "r", true, kNoMemory, OutRule::None,
         [&](Fixture &f) {
             WriteFile(outFile, "old");
             uint32_t rc = KRV_XML_TransformFile(f.node, outFile.c_str());
             if (rc != KRV_XML_OK) {
                 EXPECT_EQ(ReadFile(outFile), "old") << "a failed print touched the file";
             }
             return rc;
         },
         nullptr, bigDoc.c_str()},
    };
    for (const AllocatingCall &c : calls) {
        RunSweep(c);
    }
    std::remove(file.c_str());
    std::remove(outFile.c_str());
}

// ---------------------------------------------------------------------------
// Hostile inputs.

TEST(HostileInput, MillionDeepNestingOnASmallStack)
{
    constexpr size_t kDepth = 1000000;
    std::string text;
    text.reserve(kDepth * 7);
    for (size_t i = 0; i < kDepth; ++i) {
        text += "<a>";
    }
    for (size_t i = 0; i < kDepth; ++i) {
        text += "</a>";
    }
    // The printed chain: start tags with a line feed, one empty element, end tags.
    std::string printed;
    printed.reserve(kDepth * 9);
    for (size_t i = 1; i < kDepth; ++i) {
        printed += "<a>\n";
    }
    printed += "<a/>\n";
    for (size_t i = 1; i < kDepth; ++i) {
        printed += "</a>\n";
    }
    std::string path = "a";
    while (path.size() + 2 <= 511) {
        path += ".a";
    }
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session" : "heap");
        krvtest::LeakGuard guard;
        krvtest::OnSmallStack([&] {
            XmlNode *doc = nullptr;
            ASSERT_EQ(session ? KRV_XML_ParseEx(text.c_str(), &doc) : KRV_XML_Parse(text.c_str(), &doc),
                      KRV_XML_OK);
            size_t count = 0;
            XmlNode *last = doc;
            for (XmlNode *n = doc; n != nullptr; n = KRV_XML_Iterator(n)) {
                last = n;
                ++count;
            }
            EXPECT_EQ(count, kDepth);
            EXPECT_EQ(CheckLinks(doc), "");

            XmlNode *found = nullptr;
            EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, path.c_str(), &found), KRV_XML_OK);
            size_t levels = 0;
            for (XmlNode *up = found; up != nullptr && up != doc; up = up->parent) {
                ++levels;
            }
            EXPECT_EQ(levels, (path.size() + 1) / 2 - 1);

            char *out = nullptr;
            ASSERT_EQ(KRV_XML_Transform(doc, &out), KRV_XML_OK);
            EXPECT_TRUE(out != nullptr && out == printed);
            KRV_XML_FreeMem(out);
            out = nullptr;
            ASSERT_EQ(KRV_XML_TransformTail(doc, &out), KRV_XML_OK);
            EXPECT_TRUE(out != nullptr && std::strlen(out) == kDepth * 5);
            KRV_XML_FreeMem(out);
            out = nullptr;
            ASSERT_EQ(KRV_XML_TransformHead(last, &out), KRV_XML_OK);  // a leaf deep down
            EXPECT_TRUE(out != nullptr && std::strcmp(out, "<a>\n") == 0);
            KRV_XML_FreeMem(out);

            XmlNode *copy = nullptr;
            ASSERT_EQ(KRV_XML_CloneNode(doc, &copy), KRV_XML_OK);
            EXPECT_EQ(krvfuzz::CompareTrees(doc, copy, false), "");
            KRV_XML_FreeNode(copy);
            // Free an inner part first (unlinked from the deep chain), then the rest.
            KRV_XML_FreeNode(doc->firstChild->firstChild);
            EXPECT_EQ(doc->firstChild->firstChild, nullptr);
            KRV_XML_FreeNode(doc);
        });
    }
}

// The chain is built from the bottom up: each insertion checks the target's
// ancestors (regime and cycle), so appending at the tip of a deep chain would
// cost the depth each time.
TEST(HostileInput, DeepChainBuiltThroughTheInterface)
{
    krvtest::LeakGuard guard;
    constexpr size_t kDepth = 1000000;
    krvtest::OnSmallStack([&] {
        XmlNode *top = nullptr;
        ASSERT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, nullptr, "c", "leaf", &top), KRV_XML_OK);
        for (size_t i = 1; i < kDepth; ++i) {
            XmlNode *n = nullptr;
            ASSERT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, "p", "c", nullptr, &n), KRV_XML_OK);
            ASSERT_EQ(KRV_XML_AppendChildNode(n, top), KRV_XML_OK);
            top = n;
        }
        EXPECT_EQ(CheckLinks(top), "");
        XmlNode *copy = nullptr;
        ASSERT_EQ(KRV_XML_CloneNode(top, &copy), KRV_XML_OK);
        XmlNode *inner = top->firstChild;
        ASSERT_EQ(KRV_XML_RemoveNode(inner), KRV_XML_OK);
        char *out = nullptr;
        ASSERT_EQ(KRV_XML_Transform(inner, &out), KRV_XML_OK);
        XmlNode *again = nullptr;
        ASSERT_EQ(KRV_XML_Parse(out, &again), KRV_XML_OK);
        EXPECT_EQ(krvfuzz::CompareTrees(inner, again, false), "");
        EXPECT_EQ(krvfuzz::CompareTrees(copy->firstChild, again, false), "");
        KRV_XML_FreeMem(out);
        KRV_XML_FreeNode(again);
        KRV_XML_FreeNode(inner);
        KRV_XML_FreeNode(top);
        KRV_XML_FreeNode(copy);
    });
}

// A million siblings: linking, counting, indexing, printing and copying must
// each stay linear (a walk from the first child per element would not end).
TEST(HostileInput, MillionSiblings)
{
    krvtest::LeakGuard guard;
    constexpr size_t kCount = 1000000;
    std::string text = "<r>";
    for (size_t i = 0; i < kCount; ++i) {
        text += i == kCount - 1 ? "<a>last</a>" : "<a/>";
    }
    text += "</r>";
    auto start = std::chrono::steady_clock::now();
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session" : "heap");
        XmlNode *doc = MustParse(text.c_str(), session);
        ASSERT_NE(doc, nullptr);
        uint32_t count = 0;
        EXPECT_EQ(KRV_XML_GetNodeChildNum(doc, &count), KRV_XML_OK);
        EXPECT_EQ(count, kCount);
        XmlNode *last = nullptr;
        EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, "r.a.1000000", &last), KRV_XML_OK);
        EXPECT_EQ(last, doc->lastChild);
        char *out = nullptr;
        ASSERT_EQ(KRV_XML_Transform(doc, &out), KRV_XML_OK);
        EXPECT_EQ(std::strlen(out), 4 + (kCount - 1) * 5 + 12 + 5);  // "<r>\n", "<a/>\n"..., "<a>last</a>\n", "</r>\n"
        KRV_XML_FreeMem(out);
        XmlNode *copy = nullptr;
        ASSERT_EQ(KRV_XML_CloneNode(doc, &copy), KRV_XML_OK);
        EXPECT_EQ(krvfuzz::CompareTrees(doc, copy, false), "");
        KRV_XML_FreeNode(copy);
        KRV_XML_FreeNode(doc);
    }
    XmlNode *root = nullptr;
    ASSERT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, "r", nullptr, &root), KRV_XML_OK);
    for (size_t i = 0; i < kCount; ++i) {
        XmlNode *n = nullptr;
        ASSERT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, nullptr, "a", nullptr, &n), KRV_XML_OK);
        ASSERT_EQ(i % 2 == 0 ? KRV_XML_AppendChildNode(root, n) : KRV_XML_AddFirstChildNode(root, n), KRV_XML_OK);
    }
    EXPECT_EQ(CheckLinks(root), "");
    KRV_XML_FreeNode(root);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(120));
}

TEST(HostileInput, HundredThousandAttributes)
{
    krvtest::LeakGuard guard;
    constexpr int kCount = 100000;
    std::string text = "<r";
    for (int i = 0; i < kCount; ++i) {
        text += " a" + std::to_string(i) + "=\"" + std::to_string(i % 7) + "\"";
    }
    text += "/>";
    std::string duplicate = text.substr(0, text.size() - 2) + " a77777=\"x\"/>";
    auto start = std::chrono::steady_clock::now();
    for (bool session : {false, true}) {
        XmlNode *doc = nullptr;
        ASSERT_EQ(session ? KRV_XML_ParseEx(text.c_str(), &doc) : KRV_XML_Parse(text.c_str(), &doc), KRV_XML_OK);
        int count = 0;
        for (XmlNode *a = doc->firstAttr; a != nullptr; a = a->next) {
            ++count;
        }
        EXPECT_EQ(count, kCount);
        const char *v = nullptr;
        EXPECT_EQ(KRV_XML_GetAttr(doc, nullptr, "a99999", &v), KRV_XML_OK);
        EXPECT_STREQ(v, "4");  // 99999 % 7
        char *out = nullptr;
        ASSERT_EQ(KRV_XML_Transform(doc, &out), KRV_XML_OK);
        EXPECT_EQ(std::string(out), text.substr(0, text.size() - 2) + "/>\n");
        KRV_XML_FreeMem(out);
        KRV_XML_FreeNode(doc);
        doc = reinterpret_cast<XmlNode *>(&text);
        EXPECT_EQ(session ? KRV_XML_ParseEx(duplicate.c_str(), &doc) : KRV_XML_Parse(duplicate.c_str(), &doc),
                  KRV_XML_ERR_SYNTAX);
        EXPECT_EQ(doc, nullptr);
    }
    // A generous bound: a quadratic duplicate check would take minutes here.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

TEST(HostileInput, FiveMegabytesOfTextWithAmpersands)
{
    krvtest::LeakGuard guard;
    constexpr size_t kUnits = 500000;  // 10 bytes each
    std::string value;
    std::string escaped;
    std::string encoded;  // the same text as element content in a document
    value.reserve(kUnits * 10);
    for (size_t i = 0; i < kUnits; ++i) {
        value += "abc<def>&";
        value += static_cast<char>('0' + i % 10);
        escaped += "abc&lt;def&gt;&amp;";
        escaped += static_cast<char>('0' + i % 10);
    }
    encoded = "<t>" + escaped + "</t>";
    auto start = std::chrono::steady_clock::now();
    XmlNode *node = nullptr;
    ASSERT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, nullptr, "t", value.c_str(), &node), KRV_XML_OK);
    char *out = nullptr;
    ASSERT_EQ(KRV_XML_Transform(node, &out), KRV_XML_OK);
    EXPECT_TRUE(out != nullptr && out == encoded + "\n");
    KRV_XML_FreeMem(out);
    KRV_XML_FreeNode(node);
    for (bool session : {false, true}) {
        XmlNode *doc = MustParse(encoded.c_str(), session);
        ASSERT_NE(doc, nullptr);
        EXPECT_TRUE(doc->value != nullptr && doc->value == value);
        KRV_XML_FreeNode(doc);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

// ---------------------------------------------------------------------------
// Files that cannot be loaded. Counting replacements of the file functions
// check that every handle opened is closed once.

struct FileCounts {
    int opens = 0;
    int closes = 0;
    int reads = 0;
    bool shortRead = false;   // the read function returns one byte less
    long fakeSize = 0;        // what the size query answers instead, when not 0
};
FileCounts g_files;

FILE *CountingOpen(const char *path, const char *mode)
{
    FILE *f = std::fopen(path, mode);
    g_files.opens += f != nullptr ? 1 : 0;
    return f;
}
int CountingSeek(FILE *f, long offset, int origin)
{
    return std::fseek(f, offset, origin);
}
int CountingClose(FILE *f)
{
    ++g_files.closes;
    return std::fclose(f);
}
size_t CountingRead(void *buffer, size_t size, size_t count, FILE *f)
{
    ++g_files.reads;
    size_t n = std::fread(buffer, size, count, f);
    return g_files.shortRead && n > 0 ? n - 1 : n;
}
long CountingTell(FILE *f)
{
    return g_files.fakeSize != 0 ? g_files.fakeSize : std::ftell(f);
}

TEST(FileLoading, BrokenFilesFailCleanly)
{
    const std::string dir = TempPath("dir");
    const std::string empty = TempPath("empty.xml");
    const std::string good = TempPath("good.xml");
    const std::string locked = TempPath("locked.xml");
    mkdir(dir.c_str(), 0700);
    WriteFile(empty, "");
    WriteFile(good, "<r><a>1</a></r>");
    WriteFile(locked, "<r/>");
    chmod(locked.c_str(), 0);
    bool root = geteuid() == 0;

    struct Case {
        const char *name;
        std::string path;
        bool shortRead;
        long fakeSize;
        std::vector<uint32_t> codes;
    };
    const std::vector<Case> cases = {
        {"missing", TempPath("missing.xml"), false, 0, {KRV_XML_ERR_FILE_OPEN}},
        // A directory opens (glibc) and then fails to read.
        {"directory", dir, false, 0, {KRV_XML_ERR_FILE_READ}},
        {"unreadable", locked, false, 0, {KRV_XML_ERR_FILE_OPEN}},
        {"empty", empty, false, 0, {KRV_XML_ERR_SYNTAX}},
        {"shorter than claimed", good, true, 0, {KRV_XML_ERR_FILE_READ}},
        {"size query fails", good, false, -1, {KRV_XML_ERR_FILE_READ}},
        // Sizes of 4 GiB and more must not be cut to their low 32 bits
        // (which would make an empty file, or a short read that succeeds).
        {"size of 4 GiB", good, false, 1L << 32, {KRV_XML_ERR_FILE_READ}},
        {"size of 4 GiB and 4 bytes", good, false, (1L << 32) + 4, {KRV_XML_ERR_FILE_READ}},
    };
    ASSERT_EQ(KRV_XML_RegFileFunc(CountingOpen, CountingSeek, CountingClose, CountingRead, CountingTell), KRV_XML_OK);
    for (const Case &c : cases) {
        if (root && std::strcmp(c.name, "unreadable") == 0) {
            continue;  // root reads any file: nothing to test
        }
        for (bool session : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (session ? " session" : " heap"));
            krvtest::LeakGuard guard;
            g_files = FileCounts{};
            g_files.shortRead = c.shortRead;
            g_files.fakeSize = c.fakeSize;
            XmlNode *doc = kOutSentinel;
            uint32_t rc = session ? KRV_XML_ParseFileEx(c.path.c_str(), &doc) : KRV_XML_ParseFile(c.path.c_str(), &doc);
            bool listed = false;
            for (uint32_t code : c.codes) {
                listed = listed || code == rc;
            }
            EXPECT_TRUE(listed) << std::hex << rc;
            EXPECT_EQ(doc, session ? nullptr : kOutSentinel);
            EXPECT_EQ(g_files.opens, g_files.closes) << "a handle was left open or closed twice";
            if (c.fakeSize != 0) {
                EXPECT_EQ(g_files.reads, 0) << "read without a usable size";
            }
        }
    }
    // The counting functions themselves load a good file.
    g_files = FileCounts{};
    XmlNode *doc = nullptr;
    EXPECT_EQ(KRV_XML_ParseFileEx(good.c_str(), &doc), KRV_XML_OK);
    EXPECT_EQ(g_files.opens, 1);
    EXPECT_EQ(g_files.closes, 1);
    KRV_XML_FreeNode(doc);
    EXPECT_EQ(KRV_XML_RegFileFunc(std::fopen, std::fseek, std::fclose, std::fread, std::ftell), KRV_XML_OK);
    chmod(locked.c_str(), 0600);
    for (const std::string &p : {empty, good, locked}) {
        std::remove(p.c_str());
    }
    rmdir(dir.c_str());
}

// ---------------------------------------------------------------------------
// Parallel use: parses of different texts and prints of different trees on
// several threads at once. Run under ThreadSanitizer by tests/run_tsan.sh.

TEST(Threads, ParallelParsesAndPrints)
{
    krvtest::LeakGuard guard;
    constexpr int kThreads = 4;
    constexpr int kRounds = 60;
    std::vector<std::string> texts;
    std::vector<std::string> expected;
    for (int t = 0; t < kThreads; ++t) {
        std::string text = "<t" + std::to_string(t) + " id=\"" + std::to_string(t) + "\">";
        for (int i = 0; i < 50 + t * 20; ++i) {
            text += "<item n=\"" + std::to_string(i) + "\">v&amp;" + std::to_string(i * t) + "</item>";
        }
        text += "</t" + std::to_string(t) + ">";
        XmlNode *doc = MustParse(text.c_str(), false);
        char *out = nullptr;
        ASSERT_EQ(KRV_XML_Transform(doc, &out), KRV_XML_OK);
        expected.emplace_back(out);
        KRV_XML_FreeMem(out);
        KRV_XML_FreeNode(doc);
        texts.push_back(text);
    }
    std::atomic<int> failures{0};
    std::vector<pthread_t> threads(kThreads);
    struct Work {
        const std::string *text;
        const std::string *expected;
        std::atomic<int> *failures;
    };
    std::vector<Work> work;
    for (int t = 0; t < kThreads; ++t) {
        work.push_back({&texts[t], &expected[t], &failures});
    }
    auto body = [](void *arg) -> void * {
        Work *w = static_cast<Work *>(arg);
        for (int r = 0; r < kRounds; ++r) {
            XmlNode *doc = nullptr;
            bool session = (r & 1) != 0;
            uint32_t rc = session ? KRV_XML_ParseEx(w->text->c_str(), &doc) : KRV_XML_Parse(w->text->c_str(), &doc);
            char *out = nullptr;
            if (rc != KRV_XML_OK || KRV_XML_Transform(doc, &out) != KRV_XML_OK || out == nullptr ||
                *w->expected != out) {
                w->failures->fetch_add(1);
            }
            XmlNode *copy = nullptr;
            if (KRV_XML_CloneNode(doc, &copy) != KRV_XML_OK) {
                w->failures->fetch_add(1);
            }
            KRV_XML_FreeMem(out);
            KRV_XML_FreeNode(copy);
            KRV_XML_FreeNode(doc);
        }
        return nullptr;
    };
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(pthread_create(&threads[t], nullptr, body, &work[t]), 0);
    }
    for (pthread_t &th : threads) {
        pthread_join(th, nullptr);
    }
    EXPECT_EQ(failures.load(), 0);
}

// ---------------------------------------------------------------------------
// Inputs that once made a fuzz harness fail, replayed through the same case.

std::vector<std::string> FilesIn(const std::string &dir)
{
    std::vector<std::string> files;
    if (DIR *d = opendir(dir.c_str())) {
        while (dirent *e = readdir(d)) {
            if (e->d_name[0] != '.') {
                files.push_back(dir + "/" + e->d_name);
            }
        }
        closedir(d);
    }
    return files;
}

// The seed corpora are replayed too: each seed is a case that must pass.
TEST(FuzzRegression, CrashInputsAndSeedsPass)
{
    std::string here = __FILE__;
    const std::string base = here.substr(0, here.find_last_of('/') + 1) + "fuzz/";
    size_t replayed = 0;
    struct Harness {
        const char *name;
        std::string (*run)(const uint8_t *, size_t);
    };
    const Harness harnesses[] = {{"parse", krvfuzz::RunParseCase},
                                 {"edit", krvfuzz::RunEditCase},
                                 {"path_values", krvfuzz::RunPathValuesCase}};
    for (const Harness &h : harnesses) {
        std::vector<std::string> files = FilesIn(base + "regressions/" + h.name);
        for (const std::string &seed : FilesIn(base + "corpus/" + h.name)) {
            files.push_back(seed);
        }
        for (const std::string &file : files) {
            ++replayed;
            std::string bytes = ReadFile(file);
            SCOPED_TRACE(file);
            krvtest::LeakGuard guard;
            EXPECT_EQ(h.run(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), "");
        }
    }
    EXPECT_GT(replayed, 0u) << "no inputs found under " << base;
}

}  // namespace
