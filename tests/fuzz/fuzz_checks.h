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
    while (n != top) {
        if (n->next != nullptr) {
            return n->next;
        }
        n = n->parent;
    }
    return nullptr;
}

// Checks the links of the sub-tree of top: every child list is walkable both
// ways and agrees with firstChild/lastChild, every child points back at its
// parent, every attribute is an attribute record owned by its element, and
// element records never hold attribute kinds in child lists. Returns "" or a
// description of the first broken link.
inline std::string CheckLinks(XmlNode *top)
{
    if (top == nullptr) {
        return "";
    }
    if (top->kind == KRV_XML_NODE_ATTRIBUTE) {
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
        size_t attrs = 0;
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            if (++attrs > kWalkLimit) {
                return "attribute list forms a cycle";
            }
            if (a->kind != KRV_XML_NODE_ATTRIBUTE) {
                return "attribute list holds a record of kind " + std::to_string(a->kind);
            }
            if (a->parent != n) {
                return "attribute whose parent is not its element";
            }
        }
        XmlNode *first = n->firstChild;
        XmlNode *last = n->lastChild;
        if ((first == nullptr) != (last == nullptr)) {
            return "firstChild and lastChild disagree on emptiness";
        }
        if (first == nullptr) {
            continue;
        }
        if (first->prev != nullptr) {
            return "first child has a previous sibling";
        }
        if (last->next != nullptr) {
            return "last child has a next sibling";
        }
        XmlNode *prev = nullptr;
        size_t forward = 0;
        for (XmlNode *c = first; c != nullptr; c = c->next) {
            if (++forward > kWalkLimit) {
                return "sibling list forms a cycle";
            }
            if (c->parent != n) {
                return "child whose parent is not its parent";
            }
            if (c->prev != prev) {
                return "prev link disagrees with next link";
            }
            prev = c;
        }
        if (prev != last) {
            return "walking next from firstChild does not end at lastChild";
        }
        size_t backward = 0;
        for (XmlNode *c = last; c != nullptr; c = c->prev) {
            ++backward;
            if (backward > forward) {
                return "walking prev from lastChild does not end at firstChild";
            }
        }
        if (backward != forward) {
            return "child list has different lengths both ways";
        }
    }
    return "";
}

inline void AppendText(std::string *out, const char *text)
{
    if (text == nullptr) {
        out->append("~");
    } else {
        out->push_back('"');
        out->append(text);
        out->push_back('"');
    }
}

// A printable form of the sub-tree of top: one line per node with its depth,
// kind, prefix, name, value and attributes. Two trees have the same dump
// exactly when they have the same shape and strings.
inline std::string Dump(XmlNode *top)
{
    std::string out;
    if (top == nullptr) {
        return "(null)";
    }
    if (top->kind == KRV_XML_NODE_ATTRIBUTE) {
        out.append("attr ");
        AppendText(&out, top->nsPrefix);
        AppendText(&out, top->name);
        AppendText(&out, top->value);
        return out;
    }
    size_t depth = 0;
    size_t visited = 0;
    XmlNode *n = top;
    while (n != nullptr && ++visited <= kWalkLimit) {
        out.append(std::to_string(depth)).push_back(' ');
        out.append(std::to_string(n->kind)).push_back(' ');
        AppendText(&out, n->nsPrefix);
        AppendText(&out, n->name);
        AppendText(&out, n->value);
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
        while (n != top && n->next == nullptr) {
            n = n->parent;
            --depth;
        }
        n = n == top ? nullptr : n->next;
    }
    return out;
}

// True when value text holds an ampersand with a ';' somewhere after it. The
// printer keeps such text as a reference when it is one, so reading the
// output again may decode it (or refuse it) instead of giving the text back.
inline bool MayHoldReference(const char *text)
{
    if (text == nullptr) {
        return false;
    }
    const char *amp = std::strchr(text, '&');
    return amp != nullptr && std::strchr(amp, ';') != nullptr;
}

// True when any value or attribute value in the sub-tree may hold a reference.
inline bool TreeMayHoldReference(XmlNode *top)
{
    for (XmlNode *n = top; n != nullptr; n = NextInside(n, top)) {
        if (MayHoldReference(n->value)) {
            return true;
        }
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            if (MayHoldReference(a->value)) {
                return true;
            }
        }
    }
    return false;
}

// True when a name or prefix in the sub-tree is empty or holds markup or white
// space. The parser decodes references and CDATA in names ("a&apos;b") but the
// printer writes names as they are, so such a tree does not read back.
inline bool TreeHasMarkupInNames(XmlNode *top)
{
    // An empty name (a CDATA section that held nothing) prints as nothing.
    auto odd = [](const char *text) {
        return text != nullptr &&
               (text[0] == '\0' || std::strpbrk(text, " \t\r\n<>&'\"=/?!") != nullptr);
    };
    for (XmlNode *n = top; n != nullptr; n = NextInside(n, top)) {
        if (odd(n->name) || odd(n->nsPrefix)) {
            return true;
        }
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            if (odd(a->name) || odd(a->nsPrefix)) {
                return true;
            }
        }
    }
    return false;
}

// True when some record of the sub-tree (attributes included) has no name:
// the printer refuses such trees.
inline bool TreeHasUnnamed(XmlNode *top)
{
    for (XmlNode *n = top; n != nullptr; n = NextInside(n, top)) {
        if (n->name == nullptr) {
            return true;
        }
        for (XmlNode *a = n->firstAttr; a != nullptr; a = a->next) {
            if (a->name == nullptr) {
                return true;
            }
        }
    }
    return false;
}

// True when `got`, the value read back from text printed as element
// content, is text with at most some leading white space dropped: the
// tokenizer steps over white space before a text (how much depends on the
// bytes that follow), and the printer writes white space as it is.
inline bool SameTextUpToLeadingSpace(const std::string &text, const char *got)
{
    std::string v = got == nullptr ? std::string() : got;
    if (v.size() > text.size() || text.compare(text.size() - v.size(), v.size(), v) != 0) {
        return false;
    }
    return text.find_first_not_of(" \t\r\n") >= text.size() - v.size();
}

// Compares the sub-trees of a and b side by side: shape, prefixes, names,
// values and attribute lists in order. Kinds are not compared (a printed
// element comes back as a document when it heads the text). With `printed`
// (b was read from a's printed text), values of a that may hold a reference
// are not compared and leading white space of element values may be gone.
// Returns "" or where the trees first differ.
inline std::string CompareTrees(XmlNode *a, XmlNode *b, bool printed)
{
    XmlNode *x = a;
    XmlNode *y = b;
    size_t index = 0;
    while (x != nullptr || y != nullptr) {
        std::string where = "node " + std::to_string(index) + ": ";
        if (x == nullptr || y == nullptr) {
            return where + "one tree ends early";
        }
        if (!SameText(x->nsPrefix, y->nsPrefix) || !SameText(x->name, y->name)) {
            return where + "prefix or name differs";
        }
        bool skip = printed && MayHoldReference(x->value);
        bool same = printed && x->value != nullptr ? SameTextUpToLeadingSpace(x->value, y->value)
                                                   : SameText(x->value, y->value);
        if (!skip && x->firstChild == nullptr && !same) {
            return where + "value differs";
        }
        XmlNode *p = x->firstAttr;
        XmlNode *q = y->firstAttr;
        for (; p != nullptr && q != nullptr; p = p->next, q = q->next) {
            bool skipAttr = printed && MayHoldReference(p->value);
            if (!SameText(p->nsPrefix, q->nsPrefix) || !SameText(p->name, q->name) ||
                (!skipAttr && !SameText(p->value, q->value))) {
                return where + "attribute differs";
            }
        }
        if (p != nullptr || q != nullptr) {
            return where + "attribute counts differ";
        }
        if ((x->firstChild == nullptr) != (y->firstChild == nullptr)) {
            return where + "one has children, the other not";
        }
        if (x->firstChild == nullptr && x != a && (x->next == nullptr) != (y->next == nullptr)) {
            return where + "sibling counts differ";
        }
        XmlNode *nx = NextInside(x, a);
        XmlNode *ny = NextInside(y, b);
        // Both steps must climb the same number of levels.
        if (nx != nullptr && ny != nullptr && x->firstChild == nullptr) {
            size_t upX = 0;
            size_t upY = 0;
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
        x = nx;
        y = ny;
        ++index;
    }
    return "";
}

}  // namespace krvfuzz

#endif  // KRVXML_FUZZ_CHECKS_H
