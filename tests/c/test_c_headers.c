/* The plain interface and the constants from C: compiled as C99 with
 * -pedantic, linked against the library, and called. */
#include <stdio.h>

#include "service/cmp_ipp_constants.h"
#include "service/cmp_ipp_ippc.h"

static int failures = 0;

static void expect(int ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "FAILED: %s\n", what);
        ++failures;
    }
}

int main(void) {
    enum cmp_ipp_op_e op = CMP_IPP_OP_GET_PRINTER_ATTRIBUTES;
    enum cmp_ipp_tag_e tag = CMP_IPP_TAG_KEYWORD;
    IPP_STREAM_HANDLE none = NULL;
    int length = -1;

    expect(op == 0x000B && tag == 0x44, "the constants have their wire values in C");
    /* Not started: switched off, and nothing to stream into. */
    expect(IPPCGI_Enabled() == 0, "IPP starts switched off");
    expect(IPP_StreamStatusCode(none) == CMP_IPP_STATUS_SERVER_ERROR_INTERNAL_ERROR,
           "a null handle reports server-error-internal-error");
    expect(IPP_StreamDataStart((const unsigned char*)"", 0, NULL) == NULL,
           "no stream while IPP is switched off");
    expect(IPP_StreamDataEnd(none, 0, &length) == NULL, "no reply for a null handle");
    if (failures == 0) printf("C interface: ok\n");
    return failures == 0 ? 0 : 1;
}
