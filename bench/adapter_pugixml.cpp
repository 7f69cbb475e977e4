// pugixml: the reference for the ratios. Parse from a const buffer (pugixml
// copies it), default parse options, raw output without declaration.
#include <pugixml.hpp>

#include <string>

#include "bench_lib.h"

namespace krvbench {
namespace {

void *parse(const char *text, size_t len)
{
    auto *doc = new pugi::xml_document;
    if (!doc->load_buffer(text, len, pugi::parse_default, pugi::encoding_utf8)) {
        delete doc;
        return nullptr;
    }
    return doc;
}

void release(void *doc)
{
    delete static_cast<pugi::xml_document *>(doc);
}

struct StringWriter : pugi::xml_writer {
    std::string text;
    void write(const void *data, size_t size) override
    {
        text.append(static_cast<const char *>(data), size);
    }
};

void *print(void *doc)
{
    auto *w = new StringWriter;
    static_cast<pugi::xml_document *>(doc)->save(*w, "", pugi::format_raw | pugi::format_no_declaration,
                                                 pugi::encoding_utf8);
    return w;
}

size_t releaseOutput(void *out)
{
    auto *w = static_cast<StringWriter *>(out);
    size_t n = w->text.size();
    delete w;
    return n;
}

void *clone(void *doc)
{
    auto *copy = new pugi::xml_document;
    copy->reset(*static_cast<pugi::xml_document *>(doc));
    return copy;
}

bool lookup(void *doc, const Query &q)
{
    pugi::xml_node root = static_cast<pugi::xml_document *>(doc)->document_element();
    if (q.root != root.name()) {
        return false;
    }
    pugi::xml_node n = root.child(q.child.c_str());
    for (size_t i = 1; i < q.index && n; ++i) {
        n = n.next_sibling(q.child.c_str());
    }
    return static_cast<bool>(n);
}

bool describe(void *doc, Query &q)
{
    pugi::xml_node root = static_cast<pugi::xml_document *>(doc)->document_element();
    pugi::xml_node first = root.first_child();
    while (first && first.type() != pugi::node_element) {
        first = first.next_sibling();
    }
    if (!root || !first) {
        return false;
    }
    q.root = root.name();
    q.child = first.name();
    q.index = 0;
    for (pugi::xml_node n = root.child(first.name()); n; n = n.next_sibling(first.name())) {
        ++q.index;
    }
    return true;
}

}  // namespace

void AddPugixml(std::vector<Adapter> &out)
{
    out.push_back(Adapter{"pugixml", "DOM", parse, release, print, releaseOutput, clone, release,
                          lookup, describe});
}

}  // namespace krvbench
