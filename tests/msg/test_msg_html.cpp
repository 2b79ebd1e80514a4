// HTML renderings of values the corpus does not hold, and the in-place string
// fill the renderers use. The text of each value class is held in AttrHtml.Lines
// and the page frame in EncodeTest.HtmlPage.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <map>
#include <string>

#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"
#include "platform/emw_osw_test.h"

namespace {

// Text, length and state (unset or not) of a string.
std::string shown(const cmp_ipp_string& s) {
    if (!s.isSet()) return "(unset)";
    return std::string(s.data(), static_cast<size_t>(s.length()));
}

// An attribute with the given stores and value count, consistent or not.
cmp_ipp_attr stored(int16_t tag, uint16_t id, int32_t n, std::vector<int32_t> w, std::vector<std::string> s = {},
                    std::vector<std::string> o = {}, int32_t memberType = 0) {
    cmp_ipp_attr a(tag, id);
    for (int32_t v : w) a.m_longs.append(v);
    for (const std::string& v : s) a.m_strings.append(cmp_ipp_string(v.data(), static_cast<int32_t>(v.size())));
    for (const std::string& v : o) a.m_bufs.append(bufOf(Bytes(v.begin(), v.end())));
    a.m_numValues = n;
    a.m_memberType = memberType;
    return a;
}

// Values the corpus does not hold: extreme numbers, dates with and without a
// direction, texts with NUL bytes, stores shorter than the value count, tags
// without a layout, and collections that do not balance.
TEST(MsgHtml, UnusualValuesRenderWithinTheirStores) {
    using namespace std::string_literals;
    ScopedRegistry reg(messageTables());
    const auto date = [](uint32_t w0, uint32_t w1, uint32_t w2) {
        return std::vector<int32_t>{static_cast<int32_t>(w0), static_cast<int32_t>(w1), static_cast<int32_t>(w2)};
    };
    std::vector<int32_t> twoDates = date(0x07E80305u, 0x0E070905u, 0x2D0B1E00u);
    const std::vector<int32_t> noDirection = date(0xFFFF0C1Fu, 0x17FB3B09u, 0x000E0000u);
    twoDates.insert(twoDates.end(), noDirection.begin(), noDirection.end());

    cmp_ipp_request msg;
    cmp_ipp_attrs* g = msg.getAttrGroup("Job0");
    const cmp_ipp_attr attrs[] = {
        stored(0x21, 16, 5, {0, -1, INT32_MIN, INT32_MAX, 7}),
        stored(0x23, 0, 2, {3}),  // a value count beyond the store
        stored(0x22, 0, 3, {0, 2, -5}),
        stored(0x31, 0, 2, twoDates),
        stored(0x32, 0, 2, {600, -600, 3, INT32_MIN, 0, 4}),
        stored(0x33, 0, 1, {INT32_MIN, INT32_MAX}),
        stored(0x35, 0, 3, {}, {"hello", "en", "a\0b"s, ""}),
        stored(0x36, 0, 1, {}, {"name"}),
        stored(0x41, 0, 2, {}, {"a\0b\0"s, "x", "<b>&amp;", "fr"}),
        stored(0x44, 20, 2, {}, {"one-sided", "", "two-sided-long-edge", ""}),
        stored(0x13, 0, 1, {}),
        stored(0x30, 0, 4, {}, {}, {"AB\0C"s, "", std::string(300, 'o')}),
        stored(0x43, 0, 1, {1}),
        stored(0x7F, 0, 2, {}),
        stored(0x21, 0, 0, {}),
        stored(0x4A, 0, 1, {}, {"a4"}, {}, 0x44),
        stored(0x4A, 19, 0, {}),
        cmp_ipp_attr(0x37, 0),  // an endCollection without a begCollection
        cmp_ipp_attr(0x34, 18),
        cmp_ipp_attr(0x34, 19),
        stored(0x4A, 0, 1, {21000}, {}, {}, 0x21),
        cmp_ipp_attr(0x37, 0),
        cmp_ipp_attr(0x34, 0),  // never closed
    };
    for (const cmp_ipp_attr& a : attrs) g->cmp_ipp_attrs_set_attr_by_name(&a, false);
    msg.getAttrGroup("")->cmp_ipp_attrs_set_attr_by_name(&attrs[0], false);  // a group without a name
    (void)msg.getAttrGroup("Printer");                                        // an empty group
    const unsigned char doc[3] = {1, 2, 3};
    for (int16_t op : {int16_t{0x000B}, int16_t{0x0400}, int16_t{0x0777}, int16_t{-1}}) {
        SCOPED_TRACE(op);
        msg.m_operationId = op;
        msg.m_requestId = op < 0 ? INT32_MIN : 77;
        msg.setData(cmp_ipp_buf(doc, op < 0 ? 0u : 3u, true));
        // Short stores and unbalanced collections must render within their blocks
        // (the sanitizer build checks the reads) and keep the page whole.
        const std::string page = shown(msg.cmp_ipp_msg_to_html());
        EXPECT_EQ(page.rfind("<HTML>", 0), 0u);
        EXPECT_EQ(page.substr(page.size() - 14), "</BODY></HTML>");
        for (int32_t i = 0; i < g->count(); ++i)
            for (bool lineBreak : {false, true}) (void)(*g)[i].toHTML(lineBreak);
    }
}

TEST(MsgHtml, StringsFilledInPlace) {
    cmp_ipp_string s("old");
    const uint32_t before = emwOSWTestAllocCalls();
    char* p = s.assignUninitialized(3);
    EXPECT_EQ(emwOSWTestAllocCalls() - before, 1u);
    std::memcpy(p, "a\0b", 3);
    EXPECT_EQ(shown(s), std::string("a\0b", 3));
    EXPECT_EQ(s.data()[3], '\0') << "terminated";
    s.assignUninitialized(0);
    EXPECT_TRUE(s.isSet()) << "empty, not unset";
    EXPECT_EQ(s.length(), 0);
    s.assignUninitialized(-4);
    EXPECT_EQ(s.length(), 0);
    EXPECT_STREQ(s.c_str(), "");
}

}  // namespace
