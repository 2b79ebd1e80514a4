#include "cmp_ipp_malloc.h"

#include <time.h>

#include "platform/emw_osw.h"

extern "C" void* cmp_ipp_malloc(uint32_t size) {
    for (;;) {
        void* p = emwOSWSubAllocMem(size);
        if (p != nullptr) return p;
        IPP_ThreadDelay(10);
    }
}

extern "C" void cmp_ipp_free(void* block) {
    if (block == nullptr) return;
    emwOSWOrgFreeMemPart(0, block);
}

extern "C" int IPP_ThreadDelay(int ms) {
    if (ms <= 0) return 0;
    struct timespec req;
    req.tv_sec = ms / 1000;
    req.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    nanosleep(&req, nullptr);
    return 0;
}
