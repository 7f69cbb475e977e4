/* How many bytes realloc moves in a process (the output of a print grows by
 * realloc; when glibc cannot grow a block in place it copies it). Preloaded:
 *   gcc -O2 -shared -fPIC bench/scratch/realloc_moves.c -o /tmp/realloc_moves.so -ldl
 *   LD_PRELOAD=/tmp/realloc_moves.so /tmp/cycle bench/corpus/synthetic_100MB.xml 3 1
 * prints the calls, the moves and the bytes moved at exit. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
static size_t moved, moves, calls;
static void *(*real)(void *, size_t);
void *realloc(void *p, size_t n) {
  if (!real) real = dlsym(RTLD_NEXT, "realloc");
  size_t old = p ? malloc_usable_size(p) : 0;
  void *q = real(p, n);
  calls++;
  if (p && q && q != p) { moved += old < n ? old : n; moves++; }
  return q;
}
__attribute__((destructor)) static void fin(void) { fprintf(stderr, "realloc calls %zu moves %zu moved %.1f MB\n", calls, moves, moved / 1e6); }
