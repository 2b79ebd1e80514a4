// A virtual IPP Everywhere printer built on the IPP service library: the printer
// object with its attributes, an in-memory job table, document spooling to a
// directory, and the handler that carries out the IPP operations.
//
// Install the IPP dictionary in the registry before constructing a Printer: the
// attribute identifiers are resolved when the printer object is built.
#ifndef CMP_IPP_REFPRINTER_H
#define CMP_IPP_REFPRINTER_H

#include <stdint.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "msg/cmp_ipp_obj.h"
#include "service/cmp_ipp_handler.h"
#include "service/cmp_ipp_manager.h"

namespace refprinter {

// RFC 8011 job-state values.
enum class JobState : int32_t {
    Pending = 3,
    PendingHeld = 4,
    Processing = 5,
    ProcessingStopped = 6,
    Canceled = 7,
    Aborted = 8,
    Completed = 9,
};

struct Config {
    std::string name = "Reference Printer";
    std::string info = "Reference IPP Everywhere printer";
    std::string location;
    std::string makeAndModel = "Reference Printer R1";
    std::string deviceId = "MFG:Reference;MDL:Printer R1;CMD:PDF,POSTSCRIPT,JPEG,PWGRaster;";
    // printer-uri-supported; the first one is the base of every job-uri and of
    // the web pages' addresses (https for an "ipps" URI). An "ipps" URI is
    // advertised with uri-security "tls".
    std::vector<std::string> uris{"ipp://localhost:631/ipp/print"};
    // uri-authentication-supported of every URI: "none", or "basic" when the
    // front end asks job operations for a user and password (the user's name
    // then comes in the request's REMOTE_USER field and owns the job).
    std::string uriAuthentication = "none";
    // "urn:uuid:..."; derived from the name when empty.
    std::string uuid;
    // Documents land here as job-<id>-doc-<n>.<ext>, kept as they came: a
    // compressed one gets ".gz" (gzip) or ".zz" (deflate, a raw RFC 1951
    // stream) on top. The directory must exist.
    std::string spoolDir = "/tmp";
    // How long a job stays processing once all its data is in; jobs are
    // processed one after the other, in job-id order.
    uint32_t processingMs = 2000;
    // Milliseconds on a monotonic clock; tests put a clock of their own here.
    std::function<int64_t()> clockMs;
    // Seconds since 1970 (UTC), read once at start for the printer's date-times;
    // time() when empty.
    std::function<int64_t()> wallClockS;
    // The first job's id (a printer that keeps its ids over a restart); the
    // ids that follow count up to 2147483647, the last one there is: after it
    // job creation is refused (ids are never reused).
    int32_t firstJobId = 1;
};

// A snapshot of one job, for diagnostics and tests.
struct JobInfo {
    int32_t id = 0;
    JobState state = JobState::Pending;
    std::vector<std::string> reasons;
    std::string name;
    std::string user;
    std::string format;
    uint64_t octets = 0;
    int32_t documents = 0;
    bool lastDocumentReceived = false;
    std::vector<std::string> files;  // spool file of each document, in order
};

class Printer;
class Operations;
struct EncodedPrinterAttrs;

// The operations side: called by the library, concurrently for different streams.
class Handler : public cmp_ipp_handler {
public:
    explicit Handler(Printer& printer) : m_printer(printer) {}
    void processRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override;
    void abortRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override;
    void prepareRequest(cmp_ipp_streamed_ctx* ctx, void* printer) override;
    uint32_t streamData(cmp_ipp_streamed_ctx* ctx, const cmp_ipp_buf& data, void* printer) override;
    cmp_ipp_buf finishRequest(cmp_ipp_streamed_ctx* ctx, cmp_ipp_manager::cmp_ipp_reply_fmt_t fmt,
                              void* printer) override;

private:
    Printer& m_printer;
};

class Printer {
public:
    explicit Printer(Config config);
    ~Printer();
    Printer(const Printer&) = delete;
    Printer& operator=(const Printer&) = delete;

    // Registers this printer and its handler with the library and switches IPP
    // on. False when another printer object is already registered (the library
    // keeps the first one it is given).
    bool start();
    // The same through the library's facade, which also starts its HTTP
    // listener: for a program that runs the whole service.
    bool serve();
    // Switches IPP off and unregisters this printer and its handler.
    void stop();

    // The printer object handed to the library. Its attributes are fixed once
    // constructed: the library reads them without locking, and replies are
    // assembled from the wire form made of them then. The status attributes
    // (printer-state, queued-job-count, ...) are made per response.
    cmp_ipp_obj& object() { return m_obj; }
    Handler& handler() { return m_handler; }
    const Config& config() const { return m_config; }

    void setAcceptingJobs(bool accepting);
    // Get-Printer-Attributes replies are assembled from the printer's attributes
    // kept in wire form (the default). Off, every reply is built attribute by
    // attribute, as the wire form is checked against; both give the same bytes.
    void setEncodedReplies(bool on) { m_encodedReplies.store(on, std::memory_order_relaxed); }
    std::vector<JobInfo> jobs();
    bool job(int32_t id, JobInfo* out);
    uint32_t identifyCount() const;
    // Requests currently holding per-stream state (an open document, a job reply).
    size_t streamCount() const;
    std::string jobUri(int32_t id) const;

    // The printer's attributes as an HTML page, with the job list: the
    // diagnostic page.
    std::string htmlPage();
    // The page people read: name, state and reasons in words, what the printer
    // accepts, the jobs with their states in words, links to the attribute page
    // and to each job's page. Every text a client sent is escaped.
    std::string statusPage();
    // One job's page; false when there is no such job.
    bool jobPage(int32_t id, std::string* out);
    // The page for a URL path: the diagnostic page for "/attributes" and for
    // no path (a caller of the library's own), the status page for "/" and the
    // printer's own path, a job's page for "/jobs/<id>" and "<printer path>/<id>".
    // False for any other path and for a job that is not there.
    bool webPage(const std::string& path, std::string* out);

private:
    // The operations work on the job table and stream records directly.
    friend class Operations;
    struct Job;
    struct Stream;

    int64_t nowMs() const;
    // Up-time in seconds, at least 1 (clients expect a positive value).
    int32_t upTime(int64_t ms) const;
    // Moves jobs through processing to completed as the clock says, and aborts
    // jobs left waiting for documents longer than multiple-operation-time-out.
    // Needs m_mutex.
    void advanceLocked(int64_t now);
    Job* findJobLocked(int32_t id);
    // Everything the status attributes are made from: equal keys, equal attributes.
    struct StatusKey {
        int64_t elapsedS = 0;  // whole seconds since start
        int64_t stateChangeMs = 0;
        int32_t queued = 0;
        bool printing = false;
        bool accepting = false;
        bool operator==(const StatusKey& o) const {
            return elapsedS == o.elapsedS && stateChangeMs == o.stateChangeMs && queued == o.queued &&
                   printing == o.printing && accepting == o.accepting;
        }
    };
    StatusKey statusKeyLocked(int64_t now) const;
    // printer-state, printer-state-message and printer-state-reasons for a key:
    // the status attributes and the status page say the same.
    static int32_t printerState(const StatusKey& k) { return k.printing ? 4 : 3; }
    static const char* printerStateMessage(const StatusKey& k) { return k.printing ? "Printing." : "Idle."; }
    static std::vector<std::string> printerStateReasons(const StatusKey&) { return {"none"}; }
    // The printer's status attributes as they are now. Needs m_mutex.
    void statusAttrsLocked(cmp_ipp_attrs& out, int64_t now) const;
    // The same in wire form, made again only when the key changes. Needs m_mutex.
    std::shared_ptr<const EncodedPrinterAttrs> encodedStatusLocked(int64_t now);
    // The attributes of a job as they are now, those keep() takes by name. Needs m_mutex.
    void jobAttrsLocked(const Job& job, cmp_ipp_attrs& out, int64_t now,
                        const std::function<bool(const char*)>& keep) const;
    JobInfo infoOf(const Job& job) const;
    std::string spoolPath(int32_t jobId, int32_t doc, const std::string& format,
                          const std::string& compression) const;
    void buildAttributes();
    // The parts of the status page that never change, made once from the
    // printer's attributes.
    void buildPageParts();

    Config m_config;
    cmp_ipp_obj m_obj;
    Handler m_handler;
    int64_t m_startMs;
    int64_t m_startWall;
    bool m_started = false;
    // m_obj's attributes in wire form; they never change once built.
    std::unique_ptr<const EncodedPrinterAttrs> m_encodedAttrs;
    std::atomic<bool> m_encodedReplies{true};
    std::string m_webBase;      // "http://host:port/" (https for an ipps printer)
    std::string m_printerPath;  // "/ipp/print"
    std::string m_pageHead;     // status page: up to the status section
    std::string m_pageFixed;    // what it accepts, supplies, addresses
    std::string m_pageTail;     // the footer

    mutable std::mutex m_mutex;  // guards everything below
    std::map<int32_t, std::unique_ptr<Job>> m_jobs;
    std::map<const cmp_ipp_streamed_ctx*, std::unique_ptr<Stream>> m_streams;
    int64_t m_nextJobId = 1;  // above INT32_MAX once the last id is given
    bool m_accepting = true;
    uint32_t m_identifyCount = 0;
    int64_t m_stateChangeMs;
    int64_t m_lastFinishMs = 0;  // when the processor last became free
    StatusKey m_statusKey;
    std::shared_ptr<const EncodedPrinterAttrs> m_encodedStatus;  // made for m_statusKey
};

}  // namespace refprinter

#endif
