// The reference printer's job table as the operations see it: finding,
// ending, holding and forgetting jobs, their attributes, and their spool files.
// Every function here runs with the printer's mutex held.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "cmp_ipp_refprinter_ops.h"

namespace refprinter {

using namespace attrs;

namespace {

// Terminal jobs kept for Get-Jobs; older ones are forgotten.
const size_t kKeptTerminalJobs = 200;

}  // namespace

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

}  // namespace refprinter
