// The hinge between the message layer and the printer's software: holds the
// printer handle and the handler object.
#ifndef CMP_IPP_MANAGER_H
#define CMP_IPP_MANAGER_H

#include <stdint.h>

#include <atomic>

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

    // Marks a stretch of code that uses the handler or the printer object. Enter
    // before loading either pointer: an unregister call stores null first and then
    // waits until no such stretch is open, so whatever was loaded stays valid
    // until the scope ends.
    class cmp_ipp_call_scope {
    public:
        cmp_ipp_call_scope();
        ~cmp_ipp_call_scope();
        cmp_ipp_call_scope(const cmp_ipp_call_scope&) = delete;
        cmp_ipp_call_scope& operator=(const cmp_ipp_call_scope&) = delete;

    private:
        uint32_t m_phase;  // which of the two in-flight counters counts this scope
    };

    static cmp_ipp_manager* m_singleton;
    // The one manager, created on first use; never deleted.
    static cmp_ipp_manager* get();

    cmp_ipp_manager();
    virtual ~cmp_ipp_manager();

    // Registration. The usual way in is cmp_ipp_init_wrap (or IPP_Initialize),
    // which calls init with the printer handle and stores the handler; both
    // pointers are borrowed, never freed or copied by the library.
    //
    // Stores the printer handle (the cmp_ipp_obj whose attributes the library
    // reads: operations-supported and ipp-versions-supported for every request,
    // printer-uri-supported for the HTML page). Replaces any handle, unlike
    // IPP_Initialize, which keeps the first. Call before serving starts.
    void init(void* printer) { m_printer = printer; }
    // The handle when it is the registered printer, else 0.
    intptr_t getPrinterFromHandle(intptr_t handle) const;
    // Clears the registered printer when handle is it; returns 0 either way.
    // Does not wait for calls that are reading the printer: use
    // unregisterPrinter before the object is destroyed.
    int removePrinter(intptr_t handle);

    // Before the printer's software destroys its handler or printer object:
    // clears the pointer when it is the registered one, then returns once no
    // manager operation is still inside a call to the handler or reading the
    // printer (a call made from inside a handler call does not wait for itself).
    // Requests that come later are answered as without a handler or printer:
    // status 0x0502 and no handler calls, data refused with 6, an empty reply.
    // Safe from any task; unregister calls from several tasks take turns.
    void unregisterHandler(cmp_ipp_handler* handler);
    void unregisterPrinter(void* printer);

    // One request: create (decode, prepare, process), data, optional abort,
    // destroy. These are what the stream functions of cmp_ipp_ippc.h call; the
    // handler calls each one makes are described in cmp_ipp_handler.h.
    cmp_ipp_streamed_ctx* streamCreate(cmp_ipp_buf& data, cmp_ipp_if_info_s* info);
    int processStreamedRequest(cmp_ipp_streamed_ctx* ctx);
    uint32_t streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data);
    int streamAbort(cmp_ipp_streamed_ctx* ctx);
    // The handler's reply, owned by the caller; the context is destroyed.
    cmp_ipp_buf streamDestroy(cmp_ipp_streamed_ctx* ctx, cmp_ipp_reply_fmt_t fmt);

    // Written at start-up and by the unregister calls, read by every stream.
    std::atomic<void*> m_printer;
    std::atomic<cmp_ipp_handler*> m_handler;

private:
    static void waitForCalls();
};

#endif
