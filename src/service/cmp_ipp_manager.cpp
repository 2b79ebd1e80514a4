#include "cmp_ipp_manager.h"

#include "platform/emw_osw.h"
#include "service/cmp_ipp_handler.h"

cmp_ipp_manager* cmp_ipp_manager::m_singleton = nullptr;

cmp_ipp_manager::cmp_ipp_manager() : m_printer(nullptr), m_handler(nullptr) {}
cmp_ipp_manager::~cmp_ipp_manager() = default;

cmp_ipp_manager* cmp_ipp_manager::get() {
    cmp_ipp_manager* p = __atomic_load_n(&m_singleton, __ATOMIC_ACQUIRE);
    if (p != nullptr) return p;
    OSW_Thread_Guard guard;
    if (m_singleton == nullptr) __atomic_store_n(&m_singleton, new cmp_ipp_manager(), __ATOMIC_RELEASE);
    return m_singleton;
}

intptr_t cmp_ipp_manager::getPrinterFromHandle(intptr_t handle) const {
    return handle == reinterpret_cast<intptr_t>(m_printer) ? handle : 0;
}

int cmp_ipp_manager::removePrinter(intptr_t handle) {
    intptr_t p = getPrinterFromHandle(handle);
    if (p != 0 && p == reinterpret_cast<intptr_t>(m_printer)) m_printer = nullptr;
    return 0;
}

// Without a handler the service cannot answer: streams carry 0x0502, data is
// refused and the reply is empty, and nothing is ever called through null.
namespace {
const uint32_t kDataRefused = 6;
}

cmp_ipp_streamed_ctx* cmp_ipp_manager::streamCreate(cmp_ipp_buf& data, cmp_ipp_if_info_s* info) {
    cmp_ipp_streamed_ctx* ctx = new cmp_ipp_streamed_ctx();
    ctx->m_request.m_ifInfo = info;
    ctx->m_response.m_ifInfo = info;
    const uint32_t status = ctx->m_request.decode(data, info);
    ctx->m_response.setStatusCode(static_cast<uint16_t>(status & 0xFFFF), false);
    ctx->m_response.m_version = ctx->m_request.m_version;
    processStreamedRequest(ctx);
    return ctx;
}

int cmp_ipp_manager::processStreamedRequest(cmp_ipp_streamed_ctx* ctx) {
    cmp_ipp_handler* handler = m_handler;
    if (handler != nullptr) handler->prepareRequest(ctx, m_printer);
    if (ctx->m_response.getStatusCode() < 6) {
        if (m_printer == nullptr || handler == nullptr) {
            ctx->m_response.setStatusCode(CMP_IPP_STATUS_SERVICE_UNAVAILABLE, false);
        } else {
            handler->processRequest(ctx, m_printer);
            ctx->m_response.convertToClientZone();
        }
    }
    ctx->m_response.m_requestId = ctx->m_request.m_requestId;
    return 1;
}

uint32_t cmp_ipp_manager::streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data) {
    cmp_ipp_handler* handler = m_handler;
    if (handler == nullptr) return kDataRefused;
    return handler->streamData(ctx, data, m_printer);
}

int cmp_ipp_manager::streamAbort(cmp_ipp_streamed_ctx* ctx) {
    if (ctx == nullptr) return 0;
    if (ctx->m_response.getStatusCode() <= 5) ctx->m_response.setStatusCode(CMP_IPP_STATUS_ABORTED, false);
    const int16_t op = ctx->m_request.m_operationId;
    cmp_ipp_handler* handler = m_handler;
    if (handler != nullptr && (op == 0x0002 || op == 0x0005 || op == 0x0006)) handler->abortRequest(ctx, m_printer);
    return 0;
}

cmp_ipp_buf cmp_ipp_manager::streamDestroy(cmp_ipp_streamed_ctx* ctx, cmp_ipp_reply_fmt_t fmt) {
    cmp_ipp_handler* handler = m_handler;
    cmp_ipp_buf reply = handler != nullptr ? handler->finishRequest(ctx, fmt, m_printer) : cmp_ipp_buf(true);
    delete ctx;
    return reply;
}
