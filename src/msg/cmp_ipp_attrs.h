// An ordered list of attributes held by value: one group of a message, or the
// attribute list of a named object. Lookups return the first match from the front.
#ifndef CMP_IPP_ATTRS_H
#define CMP_IPP_ATTRS_H

#include <stdint.h>

#include "attr/cmp_ipp_attr.h"
#include "containers/cmp_ipp_string.h"
#include "containers/cmp_ipp_vector.h"

class cmp_ipp_attrs {
public:
    cmp_ipp_attrs() = default;
    explicit cmp_ipp_attrs(const char* name) { m_name.assignBytes(name, -1); }

    int32_t cmp_ipp_attrs_index_of(uint16_t id) const;
    int32_t cmp_ipp_attrs_index_of(const char* name) const;
    bool contains(uint16_t id) const { return cmp_ipp_attrs_index_of(id) != -1; }
    // Points into the list: valid until the next insertion into this list.
    cmp_ipp_attr* find(uint16_t id);
    cmp_ipp_attr* find(const char* name);
    const cmp_ipp_attr* find(uint16_t id) const;
    const cmp_ipp_attr* find(const char* name) const;

    // Keyed by name: with replace, overwrites the first entry of that name;
    // otherwise, and for collection markers, appends a copy.
    void cmp_ipp_attrs_set_attr_by_name(const cmp_ipp_attr* attr, bool replace);
    // Keyed by identifier: overwrites the first entry of that identifier, else
    // appends. Collection markers are appended unless replaceMember says otherwise.
    void cmp_ipp_attrs_set_attr(const cmp_ipp_attr* attr, bool replaceMember);

    // Typed setters: build the attribute and store it keyed by identifier.
    void cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const unsigned char* bytes, int16_t length);
    void cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const char* text, const char* language);
    void cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, int32_t a, int32_t b, int32_t c);
    void cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, int32_t value);
    void cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, const char* text);
    // Stores a value-less octet attribute; the pointed-to data is not read.
    void cmp_ipp_attrs_set_attr(int16_t type, uint16_t id, void* value);

    // Merges other's attributes in, front to back, keyed by identifier.
    void setAttrs(const cmp_ipp_attrs& other);
    // Kept for interface compatibility: neither changes the list.
    void deleteUnprotected() {}
    void cmp_ipp_attrs_clear() {}

    cmp_ipp_string toHTML() const;

    int32_t count() const { return m_list.length(); }
    cmp_ipp_attr& operator[](int32_t i) { return m_list[i]; }
    const cmp_ipp_attr& operator[](int32_t i) const { return m_list[i]; }
    const char* getName() const { return m_name.c_str(); }
    void setName(const char* name) { m_name.assignBytes(name, -1); }

    cmp_ipp_vector<cmp_ipp_attr> m_list;
    cmp_ipp_string m_name;
};

#endif
