// Session clone of a parsed document, N times: best and median ms.
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
    int reps = atoi(argv[2]);
    XmlNode *doc = nullptr;
    if (KRV_XML_ParseEx(s.c_str(), &doc)) return 1;
    std::vector<double> t; t.reserve(reps);
    for (int r = 0; r < reps; ++r) {
        XmlNode *copy = nullptr;
        auto t0 = std::chrono::steady_clock::now();
        unsigned rc = KRV_XML_CloneNode(doc, &copy);
        auto t1 = std::chrono::steady_clock::now();
        KRV_XML_FreeNode(copy);
        if (rc) return 1;
        t.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    std::sort(t.begin(), t.end());
    printf("clone best %.3f median %.3f ms\n", t[0], t[t.size()/2]);
    KRV_XML_FreeNode(doc);
}
