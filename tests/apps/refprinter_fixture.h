// The reference printer as the library drives it: real encoded requests through
// the stream interface, a clock of the test's own and a spool directory per test.
#ifndef TESTS_APPS_REFPRINTER_FIXTURE_H
#define TESTS_APPS_REFPRINTER_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "apps/ipp_reply.h"
#include "apps/temp_dir.h"
#include "cmp_ipp_dictionary.h"
#include "cmp_ipp_refprinter.h"
#include "containers/cmp_ipp_malloc.h"
#include "msg/msg_fixture.h"
#include "service/cmp_ipp_ippc.h"

enum : uint8_t { kOpGroup = 1, kJobGroup = 2, kPrinterGroup = 4, kUnsupportedGroup = 5 };
enum : uint16_t {
    kPrintJob = 2, kCreateJob = 5, kSendDocument = 6, kCancelJob = 8, kGetJobAttributes = 9, kGetJobs = 10,
    kGetPrinterAttributes = 11, kHoldJob = 12, kReleaseJob = 13, kCloseJob = 0x3B, kIdentifyPrinter = 0x3C
};

// A request with the usual operation attributes, left open for more.
inline Ipp request(uint16_t op, uint32_t id = 7) {
    Ipp m;
    m.header(2, 0, op, id).opGroup();
    return m;
}

// requested-attributes with these names (keywords unless another tag is given).
inline Ipp& requested(Ipp& m, const std::vector<std::string>& names, uint8_t tag = 0x44) {
    for (size_t i = 0; i < names.size(); ++i) m.text(tag, i == 0 ? "requested-attributes" : "", names[i]);
    return m;
}

inline std::string fileText(const std::string& path) {
    const Bytes b = readFile(path);
    return std::string(b.begin(), b.end());
}

// One request in flight.
class Stream {
public:
    Stream(const Bytes& first, cmp_ipp_if_info_s* record)
        : m_h(IPP_StreamDataStart(first.data(), static_cast<uint32_t>(first.size()), record)) {}
    uint32_t data(const std::string& block) {
        return IPP_StreamData(m_h, reinterpret_cast<const unsigned char*>(block.data()),
                              static_cast<uint32_t>(block.size()));
    }
    ipp_reply::Response end(bool abortFirst = false) { return ipp_reply::parse(endBytes(abortFirst)); }
    std::string endBytes(bool abortFirst = false) {
        if (abortFirst) IPP_StreamDataAbort(m_h);
        int length = 0;
        unsigned char* reply = IPP_StreamDataEnd(m_h, 0, &length);
        const std::string bytes(reinterpret_cast<char*>(reply), reply != nullptr ? static_cast<size_t>(length) : 0);
        cmp_ipp_free(reply);
        return bytes;
    }

private:
    IPP_STREAM_HANDLE m_h;
};

class PrinterFixture : public ::testing::Test {
protected:
    void SetUp() override {
        cmp_ipp_dictionary_install();
        spool = makeTempDir("refprinter");
        ASSERT_FALSE(spool.empty());
    }
    void TearDown() override {
        printer.reset();
        removeDir(spool);
    }
    // A printer (in place of any before it) on the test's clock and spool,
    // with settings of the test's own.
    void start(const std::function<void(refprinter::Config&)>& tune = nullptr) {
        printer.reset();
        refprinter::Config c;
        c.name = "Test Printer";
        c.spoolDir = spool;
        c.processingMs = 1000;
        c.clockMs = [this] { return clock.load(); };
        if (tune) tune(c);
        printer.reset(new refprinter::Printer(c));
        ASSERT_TRUE(printer->start());
    }

    ipp_reply::Response send(const Bytes& first, const std::vector<std::string>& blocks = {}) {
        Stream s(first, &record);
        for (const std::string& b : blocks) s.data(b);
        return s.end();
    }
    ipp_reply::Response printJob(const std::string& user, const std::string& doc) {
        Ipp m = request(kPrintJob);
        m.text(0x42, "requesting-user-name", user).text(0x49, "document-format", "text/plain").tag(3);
        return send(m.b, {doc});
    }
    // A Create-Job: the job then waits for its documents.
    ipp_reply::Response createJob(const std::string& user, const std::string& name = "", const char* hold = nullptr) {
        Ipp m = request(kCreateJob);
        m.text(0x42, "requesting-user-name", user);
        if (!name.empty()) m.text(0x42, "job-name", name);
        if (hold != nullptr) m.tag(2).text(0x44, "job-hold-until", hold);
        return send(m.tag(3).b);
    }
    // A Send-Document of these blocks, with its format and compression when given.
    ipp_reply::Response sendDocument(int32_t id, bool last, const std::vector<std::string>& blocks,
                                     const std::string& format = "", const std::string& compression = "") {
        Ipp m = request(kSendDocument);
        m.integer(0x21, "job-id", id).attr(0x22, "last-document", {static_cast<unsigned char>(last)});
        if (!format.empty()) m.text(0x49, "document-format", format);
        if (!compression.empty()) m.text(0x44, "compression", compression);
        return send(m.tag(3).b, blocks);
    }
    ipp_reply::Response jobRequest(uint16_t op, int32_t id, const std::vector<std::string>& names = {}) {
        Ipp m = request(op);
        m.integer(0x21, "job-id", id);
        return send(requested(m, names).tag(3).b);
    }
    ipp_reply::Response printerRequest(const std::vector<std::string>& names) {
        Ipp m = request(kGetPrinterAttributes);
        return send(requested(m, names).tag(3).b);
    }
    // 0 for a job the printer does not have.
    int stateOf(int32_t id) {
        refprinter::JobInfo info;
        return printer->job(id, &info) ? static_cast<int>(info.state) : 0;
    }

    std::atomic<int64_t> clock{0};
    std::string spool;
    std::unique_ptr<refprinter::Printer> printer;
    cmp_ipp_if_info_s record{};
};

#endif
