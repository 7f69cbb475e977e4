// Per-call cost of API patterns at N and at 10N: each child of one element with N children, each
// attribute of one parsed element with N attributes, or each level of a chain N deep, in both
// regimes. A ratio near 1 is linear (cache misses at the larger size account for up to about 3).
// Not here: a path lookup of the k-th child of a name, linear per call by design (it allocates
// nothing, so it walks the siblings before that child), and prints of each level of a chain,
// whose texts are as long as the sub-trees below them.
//   linearity N [PATTERN]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "krv_xml.h"

namespace {

struct Ctx {
    XmlNode *doc, *el;  // el: the element with the children, the attributes or the chain below it
    bool session;
    int n;
    // From el's first child along `step`: its children (next) or the levels of a chain (firstChild).
    std::vector<XmlNode *> walk(XmlNode *XmlNode::*step) const
    {
        std::vector<XmlNode *> v;
        for (XmlNode *c = el->firstChild; c != nullptr; c = c->*step) {
            v.push_back(c);
        }
        return v;
    }
    std::vector<XmlNode *> kids() const { return walk(&XmlNode::next); }
    std::vector<XmlNode *> levels() const { return walk(&XmlNode::firstChild); }  // top down
    static long over(const std::vector<XmlNode *> &nodes, const std::function<bool(XmlNode *)> &f)
    {
        long ok = 0;
        for (XmlNode *c : nodes) {
            ok += f(c) ? 1 : 0;
        }
        return ok;
    }
    long each(const std::function<bool(XmlNode *)> &f) const { return over(kids(), f); }
    long down(const std::function<bool(XmlNode *)> &f) const { return over(levels(), f); }
    long up(const std::function<bool(XmlNode *)> &f) const
    {
        std::vector<XmlNode *> v = levels();
        return over(std::vector<XmlNode *>(v.rbegin(), v.rend()), f);
    }
    long times(const std::function<bool(int)> &f) const
    {
        long ok = 0;
        for (int i = 0; i < n; ++i) {
            ok += f(i) ? 1 : 0;
        }
        return ok;
    }
    XmlNode *made() const
    {
        XmlNode *m = nullptr;
        if (session) {
            KRV_XML_CreateNodeEx(doc->mem, KRV_XML_NODE_ELEMENT, nullptr, "n", "w", &m);
        } else {
            KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, nullptr, "n", "w", &m);
        }
        return m;
    }
    XmlNode *other() const { return doc->firstChild->next; }
};

std::string nm(int i)
{
    return "a" + std::to_string(i);
}

enum class Shape { Children, Attrs, Chain };

// <d><e>...</e><o/></d>: N children <c k="i">v</c>, N attributes ai="i" on e, or a chain of N
// elements <c k="i"> below e with v in the last.
XmlNode *wide(int n, bool session, Shape shape)
{
    std::string t = "<d><e";
    for (int i = 0; i < n && shape == Shape::Attrs; ++i) {
        t += " " + nm(i) + "='" + std::to_string(i) + "'";
    }
    t += ">";
    for (int i = 0; i < n && shape == Shape::Children; ++i) {
        t += "<c k='" + std::to_string(i) + "'>v</c>";
    }
    for (int i = 0; i < n && shape == Shape::Chain; ++i) {
        t += "<c k='" + std::to_string(i) + "'>";
    }
    if (shape == Shape::Chain) {
        t += "v";
        for (int i = 0; i < n; ++i) {
            t += "</c>";
        }
    }
    t += "</e><o/></d>";
    XmlNode *doc = nullptr;
    return (session ? KRV_XML_ParseEx(t.c_str(), &doc) : KRV_XML_Parse(t.c_str(), &doc)) == 0 ? doc : nullptr;
}

bool freed(XmlNode *n)
{
    KRV_XML_FreeNode(n);
    return true;
}

bool valueSet(XmlNode *n)
{
    const int32_t v = 5;
    return KRV_XML_SetNodeValueEx(n, KRV_XML_VALUE_INT32, &v) == KRV_XML_OK;
}

bool printed(uint32_t (*transform)(XmlNode *, char **), XmlNode *n)
{
    char *s = nullptr;
    bool ok = transform(n, &s) == KRV_XML_OK;
    KRV_XML_FreeMem(s);
    return ok;
}

bool copied(uint32_t (*clone)(XmlNode *, XmlNode **), XmlNode *n)
{
    XmlNode *copy = nullptr;
    bool ok = clone(n, &copy) == KRV_XML_OK;
    KRV_XML_FreeNode(copy);
    return ok;
}

// A path lookup of the first child named "c" below n.
bool childFound(XmlNode *n)
{
    XmlNode *out = nullptr;
    return KRV_XML_GetNodeByUrl(n, "c", &out) == KRV_XML_OK;
}

struct Pattern {
    const char *name;
    Shape shape;
    std::function<long(const Ctx &)> run;
};

const Pattern kPatterns[] = {
    // each child of the wide element
    {"set_value", Shape::Children, [](const Ctx &x) { return x.each(valueSet); }},
    {"rename", Shape::Children,
     [](const Ctx &x) {
         int i = 0;
         return x.each([&](XmlNode *c) { return KRV_XML_SetNode(c, nullptr, nm(i++).c_str(), "w") == 0; });
     }},
    {"clone_self", Shape::Children,
     [](const Ctx &x) { return x.each([](XmlNode *c) { return copied(KRV_XML_CloneNodeSelf, c); }); }},
    {"clone", Shape::Children,
     [](const Ctx &x) { return x.each([](XmlNode *c) { return copied(KRV_XML_CloneNode, c); }); }},
    {"transform", Shape::Children,
     [](const Ctx &x) { return x.each([](XmlNode *c) { return printed(KRV_XML_Transform, c); }); }},
    {"head_tail", Shape::Children,
     [](const Ctx &x) {
         return x.each(
             [](XmlNode *c) { return printed(KRV_XML_TransformHead, c) && printed(KRV_XML_TransformTail, c); });
     }},
    {"remove_free", Shape::Children,
     [](const Ctx &x) { return x.each([](XmlNode *c) { return KRV_XML_RemoveNode(c) == 0 && freed(c); }); }},
    {"free_first_on", Shape::Children, [](const Ctx &x) { return x.each(freed); }},
    {"free_last_on", Shape::Children,
     [](const Ctx &x) {
         std::vector<XmlNode *> v = x.kids();
         return x.times([&](int i) { return freed(v[v.size() - 1 - static_cast<size_t>(i)]); });
     }},
    {"move_to_other", Shape::Children,
     [](const Ctx &x) {
         return x.each(
             [&](XmlNode *c) { return KRV_XML_RemoveNode(c) == 0 && KRV_XML_AppendChildNode(x.other(), c) == 0; });
     }},
    {"move_to_front", Shape::Children,
     [](const Ctx &x) {
         return x.each(
             [&](XmlNode *c) { return KRV_XML_RemoveNode(c) == 0 && KRV_XML_AddFirstChildNode(x.el, c) == 0; });
     }},
    {"append_below", Shape::Children,
     [](const Ctx &x) { return x.each([&](XmlNode *c) { return KRV_XML_AppendChildNode(c, x.made()) == 0; }); }},
    {"add_attr", Shape::Children,
     [](const Ctx &x) { return x.each([](XmlNode *c) { return KRV_XML_AddAttr(c, nullptr, "z", "1") == 0; }); }},
    {"set_attr_value", Shape::Children,
     [](const Ctx &x) {
         uint8_t v = 3;
         return x.each(
             [&](XmlNode *c) { return KRV_XML_SetAttrValueEx(c, nullptr, "k", KRV_XML_VALUE_UINT8, &v) == 0; });
     }},
    {"free_attr", Shape::Children, [](const Ctx &x) { return x.each([](XmlNode *c) { return freed(c->firstAttr); }); }},
    {"url_from_child", Shape::Children, [](const Ctx &x) { return x.each(childFound); }},
    {"parent", Shape::Children,
     [](const Ctx &x) { return x.each([&](XmlNode *c) { return KRV_XML_GetNodeParent(c) == x.el; }); }},
    // N new nodes
    {"add_before_last", Shape::Children,
     [](const Ctx &x) {
         XmlNode *last = x.el->lastChild;
         return x.times([&](int) { return KRV_XML_AddPrevSiblingNode(last, x.made()) == 0; });
     }},
    {"add_after_first", Shape::Children,
     [](const Ctx &x) {
         XmlNode *first = x.el->firstChild;
         return x.times([&](int) { return KRV_XML_AddNextSiblingNode(first, x.made()) == 0; });
     }},
    {"add_first", Shape::Children,
     [](const Ctx &x) { return x.times([&](int) { return KRV_XML_AddFirstChildNode(x.el, x.made()) == 0; }); }},
    {"loose_then_free", Shape::Children,
     [](const Ctx &x) {
         std::vector<XmlNode *> v;
         x.times([&](int) { return (v.push_back(x.made()), true); });
         return x.times([&](int i) { return freed(v[static_cast<size_t>(i)]); });
     }},
    {"loose_then_link", Shape::Children,
     [](const Ctx &x) {
         std::vector<XmlNode *> v;
         x.times([&](int) { return (v.push_back(x.made()), true); });
         return x.times([&](int i) { return KRV_XML_AppendChildNode(x.other(), v[static_cast<size_t>(i)]) == 0; });
     }},
    // each attribute of the wide element, by name
    {"attr_remove_first_on", Shape::Attrs,
     [](const Ctx &x) {
         return x.times([&](int i) { return KRV_XML_RemoveAttr(x.el, nullptr, nm(i).c_str()) == 0; });
     }},
    {"attr_remove_last_on", Shape::Attrs,
     [](const Ctx &x) {
         return x.times([&](int i) { return KRV_XML_RemoveAttr(x.el, nullptr, nm(x.n - 1 - i).c_str()) == 0; });
     }},
    {"attr_free_first_on", Shape::Attrs,
     [](const Ctx &x) { return x.times([&](int) { return freed(x.el->firstAttr); }); }},
    {"attr_set", Shape::Attrs,
     [](const Ctx &x) {
         return x.times([&](int i) { return KRV_XML_SetAttr(x.el, nullptr, nm(i).c_str(), "w") == 0; });
     }},
    {"attr_get_value", Shape::Attrs,
     [](const Ctx &x) {
         return x.times([&](int i) {
             int32_t v = -1;
             return KRV_XML_GetAttrValueEx(x.el, nullptr, nm(i).c_str(), KRV_XML_VALUE_INT32, &v) == 0 && v == i;
         });
     }},
    {"attr_next_by_name", Shape::Attrs,
     [](const Ctx &x) {
         return x.times([&](int i) {
             const char *p = nullptr, *name = nullptr, *v = nullptr;
             return i == x.n - 1 || KRV_XML_GetNextSiblingAttr(x.el, nullptr, nm(i).c_str(), &p, &name, &v) == 0;
         });
     }},
    {"attr_add", Shape::Attrs,
     [](const Ctx &x) {
         return x.times(
             [&](int i) { return KRV_XML_AddAttr(x.el, nullptr, ("z" + std::to_string(i)).c_str(), "1") == 0; });
     }},
    // each level of a chain
    {"chain_free_bottom_up", Shape::Chain, [](const Ctx &x) { return x.up(freed); }},
    {"chain_remove_bottom_up", Shape::Chain,
     [](const Ctx &x) { return x.up([](XmlNode *c) { return KRV_XML_RemoveNode(c) == 0 && freed(c); }); }},
    {"chain_set_value_up", Shape::Chain, [](const Ctx &x) { return x.up(valueSet); }},
    {"chain_rename_down", Shape::Chain,
     [](const Ctx &x) {
         int i = 0;
         return x.down([&](XmlNode *c) { return KRV_XML_SetNode(c, nullptr, nm(i++).c_str(), nullptr) == 0; });
     }},
    {"chain_add_attr_up", Shape::Chain,
     [](const Ctx &x) { return x.up([](XmlNode *c) { return KRV_XML_AddAttr(c, nullptr, "z", "1") == 0; }); }},
    {"chain_free_attr_up", Shape::Chain,
     [](const Ctx &x) { return x.up([](XmlNode *c) { return freed(c->firstAttr); }); }},
    {"chain_clone_self_up", Shape::Chain,
     [](const Ctx &x) { return x.up([](XmlNode *c) { return copied(KRV_XML_CloneNodeSelf, c); }); }},
    {"chain_url_down", Shape::Chain, [](const Ctx &x) { return x.down(childFound); }},
    {"chain_parent_up", Shape::Chain,
     [](const Ctx &x) { return x.up([](XmlNode *c) { return KRV_XML_GetNodeParent(c) != nullptr; }); }},
    {"chain_append_leaf_up", Shape::Chain,
     [](const Ctx &x) { return x.up([&](XmlNode *c) { return KRV_XML_AppendChildNode(c, x.made()) == 0; }); }},
};

}  // namespace

int main(int argc, char **argv)
{
    const int n = argc > 1 ? std::atoi(argv[1]) : 20000;
    const char *only = argc > 2 ? argv[2] : nullptr;
    for (const Pattern &p : kPatterns) {
        for (bool session : {false, true}) {
            if (only != nullptr && std::strcmp(only, p.name) != 0) {
                continue;
            }
            double ns[2];
            bool counted = true;
            for (int k = 0; k < 2; ++k) {
                Ctx x{wide(k == 0 ? n : 10 * n, session, p.shape), nullptr, session, k == 0 ? n : 10 * n};
                if (x.doc == nullptr) {
                    return 1;
                }
                x.el = x.doc->firstChild;
                auto t0 = std::chrono::steady_clock::now();
                counted = counted && p.run(x) == x.n;
                ns[k] = std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - t0).count() / x.n;
                KRV_XML_FreeNode(x.doc);
            }
            std::printf("%-22s %-7s %9.1f ns %9.1f ns  x%5.2f%s\n", p.name, session ? "session" : "heap", ns[0], ns[1],
                        ns[1] / ns[0], counted ? "" : "  (a call failed)");
            std::fflush(stdout);
        }
    }
}
