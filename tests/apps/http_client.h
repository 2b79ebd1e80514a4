// The front-end tests' HTTP/1.1 client: the shared client (apps/common) with
// what only tests do to a server: send slowly or in chunked pieces, cut
// uploads short, reset connections, wait for the server to close.
#ifndef TESTS_APPS_HTTP_CLIENT_H
#define TESTS_APPS_HTTP_CLIENT_H

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>

#include "cmp_ipp_http_client.h"
#include "httpd/httpd_fixture.h"

using cmp_ipp_app::HttpReader;
using cmp_ipp_app::HttpResponse;

// Sends and receives on a test connection give up after this (a safety net;
// each read has its own, shorter deadline).
constexpr int kTestIoTimeoutMs = 60000;

class HttpClient : public cmp_ipp_app::HttpConnection {
public:
    // A connection to the loopback port from `source` (any 127.x.y.z, to play
    // several client addresses).
    explicit HttpClient(uint16_t port, const char* source = "127.0.0.1") {
        open("127.0.0.1", port, source, kTestIoTimeoutMs);
    }
    void closeNow() { close(); }

    // Ends the connection with a TCP reset instead of an orderly close.
    void reset() {
        if (!connected()) return;
        struct linger l = {1, 0};
        setsockopt(fd(), SOL_SOCKET, SO_LINGER, &l, sizeof l);
        close();
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
            struct pollfd p = {fd(), POLLIN, 0};
            if (poll(&p, 1, 20) <= 0) continue;
            char b;
            const ssize_t k = recv(fd(), &b, 1, MSG_DONTWAIT);
            if (k == 0 || (k < 0 && errno != EAGAIN && errno != EINTR)) return true;
        }
        return false;
    }
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
