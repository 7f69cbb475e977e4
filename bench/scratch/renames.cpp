// N attributes added to one heap element, then each renamed onto one prefix
// and name: the time of the renames.   renames N
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include "krv_xml.h"
int main(int argc, char **argv)
{
    int n = argc > 1 ? std::atoi(argv[1]) : 10000;
    XmlNode *el = nullptr;
    KRV_XML_CreateNode(KRV_XML_NODE_ELEMENT, nullptr, "e", nullptr, &el);
    for (int i = 0; i < n; ++i) KRV_XML_AddAttr(el, nullptr, ("a" + std::to_string(i)).c_str(), "v");
    auto t0 = std::chrono::steady_clock::now();
    int k = 0;
    for (XmlNode *a = el->firstAttr; a != nullptr; a = a->next) KRV_XML_SetNode(a, "p", "same", nullptr), ++k;
    auto t1 = std::chrono::steady_clock::now();
    std::printf("%d renames onto one key: %.3f s\n", k, std::chrono::duration<double>(t1 - t0).count());
    KRV_XML_FreeNode(el);
}
