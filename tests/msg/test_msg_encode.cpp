#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"

namespace {

class EncodeTest : public ::testing::Test {
protected:
    ScopedRegistry reg{messageTables()};
    ScopedPrinter printer;
};

// Only groups with attributes and a known tag are written, in order, then the
// end tag and the document data.
TEST_F(EncodeTest, HeaderNonEmptyGroupsEndTagAndData) {
    const struct {
        const char* label;
        void (*fill)(cmp_ipp_response&);
        Bytes expected;
    } cases[] = {
        {"empty", [](cmp_ipp_response&) {}, Bytes{1, 1, 0, 0, 1, 2, 3, 4, 3}},
        {"data", [](cmp_ipp_response& r) { r.setData(cmp_ipp_buf("DOC", true)); },
         Bytes{1, 1, 0, 0, 1, 2, 3, 4, 3, 'D', 'O', 'C'}},
        {"groups in order",
         [](cmp_ipp_response& r) {
             r.setStatusCode(0x0400);
             r.cmp_ipp_msg_get_job_attrs(0)->cmp_ipp_attrs_set_attr(0x21, 16, 7);
             r.setOpAttr(0x47, 1, "utf-8");
         },
         Ipp().header(1, 1, 0x0400, 0x01020304).tag(1).text(0x47, "attributes-charset", "utf-8")
             .tag(2).integer(0x21, "job-id", 7).tag(3).b},
        {"no delimiter 0x00 or 0xFF ever reaches the wire",
         [](cmp_ipp_response& r) {
             r.getAttrGroup("unknownGroup0")->cmp_ipp_attrs_set_attr(0x21, 16, 1);
             r.getAttrGroup("weird")->cmp_ipp_attrs_set_attr(0x21, 16, 1);
         },
         Bytes{1, 1, 0, 0, 1, 2, 3, 4, 3}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        cmp_ipp_response rsp;
        rsp.m_requestId = 0x01020304;
        rsp.m_version = 0x0101;
        c.fill(rsp);
        EXPECT_EQ(contentOf(rsp.cmp_ipp_msg_encode()), c.expected);
        EXPECT_EQ(contentOf(rsp.cmp_ipp_msg_encode()), c.expected) << "encoding twice gives the same bytes";
        EXPECT_EQ(rsp.m_msgLength, c.expected.size());
        EXPECT_EQ(contentOf(rsp.m_raw), c.expected);
    }

    Ipp m;
    m.header(1, 1, 2, 5).opGroup().tag(9).text(0x41, "vendor-x", "v").tag(3);
    cmp_ipp_request req;
    cmp_ipp_buf buf = bufOf(m.b);
    ASSERT_EQ(req.decode(buf, nullptr), 0u);
    ASSERT_NE(req.getAttrGroup("unknownGroup9")->count(), 0);
    EXPECT_EQ(contentOf(req.cmp_ipp_msg_encode()), m.b) << "written back with the tag it was read with";
}

TEST_F(EncodeTest, HtmlPage) {
    cmp_ipp_msg msg;
    std::string page = msg.cmp_ipp_msg_to_html().c_str();
    EXPECT_EQ(page,
              "<HTML><HEAD><TITLE>IPP Attributes</TITLE></HEAD><BODY BGCOLOR=\"#FFFFFF\"><H2> Message contents "
              "</H2>\nVersion=0x100\n<br>operation id/status code=-1 (0xffffffff) unknown\n<br>request id=0 "
              "(0x0)\n<H2>Attributes</H2>\n<br><big><b>Data</b></big>\n<br>Data is null </BODY></HTML>");

    cmp_ipp_request req;
    req.m_operationId = 2;
    req.m_requestId = 255;
    req.setOpAttr(0x21, 8, 2);
    cmp_ipp_buf data("12345", true);
    req.setData(data);
    page = req.cmp_ipp_msg_to_html().c_str();
    EXPECT_NE(page.find("operation id/status code=2 (0x2) Print-Job"), std::string::npos);
    EXPECT_NE(page.find("request id=255 (0xff)"), std::string::npos);
    EXPECT_NE(page.find("Attrs group: Op"), std::string::npos);
    EXPECT_NE(page.find("\n<br>Data length: 5 Bytes </BODY></HTML>"), std::string::npos);

    cmp_ipp_response rsp;
    rsp.setStatusCode(0x0400);
    page = rsp.cmp_ipp_msg_to_html().c_str();
    EXPECT_NE(page.find("=1024 (0x400) client-error-bad-request"), std::string::npos) << page;
    EXPECT_STREQ(cmp_ipp_msg::getTypeName(0x21), "integer");
}

TEST_F(EncodeTest, ResponseStatusCodes) {
    cmp_ipp_response rsp;
    EXPECT_EQ(rsp.getStatusCode(), 0);
    const struct {
        uint16_t code;
        bool valid;
    } codes[] = {{0x0000, true}, {0x0001, true}, {0x0002, true}, {0x0003, false},
                 {0x03FF, false}, {0x0400, true}, {0x0507, true}, {0x0508, false}};
    for (const auto& c : codes) EXPECT_EQ(rsp.isValidOperation(c.code), c.valid) << c.code;
    rsp.setStatusCode(2);
    EXPECT_FALSE(rsp.m_dataComplete);
    rsp.setStatusCode(0x0400);
    EXPECT_TRUE(rsp.m_dataComplete);
    EXPECT_STREQ(rsp.statusCodeToText(0x0400), "client-error-bad-request");
    EXPECT_STREQ(rsp.statusCodeToText(0x0401), "unknown");
}

TEST(RequestOperations, OperationsSupportedDecides) {
    ScopedRegistry reg{messageTables()};
    {
        ScopedPrinter printer({"1.1"}, {0x0002, 0x000B});
        cmp_ipp_request req;
        EXPECT_TRUE(req.isValidOperation(0x000B));
        EXPECT_FALSE(req.isValidOperation(0x0004));
    }
    ScopedPrinter without({"1.1"}, {});
    cmp_ipp_request req;
    EXPECT_FALSE(req.isValidOperation(0x000B)) << "no operations-supported: nothing is supported";
}

TEST_F(EncodeTest, JobStateReasonsForOldClients) {
    const struct {
        uint16_t version;
        std::vector<std::string> before, after;
    } cases[] = {
        {0x0101, {"document-format-error"}, {"document-format-error"}},
        {0x0100, {"document-format-error", "other"}, {"aborted_by_system"}},
        {0x0100, {"job-queued-for-marker"}, {"job-printing"}},
        {0x0100, {"queued-in-device"}, {"job-completed-successfully"}},
        {0x0100, {"job-data-insufficient"}, {"job-incoming"}},
        {0x0100, {"job-printing", "job-queued-for-marker"}, {"job-printing", "job-queued-for-marker"}},
    };
    for (const auto& c : cases) {
        cmp_ipp_response rsp;
        rsp.m_version = c.version;
        cmp_ipp_attr a(0x44, 10, c.before[0].c_str());
        for (size_t i = 1; i < c.before.size(); ++i)
            a.cmp_ipp_attr_add_multi(cmp_ipp_attr(0x44, 0, c.before[i].c_str()));
        rsp.cmp_ipp_msg_get_job_attrs(0)->cmp_ipp_attrs_set_attr(&a, false);
        rsp.cmp_ipp_res_convert_to_version();
        const cmp_ipp_attr* r = rsp.cmp_ipp_msg_get_job_attrs(0)->find(uint16_t{10});
        ASSERT_NE(r, nullptr);
        std::vector<std::string> got;
        for (int32_t i = 0; i < r->m_numValues; ++i) got.push_back(r->m_strings[2 * i].c_str());
        EXPECT_EQ(got, c.after) << c.before[0];
    }
}

// A transport record whose zone header holds a fixed text.
struct ZoneRecord {
    std::string zone;
    cmp_ipp_if_info_s info{};
    explicit ZoneRecord(std::string z) : zone(std::move(z)) {
        info.ctx = this;
        info.pfnGetData = [](cmp_ipp_if_info_s* rec, CMP_IPP_IF_HEADER_FC_FIELD_TOKENS field, char* text) -> int {
            auto* self = static_cast<ZoneRecord*>(rec->ctx);
            if (field != CMP_IPP_IF_HDR_CLIENT_ZONE) return 0;
            std::strncpy(text, self->zone.c_str(), 2023);
            return 1;
        };
    }
};

TEST_F(EncodeTest, ClientZoneIsInsertedIntoPrinterUris) {
    const struct {
        const char *zone, *uri, *expected;
    } cases[] = {
        {"%25eth0", "ipp://[fe80::1]:631/ipp/print", "ipp://[fe80::1%25eth0]:631/ipp/print"},
        {"+eth0", "ipp://[fe80::1]:631/ipp/print", "ipp://[v1.fe80::1+eth0]:631/ipp/print"},
        {"%25eth0", "ipp://printer.local/ipp/print", "ipp://printer.local/ipp/print"},
        {"%25eth0", "ipp://]x[/odd", "ipp://]x[/odd"},
        {"#eth0", "ipp://[fe80::1]/", "ipp://[fe80::1]/"},
        {"%", "ipp://[fe80::1]/", "ipp://[fe80::1]/"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.zone) + " " + c.uri);
        ZoneRecord record(c.zone);
        cmp_ipp_response rsp;
        rsp.m_ifInfo = &record.info;
        cmp_ipp_attrs* p = rsp.getAttrGroup("Printer");
        p->cmp_ipp_attrs_set_attr(0x21, 8, 1);
        cmp_ipp_attr uris = multi(cmp_ipp_attr(0x45, 11, c.uri), {cmp_ipp_attr(0x45, 0, "ipp://[fe80::2]/x")});
        p->cmp_ipp_attrs_set_attr(&uris, false);
        rsp.convertToClientZone();

        ASSERT_EQ(p->count(), 2);
        const cmp_ipp_attr& r = (*p)[1];
        EXPECT_EQ(r.m_type, 0x45) << "a uri attribute of its own name, not a member attribute";
        ASSERT_EQ(r.m_numValues, 2);
        EXPECT_STREQ(r.m_strings[0].c_str(), c.expected);

        // On the wire a client reads printer-uri-supported as before.
        const Bytes out = contentOf(rsp.cmp_ipp_msg_encode());
        Ipp expected;
        expected.header(1, 0, 0, 0).tag(4).integer(0x21, "copies", 1);
        expected.text(0x45, "printer-uri-supported", c.expected);
        expected.text(0x45, "", r.m_strings[2].c_str()).tag(3);
        EXPECT_EQ(out, expected.b);
    }
}

}  // namespace
