// Write patterns over 380 MB of 8 KB blocks: clear then fill, fill only,
// fill through a cached buffer streamed out, clears of several kinds, read only.
// Build with -mavx2.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cstdint>
#include <immintrin.h>
#include <algorithm>
#include <vector>
static const size_t N = 380u << 20, B = 8192;
int main(int argc, char**argv) {
  char *src = (char*)aligned_alloc(64, N), *dst = (char*)aligned_alloc(64, N);
  memset(src, 1, N); memset(dst, 2, N);
  alignas(64) static char stage[B];
  for (int mode : {0, 4, 5, 6, 1, 7}) {
    std::vector<double> ts;
    for (int r = 0; r < 5; ++r) {
      auto t0 = std::chrono::steady_clock::now();
      uint64_t acc = 0;
      for (size_t off = 0; off < N; off += B) {
        const char *s = src + off; char *d = dst + off;
        if (mode == 0) { // zero then fill in place, reading source
          memset(d, 0, B);
          for (size_t i = 0; i < B; i += 8) { uint64_t v; memcpy(&v, s + i, 8); acc += v; memcpy(d + i, &v, 8); }
        } else if (mode == 1) { // fill in place without zeroing
          for (size_t i = 0; i < B; i += 8) { uint64_t v; memcpy(&v, s + i, 8); acc += v; memcpy(d + i, &v, 8); }
        } else if (mode == 2) { // stage then NT stream
          memset(stage, 0, B);
          for (size_t i = 0; i < B; i += 8) { uint64_t v; memcpy(&v, s + i, 8); acc += v; memcpy(stage + i, &v, 8); }
          for (size_t i = 0; i < B; i += 32) _mm256_stream_si256((__m256i*)(d + i), _mm256_load_si256((__m256i*)(stage + i)));
        } else if (mode == 4 || mode == 5 || mode == 6) {
          if (mode == 4) { for (size_t i = 0; i < B; i += 32) _mm256_store_si256((__m256i*)(d + i), _mm256_setzero_si256()); }
          else if (mode == 5) { void *p = d; size_t c = B; asm volatile("rep stosb" : "+D"(p), "+c"(c) : "a"(0) : "memory"); }
          else { for (size_t i = 0; i < B; i += 16) _mm_store_si128((__m128i*)(d + i), _mm_setzero_si128()); }
          for (size_t i = 0; i < B; i += 8) { uint64_t v; memcpy(&v, s + i, 8); acc += v; memcpy(d + i, &v, 8); }
        } else if (mode == 7) { // zero next block 1 ahead via sse, fill this
          for (size_t i = 0; i < B; i += 16) _mm_store_si128((__m128i*)(d + B + i), _mm_setzero_si128());
          for (size_t i = 0; i < B; i += 8) { uint64_t v; memcpy(&v, s + i, 8); acc += v; memcpy(d + i, &v, 8); }
        } else { // read only
          for (size_t i = 0; i < B; i += 8) { uint64_t v; memcpy(&v, s + i, 8); acc += v; }
        }
        asm volatile("" : : "r"(acc) : "memory");
      }
      _mm_sfence();
      auto t1 = std::chrono::steady_clock::now();
      ts.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    std::sort(ts.begin(), ts.end());
    printf("mode %d median %.1f ms best %.1f\n", mode, ts[2], ts[0]);
  }
}
