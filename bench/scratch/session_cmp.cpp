// Clones a parsed document with two builds (after dirtying freed heap memory)
// and compares the copies' session block chains byte by byte, pointers into
// the chain rewritten as (block, offset).
#include <dlfcn.h>
#include <malloc.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <cstdint>
#include <algorithm>
#include "krv_xml.h"
#include "xml/xml_internal.h"
typedef uint32_t (*ParseFn)(const char *, XmlNode **);
typedef uint32_t (*CloneFn)(XmlNode *, XmlNode **);
typedef void (*FreeFn)(XmlNode *);
static const size_t kHdr = (sizeof(XmlMemSession) + 7) & ~size_t{7};
static std::vector<uint64_t> dump(XmlMemSession *s) {
    std::vector<XmlMemSession *> blocks;
    for (XmlMemSession *b = s; b; b = b->nextBlock) blocks.push_back(b);
    std::vector<std::pair<uintptr_t, size_t>> sorted;
    for (size_t j = 0; j < blocks.size(); ++j) sorted.push_back({(uintptr_t)blocks[j], j});
    std::sort(sorted.begin(), sorted.end());
    std::vector<uint64_t> out;
    out.push_back(blocks.size());
    for (size_t i = 0; i < blocks.size(); ++i) {
        XmlMemSession *b = blocks[i];
        out.push_back(b->capacity); out.push_back(b->freeBytes); out.push_back(b->ordinal);
        size_t n = kHdr + b->capacity;
        const uint8_t *base = (const uint8_t *)b;
        for (size_t off = 0; off < n; off += 8) {
            uint64_t w; memcpy(&w, base + off, 8);
            bool mapped = false;
            auto it = std::upper_bound(sorted.begin(), sorted.end(), std::make_pair((uintptr_t)w, SIZE_MAX));
            if (it != sorted.begin()) {
                --it;
                uintptr_t lo = it->first, hi = lo + kHdr + blocks[it->second]->capacity;
                if (w >= lo && w <= hi) { out.push_back(0xF000000000000000ull | (it->second << 24) | (w - lo)); mapped = true; }
            }
            if (!mapped) out.push_back(off == offsetof(XmlMemSession, index) ? (w != 0) : w);
        }
    }
    return out;
}
int main(int argc, char **argv) {
    mallopt(M_MMAP_MAX, 0); mallopt(M_TRIM_THRESHOLD, -1);
    FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
    std::string s(n, 0); fread(&s[0], 1, n, f); fclose(f);
    std::vector<uint64_t> d[2], dp[2];
    for (int i = 0; i < 2; ++i) {
        void *h = dlopen(argv[2 + i], RTLD_NOW | RTLD_LOCAL);
        if (!h) { fprintf(stderr, "%s\n", dlerror()); return 1; }
        ParseFn parse = (ParseFn)dlsym(h, "KRV_XML_ParseEx");
        CloneFn clone = (CloneFn)dlsym(h, "KRV_XML_CloneNode");
        FreeFn fr = (FreeFn)dlsym(h, "KRV_XML_FreeNode");
        size_t dirty = 4 * (size_t)n + (64u << 20);
        char *junk = (char *)malloc(dirty); memset(junk, 0xAB, dirty); free(junk);
        XmlNode *doc = nullptr, *c = nullptr;
        if (parse(s.c_str(), &doc)) return 1;
        if (clone(doc, &c)) return 1;
        fr(c);  // the second copy reuses the first's freed slabs
        junk = (char *)malloc(dirty); memset(junk, 0xCD, dirty); free(junk);
        if (clone(doc, &c)) return 1;
        d[i] = dump(c->mem);
        dp[i] = dump(doc->mem);
        fr(c); fr(doc);
    }
    size_t diff = 0;
    for (size_t k = 0; k < d[0].size() && k < d[1].size(); ++k) diff += d[0][k] != d[1][k];
    size_t pdiff = dp[0].size() != dp[1].size();
    for (size_t k = 0; k < dp[0].size() && k < dp[1].size(); ++k) pdiff += dp[0][k] != dp[1][k];
    printf("parsed session: blocks %llu / %llu, differing %zu; ", (unsigned long long)dp[0][0], (unsigned long long)dp[1][0], pdiff);
    if (pdiff) return 1;
    printf("%s: blocks %llu / %llu, words %zu / %zu, differing %zu\n", argv[1], (unsigned long long)d[0][0],
           (unsigned long long)d[1][0], d[0].size(), d[1].size(), diff);
    return diff != 0 || d[0].size() != d[1].size();
}
