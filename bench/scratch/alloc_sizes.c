// Counts the heap requests of a process by size, for comparing two builds:
//   gcc -O2 -shared -fPIC bench/scratch/alloc_sizes.c -o /tmp/alloc_sizes.so
//   MC_OUT=/tmp/a.txt LD_PRELOAD=/tmp/alloc_sizes.so /tmp/parse_median FILE 0 3
// writes "size count" lines, then the count of larger requests, frees, callocs, reallocs.
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
extern void *__libc_malloc(size_t);
extern void *__libc_calloc(size_t, size_t);
extern void *__libc_realloc(void *, size_t);
extern void __libc_free(void *);
static unsigned long hist[70000], big, nfree, ncalloc, nrealloc;
void *malloc(size_t n)
{
    if (n < 70000) hist[n]++;
    else big++;
    return __libc_malloc(n);
}
void *calloc(size_t a, size_t b) { ncalloc++; return __libc_calloc(a, b); }
void *realloc(void *p, size_t n) { nrealloc++; return __libc_realloc(p, n); }
void free(void *p) { nfree++; __libc_free(p); }
__attribute__((destructor)) static void dump(void)
{
    const char *out = getenv("MC_OUT");
    FILE *f = fopen(out ? out : "/dev/stderr", "w");
    if (f == NULL) return;
    for (int i = 0; i < 70000; i++)
        if (hist[i]) fprintf(f, "%d %lu\n", i, hist[i]);
    fprintf(f, "big %lu free %lu calloc %lu realloc %lu\n", big, nfree, ncalloc, nrealloc);
    fclose(f);
}
