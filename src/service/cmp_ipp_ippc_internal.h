// Private to the library: the state behind the plain interface's enabled switch.
#ifndef CMP_IPP_IPPC_INTERNAL_H
#define CMP_IPP_IPPC_INTERNAL_H

#include <stdint.h>

#include <atomic>

#include "service/cmp_ipp_ippc.h"

extern "C" {
// Nonzero while IPP requests are served. C linkage keeps its exported name.
extern std::atomic<int32_t> g_ippEnabled;
}

#endif
