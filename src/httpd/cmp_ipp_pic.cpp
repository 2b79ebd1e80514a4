// Task layer: priority tables, thread creation and the task list.
#include "httpd/cmp_ipp_pic.h"

#include <cxxabi.h>
#include <sched.h>

#include <cstdio>
#include <cstring>

#include "platform/cmp_dbglog.h"
#include "containers/cmp_ipp_once.h"
#include "platform/emw_osw.h"

int32_t gPN_PIC_FIFO_Priorities[PN_PIC_NUM_PRIORITIES];
int32_t gPN_PIC_RR_Priorities[PN_PIC_NUM_PRIORITIES];
int32_t gPN_PIC_OTHER_Priorities[PN_PIC_NUM_PRIORITIES];
sem_t gPN_PIC_TaskInfoSem;
PN_PIC_TaskInfo* gPN_PIC_TaskInfoList = nullptr;

namespace {

int g_semReady = 0;

// The list semaphore is set up once and never re-initialised: tasks of an earlier
// start may still be using it. Every user makes sure it exists.
void ensureListSem() {
    cmp_ipp_once::run(&g_semReady, [] { sem_init(&gPN_PIC_TaskInfoSem, 0, 1); });
}

// Spreads [lowValue, highValue] over the levels [low, high] by halving.
void fillPriorities(int32_t* table, int32_t low, int32_t high, int32_t lowValue, int32_t highValue) {
    for (;;) {
        const int32_t mid = low + (high - low) / 2;
        const int32_t midValue = lowValue + (highValue - lowValue) / 2;
        if (mid == low) return;
        table[low] = lowValue;
        table[mid] = midValue;
        table[high] = highValue;
        fillPriorities(table, low, mid, lowValue, midValue);
        low = mid;
        lowValue = midValue;
    }
}

void fillPolicy(int32_t* table, int policy) {
    std::memset(table, 0, sizeof(int32_t) * PN_PIC_NUM_PRIORITIES);
    const int lo = sched_get_priority_min(policy);
    const int hi = sched_get_priority_max(policy);
    if (lo < 0 || hi < lo) return;
    fillPriorities(table, 0, PN_PIC_NUM_PRIORITIES - 1, lo, hi);
}

void lockList() {
    ensureListSem();
    while (sem_wait(&gPN_PIC_TaskInfoSem) != 0) {
    }
}
void unlockList() { sem_post(&gPN_PIC_TaskInfoSem); }

// Unlinks and returns the record of the given thread, or null.
PN_PIC_TaskInfo* unlinkTask(pthread_t self) {
    lockList();
    PN_PIC_TaskInfo* found = nullptr;
    for (PN_PIC_TaskInfo** link = &gPN_PIC_TaskInfoList; *link != nullptr; link = &(*link)->next) {
        if (pthread_equal((*link)->threadId, self)) {
            found = *link;
            *link = found->next;
            break;
        }
    }
    unlockList();
    return found;
}

void releaseTask(PN_PIC_TaskInfo* info) {
    if (info == nullptr) return;
    sem_destroy(&info->startSem);
    emwOSWOrgFreeMemPart(0, info);
}

void* taskStart(void* arg) {
    PN_PIC_TaskInfo* info = static_cast<PN_PIC_TaskInfo*>(arg);
    // The creator posts once the thread identifier is stored in the record.
    while (sem_wait(&info->startSem) != 0) {
    }
    const PN_PIC_TaskEntry entry = info->entry;
    void* const entryArg = info->arg;
    lockList();
    info->next = gPN_PIC_TaskInfoList;
    gPN_PIC_TaskInfoList = info;
    unlockList();

    try {
        if (entry != nullptr) entry(entryArg);
    } catch (abi::__forced_unwind&) {
        // The task ended itself through the platform's exit: its record is
        // normally gone already; make sure, then let the unwinding go on.
        releaseTask(unlinkTask(pthread_self()));
        throw;
    } catch (...) {
        // An exception must not leave the thread (that would end the process):
        // the task ends here like any other.
        orvane::cmp_dbglog::tracer(0, "[ERROR ]:cmp_ipp_pic::%s(%d): task ended by an exception.\n", "taskStart",
                                   121);
    }
    PN_PIC_ThreadExit(0);
}

}  // namespace

extern "C" void PN_PIC_Init(void) {
    ensureListSem();
    fillPolicy(gPN_PIC_FIFO_Priorities, SCHED_FIFO);
    fillPolicy(gPN_PIC_RR_Priorities, SCHED_RR);
    fillPolicy(gPN_PIC_OTHER_Priorities, SCHED_OTHER);
}

extern "C" int PN_PIC_ThreadCreateB(const PN_PIC_TaskParam* param) {
    if (param == nullptr || param->priority < 0 || param->priority >= PN_PIC_NUM_PRIORITIES) return -1;
    PN_PIC_TaskInfo* info = static_cast<PN_PIC_TaskInfo*>(emwOSWSubAllocMem(sizeof(PN_PIC_TaskInfo)));
    if (info == nullptr) return -1;
    std::memset(static_cast<void*>(info), 0, sizeof(PN_PIC_TaskInfo));
    if (param->name != nullptr) {
        std::snprintf(info->name, PN_PIC_NAME_SIZE, "%s", param->name);
    }
    info->entry = param->entry;
    info->arg = param->arg;
    info->priority = param->priority;
    if (sem_init(&info->startSem, 0, 1) != 0) {
        emwOSWOrgFreeMemPart(0, info);
        return -1;
    }

    int policy;
    const int32_t* table;
    switch (param->policy) {
    case PN_PIC_SCHED_FIFO:
        policy = SCHED_FIFO;
        table = gPN_PIC_FIFO_Priorities;
        break;
    case PN_PIC_SCHED_RR:
        policy = SCHED_RR;
        table = gPN_PIC_RR_Priorities;
        break;
    default:
        policy = SCHED_OTHER;
        table = gPN_PIC_OTHER_Priorities;
        break;
    }
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attr, policy);
    struct sched_param sp;
    std::memset(&sp, 0, sizeof sp);
    sp.sched_priority = table[param->priority];
    pthread_attr_setschedparam(&attr, &sp);
    if (param->joinable == 0) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // A size below the platform's minimum is refused and the default stays.
    if (param->stackSize != 0) (void)pthread_attr_setstacksize(&attr, param->stackSize);

    while (sem_wait(&info->startSem) != 0) {
    }
    pthread_t thread;
    const int rc = emwOSWSubPthreadCreate(&thread, &attr, taskStart, info);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        releaseTask(info);
        return -1;
    }
    info->threadId = thread;
    sem_post(&info->startSem);
    return 0;
}

extern "C" void PN_PIC_ThreadExit(int code) {
    releaseTask(unlinkTask(pthread_self()));
    emwOSWExitTask(code);
    pthread_exit(nullptr);  // not reached: the platform call ends the task
}
