// An ordered list of attributes held by value: one group of a message, or the
// attribute list of a named object. Lookups return the first match from the front.
#ifndef CMP_IPP_ATTRS_H
#define CMP_IPP_ATTRS_H

#include <stdint.h>

#include <atomic>

#include "attr/cmp_ipp_attr.h"
#include "containers/cmp_ipp_string.h"
#include "containers/cmp_ipp_vector.h"

struct cmp_ipp_attrs_index;

class cmp_ipp_attrs {
public:
    cmp_ipp_attrs() noexcept;
    explicit cmp_ipp_attrs(const char* name);
    // Copies the attributes and the name.
    cmp_ipp_attrs(const cmp_ipp_attrs& other);
    cmp_ipp_attrs& operator=(const cmp_ipp_attrs& other);
    ~cmp_ipp_attrs();

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

    // Appends an attribute that its maker no longer needs (the decoder's),
    // taking over its stores instead of copying them: the list ends up as
    // cmp_ipp_attrs_set_attr_by_name(&attr, false) leaves it. attr is left as a
    // default attribute, or unchanged when it had to be copied after all (the
    // spare it goes into was used before).
    void adopt(cmp_ipp_attr& attr);
    // Adds the first value of value to the entry at pos, exactly as a copy of
    // that entry given the value with cmp_ipp_attr_add_multi and then stored
    // with cmp_ipp_attrs_set_attr(copy, false) would leave the list. Returns the
    // index of the entry that holds the result: pos, an earlier entry of the
    // same identifier (or name) that it overwrote, or, for a collection marker,
    // a new last entry. This is how the decoder merges additional values
    // without copying the attribute each time.
    int32_t addValueAt(int32_t pos, const cmp_ipp_attr& value);

    // Merges other's attributes in, front to back, keyed by identifier.
    void setAttrs(const cmp_ipp_attrs& other);
    // Kept for interface compatibility: neither changes the list.
    void deleteUnprotected() {}
    void cmp_ipp_attrs_clear() {}

    cmp_ipp_string toHTML() const;

    int32_t count() const { return m_list.length(); }
    // A reference the caller may change: the list stops trusting its index
    // until the next change made through the list itself.
    cmp_ipp_attr& operator[](int32_t i) {
        m_changedOutside.store(true, std::memory_order_relaxed);
        return m_list[i];
    }
    const cmp_ipp_attr& operator[](int32_t i) const { return m_list[i]; }
    const cmp_ipp_vector<cmp_ipp_attr>& list() const { return m_list; }
    const char* getName() const { return m_name.c_str(); }
    void setName(const char* name) { m_name.assignBytes(name, -1); }

private:
    // Private so that every change to an element goes through the list (or is
    // announced by the non-const accessors), which keeps the index exact.
    cmp_ipp_vector<cmp_ipp_attr> m_list;

public:
    cmp_ipp_string m_name;

private:
    // Entries below this many are looked up by scanning.
    static const int32_t kIndexFrom = 16;

    int32_t scanId(uint16_t id) const;
    int32_t scanName(const char* name) const;
    // Index of the first entry by identifier or name: through the index when it
    // is trustworthy, else by scanning. Safe on a list read by many tasks.
    int32_t firstWithId(uint16_t id) const;
    int32_t firstWithName(const char* name) const;
    // The same for the changing operations, which (re)build the index first
    // when the list is long enough to need one.
    int32_t firstWithIdForChange(uint16_t id);
    int32_t firstWithNameForChange(const char* name);
    // Every change of an entry goes through these: appendEntry() gives the new
    // last entry, entered() follows once it holds its attribute.
    cmp_ipp_attr& appendEntry();
    void entered();
    void overwrite(int32_t i, const cmp_ipp_attr& attr);
    void prepareIndex();
    void dropIndex();

    cmp_ipp_attrs_index* m_index;
    // Set by the non-const accessors, whose callers may change an entry's
    // identifier or name behind the index's back; atomic because lists such as
    // the printer's are read by many tasks at once.
    std::atomic<bool> m_changedOutside;
};

#endif
