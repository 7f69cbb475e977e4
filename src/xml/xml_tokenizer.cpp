// Tokenizer: stepping over comments and processing instructions, and cutting
// the next token out of the text. Tokens are pointer and length into the
// text; the closing delimiters are found with the C library's scans.
#include <cstring>

#include "xml/xml_parser_internal.h"

using namespace xmlp;

// ===== Tokenizer ===========================================================

int32_t Parser_skipMisc(XmlParser *p)
{
    const char *pos = p->pos;
    for (;;) {
        if (pos[0] == '<' && pos[1] == '!' && pos[2] == '-' && pos[3] == '-') {
            const char *end = std::strstr(pos + 2, "-->");
            if (end == nullptr) {
                p->pos = pos;
                scanFailure(p, pos, "unterminated comment");
                return static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
            }
            ptrdiff_t dist = end - pos;
            if (dist < 4 || (dist > 4 && end[-1] == '-')) {
                p->pos = pos;
                scanFailure(p, pos, "malformed comment");
                return static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
            }
            pos = skipSpace(end + 3);
        } else if (pos[0] == '<' && pos[1] == '?') {
            const char *end = std::strstr(pos, "?>");
            if (end == nullptr) {
                p->pos = pos;
                scanFailure(p, pos, "unterminated processing instruction");
                return static_cast<int32_t>(KRV_XML_ERR_SYNTAX);
            }
            pos = skipSpace(end + 2);
        } else {
            p->pos = skipSpace(pos);
            return KRV_XML_OK;
        }
    }
}

uint32_t Parser_getNextToken(XmlParser *p)
{
    const char *at = p->pos;
    if (*at == '\0') {
        return 0;
    }
    // Skipping can only change anything at white space or at "<!" / "<?";
    // most tokens start elsewhere and need no call.
    if (isSpace(*at) || (at[0] == '<' && (at[1] == '!' || at[1] == '?'))) {
        if (Parser_skipMisc(p) != KRV_XML_OK) {
            return 0;
        }
    }
    const char *s = p->pos;
    uint64_t len;
    switch (*s) {
    case '\0':
        return 0;
    case '"':
    case '\'':
    case '=':
    case '>':
        len = 1;
        break;
    case '/':
        len = s[1] == '>' ? 2 : 0;
        break;
    default:
        if (*s == '<' && !startsCdata(s)) {
            len = s[1] == '/' ? 2 : 1;
            break;
        }
        // A word. This is the hot loop of the parser: plain bytes cost one
        // table lookup; CDATA sections are taken whole.
        len = 0;
        for (;;) {
            const char *q = s + len;
            uint8_t cls = kClass.of[static_cast<unsigned char>(*q)];
            if (cls == 0) {
                ++len;
                continue;
            }
            if (cls & kStop) {
                if (*q == '<' && startsCdata(q)) {
                    const char *end = findCdataEnd(q + 9);
                    if (end == nullptr) {
                        scanFailure(p, q, "unterminated CDATA section");
                        return 0;
                    }
                    len = static_cast<uint64_t>(end + 3 - s);
                    continue;
                }
                break;
            }
            if ((q[0] == ']' && q[1] == ']' && q[2] == '>') ||
                (q[0] == '-' && q[1] == '-' && q[2] == '>') || (q[0] == '/' && q[1] == '>')) {
                break;
            }
            ++len;
        }
        if (len > kMaxRun) {
            scanFailure(p, s, "name, value or text too long");
            return 0;
        }
        break;
    }
    p->token = s;
    p->tokenLen = static_cast<uint32_t>(len);
    p->pos = s + len;
    p->tokenSeen = 1;
    return static_cast<uint32_t>(len);
}
