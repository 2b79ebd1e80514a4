// The two kinds of message: a request (numbered from the shared counter, its
// operation checked against the printer's operations-supported) and a response.
#ifndef CMP_IPP_REQUEST_H
#define CMP_IPP_REQUEST_H

#include "msg/cmp_ipp_ippmsg.h"

class cmp_ipp_request : public cmp_ipp_msg {
public:
    cmp_ipp_request();
    ~cmp_ipp_request() override;
    // True when the printer's operations-supported holds op; a printer without
    // that attribute supports nothing.
    bool isValidOperation(int16_t op) override;
};

class cmp_ipp_response : public cmp_ipp_msg {
public:
    cmp_ipp_response();
    ~cmp_ipp_response() override;

    using cmp_ipp_msg::isValidOperation;
    // True for the successful codes 0x0000-0x0002 and the errors 0x0400-0x0507.
    virtual bool isValidOperation(uint16_t code);

    void setStatusCode(uint16_t code, bool unused = false);
    uint16_t getStatusCode() const { return static_cast<uint16_t>(m_operationId); }
    const char* statusCodeToText(uint16_t code) const;

    // Rewrites job-state-reasons for IPP/1.0 clients.
    void cmp_ipp_res_convert_to_version();
    // Inserts the client's address zone into the printer's URIs.
    void convertToClientZone();
};

#endif
