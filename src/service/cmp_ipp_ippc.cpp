// The streamed submission interface.
#include "service/cmp_ipp_ippc.h"

#include <cstring>

#include "containers/cmp_ipp_malloc.h"
#include "platform/cmp_dbglog.h"
#include "service/cmp_ipp_manager.h"

namespace {

cmp_ipp_streamed_ctx* ctxOf(IPP_STREAM_HANDLE h) { return static_cast<cmp_ipp_streamed_ctx*>(h); }

// Copies a reply into a caller-owned block with one zero byte after it.
unsigned char* replyBlock(const cmp_ipp_buf& reply, int* lengthOut) {
    const int length = static_cast<int>(reply.length());
    if (lengthOut != nullptr) *lengthOut = length;
    if (length <= 0) return nullptr;
    unsigned char* block = static_cast<unsigned char*>(cmp_ipp_malloc(static_cast<uint32_t>(length) + 1));
    std::memcpy(block, reply.data(), static_cast<size_t>(length));
    block[length] = 0;
    return block;
}

}  // namespace

extern "C" IPP_STREAM_HANDLE IPP_StreamDataStart(const unsigned char* data, uint32_t length,
                                                 cmp_ipp_if_info_s* httpInfoPtr) {
    if (IPPCGI_Enabled() == 0) return nullptr;
    if (httpInfoPtr == nullptr) {
        orvane::cmp_dbglog::tracer(0, "[ERROR ]:cmp_ipp_ippc::%s(%d): httpInfoPtr MUST be filled in!.\n",
                                   "IPP_StreamDataStart", 47);
        return nullptr;
    }
    cmp_ipp_buf wrapper(data, length, false);
    return cmp_ipp_manager::get()->streamCreate(wrapper, httpInfoPtr);
}

extern "C" uint32_t IPP_StreamData(IPP_STREAM_HANDLE handle, const unsigned char* data, uint32_t length) {
    if (IPP_StreamStatusCode(handle) > 2) return 6;
    const cmp_ipp_buf wrapper(data, length, false);
    return cmp_ipp_manager::get()->streamData(ctxOf(handle), wrapper);
}

extern "C" unsigned char* IPP_StreamDataEnd(IPP_STREAM_HANDLE handle, int fmt, int* lengthOut) {
    const cmp_ipp_buf reply = cmp_ipp_manager::get()->streamDestroy(
        ctxOf(handle), static_cast<cmp_ipp_manager::cmp_ipp_reply_fmt_t>(fmt));
    return replyBlock(reply, lengthOut);
}

extern "C" int IPP_StreamDataAbort(IPP_STREAM_HANDLE handle) {
    return cmp_ipp_manager::get()->streamAbort(ctxOf(handle));
}

extern "C" uint16_t IPP_StreamStatusCode(IPP_STREAM_HANDLE handle) {
    if (handle == nullptr) return CMP_IPP_STATUS_INTERNAL_ERROR;
    return ctxOf(handle)->m_response.getStatusCode();
}

extern "C" unsigned char* IPP_GetPrnAttrHtml(int* lengthOut, cmp_ipp_if_info_s* info) {
    cmp_ipp_manager* manager = cmp_ipp_manager::get();
    cmp_ipp_request request;
    request.m_operationId = 0x000B;
    request.resetDataComplete();
    request.setOpAttr(CMP_IPP_TAG_CHARSET, cmp_ipp_attr::cmp_ipp_attr_name_to_id("attributes-charset"), "utf-8");
    request.setOpAttr(CMP_IPP_TAG_LANGUAGE, cmp_ipp_attr::cmp_ipp_attr_name_to_id("attributes-natural-language"),
                      "en-us");
    {
        // The URI text belongs to the printer object: copied before the scope ends.
        cmp_ipp_manager::cmp_ipp_call_scope scope;
        const char* uri = "";
        const cmp_ipp_obj* printer = static_cast<const cmp_ipp_obj*>(manager->m_printer.load());
        if (printer != nullptr) {
            const uint16_t id = cmp_ipp_attr::cmp_ipp_attr_name_to_id("printer-uri-supported");
            const cmp_ipp_attr* supported =
                id != 0 ? printer->m_attrs.find(id) : printer->m_attrs.find("printer-uri-supported");
            if (supported != nullptr && supported->m_numValues >= 1 && supported->m_strings.length() >= 1 &&
                supported->m_strings[0].length() > 0)
                uri = supported->m_strings[0].c_str();
        }
        request.setOpAttr(CMP_IPP_TAG_URI, cmp_ipp_attr::cmp_ipp_attr_name_to_id("printer-uri"), uri);
    }

    request.cmp_ipp_msg_encode();
    cmp_ipp_buf wrapper(request.m_raw.data(), request.m_msgLength, false);
    cmp_ipp_streamed_ctx* ctx = manager->streamCreate(wrapper, info);
    const cmp_ipp_buf reply = manager->streamDestroy(ctx, cmp_ipp_manager::CMP_IPP_REPLY_FMT_HTML);
    return replyBlock(reply, lengthOut);
}
