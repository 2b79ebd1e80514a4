// The HTTP front end: an HTTP/1.1 server on TCP that relays every request to the
// IPP library's Unix-domain socket (request record, body blocks) and turns the
// reply record back into an HTTP response. Runs its own threads; start() and
// stop() may be called from any thread, but not concurrently with each other.
#ifndef CMP_IPP_FRONTEND_H
#define CMP_IPP_FRONTEND_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace cmp_ipp_fe {
class BasicAuth;
}

class cmp_ipp_frontend {
public:
    struct Options {
        std::string bindAddress = "127.0.0.1";  // numeric IPv4 or IPv6 address
        uint16_t port = 8631;                    // 0: any free port, see port()
        std::string socketPath;                  // empty: the library's own ($GEN_UNIX_PATH)
        std::string ippPath = "/ipp/print";      // "/" is served as well
        // Admission (see cmp_ipp_admission.h): connections at once, and from one
        // client address; the library serves at most 32 connections.
        unsigned connectionLimit = 32;
        unsigned perAddressLimit = 16;
        // A request's headers must be complete this long after the connection is
        // ready for them; an idle kept connection is closed after it as well.
        unsigned headerTimeoutMs = 10000;
        // When full, a connection waiting this long for its headers gives way.
        unsigned crowdedGraceMs = 1000;
        // A request body or a response that makes no progress for this long ends
        // the connection (an unfinished upload is then abandoned).
        unsigned stallTimeoutSeconds = 20;
        unsigned retryAfterSeconds = 2;          // in the 503 for a connection over the limits
        int relayTimeoutMs = 60000;              // longest silence of the library within a request
        // A kept Unix connection is reused only within this idle time; the library
        // closes kept connections after about 10 s without a request.
        int relayReuseMs = 5000;
        // How long a library that refuses connections (full backlog, at its
        // limit, not listening yet) is retried before a request gets a 503.
        int connectRetryMs = 2000;
        // Users besides our own (and root) whose socket may be relayed to.
        std::vector<uid_t> trustedUids;
        // Messages about the service (an untrusted socket); standard error when empty.
        std::function<void(const std::string&)> log;

        // TLS: the server's certificate (chain) and private key in PEM. With
        // both set, clients may speak TLS on the same port (a connection's
        // first byte tells); with plainHttp false, clients must.
        std::string tlsCertificatePem;
        std::string tlsKeyPem;
        bool plainHttp = true;
        // HTTP Basic authentication of every IPP operation that is not a query
        // (see cmp_ipp_auth.h); none when null. The user's name goes to the
        // library in the REMOTE_USER field, the credentials themselves do not.
        // Credentials travel in the clear over plain HTTP, so there they are
        // taken from clients on this machine only: others get 403 and must use TLS.
        std::shared_ptr<const cmp_ipp_fe::BasicAuth> auth;
        std::string authRealm = "Printer";
    };

    explicit cmp_ipp_frontend(const Options& opts);
    ~cmp_ipp_frontend();
    cmp_ipp_frontend(const cmp_ipp_frontend&) = delete;
    cmp_ipp_frontend& operator=(const cmp_ipp_frontend&) = delete;

    // Binds the TCP port without accepting anything yet (clients are refused by
    // the system), so that port() is known before the service behind is up.
    // False (with a reason in *error) when the address is bad or the port cannot be bound.
    bool open(std::string* error = nullptr);
    // Opens if needed, then accepts and serves HTTP.
    bool start(std::string* error = nullptr);
    // Finishes or abandons requests in progress and closes every connection.
    void stop();
    // The bound TCP port (the real one when options::port was 0); 0 when not open.
    uint16_t port() const;
    // Whether ipps:// is served (a certificate and key were given); the HTTPS
    // side loads them when the first TLS client comes.
    bool tls() const;
    const std::string& socketPath() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

#endif
