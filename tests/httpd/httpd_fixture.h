// Shared pieces of the HTTP server tests: a front-end client that speaks the
// request-block / body-block / reply-record protocol over the Unix-domain socket,
// a configurable handler, and a fixture that runs the real listener on a socket
// path of its own.
#ifndef TESTS_HTTPD_HTTPD_FIXTURE_H
#define TESTS_HTTPD_HTTPD_FIXTURE_H

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// Scales loop counts down for slow runs (CMP_IPP_TEST_SCALE=0.25 under an emulator).
inline int scaled(int n) {
    const char* s = getenv("CMP_IPP_TEST_SCALE");
    double f = s != nullptr ? atof(s) : 1.0;
    if (f <= 0.0 || f > 1.0) f = 1.0;
    const int v = static_cast<int>(n * f);
    return v < 1 ? 1 : v;
}

// A request block as the front end sends it.
struct RequestBlock {
    int32_t method = AHTTPD_METHOD_GET;
    int32_t keepAliveLevel = 0;
    int32_t connection = AHTTPD_CONN_CLOSE;
    int32_t contentLength = 0;
    int32_t chunked = 0;
    std::vector<std::pair<int32_t, std::string>> headers;

    static RequestBlock get(int32_t mode = AHTTPD_CONN_CLOSE) {
        RequestBlock r;
        r.connection = mode;
        return r;
    }
    static RequestBlock post(int32_t contentLength, int32_t mode = AHTTPD_CONN_CLOSE) {
        RequestBlock r;
        r.method = AHTTPD_METHOD_POST;
        r.connection = mode;
        r.contentLength = contentLength;
        return r;
    }

    Bytes bytes() const {
        std::unique_ptr<ahttpdReqObj> r(new ahttpdReqObj());
        std::memset(static_cast<void*>(r.get()), 0, sizeof *r);
        r->method = method;
        r->keepAliveLevel = keepAliveLevel;
        r->connection = connection;
        r->contentLength = contentLength;
        r->chunked = chunked;
        r->numHeaders = static_cast<int16_t>(headers.size());
        for (size_t i = 0; i < headers.size() && i < 15; ++i) {
            r->headers[i].token = headers[i].first;
            std::strncpy(r->headers[i].value, headers[i].second.c_str(), AHTTPD_FIELD_TEXT_SIZE - 1);
        }
        const unsigned char* p = reinterpret_cast<const unsigned char*>(r.get());
        return Bytes(p, p + AHTTPD_REQ_BLOCK_SIZE);
    }
};

struct Reply {
    bool ok = false;  // a whole reply record (and its body) arrived
    int32_t status = 0;
    int32_t connection = 0;
    int32_t contentLength = 0;
    std::vector<std::pair<int32_t, std::string>> headers;
    std::string body;
};

// One front-end connection. Every wait is bounded, so a broken server fails a
// test instead of hanging it.
class Client {
public:
    explicit Client(const std::string& path, int connectTimeoutMs = 5000) {
        const auto start = Clock::now();
        while (msSince(start) < connectTimeoutMs) {
            fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
            struct sockaddr_un a;
            std::memset(&a, 0, sizeof a);
            a.sun_family = AF_UNIX;
            std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
            if (connect(fd_, reinterpret_cast<struct sockaddr*>(&a), sizeof a) == 0) return;
            close(fd_);
            fd_ = -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    ~Client() { closeNow(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    void closeNow() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

    bool sendRaw(const void* data, size_t n) {
        const unsigned char* p = static_cast<const unsigned char*>(data);
        while (n > 0) {
            const ssize_t k = send(fd_, p, n, MSG_NOSIGNAL);
            if (k <= 0) return false;
            p += k;
            n -= static_cast<size_t>(k);
        }
        return true;
    }
    bool sendRaw(const Bytes& b) { return sendRaw(b.data(), b.size()); }
    bool sendRequest(const RequestBlock& r) { return sendRaw(r.bytes()); }
    bool sendBlock(const unsigned char* data, int32_t n) {
        return sendRaw(&n, sizeof n) && (n <= 0 || sendRaw(data, static_cast<size_t>(n)));
    }
    bool sendBlock(const Bytes& b) { return sendBlock(b.data(), static_cast<int32_t>(b.size())); }
    bool sendEnd() { return sendBlock(nullptr, 0); }

    // Reads exactly n bytes; false on close, error or time-out.
    bool readExact(void* dest, size_t n, int timeoutMs) {
        unsigned char* p = static_cast<unsigned char*>(dest);
        const auto start = Clock::now();
        while (n > 0) {
            const int64_t left = timeoutMs - msSince(start);
            if (left <= 0) return false;
            struct pollfd pf = {fd_, POLLIN, 0};
            if (poll(&pf, 1, static_cast<int>(left)) <= 0) continue;
            const ssize_t k = recv(fd_, p, n, 0);
            if (k <= 0) return false;
            p += k;
            n -= static_cast<size_t>(k);
        }
        return true;
    }

    Reply readReply(int timeoutMs = 10000) {
        Reply r;
        std::vector<unsigned char> rec(AHTTPD_RSP_RECORD_SIZE);
        if (!readExact(rec.data(), rec.size(), timeoutMs)) return r;
        std::unique_ptr<ahttpdRspObj> o(new ahttpdRspObj());
        std::memcpy(static_cast<void*>(o.get()), rec.data(), rec.size());
        r.status = o->status;
        r.connection = o->connection;
        r.contentLength = o->contentLength;
        for (int i = 0; i < o->numHeaders && i < 15; ++i)
            r.headers.emplace_back(o->headers[i].token, std::string(o->headers[i].value));
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
            struct pollfd pf = {fd_, POLLIN, 0};
            if (poll(&pf, 1, 20) <= 0) continue;
            unsigned char b;
            const ssize_t k = recv(fd_, &b, 1, MSG_DONTWAIT);
            if (k == 0 || (k < 0 && errno != EAGAIN && errno != EINTR)) return true;
        }
        return false;
    }

private:
    int fd_ = -1;
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

// One IPP POST in a single block plus the end block.
inline bool sendIpp(Client& c, const Bytes& ipp, int32_t mode = AHTTPD_CONN_CLOSE) {
    return c.sendRequest(RequestBlock::post(static_cast<int32_t>(ipp.size()), mode)) && c.sendBlock(ipp) &&
           c.sendEnd();
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
        char dir[] = "/tmp/cmp_ipp_httpd_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        setenv("GEN_UNIX_PATH", (dir_ + "/").c_str(), 1);
        path_ = dir_ + "/zyn_ipp_server";
        AHTTPD_setReceiveTimeout(5);
        AHTTPD_setKeepAlivePasses(200);
        savedHandler_ = cmp_ipp_manager::get()->m_handler;
        baselineBlocks_ = emwOSWTestOutstandingBlocks();
    }
    void TearDown() override {
        stop();
        // The stop returns once the listener or the last connection is gone; tasks
        // cut short by it end moments later.
        EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 3000));
        EXPECT_TRUE(settles([&] { return emwOSWTestOutstandingBlocks() == baselineBlocks_; }, 3000))
            << "blocks still outstanding: " << emwOSWTestOutstandingBlocks() - baselineBlocks_;
        pn_ipp_stop(0, nullptr);
        // A task cut short by the stop may still be ending: the handler goes away
        // only once the manager no longer calls it.
        cmp_ipp_manager* m = cmp_ipp_manager::get();
        m->unregisterHandler(m->m_handler.load());
        if (savedHandler_ != nullptr) IPP_Initialize(nullptr, savedHandler_);
        AHTTPD_setReceiveTimeout(30);
        AHTTPD_setKeepAlivePasses(200);
        unsetenv("GEN_UNIX_PATH");
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }

    // Starts the whole service and waits until the socket accepts connections.
    void start() {
        ASSERT_EQ(cmp_ipp_init_wrap(&printer.printer, &handler), 0);
        running_ = true;
        ASSERT_TRUE(settles([&] { return access(path_.c_str(), F_OK) == 0; }, 5000)) << "no socket file";
    }
    void stop() {
        if (!running_) return;
        EXPECT_EQ(orvane::cmp_ipp_facade::cmp_ipp_get_instance()->cmp_ipp_term(), 0);
        running_ = false;
        // With no connection open the stop need not wait for the listener, which
        // removes its socket file as it leaves.
        EXPECT_TRUE(settles([&] { return access(path_.c_str(), F_OK) != 0; }, 3000))
            << "the stop leaves no socket file behind";
    }

    ScopedRegistry reg{messageTables()};
    ScopedPrinter printer;
    HttpTestHandler handler;
    std::string dir_;
    std::string path_;
    bool running_ = false;

private:
    cmp_ipp_handler* savedHandler_ = nullptr;
    int32_t baselineBlocks_ = 0;
};

#endif
