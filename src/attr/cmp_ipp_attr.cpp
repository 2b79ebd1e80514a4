#include "cmp_ipp_attr.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "attr/cmp_ipp_ipptable_index.h"
#include "containers/cmp_ipp_malloc.h"

const cmp_ipp_type_name_row_t cmp_ipp_attr_type_names[26] = {
    {0x10, "unsupported"},
    {0x11, "default"},
    {0x12, "unknown"},
    {0x13, "no-value"},
    {0x20, "reserved"},
    {0x21, "integer"},
    {0x22, "boolean"},
    {0x23, "enum"},
    {0x30, "octetString with an unspecified format"},
    {0x31, "dateTime"},
    {0x32, "resolution"},
    {0x33, "rangeOfInteger"},
    {0x35, "textWithLanguage"},
    {0x36, "nameWithLanguage"},
    {0x41, "text"},
    {0x42, "name"},
    {0x44, "keyword"},
    {0x45, "uri"},
    {0x46, "uriScheme"},
    {0x47, "charset"},
    {0x48, "naturalLanguage"},
    {0x49, "mimeMediaType"},
    {0x34, "begCollection "},
    {0x37, "endCollection"},
    {0x4A, "memberAttrName "},
    {0x50, "octet 32k"},
};

const char* cmp_ipp_attr_type_name(int tag) {
    for (const cmp_ipp_type_name_row_t& row : cmp_ipp_attr_type_names) {
        if (row.tag == tag) return row.name;
    }
    return "unknown";
}

namespace {

// Words per value for tags 0x21 to 0x33.
const int8_t kLongsPerValue[19] = {
    1, 1, 1,                                // 0x21 integer, 0x22 boolean, 0x23 enum
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // 0x24 to 0x30
    3, 3,                                   // 0x31 dateTime, 0x32 resolution
    2,                                      // 0x33 rangeOfInteger
};

// Parts of X:Y:U or L:H longer than this give zero words.
const size_t kMaxNumberChars = 10;

int32_t toNumber(const char* begin, size_t len) {
    char part[kMaxNumberChars + 1];
    std::memcpy(part, begin, len);
    part[len] = '\0';
    // Saturate as the 32-bit target's strtol does, so every host agrees.
    long long v = std::strtoll(part, nullptr, 10);
    if (v > INT32_MAX) return INT32_MAX;
    if (v < INT32_MIN) return INT32_MIN;
    return static_cast<int32_t>(v);
}

// Splits text at colons into exactly parts numbers; false when the form does not hold.
bool splitNumbers(const char* text, int parts, int32_t* out) {
    if (text == nullptr) return false;
    const char* begin = text;
    for (int i = 0; i < parts; ++i) {
        const char* end = (i + 1 < parts) ? std::strchr(begin, ':') : begin + std::strlen(begin);
        if (end == nullptr) return false;
        size_t len = static_cast<size_t>(end - begin);
        if (len > kMaxNumberChars) return false;
        out[i] = toNumber(begin, len);
        begin = end + 1;
    }
    return true;
}

}  // namespace

cmp_ipp_attr::cmp_ipp_attr() noexcept
    : m_type(0), m_nameId(0), m_nameLength(0), m_numValues(0), m_name(nullptr), m_memberType(0) {}

cmp_ipp_attr::cmp_ipp_attr(const cmp_ipp_attr& other) : cmp_ipp_attr() { *this = other; }

cmp_ipp_attr::cmp_ipp_attr(cmp_ipp_attr&& other) noexcept : cmp_ipp_attr() { *this = std::move(other); }

cmp_ipp_attr& cmp_ipp_attr::operator=(cmp_ipp_attr&& other) noexcept {
    if (this == &other) return *this;
    freeName();
    m_type = other.m_type;
    m_nameId = other.m_nameId;
    m_nameLength = other.m_nameLength;
    m_name = other.m_name;
    m_numValues = other.m_numValues;
    m_strings = std::move(other.m_strings);
    m_bufs = std::move(other.m_bufs);
    m_longs = std::move(other.m_longs);
    m_memberType = other.m_memberType;
    other.m_name = nullptr;
    other.clearFields();
    return *this;
}

void cmp_ipp_attr::clearFields() {
    m_type = 0;
    m_nameId = 0;
    m_nameLength = 0;
    m_numValues = 0;
    m_memberType = 0;
}

cmp_ipp_attr::cmp_ipp_attr(int16_t type, uint16_t id) : cmp_ipp_attr() {
    m_type = type;
    setNameId(id);
}

cmp_ipp_attr::cmp_ipp_attr(int16_t type, uint16_t id, int32_t a, int32_t b, int32_t c)
    : cmp_ipp_attr(type, id) {
    int words = longsPerValue();
    m_longs.append(a);
    if (words > 1) m_longs.append(b);
    if (words > 2) m_longs.append(c);
    m_numValues = 1;
}

cmp_ipp_attr::cmp_ipp_attr(int16_t type, uint16_t id, const char* text) : cmp_ipp_attr(type, id) {
    addStringPair(text, nullptr);
    m_numValues = 1;
}

cmp_ipp_attr::cmp_ipp_attr(int16_t type, uint16_t id, const char* text, const char* language)
    : cmp_ipp_attr(type, id) {
    addStringPair(text, language);
    m_numValues = 1;
}

cmp_ipp_attr::cmp_ipp_attr(int16_t type, uint16_t id, const char* name, int32_t nameLength, const char* text)
    : cmp_ipp_attr(type, id) {
    setName(name, nameLength);
    addStringPair(text, nullptr);
    m_numValues = 1;
}

cmp_ipp_attr::cmp_ipp_attr(int16_t type, uint16_t id, const cmp_ipp_buf& value) : cmp_ipp_attr(type, id) {
    m_bufs.appendSlot() = value;
    m_numValues = 1;
}

cmp_ipp_attr::cmp_ipp_attr(int16_t type, uint16_t id, const unsigned char* bytes, int16_t length)
    : cmp_ipp_attr(type, id) {
    cmp_ipp_buf& slot = m_bufs.appendSlot();
    slot.resize(0);
    if (length > 0) slot.append(bytes, static_cast<uint32_t>(length));
    m_numValues = 1;
}

cmp_ipp_attr::cmp_ipp_attr(int16_t type, uint16_t id, void* value, int32_t length) : cmp_ipp_attr(type, id) {
    switch (type) {
    case CMP_IPP_TAG_INTEGER:
    case CMP_IPP_TAG_BOOLEAN:
    case CMP_IPP_TAG_ENUM:
        m_longs.append(static_cast<int32_t>(reinterpret_cast<intptr_t>(value)));
        break;
    case CMP_IPP_TAG_OCTETSTRING:
    case CMP_IPP_TAG_OCTET32K: {
        cmp_ipp_buf& slot = m_bufs.appendSlot();
        slot.resize(0);
        if (value != nullptr && length > 0) slot.append(static_cast<const unsigned char*>(value), static_cast<uint32_t>(length));
        break;
    }
    case CMP_IPP_TAG_RESOLUTION: {
        int32_t w[3] = {0, 0, 0};
        if (!splitNumbers(static_cast<const char*>(value), 3, w)) w[0] = w[1] = w[2] = 0;
        m_longs.append(w[0]);
        m_longs.append(w[1]);
        m_longs.append(w[2]);
        break;
    }
    case CMP_IPP_TAG_RANGE: {
        int32_t w[2] = {0, 0};
        if (!splitNumbers(static_cast<const char*>(value), 2, w)) w[0] = w[1] = 0;
        m_longs.append(w[0]);
        m_longs.append(w[1]);
        break;
    }
    case CMP_IPP_TAG_DATETIME: {
        // The value is the 11-byte wire form; anything else gives a zero date, so
        // readers always find the three words they expect.
        unsigned char b[12] = {0};
        if (value != nullptr && length == 11) std::memcpy(b, value, 11);
        for (int i = 0; i < 3; ++i) {
            uint32_t w = (static_cast<uint32_t>(b[4 * i]) << 24) | (static_cast<uint32_t>(b[4 * i + 1]) << 16) |
                         (static_cast<uint32_t>(b[4 * i + 2]) << 8) | b[4 * i + 3];
            m_longs.append(static_cast<int32_t>(w));
        }
        break;
    }
    default:
        addStringPair(static_cast<const char*>(value), nullptr);
        break;
    }
    m_numValues = 1;
}

cmp_ipp_attr::~cmp_ipp_attr() { freeName(); }

void cmp_ipp_attr::freeName() {
    cmp_ipp_free(m_name);
    m_name = nullptr;
}

void cmp_ipp_attr::addStringPair(const char* text, const char* language) {
    m_strings.appendSlot().assignBytes(text, -1);
    m_strings.appendSlot().assignBytes(language, -1);
}

cmp_ipp_attr& cmp_ipp_attr::operator=(const cmp_ipp_attr& other) {
    if (this == &other) return *this;
    m_nameId = other.m_nameId;
    m_nameLength = other.m_nameLength;
    m_numValues = other.m_numValues;
    m_strings = other.m_strings;
    m_bufs = other.m_bufs;
    m_longs = other.m_longs;
    m_type = other.m_type;
    m_memberType = other.m_memberType;
    freeName();
    if (other.m_name != nullptr && m_nameLength > 0) {
        m_name = static_cast<char*>(cmp_ipp_malloc(static_cast<uint32_t>(m_nameLength) + 1));
        std::memcpy(m_name, other.m_name, static_cast<size_t>(m_nameLength));
        m_name[m_nameLength] = '\0';
    }
    return *this;
}

int cmp_ipp_attr::longsPerValueForType(int16_t type) {
    if (type < CMP_IPP_TAG_INTEGER || type > CMP_IPP_TAG_RANGE) return 0;
    return kLongsPerValue[type - CMP_IPP_TAG_INTEGER];
}

int cmp_ipp_attr::longsPerValue() const {
    int32_t tag = (m_type == CMP_IPP_TAG_MEMBERNAME) ? m_memberType : m_type;
    if (tag < CMP_IPP_TAG_INTEGER || tag > CMP_IPP_TAG_RANGE) return 0;
    return longsPerValueForType(static_cast<int16_t>(tag));
}

void cmp_ipp_attr::reset() {
    m_numValues = 0;
    m_strings.clear();
    m_bufs.clear();
    m_longs.clear();
    freeName();
    m_memberType = 0;
}

void cmp_ipp_attr::setName(const char* src, int32_t len) {
    freeName();
    if (len > 0) {
        m_name = static_cast<char*>(cmp_ipp_malloc(static_cast<uint32_t>(len) + 1));
        std::memset(m_name, 0, static_cast<size_t>(len) + 1);
        if (src != nullptr) {
            for (int32_t i = 0; i < len && src[i] != '\0'; ++i) m_name[i] = src[i];
        }
    }
    m_nameLength = len;
}

const char* cmp_ipp_attr::cmp_ipp_attr_get_name() const {
    if (m_name != nullptr) return m_name;
    return cmp_ipp_attr_id_to_name(m_nameId, nullptr);
}

// ---- registry lookups: first matching row, through the registry's index ----

uint16_t cmp_ipp_attr::cmp_ipp_attr_name_to_id(const char* name) {
    if (name == nullptr) return 0;
    const cmp_ipp_attr_row_t* row = cmp_ipp_registry::attrByName(name, std::strlen(name));
    return row != nullptr ? row->id : 0;
}

const char* cmp_ipp_attr::cmp_ipp_attr_id_to_name(uint16_t id, int16_t* type) {
    const cmp_ipp_attr_row_t* row = cmp_ipp_registry::attrById(id);
    if (row == nullptr) return "";
    if (type != nullptr) *type = row->valueTag;
    return row->name != nullptr ? row->name : "";
}

int16_t cmp_ipp_attr::nameIdToType(uint16_t id) {
    const cmp_ipp_attr_row_t* row = cmp_ipp_registry::attrById(id);
    return row != nullptr ? row->valueTag : 0;
}

int16_t cmp_ipp_attr::nameIdToAlternateType(uint16_t id) {
    const cmp_ipp_alt_type_row_t* row = cmp_ipp_registry::altTypeById(id);
    return row != nullptr ? row->altTag : 0;
}

bool cmp_ipp_attr::nameIdIsOneSetOf(uint16_t id) { return cmp_ipp_registry::isOneSetOf(id); }

bool cmp_ipp_attr::getNameIdMinMax(uint16_t id, int type, int32_t* min, int32_t* max) {
    if (const cmp_ipp_attr_row_t* row = cmp_ipp_registry::attrByIdTag(id, type)) {
        *min = row->min;
        *max = row->max;
        return true;
    }
    int32_t lo = 0, hi = 0;
    switch (type) {
    case 0x10: case 0x12: case 0x13: case 0x34: case 0x37: case 0x4A:
        lo = 0; hi = 0; break;
    case 0x21: case 0x33:
        lo = INT32_MIN; hi = INT32_MAX; break;
    case 0x22:
        lo = 0; hi = 1; break;
    case 0x23:
        lo = 1; hi = INT32_MAX; break;
    case 0x30: case 0x35: case 0x41: case 0x45:
        lo = 0; hi = 1023; break;
    case 0x31:
        lo = 11; hi = 11; break;
    case 0x32:
        lo = 10; hi = 10; break;
    case 0x36: case 0x42:
        lo = 0; hi = 255; break;
    case 0x44:
        lo = 1; hi = 255; break;
    case 0x46: case 0x47: case 0x48: case 0x49:
        lo = 0; hi = 63; break;
    default:
        return false;  // no default range: outputs untouched
    }
    *min = lo;
    *max = hi;
    return false;
}
