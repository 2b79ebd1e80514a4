// The front end's side of the Unix-domain socket protocol: request records,
// body blocks and reply records, the mapping of HTTP header names onto the
// record's field tokens, and of the library's return codes onto HTTP statuses.
// Nothing here knows about the HTTP server, so it can be used and tested alone.
#ifndef CMP_IPP_RELAY_H
#define CMP_IPP_RELAY_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "cmp_ipp_page_block.h"

namespace cmp_ipp_fe {

struct RelayHeader {
    int32_t token;
    std::string value;
};

// What goes into one request record.
struct RelayRequest {
    int32_t method = 0;          // 0 GET, 2 POST
    int32_t keepAliveLevel = 0;
    int32_t connection = 1;      // 1 close, 2 keep-alive
    int32_t contentLength = 0;
    bool chunked = false;
    std::vector<RelayHeader> headers;  // at most 15 are sent
};

struct FreeDeleter {
    void operator()(unsigned char* p) const;
};

// One reply record and its body. The body is malloc'd so that it can be handed
// to the HTTP server without a copy.
struct RelayReply {
    int32_t status = 0;
    int32_t connection = 0;
    std::vector<RelayHeader> headers;
    std::unique_ptr<unsigned char, FreeDeleter> body;
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
std::vector<RelayHeader> selectHeaders(const std::vector<RelayHeader>& candidates);
// HTTP status for a reply record's status (0 is 200).
unsigned httpStatusFor(int32_t code);

// "/tmp/zyn_ipp_server", or the directory (ending in "/") followed by "zyn_ipp_server".
std::string socketPathIn(const char* dir);
// The library's own choice: $GEN_UNIX_PATH when set.
std::string defaultSocketPath();

// Writes the request record (the library's 30444-byte request block).
void encodeRequestRecord(const RelayRequest& req, unsigned char* out);
// What updateRequestRecord knows about a record it wrote before: how many
// header fields were used and how many text bytes each one holds.
struct RecordSlots {
    bool primed = false;  // false: the buffer's content is unknown
    int16_t used = 0;
    uint16_t length[15] = {};
};
// Turns the record in `out` (last written through the same `slots`) into the
// record of `req`: the bytes encodeRequestRecord would write, but only the
// fixed fields and the header fields are touched, not the whole 30444 bytes.
void updateRequestRecord(const RelayRequest& req, unsigned char* out, RecordSlots& slots);
size_t requestRecordSize();
size_t replyRecordSize();
// Reads a reply record; headers beyond the record's count are ignored.
void decodeReplyRecord(const unsigned char* in, RelayReply& out);

// Who may serve the library's socket: the socket's server must run as our own
// user, as root, or as one of these users. Anyone else could have put a socket
// of their own at the path and would receive clients' requests and credentials.
struct RelayTrust {
    std::vector<uid_t> uids;
    bool trusts(uid_t uid) const;
};

// One connection to the library's socket. Every wait is bounded by the time-out
// and ends early when *stopping becomes true, so a stuck library can neither
// hang an HTTP connection nor a shutdown.
//
// Connecting: a full listen backlog (EAGAIN), a socket not yet listening
// (ECONNREFUSED) or not yet there (ENOENT) is retried with a short back-off
// for up to connectRetryMs before the library counts as unreachable.
//
// Refused requests: the library closes a connection beyond its own limit at
// once, without reading it, and it closes kept connections it has idled out.
// The request then fails with EPIPE or ECONNRESET (data left unread) before any
// reply byte. As long as everything sent so far is still at hand (the request
// record and at most the first body block) it is sent again on a new
// connection, so a library that is up never turns into a failed request.
//
// An upload the HTTP client abandons ends with close() and no end block: the
// library sees the connection go in the middle of the body and aborts the
// stream instead of taking the document for complete.
class RelayConnection {
public:
    enum class Outcome { Ok, Unreachable, Untrusted, Failed };

    RelayConnection(int timeoutMs, const std::atomic<bool>* stopping, int connectRetryMs = 2000,
                     const RelayTrust* trust = nullptr);
    ~RelayConnection();
    RelayConnection(const RelayConnection&) = delete;
    RelayConnection& operator=(const RelayConnection&) = delete;

    Outcome connectTo(const std::string& path);
    // The server's user when connectTo answered untrusted.
    uid_t untrustedUid() const { return m_untrustedUid; }
    bool isOpen() const { return m_fd >= 0; }
    // The socket (-1 when closed), for a caller that watches it itself; tests
    // also write on it what a relay never sends.
    int fd() const { return m_fd; }
    // Usable for another request: open, used within idleLimitMs, and the library
    // has neither closed its end nor sent anything unasked.
    bool reusable(int64_t idleLimitMs) const;
    void close();

    // A GET's record goes at once. A POST's record waits for its body and
    // leaves with the first block (or with the end block when the whole body
    // fits one block: record, block and end in one send).
    bool sendRequest(const RelayRequest& req);
    // Body bytes are coalesced into full 32768-byte blocks before they go out.
    // When the library has had nothing from us for two seconds, what has come
    // goes out as a part block, so that a slow upload never leaves the library
    // waiting into its receive time-out (30 s) while the data is here.
    bool addBody(const unsigned char* data, size_t length);
    // Sends what is left and the end block.
    bool endBody();
    // True when the library has already answered (or closed) without waiting for the rest.
    bool replyWaiting();
    bool readReply(RelayReply& out, int timeoutMs);

    // Requests sent again after the library refused them (for tests and logs).
    unsigned replays() const { return m_replays; }

private:
    enum class SendResult { Sent, Refused, Failed };
    // Sends the parts whole (at most 4); refused: the library closed without
    // taking them and without a reply.
    SendResult sendRaw(const struct iovec* parts, int count);
    // As sendRaw, answering a refusal by a replay where possible.
    bool sendParts(const struct iovec* parts, int count);
    // Sends, in one go, the record if it has not gone yet, the block when
    // `block` and it holds bytes, and the end block when `end`.
    bool sendPending(bool block, bool end);
    // Receives into the parts until at least `minimum` bytes have come; *got
    // says how many (at most the parts' room). waitFirst: wait for the socket
    // to become readable before the first receive.
    bool readAtLeast(struct iovec* parts, int count, size_t minimum, size_t* got, int timeoutMs, bool waitFirst);
    bool flushBlock();
    // Reconnects and sends again what of the current request went out.
    bool replay();
    bool replayable() const {
        return m_replyBytes == 0 && (m_blocksSent == 0 || (m_blocksSent == 1 && m_blockIntact));
    }
    // After a failed send: nothing of a reply is waiting, so the library took nothing.
    bool noReplyWaiting();

    int m_fd = -1;
    int m_timeoutMs;
    const std::atomic<bool>* m_stopping;
    int m_connectRetryMs;
    const RelayTrust* m_trust;
    uid_t m_untrustedUid = 0;
    std::string m_path;
    PageBlock m_record;                  // the current request's record, kept for a replay
    RecordSlots m_slots;                 // what m_record holds from the request before
    size_t m_bodyRoom = 8192;             // reply body bytes taken with the record
    bool m_stray = false;                 // bytes came beyond a reply: not used again
    PageBlock m_block;  // taken at the first body byte
    size_t m_fill = 0;
    // Of the current request: blocks sent, whether m_block still holds the last
    // one, whether the end block went, and reply bytes read.
    unsigned m_blocksSent = 0;
    bool m_blockIntact = false;
    int32_t m_lastBlockLength = 0;
    bool m_endSent = false;
    bool m_recordSent = false;
    bool m_complete = false;  // nothing more of the request is to come
    size_t m_replyBytes = 0;
    unsigned m_replaysThisRequest = 0;
    int64_t m_replayDeadline = 0;  // 0: no refusal yet
    int m_replayBackoffMs = 0;
    bool m_refused = false;  // the library reset the connection with our data unread
    unsigned m_replays = 0;
    int64_t m_lastUseMs = 0;
    int64_t m_lastSentMs = 0;  // when the library last got bytes from us
};

}  // namespace cmp_ipp_fe

#endif
