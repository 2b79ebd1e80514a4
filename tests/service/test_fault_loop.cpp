// Fault loops: the n-th allocation, then the n-th mutex operation, is made to
// fail, for n = 1, 2, ... until an operation runs through without reaching the
// fault. Whatever n, nothing crashes or leaks and the result is either the one
// of a run without faults or the defined error. (The library's allocator waits
// and tries again, so an allocation fault must not change the result at all.)
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "containers/cmp_ipp_malloc.h"
#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"
#include "platform/emw_osw_test.h"
#include "service/recording_handler.h"

namespace {

// Answers Get-Printer-Attributes with the printer object's attributes.
class PrinterAttrsHandler : public RecordingHandler {
public:
    void processRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override {
        if (printer == nullptr) return;
        const cmp_ipp_attrs& from = static_cast<cmp_ipp_obj*>(printer)->m_attrs;
        cmp_ipp_attrs& to = *ctx->m_response.getAttrGroup("Printer");
        for (int32_t i = 0; i < from.count(); ++i) to.cmp_ipp_attrs_set_attr_by_name(&from[i], false);
    }
};

Bytes printerAttributesRequest() {
    Ipp m;
    m.header(1, 1, 0x000B, 7)
        .opGroup()
        .text(0x47, "attributes-charset", "utf-8")
        .text(0x48, "attributes-natural-language", "en")
        .text(0x45, "printer-uri", "ipp://localhost/ipp/print")
        .tag(3);
    return m.b;
}

enum class Fault { Alloc, MutexOp };

struct Outcome {
    std::string result;  // what the operation produced, compared with the fault-free run
    bool definedError;   // the operation reported its defined error instead
};

// Runs op with no fault, then with the n-th call of the kind failing for every
// n until op no longer reaches it; returns how many faults it reached.
int faultLoop(Fault kind, const char* what, const std::function<Outcome()>& op) {
    const Outcome clean = op();
    EXPECT_FALSE(clean.definedError) << what << ": fails without a fault";
    for (int n = 1;; ++n) {
        const int32_t blocks = emwOSWTestOutstandingBlocks();
        if (kind == Fault::Alloc) emwOSWTestFailNthAlloc(n);
        else emwOSWTestFailNthMutexOp(n);
        const Outcome got = op();
        const bool reached = emwOSWTestFaultPending() == 0;
        emwOSWTestFailNthAlloc(0);
        emwOSWTestFailNthMutexOp(0);
        EXPECT_EQ(emwOSWTestOutstandingBlocks(), blocks) << what << ": blocks leaked with fault " << n;
        if (kind == Fault::Alloc) {
            EXPECT_FALSE(got.definedError) << what << ": allocation " << n << " failed the operation";
            EXPECT_EQ(got.result, clean.result) << what << ": allocation " << n;
        } else if (!got.definedError) {
            EXPECT_EQ(got.result, clean.result) << what << ": mutex operation " << n;
        }
        if (!reached || n >= 100000) return n - 1;
    }
}

class FaultLoop : public ::testing::TestWithParam<Fault> {
protected:
    ScopedRegistry reg{messageTables()};
    ScopedPrinter printer;
    const Bytes request = printerAttributesRequest();
};

TEST_P(FaultLoop, Decoding) {
    const int faults = faultLoop(GetParam(), "decode", [&] {
        cmp_ipp_request req;
        cmp_ipp_buf buf(request.data(), static_cast<uint32_t>(request.size()), true);
        const uint32_t rc = req.decode(buf, nullptr);
        return Outcome{std::to_string(rc) + "/" + std::to_string(req.m_requestId), rc != 0};
    });
    EXPECT_GT(faults, 0);
}

TEST_P(FaultLoop, Encoding) {
    cmp_ipp_request req;
    cmp_ipp_buf buf(request.data(), static_cast<uint32_t>(request.size()), true);
    ASSERT_EQ(req.decode(buf, nullptr), 0u);
    const int faults = faultLoop(GetParam(), "encode", [&] {
        const cmp_ipp_buf out = req.cmp_ipp_msg_encode();
        return Outcome{std::string(reinterpret_cast<const char*>(out.data()), out.length()), false};
    });
    RecordProperty("faults", faults);
}

// A request through the stream functions, with a body in two blocks, answered
// with the printer's attributes: the reply block, or an error status.
TEST_P(FaultLoop, StreamedGetPrinterAttributes) {
    PrinterAttrsHandler handler;
    ScopedHandler registered(&handler);
    const int faults = faultLoop(GetParam(), "stream", [&] {
        cmp_ipp_if_info_s record{};
        IPP_STREAM_HANDLE h = IPP_StreamDataStart(request.data(), static_cast<uint32_t>(request.size()), &record);
        if (h == nullptr) return Outcome{"", true};
        const unsigned char body[6] = {'%', 'P', 'D', 'F', '-', '1'};
        (void)IPP_StreamData(h, body, 3);
        (void)IPP_StreamData(h, body + 3, 3);
        const uint16_t status = IPP_StreamStatusCode(h);
        int length = 0;
        unsigned char* reply = IPP_StreamDataEnd(h, 0, &length);
        std::string bytes;
        if (reply != nullptr) {
            bytes.assign(reinterpret_cast<const char*>(reply), static_cast<size_t>(length));
            cmp_ipp_free(reply);
        }
        const uint16_t replyStatus =
            bytes.size() >= 4 ? static_cast<uint16_t>(static_cast<unsigned char>(bytes[2]) << 8 |
                                                      static_cast<unsigned char>(bytes[3]))
                              : 0xFFFF;
        return Outcome{bytes, status >= 0x0400 || replyStatus >= 0x0400};
    });
    EXPECT_GT(faults, 0);
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultLoop, ::testing::Values(Fault::Alloc, Fault::MutexOp),
                         [](const ::testing::TestParamInfo<Fault>& p) {
                             return std::string(p.param == Fault::Alloc ? "Allocation" : "MutexOperation");
                         });

}  // namespace
