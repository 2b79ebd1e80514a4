// Connection task: reads request blocks, lets IPP over HTTP answer them, sends
// error replies and keeps, pauses or closes the connection. Also the receive
// primitive with its time-outs, body spooling and the sending of replies.
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
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_httpmain.h"
#include "platform/cmp_dbglog.h"
#include "platform/emw_osw.h"

using orvane::cmp_dbglog::tracer;

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

namespace {

const int32_t kRequestBlockCalls = 10;
const int32_t kSendPiece = 2048;
const int kSendBackoffMs = 16;
const int kKeepAlivePassMs = 50;
const int kPauseBeforeCloseMs = 1000;
const int kErrorCloseDelayMs = 50;
const int kMaxReplyParts = 64;  // record and body pieces per send call
#ifdef POLLRDHUP
const short kPollHangUp = POLLRDHUP;  // the peer has shut down its sending side
#else
const short kPollHangUp = 0;
#endif

std::atomic<int32_t> g_receiveTimeout{30};
std::atomic<int32_t> g_keepAlivePasses{200};

// What a connection task knows about its socket and spool block beyond its
// records, whose layout is fixed. One per task thread; outside a connection
// task (`active` false) nothing is remembered and every call does the full work.
struct connection_note {
    bool active = false;
    int16_t sock = 0;
    bool nonBlocking = false;         // FIONBIO done on `sock`
    unsigned char* spool = nullptr;   // the spool block, kept from request to request
    int32_t spoolSize = 0;
    int32_t spoolDirty = 0;           // bytes from the start of `spool` that may be nonzero
};
thread_local connection_note t_note;

// A reply body that left together with its record: the body sender called
// next for the same reply reports that result instead of sending again.
struct sent_body_note {
    const ahttpdRspObj* rsp = nullptr;
    const unsigned char* body = nullptr;
    int32_t length = 0;
    int32_t result = 0;
    int error = 0;
};
thread_local sent_body_note t_sentBody;

int64_t nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

const char* errorText(int32_t code) {
    const int32_t index = code + 1976;
    return (index >= 0 && index < 16) ? szErrorMes[index] : nullptr;
}

// The socket is gone: no later step may send on it or close it again (its number
// may already belong to another connection).
void forgetSocket(ahttpdReqObj* req, int16_t sock) {
    if (req == nullptr) return;
    if (req->sock == sock) req->sock = 0;
    if (req->rspObj != nullptr && req->rspObj->sock == sock) req->rspObj->sock = 0;
}

void closeFromReceive(ahttpdReqObj* req, int16_t sock) {
    ahttpdCloseSocketConnection(sock);
    forgetSocket(req, sock);
}

// A body is finished only by its end block (length 0 or less); a receive of 0
// bytes is the front end gone, also in the middle of a body. A front end that
// drops an upload closes its socket without the end block, and the stream is
// then aborted rather than handed over as complete. The end-of-data result of a
// zero-byte receive is kept for a platform whose receive reports that end with
// ENOENT; errno is cleared before the receive, so a value left over from an
// earlier call (a failed unlink, a missing file) can never pass for it.
bool endOfDataReported(ssize_t received) { return received == 0 && errno == ENOENT; }

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

// Sends all of [data, data + length). A partial acceptance (non-blocking socket,
// full send buffer) is completed rather than failed, waiting for room up to the
// receive time-out without progress.
bool sendAll(int16_t sock, const unsigned char* data, size_t length) {
    size_t sent = 0;
    int64_t lastProgress = nowMs();
    while (sent < length) {
        const ssize_t n = send(sock, data + sent, length - sent, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            lastProgress = nowMs();
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            const int64_t left = static_cast<int64_t>(g_receiveTimeout.load()) * 1000 - (nowMs() - lastProgress);
            if (left <= 0) return false;
            struct pollfd p = {sock, POLLOUT, 0};
            (void)poll(&p, 1, static_cast<int>(left));
            continue;
        }
        return false;
    }
    return true;
}

// Non-blocking from the first reply body on. The task notes it, so that the
// switch costs one system call per connection rather than one per reply.
void ensureNonBlocking(int16_t sock) {
    if (t_note.active && t_note.sock == sock && t_note.nonBlocking) return;
    int on = 1;
    if (ioctl(sock, FIONBIO, &on) != 0) {
        tracer(0, "[ERROR ]:cmp_ipp_httptask::%s(%d): ioctl() failed in AHTTPD_sendData().\n", "AHTTPD_sendData",
               1372);
        return;
    }
    if (t_note.active && t_note.sock == sock) t_note.nonBlocking = true;
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

// ---- receiving and spooling ---------------------------------------------------------

extern "C" int32_t ahttpdSoread(ahttpdReqObj* req, int16_t sock, unsigned char* dest, int32_t wanted,
                                unsigned char* pushback, int32_t timeoutSeconds) {
    if (dest == nullptr || wanted <= 0) return PRS_PRT_HTTP_RET_BAD_SPOOL_LENGTH;
    if (sock <= 0) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    int32_t fromPushback = 0;
    if (pushback != nullptr && *pushback != 0) {
        dest[0] = *pushback;
        *pushback = 0;
        if (wanted == 1) return 1;
        ++dest;
        --wanted;
        fromPushback = 1;
    }

    // The bytes are usually there already: one receive that does not wait, and
    // a wait only when it would block. The deadline (monotonic, so a change of
    // the wall clock neither stretches nor cuts the wait) is taken with the first wait.
    int64_t deadline = INT64_MIN;
    const auto deadlineMs = [&]() {
        if (deadline == INT64_MIN) deadline = nowMs() + static_cast<int64_t>(timeoutSeconds) * 1000;
        return deadline;
    };
    int32_t pending = 0;
    int32_t retryCount = 0;
    bool woke = false;  // the last wait found the socket readable
    for (;;) {
        errno = 0;
        const ssize_t n = recv(sock, dest, static_cast<size_t>(wanted), MSG_DONTWAIT);
        const bool afterWake = woke;
        woke = false;
        if (n > 0) return static_cast<int32_t>(n) + fromPushback;
        if (n == 0) {
            if (endOfDataReported(n)) return PRS_PRT_HTTP_RET_END_OF_DATA;
            int waiting = 0;
            if (ioctl(sock, FIONREAD, &waiting) != 0 || waiting <= 0) {
                closeFromReceive(req, sock);
                return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
            }
        } else if ((errno == EAGAIN || errno == EWOULDBLOCK) && !(afterWake && nowMs() >= deadlineMs())) {
            pending = PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
            int64_t left = deadlineMs() - nowMs();
            if (left < 0) left = 0;
            struct pollfd p = {sock, POLLIN | POLLPRI, 0};
            const int r = poll(&p, 1, static_cast<int>(left));
            if (r < 0) {
                if (errno == EINTR) continue;
                tracer(0, "[ERROR ]:cmp_ipp_httptask::%s(%d): select() failed errno=%d HTTPReturn SocketFailure(%d).\n",
                       "ahttpdSoread", 1155, errno, PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE);
                return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
            }
            if (r == 0) {
                int waiting = 0;
                if (ioctl(sock, FIONREAD, &waiting) != 0) {
                    tracer(0,
                           "[ERROR ]:cmp_ipp_httptask::%s(%d): select() failed errno=%d HTTPReturn SocketFailure(%d).\n",
                           "ahttpdSoread", 1167, errno, PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE);
                    return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
                }
                if (waiting <= 0) {
                    tracer(0, "[ERROR ]:cmp_ipp_httptask::%s(%d): ahttpdSoread: TIMEOUT.\n", "ahttpdSoread", 1173);
                    return PRS_PRT_HTTP_RET_408_TIMEOUT;
                }
                continue;  // bytes came with the time-out: receive them
            }
            if ((p.revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0) {
                woke = true;
                continue;
            }
            sched_yield();
            ++retryCount;
        } else if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) {
            closeFromReceive(req, sock);
            return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
        }

        if (nowMs() >= deadlineMs()) {
            if (pending != 0) return pending;
            tracer(0, "[ERROR ]:cmp_ipp_httptask::%s(%d): timeout, retryCount = %d.\n", "ahttpdSoread", 1214,
                   retryCount);
            return PRS_PRT_HTTP_RET_408_TIMEOUT;
        }
    }
}

extern "C" int32_t AHTTPD_spoolPostedData(ahttpdReqObj* req, int32_t size) {
    if (req == nullptr) return PRS_PRT_HTTP_RET_500_INTERNAL;
    ahttpdFreeMemory(req);
    if (size <= 0) return PRS_PRT_HTTP_RET_500_INTERNAL;
    if (t_note.active && t_note.spool != nullptr && t_note.spoolSize == size) {
        // The connection's block from its previous request: no allocation, and
        // only what that request left in it is cleared when the next block comes.
        req->messageBody = t_note.spool;
    } else {
        req->messageBody = static_cast<unsigned char*>(emwOSWSubAllocMem(static_cast<uint32_t>(size)));
        if (req->messageBody == nullptr) return PRS_PRT_HTTP_RET_500_INTERNAL;
        if (t_note.active) {
            emwOSWOrgFreeMemPart(0, t_note.spool);
            t_note.spool = req->messageBody;
            t_note.spoolSize = size;
            t_note.spoolDirty = size;  // fresh memory: anything may be in it
        }
    }
    req->spoolSize = size;
    req->spooling = 1;
    return PRS_PRT_HTTP_RET_OK;
}

extern "C" int32_t AHTTPD_getSpooledData(ahttpdReqObj* req, int32_t count, int32_t* got, int32_t attempts) {
    int32_t dummy = 0;
    if (got == nullptr) got = &dummy;
    *got = 0;
    if (req == nullptr || count <= 0 || count > req->spoolSize) return PRS_PRT_HTTP_RET_BAD_SPOOL_LENGTH;
    if (req->spooling != 1 || req->messageBody == nullptr) return PRS_PRT_HTTP_RET_NOT_SPOOLING;
    // 0 attempts: up to 3 receives, done after the first that delivers bytes.
    const bool firstDelivery = attempts == 0;
    if (firstDelivery) attempts = 3;
    // Bytes past those received read as zero. The connection's own spool block
    // knows how far earlier blocks wrote: only that part is cleared, after the
    // read, and a full block clears nothing. Any other buffer is cleared whole.
    const bool tracked = req->messageBody == t_note.spool;
    if (!tracked) std::memset(req->messageBody, 0, static_cast<size_t>(req->spoolSize));
    const auto done = [&](int32_t rc) {
        if (tracked) {
            if (t_note.spoolDirty > *got)
                std::memset(req->messageBody + *got, 0, static_cast<size_t>(t_note.spoolDirty - *got));
            // A caller may read the rest of a short block on into the buffer.
            t_note.spoolDirty = rc >= 0 && *got < count ? count : *got;
        }
        return rc;
    };
    unsigned char pushback = 0;
    for (int32_t attempt = 1; attempt <= attempts && *got < count; ++attempt) {
        const int32_t n = ahttpdSoread(req, req->sock, req->messageBody + *got, count - *got, &pushback,
                                       g_receiveTimeout.load());
        if (n == PRS_PRT_HTTP_RET_END_OF_DATA && req->chunked != 0) return done(PRS_PRT_HTTP_RET_END_OF_DATA);
        if (n < 0) {
            tracer(0, "[ERROR]:cmp_ipp_httptask::%s(%d): ahttpdSoread() failed (httptask) rc=%d.\n",
                   "AHTTPD_getSpooledData", 1291, n);
            return done(n);
        }
        if (n == 0) {
            if (attempt == attempts) return done(PRS_PRT_HTTP_RET_408_TIMEOUT);
            sched_yield();
            continue;
        }
        *got += n;
        if (firstDelivery) break;
    }
    return done(PRS_PRT_HTTP_RET_OK);
}

extern "C" void AHTTPD_closeSpooling(ahttpdReqObj* req) {
    if (req == nullptr) return;
    ahttpdFreeMemory(req);
    req->spooling = 0;
}

// ---- sending ---------------------------------------------------------------------

extern "C" int32_t ahttpdTransmitHeader(ahttpdRspObj* rsp) {
    if (rsp == nullptr || rsp->reqObj == nullptr) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    rsp->status = rsp->reqObj->returnCode;
    rsp->connection = rsp->reqObj->connection;
    rsp->contentLength = rsp->bodyLength;
    if (rsp->sock <= 0) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    return sendAll(rsp->sock, reinterpret_cast<const unsigned char*>(rsp), AHTTPD_RSP_RECORD_SIZE)
               ? PRS_PRT_HTTP_RET_OK
               : PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
}

extern "C" int32_t ahttpdTransmitResponseHeader(ahttpdRspObj* rsp) {
    const int32_t rc = ahttpdTransmitHeader(rsp);
    if (rc == PRS_PRT_HTTP_RET_OK) {
        rsp->numHeaders = 0;
        rsp->headerSent = 1;
    }
    return rc;
}

extern "C" int32_t AHTTPD_sendData(ahttpdRspObj* rsp) {
    if (rsp != nullptr && t_sentBody.rsp == rsp) {
        // The body already left with its record (ahttpdTransmitReply).
        const sent_body_note note = t_sentBody;
        t_sentBody = sent_body_note();
        if (note.body == rsp->body && note.length == rsp->bodyLength) {
            errno = note.error;
            return note.result;
        }
    }
    if (rsp == nullptr || rsp->sock <= 0) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    ensureNonBlocking(rsp->sock);
    if (rsp->bodyLength <= 0) return PRS_PRT_HTTP_RET_OK;
    if (rsp->body == nullptr) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    int32_t sent = 0;
    int64_t lastProgress = nowMs();
    while (sent < rsp->bodyLength) {
        const int32_t piece = rsp->bodyLength - sent < kSendPiece ? rsp->bodyLength - sent : kSendPiece;
        const ssize_t n = send(rsp->sock, rsp->body + sent, static_cast<size_t>(piece), MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<int32_t>(n);
            lastProgress = nowMs();
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        // A slow reader gets 16 ms back-offs; one that takes nothing for a whole
        // receive time-out is treated as gone rather than holding the task forever.
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) &&
            nowMs() - lastProgress < static_cast<int64_t>(g_receiveTimeout.load()) * 1000) {
            IPP_ThreadDelay(kSendBackoffMs);
            continue;
        }
        tracer(0, "[ERROR ]:cmp_ipp_httptask::%s(%d): PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE.\n", "AHTTPD_sendData",
               1398);
        return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    }
    return PRS_PRT_HTTP_RET_OK;
}

// The reply record and the body leave together: one system call where the
// socket takes it all, instead of one for the record and one per piece. The
// body is still laid out in pieces of at most 2048 bytes (one iovec each), and
// everything after a partial send resumes on that grid. The rules of the two
// separate steps hold: the record is completed while the reader makes progress
// (waiting for room), the body backs off 16 ms at a time, and either gives up
// after a receive time-out without progress.
extern "C" int32_t ahttpdTransmitReply(ahttpdRspObj* rsp) {
    if (rsp == nullptr || rsp->reqObj == nullptr) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    const bool sendsBody = rsp->body != nullptr && rsp->bodyLength > 0 &&
                           (rsp->sendBody == transmit_response_body || rsp->sendBody == transmit_response_body_frees);
    if (!sendsBody || rsp->sock <= 0) return ahttpdTransmitResponseHeader(rsp);
    rsp->status = rsp->reqObj->returnCode;
    rsp->connection = rsp->reqObj->connection;
    rsp->contentLength = rsp->bodyLength;
    const int16_t sock = rsp->sock;
    ensureNonBlocking(sock);

    const size_t record = AHTTPD_RSP_RECORD_SIZE;
    const size_t total = record + static_cast<size_t>(rsp->bodyLength);
    const unsigned char* recordBytes = reinterpret_cast<const unsigned char*>(rsp);
    size_t sent = 0;
    bool progressed = true;
    int64_t lastProgress = 0;
    while (sent < total) {
        // The parts from `sent` on: the rest of the record, then the body on its
        // grid of pieces (the first one possibly cut by a partial send).
        struct iovec parts[kMaxReplyParts];
        int count = 0;
        size_t at = sent;
        if (at < record) {
            parts[count++] = {const_cast<unsigned char*>(recordBytes + at), record - at};
            at = record;
        }
        while (at < total && count < kMaxReplyParts) {
            const size_t inBody = at - record;
            const size_t pieceEnd = (inBody / kSendPiece + 1) * kSendPiece;
            const size_t end = pieceEnd < total - record ? pieceEnd : total - record;
            parts[count++] = {rsp->body + inBody, end - inBody};
            at = record + end;
        }
        struct msghdr m;
        std::memset(&m, 0, sizeof m);
        m.msg_iov = parts;
        m.msg_iovlen = static_cast<size_t>(count);
        const ssize_t n = sendmsg(sock, &m, MSG_NOSIGNAL);
        if (n > 0) {
            const bool recordWas = sent < record;
            sent += static_cast<size_t>(n);
            if (recordWas && sent >= record) {
                // As ahttpdTransmitResponseHeader after a whole record.
                rsp->numHeaders = 0;
                rsp->headerSent = 1;
            }
            progressed = true;
            continue;
        }
        const int error = errno;
        if (n < 0 && error == EINTR) continue;
        if (n < 0 && (error == EAGAIN || error == EWOULDBLOCK)) {
            const int64_t now = nowMs();
            if (progressed) lastProgress = now;
            progressed = false;
            const int64_t left = static_cast<int64_t>(g_receiveTimeout.load()) * 1000 - (now - lastProgress);
            if (left > 0) {
                if (sent < record) {
                    struct pollfd p = {sock, POLLOUT, 0};
                    (void)poll(&p, 1, static_cast<int>(left));
                } else {
                    IPP_ThreadDelay(kSendBackoffMs);
                }
                continue;
            }
        }
        // The record did not go whole: a header failure, and no body was sent.
        if (sent < record) return PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
        tracer(0, "[ERROR ]:cmp_ipp_httptask::%s(%d): PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE.\n", "AHTTPD_sendData",
               1398);
        t_sentBody = {rsp, rsp->body, rsp->bodyLength, PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE, error};
        errno = error;
        return PRS_PRT_HTTP_RET_OK;
    }
    t_sentBody = {rsp, rsp->body, rsp->bodyLength, PRS_PRT_HTTP_RET_OK, 0};
    return PRS_PRT_HTTP_RET_OK;
}
