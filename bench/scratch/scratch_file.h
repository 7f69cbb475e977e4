// What the scratch drivers share: the heap kept as the peer driver keeps it,
// and a file read whole.
#ifndef KRV_SCRATCH_FILE_H
#define KRV_SCRATCH_FILE_H

#include <malloc.h>

#include <climits>
#include <cstdio>
#include <string>

// Large blocks from the heap and never returned to the system, so that
// repeated runs reuse the same pages, as in krvbench_peers' cycle.
inline void scratchKeepHeap()
{
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, INT_MAX);
}

// The whole file at path into text; false when it cannot be read.
inline bool scratchReadFile(const char *path, std::string &text)
{
    FILE *f = std::fopen(path, "rb");
    if (f == nullptr) {
        return false;
    }
    bool ok = std::fseek(f, 0, SEEK_END) == 0;
    const long n = ok ? std::ftell(f) : -1;
    ok = n >= 0 && std::fseek(f, 0, SEEK_SET) == 0;
    if (ok) {
        text.assign(static_cast<size_t>(n), '\0');
        ok = std::fread(&text[0], 1, text.size(), f) == text.size();
    }
    std::fclose(f);
    return ok;
}

#endif
