// HTML pages: the message dump over the corpus responses, the reference
// printer's attribute page with and without the way through the library, and
// its status page (GET /).
// Time per page and bytes of HTML per second.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "cmp_ipp_dictionary.h"
#include "cmp_ipp_refprinter.h"
#include "containers/cmp_ipp_malloc.h"
#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"
#include "service/cmp_ipp_ippc.h"

namespace {

void BM_MessageToHtml(benchmark::State& state) {
    cmp_ipp_dictionary_install();
    ScopedPrinter printer;  // decoding checks the IPP version against it
    std::vector<std::unique_ptr<cmp_ipp_response>> decoded;
    TraceCapture quiet(-1);
    for (const auto& m : capturedMessages(".rsp.ipp")) {
        cmp_ipp_buf buf(m.second.data(), static_cast<uint32_t>(m.second.size()), false);
        decoded.emplace_back(new cmp_ipp_response());
        decoded.back()->decode(buf, nullptr);
    }
    size_t bytes = 0;
    for (auto _ : state) {
        for (const auto& msg : decoded) {
            const cmp_ipp_string page = msg->cmp_ipp_msg_to_html();
            bytes += static_cast<size_t>(page.length());
            benchmark::DoNotOptimize(page.data());
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * decoded.size()));
    state.counters["page_bytes"] = static_cast<double>(bytes) / static_cast<double>(state.iterations() * decoded.size());
}
BENCHMARK(BM_MessageToHtml);

// The page alone, as the printer builds it.
void BM_PrinterPage(benchmark::State& state) {
    cmp_ipp_dictionary_install();
    refprinter::Printer printer{refprinter::Config()};
    size_t bytes = 0;
    for (auto _ : state) {
        const std::string page = printer.htmlPage();
        bytes += page.size();
        benchmark::DoNotOptimize(page.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["page_bytes"] = static_cast<double>(bytes) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_PrinterPage);

// GET / through the library: the synthesised Get-Printer-Attributes request,
// the handler, the page and the reply block.
void BM_GetPrinterPage(benchmark::State& state) {
    cmp_ipp_dictionary_install();
    refprinter::Printer printer{refprinter::Config()};
    if (!printer.start()) {
        state.SkipWithError("another printer is registered");
        return;
    }
    cmp_ipp_if_info_s info{};
    size_t bytes = 0;
    for (auto _ : state) {
        int length = 0;
        unsigned char* page = IPP_GetPrnAttrHtml(&length, &info);
        bytes += static_cast<size_t>(length > 0 ? length : 0);
        cmp_ipp_free(page);
    }
    printer.stop();
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}
BENCHMARK(BM_GetPrinterPage);

// The status page people read at "/" (what GET / gives through the front end),
// with this many jobs in the table: they are made with Create-Job through the
// library, and wait for documents that never come.
void BM_StatusPage(benchmark::State& state) {
    cmp_ipp_dictionary_install();
    refprinter::Config config;
    config.spoolDir = "/dev/null/none";  // no document is ever written
    refprinter::Printer printer{config};
    if (!printer.start()) {
        state.SkipWithError("another printer is registered");
        return;
    }
    cmp_ipp_if_info_s info{};
    for (int64_t i = 0; i < state.range(0); ++i) {
        Ipp m;
        m.header(2, 0, 0x0005, static_cast<uint32_t>(i + 1)).opGroup();
        m.text(0x42, "requesting-user-name", "user" + std::to_string(i)).text(0x42, "job-name", "Report <" +
                                                                             std::to_string(i) + ">").tag(3);
        IPP_STREAM_HANDLE h = IPP_StreamDataStart(m.b.data(), static_cast<uint32_t>(m.b.size()), &info);
        int length = 0;
        cmp_ipp_free(IPP_StreamDataEnd(h, 0, &length));
    }
    size_t bytes = 0;
    for (auto _ : state) {
        const std::string page = printer.statusPage();
        bytes += page.size();
        benchmark::DoNotOptimize(page.data());
    }
    printer.stop();
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.counters["page_bytes"] = static_cast<double>(bytes) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_StatusPage)->Arg(0)->Arg(10)->Arg(100);

}  // namespace

BENCHMARK_MAIN();
