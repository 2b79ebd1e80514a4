// The front end's side of the Unix-domain socket protocol: request records,
// body blocks and reply records, the mapping of HTTP header names onto the
// record's field tokens, and of the library's return codes onto HTTP statuses.
// Nothing here knows about the HTTP server, so it can be used and tested alone.
#ifndef CMP_IPP_RELAY_H
#define CMP_IPP_RELAY_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace cmp_ipp_fe {

struct relay_header {
    int32_t token;
    std::string value;
};

// What goes into one request record.
struct relay_request {
    int32_t method = 0;          // 0 GET, 2 POST
    int32_t keepAliveLevel = 0;
    int32_t connection = 1;      // 1 close, 2 keep-alive
    int32_t contentLength = 0;
    bool chunked = false;
    std::vector<relay_header> headers;  // at most 15 are sent
};

struct free_deleter {
    void operator()(unsigned char* p) const;
};

// One reply record and its body. The body is malloc'd so that it can be handed
// to the HTTP server without a copy.
struct relay_reply {
    int32_t status = 0;
    int32_t connection = 0;
    std::vector<relay_header> headers;
    std::unique_ptr<unsigned char, free_deleter> body;
    size_t bodyLength = 0;
};

// Header field token for an HTTP request header name (case-insensitive); 0 when
// the header is not relayed.
int32_t requestHeaderToken(const char* name);
// HTTP header name for a reply field token; nullptr for tokens the HTTP server
// manages itself (length, framing, connection, date) or does not know.
const char* replyHeaderName(int32_t token);
// Keeps the fields that matter most when there are more than a record holds,
// one field per token, values that fit a field.
std::vector<relay_header> selectHeaders(const std::vector<relay_header>& candidates);
// HTTP status for a reply record's status (0 is 200).
unsigned httpStatusFor(int32_t code);

// "/tmp/zyn_ipp_server", or the directory (ending in "/") followed by "zyn_ipp_server".
std::string socketPathIn(const char* dir);
// The library's own choice: $GEN_UNIX_PATH when set.
std::string defaultSocketPath();

// Writes the request record (the library's 30444-byte request block).
void encodeRequestRecord(const relay_request& req, unsigned char* out);
size_t requestRecordSize();
size_t replyRecordSize();
// Reads a reply record; headers beyond the record's count are ignored.
void decodeReplyRecord(const unsigned char* in, relay_reply& out);

// One connection to the library's socket. Every wait is bounded by the time-out
// and ends early when *stopping becomes true, so a stuck library can neither
// hang an HTTP connection nor a shutdown.
class relay_connection {
public:
    enum class outcome { ok, unreachable, failed };

    relay_connection(int timeoutMs, const std::atomic<bool>* stopping);
    ~relay_connection();
    relay_connection(const relay_connection&) = delete;
    relay_connection& operator=(const relay_connection&) = delete;

    outcome connectTo(const std::string& path);
    bool isOpen() const { return fd_ >= 0; }
    // Usable for another request: open, used within idleLimitMs, and the library
    // has neither closed its end nor sent anything unasked.
    bool reusable(int64_t idleLimitMs) const;
    void close();

    bool sendRequest(const relay_request& req);
    // Body bytes are coalesced into full 32768-byte blocks before they go out.
    bool addBody(const unsigned char* data, size_t length);
    // Sends what is left and the end block.
    bool endBody();
    // True when the library has already answered (or closed) without waiting for the rest.
    bool replyWaiting() const;
    bool readReply(relay_reply& out, int timeoutMs);

    size_t bodyBytesSent() const { return bodySent_; }

private:
    bool sendAll(const void* data, size_t length);
    bool readExact(void* dest, size_t length, int timeoutMs);
    bool flushBlock();

    int fd_ = -1;
    int timeoutMs_;
    const std::atomic<bool>* stopping_;
    std::vector<unsigned char> block_;
    size_t fill_ = 0;
    size_t bodySent_ = 0;
    int64_t lastUseMs_ = 0;
};

}  // namespace cmp_ipp_fe

#endif
