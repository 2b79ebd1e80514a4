// The library's one lazy-start idiom. The first caller does the work under the
// platform's process-wide guard; every later caller sees the published result
// through an acquire load and takes no lock. Private to the library.
#ifndef CMP_IPP_ONCE_H
#define CMP_IPP_ONCE_H

#include "platform/emw_osw.h"

namespace cmp_ipp_once {

// *slot, made by make() on the first call. make() runs under the guard, so it
// may itself take the guard again (it is recursive) but must not wait for
// another task that does.
template <typename T, typename Make>
T* instance(T** slot, Make make) {
    T* p = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (p != nullptr) return p;
    OSW_Thread_Guard guard;
    p = __atomic_load_n(slot, __ATOMIC_RELAXED);
    if (p == nullptr) {
        p = make();
        __atomic_store_n(slot, p, __ATOMIC_RELEASE);
    }
    return p;
}

// Runs init() once per *done flag (0 at load), whoever calls first.
template <typename Init>
void run(int* done, Init init) {
    if (__atomic_load_n(done, __ATOMIC_ACQUIRE) != 0) return;
    OSW_Thread_Guard guard;
    if (__atomic_load_n(done, __ATOMIC_RELAXED) != 0) return;
    init();
    __atomic_store_n(done, 1, __ATOMIC_RELEASE);
}

}  // namespace cmp_ipp_once

#endif
