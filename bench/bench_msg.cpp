// Decode and encode time per message, and bytes per second, over the corpus
// requests (and attribute decoding over the responses).
#include <benchmark/benchmark.h>
#include <dirent.h>

#include <algorithm>
#include <map>
#include <string>

#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

const std::string kCorpus = CMP_IPP_CORPUS_DIR;

std::vector<Bytes> load(const std::string& suffix, bool skipMalformed) {
    std::vector<std::string> names;
    if (DIR* d = opendir(kCorpus.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n.size() > suffix.size() && n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0)
                names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    std::vector<Bytes> out;
    for (const std::string& n : names) {
        if (skipMalformed && (n.rfind("002-", 0) == 0 || n.rfind("003-", 0) == 0 || n.rfind("008-", 0) == 0))
            continue;
        out.push_back(readFile(kCorpus + "/" + n));
    }
    return out;
}

// A dictionary of every attribute name in the corpus, so lookups cost what
// they cost with a real table of that size.
struct Dictionary {
    std::vector<std::string> names;
    RegistryTables tables;
    Dictionary() {
        std::map<std::string, int16_t> seen;
        for (const char* suffix : {".req.ipp", ".rsp.ipp"}) {
            for (const Bytes& b : load(suffix, false)) {
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
        }
        seen.emplace("ipp-versions-supported", 0x44);
        seen.emplace("operations-supported", 0x23);
        for (const auto& kv : seen) names.push_back(kv.first);
        uint16_t id = 1;
        for (const std::string& n : names) tables.attrs.push_back({id++, n.c_str(), seen[n], 0, INT32_MAX});
    }
};

void BM_DecodeRequests(benchmark::State& state) {
    Dictionary dict;
    ScopedRegistry reg(dict.tables);
    ScopedPrinter printer;
    const std::vector<Bytes> corpus = load(".req.ipp", true);
    size_t bytes = 0;
    for (auto _ : state) {
        for (const Bytes& m : corpus) {
            cmp_ipp_buf buf(m.data(), static_cast<uint32_t>(m.size()), false);
            cmp_ipp_request req;
            benchmark::DoNotOptimize(req.decode(buf, nullptr));
            bytes += m.size();
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * corpus.size()));
    state.counters["us_per_msg"] = benchmark::Counter(static_cast<double>(state.iterations() * corpus.size()),
                                                      benchmark::Counter::kIsRate | benchmark::Counter::kInvert,
                                                      benchmark::Counter::OneK::kIs1000);
}
BENCHMARK(BM_DecodeRequests);

void BM_EncodeRequests(benchmark::State& state) {
    Dictionary dict;
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
    for (auto _ : state) {
        for (auto& req : decoded) {
            cmp_ipp_buf out = req->cmp_ipp_msg_encode();
            bytes += out.length();
            benchmark::DoNotOptimize(out.data());
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * decoded.size()));
}
BENCHMARK(BM_EncodeRequests);

// Responses carry most of the attributes (printer descriptions of several KB):
// decode every attribute of them one by one.
void BM_CreateResponseAttributes(benchmark::State& state) {
    Dictionary dict;
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
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * corpus.size()));
}
BENCHMARK(BM_CreateResponseAttributes);

}  // namespace

BENCHMARK_MAIN();
