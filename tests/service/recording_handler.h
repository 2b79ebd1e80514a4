// Handlers for the service tests: one that records every call the library makes.
#ifndef TESTS_SERVICE_RECORDING_HANDLER_H
#define TESTS_SERVICE_RECORDING_HANDLER_H

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "service/cmp_ipp_handler.h"
#include "service/cmp_ipp_ippc.h"
#include "service/cmp_ipp_manager.h"

// Registers a handler with IPP enabled for a scope; at its end whichever handler
// is registered then goes, and the one from before comes back.
class ScopedHandler {
public:
    explicit ScopedHandler(cmp_ipp_handler* h) : m_saved(cmp_ipp_manager::get()->m_handler) {
        IPP_Initialize(nullptr, h);
        IPPCGI_EnableIPP(1);
    }
    ~ScopedHandler() {
        IPPCGI_EnableIPP(0);
        cmp_ipp_manager* m = cmp_ipp_manager::get();
        m->unregisterHandler(m->m_handler.load());
        if (m_saved != nullptr) IPP_Initialize(nullptr, m_saved);
    }

private:
    cmp_ipp_handler* m_saved;
};

class RecordingHandler : public cmp_ipp_handler {
public:
    void processRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override {
        record("process", ctx, printer);
        if (unregisterInProcess) cmp_ipp_manager::get()->unregisterHandler(this);
    }
    void abortRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override { record("abort", ctx, printer); }
    void prepareRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override {
        record("prepare", ctx, printer);
        if (prepareStatus >= 0) ctx->m_response.setStatusCode(static_cast<uint16_t>(prepareStatus));
    }
    uint32_t streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data, void* printer) override {
        record("data " + std::to_string(data.length()), ctx, printer);
        return dataResult;
    }
    cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t fmt,
                              void* printer) override {
        record(fmt == cmp_ipp_manager::CMP_IPP_REPLY_FMT_HTML ? "finish html" : "finish ipp", ctx, printer);
        if (!reply.empty()) return cmp_ipp_buf(reply.c_str(), true);
        if (ctx == nullptr) return cmp_ipp_buf(true);
        return ctx->m_response.cmp_ipp_msg_encode();
    }

    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> g(lock);
        return log;
    }

    int prepareStatus = -1;
    uint32_t dataResult = 0;
    bool unregisterInProcess = false;
    std::string reply;

private:
    void record(const std::string& what, cmp_ipp_streamed_ctx* ctx, void* printer) {
        char suffix[64];
        std::snprintf(suffix, sizeof suffix, " 0x%04x%s", ctx != nullptr ? ctx->m_response.getStatusCode() : 0xFFFF,
                      printer != nullptr ? "" : " no printer");
        std::lock_guard<std::mutex> g(lock);
        log.push_back(what + suffix);
    }

    std::mutex lock;
    std::vector<std::string> log;
};

#endif
