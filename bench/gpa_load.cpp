// Load client for bench/peer_bench.sh: keep-alive HTTP/1.1 connections, one
// thread each, sending Get-Printer-Attributes (requested-attributes "all",
// IPP/2.0) or GET requests back to back for a while. Every reply is checked
// (HTTP status, framing, IPP version, status and request-id, attributes ending
// exactly at the end tag); a bad one fails the run. Prints one line of
// key=value results: requests per second, latency percentiles and, given the
// server's process id, its CPU time per request.
//
//   gpa_load --port P [--host 127.0.0.1] [--path /ipp/print] [--connections N]
//            [--seconds S] [--warmup-ms MS] [--get PATH] [--pid PID] [--count-broken]
//       --count-broken: a reply that fails the checks is counted ("broken=") and
//       its connection opened anew, instead of failing the run
//   gpa_load --port P --connections N --hold-file FILE [--seconds S]
//       opens N connections, answers one request on each, creates FILE and keeps
//       the connections open for S seconds (for memory readings meanwhile)
//   gpa_load --free-port
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "cmp_ipp_http_client.h"

namespace {

using Clock = std::chrono::steady_clock;
using cmp_ipp_app::HttpConnection;
using cmp_ipp_app::HttpResponse;

struct Options {
    std::string host = "127.0.0.1";
    int port = 0;
    std::string path = "/ipp/print";
    int connections = 1;
    double seconds = 3;
    int warmupMs = 300;
    std::string get;  // non-empty: GET this path instead of the IPP request
    long pid = 0;
    std::string holdFile;
    bool countBroken = false;
};

std::atomic<bool> g_failed{false};
std::mutex g_errorMutex;
std::string g_error;

void fail(const std::string& why) {
    std::lock_guard<std::mutex> lock(g_errorMutex);
    if (!g_failed.exchange(true)) g_error = why;
}

// utime + stime of a process, in microseconds; -1 when unreadable.
int64_t processCpuUs(long pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return -1;
    const size_t close = line.rfind(')');  // the command name may hold blanks
    if (close == std::string::npos) return -1;
    std::istringstream fields(line.substr(close + 2));
    std::string f;
    long long utime = 0, stime = 0;
    // Fields after the name start at 3 (state); utime and stime are 14 and 15.
    for (int i = 3; i <= 15 && fields >> f; ++i) {
        if (i == 14) utime = std::atoll(f.c_str());
        if (i == 15) stime = std::atoll(f.c_str());
    }
    const long ticks = sysconf(_SC_CLK_TCK);
    return (utime + stime) * 1000000LL / (ticks > 0 ? ticks : 100);
}

void put16(std::string& b, unsigned v) {
    b += static_cast<char>((v >> 8) & 0xFF);
    b += static_cast<char>(v & 0xFF);
}

void putAttr(std::string& b, unsigned char tag, const std::string& name, const std::string& value) {
    b += static_cast<char>(tag);
    put16(b, static_cast<unsigned>(name.size()));
    b += name;
    put16(b, static_cast<unsigned>(value.size()));
    b += value;
}

// Get-Printer-Attributes, IPP/2.0, requested-attributes "all"; request-id at bytes 4..7.
std::string gpaRequest(const Options& o) {
    std::string b;
    b += '\x02';
    b += '\x00';
    put16(b, 0x000B);
    b.append(4, '\0');
    b += '\x01';
    putAttr(b, 0x47, "attributes-charset", "utf-8");
    putAttr(b, 0x48, "attributes-natural-language", "en");
    putAttr(b, 0x45, "printer-uri", "ipp://" + o.host + ":" + std::to_string(o.port) + o.path);
    putAttr(b, 0x44, "requested-attributes", "all");
    b += '\x03';
    return b;
}

uint32_t be32(const unsigned char* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | uint32_t(p[3]);
}

// The attributes of an IPP response end exactly at its last byte with the end tag.
bool attributesEndAtEnd(const std::string& body, std::string* why) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(body.data());
    size_t i = 8;
    const size_t n = body.size();
    while (i < n) {
        const unsigned char tag = p[i++];
        if (tag == 0x03) {
            if (i == n) return true;
            *why = "end tag at " + std::to_string(i - 1) + " of " + std::to_string(n) + " bytes";
            return false;
        }
        if (tag < 0x10) continue;  // a group delimiter
        if (i + 2 > n) break;
        i += 2 + ((size_t(p[i]) << 8) | p[i + 1]);
        if (i + 2 > n) break;
        i += 2 + ((size_t(p[i]) << 8) | p[i + 1]);
    }
    *why = "attributes run past the body (" + std::to_string(n) + " bytes)";
    return false;
}

// Servers may give each client address a share of their connections (ours: 16
// of 32): on loopback the connections come from 127.0.0.1 to 127.0.0.4 in
// turn, as from four clients. A server that stops answering fails the reply
// (after 10 s) instead of hanging the run.
bool openConnection(const Options& o, int index, HttpConnection& c) {
    char source[16];
    snprintf(source, sizeof source, "127.0.0.%d", 1 + index % 4);
    const bool loopback = o.host.compare(0, 4, "127.") == 0;
    return c.open(o.host.c_str(), static_cast<uint16_t>(o.port), loopback ? source : nullptr, 10000);
}

struct Worker {
    std::vector<uint32_t> latencyUs;
    uint64_t requests = 0;
    uint64_t bodyBytes = 0;
    uint64_t reconnects = 0;
    uint64_t broken = 0;
    std::string lastBroken;
    size_t minBody = SIZE_MAX;
    size_t maxBody = 0;
};

std::atomic<bool> g_measuring{false};
std::atomic<bool> g_stop{false};

// One request and its reply; false with the reason when the reply fails a check.
bool check(const Options& o, HttpConnection& c, HttpResponse& r, const std::string& ipp, uint32_t requestId,
           Worker& w, bool count, std::string* why) {
    std::string http;
    if (o.get.empty()) {
        std::string body = ipp;
        body[4] = static_cast<char>(requestId >> 24);
        body[5] = static_cast<char>(requestId >> 16);
        body[6] = static_cast<char>(requestId >> 8);
        body[7] = static_cast<char>(requestId);
        http = "POST " + o.path + " HTTP/1.1\r\nHost: " + o.host + ":" + std::to_string(o.port) +
               "\r\nContent-Type: application/ipp\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
               body;
    } else {
        http = "GET " + o.get + " HTTP/1.1\r\nHost: " + o.host + ":" + std::to_string(o.port) + "\r\n\r\n";
    }
    const Clock::time_point t0 = Clock::now();
    if (!c.send(http)) return *why = "send failed", false;
    if (!c.readResponse(r, false)) return *why = r.error, false;
    const int status = r.status;
    const std::string& body = r.body;
    const uint32_t us =
        static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count());
    if (status != 200) return *why = "HTTP status " + std::to_string(status), false;
    if (o.get.empty()) {
        if (body.size() < 9) return *why = "IPP reply of " + std::to_string(body.size()) + " bytes", false;
        const unsigned char* p = reinterpret_cast<const unsigned char*>(body.data());
        if (p[0] != 2) return *why = "IPP version " + std::to_string(p[0]) + "." + std::to_string(p[1]), false;
        const unsigned ippStatus = (unsigned(p[2]) << 8) | p[3];
        if (ippStatus > 0x00FF) return *why = "IPP status " + std::to_string(ippStatus), false;
        if (be32(p + 4) != requestId)
            return *why = "request-id " + std::to_string(be32(p + 4)) + " for " + std::to_string(requestId), false;
        if (!attributesEndAtEnd(body, why)) return false;
    } else if (body.empty()) {
        return *why = "empty page", false;
    }
    if (count) {
        w.latencyUs.push_back(us);
        ++w.requests;
        w.bodyBytes += body.size();
        w.minBody = std::min(w.minBody, body.size());
        w.maxBody = std::max(w.maxBody, body.size());
    }
    if (!r.keepAlive) {
        c.close();
        ++w.reconnects;
    }
    return true;
}

// A bad reply fails the run, or with --count-broken is counted and its
// connection dropped (whatever is left of it cannot be trusted).
bool exchange(const Options& o, HttpConnection& c, HttpResponse& r, const std::string& ipp, uint32_t requestId,
              Worker& w, bool count) {
    std::string why;
    if (check(o, c, r, ipp, requestId, w, count, &why)) return true;
    if (!o.countBroken) {
        fail(why);
        return false;
    }
    if (count) ++w.broken;
    w.lastBroken = why;
    c.close();
    return true;
}

void run(const Options& o, int index, Worker& w) {
    HttpConnection c;
    HttpResponse r;  // its buffers are reused from reply to reply
    const std::string ipp = gpaRequest(o);
    uint32_t requestId = static_cast<uint32_t>(index) * 1000000u + 1;
    while (!g_stop.load() && !g_failed.load()) {
        if (!c.connected() && !openConnection(o, index, c))
            return fail("cannot connect to " + o.host + ":" + std::to_string(o.port));
        const bool counted = g_measuring.load();
        if (!exchange(o, c, r, ipp, requestId++, w, counted)) return;
    }
}

int holdConnections(const Options& o) {
    std::vector<std::unique_ptr<HttpConnection>> open;
    std::vector<Worker> w(static_cast<size_t>(o.connections));
    HttpResponse r;
    const std::string ipp = gpaRequest(o);
    for (int i = 0; i < o.connections; ++i) {
        open.emplace_back(new HttpConnection);
        if (!openConnection(o, i, *open.back())) return fprintf(stderr, "gpa_load: cannot connect\n"), 1;
    }
    // Every connection carries a request, so the server has set each one up.
    for (int i = 0; i < o.connections; ++i) {
        if (!exchange(o, *open[static_cast<size_t>(i)], r, ipp, static_cast<uint32_t>(i + 1),
                      w[static_cast<size_t>(i)], true))
            return fprintf(stderr, "gpa_load: %s\n", g_error.c_str()), 1;
    }
    FILE* f = fopen(o.holdFile.c_str(), "w");
    if (f != nullptr) fclose(f);
    std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int64_t>(o.seconds * 1000)));
    return 0;
}

int freePort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in a;
    memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof a) != 0 ||
        getsockname(fd, reinterpret_cast<struct sockaddr*>(&a), &len) != 0)
        return 1;
    printf("%u\n", static_cast<unsigned>(ntohs(a.sin_port)));
    ::close(fd);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                fprintf(stderr, "gpa_load: %s needs a value\n", a.c_str());
                exit(2);
            }
            return argv[++i];
        };
        if (a == "--free-port") return freePort();
        if (a == "--host") o.host = value();
        else if (a == "--port") o.port = std::atoi(value().c_str());
        else if (a == "--path") o.path = value();
        else if (a == "--connections") o.connections = std::atoi(value().c_str());
        else if (a == "--seconds") o.seconds = std::atof(value().c_str());
        else if (a == "--warmup-ms") o.warmupMs = std::atoi(value().c_str());
        else if (a == "--get") o.get = value();
        else if (a == "--pid") o.pid = std::atol(value().c_str());
        else if (a == "--hold-file") o.holdFile = value();
        else if (a == "--count-broken") o.countBroken = true;
        else {
            fprintf(stderr, "gpa_load: unknown option %s\n", a.c_str());
            return 2;
        }
    }
    if (o.port <= 0 || o.connections <= 0 || o.seconds <= 0) {
        fprintf(stderr, "gpa_load: needs --port, and a positive --connections and --seconds\n");
        return 2;
    }
    if (!o.holdFile.empty()) return holdConnections(o);

    std::vector<Worker> workers(static_cast<size_t>(o.connections));
    std::vector<std::thread> threads;
    for (int i = 0; i < o.connections; ++i) threads.emplace_back(run, std::cref(o), i, std::ref(workers[size_t(i)]));
    std::this_thread::sleep_for(std::chrono::milliseconds(o.warmupMs));
    const int64_t cpu0 = o.pid > 0 ? processCpuUs(o.pid) : -1;
    const Clock::time_point t0 = Clock::now();
    g_measuring = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int64_t>(o.seconds * 1000)));
    g_measuring = false;
    const Clock::time_point t1 = Clock::now();
    const int64_t cpu1 = o.pid > 0 ? processCpuUs(o.pid) : -1;
    g_stop = true;
    for (std::thread& t : threads) t.join();
    if (g_failed.load()) {
        fprintf(stderr, "gpa_load: reply check failed: %s\n", g_error.c_str());
        return 1;
    }

    std::vector<uint32_t> lat;
    uint64_t requests = 0, bytes = 0, reconnects = 0, broken = 0;
    size_t minBody = SIZE_MAX, maxBody = 0;
    uint64_t fewest = UINT64_MAX, most = 0;
    std::string lastBroken;
    for (const Worker& w : workers) {
        fewest = std::min(fewest, w.requests);
        most = std::max(most, w.requests);
        broken += w.broken;
        if (!w.lastBroken.empty()) lastBroken = w.lastBroken;
        lat.insert(lat.end(), w.latencyUs.begin(), w.latencyUs.end());
        requests += w.requests;
        bytes += w.bodyBytes;
        reconnects += w.reconnects;
        minBody = std::min(minBody, w.minBody);
        maxBody = std::max(maxBody, w.maxBody);
    }
    if (requests == 0) {
        fprintf(stderr, "gpa_load: no request completed in the measured time\n");
        return 1;
    }
    std::sort(lat.begin(), lat.end());
    auto pct = [&](double p) { return lat[std::min(lat.size() - 1, static_cast<size_t>(p * double(lat.size())))]; };
    const double secs = std::chrono::duration<double>(t1 - t0).count();
    printf("requests=%llu seconds=%.3f rps=%.1f p50_us=%u p99_us=%u body_bytes=%.0f body_min=%zu body_max=%zu "
           "reconnects=%llu conn_min_req=%llu conn_max_req=%llu",
           static_cast<unsigned long long>(requests), secs, double(requests) / secs, pct(0.50), pct(0.99),
           double(bytes) / double(requests), minBody, maxBody, static_cast<unsigned long long>(reconnects),
           static_cast<unsigned long long>(fewest), static_cast<unsigned long long>(most));
    // Broken replies cost the server as much as good ones.
    if (cpu0 >= 0 && cpu1 >= 0) printf(" cpu_us_per_req=%.1f", double(cpu1 - cpu0) / double(requests + broken));
    if (o.countBroken) printf(" broken=%llu", static_cast<unsigned long long>(broken));
    printf("\n");
    if (broken != 0) fprintf(stderr, "gpa_load: %llu broken replies, the last: %s\n",
                             static_cast<unsigned long long>(broken), lastBroken.c_str());
    return 0;
}
