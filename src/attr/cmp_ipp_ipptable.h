// The IPP dictionary registry: five tables installed by the embedding software
// before the service starts, read without locks afterwards. Every lookup answers
// with the first matching row, so the tables need no order; an index built on
// first use makes the lookups constant-time.
#ifndef CMP_IPP_IPPTABLE_H
#define CMP_IPP_IPPTABLE_H

#include <stdint.h>

// One attribute: the value tag -1 means "no fixed tag". min and max bound the
// value of integer-like tags and the length in bytes of text-like ones.
struct cmp_ipp_attr_row_t {
    uint16_t id;
    const char* name;
    int16_t valueTag;
    int32_t min;
    int32_t max;
};

// A second value tag an attribute may take. The range is informational for
// dictionary tools; the library reads only id and altTag.
struct cmp_ipp_alt_type_row_t {
    uint16_t id;
    int16_t altTag;
    int32_t altMin;
    int32_t altMax;
};

struct cmp_ipp_operation_row_t {
    uint16_t id;
    const char* name;
};

struct cmp_ipp_status_row_t {
    uint16_t code;
    const char* text;
};

class cmp_ipp_ipptable_def {
public:
    static cmp_ipp_ipptable_def* m_singleton;
    static cmp_ipp_ipptable_def* cmp_ipp_ipptable_get_instance();

    cmp_ipp_ipptable_def();
    virtual ~cmp_ipp_ipptable_def();

    const cmp_ipp_attr_row_t* get_ipp_attr_table(int16_t* count) const {
        *count = m_attrCount;
        return m_attrTable;
    }
    const cmp_ipp_alt_type_row_t* get_ipp_attr_alt_type_table(int16_t* count) const {
        *count = m_altTypeCount;
        return m_altTypeTable;
    }
    const uint16_t* get_ipp_attr_onesetof_table(int16_t* count) const {
        *count = m_oneSetOfCount;
        return m_oneSetOfTable;
    }
    const cmp_ipp_operation_row_t* get_ipp_attr_operation_id_table(int16_t* count) const {
        *count = m_operationIdCount;
        return m_operationIdTable;
    }
    const cmp_ipp_status_row_t* get_ipp_attr_status_code_table(int16_t* count) const {
        *count = m_statusCodeCount;
        return m_statusCodeTable;
    }

    // Rebuilds the lookup index now. Changing any of the ten fields below is
    // noticed by the next lookup; rows rewritten in place, or other tables put
    // at the addresses and counts of earlier ones (tables on the stack), are
    // not: call this after installing. Lookups running meanwhile on other tasks
    // answer from the tables before or after, never from a mix.
    void reindex();

    // Written directly by the embedding software; a table is read only while its
    // count is at least 1.
    const cmp_ipp_attr_row_t* m_attrTable;
    const cmp_ipp_alt_type_row_t* m_altTypeTable;
    const uint16_t* m_oneSetOfTable;
    const cmp_ipp_operation_row_t* m_operationIdTable;
    const cmp_ipp_status_row_t* m_statusCodeTable;
    int16_t m_attrCount;
    int16_t m_altTypeCount;
    int16_t m_oneSetOfCount;
    int16_t m_operationIdCount;
    int16_t m_statusCodeCount;
};

// Name of an operation or status code, "unknown" when not registered.
const char* cmp_ipp_ipptable_op_name(uint16_t op);
const char* cmp_ipp_ipptable_status_text(uint16_t code);

#endif
