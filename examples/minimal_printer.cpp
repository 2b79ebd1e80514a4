// minimal_printer: the smallest printer built on the library. It answers
// Get-Printer-Attributes, accepts Print-Job (counting the document bytes and
// discarding them) and stops on SIGINT or SIGTERM. Clients reach it through a
// front end on the library's socket: $GEN_UNIX_PATH"zyn_ipp_server", else
// /tmp/zyn_ipp_server.
#include <pthread.h>
#include <signal.h>
#include <stdio.h>

#include <atomic>

#include "cmp_ipp.h"
#include "cmp_ipp_dictionary.h"

namespace {

uint16_t id(const char* name) { return cmp_ipp_attr::cmp_ipp_attr_name_to_id(name); }

// [printer]
// The printer object: its attributes answer Get-Printer-Attributes, and the
// library reads two of them itself: a request is refused unless its version is
// in ipp-versions-supported and its operation in operations-supported.
void describe(cmp_ipp_obj& printer) {
    printer.setName("minimal");
    printer.cmp_ipp_attrs_set_attr(CMP_IPP_TAG_URI, id("printer-uri-supported"), "ipp://localhost:8631/ipp/print");
    printer.cmp_ipp_attrs_set_attr(CMP_IPP_TAG_NAME, id("printer-name"), "Minimal Printer");
    printer.cmp_ipp_attrs_set_attr(CMP_IPP_TAG_ENUM, id("printer-state"), 3);  // idle
    printer.cmp_ipp_attrs_set_attr(CMP_IPP_TAG_BOOLEAN, id("printer-is-accepting-jobs"), 1);
    printer.cmp_ipp_attrs_set_attr(CMP_IPP_TAG_CHARSET, id("charset-configured"), "utf-8");
    printer.cmp_ipp_attrs_set_attr(CMP_IPP_TAG_LANGUAGE, id("natural-language-configured"), "en");
    printer.cmp_ipp_attrs_set_attr(CMP_IPP_TAG_MIMETYPE, id("document-format-default"), "application/octet-stream");
    cmp_ipp_attr ops(CMP_IPP_TAG_ENUM, id("operations-supported"), CMP_IPP_OP_PRINT_JOB);
    ops.cmp_ipp_attr_add_multi(cmp_ipp_attr(CMP_IPP_TAG_ENUM, ops.m_nameId, CMP_IPP_OP_GET_PRINTER_ATTRIBUTES));
    printer.m_attrs.cmp_ipp_attrs_set_attr(&ops, false);
    cmp_ipp_attr versions(CMP_IPP_TAG_KEYWORD, id("ipp-versions-supported"), "1.1");
    versions.cmp_ipp_attr_add_multi(cmp_ipp_attr(CMP_IPP_TAG_KEYWORD, versions.m_nameId, "2.0"));
    printer.m_attrs.cmp_ipp_attrs_set_attr(&versions, false);
}
// [printer]

// [handler]
// Called from the library's connection tasks, several at once: everything shared is atomic.
class MinimalHandler : public cmp_ipp_handler {
public:
    std::atomic<uint32_t> jobs{0};
    std::atomic<uint64_t> bytes{0};

    // Every stream, failed ones too: the two attributes every response opens with.
    void prepareRequest(cmp_ipp_streamed_ctx* ctx, void*) override {
        cmp_ipp_attrs* op = ctx->m_response.getAttrGroup("Op");
        op->cmp_ipp_attrs_set_attr(CMP_IPP_TAG_CHARSET, id("attributes-charset"), "utf-8");
        op->cmp_ipp_attrs_set_attr(CMP_IPP_TAG_LANGUAGE, id("attributes-natural-language"), "en");
    }
    // Only streams that decoded well, with a printer registered.
    void processRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override {
        if (ctx->m_request.m_operationId == CMP_IPP_OP_GET_PRINTER_ATTRIBUTES) {
            ctx->m_response.getAttrGroup("Printer")->setAttrs(static_cast<cmp_ipp_obj*>(printer)->m_attrs);
        } else {
            // Print-Job: document bytes that came with the request are the first to count.
            ctx->m_handlerData = ctx->m_request.m_docData.length();
        }
    }
    // The rest of the document, block by block; 0 asks for more.
    uint32_t streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data, void*) override {
        ctx->m_handlerData += data.length();
        return 0;
    }
    // The client went away mid-document: the status is already client-error-timeout.
    void abortRequest(cmp_ipp_streamed_ctx*, void*) override {}
    // The reply bytes; the library copies them and the context is gone after this call.
    cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t fmt,
                              void*) override {
        if (fmt == cmp_ipp_manager::CMP_IPP_REPLY_FMT_HTML)
            return cmp_ipp_buf("<html><body><h1>Minimal Printer</h1><p>idle</p></body></html>", true);
        if (ctx == nullptr) return cmp_ipp_buf(true);  // an empty reply
        cmp_ipp_response& rsp = ctx->m_response;
        if (ctx->m_request.m_operationId == CMP_IPP_OP_PRINT_JOB &&
            rsp.getStatusCode() < CMP_IPP_STATUS_CLIENT_ERROR_BAD_REQUEST) {
            const int32_t job = static_cast<int32_t>(++jobs);
            bytes += ctx->m_handlerData;
            cmp_ipp_attrs* group = rsp.getAttrGroup("Job");
            group->cmp_ipp_attrs_set_attr(CMP_IPP_TAG_INTEGER, id("job-id"), job);
            group->cmp_ipp_attrs_set_attr(CMP_IPP_TAG_ENUM, id("job-state"), 9);  // completed
            group->cmp_ipp_attrs_set_attr(CMP_IPP_TAG_KEYWORD, id("job-state-reasons"), "job-completed-successfully");
        }
        return rsp.cmp_ipp_msg_encode();
    }
};
// [handler]

}  // namespace

// [main]
int main() {
    // Block the stop signals before the library starts its tasks, which inherit
    // the mask: only sigwait() below sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    cmp_ipp_dictionary_install();  // before anything decodes or looks up a name
    cmp_ipp_obj printer;
    describe(printer);
    MinimalHandler handler;
    cmp_ipp_init_wrap(&printer, &handler);  // IPP side on, listener task started
    printf("minimal_printer: running\n");
    fflush(stdout);

    int sig = 0;
    sigwait(&stopSignals, &sig);

    // The socket closed and open connections cut short; then IPP off; then wait
    // until no task is still inside the handler before both objects go out of scope.
    const int stopped = orvane::cmp_ipp_facade::cmp_ipp_get_instance()->cmp_ipp_term();
    pn_ipp_stop(0, nullptr);
    cmp_ipp_manager::get()->unregisterHandler(&handler);
    cmp_ipp_manager::get()->unregisterPrinter(&printer);
    printf("minimal_printer: %u job(s), %llu byte(s)\n", static_cast<unsigned>(handler.jobs.load()),
           static_cast<unsigned long long>(handler.bytes.load()));
    return stopped == 0 ? 0 : 1;
}
// [main]
