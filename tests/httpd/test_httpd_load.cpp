// Load over loopback: many front-end connections at once, each sending a series
// of requests on a keep-alive connection. Bounded to a few seconds.
#include "httpd/httpd_fixture.h"

namespace {

using HttpdLoad = HttpdServer;

TEST_F(HttpdLoad, SixteenClientsOnKeepAliveConnections) {
    const int clients = 16;
    const int perClient = scaled(200);
    start();
    std::atomic<int> good{0};
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    const auto t0 = Clock::now();
    for (int t = 0; t < clients; ++t) {
        threads.emplace_back([&, t] {
            Client c(m_path);
            if (!c.connected()) {
                bad += perClient;
                return;
            }
            for (int i = 0; i < perClient; ++i) {
                const bool last = i == perClient - 1;
                // Keep-alive (2) and "next request at once" (0) in turn; the last one closes.
                const int32_t mode = last ? AHTTPD_CONN_CLOSE : (i % 2 == 0 ? AHTTPD_CONN_KEEP_ALIVE : 0);
                const uint32_t id = static_cast<uint32_t>(t * 100000 + i + 1);
                bool ok;
                if (i % 4 == 3) {
                    ok = c.sendRequest(getRequest(mode));
                    const Reply reply = c.readReply();
                    ok = ok && reply.ok && reply.status == 0 && reply.body == HttpTestHandler::kPage;
                } else {
                    ok = sendIpp(c, ippRequest(0x000B, id), mode);
                    const Reply reply = c.readReply();
                    ok = ok && reply.ok && reply.status == 0 && reply.connection == mode && reply.body.size() >= 8 &&
                         be32At(reply.body, 4) == id && (be32At(reply.body, 0) & 0xFFFF) == 0;
                }
                if (ok) {
                    ++good;
                } else {
                    ++bad;
                    return;  // the connection is out of step now
                }
            }
            if (!c.closedByPeer(3000)) ++bad;
        });
    }
    for (std::thread& th : threads) th.join();
    const int64_t took = msSince(t0);
    EXPECT_EQ(bad.load(), 0);
    EXPECT_EQ(good.load(), clients * perClient);
    EXPECT_TRUE(settles([] { return getConnectionCount() == 0; }, 5000));
    EXPECT_EQ(handler.finished.load(), clients * perClient);
    std::printf("load: %d requests over %d connections in %lld ms (%.0f requests/s)\n", clients * perClient, clients,
                static_cast<long long>(took), took > 0 ? 1000.0 * clients * perClient / took : 0.0);
}

}  // namespace
