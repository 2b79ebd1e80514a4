// The reference printer's IPP operations: request checks, job creation and
// document spooling, the queries, and job control.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cmp_ipp_refprinter.h"
#include "cmp_ipp_refprinter_attrs.h"
#include "cmp_ipp_refprinter_internal.h"
#include "containers/cmp_ipp_if.h"

namespace refprinter {

using namespace attrs;

namespace {

enum : uint16_t {
    kOk = 0x0000,
    kOkIgnored = 0x0001,
    kBadRequest = 0x0400,
    kNotAuthorized = 0x0403,
    kNotPossible = 0x0404,
    kNotFound = 0x0406,
    kFormatNotSupported = 0x040A,
    kValuesNotSupported = 0x040B,
    kCharsetNotSupported = 0x040D,
    kCompressionNotSupported = 0x040F,
    kInternalError = 0x0500,
    kNotAccepting = 0x0506,
    kBusy = 0x0507,
};

enum : int16_t {
    kPrintJob = 0x0002,
    kValidateJob = 0x0004,
    kCreateJob = 0x0005,
    kSendDocument = 0x0006,
    kCancelJob = 0x0008,
    kGetJobAttributes = 0x0009,
    kGetJobs = 0x000A,
    kGetPrinterAttributes = 0x000B,
    kHoldJob = 0x000C,
    kReleaseJob = 0x000D,
    kCancelMyJobs = 0x0039,
    kCloseJob = 0x003B,
    kIdentifyPrinter = 0x003C,
};

// A header field's text as the transport hands it over: up to 2023 characters
// and the terminator.
const size_t kFieldText = 2024;

// Terminal jobs kept for Get-Jobs; older ones are forgotten.
const size_t kKeptTerminalJobs = 200;

bool successful(uint16_t status) { return status <= 0x00FF; }

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

bool writeAll(int fd, const unsigned char* p, size_t n) {
    while (n > 0) {
        const ssize_t w = ::write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

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

// Printer attributes that describe job template attributes ("copies-default",
// "media-col-ready", "media-source-supported", ...): the "job-template" group.
bool isJobTemplatePrinterAttr(const std::string& name) {
    static const std::set<std::string> bases{
        "copies", "finishings", "finishings-col", "job-hold-until", "job-priority", "job-sheets", "media",
        "media-col", "multiple-document-handling", "number-up", "orientation-requested", "output-bin",
        "overrides", "page-ranges", "print-color-mode", "print-content-optimize", "print-quality",
        "print-rendering-intent", "print-scaling", "printer-resolution", "sides", "finishing-template",
        "media-bottom-margin", "media-left-margin", "media-right-margin", "media-top-margin", "media-size",
        "media-source", "media-type"};
    for (const char* suffix : {"-default", "-supported", "-ready", "-database"}) {
        const size_t n = std::strlen(suffix);
        if (name.size() > n && name.compare(name.size() - n, n, suffix) == 0 &&
            bases.count(name.substr(0, name.size() - n)) != 0)
            return true;
    }
    return false;
}

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

namespace {

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

std::string nameOf(const cmp_ipp_attr& a) { return a.cmp_ipp_attr_get_name(); }

bool isIntTag(int32_t tag) { return tag == CMP_IPP_TAG_INTEGER || tag == CMP_IPP_TAG_ENUM; }

enum class Rule { IntInRange, IntInList, KeywordInList, ResolutionInList, Priority, PageRanges, MediaCol,
                  FinishingsCol, Any };

struct TemplateRule {
    const char* name;
    Rule rule;
    const char* supported;  // the printer attribute listing the supported values
    bool multiValued;
};

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

// ---------------------------------------------------------------------------------
// Life of a stream

void Operations::prepare() {
    // Every response opens with these two, errors from the decoder included.
    std::string charset = "utf-8";
    if (m_reqOp.count() > 0 && nameOf(m_reqOp[0]) == "attributes-charset" && m_reqOp[0].m_numValues > 0) {
        const std::string asked = lower(textOf(m_reqOp[0]));
        if (inList("charset-supported", asked)) charset = asked;
    }
    cmp_ipp_attrs& op = *m_res.getAttrGroup("Op");
    append(op, text(CMP_IPP_TAG_CHARSET, "attributes-charset", charset));
    append(op, text(CMP_IPP_TAG_LANGUAGE, "attributes-natural-language", "en"));
}

void Operations::process() {
    // RFC 8011 4.1.1: 1 to 2^31-1. The decoder refuses 0; a value above 2^31-1
    // reads as negative here.
    if (m_req.m_requestId <= 0) return fail(kBadRequest, "request-id must be between 1 and 2147483647.");
    if (!checkOperationAttrs()) return;
    switch (m_op) {
    case kPrintJob: createJob(true); break;
    case kValidateJob: validateJob(); break;
    case kCreateJob: createJob(false); break;
    case kSendDocument: sendDocument(); break;
    case kCancelJob: cancelJob(); break;
    case kHoldJob: holdJob(); break;
    case kReleaseJob: releaseJob(); break;
    case kGetJobAttributes: getJobAttributes(); break;
    case kGetJobs: getJobs(); break;
    case kGetPrinterAttributes: getPrinterAttributes(); break;
    case kCancelMyJobs: cancelMyJobs(); break;
    case kCloseJob: closeJob(); break;
    case kIdentifyPrinter: identifyPrinter(); break;
    default: fail(0x0501, "Operation not supported."); return;
    }
    if (m_ignored && m_res.getStatusCode() == kOk) m_res.setStatusCode(kOkIgnored);
}

uint32_t Operations::data(const cmp_ipp_buf& block) {
    Printer::Stream* s = nullptr;
    int fd = -1;
    {
        std::lock_guard<std::mutex> lock(m_p.m_mutex);
        auto it = m_p.m_streams.find(m_ctx);
        // Data a request does not need (a query with a body, a canceled job's
        // document) is taken and dropped.
        if (it == m_p.m_streams.end() || it->second->fd < 0) return 0;
        s = it->second.get();
        const Printer::Job* job = m_p.findJobLocked(s->jobId);
        if (job == nullptr || isTerminal(job->state)) {
            ::close(s->fd);
            s->fd = -1;
            return 0;
        }
        fd = s->fd;
    }
    // Written outside the lock: only this stream touches its own file.
    const bool written = writeAll(fd, block.data(), block.length());
    const int writeErrno = errno;
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    const int64_t now = m_p.nowMs();
    Printer::Job* job = m_p.findJobLocked(s->jobId);
    if (written) {
        s->bytes += block.length();
        if (job != nullptr) job->octets += block.length();
        return 0;
    }
    ::close(s->fd);
    s->fd = -1;
    s->failed = true;
    if (job != nullptr && !isTerminal(job->state)) endLocked(*job, JobState::Aborted, now);
    // Set before refusing, so the library keeps this status rather than its own.
    fail(kInternalError, std::string("Unable to write the document: ") + std::strerror(writeErrno));
    return 1;
}

// The library aborts a stream whose body did not arrive whole (the client
// dropped the upload, the connection broke). A job whose document (or whose
// creation reply) never got through is of no use: it ends aborted, telling the
// client why, and the part of the document that came is not kept.
void Operations::abort() {
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    auto it = m_p.m_streams.find(m_ctx);
    if (it == m_p.m_streams.end()) return;
    Printer::Stream& s = *it->second;
    const int64_t now = m_p.nowMs();
    if (s.fd >= 0) ::close(s.fd);
    Printer::Job* job = m_p.findJobLocked(s.jobId);
    if (s.document && s.fd >= 0) {
        ::unlink(s.path.c_str());
        if (job != nullptr) {
            auto f = std::find(job->files.begin(), job->files.end(), s.path);
            if (f != job->files.end()) job->files.erase(f);
            job->octets -= std::min<uint64_t>(job->octets, s.bytes);
        }
    }
    if (job != nullptr) {
        if (s.document) --job->openStreams;
        if (!isTerminal(job->state)) {
            job->interrupted = true;
            endLocked(*job, JobState::Aborted, now);
        }
    }
    m_p.m_streams.erase(it);
}

void Operations::finish() {
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    auto it = m_p.m_streams.find(m_ctx);
    if (it == m_p.m_streams.end()) return;
    const std::unique_ptr<Printer::Stream> s = std::move(it->second);
    m_p.m_streams.erase(it);
    const int64_t now = m_p.nowMs();
    Printer::Job* job = m_p.findJobLocked(s->jobId);
    if (s->fd >= 0 && ::close(s->fd) != 0 && !s->failed) {
        s->failed = true;
        if (job != nullptr && !isTerminal(job->state)) endLocked(*job, JobState::Aborted, now);
    }
    if (job == nullptr) return;
    if (s->document) {
        --job->openStreams;
        // "last-document" with no data only closes the job: no empty document.
        if (s->op == kSendDocument && s->lastDocument && s->bytes == 0 && !s->failed) {
            ::unlink(s->path.c_str());
            auto f = std::find(job->files.begin(), job->files.end(), s->path);
            if (f != job->files.end()) job->files.erase(f);
            --job->documents;
        }
        if (s->lastDocument) job->lastDocument = true;
    }
    job->lastActivityMs = now;
    if (job->state == JobState::Pending && job->lastDocument && job->openStreams == 0) job->readyMs = now;
    m_p.advanceLocked(now);
    if (successful(m_res.getStatusCode())) jobSummaryLocked(*job, *m_res.cmp_ipp_msg_get_job_attrs(0));
}

// ---------------------------------------------------------------------------------
// Checks

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

// ---------------------------------------------------------------------------------
// Job table

Printer::Job* Operations::findLocked(int32_t id, int64_t now) {
    m_p.advanceLocked(now);
    return m_p.findJobLocked(id);
}

void Operations::endLocked(Printer::Job& job, JobState state, int64_t now) {
    if (job.state == JobState::Processing) {
        // The processor is free from now on, not from the planned end.
        m_p.m_lastFinishMs = now;
        m_p.m_stateChangeMs = now;
    }
    job.state = state;
    job.completedMs = now;
}

void Operations::holdLocked(Printer::Job& job, const std::string& until, int64_t now) {
    job.holdUntil = until;
    job.templateNames.insert("job-hold-until");
    if (until != "no-hold") {
        job.state = JobState::PendingHeld;
        return;
    }
    const bool wasHeld = job.state == JobState::PendingHeld;
    job.state = JobState::Pending;
    // Its documents may have been in for long; processing starts no earlier than the release.
    if (wasHeld && job.lastDocument && job.openStreams == 0) job.readyMs = now;
    m_p.advanceLocked(now);
}

void Operations::pruneLocked() {
    size_t terminal = 0;
    for (const auto& j : m_p.m_jobs) {
        if (isTerminal(j.second->state)) ++terminal;
    }
    for (auto it = m_p.m_jobs.begin(); it != m_p.m_jobs.end() && terminal > kKeptTerminalJobs;) {
        if (isTerminal(it->second->state) && it->second->openStreams == 0) {
            it = m_p.m_jobs.erase(it);
            --terminal;
        } else {
            ++it;
        }
    }
}

void Operations::jobSummaryLocked(const Printer::Job& job, cmp_ipp_attrs& out) const {
    append(out, integer("job-id", job.id));
    append(out, text(CMP_IPP_TAG_URI, "job-uri", m_p.jobUri(job.id)));
    append(out, enums("job-state", {static_cast<int32_t>(job.state)}));
    append(out, texts(CMP_IPP_TAG_KEYWORD, "job-state-reasons", jobReasons(job.state, job.lastDocument, job.interrupted)));
    append(out, text(CMP_IPP_TAG_TEXT, "job-state-message", jobMessage(job.state, job.interrupted)));
}

void Operations::jobAttrsLocked(const Printer::Job& job, const Requested& r, cmp_ipp_attrs& out, int64_t now) const {
    m_p.jobAttrsLocked(job, out, now, [&](const char* name) {
        const std::string n(name);
        return r.wants(n, [&] { return job.templateNames.count(n) != 0; });
    });
}

bool Operations::openDocumentLocked(Printer::Job& job, int32_t doc, const std::string& format, bool last,
                                    int64_t now) {
    const std::string path = m_p.spoolPath(job.id, doc, format, compression());
    // Documents are for the printer alone: 0600 whatever the umask, also for a
    // file left by an earlier run (job ids start at 1 again).
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    struct stat st;
    if (fd >= 0 && fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 077) != 0) (void)fchmod(fd, 0600);
    if (fd < 0) {
        endLocked(job, JobState::Aborted, now);
        fail(kInternalError, "Unable to create the spool file: " + std::string(std::strerror(errno)));
        return false;
    }
    std::unique_ptr<Printer::Stream> s(new Printer::Stream());
    s->op = m_op;
    s->jobId = job.id;
    s->fd = fd;
    s->path = path;
    s->document = true;
    s->lastDocument = last;
    m_p.m_streams[m_ctx] = std::move(s);
    job.files.push_back(path);
    job.documents = doc;
    ++job.openStreams;
    if (job.format.empty()) job.format = format;
    job.lastActivityMs = now;
    return true;
}

// Document bytes that came in the request's first block, after the attributes.
// A failed write has aborted the job and set the status: the library then
// refuses the rest of the data.
void Operations::writeFirstBlock() {
    if (m_req.m_docData.length() != 0) (void)data(m_req.m_docData);
}

// ---------------------------------------------------------------------------------
// Operations

bool Operations::checkJobRequest(std::vector<cmp_ipp_attr>* accepted, std::set<std::string>* names) {
    if (!requirePrinterUri() || !checkDocument()) return false;
    const bool allSupported = checkTemplate(accepted, names);
    if (!allSupported && opBool("ipp-attribute-fidelity", false)) {
        fail(kValuesNotSupported, "Unsupported job template attributes.");
        return false;
    }
    m_ignored = m_ignored || !allSupported;
    return true;
}

void Operations::validateJob() {
    std::vector<cmp_ipp_attr> accepted;
    std::set<std::string> names;
    if (!checkJobRequest(&accepted, &names)) return;
    {
        std::lock_guard<std::mutex> lock(m_p.m_mutex);
        if (!m_p.m_accepting) return fail(kNotAccepting, "The printer is not accepting jobs.");
    }
}

void Operations::createJob(bool withDocument) {
    std::vector<cmp_ipp_attr> accepted;
    std::set<std::string> names;
    if (!checkJobRequest(&accepted, &names)) return;
    std::string holdUntil;
    for (auto it = accepted.begin(); it != accepted.end(); ++it) {
        if (it->m_type != CMP_IPP_TAG_MEMBERNAME && nameOf(*it) == "job-hold-until") {
            holdUntil = textOf(*it);
            accepted.erase(it);
            break;
        }
    }
    const std::string documentName = opText("document-name");
    const std::string format = documentFormat();
    {
        std::lock_guard<std::mutex> lock(m_p.m_mutex);
        if (!m_p.m_accepting) return fail(kNotAccepting, "The printer is not accepting jobs.");
        // Ids are never reused: jobs are kept, processed and pruned in id order.
        if (m_p.m_nextJobId > INT32_MAX) return fail(kNotAccepting, "The printer has no job ids left.");
        const int64_t now = m_p.nowMs();
        m_p.advanceLocked(now);
        pruneLocked();
        std::unique_ptr<Printer::Job> owned(new Printer::Job());
        Printer::Job& job = *owned;
        job.id = static_cast<int32_t>(m_p.m_nextJobId++);
        job.uuid =
            uuidFrom(m_p.m_config.uuid + "|" + std::to_string(m_p.m_startWall) + "|" + std::to_string(job.id));
        job.name = opText("job-name", documentName.empty() ? "Untitled" : documentName);
        job.user = user();
        job.documentName = documentName;
        job.templateAttrs = std::move(accepted);
        job.templateNames = std::move(names);
        job.createdMs = now;
        job.lastActivityMs = now;
        if (!holdUntil.empty()) holdLocked(job, holdUntil, now);
        m_p.m_jobs[job.id] = std::move(owned);
        if (withDocument) {
            if (!openDocumentLocked(job, 1, format, true, now)) return;
        } else {
            // No document yet; the record lets the reply carry the job, and an
            // aborted reply abort it.
            std::unique_ptr<Printer::Stream> s(new Printer::Stream());
            s->op = m_op;
            s->jobId = job.id;
            m_p.m_streams[m_ctx] = std::move(s);
        }
    }
    writeFirstBlock();
}

void Operations::sendDocument() {
    int32_t id = 0;
    if (!targetJob(&id)) return;
    const cmp_ipp_attr* last = opAttr("last-document");
    if (last == nullptr || last->m_type != CMP_IPP_TAG_BOOLEAN || last->m_numValues != 1) {
        return fail(kBadRequest, "Missing last-document.");
    }
    if (!checkDocument()) return;
    {
        std::lock_guard<std::mutex> lock(m_p.m_mutex);
        const int64_t now = m_p.nowMs();
        Printer::Job* job = findLocked(id, now);
        if (job == nullptr) return fail(kNotFound, "No such job.");
        if (!isWaiting(job->state) || job->lastDocument) {
            return fail(kNotPossible, "The job takes no further documents.");
        }
        if (job->openStreams > 0) return fail(kBusy, "Another document of this job is still arriving.");
        if (!openDocumentLocked(*job, job->documents + 1, documentFormat(), wordOf(*last) != 0, now)) return;
    }
    writeFirstBlock();
}

void Operations::cancelJob() {
    int32_t id = 0;
    if (!targetJob(&id)) return;
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    const int64_t now = m_p.nowMs();
    Printer::Job* job = findLocked(id, now);
    if (job == nullptr) return fail(kNotFound, "No such job.");
    if (isTerminal(job->state)) {
        return fail(kNotPossible, std::string("The job is already ") +
                                      (job->state == JobState::Completed  ? "completed."
                                       : job->state == JobState::Canceled ? "canceled."
                                                                          : "aborted."));
    }
    endLocked(*job, JobState::Canceled, now);
    m_p.advanceLocked(now);
}

void Operations::holdJob() {
    int32_t id = 0;
    if (!targetJob(&id)) return;
    const std::string until = opText("job-hold-until", "indefinite");
    if (!inList("job-hold-until-supported", until)) {
        unsupportedOp("job-hold-until");
        return fail(kValuesNotSupported, "Unsupported job-hold-until.");
    }
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    const int64_t now = m_p.nowMs();
    Printer::Job* job = findLocked(id, now);
    if (job == nullptr) return fail(kNotFound, "No such job.");
    if (!isWaiting(job->state)) return fail(kNotPossible, "Only a job that has not started printing can be held.");
    holdLocked(*job, until, now);
}

void Operations::releaseJob() {
    int32_t id = 0;
    if (!targetJob(&id)) return;
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    const int64_t now = m_p.nowMs();
    Printer::Job* job = findLocked(id, now);
    if (job == nullptr) return fail(kNotFound, "No such job.");
    if (job->state != JobState::PendingHeld) return fail(kNotPossible, "The job is not held.");
    holdLocked(*job, "no-hold", now);
}

void Operations::cancelMyJobs() {
    if (!requirePrinterUri()) return;
    const std::string owner = user();
    const cmp_ipp_attr* ids = opAttr("job-ids");
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    const int64_t now = m_p.nowMs();
    m_p.advanceLocked(now);
    std::vector<Printer::Job*> chosen;
    if (ids != nullptr) {
        for (int32_t i = 0; i < ids->m_numValues; ++i) {
            Printer::Job* job = m_p.findJobLocked(wordOf(*ids, i));
            if (job == nullptr) return fail(kNotFound, "No such job.");
            if (job->user != owner) return fail(kNotAuthorized, "Not your job.");
            if (isTerminal(job->state)) return fail(kNotPossible, "The job is already finished.");
            chosen.push_back(job);
        }
    } else {
        for (auto& j : m_p.m_jobs) {
            if (j.second->user == owner && !isTerminal(j.second->state)) chosen.push_back(j.second.get());
        }
    }
    for (Printer::Job* job : chosen) endLocked(*job, JobState::Canceled, now);
    m_p.advanceLocked(now);
}

void Operations::closeJob() {
    int32_t id = 0;
    if (!targetJob(&id)) return;
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    const int64_t now = m_p.nowMs();
    Printer::Job* job = findLocked(id, now);
    if (job == nullptr) return fail(kNotFound, "No such job.");
    if (isTerminal(job->state)) return fail(kNotPossible, "The job is already finished.");
    job->lastDocument = true;
    job->lastActivityMs = now;
    if (job->state == JobState::Pending && job->openStreams == 0) job->readyMs = now;
    m_p.advanceLocked(now);
    jobSummaryLocked(*job, *m_res.cmp_ipp_msg_get_job_attrs(0));
}

void Operations::getJobAttributes() {
    int32_t id = 0;
    if (!targetJob(&id)) return;
    const Requested r = requested(true);
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    const int64_t now = m_p.nowMs();
    const Printer::Job* job = findLocked(id, now);
    if (job == nullptr) return fail(kNotFound, "No such job.");
    jobAttrsLocked(*job, r, *m_res.cmp_ipp_msg_get_job_attrs(0), now);
}

void Operations::getJobs() {
    if (!requirePrinterUri()) return;
    const std::string which = opText("which-jobs", "not-completed");
    if (!inList("which-jobs-supported", which)) {
        unsupportedOp("which-jobs");
        return fail(kValuesNotSupported, "Unsupported which-jobs.");
    }
    const bool mine = opBool("my-jobs", false);
    const std::string owner = user();
    const cmp_ipp_attr* limitAttr = opAttr("limit");
    const cmp_ipp_attr* firstAttr = opAttr("first-index");
    const size_t limit = limitAttr != nullptr ? static_cast<size_t>(wordOf(*limitAttr)) : SIZE_MAX;
    const size_t first = firstAttr != nullptr ? static_cast<size_t>(wordOf(*firstAttr)) : 1;
    const Requested r = requested(true);

    auto matches = [&which](JobState s) {
        if (which == "all") return true;
        if (which == "completed") return isTerminal(s);
        if (which == "not-completed") return !isTerminal(s);
        if (which == "aborted") return s == JobState::Aborted;
        if (which == "canceled") return s == JobState::Canceled;
        if (which == "pending") return s == JobState::Pending;
        if (which == "pending-held") return s == JobState::PendingHeld;
        if (which == "processing") return s == JobState::Processing || s == JobState::ProcessingStopped;
        return false;
    };
    std::lock_guard<std::mutex> lock(m_p.m_mutex);
    const int64_t now = m_p.nowMs();
    m_p.advanceLocked(now);
    std::vector<const Printer::Job*> list;
    for (const auto& j : m_p.m_jobs) {
        const Printer::Job& job = *j.second;
        if (matches(job.state) && (!mine || job.user == owner)) list.push_back(&job);
    }
    // Active jobs in the order they will print, then finished ones, latest first.
    std::stable_sort(list.begin(), list.end(), [](const Printer::Job* a, const Printer::Job* b) {
        const bool ta = isTerminal(a->state), tb = isTerminal(b->state);
        if (ta != tb) return !ta;
        if (!ta) return a->id < b->id;
        if (a->completedMs != b->completedMs) return a->completedMs > b->completedMs;
        return a->id > b->id;
    });
    int k = 0;
    for (size_t i = first - 1; i < list.size() && static_cast<size_t>(k) < limit; ++i) {
        jobAttrsLocked(*list[i], r, *m_res.cmp_ipp_msg_get_job_attrs(k++), now);
    }
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

// ---------------------------------------------------------------------------------
// Handler

void Handler::prepareRequest(cmp_ipp_streamed_ctx* ctx, void*) { Operations(m_printer, ctx).prepare(); }

void Handler::processRequest(cmp_ipp_streamed_ctx* ctx, void*) { Operations(m_printer, ctx).process(); }

uint32_t Handler::streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data, void*) {
    return Operations(m_printer, ctx).data(data);
}

void Handler::abortRequest(cmp_ipp_streamed_ctx* ctx, void*) { Operations(m_printer, ctx).abort(); }

cmp_ipp_buf Handler::finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t fmt, void*) {
    if (ctx != nullptr) Operations(m_printer, ctx).finish();
    if (fmt == cmp_ipp_manager::CMP_IPP_REPLY_FMT_HTML) {
        // The front end says which page in the request's URI field; the
        // library's own callers name none and get the attribute page.
        std::string path;
        if (ctx != nullptr) {
            unsigned char uri[kFieldText] = {0};
            if (ctx->m_request.cmp_ipp_msg_get_if_data(CMP_IPP_IF_HDR_REQUEST_URI, uri))
                path.assign(reinterpret_cast<const char*>(uri), strnlen(reinterpret_cast<const char*>(uri), sizeof uri));
        }
        std::string page;
        if (!m_printer.webPage(path, &page)) {
            if (ctx != nullptr) ctx->m_response.cmp_ipp_msg_set_if_reply_code(CMP_IPP_IF_RC_NOT_FOUND);
            page = "Not Found";
        }
        return cmp_ipp_buf(page.c_str(), true);
    }
    if (ctx == nullptr) return cmp_ipp_buf(true);
    ctx->m_response.cmp_ipp_res_convert_to_version();
    return Operations(m_printer, ctx).reply();
}

}  // namespace refprinter
