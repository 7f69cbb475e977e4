// Times the session parse of one build in the benchmark's own cycle: each
// repetition parses (timed), prints, copies and frees, with the benchmark's
// heap settings, in a process of its own. Best and median parse in ms.
#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "krv_xml.h"

int main(int argc, char **argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s FILE REPS LIB\n", argv[0]);
        return 2;
    }
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, INT32_MAX);
    mallopt(M_TOP_PAD, 64 << 20);
    FILE *f = std::fopen(argv[1], "rb");
    if (f == nullptr) {
        return 2;
    }
    std::string text;
    char buf[65536];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, f)) != 0;) {
        text.append(buf, n);
    }
    std::fclose(f);
    int reps = std::atoi(argv[2]);
    void *h = dlopen(argv[3], RTLD_NOW | RTLD_LOCAL);
    if (h == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    auto parse = reinterpret_cast<uint32_t (*)(const char *, XmlNode **)>(dlsym(h, "KRV_XML_ParseEx"));
    auto print = reinterpret_cast<uint32_t (*)(XmlNode *, char **)>(dlsym(h, "KRV_XML_Transform"));
    auto clone = reinterpret_cast<uint32_t (*)(XmlNode *, XmlNode **)>(dlsym(h, "KRV_XML_CloneNode"));
    auto freeNode = reinterpret_cast<uint32_t (*)(XmlNode *)>(dlsym(h, "KRV_XML_FreeNode"));
    auto freeMem = reinterpret_cast<void (*)(void *)>(dlsym(h, "KRV_XML_FreeMem"));
    std::vector<double> ms;
    for (int r = -1; r < reps; ++r) {  // one untimed round first
        XmlNode *doc = nullptr;
        auto t0 = std::chrono::steady_clock::now();
        uint32_t rc = parse(text.c_str(), &doc);
        auto t1 = std::chrono::steady_clock::now();
        if (rc != 0) {
            std::fprintf(stderr, "result %x\n", rc);
            return 1;
        }
        char *out = nullptr;
        print(doc, &out);
        freeMem(out);
        XmlNode *copy = nullptr;
        clone(doc, &copy);
        freeNode(copy);
        freeNode(doc);
        if (r >= 0) {
            ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        }
    }
    std::sort(ms.begin(), ms.end());
    std::printf("best %.4f median %.4f ms\n", ms[0], ms[ms.size() / 2]);
    return 0;
}
