// How far this machine's caches reach, as one core sees them: for buffers of
// 1 MB to 256 MB, the bandwidth of a sequential read (one word per line) and
// the latency of a chase through the buffer's lines in a random order, where
// no prefetcher helps. The caches the processor reports may be shared with
// other tenants of the host; this shows what is left to one process.
//   cache_reach [huge]    huge: ask for transparent huge pages (no TLB cost)
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
}

int main(int argc, char **argv)
{
    static const size_t sizesMb[] = {1, 2, 3, 4, 5, 6, 8, 12, 16, 24, 32, 64, 256};
    const size_t max = (size_t)256 << 20;
    uint64_t *buf = aligned_alloc((size_t)2 << 20, max);
    uint32_t *order = malloc(max / 64 * sizeof *order);
    if (buf == NULL || order == NULL) {
        return 1;
    }
    if (argc > 1 && strcmp(argv[1], "huge") == 0) {
        madvise(buf, max, MADV_HUGEPAGE);
    }
    memset(buf, 1, max);
    uint64_t sink = 0;
    for (size_t s = 0; s < sizeof sizesMb / sizeof *sizesMb; ++s) {
        const size_t bytes = sizesMb[s] << 20, words = bytes / 8, lines = bytes / 64;
        double best = 1e9;
        for (int r = 0; r < 5; ++r) {
            double t = now();
            uint64_t sum = 0;
            for (size_t i = 0; i < words; i += 8) {
                sum += buf[i];
            }
            sink += sum;
            t = now() - t;
            best = t < best ? t : best;
        }
        // One cycle through every line in a shuffled order (xorshift, fixed seed).
        for (size_t i = 0; i < lines; ++i) {
            order[i] = (uint32_t)i;
        }
        uint64_t x = 88172645463325252ull;
        for (size_t i = lines - 1; i > 0; --i) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
            size_t j = x % (i + 1);
            uint32_t t = order[i];
            order[i] = order[j];
            order[j] = t;
        }
        for (size_t i = 0; i < lines; ++i) {
            buf[(size_t)order[i] * 8] = (uint64_t)order[(i + 1) % lines] * 8;
        }
        const size_t steps = 4000000;
        size_t at = 0;
        double t = now();
        for (size_t i = 0; i < steps; ++i) {
            at = buf[at];
        }
        t = now() - t;
        sink += at;
        printf("%4zu MB: sequential read %5.1f GB/s, random line %6.1f ns\n", sizesMb[s], bytes / best / 1e9,
               t / steps * 1e9);
    }
    FILE *m = fopen("/proc/self/smaps_rollup", "r");
    char line[256];
    while (m != NULL && fgets(line, sizeof line, m) != NULL) {
        if (strstr(line, "AnonHugePages") != NULL) {
            fputs(line, stdout);
        }
    }
    if (m != NULL) {
        fclose(m);
    }
    free(order);
    free(buf);
    return sink == 42;  // keeps the reads
}
