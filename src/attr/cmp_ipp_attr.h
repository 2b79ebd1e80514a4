// One IPP attribute in memory: value tag, name (registry identifier or a name of
// its own) and any number of values in three stores chosen by the tag.
#ifndef CMP_IPP_ATTR_H
#define CMP_IPP_ATTR_H

#include <stdint.h>

#include "attr/cmp_ipp_ipptable.h"
#include "containers/cmp_ipp_buf.h"
#include "containers/cmp_ipp_string.h"
#include "containers/cmp_ipp_vector.h"
#include "service/cmp_ipp_constants.h"

// One row of the value-tag name table.
struct cmp_ipp_type_name_row_t {
    uint16_t tag;
    const char* name;
};

// The 26 value-tag names in table order.
extern const cmp_ipp_type_name_row_t cmp_ipp_attr_type_names[26];
// Name of a value tag from that table, "unknown" without a match.
const char* cmp_ipp_attr_type_name(int tag);

class cmp_ipp_attr {
public:
    // No values, no name; allocates nothing.
    cmp_ipp_attr() noexcept;
    cmp_ipp_attr(const cmp_ipp_attr& other);
    // Take over the other's name and stores; the other is left as a default
    // attribute (no values, no name, empty stores of capacity 2).
    cmp_ipp_attr(cmp_ipp_attr&& other) noexcept;
    cmp_ipp_attr& operator=(cmp_ipp_attr&& other) noexcept;
    cmp_ipp_attr(int16_t type, uint16_t id);
    // a is always word 0; b and c are kept as far as the tag has words per value.
    cmp_ipp_attr(int16_t type, uint16_t id, int32_t a, int32_t b = 0, int32_t c = 0);
    cmp_ipp_attr(int16_t type, uint16_t id, const char* text);
    cmp_ipp_attr(int16_t type, uint16_t id, const char* text, const char* language);
    cmp_ipp_attr(int16_t type, uint16_t id, const char* name, int32_t nameLength, const char* text);
    cmp_ipp_attr(int16_t type, uint16_t id, const cmp_ipp_buf& value);
    cmp_ipp_attr(int16_t type, uint16_t id, const unsigned char* bytes, int16_t length);
    // Reads value by the tag: a number carried in the pointer, a byte block of
    // length bytes, or a text (X:Y:U for resolution, L:H for rangeOfInteger).
    cmp_ipp_attr(int16_t type, uint16_t id, void* value, int32_t length);
    ~cmp_ipp_attr();

    cmp_ipp_attr& operator=(const cmp_ipp_attr& other);

    static int longsPerValueForType(int16_t type);
    int longsPerValue() const;

    // Drops the values, the own name and the member type; tag and identifier stay.
    void reset();
    void setNameId(uint16_t id) {
        m_nameId = id;
        m_nameLength = 0;
    }
    void setName(const char* src, int32_t len);
    const char* cmp_ipp_attr_get_name() const;

    // Registry lookups.
    static uint16_t cmp_ipp_attr_name_to_id(const char* name);
    static const char* cmp_ipp_attr_id_to_name(uint16_t id, int16_t* type);
    static int16_t nameIdToType(uint16_t id);
    static int16_t nameIdToAlternateType(uint16_t id);
    static bool nameIdIsOneSetOf(uint16_t id);
    static bool getNameIdMinMax(uint16_t id, int type, int32_t* min, int32_t* max);

    // ---- wire codec ----

    // Reads one attribute with all its values at offset. Returns a new attribute
    // owned by the caller, or null with *status holding the IPP status (0x0400,
    // or 0x0409 for a boolean of wrong length). *consumed always gets the number
    // of bytes of this attribute that were read, up to the failing field.
    static cmp_ipp_attr* Create(cmp_ipp_buf& buf, int32_t offset, uint16_t* status, int32_t* consumed);
    // The same into an attribute of the caller's, so that a decoder reading
    // attribute after attribute allocates no attribute object for each: true
    // with out holding the attribute, false where Create returns null (out is
    // then left in no defined state). out ends exactly as Create's attribute.
    static bool CreateIn(cmp_ipp_attr& out, cmp_ipp_buf& buf, int32_t offset, uint16_t* status, int32_t* consumed);
    // Bytes getBytes writes; fills in m_nameLength from the registry when 0.
    int32_t getByteLength();
    // Writes the attribute at pos and sets the buffer's length after it; writes
    // nothing when the buffer's capacity cannot hold getByteLength() bytes there.
    void getBytes(cmp_ipp_buf& buf, int32_t pos);

    // ---- value operations ----

    // Adds the first value of other (which must have this attribute's value tag,
    // or the member type for a member attribute).
    void cmp_ipp_attr_add_multi(const cmp_ipp_attr& other);
    int cmp_ipp_attr_contains_value_of(int32_t value) const;
    int cmp_ipp_attr_contains_value_of(const char* text) const;
    // 1 when a value holds other's first value, or when this tag is not checked.
    int cmp_ipp_attr_contains_value_of(const cmp_ipp_attr& other) const;
    // 0 when the first value keeps the registry's bounds; 0x34 too small, 0x35 too long.
    int cmp_ipp_attr_validate_attr_range() const;
    // Lower-cases the first value's text and language in place.
    void toLower();
    char* _strlwr(char* text);
    static int cmp_ipp_attr_is_string_type(int16_t type);
    int cmp_ipp_attr_is_string_type() const;
    static int cmp_ipp_attr_is_col_type(int type);
    int cmp_ipp_attr_is_col_type() const;

    // ---- HTML ----

    // One line per value; lineBreak chooses "<br>" or "\n" as the line end.
    cmp_ipp_string toHTML(bool lineBreak) const;

    // The count stands before the name so that the pointers pack without gaps:
    // a group holds its attributes by value, so every byte here counts once per
    // attribute of a message (56 bytes on a 64-bit host, 36 on the 32-bit target).
    int32_t m_type;
    uint16_t m_nameId;
    int32_t m_nameLength;
    int32_t m_numValues;
    char* m_name;
    cmp_ipp_vector<cmp_ipp_string> m_strings;
    cmp_ipp_vector<cmp_ipp_buf> m_bufs;
    cmp_ipp_vector<int32_t> m_longs;
    int32_t m_memberType;

private:
    void addStringPair(const char* text, const char* language);
    void freeName();
    // Scalar fields back to those of a default attribute (the name is not freed).
    void clearFields();

    // Stored values read through these never leave the stores: a value the
    // stores do not hold reads as 0 or as an empty text.
    int32_t wordAt(int32_t i) const { return (i >= 0 && i < m_longs.length()) ? m_longs[i] : 0; }
    const cmp_ipp_string* stringAt(int32_t i) const {
        return (i >= 0 && i < m_strings.length()) ? &m_strings[i] : nullptr;
    }
    const cmp_ipp_buf* bufAt(int32_t i) const { return (i >= 0 && i < m_bufs.length()) ? &m_bufs[i] : nullptr; }
    // Length of a stored text up to its first zero byte: what goes on the wire.
    static int32_t textLength(const cmp_ipp_string* s);
    int32_t encodedNameLength();
    int32_t valueByteLength(int32_t tag, int32_t i) const;
};

#endif
