// What the connection task's sources share: the receive time-out, the
// per-thread note on the connection's socket and spool block, and the clock.
#ifndef CMP_IPP_HTTPTASK_INTERNAL_H
#define CMP_IPP_HTTPTASK_INTERNAL_H

#include <stdint.h>
#include <time.h>

#include <atomic>

#include "httpd/cmp_ipp_httpd.h"

namespace cmp_ipp_httptask {

extern std::atomic<int32_t> g_receiveTimeout;

// What a connection task knows about its socket and spool block beyond its
// records, whose layout is fixed. One per task thread; outside a connection
// task (`active` false) nothing is remembered and every call does the full work.
struct connection_note {
    bool active = false;
    int16_t sock = 0;
    bool nonBlocking = false;         // FIONBIO done on `sock`
    unsigned char* spool = nullptr;   // the spool block, kept from request to request
    int32_t spoolSize = 0;
    int32_t spoolDirty = 0;           // bytes from the start of `spool` that may be nonzero
};
extern thread_local connection_note t_note;

inline int64_t nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The socket is gone: no later step may send on it or close it again (its number
// may already belong to another connection).
void forgetSocket(ahttpdReqObj* req, int16_t sock);

}  // namespace cmp_ipp_httptask

#endif
