// The per-request interface record through which the message layer reaches the
// transport that carried the request.
#ifndef CMP_IPP_IF_H
#define CMP_IPP_IF_H

#include <stdint.h>

// Header field identifiers shared by the front end, the library and the handler.
// 21 (authorisation) and 31 (client address zone) have a role inside the library.
enum CMP_IPP_IF_HEADER_FC_FIELD_TOKENS {
    CMP_IPP_IF_HDR_NONE = 0,
    CMP_IPP_IF_HDR_HOST = 1,
    CMP_IPP_IF_HDR_CONTENT_TYPE = 2,
    CMP_IPP_IF_HDR_CONTENT_LENGTH = 3,
    CMP_IPP_IF_HDR_TRANSFER_ENCODING = 4,
    CMP_IPP_IF_HDR_CONNECTION = 5,
    CMP_IPP_IF_HDR_KEEP_ALIVE = 6,
    CMP_IPP_IF_HDR_USER_AGENT = 7,
    CMP_IPP_IF_HDR_ACCEPT = 8,
    CMP_IPP_IF_HDR_ACCEPT_LANGUAGE = 9,
    CMP_IPP_IF_HDR_ACCEPT_ENCODING = 10,
    CMP_IPP_IF_HDR_ACCEPT_CHARSET = 11,
    CMP_IPP_IF_HDR_CONTENT_ENCODING = 12,
    CMP_IPP_IF_HDR_CONTENT_LANGUAGE = 13,
    CMP_IPP_IF_HDR_DATE = 14,
    CMP_IPP_IF_HDR_EXPECT = 15,
    CMP_IPP_IF_HDR_IF_MODIFIED_SINCE = 16,
    CMP_IPP_IF_HDR_LAST_MODIFIED = 17,
    CMP_IPP_IF_HDR_LOCATION = 18,
    CMP_IPP_IF_HDR_SERVER = 19,
    CMP_IPP_IF_HDR_WWW_AUTHENTICATE = 20,
    CMP_IPP_IF_HDR_AUTHORIZATION = 21,  // "Basic" credentials are decoded by the transport
    CMP_IPP_IF_HDR_CACHE_CONTROL = 22,
    CMP_IPP_IF_HDR_PRAGMA = 23,
    CMP_IPP_IF_HDR_REFERER = 24,
    CMP_IPP_IF_HDR_COOKIE = 25,
    CMP_IPP_IF_HDR_SET_COOKIE = 26,
    CMP_IPP_IF_HDR_REQUEST_URI = 27,
    CMP_IPP_IF_HDR_REMOTE_ADDR = 28,
    CMP_IPP_IF_HDR_REMOTE_USER = 29,
    CMP_IPP_IF_HDR_LOCAL_ADDR = 30,
    CMP_IPP_IF_HDR_CLIENT_ZONE = 31,    // zone text of the client's address
    CMP_IPP_IF_HDR_UPGRADE = 32,
};

// Reply codes: 0 is success; 7 to 18 stand for HTTP error replies.
enum CMP_IPP_IF_RETURN_CODES {
    CMP_IPP_IF_RC_OK = 0,
    CMP_IPP_IF_RC_CONTINUE = 1,
    CMP_IPP_IF_RC_CREATED = 2,
    CMP_IPP_IF_RC_ACCEPTED = 3,
    CMP_IPP_IF_RC_NO_CONTENT = 4,
    CMP_IPP_IF_RC_NOT_MODIFIED = 5,
    CMP_IPP_IF_RC_REDIRECT = 6,
    CMP_IPP_IF_RC_BAD_REQUEST = 7,             // 400
    CMP_IPP_IF_RC_UNAUTHORIZED = 8,            // 401 unauthorized access
    CMP_IPP_IF_RC_FORBIDDEN = 9,               // 403
    CMP_IPP_IF_RC_NOT_FOUND = 10,              // 404
    CMP_IPP_IF_RC_METHOD_NOT_ALLOWED = 11,     // 405
    CMP_IPP_IF_RC_NOT_ACCEPTABLE = 12,         // 406
    CMP_IPP_IF_RC_REQUEST_TIMEOUT = 13,        // 408
    CMP_IPP_IF_RC_URI_TOO_LONG = 14,           // 414
    CMP_IPP_IF_RC_INTERNAL_ERROR = 15,         // 500
    CMP_IPP_IF_RC_NOT_IMPLEMENTED = 16,        // 501
    CMP_IPP_IF_RC_ACCESS_DENIED = 17,          // 401 access denied
    CMP_IPP_IF_RC_VERSION_NOT_SUPPORTED = 18,  // 505
    CMP_IPP_IF_RC_SERVICE_UNAVAILABLE = 19,
    CMP_IPP_IF_RC_KEEP_OPEN = 20,
    CMP_IPP_IF_RC_CLOSE = 21,
};

struct cmp_ipp_if_info_s;

typedef int (*cmp_ipp_if_set_data_fn)(cmp_ipp_if_info_s* info, CMP_IPP_IF_HEADER_FC_FIELD_TOKENS field,
                                      char* text);
typedef int (*cmp_ipp_if_get_data_fn)(cmp_ipp_if_info_s* info, CMP_IPP_IF_HEADER_FC_FIELD_TOKENS field,
                                      char* text);
typedef int (*cmp_ipp_if_set_reply_code_fn)(cmp_ipp_if_info_s* info, CMP_IPP_IF_RETURN_CODES code);
typedef int (*cmp_ipp_if_get_reply_code_fn)(cmp_ipp_if_info_s* info, int* code);
// Result 1: a block was delivered; 2: end of body; negative: a transport failure code.
typedef int (*cmp_ipp_if_get_more_data_fn)(void* ctx, int unused, unsigned char** data, int* length);

// Filled by the transport for each request; any operation may be null.
struct cmp_ipp_if_info_s {
    int32_t ifKind;
    cmp_ipp_if_set_data_fn pfnSetData;
    cmp_ipp_if_get_data_fn pfnGetData;
    cmp_ipp_if_set_reply_code_fn pfnSetReplyCode;
    cmp_ipp_if_get_reply_code_fn pfnGetReplyCode;
    cmp_ipp_if_get_more_data_fn pfnGetMoreData;
    void* ctx;
};

#endif
