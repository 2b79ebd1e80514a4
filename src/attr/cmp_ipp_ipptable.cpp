#include "cmp_ipp_ipptable.h"

#include "platform/emw_osw.h"

cmp_ipp_ipptable_def* cmp_ipp_ipptable_def::m_singleton = nullptr;

cmp_ipp_ipptable_def::cmp_ipp_ipptable_def()
    : m_attrTable(nullptr), m_altTypeTable(nullptr), m_oneSetOfTable(nullptr), m_operationIdTable(nullptr),
      m_statusCodeTable(nullptr), m_attrCount(0), m_altTypeCount(0), m_oneSetOfCount(0),
      m_operationIdCount(0), m_statusCodeCount(0) {}

cmp_ipp_ipptable_def::~cmp_ipp_ipptable_def() = default;

cmp_ipp_ipptable_def* cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance() {
    cmp_ipp_ipptable_def* p = __atomic_load_n(&m_singleton, __ATOMIC_ACQUIRE);
    if (p != nullptr) return p;
    OSW_Thread_Guard guard;
    if (m_singleton == nullptr) __atomic_store_n(&m_singleton, new cmp_ipp_ipptable_def(), __ATOMIC_RELEASE);
    return m_singleton;
}

const char* cmp_ipp_ipptable_op_name(uint16_t op) {
    int16_t count = 0;
    const cmp_ipp_operation_row_t* rows =
        cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance()->get_ipp_attr_operation_id_table(&count);
    for (int16_t i = 0; i < count; ++i) {
        if (rows[i].id == op) return rows[i].name != nullptr ? rows[i].name : "unknown";
    }
    return "unknown";
}

const char* cmp_ipp_ipptable_status_text(uint16_t code) {
    int16_t count = 0;
    const cmp_ipp_status_row_t* rows =
        cmp_ipp_ipptable_def::cmp_ipp_ipptable_get_instance()->get_ipp_attr_status_code_table(&count);
    for (int16_t i = 0; i < count; ++i) {
        if (rows[i].code == code) return rows[i].text != nullptr ? rows[i].text : "unknown";
    }
    return "unknown";
}
