// Tree, Attributes and Clone suites: navigation, insertion and name interning,
// attribute reading and editing, copying in both memory regimes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fuzz/fuzz_checks.h"
#include "test_support.h"

using krvfuzz::Dump;
using krvtest::Document;
using krvtest::Element;
using krvtest::Failing;
using krvtest::Str;

namespace {

using Insert = uint32_t (*)(XmlNode *, XmlNode *);

// The children's names, after checking every link of the tree both ways.
std::string childNames(XmlNode *parent)
{
    std::string out = krvfuzz::CheckLinks(parent);
    for (const XmlNode *c = parent->firstChild; c != nullptr; c = c->next) {
        out += (c == parent->firstChild ? "" : ",") + Str(c->name);
    }
    return out;
}

std::string attrList(const XmlNode *el)
{
    std::string out;
    for (const XmlNode *a = el->firstAttr; a != nullptr; a = a->next) {
        EXPECT_EQ(a->parent, el);
        out += (out.empty() ? "" : " ") + (a->nsPrefix != nullptr ? std::string(a->nsPrefix) + ":" : "") + a->name +
               "=" + Str(a->value);
    }
    return out;
}

// The top a walk up finds; an attribute's owner counts as its parent.
XmlNode *topOf(XmlNode *n)
{
    while (n != nullptr && (n->kind == KRV_XML_NODE_ATTRIBUTE || n->parent != nullptr)) {
        n = n->parent;
    }
    return n;
}

std::string nth(size_t i)
{
    return "a" + std::to_string(i);
}

// Appends the attributes a<from> up to a<to - 1>, each of value "v".
void addNumbered(XmlNode *el, size_t from, size_t to)
{
    for (size_t i = from; i < to; ++i) {
        EXPECT_EQ(KRV_XML_AddAttr(el, nullptr, nth(i).c_str(), "v"), KRV_XML_OK);
    }
}

XmlNode *copyOf(XmlNode *n)
{
    XmlNode *copy = nullptr;
    EXPECT_EQ(KRV_XML_CloneNode(n, &copy), KRV_XML_OK);
    return copy;
}

// Every field of every record reachable from root (siblings after it too):
// any change to a tree shows up as a difference.
std::vector<const void *> snapshot(XmlNode *root)
{
    std::vector<const void *> s;
    for (XmlNode *n = root; n != nullptr; n = KRV_XML_Iterator(n)) {
        s.insert(s.end(), {n, n->mem, n->name, n->value, n->nsPrefix, n->parent, n->next, n->prev, n->firstChild,
                           n->lastChild, n->firstAttr});
        s.push_back(reinterpret_cast<const void *>(uintptr_t{n->nameOwned} << 1 | n->valueOwned));
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            s.insert(s.end(), {a, a->name, a->value, a->nsPrefix, a->parent, a->next});
        }
    }
    return s;
}

}  // namespace

// ===== Tree =================================================================

TEST(Tree, NavigationGettersAndTheIterator)
{
    krvtest::LeakGuard guard;
    // r(a(b(c),d),e(f)), each with an attribute that the iterator must skip.
    XmlNode *n[7];
    const int parentOf[] = {-1, 0, 1, 2, 1, 0, 5};
    for (int i = 0; i < 7; ++i) {
        const std::string name(1, "rabcdef"[i]);
        n[i] = Element(name.c_str(), nullptr, i == 4 ? "text" : nullptr);
        ASSERT_TRUE(parentOf[i] < 0 || KRV_XML_AppendChildNode(n[parentOf[i]], n[i]) == KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AddAttr(n[i], i == 0 ? "n" : nullptr, "id", name.c_str()), KRV_XML_OK);
    }
    std::string order;  // c and d end sub-trees: the walk climbs to the next sibling up, and ends after f
    for (XmlNode *it = n[0]; it != nullptr; it = KRV_XML_Iterator(it)) {
        order += it->name;
    }
    EXPECT_EQ(order, "rabcdef");
    EXPECT_TRUE(KRV_XML_GetNodeFirstChild(n[0]) == n[1] && KRV_XML_GetNodeLastChild(n[0]) == n[5]);
    EXPECT_TRUE(KRV_XML_GetNodeNextSibling(n[1]) == n[5] && KRV_XML_GetNodePrevSibling(n[5]) == n[1]);
    EXPECT_EQ(KRV_XML_GetNodeParent(n[3]), n[2]);

    ASSERT_EQ(KRV_XML_AddAttr(n[0], nullptr, "y", "2"), KRV_XML_OK);
    XmlNode *x = n[0]->firstAttr;
    EXPECT_EQ(KRV_XML_GetNodeParent(x), n[0]) << "an attribute's parent is its owner";
    EXPECT_EQ(KRV_XML_GetNodeNextSibling(x), x->next) << "the next attribute";
    for (auto getter : {KRV_XML_GetNodeFirstChild, KRV_XML_GetNodeLastChild, KRV_XML_GetNodePrevSibling,
                        KRV_XML_GetNodeParent, KRV_XML_GetNodeNextSibling, KRV_XML_Iterator}) {
        EXPECT_EQ(getter(nullptr), nullptr);
        EXPECT_TRUE(getter == KRV_XML_GetNodeParent || getter == KRV_XML_GetNodeNextSibling || getter(x) == nullptr)
            << "attribute records lack the other fields";
    }
    uint32_t count = 77;
    for (uint32_t rc : {KRV_XML_GetNodeChildNum(nullptr, &count), KRV_XML_GetNodeChildNum(n[0], nullptr),
                        KRV_XML_GetNodeChildNum(x, &count)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_EQ(count, 77u);
    EXPECT_EQ(KRV_XML_GetNodeChildNum(n[0], &count), KRV_XML_OK);
    EXPECT_EQ(count, 2u) << "attributes are not children";

    int32_t kind = -1;
    const char *prefix = "?", *name = "?", *value = "?";
    EXPECT_EQ(KRV_XML_GetNodeValue(nullptr, &kind, &prefix, &name, &value), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_GetNodeValue(n[4], nullptr, nullptr, nullptr, nullptr), KRV_XML_OK);
    EXPECT_EQ(kind, -1);
    for (auto [node, expect] : {std::make_pair(x, std::to_string(KRV_XML_NODE_ATTRIBUTE) + "nidr"),
                                std::make_pair(n[4], std::string("0~dtext"))}) {
        ASSERT_EQ(KRV_XML_GetNodeValue(node, &kind, &prefix, &name, &value), KRV_XML_OK);
        EXPECT_EQ(std::to_string(kind) + Str(prefix) + Str(name) + Str(value), expect);
    }
    KRV_XML_FreeNode(n[0]);
}

TEST(Tree, EveryInsertionKeepsTheListWalkableBothWays)
{
    struct Step {
        Insert fn;
        int ref;  // -1: the parent; else index among current children
        const char *name, *expect;
    };
    const Step steps[] = {
        {KRV_XML_AppendChildNode, -1, "b", "b"},         {KRV_XML_AddFirstChildNode, -1, "a", "a,b"},
        {KRV_XML_AppendChildNode, -1, "d", "a,b,d"},     {KRV_XML_AddNextSiblingNode, 1, "c", "a,b,c,d"},  // middle
        {KRV_XML_AddNextSiblingNode, 3, "e", "a,b,c,d,e"},                                // after the last
        {KRV_XML_AddPrevSiblingNode, 0, "_", "_,a,b,c,d,e"},                              // before the first
        {KRV_XML_AddPrevSiblingNode, 2, "m", "_,a,m,b,c,d,e"},
    };
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session document" : "heap element");
        krvtest::LeakGuard guard;
        XmlNode *doc = session ? Document(true) : Element("top"), *parent = Element("p", doc->mem);
        ASSERT_EQ(KRV_XML_AppendChildNode(doc, parent), KRV_XML_OK);
        for (const Step &s : steps) {
            XmlNode *ref = s.ref < 0 ? parent : parent->firstChild;
            for (int i = 0; i < s.ref; ++i) {
                ref = ref->next;
            }
            ASSERT_EQ(s.fn(ref, Element(s.name, doc->mem)), KRV_XML_OK) << s.name;
            EXPECT_EQ(childNames(parent), s.expect);
        }
        KRV_XML_FreeNode(doc);
    }
}

TEST(Tree, RefusedInsertionsLeaveBothTreesUnchanged)
{
    krvtest::LeakGuard guard;
    XmlNode *heap = Element("heap"), *hChild = Element("hc"), *hGrand = Element("hg");
    ASSERT_EQ(KRV_XML_AppendChildNode(heap, hChild), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AppendChildNode(hChild, hGrand), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(heap, nullptr, "at", "v"), KRV_XML_OK);
    XmlNode *doc = Document(true), *otherDoc = Document(true, "other"), *heapDoc = Document(false, "hd");
    XmlNode *dChild = Element("dc", doc->mem), *loneHeap = Element("lone"), *loneSession = Element("ls", doc->mem);
    ASSERT_EQ(KRV_XML_AppendChildNode(doc, dChild), KRV_XML_OK);
    XmlNode *foreign = Element("foreign", otherDoc->mem), *attr = heap->firstAttr;

    const Insert children[] = {KRV_XML_AddFirstChildNode, KRV_XML_AppendChildNode};
    const Insert siblings[] = {KRV_XML_AddNextSiblingNode, KRV_XML_AddPrevSiblingNode};
    struct Case {
        const char *why;
        bool child;  // child functions, else sibling functions
        XmlNode *ref, *node;
    };
    const Case cases[] = {
        {"null reference", true, nullptr, loneHeap}, {"null node", true, heap, nullptr},
        {"null reference", false, nullptr, loneHeap}, {"null node", false, hChild, nullptr},
        {"node still linked", true, heap, hGrand}, {"node still linked", false, hChild, hGrand},
        {"node is an attribute", true, heap, attr}, {"node is an attribute", false, hChild, attr},
        {"parent is an attribute", true, attr, loneHeap}, {"sibling is an attribute", false, attr, loneHeap},
        {"node is a session document", true, heap, otherDoc}, {"node is a session document", false, dChild, otherDoc},
        {"node is a session document, under a loose element of its session", true, loneSession, doc},
        {"node is a heap document", false, hChild, heapDoc}, {"into itself", true, loneHeap, loneHeap},
        {"sibling is node", false, loneHeap, loneHeap}, {"under its own descendant", true, hGrand, heap},
        {"beside its own descendant", false, hGrand, heap}, {"heap node into a session tree", true, dChild, loneHeap},
        {"heap node into a session tree", false, dChild, loneHeap},
        {"session node into a heap tree", true, hChild, loneSession},
        {"session node into a heap tree", false, hChild, loneSession}, {"node of another session", true, doc, foreign},
        {"a session root gets no sibling", false, doc, loneSession},
        {"a session element root gets no sibling", false, loneSession, Element("s2", doc->mem)},
    };
    const std::vector<XmlNode *> roots = {heap, doc, otherDoc, loneHeap, loneSession, foreign, heapDoc};
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
    EXPECT_TRUE(heap->next == loneHeap && loneHeap->prev == heap && loneHeap->parent == nullptr);
    for (XmlNode *n : {loneHeap, heap, doc, otherDoc}) {
        KRV_XML_FreeNode(n);
    }
}

// A heap root with siblings links nodes but interns no name, adds no attribute and copies nothing.
TEST(Tree, HeapRootWithSiblingsTakesLinksButNoNamesOrCopies)
{
    krvtest::LeakGuard guard;
    XmlNode *doc = Document(false), *beside = Element("beside"), *child = Element("child");
    ASSERT_EQ(KRV_XML_AddPrevSiblingNode(doc, beside), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AppendChildNode(doc, child), KRV_XML_OK);
    EXPECT_TRUE(beside->nameOwned == 1 && child->nameOwned == 1 && doc->nameTable[0][0] == '\0');
    XML_AddAttrNode(XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE), child);
    ASSERT_EQ(KRV_XML_SetNode(child->firstAttr, nullptr, "k", nullptr), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_AddAttr(child, nullptr, "new", "v"), KRV_XML_ERR_INVALID_PARAM);
    EXPECT_EQ(KRV_XML_SetAttr(child, nullptr, "k", "stands"), KRV_XML_OK);
    EXPECT_EQ(attrList(child), "k=stands");
    EXPECT_EQ(child->firstAttr->nameOwned, 1);
    XmlNode *ownerless = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    long live = krv_test::LiveBlocks();
    for (auto clone : {KRV_XML_CloneNode, KRV_XML_CloneNodeSelf}) {
        XmlNode *out = krvtest::Sentinel();
        for (XmlNode *source : {child, doc, static_cast<XmlNode *>(nullptr), child->firstAttr, ownerless}) {
            EXPECT_EQ(clone(source, &out), KRV_XML_ERR_INVALID_PARAM);
        }
        EXPECT_EQ(clone(beside, nullptr), KRV_XML_ERR_INVALID_PARAM);
        EXPECT_EQ(out, krvtest::Sentinel());
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
        XmlNode *doc = Document(session);
        auto add = [&](const char *name) {
            XmlNode *n = Element(name, doc->mem);
            EXPECT_EQ(KRV_XML_AppendChildNode(doc, n), KRV_XML_OK);
            return n;
        };
        XmlNode *first = add("item"), *again = add("item");
        EXPECT_TRUE(first->name == doc->nameTable[0] && first->nameOwned == 0);
        EXPECT_EQ(again->name, doc->nameTable[0]) << "an equal name shares the slot";
        EXPECT_EQ(add("elevenbytes")->name, doc->nameTable[1]);
        XmlNode *twelve = add("twelve_bytes");
        EXPECT_TRUE(twelve->nameOwned == 1 && doc->nameTable[2][0] == '\0') << "a long name takes no slot";
        EXPECT_STREQ(twelve->name, "twelve_bytes");
        ASSERT_EQ(KRV_XML_AddAttr(again, "p", "attr", "v"), KRV_XML_OK);
        EXPECT_EQ(again->firstAttr->name, doc->nameTable[2]) << "attribute names too";
        for (char c = 'a'; c < 'h'; ++c) {
            const char name[] = {'n', c, '\0'};
            EXPECT_EQ(add(name)->name, doc->nameTable[3 + (c - 'a')]);
        }
        XmlNode *late = add("late");
        EXPECT_EQ(late->nameOwned, 1) << "all ten slots are taken";
        EXPECT_EQ(add("na")->name, doc->nameTable[3]) << "a full table still shares";

        // Only the inserted node's own name moves; an element-headed tree has no table.
        ASSERT_EQ(KRV_XML_RemoveNode(first), KRV_XML_OK);
        XmlNode *sub = Element("sub", doc->mem);
        ASSERT_EQ(KRV_XML_AppendChildNode(sub, first), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AddAttr(sub, nullptr, "subattr", nullptr), KRV_XML_OK);
        EXPECT_EQ(sub->firstAttr->nameOwned, 1);
        ASSERT_EQ(KRV_XML_AppendChildNode(doc, sub), KRV_XML_OK);
        EXPECT_EQ(first->name, doc->nameTable[0]) << "a name that is not owned keeps its pointer";
        EXPECT_EQ(sub->firstAttr->nameOwned, 1) << "descendants' names stay";

        // SetAttr interns the owned name of an attribute linked another way, as a parsed one is.
        XmlNode *raw = XML_NewNode(doc->mem, KRV_XML_NODE_ATTRIBUTE);
        ASSERT_EQ(XML_SetNode(doc, raw, nullptr, "item", nullptr), KRV_XML_OK);
        ASSERT_EQ(XML_AddAttrNode(raw, late), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_SetAttr(late, "", "item", "set"), KRV_XML_OK);
        EXPECT_EQ(raw->name, doc->nameTable[0]);
        EXPECT_STREQ(raw->value, "set");
        KRV_XML_FreeNode(doc);
    }
}

// Random edits checked against a walk up: refused exactly on a cycle, interned exactly
// under the document, and every lookup (cached or not) finds the top.
TEST(Tree, EditsAgreeWithAWalkToTheTop)
{
    const Insert inserts[] = {KRV_XML_AppendChildNode, KRV_XML_AddFirstChildNode, KRV_XML_AddNextSiblingNode,
                              KRV_XML_AddPrevSiblingNode};
    for (int regime = 0; regime < 4; ++regime) {
        // Odd regimes make every lookup below a top use the path links at once.
        const bool session = regime >= 2;
        SCOPED_TRACE(std::string(session ? "session" : "heap") + (regime % 2 == 1 ? ", path links only" : ""));
        krv_test::SetShortWalk(regime % 2 == 1 ? 0 : 24);
        krvtest::LeakGuard guard;
        XmlNode *doc = Document(session), *keep = Element("e", doc->mem);
        ASSERT_EQ(KRV_XML_AppendChildNode(doc, keep), KRV_XML_OK);
        ASSERT_EQ(keep->name, doc->nameTable[0]);  // "e" has slot 0
        std::vector<XmlNode *> pool = {doc, keep}, attrs;
        for (int i = 0; i < 10; ++i) {
            pool.push_back(Element("e", doc->mem));
        }
        uint32_t seed = 12345;
        auto next = [&seed](size_t bound) {
            seed = seed * 1103515245u + 12345u;
            return (seed >> 16) % static_cast<uint32_t>(bound);
        };
        auto any = [&next](const std::vector<XmlNode *> &v) { return v[next(v.size())]; };
        int joined = 0, cycles = 0, freed = 0, copied = 0;
        for (int step = 0; step < 6000; ++step) {
            if (pool.size() < 2) { pool.push_back(Element("e", doc->mem)); }  // a release took all but the document
            XmlNode *probe = any(pool);  // lookups note facts too
            ASSERT_EQ(xmlTopOf(probe), topOf(probe)) << "step " << step;
            if (!attrs.empty()) {
                probe = any(attrs);
                ASSERT_EQ(xmlTopOf(probe), topOf(probe)) << "attribute, step " << step;
            }
            XmlNode *node = pool[1 + next(pool.size() - 1)];
            const uint32_t op = next(8);
            if (op == 0 && node->parent != nullptr) {
                ASSERT_EQ(KRV_XML_RemoveNode(node), KRV_XML_OK);
            } else if (op == 1 && pool.size() < 40) {  // a copy, or a new record, joins the pool
                XmlNode *made = nullptr;
                ASSERT_EQ(next(2) == 0 ? KRV_XML_CloneNode(node, &made)
                                       : KRV_XML_CreateNodeEx(doc->mem, KRV_XML_NODE_ELEMENT, nullptr, "e", nullptr, &made),
                          KRV_XML_OK);
                pool.push_back(made);
                copied++;
            } else if (op == 2 && pool.size() >= 8) {  // released with its tree, which leaves the pool
                auto gone = [node](XmlNode *m) {
                    m = m->kind == KRV_XML_NODE_ATTRIBUTE ? m->parent : m;
                    while (m != nullptr && m != node) {
                        m = m->parent;
                    }
                    return m != nullptr;
                };
                attrs.erase(std::remove_if(attrs.begin(), attrs.end(), gone), attrs.end());
                pool.erase(std::remove_if(pool.begin(), pool.end(), gone), pool.end());
                KRV_XML_FreeNode(node);
                freed++;
            } else if (op == 3) {  // an attribute record, linked to an element or left alone
                XmlNode *attr = XML_NewNode(doc->mem, KRV_XML_NODE_ATTRIBUTE);
                ASSERT_NE(attr, nullptr);
                ASSERT_EQ(XML_SetNode(doc, attr, nullptr, nth(step).c_str(), nullptr), KRV_XML_OK);
                ASSERT_TRUE(next(2) != 0 || XML_AddAttrNode(attr, node) == KRV_XML_OK);
                attrs.push_back(attr);
            }
            XmlNode *ref = op < 4 ? nullptr : any(pool);
            const uint32_t how = op < 4 ? 0 : next(4);
            if (op < 4 || node->parent != nullptr || (how >= 2 && ref->parent == nullptr)) {
                continue;  // linked nodes and siblings of a top record are other tests' cases
            }
            ASSERT_EQ(KRV_XML_SetNode(node, nullptr, "e", nullptr), KRV_XML_OK);  // owned again
            const bool cycle = topOf(ref) == node, underDoc = topOf(ref) == doc;
            ASSERT_EQ(inserts[how](ref, node), cycle ? KRV_XML_ERR_INVALID_PARAM : KRV_XML_OK) << "step " << step;
            if (!cycle) {
                ASSERT_EQ(node->name == doc->nameTable[0], underDoc) << "step " << step;
                ASSERT_EQ(node->nameOwned, underDoc ? 0 : 1) << "step " << step;
            }
            (cycle ? cycles : joined)++;
        }
        EXPECT_EQ(krvfuzz::CheckLinks(doc), "");
        EXPECT_TRUE(joined > 300 && cycles > 30 && freed > 100 && copied > 100)
            << joined << " joined, " << cycles << " cycles, " << freed << " freed, " << copied << " copied";
        for (XmlNode *a : attrs) {  // ownerless ones alone; the rest go with their trees
            if (a->parent == nullptr) {
                session ? KRV_XML_FreeNode(a) : XML_FreeSingleNode(a);
            }
        }
        std::vector<XmlNode *> tops;  // found before any release: a heap release frees descendants
        std::copy_if(pool.begin(), pool.end(), std::back_inserter(tops),
                     [](XmlNode *n) { return n->parent == nullptr; });
        std::for_each(tops.rbegin(), tops.rend(), KRV_XML_FreeNode);  // the session's document last
    }
    krv_test::SetShortWalk(24);
}

// Without memory for the session's path-link table lookups still find the top, and stale links never mislead.
TEST(Tree, SessionLookupsAgreeWhenThePathLinksHaveNoMemory)
{
    struct Fixture {
        XmlNode *doc, *loose;  // loose keeps the document's shortcut off
        std::vector<XmlNode *> chain;
    };
    std::string text;  // a chain of 1000 elements
    for (int i = 0; i < 2000; ++i) {
        text += i < 1000 ? "<e>" : "</e>";
    }
    auto setup = [&text] {
        Fixture f{nullptr, nullptr, {}};
        EXPECT_EQ(KRV_XML_ParseEx(text.c_str(), &f.doc), KRV_XML_OK);
        for (XmlNode *e = f.doc; e != nullptr; e = e->firstChild) {
            f.chain.push_back(e);
        }
        f.loose = Element("t", f.doc->mem);
        return f;
    };
    // Only cuts, links and lookups: every allocation met is the table's.
    auto attempt = [](Fixture &f) {
        uint32_t seed = 7;
        auto lookups = [&](int count) {
            for (int i = 0; i < count; ++i) {
                seed = seed * 1103515245u + 12345u;
                XmlNode *e = f.chain[(seed >> 16) % f.chain.size()];
                EXPECT_EQ(xmlTopOf(e), topOf(e)) << "record " << ((seed >> 16) % f.chain.size());
            }
        };
        // Links for the lower half only, which goes back by a walk: the next cut needs entries up to the top.
        EXPECT_EQ(KRV_XML_RemoveNode(f.chain[500]), KRV_XML_OK);
        EXPECT_EQ(xmlTopOf(f.chain[999]), f.chain[500]);
        krv_test::SetShortWalk(1000);
        EXPECT_EQ(KRV_XML_AppendChildNode(f.chain[499], f.chain[500]), KRV_XML_OK);
        krv_test::SetShortWalk(0);
        EXPECT_EQ(KRV_XML_RemoveNode(f.chain[700]), KRV_XML_OK);
        lookups(200);
        EXPECT_EQ(KRV_XML_AppendChildNode(f.loose, f.chain[700]), KRV_XML_OK);
        lookups(200);
        EXPECT_EQ(KRV_XML_RemoveNode(f.chain[250]), KRV_XML_OK);
        EXPECT_EQ(KRV_XML_AppendChildNode(f.chain[400], f.chain[250]), KRV_XML_ERR_INVALID_PARAM) << "a cycle";
        EXPECT_EQ(KRV_XML_AppendChildNode(f.chain[999], f.chain[250]), KRV_XML_OK);
        lookups(400);
        return KRV_XML_OK;
    };
    auto finish = [](uint32_t, Fixture &f) {
        EXPECT_EQ(krvfuzz::CheckLinks(f.doc), "");
        KRV_XML_FreeNode(f.doc);
    };
    krv_test::SetShortWalk(0);
    for (Failing failing : {Failing::OnlyKth, Failing::KthOnward}) {
        EXPECT_GE(krvtest::SweepAllocationFailures(setup, attempt, finish, failing, true), 3)
            << "the table is made, grown in a lookup and grown in a cut";
    }
    krv_test::SetShortWalk(24);
}

// Each way of leaving a session tree outside the document is counted: tops, cycles and interning stay right.
TEST(Tree, TreesOutsideTheSessionDocumentAreCounted)
{
    auto checkTops = [](XmlNode *root) {
        for (XmlNode *n = root; n != nullptr && (n == root || topOf(n) == root); n = KRV_XML_Iterator(n)) {
            EXPECT_EQ(xmlTopOf(n), root) << Str(n->name);
            for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
                EXPECT_EQ(xmlTopOf(a), root) << Str(a->name);
            }
        }
    };
    struct Case {
        const char *what;
        XmlNode *(*loose)(XmlNode *doc, XmlNode *a);  // a tree of the session outside doc, with a child
    };
    const Case cases[] = {
        {"taken out", [](XmlNode *, XmlNode *a) { return KRV_XML_RemoveNode(a) == KRV_XML_OK ? a : nullptr; }},
        {"copied", [](XmlNode *, XmlNode *a) { return copyOf(a); }},
        {"made and filled", [](XmlNode *doc, XmlNode *) { return Element("t", doc->mem); }},
        {"made by the component layer",
         [](XmlNode *doc, XmlNode *) { return XML_NewNode(doc->mem, KRV_XML_NODE_ELEMENT); }},
        {"beside an attribute linked into the document", [](XmlNode *doc, XmlNode *a) {
             XmlNode *copy = copyOf(a), *attr = XML_NewNode(doc->mem, KRV_XML_NODE_ATTRIBUTE);
             EXPECT_EQ(XML_SetNode(doc, attr, nullptr, "late", nullptr), KRV_XML_OK);
             EXPECT_EQ(XML_AddAttrNode(attr, a), KRV_XML_OK);
             return copy;
         }},
        {"beside attributes added in the document", [](XmlNode *, XmlNode *a) {
             XmlNode *copy = copyOf(a);
             int32_t v = 5;
             EXPECT_EQ(KRV_XML_SetAttrValueEx(a, nullptr, "typed", KRV_XML_VALUE_INT32, &v), KRV_XML_OK);
             EXPECT_EQ(KRV_XML_AddAttr(a, nullptr, "plain", "p"), KRV_XML_OK);
             return copy;
         }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        krvtest::LeakGuard guard;
        XmlNode *doc = nullptr;
        ASSERT_EQ(KRV_XML_ParseEx("<r><a k=\"1\"><b><c/></b></a><d/></r>", &doc), KRV_XML_OK);
        checkTops(doc);
        XmlNode *loose = c.loose(doc, doc->firstChild), *deepest = loose;
        ASSERT_NE(loose, nullptr);
        if (loose->firstChild == nullptr) {  // a new record is filled here
            ASSERT_EQ(KRV_XML_AppendChildNode(loose, Element("u", doc->mem)), KRV_XML_OK);
        }
        checkTops(doc);
        checkTops(loose);
        while (deepest->firstChild != nullptr) {
            deepest = deepest->firstChild;
        }
        ASSERT_EQ(KRV_XML_AppendChildNode(deepest, loose), KRV_XML_ERR_INVALID_PARAM) << "a cycle";
        ASSERT_EQ(KRV_XML_AddAttr(deepest, nullptr, "n", "v"), KRV_XML_OK);
        EXPECT_EQ(deepest->firstAttr->nameOwned, 1) << "interned into a document it is not in";
        checkTops(loose);
        ASSERT_EQ(KRV_XML_AppendChildNode(doc->lastChild, loose), KRV_XML_OK);
        checkTops(doc);
        KRV_XML_FreeNode(doc);
    }
}

// ===== Attributes ===========================================================

TEST(Attributes, PrefixAndNameTogetherIdentifyAnAttribute)
{
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session document" : "heap element");
        krvtest::LeakGuard guard;
        XmlNode *el = session ? Document(true) : Element("e");
        ASSERT_EQ(KRV_XML_AddAttr(el, nullptr, "x", "plain"), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AddAttr(el, "a", "x", "in a"), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AddAttr(el, "b", "x", nullptr), KRV_XML_OK);
        EXPECT_EQ(attrList(el), "x=plain a:x=in a b:x=~");
        for (const char *prefix : {static_cast<const char *>(nullptr), "", "a", "b"}) {
            EXPECT_EQ(KRV_XML_AddAttr(el, prefix, "x", "dup"), KRV_XML_ERR_ALREADY_EXISTS) << Str(prefix);
        }
        struct Lookup {
            const char *prefix, *name;
            uint32_t rc;
            const char *value;
        };
        for (const Lookup &l : {Lookup{nullptr, "x", KRV_XML_OK, "plain"}, Lookup{"", "x", KRV_XML_ERR_NOT_FOUND, "?"},
                                Lookup{"a", "x", KRV_XML_OK, "in a"}, Lookup{"b", "x", KRV_XML_OK, nullptr},
                                Lookup{"c", "x", KRV_XML_ERR_NOT_FOUND, "?"}, Lookup{"a", "X", KRV_XML_ERR_NOT_FOUND, "?"},
                                Lookup{"A", "x", KRV_XML_ERR_NOT_FOUND, "?"}, Lookup{nullptr, "y", KRV_XML_ERR_NOT_FOUND, "?"}}) {
            const char *value = "?";
            EXPECT_EQ(KRV_XML_GetAttr(el, l.prefix, l.name, &value), l.rc) << l.name;
            EXPECT_EQ(Str(value), Str(l.value));
        }
        ASSERT_EQ(KRV_XML_SetAttr(el, "a", "x", "changed"), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_RemoveAttr(el, "", "x"), KRV_XML_OK);
        EXPECT_EQ(attrList(el), "a:x=changed b:x=~");
        EXPECT_EQ(KRV_XML_RemoveAttr(el, nullptr, "x"), KRV_XML_ERR_NOT_FOUND);
        EXPECT_EQ(KRV_XML_SetAttr(el, nullptr, "x", "v"), KRV_XML_ERR_NOT_FOUND);
        KRV_XML_FreeNode(el);
    }
}

TEST(Attributes, ListOrderValuesAndRouting)
{
    krvtest::LeakGuard guard;
    XmlNode *el = Element("e");
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
        EXPECT_EQ(attrList(el), "c=" + (v != nullptr && *v != '\0' ? std::string(v) : "~"));
    }
    ASSERT_EQ(KRV_XML_AddAttr(el, "", "d", ""), KRV_XML_OK);
    EXPECT_EQ(attrList(el), "c=~ d=~") << "an empty prefix is none";

    XmlNode *doc = Document(true), *inDoc = Element("in", doc->mem);
    ASSERT_EQ(KRV_XML_AppendChildNode(doc, inDoc), KRV_XML_OK);
    live = krv_test::LiveBlocks();
    ASSERT_EQ(KRV_XML_AddAttr(inDoc, "p", "session", "value"), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_SetAttr(inDoc, "p", "session", "other"), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_RemoveAttr(inDoc, "p", "session"), KRV_XML_OK);
    EXPECT_EQ(krv_test::LiveBlocks(), live) << "a session document takes nothing from the heap";

    // The copy is made before the duplicate check: a failing allocation is what the caller hears of.
    krv_test::FailAllocationAt(1);
    EXPECT_EQ(KRV_XML_AddAttr(el, nullptr, "c", "dup"), KRV_XML_ERR_NO_MEMORY);
    krv_test::FailAllocationAt(0);

    XmlNode *attr = el->firstAttr;
    const char *out = "?";
    for (uint32_t rc : {KRV_XML_AddAttr(nullptr, nullptr, "n", "v"), KRV_XML_AddAttr(el, nullptr, nullptr, "v"),
                        KRV_XML_AddAttr(el, nullptr, "", "v"), KRV_XML_AddAttr(attr, nullptr, "n", "v"),
                        KRV_XML_SetAttr(nullptr, nullptr, "c", "v"), KRV_XML_SetAttr(el, nullptr, nullptr, "v"),
                        KRV_XML_SetAttr(attr, nullptr, "c", "v"), KRV_XML_RemoveAttr(nullptr, nullptr, "c"),
                        KRV_XML_RemoveAttr(el, nullptr, nullptr), KRV_XML_RemoveAttr(attr, nullptr, "c"),
                        KRV_XML_GetAttr(nullptr, nullptr, "c", &out), KRV_XML_GetAttr(el, nullptr, nullptr, &out),
                        KRV_XML_GetAttr(el, nullptr, "c", nullptr), KRV_XML_GetAttr(attr, nullptr, "c", &out)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_STREQ(out, "?");
    EXPECT_EQ(attrList(el), "c=~ d=~");
    KRV_XML_FreeNode(el);
    KRV_XML_FreeNode(doc);
}

TEST(Attributes, BothWalksVisitEveryAttributeInOrder)
{
    krvtest::LeakGuard guard;
    XmlNode *el = Element("e"), *holder = Element("holder"), *bare = Element("bare");
    XmlNode *follower = Element("follower", nullptr, "fv");
    ASSERT_EQ(KRV_XML_AppendChildNode(holder, bare), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AppendChildNode(holder, follower), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(el, "p", "a", "1"), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(el, nullptr, "b", "2"), KRV_XML_OK);
    ASSERT_EQ(KRV_XML_AddAttr(el, "q", "a", "3"), KRV_XML_OK);
    std::string byName, byCursor;
    const char *p = nullptr, *n = nullptr, *v = nullptr;
    auto item = [&] { return (p != nullptr ? std::string(p) + ":" : "") + n + "=" + v + " "; };
    // By name: each step searches with what the last step handed out.
    ASSERT_EQ(KRV_XML_GetFirstAttr(el, &p, &n, &v), KRV_XML_OK);
    do {
        byName += item();
    } while (KRV_XML_GetNextSiblingAttr(el, p, n, &p, &n, &v) == KRV_XML_OK);
    EXPECT_EQ(byName, "p:a=1 b=2 q:a=3 ");
    for (const char *prefix : {"", "z"}) {  // an empty prefix is a prefix no attribute has
        EXPECT_EQ(KRV_XML_GetNextSiblingAttr(el, prefix, prefix[0] == '\0' ? "b" : "a", &p, &n, &v),
                  KRV_XML_ERR_NOT_FOUND);
    }
    // By cursor: from null to the end (null again), twice; it steps along its own `next`, whatever it is.
    XmlNode *cursor = nullptr;
    for (int round = 0; round < 2; ++round) {
        while (KRV_XML_GetNextSiblingAttrEx(el, &p, &n, &v, &cursor) == KRV_XML_OK) {
            EXPECT_EQ(cursor->value, v);
            byCursor += item();
        }
        EXPECT_EQ(cursor, nullptr);
    }
    EXPECT_EQ(byCursor, byName + byName);
    ASSERT_EQ(KRV_XML_GetFirstAttrEx(el, &p, &n, &v, &cursor), KRV_XML_OK);
    EXPECT_EQ(cursor, el->firstAttr);
    cursor = bare;
    ASSERT_EQ(KRV_XML_GetNextSiblingAttrEx(el, &p, &n, &v, &cursor), KRV_XML_OK);
    EXPECT_TRUE(cursor == follower && v == follower->value);
    EXPECT_EQ(KRV_XML_GetNextSiblingAttrEx(el, &p, &n, &v, &cursor), KRV_XML_ERR_NOT_FOUND);
    p = n = v = "?";
    EXPECT_EQ(KRV_XML_GetFirstAttr(bare, &p, &n, &v), KRV_XML_ERR_NOT_FOUND);
    EXPECT_EQ(KRV_XML_GetFirstAttrEx(bare, &p, &n, &v, &cursor), KRV_XML_ERR_NOT_FOUND);
    XmlNode *attr = el->firstAttr;
    for (uint32_t rc : {KRV_XML_GetFirstAttr(nullptr, &p, &n, &v), KRV_XML_GetFirstAttr(el, nullptr, &n, &v),
                        KRV_XML_GetFirstAttr(el, &p, nullptr, &v), KRV_XML_GetFirstAttr(el, &p, &n, nullptr),
                        KRV_XML_GetFirstAttr(attr, &p, &n, &v), KRV_XML_GetFirstAttrEx(el, nullptr, &n, &v, &cursor),
                        KRV_XML_GetFirstAttrEx(el, &p, nullptr, &v, &cursor),
                        KRV_XML_GetFirstAttrEx(el, &p, &n, nullptr, &cursor),
                        KRV_XML_GetNextSiblingAttr(el, "p", nullptr, &p, &n, &v),
                        KRV_XML_GetNextSiblingAttr(el, "p", "a", nullptr, &n, &v),
                        KRV_XML_GetNextSiblingAttr(el, "p", "a", &p, nullptr, &v),
                        KRV_XML_GetNextSiblingAttr(el, "p", "a", &p, &n, nullptr),
                        KRV_XML_GetNextSiblingAttr(attr, "p", "a", &p, &n, &v),
                        KRV_XML_GetNextSiblingAttrEx(el, &p, &n, &v, nullptr),
                        KRV_XML_GetNextSiblingAttrEx(el, nullptr, &n, &v, &cursor),
                        KRV_XML_GetNextSiblingAttrEx(el, &p, nullptr, &v, &cursor),
                        KRV_XML_GetNextSiblingAttrEx(el, &p, &n, nullptr, &cursor),
                        KRV_XML_GetNextSiblingAttrEx(attr, &p, &n, &v, &cursor)}) {
        EXPECT_EQ(rc, KRV_XML_ERR_INVALID_PARAM);
    }
    EXPECT_TRUE(std::string(p) + n + v == "???" && cursor == nullptr) << "nothing written on failure";
    KRV_XML_FreeNode(el);
    KRV_XML_FreeNode(holder);
}

// Seeded random edits grow lists well past the indexed length and shrink them again, in each place an
// index is kept: every answer must be the one a plain walk of a model list gives.
TEST(Attributes, LongListsAnswerAsAWalkWouldThroughEveryEdit)
{
    struct Item {
        const char *prefix;  // null or one of the pool's
        std::string name, value;
        XmlNode *record;
    };
    static const char *const kPrefixes[] = {nullptr, "p", "q"};
    static const char *const kPlaces[] = {"heap element", "parsed heap document", "session element",
                                          "parsed session document"};
    for (int place = 0; place < 4; ++place) {
        SCOPED_TRACE(kPlaces[place]);
        krvtest::LeakGuard guard;
        // Parsed documents start with 40 attributes and no index until an edit meets them.
        const bool parsed = place == 1 || place == 3;
        std::string text = "<e";
        for (int i = 0; i < 40; ++i) {
            text += " " + nth(i) + "='v" + std::to_string(i) + "'";
        }
        XmlNode *top = place == 0 ? Element("e") : parsed ? krvtest::MustParse(text + "/>", place == 3) : Document(true);
        ASSERT_NE(top, nullptr);
        XmlNode *el = place == 2 ? Element("e", top->mem) : top;
        ASSERT_TRUE(el == top || KRV_XML_AppendChildNode(top, el) == KRV_XML_OK);
        // Two places number their index entries close to the end of the range, so that the numbers wrap.
        krv_test::SetAttrOrderStart(place % 2 == 0 ? UINT32_MAX - 100 : 0);
        std::vector<Item> model;
        for (XmlNode *a = el->firstAttr; a != nullptr; a = a->next) {
            model.push_back(Item{nullptr, a->name, a->value, a});
        }
        std::mt19937 rng(static_cast<unsigned>(7 + place));
        auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
        auto first = [&](const char *prefix, const std::string &name) {
            return std::find_if(model.begin(), model.end(),
                                [&](const Item &i) { return Str(i.prefix) == Str(prefix) && i.name == name; });
        };
        size_t longest = 0;
        for (int step = 0; step < 6000; ++step) {
            // Grow, shrink, grow again; parsed lists shrink first, so that edits other than appends meet them.
            int addPercent = (step < 2000) != parsed ? 55 : step < 4000 ? 12 : 45;
            const char *prefix = kPrefixes[pick(3)];
            std::string name = "n" + std::to_string(pick(300)), value = "v" + std::to_string(step);
            if (!model.empty() && pick(2) == 0) {
                const Item &hit = model[pick(model.size())];
                prefix = hit.prefix;
                name = hit.name;
            }
            auto found = first(prefix, name);
            const bool known = found != model.end();
            int roll = static_cast<int>(pick(100));
            if (roll < addPercent) {
                ASSERT_EQ(KRV_XML_AddAttr(el, prefix, name.c_str(), value.c_str()),
                          known ? KRV_XML_ERR_ALREADY_EXISTS : KRV_XML_OK) << step;
                XmlNode *last = el->firstAttr;
                while (last != nullptr && last->next != nullptr) {
                    last = last->next;
                }
                if (!known) {
                    model.push_back(Item{prefix, name, value, last});
                }
            } else if (roll < addPercent + 30) {
                ASSERT_EQ(KRV_XML_RemoveAttr(el, prefix, name.c_str()), known ? KRV_XML_OK : KRV_XML_ERR_NOT_FOUND)
                    << step;
                if (known) {
                    model.erase(found);
                }
            } else if (roll < addPercent + 40) {
                const char *got = "?";
                ASSERT_EQ(known ? KRV_XML_SetAttr(el, prefix, name.c_str(), value.c_str())
                                : KRV_XML_GetAttr(el, prefix, name.c_str(), &got),
                          known ? KRV_XML_OK : KRV_XML_ERR_NOT_FOUND) << step;
                if (known) {
                    found->value = value;
                }
            } else if (!model.empty() && roll < addPercent + 50) {
                // Renames through both setters; some make two attributes share a key, which is allowed.
                Item &item = model[pick(model.size())];
                const char *newPrefix = pick(4) == 0 ? "" : prefix;
                bool exported = pick(2) == 0;
                ASSERT_EQ(exported ? KRV_XML_SetNode(item.record, newPrefix, name.c_str(), nullptr)
                                   : XML_SetNode(top, item.record, newPrefix, name.c_str(), nullptr),
                          KRV_XML_OK) << step;
                if (newPrefix != nullptr && (newPrefix[0] != '\0' || exported)) {  // null keeps the prefix,
                    item.prefix = newPrefix[0] != '\0' ? newPrefix : nullptr;  // "" clears it if exported
                }
                item.name = name;
            } else if (!model.empty() && roll < addPercent + 55) {
                size_t at = pick(model.size());
                KRV_XML_FreeNode(model[at].record);
                model.erase(model.begin() + static_cast<std::ptrdiff_t>(at));
            }
            longest = std::max(longest, model.size());
            const XmlNode *a = el->firstAttr;
            for (const Item &i : model) {
                ASSERT_TRUE(a == i.record && a->parent == el && Str(a->nsPrefix) == Str(i.prefix) && a->name == i.name &&
                            Str(a->value) == i.value)
                    << "step " << step << " at " << i.name;
                a = a->next;
            }
            ASSERT_EQ(a, nullptr) << "step " << step;
            for (size_t i = 0; step % 100 == 0 && i < model.size(); ++i) {
                const char *got = "?";
                ASSERT_EQ(KRV_XML_GetAttr(el, model[i].prefix, model[i].name.c_str(), &got), KRV_XML_OK);
                EXPECT_EQ(Str(got), first(model[i].prefix, model[i].name)->value) << "the first of equal keys answers";
            }
        }
        krv_test::SetAttrOrderStart(0);
        EXPECT_GT(longest, 4 * kAttrWalk);
        XmlNode *copy = nullptr;
        ASSERT_EQ(KRV_XML_CloneNodeSelf(el, &copy), KRV_XML_OK);
        EXPECT_EQ(attrList(copy), attrList(el));
        KRV_XML_FreeNode(copy);
        KRV_XML_FreeNode(top);
    }
}

// Records chained after one that XML_AddAttrNode links are followed: appends go after them, all are found.
TEST(Attributes, ChainsLinkedToALongListAreFollowedToTheirEnd)
{
    krvtest::LeakGuard guard;
    XmlNode *el = Element("e");
    auto fromHead = [&] {
        std::string out;
        for (const XmlNode *a = el->firstAttr; a != nullptr; a = a->next) {
            out += out.empty() && std::string(a->name) != "head" ? "" : std::string(a->name) + " ";
        }
        return out;
    };
    addNumbered(el, 0, 2 * kAttrWalk);
    XmlNode *head = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    XmlNode *second = XML_NewNode(nullptr, KRV_XML_NODE_ATTRIBUTE);
    ASSERT_EQ(XML_SetNode(nullptr, head, nullptr, "head", "1"), KRV_XML_OK);
    ASSERT_EQ(XML_SetNode(nullptr, second, nullptr, "second", "2"), KRV_XML_OK);
    head->next = second;
    ASSERT_EQ(XML_AddAttrNode(head, el), KRV_XML_OK);  // second keeps its null owner
    ASSERT_EQ(KRV_XML_AddAttr(el, nullptr, "after", "3"), KRV_XML_OK);
    EXPECT_EQ(fromHead(), "head second after ");
    const char *got = nullptr;
    EXPECT_EQ(KRV_XML_GetAttr(el, nullptr, "second", &got), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_AddAttr(el, nullptr, "second", "dup"), KRV_XML_ERR_ALREADY_EXISTS);
    ASSERT_EQ(KRV_XML_SetNode(second, nullptr, "renamed", nullptr), KRV_XML_OK);
    EXPECT_EQ(KRV_XML_GetAttr(el, nullptr, "second", &got), KRV_XML_ERR_NOT_FOUND);
    EXPECT_EQ(KRV_XML_RemoveAttr(el, nullptr, "renamed"), KRV_XML_OK);
    EXPECT_EQ(fromHead(), "head after ");
    KRV_XML_FreeNode(el);
}

// Once a long list is short again, the element holds exactly what a list that never grew holds.
TEST(Attributes, AnIndexIsGivenUpWhenItsListIsShortAgain)
{
    krvtest::LeakGuard guard;
    XmlNode *el = Element("e");
    long bare = krv_test::LiveBlocks();
    addNumbered(el, 0, 4);
    const long shortList = krv_test::LiveBlocks() - bare;
    addNumbered(el, 4, 300);
    EXPECT_EQ(krv_test::LiveBlocks() - bare, 300 / 4 * shortList + 2) << "records, strings and an index of two blocks";
    for (int i = 299; i >= 4; --i) {
        ASSERT_EQ(KRV_XML_RemoveAttr(el, nullptr, nth(i).c_str()), KRV_XML_OK);
    }
    EXPECT_EQ(krv_test::LiveBlocks() - bare, shortList);
    KRV_XML_FreeNode(el);
}

// Many elements of one session hold indexes at once (the session's table of them grows and is rebuilt):
// each answers for its own list through edits.
TEST(Attributes, ManyIndexedElementsOfOneSessionEachAnswerForTheirOwnList)
{
    constexpr int kElements = 40, kLength = 2 * kAttrWalk;
    std::string text = "<r>";
    for (int e = 0; e < kElements; ++e) {
        text += "<e";
        for (int i = 0; i < kLength; ++i) {
            text += " " + nth(i) + "='" + std::to_string(e) + "'";
        }
        text += "/>";
    }
    krvtest::LeakGuard guard;
    XmlNode *doc = krvtest::MustParse(text + "</r>", true);
    for (XmlNode *e = doc->firstChild; e != nullptr; e = e->next) {  // an edit builds each element's index
        ASSERT_EQ(KRV_XML_AddAttr(e, nullptr, "new", "n"), KRV_XML_OK);
    }
    int e = 0;
    for (XmlNode *el = doc->firstChild; el != nullptr; el = el->next, ++e) {
        const std::string own = std::to_string(e);
        const char *got = nullptr;
        EXPECT_EQ(KRV_XML_AddAttr(el, nullptr, nth(kLength - 2).c_str(), "x"), KRV_XML_ERR_ALREADY_EXISTS);
        EXPECT_EQ(KRV_XML_SetAttr(el, nullptr, nth(kLength - 1).c_str(), ("s" + own).c_str()), KRV_XML_OK);
        EXPECT_EQ(KRV_XML_RemoveAttr(el, nullptr, nth(1).c_str()), KRV_XML_OK);
        EXPECT_EQ(KRV_XML_RemoveAttr(el, nullptr, nth(1).c_str()), KRV_XML_ERR_NOT_FOUND);
        ASSERT_EQ(KRV_XML_GetAttr(el, nullptr, nth(kLength - 3).c_str(), &got), KRV_XML_OK);
        EXPECT_EQ(Str(got), own);
        std::string expected;
        for (int i = 0; i < kLength; ++i) {
            expected += i == 1 ? "" : nth(i) + "=" + (i == kLength - 1 ? "s" : "") + own + " ";
        }
        EXPECT_EQ(attrList(el), expected + "new=n");
    }
    EXPECT_EQ(e, kElements);
    KRV_XML_FreeNode(doc);
}

// An unindexable list (a key repeated past the bound) waits before the next build, then gets one in time.
TEST(Attributes, AListThatRefusedAnIndexWaitsBeforeTheNextTry)
{
    constexpr int kLength = 64;
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session" : "heap");
        krvtest::LeakGuard guard;
        XmlNode *doc = krvtest::MustParse("<r><e/></r>", session), *el = doc->firstChild;
        addNumbered(el, 0, kLength);
        ASSERT_NE(xmlAttrIndexOf(el), nullptr);
        auto renameFirstTen = [&](bool same) {
            XmlNode *a = el->firstAttr;
            for (int i = 0; i < 10; ++i, a = a->next) {
                ASSERT_EQ(KRV_XML_SetNode(a, nullptr, same ? "same" : ("b" + std::to_string(i)).c_str(), nullptr),
                          KRV_XML_OK);
            }
        };
        renameFirstTen(true);
        // A search for a missing name walks the whole list, as an edit.
        EXPECT_EQ(KRV_XML_RemoveAttr(el, nullptr, "missing"), KRV_XML_ERR_NOT_FOUND);
        EXPECT_EQ(xmlAttrIndexOf(el), nullptr);
        const long before = krv_test::AllocationCount();
        for (int i = 0; i < kLength / 2; ++i) {
            EXPECT_EQ(KRV_XML_RemoveAttr(el, nullptr, "missing"), KRV_XML_ERR_NOT_FOUND);
        }
        EXPECT_EQ(krv_test::AllocationCount(), before) << "no build tried while waiting";
        renameFirstTen(false);
        int edits = 0;
        for (; xmlAttrIndexOf(el) == nullptr && edits <= kLength; ++edits) {
            EXPECT_EQ(KRV_XML_RemoveAttr(el, nullptr, "missing"), KRV_XML_ERR_NOT_FOUND);
        }
        EXPECT_LE(edits, kLength);
        const char *got = nullptr;
        EXPECT_EQ(KRV_XML_GetAttr(el, nullptr, "b9", &got), KRV_XML_OK);
        EXPECT_EQ(KRV_XML_GetAttr(el, nullptr, "a63", &got), KRV_XML_OK);
        KRV_XML_FreeNode(doc);
    }
}

// Without memory for the index (its build, growth or session table) appends and searches succeed and answer.
TEST(Attributes, LongListsKeepAnsweringWhenTheIndexGetsNoMemory)
{
    // Every attribute answers; a new one is refused twice, one in the middle is removed and added again.
    auto answersAll = [](XmlNode *el, size_t count) {
        size_t seen = 0;
        for (const XmlNode *a = el->firstAttr; a != nullptr; a = a->next, ++seen) {
            const char *got = nullptr;
            EXPECT_EQ(KRV_XML_GetAttr(el, nullptr, a->name, &got), KRV_XML_OK);
            EXPECT_EQ(got, a->value);
        }
        EXPECT_EQ(seen, count);
        EXPECT_EQ(KRV_XML_AddAttr(el, nullptr, "extra", "x"), KRV_XML_OK);
        EXPECT_EQ(KRV_XML_AddAttr(el, nullptr, "extra", "y"), KRV_XML_ERR_ALREADY_EXISTS);
        EXPECT_EQ(KRV_XML_RemoveAttr(el, nullptr, nth(count / 2).c_str()), KRV_XML_OK);
        EXPECT_EQ(KRV_XML_AddAttr(el, nullptr, nth(count / 2).c_str(), "back"), KRV_XML_OK);
        std::string list = attrList(el), tail = " extra=x " + nth(count / 2) + "=back";
        EXPECT_EQ(list.substr(list.size() - std::min(list.size(), tail.size())), tail);
    };
    // Appends that build the index (the 17th, into 64 slots) and that grow it (the 33rd).
    for (size_t before : {kAttrWalk, size_t{32}}) {
        for (bool session : {false, true}) {
            SCOPED_TRACE(std::string(session ? "session" : "heap") + ", appending to " + std::to_string(before));
            struct Fixture {
                XmlNode *top, *el;
            };
            long points = krvtest::SweepAllocationFailures(
                [&] {
                    XmlNode *top = Document(session), *el = Element("e", top->mem);
                    EXPECT_EQ(KRV_XML_AppendChildNode(top, el), KRV_XML_OK);
                    addNumbered(el, 0, before);
                    return Fixture{top, el};
                },
                [&](Fixture f) { return KRV_XML_AddAttr(f.el, nullptr, nth(before).c_str(), "new"); },
                [&](uint32_t rc, Fixture f) {
                    ASSERT_TRUE(rc == KRV_XML_OK || rc == KRV_XML_ERR_NO_MEMORY) << rc;
                    answersAll(f.el, before + (rc == KRV_XML_OK ? 1 : 0));
                    KRV_XML_FreeNode(f.top);
                },
                Failing::OnlyKth, true);
            EXPECT_GE(points, 1) << "the index's own allocations are among those failed";
        }
    }
    // A search past the 16th attribute of a parsed list builds its index: it answers whether or not that gets memory.
    std::string text = "<e";
    for (int i = 0; i < 40; ++i) {
        text += " " + nth(i) + "='v'";
    }
    for (bool session : {false, true}) {
        SCOPED_TRACE(std::string(session ? "session" : "heap") + ", searching a parsed list");
        long points = krvtest::SweepAllocationFailures(
            [&] { return krvtest::MustParse(text + "/>", session); },
            [&](XmlNode *el) {
                const char *prefix = "?", *name = "?", *value = "?";
                uint32_t rc = KRV_XML_GetNextSiblingAttr(el, nullptr, nth(30).c_str(), &prefix, &name, &value);
                EXPECT_TRUE(prefix == nullptr && Str(name) == nth(31) && Str(value) == "v");
                return rc;
            },
            [&](uint32_t rc, XmlNode *el) {
                EXPECT_EQ(rc, KRV_XML_OK);
                answersAll(el, 40);
                KRV_XML_FreeNode(el);
            },
            Failing::OnlyKth, true);
        EXPECT_GE(points, 1) << "the index's own allocations are among those failed";
    }
}

// ===== Clone ================================================================

// Parsed sessions and document copies (which skip clearing) leave memory as a cleared session's, also
// from dirty heap memory: zero past every block's cursor and in every record's and string's padding.
TEST(Clone, ParsedAndCopiedSessionsReadAsIfCleared)
{
    auto expectAsIfCleared = [](XmlNode *doc, int minBlocks, int minRecords) {
        int blocks = 0, records = 0;
        for (XmlMemSession *b = doc->mem; b != nullptr; b = b->nextBlock, ++blocks) {
            std::string rest(reinterpret_cast<const char *>(b->cursor), static_cast<size_t>(b->freeBytes));
            EXPECT_EQ(rest.find_first_not_of('\0'), std::string::npos) << "block " << blocks;
        }
        auto paddingZero = [](const XmlNode *n) {
            const auto *bytes = reinterpret_cast<const uint8_t *>(n);
            bool zero = std::all_of(bytes + offsetof(XmlNode, valueOwned) + 1, bytes + offsetof(XmlNode, parent),
                                    [](uint8_t c) { return c == 0; });
            for (const char *s : {n->name, n->value, n->nsPrefix}) {
                size_t len = s != nullptr ? std::strlen(s) : 0, piece = s != nullptr ? (len + 8) & ~size_t{7} : 0;
                for (size_t i = len; i < piece; ++i) {  // the NUL and the piece's padding
                    zero = zero && s[i] == '\0';
                }
            }
            return zero;
        };
        for (XmlNode *n = doc; n != nullptr; n = KRV_XML_Iterator(n), ++records) {
            EXPECT_TRUE(paddingZero(n)) << Str(n->name);
            for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next, ++records) {
                EXPECT_TRUE(paddingZero(a)) << Str(a->name);
            }
        }
        EXPECT_TRUE(blocks >= minBlocks && records >= minRecords) << blocks << " blocks, " << records << " records";
    };
    // Every kind of tag and text, mostly read in one pass; long texts at the end leave rests in blocks.
    // The session stays below the heap's mmap threshold, so its slabs come from the freed memory.
    std::string text = "<root_element>";
    for (int i = 0; i < 1000; ++i) {
        const std::string n = std::to_string(i);
        text += "<record_item number_attr='number_" + n + "' prefixed:key_name='value_" + std::string(i % 13, 'x') +
                "'>text_of_" + std::string(i % 11, 'y') + "</record_item>";
        text += "<p:item_" + std::string(i % 19, 'n') + " empty='' v='" + std::string(i % 41, 'v') + "'>" +
                std::string(i % 37, 't') + "</p:item_" + std::string(i % 19, 'n') + ">";
        if (i % 50 == 0) {
            text += "<coded a='x&amp;" + n + "' b='" + n + "'>t &lt; " + std::string(i % 29, 'c') + "</coded>";
        }
        if (i % 50 == 25) {
            text += "<c><![CDATA[raw <" + n + ">]]></c><!-- note --><two b='1' a='2'><leaf/></two>";
        }
        if (i % 97 == 0) {
            text += "<wide";
            for (int a = 0; a < 40 + i % 200; ++a) {
                text += " a" + std::to_string(a) + "='" + std::string(a % 7, 'w') + "'";
            }
            text += "/>";
        }
    }
    for (int i = 0; i < 12; ++i) {
        text += "<big>" + (i < 6 ? std::string(5000, 'z') + "&amp;" : std::string(3000, 'z')) + "</big>";
    }
    // Both texts end in short tags; the small one's last block is still being filled when the parse ends.
    std::string small = "<r>";
    for (int i = 0; i < 500; ++i) {
        const std::string at = " at='" + std::string(i % 23, 'l') + "'/>";
        small += "<item" + at;
        text += i < 100 ? "<after_big" + at : "";
    }
    text += "</root_element>";
    small += "</r>";
    struct Case {
        const std::string &text;
        int minBlocks, minRecords;
    };
    for (const Case &c : {Case{text, 100, 8000}, Case{small, 10, 1000}}) {
        XmlNode *reference = krvtest::MustParse(c.text, false);
        void *fence = krvtest::DirtyFreedHeap();
        XmlNode *doc = krvtest::MustParse(c.text, true), *copy = nullptr;
        std::free(fence);
        EXPECT_EQ(Dump(doc), Dump(reference));
        EXPECT_EQ(krvfuzz::CheckLinks(doc), "");  // prev, lastChild: fields a dump does not show
        expectAsIfCleared(doc, c.minBlocks, c.minRecords);
        fence = krvtest::DirtyFreedHeap();
        ASSERT_EQ(KRV_XML_CloneNode(doc, &copy), KRV_XML_OK);
        std::free(fence);
        EXPECT_EQ(Dump(copy), Dump(doc));
        expectAsIfCleared(copy, c.minBlocks, c.minRecords);
        for (XmlNode *n : {copy, doc, reference}) {
            KRV_XML_FreeNode(n);
        }
    }
}

// A copy is detached, of new records in the source's regime, with the same content; a document copy
// gets its own table and session and outlives its source.
TEST(Clone, CopiesAreDetachedInTheSourceRegimeWithAttributesAndSubtree)
{
    for (bool session : {false, true}) {
        SCOPED_TRACE(session ? "session document" : "heap document");
        krvtest::LeakGuard guard;
        // doc(before, e(attrs a, p:b, c; x(attr; y), z), after), e's name in the table.
        XmlNode *doc = krvtest::MustParse("<doc><before/><e a='1' p:b='' c='3'>text</e><after/></doc>", session);
        XmlNode *e = doc->firstChild->next, *x = Element("x", doc->mem);
        XML_InternName(doc, e);
        ASSERT_EQ(e->name, doc->nameTable[0]);
        ASSERT_EQ(KRV_XML_AppendChildNode(e, x), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AppendChildNode(x, Element("y", doc->mem, "deep")), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AppendChildNode(e, Element("z", doc->mem)), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_AddAttr(x, "q", "xa", "xv"), KRV_XML_OK);

        XmlNode *self = nullptr, *deep = nullptr, *docCopy = nullptr;
        ASSERT_EQ(KRV_XML_CloneNodeSelf(e, &self), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_CloneNode(e, &deep), KRV_XML_OK);
        ASSERT_EQ(KRV_XML_CloneNode(doc, &docCopy), KRV_XML_OK);
        const std::string docText = Dump(doc), sourceText = Dump(e);
        const std::vector<const void *> sourceRecords = snapshot(doc);
        auto expectAllIn = [&](XmlNode *copy, XmlMemSession *in) {
            EXPECT_EQ(krvfuzz::CheckLinks(copy), "");
            for (XmlNode *n = copy; n != nullptr; n = KRV_XML_Iterator(n)) {  // copy is detached
                EXPECT_EQ(n->mem, in);
                EXPECT_EQ(std::find(sourceRecords.begin(), sourceRecords.end(), n), sourceRecords.end());
                for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
                    EXPECT_EQ(a->mem, in);
                }
            }
        };
        EXPECT_TRUE(docCopy->kind == KRV_XML_NODE_DOCUMENT && docCopy->ownsSession == 1 &&
                    docCopy->nameTable[0][0] == '\0' && (docCopy->mem == nullptr || docCopy->mem != doc->mem));
        EXPECT_EQ(docCopy->mem != nullptr, session);
        expectAllIn(docCopy, docCopy->mem);
        EXPECT_EQ(Dump(docCopy), docText);
        for (XmlNode *c : {self, deep}) {
            EXPECT_TRUE(c->parent == nullptr && c->prev == nullptr && c->next == nullptr) << "detached";
            EXPECT_TRUE(c->nameOwned == 1 && c->name != e->name) << "the copy owns a private name";
            expectAllIn(c, doc->mem);
        }
        EXPECT_EQ(Dump(self), sourceText.substr(0, sourceText.find('\n') + 1));
        EXPECT_EQ(Dump(deep), sourceText);

        if (session) {
            long live = krv_test::LiveBlocks();
            KRV_XML_FreeNode(self);  // session copies go with the session
            EXPECT_EQ(krv_test::LiveBlocks(), live);
            EXPECT_EQ(KRV_XML_AppendChildNode(doc, deep), KRV_XML_OK) << "same session: may join";
            EXPECT_EQ(deep->name, doc->nameTable[0]) << "interned when inserted";
            KRV_XML_FreeNode(doc);
        } else {
            KRV_XML_FreeNode(doc);  // heap copies are independent of the source
            EXPECT_EQ(Dump(deep), sourceText);
            KRV_XML_FreeNode(self);
            KRV_XML_FreeNode(deep);
        }
        EXPECT_EQ(Dump(docCopy), docText) << "the document copy outlives its source";
        KRV_XML_FreeNode(docCopy);  // ends its own session; the guard sees the rest
    }
}

