#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "platform/emw_osw_test.h"
#include "attr/codec_test_util.h"
#include "attr/registry_fixture.h"

namespace {

TEST(AttrModel, GenericConstructorParsesResolutionAndRangeTexts) {
    const struct {
        int16_t tag;
        const char* text;
        std::vector<int32_t> expected;
    } cases[] = {
        {0x32, "300:600:3", {300, 600, 3}},
        {0x32, "300x600", {0, 0, 0}},
        {0x32, "300:600", {0, 0, 0}},
        {0x32, "12345678901:600:3", {0, 0, 0}},
        {0x32, "300:600:12345678901", {0, 0, 0}},
        {0x32, " -5:+7:3x", {-5, 7, 3}},
        {0x33, "1:100", {1, 100}},
        {0x33, "5", {0, 0}},
        {0x33, "1:12345678901", {0, 0}},
        {0x33, "-2147483648:1", {0, 0}},  // 11 characters
        {0x33, "-999999999:9999999999", {-999999999, INT32_MAX}},
    };
    for (const auto& c : cases) {
        cmp_ipp_attr a(c.tag, 1, static_cast<void*>(const_cast<char*>(c.text)), 0);
        EXPECT_EQ(words(a), c.expected) << c.text;
        EXPECT_EQ(a.m_numValues, 1);
    }
}

// The dateTime and textWithLanguage constructors are held in AttrHtml.Lines and
// AttrAddMulti, the octet one (octetAttr) there too.
TEST(AttrModel, ConstructorsChooseTheStoreByTag) {
    using S = std::vector<std::string>;
    cmp_ipp_attr n(0x23, 1, reinterpret_cast<void*>(static_cast<intptr_t>(-4)), 0);
    EXPECT_EQ(words(n), std::vector<int32_t>{-4});
    cmp_ipp_attr k(0x44, 1, static_cast<void*>(const_cast<char*>("one-sided")), 0);
    EXPECT_EQ(strings(k), (S{"one-sided", ""}));
    EXPECT_TRUE(k.m_strings[1].isSet());
    cmp_ipp_attr nullText(0x41, 1, static_cast<const char*>(nullptr));
    EXPECT_TRUE(nullText.m_strings[0].isSet());
    EXPECT_EQ(nullText.m_strings[0].length(), 0);
    char name[] = "my-attribute";
    cmp_ipp_attr own(0x42, 0, name, 2, "v");
    EXPECT_STREQ(own.cmp_ipp_attr_get_name(), "my");
    EXPECT_EQ(own.m_nameLength, 2);

    const unsigned char raw[] = {9, 8, 7};
    EXPECT_EQ(octets(cmp_ipp_attr(0x30, 1, raw, static_cast<int16_t>(3))), S{"\t\b\a"});
    cmp_ipp_attr fromBuf(0x50, 1, cmp_ipp_buf(raw, 3, true));
    EXPECT_EQ(octets(fromBuf), S{"\t\b\a"});
    EXPECT_NE(fromBuf.m_bufs[0].data(), raw);
}

TEST(AttrModel, NamesFromTheRegistryOrOwn) {
    RegistryTables t;
    t.attrs = {{4, "media", 0x44, 1, 255}};
    ScopedRegistry reg(t);

    cmp_ipp_attr a(0x44, 4, "iso_a4_210x297mm");
    EXPECT_STREQ(a.cmp_ipp_attr_get_name(), "media");
    a.setName("media-colx", 9);
    EXPECT_STREQ(a.cmp_ipp_attr_get_name(), "media-col");
    a.setName("ab", 5);  // copying stops at the NUL, the rest is NUL
    EXPECT_STREQ(a.cmp_ipp_attr_get_name(), "ab");
    EXPECT_EQ(a.m_nameLength, 5);
    a.setName("xyz", 0);
    EXPECT_EQ(a.m_name, nullptr);
    EXPECT_EQ(a.m_nameLength, 0);
    EXPECT_STREQ(a.cmp_ipp_attr_get_name(), "media");

    cmp_ipp_attr unregistered(0x44, 99, "x");
    EXPECT_STREQ(unregistered.cmp_ipp_attr_get_name(), "");
}

TEST(AttrModel, ResetKeepsTagIdentifierAndCapacity) {
    cmp_ipp_attr a(0x44, 4, "x");
    for (int i = 0; i < 4; ++i) {
        a.m_strings.append(cmp_ipp_string("v"));
        a.m_strings.append(cmp_ipp_string(""));
    }
    a.setName("own", 3);
    a.m_memberType = 0x21;
    int32_t cap = a.m_strings.capacity();
    a.reset();
    EXPECT_EQ(a.m_numValues, 0);
    EXPECT_EQ(a.m_strings.length(), 0);
    EXPECT_EQ(a.m_strings.capacity(), cap);
    EXPECT_EQ(a.m_name, nullptr);
    EXPECT_EQ(a.m_memberType, 0);
    EXPECT_EQ(a.m_type, 0x44);
    EXPECT_EQ(a.m_nameId, 4);
}

TEST(AttrModel, AssignmentCopiesEverythingAndGrowsStores) {
    cmp_ipp_attr five(0x42, 8, "own-name", 8, "v0");
    for (int i = 1; i < 5; ++i) {
        five.m_strings.append(cmp_ipp_string(("v" + std::to_string(i)).c_str()));
        five.m_strings.append(cmp_ipp_string(""));
    }
    five.m_numValues = 5;
    five.m_memberType = 0x44;

    cmp_ipp_attr target(0x21, 1, 42);
    ASSERT_EQ(target.m_strings.capacity(), 2);
    target = five;
    EXPECT_EQ(shapeOf(target), shapeOf(five));
    EXPECT_NE(target.m_name, five.m_name);
    EXPECT_EQ(shapeOf(cmp_ipp_attr(five)), shapeOf(five));

    cmp_ipp_attr& self = target;
    target = self;  // must not read the name it releases
    EXPECT_EQ(shapeOf(target), shapeOf(five));
}

TEST(AttrModel, DefaultConstructorAllocatesNothing) {
    const uint32_t calls = emwOSWTestAllocCalls();
    cmp_ipp_attr a;
    EXPECT_EQ(emwOSWTestAllocCalls(), calls);
    EXPECT_EQ(a.m_name, nullptr);
    EXPECT_EQ(a.m_numValues, 0);
    EXPECT_EQ(a.m_bufs[0].data(), cmp_ipp_buf::m_1charbuf);
}

}  // namespace
