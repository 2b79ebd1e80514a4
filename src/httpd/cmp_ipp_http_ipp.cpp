// IPP over HTTP: a GET is answered with the printer's attribute page, a POST is
// streamed block by block into the stream interface and answered with the encoded
// IPP response.
#include <cstring>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "platform/cmp_dbglog.h"
#include "service/cmp_ipp_ippc.h"

using orvane::cmp_dbglog::tracer;

std::atomic<int32_t> packetNum{0};

namespace {

const int32_t kGetSpooledAttempts = 10;
const int kReplyFormatIpp = 0;  // cmp_ipp_manager::CMP_IPP_REPLY_FMT_IPP

void fillInterface(cmp_ipp_if_info_s& info, ahttpdReqObj* req) {
    info.ifKind = 1;
    info.pfnSetData = setHttpData;
    info.pfnGetData = getHttpData;
    info.pfnSetReplyCode = setHttpReturnCode;
    info.pfnGetReplyCode = getHttpReturnCode;
    info.pfnGetMoreData = httpGetMoreData;
    info.ctx = req;
}

// Reads the 32-bit length word that opens a body block.
int32_t readBlockLength(ahttpdReqObj* req, int32_t* npLen) {
    unsigned char word[4] = {0, 0, 0, 0};
    unsigned char pushback = 0;
    int32_t have = 0;
    // A word split over two receives is still read whole.
    while (have < 4) {
        const int32_t n = ahttpdSoread(req, req->sock, word + have, 4 - have, &pushback, AHTTPD_getReceiveTimeout());
        if (n <= 0) return n < 0 ? n : PRS_PRT_HTTP_RET_408_TIMEOUT;
        have += n;
    }
    std::memcpy(npLen, word, sizeof word);
    return PRS_PRT_HTTP_RET_OK;
}

}  // namespace

extern "C" int32_t IppRequest_ReqCk(ahttpdReqObj* req) {
    (void)AHTTPD_spoolPostedData(req, AHTTPD_SPOOL_SIZE);
    return 0;
}

extern "C" int httpGetMoreData(void* ctx, int /*unused*/, unsigned char** data, int* length) {
    ahttpdReqObj* req = static_cast<ahttpdReqObj*>(ctx);
    if (length != nullptr) *length = 0;
    if (req == nullptr) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    // After the end of a body nothing more belongs to it: a further read would
    // take the next request's bytes.
    if (req->bodyEnded != 0) return 2;

    int32_t npLen = 0;
    const int32_t rc = readBlockLength(req, &npLen);
    if (rc == PRS_PRT_HTTP_RET_END_OF_DATA) {
        // End of data reported by the platform at a block boundary (see ahttpdSoread).
        req->bodyEnded = 1;
        return 2;
    }
    if (rc < 0) {
        tracer(0, "[ERROR ]:cmp_ipp_http_ipp::%s(%d): ahttpdSoread failed HTTPrc=%d.\n", "httpGetMoreData", 215,
               rc);
        return rc;
    }
    if (npLen > AHTTPD_SPOOL_SIZE) {
        tracer(0, "[ERROR ]:cmp_ipp_http_ipp::%s(%d): ahttpdSoread failed npLen[%d].\n", "httpGetMoreData", 221,
               npLen);
        return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    }
    if (npLen <= 0) {
        req->bodyEnded = 1;
        return 2;
    }

    int32_t got = 0;
    int32_t spooled = AHTTPD_getSpooledData(req, npLen, &got, kGetSpooledAttempts);
    // The spool read stops after its ten receives, possibly short of the block.
    // The rest is read on: the next length word must never be taken from the
    // middle of a block, nor a part of a block pass for all of it.
    unsigned char pushback = 0;
    while (spooled >= 0 && got < npLen) {
        const int32_t n = ahttpdSoread(req, req->sock, req->messageBody + got, npLen - got, &pushback,
                                       AHTTPD_getReceiveTimeout());
        if (n < 0) spooled = n;
        if (n == 0) spooled = PRS_PRT_HTTP_RET_408_TIMEOUT;
        if (n > 0) got += n;
    }
    req->bytesLeft -= got;
    if (length != nullptr) *length = got;
    if (data != nullptr) *data = req->messageBody;
    if (spooled >= 0) return 1;
    if (spooled == PRS_PRT_HTTP_RET_END_OF_DATA) {
        // Fewer bytes than the block announced: the body is incomplete, and a
        // cut document must never pass for a whole one.
        spooled = PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    }
    tracer(0, "[ERROR ]:cmp_ipp_http_ipp::%s(%d): getSpoolData failed HTTPrc=%d..\n", "httpGetMoreData", 246,
           spooled);
    tracer(0, "[ERROR ]:cmp_ipp_http_ipp::%s(%d): toRead=%d bufferSize=%d, bytesLeft=%d attempts=%d.\n",
           "httpGetMoreData", 248, npLen, AHTTPD_SPOOL_SIZE, req->bytesLeft, kGetSpooledAttempts);
    return spooled;
}

extern "C" int32_t IppRequest(ahttpdRspObj* rsp) {
    if (rsp == nullptr || rsp->reqObj == nullptr) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    ahttpdReqObj* req = rsp->reqObj;
    int replyLength = 0;
    unsigned char* reply = nullptr;

    if (IPPCGI_Enabled() == 0) {
        tracer(0, "[ERROR ]:cmp_ipp_http_ipp::%s(%d): IPP Disabled: returning HTTP error code 503.\n",
               "IppRequest", 310);
        return PRS_PRT_HTTP_RET_IPP_DISABLED;
    }
    cmp_ipp_if_info_s info;
    std::memset(&info, 0, sizeof info);

    if (req->method == AHTTPD_METHOD_GET) {
        fillInterface(info, req);
        reply = IPP_GetPrnAttrHtml(&replyLength, &info);
    } else if (req->method != AHTTPD_METHOD_POST) {
        tracer(0,
               "[ERROR ]:cmp_ipp_http_ipp::%s(%d): request method not supported: returning "
               "PRS_PRT_HTTP_RET_405_INVLD_MET.\n",
               "IppRequest", 323);
        return PRS_PRT_HTTP_RET_405_INVLD_MET;
    } else {
        req->bytesLeft = req->chunked != 0 ? AHTTPD_SPOOL_SIZE : req->contentLength;
        unsigned char* data = nullptr;
        int length = 0;
        int rc = httpGetMoreData(req, -1, &data, &length);
        if (rc < 0) {
            tracer(0, "[ERROR ]:cmp_ipp_http_ipp::%s(%d): getSpoolData failed - won't process the packet rc=%d.\n",
                   "IppRequest", 334, rc);
            return rc;
        }
        fillInterface(info, req);
        packetNum.fetch_add(1);
        static const unsigned char kNothing = 0;
        const unsigned char* first = req->messageBody != nullptr ? req->messageBody : &kNothing;
        IPP_STREAM_HANDLE handle = IPP_StreamDataStart(first, static_cast<uint32_t>(length), &info);
        if (handle == nullptr) return PRS_PRT_HTTP_RET_400_BAD_REQUEST;

        for (;;) {
            rc = httpGetMoreData(req, -1, &data, &length);
            if (rc == 1) {
                const uint32_t accepted = IPP_StreamData(handle, req->messageBody, static_cast<uint32_t>(length));
                if (accepted == 0) continue;
                tracer(0, "[ERROR ]:cmp_ipp_http_ipp::%s(%d): Error stream data %d.\n", "IppRequest", 351,
                       static_cast<int>(accepted));
                // The handler wants no more: read the rest of the body and throw it away.
                do {
                    rc = httpGetMoreData(req, -1, &data, &length);
                } while (rc == 1 || rc == 0);
                if (rc == 2) {
                    AHTTPD_closeSpooling(req);
                    IPP_StreamDataAbort(handle);
                    if (rsp->status != PRS_PRT_HTTP_RET_401_UNAUTHORIZED) req->connection = AHTTPD_CONN_PAUSE_CLOSE;
                    reply = IPP_StreamDataEnd(handle, kReplyFormatIpp, &replyLength);
                    break;
                }
                tracer(0, "[ERROR ]:cmp_ipp_http_ipp::%s(%d): getSpoolData failed  rc=%d.\n", "IppRequest", 367, rc);
                AHTTPD_closeSpooling(req);
                IPP_StreamDataAbort(handle);
                cmp_ipp_free(IPP_StreamDataEnd(handle, kReplyFormatIpp, &replyLength));
                return rc;
            }
            if (rc == 2) {
                AHTTPD_closeSpooling(req);
                reply = IPP_StreamDataEnd(handle, kReplyFormatIpp, &replyLength);
                break;
            }
            tracer(0, "[ERROR ]:cmp_ipp_http_ipp::%s(%d): getSpoolData failed - ending the job rc=%d.\n",
                   "IppRequest", 380, rc);
            AHTTPD_closeSpooling(req);
            IPP_StreamDataAbort(handle);
            cmp_ipp_free(IPP_StreamDataEnd(handle, kReplyFormatIpp, &replyLength));
            return rc < 0 ? rc : PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
        }
    }

    if (rsp->status != 0) {
        cmp_ipp_free(reply);
        return rsp->status;
    }
    if (replyLength <= 0 || reply == nullptr) {
        cmp_ipp_free(reply);
        return PRS_PRT_HTTP_RET_401_ACCESS_DENIED;
    }
    rsp->body = reply;
    rsp->bodyLength = replyLength;
    rsp->bodyOwned = 1;
    rsp->sendBody = transmit_response_body_frees;
    return PRS_PRT_HTTP_RET_OK;
}

extern "C" int32_t AHTTPD_responseHandler(ahttpdReqObj* /*req*/, ahttpdRspObj* rsp) {
    const int32_t rc = IppRequest(rsp);
    if (rc != PRS_PRT_HTTP_RET_OK) return rc;
    // The record takes the body along where it can; sendBody then only reports
    // how that went (and releases an owned body).
    const int32_t sent = ahttpdTransmitReply(rsp);
    if (sent != PRS_PRT_HTTP_RET_OK) return sent;
    return rsp->sendBody != nullptr ? rsp->sendBody(rsp) : PRS_PRT_HTTP_RET_OK;
}
