// Feeds a fuzz input to the library in pieces of a fixed step through the
// interface record's more-data reader, as the HTTP layer would.
#ifndef CMP_IPP_FUZZ_PIECES_H
#define CMP_IPP_FUZZ_PIECES_H

#include <stddef.h>
#include <stdint.h>

#include "containers/cmp_ipp_if.h"

struct Pieces {
    const uint8_t* data;
    size_t size;
    size_t next;
    size_t step;
    cmp_ipp_if_info_s info;

    static int more(void* ctx, int, unsigned char** out, int* length) {
        Pieces* p = static_cast<Pieces*>(ctx);
        if (p->next >= p->size) return 2;
        const size_t n = p->size - p->next < p->step ? p->size - p->next : p->step;
        *out = const_cast<unsigned char*>(p->data + p->next);
        *length = static_cast<int>(n);
        p->next += n;
        return p->next < p->size ? 1 : 2;
    }
};

#endif
