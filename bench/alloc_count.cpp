// Heap accounting for the peer comparison.
//
// The bench executable defines malloc, free, calloc, realloc and the aligned
// forms, so every library in the process (ours, the peers, libstdc++) comes
// through here. Each call forwards to glibc's own entry points; only while
// counting is switched on does it also add or subtract the block's size.
// When counting is off the cost is one predictable branch.
//
// Sanitizer builds bring their own allocator, which glibc's statistics do not
// see either; there nothing is counted and memory is reported as unknown.
#include <malloc.h>

#include <cstddef>
#include <cstdint>

#include "bench_lib.h"

#if !defined(KRVBENCH_NO_INTERPOSER)

extern "C" {
void *__libc_malloc(size_t n);
void *__libc_calloc(size_t count, size_t n);
void *__libc_realloc(void *p, size_t n);
void *__libc_memalign(size_t align, size_t n);
void __libc_free(void *p);
}

namespace {

constexpr int64_t kChunkHeader = 8;

bool g_on = false;
int64_t g_live = 0;
int64_t g_peak = 0;
int64_t g_blocks = 0;

inline void added(void *p)
{
    if (p != nullptr) {
        g_live += static_cast<int64_t>(malloc_usable_size(p)) + kChunkHeader;
        g_blocks += 1;
        if (g_live > g_peak) {
            g_peak = g_live;
        }
    }
}

inline void removed(void *p)
{
    if (p != nullptr) {
        g_live -= static_cast<int64_t>(malloc_usable_size(p)) + kChunkHeader;
        g_blocks -= 1;
    }
}

}  // namespace

extern "C" {

void *malloc(size_t n)
{
    void *p = __libc_malloc(n);
    if (__builtin_expect(g_on, 0)) {
        added(p);
    }
    return p;
}

void *calloc(size_t count, size_t n)
{
    void *p = __libc_calloc(count, n);
    if (__builtin_expect(g_on, 0)) {
        added(p);
    }
    return p;
}

void *realloc(void *old, size_t n)
{
    if (__builtin_expect(g_on, 0)) {
        removed(old);
        void *p = __libc_realloc(old, n);
        if (p == nullptr && n != 0) {
            added(old);  // the old block stays
        } else {
            added(p);
        }
        return p;
    }
    return __libc_realloc(old, n);
}

void free(void *p)
{
    if (__builtin_expect(g_on, 0)) {
        removed(p);
    }
    __libc_free(p);
}

void *memalign(size_t align, size_t n)
{
    void *p = __libc_memalign(align, n);
    if (__builtin_expect(g_on, 0)) {
        added(p);
    }
    return p;
}

void *aligned_alloc(size_t align, size_t n)
{
    return memalign(align, n);
}

int posix_memalign(void **out, size_t align, size_t n)
{
    void *p = memalign(align, n);
    if (p == nullptr) {
        return 12;  // ENOMEM
    }
    *out = p;
    return 0;
}

}  // extern "C"

namespace krvbench {

void HeapCountStart()
{
    g_live = 0;
    g_peak = 0;
    g_blocks = 0;
    g_on = true;
}

HeapCount HeapCountStop()
{
    g_on = false;
    return HeapCount{g_live, g_peak, g_blocks};
}

bool HeapCountExact()
{
    return true;
}

}  // namespace krvbench

#else  // KRVBENCH_NO_INTERPOSER

namespace krvbench {

void HeapCountStart() {}

HeapCount HeapCountStop()
{
    return HeapCount{-1, -1, -1};
}

bool HeapCountExact()
{
    return false;
}

}  // namespace krvbench

#endif
