// Admission of TCP connections ahead of the HTTP server. The front end accepts
// connections itself and decides there who gets in, because the HTTP server
// knows neither a deadline for a request's headers nor a share per client:
// 32 clients sending their headers a byte at a time would otherwise hold every
// connection the library can serve.
//
// The rules, with the defaults of admission_limits:
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

struct admission_limits {
    unsigned connectionLimit = 32;
    unsigned perAddressLimit = 16;  // 0: no share per address
    int64_t headerTimeoutMs = 10000;
    int64_t crowdedGraceMs = 1000;
};

// The bookkeeping alone, without sockets or threads; the caller serialises.
class admission_table {
public:
    explicit admission_table(const admission_limits& limits) : limits_(limits) {}

    // Connections that must not be pushed out although they look idle.
    using spare_fn = std::function<bool(uint64_t id)>;

    // The id of the admitted connection, or 0 when it is refused. When another
    // connection has to give way, its id goes to *evicted (else 0); it is no
    // longer counted from then on.
    uint64_t admit(const std::string& address, int64_t now, uint64_t* evicted, const spare_fn& spare = nullptr);
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
    size_t size() const { return entries_.size(); }

private:
    struct entry {
        uint64_t id;
        std::string address;
        int64_t waitingSince;  // -1: headers complete, a request under way
        bool counted;
    };
    entry* find(uint64_t id);
    // The counted connection (of `address`, or of anyone when null) that has
    // waited longest for its headers, at least the grace time; null if none.
    entry* longestWaiting(const std::string* address, int64_t now, const spare_fn& spare);

    admission_limits limits_;
    std::vector<entry> entries_;
    uint64_t nextId_ = 1;
};

// The listening socket, the accepting thread with its watchdog, and the refusal
// of connections beyond the limits. Admitted sockets are handed over (to the
// HTTP server); the HTTP server reports back what happens to them.
class connection_gate {
public:
    // Takes an admitted socket; false when it could not (the socket is then closed).
    using hand_over = std::function<bool(int fd, const struct sockaddr* addr, socklen_t length)>;

    connection_gate(const admission_limits& limits, unsigned retryAfterSeconds);
    ~connection_gate();
    connection_gate(const connection_gate&) = delete;
    connection_gate& operator=(const connection_gate&) = delete;

    // Binds the address and port without listening: connections are refused by
    // the system until start(). False with a reason in *error.
    bool open(const std::string& address, uint16_t port, std::string* error);
    bool isOpen() const { return listenFd_ >= 0; }
    uint16_t port() const { return port_; }
    // Listens and starts accepting; every admitted connection goes to handOver.
    bool start(hand_over handOver, std::string* error);
    // The same, with TLS beside plain HTTP: the first byte a client sends
    // decides (0x16, a TLS handshake record, goes to tls). With plain null, a
    // client that does not start with TLS gets a short refusal.
    bool start(hand_over plain, hand_over tls, std::string* error);
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
    struct lingering {
        int fd;
        int64_t until;
    };
    // Admitted, waiting for its first byte to say plain or TLS.
    struct undecided {
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
    // polled[first + i] is undecided_[i].
    void serviceUndecided(const std::vector<struct pollfd>& polled, size_t first, int64_t now);
    // Hands an admitted socket over, or forgets it when that fails.
    void handOverAdmitted(int fd, uint64_t id, const struct sockaddr* peer, socklen_t length, bool tls);
    // Closes an admitted socket that was never handed over, and forgets it.
    void dropAdmitted(int fd, uint64_t id);
    // Ends a connection that has to go: its reads and writes fail at once.
    void cutLocked(uint64_t id);

    admission_limits limits_;
    unsigned retryAfterSeconds_;
    int listenFd_ = -1;
    uint16_t port_ = 0;
    int wake_[2] = {-1, -1};
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    hand_over handOver_;
    hand_over tlsHandOver_;
    bool sniff_ = false;                // plain and TLS share the port
    std::vector<lingering> lingering_;  // accepting thread only
    std::vector<undecided> undecided_;  // accepting thread only

    mutable std::mutex mutex_;  // guards what follows
    admission_table table_;
    // A duplicate of each admitted socket: lets the watchdog cut a connection
    // without ever touching a descriptor number the HTTP server has closed and
    // the system has given to a new connection.
    struct watched {
        int fd;
        bool attached;  // the HTTP server reported the connection's start
    };
    std::map<uint64_t, watched> watch_;
    std::map<int, uint64_t> pending_;  // socket handed over -> id, until attached
};

}  // namespace cmp_ipp_fe

#endif
