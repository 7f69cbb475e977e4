// Serializer: the growable output buffer, escaping of text for output, tree
// printing and the transform entry points.
#include <cstdio>
#include <cstring>

#include "xml/xml_internal.h"

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

// ===== Output sinks of the transforms ======================================
//
// A transform walks its sub-tree twice: once with a counting sink, which
// finds the exact length of the text (and any node without a name) without
// allocating, and once with a writing sink into one block of exactly that
// size. The text thus costs one allocation and no copying on growth, and the
// time is linear in its length. The XmlMemBuf operations are not used here.

namespace {

struct XmlOutCount {
    size_t length;
    void put(const char *, size_t count) { length += count; }
};

struct XmlOutWrite {
    char *cursor;
    void put(const char *bytes, size_t count)
    {
        std::memcpy(cursor, bytes, count);
        cursor += count;
    }
};

template <class Sink, size_t N>
inline void xmlOutLit(Sink *out, const char (&text)[N])
{
    out->put(text, N - 1);
}

// ===== Escaping ============================================================

// What each byte becomes: 0 itself, otherwise an index into kEntities.
// The ampersand (5) is decided by the reference test.
constexpr uint8_t kAmp = 5;
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
    return t;
}
constexpr EscapeTable kEscape = makeEscapeTable();

struct Entity {
    const char *text;
    size_t length;
};
constexpr Entity kEntities[] = {
    {"", 0}, {"&quot;", 6}, {"&apos;", 6}, {"&lt;", 4}, {"&gt;", 4}, {"&amp;", 5},
};

constexpr uint32_t kMaxCodePoint = 0x10FFFF;

// True when a well-formed reference begins at the ampersand text[at]: the
// five predefined entities, or "&#" decimal digits ";" or "&#x" hexadecimal
// digits ";" whose value stays within 0x10FFFF (no digits at all counts).
// The candidate ends at the first ';' after the ampersand. *semicolon caches
// the position of that ';' (or `length` when there is none) so that a text
// with many ampersands is searched for ';' once overall.
bool xmlIsReference(const unsigned char *text, uint32_t at, uint32_t length, uint32_t *semicolon)
{
    if (*semicolon <= at) {
        const void *hit = std::memchr(text + at + 1, ';', length - at - 1);
        *semicolon = hit != nullptr
                         ? static_cast<uint32_t>(static_cast<const unsigned char *>(hit) - text)
                         : length;
    }
    uint32_t end = *semicolon;
    if (end >= length) {
        return false;
    }
    if (text[at + 1] == '#') {
        uint32_t i = at + 2;
        bool hex = i < end && text[i] == 'x';
        if (hex) {
            ++i;
        }
        uint32_t value = 0;
        for (; i < end; ++i) {
            unsigned c = text[i];
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
    size_t size = end - at + 1;
    const char *candidate = reinterpret_cast<const char *>(text + at);
    for (int e = 1; e <= 5; ++e) {
        if (kEntities[e].length == size && std::memcmp(candidate, kEntities[e].text, size) == 0) {
            return true;
        }
    }
    return false;
}

// Appends text with the markup characters replaced by entities; an ampersand
// that begins a well-formed reference is kept. Runs of plain bytes are copied
// in one piece. Only the low 32 bits of the text's length are used.
template <class Sink>
uint32_t xmlCopyWithEscape(Sink *out, const char *text)
{
    if (text == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    const auto *p = reinterpret_cast<const unsigned char *>(text);
    const uint32_t length = static_cast<uint32_t>(std::strlen(text));
    uint32_t semicolon = 0;
    uint32_t run = 0;
    uint32_t i = 0;
    for (;;) {
        // Hot loop: skip bytes that stand for themselves.
        while (length - i >= 4 && (kEscape.code[p[i]] | kEscape.code[p[i + 1]] |
                                   kEscape.code[p[i + 2]] | kEscape.code[p[i + 3]]) == 0) {
            i += 4;
        }
        while (i < length && kEscape.code[p[i]] == 0) {
            ++i;
        }
        if (i == length) {
            break;
        }
        uint8_t code = kEscape.code[p[i]];
        if (code == kAmp && xmlIsReference(p, i, length, &semicolon)) {
            ++i;  // the ampersand stays in the run
            continue;
        }
        out->put(text + run, i - run);
        out->put(kEntities[code].text, kEntities[code].length);
        run = ++i;
    }
    out->put(text + run, length - run);
    return KRV_XML_OK;
}

// ===== Tree printing =======================================================

constexpr uint32_t kModeWhole = 0;
constexpr uint32_t kModeHead = 1;
constexpr uint32_t kModeTail = 2;

// Names and prefixes, like values, count only the low 32 bits of their length.
template <class Sink>
void xmlPutQName(Sink *out, const XmlNode *node)
{
    if (node->nsPrefix != nullptr) {
        out->put(node->nsPrefix, static_cast<uint32_t>(std::strlen(node->nsPrefix)));
        xmlOutLit(out, ":");
    }
    out->put(node->name, static_cast<uint32_t>(std::strlen(node->name)));
}

// Writes an attribute and every attribute after it in its list, separated by
// single spaces. A loop, not a recursion, so that a long list costs no stack.
template <class Sink>
uint32_t xmlPrintAttrList(XmlNode *attr, Sink *out)
{
    for (XmlNode *a = attr; a != nullptr; a = a->next) {
        if (a->name == nullptr) {
            return KRV_XML_ERR_INVALID_PARAM;
        }
        if (a != attr) {
            xmlOutLit(out, " ");
        }
        xmlPutQName(out, a);
        xmlOutLit(out, "=\"");
        if (a->value != nullptr) {
            xmlCopyWithEscape(out, a->value);
        }
        xmlOutLit(out, "\"");
    }
    return KRV_XML_OK;
}

// The end tags written after the leaf `node`: in the tail mode the leaf's own
// and, in both modes, those of the ancestors whose last child the previous
// one is. Climbs iteratively; stops at the top node, whose parent is null for
// the length of a transform.
template <class Sink>
void xmlCloseRun(XmlNode *node, Sink *out, uint32_t mode)
{
    XmlNode *parent = node->parent;
    if (parent == nullptr || node->firstChild != nullptr || parent->lastChild != node) {
        return;
    }
    XmlNode *close = mode == kModeTail ? node : parent;
    for (;;) {
        xmlOutLit(out, "</");
        xmlPutQName(out, close);
        xmlOutLit(out, ">\n");
        XmlNode *up = close->parent;
        if (up == nullptr || up->lastChild != close) {
            return;
        }
        close = up;
    }
}

// Writes one node in the given mode (0 whole, 1 head, 2 tail). Children are
// not descended into: the caller's walk brings them. An attribute node writes
// itself and the rest of its list.
template <class Sink>
uint32_t xmlPrintDomTreeRecursive(XmlNode *node, Sink *out, uint32_t mode)
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
        xmlCloseRun(node, out, mode);
        return KRV_XML_OK;
    }
    xmlOutLit(out, "<");
    xmlPutQName(out, node);
    if (node->firstAttr != nullptr) {
        xmlOutLit(out, " ");
        uint32_t rc = xmlPrintAttrList(node->firstAttr, out);
        if (rc != KRV_XML_OK) {
            return rc;
        }
    }
    if (node->firstChild != nullptr) {
        xmlOutLit(out, ">\n");
        return KRV_XML_OK;
    }
    if (node->value != nullptr) {
        xmlOutLit(out, ">");
        xmlCopyWithEscape(out, node->value);
        xmlOutLit(out, "</");
        xmlPutQName(out, node);
        xmlOutLit(out, ">\n");
    } else if (mode == kModeHead && node->next == nullptr) {
        // The head leaves the last leaf open for the caller's content.
        xmlOutLit(out, ">\n");
        return KRV_XML_OK;
    } else {
        xmlOutLit(out, "/>\n");
    }
    if (mode != kModeHead) {
        xmlCloseRun(node, out, mode);
    }
    return KRV_XML_OK;
}

template <class Sink>
uint32_t xmlPrintSubTree(XmlNode *top, Sink *out, uint32_t mode)
{
    for (XmlNode *node = top; node != nullptr; node = KRV_XML_Iterator(node)) {
        uint32_t rc = xmlPrintDomTreeRecursive(node, out, mode);
        if (rc != KRV_XML_OK) {
            return rc;
        }
    }
    return KRV_XML_OK;
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

    char *data = nullptr;
    XmlOutCount count{0};
    uint32_t rc = xmlPrintSubTree(top, &count, mode);
    if (rc == KRV_XML_OK && count.length != 0) {
        data = count.length < SIZE_MAX
                   ? static_cast<char *>(XML_Malloc(nullptr, static_cast<uint64_t>(count.length) + 1))
                   : nullptr;
        if (data == nullptr) {
            rc = KRV_XML_ERR_NO_MEMORY;
        } else {
            XmlOutWrite write{data};
            xmlPrintSubTree(top, &write, mode);  // cannot fail: the first walk passed
            data[count.length] = '\0';
        }
    }

    top->parent = parent;
    top->next = next;
    top->prev = prev;
    if (rc != KRV_XML_OK) {
        return rc;
    }
    *text = data;
    *length = count.length;
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
