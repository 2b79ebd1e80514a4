// The library's allocator pair for texts and reply blocks, and its millisecond sleep.
#ifndef CMP_IPP_MALLOC_H
#define CMP_IPP_MALLOC_H

#include <stdint.h>

extern "C" {
// Never returns null: waits 10 ms between attempts until the platform gives memory.
void* cmp_ipp_malloc(uint32_t size);
void cmp_ipp_free(void* block);
// One nanosleep of ms milliseconds; an interrupted sleep is not resumed. Returns 0.
int IPP_ThreadDelay(int ms);
}

#endif
