#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "containers/cmp_ipp_string.h"
#include "platform/emw_osw_test.h"

namespace {

std::string str(const cmp_ipp_string& s) { return std::string(s.c_str(), static_cast<size_t>(s.length())); }

// Unset, empty and text states; empty texts cost no allocation.
TEST(String, UnsetEmptyAndTextStates) {
    const uint32_t calls = emwOSWTestAllocCalls();
    const int32_t blocks = emwOSWTestOutstandingBlocks();
    {
        const cmp_ipp_string unset;
        EXPECT_FALSE(unset.isSet());
        EXPECT_STREQ(unset.c_str(), "");
        cmp_ipp_string empty, copy, fromZero("abc", 0);
        empty.assignBytes(nullptr, -1);
        EXPECT_TRUE(empty.isSet()) << "an empty string holds a zero-length text";
        EXPECT_EQ(empty.length(), 0);
        EXPECT_TRUE(empty.isEqualTo("", 0));
        EXPECT_TRUE(empty.isEqualTo(nullptr, -1));
        copy = unset;
        EXPECT_TRUE(copy.isSet()) << "assigning an unset string yields an empty one";
        EXPECT_TRUE(fromZero.isSet());
        EXPECT_EQ(emwOSWTestAllocCalls(), calls);
        cmp_ipp_string moved(std::move(fromZero));
        EXPECT_TRUE(moved.isSet());
        EXPECT_FALSE(fromZero.isSet());
    }
    EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks);

    cmp_ipp_string withNul;
    withNul.assignBytes("a\0b", 3);
    EXPECT_EQ(withNul.length(), 3);
    EXPECT_TRUE(withNul.isEqualTo("a\0b", 3));
    EXPECT_FALSE(withNul.isEqualTo("a", -1));
}

TEST(String, AppendOfNothingAllocatesNothing) {
    cmp_ipp_string s("ab");
    uint32_t calls = emwOSWTestAllocCalls();
    s.append(nullptr, -1);
    s.append("xyz", 0);
    EXPECT_EQ(emwOSWTestAllocCalls(), calls);
    EXPECT_EQ(str(s), "ab");
    s.append("cd", -1);
    s.append("efg", 1);
    EXPECT_EQ(str(s), "abcde");
    EXPECT_EQ(emwOSWTestAllocCalls(), calls + 2) << "each append allocates exactly once";
}

TEST(String, OrderingRules) {
    const struct {
        const char* self;  // null: unset
        const char* other;
        bool less;
        bool greater;
    } cases[] = {
        {"ab", "abc", true, false}, {"ab", "ab", false, false}, {"ab", "b", true, false},
        {"ab", "a", false, true},   {nullptr, "a", true, false}, {nullptr, "", false, false},
        {"a", "", false, true},     {"\xff", "a", false, true},  {"ab", nullptr, false, true},
    };
    for (const auto& c : cases) {
        cmp_ipp_string s;
        if (c.self != nullptr) s.assignBytes(c.self, -1);
        SCOPED_TRACE(std::string(c.self ? c.self : "<unset>") + " vs " + (c.other ? c.other : "<null>"));
        EXPECT_EQ(s.isLessThan(c.other, -1), c.less);
        EXPECT_EQ(s.isGreaterThan(c.other, -1), c.greater);
    }
}

TEST(String, FindAndRfind) {
    cmp_ipp_string s("abcab");
    const struct {
        const char* pattern;
        int32_t n;
        int32_t start;
        int32_t find;
        int32_t rfind;
    } cases[] = {
        {"ab", 2, 1, 3, 0},   {"ab", 2, -5, 0, 3},  {"ab", 2, -1, 0, 3},  {"ab", 2, 2, 3, 0},
        {"ab", 2, 10, -1, 3}, {"abcabx", 6, 0, -1, -1}, {"zz", 2, 0, -1, -1}, {"", 0, 2, 2, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.pattern) + " from " + std::to_string(c.start));
        EXPECT_EQ(s.find(c.pattern, c.n, c.start), c.find);
        EXPECT_EQ(s.rfind(c.pattern, c.n, c.start), c.rfind);
    }
    cmp_ipp_string unset;
    EXPECT_EQ(unset.find("a", 1, 0), -1);
    EXPECT_EQ(unset.rfind("a", 1, 0), -1);
    EXPECT_EQ(s.find(nullptr, 1, 0), -1);
}

TEST(String, SubstrAndConcatenation) {
    cmp_ipp_string five("abcde");
    EXPECT_FALSE(five.substr(5, -1).isSet());
    EXPECT_EQ(str(five.substr(1, 100)), "bcde");
    EXPECT_EQ(str(five.substr(2, 2)), "cd");
    EXPECT_FALSE(five.substr(-1, 2).isSet());

    cmp_ipp_string unset;
    EXPECT_FALSE((unset + unset).isSet());
    EXPECT_EQ(str(cmp_ipp_string("ab") + static_cast<const char*>(nullptr)), "ab");
    EXPECT_EQ(str(unset + "xy"), "xy");
    cmp_ipp_string nul("a\0b", 3);
    EXPECT_EQ((cmp_ipp_string("z") + nul).length(), 4) << "embedded NULs are carried";
}

}  // namespace
