// Declarations shared by the library's own sources only.
#ifndef KRV_XML_INTERNAL_H
#define KRV_XML_INTERNAL_H

#include <cstddef>
#include <cstring>
#include <cstdint>

#include "krv_xml.h"
#include "krv_xml_component.h"
#include "platform/krv_platform.h"

// Delimiter scans in the parser and the printer read 16 aligned bytes at a
// time with SSE2. An aligned block never crosses a page, so reading past the
// terminating NUL inside the block that holds it is safe; sanitizers cannot
// know that and would report those bytes, so their builds use byte loops.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KRVXML_SCALAR_SCAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define KRVXML_SCALAR_SCAN 1
#endif
#endif
#if defined(__SSE2__) && !defined(KRVXML_SCALAR_SCAN)
#define KRVXML_SSE2_SCAN 1
#endif

// Record shapes: an attribute ends after `next`, an element after `firstAttr`,
// a document after `nameTable`. Shorter records are allocated shorter, so code
// must check `kind` before touching a field that a shape lacks.
constexpr size_t kAttrRecordSize = offsetof(XmlNode, prev);
constexpr size_t kElementRecordSize = offsetof(XmlNode, nameTable);
constexpr size_t kDocumentRecordSize = sizeof(XmlNode);
static_assert(kAttrRecordSize % 8 == 0 && kElementRecordSize % 8 == 0, "records stay 8-aligned");
static_assert(offsetof(XmlNode, mem) == 0 && offsetof(XmlNode, next) < kAttrRecordSize,
              "attribute records hold the fields from mem to next");

constexpr uint8_t kKindElement = KRV_XML_NODE_ELEMENT;
constexpr uint8_t kKindAttribute = KRV_XML_NODE_ATTRIBUTE;
constexpr uint8_t kKindDocument = KRV_XML_NODE_DOCUMENT;

// Prefix or name identity: both null, the same pointer, or equal bytes.
inline bool xmlSameText(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr) {
        return a == b;
    }
    return a == b || std::strcmp(a, b) == 0;
}

// Size of the record for a kind argument, as XML_NewNode chooses it.
inline size_t xmlRecordSize(int32_t kind)
{
    return kind == KRV_XML_NODE_DOCUMENT    ? kDocumentRecordSize
           : kind == KRV_XML_NODE_ATTRIBUTE ? kAttrRecordSize
                                            : kElementRecordSize;
}

inline bool xmlIsAttr(const XmlNode *node)
{
    return node->kind == kKindAttribute;
}

// A heap document is allocated with one hidden word past its record (a
// session carves records byte-exact and has none). Its first byte is 1 while
// the document heads top-level elements that its parse linked after it:
// releasing the document then takes them along. It drops to 0 once the
// document's `next` is cut, so siblings linked later by a caller are never
// taken.
//
// Heap element and document records also carry three hidden links past the
// record, zero when made: the splay trees over paths of the tree with which
// a heap record's top is found in amortised O(log n) (see xml_top.cpp).
// Session records have none: a session knows its trees' tops itself. The
// last hidden word, also zero when made, holds the index of a long attribute
// list (see xml_attrs.cpp).
constexpr size_t kHeapDocumentSize = kDocumentRecordSize + 8 + 4 * sizeof(XmlNode *);
constexpr size_t kHeapElementSize = kElementRecordSize + 4 * sizeof(XmlNode *);
constexpr size_t kHeapDocumentLinks = kDocumentRecordSize + 8;  // where the links begin

inline bool xmlIsHeapDocument(const XmlNode *node)
{
    return node->kind == kKindDocument && node->mem == nullptr;
}

inline uint8_t &xmlParsedFollowers(XmlNode *heapDocument)
{
    return reinterpret_cast<uint8_t *>(heapDocument)[kDocumentRecordSize];
}

// One block of a memory session; the session is its first block. The data
// area follows the header. The bookkeeping fields after `nextBlock` are kept
// in the first block only (see xml_node.cpp).
struct SessionIndex;
struct XmlMemSession {
    uint8_t *cursor;           // next free byte of this block
    int32_t freeBytes;         // bytes not yet handed out
    int32_t capacity;          // size of the data area
    XmlMemSession *nextBlock;  // null for the last block
    XmlMemSession *lastBlock;
    XmlMemSession *firstNonFull;
    SessionIndex *index;
    int32_t ordinal;           // position of this block in the chain
};

// Whether the processor is Intel's. Where AMD's and Intel's cores were
// measured to want memory asked for or cleared in different ways, this picks.
inline bool xmlOnIntel()
{
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    __builtin_cpu_init();  // at once when done; needed if called before constructors ran
    return __builtin_cpu_is("intel");
#else
    return false;
#endif
}

// Requests the cache lines a block's length past p, where a session that
// fills its blocks in order will be clearing or writing soon: asking early
// overlaps the fetch with the work in between. The address is only a hint:
// a prefetch never faults.
// (On x86-64 the instruction is written out, because GCC's dead code
// elimination drops __builtin_prefetch in the parser's tag reader.)
inline void xmlPrefetchAhead(const void *p)
{
    constexpr uintptr_t kAhead = 8192;  // the size sessions begin with
    uintptr_t at = reinterpret_cast<uintptr_t>(p) + kAhead;
#if defined(__x86_64__)
    __asm__ volatile("prefetcht0 (%0)\n\tprefetcht0 64(%0)\n\tprefetcht0 128(%0)" : : "r"(at));
#else
    for (uintptr_t line = at; line < at + 192; line += 64) {
        __builtin_prefetch(reinterpret_cast<const void *>(line), 1);
    }
#endif
}

// Requests the lines just past a record that a walk has reached. A parse or
// a clone makes the records and strings of a tree in document order, carved
// one after the other from a session or laid out mostly so by the heap: the
// next records a walk steps to lie there, and each step would otherwise wait
// for its record in turn. Only a hint, like the above.
inline void xmlPrefetchPast(const void *record)
{
    const uintptr_t at = reinterpret_cast<uintptr_t>(record);
    __builtin_prefetch(reinterpret_cast<const void *>(at + 256));
    __builtin_prefetch(reinterpret_cast<const void *>(at + 512));
    __builtin_prefetch(reinterpret_cast<const void *>(at + 768));
}

// The same for a walk that stops longer at each record than the lines just
// past it take to arrive, as a copy does: it asks 2 KB further on, so that
// the loads of a large tree overlap more of the work.
inline void xmlPrefetchFarPast(const void *record)
{
    const uintptr_t at = reinterpret_cast<uintptr_t>(record) + 2048;
    __builtin_prefetch(reinterpret_cast<const void *>(at));
    __builtin_prefetch(reinterpret_cast<const void *>(at + 256));
    __builtin_prefetch(reinterpret_cast<const void *>(at + 512));
}

// Requests two lines 4 KB below a record that a climb to its ancestors has
// reached. A parse or a copy makes a parent before its children, so the
// records of a deep chain lie one after the other at rising addresses and a
// climb reads them downwards, one level in about a hundred bytes. Asked this
// far ahead, the levels a few dozen steps up arrive while the climb works on
// the ones in between. Only a hint, like the above.
inline void xmlPrefetchBelow(const void *record)
{
    const uintptr_t at = reinterpret_cast<uintptr_t>(record) - 4096;
#if defined(__x86_64__)
    __asm__ volatile("prefetcht0 (%0)\n\tprefetcht0 -64(%0)" : : "r"(at));
#else
    __builtin_prefetch(reinterpret_cast<const void *>(at));
    __builtin_prefetch(reinterpret_cast<const void *>(at - 64));
#endif
}

// Copies len bytes, len at most 16, without a library call: two overlapping
// loads cover every length of a size class.
inline void xmlCopyShort(char *dst, const char *src, size_t len)
{
    if (len >= 8) {
        uint64_t head;
        uint64_t tail;
        std::memcpy(&head, src, 8);
        std::memcpy(&tail, src + len - 8, 8);
        std::memcpy(dst, &head, 8);
        std::memcpy(dst + len - 8, &tail, 8);
    } else if (len >= 4) {
        uint32_t head;
        uint32_t tail;
        std::memcpy(&head, src, 4);
        std::memcpy(&tail, src + len - 4, 4);
        std::memcpy(dst, &head, 4);
        std::memcpy(dst + len - 4, &tail, 4);
    } else if (len != 0) {
        // One to three bytes: first, middle and last cover each of them.
        dst[0] = src[0];
        dst[len / 2] = src[len / 2];
        dst[len - 1] = src[len - 1];
    }
}

// Writes a text of len bytes (no NUL among them) and its NUL at dst; a short
// text takes no call whose length varies.
inline void xmlPutText(char *dst, const char *text, size_t len)
{
    if (len <= 16) {
        xmlCopyShort(dst, text, len);
    } else {
        std::memcpy(dst, text, len);
    }
    dst[len] = '\0';
}

// Every session in the library starts with this many bytes.
constexpr int32_t kSessionInitialSize = 8192;

// The common case of XML_MemSpecialMalloc: when the first block that still
// has room can take `rounded` bytes (a multiple of 8, at most 2^30), it is
// the first fit. Null when the full search is needed.
inline void *xmlSessionTryTake(XmlMemSession *session, int32_t rounded)
{
    XmlMemSession *block = session->firstNonFull;
    if (block != nullptr && block->freeBytes >= rounded) {
        uint8_t *p = block->cursor;
        block->cursor += rounded;
        block->freeBytes -= rounded;
        return p;
    }
    return nullptr;
}

// XML_MemSpecialMalloc with its common case inline. n > 0.
inline void *xmlSessionTake(XmlMemSession *session, int32_t n)
{
    void *p = n <= (1 << 30) ? xmlSessionTryTake(session, (n + 7) & ~7) : nullptr;
    return p != nullptr ? p : XML_MemSpecialMalloc(session, n);
}

// Takes n bytes (0 < n) as xmlSessionTake does, for a writer that writes
// every byte of what it takes, padding included: a block that the session
// adds here is not cleared, and its rest stays unwritten while it is the
// last block. xmlSessionClearRest zeroes that rest, as a session's memory
// past its cursors must be; the writer calls it when it is done. Null when
// memory ran out.
void *xmlSessionTakeWholeSlow(XmlMemSession *session, int32_t n);
void xmlSessionClearRest(XmlMemSession *session);

inline void *xmlSessionTakeWhole(XmlMemSession *session, int32_t n)
{
    void *p = n <= (1 << 30) ? xmlSessionTryTake(session, (n + 7) & ~7) : nullptr;
    return p != nullptr ? p : xmlSessionTakeWholeSlow(session, n);
}

// The session that owns the tree of `context`, or null when that tree is not
// session-owned (a null context, a heap record, an ownerless attribute on the
// way up, or a top record with a sibling).
XmlMemSession *xmlSessionOf(XmlNode *context);

// The record reached from node by following `parent` (an attribute stepping
// to its owner) to a record that is not an attribute and has no parent; null
// when an ownerless attribute ends the walk. In a session tree the walk stops
// at a record whose top the session remembers, and node's top is remembered.
XmlNode *xmlTopOf(XmlNode *node);

// Heap trees: the top record of a heap element or document (one without
// parent is its own top). Changes only the hidden links.
XmlNode *xmlHeapTopOf(XmlNode *node);
// Before node, a heap record without parent, is linked under a parent.
void xmlHeapBeforeLink(XmlNode *node);
// Before node, a heap record with a parent, is unlinked from it.
void xmlHeapBeforeCut(XmlNode *node);

// Session trees keep the same links in a table of their session, made on
// the first lookup that needs it (a null table: every record's links zero).
struct SessionPaths;
// The top record of node, an element or document of the table's session;
// null when the table could not grow, and the caller walks instead.
XmlNode *xmlSessionPathTop(SessionPaths *&table, XmlNode *node);
// As the heap functions above, for a non-null table. A cut that cannot be
// prepared releases the table, which is always correct.
void xmlSessionBeforeLink(SessionPaths *&table, XmlNode *node);
void xmlSessionBeforeCut(SessionPaths *&table, XmlNode *node);
void xmlSessionPathsFree(SessionPaths *table);
// Most lookups are answered by a few steps up: only deeper trees use the
// path links.
#ifdef KRVXML_TESTING
extern int xmlShortWalkSteps;
#else
constexpr int xmlShortWalkSteps = 24;
#endif
// Before node, a session record without parent, gets one.
void xmlSessionRecordBeforeLink(XmlNode *node);
// Before node, a record without parent, gets one: tells its regime's links.
inline void xmlBeforeLink(XmlNode *node)
{
    if (node->mem == nullptr) {
        xmlHeapBeforeLink(node);
    } else {
        xmlSessionRecordBeforeLink(node);
    }
}
#ifdef KRVXML_TESTING
namespace krv_test {
// How many steps up a lookup walks before it uses the path links (24 by
// default); 0 makes every lookup below a top record use them.
void SetShortWalk(int steps);
}  // namespace krv_test
#endif

// Lets node's session remember that top is node's top record (nothing for a
// heap record or an attribute), a fact that holds until the next unlink.
void xmlNoteTop(XmlNode *node, XmlNode *top);

// Tells node's session that node, the top record of a tree until now, was
// linked into the tree of top: what the session knows stays true.
void xmlNoteLinked(XmlNode *node, XmlNode *top);

// A session also counts its loose trees: trees of its records, handed to the
// caller, that lie outside the tree of the document owning the session. While
// there are none, every record's top is that document and no walk is needed.
// The exported functions that make, link, take out or release records keep
// the count; internal steps that build inside one call do not.
//
// Makes document, which owns its session, the session's owner, with no loose
// tree: called once the document's whole tree is built.
void xmlNoteOwner(XmlNode *document);
// A loose tree of the session was made (+1) or ended (-1): linked into
// another tree, or released. Nothing for a null session.
void xmlNoteLoose(XmlMemSession *session, int change);
// The top of the tree that `node` (detached, childless, from the same memory
// as `at`) joins when linked at `at`, when the session knows it without a
// walk: node is then the session's one loose tree. Null otherwise.
XmlNode *xmlKnownTopForLeaf(const XmlNode *at, const XmlNode *node);

// A record of the kind's shape, zeroed, carved from session or the heap;
// null when memory ran out. XML_NewNode, less the count of loose trees.
XmlNode *xmlNewRecord(XmlMemSession *session, int32_t kind);

// XML_SetNode for a record that is not an attribute in a list: the index of
// its owner's list (see xml_attrs.cpp) is not kept.
uint32_t xmlSetStrings(XmlNode *context, XmlNode *node, const char *prefix, const char *name,
                       const char *value);

// XML_AddAttrNode, less the count of loose trees.
uint32_t xmlAddAttrNode(XmlNode *attr, XmlNode *element);

// The release rule: hands ptr to the heap unless `session` is non-null.
inline void xmlReleaseTo(XmlMemSession *session, void *ptr)
{
    if (session == nullptr) {
        krvHeapFree(ptr);
    }
}

// The root of node's tree for the editing functions: the first record up the
// `parent` chain (an attribute stepping to its owner) that is not an attribute
// and has no parent. Null when an ownerless attribute is met, or when that
// record has a sibling: such trees have no usable root.
XmlNode *xmlFindRoot(XmlNode *node);

// Unlinks an element or document from its parent and siblings (links only).
void xmlUnlink(XmlNode *node);

// First attribute of the element that matches prefix and name, or null.
// Prefix null matches only attributes without prefix; likewise the name.
// A search that walks past kAttrWalk attributes gives a long list an index
// (when memory allows), so that later searches of it cost O(1).
XmlNode *xmlGetAttr(XmlNode *element, const char *prefix, const char *name);

// ----- The index of long attribute lists (xml_attrs.cpp) -----
//
// Searches, appends and removals walk this many attributes of a list before
// they ask its element's index; a list that grows longer gets one.
constexpr size_t kAttrWalk = 16;
struct AttrIndex;
// element's index, or null when it has none (an element or document); a
// list waiting after a refused build has none.
AttrIndex *xmlAttrIndexOf(XmlNode *element);
// The attribute with prefix and name (compared as xmlGetAttr does), or null.
XmlNode *xmlAttrIndexFind(const AttrIndex *index, const char *prefix, const char *name);
// The last attribute of the indexed list.
XmlNode *xmlAttrIndexTail(const AttrIndex *index);
// Writes attr's predecessor (null for the first) to *prev; false when attr
// is not in the list.
bool xmlAttrIndexPrev(const AttrIndex *index, const XmlNode *attr, XmlNode **prev);
// attr was just linked after prev at the end of element's list, which then
// has `length` attributes (counted only when the element has no index).
// Keeps the index, or builds one for a long list. Never fails: without
// memory the element goes without one.
void xmlAttrIndexAppended(XmlNode *element, XmlNode *attr, XmlNode *prev, size_t length);
// Builds an index of element's list, which has none, and returns it; null
// when memory ran out, the list cannot be indexed, or it refused a build too
// few calls ago (see xml_attrs.cpp).
AttrIndex *xmlAttrIndexMake(XmlNode *element);
// attr, after prev in element's list, is about to be unlinked.
void xmlAttrIndexCut(XmlNode *element, XmlNode *attr, XmlNode *prev);
// Around a change of an attribute's prefix or name: Forget takes attr out of
// its owner's index, Restore puts it back under its key then.
struct AttrRekey {
    AttrIndex *index;
    XmlNode *prev;
    uint32_t order;
};
AttrRekey xmlAttrIndexForget(XmlNode *attr);
void xmlAttrIndexRestore(XmlNode *attr, const AttrRekey &rekey);
// Releases the index of an element or document about to be freed to the
// heap (nothing for a session record: its session releases the index).
void xmlAttrIndexRelease(XmlNode *element);
// A session's table of indexes, and its release when the session ends.
struct SessionAttrIndexes;
SessionAttrIndexes *&xmlSessionAttrIndexes(XmlMemSession *session);
void xmlSessionAttrIndexesFree(SessionAttrIndexes *table);
// An index numbers its entries along the list from this number on; tests
// start near the top of the range, to see the numbers wrap.
#ifdef KRVXML_TESTING
extern uint32_t xmlAttrOrderStart;
namespace krv_test {
void SetAttrOrderStart(uint32_t first);
}  // namespace krv_test
#else
constexpr uint32_t xmlAttrOrderStart = 0;
#endif

// Writes attr's predecessor in element's list (null for the first) to
// *before; false when attr is not in that list. For edits: may build an index.
bool xmlAttrBefore(XmlNode *element, const XmlNode *attr, XmlNode **before);
// Unlinks attr, after `before` in element's list, keeping the list's index.
void xmlCutAttr(XmlNode *element, XmlNode *attr, XmlNode *before);

// Moves node's owned name into the first matching or empty slot of the
// document's name table, releasing the former string by the release rule.
void XML_InternName(XmlNode *document, XmlNode *node);

// ----- Memory sessions -----

// Growth of the chain in two steps, for a parse that writes pieces into the
// next block before it knows whether it keeps them. xmlSessionMakeBlock
// makes the zero block that XML_MemSpecialMalloc would append for a request
// of n bytes that no block can serve, without linking it (null when memory
// ran out; the chain is unchanged either way). xmlSessionAppend links it as
// the last block. xmlSessionSpare keeps a block made and not linked, its
// data zero again, for the next growth of the same capacity.
XmlMemSession *xmlSessionMakeBlock(XmlMemSession *session, int32_t n);
void xmlSessionAppend(XmlMemSession *session, XmlMemSession *block);
void xmlSessionSpare(XmlMemSession *session, XmlMemSession *block);

// The largest block capacity that the session can still carve from its
// current slab, that is without a heap allocation. For tests that need the
// session's next new block to reach the heap.
int32_t xmlSessionSlabRoom(const XmlMemSession *session);

#endif  // KRV_XML_INTERNAL_H
