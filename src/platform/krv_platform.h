// Our own bounded memory/string functions, OS adapter functions and the one
// heap path of the library. Internal: nothing here is exported.
#ifndef KRV_PLATFORM_H
#define KRV_PLATFORM_H

#include <cstddef>
#include <cstdint>

#define KRV_HIDDEN __attribute__((visibility("hidden")))

// Bounded functions in the manner of C11 Annex K. Each returns 0 on success
// and non-zero on a contract violation (null pointer, count larger than the
// destination, overlap for memcpy_s); on violation the destination is cleared
// where that is possible, as Annex K prescribes.
KRV_HIDDEN int memset_s(void *dest, size_t destSize, int ch, size_t count);
KRV_HIDDEN int memcpy_s(void *dest, size_t destSize, const void *src, size_t count);
KRV_HIDDEN int memmove_s(void *dest, size_t destSize, const void *src, size_t count);
// Copies at most `count` bytes of src (stopping at its NUL) and always writes a
// terminating NUL. Fails, leaving dest as "", when the copy and its NUL would
// not fit in destSize.
KRV_HIDDEN int strncpy_s(char *dest, size_t destSize, const char *src, size_t count);
// Formats at most min(maxCount, destSize - 1) characters. Returns the number of
// characters written, or -1 when the text does not fit or an argument is bad
// (dest then holds "" when it can).
KRV_HIDDEN int snprintf_s(char *dest, size_t destSize, size_t maxCount, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

// OS adapter functions.
KRV_HIDDEN uint32_t OSAL_StrLen(const char *text);
KRV_HIDDEN int OSAL_StrCmp(const char *a, const char *b);
KRV_HIDDEN int OSAL_MemCmp(const void *a, const void *b, size_t count);
// The type, line and file only label the block; they are not kept.
KRV_HIDDEN void *OSAL_MemTypeMallocD(size_t size, uint32_t type, uint32_t line, const char *file);
KRV_HIDDEN void OSAL_MemTypeFreeD(void *block, uint32_t type, uint32_t line, const char *file);

// The library's only way to the heap. Every byte the library allocates goes
// through these four, which is where test builds count and fail allocations.
// They are deliberately out of line so that the compiler never sees the size
// of an allocation: attribute records are allocated shorter than XmlNode.
KRV_HIDDEN void *krvHeapMalloc(size_t size);
KRV_HIDDEN void *krvHeapCalloc(size_t count, size_t size);
// Resizes a block from krvHeapMalloc (not null), in place when the heap can;
// on failure returns null and the block stays as it was.
KRV_HIDDEN void *krvHeapRealloc(void *ptr, size_t size);
KRV_HIDDEN void krvHeapFree(void *ptr);

#ifdef KRVXML_TESTING
// Test-only allocation failure switch (compiled into test builds only).
namespace krv_test {
// Makes the k-th heap allocation from now fail (1 = the next one); 0 disables.
void FailAllocationAt(long k);
// Makes the k-th heap allocation from now and every one after it fail, as an
// exhausted heap would; FailAllocationAt(0) ends it.
void FailAllocationsFrom(long k);
// Makes every heap request of more than `bytes` bytes fail; 0 lifts the limit.
void RefuseAllocationsOver(size_t bytes);
// Heap allocations attempted since the process started.
long AllocationCount();
// Heap blocks currently live (allocated and not yet freed).
long LiveBlocks();
// True while a failure asked for by FailAllocationAt has not happened yet.
bool FailurePending();
}  // namespace krv_test
#endif

#endif  // KRV_PLATFORM_H
