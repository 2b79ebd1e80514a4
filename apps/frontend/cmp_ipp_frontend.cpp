// Threading: libmicrohttpd runs one thread per HTTP connection. Relaying blocks
// on the Unix socket (the library reads body blocks at the handler's pace and
// takes its time to build a reply), and in a thread of its own that blocking
// holds up only the connection it belongs to; with a shared event thread every
// wait would have to be turned into suspend/resume bookkeeping. The thread count
// is bounded by the connection limit, which matches the library's own limit.
//
// Admission: TCP connections are accepted by a ConnectionGate of our own, which
// enforces the connection limits and the header deadline and hands admitted
// sockets to libmicrohttpd (no listening socket of its own). The HTTP server
// reports back when a request's headers are complete and when a response is out.
//
// Connections to the library: one Unix-socket connection per HTTP connection,
// requests sent in keep-alive mode (2), so a client's persistent connection maps
// onto one connection task in the library and a request costs no connect and no
// task start. A kept connection is dropped whenever the library might not read
// the next request on it: an answer other than success or 401, a reply that came
// before the whole body was sent, or a connection idle for longer than the reuse
// time (the library closes idle kept connections itself).
//
// TLS: a second HTTP server with libmicrohttpd's HTTPS support takes the
// connections whose first byte opens a TLS handshake (the gate tells them
// apart), so ipp:// and ipps:// share the port. It starts at the first TLS
// connection: loading the certificate brings in GnuTLS's certificate and
// big-number code, which a printer that sees no TLS client need not hold.
// A pair that does not load is reported once and TLS stays off.
//
// Authentication: the front end checks Basic credentials itself, before the
// library sees anything, and passes the library only the user's name. A POST
// without credentials has to show its IPP operation first: the request record
// waits until the body's first four bytes are in, and queries go on unchallenged.
#include "cmp_ipp_frontend.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

#include "cmp_ipp_admission.h"
#include "cmp_ipp_auth.h"
#include "cmp_ipp_icons.h"
#include "cmp_ipp_relay.h"
#include "cmp_ipp_tls.h"
#include "containers/cmp_ipp_if.h"

using namespace cmp_ipp_fe;

namespace {

const int kEarlyReplyWaitMs = 1000;
// The library answers nothing else on these two methods.
const char kAllowed[] = "GET, POST";
// TLS 1.2 and 1.3 only.
const char kTlsPriorities[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
const char kNeedsUser[] = "Authentication required: this operation needs a user name and password.\n";
const char kNeedsTls[] =
    "This operation needs a user name and password, which are not taken over plain HTTP from another machine: "
    "use the printer's ipps:// (https://) address.\n";

struct ConnectionState {
    ConnectionState(int timeoutMs, const std::atomic<bool>* stopping, int connectRetryMs, const RelayTrust* trust,
                     uint64_t id)
        : relay(timeoutMs, stopping, connectRetryMs, trust), admissionId(id) {}
    RelayConnection relay;
    uint64_t admissionId;
    // The connection's own address, asked for once: it cannot change.
    bool localKnown = false;
    std::string localAddress;
    bool secure = false;  // over TLS
    bool local = false;   // the client is on this machine (a loopback address)
};

struct RequestState {
    bool post = false;
    bool keepAlive = false;
    bool inFlight = false;   // record sent, reply not read: the Unix connection is mid-request
    bool done = false;       // the outcome is known; further upload data is discarded
    unsigned failStatus = 0; // set when the front end itself could not get an answer
    const char* failText = "IPP service failed\n";
    // Unauthenticated POST: the record waits for the IPP operation in the body.
    bool awaitingOperation = false;
    std::string held;  // body bytes that came while waiting
    std::string url;
    std::string user;  // authenticated user, for the library
    RelayReply reply;
};

bool isLoopback(const struct sockaddr* sa) {
    if (sa == nullptr) return false;
    if (sa->sa_family == AF_INET)
        return (ntohl(reinterpret_cast<const struct sockaddr_in*>(sa)->sin_addr.s_addr) >> 24) == 127;
    if (sa->sa_family != AF_INET6) return false;
    const struct in6_addr& a = reinterpret_cast<const struct sockaddr_in6*>(sa)->sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&a) || (IN6_IS_ADDR_V4MAPPED(&a) && a.s6_addr[12] == 127);
}

bool containsToken(const char* list, const char* token) {
    if (list == nullptr) return false;
    const size_t n = std::strlen(token);
    for (const char* p = list; *p != '\0'; ++p)
        if (strncasecmp(p, token, n) == 0) return true;
    return false;
}

std::string numericHost(const struct sockaddr* sa) {
    if (sa == nullptr) return std::string();
    const socklen_t len = sa->sa_family == AF_INET6 ? sizeof(struct sockaddr_in6) : sizeof(struct sockaddr_in);
    char host[NI_MAXHOST];
    if (getnameinfo(sa, len, host, sizeof host, nullptr, 0, NI_NUMERICHOST) != 0) return std::string();
    return host;
}

// The zone of a link-local IPv6 client in the percent-encoded form that goes
// into URIs ("%25eth0"); empty for every other client.
std::string clientZone(const struct sockaddr* sa) {
    if (sa == nullptr || sa->sa_family != AF_INET6) return std::string();
    const struct sockaddr_in6* s6 = reinterpret_cast<const struct sockaddr_in6*>(sa);
    if (s6->sin6_scope_id == 0) return std::string();
    char name[IF_NAMESIZE];
    if (if_indextoname(s6->sin6_scope_id, name) == nullptr) return std::string();
    return std::string("%25") + name;
}

MHD_Result collectHeader(void* cls, enum MHD_ValueKind, const char* key, const char* value) {
    const int32_t token = requestHeaderToken(key);
    if (token != 0 && value != nullptr) static_cast<std::vector<RelayHeader>*>(cls)->push_back({token, value});
    return MHD_YES;
}

MHD_Result queueText(struct MHD_Connection* c, unsigned status, const char* text, const char* allow = kAllowed) {
    struct MHD_Response* r =
        MHD_create_response_from_buffer(std::strlen(text), const_cast<char*>(text), MHD_RESPMEM_MUST_COPY);
    if (r == nullptr) return MHD_NO;
    MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) MHD_add_response_header(r, MHD_HTTP_HEADER_ALLOW, allow);
    const MHD_Result rc = MHD_queue_response(c, status, r);
    MHD_destroy_response(r);
    return rc;
}

// IPP requests come as application/ipp (RFC 8010 section 3); parameters and the
// case of the type do not matter.
bool isIppContentType(const char* value) {
    if (value == nullptr) return false;
    while (*value == ' ' || *value == '\t') ++value;
    static const char kType[] = "application/ipp";
    const size_t n = sizeof kType - 1;
    if (strncasecmp(value, kType, n) != 0) return false;
    const char* rest = value + n;
    while (*rest == ' ' || *rest == '\t') ++rest;
    return *rest == '\0' || *rest == ';';
}

// 401 with the challenge, or 403 when credentials may not be sent here at all.
MHD_Result queueAuthFailure(struct MHD_Connection* c, unsigned status, const std::string& challenge) {
    const char* text = status == MHD_HTTP_UNAUTHORIZED ? kNeedsUser : kNeedsTls;
    struct MHD_Response* r =
        MHD_create_response_from_buffer(std::strlen(text), const_cast<char*>(text), MHD_RESPMEM_PERSISTENT);
    if (r == nullptr) return MHD_NO;
    MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, "text/plain");
    if (status == MHD_HTTP_UNAUTHORIZED)
        MHD_add_response_header(r, MHD_HTTP_HEADER_WWW_AUTHENTICATE, challenge.c_str());
    const MHD_Result rc = MHD_queue_response(c, status, r);
    MHD_destroy_response(r);
    return rc;
}

// A realm fit for a quoted string.
std::string challengeFor(const std::string& realm) {
    std::string out = "Basic realm=\"";
    for (char ch : realm) out += (ch == '"' || ch == '\\' || static_cast<unsigned char>(ch) < 0x20) ? '\'' : ch;
    return out + "\", charset=\"UTF-8\"";
}

MHD_Result queueIcon(struct MHD_Connection* c, const IconFile& icon) {
    struct MHD_Response* r =
        MHD_create_response_from_buffer(icon.size, const_cast<unsigned char*>(icon.data), MHD_RESPMEM_PERSISTENT);
    if (r == nullptr) return MHD_NO;
    MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, "image/png");
    const MHD_Result rc = MHD_queue_response(c, MHD_HTTP_OK, r);
    MHD_destroy_response(r);
    return rc;
}

AdmissionLimits limitsOf(const cmp_ipp_frontend::Options& o) {
    AdmissionLimits l;
    l.connectionLimit = o.connectionLimit;
    l.perAddressLimit = o.perAddressLimit;
    l.headerTimeoutMs = o.headerTimeoutMs;
    l.crowdedGraceMs = o.crowdedGraceMs;
    return l;
}

}  // namespace

struct cmp_ipp_frontend::Impl {
    explicit Impl(const Options& o) : opts(o), gate(limitsOf(o), o.retryAfterSeconds) {
        socketPath = opts.socketPath.empty() ? defaultSocketPath() : opts.socketPath;
        trust.uids = opts.trustedUids;
        challenge = challengeFor(opts.authRealm);
    }

    Options opts;
    std::string socketPath;
    RelayTrust trust;
    ConnectionGate gate;
    struct MHD_Daemon* daemon = nullptr;     // plain HTTP
    struct MHD_Daemon* tlsDaemon = nullptr;  // HTTPS: only the gate's thread starts it
    bool tlsTried = false;                   // whether it was started (or failed to)
    bool started = false;
    std::string challenge;  // the WWW-Authenticate value
    std::atomic<bool> stopping{false};
    std::mutex logLock;
    uid_t lastReportedUid = static_cast<uid_t>(-1);

    void log(const std::string& message);
    void reportUntrusted(uid_t uid);

    static MHD_Result onRequest(void* cls, struct MHD_Connection* c, const char* url, const char* method,
                                const char* version, const char* upload, size_t* uploadSize, void** reqCls);
    static void onCompleted(void* cls, struct MHD_Connection* c, void** reqCls, enum MHD_RequestTerminationCode toe);
    static void onConnection(void* cls, struct MHD_Connection* c, void** socketCtx,
                             enum MHD_ConnectionNotificationCode toe);

    MHD_Result begin(struct MHD_Connection* c, ConnectionState* conn, RequestState* st, const char* url,
                     const char* method, const char* version);
    // Sends the request record; 0, or the HTTP status to answer with (text in st->failText).
    unsigned startRelay(struct MHD_Connection* c, ConnectionState* conn, RequestState* st);
    // The operation is in (or the body ended before it): challenge, or relay what came.
    void decideOperation(struct MHD_Connection* c, ConnectionState* conn, RequestState* st);
    void relayBody(struct MHD_Connection* c, ConnectionState* conn, RequestState* st, const unsigned char* data,
                   size_t length);
    void finish(struct MHD_Connection* c, ConnectionState* conn, RequestState* st);
    void takeEarlyReply(ConnectionState* conn, RequestState* st);
    MHD_Result respond(struct MHD_Connection* c, RequestState* st);
    RelayRequest buildRequest(struct MHD_Connection* c, ConnectionState* conn, const char* url, bool post,
                               bool keepAlive, const std::string& user);
    bool servedPath(const char* url, bool get) const;
    struct MHD_Daemon* startDaemon(bool tls);
    bool handOverTls(int fd, const struct sockaddr* addr, socklen_t length);
};

void cmp_ipp_frontend::Impl::log(const std::string& message) {
    if (opts.log) {
        opts.log(message);
    } else {
        fprintf(stderr, "%s\n", message.c_str());
    }
}

// Said once per user, not once per request: a client retrying must not flood the log.
void cmp_ipp_frontend::Impl::reportUntrusted(uid_t uid) {
    std::lock_guard<std::mutex> lock(logLock);
    if (uid == lastReportedUid) return;
    lastReportedUid = uid;
    log("refusing to relay to " + socketPath + ": its server runs as uid " + std::to_string(uid) +
        ", not as this user (uid " + std::to_string(geteuid()) + ") or a trusted one (--trust-uid)");
}

namespace {

// "<prefix>/<digits>", the digits not empty.
bool numberedUnder(const char* url, const char* prefix, size_t n) {
    if (std::strncmp(url, prefix, n) != 0 || url[n] != '/' || url[n + 1] == '\0') return false;
    for (const char* p = url + n + 1; *p != '\0'; ++p)
        if (*p < '0' || *p > '9') return false;
    return true;
}

}  // namespace

// The printer's path, "/", and its job URIs ("<path>/<job-id>"): clients send
// job operations to the job-uri they were given. Pages only: the full
// attribute list and a job's page.
bool cmp_ipp_frontend::Impl::servedPath(const char* url, bool get) const {
    if (std::strcmp(url, "/") == 0 || opts.ippPath == url) return true;
    if (numberedUnder(url, opts.ippPath.c_str(), opts.ippPath.size())) return true;
    return get && (std::strcmp(url, "/attributes") == 0 || numberedUnder(url, "/jobs", 5));
}

RelayRequest cmp_ipp_frontend::Impl::buildRequest(struct MHD_Connection* c, ConnectionState* conn, const char* url,
                                                   bool post, bool keepAlive, const std::string& user) {
    RelayRequest req;
    req.method = post ? 2 : 0;
    req.connection = keepAlive ? 2 : 1;
    // Level 1, not higher: above 1 the library answers a redirect by waiting on the
    // connection itself; the front end would rather drop it and connect anew.
    req.keepAliveLevel = keepAlive ? 1 : 0;
    if (post) {
        const char* te = MHD_lookup_connection_value(c, MHD_HEADER_KIND, MHD_HTTP_HEADER_TRANSFER_ENCODING);
        const char* cl = MHD_lookup_connection_value(c, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
        if (containsToken(te, "chunked")) {
            req.chunked = true;
        } else if (cl != nullptr) {
            const unsigned long long n = strtoull(cl, nullptr, 10);
            // The record's length is 32-bit; a longer body still ends with the end block.
            if (n > 0x7FFFFFFFull)
                req.chunked = true;
            else
                req.contentLength = static_cast<int32_t>(n);
        }
    }

    std::vector<RelayHeader> candidates;
    MHD_get_connection_values(c, MHD_HEADER_KIND, collectHeader, &candidates);
    if (opts.auth) {
        // Checked here: the password goes no further, the user's name does.
        candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                        [](const RelayHeader& h) { return h.token == CMP_IPP_IF_HDR_AUTHORIZATION; }),
                         candidates.end());
        if (!user.empty()) candidates.push_back({CMP_IPP_IF_HDR_REMOTE_USER, user});
    }
    candidates.push_back({CMP_IPP_IF_HDR_REQUEST_URI, url});
    const union MHD_ConnectionInfo* ci = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (ci != nullptr && ci->client_addr != nullptr) {
        const std::string remote = numericHost(ci->client_addr);
        if (!remote.empty()) candidates.push_back({CMP_IPP_IF_HDR_REMOTE_ADDR, remote});
        const std::string zone = clientZone(ci->client_addr);
        if (!zone.empty()) candidates.push_back({CMP_IPP_IF_HDR_CLIENT_ZONE, zone});
    }
    if (!conn->localKnown) {
        const union MHD_ConnectionInfo* fdi = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CONNECTION_FD);
        struct sockaddr_storage local;
        socklen_t len = sizeof local;
        if (fdi != nullptr && getsockname(fdi->connect_fd, reinterpret_cast<struct sockaddr*>(&local), &len) == 0) {
            conn->localAddress = numericHost(reinterpret_cast<struct sockaddr*>(&local));
            conn->localKnown = true;
        }
    }
    if (!conn->localAddress.empty()) candidates.push_back({CMP_IPP_IF_HDR_LOCAL_ADDR, conn->localAddress});
    req.headers = selectHeaders(candidates);
    return req;
}

MHD_Result cmp_ipp_frontend::Impl::begin(struct MHD_Connection* c, ConnectionState* conn, RequestState* st,
                                         const char* url, const char* method, const char* version) {
    const bool get = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0;
    st->post = std::strcmp(method, MHD_HTTP_METHOD_POST) == 0;
    if (!get && !st->post) return queueText(c, MHD_HTTP_METHOD_NOT_ALLOWED, "Method Not Allowed\n");
    // The icons are static: answered here, the library never sees them.
    if (const IconFile* icon = iconFor(url))
        return get ? queueIcon(c, *icon) : queueText(c, MHD_HTTP_METHOD_NOT_ALLOWED, "Method Not Allowed\n", "GET");
    if (!servedPath(url, get)) {
        if (servedPath(url, true)) return queueText(c, MHD_HTTP_METHOD_NOT_ALLOWED, "Method Not Allowed\n", "GET");
        return queueText(c, MHD_HTTP_NOT_FOUND, "Not Found\n");
    }

    if (st->post && !isIppContentType(MHD_lookup_connection_value(c, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_TYPE)))
        return queueText(c, MHD_HTTP_BAD_REQUEST, "Bad Request: the content type must be application/ipp\n");

    const char* connHeader = MHD_lookup_connection_value(c, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONNECTION);
    st->keepAlive = std::strcmp(version, MHD_HTTP_VERSION_1_1) == 0 && !containsToken(connHeader, "close");
    st->url = url;

    if (st->post && opts.auth) {
        const char* credentials = MHD_lookup_connection_value(c, MHD_HEADER_KIND, MHD_HTTP_HEADER_AUTHORIZATION);
        if (credentials == nullptr) {
            // Queries need no user: the operation decides, once the body shows it.
            st->awaitingOperation = true;
            return MHD_YES;
        }
        if (!conn->secure && !conn->local) return queueAuthFailure(c, MHD_HTTP_FORBIDDEN, challenge);
        std::string user, password;
        const bool good = parseBasicCredentials(credentials, &user, &password) && opts.auth->check(user, password);
        std::fill(password.begin(), password.end(), '\0');
        if (!good) return queueAuthFailure(c, MHD_HTTP_UNAUTHORIZED, challenge);
        st->user = user;
    }
    const unsigned failed = startRelay(c, conn, st);
    return failed == 0 ? MHD_YES : queueText(c, failed, st->failText);
}

unsigned cmp_ipp_frontend::Impl::startRelay(struct MHD_Connection* c, ConnectionState* conn, RequestState* st) {
    const RelayRequest req = buildRequest(c, conn, st->url.c_str(), st->post, st->keepAlive, st->user);
    RelayConnection& relay = conn->relay;
    const bool reused = relay.isOpen() && relay.reusable(opts.relayReuseMs);
    if (!reused) relay.close();
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!relay.isOpen()) {
            const RelayConnection::Outcome o = relay.connectTo(socketPath);
            if (o == RelayConnection::Outcome::Untrusted) {
                reportUntrusted(relay.untrustedUid());
                st->failText = "IPP service not trusted\n";
                return MHD_HTTP_SERVICE_UNAVAILABLE;
            }
            if (o != RelayConnection::Outcome::Ok) {
                st->failText = "IPP service not reachable\n";
                return MHD_HTTP_SERVICE_UNAVAILABLE;
            }
        }
        if (relay.sendRequest(req)) {
            st->inFlight = true;
            return 0;
        }
        // Nothing of this request has gone yet: a kept connection that the library
        // closed meanwhile is replaced once.
        relay.close();
        if (!reused) break;
    }
    st->failText = "IPP service failed\n";
    return MHD_HTTP_BAD_GATEWAY;
}

void cmp_ipp_frontend::Impl::decideOperation(struct MHD_Connection* c, ConnectionState* conn, RequestState* st) {
    st->awaitingOperation = false;
    std::string held;
    held.swap(st->held);
    // Version (2 bytes), then operation-id. A body too short to hold one goes
    // on: the library refuses it as the bad request it is.
    if (held.size() >= 4) {
        const uint16_t op = static_cast<uint16_t>((static_cast<unsigned char>(held[2]) << 8) |
                                                  static_cast<unsigned char>(held[3]));
        if (operationNeedsAuthentication(op)) {
            // Answered once the upload is in (the rest of it is dropped).
            st->done = true;
            st->failStatus = conn->secure || conn->local ? MHD_HTTP_UNAUTHORIZED : MHD_HTTP_FORBIDDEN;
            return;
        }
    }
    const unsigned failed = startRelay(c, conn, st);
    if (failed != 0) {
        st->done = true;
        st->failStatus = failed;
        return;
    }
    if (!held.empty()) relayBody(c, conn, st, reinterpret_cast<const unsigned char*>(held.data()), held.size());
}

void cmp_ipp_frontend::Impl::takeEarlyReply(ConnectionState* conn, RequestState* st) {
    if (!conn->relay.readReply(st->reply, kEarlyReplyWaitMs)) st->failStatus = MHD_HTTP_BAD_GATEWAY;
    // The library stopped reading this body: what is left of it must never be
    // taken for the next request.
    conn->relay.close();
    st->inFlight = false;
    st->done = true;
}

void cmp_ipp_frontend::Impl::relayBody(struct MHD_Connection* c, ConnectionState* conn, RequestState* st,
                                       const unsigned char* data, size_t length) {
    if (st->done || !st->post) return;  // a GET's body means nothing to the library
    if (st->awaitingOperation) {
        st->held.append(reinterpret_cast<const char*>(data), length);
        if (st->held.size() >= 4) decideOperation(c, conn, st);
        return;
    }
    if (conn->relay.replyWaiting() || !conn->relay.addBody(data, length)) takeEarlyReply(conn, st);
}

void cmp_ipp_frontend::Impl::finish(struct MHD_Connection* c, ConnectionState* conn, RequestState* st) {
    if (st->awaitingOperation) decideOperation(c, conn, st);
    if (st->done) return;
    RelayConnection& relay = conn->relay;
    if (st->post && (relay.replyWaiting() || !relay.endBody())) {
        takeEarlyReply(conn, st);
        return;
    }
    st->done = true;
    st->inFlight = false;
    if (!relay.readReply(st->reply, opts.relayTimeoutMs)) {
        st->failStatus = MHD_HTTP_BAD_GATEWAY;
        relay.close();
        return;
    }
    const bool libraryKeeps = st->reply.connection == 2 && (st->reply.status == 0 || st->reply.status == -1975);
    if (!st->keepAlive || !libraryKeeps) relay.close();
}

MHD_Result cmp_ipp_frontend::Impl::respond(struct MHD_Connection* c, RequestState* st) {
    if (st->failStatus == MHD_HTTP_UNAUTHORIZED || st->failStatus == MHD_HTTP_FORBIDDEN)
        return queueAuthFailure(c, st->failStatus, challenge);
    if (st->failStatus != 0) return queueText(c, st->failStatus, st->failText);
    const RelayReply& reply = st->reply;
    const unsigned status = httpStatusFor(reply.status);

    struct MHD_Response* r = nullptr;
    if (reply.bodyLength > 0) {
        r = MHD_create_response_from_buffer(reply.bodyLength, st->reply.body.get(), MHD_RESPMEM_MUST_FREE);
        if (r != nullptr) (void)st->reply.body.release();
    } else if (status >= 400) {
        // The library sends no text for some codes (IPP disabled): say what happened.
        const char* phrase = MHD_get_reason_phrase_for(status);
        std::string text = std::string(phrase != nullptr ? phrase : "Error") + "\n";
        r = MHD_create_response_from_buffer(text.size(), &text[0], MHD_RESPMEM_MUST_COPY);
    } else {
        r = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
    }
    if (r == nullptr) return MHD_NO;

    bool haveType = false, haveChallenge = false;
    for (const RelayHeader& h : reply.headers) {
        const char* name = replyHeaderName(h.token);
        if (name == nullptr || h.value.empty()) continue;
        if (MHD_add_response_header(r, name, h.value.c_str()) != MHD_YES) continue;
        haveType = haveType || h.token == CMP_IPP_IF_HDR_CONTENT_TYPE;
        haveChallenge = haveChallenge || h.token == CMP_IPP_IF_HDR_WWW_AUTHENTICATE;
    }
    if (!haveType) {
        const char* type = status != 200 ? "text/plain" : st->post ? "application/ipp" : "text/html; charset=utf-8";
        MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, type);
    }
    // A 401 without a challenge leaves a client no way to authenticate.
    if (status == MHD_HTTP_UNAUTHORIZED && !haveChallenge)
        MHD_add_response_header(r, MHD_HTTP_HEADER_WWW_AUTHENTICATE,
                                opts.auth ? challenge.c_str() : "Basic realm=\"IPP\"");
    if (status == MHD_HTTP_METHOD_NOT_ALLOWED) MHD_add_response_header(r, MHD_HTTP_HEADER_ALLOW, kAllowed);
    const MHD_Result rc = MHD_queue_response(c, status, r);
    MHD_destroy_response(r);
    return rc;
}

MHD_Result cmp_ipp_frontend::Impl::onRequest(void* cls, struct MHD_Connection* c, const char* url,
                                             const char* method, const char* version, const char* upload,
                                             size_t* uploadSize, void** reqCls) {
    Impl* self = static_cast<Impl*>(cls);
    const union MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    ConnectionState* conn = info != nullptr ? static_cast<ConnectionState*>(info->socket_context) : nullptr;
    if (conn == nullptr) return MHD_NO;

    RequestState* st = static_cast<RequestState*>(*reqCls);
    if (st == nullptr) {
        // The first call comes once the headers are complete: the header
        // deadline is met, whatever the request takes from here.
        self->gate.headersComplete(conn->admissionId);
        st = new RequestState();
        *reqCls = st;  // released when the request completes, however it ends
        return self->begin(c, conn, st, url, method, version);
    }
    if (*uploadSize > 0) {
        self->relayBody(c, conn, st, reinterpret_cast<const unsigned char*>(upload), *uploadSize);
        *uploadSize = 0;
        return MHD_YES;
    }
    self->finish(c, conn, st);
    return self->respond(c, st);
}

void cmp_ipp_frontend::Impl::onCompleted(void* cls, struct MHD_Connection* c, void** reqCls,
                                         enum MHD_RequestTerminationCode) {
    Impl* self = static_cast<Impl*>(cls);
    RequestState* st = static_cast<RequestState*>(*reqCls);
    *reqCls = nullptr;
    const union MHD_ConnectionInfo* info = MHD_get_connection_info(c, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    ConnectionState* conn = info != nullptr ? static_cast<ConnectionState*>(info->socket_context) : nullptr;
    // From here the connection waits for its next request's headers.
    if (conn != nullptr) self->gate.requestDone(conn->admissionId);
    if (st == nullptr) return;
    // The client went away mid-request (or its upload stalled): the library is
    // still waiting for this body. Closing the Unix connection without the end
    // block tells it the upload was abandoned, and it aborts the job.
    if (st->inFlight && conn != nullptr) conn->relay.close();
    delete st;
}

void cmp_ipp_frontend::Impl::onConnection(void* cls, struct MHD_Connection* c, void** socketCtx,
                                          enum MHD_ConnectionNotificationCode toe) {
    Impl* self = static_cast<Impl*>(cls);
    if (toe == MHD_CONNECTION_NOTIFY_STARTED) {
        const union MHD_ConnectionInfo* fd = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CONNECTION_FD);
        const uint64_t id = fd != nullptr ? self->gate.attach(fd->connect_fd) : 0;
        ConnectionState* conn = new ConnectionState(self->opts.relayTimeoutMs, &self->stopping,
                                                      self->opts.connectRetryMs, &self->trust, id);
        const union MHD_ConnectionInfo* di = MHD_get_connection_info(c, MHD_CONNECTION_INFO_DAEMON);
        // Not tlsDaemon: the gate may be starting that one at this moment.
        conn->secure = di != nullptr && di->daemon != nullptr && di->daemon != self->daemon;
        const union MHD_ConnectionInfo* ci = MHD_get_connection_info(c, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
        conn->local = ci != nullptr && isLoopback(ci->client_addr);
        *socketCtx = conn;
    } else {
        ConnectionState* conn = static_cast<ConnectionState*>(*socketCtx);
        if (conn != nullptr) self->gate.closed(conn->admissionId);
        delete conn;
        *socketCtx = nullptr;
    }
}

cmp_ipp_frontend::cmp_ipp_frontend(const Options& opts) : m_impl(new Impl(opts)) {}

cmp_ipp_frontend::~cmp_ipp_frontend() { stop(); }

bool cmp_ipp_frontend::open(std::string* error) {
    Impl& d = *m_impl;
    return d.gate.open(d.opts.bindAddress, d.opts.port, error);
}

struct MHD_Daemon* cmp_ipp_frontend::Impl::startDaemon(bool tls) {
    // No listening socket of its own: the gate accepts and hands admitted
    // sockets over. Its own limit is above ours, so that connections on their
    // way out (cut by the watchdog, not yet cleaned up) never make it refuse one
    // that the gate admitted.
    const unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL |
                           MHD_USE_ERROR_LOG | MHD_USE_NO_LISTEN_SOCKET | MHD_USE_ITC | (tls ? MHD_USE_TLS : 0);
    const unsigned limit = 2 * opts.connectionLimit + 16;
    if (!tls) {
        return MHD_start_daemon(flags, 0, nullptr, nullptr, &Impl::onRequest, this, MHD_OPTION_CONNECTION_LIMIT, limit,
                                MHD_OPTION_CONNECTION_TIMEOUT, opts.stallTimeoutSeconds, MHD_OPTION_NOTIFY_COMPLETED,
                                &Impl::onCompleted, this, MHD_OPTION_NOTIFY_CONNECTION, &Impl::onConnection, this,
                                MHD_OPTION_END);
    }
    return MHD_start_daemon(flags, 0, nullptr, nullptr, &Impl::onRequest, this, MHD_OPTION_CONNECTION_LIMIT, limit,
                            MHD_OPTION_CONNECTION_TIMEOUT, opts.stallTimeoutSeconds, MHD_OPTION_NOTIFY_COMPLETED,
                            &Impl::onCompleted, this, MHD_OPTION_NOTIFY_CONNECTION, &Impl::onConnection, this,
                            MHD_OPTION_HTTPS_MEM_KEY, opts.tlsKeyPem.c_str(), MHD_OPTION_HTTPS_MEM_CERT,
                            opts.tlsCertificatePem.c_str(), MHD_OPTION_HTTPS_PRIORITIES, kTlsPriorities,
                            MHD_OPTION_END);
}

bool cmp_ipp_frontend::Impl::handOverTls(int fd, const struct sockaddr* addr, socklen_t length) {
    if (!tlsTried) {
        tlsTried = true;
        std::string why;
        if (!tlsIdentityUsable(TlsIdentity{opts.tlsCertificatePem, opts.tlsKeyPem}, &why)) {
            log("TLS is off: " + why);
        } else if ((tlsDaemon = startDaemon(true)) == nullptr) {
            log("TLS is off: cannot start the HTTPS server");
        }
    }
    if (tlsDaemon == nullptr) {
        ::close(fd);  // as MHD_add_connection does when it fails
        return false;
    }
    return MHD_add_connection(tlsDaemon, fd, addr, length) == MHD_YES;
}

bool cmp_ipp_frontend::start(std::string* error) {
    Impl& d = *m_impl;
    if (d.started) return true;
    const bool tls = !d.opts.tlsCertificatePem.empty() && !d.opts.tlsKeyPem.empty();
    if (!tls && !d.opts.plainHttp) {
        if (error != nullptr) *error = "plain HTTP is off, and there is no TLS certificate";
        return false;
    }
    if (!open(error)) return false;
    d.stopping = false;
    if (d.opts.plainHttp) d.daemon = d.startDaemon(false);
    if (d.opts.plainHttp && d.daemon == nullptr) {
        if (error != nullptr) *error = "cannot start the HTTP server";
        stop();
        return false;
    }
    const auto handOverTo = [](struct MHD_Daemon* daemon) -> ConnectionGate::HandOver {
        if (daemon == nullptr) return nullptr;
        return [daemon](int fd, const struct sockaddr* addr, socklen_t length) {
            return MHD_add_connection(daemon, fd, addr, length) == MHD_YES;
        };
    };
    Impl* self = &d;
    const bool started = tls ? d.gate.start(handOverTo(d.daemon),
                                            [self](int fd, const struct sockaddr* addr, socklen_t length) {
                                                return self->handOverTls(fd, addr, length);
                                            },
                                            error)
                             : d.gate.start(handOverTo(d.daemon), error);
    if (!started) {
        stop();
        return false;
    }
    d.started = true;
    return true;
}

void cmp_ipp_frontend::stop() {
    Impl& d = *m_impl;
    d.stopping = true;  // relay waits end within one slice
    d.gate.stopAccepting();
    if (d.daemon != nullptr) MHD_stop_daemon(d.daemon);
    if (d.tlsDaemon != nullptr) MHD_stop_daemon(d.tlsDaemon);
    d.daemon = nullptr;
    d.tlsDaemon = nullptr;
    d.tlsTried = false;
    d.started = false;
    d.gate.release();
}

bool cmp_ipp_frontend::tls() const {
    return m_impl->started && !m_impl->opts.tlsCertificatePem.empty() && !m_impl->opts.tlsKeyPem.empty();
}

uint16_t cmp_ipp_frontend::port() const { return m_impl->gate.port(); }

const std::string& cmp_ipp_frontend::socketPath() const { return m_impl->socketPath; }
