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
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        struct sockaddr_in a;
        std::memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (m_fd < 0 || connect(m_fd, reinterpret_cast<struct sockaddr*>(&a), sizeof a) != 0) return;
        gnutls_certificate_allocate_credentials(&m_creds);
        gnutls_init(&m_session, GNUTLS_CLIENT);
        gnutls_set_default_priority(m_session);
        gnutls_credentials_set(m_session, GNUTLS_CRD_CERTIFICATE, m_creds);
        gnutls_server_name_set(m_session, GNUTLS_NAME_DNS, serverName, std::strlen(serverName));
        gnutls_transport_set_int(m_session, m_fd);
        gnutls_handshake_set_timeout(m_session, 10000);
        int rc;
        do {
            rc = gnutls_handshake(m_session);
        } while (rc < 0 && gnutls_error_is_fatal(rc) == 0);
        m_handshake = rc >= 0;
    }
    ~TlsClient() {
        if (m_session != nullptr) {
            if (m_handshake) gnutls_bye(m_session, GNUTLS_SHUT_WR);
            gnutls_deinit(m_session);
        }
        if (m_creds != nullptr) gnutls_certificate_free_credentials(m_creds);
        if (m_fd >= 0) close(m_fd);
    }
    TlsClient(const TlsClient&) = delete;
    TlsClient& operator=(const TlsClient&) = delete;

    bool handshakeDone() const { return m_handshake; }
    bool send(const std::string& s) {
        if (!m_handshake) return false;
        size_t off = 0;
        while (off < s.size()) {
            const ssize_t k = gnutls_record_send(m_session, s.data() + off, s.size() - off);
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
        while ((end = m_buf.find("\r\n\r\n")) == std::string::npos)
            if (!fill(start, timeoutMs)) return r;
        parseHttpHead(m_buf.substr(0, end), r);
        m_buf.erase(0, end + 4);
        const size_t n = r.headers.count("content-length") != 0 ? std::stoul(r.headers["content-length"]) : 0;
        while (m_buf.size() < n)
            if (!fill(start, timeoutMs)) return r;
        r.body = m_buf.substr(0, n);
        m_buf.erase(0, n);
        r.ok = true;
        return r;
    }

private:
    bool fill(Clock::time_point start, int timeoutMs) {
        for (;;) {
            const int64_t left = timeoutMs - msSince(start);
            if (left <= 0) return false;
            if (gnutls_record_check_pending(m_session) == 0) {
                struct pollfd p = {m_fd, POLLIN, 0};
                if (poll(&p, 1, static_cast<int>(left)) <= 0) return false;
            }
            char tmp[16384];
            const ssize_t k = gnutls_record_recv(m_session, tmp, sizeof tmp);
            if (k == GNUTLS_E_AGAIN || k == GNUTLS_E_INTERRUPTED) continue;
            if (k <= 0) return false;
            m_buf.append(tmp, static_cast<size_t>(k));
            return true;
        }
    }

    int m_fd = -1;
    gnutls_certificate_credentials_t m_creds = nullptr;
    gnutls_session_t m_session = nullptr;
    bool m_handshake = false;
    std::string m_buf;
};

#endif
