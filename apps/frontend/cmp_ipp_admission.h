// Admission of TCP connections ahead of the HTTP server. The front end accepts
// connections itself and decides there who gets in, because the HTTP server
// knows neither a deadline for a request's headers nor a share per client:
// 32 clients sending their headers a byte at a time would otherwise hold every
// connection the library can serve.
//
// The rules, with the defaults of AdmissionLimits:
// - at most 32 connections, and at most 16 from one client address;
// - a request's headers must be complete within 10 s of the connection being
//   ready for them (accepted, or the previous response sent); a kept
//   connection idle for that long is closed as well;
// - when the limit is reached, the connection that has waited longest for its
//   headers gives way to a new one, provided it has waited at least 1 s and
//   no bytes of it wait unread (then it is the server that is slow, not the
//   client); a client with a request under way is never pushed out; a connection whose
//   client has closed gives way at once (the HTTP server may not have noticed
//   yet, and a client that reconnects at once must not find its own old
//   connection in the way);
// - a connection that cannot be admitted gets a complete "503 Service
//   Unavailable" response with Retry-After and is closed, not dropped.
//
// Plain HTTP and TLS share the port: when both are served, an admitted
// connection waits (under the same header deadline) for its first byte, and a
// TLS handshake record goes to the TLS server, anything else to the plain one.
#ifndef CMP_IPP_ADMISSION_H
#define CMP_IPP_ADMISSION_H

#include <poll.h>
#include <stdint.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace cmp_ipp_fe {

struct AdmissionLimits {
    unsigned connectionLimit = 32;
    unsigned perAddressLimit = 16;  // 0: no share per address
    int64_t headerTimeoutMs = 10000;
    int64_t crowdedGraceMs = 1000;
};

// The bookkeeping alone, without sockets or threads; the caller serialises.
class AdmissionTable {
public:
    explicit AdmissionTable(const AdmissionLimits& limits) : m_limits(limits) {}

    // Connections that must not be pushed out although they look idle.
    using SpareFn = std::function<bool(uint64_t id)>;

    // The id of the admitted connection, or 0 when it is refused. When another
    // connection has to give way, its id goes to *evicted (else 0); it is no
    // longer counted from then on.
    uint64_t admit(const std::string& address, int64_t now, uint64_t* evicted, const SpareFn& spare = nullptr);
    void remove(uint64_t id);
    void headersComplete(uint64_t id);
    // The previous response is out: the connection waits for its next request.
    void waitForRequest(uint64_t id, int64_t now);
    // Connections whose headers are overdue at `now`; no longer counted.
    std::vector<uint64_t> expire(int64_t now);
    std::vector<uint64_t> countedIds() const;
    // No longer counted (its client has gone; the HTTP server has yet to notice).
    void discount(uint64_t id);
    // When expire() will next find something; INT64_MAX: never.
    int64_t nextDeadline() const;

    size_t counted() const;
    size_t countedFrom(const std::string& address) const;
    size_t size() const { return m_entries.size(); }

private:
    struct Entry {
        uint64_t id;
        std::string address;
        int64_t waitingSince;  // -1: headers complete, a request under way
        bool counted;
    };
    Entry* find(uint64_t id);
    // The counted connection (of `address`, or of anyone when null) that has
    // waited longest for its headers, at least the grace time; null if none.
    Entry* longestWaiting(const std::string* address, int64_t now, const SpareFn& spare);

    AdmissionLimits m_limits;
    std::vector<Entry> m_entries;
    uint64_t m_nextId = 1;
};

// The listening socket, the accepting thread with its watchdog, and the refusal
// of connections beyond the limits. Admitted sockets are handed over (to the
// HTTP server); the HTTP server reports back what happens to them.
class ConnectionGate {
public:
    // Takes an admitted socket; false when it could not (the socket is then closed).
    using HandOver = std::function<bool(int fd, const struct sockaddr* addr, socklen_t length)>;

    ConnectionGate(const AdmissionLimits& limits, unsigned retryAfterSeconds);
    ~ConnectionGate();
    ConnectionGate(const ConnectionGate&) = delete;
    ConnectionGate& operator=(const ConnectionGate&) = delete;

    // Binds the address and port without listening: connections are refused by
    // the system until start(). False with a reason in *error.
    bool open(const std::string& address, uint16_t port, std::string* error);
    bool isOpen() const { return m_listenFd >= 0; }
    uint16_t port() const { return m_port; }
    // Listens and starts accepting; every admitted connection goes to handOver.
    bool start(HandOver handOver, std::string* error);
    // The same, with TLS beside plain HTTP: the first byte a client sends
    // decides (0x16, a TLS handshake record, goes to tls). With plain null, a
    // client that does not start with TLS gets a short refusal.
    bool start(HandOver plain, HandOver tls, std::string* error);
    // Stops accepting and closes the listening socket; admitted connections stay.
    void stopAccepting();
    // Forgets every admitted connection (after the HTTP server has closed them).
    void release();

    // From the HTTP server. attach: the admission id of a socket handed over (0: unknown).
    uint64_t attach(int fd);
    void headersComplete(uint64_t id);
    void requestDone(uint64_t id);
    void closed(uint64_t id);

private:
    struct Lingering {
        int fd;
        int64_t until;
    };
    // Admitted, waiting for its first byte to say plain or TLS.
    struct Undecided {
        int fd;
        uint64_t id;
        struct sockaddr_storage peer;
        socklen_t length;
    };
    void run();
    void acceptAll(int64_t now);
    // Admission with the gate's lock held; when the limits say no, connections
    // whose clients have gone are written off and admission is tried again.
    uint64_t admitLocked(const std::string& address, int64_t now);
    void refuse(int fd, int64_t now);
    // Sends a complete answer, then reads and drops what the client sends
    // until it closes, for a short while (the answer must not be reset away).
    void answerAndLinger(int fd, const char* answer, size_t length, int64_t now);
    void serviceLingering(const std::vector<struct pollfd>& polled, int64_t now);
    // polled[first + i] is m_undecided[i].
    void serviceUndecided(const std::vector<struct pollfd>& polled, size_t first, int64_t now);
    // Hands an admitted socket over, or forgets it when that fails.
    void handOverAdmitted(int fd, uint64_t id, const struct sockaddr* peer, socklen_t length, bool tls);
    // Closes an admitted socket that was never handed over, and forgets it.
    void dropAdmitted(int fd, uint64_t id);
    // Ends a connection that has to go: its reads and writes fail at once.
    void cutLocked(uint64_t id);

    AdmissionLimits m_limits;
    unsigned m_retryAfterSeconds;
    int m_listenFd = -1;
    uint16_t m_port = 0;
    int m_wake[2] = {-1, -1};
    std::thread m_thread;
    std::atomic<bool> m_stopping{false};
    HandOver m_handOver;
    HandOver m_tlsHandOver;
    bool m_sniff = false;                // plain and TLS share the port
    std::vector<Lingering> m_lingering;  // accepting thread only
    std::vector<Undecided> m_undecided;  // accepting thread only

    mutable std::mutex m_mutex;  // guards what follows
    AdmissionTable m_table;
    // A duplicate of each admitted socket: lets the watchdog cut a connection
    // without ever touching a descriptor number the HTTP server has closed and
    // the system has given to a new connection.
    struct Watched {
        int fd;
        bool attached;  // the HTTP server reported the connection's start
    };
    std::map<uint64_t, Watched> m_watch;
    std::map<int, uint64_t> m_pending;  // socket handed over -> id, until attached
};

}  // namespace cmp_ipp_fe

#endif
