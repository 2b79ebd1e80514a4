// Request and response records: token and return-code mappings, the accessors
// installed in the interface record, header field tables and Basic credentials.
#include <cstring>

#include "httpd/cmp_ipp_httpd.h"

namespace {

// CMP_IPP_IF_RETURN_CODES value -> internal return code.
const int32_t kCmpToHttp[] = {
    PRS_PRT_HTTP_RET_OK,                   // 0
    PRS_PRT_HTTP_RET_CONTINUE,             // 1
    PRS_PRT_HTTP_RET_CREATED,              // 2
    PRS_PRT_HTTP_RET_ACCEPTED,             // 3
    PRS_PRT_HTTP_RET_NO_CONTENT,           // 4
    PRS_PRT_HTTP_RET_NOT_MODIFIED,         // 5
    PRS_PRT_HTTP_RET_REDIRECT,             // 6
    PRS_PRT_HTTP_RET_400_BAD_REQUEST,      // 7
    PRS_PRT_HTTP_RET_401_UNAUTHORIZED,     // 8
    PRS_PRT_HTTP_RET_403_FORBIDDEN,        // 9
    PRS_PRT_HTTP_RET_404_NOT_FOUND,        // 10
    PRS_PRT_HTTP_RET_405_INVLD_MET,        // 11
    PRS_PRT_HTTP_RET_406_NOT_ACCEPTABLE,   // 12
    PRS_PRT_HTTP_RET_408_TIMEOUT,          // 13
    PRS_PRT_HTTP_RET_414_URI_TOO_LARGE,    // 14
    PRS_PRT_HTTP_RET_500_INTERNAL,         // 15
    PRS_PRT_HTTP_RET_501_NOT_IMPLEMENTED,  // 16
    PRS_PRT_HTTP_RET_401_ACCESS_DENIED,    // 17
    PRS_PRT_HTTP_RET_505_VERSION,          // 18
    PRS_PRT_HTTP_RET_SERVICE_UNAVAILABLE,  // 19
    PRS_PRT_HTTP_RET_IPP_DISABLED,         // 20
    PRS_PRT_HTTP_RET_CLOSE,                // 21
};
const int32_t kNumCmpCodes = static_cast<int32_t>(sizeof kCmpToHttp / sizeof kCmpToHttp[0]);

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
const int32_t kCredentialCapacity = 255;

struct Base64Table {
    unsigned char v[256];
    Base64Table() {
        std::memset(v, 64, sizeof v);
        for (int i = 0; i < 64; ++i) v[static_cast<unsigned char>(kBase64[i])] = static_cast<unsigned char>(i);
    }
};

ahttpdReqObj* requestOf(cmp_ipp_if_info_s* info) {
    return info != nullptr ? static_cast<ahttpdReqObj*>(info->ctx) : nullptr;
}

}  // namespace

extern "C" int32_t convert_cmp2http_HeadFieldToken(int32_t token) {
    return (token >= 0 && token <= AHTTPD_MAX_TOKEN) ? token : AHTTPD_INVALID_TOKEN;
}

extern "C" int32_t convert_cmp2http_ReturnCodes(int32_t code) {
    return (code >= 0 && code < kNumCmpCodes) ? kCmpToHttp[code] : -1;
}

extern "C" int32_t convert_http2cmp_ReturnCodes(int32_t code) {
    for (int32_t i = 0; i < kNumCmpCodes; ++i)
        if (kCmpToHttp[i] == code) return i;
    return CMP_IPP_IF_RC_ACCESS_DENIED;
}

extern "C" int32_t AHTTPD_setResponseHeader(ahttpdRspObj* rsp, int32_t token, const char* text) {
    if (rsp == nullptr) return PRS_PRT_HTTP_RET_FIELD_NOT_FOUND;
    if (rsp->numHeaders > AHTTPD_NUM_HEADER_FIELDS - 1) return PRS_PRT_HTTP_RET_HEADER_TABLE_FULL;
    if (token < 0 || token > AHTTPD_MAX_TOKEN) return PRS_PRT_HTTP_RET_FIELD_NOT_FOUND;
    if (rsp->numHeaders < 0) rsp->numHeaders = 0;
    ahttpdHeaderField& field = rsp->headers[rsp->numHeaders];
    field.value[0] = '\0';
    if (text == nullptr) text = "";
    const size_t length = strnlen(text, AHTTPD_FIELD_TEXT_SIZE);
    if (length > static_cast<size_t>(AHTTPD_FIELD_TEXT_SIZE - 1)) return PRS_PRT_HTTP_RET_500_INTERNAL;
    field.token = token;
    std::memcpy(field.value, text, length + 1);
    ++rsp->numHeaders;
    return PRS_PRT_HTTP_RET_OK;
}

extern "C" int32_t AHTTPD_getReqHeaderField(ahttpdReqObj* req, int32_t token, char* buffer) {
    if (req == nullptr || buffer == nullptr) return PRS_PRT_HTTP_RET_FIELD_NOT_FOUND;
    // numHeaders comes from the wire: never look beyond the table.
    int32_t count = req->numHeaders;
    if (count > AHTTPD_NUM_HEADER_FIELDS) count = AHTTPD_NUM_HEADER_FIELDS;
    for (int32_t i = 0; i < count; ++i) {
        const ahttpdHeaderField& field = req->headers[i];
        if (field.token != token) continue;
        // A text without a terminator ends with the field; cut it so that it and
        // its terminator fit the caller's field-sized buffer.
        const size_t length = strnlen(field.value, AHTTPD_FIELD_TEXT_SIZE - 1);
        std::memcpy(buffer, field.value, length);
        buffer[length] = '\0';
        return length > 0 ? PRS_PRT_HTTP_RET_OK : PRS_PRT_HTTP_RET_FIELD_EMPTY;
    }
    return buffer[0] != '\0' ? PRS_PRT_HTTP_RET_FIELD_NOT_FOUND : PRS_PRT_HTTP_RET_FIELD_EMPTY;
}

extern "C" int32_t ahttpdDecode(const char* input, unsigned char* output, int32_t capacity) {
    static const Base64Table table;
    if (input == nullptr) return 0;
    const unsigned char* in = reinterpret_cast<const unsigned char*>(input);
    while (*in == ' ' || *in == '\t') ++in;
    int32_t n = 0;
    while (table.v[in[n]] < 64) ++n;

    int32_t result = ((n + 3) / 4) * 3;
    int32_t decode = n;
    if (capacity < 0) capacity = 0;
    if (result > capacity) decode = static_cast<int32_t>(static_cast<int64_t>(capacity) * 4 / 3);
    // Characters past the run count as 64 (what the first one past it is); they
    // only shape bytes beyond the result length. Nothing past the run is read.
    auto at = [&](int32_t i) -> uint32_t { return i < n ? table.v[in[i]] : 64u; };
    int32_t o = 0;
    for (int32_t i = 0; i < decode; i += 4) {
        const uint32_t c0 = at(i), c1 = at(i + 1), c2 = at(i + 2), c3 = at(i + 3);
        const unsigned char bytes[3] = {static_cast<unsigned char>(c0 << 2 | c1 >> 4),
                                        static_cast<unsigned char>(c1 << 4 | c2 >> 2),
                                        static_cast<unsigned char>(c2 << 6 | c3)};
        for (unsigned char b : bytes)
            if (output != nullptr && o < capacity) output[o++] = b;
    }
    if (n % 4 == 3) result -= 1;
    else if (n % 4 != 0) result -= 2;
    return result;
}

extern "C" int setHttpData(cmp_ipp_if_info_s* info, CMP_IPP_IF_HEADER_FC_FIELD_TOKENS token, char* text) {
    const int32_t t = convert_cmp2http_HeadFieldToken(token);
    if (t == AHTTPD_INVALID_TOKEN) return 0;
    ahttpdReqObj* req = requestOf(info);
    if (req == nullptr || req->rspObj == nullptr) return 0;
    return AHTTPD_setResponseHeader(req->rspObj, t, text) == PRS_PRT_HTTP_RET_OK ? 1 : 0;
}

extern "C" int getHttpData(cmp_ipp_if_info_s* info, CMP_IPP_IF_HEADER_FC_FIELD_TOKENS token, char* buffer) {
    const int32_t t = convert_cmp2http_HeadFieldToken(token);
    if (t == AHTTPD_INVALID_TOKEN || buffer == nullptr) return 0;
    ahttpdReqObj* req = requestOf(info);
    if (req == nullptr) return 0;
    if (AHTTPD_getReqHeaderField(req, t, buffer) != PRS_PRT_HTTP_RET_OK) return 0;
    if (t == CMP_IPP_IF_HDR_AUTHORIZATION && std::strncmp(buffer, "Basic", 5) == 0) {
        const char* blank = std::strchr(buffer, ' ');
        // "Basic" without a blank carries nothing to decode: the text stays as it is.
        if (blank == nullptr) return 1;
        unsigned char decoded[kCredentialCapacity];
        std::memset(decoded, 0, sizeof decoded);
        const int32_t length = ahttpdDecode(blank + 1, decoded, kCredentialCapacity);
        if (length > kCredentialCapacity - 1) return 0;
        const int32_t used = length > 0 ? length : 0;
        std::memcpy(buffer, "Basic ", 6);
        std::memcpy(buffer + 6, decoded, static_cast<size_t>(used));
        buffer[6 + used] = '\0';
    }
    return 1;
}

extern "C" int setHttpReturnCode(cmp_ipp_if_info_s* info, CMP_IPP_IF_RETURN_CODES code) {
    const int32_t mapped = convert_cmp2http_ReturnCodes(code);
    if (mapped == -1) return 0;
    ahttpdReqObj* req = requestOf(info);
    if (req == nullptr || req->rspObj == nullptr) return 0;
    req->rspObj->status = mapped;
    return 1;
}

extern "C" int getHttpReturnCode(cmp_ipp_if_info_s* info, int* out) {
    ahttpdReqObj* req = requestOf(info);
    if (req == nullptr || out == nullptr) return 0;
    int32_t code = req->returnCode;
    if (code == 0 && req->rspObj != nullptr) code = req->rspObj->status;
    *out = convert_http2cmp_ReturnCodes(code);
    return 1;
}
