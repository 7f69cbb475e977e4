// Clearing a session's worth of 8 KB blocks that are in the caches (they were
// just written, as a parse's freed and reused slabs are): glibc's memset,
// 16-byte stores, 32-byte stores and `rep stosb`, taking turns.
//   g++ -O2 bench/scratch/clear_blocks.cpp -o /tmp/clear_blocks
//   /tmp/clear_blocks 4500 200     # KB cleared per round (iso_639_3's session: about 4.5 MB), rounds
#include <immintrin.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

__attribute__((noinline)) void byMemset(void *p, size_t n)
{
    std::memset(p, 0, n);
}

__attribute__((noinline)) void bySse2(void *p, size_t n)
{
    __m128i z = _mm_setzero_si128();
    auto *c = static_cast<char *>(p);
    for (size_t i = 0; i < n; i += 64) {
        _mm_store_si128(reinterpret_cast<__m128i *>(c + i), z);
        _mm_store_si128(reinterpret_cast<__m128i *>(c + i + 16), z);
        _mm_store_si128(reinterpret_cast<__m128i *>(c + i + 32), z);
        _mm_store_si128(reinterpret_cast<__m128i *>(c + i + 48), z);
    }
}

__attribute__((noinline, target("avx2"))) void byAvx2(void *p, size_t n)
{
    __m256i z = _mm256_setzero_si256();
    auto *c = static_cast<char *>(p);
    for (size_t i = 0; i < n; i += 64) {
        _mm256_store_si256(reinterpret_cast<__m256i *>(c + i), z);
        _mm256_store_si256(reinterpret_cast<__m256i *>(c + i + 32), z);
    }
}

__attribute__((noinline)) void byStosb(void *p, size_t n)
{
    asm volatile("rep stosb" : "+D"(p), "+c"(n) : "a"(0) : "memory");
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s KB ROUNDS\n", argv[0]);
        return 2;
    }
    size_t total = static_cast<size_t>(std::atoi(argv[1])) << 10;
    int rounds = std::atoi(argv[2]);
    const size_t block = 8192;
    total = total / block * block;
    auto *buf = static_cast<char *>(std::aligned_alloc(4096, total));
    void (*ways[])(void *, size_t) = {byMemset, bySse2, byAvx2, byStosb};
    const char *names[] = {"memset", "sse2", "avx2", "stosb"};
    std::vector<double> us[4];
    for (int r = 0; r < rounds; ++r) {
        for (int k = 0; k < 4; ++k) {
            std::memset(buf, 1, total);
            auto t0 = std::chrono::steady_clock::now();
            for (size_t at = 0; at < total; at += block) {
                ways[k](buf + at, block);
            }
            us[k].push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
        }
    }
    for (int k = 0; k < 4; ++k) {
        std::sort(us[k].begin(), us[k].end());
        std::printf("%-7s best %.1f median %.1f us\n", names[k], us[k][0], us[k][us[k].size() / 2]);
    }
    std::free(buf);
    return 0;
}
