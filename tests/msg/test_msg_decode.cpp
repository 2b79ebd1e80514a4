#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

class DecodeTest : public ::testing::Test {
protected:
    uint32_t decode(const Bytes& bytes) {
        cmp_ipp_buf buf = bufOf(bytes);
        return req.decode(buf, nullptr);
    }
    ScopedRegistry reg{messageTables()};
    ScopedPrinter printer;
    cmp_ipp_request req;
};

// An attribute's value tag is valid when it is the registry's type for its
// identifier, or when the registry gives no type (-1: any tag goes).
TEST_F(DecodeTest, ValideTypeTakesTheRegistryTypeOrAnyWhereThereIsNone) {
    const struct {
        int16_t tag;
        const char* name;
        bool valid;
    } cases[] = {
        {0x21, "copies", true},   {0x44, "copies", false}, {0x23, "copies", false},
        {0x45, "printer-uri", true}, {0x41, "printer-uri", false},
        {0x44, "any-tag", true},  {0x21, "any-tag", true},
    };
    for (const auto& c : cases) {
        const cmp_ipp_attr a(c.tag, static_cast<uint16_t>(cmp_ipp_attr::cmp_ipp_attr_name_to_id(c.name)));
        EXPECT_EQ(req.valideType(a), c.valid) << c.name << " as tag 0x" << std::hex << c.tag;
    }
}

// The version a request is answered in, negotiated against the printer's
// ipp-versions-supported; versions that cannot be read refuse the request.
TEST(DecodeVersions, NegotiatedAgainstThePrinterVersions) {
    ScopedRegistry reg{messageTables()};
    const std::vector<std::string> usual = {"1.0", "1.1", "2.0"};
    const std::string E = "[ERROR ]:cmp_ipp_ippmsg::decode(611): Parse Error: 600 at offset 0 (0x0), ";
    const struct {
        std::vector<std::string> printerVersions;
        uint8_t major, minor;
        uint32_t result;
        uint16_t version;
        std::vector<std::string> traces;
    } cases[] = {
        {usual, 1, 1, 0, 0x0101, {}},
        {usual, 1, 0, 0, 0x0100, {}},
        {usual, 2, 0, 0, 0x0200, {}},
        {usual, 1, 5, 0, 0x0101, {}},
        {usual, 2, 7, 0, 0x0200, {}},
        {usual, 3, 0, 0x0503, 0x0200, {E + "value=3 (0x3).\n"}},
        {usual, 0, 9, 0x0503, 0x0100, {E + "value=0 (0x0).\n"}},
        {{"2.0", "1.1"}, 1, 1, 0, 0x0101, {}},
        {{}, 1, 1, 0x0500, 0x0200, {E + "value=1 (0x1).\n"}},
        {{"1.1", "2"}, 1, 1, 0x0500, 0x0200, {E + "value=1 (0x1).\n"}},  // "2" has no minor part
        {{"10.0"}, 1, 1, 0x0500, 0x0200, {E + "value=1 (0x1).\n"}},      // only three characters are read
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << int(c.major) << "." << int(c.minor) << " against "
                                        << c.printerVersions.size() << " versions");
        ScopedPrinter printer(c.printerVersions, {0x000B});
        cmp_ipp_request req;
        Ipp m;
        m.header(c.major, c.minor, 0x000B, 1).opGroup().tag(0x03);
        cmp_ipp_buf buf = bufOf(m.b);
        TraceCapture trace(2);
        EXPECT_EQ(req.decode(buf, nullptr), c.result);
        EXPECT_EQ(req.m_version, c.version);
        EXPECT_EQ(trace.lines(), c.traces);
    }
}

Bytes build(const std::function<void(Ipp&)>& f) {
    Ipp m;
    f(m);
    return m.b;
}

TEST_F(DecodeTest, FramingErrorsAndTheirTraces) {
    const struct {
        const char* what;
        Bytes bytes;
        uint32_t result;
        std::vector<const char*> traces;  // a piece of each expected trace line, in order
        int32_t jobAttributes = 0;
    } cases[] = {
        {"empty", {}, 0x0400, {"Parse Error: 603 at offset 0 (0x0), value=0 (0x0)."}},
        {"request id 0", build([](Ipp& m) { m.header(1, 1, 0x000B, 0).opGroup().tag(3); }), 0x0400, {}},
        {"operation not supported", build([](Ipp& m) { m.header(1, 1, 0x0010, 1).opGroup().tag(3); }), 0x0501, {"Parse Error: 601 at offset 2 (0x2), value=16 (0x10)."}},
        {"first delimiter is end", build([](Ipp& m) { m.header(1, 1, 0x000B, 1).tag(3); }), 0x0400, {"Parse Error: 606 at offset -1 (0xffffffff), value=1 (0x1)."}},
        {"no Op group", build([](Ipp& m) { m.header(1, 1, 0x000B, 1).tag(6).text(0x44, "sides", "x").tag(3); }),
         0x0400, {"Parse Error: 606 at offset -1"}},
        {"Op, Printer, Job", build([](Ipp& m) { m.header(1, 1, 2, 1).opGroup().tag(4).tag(2).tag(3); }), 0x0400, {"Parse Error: 609 at offset 113 (0x71), value=2 (0x2)."}},
        {"Op twice", build([](Ipp& m) { m.header(1, 1, 2, 1).opGroup().tag(1).tag(3); }), 0x0400, {"Parse Error: 605 at offset 112 (0x70), value=1 (0x1).", "Parse Error: 609 at offset 112 (0x70), value=1 (0x1)."}},
        {"Job twice", build([](Ipp& m) { m.header(1, 1, 2, 1).opGroup().tag(2).tag(2).tag(3); }), 0x0400, {"Parse Error: 605 at offset 113", "Parse Error: 609 at offset 113"}},
        {"Unsupported third", build([](Ipp& m) { m.header(1, 1, 2, 1).opGroup().tag(6).tag(5).tag(3); }), 0x0400, {"Parse Error: 609 at offset 113 (0x71), value=5 (0x5)."}},
        {"Op after another group", build([](Ipp& m) { m.header(1, 1, 2, 1).tag(6).tag(1).tag(3); }), 0x0400, {"Parse Error: 609 at offset 9 (0x9), value=1 (0x1)."}},
        {"zero delimiter", build([](Ipp& m) { m.header(1, 1, 2, 1).opGroup().tag(0); }), 0x0400, {"Parse Error: 602 at offset 112 (0x70), value=0 (0x0)."}},
        {"truncated: no end tag", build([](Ipp& m) { m.header(1, 1, 2, 1).opGroup(); }), 0x0400, {"Parse Error: 602 at offset 112"}},
        {"additional value first", build([](Ipp& m) { m.header(1, 1, 2, 1).tag(1).text(0x44, "", "x").tag(3); }),
         0x0400, {"Parse Error: 607 at offset 9 (0x9), value=68 (0x44)."}},
        {"attribute cut short", build([](Ipp& m) { m.header(1, 1, 2, 1).tag(1).raw({0x21, 0x00, 0x05, 'c'}); }),
         0x0400,
         {"[ERROR ]:cmp_ipp_ippattr::Create(273): Attr: wrong value length",
          "Parse Error: 602 at offset 9 (0x9), value=33 (0x21)."}},
        {"tag not the registered type: the attribute is stored, then decoding ends",
         build([](Ipp& m) {
             m.header(1, 1, 2, 1).opGroup().tag(2).text(0x41, "copies", "two").integer(0x21, "job-id", 4).tag(3);
         }),
         0x0400, {") parse error. Id[8] Type[33] vs [65]\n"}, 1},
        {"tag neither the registered nor the alternate type",
         build([](Ipp& m) { m.header(1, 1, 2, 1).opGroup().tag(2).text(0x41, "media", "x").tag(3); }), 0x0400,
         {") parse error. Id[15] Type[65]\n"}, 1},
        {"Op, Unsupported, Job", build([](Ipp& m) { m.header(1, 1, 2, 1).opGroup().tag(5).tag(2).tag(3); }), 0, {}},
        {"Op, Subscription x2", build([](Ipp& m) { m.header(1, 1, 2, 1).opGroup().tag(6).tag(6).tag(3); }), 0, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TraceCapture trace(2);
        EXPECT_EQ(decode(c.bytes), c.result);
        const std::vector<std::string> lines = trace.lines();
        ASSERT_EQ(lines.size(), c.traces.size());
        for (size_t i = 0; i < lines.size(); ++i)
            EXPECT_NE(lines[i].find(c.traces[i]), std::string::npos) << lines[i];
        EXPECT_EQ(req.cmp_ipp_msg_get_job_attrs(0)->count(), c.jobAttributes);
    }
}

TEST_F(DecodeTest, GroupsAreNamedAndOrdered) {
    Ipp m;
    m.header(1, 1, 2, 7).opGroup().tag(5).text(0x44, "sides", "x").tag(2).integer(0x21, "copies", 2);
    m.tag(7).text(0x41, "ext", "a").tag(7).text(0x41, "ext2", "b").tag(6).tag(3);
    ASSERT_EQ(decode(m.b), 0u);
    std::vector<std::string> names;
    for (int32_t i = 0; i < req.groupCount(); ++i) names.push_back(req.group(i)->getName());
    EXPECT_EQ(names, (std::vector<std::string>{"Op", "Unsupported", "Job0", "unknownGroup7", "Subscription0"}));
    EXPECT_EQ(req.getAttrGroup("unknownGroup7")->count(), 2) << "one group per unknown tag";

    int words[5] = {0};
    EXPECT_EQ(req.getGroups(words, 4), 7);
    EXPECT_EQ(words[0], 0) << "nothing written when there is no room";
    EXPECT_EQ(req.getGroups(words, 5), 0);
    EXPECT_EQ(words[0], 1);
    EXPECT_EQ(words[1], 5);
    EXPECT_EQ(words[2], 2);
    EXPECT_EQ(words[3], 0xFF | (1 << 16)) << "one job group stands before it";
    EXPECT_EQ(words[4], 6 | (1 << 16));
}

TEST_F(DecodeTest, RangeChecks) {
    const struct {
        const char* what;
        std::function<void(Ipp&)> attrs;
        uint32_t result;
    } cases[] = {
        {"first range reversed", [](Ipp& m) { m.range("page-ranges", 5, 1); }, 0x0400},
        {"only the first range of an attribute is checked",
         [](Ipp& m) {
             m.range("page-ranges", 1, 5).range("", 3, 9);  // same tag: gathered by Create
         },
         0},
        {"additional range overlapping the last",
         [](Ipp& m) { m.range("page-ranges", 1, 5).integer(0x21, "copies", 1).range("", 3, 9); }, 0x0400},
        {"additional range after the last",
         [](Ipp& m) { m.range("page-ranges", 1, 5).integer(0x21, "copies", 1).range("", 6, 9); }, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Ipp m;
        m.header(1, 1, 2, 1).opGroup().tag(2);
        c.attrs(m);
        m.tag(3);
        EXPECT_EQ(decode(m.b), c.result);
        EXPECT_GE(req.cmp_ipp_msg_get_job_attrs(0)->count(), 1) << "the attribute is still stored";
    }
}

TEST_F(DecodeTest, DocumentDataAndCompleteness) {
    Ipp m;
    m.header(1, 1, 2, 1).opGroup().tag(3).raw({'%', 'P', 'D', 'F'});
    ASSERT_EQ(decode(m.b), 0u);
    EXPECT_EQ(contentOf(req.m_docData), (Bytes{'%', 'P', 'D', 'F'}));
    EXPECT_EQ(req.m_dataLength, 4);
    EXPECT_FALSE(req.m_dataComplete) << "Print-Job data may follow";
    EXPECT_EQ(req.m_msgLength, m.b.size());
    EXPECT_EQ(contentOf(req.m_raw), m.b);

    Ipp g;
    g.header(1, 1, 0x000B, 2).opGroup().tag(3);
    ASSERT_EQ(decode(g.b), 0u);
    EXPECT_EQ(req.m_docData.length(), 0u);
    EXPECT_EQ(req.m_dataLength, 0);
    EXPECT_TRUE(req.m_dataComplete);
}

TEST(MessageModel, ConstructionAndRequestIds) {
    ScopedRegistry reg{messageTables()};
    cmp_ipp_msg msg;  // version and operation id: EncodeTest.HtmlPage
    ASSERT_EQ(msg.groupCount(), 4);
    EXPECT_STREQ(msg.group(0)->getName(), "Op");
    EXPECT_STREQ(msg.group(1)->getName(), "Unsupported");
    EXPECT_STREQ(msg.group(2)->getName(), "Printer");
    EXPECT_STREQ(msg.group(3)->getName(), "Job0");
    ASSERT_EQ(msg.m_attrs.count(), 2);
    EXPECT_STREQ(msg.m_attrs[0].m_strings[0].c_str(), "mycharset");
    EXPECT_EQ(msg.m_attrs[1].m_type, 0x48);

    cmp_ipp_request a, b;
    EXPECT_EQ(b.m_requestId, a.m_requestId + 1);
    const int32_t next = cmp_ipp_msg::generateRequestId();
    EXPECT_EQ(cmp_ipp_msg::generateRequestId(), next + 1);
}

}  // namespace
