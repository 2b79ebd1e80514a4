// The reference printer's pages for people (status page, job pages, which
// path gives which page) and what the front end's authentication means to it:
// the URIs say "basic".
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "msg/msg_fixture.h"
#include "apps/ipp_reply.h"
#include "cmp_ipp_dictionary.h"
#include "cmp_ipp_refprinter.h"
#include "containers/cmp_ipp_malloc.h"
#include "service/cmp_ipp_ippc.h"

namespace {

using namespace ipp_reply;

enum : uint16_t { kPrintJob = 2, kGetJobAttributes = 9, kGetPrinterAttributes = 11 };
enum : uint8_t { kJobGroup = 2, kPrinterGroup = 4 };

// A transport as the front end's requests look to the printer: header fields
// by token, and the reply code the printer sets.
struct FakeTransport {
    cmp_ipp_if_info_s info{};  // first: the library hands this record back
    std::map<int, std::string> fields;
    int replyCode = 0;

    FakeTransport() {
        info.ifKind = 1;
        info.pfnGetData = [](cmp_ipp_if_info_s* i, CMP_IPP_IF_HEADER_FC_FIELD_TOKENS token, char* text) {
            const FakeTransport* t = reinterpret_cast<FakeTransport*>(i);
            auto it = t->fields.find(token);
            if (it == t->fields.end() || it->second.empty()) return 0;
            std::memcpy(text, it->second.c_str(), it->second.size() + 1);
            return 1;
        };
        info.pfnSetReplyCode = [](cmp_ipp_if_info_s* i, CMP_IPP_IF_RETURN_CODES code) {
            reinterpret_cast<FakeTransport*>(i)->replyCode = code;
            return 1;
        };
        info.pfnGetReplyCode = [](cmp_ipp_if_info_s* i, int* code) {
            *code = reinterpret_cast<FakeTransport*>(i)->replyCode;
            return 1;
        };
    }
};

class StatusPage : public ::testing::Test {
protected:
    void SetUp() override { make({"ipp://printer.example:631/ipp/print", "ipps://printer.example:631/ipp/print"}); }
    void TearDown() override { printer.reset(); }

    void make(const std::vector<std::string>& uris, const std::string& authentication = "basic") {
        printer.reset();
        cmp_ipp_dictionary_install();
        refprinter::Config c;
        c.name = "Front <Desk> & Co";
        c.location = "Room \"2\"";
        c.spoolDir = "/dev/null/none";  // never written: the tests send no document data
        c.uris = uris;
        c.uriAuthentication = authentication;
        c.processingMs = 1000;
        c.clockMs = [this] { return clock.load(); };
        printer.reset(new refprinter::Printer(c));
        ASSERT_TRUE(printer->start());
    }

    Response send(const Bytes& request, FakeTransport& t) {
        IPP_STREAM_HANDLE h = IPP_StreamDataStart(request.data(), static_cast<uint32_t>(request.size()), &t.info);
        int length = 0;
        unsigned char* reply = IPP_StreamDataEnd(h, 0, &length);
        const std::string bytes(reinterpret_cast<char*>(reply), reply != nullptr ? static_cast<size_t>(length) : 0);
        cmp_ipp_free(reply);
        return parse(bytes);
    }
    // A Create-Job (no document, so nothing is spooled) by this user; the job
    // then waits for its document.
    Response createJob(const std::string& user, const std::string& name, const char* hold = nullptr) {
        Ipp m;
        m.header(2, 0, 5, 9).opGroup();
        m.text(0x42, "requesting-user-name", user).text(0x42, "job-name", name);
        if (hold != nullptr) m.tag(2).text(0x44, "job-hold-until", hold);
        m.tag(3);
        FakeTransport t;
        return send(m.b, t);
    }
    // Close-Job: no more documents, so the job goes to the printer's queue.
    void closeJob(int32_t id) {
        Ipp m;
        m.header(2, 0, 0x3B, 10).opGroup();
        m.integer(0x21, "job-id", id).tag(3);
        FakeTransport t;
        EXPECT_EQ(send(m.b, t).status, 0);
    }

    std::atomic<int64_t> clock{0};
    std::unique_ptr<refprinter::Printer> printer;
};

bool has(const std::string& page, const std::string& what) { return page.find(what) != std::string::npos; }

// Index of what, or npos; for order checks.
size_t at(const std::string& page, const std::string& what) { return page.find(what); }

TEST_F(StatusPage, StateInWordsAndJobsInTheOrderTheyPrint) {
    std::string page = printer->statusPage();
    EXPECT_TRUE(has(page, "<title>Front &lt;Desk&gt; &amp; Co</title>"));
    EXPECT_TRUE(has(page, "id=\"printer-state\">Idle</p>"));
    EXPECT_TRUE(has(page, "<li>No alerts</li>"));
    EXPECT_TRUE(has(page, "Accepting jobs \xC2\xB7 no jobs queued"));
    EXPECT_TRUE(has(page, "<p>No jobs yet.</p>"));
    EXPECT_TRUE(has(page, "<a href=\"/attributes\">All printer attributes</a>"));
    EXPECT_TRUE(has(page, "<img src=\"/icon.png\""));

    ASSERT_EQ(createJob("ann", "first").status, 0);
    ASSERT_EQ(createJob("bob", "second").status, 0);
    ASSERT_EQ(createJob("cy", "third", "indefinite").status, 0);
    page = printer->statusPage();
    EXPECT_TRUE(has(page, "<td class=\"job-state\">Pending</td><td>Waiting for its document</td>"));
    EXPECT_TRUE(has(page, "<td class=\"job-state\">Held</td><td>Held until released; Waiting for its document</td>"));
    EXPECT_TRUE(has(page, "3 jobs queued"));
    closeJob(1);
    closeJob(2);
    clock = 500;  // job 1 prints, job 2 waits for it
    page = printer->statusPage();
    EXPECT_TRUE(has(page, "class=\"state printing\" id=\"printer-state\">Printing</p>"));
    EXPECT_TRUE(has(page, "<tr id=\"job-1\"><td><a href=\"/jobs/1\">1</a></td><td>first</td><td>ann</td>"
                          "<td class=\"job-state\">Printing</td><td>Printing</td>"));
    EXPECT_TRUE(has(page, "<tr id=\"job-2\"><td><a href=\"/jobs/2\">2</a></td><td>second</td><td>bob</td>"
                          "<td class=\"job-state\">Pending</td><td></td>"));
    EXPECT_LT(at(page, "id=\"job-1\""), at(page, "id=\"job-2\"")) << "active jobs in the order they print";

    clock = 5000;  // both done: the latest finished first, the held one before them
    page = printer->statusPage();
    EXPECT_TRUE(has(page, "id=\"printer-state\">Idle</p>"));
    EXPECT_TRUE(has(page, "<td class=\"job-state\">Completed</td><td>Printed</td>"));
    EXPECT_LT(at(page, "id=\"job-3\""), at(page, "id=\"job-2\""));
    EXPECT_LT(at(page, "id=\"job-2\""), at(page, "id=\"job-1\""));
    EXPECT_TRUE(has(page, "1 job queued"));
}

TEST_F(StatusPage, EverythingAClientSentIsEscaped) {
    const char* name = "<img src=x onerror=alert(1)>";
    const char* user = "\"><script>alert('u')</script>";
    ASSERT_EQ(createJob(user, name).status, 0);
    std::string job;
    ASSERT_TRUE(printer->jobPage(1, &job));
    for (const std::string& page : {printer->statusPage(), job}) {
        EXPECT_FALSE(has(page, "<img src=x")) << page;
        EXPECT_FALSE(has(page, "<script>"));
        EXPECT_TRUE(has(page, "&lt;img src=x onerror=alert(1)&gt;"));
        EXPECT_TRUE(has(page, "&quot;&gt;&lt;script&gt;alert(&#39;u&#39;)&lt;/script&gt;"));
    }
}

TEST_F(StatusPage, WhatThePrinterAcceptsInWords) {
    const std::string page = printer->statusPage();
    const char* expected[] = {
        "<tr><th>Documents</th><td>PDF, PostScript, JPEG, PWG Raster and plain text; other documents are "
        "recognised by their content</td></tr>",
        "Letter (8.5 \xC3\x97 11 in) <small>[default, loaded]</small>",
        "A4 (210 \xC3\x97 297 mm) <small>[loaded]</small>",
        "Index 4x6 (4 \xC3\x97 6 in)",
        "<tr><th>Sides</th><td>One-sided, two-sided (long edge) and two-sided (short edge)</td></tr>",
        "<tr><th>Colour</th><td>Colour and black &amp; white</td></tr>",
        "<tr><th>Quality</th><td>Draft, normal and high</td></tr>",
        "<tr><th>Resolution</th><td>150, 300 and 600 dpi</td></tr>",
        "<tr><th>Copies</th><td>1 to 999</td></tr>",
        "<tr><th>Black Toner</th><td><span class=\"level\" style=\"width:160px;background:#24292f\"></span>80%",
        "<li><code>ipp://printer.example:631/ipp/print</code>: not encrypted, printing needs a user name and "
        "password</li>",
        "<li><code>ipps://printer.example:631/ipp/print</code>: encrypted (TLS), printing needs a user name and "
        "password</li>",
        "Reference Printer R1 \xC2\xB7 Room &quot;2&quot; \xC2\xB7 Reference IPP Everywhere printer",
    };
    for (const char* e : expected) EXPECT_TRUE(has(page, e)) << e;
}

TEST_F(StatusPage, JobPageTellsOneJob) {
    ASSERT_EQ(createJob("ann", "report", "indefinite").status, 0);
    std::string page;
    ASSERT_TRUE(printer->jobPage(1, &page));
    EXPECT_TRUE(has(page, "<h2>Job 1: report</h2>"));
    EXPECT_TRUE(has(page, "<td id=\"job-state\">Held</td>"));
    EXPECT_TRUE(has(page, "<td id=\"job-state-reasons\">Held until released; Waiting for its document</td>"));
    EXPECT_TRUE(has(page, "<tr><th>Owner</th><td>ann</td></tr>"));
    EXPECT_TRUE(has(page, "<tr><th>Finished</th><td>&mdash;</td></tr>"));
    EXPECT_TRUE(has(page, "<code>ipp://printer.example:631/ipp/print/1</code>"));
    EXPECT_TRUE(has(page, "<a href=\"/\">&larr; Printer status</a>"));
    EXPECT_FALSE(printer->jobPage(2, &page));
}

TEST_F(StatusPage, ThePathChoosesThePage) {
    ASSERT_EQ(createJob("ann", "report").status, 0);
    const std::string status = printer->statusPage();
    const std::string attributes = printer->htmlPage();
    std::string job;
    ASSERT_TRUE(printer->jobPage(1, &job));
    struct Case {
        const char* path;
        const std::string* page;  // null: no page
    };
    const Case cases[] = {
        {"", &attributes},      {"/attributes", &attributes}, {"/", &status},
        {"/ipp/print", &status}, {"/jobs/1", &job},            {"/ipp/print/1", &job},
        {"/jobs/2", nullptr},    {"/jobs/", nullptr},          {"/jobs/1x", nullptr},
        {"/jobs/-1", nullptr},   {"/jobs/1234567890", nullptr}, {"/ipp/print/", nullptr},
        {"/other", nullptr},     {"/attributes/", nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        std::string page = "untouched";
        EXPECT_EQ(printer->webPage(c.path, &page), c.page != nullptr);
        if (c.page != nullptr) {
            EXPECT_EQ(page, *c.page);
        }
    }
}

TEST_F(StatusPage, UrisSayHowTheyAreSecuredAndPagesFollowTheFirst) {
    struct Case {
        std::vector<std::string> uris;
        const char* authentication;
        std::vector<std::string> security, auth;
        const char* moreInfo;
        const char* jobMoreInfo;
    };
    const Case cases[] = {
        {{"ipp://h:631/ipp/print", "ipps://h:631/ipp/print"}, "basic", {"none", "tls"}, {"basic", "basic"},
         "http://h:631/", "http://h:631/jobs/1"},
        {{"ipps://h:631/ipp/print"}, "none", {"tls"}, {"none"}, "https://h:631/", "https://h:631/jobs/1"},
        {{"ipp://h:8631/ipp/print"}, "", {"none"}, {"none"}, "http://h:8631/", "http://h:8631/jobs/1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.uris[0]);
        make(c.uris, c.authentication);
        Ipp m;
        m.header(2, 0, kGetPrinterAttributes, 3).opGroup();
        m.text(0x44, "requested-attributes", "uri-security-supported").text(0x44, "", "uri-authentication-supported");
        m.text(0x44, "", "printer-more-info").text(0x44, "", "printer-icons").tag(3);
        FakeTransport t;
        const Response r = send(m.b, t);
        ASSERT_EQ(r.status, 0);
        const auto values = [&r](const char* name) {
            std::vector<std::string> out;
            if (const Attr* a = r.find(kPrinterGroup, name))
                for (const Value& v : a->values) out.push_back(v.bytes);
            return out;
        };
        EXPECT_EQ(values("uri-security-supported"), c.security);
        EXPECT_EQ(values("uri-authentication-supported"), c.auth);
        EXPECT_EQ(r.text(kPrinterGroup, "printer-more-info"), c.moreInfo);
        EXPECT_EQ(r.text(kPrinterGroup, "printer-icons"), std::string(c.moreInfo) + "icon-sm.png");
        ASSERT_EQ(createJob("ann", "x").status, 0);
        Ipp g;
        g.header(2, 0, kGetJobAttributes, 4).opGroup();
        g.integer(0x21, "job-id", 1).text(0x44, "requested-attributes", "job-more-info").tag(3);
        EXPECT_EQ(send(g.b, t).text(kJobGroup, "job-more-info"), c.jobMoreInfo);
    }
}

}  // namespace
