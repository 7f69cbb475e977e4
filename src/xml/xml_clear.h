// The 32-byte clear of new session blocks, in a header of its own so that
// bench/scratch/clear_ways.cpp times the very code the library runs.
#ifndef KRV_XML_CLEAR_H
#define KRV_XML_CLEAR_H

#if defined(__x86_64__)
#include <immintrin.h>

#include <cstddef>
#include <cstdint>

// Zeroes n bytes (n >= 64) by aligned 32-byte stores, with one unaligned
// store at each end (blocks lie back to back in a slab, so most start off a
// 32-byte boundary). For a block glibc's memset takes `rep stosb`: on AMD's
// cores that is the slower of the two (about 1 % of a parse of many short
// attributes), on Intel's the faster (about 3 %), so the vendor decides.
__attribute__((target("avx2"))) inline void clearAvx2(uint8_t *p, size_t n)
{
    const __m256i zero = _mm256_setzero_si256();
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(p), zero);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(p + n - 32), zero);
    uint8_t *q = reinterpret_cast<uint8_t *>((reinterpret_cast<uintptr_t>(p) + 32) & ~uintptr_t{31});
    uint8_t *end = p + n - 32;
    for (; q + 32 < end; q += 64) {
        _mm256_store_si256(reinterpret_cast<__m256i *>(q), zero);
        _mm256_store_si256(reinterpret_cast<__m256i *>(q + 32), zero);
    }
    if (q < end) {
        _mm256_store_si256(reinterpret_cast<__m256i *>(q), zero);
    }
}
#endif

#endif
