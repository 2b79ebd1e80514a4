#include <gtest/gtest.h>

#include <chrono>

#include "containers/cmp_ipp_malloc.h"
#include "platform/emw_osw_test.h"

namespace {

using Clock = std::chrono::steady_clock;

long msSince(Clock::time_point t0) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count());
}

TEST(LibraryMemory, MallocWaitsAndRetriesUntilThePlatformGivesMemory) {
    uint32_t calls0 = emwOSWTestAllocCalls();
    emwOSWTestFailNextAllocs(3);
    auto t0 = Clock::now();
    void* p = cmp_ipp_malloc(32);
    long elapsed = msSince(t0);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(emwOSWTestAllocCalls() - calls0, 4u) << "three failures then one success";
    EXPECT_GE(elapsed, 30) << "10 ms sleep after each failed attempt";
    cmp_ipp_free(p);
    cmp_ipp_free(nullptr);
}

TEST(LibraryMemory, ThreadDelaySleepsForWholeAndFractionalSeconds) {
    auto t0 = Clock::now();
    EXPECT_EQ(IPP_ThreadDelay(0), 0);
    EXPECT_LT(msSince(t0), 50);

    t0 = Clock::now();
    EXPECT_EQ(IPP_ThreadDelay(1500), 0);
    long elapsed = msSince(t0);
    EXPECT_GE(elapsed, 1500);
    EXPECT_LT(elapsed, 5000);
}

}  // namespace
