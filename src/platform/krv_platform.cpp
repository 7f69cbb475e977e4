// Bounded memory and string functions, OS adapter functions and the heap path.
#include "platform/krv_platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifdef KRVXML_TESTING
#include <atomic>
#endif

int memset_s(void *dest, size_t destSize, int ch, size_t count)
{
    if (dest == nullptr) {
        return 1;
    }
    if (count > destSize) {
        std::memset(dest, ch, destSize);
        return 1;
    }
    std::memset(dest, ch, count);
    return 0;
}

int memcpy_s(void *dest, size_t destSize, const void *src, size_t count)
{
    if (dest == nullptr) {
        return 1;
    }
    if (src == nullptr || count > destSize) {
        std::memset(dest, 0, destSize);
        return 1;
    }
    const char *s = static_cast<const char *>(src);
    char *d = static_cast<char *>(dest);
    if (count != 0 && ((d <= s && s < d + count) || (s <= d && d < s + count))) {
        std::memset(dest, 0, destSize);
        return 1;
    }
    if (count != 0) {
        std::memcpy(dest, src, count);
    }
    return 0;
}

int memmove_s(void *dest, size_t destSize, const void *src, size_t count)
{
    if (dest == nullptr) {
        return 1;
    }
    if (src == nullptr || count > destSize) {
        std::memset(dest, 0, destSize);
        return 1;
    }
    if (count != 0) {
        std::memmove(dest, src, count);
    }
    return 0;
}

int strncpy_s(char *dest, size_t destSize, const char *src, size_t count)
{
    if (dest == nullptr || destSize == 0) {
        return 1;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return 1;
    }
    const void *nul = std::memchr(src, '\0', count);
    size_t n = nul != nullptr ? static_cast<size_t>(static_cast<const char *>(nul) - src) : count;
    if (n >= destSize) {
        dest[0] = '\0';
        return 1;
    }
    std::memcpy(dest, src, n);
    dest[n] = '\0';
    return 0;
}

int snprintf_s(char *dest, size_t destSize, size_t maxCount, const char *format, ...)
{
    if (dest == nullptr || destSize == 0) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    size_t limit = maxCount < destSize - 1 ? maxCount : destSize - 1;
    va_list args;
    va_start(args, format);
    int written = std::vsnprintf(dest, limit + 1, format, args);
    va_end(args);
    if (written < 0 || static_cast<size_t>(written) > limit) {
        dest[0] = '\0';
        return -1;
    }
    return written;
}

uint32_t OSAL_StrLen(const char *text)
{
    return text == nullptr ? 0 : static_cast<uint32_t>(std::strlen(text));
}

int OSAL_StrCmp(const char *a, const char *b)
{
    return std::strcmp(a, b);
}

int OSAL_MemCmp(const void *a, const void *b, size_t count)
{
    return count == 0 ? 0 : std::memcmp(a, b, count);
}

void *OSAL_MemTypeMallocD(size_t size, uint32_t, uint32_t, const char *)
{
    return krvHeapMalloc(size);
}

void OSAL_MemTypeFreeD(void *block, uint32_t, uint32_t, const char *)
{
    krvHeapFree(block);
}

#ifdef KRVXML_TESTING
namespace {
std::atomic<long> g_failAt{0};
std::atomic<bool> g_failOnward{false};
std::atomic<long> g_failures{0};
std::atomic<size_t> g_sizeLimit{0};
std::atomic<long> g_allocations{0};
std::atomic<long> g_live{0};

// True when this allocation is the one the test asked to fail, or comes after
// it when every later one is to fail too, or asks for more than the limit.
bool shouldFail(size_t bytes)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    size_t limit = g_sizeLimit.load(std::memory_order_relaxed);
    if (limit != 0 && bytes > limit) {
        return true;
    }
    long k = g_failAt.load(std::memory_order_relaxed);
    if (k <= 0) {
        return false;
    }
    if (k == 1) {
        if (!g_failOnward.load(std::memory_order_relaxed)) {
            g_failAt.store(0, std::memory_order_relaxed);
        }
        g_failures.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    g_failAt.store(k - 1, std::memory_order_relaxed);
    return false;
}

void armFailure(long k, bool onward)
{
    g_failures.store(0, std::memory_order_relaxed);
    g_failOnward.store(onward && k > 0, std::memory_order_relaxed);
    g_failAt.store(k, std::memory_order_relaxed);
}
}  // namespace

namespace krv_test {
void FailAllocationAt(long k)
{
    armFailure(k, false);
}
void FailAllocationsFrom(long k)
{
    armFailure(k, true);
}
void RefuseAllocationsOver(size_t bytes)
{
    g_sizeLimit.store(bytes, std::memory_order_relaxed);
}
long AllocationCount()
{
    return g_allocations.load(std::memory_order_relaxed);
}
long LiveBlocks()
{
    return g_live.load(std::memory_order_relaxed);
}
bool FailurePending()
{
    return g_failAt.load(std::memory_order_relaxed) != 0 && g_failures.load(std::memory_order_relaxed) == 0;
}
}  // namespace krv_test
#endif

__attribute__((noinline)) void *krvHeapMalloc(size_t size)
{
#ifdef KRVXML_TESTING
    if (shouldFail(size)) {
        return nullptr;
    }
    void *p = std::malloc(size == 0 ? 1 : size);
    if (p != nullptr) {
        g_live.fetch_add(1, std::memory_order_relaxed);
    }
    return p;
#else
    return std::malloc(size == 0 ? 1 : size);
#endif
}

__attribute__((noinline)) void *krvHeapCalloc(size_t count, size_t size)
{
#ifdef KRVXML_TESTING
    if (shouldFail(size != 0 && count > SIZE_MAX / size ? SIZE_MAX : count * size)) {
        return nullptr;
    }
    void *p = std::calloc(count == 0 ? 1 : count, size == 0 ? 1 : size);
    if (p != nullptr) {
        g_live.fetch_add(1, std::memory_order_relaxed);
    }
    return p;
#else
    return std::calloc(count == 0 ? 1 : count, size == 0 ? 1 : size);
#endif
}

__attribute__((noinline)) void *krvHeapRealloc(void *ptr, size_t size)
{
#ifdef KRVXML_TESTING
    if (shouldFail(size)) {
        return nullptr;
    }
    void *p = std::realloc(ptr, size == 0 ? 1 : size);
    if (p != nullptr && ptr == nullptr) {
        g_live.fetch_add(1, std::memory_order_relaxed);  // a new block, as from malloc
    }
    return p;
#else
    return std::realloc(ptr, size == 0 ? 1 : size);
#endif
}

__attribute__((noinline)) void krvHeapFree(void *ptr)
{
    if (ptr == nullptr) {
        return;
    }
#ifdef KRVXML_TESTING
    g_live.fetch_sub(1, std::memory_order_relaxed);
#endif
    std::free(ptr);
}
