// Hardening suites: allocation failure in every allocating call, hostile
// inputs (deep nesting on a small stack, wide tags, long texts), parallel
// parsing and printing, and replays of fuzz crash inputs.
#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
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

constexpr const char *kDocument =
    "<?xml version=\"1.0\"?>\n<!-- sample -->\n"
    "<config version=\"2\" p:mode=\"fast\"><server host=\"a&amp;b\" port=\"80\"/>"
    "<port>8080</port><list><item>x&lt;y</item><item/><item>&#233;<![CDATA[<raw>]]></item></list>"
    "<empty></empty></config>\n";

// ---------------------------------------------------------------------------
// Allocation failure in every allocating call: the documented code, the
// out-argument left as documented, the tree as it was, nothing leaked.

struct Fixture {
    XmlNode *tree = nullptr;  // the tree the call works on (may be null)
    XmlNode *node = nullptr;  // the node inside it the call is about
    XmlNode *out = Sentinel();
    char *text = Sentinel<char>();
    std::string before;       // Dump(tree) before the call
    std::string written;      // what a call that writes a file wrote
};

struct AllocatingCall {
    const char *name;
    const char *path;     // node of the document the call is about; null: no tree
    bool session;         // regime of the tree
    bool outUntouched;    // a failure leaves out and text as they were
    std::function<uint32_t(Fixture &)> call;
    // Undoes the documented effect of a failure (a dropped value) so that the
    // tree can be compared with its former dump; null when there is none.
    std::function<void(Fixture &)> repair = nullptr;
    const char *document = kDocument;
    // The call asks again at a smaller size when the heap refuses: it must
    // get over any one failure with the same result, and fail only when
    // every later allocation fails too.
    bool retries = false;
};

// The text a call made: the string it handed out, or the file it wrote.
std::string Made(const Fixture &f)
{
    return f.text != Sentinel<char>() ? std::string(f.text) : f.written;
}

void RunSweep(const AllocatingCall &c)
{
    SCOPED_TRACE(c.name);
    auto setup = [&]() {
        Fixture f;
        if (c.path != nullptr) {
            f.tree = MustParse(c.document, c.session);
            EXPECT_EQ(KRV_XML_GetNodeByUrl(f.tree, c.path, &f.node), KRV_XML_OK) << c.path;
            if (c.session) {  // a new session block must reach the heap
                krvtest::SpendSessionSlab(f.tree->mem);
            }
            f.before = Dump(f.tree);
        }
        return f;
    };
    auto attempt = [&](Fixture &f) { return c.call(f); };
    auto release = [](Fixture &f) {
        EXPECT_EQ(CheckLinks(f.tree), "");
        if (f.text != Sentinel<char>()) {
            KRV_XML_FreeMem(f.text);
        }
        KRV_XML_FreeNode(f.tree);
    };
    auto finish = [&](uint32_t rc, Fixture &f) {
        if (rc != KRV_XML_OK) {
            EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
            if (c.outUntouched) {
                EXPECT_EQ(f.out, Sentinel()) << "out-argument written on failure";
                EXPECT_EQ(f.text, Sentinel<char>()) << "text handed out on failure";
            }
            if (f.tree != nullptr && c.repair) {
                c.repair(f);
            }
            EXPECT_EQ(Dump(f.tree), f.tree != nullptr ? f.before : "(null)") << "failed call changed the tree";
        } else if (f.out != Sentinel()) {
            EXPECT_EQ(CheckLinks(f.out), "");
            KRV_XML_FreeNode(f.out);
        }
        release(f);
    };
    // An exhausted heap: the call must fail cleanly wherever it runs out.
    EXPECT_GT(krvtest::SweepAllocationFailures(setup, attempt, finish, krvtest::Failing::KthOnward), 0)
        << "the call never reached an allocation";
    if (!c.retries) {
        EXPECT_GT(krvtest::SweepAllocationFailures(setup, attempt, finish), 0);
        return;
    }
    Fixture clean = setup();
    ASSERT_EQ(c.call(clean), KRV_XML_OK);
    const std::string expected = Made(clean);
    release(clean);
    EXPECT_GT(krvtest::SweepAllocationFailures(
                  setup, attempt,
                  [&](uint32_t rc, Fixture &f) {
                      EXPECT_EQ(rc, KRV_XML_OK) << "one refused request was not asked again";
                      EXPECT_TRUE(Made(f) == expected) << "a different text";
                      EXPECT_EQ(Dump(f.tree), f.before);
                      release(f);
                  },
                  krvtest::Failing::OnlyKth, true),
              0);
}

TEST(AllocationFailure, EveryAllocatingCallFailsCleanly)
{
    krvtest::LeakGuard guard;
    const std::string outFile = krvtest::TempFile("sweep_out.xml");
    const std::string big(20000, 'v');  // larger than a session's first block
    // A document that outgrows the session's first block.
    const std::string bigDoc = "<r><a>" + big + "</a><b x=\"" + big + "\"/></r>";
    // After a failed typed write the value is documented to be gone.
    auto restoreValue = [](Fixture &f) {
        EXPECT_EQ(f.node->value, nullptr);
        EXPECT_EQ(KRV_XML_SetNode(f.node, nullptr, nullptr, "8080"), KRV_XML_OK);
    };
    auto restoreAttr = [](Fixture &f) {
        const char *v = "";
        EXPECT_EQ(KRV_XML_GetAttr(f.node, nullptr, "port", &v), KRV_XML_OK);
        EXPECT_EQ(v, nullptr);
        EXPECT_EQ(KRV_XML_SetAttr(f.node, nullptr, "port", "80"), KRV_XML_OK);
    };
    uint32_t u16 = 443;
    int32_t i32 = -123456;
    auto clone = [](Fixture &f) { return KRV_XML_CloneNode(f.node, &f.out); };
    auto cloneSelf = [](Fixture &f) { return KRV_XML_CloneNodeSelf(f.node, &f.out); };

    const std::vector<AllocatingCall> calls = {
        {"CreateNode element", nullptr, false, true,
         [](Fixture &f) { return KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, "p", "name", "value", &f.out); }},
        {"CreateNodeEx heap element", nullptr, false, true,
         [](Fixture &f) { return KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_ELEMENT, "p", "name", "v", &f.out); }},
        {"CreateNodeEx document", nullptr, true, true,
         [&](Fixture &f) {
             return KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, "p", "doc", big.c_str(), &f.out);
         }},
        {"CreateNodeEx in a session", "config", true, true,
         [&](Fixture &f) {
             return KRV_XML_CreateNodeEx(f.tree->mem, KRV_XML_NODE_ELEMENT, "p", "n", big.c_str(), &f.out);
         }},
        {"SetNode heap", "config.port", false, false,
         [](Fixture &f) { return KRV_XML_SetNode(f.node, "q", "newname", "new value"); }},
        {"SetNode session", "config.port", true, false,
         [&](Fixture &f) { return KRV_XML_SetNode(f.node, nullptr, nullptr, big.c_str()); }},
        {"AddAttr heap", "config.server", false, false,
         [](Fixture &f) { return KRV_XML_AddAttr(f.node, "p", "extra", "value"); }},
        {"AddAttr session", "config.server", true, false,
         [&](Fixture &f) { return KRV_XML_AddAttr(f.node, "p", "extra", big.c_str()); }},
        {"SetAttr heap", "config.server", false, false,
         [](Fixture &f) { return KRV_XML_SetAttr(f.node, nullptr, "host", "elsewhere"); }},
        {"SetAttr session", "config.server", true, false,
         [&](Fixture &f) { return KRV_XML_SetAttr(f.node, nullptr, "host", big.c_str()); }},
        {"SetNodeValueEx heap", "config.port", false, false,
         [&](Fixture &f) { return KRV_XML_SetNodeValueEx(f.node, KRV_XML_VALUE_INT32, &i32); }, restoreValue},
        {"SetAttrValueEx existing", "config.server", false, false,
         [&](Fixture &f) { return KRV_XML_SetAttrValueEx(f.node, nullptr, "port", KRV_XML_VALUE_UINT16, &u16); },
         restoreAttr},
        {"SetAttrValueEx new heap", "config.list", false, false,
         [&](Fixture &f) { return KRV_XML_SetAttrValueEx(f.node, "p", "count", KRV_XML_VALUE_UINT16, &u16); }},
        {"SetAttrValueEx new session", "config.list", true, false,
         [&](Fixture &f) { return KRV_XML_SetAttrValueEx(f.node, "p", "count", KRV_XML_VALUE_UINT16, &u16); }},
        {"CloneNodeSelf heap", "config.server", false, true, cloneSelf},
        {"CloneNode heap document", "config", false, true, clone},
        {"CloneNode session document", "r", true, true, clone, nullptr, bigDoc.c_str()},
        // The copy of a long text needs a new block of the session.
        {"CloneNode session element", "r.a", true, true, clone, nullptr, bigDoc.c_str()},
        {"CloneNodeSelf session element", "r.b", true, true, cloneSelf, nullptr, bigDoc.c_str()},
        // Long texts make the output buffer grow more than once; an inner top
        // must get its links back.
        {"Transform", "r", false, true, [](Fixture &f) { return KRV_XML_Transform(f.node, &f.text); }, nullptr,
         bigDoc.c_str(), true},
        {"TransformHead", "config.list", true, true,
         [](Fixture &f) { return KRV_XML_TransformHead(f.node, &f.text); }, nullptr, kDocument, true},
        {"TransformTail", "config", false, true, [](Fixture &f) { return KRV_XML_TransformTail(f.node, &f.text); },
         nullptr, kDocument, true},
        {"TransformFile", "r.b", true, false,
         [&](Fixture &f) {
             krvtest::TempFile("sweep_out.xml", "old");
             uint32_t rc = KRV_XML_TransformFile(f.node, outFile.c_str());
             if (rc != KRV_XML_OK) {
                 EXPECT_EQ(krvtest::ReadFile(outFile), "old") << "a failed print touched the file";
             } else {
                 f.written = krvtest::ReadFile(outFile);
             }
             return rc;
         },
         nullptr, bigDoc.c_str(), true},
    };
    for (const AllocatingCall &c : calls) {
        RunSweep(c);
    }
    std::remove(outFile.c_str());
}

// ---------------------------------------------------------------------------
// Hostile inputs: every walk (parse, look-up, print, copy, free, remove) of
// a chain a million deep on a 256 KiB stack, and nothing quadratic in the width.

TEST(HostileInput, MillionDeepNestingOnASmallStack)
{
    constexpr size_t kDepth = 1000000;
    std::string text, printed, path = "a";
    for (size_t i = 0; i < kDepth; ++i) {
        text += "<a>";
        printed += i + 1 < kDepth ? "<a>\n" : "<a/>\n";
    }
    for (size_t i = 0; i < kDepth; ++i) {
        text += "</a>";
        printed += i + 1 < kDepth ? "</a>\n" : "";
    }
    while (path.size() + 2 <= 511) {
        path += ".a";
    }
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session" : "heap");
        krvtest::LeakGuard guard;
        krvtest::OnSmallStack([&] {
            XmlNode *doc = MustParse(text, session);
            ASSERT_NE(doc, nullptr);
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
            ASSERT_EQ(KRV_XML_TransformTail(doc, &out), KRV_XML_OK);
            EXPECT_EQ(std::strlen(out), kDepth * 5);
            KRV_XML_FreeMem(out);
            ASSERT_EQ(KRV_XML_TransformHead(last, &out), KRV_XML_OK);  // a leaf deep down
            EXPECT_STREQ(out, "<a>\n");
            KRV_XML_FreeMem(out);

            XmlNode *copy = nullptr;
            ASSERT_EQ(KRV_XML_CloneNode(doc, &copy), KRV_XML_OK);
            EXPECT_EQ(krvfuzz::CompareTrees(doc, copy, false), "");
            EXPECT_EQ(copy->mem != nullptr && copy->mem != doc->mem, session) << "a session of its own";
            KRV_XML_FreeNode(copy);
            // Free an inner part first (unlinked from the deep chain), then the rest.
            KRV_XML_FreeNode(doc->firstChild->firstChild);
            EXPECT_EQ(doc->firstChild->firstChild, nullptr);
            KRV_XML_FreeNode(doc);
        });
    }
}

// 2^doublings names of letters that share one unkeyed 32-bit FNV-1a hash
// (started from the state after a byte 0x100, then the name): each six-letter
// block has two spellings that lead from one hash state to the same next one.
std::vector<std::string> CollidingNames(int doublings)
{
    const auto step = [](uint32_t h, const std::string &s) {
        for (unsigned char c : s) {
            h = (h ^ c) * 16777619u;
        }
        return h;
    };
    uint32_t state = (2166136261u ^ 0x100u) * 16777619u;
    uint64_t lcg = 1;
    std::vector<std::string> names{""};
    for (int k = 0; k < doublings; ++k) {
        std::unordered_map<uint32_t, std::string> seen;
        for (;;) {
            std::string block;
            for (int i = 0; i < 6; ++i) {
                lcg = lcg * 6364136223846793005u + 1442695040888963407u;
                block += "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"[(lcg >> 33) % 52];
            }
            uint32_t h = step(state, block);
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

// A million siblings and a hundred thousand attributes: linking, counting,
// indexing, printing, copying and the duplicate check must each stay linear,
// also for names chosen to collide under an unkeyed hash.
TEST(HostileInput, MillionSiblingsAndHundredThousandAttributes)
{
    krvtest::LeakGuard guard;
    constexpr size_t kCount = 1000000;
    constexpr int kAttrs = 100000;
    std::string siblings = "<r>", attrs = "<r", colliding = "<r";
    for (size_t i = 0; i < kCount; ++i) {
        siblings += i == kCount - 1 ? "<a>last</a>" : "<a/>";
    }
    siblings += "</r>";
    for (int i = 0; i < kAttrs; ++i) {
        attrs += " a" + std::to_string(i) + "=\"" + std::to_string(i % 7) + "\"";
    }
    const std::vector<std::string> names = CollidingNames(17);
    for (const std::string &name : names) {
        colliding += " " + name + "='1'";
    }
    const std::string duplicate = attrs + " a77777=\"x\"/>";
    const std::string collidingDuplicate = colliding + " " + names[0] + "='2'/>";
    attrs += "/>";
    colliding += "/>";
    auto start = std::chrono::steady_clock::now();
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session" : "heap");
        XmlNode *doc = MustParse(siblings, session);
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

        doc = MustParse(attrs, session);
        ASSERT_NE(doc, nullptr);
        const char *v = nullptr;
        EXPECT_EQ(KRV_XML_GetAttr(doc, nullptr, "a99999", &v), KRV_XML_OK);
        EXPECT_STREQ(v, "4");  // 99999 % 7
        ASSERT_EQ(KRV_XML_Transform(doc, &out), KRV_XML_OK);
        EXPECT_EQ(std::string(out), attrs + "\n");
        KRV_XML_FreeMem(out);
        KRV_XML_FreeNode(doc);
        doc = MustParse(colliding, session);
        ASSERT_NE(doc, nullptr);
        EXPECT_EQ(KRV_XML_GetAttr(doc, nullptr, names.back().c_str(), &v), KRV_XML_OK);
        KRV_XML_FreeNode(doc);
        for (const std::string *text : {&duplicate, &collidingDuplicate}) {
            doc = Sentinel();
            EXPECT_EQ(krvtest::ParseIn(session, text->c_str(), &doc), KRV_XML_ERR_SYNTAX);
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

// Megabytes of text full of markup characters escape and decode in linear
// time: neither the search for the ';' ending a reference candidate nor the
// test of a candidate may rescan the text.
TEST(HostileInput, MegabytesOfTextWithAmpersands)
{
    krvtest::LeakGuard guard;
    std::string value, escaped, manyAmps(2000000, '&'), manyEscaped;
    for (size_t i = 0; i < 500000; ++i) {
        value += "abc<def>&" + std::to_string(i % 10);
        escaped += "abc&lt;def&gt;&amp;" + std::to_string(i % 10);
        manyEscaped += "&amp;&amp;&amp;&amp;";
    }
    auto start = std::chrono::steady_clock::now();
    for (const auto &[in, out] : {std::make_pair(value, escaped), std::make_pair(manyAmps + ";", manyEscaped + ";")}) {
        XmlNode *node = krvtest::Element("t", nullptr, in.c_str());
        char *text = nullptr;
        ASSERT_EQ(KRV_XML_Transform(node, &text), KRV_XML_OK);
        EXPECT_TRUE(text != nullptr && text == "<t>" + out + "</t>\n");
        KRV_XML_FreeMem(text);
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

// ---------------------------------------------------------------------------
// Parallel use: parses of different texts and prints of different trees on
// several threads at once. Run under ThreadSanitizer by tests/run_tsan.sh.

TEST(Threads, ParallelParsesAndPrints)
{
    krvtest::LeakGuard guard;
    struct Work {
        std::string text, expected;
        std::atomic<int> failures{0};
    } work[4];
    for (int t = 0; t < 4; ++t) {
        work[t].text = "<t" + std::to_string(t) + " id=\"" + std::to_string(t) + "\">";
        for (int i = 0; i < 50 + t * 20; ++i) {
            work[t].text += "<item n=\"" + std::to_string(i) + "\">v&amp;" + std::to_string(i * t) + "</item>";
        }
        work[t].text += "</t" + std::to_string(t) + ">";
        char *out = nullptr;
        XmlNode *doc = MustParse(work[t].text, false);
        ASSERT_EQ(KRV_XML_Transform(doc, &out), KRV_XML_OK);
        work[t].expected = out;
        KRV_XML_FreeMem(out);
        KRV_XML_FreeNode(doc);
    }
    auto body = [](void *arg) -> void * {
        Work *w = static_cast<Work *>(arg);
        for (int r = 0; r < 60; ++r) {
            XmlNode *doc = nullptr, *copy = nullptr;
            char *out = nullptr;
            if (krvtest::ParseIn((r & 1) != 0, w->text.c_str(), &doc) != KRV_XML_OK ||
                KRV_XML_Transform(doc, &out) != KRV_XML_OK || out == nullptr || w->expected != out ||
                KRV_XML_CloneNode(doc, &copy) != KRV_XML_OK) {
                w->failures.fetch_add(1);
            }
            KRV_XML_FreeMem(out);
            KRV_XML_FreeNode(copy);
            KRV_XML_FreeNode(doc);
        }
        return nullptr;
    };
    pthread_t threads[4];
    for (int t = 0; t < 4; ++t) {
        ASSERT_EQ(pthread_create(&threads[t], nullptr, body, &work[t]), 0);
    }
    for (int t = 0; t < 4; ++t) {
        pthread_join(threads[t], nullptr);
        EXPECT_EQ(work[t].failures.load(), 0) << "thread " << t;
    }
}

// ---------------------------------------------------------------------------
// Inputs that once made a fuzz harness fail, and the seed corpora, replayed
// through the same cases: each must pass.

TEST(FuzzRegression, CrashInputsAndSeedsPass)
{
    std::string here = __FILE__;
    const std::string base = here.substr(0, here.find_last_of('/') + 1) + "fuzz/";
    size_t replayed = 0;
    const std::pair<const char *, std::string (*)(const uint8_t *, size_t)> harnesses[] = {
        {"parse", krvfuzz::RunParseCase}, {"edit", krvfuzz::RunEditCase}, {"path_values", krvfuzz::RunPathValuesCase}};
    for (const auto &[name, run] : harnesses) {
        for (const char *kind : {"regressions/", "corpus/"}) {
            for (const auto &entry : std::filesystem::directory_iterator(base + kind + name)) {
                const std::string file = entry.path().string();
                ++replayed;
                std::string bytes = krvtest::ReadFile(file);
                SCOPED_TRACE(file);
                krvtest::LeakGuard guard;
                EXPECT_EQ(run(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()), "");
            }
        }
    }
    EXPECT_GT(replayed, 30u) << "inputs missing under " << base;
}

}  // namespace
