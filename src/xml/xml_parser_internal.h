// Parser internals shared by the parser's sources and its tests.
#ifndef KRV_XML_PARSER_INTERNAL_H
#define KRV_XML_PARSER_INTERNAL_H

#include <cstdint>
#include <cstring>

#include "xml/xml_internal.h"

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

// Splits a qualified name at its first colon: the prefix into *prefix and,
// with copyName, the local name into *name; without copyName, *name already
// holds the text and the local name is moved to its front in place.
int32_t xmlSplitName(XmlMemSession *session, const char *text, uint32_t length, char **prefix,
                     char **name, bool copyName, XmlParseDiag *diag);

// Byte classes and small helpers shared by the tokenizer, the decoder and the
// driver.
namespace xmlp {

constexpr uint8_t kSpace = 1;     // TAB LF CR SPACE
constexpr uint8_t kStop = 2;      // ends a word by itself
constexpr uint8_t kMaybeEnd = 4;  // may begin "]]>", "-->" or "/>"

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

inline bool startsWith(const char *p, const char *lit, size_t n)
{
    return std::strncmp(p, lit, n) == 0;
}

inline bool startsCdata(const char *p)
{
    return p[0] == '<' && p[1] == '!' && startsWith(p, "<![CDATA[", 9);
}

// Records the first failure of a parse that asked for diagnostics. The plain
// entry points pay one test of a null pointer on their failure paths only.
inline void note(XmlParseDiag *diag, const char *at, const char *reason)
{
    if (diag != nullptr && diag->reason == nullptr) {
        diag->at = at;
        diag->reason = reason;
    }
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
