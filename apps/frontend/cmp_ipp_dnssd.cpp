// The announcer speaks to avahi-daemon over the system bus itself (see
// cmp_ipp_dbus.h), from one thread of its own that waits in poll() on the bus
// socket, a wake-up pipe and the retry timer. The members below the "poll
// thread" line are touched only there (or before start and after stop). What
// other threads may ask (name, announced) is kept apart under a mutex of its own.
#include "cmp_ipp_dnssd.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "cmp_ipp_dbus.h"

namespace cmp_ipp_fe {

namespace {

const char kBusName[] = "org.freedesktop.DBus";
const char kAvahi[] = "org.freedesktop.Avahi";
const char kServer[] = "org.freedesktop.Avahi.Server";
const char kGroup[] = "org.freedesktop.Avahi.EntryGroup";
const char kCollision[] = "org.freedesktop.Avahi.CollisionError";

// Avahi's server and entry-group states, as numbered on the bus.
enum { kServerRegistering = 1, kServerRunning = 2, kServerCollision = 3 };
enum { kGroupEstablished = 2, kGroupCollision = 3, kGroupFailure = 4 };

// How long a call to the bus or the daemon may take before the bus counts as lost.
constexpr int kCallMs = 5000;
// A DNS label: the longest service instance name.
constexpr size_t kLabelMax = 63;

int64_t nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

std::string systemBusPath() {
    const char* address = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (address != nullptr && *address != '\0') return dbus::socketPathOf(address);
    static const char* const kPaths[] = {"/run/dbus/system_bus_socket", "/var/run/dbus/system_bus_socket"};
    for (const char* p : kPaths) {
        if (access(p, F_OK) == 0) return p;
    }
    return kPaths[0];
}

}  // namespace

std::string alternativeServiceName(const std::string& name) {
    // A trailing " #N" (N a number without leading zero) counts on; anything
    // else gets " #2".
    std::string base = name;
    std::string number = "2";
    const size_t mark = name.rfind(" #");
    if (mark != std::string::npos && mark + 2 < name.size() && name[mark + 2] != '0' &&
        name.find_first_not_of("0123456789", mark + 2) == std::string::npos) {
        base = name.substr(0, mark);
        number = name.substr(mark + 2);
        size_t k = number.size();
        while (k > 0 && number[k - 1] == '9') number[--k] = '0';
        if (k == 0) {
            number.insert(number.begin(), '1');
        } else {
            ++number[k - 1];
        }
    }
    const std::string suffix = " #" + number;
    if (base.size() + suffix.size() > kLabelMax) {
        size_t keep = suffix.size() < kLabelMax ? kLabelMax - suffix.size() : 0;
        // Never cut a UTF-8 sequence: back up over continuation bytes.
        while (keep > 0 && (static_cast<unsigned char>(base[keep]) & 0xC0) == 0x80) --keep;
        base.resize(keep);
    }
    return base + suffix;
}

struct DnssdPublisher::Impl {
    explicit Impl(const Options& o) : opts(o), name(o.name) {}

    Options opts;
    std::thread thread;
    int wake[2] = {-1, -1};  // written by stop(): the thread leaves its poll
    bool running = false;

    // ---- poll thread ----
    dbus::Connection bus;
    bool connected = false;
    std::vector<dbus::Message> pending;  // read while a call waited
    std::string avahiOwner;  // the daemon's unique bus name; empty: no daemon
    std::string groupPath;   // our entry group, empty when there is none
    bool groupFilled = false;
    bool groupFailed = false;
    int64_t retryAt = -1;  // -1: no retry due
    std::string name;
    enum class Said { Nothing, NoDaemon, Waiting, Announced, Lost } lastSaid = Said::Nothing;

    // ---- any thread ----
    mutable std::mutex stateLock;
    std::string publicName;
    bool isAnnounced = false;

    void log(const std::string& m) const {
        if (opts.log) {
            opts.log(m);
        } else {
            fprintf(stderr, "%s\n", m.c_str());
        }
    }
    // Says what changed, once per change.
    void tell(Said what, const std::string& m) {
        if (what == lastSaid) return;
        lastSaid = what;
        log(m);
    }
    void publish(const std::string& n, bool established) {
        std::lock_guard<std::mutex> g(stateLock);
        publicName = n;
        isAnnounced = established;
    }
    std::string typesText() const {
        std::string t;
        for (const DnssdService& s : opts.services) t += (t.empty() ? "" : ", ") + s.type;
        return t;
    }
    int32_t interfaceIndex() const { return opts.interfaceIndex < 0 ? -1 : opts.interfaceIndex; }
    int32_t protocol() const {
        if (opts.family == AF_INET) return 0;
        return opts.family == AF_INET6 ? 1 : -1;
    }
    void retryIn(int ms) { retryAt = nowMs() + ms; }

    // ---- calls ----

    static dbus::Call busCall(const char* member) {
        dbus::Call c;
        c.destination = kBusName;
        c.path = "/org/freedesktop/DBus";
        c.interface = kBusName;
        c.member = member;
        return c;
    }
    // Never starts a daemon through bus activation: one that is not running
    // is waited for.
    dbus::Call avahiCall(const std::string& path, const char* interface, const char* member) const {
        dbus::Call c;
        c.flags = dbus::kNoAutoStart;
        c.destination = kAvahi;
        c.path = path;
        c.interface = interface;
        c.member = member;
        return c;
    }
    // False when the bus is gone (then closed); an error reply is a reply.
    bool call(const dbus::Call& c, dbus::Message& reply) {
        if (!bus.isOpen()) return false;
        if (!bus.call(c, reply, pending, kCallMs, wake[0])) {
            bus.close();
            return false;
        }
        return true;
    }
    // Calls an entry-group method whose reply carries nothing. 1 done, 0 an
    // error reply (its name in *error), -1 the bus is gone.
    int groupCall(dbus::Call c, std::string* error) {
        dbus::Message reply;
        if (!call(c, reply)) return -1;
        if (reply.type == dbus::kError) {
            if (error != nullptr) *error = reply.errorName + "\n" + dbus::errorText(reply);
            return 0;
        }
        return 1;
    }
    static std::string textOf(const std::string& error) {
        const size_t nl = error.find('\n');
        return nl == std::string::npos ? error : error.substr(nl + 1);
    }

    // ---- the bus and the daemon ----

    void connectBus() {
        std::string why;
        if (!bus.open(systemBusPath(), kCallMs, wake[0], &why)) {
            // No system bus at all: nothing to wait on but the timer.
            tell(Said::NoDaemon, "DNS-SD: not announced, no Avahi daemon (Daemon not running). The printer serves "
                                 "as usual and is announced once avahi-daemon runs.");
            retryIn(opts.retryMs);
            return;
        }
        connected = true;
        const std::string avahi = std::string("sender='") + kAvahi + "',type='signal',";
        const std::string rules[] = {
            std::string("sender='") + kBusName + "',type='signal',interface='" + kBusName +
                "',member='NameOwnerChanged',arg0='" + kAvahi + "'",
            avahi + "interface='" + kServer + "',member='StateChanged'",
            avahi + "interface='" + kGroup + "',member='StateChanged'",
        };
        for (const std::string& rule : rules) {
            dbus::Call c = busCall("AddMatch");
            dbus::Writer w;
            w.s(rule);
            c.signature = "s";
            c.body = w.bytes();
            dbus::Message reply;
            if (!call(c, reply)) return;
        }
        dbus::Call c = busCall("GetNameOwner");
        dbus::Writer w;
        w.s(kAvahi);
        c.signature = "s";
        c.body = w.bytes();
        dbus::Message reply;
        if (!call(c, reply)) return;
        dbus::Reader r(reply);
        const std::string owner = reply.type == dbus::kMethodReturn && reply.signature == "s" ? r.s() : "";
        if (r.ok() && !owner.empty()) {
            daemonAppeared(owner);
        } else {
            daemonMissing();
        }
    }

    void daemonAppeared(const std::string& owner) {
        avahiOwner = owner;
        dbus::Message reply;
        if (!call(avahiCall("/", kServer, "GetState"), reply)) return;
        dbus::Reader r(reply);
        const int32_t state = reply.type == dbus::kMethodReturn && reply.signature == "i" ? r.i() : -1;
        if (state < 0 || !r.ok()) {
            daemonMissing();
            return;
        }
        onServerState(state);
    }

    void daemonMissing() {
        avahiOwner.clear();
        dropGroup();
        if (lastSaid == Said::Announced) {
            tell(Said::Lost, "DNS-SD: the Avahi daemon went away; the printer serves on and is announced again when "
                             "the daemon returns.");
        } else {
            tell(Said::Waiting, "DNS-SD: not announced, avahi-daemon is not running. The printer serves as usual "
                                "and is announced once avahi-daemon runs.");
        }
    }

    void busLost() {
        connected = false;
        avahiOwner.clear();
        pending.clear();
        dropGroup();
        tell(Said::Lost, "DNS-SD: lost the Avahi daemon (Daemon connection failed); the printer serves on and is "
                         "announced again when it returns.");
        retryIn(0);
    }

    // The daemon forgets a group with its owner; ours is only forgotten here.
    void dropGroup() {
        groupPath.clear();
        groupFilled = false;
        groupFailed = false;
        publish(name, false);
    }

    void resetGroup() {
        if (!groupPath.empty()) groupCall(avahiCall(groupPath, kGroup, "Reset"), nullptr);
        groupFilled = false;
        groupFailed = false;
    }

    void onServerState(int32_t state) {
        if (state == kServerRunning) {
            registerServices();
        } else if (state == kServerCollision || state == kServerRegistering) {
            // The host's own name is being settled: announce again once it is.
            resetGroup();
            publish(name, false);
        }
    }

    void registerServices() {
        if (avahiOwner.empty()) return;
        if (groupPath.empty()) {
            dbus::Message reply;
            if (!call(avahiCall("/", kServer, "EntryGroupNew"), reply)) return;
            dbus::Reader r(reply);
            const std::string path = reply.type == dbus::kMethodReturn && reply.signature == "o" ? r.s() : "";
            if (!r.ok() || path.empty()) {
                log("DNS-SD: cannot announce: " + dbus::errorText(reply));
                retryIn(opts.retryMs);
                return;
            }
            groupPath = path;
            groupFilled = false;
        }
        if (groupFilled) return;
        // A name already announced from this machine (another printer) is
        // refused here at once, rather than reported as a collision later.
        for (int attempt = 0; attempt < 20; ++attempt) {
            std::string error;
            const int rc = addAll(&error);
            if (rc < 0) return;
            if (rc > 0) break;
            if (error.compare(0, sizeof kCollision - 1, kCollision) != 0 || error[sizeof kCollision - 1] != '\n') {
                log("DNS-SD: cannot announce: " + textOf(error));
                resetGroup();
                retryIn(opts.retryMs);
                return;
            }
            rename();
            resetGroup();
        }
        std::string error;
        const int rc = groupCall(avahiCall(groupPath, kGroup, "Commit"), &error);
        if (rc < 0) return;
        if (rc == 0) {
            log("DNS-SD: cannot announce: " + textOf(error));
            retryIn(opts.retryMs);
            return;
        }
        groupFilled = true;
    }

    // 1 all added, 0 an error reply (in *error), -1 the bus is gone.
    int addAll(std::string* error) {
        for (const DnssdService& s : opts.services) {
            dbus::Call c = avahiCall(groupPath, kGroup, "AddService");
            dbus::Writer w;
            w.i(interfaceIndex());
            w.i(protocol());
            w.u(0);
            w.s(name);
            w.s(s.type);
            w.s("");  // the default domain
            w.s("");  // this host
            w.q(s.port);
            w.aay(s.txt);
            c.signature = "iiussssqaay";
            c.body = w.bytes();
            int rc = groupCall(c, error);
            if (rc <= 0) return rc;
            for (const std::string& sub : s.subtypes) {
                dbus::Call sc = avahiCall(groupPath, kGroup, "AddServiceSubtype");
                dbus::Writer sw;
                sw.i(interfaceIndex());
                sw.i(protocol());
                sw.u(0);
                sw.s(name);
                sw.s(s.type);
                sw.s("");
                sw.s(sub);
                sc.signature = "iiussss";
                sc.body = sw.bytes();
                rc = groupCall(sc, error);
                if (rc <= 0) return rc;
            }
        }
        return 1;
    }

    void rename() {
        const std::string old = name;
        name = alternativeServiceName(name);
        log("DNS-SD: the name \"" + old + "\" is taken; announcing as \"" + name + "\"");
        publish(name, false);
    }

    void onGroupState(int32_t state, const std::string& error) {
        switch (state) {
        case kGroupEstablished:
            publish(name, true);
            lastSaid = Said::Nothing;  // so that a later loss is told
            tell(Said::Announced, "DNS-SD: announced as \"" + name + "\" (" + typesText() + ")");
            break;
        case kGroupCollision:
            // Someone else on the network has the name.
            rename();
            resetGroup();
            registerServices();
            break;
        case kGroupFailure:
            log("DNS-SD: announcement failed: " + error + "; trying again");
            publish(name, false);
            groupFailed = true;
            retryIn(opts.retryMs);
            break;
        default:
            break;
        }
    }

    void handle(const dbus::Message& m) {
        if (m.type != dbus::kSignal) return;
        dbus::Reader r(m);
        if (m.interface == kBusName && m.member == "NameOwnerChanged" && m.sender == kBusName && m.signature == "sss") {
            const std::string who = r.s();
            r.s();
            const std::string owner = r.s();
            if (!r.ok() || who != kAvahi) return;
            if (owner.empty()) {
                daemonMissing();
            } else if (owner != avahiOwner) {
                // A new daemon knows nothing of the old one's groups.
                dropGroup();
                daemonAppeared(owner);
            }
            return;
        }
        if (avahiOwner.empty() || m.sender != avahiOwner || m.member != "StateChanged" || m.signature != "is") return;
        const int32_t state = r.i();
        const std::string error = r.s();
        if (!r.ok()) return;
        if (m.interface == kServer && m.path == "/") {
            onServerState(state);
        } else if (m.interface == kGroup && !groupPath.empty() && m.path == groupPath) {
            onGroupState(state, error);
        }
    }

    void onRetry() {
        if (!bus.isOpen()) {
            connectBus();
            return;
        }
        if (avahiOwner.empty()) return;  // NameOwnerChanged tells when it comes
        if (groupFailed) resetGroup();
        registerServices();
    }

    void run() {
        retryAt = nowMs();
        for (;;) {
            if (connected && !bus.isOpen()) busLost();
            if (!pending.empty()) {
                std::vector<dbus::Message> now;
                now.swap(pending);
                for (const dbus::Message& m : now) {
                    if (bus.isOpen()) handle(m);
                }
                continue;
            }
            if (retryAt >= 0 && nowMs() >= retryAt) {
                retryAt = -1;
                onRetry();
                continue;
            }
            struct pollfd p[2] = {{wake[0], POLLIN, 0}, {bus.fd(), POLLIN, 0}};
            const int64_t wait = retryAt < 0 ? -1 : retryAt - nowMs();
            const int n = poll(p, 2, wait < 0 ? -1 : static_cast<int>(wait > 60000 ? 60000 : wait));
            if (n < 0) continue;  // EINTR
            if ((p[0].revents & POLLIN) != 0) break;
            if (p[1].revents != 0) {
                std::vector<dbus::Message> got;
                bus.receive(got);
                for (const dbus::Message& m : got) {
                    if (bus.isOpen()) handle(m);
                }
            }
        }
        // Withdraws the services: freeing the group says so at once (the
        // daemon would also drop it when our connection closes).
        if (bus.isOpen() && !groupPath.empty()) {
            dbus::Message reply;
            bus.call(avahiCall(groupPath, kGroup, "Free"), reply, pending, 1000, -1);
        }
        bus.close();
        connected = false;
        avahiOwner.clear();
        pending.clear();
        dropGroup();
    }
};

DnssdPublisher::DnssdPublisher(const Options& opts) : m_impl(new Impl(opts)) {
    m_impl->publicName = opts.name;
}

DnssdPublisher::~DnssdPublisher() { stop(); }

bool DnssdPublisher::start(std::string* error) {
    Impl& d = *m_impl;
    if (d.running) return true;
    if (pipe2(d.wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (error != nullptr) *error = "cannot start the DNS-SD thread";
        return false;
    }
    try {
        d.thread = std::thread([&d] { d.run(); });
    } catch (...) {
        close(d.wake[0]);
        close(d.wake[1]);
        d.wake[0] = d.wake[1] = -1;
        if (error != nullptr) *error = "cannot start the DNS-SD thread";
        return false;
    }
    d.running = true;
    return true;
}

void DnssdPublisher::stop() {
    Impl& d = *m_impl;
    if (!d.running) return;
    const char c = 1;
    while (write(d.wake[1], &c, 1) < 0 && errno == EINTR) {
    }
    d.thread.join();
    close(d.wake[0]);
    close(d.wake[1]);
    d.wake[0] = d.wake[1] = -1;
    d.running = false;
}

std::string DnssdPublisher::name() const {
    std::lock_guard<std::mutex> g(m_impl->stateLock);
    return m_impl->publicName;
}

bool DnssdPublisher::announced() const {
    std::lock_guard<std::mutex> g(m_impl->stateLock);
    return m_impl->isAnnounced;
}

}  // namespace cmp_ipp_fe
