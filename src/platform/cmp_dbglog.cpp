#include "cmp_dbglog.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

struct Ring {
    std::mutex lock;
    std::string lines[orvane::cmp_dbglog_common::kRingLines];
    size_t next = 0;   // slot of the next line
    size_t count = 0;  // lines held, at most kRingLines
};

// Never destroyed: a task that ends while the process exits may still trace.
Ring& ring() {
    static Ring* const r = new Ring;
    return *r;
}

std::atomic<int>& threshold() {
    static std::atomic<int> level([] {
        const char* env = std::getenv("CMP_IPP_TRACE_LEVEL");
        return env != nullptr ? std::atoi(env) : 0;
    }());
    return level;
}

}  // namespace

extern "C" void cmp_dbglog_common_trace(const char* /*module*/, int /*level*/, const char* fmt,
                                        va_list ap) {
    char line[1024];
    int n = std::vsnprintf(line, sizeof line, fmt, ap);
    if (n < 0) return;
    size_t len = static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1;
    std::fwrite(line, 1, len, stderr);
    orvane::cmp_dbglog::trace_log_memory::logging(line, len);
}

namespace orvane {

cmp_dbglog_common::cmp_dbglog_common() = default;

cmp_dbglog_common& cmp_dbglog_common::get_instance() {
    static cmp_dbglog_common instance;
    return instance;
}

int cmp_dbglog_common::level() const { return threshold().load(std::memory_order_relaxed); }
void cmp_dbglog_common::set_level(int level) { threshold().store(level, std::memory_order_relaxed); }
bool cmp_dbglog_common::enabled(int level) const { return level <= this->level(); }

std::vector<std::string> cmp_dbglog_common::lines() const {
    Ring& r = ring();
    std::lock_guard<std::mutex> g(r.lock);
    std::vector<std::string> out;
    out.reserve(r.count);
    size_t first = (r.next + kRingLines - r.count) % kRingLines;
    for (size_t i = 0; i < r.count; ++i) out.push_back(r.lines[(first + i) % kRingLines]);
    return out;
}

void cmp_dbglog_common::clear() {
    Ring& r = ring();
    std::lock_guard<std::mutex> g(r.lock);
    r.next = 0;
    r.count = 0;
}

void cmp_dbglog::trace_log_memory::logging(const char* line, size_t len) {
    Ring& r = ring();
    std::lock_guard<std::mutex> g(r.lock);
    r.lines[r.next].assign(line, len);
    r.next = (r.next + 1) % cmp_dbglog_common::kRingLines;
    if (r.count < cmp_dbglog_common::kRingLines) ++r.count;
}

}  // namespace orvane
