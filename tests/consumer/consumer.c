/* The plain interface and the constants from C, against the installed headers. */
#include <stdio.h>

#include "service/cmp_ipp_constants.h"
#include "service/cmp_ipp_ippc.h"

int main(void) {
    IPP_STREAM_HANDLE none = NULL;
    if (IPP_StreamStatusCode(none) != CMP_IPP_STATUS_SERVER_ERROR_INTERNAL_ERROR) {
        fprintf(stderr, "consumer (C): FAILED: null handle status\n");
        return 1;
    }
    printf("consumer (C): ok\n");
    return 0;
}
