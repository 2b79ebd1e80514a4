// The HTTP server's pieces on their own: task layer, records and mappings, the
// receive primitive, spooling, sending and the error replies (over socket pairs).
#include <fcntl.h>
#include <sys/ioctl.h>
#include <pthread.h>

#include <memory>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_pic.h"
#include "httpd/httpd_fixture.h"

namespace {

// ---- task layer ---------------------------------------------------------------------

TEST(PicTables, BisectionOverThePolicyRanges) {
    PN_PIC_Init();
    // Linux: FIFO and RR range 1..99, OTHER 0..0.
    const struct {
        int level;
        int32_t value;
    } cases[] = {{0, 1}, {1, 7}, {3, 13}, {7, 25}, {10, 34}, {15, 50}, {23, 74}, {29, 92}, {30, 95}, {31, 99}};
    for (const auto& c : cases) {
        EXPECT_EQ(gPN_PIC_RR_Priorities[c.level], c.value) << "level " << c.level;
        EXPECT_EQ(gPN_PIC_FIFO_Priorities[c.level], c.value) << "level " << c.level;
    }
    for (int level = 0; level < PN_PIC_NUM_PRIORITIES; ++level) {
        EXPECT_EQ(gPN_PIC_OTHER_Priorities[level], 0) << level;
        if (level > 0) {
            EXPECT_GT(gPN_PIC_RR_Priorities[level], gPN_PIC_RR_Priorities[level - 1]) << level;
        }
    }
}

struct Gate {
    std::atomic<bool> entered{false}, open{false};
    int detachState = -1;
};

void gatedEntry(void* arg) {
    Gate* g = static_cast<Gate*>(arg);
    pthread_attr_t a;
    if (pthread_getattr_np(pthread_self(), &a) == 0) {
        pthread_attr_getdetachstate(&a, &g->detachState);
        pthread_attr_destroy(&a);
    }
    g->entered = true;
    while (!g->open) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

struct TaskView {
    bool found = false;
    int32_t priority = -1;
    pthread_t thread{};
};

TaskView findTask(const std::string& name) {
    TaskView v;
    sem_wait(&gPN_PIC_TaskInfoSem);
    for (PN_PIC_TaskInfo* t = gPN_PIC_TaskInfoList; t != nullptr; t = t->next) {
        if (name == t->name) {
            v.found = true;
            v.priority = t->priority;
            v.thread = t->threadId;
        }
    }
    sem_post(&gPN_PIC_TaskInfoSem);
    return v;
}

PN_PIC_TaskParam param(Gate* g, const char* name, int joinable = 0) {
    PN_PIC_TaskParam p;
    std::memset(&p, 0, sizeof p);
    p.priority = 10;
    p.policy = PN_PIC_SCHED_RR;
    p.joinable = joinable;
    p.entry = gatedEntry;
    p.arg = g;
    p.name = name;
    p.stackSize = 30720;
    return p;
}

// A long name is cut to 31 characters, a null one left empty; the record leaves the
// list when the entry returns, and a joinable task can be joined.
TEST(PicTasks, NamesDetachStateTheRecordsLifeAndFailures) {
    PN_PIC_Init();
    const std::string name40(40, 'n');
    const struct {
        const char* name;
        int joinable;
        std::string listed;
        int detachState;
    } cases[] = {
        {name40.c_str(), 0, name40.substr(0, 31), PTHREAD_CREATE_DETACHED},
        {nullptr, 1, "", PTHREAD_CREATE_JOINABLE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.joinable);
        const int32_t blocks = emwOSWTestOutstandingBlocks();
        Gate g;
        const PN_PIC_TaskParam p = param(&g, c.name, c.joinable);
        ASSERT_EQ(PN_PIC_ThreadCreateB(&p), 0);
        ASSERT_TRUE(settles([&] { return g.entered.load(); }, 3000));
        const TaskView v = findTask(c.listed);
        ASSERT_TRUE(v.found);
        EXPECT_EQ(v.priority, 10);
        EXPECT_EQ(g.detachState, c.detachState);
        g.open = true;
        if (c.joinable) {
            EXPECT_EQ(pthread_join(v.thread, nullptr), 0);
        }
        EXPECT_TRUE(settles([&] { return !findTask(c.listed).found; }, 3000));
        EXPECT_TRUE(settles([&] { return emwOSWTestOutstandingBlocks() == blocks; }, 3000));
    }
    // Failures leave nothing behind.
    const int32_t blocks = emwOSWTestOutstandingBlocks();
    Gate g;
    PN_PIC_TaskParam p = param(&g, "t");
    emwOSWTestFailNextAllocs(1);
    EXPECT_EQ(PN_PIC_ThreadCreateB(&p), -1);
    emwOSWTestFailNextAllocs(0);
    for (int32_t level : {-1, 32}) {
        p.priority = level;
        EXPECT_EQ(PN_PIC_ThreadCreateB(&p), -1) << "level " << level;
    }
    EXPECT_EQ(PN_PIC_ThreadCreateB(nullptr), -1);
    EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks);
    EXPECT_FALSE(g.entered.load());
}

// ---- records and mappings ----------------------------------------------------------

template <class T>
std::unique_ptr<T> zeroed() {
    std::unique_ptr<T> p(new T());
    std::memset(static_cast<void*>(p.get()), 0, sizeof(T));
    return p;
}

int32_t wordAt(const void* record, size_t offset) {
    int32_t v;
    std::memcpy(&v, static_cast<const unsigned char*>(record) + offset, sizeof v);
    return v;
}

TEST(HttpMappings, HeaderTokens) {
    const std::pair<int32_t, int32_t> cases[] = {{-1, 33}, {0, 0}, {21, 21}, {31, 31}, {32, 32}, {33, 33}, {1000, 33}};
    for (const auto& c : cases) EXPECT_EQ(convert_cmp2http_HeadFieldToken(c.first), c.second) << c.first;
}

TEST(HttpMappings, ReturnCodesBothWays) {
    const int32_t internal[] = {0,     -1983, -1982, -1981, -1980, -1979, -1978, -1976, -1975, -1974, -1973,
                                -1972, -1971, -1970, -1967, -1966, -1965, -1962, -1961, -1960, -1959, -1957};
    for (int32_t v = 0; v < 22; ++v) {
        EXPECT_EQ(convert_cmp2http_ReturnCodes(v), internal[v]) << v;
        EXPECT_EQ(convert_http2cmp_ReturnCodes(internal[v]), v) << internal[v];
    }
    for (int32_t v : {22, 100, -1}) EXPECT_EQ(convert_cmp2http_ReturnCodes(v), -1) << v;
    for (int32_t code : {-1948, -1985, -1968, 1, 12345}) EXPECT_EQ(convert_http2cmp_ReturnCodes(code), 17) << code;
}

TEST(HttpHeaders, ResponseTableLimits) {
    auto rsp = zeroed<ahttpdRspObj>();
    EXPECT_EQ(AHTTPD_setResponseHeader(rsp.get(), 33, "x"), PRS_PRT_HTTP_RET_FIELD_NOT_FOUND);
    const std::string fits(2023, 'a');
    const std::string tooLong(2024, 'b');
    EXPECT_EQ(AHTTPD_setResponseHeader(rsp.get(), 5, fits.c_str()), 0);
    EXPECT_EQ(rsp->headers[0].value, fits);
    EXPECT_EQ(AHTTPD_setResponseHeader(rsp.get(), 5, tooLong.c_str()), PRS_PRT_HTTP_RET_500_INTERNAL);
    EXPECT_EQ(rsp->numHeaders, 1);
    for (int i = 1; i < 15; ++i) EXPECT_EQ(AHTTPD_setResponseHeader(rsp.get(), i, "v"), 0) << i;
    EXPECT_EQ(rsp->numHeaders, 15);
    EXPECT_EQ(AHTTPD_setResponseHeader(rsp.get(), 1, "v"), PRS_PRT_HTTP_RET_HEADER_TABLE_FULL);
    EXPECT_EQ(rsp->headers[14].token, 14);
}

TEST(HttpHeaders, RequestFieldLookup) {
    auto req = zeroed<ahttpdReqObj>();
    req->numHeaders = 3;
    req->headers[0] = {2, "text/plain"};
    req->headers[1] = {9, ""};
    req->headers[2] = {2, "second"};
    std::vector<char> buf(AHTTPD_FIELD_TEXT_SIZE, 0);
    EXPECT_EQ(AHTTPD_getReqHeaderField(req.get(), 2, buf.data()), 0);
    EXPECT_STREQ(buf.data(), "text/plain") << "the first field with the token";
    EXPECT_EQ(AHTTPD_getReqHeaderField(req.get(), 9, buf.data()), PRS_PRT_HTTP_RET_FIELD_EMPTY);
    std::strcpy(buf.data(), "old");
    EXPECT_EQ(AHTTPD_getReqHeaderField(req.get(), 7, buf.data()), PRS_PRT_HTTP_RET_FIELD_NOT_FOUND);
    EXPECT_STREQ(buf.data(), "old");
    buf[0] = '\0';
    EXPECT_EQ(AHTTPD_getReqHeaderField(req.get(), 7, buf.data()), PRS_PRT_HTTP_RET_FIELD_EMPTY);
    req->numHeaders = 0;
    EXPECT_EQ(AHTTPD_getReqHeaderField(req.get(), 2, buf.data()), PRS_PRT_HTTP_RET_FIELD_EMPTY);

    // From the wire: a count beyond the table and a text without terminator.
    req->numHeaders = 1000;
    req->headers[14].token = 30;
    std::memset(req->headers[14].value, 'z', AHTTPD_FIELD_TEXT_SIZE);
    req->connectionId = 0x7a7a7a7a;  // what follows the table, also not a terminator
    EXPECT_EQ(AHTTPD_getReqHeaderField(req.get(), 30, buf.data()), 0);
    EXPECT_EQ(std::strlen(buf.data()), 2023u) << "cut to fit the field-sized buffer";
    EXPECT_EQ(AHTTPD_getReqHeaderField(req.get(), 31, buf.data()), PRS_PRT_HTTP_RET_FIELD_NOT_FOUND);
}

struct InfoRig {
    InfoRig() : req(zeroed<ahttpdReqObj>()), rsp(zeroed<ahttpdRspObj>()) {
        req->rspObj = rsp.get();
        rsp->reqObj = req.get();
        std::memset(&info, 0, sizeof info);
        info.ctx = req.get();
    }
    void field(int32_t token, const std::string& text) {
        ahttpdHeaderField& f = req->headers[req->numHeaders++];
        f.token = token;
        std::strncpy(f.value, text.c_str(), sizeof f.value - 1);
    }
    std::unique_ptr<ahttpdReqObj> req;
    std::unique_ptr<ahttpdRspObj> rsp;
    cmp_ipp_if_info_s info;
};

TEST(HttpAccessors, HeaderFieldsWithBasicCredentialsDecoded) {
    const int kAuth = CMP_IPP_IF_HDR_AUTHORIZATION;
    std::string decoded252;  // what 336 'Q' decode to
    for (int i = 0; i < 84; ++i) decoded252 += "A\x04\x10";
    const struct {
        int token;
        std::string text;  // empty: no such field
        int result;
        std::string seen;
    } cases[] = {
        {kAuth, "Basic dXNlcjpwYXNz", 1, "Basic user:pass"},
        {kAuth, "Basic QQ==", 1, "Basic A"},
        {kAuth, "Basic QUI=", 1, "Basic AB"},
        {kAuth, "Basic QUJD", 1, "Basic ABC"},
        {kAuth, "Basic  \tdXNlcjpwYXNz extra", 1, "Basic user:pass"},  // blanks before, the run ends at one
        {CMP_IPP_IF_HDR_HOST, "printer.local", 1, "printer.local"},
        {CMP_IPP_IF_HDR_COOKIE, "", 0, ""},
        {33, "", 0, ""},
        {kAuth, "Bearer abc.def", 1, "Bearer abc.def"},
        {kAuth, "Basic", 1, "Basic"},                            // nothing to decode
        {kAuth, "Basic ", 1, "Basic "},
        {kAuth, "basic dXNlcjpwYXNz", 1, "basic dXNlcjpwYXNz"},  // case-sensitive
        {kAuth, "Basic " + std::string(400, 'Q'), 0, ""},         // decodes to more than 254 bytes
        {kAuth, "Basic " + std::string(336, 'Q'), 1, "Basic " + decoded252},  // 252 bytes: accepted
    };
    std::vector<char> buf(AHTTPD_FIELD_TEXT_SIZE, 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 20));
        InfoRig r;
        if (!c.text.empty()) r.field(c.token, c.text);
        std::fill(buf.begin(), buf.end(), 0);
        EXPECT_EQ(getHttpData(&r.info, static_cast<CMP_IPP_IF_HEADER_FC_FIELD_TOKENS>(c.token), buf.data()), c.result);
        if (c.result == 1) {
            EXPECT_EQ(std::string(buf.data()), c.seen);
        }
    }
    // Credentials longer than the buffer: the length is reported in full, nothing is written beyond.
    const std::string many(400, 'A');
    std::vector<unsigned char> guarded(20, 0xEE);
    EXPECT_EQ(ahttpdDecode(many.c_str(), guarded.data(), 10), 300);
    for (size_t i = 10; i < guarded.size(); ++i) EXPECT_EQ(guarded[i], 0xEE) << i;
    InfoRig r;
    char text[] = "realm";
    EXPECT_EQ(setHttpData(&r.info, CMP_IPP_IF_HDR_WWW_AUTHENTICATE, text), 1);
    EXPECT_EQ(r.rsp->numHeaders, 1);
    EXPECT_EQ(setHttpData(&r.info, static_cast<CMP_IPP_IF_HEADER_FC_FIELD_TOKENS>(33), text), 0);
    EXPECT_EQ(r.rsp->numHeaders, 1);
}

TEST(HttpAccessors, ReplyCodes) {
    InfoRig r;
    int out = -1;
    EXPECT_EQ(getHttpReturnCode(&r.info, &out), 1);
    EXPECT_EQ(out, 0) << "nothing set";
    EXPECT_EQ(setHttpReturnCode(&r.info, CMP_IPP_IF_RC_UNAUTHORIZED), 1);
    EXPECT_EQ(r.rsp->status, -1975);
    EXPECT_EQ(setHttpReturnCode(&r.info, static_cast<CMP_IPP_IF_RETURN_CODES>(22)), 0);
    EXPECT_EQ(r.rsp->status, -1975) << "unchanged";
    EXPECT_EQ(setHttpReturnCode(&r.info, CMP_IPP_IF_RC_REQUEST_TIMEOUT), 1);
    EXPECT_EQ(getHttpReturnCode(&r.info, &out), 1);
    EXPECT_EQ(out, 13);
    EXPECT_EQ(ahttpdCheckCloseConnection(r.req.get()), 0);
    r.req->returnCode = PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE;
    EXPECT_EQ(getHttpReturnCode(&r.info, &out), 1);
    EXPECT_EQ(out, 17) << "the request's code wins and has no mapping";
    EXPECT_EQ(ahttpdCheckCloseConnection(r.req.get()), 1) << "only a socket failure closes at once";
}

// ---- receiving, spooling and sending over socket pairs ------------------------------

// A connection task's records on one end of a socket pair; the test is the front end.
struct Pair : InfoRig {
    explicit Pair(int type = SOCK_STREAM) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, type, 0, fds), 0);
        server = fds[0];
        peer = fds[1];
        req->sock = static_cast<int16_t>(server);
        req->connection = AHTTPD_CONN_CLOSE;
        rsp->sock = static_cast<int16_t>(server);
    }
    ~Pair() {
        if (req->messageBody != nullptr) ahttpdFreeMemory(req.get());
        if (req->sock > 0) close(req->sock);
        if (peer >= 0) close(peer);
    }
    bool serverOpen() const { return fcntl(server, F_GETFD) != -1; }
    void closePeer() {
        close(peer);
        peer = -1;
    }
    // Send and receive buffers far smaller than a reply record.
    void smallBuffers() {
        const int small = 4096;
        setsockopt(server, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        setsockopt(peer, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    }
    // A reply body of the library's own, released by the body sender.
    void ownedBody(int32_t length, unsigned char fill) {
        rsp->body = static_cast<unsigned char*>(cmp_ipp_malloc(static_cast<uint32_t>(length)));
        std::memset(rsp->body, fill, static_cast<size_t>(length));
        rsp->bodyLength = length;
        rsp->bodyOwned = 1;
        rsp->sendBody = transmit_response_body_frees;
    }
    ssize_t peerRecv(void* b, size_t n, int timeoutMs = 3000) {
        struct pollfd p = {peer, POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0) return -2;
        return recv(peer, b, n, 0);
    }
    // The peer blocks: a stream send returns once all of it is in (or fails).
    bool peerSendAll(const void* data, size_t n) { return send(peer, data, n, MSG_NOSIGNAL) == ssize_t(n); }
    // n bytes from the peer's side, or fewer if it ends first.
    std::string peerRead(size_t n) {
        std::string out;
        char buf[4096];
        while (out.size() < n) {
            const ssize_t k = peerRecv(buf, std::min(sizeof buf, n - out.size()));
            if (k <= 0) break;
            out.append(buf, static_cast<size_t>(k));
        }
        return out;
    }
    int server = -1;
    int peer = -1;
};

// A zero-byte receive is the front end gone, also while a chunked body is being
// spooled: only the end block finishes a body. An errno of ENOENT left over
// from an earlier call must not turn the close into an end of data.
TEST(HttpReceive, ZeroByteReceiveIsThePeerGoneEvenWithAStaleErrno) {
    const struct {
        int32_t chunked;
        int16_t spooling;
        int staleErrno;
    } cases[] = {
        {1, 1, ENOENT}, {1, 1, 0}, {0, 1, ENOENT}, {1, 0, ENOENT}, {0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "chunked " << c.chunked << " spooling " << c.spooling << " errno "
                                        << c.staleErrno);
        Pair p;
        p.req->chunked = c.chunked;
        p.req->spooling = c.spooling;
        ASSERT_EQ(shutdown(p.peer, SHUT_WR), 0);
        unsigned char dest[4];
        unsigned char pushback = 0;
        errno = c.staleErrno;
        EXPECT_EQ(ahttpdSoread(p.req.get(), p.req->sock, dest, 4, &pushback, 5), PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE);
        EXPECT_FALSE(p.serverOpen());
        EXPECT_EQ(p.req->sock, 0);
        EXPECT_EQ(p.rsp->sock, 0) << "the reply side forgets it too";
        EXPECT_EQ(ahttpdTransmitResponseHeader(p.rsp.get()), PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE) << "no send on it";
    }
}

// A request block that stops short (here: the front end gone) reads as a fresh
// block beyond what arrived: zero, with the connection mode 1, whatever the
// previous request left in the record.
TEST(HttpReceive, RequestBlockCutShortReadsAsAFreshBlockBeyondWhatArrived) {
    const size_t modeAt = offsetof(ahttpdReqObj, connection);
    for (const size_t sent : {size_t{0}, size_t{6}, size_t{8}, size_t{10}, size_t{100}, size_t{30000}}) {
        SCOPED_TRACE(sent);
        Pair p;
        unsigned char* block = reinterpret_cast<unsigned char*>(p.req.get());
        std::memset(block, 0xAB, AHTTPD_REQ_BLOCK_SIZE);  // the previous request's fields
        std::string bytes(sent, '\0');
        for (size_t i = 0; i < sent; ++i) bytes[i] = static_cast<char>(0x10 + i % 200);
        std::thread writer([&] {
            if (sent > 0) {
                EXPECT_TRUE(p.peerSendAll(bytes.data(), sent));
            }
            p.closePeer();
        });
        EXPECT_EQ(AHTTPD_requestHandler(p.req.get(), p.rsp.get()), PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE);
        writer.join();
        std::vector<unsigned char> expected(AHTTPD_REQ_BLOCK_SIZE, 0);
        std::memcpy(expected.data(), bytes.data(), sent);
        const int32_t mode = AHTTPD_CONN_CLOSE;
        for (size_t i = std::max(sent, modeAt); i < modeAt + sizeof mode; ++i)
            expected[i] = reinterpret_cast<const unsigned char*>(&mode)[i - modeAt];
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), block));
    }
}

// Bad calls are refused; the spool block of a connection stays with it from
// request to request, and bytes past those received still read as zero: what
// earlier blocks left is cleared, however they were written.
TEST(HttpSpool, ConnectionKeepsItsBlockAndBytesPastTheReceivedOnesReadAsZero) {
    Pair p;
    int32_t got = -1;
    EXPECT_EQ(AHTTPD_getSpooledData(p.req.get(), 10, &got, 10), PRS_PRT_HTTP_RET_BAD_SPOOL_LENGTH)
        << "no spool size yet";
    const int32_t blocks = emwOSWTestOutstandingBlocks();
    ahttpdConnectionBegin(p.req->sock);
    auto allZeroFrom = [&](size_t from) {
        for (size_t i = from; i < static_cast<size_t>(AHTTPD_SPOOL_SIZE); ++i)
            if (p.req->messageBody[i] != 0) return false;
        return true;
    };
    ASSERT_EQ(AHTTPD_spoolPostedData(p.req.get(), AHTTPD_SPOOL_SIZE), 0);
    EXPECT_EQ(p.req->spooling, 1);
    EXPECT_EQ(AHTTPD_getSpooledData(p.req.get(), AHTTPD_SPOOL_SIZE + 1, &got, 10), PRS_PRT_HTTP_RET_BAD_SPOOL_LENGTH);
    EXPECT_EQ(got, 0);
    EXPECT_EQ(AHTTPD_getSpooledData(p.req.get(), 0, &got, 10), PRS_PRT_HTTP_RET_BAD_SPOOL_LENGTH);
    unsigned char* const spool = p.req->messageBody;
    // A block that comes in three pieces is assembled.
    std::thread writer([&] {
        for (char c : {'a', 'b', 'c'}) {
            EXPECT_TRUE(p.peerSendAll(std::string(1000, c).data(), 1000));
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
        }
    });
    EXPECT_EQ(AHTTPD_getSpooledData(p.req.get(), 3000, &got, 10), 0);
    writer.join();
    EXPECT_EQ(got, 3000);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(spool), 3000),
              std::string(1000, 'a') + std::string(1000, 'b') + std::string(1000, 'c'));
    EXPECT_TRUE(allZeroFrom(3000)) << "fresh memory is cleared past the block";
    AHTTPD_closeSpooling(p.req.get());
    EXPECT_EQ(p.req->spooling, 0);
    EXPECT_EQ(p.req->messageBody, nullptr);
    EXPECT_EQ(AHTTPD_getSpooledData(p.req.get(), 10, &got, 10), PRS_PRT_HTTP_RET_NOT_SPOOLING);
    EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks + 1) << "kept for the next request";

    ASSERT_EQ(AHTTPD_spoolPostedData(p.req.get(), AHTTPD_SPOOL_SIZE), 0);
    EXPECT_EQ(p.req->messageBody, spool) << "no new allocation";
    EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks + 1);
    ASSERT_TRUE(p.peerSendAll(std::string(150, 'y').data(), 150));
    EXPECT_EQ(AHTTPD_getSpooledData(p.req.get(), 150, &got, 10), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(spool), 150), std::string(150, 'y'));
    EXPECT_TRUE(allZeroFrom(150)) << "the earlier block's bytes are gone";

    // A block that stops short of its length is read on by the caller into the
    // same buffer (as httpGetMoreData does); the next block still reads clean.
    ASSERT_TRUE(p.peerSendAll(std::string(300, 'z').data(), 300));
    EXPECT_EQ(AHTTPD_getSpooledData(p.req.get(), 1000, &got, 1), 0);
    EXPECT_EQ(got, 300);
    EXPECT_TRUE(allZeroFrom(300));
    std::memset(spool + 300, 'r', 700);
    ASSERT_TRUE(p.peerSendAll(std::string(10, 'w').data(), 10));
    EXPECT_EQ(AHTTPD_getSpooledData(p.req.get(), 10, &got, 10), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(spool), 10), std::string(10, 'w'));
    EXPECT_TRUE(allZeroFrom(10));

    // The end of the connection releases it.
    AHTTPD_closeSpooling(p.req.get());
    ahttpdConnectionEnd();
    EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks);
}

// The keep-alive wait tells a request from a peer that has gone, however the
// two come together. A connection that is busy keeps its spool block through
// the wait; one that stays quiet for a whole pass gives it back.
TEST(HttpKeepAlive, RequestWaitingOrPeerGoneAndTheSpoolBlockOfAnIdleConnection) {
    const int32_t savedPasses = AHTTPD_getKeepAlivePasses();
    AHTTPD_setKeepAlivePasses(10);
    const struct {
        const char* what;
        int requestAfterMs;  // -1: none
        int how;             // 0 leave open, 1 shut down its sending side, 2 close
        bool waits;
        bool keepsBlock;
    } cases[] = {
        {"request waiting", 0, 0, true, true},
        {"request after a quiet pass", 150, 0, true, false},
        {"request, then the sending side shut", 0, 1, true, true},
        {"sending side shut", -1, 1, false, false},
        {"closed", -1, 2, false, false},
        {"nothing comes", -1, 0, false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Pair p;
        const int32_t blocks = emwOSWTestOutstandingBlocks();
        ahttpdConnectionBegin(p.req->sock);
        ASSERT_EQ(AHTTPD_spoolPostedData(p.req.get(), AHTTPD_SPOOL_SIZE), 0);
        AHTTPD_closeSpooling(p.req.get());
        std::thread next([&] {
            if (c.requestAfterMs < 0) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(c.requestAfterMs));
            EXPECT_TRUE(p.peerSendAll("r", 1));
        });
        if (c.requestAfterMs == 0) next.join();
        if (c.how == 1) shutdown(p.peer, SHUT_WR);
        if (c.how == 2) p.closePeer();
        ahttpdKeepAliveListener(p.rsp.get());
        if (next.joinable()) next.join();
        if (c.waits) {
            EXPECT_EQ(p.req->returnCode, PRS_PRT_HTTP_RET_KEEP_ALIVE);
            EXPECT_TRUE(p.serverOpen());
            EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks + (c.keepsBlock ? 1 : 0));
        } else {
            EXPECT_EQ(p.req->returnCode, PRS_PRT_HTTP_RET_CONN_CLOSED);
            EXPECT_EQ(p.req->sock, 0);
            EXPECT_FALSE(p.serverOpen());
        }
        ahttpdConnectionEnd();
        EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks);
    }
    AHTTPD_setKeepAlivePasses(savedPasses);
}

// On a packet socket every send keeps its boundaries: the body sender sends
// pieces of 2048 bytes (non-blocking from the first body on), and a body that
// is not one of the body senders' leaves the record to go alone.
TEST(HttpSend, BodyInPiecesOf2048AndAForeignBodyNotWithTheRecord) {
    Pair p(SOCK_SEQPACKET);
    std::vector<unsigned char> body(5000);
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<unsigned char>(i);
    p.rsp->body = body.data();
    p.rsp->bodyLength = 5000;
    EXPECT_EQ(transmit_response_body(p.rsp.get()), 0);
    std::vector<size_t> sizes;
    std::vector<unsigned char> all;
    std::vector<unsigned char> buf(AHTTPD_RSP_RECORD_SIZE + 100);
    for (int i = 0; i < 3; ++i) {
        const ssize_t n = p.peerRecv(buf.data(), buf.size());
        ASSERT_GT(n, 0);
        sizes.push_back(static_cast<size_t>(n));
        all.insert(all.end(), buf.begin(), buf.begin() + n);
    }
    EXPECT_EQ(sizes, (std::vector<size_t>{2048, 2048, 904}));
    EXPECT_EQ(all, body);
    EXPECT_NE(fcntl(p.server, F_GETFL) & O_NONBLOCK, 0);

    p.rsp->sendBody = nullptr;
    EXPECT_EQ(ahttpdTransmitReply(p.rsp.get()), 0);
    EXPECT_EQ(p.peerRecv(buf.data(), buf.size()), AHTTPD_RSP_RECORD_SIZE);
    EXPECT_EQ(p.peerRecv(buf.data(), buf.size(), 50), -2);
    p.rsp->body = nullptr;
}

// Whatever the socket takes at a time (a send buffer far smaller than the reply,
// a reader that lags, a socket that does not block, as a kept connection's is
// after its first body), the front end receives the record and then the body,
// byte for byte, and nothing twice: the body sender that follows only reports.
// Without a body the record goes alone, and is completed all the same.
TEST(HttpReplySend, RecordAndBodyLeaveTogetherThroughASlowReader) {
    for (const int32_t length : {0, 1, 2048, 5000, 140000}) {
        SCOPED_TRACE(length);
        Pair p;
        p.smallBuffers();
        int on = 1;
        ioctl(p.server, FIONBIO, &on);
        const int32_t blocks = emwOSWTestOutstandingBlocks();
        p.req->returnCode = 0;
        p.req->connection = AHTTPD_CONN_KEEP_ALIVE;
        ASSERT_EQ(AHTTPD_setResponseHeader(p.rsp.get(), 5, "application/ipp"), 0);
        p.ownedBody(length, 0);
        std::string body(static_cast<size_t>(length), '\0');
        for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7 + i / 256);
        std::memcpy(p.rsp->body, body.data(), body.size());
        std::string received;
        std::thread reader([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            char buf[3000];
            while (received.size() < static_cast<size_t>(AHTTPD_RSP_RECORD_SIZE + length)) {
                const ssize_t n = p.peerRecv(buf, sizeof buf);
                if (n <= 0) break;
                received.append(buf, static_cast<size_t>(n));
                std::this_thread::sleep_for(std::chrono::microseconds(300));
            }
        });
        EXPECT_EQ(ahttpdTransmitReply(p.rsp.get()), 0);
        EXPECT_EQ(p.rsp->headerSent, 1);
        EXPECT_EQ(p.rsp->numHeaders, 0);
        EXPECT_EQ(p.rsp->sendBody(p.rsp.get()), 0);
        reader.join();
        EXPECT_EQ(p.rsp->body, nullptr) << "released once sent";
        EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks);
        ASSERT_EQ(received.size(), static_cast<size_t>(AHTTPD_RSP_RECORD_SIZE + length));
        EXPECT_EQ(wordAt(received.data(), 0), 0);
        EXPECT_EQ(wordAt(received.data(), 4), AHTTPD_CONN_KEEP_ALIVE);
        EXPECT_EQ(wordAt(received.data(), 8), length);
        int16_t count;
        std::memcpy(&count, received.data() + 12, sizeof count);
        EXPECT_EQ(count, 1) << "the header count as it was when sent";
        EXPECT_EQ(wordAt(received.data(), 16), 5);
        EXPECT_EQ(received.substr(AHTTPD_RSP_RECORD_SIZE), body);
        unsigned char extra;
        EXPECT_EQ(p.peerRecv(&extra, 1, 50), -2) << "nothing sent twice";
    }
}

// The two steps keep their own failures: a record that could not go is a
// header failure (the body untouched, no trace); a body cut off by a peer that
// left after the record gives the body sender's traces and result.
TEST(HttpReplySend, FailuresOfTheRecordAndOfTheBodyStayApart) {
    {
        Pair p;
        p.closePeer();
        TraceCapture trace(2);
        p.ownedBody(3000, 'x');
        EXPECT_EQ(ahttpdTransmitReply(p.rsp.get()), PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE);
        EXPECT_EQ(p.rsp->headerSent, 0);
        EXPECT_NE(p.rsp->body, nullptr) << "left to the error reply";
        EXPECT_TRUE(trace.lines().empty());
        cmp_ipp_free(p.rsp->body);
        p.rsp->body = nullptr;
    }
    Pair p;
    TraceCapture trace(2);
    p.ownedBody(1 << 20, 'y');
    std::thread reader([&] {
        EXPECT_EQ(p.peerRead(AHTTPD_RSP_RECORD_SIZE).size(), static_cast<size_t>(AHTTPD_RSP_RECORD_SIZE));
        p.closePeer();
    });
    EXPECT_EQ(ahttpdTransmitReply(p.rsp.get()), 0) << "the record went";
    reader.join();
    EXPECT_EQ(p.rsp->headerSent, 1);
    EXPECT_EQ(p.rsp->sendBody(p.rsp.get()), PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE);
    EXPECT_EQ(p.rsp->body, nullptr);
    EXPECT_EQ(trace.lines(), (std::vector<std::string>{
                  "[ERROR ]:cmp_ipp_httptask::AHTTPD_sendData(1398): PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE.\n",
                  "[INFO  ]:cmp_ipp_htmemdef::transmit_response_body_frees(88): errno[0x20].\n"}));
}

// ---- error replies --------------------------------------------------------------------

// The record with the code's text, if it has one; then the connection is closed
// after a short pause, kept (401), or waits for the next request (a redirect
// with keep-alive).
TEST(HttpErrorReply, TextThenCloseKeepOrWaitByCode) {
    enum class After { Closes, Keeps, Waits };
    const struct {
        int32_t code;
        int32_t keepAliveLevel;
        std::string text;  // empty: the record alone
        After after;
    } cases[] = {
        {PRS_PRT_HTTP_RET_408_TIMEOUT, 0, " 408 Request Time-Out", After::Closes},
        {PRS_PRT_HTTP_RET_IPP_DISABLED, 0, "", After::Closes},
        {PRS_PRT_HTTP_RET_401_UNAUTHORIZED, 0, " 401 Unauthorized Access", After::Keeps},
        {PRS_PRT_HTTP_RET_500_INTERNAL, 0, " 500 Internal Sever Error", After::Closes},
        {PRS_PRT_HTTP_RET_REDIRECT, 0, "", After::Closes},
        {PRS_PRT_HTTP_RET_REDIRECT, 2, "", After::Waits},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.code << " keep-alive level " << c.keepAliveLevel);
        Pair p;
        p.req->returnCode = c.code;
        p.req->keepAliveLevel = c.keepAliveLevel;
        if (c.after == After::Waits) {
            ASSERT_TRUE(p.peerSendAll("x", 1));  // the next request
        }
        const auto t0 = Clock::now();
        ahttpdErrorResponseHandler(p.rsp.get());
        const int64_t took = msSince(t0);
        const std::string rec = p.peerRead(AHTTPD_RSP_RECORD_SIZE);
        ASSERT_EQ(rec.size(), static_cast<size_t>(AHTTPD_RSP_RECORD_SIZE));
        EXPECT_EQ(wordAt(rec.data(), 0), c.code);
        ASSERT_EQ(wordAt(rec.data(), 8), static_cast<int32_t>(c.text.size()));
        EXPECT_EQ(p.peerRead(c.text.size()), c.text);
        EXPECT_EQ(p.rsp->body, nullptr);
        if (c.after == After::Closes) {
            EXPECT_GE(took, 45) << "a short pause before closing";
            EXPECT_EQ(p.req->returnCode, PRS_PRT_HTTP_RET_CONN_CLOSED);
            EXPECT_EQ(p.req->sock, 0);
            unsigned char b;
            EXPECT_EQ(p.peerRecv(&b, 1), 0) << "closed";
        } else {
            EXPECT_EQ(c.after == After::Keeps ? p.rsp->returnCode : p.req->returnCode,
                      c.after == After::Keeps ? PRS_PRT_HTTP_RET_401_UNAUTHORIZED : PRS_PRT_HTTP_RET_KEEP_ALIVE);
            EXPECT_TRUE(p.serverOpen());
        }
    }
}

}  // namespace
