// Parses one file with the heap (mode 0) or session (mode 1) entry point and prints the best time.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include "krv_xml.h"
int main(int argc, char **argv) {
    FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
    std::string s(n, 0); fread(&s[0], 1, n, f); fclose(f);
    int mode = atoi(argv[2]); int reps = argc > 3 ? atoi(argv[3]) : 5;
    double best = 1e9;
    for (int r = 0; r < reps; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        XmlNode *doc = nullptr;
        unsigned rc = mode == 0 ? KRV_XML_Parse(s.c_str(), &doc) : KRV_XML_ParseEx(s.c_str(), &doc);
        auto t1 = std::chrono::steady_clock::now();
        KRV_XML_FreeNode(doc);
        double ms = std::chrono::duration<double, std::milli>(t1 - t0).count();
        if (ms < best) best = ms;
        if (rc) { printf("rc %x\n", rc); return 1; }
    }
    printf("%s parse best %.3f ms (%.0f MB/s)\n", mode ? "session" : "heap", best, n / 1e6 / (best / 1e3));
}
