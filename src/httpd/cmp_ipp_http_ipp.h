// IPP over HTTP: a connection's request handed to the IPP service and its reply.
#ifndef CMP_IPP_HTTP_IPP_H
#define CMP_IPP_HTTP_IPP_H

#include <stdint.h>

#include <atomic>

#include "httpd/cmp_ipp_httprec.h"

extern "C" {

// IPP POSTs whose first block was read.
extern std::atomic<int32_t> packetNum;

// ---- IPP over HTTP ----------------------------------------------------------------
int32_t IppRequest_ReqCk(ahttpdReqObj* req);
int32_t IppRequest(ahttpdRspObj* rsp);
int32_t AHTTPD_responseHandler(ahttpdReqObj* req, ahttpdRspObj* rsp);
// ctx is the request record; the int is ignored (callers pass -1).
int httpGetMoreData(void* ctx, int unused, unsigned char** data, int* length);

}  // extern "C"

#endif
