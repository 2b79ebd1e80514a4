#include "cmp_ipp_ippmsg.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "attr/cmp_ipp_ipptable.h"
#include "msg/cmp_ipp_limits.h"
#include "platform/cmp_dbglog.h"
#include "service/cmp_ipp_manager.h"

int32_t gVERSION11ALLOWED = 1;

std::atomic<int32_t> cmp_ipp_msg::m_nextRequestId{100};

namespace {

const char kParseError[] = "[ERROR ]:cmp_ipp_ippmsg::%s(%d): Parse Error: %d at offset %d (0x%x), value=%d (0x%x).\n";

// Fixed source lines of the decoder's traces.
enum : int {
    kLineVersion = 611,
    kLineOperation = 628,
    kLineNoData = 585,
    kLineEndNoOp = 642,
    kLineRepeatedGroup = 671,
    kLineGroupOrder = 676,
    kLineCreate = 742,
    kLineTypeMismatch = 761,
    kLineAltMismatch = 768,
    kLineNoPrevious = 790,
    kLineZeroDelimiter = 833,
    kLineAttributeBytes = 851,
    kLineAttributes = 854,
    kLineValues = 857,
    kLineDepth = 860,
};

void parseError(int line, int code, int32_t offset, int32_t value) {
    orvane::cmp_dbglog::tracer(0, kParseError, "decode", line, code, offset, static_cast<unsigned>(offset), value,
                               static_cast<unsigned>(value));
}

// Reads a version text as the printer stores it: at most three characters, a
// point in the middle ("1.1"). False when it does not split into two parts.
bool parseVersion(const cmp_ipp_string& text, uint8_t* major, uint8_t* minor) {
    char b[4] = {0, 0, 0, 0};
    int32_t n = text.length() < 3 ? text.length() : 3;
    if (n > 0) std::memcpy(b, text.data(), static_cast<size_t>(n));
    char* save = nullptr;
    char* first = strtok_r(b, ".", &save);
    if (first == nullptr) return false;
    char* rest = strtok_r(nullptr, ".", &save);
    if (rest == nullptr) return false;
    *major = static_cast<uint8_t>(std::strtol(first, nullptr, 10));
    *minor = static_cast<uint8_t>(std::strtol(rest, nullptr, 10));
    return true;
}

cmp_ipp_obj* printerObject() { return static_cast<cmp_ipp_obj*>(cmp_ipp_manager::get()->m_printer.load()); }

// Detaches the interface record from the buffer on every way out of decode.
struct PortGuard {
    cmp_ipp_buf& buf;
    ~PortGuard() { buf.setPort(nullptr); }
};

// Stands between the buffer and the request's record: passes the record's
// pieces on until the buffer holds the header and the largest attribute part
// allowed, then answers "nothing more" and notes that it did, so that an
// oversized request is never read into memory.
struct BoundedPort {
    cmp_ipp_if_info_s record;
    const cmp_ipp_if_info_s* source;
    const cmp_ipp_buf* buf;
    bool refused;

    BoundedPort(const cmp_ipp_if_info_s& from, const cmp_ipp_buf& b)
        : record(from), source(&from), buf(&b), refused(false) {
        record.pfnGetMoreData = pull;
        record.ctx = this;
    }
    BoundedPort(const BoundedPort&) = delete;
    BoundedPort& operator=(const BoundedPort&) = delete;

    static int pull(void* ctx, int unused, unsigned char** data, int* length) {
        BoundedPort* self = static_cast<BoundedPort*>(ctx);
        if (self->buf->length() >= kHeaderBytes + CMP_IPP_MAX_ATTRIBUTE_BYTES) {
            self->refused = true;
            return 0;
        }
        return self->source->pfnGetMoreData(self->source->ctx, unused, data, length);
    }

    static constexpr uint32_t kHeaderBytes = 8;
};

}  // namespace

cmp_ipp_msg::cmp_ipp_msg()
    : m_requestId(0), m_msgLength(0), m_operationId(-1), m_version(0x0100), m_docData(true), m_raw(true),
      m_dataComplete(true), m_dataLength(0), m_ifInfo(nullptr) {
    resetDataComplete();
    reset();
}

cmp_ipp_msg::~cmp_ipp_msg() {
    for (int32_t i = 0; i < m_groups.length(); ++i) delete m_groups[i];
}

bool cmp_ipp_msg::isValidOperation(int16_t) { return true; }

cmp_ipp_attrs* cmp_ipp_msg::getAttrGroup(const char* name) {
    for (int32_t i = 0; i < m_groups.length(); ++i) {
        if (m_groups[i]->m_name.isEqualTo(name, -1)) return m_groups[i];
    }
    cmp_ipp_attrs* g = new cmp_ipp_attrs(name);
    m_groups.append(g);
    return g;
}

cmp_ipp_attrs* cmp_ipp_msg::cmp_ipp_msg_get_job_attrs(int k) {
    char name[24];
    std::snprintf(name, sizeof name, "Job%d", k);
    return getAttrGroup(name);
}

cmp_ipp_attrs* cmp_ipp_msg::getSubscriptionAttrs(int k) {
    char name[32];
    std::snprintf(name, sizeof name, "Subscription%d", k);
    return getAttrGroup(name);
}

void cmp_ipp_msg::guaranteeOrder() {
    getAttrGroup("Op");
    getAttrGroup("Unsupported");
    getAttrGroup("Printer");
    cmp_ipp_msg_get_job_attrs(0);
}

void cmp_ipp_msg::clear() {
    for (int32_t i = 0; i < m_groups.length(); ++i) delete m_groups[i];
    m_groups.clear();
    m_docData.resize(0);
}

void cmp_ipp_msg::reset() {
    clear();
    cmp_ipp_attrs_set_attr(CMP_IPP_TAG_CHARSET, cmp_ipp_attr::cmp_ipp_attr_name_to_id("attributes-charset"),
                           "mycharset");
    cmp_ipp_attrs_set_attr(CMP_IPP_TAG_LANGUAGE,
                           cmp_ipp_attr::cmp_ipp_attr_name_to_id("attributes-natural-language"), "mylang");
    guaranteeOrder();
}

void cmp_ipp_msg::resetDataComplete() {
    m_dataLength = 0;
    m_dataComplete = !(m_operationId == CMP_IPP_OP_PRINT_JOB || m_operationId == CMP_IPP_OP_SEND_DOCUMENT);
}

void cmp_ipp_msg::setData(const cmp_ipp_buf& data) {
    m_docData = data;
    m_dataComplete = true;
    m_dataLength = static_cast<int32_t>(data.length());
}

void cmp_ipp_msg::setOpAttr(int16_t type, uint16_t id, int32_t value) {
    getAttrGroup("Op")->cmp_ipp_attrs_set_attr(type, id, value);
}

void cmp_ipp_msg::setOpAttr(int16_t type, uint16_t id, const char* text) {
    getAttrGroup("Op")->cmp_ipp_attrs_set_attr(type, id, text);
}

void cmp_ipp_msg::cmp_ipp_msg_set_unsupported_attr(const cmp_ipp_attr* attr) {
    if (attr == nullptr) return;
    getAttrGroup("Unsupported")->cmp_ipp_attrs_set_attr_by_name(attr, true);
}

int32_t cmp_ipp_msg::generateRequestId() { return m_nextRequestId.fetch_add(1); }

int cmp_ipp_msg::getGroups(int* out, int max) const {
    if (max < m_groups.length()) return 7;
    int jobsBefore = 0;
    for (int32_t i = 0; i < m_groups.length(); ++i) {
        int tag = groupToTag(m_groups[i]->getName());
        out[i] = (tag & 0xFF) | (jobsBefore << 16);
        if (tag == CMP_IPP_TAG_JOB_ATTRIBUTES) ++jobsBefore;
    }
    return 0;
}

int cmp_ipp_msg::groupToTag(const char* name) {
    if (name == nullptr) return -1;
    switch (name[0]) {
    case 'O': return CMP_IPP_TAG_OPERATION_ATTRIBUTES;
    case 'J': return CMP_IPP_TAG_JOB_ATTRIBUTES;
    case 'P': return CMP_IPP_TAG_PRINTER_ATTRIBUTES;
    case 'U': return CMP_IPP_TAG_UNSUPPORTED_ATTRIBUTES;
    case 'S': return CMP_IPP_TAG_SUBSCRIPTION_ATTRIBUTES;
    case 'E': return CMP_IPP_TAG_EVENT_NOTIFICATION_ATTRIBUTES;
    default: return -1;
    }
}

bool cmp_ipp_msg::valideType(const cmp_ipp_attr& attr) const {
    int16_t t = cmp_ipp_attr::nameIdToType(attr.m_nameId);
    return t == -1 || t == attr.m_type;
}

bool cmp_ipp_msg::valid_ipp_version(unsigned char major, unsigned char minor) {
    m_version = 0;
    const cmp_ipp_obj* printer = printerObject();
    if (printer == nullptr) return false;
    uint16_t id = cmp_ipp_attr::cmp_ipp_attr_name_to_id("ipp-versions-supported");
    const cmp_ipp_attrs& attrs = printer->m_attrs;  // read only: many requests look at once
    const cmp_ipp_attr* versions = id != 0 ? attrs.find(id) : attrs.find("ipp-versions-supported");
    if (versions == nullptr || versions->m_numValues < 1) return false;

    const int32_t n = versions->m_numValues;
    if (versions->m_strings.length() < 2 * n) return false;
    uint16_t firstVersion = 0, lastVersion = 0, lastSameMajor = 0, exact = 0;
    uint8_t firstMajor = 0;
    bool sameMajor = false, exactFound = false;
    for (int32_t i = 0; i < n; ++i) {
        uint8_t ma = 0, mi = 0;
        if (!parseVersion(versions->m_strings[2 * i], &ma, &mi)) return false;
        const uint16_t combined = static_cast<uint16_t>(ma * 256 + mi);
        if (i == 0) {
            firstVersion = combined;
            firstMajor = ma;
        }
        lastVersion = combined;
        if (ma == major) {
            sameMajor = true;
            lastSameMajor = combined;
            if (mi == minor && !exactFound) {
                exactFound = true;
                exact = combined;
            }
        }
    }
    if (exactFound) {
        m_version = exact;
        return true;
    }
    if (sameMajor) {
        m_version = lastSameMajor;
        return true;
    }
    m_version = (major < firstMajor) ? firstVersion : lastVersion;
    return false;
}

uint32_t cmp_ipp_msg::decode(cmp_ipp_buf& buf, cmp_ipp_if_info_s* info) {
    clear();
    m_docData.resize(0);
    m_raw.resize(0);
    if (buf.length() == 0) {
        parseError(kLineNoData, 603, 0, 0);
        return CMP_IPP_STATUS_BAD_REQUEST;
    }
    std::optional<BoundedPort> port;
    if (info != nullptr && info->pfnGetMoreData != nullptr) {
        port.emplace(*info, buf);
        buf.setPort(&port->record);
    }
    PortGuard detach{buf};

    const unsigned char major = buf.getByteAt(0);
    const unsigned char minor = buf.getByteAt(1);
    m_requestId = buf.getIntAt(4);
    if (!valid_ipp_version(major, minor)) {
        if (m_version == 0) {
            m_version = 0x0200;
            parseError(kLineVersion, 600, 0, major);
            return CMP_IPP_STATUS_INTERNAL_ERROR;
        }
        parseError(kLineVersion, 600, 0, major);
        return CMP_IPP_STATUS_VERSION_NOT_SUPPORTED;
    }
    if (m_requestId == 0) return CMP_IPP_STATUS_BAD_REQUEST;

    m_operationId = buf.getShortAt(2);
    if (!isValidOperation(m_operationId)) {
        parseError(kLineOperation, 601, 2, m_operationId);
        return CMP_IPP_STATUS_OPERATION_NOT_SUPPORTED;
    }

    unsigned int tag = buf.getByteAt(8);
    if (tag == CMP_IPP_TAG_END_OF_ATTRIBUTES) {
        parseError(kLineEndNoOp, 606, -1, 1);
        return CMP_IPP_STATUS_BAD_REQUEST;
    }
    uint32_t offset = 9;
    int opGroups = 0, jobGroups = 0, printerGroups = 0, unsupportedGroups = 0, subscriptionGroups = 0;
    int groupsSeen = 0;
    int32_t lastUpper = 0;
    // The bounds: the attribute part ends before this offset; attributes and
    // open collections so far.
    const uint64_t attributesEnd = uint64_t{BoundedPort::kHeaderBytes} + CMP_IPP_MAX_ATTRIBUTE_BYTES;
    int32_t attributes = 0;
    int32_t depth = 0;
    auto tooLarge = [&](int line, int code, uint32_t at, int64_t value) -> uint32_t {
        const int32_t v = value > INT32_MAX ? INT32_MAX : static_cast<int32_t>(value);
        parseError(line, code, static_cast<int32_t>(at), v);
        return CMP_IPP_LIMIT_STATUS;
    };

    for (;;) {
        // Group step for the delimiter tag just read.
        const int32_t tagOffset = static_cast<int32_t>(offset) - 1;
        bool groupError = false;
        cmp_ipp_attrs* group = nullptr;
        switch (tag) {
        case CMP_IPP_TAG_OPERATION_ATTRIBUTES:
            group = getAttrGroup("Op");
            if (opGroups > 0) {
                parseError(kLineRepeatedGroup, 605, tagOffset, 1);
                groupError = true;
            }
            if (groupsSeen > 0) {
                parseError(kLineGroupOrder, 609, tagOffset, 1);
                groupError = true;
            }
            ++opGroups;
            break;
        case CMP_IPP_TAG_JOB_ATTRIBUTES:
        case CMP_IPP_TAG_PRINTER_ATTRIBUTES: {
            const bool job = tag == CMP_IPP_TAG_JOB_ATTRIBUTES;
            int& count = job ? jobGroups : printerGroups;
            group = job ? cmp_ipp_msg_get_job_attrs(jobGroups) : getAttrGroup("Printer");
            if (count > 0) {
                parseError(kLineRepeatedGroup, 605, tagOffset, static_cast<int32_t>(tag));
                groupError = true;
            }
            const int position = groupsSeen + 1;
            if ((unsupportedGroups == 0 && position != 2) || (unsupportedGroups > 0 && position != 3)) {
                parseError(kLineGroupOrder, 609, tagOffset, static_cast<int32_t>(tag));
                groupError = true;
            }
            ++count;
            break;
        }
        case CMP_IPP_TAG_UNSUPPORTED_ATTRIBUTES:
            group = getAttrGroup("Unsupported");
            if (unsupportedGroups > 0) {
                parseError(kLineRepeatedGroup, 605, tagOffset, 5);
                groupError = true;
            }
            if (groupsSeen + 1 != 2) {
                parseError(kLineGroupOrder, 609, tagOffset, 5);
                groupError = true;
            }
            ++unsupportedGroups;
            break;
        case CMP_IPP_TAG_SUBSCRIPTION_ATTRIBUTES:
            group = getSubscriptionAttrs(subscriptionGroups++);
            break;
        default: {
            char name[32];
            std::snprintf(name, sizeof name, "unknownGroup%u", tag);
            group = getAttrGroup(name);
            break;
        }
        }
        ++groupsSeen;
        if (groupError) return CMP_IPP_STATUS_BAD_REQUEST;

        // Attributes of the group. previous is the index, in the group, of the
        // attribute that additional values join.
        int32_t previous = -1;
        uint32_t marked = 0;
        // Each attribute is read into this one and then moved into the group.
        cmp_ipp_attr read;
        for (;;) {
            // Whatever stands here (an attribute or a delimiter tag) belongs
            // to the attribute part.
            if (offset >= attributesEnd)
                return tooLarge(kLineAttributeBytes, 610, offset, int64_t{offset} - 8 + 1);
            const unsigned int first = buf.getByteAt(offset);
            if ((first & 0xF0) == 0) break;
            uint16_t status = CMP_IPP_STATUS_BAD_REQUEST;
            int32_t consumed = 0;
            const bool created = cmp_ipp_attr::CreateIn(read, buf, static_cast<int32_t>(offset), &status, &consumed);
            const uint64_t attrEnd = uint64_t{offset} + static_cast<uint32_t>(consumed > 0 ? consumed : 0);
            if ((port && port->refused) || attrEnd > attributesEnd)
                return tooLarge(kLineAttributeBytes, 610, offset, static_cast<int64_t>(attrEnd) - 8);
            if (!created || consumed <= 0) {
                parseError(kLineCreate, 602, static_cast<int32_t>(offset), static_cast<int32_t>(first));
                return created ? static_cast<uint32_t>(CMP_IPP_STATUS_BAD_REQUEST) : status;
            }

            if (read.m_nameId != 0 && read.m_type != CMP_IPP_TAG_MEMBERNAME) {
                const int16_t regType = cmp_ipp_attr::nameIdToType(read.m_nameId);
                if (regType != -1 && regType != read.m_type) {
                    const int16_t alt = cmp_ipp_attr::nameIdToAlternateType(read.m_nameId);
                    if (alt == 0) {
                        orvane::cmp_dbglog::tracer(2, "[ERROR ]:cmp_ipp_ippmsg::%s(%d) parse error. Id[%d] Type[%d] vs [%d]\n",
                                                   "decode", kLineTypeMismatch, read.m_nameId, regType, read.m_type);
                        marked = CMP_IPP_STATUS_BAD_REQUEST;
                    } else if (alt != read.m_type) {
                        orvane::cmp_dbglog::tracer(2, "[ERROR ]:cmp_ipp_ippmsg::%s(%d) parse error. Id[%d] Type[%d]\n",
                                                   "decode", kLineAltMismatch, read.m_nameId, read.m_type);
                        marked = CMP_IPP_STATUS_BAD_REQUEST;
                    }
                }
            }

            const bool marker = read.cmp_ipp_attr_is_col_type() != 0;
            const bool additional = read.m_nameLength == 0 && read.m_nameId == 0 && !marker;
            if (read.m_numValues > CMP_IPP_MAX_VALUES)
                return tooLarge(kLineValues, 612, offset, read.m_numValues);
            if (!additional && ++attributes > CMP_IPP_MAX_ATTRIBUTES)
                return tooLarge(kLineAttributes, 611, offset, attributes);
            if (read.m_type == CMP_IPP_TAG_BEGIN_COLLECTION && ++depth > CMP_IPP_MAX_COLLECTION_DEPTH)
                return tooLarge(kLineDepth, 613, offset, depth);
            if (read.m_type == CMP_IPP_TAG_END_COLLECTION && depth > 0) --depth;
            int32_t lower = 0, upper = 0;
            if (read.m_type == CMP_IPP_TAG_RANGE && read.m_numValues >= 1 && read.m_longs.length() >= 2) {
                lower = read.m_longs[0];
                upper = read.m_longs[1];
            }
            const bool isRange = read.m_type == CMP_IPP_TAG_RANGE;

            if (!additional) {
                // The group takes the attribute over: as cmp_ipp_attrs_set_attr_by_name(attr, false), without a copy.
                group->adopt(read);
                if (isRange && upper < lower) marked = CMP_IPP_STATUS_BAD_REQUEST;
                previous = group->count() - 1;
            } else {
                if (previous < 0) {
                    parseError(kLineNoPrevious, 607, static_cast<int32_t>(offset), static_cast<int32_t>(first));
                    return CMP_IPP_STATUS_BAD_REQUEST;
                }
                if (isRange && (lower <= lastUpper || upper < lower || upper <= lastUpper))
                    marked = CMP_IPP_STATUS_BAD_REQUEST;
                // The previous attribute gets the value and is stored again with
                // cmp_ipp_attrs_set_attr(previous, false), merged in place.
                previous = group->addValueAt(previous, read);
                if (group->list()[previous].m_numValues > CMP_IPP_MAX_VALUES)
                    return tooLarge(kLineValues, 612, offset, group->list()[previous].m_numValues);
            }
            if (isRange) lastUpper = upper;

            offset += static_cast<uint32_t>(consumed);
            if (marked != 0) return marked;
        }

        const unsigned int delimiter = buf.getByteAt(offset);
        if (delimiter == 0) {
            parseError(kLineZeroDelimiter, 602, static_cast<int32_t>(offset), 0);
            return CMP_IPP_STATUS_BAD_REQUEST;
        }
        ++offset;
        if (delimiter == CMP_IPP_TAG_END_OF_ATTRIBUTES) break;
        tag = delimiter;
    }

    if (opGroups != 1) {
        parseError(kLineEndNoOp, 606, -1, 1);
        return CMP_IPP_STATUS_BAD_REQUEST;
    }
    if (offset < buf.length()) m_docData.append(buf.data() + offset, buf.length() - offset);
    m_raw = buf;
    resetDataComplete();
    m_dataLength = static_cast<int32_t>(m_docData.length());
    m_msgLength = buf.length();
    return 0;
}

int cmp_ipp_msg::getIfReplyCode() const {
    if (m_ifInfo == nullptr || m_ifInfo->pfnGetReplyCode == nullptr) return 0;
    int code = 0;
    m_ifInfo->pfnGetReplyCode(m_ifInfo, &code);
    return code;
}

bool cmp_ipp_msg::cmp_ipp_msg_set_if_reply_code(CMP_IPP_IF_RETURN_CODES code) {
    if (m_ifInfo == nullptr || m_ifInfo->pfnSetReplyCode == nullptr) return false;
    return m_ifInfo->pfnSetReplyCode(m_ifInfo, code) != 0;
}

bool cmp_ipp_msg::cmp_ipp_msg_get_if_data(CMP_IPP_IF_HEADER_FC_FIELD_TOKENS field, unsigned char* text) {
    if (m_ifInfo == nullptr || m_ifInfo->pfnGetData == nullptr) return false;
    return m_ifInfo->pfnGetData(m_ifInfo, field, reinterpret_cast<char*>(text)) != 0;
}

bool cmp_ipp_msg::cmp_ipp_msg_set_if_data(CMP_IPP_IF_HEADER_FC_FIELD_TOKENS field, unsigned char* text) {
    if (m_ifInfo == nullptr || m_ifInfo->pfnSetData == nullptr) return false;
    return m_ifInfo->pfnSetData(m_ifInfo, field, reinterpret_cast<char*>(text)) != 0;
}

namespace {

// The delimiter tag a group is written with. Groups read with a tag the library
// has no name for keep that tag (from "unknownGroup<tag>") when it is a valid
// group delimiter; anything else has no safe wire form and is left out.
int wireTag(const cmp_ipp_attrs& group) {
    int tag = cmp_ipp_msg::groupToTag(group.getName());
    if (tag >= 0) return tag;
    const char kUnknown[] = "unknownGroup";
    const char* name = group.getName();
    if (std::strncmp(name, kUnknown, sizeof kUnknown - 1) != 0) return -1;
    const char* digits = name + sizeof kUnknown - 1;
    char* end = nullptr;
    long t = std::strtol(digits, &end, 10);
    if (end == digits || *end != '\0') return -1;
    if (t == 1 || t == 2 || (t >= 4 && t <= 15)) return static_cast<int>(t);
    return -1;
}

}  // namespace

cmp_ipp_buf cmp_ipp_msg::cmp_ipp_msg_encode() {
    cmp_ipp_buf out(1024u, true);
    out.setShortAt(0, m_version);
    out.setShortAt(2, m_operationId);
    out.setIntAt(4, m_requestId);
    uint32_t pos = 8;
    for (int32_t g = 0; g < m_groups.length(); ++g) {
        cmp_ipp_attrs& group = *m_groups[g];
        if (group.count() == 0) continue;
        const int tag = wireTag(group);
        if (tag < 0) continue;
        if (pos + 1 >= out.capacity()) out.reserve(out.length() + 500);
        out.setByteAt(pos, tag);
        ++pos;
        for (int32_t i = 0; i < group.count(); ++i) {
            cmp_ipp_attr& a = group[i];
            const uint32_t len = static_cast<uint32_t>(a.getByteLength());
            if (pos + len + 1 > out.capacity()) out.reserve(out.length() + 501 + len);
            a.getBytes(out, static_cast<int32_t>(pos));
            pos += len;
        }
    }
    if (pos + 1 >= out.capacity()) out.reserve(out.length() + 10);
    out.setByteAt(pos, 3);
    out.resize(pos + 1);
    out.append(m_docData.data(), m_docData.length());
    m_raw = out;
    m_msgLength = out.length();
    return out;
}

const char* cmp_ipp_msg::getOpName(uint16_t op) { return cmp_ipp_ipptable_op_name(op); }
const char* cmp_ipp_msg::getStatusCodeString(uint16_t code) { return cmp_ipp_ipptable_status_text(code); }
const char* cmp_ipp_msg::getTypeName(int tag) { return cmp_ipp_attr_type_name(tag); }
