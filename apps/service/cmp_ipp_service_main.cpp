// cmp-ipp-service: the IPP service without an HTTP front end. The IPP
// dictionary is installed, the reference printer registered with the library
// and the library's listener started on its Unix-domain socket; clients reach
// it through a front end in another process (cmp-ipp-frontend --socket-dir),
// which may run on another architecture. SIGINT or SIGTERM stops it.
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "cmp_ipp_app_setup.h"
#include "cmp_ipp_dictionary.h"
#include "cmp_ipp_refprinter.h"
#include "cmp_ipp_version.h"
#include "httpd/cmp_ipp_httpd.h"
#include "platform/cmp_dbglog.h"
#include "service/cmp_ipp_facade.h"

namespace {

using namespace cmp_ipp_app;

// socketDir empty: $GEN_UNIX_PATH, else /tmp/, as the library and the front end.
struct Options : ServiceOptions {
    // Where clients reach the printer: the front end's host and port, which
    // make the printer URI and every job URI.
    std::string hostName = "localhost";
    uint16_t port = 8631;
};

// Emulated start-up (the service under qemu-user) is slow; a listener that is
// not up by then is not coming.
const int kListenerWaitMs = 30000;

void usage(FILE* out, const char* argv0) {
    fprintf(out,
            "Usage: %s [options]\n"
            "The IPP library with the reference printer on the library's Unix-domain socket,\n"
            "for an HTTP front end in another process (cmp-ipp-frontend --socket-dir DIR).\n"
            "Stop it with Ctrl-C (SIGINT) or SIGTERM.\n"
            "  --host NAME        host name in the printer URI: where clients reach the front\n"
            "                     end (default localhost)\n"
            "  --port N           the front end's TCP port, for the printer URI (default 8631)\n"
            "  --name TEXT        printer-name (default \"Reference Printer\")\n"
            "  --spool DIR        where documents are written (default ./spool, created if missing)\n"
            "  --socket-dir DIR   directory of the library's socket \"zyn_ipp_server\", created 0700\n"
            "                     if missing (default: $GEN_UNIX_PATH, else /tmp/)\n"
            "  --socket-group G   let group G (name or number) use the socket too: socket 0660,\n"
            "                     a directory created here 0710, both of group G\n"
            "  --trace-level N    library trace threshold (0 errors only ... 3 all; default\n"
            "                     $CMP_IPP_TRACE_LEVEL, else 0)\n"
            "  --processing-ms N  how long each job stays processing (default 2000)\n"
            "  --version          print the program's name and version, exit\n"
            "  --help             this text\n",
            argv0);
}

int parseArgs(int argc, char** argv, Options& o) {
    static const struct option longOpts[] = {
        {"host", required_argument, nullptr, 'H'},        {"port", required_argument, nullptr, 'p'},
        {"name", required_argument, nullptr, 'n'},        {"spool", required_argument, nullptr, 'd'},
        {"socket-dir", required_argument, nullptr, 's'},  {"socket-group", required_argument, nullptr, 'g'},
        {"trace-level", required_argument, nullptr, 't'}, {"processing-ms", required_argument, nullptr, 'm'},
        {"help", no_argument, nullptr, 'h'},              {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    long v = 0;
    while ((c = getopt_long(argc, argv, "H:p:n:d:s:g:t:m:h", longOpts, nullptr)) != -1) {
        switch (c) {
        case 'H':
            if (*optarg == '\0') {
                fprintf(stderr, "%s: empty host name\n", argv[0]);
                return 2;
            }
            o.hostName = optarg;
            break;
        case 'p':
            // Unlike cmp-ipp-printer's, this port is only named, never bound: 0 means nothing.
            if (!parseNumber(optarg, 1, 65535, &v)) {
                fprintf(stderr, "%s: bad port: %s\n", argv[0], optarg);
                return 2;
            }
            o.port = static_cast<uint16_t>(v);
            break;
        case 'h': usage(stdout, argv[0]); return 0;
        case 'V': printf("cmp-ipp-service %s\n", CMP_IPP_VERSION); return 0;
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
    return -1;
}

// An IPv6 address as a URI host goes in brackets.
std::string uriHost(const std::string& host) {
    if (host.find(':') != std::string::npos && host.front() != '[') return "[" + host + "]";
    return host;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    const int parsed = parseArgs(argc, argv, o);
    if (parsed >= 0) return parsed;

    if (!prepareSpoolDir(argv[0], o.spoolDir)) return 1;
    if (o.socketDir.empty()) {
        const char* env = getenv("GEN_UNIX_PATH");
        o.socketDir = env != nullptr && *env != '\0' ? env : "/tmp/";
    }
    bool created = false;
    if (!prepareSocketDir(argv[0], &o.socketDir, o.socketGroup, &created)) return 1;
    const std::string socketDir = withSlash(o.socketDir);
    setenv("GEN_UNIX_PATH", socketDir.c_str(), 1);
    const std::string socketPath = socketDir + "zyn_ipp_server";
    if (o.traceLevel >= 0) orvane::cmp_dbglog_common::get_instance().set_level(o.traceLevel);
    const bool grouped = o.socketGroup != static_cast<gid_t>(-1);
    (void)pn_httpd_set_socket_group(grouped ? static_cast<int32_t>(o.socketGroup) : -1);

    // Every thread started below inherits this mask, so only sigwait() sees the stop signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    cmp_ipp_dictionary_install();
    refprinter::Config config;
    config.name = o.name;
    config.spoolDir = o.spoolDir;
    config.processingMs = o.processingMs;
    const std::string uri = "ipp://" + uriHost(o.hostName) + ":" + std::to_string(o.port) + "/ipp/print";
    config.uris = {uri};
    refprinter::Printer printer(config);

    int rc = 0;
    if (!printer.serve()) {
        fprintf(stderr, "%s: the IPP service did not start\n", argv[0]);
        rc = 1;
    } else {
        if (!waitForListener(socketPath, kListenerWaitMs)) {
            fprintf(stderr, "%s: the IPP listener did not come up on %s\n", argv[0], socketPath.c_str());
            rc = 1;
        }
    }
    if (rc == 0) {
        printf("Printer URI: %s\n", uri.c_str());
        printf("Socket:      %s\n", socketPath.c_str());
        printf("Spool:       %s\n", o.spoolDir.c_str());
        fflush(stdout);
        int sig = 0;
        sigwait(&stopSignals, &sig);
        fprintf(stderr, "%s: stopping (signal %d)\n", argv[0], sig);
    }

    // No new connections first, then the printer.
    (void)orvane::cmp_ipp_facade::cmp_ipp_get_instance()->cmp_ipp_term();
    printer.stop();
    unlink(socketPath.c_str());
    if (created) rmdir(o.socketDir.c_str());
    return rc;
}
