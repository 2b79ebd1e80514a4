// The bounds on a request: each one at its limit decodes, one past is refused
// with 0x0409 and its own Parse Error; an oversized attribute part is not read
// in from the port, document data after the attributes is not bounded.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "msg/cmp_ipp_limits.h"
#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

const uint32_t kHeader = 8;

// A request: the operation attributes, a job group filled by fill, the end tag.
Bytes request(const std::function<void(Ipp&)>& fill) {
    Ipp m;
    m.header(1, 1, 0x0002, 1).opGroup().tag(0x02);
    fill(m);
    return m.tag(0x03).b;
}

// Pads the job group with text attributes of at most 1000 bytes (a piece from
// the port always holds a whole value) until the attribute part, from the first
// delimiter tag to the end tag included, is bytes long.
void padAttributePart(Ipp& m, uint32_t bytes) {
    uint32_t left = bytes - (static_cast<uint32_t>(m.b.size()) - kHeader) - 1;  // the end tag is the last byte
    while (left > 0) {
        // Tag, lengths and the name "pad" take 8 bytes; never leave fewer than 8.
        uint32_t field = std::min<uint32_t>(left, 8 + 1000);
        if (left - field != 0 && left - field < 8) field -= 8;
        EXPECT_GE(field, 8u) << "cannot pad " << left << " bytes";
        m.text(0x41, "pad", std::string(field - 8, 'p'));
        left -= field;
    }
    EXPECT_EQ(m.b.size() - kHeader + 1, bytes);
}

class LimitsTest : public ::testing::Test {
protected:
    ScopedRegistry reg{messageTables()};
    ScopedPrinter printer;
};

TEST_F(LimitsTest, EachBoundDecodesAtItsLimitAndRefusesOnePast) {
    const struct {
        const char* what;
        std::function<void(Ipp&, int32_t)> fill;
        int32_t limit;
        int code;  // 0: the request traces other errors on the way (refused merges); status only
        int line;
    } cases[] = {
        {"attribute bytes", [](Ipp& m, int32_t n) { padAttributePart(m, static_cast<uint32_t>(n)); },
         static_cast<int32_t>(CMP_IPP_MAX_ATTRIBUTE_BYTES), 610, 851},
        {"attributes, the three operation attributes included",
         [](Ipp& m, int32_t n) {
             for (int32_t i = 3; i < n; ++i) m.integer(0x21, "n", i);
         },
         CMP_IPP_MAX_ATTRIBUTES, 611, 854},
        {"values of one field",
         [](Ipp& m, int32_t n) {
             m.integer(0x21, "many", 0);
             for (int32_t i = 1; i < n; ++i) m.integer(0x21, "", i);
         },
         CMP_IPP_MAX_VALUES, 612, 857},
        {"additional values, each after a field the attribute refuses",
         [](Ipp& m, int32_t n) {
             m.integer(0x21, "many", 0);
             for (int32_t i = 1; i < n; ++i) m.text(0x44, "", "x").integer(0x21, "", i);
         },
         CMP_IPP_MAX_VALUES, 0, 0},
        {"collection depth, each collection the member value of the one around it",
         [](Ipp& m, int32_t depth) {
             m.attr(0x34, "media-col", {});
             for (int32_t i = 1; i < depth; ++i) m.text(0x4A, "", "m").attr(0x34, "", {});
             for (int32_t i = 0; i < depth; ++i) m.attr(0x37, "", {});
         },
         CMP_IPP_MAX_COLLECTION_DEPTH, 613, 860},
    };
    for (const auto& c : cases) {
        for (int32_t n : {c.limit, c.limit + 1}) {
            SCOPED_TRACE(testing::Message() << c.what << ": " << n);
            const bool past = n > c.limit;
            cmp_ipp_buf buf = bufOf(request([&](Ipp& m) { c.fill(m, n); }));
            cmp_ipp_request req;
            TraceCapture trace(past && c.code != 0 ? 0 : -1);
            EXPECT_EQ(req.decode(buf, nullptr), past ? 0x0409u : 0u);
            if (!past || c.code == 0) continue;
            const std::vector<std::string> lines = trace.lines();
            ASSERT_FALSE(lines.empty());
            const std::string expected = "[ERROR ]:cmp_ipp_ippmsg::decode(" + std::to_string(c.line) +
                                         "): Parse Error: " + std::to_string(c.code) + " at offset ";
            EXPECT_EQ(lines.back().rfind(expected, 0), 0u) << lines.back();
        }
    }
}

// Document data after the attributes is not bounded, whole or in pieces; the
// attribute bytes are counted in pieces too.
TEST_F(LimitsTest, AttributeBytesAreCountedAlsoInPiecesAndDocumentDataIsNotBounded) {
    const Bytes document(3 * CMP_IPP_MAX_ATTRIBUTE_BYTES, 'd');
    for (uint32_t bytes : {CMP_IPP_MAX_ATTRIBUTE_BYTES, CMP_IPP_MAX_ATTRIBUTE_BYTES + 1}) {
        Bytes message = request([bytes](Ipp& m) { padAttributePart(m, bytes); });
        message.insert(message.end(), document.begin(), document.end());
        PiecePort port = PiecePort::inChunks(message, 200, 4096);
        cmp_ipp_buf first(message.data(), 200, true), whole = bufOf(message);
        cmp_ipp_request req, inOne;
        TraceCapture quiet(-1);
        const uint32_t result = req.decode(first, &port.info);
        EXPECT_EQ(first.getPort(), nullptr);
        if (bytes != CMP_IPP_MAX_ATTRIBUTE_BYTES) {
            EXPECT_EQ(result, 0x0409u);
            continue;
        }
        ASSERT_EQ(result, 0u);
        // What was read of the document is kept, the rest stays with the port.
        EXPECT_EQ(req.m_docData.length() + port.unread().size(), document.size());
        ASSERT_EQ(inOne.decode(whole, nullptr), 0u);
        EXPECT_EQ(inOne.m_docData.length(), document.size());
    }
}

// A transport that would go on delivering pieces of one endless attribute part.
struct EndlessPort {
    static const int kPiece = 32768;
    EndlessPort() {
        info.ctx = this;
        info.pfnGetMoreData = [](void* ctx, int, unsigned char** data, int* length) -> int {
            EndlessPort* self = static_cast<EndlessPort*>(ctx);
            if (self->delivered >= self->total) return 2;
            // Text attributes named n with 32000-byte values, one after the other.
            static const unsigned char kHead[6] = {0x41, 0x00, 0x01, 'n', 32000 >> 8, 32000 & 0xFF};
            for (int i = 0; i < kPiece; ++i) {
                const uint64_t inField = (self->delivered + static_cast<uint64_t>(i)) % (6 + 32000);
                self->piece[i] = inField < 6 ? kHead[inField] : 'p';
            }
            *data = self->piece;
            *length = kPiece;
            self->delivered += kPiece;
            ++self->pieces;
            return 1;
        };
    }
    EndlessPort(const EndlessPort&) = delete;

    cmp_ipp_if_info_s info{};
    unsigned char piece[kPiece];
    uint64_t delivered = 0;
    uint64_t total = 100ull << 20;  // 100 MiB
    int pieces = 0;
};

TEST_F(LimitsTest, AnOversizedAttributePartIsNotReadIn) {
    Ipp m;
    m.header(1, 1, 0x0002, 1).opGroup().tag(0x02);
    std::unique_ptr<EndlessPort> port(new EndlessPort());
    cmp_ipp_buf first(m.b.data(), static_cast<uint32_t>(m.b.size()), true);
    cmp_ipp_request req;
    TraceCapture trace(0);
    EXPECT_EQ(req.decode(first, &port->info), 0x0409u);
    EXPECT_TRUE(trace.contains("Parse Error: 610")) << (trace.lines().empty() ? "" : trace.lines().back());
    // The bound plus the piece that crossed it, never the 100 MiB.
    EXPECT_LE(port->delivered, uint64_t{CMP_IPP_MAX_ATTRIBUTE_BYTES} + EndlessPort::kPiece);
    EXPECT_LE(first.length(), kHeader + CMP_IPP_MAX_ATTRIBUTE_BYTES + EndlessPort::kPiece);
    EXPECT_EQ(first.getPort(), nullptr);
}

}  // namespace
