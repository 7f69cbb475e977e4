// A read-only walk of a session tree (every record, every string read) against its copy:
// what reading the source costs the copy. With DIST and LINES, the walk asks for LINES lines
// 256 bytes apart from DIST bytes past each record.   walk_floor FILE REPS [DIST LINES]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <algorithm>
#include <vector>
#include <malloc.h>
#include "krv_xml.h"
static double now() { return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
static int PD = 0, PN = 3;
static size_t walk(const XmlNode *top) {
  size_t acc = 0; const XmlNode *cur = top;
  for (;;) {
    if (PD) { for (int k = 0; k < PN; ++k) __builtin_prefetch((const char*)cur + PD + 256*k); }
    if (cur->name) acc += strlen(cur->name);
    if (cur->value) acc += strlen(cur->value);
    for (const XmlNode *a = cur->firstAttr; a; a = a->next) { acc += strlen(a->name); if (a->value) acc += strlen(a->value); }
    if (cur->firstChild) { cur = cur->firstChild; continue; }
    while (cur != top && !cur->next) cur = cur->parent;
    if (cur == top) break;
    cur = cur->next;
  }
  return acc;
}
int main(int argc, char **argv) {
  mallopt(M_MMAP_MAX, 0); mallopt(M_TRIM_THRESHOLD, INT32_MAX);
  FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
  std::string s(n, 0); if (fread(&s[0], 1, n, f) != (size_t)n) return 1; fclose(f);
  int reps = atoi(argv[2]);
  if (argc > 4) { PD = atoi(argv[3]); PN = atoi(argv[4]); }
  XmlNode *doc = nullptr; if (KRV_XML_ParseEx(s.c_str(), &doc)) return 1;
  std::vector<double> tw, tc; size_t acc = 0;
  for (int r = 0; r < reps; ++r) {
    double t0 = now(); acc += walk(doc); double t1 = now();
    XmlNode *copy = nullptr; KRV_XML_CloneNode(doc, &copy); double t2 = now();
    KRV_XML_FreeNode(copy);
    tw.push_back(t1 - t0); tc.push_back(t2 - t1);
  }
  std::sort(tw.begin(), tw.end()); std::sort(tc.begin(), tc.end());
  printf("walk best %.3f med %.3f | clone best %.3f med %.3f (%zu)\n", tw[0], tw[reps/2], tc[0], tc[reps/2], acc);
}
