#include "cmp_ipp_attrs.h"

#include <cstring>

int32_t cmp_ipp_attrs::cmp_ipp_attrs_index_of(uint16_t id) const {
    for (int32_t i = 0; i < m_list.length(); ++i) {
        if (m_list[i].m_nameId == id) return i;
    }
    return -1;
}

int32_t cmp_ipp_attrs::cmp_ipp_attrs_index_of(const char* name) const {
    if (name == nullptr) return -1;
    for (int32_t i = 0; i < m_list.length(); ++i) {
        if (std::strcmp(m_list[i].cmp_ipp_attr_get_name(), name) == 0) return i;
    }
    return -1;
}

cmp_ipp_attr* cmp_ipp_attrs::find(uint16_t id) {
    int32_t i = cmp_ipp_attrs_index_of(id);
    return i < 0 ? nullptr : &m_list[i];
}

cmp_ipp_attr* cmp_ipp_attrs::find(const char* name) {
    int32_t i = cmp_ipp_attrs_index_of(name);
    return i < 0 ? nullptr : &m_list[i];
}

const cmp_ipp_attr* cmp_ipp_attrs::find(uint16_t id) const {
    int32_t i = cmp_ipp_attrs_index_of(id);
    return i < 0 ? nullptr : &m_list[i];
}

const cmp_ipp_attr* cmp_ipp_attrs::find(const char* name) const {
    int32_t i = cmp_ipp_attrs_index_of(name);
    return i < 0 ? nullptr : &m_list[i];
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr_by_name(const cmp_ipp_attr* attr, bool replace) {
    if (attr == nullptr) return;
    if (!attr->cmp_ipp_attr_is_col_type() && replace) {
        int32_t i = cmp_ipp_attrs_index_of(attr->cmp_ipp_attr_get_name());
        if (i >= 0) {
            m_list[i] = *attr;
            return;
        }
    }
    m_list.appendSlot() = *attr;
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(const cmp_ipp_attr* attr, bool replaceMember) {
    if (attr == nullptr) return;
    const bool marker = attr->cmp_ipp_attr_is_col_type() != 0;
    if (attr->m_nameId == 0 && !marker) {
        cmp_ipp_attrs_set_attr_by_name(attr, true);
        return;
    }
    int32_t i = cmp_ipp_attrs_index_of(attr->m_nameId);
    if (i >= 0 && !marker) {
        m_list[i] = *attr;
        return;
    }
    if (i >= 0 && replaceMember) {
        if (attr->m_type == CMP_IPP_TAG_MEMBERNAME && attr->m_numValues >= 1) m_list[i] = *attr;
        return;  // other markers are dropped
    }
    m_list.appendSlot() = *attr;
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const unsigned char* bytes, int16_t length) {
    cmp_ipp_attr a(type, id, bytes, length);
    cmp_ipp_attrs_set_attr(&a, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const char* text, const char* language) {
    cmp_ipp_attr a(type, id, text, language);
    cmp_ipp_attrs_set_attr(&a, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, int32_t a, int32_t b, int32_t c) {
    cmp_ipp_attr attr(type, id, a, b, c);
    cmp_ipp_attrs_set_attr(&attr, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, int32_t value) {
    cmp_ipp_attr attr(type, id, value, 0, 0);
    cmp_ipp_attrs_set_attr(&attr, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const char* text) {
    cmp_ipp_attr a(type, id, text);
    cmp_ipp_attrs_set_attr(&a, false);
}

void cmp_ipp_attrs::cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, void* value) {
    cmp_ipp_attr a(type, id, cmp_ipp_buf(value != nullptr));
    cmp_ipp_attrs_set_attr(&a, false);
}

void cmp_ipp_attrs::setAttrs(const cmp_ipp_attrs& other) {
    if (&other == this) return;
    for (int32_t i = 0; i < other.m_list.length(); ++i) cmp_ipp_attrs_set_attr(&other.m_list[i], false);
}
