// Builds a chain of N elements by inserting each under the one made before
// it, in a session or on the heap, then adds 1000 attributes at the tip.
// Prints both times and whether the tip's name went into the document table.
//
// Usage: chain N session|heap
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "krv_xml.h"

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s N session|heap\n", argv[0]);
        return 2;
    }
    long n = std::atol(argv[1]);
    bool session = std::strcmp(argv[2], "session") == 0;
    XmlNode *doc = nullptr;
    uint32_t rc = session ? KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, nullptr, nullptr, &doc)
                          : KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, nullptr, nullptr, &doc);
    if (rc != KRV_XML_OK) {
        return 1;
    }
    auto t0 = std::chrono::steady_clock::now();
    XmlNode *tip = doc;
    for (long i = 0; i < n; ++i) {
        XmlNode *e = nullptr;
        rc = KRV_XML_CreateNodeEx(doc->mem, KRV_XML_NODE_ELEMENT, nullptr, "e", nullptr, &e);
        if (rc != KRV_XML_OK || KRV_XML_AppendChildNode(tip, e) != KRV_XML_OK) {
            std::printf("insertion %ld failed\n", i);
            return 1;
        }
        tip = e;
    }
    auto t1 = std::chrono::steady_clock::now();
    for (long i = 0; i < 1000; ++i) {
        char name[16];
        std::snprintf(name, sizeof name, "a%ld", i);
        if (KRV_XML_AddAttr(tip, nullptr, name, "v") != KRV_XML_OK) {
            std::printf("attribute %ld failed\n", i);
            return 1;
        }
    }
    auto t2 = std::chrono::steady_clock::now();
    std::printf("%s n=%ld build %.3f s, 1000 attributes at the tip %.3f s, tip name in the table: %s\n", argv[2], n,
                std::chrono::duration<double>(t1 - t0).count(), std::chrono::duration<double>(t2 - t1).count(),
                tip->name == doc->nameTable[0] ? "yes" : "no");
    KRV_XML_FreeNode(doc);
    return 0;
}
