#include "cmp_ipp_manager.h"

#include <pthread.h>

#include "containers/cmp_ipp_malloc.h"
#include "service/cmp_ipp_constants.h"
#include "containers/cmp_ipp_once.h"
#include "platform/emw_osw.h"
#include "service/cmp_ipp_handler.h"

cmp_ipp_manager* cmp_ipp_manager::m_singleton = nullptr;

namespace {

// Open call scopes, counted in two phases. An unregister call moves new scopes
// to the other phase and then waits only for the old phase to drain, so it ends
// once the calls that may have loaded the old pointer have left, even while new
// requests keep coming. Unregister calls take turns under g_unregisterLock.
//
// Every access is sequentially consistent, in Dekker order: a scope counts itself
// (and checks that the phase did not move meanwhile) before it loads a pointer;
// an unregister call stores null before it moves the phase and reads the count.
// Either the scope loads null, or the unregister call waits for it.
//
// All of it is trivially destructible: a task still leaving a scope while the
// process exits never touches a destroyed object.
std::atomic<uint32_t> g_phase{0};
std::atomic<int32_t> g_inFlight[2] = {{0}, {0}};
pthread_mutex_t g_unregisterLock = PTHREAD_MUTEX_INITIALIZER;
// The calling thread's own open scopes: an unregister call made from inside a
// handler call must not wait for itself.
thread_local int32_t t_inFlight[2] = {0, 0};

const int kDrainPollMs = 1;

}  // namespace

cmp_ipp_manager::cmp_ipp_call_scope::cmp_ipp_call_scope() {
    for (;;) {
        m_phase = g_phase.load(std::memory_order_seq_cst);
        g_inFlight[m_phase].fetch_add(1, std::memory_order_seq_cst);
        if (g_phase.load(std::memory_order_seq_cst) == m_phase) break;
        // Moved by an unregister call meanwhile, which may not wait for this phase.
        g_inFlight[m_phase].fetch_sub(1, std::memory_order_seq_cst);
    }
    ++t_inFlight[m_phase];
}

cmp_ipp_manager::cmp_ipp_call_scope::~cmp_ipp_call_scope() {
    --t_inFlight[m_phase];
    g_inFlight[m_phase].fetch_sub(1, std::memory_order_seq_cst);
}

cmp_ipp_manager::cmp_ipp_manager() : m_printer(nullptr), m_handler(nullptr) {}
cmp_ipp_manager::~cmp_ipp_manager() = default;

cmp_ipp_manager* cmp_ipp_manager::get() {
    return cmp_ipp_once::instance(&m_singleton, [] { return new cmp_ipp_manager(); });
}

intptr_t cmp_ipp_manager::getPrinterFromHandle(intptr_t handle) const {
    return handle == reinterpret_cast<intptr_t>(m_printer.load()) ? handle : 0;
}

int cmp_ipp_manager::removePrinter(intptr_t handle) {
    intptr_t p = getPrinterFromHandle(handle);
    void* expected = reinterpret_cast<void*>(p);
    if (p != 0) m_printer.compare_exchange_strong(expected, nullptr);
    return 0;
}

void cmp_ipp_manager::waitForCalls() {
    if (t_inFlight[0] + t_inFlight[1] > 0 && pthread_mutex_trylock(&g_unregisterLock) != 0) {
        // Called from inside a handler call while another unregister call may be
        // waiting for that very call: wait for every other scope instead, without
        // moving the phase.
        while (g_inFlight[0].load(std::memory_order_seq_cst) > t_inFlight[0] ||
               g_inFlight[1].load(std::memory_order_seq_cst) > t_inFlight[1])
            IPP_ThreadDelay(kDrainPollMs);
        return;
    }
    if (t_inFlight[0] + t_inFlight[1] == 0) pthread_mutex_lock(&g_unregisterLock);
    const uint32_t old = g_phase.load(std::memory_order_seq_cst);
    g_phase.store(old ^ 1u, std::memory_order_seq_cst);
    while (g_inFlight[old].load(std::memory_order_seq_cst) > t_inFlight[old]) IPP_ThreadDelay(kDrainPollMs);
    pthread_mutex_unlock(&g_unregisterLock);
}

void cmp_ipp_manager::unregisterHandler(cmp_ipp_handler* handler) {
    cmp_ipp_handler* expected = handler;
    if (handler != nullptr) m_handler.compare_exchange_strong(expected, nullptr, std::memory_order_seq_cst);
    // Also when another handler has replaced this one meanwhile: a call that
    // loaded this one may still be running.
    waitForCalls();
}

void cmp_ipp_manager::unregisterPrinter(void* printer) {
    void* expected = printer;
    if (printer != nullptr) m_printer.compare_exchange_strong(expected, nullptr, std::memory_order_seq_cst);
    waitForCalls();
}

// Without a handler the service cannot answer: streams carry 0x0502, data is
// refused and the reply is empty, and nothing is ever called through null.
namespace {
const uint32_t kDataRefused = 6;
// A request decoded with a status up to this one (the successful codes
// 0x0000-0x0005) goes on to the handler; any later one is answered as it is.
const uint16_t kLastPassingStatus = CMP_IPP_STATUS_SUCCESSFUL_OK_TOO_MANY_EVENTS;
}

cmp_ipp_streamed_ctx* cmp_ipp_manager::streamCreate(cmp_ipp_buf& data, cmp_ipp_if_info_s* info) {
    cmp_ipp_streamed_ctx* ctx = new cmp_ipp_streamed_ctx();
    ctx->m_request.m_ifInfo = info;
    ctx->m_response.m_ifInfo = info;
    {
        // Decoding checks the request against the printer's attributes.
        cmp_ipp_call_scope scope;
        const uint32_t status = ctx->m_request.decode(data, info);
        ctx->m_response.setStatusCode(static_cast<uint16_t>(status & 0xFFFF), false);
    }
    ctx->m_response.m_version = ctx->m_request.m_version;
    processStreamedRequest(ctx);
    return ctx;
}

int cmp_ipp_manager::processStreamedRequest(cmp_ipp_streamed_ctx* ctx) {
    {
        cmp_ipp_call_scope scope;
        cmp_ipp_handler* const handler = m_handler.load();
        void* const printer = m_printer.load();
        if (handler != nullptr) handler->prepareRequest(ctx, printer);
        if (ctx->m_response.getStatusCode() <= kLastPassingStatus) {
            if (printer == nullptr || handler == nullptr) {
                ctx->m_response.setStatusCode(CMP_IPP_STATUS_SERVICE_UNAVAILABLE, false);
            } else {
                handler->processRequest(ctx, printer);
                ctx->m_response.convertToClientZone();
            }
        }
    }
    ctx->m_response.m_requestId = ctx->m_request.m_requestId;
    return 1;
}

uint32_t cmp_ipp_manager::streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data) {
    cmp_ipp_call_scope scope;
    cmp_ipp_handler* const handler = m_handler.load();
    if (handler == nullptr) return kDataRefused;
    return handler->streamData(ctx, data, m_printer.load());
}

int cmp_ipp_manager::streamAbort(cmp_ipp_streamed_ctx* ctx) {
    if (ctx == nullptr) return 0;
    if (ctx->m_response.getStatusCode() <= kLastPassingStatus) ctx->m_response.setStatusCode(CMP_IPP_STATUS_ABORTED, false);
    const int16_t op = ctx->m_request.m_operationId;
    // Only the operations that carry a document hear of an abort.
    if (op != CMP_IPP_OP_PRINT_JOB && op != CMP_IPP_OP_CREATE_JOB && op != CMP_IPP_OP_SEND_DOCUMENT) return 0;
    cmp_ipp_call_scope scope;
    cmp_ipp_handler* const handler = m_handler.load();
    if (handler != nullptr) handler->abortRequest(ctx, m_printer.load());
    return 0;
}

namespace {

// The handler's reply, or an empty one without a handler; returned by value so
// that the reply block is moved, never copied.
cmp_ipp_buf finishWith(const std::atomic<cmp_ipp_handler*>& handlerSlot, const std::atomic<void*>& printerSlot,
                       cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t fmt) {
    cmp_ipp_manager::cmp_ipp_call_scope scope;
    cmp_ipp_handler* const handler = handlerSlot.load();
    if (handler == nullptr) return cmp_ipp_buf(true);
    return handler->finishRequest(ctx, fmt, printerSlot.load());
}

}  // namespace

cmp_ipp_buf cmp_ipp_manager::streamDestroy(cmp_ipp_streamed_ctx* ctx, cmp_ipp_reply_fmt_t fmt) {
    cmp_ipp_buf reply = finishWith(m_handler, m_printer, ctx, fmt);
    delete ctx;
    return reply;
}
