// Reply bodies: sending a borrowed body (the error texts) and sending a body that
// was allocated for the reply and is released once it has gone.
#include <errno.h>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "platform/cmp_dbglog.h"

extern "C" int32_t transmit_response_body(ahttpdRspObj* rsp) { return AHTTPD_sendData(rsp); }

extern "C" int32_t transmit_response_body_frees(ahttpdRspObj* rsp) {
    if (rsp == nullptr) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    const int32_t rc = AHTTPD_sendData(rsp);
    const int error = errno;
    if (rsp->body != nullptr) {
        cmp_ipp_free(rsp->body);
        rsp->body = nullptr;
        rsp->bodyOwned = 0;
    }
    if (rc != PRS_PRT_HTTP_RET_OK) {
        orvane::cmp_dbglog::tracer(2, "[INFO  ]:cmp_ipp_htmemdef::%s(%d): errno[%#x].\n",
                                   "transmit_response_body_frees", 88, static_cast<unsigned>(error));
        return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    }
    return PRS_PRT_HTTP_RET_OK;
}
