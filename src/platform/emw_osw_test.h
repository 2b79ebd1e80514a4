// Fault hooks of the platform stand-ins, for the tests only (not installed):
// failing allocations and mutex operations on demand, and allocation counts.
#ifndef EMW_OSW_TEST_H
#define EMW_OSW_TEST_H

#include <stdint.h>

#include "platform/emw_osw.h"

extern "C" {

// Make the next n calls of emwOSWSubAllocMem fail; read how many calls were
// made and how many blocks are currently outstanding.
void emwOSWTestFailNextAllocs(int n);
uint32_t emwOSWTestAllocCalls(void);
int32_t emwOSWTestOutstandingBlocks(void);

// Make the next n mutex operations (create, request, release, delete) fail.
void emwOSWTestFailNextMutexOps(int n);

// Fault loops: only the n-th allocation (or mutex operation) from now fails,
// once; 0 cancels. Pending: that call has not come yet.
void emwOSWTestFailNthAlloc(int n);
void emwOSWTestFailNthMutexOp(int n);
int emwOSWTestFaultPending(void);

}  // extern "C"

#endif
