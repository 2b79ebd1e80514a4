// The library's plain exported interface: start and stop of the IPP side, the
// enabled switch, and the streamed submission of IPP requests.
//
// The HTTP side uses the stream functions for every POST; other parts of the
// printer's software may call them as well, to submit IPP messages directly.
// One stream is one request:
//
//   h = IPP_StreamDataStart(first bytes, n, &info)   decode, prepare, process
//   IPP_StreamData(h, bytes, n)                      zero or more times
//   IPP_StreamDataAbort(h)                           optional
//   reply = IPP_StreamDataEnd(h, 0, &length)         exactly once; h is gone
//   cmp_ipp_free(reply)
//
// Different streams may be driven from different tasks at once; one stream
// from one task at a time. The handler calls behind each function are
// described in service/cmp_ipp_handler.h.
#ifndef CMP_IPP_IPPC_H
#define CMP_IPP_IPPC_H

#include <stddef.h>
#include <stdint.h>

// Plain C as well as C++: C sees the handler and the interface record as
// opaque structures.
#ifdef __cplusplus
#include "containers/cmp_ipp_if.h"
class cmp_ipp_handler;
extern "C" {
#else
typedef struct cmp_ipp_handler cmp_ipp_handler;
typedef struct cmp_ipp_if_info_s cmp_ipp_if_info_s;
#endif

// Registers the printer handle (a cmp_ipp_obj) and the handler with the manager
// (IPP_Initialize) and switches IPP on. 1 when the IPP side started, else 0.
// cmp_ipp_init_wrap calls it; call it yourself only without the facade.
int pn_ipp_start(void* printer, cmp_ipp_handler* handler);
// Switches IPP off (new requests get the HTTP side's IPP-disabled error) and
// ends the manager's use. Releases nothing and does not wait for streams under
// way: before destroying the handler or the printer object, also call
// cmp_ipp_manager::unregisterHandler / unregisterPrinter. The arguments are not
// used. Returns 0.
int pn_ipp_stop(int unused, void* unusedPtr);
// Keeps the first non-null printer handle ever given (a later one is ignored);
// installs the handler, replacing an earlier one. Returns 0.
int IPP_Initialize(void* printer, cmp_ipp_handler* handler);
void IPP_Terminate(void);
void IPPCGI_EnableIPP(int flag);
int IPPCGI_Enabled(void);

// Opaque stream handle (the stream's cmp_ipp_streamed_ctx): created by
// IPP_StreamDataStart, destroyed by IPP_StreamDataEnd and not to be used after it.
typedef void* IPP_STREAM_HANDLE;

// Starts a stream with the first bytes of a request: at least the 8-byte
// header, normally the whole attribute part (more is pulled through
// httpInfoPtr->pfnGetMoreData when the attributes go on past these bytes, up
// to the bounds of msg/cmp_ipp_limits.h). The bytes are read during the call
// only. The request is decoded and prepareRequest and (if the status allows)
// processRequest have run when it returns; a decoding failure still gives a
// handle, with the failure as its status (IPP_StreamStatusCode). Null while
// IPP is disabled, or without an interface record (traced); nothing to end
// then. httpInfoPtr must stay valid until IPP_StreamDataEnd.
IPP_STREAM_HANDLE IPP_StreamDataStart(const unsigned char* data, uint32_t length, cmp_ipp_if_info_s* httpInfoPtr);
// Hands document bytes to the handler's streamData and returns its result: 0
// when it took them. 6, without calling the handler, when the stream's status
// is above 2 (the request failed or was refused). After a nonzero result the
// caller reads its input to the end, throws it away, and still ends the stream.
uint32_t IPP_StreamData(IPP_STREAM_HANDLE handle, const unsigned char* data, uint32_t length);
// Ends the stream: the handler's finishRequest makes the reply (fmt 0: the
// encoded IPP response, 1: an HTML page), the handle is destroyed. Returns the
// reply in a block from cmp_ipp_malloc with one extra zero byte (not counted
// in *lengthOut); the caller owns it and releases it with cmp_ipp_free (never
// free()). Null, with 0 or less in *lengthOut, for an empty reply. A null
// handle still calls finishRequest, with a null context.
unsigned char* IPP_StreamDataEnd(IPP_STREAM_HANDLE handle, int fmt, int* lengthOut);
// Marks the stream as cut off: its status becomes 0x0405 (client-error-timeout)
// unless it already holds an error, and the handler's abortRequest is called
// when the operation is Print-Job, Create-Job or Send-Document. The handle stays
// valid: IPP_StreamDataEnd must still follow. Returns 0.
int IPP_StreamDataAbort(IPP_STREAM_HANDLE handle);
// The status the stream's response holds now; 0x0500 for a null handle.
uint16_t IPP_StreamStatusCode(IPP_STREAM_HANDLE handle);
// The handler's HTML page about the printer: a synthesised Get-Printer-Attributes
// request (utf-8, en-us, the printer's first printer-uri-supported) run through
// the handler and finished with the HTML format. A block like
// IPP_StreamDataEnd's, owned by the caller. Does not look at the enabled switch.
unsigned char* IPP_GetPrnAttrHtml(int* lengthOut, cmp_ipp_if_info_s* info);

// The library's socket, where the front end connects. The file is created with
// mode 0600 whatever the umask; with a group id (0 or more) it belongs to that
// group and gets mode 0660, for a front end running as another user of that
// group. Takes effect when the listener next starts. Returns 0.
int pn_httpd_set_socket_group(int32_t gid);
// Fills `out` (108 bytes are enough) with the socket path: "/tmp/zyn_ipp_server", or
// $GEN_UNIX_PATH immediately followed by "zyn_ipp_server".
void pn_httpd_socket_path(char* out, size_t size);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif
