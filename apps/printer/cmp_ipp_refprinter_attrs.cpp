#include "cmp_ipp_refprinter_attrs.h"

#include <algorithm>
#include <cstring>

namespace refprinter {
namespace attrs {

namespace {

// A dictionary without the name still gets the attribute onto the wire under
// its own name.
void nameIt(cmp_ipp_attr& a, const char* name) {
    if (a.m_nameId == 0) a.setName(name, static_cast<int32_t>(std::strlen(name)));
}

uint16_t idOf(const char* name) { return cmp_ipp_attr::cmp_ipp_attr_name_to_id(name); }

// Groups and plain lists of attributes, walked alike.
int32_t countOf(const cmp_ipp_attrs& g) { return g.count(); }
int32_t countOf(const std::vector<cmp_ipp_attr>& v) { return static_cast<int32_t>(v.size()); }
const cmp_ipp_attr& at(const cmp_ipp_attrs& g, int32_t i) { return g[i]; }
const cmp_ipp_attr& at(const std::vector<cmp_ipp_attr>& v, int32_t i) { return v[static_cast<size_t>(i)]; }

// Index after the endCollection that closes the begCollection at i.
template <typename List>
int32_t skipCollection(const List& g, int32_t i) {
    int32_t depth = 0;
    for (int32_t j = i; j < countOf(g); ++j) {
        if (at(g, j).m_type == CMP_IPP_TAG_BEGIN_COLLECTION) ++depth;
        if (at(g, j).m_type == CMP_IPP_TAG_END_COLLECTION && --depth == 0) return j + 1;
    }
    return countOf(g);
}

bool unnamed(const cmp_ipp_attr& a) { return a.cmp_ipp_attr_get_name()[0] == '\0'; }

}  // namespace

cmp_ipp_attr named(int16_t tag, const char* name) {
    cmp_ipp_attr a(tag, idOf(name));
    nameIt(a, name);
    return a;
}

cmp_ipp_attr texts(int16_t tag, const char* name, const std::vector<std::string>& values) {
    cmp_ipp_attr a = named(tag, name);
    for (const std::string& v : values) a.cmp_ipp_attr_add_multi(cmp_ipp_attr(tag, 0, v.c_str()));
    return a;
}

cmp_ipp_attr text(int16_t tag, const char* name, const std::string& value) { return texts(tag, name, {value}); }

cmp_ipp_attr ints(int16_t tag, const char* name, const std::vector<int32_t>& values) {
    cmp_ipp_attr a = named(tag, name);
    for (int32_t v : values) a.cmp_ipp_attr_add_multi(cmp_ipp_attr(tag, 0, v));
    return a;
}

cmp_ipp_attr integer(const char* name, int32_t value) { return ints(CMP_IPP_TAG_INTEGER, name, {value}); }
cmp_ipp_attr enums(const char* name, const std::vector<int32_t>& values) {
    return ints(CMP_IPP_TAG_ENUM, name, values);
}
cmp_ipp_attr boolean(const char* name, bool value) { return ints(CMP_IPP_TAG_BOOLEAN, name, {value ? 1 : 0}); }

cmp_ipp_attr range(const char* name, int32_t lower, int32_t upper) {
    cmp_ipp_attr a(CMP_IPP_TAG_RANGE, idOf(name), lower, upper);
    nameIt(a, name);
    return a;
}

cmp_ipp_attr resolutions(const char* name, const std::vector<int32_t>& dpi) {
    cmp_ipp_attr a = named(CMP_IPP_TAG_RESOLUTION, name);
    const int32_t dotsPerInch = 3;
    for (int32_t d : dpi) a.cmp_ipp_attr_add_multi(cmp_ipp_attr(CMP_IPP_TAG_RESOLUTION, 0, d, d, dotsPerInch));
    return a;
}

int32_t kOctets(uint64_t octets) {
    // Without "+ 1023": a count near 2^64 would wrap to nothing.
    const uint64_t k = octets / 1024 + (octets % 1024 != 0 ? 1 : 0);
    return k > static_cast<uint64_t>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(k);
}

cmp_ipp_attr dateTime(const char* name, time_t when) {
    struct tm t;
    gmtime_r(&when, &t);
    const int year = t.tm_year + 1900;
    // RFC 2579 DateAndTime: year (2), month, day, hour, minutes, seconds,
    // deci-seconds, direction from UTC, hours and minutes from UTC.
    const unsigned char b[11] = {static_cast<unsigned char>(year >> 8),
                                 static_cast<unsigned char>(year),
                                 static_cast<unsigned char>(t.tm_mon + 1),
                                 static_cast<unsigned char>(t.tm_mday),
                                 static_cast<unsigned char>(t.tm_hour),
                                 static_cast<unsigned char>(t.tm_min),
                                 static_cast<unsigned char>(t.tm_sec > 60 ? 60 : t.tm_sec),
                                 0,
                                 '+',
                                 0,
                                 0};
    auto word = [&](int k, int n) {
        uint32_t w = 0;
        for (int i = 0; i < 4; ++i) w = (w << 8) | (i < n ? b[k + i] : 0u);
        return static_cast<int32_t>(w);
    };
    cmp_ipp_attr a(CMP_IPP_TAG_DATETIME, idOf(name), word(0, 4), word(4, 4), word(8, 3));
    nameIt(a, name);
    return a;
}

cmp_ipp_attr octets(const char* name, const std::vector<std::string>& values) {
    cmp_ipp_attr a = named(CMP_IPP_TAG_OCTETSTRING, name);
    for (const std::string& v : values) {
        a.cmp_ipp_attr_add_multi(cmp_ipp_attr(CMP_IPP_TAG_OCTETSTRING, 0,
                                              reinterpret_cast<const unsigned char*>(v.data()),
                                              static_cast<int16_t>(v.size())));
    }
    return a;
}

cmp_ipp_attr outOfBand(int16_t tag, const char* name) { return text(tag, name, ""); }

Collection& Collection::begin(const char* name) {
    if (name[0] == '\0') {
        m_entries.emplace_back(CMP_IPP_TAG_BEGIN_COLLECTION, 0);
    } else {
        m_entries.push_back(named(CMP_IPP_TAG_BEGIN_COLLECTION, name));
    }
    return *this;
}

Collection& Collection::end() {
    m_entries.emplace_back(CMP_IPP_TAG_END_COLLECTION, 0);
    return *this;
}

Collection& Collection::member(const char* name, const cmp_ipp_attr& value) {
    cmp_ipp_attr m = named(CMP_IPP_TAG_MEMBERNAME, name);
    m.m_memberType = value.m_type;
    m.m_strings = value.m_strings;
    m.m_longs = value.m_longs;
    m.m_bufs = value.m_bufs;
    m.m_numValues = value.m_numValues;
    m_entries.push_back(m);
    return *this;
}

Collection& Collection::keyword(const char* name, const char* value) {
    return member(name, cmp_ipp_attr(CMP_IPP_TAG_KEYWORD, 0, value));
}

Collection& Collection::integer(const char* name, int32_t value) {
    return member(name, cmp_ipp_attr(CMP_IPP_TAG_INTEGER, 0, value));
}

Collection& Collection::memberCollection(const char* name) {
    m_entries.push_back(named(CMP_IPP_TAG_MEMBERNAME, name));
    return *this;
}

void Collection::appendTo(cmp_ipp_attrs& group) const {
    for (const cmp_ipp_attr& a : m_entries) append(group, a);
}

void append(cmp_ipp_attrs& group, const cmp_ipp_attr& attr) { group.cmp_ipp_attrs_set_attr_by_name(&attr, false); }

namespace {

// Walks the top-level attributes of a group: calls visit(first, last) for each
// until it returns true; the index of the first entry of that one, or -1.
template <typename List, typename Visit>
int32_t walkTopLevel(const List& group, Visit visit) {
    int32_t i = 0;
    while (i < countOf(group)) {
        const cmp_ipp_attr& a = at(group, i);
        if (a.m_type == CMP_IPP_TAG_BEGIN_COLLECTION) {
            const int32_t first = i;
            i = skipCollection(group, i);
            // Further values of a 1setOf collection follow without a name.
            while (i < countOf(group) && at(group, i).m_type == CMP_IPP_TAG_BEGIN_COLLECTION &&
                   unnamed(at(group, i))) {
                i = skipCollection(group, i);
            }
            if (visit(first, i)) return first;
        } else if (a.m_type == CMP_IPP_TAG_END_COLLECTION || a.m_type == CMP_IPP_TAG_MEMBERNAME) {
            ++i;  // a stray marker belongs to no attribute
        } else {
            if (visit(i, i + 1)) return i;
            ++i;
        }
    }
    return -1;
}

// Orders entry indexes by their entry's name, against names looked up.
struct NameLess {
    const std::vector<EncodedAttrs::Entry>& entries;
    bool operator()(uint32_t a, std::string_view b) const { return std::string_view(entries[a].name) < b; }
    bool operator()(std::string_view a, uint32_t b) const { return a < std::string_view(entries[b].name); }
};

template <typename List>
std::vector<Span> spansOf(const List& list) {
    std::vector<Span> out;
    walkTopLevel(list, [&](int32_t first, int32_t last) {
        out.push_back(Span{first, last, at(list, first).cmp_ipp_attr_get_name()});
        return false;
    });
    return out;
}

}  // namespace

std::vector<Span> topLevel(const cmp_ipp_attrs& group) { return spansOf(group); }
std::vector<Span> topLevel(const std::vector<cmp_ipp_attr>& list) { return spansOf(list); }

const cmp_ipp_attr* findTop(const cmp_ipp_attrs& group, const char* name) {
    const int32_t i = walkTopLevel(
        group, [&](int32_t first, int32_t) { return std::strcmp(group[first].cmp_ipp_attr_get_name(), name) == 0; });
    return i < 0 ? nullptr : &group[i];
}

void copySpan(const cmp_ipp_attrs& from, const Span& span, cmp_ipp_attrs& to) {
    for (int32_t i = span.first; i < span.last; ++i) append(to, from[i]);
}

std::string textOf(const cmp_ipp_attr& attr, int32_t i) { return std::string(textViewOf(attr, i)); }

std::string_view textViewOf(const cmp_ipp_attr& attr, int32_t i) {
    if (i < 0 || i >= attr.m_numValues || 2 * i >= attr.m_strings.length()) return std::string_view();
    const cmp_ipp_string& s = attr.m_strings[2 * i];
    return std::string_view(s.c_str(), static_cast<size_t>(s.length()));
}

EncodedAttrs::EncodedAttrs(const cmp_ipp_attrs& group) {
    walkTopLevel(group, [&](int32_t first, int32_t last) {
        Entry e{group[first].cmp_ipp_attr_get_name(), first, static_cast<uint32_t>(m_bytes.size()), 0};
        for (int32_t i = first; i < last; ++i) {
            cmp_ipp_attr copy(group[i]);
            const int32_t length = copy.getByteLength();
            if (length <= 0) continue;  // no value: nothing goes on the wire
            cmp_ipp_buf wire(static_cast<uint32_t>(length), true);
            copy.getBytes(wire, 0);
            m_bytes.insert(m_bytes.end(), wire.data(), wire.data() + wire.length());
        }
        e.length = static_cast<uint32_t>(m_bytes.size()) - e.offset;
        m_entries.push_back(std::move(e));
        return false;
    });
    // Insertion sort: made once per attribute set, stable (equal names keep
    // their order) and small in code.
    m_byName.reserve(m_entries.size());
    for (size_t i = 0; i < m_entries.size(); ++i) {
        size_t at = m_byName.size();
        while (at > 0 && m_entries[i].name < m_entries[m_byName[at - 1]].name) --at;
        m_byName.insert(m_byName.begin() + static_cast<std::ptrdiff_t>(at), static_cast<uint32_t>(i));
    }
}

void EncodedAttrs::named(std::string_view name, const uint32_t** begin, const uint32_t** end) const {
    const auto range = std::equal_range(m_byName.begin(), m_byName.end(), name, NameLess{m_entries});
    *begin = m_byName.data() + (range.first - m_byName.begin());
    *end = m_byName.data() + (range.second - m_byName.begin());
}

int32_t EncodedAttrs::indexOf(std::string_view name) const {
    const uint32_t* begin = nullptr;
    const uint32_t* end = nullptr;
    named(name, &begin, &end);
    return begin == end ? -1 : static_cast<int32_t>(*begin);
}

uint32_t EncodedAttrs::selectedLength(const std::vector<uint8_t>& selected) const {
    uint32_t total = 0;
    for (size_t i = 0; i < m_entries.size() && i < selected.size(); ++i) {
        if (selected[i] != 0) total += m_entries[i].length;
    }
    return total;
}

void EncodedAttrs::appendSelected(const std::vector<uint8_t>& selected, cmp_ipp_buf& out) const {
    const size_t n = std::min(m_entries.size(), selected.size());
    size_t i = 0;
    while (i < n) {
        if (selected[i] == 0) {
            ++i;
            continue;
        }
        // Neighbouring entries are neighbouring bytes: one copy per run.
        const uint32_t offset = m_entries[i].offset;
        uint32_t length = 0;
        for (; i < n && selected[i] != 0; ++i) length += m_entries[i].length;
        out.append(m_bytes.data() + offset, length);
    }
}

int32_t wordOf(const cmp_ipp_attr& attr, int32_t i) {
    return (i >= 0 && i < attr.m_longs.length()) ? attr.m_longs[i] : 0;
}

bool isTextTag(int32_t tag) {
    return (tag >= CMP_IPP_TAG_TEXT && tag <= CMP_IPP_TAG_MIMETYPE) || tag == CMP_IPP_TAG_TEXTLANG ||
           tag == CMP_IPP_TAG_NAMELANG;
}

}  // namespace attrs
}  // namespace refprinter
