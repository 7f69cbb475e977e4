// Repeats the peer driver's cycle on a heap tree (parse, print, clone and
// free the clone, free the tree) and times the print, optionally after one
// plain malloc of PROBE bytes made right after the parse, so that the cost
// glibc puts on the first large request in that state shows apart from the
// print itself.   heap_print_cycle FILE REPEATS [PROBE]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <malloc.h>
#include <sstream>
#include <string>
#include "krv_xml.h"
static double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
int main(int argc, char **argv) {
    if (argc < 3) return 2;
    std::ifstream in(argv[1], std::ios::binary); std::ostringstream ss; ss << in.rdbuf();
    const std::string text = ss.str();
    int reps = std::atoi(argv[2]); size_t probe = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0;
    mallopt(M_MMAP_MAX, 0); mallopt(M_TRIM_THRESHOLD, INT32_MAX); mallopt(M_TOP_PAD, 64 << 20);  // as the driver
    for (int r = 0; r < reps; ++r) {
        XmlNode *doc = nullptr;
        if (KRV_XML_Parse(text.c_str(), &doc) != KRV_XML_OK) return 1;
        double a = now(); void *p = probe != 0 ? std::malloc(probe) : nullptr; double b = now();
        char *out = nullptr;
        double t0 = now(); uint32_t rc = KRV_XML_Transform(doc, &out); double t1 = now();
        std::free(p);
        std::printf("rep %d rc %u malloc %.3f ms print %.3f ms\n", r, rc, (b - a) * 1e3, (t1 - t0) * 1e3);
        KRV_XML_FreeMem(out);
        XmlNode *copy = nullptr;
        if (KRV_XML_CloneNode(doc, &copy) == KRV_XML_OK) KRV_XML_FreeNode(copy);
        KRV_XML_FreeNode(doc);
    }
}
