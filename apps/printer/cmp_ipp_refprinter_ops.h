// What the reference printer's operation sources share: the operation and
// status codes it answers with, the reading of a query's requested attributes,
// and the object that carries out one request.
#ifndef CMP_IPP_REFPRINTER_OPS_H
#define CMP_IPP_REFPRINTER_OPS_H

#include <stdint.h>

#include <cctype>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cmp_ipp_refprinter.h"
#include "cmp_ipp_refprinter_attrs.h"
#include "cmp_ipp_refprinter_internal.h"
#include "containers/cmp_ipp_if.h"
#include "service/cmp_ipp_constants.h"

namespace refprinter {

using namespace attrs;

// Short names for the codes this printer answers with.
enum : uint16_t {
    kOk = CMP_IPP_STATUS_SUCCESSFUL_OK,
    kOkIgnored = CMP_IPP_STATUS_SUCCESSFUL_OK_IGNORED_OR_SUBSTITUTED_ATTRIBUTES,
    kBadRequest = CMP_IPP_STATUS_CLIENT_ERROR_BAD_REQUEST,
    kNotAuthorized = CMP_IPP_STATUS_CLIENT_ERROR_NOT_AUTHORIZED,
    kNotPossible = CMP_IPP_STATUS_CLIENT_ERROR_NOT_POSSIBLE,
    kNotFound = CMP_IPP_STATUS_CLIENT_ERROR_NOT_FOUND,
    kFormatNotSupported = CMP_IPP_STATUS_CLIENT_ERROR_DOCUMENT_FORMAT_NOT_SUPPORTED,
    kValuesNotSupported = CMP_IPP_STATUS_CLIENT_ERROR_ATTRIBUTES_OR_VALUES_NOT_SUPPORTED,
    kCharsetNotSupported = CMP_IPP_STATUS_CLIENT_ERROR_CHARSET_NOT_SUPPORTED,
    kCompressionNotSupported = CMP_IPP_STATUS_CLIENT_ERROR_COMPRESSION_NOT_SUPPORTED,
    kInternalError = CMP_IPP_STATUS_SERVER_ERROR_INTERNAL_ERROR,
    kNotAccepting = CMP_IPP_STATUS_SERVER_ERROR_NOT_ACCEPTING_JOBS,
    kBusy = CMP_IPP_STATUS_SERVER_ERROR_BUSY,
};

enum : int16_t {
    kPrintJob = CMP_IPP_OP_PRINT_JOB,
    kValidateJob = CMP_IPP_OP_VALIDATE_JOB,
    kCreateJob = CMP_IPP_OP_CREATE_JOB,
    kSendDocument = CMP_IPP_OP_SEND_DOCUMENT,
    kCancelJob = CMP_IPP_OP_CANCEL_JOB,
    kGetJobAttributes = CMP_IPP_OP_GET_JOB_ATTRIBUTES,
    kGetJobs = CMP_IPP_OP_GET_JOBS,
    kGetPrinterAttributes = CMP_IPP_OP_GET_PRINTER_ATTRIBUTES,
    kHoldJob = CMP_IPP_OP_HOLD_JOB,
    kReleaseJob = CMP_IPP_OP_RELEASE_JOB,
    kCancelMyJobs = CMP_IPP_OP_CANCEL_MY_JOBS,
    kCloseJob = CMP_IPP_OP_CLOSE_JOB,
    kIdentifyPrinter = CMP_IPP_OP_IDENTIFY_PRINTER,
};

// A header field's text as the transport hands it over: up to 2023 characters
// and the terminator.
const size_t kFieldText = 2024;

inline bool successful(uint16_t status) { return status <= 0x00FF; }

inline std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

inline std::string nameOf(const cmp_ipp_attr& a) { return a.cmp_ipp_attr_get_name(); }

// Which attributes a query asked for: names and group names.
struct Requested {
    std::set<std::string> names;
    bool all = false;
    bool description = false;  // "printer-description" or "job-description"
    bool jobTemplate = false;

    // isTemplate() is asked only when the answer depends on it.
    template <typename IsTemplate>
    bool wants(const std::string& name, IsTemplate isTemplate) const {
        if (names.count(name) != 0) return true;
        // Large; sent only when asked for by name.
        if (name == "media-col-database") return false;
        if (all) return true;
        if (jobTemplate == description) return jobTemplate;
        return isTemplate() ? jobTemplate : description;
    }
    bool wants(const std::string& name, bool isTemplate) const {
        return wants(name, [isTemplate] { return isTemplate; });
    }
};

// The same for a query answered from attributes in wire form: the names are
// views into the request's values.
struct RequestedNames {
    std::vector<std::string_view> names;
    bool all = false;
    bool description = false;
    bool jobTemplate = false;
};

enum class Rule { IntInRange, IntInList, KeywordInList, ResolutionInList, Priority, PageRanges, MediaCol,
                  FinishingsCol, Any };

struct TemplateRule {
    const char* name;
    Rule rule;
    const char* supported;  // the printer attribute listing the supported values
    bool multiValued;
};

// Carries out one request on the printer; one object per library call.
class Operations {
public:
    Operations(Printer& printer, cmp_ipp_streamed_ctx* ctx)
        : m_p(printer), m_ctx(ctx), m_req(ctx->m_request), m_res(ctx->m_response),
          m_reqOp(*ctx->m_request.getAttrGroup("Op")), m_op(ctx->m_request.m_operationId) {}

    void prepare();
    void process();
    uint32_t data(const cmp_ipp_buf& data);
    void abort();
    void finish();
    // The encoded response.
    cmp_ipp_buf reply();

private:
    // ---- request reading ----
    const cmp_ipp_attr* opAttr(const char* name) const {
        return m_rejected.count(name) != 0 ? nullptr : findTop(m_reqOp, name);
    }
    std::string opText(const char* name, const std::string& fallback = std::string()) const {
        const cmp_ipp_attr* a = opAttr(name);
        return a != nullptr && a->m_numValues > 0 && isTextTag(a->m_type) ? textOf(*a) : fallback;
    }
    bool opBool(const char* name, bool fallback) const {
        const cmp_ipp_attr* a = opAttr(name);
        return a != nullptr && a->m_numValues > 0 && a->m_type == CMP_IPP_TAG_BOOLEAN ? wordOf(*a) != 0 : fallback;
    }
    // The user the front end authenticated, else the one the client names.
    std::string user() const {
        unsigned char remote[kFieldText] = {0};
        if (m_req.cmp_ipp_msg_get_if_data(CMP_IPP_IF_HDR_REMOTE_USER, remote) && remote[0] != '\0') {
            return std::string(reinterpret_cast<const char*>(remote), strnlen(reinterpret_cast<const char*>(remote),
                                                                              sizeof remote));
        }
        return opText("requesting-user-name", "anonymous");
    }
    std::string documentFormat() const {
        const cmp_ipp_attr* d = printerAttr("document-format-default");
        return opText("document-format", d != nullptr ? textOf(*d) : "application/octet-stream");
    }
    Requested requested(bool forJobs) const;
    RequestedNames requestedNames() const;
    // A client zone makes the library rewrite URIs in the response's attributes.
    bool clientZoneGiven();

    // ---- response writing ----
    void fail(uint16_t status, const std::string& message) {
        m_res.setStatusCode(status);
        statusMessage(message);
    }
    void statusMessage(const std::string& message) {
        const cmp_ipp_attr a = text(CMP_IPP_TAG_TEXT, "status-message", message);
        m_res.getAttrGroup("Op")->cmp_ipp_attrs_set_attr_by_name(&a, true);
    }
    cmp_ipp_attrs& unsupportedGroup() { return *m_res.getAttrGroup("Unsupported"); }
    void unsupportedAttr(const std::string& name) {
        append(unsupportedGroup(), outOfBand(CMP_IPP_TAG_UNSUPPORTED, name.c_str()));
    }
    void unsupportedValue(const cmp_ipp_attrs& group, const Span& span) {
        copySpan(group, span, unsupportedGroup());
    }
    void unsupportedOp(const char* name) {
        for (const Span& s : topLevel(m_reqOp)) {
            if (s.name == name) return unsupportedValue(m_reqOp, s);
        }
    }

    // ---- checks ----
    bool checkOperationAttrs();
    bool requirePrinterUri();
    bool targetJob(int32_t* id);
    bool checkDocument();
    bool checkTemplate(std::vector<cmp_ipp_attr>* accepted, std::set<std::string>* names);
    // What Validate-Job, Print-Job and Create-Job check alike; false when the request failed.
    bool checkJobRequest(std::vector<cmp_ipp_attr>* accepted, std::set<std::string>* names);
    bool valueSupported(const TemplateRule& rule, const cmp_ipp_attrs& g, const Span& s) const;
    bool mediaColSupported(const cmp_ipp_attrs& g, const Span& s) const;
    bool finishingsColSupported(const cmp_ipp_attrs& g, const Span& s) const;
    // The first top-level printer attribute of that name, found through the wire
    // form's index (the attributes never change once the printer is built).
    const cmp_ipp_attr* printerAttr(const char* name) const {
        const attrs::EncodedAttrs& e = m_p.m_encodedAttrs->encoded;
        const int32_t i = e.indexOf(name);
        return i < 0 ? nullptr : &m_p.m_obj.m_attrs[e[static_cast<size_t>(i)].first];
    }
    bool inList(const char* supported, const std::string& value) const {
        const cmp_ipp_attr* a = printerAttr(supported);
        return a != nullptr && a->cmp_ipp_attr_contains_value_of(value.c_str()) != 0;
    }
    bool inList(const char* supported, int32_t value) const {
        const cmp_ipp_attr* a = printerAttr(supported);
        return a != nullptr && a->cmp_ipp_attr_contains_value_of(value) != 0;
    }

    // ---- operations ----
    void createJob(bool withDocument);
    void validateJob();
    void sendDocument();
    void cancelJob();
    void holdJob();
    void releaseJob();
    void cancelMyJobs();
    void closeJob();
    void getJobAttributes();
    void getJobs();
    void getPrinterAttributes();
    // The printer group built attribute by attribute.
    void printerGroup();
    // The printer group in wire form, kept in the response's document data
    // until reply() puts it in place.
    void encodedPrinterGroup();
    void identifyPrinter();

    // ---- job table (need m_mutex) ----
    Printer::Job* findLocked(int32_t id, int64_t now);
    // Ends a job as canceled or aborted.
    void endLocked(Printer::Job& job, JobState state, int64_t now);
    // Holds a waiting job, or lets it go on for "no-hold".
    void holdLocked(Printer::Job& job, const std::string& until, int64_t now);
    void pruneLocked();
    void jobSummaryLocked(const Printer::Job& job, cmp_ipp_attrs& out) const;
    void jobAttrsLocked(const Printer::Job& job, const Requested& r, cmp_ipp_attrs& out, int64_t now) const;
    // Opens the spool file of document doc and registers this stream as
    // writing it; false (job aborted, status set) when the file cannot be made.
    bool openDocumentLocked(Printer::Job& job, int32_t doc, const std::string& format, bool last, int64_t now);
    std::string compression() const { return opText("compression", "none"); }
    void writeFirstBlock();

    Printer& m_p;
    cmp_ipp_streamed_ctx* m_ctx;
    cmp_ipp_request& m_req;
    cmp_ipp_response& m_res;
    cmp_ipp_attrs& m_reqOp;
    int16_t m_op;
    std::set<std::string> m_rejected;  // operation attributes with values out of range
    bool m_ignored = false;            // something went to the unsupported group
};

}  // namespace refprinter

#endif
