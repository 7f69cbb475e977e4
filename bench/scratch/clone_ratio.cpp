// Session clones of a 100 MB and a 1 MB document with several builds, in
// rounds: each round times, per build in turn (order rotating), one 100 MB
// clone and the median of M 1 MB clones, so that load from elsewhere falls
// on both sizes alike. Prints per build the medians and the per-round ratio.
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
static std::string load(const char *p) {
    FILE *f = fopen(p, "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
    std::string s(n, 0); fread(&s[0], 1, n, f); fclose(f); return s;
}
static double med(std::vector<double> v) { std::sort(v.begin(), v.end()); return v[v.size() / 2]; }
int main(int argc, char **argv) {
    mallopt(M_MMAP_MAX, 0); mallopt(M_TRIM_THRESHOLD, -1); mallopt(M_TOP_PAD, 64 << 20);
    std::string big = load(argv[1]), small = load(argv[2]);
    int rounds = atoi(argv[3]), m = atoi(argv[4]);
    int k = argc - 5;
    std::vector<CloneFn> clone(k); std::vector<FreeFn> fr(k); std::vector<XmlNode*> db(k), ds(k);
    std::vector<std::vector<double>> tb(k), ts(k), ratio(k);
    for (int i = 0; i < k; ++i) {
        void *h = dlopen(argv[5 + i], RTLD_NOW | RTLD_LOCAL);
        if (!h) { fprintf(stderr, "%s\n", dlerror()); return 1; }
        ParseFn parse = (ParseFn)dlsym(h, "KRV_XML_ParseEx");
        clone[i] = (CloneFn)dlsym(h, "KRV_XML_CloneNode");
        fr[i] = (FreeFn)dlsym(h, "KRV_XML_FreeNode");
        if (parse(big.c_str(), &db[i]) || parse(small.c_str(), &ds[i])) return 1;
    }
    auto once = [&](int i, XmlNode *d) {
        XmlNode *c = nullptr;
        auto t0 = std::chrono::steady_clock::now();
        if (clone[i](d, &c)) exit(1);
        auto t1 = std::chrono::steady_clock::now();
        fr[i](c);
        return std::chrono::duration<double, std::milli>(t1 - t0).count();
    };
    for (int r = 0; r < rounds + 1; ++r)
        for (int j = 0; j < k; ++j) {
            int i = (j + r) % k;
            double b = once(i, db[i]);
            std::vector<double> s;
            for (int q = 0; q < m; ++q) s.push_back(once(i, ds[i]));
            if (r == 0) continue;  // the untimed first round
            tb[i].push_back(b); ts[i].push_back(med(s)); ratio[i].push_back(b / med(s));
        }
    // Paired per round against the first build named: time of build i / time of build 0.
    for (int i = 1; i < k; ++i) {
        std::vector<double> rb, rs;
        for (size_t r = 0; r < tb[i].size(); ++r) { rb.push_back(tb[i][r] / tb[0][r]); rs.push_back(ts[i][r] / ts[0][r]); }
        printf("%s vs %s paired per round: 100MB x%.3f, 1MB x%.3f\n", argv[5 + i], argv[5], med(rb), med(rs));
    }
    for (int i = 0; i < k; ++i) {
        double minb = *std::min_element(tb[i].begin(), tb[i].end());
        double mins = *std::min_element(ts[i].begin(), ts[i].end());
        printf("%-34s 100MB med %.2f min %.2f | 1MB med %.4f min %.4f | ratio med-of-rounds %.1f, med/med %.1f, min/min %.1f\n",
               argv[5 + i], med(tb[i]), minb, med(ts[i]), mins, med(ratio[i]), med(tb[i]) / med(ts[i]), minb / mins);
    }
}
