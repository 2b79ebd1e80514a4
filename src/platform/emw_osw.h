// Stand-in for the printer's OS-wrapper library (memory, mutexes, tasks, the
// process-wide guard and the trace printf), built on malloc and POSIX threads.
#ifndef EMW_OSW_H
#define EMW_OSW_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

extern "C" {

// Memory: a block or null; release takes the partition (always 0) and the block.
void* emwOSWSubAllocMem(uint32_t size);
void emwOSWOrgFreeMemPart(int partition, void* block);

// Test hooks: make the next n calls of emwOSWSubAllocMem fail; read how many
// calls were made and how many blocks are currently outstanding.
void emwOSWTestFailNextAllocs(int n);
uint32_t emwOSWTestAllocCalls(void);
int32_t emwOSWTestOutstandingBlocks(void);

// Mutexes. A handle is an opaque word; results are 0 on success.
typedef uintptr_t emwOSWMutex_t;
int emwOSWCreateMutexSem(emwOSWMutex_t* mutex, int flags, int initiallyFree);
// timeoutMs -1 waits without limit, 0 tries once, otherwise waits up to that long.
int emwOSWRequestMutexSem(emwOSWMutex_t mutex, int timeoutMs);
int emwOSWReleaseMutexSem(emwOSWMutex_t mutex);
int emwOSWDeleteMutexSem(emwOSWMutex_t mutex);
// Test hook: make the next n mutex operations (create, request, release, delete) fail.
void emwOSWTestFailNextMutexOps(int n);

// Test hooks for fault loops: only the n-th allocation (or mutex operation)
// from now fails, once; 0 cancels. Pending: that call has not come yet.
void emwOSWTestFailNthAlloc(int n);
void emwOSWTestFailNthMutexOp(int n);
int emwOSWTestFaultPending(void);

// Tasks on POSIX threads. When the attributes ask for a real-time policy that the
// system refuses (an ordinary user), the thread is created with the default policy
// instead and that is traced once per process.
int emwOSWSubPthreadCreate(pthread_t* thread, const pthread_attr_t* attr,
                           void* (*start)(void*), void* arg);
void emwOSWExitTask(int code);

// Trace printf of the platform: module code, message code, level, then printf.
// Lines go to the same sink as the library's tracer.
void emwGENTrcPrintf(uint32_t module, uint32_t code, int level, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

}  // extern "C"

// Scoped process-wide lock (recursive, so a singleton's constructor may take it again).
class OSW_Thread_Guard {
public:
    OSW_Thread_Guard();
    ~OSW_Thread_Guard();
    OSW_Thread_Guard(const OSW_Thread_Guard&) = delete;
    OSW_Thread_Guard& operator=(const OSW_Thread_Guard&) = delete;
};

#endif
