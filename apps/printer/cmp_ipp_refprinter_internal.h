// Job and stream records of the reference printer, shared by its sources.
#ifndef CMP_IPP_REFPRINTER_INTERNAL_H
#define CMP_IPP_REFPRINTER_INTERNAL_H

#include <stdint.h>

#include <set>
#include <string>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "cmp_ipp_refprinter.h"
#include "cmp_ipp_refprinter_attrs.h"

namespace refprinter {

struct Printer::Job {
    int32_t id = 0;
    std::string uuid;
    JobState state = JobState::Pending;
    std::string name;
    std::string user;
    std::string format;  // document-format of the first document
    std::string documentName;
    // The job template attributes the client supplied and we support, as the
    // flat entries of their group (collections included).
    std::vector<cmp_ipp_attr> templateAttrs;
    std::set<std::string> templateNames;
    // job-hold-until, kept apart from templateAttrs because Hold-Job and
    // Release-Job change it; empty when never given.
    std::string holdUntil;
    int64_t createdMs = 0;
    int64_t processingMs = -1;
    int64_t completedMs = -1;
    int64_t readyMs = -1;   // all documents in
    int64_t doneAtMs = -1;  // end of processing
    // Last creation, document or close; a job waiting for documents is aborted
    // once this is older than multiple-operation-time-out.
    int64_t lastActivityMs = 0;
    uint64_t octets = 0;
    int32_t documents = 0;
    int32_t openStreams = 0;    // documents still arriving
    bool lastDocument = false;  // no further document will come
    // Aborted because a document (or the job's creation) did not arrive
    // completely: the client dropped the upload.
    bool interrupted = false;
    std::vector<std::string> files;
};

// Per-request state of a stream that writes a document or created a job.
struct Printer::Stream {
    int16_t op = 0;
    int32_t jobId = 0;
    int fd = -1;  // -1: nothing (more) to write
    std::string path;
    uint64_t bytes = 0;
    bool document = false;  // counted in the job's openStreams
    bool lastDocument = false;
    bool failed = false;
};

// Printer attributes in wire form, with how a query reaches each one.
struct EncodedPrinterAttrs {
    enum Reach : uint8_t {
        kByNameOnly,          // sent only when asked for by name
        kJobTemplateGroup,    // also with "job-template"
        kDescriptionGroup,    // also with "printer-description"
    };
    attrs::EncodedAttrs encoded;
    std::vector<uint8_t> reach;  // one per entry
};
// withTemplates: whether attributes describing job template attributes count
// as the "job-template" group (the printer's fixed ones) or not (its status).
std::unique_ptr<EncodedPrinterAttrs> encodePrinterAttrs(const cmp_ipp_attrs& group, bool withTemplates);

// Seconds a job may wait for its next document (multiple-operation-time-out).
const int32_t kMultipleOperationTimeOutS = 60;

inline bool isTerminal(JobState state) { return state >= JobState::Canceled; }
// Pending or held: still before processing, and still able to take documents.
inline bool isWaiting(JobState state) { return state == JobState::Pending || state == JobState::PendingHeld; }

// Reasons and message that go with a job's state.
// An interrupted job is one aborted because its document did not arrive whole.
std::vector<std::string> jobReasons(JobState state, bool lastDocument, bool interrupted);
const char* jobMessage(JobState state, bool interrupted);
// A stable name-based "urn:uuid:" identifier.
std::string uuidFrom(const std::string& seed);

}  // namespace refprinter

#endif
