// End to end: the real listener on its own socket path, a front-end client that
// writes request blocks and body blocks and reads reply records.
#include <signal.h>

#include <functional>

#include "httpd/httpd_fixture.h"

namespace {

const int kPrintJob = 0x0002;
const int kGetJobs = 0x000A;
const int kGetPrinterAttributes = 0x000B;

using HttpdE2E = HttpdServer;

TEST_F(HttpdE2E, OversizedBlockIsASocketFailureAndCloses) {
    start();
    TraceCapture trace(0);
    Client c(m_path);
    ASSERT_TRUE(c.rawBytes(recordBytes(postRequest(40000))));
    const int32_t tooLong = 40000;
    ASSERT_TRUE(c.rawBytes(&tooLong, sizeof tooLong));
    const Reply r = c.rawReply();
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.status, PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE);
    EXPECT_EQ(r.contentLength, 0);
    EXPECT_TRUE(c.closedByPeer(2000));
    EXPECT_TRUE(trace.contains("[ERROR ]:cmp_ipp_http_ipp::httpGetMoreData(221): ahttpdSoread failed npLen[40000].\n"));
    EXPECT_EQ(handler.prepared.load(), 0) << "nothing reached the handler";
}

TEST_F(HttpdE2E, RefusedDataIsDrainedAnsweredAndClosedAfterAPause) {
    handler.refuseFromCall = 2;
    start();
    Client c(m_path);
    // Raw: one block a call, so that the refusal falls between blocks.
    ASSERT_TRUE(c.rawPost(ippRequest(kPrintJob, 5), 0));
    const Bytes doc(1000, 0x55);
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(c.rawBlock(doc));
    ASSERT_TRUE(c.rawBlock({}));
    const Reply r = c.rawReply();
    const auto replied = Clock::now();
    expectIppReply(r, 5);
    EXPECT_EQ(r.connection, AHTTPD_CONN_PAUSE_CLOSE) << "switched to pause-then-close";
    EXPECT_EQ(be32At(r.body, 0) & 0xFFFF, 0x0405u) << "the aborted stream's status";
    EXPECT_EQ(handler.dataCalls.load(), 2) << "nothing is passed on after the refusal";
    EXPECT_EQ(handler.aborted.load(), 1);
    EXPECT_EQ(handler.finished.load(), 1);
    EXPECT_TRUE(c.closedByPeer(3000));
    const int64_t pause = msSince(replied);
    EXPECT_GE(pause, 800);
    EXPECT_LE(pause, 2500);
}

// Refusals that end the connection after a record with the code (and its text, if any).
TEST_F(HttpdE2E, RefusalsCarryTheirCodeAndClose) {
    start();
    RelayRequest unsupported = getRequest();
    unsupported.method = 1;
    const struct {
        const char* what;
        std::function<void()> setUp;
        bool ipp;  // an IPP POST in the block's mode, or the block alone
        RelayRequest block;
        int32_t status;
        std::string body;
    } cases[] = {
        {"method", [] {}, false, unsupported, PRS_PRT_HTTP_RET_405_INVLD_MET, " 405 Method Not Allowed"},
        {"empty reply", [&] { handler.emptyReply = true; }, true, getRequest(0), PRS_PRT_HTTP_RET_401_ACCESS_DENIED,
         " 401 Access Denied"},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        k.setUp();
        Client c(m_path);
        ASSERT_TRUE(k.ipp ? sendIpp(c, ippRequest(kGetJobs, 2), k.block.connection) : c.sendRequest(k.block));
        const Reply r = c.readReply();
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.status, k.status);
        EXPECT_EQ(r.body, k.body);
        EXPECT_TRUE(c.closedByPeer(2000));
    }
}

TEST_F(HttpdE2E, SilentClientGetsTimeoutRecordAndIsClosed) {
    AHTTPD_setReceiveTimeout(1);
    start();
    TraceCapture trace(0);
    Client c(m_path);
    const auto t0 = Clock::now();
    const Reply r = c.rawReply(5000);
    ASSERT_TRUE(r.ok);
    const int64_t waited = msSince(t0);
    EXPECT_EQ(r.status, PRS_PRT_HTTP_RET_408_TIMEOUT);
    EXPECT_EQ(r.connection, AHTTPD_CONN_CLOSE) << "a block that never came counts as mode 1";
    EXPECT_EQ(r.contentLength, 0);
    EXPECT_GE(waited, 900);
    EXPECT_LE(waited, 3000);
    EXPECT_TRUE(c.closedByPeer(2000));
    EXPECT_TRUE(trace.contains("[ERROR ]:cmp_ipp_httptask::ahttpdSoread(1173): ahttpdSoread: TIMEOUT.\n"));
}

TEST(HttpdDefaults, ReceiveTimeoutAndKeepAliveAsDeployed) {
    EXPECT_EQ(AHTTPD_getReceiveTimeout(), 30);
    EXPECT_EQ(AHTTPD_getKeepAlivePasses(), 200);
}

// Mode 2 waits for the next request, modes other than 1, 2 and 4 read it at once;
// mode 1 closes after the reply. Without a next request, mode 2 closes after the
// keep-alive passes, mode 4 after a pause of about a second.
TEST_F(HttpdE2E, KeepAliveModesServeTheNextRequestOrCloseAfterTheirWait) {
    AHTTPD_setKeepAlivePasses(10);  // about 0.5 s
    start();
    Client c(m_path);
    ASSERT_TRUE(sendIpp(c, ippRequest(kGetJobs, 21), AHTTPD_CONN_KEEP_ALIVE));
    expectIppReply(c.readReply(), 21);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // a quiet keep-alive pass
    for (int32_t mode : {int32_t{AHTTPD_CONN_KEEP_ALIVE}, 0, 7, int32_t{AHTTPD_CONN_CLOSE}}) {
        ASSERT_TRUE(c.sendRequest(getRequest(mode)));
        const Reply page = c.readReply();
        ASSERT_TRUE(page.ok) << mode;
        EXPECT_EQ(page.connection, mode);
        EXPECT_EQ(page.body, HttpTestHandler::kPage);
        if (mode != AHTTPD_CONN_CLOSE) {
            EXPECT_EQ(getConnectionCount(), 1) << "one connection serves them all";
        }
    }
    EXPECT_EQ(handler.lastOperation.load(), kGetPrinterAttributes) << "a GET asks for the printer's attributes";
    EXPECT_TRUE(c.closedByPeer(2000)) << "mode 1 closes after the reply";
    const struct {
        int32_t mode;
        int openForMs;  // still open this long after the reply
        int closedAfterMs;
    } waits[] = {{AHTTPD_CONN_KEEP_ALIVE, 0, 400}, {AHTTPD_CONN_PAUSE_CLOSE, 700, 900}};
    for (const auto& k : waits) {
        SCOPED_TRACE(k.mode);
        Client idle(m_path);
        ASSERT_TRUE(idle.sendRequest(getRequest(k.mode)));
        ASSERT_TRUE(idle.readReply().ok);
        const auto t0 = Clock::now();
        EXPECT_FALSE(idle.closedByPeer(k.openForMs));
        EXPECT_TRUE(idle.closedByPeer(3000));
        EXPECT_GE(msSince(t0), k.closedAfterMs);
    }
}

// Three pieces are assembled; after ten receives the server answers with what came
// (the rest of the block is never sent at all, late pieces may meet a closed socket).
TEST_F(HttpdE2E, RequestBlockInPiecesIsAssembledUpToTenReceives) {
    start();
    const Bytes block = recordBytes(getRequest());
    const struct {
        std::vector<size_t> ends;
        int gapMs;
    } cases[] = {{{10, 20000, block.size()}, 50},
                 {{100, 200, 300, 400, 500, 600, 700, 800, 900, 1000, 1100, 1200, 1300, 1400}, 60}};
    for (const auto& k : cases) {
        SCOPED_TRACE(k.ends.size());
        Client c(m_path);
        size_t from = 0;
        for (size_t end : k.ends) {
            c.rawBytes(block.data() + from, end - from);
            from = end;
            std::this_thread::sleep_for(std::chrono::milliseconds(k.gapMs));
        }
        const Reply r = c.rawReply(3000);
        ASSERT_TRUE(r.ok);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.body, HttpTestHandler::kPage);
    }
}

// Every way a body can end on the socket. Only the end block finishes it; a
// close or half-close without one (at a block boundary or inside a block) is an
// abandoned upload: the stream is aborted and still ended, no block that
// arrived only in part reaches the handler, and no reply goes out.
TEST_F(HttpdE2E, EveryWayAnUploadCanEnd) {
    enum class End { EndBlock, CloseAtBoundary, HalfCloseAtBoundary, HalfCloseInBlock, CloseInBlock };
    const struct {
        const char* label;
        bool chunked;
        End end;
    } cases[] = {
        {"chunked, end block", true, End::EndBlock},
        {"content-length, end block", false, End::EndBlock},
        {"chunked, closed between blocks", true, End::CloseAtBoundary},
        {"chunked, half-closed between blocks", true, End::HalfCloseAtBoundary},
        {"chunked, half-closed inside a block", true, End::HalfCloseInBlock},
        {"chunked, closed inside a block", true, End::CloseInBlock},
        {"content-length, closed inside a block", false, End::CloseInBlock},
        {"content-length, half-closed inside a block", false, End::HalfCloseInBlock},
        {"content-length, all bytes but no end block", false, End::HalfCloseAtBoundary},
    };
    start();
    const Bytes doc(3000, 0x11);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const Bytes first = ippRequest(kPrintJob, 31);
        const int aborted = handler.aborted.load(), finished = handler.finished.load();
        const uint64_t bytes = handler.dataBytes.load();
        Client client(m_path);
        ASSERT_TRUE(client.rawPost(first, c.chunked ? 0 : static_cast<int32_t>(first.size() + doc.size()), c.chunked));
        ASSERT_TRUE(client.rawBlock(doc));
        if (c.end == End::HalfCloseInBlock || c.end == End::CloseInBlock) {
            const int32_t announced = 3000;
            ASSERT_TRUE(client.rawBytes(&announced, sizeof announced));
            ASSERT_TRUE(client.rawBytes(doc.data(), 1000));
        }
        switch (c.end) {
        case End::EndBlock: ASSERT_TRUE(client.rawBlock({})); break;
        case End::HalfCloseAtBoundary:
        case End::HalfCloseInBlock: ASSERT_EQ(shutdown(client.fd(), SHUT_WR), 0); break;
        case End::CloseAtBoundary:
        case End::CloseInBlock:
            // Wait until the whole block is in, so that the close comes after it.
            ASSERT_TRUE(settles([&] { return handler.dataBytes.load() - bytes == doc.size(); }, 3000));
            client.closeNow();
            break;
        }
        if (c.end == End::EndBlock) {
            expectIppReply(client.rawReply(), 31);
            EXPECT_EQ(handler.aborted.load(), aborted);
        } else {
            if (client.connected()) {
                EXPECT_FALSE(client.rawReply(3000).ok) << "closed without a reply";
            }
            EXPECT_TRUE(settles([&] { return handler.aborted.load() == aborted + 1; }, 3000)) << "stream aborted";
        }
        EXPECT_TRUE(settles([&] { return handler.finished.load() == finished + 1; }, 3000)) << "and ended";
        EXPECT_EQ(handler.dataBytes.load() - bytes, doc.size()) << "whole blocks only";
        EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 3000));
    }
}

// A block that trickles in over more receives than the spool read makes is
// still delivered whole, and the next length word is read where it belongs.
TEST_F(HttpdE2E, BlockInManyPiecesIsDeliveredWhole) {
    start();
    Client c(m_path);
    ASSERT_TRUE(c.rawPost(ippRequest(kPrintJob, 32), 0, true));
    const int32_t announced = 24 * 500;
    ASSERT_TRUE(c.rawBytes(&announced, sizeof announced));
    for (int i = 0; i < 24; ++i) {
        ASSERT_TRUE(c.rawBytes(Bytes(500, static_cast<unsigned char>(i))));
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(c.rawBlock(Bytes(100, 0x22)));
    ASSERT_TRUE(c.rawBlock({}));
    expectIppReply(c.rawReply(), 32);
    EXPECT_EQ(handler.dataCalls.load(), 2);
    EXPECT_EQ(handler.dataBytes.load(), 24u * 500u + 100u);
    EXPECT_EQ(handler.aborted.load(), 0);
}

// The front end goes away before its reply record, or during the reply body: the
// send fails with EPIPE and the process must survive. SIGPIPE keeps its default
// action (death) here on purpose, and the library must not have changed it.
TEST_F(HttpdE2E, PeerGoneBeforeOrDuringTheReplyDoesNotKillTheProcess) {
    struct sigaction before;
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &before), 0);
    ASSERT_EQ(before.sa_handler, SIG_DFL);
    handler.htmlBytes = 1 << 20;
    handler.holdFinish = true;
    start();
    {
        Client c(m_path);
        ASSERT_TRUE(c.sendRequest(getRequest()));
        ASSERT_TRUE(settles([&] { return handler.finished.load() == 1; }, 3000));
    }  // closed while the handler still builds the page
    handler.holdFinish = false;
    EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 3000));
    TraceCapture trace(2);
    {
        Client c(m_path);
        ASSERT_TRUE(c.sendRequest(getRequest()));
        std::vector<unsigned char> record(AHTTPD_RSP_RECORD_SIZE);
        ASSERT_TRUE(c.readExact(record.data(), record.size(), 5000));
    }  // the 1 MB body is still on its way
    EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 5000));
    EXPECT_TRUE(trace.contains("[INFO  ]:cmp_ipp_htmemdef::transmit_response_body_frees(88): errno["));
    struct sigaction after;
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, SIG_DFL) << "process-wide signal handling left alone";
    // Still serving, and a large body arrives whole.
    handler.htmlBytes = 300000;
    EXPECT_EQ(fetchPage(), std::string(300000, 'h'));
}

TEST_F(HttpdE2E, ThirtyThirdConnectionIsRefusedUntilOneEnds) {
    AHTTPD_setReceiveTimeout(20);
    start();
    TraceCapture trace(0);
    std::vector<std::unique_ptr<Client>> open;
    for (int i = 0; i < AHTTPD_MAX_CONNECTIONS; ++i) {
        open.emplace_back(new Client(m_path));
        ASSERT_TRUE(open.back()->connected());
    }
    ASSERT_TRUE(settles([] { return getConnectionCount() == AHTTPD_MAX_CONNECTIONS; }, 5000));
    Client extra(m_path);
    ASSERT_TRUE(extra.connected()) << "accepted by the listener";
    EXPECT_TRUE(extra.closedByPeer(3000)) << "and closed at once";
    EXPECT_TRUE(trace.contains(
        "cmp_ipp_httpmain: pn_httpd_main(349): HTTP has reached the max open connections.  Closing new request.\n"));
    EXPECT_EQ(getConnectionCount(), AHTTPD_MAX_CONNECTIONS);

    open.front()->closeNow();
    ASSERT_TRUE(settles([] { return getConnectionCount() == AHTTPD_MAX_CONNECTIONS - 1; }, 5000));
    EXPECT_EQ(fetchPage(), HttpTestHandler::kPage);
    open.clear();
    EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 5000));
}

// A stale file at the socket path is replaced; the socket is the owner's alone (or
// its group's, when configured) whatever the umask; a stop without connections
// returns promptly and removes the socket; the service starts and serves again.
TEST_F(HttpdE2E, SocketFileModeRestartAndStopWithoutConnections) {
    struct Restore {
        mode_t mask = umask(0);
        ~Restore() {
            umask(mask);
            pn_httpd_set_socket_group(-1);
        }
    } restore;
    FILE* f = fopen(m_path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    const struct {
        int32_t group;
        mode_t mode;
    } cases[] = {{-1, 0600}, {static_cast<int32_t>(getgid()), 0660}, {-1, 0600}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.group);
        EXPECT_EQ(pn_httpd_set_socket_group(c.group), 0);
        start();
        struct stat st;
        const auto isOurSocket = [&] {
            return stat(m_path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode) && (st.st_mode & 0777) == c.mode;
        };
        ASSERT_TRUE(settles(isOurSocket, 5000)) << std::oct << (st.st_mode & 0777);
        if (c.group >= 0) {
            EXPECT_EQ(st.st_gid, static_cast<gid_t>(c.group));
        }
        EXPECT_EQ(fetchPage(), HttpTestHandler::kPage);
        ASSERT_TRUE(settles([] { return getConnectionCount() == 0; }, 3000));
        const auto t0 = Clock::now();
        stop();  // checks that the socket file is gone
        EXPECT_LT(msSince(t0), 1000);
        EXPECT_EQ(g_pn_httpd_num_ports.load(), 0);
        EXPECT_EQ(g_pn_httpd_shutdown.load(), 0);
    }
}

TEST(HttpdSocketPath, FromTheEnvironment) {
    const struct {
        const char* env;
        const char* expected;
    } cases[] = {
        {nullptr, "/tmp/zyn_ipp_server"},
        {"/var/run/", "/var/run/zyn_ipp_server"},
        {"/var/run", "/var/runzyn_ipp_server"},
        {"", "zyn_ipp_server"},
    };
    char path[108];
    for (const auto& c : cases) {
        if (c.env == nullptr)
            unsetenv("GEN_UNIX_PATH");
        else
            setenv("GEN_UNIX_PATH", c.env, 1);
        pn_httpd_socket_path(path, sizeof path);
        EXPECT_STREQ(path, c.expected) << (c.env ? c.env : "(unset)");
    }
    // Too long for the address: cut, terminated, never beyond the field.
    setenv("GEN_UNIX_PATH", std::string(200, 'd').c_str(), 1);
    pn_httpd_socket_path(path, sizeof path);
    EXPECT_EQ(std::strlen(path), 107u);
    unsetenv("GEN_UNIX_PATH");
}

TEST_F(HttpdE2E, InitWithNullPrinterStillStartsTheListener) {
    cmp_ipp_manager::get()->unregisterPrinter(&printer.printer);  // ScopedPrinter restores it
    start(nullptr, &handler);
    Client c(m_path);
    ASSERT_TRUE(sendIpp(c, ippRequest(kGetJobs, 9)));
    const Reply r = c.readReply();
    ASSERT_TRUE(r.ok);
    ASSERT_GE(r.body.size(), 4u);
    EXPECT_NE(be32At(r.body, 0) & 0xFFFF, 0u) << "no printer: an error status";
    EXPECT_EQ(handler.processed.load(), 0);
    EXPECT_EQ(handler.prepared.load(), 1);
    EXPECT_EQ(IPPCGI_Enabled(), 1);
}

}  // namespace
