// Requests per second and latency (p50, p99) of a Get-Printer-Attributes request
// sent by the front end's relay over the Unix-domain socket, on 1 and on 8
// keep-alive connections. The real listener and connection tasks serve it.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "cmp_ipp_relay.h"
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

void BM_GetPrinterAttributesOverSocket(benchmark::State& state) {
    // The front end's own relay connection, as cmp-ipp-frontend uses it.
    cmp_ipp_fe::RelayConnection relay(10000, nullptr, 5000);
    if (relay.connectTo(g_path) != cmp_ipp_fe::RelayConnection::Outcome::Ok) {
        state.SkipWithError("no connection to the server");
        return;
    }
    Ipp m;
    m.header(1, 1, 0x000B, static_cast<uint32_t>(1000 + state.thread_index())).opGroup().tag(3);
    cmp_ipp_fe::RelayRequest request;
    request.method = AHTTPD_METHOD_POST;
    request.connection = AHTTPD_CONN_KEEP_ALIVE;
    request.contentLength = static_cast<int32_t>(m.b.size());
    // Record, one body block with its length word, the end block.
    const size_t requestBytes = AHTTPD_REQ_BLOCK_SIZE + 4 + m.b.size() + 4;
    cmp_ipp_fe::RelayReply reply;
    std::vector<double> latencies;
    latencies.reserve(100000);
    int64_t bytes = 0;
    for (auto _ : state) {
        const auto t0 = std::chrono::steady_clock::now();
        const bool ok = relay.sendRequest(request) && relay.addBody(m.b.data(), m.b.size()) && relay.endBody() &&
                        relay.readReply(reply, 10000) && reply.status == 0 && reply.bodyLength > 0;
        if (!ok) {
            state.SkipWithError("bad reply");
            break;
        }
        latencies.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0).count());
        bytes += static_cast<int64_t>(requestBytes + AHTTPD_RSP_RECORD_SIZE + reply.bodyLength);
    }
    relay.close();
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
