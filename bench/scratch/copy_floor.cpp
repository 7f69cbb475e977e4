// What copying N MB costs this machine: glibc's memcpy (which streams past the caches for
// large sizes), plain 32-byte loads and stores, and a read-only pass; best of REPS, ms.
// Buffers are touched first, as the drivers keep their memory.
//   g++ -O2 bench/scratch/copy_floor.cpp -o /tmp/copy_floor && /tmp/copy_floor 382 20
#include <immintrin.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

__attribute__((target("avx2"), noinline)) void plainCopy(char *d, const char *s, size_t n)
{
    for (size_t i = 0; i < n; i += 64) {
        __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(s + i));
        __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(s + i + 32));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + i), x);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + i + 32), y);
    }
}

__attribute__((target("avx2"), noinline)) long readOnly(const char *s, size_t n)
{
    __m256i acc = _mm256_setzero_si256();
    for (size_t i = 0; i < n; i += 64) {
        acc = _mm256_xor_si256(acc, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(s + i)));
    }
    return _mm256_extract_epi64(acc, 0);
}

double ms(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b)
{
    return std::chrono::duration<double, std::milli>(b - a).count();
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s MB REPS\n", argv[0]);
        return 2;
    }
    size_t n = static_cast<size_t>(std::atof(argv[1]) * 1e6) & ~size_t{63};
    int reps = std::atoi(argv[2]);
    char *a = static_cast<char *>(std::malloc(n));
    char *b = static_cast<char *>(std::malloc(n));
    if (a == nullptr || b == nullptr || n == 0 || reps < 1) {
        return 1;
    }
    std::memset(a, 1, n);
    std::memset(b, 2, n);
    std::vector<double> t[3];
    long sink = 0;
    for (int r = 0; r < reps; ++r) {
        auto t0 = std::chrono::steady_clock::now();
        std::memcpy(b, a, n);
        auto t1 = std::chrono::steady_clock::now();
        plainCopy(b, a, n);
        auto t2 = std::chrono::steady_clock::now();
        sink += readOnly(a, n);
        auto t3 = std::chrono::steady_clock::now();
        t[0].push_back(ms(t0, t1));
        t[1].push_back(ms(t1, t2));
        t[2].push_back(ms(t2, t3));
        a[static_cast<size_t>(r) % n] ^= b[(static_cast<size_t>(r) * 7919) % n];
    }
    for (auto &v : t) {
        std::sort(v.begin(), v.end());
    }
    std::printf("%.2f MB: memcpy %.3f, plain copy %.3f, read only %.3f ms (best of %d; %ld)\n", n / 1e6, t[0][0],
                t[1][0], t[2][0], reps, sink & 1);
    return 0;
}
