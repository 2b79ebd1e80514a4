// The interface the printer's software implements to carry out IPP operations.
//
// One request is one stream, and the library calls the handler at fixed points:
//
//   prepareRequest      always, first, once the request is decoded (well or not)
//   processRequest      once, only when the status is still successful (below 6)
//                       after prepareRequest and a printer object is registered
//   streamData          zero or more times, one call per body block of document
//                       data, only while the status is at most 2
//   abortRequest        at most once, only when the stream ends early (cut off,
//                       or data refused), and only for Print-Job, Create-Job and
//                       Send-Document
//   finishRequest       exactly once, last: it makes the reply bytes
//
// prepareRequest and processRequest both run inside IPP_StreamDataStart, before
// any document data. A request that fails to decode (bad version, an operation
// missing from the printer's operations-supported, a malformed attribute, a
// message past the bounds of msg/cmp_ipp_limits.h) reaches prepareRequest with
// the decoder's status already in ctx->m_response and is never processed.
// Without a registered printer object the status becomes 0x0502
// (server-error-service-unavailable) and processRequest is skipped as well.
//
// Status: the response's status code (ctx->m_response.getStatusCode()) is the
// stream's state. Set it with setStatusCode; a status above 2 makes the library
// refuse further document data (and, from 6 on in prepareRequest, skip
// processRequest). A request refused that way whose document is still coming is
// read to its end and discarded, abortRequest is called (for the three
// operations above) and the connection is closed after the reply.
//
// HTTP reply codes: ctx->m_request.cmp_ipp_msg_set_if_reply_code(code) (for
// example CMP_IPP_IF_RC_NOT_FOUND) makes the HTTP side send that error instead
// of the reply bytes; cmp_ipp_msg_get_if_data reads the request's header
// fields that the front end passed on.
//
// GET: an HTTP GET is answered with an HTML page. The library synthesises a
// Get-Printer-Attributes request (attributes-charset "utf-8",
// attributes-natural-language "en-us", printer-uri the first value of the
// printer's printer-uri-supported, else empty), runs it through prepareRequest
// and processRequest like any other, and asks finishRequest for
// CMP_IPP_REPLY_FMT_HTML. The library checks no charset or language itself:
// a response carries only the ones the handler puts into it.
//
// The context (cmp_ipp_streamed_ctx) is created before prepareRequest and
// destroyed right after finishRequest returns; it is never shared between
// streams, and the handler must not keep a pointer to it past finishRequest.
// ctx->m_handlerData is the handler's own word (0 at first); the library never
// touches it.
//
// Threads: the library calls in from its connection tasks (real-time tasks,
// round-robin at level 10 of 32, with a 30 KiB stack) and from whatever task of
// the printer's software calls the stream functions of cmp_ipp_ippc.h. Calls for
// different streams come concurrently; calls for one stream come one after the
// other, from one task at a time. Anything the handler shares between streams
// (job lists, counters, the printer's status) it must lock itself. A handler
// call should not block for long: a connection waits on it, and at most 32 are
// served at once.
//
// The printer argument is the printer handle given at start-up (the
// cmp_ipp_obj whose attributes the library reads), or null when none is
// registered. Before destroying the handler or the printer object, call
// cmp_ipp_manager::unregisterHandler / unregisterPrinter, which return once no
// call is still running.
#ifndef CMP_IPP_HANDLER_H
#define CMP_IPP_HANDLER_H

#include <stdint.h>

#include "containers/cmp_ipp_buf.h"
#include "service/cmp_ipp_manager.h"

class cmp_ipp_streamed_ctx;

class cmp_ipp_handler {
public:
    // Never called by the library: the printer's software owns the handler.
    virtual ~cmp_ipp_handler() {}

    // Carries out the operation in ctx->m_request (m_operationId, the groups
    // from getAttrGroup("Op") etc.) and fills ctx->m_response: its groups and
    // its status. Called only for a stream whose status after prepareRequest is
    // below 6 and only with a printer registered. Document bytes that arrived
    // with the request are already in ctx->m_request.m_docData; the rest follow
    // through streamData. Afterwards the library rewrites the client's address
    // zone into the printer URIs of the response.
    virtual void processRequest(cmp_ipp_streamed_ctx* ctx, void* printer) = 0;

    // The stream was cut off before its end (the client went away, the body
    // stalled or could not be read, or the handler refused data) and will get
    // no more data. Called only when the request's operation is Print-Job
    // (0x0002), Create-Job (0x0005) or Send-Document (0x0006); other operations
    // are aborted silently. The status is already client-error-timeout (0x0405)
    // unless an error status was set before. finishRequest still follows.
    virtual void abortRequest(cmp_ipp_streamed_ctx* ctx, void* printer) = 0;

    // Sees every new stream first, whatever the decoding result: ctx->m_request
    // holds what could be decoded and ctx->m_response the decoder's status. The
    // place for what every response carries (attributes-charset and
    // attributes-natural-language: the library adds neither) and for checks
    // that may refuse the request: a status set here to 6 or more keeps
    // processRequest from being called.
    virtual void prepareRequest(cmp_ipp_streamed_ctx* ctx, void* printer) = 0;

    // One block of document data, in order; data is valid only during the call
    // (copy what must be kept). From the HTTP side blocks come as the front end
    // sent them, 1 to 32768 bytes each; a direct caller of IPP_StreamData may
    // pass any length. Return 0 to take it and ask for
    // more. Any other value refuses it: the library reads and discards the rest
    // of the body, calls abortRequest (for the three operations above) and
    // finishRequest, and answers with the response as it then stands, closing
    // the connection after the reply. Not called once the stream's status is
    // above 2 (the library itself refuses with 6 then).
    virtual uint32_t streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data, void* printer) = 0;

    // The reply bytes, by value (return an owning buffer; the library copies
    // the bytes into a block of its own and then destroys the buffer and the
    // context). With CMP_IPP_REPLY_FMT_IPP: the encoded response, normally
    // ctx->m_response.cmp_ipp_msg_encode(). With CMP_IPP_REPLY_FMT_HTML (an HTTP
    // GET, or IPP_GetPrnAttrHtml): an HTML page about the printer, whatever the
    // handler wants to show. An empty buffer is an empty reply, which the HTTP
    // side answers with an error (-1962, sent as HTTP 401). Called for aborted
    // streams too. ctx may be null (IPP_StreamDataEnd with a null handle):
    // return a reply without touching it, an empty one as a rule.
    virtual cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t fmt,
                                      void* printer) = 0;
};

#endif
