// Linked into every test program: each test must end with no more library
// blocks outstanding than it began with, whatever fixture it uses. Checked after
// the fixture's teardown. Connection tasks release their blocks on their own
// threads as they end, so the count is given a moment to come back first.
#include <gtest/gtest.h>

#include <time.h>

#include "platform/emw_osw_test.h"

namespace {

class BlockLeakCheck : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo&) override { m_before = emwOSWTestOutstandingBlocks(); }

    void OnTestEnd(const ::testing::TestInfo&) override {
        int32_t now = emwOSWTestOutstandingBlocks();
        for (int i = 0; i < 400 && now > m_before; ++i) {
            const struct timespec pause = {0, 5 * 1000 * 1000};
            nanosleep(&pause, nullptr);
            now = emwOSWTestOutstandingBlocks();
        }
        EXPECT_LE(now, m_before) << "library blocks left allocated by this test: " << now - m_before;
    }

    int32_t m_before = 0;
};

const bool registered = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new BlockLeakCheck);
    return true;
}();

}  // namespace
