#include "cmp_ipp_admission.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include "cmp_ipp_clock.h"

namespace cmp_ipp_fe {

namespace {

using cmp_ipp_app::nowMs;

// The watchdog looks at least this often; deadlines are kept to within it.
const int kWatchSliceMs = 200;
// A refused client gets this long to take the answer before the socket closes.
const int64_t kLingerMs = 2000;
// Refused sockets still lingering at once; beyond it they are closed at once.
const size_t kMaxLingering = 64;
const int kBacklog = 64;
// At the limit, how long to wait for a counted client's close to show before
// refusing: a client that closes and at once connects again can have its new
// connection accepted before its old one's FIN has been processed.
const int kCloseGraceMs = 5;

std::string addressText(const struct sockaddr* sa, socklen_t length) {
    char host[NI_MAXHOST];
    if (getnameinfo(sa, length, host, sizeof host, nullptr, 0, NI_NUMERICHOST) != 0) return std::string();
    return host;
}

}  // namespace

// ---- AdmissionTable ---------------------------------------------------------------

AdmissionTable::Entry* AdmissionTable::find(uint64_t id) {
    for (Entry& e : m_entries)
        if (e.id == id) return &e;
    return nullptr;
}

AdmissionTable::Entry* AdmissionTable::longestWaiting(const std::string* address, int64_t now,
                                                        const SpareFn& spare) {
    Entry* best = nullptr;
    for (Entry& e : m_entries) {
        if (!e.counted || e.waitingSince < 0 || now - e.waitingSince < m_limits.crowdedGraceMs) continue;
        if (address != nullptr && e.address != *address) continue;
        if (best != nullptr && e.waitingSince >= best->waitingSince) continue;
        if (spare && spare(e.id)) continue;
        best = &e;
    }
    return best;
}

uint64_t AdmissionTable::admit(const std::string& address, int64_t now, uint64_t* evicted, const SpareFn& spare) {
    *evicted = 0;
    Entry* victim = nullptr;
    if (m_limits.perAddressLimit != 0 && countedFrom(address) >= m_limits.perAddressLimit) {
        // Over its share: only one of the client's own connections can give way.
        victim = longestWaiting(&address, now, spare);
        if (victim == nullptr) return 0;
    } else if (counted() >= m_limits.connectionLimit) {
        victim = longestWaiting(nullptr, now, spare);
        if (victim == nullptr) return 0;
    }
    if (victim != nullptr) {
        victim->counted = false;
        *evicted = victim->id;
    }
    m_entries.push_back(Entry{m_nextId++, address, now, true});
    return m_entries.back().id;
}

void AdmissionTable::remove(uint64_t id) {
    m_entries.erase(std::remove_if(m_entries.begin(), m_entries.end(), [id](const Entry& e) { return e.id == id; }),
                   m_entries.end());
}

void AdmissionTable::headersComplete(uint64_t id) {
    if (Entry* e = find(id)) e->waitingSince = -1;
}

void AdmissionTable::waitForRequest(uint64_t id, int64_t now) {
    if (Entry* e = find(id)) e->waitingSince = now;
}

std::vector<uint64_t> AdmissionTable::expire(int64_t now) {
    std::vector<uint64_t> out;
    for (Entry& e : m_entries) {
        if (e.counted && e.waitingSince >= 0 && now - e.waitingSince >= m_limits.headerTimeoutMs) {
            e.counted = false;
            out.push_back(e.id);
        }
    }
    return out;
}

std::vector<uint64_t> AdmissionTable::countedIds() const {
    std::vector<uint64_t> out;
    for (const Entry& e : m_entries)
        if (e.counted) out.push_back(e.id);
    return out;
}

void AdmissionTable::discount(uint64_t id) {
    if (Entry* e = find(id)) e->counted = false;
}

int64_t AdmissionTable::nextDeadline() const {
    int64_t next = INT64_MAX;
    for (const Entry& e : m_entries)
        if (e.counted && e.waitingSince >= 0) next = std::min(next, e.waitingSince + m_limits.headerTimeoutMs);
    return next;
}

size_t AdmissionTable::counted() const {
    return static_cast<size_t>(std::count_if(m_entries.begin(), m_entries.end(), [](const Entry& e) { return e.counted; }));
}

size_t AdmissionTable::countedFrom(const std::string& address) const {
    return static_cast<size_t>(std::count_if(m_entries.begin(), m_entries.end(), [&address](const Entry& e) {
        return e.counted && e.address == address;
    }));
}

// ---- ConnectionGate -----------------------------------------------------------------

ConnectionGate::ConnectionGate(const AdmissionLimits& limits, unsigned retryAfterSeconds)
    : m_limits(limits), m_retryAfterSeconds(retryAfterSeconds), m_table(limits) {}

ConnectionGate::~ConnectionGate() {
    stopAccepting();
    release();
}

bool ConnectionGate::open(const std::string& address, uint16_t port, std::string* error) {
    if (m_listenFd >= 0) return true;
    struct sockaddr_storage addr;
    std::memset(&addr, 0, sizeof addr);
    socklen_t length = 0;
    struct sockaddr_in* a4 = reinterpret_cast<struct sockaddr_in*>(&addr);
    struct sockaddr_in6* a6 = reinterpret_cast<struct sockaddr_in6*>(&addr);
    if (inet_pton(AF_INET, address.c_str(), &a4->sin_addr) == 1) {
        a4->sin_family = AF_INET;
        a4->sin_port = htons(port);
        length = sizeof *a4;
    } else if (inet_pton(AF_INET6, address.c_str(), &a6->sin6_addr) == 1) {
        a6->sin6_family = AF_INET6;
        a6->sin6_port = htons(port);
        length = sizeof *a6;
    } else {
        if (error != nullptr) *error = "not a numeric address: " + address;
        return false;
    }
    const int fd = socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        if (error != nullptr) *error = std::string("cannot create a socket: ") + strerror(errno);
        return false;
    }
    int one = 1;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (addr.ss_family == AF_INET6) (void)setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), length) != 0) {
        if (error != nullptr)
            *error = "cannot listen on " + address + " port " + std::to_string(port) + ": " + strerror(errno);
        ::close(fd);
        return false;
    }
    struct sockaddr_storage bound;
    socklen_t boundLength = sizeof bound;
    if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&bound), &boundLength) == 0) {
        m_port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<struct sockaddr_in6*>(&bound)->sin6_port
                                                  : reinterpret_cast<struct sockaddr_in*>(&bound)->sin_port);
    }
    m_listenFd = fd;
    return true;
}

bool ConnectionGate::start(HandOver handOver, std::string* error) {
    return start(std::move(handOver), nullptr, error);
}

bool ConnectionGate::start(HandOver plain, HandOver tls, std::string* error) {
    if (m_listenFd < 0) {
        if (error != nullptr) *error = "not bound";
        return false;
    }
    if (m_thread.joinable()) return true;
    if (!plain && !tls) {
        if (error != nullptr) *error = "nowhere to hand connections over";
        return false;
    }
    if (pipe2(m_wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (error != nullptr) *error = std::string("cannot create a pipe: ") + strerror(errno);
        return false;
    }
    if (listen(m_listenFd, kBacklog) != 0) {
        if (error != nullptr) *error = std::string("cannot listen: ") + strerror(errno);
        ::close(m_wake[0]);
        ::close(m_wake[1]);
        m_wake[0] = m_wake[1] = -1;
        return false;
    }
    m_sniff = static_cast<bool>(tls);
    m_handOver = std::move(plain);
    m_tlsHandOver = std::move(tls);
    m_stopping = false;
    m_thread = std::thread([this] { run(); });
    return true;
}

void ConnectionGate::stopAccepting() {
    if (m_thread.joinable()) {
        m_stopping = true;
        const char byte = 1;
        (void)!write(m_wake[1], &byte, 1);
        m_thread.join();
    }
    for (const Lingering& l : m_lingering) ::close(l.fd);
    m_lingering.clear();
    for (const Undecided& u : m_undecided) dropAdmitted(u.fd, u.id);
    m_undecided.clear();
    for (int& fd : m_wake) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    if (m_listenFd >= 0) ::close(m_listenFd);
    m_listenFd = -1;
    m_port = 0;
}

void ConnectionGate::release() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& w : m_watch) ::close(w.second.fd);
    m_watch.clear();
    m_pending.clear();
    m_table = AdmissionTable(m_limits);
}

uint64_t ConnectionGate::attach(int fd) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_pending.find(fd);
    if (it == m_pending.end()) return 0;
    const uint64_t id = it->second;
    m_pending.erase(it);
    auto w = m_watch.find(id);
    if (w != m_watch.end()) w->second.attached = true;
    return id;
}

void ConnectionGate::headersComplete(uint64_t id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_table.headersComplete(id);
}

void ConnectionGate::requestDone(uint64_t id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_table.waitForRequest(id, nowMs());
}

void ConnectionGate::closed(uint64_t id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_table.remove(id);
    auto w = m_watch.find(id);
    if (w != m_watch.end()) {
        ::close(w->second.fd);
        m_watch.erase(w);
    }
}

void ConnectionGate::cutLocked(uint64_t id) {
    auto w = m_watch.find(id);
    if (w != m_watch.end()) (void)shutdown(w->second.fd, SHUT_RDWR);
}

void ConnectionGate::refuse(int fd, int64_t now) {
    static const char kText[] = "Too many connections; try again later.\n";
    char head[256];
    const int n = snprintf(head, sizeof head,
                           "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\nContent-Length: %zu\r\n"
                           "Retry-After: %u\r\nConnection: close\r\n\r\n%s",
                           sizeof kText - 1, m_retryAfterSeconds, kText);
    answerAndLinger(fd, head, static_cast<size_t>(n), now);
}

void ConnectionGate::answerAndLinger(int fd, const char* answer, size_t length, int64_t now) {
    // A fresh socket has an empty send buffer: the whole answer fits at once.
    (void)send(fd, answer, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)shutdown(fd, SHUT_WR);
    // Closing with the client's request unread would reset the connection and
    // could destroy the answer before the client reads it: read and drop what
    // comes until the client closes, for a short while.
    if (m_lingering.size() >= kMaxLingering) {
        ::close(m_lingering.front().fd);
        m_lingering.erase(m_lingering.begin());
    }
    m_lingering.push_back(Lingering{fd, now + kLingerMs});
}

uint64_t ConnectionGate::admitLocked(const std::string& address, int64_t now) {
    // Bytes waiting unread: the client has sent (maybe its whole request) and
    // the HTTP server has not come round to it yet.
    const AdmissionTable::SpareFn unread = [this](uint64_t id) {
        auto it = m_watch.find(id);
        int waiting = 0;
        return it != m_watch.end() && ioctl(it->second.fd, FIONREAD, &waiting) == 0 && waiting > 0;
    };
    uint64_t evicted = 0;
    uint64_t id = m_table.admit(address, now, &evicted, unread);
    if (id == 0) {
        std::vector<uint64_t> ids = m_table.countedIds();
        std::vector<struct pollfd> fds;
        for (uint64_t w : ids) {
            auto it = m_watch.find(w);
            fds.push_back({it != m_watch.end() ? it->second.fd : -1, POLLRDHUP, 0});
        }
        bool gone = false;
        if (!fds.empty() && poll(fds.data(), fds.size(), kCloseGraceMs) > 0) {
            for (size_t i = 0; i < fds.size(); ++i) {
                if ((fds[i].revents & (POLLRDHUP | POLLHUP | POLLERR)) == 0) continue;
                // Its client has closed. The response may just have gone out with
                // the HTTP server yet to report it: such a client reconnecting at
                // once must not find its own old connection in the way. A client
                // that sent its request and then shut down its side is not gone:
                // its request is still to be read.
                int unread = 0;
                if ((fds[i].revents & (POLLHUP | POLLERR)) == 0 && ioctl(fds[i].fd, FIONREAD, &unread) == 0 &&
                    unread > 0)
                    continue;
                m_table.discount(ids[i]);
                cutLocked(ids[i]);
                gone = true;
            }
        }
        if (gone) id = m_table.admit(address, now, &evicted, unread);
    }
    if (evicted != 0) cutLocked(evicted);
    return id;
}

void ConnectionGate::acceptAll(int64_t now) {
    for (int round = 0; round < kBacklog; ++round) {
        struct sockaddr_storage peer;
        socklen_t length = sizeof peer;
        const int fd = accept4(m_listenFd, reinterpret_cast<struct sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        if (fd < 0) {
            // Out of descriptors or memory: the pending connection stays, and
            // polling again at once would only spin.
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) (void)poll(nullptr, 0, 50);
            return;  // EAGAIN: nothing more; other errors are the client's
        }
        const std::string address = addressText(reinterpret_cast<struct sockaddr*>(&peer), length);
        uint64_t id = 0;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            const int watch = dup(fd);
            if (watch >= 0) id = admitLocked(address, now);
            if (id != 0) {
                (void)fcntl(watch, F_SETFD, FD_CLOEXEC);
                m_watch[id] = Watched{watch, false};
                m_pending[fd] = id;
            } else if (watch >= 0) {
                ::close(watch);
            }
        }
        if (id == 0) {
            refuse(fd, now);
            continue;
        }
        if (m_sniff) {
            // Counted from now on, so it is under the header deadline while the
            // client has yet to say which protocol it speaks.
            Undecided u;
            u.fd = fd;
            u.id = id;
            std::memcpy(&u.peer, &peer, sizeof peer);
            u.length = length;
            m_undecided.push_back(u);
            continue;
        }
        handOverAdmitted(fd, id, reinterpret_cast<struct sockaddr*>(&peer), length, false);
    }
}

void ConnectionGate::handOverAdmitted(int fd, uint64_t id, const struct sockaddr* peer, socklen_t length, bool tls) {
    const HandOver& to = tls ? m_tlsHandOver : m_handOver;
    if (to(fd, peer, length)) return;
    // The socket is closed already; forget it unless the server reported it.
    std::lock_guard<std::mutex> lock(m_mutex);
    auto w = m_watch.find(id);
    if (w != m_watch.end() && !w->second.attached) {
        ::close(w->second.fd);
        m_watch.erase(w);
        m_table.remove(id);
    }
    auto p = m_pending.find(fd);
    if (p != m_pending.end() && p->second == id) m_pending.erase(p);
}

void ConnectionGate::dropAdmitted(int fd, uint64_t id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto w = m_watch.find(id);
    if (w != m_watch.end()) {
        ::close(w->second.fd);
        m_watch.erase(w);
    }
    m_table.remove(id);
    auto p = m_pending.find(fd);
    if (p != m_pending.end() && p->second == id) m_pending.erase(p);
    ::close(fd);
}

void ConnectionGate::serviceUndecided(const std::vector<struct pollfd>& polled, size_t first, int64_t now) {
    static const char kText[] = "This printer takes HTTPS (ipps://) only; plain HTTP is off.\n";
    char answer[256];
    const int answerLength =
        snprintf(answer, sizeof answer,
                 "HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain\r\nContent-Length: %zu\r\n"
                 "Connection: close\r\n\r\n%s",
                 sizeof kText - 1, kText);
    std::vector<Undecided> kept;
    for (size_t i = 0; i < m_undecided.size(); ++i) {
        const Undecided& u = m_undecided[i];
        const short revents = first + i < polled.size() ? polled[first + i].revents : 0;
        if (revents == 0) {
            kept.push_back(u);
            continue;
        }
        unsigned char byte = 0;
        const ssize_t n = recv(u.fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            kept.push_back(u);
            continue;
        }
        if (n != 1) {
            // Gone before saying anything (or cut by the watchdog at its deadline).
            dropAdmitted(u.fd, u.id);
            continue;
        }
        const bool tls = byte == 0x16;
        if (!tls && !m_handOver) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                auto w = m_watch.find(u.id);
                if (w != m_watch.end()) {
                    ::close(w->second.fd);
                    m_watch.erase(w);
                }
                m_table.remove(u.id);
                m_pending.erase(u.fd);
            }
            answerAndLinger(u.fd, answer, static_cast<size_t>(answerLength), now);
            continue;
        }
        handOverAdmitted(u.fd, u.id, reinterpret_cast<const struct sockaddr*>(&u.peer), u.length, tls);
    }
    m_undecided.swap(kept);
}

void ConnectionGate::serviceLingering(const std::vector<struct pollfd>& polled, int64_t now) {
    // polled[2 + i] is m_lingering[i] as it was when polled.
    std::vector<Lingering> kept;
    for (size_t i = 0; i < m_lingering.size(); ++i) {
        const short revents = i + 2 < polled.size() ? polled[i + 2].revents : 0;
        bool done = now >= m_lingering[i].until;
        if (!done && revents != 0) {
            char sink[4096];
            const ssize_t n = recv(m_lingering[i].fd, sink, sizeof sink, MSG_DONTWAIT);
            done = n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR);
        }
        if (done) {
            ::close(m_lingering[i].fd);
        } else {
            kept.push_back(m_lingering[i]);
        }
    }
    m_lingering.swap(kept);
}

void ConnectionGate::run() {
    std::vector<struct pollfd> polled;
    while (!m_stopping.load()) {
        int64_t now = nowMs();
        int64_t wakeAt = now + kWatchSliceMs;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            wakeAt = std::min(wakeAt, m_table.nextDeadline());
        }
        polled.clear();
        polled.push_back({m_listenFd, POLLIN, 0});
        polled.push_back({m_wake[0], POLLIN, 0});
        for (const Lingering& l : m_lingering) {
            polled.push_back({l.fd, POLLIN, 0});
            wakeAt = std::min(wakeAt, l.until);
        }
        const size_t firstUndecided = polled.size();
        for (const Undecided& u : m_undecided) polled.push_back({u.fd, POLLIN, 0});
        const int timeout = static_cast<int>(std::max<int64_t>(0, wakeAt - now));
        if (poll(polled.data(), polled.size(), timeout) < 0 && errno != EINTR) continue;
        if (m_stopping.load()) break;
        now = nowMs();
        serviceLingering(polled, now);
        serviceUndecided(polled, firstUndecided, now);
        if ((polled[0].revents & POLLIN) != 0) acceptAll(now);
        std::lock_guard<std::mutex> lock(m_mutex);
        for (uint64_t id : m_table.expire(now)) cutLocked(id);
    }
}

}  // namespace cmp_ipp_fe
