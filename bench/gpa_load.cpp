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
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
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

namespace {

using Clock = std::chrono::steady_clock;

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

class Connection {
public:
    Connection(const Options& o, int index) : m_o(o), m_index(index) {}
    ~Connection() { close(); }

    bool open() {
        close();
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_fd < 0) return false;
        struct sockaddr_in a;
        memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(m_o.port));
        if (inet_pton(AF_INET, m_o.host.c_str(), &a.sin_addr) != 1) return false;
        // Servers may give each client address a share of their connections
        // (ours: 16 of 32): on loopback the connections come from 127.0.0.1 to
        // 127.0.0.4 in turn, as from four clients.
        if (m_o.host.compare(0, 4, "127.") == 0) {
            struct sockaddr_in src;
            memset(&src, 0, sizeof src);
            src.sin_family = AF_INET;
            src.sin_addr.s_addr = htonl(0x7F000001u + static_cast<uint32_t>(m_index % 4));
            if (bind(m_fd, reinterpret_cast<struct sockaddr*>(&src), sizeof src) != 0) return false;
        }
        if (connect(m_fd, reinterpret_cast<struct sockaddr*>(&a), sizeof a) != 0) return false;
        const int one = 1;
        setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        // A server that stops sending fails the reply instead of hanging the run.
        struct timeval limit = {10, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        m_start = m_end = 0;
        return true;
    }
    void close() {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = -1;
    }
    bool isOpen() const { return m_fd >= 0; }

    bool sendAll(const std::string& data) {
        size_t off = 0;
        while (off < data.size()) {
            const ssize_t n = send(m_fd, data.data() + off, data.size() - off, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            off += static_cast<size_t>(n);
        }
        return true;
    }

    // One response: status code, body, whether the server keeps the connection.
    bool readResponse(int* status, std::string* body, bool* keep, std::string* why) {
        std::string line;
        if (!readLine(&line)) return *why = "connection closed before the status line", false;
        if (line.compare(0, 7, "HTTP/1.") != 0 || line.size() < 12)
            return *why = "bad status line: " + line, false;
        *status = std::atoi(line.c_str() + 9);
        *keep = line.compare(0, 8, "HTTP/1.1") == 0;
        long long length = -1;
        bool chunked = false;
        for (;;) {
            if (!readLine(&line)) return *why = "connection closed in the headers", false;
            if (line.empty()) break;
            const size_t colon = line.find(':');
            if (colon == std::string::npos) continue;
            std::string name = line.substr(0, colon);
            std::transform(name.begin(), name.end(), name.begin(), ::tolower);
            std::string value = line.substr(colon + 1);
            value.erase(0, value.find_first_not_of(" \t"));
            std::string lvalue = value;
            std::transform(lvalue.begin(), lvalue.end(), lvalue.begin(), ::tolower);
            if (name == "content-length") length = std::atoll(value.c_str());
            if (name == "transfer-encoding" && lvalue.find("chunked") != std::string::npos) chunked = true;
            if (name == "connection" && lvalue.find("close") != std::string::npos) *keep = false;
            if (name == "connection" && lvalue.find("keep-alive") != std::string::npos) *keep = true;
        }
        body->clear();
        if (chunked) {
            for (;;) {
                if (!readLine(&line)) return *why = "connection closed in a chunk header", false;
                char* end = nullptr;
                const unsigned long long size = std::strtoull(line.c_str(), &end, 16);
                if (end == line.c_str()) return *why = "bad chunk header: " + line, false;
                if (size == 0) break;
                if (!readBytes(static_cast<size_t>(size), body)) return *why = "connection closed in a chunk", false;
                if (!readLine(&line) || !line.empty()) return *why = "chunk not followed by CRLF", false;
            }
            do {  // trailers
                if (!readLine(&line)) return *why = "connection closed in the trailers", false;
            } while (!line.empty());
        } else if (length >= 0) {
            if (!readBytes(static_cast<size_t>(length), body)) return *why = "connection closed in the body", false;
        } else {
            // Neither: the body runs to the close.
            char buf[16384];
            for (;;) {
                if (m_start < m_end) {
                    body->append(m_buf + m_start, m_end - m_start);
                    m_start = m_end;
                }
                const ssize_t n = recv(m_fd, buf, sizeof buf, 0);
                if (n <= 0) break;
                body->append(buf, static_cast<size_t>(n));
            }
            *keep = false;
        }
        return true;
    }

private:
    bool fill() {
        if (m_start == m_end) m_start = m_end = 0;
        if (m_end == sizeof m_buf) {
            memmove(m_buf, m_buf + m_start, m_end - m_start);
            m_end -= m_start;
            m_start = 0;
        }
        for (;;) {
            const ssize_t n = recv(m_fd, m_buf + m_end, sizeof m_buf - m_end, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            m_end += static_cast<size_t>(n);
            return true;
        }
    }
    bool readLine(std::string* line) {
        for (;;) {
            const char* nl = static_cast<const char*>(memchr(m_buf + m_start, '\n', m_end - m_start));
            if (nl != nullptr) {
                size_t len = static_cast<size_t>(nl - (m_buf + m_start));
                line->assign(m_buf + m_start, len > 0 && nl[-1] == '\r' ? len - 1 : len);
                m_start += len + 1;
                return true;
            }
            if (m_end - m_start > 16384) return false;  // no header line is that long
            if (!fill()) return false;
        }
    }
    bool readBytes(size_t n, std::string* out) {
        while (n > 0) {
            if (m_start == m_end && !fill()) return false;
            const size_t take = std::min(n, m_end - m_start);
            out->append(m_buf + m_start, take);
            m_start += take;
            n -= take;
        }
        return true;
    }

    const Options& m_o;
    const int m_index;
    int m_fd = -1;
    char m_buf[65536];
    size_t m_start = 0;
    size_t m_end = 0;
};

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
bool check(const Options& o, Connection& c, const std::string& ipp, uint32_t requestId, Worker& w, bool count,
           std::string* why) {
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
    int status = 0;
    bool keep = true;
    std::string body;
    if (!c.sendAll(http)) return *why = "send failed", false;
    if (!c.readResponse(&status, &body, &keep, why)) return false;
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
    if (!keep) {
        c.close();
        ++w.reconnects;
    }
    return true;
}

// A bad reply fails the run, or with --count-broken is counted and its
// connection dropped (whatever is left of it cannot be trusted).
bool exchange(const Options& o, Connection& c, const std::string& ipp, uint32_t requestId, Worker& w,
              bool count) {
    std::string why;
    if (check(o, c, ipp, requestId, w, count, &why)) return true;
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
    Connection c(o, index);
    const std::string ipp = gpaRequest(o);
    uint32_t requestId = static_cast<uint32_t>(index) * 1000000u + 1;
    while (!g_stop.load() && !g_failed.load()) {
        if (!c.isOpen() && !c.open()) return fail("cannot connect to " + o.host + ":" + std::to_string(o.port));
        const bool counted = g_measuring.load();
        if (!exchange(o, c, ipp, requestId++, w, counted)) return;
    }
}

int holdConnections(const Options& o) {
    std::vector<std::unique_ptr<Connection>> open;
    std::vector<Worker> w(static_cast<size_t>(o.connections));
    const std::string ipp = gpaRequest(o);
    for (int i = 0; i < o.connections; ++i) {
        open.emplace_back(new Connection(o, i));
        if (!open.back()->open()) return fprintf(stderr, "gpa_load: cannot connect\n"), 1;
    }
    // Every connection carries a request, so the server has set each one up.
    for (int i = 0; i < o.connections; ++i) {
        if (!exchange(o, *open[static_cast<size_t>(i)], ipp, static_cast<uint32_t>(i + 1), w[static_cast<size_t>(i)],
                      true))
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
