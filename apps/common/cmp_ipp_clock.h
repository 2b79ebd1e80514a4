// Milliseconds on the monotonic clock, for deadlines and waits that a change of
// the wall clock must not stretch or cut short.
#ifndef CMP_IPP_CLOCK_H
#define CMP_IPP_CLOCK_H

#include <stdint.h>
#include <time.h>

namespace cmp_ipp_app {

inline int64_t nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace cmp_ipp_app

#endif
