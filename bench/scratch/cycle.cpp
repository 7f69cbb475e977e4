// Repeats the peer driver's cycle (parse, print, clone and free the clone, free the tree)
// and prints the time of each step per pass.   cycle FILE N [1: session]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <string>
#include "krv_xml.h"
static double now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }
int main(int argc, char **argv) {
    mallopt(M_MMAP_MAX, 0); mallopt(M_TRIM_THRESHOLD, INT32_MAX); mallopt(M_TOP_PAD, 64 << 20);
    FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
    std::string s(n, 0); if (fread(&s[0], 1, n, f) != (size_t)n) return 1; fclose(f);
    int reps = atoi(argv[2]); bool session = argc > 3 && atoi(argv[3]) == 1;
    for (int r = 0; r < reps; ++r) {
        XmlNode *doc = nullptr;
        double t0 = now();
        if ((session ? KRV_XML_ParseEx(s.c_str(), &doc) : KRV_XML_Parse(s.c_str(), &doc)) != 0) return 1;
        double t1 = now();
        char *out = nullptr; KRV_XML_Transform(doc, &out);
        double t2 = now();
        KRV_XML_FreeMem(out);
        XmlNode *copy = nullptr;
        double t3 = now(); KRV_XML_CloneNode(doc, &copy); double t4 = now();
        KRV_XML_FreeNode(copy);
        double t5 = now(); KRV_XML_FreeNode(doc); double t6 = now();
        printf("rep %d parse %.3f print %.3f clone %.3f free %.3f ms\n", r, (t1-t0)*1e3, (t2-t1)*1e3, (t4-t3)*1e3, (t6-t5)*1e3);
    }
}
