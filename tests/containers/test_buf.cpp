#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "attr/codec_test_util.h"
#include "containers/cmp_ipp_buf.h"

namespace {

TEST(Buf, ConstructorsSetLengthCapacityAndBlock) {
    cmp_ipp_buf empty(true);
    EXPECT_EQ(empty.length(), 0u);
    EXPECT_EQ(empty.capacity(), 1u);
    EXPECT_EQ(empty.data(), cmp_ipp_buf::m_1charbuf);

    cmp_ipp_buf sized(16u, true);
    EXPECT_EQ(sized.capacity(), 17u);
    EXPECT_EQ(cmp_ipp_buf(0, true).data(), cmp_ipp_buf::m_1charbuf);

    const char* text = "hello";
    cmp_ipp_buf copied(text, true), wrapped(text, false);
    EXPECT_EQ(copied.length(), 5u);
    EXPECT_EQ(copied.capacity(), 6u);
    EXPECT_NE(copied.data(), reinterpret_cast<const unsigned char*>(text));
    EXPECT_EQ(wrapped.data(), reinterpret_cast<const unsigned char*>(text));

    cmp_ipp_buf fromBuf(copied, true);
    EXPECT_EQ(contentOf(fromBuf), contentOf(copied));
    EXPECT_EQ(fromBuf.capacity(), copied.capacity());

    cmp_ipp_buf none(static_cast<const unsigned char*>(nullptr), 0, true);
    EXPECT_EQ(none.data(), cmp_ipp_buf::m_1charbuf);
}

TEST(Buf, ExactFitGrowth) {
    cmp_ipp_buf b(true);
    const unsigned char five[] = {1, 2, 3, 4, 5};
    b.append(five, 5);
    EXPECT_EQ(b.length(), 5u);
    EXPECT_EQ(b.capacity(), 6u);
    const unsigned char one = 6;
    b.append(&one, 1);
    EXPECT_EQ(b.capacity(), 7u) << "5 + 1 is not less than 6: reallocate";
    EXPECT_EQ(contentOf(b), (Bytes{1, 2, 3, 4, 5, 6}));

    b.reserve(20);
    EXPECT_EQ(b.capacity(), 20u);
    b.append(five, 5);
    EXPECT_EQ(b.capacity(), 20u) << "room left: no reallocation";
    EXPECT_EQ(b.length(), 11u);
}

TEST(Buf, WrappedBlockIsNeverReleasedAndGrowthTakesOwnership) {
    unsigned char caller[10] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    {
        cmp_ipp_buf w(caller, 10, false);
        EXPECT_EQ(w.capacity(), 11u);
        EXPECT_FALSE(w.owner());
        const unsigned char more[] = {10, 11};
        w.append(more, 2);
        EXPECT_TRUE(w.owner());
        EXPECT_NE(w.data(), caller);
        EXPECT_EQ(w.length(), 12u);
    }  // ASan reports a bad free here if the caller's block were released
    EXPECT_EQ(caller[9], 9);
}

TEST(Buf, BigEndianGettersTextsAndShortReads) {
    const struct {
        Bytes bytes;
        uint32_t pos;
        int32_t shortValue;
        int32_t intValue;
    } cases[] = {
        {{0xFF, 0xFE}, 0, -2, 0},
        {{0x00, 0x00, 0x01, 0x00}, 0, 0, 256},
        {{0x80, 0x00, 0x00, 0x00}, 0, -32768, INT32_MIN},
        {{0x00, 0x01, 0x02}, 0, 1, 0},            // 3 bytes: the int is not there
        {{0x00, 0x12, 0x34, 0x56, 0x78}, 1, 0x1234, 0x12345678},
        {{0x00}, 0xFFFFFFFFu, 0, 0},              // no wrap-around of the position
    };
    for (const auto& c : cases) {
        cmp_ipp_buf b = bufOf(c.bytes);
        EXPECT_EQ(b.getShortAt(c.pos), c.shortValue);
        EXPECT_EQ(b.getIntAt(c.pos), c.intValue);
        EXPECT_EQ(b.length(), c.bytes.size()) << "a failed getter leaves the buffer unchanged";
    }
    cmp_ipp_buf b = bufOf({0xAB});
    EXPECT_EQ(b.getByteAt(0), 0xAB);
    EXPECT_EQ(b.getByteAt(1), 0);

    cmp_ipp_buf k("keyword", true);
    EXPECT_STREQ(k.getStringAt(1, 3).c_str(), "eyw");
    EXPECT_FALSE(k.getStringAt(5, 3).isSet());
    EXPECT_FALSE(k.getStringAt(0, -1).isSet());
    EXPECT_TRUE(k.getStringAt(7, 0).isSet()) << "a zero-length read at the end is an empty text";
}

TEST(Buf, GetterPullsOnePieceFromThePort) {
    PiecePort port({{0x00, 0x00, 0x00, 0x07}});
    cmp_ipp_buf b = bufOf({0x01, 0x02});
    b.setPort(&port.info);
    EXPECT_EQ(b.getIntAt(2), 7);
    EXPECT_EQ(b.length(), 6u);

    PiecePort shortPort({{0x01}, {0x02, 0x03, 0x04}});
    cmp_ipp_buf c = bufOf({0xAA});
    c.setPort(&shortPort.info);
    EXPECT_EQ(c.getIntAt(1), 0) << "one refill per getter only";
    EXPECT_EQ(shortPort.next, 1u);
    EXPECT_EQ(c.getIntAt(1), 0x01020304);
    EXPECT_EQ(shortPort.next, 2u);

    // The port's result comes back as it is; the reader is asked with -1.
    cmp_ipp_if_info_s failing{};
    failing.pfnGetMoreData = [](void*, int unused, unsigned char**, int*) { return unused == -1 ? -1985 : 0; };
    cmp_ipp_buf d(true);
    d.setPort(&failing);
    EXPECT_EQ(d.getMoreDataFromPort(), -1985);
    EXPECT_EQ(d.length(), 0u);
    cmp_ipp_buf copy(d);
    EXPECT_EQ(copy.getPort(), nullptr) << "the port is never copied";

    cmp_ipp_if_info_s nullOps{};
    d.setPort(&nullOps);
    EXPECT_EQ(d.getMoreDataFromPort(), -1);
    d.setPort(nullptr);
    EXPECT_EQ(d.getMoreDataFromPort(), -1);
}

// A transport that reads every piece into one and the same block, the block the
// first piece was wrapped from.
TEST(Buf, WrappedFirstPieceSurvivesAPortThatReusesItsBlock) {
    struct ReusingPort {
        unsigned char block[4] = {0x00, 0x01, 0x02, 0x03};
        cmp_ipp_if_info_s info{};
    } port;
    port.info.ctx = &port;
    port.info.pfnGetMoreData = [](void* ctx, int, unsigned char** data, int* len) -> int {
        auto* self = static_cast<ReusingPort*>(ctx);
        const unsigned char next[4] = {0x04, 0x05, 0x06, 0x07};
        std::memcpy(self->block, next, 4);
        *data = self->block;
        *len = 4;
        return 2;
    };
    cmp_ipp_buf b(port.block, 4, false);
    b.setPort(&port.info);
    EXPECT_EQ(b.getIntAt(4), 0x04050607);
    EXPECT_EQ(b.getIntAt(0), 0x00010203) << "the first piece was kept before the port reused its block";
}

TEST(Buf, SettersAreBoundedByTheBlockKeepTheLengthAndSurviveAReserve) {
    cmp_ipp_buf b(8u, true);  // block of 9 bytes
    const uint32_t size = b.capacity();
    b.setIntAt(size - 3, 0x11223344);
    for (uint32_t i = 0; i < size; ++i) EXPECT_EQ(b.data()[i], 0) << i;
    b.setIntAt(size - 4, 0x11223344);
    EXPECT_EQ(b.data()[size - 1], 0x44);
    EXPECT_EQ(b.data()[size - 4], 0x11);
    EXPECT_EQ(b.length(), 0u);

    b.setShortAt(size - 1, 0x5566);
    EXPECT_EQ(b.data()[size - 1], 0x44);
    b.setShortAt(0, -2);
    EXPECT_EQ(b.data()[0], 0xFF);
    EXPECT_EQ(b.data()[1], 0xFE);
    b.setByteAt(size, 7);
    b.setByteAt(2, 0x1FF);
    EXPECT_EQ(b.data()[2], 0xFF);

    EXPECT_EQ(b.setStringAt(size - 2, "abc"), 0);
    EXPECT_EQ(b.setStringAt(size - 3, "abc"), 3);
    EXPECT_EQ(b.setBufferAt(size - 1, cmp_ipp_buf("xy", true)), 0);
    EXPECT_EQ(b.setBufferAt(0, cmp_ipp_buf("xy", true)), 2);
    EXPECT_EQ(b.length(), 0u);
    b.reserve(100);  // what was written past the content is kept
    EXPECT_EQ(b.capacity(), 100u);
    b.resize(size);
    EXPECT_EQ(hexOf(contentOf(b)), hexOf(wire("'xy' FF 00 00 11 'abc'")));

    cmp_ipp_buf shared(true);
    shared.setByteAt(0, 9);
    EXPECT_EQ(cmp_ipp_buf::m_1charbuf[0], 0) << "the shared block keeps its 0";
}

TEST(Buf, ResizeAtCapacityTracesAndGrows) {
    TraceCapture trace(2);
    cmp_ipp_buf b(4u, true);  // capacity 5
    b.resize(3);
    EXPECT_TRUE(trace.lines().empty());
    b.resize(5);
    EXPECT_EQ(trace.lines(),
              std::vector<std::string>{"[INFO  ]:cmp_ipp_buf::resize(211): length[5] > capacity()[5].\n"});
    EXPECT_EQ(b.length(), 5u);
    EXPECT_GT(b.capacity(), b.length()) << "the block was grown to hold the content and a NUL";
    EXPECT_EQ(b.c_str()[5], '\0');
    EXPECT_EQ(trace.lines().size(), 1u) << "c_str found its spare byte";
}

TEST(Buf, FindFollowsItsScanRules) {
    struct Case {
        const char* text;
        const char* pattern;
        uint32_t start;
        int32_t expected;
    } const cases[] = {
        {"ab", "b", 0, -1},          // the last byte never starts a match
        {"aaab", "aab", 0, -1},      // after a mismatch the scan resumes past the compared bytes
        {"xxabcab", "ab", 0, 2},  {"xxabcab", "ab", 3, 5}, {"abc", "abcd", 0, -1},
        {"abc", "", 0, -1},          // an empty pattern is never found
        {"a\r\nb\r\n", "\r\n", 0, 1},
    };
    for (const auto& c : cases) {
        cmp_ipp_buf b(c.text, true);
        EXPECT_EQ(b.find(c.pattern, c.start), c.expected) << c.text << " / " << c.pattern;
    }
    cmp_ipp_buf b("abc", true);
    EXPECT_EQ(b.find('c'), 2);
    EXPECT_EQ(b.find('z'), -1);
    EXPECT_EQ(cmp_ipp_buf(true).find('\0'), -1);
}

TEST(Buf, ShiftLeftAndDivide) {
    cmp_ipp_buf b("ab\r\ncd", true);
    cmp_ipp_buf head = b.Divide("\r\n");
    EXPECT_EQ(std::string(head.c_str()), "ab");
    EXPECT_TRUE(head.owner());
    EXPECT_EQ(std::string(b.c_str()), "\r\ncd");

    cmp_ipp_buf none = b.Divide("xy");
    EXPECT_EQ(none.length(), 0u);
    EXPECT_EQ(std::string(b.c_str()), "\r\ncd");

    cmp_ipp_buf all = b.Divide(100u);  // beyond the length: the whole content
    EXPECT_EQ(std::string(all.c_str()), "\r\ncd");
    EXPECT_EQ(b.length(), 0u);

    cmp_ipp_buf c("abcdef", true);
    c.ShiftLeft(2);
    EXPECT_EQ(std::string(c.c_str()), "cdef");
    c.ShiftLeft(50);
    EXPECT_EQ(c.length(), 0u);
}

TEST(Buf, AssignmentReusesTheBlockAndKeepsOwnership) {
    cmp_ipp_buf big(64u, true);
    const unsigned char* block = big.data();
    big = cmp_ipp_buf("twelve bytes", true);
    EXPECT_EQ(big.data(), block) << "large enough: reused";
    EXPECT_EQ(std::string(big.c_str()), "twelve bytes");
    big = big;
    EXPECT_EQ(std::string(big.c_str()), "twelve bytes");
    big += big;
    EXPECT_EQ(std::string(big.c_str()), "twelve bytestwelve bytes");
    big += "!";
    EXPECT_EQ(big.length(), 25u);
}

}  // namespace
