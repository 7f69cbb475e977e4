// NodeStore, Session and Routing suites: sessions, allocation routing, create/set/remove/free, library services.
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
        const void *data = reinterpret_cast<const uint8_t *>(b) + ((sizeof(XmlMemSession) + 7) & ~size_t{7});
        if (p >= data && p < static_cast<const uint8_t *>(data) + b->capacity) {
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

// First fit by brute force: each block's free bytes and capacity, searched from the first.
struct FirstFitModel {
    std::vector<int32_t> free{kSessionInitialSize}, cap{kSessionInitialSize};

    int serve(int32_t n)  // the block that serves n bytes, added when none can
    {
        const int32_t rounded = (n + 7) & ~7;
        size_t b = 0;
        while (b < free.size() && free[b] < rounded) {
            ++b;
        }
        if (b == free.size()) {
            cap.push_back(cap.back());
            while (cap.back() < rounded) {
                cap.back() *= 2;
            }
            free.push_back(cap.back());
        }
        free[b] -= rounded;
        return static_cast<int>(b);
    }
};

}  // namespace

TEST(Session, RefusesBadArguments)
{
    EXPECT_TRUE(XML_MemSessionBegin(0) == nullptr && XML_MemSessionBegin(-8) == nullptr);
    EXPECT_TRUE(XML_MemSessionEnd(nullptr) == 0 && XML_MemSpecialMalloc(nullptr, 8) == nullptr);
    XmlMemSession *s = XML_MemSessionBegin(kSessionInitialSize);
    for (int32_t n : {0, -1, (1 << 30) + 1}) {
        EXPECT_EQ(XML_MemSpecialMalloc(s, n), nullptr) << n;
    }
    EXPECT_EQ(capacities(s), std::vector<int32_t>{kSessionInitialSize});
    EXPECT_EQ(XML_MemSessionEnd(s), 1);
}

// Requests (and decoder string copies) land 8-aligned where the model says, zeroed, never overlapping.
TEST(Session, FirstFitMatchesAReferenceModel)
{
    krvtest::LeakGuard guard;
    std::mt19937 rng(12345);
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        void *fence = krvtest::DirtyFreedHeap();  // zeroed from dirty memory too; round 1 makes blocks beyond a slab
        XmlMemSession *s = XML_MemSessionBegin(kSessionInitialSize);
        FirstFitModel model;
        std::vector<std::pair<uint8_t *, int32_t>> pieces;
        for (int i = 0; i < 30000; ++i) {
            uint32_t pick = rng() % 1000;
            int32_t n = pick == 0 && round == 1 ? static_cast<int32_t>(1 + rng() % 300000)
                        : pick < 100            ? static_cast<int32_t>(1 + rng() % 6000)
                                                : static_cast<int32_t>(1 + rng() % 200);
            int expected = model.serve(n);
            std::string run;  // the string copied, when one is
            uint8_t *p = nullptr;
            if (pick % 8 == 1 && n > 1) {
                run.assign(static_cast<size_t>(n - 1), static_cast<char>('a' + i % 26));
                char *copy = nullptr;
                ASSERT_EQ(Parser_CopyBufToString(s, run.data(), static_cast<uint32_t>(n - 1), &copy), KRV_XML_OK);
                p = reinterpret_cast<uint8_t *>(copy);
                n = (n + 7) & ~7;
            } else {
                p = static_cast<uint8_t *>(XML_MemSpecialMalloc(s, n));
                ASSERT_NE(p, nullptr);
            }
            for (int32_t k = 0; k < n; ++k) {
                ASSERT_EQ(p[k], static_cast<size_t>(k) < run.size() ? run[k] : 0) << "request " << i << ", byte " << k;
            }
            ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u);
            ASSERT_EQ(blockOf(s, p), expected) << "request " << i << " of " << n << " bytes";
            std::memset(p, 1 + i % 255, static_cast<size_t>(n));
            pieces.emplace_back(p, n);
        }
        EXPECT_EQ(capacities(s), model.cap);
        for (size_t i = 0; i < pieces.size(); ++i) {
            for (int32_t k = 0; k < pieces[i].second; ++k) {
                ASSERT_EQ(pieces[i].first[k], static_cast<uint8_t>(1 + i % 255)) << "pieces overlap";
            }
        }
        XML_MemSessionEnd(s);
        std::free(fence);
    }
}

// Any heap allocation of a growing chain fails once: null, the chain unchanged, and the retry fits first.
TEST(Session, FailedGrowthLeavesTheChainAsItWas)
{
    std::vector<int32_t> requests(70, 8192);
    requests.insert(requests.end(), {3000000, 8192});
    struct Run { XmlMemSession *session; size_t served; };
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
                const int32_t n = requests[r.served];
                const int expected = model.serve(n);
                auto *p = static_cast<uint8_t *>(XML_MemSpecialMalloc(r.session, n));
                ASSERT_NE(p, nullptr);
                EXPECT_TRUE(blockOf(r.session, p) == expected && (p[0] | p[n - 1]) == 0);
            }
            XML_MemSessionEnd(r.session);
        });
    EXPECT_EQ(points, 13);  // index, 9 slabs of 64 KB, one of 128 KB (576 KB / 8), larger index, big block's slab
}

// Strings and blocks go where the tree lives: a session tree's session (never freed one by one), else the heap.
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
    EXPECT_TRUE(xmlSessionOf(heapAttr) == doc->mem && blockOf(doc->mem, XML_Strdup(heapAttr, "carved")) == 0);
    attr->next = nullptr;  // unlinked by hand, to be freed from the heap
    heapAttr->parent = nullptr;
    XML_FreeSingleNode(heapAttr);
    XmlNode *heapRoot = Element("h");
    EXPECT_TRUE(xmlSessionOf(nullptr) == nullptr && xmlSessionOf(heapRoot) == nullptr);
    doc->next = heapRoot;  // a top record with a sibling is heap-backed
    EXPECT_EQ(xmlSessionOf(child), nullptr);
    doc->next = nullptr;
    KRV_XML_FreeNode(heapRoot);
    long live = krv_test::LiveBlocks();
    for (size_t len = 1; len <= 17; ++len) {  // a copy takes its text and NUL, rounded up to 8 bytes
        const int32_t freeBefore = doc->mem->freeBytes;
        char *s = XML_Strdup(doc, std::string(len, 's').c_str());
        EXPECT_TRUE(blockOf(doc->mem, s) == 0 && s == std::string(len, 's') &&
                    freeBefore - doc->mem->freeBytes == static_cast<int32_t>((len + 8) & ~size_t{7}))
            << len;
        XML_Free(doc, s);  // left to the session
    }
    EXPECT_EQ(blockOf(doc->mem, XML_Malloc(doc, 100)), 0);
    EXPECT_EQ(krv_test::LiveBlocks(), live);
    EXPECT_EQ(XML_Malloc(doc, uint64_t{1} << 40), nullptr) << "no heap fallback";
    KRV_XML_FreeNode(doc);

    // A session's attribute on a heap element answers by that element, also while its session needs no walks.
    XmlNode *parsed = krvtest::MustParse("<r/>", true);
    XmlNode *heapOwner = Element("h");
    XmlNode *carvedAttr = XML_NewNode(parsed->mem, KRV_XML_NODE_ATTRIBUTE);
    ASSERT_EQ(XML_AddAttrNode(carvedAttr, heapOwner), KRV_XML_OK);
    EXPECT_TRUE(xmlTopOf(carvedAttr) == heapOwner && xmlSessionOf(carvedAttr) == nullptr);
    heapOwner->firstAttr = nullptr;  // unlinked by hand: the record stays in its session
    KRV_XML_FreeNode(heapOwner);
    KRV_XML_FreeNode(parsed);
}

// Elements and documents only, non-empty strings copied; a session document ends the elements carved from it.
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
        EXPECT_TRUE(node->ownsSession == (kind == 12 ? 1 : 0) && node->mem == nullptr);
        EXPECT_EQ(std::string(node->nsPrefix) + node->name + node->value, "pnv");
        KRV_XML_FreeNode(node);
    }
    EXPECT_EQ(KRV_XML_CreateNode(0, nullptr, "n", nullptr, nullptr), KRV_XML_ERR_INVALID_PARAM);
    XmlNode *bare = nullptr;
    ASSERT_EQ(KRV_XML_CreateNode(0, "", nullptr, "", &bare), KRV_XML_OK);
    EXPECT_TRUE(bare->name == nullptr && bare->value == nullptr && bare->nsPrefix == nullptr);
    KRV_XML_FreeNode(bare);
    XmlNode *doc = nullptr;
    long live = krv_test::LiveBlocks();
    auto *ignored = reinterpret_cast<XmlMemSession *>(0x10);  // a document gets a session of its own
    ASSERT_EQ(KRV_XML_CreateNodeEx(ignored, 12, "p", "doc", "v", &doc), KRV_XML_OK);
    EXPECT_TRUE(doc->mem != nullptr && doc->mem != ignored && doc->ownsSession == 1);
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1) << "record and strings all in the one session block";
    XmlNode *inSession = Element("e", doc->mem, "x");
    EXPECT_EQ(inSession->ownsSession, 0);
    KRV_XML_FreeNode(inSession);  // frees nothing: it goes with the session
    EXPECT_EQ(krv_test::LiveBlocks(), live + 1);
    KRV_XML_FreeNode(doc);
    EXPECT_EQ(krv_test::LiveBlocks(), live);
}

// Null keeps a string, empty clears it, text replaces it; replacing an interned name leaves its slot's text.
TEST(NodeStore, SetNodeNullKeepsEmptyClearsTextReplaces)
{
    krvtest::LeakGuard guard;
    EXPECT_EQ(KRV_XML_SetNode(nullptr, "a", "b", "c"), KRV_XML_ERR_INVALID_PARAM);
    for (bool session : {false, true}) {
        XmlNode *node = nullptr;
        ASSERT_EQ(KRV_XML_CreateNodeEx(nullptr, session ? 12 : 0, "p", "n", "v", &node), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_SetNode(node, nullptr, "", nullptr), KRV_XML_OK);
        EXPECT_EQ(krvtest::Str(node->nsPrefix) + krvtest::Str(node->name) + krvtest::Str(node->value), "p~v");
        EXPECT_EQ(node->nameOwned, 1) << "clearing keeps the flag";
        ASSERT_EQ(KRV_XML_SetNode(node, "q", "m", ""), KRV_XML_OK);
        EXPECT_EQ(krvtest::Str(node->nsPrefix) + krvtest::Str(node->name) + krvtest::Str(node->value), "qm~");
        KRV_XML_FreeNode(node);
    }
    XmlNode *doc = krvtest::Document(false, "d");
    XmlNode *child = LinkChild(doc, Element("item"));
    XML_InternName(doc, child);
    ASSERT_TRUE(child->name == doc->nameTable[0] && child->nameOwned == 0);
    ASSERT_EQ(KRV_XML_SetNode(child, nullptr, "other", nullptr), KRV_XML_OK);
    EXPECT_EQ(std::string(child->name) + "," + doc->nameTable[0], "other,item");
    KRV_XML_FreeNode(doc);
}

// Remove unlinks children only; free unlinks a child or an attribute and releases its subtree alone.
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
    EXPECT_TRUE(a->next == c && c->prev == a && b->parent == nullptr && b->next == nullptr && b->prev == nullptr);
    ASSERT_TRUE(KRV_XML_RemoveNode(a) == KRV_XML_OK && root->firstChild == c);
    ASSERT_TRUE(KRV_XML_RemoveNode(c) == KRV_XML_OK && root->firstChild == nullptr && root->lastChild == nullptr);
    XmlNode *attr = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    ASSERT_EQ(XML_AddAttrNode(attr, root), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_RemoveNode(attr), KRV_XML_ERR_INVALID_PARAM);
    for (XmlNode *n : {a, b, c}) {
        LinkChild(root, n);
    }
    LinkChild(b, Element("deep"));
    ASSERT_EQ(KRV_XML_AddAttr(b, "p", "x", "1"), KRV_XML_OK);
    KRV_XML_FreeNode(b);  // a middle child with a child and an attribute
    EXPECT_TRUE(a->next == c && c->prev == a);
    ASSERT_EQ(KRV_XML_AddAttr(root, nullptr, "y", nullptr), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(root, nullptr, "z", nullptr), KRV_XML_OK);
    KRV_XML_FreeNode(attr);  // an attribute leaves its owner's list
    EXPECT_STREQ(root->firstAttr->name, "y");
    XML_FreeNode(root->firstChild);  // the first child releases the whole chain after it
    root->firstChild = root->lastChild = nullptr;
    KRV_XML_FreeNode(root);

    // A session document ends its session and visits no node: a heap child linked in by hand survives.
    XmlNode *doc = krvtest::Document(true);
    XmlNode *heapChild = LinkChild(doc, Element("h", nullptr, "v"));
    long live = krv_test::LiveBlocks();
    KRV_XML_FreeNode(doc);
    EXPECT_EQ(krv_test::LiveBlocks(), live - 1) << "only the session block went";
    heapChild->parent = nullptr;
    KRV_XML_FreeNode(heapChild);
}

// A heap document frees the top-level records its parse linked after it, while it heads them, and no others.
TEST(NodeStore, HeapDocumentReleasesOnlyItsParsedFollowers)
{
    enum Setup { Parsed, Created, FollowersTaken, LinkedBefore, LinkedAfterLast };
    // The names of the top-level records that outlive the document.
    const std::pair<Setup, const char *> cases[] = {
        {Parsed, ""}, {Created, "e"}, {FollowersTaken, "s,u,e"}, {LinkedBefore, "c,s,u"}, {LinkedAfterLast, ""}};
    for (const auto &[setup, leftBehind] : cases) {
        SCOPED_TRACE(leftBehind);
        krvtest::LeakGuard guard;
        XmlNode *doc = nullptr;
        ASSERT_EQ(setup == Created ? KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, "r", nullptr, &doc)
                                   : KRV_XML_Parse("<r/><s/><u/>", &doc),
                  KRV_XML_OK);
        std::vector<XmlNode *> kept;
        if (setup == FollowersTaken) {
            kept = {doc->next, doc->next->next};
            ASSERT_EQ(KRV_XML_RemoveNode(kept[0]), KRV_XML_OK);
            ASSERT_EQ(KRV_XML_RemoveNode(kept[1]), KRV_XML_OK);
        }
        XmlNode *e = Element(setup == LinkedBefore ? "c" : "e");
        ASSERT_EQ(setup == LinkedBefore      ? KRV_XML_AddPrevSiblingNode(doc, e)
                  : setup == LinkedAfterLast ? KRV_XML_AddNextSiblingNode(doc->next->next, e)
                                             : KRV_XML_AddNextSiblingNode(doc, e),
                  KRV_XML_OK);
        if (setup == Created || setup == FollowersTaken) {
            kept.push_back(e);
        } else if (setup == LinkedBefore) {
            kept = {e};  // it heads s and u once the document is gone
        }
        KRV_XML_FreeNode(doc);
        std::string names;
        std::vector<XmlNode *> left;
        for (XmlNode *k : kept) {
            for (XmlNode *n = k; n != nullptr; n = n->next) {
                EXPECT_TRUE(n->parent == nullptr && (n == k ? n->prev == nullptr : n->prev->next == n));
                names += (names.empty() ? "" : ",") + std::string(n->name);
                left.push_back(n);
            }
        }
        EXPECT_EQ(names, leftBehind);
        for (XmlNode *n : left) {
            KRV_XML_FreeNode(n);
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
