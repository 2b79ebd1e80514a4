// The HTTP front end: an HTTP/1.1 server on TCP that relays every request to the
// IPP library's Unix-domain socket (request record, body blocks) and turns the
// reply record back into an HTTP response. Runs its own threads; start() and
// stop() may be called from any thread, but not concurrently with each other.
#ifndef CMP_IPP_FRONTEND_H
#define CMP_IPP_FRONTEND_H

#include <stdint.h>

#include <memory>
#include <string>

class cmp_ipp_frontend {
public:
    struct options {
        std::string bindAddress = "127.0.0.1";  // numeric IPv4 or IPv6 address
        uint16_t port = 8631;                    // 0: any free port, see port()
        std::string socketPath;                  // empty: the library's own ($GEN_UNIX_PATH)
        std::string ippPath = "/ipp/print";      // "/" is served as well
        unsigned connectionLimit = 32;           // the library serves at most 32 connections
        unsigned idleTimeoutSeconds = 60;        // an idle HTTP connection is closed after this
        int relayTimeoutMs = 60000;              // longest silence of the library within a request
        // A kept Unix connection is reused only within this idle time; the library
        // closes kept connections after about 10 s without a request.
        int relayReuseMs = 5000;
    };

    explicit cmp_ipp_frontend(const options& opts);
    ~cmp_ipp_frontend();
    cmp_ipp_frontend(const cmp_ipp_frontend&) = delete;
    cmp_ipp_frontend& operator=(const cmp_ipp_frontend&) = delete;

    // False (with a reason in *error) when the address is bad or the port cannot be bound.
    bool start(std::string* error = nullptr);
    // Finishes or abandons requests in progress and closes every connection.
    void stop();
    bool running() const;
    // The bound TCP port (the real one when options::port was 0); 0 when not running.
    uint16_t port() const;
    const std::string& socketPath() const;

private:
    struct impl;
    std::unique_ptr<impl> m_impl;
};

#endif
