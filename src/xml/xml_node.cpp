// Node records, memory sessions, allocation routing, create/set/free and the
// library services.
#include <cstdlib>
#include <cstring>

#include "xml/xml_clear.h"
#include "xml/xml_internal.h"

// ===== Memory sessions =====================================================
//
// A session is a chain of zero-filled blocks, identified by its first block.
// Requests are served first fit: the oldest block with room. To keep that
// exact without walking the chain per request, the first block keeps
//   - `firstNonFull`: every block before it is full, so when it has room it is
//     the first fit;
//   - `index`: a max-tree over the free bytes of the blocks before the last,
//     built once a second block exists. Its leaves may be stale (too high,
//     never too low), so the leftmost leaf that claims room is checked against
//     the block and mended when it lied. The last block's leaf stays 0 until a
//     newer block follows it: the root then says in O(1) whether any older
//     block can serve, and when none can, the last block is the first fit.
// A request thus costs O(1), or O(log blocks) when an older block serves it.
//
// The first block is a heap allocation of its own, so a small document costs
// one small allocation. Later blocks are carved back to back from slabs of
// 64 KB and up, each an eighth of what the session holds so far (at most just
// under 32 MB): a session makes O(log size) heap allocations instead of one
// per block and frees them in one walk, and the unused rest of its newest
// slab stays below an eighth of its memory. glibc maps large slabs fresh
// and, once one is freed, serves requests up to its size from the heap; but
// it hands a freed heap top larger than twice that size back to the system,
// so under default settings a loop that parses and frees a large document
// faults the session's memory in on every pass, as it does for any tree
// allocated through malloc. A shared slab is cleared block by block as
// blocks are carved, just before the caller writes them; a block larger than
// the next shared slab gets a zero-filled slab of its own and the shared slab
// stays in use. A writer that writes every byte it takes (a document's copy,
// see xmlSessionTakeWhole) gets its blocks uncleared and zeroes only what a
// block has left when it is done with it.

struct SessionSlab {
    SessionSlab *next;  // the previous slab of the session; blocks follow
};

struct SessionIndex {
    int32_t leaves;  // power of two
    int32_t count;   // blocks indexed
    int32_t *maxFree;  // 2 * leaves entries; node 1 is the root
    XmlMemSession **blocks;  // leaves entries
    // The slabs, newest first, and the unused rest of the newest shared one.
    SessionSlab *slabs;
    uint8_t *slabCursor;
    size_t slabRoom;
    size_t nextSlab;   // heap footprint of the next shared slab
    size_t slabTotal;  // heap footprint of all slabs so far
    // A block made for the chain and then not linked (xmlSessionSpare): the
    // next growth of the same capacity takes it. Zero past its header.
    XmlMemSession *spare;
};

namespace {

constexpr size_t kBlockHeader = (sizeof(XmlMemSession) + 7) & ~static_cast<size_t>(7);
constexpr int32_t kMaxRequest = 1 << 30;

uint8_t *blockData(XmlMemSession *block)
{
    return reinterpret_cast<uint8_t *>(block) + kBlockHeader;
}

// Records of a session whose top records are known (see xmlTopOf): the last
// two looked up, and the parent of the last, where a walk up the tree looks
// next. Linking a tree under another moves the facts about it along;
// unlinking any record of the session forgets them all. They lie past the
// first block's data, so that the header of every block stays as small as
// it was.
struct TopFacts {
    XmlNode *node[3];
    XmlNode *top[3];
    XmlNode *owner;  // the document owning the session, once built; else null
    int64_t loose;   // loose trees of the session (see xmlNoteOwner)
    SessionPaths *paths;  // path links of its records (see xml_top.cpp)
    SessionAttrIndexes *attrIndexes;  // indexes of long attribute lists
};

size_t firstBlockBytes(int32_t capacity)
{
    return kBlockHeader + ((static_cast<size_t>(capacity) + 7) & ~size_t{7}) + sizeof(TopFacts);
}

TopFacts *factsOf(XmlMemSession *first)
{
    return reinterpret_cast<TopFacts *>(reinterpret_cast<uint8_t *>(first) + firstBlockBytes(first->capacity) -
                                        sizeof(TopFacts));
}

constexpr size_t kSlabHeader = (sizeof(SessionSlab) + 7) & ~static_cast<size_t>(7);
constexpr size_t kFirstSlab = size_t{64} << 10;
constexpr size_t kLargestSlab = (size_t{32} << 20) - 4096;
// Slabs ask for a little less than a power of two, so that the heap's own
// header does not push a page-backed slab onto one more page.
constexpr size_t kHeapOverhead = 32;

// The next shared slab: an eighth of the slabs so far, in 64 KB steps.
size_t nextSlabFor(size_t total)
{
    size_t want = (total / 8 + kFirstSlab - 1) / kFirstSlab * kFirstSlab;
    return want < kFirstSlab ? kFirstSlab : want > kLargestSlab ? kLargestSlab : want;
}

XmlMemSession *initBlock(void *at, int32_t capacity)
{
    auto *block = static_cast<XmlMemSession *>(at);  // zero-filled
    block->cursor = blockData(block);
    block->freeBytes = capacity;
    block->capacity = capacity;
    return block;
}


void clearBlock(uint8_t *p, size_t n)
{
#if defined(__x86_64__)
    if (n >= 64 && !xmlOnIntel() && __builtin_cpu_supports("avx2")) {  // xmlOnIntel inits the model
        clearAvx2(p, n);
        return;
    }
#endif
    memset_s(p, n, 0, n);
}

// A zero-filled block of `capacity` data bytes carved from the session's
// slabs, or null when a needed slab cannot be allocated (nothing changed).
// With `clear` false a block from a shared slab has only its header zeroed:
// its data holds whatever the slab held, for a writer that writes every
// byte it takes (see xmlSessionTakeWhole).
XmlMemSession *slabBlock(SessionIndex *index, int32_t capacity, bool clear = true)
{
    size_t bytes = kBlockHeader + static_cast<size_t>(capacity);
    size_t shared = index->nextSlab - kHeapOverhead;
    if (bytes > index->slabRoom && kSlabHeader + bytes > shared) {
        auto *own = static_cast<SessionSlab *>(krvHeapCalloc(1, kSlabHeader + bytes));
        if (own == nullptr) {
            return nullptr;
        }
        own->next = index->slabs;
        index->slabs = own;
        // Later blocks keep this capacity: let the shared slabs catch up.
        index->slabTotal += kSlabHeader + bytes;
        index->nextSlab = nextSlabFor(index->slabTotal);
        return initBlock(reinterpret_cast<uint8_t *>(own) + kSlabHeader, capacity);
    }
    if (bytes > index->slabRoom) {  // the rest of the current slab is given up
        auto *slab = static_cast<SessionSlab *>(krvHeapMalloc(shared));
        if (slab == nullptr) {
            return nullptr;
        }
        slab->next = index->slabs;
        index->slabs = slab;
        index->slabCursor = reinterpret_cast<uint8_t *>(slab) + kSlabHeader;
        index->slabRoom = shared - kSlabHeader;
        index->slabTotal += shared;
        index->nextSlab = nextSlabFor(index->slabTotal);
    }
    uint8_t *at = index->slabCursor;
    index->slabCursor += bytes;
    index->slabRoom -= bytes;
    if (clear) {
        clearBlock(at, bytes);
    } else {
        std::memset(at, 0, kBlockHeader);
    }
    return initBlock(at, capacity);
}

void *carve(XmlMemSession *block, int32_t n)
{
    uint8_t *p = block->cursor;
    block->cursor += n;
    block->freeBytes -= n;
    return p;
}

void indexSet(SessionIndex *index, int32_t leaf, int32_t value)
{
    int32_t node = index->leaves + leaf;
    if (index->maxFree[node] == value) {
        return;  // a full block entering the tree finds its leaf at 0 already
    }
    index->maxFree[node] = value;
    for (node /= 2; node >= 1; node /= 2) {
        int32_t l = index->maxFree[2 * node];
        int32_t r = index->maxFree[2 * node + 1];
        int32_t max = l > r ? l : r;
        if (index->maxFree[node] == max) {
            return;  // every node above is the maximum of the same values
        }
        index->maxFree[node] = max;
    }
}

SessionIndex *indexAlloc(int32_t leaves)
{
    size_t bytes = sizeof(SessionIndex) + sizeof(int32_t) * 2 * static_cast<size_t>(leaves) +
                   sizeof(XmlMemSession *) * static_cast<size_t>(leaves);
    auto *index = static_cast<SessionIndex *>(krvHeapCalloc(1, bytes));
    if (index == nullptr) {
        return nullptr;
    }
    index->leaves = leaves;
    index->maxFree = reinterpret_cast<int32_t *>(index + 1);
    index->blocks = reinterpret_cast<XmlMemSession **>(index->maxFree + 2 * leaves);
    return index;
}

// Makes room in the index for one more block; returns the index to use (the
// old one, or a doubled copy), or null when memory ran out (nothing changed).
SessionIndex *indexReserve(XmlMemSession *first)
{
    SessionIndex *old = first->index;
    if (old != nullptr && old->count < old->leaves) {
        return old;
    }
    int32_t leaves = old == nullptr ? 64 : old->leaves * 2;
    SessionIndex *index = indexAlloc(leaves);
    if (index == nullptr) {
        return nullptr;
    }
    if (old == nullptr) {
        index->nextSlab = kFirstSlab;
        index->blocks[0] = first;
        index->count = 1;
    } else {
        index->count = old->count;
        index->slabs = old->slabs;
        index->slabCursor = old->slabCursor;
        index->slabRoom = old->slabRoom;
        index->nextSlab = old->nextSlab;
        index->slabTotal = old->slabTotal;
        index->spare = old->spare;
        for (int32_t i = 0; i < old->count; ++i) {
            index->blocks[i] = old->blocks[i];
            index->maxFree[leaves + i] = old->maxFree[old->leaves + i];
        }
        for (int32_t node = leaves - 1; node >= 1; --node) {
            int32_t l = index->maxFree[2 * node];
            int32_t r = index->maxFree[2 * node + 1];
            index->maxFree[node] = l > r ? l : r;
        }
        krvHeapFree(old);
    }
    first->index = index;
    return index;
}

// The oldest block with at least n free bytes, or null.
XmlMemSession *findFirstFit(XmlMemSession *first, int32_t n)
{
    XmlMemSession *head = first->firstNonFull;
    while (head != nullptr && head->freeBytes == 0) {
        head = head->nextBlock;
    }
    first->firstNonFull = head;
    if (head == nullptr) {
        return nullptr;
    }
    if (head->freeBytes >= n) {
        return head;
    }
    SessionIndex *index = first->index;
    if (index == nullptr) {
        return nullptr;
    }
    while (index->maxFree[1] >= n) {
        int32_t node = 1;
        while (node < index->leaves) {
            node = index->maxFree[2 * node] >= n ? 2 * node : 2 * node + 1;
        }
        int32_t leaf = node - index->leaves;
        XmlMemSession *block = index->blocks[leaf];
        if (block->freeBytes >= n) {
            return block;
        }
        indexSet(index, leaf, block->freeBytes);  // the leaf was stale: mend it
    }
    XmlMemSession *last = first->lastBlock;  // not in the tree
    return last->freeBytes >= n ? last : nullptr;
}

}  // namespace

XmlMemSession *XML_MemSessionBegin(int32_t size)
{
    if (size <= 0) {
        return nullptr;
    }
    void *raw = krvHeapCalloc(1, firstBlockBytes(size));
    if (raw == nullptr) {
        return nullptr;
    }
    XmlMemSession *first = initBlock(raw, size);
    first->lastBlock = first;
    first->firstNonFull = first;
    return first;
}

namespace {

XmlMemSession *makeBlock(XmlMemSession *session, int32_t n, bool clear)
{
    int32_t capacity = session->lastBlock->capacity;
    while (capacity < n) {
        capacity *= 2;  // n <= 2^30, so this cannot overflow
    }
    SessionIndex *index = indexReserve(session);
    if (index == nullptr) {
        return nullptr;
    }
    XmlMemSession *spare = index->spare;
    if (spare != nullptr && spare->capacity == capacity) {
        index->spare = nullptr;
        return spare;
    }
    return slabBlock(index, capacity, clear);
}

// A request of n bytes (n > 0) that the first non-full block cannot serve.
// With `whole` the writer writes every byte it takes (see
// xmlSessionTakeWhole): a new block is not cleared, and the old last
// block's rest is zeroed before the new block follows it, since that rest
// is no longer filled in order.
void *takeSlow(XmlMemSession *session, int32_t n, bool whole)
{
    if (n <= 0 || n > kMaxRequest) {
        return nullptr;
    }
    n = (n + 7) & ~7;  // records are carved from the same blocks as strings
    XmlMemSession *fit = findFirstFit(session, n);
    if (fit != nullptr) {
        // The block's leaf in the index is left as it was: stale-high leaves
        // are allowed and mended by the next query they would mislead.
        return carve(fit, n);
    }
    XmlMemSession *block = makeBlock(session, n, !whole);
    if (block == nullptr) {
        return nullptr;  // a grown index is kept; the chain is unchanged
    }
    if (whole) {
        xmlSessionClearRest(session);
    }
    void *p = carve(block, n);
    xmlSessionAppend(session, block);
    return p;
}

}  // namespace

XmlMemSession *xmlSessionMakeBlock(XmlMemSession *session, int32_t n)
{
    return makeBlock(session, n, true);
}

void *XML_MemSpecialMalloc(XmlMemSession *session, int32_t n)
{
    return session != nullptr ? takeSlow(session, n, false) : nullptr;
}

void *xmlSessionTakeWholeSlow(XmlMemSession *session, int32_t n)
{
    return takeSlow(session, n, true);
}

void xmlSessionClearRest(XmlMemSession *session)
{
    XmlMemSession *last = session->lastBlock;
    std::memset(last->cursor, 0, static_cast<size_t>(last->freeBytes));
}

void xmlSessionAppend(XmlMemSession *session, XmlMemSession *block)
{
    SessionIndex *index = session->index;  // room reserved by xmlSessionMakeBlock
    XmlMemSession *last = session->lastBlock;
    block->ordinal = last->ordinal + 1;
    last->nextBlock = block;
    session->lastBlock = block;
    // The former last block enters the tree; the new one stays out at 0.
    indexSet(index, last->ordinal, last->freeBytes);
    index->blocks[index->count++] = block;
    if (session->firstNonFull == nullptr) {
        session->firstNonFull = block;
    }
}

void xmlSessionSpare(XmlMemSession *session, XmlMemSession *block)
{
    block->cursor = blockData(block);
    block->freeBytes = block->capacity;
    session->index->spare = block;
}

int32_t XML_MemSessionEnd(XmlMemSession *session)
{
    if (session == nullptr) {
        return 0;
    }
    xmlSessionPathsFree(factsOf(session)->paths);
    xmlSessionAttrIndexesFree(factsOf(session)->attrIndexes);
    SessionIndex *index = session->index;
    if (index != nullptr) {
        for (SessionSlab *slab = index->slabs; slab != nullptr;) {
            SessionSlab *next = slab->next;
            krvHeapFree(slab);
            slab = next;
        }
        krvHeapFree(index);
    }
    krvHeapFree(session);
    return 1;
}

SessionAttrIndexes *&xmlSessionAttrIndexes(XmlMemSession *session)
{
    return factsOf(session)->attrIndexes;
}

int32_t xmlSessionSlabRoom(const XmlMemSession *session)
{
    const SessionIndex *index = session->index;
    if (index == nullptr || index->slabRoom <= kBlockHeader) {
        return 0;
    }
    size_t room = index->slabRoom - kBlockHeader;
    return room > static_cast<size_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(room);
}

// ===== Allocation routing ==================================================

XmlMemSession *xmlSessionOf(XmlNode *context)
{
    // Every element of a tree carries the `mem` of the tree's top record, so a
    // heap element answers for itself; a session record's tree is found with
    // the session's help and is session-owned while its top has no sibling.
    // An attribute answers by its owner: XML_AddAttrNode links one into any
    // element's list, whatever memory either came from.
    if (context == nullptr) {
        return nullptr;
    }
    if (context->mem == nullptr) {
        if (!xmlIsAttr(context) || context->parent == nullptr || context->parent->mem == nullptr) {
            return nullptr;
        }
        context = context->parent;
    }
    // A copy routes every string by its detached top record: no call for that.
    XmlNode *top = context->parent == nullptr && !xmlIsAttr(context) ? context : xmlTopOf(context);
    if (top == nullptr || top->prev != nullptr || top->next != nullptr) {
        return nullptr;
    }
    return top->mem;
}

namespace {

// Replaces at by its top when the session remembers it.
inline bool knownTop(const TopFacts *facts, XmlNode *&at)
{
    for (int i = 0; i < 3; ++i) {
        if (at == facts->node[i]) {
            at = facts->top[i];
            return true;
        }
    }
    return false;
}

// The top of at, a record of a session tree far from its top: from the path
// links, or by a walk when they have no memory. Only the session's own
// elements are in its table; an attribute taken from elsewhere is walked.
__attribute__((noinline)) XmlNode *deepSessionTop(XmlMemSession *session, XmlNode *at)
{
    TopFacts *facts = factsOf(session);
    bool asked = false;
    while (at != nullptr && (xmlIsAttr(at) || at->parent != nullptr)) {
        if (knownTop(facts, at)) {
            break;
        }
        if (!asked && at->mem == session && !xmlIsAttr(at)) {
            asked = true;
            if (XmlNode *top = xmlSessionPathTop(facts->paths, at)) {
                return top;
            }
        }
        at = at->parent;
    }
    return at;
}

}  // namespace

XmlNode *xmlTopOf(XmlNode *node)
{
    XmlMemSession *session = node != nullptr ? node->mem : nullptr;
    XmlNode *top = node;
    if (session == nullptr) {
        if (node == nullptr || !xmlIsAttr(node)) {
            return node != nullptr ? xmlHeapTopOf(node) : nullptr;
        }
        // A heap attribute answers by its owner, which XML_AddAttrNode may
        // have taken from either regime.
        XmlNode *owner = node->parent;
        if (owner == nullptr) {
            return nullptr;
        }
        return owner->mem == nullptr ? xmlHeapTopOf(owner) : xmlTopOf(owner);
    }
    // A session attribute that XML_AddAttrNode gave to an owner of another
    // regime answers by that owner, as a heap attribute does.
    if (xmlIsAttr(node) && node->parent != nullptr && node->parent->mem != session) {
        return xmlTopOf(node->parent);
    }
    // A session record: without loose trees the top of a linked record is
    // the owner (a record without parent answers for itself, an ownerless
    // attribute with null, as the walk would); otherwise the walk ends early
    // at a record whose top is known, or after a few steps asks the path
    // links of the session's records.
    const TopFacts *facts = factsOf(session);
    if (facts->owner != nullptr && facts->loose == 0 && node->parent != nullptr) {
        top = facts->owner;
    }
    for (int steps = xmlShortWalkSteps; top != nullptr && (xmlIsAttr(top) || top->parent != nullptr); --steps) {
        if (knownTop(facts, top)) {
            break;
        }
        if (steps == 0) {
            top = deepSessionTop(session, top);
            break;
        }
        top = top->parent;
    }
    // An attribute's top is noted for its owner element, which a walk from
    // the owner's next attribute or child passes first.
    XmlNode *noted = xmlIsAttr(node) ? node->parent : node;
    if (top != nullptr && noted != nullptr && noted != top) {
        xmlNoteTop(noted, top);
        // Lookups that climb the tree (edits from the leaves up) ask for the
        // parent next.
        if (noted->parent != nullptr && noted->mem == session) {
            TopFacts *known = factsOf(session);
            known->node[2] = noted->parent;
            known->top[2] = top;
        }
    }
    return top;
}

void xmlNoteTop(XmlNode *node, XmlNode *top)
{
    // Attributes are left out: one can leave its owner without an unlink.
    if (node->mem == nullptr || xmlIsAttr(node)) {
        return;
    }
    TopFacts *facts = factsOf(node->mem);
    if (facts->node[0] == node) {
        facts->top[0] = top;
        return;
    }
    facts->node[1] = facts->node[0];
    facts->top[1] = facts->top[0];
    facts->node[0] = node;
    facts->top[0] = top;
}

void xmlNoteLinked(XmlNode *node, XmlNode *top)
{
    if (node->mem == nullptr) {
        return;
    }
    // Every record that node headed now lies under top.
    TopFacts *facts = factsOf(node->mem);
    for (XmlNode *&known : facts->top) {
        if (known == node) {
            known = top;
        }
    }
    xmlNoteTop(node, top);
}

void xmlNoteOwner(XmlNode *document)
{
    TopFacts *facts = factsOf(document->mem);
    facts->owner = document;
    facts->loose = 0;
}

void xmlNoteLoose(XmlMemSession *session, int change)
{
    if (session == nullptr) {
        return;
    }
    TopFacts *facts = factsOf(session);
    facts->loose += change;
    if (facts->loose < 0) {
        facts->owner = nullptr;  // a tree was linked that was never counted: walk from now on
    }
}

XmlNode *xmlKnownTopForLeaf(const XmlNode *at, const XmlNode *node)
{
    if (node->mem == nullptr || at->mem != node->mem || node->firstChild != nullptr || at == node) {
        return nullptr;
    }
    // node, a loose tree of its own, is the only one: `at` lies in the owner's.
    const TopFacts *facts = factsOf(node->mem);
    return facts->loose == 1 ? facts->owner : nullptr;
}

XmlNode *xmlFindRoot(XmlNode *node)
{
    XmlNode *top = xmlTopOf(node);
    if (top == nullptr || top->prev != nullptr || top->next != nullptr) {
        return nullptr;
    }
    return top;
}

void *XML_Malloc(XmlNode *context, uint64_t size)
{
    XmlMemSession *session = xmlSessionOf(context);
    if (session != nullptr) {
        return size > static_cast<uint64_t>(INT32_MAX)
                   ? nullptr
                   : XML_MemSpecialMalloc(session, static_cast<int32_t>(size));
    }
    if (size > SIZE_MAX) {
        return nullptr;
    }
    return krvHeapMalloc(static_cast<size_t>(size));
}

void *XML_Calloc(size_t count, size_t size)
{
    return krvHeapCalloc(count, size);
}

void XML_Free(XmlNode *context, void *ptr)
{
    if (ptr != nullptr) {
        xmlReleaseTo(xmlSessionOf(context), ptr);
    }
}

namespace {

// A copy of a non-empty text in the session, or on the heap when it is null.
char *copyText(XmlMemSession *session, const char *text)
{
    size_t len = std::strlen(text);
    if (len == 0) {
        return nullptr;
    }
    char *copy;
    if (session != nullptr) {
        if (len >= static_cast<size_t>(INT32_MAX)) {
            return nullptr;
        }
        copy = static_cast<char *>(xmlSessionTake(session, static_cast<int32_t>(len + 1)));
    } else {
        copy = static_cast<char *>(krvHeapMalloc(len + 1));
    }
    if (copy != nullptr) {
        xmlPutText(copy, text, len);  // what strncpy_s would write
    }
    return copy;
}

bool nonEmpty(const char *text)
{
    return text != nullptr && text[0] != '\0';
}

}  // namespace

char *XML_Strdup(XmlNode *context, const char *text)
{
    if (text == nullptr || text[0] == '\0') {
        return nullptr;
    }
    return copyText(xmlSessionOf(context), text);
}

// ===== Node records ========================================================

XmlNode *XML_NewNode(XmlMemSession *session, int32_t kind)
{
    XmlNode *node = xmlNewRecord(session, kind);
    if (node != nullptr) {
        xmlNoteLoose(session, 1);
    }
    return node;
}

XmlNode *xmlNewRecord(XmlMemSession *session, int32_t kind)
{
    size_t size = xmlRecordSize(kind);
    void *raw = session != nullptr ? xmlSessionTake(session, static_cast<int32_t>(size))
                : size == kDocumentRecordSize ? krvHeapMalloc(kHeapDocumentSize)
                : size == kElementRecordSize  ? krvHeapMalloc(kHeapElementSize)
                                              : krvHeapMalloc(size);
    if (raw == nullptr) {
        return nullptr;
    }
    if (session == nullptr) {
        // Bytes carved from a session are zero already. A constant size per
        // shape makes the clearing a few stores.
        if (size == kAttrRecordSize) {
            std::memset(raw, 0, kAttrRecordSize);
        } else if (size == kElementRecordSize) {
            std::memset(raw, 0, kHeapElementSize);
        } else {
            std::memset(raw, 0, kHeapDocumentSize);
        }
    }
    auto *node = static_cast<XmlNode *>(raw);
    // The stored kind always matches the shape, so no record claims fields
    // that it lacks.
    node->kind = kind == KRV_XML_NODE_DOCUMENT    ? kKindDocument
                 : kind == KRV_XML_NODE_ATTRIBUTE ? kKindAttribute
                                                  : kKindElement;
    node->ownsSession = kind == KRV_XML_NODE_DOCUMENT ? 1 : 0;
    node->mem = session;
    return node;
}

namespace {

// An attribute whose prefix or name may change leaves its owner's index for
// the change and joins it again under its new key.
bool mayRekey(const XmlNode *node, const char *prefix, const char *name)
{
    return xmlIsAttr(node) && node->parent != nullptr && (prefix != nullptr || name != nullptr);
}

}  // namespace

uint32_t xmlSetStrings(XmlNode *context, XmlNode *node, const char *prefix, const char *name,
                       const char *value)
{
    // The routing is decided once: the tree does not change during the call.
    XmlMemSession *session = xmlSessionOf(context);
    char *newPrefix = nullptr;
    char *newName = nullptr;
    char *newValue = nullptr;
    if (nonEmpty(prefix) && (newPrefix = copyText(session, prefix)) == nullptr) {
        return KRV_XML_ERR_NO_MEMORY;
    }
    if (nonEmpty(name) && (newName = copyText(session, name)) == nullptr) {
        xmlReleaseTo(session, newPrefix);
        return KRV_XML_ERR_NO_MEMORY;
    }
    if (nonEmpty(value) && (newValue = copyText(session, value)) == nullptr) {
        xmlReleaseTo(session, newPrefix);
        xmlReleaseTo(session, newName);
        return KRV_XML_ERR_NO_MEMORY;
    }
    if (newName != nullptr) {
        if (node->nameOwned) {
            xmlReleaseTo(session, node->name);
        }
        node->name = newName;
        node->nameOwned = 1;
    }
    if (newPrefix != nullptr) {
        xmlReleaseTo(session, node->nsPrefix);
        node->nsPrefix = newPrefix;
    }
    if (newValue != nullptr) {
        if (node->valueOwned) {
            xmlReleaseTo(session, node->value);
        }
        node->value = newValue;
        node->valueOwned = 1;
    }
    return KRV_XML_OK;
}

uint32_t XML_SetNode(XmlNode *context, XmlNode *node, const char *prefix, const char *name,
                     const char *value)
{
    if (node == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (!mayRekey(node, prefix, name)) {
        return xmlSetStrings(context, node, prefix, name, value);
    }
    AttrRekey rekey = xmlAttrIndexForget(node);
    uint32_t rc = xmlSetStrings(context, node, prefix, name, value);
    xmlAttrIndexRestore(node, rekey);
    return rc;
}

// ===== Releasing ===========================================================

namespace {

// Releases one record and its owned strings to the heap, or not at all when
// `session` says that the tree is session-owned.
void releaseRecord(XmlMemSession *session, XmlNode *node)
{
    if (session != nullptr) {
        return;
    }
    if (!xmlIsAttr(node)) {
        xmlAttrIndexRelease(node);
    }
    if (node->nameOwned) {
        krvHeapFree(node->name);
    }
    if (node->valueOwned) {
        krvHeapFree(node->value);
    }
    krvHeapFree(node->nsPrefix);
    krvHeapFree(node);
}

void releaseAttrList(XmlMemSession *session, XmlNode *attr)
{
    while (attr != nullptr) {
        XmlNode *next = attr->next;
        releaseRecord(session, attr);
        attr = next;
    }
}

// A heap tree's small blocks land on glibc's fast lists, which are merged
// into larger free areas only when a request that they cannot serve comes
// along. One such request after every batch keeps that merge working on
// memory that was touched just now, so a tree of any size is released at the
// same cost per block; merged areas also let the next tree be laid out in the
// order it is built and walked. The request is no library memory: it is given
// back at once.
void mergeFreedBlocks()
{
    void *probe = std::malloc(2048);
    // The compiler may drop an unused malloc and free pair: keep it.
    __asm__ volatile("" : : "r"(probe) : "memory");
    std::free(probe);
}

// A heap tree lies mostly in the order the release walk takes. Each block
// asks for the memory this far past it, so that a tree far larger than the
// caches is not released at the pace of one memory round trip per block.
constexpr uintptr_t kReleaseAhead = 8192;

// Below this depth a release climbs through records it walked just before,
// still in the caches.
constexpr size_t kDeepRelease = 16;

// The blocks of a heap tree, handed to the heap in batches, each batch last
// first. Trees are built front to back, so a batch goes back highest address
// first and glibc's fast lists hold each size in address order, which makes
// the merge a walk through memory instead of a scatter.
struct FreeBatch {
    static constexpr size_t kSize = 256;
    void *blocks[kSize];
    size_t count = 0;
    bool merging = false;  // a full batch was released: merge after each one

    void flush()
    {
        while (count != 0) {
            krvHeapFree(blocks[--count]);
        }
        if (merging) {
            mergeFreedBlocks();
        }
    }
    void add(void *block)
    {
        if (block != nullptr) {
            if (count == kSize) {
                merging = true;
                flush();
            }
            uintptr_t ahead = reinterpret_cast<uintptr_t>(block) + kReleaseAhead;
            __builtin_prefetch(reinterpret_cast<const void *>(ahead), 1);
            blocks[count++] = block;
        }
    }
    // A record's pieces in the order the parser makes them. A flush may
    // hand the record back as soon as it is added: its fields are read first.
    void addRecord(XmlNode *node)
    {
        void *prefix = node->nsPrefix;
        void *name = node->nameOwned ? node->name : nullptr;
        void *value = node->valueOwned ? node->value : nullptr;
        add(node);
        add(prefix);
        add(name);
        add(value);
    }
    void addAttrs(XmlNode *attr)
    {
        while (attr != nullptr) {
            XmlNode *next = attr->next;
            addRecord(attr);
            attr = next;
        }
    }
};

}  // namespace

void XML_FreeNode(XmlNode *node)
{
    if (node == nullptr) {
        return;
    }
    if (xmlIsAttr(node)) {
        // An attribute chain: records without children.
        releaseAttrList(xmlSessionOf(node), node);
        return;
    }
    // One routing decision for the whole release: records are released
    // children first, so every record's walk to the top would find the same
    // top record as this one.
    XmlMemSession *session = xmlSessionOf(node);
    if (session != nullptr && !(node->ownsSession && node->mem != nullptr)) {
        return;  // everything below lies in the session and goes with it
    }
    if (session != nullptr) {
        XML_MemSessionEnd(node->mem);  // the record and everything carved with it
        return;
    }
    // Post-order walk without recursion: release a record's attributes, then
    // descend through first children, release a record once its children
    // are gone, then go on with its next sibling or climb to its parent.
    // `depth` 0 is the starting chain, whose parent is not ours to release.
    // Blocks go through the batch, and a flush may hand a record back as
    // soon as it is added: the walk reads a record's links before adding it.
    FreeBatch batch;
    XmlNode *cur = node;
    size_t depth = 0;
    for (;;) {
        XmlNode *parent = cur->parent;
        bool chainEnds = false;
        if (cur->ownsSession && cur->mem != nullptr) {
            // Ending the session releases the record and everything carved
            // from it; the rest of this chain is not visited.
            XML_MemSessionEnd(cur->mem);
            chainEnds = true;
        } else {
            batch.addAttrs(cur->firstAttr);
            if (cur->firstChild != nullptr) {
                cur = cur->firstChild;
                ++depth;
                continue;
            }
        }
        // Release records whose children are gone, climbing while a chain ends.
        for (;;) {
            if (!chainEnds) {
                XmlNode *next = cur->next;
                xmlAttrIndexRelease(cur);
                batch.addRecord(cur);
                if (next != nullptr) {
                    cur = next;
                    break;
                }
            }
            if (depth == 0) {
                batch.flush();
                return;
            }
            --depth;
            cur = parent;
            parent = cur->parent;
            if (depth > kDeepRelease) {
                xmlPrefetchBelow(parent);  // a deep chain: its upper levels lie below
            }
            chainEnds = false;
        }
    }
}

void XML_FreeSingleNode(XmlNode *node)
{
    if (node != nullptr) {
        releaseRecord(xmlSessionOf(node), node);
    }
}

void XML_FreeSingleAttrNode(XmlNode *attr)
{
    if (attr != nullptr && attr->mem == nullptr) {
        XML_FreeSingleNode(attr);
    }
}

// ===== Exported create / set / remove / free ===============================

uint32_t KRV_XML_CreateNode(int32_t kind, const char *prefix, const char *name, const char *value,
                            XmlNode **out)
{
    if ((kind != KRV_XML_NODE_ELEMENT && kind != KRV_XML_NODE_DOCUMENT) || out == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *node = xmlNewRecord(nullptr, kind);
    if (node == nullptr) {
        return KRV_XML_ERR_NO_MEMORY;
    }
    uint32_t rc = XML_SetNode(nullptr, node, prefix, name, value);
    if (rc != KRV_XML_OK) {
        krvHeapFree(node);
        return rc;
    }
    *out = node;
    return KRV_XML_OK;
}

uint32_t KRV_XML_CreateNodeEx(XmlMemSession *session, int32_t kind, const char *prefix,
                              const char *name, const char *value, XmlNode **out)
{
    if ((kind != KRV_XML_NODE_ELEMENT && kind != KRV_XML_NODE_DOCUMENT) || out == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlMemSession *use = session;
    if (kind == KRV_XML_NODE_DOCUMENT) {
        use = XML_MemSessionBegin(kSessionInitialSize);
        if (use == nullptr) {
            return KRV_XML_ERR_NO_MEMORY;
        }
    }
    XmlNode *node = xmlNewRecord(use, kind);
    if (node == nullptr) {
        if (kind == KRV_XML_NODE_DOCUMENT) {
            XML_MemSessionEnd(use);
        }
        return KRV_XML_ERR_NO_MEMORY;
    }
    uint32_t rc = XML_SetNode(node, node, prefix, name, value);
    if (rc != KRV_XML_OK) {
        XML_FreeNode(node);
        return rc;
    }
    if (kind == KRV_XML_NODE_DOCUMENT) {
        xmlNoteOwner(node);
    } else {
        xmlNoteLoose(use, 1);
    }
    *out = node;
    return KRV_XML_OK;
}

uint32_t KRV_XML_SetNode(XmlNode *node, const char *prefix, const char *name, const char *value)
{
    if (node == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    bool clearPrefix = prefix != nullptr && prefix[0] == '\0';
    bool clearName = name != nullptr && name[0] == '\0';
    bool clearValue = value != nullptr && value[0] == '\0';
    AttrRekey rekey{nullptr, nullptr, 0};
    bool rekeys = mayRekey(node, prefix, name);
    if (rekeys) {
        rekey = xmlAttrIndexForget(node);
    }
    if (clearPrefix || clearName || clearValue) {
        XmlMemSession *session = xmlSessionOf(node);
        if (clearPrefix) {
            xmlReleaseTo(session, node->nsPrefix);
            node->nsPrefix = nullptr;
        }
        if (clearName) {
            if (node->nameOwned) {
                xmlReleaseTo(session, node->name);
            }
            node->name = nullptr;
        }
        if (clearValue) {
            if (node->valueOwned) {
                xmlReleaseTo(session, node->value);
            }
            node->value = nullptr;
        }
    }
    uint32_t rc = xmlSetStrings(node, node, prefix, name, value);
    if (rekeys) {
        xmlAttrIndexRestore(node, rekey);
    }
    return rc;
}

void xmlSessionRecordBeforeLink(XmlNode *node)
{
    if (SessionPaths *&paths = factsOf(node->mem)->paths; paths != nullptr) {
        xmlSessionBeforeLink(paths, node);
    }
}

void xmlUnlink(XmlNode *node)
{
    if (node->parent != nullptr) {
        if (node->mem == nullptr) {
            xmlHeapBeforeCut(node);
        } else if (SessionPaths *&paths = factsOf(node->mem)->paths; paths != nullptr) {
            xmlSessionBeforeCut(paths, node);
        }
    }
    XmlNode *before = node->prev;
    if (before != nullptr) {
        before->next = node->next;
        if (before->next == nullptr && xmlIsHeapDocument(before)) {
            xmlParsedFollowers(before) = 0;  // its last follower left
        }
    }
    if (node->next != nullptr) {
        node->next->prev = node->prev;
    }
    XmlNode *parent = node->parent;
    if (parent != nullptr) {
        if (parent->firstChild == node) {
            parent->firstChild = node->next;
        }
        if (parent->lastChild == node) {
            parent->lastChild = node->prev;
        }
    }
    node->prev = nullptr;
    node->next = nullptr;
    node->parent = nullptr;
    if (xmlIsHeapDocument(node)) {
        xmlParsedFollowers(node) = 0;  // it left its followers
    }
    if (node->mem != nullptr) {
        // The sub-tree now has a top record of its own.
        TopFacts *facts = factsOf(node->mem);
        for (XmlNode *&known : facts->node) {
            known = nullptr;
        }
    }
}

uint32_t KRV_XML_RemoveNode(XmlNode *node)
{
    if (node == nullptr || xmlIsAttr(node)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (node->parent == nullptr && node->prev == nullptr && node->next == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    xmlUnlink(node);
    xmlNoteLoose(node->mem, 1);
    return KRV_XML_OK;
}

void KRV_XML_FreeNode(XmlNode *node)
{
    if (node == nullptr) {
        return;
    }
    if (xmlIsAttr(node)) {
        XmlNode *owner = node->parent;
        if (owner == nullptr) {
            xmlNoteLoose(node->mem, -1);
            XML_FreeSingleAttrNode(node);  // an ownerless session record stays put
            return;
        }
        XmlNode *before = nullptr;
        if (xmlAttrBefore(owner, node, &before)) {
            xmlCutAttr(owner, node, before);
        } else {
            node->next = nullptr;  // not in its owner's list: nothing to unlink
        }
        XML_FreeSingleNode(node);  // routed by the owner's tree: parent still set
        return;
    }
    // A heap document still heading the top-level elements that its parse
    // linked after it releases them too rather than leave them behind.
    bool headsFollowers = xmlIsHeapDocument(node) && xmlParsedFollowers(node) == 1 &&
                          node->parent == nullptr && node->prev == nullptr;
    if (!headsFollowers && (node->parent != nullptr || node->prev != nullptr || node->next != nullptr)) {
        xmlUnlink(node);
    } else if (node->ownsSession == 0) {
        xmlNoteLoose(node->mem, -1);  // a loose tree of its session ends
    }
    XML_FreeNode(node);
}

void KRV_XML_FreeMem(void *ptr)
{
    krvHeapFree(ptr);
}

// ===== Library services ====================================================

namespace {
constexpr char kVersionText[] = "KRV XML 2.1.9";
constexpr uint32_t kVersionSize = sizeof(kVersionText);  // 14, with the NUL
}  // namespace

uint32_t KRV_XML_GetVersion(char *buffer, uint32_t size)
{
    if (buffer == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (size < kVersionSize) {
        return KRV_XML_ERR_BUFFER_TOO_SMALL;
    }
    strncpy_s(buffer, size, kVersionText, size - 1);
    return KRV_XML_OK;
}

uint32_t KRV_XML_RegDebugFunc(KrvXmlDebugFn)
{
    return KRV_XML_ERR_NOT_FOUND;
}

uint32_t KRV_XML_RegMemFunc(KrvXmlMallocFn, KrvXmlFreeFn)
{
    return KRV_XML_OK;
}
