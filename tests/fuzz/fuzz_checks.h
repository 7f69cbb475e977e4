// Checks shared by the fuzz harnesses and by the regression tests that replay
// their crash inputs: link invariants of a tree, a structural dump, and a
// side-by-side comparison of two trees. Every walk is iterative and bounded,
// so a corrupted tree is reported instead of looping or overflowing the stack.
#ifndef KRVXML_FUZZ_CHECKS_H
#define KRVXML_FUZZ_CHECKS_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "krv_xml.h"

namespace krvfuzz {

// Upper bound on the records one walk visits before it reports a cycle.
constexpr size_t kWalkLimit = 4000000;

inline bool SameText(const char *a, const char *b)
{
    return (a == nullptr && b == nullptr) || (a != nullptr && b != nullptr && std::strcmp(a, b) == 0);
}

// Pre-order successor of n inside the sub-tree of top (never leaves it).
inline XmlNode *NextInside(XmlNode *n, XmlNode *top)
{
    if (n->firstChild != nullptr) {
        return n->firstChild;
    }
    for (; n != top; n = n->parent) {
        if (n->next != nullptr) {
            return n->next;
        }
    }
    return nullptr;
}

// Checks the links of the sub-tree of top: every child list is walkable both
// ways and agrees with firstChild/lastChild, every child points back at its
// parent, every attribute is an attribute record owned by its element, and
// child lists hold element and document records only. Returns "" or a
// description of the first broken link.
inline std::string CheckLinks(XmlNode *top)
{
    if (top != nullptr && top->kind == KRV_XML_NODE_ATTRIBUTE) {
        return "attribute record used as a tree top";
    }
    size_t visited = 0;
    for (XmlNode *n = top; n != nullptr; n = NextInside(n, top)) {
        if (++visited > kWalkLimit) {
            return "child links form a cycle";
        }
        if (n->kind != KRV_XML_NODE_ELEMENT && n->kind != KRV_XML_NODE_DOCUMENT) {
            return "a child list holds a record of kind " + std::to_string(n->kind);
        }
        size_t count = 0;
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            if (++count > kWalkLimit || a->kind != KRV_XML_NODE_ATTRIBUTE || a->parent != n) {
                return "attribute list broken: a cycle, a wrong kind or a wrong parent";
            }
        }
        if ((n->firstChild == nullptr) != (n->lastChild == nullptr)) {
            return "firstChild and lastChild disagree on emptiness";
        }
        if (n->firstChild == nullptr) {
            continue;
        }
        if (n->firstChild->prev != nullptr || n->lastChild->next != nullptr) {
            return "first child has a previous or last child a next sibling";
        }
        XmlNode *prev = nullptr;
        size_t forward = 0, backward = 0;
        for (XmlNode *c = n->firstChild; c != nullptr; prev = c, c = c->next) {
            if (++forward > kWalkLimit || c->parent != n || c->prev != prev) {
                return "sibling list broken: a cycle, a wrong parent or a prev link that disagrees";
            }
        }
        if (prev != n->lastChild) {
            return "walking next from firstChild does not end at lastChild";
        }
        for (XmlNode *c = prev; c != nullptr && backward <= forward; c = c->prev) {
            ++backward;
        }
        if (backward != forward) {
            return "walking prev from lastChild does not end at firstChild";
        }
    }
    return "";
}

inline void AppendText(std::string *out, const char *text)
{
    out->append(text == nullptr ? "~" : "\"" + std::string(text) + "\"");
}

// A printable form of the sub-tree of top: one line per node with its depth,
// kind, prefix, name, value and attributes. Two trees have the same dump
// exactly when they have the same shape and strings.
inline std::string Dump(XmlNode *top)
{
    if (top == nullptr) {
        return "(null)";
    }
    std::string out = top->kind == KRV_XML_NODE_ATTRIBUTE ? "attr " : "";
    size_t depth = 0, visited = 0;
    for (XmlNode *n = top; n != nullptr && ++visited <= kWalkLimit;) {
        if (n->kind != KRV_XML_NODE_ATTRIBUTE) {
            out.append(std::to_string(depth) + " " + std::to_string(n->kind) + " ");
        }
        AppendText(&out, n->nsPrefix);
        AppendText(&out, n->name);
        AppendText(&out, n->value);
        if (n->kind == KRV_XML_NODE_ATTRIBUTE) {
            break;
        }
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            out.append(" @");
            AppendText(&out, a->nsPrefix);
            AppendText(&out, a->name);
            AppendText(&out, a->value);
        }
        out.push_back('\n');
        if (n->firstChild != nullptr) {
            n = n->firstChild;
            ++depth;
            continue;
        }
        for (; n != top && n->next == nullptr; --depth) {
            n = n->parent;
        }
        n = n == top ? nullptr : n->next;
    }
    return out;
}

// True when pred holds for some record of the sub-tree, attributes included.
template <class Pred>
bool AnyRecord(XmlNode *top, Pred pred)
{
    for (XmlNode *n = top; n != nullptr; n = NextInside(n, top)) {
        if (pred(n)) {
            return true;
        }
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            if (pred(a)) {
                return true;
            }
        }
    }
    return false;
}

// True when value text holds an ampersand with a ';' somewhere after it. The
// printer keeps such text as a reference when it is one, so reading the
// output again may decode it (or refuse it) instead of giving the text back.
inline bool MayHoldReference(const char *text)
{
    const char *amp = text != nullptr ? std::strchr(text, '&') : nullptr;
    return amp != nullptr && std::strchr(amp, ';') != nullptr;
}

inline bool TreeMayHoldReference(XmlNode *top)
{
    return AnyRecord(top, [](XmlNode *n) { return MayHoldReference(n->value); });
}

// True when a name or prefix in the sub-tree is empty (a CDATA section that
// held nothing prints as nothing) or holds markup or white space, or when a
// colon sits where reading the printed name would divide it (in a prefix,
// or in a name without one). The parser divides names at a colon of the
// text and then decodes references and CDATA in each part ("a&#58;b" is one
// name), but the printer writes names as they are, so such a tree does not
// read back.
inline bool TreeHasMarkupInNames(XmlNode *top)
{
    auto odd = [](const char *text) {
        return text != nullptr && (text[0] == '\0' || std::strpbrk(text, " \t\r\n<>&'\"=/?!") != nullptr);
    };
    auto colon = [](const char *text) { return text != nullptr && std::strchr(text, ':') != nullptr; };
    return AnyRecord(top, [&](XmlNode *n) {
        return odd(n->name) || odd(n->nsPrefix) || colon(n->nsPrefix) ||
               (n->nsPrefix == nullptr && colon(n->name));
    });
}

// True when some record of the sub-tree has no name: the printer refuses it.
inline bool TreeHasUnnamed(XmlNode *top)
{
    return AnyRecord(top, [](XmlNode *n) { return n->name == nullptr; });
}

// True when `got`, the value read back from text printed as element
// content, is text with at most some leading white space dropped: the
// tokenizer steps over white space before a text (how much depends on the
// bytes that follow), and the printer writes white space as it is.
inline bool SameTextUpToLeadingSpace(const std::string &text, const char *got)
{
    std::string v = got == nullptr ? std::string() : got;
    return v.size() <= text.size() && text.compare(text.size() - v.size(), v.size(), v) == 0 &&
           text.find_first_not_of(" \t\r\n") >= text.size() - v.size();
}

// Compares the sub-trees of a and b side by side: shape, prefixes, names,
// values and attribute lists in order. Kinds are not compared (a printed
// element comes back as a document when it heads the text). With `printed`
// (b was read from a's printed text), values of a that may hold a reference
// are not compared and leading white space of element values may be gone.
// Returns "" or where the trees first differ.
inline std::string CompareTrees(XmlNode *a, XmlNode *b, bool printed)
{
    size_t index = 0;
    for (XmlNode *x = a, *y = b; x != nullptr || y != nullptr; ++index) {
        std::string where = "node " + std::to_string(index) + ": ";
        if (x == nullptr || y == nullptr) {
            return where + "one tree ends early";
        }
        if (!SameText(x->nsPrefix, y->nsPrefix) || !SameText(x->name, y->name)) {
            return where + "prefix or name differs";
        }
        bool same = printed && x->value != nullptr ? SameTextUpToLeadingSpace(x->value, y->value)
                                                   : SameText(x->value, y->value);
        if (!(printed && MayHoldReference(x->value)) && x->firstChild == nullptr && !same) {
            return where + "value differs";
        }
        XmlNode *p = x->firstAttr, *q = y->firstAttr;
        for (; p != nullptr && q != nullptr; p = p->next, q = q->next) {
            if (!SameText(p->nsPrefix, q->nsPrefix) || !SameText(p->name, q->name) ||
                (!(printed && MayHoldReference(p->value)) && !SameText(p->value, q->value))) {
                return where + "attribute differs";
            }
        }
        if (p != nullptr || q != nullptr) {
            return where + "attribute counts differ";
        }
        if ((x->firstChild == nullptr) != (y->firstChild == nullptr)) {
            return where + "one has children, the other not";
        }
        // After a leaf both steps must climb the same number of levels.
        if (x->firstChild == nullptr && x != a) {
            size_t upX = 0, upY = 0;
            for (XmlNode *s = x; s != a && s->next == nullptr; s = s->parent) {
                ++upX;
            }
            for (XmlNode *s = y; s != b && s->next == nullptr; s = s->parent) {
                ++upY;
            }
            if (upX != upY) {
                return where + "sibling counts differ";
            }
        }
        x = NextInside(x, a);
        y = NextInside(y, b);
    }
    return "";
}

}  // namespace krvfuzz

#endif  // KRVXML_FUZZ_CHECKS_H
