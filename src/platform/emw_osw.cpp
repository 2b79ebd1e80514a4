#include "emw_osw_test.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "cmp_dbglog.h"

namespace {

std::atomic<int> g_failAllocs{0};
std::atomic<uint32_t> g_allocCalls{0};
std::atomic<int32_t> g_outstanding{0};
std::atomic<int> g_failMutexOps{0};
std::atomic<bool> g_rtFallbackTraced{false};

bool consumeFailure(std::atomic<int>& counter) {
    int n = counter.load(std::memory_order_relaxed);
    while (n > 0) {
        if (counter.compare_exchange_weak(n, n - 1, std::memory_order_relaxed)) return true;
    }
    return false;
}

// A mutex handle: the lock, and whether it is held, so that a release of a
// mutex nobody holds fails rather than unlocking it.
struct osw_mutex {
    pthread_mutex_t lock;
    std::atomic<bool> held{false};
};

// Counts calls down to the one that fails: true for the call that takes it from 1 to 0.
std::atomic<int> g_allocCountdown{0};
std::atomic<int> g_mutexCountdown{0};

bool countdownHits(std::atomic<int>& countdown) {
    int n = countdown.load(std::memory_order_relaxed);
    while (n > 0) {
        if (countdown.compare_exchange_weak(n, n - 1, std::memory_order_relaxed)) return n == 1;
    }
    return false;
}

bool allocFails() { return consumeFailure(g_failAllocs) || countdownHits(g_allocCountdown); }
bool mutexOpFails() { return consumeFailure(g_failMutexOps) || countdownHits(g_mutexCountdown); }

pthread_mutex_t* makeRecursiveMutex() {
    static pthread_mutex_t m;
    pthread_mutexattr_t a;
    pthread_mutexattr_init(&a);
    pthread_mutexattr_settype(&a, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m, &a);
    pthread_mutexattr_destroy(&a);
    return &m;
}

pthread_mutex_t* guardMutex() {
    static pthread_mutex_t* m = makeRecursiveMutex();
    return m;
}

}  // namespace

extern "C" {

void* emwOSWSubAllocMem(uint32_t size) {
    g_allocCalls.fetch_add(1, std::memory_order_relaxed);
    if (allocFails()) return nullptr;
    void* p = std::malloc(size == 0 ? 1 : size);
    if (p != nullptr) g_outstanding.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void emwOSWOrgFreeMemPart(int /*partition*/, void* block) {
    if (block == nullptr) return;
    g_outstanding.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}

void emwOSWTestFailNextAllocs(int n) { g_failAllocs.store(n < 0 ? 0 : n); }
uint32_t emwOSWTestAllocCalls(void) { return g_allocCalls.load(); }
int32_t emwOSWTestOutstandingBlocks(void) { return g_outstanding.load(); }

int emwOSWCreateMutexSem(emwOSWMutex_t* mutex, int /*flags*/, int initiallyFree) {
    if (mutex == nullptr) return -1;
    *mutex = 0;
    if (mutexOpFails()) return -1;
    auto* m = new (std::nothrow) osw_mutex;
    if (m == nullptr) return -1;
    if (pthread_mutex_init(&m->lock, nullptr) != 0) {
        delete m;
        return -1;
    }
    if (!initiallyFree) {
        pthread_mutex_lock(&m->lock);
        m->held.store(true);
    }
    *mutex = reinterpret_cast<emwOSWMutex_t>(m);
    return 0;
}

int emwOSWRequestMutexSem(emwOSWMutex_t mutex, int timeoutMs) {
    if (mutex == 0) return -1;
    if (mutexOpFails()) return -1;
    auto* m = reinterpret_cast<osw_mutex*>(mutex);
    int rc = 0;
    if (timeoutMs < 0) {
        rc = pthread_mutex_lock(&m->lock);
    } else if (timeoutMs == 0) {
        rc = pthread_mutex_trylock(&m->lock);
    } else {
        struct timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_sec += timeoutMs / 1000;
        until.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
        if (until.tv_nsec >= 1000000000L) {
            until.tv_sec += 1;
            until.tv_nsec -= 1000000000L;
        }
        rc = pthread_mutex_timedlock(&m->lock, &until);
    }
    if (rc != 0) return -1;
    m->held.store(true);
    return 0;
}

// A mutex that is not held is not released (a caller whose request failed goes
// on to release): the call fails instead of unlocking what nobody locked. A
// failed release still lets the mutex go, as a failed delete still frees it:
// the caller can do nothing else with it.
int emwOSWReleaseMutexSem(emwOSWMutex_t mutex) {
    if (mutex == 0) return -1;
    auto* m = reinterpret_cast<osw_mutex*>(mutex);
    const bool fail = mutexOpFails();
    if (!m->held.exchange(false)) return -1;
    if (pthread_mutex_unlock(&m->lock) != 0) return -1;
    return fail ? -1 : 0;
}

int emwOSWDeleteMutexSem(emwOSWMutex_t mutex) {
    if (mutex == 0) return -1;
    auto* m = reinterpret_cast<osw_mutex*>(mutex);
    // A failed delete still frees the handle: nobody can use it afterwards.
    bool fail = mutexOpFails();
    pthread_mutex_destroy(&m->lock);
    delete m;
    return fail ? -1 : 0;
}

void emwOSWTestFailNextMutexOps(int n) { g_failMutexOps.store(n < 0 ? 0 : n); }

void emwOSWTestFailNthAlloc(int n) { g_allocCountdown.store(n < 0 ? 0 : n); }
void emwOSWTestFailNthMutexOp(int n) { g_mutexCountdown.store(n < 0 ? 0 : n); }
int emwOSWTestFaultPending(void) { return g_allocCountdown.load() > 0 || g_mutexCountdown.load() > 0 ? 1 : 0; }

int emwOSWSubPthreadCreate(pthread_t* thread, const pthread_attr_t* attr,
                           void* (*start)(void*), void* arg) {
    int rc = pthread_create(thread, attr, start, arg);
    if (rc != EPERM || attr == nullptr) return rc;

    // The system refused the real-time policy (no privilege): keep the other
    // attributes and let the thread inherit the default scheduling instead.
    pthread_attr_t plain;
    pthread_attr_init(&plain);
    size_t stack = 0;
    if (pthread_attr_getstacksize(attr, &stack) == 0 && stack != 0)
        pthread_attr_setstacksize(&plain, stack);
    int detach = PTHREAD_CREATE_JOINABLE;
    if (pthread_attr_getdetachstate(attr, &detach) == 0) pthread_attr_setdetachstate(&plain, detach);
    pthread_attr_setinheritsched(&plain, PTHREAD_INHERIT_SCHED);
    rc = pthread_create(thread, &plain, start, arg);
    pthread_attr_destroy(&plain);
    if (rc == 0 && !g_rtFallbackTraced.exchange(true)) {
        orvane::cmp_dbglog::tracer(
            2, "[INFO  ]:emw_osw::%s(%d): real-time scheduling refused, using the default policy.\n",
            "emwOSWSubPthreadCreate", 1);
    }
    return rc;
}

void emwOSWExitTask(int code) {
    pthread_exit(reinterpret_cast<void*>(static_cast<intptr_t>(code)));
}

void emwGENTrcPrintf(uint32_t /*module*/, uint32_t /*code*/, int level, const char* fmt, ...) {
    if (!orvane::cmp_dbglog_common::get_instance().enabled(level)) return;
    va_list ap;
    va_start(ap, fmt);
    cmp_dbglog_common_trace("CMP_IPP", level, fmt, ap);
    va_end(ap);
}

}  // extern "C"

OSW_Thread_Guard::OSW_Thread_Guard() { pthread_mutex_lock(guardMutex()); }
OSW_Thread_Guard::~OSW_Thread_Guard() { pthread_mutex_unlock(guardMutex()); }
