// One IPP message: header, named attribute groups in order, document data, and
// the link to the transport's interface record.
#ifndef CMP_IPP_IPPMSG_H
#define CMP_IPP_IPPMSG_H

#include <stdint.h>

#include <atomic>

#include "containers/cmp_ipp_buf.h"
#include "containers/cmp_ipp_if.h"
#include "containers/cmp_ipp_vector.h"
#include "msg/cmp_ipp_obj.h"
#include "service/cmp_ipp_constants.h"

extern "C" {
// Exported for the printer's software; the message code does not consult it.
extern int32_t gVERSION11ALLOWED;
}

class cmp_ipp_msg : public cmp_ipp_obj {
public:
    cmp_ipp_msg();
    ~cmp_ipp_msg() override;
    cmp_ipp_msg(const cmp_ipp_msg&) = delete;
    cmp_ipp_msg& operator=(const cmp_ipp_msg&) = delete;

    virtual bool isValidOperation(int16_t op);
    // Encodes the message as a new owning buffer; replaces m_raw and m_msgLength.
    virtual cmp_ipp_buf cmp_ipp_msg_encode();

    // The first group of that name, created at the end when there is none.
    cmp_ipp_attrs* getAttrGroup(const char* name);
    cmp_ipp_attrs* cmp_ipp_msg_get_job_attrs(int k);
    cmp_ipp_attrs* getSubscriptionAttrs(int k);
    void guaranteeOrder();
    void clear();
    void reset();
    void resetDataComplete();
    void setData(const cmp_ipp_buf& data);
    void setOpAttr(int16_t type, uint16_t id, int32_t value);
    void setOpAttr(int16_t type, uint16_t id, const char* text);
    void cmp_ipp_msg_set_unsupported_attr(const cmp_ipp_attr* attr);

    static int32_t generateRequestId();
    // One word per group: tag in bits 0-7, number of job groups before it from
    // bit 16. Returns 7 (and writes nothing) when max is too small, else 0.
    int getGroups(int* out, int max) const;
    static int groupToTag(const char* name);

    bool valideType(const cmp_ipp_attr& attr) const;
    bool valid_ipp_version(unsigned char major, unsigned char minor);
    // Returns 0 or an IPP status code.
    uint32_t decode(cmp_ipp_buf& buf, cmp_ipp_if_info_s* info);

    int getIfReplyCode() const;
    bool isValidMessage() const { return getIfReplyCode() == 0; }
    bool cmp_ipp_msg_set_if_reply_code(CMP_IPP_IF_RETURN_CODES code);
    bool cmp_ipp_msg_get_if_data(CMP_IPP_IF_HEADER_FC_FIELD_TOKENS field, unsigned char* text);
    bool cmp_ipp_msg_set_if_data(CMP_IPP_IF_HEADER_FC_FIELD_TOKENS field, unsigned char* text);

    cmp_ipp_string cmp_ipp_msg_to_html() const;
    static const char* getOpName(uint16_t op);
    static const char* getStatusCodeString(uint16_t code);
    static const char* getTypeName(int tag);

    int32_t groupCount() const { return m_groups.length(); }
    cmp_ipp_attrs* group(int32_t i) { return m_groups[i]; }
    const cmp_ipp_attrs* group(int32_t i) const { return m_groups[i]; }

    static std::atomic<int32_t> m_nextRequestId;

    cmp_ipp_vector<cmp_ipp_attrs*> m_groups;
    int32_t m_requestId;
    uint32_t m_msgLength;
    int16_t m_operationId;
    uint16_t m_version;
    cmp_ipp_buf m_docData;
    cmp_ipp_buf m_raw;
    bool m_dataComplete;
    int32_t m_dataLength;
    cmp_ipp_if_info_s* m_ifInfo;
};

#endif
