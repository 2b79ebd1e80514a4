// The little of the D-Bus wire protocol the DNS-SD announcer needs to talk to
// avahi-daemon over the system bus: marshalling a handful of types, reading
// messages back under strict bounds, and a connection on a Unix socket with
// EXTERNAL authentication. Doing this ourselves instead of through libdbus
// keeps libdbus and what it drags in (libsystemd, libgcrypt, compressors,
// about 1.2 MB resident) out of the printer.
#ifndef CMP_IPP_DBUS_H
#define CMP_IPP_DBUS_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace cmp_ipp_fe {
namespace dbus {

enum MessageType : uint8_t { kMethodCall = 1, kMethodReturn = 2, kError = 3, kSignal = 4 };
enum : uint8_t { kNoReplyExpected = 0x1, kNoAutoStart = 0x2 };

// Anything larger from the bus is skipped unread: the replies and signals the
// announcer waits for are a few hundred bytes.
constexpr size_t kMaxMessage = 64 * 1024;
// Containers nested deeper than this are refused (the protocol allows 64).
constexpr int kMaxDepth = 16;

// Builds a body, little-endian. Alignment counts from the body's start, which
// the message puts on an 8-byte boundary.
class Writer {
public:
    void y(uint8_t v);
    void b(bool v);
    void i(int32_t v);
    void u(uint32_t v);
    void q(uint16_t v);
    void s(const std::string& v);
    void o(const std::string& v) { s(v); }
    void g(const std::string& v);
    void ay(const std::string& bytes);
    void aay(const std::vector<std::string>& items);
    const std::vector<uint8_t>& bytes() const { return m_buf; }
    void align(size_t n);

private:
    std::vector<uint8_t> m_buf;
};

struct Call {
    uint8_t type = kMethodCall;
    uint8_t flags = 0;
    std::string destination, path, interface, member;
    std::string errorName;   // errors only
    uint32_t replySerial = 0;  // replies and errors only
    std::string signature;   // of the body
    std::vector<uint8_t> body;
};

// The whole message as sent, with the given serial.
std::vector<uint8_t> encode(const Call& c, uint32_t serial);

struct Message {
    uint8_t type = 0;
    uint8_t flags = 0;
    bool bigEndian = false;
    uint32_t serial = 0;
    uint32_t replySerial = 0;
    std::string path, interface, member, errorName, destination, sender, signature;
    std::vector<uint8_t> body;
};

// The length of the message starting at data once 16 bytes are there: 0 when
// fewer are, SIZE_MAX when the fixed header is not D-Bus (the stream is lost).
size_t frameLength(const uint8_t* data, size_t len);

// Parses one whole message of exactly len bytes. False, with out unspecified,
// for anything malformed; nothing outside [data, data + len) is read.
bool parse(const uint8_t* data, size_t len, Message& out);

// Reads a parsed body in order. Any mismatch or overrun makes ok() false and
// every later read return a zero value.
class Reader {
public:
    explicit Reader(const Message& m) : m_p(m.body.data()), m_len(m.body.size()), m_big(m.bigEndian) {}
    Reader(const uint8_t* p, size_t len, bool big) : m_p(p), m_len(len), m_big(big) {}
    uint8_t y();
    bool b();
    int32_t i() { return static_cast<int32_t>(u()); }
    uint32_t u();
    uint16_t q();
    std::string s();
    std::string g();
    // Skips one complete value of the type at sig[*at], moving *at past it.
    bool skip(const std::string& sig, size_t* at, int depth = 0);
    bool ok() const { return m_ok; }
    size_t pos() const { return m_pos; }

private:
    bool align(size_t n);
    bool take(size_t n, const uint8_t** out);
    const uint8_t* m_p;
    size_t m_len;
    bool m_big;
    size_t m_pos = 0;
    bool m_ok = true;
};

// The first string of an error's body (its human text), else its name.
std::string errorText(const Message& m);

// "unix:path=/x" (the first unix:path= entry of a bus address list) -> "/x";
// empty when the address names no Unix socket path.
std::string socketPathOf(const std::string& address);

// A connection to a bus. Blocking writes (the messages are small), reads
// driven by the owner's poll().
class Connection {
public:
    Connection() = default;
    ~Connection() { close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Connects, authenticates as our uid and says Hello. The wait for each
    // answer is bounded by timeoutMs and cut short when cancelFd turns readable.
    bool open(const std::string& socketPath, int timeoutMs, int cancelFd, std::string* why);
    void close();
    bool isOpen() const { return m_fd >= 0; }
    int fd() const { return m_fd; }

    // The serial used, 0 when the connection failed.
    uint32_t send(const Call& c);
    // Reads what the socket has; false when the bus closed or the stream is
    // beyond repair. Whole messages go to out; malformed or oversized ones
    // are dropped.
    bool receive(std::vector<Message>& out);
    // Sends c and waits for its reply (other messages read meanwhile go to
    // pending). False on a timeout, a cancel or a lost connection.
    bool call(const Call& c, Message& reply, std::vector<Message>& pending, int timeoutMs, int cancelFd);

    // For tests: feeds bytes as if read from the socket.
    bool feed(const uint8_t* data, size_t len, std::vector<Message>& out);
    size_t dropped() const { return m_dropped; }

private:
    int m_fd = -1;
    uint32_t m_serial = 0;
    std::vector<uint8_t> m_in;  // at most one message (kMaxMessage)
    size_t m_skip = 0;          // bytes of an oversized message still to pass over
    size_t m_dropped = 0;
};

}  // namespace dbus
}  // namespace cmp_ipp_fe

#endif
