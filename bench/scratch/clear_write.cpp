// What clearing a session block costs on top of writing it: 300 MB in 8 KB
// chunks, written once, written twice, or cleared and then written, with the
// caches flushed by a 256 MB write before each pass. Three rounds.
//   g++ -O2 bench/scratch/clear_write.cpp -o /tmp/clear_write && /tmp/clear_write
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
static double now()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
// Full-speed writes of a chunk, as the parse's stores and memset both are.
__attribute__((noinline)) void fill(uint8_t *m, size_t n, int v) { std::memset(m, v, n); }
int main()
{
    const size_t total = size_t{300} << 20, chunk = 8192, flush = size_t{256} << 20;
    auto *m = static_cast<uint8_t *>(std::malloc(total));
    auto *evict = static_cast<uint8_t *>(std::malloc(flush));
    if (m == nullptr || evict == nullptr) return 1;
    std::memset(m, 1, total);
    for (int r = 0; r < 3; ++r) {
        double t[3];
        for (int mode = 0; mode < 3; ++mode) {
            std::memset(evict, r + mode, flush);
            double t0 = now();
            for (size_t o = 0; o < total; o += chunk) {
                if (mode == 2) std::memset(m + o, 0, chunk);
                fill(m + o, chunk, 3);
                if (mode == 1) fill(m + o, chunk, 4);
            }
            t[mode] = now() - t0;
        }
        std::printf("write %.1f  write+write %.1f  clear+write %.1f ms\n", t[0], t[1], t[2]);
    }
    return m[12345] + evict[5] == 0;
}
