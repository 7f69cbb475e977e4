// Parser: the replaceable file functions, attributes, the document driver
// and the parse entry points. The tokenizer and the decoder have files of
// their own.
//
// One forward pass over a NUL-terminated text that is never written. Tokens
// are pointer and length into the text; every search for a closing delimiter
// uses the C library's scans (strstr, strchr, memchr), 16-byte block scans
// and the byte classes below, so no byte is looked at more than a constant
// number of times.
#include <cstdio>
#include <cstring>

#include "xml/xml_hash.h"
#include "xml/xml_parser_internal.h"

using namespace xmlp;

// ===== File functions ======================================================

KrvXmlFopenFn g_fnXMLFopen = std::fopen;
KrvXmlFseekFn g_fnXMLFseek = std::fseek;
KrvXmlFcloseFn g_fnXMLFclose = std::fclose;
KrvXmlFreadFn g_fnXMLFread = std::fread;
KrvXmlFtellFn g_fnXMLFtell = std::ftell;

FILE *XML_Fopen(const char *path, const char *mode)
{
    return g_fnXMLFopen(path, mode);
}

int XML_Fseek(FILE *file, long offset, int origin)
{
    return g_fnXMLFseek(file, offset, origin);
}

int XML_Fclose(FILE *file)
{
    return g_fnXMLFclose(file);
}

size_t XML_Fread(void *buffer, size_t size, size_t count, FILE *file)
{
    return g_fnXMLFread(buffer, size, count, file);
}

long XML_Ftell(FILE *file)
{
    return g_fnXMLFtell(file);
}

uint32_t KRV_XML_RegFileFunc(KrvXmlFopenFn openFn, KrvXmlFseekFn seekFn, KrvXmlFcloseFn closeFn,
                             KrvXmlFreadFn readFn, KrvXmlFtellFn tellFn)
{
    if (openFn == nullptr || seekFn == nullptr || closeFn == nullptr || readFn == nullptr ||
        tellFn == nullptr) {
        return KRV_XML_ERR_INVALID_PARAM;
    }
    g_fnXMLFopen = openFn;
    g_fnXMLFseek = seekFn;
    g_fnXMLFclose = closeFn;
    g_fnXMLFread = readFn;
    g_fnXMLFtell = tellFn;
    return KRV_XML_OK;
}

// ===== Attributes ==========================================================

namespace {

// The in-place split of an element's own name (length bytes), when it
// closes: the prefix is copied out (and decoded once more, as every copy is)
// and the local name moves to the front of the string.
// colonAt, when not kColonUnknown, is where the name's first colon is (-1:
// none), known from a scan of the same bytes that also found no '&'.
// An empty tag without attributes tests for a colon in last place against
// the length of its name token (tokenLen), which decoding may have made
// longer than the name; elsewhere tokenLen is 0 and the name's length counts.
constexpr int64_t kColonUnknown = -2;

int32_t splitElement(XmlParser *p, XmlNode *element, uint32_t length, const char *at,
                     int64_t colonAt = kColonUnknown, uint32_t tokenLen = 0)
{
    char *name = element->name;
    uint32_t i = 0;
    bool plain = true;
    if (element->nsPrefix != nullptr) {
        return KRV_XML_OK;  // divided when it opened
    }
    if (colonAt == kColonUnknown) {
        while (i < length && name[i] != ':') {
            plain = plain && name[i] != '&' && name[i] != '<';
            ++i;
        }
    } else {
        i = colonAt < 0 ? length : static_cast<uint32_t>(colonAt);
    }
    if (i == length) {
        return KRV_XML_OK;
    }
    int32_t rc = static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
    if (i != 0 && i != (tokenLen != 0 ? tokenLen : length) - 1) {
        rc = xmlStoreRun(p->session, name, i, plain, &element->nsPrefix, nullptr);
    }
    if (rc != KRV_XML_OK) {
        note(p, at, rc == static_cast<int32_t>(KRV_XML_ERR_NO_MEMORY)
                        ? "out of memory"
                        : "colon at the start or end of a name");
        return rc;
    }
    std::memmove(name, name + i + 1, length - i);
    return KRV_XML_OK;
}

int32_t splitElement(XmlParser *p, XmlNode *element, const char *at, uint32_t tokenLen = 0)
{
    return splitElement(p, element, static_cast<uint32_t>(std::strlen(element->name)), at,
                        kColonUnknown, tokenLen);
}

bool sameText(const char *a, const char *b)
{
    if (a == nullptr || b == nullptr) {
        return a == b;
    }
    return std::strcmp(a, b) == 0;
}

inline bool sameAttr(const XmlNode *a, const XmlNode *b)
{
    return sameText(a->nsPrefix, b->nsPrefix) && sameText(a->name, b->name);
}

// Duplicate check for one start tag. Short lists are searched; from
// kLinearLimit attributes on, an open-addressing set keyed by prefix and name
// keeps the check constant time. The hash is keyed afresh for every set, so
// that no text can be written to make its names collide: an unkeyed hash
// would let one tag of chosen names take quadratic time.
constexpr uint32_t kLinearLimit = 16;

struct AttrSet {
    // Per slot: the 32 hash bits of the name (their low bits pick its home
    // slot) over the record's index + 1 in `records`; 0 when empty.
    uint64_t *slots;
    XmlNode **records;  // in the order added; shares the slots' allocation
    uint32_t mask;      // slot count - 1; the slot count is a power of two
    uint32_t count;
    uint64_t key[2];    // drawn when the set is first built
};

// Hash bits of a's prefix and name, NUL between them (a name holds no NUL).
uint32_t attrHash(const AttrSet *set, const XmlNode *a)
{
    XmlSipHash h(set->key);
    h.add(a->nsPrefix);
    h.add(static_cast<unsigned char>(0));
    h.add(a->name);
    return static_cast<uint32_t>(h.finish() >> 32);
}

// Puts an entry (hash bits in its upper half) in the first free slot from
// its home slot on.
inline void placeEntry(uint64_t *slots, uint32_t mask, uint64_t entry)
{
    uint32_t i = static_cast<uint32_t>(entry >> 32) & mask;
    while (slots[i] != 0) {
        i = (i + 1) & mask;
    }
    slots[i] = entry;
}

// Returns the record equal to attr, or inserts attr and returns null.
// hash: attrHash(set, attr).
XmlNode *attrSetFindOrAdd(AttrSet *set, XmlNode *attr, uint32_t hash)
{
    uint32_t i = hash & set->mask;
    for (uint64_t entry; (entry = set->slots[i]) != 0; i = (i + 1) & set->mask) {
        if (static_cast<uint32_t>(entry >> 32) == hash) {
            XmlNode *seen = set->records[static_cast<uint32_t>(entry) - 1];
            if (sameAttr(seen, attr)) {
                return seen;
            }
        }
    }
    set->records[set->count] = attr;
    set->slots[i] = (uint64_t{hash} << 32) | ++set->count;
    return nullptr;
}

// Rebuilds the set with room for twice listCount attributes: the first time
// from the list, later from its own entries, so that no record is read
// again. False when memory ran out (the old set is kept).
bool attrSetGrow(AttrSet *set, XmlNode *list, uint32_t listCount)
{
    size_t capacity = 64;
    while (capacity < size_t{listCount} * 4) {
        capacity *= 2;
    }
    if (capacity > (size_t{1} << 31)) {
        return false;  // beyond 32-bit indexes; no text of such size is parsed
    }
    auto *slots = static_cast<uint64_t *>(krvHeapCalloc(capacity + capacity / 2, sizeof(uint64_t)));
    if (slots == nullptr) {
        return false;
    }
    auto *records = reinterpret_cast<XmlNode **>(slots + capacity);
    auto mask = static_cast<uint32_t>(capacity - 1);
    if (set->slots == nullptr) {
        xmlDrawKey(set->key, slots);
        set->slots = slots;
        set->records = records;
        set->mask = mask;
        set->count = 0;
        for (XmlNode *a = list; a != nullptr; a = a->next) {
            attrSetFindOrAdd(set, a, attrHash(set, a));
        }
        return true;
    }
    for (uint32_t i = 0; i <= set->mask; ++i) {
        if (set->slots[i] != 0) {
            placeEntry(slots, mask, set->slots[i]);
        }
    }
    std::memcpy(records, set->records, set->count * sizeof(XmlNode *));
    krvHeapFree(set->slots);
    set->slots = slots;
    set->records = records;
    set->mask = mask;
    return true;
}

enum class AttrStep { Ok, NoMemory, Duplicate };

// A large tag's set is far bigger than the caches: hashing attr's name as
// soon as it is known and fetching its home slot then lets the fetch overlap
// the reading of the value. Returns the hash, or 0 when the set is not used
// (a hash that is 0 is then only computed again).
inline uint32_t attrSetHashAhead(const AttrSet *set, uint32_t count, const XmlNode *attr)
{
    if (count < kLinearLimit || set->slots == nullptr) {
        return 0;
    }
    uint32_t hash = attrHash(set, attr);
    __builtin_prefetch(&set->slots[hash & set->mask]);
    return hash;
}

// Links attr after tail unless an equal attribute is in the list. hash:
// from attrSetHashAhead, or 0.
AttrStep appendAttr(XmlNode *element, XmlNode **tail, uint32_t *count, AttrSet *set, XmlNode *attr,
                    uint32_t hash = 0)
{
    if (*count < kLinearLimit) {
        for (XmlNode *a = element->firstAttr; a != nullptr; a = a->next) {
            if (sameAttr(a, attr)) {
                return AttrStep::Duplicate;
            }
        }
    } else {
        if ((set->count + 1) * 2 > set->mask + 1 || set->slots == nullptr) {
            if (!attrSetGrow(set, element->firstAttr, *count)) {
                return AttrStep::NoMemory;
            }
        }
        if (attrSetFindOrAdd(set, attr, hash != 0 ? hash : attrHash(set, attr)) != nullptr) {
            return AttrStep::Duplicate;
        }
    }
    if (*tail == nullptr) {
        element->firstAttr = attr;
    } else {
        (*tail)->next = attr;
    }
    attr->parent = element;
    *tail = attr;
    ++*count;
    return AttrStep::Ok;
}

inline bool tokenIs(const XmlParser *p, char c)
{
    return p->tokenLen == 1 && p->token[0] == c;
}

// Cuts the next token and tells whether it is the byte c. When none can be
// cut, `token` is moved to the read position (with length 0), so that a
// failure is reported where the text stopped.
inline bool nextTokenIs(XmlParser *p, char c)
{
    if (Parser_getNextToken(p) == 0) {
        p->token = p->pos;
        p->tokenLen = 0;
        return false;
    }
    return tokenIs(p, c);
}

}  // namespace

namespace {

// First half of reading one attribute: a record with its name divided into
// prefix and local name. Null on failure (noted); nothing is left behind.
inline XmlNode *newParsedAttr(XmlParser *p, const char *nameAt, uint32_t nameLen, bool plainName,
                              int32_t *rc, const char *const *knownColon = nullptr)
{
    XmlNode *attr = xmlParserNewNode(p->session, KRV_XML_NODE_ATTRIBUTE);
    if (attr == nullptr) {
        note(p, nameAt, "out of memory");
        *rc = static_cast<int32_t>(KRV_XML_ERR_NO_MEMORY);
        return nullptr;
    }
    const char *colon = knownColon != nullptr ? *knownColon : nullptr;
    if (plainName && knownColon != nullptr && colon == nullptr) {
        *rc = xmlStoreRun(p->session, nameAt, nameLen, true, &attr->name, p->diag);
    } else if (plainName && colon != nullptr && colon != nameAt &&
               colon != nameAt + nameLen - 1) {
        // A plain name with its colon inside: prefix and local name as they stand.
        *rc = xmlStoreRun(p->session, nameAt, static_cast<uint64_t>(colon - nameAt), true,
                          &attr->nsPrefix, p->diag);
        if (*rc == KRV_XML_OK) {
            *rc = xmlStoreRun(p->session, colon + 1,
                              static_cast<uint64_t>(nameAt + nameLen - colon - 1), true,
                              &attr->name, p->diag);
            if (*rc != KRV_XML_OK) {
                xmlReleaseTo(p->session, attr->nsPrefix);
                attr->nsPrefix = nullptr;
            }
        }
    } else {
        *rc = xmlSplitName(p->session, nameAt, nameLen, &attr->nsPrefix, &attr->name, true,
                           p->diag, plainName, knownColon);
    }
    attr->nameOwned = 1;
    if (*rc != KRV_XML_OK) {
        XML_FreeSingleAttrNode(attr);
        return nullptr;
    }
    return attr;
}

enum class Dup { Unknown, No, Yes };

// Second half: the value decoded into attr and attr appended to the element
// unless an equal attribute is there (found here, or already known to the
// caller). On failure attr is released.
inline int32_t finishParsedAttr(XmlParser *p, XmlNode *element, XmlNode *attr,
                                const char *nameAt, const char *value, uint32_t valueLen,
                                bool plainValue, XmlNode **tail, uint32_t *count, AttrSet *set,
                                Dup dup = Dup::Unknown)
{
    uint32_t hash = dup == Dup::Unknown ? attrSetHashAhead(set, *count, attr) : 0;
    int32_t rc = xmlStoreRun(p->session, value, valueLen, plainValue, &attr->value, p->diag);
    attr->valueOwned = 1;
    if (rc == KRV_XML_OK) {
        AttrStep step = AttrStep::Duplicate;
        if (dup == Dup::Unknown) {
            step = appendAttr(element, tail, count, set, attr, hash);
        } else if (dup == Dup::No) {
            if (*tail == nullptr) {
                element->firstAttr = attr;
            } else {
                (*tail)->next = attr;
            }
            attr->parent = element;
            *tail = attr;
            ++*count;
            step = AttrStep::Ok;
        }
        if (step == AttrStep::Ok) {
            return KRV_XML_OK;
        }
        if (step == AttrStep::Duplicate) {
            note(p, nameAt, "duplicate attribute");
            rc = static_cast<int32_t>(KRV_XML_ERR_ALREADY_EXISTS);
        } else {
            note(p, nameAt, "out of memory");
            rc = static_cast<int32_t>(KRV_XML_ERR_NO_MEMORY);
        }
    }
    XML_FreeSingleAttrNode(attr);
    return rc;
}

}  // namespace

int32_t Parser_processAttribute(XmlParser *p)
{
    XmlNode *element = p->current;
    XmlNode *tail = nullptr;
    uint32_t count = 0;
    AttrSet set{};
    int32_t rc = static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
    for (;;) {
        if (p->token == nullptr || !isSpace(p->token[-1])) {
            note(p, p->token, "missing white space before an attribute");
            break;
        }
        const char *nameAt = p->token;
        XmlNode *attr = newParsedAttr(p, p->token, p->tokenLen, false, &rc);
        if (attr == nullptr) {
            break;
        }
        rc = static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
        const char *quote = nullptr;
        if (Parser_getNextToken(p) == 0 || !tokenIs(p, '=')) {
            note(p, nameAt, "attribute without value");
        } else if (!nextTokenIs(p, '"') && !(p->tokenLen == 1 && p->token[0] == '\'')) {
            note(p, p->token, "attribute value not quoted");
        } else if ((quote = std::strchr(p->pos, p->token[0])) == nullptr) {
            note(p, p->token, "unterminated attribute value");
        } else if (static_cast<uint64_t>(quote - p->pos) > kMaxRun) {
            note(p, p->pos, "name, value or text too long");
        } else {
            rc = finishParsedAttr(p, element, attr, nameAt, p->pos,
                                  static_cast<uint32_t>(quote - p->pos), false, &tail, &count,
                                  &set);
            if (rc != KRV_XML_OK) {
                break;  // attr was released
            }
            p->pos = quote + 1;
        }
        if (rc != KRV_XML_OK) {
            XML_FreeSingleAttrNode(attr);
            break;
        }
        rc = static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
        if (Parser_getNextToken(p) == 0) {
            note(p, p->pos, "start tag not closed");
            break;
        }
        if (tokenIs(p, '>')) {
            p->state = XML_PARSE_CONTENT;
            rc = KRV_XML_OK;
            break;
        }
        if (p->tokenLen == 2 && p->token[0] == '/') {
            rc = splitElement(p, element, p->tagName);
            if (rc == KRV_XML_OK) {
                p->state = XML_PARSE_IDLE;
                p->openBits &= ~1u;
                --p->openCount;
            }
            break;
        }
        // '<' and "</" are markup; a word that begins with '<' is a CDATA
        // section, which may name the next attribute.
        char c = p->token[0];
        if ((c == '<' && p->tokenLen <= 2) || c == '"' || c == '\'' || c == '=') {
            note(p, p->token, "unexpected markup in a start tag");
            break;
        }
    }
    krvHeapFree(set.slots);
    return rc;
}

// ===== Document driver =====================================================

namespace {

// Links a new element n after `current` (or as the root when none): as first
// child of an open `current`, otherwise as its next sibling.
bool linkElement(XmlParser *p, XmlNode *n, const char *at)
{
    XmlNode *cur = p->current;
    if (cur == nullptr) {
        return true;
    }
    if (p->openBits & 1u) {
        n->parent = cur;
        n->next = cur->firstChild;
        cur->firstChild = n;
        if (cur->lastChild == nullptr) {
            cur->lastChild = n;
        }
        return true;
    }
    if (cur->parent == nullptr && p->singleRoot) {
        note(p, at, "second top-level element");
        return false;
    }
    n->parent = cur->parent;
    cur->next = n;
    n->prev = cur;
    if (cur->parent != nullptr && cur->parent->lastChild == cur) {
        cur->parent->lastChild = n;
    }
    return true;
}

// The end tag's name token must be the open element's whole qualified name.
// Whether element's whole qualified name is the len bytes at text (which
// hold no NUL): the same length and the same bytes.
bool sameName(const XmlNode *element, const char *text, size_t len)
{
    const char *name = element->name;
    if (name == nullptr) {
        return false;
    }
    if (element->nsPrefix != nullptr) {
        // Divided when it opened: the text must be prefix, ':' and name.
        const char *prefix = element->nsPrefix;
        size_t i = 0;
        for (; prefix[i] != '\0'; ++i) {
            if (i == len || prefix[i] != text[i]) {
                return false;
            }
        }
        if (i == len || text[i] != ':') {
            return false;
        }
        text += i + 1;
        len -= i + 1;
    }
    for (size_t i = 0; i < len; ++i) {
        if (name[i] != text[i]) {
            return false;  // also where name ends early: text holds no NUL
        }
    }
    return name[len] == '\0';
}

bool nameMatches(const XmlParser *p, const XmlNode *element)
{
    return sameName(element, p->token, p->tokenLen);
}

// At an end tag ("</" at lt, `before` the byte ahead of it): when only white
// space, comments or instructions stood between the element's start tag and
// this end tag, the bytes after the nearest '>' become its value.
bool storeBlankContent(XmlParser *p, XmlNode *element, const char *lt, char before)
{
    if (before == '>' || p->state != XML_PARSE_CONTENT) {
        return true;
    }
    const char *gt = lt - 1;
    while (*gt != '>') {
        --gt;
    }
    return xmlDecodeRun(p->session, gt + 1, static_cast<uint64_t>(lt - gt - 1), &element->value,
                        p->diag) == KRV_XML_OK;
}

bool startTag(XmlParser *p)
{
    const char *lt = p->token;
    if (Parser_getNextToken(p) == 0) {
        note(p, lt, "missing element name");
        return false;
    }
    XmlNode *n = p->pending;
    if (n == nullptr) {
        n = xmlParserNewNode(p->session, KRV_XML_NODE_ELEMENT);
        if (n == nullptr) {
            note(p, lt, "out of memory");
            return false;
        }
        p->pending = n;
    }
    if (xmlDecodeRun(p->session, p->token, p->tokenLen, &n->name, p->diag) != KRV_XML_OK) {
        return false;
    }
    n->nameOwned = 1;
    const char *nameAt = p->token;
    uint32_t nameTokenLen = p->tokenLen;
    p->tagName = nameAt;
    if (Parser_getNextToken(p) == 0) {
        note(p, p->pos, "start tag not closed");
        return false;
    }
    bool empty = p->tokenLen == 2 && p->token[0] == '/';
    if (empty && splitElement(p, n, nameAt, nameTokenLen) != KRV_XML_OK) {
        return false;
    }
    bool firstChild = p->current != nullptr && (p->openBits & 1u);
    if (!linkElement(p, n, lt)) {
        return false;
    }
    p->current = n;
    p->pending = nullptr;
    if (empty) {
        if (firstChild) {
            p->openBits <<= 1;
        }
        p->state = XML_PARSE_IDLE;
        return true;
    }
    p->openBits = (p->openBits << 1) | 1u;
    ++p->openCount;
    p->state = tokenIs(p, '>') ? XML_PARSE_CONTENT : XML_PARSE_ATTRS;
    return true;
}

// Closes `current` after its end tag's name matched: divides the name and
// reads the closing '>'.
bool closeCurrent(XmlParser *p, const char *nameAt)
{
    if (splitElement(p, p->current, p->tokenLen, nameAt) != KRV_XML_OK) {
        return false;
    }
    p->current->nameOwned = 1;
    return true;
}

bool endTag(XmlParser *p)
{
    const char *lt = p->token;
    char before = lt > p->input ? lt[-1] : '\0';
    if (Parser_getNextToken(p) == 0) {
        note(p, lt, "missing element name");
        return false;
    }
    if ((p->openBits & 1u) == 0) {
        if (p->current == nullptr || p->current->parent == nullptr) {
            note(p, lt, "end tag without an open element");
            return false;
        }
        p->current = p->current->parent;
        p->openBits >>= 1;
    }
    p->openBits &= ~1u;
    XmlNode *cur = p->current;
    if (!nameMatches(p, cur)) {
        note(p, p->token, "end tag does not match the open element");
        return false;
    }
    if (!closeCurrent(p, p->token)) {
        return false;
    }
    if (!storeBlankContent(p, cur, lt, before)) {
        return false;
    }
    cur->valueOwned = 1;
    p->pos = skipSpace(p->pos);
    if (!nextTokenIs(p, '>')) {
        note(p, p->token, "end tag not closed by '>'");
        return false;
    }
    --p->openCount;
    p->state = XML_PARSE_IDLE;
    return true;
}

bool textContent(XmlParser *p)
{
    const char *start = p->token;
    if (p->tokenLen == 2 && start[0] == '/' && start[1] == '>') {
        note(p, start, "unexpected '/>'");
        return false;
    }
    if (p->state != XML_PARSE_CONTENT || (p->openBits & 1u) == 0) {
        const char *reason = p->current == nullptr           ? "text before the root element"
                             : p->current->parent == nullptr ? "text outside the root element"
                                                             : "mixed content";
        note(p, start, reason);
        return false;
    }
    while (start[-1] == ' ') {
        --start;
    }
    const char *lt = start;
    for (;;) {
        lt = std::strchr(lt, '<');
        if (lt == nullptr) {
            note(p, start + std::strlen(start), "text ends inside an element");
            return false;
        }
        if (!startsCdata(lt)) {
            break;
        }
        const char *close = findCdataEnd(lt + 9);
        if (close == nullptr) {
            scanFailure(p, lt, "unterminated CDATA section");
            return false;
        }
        lt = close + 3;
    }
    uint64_t len = static_cast<uint64_t>(lt - start);
    if (len > kMaxRun) {
        note(p, start, "name, value or text too long");
        return false;
    }
    p->token = start;
    p->tokenLen = static_cast<uint32_t>(len);
    p->pos = lt;
    XmlNode *cur = p->current;
    if (xmlDecodeRun(p->session, start, len, &cur->value, p->diag) != KRV_XML_OK) {
        return false;
    }
    cur->valueOwned = 1;
    if (Parser_getNextToken(p) == 0 || p->tokenLen != 2 || p->token[0] != '<') {
        note(p, lt, "mixed content");
        return false;
    }
    if (Parser_getNextToken(p) == 0) {
        note(p, p->token, "missing element name");
        return false;
    }
    if (!nameMatches(p, cur)) {
        note(p, p->token, "end tag does not match the open element");
        return false;
    }
    if (!closeCurrent(p, p->token)) {
        return false;
    }
    if (!nextTokenIs(p, '>')) {
        note(p, p->token, "end tag not closed by '>'");
        return false;
    }
    p->openBits &= ~1u;
    --p->openCount;
    p->state = XML_PARSE_IDLE;
    return true;
}

// Steps over "<!DOCTYPE ...>", internal subset included.
bool skipDoctype(XmlParser *p)
{
    const char *q = p->pos + 1;
    uint64_t depth = 1;
    for (;;) {
        q = std::strpbrk(q, "<>\"");
        if (q == nullptr) {
            note(p, p->pos, "unterminated document type declaration");
            return false;
        }
        if (*q == '"') {
            q = std::strchr(q + 1, '"');
            if (q == nullptr) {
                note(p, p->pos, "unterminated document type declaration");
                return false;
            }
        } else if (*q == '<') {
            ++depth;
        } else if (--depth == 0) {
            p->pos = q + 1;
            return true;
        }
        ++q;
    }
}

bool prolog(XmlParser *p)
{
    p->pos = skipSpace(p->pos);
    if (startsWith(p->pos, "<?xml ", 6)) {
        const char *end = std::strstr(p->pos, "?>");
        if (end == nullptr) {
            note(p, p->pos, "unterminated XML declaration");
            return false;
        }
        p->pos = skipSpace(end + 2);
    }
    if (Parser_skipMisc(p) != KRV_XML_OK) {
        return false;
    }
    if (startsWith(p->pos, "<!DOCTYPE", 9) && !skipDoctype(p)) {
        return false;
    }
    p->pos = skipSpace(p->pos);
    if (Parser_skipMisc(p) != KRV_XML_OK) {
        return false;
    }
    if (*p->pos == '\0') {
        note(p, p->pos, "no root element");
        return false;
    }
    return true;
}

// ----- The fast path -------------------------------------------------------
//
// Most markup is plain: a start tag whose attributes are separated by white
// space only, text without comments or CDATA that runs straight into its
// end tag, an end tag directly closed by '>'. fastStep reads such a piece in
// one go, with the same results as the token-by-token steps above. It first
// scans the whole piece without changing anything, and leaves every other
// case to those steps (Bail), so failures and their reports stay theirs.

enum class Fast { Done, Bail, Failed };

// Whether the byte at q, of class cls, ends a word: a stop byte, or the
// start of "]]>", "-->" or "/>". Each test stops at the first byte that
// differs, so nothing past a terminating NUL is read.
inline bool endsWord(const char *q, uint8_t cls)
{
    return (cls & kStop) != 0 ||
           ((cls & kMaybeEnd) != 0 && ((q[0] == ']' && q[1] == ']' && q[2] == '>') ||
                                       (q[0] == '-' && q[1] == '-' && q[2] == '>') ||
                                       (q[0] == '/' && q[1] == '>')));
}

// The end of the word from s: the first byte that ends it. *amp is set when
// a '&' comes before it, *firstColon receives the first ':' before it.
inline const char *wordEnd(const char *s, bool *amp, const char **firstColon)
{
    const char *q = s;
    for (;;) {
        // Bytes of class 0 stand for themselves: four at a time while they
        // last. Each test stops at the first byte that is not, so nothing
        // past a terminating NUL is read.
        while (kClass.of[static_cast<unsigned char>(q[0])] == 0 &&
               kClass.of[static_cast<unsigned char>(q[1])] == 0 &&
               kClass.of[static_cast<unsigned char>(q[2])] == 0 &&
               kClass.of[static_cast<unsigned char>(q[3])] == 0) {
            q += 4;
        }
        uint8_t cls = kClass.of[static_cast<unsigned char>(*q)];
        while (cls == 0) {
            cls = kClass.of[static_cast<unsigned char>(*++q)];
        }
        // Most words end at a stop byte ('=', white space, '>'): that test first.
        if ((cls & kStop) != 0) {
            return q;
        }
        if (cls == kColon) {
            *firstColon = *firstColon == nullptr ? q : *firstColon;
        } else if (cls == kAmp) {
            *amp = true;
        } else if (endsWord(q, cls)) {
            return q;
        }
        ++q;
    }
}

// A word as the tokenizer cuts it, from a word start; null when it holds a
// CDATA section. *amp is set when it holds '&'; *colon, when given, receives
// the first ':' (null for none).
inline __attribute__((always_inline)) const char *scanWord(const char *s, bool *amp,
                                                         const char **colon = nullptr)
{
    const char *firstColon = nullptr;
    const char *q = wordEnd(s, amp, &firstColon);
    if (*q == '<' && startsCdata(q)) {
        return nullptr;
    }
    if (colon != nullptr) {
        *colon = firstColon;
    }
    return q;
}

// Where the colon of a scanned name is, for splitElement.
int64_t colonIndex(const char *name, bool amp, const char *colon)
{
    return amp ? kColonUnknown : colon == nullptr ? -1 : colon - name;
}

// An end tag's name and its '>' from `name` on: the name's end, or null when
// it is not a plain name directly (or after spaces) closed by '>'. *gt
// receives the '>', *colonAt the colon's place for splitElement.
const char *scanEndName(const char *name, const char **gt, int64_t *colonAt)
{
    bool amp = false;
    const char *colon = nullptr;
    if (!isWordStart(*name)) {
        return nullptr;
    }
    const char *end = scanWord(name, &amp, &colon);
    *colonAt = colonIndex(name, amp, colon);
    if (end == nullptr || end - name > static_cast<ptrdiff_t>(kMaxRun)) {
        return nullptr;
    }
    const char *q = skipSpace(end);
    if (*q != '>') {
        return nullptr;
    }
    *gt = q;
    return end;
}

// Whether the text byte at t, equal to a stored name byte, is one that the
// word scan would pass over without a note: a plain byte, or one that only
// may begin "]]>", "-->" or "/>" and does not here.
inline bool plainNameByte(const char *t)
{
    uint8_t cls = kClass.of[static_cast<unsigned char>(*t)];
    return cls == 0 || (cls == kMaybeEnd && !endsWord(t, cls));
}

// Compares the text at t with the stored name part s: returns the text after
// it, or null when they differ or a byte is not plain.
inline const char *plainPart(const char *t, const char *s)
{
    for (; *s != '\0'; ++s, ++t) {
        if (*t != *s || !plainNameByte(t)) {
            return nullptr;  // also where the text ends: a NUL differs
        }
    }
    return t;
}

// The common end tag: the open element's own name as it was stored, made of
// plain bytes (prefix, ':' and name when divided when it opened), then '>'
// after optional spaces. Returns the '>', or null when the end tag reads
// otherwise and needs the full scan. Such a name ends where scanEndName
// would end it, equals the element's name there and needs no division.
const char *closesOwnName(const XmlNode *element, const char *text)
{
    const char *name = element->name;
    if (name == nullptr || name[0] == '\0') {
        return nullptr;
    }
    const char *t = text;
    if (element->nsPrefix != nullptr) {
        t = plainPart(t, element->nsPrefix);
        if (t == nullptr || *t++ != ':') {
            return nullptr;
        }
    }
    t = plainPart(t, name);
    if (t == nullptr || t - text > static_cast<ptrdiff_t>(kMaxRun)) {
        return nullptr;
    }
    t = skipSpace(t);
    return *t == '>' ? t : nullptr;
}

// The end tag of an element whose start tag named it with the plain word
// raw (len bytes, divided as it was carved): its '>' when the text at t
// repeats that word and ends it there, or null. The word's bytes passed the
// start tag's scan; here only the byte after it differs, and it can turn a
// last '/', ']' or '-' into the start of "/>", "]]>" or "-->".
inline __attribute__((always_inline)) const char *closesRawName(const char *raw, uint32_t len,
                                                              const char *t)
{
#ifdef KRVXML_SSE2_SCAN
    auto pageSafe = [](const char *at) { return (reinterpret_cast<uintptr_t>(at) & 4095u) <= 4080u; };
    if (len <= 16 && pageSafe(raw) && pageSafe(t)) {
        __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(raw));
        __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(t));
        auto same = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(a, b)));
        unsigned want = (1u << len) - 1u;
        if ((same & want) != want) {
            return nullptr;
        }
        t += len;
    } else
#endif
    {
        for (const char *end = raw + len; raw != end; ++raw, ++t) {
            if (*t != *raw) {
                return nullptr;  // also where the text ends: its NUL differs
            }
        }
        raw -= len;
    }
    if (*t == '>') {
        char last = raw[len - 1];
        return last == '/' || last == ']' || last == '-' ? nullptr : t;
    }
    if (!isSpace(*t)) {
        return nullptr;
    }
    t = skipSpace(t);
    return *t == '>' ? t : nullptr;
}

// Whether the end tag's name at `name` closes element on the fast path:
// its '>', or null. *nameEnd stays null when the name was matched as stored
// (nothing to divide); otherwise it is the name's end, and *colonAt where its
// colon is, for splitElement.
inline __attribute__((always_inline)) const char *endTagCloses(const XmlParser *p,
                                                             const XmlNode *element,
                                                             const char *name,
                                                             const char **nameEnd,
                                                             int64_t *colonAt)
{
    if (element == p->rawElement) {
        const char *gt = closesRawName(p->rawName, p->rawLen, name);
        if (gt != nullptr) {
            return gt;
        }
    }
    const char *gt = closesOwnName(element, name);
    if (gt != nullptr) {
        return gt;
    }
    const char *end = scanEndName(name, &gt, colonAt);
    if (end == nullptr || !sameName(element, name, static_cast<size_t>(end - name))) {
        return nullptr;
    }
    *nameEnd = end;
    return gt;
}

struct FastAttr {
    const char *name;
    const char *colon;  // first ':' of the name, or null
    const char *value;
    uint32_t nameLen;
    uint32_t valueLen;
    bool plainName;
    bool plainValue;
};
constexpr int kFastAttrs = 32;   // attributes a tag is read with on the stack
constexpr int kWideAttrs = 128;  // more take the token-by-token steps

struct Span {
    const char *at;
    uint32_t len;
};

// Bytes a session string of len bytes takes: its NUL, rounded up to 8.
constexpr size_t runBytes(size_t len)
{
    return (len + 8) & ~static_cast<size_t>(7);
}

// Bytes that a plain name of len bytes, first colon at colonAt (-1: none),
// takes once divided; 0 when the colon is at its start or end, where
// dividing fails.
inline size_t nameBytes(uint32_t len, int64_t colonAt)
{
    if (colonAt < 0) {
        return runBytes(len);
    }
    if (colonAt == 0 || colonAt == static_cast<int64_t>(len) - 1) {
        return 0;
    }
    return runBytes(static_cast<size_t>(colonAt)) + runBytes(len - colonAt - 1);
}

// Where the pieces of a carved tag come from. WholeTag hands them out in
// turn from memory reserved for the whole tag; EachPiece asks the session
// for each one, so that each lands on the first block with room for it.
struct WholeTag {
    static constexpr bool kCanFail = false;
    uint8_t *m;
    const uint8_t *limit;  // end of the block: bytes up to it past m are zero
    // Zero bytes from dst, a piece just taken, to the end of the block.
    int64_t room(const char *dst) const { return limit - reinterpret_cast<const uint8_t *>(dst); }
    uint8_t *take(size_t bytes)
    {
        uint8_t *piece = m;
        m += bytes;
        return piece;
    }
};

struct EachPiece {
    static constexpr bool kCanFail = true;
    XmlMemSession *session;
    static int64_t room(const char *) { return 0; }
    // bytes: a multiple of 8. The blocks before firstNonFull are full, so
    // when it lacks room, the block after it is the first fit if it has room.
    uint8_t *take(size_t bytes)
    {
        auto n = static_cast<int32_t>(bytes);
        XmlMemSession *block = session->firstNonFull;
        if (block != nullptr && block->freeBytes < n) {
            block = block->nextBlock;
        }
        if (block != nullptr && block->freeBytes >= n) {
            uint8_t *piece = block->cursor;
            block->cursor += n;
            block->freeBytes -= n;
            return piece;
        }
        return static_cast<uint8_t *>(XML_MemSpecialMalloc(session, n));
    }
};

// Copies a plain run into a zero piece of its own; null when none was had.
// wide: a short run may be written as one 16-byte store. For values, and
// for the names of elements that a tag read in one pass carves: their end
// tags are compared with the name in the text (rawName) while the store may
// still be in flight, and a byte load from it would wait for it. Attribute
// names stay byte-exact: for them the wider store cost more than it saved.
template <class Take>
inline __attribute__((always_inline)) char *putRun(Take &take, const char *src, uint32_t len,
                                                   bool wide = false)
{
    auto *dst = reinterpret_cast<char *>(take.take(runBytes(len)));
    if (Take::kCanFail && dst == nullptr) {
        return nullptr;
    }
    if (len <= 16) {
        // The pieces of a tag are written in order into zero memory, so the
        // rest of the block past dst is zero.
        if (wide && xmlStoreShortWide(dst, src, len, take.room(dst))) {
            return dst;
        }
        xmlCopyShort(dst, src, len);
    } else {
        std::memcpy(dst, src, len);
    }
    return dst;
}

// Copies a plain name into node, divided at colonAt (-1: no colon). Records
// whose flags setCarvedFlags wrote already pass markOwned false; wide as for
// putRun.
template <class Take>
inline __attribute__((always_inline)) bool putName(Take &take, const char *src, uint32_t len,
                                                   int64_t colonAt, XmlNode *node,
                                                   bool markOwned = true, bool wide = false)
{
    if (colonAt < 0) {
        node->name = putRun(take, src, len, wide);
    } else {
        auto at = static_cast<uint32_t>(colonAt);
        node->nsPrefix = putRun(take, src, at, wide);
        if (Take::kCanFail && node->nsPrefix == nullptr) {
            return false;
        }
        node->name = putRun(take, src + at + 1, len - at - 1, wide);
    }
    if (markOwned) {
        node->nameOwned = 1;
    }
    return !Take::kCanFail || node->name != nullptr;
}

constexpr uint32_t kLongestCarved = 4096;  // longer runs take the general path

// Sets kind, nameOwned and valueOwned of a record carved from zero memory
// (ownsSession stays 0) with one store instead of three.
inline void setCarvedFlags(XmlNode *node, uint8_t kind, uint8_t nameOwned, uint8_t valueOwned)
{
    static_assert(offsetof(XmlNode, ownsSession) == offsetof(XmlNode, kind) + 1 &&
                      offsetof(XmlNode, nameOwned) == offsetof(XmlNode, kind) + 2 &&
                      offsetof(XmlNode, valueOwned) == offsetof(XmlNode, kind) + 3,
                  "the flag bytes follow kind");
    const uint8_t flags[4] = {kind, 0, nameOwned, valueOwned};
    std::memcpy(&node->kind, flags, sizeof flags);
}

// The names of one start tag's attributes as read so far, for the fast
// path's duplicate check. They are plain, so two are equal exactly when
// their bytes are. Up to kFilterNames names, a 64-bit filter on the first
// and last bytes and the length picks the names that need a look at the
// others; from there on, a table hashed on all the bytes keeps each check
// short. At most kWideAttrs names, so even names made to collide cost a
// bounded number of comparisons per name.
class TagNames {
public:
    enum Result { Added, Repeat, Full };
    static constexpr int kFilterNames = 16;

    // The first names take the inline steps; the table's are out of line.
    __attribute__((always_inline)) Result add(const char *s, uint32_t len)
    {
        if (mask_ != 0 || count_ >= kFilterNames - 1) {
            return addToTable(s, len);
        }
        uint64_t bit = filterBit(s, len);
        if ((filter_ & bit) != 0 && seen(count_, s, len)) {
            return Repeat;
        }
        filter_ |= bit;
        put(count_++, s, len);
        return Added;
    }

    // A caller may run the filter itself, in a register, for its first
    // names (at most kFilterNames), and then hand them over with adopt.
    static uint64_t filterBit(const char *s, uint32_t len)
    {
        uint32_t mix = static_cast<unsigned char>(s[0]) * 0x9E3779B1u ^
                       static_cast<unsigned char>(s[len - 1]) * 0x85EBCA6Bu ^ len * 0xC2B2AE35u;
        return uint64_t{1} << (mix >> 26);
    }
    // Starts over with the count names at spans (distinct, count at most
    // kFilterNames).
    void adopt(const Span *spans, int count)
    {
        count_ = count;
        filter_ = 0;
        mask_ = 0;
        for (int j = 0; j < count; ++j) {
            put(j, spans[j].at, spans[j].len);
            filter_ |= filterBit(spans[j].at, spans[j].len);
        }
    }

private:
    static_assert(kWideAttrs < 256 && 4 * kFilterNames <= 2 * kWideAttrs, "slots hold a count");

    void put(int i, const char *s, uint32_t len)
    {
        name_[i] = s;
        len_[i] = len;
    }
    __attribute__((noinline)) bool seen(int count, const char *s, uint32_t len) const
    {
        for (int j = 0; j < count; ++j) {
            if (same(j, s, len)) {
                return true;
            }
        }
        return false;
    }

    bool same(int j, const char *s, uint32_t len) const
    {
        return len_[j] == len && name_[j][0] == s[0] && std::memcmp(name_[j], s, len) == 0;
    }
    static uint32_t hash(const char *s, uint32_t len)
    {
        uint32_t h = 2166136261u ^ len;
        for (uint32_t i = 0; i < len; ++i) {
            h = (h ^ static_cast<unsigned char>(s[i])) * 16777619u;
        }
        return h ^ (h >> 15);
    }
    // The last name the filter takes, which brings in the table, and every
    // name after it.
    __attribute__((noinline)) Result addToTable(const char *s, uint32_t len)
    {
        if (count_ == kWideAttrs) {
            return Full;
        }
        uint32_t h = hash(s, len);
        if (mask_ == 0) {
            if (seen(count_, s, len)) {
                return Repeat;
            }
            for (int j = 0; j < count_; ++j) {
                hash_[j] = hash(name_[j], len_[j]);
            }
            rebuild(4 * kFilterNames);
        }
        uint32_t i = h & mask_;
        for (; slot_[i] != 0; i = (i + 1) & mask_) {
            int j = slot_[i] - 1;
            if (hash_[j] == h && same(j, s, len)) {
                return Repeat;
            }
        }
        name_[count_] = s;
        len_[count_] = len;
        hash_[count_] = h;
        slot_[i] = static_cast<uint8_t>(++count_);
        if (static_cast<uint32_t>(count_) * 2 > mask_ + 1) {
            rebuild(2 * (mask_ + 1));
        }
        return Added;
    }
    // Spreads the names over `slots` table slots (a power of two).
    void rebuild(uint32_t slots)
    {
        mask_ = slots - 1;
        std::memset(slot_, 0, slots);
        for (int j = 0; j < count_; ++j) {
            uint32_t i = hash_[j] & mask_;
            while (slot_[i] != 0) {
                i = (i + 1) & mask_;
            }
            slot_[i] = static_cast<uint8_t>(j + 1);
        }
    }

    int count_;
    uint64_t filter_;
    uint32_t mask_;  // table slots - 1; 0 while the filter is used
    const char *name_[kWideAttrs];
    uint32_t len_[kWideAttrs];
    uint32_t hash_[kWideAttrs];
    uint8_t slot_[2 * kWideAttrs];  // index of a name + 1; 0 when free
};

// Room for a tag of more than kFastAttrs attributes or kFilterNames names,
// made on the first such tag of a parse and kept to its end. A tag of more
// than kWideAttrs attributes is read into `many`, which grows by doubling.
struct WideTag {
    TagNames names;
    FastAttr attrs[kWideAttrs];
    FastAttr *many;
    int manyRoom;
};

// More attributes in one tag take the token-by-token steps (also linear):
// the fast read keeps the whole tag's table, 40 bytes per attribute.
constexpr int kMostAttrs = 1 << 24;

// Null when memory ran out.
WideTag *wideTag(XmlParser *p)
{
    if (p->wideTag == nullptr) {
        auto *w = static_cast<WideTag *>(krvHeapMalloc(sizeof(WideTag)));
        if (w != nullptr) {
            w->many = nullptr;
            w->manyRoom = 0;
        }
        p->wideTag = w;
    }
    return static_cast<WideTag *>(p->wideTag);
}

void releaseWideTag(XmlParser *p)
{
    if (p->wideTag != nullptr) {
        krvHeapFree(static_cast<WideTag *>(p->wideTag)->many);
        krvHeapFree(p->wideTag);
        p->wideTag = nullptr;
    }
}

// firstRepeat for more than kWideAttrs names: they go through a set hashed
// with a key of its own, so that no choice of names makes the check slow.
// A set of many names outgrows the caches, so each name's slot is asked for
// kProbeAhead names before it is probed.
constexpr int kProbeAhead = 8;

__attribute__((noinline)) int firstRepeatMany(const FastAttr *attrs, int count)
{
    size_t size = 1;
    while (size < static_cast<size_t>(count) * 2) {
        size <<= 1;
    }
    // Per slot: the name's 32 hash bits over its index + 1; 0 when free.
    auto *slots = static_cast<uint64_t *>(krvHeapCalloc(size, sizeof(uint64_t)));
    if (slots == nullptr) {
        return -1;
    }
    uint64_t key[2];
    xmlDrawKey(key, slots);
    auto mask = static_cast<uint32_t>(size - 1);
    auto same = [attrs](uint64_t entry, uint32_t hash, const FastAttr &a) {
        const FastAttr &b = attrs[static_cast<uint32_t>(entry) - 1];
        return static_cast<uint32_t>(entry >> 32) == hash && b.nameLen == a.nameLen &&
               std::memcmp(b.name, a.name, a.nameLen) == 0;
    };
    uint32_t ahead[kProbeAhead];  // hashes of the next names, by index modulo kProbeAhead
    auto hashAhead = [&](int i) {
        XmlSipHash h(key);
        h.addFresh(attrs[i].name, attrs[i].nameLen);
        ahead[i % kProbeAhead] = static_cast<uint32_t>(h.finish() >> 32);
        __builtin_prefetch(&slots[ahead[i % kProbeAhead] & mask]);
    };
    for (int i = 0; i < kProbeAhead && i < count; ++i) {
        hashAhead(i);
    }
    int repeat = count;
    for (int i = 0; i < count && repeat == count; ++i) {
        const FastAttr &a = attrs[i];
        uint32_t hash = ahead[i % kProbeAhead];
        if (i + kProbeAhead < count) {
            hashAhead(i + kProbeAhead);
        }
        uint32_t at = hash & mask;
        while (slots[at] != 0 && !same(slots[at], hash, a)) {
            at = (at + 1) & mask;
        }
        if (slots[at] != 0) {
            repeat = i;
        } else {
            slots[at] = (uint64_t{hash} << 32) | static_cast<uint32_t>(i + 1);
        }
    }
    krvHeapFree(slots);
    return repeat;
}

// The first of attrs (all with plain names) that repeats a name before it,
// count when none does, or -1 when memory for the check ran out.
int firstRepeat(XmlParser *p, const FastAttr *attrs, int count)
{
    if (count > kWideAttrs) {
        return firstRepeatMany(attrs, count);
    }
    uint64_t filter = 0;
    int i = 0;
    for (; i < count && i < TagNames::kFilterNames; ++i) {
        const FastAttr &a = attrs[i];
        uint64_t bit = TagNames::filterBit(a.name, a.nameLen);
        if ((filter & bit) != 0) {
            for (int j = 0; j < i; ++j) {
                if (attrs[j].nameLen == a.nameLen &&
                    std::memcmp(attrs[j].name, a.name, a.nameLen) == 0) {
                    return i;
                }
            }
        }
        filter |= bit;
    }
    if (i == count) {
        return count;
    }
    WideTag *w = wideTag(p);
    if (w == nullptr) {
        return -1;
    }
    Span spans[TagNames::kFilterNames] = {};  // i is at most kFilterNames
    for (int j = 0; j < i; ++j) {
        spans[j] = {attrs[j].name, attrs[j].nameLen};
    }
    w->names.adopt(spans, i);
    for (; i < count; ++i) {
        if (w->names.add(attrs[i].name, attrs[i].nameLen) != TagNames::Added) {
            return i;
        }
    }
    return count;
}

// Scans the attributes and the end of a start tag from q (just after its
// name, or where a scan stopped full) into attrs, which has room for room of
// them, from *count on. Returns the position after the tag, with *count and
// *empty, or null when the tag is not plain: an attribute without '=' or
// quotes, an unterminated value, a long run. When attrs is full, sets *full
// and returns where the next attribute's scan would start.
inline __attribute__((always_inline)) const char *scanAttrList(const char *q, FastAttr *attrs,
                                                             int room, int *count, bool *empty,
                                                             bool *full)
{
    for (;;) {
        if (*q == '>') {
            *empty = false;
            return q + 1;
        }
        if (q[0] == '/' && q[1] == '>') {
            *empty = true;
            return q + 2;
        }
        if (!isSpace(*q)) {
            return nullptr;
        }
        const char *gap = q;
        q = skipSpace(q + 1);
        if (*q == '>' || (q[0] == '/' && q[1] == '>')) {
            continue;
        }
        if (!isWordStart(*q)) {
            return nullptr;
        }
        if (*count == room) {
            *full = true;
            return gap;
        }
        FastAttr &a = attrs[*count];
        bool amp = false;
        const char *nameEnd = scanWord(q, &amp, &a.colon);
        if (nameEnd == nullptr || nameEnd - q > static_cast<ptrdiff_t>(kMaxRun)) {
            return nullptr;
        }
        a.name = q;
        a.nameLen = static_cast<uint32_t>(nameEnd - q);
        a.plainName = !amp;
        q = skipSpace(nameEnd);
        if (*q != '=') {
            return nullptr;
        }
        q = skipSpace(q + 1);
        char quote = *q;
        if (quote != '"' && quote != '\'') {
            return nullptr;
        }
        const char *v = q + 1;
        const char *close = findByte(v, nullptr, quote, '&', '<');
        a.plainValue = true;
        while (*close != quote) {
            if (*close == '\0') {
                return nullptr;
            }
            a.plainValue = false;
            close = findByte(close + 1, nullptr, quote, '&', '<');
        }
        if (close - v > static_cast<ptrdiff_t>(kMaxRun)) {
            return nullptr;
        }
        a.value = v;
        a.valueLen = static_cast<uint32_t>(close - v);
        ++*count;
        q = close + 1;
    }
}

// Reads on a tag of more than kWideAttrs attributes into w->many, from q,
// where the read into w->attrs stopped full (count is kWideAttrs). Returns
// as scanAttrList does, and null also for a tag of more than kMostAttrs
// attributes, or with *noMemory when room for them could not be had.
__attribute__((noinline)) const char *scanManyAttrs(WideTag *w, const char *q, int *count,
                                                    bool *empty, bool *noMemory)
{
    bool full = true;
    bool moved = false;
    while (full) {
        if (*count >= w->manyRoom) {  // none yet, or full
            if (w->manyRoom == kMostAttrs) {
                return nullptr;
            }
            int room = w->manyRoom == 0 ? 4 * kWideAttrs : 2 * w->manyRoom;
            auto *many = static_cast<FastAttr *>(
                krvHeapRealloc(w->many, static_cast<size_t>(room) * sizeof(FastAttr)));
            if (many == nullptr) {
                *noMemory = true;
                return nullptr;
            }
            w->many = many;
            w->manyRoom = room;
        }
        if (!moved) {
            std::memcpy(w->many, w->attrs, sizeof w->attrs);
            moved = true;
        }
        full = false;
        q = scanAttrList(q, w->many, w->manyRoom, count, empty, &full);
        if (q == nullptr) {
            return nullptr;
        }
    }
    return q;
}

// Session bytes that attribute a adds to a tag carved in one piece, or 0
// when it keeps the tag from being carved so: a name or value that needs
// decoding, a misplaced colon, a long run. (Repeated names are the
// caller's to find.)
inline size_t carvedAttrBytes(const FastAttr &a)
{
    if (!a.plainName || !a.plainValue || a.nameLen >= kLongestCarved ||
        a.valueLen >= kLongestCarved) {
        return 0;
    }
    size_t bytes = nameBytes(a.nameLen, a.colon == nullptr ? -1 : a.colon - a.name);
    if (bytes == 0) {
        return 0;
    }
    return kAttrRecordSize + bytes + (a.valueLen != 0 ? runBytes(a.valueLen) : 0);
}

// Carves an attribute with a plain name and value for element n, after
// *tail: record, name and value, in that order. Null when memory ran out.
template <class Take>
inline __attribute__((always_inline)) XmlNode *putAttr(Take &take, XmlParser *p, XmlNode *n,
                                                       XmlNode **tail, const char *name,
                                                       uint32_t nameLen, int64_t colonAt,
                                                       const char *value, uint32_t valueLen)
{
    auto *attr = reinterpret_cast<XmlNode *>(take.take(kAttrRecordSize));
    if (Take::kCanFail && attr == nullptr) {
        return nullptr;
    }
    setCarvedFlags(attr, kKindAttribute, 1, 1);
    attr->mem = p->session;
    if (!putName(take, name, nameLen, colonAt, attr, false)) {
        return nullptr;
    }
    if (valueLen != 0) {
        attr->value = putRun(take, value, valueLen, true);
        if (Take::kCanFail && attr->value == nullptr) {
            return nullptr;
        }
    }
    attr->parent = n;
    if (*tail == nullptr) {
        n->firstAttr = attr;
    } else {
        (*tail)->next = attr;
    }
    *tail = attr;
    return attr;
}

// A session tag whose names and values need no decoding, and that holds no
// name with a misplaced colon and no repeated attribute, can only fail for
// want of memory. Its pieces are carved in the order of the general steps:
// element record, name, then each attribute's record, name and value. When
// the session's first block with room can take all of them (total bytes),
// they are carved from there together, which is where one carving per piece
// would put them; otherwise one by one. Returns the element with its name
// and attributes, or null when memory ran out (the pieces carved so far stay
// unused in the session, which the failed parse releases).
template <class Take>
XmlNode *buildTag(XmlParser *p, Take take, const char *name, uint32_t nameLen, int64_t colonAt,
                  const FastAttr *attrs, int count)
{
    XmlNode *n = p->pending;
    if (n == nullptr) {
        n = reinterpret_cast<XmlNode *>(take.take(kElementRecordSize));
        if (Take::kCanFail && n == nullptr) {
            return nullptr;
        }
        n->kind = kKindElement;
        n->mem = p->session;
    }
    if (!putName(take, name, nameLen, colonAt, n)) {
        return nullptr;
    }
    XmlNode *tail = nullptr;
    for (int i = 0; i < count; ++i) {
        const FastAttr &a = attrs[i];
        int64_t attrColon = a.colon == nullptr ? -1 : a.colon - a.name;
        if (putAttr(take, p, n, &tail, a.name, a.nameLen, attrColon, a.value, a.valueLen) ==
            nullptr) {
            return nullptr;
        }
    }
    return n;
}

XmlNode *carveTag(XmlParser *p, size_t total, const char *name, uint32_t nameLen, int64_t colonAt,
                  const FastAttr *attrs, int count)
{
    auto *m = static_cast<uint8_t *>(xmlSessionTryTake(p->session, static_cast<int32_t>(total)));
    if (m != nullptr) {
        return buildTag(p, WholeTag{m, m + total}, name, nameLen, colonAt, attrs, count);
    }
    return buildTag(p, EachPiece{p->session}, name, nameLen, colonAt, attrs, count);
}

// Notes the plain word that named the element n just carved.
inline void setRawName(XmlParser *p, const XmlNode *n, const char *name, uint32_t nameLen)
{
    p->rawElement = n;
    p->rawName = name;
    p->rawLen = nameLen;
}

// Links the built element n of the start tag at lt (which ends before q)
// and moves on as reading its attributes and its end would: an empty tag
// with attributes leaves the open bits shifted, as their reading does.
Fast linkTag(XmlParser *p, XmlNode *n, const char *lt, const char *q, bool empty, int count)
{
    bool firstChild = p->current != nullptr && (p->openBits & 1u);
    if (!linkElement(p, n, lt)) {
        return Fast::Failed;
    }
    p->current = n;
    p->pending = nullptr;
    p->tokenSeen = 1;
    if (!empty) {
        p->openBits = (p->openBits << 1) | 1u;
        ++p->openCount;
        p->state = XML_PARSE_CONTENT;
    } else {
        if (firstChild || count != 0) {
            p->openBits <<= 1;
        }
        p->state = XML_PARSE_IDLE;
    }
    p->pos = q;
    return Fast::Done;
}

// Whether one of the count names at spans is the len bytes at s.
__attribute__((noinline)) bool repeatsSpan(const Span *spans, int count, const char *s,
                                           uint32_t len)
{
    for (int j = 0; j < count; ++j) {
        if (spans[j].len == len && std::memcmp(spans[j].at, s, len) == 0) {
            return true;
        }
    }
    return false;
}

// Where the one-pass read of a tag stopped for want of room in the block:
// the attribute that did not fit.
struct DirectRest {
    const char *at = nullptr;
    bool noMemory = false;  // the room for a tag of many names could not be had
};

// The attributes of a tag carved so far by the one-pass read, and its
// duplicate check: the names of the first ones go through a filter and into
// spans; from kFilterNames on, through the parse's TagNames.
struct AttrRun {
    uint64_t filter = 0;
    TagNames *names = nullptr;
    int listed = 0;
    XmlNode *tail = nullptr;
};

// The pieces of a session tag that runs past the end of block a, the first
// block with room: each piece goes to a while it fits there, else to the
// block after a, which is the last of the chain or is made for the first
// piece that needs it: where XML_MemSpecialMalloc would put each piece.
// Nothing is committed until the whole tag is carved; undo clears what was
// written and keeps a block made for the tag for the next growth.
struct SplitTag {
    static constexpr bool kCanFail = true;
    XmlMemSession *session;
    XmlMemSession *a;
    uint8_t *am;
    uint8_t *alimit;
    XmlMemSession *b = nullptr;
    uint8_t *bm = nullptr;
    uint8_t *blimit = nullptr;
    bool made = false;      // b was made for this tag
    bool noMemory = false;  // making b failed
    bool tooBig = false;    // a piece fits neither block

    SplitTag(XmlMemSession *s, XmlMemSession *block, uint8_t *m)
        : session(s), a(block), am(m), alimit(block->cursor + block->freeBytes)
    {
        if (block->nextBlock != nullptr) {
            use(block->nextBlock);
        }
    }
    void use(XmlMemSession *block)
    {
        b = block;
        bm = block->cursor;
        blimit = bm + block->freeBytes;
    }
    // Short values are copied byte-exact here: no wide stores.
    static int64_t room(const char *) { return 0; }
    uint8_t *take(size_t bytes)
    {
        uint8_t *piece;
        if (static_cast<size_t>(alimit - am) >= bytes) {
            piece = am;
            am += bytes;
            return piece;
        }
        if (b == nullptr) {
            XmlMemSession *block = xmlSessionMakeBlock(session, static_cast<int32_t>(bytes));
            if (block == nullptr) {
                noMemory = true;
                return nullptr;
            }
            made = true;
            use(block);
        }
        if (static_cast<size_t>(blimit - bm) < bytes) {
            tooBig = true;
            return nullptr;
        }
        piece = bm;
        bm += bytes;
        return piece;
    }
    void commit()
    {
        a->freeBytes -= static_cast<int32_t>(am - a->cursor);
        a->cursor = am;
        if (b != nullptr) {
            b->freeBytes -= static_cast<int32_t>(bm - b->cursor);
            b->cursor = bm;
            if (made) {
                xmlSessionAppend(session, b);
            }
        }
    }
    void undo()
    {
        std::memset(a->cursor, 0, static_cast<size_t>(am - a->cursor));
        if (b != nullptr) {
            std::memset(b->cursor, 0, static_cast<size_t>(bm - b->cursor));
            if (made) {
                xmlSessionSpare(session, b);
            }
        }
    }
};

// The attributes and end of a start tag read in one pass, each attribute
// carved at take as soon as it is scanned, after the element n and the
// attributes in run. Returns the position after the tag, with *empty, or
// null where an attribute needs decoding, repeats a name, holds a
// misplaced colon or a long run, or the tag reads otherwise. A WholeTag
// stops where an attribute would not fit before its limit, which *rest then
// records; a SplitTag stops where it could not take a piece.
template <class Take>
inline __attribute__((always_inline)) const char *directAttrs(XmlParser *p, XmlNode *n, Take &take,
                                                              const char *q, bool *empty,
                                                              AttrRun &run, DirectRest *rest,
                                                              Span *spans)
{
    for (;;) {
        const char *attrStart = q;
        if (!isSpace(*q)) {  // mostly the space before the next attribute
            if (*q == '>') {
                *empty = false;
                return q + 1;
            }
            if (q[0] == '/' && q[1] == '>') {
                *empty = true;
                return q + 2;
            }
            return nullptr;
        }
        q = skipSpace(q + 1);
        if (!isWordStart(*q)) {  // mostly the next attribute's name
            if (*q == '>' || (q[0] == '/' && q[1] == '>')) {
                continue;
            }
            return nullptr;
        }
        const char *name = q;
        bool amp = false;
        const char *colon = nullptr;
        const char *nameEnd = scanWord(q, &amp, &colon);
        if (nameEnd == nullptr || amp || nameEnd - name >= static_cast<ptrdiff_t>(kLongestCarved)) {
            return nullptr;
        }
        auto nameLen = static_cast<uint32_t>(nameEnd - name);
        q = *nameEnd == '=' ? nameEnd : skipSpace(nameEnd);
        if (*q != '=') {
            return nullptr;
        }
        ++q;
        char quote = *q;
        if (quote != '"' && quote != '\'') {
            q = skipSpace(q);
            quote = *q;
            if (quote != '"' && quote != '\'') {
                return nullptr;
            }
        }
        const char *v = q + 1;
        const char *close = findValueEnd(v, quote);
        if (*close != quote || close - v >= static_cast<ptrdiff_t>(kLongestCarved)) {
            return nullptr;
        }
        auto valueLen = static_cast<uint32_t>(close - v);
        int64_t colonAt = colon == nullptr ? -1 : colon - name;
        size_t bytes = nameBytes(nameLen, colonAt);
        if (bytes == 0) {
            return nullptr;
        }
        if constexpr (!Take::kCanFail) {
            bytes += kAttrRecordSize + (valueLen != 0 ? runBytes(valueLen) : 0);
            if (static_cast<size_t>(take.limit - take.m) < bytes) {
                rest->at = attrStart;  // the block is full
                return nullptr;
            }
        }
        if (run.listed < TagNames::kFilterNames) {
            uint64_t bit = TagNames::filterBit(name, nameLen);
            if ((run.filter & bit) != 0 && repeatsSpan(spans, run.listed, name, nameLen)) {
                return nullptr;
            }
            run.filter |= bit;
            spans[run.listed] = {name, nameLen};
        } else {
            if (run.names == nullptr) {
                WideTag *w = wideTag(p);
                if (w == nullptr) {
                    rest->noMemory = true;
                    return nullptr;
                }
                run.names = &w->names;
                run.names->adopt(spans, run.listed);
            }
            if (run.names->add(name, nameLen) != TagNames::Added) {
                return nullptr;
            }
        }
        if (putAttr(take, p, n, &run.tail, name, nameLen, colonAt, v, valueLen) == nullptr) {
            return nullptr;  // only a SplitTag fails
        }
        ++run.listed;
        q = close + 1;
    }
}

// A start tag that runs past the end of block a, read on in one pass with
// a SplitTag: from its element on when n is null (am is then a's cursor),
// else from the attribute at q on, with n and run carved in a up to am.
// Bail (nothing changed) when the tag turns out to be another kind or
// larger than the two blocks; Failed when memory ran out.
__attribute__((noinline)) Fast splitTag(XmlParser *p, XmlMemSession *a, uint8_t *am, XmlNode *n,
                                        const char *lt, const char *name, uint32_t nameLen,
                                        int64_t colonAt, const char *q, AttrRun run, Span *spans)
{
    SplitTag take(p->session, a, am);
    if (n == nullptr) {
        n = reinterpret_cast<XmlNode *>(take.take(kElementRecordSize));
        if (n != nullptr) {
            setCarvedFlags(n, kKindElement, 1, 0);
            n->mem = p->session;
            if (!putName(take, name, nameLen, colonAt, n, false)) {
                n = nullptr;
            }
        }
    }
    bool empty = false;
    DirectRest rest;
    const char *end = n == nullptr ? nullptr : directAttrs(p, n, take, q, &empty, run, &rest, spans);
    if (end == nullptr) {
        if (take.noMemory || rest.noMemory) {
            note(p, lt, "out of memory");
            return Fast::Failed;
        }
        take.undo();
        return Fast::Bail;
    }
    take.commit();
    p->tagName = name;
    setRawName(p, n, name, nameLen);
    return linkTag(p, n, lt, end, empty, run.listed);
}

// The session start tag that fastStartTag would carve whole, read in one
// pass: each piece is written to the first block with room as soon as it is
// scanned, where the carving would put it. Bail when the tag turns out to be
// another kind or not to fit there: the bytes written are cleared again, as
// a block is zero past its cursor, and nothing else changed.
inline __attribute__((always_inline)) Fast directStartTag(XmlParser *p)
{
    XmlMemSession *block = p->session->firstNonFull;
    if (block == nullptr || p->pending != nullptr) {
        return Fast::Bail;
    }
    while (block->freeBytes == 0 && block->nextBlock != nullptr) {
        block = block->nextBlock;  // as the first-fit search would move on
        p->session->firstNonFull = block;
    }
    // Past the end of this block, a piece's first fit is the next block
    // when that is the last one; with more blocks after it, the general
    // search.
    bool splits = block->nextBlock == nullptr || block->nextBlock->nextBlock == nullptr;
    uint8_t *const start = block->cursor;
    uint8_t *const limit = start + block->freeBytes;
    const char *lt = p->pos;
    const char *name = lt + 1;
    bool amp = false;
    const char *colon = nullptr;
    const char *nameEnd = scanWord(name, &amp, &colon);
    if (nameEnd == nullptr || amp || nameEnd - name >= static_cast<ptrdiff_t>(kLongestCarved)) {
        return Fast::Bail;
    }
    auto nameLen = static_cast<uint32_t>(nameEnd - name);
    int64_t colonAt = colon == nullptr ? -1 : colon - name;
    size_t bytes = nameBytes(nameLen, colonAt);
    Span spans[TagNames::kFilterNames];
    if (bytes == 0) {
        return Fast::Bail;
    }
    if (static_cast<size_t>(limit - start) < kElementRecordSize + bytes) {
        return splits ? splitTag(p, block, start, nullptr, lt, name, nameLen, colonAt, nameEnd,
                                 AttrRun{}, spans)
                      : Fast::Bail;
    }
    // The block that follows this one in its slab is cleared next, or
    // written by this read when the tag runs past the end: asking for its
    // lines now overlaps their fetch with the tags before. Six lines, about
    // what a tag of a few attributes writes, keep pace with the cursor.
    xmlPrefetchAhead(start);
    xmlPrefetchAhead(start + 192);
    auto *n = reinterpret_cast<XmlNode *>(start);
    setCarvedFlags(n, kKindElement, 1, 0);
    n->mem = p->session;
    WholeTag take{start + kElementRecordSize, limit};
    putName(take, name, nameLen, colonAt, n, false, true);
    bool empty = false;
    AttrRun run;
    DirectRest rest;
    const char *q = directAttrs(p, n, take, nameEnd, &empty, run, &rest, spans);
    if (q == nullptr) {
        if (rest.noMemory) {
            note(p, lt, "out of memory");
            return Fast::Failed;
        }
        if (rest.at != nullptr && splits) {
            return splitTag(p, block, take.m, n, lt, name, nameLen, colonAt, rest.at, run, spans);
        }
        std::memset(start, 0, static_cast<size_t>(take.m - start));
        return Fast::Bail;
    }
    block->cursor = take.m;
    block->freeBytes -= static_cast<int32_t>(take.m - start);
    p->tagName = name;
    setRawName(p, n, name, nameLen);
    return linkTag(p, n, lt, q, empty, run.listed);
}

Fast fastStartTag(XmlParser *p)
{
    if (p->session != nullptr) {
        Fast direct = directStartTag(p);
        if (direct != Fast::Bail) {
            return direct;
        }
    }
    const char *lt = p->pos;
    const char *name = lt + 1;
    bool nameAmp = false;
    const char *nameColon = nullptr;
    const char *nameEnd = scanWord(name, &nameAmp, &nameColon);
    if (nameEnd == nullptr || nameEnd - name > static_cast<ptrdiff_t>(kMaxRun)) {
        return Fast::Bail;
    }
    FastAttr stackAttrs[kFastAttrs];
    FastAttr *attrs = stackAttrs;
    int count = 0;
    bool empty;
    bool full = false;
    const char *q = scanAttrList(nameEnd, attrs, kFastAttrs, &count, &empty, &full);
    if (full) {
        WideTag *w = wideTag(p);
        if (w == nullptr) {
            note(p, lt, "out of memory");
            return Fast::Failed;
        }
        attrs = w->attrs;
        count = 0;
        full = false;
        q = scanAttrList(nameEnd, attrs, kWideAttrs, &count, &empty, &full);
        if (full) {
            bool noMemory = false;
            q = scanManyAttrs(w, q, &count, &empty, &noMemory);
            if (noMemory) {
                note(p, lt, "out of memory");
                return Fast::Failed;
            }
            attrs = w->many;
        }
    }
    if (q == nullptr) {
        return Fast::Bail;
    }
    // Session bytes of the whole tag when it can be carved in one piece, else 0.
    uint32_t nameLen = static_cast<uint32_t>(nameEnd - name);
    int64_t colonAt = colonIndex(name, nameAmp, nameColon);
    size_t carved = 0;
    if (p->session != nullptr && !nameAmp && nameLen < kLongestCarved) {
        carved = nameBytes(nameLen, colonAt);
        carved += carved != 0 && p->pending == nullptr ? kElementRecordSize : 0;
    }
    // Names that need no decoding are equal exactly when their bytes are, so
    // duplicates can be found on the text.
    bool plainNames = true;
    for (int i = 0; i < count; ++i) {
        plainNames = plainNames && attrs[i].plainName;
    }
    int repeat = count;
    if (plainNames && attrs == stackAttrs) {
        for (int i = 1; i < count && repeat == count; ++i) {
            for (int j = 0; j < i; ++j) {
                if (attrs[j].nameLen == attrs[i].nameLen && attrs[j].name[0] == attrs[i].name[0] &&
                    std::memcmp(attrs[j].name, attrs[i].name, attrs[i].nameLen) == 0) {
                    repeat = i;
                    break;
                }
            }
        }
    } else if (plainNames) {
        repeat = firstRepeat(p, attrs, count);
    }
    if (repeat < 0) {
        note(p, lt, "out of memory");
        return Fast::Failed;
    }
    if (repeat != count) {
        carved = 0;
    }
    for (int i = 0; i < count && carved != 0; ++i) {
        size_t bytes = carvedAttrBytes(attrs[i]);
        carved = bytes != 0 ? carved + bytes : 0;
    }

    // The tag is well formed as far as scanning can tell: build it in the
    // order of the token-by-token steps.
    XmlNode *n = nullptr;
    if (carved != 0) {
        n = carveTag(p, carved, name, nameLen, colonAt, attrs, count);
        if (n == nullptr) {
            note(p, lt, "out of memory");
            return Fast::Failed;
        }
        p->tagName = name;
        setRawName(p, n, name, nameLen);
        return linkTag(p, n, lt, q, empty, count);
    }
    n = p->pending;
    if (n == nullptr) {
        n = xmlParserNewNode(p->session, KRV_XML_NODE_ELEMENT);
        if (n == nullptr) {
            note(p, lt, "out of memory");
            return Fast::Failed;
        }
        p->pending = n;
    }
    if (colonAt > 0 && colonAt < static_cast<int64_t>(nameLen) - 1) {
        // A plain name with its colon inside is divided now rather than when
        // the element closes, as that would give the same two strings;
        // sameName and splitElement know such an element by its prefix.
        uint32_t at = static_cast<uint32_t>(colonAt);
        if (xmlStoreRun(p->session, name, at, true, &n->nsPrefix, p->diag) != KRV_XML_OK ||
            xmlStoreRun(p->session, name + at + 1, nameLen - at - 1, true, &n->name,
                        p->diag) != KRV_XML_OK) {
            return Fast::Failed;
        }
        colonAt = -1;
    } else if (xmlStoreRun(p->session, name, nameLen, !nameAmp, &n->name, p->diag) !=
               KRV_XML_OK) {
        return Fast::Failed;
    }
    n->nameOwned = 1;
    p->tagName = name;
    if (!nameAmp && colonAt < 0) {
        setRawName(p, n, name, nameLen);  // stored as it stands, or divided
    }
    uint32_t nameTokenLen = nameLen;
    if (nameAmp) {
        nameLen = static_cast<uint32_t>(std::strlen(n->name));  // decoding shortened it
    }
    if (empty && count == 0 &&
        splitElement(p, n, nameLen, name, colonAt, nameTokenLen) != KRV_XML_OK) {
        return Fast::Failed;
    }
    if (count == 0) {
        return linkTag(p, n, lt, q, empty, 0);
    }
    if (!linkElement(p, n, lt)) {
        return Fast::Failed;
    }
    p->current = n;
    p->pending = nullptr;
    p->tokenSeen = 1;
    p->openBits = (p->openBits << 1) | 1u;
    ++p->openCount;
    p->state = XML_PARSE_ATTRS;
    XmlNode *tail = nullptr;
    uint32_t listed = 0;
    AttrSet set{};
    int32_t rc = KRV_XML_OK;
    for (int i = 0; i < count && rc == KRV_XML_OK; ++i) {
        const FastAttr &a = attrs[i];
        XmlNode *attr = newParsedAttr(p, a.name, a.nameLen, a.plainName, &rc, &a.colon);
        if (attr == nullptr) {
            break;
        }
        Dup dup = Dup::Unknown;
        if (plainNames) {
            dup = i == repeat ? Dup::Yes : Dup::No;
        }
        rc = finishParsedAttr(p, n, attr, a.name, a.value, a.valueLen, a.plainValue, &tail,
                              &listed, &set, dup);
    }
    krvHeapFree(set.slots);
    if (rc != KRV_XML_OK) {
        return Fast::Failed;
    }
    if (empty) {
        if (splitElement(p, n, nameLen, name, colonAt) != KRV_XML_OK) {
            return Fast::Failed;
        }
        p->state = XML_PARSE_IDLE;
        p->openBits &= ~1u;
        --p->openCount;
    } else {
        p->state = XML_PARSE_CONTENT;
    }
    p->pos = q;
    return Fast::Done;
}

Fast fastEndTag(XmlParser *p)
{
    const char *lt = p->pos;
    const char *name = lt + 2;
    XmlNode *cur = p->current;
    bool closesParent = (p->openBits & 1u) == 0;
    if (closesParent) {
        if (cur == nullptr || cur->parent == nullptr) {
            return Fast::Bail;
        }
        cur = cur->parent;
    }
    xmlPrefetchBelow(cur);  // end tags in a row close the levels below it in turn
    const char *nameEnd = nullptr;
    int64_t colonAt = kColonUnknown;
    const char *gt = endTagCloses(p, cur, name, &nameEnd, &colonAt);
    if (gt == nullptr) {
        return Fast::Bail;
    }
    char before = lt > p->input ? lt[-1] : '\0';
    if (closesParent) {
        p->current = cur;
        p->openBits >>= 1;
    }
    p->openBits &= ~1u;
    p->tokenSeen = 1;
    if (nameEnd != nullptr &&
        splitElement(p, cur, static_cast<uint32_t>(nameEnd - name), name, colonAt) != KRV_XML_OK) {
        return Fast::Failed;
    }
    cur->nameOwned = 1;
    if (!storeBlankContent(p, cur, lt, before)) {
        return Fast::Failed;
    }
    cur->valueOwned = 1;
    --p->openCount;
    p->state = XML_PARSE_IDLE;
    p->pos = gt + 1;
    return Fast::Done;
}

Fast fastText(XmlParser *p)
{
    const char *t = p->pos;
    if (*t == '>' || (t[0] == '/' && t[1] == '>')) {
        return Fast::Bail;
    }
    const char *start = t;
    while (start[-1] == ' ') {
        --start;
    }
    const char *lt = findByte(t, nullptr, '<', '&', '&');
    bool plain = *lt != '&';
    if (!plain) {
        lt = findByte(lt + 1, nullptr, '<', '<', '<');  // the decoder finds the others
    }
    // CDATA sections belong to the text and are stepped over whole; the
    // decoder unwraps them. A text that is one section and nothing else
    // (the common case) is stored from the bounds found here.
    const char *content = nullptr;
    const char *contentEnd = nullptr;
    while (*lt == '<' && lt[1] == '!' && startsCdata(lt)) {
        const char *close = findCdataEnd(lt + 9);
        if (close == nullptr) {
            return Fast::Bail;
        }
        content = lt == start ? lt + 9 : nullptr;
        contentEnd = close;
        plain = false;
        lt = findByte(close + 3, nullptr, '<', '<', '<');
    }
    if (content != nullptr && lt != contentEnd + 3) {
        content = nullptr;
    }
    if (*lt != '<' || lt[1] != '/' || lt - start > static_cast<ptrdiff_t>(kMaxRun)) {
        return Fast::Bail;
    }
    const char *name = lt + 2;
    XmlNode *cur = p->current;
    const char *nameEnd = nullptr;
    int64_t colonAt = kColonUnknown;
    const char *gt = endTagCloses(p, cur, name, &nameEnd, &colonAt);
    if (gt == nullptr) {
        return Fast::Bail;
    }
    p->tokenSeen = 1;
    auto len = static_cast<uint64_t>(lt - start);
    int32_t stored =
        content != nullptr
            ? xmlStoreCdataRun(p->session, start, len, content,
                               static_cast<uint64_t>(contentEnd - content), &cur->value, p->diag)
            : xmlStoreRun(p->session, start, len, plain, &cur->value, p->diag);
    if (stored != KRV_XML_OK) {
        return Fast::Failed;
    }
    cur->valueOwned = 1;
    if (nameEnd != nullptr &&
        splitElement(p, cur, static_cast<uint32_t>(nameEnd - name), name, colonAt) !=
            KRV_XML_OK) {
        return Fast::Failed;
    }
    cur->nameOwned = 1;
    p->openBits &= ~1u;
    --p->openCount;
    p->state = XML_PARSE_IDLE;
    p->pos = gt + 1;
    return Fast::Done;
}

#ifdef KRVXML_TESTING
bool g_fastParser = true;
#endif

// The decoded copy of a leaf's text, out of the way of the plain case.
__attribute__((noinline)) int32_t decodeLeaf(XmlParser *p, XmlNode *n, const char *t, uint32_t len)
{
    return xmlDecodeRun(p->session, t, len, &n->value, p->diag);
}

// The text and end tag of a session leaf right after its start tag, which
// carved its name from the text (rawElement): the text's copy is carved as
// fastText's store would carve it, then the element is closed. Bail (nothing
// changed) when the end tag does not repeat the start tag's word, the text
// holds more than plain bytes and references, or a plain copy would not fit
// the first block with room; fastText reads those.
Fast closeLeaf(XmlParser *p)
{
    const char *t = p->pos;
    XmlNode *n = p->current;
    if (*t == '>' || (t[0] == '/' && t[1] == '>')) {
        return Fast::Bail;
    }
    const char *lt = findByte(t, nullptr, '<', '&', '&');
    bool plain = *lt != '&';
    if (!plain) {
        lt = findByte(lt + 1, nullptr, '<', '<', '<');
    }
    if (lt[0] != '<' || lt[1] != '/' || lt - t > static_cast<ptrdiff_t>(kMaxRun)) {
        return Fast::Bail;
    }
    const char *gt = closesRawName(p->rawName, p->rawLen, lt + 2);
    if (gt == nullptr) {
        return Fast::Bail;
    }
    auto len = static_cast<uint32_t>(lt - t);
    if (plain) {
        auto *dst = len < kLongestCarved
                        ? static_cast<char *>(
                              xmlSessionTryTake(p->session, static_cast<int32_t>(runBytes(len))))
                        : nullptr;
        if (dst == nullptr) {
            return Fast::Bail;
        }
        if (len <= 16) {
            xmlCopyShort(dst, t, len);
        } else if (len <= 32) {
            // Two 16-byte moves that overlap, without a call.
            char head[16];
            char tail[16];
            std::memcpy(head, t, 16);
            std::memcpy(tail, t + len - 16, 16);
            std::memcpy(dst, head, 16);
            std::memcpy(dst + len - 16, tail, 16);
        } else {
            std::memcpy(dst, t, len);
        }
        n->value = dst;
    } else if (decodeLeaf(p, n, t, len) != KRV_XML_OK) {
        return Fast::Failed;
    }
    n->valueOwned = 1;
    p->openBits &= ~1u;
    --p->openCount;
    p->state = XML_PARSE_IDLE;
    p->pos = gt + 1;
    return Fast::Done;
}

// One piece of markup at `pos` (white space already skipped), if plain.
Fast fastStep(XmlParser *p)
{
#ifdef KRVXML_TESTING
    if (!g_fastParser) {
        return Fast::Bail;
    }
#endif
    const char *s = p->pos;
    if (s[0] == '<') {
        if (s[1] == '/') {
            return fastEndTag(p);
        }
        if (s[1] == '!' && startsCdata(s)) {
            return p->state == XML_PARSE_CONTENT && (p->openBits & 1u) && p->current != nullptr
                       ? fastText(p)
                       : Fast::Bail;
        }
        // "<!" and "<?" may begin comments, instructions or CDATA.
        if (!isWordStart(s[1]) || s[1] == '!' || s[1] == '?') {
            return Fast::Bail;
        }
        Fast tag = fastStartTag(p);
        const char *t = p->pos;
        if (tag == Fast::Done && *t != '<' && *t != '\0' && !isSpace(*t) &&
            p->state == XML_PARSE_CONTENT && (p->openBits & 1u) && p->current != nullptr) {
            // Text right after the start tag, as in most leaves: read it here,
            // where the main loop's next step would find it: in a session,
            // mostly with the start tag's word for its end tag (closeLeaf).
            // When it is not plain, the main loop reads it again and takes the
            // general path.
            Fast leaf = p->session != nullptr && p->current == p->rawElement ? closeLeaf(p)
                                                                               : Fast::Bail;
            if (leaf == Fast::Bail) {
                leaf = fastText(p);
            }
            return leaf == Fast::Failed ? Fast::Failed : Fast::Done;
        }
        return tag;
    }
    if (s[0] != '\0' && p->state == XML_PARSE_CONTENT && (p->openBits & 1u) &&
        p->current != nullptr) {
        return fastText(p);
    }
    return Fast::Bail;
}

bool mainLoop(XmlParser *p)
{
    for (;;) {
        p->pos = skipSpace(p->pos);
        Fast fast = fastStep(p);
        if (fast == Fast::Failed) {
            return false;
        }
        if (fast == Fast::Done) {
            if (*p->pos == '\0') {
                return true;
            }
            continue;
        }
        const char *s = p->pos;
        if (s[0] == '<' && (s[1] == '?' || (s[1] == '!' && s[2] == '-' && s[3] == '-'))) {
            // Comments and instructions are stepped over here, as cutting the
            // next token would do first, so that the markup after them can
            // still take the fast path.
            if (Parser_skipMisc(p) != KRV_XML_OK) {
                return false;
            }
            continue;
        }
        if (Parser_getNextToken(p) == 0) {
            // A failed search for a closing delimiter is never a clean end.
            if (p->scanFailed) {
                return false;
            }
            if (*p->pos == '\0') {
                return true;
            }
            if (p->tokenSeen == 0) {
                note(p, p->pos, "no token");
                return false;
            }
        }
        const char *t = p->token;
        bool ok;
        if (t[0] == '>' && p->tokenLen == 1) {
            note(p, t, "unexpected '>'");
            ok = false;
        } else if (t[0] == '<' && p->tokenLen == 2) {
            ok = endTag(p);
        } else if (t[0] == '<' && p->tokenLen == 1) {
            ok = startTag(p);
        } else {
            ok = textContent(p);
        }
        if (!ok) {
            return false;
        }
        while (*p->pos != '\0' && p->state == XML_PARSE_ATTRS) {
            if (Parser_processAttribute(p) != KRV_XML_OK) {
                return false;
            }
        }
        if (*p->pos == '\0') {
            return true;
        }
    }
}

// Fills the caller's record: offset, and line and column by one scan of the
// text up to the stopping point.
void fillInfo(KrvXmlParseInfo *info, const char *input, const char *at, uint32_t rc,
              const char *reason)
{
    info->result = rc;
    info->reason = reason;
    info->offset = static_cast<uint64_t>(at - input);
    uint32_t line = 1;
    const char *lineStart = input;
    for (const char *q = input; q < at;) {
        const void *lf = std::memchr(q, '\n', static_cast<size_t>(at - q));
        if (lf == nullptr) {
            break;
        }
        ++line;
        q = static_cast<const char *>(lf) + 1;
        lineStart = q;
    }
    info->line = line;
    info->column = static_cast<uint32_t>(at - lineStart) + 1;
}

}  // namespace

uint32_t Parser_parseDocument(XmlNode **out, XmlParser *p)
{
    XmlMemSession *session = p->session;
    XmlNode *doc = xmlNewRecord(session, KRV_XML_NODE_DOCUMENT);
    uint32_t rc = KRV_XML_OK;
    if (doc == nullptr) {
        note(p, p->pos, "out of memory");
        rc = KRV_XML_ERR_NO_MEMORY;
    } else {
        doc->ownsSession = 1;
        doc->mem = session;
        std::memset(doc->nameTable, 0, sizeof doc->nameTable);
        p->pending = doc;
        bool ok = prolog(p) && mainLoop(p);
        if (ok && p->openCount != 0) {
            note(p, p->pos, "text ends inside an element");
            ok = false;
        }
        if (ok) {
            if (session == nullptr && doc->next != nullptr) {
                xmlParsedFollowers(doc) = 1;
            }
            if (session != nullptr) {
                xmlNoteOwner(doc);
            }
            *out = doc;
        } else {
            if (p->pending == doc) {
                p->pending = nullptr;
            }
            XML_FreeNode(doc);
            if (session != nullptr) {
                p->pending = nullptr;
            }
            rc = KRV_XML_ERR_SYNTAX;
            note(p, p->pos, "syntax error");
        }
        if (p->pending != nullptr && p->session == nullptr) {
            XML_FreeSingleNode(p->pending);
        }
    }
    if (p->diag != nullptr) {
        if (p->diag->info != nullptr) {
            const char *at = rc == KRV_XML_OK ? p->pos : p->diag->at;
            fillInfo(p->diag->info, p->input, at, rc, rc == KRV_XML_OK ? "ok" : p->diag->reason);
        }
    }
    if (!p->inputBorrowed) {
        krvHeapFree(const_cast<char *>(p->input));
    }
    if (doc == nullptr) {
        XML_MemSessionEnd(session);
    }
    releaseWideTag(p);
    krvHeapFree(p);
    return rc;
}

#ifdef KRVXML_TESTING
void krv_test::UseFastParser(bool on)
{
    g_fastParser = on;
}
#endif

// ===== Input loading and entry points ======================================

namespace {
// Size refused before any buffer is made: a failed size query, or 4 GiB on.
constexpr long long kMaxFileSize = 0xFFFFFFFFLL;
}  // namespace

constexpr size_t kFilePad = 16;

uint32_t Parser_readFileOrBuffer(XmlParser *p, const char *path)
{
    FILE *file = XML_Fopen(path, "rb");
    if (file == nullptr) {
        return KRV_XML_ERR_FILE_OPEN;
    }
    uint32_t rc = KRV_XML_OK;
    XML_Fseek(file, 0, SEEK_END);
    long answer = XML_Ftell(file);
    if (answer < 0 || static_cast<long long>(answer) > kMaxFileSize) {
        rc = KRV_XML_ERR_FILE_READ;
    } else if (answer == 0) {
        rc = KRV_XML_ERR_SYNTAX;
    } else {
        size_t size = static_cast<size_t>(answer);
        // The text's NUL and 15 more zero bytes: a 16-byte load at any byte of
        // the text then stays within the block (memory checkers see no read
        // past it).
        char *buf = static_cast<char *>(XML_Malloc(nullptr, static_cast<uint64_t>(size) + kFilePad));
        p->input = buf;
        if (buf == nullptr) {
            rc = KRV_XML_ERR_NO_MEMORY;
        } else if (XML_Fseek(file, 0, SEEK_SET) != 0 || XML_Fread(buf, 1, size, file) != size) {
            rc = KRV_XML_ERR_FILE_READ;
            XML_Free(nullptr, buf);
            p->input = nullptr;
        } else {
            std::memset(buf + size, 0, kFilePad);
        }
    }
    XML_Fclose(file);
    return rc;
}

namespace {

XmlParser *newParser()
{
    auto *p = static_cast<XmlParser *>(XML_Malloc(nullptr, sizeof(XmlParser)));
    if (p != nullptr) {
        std::memset(p, 0, sizeof(XmlParser));
    }
    return p;
}

// Reports a failure that has no position in the text.
void reportEarly(XmlParseDiag *report, uint32_t rc, const char *reason)
{
    if (report != nullptr && report->info != nullptr) {
        KrvXmlParseInfo *info = report->info;
        info->result = rc;
        info->offset = 0;
        info->line = 0;
        info->column = 0;
        info->reason = reason;
    }
}

uint32_t parseText(const char *text, XmlNode **out, bool inSession, XmlParseDiag *report)
{
    if (text == nullptr || out == nullptr || text[0] == '\0') {
        reportEarly(report, KRV_XML_ERR_INVALID_PARAM, "invalid argument");
        return KRV_XML_ERR_INVALID_PARAM;
    }
    *out = nullptr;
    XmlParser *p = newParser();
    if (p == nullptr) {
        reportEarly(report, KRV_XML_ERR_NO_MEMORY, "out of memory");
        return KRV_XML_ERR_NO_MEMORY;
    }
    if (inSession) {
        p->session = XML_MemSessionBegin(kSessionInitialSize);
        if (p->session == nullptr) {
            krvHeapFree(p);
            reportEarly(report, KRV_XML_ERR_NO_MEMORY, "out of memory");
            return KRV_XML_ERR_NO_MEMORY;
        }
        p->singleRoot = 1;
    }
    p->input = text;
    p->pos = text;
    p->inputBorrowed = 1;
    p->diag = report;
    return Parser_parseDocument(out, p);
}

uint32_t parseFile(const char *path, XmlNode **out, bool inSession, XmlParseDiag *report)
{
    if (path == nullptr || out == nullptr) {
        reportEarly(report, KRV_XML_ERR_INVALID_PARAM, "invalid argument");
        return KRV_XML_ERR_INVALID_PARAM;
    }
    if (inSession) {
        *out = nullptr;
    }
    XmlParser *p = newParser();
    if (p == nullptr) {
        reportEarly(report, KRV_XML_ERR_NO_MEMORY, "out of memory");
        return KRV_XML_ERR_NO_MEMORY;
    }
    uint32_t rc = Parser_readFileOrBuffer(p, path);
    if (rc == KRV_XML_OK && inSession) {
        p->session = XML_MemSessionBegin(kSessionInitialSize);
        rc = p->session == nullptr ? KRV_XML_ERR_NO_MEMORY : KRV_XML_OK;
        p->singleRoot = 1;
    }
    if (rc != KRV_XML_OK) {
        const char *reason = rc == KRV_XML_ERR_FILE_OPEN   ? "cannot open the file"
                             : rc == KRV_XML_ERR_FILE_READ ? "cannot read the file"
                             : rc == KRV_XML_ERR_SYNTAX    ? "empty file"
                                                           : "out of memory";
        krvHeapFree(const_cast<char *>(p->input));
        krvHeapFree(p);
        reportEarly(report, rc, reason);
        return rc;
    }
    p->pos = p->input;
    p->diag = report;
    // A plain file parse leaves the caller's variable alone on failure.
    XmlNode *doc = nullptr;
    rc = Parser_parseDocument(&doc, p);
    if (rc == KRV_XML_OK) {
        *out = doc;
    }
    return rc;
}

}  // namespace

uint32_t KRV_XML_Parse(const char *text, XmlNode **out)
{
    return parseText(text, out, false, nullptr);
}

uint32_t KRV_XML_ParseEx(const char *text, XmlNode **out)
{
    return parseText(text, out, true, nullptr);
}

uint32_t KRV_XML_ParseFile(const char *path, XmlNode **out)
{
    return parseFile(path, out, false, nullptr);
}

uint32_t KRV_XML_ParseFileEx(const char *path, XmlNode **out)
{
    return parseFile(path, out, true, nullptr);
}

uint32_t KRV_XML_ParseWithInfo(const char *text, uint32_t flags, XmlNode **out,
                               KrvXmlParseInfo *info)
{
    XmlParseDiag report = {nullptr, nullptr, info};
    if ((flags & ~KRV_XML_PARSE_SESSION) != 0) {
        reportEarly(&report, KRV_XML_ERR_INVALID_PARAM, "invalid argument");
        return KRV_XML_ERR_INVALID_PARAM;
    }
    return parseText(text, out, (flags & KRV_XML_PARSE_SESSION) != 0, &report);
}

uint32_t KRV_XML_ParseFileWithInfo(const char *path, uint32_t flags, XmlNode **out,
                                   KrvXmlParseInfo *info)
{
    XmlParseDiag report = {nullptr, nullptr, info};
    if ((flags & ~KRV_XML_PARSE_SESSION) != 0) {
        reportEarly(&report, KRV_XML_ERR_INVALID_PARAM, "invalid argument");
        return KRV_XML_ERR_INVALID_PARAM;
    }
    return parseFile(path, out, (flags & KRV_XML_PARSE_SESSION) != 0, &report);
}
