// The top record of a deep tree without a walk of its depth.
//
// Insertion, attribute editing and copies need the top record of a node's
// tree: to refuse cycles, to find the document's name table and to refuse a
// top record with siblings. A session answers most lookups from facts about
// its trees; for the rest, and for every heap tree, the tree is kept as a
// link-cut forest (Sleator and Tarjan): the tree is split into paths, each
// held in a splay tree ordered from the shallowest record to the deepest.
// `left` and `right` are splay children; `up` is the splay parent, or for
// the root of a splay tree the parent record of its path's shallowest
// record (null for the path that holds the tree's top). Heap elements and
// documents carry the three links past their record; session records are
// carved byte-exact, so their session keeps them in a table on the heap.
//
// Links are zero when a record is made, and all-zero links stand for a path
// of the record alone whose `up` is its `parent`. So the parser and copies
// build trees without touching them, and a tree that is never edited deeply
// never pays for them. Every record given a splay child gets its `up`
// written first. An explicit null `up` on a record without splay children
// means the same as a zero one: that record is its tree's top. Zero links
// are also always true of any tree: a session table that cannot grow is
// simply dropped.
//
// Only insertion (a record without parent gets one) and unlinking (a record
// loses its parent) change parents of existing records; both tell this file
// first. (Printing a sub-tree clears its top's links for the walk and
// restores them before any lookup can run.) Each lookup, link and cut costs
// amortised O(log n) splay steps, plus a short walk that answers shallow
// trees without any.
#include "xml/xml_internal.h"

namespace {

struct PathLinks {
    XmlNode *left;
    XmlNode *right;
    XmlNode *up;
};

bool untouched(const PathLinks &l)
{
    return l.left == nullptr && l.right == nullptr && l.up == nullptr;
}

// Heap records carry their links past the record.
struct InRecord {
    static PathLinks &at(XmlNode *node)
    {
        size_t offset = node->kind == kKindDocument ? kHeapDocumentLinks : kElementRecordSize;
        return *reinterpret_cast<PathLinks *>(reinterpret_cast<unsigned char *>(node) + offset);
    }
    static const PathLinks &peek(XmlNode *node) { return at(node); }
    static PathLinks *claim(XmlNode *node) { return &at(node); }
};

static_assert(kHeapElementSize >= kElementRecordSize + sizeof(PathLinks) + sizeof(void *) &&
                  kHeapDocumentSize >= kHeapDocumentLinks + sizeof(PathLinks) + sizeof(void *),
              "heap records have room for the path links");

}  // namespace

// Session records are carved byte-exact, so their links live in a table on
// the heap, keyed by record address: a record without an entry has zero
// links. A session releases no record before it ends, so addresses are never
// reused while the table lives.
struct SessionPaths {
    size_t used;  // entries with a key
    size_t bits;  // the table has 1 << bits slots
};

namespace {

struct PathSlot {
    XmlNode *key;
    PathLinks links;
};

constexpr size_t kFirstPathBits = 8;

PathSlot *slotsOf(SessionPaths *table)
{
    return reinterpret_cast<PathSlot *>(table + 1);
}

size_t homeOf(const XmlNode *key, size_t bits)
{
    return static_cast<size_t>((reinterpret_cast<uintptr_t>(key) * 0x9E3779B97F4A7C15ull) >> (64 - bits));
}

PathLinks *findIn(SessionPaths *table, const XmlNode *key)
{
    if (table == nullptr) {
        return nullptr;
    }
    size_t mask = (size_t{1} << table->bits) - 1;
    PathSlot *slots = slotsOf(table);
    for (size_t i = homeOf(key, table->bits);; i = (i + 1) & mask) {
        if (slots[i].key == key) {
            return &slots[i].links;
        }
        if (slots[i].key == nullptr) {
            return nullptr;
        }
    }
}

PathSlot *emptySlotFor(SessionPaths *table, const XmlNode *key)
{
    size_t mask = (size_t{1} << table->bits) - 1;
    PathSlot *slots = slotsOf(table);
    size_t i = homeOf(key, table->bits);
    while (slots[i].key != nullptr) {
        i = (i + 1) & mask;
    }
    return &slots[i];
}

// A new table holding the entries of `old` whose links are not all zero (a
// zero entry means what no entry means), at most a quarter full; null when
// memory ran out, and `old` is then left as it was.
SessionPaths *remade(SessionPaths *old)
{
    size_t live = 0;
    size_t oldSlots = old != nullptr ? size_t{1} << old->bits : 0;
    for (size_t i = 0; i < oldSlots; ++i) {
        const PathSlot &slot = slotsOf(old)[i];
        live += slot.key != nullptr && !untouched(slot.links) ? 1 : 0;
    }
    size_t bits = kFirstPathBits;
    while ((size_t{1} << bits) < 4 * (live + 1)) {
        ++bits;
    }
    auto *table = static_cast<SessionPaths *>(krvHeapMalloc(sizeof(SessionPaths) + (sizeof(PathSlot) << bits)));
    if (table == nullptr) {
        return nullptr;
    }
    table->used = live;
    table->bits = bits;
    std::memset(slotsOf(table), 0, sizeof(PathSlot) << bits);
    for (size_t i = 0; i < oldSlots; ++i) {
        const PathSlot &slot = slotsOf(old)[i];
        if (slot.key != nullptr && !untouched(slot.links)) {
            *emptySlotFor(table, slot.key) = slot;
        }
    }
    return table;
}

// Links of one session's records. `claim` may make an entry, which moves
// the others: a reference from `at` or `peek` is good until the next claim.
class InTable {
public:
    explicit InTable(SessionPaths *&table) : table_(table) {}
    PathLinks &at(XmlNode *node) const { return *findIn(table_, node); }  // has an entry
    const PathLinks &peek(XmlNode *node) const
    {
        static const PathLinks kNone{nullptr, nullptr, nullptr};
        const PathLinks *l = findIn(table_, node);
        return l != nullptr ? *l : kNone;
    }
    PathLinks *claim(XmlNode *node)
    {
        if (PathLinks *l = findIn(table_, node)) {
            return l;
        }
        // Kept at most half full: a rebuild costs as much as the claims
        // that filled the quarter it leaves free.
        if (table_ == nullptr || 2 * (table_->used + 1) > (size_t{1} << table_->bits)) {
            SessionPaths *grown = remade(table_);
            if (grown == nullptr) {
                return nullptr;
            }
            krvHeapFree(table_);
            table_ = grown;
        }
        PathSlot *slot = emptySlotFor(table_, node);
        slot->key = node;
        slot->links = PathLinks{nullptr, nullptr, nullptr};
        ++table_->used;
        return &slot->links;
    }

private:
    SessionPaths *&table_;
};

// The splay parent, or for a splay root its path's parent record.
template <class Links>
inline __attribute__((always_inline)) XmlNode *upOf(Links &links, XmlNode *node)
{
    const PathLinks &l = links.peek(node);
    if (l.up != nullptr) {
        return l.up;
    }
    return l.left == nullptr && l.right == nullptr ? node->parent : nullptr;
}

template <class Links>
inline __attribute__((always_inline)) bool isSplayRoot(Links &links, XmlNode *node)
{
    XmlNode *up = upOf(links, node);
    if (up == nullptr) {
        return true;
    }
    const PathLinks &u = links.peek(up);
    return u.left != node && u.right != node;
}

// Turns node (a splay child) above its splay parent.
template <class Links>
inline __attribute__((always_inline)) void rotate(Links &links, XmlNode *node)
{
    PathLinks &n = links.at(node);
    XmlNode *parent = n.up;
    PathLinks &p = links.at(parent);
    XmlNode *grand = p.up;  // explicit: parent has a splay child
    bool parentWasRoot = isSplayRoot(links, parent);
    if (p.left == node) {
        p.left = n.right;
        if (n.right != nullptr) {
            links.at(n.right).up = parent;
        }
        n.right = parent;
    } else {
        p.right = n.left;
        if (n.left != nullptr) {
            links.at(n.left).up = parent;
        }
        n.left = parent;
    }
    p.up = node;
    n.up = grand;
    if (!parentWasRoot) {
        PathLinks &g = links.at(grand);
        (g.left == parent ? g.left : g.right) = node;
    }
}

template <class Links>
void splay(Links &links, XmlNode *node)
{
    while (!isSplayRoot(links, node)) {
        XmlNode *parent = links.at(node).up;
        if (!isSplayRoot(links, parent)) {
            XmlNode *grand = links.at(parent).up;
            bool sameSide = (links.at(grand).left == parent) == (links.at(parent).left == node);
            rotate(links, sameSide ? parent : node);
        }
        rotate(links, node);
    }
}

// Makes the path from node's top record down to node one splay tree, with
// node at its root and nothing deeper in it. False when a session's table
// could not take an entry: the forest is then whole, with the work done so
// far (every pass of the loop leaves it so), and node is not accessed.
template <class Links>
inline __attribute__((always_inline)) bool access(Links &links, XmlNode *node)
{
    XmlNode *below = nullptr;
    for (XmlNode *at = node; at != nullptr;) {
        splay(links, at);
        PathLinks *l = links.claim(at);
        if (l == nullptr) {
            return false;
        }
        if (untouched(*l)) {
            l->up = at->parent;  // about to get a splay child: say where it leads
        }
        l->right = below;  // the deeper part of its path becomes a path of its own
        XmlNode *next = l->up;
        if (below != nullptr) {
            links.at(below).up = at;
        }
        below = at;
        at = next;
    }
    splay(links, node);
    return true;
}

// The shallowest record of node's path once node is accessed: its top.
template <class Links>
XmlNode *topAfterAccess(Links &links, XmlNode *node)
{
    XmlNode *top = node;
    while (links.peek(top).left != nullptr) {
        top = links.peek(top).left;
    }
    splay(links, top);  // pays for the descent
    return top;
}

template <class Links>
void beforeLink(Links &links, XmlNode *node)
{
    if (!untouched(links.peek(node))) {
        // node is its tree's top: afterwards it heads a splay tree of its
        // own, without splay children and with a null `up`, which reads as
        // "the path's parent is node's parent" once that is set. node has
        // an entry, so no claim can fail here.
        access(links, node);
    }
}

// False when the cut could not be prepared (a session's table is full).
template <class Links>
bool beforeCut(Links &links, XmlNode *node)
{
    if (untouched(links.peek(node))) {
        return true;  // a path of its own: nothing ties it to its parent
    }
    if (!access(links, node)) {
        return false;
    }
    // The records above node form the left part (node has a parent); split
    // it off. node's `up` is null already, as its path now starts at the top,
    // so node's tree keeps no link into the tree it leaves.
    PathLinks &l = links.at(node);
    links.at(l.left).up = nullptr;
    l.left = nullptr;
    return true;
}

}  // namespace

#ifdef KRVXML_TESTING
int xmlShortWalkSteps = 24;

void krv_test::SetShortWalk(int steps)
{
    xmlShortWalkSteps = steps;
}
#endif

XmlNode *xmlHeapTopOf(XmlNode *node)
{
    XmlNode *top = node;
    for (int step = 0; step < xmlShortWalkSteps; ++step) {
        if (top->parent == nullptr) {
            return top;
        }
        top = top->parent;
    }
    InRecord links;
    access(links, node);
    return topAfterAccess(links, node);
}

void xmlHeapBeforeLink(XmlNode *node)
{
    InRecord links;
    beforeLink(links, node);
}

void xmlHeapBeforeCut(XmlNode *node)
{
    InRecord links;
    beforeCut(links, node);
}

XmlNode *xmlSessionPathTop(SessionPaths *&table, XmlNode *node)
{
    InTable links(table);
    return access(links, node) ? topAfterAccess(links, node) : nullptr;
}

void xmlSessionBeforeLink(SessionPaths *&table, XmlNode *node)
{
    InTable links(table);
    beforeLink(links, node);
}

void xmlSessionBeforeCut(SessionPaths *&table, XmlNode *node)
{
    InTable links(table);
    if (!beforeCut(links, node)) {
        // All-zero links describe every tree correctly: start over from them.
        xmlSessionPathsFree(table);
        table = nullptr;
    }
}

void xmlSessionPathsFree(SessionPaths *table)
{
    krvHeapFree(table);
}
