// Parses one file N times (mode 1: session, 0: heap) and prints the best and median parse times.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <algorithm>
#include <vector>
#include "krv_xml.h"
int main(int argc, char **argv) {
    FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
    std::string s(n, 0); fread(&s[0], 1, n, f); fclose(f);
    int mode = atoi(argv[2]); int reps = argc > 3 ? atoi(argv[3]) : 5;
    std::vector<double> t; double freeTot = 0;
    // Reserved up front: a vector growing between parses would pin the heap
    // top and keep glibc from trimming, which a real loop does not do.
    t.reserve(reps);
    for (int r = 0; r < reps; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        XmlNode *doc = nullptr;
        unsigned rc = mode == 0 ? KRV_XML_Parse(s.c_str(), &doc) : KRV_XML_ParseEx(s.c_str(), &doc);
        auto t1 = std::chrono::steady_clock::now();
        KRV_XML_FreeNode(doc);
        auto t2 = std::chrono::steady_clock::now();
        t.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        freeTot += std::chrono::duration<double, std::milli>(t2 - t1).count();
        if (rc) { printf("rc %x\n", rc); return 1; }
    }
    std::sort(t.begin(), t.end());
    printf("%s parse best %.3f median %.3f ms (%.0f MB/s median), free avg %.3f\n", mode ? "session" : "heap", t[0], t[t.size()/2], n / 1e6 / (t[t.size()/2] / 1e3), freeTot/reps);
}
