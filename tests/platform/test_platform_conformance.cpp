// Conformance of a platform layer (emw_osw.h, cmp_dbglog.h) with what the
// library relies on. Linked against the platform library alone, so that it runs
// unchanged against a port: nothing here knows how the stand-ins work, and the
// test hooks of the stand-ins are not used.
//
// No test measures speed. A wait that would hang on a broken layer is bounded
// (kLiveness) and reported as a failure; a deadlock is caught in a child process
// that an alarm ends.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/cmp_dbglog.h"
#include "platform/emw_osw.h"

namespace {

const auto kLiveness = std::chrono::seconds(30);
const unsigned kDeadlockAlarmSeconds = 30;

// Runs body(t) for t = 0 .. n-1 on n tasks at once and waits for them all.
template <class F>
void onTasks(int n, F body) {
    std::vector<std::thread> threads;
    for (int t = 0; t < n; ++t) threads.emplace_back(body, t);
    for (std::thread& th : threads) th.join();
}

// ---- memory -------------------------------------------------------------------

// Sizes the library asks for: texts of every length, the 32768-byte spool
// block, the request record of a connection, and 0 (an empty text's copy).
const uint32_t kSizes[] = {0, 1, 2, 3, 7, 8, 13, 64, 100, 1000, 4096, 30480, 32768, 65537};

TEST(PlatformMemory, BlocksAreDistinctAlignedAndWritableOverTheirWholeSize) {
    struct Block {
        unsigned char* p;
        uint32_t size;
    };
    std::vector<Block> blocks;
    for (int round = 0; round < 4; ++round) {
        for (uint32_t size : kSizes) {
            void* p = emwOSWSubAllocMem(size);
            ASSERT_NE(p, nullptr) << size << " bytes: the library's allocator would wait forever";
            EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % alignof(std::max_align_t), 0u)
                << size << " bytes: the library places records and pointers in these blocks";
            blocks.push_back({static_cast<unsigned char*>(p), size});
        }
    }
    // Each block gets its own byte everywhere; a block that overlaps another
    // shows the other's byte afterwards.
    for (size_t i = 0; i < blocks.size(); ++i) std::memset(blocks[i].p, static_cast<int>(i & 0xFF), blocks[i].size);
    for (size_t i = 0; i < blocks.size(); ++i) {
        unsigned char* const end = blocks[i].p + blocks[i].size;
        const unsigned char* const k = std::find_if(blocks[i].p, end, [i](unsigned char c) { return c != (i & 0xFF); });
        EXPECT_EQ(k, end) << "block " << i << " (" << blocks[i].size << " bytes) overwritten at " << k - blocks[i].p;
    }
    for (const Block& b : blocks) emwOSWOrgFreeMemPart(0, b.p);
    emwOSWOrgFreeMemPart(0, nullptr);  // does nothing
}

// Connection tasks allocate and release at once, and a reply block may be
// released by another task than the one that allocated it.
TEST(PlatformMemory, TasksAllocateAndReleaseConcurrentlyAndAcrossTasks) {
    const int kThreads = 4, kRounds = 2000;
    std::vector<std::vector<void*>> handedOver(kThreads);
    std::atomic<int> corrupt{0};
    onTasks(kThreads, [&](int t) {
        for (int i = 0; i < kRounds; ++i) {
            const uint32_t size = kSizes[(i + t) % (sizeof kSizes / sizeof kSizes[0])];
            unsigned char* p = static_cast<unsigned char*>(emwOSWSubAllocMem(size));
            if (p == nullptr) {
                ++corrupt;
                continue;
            }
            std::memset(p, t + 1, size);
            sched_yield();
            if (std::count(p, p + size, static_cast<unsigned char>(t + 1)) != static_cast<long>(size)) ++corrupt;
            if (i % 10 == 0) {
                handedOver[t].push_back(p);
            } else {
                emwOSWOrgFreeMemPart(0, p);
            }
        }
    });
    EXPECT_EQ(corrupt.load(), 0) << "a block was shared between tasks, or an allocation failed";
    // Released by other tasks than their makers.
    onTasks(kThreads, [&](int t) {
        for (void* p : handedOver[(t + 1) % kThreads]) emwOSWOrgFreeMemPart(0, p);
    });
}

// ---- mutexes --------------------------------------------------------------------

// The object mutex guards read-modify-write of attribute lists from many tasks,
// the process-wide guard the creation of singletons: each keeps it whole.
TEST(PlatformMutex, MutexAndGuardKeepReadModifyWriteWholeAcrossTasks) {
    emwOSWMutex_t m = 0;
    ASSERT_EQ(emwOSWCreateMutexSem(&m, 0, 1), 0);
    ASSERT_NE(m, 0u) << "0 is the library's mark of a mutex that could not be created";
    for (const bool guard : {false, true}) {
        SCOPED_TRACE(guard ? "process-wide guard" : "mutex");
        const int kThreads = 4, kRounds = 5000;
        volatile long counter = 0;
        std::atomic<int> failures{0};
        onTasks(kThreads, [&](int) {
            for (int i = 0; i < kRounds; ++i) {
                std::unique_ptr<OSW_Thread_Guard> held(guard ? new OSW_Thread_Guard : nullptr);
                if (!guard && emwOSWRequestMutexSem(m, -1) != 0) {
                    ++failures;
                    continue;
                }
                const long seen = counter;
                if (i % 64 == 0) sched_yield();  // invites a task that should be shut out
                counter = seen + 1;
                if (!guard && emwOSWReleaseMutexSem(m) != 0) ++failures;
            }
        });
        EXPECT_EQ(failures.load(), 0);
        EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
    }
    EXPECT_EQ(emwOSWDeleteMutexSem(m), 0);
}

TEST(PlatformMutex, MutexesAreIndependentAndHandleZeroIsRefused) {
    emwOSWMutex_t a = 0, b = 0;
    ASSERT_EQ(emwOSWCreateMutexSem(&a, 0, 1), 0);
    ASSERT_EQ(emwOSWCreateMutexSem(&b, 0, 1), 0);
    EXPECT_NE(a, b);
    ASSERT_EQ(emwOSWRequestMutexSem(a, -1), 0);
    // Another task takes b while a is held, even with a try that does not wait.
    auto took = std::async(std::launch::async, [&] {
        const bool ok = emwOSWRequestMutexSem(b, 0) == 0;
        if (ok) emwOSWReleaseMutexSem(b);
        return ok;
    });
    ASSERT_EQ(took.wait_for(kLiveness), std::future_status::ready) << "holding one mutex blocked another";
    EXPECT_TRUE(took.get());
    EXPECT_EQ(emwOSWReleaseMutexSem(a), 0);
    EXPECT_EQ(emwOSWDeleteMutexSem(a), 0);
    EXPECT_EQ(emwOSWDeleteMutexSem(b), 0);
    // An object whose mutex could not be created keeps the handle 0 and still
    // calls request and release on it: they must fail, not crash.
    EXPECT_NE(emwOSWRequestMutexSem(0, -1), 0);
    EXPECT_NE(emwOSWReleaseMutexSem(0), 0);
    EXPECT_NE(emwOSWCreateMutexSem(nullptr, 0, 1), 0);
}

// A singleton created under the guard may reach another singleton from its
// constructor, which takes the guard again on the same task.
TEST(PlatformGuard, IsRecursiveOnOneTask) {
    // In a child process, plain fork (no exec, which an emulator may not run
    // again), ended by an alarm should it deadlock.
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(kDeadlockAlarmSeconds);
        {
            OSW_Thread_Guard outer;
            OSW_Thread_Guard inner;
        }
        // And it is free again for another task afterwards.
        std::thread other([] { OSW_Thread_Guard g; });
        other.join();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM ? "deadlocked on the second guard" : "failed");
}

// ---- tasks ----------------------------------------------------------------------

struct TaskSeen {
    std::atomic<void*> arg{nullptr};
    pthread_t self{};
    int detachState = -1;
    std::promise<void> ran;
};

void* recordTask(void* p) {
    TaskSeen* seen = static_cast<TaskSeen*>(p);
    seen->arg = p;
    seen->self = pthread_self();
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getdetachstate(&attr, &seen->detachState);
        pthread_attr_destroy(&attr);
    }
    seen->ran.set_value();
    return nullptr;
}

// The attributes the library's task layer gives its listener and connection
// tasks: explicit round-robin scheduling at a mid priority, detached, a 30 KiB
// stack. A system that refuses the real-time policy must still get the task.
void libraryTaskAttributes(pthread_attr_t* attr, int detachState) {
    pthread_attr_init(attr);
    pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(attr, SCHED_RR);
    struct sched_param sp;
    std::memset(&sp, 0, sizeof sp);
    sp.sched_priority = (sched_get_priority_min(SCHED_RR) + sched_get_priority_max(SCHED_RR)) / 3;
    pthread_attr_setschedparam(attr, &sp);
    pthread_attr_setdetachstate(attr, detachState);
    pthread_attr_setstacksize(attr, 30720);
}

TEST(PlatformTask, RunsTheEntryWithItsArgumentAndReportsTheTaskItMade) {
    // -1: no attributes at all (joinable).
    for (int detach : {int{PTHREAD_CREATE_JOINABLE}, int{PTHREAD_CREATE_DETACHED}, -1}) {
        SCOPED_TRACE(detach);
        TaskSeen seen;
        std::future<void> ran = seen.ran.get_future();
        pthread_attr_t attr;
        libraryTaskAttributes(&attr, detach == -1 ? PTHREAD_CREATE_JOINABLE : detach);
        pthread_t thread{};
        ASSERT_EQ(emwOSWSubPthreadCreate(&thread, detach == -1 ? nullptr : &attr, recordTask, &seen), 0);
        pthread_attr_destroy(&attr);
        ASSERT_EQ(ran.wait_for(kLiveness), std::future_status::ready) << "the entry never ran";
        EXPECT_EQ(seen.arg.load(), &seen) << "the entry got another argument";
        // A task finds its own bookkeeping by comparing pthread_self() with
        // the identifier its creator stored.
        EXPECT_TRUE(pthread_equal(seen.self, thread)) << "the identifier given back is not the task's";
        // Connection tasks are never joined: a joinable one would leak at every connection.
        if (detach != -1) {
            EXPECT_EQ(seen.detachState, detach) << "the detach state asked for was not kept";
        }
        if (detach != PTHREAD_CREATE_DETACHED) {
            EXPECT_EQ(pthread_join(thread, nullptr), 0);
        }
    }
}

TEST(PlatformTask, ManyTasksRunAtOnce) {
    // The listener and up to 32 connection tasks live at the same time.
    const int kTasks = 33;
    std::atomic<int> inside{0};
    std::atomic<bool> release{false};
    struct Arg {
        std::atomic<int>* inside;
        std::atomic<bool>* release;
    } arg{&inside, &release};
    std::vector<pthread_t> threads(kTasks);
    for (int i = 0; i < kTasks; ++i) {
        pthread_attr_t attr;
        libraryTaskAttributes(&attr, PTHREAD_CREATE_JOINABLE);
        ASSERT_EQ(emwOSWSubPthreadCreate(
                      &threads[i], &attr,
                      [](void* p) -> void* {
                          Arg* a = static_cast<Arg*>(p);
                          ++*a->inside;
                          while (!a->release->load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
                          return nullptr;
                      },
                      &arg),
                  0)
            << "task " << i;
        pthread_attr_destroy(&attr);
    }
    const auto start = std::chrono::steady_clock::now();
    while (inside.load() < kTasks && std::chrono::steady_clock::now() - start < kLiveness)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(inside.load(), kTasks) << "the tasks did not all run at once";
    release = true;
    for (pthread_t t : threads) pthread_join(t, nullptr);
}

void* exitingTask(void* p) {
    std::atomic<int>* step = static_cast<std::atomic<int>*>(p);
    *step = 1;
    emwOSWExitTask(0);
    *step = 2;  // never reached
    return nullptr;
}

TEST(PlatformTask, ExitTaskEndsOnlyTheCallingTask) {
    std::atomic<int> step{0};
    pthread_t thread{};
    ASSERT_EQ(emwOSWSubPthreadCreate(&thread, nullptr, exitingTask, &step), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0);
    EXPECT_EQ(step.load(), 1) << "emwOSWExitTask returned to its caller";
}

// ---- tracing ----------------------------------------------------------------------

class PlatformTrace : public ::testing::Test {
protected:
    void SetUp() override {
        m_saved = orvane::cmp_dbglog_common::get_instance().level();
        orvane::cmp_dbglog_common::get_instance().clear();
    }
    void TearDown() override { orvane::cmp_dbglog_common::get_instance().set_level(m_saved); }

    static std::vector<std::string> lines() { return orvane::cmp_dbglog_common::get_instance().lines(); }
    static bool has(const std::string& line) {
        for (const std::string& l : lines())
            if (l == line) return true;
        return false;
    }

private:
    int m_saved = 0;
};

// Trace texts are part of what the library shows: each line arrives exactly as
// formatted, and only when its level is not above the threshold.
TEST_F(PlatformTrace, LinesArriveExactlyAsFormattedWhenTheLevelAllows) {
    orvane::cmp_dbglog_common& log = orvane::cmp_dbglog_common::get_instance();
    log.set_level(0);
    EXPECT_EQ(log.level(), 0);
    EXPECT_TRUE(log.enabled(0));
    EXPECT_FALSE(log.enabled(2));
    orvane::cmp_dbglog::tracer(0, "[ERROR ]:conformance::%s(%d): error %d.\n", "check", 1, 42);
    orvane::cmp_dbglog::tracer(2, "[INFO  ]:conformance::%s(%d): dropped.\n", "check", 2);
    emwGENTrcPrintf(0x510A, 0, 2, "[INFO  ]:conformance::%s(%d): dropped too.\n", "check", 3);
    EXPECT_TRUE(has("[ERROR ]:conformance::check(1): error 42.\n"));
    EXPECT_EQ(lines().size(), 1u) << "a line above the threshold was written";

    log.set_level(2);
    EXPECT_TRUE(log.enabled(2));
    orvane::cmp_dbglog::tracer(2, "[INFO  ]:conformance::%s(%d): kept.\n", "check", 4);
    emwGENTrcPrintf(0x510A, 0, 2, "[INFO  ]:conformance::%s(%d): length[%d].\n", "check", 5, 7);
    EXPECT_TRUE(has("[INFO  ]:conformance::check(4): kept.\n"));
    EXPECT_TRUE(has("[INFO  ]:conformance::check(5): length[7].\n")) << "the trace printf goes to the same sink";
    // An overlong line is cut, not overrun.
    log.clear();
    const std::string longText(20000, 'x');
    orvane::cmp_dbglog::tracer(0, "[ERROR ]:conformance::%s(%d): %s\n", "long", 1, longText.c_str());
    const std::vector<std::string> got = lines();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].rfind("[ERROR ]:conformance::long(1): xxx", 0), 0u);
    EXPECT_LE(got[0].size(), 20000u + 40u);
}

// Tasks trace at once: every line arrives whole.
TEST_F(PlatformTrace, ConcurrentLinesStayWhole) {
    orvane::cmp_dbglog_common::get_instance().set_level(0);
    const int kThreads = 4, kLines = 50;
    onTasks(kThreads, [](int t) {
        for (int i = 0; i < kLines; ++i)
            orvane::cmp_dbglog::tracer(0, "[ERROR ]:conformance::%s(%d): task %d line %d.\n", "whole", 1, t, i);
    });
    const std::vector<std::string> got = lines();
    EXPECT_EQ(got.size(), static_cast<size_t>(kThreads * kLines));
    for (const std::string& l : got) {
        EXPECT_EQ(l.rfind("[ERROR ]:conformance::whole(1): task ", 0), 0u) << l;
        EXPECT_EQ(l.back(), '\n') << l;
        EXPECT_EQ(l.find('\n'), l.size() - 1) << l;
    }
}

}  // namespace
