// expat is a SAX parser: it builds no tree. It is measured as a scan that
// reports every start tag, end tag and text run to empty handlers, which is
// the floor of what a tree builder on top of it would cost.
#include <expat.h>

#include "bench_lib.h"

namespace krvbench {
namespace {

struct Counts {
    size_t elements = 0;
    size_t textBytes = 0;
};
Counts g_counts;

void XMLCALL onStart(void *user, const XML_Char *, const XML_Char **)
{
    ++static_cast<Counts *>(user)->elements;
}

void XMLCALL onEnd(void *, const XML_Char *) {}

void XMLCALL onText(void *user, const XML_Char *, int len)
{
    static_cast<Counts *>(user)->textBytes += static_cast<size_t>(len);
}

void *parse(const char *text, size_t len)
{
    XML_Parser p = XML_ParserCreate(nullptr);
    if (p == nullptr) {
        return nullptr;
    }
    g_counts = Counts{};
    XML_SetUserData(p, &g_counts);
    XML_SetElementHandler(p, onStart, onEnd);
    XML_SetCharacterDataHandler(p, onText);
    bool ok = XML_Parse(p, text, static_cast<int>(len), 1) == XML_STATUS_OK;
    XML_ParserFree(p);
    return ok ? &g_counts : nullptr;
}

void keep(void *) {}

}  // namespace

void AddExpat(std::vector<Adapter> &out)
{
    out.push_back(Adapter{"expat", "SAX scan, no tree", parse, keep, nullptr, nullptr, nullptr,
                          nullptr, nullptr, nullptr});
}

}  // namespace krvbench
