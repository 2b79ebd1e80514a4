// The Unix-socket path alone, for bench/peer_bench.sh: round trips of
// Get-Printer-Attributes (requested-attributes "all") over one kept connection
// to the library's socket, spoken with the front end's own record code, and
// then the same records and body sizes against a raw echo server in this
// process (what the socket itself allows). Every reply is checked.
//
//   relay_rtt --socket PATH [--seconds S] [--pid PID]
//
// Prints: library_rtps=... echo_rtps=... ratio=... request_body=... reply_body=...
// [library_cpu_us=... per round trip, with --pid].
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cmp_ipp_relay.h"
#include "cmp_ipp_write_all.h"
#include "containers/cmp_ipp_if.h"

namespace {

using Clock = std::chrono::steady_clock;
using cmp_ipp_fe::RelayConnection;
using cmp_ipp_fe::RelayReply;
using cmp_ipp_fe::RelayRequest;

const int kTimeoutMs = 10000;

int64_t processCpuUs(long pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return -1;
    const size_t close = line.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream fields(line.substr(close + 2));
    std::string f;
    long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> f; ++i) {
        if (i == 14) utime = std::atoll(f.c_str());
        if (i == 15) stime = std::atoll(f.c_str());
    }
    const long ticks = sysconf(_SC_CLK_TCK);
    return (utime + stime) * 1000000LL / (ticks > 0 ? ticks : 100);
}

void put16(std::vector<unsigned char>& b, unsigned v) {
    b.push_back(static_cast<unsigned char>(v >> 8));
    b.push_back(static_cast<unsigned char>(v));
}

void putAttr(std::vector<unsigned char>& b, unsigned char tag, const std::string& name, const std::string& value) {
    b.push_back(tag);
    put16(b, static_cast<unsigned>(name.size()));
    b.insert(b.end(), name.begin(), name.end());
    put16(b, static_cast<unsigned>(value.size()));
    b.insert(b.end(), value.begin(), value.end());
}

std::vector<unsigned char> gpaAll() {
    std::vector<unsigned char> b{2, 0};
    put16(b, 0x000B);
    b.insert(b.end(), {0, 0, 0, 0});
    b.push_back(1);
    putAttr(b, 0x47, "attributes-charset", "utf-8");
    putAttr(b, 0x48, "attributes-natural-language", "en");
    putAttr(b, 0x45, "printer-uri", "ipp://localhost:631/ipp/print");
    putAttr(b, 0x44, "requested-attributes", "all");
    b.push_back(3);
    return b;
}

// What the front end sends for a keep-alive POST from a local client.
RelayRequest postRecord(size_t bodyLength) {
    RelayRequest r;
    r.method = 2;
    r.connection = 2;
    r.keepAliveLevel = 1;
    r.contentLength = static_cast<int32_t>(bodyLength);
    r.headers = {{CMP_IPP_IF_HDR_HOST, "localhost:631"},
                 {CMP_IPP_IF_HDR_CONTENT_TYPE, "application/ipp"},
                 {CMP_IPP_IF_HDR_CONTENT_LENGTH, std::to_string(bodyLength)},
                 {CMP_IPP_IF_HDR_REQUEST_URI, "/ipp/print"},
                 {CMP_IPP_IF_HDR_REMOTE_ADDR, "127.0.0.1"}};
    return r;
}

struct Result {
    uint64_t roundTrips = 0;
    double seconds = 0;
    size_t replyBody = 0;
    int64_t serverCpuUs = -1;
};

// Round trips on one connection until the time is up; false on any failure.
bool roundTrips(const std::string& path, double seconds, bool checkIpp, long pid, Result* out, std::string* why) {
    RelayConnection c(kTimeoutMs, nullptr);
    if (c.connectTo(path) != RelayConnection::Outcome::Ok) return *why = "cannot connect to " + path, false;
    std::vector<unsigned char> body = gpaAll();
    const RelayRequest rec = postRecord(body.size());
    RelayReply reply;
    uint32_t id = 1;
    auto once = [&]() -> bool {
        body[4] = static_cast<unsigned char>(id >> 24);
        body[5] = static_cast<unsigned char>(id >> 16);
        body[6] = static_cast<unsigned char>(id >> 8);
        body[7] = static_cast<unsigned char>(id);
        if (!c.sendRequest(rec) || !c.addBody(body.data(), body.size()) || !c.endBody())
            return *why = "sending failed", false;
        if (!c.readReply(reply, kTimeoutMs)) return *why = "no reply", false;
        if (reply.status != 0) return *why = "reply status " + std::to_string(reply.status), false;
        if (reply.connection != 2) return *why = "the connection is not kept", false;
        if (checkIpp) {
            const unsigned char* p = reply.body.get();
            if (reply.bodyLength < 9 || p[2] != 0 || p[3] > 0x01 ||
                ((uint32_t(p[4]) << 24) | (uint32_t(p[5]) << 16) | (uint32_t(p[6]) << 8) | p[7]) != id ||
                p[reply.bodyLength - 1] != 0x03)
                return *why = "bad IPP reply to request " + std::to_string(id), false;
        }
        ++id;
        return true;
    };
    for (int i = 0; i < 20; ++i)
        if (!once()) return false;  // warm-up
    out->replyBody = reply.bodyLength;
    const int64_t cpu0 = pid > 0 ? processCpuUs(pid) : -1;
    const Clock::time_point t0 = Clock::now();
    const Clock::time_point end = t0 + std::chrono::microseconds(static_cast<int64_t>(seconds * 1e6));
    while (Clock::now() < end) {
        if (!once()) return false;
        ++out->roundTrips;
    }
    out->seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    if (cpu0 >= 0) out->serverCpuUs = processCpuUs(pid) - cpu0;
    return true;
}

bool readExact(int fd, unsigned char* p, size_t n) {
    while (n > 0) {
        const ssize_t r = recv(fd, p, n, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

using cmp_ipp_app::writeAll;

// Takes a request record and body blocks up to the end block, answers with a
// reply record (status 0, kept, contentLength) and that many body bytes.
void echoServer(int listener, size_t replyBody) {
    const int fd = accept(listener, nullptr, nullptr);
    if (fd < 0) return;
    std::vector<unsigned char> record(cmp_ipp_fe::requestRecordSize());
    std::vector<unsigned char> block(32768);
    std::vector<unsigned char> reply(cmp_ipp_fe::replyRecordSize() + replyBody, 0);
    const int32_t kept = 2, length = static_cast<int32_t>(replyBody);
    memcpy(reply.data() + 4, &kept, 4);
    memcpy(reply.data() + 8, &length, 4);
    for (;;) {
        if (!readExact(fd, record.data(), record.size())) break;
        int32_t n = 0;
        bool ok = true;
        while (ok && readExact(fd, reinterpret_cast<unsigned char*>(&n), 4) && n > 0)
            ok = n <= 32768 && readExact(fd, block.data(), static_cast<size_t>(n));
        if (!ok || !writeAll(fd, reply.data(), reply.size())) break;
    }
    close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    std::string socketPath;
    double seconds = 2;
    long pid = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        if (a == "--socket") socketPath = argv[i + 1];
        else if (a == "--seconds") seconds = std::atof(argv[i + 1]);
        else if (a == "--pid") pid = std::atol(argv[i + 1]);
        else return fprintf(stderr, "relay_rtt: unknown option %s\n", a.c_str()), 2;
    }
    if (socketPath.empty() || seconds <= 0) {
        fprintf(stderr, "usage: relay_rtt --socket PATH [--seconds S] [--pid PID]\n");
        return 2;
    }

    Result lib;
    std::string why;
    if (!roundTrips(socketPath, seconds, true, pid, &lib, &why)) {
        fprintf(stderr, "relay_rtt: library: %s\n", why.c_str());
        return 1;
    }

    char dir[] = "/tmp/relay-rtt-XXXXXX";
    if (mkdtemp(dir) == nullptr) return perror("relay_rtt: mkdtemp"), 1;
    const std::string echoPath = std::string(dir) + "/echo";
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, echoPath.c_str(), echoPath.size());
    if (listener < 0 || bind(listener, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listener, 1) != 0)
        return perror("relay_rtt: echo socket"), 1;
    std::thread server(echoServer, listener, lib.replyBody);
    Result echo;
    const bool echoed = roundTrips(echoPath, seconds, false, 0, &echo, &why);
    // A failed client leaves the server waiting: shutting the listener down
    // ends a pending accept, and the client's close ends the rest.
    shutdown(listener, SHUT_RDWR);
    server.join();
    close(listener);
    unlink(echoPath.c_str());
    rmdir(dir);
    if (!echoed) {
        fprintf(stderr, "relay_rtt: echo: %s\n", why.c_str());
        return 1;
    }

    const double libRate = double(lib.roundTrips) / lib.seconds;
    const double echoRate = double(echo.roundTrips) / echo.seconds;
    printf("library_rtps=%.1f echo_rtps=%.1f ratio=%.3f request_body=%zu reply_body=%zu", libRate, echoRate,
           libRate / echoRate, gpaAll().size(), lib.replyBody);
    if (lib.serverCpuUs >= 0) printf(" library_cpu_us=%.1f", double(lib.serverCpuUs) / double(lib.roundTrips));
    printf("\n");
    return 0;
}
