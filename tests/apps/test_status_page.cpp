// The reference printer's pages for people (status page, job pages, which
// path gives which page) and what the front end's authentication means to it:
// the URIs say "basic".
#include "apps/refprinter_fixture.h"

namespace {

using namespace ipp_reply;

class StatusPage : public PrinterFixture {
protected:
    void SetUp() override {
        PrinterFixture::SetUp();
        make({"ipp://printer.example:631/ipp/print", "ipps://printer.example:631/ipp/print"});
    }
    void make(const std::vector<std::string>& uris, const std::string& authentication = "basic") {
        start([&](refprinter::Config& c) {
            c.name = "Front <Desk> & Co";
            c.location = "Room \"2\"";
            c.uris = uris;
            c.uriAuthentication = authentication;
        });
    }
};

bool has(const std::string& page, const std::string& what) { return page.find(what) != std::string::npos; }

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
    // Close-Job: no more documents, so the jobs go to the printer's queue.
    EXPECT_EQ(jobRequest(kCloseJob, 1).status, 0);
    EXPECT_EQ(jobRequest(kCloseJob, 2).status, 0);
    clock = 500;  // job 1 prints, job 2 waits for it
    page = printer->statusPage();
    EXPECT_TRUE(has(page, "class=\"state printing\" id=\"printer-state\">Printing</p>"));
    EXPECT_TRUE(has(page, "<tr id=\"job-1\"><td><a href=\"/jobs/1\">1</a></td><td>first</td><td>ann</td>"
                          "<td class=\"job-state\">Printing</td><td>Printing</td>"));
    EXPECT_TRUE(has(page, "<tr id=\"job-2\"><td><a href=\"/jobs/2\">2</a></td><td>second</td><td>bob</td>"
                          "<td class=\"job-state\">Pending</td><td></td>"));
    EXPECT_LT(page.find("id=\"job-1\""), page.find("id=\"job-2\"")) << "active jobs in the order they print";

    clock = 5000;  // both done: the latest finished first, the held one before them
    page = printer->statusPage();
    EXPECT_TRUE(has(page, "id=\"printer-state\">Idle</p>"));
    EXPECT_TRUE(has(page, "<td class=\"job-state\">Completed</td><td>Printed</td>"));
    EXPECT_LT(page.find("id=\"job-3\""), page.find("id=\"job-2\""));
    EXPECT_LT(page.find("id=\"job-2\""), page.find("id=\"job-1\""));
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

// Which path gives which page, and what the job page tells of its job.
TEST_F(StatusPage, ThePathChoosesThePage) {
    ASSERT_EQ(createJob("ann", "report", "indefinite").status, 0);
    const std::string status = printer->statusPage();
    const std::string attributes = printer->htmlPage();
    std::string job;
    ASSERT_TRUE(printer->jobPage(1, &job));
    for (const char* line : {"<h2>Job 1: report</h2>", "<td id=\"job-state\">Held</td>",
                             "<td id=\"job-state-reasons\">Held until released; Waiting for its document</td>",
                             "<tr><th>Owner</th><td>ann</td></tr>", "<tr><th>Finished</th><td>&mdash;</td></tr>",
                             "<code>ipp://printer.example:631/ipp/print/1</code>",
                             "<a href=\"/\">&larr; Printer status</a>"})
        EXPECT_TRUE(has(job, line)) << line;
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
        const Response r = printerRequest(
            {"uri-security-supported", "uri-authentication-supported", "printer-more-info", "printer-icons"});
        ASSERT_EQ(r.status, 0);
        EXPECT_EQ(r.texts(kPrinterGroup, "uri-security-supported"), c.security);
        EXPECT_EQ(r.texts(kPrinterGroup, "uri-authentication-supported"), c.auth);
        EXPECT_EQ(r.text(kPrinterGroup, "printer-more-info"), c.moreInfo);
        EXPECT_EQ(r.text(kPrinterGroup, "printer-icons"), std::string(c.moreInfo) + "icon-sm.png");
        ASSERT_EQ(createJob("ann", "x").status, 0);
        EXPECT_EQ(jobRequest(kGetJobAttributes, 1, {"job-more-info"}).text(kJobGroup, "job-more-info"), c.jobMoreInfo);
    }
}

}  // namespace
