#include "cmp_ipp_relay.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <cstring>

// Only the record layouts and constants are taken from the library's header;
// the front end does not link the library.
#include "httpd/cmp_ipp_httpd.h"
#include "cmp_ipp_clock.h"

namespace cmp_ipp_fe {

namespace {

using cmp_ipp_app::nowMs;

// Moves past n bytes sent or received: parts done whole are skipped, a part
// done in part is shortened to what is left of it.
void consume(struct iovec* parts, int* first, size_t n) {
    for (; n > 0; ++*first) {
        struct iovec& p = parts[*first];
        const size_t take = std::min(n, p.iov_len);
        p.iov_base = static_cast<unsigned char*>(p.iov_base) + take;
        p.iov_len -= take;
        n -= take;
        if (p.iov_len != 0) break;
    }
}

// Waits are cut into slices so that a stop is noticed within one of them.
const int kWaitSliceMs = 100;

struct HeaderName {
    const char* name;
    int32_t token;
    bool inRequest;  // relayed from the HTTP request to the library
    bool inReply;    // relayed from the reply record to the HTTP response
};

const HeaderName kHeaderNames[] = {
    {"Host", CMP_IPP_IF_HDR_HOST, true, false},
    {"Content-Type", CMP_IPP_IF_HDR_CONTENT_TYPE, true, true},
    {"Content-Length", CMP_IPP_IF_HDR_CONTENT_LENGTH, true, false},
    {"Transfer-Encoding", CMP_IPP_IF_HDR_TRANSFER_ENCODING, true, false},
    {"Connection", CMP_IPP_IF_HDR_CONNECTION, true, false},
    {"Keep-Alive", CMP_IPP_IF_HDR_KEEP_ALIVE, true, false},
    {"User-Agent", CMP_IPP_IF_HDR_USER_AGENT, true, false},
    {"Accept", CMP_IPP_IF_HDR_ACCEPT, true, false},
    {"Accept-Language", CMP_IPP_IF_HDR_ACCEPT_LANGUAGE, true, false},
    {"Accept-Encoding", CMP_IPP_IF_HDR_ACCEPT_ENCODING, true, false},
    {"Accept-Charset", CMP_IPP_IF_HDR_ACCEPT_CHARSET, true, false},
    {"Content-Encoding", CMP_IPP_IF_HDR_CONTENT_ENCODING, true, true},
    {"Content-Language", CMP_IPP_IF_HDR_CONTENT_LANGUAGE, true, true},
    {"Date", CMP_IPP_IF_HDR_DATE, true, false},  // the HTTP server dates its own responses
    {"Expect", CMP_IPP_IF_HDR_EXPECT, true, false},
    {"If-Modified-Since", CMP_IPP_IF_HDR_IF_MODIFIED_SINCE, true, false},
    {"Last-Modified", CMP_IPP_IF_HDR_LAST_MODIFIED, false, true},
    {"Location", CMP_IPP_IF_HDR_LOCATION, false, true},
    {"Server", CMP_IPP_IF_HDR_SERVER, false, true},
    {"WWW-Authenticate", CMP_IPP_IF_HDR_WWW_AUTHENTICATE, false, true},
    {"Authorization", CMP_IPP_IF_HDR_AUTHORIZATION, true, false},
    {"Cache-Control", CMP_IPP_IF_HDR_CACHE_CONTROL, true, true},
    {"Pragma", CMP_IPP_IF_HDR_PRAGMA, true, true},
    {"Referer", CMP_IPP_IF_HDR_REFERER, true, false},
    {"Cookie", CMP_IPP_IF_HDR_COOKIE, true, false},
    {"Set-Cookie", CMP_IPP_IF_HDR_SET_COOKIE, false, true},
    {"Upgrade", CMP_IPP_IF_HDR_UPGRADE, true, false},
};

// Most important first: credentials and the addressing the handler builds URIs
// from must survive when a client sends more headers than a record holds.
const int32_t kPriority[] = {
    CMP_IPP_IF_HDR_AUTHORIZATION,   CMP_IPP_IF_HDR_REMOTE_USER,    CMP_IPP_IF_HDR_HOST,           CMP_IPP_IF_HDR_CLIENT_ZONE,
    CMP_IPP_IF_HDR_REQUEST_URI,     CMP_IPP_IF_HDR_CONTENT_TYPE,   CMP_IPP_IF_HDR_REMOTE_ADDR,
    CMP_IPP_IF_HDR_CONTENT_LENGTH,  CMP_IPP_IF_HDR_TRANSFER_ENCODING, CMP_IPP_IF_HDR_CONNECTION,
    CMP_IPP_IF_HDR_ACCEPT_LANGUAGE, CMP_IPP_IF_HDR_USER_AGENT,     CMP_IPP_IF_HDR_LOCAL_ADDR,
    CMP_IPP_IF_HDR_ACCEPT,          CMP_IPP_IF_HDR_EXPECT,         CMP_IPP_IF_HDR_IF_MODIFIED_SINCE,
    CMP_IPP_IF_HDR_ACCEPT_ENCODING, CMP_IPP_IF_HDR_ACCEPT_CHARSET, CMP_IPP_IF_HDR_CONTENT_ENCODING,
    CMP_IPP_IF_HDR_CONTENT_LANGUAGE, CMP_IPP_IF_HDR_KEEP_ALIVE,    CMP_IPP_IF_HDR_DATE,
    CMP_IPP_IF_HDR_COOKIE,          CMP_IPP_IF_HDR_CACHE_CONTROL,  CMP_IPP_IF_HDR_PRAGMA,
    CMP_IPP_IF_HDR_REFERER,         CMP_IPP_IF_HDR_UPGRADE,
};

size_t rankOf(int32_t token) {
    const size_t n = sizeof kPriority / sizeof kPriority[0];
    for (size_t i = 0; i < n; ++i)
        if (kPriority[i] == token) return i;
    return n;
}

void putInt32(unsigned char* out, size_t at, int32_t v) { std::memcpy(out + at, &v, sizeof v); }
void putInt16(unsigned char* out, size_t at, int16_t v) { std::memcpy(out + at, &v, sizeof v); }
int32_t getInt32(const unsigned char* in, size_t at) {
    int32_t v;
    std::memcpy(&v, in + at, sizeof v);
    return v;
}
int16_t getInt16(const unsigned char* in, size_t at) {
    int16_t v;
    std::memcpy(&v, in + at, sizeof v);
    return v;
}

}  // namespace

void FreeDeleter::operator()(unsigned char* p) const { free(p); }

int32_t requestHeaderToken(const char* name) {
    if (name == nullptr) return 0;
    for (const HeaderName& h : kHeaderNames)
        if (h.inRequest && strcasecmp(h.name, name) == 0) return h.token;
    return 0;
}

const char* replyHeaderName(int32_t token) {
    for (const HeaderName& h : kHeaderNames)
        if (h.inReply && h.token == token) return h.name;
    return nullptr;
}

std::vector<RelayHeader> selectHeaders(const std::vector<RelayHeader>& candidates) {
    std::vector<RelayHeader> kept;
    for (const RelayHeader& c : candidates) {
        if (c.token <= 0 || c.token > AHTTPD_MAX_TOKEN) continue;
        // A cut value (credentials above all) would be worse than none.
        if (c.value.size() >= static_cast<size_t>(AHTTPD_FIELD_TEXT_SIZE)) continue;
        const bool seen = std::any_of(kept.begin(), kept.end(), [&](const RelayHeader& k) { return k.token == c.token; });
        if (!seen) kept.push_back(c);
    }
    // A handful of fields: a stable insertion sort by rank, without the buffer
    // and merge code std::stable_sort brings into every program.
    for (size_t i = 1; i < kept.size(); ++i)
        for (size_t j = i; j > 0 && rankOf(kept[j].token) < rankOf(kept[j - 1].token); --j)
            std::swap(kept[j], kept[j - 1]);
    if (kept.size() > static_cast<size_t>(AHTTPD_NUM_HEADER_FIELDS)) kept.resize(AHTTPD_NUM_HEADER_FIELDS);
    return kept;
}

unsigned httpStatusFor(int32_t code) {
    switch (code) {
    case PRS_PRT_HTTP_RET_OK: return 200;
    case PRS_PRT_HTTP_RET_CREATED: return 201;
    case PRS_PRT_HTTP_RET_ACCEPTED: return 202;
    case PRS_PRT_HTTP_RET_NO_CONTENT: return 204;
    case PRS_PRT_HTTP_RET_REDIRECT: return 302;
    case PRS_PRT_HTTP_RET_NOT_MODIFIED: return 304;
    case PRS_PRT_HTTP_RET_400_BAD_REQUEST: return 400;
    case PRS_PRT_HTTP_RET_401_UNAUTHORIZED: return 401;
    case PRS_PRT_HTTP_RET_401_ACCESS_DENIED: return 401;
    case PRS_PRT_HTTP_RET_403_FORBIDDEN: return 403;
    case PRS_PRT_HTTP_RET_404_NOT_FOUND: return 404;
    case PRS_PRT_HTTP_RET_405_INVLD_MET: return 405;
    case PRS_PRT_HTTP_RET_406_NOT_ACCEPTABLE: return 406;
    case PRS_PRT_HTTP_RET_408_TIMEOUT: return 408;
    case PRS_PRT_HTTP_RET_411_LENGTH_REQUIRED: return 411;
    case PRS_PRT_HTTP_RET_413_TOO_LARGE: return 413;
    case PRS_PRT_HTTP_RET_414_URI_TOO_LARGE: return 414;
    case PRS_PRT_HTTP_RET_500_INTERNAL: return 500;
    case PRS_PRT_HTTP_RET_501_NOT_IMPLEMENTED: return 501;
    case PRS_PRT_HTTP_RET_502_BAD_GATEWAY: return 502;
    case PRS_PRT_HTTP_RET_503_UNAVAILABLE: return 503;
    case PRS_PRT_HTTP_RET_505_VERSION: return 505;
    case PRS_PRT_HTTP_RET_SERVICE_UNAVAILABLE: return 503;
    case PRS_PRT_HTTP_RET_IPP_DISABLED: return 503;
    // The library lost the body on its socket: from the client's side the
    // service behind this gateway failed.
    case PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE: return 502;
    case PRS_PRT_HTTP_RET_CONN_CLOSED: return 502;
    default: return 500;
    }
}

std::string socketPathIn(const char* dir) {
    if (dir == nullptr) return "/tmp/zyn_ipp_server";
    return std::string(dir) + "zyn_ipp_server";
}

std::string defaultSocketPath() { return socketPathIn(getenv("GEN_UNIX_PATH")); }

size_t requestRecordSize() { return AHTTPD_REQ_BLOCK_SIZE; }
size_t replyRecordSize() { return AHTTPD_RSP_RECORD_SIZE; }

void encodeRequestRecord(const RelayRequest& req, unsigned char* out) {
    std::memset(out, 0, AHTTPD_REQ_BLOCK_SIZE);
    putInt32(out, offsetof(ahttpdReqObj, method), req.method);
    putInt32(out, offsetof(ahttpdReqObj, keepAliveLevel), req.keepAliveLevel);
    putInt32(out, offsetof(ahttpdReqObj, connection), req.connection);
    putInt32(out, offsetof(ahttpdReqObj, contentLength), req.contentLength);
    putInt32(out, offsetof(ahttpdReqObj, chunked), req.chunked ? 1 : 0);
    int16_t n = 0;
    for (const RelayHeader& h : req.headers) {
        if (n == AHTTPD_NUM_HEADER_FIELDS) break;
        const size_t field = offsetof(ahttpdReqObj, headers) + static_cast<size_t>(n) * sizeof(ahttpdHeaderField);
        putInt32(out, field + offsetof(ahttpdHeaderField, token), h.token);
        const size_t len = std::min(h.value.size(), static_cast<size_t>(AHTTPD_FIELD_TEXT_SIZE - 1));
        std::memcpy(out + field + offsetof(ahttpdHeaderField, value), h.value.data(), len);
        ++n;
    }
    putInt16(out, offsetof(ahttpdReqObj, numHeaders), n);
}

void updateRequestRecord(const RelayRequest& req, unsigned char* out, RecordSlots& slots) {
    if (!slots.primed) {
        std::memset(out, 0, AHTTPD_REQ_BLOCK_SIZE);
        slots = RecordSlots();
        slots.primed = true;
    }
    putInt32(out, offsetof(ahttpdReqObj, method), req.method);
    putInt32(out, offsetof(ahttpdReqObj, keepAliveLevel), req.keepAliveLevel);
    putInt32(out, offsetof(ahttpdReqObj, connection), req.connection);
    putInt32(out, offsetof(ahttpdReqObj, contentLength), req.contentLength);
    putInt32(out, offsetof(ahttpdReqObj, chunked), req.chunked ? 1 : 0);
    int16_t n = 0;
    for (const RelayHeader& h : req.headers) {
        if (n == AHTTPD_NUM_HEADER_FIELDS) break;
        const size_t field = offsetof(ahttpdReqObj, headers) + static_cast<size_t>(n) * sizeof(ahttpdHeaderField);
        putInt32(out, field + offsetof(ahttpdHeaderField, token), h.token);
        unsigned char* text = out + field + offsetof(ahttpdHeaderField, value);
        const size_t len = std::min(h.value.size(), static_cast<size_t>(AHTTPD_FIELD_TEXT_SIZE - 1));
        std::memcpy(text, h.value.data(), len);
        // Whatever of the older, longer text is left goes back to zero.
        if (slots.length[n] > len) std::memset(text + len, 0, slots.length[n] - len);
        slots.length[n] = static_cast<uint16_t>(len);
        ++n;
    }
    for (int16_t i = n; i < slots.used; ++i) {
        const size_t field = offsetof(ahttpdReqObj, headers) + static_cast<size_t>(i) * sizeof(ahttpdHeaderField);
        putInt32(out, field + offsetof(ahttpdHeaderField, token), 0);
        std::memset(out + field + offsetof(ahttpdHeaderField, value), 0, slots.length[i]);
        slots.length[i] = 0;
    }
    slots.used = n;
    putInt16(out, offsetof(ahttpdReqObj, numHeaders), n);
}

void decodeReplyRecord(const unsigned char* in, RelayReply& out) {
    out.status = getInt32(in, offsetof(ahttpdRspObj, status));
    out.connection = getInt32(in, offsetof(ahttpdRspObj, connection));
    out.headers.clear();
    const int16_t n = getInt16(in, offsetof(ahttpdRspObj, numHeaders));
    for (int16_t i = 0; i < n && i < AHTTPD_NUM_HEADER_FIELDS; ++i) {
        const size_t field = offsetof(ahttpdRspObj, headers) + static_cast<size_t>(i) * sizeof(ahttpdHeaderField);
        const char* text = reinterpret_cast<const char*>(in + field + offsetof(ahttpdHeaderField, value));
        out.headers.push_back({getInt32(in, field + offsetof(ahttpdHeaderField, token)),
                               std::string(text, strnlen(text, AHTTPD_FIELD_TEXT_SIZE))});
    }
}

// ---- RelayConnection ------------------------------------------------------------

namespace {

// Body bytes wait for a full block at most this long after the library last got
// something; then they go out as a part block.
const int64_t kPartBlockMs = 2000;
const int kFirstBackoffMs = 2;
const int kLongestBackoffMs = 50;

void sleepMs(int ms) {
    struct timespec ts = {ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

}  // namespace

bool RelayTrust::trusts(uid_t uid) const {
    // Root can read our memory anyway; trusting it costs nothing.
    if (uid == geteuid() || uid == 0) return true;
    return std::find(uids.begin(), uids.end(), uid) != uids.end();
}

RelayConnection::RelayConnection(int timeoutMs, const std::atomic<bool>* stopping, int connectRetryMs,
                                   const RelayTrust* trust)
    : m_timeoutMs(timeoutMs), m_stopping(stopping), m_connectRetryMs(connectRetryMs), m_trust(trust) {}

RelayConnection::~RelayConnection() { close(); }

RelayConnection::Outcome RelayConnection::connectTo(const std::string& path) {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_path = path;
    struct sockaddr_un addr;
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof addr.sun_path) return Outcome::Unreachable;
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    const int64_t deadline = nowMs() + m_connectRetryMs;
    int backoff = kFirstBackoffMs;
    int fd = -1;
    for (;;) {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (fd < 0) return Outcome::Failed;
        if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0) break;
        const int err = errno;
        ::close(fd);
        // A full backlog gives EAGAIN at once on Linux (nothing is queued); a
        // library starting up has no socket yet or does not listen yet.
        if (err != EAGAIN && err != ECONNREFUSED && err != ENOENT && err != EINTR) return Outcome::Unreachable;
        if ((m_stopping != nullptr && m_stopping->load()) || nowMs() + backoff > deadline) return Outcome::Unreachable;
        sleepMs(backoff);
        backoff = std::min(backoff * 2, kLongestBackoffMs);
    }
    if (m_trust != nullptr) {
        struct ucred cred;
        socklen_t length = sizeof cred;
        const bool known = getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) == 0;
        if (!known || !m_trust->trusts(cred.uid)) {
            m_untrustedUid = known ? cred.uid : static_cast<uid_t>(-1);
            ::close(fd);
            return Outcome::Untrusted;
        }
    }
    m_fd = fd;
    m_stray = false;
    m_lastUseMs = nowMs();
    return Outcome::Ok;
}

bool RelayConnection::reusable(int64_t idleLimitMs) const {
    if (m_fd < 0 || m_stray || nowMs() - m_lastUseMs > idleLimitMs) return false;
    // Between requests the library sends nothing: anything readable is its close.
    struct pollfd p = {m_fd, POLLIN, 0};
    return poll(&p, 1, 0) == 0;
}

void RelayConnection::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_fill = 0;
}

RelayConnection::SendResult RelayConnection::sendRaw(const struct iovec* parts, int count) {
    struct iovec iov[4];
    if (count > 4) return SendResult::Failed;
    std::memcpy(iov, parts, sizeof(struct iovec) * static_cast<size_t>(count));
    int first = 0;
    int64_t lastProgress = -1;  // taken when a wait needs it: -1 is "just now"
    for (;;) {
        while (first < count && iov[first].iov_len == 0) ++first;
        if (first == count) break;
        if (m_fd < 0) return SendResult::Failed;
        struct msghdr m;
        std::memset(&m, 0, sizeof m);
        m.msg_iov = iov + first;
        m.msg_iovlen = static_cast<size_t>(count - first);
        // MSG_NOSIGNAL: a library that went away is an error here, not the end of the process.
        ssize_t n = sendmsg(m_fd, &m, MSG_NOSIGNAL);
        if (n > 0) {
            consume(iov, &first, static_cast<size_t>(n));
            lastProgress = -1;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (lastProgress < 0) lastProgress = nowMs();
            if ((m_stopping != nullptr && m_stopping->load()) || nowMs() - lastProgress > m_timeoutMs)
                return SendResult::Failed;
            struct pollfd pf = {m_fd, POLLOUT, 0};
            (void)poll(&pf, 1, kWaitSliceMs);
            continue;
        }
        if (n < 0 && (errno == EPIPE || errno == ECONNRESET) && noReplyWaiting()) return SendResult::Refused;
        return SendResult::Failed;
    }
    m_lastUseMs = nowMs();
    m_lastSentMs = m_lastUseMs;
    return SendResult::Sent;
}

bool RelayConnection::sendParts(const struct iovec* parts, int count) {
    for (;;) {
        const SendResult r = sendRaw(parts, count);
        if (r == SendResult::Sent) return true;
        if (r == SendResult::Failed || !replayable() || !replay()) return false;
    }
}

bool RelayConnection::noReplyWaiting() {
    unsigned char b;
    const ssize_t n = recv(m_fd, &b, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n > 0) return false;
    if (n < 0 && errno == ECONNRESET) m_refused = true;
    // A close without a reset after a failed send still left our bytes unread.
    if (n == 0) m_refused = true;
    return true;
}

bool RelayConnection::replay() {
    // One budget per request, from its first refusal: the library is at its
    // limit only until a connection task or two have ended.
    if (m_replayDeadline == 0) m_replayDeadline = nowMs() + m_connectRetryMs;
    for (;;) {
        if (m_stopping != nullptr && m_stopping->load()) return false;
        if (m_replaysThisRequest > 0) {
            // The first replay goes at once (a kept connection the library idled
            // out); repeated refusals back off.
            if (nowMs() + m_replayBackoffMs > m_replayDeadline) return false;
            sleepMs(m_replayBackoffMs);
            m_replayBackoffMs = std::min(m_replayBackoffMs * 2, kLongestBackoffMs);
        }
        ++m_replaysThisRequest;
        ++m_replays;
        const std::string path = m_path;
        if (connectTo(path) != Outcome::Ok) return false;
        m_refused = false;
        // The record had not gone: the parts being sent carry it.
        if (!m_recordSent) return true;
        int32_t length = m_lastBlockLength;
        struct iovec parts[3] = {{m_record.data(), m_record.size()}, {&length, sizeof length}, {nullptr, 0}};
        int count = 1;
        if (m_blocksSent == 1) {
            parts[2] = {m_block.data(), static_cast<size_t>(m_lastBlockLength)};
            count = 3;
        }
        SendResult r = sendRaw(parts, count);
        if (r == SendResult::Sent && m_endSent) {
            int32_t end = 0;
            struct iovec e = {&end, sizeof end};
            r = sendRaw(&e, 1);
        }
        if (r == SendResult::Sent) return true;
        if (r == SendResult::Failed) return false;
    }
}

bool RelayConnection::readAtLeast(struct iovec* parts, int count, size_t minimum, size_t* got, int timeoutMs,
                                   bool waitFirst) {
    *got = 0;
    int first = 0;
    int64_t lastProgress = -1;  // taken when a wait needs it: -1 is "just now"
    while (*got < minimum) {
        if (m_fd < 0) return false;
        if (waitFirst) {
            // Nothing can be there yet: wait before the first receive.
            waitFirst = false;
            lastProgress = nowMs();
            struct pollfd pf = {m_fd, POLLIN, 0};
            while (poll(&pf, 1, kWaitSliceMs) == 0) {
                if ((m_stopping != nullptr && m_stopping->load()) || nowMs() - lastProgress > timeoutMs) return false;
            }
        }
        while (first < count && parts[first].iov_len == 0) ++first;
        if (first == count) return false;
        struct msghdr m;
        std::memset(&m, 0, sizeof m);
        m.msg_iov = parts + first;
        m.msg_iovlen = static_cast<size_t>(count - first);
        ssize_t n = recvmsg(m_fd, &m, MSG_DONTWAIT);
        if (n > 0) {
            *got += static_cast<size_t>(n);
            m_replyBytes += static_cast<size_t>(n);
            consume(parts, &first, static_cast<size_t>(n));
            lastProgress = -1;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n == 0 || errno == ECONNRESET) {
            // Closed before a byte of the reply. Taken for a refusal only when our
            // bytes were left unread; a library that read the whole request and
            // then closed has failed, and the request is not sent twice.
            if (n < 0) m_refused = true;
            if (m_refused && m_complete && replayable() && replay()) {
                lastProgress = -1;
                continue;
            }
            return false;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
        if (lastProgress < 0) lastProgress = nowMs();
        if ((m_stopping != nullptr && m_stopping->load()) || nowMs() - lastProgress > timeoutMs) return false;
        struct pollfd pf = {m_fd, POLLIN, 0};
        (void)poll(&pf, 1, kWaitSliceMs);
    }
    m_lastUseMs = nowMs();
    return true;
}

bool RelayConnection::sendRequest(const RelayRequest& req) {
    if (m_record.data() == nullptr) {
        // Once per connection; fresh pages are known to be zero.
        if (!m_record.allocate(AHTTPD_REQ_BLOCK_SIZE)) return false;
        m_slots = RecordSlots();
        m_slots.primed = true;
    }
    updateRequestRecord(req, m_record.data(), m_slots);
    m_fill = 0;
    m_blocksSent = 0;
    m_blockIntact = false;
    m_lastBlockLength = 0;
    m_endSent = false;
    m_recordSent = false;
    // Only a POST has a body; any other request is complete with its record.
    m_complete = req.method != AHTTPD_METHOD_POST;
    m_replyBytes = 0;
    m_refused = false;
    m_replaysThisRequest = 0;
    m_replayDeadline = 0;
    m_replayBackoffMs = kFirstBackoffMs;
    if (!m_complete) {
        // The record waits for the body; the part-block rule counts from here.
        m_lastSentMs = nowMs();
        return m_fd >= 0;
    }
    return sendPending(false, false);
}

bool RelayConnection::sendPending(bool block, bool end) {
    struct iovec parts[4];
    int count = 0;
    if (!m_recordSent) parts[count++] = {m_record.data(), m_record.size()};
    int32_t length = static_cast<int32_t>(m_fill);
    const bool withBlock = block && m_fill > 0;
    if (withBlock) {
        // Length word and data in one send where the socket takes it.
        parts[count++] = {&length, sizeof length};
        parts[count++] = {m_block.data(), m_fill};
    }
    int32_t endWord = 0;
    if (end) parts[count++] = {&endWord, sizeof endWord};
    if (count == 0) return true;
    if (!sendParts(parts, count)) return false;
    m_recordSent = true;
    if (withBlock) {
        ++m_blocksSent;
        m_blockIntact = true;
        m_lastBlockLength = length;
        m_fill = 0;
    }
    if (end) {
        m_endSent = true;
        m_complete = true;
    }
    return true;
}

bool RelayConnection::flushBlock() { return m_fill == 0 || sendPending(true, false); }

bool RelayConnection::addBody(const unsigned char* data, size_t length) {
    if (length > 0 && m_block.data() == nullptr && !m_block.allocate(AHTTPD_SPOOL_SIZE)) return false;
    while (length > 0) {
        const size_t take = std::min(length, m_block.size() - m_fill);
        std::memcpy(m_block.data() + m_fill, data, take);
        m_blockIntact = false;  // the last block sent is overwritten
        m_fill += take;
        data += take;
        length -= take;
        if (m_fill == m_block.size() && !flushBlock()) return false;
    }
    if (m_fill > 0 && nowMs() - m_lastSentMs >= kPartBlockMs) return flushBlock();
    return true;
}

bool RelayConnection::endBody() { return sendPending(true, true); }

bool RelayConnection::replyWaiting() {
    // Nothing asked yet, nothing to answer: no need to look.
    if (m_fd < 0 || !m_recordSent) return false;
    struct pollfd p = {m_fd, POLLIN, 0};
    if (poll(&p, 1, 0) <= 0) return false;
    if (m_replyBytes != 0) return true;
    unsigned char b;
    const ssize_t n = recv(m_fd, &b, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n > 0) return true;
    if (n < 0 && errno != ECONNRESET) return n < 0 && errno != EAGAIN && errno != EINTR;
    // A reset: the library closed without reading what we sent (a refusal at
    // its connection limit, or a kept connection it idled out).
    if (n < 0) m_refused = true;
    if (m_refused && replayable() && replay()) return replyWaiting();
    return true;
}

bool RelayConnection::readReply(RelayReply& out, int timeoutMs) {
    out.body.reset();
    out.bodyLength = 0;
    if (!m_recordSent) return false;  // the library has not been asked
    const size_t recordSize = AHTTPD_RSP_RECORD_SIZE;
    // Only for this reply and never cleared (every byte is received into it):
    // an idle connection holds no 30 KB for its next reply.
    const std::unique_ptr<unsigned char[]> record(new (std::nothrow) unsigned char[recordSize]);
    if (!record) return false;
    // The record and the start of the body (usually all of it) in one receive.
    // +1: a zero-length malloc could legally return null.
    size_t room = m_bodyRoom;
    unsigned char* body = static_cast<unsigned char*>(malloc(room + 1));
    if (body == nullptr) return false;
    out.body.reset(body);
    struct iovec parts[2] = {{record.get(), recordSize}, {body, room}};
    size_t got = 0;
    // The library has only just been asked: its answer is never there at once
    // (measured: the receive before a wait was always in vain), so wait first.
    if (!readAtLeast(parts, 2, recordSize, &got, timeoutMs, true)) {
        out.body.reset();
        return false;
    }
    decodeReplyRecord(record.get(), out);
    const int32_t declared = getInt32(record.get(), offsetof(ahttpdRspObj, contentLength));
    const size_t length = declared > 0 ? static_cast<size_t>(declared) : 0;
    size_t have = got - recordSize;
    // The library sends nothing beyond a reply; anything that came is not ours
    // to read as the next reply.
    if (have > length) {
        m_stray = true;
        have = length;
    }
    if (length == 0) {
        out.body.reset();
        return true;
    }
    if (length > room) {
        unsigned char* grown = static_cast<unsigned char*>(realloc(body, length + 1));
        if (grown == nullptr) {
            out.body.reset();
            return false;
        }
        (void)out.body.release();
        out.body.reset(grown);
        body = grown;
    }
    if (have < length) {
        struct iovec rest = {body + have, length - have};
        size_t more = 0;
        if (!readAtLeast(&rest, 1, length - have, &more, timeoutMs, false)) {
            out.body.reset();
            return false;
        }
    }
    out.bodyLength = length;
    // Room for the next reply on this connection: as much as this one took,
    // and some more. Bounded, so that one long reply does not make every later
    // one allocate a large block; a longer reply grows its block once.
    m_bodyRoom = std::min<size_t>(std::max<size_t>(length + length / 8 + 512, 4096), 64 * 1024);
    return true;
}

}  // namespace cmp_ipp_fe
