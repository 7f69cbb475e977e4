// The peer comparison: one adapter per library, all driven the same way.
#ifndef KRV_BENCH_LIB_H
#define KRV_BENCH_LIB_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace krvbench {

// The same lookup for every library: from the root element, the index-th
// (1-based) child element whose qualified name is `child`. `url` is the
// dotted path that says this to KRV_XML_GetNodeByUrl.
struct Query {
    std::string root;
    std::string child;
    size_t index = 0;  // 0: no lookup for this document
    std::string url;
};

// What a library can do with a document in memory. Null function pointers
// mark operations the library has no equivalent for. Handles are opaque.
struct Adapter {
    const char *name;
    const char *kind;  // "DOM", "SAX scan, no tree", "baseline"
    // Parses len bytes at text (NUL-terminated at text[len]); null: refused.
    void *(*parse)(const char *text, size_t len);
    void (*release)(void *doc);
    // Prints the document to a string; null: failed. releaseOutput gives back
    // the text's length and frees it.
    void *(*print)(void *doc);
    size_t (*releaseOutput)(void *out);
    // A deep copy of the whole document, released by releaseClone.
    void *(*clone)(void *doc);
    void (*releaseClone)(void *copy);
    // Runs the query; true when the node was found.
    bool (*lookup)(void *doc, const Query &q);
    // Fills q for a parsed document (only the libraries used to plan lookups).
    bool (*describe)(void *doc, Query &q);
};

void AddBaselines(std::vector<Adapter> &out);
void AddKrv(std::vector<Adapter> &out);
void AddPugixml(std::vector<Adapter> &out);
void AddRapidxml(std::vector<Adapter> &out);
void AddTinyxml2(std::vector<Adapter> &out);
void AddLibxml2(std::vector<Adapter> &out);
void AddMxml(std::vector<Adapter> &out);
void AddExpat(std::vector<Adapter> &out);

// Heap accounting (alloc_count.cpp). While counting is on, every block from
// malloc and friends adds its usable size plus the allocator's 8-byte header
// to `live`, and every free subtracts it; `peak` is the highest `live` seen.
struct HeapCount {
    int64_t live;
    int64_t peak;
    int64_t blocks;
};
void HeapCountStart();
HeapCount HeapCountStop();
bool HeapCountExact();  // false in sanitizer builds: HeapCountStop gives -1s

// Appends s to out as a JSON string literal.
void JsonString(std::string &out, const std::string &s);

}  // namespace krvbench

#endif  // KRV_BENCH_LIB_H
