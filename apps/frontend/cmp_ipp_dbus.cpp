#include "cmp_ipp_dbus.h"

#include <ctype.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

namespace cmp_ipp_fe {
namespace dbus {

namespace {

// The protocol's own ceilings: a message at most 128 MiB, an array 64 MiB.
constexpr uint64_t kProtocolMaxMessage = 128u * 1024 * 1024;
constexpr uint32_t kProtocolMaxArray = 64u * 1024 * 1024;
// Messages that arrive while a call waits for its reply, kept for later.
constexpr size_t kMaxPending = 64;

size_t alignOf(char t) {
    switch (t) {
    case 'n': case 'q': return 2;
    case 'b': case 'i': case 'u': case 'h': case 's': case 'o': case 'a': return 4;
    case 'x': case 't': case 'd': case '(': case '{': return 8;
    default: return 1;
    }
}

uint32_t get32(const uint8_t* p, bool big) {
    return big ? (uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3])
               : (uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]);
}

int64_t nowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd is readable: 1; timed out or cancelled: 0; error: -1.
int waitReadable(int fd, int64_t deadline, int cancelFd) {
    for (;;) {
        const int64_t left = deadline - nowMs();
        if (left <= 0) return 0;
        struct pollfd p[2] = {{fd, POLLIN, 0}, {cancelFd, POLLIN, 0}};
        const int n = poll(p, cancelFd >= 0 ? 2 : 1, static_cast<int>(left));
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (cancelFd >= 0 && (p[1].revents & POLLIN) != 0) return 0;
        if (p[0].revents != 0) return 1;
    }
}

bool sendAll(int fd, const void* data, size_t len) {
    const char* p = static_cast<const char*>(data);
    while (len > 0) {
        const ssize_t n = ::send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

// ---- Writer ----

void Writer::align(size_t n) {
    while (m_buf.size() % n != 0) m_buf.push_back(0);
}
void Writer::y(uint8_t v) { m_buf.push_back(v); }
void Writer::b(bool v) { u(v ? 1 : 0); }
void Writer::i(int32_t v) { u(static_cast<uint32_t>(v)); }
void Writer::u(uint32_t v) {
    align(4);
    for (int k = 0; k < 4; ++k) m_buf.push_back(static_cast<uint8_t>(v >> (8 * k)));
}
void Writer::q(uint16_t v) {
    align(2);
    m_buf.push_back(static_cast<uint8_t>(v));
    m_buf.push_back(static_cast<uint8_t>(v >> 8));
}
void Writer::s(const std::string& v) {
    u(static_cast<uint32_t>(v.size()));
    m_buf.insert(m_buf.end(), v.begin(), v.end());
    m_buf.push_back(0);
}
void Writer::g(const std::string& v) {
    y(static_cast<uint8_t>(v.size()));
    m_buf.insert(m_buf.end(), v.begin(), v.end());
    m_buf.push_back(0);
}
void Writer::ay(const std::string& bytes) {
    u(static_cast<uint32_t>(bytes.size()));
    m_buf.insert(m_buf.end(), bytes.begin(), bytes.end());
}
void Writer::aay(const std::vector<std::string>& items) {
    u(0);
    const size_t lenAt = m_buf.size() - 4;
    const size_t start = m_buf.size();  // elements (each an ay) are 4-aligned already
    for (const std::string& it : items) ay(it);
    const uint32_t n = static_cast<uint32_t>(m_buf.size() - start);
    for (int k = 0; k < 4; ++k) m_buf[lenAt + k] = static_cast<uint8_t>(n >> (8 * k));
}

std::vector<uint8_t> encode(const Call& c, uint32_t serial) {
    Writer w;
    w.y('l');
    w.y(c.type);
    w.y(c.flags);
    w.y(1);
    w.u(static_cast<uint32_t>(c.body.size()));
    w.u(serial);
    w.u(0);  // the header fields' length, set below
    w.align(8);
    const auto field = [&w](uint8_t code, const char* sig, const std::string& v) {
        if (v.empty()) return;
        w.align(8);
        w.y(code);
        w.g(sig);
        if (sig[0] == 'g') {
            w.g(v);
        } else {
            w.s(v);
        }
    };
    field(1, "o", c.path);
    field(2, "s", c.interface);
    field(3, "s", c.member);
    field(4, "s", c.errorName);
    if (c.replySerial != 0) {
        w.align(8);
        w.y(5);
        w.g("u");
        w.u(c.replySerial);
    }
    field(6, "s", c.destination);
    field(8, "g", c.signature);
    std::vector<uint8_t> out = w.bytes();
    const uint32_t fields = static_cast<uint32_t>(out.size() - 16);
    for (int k = 0; k < 4; ++k) out[12 + k] = static_cast<uint8_t>(fields >> (8 * k));
    while (out.size() % 8 != 0) out.push_back(0);
    out.insert(out.end(), c.body.begin(), c.body.end());
    return out;
}

// ---- Reader ----

bool Reader::take(size_t n, const uint8_t** out) {
    if (!m_ok || n > m_len - m_pos) {
        m_ok = false;
        return false;
    }
    if (out != nullptr) *out = m_p + m_pos;
    m_pos += n;
    return true;
}

bool Reader::align(size_t n) {
    const size_t pad = (n - m_pos % n) % n;
    const uint8_t* p = nullptr;
    if (!take(pad, &p)) return false;
    for (size_t k = 0; k < pad; ++k) {
        if (p[k] != 0) return m_ok = false;  // padding must be zero
    }
    return true;
}

uint8_t Reader::y() {
    const uint8_t* p = nullptr;
    return take(1, &p) ? p[0] : 0;
}

uint32_t Reader::u() {
    const uint8_t* p = nullptr;
    if (!align(4) || !take(4, &p)) return 0;
    return get32(p, m_big);
}

uint16_t Reader::q() {
    const uint8_t* p = nullptr;
    if (!align(2) || !take(2, &p)) return 0;
    return m_big ? static_cast<uint16_t>(p[0] << 8 | p[1]) : static_cast<uint16_t>(p[1] << 8 | p[0]);
}

bool Reader::b() {
    const uint32_t v = u();
    if (v > 1) m_ok = false;
    return m_ok && v == 1;
}

std::string Reader::s() {
    const uint32_t n = u();
    const uint8_t* p = nullptr;
    // n + 1 compared without overflowing a 32-bit size_t.
    if (!m_ok || n >= m_len - m_pos || !take(size_t(n) + 1, &p) || p[n] != 0 || memchr(p, 0, n) != nullptr) {
        m_ok = false;
        return std::string();
    }
    return std::string(reinterpret_cast<const char*>(p), n);
}

std::string Reader::g() {
    const uint8_t n = y();
    const uint8_t* p = nullptr;
    if (!m_ok || !take(size_t(n) + 1, &p) || p[n] != 0 || memchr(p, 0, n) != nullptr) {
        m_ok = false;
        return std::string();
    }
    return std::string(reinterpret_cast<const char*>(p), n);
}

namespace {

// The index just past the complete type at sig[at]; npos when there is none.
size_t typeEnd(const std::string& sig, size_t at, int depth) {
    if (at >= sig.size() || depth > kMaxDepth) return std::string::npos;
    switch (sig[at]) {
    case 'y': case 'b': case 'n': case 'q': case 'i': case 'u': case 'x': case 't': case 'd': case 'h':
    case 's': case 'o': case 'g': case 'v':
        return at + 1;
    case 'a':
        return typeEnd(sig, at + 1, depth + 1);
    case '(': case '{': {
        const char close = sig[at] == '(' ? ')' : '}';
        size_t k = at + 1;
        if (k < sig.size() && sig[k] == close) return std::string::npos;  // empty struct
        while (k < sig.size() && sig[k] != close) {
            k = typeEnd(sig, k, depth + 1);
            if (k == std::string::npos) return k;
        }
        return k < sig.size() ? k + 1 : std::string::npos;
    }
    default:
        return std::string::npos;
    }
}

}  // namespace

bool Reader::skip(const std::string& sig, size_t* at, int depth) {
    if (!m_ok || depth > kMaxDepth || *at >= sig.size()) return m_ok = false;
    const char t = sig[*at];
    switch (t) {
    case 'y': y(); ++*at; break;
    case 'b': b(); ++*at; break;
    case 'n': case 'q': q(); ++*at; break;
    case 'i': case 'u': case 'h': u(); ++*at; break;
    case 'x': case 't': case 'd':
        if (align(8)) take(8, nullptr);
        ++*at;
        break;
    case 's': case 'o': s(); ++*at; break;
    case 'g': g(); ++*at; break;
    case 'v': {
        const std::string inner = g();
        size_t k = 0;
        if (m_ok && (typeEnd(inner, 0, depth + 1) != inner.size() || !skip(inner, &k, depth + 1))) m_ok = false;
        ++*at;
        break;
    }
    case 'a': {
        const uint32_t n = u();
        const size_t elem = *at + 1;
        const size_t after = typeEnd(sig, elem, depth + 1);
        if (!m_ok || after == std::string::npos || n > kProtocolMaxArray || !align(alignOf(sig[elem])) ||
            n > m_len - m_pos) {
            return m_ok = false;
        }
        const size_t end = m_pos + n;
        while (m_ok && m_pos < end) {
            size_t k = elem;
            skip(sig, &k, depth + 1);
        }
        if (m_pos != end) m_ok = false;
        *at = after;
        break;
    }
    case '(': case '{': {
        const size_t after = typeEnd(sig, *at, depth);
        if (after == std::string::npos || !align(8)) return m_ok = false;
        size_t k = *at + 1;
        while (m_ok && k < after - 1) skip(sig, &k, depth + 1);
        *at = after;
        break;
    }
    default:
        m_ok = false;
    }
    return m_ok;
}

// ---- parsing ----

size_t frameLength(const uint8_t* data, size_t len) {
    if (len < 16) return 0;
    if ((data[0] != 'l' && data[0] != 'B') || data[3] != 1) return SIZE_MAX;
    const bool big = data[0] == 'B';
    const uint64_t body = get32(data + 4, big);
    const uint64_t fields = get32(data + 12, big);
    const uint64_t total = 16 + ((fields + 7) & ~uint64_t(7)) + body;
    if (total > kProtocolMaxMessage) return SIZE_MAX;
    return static_cast<size_t>(total);
}

bool parse(const uint8_t* data, size_t len, Message& out) {
    if (len < 16 || frameLength(data, len) != len) return false;
    out = Message();
    out.bigEndian = data[0] == 'B';
    Reader r(data, len, out.bigEndian);
    r.y();
    out.type = r.y();
    out.flags = r.y();
    r.y();
    const uint32_t bodyLen = r.u();
    out.serial = r.u();
    const uint32_t fieldsLen = r.u();
    if (out.serial == 0) return false;
    // The header fields: an array of (code, variant), each 8-aligned; known
    // codes must carry their own type, unknown ones are passed over.
    const size_t fieldsEnd = 16 + size_t(fieldsLen);  // within len: frameLength checked it
    while (r.ok() && r.pos() < fieldsEnd) {
        while (r.pos() % 8 != 0 && r.ok()) {
            if (r.y() != 0) return false;
        }
        const uint8_t code = r.y();
        const std::string sig = r.g();
        if (!r.ok()) return false;
        const char* want = nullptr;
        std::string* text = nullptr;
        switch (code) {
        case 1: want = "o"; text = &out.path; break;
        case 2: want = "s"; text = &out.interface; break;
        case 3: want = "s"; text = &out.member; break;
        case 4: want = "s"; text = &out.errorName; break;
        case 5: want = "u"; break;
        case 6: want = "s"; text = &out.destination; break;
        case 7: want = "s"; text = &out.sender; break;
        case 8: want = "g"; text = &out.signature; break;
        case 9: return false;  // file descriptors: never negotiated, never accepted
        default: break;
        }
        if (want == nullptr) {
            size_t k = 0;
            if (typeEnd(sig, 0, 1) != sig.size() || !r.skip(sig, &k, 1)) return false;
        } else if (sig != want) {
            return false;
        } else if (code == 5) {
            out.replySerial = r.u();
        } else if (code == 8) {
            *text = r.g();
        } else {
            *text = r.s();
        }
    }
    if (!r.ok() || r.pos() != fieldsEnd) return false;
    while (r.pos() % 8 != 0) {
        if (r.y() != 0 || !r.ok()) return false;
    }
    if (r.pos() != len - bodyLen) return false;
    switch (out.type) {
    case kMethodCall: if (out.path.empty() || out.member.empty()) return false; break;
    case kSignal: if (out.path.empty() || out.interface.empty() || out.member.empty()) return false; break;
    case kError: if (out.errorName.empty() || out.replySerial == 0) return false; break;
    case kMethodReturn: if (out.replySerial == 0) return false; break;
    default: return false;  // other types are to be ignored: the caller drops them
    }
    // The body must be exactly what its signature says.
    if (bodyLen > 0 && out.signature.empty()) return false;
    Reader body(data + (len - bodyLen), bodyLen, out.bigEndian);
    size_t k = 0;
    while (k < out.signature.size()) {
        if (!body.skip(out.signature, &k, 0)) return false;
    }
    if (body.pos() != bodyLen) return false;
    out.body.assign(data + (len - bodyLen), data + len);
    return true;
}

std::string errorText(const Message& m) {
    if (!m.signature.empty() && m.signature[0] == 's') {
        Reader r(m);
        std::string t = r.s();
        if (r.ok() && !t.empty()) return t;
    }
    return m.errorName;
}

std::string socketPathOf(const std::string& address) {
    size_t at = 0;
    while (at <= address.size()) {
        size_t end = address.find(';', at);
        if (end == std::string::npos) end = address.size();
        const std::string entry = address.substr(at, end - at);
        if (entry.compare(0, 5, "unix:") == 0) {
            size_t k = 5;
            while (k < entry.size()) {
                size_t e = entry.find(',', k);
                if (e == std::string::npos) e = entry.size();
                if (entry.compare(k, 5, "path=") == 0) {
                    // Values may be %-escaped.
                    std::string out;
                    for (size_t c = k + 5; c < e; ++c) {
                        if (entry[c] == '%' && c + 2 < e && isxdigit(static_cast<unsigned char>(entry[c + 1])) &&
                            isxdigit(static_cast<unsigned char>(entry[c + 2]))) {
                            out += static_cast<char>(std::stoi(entry.substr(c + 1, 2), nullptr, 16));
                            c += 2;
                        } else {
                            out += entry[c];
                        }
                    }
                    return out;
                }
                k = e + 1;
            }
        }
        at = end + 1;
    }
    return std::string();
}

// ---- Connection ----

void Connection::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
    m_in.clear();
    m_skip = 0;
}

bool Connection::open(const std::string& socketPath, int timeoutMs, int cancelFd, std::string* why) {
    close();
    struct sockaddr_un sa;
    memset(&sa, 0, sizeof sa);
    sa.sun_family = AF_UNIX;
    if (socketPath.empty() || socketPath.size() >= sizeof sa.sun_path) {
        *why = "no usable bus address";
        return false;
    }
    memcpy(sa.sun_path, socketPath.data(), socketPath.size());
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        *why = strerror(errno);
        return false;
    }
    if (connect(m_fd, reinterpret_cast<struct sockaddr*>(&sa), sizeof sa) != 0) {
        *why = strerror(errno);
        close();
        return false;
    }
    // A bus that stops reading must not hold our thread for long.
    struct timeval tv = {2, 0};
    setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);

    // EXTERNAL: the kernel vouches for our uid, given in hex of its decimal text.
    const std::string uid = std::to_string(getuid());
    std::string auth(1, '\0');
    auth += "AUTH EXTERNAL ";
    static const char hex[] = "0123456789abcdef";
    for (char c : uid) {
        auth += hex[(static_cast<unsigned char>(c) >> 4) & 15];
        auth += hex[static_cast<unsigned char>(c) & 15];
    }
    auth += "\r\n";
    if (!sendAll(m_fd, auth.data(), auth.size())) {
        *why = "the bus closed during authentication";
        close();
        return false;
    }
    // One line back; read a byte at a time so nothing after it is taken.
    const int64_t deadline = nowMs() + timeoutMs;
    std::string line;
    while (line.size() < 512 && (line.size() < 2 || line.compare(line.size() - 2, 2, "\r\n") != 0)) {
        if (waitReadable(m_fd, deadline, cancelFd) != 1) {
            *why = "no answer from the bus";
            close();
            return false;
        }
        char c = 0;
        const ssize_t n = recv(m_fd, &c, 1, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            *why = "the bus closed during authentication";
            close();
            return false;
        }
        line += c;
    }
    if (line.compare(0, 3, "OK ") != 0) {
        *why = "the bus refused us";
        close();
        return false;
    }
    static const char begin[] = "BEGIN\r\n";
    if (!sendAll(m_fd, begin, sizeof begin - 1)) {
        *why = "the bus closed during authentication";
        close();
        return false;
    }
    Call hello;
    hello.destination = "org.freedesktop.DBus";
    hello.path = "/org/freedesktop/DBus";
    hello.interface = "org.freedesktop.DBus";
    hello.member = "Hello";
    Message reply;
    std::vector<Message> pending;
    if (!call(hello, reply, pending, timeoutMs, cancelFd) || reply.type != kMethodReturn) {
        *why = "the bus did not greet us";
        close();
        return false;
    }
    return true;
}

uint32_t Connection::send(const Call& c) {
    if (m_fd < 0) return 0;
    if (++m_serial == 0) m_serial = 1;
    const std::vector<uint8_t> bytes = encode(c, m_serial);
    if (!sendAll(m_fd, bytes.data(), bytes.size())) {
        close();
        return 0;
    }
    return m_serial;
}

bool Connection::feed(const uint8_t* data, size_t len, std::vector<Message>& out) {
    while (len > 0) {
        if (m_skip > 0) {
            const size_t n = len < m_skip ? len : m_skip;
            m_skip -= n;
            data += n;
            len -= n;
            continue;
        }
        size_t need = 16;
        if (m_in.size() >= 16) {
            const size_t total = frameLength(m_in.data(), m_in.size());
            if (total == SIZE_MAX) return false;
            if (total > kMaxMessage) {
                m_skip = total - m_in.size();
                m_in.clear();
                ++m_dropped;
                continue;
            }
            need = total;
        }
        const size_t n = need - m_in.size() < len ? need - m_in.size() : len;
        m_in.insert(m_in.end(), data, data + n);
        data += n;
        len -= n;
        if (m_in.size() < 16) continue;
        const size_t total = frameLength(m_in.data(), m_in.size());
        if (total == SIZE_MAX) return false;
        if (total != m_in.size()) continue;
        Message m;
        if (parse(m_in.data(), m_in.size(), m)) {
            out.push_back(std::move(m));
        } else {
            ++m_dropped;
        }
        m_in.clear();
    }
    return true;
}

bool Connection::receive(std::vector<Message>& out) {
    if (m_fd < 0) return false;
    uint8_t buf[4096];
    for (;;) {
        const ssize_t n = recv(m_fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n > 0) {
            if (!feed(buf, static_cast<size_t>(n), out)) {
                close();
                return false;
            }
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return true;
        close();
        return false;
    }
}

bool Connection::call(const Call& c, Message& reply, std::vector<Message>& pending, int timeoutMs, int cancelFd) {
    const uint32_t serial = send(c);
    if (serial == 0) return false;
    const int64_t deadline = nowMs() + timeoutMs;
    bool found = false;
    while (!found) {
        if (waitReadable(m_fd, deadline, cancelFd) != 1) return false;
        std::vector<Message> got;
        const bool alive = receive(got);
        for (Message& m : got) {
            if (!found && (m.type == kMethodReturn || m.type == kError) && m.replySerial == serial) {
                reply = std::move(m);
                found = true;
            } else if (pending.size() < kMaxPending) {
                pending.push_back(std::move(m));
            }
        }
        if (!alive) return found;
    }
    return true;
}

}  // namespace dbus
}  // namespace cmp_ipp_fe
