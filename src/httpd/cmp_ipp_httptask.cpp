// Connection task: reads request blocks, lets IPP over HTTP answer them, sends
// error replies and keeps, pauses or closes the connection. Receiving, body
// spooling and replies have files of their own (cmp_ipp_httptask_*.cpp).
//
// Signals: every send uses MSG_NOSIGNAL, so a front end that closes its socket
// while a reply goes out gives EPIPE (handled as a socket failure) and never
// raises SIGPIPE. The library leaves the process's signal dispositions alone.
//
// Waiting uses poll(), not select(): a descriptor above FD_SETSIZE would make an
// fd_set write out of bounds.
#include <errno.h>
#include <poll.h>
#include <sched.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>

#include "httpd/cmp_ipp_httpmain.h"
#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_httptask_internal.h"
#include "platform/cmp_dbglog.h"
#include "platform/emw_osw.h"

using orvane::cmp_dbglog::tracer;
using namespace cmp_ipp_httptask;

extern "C" const char* const szErrorMes[16] = {
    " 400 Bad Request from Browser",   // -1976
    " 401 Unauthorized Access",        // -1975
    " 403 Forbidden",                  // -1974
    " 404 Page Not Found",             // -1973
    " 405 Method Not Allowed",         // -1972
    " 406 Request Not Acceptable",     // -1971
    " 408 Request Time-Out",           // -1970
    " 411 Length Required",            // -1969
    " 413 Request Entity Too Large",   // -1968
    " 414 Request-URI Too Large",      // -1967
    " 500 Internal Sever Error",       // -1966
    " 501 Not Implemented",            // -1965
    " 502 Bad Gateway",                // -1964
    " 503 Service Unavailable",        // -1963
    " 401 Access Denied",              // -1962
    " 505 HTTP Version Not Supported", // -1961
};

namespace cmp_ipp_httptask {

std::atomic<int32_t> g_receiveTimeout{30};
thread_local connection_note t_note;

// The socket is gone: no later step may send on it or close it again (its number
// may already belong to another connection).
void forgetSocket(ahttpdReqObj* req, int16_t sock) {
    if (req == nullptr) return;
    if (req->sock == sock) req->sock = 0;
    if (req->rspObj != nullptr && req->rspObj->sock == sock) req->rspObj->sock = 0;
}

}  // namespace cmp_ipp_httptask

namespace {

const int32_t kRequestBlockCalls = 10;
const int kKeepAlivePassMs = 50;
const int kPauseBeforeCloseMs = 1000;
const int kErrorCloseDelayMs = 50;
#ifdef POLLRDHUP
const short kPollHangUp = POLLRDHUP;  // the peer has shut down its sending side
#else
const short kPollHangUp = 0;
#endif

std::atomic<int32_t> g_keepAlivePasses{200};

const char* errorText(int32_t code) {
    const int32_t index = code + 1976;
    return (index >= 0 && index < 16) ? szErrorMes[index] : nullptr;
}

// Sleeps up to ms, but ends as soon as the connection is shut down (by a stop,
// or by a peer that has gone), so that no pause holds a stop.
void pauseOnConnection(int16_t sock, int ms) {
    if (sock <= 0) {
        IPP_ThreadDelay(ms);
        return;
    }
    const int64_t until = nowMs() + ms;
    for (int64_t left = ms; left > 0; left = until - nowMs()) {
        struct pollfd p = {sock, 0, 0};  // only hang-up and errors are reported
        if (poll(&p, 1, static_cast<int>(left)) > 0) return;
    }
}

void releaseIdleSpool(const ahttpdReqObj* req) {
    if (t_note.spool == nullptr || req->messageBody == t_note.spool) return;
    emwOSWOrgFreeMemPart(0, t_note.spool);
    t_note.spool = nullptr;
    t_note.spoolSize = 0;
    t_note.spoolDirty = 0;
}

// What of the request block did not arrive reads as a fresh block: zero, with
// the connection mode 1 (close), as if the block had been cleared and its mode
// set before the read. A block that arrives whole is not touched again, and
// one that arrives only in part never mixes with the previous request's fields.
void clearUnreceived(ahttpdReqObj* req, int32_t got) {
    unsigned char* block = reinterpret_cast<unsigned char*>(req);
    if (got >= AHTTPD_REQ_BLOCK_SIZE) return;
    if (got < 0) got = 0;
    std::memset(block + got, 0, static_cast<size_t>(AHTTPD_REQ_BLOCK_SIZE - got));
    const size_t at = offsetof(ahttpdReqObj, connection);
    const int32_t mode = AHTTPD_CONN_CLOSE;
    if (static_cast<size_t>(got) < at + sizeof mode) {
        const size_t from = static_cast<size_t>(got) > at ? static_cast<size_t>(got) - at : 0;
        std::memcpy(block + at + from, reinterpret_cast<const unsigned char*>(&mode) + from, sizeof mode - from);
    }
}

void serveConnection(ahttpdReqObj* req, ahttpdRspObj* rsp, int16_t sock, int32_t connectionNumber,
                     const char* taskName) {
    for (bool first = true;; first = false) {
        // A socket closed by an earlier request is never used again: its number
        // may already belong to another connection. A stop ends the connection
        // between requests.
        if (!first && (req->sock <= 0 || g_pn_httpd_shutdown.load() != 0)) return;
        // The request block itself is cleared by the read, as far as it did not arrive.
        req->sock = sock;
        req->connectionId = connectionNumber;
        req->returnCode = 0;
        req->contentLength = 0;
        req->numHeaders = 0;
        req->spooling = 0;
        req->connection = AHTTPD_CONN_CLOSE;
        if (req->messageBody != nullptr) {
            tracer(0, "[ERROR ]:cmp_ipp_httptask::%s(%d): reqObj->messageBody wasn't NULL...\n", taskName, 402);
            ahttpdFreeMemory(req);
        }
        req->chunked = 0;
        req->bodyEnded = 0;
        req->rspObj = rsp;

        rsp->sendBody = nullptr;
        rsp->numHeaders = 0;
        rsp->status = 0;
        rsp->contentLength = 0;
        rsp->sock = req->sock;
        rsp->reqObj = req;
        if (rsp->body != nullptr && rsp->bodyOwned == 1) cmp_ipp_free(rsp->body);
        rsp->body = nullptr;
        rsp->bodyLength = 0;
        rsp->bodyOwned = 0;
        rsp->headerSent = 0;

        req->returnCode = AHTTPD_requestHandler(req, rsp);
        if (req->returnCode == PRS_PRT_HTTP_RET_OK) {
            const int32_t rc = AHTTPD_responseHandler(req, rsp);
            req->returnCode = rc;
            rsp->returnCode = rc;
            ahttpdFreeMemory(req);
            if (rc != PRS_PRT_HTTP_RET_OK) {
                ahttpdErrorResponseHandler(rsp);
                if (req->returnCode == PRS_PRT_HTTP_RET_CONN_CLOSED) return;
            }
            ahttpdKeepAliveCheck(req, rsp);
            switch (req->connection) {
            case AHTTPD_CONN_CLOSE:
                return;
            case AHTTPD_CONN_KEEP_ALIVE:
                ahttpdKeepAliveListener(rsp);
                if (req->returnCode == PRS_PRT_HTTP_RET_KEEP_ALIVE) continue;
                return;
            case AHTTPD_CONN_PAUSE_CLOSE:
                pauseOnConnection(req->sock, kPauseBeforeCloseMs);
                ahttpdCloseHandler(rsp);
                return;
            default:
                continue;
            }
        }
        if (req->returnCode == PRS_PRT_HTTP_RET_408_TIMEOUT) {
            ahttpdCloseHandler(rsp);
            return;
        }
        ahttpdErrorResponseHandler(rsp);
        return;
    }
}

}  // namespace

extern "C" void AHTTPD_setReceiveTimeout(int32_t seconds) { g_receiveTimeout.store(seconds > 0 ? seconds : 1); }
extern "C" int32_t AHTTPD_getReceiveTimeout(void) { return g_receiveTimeout.load(); }
extern "C" void AHTTPD_setKeepAlivePasses(int32_t passes) { g_keepAlivePasses.store(passes > 0 ? passes : 1); }
extern "C" int32_t AHTTPD_getKeepAlivePasses(void) { return g_keepAlivePasses.load(); }

// ---- connection task ---------------------------------------------------------------

extern "C" void pn_httpd_task(void* arg) {
    ahttpdConnStart* start = static_cast<ahttpdConnStart*>(arg);
    if (start == nullptr) {
        decConnectionCount();
        return;
    }
    const int16_t sock = static_cast<int16_t>(start->sock & 0xFFFF);
    const int32_t connectionNumber = start->connectionNumber;
    emwOSWOrgFreeMemPart(0, start);
    char fullName[32] = {};
    snprintf(fullName, sizeof fullName, "tHttpCmp-%ld", static_cast<long>(connectionNumber));
    char taskName[16];  // task names are cut to 15 characters
    memcpy(taskName, fullName, sizeof taskName - 1);
    taskName[sizeof taskName - 1] = '\0';

    ahttpdRspObj* rsp = static_cast<ahttpdRspObj*>(emwOSWSubAllocMem(sizeof(ahttpdRspObj)));
    ahttpdReqObj* req = static_cast<ahttpdReqObj*>(emwOSWSubAllocMem(sizeof(ahttpdReqObj)));
    if (rsp == nullptr || req == nullptr) {
        emwOSWOrgFreeMemPart(0, rsp);
        emwOSWOrgFreeMemPart(0, req);
        ahttpdCloseSocketConnection(sock);
        decConnectionCount();
        return;
    }
    std::memset(static_cast<void*>(rsp), 0, sizeof(ahttpdRspObj));
    std::memset(static_cast<void*>(req), 0, sizeof(ahttpdReqObj));
    ahttpdConnectionBegin(sock);

    try {
        serveConnection(req, rsp, sock, connectionNumber, taskName);
    } catch (...) {
        // Only allocation can raise here; the connection ends like any other.
        tracer(0, "[ERROR ]:cmp_ipp_httptask::%s(%d): connection ended by an exception.\n", taskName, 470);
    }

    // Whatever path ended the loop, the socket is closed exactly once.
    ahttpdKillTask(req);
    if (rsp->body != nullptr && rsp->bodyOwned == 1) cmp_ipp_free(rsp->body);
    emwOSWOrgFreeMemPart(0, rsp);
    ahttpdFreeMemory(req);
    emwOSWOrgFreeMemPart(0, req);
    ahttpdConnectionEnd();
    decConnectionCount();
}

extern "C" void ahttpdConnectionBegin(int16_t sock) {
    ahttpdConnectionEnd();
    t_note.active = true;
    t_note.sock = sock;
}

extern "C" void ahttpdConnectionEnd(void) {
    emwOSWOrgFreeMemPart(0, t_note.spool);
    t_note = connection_note();
}

extern "C" int32_t AHTTPD_requestHandler(ahttpdReqObj* req, ahttpdRspObj* /*rsp*/) {
    if (req == nullptr) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    unsigned char pushback = 0;
    unsigned char* block = reinterpret_cast<unsigned char*>(req);
    int32_t got = 0;
    int32_t failed = PRS_PRT_HTTP_RET_OK;
    for (int32_t calls = 1; got < AHTTPD_REQ_BLOCK_SIZE && calls <= kRequestBlockCalls; ++calls) {
        const int32_t n = ahttpdSoread(req, req->sock, block + got, AHTTPD_REQ_BLOCK_SIZE - got, &pushback,
                                       g_receiveTimeout.load());
        if (n < 0) {
            failed = n;
            break;
        }
        if (n == 0) {
            if (calls == kRequestBlockCalls) {
                failed = PRS_PRT_HTTP_RET_408_TIMEOUT;
                break;
            }
            sched_yield();
            continue;
        }
        got += n;
    }
    clearUnreceived(req, got);
    if (failed != PRS_PRT_HTTP_RET_OK) return failed;

    (void)IppRequest_ReqCk(req);

    if (req->contentLength > 0 && req->spooling == 0) {
        // No spool buffer: take the whole body into memory instead.
        ahttpdFreeMemory(req);
        const uint32_t size = static_cast<uint32_t>(req->contentLength) + 1u;
        req->messageBody = static_cast<unsigned char*>(emwOSWSubAllocMem(size));
        if (req->messageBody == nullptr) return PRS_PRT_HTTP_RET_500_INTERNAL;
        int32_t have = 0;
        while (have < req->contentLength) {
            const int32_t n = ahttpdSoread(req, req->sock, req->messageBody + have, req->contentLength - have,
                                           &pushback, g_receiveTimeout.load());
            if (n < 0) return n;
            have += n;
        }
        req->messageBody[req->contentLength] = 0;
        return PRS_PRT_HTTP_RET_OK;
    }
    if (req->contentLength <= 0 && req->chunked != 0)
        return req->spooling != 0 ? PRS_PRT_HTTP_RET_OK : PRS_PRT_HTTP_RET_401_ACCESS_DENIED;
    return PRS_PRT_HTTP_RET_OK;
}

extern "C" void ahttpdErrorResponseHandler(ahttpdRspObj* rsp) {
    if (rsp == nullptr || rsp->reqObj == nullptr) return;
    ahttpdReqObj* req = rsp->reqObj;
    ahttpdFreeMemory(req);
    if (req->returnCode == PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE) {
        ahttpdCloseHandler(rsp);
        return;
    }
    if (rsp->body != nullptr && rsp->bodyOwned == 1) cmp_ipp_free(rsp->body);
    rsp->body = nullptr;
    rsp->bodyLength = 0;
    rsp->bodyOwned = 0;
    if (rsp->headerSent == 0) {  // at most one reply record per request
        const char* text = errorText(req->returnCode);
        if (text != nullptr) {
            rsp->body = reinterpret_cast<unsigned char*>(const_cast<char*>(text));  // only read
            rsp->bodyLength = static_cast<int32_t>(std::strlen(text));
            rsp->sendBody = transmit_response_body;
            if (ahttpdTransmitReply(rsp) == PRS_PRT_HTTP_RET_OK) (void)rsp->sendBody(rsp);
            rsp->body = nullptr;
            rsp->bodyLength = 0;
        } else {
            (void)ahttpdTransmitResponseHeader(rsp);
        }
    }
    const int32_t code = req->returnCode;
    if (code == PRS_PRT_HTTP_RET_401_UNAUTHORIZED) {
        rsp->returnCode = PRS_PRT_HTTP_RET_401_UNAUTHORIZED;
        return;
    }
    if (code == PRS_PRT_HTTP_RET_REDIRECT && req->keepAliveLevel > 1) {
        ahttpdKeepAliveListener(rsp);
        return;
    }
    pauseOnConnection(req->sock, kErrorCloseDelayMs);
    ahttpdCloseHandler(rsp);
    req->returnCode = PRS_PRT_HTTP_RET_CONN_CLOSED;
}

extern "C" void ahttpdKeepAliveCheck(ahttpdReqObj* req, ahttpdRspObj* rsp) {
    if (req != nullptr && req->connection == AHTTPD_CONN_CLOSE) ahttpdCloseHandler(rsp);
}

extern "C" void ahttpdKeepAliveListener(ahttpdRspObj* rsp) {
    if (rsp == nullptr || rsp->reqObj == nullptr) return;
    ahttpdReqObj* req = rsp->reqObj;
    const int32_t passes = g_keepAlivePasses.load();
    for (int32_t pass = 0; pass < passes; ++pass) {
        const int16_t sock = req->sock;
        if (sock <= 0 || g_pn_httpd_shutdown.load() != 0) break;
        // Up to 50 ms per pass, but a request that arrives is taken at once.
        // Readable without a hang-up is a request waiting: no further question.
        struct pollfd p = {sock, static_cast<short>(POLLIN | kPollHangUp), 0};
        const int r = poll(&p, 1, kKeepAlivePassMs);
        if (r == 0) {
            // Idle for a whole pass: the spool block goes back to the allocator
            // rather than being held by a connection that may stay quiet. One
            // that is busy keeps it from request to request.
            releaseIdleSpool(req);
            continue;
        }
        if (r < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (kPollHangUp != 0 && p.revents == POLLIN) {
            req->returnCode = PRS_PRT_HTTP_RET_KEEP_ALIVE;
            return;
        }
        if ((p.revents & POLLNVAL) != 0) break;  // not a socket any more
        // A hang-up or an error: the peek tells a request still waiting from a
        // peer that has gone. Never block in it.
        unsigned char probe;
        const ssize_t n = recv(sock, &probe, 1, MSG_PEEK | MSG_DONTWAIT);
        if (n > 0) {
            req->returnCode = PRS_PRT_HTTP_RET_KEEP_ALIVE;
            return;
        }
        if (n == 0) break;  // the peer closed
        if (n < 0 && errno == ECONNRESET) break;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            IPP_ThreadDelay(kKeepAlivePassMs);  // a lasting error: one pass, not a spin
    }
    ahttpdKillTask(req);
}

extern "C" int ahttpdCheckCloseConnection(ahttpdReqObj* req) {
    return (req != nullptr && req->returnCode == PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE) ? 1 : 0;
}

extern "C" void ahttpdCloseHandler(ahttpdRspObj* rsp) {
    if (rsp == nullptr) return;
    ahttpdReqObj* req = rsp->reqObj;
    if (req != nullptr && req->sock > 0 && rsp->headerSent == 0) {
        // The front end always gets a reply record; no body follows this one.
        rsp->bodyLength = 0;
        (void)ahttpdTransmitResponseHeader(rsp);
    }
    ahttpdKillTask(req);
}

extern "C" void ahttpdKillTask(ahttpdReqObj* req) {
    if (req == nullptr) return;
    if (req->sock != 0) {
        const int16_t sock = req->sock;
        ahttpdCloseSocketConnection(sock);
        forgetSocket(req, sock);
    }
    req->returnCode = PRS_PRT_HTTP_RET_CONN_CLOSED;
    req->sock = 0;
    req->connection = AHTTPD_CONN_CLOSE;
}

extern "C" void ahttpdCloseSocketConnection(int sock) {
    if (sock > 0) pn_httpd_conn_close(sock);
}

extern "C" void ahttpdFreeMemory(ahttpdReqObj* req) {
    if (req == nullptr || req->messageBody == nullptr) return;
    // The connection's spool block stays with the task for its next request.
    if (req->messageBody != t_note.spool) emwOSWOrgFreeMemPart(0, req->messageBody);
    req->messageBody = nullptr;
}
