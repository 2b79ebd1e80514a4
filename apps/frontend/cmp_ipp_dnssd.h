// DNS-SD announcement of the printer's services through the Avahi daemon.
// Announcing is a side line: the printer serves whether or not a daemon runs,
// comes, goes or comes back, and the announcement follows it (and takes
// another name, as Avahi advises, when its own is taken on the network).
#ifndef CMP_IPP_DNSSD_H
#define CMP_IPP_DNSSD_H

#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace cmp_ipp_fe {

struct DnssdService {
    std::string type;                   // "_ipp._tcp"
    std::vector<std::string> subtypes;  // "_print._sub._ipp._tcp"
    uint16_t port = 0;
    std::vector<std::string> txt;       // "key=value", in this order
};

class DnssdPublisher {
public:
    struct Options {
        std::string name;  // the service instance name, as people see it
        std::vector<DnssdService> services;
        int interfaceIndex = -1;  // -1: every interface
        int family = 0;           // AF_INET or AF_INET6: over that protocol only; 0: both
        // How often a missing D-Bus or Avahi daemon is looked for again.
        int retryMs = 5000;
        // What happens to the announcement; standard error when empty.
        std::function<void(const std::string&)> log;
    };

    explicit DnssdPublisher(const Options& opts);
    ~DnssdPublisher();  // withdraws the announcement
    DnssdPublisher(const DnssdPublisher&) = delete;
    DnssdPublisher& operator=(const DnssdPublisher&) = delete;

    // Starts announcing from a thread of its own. False only when that thread
    // cannot be started; a missing daemon is reported through the log.
    bool start(std::string* error = nullptr);
    void stop();
    // The name announced (after any renaming).
    std::string name() const;
    // Every service is established on the network.
    bool announced() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

// The next name to try after a collision, by Avahi's rule: "Name" becomes
// "Name #2", "Name #2" becomes "Name #3", kept within a 63-byte DNS label
// (shortened at a character boundary, the number kept).
std::string alternativeServiceName(const std::string& name);

}  // namespace cmp_ipp_fe

#endif
