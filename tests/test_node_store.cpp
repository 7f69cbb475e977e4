// NodeStore, Session and Routing suites: records, sessions, allocation routing,
// create/set/remove/free and the library services.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "test_support.h"
#include "xml/xml_parser_internal.h"

using krvtest::Element;
using krvtest::LinkChild;

namespace {

// Which block of the session holds p (0-based), or -1.
int blockOf(XmlMemSession *session, const void *p)
{
    int i = 0;
    for (XmlMemSession *b = session; b != nullptr; b = b->nextBlock, ++i) {
        auto *data = reinterpret_cast<const uint8_t *>(b) + ((sizeof(XmlMemSession) + 7) & ~size_t{7});
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
    for (int32_t n : {0, -1, (1 << 30) + 1}) {
        EXPECT_EQ(XML_MemSpecialMalloc(s, n), nullptr) << n;
    }
    EXPECT_EQ(capacities(s), std::vector<int32_t>{kSessionInitialSize});
    EXPECT_EQ(XML_MemSessionEnd(s), 1);
}

TEST(Session, FirstFitMatchesAReferenceModel)
{
    // Every request must be served, 8-aligned, by exactly the block the model
    // picks, across many blocks with scattered leftovers; in the second round
    // a few requests also make blocks larger than a slab. Every piece must
    // come zero-filled, also from dirty memory, and no two pieces may
    // overlap: each is filled with its own byte and all are checked at the
    // end. Some requests are strings copied by the decoder: each lands where
    // first fit puts it, with its NUL and padding zero.
    krvtest::LeakGuard guard;
    std::mt19937 rng(12345);
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        void *fence = krvtest::DirtyFreedHeap();
        XmlMemSession *s = XML_MemSessionBegin(kSessionInitialSize);
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
                        : pick < 100            ? static_cast<int32_t>(1 + rng() % 6000)
                                                : static_cast<int32_t>(1 + rng() % 200);
            int expected = model.serve(n);
            uint8_t *p = nullptr;
            if (pick % 8 == 1 && n > 1) {
                const std::string run(static_cast<size_t>(n - 1), static_cast<char>('a' + i % 26));
                char *copy = nullptr;
                ASSERT_EQ(Parser_CopyBufToString(s, run.data(), static_cast<uint32_t>(n - 1), &copy), KRV_XML_OK);
                p = reinterpret_cast<uint8_t *>(copy);
                ASSERT_EQ(copy, run) << "request " << i;
                n = (n + 7) & ~7;
                for (int32_t k = static_cast<int32_t>(run.size()); k < n; ++k) {
                    ASSERT_EQ(p[k], 0) << "padding of request " << i << ", byte " << k;
                }
            } else {
                p = static_cast<uint8_t *>(XML_MemSpecialMalloc(s, n));
                ASSERT_NE(p, nullptr);
                for (int32_t k = 0; k < n; ++k) {
                    ASSERT_EQ(p[k], 0) << "request " << i << ", byte " << k;
                }
            }
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
            ASSERT_EQ(blockOf(s, p), expected) << "request " << i << " of " << n << " bytes";
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
        std::free(fence);
    }
}

TEST(Session, FailedGrowthLeavesTheChainAsItWas)
{
    // 70 full blocks need the block index, ten slabs and a larger index (not
    // a heap block each: slabs grow geometrically); then a block larger than
    // the next slab gets one of its own. Each of these heap allocations fails
    // once: the request gets null, the chain stays what the served requests
    // made, and the same request served again lands where first fit says.
    std::vector<int32_t> requests(70, 8192);
    requests.push_back(3000000);
    requests.push_back(8192);
    struct Run {
        XmlMemSession *session;
        size_t served;
    };
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

// Strings and blocks go where the tree lives: into the session of a session
// tree (never freed one by one), onto the heap otherwise.
TEST(Routing, AllocationsFollowTheTree)
{
    krvtest::LeakGuard guard;
    long before = krv_test::AllocationCount();
    EXPECT_EQ(XML_Strdup(nullptr, ""), nullptr);
    XML_Free(nullptr, nullptr);
    EXPECT_EQ(krv_test::AllocationCount(), before) << "an empty string is never copied";
    char *heap = XML_Strdup(nullptr, "abc");
    ASSERT_STREQ(heap, "abc");
    XML_Free(nullptr, heap);

    XmlNode *doc = krvtest::Document(true);
    XmlNode *child = Element("c", doc->mem);
    EXPECT_EQ(xmlSessionOf(child), doc->mem) << "an element root carved from a session";
    LinkChild(doc, child);
    XmlNode *attr = XML_NewNode(doc->mem, KRV_XML_NODE_ATTRIBUTE);
    EXPECT_EQ(xmlSessionOf(attr), nullptr) << "an attribute without owner";
    ASSERT_EQ(XML_AddAttrNode(attr, child), KRV_XML_OK);
    EXPECT_EQ(xmlSessionOf(attr), doc->mem);
    // An attribute answers by its owner's tree, whatever memory it came from.
    XmlNode *heapAttr = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    ASSERT_EQ(XML_SetNode(nullptr, heapAttr, nullptr, "h", nullptr), KRV_XML_OK);
    ASSERT_EQ(XML_AddAttrNode(heapAttr, child), KRV_XML_OK);
    EXPECT_EQ(xmlSessionOf(heapAttr), doc->mem);
    EXPECT_EQ(blockOf(doc->mem, XML_Strdup(heapAttr, "carved")), 0);
    attr->next = nullptr;  // unlinked by hand, to be freed from the heap
    heapAttr->parent = nullptr;
    XML_FreeSingleNode(heapAttr);
    EXPECT_EQ(xmlSessionOf(nullptr), nullptr);
    XmlNode *heapRoot = Element("h");
    EXPECT_EQ(xmlSessionOf(heapRoot), nullptr);
    doc->next = heapRoot;  // a top record with a sibling is heap-backed
    EXPECT_EQ(xmlSessionOf(child), nullptr);
    doc->next = nullptr;
    KRV_XML_FreeNode(heapRoot);

    long live = krv_test::LiveBlocks();
    char *s = XML_Strdup(doc, "in the session");
    void *m = XML_Malloc(doc, 100);
    EXPECT_EQ(blockOf(doc->mem, s), 0);
    EXPECT_EQ(blockOf(doc->mem, m), 0);
    XML_Free(doc, s);  // left to the session
    EXPECT_EQ(krv_test::LiveBlocks(), live);
    EXPECT_EQ(XML_Malloc(doc, uint64_t{1} << 40), nullptr) << "no heap fallback";
    KRV_XML_FreeNode(doc);

    // The other way round: a session's attribute on a heap element answers by
    // that element, also while its session needs no walks for its own records.
    XmlNode *parsed = nullptr;
    ASSERT_EQ(KRV_XML_ParseEx("<r/>", &parsed), KRV_XML_OK);
    XmlNode *heapOwner = Element("h");
    XmlNode *carvedAttr = XML_NewNode(parsed->mem, KRV_XML_NODE_ATTRIBUTE);
    ASSERT_EQ(XML_AddAttrNode(carvedAttr, heapOwner), KRV_XML_OK);
    EXPECT_EQ(xmlTopOf(carvedAttr), heapOwner);
    EXPECT_EQ(xmlSessionOf(carvedAttr), nullptr);
    heapOwner->firstAttr = nullptr;  // unlinked by hand: the record stays in its session
    KRV_XML_FreeNode(heapOwner);
    KRV_XML_FreeNode(parsed);
}

// ===== NodeStore ============================================================

TEST(NodeStore, CreateNodeKindsRegimesAndStrings)
{
    krvtest::LeakGuard guard;
    for (int32_t kind : {0, 1, 2, 12, -1}) {
        bool ok = kind == KRV_XML_NODE_ELEMENT || kind == KRV_XML_NODE_DOCUMENT;
        XmlNode *node = krvtest::Sentinel();
        EXPECT_EQ(KRV_XML_CreateNode(kind, "p", "n", "v", &node), ok ? KRV_XML_OK : KRV_XML_ERR_INVALID_PARAM);
        if (!ok) {
            EXPECT_EQ(node, krvtest::Sentinel());
            continue;
        }
        EXPECT_EQ(node->ownsSession, kind == 12 ? 1 : 0);
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

    // A document made with CreateNodeEx gets a session of its own, whatever
    // session is passed; an element carved from it is freed with it.
    XmlNode *doc = nullptr;
    long live = krv_test::LiveBlocks();
    auto *ignored = reinterpret_cast<XmlMemSession *>(0x10);
    ASSERT_EQ(KRV_XML_CreateNodeEx(ignored, 12, "p", "doc", "v", &doc), KRV_XML_OK);
    EXPECT_TRUE(doc->mem != nullptr && doc->mem != ignored && doc->ownsSession == 1);
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1) << "record and strings all in the one session block";
    EXPECT_EQ(blockOf(doc->mem, doc->name), 0);
    XmlNode *inSession = Element("e", doc->mem, "x");
    EXPECT_EQ(inSession->ownsSession, 0);
    KRV_XML_FreeNode(inSession);  // frees nothing: it goes with the session
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1);
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
        EXPECT_EQ(krvtest::Str(node->nsPrefix) + krvtest::Str(node->name) + krvtest::Str(node->value), "p~v");
        EXPECT_EQ(node->nameOwned, 1) << "clearing keeps the flag";
        ASSERT_EQ(KRV_XML_SetNode(node, "q", "m", ""), KRV_XML_OK);
        EXPECT_EQ(krvtest::Str(node->nsPrefix) + krvtest::Str(node->name) + krvtest::Str(node->value), "qm~");
        EXPECT_EQ(KRV_XML_SetNode(nullptr, "a", "b", "c"), KRV_XML_ERR_INVALID_PARAM);
        KRV_XML_FreeNode(node);
    }
    // Replacing an interned name releases nothing: the slot keeps its text.
    XmlNode *doc = krvtest::Document(false, "d");
    XmlNode *child = LinkChild(doc, Element("item"));
    XML_InternName(doc, child);
    ASSERT_TRUE(child->name == doc->nameTable[0] && child->nameOwned == 0);
    ASSERT_EQ(KRV_XML_SetNode(child, nullptr, "other", nullptr), KRV_XML_OK);
    EXPECT_STREQ(child->name, "other");
    EXPECT_STREQ(doc->nameTable[0], "item");
    KRV_XML_FreeNode(doc);
}

TEST(NodeStore, RemoveUnlinksAndFreeReleasesOnlyTheSubtree)
{
    krvtest::LeakGuard guard;
    XmlNode *root = Element("r");
    XmlNode *a = Element("a"), *b = Element("b"), *c = Element("c");
    EXPECT_EQ(KRV_XML_RemoveNode(root), KRV_XML_ERR_INVALID_PARAM) << "not linked anywhere";
    EXPECT_EQ(KRV_XML_RemoveNode(nullptr), KRV_XML_ERR_INVALID_PARAM);
    for (XmlNode *n : {a, b, c}) {
        LinkChild(root, n);
    }
    ASSERT_EQ(KRV_XML_RemoveNode(b), KRV_XML_OK);
    EXPECT_TRUE(a->next == c && c->prev == a);
    EXPECT_TRUE(b->parent == nullptr && b->next == nullptr && b->prev == nullptr);
    ASSERT_EQ(KRV_XML_RemoveNode(a), KRV_XML_OK);
    EXPECT_EQ(root->firstChild, c);
    ASSERT_EQ(KRV_XML_RemoveNode(c), KRV_XML_OK);
    EXPECT_TRUE(root->firstChild == nullptr && root->lastChild == nullptr);
    XmlNode *attr = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    ASSERT_EQ(XML_AddAttrNode(attr, root), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_RemoveNode(attr), KRV_XML_ERR_INVALID_PARAM);

    // Freeing a middle child (with a child and an attribute) unlinks it.
    for (XmlNode *n : {a, b, c}) {
        LinkChild(root, n);
    }
    LinkChild(b, Element("deep"));
    ASSERT_EQ(KRV_XML_AddAttr(b, "p", "x", "1"), KRV_XML_OK);
    KRV_XML_FreeNode(b);
    EXPECT_TRUE(a->next == c && c->prev == a);
    ASSERT_EQ(KRV_XML_AddAttr(root, nullptr, "y", nullptr), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(root, nullptr, "z", nullptr), KRV_XML_OK);
    KRV_XML_FreeNode(attr);  // an attribute leaves its owner's list
    EXPECT_STREQ(root->firstAttr->name, "y");
    XML_FreeNode(root->firstChild);  // the first child releases the whole chain after it
    root->firstChild = root->lastChild = nullptr;
    KRV_XML_FreeNode(root);

    // A session document ends its session and visits no node: a heap child
    // linked in by hand survives.
    XmlNode *doc = krvtest::Document(true);
    XmlNode *heapChild = LinkChild(doc, Element("h", nullptr, "v"));
    long live = krv_test::LiveBlocks();
    KRV_XML_FreeNode(doc);
    EXPECT_EQ(krv_test::LiveBlocks(), live - 1) << "only the session block went";
    heapChild->parent = nullptr;
    KRV_XML_FreeNode(heapChild);
}

// A heap document takes along the top-level records that its parse linked
// after it, and only while it heads them; siblings linked to a created
// document, or after the parsed ones were taken away, stay with the caller.
TEST(NodeStore, HeapDocumentReleasesOnlyItsParsedFollowers)
{
    enum Setup { Parsed, Created, FollowersTaken, LinkedBefore, LinkedAfterLast };
    struct Case {
        Setup setup;
        const char *leftBehind;  // names of the top-level records that outlive the document
    } cases[] = {
        {Parsed, ""},
        {Created, "e"},
        {FollowersTaken, "s,u,e"},
        {LinkedBefore, "c,s,u"},
        {LinkedAfterLast, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.leftBehind);
        krvtest::LeakGuard guard;
        XmlNode *doc = nullptr;
        if (c.setup == Created) {
            ASSERT_EQ(KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, "r", nullptr, &doc), KRV_XML_OK);
        } else {
            ASSERT_EQ(KRV_XML_Parse("<r/><s/><u/>", &doc), KRV_XML_OK);
        }
        std::vector<XmlNode *> kept;
        if (c.setup == FollowersTaken) {
            kept = {doc->next, doc->next->next};
            ASSERT_EQ(KRV_XML_RemoveNode(kept[0]), KRV_XML_OK);
            ASSERT_EQ(KRV_XML_RemoveNode(kept[1]), KRV_XML_OK);
        }
        XmlNode *e = Element(c.setup == LinkedBefore ? "c" : "e");
        uint32_t rc = c.setup == LinkedBefore      ? KRV_XML_AddPrevSiblingNode(doc, e)
                      : c.setup == LinkedAfterLast ? KRV_XML_AddNextSiblingNode(doc->next->next, e)
                                                   : KRV_XML_AddNextSiblingNode(doc, e);
        ASSERT_EQ(rc, KRV_XML_OK);
        if (c.setup == Created || c.setup == FollowersTaken) {
            kept.push_back(e);
        } else if (c.setup == LinkedBefore) {
            kept = {e};  // it heads s and u once the document is gone
        }
        KRV_XML_FreeNode(doc);
        std::string names;
        for (XmlNode *k : kept) {
            for (XmlNode *n = k; n != nullptr; n = n->next) {
                EXPECT_TRUE(n->parent == nullptr && (n == k ? n->prev == nullptr : n->prev->next == n));
                names += (names.empty() ? "" : ",") + std::string(n->name);
            }
        }
        EXPECT_EQ(names, c.leftBehind);
        for (XmlNode *k : kept) {
            while (k != nullptr) {
                XmlNode *next = k->next;
                KRV_XML_FreeNode(k);
                k = next;
            }
        }
    }
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
