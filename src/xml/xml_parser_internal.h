// Parser internals shared by the parser's sources and its tests.
#ifndef KRV_XML_PARSER_INTERNAL_H
#define KRV_XML_PARSER_INTERNAL_H

#include <cstdint>

#include "xml/xml_internal.h"

// Driver states.
constexpr uint32_t XML_PARSE_IDLE = 0;     // between elements
constexpr uint32_t XML_PARSE_CONTENT = 1;  // after a start tag's '>'
constexpr uint32_t XML_PARSE_ATTRS = 2;    // inside a start tag, after its name

// Where and why a parse stopped; kept only when the caller asked for it.
struct XmlParseDiag {
    const char *at;      // failure position in the text, or null
    const char *reason;  // first failure recorded wins; null while none
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

#endif  // KRV_XML_PARSER_INTERNAL_H
