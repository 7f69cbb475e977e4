// One of our operations against pugixml's counterpart in one process, turn
// by turn, so that the machine's slow and fast spells fall on both alike.
//   g++ -O2 -I include bench/scratch/vs_pugi.cpp -o /tmp/vs_pugi -ldl -lpugixml
//   /tmp/vs_pugi FILE MODE REPS LIB    # LIB: a libkrvxml.so.2 built as bench/run builds it
// MODE 1: session parse against load_buffer; 2 and 3: KRV_XML_Transform of a
// heap or session document against save to a string (raw, no declaration),
// as krvbench_peers times them; 4 and 5: KRV_XML_GetNodeByUrl in a heap or
// session document against child() and next_sibling() by name, for the last
// child of the root named like its first (batches of 16). Prints the best and median of each and
// pugixml's time over ours (> 1: ours is faster) for both.
#include <dlfcn.h>
#include <malloc.h>

#include <pugixml.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "krv_xml.h"
#include "scratch_file.h"

namespace {

struct StringWriter : pugi::xml_writer {
    std::string text;
    void write(const void *data, size_t size) override
    {
        text.append(static_cast<const char *>(data), size);
    }
};

double msSince(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 5) {
        std::fprintf(stderr, "usage: %s FILE MODE REPS LIB\n", argv[0]);
        return 2;
    }
    scratchKeepHeap();
    std::string text;
    if (!scratchReadFile(argv[1], text)) {
        return 2;
    }
    int mode = std::atoi(argv[2]);
    int reps = std::atoi(argv[3]);
    void *h = dlopen(argv[4], RTLD_NOW | RTLD_LOCAL);
    if (h == nullptr || mode < 1 || mode > 5) {
        std::fprintf(stderr, "%s\n", h == nullptr ? dlerror() : "MODE is 1 to 5");
        return 2;
    }
    auto parse = reinterpret_cast<uint32_t (*)(const char *, XmlNode **)>(
         dlsym(h, mode == 2 || mode == 4 ? "KRV_XML_Parse" : "KRV_XML_ParseEx"));
    auto release = reinterpret_cast<uint32_t (*)(XmlNode *)>(dlsym(h, "KRV_XML_FreeNode"));
    auto transform = reinterpret_cast<uint32_t (*)(XmlNode *, char **)>(dlsym(h, "KRV_XML_Transform"));
    auto freeMem = reinterpret_cast<void (*)(void *)>(dlsym(h, "KRV_XML_FreeMem"));
    auto byUrl = reinterpret_cast<uint32_t (*)(XmlNode *, const char *, XmlNode **)>(
        dlsym(h, "KRV_XML_GetNodeByUrl"));
    if (parse == nullptr || release == nullptr || transform == nullptr || freeMem == nullptr || byUrl == nullptr) {
        return 2;
    }
    XmlNode *kept = nullptr;
    pugi::xml_document theirDoc;
    if (mode != 1 && (parse(text.c_str(), &kept) != 0 || !theirDoc.load_buffer(text.data(), text.size()))) {
        return 1;
    }
    // The query: the root's first element child and how many of its siblings
    // share its qualified name (names here have no dots to escape).
    std::string url, child;
    size_t index = 0;
    pugi::xml_node theirRoot = theirDoc.document_element();
    if (mode >= 4) {
        child = theirRoot.first_child().name();
        for (pugi::xml_node c = theirRoot.child(child.c_str()); c; c = c.next_sibling(child.c_str())) {
            ++index;
        }
        url = std::string(theirRoot.name()) + "." + child + "." + std::to_string(index);
    }
    std::vector<double> ours, theirs;
    for (int r = -3; r < reps; ++r) {  // three untimed rounds first
        double mine = 0;
        double their = 0;
        if (mode == 1) {
            XmlNode *doc = nullptr;
            auto t0 = std::chrono::steady_clock::now();
            uint32_t rc = parse(text.c_str(), &doc);
            mine = msSince(t0);
            release(doc);
            pugi::xml_document d;
            t0 = std::chrono::steady_clock::now();
            bool ok = static_cast<bool>(d.load_buffer(text.data(), text.size()));
            their = msSince(t0);
            if (rc != 0 || !ok) {
                return 1;
            }
        } else if (mode >= 4) {
            XmlNode *found = nullptr;
            uint32_t rc = 0;
            auto t0 = std::chrono::steady_clock::now();
            for (int i = 0; i < 16; ++i) {
                rc |= byUrl(kept, url.c_str(), &found);
            }
            mine = msSince(t0) / 16;
            pugi::xml_node n;
            t0 = std::chrono::steady_clock::now();
            for (int i = 0; i < 16; ++i) {
                n = theirRoot.child(child.c_str());
                for (size_t k = 1; k < index && n; ++k) {
                    n = n.next_sibling(child.c_str());
                }
            }
            their = msSince(t0) / 16;
            if (rc != 0 || found == nullptr || !n) {
                return 1;
            }
        } else {
            char *out = nullptr;
            auto t0 = std::chrono::steady_clock::now();
            uint32_t rc = transform(kept, &out);
            mine = msSince(t0);
            freeMem(out);
            auto *w = new StringWriter;
            t0 = std::chrono::steady_clock::now();
            theirDoc.save(*w, "", pugi::format_raw | pugi::format_no_declaration, pugi::encoding_utf8);
            their = msSince(t0);
            delete w;
            if (rc != 0) {
                return 1;
            }
        }
        if (r >= 0) {
            ours.push_back(mine);
            theirs.push_back(their);
        }
    }
    release(kept);
    std::sort(ours.begin(), ours.end());
    std::sort(theirs.begin(), theirs.end());
    size_t mid = ours.size() / 2;
    double unit = mode >= 4 ? 1e6 : 1;  // lookups in ns
    std::printf("ours best %.4f median %.4f | pugixml best %.4f median %.4f %s | pugixml/ours best %.3f median %.3f\n",
                ours[0] * unit, ours[mid] * unit, theirs[0] * unit, theirs[mid] * unit, mode >= 4 ? "ns" : "ms",
                theirs[0] / ours[0], theirs[mid] / ours[mid]);
    return 0;
}
