// The HTTP server's connection task: the loop over a connection's requests,
// receiving, body spooling and replies, and the knobs of their time-outs.
#ifndef CMP_IPP_HTTPTASK_H
#define CMP_IPP_HTTPTASK_H

#include <stdint.h>

#include "httpd/cmp_ipp_httprec.h"

extern "C" {

// Reply texts, indexed by code + 1976.
extern const char* const szErrorMes[16];

// ---- tuning (defaults as deployed; tests shorten them) ------------------------
// Receive time-out of every socket read, in seconds (default 30).
void AHTTPD_setReceiveTimeout(int32_t seconds);
int32_t AHTTPD_getReceiveTimeout(void);
// Passes of up to 50 ms that a keep-alive connection waits for its next request
// (default 200, about 10 s).
void AHTTPD_setKeepAlivePasses(int32_t passes);
int32_t AHTTPD_getKeepAlivePasses(void);

// ---- connection task ------------------------------------------------------------
void pn_httpd_task(void* start);
int32_t AHTTPD_requestHandler(ahttpdReqObj* req, ahttpdRspObj* rsp);
void ahttpdErrorResponseHandler(ahttpdRspObj* rsp);
void ahttpdKeepAliveCheck(ahttpdReqObj* req, ahttpdRspObj* rsp);
void ahttpdKeepAliveListener(ahttpdRspObj* rsp);
int ahttpdCheckCloseConnection(ahttpdReqObj* req);
void ahttpdCloseHandler(ahttpdRspObj* rsp);
void ahttpdKillTask(ahttpdReqObj* req);
void ahttpdCloseSocketConnection(int sock);
void ahttpdFreeMemory(ahttpdReqObj* req);
// What a connection task keeps beyond its records, on its own thread: that its
// socket is non-blocking already, and its spool block from one request to the
// next (released by ahttpdFreeMemory only back to the task). pn_httpd_task
// begins it for its socket and ends it last, which releases the spool block.
void ahttpdConnectionBegin(int16_t sock);
void ahttpdConnectionEnd(void);

// ---- receiving, spooling, sending ------------------------------------------------
int32_t ahttpdSoread(ahttpdReqObj* req, int16_t sock, unsigned char* dest, int32_t wanted, unsigned char* pushback,
                     int32_t timeoutSeconds);
int32_t AHTTPD_spoolPostedData(ahttpdReqObj* req, int32_t size);
int32_t AHTTPD_getSpooledData(ahttpdReqObj* req, int32_t count, int32_t* got, int32_t attempts);
void AHTTPD_closeSpooling(ahttpdReqObj* req);
int32_t ahttpdTransmitHeader(ahttpdRspObj* rsp);
int32_t ahttpdTransmitResponseHeader(ahttpdRspObj* rsp);
int32_t AHTTPD_sendData(ahttpdRspObj* rsp);
// The reply record (as ahttpdTransmitResponseHeader) and, when `sendBody` is
// one of the two body senders below, the body with it in the same system call,
// in pieces of at most 2048 bytes. Returns the record's result; the body's is
// returned by the `sendBody` call that follows, which sends nothing again.
int32_t ahttpdTransmitReply(ahttpdRspObj* rsp);
int32_t transmit_response_body(ahttpdRspObj* rsp);
int32_t transmit_response_body_frees(ahttpdRspObj* rsp);

}  // extern "C"

#endif
