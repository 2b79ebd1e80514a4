#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "../msg/msg_fixture.h"
#include "containers/cmp_ipp_malloc.h"
#include "service/cmp_ipp_handler.h"
#include "service/cmp_ipp_ippc.h"

namespace {

// Answers every request with its encoded response and counts what it sees.
class CountingHandler : public cmp_ipp_handler {
public:
    void processRequest(cmp_ipp_streamed_ctx* ctx, void*) override {
        ++processed;
        // Echo the request's first operation attribute count as a job-id, so
        // a reply can be matched to its request.
        ctx->m_response.cmp_ipp_msg_get_job_attrs(0)->cmp_ipp_attrs_set_attr(0x21, 16, ctx->m_request.m_requestId);
    }
    void abortRequest(cmp_ipp_streamed_ctx*, void*) override { ++aborted; }
    void prepareRequest(cmp_ipp_streamed_ctx*, void*) override { ++prepared; }
    uint32_t streamData(cmp_ipp_streamed_ctx*, const cmp_ipp_buf& data, void*) override {
        bytes += data.length();
        return 0;
    }
    cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t, void*) override {
        ++finished;
        return ctx->m_response.cmp_ipp_msg_encode();
    }
    std::atomic<int> processed{0}, aborted{0}, prepared{0}, finished{0};
    std::atomic<uint64_t> bytes{0};
};

TEST(ServiceConcurrency, ManyThreadsDriveStreamsAgainstOneHandler) {
    ScopedRegistry reg{messageTables()};
    ScopedPrinter printer;
    CountingHandler handler;
    cmp_ipp_handler* saved = cmp_ipp_manager::get()->m_handler;
    cmp_ipp_manager::get()->m_handler = &handler;
    IPPCGI_EnableIPP(1);

    const int kThreads = 8, kStreams = 300;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &wrong] {
            cmp_ipp_if_info_s record{};
            const unsigned char data[512] = {0};
            for (int i = 0; i < kStreams; ++i) {
                const int32_t id = (t + 1) * 100000 + i;
                Ipp m;
                m.header(1, 1, 0x0002, static_cast<uint32_t>(id)).opGroup().tag(3);
                IPP_STREAM_HANDLE h = IPP_StreamDataStart(m.b.data(), static_cast<uint32_t>(m.b.size()), &record);
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
    IPPCGI_EnableIPP(0);
    cmp_ipp_manager::get()->m_handler = saved;

    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(handler.prepared.load(), kThreads * kStreams);
    EXPECT_EQ(handler.finished.load(), kThreads * kStreams) << "every stream ended exactly once";
    EXPECT_EQ(handler.aborted.load(), kThreads * kStreams / 10);
    EXPECT_EQ(handler.bytes.load(), uint64_t{kThreads} * kStreams * 3 * 512 - uint64_t{0});
}

}  // namespace
