// Replies: the response record, the body in pieces, or both in one send.
#include <errno.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstring>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_httptask_internal.h"
#include "platform/cmp_dbglog.h"
#include "platform/emw_osw.h"

using orvane::cmp_dbglog::tracer;
using namespace cmp_ipp_httptask;

namespace {

const int32_t kSendPiece = 2048;
const int kSendBackoffMs = 16;
const int kMaxReplyParts = 64;  // record and body pieces per send call

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

}  // namespace

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
