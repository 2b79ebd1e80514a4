// The reference printer's side of a stream: the library's handler calls, and
// what each stage of a request does (first block, document data, end, abort).
#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "cmp_ipp_refprinter_ops.h"
#include "cmp_ipp_write_all.h"

namespace refprinter {

using namespace attrs;

using cmp_ipp_app::writeAll;

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
