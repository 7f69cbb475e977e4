// An element of N attributes whose first ten were renamed onto one prefix and
// name, so that its list keeps no index; then N sets of existing attributes
// (the last ones, each found by a walk of the whole list): their time.
//   unindexable N [h|s]   (h: heap tree, s: session)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include "krv_xml.h"
int main(int argc, char **argv)
{
    int n = argc > 1 ? std::atoi(argv[1]) : 10000;
    bool session = argc > 2 && argv[2][0] == 's';
    XmlNode *doc = nullptr, *el = nullptr;
    if (session) {
        KRV_XML_ParseEx("<r><e/></r>", &doc);
    } else {
        KRV_XML_Parse("<r><e/></r>", &doc);
    }
    KRV_XML_GetNodeByUrl(doc, "r.e", &el);
    for (int i = 0; i < n; ++i) {
        if (KRV_XML_AddAttr(el, nullptr, ("a" + std::to_string(i)).c_str(), "v") != 0) return 1;
    }
    int k = 0;
    for (XmlNode *a = el->firstAttr; a != nullptr && k < 10; a = a->next, ++k) {
        KRV_XML_SetNode(a, "p", "same", nullptr);
    }
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < n; ++i) {
        std::string name = "a" + std::to_string(n - 1 - i % 16);
        if (KRV_XML_SetAttr(el, nullptr, name.c_str(), "w") != 0) return 2;
    }
    auto t1 = std::chrono::steady_clock::now();
    std::printf("%d sets on an unindexable list of %d (%s): %.3f s\n", n, n, session ? "session" : "heap",
                std::chrono::duration<double>(t1 - t0).count());
    KRV_XML_FreeNode(doc);
}
