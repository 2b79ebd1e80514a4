// Task layer of the HTTP server: 32 abstract priority levels mapped onto each
// scheduling policy, thread creation with explicit scheduling attributes, and the
// list of running tasks through which a task releases its own bookkeeping.
#ifndef CMP_IPP_PIC_H
#define CMP_IPP_PIC_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

extern "C" {

enum { PN_PIC_NUM_PRIORITIES = 32, PN_PIC_NAME_SIZE = 32 };

// Scheduling policies as the callers name them.
enum { PN_PIC_SCHED_OTHER = 0, PN_PIC_SCHED_FIFO = 1, PN_PIC_SCHED_RR = 2 };

typedef void (*PN_PIC_TaskEntry)(void* arg);

// Filled by the caller of PN_PIC_ThreadCreateB.
struct PN_PIC_TaskParam {
    int32_t priority;      // level 0..31
    int32_t policy;        // PN_PIC_SCHED_*
    int32_t joinable;      // 0: detached
    PN_PIC_TaskEntry entry;
    void* arg;
    const char* name;      // may be null
    uint32_t stackSize;    // 0: the platform's default
};

// One per created task; on gPN_PIC_TaskInfoList while the task runs.
struct PN_PIC_TaskInfo {
    PN_PIC_TaskInfo* next;
    pthread_t threadId;
    char name[PN_PIC_NAME_SIZE];
    int32_t priority;
    PN_PIC_TaskEntry entry;
    void* arg;
    sem_t startSem;
};

// Priorities by level, one table per policy; written by PN_PIC_Init only.
extern int32_t gPN_PIC_FIFO_Priorities[PN_PIC_NUM_PRIORITIES];
extern int32_t gPN_PIC_RR_Priorities[PN_PIC_NUM_PRIORITIES];
extern int32_t gPN_PIC_OTHER_Priorities[PN_PIC_NUM_PRIORITIES];

// Guards gPN_PIC_TaskInfoList (newest first).
extern sem_t gPN_PIC_TaskInfoSem;
extern PN_PIC_TaskInfo* gPN_PIC_TaskInfoList;

// Must run before the first PN_PIC_ThreadCreateB; may run again later.
void PN_PIC_Init(void);
// 0 on success, -1 when the record or the thread could not be had (or the level
// is outside 0..31); nothing is left behind on failure.
int PN_PIC_ThreadCreateB(const PN_PIC_TaskParam* param);
// Releases the calling task's record and ends the task.
void PN_PIC_ThreadExit(int code) __attribute__((noreturn));

}  // extern "C"

#endif
