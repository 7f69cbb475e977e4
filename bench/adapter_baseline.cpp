// Physical baselines: what copying the input and scanning it for '<' cost.
// They bound from above what any parser can reach on this machine.
#include <cstdlib>
#include <cstring>

#include "bench_lib.h"

namespace krvbench {
namespace {

// The destination is allocated once per size, outside the timed copy.
char *g_dest = nullptr;
size_t g_destSize = 0;
volatile size_t g_sink = 0;

void *copyParse(const char *text, size_t len)
{
    if (g_destSize < len + 1) {
        std::free(g_dest);
        g_dest = static_cast<char *>(std::malloc(len + 1));
        g_destSize = g_dest != nullptr ? len + 1 : 0;
        if (g_dest == nullptr) {
            return nullptr;
        }
        std::memset(g_dest, 0, len + 1);  // fault the pages in before timing
    }
    std::memcpy(g_dest, text, len + 1);
    g_sink = g_sink + static_cast<unsigned char>(g_dest[len / 2]);
    return g_dest;
}

void *scanParse(const char *text, size_t len)
{
    size_t count = 0;
    const char *end = text + len;
    for (const char *p = text; (p = static_cast<const char *>(std::memchr(p, '<', static_cast<size_t>(end - p)))) != nullptr; ++p) {
        ++count;
    }
    g_sink = g_sink + count;
    return const_cast<char *>(text);
}

void keep(void *) {}

}  // namespace

void AddBaselines(std::vector<Adapter> &out)
{
    out.push_back(Adapter{"memcpy", "baseline", copyParse, keep, nullptr, nullptr, nullptr, nullptr,
                          nullptr, nullptr});
    out.push_back(Adapter{"memchr '<'", "baseline", scanParse, keep, nullptr, nullptr, nullptr,
                          nullptr, nullptr, nullptr});
}

}  // namespace krvbench
