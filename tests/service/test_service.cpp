#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "httpd/httpd_fixture.h"  // ippRequest
#include "containers/cmp_ipp_malloc.h"
#include "msg/cmp_ipp_request.h"
#include "service/recording_handler.h"
#include "service/cmp_ipp_ippc.h"
#include "service/cmp_ipp_manager.h"

namespace {

using Calls = std::vector<std::string>;

// A manager set up with the test printer and a recording handler; IPP enabled.
class ServiceTest : public ::testing::Test {
protected:
    IPP_STREAM_HANDLE start(const Bytes& b) {
        return IPP_StreamDataStart(b.data(), static_cast<uint32_t>(b.size()), &record);
    }

    std::string end(IPP_STREAM_HANDLE h, int fmt = 0) {
        int len = -7;
        unsigned char* block = IPP_StreamDataEnd(h, fmt, &len);
        std::string out;
        if (block != nullptr) {
            EXPECT_EQ(block[len], 0) << "a zero byte follows the reply";
            out.assign(reinterpret_cast<char*>(block), static_cast<size_t>(len));
            cmp_ipp_free(block);
        } else {
            EXPECT_LE(len, 0);
        }
        return out;
    }

    ScopedRegistry reg{messageTables()};
    ScopedPrinter printer;
    RecordingHandler handler;
    ScopedHandler registered{&handler};
    cmp_ipp_if_info_s record{};
};

// One stream through the plain interface: start, optionally abort, 100 bytes of
// data, end; what the handler saw, the status and the reply, for each way a
// stream can go.
TEST_F(ServiceTest, StreamsRunTheHandlerCallsTheirStatusAllows) {
    const std::string okReply("\x01\x01\x00\x00\x00\x00\x10\x92", 8);  // version and request-id 4242 copied
    const struct {
        const char* what;
        uint16_t op;
        uint32_t id;
        int prepareStatus;
        uint32_t dataResult;  // what the handler answers to data
        const char* reply;    // the handler's own reply block, if any
        bool noHandler;
        bool unregisterInProcess;
        bool abort;
        uint16_t status;     // after the start (and the abort)
        uint32_t accepted;   // what the data call returns
        std::string replyStart;
        Calls calls;
    } cases[] = {
        {"good request", 0x0002, 4242, -1, 0, "", false, false, false, 0, 0, okReply,
         {"prepare 0x0000", "process 0x0000", "data 100 0x0000", "finish ipp 0x0000"}},
        {"handler's data code and reply block", 0x0002, 4242, -1, 3, "hello", false, false, false, 0, 3, "hello",
         {"prepare 0x0000", "process 0x0000", "data 100 0x0000", "finish ipp 0x0000"}},
        {"decoding failure only prepares", 0x000B, 0, -1, 0, "", false, false, false, 0x0400, 6, "",
         {"prepare 0x0400", "finish ipp 0x0400"}},
        {"prepare fails: no processing, request id still copied", 0x000B, 99, 0x0400, 0, "", false, false, false,
         0x0400, 6, std::string("\x01\x01\x04\x00\x00\x00\x00\x63", 8), {"prepare 0x0000", "finish ipp 0x0400"}},
        {"aborted Print-Job", 0x0002, 77, -1, 0, "", false, false, true, 0x0405, 6, "",
         {"prepare 0x0000", "process 0x0000", "abort 0x0405", "finish ipp 0x0405"}},
        {"aborted Create-Job", 0x0005, 77, -1, 0, "", false, false, true, 0x0405, 6, "",
         {"prepare 0x0000", "process 0x0000", "abort 0x0405", "finish ipp 0x0405"}},
        {"aborted Send-Document", 0x0006, 77, -1, 0, "", false, false, true, 0x0405, 6, "",
         {"prepare 0x0000", "process 0x0000", "abort 0x0405", "finish ipp 0x0405"}},
        {"aborted query: no abort call", 0x000B, 77, -1, 0, "", false, false, true, 0x0405, 6, "",
         {"prepare 0x0000", "process 0x0000", "finish ipp 0x0405"}},
        {"abort keeps an error already set", 0x0002, 0, -1, 0, "", false, false, true, 0x0400, 6, "",
         {"prepare 0x0400", "finish ipp 0x0400"}},
        {"no handler: nothing called through null", 0x0002, 77, -1, 0, "", true, false, true, 0x0502, 6, "", {}},
        // Not waited for (it would never end): the stream goes on without a handler.
        {"handler unregisters itself inside a call", 0x0002, 77, -1, 0, "", false, true, false, 0, 6, "",
         {"prepare 0x0000", "process 0x0000"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        RecordingHandler fresh;
        fresh.prepareStatus = c.prepareStatus;
        fresh.dataResult = c.dataResult;
        fresh.reply = c.reply;
        fresh.unregisterInProcess = c.unregisterInProcess;
        IPP_Initialize(nullptr, &fresh);
        if (c.noHandler) cmp_ipp_manager::get()->unregisterHandler(&fresh);
        IPP_STREAM_HANDLE h = start(ippRequest(c.op, c.id));
        ASSERT_NE(h, nullptr);
        if (c.abort) {
            EXPECT_EQ(IPP_StreamDataAbort(h), 0);
        }
        EXPECT_EQ(IPP_StreamStatusCode(h), c.status);
        const unsigned char data[100] = {0};
        EXPECT_EQ(IPP_StreamData(h, data, 100), c.accepted);
        const std::string reply = end(h);
        EXPECT_EQ(reply.substr(0, c.replyStart.size()), c.replyStart);
        if (c.noHandler || c.unregisterInProcess) {
            EXPECT_EQ(reply, "") << "no reply without a handler";
        }
        EXPECT_EQ(fresh.calls(), c.calls);
        cmp_ipp_manager::get()->unregisterHandler(cmp_ipp_manager::get()->m_handler.load());
    }
    EXPECT_EQ(IPP_StreamStatusCode(nullptr), 0x0500);
}

TEST_F(ServiceTest, NoPrinterGivesServiceUnavailable) {
    cmp_ipp_manager* m = cmp_ipp_manager::get();
    void* saved = m->m_printer;
    EXPECT_EQ(m->removePrinter(reinterpret_cast<intptr_t>(&handler)), 0);
    EXPECT_EQ(m->m_printer, saved) << "a different handle leaves the printer in place";
    EXPECT_EQ(m->getPrinterFromHandle(reinterpret_cast<intptr_t>(saved)), reinterpret_cast<intptr_t>(saved));
    // Run the stream by hand with the request already decoded and no printer.
    cmp_ipp_streamed_ctx* ctx = new cmp_ipp_streamed_ctx();
    m->removePrinter(reinterpret_cast<intptr_t>(saved));
    EXPECT_EQ(m->m_printer, nullptr);
    m->processStreamedRequest(ctx);
    EXPECT_EQ(ctx->m_response.getStatusCode(), 0x0502);
    m->init(saved);
    m->streamDestroy(ctx, cmp_ipp_manager::CMP_IPP_REPLY_FMT_IPP);
    EXPECT_EQ(handler.calls(), (Calls{"prepare 0x0000 no printer", "finish ipp 0x0502"}));
}

TEST_F(ServiceTest, DisabledOrWithoutRecordGivesNoStream) {
    const Bytes b = ippRequest(0x000B, 77);
    TraceCapture trace(0);
    IPPCGI_EnableIPP(0);
    EXPECT_EQ(IPPCGI_Enabled(), 0);
    EXPECT_EQ(IPP_StreamDataStart(b.data(), static_cast<uint32_t>(b.size()), nullptr), nullptr);
    EXPECT_TRUE(trace.lines().empty()) << "the enabled test comes first";
    IPPCGI_EnableIPP(1);
    EXPECT_EQ(IPP_StreamDataStart(b.data(), static_cast<uint32_t>(b.size()), nullptr), nullptr);
    EXPECT_EQ(trace.lines(), std::vector<std::string>{
                  "[ERROR ]:cmp_ipp_ippc::IPP_StreamDataStart(47): httpInfoPtr MUST be filled in!.\n"});
    EXPECT_TRUE(handler.calls().empty());
}

TEST_F(ServiceTest, PrinterAttributesPageRequest) {
    int len = 0;
    // The handler sees the synthesised request: check its operation attributes.
    class Inspecting : public RecordingHandler {
    public:
        void prepareRequest(cmp_ipp_streamed_ctx* ctx, void* p) override {
            RecordingHandler::prepareRequest(ctx, p);
            op = ctx->m_request.m_operationId;
            const cmp_ipp_attrs* g = ctx->m_request.getAttrGroup("Op");
            for (int32_t i = 0; i < g->count(); ++i)
                attrs.push_back(std::string((*g)[i].cmp_ipp_attr_get_name()) + "=" + (*g)[i].m_strings[0].c_str());
        }
        int op = 0;
        std::vector<std::string> attrs;
    };
    for (bool withUri : {false, true}) {
        Inspecting inspecting;
        inspecting.reply = "<html/>";
        IPP_Initialize(nullptr, &inspecting);
        if (withUri) printer.printer.cmp_ipp_attrs_set_attr(0x45, 11, "ipp://printer/ipp/print");
        unsigned char* page = IPP_GetPrnAttrHtml(&len, &record);
        ASSERT_NE(page, nullptr);
        EXPECT_EQ(len, 7);
        cmp_ipp_free(page);
        EXPECT_EQ(inspecting.op, 0x000B);
        EXPECT_EQ(inspecting.attrs,
                  (std::vector<std::string>{"attributes-charset=utf-8", "attributes-natural-language=en-us",
                                            std::string("printer-uri=") + (withUri ? "ipp://printer/ipp/print" : "")}));
        EXPECT_EQ(inspecting.calls(), (Calls{"prepare 0x0000", "process 0x0000", "finish html 0x0000"}));
    }
    IPP_Initialize(nullptr, &handler);
}

// An unregister clears only what is registered, a start registers both again;
// a later start keeps the printer registered first and replaces the handler,
// and a stop turns IPP off and releases nothing.
TEST_F(ServiceTest, UnregisterStartAndStopTouchOnlyWhatTheyName) {
    cmp_ipp_manager* m = cmp_ipp_manager::get();
    void* const registeredPrinter = m->m_printer;
    RecordingHandler other;
    int otherPrinter = 0;
    m->unregisterHandler(&other);
    m->unregisterHandler(nullptr);
    EXPECT_EQ(m->m_handler, &handler) << "another handler leaves the registered one";
    m->unregisterPrinter(&otherPrinter);
    m->unregisterPrinter(nullptr);
    EXPECT_EQ(m->m_printer, registeredPrinter) << "another printer leaves the registered one";

    m->unregisterPrinter(registeredPrinter);
    EXPECT_EQ(m->m_printer, nullptr);
    IPP_STREAM_HANDLE h = start(ippRequest(0x000B, 77));
    EXPECT_GE(IPP_StreamStatusCode(h), 0x0400) << "without a printer the request fails";
    end(h);
    EXPECT_EQ(handler.calls(), (Calls{"prepare 0x0500 no printer", "finish ipp 0x0500 no printer"}));
    m->unregisterHandler(&handler);
    EXPECT_EQ(m->m_handler, nullptr);
    // A later start registers both again.
    EXPECT_EQ(pn_ipp_start(registeredPrinter, &handler), 1);
    EXPECT_EQ(m->m_printer, registeredPrinter);
    EXPECT_EQ(m->m_handler, &handler);

    EXPECT_EQ(pn_ipp_start(&otherPrinter, &other), 1);
    EXPECT_EQ(IPPCGI_Enabled(), 1);
    EXPECT_EQ(m->m_printer, registeredPrinter) << "the first printer handle stays";
    EXPECT_EQ(m->m_handler, &other) << "the handler is replaced";
    EXPECT_EQ(pn_ipp_stop(0, nullptr), 0);
    EXPECT_EQ(IPPCGI_Enabled(), 0);
    EXPECT_EQ(m->m_handler, &other) << "stopping releases nothing";
    m->unregisterPrinter(registeredPrinter);
    EXPECT_EQ(IPP_Initialize(&otherPrinter, &handler), 0);
    EXPECT_EQ(m->m_printer, &otherPrinter);
    m->init(registeredPrinter);
}

}  // namespace
