// Everything Avahi calls back runs in the threaded poll's own thread, with the
// poll's lock held; the members below the "poll thread" line are touched only
// there (or before start and after stop). What other threads may ask (name,
// announced) is kept apart under a mutex of its own.
#include "cmp_ipp_dnssd.h"

#include <stdio.h>
#include <sys/socket.h>

#include <mutex>

#include "cmp_ipp_avahi_calls.h"

// Under the thread sanitizer: libdbus takes two of its own locks in one order
// when Avahi's client connects and in the other when it closes, from one
// thread, and the sanitizer reports that as a possible deadlock. It lies wholly
// inside libdbus (which serialises the two paths itself); reports whose stacks
// lie elsewhere still count. The sanitizer calls this; other builds never do.
extern "C" const char* __tsan_default_suppressions() { return "deadlock:libdbus-1.so\n"; }

namespace cmp_ipp_fe {

namespace {

// Every call below comes after a start that found the libraries.
const AvahiCalls& av() { return *avahiCalls(nullptr); }

}  // namespace


struct DnssdPublisher::Impl {
    explicit Impl(const Options& o) : opts(o), name(o.name) {}

    Options opts;
    AvahiThreadedPoll* poll = nullptr;

    // ---- poll thread ----
    AvahiClient* client = nullptr;
    AvahiEntryGroup* group = nullptr;
    AvahiTimeout* retry = nullptr;
    std::string name;
    bool replaceClient = false;  // the client failed; a new one is made from the timer
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
    AvahiIfIndex interfaceIndex() const {
        return opts.interfaceIndex < 0 ? AVAHI_IF_UNSPEC : static_cast<AvahiIfIndex>(opts.interfaceIndex);
    }
    AvahiProtocol protocol() const {
        if (opts.family == AF_INET) return AVAHI_PROTO_INET;
        return opts.family == AF_INET6 ? AVAHI_PROTO_INET6 : AVAHI_PROTO_UNSPEC;
    }

    void scheduleRetry(int ms) {
        if (retry == nullptr) return;
        struct timeval tv;
        av().avahi_elapse_time(&tv, static_cast<unsigned>(ms), 0);
        av().avahi_threaded_poll_get(poll)->timeout_update(retry, &tv);
    }
    void dropGroup() {
        if (group != nullptr) av().avahi_entry_group_free(group);
        group = nullptr;
        publish(name, false);
    }

    void createClient() {
        int error = 0;
        replaceClient = false;
        client = av().avahi_client_new(av().avahi_threaded_poll_get(poll), AVAHI_CLIENT_NO_FAIL, &Impl::onClient, this, &error);
        if (client == nullptr) {
            // No system bus at all: Avahi cannot even wait for its daemon.
            tell(Said::NoDaemon, std::string("DNS-SD: not announced, no Avahi daemon (") + av().avahi_strerror(error) +
                                     "). The printer serves as usual and is announced once avahi-daemon runs.");
            scheduleRetry(opts.retryMs);
        }
    }

    void registerServices(AvahiClient* c) {
        if (group == nullptr) group = av().avahi_entry_group_new(c, &Impl::onGroup, this);
        if (group == nullptr) {
            log(std::string("DNS-SD: cannot announce: ") + av().avahi_strerror(av().avahi_client_errno(c)));
            scheduleRetry(opts.retryMs);
            return;
        }
        if (!av().avahi_entry_group_is_empty(group)) return;
        // A name already announced from this machine (another printer) is
        // refused here at once, rather than reported as a collision later.
        for (int attempt = 0; attempt < 20; ++attempt) {
            const int rc = addAll();
            if (rc == AVAHI_OK) break;
            if (rc != AVAHI_ERR_COLLISION) {
                log(std::string("DNS-SD: cannot announce: ") + av().avahi_strerror(rc));
                av().avahi_entry_group_reset(group);
                scheduleRetry(opts.retryMs);
                return;
            }
            rename();
            av().avahi_entry_group_reset(group);
        }
        const int rc = av().avahi_entry_group_commit(group);
        if (rc < 0) {
            log(std::string("DNS-SD: cannot announce: ") + av().avahi_strerror(rc));
            scheduleRetry(opts.retryMs);
        }
    }

    int addAll() {
        for (const DnssdService& s : opts.services) {
            AvahiStringList* txt = nullptr;
            // Prepended, so built from the last entry back to keep the order.
            for (auto it = s.txt.rbegin(); it != s.txt.rend(); ++it) txt = av().avahi_string_list_add(txt, it->c_str());
            const AvahiPublishFlags none = static_cast<AvahiPublishFlags>(0);
            int rc = av().avahi_entry_group_add_service_strlst(group, interfaceIndex(), protocol(), none, name.c_str(),
                                                          s.type.c_str(), nullptr, nullptr, s.port, txt);
            av().avahi_string_list_free(txt);
            if (rc < 0) return rc;
            for (const std::string& sub : s.subtypes) {
                rc = av().avahi_entry_group_add_service_subtype(group, interfaceIndex(), protocol(), none, name.c_str(),
                                                           s.type.c_str(), nullptr, sub.c_str());
                if (rc < 0) return rc;
            }
        }
        return AVAHI_OK;
    }

    void rename() {
        char* next = av().avahi_alternative_service_name(name.c_str());
        const std::string old = name;
        if (next != nullptr) {
            name = next;
            av().avahi_free(next);
        }
        log("DNS-SD: the name \"" + old + "\" is taken; announcing as \"" + name + "\"");
        publish(name, false);
    }

    static void onClient(AvahiClient* c, AvahiClientState state, void* self) {
        Impl* d = static_cast<Impl*>(self);
        switch (state) {
        case AVAHI_CLIENT_S_RUNNING:
            d->registerServices(c);
            break;
        case AVAHI_CLIENT_S_COLLISION:
        case AVAHI_CLIENT_S_REGISTERING:
            // The host's own name is being settled: announce again once it is.
            if (d->group != nullptr) av().avahi_entry_group_reset(d->group);
            d->publish(d->name, false);
            break;
        case AVAHI_CLIENT_CONNECTING:
            // Only with a system bus and no daemon on it (yet, or any more).
            d->dropGroup();
            if (d->lastSaid == Said::Announced) {
                d->tell(Said::Lost, "DNS-SD: the Avahi daemon went away; the printer serves on and is announced "
                                    "again when the daemon returns.");
            } else {
                d->tell(Said::Waiting, "DNS-SD: not announced, avahi-daemon is not running. The printer serves as "
                                       "usual and is announced once avahi-daemon runs.");
            }
            break;
        case AVAHI_CLIENT_FAILURE:
            // The bus itself went away: this client is done; a new one is made
            // from the timer (not from inside its own callback).
            d->dropGroup();
            d->tell(Said::Lost, std::string("DNS-SD: lost the Avahi daemon (") + av().avahi_strerror(av().avahi_client_errno(c)) +
                                    "); the printer serves on and is announced again when it returns.");
            d->replaceClient = true;
            d->scheduleRetry(0);
            break;
        }
    }

    static void onGroup(AvahiEntryGroup* g, AvahiEntryGroupState state, void* self) {
        Impl* d = static_cast<Impl*>(self);
        if (g != d->group && d->group != nullptr) return;
        switch (state) {
        case AVAHI_ENTRY_GROUP_ESTABLISHED:
            d->publish(d->name, true);
            d->lastSaid = Said::Nothing;  // so that a later loss is told
            d->tell(Said::Announced, "DNS-SD: announced as \"" + d->name + "\" (" + d->typesText() + ")");
            break;
        case AVAHI_ENTRY_GROUP_COLLISION:
            // Someone else on the network has the name.
            d->rename();
            av().avahi_entry_group_reset(g);
            d->registerServices(av().avahi_entry_group_get_client(g));
            break;
        case AVAHI_ENTRY_GROUP_FAILURE:
            d->log(std::string("DNS-SD: announcement failed: ") +
                   av().avahi_strerror(av().avahi_client_errno(av().avahi_entry_group_get_client(g))) + "; trying again");
            d->publish(d->name, false);
            d->scheduleRetry(d->opts.retryMs);
            break;
        case AVAHI_ENTRY_GROUP_UNCOMMITED:
        case AVAHI_ENTRY_GROUP_REGISTERING:
            break;
        }
    }

    static void onRetry(AvahiTimeout*, void* self) {
        Impl* d = static_cast<Impl*>(self);
        if (d->replaceClient && d->client != nullptr) {
            d->dropGroup();
            av().avahi_client_free(d->client);
            d->client = nullptr;
        }
        if (d->client == nullptr) {
            d->createClient();
            return;
        }
        if (av().avahi_client_get_state(d->client) != AVAHI_CLIENT_S_RUNNING) return;
        if (d->group != nullptr && av().avahi_entry_group_get_state(d->group) == AVAHI_ENTRY_GROUP_FAILURE) {
            av().avahi_entry_group_reset(d->group);
        }
        d->registerServices(d->client);
    }
};

DnssdPublisher::DnssdPublisher(const Options& opts) : m_impl(new Impl(opts)) {
    m_impl->publicName = opts.name;
}

DnssdPublisher::~DnssdPublisher() { stop(); }

bool DnssdPublisher::start(std::string* error) {
    Impl& d = *m_impl;
    if (d.poll != nullptr) return true;
    std::string why;
    if (avahiCalls(&why) == nullptr) {
        if (error != nullptr) *error = why;
        return false;
    }
    d.poll = av().avahi_threaded_poll_new();
    if (d.poll == nullptr) {
        if (error != nullptr) *error = "cannot start the DNS-SD thread";
        return false;
    }
    const AvahiPoll* api = av().avahi_threaded_poll_get(d.poll);
    d.retry = api->timeout_new(api, nullptr, &Impl::onRetry, &d);
    // Before the thread runs, nothing else touches the client.
    d.createClient();
    if (av().avahi_threaded_poll_start(d.poll) < 0) {
        if (error != nullptr) *error = "cannot start the DNS-SD thread";
        stop();
        return false;
    }
    return true;
}

void DnssdPublisher::stop() {
    Impl& d = *m_impl;
    if (d.poll == nullptr) return;
    // After the stop the thread is gone: the rest is ours alone.
    av().avahi_threaded_poll_stop(d.poll);
    if (d.group != nullptr) av().avahi_entry_group_free(d.group);  // withdraws the services
    d.group = nullptr;
    if (d.client != nullptr) av().avahi_client_free(d.client);
    d.client = nullptr;
    if (d.retry != nullptr) av().avahi_threaded_poll_get(d.poll)->timeout_free(d.retry);
    d.retry = nullptr;
    av().avahi_threaded_poll_free(d.poll);
    d.poll = nullptr;
    d.publish(d.name, false);
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
