#include "cmp_ipp_request.h"

#include <cstring>

#include "service/cmp_ipp_manager.h"

cmp_ipp_request::cmp_ipp_request() { m_requestId = generateRequestId(); }
cmp_ipp_request::~cmp_ipp_request() = default;

bool cmp_ipp_request::isValidOperation(int16_t op) {
    const cmp_ipp_obj* printer = static_cast<const cmp_ipp_obj*>(cmp_ipp_manager::get()->m_printer.load());
    if (printer == nullptr) return false;
    const uint16_t id = cmp_ipp_attr::cmp_ipp_attr_name_to_id("operations-supported");
    const cmp_ipp_attr* ops = id != 0 ? printer->m_attrs.find(id) : printer->m_attrs.find("operations-supported");
    return ops != nullptr && ops->cmp_ipp_attr_contains_value_of(static_cast<int32_t>(op)) != 0;
}

cmp_ipp_response::cmp_ipp_response() {
    m_operationId = 0;
    resetDataComplete();
}

cmp_ipp_response::~cmp_ipp_response() = default;

bool cmp_ipp_response::isValidOperation(uint16_t code) {
    return code <= 0x0002 || (code >= 0x0400 && code <= 0x0507);
}

void cmp_ipp_response::setStatusCode(uint16_t code, bool) {
    m_operationId = static_cast<int16_t>(code);
    resetDataComplete();
}

const char* cmp_ipp_response::statusCodeToText(uint16_t code) const { return getStatusCodeString(code); }

void cmp_ipp_response::cmp_ipp_res_convert_to_version() {
    if (m_version != 0x0100) return;
    static const struct {
        const char* from;
        const char* to;
    } kRewrites[] = {
        {"document-access-error", "aborted_by_system"},
        {"unsupported-compression", "aborted_by_system"},
        {"compression-error", "aborted_by_system"},
        {"unsupported-document-format", "aborted_by_system"},
        {"document-format-error", "aborted_by_system"},
        {"document-unprintable-error", "aborted_by_system"},
        {"job-queued-for-marker", "job-printing"},
        {"queued-in-device", "job-completed-successfully"},
        {"job-restartable", "job-completed-successfully"},
        {"job-data-insufficient", "job-incoming"},
    };
    const uint16_t id = cmp_ipp_attr::cmp_ipp_attr_name_to_id("job-state-reasons");
    if (id == 0) return;
    for (int32_t g = 0; g < m_groups.length(); ++g) {
        cmp_ipp_attrs* group = m_groups[g];
        const cmp_ipp_attr* reasons = static_cast<const cmp_ipp_attrs*>(group)->find(id);
        if (reasons == nullptr) continue;
        cmp_ipp_string first;
        if (reasons->m_numValues >= 1 && reasons->m_strings.length() >= 1) first = reasons->m_strings[0];
        for (const auto& r : kRewrites) {
            if (first.isEqualTo(r.from, -1)) {
                group->cmp_ipp_attrs_set_attr(CMP_IPP_TAG_KEYWORD, id, r.to);
                break;
            }
        }
    }
}

namespace {

// Inserts zone into the bracketed host of a URI; anything that is not a
// well-formed bracketed host, or a zone of another form, is carried over.
cmp_ipp_string withZone(const cmp_ipp_string& value, const char* zone) {
    const int32_t open = value.find("[", 1, 0);
    const int32_t close = value.rfind("]", 1, -1);
    if (value.length() == 0 || open < 0 || close < 0 || close < open) return value;
    const char* prefix;
    if (zone[0] == '+') {
        prefix = "[v1.";
    } else if (zone[0] == '%') {
        prefix = "[";
    } else {
        return value;
    }
    cmp_ipp_string out = value.substr(0, open);
    out.append(prefix, -1);
    out.append(value.data() + open + 1, close - open - 1);
    out.append(zone, -1);
    out.append("]", 1);
    out.append(value.data() + close + 1, value.length() - close - 1);
    return out;
}

}  // namespace

void cmp_ipp_response::convertToClientZone() {
    static const char* const kUriNames[] = {"printer-uri-supported", "printer-more-info", "printer-supply-info-uri",
                                            "printer-icons"};
    uint16_t ids[4];
    for (int i = 0; i < 4; ++i) ids[i] = cmp_ipp_attr::cmp_ipp_attr_name_to_id(kUriNames[i]);

    unsigned char zone[2024];
    std::memset(zone, 0, sizeof zone);
    cmp_ipp_msg_get_if_data(CMP_IPP_IF_HDR_CLIENT_ZONE, zone);
    zone[sizeof zone - 1] = 0;
    const char* z = reinterpret_cast<const char*>(zone);
    if (std::strlen(z) < 2) return;

    for (int32_t g = 0; g < m_groups.length(); ++g) {
        cmp_ipp_attrs* group = m_groups[g];
        for (uint16_t id : ids) {
            if (id == 0) continue;
            const cmp_ipp_attr* found = static_cast<const cmp_ipp_attrs*>(group)->find(id);
            if (found == nullptr) continue;
            // Rebuilt as a uri attribute of its own name, so clients read it as before.
            cmp_ipp_attr rebuilt(CMP_IPP_TAG_URI, id);
            for (int32_t v = 0; v < found->m_numValues && 2 * v < found->m_strings.length(); ++v) {
                cmp_ipp_string text = withZone(found->m_strings[2 * v], z);
                cmp_ipp_attr value(CMP_IPP_TAG_URI, 0, text.c_str());
                rebuilt.cmp_ipp_attr_add_multi(value);
            }
            if (rebuilt.m_numValues >= 1) group->cmp_ipp_attrs_set_attr(&rebuilt, true);
        }
    }
}
