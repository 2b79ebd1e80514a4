#include <gtest/gtest.h>

#include <string>

#include "msg/cmp_ipp_attrs.h"
#include "msg/cmp_ipp_obj.h"
#include "msg/msg_fixture.h"
#include "platform/emw_osw_test.h"

namespace {

class AttrsTest : public ::testing::Test {
protected:
    ScopedRegistry reg{messageTables()};
};

int32_t valueOf(const cmp_ipp_attr& a) { return a.m_longs.length() > 0 ? a.m_longs[0] : -999; }

TEST_F(AttrsTest, ByNameAppendsDuplicatesAndByIdOverwritesTheFirstOfIdOrName) {
    cmp_ipp_attrs g;
    EXPECT_EQ(g.find(uint16_t{8}), nullptr);
    EXPECT_EQ(g.find("copies"), nullptr);
    EXPECT_EQ(g.cmp_ipp_attrs_index_of(static_cast<const char*>(nullptr)), -1);
    EXPECT_FALSE(g.contains(8));
    cmp_ipp_attr one(0x21, 8, 1), two(0x21, 8, 2), three(0x21, 8, 3);
    g.cmp_ipp_attrs_set_attr_by_name(&one, false);
    g.cmp_ipp_attrs_set_attr_by_name(&two, false);
    ASSERT_EQ(g.count(), 2);
    g.cmp_ipp_attrs_set_attr(&three, false);
    ASSERT_EQ(g.count(), 2);
    EXPECT_EQ(valueOf(g[0]), 3);
    EXPECT_EQ(valueOf(g[1]), 2);

    cmp_ipp_attr four(0x21, 8, 4);
    g.cmp_ipp_attrs_set_attr_by_name(&four, true);
    EXPECT_EQ(g.count(), 2);
    EXPECT_EQ(valueOf(g[0]), 4) << "replace by name overwrites the first of that name";
    g.cmp_ipp_attrs_set_attr_by_name(nullptr, true);
    g.cmp_ipp_attrs_set_attr(nullptr, true);
    EXPECT_EQ(g.count(), 2);

    // Identifier 0: keyed by the own name, no other entry of identifier 0 is touched.
    cmp_ipp_attr y(0x41, 0, "y", 1, "first y"), x(0x41, 0, "x", 1, "first x"), x2(0x41, 0, "x", 1, "second x");
    g.cmp_ipp_attrs_set_attr(&y, false);
    g.cmp_ipp_attrs_set_attr(&x, false);
    g.cmp_ipp_attrs_set_attr(&x2, false);
    ASSERT_EQ(g.count(), 4);
    EXPECT_STREQ(g[2].m_strings[0].c_str(), "first y");
    EXPECT_STREQ(g[3].m_strings[0].c_str(), "second x");
    EXPECT_EQ(g.find("x"), &g[3]);
}

TEST_F(AttrsTest, CollectionMarkersFollowTheReplaceMemberRule) {
    const struct {
        int16_t tag;
        int32_t values;
        bool replaceMember;
        int32_t expectedCount;
        bool overwritten;
    } cases[] = {
        {0x34, 0, true, 1, false},  // begCollection with a known id: dropped
        {0x34, 0, false, 2, false},
        {0x37, 0, true, 1, false},
        {0x4A, 0, true, 1, false},  // member without values: dropped
        {0x4A, 1, true, 1, true},   // member with values: overwrites
        {0x4A, 1, false, 2, false},
    };
    for (const auto& c : cases) {
        cmp_ipp_attrs g;
        cmp_ipp_attr existing(0x45, 11, "ipp://old");
        g.cmp_ipp_attrs_set_attr(&existing, false);
        cmp_ipp_attr marker(c.tag, 11);
        if (c.values > 0) {
            marker.m_memberType = 0x45;
            marker.m_strings.append(cmp_ipp_string("ipp://new"));
            marker.m_strings.append(cmp_ipp_string(""));
            marker.m_numValues = c.values;
        }
        g.cmp_ipp_attrs_set_attr(&marker, c.replaceMember);
        SCOPED_TRACE("tag " + std::to_string(c.tag) + " replace " + std::to_string(c.replaceMember));
        EXPECT_EQ(g.count(), c.expectedCount);
        EXPECT_EQ(g[0].m_type == c.tag, c.overwritten);
    }
}

TEST_F(AttrsTest, TypedSettersAndMerging) {
    cmp_ipp_attrs g;
    g.cmp_ipp_attrs_set_attr(0x21, 8, 5);
    g.cmp_ipp_attrs_set_attr(0x33, 9, 1, 10, 0);
    g.cmp_ipp_attrs_set_attr(0x44, 20, "one-sided");
    g.cmp_ipp_attrs_set_attr(0x35, 5, "text", "en");
    const unsigned char bytes[] = {1, 2};
    g.cmp_ipp_attrs_set_attr(0x30, 17, bytes, int16_t{2});
    g.cmp_ipp_attrs_set_attr(0x30, 16, static_cast<void*>(nullptr));
    ASSERT_EQ(g.count(), 6);
    EXPECT_EQ(g[1].m_longs[1], 10);
    EXPECT_STREQ(g[3].m_strings[1].c_str(), "en");
    EXPECT_EQ(g[4].m_bufs[0].length(), 2u);
    EXPECT_EQ(g[5].m_bufs[0].length(), 0u);
    g.cmp_ipp_attrs_set_attr(0x21, 8, 6);
    EXPECT_EQ(g.count(), 6);
    EXPECT_EQ(valueOf(g[0]), 6);
    g.cmp_ipp_attrs_clear();
    g.deleteUnprotected();
    EXPECT_EQ(g.count(), 6);

    cmp_ipp_attrs other;
    other.cmp_ipp_attrs_set_attr(0x21, 8, 7);
    other.cmp_ipp_attrs_set_attr(0x21, 16, 42);
    g.setAttrs(other);
    EXPECT_EQ(g.count(), 6) << "id 16 already present: overwritten, not appended";
    EXPECT_EQ(valueOf(g[0]), 7);
    EXPECT_EQ(valueOf(g[5]), 42);
}

TEST_F(AttrsTest, HtmlIndentsCollectionMembers) {
    cmp_ipp_attrs empty("Op");
    EXPECT_EQ(empty.toHTML().length(), 0);

    cmp_ipp_attrs g("Job0");
    cmp_ipp_attr beg(0x34, 18), member(0x4A, 0, "x", 1, "v"), end(0x37, 0), stray(0x37, 0);
    member.m_memberType = 0x44;
    g.cmp_ipp_attrs_set_attr_by_name(&beg, false);
    g.cmp_ipp_attrs_set_attr_by_name(&member, false);
    g.cmp_ipp_attrs_set_attr_by_name(&end, false);
    g.cmp_ipp_attrs_set_attr_by_name(&stray, false);
    std::string html = g.toHTML().c_str();
    const std::string head = "\n<br><big><b>Attrs group: Job0</b></big><br>\n";
    ASSERT_EQ(html.compare(0, head.size(), head), 0) << html;
    const std::string indent = "&nbsp;&nbsp;&nbsp;&nbsp;";
    std::string expected = head + beg.toHTML(false).c_str() + "<br>\n" + indent + member.toHTML(false).c_str() +
                           "<br>\n" + end.toHTML(false).c_str() + "<br>\n" + stray.toHTML(false).c_str() + "<br>\n";
    EXPECT_EQ(html, expected);
}

TEST_F(AttrsTest, ObjectAssignmentMergesAndLockedSettersWork) {
    cmp_ipp_obj a, b;
    EXPECT_STREQ(a.getName(), "");
    a.setName("printer");
    a.cmp_ipp_attrs_set_attr(0x21, 8, 1);
    a.cmp_ipp_attrs_set_attr(0x44, 20, "one-sided");
    b.setName("other");
    b.cmp_ipp_attrs_set_attr(0x21, 8, 2);
    b.cmp_ipp_attrs_set_attr(0x21, 16, 9);
    a = b;
    EXPECT_STREQ(a.getName(), "other");
    ASSERT_EQ(a.m_attrs.count(), 3);
    EXPECT_EQ(valueOf(a.m_attrs[0]), 2);
    EXPECT_STREQ(a.m_attrs[1].m_strings[0].c_str(), "one-sided");

    a.resetAttr(8);
    EXPECT_EQ(a.m_attrs.count(), 3);
    EXPECT_EQ(a.m_attrs[0].m_numValues, 0);
}

TEST_F(AttrsTest, MutexFailuresAreTracedAndTheObjectStaysUsable) {
    TraceCapture trace(0);
    emwOSWTestFailNextMutexOps(1);
    {
        cmp_ipp_obj o;
        ASSERT_EQ(trace.lines().size(), 1u);
        EXPECT_EQ(trace.lines()[0].rfind("[ERROR]:cmp_ipp_obj::cmp_ipp_obj(", 0), 0u) << trace.lines()[0];
        o.cmp_ipp_attrs_set_attr(0x21, 8, 3);
        EXPECT_EQ(o.m_attrs.count(), 1);
        EXPECT_TRUE(trace.contains("[ERROR]:cmp_ipp_obj::cmp_ipp_attrs_set_attr("));
    }
    cmp_ipp_obj p;
    emwOSWTestFailNextMutexOps(1);
    p.resetAttr(8);
    EXPECT_TRUE(trace.contains("[ERROR]:cmp_ipp_obj::resetAttr("));
}

}  // namespace
