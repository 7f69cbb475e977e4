// Tree, Attributes and Clone suites: navigation, insertion and name interning,
// attribute reading and editing, copying in both memory regimes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"
#include "xml/xml_internal.h"

namespace {

std::string str(const char *s)
{
    return s != nullptr ? std::string(s) : std::string("-");
}

XmlNode *element(const char *name, XmlMemSession *session = nullptr, const char *value = nullptr)
{
    XmlNode *node = nullptr;
    EXPECT_EQ(KRV_XML_CreateNodeEx(session, KRV_XML_NODE_ELEMENT, nullptr, name, value, &node),
              KRV_XML_OK);
    return node;
}

XmlNode *document(bool session, const char *name = "doc")
{
    XmlNode *doc = nullptr;
    uint32_t rc = session
                      ? KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, name, nullptr, &doc)
                      : KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, name, nullptr, &doc);
    EXPECT_EQ(rc, KRV_XML_OK);
    return doc;
}

// The children's names, after checking every link invariant of the list in
// both directions.
std::string childNames(const XmlNode *parent)
{
    std::string out;
    const XmlNode *prev = nullptr;
    for (const XmlNode *c = parent->firstChild; c != nullptr; prev = c, c = c->next) {
        EXPECT_EQ(c->parent, parent);
        EXPECT_EQ(c->prev, prev);
        out += (out.empty() ? "" : ",") + std::string(c->name != nullptr ? c->name : "?");
    }
    EXPECT_EQ(parent->lastChild, prev);
    std::string back;
    for (const XmlNode *c = parent->lastChild; c != nullptr; c = c->prev) {
        back = std::string(c->name != nullptr ? c->name : "?") + (back.empty() ? "" : ",") + back;
    }
    EXPECT_EQ(back, out) << "walking back gives another list";
    return out;
}

std::string attrList(const XmlNode *el)
{
    std::string out;
    for (const XmlNode *a = el->firstAttr; a != nullptr; a = a->next) {
        EXPECT_EQ(a->parent, el);
        out += out.empty() ? "" : " ";
        out += a->nsPrefix != nullptr ? std::string(a->nsPrefix) + ":" : "";
        out += std::string(a->name) + "=" + str(a->value);
    }
    return out;
}

// Every field of every record reachable from root (siblings after it too):
// any change to a tree shows up as a difference.
std::vector<const void *> snapshot(XmlNode *root)
{
    std::vector<const void *> s;
    for (XmlNode *n = root; n != nullptr; n = KRV_XML_Iterator(n)) {
        s.insert(s.end(), {n, n->mem, n->name, n->value, n->nsPrefix, n->parent, n->next, n->prev,
                           n->firstChild, n->lastChild, n->firstAttr});
        s.push_back(reinterpret_cast<const void *>(uintptr_t{n->nameOwned} << 1 | n->valueOwned));
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            s.insert(s.end(), {a, a->name, a->value, a->nsPrefix, a->parent, a->next});
        }
    }
    return s;
}

// Content of a sub-tree (names, values, prefixes, attributes, shape), without
// pointers: a copy must give the same text.
std::string content(XmlNode *top)
{
    std::string out;
    for (XmlNode *n = top; n != nullptr; n = KRV_XML_Iterator(n)) {
        int depth = 0;
        XmlNode *p = n;
        for (; p != nullptr && p != top; p = p->parent) {
            ++depth;
        }
        if (p == nullptr) {
            break;  // the walk left top's sub-tree
        }
        out += std::to_string(depth) + str(n->nsPrefix) + ":" + str(n->name) + "=" + str(n->value) +
               "[" + attrList(n) + "];";
    }
    return out;
}

// Builds a chain `depth` deep under a new element root from the bottom up, so
// that every insertion lands on a root and costs constant time.
XmlNode *chain(size_t depth, XmlMemSession *session)
{
    XmlNode *top = element("leaf", session);
    for (size_t i = 1; i < depth; ++i) {
        XmlNode *up = element(nullptr, session);
        if (KRV_XML_AppendChildNode(up, top) != KRV_XML_OK) {
            ADD_FAILURE() << "chain link " << i;
            return top;
        }
        top = up;
    }
    return top;
}

}  // namespace

// ===== Tree =================================================================

TEST(Tree, GettersAnswerNullForMissingFieldsAndAttributes)
{
    krvtest::LeakGuard guard;
    XmlNode *p = element("p");
    XmlNode *a = element("a");
    XmlNode *b = element("b", nullptr, "text");
    ASSERT_EQ(KRV_XML_AppendChildNode(p, a), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AppendChildNode(p, b), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(p, "n", "x", "1"), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(p, nullptr, "y", "2"), KRV_XML_OK);
    XmlNode *x = p->firstAttr;
    EXPECT_EQ(KRV_XML_GetNodeParent(x), p) << "an attribute's parent is its owner";
    EXPECT_EQ(KRV_XML_GetNodeNextSibling(x), x->next) << "the next attribute";
    for (auto getter : {KRV_XML_GetNodeFirstChild, KRV_XML_GetNodeLastChild, KRV_XML_GetNodePrevSibling,
                        KRV_XML_GetNodeParent, KRV_XML_GetNodeNextSibling, KRV_XML_Iterator}) {
        EXPECT_EQ(getter(nullptr), nullptr);
    }
    for (auto getter : {KRV_XML_GetNodeFirstChild, KRV_XML_GetNodeLastChild, KRV_XML_GetNodePrevSibling,
                        KRV_XML_Iterator}) {
        EXPECT_EQ(getter(x), nullptr) << "attribute records lack these fields";
    }

    uint32_t count = 77;
    for (uint32_t rc : {KRV_XML_GetNodeChildNum(nullptr, &count), KRV_XML_GetNodeChildNum(p, nullptr),
                        KRV_XML_GetNodeChildNum(x, &count)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(KRV_XML_GetNodeChildNum(p, &count), KRV_XML_OK);
    EXPECT_EQ(count, 2u) << "attributes are not children";

    int32_t kind = -1;
    const char *prefix = "?", *name = "?", *value = "?";
    EXPECT_EQ(KRV_XML_GetNodeValue(nullptr, &kind, &prefix, &name, &value), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_GetNodeValue(b, nullptr, nullptr, nullptr, nullptr), KRV_XML_OK);
    EXPECT_EQ(kind, -1);
    ASSERT_EQ(KRV_XML_GetNodeValue(x, &kind, &prefix, &name, &value), KRV_XML_OK);
    EXPECT_EQ(std::to_string(kind) + str(prefix) + str(name) + str(value),
              std::to_string(KRV_XML_NODE_ATTRIBUTE) + "nx1");
    ASSERT_EQ(KRV_XML_GetNodeValue(a, &kind, &prefix, &name, &value), KRV_XML_OK);
    EXPECT_EQ(prefix, nullptr);
    EXPECT_EQ(value, nullptr);
    KRV_XML_FreeNode(p);
}

TEST(Tree, EveryInsertionKeepsTheListWalkableBothWays)
{
    using Insert = uint32_t (*)(XmlNode *, XmlNode *);
    struct Step {
        Insert fn;
        int ref;  // -1: the parent; else index among current children
        const char *name;
        const char *expect;
    };
    const Step steps[] = {
        {KRV_XML_AppendChildNode, -1, "b", "b"},
        {KRV_XML_AddFirstChildNode, -1, "a", "a,b"},
        {KRV_XML_AppendChildNode, -1, "d", "a,b,d"},
        {KRV_XML_AddNextSiblingNode, 1, "c", "a,b,c,d"},   // middle
        {KRV_XML_AddNextSiblingNode, 3, "e", "a,b,c,d,e"}, // after the last
        {KRV_XML_AddPrevSiblingNode, 0, "_", "_,a,b,c,d,e"},  // before the first
        {KRV_XML_AddPrevSiblingNode, 2, "m", "_,a,m,b,c,d,e"},
    };
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session document" : "heap element");
        krvtest::LeakGuard guard;
        XmlNode *doc = session ? document(true) : element("top");
        XmlNode *parent = element("p", doc->mem);
        ASSERT_EQ(KRV_XML_AppendChildNode(doc, parent), KRV_XML_OK);
        for (const Step &s : steps) {
            XmlNode *ref = s.ref < 0 ? parent : parent->firstChild;
            for (int i = 0; i < s.ref; ++i) {
                ref = ref->next;
            }
            XmlNode *node = element(s.name, doc->mem);
            ASSERT_EQ(s.fn(ref, node), KRV_XML_OK) << s.name;
            EXPECT_EQ(childNames(parent), s.expect);
        }
        uint32_t count = 0;
        EXPECT_EQ(KRV_XML_GetNodeChildNum(parent, &count), KRV_XML_OK);
        EXPECT_EQ(count, 7u);
        KRV_XML_FreeNode(doc);
    }
}

TEST(Tree, RefusedInsertionsLeaveBothTreesUnchanged)
{
    krvtest::LeakGuard guard;
    XmlNode *heap = element("heap");
    XmlNode *hChild = element("hc");
    XmlNode *hGrand = element("hg");
    ASSERT_EQ(KRV_XML_AppendChildNode(heap, hChild), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AppendChildNode(hChild, hGrand), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(heap, nullptr, "at", "v"), KRV_XML_OK);
    XmlNode *doc = document(true);
    XmlNode *dChild = element("dc", doc->mem);
    ASSERT_EQ(KRV_XML_AppendChildNode(doc, dChild), KRV_XML_OK);
    XmlNode *otherDoc = document(true, "other");
    XmlNode *loneHeap = element("lone");
    XmlNode *loneSession = element("ls", doc->mem);
    XmlNode *foreign = element("foreign", otherDoc->mem);
    XmlNode *heapDoc = document(false, "hd");

    using Insert = uint32_t (*)(XmlNode *, XmlNode *);
    const Insert children[] = {KRV_XML_AddFirstChildNode, KRV_XML_AppendChildNode};
    const Insert siblings[] = {KRV_XML_AddNextSiblingNode, KRV_XML_AddPrevSiblingNode};
    struct Case {
        const char *why;
        bool child;  // child functions, else sibling functions
        XmlNode *ref;
        XmlNode *node;
    };
    const Case cases[] = {
        {"null reference", true, nullptr, loneHeap}, {"null node", true, heap, nullptr},
        {"null reference", false, nullptr, loneHeap}, {"null node", false, hChild, nullptr},
        {"node still linked", true, heap, hGrand}, {"node still linked", false, hChild, hGrand},
        {"node is an attribute", true, heap, heap->firstAttr},
        {"node is an attribute", false, hChild, heap->firstAttr},
        {"parent is an attribute", true, heap->firstAttr, loneHeap},
        {"sibling is an attribute", false, heap->firstAttr, loneHeap},
        {"node is a session document", true, heap, otherDoc},
        {"node is a session document", false, dChild, otherDoc},
        {"node is a heap document", false, hChild, heapDoc}, {"into itself", true, loneHeap, loneHeap},
        {"sibling is node", false, loneHeap, loneHeap}, {"under its own descendant", true, hGrand, heap},
        {"beside its own descendant", false, hGrand, heap},
        {"heap node into a session tree", true, dChild, loneHeap},
        {"heap node into a session tree", false, dChild, loneHeap},
        {"session node into a heap tree", true, hChild, loneSession},
        {"session node into a heap tree", false, hChild, loneSession},
        {"node of another session", true, doc, foreign},
        {"a session root gets no sibling", false, doc, loneSession},
        {"a session element root gets no sibling", false, loneSession, element("s2", doc->mem)},
    };
    std::vector<XmlNode *> roots = {heap, doc, otherDoc, loneHeap, loneSession, foreign, heapDoc};
    for (const Case &c : cases) {
        std::vector<std::vector<const void *>> before;
        for (XmlNode *r : roots) {
            before.push_back(snapshot(r));
        }
        for (Insert fn : c.child ? children : siblings) {
            EXPECT_EQ(fn(c.ref, c.node), KRV_XML_ERR_INVALID_PARAM) << c.why;
        }
        for (size_t i = 0; i < roots.size(); ++i) {
            EXPECT_EQ(snapshot(roots[i]), before[i]) << c.why << ": tree " << i << " changed";
        }
    }
    // The positive counterparts of the regime and document rules.
    EXPECT_EQ(KRV_XML_AppendChildNode(dChild, loneSession), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_AppendChildNode(hGrand, heapDoc), KRV_XML_OK) << "a heap document may be a child";
    EXPECT_EQ(KRV_XML_AddNextSiblingNode(heap, loneHeap), KRV_XML_OK) << "heap roots may get siblings";
    EXPECT_EQ(heap->next, loneHeap);
    EXPECT_EQ(loneHeap->prev, heap);
    EXPECT_EQ(loneHeap->parent, nullptr);
    KRV_XML_FreeNode(loneHeap);
    KRV_XML_FreeNode(heap);
    KRV_XML_FreeNode(doc);
    KRV_XML_FreeNode(otherDoc);
}

TEST(Tree, HeapRootWithSiblingsTakesLinksButNoNamesOrCopies)
{
    krvtest::LeakGuard guard;
    XmlNode *doc = document(false);
    XmlNode *beside = element("beside");
    ASSERT_EQ(KRV_XML_AddPrevSiblingNode(doc, beside), KRV_XML_OK);
    EXPECT_EQ(beside->nameOwned, 1) << "no root without siblings: nothing interned";
    XmlNode *child = element("child");
    ASSERT_EQ(KRV_XML_AppendChildNode(doc, child), KRV_XML_OK);
    EXPECT_EQ(child->nameOwned, 1);
    EXPECT_EQ(doc->nameTable[0][0], '\0');
    XML_AddAttrNode(XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE), child);
    ASSERT_EQ(KRV_XML_SetNode(child->firstAttr, nullptr, "k", nullptr), KRV_XML_OK);

    EXPECT_EQ(KRV_XML_AddAttr(child, nullptr, "new", "v"), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_SetAttr(child, nullptr, "k", "stands"), KRV_XML_OK);
    EXPECT_STREQ(child->firstAttr->value, "stands");
    EXPECT_EQ(child->firstAttr->nameOwned, 1);
    // Copies are refused there too, and every refusal allocates nothing.
    XmlNode *ownerless = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    long live = krv_test::LiveBlocks();
    for (auto clone : {KRV_XML_CloneNode, KRV_XML_CloneNodeSelf}) {
        XmlNode *out = reinterpret_cast<XmlNode *>(0x1);
        for (XmlNode *source : {child, doc, static_cast<XmlNode *>(nullptr), child->firstAttr, ownerless}) {
            EXPECT_EQ(clone(source, &out), KRV_XML_ERR_INVALID_PARAM);
        }
        EXPECT_EQ(clone(beside, nullptr), KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(out, reinterpret_cast<XmlNode *>(0x1));
    }
    EXPECT_EQ(krv_test::LiveBlocks(), live);
    XML_FreeSingleAttrNode(ownerless);
    KRV_XML_FreeNode(beside);
    KRV_XML_FreeNode(doc);
}

TEST(Tree, NamesMoveIntoTheDocumentTable)
{
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session document" : "heap document");
        krvtest::LeakGuard guard;  // a former heap name that is not freed leaks
        XmlNode *doc = document(session);
        auto add = [&](const char *name) {
            XmlNode *n = element(name, doc->mem);
            EXPECT_EQ(KRV_XML_AppendChildNode(doc, n), KRV_XML_OK);
            return n;
        };
        XmlNode *first = add("item");
        EXPECT_EQ(first->name, doc->nameTable[0]);
        EXPECT_EQ(first->nameOwned, 0);
        XmlNode *again = add("item");
        EXPECT_EQ(again->name, doc->nameTable[0]) << "an equal name shares the slot";
        XmlNode *eleven = add("elevenbytes");
        EXPECT_EQ(eleven->name, doc->nameTable[1]);
        XmlNode *twelve = add("twelve_bytes");
        EXPECT_EQ(twelve->nameOwned, 1);
        EXPECT_STREQ(twelve->name, "twelve_bytes");
        EXPECT_EQ(doc->nameTable[2][0], '\0') << "a long name takes no slot";
        ASSERT_EQ(KRV_XML_AddAttr(again, "p", "attr", "v"), KRV_XML_OK);
        EXPECT_EQ(again->firstAttr->name, doc->nameTable[2]) << "attribute names too";
        EXPECT_STREQ(again->firstAttr->nsPrefix, "p");
        for (char c = 'a'; c < 'h'; ++c) {
            char name[] = {'n', c, '\0'};
            EXPECT_EQ(add(name)->name, doc->nameTable[3 + (c - 'a')]);
        }
        XmlNode *late = add("late");
        EXPECT_EQ(late->nameOwned, 1) << "all ten slots are taken";
        EXPECT_EQ(add("na")->name, doc->nameTable[3]) << "a full table still shares";

        // A name that is not owned keeps its pointer, and only the inserted
        // node's own name moves.
        XmlNode *moved = first;
        ASSERT_EQ(KRV_XML_RemoveNode(moved), KRV_XML_OK);
        XmlNode *sub = element("sub", doc->mem);
        ASSERT_EQ(KRV_XML_AppendChildNode(sub, moved), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AddAttr(sub, nullptr, "subattr", nullptr), KRV_XML_OK);
        EXPECT_EQ(sub->firstAttr->nameOwned, 1) << "an element-headed tree has no table";
        ASSERT_EQ(KRV_XML_AppendChildNode(doc, sub), KRV_XML_OK);
        EXPECT_EQ(moved->name, doc->nameTable[0]);
        EXPECT_EQ(sub->firstAttr->nameOwned, 1) << "descendants' names stay";

        // SetAttr interns an owned attribute name that reached the document
        // another way, as a parsed one does.
        XmlNode *raw = XML_NewNode(doc->mem, KRV_XML_NODE_ATTRIBUTE);
        ASSERT_EQ(XML_SetNode(doc, raw, nullptr, "item", nullptr), KRV_XML_OK);
        ASSERT_EQ(XML_AddAttrNode(raw, late), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_SetAttr(late, "", "item", "set"), KRV_XML_OK);
        EXPECT_EQ(raw->name, doc->nameTable[0]);
        EXPECT_STREQ(raw->value, "set");
        KRV_XML_FreeNode(doc);
    }
}

TEST(Tree, IteratorFollowsDocumentOrderAcrossSubtreeEnds)
{
    krvtest::LeakGuard guard;
    // r(a(b(c),d),e(f)),  plus attributes that must never be visited.
    XmlNode *n[7];
    const char *names[] = {"r", "a", "b", "c", "d", "e", "f"};
    const int parentOf[] = {-1, 0, 1, 2, 1, 0, 5};
    for (int i = 0; i < 7; ++i) {
        n[i] = element(names[i]);
        if (parentOf[i] >= 0) {
            ASSERT_EQ(KRV_XML_AppendChildNode(n[parentOf[i]], n[i]), KRV_XML_OK);
        }
        ASSERT_EQ(KRV_XML_AddAttr(n[i], nullptr, "id", names[i]), KRV_XML_OK);
    }
    std::string order;
    for (XmlNode *it = n[0]; it != nullptr; it = KRV_XML_Iterator(it)) {
        order += it->name;
    }
    EXPECT_EQ(order, "rabcdef");
    EXPECT_EQ(KRV_XML_Iterator(n[3]), n[4]) << "c ends b's sub-tree: on to b's sibling";
    EXPECT_EQ(KRV_XML_Iterator(n[4]), n[5]) << "d ends a's sub-tree: on to a's sibling";
    EXPECT_EQ(KRV_XML_Iterator(n[6]), nullptr);
    EXPECT_EQ(KRV_XML_Iterator(n[0]->firstAttr), nullptr);
    KRV_XML_FreeNode(n[0]);
}

TEST(Tree, MillionDeepChainsWalkAndCopyWithConstantStack)
{
    constexpr size_t kDepth = 1000000;
    krvtest::LeakGuard guard;
    krvtest::OnSmallStack([] {
        for (bool session : {false, true}) {
            XmlNode *doc = session ? document(true) : nullptr;
            XmlNode *top = chain(kDepth, session ? doc->mem : nullptr);
            if (session) {
                ASSERT_EQ(KRV_XML_AppendChildNode(doc, top), KRV_XML_OK);
            }
            XmlNode *source = session ? doc : top;
            XmlNode *copy = nullptr;
            ASSERT_EQ(KRV_XML_CloneNode(source, &copy), KRV_XML_OK);
            if (session) {
                EXPECT_NE(copy->mem, doc->mem);
                KRV_XML_FreeNode(doc);  // the copy has its own session
            }
            size_t visited = 0;
            XmlNode *last = nullptr;
            for (XmlNode *it = copy; it != nullptr; it = KRV_XML_Iterator(it)) {
                last = it;
                ++visited;
            }
            EXPECT_EQ(visited, kDepth + (session ? 1 : 0));
            EXPECT_STREQ(last->name, "leaf");
            if (!session) {
                KRV_XML_FreeNode(top);
            }
            KRV_XML_FreeNode(copy);
        }
    });
}

// ===== Attributes ===========================================================

TEST(Attributes, PrefixAndNameTogetherIdentifyAnAttribute)
{
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session document" : "heap element");
        krvtest::LeakGuard guard;
        XmlNode *el = session ? document(true) : element("e");
        ASSERT_EQ(KRV_XML_AddAttr(el, nullptr, "x", "plain"), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AddAttr(el, "a", "x", "in a"), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AddAttr(el, "b", "x", nullptr), KRV_XML_OK);
        EXPECT_EQ(attrList(el), "x=plain a:x=in a b:x=-");
        struct Dup {
            const char *prefix;
            const char *name;
        };
        for (Dup d : {Dup{nullptr, "x"}, Dup{"", "x"}, Dup{"a", "x"}, Dup{"b", "x"}}) {
            EXPECT_EQ(KRV_XML_AddAttr(el, d.prefix, d.name, "dup"), KRV_XML_ERR_ALREADY_EXISTS);
        }
        struct Lookup {
            const char *prefix;
            const char *name;
            uint32_t rc;
            const char *value;
        };
        const Lookup lookups[] = {
            {nullptr, "x", KRV_XML_OK, "plain"}, {"", "x", KRV_XML_ERR_NOT_FOUND, "?"},
            {"a", "x", KRV_XML_OK, "in a"},      {"b", "x", KRV_XML_OK, nullptr},
            {"c", "x", KRV_XML_ERR_NOT_FOUND, "?"}, {"a", "X", KRV_XML_ERR_NOT_FOUND, "?"},
            {"A", "x", KRV_XML_ERR_NOT_FOUND, "?"}, {nullptr, "y", KRV_XML_ERR_NOT_FOUND, "?"},
        };
        for (const Lookup &l : lookups) {
            const char *value = "?";
            EXPECT_EQ(KRV_XML_GetAttr(el, l.prefix, l.name, &value), l.rc) << l.name;
            if (l.value == nullptr) {
                EXPECT_EQ(value, nullptr);
            } else {
                EXPECT_STREQ(value, l.value);
            }
        }
        ASSERT_EQ(KRV_XML_SetAttr(el, "a", "x", "changed"), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_RemoveAttr(el, "", "x"), KRV_XML_OK);
        EXPECT_EQ(attrList(el), "a:x=changed b:x=-");
        EXPECT_EQ(KRV_XML_RemoveAttr(el, nullptr, "x"), KRV_XML_ERR_NOT_FOUND);
        EXPECT_EQ(KRV_XML_SetAttr(el, nullptr, "x", "v"), KRV_XML_ERR_NOT_FOUND);
        KRV_XML_FreeNode(el);
    }
}

TEST(Attributes, ListOrderValuesAndRouting)
{
    krvtest::LeakGuard guard;
    XmlNode *el = element("e");
    long live = krv_test::LiveBlocks();
    for (const char *name : {"a", "b", "c"}) {
        ASSERT_EQ(KRV_XML_AddAttr(el, nullptr, name, name), KRV_XML_OK);
    }
    EXPECT_EQ(krv_test::LiveBlocks(), live + 9) << "heap element: record, name, value each";
    ASSERT_EQ(KRV_XML_RemoveAttr(el, nullptr, "b"), KRV_XML_OK);
    EXPECT_EQ(attrList(el), "a=a c=c");
    ASSERT_EQ(KRV_XML_RemoveAttr(el, nullptr, "a"), KRV_XML_OK);
    EXPECT_EQ(attrList(el), "c=c");
    EXPECT_EQ(krv_test::LiveBlocks(), live + 3) << "removed attributes are freed";

    for (const char *v : {"", "again", static_cast<const char *>(nullptr)}) {  // empty text: no value
        ASSERT_EQ(KRV_XML_SetAttr(el, nullptr, "c", v), KRV_XML_OK);
        EXPECT_EQ(attrList(el), "c=" + (v != nullptr && *v != '\0' ? std::string(v) : "-"));
    }
    ASSERT_EQ(KRV_XML_AddAttr(el, "", "d", ""), KRV_XML_OK);
    EXPECT_EQ(attrList(el), "c=- d=-");
    EXPECT_EQ(el->firstAttr->next->nsPrefix, nullptr);

    XmlNode *doc = document(true);
    XmlNode *inDoc = element("in", doc->mem);
    ASSERT_EQ(KRV_XML_AppendChildNode(doc, inDoc), KRV_XML_OK);
    live = krv_test::LiveBlocks();
    ASSERT_EQ(KRV_XML_AddAttr(inDoc, "p", "session", "value"), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_SetAttr(inDoc, "p", "session", "other"), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_RemoveAttr(inDoc, "p", "session"), KRV_XML_OK);
    EXPECT_EQ(krv_test::LiveBlocks(), live) << "a session document takes nothing from the heap";

    XmlNode *attr = el->firstAttr;
    const char *out = "?";
    for (uint32_t rc : {KRV_XML_AddAttr(nullptr, nullptr, "n", "v"),
                        KRV_XML_AddAttr(el, nullptr, nullptr, "v"), KRV_XML_AddAttr(el, nullptr, "", "v"),
                        KRV_XML_AddAttr(attr, nullptr, "n", "v"), KRV_XML_SetAttr(nullptr, nullptr, "c", "v"),
                        KRV_XML_SetAttr(el, nullptr, nullptr, "v"), KRV_XML_SetAttr(attr, nullptr, "c", "v"),
                        KRV_XML_RemoveAttr(nullptr, nullptr, "c"), KRV_XML_RemoveAttr(el, nullptr, nullptr),
                        KRV_XML_RemoveAttr(attr, nullptr, "c"), KRV_XML_GetAttr(nullptr, nullptr, "c", &out),
                        KRV_XML_GetAttr(el, nullptr, nullptr, &out),
                        KRV_XML_GetAttr(el, nullptr, "c", nullptr),
                        KRV_XML_GetAttr(attr, nullptr, "c", &out)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_STREQ(out, "?");
    EXPECT_EQ(attrList(el), "c=- d=-");
    KRV_XML_FreeNode(el);
    KRV_XML_FreeNode(doc);
}

TEST(Attributes, BothWalksVisitEveryAttributeInOrder)
{
    krvtest::LeakGuard guard;
    XmlNode *el = element("e");
    XmlNode *bare = element("bare");
    ASSERT_EQ(KRV_XML_AddAttr(el, "p", "a", "1"), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(el, nullptr, "b", "2"), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(el, "q", "a", "3"), KRV_XML_OK);
    const std::string expected = "p:a=1 b=2 q:a=3 ";
    auto item = [](const char *p, const char *n, const char *v) {
        return (p != nullptr ? std::string(p) + ":" : "") + n + "=" + v + " ";
    };

    // By name: each step searches with what the last step handed out.
    std::string byName;
    const char *p = nullptr, *n = nullptr, *v = nullptr;
    ASSERT_EQ(KRV_XML_GetFirstAttr(el, &p, &n, &v), KRV_XML_OK);
    do {
        byName += item(p, n, v);
    } while (KRV_XML_GetNextSiblingAttr(el, p, n, &p, &n, &v) == KRV_XML_OK);
    EXPECT_EQ(byName, expected);
    EXPECT_EQ(KRV_XML_GetNextSiblingAttr(el, "", "b", &p, &n, &v), KRV_XML_ERR_NOT_FOUND)
        << "an empty prefix is a prefix that no attribute has";
    EXPECT_EQ(KRV_XML_GetNextSiblingAttr(el, "q", "a", &p, &n, &v), KRV_XML_ERR_NOT_FOUND);
    EXPECT_EQ(KRV_XML_GetNextSiblingAttr(el, "z", "a", &p, &n, &v), KRV_XML_ERR_NOT_FOUND);
    EXPECT_STREQ(v, "3") << "nothing written on failure";

    // By cursor: from null, through the end (cursor back to null), and again.
    XmlNode *cursor = nullptr;
    std::string byCursor;
    for (int round = 0; round < 2; ++round) {
        while (KRV_XML_GetNextSiblingAttrEx(el, &p, &n, &v, &cursor) == KRV_XML_OK) {
            EXPECT_EQ(cursor->value, v);
            byCursor += item(p, n, v);
        }
        EXPECT_EQ(cursor, nullptr);
    }
    EXPECT_EQ(byCursor, expected + expected);
    ASSERT_EQ(KRV_XML_GetFirstAttrEx(el, &p, &n, &v, &cursor), KRV_XML_OK);
    EXPECT_EQ(cursor, el->firstAttr);
    ASSERT_EQ(KRV_XML_GetNextSiblingAttrEx(el, &p, &n, &v, &cursor), KRV_XML_OK);
    EXPECT_STREQ(n, "b");
    ASSERT_EQ(KRV_XML_GetFirstAttrEx(el, &p, &n, &v, nullptr), KRV_XML_OK);
    EXPECT_STREQ(v, "1");

    // The cursor is stepped along its own `next`, whatever record it is.
    XmlNode *holder = element("holder");
    XmlNode *follower = element("follower", nullptr, "fv");
    ASSERT_EQ(KRV_XML_AppendChildNode(holder, bare), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AppendChildNode(holder, follower), KRV_XML_OK);
    cursor = bare;
    ASSERT_EQ(KRV_XML_GetNextSiblingAttrEx(el, &p, &n, &v, &cursor), KRV_XML_OK);
    EXPECT_EQ(cursor, follower);
    EXPECT_STREQ(v, "fv");
    EXPECT_EQ(KRV_XML_GetNextSiblingAttrEx(el, &p, &n, &v, &cursor), KRV_XML_ERR_NOT_FOUND);
    EXPECT_EQ(cursor, nullptr);
    p = n = v = "?";
    EXPECT_EQ(KRV_XML_GetFirstAttr(bare, &p, &n, &v), KRV_XML_ERR_NOT_FOUND);
    EXPECT_EQ(KRV_XML_GetFirstAttrEx(bare, &p, &n, &v, &cursor), KRV_XML_ERR_NOT_FOUND);
    EXPECT_EQ(KRV_XML_GetNextSiblingAttrEx(bare, &p, &n, &v, &cursor), KRV_XML_ERR_NOT_FOUND);
    XmlNode *attr = el->firstAttr;
    for (uint32_t rc : {KRV_XML_GetFirstAttr(nullptr, &p, &n, &v), KRV_XML_GetFirstAttr(el, nullptr, &n, &v),
                        KRV_XML_GetFirstAttr(el, &p, nullptr, &v), KRV_XML_GetFirstAttr(el, &p, &n, nullptr),
                        KRV_XML_GetFirstAttr(attr, &p, &n, &v),
                        KRV_XML_GetFirstAttrEx(el, nullptr, &n, &v, &cursor),
                        KRV_XML_GetNextSiblingAttr(el, "p", nullptr, &p, &n, &v),
                        KRV_XML_GetNextSiblingAttr(el, "p", "a", &p, &n, nullptr),
                        KRV_XML_GetNextSiblingAttr(attr, "p", "a", &p, &n, &v),
                        KRV_XML_GetNextSiblingAttrEx(el, &p, &n, &v, nullptr),
                        KRV_XML_GetNextSiblingAttrEx(el, &p, nullptr, &v, &cursor),
                        KRV_XML_GetNextSiblingAttrEx(attr, &p, &n, &v, &cursor)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_STREQ(p, "?");
    EXPECT_EQ(cursor, nullptr);
    KRV_XML_FreeNode(el);
    KRV_XML_FreeNode(holder);
}

TEST(Attributes, AllocationFailuresChangeNothing)
{
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session document" : "heap element");
        // A session only reaches the heap for a new block: fill it first.
        auto setup = [session] {
            XmlNode *el = session ? document(true) : element("e");
            EXPECT_EQ(KRV_XML_AddAttr(el, nullptr, "keep", "old"), KRV_XML_OK);
            if (session) {
                XML_MemSpecialMalloc(el->mem, el->mem->freeBytes);
            }
            return el;
        };
        long addPoints = krvtest::SweepAllocationFailures(
            setup, [](XmlNode *el) { return KRV_XML_AddAttr(el, "pre", "name", "value"); },
            [](uint32_t rc, XmlNode *el) {
                EXPECT_EQ(attrList(el), rc == KRV_XML_OK ? "keep=old pre:name=value" : "keep=old");
                if (rc != KRV_XML_OK) {
                    EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
                }
                KRV_XML_FreeNode(el);
            });
        EXPECT_EQ(addPoints >= 1 && (session || addPoints == 4), true)
            << addPoints << " points: a heap attribute takes record, prefix, name and value";
        long setPoints = krvtest::SweepAllocationFailures(
            setup, [](XmlNode *el) { return KRV_XML_SetAttr(el, nullptr, "keep", "new"); },
            [](uint32_t rc, XmlNode *el) {
                EXPECT_EQ(attrList(el), rc == KRV_XML_OK ? "keep=new" : "keep=old");
                KRV_XML_FreeNode(el);
            });
        EXPECT_GE(setPoints, 1);

        // A duplicate is found only once its copy is made: a failing
        // allocation comes first and is what the caller hears about.
        krvtest::LeakGuard guard;
        XmlNode *el = setup();
        krv_test::FailAllocationAt(1);
        EXPECT_EQ(KRV_XML_AddAttr(el, nullptr, "keep", "dup"), KRV_XML_ERR_NO_MEMORY);
        krv_test::FailAllocationAt(0);
        EXPECT_EQ(KRV_XML_AddAttr(el, "", "keep", "dup"), KRV_XML_ERR_ALREADY_EXISTS);
        EXPECT_EQ(attrList(el), "keep=old");
        KRV_XML_FreeNode(el);
    }
}

// ===== Clone ================================================================

namespace {

// e(attrs a, p:b, c)  with children x(attr, child y) and z; e stands between
// two siblings under a parent, and e's name lies in the document's table.
struct CloneFixture {
    XmlNode *doc;
    XmlNode *source;
};

CloneFixture cloneFixture(bool session)
{
    XmlNode *doc = document(session);
    XmlMemSession *mem = doc->mem;
    XmlNode *before = element("before", mem);
    XmlNode *e = element("e", mem, "text");
    XmlNode *after = element("after", mem);
    XmlNode *x = element("x", mem);
    XmlNode *y = element("y", mem, "deep");
    XmlNode *z = element("z", mem);
    for (XmlNode *n : {before, e, after}) {
        EXPECT_EQ(KRV_XML_AppendChildNode(doc, n), KRV_XML_OK);
    }
    EXPECT_EQ(KRV_XML_AppendChildNode(e, x), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_AppendChildNode(x, y), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_AppendChildNode(e, z), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_AddAttr(e, nullptr, "a", "1"), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_AddAttr(e, "p", "b", nullptr), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_AddAttr(e, nullptr, "c", "3"), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_AddAttr(x, "q", "xa", "xv"), KRV_XML_OK);
    return {doc, e};
}

// Every record of the copy: in the expected regime, and a new record.
void expectAllIn(XmlNode *copy, XmlMemSession *mem, XmlNode *sourceDoc)
{
    std::vector<const void *> sourceRecords = snapshot(sourceDoc);
    for (XmlNode *n = copy; n != nullptr; n = KRV_XML_Iterator(n)) {  // copy is detached
        EXPECT_EQ(n->mem, mem);
        EXPECT_EQ(std::find(sourceRecords.begin(), sourceRecords.end(), n), sourceRecords.end());
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            EXPECT_EQ(a->mem, mem);
            EXPECT_EQ(a->parent, n);
        }
    }
}

}  // namespace

TEST(Clone, CopiesAreDetachedInTheSourceRegimeWithAttributesAndSubtree)
{
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session document" : "heap document");
        krvtest::LeakGuard guard;
        CloneFixture f = cloneFixture(session);
        ASSERT_EQ(f.source->name, f.doc->nameTable[1]) << "fixture: e's name is interned";
        XmlNode *self = nullptr;
        XmlNode *deep = nullptr;
        XmlNode *docCopy = nullptr;
        ASSERT_EQ(KRV_XML_CloneNodeSelf(f.source, &self), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_CloneNode(f.source, &deep), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_CloneNode(f.doc, &docCopy), KRV_XML_OK);
        const std::string docText = content(f.doc);

        // A document copy: a table of its own, starting empty, and a session
        // of its own when the source has one.
        EXPECT_EQ(docCopy->kind, KRV_XML_NODE_DOCUMENT);
        EXPECT_EQ(docCopy->ownsSession, 1);
        EXPECT_EQ(docCopy->nameTable[0][0], '\0');
        EXPECT_EQ(docCopy->mem != nullptr, session);
        EXPECT_TRUE(docCopy->mem == nullptr || docCopy->mem != f.doc->mem);
        expectAllIn(docCopy, docCopy->mem, f.doc);
        EXPECT_EQ(content(docCopy), docText);
        for (XmlNode *c : {self, deep}) {
            EXPECT_TRUE(c->parent == nullptr && c->prev == nullptr && c->next == nullptr) << "detached";
            EXPECT_EQ(c->nameOwned, 1);
            EXPECT_NE(c->name, f.source->name) << "the copy owns a private name";
            expectAllIn(c, f.doc->mem, f.doc);
        }
        const std::string sourceText = "0-:e=text[a=1 p:b=- c=3];1-:x=-[q:xa=xv];2-:y=deep[];1-:z=-[];";
        EXPECT_EQ(content(self), "0-:e=text[a=1 p:b=- c=3];");
        EXPECT_EQ(self->lastChild, nullptr);
        EXPECT_EQ(content(f.source), sourceText);
        EXPECT_EQ(content(deep), sourceText);
        EXPECT_EQ(childNames(deep), "x,z");
        EXPECT_EQ(childNames(deep->firstChild), "y");

        if (session) {
            long live = krv_test::LiveBlocks();
            KRV_XML_FreeNode(self);  // session copies go with the session
            EXPECT_EQ(krv_test::LiveBlocks(), live);
            EXPECT_EQ(KRV_XML_AppendChildNode(f.doc, deep), KRV_XML_OK) << "same session: may join";
            EXPECT_EQ(deep->name, f.doc->nameTable[1]) << "interned when inserted";
            KRV_XML_FreeNode(f.doc);
            EXPECT_EQ(content(docCopy), docText) << "the document copy outlives its source";
        } else {
            KRV_XML_FreeNode(f.doc);  // heap copies are independent of the source
            EXPECT_EQ(content(deep), sourceText);
            EXPECT_EQ(content(docCopy), docText);
            KRV_XML_FreeNode(self);
            KRV_XML_FreeNode(deep);
        }
        KRV_XML_FreeNode(docCopy);  // ends its own session; the guard sees the rest
    }
}

TEST(Clone, AllocationFailuresLeaveNothingBehind)
{
    enum class Source { HeapElement, SessionElement, SessionDocument, HeapDocument };
    for (Source which : {Source::HeapElement, Source::SessionElement, Source::SessionDocument,
                         Source::HeapDocument}) {
        bool session = which == Source::SessionElement || which == Source::SessionDocument;
        bool wholeDoc = which == Source::SessionDocument || which == Source::HeapDocument;
        SCOPED_TRACE(static_cast<int>(which));
        for (auto clone : {KRV_XML_CloneNodeSelf, KRV_XML_CloneNode}) {
            // Values of 5000 bytes leave no session block with room for a
            // copy of one, and the session's slab is spent, so copies of
            // session trees must reach the heap.
            auto setup = [&] {
                CloneFixture f = cloneFixture(session);
                std::string big(5000, 'v');
                XmlNode *x = f.source->firstChild;
                EXPECT_EQ(KRV_XML_SetAttr(f.source, nullptr, "a", big.c_str()), KRV_XML_OK);
                EXPECT_EQ(KRV_XML_SetAttr(x, "q", "xa", big.c_str()), KRV_XML_OK);
                for (XmlNode *n : {f.source, x, x->firstChild}) {
                    EXPECT_EQ(KRV_XML_SetNode(n, nullptr, nullptr, big.c_str()), KRV_XML_OK);
                }
                if (session) {
                    krvtest::SpendSessionSlab(f.doc->mem);
                }
                return f;
            };
            long points = krvtest::SweepAllocationFailures(
                [&] {
                    CloneFixture f = setup();
                    return std::make_pair(f, std::make_pair(snapshot(f.doc), content(f.doc)));
                },
                [&](auto &fx) {
                    XmlNode *out = reinterpret_cast<XmlNode *>(0x1);
                    uint32_t rc = clone(wholeDoc ? fx.first.doc : fx.first.source, &out);
                    if (rc != KRV_XML_OK) {
                        EXPECT_EQ(out, reinterpret_cast<XmlNode *>(0x1));
                    } else {
                        fx.first.source = out;  // hand the copy to finish
                    }
                    return rc;
                },
                [&](uint32_t rc, auto &fx) {
                    if (rc != KRV_XML_OK) {
                        EXPECT_EQ(rc, KRV_XML_ERR_NO_MEMORY);
                    } else {
                        KRV_XML_FreeNode(fx.first.source);
                    }
                    EXPECT_EQ(snapshot(fx.first.doc), fx.second.first) << "source tree changed";
                    EXPECT_EQ(content(fx.first.doc), fx.second.second);
                    KRV_XML_FreeNode(fx.first.doc);
                });
            EXPECT_GE(points, 1) << "every variant allocates from the heap at least once";
        }
    }
}
