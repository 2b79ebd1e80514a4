// Stopping the service while requests are in flight: the stop cuts them short
// instead of waiting for them, and once the handler has been unregistered nothing
// calls into it any more. Named *Concurrency so that the thread-sanitizer run
// includes them.
#include <functional>

#include "httpd/httpd_fixture.h"

namespace {

const int kPrintJob = 0x0002;
// Far above what a stop takes (a few milliseconds): only a stop that waits for a
// request (seconds, up to the 30 s receive time-out) misses it.
const int kStopDeadlineMs = 5000;

class HttpdStopConcurrency : public HttpdServer {
protected:
    void SetUp() override {
        HttpdServer::SetUp();
        // The deployed time-out: a stop that waited for a receive would show.
        AHTTPD_setReceiveTimeout(30);
    }

    // Stops the service on a thread of its own. True when the stop returned
    // within the deadline; *tookMs is how long it took (reported, not asserted).
    // A stop that is late is still joined, after `unblock` has freed it.
    bool stopPromptly(int64_t* tookMs, const std::function<void()>& unblock = [] {}) {
        std::atomic<bool> done{false};
        const auto t0 = Clock::now();
        std::thread stopper([&] {
            stop();
            *tookMs = msSince(t0);
            done = true;
        });
        const bool prompt = settles([&] { return done.load(); }, kStopDeadlineMs);
        if (!prompt) unblock();
        stopper.join();
        return prompt;
    }
};

// A print job whose document stalls after its first block (chunked: in the
// middle of the second block; with a length: at a block boundary).
void stalledUpload(Client& c, bool chunked) {
    const Bytes ipp = ippRequest(kPrintJob, 31);
    const Bytes doc(1000, 0x5a);
    ASSERT_TRUE(c.rawPost(ipp, chunked ? 0 : static_cast<int32_t>(ipp.size() + 3 * doc.size()), chunked));
    ASSERT_TRUE(c.rawBlock(doc));
    if (chunked) {
        const int32_t announced = static_cast<int32_t>(doc.size());
        ASSERT_TRUE(c.rawBytes(&announced, sizeof announced));
        ASSERT_TRUE(c.rawBytes(doc.data(), 10));
    }
}

TEST_F(HttpdStopConcurrency, StopCutsShortEveryKindOfWaitingConnection) {
    struct Case {
        const char* what;
        std::function<void(Client&)> bringUp;
        std::function<bool()> ready;  // the connection has reached the state to stop in
        int aborted;                  // abortRequest calls the stop causes
    };
    const auto answered = [](int32_t mode) {
        return [mode](Client& c) {
            ASSERT_TRUE(c.sendRequest(getRequest(mode)));
            ASSERT_TRUE(c.readReply().ok);
        };
    };
    const Case cases[] = {
        {"idle keep-alive connection", answered(AHTTPD_CONN_KEEP_ALIVE), [] { return true; }, 0},
        {"connection pausing before its close", answered(AHTTPD_CONN_PAUSE_CLOSE), [] { return true; }, 0},
        {"connection that never sent its request block",
         [](Client& c) { ASSERT_TRUE(c.rawBytes(recordBytes(getRequest()).data(), 100)); },
         [] { return getConnectionCount() == 1; }, 0},
        {"upload with a length", [](Client& c) { stalledUpload(c, false); },
         [&] { return handler.dataCalls.load() == 1; }, 1},
        {"chunked upload", [](Client& c) { stalledUpload(c, true); }, [&] { return handler.dataCalls.load() == 1; },
         1},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        handler.dataCalls = 0;
        const int abortedBefore = handler.aborted.load();
        const int finishedBefore = handler.finished.load();
        start();
        Client c(m_path);
        k.bringUp(c);
        ASSERT_TRUE(settles(k.ready, 5000));

        int64_t took = -1;
        EXPECT_TRUE(stopPromptly(&took, [&] { c.closeNow(); }));
        std::printf("stop with an open %s: %lld ms\n", k.what, static_cast<long long>(took));
        EXPECT_TRUE(c.closedByPeer(2000)) << "the connection was shut down";
        EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 5000));
        EXPECT_EQ(handler.aborted.load() - abortedBefore, k.aborted) << "an interrupted upload is aborted";
        if (k.aborted != 0) {
            EXPECT_EQ(handler.finished.load() - finishedBefore, 1) << "and its stream still ended";
            EXPECT_EQ(handler.dataCalls.load(), 1) << "nothing after the stop reached the handler as data";
        }
    }
}

// Blocks inside processRequest until released and logs, on a clock shared with
// the test, when the call left.
class BlockingHandler : public HttpTestHandler {
public:
    explicit BlockingHandler(std::atomic<int>& clock) : m_clock(clock) {}
    void processRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override {
        entered = true;
        while (!release.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        HttpTestHandler::processRequest(ctx, printer);
        left = ++m_clock;
    }
    std::atomic<bool> entered{false};
    std::atomic<bool> release{false};
    std::atomic<int> left{0};

private:
    std::atomic<int>& m_clock;
};

TEST_F(HttpdStopConcurrency, StopReturnsWhileTheHandlerIsBusyAndUnregisterWaitsForIt) {
    std::atomic<int> clock{0};
    BlockingHandler* busy = new BlockingHandler(clock);
    start(&printer.printer, busy);
    Client c(m_path);
    ASSERT_TRUE(sendIpp(c, ippRequest(kPrintJob, 41), AHTTPD_CONN_KEEP_ALIVE));
    ASSERT_TRUE(settles([&] { return busy->entered.load(); }, 5000));

    int64_t took = -1;
    EXPECT_TRUE(stopPromptly(&took, [&] { busy->release = true; }));
    std::printf("stop with a request inside the handler: %lld ms\n", static_cast<long long>(took));
    EXPECT_EQ(busy->left.load(), 0) << "the stop did not wait for the handler";
    EXPECT_EQ(getConnectionCount(), 1) << "the request is still inside the handler";

    pn_ipp_stop(0, nullptr);
    std::atomic<int> unregistered{0};
    std::thread unregister([&] {
        cmp_ipp_manager::get()->unregisterHandler(busy);
        unregistered = ++clock;
    });
    EXPECT_TRUE(settles([] { return cmp_ipp_manager::get()->m_handler.load() == nullptr; }, 5000));
    // A wrong unregister would have returned by now; a right one cannot.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(unregistered.load(), 0) << "unregister waits while the handler is busy";
    busy->release = true;
    unregister.join();
    EXPECT_GT(unregistered.load(), busy->left.load()) << "unregister returned after the call left the handler";
    EXPECT_EQ(busy->processed.load(), 1);

    // Nothing may touch the handler from here on: the sanitizers catch any use.
    delete busy;
    EXPECT_FALSE(c.readReply(5000).ok) << "the connection was shut down before its reply";
    EXPECT_TRUE(c.closedByPeer(5000));
    EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 5000)) << "the late task ended on its own";
}

// Back-to-back stops and starts: a stop with nothing open returns before the
// listener has left, and the next start must neither be refused by the old
// listener's leaving nor lose its socket file to it.
TEST_F(HttpdStopConcurrency, RestartRightAfterAStopServesOnANewSocket) {
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(cmp_ipp_init_wrap(&printer.printer, &handler), 0);
        m_running = true;
        if (round % 2 == 0) {
            // Half the rounds stop before the listener has even bound its socket.
            ASSERT_TRUE(settles([&] { return access(m_path.c_str(), F_OK) == 0; }, 5000));
        }
        EXPECT_EQ(orvane::cmp_ipp_facade::cmp_ipp_get_instance()->cmp_ipp_term(), 0);
        m_running = false;
    }
    start();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(fetchPage(), HttpTestHandler::kPage) << "the socket file is the new listener's";
    }
}

}  // namespace
