// The real cmp-ipp-printer program, started as a process of its own and driven
// over TCP: start-up, abandoned uploads, file permissions, slow clients, and
// load (PrinterLoad: counting answers, never timing them).
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <functional>
#include <set>

#include "apps/http_client.h"
#include "apps/ipp_reply.h"
#include "apps/temp_dir.h"

namespace {

using namespace ipp_reply;

enum : uint16_t { kPrintJob = 2, kGetJobs = 10, kGetPrinterAttributes = 11 };
enum : uint8_t { kJobGroup = 2 };

std::string readText(int fd, int timeoutMs) {
    std::string out;
    const auto start = Clock::now();
    char buf[512];
    while (msSince(start) < timeoutMs) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
        if (out.find("Spool:") != std::string::npos) break;
    }
    return out;
}

mode_t modeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 07777;
}

// A free port below the range the system hands out to clients, so that no
// client socket of the test itself can take it before the program binds it.
uint16_t freePort() {
    int low = 32768;
    if (FILE* f = fopen("/proc/sys/net/ipv4/ip_local_port_range", "r")) {
        if (fscanf(f, "%d", &low) != 1) low = 32768;
        fclose(f);
    }
    for (int port = low - 1 - static_cast<int>(getpid() % 2000); port > 1024; port -= 7) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        struct sockaddr_in a;
        std::memset(&a, 0, sizeof a);
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(port));
        const bool free = bind(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof a) == 0;
        close(fd);
        if (free) return static_cast<uint16_t>(port);
    }
    return 0;
}

// One run of the program with a work directory of its own.
class Program {
public:
    Program() {
        work = makeTempDir("cmp-ipp-program");
        spool = work + "/spool";
        sockDir = work + "/sock";
    }
    ~Program() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        for (const std::string& d : {spool, sockDir}) removeDir(d);
        unlink((work + "/err").c_str());
        rmdir(work.c_str());
    }

    // Starts the program; with wait, returns once it has announced its URI.
    bool start(uint16_t fixedPort = 0, mode_t mask = 022, bool wait = true) {
        int out[2];
        if (pipe(out) != 0) return false;
        const std::string portText = std::to_string(fixedPort);
        m_pid = fork();
        if (m_pid < 0) return false;
        if (m_pid == 0) {
            umask(mask);
            dup2(out[1], 1);
            const int err = open((work + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (err >= 0) dup2(err, 2);
            close(out[0]);
            execl(CMP_IPP_PRINTER_PROGRAM, CMP_IPP_PRINTER_PROGRAM, "--port", portText.c_str(), "--spool",
                  spool.c_str(), "--socket-dir", sockDir.c_str(), "--processing-ms", "200", static_cast<char*>(nullptr));
            _exit(127);
        }
        close(out[1]);
        m_out = out[0];
        if (!wait) return true;
        return announced();
    }
    bool announced() {
        const std::string text = readText(m_out, 60000);
        close(m_out);
        m_out = -1;
        const size_t at = text.find("Printer URI: ipp://localhost:");
        if (at == std::string::npos) return false;
        port = static_cast<uint16_t>(atoi(text.c_str() + at + std::strlen("Printer URI: ipp://localhost:")));
        return port != 0;
    }
    // SIGTERM; the exit status (a sanitizer report makes it nonzero), or -1
    // when the program does not stop.
    int stop() {
        if (m_pid <= 0) return -1;
        kill(m_pid, SIGTERM);
        int status = 0;
        for (int waited = 0; waited < 30000; waited += 20) {
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return -1;
    }
    std::string errors() const {
        std::string out;
        if (FILE* f = fopen((work + "/err").c_str(), "r")) {
            char buf[4096];
            size_t n;
            while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
            fclose(f);
        }
        return out;
    }

    std::string work, spool, sockDir;
    uint16_t port = 0;

private:
    pid_t m_pid = -1;
    int m_out = -1;
};

Bytes gpaRequest(uint32_t id) {
    Ipp m;
    m.header(2, 0, kGetPrinterAttributes, id).opGroup();
    m.text(0x44, "requested-attributes", "printer-state").text(0x44, "", "queued-job-count");
    return m.tag(3).b;
}

std::string gpaPost(uint32_t id, bool keepAlive) {
    const std::string ipp = asString(gpaRequest(id));
    return postHead(ipp.size(), keepAlive ? "" : "Connection: close\r\n") + ipp;
}

// A complete, well-formed answer to that Get-Printer-Attributes.
bool goodGpa(const HttpResponse& r, uint32_t id) {
    if (!r.ok || r.status != 200 || r.header("content-type") != "application/ipp" || r.body.size() < 9) return false;
    const Response ipp = parse(r.body);
    return be32At(r.body, 4) == id && ipp.status == 0 && ipp.integer(4, "printer-state") >= 3;
}

// Tally of what clients got back.
struct Tally {
    std::atomic<int> good{0}, status502{0}, status503{0}, other{0};
    void count(const HttpResponse& r, uint32_t id) {
        if (goodGpa(r, id)) {
            ++good;
        } else if (r.ok && r.status == 502) {
            ++status502;
        } else if (r.ok && r.status == 503) {
            ++status503;
            std::lock_guard<std::mutex> g(lock);
            if (first503.empty()) first503 = r.body;
        } else {
            ++other;  // short, malformed, a wrong answer or none
            std::lock_guard<std::mutex> g(lock);
            if (firstOther.empty())
                firstOther = r.ok ? "HTTP " + std::to_string(r.status) + " " + r.body.substr(0, 60) : "no answer";
        }
    }
    std::string text() {
        std::lock_guard<std::mutex> g(lock);
        return "good " + std::to_string(good.load()) + ", 502: " + std::to_string(status502.load()) +
               ", 503: " + std::to_string(status503.load()) + ", short/malformed: " + std::to_string(other.load()) +
               (first503.empty() ? "" : "; a 503 said: " + first503) +
               (firstOther.empty() ? "" : "; first of the rest: " + firstOther);
    }
    std::mutex lock;
    std::string first503, firstOther;
};

class PrinterProgram : public ::testing::Test {
protected:
    void TearDown() override {
        if (m_running) {
            EXPECT_EQ(p.stop(), 0) << "clean exit after SIGTERM\n" << p.errors();
        }
    }
    void start(mode_t mask = 022) {
        ASSERT_TRUE(p.start(0, mask)) << p.errors();
        m_running = true;
    }
    // Every job: id -> (state, reasons joined by ',', message).
    struct JobRow {
        int state = 0;
        std::string reasons;
        std::string message;
    };
    std::map<int, JobRow> jobs() {
        Ipp m;
        m.header(2, 0, kGetJobs, 99).opGroup().text(0x44, "which-jobs", "all");
        m.text(0x44, "requested-attributes", "job-id").text(0x44, "", "job-state");
        m.text(0x44, "", "job-state-reasons").text(0x44, "", "job-state-message");
        const std::string ipp = asString(m.tag(3).b);
        HttpClient c(p.port);
        std::map<int, JobRow> out;
        if (!c.send(postHead(ipp.size(), "Connection: close\r\n") + ipp)) return out;
        const Response r = parse(c.read().body);
        for (const Group& g : r.groups) {
            if (g.tag != kJobGroup) continue;
            JobRow row;
            int id = 0;
            for (const Attr& a : g.attrs) {
                if (a.name == "job-id") id = a.values[0].integer();
                if (a.name == "job-state") row.state = a.values[0].integer();
                if (a.name == "job-state-message") row.message = a.values[0].bytes;
                if (a.name == "job-state-reasons")
                    for (const Value& v : a.values) row.reasons += (row.reasons.empty() ? "" : ",") + v.bytes;
            }
            out[id] = row;
        }
        return out;
    }

    Program p;
    bool m_running = false;
};

bool unixListening(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    struct sockaddr_un a;
    std::memset(&a, 0, sizeof a);
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    const bool ok = connect(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

// The HTTP port opens only once the library listens: whenever a client gets
// in, the library's socket takes connections already, and the client is served.
TEST_F(PrinterProgram, NoClientIsTurnedAwayDuringStartUp) {
    const uint16_t port = freePort();
    ASSERT_NE(port, 0);
    const std::string librarySocket = p.sockDir + "/zyn_ipp_server";
    std::atomic<bool> done{false};
    std::atomic<int> served{0}, turnedAway{0}, early{0};
    std::thread hammer([&] {
        while (!done.load()) {
            HttpClient c(port);
            if (!c.connected()) continue;  // refused: not listening yet
            if (served.load() == 0 && !unixListening(librarySocket)) ++early;
            if (!c.send("GET / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")) continue;
            const HttpResponse r = c.read(20000);
            (r.ok && r.status == 200 ? served : turnedAway)++;
        }
    });
    const bool started = p.start(port);
    m_running = started;
    if (started) {
        EXPECT_TRUE(settles([&] { return served.load() >= 3; }, 20000));
    }
    done = true;
    hammer.join();
    ASSERT_TRUE(started) << p.errors();
    EXPECT_EQ(early.load(), 0) << "HTTP connections taken before the library listened";
    EXPECT_EQ(turnedAway.load(), 0) << served.load() << " served";
}

// Documents and the socket are the printer user's alone, even when the program
// runs with umask 000.
TEST_F(PrinterProgram, SocketAndSpoolArePrivateWhateverTheUmask) {
    start(0);
    EXPECT_EQ(modeOf(p.spool), 0700u);
    EXPECT_EQ(modeOf(p.sockDir), 0700u);
    EXPECT_EQ(modeOf(p.sockDir + "/zyn_ipp_server"), 0600u);
    Ipp m;
    m.header(2, 0, kPrintJob, 5).opGroup().text(0x49, "document-format", "text/plain").tag(3);
    const std::string body = asString(m.b) + "hello";
    HttpClient c(p.port);
    ASSERT_TRUE(c.send(postHead(body.size()) + body));
    ASSERT_EQ(c.read().status, 200);
    const std::vector<std::string> files = filesIn(p.spool);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(modeOf(files[0]), 0600u);
}

// Every way an HTTP upload can end. A completed one is printed whole; one that
// the client abandons (closed, reset or cut short, chunked or with a length)
// ends as an aborted job that says why, and leaves no partial document.
TEST_F(PrinterProgram, EveryWayAnUploadCanEnd) {
    enum class End { Complete, Close, Reset };
    const struct {
        const char* label;
        bool chunked;
        End end;
    } cases[] = {
        {"chunked, last chunk", true, End::Complete}, {"content-length, last byte", false, End::Complete},
        {"chunked, closed", true, End::Close},        {"chunked, reset", true, End::Reset},
        {"content-length, closed", false, End::Close}, {"content-length, reset", false, End::Reset},
    };
    start();
    std::string document;
    uint32_t x = 12345;
    for (int i = 0; i < 200000; ++i) document += static_cast<char>((x = x * 1103515245u + 12345u) >> 24);
    int expectedJob = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        ++expectedJob;
        Ipp m;
        m.header(2, 0, kPrintJob, 6).opGroup().text(0x49, "document-format", "application/pdf").tag(3);
        const std::string ipp = asString(m.b);
        const size_t sentBeforeEnd = c.end == End::Complete ? document.size() : 98000;
        HttpClient client(p.port);
        if (c.chunked) {
            ASSERT_TRUE(client.send(kChunkedHead));
            ASSERT_TRUE(client.sendChunkedPiece(ipp));
            for (size_t off = 0; off < sentBeforeEnd; off += 7000)
                ASSERT_TRUE(client.sendChunkedPiece(document.substr(off, std::min<size_t>(7000, sentBeforeEnd - off))));
            if (c.end == End::Complete) {
                ASSERT_TRUE(client.send("0\r\n\r\n"));
            }
        } else {
            ASSERT_TRUE(client.send(postHead(ipp.size() + document.size()) + ipp + document.substr(0, sentBeforeEnd)));
        }
        if (c.end == End::Complete) {
            const HttpResponse r = client.read();
            ASSERT_EQ(r.status, 200);
            EXPECT_EQ(parse(r.body).integer(kJobGroup, "job-id"), expectedJob);
            const std::string file = p.spool + "/job-" + std::to_string(expectedJob) + "-doc-1.pdf";
            EXPECT_TRUE(settles([&] {
                struct stat st;
                return stat(file.c_str(), &st) == 0 && static_cast<size_t>(st.st_size) == document.size();
            }, 5000)) << "the whole document is spooled";
            continue;
        }
        // The job exists (its document is arriving) before the client goes.
        ASSERT_TRUE(settles([&] { return jobs().count(expectedJob) == 1; }, 10000));
        if (c.end == End::Reset) {
            client.reset();
        } else {
            client.closeNow();
        }
        JobRow row;
        EXPECT_TRUE(settles([&] {
            row = jobs()[expectedJob];
            return row.state == 8;
        }, 10000)) << "state " << row.state;
        EXPECT_EQ(row.reasons, "aborted-by-system,submission-interrupted");
        EXPECT_EQ(row.message, "Job aborted: the document did not arrive completely.");
        EXPECT_TRUE(settles([&] { return filesIn(p.spool).size() == 2; }, 5000)) << "partial document removed";
    }
    const std::map<int, JobRow> all = jobs();
    ASSERT_EQ(all.size(), 6u);
    for (int id : {1, 2}) EXPECT_NE(all.at(id).state, 8) << id;
}

// Clients that send their headers a byte a second hold no one else out: 40 of
// them from the normal client's address, from another one, or spread over
// four.
TEST_F(PrinterProgram, SlowClientsDoNotLockOthersOut) {
    start();
    const struct {
        const char* label;
        std::vector<const char*> sources;
    } cases[] = {
        {"from the same address", {"127.0.0.1"}},
        {"from another address", {"127.0.0.2"}},
        {"from four addresses", {"127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.5"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        std::vector<std::unique_ptr<HttpClient>> slow;
        for (int i = 0; i < 40; ++i) slow.emplace_back(new HttpClient(p.port, c.sources[i % c.sources.size()]));
        const std::string head = "GET / HTTP/1.1\r\nHost: localhost\r\n";
        for (size_t at = 0; at < 2; ++at) {
            for (auto& s : slow) (void)s->send(head.substr(at, 1));
            std::this_thread::sleep_for(std::chrono::milliseconds(1000));
        }
        HttpClient normal(p.port, "127.0.0.1");
        ASSERT_TRUE(normal.send(gpaPost(7, false)));
        EXPECT_TRUE(goodGpa(normal.read(10000), 7));
    }
}

// ---- load ------------------------------------------------------------------------------

using PrinterLoad = PrinterProgram;

// Load clients come from four loopback addresses, 8 each: one address may hold
// only half of the connections, and these are meant to be ordinary clients.
const char* const kSources[] = {"127.0.0.1", "127.0.0.2", "127.0.0.3", "127.0.0.4"};
const char* sourceFor(int i) { return kSources[i % 4]; }

TEST_F(PrinterLoad, KeptConnectionsBurstsAndConnectPerRequestAllServed) {
    start();
    const int clients = 32;
    {
        SCOPED_TRACE("32 keep-alive connections");
        Tally t;
        std::vector<std::thread> threads;
        for (int i = 0; i < clients; ++i) {
            threads.emplace_back([&, i] {
                HttpClient c(p.port, sourceFor(i));
                const auto start = Clock::now();
                for (uint32_t n = 1; msSince(start) < 3000; ++n) {
                    const uint32_t id = static_cast<uint32_t>(i) * 100000u + n;
                    if (!c.send(gpaPost(id, true))) {
                        t.count(HttpResponse(), id);
                        return;
                    }
                    const HttpResponse r = c.read();
                    t.count(r, id);
                    if (!goodGpa(r, id)) return;  // the connection is out of step now
                }
            });
        }
        for (std::thread& th : threads) th.join();
        EXPECT_GT(t.good.load(), clients) << t.text();
        EXPECT_EQ(t.status502 + t.status503 + t.other, 0) << t.text();
    }
    {
        SCOPED_TRACE("10 bursts of 32 new connections");
        Tally t;
        for (int round = 0; round < 10; ++round) {
            std::vector<std::unique_ptr<HttpClient>> burst;
            for (int i = 0; i < clients; ++i) burst.emplace_back(new HttpClient(p.port, sourceFor(i)));
            std::vector<std::thread> threads;
            for (int i = 0; i < clients; ++i) {
                threads.emplace_back([&, i] {
                    const uint32_t id = static_cast<uint32_t>(round * 100 + i + 1);
                    HttpClient& c = *burst[static_cast<size_t>(i)];
                    t.count(c.send(gpaPost(id, false)) ? c.read() : HttpResponse(), id);
                });
            }
            for (std::thread& th : threads) th.join();
        }
        EXPECT_EQ(t.good.load(), 10 * clients) << t.text();
    }
    {
        SCOPED_TRACE("32 threads of connect, request, close");
        Tally t;
        std::vector<std::thread> threads;
        for (int i = 0; i < clients; ++i) {
            threads.emplace_back([&, i] {
                const auto start = Clock::now();
                for (uint32_t n = 1; msSince(start) < 3000; ++n) {
                    const uint32_t id = static_cast<uint32_t>(i) * 100000u + n;
                    HttpClient c(p.port, sourceFor(i));
                    t.count(c.send(gpaPost(id, false)) ? c.read() : HttpResponse(), id);
                }
            });
        }
        for (std::thread& th : threads) th.join();
        EXPECT_GT(t.good.load(), clients) << t.text();
        EXPECT_EQ(t.status502 + t.status503 + t.other, 0) << t.text();
    }
}

// 40 connections at once: 32 are served, 8 get a complete 503 with Retry-After,
// and the printer goes on serving afterwards. They come from four addresses,
// so that the share per address plays no part.
TEST_F(PrinterLoad, FortyAtOnceGiveThirtyTwoAnswersAndEightRefusals) {
    start();
    std::vector<std::unique_ptr<HttpClient>> clients;
    for (int i = 0; i < 40; ++i) clients.emplace_back(new HttpClient(p.port, sourceFor(i)));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Tally t;
    std::atomic<int> retryAfter{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 40; ++i) {
        threads.emplace_back([&, i] {
            HttpClient& c = *clients[static_cast<size_t>(i)];
            const uint32_t id = static_cast<uint32_t>(i + 1);
            (void)c.send(gpaPost(id, true));  // a refused one may already be closed
            const HttpResponse r = c.read();
            t.count(r, id);
            if (r.status == 503 && !r.header("retry-after").empty()) ++retryAfter;
        });
    }
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(t.good.load(), 32) << t.text();
    EXPECT_EQ(t.status503.load(), 8) << t.text();
    EXPECT_EQ(retryAfter.load(), 8);
    EXPECT_EQ(t.status502 + t.other, 0) << t.text();
    clients.clear();
    HttpClient after(p.port);
    ASSERT_TRUE(after.send(gpaPost(41, false)));
    EXPECT_TRUE(goodGpa(after.read(), 41));
}

}  // namespace
