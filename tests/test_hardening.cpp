// Hardening suites: allocation failure sweeps, hostile inputs, parallel use, replays of fuzz crash inputs.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "fuzz/edit_case.h"
#include "fuzz/fuzz_checks.h"
#include "fuzz/parse_case.h"
#include "fuzz/path_values_case.h"
#include "test_support.h"

namespace {

using krvfuzz::CheckLinks;
using krvfuzz::Dump;
using krvtest::MustParse;
using krvtest::Sentinel;

constexpr const char *kDocument = "<?xml version=\"1.0\"?>\n<!-- sample -->\n<config version=\"2\" p:mode=\"fast\">"
    "<server host=\"a&amp;b\" port=\"80\"/><port>8080</port><list><item>x&lt;y</item><item/><item>&#233;"
    "<![CDATA[<raw>]]></item></list><empty></empty></config>\n";

using TransformFn = uint32_t (*)(XmlNode *, char **);

// The text a transform hands out, "<null>" when none, or "<rc N>" on failure.
std::string Print(XmlNode *top, TransformFn fn = KRV_XML_Transform)
{
    char *out = nullptr;
    const uint32_t rc = fn(top, &out);
    std::string text = rc != KRV_XML_OK ? "<rc " + std::to_string(rc) + ">" : out != nullptr ? out : "<null>";
    KRV_XML_FreeMem(out);
    return text;
}

std::string Repeat(const std::string &piece, size_t times)
{
    std::string text;
    while (times-- > 0) {
        text += piece;
    }
    return text;
}

// Allocation failure in every allocating call: the documented code, out-arguments untouched, the tree as it was
// (after the documented repair), nothing leaked.
struct Fixture {
    XmlNode *tree = nullptr, *node = nullptr, *out = Sentinel();  // the tree, the node the call works on
    char *text = Sentinel<char>();
    std::string before, written;  // Dump(tree) before the call; what a call that writes a file wrote
};

struct AllocatingCall {
    const char *name, *path;  // path: the node of the document the call works on
    std::vector<bool> sessions;  // regimes of the tree to run in
    std::function<uint32_t(Fixture &)> call;
    std::function<void(Fixture &)> repair = nullptr;  // undoes the documented effect of a failure
    const char *document = kDocument;
    bool retries = false;  // asks again when refused: gets over any one failure with the same result
};

void RunSweep(const AllocatingCall &c, bool session)
{
    SCOPED_TRACE(std::string(c.name) + (session ? ", session" : ", heap"));
    auto setup = [&] {
        Fixture f;
        f.tree = MustParse(c.document, session);
        EXPECT_EQ(KRV_XML_GetNodeByUrl(f.tree, c.path, &f.node), KRV_XML_OK) << c.path;
        if (session) {
            krvtest::SpendSessionSlab(f.tree->mem);  // a new session block must reach the heap
        }
        f.before = Dump(f.tree);
        return f;
    };
    auto made = [](const Fixture &f) { return f.text != Sentinel<char>() ? std::string(f.text) : f.written; };
    auto release = [](Fixture &f) {
        EXPECT_EQ(CheckLinks(f.tree), "");
        if (f.text != Sentinel<char>()) {
            KRV_XML_FreeMem(f.text);
        }
        KRV_XML_FreeNode(f.tree);
    };
    std::string expected;  // what a call that retries makes without failures
    if (c.retries) {
        Fixture clean = setup();
        ASSERT_EQ(c.call(clean), KRV_XML_OK);
        expected = made(clean);
        release(clean);
    }
    // Every allocation from the k-th on failing, as when the heap is exhausted, and only the k-th.
    for (krvtest::Failing failing : {krvtest::Failing::KthOnward, krvtest::Failing::OnlyKth}) {
        const bool recovering = c.retries && failing == krvtest::Failing::OnlyKth;
        auto finish = [&](uint32_t rc, Fixture &f) {
            if (rc != KRV_XML_OK) {
                EXPECT_FALSE(recovering) << "one refused request was not asked again";
                EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
                EXPECT_EQ(f.out, Sentinel()) << "out-argument written on failure";
                EXPECT_EQ(f.text, Sentinel<char>()) << "text handed out on failure";
                if (c.repair) {
                    c.repair(f);
                }
                EXPECT_EQ(Dump(f.tree), f.before) << "failed call changed the tree";
            } else if (recovering) {
                EXPECT_TRUE(made(f) == expected) << "a different text";
                EXPECT_EQ(Dump(f.tree), f.before);
            } else if (f.out != Sentinel()) {
                EXPECT_EQ(CheckLinks(f.out), "");
                KRV_XML_FreeNode(f.out);
            }
            release(f);
        };
        EXPECT_GT(krvtest::SweepAllocationFailures(setup, c.call, finish, failing, recovering), 0)
            << "the call never reached an allocation";
    }
}

TEST(AllocationFailure, EveryAllocatingCallFailsCleanly)
{
    krvtest::LeakGuard guard;
    const std::string outFile = krvtest::TempFile("sweep_out.xml"), big(20000, 'v');  // big: over a session block
    const std::string bigDoc = "<r><a>" + big + "</a><b x=\"" + big + "\"/></r>";
    const char *const v = big.c_str();
    const std::vector<bool> heap{false}, session{true}, both{false, true};
    uint32_t u16 = 443;
    int32_t i32 = -123456;
    auto clone = [](Fixture &f) { return KRV_XML_CloneNode(f.node, &f.out); };
    auto cloneSelf = [](Fixture &f) { return KRV_XML_CloneNodeSelf(f.node, &f.out); };
    auto print = [](TransformFn fn) { return [fn](Fixture &f) { return fn(f.node, &f.text); }; };
    const AllocatingCall calls[] = {
        {"CreateNode", "config", heap,
         [](Fixture &f) { return KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, "p", "name", "value", &f.out); }},
        {"CreateNodeEx document", "config", heap,
         [&](Fixture &f) { return KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, "p", "doc", v, &f.out); }},
        {"CreateNodeEx element in the tree's regime", "config", both,
         [&](Fixture &f) { return KRV_XML_CreateNodeEx(f.tree->mem, KRV_XML_NODE_ELEMENT, "p", "n", v, &f.out); }},
        {"SetNode", "config.port", both, [&](Fixture &f) { return KRV_XML_SetNode(f.node, "q", "newname", v); }},
        {"AddAttr", "config.server", both, [&](Fixture &f) { return KRV_XML_AddAttr(f.node, "p", "extra", v); }},
        {"SetAttr", "config.server", both, [&](Fixture &f) { return KRV_XML_SetAttr(f.node, nullptr, "host", v); }},
        {"SetNodeValueEx", "config.port", heap,
         [&](Fixture &f) { return KRV_XML_SetNodeValueEx(f.node, KRV_XML_VALUE_INT32, &i32); },
         [](Fixture &f) {  // a failed typed write is documented to drop the value
             EXPECT_EQ(f.node->value, nullptr);
             EXPECT_EQ(KRV_XML_SetNode(f.node, nullptr, nullptr, "8080"), KRV_XML_OK);
         }},
        {"SetAttrValueEx existing", "config.server", heap,
         [&](Fixture &f) { return KRV_XML_SetAttrValueEx(f.node, nullptr, "port", KRV_XML_VALUE_UINT16, &u16); },
         [](Fixture &f) {
             const char *value = "";
             EXPECT_EQ(KRV_XML_GetAttr(f.node, nullptr, "port", &value), KRV_XML_OK);
             EXPECT_EQ(value, nullptr);
             EXPECT_EQ(KRV_XML_SetAttr(f.node, nullptr, "port", "80"), KRV_XML_OK);
         }},
        {"SetAttrValueEx new", "config.list", both,
         [&](Fixture &f) { return KRV_XML_SetAttrValueEx(f.node, "p", "count", KRV_XML_VALUE_UINT16, &u16); }},
        {"CloneNodeSelf", "config.server", heap, cloneSelf},
        {"CloneNode document", "config", heap, clone},
        // Session copies of a document, of a long text and of a long attribute need new blocks of the session.
        {"CloneNode document", "r", session, clone, nullptr, bigDoc.c_str()},
        {"CloneNode element", "r.a", session, clone, nullptr, bigDoc.c_str()},
        {"CloneNodeSelf element", "r.b", session, cloneSelf, nullptr, bigDoc.c_str()},
        // Long texts make the output grow more than once; an inner top must get its links back.
        {"Transform", "r", heap, print(KRV_XML_Transform), nullptr, bigDoc.c_str(), true},
        {"TransformHead", "config.list", session, print(KRV_XML_TransformHead), nullptr, kDocument, true},
        {"TransformTail", "config", heap, print(KRV_XML_TransformTail), nullptr, kDocument, true},
        {"TransformFile", "r.b", session,
         [&](Fixture &f) {
             krvtest::TempFile("sweep_out.xml", "old");
             uint32_t rc = KRV_XML_TransformFile(f.node, outFile.c_str());
             f.written = krvtest::ReadFile(outFile);
             EXPECT_TRUE(rc == KRV_XML_OK || f.written == "old") << "a failed print touched the file";
             return rc;
         },
         nullptr, bigDoc.c_str(), true},
    };
    for (const AllocatingCall &c : calls) {
        for (bool inSession : c.sessions) {
            RunSweep(c, inSession);
        }
    }
    std::remove(outFile.c_str());
}

// Every walk (parse, look-up, print, copy, free) of a chain a million deep runs on a 256 KiB stack.
TEST(HostileInput, MillionDeepNestingOnASmallStack)
{
    constexpr size_t kDepth = 1000000;
    const std::string text = Repeat("<a>", kDepth) + Repeat("</a>", kDepth), path = "a" + Repeat(".a", 255);
    const std::string printed = Repeat("<a>\n", kDepth - 1) + "<a/>\n" + Repeat("</a>\n", kDepth - 1);
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session" : "heap");
        krvtest::LeakGuard guard;
        krvtest::OnSmallStack([&] {
            XmlNode *doc = MustParse(text, session), *last = doc, *found = nullptr, *copy = nullptr;
            ASSERT_NE(doc, nullptr);
            size_t count = 0;
            for (XmlNode *n = doc; n != nullptr; n = KRV_XML_Iterator(n), ++count) {
                last = n;
            }
            EXPECT_EQ(count, kDepth);
            EXPECT_EQ(CheckLinks(doc), "");
            EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, path.c_str(), &found), KRV_XML_OK);  // 511 bytes: the longest
            EXPECT_EQ(Print(found, KRV_XML_TransformTail).size(), (kDepth - 255) * 5) << "not 255 levels down";
            EXPECT_TRUE(Print(doc) == printed);
            EXPECT_EQ(Print(doc, KRV_XML_TransformTail).size(), kDepth * 5);
            EXPECT_EQ(Print(last, KRV_XML_TransformHead), "<a>\n");  // a leaf deep down

            ASSERT_EQ(KRV_XML_CloneNode(doc, &copy), KRV_XML_OK);
            EXPECT_EQ(krvfuzz::CompareTrees(doc, copy, false), "");
            EXPECT_EQ(copy->mem != nullptr && copy->mem != doc->mem, session) << "a session of its own";
            KRV_XML_FreeNode(copy);
            KRV_XML_FreeNode(doc->firstChild->firstChild);  // an inner part first, unlinked from the chain
            EXPECT_EQ(doc->firstChild->firstChild, nullptr);
            KRV_XML_FreeNode(doc);
        });
    }
}

// 2^doublings names of letters that share one unkeyed 32-bit FNV-1a hash (started from the state after a byte
// 0x100, then the name): each six-letter block has two spellings that lead from one hash state to the same next.
std::vector<std::string> CollidingNames(int doublings)
{
    uint32_t state = (2166136261u ^ 0x100u) * 16777619u;
    uint64_t lcg = 1;
    std::vector<std::string> names{""};
    for (int k = 0; k < doublings; ++k) {
        std::unordered_map<uint32_t, std::string> seen;
        for (;;) {
            std::string block;
            uint32_t h = state;
            for (int i = 0; i < 6; ++i) {
                lcg = lcg * 6364136223846793005u + 1442695040888963407u;
                block += "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"[(lcg >> 33) % 52];
                h = (h ^ static_cast<unsigned char>(block.back())) * 16777619u;
            }
            auto [it, added] = seen.emplace(h, block);
            if (!added && it->second != block) {
                for (size_t i = 0, n = names.size(); i < n; ++i) {
                    names.push_back(names[i] + block);
                    names[i] += it->second;
                }
                state = h;
                break;
            }
        }
    }
    return names;
}

// A million siblings and a hundred thousand attributes: linking, counting, indexing, printing, copying and the
// duplicate check each stay linear, also for names chosen to collide under an unkeyed hash.
TEST(HostileInput, MillionSiblingsAndHundredThousandAttributes)
{
    krvtest::LeakGuard guard;
    constexpr size_t kCount = 1000000;
    const std::string siblings = "<r>" + Repeat("<a/>", kCount - 1) + "<a>last</a></r>";
    std::string attrs = "<r", colliding = "<r";
    for (int i = 0; i < 100000; ++i) {
        attrs += " a" + std::to_string(i) + "=\"" + std::to_string(i % 7) + "\"";
    }
    const std::vector<std::string> names = CollidingNames(17);
    for (const std::string &name : names) {
        colliding += " " + name + "='1'";
    }
    const std::string duplicates[] = {attrs + " a77777=\"x\"/>", colliding + " " + names[0] + "='2'/>"};
    attrs += "/>";
    colliding += "/>";
    const auto start = std::chrono::steady_clock::now();
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session" : "heap");
        XmlNode *doc = MustParse(siblings, session), *last = nullptr, *copy = nullptr;
        ASSERT_NE(doc, nullptr);
        uint32_t count = 0;
        EXPECT_EQ(KRV_XML_GetNodeChildNum(doc, &count), KRV_XML_OK);
        EXPECT_EQ(count, kCount);
        EXPECT_EQ(KRV_XML_GetNodeByUrl(doc, "r.a.1000000", &last), KRV_XML_OK);
        EXPECT_EQ(last, doc->lastChild);
        EXPECT_EQ(Print(doc).size(), 4 + (kCount - 1) * 5 + 12 + 5);  // "<r>\n", "<a/>\n"..., "<a>last</a>\n", "</r>\n"
        ASSERT_EQ(KRV_XML_CloneNode(doc, &copy), KRV_XML_OK);
        EXPECT_EQ(krvfuzz::CompareTrees(doc, copy, false), "");
        KRV_XML_FreeNode(copy);
        KRV_XML_FreeNode(doc);

        doc = MustParse(attrs, session);
        ASSERT_NE(doc, nullptr);
        const char *v = nullptr;
        EXPECT_EQ(KRV_XML_GetAttr(doc, nullptr, "a99999", &v), KRV_XML_OK);
        EXPECT_STREQ(v, "4");  // 99999 % 7
        EXPECT_TRUE(Print(doc) == attrs + "\n");
        KRV_XML_FreeNode(doc);
        doc = MustParse(colliding, session);
        ASSERT_NE(doc, nullptr);
        EXPECT_EQ(KRV_XML_GetAttr(doc, nullptr, names.back().c_str(), &v), KRV_XML_OK);
        KRV_XML_FreeNode(doc);
        for (const std::string &text : duplicates) {
            doc = Sentinel();
            EXPECT_EQ(krvtest::ParseIn(session, text.c_str(), &doc), KRV_XML_ERR_SYNTAX);
            EXPECT_EQ(doc, nullptr);
        }
    }
    // Siblings inserted at both ends, through the interface.
    XmlNode *root = krvtest::Document(false, "r");
    for (size_t i = 0; i < kCount; ++i) {
        XmlNode *n = krvtest::Element("a");
        ASSERT_EQ(i % 2 == 0 ? KRV_XML_AppendChildNode(root, n) : KRV_XML_AddFirstChildNode(root, n), KRV_XML_OK);
    }
    EXPECT_EQ(CheckLinks(root), "");
    KRV_XML_FreeNode(root);
    // A generous bound: a quadratic walk or duplicate check would take minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(120));
}

// Megabytes of text full of markup characters escape and decode in linear time: neither the search for the ';'
// ending a reference candidate nor the test of a candidate may rescan the text.
TEST(HostileInput, MegabytesOfTextWithAmpersands)
{
    krvtest::LeakGuard guard;
    std::string value, escaped;
    for (size_t i = 0; i < 500000; ++i) {
        value += "abc<def>&" + std::to_string(i % 10);
        escaped += "abc&lt;def&gt;&amp;" + std::to_string(i % 10);
    }
    const std::pair<std::string, std::string> cases[] = {
        {value, escaped}, {std::string(2000000, '&') + ";", Repeat("&amp;", 2000000) + ";"}};
    const auto start = std::chrono::steady_clock::now();
    for (const auto &[in, out] : cases) {
        XmlNode *node = krvtest::Element("t", nullptr, in.c_str());
        EXPECT_TRUE(Print(node) == "<t>" + out + "</t>\n");
        KRV_XML_FreeNode(node);
    }
    for (bool session : {false, true}) {
        XmlNode *doc = MustParse("<t>" + escaped + "</t>", session);
        ASSERT_NE(doc, nullptr);
        EXPECT_TRUE(doc->value != nullptr && doc->value == value);
        KRV_XML_FreeNode(doc);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

// Parses of different texts and prints of different trees on several threads at once; tests/run_tsan.sh runs
// this under ThreadSanitizer.
TEST(Threads, ParallelParsesAndPrints)
{
    krvtest::LeakGuard guard;
    struct Work {
        std::string text, expected;
        std::atomic<int> failures{0};
    } work[4];
    std::thread threads[4];
    for (int t = 0; t < 4; ++t) {
        const std::string n = std::to_string(t);
        work[t].text = "<t" + n + " id=\"" + n + "\">" + Repeat("<i n=\"" + n + "\">v&amp;" + n + "</i>", 50 + t * 20);
        work[t].text += "</t" + n + ">";
        work[t].expected = std::regex_replace(work[t].text, std::regex(">(?=<|$)"), ">\n");  // a line per tag
    }
    for (int t = 0; t < 4; ++t) {
        threads[t] = std::thread([w = &work[t]] {
            for (int r = 0; r < 60; ++r) {
                XmlNode *doc = nullptr, *copy = nullptr;
                if (krvtest::ParseIn((r & 1) != 0, w->text.c_str(), &doc) != KRV_XML_OK || Print(doc) != w->expected ||
                    KRV_XML_CloneNode(doc, &copy) != KRV_XML_OK) {
                    w->failures.fetch_add(1);
                }
                KRV_XML_FreeNode(copy);
                KRV_XML_FreeNode(doc);
            }
        });
    }
    for (int t = 0; t < 4; ++t) {
        threads[t].join();
        EXPECT_EQ(work[t].failures.load(), 0) << "thread " << t;
    }
}

// Inputs that once made a fuzz harness fail, and the seed corpora, replayed through the same cases: each passes.
TEST(FuzzRegression, CrashInputsAndSeedsPass)
{
    const std::string here = __FILE__, base = here.substr(0, here.find_last_of('/') + 1) + "fuzz/";
    size_t replayed = 0;
    const std::pair<const char *, std::string (*)(const uint8_t *, size_t)> harnesses[] = {
        {"parse", krvfuzz::RunParseCase}, {"edit", krvfuzz::RunEditCase}, {"path_values", krvfuzz::RunPathValuesCase}};
    for (const auto &[name, run] : harnesses) {
        for (const char *kind : {"regressions/", "corpus/"}) {
            for (const auto &entry : std::filesystem::directory_iterator(base + kind + name)) {
                const std::string file = entry.path().string(), bytes = krvtest::ReadFile(file);
                ++replayed;
                SCOPED_TRACE(file);
                krvtest::LeakGuard guard;
                EXPECT_EQ(run(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), "");
            }
        }
    }
    EXPECT_GT(replayed, 30u) << "inputs missing under " << base;
}

}  // namespace
