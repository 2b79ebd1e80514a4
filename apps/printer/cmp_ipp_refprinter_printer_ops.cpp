// The reference printer's printer operations: Get-Printer-Attributes (built as
// attributes, or taken from their wire form) and Identify-Printer.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cmp_ipp_refprinter_ops.h"

namespace refprinter {

using namespace attrs;

namespace {

// Printer attributes that describe job template attributes ("copies-default",
// "media-col-ready", "media-source-supported", ...): the "job-template" group.
bool isJobTemplatePrinterAttr(const std::string& name) {
    // Sorted, for a binary search: a table in read-only data rather than a set
    // built on the heap at start-up.
    static const char* const kBases[] = {
        "copies", "finishing-template", "finishings", "finishings-col", "job-hold-until", "job-priority",
        "job-sheets", "media", "media-bottom-margin", "media-col", "media-left-margin", "media-right-margin",
        "media-size", "media-source", "media-top-margin", "media-type", "multiple-document-handling",
        "number-up", "orientation-requested", "output-bin", "overrides", "page-ranges", "print-color-mode",
        "print-content-optimize", "print-quality", "print-rendering-intent", "print-scaling",
        "printer-resolution", "sides"};
    for (const char* suffix : {"-default", "-supported", "-ready", "-database"}) {
        const size_t n = std::strlen(suffix);
        if (name.size() <= n || name.compare(name.size() - n, n, suffix) != 0) continue;
        const std::string_view base(name.data(), name.size() - n);
        const auto at = std::lower_bound(std::begin(kBases), std::end(kBases), base,
                                         [](const char* a, std::string_view b) { return a < b; });
        if (at != std::end(kBases) && base == *at) return true;
    }
    return false;
}

// Flags the entries of a wire-form group that a query takes, by the rules of
// Requested::wants.
void select(const EncodedPrinterAttrs& group, const RequestedNames& r, std::vector<uint8_t>& selected) {
    const size_t n = group.encoded.size();
    selected.assign(n, 0);
    for (size_t i = 0; i < n; ++i) {
        switch (group.reach[i]) {
        case EncodedPrinterAttrs::kByNameOnly: break;
        case EncodedPrinterAttrs::kJobTemplateGroup: selected[i] = r.all || r.jobTemplate; break;
        case EncodedPrinterAttrs::kDescriptionGroup: selected[i] = r.all || r.description; break;
        }
    }
    for (std::string_view name : r.names) {
        const uint32_t* begin = nullptr;
        const uint32_t* end = nullptr;
        group.encoded.named(name, &begin, &end);
        for (; begin != end; ++begin) selected[*begin] = 1;
    }
}

// In a context's handler word: the response's printer group waits, encoded, in
// its document data.
const uint32_t kEncodedPrinterGroup = 0x47504131;

}  // namespace

std::unique_ptr<EncodedPrinterAttrs> encodePrinterAttrs(const cmp_ipp_attrs& group, bool withTemplates) {
    std::unique_ptr<EncodedPrinterAttrs> e(new EncodedPrinterAttrs{attrs::EncodedAttrs(group), {}});
    e->reach.reserve(e->encoded.size());
    for (size_t i = 0; i < e->encoded.size(); ++i) {
        const std::string& name = e->encoded[i].name;
        EncodedPrinterAttrs::Reach reach = EncodedPrinterAttrs::kDescriptionGroup;
        if (name == "media-col-database") reach = EncodedPrinterAttrs::kByNameOnly;
        else if (withTemplates && isJobTemplatePrinterAttr(name)) reach = EncodedPrinterAttrs::kJobTemplateGroup;
        e->reach.push_back(reach);
    }
    return e;
}

void Operations::getPrinterAttributes() {
    if (!requirePrinterUri()) return;
    const cmp_ipp_attr* format = opAttr("document-format");
    if (format != nullptr && !inList("document-format-supported", textOf(*format))) {
        unsupportedOp("document-format");
        return fail(kFormatNotSupported, "Unsupported document-format.");
    }
    // The zone rewrite works on attributes: such a reply is built as attributes.
    if (m_p.m_encodedReplies.load(std::memory_order_relaxed) && m_res.m_docData.length() == 0 &&
        !clientZoneGiven()) {
        return encodedPrinterGroup();
    }
    printerGroup();
}

void Operations::printerGroup() {
    const Requested r = requested(false);
    cmp_ipp_attrs& out = *m_res.getAttrGroup("Printer");
    const cmp_ipp_attrs& fixed = m_p.m_obj.m_attrs;
    for (const Span& s : topLevel(fixed)) {
        if (r.wants(s.name, isJobTemplatePrinterAttr(s.name))) copySpan(fixed, s, out);
    }
    cmp_ipp_attrs status;
    {
        std::lock_guard<std::mutex> lock(m_p.m_mutex);
        const int64_t now = m_p.nowMs();
        m_p.advanceLocked(now);
        m_p.statusAttrsLocked(status, now);
    }
    for (const Span& s : topLevel(status)) {
        if (r.wants(s.name, false)) copySpan(status, s, out);
    }
}

// The same attributes in the same order as printerGroup(): the chosen fixed
// ones, then the chosen status ones.
void Operations::encodedPrinterGroup() {
    const RequestedNames r = requestedNames();
    const EncodedPrinterAttrs& fixed = *m_p.m_encodedAttrs;
    std::shared_ptr<const EncodedPrinterAttrs> status;
    {
        std::lock_guard<std::mutex> lock(m_p.m_mutex);
        const int64_t now = m_p.nowMs();
        m_p.advanceLocked(now);
        status = m_p.encodedStatusLocked(now);
    }
    std::vector<uint8_t> fixedChosen, statusChosen;
    select(fixed, r, fixedChosen);
    select(*status, r, statusChosen);
    const uint32_t length = fixed.encoded.selectedLength(fixedChosen) + status->encoded.selectedLength(statusChosen);
    cmp_ipp_buf& out = m_res.m_docData;
    out.reserve(length + 1);
    fixed.encoded.appendSelected(fixedChosen, out);
    status->encoded.appendSelected(statusChosen, out);
    m_ctx->m_handlerData = kEncodedPrinterGroup;
}

cmp_ipp_buf Operations::reply() {
    if (m_ctx->m_handlerData != kEncodedPrinterGroup) return m_res.cmp_ipp_msg_encode();
    m_ctx->m_handlerData = 0;
    const cmp_ipp_buf group(std::move(m_res.m_docData));
    // The encoder writes groups in order and leaves out empty ones, so the
    // printer group goes last when every group after it is empty (which is how
    // a Get-Printer-Attributes response ends).
    int32_t printer = -1;
    bool last = true;
    for (int32_t g = 0; g < m_res.groupCount(); ++g) {
        const cmp_ipp_attrs& grp = *m_res.group(g);
        if (printer < 0 && std::strcmp(grp.getName(), "Printer") == 0) {
            printer = g;
            last = grp.count() == 0;
        } else if (printer >= 0 && grp.count() != 0) {
            last = false;
        }
    }
    if (printer < 0 || !last) {
        // Built again as attributes, where the encoder puts them.
        printerGroup();
        return m_res.cmp_ipp_msg_encode();
    }
    const cmp_ipp_buf head = m_res.cmp_ipp_msg_encode();  // ends with the end-of-attributes tag
    cmp_ipp_buf out(head.length() + 1 + group.length(), true);
    out.append(head.data(), head.length() - 1);
    if (group.length() != 0) {
        const unsigned char tag = static_cast<unsigned char>(cmp_ipp_msg::groupToTag("Printer"));
        out.append(&tag, 1);
        out.append(group.data(), group.length());
    }
    const unsigned char end = 0x03;
    out.append(&end, 1);
    return out;
}

void Operations::identifyPrinter() {
    if (!requirePrinterUri()) return;
    if (const cmp_ipp_attr* actions = opAttr("identify-actions")) {
        for (int32_t i = 0; i < actions->m_numValues; ++i) {
            if (!inList("identify-actions-supported", textOf(*actions, i))) {
                unsupportedOp("identify-actions");
                return fail(kValuesNotSupported, "Unsupported identify-actions.");
            }
        }
    }
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    ++m_p.m_identifyCount;
}

}  // namespace refprinter
