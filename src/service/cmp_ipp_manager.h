// The hinge between the message layer and the printer's software: holds the
// printer handle and the handler object.
#ifndef CMP_IPP_MANAGER_H
#define CMP_IPP_MANAGER_H

#include <stdint.h>

#include "containers/cmp_ipp_buf.h"
#include "containers/cmp_ipp_if.h"
#include "msg/cmp_ipp_request.h"

class cmp_ipp_handler;

// One streamed request: the decoded request and the response the handler fills.
class cmp_ipp_streamed_ctx {
public:
    cmp_ipp_streamed_ctx() : m_handlerData(0) {}
    virtual ~cmp_ipp_streamed_ctx() {}

    cmp_ipp_request m_request;
    cmp_ipp_response m_response;
    // Free for the handler's own use; the library never touches it.
    uint32_t m_handlerData;
};

class cmp_ipp_manager {
public:
    enum cmp_ipp_reply_fmt_t { CMP_IPP_REPLY_FMT_IPP = 0, CMP_IPP_REPLY_FMT_HTML = 1 };

    static cmp_ipp_manager* m_singleton;
    // The one manager, created on first use; never deleted.
    static cmp_ipp_manager* get();

    cmp_ipp_manager();
    virtual ~cmp_ipp_manager();

    void init(void* printer) { m_printer = printer; }
    // The handle when it is the registered printer, else 0.
    intptr_t getPrinterFromHandle(intptr_t handle) const;
    int removePrinter(intptr_t handle);

    // One request: create (decode, prepare, process), data, optional abort, destroy.
    cmp_ipp_streamed_ctx* streamCreate(cmp_ipp_buf& data, cmp_ipp_if_info_s* info);
    int processStreamedRequest(cmp_ipp_streamed_ctx* ctx);
    uint32_t streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data);
    int streamAbort(cmp_ipp_streamed_ctx* ctx);
    // The handler's reply; the context is destroyed.
    cmp_ipp_buf streamDestroy(cmp_ipp_streamed_ctx* ctx, cmp_ipp_reply_fmt_t fmt);

    void* m_printer;
    cmp_ipp_handler* m_handler;
};

#endif
