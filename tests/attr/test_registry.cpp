#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "attr/cmp_ipp_ipptable.h"
#include "attr/registry_fixture.h"

namespace {

using A = cmp_ipp_attr;

TEST(Registry, EveryLookupMissesWithoutTables) {
    ScopedRegistry none;
    EXPECT_EQ(A::cmp_ipp_attr_name_to_id("sides"), 0);
    int16_t type = 77;
    EXPECT_STREQ(A::cmp_ipp_attr_id_to_name(1, &type), "");
    EXPECT_EQ(type, 77);
    EXPECT_EQ(A::nameIdToType(1), 0);
    EXPECT_EQ(A::nameIdToAlternateType(1), 0);
    EXPECT_FALSE(A::nameIdIsOneSetOf(1));
    EXPECT_STREQ(cmp_ipp_ipptable_op_name(2), "unknown");
    EXPECT_STREQ(cmp_ipp_ipptable_status_text(0), "unknown");
}

RegistryTables sample() {
    RegistryTables t;
    t.attrs = {
        {7, "copies", 0x21, 1, 999},
        {7, "copies", 0x33, 5, 50},
        {9, "sides", 0x44, 1, 255},
        {10, "sides", 0x44, 1, 255},  // duplicate name: the first row wins
        {11, "job-name", -1, 0, 255},
    };
    t.altTypes = {{9, 0x42, 0, 255}, {7, 0x13, 0, 0}};
    t.oneSetOf = {9, 11};
    t.operations = {{2, "Print-Job"}, {2, "Shadowed"}};
    t.statuses = {{0x0400, "client-error-bad-request"}};
    return t;
}

TEST(Registry, FirstMatchingRowWins) {
    ScopedRegistry reg(sample());
    EXPECT_EQ(A::cmp_ipp_attr_name_to_id("sides"), 9);
    EXPECT_EQ(A::cmp_ipp_attr_name_to_id("SIDES"), 0) << "names match case-sensitively";
    EXPECT_EQ(A::nameIdToType(7), 0x21);
    EXPECT_EQ(A::nameIdToType(11), -1);
    EXPECT_EQ(A::nameIdToAlternateType(9), 0x42);
    EXPECT_EQ(A::nameIdToAlternateType(8), 0);
    EXPECT_TRUE(A::nameIdIsOneSetOf(11));
    EXPECT_FALSE(A::nameIdIsOneSetOf(7));
    int16_t type = 0;
    EXPECT_STREQ(A::cmp_ipp_attr_id_to_name(7, &type), "copies");
    EXPECT_EQ(type, 0x21);
    EXPECT_STREQ(A::cmp_ipp_attr_id_to_name(7, nullptr), "copies");
    EXPECT_STREQ(cmp_ipp_ipptable_op_name(2), "Print-Job");
    EXPECT_STREQ(cmp_ipp_ipptable_status_text(0x0400), "client-error-bad-request");
    EXPECT_STREQ(cmp_ipp_ipptable_status_text(0x0401), "unknown");

    // The range row must match identifier and tag together.
    int32_t lo = 0, hi = 0;
    EXPECT_TRUE(A::getNameIdMinMax(7, 0x33, &lo, &hi));
    EXPECT_EQ(lo, 5);
    EXPECT_EQ(hi, 50);
    EXPECT_FALSE(A::getNameIdMinMax(7, 0x44, &lo, &hi)) << "registered id, tag without a row: the tag's default";
    EXPECT_EQ(lo, 1);
    EXPECT_EQ(hi, 255);
}

TEST(Registry, DefaultRangesByTag) {
    ScopedRegistry none;
    const int32_t U = -12345;  // a tag without a default leaves the outputs untouched
    const struct {
        int tag;
        int32_t min, max;
    } cases[] = {
        {0x10, 0, 0},    {0x12, 0, 0},    {0x13, 0, 0},  {0x34, 0, 0},  {0x37, 0, 0},  {0x4A, 0, 0},
        {0x21, INT32_MIN, INT32_MAX},     {0x33, INT32_MIN, INT32_MAX}, {0x22, 0, 1},  {0x23, 1, INT32_MAX},
        {0x30, 0, 1023}, {0x35, 0, 1023}, {0x41, 0, 1023},              {0x45, 0, 1023},
        {0x31, 11, 11},  {0x32, 10, 10},  {0x36, 0, 255},               {0x42, 0, 255}, {0x44, 1, 255},
        {0x46, 0, 63},   {0x47, 0, 63},   {0x48, 0, 63},                {0x49, 0, 63},
        {0x11, U, U},    {0x43, U, U},    {-1, U, U},
    };
    for (const auto& c : cases) {
        int32_t lo = U, hi = U;
        EXPECT_FALSE(A::getNameIdMinMax(3, c.tag, &lo, &hi));
        EXPECT_EQ(lo, c.min) << "tag " << c.tag;
        EXPECT_EQ(hi, c.max) << "tag " << c.tag;
    }
}

TEST(Registry, ConcurrentFirstUseSeesOneInstance) {
    std::vector<cmp_ipp_ipptable_def*> seen(8, nullptr);
    std::vector<std::thread> ts;
    for (size_t i = 0; i < seen.size(); ++i)
        ts.emplace_back([&seen, i] { seen[i] = cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance(); });
    for (auto& t : ts) t.join();
    for (auto* p : seen) EXPECT_EQ(p, seen[0]);
}

}  // namespace
