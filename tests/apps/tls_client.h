// A TLS client for the front-end tests: connects to a loopback port, does the
// handshake with GnuTLS (any certificate accepted: the tests check the one
// served themselves) and speaks raw HTTP/1.1 over it.
#ifndef TESTS_APPS_TLS_CLIENT_H
#define TESTS_APPS_TLS_CLIENT_H

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <string>

#include "apps/http_client.h"

class TlsClient : public HttpReader {
public:
    explicit TlsClient(uint16_t port, const char* serverName = "localhost") {
        m_fd = cmp_ipp_app::tcpConnect("127.0.0.1", port, "127.0.0.1", kTestIoTimeoutMs);
        if (m_fd < 0) return;
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
    ~TlsClient() override {
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

private:
    ssize_t receive(char* into, size_t room, int leftMs) override {
        if (gnutls_record_check_pending(m_session) == 0) {
            struct pollfd p = {m_fd, POLLIN, 0};
            const int k = poll(&p, 1, leftMs);
            if (k == 0) errno = ETIMEDOUT;
            if (k <= 0) return -1;
        }
        ssize_t k;
        do {
            k = gnutls_record_recv(m_session, into, room);
        } while (k == GNUTLS_E_AGAIN || k == GNUTLS_E_INTERRUPTED);
        return k < 0 ? -1 : k;
    }

    int m_fd = -1;
    gnutls_certificate_credentials_t m_creds = nullptr;
    gnutls_session_t m_session = nullptr;
    bool m_handshake = false;
};

#endif
