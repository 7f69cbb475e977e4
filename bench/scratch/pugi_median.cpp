// pugixml's counterpart of parse_median: parses one file N times from memory
// and prints the best and median parse times (document destroyed untimed).
//   g++ -O2 bench/scratch/pugi_median.cpp -o /tmp/pugi_median -lpugixml
#include <pugixml.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>
int main(int argc, char **argv) {
    FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
    std::string s(n, 0); fread(&s[0], 1, n, f); fclose(f);
    int reps = argc > 2 ? atoi(argv[2]) : 5;
    std::vector<double> t;
    t.reserve(reps);  // see parse_median
    for (int r = 0; r < reps; ++r) {
        pugi::xml_document d;
        auto t0 = std::chrono::steady_clock::now();
        if (!d.load_buffer(s.data(), s.size())) { printf("parse failed\n"); return 1; }
        auto t1 = std::chrono::steady_clock::now();
        t.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    std::sort(t.begin(), t.end());
    printf("pugixml parse best %.3f median %.3f ms (%.0f MB/s median)\n", t[0], t[t.size()/2], n / 1e6 / (t[t.size()/2] / 1e3));
}
