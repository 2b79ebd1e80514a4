// The HTTP front end: its mapping tables, and end to end a plain TCP client
// speaking raw HTTP/1.1 to the front end, which relays to the real library
// listening on a socket path of its own.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <map>
#include <sstream>
#include <memory>

#include "cmp_ipp_frontend.h"
#include "cmp_ipp_relay.h"
#include "httpd/httpd_fixture.h"

namespace {

using namespace cmp_ipp_fe;

const int kPrintJob = 0x0002;
const int kGetJobs = 0x000A;

// ---- mapping tables --------------------------------------------------------------

TEST(FrontendMapping, ErrorStatusesAgreeWithTheLibraryTexts) {
    // Every code with a text names its HTTP status in the text itself (" 408 ...").
    for (int32_t code = -1976; code <= -1961; ++code) {
        const unsigned named = static_cast<unsigned>(atoi(szErrorMes[code + 1976]));
        EXPECT_EQ(httpStatusFor(code), named) << code << ":" << szErrorMes[code + 1976];
    }
    const std::pair<int32_t, unsigned> others[] = {
        {0, 200}, {PRS_PRT_HTTP_RET_IPP_DISABLED, 503}, {PRS_PRT_HTTP_RET_SERVICE_UNAVAILABLE, 503},
        {PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE, 502}, {PRS_PRT_HTTP_RET_REDIRECT, 302}, {-1, 500}, {12345, 500},
    };
    for (const auto& o : others) EXPECT_EQ(httpStatusFor(o.first), o.second) << o.first;
}

TEST(FrontendMapping, HeaderNamesBothWays) {
    EXPECT_EQ(requestHeaderToken("authorization"), CMP_IPP_IF_HDR_AUTHORIZATION);
    EXPECT_EQ(requestHeaderToken("HOST"), CMP_IPP_IF_HDR_HOST);
    EXPECT_EQ(requestHeaderToken("Content-Type"), CMP_IPP_IF_HDR_CONTENT_TYPE);
    EXPECT_EQ(requestHeaderToken("X-Unknown"), 0);
    EXPECT_EQ(requestHeaderToken("WWW-Authenticate"), 0) << "a reply header is not taken from a request";
    EXPECT_STREQ(replyHeaderName(CMP_IPP_IF_HDR_WWW_AUTHENTICATE), "WWW-Authenticate");
    EXPECT_STREQ(replyHeaderName(CMP_IPP_IF_HDR_LOCATION), "Location");
    // Framing and connection headers belong to the HTTP server, not to the reply record.
    for (const int32_t t : {int32_t{CMP_IPP_IF_HDR_CONTENT_LENGTH}, int32_t{CMP_IPP_IF_HDR_TRANSFER_ENCODING},
                            int32_t{CMP_IPP_IF_HDR_CONNECTION}, int32_t{33}})
        EXPECT_EQ(replyHeaderName(t), nullptr) << t;
}

TEST(FrontendMapping, SelectionKeepsCredentialsWhenTheRecordIsFull) {
    std::vector<relay_header> in;
    for (int32_t t = 2; t <= 19; ++t) in.push_back({t, "v" + std::to_string(t)});
    in.push_back({CMP_IPP_IF_HDR_HOST, "first"});
    in.push_back({CMP_IPP_IF_HDR_HOST, "second"});
    in.push_back({CMP_IPP_IF_HDR_COOKIE, std::string(AHTTPD_FIELD_TEXT_SIZE, 'c')});
    in.push_back({CMP_IPP_IF_HDR_AUTHORIZATION, "Basic dXNlcjpwYXNz"});
    const std::vector<relay_header> out = selectHeaders(in);
    ASSERT_EQ(out.size(), 15u);
    std::map<int32_t, std::string> byToken;
    for (const relay_header& h : out) EXPECT_TRUE(byToken.emplace(h.token, h.value).second) << "one field per token";
    EXPECT_EQ(byToken[CMP_IPP_IF_HDR_AUTHORIZATION], "Basic dXNlcjpwYXNz");
    EXPECT_EQ(byToken[CMP_IPP_IF_HDR_HOST], "first");
    EXPECT_EQ(byToken.count(CMP_IPP_IF_HDR_COOKIE), 0u) << "a value too long for a field is left out, not cut";
}

// ---- a raw HTTP/1.1 client ------------------------------------------------------------

struct HttpResponse {
    bool ok = false;
    int status = 0;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    std::string header(const std::string& name) const {
        auto it = headers.find(name);
        return it == headers.end() ? std::string() : it->second;
    }
};

class HttpClient {
public:
    explicit HttpClient(uint16_t port) {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in a;
        std::memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, reinterpret_cast<struct sockaddr*>(&a), sizeof a) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~HttpClient() {
        if (fd_ >= 0) close(fd_);
    }
    bool connected() const { return fd_ >= 0; }

    bool send(const std::string& s) {
        size_t off = 0;
        while (off < s.size()) {
            const ssize_t k = ::send(fd_, s.data() + off, s.size() - off, MSG_NOSIGNAL);
            if (k <= 0) return false;
            off += static_cast<size_t>(k);
        }
        return true;
    }
    // The body as chunks of the given size, then the last chunk.
    bool sendChunked(const std::string& body, size_t chunk) {
        for (size_t off = 0; off < body.size(); off += chunk) {
            const std::string piece = body.substr(off, chunk);
            char size[32];
            snprintf(size, sizeof size, "%zx\r\n", piece.size());
            if (!send(size + piece + "\r\n")) return false;
        }
        return send("0\r\n\r\n");
    }

    HttpResponse read(int timeoutMs = 15000) {
        HttpResponse r;
        const auto start = Clock::now();
        size_t end;
        while ((end = buf_.find("\r\n\r\n")) == std::string::npos)
            if (!fill(start, timeoutMs)) return r;
        std::istringstream head(buf_.substr(0, end));
        buf_.erase(0, end + 4);
        std::string line, version;
        std::getline(head, line);
        std::istringstream(line) >> version >> r.status;
        while (std::getline(head, line)) {
            const size_t colon = line.find(':');
            if (colon == std::string::npos) continue;
            std::string name = line.substr(0, colon);
            for (char& ch : name) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
            std::string value = line.substr(colon + 1);
            value.erase(0, value.find_first_not_of(' '));
            if (!value.empty() && value.back() == '\r') value.pop_back();
            r.headers[name] = value;
        }
        if (r.headers.count("content-length") != 0) {
            const size_t n = std::stoul(r.headers["content-length"]);
            while (buf_.size() < n)
                if (!fill(start, timeoutMs)) return r;
            r.body = buf_.substr(0, n);
            buf_.erase(0, n);
        } else if (r.header("transfer-encoding").find("chunked") != std::string::npos) {
            for (;;) {
                size_t eol;
                while ((eol = buf_.find("\r\n")) == std::string::npos)
                    if (!fill(start, timeoutMs)) return r;
                const size_t n = std::stoul(buf_.substr(0, eol), nullptr, 16);
                while (buf_.size() < eol + 2 + n + 2)
                    if (!fill(start, timeoutMs)) return r;
                r.body += buf_.substr(eol + 2, n);
                buf_.erase(0, eol + 2 + n + 2);
                if (n == 0) break;
            }
        }
        r.ok = true;
        return r;
    }

    bool closedByPeer(int timeoutMs) {
        const auto start = Clock::now();
        while (msSince(start) < timeoutMs) {
            struct pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            char b;
            const ssize_t k = recv(fd_, &b, 1, MSG_DONTWAIT);
            if (k == 0 || (k < 0 && errno != EAGAIN && errno != EINTR)) return true;
        }
        return false;
    }

private:
    bool fill(Clock::time_point start, int timeoutMs) {
        const int64_t left = timeoutMs - msSince(start);
        if (left <= 0) return false;
        struct pollfd p = {fd_, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) return false;
        char tmp[65536];
        const ssize_t k = recv(fd_, tmp, sizeof tmp, 0);
        if (k <= 0) return false;
        buf_.append(tmp, static_cast<size_t>(k));
        return true;
    }

    int fd_ = -1;
    std::string buf_;
};

std::string asString(const Bytes& b) { return std::string(b.begin(), b.end()); }

std::string postHead(size_t contentLength, const std::string& extra = "") {
    return "POST /ipp/print HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/ipp\r\nContent-Length: " +
           std::to_string(contentLength) + "\r\n" + extra + "\r\n";
}
const char kChunkedHead[] =
    "POST /ipp/print HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/ipp\r\n"
    "Transfer-Encoding: chunked\r\n\r\n";

void expectIppResponse(const HttpResponse& r, uint32_t requestId) {
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.header("content-type"), "application/ipp");
    ASSERT_GE(r.body.size(), 9u);
    EXPECT_EQ(r.body[0], 1);
    EXPECT_EQ(r.body[1], 1);
    EXPECT_EQ(be32At(r.body, 4), requestId) << "request id echoed";
}

// Records the document as the handler receives it: the data behind the
// attributes in the first block, then every streamed block.
class DocumentHandler : public HttpTestHandler {
public:
    void prepareRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override {
        {
            std::lock_guard<std::mutex> g(docLock);
            const cmp_ipp_buf& first = ctx->m_request.m_docData;
            document.assign(reinterpret_cast<const char*>(first.data()), first.length());
            blockSizes.clear();
        }
        HttpTestHandler::prepareRequest(ctx, printer);
    }
    uint32_t streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data, void* printer) override {
        {
            std::lock_guard<std::mutex> g(docLock);
            document.append(reinterpret_cast<const char*>(data.data()), data.length());
            blockSizes.push_back(data.length());
        }
        return HttpTestHandler::streamData(ctx, data, printer);
    }
    std::mutex docLock;
    std::string document;
    std::vector<uint32_t> blockSizes;
};

// The library's listener on a socket of its own (GEN_UNIX_PATH) and the front end
// on a free TCP port relaying to it.
class FrontendE2E : public HttpdServer {
protected:
    void SetUp() override {
        HttpdServer::SetUp();
        cmp_ipp_frontend::options o;
        o.port = 0;
        o.socketPath = path_;
        o.relayTimeoutMs = 10000;
        frontend_.reset(new cmp_ipp_frontend(o));
        std::string error;
        ASSERT_TRUE(frontend_->start(&error)) << error;
        ASSERT_NE(frontend_->port(), 0);
    }
    void TearDown() override {
        frontend_.reset();  // first: it holds connections the library's stop waits for
        HttpdServer::TearDown();
    }
    void startLibrary() {
        ASSERT_EQ(cmp_ipp_init_wrap(&printer.printer, &lib), 0);
        running_ = true;
        ASSERT_TRUE(settles([&] { return access(path_.c_str(), F_OK) == 0; }, 5000));
    }
    uint16_t port() const { return frontend_->port(); }

    DocumentHandler lib;
    std::unique_ptr<cmp_ipp_frontend> frontend_;
};

TEST_F(FrontendE2E, GetGivesThePrinterPageOnItsPathsAndJobUris) {
    startLibrary();
    for (const char* path : {"/", "/ipp/print", "/ipp/print/12"}) {
        SCOPED_TRACE(path);
        HttpClient c(port());
        ASSERT_TRUE(c.send(std::string("GET ") + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n"));
        const HttpResponse r = c.read();
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.header("content-type").rfind("text/html", 0), 0u) << r.header("content-type");
        EXPECT_EQ(r.body, HttpTestHandler::kPage);
    }
}

TEST_F(FrontendE2E, PostWithLengthOrChunkedGivesTheIppResponse) {
    startLibrary();
    for (const bool chunked : {false, true}) {
        SCOPED_TRACE(chunked ? "chunked" : "content-length");
        const uint32_t id = chunked ? 702 : 701;
        const std::string ipp = asString(ippRequest(kGetJobs, id));
        HttpClient c(port());
        ASSERT_TRUE(chunked ? c.send(kChunkedHead) && c.sendChunked(ipp, 7) : c.send(postHead(ipp.size()) + ipp));
        expectIppResponse(c.read(), id);
        EXPECT_EQ(lib.lastOperation.load(), kGetJobs);
        EXPECT_EQ(lib.dataCalls.load(), 0) << "the whole message arrived as one first block";
    }
}

TEST_F(FrontendE2E, KeepAliveConnectionServesSeveralRequestsOverOneLibraryConnection) {
    startLibrary();
    HttpClient c(port());
    const std::string ipp = asString(ippRequest(kGetJobs, 11));
    ASSERT_TRUE(c.send(postHead(ipp.size()) + ipp));
    expectIppResponse(c.read(), 11);
    ASSERT_TRUE(c.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    const HttpResponse page = c.read();
    ASSERT_TRUE(page.ok);
    EXPECT_EQ(page.body, HttpTestHandler::kPage);
    EXPECT_EQ(getConnectionCount(), 1) << "one library connection served both";
    ASSERT_TRUE(c.send("GET / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"));
    EXPECT_EQ(c.read().status, 200);
    EXPECT_TRUE(c.closedByPeer(2000));
}

TEST_F(FrontendE2E, LargeDocumentArrivesByteIdenticalInFullBlocks) {
    lib.expectBlockSize = AHTTPD_SPOOL_SIZE;
    startLibrary();
    std::string document((1 << 20) + 12345, '\0');
    uint32_t x = 2463534242u;
    for (char& ch : document) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        ch = static_cast<char>(x);
    }
    for (const bool chunked : {false, true}) {
        SCOPED_TRACE(chunked ? "chunked" : "content-length");
        const std::string body = asString(ippRequest(kPrintJob, 42)) + document;
        HttpClient c(port());
        if (chunked) {
            ASSERT_TRUE(c.send(kChunkedHead) && c.sendChunked(body, 7001));
        } else {
            ASSERT_TRUE(c.send(postHead(body.size())));
            for (size_t off = 0; off < body.size(); off += 5000) ASSERT_TRUE(c.send(body.substr(off, 5000)));
        }
        expectIppResponse(c.read(), 42);
        std::lock_guard<std::mutex> g(lib.docLock);
        EXPECT_TRUE(lib.document == document) << "received " << lib.document.size() << " of " << document.size();
        ASSERT_GE(lib.blockSizes.size(), 32u);
        for (size_t i = 0; i + 1 < lib.blockSizes.size(); ++i)
            ASSERT_EQ(lib.blockSizes[i], static_cast<uint32_t>(AHTTPD_SPOOL_SIZE)) << "block " << i << " not coalesced";
    }
}

TEST_F(FrontendE2E, ExpectContinueIsAnsweredBeforeTheBody) {
    startLibrary();
    HttpClient c(port());
    const std::string ipp = asString(ippRequest(kGetJobs, 5));
    ASSERT_TRUE(c.send(postHead(ipp.size(), "Expect: 100-continue\r\n")));
    EXPECT_EQ(c.read(5000).status, 100);
    ASSERT_TRUE(c.send(ipp));
    expectIppResponse(c.read(), 5);
}

TEST_F(FrontendE2E, HeadersReachTheHandlerAndComeBackOnTheResponse) {
    lib.readHeaderToken = CMP_IPP_IF_HDR_AUTHORIZATION;
    lib.replyCode = CMP_IPP_IF_RC_UNAUTHORIZED;
    lib.setHeaderToken = CMP_IPP_IF_HDR_WWW_AUTHENTICATE;
    lib.setHeaderText = "Basic realm=\"printer\"";
    startLibrary();
    HttpClient c(port());
    const std::string ipp = asString(ippRequest(kGetJobs, 6));
    ASSERT_TRUE(c.send(postHead(ipp.size(), "Authorization: Basic dXNlcjpwYXNz\r\n") + ipp));
    const HttpResponse r = c.read();
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.status, 401);
    EXPECT_EQ(r.header("www-authenticate"), "Basic realm=\"printer\"");
    {
        std::lock_guard<std::mutex> g(lib.lock);
        EXPECT_EQ(lib.headerSeen, "Basic user:pass");
    }
    lib.replyCode = -1;
    lib.setHeaderToken = -1;
    ASSERT_TRUE(c.send(postHead(ipp.size()) + ipp));
    expectIppResponse(c.read(), 6);
    EXPECT_EQ(getConnectionCount(), 1) << "a 401 keeps the library connection";
}

TEST_F(FrontendE2E, IppDisabledGives503EvenWithALargeUnreadBody) {
    startLibrary();
    IPPCGI_EnableIPP(0);
    {
        HttpClient c(port());
        ASSERT_TRUE(c.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
        EXPECT_EQ(c.read().status, 503);
    }
    // The library answers without reading the body; the rest of it must not
    // reach the library as a request of its own.
    // A body the socket takes whole, and one it cannot.
    for (const size_t size : {size_t{40000}, size_t{1} << 20}) {
        SCOPED_TRACE(size);
        HttpClient c(port());
        const std::string body = asString(ippRequest(kPrintJob, 7)) + std::string(size, 'd');
        ASSERT_TRUE(c.send(postHead(body.size()) + body));
        EXPECT_EQ(c.read().status, 503);
        // At once on the same HTTP connection: the library connection that
        // answered early (and closes shortly) is not used again.
        ASSERT_TRUE(c.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
        EXPECT_EQ(c.read().status, 503);
    }
    EXPECT_EQ(lib.prepared.load(), 0);
    IPPCGI_EnableIPP(1);
    HttpClient again(port());
    ASSERT_TRUE(again.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    EXPECT_EQ(again.read().body, HttpTestHandler::kPage);
}

TEST_F(FrontendE2E, AbsentLibraryGives503AndTheFrontEndStaysUp) {
    const std::string ipp = asString(ippRequest(kGetJobs, 8));
    HttpClient c(port());
    ASSERT_TRUE(c.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    EXPECT_EQ(c.read().status, 503);
    HttpClient p(port());
    ASSERT_TRUE(p.send(postHead(ipp.size()) + ipp));
    EXPECT_EQ(p.read().status, 503);
    startLibrary();
    HttpClient later(port());
    ASSERT_TRUE(later.send(postHead(ipp.size()) + ipp));
    expectIppResponse(later.read(), 8);
}

TEST_F(FrontendE2E, RefusedDocumentDoesNotSpoilTheNextRequest) {
    lib.refuseFromCall = 1;
    startLibrary();
    HttpClient c(port());
    const std::string body = asString(ippRequest(kPrintJob, 12)) + std::string(100000, 'r');
    ASSERT_TRUE(c.send(postHead(body.size()) + body));
    const HttpResponse refused = c.read();
    ASSERT_TRUE(refused.ok);
    EXPECT_EQ(refused.status, 200) << "the handler's answer to the aborted job";
    EXPECT_EQ(lib.aborted.load(), 1);
    // The library pauses, then closes the connection that carried the refused
    // job; the next request must not be sent on it.
    ASSERT_TRUE(c.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    const HttpResponse page = c.read();
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.body, HttpTestHandler::kPage);
}

TEST_F(FrontendE2E, ClientGoneMidUploadReleasesTheLibraryConnection) {
    startLibrary();
    {
        HttpClient c(port());
        const std::string ipp = asString(ippRequest(kPrintJob, 9));
        ASSERT_TRUE(c.send(postHead(ipp.size() + 500000) + ipp + std::string(100000, 'x')));
        ASSERT_TRUE(settles([] { return getConnectionCount() == 1; }, 3000));
    }
    EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 5000));
    EXPECT_TRUE(settles([&] { return lib.finished.load() == 1; }, 5000)) << "the stream was still ended";
    HttpClient again(port());
    ASSERT_TRUE(again.send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    EXPECT_EQ(again.read().status, 200);
}

uint32_t crc32Of(const std::string& s, size_t from, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = from; i < from + n; ++i) {
        c ^= static_cast<unsigned char>(s[i]);
        for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
    }
    return ~c;
}

// True for a PNG whose chunks all have intact CRCs and that ends with IEND; the
// size comes from its IHDR.
bool wellFormedPng(const std::string& png, uint32_t* width, uint32_t* height) {
    if (png.compare(0, 8, std::string("\x89PNG\r\n\x1a\n", 8)) != 0) return false;
    bool header = false;
    for (size_t p = 8; p + 12 <= png.size();) {
        const uint32_t length = be32At(png, p);
        if (length > png.size() - p - 12 || crc32Of(png, p + 4, 4 + length) != be32At(png, p + 8 + length))
            return false;
        const std::string type = png.substr(p + 4, 4);
        if (type == "IHDR") {
            *width = be32At(png, p + 8);
            *height = be32At(png, p + 12);
            header = true;
        }
        if (type == "IEND") return header && p + 12 == png.size();
        p += 12 + length;
    }
    return false;
}

TEST_F(FrontendE2E, IconsAreServedByTheFrontEndAlone) {
    // No library behind it: the icons must not depend on one.
    for (const auto& icon : {std::make_pair("/icon-sm.png", 48u), std::make_pair("/icon.png", 128u)}) {
        SCOPED_TRACE(icon.first);
        HttpClient c(port());
        ASSERT_TRUE(c.send(std::string("GET ") + icon.first + " HTTP/1.1\r\nHost: localhost\r\n\r\n"));
        const HttpResponse r = c.read();
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.status, 200);
        EXPECT_EQ(r.header("content-type"), "image/png");
        uint32_t width = 0, height = 0;
        EXPECT_TRUE(wellFormedPng(r.body, &width, &height));
        EXPECT_EQ(width, icon.second);
        EXPECT_EQ(height, icon.second);
        HttpClient post(port());
        ASSERT_TRUE(
            post.send(std::string("POST ") + icon.first + " HTTP/1.1\r\nHost: localhost\r\nContent-Length: 0\r\n\r\n"));
        const HttpResponse refused = post.read();
        EXPECT_EQ(refused.status, 405);
        EXPECT_EQ(refused.header("allow"), "GET");
    }
}

TEST_F(FrontendE2E, OtherPathsAndMethodsAreRefusedLocally) {
    startLibrary();
    for (const char* path : {"/other", "/ipp/print/", "/ipp/print/7x", "/ipp/printer", "/ipp/print/7/1", "/icon.png/x"}) {
        SCOPED_TRACE(path);
        HttpClient c(port());
        ASSERT_TRUE(c.send(std::string("GET ") + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n"));
        EXPECT_EQ(c.read().status, 404);
    }
    HttpClient d(port());
    ASSERT_TRUE(d.send("DELETE /ipp/print HTTP/1.1\r\nHost: localhost\r\n\r\n"));
    const HttpResponse r = d.read();
    EXPECT_EQ(r.status, 405);
    EXPECT_EQ(r.header("allow"), "GET, POST");
    EXPECT_EQ(getConnectionCount(), 0) << "nothing was relayed";
}

}  // namespace
