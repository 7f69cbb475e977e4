// Times XML_MemSpecialMalloc per request for sessions of 10K to 10M requests.
#include <chrono>
#include <cstdio>
#include <malloc.h>
#include <vector>
#include "krv_xml_component.h"
int main() {
    mallopt(M_TRIM_THRESHOLD, 1 << 30); mallopt(M_MMAP_MAX, 0);
    std::vector<int> sizes(4096); unsigned x = 12345;
    for (auto &s : sizes) { x = x * 1103515245u + 12345u; s = 8 + (x >> 16) % 113; }
    for (long n : {10000L, 100000L, 1000000L, 10000000L}) {
        double best = 1e18;
        for (int r = 0; r < 3; ++r) {
            XmlMemSession *s = XML_MemSessionBegin(8192);
            auto t0 = std::chrono::steady_clock::now();
            for (long i = 0; i < n; ++i) XML_MemSpecialMalloc(s, sizes[i & 4095]);
            auto t1 = std::chrono::steady_clock::now();
            XML_MemSessionEnd(s);
            double ns = std::chrono::duration<double, std::nano>(t1 - t0).count() / n;
            if (ns < best) best = ns;
        }
        printf("%9ld requests: %.1f ns/request\n", n, best);
    }
}
