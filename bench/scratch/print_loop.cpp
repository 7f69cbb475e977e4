// Prints one parsed document REPS times: best and median ms (0 as third argument: heap).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <algorithm>
#include <vector>
#include <malloc.h>
#include "krv_xml.h"
int main(int argc, char **argv) {
  mallopt(M_MMAP_MAX, 0); mallopt(M_TRIM_THRESHOLD, INT32_MAX);
  FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
  std::string s(n, 0); if (fread(&s[0], 1, n, f) != (size_t)n) return 1; fclose(f);
  int reps = atoi(argv[2]); int heap = argc > 3 && atoi(argv[3]) == 0;
  XmlNode *doc = nullptr; if ((heap ? KRV_XML_Parse(s.c_str(), &doc) : KRV_XML_ParseEx(s.c_str(), &doc))) return 1;
  std::vector<double> t;
  for (int r = 0; r < reps; ++r) {
    char *out = nullptr;
    auto t0 = std::chrono::steady_clock::now();
    KRV_XML_Transform(doc, &out);
    auto t1 = std::chrono::steady_clock::now();
    KRV_XML_FreeMem(out);
    t.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
  }
  std::sort(t.begin(), t.end());
  printf("print best %.3f median %.3f ms\n", t[0], t[t.size()/2]);
}
