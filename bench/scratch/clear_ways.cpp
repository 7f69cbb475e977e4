// What clearing a session block costs before the records are written into it,
// by way of clearing: 32-byte stores, 64-byte stores, `rep stosb`, or no clear
// (a bound). Blocks of 8256 bytes back to back, records of 96 bytes written
// with six 8-byte stores each; at 380 MB (the size of the session tree of
// synthetic_100MB) the caches are flushed by a 512 MB write before each pass,
// at a few MB the pass repeats 200 times in the caches. Five rounds.
//   g++ -O2 -I src bench/scratch/clear_ways.cpp -o /tmp/clear_ways && /tmp/clear_ways && /tmp/clear_ways 4
#include <immintrin.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "xml/xml_clear.h"

static double now()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The library's own clear, kept out of line so that each way is one call.
__attribute__((noinline)) void clear256(uint8_t *p, size_t n)
{
    clearAvx2(p, n);
}

__attribute__((target("avx512f"), noinline)) void clear512(uint8_t *p, size_t n)
{
    const __m512i zero = _mm512_setzero_si512();
    _mm512_storeu_si512(p, zero);
    _mm512_storeu_si512(p + n - 64, zero);
    auto *q = reinterpret_cast<uint8_t *>((reinterpret_cast<uintptr_t>(p) + 64) & ~uintptr_t{63});
    for (; q + 64 <= p + n; q += 64) {
        _mm512_store_si512(q, zero);
    }
}

__attribute__((noinline)) void clearStos(uint8_t *p, size_t n)
{
    __asm__ volatile("rep stosb" : "+D"(p), "+c"(n) : "a"(0) : "memory");
}

__attribute__((noinline)) void writeRecords(uint8_t *p, size_t n, uint64_t v)
{
    for (size_t o = 0; o + 96 <= n; o += 96) {
        auto *r = reinterpret_cast<uint64_t *>(p + o);
        r[0] = v;
        r[2] = v + 1;
        r[5] = v + 2;
        r[7] = v + 3;
        r[9] = v + 4;
        r[11] = v;
        __asm__ volatile("" ::: "memory");
    }
}

int main(int argc, char **argv)
{
    size_t total = size_t{380} << 20;
    if (argc > 1) {
        total = static_cast<size_t>(std::atoi(argv[1])) << 20;
    }
    const size_t chunk = 8192 + 64, flush = size_t{512} << 20;
    const bool avx512 = __builtin_cpu_supports("avx512f");
    auto *m = static_cast<uint8_t *>(std::malloc(total + 4096));
    auto *evict = static_cast<uint8_t *>(std::malloc(flush));
    if (m == nullptr || evict == nullptr) {
        return 1;
    }
    std::memset(m, 1, total);
    std::memset(evict, 1, flush);
    const int reps = total < (size_t{8} << 20) ? 200 : 1;
    const char *names[] = {"32-byte stores", "rep stosb", "no clear", "64-byte stores"};
    for (int round = 0; round < 5; ++round) {
        std::printf("%zu MB, clear and write, ms:", total >> 20);
        for (int mode = 0; mode < (avx512 ? 4 : 3); ++mode) {
            if (reps == 1) {
                std::memset(evict, round + mode, flush);
            }
            double t0 = now();
            for (int k = 0; k < reps; ++k) {
                for (size_t o = 0; o + chunk <= total; o += chunk) {
                    if (mode == 0) clear256(m + o, chunk);
                    if (mode == 1) clearStos(m + o, chunk);
                    if (mode == 3) clear512(m + o, chunk);
                    writeRecords(m + o, chunk, o);
                }
            }
            std::printf("  %s %.3f", names[mode], (now() - t0) / reps);
        }
        std::printf("\n");
    }
    return m[12345] + evict[5] == 0;
}
