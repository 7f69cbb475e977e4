// Serializer: the growable output buffer, escaping of text for output, tree
// printing and the transform entry points.
#include <cstdio>
#include <cstring>

#include "xml/xml_internal.h"

#ifdef KRVXML_SSE2_SCAN
#include <emmintrin.h>
#endif

// ===== Growable output buffer ==============================================
//
// The XmlMemBuf operations keep their additive capacity rule because other
// components see them. The transforms do not use them: they write through the
// private writer further down, which grows geometrically.

namespace {

constexpr uint32_t kMemBufGrowStep = 1024;

bool memBufOwns(const XmlMemBuf *buf, const char *p)
{
    return buf->data != nullptr && p >= buf->data && p <= buf->data + buf->capacity;
}

// Makes the storage fit `wanted` bytes of content. Never changes `length`.
// Growing carries the content over; shrinking carries only the `keep` bytes
// at `keepFrom` (the assignments rewrite the content right afterwards, from a
// source that may lie in the old storage). The old storage is released only
// after the new one is filled.
uint32_t XML_MembufSetSize(XmlMemBuf *buf, uint32_t wanted, size_t keepFrom = 0, uint32_t keep = 0)
{
    uint64_t newCapacity;
    bool growing = wanted >= buf->length;
    if (!growing) {
        if (buf->capacity - wanted <= buf->growStep) {
            return KRV_XML_OK;
        }
        newCapacity = static_cast<uint64_t>(wanted) + buf->growStep;
    } else {
        if (buf->capacity >= wanted) {
            return KRV_XML_OK;
        }
        uint32_t increase = wanted - buf->length;
        newCapacity = static_cast<uint64_t>(buf->capacity) +
                      (increase > buf->growStep ? increase : buf->growStep);
    }
    char *storage = nullptr;
    if (newCapacity <= UINT32_MAX) {
        storage = static_cast<char *>(XML_Malloc(nullptr, newCapacity + 1));
    }
    if (storage == nullptr) {
        // One retry with the exact size.
        newCapacity = wanted;
        storage = static_cast<char *>(XML_Malloc(nullptr, newCapacity + 1));
        if (storage == nullptr) {
            return KRV_XML_ERR_NO_MEMORY;
        }
    }
    if (buf->data != nullptr) {
        uint32_t carry = growing ? buf->length : keep;
        memcpy_s(storage, newCapacity + 1, buf->data + (growing ? 0 : keepFrom), carry);
        storage[carry] = '\0';
        XML_Free(nullptr, buf->data);
    }
    buf->data = storage;
    buf->capacity = static_cast<uint32_t>(newCapacity);
    return KRV_XML_OK;
}

}  // namespace

void XML_MembufInit(XmlMemBuf *buf)
{
    if (buf == nullptr) {
        return;
    }
    memset_s(buf, sizeof *buf, 0, sizeof *buf);
    buf->growStep = kMemBufGrowStep;
}

void XML_MembufDestroy(XmlMemBuf *buf)
{
    if (buf == nullptr) {
        return;
    }
    XML_Free(nullptr, buf->data);
    XML_MembufInit(buf);
}

uint32_t XML_MemBufAssign(XmlMemBuf *buf, const char *src, uint32_t count)
{
    if (buf == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (src == nullptr) {
        XML_MembufDestroy(buf);
        return KRV_XML_OK;
    }
    // A source inside the buffer's own storage is found again by its offset.
    bool inside = memBufOwns(buf, src);
    size_t offset = inside ? static_cast<size_t>(src - buf->data) : 0;
    const char *oldData = buf->data;
    bool shrinking = count < buf->length;
    uint32_t rc = XML_MembufSetSize(buf, count, offset, inside ? count : 0);
    if (rc != KRV_XML_OK) {
        return rc;
    }
    if (buf->data == nullptr) {
        // Zero bytes into a buffer without storage: take one byte so that
        // data reads as "". Without it the buffer stays in the empty state,
        // whose content is empty too, so the assignment still succeeds.
        buf->data = static_cast<char *>(XML_Malloc(nullptr, 1));
        if (buf->data == nullptr) {
            return KRV_XML_OK;
        }
        buf->capacity = 0;
    }
    size_t room = static_cast<size_t>(buf->capacity) + 1;
    if (!inside) {
        memcpy_s(buf->data, room, src, count);
    } else if (!(shrinking && buf->data != oldData)) {
        memmove_s(buf->data, room, buf->data + offset, count);
    }
    buf->data[count] = '\0';
    buf->length = count;
    return KRV_XML_OK;
}

uint32_t XML_MemBufAssignStr(XmlMemBuf *buf, const char *str)
{
    if (buf == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (str == nullptr) {
        return XML_MemBufAssign(buf, nullptr, 0);
    }
    return XML_MemBufAssign(buf, str, static_cast<uint32_t>(std::strlen(str)));
}

uint32_t XML_MemBufInsert(XmlMemBuf *buf, const char *src, uint32_t count, uint32_t pos)
{
    if (buf == nullptr || pos > buf->length) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (src == nullptr || count == 0) {
        return KRV_XML_OK;
    }
    if (count > UINT32_MAX - buf->length) {
        return KRV_XML_ERR_NO_MEMORY;  // the content would pass 4 GiB
    }
    // A source inside the buffer is found again by its offset after growth.
    bool inside = memBufOwns(buf, src);
    size_t offset = inside ? static_cast<size_t>(src - buf->data) : 0;
    uint32_t rc = XML_MembufSetSize(buf, buf->length + count);
    if (rc != KRV_XML_OK) {
        return rc;
    }
    char *data = buf->data;
    size_t room = static_cast<size_t>(buf->capacity) + 1;
    memmove_s(data + pos + count, room - pos - count, data + pos, buf->length - pos);
    if (!inside) {
        memcpy_s(data + pos, room - pos, src, count);
    } else {
        // Source bytes before pos stayed where they were; those at or after
        // pos moved up by count together with the tail.
        size_t before = offset < pos ? pos - offset : 0;
        if (before > count) {
            before = count;
        }
        std::memmove(data + pos, data + offset, before);
        std::memmove(data + pos + before, data + offset + before + count, count - before);
    }
    buf->length += count;
    data[buf->length] = '\0';
    return KRV_XML_OK;
}

uint32_t XML_MemBufAppend(XmlMemBuf *buf, const char *ch)
{
    if (buf == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (ch == nullptr) {
        return KRV_XML_OK;
    }
    return XML_MemBufInsert(buf, ch, 1, buf->length);
}

uint32_t XML_MemBufAppendStr(XmlMemBuf *buf, const char *str)
{
    if (buf == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (str == nullptr || str[0] == '\0') {
        return KRV_XML_OK;
    }
    return XML_MemBufInsert(buf, str, static_cast<uint32_t>(std::strlen(str)), buf->length);
}

// ===== Output of the transforms ============================================
//
// A transform walks its sub-tree once and writes into one block that grows
// geometrically (doubling, so any copies on growth add up to less than the
// final length). The XmlMemBuf operations are not used here: their additive
// growth would make large outputs quadratic.

namespace {

constexpr size_t kOutFirstCapacity = 4096;

// The text being built. `capacity` counts the usable bytes; the block always
// has one more, for the terminator. `data` is null until the first byte.
struct XmlOut {
    char *data;
    size_t length;
    size_t capacity;
    const XmlNode *stop;  // where the last run of end tags of a deep tree stopped
};

// Resizes the block to `capacity` usable bytes, carrying the content over;
// on failure the block stays as it was.
bool xmlOutResize(XmlOut *out, size_t capacity)
{
    // Growing in place when the heap has room after the block saves copying
    // the text so far, which for large outputs is most of the memory traffic.
    auto *block = static_cast<char *>(
        out->data == nullptr ? XML_Malloc(nullptr, static_cast<uint64_t>(capacity) + 1)
                             : krvHeapRealloc(out->data, capacity + 1));
    if (block == nullptr) {
        return false;
    }
    out->data = block;
    out->capacity = capacity;
    return true;
}

// Makes room for `need` more bytes: twice the capacity, or the room asked
// for if that is more. When the heap refuses that, the additive step of the
// XmlMemBuf buffer is asked for, and last the exact size (once more, even
// when that was the first request), so a transform fails only where that
// buffer would fail too. Nothing changes on failure.
bool xmlOutGrow(XmlOut *out, size_t need)
{
    if (need > SIZE_MAX - 1 - out->length) {
        return false;
    }
    const size_t exact = out->length + need;
    size_t wanted = out->capacity == 0                   ? kOutFirstCapacity
                    : out->capacity > (SIZE_MAX - 1) / 2 ? SIZE_MAX - 1
                                                         : out->capacity * 2;
    if (wanted < exact) {
        wanted = exact;
    }
    if (xmlOutResize(out, wanted)) {
        return true;
    }
    const size_t step = need > kMemBufGrowStep ? need : kMemBufGrowStep;
    const size_t additive = out->capacity <= SIZE_MAX - 1 - step ? out->capacity + step : exact;
    if (additive > exact && additive < wanted && xmlOutResize(out, additive)) {
        return true;
    }
    return xmlOutResize(out, exact);  // asked again even when it is the same size
}

inline bool xmlOutReserve(XmlOut *out, size_t need)
{
    return out->capacity - out->length >= need || xmlOutGrow(out, need);
}

// Copies bytes for which room was reserved. Most pieces are short names and
// values: up to 16 bytes are moved with two overlapping loads and stores of
// fixed size each, which the compiler turns into plain moves.
inline void xmlOutCopy(XmlOut *out, const char *bytes, size_t count)
{
    char *to = out->data + out->length;
    out->length += count;
    if (count >= 8) {
        if (count > 16) {
            std::memcpy(to, bytes, count);
            return;
        }
        uint64_t head;
        uint64_t tail;
        std::memcpy(&head, bytes, 8);
        std::memcpy(&tail, bytes + count - 8, 8);
        std::memcpy(to, &head, 8);
        std::memcpy(to + count - 8, &tail, 8);
    } else if (count >= 4) {
        uint32_t head;
        uint32_t tail;
        std::memcpy(&head, bytes, 4);
        std::memcpy(&tail, bytes + count - 4, 4);
        std::memcpy(to, &head, 4);
        std::memcpy(to + count - 4, &tail, 4);
    } else if (count != 0) {
        to[0] = bytes[0];
        to[count / 2] = bytes[count / 2];
        to[count - 1] = bytes[count - 1];
    }
}

template <size_t N>
inline void xmlOutCopyLit(XmlOut *out, const char (&text)[N])
{
    std::memcpy(out->data + out->length, text, N - 1);
    out->length += N - 1;
}

template <size_t N>
inline bool xmlOutLit(XmlOut *out, const char (&text)[N])
{
    if (!xmlOutReserve(out, N - 1)) {
        return false;
    }
    xmlOutCopyLit(out, text);
    return true;
}

// ===== Escaping ============================================================

// What each byte becomes: 0 itself, otherwise an index into kEntities. The
// ampersand (5) is decided by the reference test; NUL (6) ends the text.
constexpr uint8_t kAmp = 5;
constexpr uint8_t kEnd = 6;
struct EscapeTable {
    uint8_t code[256];
};
constexpr EscapeTable makeEscapeTable()
{
    EscapeTable t{};
    t.code[static_cast<uint8_t>('"')] = 1;
    t.code[static_cast<uint8_t>('\'')] = 2;
    t.code[static_cast<uint8_t>('<')] = 3;
    t.code[static_cast<uint8_t>('>')] = 4;
    t.code[static_cast<uint8_t>('&')] = kAmp;
    t.code[0] = kEnd;
    return t;
}
constexpr EscapeTable kEscape = makeEscapeTable();

struct Entity {
    const char *text;
    size_t length;
};
constexpr Entity kEntities[] = {
    {"", 0}, {"&quot;", 6}, {"&apos;", 6}, {"&lt;", 4}, {"&gt;", 4}, {"&amp;", 5}, {"", 0},
};

#ifdef KRVXML_SSE2_SCAN
// The 16 bytes at the aligned address a, as a bit mask of those that are NUL
// or one of " ' < > &.
inline unsigned xmlStopMask(const unsigned char *a)
{
    const __m128i v = _mm_load_si128(reinterpret_cast<const __m128i *>(a));
    __m128i hit = _mm_cmpeq_epi8(v, _mm_setzero_si128());
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8('"')));
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8('\'')));
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8('<')));
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8('>')));
    hit = _mm_or_si128(hit, _mm_cmpeq_epi8(v, _mm_set1_epi8('&')));
    return static_cast<unsigned>(_mm_movemask_epi8(hit));
}

// The length of a name or prefix, read in aligned 16-byte blocks.
size_t xmlLength(const char *text)
{
    const auto *p = reinterpret_cast<const unsigned char *>(text);
    const uintptr_t skew = reinterpret_cast<uintptr_t>(p) & 15u;
    const unsigned char *block = p - skew;
    const __m128i zero = _mm_setzero_si128();
    unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(
                        _mm_cmpeq_epi8(_mm_load_si128(reinterpret_cast<const __m128i *>(block)), zero))) >>
                    skew;
    if (mask != 0) {
        return static_cast<size_t>(__builtin_ctz(mask));
    }
    for (;;) {
        block += 16;
        mask = static_cast<unsigned>(
            _mm_movemask_epi8(_mm_cmpeq_epi8(_mm_load_si128(reinterpret_cast<const __m128i *>(block)), zero)));
        if (mask != 0) {
            return static_cast<size_t>(block + __builtin_ctz(mask) - p);
        }
    }
}
#else
inline size_t xmlLength(const char *text)
{
    return std::strlen(text);
}

const unsigned char *xmlScanStop(const unsigned char *p)
{
    for (;;) {
        if (kEscape.code[p[0]] != 0) {
            return p;
        }
        if (kEscape.code[p[1]] != 0) {
            return p + 1;
        }
        if (kEscape.code[p[2]] != 0) {
            return p + 2;
        }
        if (kEscape.code[p[3]] != 0) {
            return p + 3;
        }
        p += 4;
    }
}
#endif

constexpr uint32_t kMaxCodePoint = 0x10FFFF;

// True when a well-formed reference begins at the ampersand `amp`: the five
// predefined entities, or "&#" decimal digits ";" or "&#x" hexadecimal
// digits ";" whose value stays within 0x10FFFF (no digits at all counts).
// The candidate ends at the first ';' after the ampersand. *semicolon caches
// that ';' between calls on one text (null: not searched yet; `noSemicolon`:
// none up to the end), so that a text with many ampersands is searched for
// ';' once overall.
bool xmlIsReference(const char *amp, const char **semicolon, bool *noSemicolon)
{
    if (*noSemicolon) {
        return false;
    }
    if (*semicolon == nullptr || *semicolon <= amp) {
        *semicolon = std::strchr(amp + 1, ';');
        if (*semicolon == nullptr) {
            *noSemicolon = true;
            return false;
        }
    }
    const auto *end = reinterpret_cast<const unsigned char *>(*semicolon);
    const auto *p = reinterpret_cast<const unsigned char *>(amp) + 1;
    if (*p == '#') {
        ++p;
        bool hex = p < end && *p == 'x';
        if (hex) {
            ++p;
        }
        uint32_t value = 0;
        for (; p < end; ++p) {
            unsigned c = *p;
            unsigned digit;
            if (c >= '0' && c <= '9') {
                digit = c - '0';
            } else if (hex && c >= 'a' && c <= 'f') {
                digit = c - 'a' + 10;
            } else if (hex && c >= 'A' && c <= 'F') {
                digit = c - 'A' + 10;
            } else {
                return false;
            }
            value = value * (hex ? 16 : 10) + digit;
            if (value > kMaxCodePoint) {
                return false;
            }
        }
        return true;
    }
    const size_t size = static_cast<size_t>(*semicolon - amp) + 1;
    for (int e = 1; e <= 5; ++e) {
        if (kEntities[e].length == size && std::memcmp(amp, kEntities[e].text, size) == 0) {
            return true;
        }
    }
    return false;
}

// Writes the plain bytes from run up to stop and what stands for the byte at
// stop: an entity, or nothing for the terminating NUL.
inline bool xmlOutRunAndEntity(XmlOut *out, const char *run, const char *stop, uint8_t code)
{
    // Room for exactly what is written, so that no request passes the
    // finished text's length (see xmlOutGrow).
    const size_t count = static_cast<size_t>(stop - run);
    if (!xmlOutReserve(out, count + kEntities[code].length)) {
        return false;
    }
    xmlOutCopy(out, run, count);
    xmlOutCopy(out, kEntities[code].text, kEntities[code].length);
    return true;
}

// Appends text with the markup characters replaced by entities; an ampersand
// that begins a well-formed reference is kept. The scan stops at the NUL and
// at the markup characters at once, and runs of plain bytes are copied in one
// piece.
#ifdef KRVXML_SSE2_SCAN
// Every byte of a 16-byte block that needs attention is taken from one mask,
// so that text dense with markup is not scanned again after each stop.
bool xmlCopyWithEscape(XmlOut *out, const char *text)
{
    const char *run = text;
    const char *semicolon = nullptr;
    bool noSemicolon = false;
    const uintptr_t skew = reinterpret_cast<uintptr_t>(text) & 15u;
    const auto *block = reinterpret_cast<const unsigned char *>(text) - skew;
    unsigned mask = xmlStopMask(block) & (0xFFFFu << skew);
    for (;;) {
        while (mask == 0) {
            block += 16;
            mask = xmlStopMask(block);
        }
        const char *stop = reinterpret_cast<const char *>(block) + __builtin_ctz(mask);
        mask &= mask - 1;
        const uint8_t code = kEscape.code[static_cast<unsigned char>(*stop)];
        if (code == kAmp && xmlIsReference(stop, &semicolon, &noSemicolon)) {
            continue;  // the ampersand stays in the run
        }
        if (!xmlOutRunAndEntity(out, run, stop, code)) {
            return false;
        }
        if (code == kEnd) {
            return true;
        }
        run = stop + 1;
    }
}
#else
bool xmlCopyWithEscape(XmlOut *out, const char *text)
{
    const char *run = text;
    const char *p = text;
    const char *semicolon = nullptr;
    bool noSemicolon = false;
    for (;;) {
        const char *stop = reinterpret_cast<const char *>(
            xmlScanStop(reinterpret_cast<const unsigned char *>(p)));
        const uint8_t code = kEscape.code[static_cast<unsigned char>(*stop)];
        p = stop + 1;
        if (code == kAmp && xmlIsReference(stop, &semicolon, &noSemicolon)) {
            continue;  // the ampersand stays in the run
        }
        if (!xmlOutRunAndEntity(out, run, stop, code)) {
            return false;
        }
        if (code == kEnd) {
            return true;
        }
        run = p;
    }
}
#endif

// ===== Tree printing =======================================================

constexpr uint32_t kModeWhole = 0;
constexpr uint32_t kModeHead = 1;
constexpr uint32_t kModeTail = 2;

// A node's qualified name, measured once for its start and end tags.
struct QName {
    const char *prefix;
    size_t prefixLength;
    const char *name;
    size_t nameLength;
    size_t length() const { return (prefix != nullptr ? prefixLength + 1 : 0) + nameLength; }
};

inline QName xmlQNameOf(const XmlNode *node)
{
    QName q{node->nsPrefix, 0, node->name, xmlLength(node->name)};
    if (q.prefix != nullptr) {
        q.prefixLength = xmlLength(q.prefix);
    }
    return q;
}

// Copies the qualified name into reserved room.
inline void xmlOutCopyQName(XmlOut *out, const QName &q)
{
    if (q.prefix != nullptr) {
        xmlOutCopy(out, q.prefix, q.prefixLength);
        out->data[out->length++] = ':';
    }
    xmlOutCopy(out, q.name, q.nameLength);
}

// "</" qualified name ">\n".
bool xmlOutEndTag(XmlOut *out, const QName &q)
{
    if (!xmlOutReserve(out, q.length() + 4)) {
        return false;
    }
    xmlOutCopyLit(out, "</");
    xmlOutCopyQName(out, q);
    xmlOutCopyLit(out, ">\n");
    return true;
}

// Writes an attribute and every attribute after it in its list, separated by
// single spaces. A loop, not a recursion, so that a long list costs no stack.
uint32_t xmlPrintAttrList(XmlNode *attr, XmlOut *out)
{
    for (XmlNode *a = attr; a != nullptr; a = a->next) {
        if (a->name == nullptr) {
            return KRV_XML_ERR_INVALID_PARAM;
        }
        // [" "] name "=\"", and the closing quote always follows.
        const QName q = xmlQNameOf(a);
        if (!xmlOutReserve(out, q.length() + 3)) {
            return KRV_XML_ERR_NO_MEMORY;
        }
        if (a != attr) {
            xmlOutCopyLit(out, " ");
        }
        xmlOutCopyQName(out, q);
        xmlOutCopyLit(out, "=\"");
        if (a->value != nullptr && !xmlCopyWithEscape(out, a->value)) {
            return KRV_XML_ERR_NO_MEMORY;
        }
        if (!xmlOutLit(out, "\"")) {
            return KRV_XML_ERR_NO_MEMORY;
        }
    }
    return KRV_XML_OK;
}

// Levels past which a tree counts as deep: a first descent that goes further
// picks the deep walk (xmlLooksDeep), and a climb of either walk that goes
// further asks below from there on, so that a deep chain met later than the
// first descent is climbed at the deep walk's pace too.
constexpr unsigned kDeepProbe = 64;

// The end tags written after the leaf `node`: in the tail mode the leaf's own
// and, in both modes, those of the ancestors whose last child the previous
// one is. Climbs iteratively; stops at the top node, whose parent is null for
// the length of a transform. The printing of a deep tree (kDeep) asks for
// the levels below each one it reaches, and notes in out->stop the last
// record it closed, where the walk goes on; other prints ask below only
// past kDeepProbe levels of one run.
template <bool kDeep = false>
inline __attribute__((always_inline)) bool xmlCloseRun(const XmlNode *node, XmlOut *out, uint32_t mode)
{
    const XmlNode *parent = node->parent;
    if (parent == nullptr || node->firstChild != nullptr || parent->lastChild != node) {
        return true;
    }
    const XmlNode *close = mode == kModeTail ? node : parent;
    for (unsigned level = 0;; ++level) {
        if (!xmlOutEndTag(out, xmlQNameOf(close))) {
            return false;
        }
        const XmlNode *up = close->parent;
        if (kDeep || level >= kDeepProbe) {
            xmlPrefetchBelow(up);
        }
        if (up == nullptr || up->lastChild != close) {
            if constexpr (kDeep) {
                out->stop = close;
            }
            return true;
        }
        close = up;
    }
}

// Writes one node in the given mode (0 whole, 1 head, 2 tail). Children are
// not descended into: the caller's walk brings them. An attribute node writes
// itself and the rest of its list. kDeep: as for xmlCloseRun.
template <bool kDeep = false>
uint32_t xmlPrintDomTreeRecursive(XmlNode *node, XmlOut *out, uint32_t mode)
{
    if (node == nullptr) {
        return KRV_XML_OK;
    }
    if (node->name == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (node->kind == kKindAttribute) {
        return mode == kModeTail ? KRV_XML_OK : xmlPrintAttrList(node, out);
    }
    if (node->kind != kKindElement && node->kind != kKindDocument) {
        return KRV_XML_OK;
    }
    if (mode == kModeTail) {
        return xmlCloseRun<kDeep>(node, out, mode) ? KRV_XML_OK : KRV_XML_ERR_NO_MEMORY;
    }
    // "<" and the name; at least two more bytes always follow (">\n" at the
    // least), so this room never reaches past the finished text.
    const QName q = xmlQNameOf(node);
    if (!xmlOutReserve(out, q.length() + 3)) {
        return KRV_XML_ERR_NO_MEMORY;
    }
    xmlOutCopyLit(out, "<");
    xmlOutCopyQName(out, q);
    if (node->firstAttr != nullptr) {
        xmlOutCopyLit(out, " ");
        uint32_t rc = xmlPrintAttrList(node->firstAttr, out);
        if (rc != KRV_XML_OK) {
            return rc;
        }
    }
    if (node->firstChild != nullptr) {
        return xmlOutLit(out, ">\n") ? KRV_XML_OK : KRV_XML_ERR_NO_MEMORY;
    }
    bool ok;
    if (node->value != nullptr) {
        ok = xmlOutLit(out, ">") && xmlCopyWithEscape(out, node->value) && xmlOutEndTag(out, q);
    } else if (mode == kModeHead && node->next == nullptr) {
        // The head leaves the last leaf open for the caller's content.
        return xmlOutLit(out, ">\n") ? KRV_XML_OK : KRV_XML_ERR_NO_MEMORY;
    } else {
        ok = xmlOutLit(out, "/>\n");
    }
    if (ok && mode != kModeHead) {
        ok = xmlCloseRun<kDeep>(node, out, mode);
    }
    return ok ? KRV_XML_OK : KRV_XML_ERR_NO_MEMORY;
}

// The node after `node` in the order of KRV_XML_Iterator (whose steps are
// repeated here, without a call per node): the first child, else the next
// sibling of the node or of its nearest ancestor that has one. An attribute
// node ends the walk, as it ends the iterator's. The climb asks for the
// levels below each one it reaches: always with kDeep, else past kDeepProbe
// levels.
template <bool kDeep = false>
inline XmlNode *xmlWalkNext(XmlNode *node)
{
    if (xmlIsAttr(node)) {
        return nullptr;
    }
    if (node->firstChild != nullptr) {
        return node->firstChild;
    }
    for (unsigned level = 0; node != nullptr && node->next == nullptr; ++level) {
        node = node->parent;
        if (kDeep || level >= kDeepProbe) {
            xmlPrefetchBelow(node);
        }
    }
    return node != nullptr ? node->next : nullptr;
}

inline void xmlPrefetch(const void *p)
{
#if defined(__GNUC__) || defined(__clang__)
    __builtin_prefetch(p);
#else
    (void)p;
#endif
}

// Asks for the lines of a record that a walk step reads (kind to
// firstChild), which may straddle two lines.
inline void xmlPrefetchLinks(const XmlNode *node)
{
    const auto at = reinterpret_cast<uintptr_t>(node);
    xmlPrefetch(reinterpret_cast<const void *>(at + offsetof(XmlNode, kind)));
    xmlPrefetch(reinterpret_cast<const void *>(at + offsetof(XmlNode, firstChild) + sizeof(XmlNode *) - 1));
}

// A heap parse lays a tree out in document order, so the lines between the
// records of two nodes that follow each other in the walk hold the first
// one's attributes and strings. Asking for all of them at once spares the
// writer a round trip per attribute, which pays while the tree sits in the
// caches. Some of those lines are never read (the words past each record,
// malloc's headers), and on AMD's cores a tree larger than the caches pays
// for them in memory traffic: there, past kBetweenUntil bytes of output, the
// scout goes back to a few lines past each record. Intel's cores gained by
// the lines between at every size measured (up to a 634 MB tree), so there
// the scout asks for them throughout.
constexpr uintptr_t kNearBytes = 2048;
constexpr size_t kBetweenUntil = size_t{1} << 20;

inline void xmlPrefetchBetween(uintptr_t from, uintptr_t to)
{
    for (uintptr_t at = from + 64; at < to; at += 64) {
        xmlPrefetch(reinterpret_cast<const void *>(at));
    }
}

// Asks for the strings of a node whose record has arrived, and for the
// records of its first attributes.
inline void xmlPrefetchStrings(const XmlNode *node)
{
    xmlPrefetch(node->value);
    xmlPrefetch(node->name);
    xmlPrefetch(node->nsPrefix);
    if (!xmlIsAttr(node)) {
        xmlPrefetch(node->firstAttr);
    }
}

// Writes every node of top's sub-tree in document order. The records and
// strings of a heap tree lie scattered over the heap, so a second cursor runs
// kAhead nodes ahead of the writer and asks for each record as it reaches it;
// the strings of a node are asked for two nodes before it is written, and
// those of its first attributes just before.
constexpr int kPrefetchAttrs = 4;
constexpr unsigned kAhead = 4;  // a power of two: the ring below wraps by mask

template <bool kDeep>
uint32_t xmlPrintScattered(XmlNode *top, XmlOut *out, uint32_t mode, size_t betweenUntil)
{
    XmlNode *ring[kAhead] = {};
    unsigned head = 0;  // ring[head] is the node written next
    XmlNode *scout = top;
    for (unsigned i = 0; i < kAhead && scout != nullptr; ++i) {
        ring[i] = scout;
        scout = xmlWalkNext<kDeep>(scout);
        xmlPrefetchLinks(scout);
    }
    while (ring[head] != nullptr) {
        XmlNode *node = ring[head];
        // The slot just taken is refilled with the node kAhead places on.
        ring[head] = scout;
        if (scout != nullptr) {
            const auto from = reinterpret_cast<uintptr_t>(scout);
            const bool hasAttrs = !xmlIsAttr(scout) && scout->firstAttr != nullptr;
            scout = xmlWalkNext<kDeep>(scout);
            xmlPrefetchLinks(scout);
            if (scout != nullptr) {
                const auto to = reinterpret_cast<uintptr_t>(scout);
                if (hasAttrs && out->length < betweenUntil && to > from && to - from <= kNearBytes) {
                    xmlPrefetchBetween(from, to);
                } else {
                    xmlPrefetchPast(scout);  // the scout waits for each record it reaches
                }
            }
        }
        head = (head + 1) & (kAhead - 1);
        XmlNode *soon = ring[(head + 1) & (kAhead - 1)];
        if (soon != nullptr) {
            xmlPrefetchStrings(soon);
        }
        if (!xmlIsAttr(node)) {
            // The first few attributes' strings; their records were asked for
            // with the node's strings. Bounded, so that a long list is not
            // walked twice.
            const XmlNode *a = node->firstAttr;
            for (int i = 0; i < kPrefetchAttrs && a != nullptr; ++i, a = a->next) {
                xmlPrefetch(a->name);
                xmlPrefetch(a->nsPrefix);
                xmlPrefetch(a->value);
                xmlPrefetch(a->next);
            }
        }
        uint32_t rc = xmlPrintDomTreeRecursive<kDeep>(node, out, mode);  // the scout walks on by itself
        if (rc != KRV_XML_OK) {
            return rc;
        }
    }
    return KRV_XML_OK;
}

// As xmlPrintScattered, without the scout: the records and strings of a
// session tree were carved one after the other in document order, so asking
// for the lines past each record is enough. A deep tree is climbed once: the
// walk goes on from the record where the run of end tags stopped.
template <bool kDeep>
uint32_t xmlPrintCompact(XmlNode *top, XmlOut *out, uint32_t mode)
{
    for (XmlNode *node = top; node != nullptr;) {
        xmlPrefetchPast(node);
        if constexpr (kDeep) {
            out->stop = nullptr;
        }
        uint32_t rc = xmlPrintDomTreeRecursive<kDeep>(node, out, mode);
        if (rc != KRV_XML_OK) {
            return rc;
        }
        if constexpr (kDeep) {
            // The stop is the top (whose parent is null for the walk) or has
            // a next sibling; links that say otherwise get the full climb.
            const XmlNode *stop = out->stop;
            if (stop != nullptr && (stop->next != nullptr || stop->parent == nullptr)) {
                node = stop->next;
                continue;
            }
        }
        node = xmlWalkNext<kDeep>(node);
    }
    return KRV_XML_OK;
}

// Whether the first line of descent from top is more than kDeepProbe levels
// deep: the printing of such a tree takes the walk of kDeep, which trees of
// ordinary depth do without.
bool xmlLooksDeep(const XmlNode *top)
{
    const XmlNode *node = top;
    for (unsigned level = 0; level < kDeepProbe; ++level) {
        if (xmlIsAttr(node) || node->firstChild == nullptr) {
            return false;
        }
        node = node->firstChild;
    }
    return true;
}

uint32_t xmlPrintSubTree(XmlNode *top, XmlOut *out, uint32_t mode)
{
    const bool deep = xmlLooksDeep(top);
    if (top->mem != nullptr) {
        return deep ? xmlPrintCompact<true>(top, out, mode) : xmlPrintCompact<false>(top, out, mode);
    }
    const size_t betweenUntil = xmlOnIntel() ? SIZE_MAX : kBetweenUntil;
    return deep ? xmlPrintScattered<true>(top, out, mode, betweenUntil)
                : xmlPrintScattered<false>(top, out, mode, betweenUntil);
}

// Builds the text of top's sub-tree in the given mode. The top node's links
// are cleared for the walk, so that the sub-tree stands alone, and restored on
// every path. On success *text is the NUL-terminated text (null when nothing
// was written) and *length its length; on failure nothing is left allocated.
uint32_t xmlBuildText(XmlNode *top, uint32_t mode, char **text, size_t *length)
{
    XmlNode *parent = top->parent;
    XmlNode *next = top->next;
    XmlNode *prev = top->prev;
    top->parent = nullptr;
    top->next = nullptr;
    top->prev = nullptr;

    XmlOut out{nullptr, 0, 0, nullptr};
    uint32_t rc = xmlPrintSubTree(top, &out, mode);

    top->parent = parent;
    top->next = next;
    top->prev = prev;
    if (rc != KRV_XML_OK) {
        XML_Free(nullptr, out.data);
        return rc;
    }
    if (out.data != nullptr) {
        out.data[out.length] = '\0';
    }
    *text = out.data;
    *length = out.length;
    return KRV_XML_OK;
}

uint32_t xmlTransformString(XmlNode *top, char **out, uint32_t mode)
{
    if (top == nullptr || out == nullptr || top->kind == kKindAttribute) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    char *text = nullptr;
    size_t length = 0;
    uint32_t rc = xmlBuildText(top, mode, &text, &length);
    if (rc == KRV_XML_OK) {
        *out = text;
    }
    return rc;
}

}  // namespace

// ===== Transform entry points ==============================================

uint32_t KRV_XML_Transform(XmlNode *top, char **out)
{
    return xmlTransformString(top, out, kModeWhole);
}

uint32_t KRV_XML_TransformHead(XmlNode *top, char **out)
{
    return xmlTransformString(top, out, kModeHead);
}

uint32_t KRV_XML_TransformTail(XmlNode *top, char **out)
{
    return xmlTransformString(top, out, kModeTail);
}

uint32_t KRV_XML_TransformFile(XmlNode *top, const char *path)
{
    if (top == nullptr || path == nullptr || top->kind == kKindAttribute) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    char *text = nullptr;
    size_t length = 0;
    uint32_t rc = xmlBuildText(top, kModeWhole, &text, &length);
    if (rc != KRV_XML_OK) {
        return rc;  // the file is opened only once the text is complete
    }
    // Written with the runtime's stdio, not the replaceable file functions.
    FILE *file = std::fopen(path, "w+");
    if (file == nullptr) {
        XML_Free(nullptr, text);
        return KRV_XML_ERR_FILE_OPEN;
    }
    size_t items = length == 0 ? 0 : std::fwrite(text, length, 1, file);
    XML_Free(nullptr, text);
    // A short text sits in the stdio buffer until the flush: a full disk
    // shows only there, so the flush decides too. The close's own result is
    // not looked at.
    bool written = items == 1 && std::fflush(file) == 0;
    std::fclose(file);
    return written ? KRV_XML_OK : KRV_XML_ERR_FILE_WRITE;
}
