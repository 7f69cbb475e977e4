// One heap build, the peer driver's cycle (parse, print, clone, free the clone,
// free the tree): minimum and median of print, clone and free by wall clock and
// by this thread's CPU time, to see what time slices of other processes add.
//   clocks FILE REPS
#include <malloc.h>
#include <time.h>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>
#include "krv_xml.h"
static double clk(clockid_t id) { timespec ts; clock_gettime(id, &ts); return ts.tv_sec * 1e3 + ts.tv_nsec * 1e-6; }
int main(int argc, char **argv)
{
    mallopt(M_MMAP_MAX, 0); mallopt(M_TRIM_THRESHOLD, INT32_MAX); mallopt(M_TOP_PAD, 64 << 20);
    FILE *f = std::fopen(argv[1], "rb"); std::fseek(f, 0, SEEK_END); long n = std::ftell(f); std::fseek(f, 0, SEEK_SET);
    std::string text(n, '\0'); if (std::fread(&text[0], 1, n, f) != (size_t)n) return 2; std::fclose(f);
    int reps = std::atoi(argv[2]);
    std::vector<double> t[2][3];
    for (int r = -1; r < reps; ++r) {
        XmlNode *doc = nullptr, *copy = nullptr; char *out = nullptr;
        if (KRV_XML_Parse(text.c_str(), &doc) != 0) return 1;
        double w[6], c[6];
        w[0] = clk(CLOCK_MONOTONIC); c[0] = clk(CLOCK_THREAD_CPUTIME_ID);
        KRV_XML_Transform(doc, &out);
        w[1] = clk(CLOCK_MONOTONIC); c[1] = clk(CLOCK_THREAD_CPUTIME_ID);
        KRV_XML_FreeMem(out);
        w[2] = clk(CLOCK_MONOTONIC); c[2] = clk(CLOCK_THREAD_CPUTIME_ID);
        KRV_XML_CloneNode(doc, &copy);
        w[3] = clk(CLOCK_MONOTONIC); c[3] = clk(CLOCK_THREAD_CPUTIME_ID);
        KRV_XML_FreeNode(copy);
        w[4] = clk(CLOCK_MONOTONIC); c[4] = clk(CLOCK_THREAD_CPUTIME_ID);
        KRV_XML_FreeNode(doc);
        w[5] = clk(CLOCK_MONOTONIC); c[5] = clk(CLOCK_THREAD_CPUTIME_ID);
        if (r < 0) continue;
        t[0][0].push_back(w[1] - w[0]); t[0][1].push_back(w[3] - w[2]); t[0][2].push_back(w[5] - w[4]);
        t[1][0].push_back(c[1] - c[0]); t[1][1].push_back(c[3] - c[2]); t[1][2].push_back(c[5] - c[4]);
    }
    const char *names[3] = {"print", "clone", "free"};
    for (int k = 0; k < 2; ++k) {
        std::printf("%s", k == 0 ? "wall" : "cpu ");
        for (int o = 0; o < 3; ++o) {
            std::sort(t[k][o].begin(), t[k][o].end());
            std::printf("  %s min %.4f med %.4f", names[o], t[k][o][0], t[k][o][t[k][o].size() / 2]);
        }
        std::printf("\n");
    }
}
