// How cmp-ipp-printer presents itself: the DNS-SD services and TXT records made
// from the printer's attributes, where they are announced, the names of its
// certificate, and an announcer that finds no Avahi daemon.
#include <gtest/gtest.h>
#include <net/if.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <thread>

#include "cmp_ipp_dictionary.h"
#include "cmp_ipp_dnssd.h"
#include "cmp_ipp_printer_net.h"
#include "cmp_ipp_refprinter.h"

namespace {

using cmp_ipp_fe::DnssdService;

std::map<std::string, std::string> keysOf(const DnssdService& s) {
    std::map<std::string, std::string> out;
    for (const std::string& kv : s.txt) {
        const size_t eq = kv.find('=');
        EXPECT_NE(eq, std::string::npos) << kv;
        EXPECT_LE(kv.size(), 255u) << "a TXT string holds 255 bytes";
        EXPECT_TRUE(out.emplace(kv.substr(0, eq), kv.substr(eq + 1)).second) << "twice: " << kv;
    }
    return out;
}

std::unique_ptr<refprinter::Printer> printerWith(const std::vector<std::string>& uris, const std::string& auth) {
    cmp_ipp_dictionary_install();
    refprinter::Config c;
    c.name = "Net Printer";
    c.location = "Lab 3";
    c.uris = uris;
    c.uriAuthentication = auth;
    c.uuid = "urn:uuid:0b8a3c86-5b4e-5f3e-8c7d-1234567890ab";
    return std::unique_ptr<refprinter::Printer>(new refprinter::Printer(c));
}

TEST(PrinterNet, TxtRecordsComeFromThePrintersAttributes) {
    const auto p = printerWith({"ipp://host.local:8631/ipp/print", "ipps://host.local:8631/ipp/print"}, "none");
    const std::vector<DnssdService> services = printer_net::printerServices(p->object().m_attrs, 8631, true, true);
    ASSERT_EQ(services.size(), 2u);
    EXPECT_EQ(services[0].type, "_ipp._tcp");
    EXPECT_EQ(services[0].subtypes, std::vector<std::string>{"_print._sub._ipp._tcp"});
    EXPECT_EQ(services[1].type, "_ipps._tcp");
    EXPECT_EQ(services[1].subtypes, std::vector<std::string>{"_print._sub._ipps._tcp"});
    EXPECT_EQ(services[0].txt.front(), "txtvers=1") << "txtvers leads";
    const std::map<std::string, std::string> expected{
        {"txtvers", "1"},
        {"qtotal", "1"},
        {"rp", "ipp/print"},
        {"ty", "Reference Printer R1"},
        {"adminurl", "http://host.local:8631/"},
        {"note", "Lab 3"},
        {"product", "(Reference Printer R1)"},
        {"pdl", "application/octet-stream,application/pdf,application/postscript,image/jpeg,image/pwg-raster,"
                "text/plain"},
        {"Color", "T"},
        {"Duplex", "T"},
        {"UUID", "0b8a3c86-5b4e-5f3e-8c7d-1234567890ab"},
        {"PaperMax", "legal-A4"},
        {"kind", "document,envelope,photo"},
        // black and white, colour, duplex, copies, collate, small media
        {"printer-type", "0x10DC"},
    };
    EXPECT_EQ(keysOf(services[0]), expected);
    std::map<std::string, std::string> secure = expected;
    secure["adminurl"] = "https://host.local:8631/";
    secure["TLS"] = "1.2";
    EXPECT_EQ(keysOf(services[1]), secure);
    for (const DnssdService& s : services) EXPECT_EQ(s.port, 8631);

    // Secure only, with Basic authentication; and the same printer announced plainly only.
    const auto basic = printerWith({"ipps://host.local:8631/ipp/print"}, "basic");
    const auto only = printer_net::printerServices(basic->object().m_attrs, 8631, false, true);
    ASSERT_EQ(only.size(), 1u);
    EXPECT_EQ(only[0].type, "_ipps._tcp");
    secure["air"] = "username,password";  // clients ask for credentials up front
    secure["printer-type"] = "0x4010DC";  // with the authenticated bit
    EXPECT_EQ(keysOf(only[0]), secure);
    const auto plain = printer_net::printerServices(basic->object().m_attrs, 8631, true, false);
    ASSERT_EQ(plain.size(), 1u);
    EXPECT_EQ(plain[0].type, "_ipp._tcp");
    EXPECT_EQ(keysOf(plain[0]).count("TLS"), 0u);
}

TEST(PrinterNet, PaperMaxByTheLargestMedia) {
    struct Case {
        int32_t w, l;
        const char* max;
    };
    const Case cases[] = {
        {10160, 15240, "<legal-A4"},  // 4x6
        {21590, 27940, "<legal-A4"},  // letter reaches neither legal nor A4
        {21000, 29700, "legal-A4"},   // A4
        {21590, 35560, "legal-A4"},   // legal
        {35560, 21590, "legal-A4"},   // either way round
        {27940, 43180, "tabloid-A3"}, // tabloid
        {29700, 42000, "tabloid-A3"}, // A3
        {42000, 59400, "isoC-A2"},    // A2
        {43180, 55880, "isoC-A2"},    // C
        {59400, 84100, ">isoC-A2"},   // A1
    };
    for (const Case& c : cases) EXPECT_STREQ(printer_net::paperMax(c.w, c.l), c.max) << c.w << "x" << c.l;
}

TEST(PrinterNet, AnnouncedWhereItListens) {
    struct Case {
        const char* bind;
        int index;  // -2: the loopback interface
        int family;
    };
    const Case cases[] = {
        {"0.0.0.0", -1, AF_INET},  {"::", -1, AF_INET6},     {"127.0.0.1", -2, AF_INET},
        {"127.0.0.5", -2, AF_INET}, {"::1", -2, AF_INET6},   {"192.0.2.200", -1, AF_INET},
        {"not-an-address", -1, 0},
    };
    const int lo = static_cast<int>(if_nametoindex("lo"));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bind);
        int index = 99, family = 99;
        printer_net::announceScope(c.bind, &index, &family);
        if (c.index == -2 && lo == 0) continue;  // no interface called "lo" here
        EXPECT_EQ(index, c.index == -2 ? lo : c.index);
        EXPECT_EQ(family, c.family);
    }
}

TEST(PrinterNet, CertificateNamesLeadWithTheUriHost) {
    const auto names = printer_net::certificateNames("[fe80::1]", "192.0.2.7");
    ASSERT_FALSE(names.empty());
    EXPECT_EQ(names[0], "fe80::1") << "brackets are URI syntax, not part of the name";
    for (const char* n : {"localhost", "127.0.0.1", "::1", "192.0.2.7"})
        EXPECT_NE(std::find(names.begin(), names.end(), n), names.end()) << n;
    EXPECT_NE(std::find(names.begin(), names.end(), printer_net::localHostName(true)), names.end());
    const auto local = printer_net::certificateNames("localhost", "0.0.0.0");
    EXPECT_EQ(std::count(local.begin(), local.end(), "localhost"), 1) << "each name once";
    EXPECT_EQ(std::count(local.begin(), local.end(), "0.0.0.0"), 0) << "a wildcard is nobody's name";
}

// No system bus to reach Avahi through: the announcer says so, keeps looking,
// and stops cleanly. (The printer around it serves on: see printer_e2e.sh.)
TEST(PrinterNet, AnnouncerWithoutAvahiSaysSoAndStops) {
    const char* saved = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const std::string bus = saved != nullptr ? saved : "";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/cmp-ipp-test-bus", 1);
    std::mutex lock;
    std::vector<std::string> said;
    cmp_ipp_fe::DnssdPublisher::Options o;
    o.name = "Nowhere Printer";
    o.services.push_back(DnssdService{"_ipp._tcp", {"_print._sub._ipp._tcp"}, 631, {"txtvers=1"}});
    o.retryMs = 50;
    o.log = [&](const std::string& m) {
        std::lock_guard<std::mutex> g(lock);
        said.push_back(m);
    };
    {
        cmp_ipp_fe::DnssdPublisher p(o);
        std::string error;
        ASSERT_TRUE(p.start(&error)) << error;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));  // several attempts
        EXPECT_FALSE(p.announced());
        EXPECT_EQ(p.name(), "Nowhere Printer") << "not renamed without a daemon";
        p.stop();
        p.stop();  // twice is harmless
    }
    if (saved != nullptr) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
    } else {
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
    std::lock_guard<std::mutex> g(lock);
    ASSERT_EQ(said.size(), 1u) << "told once, not at every attempt";
    EXPECT_NE(said[0].find("not announced, no Avahi daemon"), std::string::npos) << said[0];
    EXPECT_NE(said[0].find("serves as usual"), std::string::npos) << said[0];
}

}  // namespace
