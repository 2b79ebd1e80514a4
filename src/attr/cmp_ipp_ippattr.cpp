// Wire codec of one IPP attribute (RFC 8010 attribute-with-one-value followed by
// additional-value fields): Create reads it, getByteLength/getBytes write it.
#include <cstring>
#include <utility>

#include "attr/cmp_ipp_attr.h"
#include "attr/cmp_ipp_ipptable_index.h"
#include "platform/cmp_dbglog.h"

namespace {

const uint16_t kStatusBadRequest = 0x0400;
const uint16_t kStatusValueTooLong = 0x0409;

const int kTraceError = 0;
const char kCreate[] = "Create";

const char kWrongLengthMsg[] = "[ERROR ]:cmp_ipp_ippattr::%s(%d): Attr:%s wrong value length for %d for type %d.\n";

bool isDelimiter(int tag) { return (tag & 0xF0) == 0; }

// Reads through the buffer's getters at 64-bit positions: a position the
// getters cannot address is simply "not there", like any byte past the data.
class WireReader {
public:
    explicit WireReader(cmp_ipp_buf& buf) : m_buf(buf) {}

    int byteAt(int64_t pos) { return fits(pos, 1) ? m_buf.getByteAt(static_cast<uint32_t>(pos)) : 0; }
    int16_t shortAt(int64_t pos) { return fits(pos, 2) ? m_buf.getShortAt(static_cast<uint32_t>(pos)) : 0; }
    int32_t intAt(int64_t pos) { return fits(pos, 4) ? m_buf.getIntAt(static_cast<uint32_t>(pos)) : 0; }
    cmp_ipp_string stringAt(int64_t pos, int32_t len) {
        if (len <= 0 || !fits(pos, len)) return cmp_ipp_string();
        return m_buf.getStringAt(static_cast<uint32_t>(pos), len);
    }
    // What stringAt would hold, in place: null where stringAt gives an unset
    // string. Valid until the next read that may pull more data.
    const char* textAt(int64_t pos, int32_t len) {
        if (len <= 0 || !fits(pos, len)) return nullptr;
        return reinterpret_cast<const char*>(m_buf.getBytesAt(static_cast<uint32_t>(pos), len));
    }
    // The len bytes at pos straight from the block, or null when they are not all
    // there even after one more piece from the port.
    const unsigned char* bytesAt(int64_t pos, int32_t len) {
        if (len < 0 || !fits(pos, len)) return nullptr;
        uint64_t end = static_cast<uint64_t>(pos) + static_cast<uint64_t>(len);
        if (end > m_buf.length()) m_buf.getMoreDataFromPort();
        if (end > m_buf.length()) return nullptr;
        return m_buf.data() + pos;
    }

private:
    static bool fits(int64_t pos, int64_t len) { return pos >= 0 && pos + len <= static_cast<int64_t>(UINT32_MAX); }

    cmp_ipp_buf& m_buf;
};

// The identifier of the wire name of len bytes at name (null: a name that is
// not there, looked up as ""). Registered names hold no zero byte, so a wire
// name with one is never the registered name that its first characters spell.
uint16_t lookUpName(const char* name, int32_t len) {
    if (name == nullptr) len = 0;
    if (len > 0 && std::memchr(name, 0, static_cast<size_t>(len)) != nullptr) return 0;
    const cmp_ipp_attr_row_t* row = cmp_ipp_registry::attrByName(len > 0 ? name : "", static_cast<size_t>(len));
    return row != nullptr ? row->id : 0;
}

// Collection markers always start an attribute of their own.
bool isMarker(int tag) { return cmp_ipp_attr::cmp_ipp_attr_is_col_type(tag) != 0; }

}  // namespace

cmp_ipp_attr* cmp_ipp_attr::Create(cmp_ipp_buf& buf, int32_t offset, uint16_t* status, int32_t* consumed) {
    cmp_ipp_attr read;
    if (!CreateIn(read, buf, offset, status, consumed)) return nullptr;
    return new cmp_ipp_attr(std::move(read));
}

bool cmp_ipp_attr::CreateIn(cmp_ipp_attr& out, cmp_ipp_buf& buf, int32_t offset, uint16_t* status,
                            int32_t* consumed) {
    uint16_t statusSink = 0;
    int32_t consumedSink = 0;
    if (status == nullptr) status = &statusSink;
    if (consumed == nullptr) consumed = &consumedSink;
    *status = kStatusBadRequest;
    *consumed = 0;
    if (offset < 0) return false;

    WireReader in(buf);
    int64_t count = 0;
    // Whether out holds this attribute yet: it is made anew at the first value.
    bool have = false;
    auto finish = [&](bool keep) -> bool {
        *consumed = count > INT32_MAX ? INT32_MAX : static_cast<int32_t>(count);
        return keep;
    };
    auto make = [&](cmp_ipp_attr&& fresh) {
        out = std::move(fresh);
        have = true;
    };

    const int firstTag = in.byteAt(offset);
    if (isDelimiter(firstTag)) return finish(false);

    const int16_t nameLength = in.shortAt(offset + 1);
    count = 3;
    if (nameLength < 0) {
        orvane::cmp_dbglog::tracer(kTraceError,
                                   "[ERROR ]:cmp_ipp_ippattr::%s(%d): Incorrect buffer contents. Name length < 0 %d.\n",
                                   kCreate, 216, nameLength);
        return finish(false);
    }
    // The wire name is read in place; it stays at offset + 3 however the buffer grows.
    const int64_t namePos = static_cast<int64_t>(offset) + 3;
    const char* name = in.textAt(namePos, nameLength);
    const bool haveName = name != nullptr;
    count += nameLength;
    uint16_t nameId = lookUpName(name, nameLength);
    const bool isSides = haveName && nameLength == 5 && std::memcmp(name, "sides", 5) == 0;
    auto wireName = [&]() -> const char* {
        return haveName ? reinterpret_cast<const char*>(buf.data()) + namePos : nullptr;
    };

    int curTag = firstTag;
    int32_t valueIndex = 0;
    int64_t valueLengthPos = static_cast<int64_t>(offset) + 3 + nameLength;

    for (;;) {
        const int16_t valueLength = in.shortAt(valueLengthPos);
        count += 2;
        if (valueLength < 0) {
            orvane::cmp_dbglog::tracer(
                kTraceError, "[ERROR ]:cmp_ipp_ippattr::%s(%d): Incorrect buffer contents. Value length < 0 %d.\n",
                kCreate, 258, valueLength);
            return finish(false);
        }
        count += valueLength;
        const int64_t valueStart = valueLengthPos + 2;

        switch (curTag) {
        case CMP_IPP_TAG_INTEGER:
        case CMP_IPP_TAG_ENUM:
        case CMP_IPP_TAG_BOOLEAN: {
            const bool isBool = curTag == CMP_IPP_TAG_BOOLEAN;
            if (valueLength != (isBool ? 1 : 4)) {
                const cmp_ipp_string shown(wireName(), haveName ? nameLength : 0);
                orvane::cmp_dbglog::tracer(kTraceError, kWrongLengthMsg, kCreate, isBool ? 328 : 273,
                                           shown.c_str(), valueLength, curTag);
                if (isBool) *status = kStatusValueTooLong;
                return finish(false);
            }
            const int32_t v = isBool ? in.byteAt(valueStart) : in.intAt(valueStart);
            if (!have) {
                make(cmp_ipp_attr(static_cast<int16_t>(curTag), nameId, v, 0, 0));
            } else {
                out.m_longs.append(v);
                ++out.m_numValues;
            }
            break;
        }
        case CMP_IPP_TAG_DATETIME:
        case CMP_IPP_TAG_RESOLUTION:
        case CMP_IPP_TAG_RANGE: {
            int32_t w[3] = {0, 0, 0};
            int words = 3;
            if (curTag == CMP_IPP_TAG_DATETIME) {
                if (valueLength != 11) {
                    orvane::cmp_dbglog::tracer(
                        kTraceError,
                        "[ERROR ]:cmp_ipp_ippattr::%s(%d): Wrong value length for %d for type %d (DateAndTime).\n",
                        kCreate, 364, valueLength, curTag);
                    return finish(false);
                }
                w[0] = in.intAt(valueStart);
                w[1] = in.intAt(valueStart + 4);
                // Bytes 8 to 10 in the upper three bytes; the low byte means nothing and stays 0.
                const uint32_t tail = (static_cast<uint32_t>(in.byteAt(valueStart + 8)) << 24) |
                                      (static_cast<uint32_t>(in.byteAt(valueStart + 9)) << 16) |
                                      (static_cast<uint32_t>(in.byteAt(valueStart + 10)) << 8);
                w[2] = static_cast<int32_t>(tail);
            } else if (curTag == CMP_IPP_TAG_RESOLUTION) {
                if (valueLength != 9) {
                    orvane::cmp_dbglog::tracer(
                        kTraceError,
                        "[ERROR ]:cmp_ipp_ippattr::%s(%d): Wrong value length for %d for type %d (Resolution).\n",
                        kCreate, 385, valueLength, curTag);
                    return finish(false);
                }
                w[0] = in.intAt(valueStart);
                w[1] = in.intAt(valueStart + 4);
                w[2] = in.byteAt(valueStart + 8);
            } else {
                if (valueLength != 8) {
                    orvane::cmp_dbglog::tracer(
                        kTraceError,
                        "[ERROR ]:cmp_ipp_ippattr::%s(%d): Wrong value length for %d for type %d (Range_integer).\n",
                        kCreate, 406, valueLength, curTag);
                    return finish(false);
                }
                w[0] = in.intAt(valueStart);
                w[1] = in.intAt(valueStart + 4);
                words = 2;
            }
            if (!have) {
                make(cmp_ipp_attr(static_cast<int16_t>(curTag), nameId, w[0], w[1], w[2]));
            } else {
                for (int k = 0; k < words; ++k) out.m_longs.append(w[k]);
                ++out.m_numValues;
            }
            break;
        }
        case CMP_IPP_TAG_OCTETSTRING:
        case CMP_IPP_TAG_OCTET32K: {
            // Copied straight from the block, so every byte must be there: an
            // octet value that reaches past the data is refused, not padded.
            const unsigned char* bytes = in.bytesAt(valueStart, valueLength);
            if (bytes == nullptr) return finish(false);
            if (!have) {
                make(cmp_ipp_attr(static_cast<int16_t>(curTag), nameId, bytes, valueLength));
            } else {
                cmp_ipp_buf& slot = out.m_bufs.appendSlot();
                slot.resize(0);
                slot.append(bytes, static_cast<uint32_t>(valueLength));
                ++out.m_numValues;
            }
            break;
        }
        case CMP_IPP_TAG_UNSUPPORTED:
        case CMP_IPP_TAG_UNKNOWN:
        case CMP_IPP_TAG_NOVALUE:
        case CMP_IPP_TAG_TEXT:
        case CMP_IPP_TAG_NAME:
        case CMP_IPP_TAG_KEYWORD:
        case CMP_IPP_TAG_URI:
        case CMP_IPP_TAG_URISCHEME:
        case CMP_IPP_TAG_CHARSET:
        case CMP_IPP_TAG_LANGUAGE:
        case CMP_IPP_TAG_MIMETYPE: {
            cmp_ipp_string text = in.stringAt(valueStart, valueLength);
            // Clients send sides as a name; it is a keyword.
            if (isSides && curTag == CMP_IPP_TAG_NAME) curTag = CMP_IPP_TAG_KEYWORD;
            if (!have) make(cmp_ipp_attr(static_cast<int16_t>(curTag), nameId));
            out.m_strings.appendSlot() = std::move(text);
            out.m_strings.appendSlot().assignBytes(nullptr, -1);
            ++out.m_numValues;
            break;
        }
        case CMP_IPP_TAG_TEXTLANG:
        case CMP_IPP_TAG_NAMELANG: {
            // The inner fields are read inside the value only, so a value whose
            // inner lengths disagree with its length never takes bytes of the
            // next field and is never written back longer than it came.
            int32_t room = valueLength;
            const int16_t languageLength = room >= 2 ? in.shortAt(valueStart) : 0;
            room -= 2;
            int32_t take = languageLength < 0 ? 0 : (languageLength > room ? (room < 0 ? 0 : room) : languageLength);
            cmp_ipp_string language = in.stringAt(valueStart + 2, take);
            room -= take;
            const int64_t textLengthPos = valueStart + 2 + take;
            const int16_t textLength = room >= 2 ? in.shortAt(textLengthPos) : 0;
            room -= 2;
            take = textLength < 0 ? 0 : (textLength > room ? (room < 0 ? 0 : room) : textLength);
            cmp_ipp_string text = in.stringAt(textLengthPos + 2, take);
            if (valueLength != languageLength + textLength + 4) {
                orvane::cmp_dbglog::tracer(kTraceError,
                                           "[ERROR ]:cmp_ipp_ippattr::%s(%d): Wrong bi-valued attribute encoding at %d.\n",
                                           kCreate, 458, offset);
            }
            if (!have) make(cmp_ipp_attr(static_cast<int16_t>(curTag), nameId));
            out.m_strings.appendSlot() = std::move(text);
            out.m_strings.appendSlot() = std::move(language);
            ++out.m_numValues;
            break;
        }
        case CMP_IPP_TAG_BEGIN_COLLECTION:
        case CMP_IPP_TAG_END_COLLECTION:
            if (valueIndex == 0) {
                make(cmp_ipp_attr(static_cast<int16_t>(curTag), nameId));
            } else if (curTag == CMP_IPP_TAG_BEGIN_COLLECTION) {
                orvane::cmp_dbglog::tracer(kTraceError,
                                           "[ERROR ]:cmp_ipp_ippattr::%s(%d): wrong begin-col order: valueIndex[%d] .\n",
                                           kCreate, 471, valueIndex);
            } else {
                orvane::cmp_dbglog::tracer(kTraceError,
                                           "[ERROR ]:cmp_ipp_ippattr::%s(%d): wrong end-col order: valueIndex[%d] .\n",
                                           kCreate, 500, valueIndex);
            }
            break;
        case CMP_IPP_TAG_MEMBERNAME: {
            const char* member = in.textAt(valueStart, valueLength);
            nameId = lookUpName(member, valueLength);
            if (valueIndex == 0) {
                make(cmp_ipp_attr(CMP_IPP_TAG_MEMBERNAME, nameId));
                if (nameId == 0) out.setName(member, member != nullptr ? valueLength : 0);
            } else {
                orvane::cmp_dbglog::tracer(kTraceError,
                                           "[ERROR ]:cmp_ipp_ippattr::%s(%d): wrong member-attribute-name order: "
                                           "idx[%d], len[%d] nameId[%d] .\n",
                                           kCreate, 489, valueIndex, valueLength, nameId);
            }
            break;
        }
        default:
            orvane::cmp_dbglog::tracer(kTraceError, "[ERROR ]:cmp_ipp_ippattr::%s(%d): Unsupported value tag %d.\n",
                                       kCreate, 506, curTag);
            break;
        }

        ++valueIndex;
        const int64_t next = valueStart + valueLength;
        const int nextTag = in.byteAt(next);
        // A delimiter (or a missing byte, read as 0) always ends the attribute,
        // also for a member attribute, whose values may change tag.
        if (isDelimiter(nextTag)) break;
        if (nextTag != curTag && have && out.m_type != CMP_IPP_TAG_MEMBERNAME) break;
        if (isMarker(nextTag)) break;
        if (in.shortAt(next + 1) != 0) break;
        count += 3;
        if (have && out.m_type == CMP_IPP_TAG_MEMBERNAME && valueIndex == 1) {
            out.m_memberType = nextTag;
            curTag = nextTag;
        }
        valueLengthPos = next + 3;
    }

    // An own name counts even when it starts with a zero byte (a member name
    // can): it keeps its length and is written back as it came.
    if (have && out.m_nameId == 0 && out.m_name == nullptr && out.cmp_ipp_attr_get_name()[0] == '\0') {
        out.setName(wireName(), haveName ? nameLength : 0);
    }
    return finish(have);
}

// ---- encoding ----

int32_t cmp_ipp_attr::encodedNameLength() {
    if (m_nameLength <= 0) {
        m_nameLength = static_cast<int32_t>(std::strlen(cmp_ipp_attr_id_to_name(m_nameId, nullptr)));
    }
    return m_nameLength;
}

int32_t cmp_ipp_attr::valueByteLength(int32_t tag, int32_t i) const {
    switch (tag) {
    case CMP_IPP_TAG_INTEGER:
    case CMP_IPP_TAG_ENUM:
        return 4;
    case CMP_IPP_TAG_BOOLEAN:
        return 1;
    case CMP_IPP_TAG_DATETIME:
        return 11;
    case CMP_IPP_TAG_RESOLUTION:
        return 9;
    case CMP_IPP_TAG_RANGE:
        return 8;
    case CMP_IPP_TAG_OCTETSTRING:
    case CMP_IPP_TAG_OCTET32K: {
        const cmp_ipp_buf* b = bufAt(i);
        return b != nullptr ? static_cast<int32_t>(b->length()) : 0;
    }
    case CMP_IPP_TAG_TEXTLANG:
    case CMP_IPP_TAG_NAMELANG:
        return 4 + textLength(stringAt(2 * i)) + textLength(stringAt(2 * i + 1));
    default:
        // Text-like tags, and tags without a layout of their own, go out as text.
        return textLength(stringAt(2 * i));
    }
}

int32_t cmp_ipp_attr::getByteLength() {
    const int32_t nameLength = encodedNameLength();
    const int32_t values = m_numValues > 0 ? m_numValues : 0;
    int32_t tag = m_type;
    int64_t total = 0;
    switch (m_type) {
    case CMP_IPP_TAG_BEGIN_COLLECTION:
        // Markers carry no values; endCollection is written without a name.
        return 5 + nameLength;
    case CMP_IPP_TAG_END_COLLECTION:
        return 5;
    case CMP_IPP_TAG_MEMBERNAME:
        total = 5 + nameLength;
        tag = m_memberType;
        break;
    default:
        // Without a value there is nothing to write, not even the name.
        if (values == 0) return 0;
        total = nameLength;
        break;
    }
    for (int32_t i = 0; i < values; ++i) total += 5 + valueByteLength(tag, i);
    return total > INT32_MAX ? INT32_MAX : static_cast<int32_t>(total);
}

namespace {

// Writes exactly n bytes: text up to its zero byte (at most n), then zeros, so
// that a length field already written always matches the bytes behind it.
void putText(unsigned char* dst, const char* text, int32_t n) {
    if (n <= 0) return;
    size_t have = text != nullptr ? strnlen(text, static_cast<size_t>(n)) : 0;
    if (have != 0) std::memcpy(dst, text, have);
    if (have < static_cast<size_t>(n)) std::memset(dst + have, 0, static_cast<size_t>(n) - have);
}

}  // namespace

void cmp_ipp_attr::getBytes(cmp_ipp_buf& buf, int32_t pos) {
    if (pos < 0) return;
    const int32_t total = getByteLength();
    if (static_cast<uint64_t>(pos) + static_cast<uint64_t>(total) > buf.capacity()) return;
    if (total == 0) {
        buf.resize(static_cast<uint32_t>(pos));
        return;
    }
    // Every byte below is inside [pos, pos + total), which fits the block.
    unsigned char* block = buf.data();
    uint32_t at = static_cast<uint32_t>(pos);
    auto putByte = [&](int32_t v) { buf.setByteAt(at, v); at += 1; };
    auto putShort = [&](int32_t v) { buf.setShortAt(at, v); at += 2; };
    auto putInt = [&](int32_t v) { buf.setIntAt(at, v); at += 4; };
    auto putBytes = [&](const char* text, int32_t n) { putText(block + at, text, n); at += static_cast<uint32_t>(n); };
    const char* name = cmp_ipp_attr_get_name();

    int32_t tag = m_type;
    switch (m_type) {
    case CMP_IPP_TAG_BEGIN_COLLECTION:
        putByte(m_type);
        putShort(m_nameLength);
        putBytes(name, m_nameLength);
        putShort(0);
        buf.resize(at);
        return;
    case CMP_IPP_TAG_END_COLLECTION:
        putByte(m_type);
        putShort(0);
        putShort(0);
        buf.resize(at);
        return;
    case CMP_IPP_TAG_MEMBERNAME:
        putByte(m_type);
        putShort(0);
        putShort(m_nameLength);
        putBytes(name, m_nameLength);
        tag = m_memberType;
        break;
    default:
        break;
    }

    for (int32_t i = 0; i < m_numValues; ++i) {
        putByte(tag);
        if (i == 0 && m_type != CMP_IPP_TAG_MEMBERNAME) {
            putShort(m_nameLength);
            putBytes(name, m_nameLength);
        } else {
            putShort(0);
        }
        const int32_t valueLength = valueByteLength(tag, i);
        putShort(valueLength);
        switch (tag) {
        case CMP_IPP_TAG_INTEGER:
        case CMP_IPP_TAG_ENUM:
            putInt(wordAt(i));
            break;
        case CMP_IPP_TAG_BOOLEAN:
            putByte(wordAt(i));
            break;
        case CMP_IPP_TAG_DATETIME: {
            putInt(wordAt(3 * i));
            putInt(wordAt(3 * i + 1));
            const uint32_t tail = static_cast<uint32_t>(wordAt(3 * i + 2));
            putByte(static_cast<int32_t>(tail >> 24));
            putByte(static_cast<int32_t>(tail >> 16));
            putByte(static_cast<int32_t>(tail >> 8));
            break;
        }
        case CMP_IPP_TAG_RESOLUTION:
            putInt(wordAt(3 * i));
            putInt(wordAt(3 * i + 1));
            putByte(wordAt(3 * i + 2));
            break;
        case CMP_IPP_TAG_RANGE:
            putInt(wordAt(2 * i));
            putInt(wordAt(2 * i + 1));
            break;
        case CMP_IPP_TAG_OCTETSTRING:
        case CMP_IPP_TAG_OCTET32K:
            if (valueLength > 0) {
                std::memcpy(block + at, bufAt(i)->data(), static_cast<size_t>(valueLength));
                at += static_cast<uint32_t>(valueLength);
            }
            break;
        case CMP_IPP_TAG_TEXTLANG:
        case CMP_IPP_TAG_NAMELANG: {
            const cmp_ipp_string* text = stringAt(2 * i);
            const cmp_ipp_string* language = stringAt(2 * i + 1);
            const int32_t languageLength = textLength(language);
            const int32_t textLen = textLength(text);
            putShort(languageLength);
            putBytes(language != nullptr ? language->data() : nullptr, languageLength);
            putShort(textLen);
            putBytes(text != nullptr ? text->data() : nullptr, textLen);
            break;
        }
        default: {
            const cmp_ipp_string* text = stringAt(2 * i);
            putBytes(text != nullptr ? text->data() : nullptr, valueLength);
            break;
        }
        }
    }
    buf.resize(at);
}
