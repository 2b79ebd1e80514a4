// cmp-ipp-printer: the whole printer in one process on a workstation. The IPP
// dictionary is installed, the reference printer registered with the library,
// the library's listener started on a Unix-domain socket, and the HTTP front end
// relays TCP clients to it. SIGINT or SIGTERM stops everything in reverse order.
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
#include <unistd.h>

#include <string>

#include "cmp_ipp_app_setup.h"
#include "cmp_ipp_dictionary.h"
#include "cmp_ipp_frontend.h"
#include "cmp_ipp_refprinter.h"
#include "cmp_ipp_relay.h"
#include "httpd/cmp_ipp_httpd.h"
#include "platform/cmp_dbglog.h"

namespace {

using namespace cmp_ipp_app;

struct Options {
    uint16_t port = 8631;
    std::string bind = "127.0.0.1";
    std::string hostName;  // host part of the printer URI; from the bind address when empty
    std::string spoolDir = "spool";
    std::string socketDir;  // empty: a private directory, removed at exit
    gid_t socketGroup = static_cast<gid_t>(-1);  // -1: the socket is for this user alone
    std::string name = "Reference Printer";
    int traceLevel = -1;  // -1: leave it to CMP_IPP_TRACE_LEVEL
    bool printSeconds = false;
    uint32_t processingMs = 2000;
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
            "  --help             this text\n",
            argv0);
}

std::string uriHost(const Options& o) {
    if (!o.hostName.empty()) return o.hostName;
    if (o.bind == "127.0.0.1" || o.bind == "::1") return "localhost";
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
        case 'n': o.name = optarg; break;
        case 'd': o.spoolDir = optarg; break;
        case 's': o.socketDir = optarg; break;
        case 'g':
            if (!parseGroup(optarg, &o.socketGroup)) {
                fprintf(stderr, "%s: unknown group: %s\n", argv[0], optarg);
                return 2;
            }
            break;
        case 't':
            if (!parseNumber(optarg, 0, 9, &v)) {
                fprintf(stderr, "%s: bad trace level: %s\n", argv[0], optarg);
                return 2;
            }
            o.traceLevel = static_cast<int>(v);
            break;
        case 'm':
            if (!parseNumber(optarg, 0, 3600000, &v)) {
                fprintf(stderr, "%s: bad processing time: %s\n", argv[0], optarg);
                return 2;
            }
            o.processingMs = static_cast<uint32_t>(v);
            break;
        case 'h': usage(stdout, argv[0]); return 0;
        default: usage(stderr, argv[0]); return 2;
        }
    }
    if (optind < argc) {
        usage(stderr, argv[0]);
        return 2;
    }
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    const int parsed = parseArgs(argc, argv, o);
    if (parsed >= 0) return parsed;

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
    cmp_ipp_frontend::options fo;
    fo.bindAddress = o.bind;
    fo.port = o.port;
    fo.socketPath = socketPath;
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
    const std::string uri = "ipp://" + uriHost(o) + ":" + std::to_string(frontend.port()) + "/ipp/print";
    config.uris = {uri};
    refprinter::Printer printer(config);

    int rc = 0;
    if (!printer.start()) {
        fprintf(stderr, "%s: the IPP service did not start\n", argv[0]);
        rc = 1;
    } else {
        (void)httpd_start_wrap();
        if (!waitForListener(socketPath, 5000)) {
            fprintf(stderr, "%s: the IPP listener did not come up on %s\n", argv[0], socketPath.c_str());
            rc = 1;
        } else if (!frontend.start(&error)) {
            fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
            rc = 1;
        }
    }
    if (rc == 0) {
        printf("Printer URI: %s\n", uri.c_str());
        printf("Web page:    http://%s:%u/\n", uriHost(o).c_str(), static_cast<unsigned>(frontend.port()));
        printf("Spool:       %s\n", o.spoolDir.c_str());
        fflush(stdout);
        int sig = 0;
        sigwait(&stopSignals, &sig);
        fprintf(stderr, "%s: stopping (signal %d)\n", argv[0], sig);
    }

    // Reverse order: no new HTTP requests, then the listener, then the printer.
    frontend.stop();
    (void)httpd_stop_wrap();
    printer.stop();
    unlink(socketPath.c_str());
    if (ownSocketDir) rmdir(o.socketDir.c_str());
    return rc;
}
