// A TLS client for the front-end tests: connects to a loopback port, does the
// handshake with GnuTLS (any certificate accepted: the tests check the one
// served themselves) and speaks raw HTTP/1.1 over it.
#ifndef TESTS_APPS_TLS_CLIENT_H
#define TESTS_APPS_TLS_CLIENT_H

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <sstream>
#include <string>

#include "apps/http_client.h"

class TlsClient {
public:
    explicit TlsClient(uint16_t port, const char* serverName = "localhost") {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in a;
        std::memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd_ < 0 || connect(fd_, reinterpret_cast<struct sockaddr*>(&a), sizeof a) != 0) return;
        gnutls_certificate_allocate_credentials(&creds_);
        gnutls_init(&session_, GNUTLS_CLIENT);
        gnutls_set_default_priority(session_);
        gnutls_credentials_set(session_, GNUTLS_CRD_CERTIFICATE, creds_);
        gnutls_server_name_set(session_, GNUTLS_NAME_DNS, serverName, std::strlen(serverName));
        gnutls_transport_set_int(session_, fd_);
        gnutls_handshake_set_timeout(session_, 10000);
        int rc;
        do {
            rc = gnutls_handshake(session_);
        } while (rc < 0 && gnutls_error_is_fatal(rc) == 0);
        handshake_ = rc >= 0;
    }
    ~TlsClient() {
        if (session_ != nullptr) {
            if (handshake_) gnutls_bye(session_, GNUTLS_SHUT_WR);
            gnutls_deinit(session_);
        }
        if (creds_ != nullptr) gnutls_certificate_free_credentials(creds_);
        if (fd_ >= 0) close(fd_);
    }
    TlsClient(const TlsClient&) = delete;
    TlsClient& operator=(const TlsClient&) = delete;

    bool send(const std::string& s) {
        if (!handshake_) return false;
        size_t off = 0;
        while (off < s.size()) {
            const ssize_t k = gnutls_record_send(session_, s.data() + off, s.size() - off);
            if (k == GNUTLS_E_AGAIN || k == GNUTLS_E_INTERRUPTED) continue;
            if (k <= 0) return false;
            off += static_cast<size_t>(k);
        }
        return true;
    }

    // One response with Content-Length (the front end's responses all have one).
    HttpResponse read(int timeoutMs = 15000) {
        HttpResponse r;
        const auto start = Clock::now();
        size_t end;
        while ((end = buf_.find("\r\n\r\n")) == std::string::npos)
            if (!fill(start, timeoutMs)) return r;
        parseHttpHead(buf_.substr(0, end), r);
        buf_.erase(0, end + 4);
        const size_t n = r.headers.count("content-length") != 0 ? std::stoul(r.headers["content-length"]) : 0;
        while (buf_.size() < n)
            if (!fill(start, timeoutMs)) return r;
        r.body = buf_.substr(0, n);
        buf_.erase(0, n);
        r.ok = true;
        return r;
    }

private:
    bool fill(Clock::time_point start, int timeoutMs) {
        for (;;) {
            const int64_t left = timeoutMs - msSince(start);
            if (left <= 0) return false;
            if (gnutls_record_check_pending(session_) == 0) {
                struct pollfd p = {fd_, POLLIN, 0};
                if (poll(&p, 1, static_cast<int>(left)) <= 0) return false;
            }
            char tmp[16384];
            const ssize_t k = gnutls_record_recv(session_, tmp, sizeof tmp);
            if (k == GNUTLS_E_AGAIN || k == GNUTLS_E_INTERRUPTED) continue;
            if (k <= 0) return false;
            buf_.append(tmp, static_cast<size_t>(k));
            return true;
        }
    }

    int fd_ = -1;
    gnutls_certificate_credentials_t creds_ = nullptr;
    gnutls_session_t session_ = nullptr;
    bool handshake_ = false;
    std::string buf_;
};

#endif
