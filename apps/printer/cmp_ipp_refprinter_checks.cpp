// The reference printer's request checks: operation attributes, the target
// printer and job, the document, and job template values against what the
// printer supports.
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "cmp_ipp_refprinter_ops.h"

namespace refprinter {

using namespace attrs;

namespace {

// Operation attributes each operation understands; anything else is reported
// back as unsupported and ignored.
bool knownOperationAttr(int16_t op, const std::string& name) {
    static const std::set<std::string> common{"attributes-charset", "attributes-natural-language", "printer-uri",
                                              "requesting-user-name", "requesting-user-uri"};
    static const std::set<std::string> jobCreation{"job-name",        "ipp-attribute-fidelity",
                                                   "document-name",   "compression",
                                                   "document-format", "document-natural-language",
                                                   "job-k-octets",    "job-impressions",
                                                   "job-media-sheets"};
    static const std::set<std::string> sendDocument{"job-id",          "job-uri",     "last-document",
                                                    "document-name",   "compression", "document-format",
                                                    "document-natural-language"};
    static const std::set<std::string> jobControl{"job-id", "job-uri", "message"};
    static const std::set<std::string> holdJob{"job-id", "job-uri", "message", "job-hold-until"};
    static const std::set<std::string> getJobAttributes{"job-id", "job-uri", "requested-attributes"};
    static const std::set<std::string> getJobs{"limit", "requested-attributes", "which-jobs", "my-jobs",
                                               "first-index"};
    static const std::set<std::string> getPrinterAttributes{"requested-attributes", "document-format"};
    static const std::set<std::string> cancelMyJobs{"job-ids", "message"};
    static const std::set<std::string> identify{"identify-actions", "message"};
    if (common.count(name) != 0) return true;
    switch (op) {
    case kPrintJob:
    case kValidateJob:
    case kCreateJob: return jobCreation.count(name) != 0;
    case kSendDocument: return sendDocument.count(name) != 0;
    case kCancelJob:
    case kReleaseJob:
    case kCloseJob: return jobControl.count(name) != 0;
    case kHoldJob: return holdJob.count(name) != 0;
    case kGetJobAttributes: return getJobAttributes.count(name) != 0;
    case kGetJobs: return getJobs.count(name) != 0;
    case kGetPrinterAttributes: return getPrinterAttributes.count(name) != 0;
    case kCancelMyJobs: return cancelMyJobs.count(name) != 0;
    case kIdentifyPrinter: return identify.count(name) != 0;
    default: return false;
    }
}

// Index one past the endCollection that closes the begCollection at i.
int32_t collectionEnd(const cmp_ipp_attrs& g, int32_t i, int32_t limit) {
    int32_t depth = 0;
    for (int32_t j = i; j < limit; ++j) {
        if (g[j].m_type == CMP_IPP_TAG_BEGIN_COLLECTION) ++depth;
        if (g[j].m_type == CMP_IPP_TAG_END_COLLECTION && --depth == 0) return j + 1;
    }
    return limit;
}

// For each value of a collection attribute, the indexes of its member entries.
std::vector<std::vector<int32_t>> collectionValues(const cmp_ipp_attrs& g, int32_t first, int32_t last) {
    std::vector<std::vector<int32_t>> values;
    int32_t depth = 0;
    for (int32_t i = first; i < last; ++i) {
        const int32_t t = g[i].m_type;
        if (t == CMP_IPP_TAG_BEGIN_COLLECTION) {
            if (depth == 0) values.emplace_back();
            ++depth;
        } else if (t == CMP_IPP_TAG_END_COLLECTION) {
            --depth;
        } else if (t == CMP_IPP_TAG_MEMBERNAME && depth == 1) {
            values.back().push_back(i);
        }
    }
    return values;
}

bool isIntTag(int32_t tag) { return tag == CMP_IPP_TAG_INTEGER || tag == CMP_IPP_TAG_ENUM; }

const TemplateRule kTemplateRules[] = {
    {"copies", Rule::IntInRange, "copies-supported", false},
    {"finishings", Rule::IntInList, "finishings-supported", true},
    {"finishings-col", Rule::FinishingsCol, "finishing-template-supported", true},
    {"job-hold-until", Rule::KeywordInList, "job-hold-until-supported", false},
    {"job-priority", Rule::Priority, nullptr, false},
    {"job-sheets", Rule::KeywordInList, "job-sheets-supported", false},
    {"media", Rule::KeywordInList, "media-supported", false},
    {"media-col", Rule::MediaCol, nullptr, false},
    {"multiple-document-handling", Rule::KeywordInList, "multiple-document-handling-supported", false},
    {"number-up", Rule::IntInList, "number-up-supported", false},
    {"orientation-requested", Rule::IntInList, "orientation-requested-supported", false},
    {"output-bin", Rule::KeywordInList, "output-bin-supported", false},
    {"overrides", Rule::Any, nullptr, true},
    {"page-ranges", Rule::PageRanges, "page-ranges-supported", true},
    {"print-color-mode", Rule::KeywordInList, "print-color-mode-supported", false},
    {"print-content-optimize", Rule::KeywordInList, "print-content-optimize-supported", false},
    {"print-quality", Rule::IntInList, "print-quality-supported", false},
    {"print-rendering-intent", Rule::KeywordInList, "print-rendering-intent-supported", false},
    {"print-scaling", Rule::KeywordInList, "print-scaling-supported", false},
    {"printer-resolution", Rule::ResolutionInList, "printer-resolution-supported", false},
    {"sides", Rule::KeywordInList, "sides-supported", false},
};

}  // namespace

bool Operations::checkOperationAttrs() {
    if (m_reqOp.count() < 2 || nameOf(m_reqOp[0]) != "attributes-charset" ||
        nameOf(m_reqOp[1]) != "attributes-natural-language") {
        fail(kBadRequest, "attributes-charset and attributes-natural-language must come first.");
        return false;
    }
    if (!inList("charset-supported", lower(textOf(m_reqOp[0])))) {
        unsupportedValue(m_reqOp, Span{0, 1, "attributes-charset"});
        fail(kCharsetNotSupported, "Unsupported attributes-charset.");
        return false;
    }
    for (const Span& s : topLevel(m_reqOp)) {
        const cmp_ipp_attr& a = m_reqOp[s.first];
        if (!knownOperationAttr(m_op, s.name)) {
            unsupportedAttr(s.name);
            m_rejected.insert(s.name);
            m_ignored = true;
        } else if (a.m_nameId != 0 && a.m_type != CMP_IPP_TAG_BEGIN_COLLECTION &&
                   a.cmp_ipp_attr_validate_attr_range() != 0) {
            unsupportedValue(m_reqOp, s);
            m_rejected.insert(s.name);
            m_ignored = true;
        }
    }
    return true;
}

bool Operations::requirePrinterUri() {
    if (opAttr("printer-uri") != nullptr) return true;
    fail(kBadRequest, "Missing printer-uri.");
    return false;
}

bool Operations::targetJob(int32_t* id) {
    if (const cmp_ipp_attr* uri = opAttr("job-uri")) {
        const std::string u = textOf(*uri);
        const size_t slash = u.rfind('/');
        const std::string digits = slash == std::string::npos ? std::string() : u.substr(slash + 1);
        if (digits.empty() || digits.size() > 9 ||
            digits.find_first_not_of("0123456789") != std::string::npos) {
            fail(kNotFound, "No such job.");
            return false;
        }
        *id = std::stoi(digits);
        return true;
    }
    if (!requirePrinterUri()) return false;
    const cmp_ipp_attr* jobId = opAttr("job-id");
    if (jobId == nullptr || jobId->m_type != CMP_IPP_TAG_INTEGER || jobId->m_numValues < 1) {
        fail(kBadRequest, "Missing job-id.");
        return false;
    }
    *id = wordOf(*jobId);
    return true;
}

// document-format and compression of a document about to come.
bool Operations::checkDocument() {
    const cmp_ipp_attr* format = opAttr("document-format");
    if (format != nullptr && !inList("document-format-supported", textOf(*format))) {
        unsupportedOp("document-format");
        fail(kFormatNotSupported, "Unsupported document-format.");
        return false;
    }
    const cmp_ipp_attr* compression = opAttr("compression");
    if (compression != nullptr && !inList("compression-supported", textOf(*compression))) {
        unsupportedOp("compression");
        fail(kCompressionNotSupported, "Unsupported compression.");
        return false;
    }
    return true;
}

bool Operations::checkTemplate(std::vector<cmp_ipp_attr>* accepted, std::set<std::string>* names) {
    bool allSupported = true;
    const cmp_ipp_attrs& g = *m_req.cmp_ipp_msg_get_job_attrs(0);
    for (const Span& s : topLevel(g)) {
        const TemplateRule* rule = nullptr;
        for (const TemplateRule& r : kTemplateRules) {
            if (s.name == r.name) rule = &r;
        }
        if (rule == nullptr || names->count(s.name) != 0) {
            // Unknown, or given twice.
            unsupportedAttr(s.name);
            allSupported = false;
        } else if (!valueSupported(*rule, g, s)) {
            unsupportedValue(g, s);
            allSupported = false;
        } else {
            for (int32_t i = s.first; i < s.last; ++i) accepted->push_back(g[i]);
            names->insert(s.name);
        }
    }
    return allSupported;
}

bool Operations::valueSupported(const TemplateRule& rule, const cmp_ipp_attrs& g, const Span& s) const {
    const cmp_ipp_attr& a = g[s.first];
    const bool collection = a.m_type == CMP_IPP_TAG_BEGIN_COLLECTION;
    const int32_t count =
        collection ? static_cast<int32_t>(collectionValues(g, s.first, s.last).size()) : a.m_numValues;
    if (count < 1 || (!rule.multiValued && count != 1)) return false;
    const cmp_ipp_attr* sup = rule.supported != nullptr ? printerAttr(rule.supported) : nullptr;
    switch (rule.rule) {
    case Rule::IntInRange:
        return isIntTag(a.m_type) && sup != nullptr && sup->m_type == CMP_IPP_TAG_RANGE &&
               wordOf(a) >= wordOf(*sup, 0) && wordOf(a) <= wordOf(*sup, 1);
    case Rule::IntInList:
        if (!isIntTag(a.m_type)) return false;
        for (int32_t i = 0; i < count; ++i) {
            if (!inList(rule.supported, wordOf(a, i))) return false;
        }
        return true;
    case Rule::KeywordInList:
        if (!isTextTag(a.m_type)) return false;
        for (int32_t i = 0; i < count; ++i) {
            if (!inList(rule.supported, textOf(a, i))) return false;
        }
        return true;
    case Rule::ResolutionInList:
        if (a.m_type != CMP_IPP_TAG_RESOLUTION || sup == nullptr) return false;
        return sup->cmp_ipp_attr_contains_value_of(
                   cmp_ipp_attr(CMP_IPP_TAG_RESOLUTION, 0, wordOf(a, 0), wordOf(a, 1), wordOf(a, 2))) != 0;
    case Rule::Priority: return a.m_type == CMP_IPP_TAG_INTEGER && wordOf(a) >= 1 && wordOf(a) <= 100;
    case Rule::PageRanges:
        if (a.m_type != CMP_IPP_TAG_RANGE || sup == nullptr || wordOf(*sup) == 0) return false;
        for (int32_t i = 0; i < count; ++i) {
            if (wordOf(a, 2 * i) < 1 || wordOf(a, 2 * i) > wordOf(a, 2 * i + 1)) return false;
        }
        return true;
    case Rule::MediaCol: return collection && mediaColSupported(g, s);
    case Rule::FinishingsCol: return collection && finishingsColSupported(g, s);
    case Rule::Any: return true;
    }
    return false;
}

bool Operations::mediaColSupported(const cmp_ipp_attrs& g, const Span& s) const {
    for (const std::vector<int32_t>& members : collectionValues(g, s.first, s.last)) {
        for (int32_t m : members) {
            const cmp_ipp_attr& e = g[m];
            const std::string name = nameOf(e);
            if (name == "media-size") {
                if (m + 1 >= s.last || g[m + 1].m_type != CMP_IPP_TAG_BEGIN_COLLECTION) return false;
                const auto sizes = collectionValues(g, m + 1, collectionEnd(g, m + 1, s.last));
                if (sizes.size() != 1) return false;
                int32_t x = -1, y = -1;
                for (int32_t k : sizes[0]) {
                    const cmp_ipp_attr& d = g[k];
                    if (d.m_memberType != CMP_IPP_TAG_INTEGER || d.m_numValues != 1) return false;
                    if (nameOf(d) == "x-dimension") x = wordOf(d);
                    else if (nameOf(d) == "y-dimension") y = wordOf(d);
                    else return false;
                }
                bool found = false;
                const cmp_ipp_attrs& pa = m_p.m_obj.m_attrs;
                for (const Span& ps : topLevel(pa)) {
                    if (ps.name != "media-size-supported") continue;
                    for (const std::vector<int32_t>& dims : collectionValues(pa, ps.first, ps.last)) {
                        int32_t px = -2, py = -2;
                        for (int32_t k : dims) (nameOf(pa[k]) == "x-dimension" ? px : py) = wordOf(pa[k]);
                        if (px == x && py == y) found = true;
                    }
                }
                if (!found) return false;
                continue;
            }
            if (e.m_numValues != 1) return false;
            if (name == "media-size-name" || name == "media-source" || name == "media-type") {
                const std::string list = name == "media-size-name" ? "media-supported" : name + "-supported";
                if (!isTextTag(e.m_memberType) || !inList(list.c_str(), textOf(e))) return false;
            } else if (name == "media-bottom-margin" || name == "media-left-margin" ||
                       name == "media-right-margin" || name == "media-top-margin") {
                const std::string list = name + "-supported";
                if (e.m_memberType != CMP_IPP_TAG_INTEGER || !inList(list.c_str(), wordOf(e))) return false;
            } else {
                return false;
            }
        }
    }
    return true;
}

bool Operations::finishingsColSupported(const cmp_ipp_attrs& g, const Span& s) const {
    for (const std::vector<int32_t>& members : collectionValues(g, s.first, s.last)) {
        for (int32_t m : members) {
            const cmp_ipp_attr& e = g[m];
            if (nameOf(e) != "finishing-template" || e.m_numValues != 1 || !isTextTag(e.m_memberType) ||
                !inList("finishing-template-supported", textOf(e)))
                return false;
        }
    }
    return true;
}

Requested Operations::requested(bool forJobs) const {
    Requested r;
    const cmp_ipp_attr* a = opAttr("requested-attributes");
    if (a == nullptr) {
        if (forJobs && m_op == kGetJobs) {
            r.names = {"job-id", "job-uri"};
        } else {
            r.all = true;
        }
        return r;
    }
    for (int32_t i = 0; i < a->m_numValues; ++i) {
        const std::string v = textOf(*a, i);
        if (v == "all") r.all = true;
        else if (v == (forJobs ? "job-description" : "printer-description")) r.description = true;
        else if (v == "job-template") r.jobTemplate = true;
        else r.names.insert(v);
    }
    return r;
}

RequestedNames Operations::requestedNames() const {
    RequestedNames r;
    const cmp_ipp_attr* a = opAttr("requested-attributes");
    if (a == nullptr) {
        r.all = true;
        return r;
    }
    for (int32_t i = 0; i < a->m_numValues; ++i) {
        const std::string_view v = textViewOf(*a, i);
        if (v == "all") r.all = true;
        else if (v == "printer-description") r.description = true;
        else if (v == "job-template") r.jobTemplate = true;
        else r.names.push_back(v);
    }
    return r;
}

bool Operations::clientZoneGiven() {
    // The transport may write a whole header field text: 2023 characters and a zero.
    unsigned char zone[2024] = {0};
    m_res.cmp_ipp_msg_get_if_data(CMP_IPP_IF_HDR_CLIENT_ZONE, zone);
    zone[sizeof zone - 1] = 0;
    // The same test as the rewrite's: shorter texts change nothing.
    return std::strlen(reinterpret_cast<const char*>(zone)) >= 2;
}

}  // namespace refprinter
