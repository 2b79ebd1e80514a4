// Values at the edges of 32 bits, where a 32-bit controller and a 64-bit
// workstation could part ways (long, time_t and size_t are 32-bit on the
// controller): date-times past January 2038, integers at their bounds, the
// last job id and job-k-octets of very large jobs. The same tests run on the
// host and under qemu-arm.
#include <cstdio>

#include "apps/refprinter_fixture.h"
#include "attr/cmp_ipp_attr.h"
#include "cmp_ipp_refprinter_attrs.h"

namespace {

using namespace ipp_reply;

// The eleven RFC 2579 DateAndTime bytes as "Y/M/D h:m:s:ds ±H" for messages.
std::string dateText(const std::string& b) {
    if (b.size() != 11) return "<" + std::to_string(b.size()) + " bytes>";
    const auto u = [&b](size_t i) { return static_cast<unsigned>(static_cast<unsigned char>(b[i])); };
    char out[64];
    std::snprintf(out, sizeof out, "%u/%u/%u %u:%u:%u:%u %c%u", u(0) << 8 | u(1), u(2), u(3), u(4), u(5), u(6), u(7),
                  b[8], u(9));
    return out;
}

std::string htmlLine(const char* name, const char* type, const std::string& value) {
    return std::string("<font color=\"blue\">") + name + ":</font> <i>" + type + ":</i> <font color=\"red\">" + value +
           "</font>\n";
}

// One attribute decoded from `bytes`, written back and rendered.
struct RoundTrip {
    std::unique_ptr<cmp_ipp_attr> attr;
    int32_t consumed = -1;
    Bytes written;
    std::string html;
};

RoundTrip roundTrip(const Bytes& bytes) {
    RoundTrip r;
    cmp_ipp_buf in = bufOf(bytes);
    uint16_t status = 0;
    r.attr.reset(cmp_ipp_attr::Create(in, 0, &status, &r.consumed));
    if (r.attr == nullptr) return r;
    cmp_ipp_buf out(static_cast<uint32_t>(r.attr->getByteLength() + 1), true);
    r.attr->getBytes(out, 0);
    r.written = contentOf(out);
    r.html = text(r.attr->toHTML(false));
    return r;
}

class Limits32 : public ::testing::Test {
protected:
    void SetUp() override { cmp_ipp_dictionary_install(); }
};

const int64_t k2040June1 = 2222121600;  // 2040-06-01 00:00:00 UTC

// Decoded, written back and rendered; and where a UTC time in seconds gives
// the value, the printer's own dateTime attribute of those seconds renders the same.
TEST_F(Limits32, DateTimesPastJanuary2038DecodeEncodeAndRender) {
    const struct {
        const char* label;
        const char* value;  // the 11 value bytes
        const char* html;
        int64_t seconds;  // 0: not a UTC time the printer makes
    } cases[] = {
        {"the last second of a 32-bit time_t", "07F6 01 13 03 0E 07 00 '+' 00 00", "2038/1/19 3:14:7:0 +0", INT32_MAX},
        {"the second after it", "07F6 01 13 03 0E 08 00 '+' 00 00", "2038/1/19 3:14:8:0 +0", int64_t{INT32_MAX} + 1},
        {"the last second of a day in 2040", "07F8 06 01 17 3B 3B 00 '+' 00 00", "2040/6/1 23:59:59:0 +0",
         k2040June1 + 86399},
        {"a leap day in 2040, west of UTC", "07F8 02 1D 0C 1E 2D 07 '-' 05 00", "2040/2/29 12:30:45:7 -5", 0},
        {"past an unsigned 32-bit time_t", "083A 02 07 06 1C 10 00 '+' 00 00", "2106/2/7 6:28:16:0 +0",
         int64_t{UINT32_MAX} + 1},
        {"the largest year and a leap second", "FFFF 0C 1F 17 3B 3C 09 '+' 0E 00", "65535/12/31 23:59:60:9 +14", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const Bytes value = wire(c.value);
        ASSERT_EQ(value.size(), 11u);
        Bytes bytes = wire("31 0014 'printer-current-time' 000B");
        bytes.insert(bytes.end(), value.begin(), value.end());
        const RoundTrip r = roundTrip(bytes);
        ASSERT_NE(r.attr, nullptr);
        EXPECT_EQ(r.consumed, static_cast<int32_t>(bytes.size()));
        EXPECT_EQ(hexOf(r.written), hexOf(bytes));
        EXPECT_EQ(r.html, htmlLine("printer-current-time", "dateTime", c.html));
        if (c.seconds != 0) {
            const cmp_ipp_attr a = refprinter::attrs::dateTime("printer-current-time", static_cast<time_t>(c.seconds));
            EXPECT_EQ(text(a.toHTML(false)), r.html);
        }
    }
}

TEST_F(Limits32, IntegersAtTheirBoundsDecodeEncodeAndRender) {
    const struct {
        const char* label;
        const char* bytes;
        std::vector<int32_t> words;
        std::string html;
    } cases[] = {
        {"job-id at its maximum", "21 0006 'job-id' 0004 7FFFFFFF", {INT32_MAX}, "2147483647"},
        {"job-k-octets at its maximum", "21 000C 'job-k-octets' 0004 7FFFFFFF", {INT32_MAX}, "2147483647"},
        {"the top bit set is negative", "21 0006 'copies' 0004 80000000", {INT32_MIN}, "-2147483648"},
        {"all bits set", "21 0006 'copies' 0004 FFFFFFFF", {-1}, "-1"},
        {"a range over all integers", "33 0016 'job-k-octets-supported' 0008 80000000 7FFFFFFF",
         {INT32_MIN, INT32_MAX}, "-2147483648, 2147483647"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const Bytes bytes = wire(c.bytes);
        const RoundTrip r = roundTrip(bytes);
        ASSERT_NE(r.attr, nullptr);
        EXPECT_EQ(words(*r.attr), c.words);
        EXPECT_EQ(hexOf(r.written), hexOf(bytes));
        EXPECT_NE(r.html.find(std::string("<font color=\"red\">") + c.html + "</font>"), std::string::npos) << r.html;
    }
}

// ---- the reference printer ---------------------------------------------------

class PrinterLimits : public PrinterFixture {
protected:
    void start(int64_t wallClockS, int32_t firstJobId) {
        PrinterFixture::start([&](refprinter::Config& c) {
            c.wallClockS = [wallClockS] { return wallClockS; };
            c.firstJobId = firstJobId;
        });
    }
    Response printJob() { return PrinterFixture::printJob("dana", "one line\n"); }
};

TEST_F(PrinterLimits, DateTimesOfAPrinterRunningIn2040) {
    start(k2040June1, 1);
    clock = 90 * 1000 + 400;  // 1 min 30.4 s later
    const Response p = printerRequest({"printer-current-time", "printer-config-change-date-time"});
    ASSERT_EQ(p.status, 0);
    EXPECT_EQ(dateText(p.text(4, "printer-current-time")), "2040/6/1 0:1:30:0 +0");
    EXPECT_EQ(dateText(p.text(4, "printer-config-change-date-time")), "2040/6/1 0:0:0:0 +0");

    const Response job = printJob();
    ASSERT_EQ(job.status, 0);
    const int32_t id = job.integer(2, "job-id");
    clock = 2 * 3600 * 1000;  // long after it completed
    const Response a =
        jobRequest(kGetJobAttributes, id, {"date-time-at-creation", "date-time-at-completed", "job-state"});
    ASSERT_EQ(a.status, 0);
    EXPECT_EQ(a.integer(2, "job-state"), 9);
    EXPECT_EQ(dateText(a.text(2, "date-time-at-creation")), "2040/6/1 0:1:30:0 +0");
    EXPECT_EQ(dateText(a.text(2, "date-time-at-completed")), "2040/6/1 0:1:31:0 +0");

    // The page renders the printer's status attributes through the library.
    EXPECT_NE(printer->htmlPage().find(htmlLine("printer-current-time", "dateTime", "2040/6/1 2:0:0:0 +0")),
              std::string::npos);
}

TEST_F(PrinterLimits, JobIdsEndAtTheLargestInteger) {
    start(k2040June1, INT32_MAX - 1);
    const Response first = printJob();
    ASSERT_EQ(first.status, 0);
    EXPECT_EQ(first.integer(2, "job-id"), INT32_MAX - 1);
    const Response last = createJob("dana");
    ASSERT_EQ(last.status, 0);
    EXPECT_EQ(last.integer(2, "job-id"), INT32_MAX);
    EXPECT_EQ(last.text(2, "job-uri"), "ipp://localhost:631/ipp/print/2147483647");

    const Response a = jobRequest(kGetJobAttributes, INT32_MAX, {"job-id", "job-state"});
    EXPECT_EQ(a.status, 0);
    EXPECT_EQ(a.integer(2, "job-id"), INT32_MAX);
    EXPECT_EQ(a.integer(2, "job-state"), 3);  // pending: waiting for its document

    // No id is left: nothing is created, nothing wraps round to an id in use
    // or to a negative one; asking is still fine.
    const Response none = printJob();
    EXPECT_EQ(none.status, 0x0506);
    EXPECT_EQ(none.text(1, "status-message"), "The printer has no job ids left.");
    EXPECT_EQ(printer->jobs().size(), 2u);
    EXPECT_EQ(send(request(4).text(0x49, "document-format", "text/plain").tag(3).b).status, 0);

    // A first id below 1 starts at 1.
    for (int32_t first : {0, -5, INT32_MIN}) {
        start(k2040June1, first);
        EXPECT_EQ(printJob().integer(2, "job-id"), 1) << first;
    }
}

TEST(PrinterKOctets, RoundUpAndStopAtTheLargestInteger) {
    const uint64_t maxK = INT32_MAX;
    const struct {
        uint64_t octets;
        int32_t k;
    } cases[] = {
        {0, 0},
        {1, 1},
        {1024, 1},
        {1025, 2},
        {(1ull << 31) + 12345, 2097152 + 13},  // just over 2 GiB
        {1ull << 32, 4194304},                 // 4 GiB: 0 in a 32-bit count
        {maxK * 1024, INT32_MAX},
        {maxK * 1024 + 1, INT32_MAX},
        {UINT64_MAX, INT32_MAX},
    };
    for (const auto& c : cases) EXPECT_EQ(refprinter::attrs::kOctets(c.octets), c.k) << c.octets;
}

}  // namespace
