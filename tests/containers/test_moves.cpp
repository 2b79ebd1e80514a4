// The vector hands its elements over when it grows and keeps the capacities and
// assignment rules of a step-5 array; buffers, strings and attributes move
// their storage instead of copying it and are left valid and empty.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "attr/cmp_ipp_attr.h"
#include "attr/codec_test_util.h"
#include "containers/cmp_ipp_buf.h"
#include "containers/cmp_ipp_string.h"
#include "containers/cmp_ipp_vector.h"
#include "platform/emw_osw_test.h"

namespace {

// Counts what happens to it: constructions of each kind, copies, moves and destructions.
struct Tracked {
    static int made, copies, moves, destroyed;
    static void reset() { made = copies = moves = destroyed = 0; }
    static int alive() { return made - destroyed; }

    int v = -1;
    Tracked() noexcept { ++made; }
    Tracked(const Tracked& o) : v(o.v) {
        ++made;
        ++copies;
    }
    Tracked(Tracked&& o) noexcept : v(o.v) {
        ++made;
        ++moves;
        o.v = -2;
    }
    Tracked& operator=(const Tracked& o) {
        v = o.v;
        ++copies;
        return *this;
    }
    Tracked& operator=(Tracked&& o) noexcept {
        v = o.v;
        ++moves;
        o.v = -2;
        return *this;
    }
    ~Tracked() { ++destroyed; }
};
int Tracked::made, Tracked::copies, Tracked::moves, Tracked::destroyed;

// A group holds its attributes by value and each attribute three vectors, so
// the vector is one pointer (its counts live in its array) and the attribute
// packs without gaps: 56 bytes on a 64-bit host, 36 on the 32-bit target.
static_assert(sizeof(cmp_ipp_vector<cmp_ipp_attr>) == sizeof(void*), "a vector is one pointer");
static_assert(sizeof(cmp_ipp_attr) == (sizeof(void*) == 8 ? 56 : 36), "attribute footprint");

// The capacities of a step-5 array: 2, then 7, 12, ...; from a reserved size
// growth goes on in steps of 5. Growing moves the elements, never copies them.
TEST(VectorGrowth, StepFiveCapacitiesAndMovesNeverCopies) {
    const struct {
        int32_t reserved;  // 0: no reserve
        int32_t appends;
        int32_t capacity;
    } cases[] = {{0, 0, 2},  {0, 1, 2},  {0, 2, 2},  {0, 3, 7},   {0, 7, 7},     {0, 8, 12},
                 {0, 13, 17}, {0, 300, 302}, {1, 0, 2}, {23, 0, 23}, {23, 24, 28}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "reserve " << c.reserved << ", appends " << c.appends);
        Tracked::reset();
        {
            cmp_ipp_vector<Tracked> v;
            if (c.reserved > 0) v.reserve(c.reserved);
            for (int32_t i = 0; i < c.appends; ++i) v.appendSlot().v = i;
            EXPECT_EQ(v.capacity(), c.capacity);
            EXPECT_EQ(v.growBy(), 5);
            EXPECT_EQ(Tracked::alive(), v.hasStorage() ? v.capacity() : 0) << "exactly the capacity is constructed";
            EXPECT_EQ(Tracked::copies, 0);
            EXPECT_LE(Tracked::moves, 3 * c.appends) << "about twice per doubling (step-5 arrays: some 9000 for 300)";
            for (int32_t i = 0; i < c.appends; ++i) ASSERT_EQ(v[i].v, i);
            for (int32_t i = c.appends; i < v.capacity() && v.hasStorage(); ++i) EXPECT_EQ(v[i].v, -1) << "spare " << i;

            v.clear();
            EXPECT_EQ(v.capacity(), c.capacity) << "emptying keeps the array";
            EXPECT_EQ(v.hasStorage(), c.reserved > 1 || c.appends > 0) << "and makes none";
            EXPECT_TRUE(c.appends <= 5 || v[5].v == 5) << "emptying keeps the elements";
        }
        EXPECT_EQ(Tracked::alive(), 0) << "every element, spares included, is destroyed once";
    }
}

TEST(VectorGrowth, AssignmentFollowsTheArrayRules) {
    cmp_ipp_vector<Tracked> v;
    for (int i = 0; i < 24; ++i) v.appendSlot().v = i;
    cmp_ipp_vector<Tracked> small;
    small.appendSlot().v = 99;
    Tracked::reset();
    small = v;
    EXPECT_EQ(small.capacity(), v.capacity());
    EXPECT_EQ(small.length(), 24);
    EXPECT_EQ(Tracked::copies, 24) << "assignment copies each element once";
    EXPECT_EQ(small[23].v, 23);

    cmp_ipp_vector<Tracked> one;
    one.appendSlot().v = 7;
    small = one;
    EXPECT_EQ(small.capacity(), v.capacity()) << "assignment never shrinks";
    EXPECT_EQ(small.length(), 1);
    EXPECT_EQ(small[0].v, 7);

    cmp_ipp_vector<Tracked> empty, target;
    Tracked::reset();
    target = empty;
    EXPECT_EQ(Tracked::made, 0) << "assigning an empty vector makes nothing";
    cmp_ipp_vector<int32_t> wide, fresh;
    wide.reserve(40);
    fresh = wide;
    EXPECT_EQ(fresh.capacity(), 40) << "an empty vector's capacity is taken over too";
    EXPECT_EQ(fresh.length(), 0);
}

TEST(VectorGrowth, AppendingAnElementOfTheSameVectorWhileItGrows) {
    cmp_ipp_vector<cmp_ipp_string> v;
    v.append(cmp_ipp_string("first"));
    v.append(cmp_ipp_string("second"));
    ASSERT_EQ(v.capacity(), 2);
    v.append(v[0]);  // the array is replaced by this very append
    ASSERT_EQ(v.length(), 3);
    EXPECT_STREQ(v[2].c_str(), "first");
    EXPECT_STREQ(v[0].c_str(), "first");
}

TEST(VectorMoves, TheArrayChangesHandsAndTheSourceIsAFreshVector) {
    cmp_ipp_vector<Tracked> a;
    for (int i = 0; i < 9; ++i) a.appendSlot().v = i;
    const Tracked* elements = &a[0];

    cmp_ipp_vector<Tracked> b(std::move(a));
    EXPECT_EQ(&b[0], elements) << "the same array: no element moved or copied";
    EXPECT_EQ(b.length(), 9);
    EXPECT_EQ(b.capacity(), 12);
    EXPECT_EQ(a.length(), 0);
    EXPECT_EQ(a.capacity(), 2);
    a.appendSlot().v = 5;  // still usable
    EXPECT_EQ(a[0].v, 5);

    cmp_ipp_vector<Tracked> c;
    c = std::move(b);
    EXPECT_EQ(&c[0], elements);
    EXPECT_EQ(c.length(), 9);
    EXPECT_EQ(b.length(), 0);
    EXPECT_EQ(b.capacity(), 2);
}

TEST(BufMoves, TheBlockAndItsOwnershipChangeHands) {
    cmp_ipp_buf owned(reinterpret_cast<const unsigned char*>("abcdef"), 6, true);
    const unsigned char* block = owned.data();
    cmp_ipp_buf taken(std::move(owned));
    EXPECT_EQ(taken.data(), block);
    EXPECT_EQ(taken.length(), 6u);
    EXPECT_EQ(taken.capacity(), 7u);
    EXPECT_TRUE(taken.owner());
    EXPECT_EQ(owned.data(), cmp_ipp_buf::m_1charbuf) << "moved-from: empty, on the shared block";
    EXPECT_EQ(owned.length(), 0u);
    EXPECT_EQ(owned.capacity(), 1u);
    owned.append(reinterpret_cast<const unsigned char*>("xy"), 2);
    EXPECT_EQ(std::string(owned.c_str()), "xy") << "and usable";

    unsigned char caller[4] = {'w', 'r', 'a', 'p'};
    cmp_ipp_buf wrapped(caller, 4, false);
    cmp_ipp_buf moved(std::move(wrapped));
    EXPECT_EQ(moved.data(), caller);
    EXPECT_FALSE(moved.owner()) << "a wrapped block stays the caller's";
    EXPECT_EQ(cmp_ipp_buf::m_1charbuf[0], 0);

    // Vector growth moves buffers: blocks stay where they are, spares share the empty block.
    cmp_ipp_vector<cmp_ipp_buf> v;
    v.appendSlot().append(reinterpret_cast<const unsigned char*>("one"), 3);
    const unsigned char* first = v[0].data();
    for (int i = 0; i < 20; ++i) v.appendSlot();
    EXPECT_EQ(v[0].data(), first);
    EXPECT_EQ(v[v.length()].data(), cmp_ipp_buf::m_1charbuf);
}

TEST(AttrMoves, StoresAndNameChangeHandsAndTheSourceIsADefaultAttribute) {
    cmp_ipp_attr a(0x41, 0, "own-name", 8, "text value");
    a.m_longs.append(3);
    const std::string shape = shapeOf(a), fresh = shapeOf(cmp_ipp_attr());
    const char* name = a.m_name;
    const char* text = a.m_strings[0].data();
    const int32_t blocks = emwOSWTestOutstandingBlocks();

    cmp_ipp_attr b(std::move(a));
    EXPECT_EQ(shapeOf(b), shape);
    EXPECT_EQ(b.m_name, name);
    EXPECT_EQ(b.m_strings[0].data(), text);
    EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks) << "nothing copied";
    EXPECT_EQ(shapeOf(a), fresh);

    cmp_ipp_attr c(0x21, 4, 1);
    c = std::move(b);
    EXPECT_EQ(c.m_name, name);
    EXPECT_EQ(c.m_strings[0].data(), text);
    EXPECT_EQ(shapeOf(b), fresh);
    a = c;  // a moved-from attribute takes a copy like any other
    EXPECT_EQ(shapeOf(a), shape);
    EXPECT_NE(a.m_name, c.m_name);
}

TEST(AttrMoves, AVectorOfAttributesGrowsWithoutCopyingTheirValues) {
    cmp_ipp_vector<cmp_ipp_attr> list;
    list.appendSlot() = cmp_ipp_attr(0x41, 0, "n", 1, "value");
    const char* text = list[0].m_strings[0].data();
    const uint32_t calls = emwOSWTestAllocCalls();
    for (int i = 0; i < 40; ++i) list.appendSlot();
    EXPECT_EQ(emwOSWTestAllocCalls(), calls) << "no text copied, no spare allocated";
    EXPECT_EQ(list[0].m_strings[0].data(), text);
    EXPECT_FALSE(list[list.length()].m_strings.hasStorage()) << "spares hold no store arrays";
}

}  // namespace
