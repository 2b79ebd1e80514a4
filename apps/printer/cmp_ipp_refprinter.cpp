// The reference printer: its attribute set, job table and life cycle.
#include "cmp_ipp_refprinter.h"

#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "cmp_ipp_refprinter_attrs.h"
#include "cmp_ipp_refprinter_internal.h"
#include "service/cmp_ipp_facade.h"
#include "service/cmp_ipp_ippc.h"

namespace refprinter {

using namespace attrs;

namespace {

// "scheme://authority/path" -> "authority"; the whole text when it has no "//".
std::string authorityOf(const std::string& uri) {
    const size_t start = uri.find("//");
    if (start == std::string::npos) return uri;
    const size_t end = uri.find('/', start + 2);
    return uri.substr(start + 2, end == std::string::npos ? std::string::npos : end - start - 2);
}

std::string htmlEscape(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '&': out += "&amp;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

struct MediaSize {
    const char* name;
    int32_t x;  // hundredths of a millimetre
    int32_t y;
};

const MediaSize kMedia[] = {
    {"na_letter_8.5x11in", 21590, 27940}, {"na_legal_8.5x14in", 21590, 35560},
    {"iso_a4_210x297mm", 21000, 29700},   {"iso_a5_148x210mm", 14800, 21000},
    {"na_index-4x6_4x6in", 10160, 15240},
};

const int32_t kMargin = 423;  // 1/6 inch, in hundredths of a millimetre

// What the engine prints at and so what raster it takes: draft, normal, best.
const std::vector<int32_t> kResolutionsDpi{150, 300, 600};

struct Supply {
    const char* colorant;
    const char* description;
    int level;  // percent
};
const Supply kToners[] = {{"black", "Black Toner", 80},
                          {"cyan", "Cyan Toner", 65},
                          {"magenta", "Magenta Toner", 70},
                          {"yellow", "Yellow Toner", 55}};

void mediaCol(Collection& c, const char* valueName, const MediaSize& m, const char* source, const char* type) {
    c.begin(valueName);
    c.keyword("media-size-name", m.name);
    c.memberCollection("media-size").begin("").integer("x-dimension", m.x).integer("y-dimension", m.y).end();
    c.integer("media-bottom-margin", kMargin).integer("media-left-margin", kMargin);
    c.integer("media-right-margin", kMargin).integer("media-top-margin", kMargin);
    if (source != nullptr) c.keyword("media-source", source);
    if (type != nullptr) c.keyword("media-type", type);
    c.end();
}

}  // namespace

// Name-based, so a printer keeps its UUID across restarts.
std::string uuidFrom(const std::string& seed) {
    uint64_t h1 = 1469598103934665603ull;
    uint64_t h2 = 1099511628211ull;
    for (unsigned char c : seed) {
        h1 = (h1 ^ c) * 1099511628211ull;
        h2 = (h2 + c) * 6364136223846793005ull + 1442695040888963407ull;
    }
    char out[64];
    snprintf(out, sizeof out, "urn:uuid:%08x-%04x-%04x-%04x-%012llx", static_cast<unsigned>(h1 >> 32),
             static_cast<unsigned>((h1 >> 16) & 0xFFFF), static_cast<unsigned>(0x5000 | (h1 & 0x0FFF)),
             static_cast<unsigned>(0x8000 | (h2 >> 50)), static_cast<unsigned long long>(h2 & 0xFFFFFFFFFFFFull));
    return out;
}

std::vector<std::string> jobReasons(JobState state, bool lastDocument, bool interrupted) {
    switch (state) {
    case JobState::Pending: return {lastDocument ? "none" : "job-incoming"};
    case JobState::PendingHeld:
        if (lastDocument) return {"job-hold-until-specified"};
        return {"job-hold-until-specified", "job-incoming"};
    case JobState::Processing: return {"job-printing"};
    case JobState::ProcessingStopped: return {"printer-stopped"};
    case JobState::Canceled: return {"job-canceled-by-user"};
    case JobState::Aborted:
        if (interrupted) return {"aborted-by-system", "submission-interrupted"};
        return {"aborted-by-system"};
    case JobState::Completed: return {"job-completed-successfully"};
    default: return {"none"};
    }
}

const char* jobMessage(JobState state, bool interrupted) {
    if (state == JobState::Aborted && interrupted) return "Job aborted: the document did not arrive completely.";
    switch (state) {
    case JobState::Pending: return "Job pending.";
    case JobState::Processing: return "Job printing.";
    case JobState::Canceled: return "Job canceled.";
    case JobState::Aborted: return "Job aborted.";
    case JobState::Completed: return "Job completed.";
    case JobState::PendingHeld: return "Job held.";
    case JobState::ProcessingStopped: return "Job stopped.";
    default: return "";
    }
}

Printer::Printer(Config config) : m_config(std::move(config)), m_handler(*this) {
    if (!m_config.clockMs) {
        m_config.clockMs = [] {
            return static_cast<int64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                            std::chrono::steady_clock::now().time_since_epoch())
                                            .count());
        };
    }
    if (m_config.uris.empty()) m_config.uris.push_back("ipp://localhost:631/ipp/print");
    if (m_config.uuid.empty()) m_config.uuid = uuidFrom(m_config.name + "|" + m_config.uris[0]);
    m_startMs = m_config.clockMs();
    m_startWall = m_config.wallClockS ? m_config.wallClockS() : static_cast<int64_t>(time(nullptr));
    m_nextJobId = m_config.firstJobId > 0 ? m_config.firstJobId : 1;
    m_stateChangeMs = m_startMs;
    m_lastFinishMs = m_startMs;
    const std::string& first = m_config.uris[0];
    const std::string authority = authorityOf(first);
    m_webBase = (first.compare(0, 5, "ipps:") == 0 ? "https://" : "http://") + authority + "/";
    const size_t scheme = first.find("//");
    const size_t path = scheme == std::string::npos ? std::string::npos : first.find('/', scheme + 2);
    m_printerPath = path == std::string::npos ? "/" : first.substr(path);
    m_obj.setName(m_config.name.c_str());
    buildAttributes();
    m_encodedAttrs = encodePrinterAttrs(m_obj.m_attrs, true);
    buildPageParts();
}

Printer::~Printer() {
    stop();
    for (auto& s : m_streams) {
        if (s.second->fd >= 0) ::close(s.second->fd);
    }
}

void Printer::buildAttributes() {
    cmp_ipp_attrs& a = m_obj.m_attrs;
    const std::string& web = m_webBase;
    std::vector<std::string> security;
    std::vector<std::string> authentication;
    for (const std::string& u : m_config.uris) {
        security.push_back(u.compare(0, 5, "ipps:") == 0 ? "tls" : "none");
        authentication.push_back(m_config.uriAuthentication.empty() ? "none" : m_config.uriAuthentication);
    }

    append(a, texts(CMP_IPP_TAG_CHARSET, "charset-configured", {"utf-8"}));
    append(a, texts(CMP_IPP_TAG_CHARSET, "charset-supported", {"us-ascii", "utf-8"}));
    append(a, boolean("color-supported", true));
    // Compressed documents are spooled as they come; whatever renders them inflates them.
    append(a, texts(CMP_IPP_TAG_KEYWORD, "compression-supported", {"none", "deflate", "gzip"}));
    append(a, integer("copies-default", 1));
    append(a, range("copies-supported", 1, 999));
    append(a, texts(CMP_IPP_TAG_MIMETYPE, "document-format-default", {"application/octet-stream"}));
    append(a, texts(CMP_IPP_TAG_MIMETYPE, "document-format-supported",
                    {"application/octet-stream", "application/pdf", "application/postscript", "image/jpeg",
                     "image/pwg-raster", "text/plain"}));
    append(a, enums("finishings-default", {3}));
    append(a, enums("finishings-supported", {3}));
    append(a, enums("finishings-ready", {3}));
    {
        Collection c;
        c.begin("finishings-col-default").keyword("finishing-template", "none").end();
        c.begin("finishings-col-ready").keyword("finishing-template", "none").end();
        c.begin("finishings-col-database").keyword("finishing-template", "none").end();
        c.appendTo(a);
    }
    append(a, texts(CMP_IPP_TAG_KEYWORD, "finishings-col-supported", {"finishing-template"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "finishing-template-supported", {"none"}));
    append(a, texts(CMP_IPP_TAG_LANGUAGE, "generated-natural-language-supported", {"en"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "identify-actions-default", {"sound"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "identify-actions-supported", {"display", "sound"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "ipp-features-supported", {"ipp-everywhere"}));
    // The decoder negotiates against these "major.minor" texts.
    append(a, texts(CMP_IPP_TAG_KEYWORD, "ipp-versions-supported", {"1.0", "1.1", "2.0"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "job-creation-attributes-supported",
                    {"copies", "finishings", "finishings-col", "ipp-attribute-fidelity", "job-hold-until", "job-name",
                     "job-priority", "job-sheets", "media", "media-col", "multiple-document-handling", "number-up",
                     "orientation-requested", "output-bin", "overrides", "page-ranges", "print-color-mode",
                     "print-content-optimize", "print-quality", "print-rendering-intent", "print-scaling",
                     "printer-resolution", "sides"}));
    // Only holds that a client ends itself: a held job waits for Release-Job.
    append(a, texts(CMP_IPP_TAG_KEYWORD, "job-hold-until-default", {"no-hold"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "job-hold-until-supported", {"no-hold", "indefinite"}));
    append(a, boolean("job-ids-supported", true));
    append(a, range("job-k-octets-supported", 0, 2097151));
    append(a, integer("job-priority-default", 50));
    append(a, integer("job-priority-supported", 100));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "job-sheets-default", {"none"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "job-sheets-supported", {"none", "standard"}));
    append(a, ints(CMP_IPP_TAG_INTEGER, "media-bottom-margin-supported", {kMargin}));
    append(a, ints(CMP_IPP_TAG_INTEGER, "media-left-margin-supported", {kMargin}));
    append(a, ints(CMP_IPP_TAG_INTEGER, "media-right-margin-supported", {kMargin}));
    append(a, ints(CMP_IPP_TAG_INTEGER, "media-top-margin-supported", {kMargin}));
    {
        Collection db;
        bool first = true;
        for (const MediaSize& m : kMedia) {
            mediaCol(db, first ? "media-col-database" : "", m, nullptr, nullptr);
            first = false;
        }
        db.appendTo(a);
        Collection c;
        mediaCol(c, "media-col-default", kMedia[0], "main", "stationery");
        mediaCol(c, "media-col-ready", kMedia[0], "main", "stationery");
        mediaCol(c, "", kMedia[2], "manual", "stationery");
        c.appendTo(a);
    }
    append(a, texts(CMP_IPP_TAG_KEYWORD, "media-col-supported",
                    {"media-bottom-margin", "media-left-margin", "media-right-margin", "media-size", "media-size-name",
                     "media-source", "media-top-margin", "media-type"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "media-default", {kMedia[0].name}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "media-ready", {kMedia[0].name, kMedia[2].name}));
    {
        std::vector<std::string> names;
        for (const MediaSize& m : kMedia) names.push_back(m.name);
        append(a, texts(CMP_IPP_TAG_KEYWORD, "media-supported", names));
        Collection sizes;
        bool first = true;
        for (const MediaSize& m : kMedia) {
            sizes.begin(first ? "media-size-supported" : "").integer("x-dimension", m.x).integer("y-dimension", m.y).end();
            first = false;
        }
        sizes.appendTo(a);
    }
    append(a, texts(CMP_IPP_TAG_KEYWORD, "media-source-supported", {"auto", "main", "manual"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "media-type-supported", {"auto", "envelope", "photographic", "stationery"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "multiple-document-handling-supported",
                    {"separate-documents-uncollated-copies", "separate-documents-collated-copies"}));
    append(a, boolean("multiple-document-jobs-supported", true));
    append(a, integer("multiple-operation-time-out", kMultipleOperationTimeOutS));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "multiple-operation-time-out-action", {"abort-job"}));
    append(a, texts(CMP_IPP_TAG_LANGUAGE, "natural-language-configured", {"en"}));
    append(a, integer("number-up-default", 1));
    append(a, ints(CMP_IPP_TAG_INTEGER, "number-up-supported", {1, 2, 4}));
    // The library refuses any operation missing here.
    append(a, enums("operations-supported", {0x0002, 0x0004, 0x0005, 0x0006, 0x0008, 0x0009, 0x000A, 0x000B, 0x000C,
                                             0x000D, 0x0039, 0x003B, 0x003C}));
    append(a, enums("orientation-requested-default", {3}));
    append(a, enums("orientation-requested-supported", {3, 4, 5, 6}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "output-bin-default", {"face-down"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "output-bin-supported", {"face-down"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "overrides-supported", {"document-number", "pages"}));
    append(a, boolean("page-ranges-supported", true));
    append(a, integer("pages-per-minute", 20));
    append(a, integer("pages-per-minute-color", 15));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "pdl-override-supported", {"attempted"}));
    append(a, boolean("preferred-attributes-supported", false));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "print-color-mode-default", {"auto"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "print-color-mode-supported", {"auto", "color", "monochrome"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "print-content-optimize-default", {"auto"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "print-content-optimize-supported",
                    {"auto", "graphic", "photo", "text", "text-and-graphic"}));
    append(a, enums("print-quality-default", {4}));
    append(a, enums("print-quality-supported", {3, 4, 5}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "print-rendering-intent-default", {"auto"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "print-rendering-intent-supported", {"auto", "perceptual", "relative"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "print-scaling-default", {"auto"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "print-scaling-supported", {"auto", "auto-fit", "fill", "fit", "none"}));
    append(a, dateTime("printer-config-change-date-time", static_cast<time_t>(m_startWall)));
    append(a, integer("printer-config-change-time", 1));
    append(a, text(CMP_IPP_TAG_TEXT, "printer-device-id", m_config.deviceId));
    append(a, outOfBand(CMP_IPP_TAG_UNKNOWN, "printer-geo-location"));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "printer-get-attributes-supported", {"document-format"}));
    // 48x48 and 128x128, served by the HTTP front end itself.
    append(a, texts(CMP_IPP_TAG_URI, "printer-icons", {web + "icon-sm.png", web + "icon.png"}));
    append(a, text(CMP_IPP_TAG_TEXT, "printer-info", m_config.info));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "printer-kind", {"document", "envelope", "photo"}));
    append(a, text(CMP_IPP_TAG_TEXT, "printer-location", m_config.location));
    append(a, text(CMP_IPP_TAG_TEXT, "printer-make-and-model", m_config.makeAndModel));
    append(a, text(CMP_IPP_TAG_URI, "printer-more-info", web));
    append(a, text(CMP_IPP_TAG_NAME, "printer-name", m_config.name));
    append(a, text(CMP_IPP_TAG_TEXT, "printer-organization", ""));
    append(a, text(CMP_IPP_TAG_TEXT, "printer-organizational-unit", ""));
    append(a, resolutions("printer-resolution-default", {600}));
    append(a, resolutions("printer-resolution-supported", kResolutionsDpi));
    {
        std::vector<std::string> supplies, descriptions;
        int index = 1;
        for (const Supply& t : kToners) {
            supplies.push_back("index=" + std::to_string(index++) +
                               ";class=supplyThatIsConsumed;type=toner;unit=percent;maxcapacity=100;level=" +
                               std::to_string(t.level) + ";colorantname=" + t.colorant + ";");
            descriptions.push_back(t.description);
        }
        append(a, octets("printer-supply", supplies));
        append(a, texts(CMP_IPP_TAG_TEXT, "printer-supply-description", descriptions));
    }
    append(a, text(CMP_IPP_TAG_URI, "printer-supply-info-uri", web));
    append(a, texts(CMP_IPP_TAG_URI, "printer-uri-supported", m_config.uris));
    append(a, text(CMP_IPP_TAG_URI, "printer-uuid", m_config.uuid));
    append(a, resolutions("pwg-raster-document-resolution-supported", kResolutionsDpi));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "pwg-raster-document-sheet-back", {"normal"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "pwg-raster-document-type-supported",
                    {"black_1", "cmyk_8", "sgray_8", "srgb_8", "srgb_16"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "sides-default", {"one-sided"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "sides-supported", {"one-sided", "two-sided-long-edge", "two-sided-short-edge"}));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "uri-authentication-supported", authentication));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "uri-security-supported", security));
    append(a, texts(CMP_IPP_TAG_KEYWORD, "which-jobs-supported",
                    {"completed", "not-completed", "all", "aborted", "canceled", "pending", "pending-held",
                     "processing"}));
}

bool Printer::start() {
    cmp_ipp_manager* m = cmp_ipp_manager::get();
    if (m->m_printer != nullptr && m->m_printer != &m_obj) return false;
    if (pn_ipp_start(&m_obj, &m_handler) != 1) return false;
    m_started = true;
    return true;
}

bool Printer::serve() {
    cmp_ipp_manager* m = cmp_ipp_manager::get();
    if (m->m_printer != nullptr && m->m_printer != &m_obj) return false;
    // The facade only traces a failure: what got registered tells.
    (void)cmp_ipp_init_wrap(&m_obj, &m_handler);
    if (m->m_printer != &m_obj || m->m_handler != &m_handler || IPPCGI_Enabled() == 0) return false;
    m_started = true;
    return true;
}

void Printer::stop() {
    if (!m_started) return;
    pn_ipp_stop(0, nullptr);
    // Both return once no request is still inside the handler or reading the
    // printer object: afterwards the library touches neither.
    cmp_ipp_manager* m = cmp_ipp_manager::get();
    m->unregisterPrinter(&m_obj);
    m->unregisterHandler(&m_handler);
    m_started = false;
}

int64_t Printer::nowMs() const { return m_config.clockMs(); }

int32_t Printer::upTime(int64_t ms) const { return static_cast<int32_t>((ms - m_startMs) / 1000) + 1; }

Printer::Job* Printer::findJobLocked(int32_t id) {
    auto it = m_jobs.find(id);
    return it == m_jobs.end() ? nullptr : it->second.get();
}

void Printer::advanceLocked(int64_t now) {
    const int64_t timeOutMs = static_cast<int64_t>(kMultipleOperationTimeOutS) * 1000;
    for (auto& j : m_jobs) {
        Job& job = *j.second;
        if (isWaiting(job.state) && !job.lastDocument && job.openStreams == 0 &&
            now - job.lastActivityMs >= timeOutMs) {
            job.state = JobState::Aborted;
            job.completedMs = job.lastActivityMs + timeOutMs;
        }
    }
    for (;;) {
        Job* current = nullptr;
        Job* next = nullptr;
        for (auto& j : m_jobs) {
            Job& job = *j.second;
            if (job.state == JobState::Processing) current = &job;
            if (next == nullptr && job.state == JobState::Pending && job.lastDocument && job.openStreams == 0) {
                next = &job;
            }
        }
        if (current != nullptr) {
            if (current->doneAtMs > now) return;
            current->state = JobState::Completed;
            current->completedMs = current->doneAtMs;
            m_lastFinishMs = current->doneAtMs;
            m_stateChangeMs = current->doneAtMs;
            continue;
        }
        if (next == nullptr) return;
        const int64_t start = next->readyMs > m_lastFinishMs ? next->readyMs : m_lastFinishMs;
        next->state = JobState::Processing;
        next->processingMs = start;
        next->doneAtMs = start + m_config.processingMs;
        m_stateChangeMs = start;
    }
}

Printer::StatusKey Printer::statusKeyLocked(int64_t now) const {
    StatusKey k;
    for (const auto& j : m_jobs) {
        const JobState s = j.second->state;
        if (s == JobState::Processing) k.printing = true;
        if (s == JobState::Pending || s == JobState::Processing || s == JobState::PendingHeld) ++k.queued;
    }
    k.elapsedS = (now - m_startMs) / 1000;
    k.stateChangeMs = m_stateChangeMs;
    k.accepting = m_accepting;
    return k;
}

// Made from the key alone, so that a key stands for its attributes.
void Printer::statusAttrsLocked(cmp_ipp_attrs& out, int64_t now) const {
    const StatusKey k = statusKeyLocked(now);
    append(out, dateTime("printer-current-time", static_cast<time_t>(m_startWall + k.elapsedS)));
    append(out, boolean("printer-is-accepting-jobs", k.accepting));
    append(out, enums("printer-state", {printerState(k)}));
    append(out, dateTime("printer-state-change-date-time",
                         static_cast<time_t>(m_startWall + (k.stateChangeMs - m_startMs) / 1000)));
    append(out, integer("printer-state-change-time", upTime(k.stateChangeMs)));
    append(out, text(CMP_IPP_TAG_TEXT, "printer-state-message", printerStateMessage(k)));
    append(out, texts(CMP_IPP_TAG_KEYWORD, "printer-state-reasons", printerStateReasons(k)));
    append(out, integer("printer-up-time", static_cast<int32_t>(k.elapsedS) + 1));
    append(out, integer("queued-job-count", k.queued));
}

std::shared_ptr<const EncodedPrinterAttrs> Printer::encodedStatusLocked(int64_t now) {
    const StatusKey k = statusKeyLocked(now);
    if (m_encodedStatus == nullptr || !(k == m_statusKey)) {
        cmp_ipp_attrs status;
        statusAttrsLocked(status, now);
        m_encodedStatus = encodePrinterAttrs(status, false);
        m_statusKey = k;
    }
    return m_encodedStatus;
}

void Printer::jobAttrsLocked(const Job& job, cmp_ipp_attrs& out, int64_t now,
                             const std::function<bool(const char*)>& keep) const {
    // Only what is kept is built: a job list usually wants two attributes of each job.
    auto wallOf = [this](int64_t ms) { return static_cast<time_t>(m_startWall + (ms - m_startMs) / 1000); };
    if (keep("job-id")) append(out, integer("job-id", job.id));
    if (keep("job-uri")) append(out, text(CMP_IPP_TAG_URI, "job-uri", jobUri(job.id)));
    if (keep("job-uuid")) append(out, text(CMP_IPP_TAG_URI, "job-uuid", job.uuid));
    if (keep("job-printer-uri")) append(out, text(CMP_IPP_TAG_URI, "job-printer-uri", m_config.uris[0]));
    if (keep("job-more-info")) append(out, text(CMP_IPP_TAG_URI, "job-more-info", m_webBase + "jobs/" + std::to_string(job.id)));
    if (keep("job-name")) append(out, text(CMP_IPP_TAG_NAME, "job-name", job.name));
    if (keep("job-originating-user-name")) append(out, text(CMP_IPP_TAG_NAME, "job-originating-user-name", job.user));
    if (keep("job-state")) append(out, enums("job-state", {static_cast<int32_t>(job.state)}));
    if (keep("job-state-reasons")) {
        append(out, texts(CMP_IPP_TAG_KEYWORD, "job-state-reasons", jobReasons(job.state, job.lastDocument, job.interrupted)));
    }
    if (keep("job-state-message")) append(out, text(CMP_IPP_TAG_TEXT, "job-state-message", jobMessage(job.state, job.interrupted)));
    if (keep("job-printer-up-time")) append(out, integer("job-printer-up-time", upTime(now)));
    if (keep("time-at-creation")) append(out, integer("time-at-creation", upTime(job.createdMs)));
    if (keep("time-at-processing")) {
        append(out, job.processingMs >= 0 ? integer("time-at-processing", upTime(job.processingMs))
                                          : outOfBand(CMP_IPP_TAG_NOVALUE, "time-at-processing"));
    }
    if (keep("time-at-completed")) {
        append(out, job.completedMs >= 0 ? integer("time-at-completed", upTime(job.completedMs))
                                         : outOfBand(CMP_IPP_TAG_NOVALUE, "time-at-completed"));
    }
    if (keep("date-time-at-creation")) append(out, dateTime("date-time-at-creation", wallOf(job.createdMs)));
    if (keep("date-time-at-processing")) {
        append(out, job.processingMs >= 0 ? dateTime("date-time-at-processing", wallOf(job.processingMs))
                                          : outOfBand(CMP_IPP_TAG_NOVALUE, "date-time-at-processing"));
    }
    if (keep("date-time-at-completed")) {
        append(out, job.completedMs >= 0 ? dateTime("date-time-at-completed", wallOf(job.completedMs))
                                         : outOfBand(CMP_IPP_TAG_NOVALUE, "date-time-at-completed"));
    }
    if (keep("job-k-octets")) append(out, integer("job-k-octets", kOctets(job.octets)));
    if (keep("number-of-documents")) append(out, integer("number-of-documents", job.documents));
    if (!job.format.empty() && keep("document-format-supplied")) {
        append(out, text(CMP_IPP_TAG_MIMETYPE, "document-format-supplied", job.format));
    }
    if (!job.documentName.empty() && keep("document-name-supplied")) {
        append(out, text(CMP_IPP_TAG_NAME, "document-name-supplied", job.documentName));
    }
    if (!job.holdUntil.empty() && keep("job-hold-until")) {
        append(out, text(CMP_IPP_TAG_KEYWORD, "job-hold-until", job.holdUntil));
    }
    for (const Span& s : topLevel(job.templateAttrs)) {
        if (!keep(s.name.c_str())) continue;
        for (int32_t i = s.first; i < s.last; ++i) append(out, job.templateAttrs[static_cast<size_t>(i)]);
    }
}

JobInfo Printer::infoOf(const Job& job) const {
    JobInfo i;
    i.id = job.id;
    i.state = job.state;
    i.reasons = jobReasons(job.state, job.lastDocument, job.interrupted);
    i.name = job.name;
    i.user = job.user;
    i.format = job.format;
    i.octets = job.octets;
    i.documents = job.documents;
    i.lastDocumentReceived = job.lastDocument;
    i.files = job.files;
    return i;
}

std::string Printer::jobUri(int32_t id) const { return m_config.uris[0] + "/" + std::to_string(id); }

std::string Printer::spoolPath(int32_t jobId, int32_t doc, const std::string& format,
                               const std::string& compression) const {
    const char* ext = "prn";
    if (format == "application/pdf") ext = "pdf";
    if (format == "application/postscript") ext = "ps";
    if (format == "image/jpeg") ext = "jpg";
    if (format == "image/pwg-raster") ext = "pwg";
    if (format == "text/plain") ext = "txt";
    const char* packed = compression == "gzip" ? ".gz" : compression == "deflate" ? ".zz" : "";
    return m_config.spoolDir + "/job-" + std::to_string(jobId) + "-doc-" + std::to_string(doc) + "." + ext + packed;
}

void Printer::setAcceptingJobs(bool accepting) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_accepting = accepting;
}

std::vector<JobInfo> Printer::jobs() {
    std::lock_guard<std::mutex> lock(m_mutex);
    advanceLocked(nowMs());
    std::vector<JobInfo> out;
    for (const auto& j : m_jobs) out.push_back(infoOf(*j.second));
    return out;
}

bool Printer::job(int32_t id, JobInfo* out) {
    std::lock_guard<std::mutex> lock(m_mutex);
    advanceLocked(nowMs());
    auto it = m_jobs.find(id);
    if (it == m_jobs.end()) return false;
    if (out != nullptr) *out = infoOf(*it->second);
    return true;
}

uint32_t Printer::identifyCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_identifyCount;
}

size_t Printer::streamCount() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_streams.size();
}

std::string Printer::htmlPage() {
    // The page shows one group, "Printer": the fixed attributes, read straight
    // from the printer object (they never change once built), then the status
    // attributes as they are now. Each attribute is rendered once, the page's
    // length is added up, and the page is put together in a block of that size.
    cmp_ipp_attrs status;
    std::string jobsTable;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        const int64_t now = nowMs();
        advanceLocked(now);
        statusAttrsLocked(status, now);
        jobsTable.reserve(160 + 96 * m_jobs.size());
        jobsTable += "<H2>Jobs</H2>\n<TABLE BORDER=\"1\"><TR><TH>Job</TH><TH>Name</TH><TH>User</TH><TH>State</TH>"
                     "<TH>Documents</TH><TH>k-octets</TH></TR>\n";
        for (const auto& j : m_jobs) {
            const Job& job = *j.second;
            jobsTable += "<TR><TD>";
            jobsTable += std::to_string(job.id);
            jobsTable += "</TD><TD>";
            jobsTable += htmlEscape(job.name);
            jobsTable += "</TD><TD>";
            jobsTable += htmlEscape(job.user);
            jobsTable += "</TD><TD>";
            jobsTable += jobMessage(job.state, job.interrupted);
            jobsTable += "</TD><TD>";
            jobsTable += std::to_string(job.documents);
            jobsTable += "</TD><TD>";
            jobsTable += std::to_string(kOctets(job.octets));
            jobsTable += "</TD></TR>\n";
        }
        jobsTable += "</TABLE>\n";
    }

    const cmp_ipp_attrs& fixed = m_obj.m_attrs;
    const int32_t count = fixed.count() + status.count();
    const auto attrAt = [&](int32_t i) -> const cmp_ipp_attr& {
        return i < fixed.count() ? fixed[i] : status[i - fixed.count()];
    };
    std::vector<cmp_ipp_string> lines;
    lines.reserve(static_cast<size_t>(count));
    for (int32_t i = 0; i < count; ++i) lines.push_back(attrAt(i).toHTML(false));

    // The library's group layout: members of a collection indented one step per
    // level, an endCollection line at the level of its begCollection line.
    static const char kIndent[] = "&nbsp;&nbsp;&nbsp;&nbsp;";
    static const char kGroupHead[] = "\n<br><big><b>Attrs group: Printer</b></big><br>\n";
    static const char kLineEnd[] = "<br>\n";
    const auto forEachLine = [&](auto&& f) {
        int depth = 0;
        for (int32_t i = 0; i < count; ++i) {
            const int32_t type = attrAt(i).m_type;
            if (type == CMP_IPP_TAG_END_COLLECTION && depth > 0) --depth;
            f(depth, lines[static_cast<size_t>(i)]);
            if (type == CMP_IPP_TAG_BEGIN_COLLECTION) ++depth;
        }
    };

    const std::string title = htmlEscape(m_config.name);
    const std::string info = htmlEscape(m_config.info);
    static const char kTail[] = "</BODY></HTML>\n";
    size_t length = 2 * title.size() + info.size() + 96 + sizeof kGroupHead + jobsTable.size() + sizeof kTail;
    forEachLine([&](int depth, const cmp_ipp_string& line) {
        length += static_cast<size_t>(depth) * (sizeof kIndent - 1) + static_cast<size_t>(line.length()) +
                  (sizeof kLineEnd - 1);
    });

    std::string page;
    page.reserve(length);
    page += "<HTML><HEAD><TITLE>";
    page += title;
    page += "</TITLE></HEAD><BODY BGCOLOR=\"#FFFFFF\"><H1>";
    page += title;
    page += "</H1>\n<P>";
    page += info;
    page += "</P>\n";
    if (count > 0) page += kGroupHead;
    forEachLine([&](int depth, const cmp_ipp_string& line) {
        for (int d = 0; d < depth; ++d) page.append(kIndent, sizeof kIndent - 1);
        page.append(line.c_str(), static_cast<size_t>(line.length()));
        page.append(kLineEnd, sizeof kLineEnd - 1);
    });
    page += jobsTable;
    page += kTail;
    return page;
}

}  // namespace refprinter
