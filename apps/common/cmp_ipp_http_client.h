// The HTTP/1.1 client of the tests and of the load benchmark: a TCP connection
// from a chosen (loopback) source address, and a response reader that any
// transport can feed (plain sockets here, TLS in the tests).
//
// The reader is meant to cost the client as little as possible, because the
// benchmark's client shares the machine with the server it measures: one
// buffer, lines found with memchr and parsed where they lie, header fields
// copied out only when the caller asks for them, and no clock read unless the
// caller gives a deadline.
#ifndef CMP_IPP_HTTP_CLIENT_H
#define CMP_IPP_HTTP_CLIENT_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace cmp_ipp_app {

struct HttpResponse {
    bool ok = false;  // a whole response was read
    int status = 0;
    bool keepAlive = false;  // the server keeps the connection open after it
    std::string body;
    // Header and trailer fields, names in lower case; only when asked for.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string error;  // why the response is not ok

    // The value of a field (the last one of that name); empty when absent.
    std::string header(const std::string& lowerName) const;
};

// Reads responses off whatever carries them. Bytes after a response stay
// buffered for the next one.
class HttpReader {
public:
    static constexpr int kNoDeadline = -1;

    HttpReader();
    virtual ~HttpReader();
    HttpReader(const HttpReader&) = delete;
    HttpReader& operator=(const HttpReader&) = delete;

    // One response into r (its body framed by Content-Length, chunked with
    // trailers, or running to the close), reusing r's storage. Header fields
    // are kept only with keepHeaders. With a timeout, the whole response must
    // arrive within it; without one, each wait is bounded by the transport.
    // Returns r.ok.
    bool readResponse(HttpResponse& r, bool keepHeaders, int timeoutMs = kNoDeadline);
    // One response with its header fields, within timeoutMs.
    HttpResponse read(int timeoutMs = 15000);

protected:
    // Reads up to `room` bytes into `into`, waiting at most leftMs (no more
    // than the transport's own limit when leftMs is kNoDeadline): the count,
    // 0 when the peer closed, -1 on an error or when the time is up.
    virtual ssize_t receive(char* into, size_t room, int leftMs) = 0;
    // Forgets buffered bytes (the transport was closed or opened anew).
    void discardBuffered() { m_start = m_end = 0; }

private:
    enum class Why { Closed, TimedOut, Failed, TooLong };  // the last read that fell short

    bool fill();
    bool readLine(const char** line, size_t* length);
    bool readBytes(size_t n, std::string& out);
    bool readToClose(std::string& out);
    int leftMs() const;

    std::unique_ptr<char[]> m_buf;
    size_t m_start = 0;
    size_t m_end = 0;
    int64_t m_deadline = -1;  // monotonic ms; -1: none
    Why m_why = Why::Closed;
};

// A TCP connection to host:port (IPv4, dotted), bound to `source` when given
// (any 127.x.y.z on Linux loopback, so that one process can play several
// client addresses). TCP_NODELAY; sends and receives give up after
// ioTimeoutMs. The descriptor, or -1 when the connection cannot be made.
int tcpConnect(const char* host, uint16_t port, const char* source, int ioTimeoutMs);

// A plain HTTP connection: send requests, read responses.
class HttpConnection : public HttpReader {
public:
    HttpConnection() = default;
    ~HttpConnection() override;

    bool open(const char* host, uint16_t port, const char* source = nullptr, int ioTimeoutMs = 10000);
    void close();
    bool connected() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

    // Everything or false (a peer that went away is false, not SIGPIPE).
    bool send(const char* data, size_t n);
    bool send(const std::string& data) { return send(data.data(), data.size()); }

protected:
    ssize_t receive(char* into, size_t room, int leftMs) override;

private:
    int m_fd = -1;
    int m_ioTimeoutMs = 0;
};

}  // namespace cmp_ipp_app

#endif
