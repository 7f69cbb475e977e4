// rapidxml: parses in place, so the adapter copies the const input into a
// buffer the document keeps (that copy is part of its parse time and memory).
// rapidxml reports errors by exception; this file is built with exceptions.
#include <rapidxml/rapidxml.hpp>
#include <rapidxml/rapidxml_print.hpp>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "bench_lib.h"

namespace krvbench {
namespace {

struct Doc {
    rapidxml::xml_document<> doc;
    char *text = nullptr;
    ~Doc() { std::free(text); }
};

void *parse(const char *text, size_t len)
{
    auto *d = new Doc;
    d->text = static_cast<char *>(std::malloc(len + 1));
    if (d->text == nullptr) {
        delete d;
        return nullptr;
    }
    std::memcpy(d->text, text, len + 1);
    try {
        d->doc.parse<0>(d->text);
    } catch (const rapidxml::parse_error &) {
        delete d;
        return nullptr;
    }
    return d;
}

void release(void *doc)
{
    delete static_cast<Doc *>(doc);
}

void *print(void *doc)
{
    auto *s = new std::string;
    rapidxml::print(std::back_inserter(*s), static_cast<Doc *>(doc)->doc, rapidxml::print_no_indenting);
    return s;
}

size_t releaseOutput(void *out)
{
    auto *s = static_cast<std::string *>(out);
    size_t n = s->size();
    delete s;
    return n;
}

// The copy is carved from the document's own pool, as rapidxml does it; it
// goes when the document goes.
void *clone(void *doc)
{
    auto *d = static_cast<Doc *>(doc);
    return d->doc.clone_node(&d->doc);
}

void keep(void *) {}

bool lookup(void *doc, const Query &q)
{
    auto *root = static_cast<Doc *>(doc)->doc.first_node(q.root.c_str(), q.root.size());
    if (root == nullptr) {
        return false;
    }
    auto *n = root->first_node(q.child.c_str(), q.child.size());
    for (size_t i = 1; i < q.index && n != nullptr; ++i) {
        n = n->next_sibling(q.child.c_str(), q.child.size());
    }
    return n != nullptr;
}

}  // namespace

void AddRapidxml(std::vector<Adapter> &out)
{
    out.push_back(Adapter{"rapidxml", "DOM, in place", parse, release, print, releaseOutput, clone,
                          keep, lookup, nullptr});
}

}  // namespace krvbench
