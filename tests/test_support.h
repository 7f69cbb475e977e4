// Shared helpers for the test suites: the allocation failure sweep and a leak
// guard built on the test-only counters of the heap path.
#ifndef KRVXML_TEST_SUPPORT_H
#define KRVXML_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <pthread.h>

#include <cstdint>
#include <functional>

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

// Fills the session's current slab with full blocks, so that the session's
// next new block is a heap allocation that a sweep can fail.
inline void SpendSessionSlab(XmlMemSession *session)
{
    int32_t capacity = session->lastBlock->capacity;
    while (xmlSessionSlabRoom(session) >= capacity) {
        EXPECT_NE(XML_MemSpecialMalloc(session, capacity), nullptr);
    }
}

// Allocation failure sweep. For k = 1, 2, ...: `setup()` builds a fresh
// fixture with failures off; `attempt(fixture)` runs with the k-th allocation
// failing and returns a result code; `finish(rc, fixture)` checks the outcome
// and releases everything, the fixture included. The sweep then asserts that
// no library heap block is left over, and stops after the first attempt that
// never reached its failing allocation (that attempt must succeed).
// Returns the number of allocation points exercised.
template <class Setup, class Attempt, class Finish>
long SweepAllocationFailures(Setup setup, Attempt attempt, Finish finish)
{
    for (long k = 1; k < 10000000; ++k) {
        long live = krv_test::LiveBlocks();
        auto fixture = setup();
        krv_test::FailAllocationAt(k);
        uint32_t rc = attempt(fixture);
        bool failed = !krv_test::FailurePending();
        krv_test::FailAllocationAt(0);
        if (failed) {
            EXPECT_NE(rc, KRV_XML_OK) << "allocation " << k << " failed but the call succeeded";
        } else {
            EXPECT_EQ(rc, KRV_XML_OK) << "the attempt without failures must succeed";
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
    if (parent->lastChild != nullptr) {
        parent->lastChild->next = child;
    } else {
        parent->firstChild = child;
    }
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

}  // namespace krvtest

#endif  // KRVXML_TEST_SUPPORT_H
