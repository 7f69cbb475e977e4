// One fuzz case for the editing interface: the bytes choose a sequence of
// calls on a pool of heap and session trees. After every call the links of
// every tree are checked, calls that must not change a tree are checked not to
// have changed it, and at the end everything is released and must leave no
// heap block behind.
#ifndef KRVXML_FUZZ_EDIT_CASE_H
#define KRVXML_FUZZ_EDIT_CASE_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <unordered_set>
#include <vector>

#include "fuzz_checks.h"
#include "krv_xml.h"
#include "platform/krv_platform.h"
#include "xml/xml_internal.h"

namespace krvfuzz {

class ByteReader {
public:
    ByteReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool Empty() const { return pos_ >= size_; }
    uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    size_t Pick(size_t n) { return n == 0 ? 0 : Byte() % n; }

private:
    const uint8_t *data_;
    size_t size_, pos_ = 0;
};

template <size_t N>
const char *PickFrom(ByteReader &in, const char *const (&list)[N])
{
    return list[in.Pick(N)];
}

inline const char *PickName(ByteReader &in)
{
    static const char *const kNames[] = {nullptr, "", "a", "b", "item", "server", "x:y", "p",
                                         "a.b", "name_longer_than_eleven", "c", "\xC3\xA9t\xC3\xA9"};
    return PickFrom(in, kNames);
}

inline const char *PickValue(ByteReader &in)
{
    static const char *const kValues[] = {nullptr, "", "v", "1", "-7", "true", "false", "a&b",
                                          "x<y>\"'", "&amp;", "65536", "-129", "0001", "text with spaces"};
    return PickFrom(in, kValues);
}

inline const char *PickDocument(ByteReader &in)
{
    static const char *const kDocs[] = {
        "<config version=\"2\"><server host=\"a&amp;b\"/><port>8080</port><list><item>x</item><item/></list></config>",
        "<a><b><c/></b><b p:q=\"1\"/></a>", "<r/>", "<p:root xmlns:p=\"u\"><p:child>&#65;</p:child></p:root>",
        "<a/><b/>",
    };
    return PickFrom(in, kDocs);
}

// The trees the case holds: every entry is a record without parent.
using Pool = std::vector<XmlNode *>;

inline void Drop(Pool &pool, XmlNode *n)
{
    pool.erase(std::remove(pool.begin(), pool.end(), n), pool.end());
}

inline void Add(Pool &pool, XmlNode *n)
{
    if (n != nullptr && std::find(pool.begin(), pool.end(), n) == pool.end()) {
        pool.push_back(n);
    }
}

inline size_t CountInside(XmlNode *top)
{
    size_t n = 0;
    for (XmlNode *p = top; p != nullptr; p = NextInside(p, top)) {
        ++n;
    }
    return n;
}

inline size_t CountList(XmlNode *first)
{
    size_t n = 0;
    for (; first != nullptr; first = first->next) {
        ++n;
    }
    return n;
}

// A record of the tree of top, chosen by the input.
inline XmlNode *PickInside(ByteReader &in, XmlNode *top)
{
    XmlNode *p = top;
    for (size_t k = in.Pick(CountInside(top)); k > 0; --k) {
        p = NextInside(p, top);
    }
    return p;
}

inline XmlNode *PickTop(ByteReader &in, Pool &pool)
{
    return pool.empty() ? nullptr : pool[in.Pick(pool.size())];
}

inline XmlNode *PickNode(ByteReader &in, Pool &pool)
{
    XmlNode *top = PickTop(in, pool);
    return top == nullptr ? nullptr : PickInside(in, top);
}

inline XmlNode *PickAttr(ByteReader &in, Pool &pool)
{
    XmlNode *el = PickNode(in, pool);
    XmlNode *a = el != nullptr ? el->firstAttr : nullptr;
    for (size_t k = a != nullptr ? in.Pick(CountList(a)) : 0; k > 0; --k) {
        a = a->next;
    }
    return a;
}

inline std::string DumpPool(const Pool &pool)
{
    std::string out;
    for (XmlNode *t : pool) {
        out += Dump(t) + "--\n";
    }
    return out;
}

inline std::string CheckPool(const Pool &pool)
{
    for (XmlNode *t : pool) {
        if (t->parent != nullptr) {
            return "a held top has a parent";
        }
        if ((t->prev != nullptr && t->prev->next != t) || (t->next != nullptr && t->next->prev != t)) {
            return "top-level siblings are linked one way only";
        }
        std::string broken = CheckLinks(t);
        if (!broken.empty()) {
            return broken;
        }
    }
    return "";
}

// A name interned into a document's name table lives as long as the document
// record; a node taken out of the document keeps pointing there. Before
// records are released, every other held node whose name points into the
// table of a document among them gets a private copy of its name.
inline void AdoptNames(Pool &pool, const std::vector<XmlNode *> &doomedTops)
{
    std::unordered_set<XmlNode *> doomed;
    std::vector<const char *> tables;
    for (XmlNode *t : doomedTops) {
        for (XmlNode *p = t; p != nullptr; p = NextInside(p, t)) {
            doomed.insert(p);
            if (p->kind == KRV_XML_NODE_DOCUMENT) {
                tables.push_back(&p->nameTable[0][0]);
            }
        }
    }
    auto adopt = [&tables](XmlNode *n) {
        for (const char *begin : tables) {
            if (n->name >= begin && n->name < begin + sizeof n->nameTable) {
                std::string own = n->name;
                KRV_XML_SetNode(n, nullptr, own.c_str(), nullptr);
                return;
            }
        }
    };
    for (XmlNode *t : pool) {
        for (XmlNode *p = t; p != nullptr && !tables.empty(); p = NextInside(p, t)) {
            for (XmlNode *a = doomed.count(p) != 0 ? nullptr : p; a != nullptr; a = a == p ? p->firstAttr : a->next) {
                adopt(a);
            }
        }
    }
}

// Heap documents that a parse left heading further top-level records, for as
// long as their `next` was never cut.
using Heads = std::unordered_set<XmlNode *>;

// Releases a held top. A session document takes every record of its session
// with it; a heap document in heads that has no `prev` takes the records after it.
inline void ReleaseTop(Pool &pool, Heads &heads, XmlNode *t)
{
    std::vector<XmlNode *> doomed{t};
    for (XmlNode *f = heads.erase(t) != 0 && t->prev == nullptr ? t->next : nullptr; f != nullptr; f = f->next) {
        doomed.push_back(f);
    }
    AdoptNames(pool, doomed);
    for (XmlNode *f : doomed) {
        Drop(pool, f);
    }
    if (t->ownsSession != 0 && t->mem != nullptr) {
        XmlMemSession *mem = t->mem;
        pool.erase(std::remove_if(pool.begin(), pool.end(), [mem](XmlNode *n) { return n->mem == mem; }), pool.end());
    }
    KRV_XML_FreeNode(t);
}

// Checks the typed reading of a value written through the typed setters.
inline std::string CheckTypedRoundTrip(XmlNode *node, uint32_t type, uint32_t raw, bool attr,
                                       const char *attrPrefix, const char *attrName)
{
    // The setter makes a new attribute with an empty prefix as one without
    // prefix, while the getter looks an empty prefix up as it is.
    attrPrefix = attrPrefix != nullptr && attrPrefix[0] == '\0' ? nullptr : attrPrefix;
    uint32_t back = 0xA5A5A5A5u;
    if ((attr ? KRV_XML_GetAttrValueEx(node, attrPrefix, attrName, type, &back)
              : KRV_XML_GetNodeValueEx(node, type, &back)) != KRV_XML_OK) {
        return "a value written as type " + std::to_string(type) + " does not read back";
    }
    static const uint32_t kMask[] = {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFu, 0xFFFFu, 0xFFu, 0xFFu};
    uint32_t expect = type == KRV_XML_VALUE_BOOL ? (raw != 0 ? 1u : 0u) : raw;
    if (((back ^ expect) & kMask[type]) != 0 || ((back ^ 0xA5A5A5A5u) & ~kMask[type]) != 0) {
        return "typed value read back as another value or wider than its type";
    }
    return "";
}

inline std::string RunEditCase(const uint8_t *data, size_t size)
{
    using Insert = uint32_t (*)(XmlNode *, XmlNode *);
    using Print = uint32_t (*)(XmlNode *, char **);
    static const Insert kInserts[4] = {KRV_XML_AddFirstChildNode, KRV_XML_AppendChildNode,
                                       KRV_XML_AddNextSiblingNode, KRV_XML_AddPrevSiblingNode};
    static const Print kPrints[3] = {KRV_XML_Transform, KRV_XML_TransformHead, KRV_XML_TransformTail};
    const long live = krv_test::LiveBlocks();
    // Inputs of even length find tops through the path links alone (heap
    // trees, and session trees while the session has loose trees), which
    // the shallow trees made here would otherwise never use.
    struct ShortWalk {
        explicit ShortWalk(int steps) { krv_test::SetShortWalk(steps); }
        ~ShortWalk() { krv_test::SetShortWalk(24); }
    } shortWalk(size % 2 == 0 ? 0 : 24);
    ByteReader in(data, size);
    Pool pool;
    Heads heads;
    std::string failure;
    for (int step = 0; step < 400 && !in.Empty() && failure.empty(); ++step) {
        const uint8_t op = in.Byte() % 24;
        const std::string before = DumpPool(pool);
        bool mustNotChange = false;
        uint32_t rc = KRV_XML_OK;
        XmlNode *made = nullptr, *n = nullptr;
        switch (op) {
        case 0:
        case 1: {  // a new heap element or document
            const char *prefix = PickName(in);
            const char *name = PickName(in);
            rc = KRV_XML_CreateNode(op == 0 ? KRV_XML_NODE_ELEMENT : KRV_XML_NODE_DOCUMENT, prefix, name,
                                    PickValue(in), &made);
            break;
        }
        case 2: {  // a new session document, or an element in a held session
            XmlNode *t = PickTop(in, pool);
            bool element = t != nullptr && t->mem != nullptr && (in.Byte() & 1) != 0;
            rc = KRV_XML_CreateNodeEx(element ? t->mem : nullptr,
                                      element ? KRV_XML_NODE_ELEMENT : KRV_XML_NODE_DOCUMENT, PickName(in),
                                      PickName(in), PickValue(in), &made);
            break;
        }
        case 3: {  // parse a document into the pool, with its top-level followers
            const char *text = PickDocument(in);
            rc = (in.Byte() & 1) != 0 ? KRV_XML_ParseEx(text, &made) : KRV_XML_Parse(text, &made);
            if (rc == KRV_XML_OK && made->mem == nullptr && made->next != nullptr) {
                heads.insert(made);
            }
            for (XmlNode *f = rc == KRV_XML_OK ? made : nullptr; f != nullptr; f = f->next) {
                Add(pool, f);
            }
            break;
        }
        case 4:
        case 5:
        case 6:
        case 7: {  // insert a held top into another tree, all four ways; interning keeps the text
            n = PickTop(in, pool);
            XmlNode *target = PickNode(in, pool);
            if (n != nullptr && target != nullptr) {
                const std::string moved = Dump(n);
                rc = kInserts[op - 4](target, n);
                mustNotChange = rc != KRV_XML_OK;
                failure = rc == KRV_XML_OK && Dump(n) != moved ? "an inserted sub-tree changed its strings" : "";
            }
            break;
        }
        case 8: {  // take a node out of its tree
            n = PickNode(in, pool);
            const std::string taken = Dump(n);
            rc = n != nullptr ? KRV_XML_RemoveNode(n) : KRV_XML_ERR_INVALID_PARAM;
            mustNotChange = rc != KRV_XML_OK;
            if (rc == KRV_XML_OK) {
                Add(pool, n);
                if (Dump(n) != taken || n->parent != nullptr || n->prev != nullptr || n->next != nullptr) {
                    failure = "a removed sub-tree is not detached as it was";
                }
            }
            break;
        }
        case 9: {  // change strings, of elements or attributes: null leaves a field, "" clears it
            n = (in.Byte() & 1) != 0 ? PickAttr(in, pool) : PickNode(in, pool);
            if (n == nullptr) {
                break;
            }
            const char *args[3] = {PickName(in), PickName(in), PickValue(in)};
            const char *fields[3] = {n->nsPrefix, n->name, n->value};
            std::string old[3];
            for (int i = 0; i < 3; ++i) {
                old[i] = fields[i] == nullptr ? std::string("\x01") : fields[i];
            }
            rc = KRV_XML_SetNode(n, args[0], args[1], args[2]);
            const char *now[3] = {n->nsPrefix, n->name, n->value};
            for (int i = 0; i < 3 && rc == KRV_XML_OK; ++i) {
                const char *expect = args[i] == nullptr ? (old[i] == "\x01" ? nullptr : old[i].c_str())
                                     : args[i][0] == '\0' ? nullptr
                                                           : args[i];
                if (!SameText(now[i], expect)) {
                    failure = "SetNode left field " + std::to_string(i) + " other than asked";
                }
            }
            break;
        }
        case 10:
        case 11:
        case 12: {  // add, set, remove attributes
            n = (in.Byte() & 7) == 0 ? PickAttr(in, pool) : PickNode(in, pool);
            if (n == nullptr) {
                break;
            }
            const char *prefix = PickName(in);
            const char *name = PickName(in);
            rc = op == 10   ? KRV_XML_AddAttr(n, prefix, name, PickValue(in))
                 : op == 11 ? KRV_XML_SetAttr(n, prefix, name, PickValue(in))
                            : KRV_XML_RemoveAttr(n, prefix, name);
            mustNotChange = rc != KRV_XML_OK && rc != KRV_XML_ERR_NO_MEMORY;
            break;
        }
        case 13: {  // typed values on nodes and attributes, read back
            n = PickNode(in, pool);
            if (n == nullptr) {
                break;
            }
            uint32_t type = in.Pick(8);  // 7 is out of range
            uint32_t raw = static_cast<uint32_t>(in.Byte()) * 0x01010101u ^ (in.Byte() << 8);
            bool attr = (in.Byte() & 1) != 0;
            const char *prefix = PickName(in);
            const char *name = PickName(in);
            rc = attr ? KRV_XML_SetAttrValueEx(n, prefix, name, type, &raw) : KRV_XML_SetNodeValueEx(n, type, &raw);
            mustNotChange = rc == KRV_XML_ERR_INVALID_PARAM || rc == KRV_XML_ERR_ALREADY_EXISTS;
            if (rc == KRV_XML_OK) {
                failure = CheckTypedRoundTrip(n, type, raw, attr, prefix, name);
            } else if (type <= KRV_XML_VALUE_UINT8 && !mustNotChange) {
                failure = "typed setter gave " + std::to_string(rc);
            }
            break;
        }
        case 14: {  // typed reads change nothing
            n = PickNode(in, pool);
            uint32_t outValue = 0;
            KRV_XML_GetNodeValueEx(n, in.Pick(8), &outValue);
            KRV_XML_GetAttrValueEx(n, PickName(in), PickName(in), in.Pick(8), &outValue);
            mustNotChange = true;
            break;
        }
        case 15: {  // copies join the pool; the source stays as it was
            n = PickNode(in, pool);
            if (n == nullptr || before.size() > 64 * 1024) {
                break;  // keep repeated deep copies from growing without bound
            }
            bool deep = (in.Byte() & 1) != 0;
            rc = deep ? KRV_XML_CloneNode(n, &made) : KRV_XML_CloneNodeSelf(n, &made);
            const std::string self = Dump(n).substr(0, Dump(n).find('\n') + 1);
            if (DumpPool(pool) != before) {
                failure = "copying changed its source";
            } else if (rc == KRV_XML_OK && (made == nullptr || made->parent != nullptr || made->next != nullptr ||
                                            made->prev != nullptr || (made->mem != n->mem && made->ownsSession == 0))) {
                failure = "a copy is not detached, or not in its source's regime";
            } else if (rc == KRV_XML_OK && (deep ? !CompareTrees(n, made, false).empty() : Dump(made) != self)) {
                failure = "a copy differs from its source";
            }
            break;
        }
        case 16: {  // path lookup from a node, with names taken from the tree
            n = PickNode(in, pool);
            if (n == nullptr || n->name == nullptr) {
                break;
            }
            std::string path = n->name;
            XmlNode *cur = n;
            for (int depth = in.Pick(5); depth > 0 && cur->firstChild != nullptr; --depth) {
                cur = PickInside(in, cur);
                if (cur->name == nullptr || cur == n) {
                    break;
                }
                path += '.' + std::string(cur->name);
                if ((in.Byte() & 3) == 0) {
                    path += '.' + std::to_string(in.Pick(4));
                }
            }
            XmlNode *up = nullptr;
            rc = KRV_XML_GetNodeByUrl(n, path.c_str(), &up);
            while (up != nullptr && up != n) {
                up = up->parent;
            }
            failure = rc == KRV_XML_OK && up != n ? "path lookup answered a node outside the start's sub-tree" : "";
            mustNotChange = true;
            break;
        }
        case 17: {  // the iterator visits the tree in the order of its links
            XmlNode *t = PickTop(in, pool);
            // Stops where the walk would go on into the following top-level records.
            size_t expect = CountInside(t), seen = 0;
            for (XmlNode *p = t; p != nullptr && p != t->next && seen <= expect; p = KRV_XML_Iterator(p)) {
                ++seen;
            }
            failure = seen != expect ? "the iterator did not visit each record of the tree once" : "";
            mustNotChange = true;
            break;
        }
        case 18: {  // printing changes nothing; text is released
            n = (in.Byte() & 7) == 0 ? PickAttr(in, pool) : PickNode(in, pool);
            if (n == nullptr) {
                break;
            }
            char *text = nullptr;
            rc = kPrints[in.Pick(3)](n, &text);
            KRV_XML_FreeMem(text);
            failure = rc != KRV_XML_OK && rc != KRV_XML_ERR_INVALID_PARAM ? "printing gave " + std::to_string(rc) : "";
            mustNotChange = true;
            break;
        }
        case 19: {  // attribute walks and the child count agree with the lists
            n = PickNode(in, pool);
            if (n == nullptr) {
                break;
            }
            const size_t expect = CountList(n->firstAttr);
            size_t seen = 0;
            uint32_t children = 0;
            const char *p = nullptr, *nm = nullptr, *v = nullptr;
            XmlNode *cursor = nullptr;
            while (seen <= expect && KRV_XML_GetNextSiblingAttrEx(n, &p, &nm, &v, &cursor) == KRV_XML_OK) {
                ++seen;
            }
            if (seen != expect || cursor != nullptr) {
                failure = "the attribute cursor did not visit each attribute once";
            }
            // A search answers with the first attribute of equal prefix and
            // name in list order, as a walk finds it (long lists use an index).
            for (const XmlNode *a = n->firstAttr; a != nullptr && failure.empty(); a = a->next) {
                if (a->name == nullptr || (a->nsPrefix != nullptr && a->nsPrefix[0] == '\0')) {
                    continue;  // no search names it
                }
                const XmlNode *first = n->firstAttr;
                while (!(SameText(first->nsPrefix, a->nsPrefix) && SameText(first->name, a->name))) {
                    first = first->next;
                }
                const char *got = nullptr;
                if (KRV_XML_GetAttr(n, a->nsPrefix, a->name, &got) != KRV_XML_OK || got != first->value) {
                    failure = "an attribute search disagrees with a walk of the list";
                }
            }
            if (KRV_XML_GetNodeChildNum(n, &children) != KRV_XML_OK || children != CountList(n->firstChild)) {
                failure = "child count disagrees with the child list";
            }
            mustNotChange = true;
            break;
        }
        case 20:  // release a held tree
            if ((n = PickTop(in, pool)) != nullptr) {
                ReleaseTop(pool, heads, n);
            }
            break;
        case 21:  // release a record inside a tree (it is unlinked first)
            if ((n = PickNode(in, pool)) != nullptr && n->parent != nullptr) {
                AdoptNames(pool, {n});
                KRV_XML_FreeNode(n);
            }
            break;
        case 22:  // release one attribute record
            KRV_XML_FreeNode(PickAttr(in, pool));
            break;
        default: {  // refusals: attribute records where elements are needed
            XmlNode *a = PickAttr(in, pool);
            n = PickNode(in, pool);
            if (a != nullptr && n != nullptr &&
                (KRV_XML_AppendChildNode(n, a) != KRV_XML_ERR_INVALID_PARAM ||
                 KRV_XML_AddNextSiblingNode(a, n) != KRV_XML_ERR_INVALID_PARAM ||
                 KRV_XML_RemoveNode(a) != KRV_XML_ERR_INVALID_PARAM)) {
                failure = "an attribute record was accepted as a tree node";
            }
            mustNotChange = true;
            break;
        }
        }
        if ((op <= 3 || op == 15) && rc == KRV_XML_OK) {
            Add(pool, made);
        }
        for (auto h = heads.begin(); h != heads.end();) {
            h = (*h)->next == nullptr ? heads.erase(h) : std::next(h);
        }
        // Entries that gained a parent are held by their new tree now.
        pool.erase(std::remove_if(pool.begin(), pool.end(), [](XmlNode *t) { return t->parent != nullptr; }),
                   pool.end());
        if (failure.empty()) {
            failure = CheckPool(pool);
        }
        if (failure.empty() && mustNotChange && DumpPool(pool) != before) {
            failure = "operation changed a tree it must leave alone";
        }
        if (!failure.empty()) {
            failure = "step " + std::to_string(step) + " op " + std::to_string(op) + ": " + failure;
        }
    }
    // Heap records first: session documents end their sessions last.
    std::stable_partition(pool.begin(), pool.end(), [](XmlNode *t) { return t->ownsSession == 0; });
    while (!pool.empty()) {
        ReleaseTop(pool, heads, pool.front());
    }
    if (failure.empty() && krv_test::LiveBlocks() != live) {
        failure = "heap blocks leaked: " + std::to_string(krv_test::LiveBlocks() - live);
    }
    return failure;
}

}  // namespace krvfuzz

#endif  // KRVXML_FUZZ_EDIT_CASE_H
