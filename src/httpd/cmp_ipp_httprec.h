// The HTTP server's records: the request and reply records of a connection, the
// internal return codes and their mappings to the interface record's.
//
// Wire format (host byte order; the front end runs on the same machine): the front
// end sends a request block (the first 30444 bytes of ahttpdReqObj), then the body
// as blocks of a 32-bit length followed by that many bytes; a length of 0 or less
// ends the body. A connection that closes (or half-closes) before that block
// abandons the body: the stream is aborted, never taken for complete. The
// server answers with a reply record (the first 30436 bytes of ahttpdRspObj)
// followed by contentLength body bytes.
#ifndef CMP_IPP_HTTPREC_H
#define CMP_IPP_HTTPREC_H

#include <stddef.h>
#include <stdint.h>

#include "containers/cmp_ipp_if.h"

// Internal return codes of the HTTP server (0 is success).
enum PRS_PRT_HTTP_RET_CODES : int32_t {
    PRS_PRT_HTTP_RET_OK = 0,
    PRS_PRT_HTTP_RET_END_OF_DATA = -1948,
    PRS_PRT_HTTP_RET_KEEP_ALIVE = -1955,       // another request is waiting
    PRS_PRT_HTTP_RET_CONN_CLOSED = -1956,
    PRS_PRT_HTTP_RET_CLOSE = -1957,
    PRS_PRT_HTTP_RET_IPP_DISABLED = -1959,
    PRS_PRT_HTTP_RET_SERVICE_UNAVAILABLE = -1960,
    PRS_PRT_HTTP_RET_505_VERSION = -1961,
    PRS_PRT_HTTP_RET_401_ACCESS_DENIED = -1962,  // also: empty reply, chunked body without spool buffer
    PRS_PRT_HTTP_RET_503_UNAVAILABLE = -1963,
    PRS_PRT_HTTP_RET_502_BAD_GATEWAY = -1964,
    PRS_PRT_HTTP_RET_501_NOT_IMPLEMENTED = -1965,
    PRS_PRT_HTTP_RET_500_INTERNAL = -1966,     // also: out of memory, header text too long
    PRS_PRT_HTTP_RET_414_URI_TOO_LARGE = -1967,
    PRS_PRT_HTTP_RET_413_TOO_LARGE = -1968,
    PRS_PRT_HTTP_RET_411_LENGTH_REQUIRED = -1969,
    PRS_PRT_HTTP_RET_408_TIMEOUT = -1970,
    PRS_PRT_HTTP_RET_406_NOT_ACCEPTABLE = -1971,
    PRS_PRT_HTTP_RET_405_INVLD_MET = -1972,
    PRS_PRT_HTTP_RET_404_NOT_FOUND = -1973,
    PRS_PRT_HTTP_RET_403_FORBIDDEN = -1974,
    PRS_PRT_HTTP_RET_401_UNAUTHORIZED = -1975,  // keeps the connection
    PRS_PRT_HTTP_RET_400_BAD_REQUEST = -1976,   // also: the IPP request could not be started
    PRS_PRT_HTTP_RET_REDIRECT = -1978,          // keeps the connection when keepAliveLevel > 1
    PRS_PRT_HTTP_RET_NOT_MODIFIED = -1979,
    PRS_PRT_HTTP_RET_NO_CONTENT = -1980,
    PRS_PRT_HTTP_RET_ACCEPTED = -1981,
    PRS_PRT_HTTP_RET_CREATED = -1982,
    PRS_PRT_HTTP_RET_CONTINUE = -1983,
    PRS_PRT_HTTP_RET_ERR_SOCKET_FAILURE = -1985,
    PRS_PRT_HTTP_RET_NOT_SPOOLING = -1988,
    PRS_PRT_HTTP_RET_BAD_SPOOL_LENGTH = -1994,
    PRS_PRT_HTTP_RET_HEADER_TABLE_FULL = -1995,
    PRS_PRT_HTTP_RET_FIELD_NOT_FOUND = -1997,   // also: bad token
    PRS_PRT_HTTP_RET_FIELD_EMPTY = -1998,
};

enum : int32_t {
    AHTTPD_NUM_HEADER_FIELDS = 15,
    AHTTPD_FIELD_TEXT_SIZE = 2024,    // at most 2023 characters and a terminator
    AHTTPD_MAX_TOKEN = 32,
    AHTTPD_INVALID_TOKEN = 33,
    AHTTPD_REQ_BLOCK_SIZE = 30444,    // wire part of ahttpdReqObj
    AHTTPD_RSP_RECORD_SIZE = 30436,   // wire part of ahttpdRspObj
    AHTTPD_SPOOL_SIZE = 32768,        // spool buffer, and the largest body block
    AHTTPD_MAX_CONNECTIONS = 32,
    AHTTPD_METHOD_GET = 0,
    AHTTPD_METHOD_POST = 2,
};

// Connection modes (`connection` of the request block).
enum : int32_t {
    AHTTPD_CONN_CLOSE = 1,        // close after the reply
    AHTTPD_CONN_KEEP_ALIVE = 2,   // wait for the next request (keep-alive listener)
    AHTTPD_CONN_PAUSE_CLOSE = 4,  // pause 1000 ms after the reply, then close
    // any other value: read the next request at once
};

struct ahttpdHeaderField {
    int32_t token;
    char value[AHTTPD_FIELD_TEXT_SIZE];
};

struct ahttpdRspObj;
typedef int32_t (*ahttpdSendBodyFn)(ahttpdRspObj* rsp);

// A connection's request record. Everything up to `connectionId` is the request
// block as the front end sends it; the rest is local to the connection task.
struct ahttpdReqObj {
    int32_t method;          // 0 GET, 2 POST
    int32_t keepAliveLevel;
    int32_t connection;      // connection mode
    int16_t numHeaders;
    int16_t reserved;
    int32_t contentLength;
    int32_t chunked;
    ahttpdHeaderField headers[AHTTPD_NUM_HEADER_FIELDS];

    int32_t connectionId;
    int16_t spooling;
    unsigned char* messageBody;  // spool buffer, or the whole body when not spooling
    int16_t sock;                // 0 once closed
    int32_t returnCode;
    int32_t spoolSize;
    int32_t bytesLeft;
    int32_t bodyEnded;
    ahttpdRspObj* rspObj;
};

// A connection's response record. Everything up to `sock` is the reply record as
// it is sent to the front end; the rest is local to the connection task.
struct ahttpdRspObj {
    int32_t status;
    int32_t connection;
    int32_t contentLength;
    int16_t numHeaders;
    int16_t reserved;
    ahttpdHeaderField headers[AHTTPD_NUM_HEADER_FIELDS];

    int16_t sock;
    unsigned char* body;
    int32_t bodyLength;
    int32_t headerSent;
    ahttpdSendBodyFn sendBody;
    ahttpdReqObj* reqObj;
    int32_t returnCode;
    uint8_t bodyOwned;
};

// The wire parts are the same on every platform.
static_assert(sizeof(ahttpdHeaderField) == 2028, "header field");
static_assert(offsetof(ahttpdReqObj, method) == 0, "request block");
static_assert(offsetof(ahttpdReqObj, keepAliveLevel) == 4, "request block");
static_assert(offsetof(ahttpdReqObj, connection) == 8, "request block");
static_assert(offsetof(ahttpdReqObj, numHeaders) == 12, "request block");
static_assert(offsetof(ahttpdReqObj, reserved) == 14, "request block");
static_assert(offsetof(ahttpdReqObj, contentLength) == 16, "request block");
static_assert(offsetof(ahttpdReqObj, chunked) == 20, "request block");
static_assert(offsetof(ahttpdReqObj, headers) == 24, "request block");
static_assert(offsetof(ahttpdReqObj, connectionId) == AHTTPD_REQ_BLOCK_SIZE, "request block size");
static_assert(offsetof(ahttpdRspObj, status) == 0, "reply record");
static_assert(offsetof(ahttpdRspObj, connection) == 4, "reply record");
static_assert(offsetof(ahttpdRspObj, contentLength) == 8, "reply record");
static_assert(offsetof(ahttpdRspObj, numHeaders) == 12, "reply record");
static_assert(offsetof(ahttpdRspObj, reserved) == 14, "reply record");
static_assert(offsetof(ahttpdRspObj, headers) == 16, "reply record");
static_assert(offsetof(ahttpdRspObj, sock) == AHTTPD_RSP_RECORD_SIZE, "reply record size");
#if UINTPTR_MAX == 0xFFFFFFFFu
// The local parts hold pointers; on the 32-bit controller they have these offsets.
static_assert(offsetof(ahttpdReqObj, spooling) == 30448, "request record");
static_assert(offsetof(ahttpdReqObj, messageBody) == 30452, "request record");
static_assert(offsetof(ahttpdReqObj, sock) == 30456, "request record");
static_assert(offsetof(ahttpdReqObj, returnCode) == 30460, "request record");
static_assert(offsetof(ahttpdReqObj, rspObj) == 30476, "request record");
static_assert(sizeof(ahttpdReqObj) == 30480, "request record");
static_assert(offsetof(ahttpdRspObj, body) == 30440, "response record");
static_assert(offsetof(ahttpdRspObj, sendBody) == 30452, "response record");
static_assert(offsetof(ahttpdRspObj, returnCode) == 30460, "response record");
static_assert(offsetof(ahttpdRspObj, bodyOwned) == 30464, "response record");
static_assert(sizeof(ahttpdRspObj) == 30468, "response record");
#endif

// Hand-over from the listener to a connection task; freed by the task.
struct ahttpdConnStart {
    int32_t sock;
    int32_t connectionNumber;
};
static_assert(sizeof(ahttpdConnStart) == 8, "hand-over record");

extern "C" {

// ---- records and mappings ----------------------------------------------------------
int32_t convert_cmp2http_HeadFieldToken(int32_t token);
int32_t convert_cmp2http_ReturnCodes(int32_t code);
int32_t convert_http2cmp_ReturnCodes(int32_t code);
int setHttpData(cmp_ipp_if_info_s* info, CMP_IPP_IF_HEADER_FC_FIELD_TOKENS token, char* text);
int getHttpData(cmp_ipp_if_info_s* info, CMP_IPP_IF_HEADER_FC_FIELD_TOKENS token, char* buffer);
int setHttpReturnCode(cmp_ipp_if_info_s* info, CMP_IPP_IF_RETURN_CODES code);
int getHttpReturnCode(cmp_ipp_if_info_s* info, int* out);
int32_t AHTTPD_getReqHeaderField(ahttpdReqObj* req, int32_t token, char* buffer);
int32_t AHTTPD_setResponseHeader(ahttpdRspObj* rsp, int32_t token, const char* text);
int32_t ahttpdDecode(const char* input, unsigned char* output, int32_t capacity);

}  // extern "C"

#endif
