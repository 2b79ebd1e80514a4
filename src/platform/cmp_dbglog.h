// Stand-in for the printer's tracing library. A trace line is written when its
// level is not above the threshold; every written line goes to standard error and
// into a bounded in-memory ring that tests can read.
#ifndef CMP_DBGLOG_H
#define CMP_DBGLOG_H

#include <stdarg.h>
#include <stdint.h>
#include <string>
#include <vector>

extern "C" {
// Formats and writes one line for module (for example "CMP_IPP") at level.
void cmp_dbglog_common_trace(const char* module, int level, const char* fmt, va_list ap);
}

namespace orvane {

class cmp_dbglog_common {
public:
    static cmp_dbglog_common& get_instance();

    // Threshold: lines with a level above it are dropped. Starts from the
    // environment variable CMP_IPP_TRACE_LEVEL (default 0: errors only).
    int level() const;
    void set_level(int level);
    bool enabled(int level) const;

    // The ring of the most recent written lines, oldest first.
    std::vector<std::string> lines() const;
    void clear();

    static constexpr size_t kRingLines = 256;

private:
    cmp_dbglog_common();
};

namespace cmp_dbglog {

class trace_log_memory {
public:
    // Keeps one formatted line in the ring.
    static void logging(const char* line, size_t len);
};

// The line numbers that the library's traces print ("<file>::<function>(<number>)")
// are fixed identifiers of each trace place, the same on every build and kept
// through edits and file splits; they are not the lines of our sources, and tools
// that read the traces match on them.
inline void tracer(int level, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
inline void tracer(int level, const char* fmt, ...) {
    if (!cmp_dbglog_common::get_instance().enabled(level)) return;
    va_list ap;
    va_start(ap, fmt);
    cmp_dbglog_common_trace("CMP_IPP", level, fmt, ap);
    va_end(ap);
}

}  // namespace cmp_dbglog
}  // namespace orvane

#endif
