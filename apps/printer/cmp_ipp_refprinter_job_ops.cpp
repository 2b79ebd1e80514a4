// The reference printer's job operations: Validate-Job, Print-Job, Create-Job,
// Send-Document, the job controls, Get-Job-Attributes and Get-Jobs.
#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cmp_ipp_refprinter_ops.h"

namespace refprinter {

using namespace attrs;

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

}  // namespace refprinter
