// One parse in a fresh process: the time a program that reads one document
// sees, page faults of the new tree included (the peer driver keeps freed
// memory and repeats, so its trees land on memory already mapped).
//   one_shot FILE WHICH   (0: pugixml, 1: krv session, 2: krv heap); prints ms
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <cstring>
#include <pugixml.hpp>
#include "krv_xml.h"
int main(int argc, char **argv) {
    if (argc < 3) { fprintf(stderr, "usage: %s FILE 0|1|2\n", argv[0]); return 2; }
    FILE *f = fopen(argv[1], "rb"); fseek(f, 0, 2); long n = ftell(f); fseek(f, 0, 0);
    std::string s(n, 0); if (fread(&s[0], 1, n, f) != (size_t)n) return 1; fclose(f);
    int which = atoi(argv[2]);
    auto t0 = std::chrono::steady_clock::now();
    if (which == 0) { pugi::xml_document d; bool ok = d.load_buffer(s.data(), s.size());
      auto t1 = std::chrono::steady_clock::now(); printf("%.3f\n", std::chrono::duration<double, std::milli>(t1 - t0).count()); return ok ? 0 : 1; }
    XmlNode *doc = nullptr;
    unsigned rc = which == 1 ? KRV_XML_ParseEx(s.c_str(), &doc) : KRV_XML_Parse(s.c_str(), &doc);
    auto t1 = std::chrono::steady_clock::now();
    printf("%.3f\n", std::chrono::duration<double, std::milli>(t1 - t0).count());
    KRV_XML_FreeNode(doc);
    return rc != 0;
}
