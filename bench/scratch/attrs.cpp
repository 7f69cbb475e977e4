// Adds N attributes to one element one call at a time, sets each again, and
// removes them last first: the time of each loop.
//   attrs N [h|s]   (h: heap tree, s: session)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include "krv_xml.h"
int main(int argc, char **argv)
{
    int n = std::atoi(argv[1]);
    bool session = argc > 2 && argv[2][0] == 's';
    XmlNode *doc = nullptr, *el = nullptr;
    if (session) {
        KRV_XML_ParseEx("<r><e/></r>", &doc);
    } else {
        KRV_XML_Parse("<r><e/></r>", &doc);
    }
    KRV_XML_GetNodeByUrl(doc, "r.e", &el);
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < n; ++i) {
        std::string name = "a" + std::to_string(i);
        if (KRV_XML_AddAttr(el, nullptr, name.c_str(), "v") != 0) return 1;
    }
    auto t1 = std::chrono::steady_clock::now();
    for (int i = 0; i < n; ++i) {
        std::string name = "a" + std::to_string(i);
        if (KRV_XML_SetAttr(el, nullptr, name.c_str(), "w") != 0) return 2;
    }
    auto t2 = std::chrono::steady_clock::now();
    for (int i = n - 1; i >= 0; --i) {
        std::string name = "a" + std::to_string(i);
        if (KRV_XML_RemoveAttr(el, nullptr, name.c_str()) != 0) return 3;
    }
    auto t3 = std::chrono::steady_clock::now();
    std::printf("%d attrs %s: add %.3f s, set %.3f s, remove %.3f s\n", n, session ? "session" : "heap",
                std::chrono::duration<double>(t1 - t0).count(), std::chrono::duration<double>(t2 - t1).count(),
                std::chrono::duration<double>(t3 - t2).count());
    KRV_XML_FreeNode(doc);
}
