// The top record of a heap tree without a walk of its depth.
//
// Insertion, attribute editing and copies need the top record of a node's
// tree: to refuse cycles, to find the document's name table and to refuse a
// top record with siblings. A session keeps facts about its trees; a heap
// tree has no shared place for them, so every heap element and document
// carries three hidden links past its record, and the tree is kept as a
// link-cut forest (Sleator and Tarjan): the tree is split into paths, each
// held in a splay tree ordered from the shallowest record to the deepest.
// `left` and `right` are splay children; `up` is the splay parent, or for
// the root of a splay tree the parent record of its path's shallowest
// record (null for the path that holds the tree's top).
//
// Links are zero when a record is made, and all-zero links stand for a path
// of the record alone whose `up` is its `parent`. So the parser and copies
// build trees without touching them, and a tree that is never edited deeply
// never pays for them. Every record given a splay child gets its `up`
// written first. An explicit null `up` on a record without splay children
// means the same as a zero one: that record is its tree's top.
//
// Only insertion (a record without parent gets one) and unlinking (a record
// loses its parent) change parents of existing heap records; both tell this
// file first. (Printing a sub-tree clears its top's links for the walk and
// restores them before any lookup can run.) Each lookup, link and cut costs amortised O(log n) splay
// steps, plus a short walk that answers shallow trees without any.
#include "xml/xml_internal.h"

namespace {

struct PathLinks {
    XmlNode *left;
    XmlNode *right;
    XmlNode *up;
};

PathLinks &linksOf(XmlNode *node)
{
    size_t at = node->kind == kKindDocument ? kHeapDocumentSize - sizeof(PathLinks)
                                            : kElementRecordSize;
    return *reinterpret_cast<PathLinks *>(reinterpret_cast<unsigned char *>(node) + at);
}

static_assert(kHeapElementSize == kElementRecordSize + sizeof(PathLinks) &&
                  kHeapDocumentSize >= kDocumentRecordSize + 8 + sizeof(PathLinks),
              "heap records have room for the path links");

bool untouched(const PathLinks &l)
{
    return l.left == nullptr && l.right == nullptr && l.up == nullptr;
}

// The splay parent, or for a splay root its path's parent record.
XmlNode *upOf(XmlNode *node)
{
    const PathLinks &l = linksOf(node);
    if (l.up != nullptr) {
        return l.up;
    }
    return l.left == nullptr && l.right == nullptr ? node->parent : nullptr;
}

bool isSplayRoot(XmlNode *node)
{
    XmlNode *up = upOf(node);
    if (up == nullptr) {
        return true;
    }
    const PathLinks &u = linksOf(up);
    return u.left != node && u.right != node;
}

// Turns node (a splay child) above its splay parent.
void rotate(XmlNode *node)
{
    PathLinks &n = linksOf(node);
    XmlNode *parent = n.up;
    PathLinks &p = linksOf(parent);
    XmlNode *grand = p.up;  // explicit: parent has a splay child
    bool parentWasRoot = isSplayRoot(parent);
    if (p.left == node) {
        p.left = n.right;
        if (n.right != nullptr) {
            linksOf(n.right).up = parent;
        }
        n.right = parent;
    } else {
        p.right = n.left;
        if (n.left != nullptr) {
            linksOf(n.left).up = parent;
        }
        n.left = parent;
    }
    p.up = node;
    n.up = grand;
    if (!parentWasRoot) {
        PathLinks &g = linksOf(grand);
        (g.left == parent ? g.left : g.right) = node;
    }
}

void splay(XmlNode *node)
{
    while (!isSplayRoot(node)) {
        XmlNode *parent = linksOf(node).up;
        if (!isSplayRoot(parent)) {
            XmlNode *grand = linksOf(parent).up;
            bool sameSide = (linksOf(grand).left == parent) == (linksOf(parent).left == node);
            rotate(sameSide ? parent : node);
        }
        rotate(node);
    }
}

// Makes the path from node's top record down to node one splay tree, with
// node at its root and nothing deeper in it.
void access(XmlNode *node)
{
    XmlNode *below = nullptr;
    for (XmlNode *at = node; at != nullptr;) {
        splay(at);
        PathLinks &l = linksOf(at);
        if (untouched(l)) {
            l.up = at->parent;  // about to get a splay child: say where it leads
        }
        l.right = below;  // the deeper part of its path becomes a path of its own
        if (below != nullptr) {
            linksOf(below).up = at;
        }
        below = at;
        at = l.up;
    }
    splay(node);
}

// Most lookups are answered by a few steps up: only deeper trees use the links.
#ifdef KRVXML_TESTING
int shortWalkSteps = 24;
#else
constexpr int shortWalkSteps = 24;
#endif

}  // namespace

#ifdef KRVXML_TESTING
void krv_test::SetHeapShortWalk(int steps)
{
    shortWalkSteps = steps;
}
#endif

XmlNode *xmlHeapTopOf(XmlNode *node)
{
    XmlNode *top = node;
    for (int step = 0; step < shortWalkSteps; ++step) {
        if (top->parent == nullptr) {
            return top;
        }
        top = top->parent;
    }
    access(node);
    top = node;
    while (linksOf(top).left != nullptr) {
        top = linksOf(top).left;
    }
    splay(top);  // pays for the descent
    return top;
}

void xmlHeapBeforeLink(XmlNode *node)
{
    if (!untouched(linksOf(node))) {
        // node is its tree's top: afterwards it heads a splay tree of its
        // own, without splay children and with a null `up`, which reads as
        // "the path's parent is node's parent" once that is set.
        access(node);
    }
}

void xmlHeapBeforeCut(XmlNode *node)
{
    PathLinks &l = linksOf(node);
    if (untouched(l)) {
        return;  // a path of its own: nothing ties it to its parent
    }
    access(node);
    // The records above node form the left part (node has a parent); split
    // it off. node's `up` is null already, as its path now starts at the top,
    // so node's tree keeps no link into the tree it leaves.
    linksOf(l.left).up = nullptr;
    l.left = nullptr;
}
