// The interface the printer's software implements to carry out IPP operations.
// The library calls it concurrently for different streams.
#ifndef CMP_IPP_HANDLER_H
#define CMP_IPP_HANDLER_H

#include <stdint.h>

#include "containers/cmp_ipp_buf.h"
#include "service/cmp_ipp_manager.h"

class cmp_ipp_streamed_ctx;

class cmp_ipp_handler {
public:
    virtual ~cmp_ipp_handler() {}
    // Carries out a decoded request whose status is still successful.
    virtual void processRequest(cmp_ipp_streamed_ctx* ctx, void* printer) = 0;
    // A Print-Job, Create-Job or Send-Document stream was aborted.
    virtual void abortRequest(cmp_ipp_streamed_ctx* ctx, void* printer) = 0;
    // Sees every new stream first, whatever the decoding result.
    virtual void prepareRequest(cmp_ipp_streamed_ctx* ctx, void* printer) = 0;
    // Document data; 0 means accepted.
    virtual uint32_t streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data, void* printer) = 0;
    // The reply bytes: the encoded response, or an HTML page.
    virtual cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t fmt,
                                      void* printer) = 0;
};

#endif
