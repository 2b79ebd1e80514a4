#include "cmp_ipp_obj.h"

#include "platform/cmp_dbglog.h"

namespace {
const char kObjError[] = "[ERROR]:cmp_ipp_obj::%s(%d)\n";
// The trace places (fixed identifiers, not source lines: see tracer()).
const int kLineCreate = 33;
const int kLineDelete = 41;
const int kLineResetLock = 58;
const int kLineResetUnlock = 63;
const int kLineSetTextLock = 70;
const int kLineSetTextUnlock = 73;
const int kLineSetLongLock = 80;
const int kLineSetLongUnlock = 83;
}  // namespace

cmp_ipp_obj::cmp_ipp_obj() : m_mutex(0) {
    if (emwOSWCreateMutexSem(&m_mutex, 0, 1) != 0) {
        m_mutex = 0;
        orvane::cmp_dbglog::tracer(0, kObjError, "cmp_ipp_obj", kLineCreate);
    }
}

cmp_ipp_obj::~cmp_ipp_obj() {
    if (m_mutex != 0 && emwOSWDeleteMutexSem(m_mutex) != 0)
        orvane::cmp_dbglog::tracer(0, kObjError, "~cmp_ipp_obj", kLineDelete);
}

cmp_ipp_obj& cmp_ipp_obj::operator=(const cmp_ipp_obj& other) {
    if (this == &other) return *this;
    setName(other.getName());
    setAttrs(other.m_attrs);
    return *this;
}

void cmp_ipp_obj::lock(const char* op, int line) {
    if (emwOSWRequestMutexSem(m_mutex, -1) != 0) orvane::cmp_dbglog::tracer(0, kObjError, op, line);
}

void cmp_ipp_obj::unlock(const char* op, int line) {
    if (emwOSWReleaseMutexSem(m_mutex) != 0) orvane::cmp_dbglog::tracer(0, kObjError, op, line);
}

void cmp_ipp_obj::resetAttr(uint16_t id) {
    lock("resetAttr", kLineResetLock);
    cmp_ipp_attr* a = m_attrs.find(id);
    if (a != nullptr) a->reset();
    unlock("resetAttr", kLineResetUnlock);
}

void cmp_ipp_obj::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const char* text) {
    lock("cmp_ipp_attrs_set_attr", kLineSetTextLock);
    m_attrs.cmp_ipp_attrs_set_attr(type, id, text);
    unlock("cmp_ipp_attrs_set_attr", kLineSetTextUnlock);
}

void cmp_ipp_obj::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, int32_t value) {
    lock("cmp_ipp_attrs_set_attr", kLineSetLongLock);
    m_attrs.cmp_ipp_attrs_set_attr(type, id, value);
    unlock("cmp_ipp_attrs_set_attr", kLineSetLongUnlock);
}
