#include <gtest/gtest.h>

#include "attr/cmp_ipp_attr.h"
#include "attr/cmp_ipp_ipptable.h"
#include "attr/registry_fixture.h"

namespace {

using A = cmp_ipp_attr;

// Hits, misses and first matches are held against a scan of the tables in
// RegistryIndex; these are the answers a miss of getNameIdMinMax gives, for an
// unregistered identifier and for a registered one whose rows have other tags.
TEST(Registry, DefaultRangesByTag) {
    RegistryTables t;
    t.attrs = {{7, "copies", 0x50, 0, 5}};
    ScopedRegistry reg(t);
    EXPECT_STREQ(A::cmp_ipp_attr_id_to_name(7, nullptr), "copies") << "the type is optional";
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
    for (uint16_t id : {uint16_t{3}, uint16_t{7}}) {
        for (const auto& c : cases) {
            int32_t lo = U, hi = U;
            EXPECT_FALSE(A::getNameIdMinMax(id, c.tag, &lo, &hi));
            EXPECT_EQ(lo, c.min) << "id " << id << " tag " << c.tag;
            EXPECT_EQ(hi, c.max) << "id " << id << " tag " << c.tag;
        }
    }
}

}  // namespace
