// The library's plain exported interface: start and stop of the IPP side, the
// enabled switch, and the streamed submission of IPP requests.
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

// 1 when the IPP side started (and was switched on), else 0.
int pn_ipp_start(void* printer, cmp_ipp_handler* handler);
// Switches IPP off and ends the manager's use; the arguments are not used.
int pn_ipp_stop(int unused, void* unusedPtr);
// Keeps the first printer handle ever given; installs the handler. Returns 0.
int IPP_Initialize(void* printer, cmp_ipp_handler* handler);
void IPP_Terminate(void);
void IPPCGI_EnableIPP(int flag);
int IPPCGI_Enabled(void);

// Opaque stream handle: created by IPP_StreamDataStart, destroyed by IPP_StreamDataEnd.
typedef void* IPP_STREAM_HANDLE;

// Null while IPP is disabled or without an interface record.
IPP_STREAM_HANDLE IPP_StreamDataStart(const unsigned char* data, uint32_t length, cmp_ipp_if_info_s* httpInfoPtr);
// 0 when the handler took the data; 6 when the stream has already failed.
uint32_t IPP_StreamData(IPP_STREAM_HANDLE handle, const unsigned char* data, uint32_t length);
// The reply in a block from cmp_ipp_malloc with one extra zero byte (not counted
// in *lengthOut), or null for an empty reply. Destroys the handle.
unsigned char* IPP_StreamDataEnd(IPP_STREAM_HANDLE handle, int fmt, int* lengthOut);
int IPP_StreamDataAbort(IPP_STREAM_HANDLE handle);
// The status of the stream's response; 0x0500 for a null handle.
uint16_t IPP_StreamStatusCode(IPP_STREAM_HANDLE handle);
// The handler's HTML page about the printer, as a block like IPP_StreamDataEnd's.
unsigned char* IPP_GetPrnAttrHtml(int* lengthOut, cmp_ipp_if_info_s* info);

#ifdef __cplusplus
}  // extern "C"
#endif

#endif
