// Helpers for the attribute codec tests: wire bytes written as hex with quoted
// text, and a scope that collects the trace lines written inside it.
#ifndef TESTS_ATTR_CODEC_TEST_UTIL_H
#define TESTS_ATTR_CODEC_TEST_UTIL_H

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "containers/cmp_ipp_buf.h"
#include "platform/cmp_dbglog.h"

// "21 0006 'copies' 0004 00000001": hex digit pairs (blanks ignored) and 'text'
// copied byte for byte.
inline std::vector<uint8_t> wire(const char* text) {
    std::vector<uint8_t> out;
    int high = -1;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '\'') {
            for (++p; *p != '\0' && *p != '\''; ++p) out.push_back(static_cast<uint8_t>(*p));
            if (*p == '\0') break;
            continue;
        }
        if (std::isspace(static_cast<unsigned char>(*p))) continue;
        int v = std::isdigit(static_cast<unsigned char>(*p)) ? *p - '0' : std::tolower(*p) - 'a' + 10;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    return out;
}

inline std::string hexOf(const std::vector<uint8_t>& bytes) {
    std::string s;
    char two[4];
    for (uint8_t b : bytes) {
        std::snprintf(two, sizeof two, "%02X ", b);
        s += two;
    }
    return s;
}

inline std::vector<uint8_t> contentOf(const cmp_ipp_buf& b, uint32_t from = 0) {
    if (from >= b.length()) return {};
    return std::vector<uint8_t>(b.data() + from, b.data() + b.length());
}

// Error traces on, ring emptied on entry; lines() gives what was written since.
class TraceCapture {
public:
    TraceCapture() : m_savedLevel(log().level()) {
        log().set_level(0);
        log().clear();
    }
    ~TraceCapture() { log().set_level(m_savedLevel); }
    std::vector<std::string> lines() const { return log().lines(); }

private:
    static orvane::cmp_dbglog_common& log() { return orvane::cmp_dbglog_common::get_instance(); }
    int m_savedLevel;
};

#endif
