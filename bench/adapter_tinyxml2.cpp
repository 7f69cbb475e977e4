// tinyxml2: DOM with whitespace preserved, compact printer.
#include <tinyxml2.h>

#include "bench_lib.h"

namespace krvbench {
namespace {

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

void *parse(const char *text, size_t len)
{
    auto *doc = new XMLDocument(true, tinyxml2::PRESERVE_WHITESPACE);
    if (doc->Parse(text, len) != tinyxml2::XML_SUCCESS) {
        delete doc;
        return nullptr;
    }
    return doc;
}

void release(void *doc)
{
    delete static_cast<XMLDocument *>(doc);
}

void *print(void *doc)
{
    auto *printer = new tinyxml2::XMLPrinter(nullptr, true);
    static_cast<XMLDocument *>(doc)->Print(printer);
    return printer;
}

size_t releaseOutput(void *out)
{
    auto *printer = static_cast<tinyxml2::XMLPrinter *>(out);
    size_t n = static_cast<size_t>(printer->CStrSize()) - 1;
    delete printer;
    return n;
}

void *clone(void *doc)
{
    auto *copy = new XMLDocument;
    static_cast<XMLDocument *>(doc)->DeepCopy(copy);
    return copy;
}

bool lookup(void *doc, const Query &q)
{
    XMLElement *root = static_cast<XMLDocument *>(doc)->RootElement();
    if (root == nullptr || q.root != root->Name()) {
        return false;
    }
    XMLElement *n = root->FirstChildElement(q.child.c_str());
    for (size_t i = 1; i < q.index && n != nullptr; ++i) {
        n = n->NextSiblingElement(q.child.c_str());
    }
    return n != nullptr;
}

}  // namespace

void AddTinyxml2(std::vector<Adapter> &out)
{
    out.push_back(Adapter{"tinyxml2", "DOM", parse, release, print, releaseOutput, clone, release,
                          lookup, nullptr});
}

}  // namespace krvbench
