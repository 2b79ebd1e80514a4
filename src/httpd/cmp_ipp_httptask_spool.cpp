// Spooling a request body: the connection's spool block, kept from request to
// request, and the reads that fill it.
#include <sched.h>

#include <cstring>

#include "containers/cmp_ipp_malloc.h"
#include "httpd/cmp_ipp_httpd.h"
#include "httpd/cmp_ipp_httptask_internal.h"
#include "platform/cmp_dbglog.h"
#include "platform/emw_osw.h"

using orvane::cmp_dbglog::tracer;
using namespace cmp_ipp_httptask;

extern "C" int32_t AHTTPD_spoolPostedData(ahttpdReqObj* req, int32_t size) {
    if (req == nullptr) return PRS_PRT_HTTP_RET_500_INTERNAL;
    ahttpdFreeMemory(req);
    if (size <= 0) return PRS_PRT_HTTP_RET_500_INTERNAL;
    if (t_note.active && t_note.spool != nullptr && t_note.spoolSize == size) {
        // The connection's block from its previous request: no allocation, and
        // only what that request left in it is cleared when the next block comes.
        req->messageBody = t_note.spool;
    } else {
        req->messageBody = static_cast<unsigned char*>(emwOSWSubAllocMem(static_cast<uint32_t>(size)));
        if (req->messageBody == nullptr) return PRS_PRT_HTTP_RET_500_INTERNAL;
        if (t_note.active) {
            emwOSWOrgFreeMemPart(0, t_note.spool);
            t_note.spool = req->messageBody;
            t_note.spoolSize = size;
            t_note.spoolDirty = size;  // fresh memory: anything may be in it
        }
    }
    req->spoolSize = size;
    req->spooling = 1;
    return PRS_PRT_HTTP_RET_OK;
}

extern "C" int32_t AHTTPD_getSpooledData(ahttpdReqObj* req, int32_t count, int32_t* got, int32_t attempts) {
    int32_t dummy = 0;
    if (got == nullptr) got = &dummy;
    *got = 0;
    if (req == nullptr || count <= 0 || count > req->spoolSize) return PRS_PRT_HTTP_RET_BAD_SPOOL_LENGTH;
    if (req->spooling != 1 || req->messageBody == nullptr) return PRS_PRT_HTTP_RET_NOT_SPOOLING;
    // 0 attempts: up to 3 receives, done after the first that delivers bytes.
    const bool firstDelivery = attempts == 0;
    if (firstDelivery) attempts = 3;
    // Bytes past those received read as zero. The connection's own spool block
    // knows how far earlier blocks wrote: only that part is cleared, after the
    // read, and a full block clears nothing. Any other buffer is cleared whole.
    const bool tracked = req->messageBody == t_note.spool;
    if (!tracked) std::memset(req->messageBody, 0, static_cast<size_t>(req->spoolSize));
    const auto done = [&](int32_t rc) {
        if (tracked) {
            if (t_note.spoolDirty > *got)
                std::memset(req->messageBody + *got, 0, static_cast<size_t>(t_note.spoolDirty - *got));
            // A caller may read the rest of a short block on into the buffer.
            t_note.spoolDirty = rc >= 0 && *got < count ? count : *got;
        }
        return rc;
    };
    unsigned char pushback = 0;
    for (int32_t attempt = 1; attempt <= attempts && *got < count; ++attempt) {
        const int32_t n = ahttpdSoread(req, req->sock, req->messageBody + *got, count - *got, &pushback,
                                       g_receiveTimeout.load());
        if (n == PRS_PRT_HTTP_RET_END_OF_DATA && req->chunked != 0) return done(PRS_PRT_HTTP_RET_END_OF_DATA);
        if (n < 0) {
            tracer(0, "[ERROR]:cmp_ipp_httptask::%s(%d): ahttpdSoread() failed (httptask) rc=%d.\n",
                   "AHTTPD_getSpooledData", 1291, n);
            return done(n);
        }
        if (n == 0) {
            if (attempt == attempts) return done(PRS_PRT_HTTP_RET_408_TIMEOUT);
            sched_yield();
            continue;
        }
        *got += n;
        if (firstDelivery) break;
    }
    return done(PRS_PRT_HTTP_RET_OK);
}

extern "C" void AHTTPD_closeSpooling(ahttpdReqObj* req) {
    if (req == nullptr) return;
    ahttpdFreeMemory(req);
    req->spooling = 0;
}
