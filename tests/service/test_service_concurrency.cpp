#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "httpd/httpd_fixture.h"  // settles (bounded waits) and the counting HttpTestHandler
#include "msg/msg_fixture.h"
#include "containers/cmp_ipp_malloc.h"
#include "service/recording_handler.h"

namespace {

// Counts what it sees (HttpTestHandler) and echoes the request-id as a job-id,
// so that a reply can be matched to the stream the handler was called for.
class EchoingHandler : public HttpTestHandler {
public:
    void processRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override {
        HttpTestHandler::processRequest(ctx, printer);
        ctx->m_response.cmp_ipp_msg_get_job_attrs(0)->cmp_ipp_attrs_set_attr(0x21, 16, ctx->m_request.m_requestId);
    }
};

TEST(ServiceConcurrency, ManyThreadsDriveStreamsAgainstOneHandler) {
    ScopedRegistry reg{messageTables()};
    ScopedPrinter printer;
    EchoingHandler handler;
    ScopedHandler registered(&handler);

    const int kThreads = 8, kStreams = 300;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &wrong] {
            cmp_ipp_if_info_s record{};
            const unsigned char data[512] = {0};
            for (int i = 0; i < kStreams; ++i) {
                const int32_t id = (t + 1) * 100000 + i;
                const Bytes m = ippRequest(0x0002, static_cast<uint32_t>(id));
                IPP_STREAM_HANDLE h = IPP_StreamDataStart(m.data(), static_cast<uint32_t>(m.size()), &record);
                if (h == nullptr) {
                    ++wrong;
                    continue;
                }
                for (int k = 0; k < 3; ++k) IPP_StreamData(h, data, sizeof data);
                if (i % 10 == 0) IPP_StreamDataAbort(h);
                int len = 0;
                unsigned char* reply = IPP_StreamDataEnd(h, 0, &len);
                const Bytes expectedId = Ipp::be32(id);
                // Header request-id, and the echoed job-id as the last value before the end tag.
                if (reply == nullptr || len < 9 || !std::equal(expectedId.begin(), expectedId.end(), reply + 4) ||
                    !std::equal(expectedId.begin(), expectedId.end(), reply + len - 5) ||
                    (reply[2] << 8 | reply[3]) != (i % 10 == 0 ? 0x0405 : 0))
                    ++wrong;
                cmp_ipp_free(reply);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(handler.prepared.load(), kThreads * kStreams);
    EXPECT_EQ(handler.finished.load(), kThreads * kStreams) << "every stream ended exactly once";
    EXPECT_EQ(handler.aborted.load(), kThreads * kStreams / 10);
    EXPECT_EQ(handler.dataBytes.load(), uint64_t{kThreads} * kStreams * 3 * 512);
}

// What a handler saw, kept outside it so that it can be read after the handler
// is gone.
struct Tracker {
    std::atomic<bool> gone{false};  // set once unregisterHandler has returned
    std::atomic<int> inside{0}, calls{0}, lateCalls{0};
};

class TrackedHandler : public cmp_ipp_handler {
public:
    explicit TrackedHandler(Tracker& t) : m_tracker(t) {}
    void processRequest(cmp_ipp_streamed_ctx*, void* printer) override { call(printer); }
    void abortRequest(cmp_ipp_streamed_ctx*, void* printer) override { call(printer); }
    void prepareRequest(cmp_ipp_streamed_ctx*, void* printer) override { call(printer); }
    uint32_t streamData(cmp_ipp_streamed_ctx*, const cmp_ipp_buf&, void* printer) override {
        call(printer);
        return 0;
    }
    cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t fmt,
                              void* printer) override {
        call(printer);
        if (fmt == cmp_ipp_manager::CMP_IPP_REPLY_FMT_HTML || ctx == nullptr) return cmp_ipp_buf("<p>page</p>", true);
        return ctx->m_response.cmp_ipp_msg_encode();
    }

private:
    void call(void* printer) {
        if (m_tracker.gone.load()) ++m_tracker.lateCalls;
        ++m_tracker.inside;
        ++m_tracker.calls;
        // Read the printer object the way a handler does, and give other threads
        // room to overlap with the unregister.
        if (printer != nullptr) (void)static_cast<cmp_ipp_obj*>(printer)->m_attrs.count();
        std::this_thread::yield();
        --m_tracker.inside;
    }
    Tracker& m_tracker;
};

// Handlers and printers are swapped out while eight threads drive streams and
// attribute pages: once the unregister calls return, the handler and the printer
// object are destroyed, and nothing may touch them (the sanitizers see any use);
// later requests get the answers of a service without handler or printer.
TEST(ServiceConcurrency, UnregisterUnderLoadWaitsForCallsThenNothingTouchesTheHandler) {
    ScopedRegistry reg{messageTables()};
    ScopedHandler none(nullptr);  // each round registers its own
    cmp_ipp_manager* m = cmp_ipp_manager::get();
    void* savedPrinter = m->m_printer;
    m->unregisterPrinter(savedPrinter);  // each round's printer puts this back when it goes

    const int kThreads = 8;
    const int kRounds = 3;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        Tracker tracker;
        TrackedHandler* handler = new TrackedHandler(tracker);
        ScopedPrinter* printer = new ScopedPrinter();
        IPP_Initialize(nullptr, handler);

        std::atomic<bool> quit{false};
        std::atomic<int> served{0}, unanswered{0}, wrong{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                cmp_ipp_if_info_s record{};
                const unsigned char data[64] = {0};
                for (int i = 0; !quit.load(); ++i) {
                    int len = 0;
                    if (i % 5 == t % 5) {
                        cmp_ipp_free(IPP_GetPrnAttrHtml(&len, &record));
                    } else {
                        const Bytes r = ippRequest(0x0002, static_cast<uint32_t>(i + 1));
                        IPP_STREAM_HANDLE h = IPP_StreamDataStart(r.data(), static_cast<uint32_t>(r.size()), &record);
                        if (h == nullptr) {
                            ++wrong;
                            continue;
                        }
                        const uint16_t status = IPP_StreamStatusCode(h);
                        const uint32_t accepted = IPP_StreamData(h, data, sizeof data);
                        if (i % 7 == 0) IPP_StreamDataAbort(h);
                        cmp_ipp_free(IPP_StreamDataEnd(h, 0, &len));
                        // With a handler: processed, accepted, answered. Without one
                        // (or without a printer): an error status, refused, no reply.
                        // A stream that saw the handler go has lost it for good: no
                        // reply once its data was refused.
                        if (status == 0 && accepted == 0 && len > 0) {
                            ++served;
                        } else if (status >= 0x0400 && accepted == 6 && len == 0) {
                            ++unanswered;
                        } else if (status != 0 || (accepted != 0 && accepted != 6) || (accepted == 6 && len > 0)) {
                            ++wrong;
                        }
                    }
                }
            });
        }
        ASSERT_TRUE(settles([&] { return served.load() >= 200; }, 20000));
        m->unregisterHandler(handler);
        tracker.gone = true;
        EXPECT_EQ(tracker.inside.load(), 0) << "unregister returned while a call was inside the handler";
        EXPECT_EQ(m->m_handler.load(), nullptr);
        delete handler;
        m->unregisterPrinter(&printer->printer);
        EXPECT_EQ(m->m_printer.load(), nullptr);
        delete printer;
        const int before = unanswered.load();
        ASSERT_TRUE(settles([&] { return unanswered.load() >= before + 200; }, 20000));
        quit = true;
        for (auto& th : threads) th.join();
        EXPECT_EQ(tracker.lateCalls.load(), 0) << "a call reached the handler after it was unregistered";
        EXPECT_EQ(wrong.load(), 0);
    }
    m->init(savedPrinter);
}

}  // namespace
