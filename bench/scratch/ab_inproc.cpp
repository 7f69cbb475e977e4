// Times builds of the library against each other in one process: each
// build is loaded with dlopen from its own path, and the parses alternate
// between builds, so that the machine's slow and fast phases fall on all of
// them alike.
//   ab_inproc FILE MODE REPS LIB...
// MODE 0: heap parse, 1: session parse; 2 and 3: printing (KRV_XML_Transform)
// of a document each build parsed once, on the heap or in a session; 4 and 5:
// path lookups (KRV_XML_GetNodeByUrl) in such a document of the last child of
// the root named like its first child, the lookup that krvbench_op times;
// 6 and 7: the same lookups sixteen at a time, timed as a batch (ms per
// lookup), so that the walk finds the lines it read just before in the caches,
// as in krvbench_peers.
// Prints per build the median and the first quartile of the times, ms.
#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "krv_xml.h"
#include "scratch_file.h"

namespace {

struct Build {
    const char *path;
    uint32_t (*parse)(const char *, XmlNode **);
    uint32_t (*free)(XmlNode *);
    uint32_t (*transform)(XmlNode *, char **);
    void (*freeMem)(void *);
    uint32_t (*lookup)(XmlNode *, const char *, XmlNode **);
    XmlNode *doc;
    std::vector<double> ms;
};

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s FILE MODE REPS LIB...\n", argv[0]);
        return 2;
    }
    scratchKeepHeap();
    std::string text;
    if (!scratchReadFile(argv[1], text)) {
        return 2;
    }
    int mode = std::atoi(argv[2]);
    bool session = mode % 2 == 1;
    bool print = mode == 2 || mode == 3;
    bool lookup = mode >= 4;
    int batch = mode >= 6 ? 16 : 1;
    std::string url;
    int reps = std::atoi(argv[3]);
    std::vector<Build> builds;
    for (int i = 4; i < argc; ++i) {
        void *h = dlopen(argv[i], RTLD_NOW | RTLD_LOCAL);
        if (h == nullptr) {
            std::fprintf(stderr, "%s\n", dlerror());
            return 2;
        }
        Build b{argv[i], nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, {}};
        b.lookup = reinterpret_cast<uint32_t (*)(XmlNode *, const char *, XmlNode **)>(
            dlsym(h, "KRV_XML_GetNodeByUrl"));
        b.transform = reinterpret_cast<uint32_t (*)(XmlNode *, char **)>(dlsym(h, "KRV_XML_Transform"));
        b.freeMem = reinterpret_cast<void (*)(void *)>(dlsym(h, "KRV_XML_FreeMem"));
        b.parse = reinterpret_cast<uint32_t (*)(const char *, XmlNode **)>(
            dlsym(h, session ? "KRV_XML_ParseEx" : "KRV_XML_Parse"));
        b.free = reinterpret_cast<uint32_t (*)(XmlNode *)>(dlsym(h, "KRV_XML_FreeNode"));
        if (b.parse == nullptr || b.free == nullptr || b.transform == nullptr || b.freeMem == nullptr ||
            b.lookup == nullptr) {
            return 2;
        }
        if ((print || lookup) && b.parse(text.c_str(), &b.doc) != 0) {
            return 1;
        }
        if (lookup && url.empty()) {
            size_t count = 0;
            for (XmlNode *c = b.doc->firstChild; c != nullptr; c = c->next) {
                count += c->name != nullptr && std::strcmp(c->name, b.doc->firstChild->name) == 0 ? 1 : 0;
            }
            url = std::string(b.doc->name) + "." + b.doc->firstChild->name + "." + std::to_string(count);
        }
        b.ms.reserve(static_cast<size_t>(reps));
        builds.push_back(b);
    }
    for (int r = -3; r < reps; ++r) {  // three untimed rounds first
        for (Build &b : builds) {
            XmlNode *doc = nullptr;
            char *out = nullptr;
            XmlNode *found = nullptr;
            auto t0 = std::chrono::steady_clock::now();
            uint32_t rc = 0;
            for (int k = 0; k < batch; ++k) {
                rc |= lookup  ? b.lookup(b.doc, url.c_str(), &found)
                      : print ? b.transform(b.doc, &out)
                              : b.parse(text.c_str(), &doc);
            }
            auto t1 = std::chrono::steady_clock::now();
            b.free(doc);
            b.freeMem(out);
            if (rc != 0) {
                std::fprintf(stderr, "%s: result %x\n", b.path, rc);
                return 1;
            }
            if (r >= 0) {
                b.ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count() / batch);
            }
        }
    }
    for (Build &b : builds) {
        std::sort(b.ms.begin(), b.ms.end());
        std::printf("%-40s median %.4f  q1 %.4f ms\n", b.path, b.ms[b.ms.size() / 2],
                    b.ms[b.ms.size() / 4]);
        b.free(b.doc);
    }
    return 0;
}
