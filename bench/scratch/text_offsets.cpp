// Session parse of one text placed at offsets 0, STEP, ... below 4096 in a
// page-aligned buffer, each in the peer driver's cycle (parse, print, copy,
// release) REPS times: best and median parse per offset, ms. Shows whether a
// parse's pace follows where the text lies or the machine's spells.
//   text_offsets FILE REPS [STEP]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "krv_xml.h"
#include "scratch_file.h"

static double now()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s FILE REPS [STEP]\n", argv[0]);
        return 2;
    }
    scratchKeepHeap();
    std::string text;
    if (!scratchReadFile(argv[1], text)) {
        return 2;
    }
    const size_t n = text.size();
    char *buffer = static_cast<char *>(aligned_alloc(4096, (n + 8192 + 4095) / 4096 * 4096));
    const int reps = std::atoi(argv[2]);
    const int step = argc > 3 ? std::atoi(argv[3]) : 256;
    if (buffer == nullptr || reps < 1 || step < 1) {
        return 2;
    }
    for (int offset = 0; offset < 4096; offset += step) {
        char *at = buffer + offset;
        std::memcpy(at, text.c_str(), n + 1);
        std::vector<double> ms;
        for (int r = 0; r < reps; ++r) {
            XmlNode *doc = nullptr;
            const double t0 = now();
            if (KRV_XML_ParseEx(at, &doc) != KRV_XML_OK) {
                return 1;
            }
            const double t1 = now();
            char *out = nullptr;
            XmlNode *copy = nullptr;
            if (KRV_XML_Transform(doc, &out) != KRV_XML_OK || KRV_XML_CloneNode(doc, &copy) != KRV_XML_OK) {
                return 1;
            }
            KRV_XML_FreeMem(out);
            KRV_XML_FreeNode(copy);
            KRV_XML_FreeNode(doc);
            ms.push_back(t1 - t0);
        }
        std::sort(ms.begin(), ms.end());
        std::printf("offset %4d best %.4f median %.4f\n", offset, ms[0], ms[ms.size() / 2]);
    }
    std::free(buffer);
    return 0;
}
