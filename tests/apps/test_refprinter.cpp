// The reference printer driven through the library's stream interface with real
// encoded requests: statuses, attributes, job states and spooled documents.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <thread>

#include "apps/refprinter_fixture.h"

namespace {

using namespace ipp_reply;
using refprinter::JobInfo;
using refprinter::JobState;

Bytes bytesOf(const std::string& s) { return Bytes(s.begin(), s.end()); }

void mediaCol(Ipp& m, int32_t x, int32_t y) {
    m.attr(0x34, "media-col", {}).attr(0x4A, "", bytesOf("media-size")).attr(0x34, "", {});
    m.attr(0x4A, "", bytesOf("x-dimension")).integer(0x21, "", x);
    m.attr(0x4A, "", bytesOf("y-dimension")).integer(0x21, "", y).attr(0x37, "", {});
    m.attr(0x4A, "", bytesOf("media-source")).text(0x44, "", "main").attr(0x37, "", {});
}

class RefPrinterTest : public PrinterFixture {
protected:
    void SetUp() override {
        PrinterFixture::SetUp();
        start();
    }
    // Open descriptors of this process that point into the spool directory.
    int openSpoolFiles() const {
        int n = 0;
        DIR* d = opendir("/proc/self/fd");
        while (dirent* e = d != nullptr ? readdir(d) : nullptr) {
            char target[512] = {0};
            const std::string link = std::string("/proc/self/fd/") + e->d_name;
            if (readlink(link.c_str(), target, sizeof target - 1) > 0 && std::string(target).find(spool) == 0) ++n;
        }
        if (d != nullptr) closedir(d);
        return n;
    }
};

TEST_F(RefPrinterTest, RequestsAreCheckedInOrderAndUnsupportedAttributesReported) {
    struct Case { const char* label; std::function<Ipp()> build; uint16_t status; const char* unsupported; size_t newJobs; };
    auto printJobWith = [](std::function<void(Ipp&)> op, std::function<void(Ipp&)> job) {
        return [op, job] {
            Ipp m = request(kPrintJob);
            if (op) op(m);
            if (job) job(m.tag(2));
            return m.tag(3);
        };
    };
    const Case cases[] = {
        {"charset unsupported", [] { Ipp m; m.header(2, 0, kGetJobs, 1).tag(1).text(0x47, "attributes-charset", "koi8-r");
                                     return m.text(0x48, "attributes-natural-language", "en").tag(3); },
         0x040D, "attributes-charset", 0},
        {"which-jobs", [] { return request(kGetJobs).text(0x44, "which-jobs", "sometimes").tag(3); }, 0x040B, "which-jobs", 0},
        {"document-format", printJobWith([](Ipp& m) { m.text(0x49, "document-format", "application/x-what"); }, nullptr),
         0x040A, "document-format", 0},
        {"compression", printJobWith([](Ipp& m) { m.text(0x44, "compression", "compress"); }, nullptr), 0x040F, "compression", 0},
        {"unknown operation attribute", printJobWith([](Ipp& m) { m.text(0x41, "x-note", "hi"); }, nullptr), 0x0001, "x-note", 1},
        {"unsupported sides", printJobWith(nullptr, [](Ipp& m) { m.text(0x44, "sides", "three-sided"); }), 0x0001, "sides", 1},
        {"fidelity", printJobWith([](Ipp& m) { m.attr(0x22, "ipp-attribute-fidelity", {1}); },
                                  [](Ipp& m) { m.text(0x44, "sides", "three-sided"); }), 0x040B, "sides", 0},
        {"copies out of range", printJobWith(nullptr, [](Ipp& m) { m.integer(0x21, "copies", 5000); }), 0x0001, "copies", 1},
        {"unknown job attribute", printJobWith(nullptr, [](Ipp& m) { m.text(0x44, "x-staple", "yes"); }), 0x0001, "x-staple", 1},
        {"media-col odd size", printJobWith(nullptr, [](Ipp& m) { mediaCol(m, 1000, 1000); }), 0x0001, "media-col", 1},
        {"media-col 4x6", printJobWith(nullptr, [](Ipp& m) { mediaCol(m, 10160, 15240); }), 0x0000, "", 1},
        {"supported template", printJobWith(nullptr, [](Ipp& m) {
             m.integer(0x21, "copies", 3).text(0x44, "sides", "two-sided-long-edge").integer(0x23, "print-quality", 5); }),
         0x0000, "", 1},
        {"number-up 4, banner sheet", printJobWith(nullptr, [](Ipp& m) {
             m.integer(0x21, "number-up", 4).text(0x44, "job-sheets", "standard"); }), 0x0000, "", 1},
        {"number-up 3", printJobWith(nullptr, [](Ipp& m) { m.integer(0x21, "number-up", 3); }), 0x0001, "number-up", 1},
        {"job-sheets confidential", printJobWith(nullptr, [](Ipp& m) { m.text(0x44, "job-sheets", "confidential"); }),
         0x0001, "job-sheets", 1},
        {"timed hold", printJobWith(nullptr, [](Ipp& m) { m.text(0x44, "job-hold-until", "evening"); }),
         0x0001, "job-hold-until", 1},
        {"send-document unknown job", [] { return request(kSendDocument).integer(0x21, "job-id", 99)
                                                      .attr(0x22, "last-document", {1}).tag(3); }, 0x0406, "", 0},
        {"cancel without job-id", [] { return request(kCancelJob).tag(3); }, 0x0400, "", 0},
        {"cancel unknown job", [] { return request(kCancelJob).integer(0x21, "job-id", 99).tag(3); }, 0x0406, "", 0},
        {"unknown job-uri", [] { return request(kGetJobAttributes).text(0x45, "job-uri", "ipp://localhost/ipp/print/77").tag(3); },
         0x0406, "", 0},
        {"identify-actions", [] { return request(kIdentifyPrinter).text(0x44, "identify-actions", "flash").tag(3); },
         0x040B, "identify-actions", 0},
        {"identify by sound", [] { return request(kIdentifyPrinter).text(0x44, "identify-actions", "sound").tag(3); },
         0x0000, "", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        const size_t before = printer->jobs().size();
        const Response r = send(c.build().b, {"%!data"});
        EXPECT_EQ(r.status, c.status);
        ASSERT_FALSE(r.groups.empty());
        ASSERT_GE(r.groups[0].attrs.size(), 2u) << "charset and language open every reply";
        EXPECT_EQ(r.groups[0].attrs[0].name, "attributes-charset");
        EXPECT_EQ(r.groups[0].attrs[1].name, "attributes-natural-language");
        if (c.unsupported[0] != '\0') {
            const Attr* u = r.find(kUnsupportedGroup, c.unsupported);
            ASSERT_NE(u, nullptr);
            // An attribute the printer does not know comes back as "unsupported",
            // a value it does not support comes back as given.
            EXPECT_EQ(u->values[0].tag == 0x10, std::string(c.unsupported).compare(0, 2, "x-") == 0);
        } else {
            EXPECT_TRUE(r.of(kUnsupportedGroup).empty());
        }
        EXPECT_EQ(printer->jobs().size() - before, c.newJobs);
        EXPECT_EQ(printer->streamCount(), 0u);
    }
}

TEST_F(RefPrinterTest, GetPrinterAttributesHonoursRequestedNamesAndGroups) {
    struct Case { std::vector<std::string> requested, present, absent; };
    const Case cases[] = {
        {{}, {"printer-name", "copies-supported", "printer-state", "queued-job-count"}, {"media-col-database"}},
        {{"printer-uri-supported"}, {"printer-uri-supported"}, {"printer-name", "printer-state"}},
        {{"job-template"}, {"copies-supported", "media-col-default", "sides-default"}, {"printer-name", "printer-state"}},
        {{"printer-description"}, {"printer-name", "printer-state", "printer-up-time"}, {"copies-default", "media-supported"}},
        {{"all", "media-col-database"}, {"media-col-database", "printer-name", "printer-is-accepting-jobs"}, {}},
    };
    for (const Case& c : cases) {
        const Response r = printerRequest(c.requested);
        EXPECT_EQ(r.status, 0);
        for (const std::string& n : c.present) EXPECT_NE(r.find(kPrinterGroup, n), nullptr) << n;
        for (const std::string& n : c.absent) EXPECT_EQ(r.find(kPrinterGroup, n), nullptr) << n;
    }
    printer->setAcceptingJobs(false);  // printer-is-accepting-jobs: StatusAttributesFollowTheClockAndTheJobs
    EXPECT_EQ(printJob("alice", "x").status, 0x0506);
    EXPECT_EQ(createJob("alice").status, 0x0506);
}

TEST_F(RefPrinterTest, PrintJobSpoolsEveryBlockAndRunsToCompletion) {
    std::string doc;
    for (int i = 0; i < 70000; ++i) doc += static_cast<char>(i * 7 % 251);
    Ipp m = request(kPrintJob);
    m.text(0x42, "requesting-user-name", "alice").text(0x42, "job-name", "report");
    m.text(0x49, "document-format", "application/pdf").tag(2).integer(0x21, "copies", 2).tag(3);
    m.raw(Bytes(doc.begin(), doc.begin() + 1000));  // the first block carries the start of the document
    const Response r = send(m.b, {doc.substr(1000, 30000), doc.substr(31000, 1), doc.substr(31001)});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.integer(kJobGroup, "job-id"), 1);
    EXPECT_EQ(r.integer(kJobGroup, "job-state"), 5) << "an idle printer starts at once";
    EXPECT_EQ(r.text(kJobGroup, "job-state-reasons"), "job-printing");

    JobInfo info;
    ASSERT_TRUE(printer->job(1, &info));
    ASSERT_EQ(info.files, std::vector<std::string>{spool + "/job-1-doc-1.pdf"});
    EXPECT_TRUE(fileText(info.files[0]) == doc) << "spool file differs";

    clock += 999;
    EXPECT_EQ(jobRequest(kGetJobAttributes, 1).integer(kJobGroup, "job-state"), 5);
    clock += 1;
    const Response done = jobRequest(kGetJobAttributes, 1);
    EXPECT_EQ(done.integer(kJobGroup, "job-state"), 9);
    EXPECT_EQ(done.text(kJobGroup, "job-state-reasons"), "job-completed-successfully");
    EXPECT_EQ(done.integer(kJobGroup, "job-k-octets"), 69);
    EXPECT_EQ(done.text(kJobGroup, "job-originating-user-name"), "alice");
    EXPECT_EQ(done.text(kJobGroup, "job-name"), "report");
    EXPECT_EQ(done.integer(kJobGroup, "copies"), 2);
}

TEST_F(RefPrinterTest, CreateJobTakesDocumentsUntilTheLastOne) {
    const Response created = createJob("bob");
    ASSERT_EQ(created.status, 0);
    EXPECT_EQ(created.integer(kJobGroup, "job-state"), 3);
    EXPECT_EQ(created.text(kJobGroup, "job-state-reasons"), "job-incoming");
    EXPECT_EQ(sendDocument(1, false, {"first"}).integer(kJobGroup, "job-state"), 3);
    const Response last = sendDocument(1, true, {"sec", "ond"}, "text/plain");
    EXPECT_EQ(last.status, 0);
    EXPECT_EQ(last.integer(kJobGroup, "job-state"), 5);
    EXPECT_EQ(sendDocument(1, true, {"late"}).status, 0x0404) << "no documents after the last one";

    JobInfo info;
    ASSERT_TRUE(printer->job(1, &info));
    ASSERT_EQ(info.files.size(), 2u);
    EXPECT_EQ(info.files[0], spool + "/job-1-doc-1.prn");
    EXPECT_EQ(fileText(info.files[0]), "first");
    EXPECT_EQ(fileText(info.files[1]), "second");

    // A last-document without data closes the job without an empty document.
    ASSERT_EQ(createJob("bob").integer(kJobGroup, "job-id"), 2);
    EXPECT_EQ(sendDocument(2, false, {"only"}).status, 0);
    EXPECT_EQ(sendDocument(2, true, {}).status, 0);
    ASSERT_TRUE(printer->job(2, &info));
    EXPECT_EQ(info.documents, 1);
    EXPECT_EQ(info.files.size(), 1u);
    EXPECT_TRUE(info.lastDocumentReceived);

    // A job left waiting for documents is aborted after the time-out.
    ASSERT_EQ(createJob("bob").integer(kJobGroup, "job-id"), 3);
    clock += 59999;
    EXPECT_EQ(stateOf(3), int(JobState::Pending));
    clock += 1;
    EXPECT_EQ(stateOf(3), int(JobState::Aborted));
}

TEST_F(RefPrinterTest, GetJobsFiltersByStateOwnerAndLimit) {
    printJob("alice", "1");      // job 1: completes at 1000
    clock += 1000;
    printJob("bob", "2");        // job 2: canceled at 1010
    clock += 10;
    ASSERT_EQ(jobRequest(kCancelJob, 2).status, 0);
    printJob("alice", "3");      // job 3: processing
    createJob("bob");            // job 4: pending
    struct Case { const char* which; const char* myJobsUser; int32_t limit; std::vector<int32_t> ids; };
    const Case cases[] = {
        {nullptr, nullptr, 0, {3, 4}},   {"completed", nullptr, 0, {2, 1}}, {"all", nullptr, 0, {3, 4, 2, 1}},
        {"all", "alice", 0, {3, 1}},     {"all", nullptr, 2, {3, 4}},       {"canceled", nullptr, 0, {2}},
        {"processing", nullptr, 0, {3}}, {"pending", "bob", 0, {4}},        {"aborted", nullptr, 0, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.which ? c.which : "default") + "/" + (c.myJobsUser ? c.myJobsUser : "-"));
        Ipp m = request(kGetJobs);
        if (c.which != nullptr) m.text(0x44, "which-jobs", c.which);
        if (c.myJobsUser != nullptr) m.text(0x42, "requesting-user-name", c.myJobsUser).attr(0x22, "my-jobs", {1});
        if (c.limit > 0) m.integer(0x21, "limit", c.limit);
        const Response r = send(m.tag(3).b);
        EXPECT_EQ(r.status, 0);
        std::vector<int32_t> ids;
        for (const Group* g : r.of(kJobGroup)) {
            ASSERT_EQ(g->attrs.size(), 2u) << "job-id and job-uri unless asked for more";
            EXPECT_EQ(g->attrs[1].name, "job-uri");
            ids.push_back(g->attrs[0].values[0].integer());
        }
        EXPECT_EQ(ids, c.ids);
    }
}

TEST_F(RefPrinterTest, CancelJobOnlyWhileTheJobIsActive) {
    printJob("a", "1");
    clock += 1000;  // job 1 completed
    printJob("a", "2");  // job 2 processing
    printJob("a", "3");  // job 3 pending behind it
    clock += 100;
    const struct { int32_t id; uint16_t status; } steps[] = {{1, 0x0404}, {2, 0}, {2, 0x0404}, {42, 0x0406}};
    for (const auto& s : steps) EXPECT_EQ(jobRequest(kCancelJob, s.id).status, s.status) << "job " << s.id;
    EXPECT_EQ(stateOf(2), int(JobState::Canceled));
    EXPECT_EQ(stateOf(3), int(JobState::Processing)) << "the next job starts when the canceled one stops";
    clock += 999;
    EXPECT_EQ(stateOf(3), int(JobState::Processing)) << "and takes its full time from there";
    clock += 1;
    EXPECT_EQ(stateOf(3), int(JobState::Completed));
    const Response byUri = send(request(kCancelJob).text(0x45, "job-uri", printer->jobUri(3)).tag(3).b);
    EXPECT_EQ(byUri.status, 0x0404);
}

// An upload the client dropped reaches the printer as an abort: the job ends
// aborted with a reason the client can read (read over HTTP by
// PrinterProgram.EveryWayAnUploadCanBeAbandoned), and the part of the document
// that came is not kept (nor counted), nor left open. A Create-Job cut short
// ends aborted too.
TEST_F(RefPrinterTest, InterruptedUploadAbortsTheJobAndRemovesThePartialDocument) {
    const struct {
        const char* label;
        uint16_t op;
    } cases[] = {{"Print-Job", kPrintJob}, {"Send-Document", kSendDocument}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        int32_t id = 0;
        if (c.op == kSendDocument) {
            const Response created = createJob("dave");
            ASSERT_EQ(created.status, 0);
            id = created.integer(kJobGroup, "job-id");
        }
        Ipp m = request(c.op);
        if (c.op == kSendDocument) m.integer(0x21, "job-id", id).attr(0x22, "last-document", {1});
        m.text(0x49, "document-format", "application/pdf").tag(3).raw(bytesOf("%PDF-1.4 start"));
        Stream upload(m.b, &record);
        EXPECT_EQ(upload.data(std::string(5000, 'p')), 0u);
        EXPECT_EQ(printer->streamCount(), 1u);
        EXPECT_EQ(openSpoolFiles(), 1) << "the partial document is open in the spool";
        if (id == 0) id = printer->jobs().back().id;
        upload.end(true);

        JobInfo info;
        ASSERT_TRUE(printer->job(id, &info));
        EXPECT_EQ(info.state, JobState::Aborted);
        EXPECT_EQ(info.reasons, (std::vector<std::string>{"aborted-by-system", "submission-interrupted"}));
        EXPECT_TRUE(info.files.empty());
        EXPECT_EQ(info.octets, 0u);
        EXPECT_TRUE(filesIn(spool).empty()) << "partial document left behind";
        EXPECT_EQ(printer->streamCount(), 0u);
        EXPECT_EQ(openSpoolFiles(), 0);
    }
    Stream create(request(kCreateJob).tag(3).b, &record);
    create.end(true);
    EXPECT_EQ(stateOf(3), int(JobState::Aborted));
    EXPECT_EQ(printer->streamCount(), 0u);
}

// Documents are readable by the printer's user alone, whatever the umask, also
// when a file of an earlier run (job ids start at 1 again) is in the way.
TEST_F(RefPrinterTest, SpoolFilesArePrivate) {
    const std::string stale = spool + "/job-1-doc-1.txt";
    FILE* f = fopen(stale.c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    ASSERT_EQ(chmod(stale.c_str(), 0644), 0);
    const mode_t savedMask = umask(0);
    EXPECT_EQ(printJob("erin", "first").status, 0);
    EXPECT_EQ(printJob("erin", "second").status, 0);
    umask(savedMask);
    for (const char* name : {"/job-1-doc-1.txt", "/job-2-doc-1.txt"}) {
        struct stat st;
        ASSERT_EQ(stat((spool + name).c_str(), &st), 0) << name;
        EXPECT_EQ(st.st_mode & 0777, 0600u) << name;
    }
}

// RFC 8011: request-id is 1 to 2^31-1; the decoder refuses 0, the printer what lies above.
TEST_F(RefPrinterTest, RequestIdOutOfRangeIsABadRequest) {
    const struct {
        uint32_t id;
        uint16_t status;
    } cases[] = {{1, 0x0000}, {0x7FFFFFFFu, 0x0000}, {0x80000000u, 0x0400}, {0xFFFFFFFFu, 0x0400}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        Ipp m;
        m.header(2, 0, kGetPrinterAttributes, c.id).opGroup().tag(3);
        const Response r = send(m.b);
        EXPECT_EQ(r.status, c.status);
        EXPECT_EQ(r.integer(kPrinterGroup, "printer-state") > 0, c.status == 0) << "attributes only when served";
    }
    Ipp job;
    job.header(2, 0, kPrintJob, 0x80000001u).opGroup().tag(3);
    EXPECT_EQ(send(job.b, {"data"}).status, 0x0400);
    EXPECT_TRUE(printer->jobs().empty()) << "no job for a refused request";
}

TEST_F(RefPrinterTest, CancelDuringTransferDropsTheRestOfTheDocument) {
    Stream print(request(kPrintJob).tag(3).raw(bytesOf("abc")).b, &record);
    EXPECT_EQ(jobRequest(kCancelJob, 1).status, 0);
    EXPECT_EQ(print.data("def"), 0u) << "taken, not written";
    const Response r = print.end();
    EXPECT_EQ(r.integer(kJobGroup, "job-state"), 7);
    EXPECT_EQ(fileText(spool + "/job-1-doc-1.prn"), "abc");
    EXPECT_EQ(openSpoolFiles(), 0);
}

TEST_F(RefPrinterTest, DocumentThatCannotBeStoredAbortsTheJob) {
    ASSERT_EQ(symlink("/dev/full", (spool + "/job-1-doc-1.prn").c_str()), 0);
    Stream full(request(kPrintJob).tag(3).b, &record);
    EXPECT_NE(full.data(std::string(4096, 'x')), 0u) << "a failed write refuses the data";
    const Response r = full.end(true);
    EXPECT_EQ(r.status, 0x0500);
    EXPECT_NE(r.text(kOpGroup, "status-message").find("write"), std::string::npos);
    EXPECT_EQ(stateOf(1), int(JobState::Aborted));

    start([this](refprinter::Config& c) { c.spoolDir = spool + "/missing"; });  // a directory that does not exist
    EXPECT_EQ(printJob("a", "x").status, 0x0500);
    EXPECT_EQ(stateOf(1), int(JobState::Aborted));
    EXPECT_EQ(printer->streamCount(), 0u);
    EXPECT_EQ(openSpoolFiles(), 0);
}

// The page shows one group, "Printer": every attribute of the printer object
// exactly as the library renders such a group, then the status attributes, then
// the job table. The library's own page query gives it too, however the
// printer builds its replies.
TEST_F(RefPrinterTest, HtmlPageRendersThePrinterGroupAsTheLibraryDoes) {
    printJob("<carol & co>", "x");
    JobInfo job;
    ASSERT_TRUE(printer->job(1, &job));
    const std::string page = printer->htmlPage();

    const std::string head = "<HTML><HEAD><TITLE>Test Printer</TITLE></HEAD><BODY BGCOLOR=\"#FFFFFF\"><H1>Test Printer"
                             "</H1>\n<P>" + printer->config().info + "</P>\n";
    cmp_ipp_attrs fixed("Printer");
    const cmp_ipp_attrs& own = printer->object().m_attrs;
    for (int32_t i = 0; i < own.count(); ++i) fixed.cmp_ipp_attrs_set_attr_by_name(&own[i], false);
    const std::string group = fixed.toHTML().c_str();
    ASSERT_GT(group.size(), 1000u);
    ASSERT_EQ(page.compare(0, head.size() + group.size(), head + group), 0) << page.substr(0, 2000);

    const std::string rest = page.substr(head.size() + group.size());
    const size_t table = rest.find("<H2>Jobs</H2>\n");
    ASSERT_NE(table, std::string::npos);
    size_t at = 0;
    for (const char* name : {"printer-current-time", "printer-is-accepting-jobs", "printer-state",
                             "printer-state-change-date-time", "printer-state-change-time", "printer-state-message",
                             "printer-state-reasons", "printer-up-time", "queued-job-count"}) {
        const std::string line = std::string("<font color=\"blue\">") + name + ":</font> <i>";
        EXPECT_EQ(rest.compare(at, line.size(), line), 0) << name;
        at = rest.find("<br>\n", at);
        ASSERT_NE(at, std::string::npos);
        at += 5;
    }
    EXPECT_EQ(at, table) << "nothing between the status attributes and the job table";
    const std::string jobs = std::string("<H2>Jobs</H2>\n<TABLE BORDER=\"1\"><TR><TH>Job</TH><TH>Name</TH><TH>User</TH>") +
                             "<TH>State</TH><TH>Documents</TH><TH>k-octets</TH></TR>\n<TR><TD>1</TD><TD>" +
                             job.name + "</TD><TD>&lt;carol &amp; co&gt;</TD><TD>Job " +
                             (job.state == JobState::Completed ? "completed" : job.state == JobState::Processing ? "printing" : "pending") +
                             ".</TD><TD>1</TD><TD>1</TD></TR>\n</TABLE>\n</BODY></HTML>\n";
    EXPECT_EQ(rest.substr(table), jobs);
    for (const bool encoded : {true, false}) {
        printer->setEncodedReplies(encoded);
        int length = 0;
        unsigned char* p = IPP_GetPrnAttrHtml(&length, &record);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(p), p != nullptr ? static_cast<size_t>(length) : 0), page);
        cmp_ipp_free(p);
    }
    EXPECT_EQ(printer->streamCount(), 0u);
}

TEST_F(RefPrinterTest, ConcurrentPrintJobsKeepTheirDocumentsApart) {
    const int kThreads = 4, kJobsEach = 10;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            for (int j = 0; j < kJobsEach; ++j) {
                const std::string name = std::to_string(t) + "-" + std::to_string(j);
                Ipp m = request(kPrintJob);
                m.text(0x42, "job-name", name).tag(3);
                send(m.b, {name + ":", std::string(5000, static_cast<char>('a' + t)), ":" + name});
            }
        });
    }
    for (std::thread& t : threads) t.join();
    const std::vector<JobInfo> jobs = printer->jobs();
    ASSERT_EQ(jobs.size(), static_cast<size_t>(kThreads * kJobsEach));
    for (const JobInfo& j : jobs) {
        ASSERT_EQ(j.files.size(), 1u);
        const char fill = static_cast<char>('a' + (j.name[0] - '0'));
        EXPECT_EQ(fileText(j.files[0]), j.name + ":" + std::string(5000, fill) + ":" + j.name);
    }
    EXPECT_EQ(printer->streamCount(), 0u);
}

TEST_F(RefPrinterTest, CompressedDocumentsAreSpooledAsTheyCame) {
    // Stored untouched: the suffix tells whatever renders the file how to read it.
    const std::string packed("\x1f\x8b\x08\x00packed", 10);
    struct Case { const char* compression; const char* format; const char* suffix; };
    const Case cases[] = {
        {"gzip", "application/pdf", ".pdf.gz"},
        {"deflate", "image/pwg-raster", ".pwg.zz"},
        {"none", "application/postscript", ".ps"},
        {nullptr, "image/jpeg", ".jpg"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.suffix);
        Ipp m = request(kPrintJob);
        m.text(0x49, "document-format", c.format);
        if (c.compression != nullptr) m.text(0x44, "compression", c.compression);
        const Response r = send(m.tag(3).b, {packed});
        ASSERT_EQ(r.status, 0);
        const int32_t id = r.integer(kJobGroup, "job-id");
        JobInfo info;
        ASSERT_TRUE(printer->job(id, &info));
        ASSERT_EQ(info.files, std::vector<std::string>{spool + "/job-" + std::to_string(id) + "-doc-1" + c.suffix});
        EXPECT_EQ(fileText(info.files[0]), packed);
        EXPECT_EQ(jobRequest(kGetJobAttributes, id).text(kJobGroup, "document-format-supplied"), c.format);
    }
    // Each document of a job names its own compression.
    const int32_t job = createJob("dan").integer(kJobGroup, "job-id");
    for (const char* compression : {"deflate", "none"}) {
        const bool last = compression[0] == 'n';
        EXPECT_EQ(sendDocument(job, last, {"text"}, "text/plain", compression).status, 0) << compression;
    }
    JobInfo info;
    ASSERT_TRUE(printer->job(job, &info));
    const std::string base = spool + "/job-" + std::to_string(job) + "-doc-";
    EXPECT_EQ(info.files, (std::vector<std::string>{base + "1.txt.zz", base + "2.txt"}));
}

TEST_F(RefPrinterTest, HeldJobsWaitForReleaseWithoutHoldingUpOthers) {
    Ipp m = request(kPrintJob);
    m.tag(2).text(0x44, "job-hold-until", "indefinite").tag(3);
    const Response held = send(m.b, {"held"});
    ASSERT_EQ(held.status, 0);
    EXPECT_EQ(held.integer(kJobGroup, "job-state"), 4);
    EXPECT_EQ(held.text(kJobGroup, "job-state-reasons"), "job-hold-until-specified");
    EXPECT_EQ(printJob("a", "2").integer(kJobGroup, "job-state"), 5) << "the held job is passed over";
    clock += 120000;  // past processing and past multiple-operation-time-out
    EXPECT_EQ(stateOf(1), int(JobState::PendingHeld));
    EXPECT_EQ(printerRequest({}).integer(kPrinterGroup, "queued-job-count"), 1);
    const Response list = send(request(kGetJobs).text(0x44, "which-jobs", "pending-held").tag(3).b);
    ASSERT_EQ(list.of(kJobGroup).size(), 1u);
    EXPECT_EQ(list.integer(kJobGroup, "job-id"), 1);

    printJob("a", "3");  // processing
    printJob("a", "4");  // pending behind job 3
    struct Step { uint16_t op; int32_t id; const char* until; uint16_t status; JobState after; };
    const Step steps[] = {
        {kReleaseJob, 4, nullptr, 0x0404, JobState::Pending},      // not held
        {kHoldJob, 3, nullptr, 0x0404, JobState::Processing},      // already printing
        {kHoldJob, 4, "weekend", 0x040B, JobState::Pending},       // not a hold this printer knows
        {kHoldJob, 4, nullptr, 0x0000, JobState::PendingHeld},     // "indefinite" by default
        {kReleaseJob, 1, nullptr, 0x0000, JobState::Pending},
        {kHoldJob, 99, nullptr, 0x0406, JobState::Pending},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(std::to_string(s.op) + " job " + std::to_string(s.id));
        Ipp h = request(s.op);
        h.integer(0x21, "job-id", s.id);
        if (s.until != nullptr) h.text(0x44, "job-hold-until", s.until);
        const Response r = send(h.tag(3).b);
        EXPECT_EQ(r.status, s.status);
        EXPECT_EQ(r.find(kUnsupportedGroup, "job-hold-until") != nullptr, s.status == 0x040B);
        if (s.id != 99) {
            EXPECT_EQ(stateOf(s.id), int(s.after));
        }
    }
    EXPECT_EQ(jobRequest(kGetJobAttributes, 1).text(kJobGroup, "job-hold-until"), "no-hold");
    EXPECT_EQ(jobRequest(kGetJobAttributes, 4).text(kJobGroup, "job-hold-until"), "indefinite");
    clock += 1000;
    EXPECT_EQ(stateOf(1), int(JobState::Processing)) << "released, it prints once job 3 is done";
    clock += 5000;
    EXPECT_EQ(stateOf(4), int(JobState::PendingHeld));
    EXPECT_EQ(jobRequest(kReleaseJob, 4).status, 0);
    EXPECT_EQ(stateOf(4), int(JobState::Processing)) << "an idle printer starts it from the release on";

    // Created held: it takes its documents, and is dropped like any job whose documents never come.
    const std::vector<std::string> reasons = createJob("a", "", "indefinite").texts(kJobGroup, "job-state-reasons");
    EXPECT_EQ(reasons, (std::vector<std::string>{"job-hold-until-specified", "job-incoming"}));
    const Response sent = sendDocument(5, true, {"doc"});
    EXPECT_EQ(sent.status, 0);
    EXPECT_EQ(sent.integer(kJobGroup, "job-state"), 4);
    createJob("a", "", "indefinite");  // job 6: no document ever
    clock += 60000;
    EXPECT_EQ(stateOf(5), int(JobState::PendingHeld));
    EXPECT_EQ(stateOf(6), int(JobState::Aborted));
}


// ---- Get-Printer-Attributes from the wire form --------------------------------

// Where two replies first differ, for a readable failure.
std::string firstDifference(const std::string& a, const std::string& b) {
    size_t i = 0;
    while (i < a.size() && i < b.size() && a[i] == b[i]) ++i;
    if (i == a.size() && i == b.size()) return "identical";
    return "lengths " + std::to_string(a.size()) + "/" + std::to_string(b.size()) + ", first difference at byte " +
           std::to_string(i);
}

Ipp gpa(uint8_t major, uint8_t minor, uint32_t requestId = 42) {
    Ipp m;
    m.header(major, minor, kGetPrinterAttributes, requestId).opGroup();
    return m;
}

class EncodedRepliesTest : public RefPrinterTest {
protected:
    std::string reply(const Bytes& request, bool encoded) {
        printer->setEncodedReplies(encoded);
        Stream s(request, &record);
        const std::string bytes = s.endBytes();
        printer->setEncodedReplies(true);
        return bytes;
    }
};

TEST_F(EncodedRepliesTest, GetPrinterAttributesRepliesAreTheBytesBuiltAttributeByAttribute) {
    // A print backend polling the printer's state: known and unknown names.
    const std::vector<std::string> backendPoll{
        "compression-supported", "copies-supported", "cups-version", "document-format-supported",
        "job-password-encryption-supported", "marker-colors", "marker-levels", "marker-names",
        "media-col-supported", "multiple-document-handling-supported", "operations-supported",
        "print-color-mode-supported", "printer-alert", "printer-is-accepting-jobs",
        "printer-mandatory-job-attributes", "printer-state", "printer-state-message", "printer-state-reasons"};
    struct Case {
        const char* label;
        std::function<Ipp()> build;
    };
    // Get-Printer-Attributes asking for these names, in this version.
    const auto asking = [](std::vector<std::string> names, uint8_t major = 2, uint8_t minor = 0) {
        return [=] {
            Ipp m = gpa(major, minor);
            return requested(m, names).tag(3);
        };
    };
    // Asking for these names (request id 42 unless given) after operation attributes of the case's own.
    const auto askingAfter = [](std::function<void(Ipp&)> add, std::vector<std::string> names, uint32_t id = 42) {
        return [=] {
            Ipp m = gpa(2, 0, id);
            add(m);
            return requested(m, names).tag(3);
        };
    };
    const Case cases[] = {
        {"no requested-attributes", asking({})},
        {"all", asking({"all"})},
        {"all, IPP/1.1", asking({"all"}, 1, 1)},
        {"all, IPP/1.0", asking({"all"}, 1, 0)},
        {"all and media-col-database", asking({"all", "media-col-database"})},
        {"printer-description", asking({"printer-description"})},
        {"job-template", asking({"job-template"}, 1, 1)},
        {"a client's destination query", asking({"job-template", "media-col-database", "printer-description"})},
        {"a print backend's poll", asking(backendPoll)},
        {"names and a group", asking({"printer-up-time", "job-template", "printer-name", "media-col-database"})},
        {"duplicates", asking({"printer-state", "printer-name", "printer-state", "printer-name"})},
        {"only unknown names: an empty group", asking({"x-unknown", "", "printer-foo"})},
        {"a name longer than the dictionary allows", asking({"printer-name", std::string(300, 'x')})},
        {"names given with another tag",
         [] { Ipp m = gpa(2, 0); return requested(m, {"printer-name", "queued-job-count"}, 0x42).tag(3); }},
        {"requested-attributes as an integer",
         [] { return gpa(2, 0).integer(0x21, "requested-attributes", 7).tag(3); }},
        {"document-format supported",
         askingAfter([](Ipp& m) { m.text(0x49, "document-format", "application/pdf"); }, {"all"})},
        {"document-format unsupported",
         [] { return gpa(2, 0).text(0x49, "document-format", "application/x-what").tag(3); }},
        {"first-index, an attribute this operation ignores",
         askingAfter([](Ipp& m) { m.integer(0x21, "first-index", 2); }, {"printer-description"})},
        {"ipp-attribute-fidelity",
         askingAfter([](Ipp& m) { m.attr(0x22, "ipp-attribute-fidelity", {1}); }, {"job-template", "printer-state"})},
        {"requesting-user-name and another request-id",
         askingAfter([](Ipp& m) { m.text(0x42, "requesting-user-name", "carol"); }, {"all"}, 0x7FFFFFFF)},
        {"charset us-ascii",
         [] { Ipp m;
              m.header(2, 0, kGetPrinterAttributes, 9).tag(1).text(0x47, "attributes-charset", "us-ascii");
              m.text(0x48, "attributes-natural-language", "de").text(0x45, "printer-uri", "ipp://localhost/ipp/print");
              return m.tag(3); }},
        {"printer-uri missing",
         [] { Ipp m;
              m.header(2, 0, kGetPrinterAttributes, 9).tag(1).text(0x47, "attributes-charset", "utf-8");
              return m.text(0x48, "attributes-natural-language", "en").tag(3); }},
        {"job attributes group in the request",
         [] { Ipp m = gpa(2, 0);
              return requested(m, {"printer-state"}).tag(2).integer(0x21, "copies", 2).tag(3); }},
    };
    auto heldJob = [this] {
        Ipp m = request(kPrintJob);
        m.tag(2).text(0x44, "job-hold-until", "indefinite").tag(3);
        ASSERT_EQ(send(m.b, {"held"}).status, 0);
    };
    struct State {
        const char* label;
        std::function<void()> enter;
    };
    const State states[] = {
        {"fresh", [] {}},
        {"not accepting jobs", [this] { printer->setAcceptingJobs(false); }},
        {"one job printing, one pending, one held",
         [&] { printer->setAcceptingJobs(true); printJob("a", "1"); printJob("b", "2"); heldJob(); }},
        {"the first one done, the next started", [this] { clock += 1500; }},
        {"everything done but the held job", [this] { clock += 60000; }},
        {"the held one released and printing",
         [this] { ASSERT_EQ(send(request(kReleaseJob).integer(0x21, "job-id", 3).tag(3).b).status, 0); }},
    };
    size_t nonEmptyGroups = 0;
    for (const State& st : states) {
        st.enter();
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(st.label) + " / " + c.label);
            const Bytes req = c.build().b;
            const std::string fromWire = reply(req, true);
            const std::string built = reply(req, false);
            ASSERT_GE(built.size(), 9u);
            EXPECT_TRUE(fromWire == built) << firstDifference(fromWire, built);
            nonEmptyGroups += parse(built).of(kPrinterGroup).size();
        }
    }
    // Most cases carry a printer group: the comparison above is not about error replies only.
    EXPECT_GE(nonEmptyGroups, 15u * (sizeof states / sizeof states[0]));
}

TEST_F(EncodedRepliesTest, StatusAttributesFollowTheClockAndTheJobs) {
    Ipp m = gpa(2, 0);
    const Bytes req = requested(m, {"printer-description"}).tag(3).b;
    auto status = [&] { return parse(reply(req, true)); };
    Response r = status();
    EXPECT_EQ(r.integer(kPrinterGroup, "printer-up-time"), 1);
    EXPECT_EQ(r.integer(kPrinterGroup, "printer-state"), 3);
    EXPECT_EQ(r.text(kPrinterGroup, "printer-state-message"), "Idle.");
    clock += 999;
    EXPECT_EQ(status().integer(kPrinterGroup, "printer-up-time"), 1);
    clock += 1;
    EXPECT_EQ(status().integer(kPrinterGroup, "printer-up-time"), 2);
    printJob("a", "x");
    r = status();
    EXPECT_EQ(r.integer(kPrinterGroup, "printer-state"), 4);
    EXPECT_EQ(r.text(kPrinterGroup, "printer-state-message"), "Printing.");
    EXPECT_EQ(r.integer(kPrinterGroup, "queued-job-count"), 1);
    EXPECT_EQ(r.integer(kPrinterGroup, "printer-state-change-time"), 2);
    printer->setAcceptingJobs(false);
    EXPECT_EQ(status().integer(kPrinterGroup, "printer-is-accepting-jobs"), 0);
    clock += 1000;  // within the same request, the job completes before the status is taken
    r = status();
    EXPECT_EQ(r.integer(kPrinterGroup, "printer-state"), 3);
    EXPECT_EQ(r.integer(kPrinterGroup, "queued-job-count"), 0);
    EXPECT_EQ(r.integer(kPrinterGroup, "printer-state-change-time"), 3);
}

int clientZone(cmp_ipp_if_info_s*, CMP_IPP_IF_HEADER_FC_FIELD_TOKENS field, char* text) {
    if (field != CMP_IPP_IF_HDR_CLIENT_ZONE) return 0;
    std::strcpy(text, "%eth0");
    return 1;
}

TEST_F(EncodedRepliesTest, ClientZoneIsWrittenIntoTheUrisOfEitherReply) {
    start([](refprinter::Config& c) { c.uris = {"ipp://[fe80::1]:631/ipp/print"}; });
    record.pfnGetData = clientZone;
    Ipp m = gpa(2, 0);
    const Bytes req = requested(m, {"printer-uri-supported", "printer-more-info", "printer-state"}).tag(3).b;
    const std::string fromWire = reply(req, true);
    EXPECT_TRUE(fromWire == reply(req, false)) << firstDifference(fromWire, reply(req, false));
    const Response r = parse(fromWire);
    EXPECT_EQ(r.text(kPrinterGroup, "printer-uri-supported"), "ipp://[fe80::1%eth0]:631/ipp/print");
    EXPECT_EQ(r.text(kPrinterGroup, "printer-more-info"), "http://[fe80::1%eth0]:631/");
    record.pfnGetData = nullptr;
    EXPECT_EQ(parse(reply(req, true)).text(kPrinterGroup, "printer-uri-supported"), "ipp://[fe80::1]:631/ipp/print");
}

// Several clients query while jobs come and go and the clock runs: every reply
// is whole and consistent in itself, and what one client sees never goes back.
TEST_F(EncodedRepliesTest, GetPrinterAttributesConcurrencyWithStateChanges) {
    const Bytes all = [] { Ipp m = gpa(2, 0); return requested(m, {"all"}).tag(3).b; }();
    const size_t expectedAttrs = parse(reply(all, false)).of(kPrinterGroup)[0]->attrs.size();
    std::atomic<bool> done{false};
    std::atomic<int> failures{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
        readers.emplace_back([&] {
            int32_t lastUpTime = 0;
            for (int i = 0; i < 150 || !done.load(); ++i) {
                Stream s(all, &record);
                const Response r = s.end();
                const std::vector<const Group*> groups = r.of(kPrinterGroup);
                const int32_t state = r.integer(kPrinterGroup, "printer-state");
                const int32_t upTime = r.integer(kPrinterGroup, "printer-up-time");
                const bool consistent =
                    r.status == 0 && groups.size() == 1 && groups[0]->attrs.size() == expectedAttrs &&
                    (state == 3 || state == 4) &&
                    r.text(kPrinterGroup, "printer-state-message") == (state == 4 ? "Printing." : "Idle.") &&
                    (state == 3 || r.integer(kPrinterGroup, "queued-job-count") >= 1) && upTime >= lastUpTime;
                if (!consistent) ++failures;
                lastUpTime = upTime;
                if (i > 5000) break;
            }
        });
    }
    for (int i = 0; i < 40; ++i) {
        printer->setAcceptingJobs(i % 3 != 0);
        if (i % 3 != 0) printJob("w", "doc");
        clock += 250;
        if (i % 10 == 0) printer->setEncodedReplies(i % 20 == 0);
    }
    printer->setEncodedReplies(true);
    done = true;
    for (std::thread& t : readers) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(printer->streamCount(), 0u);
}

// Job queries build only the attributes asked for: each one comes alone when
// asked for by name, and the groups take exactly their members.
TEST_F(RefPrinterTest, JobAttributesAskedForByNameComeAloneAndInOrder) {
    Ipp m = request(kPrintJob);
    m.text(0x42, "requesting-user-name", "fay").text(0x42, "document-name", "notes").tag(2);
    m.integer(0x21, "copies", 2).text(0x44, "job-hold-until", "indefinite");
    mediaCol(m, 21000, 29700);
    m.text(0x44, "sides", "two-sided-long-edge").tag(3);
    ASSERT_EQ(send(m.b, {"doc"}).status, 0);
    const Response full = jobRequest(kGetJobAttributes, 1);
    ASSERT_EQ(full.of(kJobGroup).size(), 1u);
    const std::vector<Attr>& everything = full.of(kJobGroup)[0]->attrs;
    ASSERT_GE(everything.size(), 25u);
    for (const Attr& a : everything) {
        SCOPED_TRACE(a.name);
        const Response one = jobRequest(kGetJobAttributes, 1, {a.name});
        ASSERT_EQ(one.of(kJobGroup).size(), 1u);
        const std::vector<Attr>& got = one.of(kJobGroup)[0]->attrs;
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0].name, a.name);
        ASSERT_EQ(got[0].values.size(), a.values.size());
        for (size_t v = 0; v < a.values.size(); ++v) EXPECT_EQ(got[0].values[v].bytes, a.values[v].bytes);
    }
    const std::set<std::string> templates{"copies", "job-hold-until", "media-col", "sides"};
    for (const char* group : {"job-template", "job-description"}) {
        SCOPED_TRACE(group);
        const Response r = jobRequest(kGetJobAttributes, 1, {group});
        std::vector<std::string> expected, got;
        for (const Attr& a : everything)
            if ((templates.count(a.name) != 0) == (std::string(group) == "job-template")) expected.push_back(a.name);
        for (const Attr& a : r.of(kJobGroup)[0]->attrs) got.push_back(a.name);
        EXPECT_EQ(got, expected);
    }
}

}  // namespace
