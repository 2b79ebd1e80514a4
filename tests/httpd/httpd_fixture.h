// Shared pieces of the HTTP server tests: a front-end client (the front end's
// relay connection, with a raw path for malformed input), a configurable
// handler, and a fixture that runs the real listener on a socket path of its own.
#ifndef TESTS_HTTPD_HTTPD_FIXTURE_H
#define TESTS_HTTPD_HTTPD_FIXTURE_H

#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "apps/temp_dir.h"
#include "cmp_ipp_relay.h"
#include "msg/msg_fixture.h"
#include "httpd/cmp_ipp_httpd.h"
#include "platform/emw_osw_test.h"
#include "service/cmp_ipp_facade.h"
#include "service/cmp_ipp_handler.h"
#include "service/cmp_ipp_ippc.h"
#include "service/cmp_ipp_manager.h"

using Clock = std::chrono::steady_clock;

inline int64_t msSince(Clock::time_point t) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

// Polls f every 5 ms until it holds or the time is up.
template <class F>
bool settles(F f, int timeoutMs) {
    const auto start = Clock::now();
    while (!f()) {
        if (msSince(start) > timeoutMs) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

using cmp_ipp_fe::RelayHeader;
using cmp_ipp_fe::RelayRequest;

// Request records as the front end fills them.
inline RelayRequest getRequest(int32_t mode = AHTTPD_CONN_CLOSE) {
    RelayRequest r;
    r.method = AHTTPD_METHOD_GET;
    r.connection = mode;
    return r;
}
inline RelayRequest postRequest(int32_t contentLength, int32_t mode = AHTTPD_CONN_CLOSE) {
    RelayRequest r;
    r.method = AHTTPD_METHOD_POST;
    r.connection = mode;
    r.contentLength = contentLength;
    return r;
}

// The record's bytes, for a test that sends them in pieces or cut short.
inline Bytes recordBytes(const RelayRequest& r) {
    Bytes record(AHTTPD_REQ_BLOCK_SIZE);
    cmp_ipp_fe::encodeRequestRecord(r, record.data());
    return record;
}

struct Reply {
    bool ok = false;  // a whole reply record (and its body) arrived
    int32_t status = 0;
    int32_t connection = 0;
    int32_t contentLength = 0;
    std::vector<RelayHeader> headers;
    std::string body;
};

// One front-end connection. Well-formed requests go through the front end's
// own relay connection; the raw* calls write on its socket what a front end
// never sends (records cut short, bad lengths, bodies that stop, blocks cut
// where a test wants them) and read the reply that follows. Every wait is
// bounded, so a broken server fails a test instead of hanging it.
class Client {
public:
    explicit Client(const std::string& path, int connectRetryMs = 5000) : m_relay(10000, nullptr, connectRetryMs) {
        (void)m_relay.connectTo(path);
    }

    bool connected() const { return m_relay.isOpen(); }
    int fd() const { return m_relay.fd(); }
    void closeNow() { m_relay.close(); }

    bool sendRequest(const RelayRequest& r) { return m_relay.sendRequest(r); }
    bool sendBody(const Bytes& b) { return m_relay.addBody(b.data(), b.size()); }
    bool endBody() { return m_relay.endBody(); }
    Reply readReply(int timeoutMs = 10000) {
        Reply r;
        cmp_ipp_fe::RelayReply in;
        if (!m_relay.readReply(in, timeoutMs)) return r;
        r.ok = true;
        r.status = in.status;
        r.connection = in.connection;
        r.contentLength = static_cast<int32_t>(in.bodyLength);
        r.headers = std::move(in.headers);
        r.body.assign(reinterpret_cast<const char*>(in.body.get()), in.bodyLength);
        return r;
    }

    // The socket does not block: a full send buffer is waited out, bounded.
    bool rawBytes(const void* data, size_t n) {
        const unsigned char* p = static_cast<const unsigned char*>(data);
        const auto start = Clock::now();
        while (n > 0) {
            const ssize_t k = send(fd(), p, n, MSG_NOSIGNAL);
            if (k > 0) {
                p += k;
                n -= static_cast<size_t>(k);
                continue;
            }
            if (k == 0 || (errno != EAGAIN && errno != EINTR) || msSince(start) > 10000) return false;
            struct pollfd pf = {fd(), POLLOUT, 0};
            (void)poll(&pf, 1, 20);
        }
        return true;
    }
    bool rawBytes(const Bytes& b) { return rawBytes(b.data(), b.size()); }
    // A body block: its length word, then its bytes; no bytes make the end block.
    bool rawBlock(const Bytes& b) {
        const int32_t n = static_cast<int32_t>(b.size());
        return rawBytes(&n, sizeof n) && rawBytes(b);
    }
    // An IPP POST's record (chunked, or with its length) and its first block.
    bool rawPost(const Bytes& first, int32_t contentLength, bool chunked = false) {
        RelayRequest r = postRequest(contentLength);
        r.chunked = chunked;
        return rawBytes(recordBytes(r)) && rawBlock(first);
    }

    // Reads exactly n bytes; false on close, error or time-out.
    bool readExact(void* dest, size_t n, int timeoutMs) {
        unsigned char* p = static_cast<unsigned char*>(dest);
        const auto start = Clock::now();
        while (n > 0) {
            const int64_t left = timeoutMs - msSince(start);
            if (left <= 0) return false;
            struct pollfd pf = {fd(), POLLIN, 0};
            if (poll(&pf, 1, static_cast<int>(left)) <= 0) continue;
            const ssize_t k = recv(fd(), p, n, MSG_DONTWAIT);
            if (k < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (k <= 0) return false;
            p += k;
            n -= static_cast<size_t>(k);
        }
        return true;
    }
    // The reply to what went raw, read straight off the socket.
    Reply rawReply(int timeoutMs = 10000) {
        Reply r;
        Bytes record(AHTTPD_RSP_RECORD_SIZE);
        if (!readExact(record.data(), record.size(), timeoutMs)) return r;
        cmp_ipp_fe::RelayReply in;
        cmp_ipp_fe::decodeReplyRecord(record.data(), in);
        r.status = in.status;
        r.connection = in.connection;
        std::memcpy(&r.contentLength, record.data() + offsetof(ahttpdRspObj, contentLength), sizeof r.contentLength);
        r.headers = std::move(in.headers);
        if (r.contentLength > 0) {
            r.body.resize(static_cast<size_t>(r.contentLength));
            if (!readExact(&r.body[0], r.body.size(), timeoutMs)) return r;
        }
        r.ok = true;
        return r;
    }

    // True when the server closes the connection within the time (EOF or reset).
    bool closedByPeer(int timeoutMs) {
        const auto start = Clock::now();
        while (msSince(start) < timeoutMs) {
            struct pollfd pf = {fd(), POLLIN, 0};
            if (poll(&pf, 1, 20) <= 0) continue;
            unsigned char b;
            const ssize_t k = recv(fd(), &b, 1, MSG_DONTWAIT);
            if (k == 0 || (k < 0 && errno != EAGAIN && errno != EINTR)) return true;
        }
        return false;
    }

private:
    cmp_ipp_fe::RelayConnection m_relay;
};

// A handler whose answers the tests configure. Called concurrently by connection tasks.
class HttpTestHandler : public cmp_ipp_handler {
public:
    void processRequest(cmp_ipp_streamed_ctx* ctx, void*) override {
        ++processed;
        const int code = replyCode.load();
        if (code >= 0) ctx->m_request.cmp_ipp_msg_set_if_reply_code(static_cast<CMP_IPP_IF_RETURN_CODES>(code));
        const int token = setHeaderToken.load();
        if (token >= 0) {
            std::string v = setHeaderText;
            ctx->m_request.cmp_ipp_msg_set_if_data(static_cast<CMP_IPP_IF_HEADER_FC_FIELD_TOKENS>(token),
                                                   reinterpret_cast<unsigned char*>(&v[0]));
        }
        if (readHeaderToken >= 0) {
            std::vector<unsigned char> buf(AHTTPD_FIELD_TEXT_SIZE, 0);
            if (ctx->m_request.cmp_ipp_msg_get_if_data(static_cast<CMP_IPP_IF_HEADER_FC_FIELD_TOKENS>(readHeaderToken),
                                                       buf.data())) {
                std::lock_guard<std::mutex> g(lock);
                headerSeen = reinterpret_cast<const char*>(buf.data());
            }
        }
    }
    void abortRequest(cmp_ipp_streamed_ctx*, void*) override { ++aborted; }
    void prepareRequest(cmp_ipp_streamed_ctx* ctx, void*) override {
        ++prepared;
        lastOperation = ctx->m_request.m_operationId;
    }
    uint32_t streamData(cmp_ipp_streamed_ctx*, const cmp_ipp_buf& data, void*) override {
        const int n = ++dataCalls;
        dataBytes += data.length();
        if (data.length() != expectBlockSize && expectBlockSize != 0) ++oddBlocks;
        return (refuseFromCall > 0 && n >= refuseFromCall) ? 6u : 0u;
    }
    cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t fmt, void*) override {
        ++finished;
        while (holdFinish.load()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        if (fmt == cmp_ipp_manager::CMP_IPP_REPLY_FMT_HTML) {
            if (htmlBytes > 0) return cmp_ipp_buf(std::string(htmlBytes.load(), 'h').c_str(), true);
            return cmp_ipp_buf(kPage, true);
        }
        if (emptyReply) return cmp_ipp_buf(true);
        return ctx->m_response.cmp_ipp_msg_encode();
    }

    static constexpr const char* kPage = "<html><body>printer page</body></html>";

    std::atomic<int> prepared{0}, processed{0}, aborted{0}, finished{0}, dataCalls{0}, oddBlocks{0};
    std::atomic<uint64_t> dataBytes{0};
    std::atomic<int> lastOperation{-1};
    std::atomic<bool> holdFinish{false};
    // Changed between requests while the server runs.
    std::atomic<int> replyCode{-1};
    std::atomic<int> setHeaderToken{-1};
    std::atomic<bool> emptyReply{false};
    std::atomic<size_t> htmlBytes{0};
    // Set before the server runs.
    int refuseFromCall = 0;
    uint32_t expectBlockSize = 0;
    std::string setHeaderText;
    int readHeaderToken = -1;
    std::mutex lock;
    std::string headerSeen;
};

// IPP request bytes with the usual operation attributes.
inline Bytes ippRequest(uint16_t op, uint32_t id) {
    Ipp m;
    m.header(1, 1, op, id).opGroup().tag(3);
    return m.b;
}

inline uint32_t be32At(const std::string& s, size_t at) {
    uint32_t v = 0;
    for (size_t i = at; i < at + 4; ++i) v = v << 8 | static_cast<unsigned char>(s[i]);
    return v;
}

// One IPP POST as the front end relays it: record, one block and the end block.
inline bool sendIpp(Client& c, const Bytes& ipp, int32_t mode = AHTTPD_CONN_CLOSE) {
    return c.sendRequest(postRequest(static_cast<int32_t>(ipp.size()), mode)) && c.sendBody(ipp) && c.endBody();
}

inline void expectIppReply(const Reply& r, uint32_t requestId) {
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.status, 0);
    ASSERT_GE(r.body.size(), 9u);
    EXPECT_EQ(r.body[0], 1);
    EXPECT_EQ(r.body[1], 1);
    EXPECT_EQ(be32At(r.body, 4), requestId) << "request id echoed";
}

// Runs the real service (facade start: IPP side and listener) on a socket path of
// its own; stops it afterwards and checks that nothing was left behind.
class HttpdServer : public ::testing::Test {
protected:
    void SetUp() override {
        m_dir = makeTempDir("cmp_ipp_httpd");
        ASSERT_FALSE(m_dir.empty());
        setenv("GEN_UNIX_PATH", (m_dir + "/").c_str(), 1);
        m_path = m_dir + "/zyn_ipp_server";
        AHTTPD_setReceiveTimeout(5);
        AHTTPD_setKeepAlivePasses(200);
        m_savedHandler = cmp_ipp_manager::get()->m_handler;
        m_baselineBlocks = emwOSWTestOutstandingBlocks();
    }
    void TearDown() override {
        stop();
        // The stop returns once the listener or the last connection is gone; tasks
        // cut short by it end moments later.
        EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 3000));
        EXPECT_TRUE(settles([&] { return emwOSWTestOutstandingBlocks() == m_baselineBlocks; }, 3000))
            << "blocks still outstanding: " << emwOSWTestOutstandingBlocks() - m_baselineBlocks;
        pn_ipp_stop(0, nullptr);
        // A task cut short by the stop may still be ending: the handler goes away
        // only once the manager no longer calls it.
        cmp_ipp_manager* m = cmp_ipp_manager::get();
        m->unregisterHandler(m->m_handler.load());
        if (m_savedHandler != nullptr) IPP_Initialize(nullptr, m_savedHandler);
        AHTTPD_setReceiveTimeout(30);
        AHTTPD_setKeepAlivePasses(200);
        unsetenv("GEN_UNIX_PATH");
        removeDir(m_dir);
    }

    // Starts the whole service and waits until the socket accepts connections.
    void start() { start(&printer.printer, &handler); }
    void start(void* printerObject, cmp_ipp_handler* h) {
        ASSERT_EQ(cmp_ipp_init_wrap(printerObject, h), 0);
        m_running = true;
        ASSERT_TRUE(settles([&] { return access(m_path.c_str(), F_OK) == 0; }, 5000)) << "no socket file";
    }
    void stop() {
        if (!m_running) return;
        EXPECT_EQ(orvane::cmp_ipp_facade::cmp_ipp_get_instance()->cmp_ipp_term(), 0);
        m_running = false;
        // With no connection open the stop need not wait for the listener, which
        // removes its socket file as it leaves.
        EXPECT_TRUE(settles([&] { return access(m_path.c_str(), F_OK) != 0; }, 3000))
            << "the stop leaves no socket file behind";
    }

    // The body of the reply to a GET on a connection of its own.
    std::string fetchPage() {
        Client c(m_path);
        return c.sendRequest(getRequest()) ? c.readReply().body : "(not sent)";
    }

    ScopedRegistry reg{messageTables()};
    ScopedPrinter printer;
    HttpTestHandler handler;
    std::string m_dir;
    std::string m_path;
    bool m_running = false;

private:
    cmp_ipp_handler* m_savedHandler = nullptr;
    int32_t m_baselineBlocks = 0;
};

#endif
