// Escapes that make printed text read back as the tree, the comparison that
// proves it, and the XML character and name checks for set's arguments.
#include "faithful.h"

#include <cstring>

namespace krvtool {

namespace {

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The escaped form of value into out; false when nothing needs escaping.
bool Escape(const char *value, bool attribute, std::string &out)
{
    if (value == nullptr) {
        return false;
    }
    out.clear();
    bool changed = false;
    bool leading = !attribute;  // still in an element text's leading blanks
    for (const char *c = value; *c != '\0'; ++c) {
        leading = leading && IsBlank(*c);
        const char *ref = nullptr;
        if (*c == '&') {
            ref = "&amp;";
        } else if ((attribute || leading || *c == '\r') && *c != ' ' && IsBlank(*c)) {
            ref = *c == '\t' ? "&#9;" : *c == '\n' ? "&#10;" : "&#13;";
        }
        if (ref != nullptr) {
            out += ref;
            changed = true;
        } else {
            out += *c;
        }
    }
    return changed;
}

// Whether a name prints as it reads: a byte that ends a name in the text can
// stand in a name only through a reference, which the printer cannot write.
bool PrintableName(const char *name)
{
    return name == nullptr || std::strpbrk(name, " \t\r\n&<>\"'=/") == nullptr;
}

// Whether a record's [prefix:]name prints as it reads. The text "p:x:y"
// reads as prefix "p" and name "x:y": a colon divides a name only at its
// first one, so a colon in the prefix, or in a name without a prefix, or a
// prefix without a name, would read back divided otherwise.
bool PrintableNames(const XmlNode *n)
{
    const char *name = n->name != nullptr ? n->name : "";
    const char *prefix = n->nsPrefix;
    if (!PrintableName(n->name) || !PrintableName(prefix)) {
        return false;
    }
    if (prefix == nullptr) {
        return std::strchr(name, ':') == nullptr;
    }
    return prefix[0] != '\0' && std::strchr(prefix, ':') == nullptr && name[0] != '\0';
}

// An element's name also must not begin as an instruction or declaration
// does ("<?", "<!"). Where the element prints an end tag, or a start tag
// left open, its name must not end in "--" or "]]" either: "-->" or "]]>"
// would follow, where a word of the text ends. An empty element ("<a--/>")
// reads back whole.
bool PrintableElementName(const XmlNode *n, bool withEndTag)
{
    const char *name = n->name != nullptr ? n->name : "";
    const char *first = n->nsPrefix != nullptr ? n->nsPrefix : name;
    size_t len = std::strlen(name);
    bool cut = len >= 2 && name[len - 1] == name[len - 2] && (name[len - 1] == '-' || name[len - 1] == ']');
    return !(cut && withEndTag) && first[0] != '?' && first[0] != '!' && PrintableNames(n);
}

// A value rewritten by Escape, as the parser will read it back.
std::string Unescaped(const char *value)
{
    static const struct {
        const char *ref;
        size_t len;
        char c;
    } kRefs[] = {{"&amp;", 5, '&'}, {"&#9;", 4, '\t'}, {"&#10;", 5, '\n'}, {"&#13;", 5, '\r'}};
    std::string out;
    const char *c = value;
    for (const char *amp; (amp = std::strchr(c, '&')) != nullptr;) {
        out.append(c, static_cast<size_t>(amp - c));
        c = amp + 1;
        out += '&';
        for (const auto &r : kRefs) {
            if (std::strncmp(amp, r.ref, r.len) == 0) {
                out.back() = r.c;
                c = amp + r.len;
                break;
            }
        }
    }
    return out.append(c);
}

// Strings alike, a null one counting as "".
bool Same(const char *a, const char *b)
{
    return std::strcmp(a != nullptr ? a : "", b != nullptr ? b : "") == 0;
}

bool SameStrings(const XmlNode *a, const XmlNode *b)
{
    if (!Same(a->name, b->name) || !Same(a->nsPrefix, b->nsPrefix)) {
        return false;
    }
    // After Escape, an '&' in a value begins a reference that Escape wrote.
    if (a->value == nullptr || std::strchr(a->value, '&') == nullptr) {
        return Same(a->value, b->value);
    }
    return Unescaped(a->value) == (b->value != nullptr ? b->value : "");
}

bool SameRecord(const XmlNode *a, const XmlNode *b, bool top)
{
    // A sub-tree printed alone reads back headed by a document record.
    if ((!top && a->kind != b->kind) || !SameStrings(a, b)) {
        return false;
    }
    const XmlNode *x = a->firstAttr;
    const XmlNode *y = b->firstAttr;
    for (; x != nullptr && y != nullptr; x = x->next, y = y->next) {
        if (!SameStrings(x, y)) {
            return false;
        }
    }
    return x == nullptr && y == nullptr;
}

// The first difference within the sub-trees of a and b, in pre-order,
// without recursion; null when they are alike.
const XmlNode *SubTreeDifference(const XmlNode *top, const XmlNode *other)
{
    const XmlNode *a = top;
    const XmlNode *b = other;
    for (;;) {
        if (!SameRecord(a, b, a == top)) {
            return a;
        }
        if (a->firstChild != nullptr || b->firstChild != nullptr) {
            if (a->firstChild == nullptr || b->firstChild == nullptr) {
                return a;
            }
            a = a->firstChild;
            b = b->firstChild;
            continue;
        }
        while (a != top && a->next == nullptr) {
            if (b->next != nullptr) {
                return a;
            }
            a = a->parent;
            b = b->parent;
        }
        if (a == top) {
            return nullptr;
        }
        if (b->next == nullptr) {
            return a;
        }
        a = a->next;
        b = b->next;
    }
}

// The code point of the UTF-8 sequence at s (n bytes left), its length in
// *len; -1 for a sequence that is not shortest-form UTF-8 or a surrogate.
long DecodeUtf8(const unsigned char *s, size_t n, size_t *len)
{
    unsigned char c = s[0];
    size_t need = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 0;
    if (need == 0 || need > n) {
        return -1;
    }
    long cp = need == 1 ? c : need == 2 ? (c & 0x1F) : need == 3 ? (c & 0x0F) : (c & 0x07);
    for (size_t i = 1; i < need; ++i) {
        if ((s[i] & 0xC0) != 0x80) {
            return -1;
        }
        cp = (cp << 6) | (s[i] & 0x3F);
    }
    static const long kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kLeast[need] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        return -1;
    }
    *len = need;
    return cp;
}

bool IsXmlChar(long cp)
{
    return cp == 0x9 || cp == 0xA || cp == 0xD || (cp >= 0x20 && cp <= 0xD7FF) ||
           (cp >= 0xE000 && cp <= 0xFFFD) || (cp >= 0x10000 && cp <= 0x10FFFF);
}

// The characters that may begin an XML name, and those that may follow.
bool IsNameStart(long c)
{
    return c == ':' || c == '_' || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= 0xC0 && c <= 0xD6) ||
           (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) || (c >= 0x370 && c <= 0x37D) ||
           (c >= 0x37F && c <= 0x1FFF) || c == 0x200C || c == 0x200D || (c >= 0x2070 && c <= 0x218F) ||
           (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) || (c >= 0xF900 && c <= 0xFDCF) ||
           (c >= 0xFDF0 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0xEFFFF);
}

bool IsNameChar(long c)
{
    return IsNameStart(c) || c == '-' || c == '.' || (c >= '0' && c <= '9') || c == 0xB7 ||
           (c >= 0x300 && c <= 0x36F) || c == 0x203F || c == 0x2040;
}

}  // namespace

uint32_t EscapeValues(XmlNode *top, bool withSiblings, bool framed, const XmlNode **badName)
{
    std::string text;
    for (XmlNode *root = top; root != nullptr; root = withSiblings ? root->next : nullptr) {
        // Pre-order within root's sub-tree, without recursion.
        for (XmlNode *n = root; n != nullptr;) {
            bool empty = n->firstChild == nullptr && (n->value == nullptr || n->value[0] == '\0');
            if (!PrintableElementName(n, framed || !empty)) {
                *badName = n;
                return KRV_XML_ERR_INVALID_PARAM;
            }
            uint32_t rc = KRV_XML_OK;
            if (n->value != nullptr && n->value[0] == '\0' && n->firstChild == nullptr) {
                rc = KRV_XML_SetNode(n, nullptr, nullptr, "");  // prints as "<a/>", which reads back so
            } else if (Escape(n->value, false, text)) {
                rc = KRV_XML_SetNode(n, nullptr, nullptr, text.c_str());
            }
            for (XmlNode *a = n->firstAttr; a != nullptr && rc == KRV_XML_OK; a = a->next) {
                if (!PrintableNames(a)) {
                    *badName = a;
                    return KRV_XML_ERR_INVALID_PARAM;
                }
                if (Escape(a->value, true, text)) {
                    rc = KRV_XML_SetNode(a, nullptr, nullptr, text.c_str());
                }
            }
            if (rc != KRV_XML_OK) {
                return rc;
            }
            if (n->firstChild != nullptr) {
                n = n->firstChild;
                continue;
            }
            while (n != root && n->next == nullptr) {
                n = n->parent;
            }
            n = n == root ? nullptr : n->next;
        }
    }
    return KRV_XML_OK;
}

const XmlNode *FirstDifference(const XmlNode *edited, const XmlNode *reread, bool withSiblings)
{
    const XmlNode *last = edited;
    while (edited != nullptr || reread != nullptr) {
        if (edited == nullptr || reread == nullptr) {
            return edited != nullptr ? edited : last;
        }
        if (const XmlNode *d = SubTreeDifference(edited, reread)) {
            return d;
        }
        if (!withSiblings) {
            break;
        }
        last = edited;
        edited = edited->next;
        reread = reread->next;
    }
    return nullptr;
}

bool IsXmlText(const std::string &text)
{
    const auto *s = reinterpret_cast<const unsigned char *>(text.data());
    for (size_t i = 0, len = 0; i < text.size(); i += len) {
        long cp = DecodeUtf8(s + i, text.size() - i, &len);
        if (cp < 0 || !IsXmlChar(cp)) {
            return false;
        }
    }
    return true;
}

bool IsXmlName(const std::string &text)
{
    const auto *s = reinterpret_cast<const unsigned char *>(text.data());
    size_t len = 0;
    for (size_t i = 0; i < text.size(); i += len) {
        long cp = DecodeUtf8(s + i, text.size() - i, &len);
        if (cp < 0 || !(IsNameStart(cp) || (i > 0 && IsNameChar(cp)))) {
            return false;
        }
    }
    return !text.empty();
}

}  // namespace krvtool
