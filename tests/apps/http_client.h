// A raw HTTP/1.1 client for the front-end tests: it speaks to the TCP port
// byte by byte, so that tests can also send slowly, cut uploads short, reset
// connections and come from other loopback addresses.
#ifndef TESTS_APPS_HTTP_CLIENT_H
#define TESTS_APPS_HTTP_CLIENT_H

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <map>
#include <sstream>
#include <string>

#include "httpd/httpd_fixture.h"

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

// Responses read off whatever carries them (a plain or a TLS connection).
class HttpReader {
public:
    virtual ~HttpReader() = default;

    // One response, its body framed by Content-Length or chunked.
    HttpResponse read(int timeoutMs = 15000) {
        HttpResponse r;
        const auto start = Clock::now();
        size_t end;
        while ((end = m_buf.find("\r\n\r\n")) == std::string::npos)
            if (!fill(start, timeoutMs)) return r;
        std::istringstream head(m_buf.substr(0, end));
        m_buf.erase(0, end + 4);
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
            while (m_buf.size() < n)
                if (!fill(start, timeoutMs)) return r;
            r.body = m_buf.substr(0, n);
            m_buf.erase(0, n);
        } else if (r.header("transfer-encoding").find("chunked") != std::string::npos) {
            for (;;) {
                size_t eol;
                while ((eol = m_buf.find("\r\n")) == std::string::npos)
                    if (!fill(start, timeoutMs)) return r;
                const size_t n = std::stoul(m_buf.substr(0, eol), nullptr, 16);
                while (m_buf.size() < eol + 2 + n + 2)
                    if (!fill(start, timeoutMs)) return r;
                r.body += m_buf.substr(eol + 2, n);
                m_buf.erase(0, eol + 2 + n + 2);
                if (n == 0) break;
            }
        }
        r.ok = true;
        return r;
    }

protected:
    // Appends to m_buf what arrives within leftMs; false on close, error or time-out.
    virtual bool receive(int leftMs) = 0;
    std::string m_buf;

private:
    bool fill(Clock::time_point start, int timeoutMs) {
        const int64_t left = timeoutMs - msSince(start);
        return left > 0 && receive(static_cast<int>(left));
    }
};

// A TCP connection to a loopback port from `source` (any 127.x.y.z works on
// Linux loopback, so that tests can play several client addresses); -1 when
// it cannot be made.
inline int loopbackConnection(uint16_t port, const char* source = "127.0.0.1") {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // The port is chosen at connect(), as for any client: many short
    // connections in a row must not run out of ports held in TIME_WAIT.
    int one = 1;
    setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof one);
    struct sockaddr_in from;
    std::memset(&from, 0, sizeof from);
    from.sin_family = AF_INET;
    inet_pton(AF_INET, source, &from.sin_addr);
    struct sockaddr_in a;
    std::memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&from), sizeof from) == 0 &&
        connect(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof a) == 0)
        return fd;
    close(fd);
    return -1;
}

class HttpClient : public HttpReader {
public:
    explicit HttpClient(uint16_t port, const char* source = "127.0.0.1") : m_fd(loopbackConnection(port, source)) {}
    ~HttpClient() override { closeNow(); }
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;
    bool connected() const { return m_fd >= 0; }
    // Ends the connection with a TCP reset instead of an orderly close.
    void reset() {
        if (m_fd < 0) return;
        struct linger l = {1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
        closeNow();
    }
    void closeNow() {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

    bool send(const std::string& s) {
        size_t off = 0;
        while (off < s.size()) {
            const ssize_t k = ::send(m_fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
            if (k <= 0) return false;
            off += static_cast<size_t>(k);
        }
        return true;
    }
    bool sendChunkedPiece(const std::string& piece) {
        char size[32];
        snprintf(size, sizeof size, "%zx\r\n", piece.size());
        return send(size + piece + "\r\n");
    }
    // The body as chunks of the given size, then the last chunk.
    bool sendChunked(const std::string& body, size_t chunk) {
        for (size_t off = 0; off < body.size(); off += chunk)
            if (!sendChunkedPiece(body.substr(off, chunk))) return false;
        return send("0\r\n\r\n");
    }

    bool closedByPeer(int timeoutMs) {
        const auto start = Clock::now();
        while (msSince(start) < timeoutMs) {
            struct pollfd p = {m_fd, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            char b;
            const ssize_t k = recv(m_fd, &b, 1, MSG_DONTWAIT);
            if (k == 0 || (k < 0 && errno != EAGAIN && errno != EINTR)) return true;
        }
        return false;
    }

private:
    bool receive(int leftMs) override {
        struct pollfd p = {m_fd, POLLIN, 0};
        if (poll(&p, 1, leftMs) <= 0) return false;
        char tmp[65536];
        const ssize_t k = recv(m_fd, tmp, sizeof tmp, 0);
        if (k <= 0) return false;
        m_buf.append(tmp, static_cast<size_t>(k));
        return true;
    }

    int m_fd = -1;
};

inline std::string asString(const Bytes& b) { return std::string(b.begin(), b.end()); }

inline std::string postHead(size_t contentLength, const std::string& extra = "") {
    return "POST /ipp/print HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/ipp\r\nContent-Length: " +
           std::to_string(contentLength) + "\r\n" + extra + "\r\n";
}
constexpr char kChunkedHead[] =
    "POST /ipp/print HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/ipp\r\n"
    "Transfer-Encoding: chunked\r\n\r\n";

#endif
