// Operations on the values of one attribute: merging an additional value,
// membership tests, the registry range check, lower-casing and tag classes.
#include <cctype>
#include <cstring>

#include "attr/cmp_ipp_attr.h"
#include "platform/cmp_dbglog.h"

namespace {

const int kStatusTooSmall = 0x34;
const int kStatusTooLong = 0x35;
// A natural language tag longer than this is refused in WithLanguage values.
const int32_t kMaxLanguageLength = 63;
// octet 32k has no default range in the registry: at most what one value-length carries.
const int32_t kOctet32kMax = 0x7FFF;

}  // namespace

int32_t cmp_ipp_attr::textLength(const cmp_ipp_string* s) {
    if (s == nullptr || s->data() == nullptr || s->length() <= 0) return 0;
    return static_cast<int32_t>(strnlen(s->data(), static_cast<size_t>(s->length())));
}

void cmp_ipp_attr::cmp_ipp_attr_add_multi(const cmp_ipp_attr& other) {
    if (&other == this) {
        // Appending may move the stores that other's value is read from.
        const cmp_ipp_attr copy(other);
        cmp_ipp_attr_add_multi(copy);
        return;
    }
    int32_t tag;
    if (m_type == CMP_IPP_TAG_MEMBERNAME) {
        if (m_numValues == 0) {
            m_memberType = other.m_type;
        } else if (other.m_type != m_memberType) {
            orvane::cmp_dbglog::tracer(
                0, "[ERROR ]:cmp_ipp_ippattr::%s(%d): cmp_ipp_attr_add_multi wrong type is 0x%x, should be 0x%x.\n",
                "cmp_ipp_attr_add_multi", 1436, static_cast<unsigned>(other.m_type), static_cast<unsigned>(m_memberType));
            return;
        }
        tag = m_memberType;
    } else {
        if (other.m_type != m_type) {
            orvane::cmp_dbglog::tracer(
                0, "[ERROR ]:cmp_ipp_ippattr::%s(%d): cmp_ipp_attr_add_multi wrong type is 0x%x, should be 0x%x.\n",
                "cmp_ipp_attr_add_multi", 1445, static_cast<unsigned>(other.m_type), static_cast<unsigned>(m_type));
            return;
        }
        tag = m_type;
    }

    // A first value that other does not hold is added as 0 or as an empty value,
    // so exactly one value is added in every case.
    switch (tag) {
    case CMP_IPP_TAG_INTEGER:
    case CMP_IPP_TAG_BOOLEAN:
    case CMP_IPP_TAG_ENUM:
    case CMP_IPP_TAG_DATETIME:
    case CMP_IPP_TAG_RESOLUTION:
    case CMP_IPP_TAG_RANGE: {
        const int words = longsPerValueForType(static_cast<int16_t>(tag));
        for (int k = 0; k < words; ++k) m_longs.append(other.wordAt(k));
        break;
    }
    case CMP_IPP_TAG_OCTETSTRING:
    case CMP_IPP_TAG_OCTET32K: {
        cmp_ipp_buf& slot = m_bufs.appendSlot();
        const cmp_ipp_buf* first = other.bufAt(0);
        if (first != nullptr) {
            slot = *first;
        } else {
            slot.resize(0);
        }
        break;
    }
    default: {
        const cmp_ipp_string* first = other.stringAt(0);
        if (first != nullptr && first->length() != 0) {
            m_strings.appendSlot() = *first;
        } else {
            m_strings.appendSlot().assignBytes(nullptr, -1);
        }
        m_strings.appendSlot().assignBytes(nullptr, -1);
        break;
    }
    }
    ++m_numValues;
}

int cmp_ipp_attr::cmp_ipp_attr_contains_value_of(int32_t value) const {
    if (m_type != CMP_IPP_TAG_INTEGER && m_type != CMP_IPP_TAG_BOOLEAN && m_type != CMP_IPP_TAG_ENUM) return 0;
    for (int32_t i = 0; i < m_numValues && i < m_longs.length(); ++i) {
        if (m_longs[i] == value) return 1;
    }
    return 0;
}

int cmp_ipp_attr::cmp_ipp_attr_contains_value_of(const char* text) const {
    if (!cmp_ipp_attr_is_string_type()) return 0;
    for (int32_t i = 0; i < m_numValues && 2 * i < m_strings.length(); ++i) {
        if (m_strings[2 * i].isEqualTo(text, -1)) return 1;
    }
    return 0;
}

int cmp_ipp_attr::cmp_ipp_attr_contains_value_of(const cmp_ipp_attr& other) const {
    switch (m_type) {
    case CMP_IPP_TAG_ENUM:
        if (other.m_type != CMP_IPP_TAG_ENUM || other.m_longs.length() < 1) return 0;
        return cmp_ipp_attr_contains_value_of(other.m_longs[0]);
    case CMP_IPP_TAG_RESOLUTION:
        if (other.m_type != CMP_IPP_TAG_RESOLUTION || other.m_longs.length() < 3) return 0;
        for (int32_t i = 0; i < m_numValues && 3 * i + 2 < m_longs.length(); ++i) {
            if (m_longs[3 * i] == other.m_longs[0] && m_longs[3 * i + 1] == other.m_longs[1] &&
                m_longs[3 * i + 2] == other.m_longs[2]) {
                return 1;
            }
        }
        return 0;
    case CMP_IPP_TAG_RANGE: {
        int32_t lower;
        int32_t upper;
        if (other.m_type == CMP_IPP_TAG_RANGE && other.m_longs.length() >= 2) {
            lower = other.m_longs[0];
            upper = other.m_longs[1];
        } else if (other.m_type == CMP_IPP_TAG_INTEGER && other.m_longs.length() >= 1) {
            lower = upper = other.m_longs[0];
        } else {
            return 0;
        }
        for (int32_t i = 0; i < m_numValues && 2 * i + 1 < m_longs.length(); ++i) {
            if (m_longs[2 * i] <= lower && upper <= m_longs[2 * i + 1]) return 1;
        }
        return 0;
    }
    case CMP_IPP_TAG_KEYWORD:
    case CMP_IPP_TAG_URISCHEME:
    case CMP_IPP_TAG_CHARSET:
    case CMP_IPP_TAG_LANGUAGE:
    case CMP_IPP_TAG_MIMETYPE: {
        const cmp_ipp_string* wanted = other.stringAt(0);
        if (other.m_type != m_type || wanted == nullptr) return 0;
        for (int32_t i = 0; i < m_numValues && 2 * i < m_strings.length(); ++i) {
            if (m_strings[2 * i].isEqualTo(wanted->data(), wanted->length())) return 1;
        }
        return 0;
    }
    default:
        return 1;
    }
}

int cmp_ipp_attr::cmp_ipp_attr_validate_attr_range() const {
    int32_t min = 0;
    int32_t max = (m_type == CMP_IPP_TAG_OCTET32K) ? kOctet32kMax : 0;
    getNameIdMinMax(m_nameId, m_type, &min, &max);
    const bool hasValue = m_numValues > 0;

    switch (m_type) {
    case CMP_IPP_TAG_INTEGER:
    case CMP_IPP_TAG_BOOLEAN:
    case CMP_IPP_TAG_ENUM: {
        const int32_t v = hasValue ? wordAt(0) : 0;
        return (v < min || v > max) ? kStatusTooSmall : 0;
    }
    case CMP_IPP_TAG_RANGE: {
        const int32_t lower = hasValue ? wordAt(0) : 0;
        const int32_t upper = hasValue ? wordAt(1) : 0;
        return (lower < min || lower > max || upper < min || upper > max) ? kStatusTooSmall : 0;
    }
    case CMP_IPP_TAG_TEXTLANG:
    case CMP_IPP_TAG_NAMELANG: {
        const int32_t text = hasValue ? textLength(stringAt(0)) : 0;
        const int32_t language = hasValue ? textLength(stringAt(1)) : 0;
        if (text < min || language < 0) return kStatusTooSmall;
        if (text > max || language > kMaxLanguageLength) return kStatusTooLong;
        return 0;
    }
    case CMP_IPP_TAG_OCTETSTRING:
    case CMP_IPP_TAG_OCTET32K: {
        // Octet values live in the buffers, not in the strings.
        const cmp_ipp_buf* first = hasValue ? bufAt(0) : nullptr;
        const int64_t length = first != nullptr ? first->length() : 0;
        if (length < min) return kStatusTooSmall;
        return length > max ? kStatusTooLong : 0;
    }
    case CMP_IPP_TAG_TEXT:
    case CMP_IPP_TAG_NAME:
    case CMP_IPP_TAG_KEYWORD:
    case CMP_IPP_TAG_URI:
    case CMP_IPP_TAG_URISCHEME:
    case CMP_IPP_TAG_CHARSET:
    case CMP_IPP_TAG_LANGUAGE:
    case CMP_IPP_TAG_MIMETYPE: {
        const int32_t length = hasValue ? textLength(stringAt(0)) : 0;
        if (length < min) return kStatusTooSmall;
        return length > max ? kStatusTooLong : 0;
    }
    default:
        return 0;
    }
}

void cmp_ipp_attr::toLower() {
    if (m_strings.length() < 1 || m_strings[0].length() == 0 || m_strings[0].data() == nullptr) return;
    // The strings own their texts, so changing them in place is safe and saves a copy.
    _strlwr(const_cast<char*>(m_strings[0].data()));
    if (m_strings.length() >= 2 && m_strings[1].length() != 0 && m_strings[1].data() != nullptr) {
        _strlwr(const_cast<char*>(m_strings[1].data()));
    }
}

char* cmp_ipp_attr::_strlwr(char* text) {
    if (text == nullptr) return nullptr;
    for (char* p = text; *p != '\0'; ++p) {
        const int c = static_cast<unsigned char>(*p);
        if (std::isupper(c)) *p = static_cast<char>(std::tolower(c));
    }
    return text;
}

int cmp_ipp_attr::cmp_ipp_attr_is_string_type(int16_t type) {
    return (type >= CMP_IPP_TAG_TEXT && type <= CMP_IPP_TAG_MEMBERNAME) ? 1 : 0;
}

int cmp_ipp_attr::cmp_ipp_attr_is_string_type() const {
    return cmp_ipp_attr_is_string_type(static_cast<int16_t>(m_type));
}

int cmp_ipp_attr::cmp_ipp_attr_is_col_type(int type) {
    return (type == CMP_IPP_TAG_BEGIN_COLLECTION || type == CMP_IPP_TAG_END_COLLECTION ||
            type == CMP_IPP_TAG_MEMBERNAME)
               ? 1
               : 0;
}

int cmp_ipp_attr::cmp_ipp_attr_is_col_type() const { return cmp_ipp_attr_is_col_type(m_type); }
