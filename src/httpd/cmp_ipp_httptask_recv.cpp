// The connection task's receive primitive: a bounded read from the socket
// with its time-out, and the end of a body told apart from a front end gone.
#include <errno.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdint>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_httptask_internal.h"
#include "platform/cmp_dbglog.h"
#include "platform/emw_osw.h"

using orvane::cmp_dbglog::tracer;
using namespace cmp_ipp_httptask;

namespace {

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

}  // namespace

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
