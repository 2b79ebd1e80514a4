// The real cmp-ipp-printer program, started as a process of its own and driven
// over TCP: start-up, abandoned uploads, slow clients, and load (PrinterLoad:
// counting answers, never timing them).
#include <functional>

#include "apps/http_client.h"
#include "apps/ipp_reply.h"
#include "apps/program.h"
#include "apps/temp_dir.h"

namespace {

using namespace ipp_reply;

enum : uint16_t { kPrintJob = 2, kGetJobAttributes = 9, kGetPrinterAttributes = 11 };
enum : uint8_t { kJobGroup = 2 };

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
        if (m_child.pid > 0) {
            kill(m_child.pid, SIGKILL);
            exitStatus(m_child);
        }
        removeDir(work);
    }

    // Starts the program; returns once it has announced its URI.
    bool start(uint16_t fixedPort = 0) {
        m_child = startProgram(CMP_IPP_PRINTER_PROGRAM,
                               {"--port", std::to_string(fixedPort), "--spool", spool, "--socket-dir", sockDir,
                                "--processing-ms", "200"},
                               nullptr, 022, work + "/err");
        if (m_child.pid <= 0) return false;
        const std::string text = readUntil(m_child.out, "Spool:", 60000);
        const size_t at = text.find("Printer URI: ipp://localhost:");
        if (at == std::string::npos) return false;
        port = static_cast<uint16_t>(atoi(text.c_str() + at + std::strlen("Printer URI: ipp://localhost:")));
        return port != 0;
    }
    // SIGTERM; the exit status (a sanitizer report makes it nonzero), or -1
    // when the program does not stop.
    int stop() {
        if (m_child.pid <= 0) return -1;
        kill(m_child.pid, SIGTERM);
        return exitStatus(m_child);
    }
    std::string errors() const {
        const int fd = open((work + "/err").c_str(), O_RDONLY);
        const std::string text = fd >= 0 ? readUntil(fd, "", 1000) : "";
        if (fd >= 0) close(fd);
        return text;
    }

    std::string work, spool, sockDir;
    uint16_t port = 0;

private:
    Child m_child;
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
    std::atomic<int> good{0}, status503{0}, other{0};
    void count(const HttpResponse& r, uint32_t id) {
        if (goodGpa(r, id)) {
            ++good;
            return;
        }
        ++(r.ok && r.status == 503 ? status503 : other);  // other: 502, short, malformed, a wrong answer or none
        std::lock_guard<std::mutex> g(lock);
        if (firstBad.empty())
            firstBad = r.ok ? "HTTP " + std::to_string(r.status) + " " + r.body.substr(0, 60) : "no answer";
    }
    std::string text() {
        std::lock_guard<std::mutex> g(lock);
        return "good " + std::to_string(good.load()) + ", 503: " + std::to_string(status503.load()) +
               ", other: " + std::to_string(other.load()) +
               (firstBad.empty() ? "" : "; the first bad one: " + firstBad);
    }
    std::mutex lock;
    std::string firstBad;
};

// n client threads, each running f(its index), joined.
void inThreads(int n, const std::function<void(int)>& f) {
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) threads.emplace_back(f, i);
    for (std::thread& t : threads) t.join();
}

class PrinterProgram : public ::testing::Test {
protected:
    void TearDown() override {
        if (m_running) {
            EXPECT_EQ(p.stop(), 0) << "clean exit after SIGTERM\n" << p.errors();
        }
    }
    void start() {
        ASSERT_TRUE(p.start()) << p.errors();
        m_running = true;
    }
    // A job's state (-1 for no such job), reasons joined by ',' and message.
    struct JobRow {
        int state = -1;
        std::string reasons, message;
    };
    JobRow job(int id) {
        Ipp m;
        m.header(2, 0, kGetJobAttributes, 99).opGroup().integer(0x21, "job-id", id);
        const std::string ipp = asString(m.tag(3).b);
        HttpClient c(p.port);
        JobRow row;
        if (!c.send(postHead(ipp.size(), "Connection: close\r\n") + ipp)) return row;
        const Response r = parse(c.read().body);
        row.state = r.integer(kJobGroup, "job-state");
        row.message = r.text(kJobGroup, "job-state-message");
        for (const std::string& v : r.texts(kJobGroup, "job-state-reasons"))
            row.reasons += (row.reasons.empty() ? "" : ",") + v;
        return row;
    }

    Program p;
    bool m_running = false;
};

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
            if (served.load() == 0) {
                const int probe = unixSocketAt(librarySocket, false);
                if (probe < 0) ++early;
                if (probe >= 0) close(probe);
            }
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

// Every way an HTTP upload can be abandoned (closed or reset, chunked or with
// a length) ends as an aborted job that says why, and leaves no partial
// document. (Uploads that complete are compared byte for byte by
// printer_e2e.sh's spool modes.)
TEST_F(PrinterProgram, EveryWayAnUploadCanBeAbandoned) {
    const struct {
        const char* label;
        bool chunked;
        bool reset;
    } cases[] = {
        {"chunked, closed", true, false},         {"chunked, reset", true, true},
        {"content-length, closed", false, false}, {"content-length, reset", false, true},
    };
    start();
    const std::string document(98000, 'd');
    int expectedJob = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        ++expectedJob;
        Ipp m;
        m.header(2, 0, kPrintJob, 6).opGroup().text(0x49, "document-format", "application/pdf").tag(3);
        const std::string ipp = asString(m.b);
        HttpClient client(p.port);
        if (c.chunked) {
            ASSERT_TRUE(client.send(kChunkedHead));
            ASSERT_TRUE(client.sendChunkedPiece(ipp));
            for (size_t off = 0; off < document.size(); off += 7000)
                ASSERT_TRUE(client.sendChunkedPiece(document.substr(off, 7000)));
        } else {
            ASSERT_TRUE(client.send(postHead(ipp.size() + 2 * document.size()) + ipp + document));
        }
        // The job exists (its document is arriving) before the client goes.
        ASSERT_TRUE(settles([&] { return job(expectedJob).state > 0; }, 10000));
        if (c.reset) {
            client.reset();
        } else {
            client.closeNow();
        }
        JobRow row;
        EXPECT_TRUE(settles([&] {
            row = job(expectedJob);
            return row.state == 8;
        }, 10000)) << "state " << row.state;
        EXPECT_EQ(row.reasons, "aborted-by-system,submission-interrupted");
        EXPECT_EQ(row.message, "Job aborted: the document did not arrive completely.");
        EXPECT_TRUE(settles([&] { return filesIn(p.spool).empty(); }, 5000)) << "partial document removed";
    }
    EXPECT_EQ(job(expectedJob + 1).state, -1) << "one job per upload";
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
        inThreads(clients, [&](int i) {
            HttpClient c(p.port, sourceFor(i));
            const auto start = Clock::now();
            for (uint32_t n = 1; msSince(start) < 3000; ++n) {
                const uint32_t id = static_cast<uint32_t>(i) * 100000u + n;
                const HttpResponse r = c.send(gpaPost(id, true)) ? c.read() : HttpResponse();
                t.count(r, id);
                if (!goodGpa(r, id)) return;  // the connection is out of step now
            }
        });
        EXPECT_GT(t.good.load(), clients) << t.text();
        EXPECT_EQ(t.status503 + t.other, 0) << t.text();
    }
    {
        SCOPED_TRACE("10 bursts of 32 new connections");
        Tally t;
        for (int round = 0; round < 10; ++round) {
            std::vector<std::unique_ptr<HttpClient>> burst;
            for (int i = 0; i < clients; ++i) burst.emplace_back(new HttpClient(p.port, sourceFor(i)));
            inThreads(clients, [&](int i) {
                const uint32_t id = static_cast<uint32_t>(round * 100 + i + 1);
                HttpClient& c = *burst[static_cast<size_t>(i)];
                t.count(c.send(gpaPost(id, false)) ? c.read() : HttpResponse(), id);
            });
        }
        EXPECT_EQ(t.good.load(), 10 * clients) << t.text();
    }
    {
        SCOPED_TRACE("32 threads of connect, request, close");
        Tally t;
        inThreads(clients, [&](int i) {
            const auto start = Clock::now();
            for (uint32_t n = 1; msSince(start) < 3000; ++n) {
                const uint32_t id = static_cast<uint32_t>(i) * 100000u + n;
                HttpClient c(p.port, sourceFor(i));
                t.count(c.send(gpaPost(id, false)) ? c.read() : HttpResponse(), id);
            }
        });
        EXPECT_GT(t.good.load(), clients) << t.text();
        EXPECT_EQ(t.status503 + t.other, 0) << t.text();
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
    inThreads(40, [&](int i) {
        HttpClient& c = *clients[static_cast<size_t>(i)];
        const uint32_t id = static_cast<uint32_t>(i + 1);
        (void)c.send(gpaPost(id, true));  // a refused one may already be closed
        const HttpResponse r = c.read();
        t.count(r, id);
        if (r.status == 503 && !r.header("retry-after").empty()) ++retryAfter;
    });
    EXPECT_EQ(t.good.load(), 32) << t.text();
    EXPECT_EQ(t.status503.load(), 8) << t.text();
    EXPECT_EQ(retryAfter.load(), 8);
    EXPECT_EQ(t.other.load(), 0) << t.text();
    clients.clear();
    HttpClient after(p.port);
    ASSERT_TRUE(after.send(gpaPost(41, false)));
    EXPECT_TRUE(goodGpa(after.read(), 41));
}

}  // namespace
