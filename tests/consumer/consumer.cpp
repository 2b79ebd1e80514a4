// A printer's software as a firmware team would write it against the installed
// library: the default dictionary, a printer object, a handler, and one
// Get-Printer-Attributes request through the stream interface. Exits non-zero
// on any failure.
#include <stdio.h>
#include <string.h>

#include <vector>

#include "cmp_ipp.h"

namespace {

int failures = 0;

void expect(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "consumer: FAILED: %s\n", what);
        ++failures;
    }
}

// Answers every request with its decoded status and the encoded response.
class MinimalHandler : public cmp_ipp_handler {
public:
    int processed = 0;
    void processRequest(cmp_ipp_streamed_ctx*, void*) override { ++processed; }
    void abortRequest(cmp_ipp_streamed_ctx*, void*) override {}
    void prepareRequest(cmp_ipp_streamed_ctx*, void*) override {}
    uint32_t streamData(cmp_ipp_streamed_ctx*, const cmp_ipp_buf&, void*) override { return 0; }
    cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t, void*) override {
        return ctx->m_response.cmp_ipp_msg_encode();
    }
};

void text(std::vector<unsigned char>& b, uint8_t tag, const char* name, const char* value) {
    b.push_back(tag);
    const size_t n = strlen(name), v = strlen(value);
    b.push_back(static_cast<unsigned char>(n >> 8));
    b.push_back(static_cast<unsigned char>(n));
    b.insert(b.end(), name, name + n);
    b.push_back(static_cast<unsigned char>(v >> 8));
    b.push_back(static_cast<unsigned char>(v));
    b.insert(b.end(), value, value + v);
}

}  // namespace

int main() {
    printf("consumer: cmp_ipp %s\n", CMP_IPP_VERSION);
    cmp_ipp_dictionary_install();
    expect(strcmp(cmp_ipp_ipptable_op_name(CMP_IPP_OP_GET_PRINTER_ATTRIBUTES), "Get-Printer-Attributes") == 0,
           "the dictionary names Get-Printer-Attributes");

    cmp_ipp_obj printer;
    printer.m_attrs.cmp_ipp_attrs_set_attr(CMP_IPP_TAG_KEYWORD,
                                           cmp_ipp_attr::cmp_ipp_attr_name_to_id("ipp-versions-supported"), "1.1");
    printer.m_attrs.cmp_ipp_attrs_set_attr(CMP_IPP_TAG_ENUM,
                                           cmp_ipp_attr::cmp_ipp_attr_name_to_id("operations-supported"),
                                           static_cast<int32_t>(CMP_IPP_OP_GET_PRINTER_ATTRIBUTES));
    MinimalHandler handler;
    expect(pn_ipp_start(&printer, &handler) == 1, "the IPP side starts");

    std::vector<unsigned char> request = {1, 1, 0, CMP_IPP_OP_GET_PRINTER_ATTRIBUTES, 0, 0, 0, 42,
                                          CMP_IPP_TAG_OPERATION_ATTRIBUTES};
    text(request, CMP_IPP_TAG_CHARSET, "attributes-charset", "utf-8");
    text(request, CMP_IPP_TAG_LANGUAGE, "attributes-natural-language", "en");
    request.push_back(CMP_IPP_TAG_END_OF_ATTRIBUTES);

    cmp_ipp_if_info_s transport = {};  // no header fields, no reply codes, no more data
    IPP_STREAM_HANDLE stream = IPP_StreamDataStart(request.data(), static_cast<uint32_t>(request.size()), &transport);
    expect(stream != nullptr, "a stream is created");
    if (stream != nullptr) {
        expect(IPP_StreamStatusCode(stream) == CMP_IPP_STATUS_SUCCESSFUL_OK, "the request decodes");
        int length = 0;
        unsigned char* reply = IPP_StreamDataEnd(stream, cmp_ipp_manager::CMP_IPP_REPLY_FMT_IPP, &length);
        expect(reply != nullptr && length >= 9, "a reply comes back");
        if (reply != nullptr && length >= 9) {
            expect(reply[0] == 1 && reply[1] == 1, "the reply is IPP/1.1");
            expect(reply[2] == 0 && reply[3] == 0, "the reply is successful-ok");
            expect(reply[7] == 42, "the reply carries the request id");
            expect(reply[length - 1] == CMP_IPP_TAG_END_OF_ATTRIBUTES, "the reply ends with the end tag");
        }
        cmp_ipp_free(reply);
    }
    expect(handler.processed == 1, "the handler carried the request out");
    pn_ipp_stop(0, nullptr);
    IPP_Terminate();

    if (failures == 0) printf("consumer: ok\n");
    return failures == 0 ? 0 : 1;
}
