#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "msg/msg_fixture.h"
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
    void SetUp() override {
        cmp_ipp_manager* m = cmp_ipp_manager::get();
        m_savedHandler = m->m_handler;
        IPP_Initialize(nullptr, &handler);
        IPPCGI_EnableIPP(1);
    }
    void TearDown() override {
        // Whichever handler a test left registered: it goes out of scope now.
        cmp_ipp_manager* m = cmp_ipp_manager::get();
        m->unregisterHandler(m->m_handler.load());
        if (m_savedHandler != nullptr) IPP_Initialize(nullptr, m_savedHandler);
        IPPCGI_EnableIPP(0);
    }

    static Bytes request(uint16_t op, uint32_t id = 77) {
        Ipp m;
        m.header(1, 1, op, id).opGroup().tag(3);
        return m.b;
    }

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
    cmp_ipp_if_info_s record{};

private:
    cmp_ipp_handler* m_savedHandler = nullptr;
};

TEST_F(ServiceTest, GoodRequestRunsPrepareProcessDataFinish) {
    IPP_STREAM_HANDLE h = start(request(0x0002, 4242));
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(IPP_StreamStatusCode(h), 0);
    const unsigned char data[100] = {0};
    EXPECT_EQ(IPP_StreamData(h, data, 100), 0u);
    EXPECT_EQ(IPP_StreamData(h, data, 5), 0u);
    const std::string reply = end(h);
    EXPECT_EQ(handler.calls(), (Calls{"prepare status=0x0000 printer=set", "process status=0x0000 printer=set",
                                      "data 100 status=0x0000 printer=set", "data 5 status=0x0000 printer=set",
                                      "finish ipp status=0x0000 printer=set"}));
    ASSERT_GE(reply.size(), 9u);
    EXPECT_EQ(reply.substr(0, 8), std::string("\x01\x01\x00\x00\x00\x00\x10\x92", 8))
        << "version and request-id copied from the request";
}

TEST_F(ServiceTest, DecodingFailureOnlyPrepares) {
    IPP_STREAM_HANDLE h = start(request(0x000B, 0));
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(IPP_StreamStatusCode(h), 0x0400);
    const unsigned char data[4] = {1, 2, 3, 4};
    EXPECT_EQ(IPP_StreamData(h, data, 4), 6u) << "data refused after an error status";
    end(h);
    EXPECT_EQ(handler.calls(),
              (Calls{"prepare status=0x0400 printer=set", "finish ipp status=0x0400 printer=set"}));
}

TEST_F(ServiceTest, HandlerFailingInPrepareStopsProcessingButCopiesTheRequestId) {
    handler.prepareStatus = 0x0400;
    IPP_STREAM_HANDLE h = start(request(0x000B, 99));
    auto* ctx = static_cast<cmp_ipp_streamed_ctx*>(h);
    EXPECT_EQ(ctx->m_response.m_requestId, 99);
    EXPECT_EQ(IPP_StreamStatusCode(h), 0x0400);
    end(h);
    EXPECT_EQ(handler.calls(), (Calls{"prepare status=0x0000 printer=set", "finish ipp status=0x0400 printer=set"}));
}

TEST_F(ServiceTest, NoPrinterGivesServiceUnavailable) {
    void* saved = cmp_ipp_manager::get()->m_printer;
    cmp_ipp_manager* m = cmp_ipp_manager::get();
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
    EXPECT_EQ(handler.calls(), (Calls{"prepare status=0x0000 printer=null", "finish ipp status=0x0502 printer=set"}));
}

struct AbortCase {
    uint16_t op;
    bool reported;
};

TEST_F(ServiceTest, AbortedStreams) {
    const AbortCase cases[] = {{0x0002, true}, {0x0005, true}, {0x0006, true}, {0x000B, false}};
    for (const AbortCase& c : cases) {
        RecordingHandler fresh;
        IPP_Initialize(nullptr, &fresh);
        IPP_STREAM_HANDLE h = start(request(c.op));
        EXPECT_EQ(IPP_StreamDataAbort(h), 0);
        EXPECT_EQ(IPP_StreamStatusCode(h), 0x0405);
        const unsigned char data[1] = {0};
        EXPECT_EQ(IPP_StreamData(h, data, 1), 6u);
        end(h);
        Calls expected{"prepare status=0x0000 printer=set", "process status=0x0000 printer=set"};
        if (c.reported) expected.push_back("abort status=0x0405 printer=set");
        expected.push_back("finish ipp status=0x0405 printer=set");
        EXPECT_EQ(fresh.calls(), expected) << "operation " << c.op;
        IPP_Initialize(nullptr, &handler);
    }

    IPP_STREAM_HANDLE failed = start(request(0x0002, 0));
    IPP_StreamDataAbort(failed);
    EXPECT_EQ(IPP_StreamStatusCode(failed), 0x0400) << "an error already set stays";
    end(failed);
}

TEST_F(ServiceTest, HandlerDataCodesAndReplyBlocks) {
    handler.dataResult = 3;
    handler.reply = "hello";
    IPP_STREAM_HANDLE h = start(request(0x0002));
    const unsigned char data[2] = {0, 0};
    EXPECT_EQ(IPP_StreamData(h, data, 2), 3u);
    int len = 0;
    unsigned char* block = IPP_StreamDataEnd(h, 0, &len);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(len, 5);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(block)), "hello");
    EXPECT_EQ(block[5], 0);
    cmp_ipp_free(block);
}

TEST_F(ServiceTest, DisabledOrWithoutRecordGivesNoStream) {
    const Bytes b = request(0x000B);
    TraceCapture trace(0);
    IPPCGI_EnableIPP(0);
    EXPECT_EQ(IPPCGI_Enabled(), 0);
    EXPECT_EQ(IPP_StreamDataStart(b.data(), static_cast<uint32_t>(b.size()), nullptr), nullptr);
    EXPECT_TRUE(trace.lines().empty()) << "the enabled test comes first";
    IPPCGI_EnableIPP(1);
    EXPECT_EQ(IPP_StreamDataStart(b.data(), static_cast<uint32_t>(b.size()), nullptr), nullptr);
    ASSERT_EQ(trace.lines().size(), 1u);
    EXPECT_EQ(trace.lines()[0],
              "[ERROR ]:cmp_ipp_ippc::IPP_StreamDataStart(47): httpInfoPtr MUST be filled in!.\n");
    EXPECT_TRUE(handler.calls().empty());
}

TEST_F(ServiceTest, WithoutHandlerNothingIsCalledThroughNull) {
    cmp_ipp_manager::get()->unregisterHandler(&handler);
    IPP_STREAM_HANDLE h = start(request(0x0002));
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(IPP_StreamStatusCode(h), 0x0502);
    const unsigned char data[1] = {0};
    EXPECT_EQ(cmp_ipp_manager::get()->streamData(static_cast<cmp_ipp_streamed_ctx*>(h), cmp_ipp_buf(data, 1, false)),
              6u);
    EXPECT_EQ(IPP_StreamDataAbort(h), 0);
    int len = -1;
    EXPECT_EQ(IPP_StreamDataEnd(h, 0, &len), nullptr);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(IPP_StreamStatusCode(nullptr), 0x0500);
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
        const Calls calls = inspecting.calls();
        ASSERT_EQ(calls.size(), 3u);
        EXPECT_EQ(calls.back(), "finish html status=0x0000 printer=set");
    }
    IPP_Initialize(nullptr, &handler);
}

TEST_F(ServiceTest, StartAndStop) {
    cmp_ipp_manager* m = cmp_ipp_manager::get();
    void* first = m->m_printer;
    RecordingHandler other;
    int otherPrinter = 0;
    EXPECT_EQ(pn_ipp_start(&otherPrinter, &other), 1);
    EXPECT_EQ(IPPCGI_Enabled(), 1);
    EXPECT_EQ(m->m_printer, first) << "the first printer handle stays";
    EXPECT_EQ(m->m_handler, &other) << "the handler is replaced";
    EXPECT_EQ(pn_ipp_stop(0, nullptr), 0);
    EXPECT_EQ(IPPCGI_Enabled(), 0);
    EXPECT_EQ(m->m_handler, &other) << "stopping releases nothing";
    EXPECT_EQ(cmp_ipp_manager::get(), m);

    m->unregisterPrinter(first);
    EXPECT_EQ(IPP_Initialize(&otherPrinter, &handler), 0);
    EXPECT_EQ(m->m_printer, &otherPrinter);
    m->init(first);
}

TEST_F(ServiceTest, UnregisterClearsOnlyWhatIsRegistered) {
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
    IPP_STREAM_HANDLE h = start(request(0x000B));
    EXPECT_GE(IPP_StreamStatusCode(h), 0x0400) << "without a printer the request fails";
    end(h);
    m->unregisterHandler(&handler);
    EXPECT_EQ(m->m_handler, nullptr);
    m->init(registeredPrinter);
    h = start(request(0x000B));
    EXPECT_EQ(IPP_StreamStatusCode(h), 0x0502) << "without a handler the service is unavailable";
    EXPECT_EQ(end(h), "");
    EXPECT_EQ(handler.calls(), (Calls{"prepare status=0x0500 printer=null", "finish ipp status=0x0500 printer=null"}))
        << "only the stream without a printer reached the handler";

    // A later start registers both again.
    m->unregisterPrinter(registeredPrinter);
    EXPECT_EQ(pn_ipp_start(registeredPrinter, &handler), 1);
    EXPECT_EQ(m->m_printer, registeredPrinter);
    EXPECT_EQ(m->m_handler, &handler);
}

// A handler may unregister itself from inside one of its calls: that call is not
// waited for (it would never end), and the stream goes on without a handler.
TEST_F(ServiceTest, UnregisterFromInsideAHandlerCallDoesNotWaitForItself) {
    class SelfRemoving : public RecordingHandler {
    public:
        void processRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override {
            RecordingHandler::processRequest(ctx, printer);
            cmp_ipp_manager::get()->unregisterHandler(this);
        }
    };
    SelfRemoving self;
    IPP_Initialize(nullptr, &self);
    IPP_STREAM_HANDLE h = start(request(0x0002));
    EXPECT_EQ(cmp_ipp_manager::get()->m_handler, nullptr);
    const unsigned char data[1] = {0};
    EXPECT_EQ(IPP_StreamData(h, data, 1), 6u) << "data is refused once the handler is gone";
    EXPECT_EQ(end(h), "");
    EXPECT_EQ(self.calls(), (Calls{"prepare status=0x0000 printer=set", "process status=0x0000 printer=set"}));
}

}  // namespace
