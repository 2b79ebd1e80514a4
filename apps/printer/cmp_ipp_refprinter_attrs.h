// Building and reading attributes for the reference printer: value builders that
// fall back to an own name when the dictionary lacks one, collections as flat
// marker sequences, and lookups that see only top-level attributes.
#ifndef CMP_IPP_REFPRINTER_ATTRS_H
#define CMP_IPP_REFPRINTER_ATTRS_H

#include <stdint.h>
#include <time.h>

#include <string>
#include <string_view>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "msg/cmp_ipp_attrs.h"

namespace refprinter {
namespace attrs {

// An attribute without values, named through the dictionary or by itself.
cmp_ipp_attr named(int16_t tag, const char* name);
cmp_ipp_attr texts(int16_t tag, const char* name, const std::vector<std::string>& values);
cmp_ipp_attr text(int16_t tag, const char* name, const std::string& value);
cmp_ipp_attr ints(int16_t tag, const char* name, const std::vector<int32_t>& values);
cmp_ipp_attr integer(const char* name, int32_t value);
cmp_ipp_attr enums(const char* name, const std::vector<int32_t>& values);
cmp_ipp_attr boolean(const char* name, bool value);
cmp_ipp_attr range(const char* name, int32_t lower, int32_t upper);
// Resolutions in dots per inch.
cmp_ipp_attr resolutions(const char* name, const std::vector<int32_t>& dpi);
cmp_ipp_attr dateTime(const char* name, time_t when);
// job-k-octets of a byte count: whole kilo-octets rounded up, at most INT32_MAX
// (an integer attribute cannot say more).
int32_t kOctets(uint64_t octets);
cmp_ipp_attr octets(const char* name, const std::vector<std::string>& values);
// An out-of-band value: no-value, unknown or unsupported.
cmp_ipp_attr outOfBand(int16_t tag, const char* name);

// One collection value (or several, for a 1setOf collection) as the flat
// sequence of begCollection, member and endCollection entries that the
// library keeps in a group.
class Collection {
public:
    // Starts a value: the attribute's name for the first value, "" for the next.
    Collection& begin(const char* name);
    Collection& end();
    Collection& member(const char* name, const cmp_ipp_attr& value);
    Collection& keyword(const char* name, const char* value);
    Collection& integer(const char* name, int32_t value);
    // A member whose value is a collection: follow with begin("") ... end().
    Collection& memberCollection(const char* name);
    const std::vector<cmp_ipp_attr>& entries() const { return m_entries; }
    void appendTo(cmp_ipp_attrs& group) const;

private:
    std::vector<cmp_ipp_attr> m_entries;
};

// Appends a copy (never replaces): groups keep attributes in building order.
void append(cmp_ipp_attrs& group, const cmp_ipp_attr& attr);

// One top-level attribute of a group: a plain attribute, or a collection with
// all its markers and further collection values.
struct Span {
    int32_t first;
    int32_t last;  // one past the end
    std::string name;
};
std::vector<Span> topLevel(const cmp_ipp_attrs& group);
std::vector<Span> topLevel(const std::vector<cmp_ipp_attr>& list);
// The first top-level attribute of that name (collections: their begCollection).
const cmp_ipp_attr* findTop(const cmp_ipp_attrs& group, const char* name);
void copySpan(const cmp_ipp_attrs& from, const Span& span, cmp_ipp_attrs& to);

// The top-level attributes of a group in wire form, one after the other, each
// with its name and byte range: a reply takes any of them, in order, by copying
// bytes instead of building and encoding attribute objects.
class EncodedAttrs {
public:
    struct Entry {
        std::string name;
        int32_t first;  // index of its first entry in the group it was made from
        uint32_t offset;
        uint32_t length;
    };

    EncodedAttrs() = default;
    // Encodes copies: encoding fills in name lengths, and the group may be read
    // by other threads meanwhile.
    explicit EncodedAttrs(const cmp_ipp_attrs& group);

    size_t size() const { return m_entries.size(); }
    const Entry& operator[](size_t i) const { return m_entries[i]; }
    const unsigned char* bytes() const { return m_bytes.data(); }
    // Entry indexes of that name, in group order, as [*begin, *end).
    void named(std::string_view name, const uint32_t** begin, const uint32_t** end) const;
    // The first entry of that name, or -1.
    int32_t indexOf(std::string_view name) const;
    // Total length of the entries whose flag is set.
    uint32_t selectedLength(const std::vector<uint8_t>& selected) const;
    // Appends the bytes of the entries whose flag is set, in order.
    void appendSelected(const std::vector<uint8_t>& selected, cmp_ipp_buf& out) const;

private:
    std::vector<unsigned char> m_bytes;
    std::vector<Entry> m_entries;
    std::vector<uint32_t> m_byName;  // entry indexes by name, then by position
};

std::string textOf(const cmp_ipp_attr& attr, int32_t i = 0);
// The same text without a copy; valid while the attribute is unchanged.
std::string_view textViewOf(const cmp_ipp_attr& attr, int32_t i = 0);
int32_t wordOf(const cmp_ipp_attr& attr, int32_t i = 0);
bool isTextTag(int32_t tag);

}  // namespace attrs
}  // namespace refprinter

#endif
