// Decode and encode cost per message, bytes per second and allocations per
// operation, over the captured corpus and over requests of N attributes; with
// libcups present, its ippRead + ippWrite on the same messages side by side.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>

#include "cmp_ipp_dictionary.h"
#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"
#include "platform/emw_osw_test.h"

#ifdef CMP_IPP_HAVE_CUPS
#include <cups/ipp.h>
#endif

// ---- allocation counting -----------------------------------------------------
// Every operator new of the program is counted; cmp_ipp_malloc is counted by the
// platform stand-in (emwOSWTestAllocCalls).

namespace {
std::atomic<uint64_t> g_newCalls{0};

void* countedNew(size_t n) {
    g_newCalls.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n != 0 ? n : 1)) return p;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(size_t n) { return countedNew(n); }
void* operator new[](size_t n) { return countedNew(n); }
void* operator new(size_t n, const std::nothrow_t&) noexcept {
    g_newCalls.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(n != 0 ? n : 1);
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
    g_newCalls.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(n != 0 ? n : 1);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }
void operator delete[](void* p, size_t) noexcept { std::free(p); }

namespace {

const std::string kCorpus = CMP_IPP_CORPUS_DIR;

uint64_t allocations() { return g_newCalls.load(std::memory_order_relaxed) + emwOSWTestAllocCalls(); }

uint64_t minorFaults() {
    struct rusage u;
    return getrusage(RUSAGE_SELF, &u) == 0 ? static_cast<uint64_t>(u.ru_minflt) : 0;
}

// Allocations (operator new and cmp_ipp_malloc) and page faults (the heap
// growing again after the allocator gave memory back) per operation over the
// timed loop.
class AllocCounter {
public:
    AllocCounter() : m_start(allocations()), m_faults(minorFaults()) {}
    void report(benchmark::State& state, double ops) const {
        state.counters["allocs_per_op"] = static_cast<double>(allocations() - m_start) / ops;
        state.counters["faults_per_op"] = static_cast<double>(minorFaults() - m_faults) / ops;
    }

private:
    uint64_t m_start;
    uint64_t m_faults;
};

// The requests 002, 003 and 008 of the corpus are malformed on purpose.
bool malformed(const std::string& name) {
    return name.rfind("002-", 0) == 0 || name.rfind("003-", 0) == 0 || name.rfind("008-", 0) == 0;
}

std::vector<Bytes> load(const std::string& suffix, bool skipMalformed) {
    std::vector<Bytes> out;
    for (auto& m : capturedMessages(suffix)) {
        if (skipMalformed && suffix == ".req.ipp" && malformed(m.first)) continue;
        out.push_back(std::move(m.second));
    }
    return out;
}

// Names and first tags of the named attributes of a message, off the framing.
void collectNames(const Bytes& b, std::map<std::string, int16_t>& seen) {
    size_t i = 8;
    while (i + 3 <= b.size()) {
        const unsigned char tag = b[i];
        if (tag < 0x10) {
            ++i;
            if (tag == 3) break;
            continue;
        }
        const size_t nl = static_cast<size_t>(b[i + 1] << 8 | b[i + 2]);
        if (i + 5 + nl > b.size()) break;
        const size_t vl = static_cast<size_t>(b[i + 3 + nl] << 8 | b[i + 4 + nl]);
        if (nl > 0 && tag != 0x4A) seen.emplace(std::string(b.begin() + long(i + 3), b.begin() + long(i + 3 + nl)), -1);
        i += 5 + nl + vl;
    }
}

// A dictionary of every attribute name in the corpus, so lookups cost what
// they cost with a real table of that size.
struct CorpusDictionary {
    std::vector<std::string> names;
    RegistryTables tables;
    CorpusDictionary() {
        std::map<std::string, int16_t> seen;
        for (const char* suffix : {".req.ipp", ".rsp.ipp"})
            for (const Bytes& b : load(suffix, false)) collectNames(b, seen);
        seen.emplace("ipp-versions-supported", 0x44);
        seen.emplace("operations-supported", 0x23);
        for (const auto& kv : seen) names.push_back(kv.first);
        uint16_t id = 1;
        for (const std::string& n : names) tables.attrs.push_back({id++, n.c_str(), seen[n], 0, INT32_MAX});
    }
};

// The default dictionary a printer installs (about 600 rows), followed by rows
// that accept any tag for the corpus names it lacks (vendor attributes), so
// that every corpus message decodes whole.
struct PrinterDictionary {
    std::vector<std::string> extra;
    RegistryTables tables;
    PrinterDictionary() {
        int16_t n = 0;
        const cmp_ipp_attr_row_t* rows = cmp_ipp_dictionary_attr_table(&n);
        tables.attrs.assign(rows, rows + n);
        const cmp_ipp_alt_type_row_t* alt = cmp_ipp_dictionary_alt_type_table(&n);
        tables.altTypes.assign(alt, alt + n);
        const uint16_t* sets = cmp_ipp_dictionary_onesetof_table(&n);
        tables.oneSetOf.assign(sets, sets + n);
        const cmp_ipp_operation_row_t* ops = cmp_ipp_dictionary_operation_table(&n);
        tables.operations.assign(ops, ops + n);
        const cmp_ipp_status_row_t* st = cmp_ipp_dictionary_status_table(&n);
        tables.statuses.assign(st, st + n);

        std::map<std::string, int16_t> seen;
        for (const char* suffix : {".req.ipp", ".rsp.ipp"})
            for (const Bytes& b : load(suffix, false)) collectNames(b, seen);
        uint16_t id = 0;
        for (const cmp_ipp_attr_row_t& r : tables.attrs) {
            id = std::max(id, r.id);
            seen.erase(r.name);
        }
        for (const auto& kv : seen) extra.push_back(kv.first);
        for (const std::string& name : extra) tables.attrs.push_back({++id, name.c_str(), -1, 0, INT32_MAX});
    }
};

struct CorpusMessage {
    Bytes bytes;
    bool request;
};

// Every well-formed corpus message, requests and responses (the answers to the
// malformed requests echo their request-id 0 or version 0.0).
std::vector<CorpusMessage> corpusMessages() {
    std::vector<CorpusMessage> out;
    for (Bytes& b : load(".req.ipp", true)) out.push_back({std::move(b), true});
    for (auto& m : capturedMessages(".rsp.ipp"))
        if (!malformed(m.first)) out.push_back({std::move(m.second), false});
    return out;
}

// Decodes m into a fresh message of its kind; returns the result.
uint32_t decodeOne(const CorpusMessage& m, cmp_ipp_buf& out) {
    cmp_ipp_buf buf(m.bytes.data(), static_cast<uint32_t>(m.bytes.size()), false);
    uint32_t rc;
    if (m.request) {
        cmp_ipp_request msg;
        rc = msg.decode(buf, nullptr);
        out = msg.cmp_ipp_msg_encode();
    } else {
        cmp_ipp_response msg;
        rc = msg.decode(buf, nullptr);
        out = msg.cmp_ipp_msg_encode();
    }
    return rc;
}

void perMessageCounters(benchmark::State& state, size_t messages, size_t bytes) {
    const double ops = static_cast<double>(state.iterations()) * static_cast<double>(messages);
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetItemsProcessed(static_cast<int64_t>(ops));
    state.counters["us_per_msg"] = benchmark::Counter(ops, benchmark::Counter::kIsRate | benchmark::Counter::kInvert,
                                                      benchmark::Counter::OneK::kIs1000);
}

// ---- corpus: decode + encode, ours and libcups' ------------------------------

void BM_DecodeEncodeCorpus(benchmark::State& state) {
    PrinterDictionary dict;
    ScopedRegistry reg(dict.tables);
    ScopedPrinter printer;
    const std::vector<CorpusMessage> corpus = corpusMessages();
    for (const CorpusMessage& m : corpus) {
        cmp_ipp_buf out(true);
        if (decodeOne(m, out) != 0 || out.length() != m.bytes.size()) {
            state.SkipWithError("a corpus message does not decode and encode back whole");
            return;
        }
    }
    size_t bytes = 0;
    AllocCounter allocs;
    for (auto _ : state) {
        for (const CorpusMessage& m : corpus) {
            cmp_ipp_buf out(true);
            benchmark::DoNotOptimize(decodeOne(m, out));
            bytes += m.bytes.size();
        }
    }
    allocs.report(state, static_cast<double>(state.iterations()) * static_cast<double>(corpus.size()));
    perMessageCounters(state, corpus.size(), bytes);
}
BENCHMARK(BM_DecodeEncodeCorpus);

#ifdef CMP_IPP_HAVE_CUPS
struct MemReader {
    const unsigned char* p;
    size_t left;
};

ssize_t cupsRead(void* ctx, ipp_uchar_t* buffer, size_t n) {
    MemReader* r = static_cast<MemReader*>(ctx);
    const size_t take = std::min(n, r->left);
    std::memcpy(buffer, r->p, take);
    r->p += take;
    r->left -= take;
    return static_cast<ssize_t>(take);
}

ssize_t cupsWrite(void* ctx, ipp_uchar_t* buffer, size_t n) {
    Bytes* out = static_cast<Bytes*>(ctx);
    out->insert(out->end(), buffer, buffer + n);
    return static_cast<ssize_t>(n);
}

// ippRead from memory and ippWrite back, plus the document data after the
// attributes (our decode and encode carry it too).
size_t cupsRoundTrip(const Bytes& m, Bytes& out) {
    out.clear();
    MemReader in{m.data(), m.size()};
    ipp_t* ipp = ippNew();
    size_t written = 0;
    if (ippReadIO(&in, cupsRead, 1, nullptr, ipp) == IPP_STATE_DATA) {
        ippSetState(ipp, IPP_STATE_IDLE);  // writing runs the same state machine again
        if (ippWriteIO(&out, cupsWrite, 1, nullptr, ipp) != IPP_STATE_DATA) out.clear();
        out.insert(out.end(), in.p, in.p + in.left);
        written = out.size();
    }
    ippDelete(ipp);
    return written;
}

void BM_CupsReadWriteCorpus(benchmark::State& state) {
    const std::vector<CorpusMessage> corpus = corpusMessages();
    Bytes out;
    out.reserve(16384);
    for (const CorpusMessage& m : corpus) {
        if (cupsRoundTrip(m.bytes, out) != m.bytes.size()) {
            state.SkipWithError("libcups does not read and write a corpus message back whole");
            return;
        }
    }
    // libcups allocates with malloc, which this program does not count.
    size_t bytes = 0;
    for (auto _ : state) {
        for (const CorpusMessage& m : corpus) {
            benchmark::DoNotOptimize(cupsRoundTrip(m.bytes, out));
            bytes += m.bytes.size();
        }
    }
    perMessageCounters(state, corpus.size(), bytes);
}
BENCHMARK(BM_CupsReadWriteCorpus);
#endif

// ---- corpus requests: decode alone, encode alone ---------------------------

void BM_DecodeRequests(benchmark::State& state) {
    CorpusDictionary dict;
    ScopedRegistry reg(dict.tables);
    ScopedPrinter printer;
    const std::vector<Bytes> corpus = load(".req.ipp", true);
    size_t bytes = 0;
    AllocCounter allocs;
    for (auto _ : state) {
        for (const Bytes& m : corpus) {
            cmp_ipp_buf buf(m.data(), static_cast<uint32_t>(m.size()), false);
            cmp_ipp_request req;
            benchmark::DoNotOptimize(req.decode(buf, nullptr));
            bytes += m.size();
        }
    }
    allocs.report(state, static_cast<double>(state.iterations()) * static_cast<double>(corpus.size()));
    perMessageCounters(state, corpus.size(), bytes);
}
BENCHMARK(BM_DecodeRequests);

void BM_EncodeRequests(benchmark::State& state) {
    CorpusDictionary dict;
    ScopedRegistry reg(dict.tables);
    ScopedPrinter printer;
    const std::vector<Bytes> corpus = load(".req.ipp", true);
    std::vector<std::unique_ptr<cmp_ipp_request>> decoded;
    for (const Bytes& m : corpus) {
        cmp_ipp_buf buf(m.data(), static_cast<uint32_t>(m.size()), false);
        decoded.emplace_back(new cmp_ipp_request());
        decoded.back()->decode(buf, nullptr);
    }
    size_t bytes = 0;
    AllocCounter allocs;
    for (auto _ : state) {
        for (auto& req : decoded) {
            cmp_ipp_buf out = req->cmp_ipp_msg_encode();
            bytes += out.length();
            benchmark::DoNotOptimize(out.data());
        }
    }
    allocs.report(state, static_cast<double>(state.iterations()) * static_cast<double>(decoded.size()));
    perMessageCounters(state, decoded.size(), bytes);
}
BENCHMARK(BM_EncodeRequests);

// Responses carry most of the attributes (printer descriptions of several KB):
// decode every attribute of them one by one.
void BM_CreateResponseAttributes(benchmark::State& state) {
    CorpusDictionary dict;
    ScopedRegistry reg(dict.tables);
    const std::vector<Bytes> corpus = load(".rsp.ipp", false);
    size_t bytes = 0;
    for (auto _ : state) {
        for (const Bytes& m : corpus) {
            cmp_ipp_buf buf(m.data(), static_cast<uint32_t>(m.size()), false);
            uint32_t off = 8;
            while (off < buf.length()) {
                const unsigned char tag = buf.getByteAt(off);
                if (tag < 0x10) {
                    ++off;
                    if (tag == 3) break;
                    continue;
                }
                uint16_t status = 0;
                int32_t consumed = 0;
                cmp_ipp_attr* a = cmp_ipp_attr::Create(buf, static_cast<int32_t>(off), &status, &consumed);
                delete a;
                if (a == nullptr || consumed <= 0) break;
                off += static_cast<uint32_t>(consumed);
            }
            bytes += m.size();
        }
    }
    perMessageCounters(state, corpus.size(), bytes);
}
BENCHMARK(BM_CreateResponseAttributes);

// ---- requests of N attributes ------------------------------------------------

// A Print-Job-like request: the operation attributes, then a job group of n
// registered attributes taken in turn from the dictionary rows whose tag has a
// simple value, each with one value of that tag.
Bytes requestOfAttributes(const RegistryTables& t, int n) {
    Ipp m;
    m.header(2, 0, 0x0004, 1).opGroup().tag(0x02);
    std::vector<const cmp_ipp_attr_row_t*> rows;
    for (const cmp_ipp_attr_row_t& r : t.attrs) {
        switch (r.valueTag) {
        case 0x21: case 0x23: case 0x44: case 0x42: case 0x41: case 0x45: case 0x49:
            rows.push_back(&r);
            break;
        default:
            break;
        }
    }
    for (int i = 0; i < n; ++i) {
        const cmp_ipp_attr_row_t& r = *rows[static_cast<size_t>(i) % rows.size()];
        if (r.valueTag == 0x21 || r.valueTag == 0x23)
            m.integer(static_cast<uint8_t>(r.valueTag), r.name, 1 + i % 7);
        else
            m.text(static_cast<uint8_t>(r.valueTag), r.name, "value-" + std::to_string(i % 100));
    }
    m.tag(0x03);
    return m.b;
}

// Decoding n attributes builds a group array of n attributes (56 bytes each on
// x86-64, 36 on the 32-bit target) beside their value blocks and the copy of
// the message. glibc keeps 128 kB above the heap top when it trims, and trims
// when a large block is freed while more than that is free at the top: a
// message whose blocks together pass that mark makes every decode grow the
// heap again and fault its pages in (faults_per_op shows it), a cost of the
// host's allocator rather than of decoding. The steady-heap variant keeps the
// heap, as the printer's pool allocator does; both are reported.
class SteadyHeap {
public:
    SteadyHeap() {
        mallopt(M_TRIM_THRESHOLD, kKeep);
        mallopt(M_MMAP_THRESHOLD, kKeep);
    }
    ~SteadyHeap() {
        // glibc's fixed defaults (its dynamic mmap threshold stays off once set).
        mallopt(M_TRIM_THRESHOLD, 128 * 1024);
        mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    }

private:
    static const int kKeep = 64 * 1024 * 1024;
};

void decodeAttributes(benchmark::State& state) {
    PrinterDictionary dict;
    ScopedRegistry reg(dict.tables);
    ScopedPrinter printer;
    const int n = static_cast<int>(state.range(0));
    const Bytes m = requestOfAttributes(dict.tables, n);
    // A request past the bounds is refused with a trace; keep the console quiet.
    TraceCapture quiet(-1);
    uint32_t rc = 0;
    AllocCounter allocs;
    for (auto _ : state) {
        cmp_ipp_buf buf(m.data(), static_cast<uint32_t>(m.size()), false);
        cmp_ipp_request req;
        rc = req.decode(buf, nullptr);
        benchmark::DoNotOptimize(rc);
    }
    allocs.report(state, static_cast<double>(state.iterations()));
    state.counters["status"] = rc;
    state.counters["bytes"] = static_cast<double>(m.size());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(m.size()));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * n);
}
void BM_DecodeAttributes(benchmark::State& state) { decodeAttributes(state); }
BENCHMARK(BM_DecodeAttributes)->Arg(100)->Arg(1000)->Arg(10000);

void BM_DecodeAttributesSteadyHeap(benchmark::State& state) {
    SteadyHeap keep;
    decodeAttributes(state);
}
BENCHMARK(BM_DecodeAttributesSteadyHeap)->Arg(100)->Arg(1000)->Arg(10000);

// ---- side-by-side ratios -------------------------------------------------------

// Prints, after the run, the ratios the performance targets are stated in, on
// CPU time (steadier than wall time on a shared machine); with repetitions, of
// the medians.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Iteration && r.iterations > 0 && m_median.count(r.run_name.str()) == 0)
                m_ns[r.run_name.str()] = r.GetAdjustedCPUTime();
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name == "median") {
                m_ns[r.run_name.str()] = r.GetAdjustedCPUTime();
                m_median[r.run_name.str()] = true;
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        ratio("decode+encode per corpus message, ours / libcups", "BM_DecodeEncodeCorpus", "BM_CupsReadWriteCorpus");
        ratio("decoding 1,000 attributes / decoding 100", "BM_DecodeAttributes/1000", "BM_DecodeAttributes/100");
        ratio("decoding 10,000 attributes (refused) / decoding 100", "BM_DecodeAttributes/10000",
              "BM_DecodeAttributes/100");
        ratio("decoding 1,000 attributes / decoding 100, steady heap", "BM_DecodeAttributesSteadyHeap/1000",
              "BM_DecodeAttributesSteadyHeap/100");
    }

private:
    void ratio(const char* what, const std::string& a, const std::string& b) {
        auto x = m_ns.find(a);
        auto y = m_ns.find(b);
        if (x == m_ns.end() || y == m_ns.end() || y->second <= 0) return;
        std::printf("ratio: %s = %.2f\n", what, x->second / y->second);
    }
    std::map<std::string, double> m_ns;
    std::map<std::string, bool> m_median;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
