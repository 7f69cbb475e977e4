// Typed values (booleans and 8-, 16- and 32-bit integers stored as text) and
// path lookup.
#include <cstring>

#include "xml/xml_internal.h"

// ===== Typed values ========================================================

namespace {

// What the reader and writer need to know of a type code.
struct ValueType {
    uint8_t width;    // bytes of the caller's variable
    bool isSigned;
    uint32_t maxPos;  // largest magnitude above zero
    uint32_t maxNeg;  // largest magnitude below zero (0 for unsigned types)
};

constexpr ValueType kValueTypes[] = {
    {4, false, 1, 0},                    // KRV_XML_VALUE_BOOL (read by its own rule)
    {4, true, 2147483647u, 2147483648u}, // KRV_XML_VALUE_INT32
    {4, false, 4294967295u, 0},          // KRV_XML_VALUE_UINT32
    {2, true, 32767u, 32768u},           // KRV_XML_VALUE_INT16
    {2, false, 65535u, 0},               // KRV_XML_VALUE_UINT16
    {1, true, 127u, 128u},               // KRV_XML_VALUE_INT8
    {1, false, 255u, 0},                 // KRV_XML_VALUE_UINT8
};
constexpr uint32_t kTypeCount = sizeof(kValueTypes) / sizeof(kValueTypes[0]);
static_assert(kTypeCount == KRV_XML_VALUE_UINT8 + 1, "one entry per type code");

// Room for the formatted text: at most 31 characters and the NUL.
constexpr size_t kValueTextSize = 32;
// Significant digits beyond this are refused before any range check.
constexpr int kMaxSignificantDigits = 24;

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// The caller's variable, read or written at exactly its own width; the
// pointer need not be aligned.
template <class T>
T readAs(const void *p)
{
    T v;
    memcpy_s(&v, sizeof v, p, sizeof v);
    return v;
}

template <class T>
void writeAs(void *p, T v)
{
    memcpy_s(p, sizeof v, &v, sizeof v);
}

constexpr size_t kMaxValueChars = kValueTextSize - 1;

bool formatSigned(int32_t v, char (&text)[kValueTextSize])
{
    return snprintf_s(text, sizeof text, kMaxValueChars, "%d", static_cast<int>(v)) > 0;
}

bool formatUnsigned(uint32_t v, char (&text)[kValueTextSize])
{
    return snprintf_s(text, sizeof text, kMaxValueChars, "%u", static_cast<unsigned>(v)) > 0;
}

// Formats the value at `value`, read at the type's width, into `text`.
// Signed values are widened with their sign, unsigned ones with zeros.
bool formatValue(uint32_t type, const void *value, char (&text)[kValueTextSize])
{
    switch (type) {
    case KRV_XML_VALUE_BOOL:
        return snprintf_s(text, sizeof text, kMaxValueChars, "%s",
                          readAs<uint32_t>(value) != 0 ? "true" : "false") > 0;
    case KRV_XML_VALUE_INT32:
        return formatSigned(readAs<int32_t>(value), text);
    case KRV_XML_VALUE_INT16:
        return formatSigned(readAs<int16_t>(value), text);
    case KRV_XML_VALUE_INT8:
        return formatSigned(readAs<int8_t>(value), text);
    case KRV_XML_VALUE_UINT32:
        return formatUnsigned(readAs<uint32_t>(value), text);
    case KRV_XML_VALUE_UINT16:
        return formatUnsigned(readAs<uint16_t>(value), text);
    case KRV_XML_VALUE_UINT8:
        return formatUnsigned(readAs<uint8_t>(value), text);
    default:
        return false;
    }
}

// Reads `text` as an integer of the type. The magnitude is accumulated in 64
// bits and capped just above every bound, so that no number of digits can
// wrap around into range.
bool parseInteger(const ValueType &vt, const char *text, uint32_t *magnitude, bool *negative)
{
    const char *p = text;
    bool neg = false;
    if (vt.isSigned && (*p == '-' || *p == '+')) {
        neg = *p == '-';
        ++p;
    }
    if (!isDigit(*p)) {
        return false;  // empty, a lone sign, or a sign where none is allowed
    }
    while (*p == '0') {
        ++p;
    }
    constexpr uint64_t kCap = 0x100000000ull;  // above every bound
    uint64_t value = 0;
    int digits = 0;
    for (; *p != '\0'; ++p) {
        if (!isDigit(*p) || ++digits > kMaxSignificantDigits) {
            return false;
        }
        if (value < kCap) {
            value = value * 10 + static_cast<uint64_t>(*p - '0');
        }
    }
    uint32_t limit = neg ? vt.maxNeg : vt.maxPos;
    if (value > limit) {
        return false;
    }
    *magnitude = static_cast<uint32_t>(value);
    *negative = neg && value != 0;
    return true;
}

// Stores a value that has passed the range check at exactly the type's width.
void storeInteger(uint32_t type, uint32_t magnitude, bool negative, void *out)
{
    // Two's complement negation in 32 bits; narrowing keeps the low bytes.
    uint32_t bits = negative ? 0u - magnitude : magnitude;
    switch (kValueTypes[type].width) {
    case 4:
        writeAs(out, bits);
        break;
    case 2:
        writeAs(out, static_cast<uint16_t>(bits));
        break;
    default:
        writeAs(out, static_cast<uint8_t>(bits));
        break;
    }
}

// Writes a typed value as the node's value text.
uint32_t xmlSetValueEx(XmlNode *node, uint32_t type, const void *value)
{
    if (node == nullptr || type >= kTypeCount || value == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    char text[kValueTextSize];
    if (!formatValue(type, value, text)) {
        return KRV_XML_ERR_INVALID_PARAM;  // not reachable for valid codes
    }
    if (node->valueOwned) {
        XML_Free(node, node->value);
    }
    node->value = XML_Strdup(node, text);
    if (node->value == nullptr) {
        return KRV_XML_ERR_NO_MEMORY;
    }
    node->valueOwned = 1;
    return KRV_XML_OK;
}

// Reads the node's value text as a typed value; `out` is written on success
// only.
uint32_t xmlGetValueEx(XmlNode *node, uint32_t type, void *out)
{
    if (node == nullptr || type >= kTypeCount || out == nullptr || node->value == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    const char *text = node->value;
    if (type == KRV_XML_VALUE_BOOL) {
        uint32_t v;
        if (std::strcmp(text, "true") == 0 || std::strcmp(text, "1") == 0) {
            v = 1;
        } else if (std::strcmp(text, "false") == 0 || std::strcmp(text, "0") == 0) {
            v = 0;
        } else {
            return KRV_XML_ERR_INVALID_PARAM;
        }
        writeAs(out, v);
        return KRV_XML_OK;
    }
    uint32_t magnitude = 0;
    bool negative = false;
    if (!parseInteger(kValueTypes[type], text, &magnitude, &negative)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    storeInteger(type, magnitude, negative, out);
    return KRV_XML_OK;
}

// Drops a new attribute record that was never linked. Its record, prefix and
// name were routed by the root, so they go by the release rule with the root
// as context; a value text made while the record stood alone is always a
// heap copy (`valueOnHeap`) and is freed in either regime.
void dropNewAttr(XmlNode *root, XmlNode *attr, bool valueOnHeap)
{
    if (valueOnHeap && attr->valueOwned) {
        krvHeapFree(attr->value);
        attr->value = nullptr;
        attr->valueOwned = 0;
    }
    XmlMemSession *session = xmlSessionOf(root);
    if (session == nullptr) {
        XML_FreeSingleNode(attr);  // ownerless: routed to the heap, as the root is
    }
}

// Makes the attribute prefix:name with a typed value and appends it to the
// element. The value text is written while the record still stands alone,
// which puts it on the heap; in a session tree it is then copied into the
// session before the record is linked, so that nothing of the document stays
// on the heap once the session ends.
uint32_t addTypedAttr(XmlNode *element, const char *prefix, const char *name, uint32_t type,
                      const void *value)
{
    XmlNode *root = xmlFindRoot(element);
    if (root == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *attr = xmlNewRecord(root->mem, KRV_XML_NODE_ATTRIBUTE);
    if (attr == nullptr) {
        return KRV_XML_ERR_NO_MEMORY;
    }
    if (XML_SetNode(root, attr, prefix, name, nullptr) != KRV_XML_OK) {
        dropNewAttr(root, attr, false);
        return KRV_XML_ERR_NO_MEMORY;
    }
    uint32_t rc = xmlSetValueEx(attr, type, value);
    if (rc != KRV_XML_OK) {
        dropNewAttr(root, attr, true);
        return rc;
    }
    // Searches again with the prefix and name as stored (an empty prefix is
    // none now).
    if (xmlGetAttr(element, attr->nsPrefix, attr->name) != nullptr) {
        dropNewAttr(root, attr, true);
        return KRV_XML_ERR_ALREADY_EXISTS;
    }
    if (xmlSessionOf(root) != nullptr) {
        char *inSession = XML_Strdup(root, attr->value);
        if (inSession == nullptr) {
            dropNewAttr(root, attr, true);
            return KRV_XML_ERR_NO_MEMORY;
        }
        krvHeapFree(attr->value);
        attr->value = inSession;
    }
    rc = xmlAddAttrNode(attr, element);  // cannot fail now: no duplicate
    if (rc != KRV_XML_OK) {
        dropNewAttr(root, attr, false);  // the value already follows the root
        return rc;
    }
    if (root->ownsSession == 1 && attr->nameOwned == 1) {
        XML_InternName(root, attr);
    }
    return KRV_XML_OK;
}

}  // namespace

uint32_t KRV_XML_SetNodeValueEx(XmlNode *node, uint32_t type, const void *value)
{
    return xmlSetValueEx(node, type, value);
}

uint32_t KRV_XML_GetNodeValueEx(XmlNode *node, uint32_t type, void *out)
{
    return xmlGetValueEx(node, type, out);
}

uint32_t KRV_XML_SetAttrValueEx(XmlNode *element, const char *prefix, const char *name,
                                uint32_t type, const void *value)
{
    // An attribute record has no `firstAttr`: it is refused before the lookup.
    // The type code is read only when the value is written, so a new
    // attribute's record and name are made (and may fail) before it.
    if (element == nullptr || name == nullptr || name[0] == '\0' || value == nullptr ||
        xmlIsAttr(element)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    XmlNode *attr = xmlGetAttr(element, prefix, name);
    if (attr != nullptr) {
        return xmlSetValueEx(attr, type, value);
    }
    return addTypedAttr(element, prefix, name, type, value);
}

uint32_t KRV_XML_GetAttrValueEx(XmlNode *element, const char *prefix, const char *name,
                                uint32_t type, void *out)
{
    if (element == nullptr || name == nullptr || out == nullptr || xmlIsAttr(element)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    // A missing attribute is reported before the type code is looked at.
    XmlNode *attr = xmlGetAttr(element, prefix, name);
    if (attr == nullptr) {
        return KRV_XML_ERR_NOT_FOUND;
    }
    return xmlGetValueEx(attr, type, out);
}

// ===== Path lookup =========================================================

namespace {

// Paths are read up to this many bytes, NUL included.
constexpr size_t kPathArea = 512;
// Index segments longer than this are not read as numbers.
constexpr size_t kMaxIndexDigits = 9;

// One segment of a path, copied out of the caller's path with every "\."
// read as a dot: `length` bytes, then a NUL.
struct Segment {
    const char *text;
    size_t length;
    bool hasColon;
    bool isIndex;  // digits only
};

// Names shorter than this are compared in an inline loop, longer ones by
// strcmp, whose vector compares win once the call is paid for.
constexpr size_t kLoopedName = 8;

// True when the NUL-terminated s equals t, the n bytes of a segment followed
// by its NUL. A shorter s stops the loop at its NUL, which t does not hold
// before n.
inline bool sameName(const char *s, const char *t, size_t n)
{
    if (n >= kLoopedName) {
        return std::strcmp(s, t) == 0;
    }
    for (size_t i = 0; i < n; ++i) {
        if (s[i] != t[i]) {
            return false;
        }
    }
    return s[n] == '\0';
}

// A segment with a colon names prefix:name of a prefixed node; otherwise, and
// for a node without prefix, the node's local name must equal the segment.
// Sibling walks call this once per sibling, so prefixes and short names are
// compared inline.
inline bool answers(const XmlNode *node, const Segment &seg)
{
    if (node->name == nullptr) {
        return false;
    }
    if (node->nsPrefix != nullptr && seg.hasColon) {
        const char *prefix = node->nsPrefix;
        size_t i = 0;
        for (; prefix[i] != '\0'; ++i) {
            if (prefix[i] != seg.text[i]) {  // the segment's NUL stops this too
                return false;
            }
        }
        return seg.text[i] == ':' &&
               sameName(node->name, seg.text + i + 1, seg.length - i - 1);
    }
    return sameName(node->name, seg.text, seg.length);
}

// What the segment reader needs to know of a path byte.
enum : uint8_t { kEnds = 1, kBackslash = 2, kColon = 4, kNonDigit = 8 };

struct PathBytes {
    uint8_t of[256];
    constexpr PathBytes() : of()
    {
        for (int c = 0; c < 256; ++c) {
            of[c] = (c >= '0' && c <= '9') ? 0 : kNonDigit;
        }
        of[0] |= kEnds;
        of[static_cast<unsigned char>('.')] |= kEnds;
        of[static_cast<unsigned char>('\\')] |= kBackslash;
        of[static_cast<unsigned char>(':')] |= kColon;
    }
};
constexpr PathBytes kPathBytes;

// Reads the next segment of the path at *pos: skips dots and reads "\." as a
// dot. The segment is copied into `scratch` at its own offset, so that the
// caller's path is only read and earlier segments stay intact. Returns false
// when only dots are left.
bool nextSegment(const char *path, size_t *pos, char *scratch, Segment *seg)
{
    size_t r = *pos;
    while (path[r] == '.') {
        ++r;
    }
    if (path[r] == '\0') {
        *pos = r;
        return false;
    }
    const size_t first = r;
    unsigned seen = 0;
    unsigned c;
    // One table load per byte until a dot, the NUL or a backslash.
    while (((c = kPathBytes.of[static_cast<unsigned char>(path[r])]) & (kEnds | kBackslash)) == 0) {
        seen |= c;
        ++r;
    }
    // The segment is copied out with a NUL for the name comparisons.
    std::memcpy(scratch + first, path + first, r - first);
    size_t w = r;
    if ((c & kBackslash) != 0) {
        // Escapes: read the rest byte by byte, resolving them.
        for (; path[r] != '\0' && path[r] != '.'; ++r) {
            if (path[r] == '\\' && path[r + 1] == '.') {
                ++r;  // the backslash goes, the dot stays
            }
            seen |= kPathBytes.of[static_cast<unsigned char>(path[r])] & ~unsigned{kEnds};
            scratch[w++] = path[r];
        }
    }
    scratch[w] = '\0';
    seg->text = scratch + first;
    seg->length = w - first;
    *pos = path[r] == '.' ? r + 1 : r;
    seg->hasColon = (seen & kColon) != 0;
    seg->isIndex = (seen & kNonDigit) == 0;
    return true;
}

// Sibling walks over long runs. The siblings of a parsed or copied tree lie
// in memory in document order, each with its attributes, strings and
// children before the next; a walk that steps from record to record waits
// for each in turn once the run has outgrown the caches. Past kLongWalk
// steps, a step longer than kFarStep (closer records are followed by the
// processor's own stream prefetch) asks for the memory 2, 4 and 8 KB ahead,
// where the next siblings lie. Shorter walks ask for nothing: their records
// are often cached from the walk before, and lines asked for in vain would
// push them out.
constexpr size_t kLongWalk = 1024;
constexpr uintptr_t kFarStep = 256;

// The count-th sibling (count >= 1) from `from` on that answers the segment,
// or null.
XmlNode *nthMatch(XmlNode *from, const Segment &segment, long count)
{
    uintptr_t last = 0;
    size_t steps = 0;
    for (XmlNode *n = from; n != nullptr; n = n->next) {
        const uintptr_t at = reinterpret_cast<uintptr_t>(n);
        if (++steps > kLongWalk && at - last >= kFarStep) {  // a step back counts as far
            __builtin_prefetch(reinterpret_cast<const void *>(at + 2048));
            __builtin_prefetch(reinterpret_cast<const void *>(at + 4096));
            __builtin_prefetch(reinterpret_cast<const void *>(at + 8192));
        }
        last = at;
        if (answers(n, segment) && --count == 0) {
            return n;
        }
    }
    return nullptr;
}

}  // namespace

uint32_t KRV_XML_GetNodeByUrl(XmlNode *start, const char *url, XmlNode **out)
{
    if (start == nullptr || url == nullptr || out == nullptr || url[0] == '\0' ||
        xmlIsAttr(start)) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    // Measured without reading past the longest path accepted and its NUL.
    if (strnlen(url, kPathArea) >= kPathArea) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    char scratch[kPathArea];  // the segments, each at its offset in the path
    size_t pos = 0;
    Segment seg;
    if (!nextSegment(url, &pos, scratch, &seg) || !answers(start, seg)) {
        return KRV_XML_ERR_NOT_FOUND;
    }
    XmlNode *current = start;
    Segment lastName = {};     // the name segment an index counts by
    bool afterName = false;    // the first segment does not count
    while (nextSegment(url, &pos, scratch, &seg)) {
        if (!seg.isIndex) {
            lastName = seg;
            current = nthMatch(current->firstChild, lastName, 1);
            if (current == nullptr) {
                return KRV_XML_ERR_NOT_FOUND;
            }
            afterName = true;
            continue;
        }
        if (!afterName) {
            return KRV_XML_ERR_URL_NOT_FOUND;
        }
        afterName = false;
        if (seg.length > kMaxIndexDigits) {
            return KRV_XML_ERR_NOT_FOUND;
        }
        long n = 0;
        for (size_t i = 0; i < seg.length; ++i) {
            n = n * 10 + (seg.text[i] - '0');
        }
        if (n == 0) {
            return KRV_XML_ERR_URL_NOT_FOUND;
        }
        // The current node is the first child of that name; step to the n-th.
        if (n > 1) {
            current = nthMatch(current->next, lastName, n - 1);
            if (current == nullptr) {
                return KRV_XML_ERR_NOT_FOUND;
            }
        }
    }
    *out = current;
    return KRV_XML_OK;
}
