// The index of a long attribute list.
//
// An attribute list is singly linked and keeps no tail, so finding a name,
// the end of the list or an attribute's predecessor walks the list: an
// element given n attributes one call at a time, or read by name one
// attribute after another, would cost O(n^2). Once an append or a search
// meets a list longer than kAttrWalk attributes, the element gets a hash
// index of its attributes, keyed by prefix and name, that also holds each
// attribute's predecessor and the list's last attribute. Searches, appends
// and removals walk the first kAttrWalk attributes as before and then ask the
// index, so short lists never touch it and long ones cost O(1) per call.
//
// The index is exact whenever it exists: every function that links, unlinks
// or renames an attribute of an indexed element keeps it so. A rename may
// give two attributes the same prefix and name; each entry carries a number
// that grows along the list, and a search answers with the earliest, as a
// walk would. A failed growth drops the index, as do a chain of records
// linked at once and more than kMaxRepeats repeated keys; the next append or
// search that meets the long list builds it again, when it can. Losing it
// changes no result, only the cost. A list that refused a build (a chain, or
// repeated keys) is not tried again before as many calls as it had
// attributes have met it, so the failed builds add O(1) per call to walks
// that cost O(n).
//
// Heap elements and documents hold their index in a hidden word past their
// record; a session's records are carved byte-exact, so the session keeps a
// table from element to index on the heap, released when the session ends.
#include "xml/xml_hash.h"
#include "xml/xml_internal.h"

namespace {

struct AttrEntry {
    XmlNode *attr;  // null: an empty slot
    XmlNode *prev;  // attr's predecessor in the list; null for the first
    uint32_t hash;  // of prefix and name; its low bits pick the home slot
    uint32_t order;  // grows along the list: the earliest of equal keys wins
};

// Equal keys share a home slot, so every entry of a repeated key lengthens
// the run that operations on that key scan: past this many, the list is left
// to walks, which cost no more than such runs.
constexpr uint32_t kMaxRepeats = 8;

// Slot counts stay below 2^32, so that 32 hash bits reach every slot.
constexpr size_t kMaxSlots = size_t{1} << 31;
constexpr size_t kFirstSlots = 64;

}  // namespace

// With `slots` null, a record that stands for no index: the list refused a
// build, and `count` calls are left before the next try.
struct AttrIndex {
    XmlNode *tail;  // the list's last attribute
    size_t count;   // entries in use
    size_t mask;    // slot count - 1; at most half the slots are in use
    AttrEntry *slots;
    uint32_t nextOrder;  // for the next append
    uint32_t repeats;    // entries placed under a key in use; searches then look for the earliest
    uint64_t key[2];     // drawn when the index is built
};

// Session records map to their indexes here. A record's entry is kept when
// its index is dropped (index null), so keys are never removed.
struct SessionAttrIndexes {
    size_t used;  // slots with a key
    size_t mask;
};

namespace {

struct IndexSlot {
    XmlNode *key;
    AttrIndex *index;
};

IndexSlot *slotsOf(SessionAttrIndexes *table)
{
    return reinterpret_cast<IndexSlot *>(table + 1);
}

size_t homeOf(const XmlNode *key, size_t mask)
{
    return static_cast<size_t>(xmlMix64(reinterpret_cast<uintptr_t>(key))) & mask;
}

IndexSlot *findSlot(SessionAttrIndexes *table, const XmlNode *key)
{
    if (table == nullptr) {
        return nullptr;
    }
    IndexSlot *slots = slotsOf(table);
    for (size_t i = homeOf(key, table->mask);; i = (i + 1) & table->mask) {
        if (slots[i].key == key || slots[i].key == nullptr) {
            return slots[i].key == key ? &slots[i] : nullptr;
        }
    }
}

// The slot of key, made when missing; null when the table cannot grow.
IndexSlot *claimSlot(SessionAttrIndexes *&table, XmlNode *key)
{
    if (IndexSlot *slot = findSlot(table, key)) {
        return slot;
    }
    if (table == nullptr || 2 * (table->used + 1) > table->mask + 1) {
        size_t slots = table == nullptr ? 16 : 2 * (table->mask + 1);
        auto *grown = static_cast<SessionAttrIndexes *>(
            krvHeapCalloc(1, sizeof(SessionAttrIndexes) + slots * sizeof(IndexSlot)));
        if (grown == nullptr) {
            return nullptr;
        }
        grown->mask = slots - 1;
        if (table != nullptr) {
            for (size_t i = 0; i <= table->mask; ++i) {
                IndexSlot &old = slotsOf(table)[i];
                if (old.key != nullptr) {
                    size_t j = homeOf(old.key, grown->mask);
                    while (slotsOf(grown)[j].key != nullptr) {
                        j = (j + 1) & grown->mask;
                    }
                    slotsOf(grown)[j] = old;
                    ++grown->used;
                }
            }
            krvHeapFree(table);
        }
        table = grown;
    }
    size_t i = homeOf(key, table->mask);
    while (slotsOf(table)[i].key != nullptr) {
        i = (i + 1) & table->mask;
    }
    slotsOf(table)[i].key = key;
    ++table->used;
    return &slotsOf(table)[i];
}

AttrIndex *&heapWord(XmlNode *element)
{
    size_t at = element->kind == kKindDocument ? kHeapDocumentSize : kHeapElementSize;
    return *reinterpret_cast<AttrIndex **>(reinterpret_cast<unsigned char *>(element) + at -
                                           sizeof(AttrIndex *));
}

// Hash of prefix and name. A byte before each says whether it is there, so
// that a null string and an empty one differ as they do for xmlSameText.
uint32_t hashOf(const AttrIndex *index, const char *prefix, const char *name)
{
    XmlSipHash h(index->key);
    h.add(static_cast<unsigned char>(prefix != nullptr ? 1 : 0));
    h.add(prefix);
    h.add(static_cast<unsigned char>(0));
    h.add(static_cast<unsigned char>(name != nullptr ? 1 : 0));
    h.add(name);
    return static_cast<uint32_t>(h.finish());
}

uint32_t hashOf(const AttrIndex *index, const XmlNode *attr)
{
    return hashOf(index, attr->nsPrefix, attr->name);
}

// The slot holding attr, or null when attr is not in the index.
AttrEntry *entryOf(const AttrIndex *index, const XmlNode *attr)
{
    uint32_t hash = hashOf(index, attr);
    for (size_t i = hash & index->mask;; i = (i + 1) & index->mask) {
        AttrEntry &e = index->slots[i];
        if (e.attr == attr || e.attr == nullptr) {
            return e.attr == attr ? &e : nullptr;
        }
    }
}

// The earliest attribute in list order with prefix and name, or null.
// Equal keys share a home slot and no entry lies past an empty slot from its
// home, so the run from the home slot to the next empty one holds them all;
// while no key repeats, the first match is the answer.
XmlNode *findHashed(const AttrIndex *index, const char *prefix, const char *name, uint32_t hash)
{
    const AttrEntry *best = nullptr;
    for (size_t i = hash & index->mask; index->slots[i].attr != nullptr; i = (i + 1) & index->mask) {
        const AttrEntry &e = index->slots[i];
        if (e.hash == hash && (best == nullptr || e.order < best->order) && xmlSameText(e.attr->nsPrefix, prefix) &&
            xmlSameText(e.attr->name, name)) {
            best = &e;
            if (index->repeats == 0) {
                break;
            }
        }
    }
    return best != nullptr ? best->attr : nullptr;
}

// Puts an entry in the first empty slot from its home on. The index has
// room.
void place(AttrEntry *slots, size_t mask, const AttrEntry &entry)
{
    size_t i = entry.hash & mask;
    while (slots[i].attr != nullptr) {
        i = (i + 1) & mask;
    }
    slots[i] = entry;
}

// Moves the entries into `slots` slots (a power of two, at least twice the
// entries); false when memory ran out (the index is as it was).
bool resize(AttrIndex *index, size_t slots)
{
    if (slots > kMaxSlots) {
        return false;
    }
    auto *moved = static_cast<AttrEntry *>(krvHeapCalloc(slots, sizeof(AttrEntry)));
    if (moved == nullptr) {
        return false;
    }
    for (size_t i = 0; i <= index->mask; ++i) {
        if (index->slots[i].attr != nullptr) {
            place(moved, slots - 1, index->slots[i]);
        }
    }
    krvHeapFree(index->slots);
    index->slots = moved;
    index->mask = slots - 1;
    return true;
}

// Numbers the entries of element's index again in list order from 0, for
// an index whose next order number would overflow. Attributes not in the
// index yet (one being appended) are passed over.
void renumber(AttrIndex *index, XmlNode *element)
{
    uint32_t order = 0;
    for (XmlNode *a = element->firstAttr; a != nullptr; a = a->next) {
        if (AttrEntry *e = entryOf(index, a)) {
            e->order = order++;
        }
    }
    index->nextOrder = order;
}

// Adds an entry for attr, appended last to the list; false when the slots
// could not grow (the index is as it was).
bool insert(AttrIndex *index, XmlNode *element, XmlNode *attr, XmlNode *prev, uint32_t hash)
{
    if (2 * (index->count + 1) > index->mask + 1 && !resize(index, 2 * (index->mask + 1))) {
        return false;
    }
    if (index->nextOrder == UINT32_MAX) {
        renumber(index, element);
    }
    place(index->slots, index->mask, AttrEntry{attr, prev, hash, index->nextOrder++});
    ++index->count;
    return true;
}

// Empties a slot, moving later entries of the same run back so that every
// entry stays reachable from its home slot.
void erase(AttrIndex *index, AttrEntry *entry)
{
    size_t mask = index->mask;
    auto hole = static_cast<size_t>(entry - index->slots);
    for (size_t j = (hole + 1) & mask; index->slots[j].attr != nullptr; j = (j + 1) & mask) {
        size_t home = index->slots[j].hash & mask;
        // The entry at j may fill the hole unless its home lies after the
        // hole, cyclically, up to j.
        bool homeAfterHole = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
        if (!homeAfterHole) {
            index->slots[hole] = index->slots[j];
            hole = j;
        }
    }
    index->slots[hole].attr = nullptr;
    --index->count;
}

void release(AttrIndex *index)
{
    if (index != nullptr) {
        krvHeapFree(index->slots);
        krvHeapFree(index);
    }
}

// An index of element's whole list, or null when memory ran out, an
// attribute of the list names another owner (XML_AddAttrNode links a chain
// of records as it is: a rename of that one would not reach the index), or
// keys repeat more than kMaxRepeats times. *refused is set in the last two
// cases, with the list's length in *length.
AttrIndex *build(XmlNode *element, size_t *length, bool *refused)
{
    *length = 0;
    for (const XmlNode *a = element->firstAttr; a != nullptr; a = a->next) {
        ++*length;
    }
    size_t slots = kFirstSlots;  // the first growth comes at the 33rd attribute
    while (slots < 2 * *length) {
        slots *= 2;
    }
    if (slots > kMaxSlots) {
        return nullptr;
    }
    auto *index = static_cast<AttrIndex *>(krvHeapMalloc(sizeof(AttrIndex)));
    auto *entries = static_cast<AttrEntry *>(krvHeapCalloc(slots, sizeof(AttrEntry)));
    if (index == nullptr || entries == nullptr) {
        krvHeapFree(index);
        krvHeapFree(entries);
        return nullptr;
    }
    index->count = 0;
    index->mask = slots - 1;
    index->slots = entries;
    index->tail = nullptr;
    index->nextOrder = *length < UINT32_MAX - xmlAttrOrderStart ? xmlAttrOrderStart : 0;
    index->repeats = 0;
    xmlDrawKey(index->key, index);
    for (XmlNode *a = element->firstAttr; a != nullptr; a = a->next) {
        uint32_t hash = a->parent == element ? hashOf(index, a) : 0;
        if (a->parent != element ||
            (findHashed(index, a->nsPrefix, a->name, hash) != nullptr && ++index->repeats > kMaxRepeats)) {
            release(index);
            *refused = true;
            return nullptr;
        }
        place(entries, index->mask, AttrEntry{a, index->tail, hash, index->nextOrder++});
        ++index->count;
        index->tail = a;
    }
    return index;
}

// Where element's index is kept: its hidden word, or its session's table
// entry (made when `claim`; null when there is none or it cannot be made).
AttrIndex **holderOf(XmlNode *element, bool claim)
{
    if (element->mem == nullptr) {
        return &heapWord(element);
    }
    SessionAttrIndexes *&table = xmlSessionAttrIndexes(element->mem);
    IndexSlot *slot = claim ? claimSlot(table, element) : findSlot(table, element);
    return slot != nullptr ? &slot->index : nullptr;
}

void drop(XmlNode *element)
{
    if (AttrIndex **holder = holderOf(element, false)) {
        release(*holder);
        *holder = nullptr;
    }
}

}  // namespace

#ifdef KRVXML_TESTING
uint32_t xmlAttrOrderStart = 0;

void krv_test::SetAttrOrderStart(uint32_t first)
{
    xmlAttrOrderStart = first;
}
#endif

AttrIndex *xmlAttrIndexOf(XmlNode *element)
{
    AttrIndex **holder = holderOf(element, false);
    AttrIndex *index = holder != nullptr ? *holder : nullptr;
    return index != nullptr && index->slots != nullptr ? index : nullptr;
}

XmlNode *xmlAttrIndexFind(const AttrIndex *index, const char *prefix, const char *name)
{
    return findHashed(index, prefix, name, hashOf(index, prefix, name));
}

XmlNode *xmlAttrIndexTail(const AttrIndex *index)
{
    return index->tail;
}

bool xmlAttrIndexPrev(const AttrIndex *index, const XmlNode *attr, XmlNode **prev)
{
    const AttrEntry *e = entryOf(index, attr);
    if (e == nullptr) {
        return false;
    }
    *prev = e->prev;
    return true;
}

void xmlAttrIndexAppended(XmlNode *element, XmlNode *attr, XmlNode *prev, size_t length)
{
    if (attr->next != nullptr) {
        drop(element);  // a chain was linked: its records are not known here
        return;
    }
    if (AttrIndex *index = xmlAttrIndexOf(element)) {
        if (!insert(index, element, attr, prev, hashOf(index, attr))) {
            drop(element);
            return;
        }
        index->tail = attr;
        return;
    }
    if (length > kAttrWalk) {
        xmlAttrIndexMake(element);
    }
}

AttrIndex *xmlAttrIndexMake(XmlNode *element)
{
    AttrIndex **held = holderOf(element, false);
    AttrIndex *waiting = held != nullptr ? *held : nullptr;  // no index: only a refusal
    if (waiting != nullptr && waiting->count > 0) {
        --waiting->count;
        return nullptr;
    }
    size_t length = 0;
    bool refused = false;
    AttrIndex *index = build(element, &length, &refused);
    if (index == nullptr && refused) {
        // Wait as many calls as the list is long; without memory to note
        // that, the next call tries again.
        if (waiting == nullptr) {
            waiting = static_cast<AttrIndex *>(krvHeapCalloc(1, sizeof(AttrIndex)));
        }
        held = waiting != nullptr ? holderOf(element, true) : nullptr;
        if (held == nullptr) {
            release(waiting);
            return nullptr;
        }
        waiting->count = length;
        *held = waiting;
        return nullptr;
    }
    AttrIndex **holder = index != nullptr ? holderOf(element, true) : nullptr;
    if (holder == nullptr) {
        release(index);
        return nullptr;
    }
    release(*holder);  // a refusal that waited its turn
    *holder = index;
    return index;
}

void xmlAttrIndexCut(XmlNode *element, XmlNode *attr, XmlNode *prev)
{
    AttrIndex *index = xmlAttrIndexOf(element);
    if (index == nullptr) {
        return;
    }
    if (attr->next != nullptr) {
        if (AttrEntry *after = entryOf(index, attr->next)) {
            after->prev = prev;
        }
    }
    if (index->tail == attr) {
        index->tail = prev;
    }
    if (AttrEntry *e = entryOf(index, attr)) {
        erase(index, e);
    }
    // The memory follows the list down: a list short enough for walks gives
    // its index up, and a sparse one moves to half its slots (when that
    // memory is had; the index is right either way).
    if (index->count <= kAttrWalk / 2) {
        drop(element);
    } else if (index->mask + 1 > kFirstSlots && 8 * index->count < index->mask + 1) {
        resize(index, (index->mask + 1) / 2);
    }
}

AttrRekey xmlAttrIndexForget(XmlNode *attr)
{
    AttrRekey rekey{nullptr, nullptr, 0};
    XmlNode *element = attr->parent;
    if (xmlIsAttr(attr) && element != nullptr) {
        if (AttrIndex *index = xmlAttrIndexOf(element)) {
            if (AttrEntry *e = entryOf(index, attr)) {
                rekey.index = index;
                rekey.prev = e->prev;
                rekey.order = e->order;
                erase(index, e);
            }
        }
    }
    return rekey;
}

void xmlAttrIndexRestore(XmlNode *attr, const AttrRekey &rekey)
{
    AttrIndex *index = rekey.index;
    if (index == nullptr) {
        return;
    }
    // The entry was taken out just before, so there is room for it again,
    // at its place in the list order.
    uint32_t hash = hashOf(index, attr);
    if (findHashed(index, attr->nsPrefix, attr->name, hash) != nullptr && ++index->repeats > kMaxRepeats) {
        drop(attr->parent);
        return;
    }
    place(index->slots, index->mask, AttrEntry{attr, rekey.prev, hash, rekey.order});
    ++index->count;
}

void xmlAttrIndexRelease(XmlNode *element)
{
    if (element->mem == nullptr) {
        release(heapWord(element));
    }
}

void xmlSessionAttrIndexesFree(SessionAttrIndexes *table)
{
    if (table == nullptr) {
        return;
    }
    for (size_t i = 0; i <= table->mask; ++i) {
        release(slotsOf(table)[i].index);
    }
    krvHeapFree(table);
}
