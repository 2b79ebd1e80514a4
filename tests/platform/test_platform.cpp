#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "attr/codec_test_util.h"  // TraceCapture
#include "platform/emw_osw.h"

namespace {

TEST(PlatformTrace, RingKeepsOnlyTheNewestLines) {
    TraceCapture trace(0);
    const size_t total = orvane::cmp_dbglog_common::kRingLines + 10;
    for (size_t i = 0; i < total; ++i) orvane::cmp_dbglog::tracer(0, "line %zu\n", i);
    auto lines = trace.lines();
    ASSERT_EQ(lines.size(), orvane::cmp_dbglog_common::kRingLines);
    EXPECT_EQ(lines.front(), "line 10\n");
    EXPECT_EQ(lines.back(), "line " + std::to_string(total - 1) + "\n");
}

void* noteRan(void* p) {
    static_cast<std::atomic<int>*>(p)->store(1);
    return nullptr;
}

// A real-time request that the system refuses still gives a task.
TEST(PlatformTask, RefusedRealTimePolicyFallsBack) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (getuid() == 0 && setuid(65534) != 0) _exit(10);
        TraceCapture trace(2);
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&attr, SCHED_RR);
        sched_param sp{};
        sp.sched_priority = 10;
        pthread_attr_setschedparam(&attr, &sp);
        for (int round = 0; round < 2; ++round) {
            std::atomic<int> ran{0};
            pthread_t t;
            if (emwOSWSubPthreadCreate(&t, &attr, noteRan, &ran) != 0) _exit(11);
            pthread_join(t, nullptr);
            if (ran.load() != 1) _exit(12);
        }
        size_t traced = 0;
        for (const std::string& l : trace.lines())
            if (l.find("real-time scheduling refused") != std::string::npos) ++traced;
        _exit(traced == 1 ? 0 : 13);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
