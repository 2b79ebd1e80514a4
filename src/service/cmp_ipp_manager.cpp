#include "cmp_ipp_manager.h"

#include "platform/emw_osw.h"

cmp_ipp_manager* cmp_ipp_manager::m_singleton = nullptr;

cmp_ipp_manager::cmp_ipp_manager() : m_printer(nullptr), m_handler(nullptr) {}
cmp_ipp_manager::~cmp_ipp_manager() = default;

cmp_ipp_manager* cmp_ipp_manager::get() {
    cmp_ipp_manager* p = __atomic_load_n(&m_singleton, __ATOMIC_ACQUIRE);
    if (p != nullptr) return p;
    OSW_Thread_Guard guard;
    if (m_singleton == nullptr) __atomic_store_n(&m_singleton, new cmp_ipp_manager(), __ATOMIC_RELEASE);
    return m_singleton;
}

intptr_t cmp_ipp_manager::getPrinterFromHandle(intptr_t handle) const {
    return handle == reinterpret_cast<intptr_t>(m_printer) ? handle : 0;
}

int cmp_ipp_manager::removePrinter(intptr_t handle) {
    intptr_t p = getPrinterFromHandle(handle);
    if (p != 0 && p == reinterpret_cast<intptr_t>(m_printer)) m_printer = nullptr;
    return 0;
}
