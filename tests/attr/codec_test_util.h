// Helpers shared by the attribute, message and server tests and the fuzz
// targets: wire bytes written as hex with quoted text, an attribute's stores as
// plain values, a transport record handing out pieces, the captured messages,
// and a scope that collects the trace lines written inside it.
#ifndef TESTS_ATTR_CODEC_TEST_UTIL_H
#define TESTS_ATTR_CODEC_TEST_UTIL_H

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "containers/cmp_ipp_buf.h"
#include "platform/cmp_dbglog.h"

using Bytes = std::vector<unsigned char>;

// "21 0006 'copies' 0004 00000001": hex digit pairs (blanks ignored) and 'text'
// copied byte for byte.
inline Bytes wire(const char* text) {
    Bytes out;
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

inline std::string hexOf(const Bytes& bytes) {
    std::string s;
    char two[4];
    for (uint8_t b : bytes) {
        std::snprintf(two, sizeof two, "%02X ", b);
        s += two;
    }
    return s;
}

inline Bytes contentOf(const cmp_ipp_buf& b, uint32_t from = 0) {
    if (from >= b.length()) return {};
    return Bytes(b.data() + from, b.data() + b.length());
}

inline cmp_ipp_buf bufOf(const Bytes& b) { return cmp_ipp_buf(b.data(), static_cast<uint32_t>(b.size()), true); }

inline std::string text(const cmp_ipp_string& s) {
    return s.data() ? std::string(s.data(), s.length()) : std::string();
}

inline std::vector<int32_t> words(const cmp_ipp_attr& a) {
    std::vector<int32_t> w;
    for (int32_t i = 0; i < a.m_longs.length(); ++i) w.push_back(a.m_longs[i]);
    return w;
}

inline std::vector<std::string> strings(const cmp_ipp_attr& a) {
    std::vector<std::string> s;
    for (int32_t i = 0; i < a.m_strings.length(); ++i) s.push_back(text(a.m_strings[i]));
    return s;
}

inline std::vector<std::string> octets(const cmp_ipp_attr& a) {
    std::vector<std::string> s;
    for (int32_t i = 0; i < a.m_bufs.length(); ++i)
        s.emplace_back(reinterpret_cast<const char*>(a.m_bufs[i].data()), a.m_bufs[i].length());
    return s;
}

// Everything of an attribute that a reader can see, store capacities included.
inline std::string shapeOf(const cmp_ipp_attr& a) {
    std::string s = std::to_string(a.m_type) + " id" + std::to_string(a.m_nameId) + " len" +
                    std::to_string(a.m_nameLength) + " name:" + (a.m_name != nullptr ? a.m_name : "(none)") + "/" +
                    a.cmp_ipp_attr_get_name() + " n" + std::to_string(a.m_numValues) + " m" +
                    std::to_string(a.m_memberType) + " cap" + std::to_string(a.m_strings.capacity()) + "." +
                    std::to_string(a.m_bufs.capacity()) + "." + std::to_string(a.m_longs.capacity()) + " |";
    for (int32_t w : words(a)) s += " " + std::to_string(w);
    for (int32_t i = 0; i < a.m_strings.length(); ++i)
        s += a.m_strings[i].isSet() ? " '" + text(a.m_strings[i]) + "'" : std::string(" (unset)");
    for (const std::string& o : octets(a)) s += " <" + o + ">";
    return s;
}

// An attribute with the first value of each of the others added to it.
inline cmp_ipp_attr multi(cmp_ipp_attr a, std::initializer_list<cmp_ipp_attr> more) {
    for (const cmp_ipp_attr& m : more) a.cmp_ipp_attr_add_multi(m);
    return a;
}

inline cmp_ipp_attr named(cmp_ipp_attr a, const char* name) {
    a.setName(name, static_cast<int32_t>(std::strlen(name)));
    return a;
}

inline cmp_ipp_attr octetAttr(int16_t tag, uint16_t id, std::string bytes) {
    return cmp_ipp_attr(tag, id, static_cast<void*>(&bytes[0]), static_cast<int32_t>(bytes.size()));
}

// A transport record whose port hands out its pieces one per request, the last
// one with the end.
struct PiecePort {
    explicit PiecePort(std::vector<Bytes> p) : pieces(std::move(p)) {
        info.ctx = this;
        info.pfnGetMoreData = [](void* ctx, int, unsigned char** data, int* length) -> int {
            PiecePort* self = static_cast<PiecePort*>(ctx);
            if (self->next >= self->pieces.size()) return 2;
            Bytes& piece = self->pieces[self->next++];
            *data = piece.data();
            *length = static_cast<int>(piece.size());
            return self->next < self->pieces.size() ? 1 : 2;
        };
    }
    PiecePort(const PiecePort&) = delete;  // the record points at this object
    // The rest of bytes from start on, in pieces of chunk bytes.
    static PiecePort inChunks(const Bytes& bytes, size_t start, size_t chunk) {
        std::vector<Bytes> p;
        for (size_t at = start; at < bytes.size(); at += chunk) {
            const size_t end = std::min(at + chunk, bytes.size());
            p.emplace_back(bytes.begin() + static_cast<long>(at), bytes.begin() + static_cast<long>(end));
        }
        return PiecePort(std::move(p));
    }
    // What the port has not handed out yet.
    Bytes unread() const {
        Bytes out;
        for (size_t i = next; i < pieces.size(); ++i) out.insert(out.end(), pieces[i].begin(), pieces[i].end());
        return out;
    }

    std::vector<Bytes> pieces;
    size_t next = 0;
    cmp_ipp_if_info_s info{};
};

inline Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

#ifdef CMP_IPP_CORPUS_DIR
// The captured messages whose names end in suffix, sorted by name.
inline std::vector<std::pair<std::string, Bytes>> capturedMessages(const std::string& suffix) {
    std::vector<std::pair<std::string, Bytes>> out;
    const std::string dir = CMP_IPP_CORPUS_DIR;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return out;
    while (dirent* e = readdir(d)) {
        const std::string n = e->d_name;
        if (n.size() > suffix.size() && n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0)
            out.emplace_back(n, readFile(dir + "/" + n));
    }
    closedir(d);
    std::sort(out.begin(), out.end());
    return out;
}
#endif

// Traces at or below level kept, ring emptied on entry and exit; lines() gives
// what was written since.
class TraceCapture {
public:
    explicit TraceCapture(int level = 0) : m_saved(log().level()) {
        log().set_level(level);
        log().clear();
    }
    ~TraceCapture() {
        log().set_level(m_saved);
        log().clear();
    }
    std::vector<std::string> lines() const { return log().lines(); }
    bool contains(const std::string& piece) const {
        for (const std::string& l : lines())
            if (l.find(piece) != std::string::npos) return true;
        return false;
    }

private:
    static orvane::cmp_dbglog_common& log() { return orvane::cmp_dbglog_common::get_instance(); }
    int m_saved;
};

#endif
