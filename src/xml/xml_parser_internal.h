// Parser internals shared by the parser's sources and its tests.
#ifndef KRV_XML_PARSER_INTERNAL_H
#define KRV_XML_PARSER_INTERNAL_H

#include <cstdint>
#include <cstring>

#include "xml/xml_internal.h"

#ifdef KRVXML_SSE2_SCAN
#include <emmintrin.h>
#endif

// Driver states.
constexpr uint32_t XML_PARSE_IDLE = 0;     // between elements
constexpr uint32_t XML_PARSE_CONTENT = 1;  // after a start tag's '>'
constexpr uint32_t XML_PARSE_ATTRS = 2;    // inside a start tag, after its name

// Where and why a parse stopped; kept only when the caller asked for it.
struct XmlParseDiag {
    const char *at;         // failure position in the text, or null
    const char *reason;     // first failure recorded wins; null while none
    KrvXmlParseInfo *info;  // the caller's record, or null
};

struct XmlParser {
    XmlMemSession *session;  // null: heap document
    const char *input;       // first byte of the text
    const char *pos;         // read position
    const char *token;       // most recent token
    uint32_t tokenSeen;      // 1 once a token was cut
    uint32_t inputBorrowed;  // 1: the caller's text; 0: a loaded buffer we release
    uint32_t tokenLen;
    XmlNode *current;        // element most recently opened or closed
    XmlNode *pending;        // record for the next start tag
    uint32_t openBits;       // lowest bit: `current` is open
    uint32_t state;
    uint32_t scanFailed;     // a search for a closing delimiter failed
    uint32_t singleRoot;     // refuse a second top-level element (sessions)
    uint64_t openCount;      // elements open right now
    const char *tagName;     // name of the start tag being read
    XmlParseDiag *diag;      // null for the plain entry points
    void *wideTag;           // room for reading tags of many attributes, made when needed
    // The most recent element whose start tag the fast path carved with a
    // plain name, and that name in the text: its end tag is compared with it.
    const XmlNode *rawElement;
    const char *rawName;
    uint32_t rawLen;
};

int32_t Parser_skipMisc(XmlParser *parser);
uint32_t Parser_getNextToken(XmlParser *parser);
int32_t Parser_CopyBufToString(XmlMemSession *session, const char *src, uint32_t len, char **out);
int32_t Parser_SplitNamespace(XmlMemSession *session, const char *text, uint32_t length,
                              char **prefix, char **name, int32_t copyName);
int32_t Parser_processAttribute(XmlParser *parser);
uint32_t Parser_parseDocument(XmlNode **out, XmlParser *parser);
uint32_t Parser_readFileOrBuffer(XmlParser *parser, const char *path);

// The decoder with failure position and reason (diag may be null).
int32_t xmlDecodeRun(XmlMemSession *session, const char *src, uint64_t len, char **out,
                     XmlParseDiag *diag);

// xmlDecodeRun for a run that the caller knows holds no '&' and no '<'
// (plain): then the bytes are copied as they are, with the same allocation.
int32_t xmlStoreRunOutOfLine(XmlMemSession *session, const char *src, uint64_t len, bool plain,
                             char **out, XmlParseDiag *diag);

// xmlDecodeRun for a run of len bytes that is exactly one CDATA section,
// whose content is the contentLen bytes at content: the same buffer, holding
// the content as it is.
int32_t xmlStoreCdataRun(XmlMemSession *session, const char *src, uint64_t len,
                         const char *content, uint64_t contentLen, char **out,
                         XmlParseDiag *diag);

// Stores the len bytes at src, at most 16, at dst as one 16-byte store
// when the block of dst has at least 16 zero bytes from dst on (room: its
// bytes from dst to its end) and the 16 bytes at src lie on one page: the
// bytes past the run are then stored as the zeros they are. Returns
// whether it did; sanitized builds never do, as the load may read past the
// text's end.
inline bool xmlStoreShortWide(char *dst, const char *src, size_t len, int64_t room)
{
#ifdef KRVXML_SSE2_SCAN
    if (room >= 16 && (reinterpret_cast<uintptr_t>(src) & 4095u) <= 4080u) {
        // 16 bytes from kKeep + 16 - len: len ones, then zeros.
        alignas(32) static constexpr signed char kKeep[32] = {
            -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
        __m128i keep = _mm_loadu_si128(reinterpret_cast<const __m128i *>(kKeep + 16 - len));
        __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst), _mm_and_si128(bytes, keep));
        return true;
    }
#else
    (void)dst;
    (void)src;
    (void)len;
    (void)room;
#endif
    return false;
}

// Records the first failure of a parse that asked for diagnostics. The plain
// entry points pay one test of a null pointer on their failure paths only.
inline void xmlNote(XmlParseDiag *diag, const char *at, const char *reason)
{
    if (diag != nullptr && diag->reason == nullptr) {
        diag->at = at;
        diag->reason = reason;
    }
}

inline int32_t xmlStoreRun(XmlMemSession *session, const char *src, uint64_t len, bool plain,
                           char **out, XmlParseDiag *diag)
{
    // The common case: a short plain run carved from a session block.
    if (plain && session != nullptr && len != 0 && len < 4096) {
        int32_t size = static_cast<int32_t>((len + 8) & ~static_cast<uint64_t>(7));
        auto *buf = static_cast<char *>(xmlSessionTryTake(session, size));
        if (buf != nullptr) {
            // The block is zero, so the terminating NUL is there already.
            if (len <= 16) {
                xmlCopyShort(buf, src, static_cast<size_t>(len));
            } else {
                std::memcpy(buf, src, static_cast<size_t>(len));
            }
            *out = buf;
            return KRV_XML_OK;
        }
    }
    if (plain && session == nullptr && len != 0 && len <= 16) {
        // The same on the heap, where the copy needs its NUL.
        auto *buf = static_cast<char *>(krvHeapMalloc(static_cast<size_t>(len + 1)));
        *out = buf;
        if (buf == nullptr) {
            xmlNote(diag, src, "out of memory");
            return static_cast<int32_t>(KRV_XML_ERR_NO_MEMORY);
        }
        xmlCopyShort(buf, src, static_cast<size_t>(len));
        buf[len] = '\0';
        return KRV_XML_OK;
    }
    return xmlStoreRunOutOfLine(session, src, len, plain, out, diag);
}

// A zeroed heap record of `size` bytes, a constant where this is inlined,
// so that the clearing is a few stores instead of a call; null when the
// heap is out of memory.
inline XmlNode *xmlHeapRecord(size_t size, uint8_t kind)
{
    auto *node = static_cast<XmlNode *>(krvHeapMalloc(size));
    if (node != nullptr) {
        std::memset(static_cast<void *>(node), 0, size);
        node->kind = kind;
    }
    return node;
}

// A new record for the parser, as XML_NewNode makes it.
inline XmlNode *xmlParserNewNode(XmlMemSession *session, int32_t kind)
{
    if (session != nullptr && kind != KRV_XML_NODE_DOCUMENT) {
        auto *node = static_cast<XmlNode *>(
            xmlSessionTryTake(session, static_cast<int32_t>(xmlRecordSize(kind))));
        if (node != nullptr) {
            node->kind = static_cast<uint8_t>(kind);  // zero bytes otherwise
            node->mem = session;
            return node;
        }
    }
    if (session == nullptr && kind == KRV_XML_NODE_ATTRIBUTE) {
        return xmlHeapRecord(kAttrRecordSize, kKindAttribute);
    }
    if (session == nullptr && kind == KRV_XML_NODE_ELEMENT) {
        return xmlHeapRecord(kHeapElementSize, kKindElement);
    }
    return XML_NewNode(session, kind);
}

// Splits a qualified name at its first colon: the prefix into *prefix and,
// with copyName, the local name into *name; without copyName, *name already
// holds the text and the local name is moved to its front in place. plain:
// the name holds no '&' and no '<', so its parts need no decoding.
// knownColon, when given, points at the name's first colon (or null for
// none), found while the name was scanned.
int32_t xmlSplitName(XmlMemSession *session, const char *text, uint32_t length, char **prefix,
                     char **name, bool copyName, XmlParseDiag *diag, bool plain = false,
                     const char *const *knownColon = nullptr);

#ifdef KRVXML_TESTING
namespace krv_test {
// Turns the parser's fast path for plain markup off (false) or on (true), so
// that tests can compare it with the token-by-token steps.
void UseFastParser(bool on);
}  // namespace krv_test
#endif

// Byte classes and small helpers shared by the tokenizer, the decoder and the
// driver.
namespace xmlp {

constexpr uint8_t kSpace = 1;     // TAB LF CR SPACE
constexpr uint8_t kStop = 2;      // ends a word by itself
constexpr uint8_t kMaybeEnd = 4;  // may begin "]]>", "-->" or "/>"
constexpr uint8_t kAmp = 8;       // '&': a word byte that needs decoding
constexpr uint8_t kColon = 16;    // ':': a word byte that divides names

struct ByteClasses {
    uint8_t of[256];
};

constexpr ByteClasses makeClasses()
{
    ByteClasses t{};
    const char spaces[] = "\t\n\r ";
    const char stops[] = "\"'<=>";
    const char maybeEnd[] = "]-/";
    for (size_t i = 0; spaces[i] != '\0'; ++i) {
        t.of[static_cast<unsigned char>(spaces[i])] = kSpace | kStop;
    }
    for (size_t i = 0; stops[i] != '\0'; ++i) {
        t.of[static_cast<unsigned char>(stops[i])] = kStop;
    }
    t.of[0] = kStop;
    t.of[static_cast<unsigned char>('&')] = kAmp;
    t.of[static_cast<unsigned char>(':')] = kColon;
    for (size_t i = 0; maybeEnd[i] != '\0'; ++i) {
        t.of[static_cast<unsigned char>(maybeEnd[i])] = kMaybeEnd;
    }
    return t;
}
constexpr ByteClasses kClass = makeClasses();

// Runs of 2^31 bytes or more never become a name, value or text.
constexpr uint64_t kMaxRun = 0x7FFFFFFFu;

inline bool isSpace(char c)
{
    return (kClass.of[static_cast<unsigned char>(c)] & kSpace) != 0;
}

inline const char *skipSpace(const char *p)
{
    while (isSpace(*p)) {
        ++p;
    }
    return p;
}

// A byte that can start a word and stands for itself in it.
inline bool isWordStart(char c)
{
    return (kClass.of[static_cast<unsigned char>(c)] & ~(kAmp | kColon)) == 0;
}

#ifdef KRVXML_SSE2_SCAN
// findByte below with each byte sought given in all 16 lanes.
inline __attribute__((always_inline)) const char *findByteIn(const char *s, const char *end,
                                                           __m128i va, __m128i vb, __m128i vc)
{
    const __m128i zero = _mm_setzero_si128();
    auto hits = [&](__m128i x) {
        return static_cast<unsigned>(_mm_movemask_epi8(
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(x, va), _mm_cmpeq_epi8(x, vb)),
                         _mm_or_si128(_mm_cmpeq_epi8(x, vc), _mm_cmpeq_epi8(x, zero)))));
    };
    uintptr_t skew = reinterpret_cast<uintptr_t>(s) & 15u;
    const char *block = s - skew;
    unsigned mask = ~0u << skew;
    __m128i x = _mm_load_si128(reinterpret_cast<const __m128i *>(block));
    unsigned nul = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, zero))) & mask;
    if (nul == 0) {
        // The text goes on past this block, so the next one can be read too:
        // with 16 to 32 bytes looked at together, whether a short run ends
        // in the first load no longer depends on where it starts.
        __m128i y = _mm_load_si128(reinterpret_cast<const __m128i *>(block + 16));
        uint32_t m = (hits(x) & mask) | (hits(y) << 16);
        if (m != 0) {
            const char *r = block + __builtin_ctz(m);
            return end != nullptr && r > end ? end : r;
        }
        block += 32;
        if (end != nullptr && block >= end) {
            return end;
        }
        mask = ~0u;
    }
    for (;;) {
        x = _mm_load_si128(reinterpret_cast<const __m128i *>(block));
        unsigned m = hits(x) & mask;
        if (m != 0) {
            const char *r = block + __builtin_ctz(m);
            return end != nullptr && r > end ? end : r;
        }
        block += 16;
        if (end != nullptr && block >= end) {
            return end;
        }
        mask = ~0u;
    }
}
#endif

// The first byte at or after s that is a, b, c or NUL. With a non-null end,
// the search stops there and returns end when nothing came before it.
inline __attribute__((always_inline)) const char *findByte(const char *s, const char *end, char a,
                                                         char b, char c)
{
#ifdef KRVXML_SSE2_SCAN
    return findByteIn(s, end, _mm_set1_epi8(a), _mm_set1_epi8(b), _mm_set1_epi8(c));
#else
    for (; end == nullptr || s < end; ++s) {
        char ch = *s;
        if (ch == a || ch == b || ch == c || ch == '\0') {
            return s;
        }
    }
    return end;
#endif
}

// The end of an attribute value from s, quoted by quote ('"' or '\''): the
// first quote, '&', '<' or NUL, as findByte finds it. The quote's lanes come
// from a table rather than being spread from the byte for every value.
inline __attribute__((always_inline)) const char *findValueEnd(const char *s, char quote)
{
#ifdef KRVXML_SSE2_SCAN
    alignas(16) static constexpr char kQuotes[2][16] = {
        {'"', '"', '"', '"', '"', '"', '"', '"', '"', '"', '"', '"', '"', '"', '"', '"'},
        {'\'', '\'', '\'', '\'', '\'', '\'', '\'', '\'', '\'', '\'', '\'', '\'', '\'', '\'', '\'', '\''}};
    static_assert(('"' >> 2 & 1) == 0 && ('\'' >> 2 & 1) == 1, "bit 2 tells the quotes apart");
    __m128i vq = _mm_load_si128(reinterpret_cast<const __m128i *>(kQuotes[quote >> 2 & 1]));
    return findByteIn(s, nullptr, vq, _mm_set1_epi8('&'), _mm_set1_epi8('<'));
#else
    return findByte(s, nullptr, quote, '&', '<');
#endif
}

inline bool startsWith(const char *p, const char *lit, size_t n)
{
    return std::strncmp(p, lit, n) == 0;
}

// Each test stops at the first byte that differs, so nothing past a
// terminating NUL is read.
inline bool startsCdata(const char *p)
{
    return p[0] == '<' && p[1] == '!' && p[2] == '[' && p[3] == 'C' && p[4] == 'D' &&
           p[5] == 'A' && p[6] == 'T' && p[7] == 'A' && p[8] == '[';
}

#ifdef KRVXML_SSE2_SCAN
// findCdataEnd past a ']' that did not start the close: one pass over
// aligned blocks, where a '>' whose two bytes before are ']' ends the
// section and the ']' bits of each block's last two bytes carry into the
// next, so further stray ']' cost no new scan.
inline const char *findCdataEndInBlocks(const char *s)
{
    const __m128i close = _mm_set1_epi8(']');
    const __m128i gt = _mm_set1_epi8('>');
    const __m128i zero = _mm_setzero_si128();
    uintptr_t skew = reinterpret_cast<uintptr_t>(s) & 15u;
    const char *block = s - skew;
    uint32_t mask = ~0u << skew;
    uint32_t carry = 0;  // bits 0 and 1: ']' at the two bytes before block
    for (;;) {
        __m128i x = _mm_load_si128(reinterpret_cast<const __m128i *>(block));
        auto br = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, close))) & mask;
        auto ends = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, gt))) & mask;
        auto nul = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(x, zero))) & mask;
        uint32_t brAt = (br << 2) | carry;  // bit i + 2: ']' at byte i
        ends &= brAt & (brAt >> 1);         // ']' at bytes i - 2 and i - 1
        uint32_t m = ends | nul;
        if (m != 0) {
            // Whichever comes first, the close or the NUL, decides; the bits
            // past a NUL are never looked at.
            auto at = static_cast<unsigned>(__builtin_ctz(m));
            return (nul >> at) & 1u ? nullptr : block + at - 2;
        }
        carry = br >> 14;
        block += 16;
        mask = ~0u;
    }
}
#endif

// The first "]]>" at or after s, or null when the text ends before one: what
// strstr finds. Most sections hold no ']', so the first one found mostly
// starts the close.
inline const char *findCdataEnd(const char *s)
{
    for (;;) {
        s = findByte(s, nullptr, ']', ']', ']');
        if (*s == '\0') {
            return nullptr;
        }
        if (s[1] == ']' && s[2] == '>') {
            return s;
        }
#ifdef KRVXML_SSE2_SCAN
        return findCdataEndInBlocks(s + 1);  // the rest in one pass
#else
        ++s;
#endif
    }
}

inline void note(XmlParseDiag *diag, const char *at, const char *reason)
{
    xmlNote(diag, at, reason);
}

inline void note(XmlParser *p, const char *at, const char *reason)
{
    note(p->diag, at, reason);
}

inline void scanFailure(XmlParser *p, const char *at, const char *reason)
{
    p->scanFailed = 1;
    note(p, at, reason);
}

}  // namespace xmlp

#endif  // KRV_XML_PARSER_INTERNAL_H
