// HTML pages: the message dump over the corpus responses, and the reference
// printer's attribute page (GET /) with and without the way through the library.
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

}  // namespace

BENCHMARK_MAIN();
