// Session clone of one parsed document with several builds, alternated in one process
// (KRVBENCH_HEAP set in the environment: heap documents and heap copies).
#include <dlfcn.h>
#include <malloc.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>
#include <algorithm>
#include <cstdint>
struct XmlNode;
typedef uint32_t (*ParseFn)(const char *, XmlNode **);
typedef uint32_t (*CloneFn)(XmlNode *, XmlNode **);
typedef void (*FreeFn)(XmlNode *);
int main(int argc, char **argv) {
    mallopt(M_MMAP_MAX, 0); mallopt(M_TRIM_THRESHOLD, -1);
    FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
    std::string s(n, 0); fread(&s[0], 1, n, f); fclose(f);
    int reps = atoi(argv[2]);
    int k = argc - 3;
    std::vector<CloneFn> clone(k); std::vector<FreeFn> fr(k); std::vector<XmlNode*> doc(k);
    std::vector<std::vector<double>> t(k);
    for (int i = 0; i < k; ++i) {
        void *h = dlopen(argv[3 + i], RTLD_NOW | RTLD_LOCAL);
        if (!h) { fprintf(stderr, "%s\n", dlerror()); return 1; }
        ParseFn parse = (ParseFn)dlsym(h, getenv("KRVBENCH_HEAP") ? "KRV_XML_Parse" : "KRV_XML_ParseEx");
        clone[i] = (CloneFn)dlsym(h, "KRV_XML_CloneNode");
        fr[i] = (FreeFn)dlsym(h, "KRV_XML_FreeNode");
        if (parse(s.c_str(), &doc[i])) return 1;
    }
    for (int r = 0; r < reps + 1; ++r)
        for (int i = 0; i < k; ++i) {
            XmlNode *c = nullptr;
            auto t0 = std::chrono::steady_clock::now();
            if (clone[i](doc[i], &c)) return 1;
            auto t1 = std::chrono::steady_clock::now();
            fr[i](c);
            if (r) t[i].push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        }
    for (int i = 0; i < k; ++i) {
        std::sort(t[i].begin(), t[i].end());
        printf("%-40s median %.4f  q1 %.4f ms\n", argv[3 + i], t[i][t[i].size() / 2], t[i][t[i].size() / 4]);
    }
}
