#include "cmp_ipp_http_client.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>

#include "cmp_ipp_clock.h"
#include "cmp_ipp_write_all.h"

namespace cmp_ipp_app {

namespace {

constexpr size_t kBufferSize = 65536;
constexpr size_t kLongestLine = 16384;  // no header line of ours is near that

// Field names are compared where they lie in the buffer, without a copy.
bool nameIs(const char* name, size_t n, const char* lowerName) {
    return strlen(lowerName) == n && strncasecmp(name, lowerName, n) == 0;
}

bool hasToken(const char* value, size_t n, const char* word) {
    const size_t w = strlen(word);
    for (size_t i = 0; i + w <= n; ++i)
        if (strncasecmp(value + i, word, w) == 0) return true;
    return false;
}

// Digits in the given base at the start of [p, p + n); false when there are none.
bool parseNumber(const char* p, size_t n, int base, unsigned long long* out) {
    unsigned long long v = 0;
    size_t i = 0;
    for (; i < n && i < 16; ++i) {
        const char c = p[i];
        int d;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else break;
        v = v * static_cast<unsigned>(base) + static_cast<unsigned>(d);
    }
    *out = v;
    return i > 0;
}

}  // namespace

std::string HttpResponse::header(const std::string& lowerName) const {
    for (auto it = headers.rbegin(); it != headers.rend(); ++it)
        if (it->first == lowerName) return it->second;
    return std::string();
}

HttpReader::HttpReader() : m_buf(new char[kBufferSize]) {}
HttpReader::~HttpReader() = default;

HttpResponse HttpReader::read(int timeoutMs) {
    HttpResponse r;
    readResponse(r, true, timeoutMs);
    return r;
}

int HttpReader::leftMs() const {
    if (m_deadline < 0) return kNoDeadline;
    return static_cast<int>(std::max<int64_t>(0, m_deadline - nowMs()));
}

bool HttpReader::readResponse(HttpResponse& r, bool keepHeaders, int timeoutMs) {
    r.ok = false;
    r.status = 0;
    r.keepAlive = false;
    r.body.clear();
    r.headers.clear();
    r.error.clear();
    m_deadline = timeoutMs >= 0 ? nowMs() + timeoutMs : -1;
    m_why = Why::Closed;
    auto failed = [&](const char* where) {
        static const char* const kWhat[] = {"connection closed", "time-out", "receive failed", "line too long"};
        r.error = std::string(kWhat[static_cast<int>(m_why)]) + " " + where;
        return false;
    };

    const char* line;
    size_t n;
    if (!readLine(&line, &n)) return failed("before the status line");
    if (n < 12 || memcmp(line, "HTTP/1.", 7) != 0) {
        r.error = "bad status line: " + std::string(line, n);
        return false;
    }
    unsigned long long status = 0;
    parseNumber(line + 9, 3, 10, &status);
    r.status = static_cast<int>(status);
    r.keepAlive = line[7] == '1';
    long long length = -1;
    bool chunked = false;
    for (;;) {
        if (!readLine(&line, &n)) return failed("in the headers");
        if (n == 0) break;
        const char* colon = static_cast<const char*>(memchr(line, ':', n));
        if (colon == nullptr) continue;
        const size_t nameLength = static_cast<size_t>(colon - line);
        const char* value = colon + 1;
        size_t valueLength = n - nameLength - 1;
        while (valueLength > 0 && (*value == ' ' || *value == '\t')) ++value, --valueLength;
        if (nameIs(line, nameLength, "content-length")) {
            unsigned long long v;
            if (!parseNumber(value, valueLength, 10, &v)) {
                r.error = "bad Content-Length: " + std::string(value, valueLength);
                return false;
            }
            length = static_cast<long long>(v);
        } else if (nameIs(line, nameLength, "transfer-encoding")) {
            chunked = chunked || hasToken(value, valueLength, "chunked");
        } else if (nameIs(line, nameLength, "connection")) {
            if (hasToken(value, valueLength, "close")) r.keepAlive = false;
            if (hasToken(value, valueLength, "keep-alive")) r.keepAlive = true;
        }
        if (keepHeaders) {
            std::string name(line, nameLength);
            for (char& c : name) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
            r.headers.emplace_back(std::move(name), std::string(value, valueLength));
        }
    }

    if ((r.status >= 100 && r.status < 200) || r.status == 204 || r.status == 304) {
        // These never carry a body, whatever the headers say.
    } else if (chunked) {
        for (;;) {
            if (!readLine(&line, &n)) return failed("in a chunk header");
            unsigned long long size;
            if (!parseNumber(line, n, 16, &size)) {
                r.error = "bad chunk header: " + std::string(line, n);
                return false;
            }
            if (size == 0) break;
            if (!readBytes(static_cast<size_t>(size), r.body)) return failed("in a chunk");
            if (!readLine(&line, &n)) return failed("after a chunk");
            if (n != 0) {
                r.error = "chunk not followed by CRLF";
                return false;
            }
        }
        for (;;) {
            if (!readLine(&line, &n)) return failed("in the trailers");
            if (n == 0) break;
            const char* colon = static_cast<const char*>(memchr(line, ':', n));
            if (!keepHeaders || colon == nullptr) continue;
            std::string name(line, static_cast<size_t>(colon - line));
            for (char& c : name) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
            std::string value(colon + 1, static_cast<size_t>(line + n - colon - 1));
            value.erase(0, value.find_first_not_of(" \t"));
            r.headers.emplace_back(std::move(name), std::move(value));
        }
    } else if (length >= 0) {
        if (!readBytes(static_cast<size_t>(length), r.body)) return failed("in the body");
    } else {
        if (!readToClose(r.body)) return failed("in a body read to the close");
        r.keepAlive = false;
    }
    r.ok = true;
    return true;
}

bool HttpReader::fill() {
    if (m_start == m_end) {
        m_start = m_end = 0;
    } else if (m_end == kBufferSize) {
        memmove(m_buf.get(), m_buf.get() + m_start, m_end - m_start);
        m_end -= m_start;
        m_start = 0;
    }
    const int left = leftMs();
    if (left == 0) {
        m_why = Why::TimedOut;
        return false;
    }
    const ssize_t k = receive(m_buf.get() + m_end, kBufferSize - m_end, left);
    if (k > 0) {
        m_end += static_cast<size_t>(k);
        return true;
    }
    if (k == 0) m_why = Why::Closed;
    else if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ETIMEDOUT) m_why = Why::TimedOut;
    else m_why = Why::Failed;
    return false;
}

bool HttpReader::readLine(const char** line, size_t* length) {
    for (;;) {
        const char* begin = m_buf.get() + m_start;
        const char* nl = static_cast<const char*>(memchr(begin, '\n', m_end - m_start));
        if (nl != nullptr) {
            const size_t len = static_cast<size_t>(nl - begin);
            *line = begin;
            *length = len > 0 && nl[-1] == '\r' ? len - 1 : len;
            m_start += len + 1;
            return true;
        }
        if (m_end - m_start > kLongestLine) {
            m_why = Why::TooLong;
            return false;
        }
        if (!fill()) return false;
    }
}

bool HttpReader::readBytes(size_t n, std::string& out) {
    while (n > 0) {
        if (m_start == m_end && !fill()) return false;
        const size_t take = std::min(n, m_end - m_start);
        out.append(m_buf.get() + m_start, take);
        m_start += take;
        n -= take;
    }
    return true;
}

bool HttpReader::readToClose(std::string& out) {
    for (;;) {
        out.append(m_buf.get() + m_start, m_end - m_start);
        m_start = m_end;
        if (!fill()) return m_why == Why::Closed;
    }
}

int tcpConnect(const char* host, uint16_t port, const char* source, int ioTimeoutMs) {
    struct sockaddr_in to;
    memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    if (inet_pton(AF_INET, host, &to.sin_addr) != 1) return -1;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    // Set before connect(), which the send limit bounds as well.
    struct timeval limit = {ioTimeoutMs / 1000, (ioTimeoutMs % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    bool ok = true;
    if (source != nullptr) {
        // The port is still chosen at connect(), as for any client: many
        // short connections in a row must not run out of ports in TIME_WAIT.
        setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &one, sizeof one);
        struct sockaddr_in from;
        memset(&from, 0, sizeof from);
        from.sin_family = AF_INET;
        ok = inet_pton(AF_INET, source, &from.sin_addr) == 1 &&
             bind(fd, reinterpret_cast<struct sockaddr*>(&from), sizeof from) == 0;
    }
    if (ok && connect(fd, reinterpret_cast<struct sockaddr*>(&to), sizeof to) == 0) return fd;
    ::close(fd);
    return -1;
}

HttpConnection::~HttpConnection() { close(); }

bool HttpConnection::open(const char* host, uint16_t port, const char* source, int ioTimeoutMs) {
    close();
    m_fd = tcpConnect(host, port, source, ioTimeoutMs);
    m_ioTimeoutMs = ioTimeoutMs;
    return m_fd >= 0;
}

void HttpConnection::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    discardBuffered();
}

bool HttpConnection::send(const char* data, size_t n) { return m_fd >= 0 && writeAll(m_fd, data, n); }

ssize_t HttpConnection::receive(char* into, size_t room, int leftMs) {
    // The socket's own receive limit covers waits up to it; only a shorter
    // deadline costs a poll() per read.
    if (leftMs != kNoDeadline && leftMs < m_ioTimeoutMs) {
        struct pollfd p = {m_fd, POLLIN, 0};
        const int k = poll(&p, 1, leftMs);
        if (k == 0) errno = ETIMEDOUT;
        if (k <= 0) return -1;
    }
    for (;;) {
        const ssize_t k = recv(m_fd, into, room, 0);
        if (k < 0 && errno == EINTR) continue;
        return k;
    }
}

}  // namespace cmp_ipp_app
