// Requests per second and latency (p50, p99) of a Get-Printer-Attributes request
// sent by a front end over the Unix-domain socket, on 1 and on 8 keep-alive
// connections. The real listener and connection tasks serve it.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "httpd/cmp_ipp_httpd.h"
#include "msg/msg_fixture.h"
#include "service/cmp_ipp_facade.h"
#include "service/cmp_ipp_handler.h"
#include "service/cmp_ipp_ippc.h"

namespace {

std::string g_path;

// Answers every request with its encoded response, as a printer would for a
// request it carries out without attributes of its own.
class EchoHandler : public cmp_ipp_handler {
public:
    void processRequest(cmp_ipp_streamed_ctx*, void*) override {}
    void abortRequest(cmp_ipp_streamed_ctx*, void*) override {}
    void prepareRequest(cmp_ipp_streamed_ctx*, void*) override {}
    uint32_t streamData(cmp_ipp_streamed_ctx*, const cmp_ipp_buf&, void*) override { return 0; }
    cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t, void*) override {
        return ctx->m_response.cmp_ipp_msg_encode();
    }
};

int connectTo(const std::string& path) {
    for (int attempt = 0; attempt < 500; ++attempt) {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un a;
        std::memset(&a, 0, sizeof a);
        a.sun_family = AF_UNIX;
        std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
        if (connect(fd, reinterpret_cast<struct sockaddr*>(&a), sizeof a) == 0) return fd;
        close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

bool sendAll(int fd, const void* data, size_t n) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    while (n > 0) {
        const ssize_t k = send(fd, p, n, MSG_NOSIGNAL);
        if (k <= 0) return false;
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

bool readAll(int fd, void* data, size_t n) {
    unsigned char* p = static_cast<unsigned char*>(data);
    while (n > 0) {
        const ssize_t k = recv(fd, p, n, 0);
        if (k <= 0) return false;
        p += k;
        n -= static_cast<size_t>(k);
    }
    return true;
}

// The front end's bytes for one request: request block, one body block, end block.
std::vector<unsigned char> requestBytes(uint32_t id) {
    Ipp m;
    m.header(1, 1, 0x000B, id).opGroup().tag(3);
    std::vector<unsigned char> out(AHTTPD_REQ_BLOCK_SIZE, 0);
    ahttpdReqObj* r = new ahttpdReqObj();
    std::memset(static_cast<void*>(r), 0, sizeof *r);
    r->method = AHTTPD_METHOD_POST;
    r->connection = AHTTPD_CONN_KEEP_ALIVE;
    r->contentLength = static_cast<int32_t>(m.b.size());
    std::memcpy(out.data(), r, AHTTPD_REQ_BLOCK_SIZE);
    delete r;
    const int32_t len = static_cast<int32_t>(m.b.size());
    const int32_t end = 0;
    out.insert(out.end(), reinterpret_cast<const unsigned char*>(&len), reinterpret_cast<const unsigned char*>(&len) + 4);
    out.insert(out.end(), m.b.begin(), m.b.end());
    out.insert(out.end(), reinterpret_cast<const unsigned char*>(&end), reinterpret_cast<const unsigned char*>(&end) + 4);
    return out;
}

void BM_GetPrinterAttributesOverSocket(benchmark::State& state) {
    const int fd = connectTo(g_path);
    if (fd < 0) {
        state.SkipWithError("no connection to the server");
        return;
    }
    const std::vector<unsigned char> request = requestBytes(static_cast<uint32_t>(1000 + state.thread_index()));
    std::vector<unsigned char> record(AHTTPD_RSP_RECORD_SIZE);
    std::vector<unsigned char> body;
    std::vector<double> latencies;
    latencies.reserve(100000);
    int64_t bytes = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        int32_t status = -1, length = 0;
        bool ok = sendAll(fd, request.data(), request.size()) && readAll(fd, record.data(), record.size());
        if (ok) {
            std::memcpy(&status, record.data(), 4);
            std::memcpy(&length, record.data() + 8, 4);
            body.resize(static_cast<size_t>(length > 0 ? length : 0));
            ok = status == 0 && length > 0 && readAll(fd, body.data(), body.size());
        }
        if (!ok) {
            state.SkipWithError("bad reply");
            break;
        }
        latencies.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
        bytes += static_cast<int64_t>(request.size() + record.size() + body.size());
    }
    close(fd);
    if (!latencies.empty()) {
        std::sort(latencies.begin(), latencies.end());
        const auto at = [&](double q) { return latencies[static_cast<size_t>(q * (latencies.size() - 1))]; };
        // Per connection, averaged over the connections.
        state.counters["p50_us"] = benchmark::Counter(at(0.50), benchmark::Counter::kAvgThreads);
        state.counters["p99_us"] = benchmark::Counter(at(0.99), benchmark::Counter::kAvgThreads);
    }
    state.SetItemsProcessed(static_cast<int64_t>(latencies.size()));
    state.SetBytesProcessed(bytes);
}
BENCHMARK(BM_GetPrinterAttributesOverSocket)->Threads(1)->Threads(8)->UseRealTime()->MinTime(1.0);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    char dir[] = "/tmp/cmp_ipp_bench_XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    setenv("GEN_UNIX_PATH", (std::string(dir) + "/").c_str(), 1);
    g_path = std::string(dir) + "/zyn_ipp_server";

    ScopedRegistry registry(messageTables());
    ScopedPrinter printer;
    EchoHandler handler;
    cmp_ipp_init_wrap(&printer.printer, &handler);
    benchmark::RunSpecifiedBenchmarks();
    orvane::cmp_ipp_facade::cmp_ipp_get_instance()->cmp_ipp_term();
    pn_ipp_stop(0, nullptr);
    cmp_ipp_manager::get()->unregisterHandler(&handler);
    rmdir(dir);
    benchmark::Shutdown();
    return 0;
}
