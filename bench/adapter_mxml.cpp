// Mini-XML: DOM with text kept as opaque strings. It has no deep copy.
#include <mxml.h>

#include <cstdlib>
#include <cstring>

#include "bench_lib.h"

namespace krvbench {
namespace {

void quiet(const char *) {}

void *parse(const char *text, size_t)
{
    return mxmlLoadString(nullptr, text, MXML_OPAQUE_CALLBACK);
}

void release(void *doc)
{
    mxmlDelete(static_cast<mxml_node_t *>(doc));
}

void *print(void *doc)
{
    return mxmlSaveAllocString(static_cast<mxml_node_t *>(doc), MXML_NO_CALLBACK);
}

size_t releaseOutput(void *out)
{
    size_t n = std::strlen(static_cast<char *>(out));
    std::free(out);
    return n;
}

bool lookup(void *doc, const Query &q)
{
    auto *top = static_cast<mxml_node_t *>(doc);
    mxml_node_t *root = mxmlFindElement(top, top, q.root.c_str(), nullptr, nullptr, MXML_DESCEND);
    if (root == nullptr) {
        return false;
    }
    mxml_node_t *n = mxmlFindElement(root, root, q.child.c_str(), nullptr, nullptr, MXML_DESCEND_FIRST);
    for (size_t i = 1; i < q.index && n != nullptr; ++i) {
        n = mxmlFindElement(n, root, q.child.c_str(), nullptr, nullptr, MXML_NO_DESCEND);
    }
    return n != nullptr;
}

}  // namespace

void AddMxml(std::vector<Adapter> &out)
{
    mxmlSetErrorCallback(quiet);
    out.push_back(Adapter{"mxml", "DOM", parse, release, print, releaseOutput, nullptr, nullptr,
                          lookup, nullptr});
}

}  // namespace krvbench
