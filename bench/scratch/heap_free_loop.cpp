// Parses one file into a heap tree and releases it, N times, printing the time
// of each parse and each release (mallopt as the peer driver: freed memory stays).
//   heap_free_loop FILE N
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <string>
#include "krv_xml.h"
int main(int argc, char **argv) {
    mallopt(M_MMAP_MAX, 0); mallopt(M_TRIM_THRESHOLD, INT32_MAX); mallopt(M_TOP_PAD, 64 << 20);
    FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
    std::string s(n, 0); fread(&s[0], 1, n, f); fclose(f);
    int reps = atoi(argv[2]);
    for (int r = 0; r < reps; ++r) {
        XmlNode *doc = nullptr;
        auto t0 = std::chrono::steady_clock::now();
        KRV_XML_Parse(s.c_str(), &doc);
        auto t1 = std::chrono::steady_clock::now();
        KRV_XML_FreeNode(doc);
        auto t2 = std::chrono::steady_clock::now();
        printf("parse %.2f free %.2f ms\n", std::chrono::duration<double, std::milli>(t1 - t0).count(), std::chrono::duration<double, std::milli>(t2 - t1).count());
    }
}
