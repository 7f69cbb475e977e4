// Shared helpers for the test suites: the allocation failure sweep, a leak
// guard built on the test-only counters of the heap path, and small builders.
#ifndef KRVXML_TEST_SUPPORT_H
#define KRVXML_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "krv_xml.h"
#include "platform/krv_platform.h"
#include "xml/xml_internal.h"

namespace krvtest {

// Fails the test when heap blocks allocated through the library during the
// guard's lifetime are still live at its end.
class LeakGuard {
public:
    LeakGuard() : before_(krv_test::LiveBlocks()) {}
    ~LeakGuard() { EXPECT_EQ(krv_test::LiveBlocks(), before_) << "library heap blocks leaked"; }
    LeakGuard(const LeakGuard &) = delete;
    LeakGuard &operator=(const LeakGuard &) = delete;

private:
    long before_;
};

// A value an out-argument is preset to, to see that a failed call left it.
template <class T = XmlNode>
T *Sentinel()
{
    return reinterpret_cast<T *>(uintptr_t{0x5EA1});
}

// Frees 4 MB of heap memory filled with 0xA5, kept from the heap's top by a
// fence that the caller frees, so that the slabs of a session begun next
// come from bytes that are not zero.
inline void *DirtyFreedHeap()
{
    std::vector<void *> dirt;
    for (int i = 0; i < 64; ++i) {
        dirt.push_back(std::malloc(64 << 10));
        std::memset(dirt.back(), 0xA5, 64 << 10);
    }
    void *fence = std::malloc(64 << 10);
    for (void *d : dirt) {
        std::free(d);
    }
    return fence;
}

// Fills the session's current slab with full blocks, so that the session's
// next new block is a heap allocation that a sweep can fail.
inline void SpendSessionSlab(XmlMemSession *session)
{
    int32_t capacity = session->lastBlock->capacity;
    while (xmlSessionSlabRoom(session) >= capacity) {
        EXPECT_NE(XML_MemSpecialMalloc(session, capacity), nullptr);
    }
}

// How a sweep fails allocations: only the k-th one, which a call may get
// over by asking again, or the k-th and every later one, as when the heap
// is exhausted.
enum class Failing { OnlyKth, KthOnward };

// Allocation failure sweep. For k = 1, 2, ...: `setup()` builds a fresh
// fixture with failures off; `attempt(fixture)` runs with the k-th allocation
// failing (and with KthOnward every later one) and returns a result code;
// `finish(rc, fixture)` checks the outcome and releases everything, the
// fixture included. A call that met a failure must fail, unless `recovers`
// says that it retries; it is then up to `finish` to check what it made.
// The sweep asserts that no library heap block is left over, and stops after
// the first attempt that never reached its failing allocation (that attempt
// must succeed). Returns the number of allocation points exercised.
template <class Setup, class Attempt, class Finish>
long SweepAllocationFailures(Setup setup, Attempt attempt, Finish finish, Failing failing = Failing::OnlyKth,
                             bool recovers = false)
{
    for (long k = 1; k < 10000000; ++k) {
        long live = krv_test::LiveBlocks();
        auto fixture = setup();
        if (failing == Failing::KthOnward) {
            krv_test::FailAllocationsFrom(k);
        } else {
            krv_test::FailAllocationAt(k);
        }
        uint32_t rc = attempt(fixture);
        bool failed = !krv_test::FailurePending();
        krv_test::FailAllocationAt(0);
        if (!failed) {
            EXPECT_EQ(rc, KRV_XML_OK) << "the attempt without failures must succeed";
        } else if (!recovers) {
            EXPECT_NE(rc, KRV_XML_OK) << "allocation " << k << " failed but the call succeeded";
        }
        finish(rc, fixture);
        EXPECT_EQ(krv_test::LiveBlocks(), live) << "leak with allocation " << k << " failing";
        if (!failed) {
            return k - 1;
        }
        if (::testing::Test::HasFailure()) {
            return k;
        }
    }
    ADD_FAILURE() << "allocation sweep did not end";
    return -1;
}

// Appends child under parent by setting the links directly, for tests that
// build trees without the insertion functions. Returns the child.
inline XmlNode *LinkChild(XmlNode *parent, XmlNode *child)
{
    child->parent = parent;
    child->prev = parent->lastChild;
    (parent->lastChild != nullptr ? parent->lastChild->next : parent->firstChild) = child;
    parent->lastChild = child;
    return child;
}

// Runs fn on a thread with a 256 KiB stack: a walk that recursed once per
// level of a deep tree would overflow it.
inline void OnSmallStack(const std::function<void()> &fn)
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 256 * 1024);
    pthread_t thread;
    auto body = [](void *arg) -> void * {
        (*static_cast<const std::function<void()> *>(arg))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, body, const_cast<std::function<void()> *>(&fn)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
}

inline std::string Str(const char *s)
{
    return s != nullptr ? std::string(s) : std::string("~");
}

// An element made through the interface: on the heap, or carved from mem.
inline XmlNode *Element(const char *name, XmlMemSession *mem = nullptr, const char *value = nullptr,
                        const char *prefix = nullptr)
{
    XmlNode *node = nullptr;
    EXPECT_EQ(KRV_XML_CreateNodeEx(mem, KRV_XML_NODE_ELEMENT, prefix, name, value, &node), KRV_XML_OK);
    return node;
}

// An empty document: a session document, or a heap one.
inline XmlNode *Document(bool session, const char *name = "doc")
{
    XmlNode *doc = nullptr;
    EXPECT_EQ(session ? KRV_XML_CreateNodeEx(nullptr, KRV_XML_NODE_DOCUMENT, nullptr, name, nullptr, &doc)
                      : KRV_XML_CreateNode(KRV_XML_NODE_DOCUMENT, nullptr, name, nullptr, &doc),
              KRV_XML_OK);
    return doc;
}

inline uint32_t ParseIn(bool session, const char *text, XmlNode **out)
{
    return session ? KRV_XML_ParseEx(text, out) : KRV_XML_Parse(text, out);
}

inline uint32_t ParseFileIn(bool session, const char *path, XmlNode **out)
{
    return session ? KRV_XML_ParseFileEx(path, out) : KRV_XML_ParseFile(path, out);
}

inline XmlNode *MustParse(const std::string &text, bool session)
{
    XmlNode *doc = nullptr;
    EXPECT_EQ(ParseIn(session, text.c_str(), &doc), KRV_XML_OK);
    return doc;
}

// A path in the test's temporary directory, written with content when given.
inline std::string TempFile(const std::string &leaf, const char *content = nullptr)
{
    std::string path = ::testing::TempDir() + "krvxml_" + std::to_string(getpid()) + "_" + leaf;
    if (content != nullptr) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    }
    return path;
}

inline std::string ReadFile(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace krvtest

#endif  // KRVXML_TEST_SUPPORT_H
