// Wire codec of one attribute: Create over exact bytes (values, statuses,
// consumed counts, traces), and getByteLength/getBytes over exact bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "attr/codec_test_util.h"
#include "attr/registry_fixture.h"

using namespace std::string_literals;

namespace {

const std::string E = "[ERROR ]:cmp_ipp_ippattr::Create";

// An attribute as the decoder's reused one may be before a read: an own name,
// many values, grown stores.
cmp_ipp_attr usedAttribute() {
    cmp_ipp_attr used(0x36, 0, "old-name", 8, "t");
    for (int i = 0; i < 12; ++i) used.cmp_ipp_attr_add_multi(cmp_ipp_attr(0x36, 0, "v", "lang"));
    for (int i = 0; i < 9; ++i) used.m_longs.append(i);
    used.m_bufs.appendSlot().append(reinterpret_cast<const unsigned char*>("xyz"), 3);
    used.m_memberType = 0x44;
    return used;
}

class AttrDecode : public ::testing::Test {
protected:
    ScopedRegistry registry{attrTestTables()};
    TraceCapture traces;
    const cmp_ipp_attr used = usedAttribute();
};

// Each case is also read with CreateIn into a used attribute, as the decoder
// reads every attribute into one: it must end exactly as the one Create makes.
TEST_F(AttrDecode, ValuesCountsTracesAndWriteBack) {
    const struct {
        const char* label;
        const char* bytes;
        int32_t offset;
        int32_t count;
        int32_t type;
        uint16_t nameId;
        const char* ownName;  // null: the name comes from the registry
        int32_t numValues;
        int32_t memberType;
        std::vector<int32_t> longs;
        std::vector<std::string> strings;
        std::vector<std::string> bufs;
        std::vector<std::string> traces;
        const char* reencoded;  // null: exactly the bytes that were consumed
    } cases[] = {
        {"integer, two values (24-byte example)", "21 0006 'copies' 0004 00000001 21 0000 0004 00000002", 0, 24, 0x21, 1,
         nullptr, 2, 0, {1, 2}, {}, {}, {}, nullptr},
        {"enum, negative, unregistered name", "23 0001 'x' 0004 FFFFFFFE", 0, 10, 0x23, 0, "x", 1, 0, {-2}, {}, {}, {},
         nullptr},
        {"boolean keeps the byte", "22 0004 'flag' 0001 02", 0, 10, 0x22, 0, "flag", 1, 0, {2}, {}, {}, {}, nullptr},
        {"octet 32k", "50 0001 'o' 0001 'Z'", 0, 7, 0x50, 0, "o", 1, 0, {}, {}, {"Z"}, {}, nullptr},
        {"begCollection", "34 0009 'media-col' 0000 4A 0000 000A 'media-size'", 0, 14, 0x34, 2, nullptr, 0, 0, {}, {},
         {}, {}, nullptr},
        {"endCollection", "37 0000 0000 37 0000 0000", 0, 5, 0x37, 0, nullptr, 0, 0, {}, {}, {}, {}, nullptr},
        {"dateTime, two values: six words", "31 0001 'd' 000B 07E80305 0E070905 2B0100 31 0000 000B 07E90101 00000000 2D0530",
         0, 33, 0x31, 0, "d", 2, 0, {0x07E80305, 0x0E070905, 0x2B010000, 0x07E90101, 0, 0x2D053000}, {}, {}, {}, nullptr},
        {"resolution", "32 0003 'res' 0009 0000012C 00000258 03", 0, 17, 0x32, 0, "res", 1, 0, {300, 600, 3}, {}, {}, {},
         nullptr},
        {"rangeOfInteger, signed", "33 0001 'r' 0008 FFFFFFFF 00000064", 0, 14, 0x33, 0, "r", 1, 0, {-1, 100}, {}, {},
         {}, nullptr},
        {"octetString keeps zero bytes", "30 0001 'o' 0003 41 00 43", 0, 9, 0x30, 0, "o", 1, 0, {}, {}, {"A\0C"s}, {},
         nullptr},
        {"no-value out of band", "13 0005 'job-k' 0000", 0, 10, 0x13, 0, "job-k", 1, 0, {}, {"", ""}, {}, {}, nullptr},
        {"keyword, two values", "44 0004 'kw-x' 0002 'a4' 44 0000 0002 'a3'", 0, 18, 0x44, 0, "kw-x", 2, 0, {},
         {"a4", "", "a3", ""}, {}, {}, nullptr},
        {"text with a zero byte is written up to it", "41 0001 't' 0003 'a' 00 'b'", 0, 9, 0x41, 0, "t", 1, 0, {},
         {"a\0b"s, ""}, {}, {}, "41 0001 't' 0001 'a'"},
        {"sides as name becomes keyword; a further name value ends it",
         "42 0005 'sides' 0009 'one-sided' 42 0000 0003 'two'", 0, 19, 0x44, 5, nullptr, 1, 0, {}, {"one-sided", ""}, {},
         {}, "44 0005 'sides' 0009 'one-sided'"},
        {"a name with a zero byte is not the registered name before it", "21 0008 'copies' 00 'x' 0004 00000001", 0,
         17, 0x21, 0, "copies", 1, 0, {1}, {}, {}, {}, "21 0008 'copies' 0000 0004 00000001"},
        {"a prefix of sides is not sides", "42 0004 'side' 0001 'a'", 0, 10, 0x42, 0, "side", 1, 0, {}, {"a", ""}, {}, {},
         nullptr},
        {"textWithLanguage example", "35 0001 'x' 0009 0002 'en' 0003 'abc'", 0, 15, 0x35, 0, "x", 1, 0, {},
         {"abc", "en"}, {}, {}, nullptr},
        {"nameWithLanguage, two values, next attribute right after",
         "36 0001 'n' 0009 0002 'en' 0003 'abc' 36 0000 0008 0002 'de' 0002 'xy' 21 0001 'y' 0004 00000001", 0, 28, 0x36,
         0, "n", 2, 0, {}, {"abc", "en", "xy", "de"}, {}, {}, nullptr},
        {"WithLanguage length disagreeing: traced, kept, next value at start + length",
         "FF FF 35 0001 'x' 000A 0002 'en' 0003 'abc' 'Z' 35 0000 0007 0001 'f' 0002 'ok'", 2, 28, 0x35, 0, "x", 2, 0, {},
         {"abc", "en", "ok", "f"}, {}, {E + "(458): Wrong bi-valued attribute encoding at 2.\n"},
         "35 0001 'x' 0009 0002 'en' 0003 'abc' 35 0000 0007 0001 'f' 0002 'ok'"},
        {"WithLanguage inner length past the value takes nothing beyond it",
         "35 0001 'x' 0005 0010 'abc' 21 0001 'y' 0004 00000001", 0, 11, 0x35, 0, "x", 1, 0, {}, {"", "abc"}, {},
         {E + "(458): Wrong bi-valued attribute encoding at 0.\n"}, "35 0001 'x' 0007 0003 'abc' 0000"},
        {"begCollection value bytes are skipped", "34 0001 'c' 0002 'zz'", 0, 8, 0x34, 0, "c", 0, 0, {}, {}, {}, {},
         "34 0001 'c' 0000"},
        {"member whose value is a collection keeps no value", "4A 0000 000A 'media-size' 34 0000 0000", 0, 15, 0x4A, 3,
         nullptr, 0, 0, {}, {}, {}, {}, nullptr},
        {"member, unregistered name, integer value",
         "4A 0000 000B 'unknown-mbr' 21 0000 0004 00000007 37 0000 0000", 0, 25, 0x4A, 0, "unknown-mbr", 1, 0x21, {7}, {},
         {}, {}, nullptr},
        {"member, two keyword values", "4A 0000 0001 'm' 44 0000 0002 'a4' 44 0000 0002 'a3'", 0, 20, 0x4A, 0, "m", 2,
         0x44, {}, {"a4", "", "a3", ""}, {}, {}, nullptr},
        {"member name starting with a zero byte keeps its length", "4A 0000 0002 00 'x'", 0, 7, 0x4A, 0, "", 0, 0, {},
         {}, {}, {}, "4A 0000 0002 0000"},
        {"member values end at a delimiter tag", "4A 0000 0001 'm' 44 0000 0001 'a' 03 0000 0000", 0, 12, 0x4A, 0, "m",
         1, 0x44, {}, {"a", ""}, {}, {}, nullptr},
        {"member values end at the end of the data", "4A 0000 0001 'm' 44 0000 0001 'a'", 0, 12, 0x4A, 0, "m", 1,
         0x44, {}, {"a", ""}, {}, {}, nullptr},
        {"integer cut short reads as 0", "21 0001 'i' 0004 0000", 0, 10, 0x21, 0, "i", 1, 0, {0}, {}, {}, {},
         "21 0001 'i' 0004 00000000"},
        {"text past the data reads as empty", "44 0001 'k' 0010 'abc'", 0, 22, 0x44, 0, "k", 1, 0, {}, {"", ""}, {}, {},
         "44 0001 'k' 0000"},
        {"name past the data gives no name", "44 0010 'abc'", 0, 21, 0x44, 0, nullptr, 1, 0, {}, {"", ""}, {}, {},
         "44 0000 0000"},
        {"a different tag with an empty name ends the attribute",
         "21 0001 'x' 0004 00000001 33 0000 0008 00000001 00000002", 0, 10, 0x21, 0, "x", 1, 0, {1}, {}, {}, {}, nullptr},
        {"a non-empty name ends the attribute", "21 0001 'x' 0004 00000001 21 0001 'y' 0004 00000002", 0, 10, 0x21, 0, "x",
         1, 0, {1}, {}, {}, {}, nullptr},
    };
    ASSERT_GT(used.m_strings.capacity(), 2);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        orvane::cmp_dbglog_common::get_instance().clear();
        const Bytes bytes = wire(c.bytes);
        cmp_ipp_buf buf = bufOf(bytes), again = bufOf(bytes);
        uint16_t status = 0, statusIn = 0;
        int32_t count = -1, countIn = -1;
        std::unique_ptr<cmp_ipp_attr> a(cmp_ipp_attr::Create(buf, c.offset, &status, &count));
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(count, c.count);
        EXPECT_EQ(a->m_type, c.type);
        EXPECT_EQ(a->m_nameId, c.nameId);
        EXPECT_STREQ(a->m_name, c.ownName);
        EXPECT_EQ(a->m_numValues, c.numValues);
        EXPECT_EQ(a->m_memberType, c.memberType);
        EXPECT_EQ(words(*a), c.longs);
        EXPECT_EQ(strings(*a), c.strings);
        EXPECT_EQ(octets(*a), c.bufs);
        EXPECT_EQ(traces.lines(), c.traces);

        cmp_ipp_attr into = used;
        ASSERT_TRUE(cmp_ipp_attr::CreateIn(into, again, c.offset, &statusIn, &countIn));
        EXPECT_EQ(shapeOf(into), shapeOf(*a));
        EXPECT_EQ(countIn, count);
        EXPECT_EQ(statusIn, status);

        // Written back: the bytes consumed, or the documented rewrite.
        const Bytes expected = c.reencoded != nullptr
                                   ? wire(c.reencoded)
                                   : Bytes(bytes.begin() + c.offset, bytes.begin() + c.offset + c.count);
        EXPECT_EQ(a->getByteLength(), static_cast<int32_t>(expected.size()));
        cmp_ipp_buf out(static_cast<uint32_t>(expected.size() + 1), true);
        a->getBytes(out, 0);
        EXPECT_EQ(hexOf(contentOf(out)), hexOf(expected));
    }
}

// Each case fails alike with Create and with CreateIn into a used attribute.
TEST_F(AttrDecode, FailuresGiveNoAttributeWithStatusCountAndTrace) {
    const struct {
        const char* label;
        const char* bytes;
        int32_t offset;
        uint16_t status;
        int32_t count;
        std::vector<std::string> traces;
        const char* piece = nullptr;  // what the port hands out when the held bytes run out
    } cases[] = {
        {"delimiter tag 0x0F", "0F 0001 'x' 0000", 0, 0x0400, 0, {}},
        {"no bytes at all", "", 0, 0x0400, 0, {}},
        {"offset past the data", "21 0001 'x' 0004 00000001", 40, 0x0400, 0, {}},
        {"negative offset", "21 0001 'x' 0004 00000001", -1, 0x0400, 0, {}},
        {"name length FFFF", "21 FFFF 0004 00000001", 0, 0x0400, 3,
         {E + "(216): Incorrect buffer contents. Name length < 0 -1.\n"}},
        {"value length 8000", "21 0001 'x' 8000 00000001", 0, 0x0400, 6,
         {E + "(258): Incorrect buffer contents. Value length < 0 -32768.\n"}},
        {"negative length of a further value", "44 0001 'x' 0001 'a' 44 0000 FFFE", 0, 0x0400, 12,
         {E + "(258): Incorrect buffer contents. Value length < 0 -2.\n"}},
        {"integer of 2 bytes", "21 0006 'copies' 0002 0001", 0, 0x0400, 13,
         {E + "(273): Attr:copies wrong value length for 2 for type 33.\n"}},
        {"enum of 5 bytes", "23 0001 'e' 0005 0000000001", 0, 0x0400, 11,
         {E + "(273): Attr:e wrong value length for 5 for type 35.\n"}},
        {"boolean of 2 bytes", "22 0004 'flag' 0002 0001", 0, 0x0409, 11,
         {E + "(328): Attr:flag wrong value length for 2 for type 34.\n"}},
        {"boolean of 0 bytes", "22 0000 0000", 0, 0x0409, 5, {E + "(328): Attr: wrong value length for 0 for type 34.\n"}},
        {"dateTime of 10 bytes", "31 0004 'date' 000A 07E80305 0E070905 2B01", 0, 0x0400, 19,
         {E + "(364): Wrong value length for 10 for type 49 (DateAndTime).\n"}},
        {"resolution of 8 bytes", "32 0001 'r' 0008 0000012C 00000258", 0, 0x0400, 14,
         {E + "(385): Wrong value length for 8 for type 50 (Resolution).\n"}},
        {"rangeOfInteger of 9 bytes", "33 0001 'r' 0009 00000001 00000002 00", 0, 0x0400, 15,
         {E + "(406): Wrong value length for 9 for type 51 (Range_integer).\n"}},
        {"bad second value drops the good first", "21 0006 'copies' 0004 00000001 21 0000 0002 0001", 0, 0x0400, 22,
         {E + "(273): Attr:copies wrong value length for 2 for type 33.\n"}},
        {"unsupported tag 0x11 as the only value", "11 0001 'd' 0003 'abc'", 0, 0x0400, 9,
         {E + "(506): Unsupported value tag 17.\n"}},
        {"further values after an unsupported first are skipped", "11 0001 'd' 0000 21 0000 0004 00000001", 0, 0x0400,
         15, {E + "(506): Unsupported value tag 17.\n", E + "(506): Unsupported value tag 17.\n"}},
        {"tag 0xFF", "FF 0000 0001 00", 0, 0x0400, 6, {E + "(506): Unsupported value tag 255.\n"}},
        {"octet value reaching past the data is refused", "30 0001 'o' 0010 'AB'", 0, 0x0400, 22, {}},
        {"member value of another tag is decoded with the first tag",
         "4A 0000 0001 'm' 21 0000 0004 00000007 33 0000 0008 00000001 00000002", 0, 0x0400, 28,
         {E + "(273): Attr: wrong value length for 8 for type 33.\n"}},
        {"octet value the port cannot complete", "30 0001 'o' 0004 'AB'", 0, 0x0400, 10, {}, "'C'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const Bytes bytes = wire(c.bytes);
        for (bool reuse : {false, true}) {
            orvane::cmp_dbglog_common::get_instance().clear();
            PiecePort port({wire(c.piece != nullptr ? c.piece : "")});
            cmp_ipp_buf buf = bufOf(bytes);
            if (c.piece != nullptr) buf.setPort(&port.info);
            uint16_t status = 0;
            int32_t count = -1;
            cmp_ipp_attr into = used;
            if (reuse) {
                EXPECT_FALSE(cmp_ipp_attr::CreateIn(into, buf, c.offset, &status, &count));
            } else {
                std::unique_ptr<cmp_ipp_attr> a(cmp_ipp_attr::Create(buf, c.offset, &status, &count));
                EXPECT_EQ(a, nullptr);
            }
            EXPECT_EQ(status, c.status) << "reuse " << reuse;
            EXPECT_EQ(count, c.count) << "reuse " << reuse;
            EXPECT_EQ(traces.lines(), c.traces) << "reuse " << reuse;
            EXPECT_EQ(buf.length(), bytes.size() + port.pieces[0].size() * (c.piece != nullptr));
        }
    }
}

// ---- encoding ----

class AttrEncode : public ::testing::Test {
protected:
    ScopedRegistry registry{attrTestTables()};
};

TEST_F(AttrEncode, ExactBytesAtThePositionAndNothingAround) {
    const struct {
        const char* label;
        cmp_ipp_attr (*make)();
        const char* bytes;
    } cases[] = {
        {"three values: further values have no name",
         [] { return multi(cmp_ipp_attr(0x21, 1, 1), {cmp_ipp_attr(0x21, 1, 2), cmp_ipp_attr(0x21, 1, -1)}); },
         "21 0006 'copies' 0004 00000001 21 0000 0004 00000002 21 0000 0004 FFFFFFFF"},
        {"own name with zero bytes keeps its length", [] { return cmp_ipp_attr(0x41, 0, "ab", 3, "v"); },
         "41 0003 'ab' 00 0001 'v'"},
        {"nameWithLanguage without language", [] { return named(cmp_ipp_attr(0x36, 0, "abc", nullptr), "n"); },
         "36 0001 'n' 0007 0000 0003 'abc'"},
        {"endCollection is written without its name", [] { return cmp_ipp_attr(0x37, 2); }, "37 0000 0000"},
        {"begCollection values are not written", [] { return multi(cmp_ipp_attr(0x34, 2), {cmp_ipp_attr(0x34, 0)}); },
         "34 0009 'media-col' 0000"},
        {"member with one integer", [] { return multi(cmp_ipp_attr(0x4A, 4), {cmp_ipp_attr(0x21, 0, 7)}); },
         "4A 0000 000B 'x-dimension' 21 0000 0004 00000007"},
        {"boolean writes the low byte", [] { return named(cmp_ipp_attr(0x22, 0, 0x102), "b"); }, "22 0001 'b' 0001 02"},
        {"resolution writes the low byte of the units",
         [] { return named(cmp_ipp_attr(0x32, 0, 300, 600, 0x103), "r"); }, "32 0001 'r' 0009 0000012C 00000258 03"},
        {"tag without a layout goes out as text", [] { return named(cmp_ipp_attr(0x43, 0, "abc"), "u"); },
         "43 0001 'u' 0003 'abc'"},
        {"no values: nothing", [] { return cmp_ipp_attr(0x21, 1); }, ""},
        {"counted values missing from the stores are zeros, never read from outside them",
         [] {
             cmp_ipp_attr a = named(cmp_ipp_attr(0x33, 0, 1, 2), "r");
             a.m_numValues = 2;
             return a;
         },
         "33 0001 'r' 0008 00000001 00000002 33 0000 0008 00000000 00000000"},
    };
    const uint32_t pos = 3;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        cmp_ipp_attr a = c.make();
        const Bytes want = wire(c.bytes);
        EXPECT_EQ(a.getByteLength(), static_cast<int32_t>(want.size()));

        // Room for 8 more bytes than needed, all set to a marker first.
        cmp_ipp_buf out(true);
        out.reserve(pos + static_cast<uint32_t>(want.size()) + 8);
        for (uint32_t i = 0; i < out.capacity(); ++i) out.setByteAt(i, 0xEE);
        a.getBytes(out, static_cast<int32_t>(pos));
        ASSERT_EQ(out.length(), pos + want.size());
        EXPECT_EQ(hexOf(contentOf(out, pos)), hexOf(want));
        for (uint32_t i = 0; i < out.capacity(); ++i)
            EXPECT_TRUE((i >= pos && i < pos + want.size()) || out.data()[i] == 0xEE) << "byte " << i;
    }
}

TEST_F(AttrEncode, WritesOnlyWhenTheCapacityHoldsIt) {
    cmp_ipp_attr a(0x21, 1, 5);
    const uint32_t size = static_cast<uint32_t>(a.getByteLength());
    ASSERT_EQ(size, 15u);

    cmp_ipp_buf small(true);
    small.reserve(2 + size - 1);  // one byte short
    small.setByteAt(0, 'k');
    small.resize(1);
    a.getBytes(small, 2);
    EXPECT_EQ(small.length(), 1u);
    for (uint32_t i = 2; i < small.capacity(); ++i) EXPECT_EQ(small.data()[i], 0) << i;

    cmp_ipp_buf exact(true);
    exact.reserve(2 + size);  // the last byte written is the last of the block
    a.getBytes(exact, 2);
    EXPECT_EQ(exact.length(), 2 + size);
    EXPECT_EQ(hexOf(contentOf(exact, 2)), hexOf(wire("21 0006 'copies' 0004 00000005")));

    cmp_ipp_buf any(true);
    a.getBytes(any, -1);
    EXPECT_EQ(any.length(), 0u);
}

}  // namespace
