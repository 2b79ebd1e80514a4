// cmp-ipp-printer: the whole printer in one process on a workstation. The IPP
// dictionary is installed, the reference printer registered with the library,
// the library's listener started on a Unix-domain socket, and the HTTP front end
// relays TCP clients to it, plain and over TLS on one port; the printer is
// announced with DNS-SD. SIGINT or SIGTERM stops everything in reverse order.
#include <errno.h>
#include <getopt.h>
#include <grp.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "cmp_ipp_app_setup.h"
#include "cmp_ipp_auth.h"
#include "cmp_ipp_dictionary.h"
#include "cmp_ipp_dnssd.h"
#include "cmp_ipp_frontend.h"
#include "cmp_ipp_printer_net.h"
#include "cmp_ipp_refprinter.h"
#include "cmp_ipp_relay.h"
#include "cmp_ipp_tls.h"
#include "cmp_ipp_version.h"
#include "httpd/cmp_ipp_httpd.h"
#include "platform/cmp_dbglog.h"
#include "service/cmp_ipp_facade.h"

namespace {

using namespace cmp_ipp_app;

// socketDir empty: a private directory, removed at exit.
struct Options : ServiceOptions {
    uint16_t port = 8631;
    std::string bind = "127.0.0.1";
    std::string hostName;  // host part of the printer URI; from the bind address when empty
    bool printSeconds = false;
    bool dnssd = true;
    bool tls = true;
    bool tlsOnly = false;
    std::string tlsCert, tlsKey;
    std::string stateDir;  // empty: printer_net::defaultStateDirectory()
    std::string authFile;
    bool hashPassword = false;
};

void usage(FILE* out, const char* argv0) {
    fprintf(out,
            "Usage: %s [options]\n"
            "A virtual IPP Everywhere printer: the IPP library, the reference printer and an\n"
            "HTTP front end in one process. Stop it with Ctrl-C (SIGINT) or SIGTERM.\n"
            "  --port N           TCP port (default 8631; 0 picks a free one)\n"
            "  --bind ADDRESS     numeric IPv4 or IPv6 address to listen on (default 127.0.0.1)\n"
            "  --host NAME        host name in the printer URI (default: the bind address,\n"
            "                     \"localhost\" for a loopback address)\n"
            "  --name TEXT        printer-name (default \"Reference Printer\")\n"
            "  --spool DIR        where documents are written (default ./spool, created if missing)\n"
            "  --socket-dir DIR   directory of the library's Unix-domain socket, created 0700\n"
            "                     (default: a private directory under /tmp, removed at exit)\n"
            "  --socket-group G   let group G (name or number) use the socket too: socket 0660,\n"
            "                     a directory created here 0710, both of group G\n"
            "  --trace-level N    library trace threshold (0 errors only ... 3 all; default\n"
            "                     $CMP_IPP_TRACE_LEVEL, else 0)\n"
            "  --processing-ms N  how long each job stays processing (default 2000)\n"
            "  --no-dnssd         do not announce the printer with DNS-SD (Avahi)\n"
            "  --tls-cert FILE    TLS certificate (PEM) for ipps:// on the same port; with\n"
            "  --tls-key FILE     its private key. Without them a self-signed certificate is\n"
            "                     made at the first start and kept in the state directory\n"
            "  --tls-only         serve ipps:// (https://) only, no plain ipp:// (http://)\n"
            "  --no-tls           serve plain ipp:// only\n"
            "  --state-dir DIR    where the self-signed certificate is kept (default\n"
            "                     $XDG_STATE_HOME/cmp-ipp-printer or ~/.local/state/cmp-ipp-printer)\n"
            "  --auth-file FILE   job operations need a user and password (HTTP Basic), checked\n"
            "                     against FILE: lines \"user:HASH\" with a crypt(3) HASH\n"
            "  --hash-password    read a password from standard input, print its HASH, exit\n"
            "  --version          print the program's name and version, exit\n"
            "  --help             this text\n",
            argv0);
}

std::string uriHost(const Options& o) {
    if (!o.hostName.empty()) return o.hostName;
    if (o.bind == "127.0.0.1" || o.bind == "::1") return "localhost";
    // Every address: the machine's name (its .local one when announced).
    if (o.bind == "0.0.0.0" || o.bind == "::") return printer_net::localHostName(o.dnssd);
    if (o.bind.find(':') != std::string::npos) return "[" + o.bind + "]";
    return o.bind;
}

int parseArgs(int argc, char** argv, Options& o) {
    static const struct option longOpts[] = {
        {"port", required_argument, nullptr, 'p'},      {"bind", required_argument, nullptr, 'b'},
        {"host", required_argument, nullptr, 'H'},      {"name", required_argument, nullptr, 'n'},
        {"spool", required_argument, nullptr, 'd'},     {"socket-dir", required_argument, nullptr, 's'},
        {"trace-level", required_argument, nullptr, 't'}, {"processing-ms", required_argument, nullptr, 'm'},
        {"socket-group", required_argument, nullptr, 'g'}, {"help", no_argument, nullptr, 'h'},
        {"no-dnssd", no_argument, nullptr, 'D'},        {"tls-cert", required_argument, nullptr, 'C'},
        {"tls-key", required_argument, nullptr, 'K'},   {"tls-only", no_argument, nullptr, 'T'},
        {"no-tls", no_argument, nullptr, 'N'},          {"state-dir", required_argument, nullptr, 'S'},
        {"auth-file", required_argument, nullptr, 'A'}, {"hash-password", no_argument, nullptr, 'P'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    long v = 0;
    while ((c = getopt_long(argc, argv, "p:b:H:n:d:s:t:m:g:h", longOpts, nullptr)) != -1) {
        switch (c) {
        case 'p':
            if (!parseNumber(optarg, 0, 65535, &v)) {
                fprintf(stderr, "%s: bad port: %s\n", argv[0], optarg);
                return 2;
            }
            o.port = static_cast<uint16_t>(v);
            break;
        case 'b': o.bind = optarg; break;
        case 'H': o.hostName = optarg; break;
        case 'D': o.dnssd = false; break;
        case 'C': o.tlsCert = optarg; break;
        case 'K': o.tlsKey = optarg; break;
        case 'T': o.tlsOnly = true; break;
        case 'N': o.tls = false; break;
        case 'S': o.stateDir = optarg; break;
        case 'A': o.authFile = optarg; break;
        case 'P': o.hashPassword = true; break;
        case 'h': usage(stdout, argv[0]); return 0;
        case 'V': printf("cmp-ipp-printer %s\n", CMP_IPP_VERSION); return 0;
        default: {
            // The options every program that runs the printer takes.
            const int taken = parseServiceOption(c, optarg, argv[0], &o);
            if (taken == 0) break;
            if (taken < 0) usage(stderr, argv[0]);
            return 2;
        }
        }
    }
    if (optind < argc) {
        usage(stderr, argv[0]);
        return 2;
    }
    if (o.tlsCert.empty() != o.tlsKey.empty()) {
        fprintf(stderr, "%s: --tls-cert and --tls-key go together\n", argv[0]);
        return 2;
    }
    if (!o.tls && (o.tlsOnly || !o.tlsCert.empty())) {
        fprintf(stderr, "%s: --no-tls contradicts --tls-only and --tls-cert\n", argv[0]);
        return 2;
    }
    return -1;
}

// A password from standard input (without echo on a terminal), its hash on
// standard output: one line of an --auth-file is "user:" followed by it.
int hashPassword(const char* argv0) {
    const bool terminal = isatty(0) != 0;
    struct termios saved;
    if (terminal && tcgetattr(0, &saved) == 0) {
        struct termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        fprintf(stderr, "Password: ");
        tcsetattr(0, TCSAFLUSH, &quiet);
    }
    std::string password;
    for (int c; (c = getchar()) != EOF && c != '\n';) password += static_cast<char>(c);
    if (terminal) {
        tcsetattr(0, TCSAFLUSH, &saved);
        fprintf(stderr, "\n");
    }
    if (!password.empty() && password.back() == '\r') password.pop_back();
    if (password.empty()) {
        fprintf(stderr, "%s: no password on standard input\n", argv0);
        return 1;
    }
    std::string error;
    const std::string hash = cmp_ipp_fe::hashPassword(password, &error);
    std::fill(password.begin(), password.end(), '\0');
    if (hash.empty()) {
        fprintf(stderr, "%s: %s\n", argv0, error.c_str());
        return 1;
    }
    printf("%s\n", hash.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    const int parsed = parseArgs(argc, argv, o);
    if (parsed >= 0) return parsed;
    if (o.hashPassword || !o.authFile.empty()) {
        std::string why;
        if (!cmp_ipp_fe::passwordHashingAvailable(&why)) {
            fprintf(stderr, "%s: passwords cannot be checked: %s\n", argv[0], why.c_str());
            return 1;
        }
    }
    if (o.hashPassword) return hashPassword(argv[0]);

    // TLS and authentication are settled before anything is created, so that
    // a bad certificate or password file stops the start with its reason.
    cmp_ipp_fe::TlsIdentity identity;
    bool tls = false;
    if (!o.tlsCert.empty()) {
        std::string error;
        if (!cmp_ipp_fe::loadTlsIdentity(o.tlsCert, o.tlsKey, &identity, &error)) {
            fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
            return 1;
        }
        tls = true;
    } else if (o.tls) {
        const std::string dir = o.stateDir.empty() ? printer_net::defaultStateDirectory() : o.stateDir;
        std::string error;
        bool created = false;
        tls = cmp_ipp_fe::selfSignedTlsIdentity(dir, printer_net::certificateNames(uriHost(o), o.bind), &identity,
                                                &created, &error);
        if (!tls && o.tlsOnly) {
            fprintf(stderr, "%s: no TLS certificate: %s\n", argv[0], error.c_str());
            return 1;
        }
        if (!tls) fprintf(stderr, "%s: warning: serving without TLS (no certificate: %s)\n", argv[0], error.c_str());
        if (created) fprintf(stderr, "%s: made a self-signed TLS certificate in %s\n", argv[0], dir.c_str());
    }
    std::shared_ptr<const cmp_ipp_fe::BasicAuth> auth;
    if (!o.authFile.empty()) {
        std::string error;
        auth = cmp_ipp_fe::BasicAuth::load(o.authFile, &error);
        if (!auth) {
            fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
            return 1;
        }
        struct stat st;
        if (stat(o.authFile.c_str(), &st) == 0 && (st.st_mode & 077) != 0)
            fprintf(stderr, "%s: warning: %s is open to other users (mode %03o)\n", argv[0], o.authFile.c_str(),
                    static_cast<unsigned>(st.st_mode & 0777));
    }
    const bool plain = !o.tlsOnly;

    if (!prepareSpoolDir(argv[0], o.spoolDir)) return 1;
    const bool grouped = o.socketGroup != static_cast<gid_t>(-1);
    bool ownSocketDir = false;
    if (!prepareSocketDir(argv[0], &o.socketDir, o.socketGroup, &ownSocketDir)) return 1;
    const std::string socketDir = withSlash(o.socketDir);
    setenv("GEN_UNIX_PATH", socketDir.c_str(), 1);
    const std::string socketPath = cmp_ipp_fe::socketPathIn(socketDir.c_str());
    if (o.traceLevel >= 0) orvane::cmp_dbglog_common::get_instance().set_level(o.traceLevel);
    (void)pn_httpd_set_socket_group(grouped ? static_cast<int32_t>(o.socketGroup) : -1);

    // Every thread started below inherits this mask, so only sigwait() sees the stop signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    // The port is bound first (with port 0 the printer URI needs the port it
    // got), but clients get in only once the library listens.
    cmp_ipp_frontend::Options fo;
    fo.bindAddress = o.bind;
    fo.port = o.port;
    fo.socketPath = socketPath;
    fo.plainHttp = plain;
    if (tls) {
        fo.tlsCertificatePem = identity.certificatePem;
        fo.tlsKeyPem = identity.keyPem;
    }
    fo.auth = auth;
    fo.authRealm = o.name;
    const std::string program = argv[0];
    fo.log = [program](const std::string& m) { fprintf(stderr, "%s: %s\n", program.c_str(), m.c_str()); };
    cmp_ipp_frontend frontend(fo);
    std::string error;
    if (!frontend.open(&error)) {
        fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
        if (ownSocketDir) rmdir(o.socketDir.c_str());
        return 1;
    }

    cmp_ipp_dictionary_install();
    refprinter::Config config;
    config.name = o.name;
    config.spoolDir = o.spoolDir;
    config.processingMs = o.processingMs;
    const std::string authority = uriHost(o) + ":" + std::to_string(frontend.port());
    const std::string uri = (plain ? "ipp://" : "ipps://") + authority + "/ipp/print";
    config.uris = {uri};
    if (plain && tls) config.uris.push_back("ipps://" + authority + "/ipp/print");
    config.uriAuthentication = auth ? "basic" : "none";
    refprinter::Printer printer(config);
    std::unique_ptr<cmp_ipp_fe::DnssdPublisher> announcer;

    int rc = 0;
    if (!printer.serve()) {
        fprintf(stderr, "%s: the IPP service did not start\n", argv[0]);
        rc = 1;
    } else {
        if (!waitForListener(socketPath, 5000)) {
            fprintf(stderr, "%s: the IPP listener did not come up on %s\n", argv[0], socketPath.c_str());
            rc = 1;
        } else if (!frontend.start(&error)) {
            fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
            rc = 1;
        }
    }
    if (rc == 0 && o.dnssd) {
        cmp_ipp_fe::DnssdPublisher::Options po;
        po.name = o.name;
        po.services = printer_net::printerServices(printer.object().m_attrs, frontend.port(), plain, tls);
        printer_net::announceScope(o.bind, &po.interfaceIndex, &po.family);
        const std::string name = argv[0];
        po.log = [name](const std::string& m) { fprintf(stderr, "%s: %s\n", name.c_str(), m.c_str()); };
        announcer.reset(new cmp_ipp_fe::DnssdPublisher(po));
        std::string error;
        if (!announcer->start(&error)) fprintf(stderr, "%s: DNS-SD: %s\n", argv[0], error.c_str());
    }
    if (rc == 0) {
        printf("Printer URI: %s\n", uri.c_str());
        if (plain && tls) printf("Secure URI:  %s\n", config.uris[1].c_str());
        printf("Web page:    %s://%s/\n", plain ? "http" : "https", authority.c_str());
        printf("Spool:       %s\n", o.spoolDir.c_str());
        fflush(stdout);
        int sig = 0;
        sigwait(&stopSignals, &sig);
        fprintf(stderr, "%s: stopping (signal %d)\n", argv[0], sig);
    }

    // Reverse order: no longer announced, no new HTTP requests, then the
    // listener, then the printer.
    announcer.reset();
    frontend.stop();
    (void)orvane::cmp_ipp_facade::cmp_ipp_get_instance()->cmp_ipp_term();
    printer.stop();
    unlink(socketPath.c_str());
    if (ownSocketDir) rmdir(o.socketDir.c_str());
    return rc;
}
