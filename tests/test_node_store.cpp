// NodeStore, Session and Routing suites: records, sessions, allocation routing,
// create/set/remove/free and the library services.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"
#include "xml/xml_internal.h"

namespace {

XmlNode *heapElement(const char *name, const char *value = nullptr)
{
    XmlNode *node = nullptr;
    EXPECT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, nullptr, name, value, &node), KRV_XML_OK);
    return node;
}

// Which block of the session holds p (0-based), or -1.
int blockOf(XmlMemSession *session, const void *p)
{
    int i = 0;
    for (XmlMemSession *b = session; b != nullptr; b = b->nextBlock, ++i) {
        auto *data = reinterpret_cast<const uint8_t *>(b) +
                     ((sizeof(XmlMemSession) + 7) & ~static_cast<size_t>(7));
        auto *q = static_cast<const uint8_t *>(p);
        if (q >= data && q < data + b->capacity) {
            return i;
        }
    }
    return -1;
}

std::vector<int32_t> capacities(XmlMemSession *session)
{
    std::vector<int32_t> caps;
    for (XmlMemSession *b = session; b != nullptr; b = b->nextBlock) {
        caps.push_back(b->capacity);
    }
    return caps;
}

// A brute-force model of first fit over the chain: the free bytes and the
// capacity of every block, searched from the first.
struct FirstFitModel {
    std::vector<int32_t> free{kSessionInitialSize};
    std::vector<int32_t> cap{kSessionInitialSize};

    // The block that serves a request of n bytes, adding one when none can.
    int serve(int32_t n)
    {
        int32_t rounded = (n + 7) & ~7;
        for (size_t b = 0; b < free.size(); ++b) {
            if (free[b] >= rounded) {
                free[b] -= rounded;
                return static_cast<int>(b);
            }
        }
        int32_t c = cap.back();
        while (c < rounded) {
            c *= 2;
        }
        cap.push_back(c);
        free.push_back(c - rounded);
        return static_cast<int>(free.size() - 1);
    }
};

}  // namespace

// ===== Session ==============================================================

TEST(Session, RefusesBadArguments)
{
    EXPECT_EQ(XML_MemSessionBegin(0), nullptr);
    EXPECT_EQ(XML_MemSessionBegin(-8), nullptr);
    EXPECT_EQ(XML_MemSessionEnd(nullptr), 0);
    EXPECT_EQ(XML_MemSpecialMalloc(nullptr, 8), nullptr);
    XmlMemSession *s = XML_MemSessionBegin(kSessionInitialSize);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(XML_MemSpecialMalloc(s, 0), nullptr);
    EXPECT_EQ(XML_MemSpecialMalloc(s, -1), nullptr);
    EXPECT_EQ(XML_MemSpecialMalloc(s, (1 << 30) + 1), nullptr);
    EXPECT_EQ(capacities(s), std::vector<int32_t>{kSessionInitialSize});
    EXPECT_EQ(XML_MemSessionEnd(s), 1);
}

TEST(Session, GrowthRules)
{
    struct Case {
        std::vector<int32_t> requests;
        std::vector<int32_t> expectedCapacities;
    };
    const Case cases[] = {
        {{8192}, {8192}},                      // an exact fit stays in the first block
        {{8193}, {8192, 16384}},               // one byte more doubles
        {{3 * 8192}, {8192, 4 * 8192}},        // smallest doubling that holds it
        {{8000, 400}, {8192, 8192}},           // fits the last capacity: same size again
        {{8000, 400, 9000}, {8192, 8192, 16384}},
        {{16384, 16384}, {8192, 16384, 16384}},  // doubling starts from the last block
    };
    for (const Case &c : cases) {
        XmlMemSession *s = XML_MemSessionBegin(kSessionInitialSize);
        ASSERT_NE(s, nullptr);
        for (int32_t n : c.requests) {
            ASSERT_NE(XML_MemSpecialMalloc(s, n), nullptr) << n;
        }
        EXPECT_EQ(capacities(s), c.expectedCapacities) << "first request " << c.requests[0];
        XML_MemSessionEnd(s);
    }
}

TEST(Session, ServesZeroedAlignedMemoryAndExactFit)
{
    XmlMemSession *s = XML_MemSessionBegin(kSessionInitialSize);
    auto *a = static_cast<uint8_t *>(XML_MemSpecialMalloc(s, 3));
    auto *b = static_cast<uint8_t *>(XML_MemSpecialMalloc(s, 8192 - 8));
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 8, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 8, 0u);
    EXPECT_EQ(b - a, 8) << "requests are rounded up to 8 bytes";
    EXPECT_EQ(s->freeBytes, 0) << "a request of exactly the free bytes empties the block";
    EXPECT_EQ(capacities(s).size(), 1u);
    for (int i = 0; i < 8192 - 8; ++i) {
        ASSERT_EQ(b[i], 0);
    }
    XML_MemSessionEnd(s);
}

TEST(Session, FirstFitMatchesAReferenceModel)
{
    // Every request must be served by exactly the block the model picks,
    // across many blocks with scattered leftovers; in the second round a few
    // requests also make blocks larger than a slab. Every piece must come
    // zero-filled, also from memory that the first round dirtied, and no two
    // pieces may overlap: each is filled with its own byte and all are
    // checked at the end.
    krvtest::LeakGuard guard;
    std::mt19937 rng(12345);
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        XmlMemSession *s = XML_MemSessionBegin(kSessionInitialSize);
        ASSERT_NE(s, nullptr);
        FirstFitModel model;
        struct Piece {
            uint8_t *p;
            int32_t n;
            uint8_t fill;
        };
        std::vector<Piece> pieces;
        for (int i = 0; i < 30000; ++i) {
            uint32_t pick = rng() % 1000;
            int32_t n = pick == 0 && round == 1 ? static_cast<int32_t>(1 + rng() % 300000)
                        : pick < 100 ? static_cast<int32_t>(1 + rng() % 6000)
                                     : static_cast<int32_t>(1 + rng() % 200);
            int expected = model.serve(n);
            auto *p = static_cast<uint8_t *>(XML_MemSpecialMalloc(s, n));
            ASSERT_NE(p, nullptr);
            ASSERT_EQ(blockOf(s, p), expected) << "request " << i << " of " << n << " bytes";
            for (int32_t k = 0; k < n; ++k) {
                ASSERT_EQ(p[k], 0) << "request " << i << ", byte " << k;
            }
            auto fill = static_cast<uint8_t>(1 + i % 255);
            std::memset(p, fill, static_cast<size_t>(n));
            pieces.push_back({p, n, fill});
        }
        EXPECT_EQ(capacities(s), model.cap);
        for (const Piece &piece : pieces) {
            for (int32_t k = 0; k < piece.n; ++k) {
                ASSERT_EQ(piece.p[k], piece.fill) << "pieces overlap";
            }
        }
        XML_MemSessionEnd(s);
    }
}

TEST(Session, BlocksCostFewHeapAllocations)
{
    // Blocks are carved from slabs that grow geometrically, also after a first
    // block too large for a shared slab: the heap sees the first block, the
    // index and its growth, and a handful of slabs, not one per block.
    struct Case {
        int32_t first;
        int32_t then;
        int count;
        size_t blocks;
        long most;
    };
    const Case cases[] = {
        {8192, 8192, 2000, 2001, 48},   // the first block, then 2000 of 8 KB (16 MB)
        {100000, 131072, 60, 62, 32},   // 8 KB, then 61 blocks of 128 KB (8 MB)
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.first);
        krvtest::LeakGuard guard;
        long before = krv_test::AllocationCount();
        XmlMemSession *s = XML_MemSessionBegin(kSessionInitialSize);
        ASSERT_NE(s, nullptr);
        ASSERT_NE(XML_MemSpecialMalloc(s, c.first), nullptr);
        for (int i = 0; i < c.count; ++i) {
            ASSERT_NE(XML_MemSpecialMalloc(s, c.then), nullptr);
        }
        EXPECT_EQ(capacities(s).size(), c.blocks);
        EXPECT_LE(krv_test::AllocationCount() - before, c.most);
        XML_MemSessionEnd(s);
    }
}

TEST(Session, FailedGrowthLeavesTheChainAsItWas)
{
    // 70 full blocks need the block index, ten slabs and a larger index;
    // then a block larger than the next slab gets one of its own. Each of
    // these heap allocations fails once: the request gets null, the chain
    // stays what the served requests made, and the same request served again
    // afterwards lands where first fit says.
    std::vector<int32_t> requests(70, 8192);
    requests.push_back(3000000);
    requests.push_back(8192);
    struct Run {
        XmlMemSession *session;
        size_t served;
    };
    krvtest::LeakGuard guard;
    long points = krvtest::SweepAllocationFailures(
        [] { return Run{XML_MemSessionBegin(kSessionInitialSize), 0}; },
        [&](Run &r) {
            for (; r.served < requests.size(); ++r.served) {
                if (XML_MemSpecialMalloc(r.session, requests[r.served]) == nullptr) {
                    return KRV_XML_ERR_NO_MEMORY;
                }
            }
            return KRV_XML_OK;
        },
        [&](uint32_t rc, Run &r) {
            FirstFitModel model;
            for (size_t i = 0; i < r.served; ++i) {
                model.serve(requests[i]);
            }
            EXPECT_EQ(capacities(r.session), model.cap) << "after " << r.served << " requests";
            if (rc != KRV_XML_OK) {
                int32_t n = requests[r.served];
                int expected = model.serve(n);
                auto *p = static_cast<uint8_t *>(XML_MemSpecialMalloc(r.session, n));
                ASSERT_NE(p, nullptr);
                EXPECT_EQ(blockOf(r.session, p), expected);
                EXPECT_EQ(p[0] | p[n - 1], 0);
            }
            XML_MemSessionEnd(r.session);
        });
    // The index, nine slabs of 64 KB and one of 128 KB (an eighth of the 576 KB
    // held then), the larger index and the big block's own slab.
    EXPECT_EQ(points, 13);
}

// ===== Routing ==============================================================

TEST(Routing, SessionOwnedTest)
{
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, "doc", nullptr, &doc),
              KRV_XML_OK);
    XmlNode *child = nullptr;
    ASSERT_EQ(KRV_XML_CreateNodeEx(doc->mem, KRV_XML_NODE_ELEMENT, nullptr, "c", nullptr, &child),
              KRV_XML_OK);
    EXPECT_EQ(xmlSessionOf(child), doc->mem) << "an element root carved from a session";
    krvtest::LinkChild(doc, child);
    XmlNode *attr = XML_NewNode(doc->mem, KRV_XML_NODE_ATTRIBUTE);
    EXPECT_EQ(xmlSessionOf(attr), nullptr) << "an attribute without owner";
    ASSERT_EQ(XML_AddAttrNode(attr, child), KRV_XML_OK);
    EXPECT_EQ(xmlSessionOf(attr), doc->mem) << "an attribute of a session element";
    EXPECT_EQ(xmlSessionOf(doc), doc->mem);
    EXPECT_EQ(xmlSessionOf(nullptr), nullptr);

    XmlNode *heapRoot = heapElement("h");
    EXPECT_EQ(xmlSessionOf(heapRoot), nullptr);
    doc->next = heapRoot;  // a top record with a sibling is heap-backed
    EXPECT_EQ(xmlSessionOf(child), nullptr);
    doc->next = nullptr;
    KRV_XML_FreeNode(heapRoot);
    KRV_XML_FreeNode(doc);
}

TEST(Routing, StrdupMallocFreeFollowTheTree)
{
    krvtest::LeakGuard guard;
    long before = krv_test::AllocationCount();
    EXPECT_EQ(XML_Strdup(nullptr, ""), nullptr);
    XML_Free(nullptr, nullptr);
    EXPECT_EQ(krv_test::AllocationCount(), before) << "an empty string is never copied";

    char *heap = XML_Strdup(nullptr, "abc");
    ASSERT_STREQ(heap, "abc");
    XML_Free(nullptr, heap);

    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, "d", nullptr, &doc),
              KRV_XML_OK);
    long live = krv_test::LiveBlocks();
    char *s = XML_Strdup(doc, "in the session");
    void *m = XML_Malloc(doc, 100);
    EXPECT_EQ(blockOf(doc->mem, s), 0);
    EXPECT_EQ(blockOf(doc->mem, m), 0);
    XML_Free(doc, s);  // left to the session
    EXPECT_EQ(krv_test::LiveBlocks(), live);
    EXPECT_EQ(XML_Malloc(doc, uint64_t{1} << 40), nullptr) << "no heap fallback";
    KRV_XML_FreeNode(doc);
}

// ===== NodeStore ============================================================

TEST(NodeStore, CreateNodeKindsAndStrings)
{
    krvtest::LeakGuard guard;
    struct Case {
        int32_t kind;
        uint32_t rc;
    };
    for (Case c : {Case{0, KRV_XML_OK}, Case{12, KRV_XML_OK}, Case{1, KRV_XML_ERR_INVALID_PARAM},
                   Case{2, KRV_XML_ERR_INVALID_PARAM}, Case{-1, KRV_XML_ERR_INVALID_PARAM}}) {
        XmlNode *node = reinterpret_cast<XmlNode *>(0x1);
        EXPECT_EQ(KRV_XML_CreateNode(c.kind, "p", "n", "v", &node), c.rc) << c.kind;
        if (c.rc != KRV_XML_OK) {
            EXPECT_EQ(node, reinterpret_cast<XmlNode *>(0x1));
            continue;
        }
        EXPECT_EQ(node->ownsSession, c.kind == 12 ? 1 : 0);
        EXPECT_EQ(node->mem, nullptr);
        EXPECT_EQ(std::string(node->nsPrefix) + node->name + node->value, "pnv");
        KRV_XML_FreeNode(node);
    }
    EXPECT_EQ(KRV_XML_CreateNode(0, nullptr, "n", nullptr, nullptr), KRV_XML_ERR_INVALID_PARAM);
    XmlNode *bare = nullptr;
    ASSERT_EQ(KRV_XML_CreateNode(0, "", nullptr, "", &bare), KRV_XML_OK);
    EXPECT_TRUE(bare->name == nullptr && bare->value == nullptr && bare->nsPrefix == nullptr)
        << "empty strings are not copied";
    KRV_XML_FreeNode(bare);
}

TEST(NodeStore, CreateNodeExRegimes)
{
    krvtest::LeakGuard guard;
    XmlNode *doc = nullptr;
    long live = krv_test::LiveBlocks();
    XmlMemSession *ignored = reinterpret_cast<XmlMemSession *>(0x10);
    ASSERT_EQ(KRV_XML_CreateNodeEx(ignored, 12, "p", "doc", "v", &doc), KRV_XML_OK);
    EXPECT_NE(doc->mem, nullptr);
    EXPECT_NE(doc->mem, ignored);
    EXPECT_EQ(doc->ownsSession, 1);
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1) << "record and strings all in the one session block";
    EXPECT_EQ(blockOf(doc->mem, doc->name), 0);

    XmlNode *inSession = nullptr;
    ASSERT_EQ(KRV_XML_CreateNodeEx(doc->mem, 0, nullptr, "e", "x", &inSession), KRV_XML_OK);
    EXPECT_EQ(inSession->mem, doc->mem);
    EXPECT_EQ(inSession->ownsSession, 0);
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1);
    KRV_XML_FreeNode(inSession);  // frees nothing: it goes with the session
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1);

    XmlNode *heap = nullptr;
    ASSERT_EQ(KRV_XML_CreateNodeEx(nullptr, 0, nullptr, "e", nullptr, &heap), KRV_XML_OK);
    EXPECT_EQ(heap->mem, nullptr);
    KRV_XML_FreeNode(heap);
    KRV_XML_FreeNode(doc);
    EXPECT_EQ(krv_test::LiveBlocks(), live);
}

TEST(NodeStore, SetNodeNullKeepsEmptyClearsTextReplaces)
{
    krvtest::LeakGuard guard;
    for (bool session : {false, true}) {
        XmlNode *node = nullptr;
        ASSERT_EQ(KRV_XML_CreateNodeEx(nullptr, session ? 12 : 0, "p", "n", "v", &node), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_SetNode(node, nullptr, "", nullptr), KRV_XML_OK);
        EXPECT_STREQ(node->nsPrefix, "p");
        EXPECT_EQ(node->name, nullptr);
        EXPECT_EQ(node->nameOwned, 1) << "clearing keeps the flag";
        EXPECT_STREQ(node->value, "v");
        ASSERT_EQ(KRV_XML_SetNode(node, "q", "m", ""), KRV_XML_OK);
        EXPECT_STREQ(node->nsPrefix, "q");
        EXPECT_STREQ(node->name, "m");
        EXPECT_EQ(node->value, nullptr);
        EXPECT_EQ(KRV_XML_SetNode(nullptr, "a", "b", "c"), KRV_XML_ERR_INVALID_PARAM);
        KRV_XML_FreeNode(node);
    }
}

TEST(NodeStore, ReplacingAnInternedNameReleasesNothing)
{
    krvtest::LeakGuard guard;
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_CreateNode(12, nullptr, "d", nullptr, &doc), KRV_XML_OK);
    XmlNode *child = heapElement("item");
    krvtest::LinkChild(doc, child);
    XML_InternName(doc, child);
    ASSERT_EQ(child->name, doc->nameTable[0]);
    ASSERT_EQ(child->nameOwned, 0);
    ASSERT_EQ(KRV_XML_SetNode(child, nullptr, "other", nullptr), KRV_XML_OK);
    EXPECT_STREQ(child->name, "other");
    EXPECT_STREQ(doc->nameTable[0], "item") << "a slot keeps its text";
    KRV_XML_FreeNode(doc);
}

TEST(NodeStore, RemoveNodeUnlinks)
{
    krvtest::LeakGuard guard;
    XmlNode *root = heapElement("r");
    XmlNode *a = heapElement("a");
    XmlNode *b = heapElement("b");
    XmlNode *c = heapElement("c");
    EXPECT_EQ(KRV_XML_RemoveNode(root), KRV_XML_ERR_INVALID_PARAM) << "not linked anywhere";
    EXPECT_EQ(KRV_XML_RemoveNode(nullptr), KRV_XML_ERR_INVALID_PARAM);
    krvtest::LinkChild(root, a);
    krvtest::LinkChild(root, b);
    krvtest::LinkChild(root, c);
    ASSERT_EQ(KRV_XML_RemoveNode(b), KRV_XML_OK);
    EXPECT_EQ(a->next, c);
    EXPECT_EQ(c->prev, a);
    EXPECT_TRUE(b->parent == nullptr && b->next == nullptr && b->prev == nullptr);
    ASSERT_EQ(KRV_XML_RemoveNode(a), KRV_XML_OK);
    EXPECT_EQ(root->firstChild, c);
    ASSERT_EQ(KRV_XML_RemoveNode(c), KRV_XML_OK);
    EXPECT_EQ(root->firstChild, nullptr);
    EXPECT_EQ(root->lastChild, nullptr);

    XmlNode *attr = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    ASSERT_EQ(XML_AddAttrNode(attr, root), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_RemoveNode(attr), KRV_XML_ERR_INVALID_PARAM);
    for (XmlNode *n : {root, a, b, c}) {
        KRV_XML_FreeNode(n);
    }
}

TEST(NodeStore, FreeNodeReleasesOnlyTheNodeAndItsSubtree)
{
    krvtest::LeakGuard guard;
    XmlNode *root = heapElement("r");
    XmlNode *kids[3] = {heapElement("a", "1"), heapElement("b"), heapElement("c")};
    for (XmlNode *k : kids) {
        krvtest::LinkChild(root, k);
    }
    krvtest::LinkChild(kids[1], heapElement("deep"));
    XmlNode *attr = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    ASSERT_EQ(XML_SetNode(nullptr, attr, "p", "x", "1"), KRV_XML_OK);
    ASSERT_EQ(XML_AddAttrNode(attr, kids[1]), KRV_XML_OK);

    KRV_XML_FreeNode(kids[1]);  // a middle child, with a child and an attribute
    EXPECT_EQ(kids[0]->next, kids[2]);
    EXPECT_EQ(kids[2]->prev, kids[0]);

    XmlNode *a2 = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    XmlNode *a3 = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    ASSERT_EQ(XML_SetNode(nullptr, a2, nullptr, "y", nullptr), KRV_XML_OK);
    ASSERT_EQ(XML_SetNode(nullptr, a3, nullptr, "z", nullptr), KRV_XML_OK);
    ASSERT_EQ(XML_AddAttrNode(a2, root), KRV_XML_OK);
    ASSERT_EQ(XML_AddAttrNode(a3, root), KRV_XML_OK);
    KRV_XML_FreeNode(a2);  // an attribute leaves its owner's list
    EXPECT_EQ(root->firstAttr, a3);

    XML_FreeNode(root->firstChild);  // the first child releases the whole chain after it
    root->firstChild = root->lastChild = nullptr;
    KRV_XML_FreeNode(root);
}

TEST(NodeStore, DocumentReleaseByRegime)
{
    krvtest::LeakGuard guard;
    // A heap document takes its top-level followers with it.
    XmlNode *doc = nullptr;
    ASSERT_EQ(KRV_XML_CreateNode(12, nullptr, "r", nullptr, &doc), KRV_XML_OK);
    XmlNode *s = heapElement("s");
    XmlNode *t = heapElement("t");
    doc->next = s;
    s->prev = doc;
    s->next = t;
    t->prev = s;
    KRV_XML_FreeNode(doc);

    // A session document ends its session and visits no node: a heap child
    // linked in by hand survives.
    ASSERT_EQ(KRV_XML_CreateNodeEx(nullptr, 12, nullptr, "d", nullptr, &doc), KRV_XML_OK);
    XmlNode *heapChild = heapElement("h", "v");
    krvtest::LinkChild(doc, heapChild);
    long live = krv_test::LiveBlocks();
    KRV_XML_FreeNode(doc);
    EXPECT_EQ(krv_test::LiveBlocks(), live - 1) << "only the session block went";
    heapChild->parent = heapChild->prev = nullptr;
    KRV_XML_FreeNode(heapChild);
}

TEST(NodeStore, DeepChainIsFreedWithoutRecursion)
{
    krvtest::LeakGuard guard;
    constexpr int kDepth = 1000000;
    XmlNode *root = heapElement("r");
    XmlNode *cur = root;
    for (int i = 0; i < kDepth; ++i) {
        XmlNode *child = XML_NewNode(nullptr, 0);
        ASSERT_NE(child, nullptr);
        krvtest::LinkChild(cur, child);
        cur = child;
    }
    krvtest::OnSmallStack([root] { KRV_XML_FreeNode(root); });
}

TEST(NodeStore, AllocationFailureAtEveryPoint)
{
    krvtest::LeakGuard guard;
    for (int32_t kind : {0, 12}) {
        for (bool session : {false, true}) {
            long points = krvtest::SweepAllocationFailures(
                [] { return static_cast<XmlNode *>(reinterpret_cast<XmlNode *>(0x1)); },
                [&](XmlNode *&out) {
                    return session ? KRV_XML_CreateNodeEx(nullptr, kind, "p", "n", "v", &out)
                                   : KRV_XML_CreateNode(kind, "p", "n", "v", &out);
                },
                [&](uint32_t rc, XmlNode *&out) {
                    if (rc == KRV_XML_OK) {
                        KRV_XML_FreeNode(out);
                    } else {
                        EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
                        EXPECT_EQ(out, reinterpret_cast<XmlNode *>(0x1)) << "out untouched";
                    }
                });
            EXPECT_GE(points, 1);
        }
    }
    krvtest::SweepAllocationFailures(
        [] { return heapElement("old", "was"); },
        [](XmlNode *node) { return KRV_XML_SetNode(node, "p", "new", "is"); },
        [](uint32_t rc, XmlNode *node) {
            if (rc != KRV_XML_OK) {
                EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
                EXPECT_STREQ(node->name, "old");
                EXPECT_STREQ(node->value, "was");
                EXPECT_EQ(node->nsPrefix, nullptr);
            }
            KRV_XML_FreeNode(node);
        });
}

TEST(NodeStore, LibraryServices)
{
    char buf[32];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(KRV_XML_GetVersion(buf, 13), KRV_XML_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(buf[0], 'x') << "untouched when too small";
    EXPECT_EQ(KRV_XML_GetVersion(nullptr, 100), KRV_XML_ERR_INVALID_PARAM);
    ASSERT_EQ(KRV_XML_GetVersion(buf, 14), KRV_XML_OK);
    EXPECT_STREQ(buf, "KRV XML 2.1.9");
    EXPECT_EQ(KRV_XML_RegDebugFunc(nullptr), KRV_XML_ERR_NOT_FOUND);
    EXPECT_EQ(KRV_XML_RegMemFunc(nullptr, nullptr), KRV_XML_OK);
}
