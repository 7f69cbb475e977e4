// libxml2: DOM from memory, blank text nodes dropped (as the other DOMs do),
// huge documents allowed so that long texts are not refused by a size limit.
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <cstring>

#include "bench_lib.h"

namespace krvbench {
namespace {

void *parse(const char *text, size_t len)
{
    return xmlReadMemory(text, static_cast<int>(len), "bench.xml", nullptr,
                         XML_PARSE_NONET | XML_PARSE_HUGE | XML_PARSE_NOBLANKS | XML_PARSE_NOERROR |
                             XML_PARSE_NOWARNING);
}

void release(void *doc)
{
    xmlFreeDoc(static_cast<xmlDocPtr>(doc));
}

struct Out {
    xmlChar *text;
    int size;
};

void *print(void *doc)
{
    auto *out = new Out{nullptr, 0};
    xmlDocDumpMemory(static_cast<xmlDocPtr>(doc), &out->text, &out->size);
    if (out->text == nullptr) {
        delete out;
        return nullptr;
    }
    return out;
}

size_t releaseOutput(void *o)
{
    auto *out = static_cast<Out *>(o);
    size_t n = static_cast<size_t>(out->size);
    xmlFree(out->text);
    delete out;
    return n;
}

void *clone(void *doc)
{
    return xmlCopyDoc(static_cast<xmlDocPtr>(doc), 1);
}

// libxml2 keeps the local name and the namespace prefix apart.
bool sameName(const xmlNode *n, const std::string &qname)
{
    const char *local = reinterpret_cast<const char *>(n->name);
    if (n->ns != nullptr && n->ns->prefix != nullptr) {
        const char *prefix = reinterpret_cast<const char *>(n->ns->prefix);
        size_t pl = std::strlen(prefix);
        return qname.size() > pl && qname.compare(0, pl, prefix) == 0 && qname[pl] == ':' &&
               qname.compare(pl + 1, std::string::npos, local) == 0;
    }
    return qname == local;
}

bool lookup(void *doc, const Query &q)
{
    xmlNode *root = xmlDocGetRootElement(static_cast<xmlDocPtr>(doc));
    if (root == nullptr || !sameName(root, q.root)) {
        return false;
    }
    size_t seen = 0;
    for (xmlNode *n = root->children; n != nullptr; n = n->next) {
        if (n->type == XML_ELEMENT_NODE && sameName(n, q.child) && ++seen == q.index) {
            return true;
        }
    }
    return false;
}

}  // namespace

void AddLibxml2(std::vector<Adapter> &out)
{
    xmlInitParser();
    out.push_back(Adapter{"libxml2", "DOM", parse, release, print, releaseOutput, clone, release,
                          lookup, nullptr});
}

}  // namespace krvbench
