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

namespace cmp_ipp_fe {

namespace {

int64_t nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// The watchdog looks at least this often; deadlines are kept to within it.
const int kWatchSliceMs = 200;
// A refused client gets this long to take the answer before the socket closes.
const int64_t kLingerMs = 2000;
// Refused sockets still lingering at once; beyond it they are closed at once.
const size_t kMaxLingering = 64;
const int kBacklog = 64;

std::string addressText(const struct sockaddr* sa, socklen_t length) {
    char host[NI_MAXHOST];
    if (getnameinfo(sa, length, host, sizeof host, nullptr, 0, NI_NUMERICHOST) != 0) return std::string();
    return host;
}

}  // namespace

// ---- admission_table ---------------------------------------------------------------

admission_table::entry* admission_table::find(uint64_t id) {
    for (entry& e : entries_)
        if (e.id == id) return &e;
    return nullptr;
}

admission_table::entry* admission_table::longestWaiting(const std::string* address, int64_t now,
                                                        const spare_fn& spare) {
    entry* best = nullptr;
    for (entry& e : entries_) {
        if (!e.counted || e.waitingSince < 0 || now - e.waitingSince < limits_.crowdedGraceMs) continue;
        if (address != nullptr && e.address != *address) continue;
        if (best != nullptr && e.waitingSince >= best->waitingSince) continue;
        if (spare && spare(e.id)) continue;
        best = &e;
    }
    return best;
}

uint64_t admission_table::admit(const std::string& address, int64_t now, uint64_t* evicted, const spare_fn& spare) {
    *evicted = 0;
    entry* victim = nullptr;
    if (limits_.perAddressLimit != 0 && countedFrom(address) >= limits_.perAddressLimit) {
        // Over its share: only one of the client's own connections can give way.
        victim = longestWaiting(&address, now, spare);
        if (victim == nullptr) return 0;
    } else if (counted() >= limits_.connectionLimit) {
        victim = longestWaiting(nullptr, now, spare);
        if (victim == nullptr) return 0;
    }
    if (victim != nullptr) {
        victim->counted = false;
        *evicted = victim->id;
    }
    entries_.push_back(entry{nextId_++, address, now, true});
    return entries_.back().id;
}

void admission_table::remove(uint64_t id) {
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(), [id](const entry& e) { return e.id == id; }),
                   entries_.end());
}

void admission_table::headersComplete(uint64_t id) {
    if (entry* e = find(id)) e->waitingSince = -1;
}

void admission_table::waitForRequest(uint64_t id, int64_t now) {
    if (entry* e = find(id)) e->waitingSince = now;
}

std::vector<uint64_t> admission_table::expire(int64_t now) {
    std::vector<uint64_t> out;
    for (entry& e : entries_) {
        if (e.counted && e.waitingSince >= 0 && now - e.waitingSince >= limits_.headerTimeoutMs) {
            e.counted = false;
            out.push_back(e.id);
        }
    }
    return out;
}

std::vector<uint64_t> admission_table::countedIds() const {
    std::vector<uint64_t> out;
    for (const entry& e : entries_)
        if (e.counted) out.push_back(e.id);
    return out;
}

void admission_table::discount(uint64_t id) {
    if (entry* e = find(id)) e->counted = false;
}

int64_t admission_table::nextDeadline() const {
    int64_t next = INT64_MAX;
    for (const entry& e : entries_)
        if (e.counted && e.waitingSince >= 0) next = std::min(next, e.waitingSince + limits_.headerTimeoutMs);
    return next;
}

size_t admission_table::counted() const {
    return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(), [](const entry& e) { return e.counted; }));
}

size_t admission_table::countedFrom(const std::string& address) const {
    return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(), [&address](const entry& e) {
        return e.counted && e.address == address;
    }));
}

// ---- connection_gate -----------------------------------------------------------------

connection_gate::connection_gate(const admission_limits& limits, unsigned retryAfterSeconds)
    : limits_(limits), retryAfterSeconds_(retryAfterSeconds), table_(limits) {}

connection_gate::~connection_gate() {
    stopAccepting();
    release();
}

bool connection_gate::open(const std::string& address, uint16_t port, std::string* error) {
    if (listenFd_ >= 0) return true;
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
        port_ = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<struct sockaddr_in6*>(&bound)->sin6_port
                                                  : reinterpret_cast<struct sockaddr_in*>(&bound)->sin_port);
    }
    listenFd_ = fd;
    return true;
}

bool connection_gate::start(hand_over handOver, std::string* error) {
    return start(std::move(handOver), nullptr, error);
}

bool connection_gate::start(hand_over plain, hand_over tls, std::string* error) {
    if (listenFd_ < 0) {
        if (error != nullptr) *error = "not bound";
        return false;
    }
    if (thread_.joinable()) return true;
    if (!plain && !tls) {
        if (error != nullptr) *error = "nowhere to hand connections over";
        return false;
    }
    if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (error != nullptr) *error = std::string("cannot create a pipe: ") + strerror(errno);
        return false;
    }
    if (listen(listenFd_, kBacklog) != 0) {
        if (error != nullptr) *error = std::string("cannot listen: ") + strerror(errno);
        ::close(wake_[0]);
        ::close(wake_[1]);
        wake_[0] = wake_[1] = -1;
        return false;
    }
    sniff_ = static_cast<bool>(tls);
    handOver_ = std::move(plain);
    tlsHandOver_ = std::move(tls);
    stopping_ = false;
    thread_ = std::thread([this] { run(); });
    return true;
}

void connection_gate::stopAccepting() {
    if (thread_.joinable()) {
        stopping_ = true;
        const char byte = 1;
        (void)!write(wake_[1], &byte, 1);
        thread_.join();
    }
    for (const lingering& l : lingering_) ::close(l.fd);
    lingering_.clear();
    for (const undecided& u : undecided_) dropAdmitted(u.fd, u.id);
    undecided_.clear();
    for (int& fd : wake_) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
    if (listenFd_ >= 0) ::close(listenFd_);
    listenFd_ = -1;
    port_ = 0;
}

void connection_gate::release() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& w : watch_) ::close(w.second.fd);
    watch_.clear();
    pending_.clear();
    table_ = admission_table(limits_);
}

uint64_t connection_gate::attach(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = pending_.find(fd);
    if (it == pending_.end()) return 0;
    const uint64_t id = it->second;
    pending_.erase(it);
    auto w = watch_.find(id);
    if (w != watch_.end()) w->second.attached = true;
    return id;
}

void connection_gate::headersComplete(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    table_.headersComplete(id);
}

void connection_gate::requestDone(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    table_.waitForRequest(id, nowMs());
}

void connection_gate::closed(uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    table_.remove(id);
    auto w = watch_.find(id);
    if (w != watch_.end()) {
        ::close(w->second.fd);
        watch_.erase(w);
    }
}

void connection_gate::cutLocked(uint64_t id) {
    auto w = watch_.find(id);
    if (w != watch_.end()) (void)shutdown(w->second.fd, SHUT_RDWR);
}

void connection_gate::refuse(int fd, int64_t now) {
    static const char kText[] = "Too many connections; try again later.\n";
    char head[256];
    const int n = snprintf(head, sizeof head,
                           "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\nContent-Length: %zu\r\n"
                           "Retry-After: %u\r\nConnection: close\r\n\r\n%s",
                           sizeof kText - 1, retryAfterSeconds_, kText);
    answerAndLinger(fd, head, static_cast<size_t>(n), now);
}

void connection_gate::answerAndLinger(int fd, const char* answer, size_t length, int64_t now) {
    // A fresh socket has an empty send buffer: the whole answer fits at once.
    (void)send(fd, answer, length, MSG_NOSIGNAL | MSG_DONTWAIT);
    (void)shutdown(fd, SHUT_WR);
    // Closing with the client's request unread would reset the connection and
    // could destroy the answer before the client reads it: read and drop what
    // comes until the client closes, for a short while.
    if (lingering_.size() >= kMaxLingering) {
        ::close(lingering_.front().fd);
        lingering_.erase(lingering_.begin());
    }
    lingering_.push_back(lingering{fd, now + kLingerMs});
}

uint64_t connection_gate::admitLocked(const std::string& address, int64_t now) {
    // Bytes waiting unread: the client has sent (maybe its whole request) and
    // the HTTP server has not come round to it yet.
    const admission_table::spare_fn unread = [this](uint64_t id) {
        auto it = watch_.find(id);
        int waiting = 0;
        return it != watch_.end() && ioctl(it->second.fd, FIONREAD, &waiting) == 0 && waiting > 0;
    };
    uint64_t evicted = 0;
    uint64_t id = table_.admit(address, now, &evicted, unread);
    if (id == 0) {
        std::vector<uint64_t> ids = table_.countedIds();
        std::vector<struct pollfd> fds;
        for (uint64_t w : ids) {
            auto it = watch_.find(w);
            fds.push_back({it != watch_.end() ? it->second.fd : -1, POLLRDHUP, 0});
        }
        bool gone = false;
        if (!fds.empty() && poll(fds.data(), fds.size(), 0) > 0) {
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
                table_.discount(ids[i]);
                cutLocked(ids[i]);
                gone = true;
            }
        }
        if (gone) id = table_.admit(address, now, &evicted, unread);
    }
    if (evicted != 0) cutLocked(evicted);
    return id;
}

void connection_gate::acceptAll(int64_t now) {
    for (int round = 0; round < kBacklog; ++round) {
        struct sockaddr_storage peer;
        socklen_t length = sizeof peer;
        const int fd = accept4(listenFd_, reinterpret_cast<struct sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        if (fd < 0) {
            // Out of descriptors or memory: the pending connection stays, and
            // polling again at once would only spin.
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) (void)poll(nullptr, 0, 50);
            return;  // EAGAIN: nothing more; other errors are the client's
        }
        const std::string address = addressText(reinterpret_cast<struct sockaddr*>(&peer), length);
        uint64_t id = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            const int watch = dup(fd);
            if (watch >= 0) id = admitLocked(address, now);
            if (id != 0) {
                (void)fcntl(watch, F_SETFD, FD_CLOEXEC);
                watch_[id] = watched{watch, false};
                pending_[fd] = id;
            } else if (watch >= 0) {
                ::close(watch);
            }
        }
        if (id == 0) {
            refuse(fd, now);
            continue;
        }
        if (sniff_) {
            // Counted from now on, so it is under the header deadline while the
            // client has yet to say which protocol it speaks.
            undecided u;
            u.fd = fd;
            u.id = id;
            std::memcpy(&u.peer, &peer, sizeof peer);
            u.length = length;
            undecided_.push_back(u);
            continue;
        }
        handOverAdmitted(fd, id, reinterpret_cast<struct sockaddr*>(&peer), length, false);
    }
}

void connection_gate::handOverAdmitted(int fd, uint64_t id, const struct sockaddr* peer, socklen_t length, bool tls) {
    const hand_over& to = tls ? tlsHandOver_ : handOver_;
    if (to(fd, peer, length)) return;
    // The socket is closed already; forget it unless the server reported it.
    std::lock_guard<std::mutex> lock(mutex_);
    auto w = watch_.find(id);
    if (w != watch_.end() && !w->second.attached) {
        ::close(w->second.fd);
        watch_.erase(w);
        table_.remove(id);
    }
    auto p = pending_.find(fd);
    if (p != pending_.end() && p->second == id) pending_.erase(p);
}

void connection_gate::dropAdmitted(int fd, uint64_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto w = watch_.find(id);
    if (w != watch_.end()) {
        ::close(w->second.fd);
        watch_.erase(w);
    }
    table_.remove(id);
    auto p = pending_.find(fd);
    if (p != pending_.end() && p->second == id) pending_.erase(p);
    ::close(fd);
}

void connection_gate::serviceUndecided(const std::vector<struct pollfd>& polled, size_t first, int64_t now) {
    static const char kText[] = "This printer takes HTTPS (ipps://) only; plain HTTP is off.\n";
    char answer[256];
    const int answerLength =
        snprintf(answer, sizeof answer,
                 "HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain\r\nContent-Length: %zu\r\n"
                 "Connection: close\r\n\r\n%s",
                 sizeof kText - 1, kText);
    std::vector<undecided> kept;
    for (size_t i = 0; i < undecided_.size(); ++i) {
        const undecided& u = undecided_[i];
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
        if (!tls && !handOver_) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                auto w = watch_.find(u.id);
                if (w != watch_.end()) {
                    ::close(w->second.fd);
                    watch_.erase(w);
                }
                table_.remove(u.id);
                pending_.erase(u.fd);
            }
            answerAndLinger(u.fd, answer, static_cast<size_t>(answerLength), now);
            continue;
        }
        handOverAdmitted(u.fd, u.id, reinterpret_cast<const struct sockaddr*>(&u.peer), u.length, tls);
    }
    undecided_.swap(kept);
}

void connection_gate::serviceLingering(const std::vector<struct pollfd>& polled, int64_t now) {
    // polled[2 + i] is lingering_[i] as it was when polled.
    std::vector<lingering> kept;
    for (size_t i = 0; i < lingering_.size(); ++i) {
        const short revents = i + 2 < polled.size() ? polled[i + 2].revents : 0;
        bool done = now >= lingering_[i].until;
        if (!done && revents != 0) {
            char sink[4096];
            const ssize_t n = recv(lingering_[i].fd, sink, sizeof sink, MSG_DONTWAIT);
            done = n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR);
        }
        if (done) {
            ::close(lingering_[i].fd);
        } else {
            kept.push_back(lingering_[i]);
        }
    }
    lingering_.swap(kept);
}

void connection_gate::run() {
    std::vector<struct pollfd> polled;
    while (!stopping_.load()) {
        int64_t now = nowMs();
        int64_t wakeAt = now + kWatchSliceMs;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            wakeAt = std::min(wakeAt, table_.nextDeadline());
        }
        polled.clear();
        polled.push_back({listenFd_, POLLIN, 0});
        polled.push_back({wake_[0], POLLIN, 0});
        for (const lingering& l : lingering_) {
            polled.push_back({l.fd, POLLIN, 0});
            wakeAt = std::min(wakeAt, l.until);
        }
        const size_t firstUndecided = polled.size();
        for (const undecided& u : undecided_) polled.push_back({u.fd, POLLIN, 0});
        const int timeout = static_cast<int>(std::max<int64_t>(0, wakeAt - now));
        if (poll(polled.data(), polled.size(), timeout) < 0 && errno != EINTR) continue;
        if (stopping_.load()) break;
        now = nowMs();
        serviceLingering(polled, now);
        serviceUndecided(polled, firstUndecided, now);
        if ((polled[0].revents & POLLIN) != 0) acceptAll(now);
        std::lock_guard<std::mutex> lock(mutex_);
        for (uint64_t id : table_.expire(now)) cutLocked(id);
    }
}

}  // namespace cmp_ipp_fe
