#include "cmp_ipp_printer_net.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "cmp_ipp_refprinter_attrs.h"

namespace printer_net {

using namespace refprinter::attrs;

namespace {

// A TXT string holds at most 255 bytes.
const size_t kTxtMax = 255;

std::string_view first(const cmp_ipp_attrs& a, const char* name) {
    const cmp_ipp_attr* at = findTop(a, name);
    return at != nullptr ? textViewOf(*at) : std::string_view();
}

bool hasValue(const cmp_ipp_attr* a, std::string_view v) {
    for (int32_t i = 0; a != nullptr && i < a->m_numValues; ++i)
        if (textViewOf(*a, i) == v) return true;
    return false;
}

// "key=v1,v2,..." with as many values as fit into one TXT string.
std::string joined(const char* key, const cmp_ipp_attr* a) {
    std::string out = std::string(key) + "=";
    const size_t head = out.size();
    for (int32_t i = 0; a != nullptr && i < a->m_numValues; ++i) {
        const std::string_view v = textViewOf(*a, i);
        if (out.size() + (out.size() > head ? 1 : 0) + v.size() > kTxtMax) break;
        if (out.size() > head) out += ',';
        out.append(v.data(), v.size());
    }
    return out;
}

std::string pair(const char* key, std::string_view value) {
    std::string out = std::string(key) + "=";
    out.append(value.data(), std::min(value.size(), kTxtMax - out.size()));
    return out;
}

// The largest media-size-supported: widest and longest.
void largestMedia(const cmp_ipp_attrs& a, int32_t* width, int32_t* length) {
    *width = *length = 0;
    for (const Span& s : topLevel(a)) {
        if (s.name != "media-size-supported") continue;
        for (int32_t i = s.first; i < s.last; ++i) {
            const cmp_ipp_attr& m = a[i];
            if (m.m_type != CMP_IPP_TAG_MEMBERNAME || m.m_numValues < 1) continue;
            const std::string_view name = m.cmp_ipp_attr_get_name();
            // A range (the dimension of a custom size) counts with its upper end.
            const int32_t v = std::max(wordOf(m, 0), m.m_memberType == CMP_IPP_TAG_RANGE ? wordOf(m, 1) : 0);
            if (name == "x-dimension") *width = std::max(*width, v);
            if (name == "y-dimension") *length = std::max(*length, v);
        }
    }
}

bool isWildcard(const std::string& address) { return address == "0.0.0.0" || address == "::"; }

}  // namespace

const char* paperMax(int32_t width, int32_t length) {
    // By the narrow side and the long side, against A4 and legal, A3 and
    // tabloid, A2 and ISO C (17 x 22 in).
    const int32_t narrow = std::min(width, length), wide = std::max(width, length);
    if (narrow < 21000 || wide < 29700) return "<legal-A4";
    if (narrow < 27940 || wide < 42000) return "legal-A4";
    if (narrow < 42000 || wide < 55880) return "tabloid-A3";
    if (narrow <= 43180 || wide <= 59400) return "isoC-A2";
    return ">isoC-A2";
}

std::vector<cmp_ipp_fe::DnssdService> printerServices(const cmp_ipp_attrs& a, uint16_t port, bool plain, bool tls) {
    const std::string_view uri = first(a, "printer-uri-supported");
    const size_t scheme = uri.find("//");
    const size_t pathAt = scheme == std::string_view::npos ? std::string_view::npos : uri.find('/', scheme + 2);
    std::string_view rp = pathAt == std::string_view::npos ? std::string_view() : uri.substr(pathAt + 1);

    const std::string_view model = first(a, "printer-make-and-model");
    std::string uuid(first(a, "printer-uuid"));
    if (uuid.compare(0, 9, "urn:uuid:") == 0) uuid.erase(0, 9);
    const cmp_ipp_attr* color = findTop(a, "color-supported");
    const bool colour = color != nullptr && color->m_numValues > 0 && wordOf(*color) != 0;
    const cmp_ipp_attr* sides = findTop(a, "sides-supported");
    bool duplex = false;
    for (int32_t i = 0; sides != nullptr && i < sides->m_numValues; ++i)
        duplex = duplex || textViewOf(*sides, i) != "one-sided";
    int32_t width = 0, length = 0;
    largestMedia(a, &width, &length);
    const bool basic = hasValue(findTop(a, "uri-authentication-supported"), "basic");

    // The printer-type bits CUPS gives a queue of such a printer.
    uint32_t type = 0x0004;                 // black and white
    if (colour) type |= 0x0008;
    if (duplex) type |= 0x0010;
    const cmp_ipp_attr* copies = findTop(a, "copies-supported");
    if (copies != nullptr && wordOf(*copies, 1) > 1) type |= 0x0040;
    if (hasValue(findTop(a, "multiple-document-handling-supported"), "separate-documents-collated-copies"))
        type |= 0x0080;
    const std::string paper = paperMax(width, length);
    type |= 0x1000;                          // letter, legal, A4
    if (paper == "tabloid-A3" || paper == "isoC-A2" || paper == ">isoC-A2") type |= 0x2000;
    if (paper == ">isoC-A2") type |= 0x4000;
    if (basic) type |= 0x400000;             // authenticated
    char typeText[16];
    snprintf(typeText, sizeof typeText, "0x%X", static_cast<unsigned>(type));

    std::vector<std::string> txt;
    txt.push_back("txtvers=1");
    txt.push_back("qtotal=1");
    txt.push_back(pair("rp", rp));
    txt.push_back(pair("ty", model));
    const size_t adminAt = txt.size();
    txt.push_back(pair("adminurl", first(a, "printer-more-info")));
    txt.push_back(pair("note", first(a, "printer-location")));
    txt.push_back(pair("product", "(" + std::string(model) + ")"));
    txt.push_back(joined("pdl", findTop(a, "document-format-supported")));
    txt.push_back(std::string("Color=") + (colour ? "T" : "F"));
    txt.push_back(std::string("Duplex=") + (duplex ? "T" : "F"));
    txt.push_back(pair("UUID", uuid));
    if (const cmp_ipp_attr* urf = findTop(a, "urf-supported")) txt.push_back(joined("URF", urf));
    txt.push_back(pair("PaperMax", paper));
    txt.push_back(joined("kind", findTop(a, "printer-kind")));
    txt.push_back(pair("printer-type", typeText));
    if (basic) txt.push_back("air=username,password");

    std::vector<cmp_ipp_fe::DnssdService> out;
    if (plain) {
        cmp_ipp_fe::DnssdService s;
        s.type = "_ipp._tcp";
        s.subtypes = {"_print._sub._ipp._tcp"};
        s.port = port;
        s.txt = txt;
        out.push_back(s);
    }
    if (tls) {
        cmp_ipp_fe::DnssdService s;
        s.type = "_ipps._tcp";
        s.subtypes = {"_print._sub._ipps._tcp"};
        s.port = port;
        s.txt = txt;
        // The web page over the same secure channel.
        std::string& admin = s.txt[adminAt];
        if (admin.compare(0, 16, "adminurl=http://") == 0) admin.replace(0, 16, "adminurl=https://");
        s.txt.push_back("TLS=1.2");
        out.push_back(s);
    }
    return out;
}

void announceScope(const std::string& bindAddress, int* interfaceIndex, int* family) {
    *interfaceIndex = -1;
    *family = 0;
    unsigned char raw[16];
    if (inet_pton(AF_INET, bindAddress.c_str(), raw) == 1) {
        *family = AF_INET;
    } else if (inet_pton(AF_INET6, bindAddress.c_str(), raw) == 1) {
        *family = AF_INET6;
    } else {
        return;
    }
    if (isWildcard(bindAddress)) return;
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return;
    for (struct ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != *family) continue;
        const void* addr = *family == AF_INET
                               ? static_cast<const void*>(&reinterpret_cast<struct sockaddr_in*>(i->ifa_addr)->sin_addr)
                               : static_cast<const void*>(&reinterpret_cast<struct sockaddr_in6*>(i->ifa_addr)->sin6_addr);
        // Any 127.x address lives on the loopback interface.
        const bool loop = *family == AF_INET && raw[0] == 127 && (i->ifa_flags & IFF_LOOPBACK) != 0;
        if (loop || std::memcmp(addr, raw, *family == AF_INET ? 4 : 16) == 0) {
            *interfaceIndex = static_cast<int>(if_nametoindex(i->ifa_name));
            break;
        }
    }
    freeifaddrs(list);
    if (*interfaceIndex == 0) *interfaceIndex = -1;
}

std::string localHostName(bool mdns) {
    char name[256] = {0};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
    std::string host = name;
    if (mdns && host.find('.') == std::string::npos && host != "localhost") host += ".local";
    return host;
}

std::vector<std::string> certificateNames(const std::string& uriHost, const std::string& bindAddress) {
    std::vector<std::string> names;
    const auto add = [&names](std::string n) {
        if (n.size() > 2 && n.front() == '[' && n.back() == ']') n = n.substr(1, n.size() - 2);
        if (!n.empty() && std::find(names.begin(), names.end(), n) == names.end()) names.push_back(n);
    };
    add(uriHost);
    add("localhost");
    add(localHostName(false));
    add(localHostName(true));
    add("127.0.0.1");
    add("::1");
    if (!isWildcard(bindAddress)) add(bindAddress);
    return names;
}

std::string defaultStateDirectory() {
    const char* state = getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') return std::string(state) + "/cmp-ipp-printer";
    const char* home = getenv("HOME");
    if (home != nullptr && home[0] == '/') return std::string(home) + "/.local/state/cmp-ipp-printer";
    return "state";
}

}  // namespace printer_net
