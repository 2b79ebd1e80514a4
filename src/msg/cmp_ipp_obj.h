// A named object with one attribute list and a mutex: the base of every message,
// and the form in which the printer's own attributes reach the library.
#ifndef CMP_IPP_OBJ_H
#define CMP_IPP_OBJ_H

#include <stdint.h>

#include "containers/cmp_ipp_string.h"
#include "msg/cmp_ipp_attrs.h"
#include "platform/emw_osw.h"

class cmp_ipp_obj {
public:
    cmp_ipp_obj();
    virtual ~cmp_ipp_obj();
    cmp_ipp_obj(const cmp_ipp_obj&) = delete;
    // Takes the other's name and merges its attributes in (existing ones stay).
    cmp_ipp_obj& operator=(const cmp_ipp_obj& other);

    void setName(const char* name) { m_name.assignBytes(name, -1); }
    const char* getName() const { return m_name.c_str(); }
    void setAttrs(const cmp_ipp_attrs& other) { m_attrs.setAttrs(other); }

    // The only locking operations: each holds m_mutex for the one change.
    void resetAttr(uint16_t id);
    void cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const char* text);
    void cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, int32_t value);

    cmp_ipp_attrs& getAttrs() { return m_attrs; }
    const cmp_ipp_attrs& getAttrs() const { return m_attrs; }

    cmp_ipp_string m_name;
    cmp_ipp_attrs m_attrs;
    emwOSWMutex_t m_mutex;

private:
    void lock(const char* op, int line);
    void unlock(const char* op, int line);
};

#endif
