// cmp-ipp-frontend: the HTTP front end as a process of its own, for deployments
// where the IPP library runs in another process on the same machine.
#include <errno.h>
#include <getopt.h>
#include <pwd.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "cmp_ipp_auth.h"
#include "cmp_ipp_frontend.h"
#include "cmp_ipp_relay.h"
#include "cmp_ipp_tls.h"
#include "cmp_ipp_version.h"

namespace {

void usage(FILE* out, const char* argv0) {
    fprintf(out,
            "Usage: %s [--port N] [--bind ADDRESS] [--socket-dir DIR] [--trust-uid UID]...\n"
            "       [--tls-cert FILE --tls-key FILE [--tls-only]] [--auth-file FILE] [--version] [--help]\n"
            "Relays HTTP/IPP requests to the IPP library's Unix-domain socket.\n"
            "  --port N          TCP port (default 8631; 0 picks a free one)\n"
            "  --bind ADDRESS    numeric IPv4 or IPv6 address to listen on (default 127.0.0.1)\n"
            "  --socket-dir DIR  directory of the library's socket \"zyn_ipp_server\"\n"
            "                    (default: $GEN_UNIX_PATH, else /tmp/)\n"
            "  --trust-uid UID   also relay to a socket served by this user (number or name;\n"
            "                    repeatable). By default only this user's and root's are used.\n"
            "  --tls-cert FILE   TLS certificate (PEM): HTTPS on the same port as HTTP\n"
            "  --tls-key FILE    its private key (PEM)\n"
            "  --tls-only        HTTPS only\n"
            "  --auth-file FILE  IPP operations other than queries need a user and password\n"
            "                    (HTTP Basic) from FILE: lines \"user:HASH\", HASH from crypt(3)\n"
            "  --version         print the program's name and version, exit\n"
            "  --help            this text\n",
            argv0);
}

bool parseUid(const char* text, uid_t* out) {
    char* end = nullptr;
    errno = 0;
    const long v = strtol(text, &end, 10);
    if (errno == 0 && end != text && *end == '\0' && v >= 0 && v < 0x7FFFFFFF) {
        *out = static_cast<uid_t>(v);
        return true;
    }
    const struct passwd* pw = getpwnam(text);
    if (pw == nullptr) return false;
    *out = pw->pw_uid;
    return true;
}

bool parsePort(const char* text, uint16_t* out) {
    char* end = nullptr;
    const long v = strtol(text, &end, 10);
    if (end == text || *end != '\0' || v < 0 || v > 65535) return false;
    *out = static_cast<uint16_t>(v);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    cmp_ipp_frontend::Options opts;
    static const struct option longOpts[] = {
        {"port", required_argument, nullptr, 'p'},
        {"bind", required_argument, nullptr, 'b'},
        {"socket-dir", required_argument, nullptr, 's'},
        {"trust-uid", required_argument, nullptr, 'u'},
        {"tls-cert", required_argument, nullptr, 'C'},
        {"tls-key", required_argument, nullptr, 'K'},
        {"tls-only", no_argument, nullptr, 'T'},
        {"auth-file", required_argument, nullptr, 'A'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {nullptr, 0, nullptr, 0},
    };
    std::string certFile, keyFile, authFile;
    int c;
    while ((c = getopt_long(argc, argv, "p:b:s:u:h", longOpts, nullptr)) != -1) {
        switch (c) {
        case 'p':
            if (!parsePort(optarg, &opts.port)) {
                fprintf(stderr, "%s: bad port: %s\n", argv[0], optarg);
                return 2;
            }
            break;
        case 'b':
            opts.bindAddress = optarg;
            break;
        case 's': {
            std::string dir = optarg;
            if (dir.empty() || dir.back() != '/') dir += '/';
            opts.socketPath = cmp_ipp_fe::socketPathIn(dir.c_str());
            break;
        }
        case 'u': {
            uid_t uid = 0;
            if (!parseUid(optarg, &uid)) {
                fprintf(stderr, "%s: unknown user: %s\n", argv[0], optarg);
                return 2;
            }
            opts.trustedUids.push_back(uid);
            break;
        }
        case 'C': certFile = optarg; break;
        case 'K': keyFile = optarg; break;
        case 'T': opts.plainHttp = false; break;
        case 'A': authFile = optarg; break;
        case 'h':
            usage(stdout, argv[0]);
            return 0;
        case 'V':
            printf("cmp-ipp-frontend %s\n", CMP_IPP_VERSION);
            return 0;
        default:
            usage(stderr, argv[0]);
            return 2;
        }
    }
    if (optind < argc || certFile.empty() != keyFile.empty() || (!opts.plainHttp && certFile.empty())) {
        usage(stderr, argv[0]);
        return 2;
    }
    std::string error;
    if (!certFile.empty()) {
        cmp_ipp_fe::TlsIdentity id;
        if (!cmp_ipp_fe::loadTlsIdentity(certFile, keyFile, &id, &error)) {
            fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
            return 1;
        }
        opts.tlsCertificatePem = id.certificatePem;
        opts.tlsKeyPem = id.keyPem;
    }
    if (!authFile.empty()) {
        if (cmp_ipp_fe::passwordHashingAvailable(&error)) opts.auth = cmp_ipp_fe::BasicAuth::load(authFile, &error);
        if (!opts.auth) {
            fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
            return 1;
        }
    }

    // Block the stop signals before any thread starts, so that every thread
    // inherits the mask and only sigwait() below ever sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    const std::string name = argv[0];
    opts.log = [name](const std::string& message) { fprintf(stderr, "%s: %s\n", name.c_str(), message.c_str()); };
    cmp_ipp_frontend frontend(opts);
    if (!frontend.start(&error)) {
        fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
        return 1;
    }
    fprintf(stderr, "%s: listening on %s port %u (%s), relaying to %s\n", argv[0], opts.bindAddress.c_str(),
            static_cast<unsigned>(frontend.port()),
            !frontend.tls() ? "HTTP" : opts.plainHttp ? "HTTP and HTTPS" : "HTTPS", frontend.socketPath().c_str());

    int sig = 0;
    sigwait(&stopSignals, &sig);
    fprintf(stderr, "%s: stopping (signal %d)\n", argv[0], sig);
    frontend.stop();
    return 0;
}
