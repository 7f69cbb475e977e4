// Text decoding: runs of the text become node strings, with the predefined
// entities, character references (written in UTF-8) and CDATA sections
// resolved; and qualified names divided into prefix and local name.
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "xml/xml_parser_internal.h"

using namespace xmlp;

// ===== Text decoding =======================================================

namespace {

// The predefined entity at s ('&' at s[0]): its length through the ';' and
// the byte it stands for, or 0. Each test stops at the first byte that
// differs, so nothing past a terminating NUL is read.
inline size_t matchEntity(const char *s, char *byte)
{
    switch (s[1]) {
    case 'a':
        if (s[2] == 'm' && s[3] == 'p' && s[4] == ';') {
            *byte = '&';
            return 5;
        }
        if (s[2] == 'p' && s[3] == 'o' && s[4] == 's' && s[5] == ';') {
            *byte = '\'';
            return 6;
        }
        return 0;
    case 'l':
    case 'g':
        if (s[2] == 't' && s[3] == ';') {
            *byte = s[1] == 'l' ? '<' : '>';
            return 4;
        }
        return 0;
    case 'q':
        if (s[2] == 'u' && s[3] == 'o' && s[4] == 't' && s[5] == ';') {
            *byte = '"';
            return 6;
        }
        return 0;
    default:
        return 0;
    }
}

inline int hexDigit(unsigned char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

inline bool allowedChar(uint32_t v)
{
    return v == 0x9 || v == 0xA || v == 0xD || (v >= 0x20 && v <= 0xD7FF) ||
           (v >= 0xE000 && v <= 0xFFFD) || (v >= 0x10000 && v <= 0x10FFFF);
}

size_t putUtf8(char *dst, uint32_t v)
{
    auto *d = reinterpret_cast<unsigned char *>(dst);
    if (v < 0x80) {
        d[0] = static_cast<unsigned char>(v);
        return 1;
    }
    if (v < 0x800) {
        d[0] = static_cast<unsigned char>(0xC0 | (v >> 6));
        d[1] = static_cast<unsigned char>(0x80 | (v & 0x3F));
        return 2;
    }
    if (v < 0x10000) {
        d[0] = static_cast<unsigned char>(0xE0 | (v >> 12));
        d[1] = static_cast<unsigned char>(0x80 | ((v >> 6) & 0x3F));
        d[2] = static_cast<unsigned char>(0x80 | (v & 0x3F));
        return 3;
    }
    d[0] = static_cast<unsigned char>(0xF0 | (v >> 18));
    d[1] = static_cast<unsigned char>(0x80 | ((v >> 12) & 0x3F));
    d[2] = static_cast<unsigned char>(0x80 | ((v >> 6) & 0x3F));
    d[3] = static_cast<unsigned char>(0x80 | (v & 0x3F));
    return 4;
}

// Reads a character reference at src ("&#..." ); returns the bytes consumed
// (through the ';') and the value, or 0 with a reason.
size_t readCharRef(const char *src, uint32_t *value, const char **reason)
{
    bool hex = src[2] == 'x';
    const char *d = src + (hex ? 3 : 2);
    const char *q = d;
    uint32_t v = 0;
    for (; *q != ';'; ++q) {
        int digit = hex ? hexDigit(static_cast<unsigned char>(*q))
                        : (*q >= '0' && *q <= '9' ? *q - '0' : -1);
        if (digit < 0) {
            *reason = "malformed character reference";
            return 0;
        }
        v = v * (hex ? 16 : 10) + static_cast<uint32_t>(digit);
        if (v > 0x10FFFF) {
            *reason = "character reference out of range";
            return 0;
        }
    }
    if (q == d) {
        *reason = "malformed character reference";
        return 0;
    }
    if (!allowedChar(v)) {
        *reason = "character reference to a forbidden character";
        return 0;
    }
    *value = v;
    return static_cast<size_t>(q + 1 - src);
}

// The string buffer for a run of len bytes (0 < len <= kMaxRun), from the
// session or the heap, stored at *out; null (noted) when memory ran out.
char *newRunBuffer(XmlMemSession *session, const char *src, uint64_t len, char **out,
                   XmlParseDiag *diag)
{
    // len + 1 may not fit an int32_t; a session refuses requests over 2^30.
    char *buf = session == nullptr ? static_cast<char *>(krvHeapMalloc(static_cast<size_t>(len + 1)))
                : len < (uint64_t{1} << 30)
                    ? static_cast<char *>(xmlSessionTake(session, static_cast<int32_t>(len + 1)))
                    : nullptr;
    *out = buf;
    if (buf == nullptr) {
        note(diag, src, "out of memory");
    }
    return buf;
}

}  // namespace

int32_t xmlDecodeRun(XmlMemSession *session, const char *src, uint64_t len, char **out,
                     XmlParseDiag *diag)
{
    if (len == 0) {
        return KRV_XML_OK;
    }
    if (src == nullptr || out == nullptr) {
        return static_cast<int32_t>(KRV_XML_ERR_INVALID_PARAM);
    }
    if (len > kMaxRun) {
        *out = nullptr;
        note(diag, src, "name, value or text too long");
        return static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
    }
    char *buf = newRunBuffer(session, src, len, out, diag);
    if (buf == nullptr) {
        return static_cast<int32_t>(KRV_XML_ERR_NO_MEMORY);
    }
    const char *s = src;
    const char *end = src + len;
    char *d = buf;
    const char *reason = nullptr;
    const char *at = nullptr;
#if defined(__SSE2__)  // in bounds, so sanitized builds run it too
    const __m128i ampByte = _mm_set1_epi8('&');
    const __m128i ltByte = _mm_set1_epi8('<');
#endif
    while (s < end) {
#if defined(__SSE2__)
        if (end - s >= 16) {
            // 16 bytes of the run are left: store them whole and keep the
            // part before the first '&' or '<'. The output never runs ahead
            // of the input, so the store stays inside the buffer; the bytes
            // past the kept part are overwritten or cleared at the end. A NUL
            // inside the run is plain here, and is copied like any byte.
            __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s));
            auto m = static_cast<unsigned>(_mm_movemask_epi8(
                _mm_or_si128(_mm_cmpeq_epi8(x, ampByte), _mm_cmpeq_epi8(x, ltByte))));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(d), x);
            if (m == 0) {
                s += 16;
                d += 16;
                continue;
            }
            auto k = static_cast<unsigned>(__builtin_ctz(m));
            s += k;
            d += k;
        } else
#endif
        {
            // Copy the plain stretch up to the next '&' or '<' in one go.
            const char *stop = findByte(s, end, '&', '<', '&');
            auto n = static_cast<size_t>(stop - s);
            if (n <= 8 && end - s >= 8) {
                // Stretches between references are mostly short: copy 8
                // bytes without a branch on the length, as above.
                std::memcpy(d, s, 8);
            } else if (n <= 16) {
                xmlCopyShort(d, s, n);
            } else {
                std::memcpy(d, s, n);
            }
            d += n;
            s = stop;
            if (s == end) {
                break;
            }
            if (*s == '\0') {
                *d++ = *s++;  // the scan also stops at NUL, which is plain here
                continue;
            }
        }
        if (*s == '<') {
            if (!startsCdata(s)) {
                *d++ = *s++;
                continue;
            }
            const char *close = findCdataEnd(s + 9);
            if (close == nullptr) {
                reason = "unterminated CDATA section";
                at = s;
                break;
            }
            if (close + 3 > end) {
                reason = "CDATA section runs past the end of its text";
                at = s;
                break;
            }
            size_t n = static_cast<size_t>(close - (s + 9));
            std::memcpy(d, s + 9, n);
            d += n;
            s = close + 3;
            continue;
        }
        // '&': a predefined entity or a character reference.
        size_t used = 0;
        if (s[1] == '#') {
            uint32_t v = 0;
            used = readCharRef(s, &v, &reason);
            if (used != 0) {
                if (s + used > end) {
                    reason = "reference runs past the end of its text";
                    at = s;
                    break;
                }
                d += putUtf8(d, v);
            }
        } else {
            char byte = 0;
            size_t n = matchEntity(s, &byte);
            if (n == 0) {
                reason = "unknown entity";
            } else if (s + n > end) {
                reason = "reference runs past the end of its text";
            } else {
                *d++ = byte;
                used = n;
            }
        }
        if (used == 0 || reason != nullptr) {
            at = s;
            break;
        }
        s += used;
    }
    if (reason != nullptr) {
        if (session == nullptr) {
            krvHeapFree(buf);
        }
        *out = nullptr;
        note(diag, at, reason);
        return static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
    }
    // The buffer is zero past the text: the wide copies above wrote there,
    // and a heap buffer starts out undefined. What is left is what decoding
    // saved, a few bytes per reference.
    std::memset(d, 0, static_cast<size_t>(buf + len + 1 - d));
    return KRV_XML_OK;
}

int32_t xmlStoreRunOutOfLine(XmlMemSession *session, const char *src, uint64_t len, bool plain,
                             char **out, XmlParseDiag *diag)
{
    if (!plain || len == 0 || len > kMaxRun) {
        return xmlDecodeRun(session, src, len, out, diag);
    }
    char *buf = newRunBuffer(session, src, len, out, diag);
    if (buf == nullptr) {
        return static_cast<int32_t>(KRV_XML_ERR_NO_MEMORY);
    }
    // Most runs are short: copied without a call whose length varies.
    if (len <= 16) {
        xmlCopyShort(buf, src, static_cast<size_t>(len));
    } else {
        std::memcpy(buf, src, static_cast<size_t>(len));
    }
    buf[len] = '\0';
    return KRV_XML_OK;
}

int32_t xmlStoreCdataRun(XmlMemSession *session, const char *src, uint64_t len,
                         const char *content, uint64_t contentLen, char **out,
                         XmlParseDiag *diag)
{
    char *buf = newRunBuffer(session, src, len, out, diag);
    if (buf == nullptr) {
        return static_cast<int32_t>(KRV_XML_ERR_NO_MEMORY);
    }
    std::memcpy(buf, content, static_cast<size_t>(contentLen));
    std::memset(buf + contentLen, 0, static_cast<size_t>(len + 1 - contentLen));
    return KRV_XML_OK;
}

int32_t Parser_CopyBufToString(XmlMemSession *session, const char *src, uint32_t len, char **out)
{
    return xmlDecodeRun(session, src, len, out, nullptr);
}

// ===== Namespace prefixes ==================================================

int32_t xmlSplitName(XmlMemSession *session, const char *text, uint32_t length, char **prefix,
                  char **name, bool copyName, XmlParseDiag *diag, bool plain,
                  const char *const *knownColon)
{
    const char *colon =
        knownColon != nullptr ? *knownColon
        : length != 0         ? static_cast<const char *>(std::memchr(text, ':', length))
                              : nullptr;
    if (colon == nullptr) {
        return copyName ? xmlStoreRun(session, text, length, plain, name, diag) : KRV_XML_OK;
    }
    uint32_t i = static_cast<uint32_t>(colon - text);
    if (i == 0 || i == length - 1) {
        note(diag, text, "colon at the start or end of a name");
        return static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
    }
    int32_t rc = xmlStoreRun(session, text, i, plain, prefix, diag);
    if (rc != KRV_XML_OK) {
        return rc;
    }
    if (copyName) {
        rc = xmlStoreRun(session, colon + 1, length - i - 1, plain, name, diag);
        if (rc != KRV_XML_OK) {
            if (session == nullptr) {
                krvHeapFree(*prefix);
            }
            *prefix = nullptr;
        }
        return rc;
    }
    memmove_s(*name, length, *name + i + 1, length - i);
    return KRV_XML_OK;
}

int32_t Parser_SplitNamespace(XmlMemSession *session, const char *text, uint32_t length,
                              char **prefix, char **name, int32_t copyName)
{
    return xmlSplitName(session, text, length, prefix, name, copyName != 0, nullptr);
}
