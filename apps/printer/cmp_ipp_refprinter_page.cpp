// The reference printer's web pages for people: the status page at "/" and a
// page per job. What never changes (the printer's capabilities, its addresses)
// is rendered once when the printer is built; a request renders only the state
// and the jobs, in one pass into a string reserved up front.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "cmp_ipp_refprinter.h"
#include "cmp_ipp_refprinter_attrs.h"
#include "cmp_ipp_refprinter_internal.h"

namespace refprinter {

using namespace attrs;

namespace {

// Text into HTML, for element content and quoted attribute values alike.
void escapeInto(std::string& out, std::string_view s) {
    size_t from = 0;
    for (size_t i = 0; i < s.size(); ++i) {
        const char* rep = nullptr;
        switch (s[i]) {
        case '&': rep = "&amp;"; break;
        case '<': rep = "&lt;"; break;
        case '>': rep = "&gt;"; break;
        case '"': rep = "&quot;"; break;
        case '\'': rep = "&#39;"; break;
        default: continue;
        }
        out.append(s.data() + from, i - from);
        out += rep;
        from = i + 1;
    }
    out.append(s.data() + from, s.size() - from);
}

struct Word {
    const char* keyword;
    const char* words;
};

const char* lookup(const Word* table, size_t n, std::string_view keyword) {
    for (size_t i = 0; i < n; ++i)
        if (keyword == table[i].keyword) return table[i].words;
    return nullptr;
}

// A keyword nobody put into words: its dashes as spaces, the first letter capital.
void keywordInto(std::string& out, std::string_view keyword) {
    const size_t at = out.size();
    escapeInto(out, keyword);
    for (size_t i = at; i < out.size(); ++i)
        if (out[i] == '-' || out[i] == '_') out[i] = ' ';
    if (at < out.size() && out[at] >= 'a' && out[at] <= 'z') out[at] = static_cast<char>(out[at] - 'a' + 'A');
}

// printer-state-reasons (RFC 8011, PWG 5100.9), without their severity suffix.
const Word kPrinterReasons[] = {
    {"none", "No alerts"},
    {"other", "Needs attention"},
    {"media-needed", "Load paper"},
    {"media-jam", "Paper jam"},
    {"moving-to-paused", "Pausing"},
    {"paused", "Paused"},
    {"shutdown", "Shutting down"},
    {"connecting-to-device", "Connecting to the device"},
    {"timed-out", "The device does not answer"},
    {"stopping", "Stopping"},
    {"stopped-partly", "Partly stopped"},
    {"toner-low", "Toner low"},
    {"toner-empty", "Out of toner"},
    {"spool-area-full", "No room for more jobs"},
    {"cover-open", "Cover open"},
    {"interlock-open", "Interlock open"},
    {"door-open", "Door open"},
    {"input-tray-missing", "Paper tray missing"},
    {"media-low", "Paper low"},
    {"media-empty", "Out of paper"},
    {"output-tray-missing", "Output tray missing"},
    {"output-area-almost-full", "Output tray almost full"},
    {"output-area-full", "Output tray full"},
    {"marker-supply-low", "Ink or toner low"},
    {"marker-supply-empty", "Out of ink or toner"},
    {"marker-waste-almost-full", "Waste container almost full"},
    {"marker-waste-full", "Waste container full"},
    {"fuser-over-temp", "Fuser too hot"},
    {"fuser-under-temp", "Fuser warming up"},
    {"offline", "Offline"},
    {"identify-printer-requested", "Identifying itself"},
};

// job-state-reasons (RFC 8011, PWG 5100.7) as this printer reports them, and a few more.
const Word kJobReasons[] = {
    {"none", ""},
    {"job-incoming", "Waiting for its document"},
    {"job-data-insufficient", "Waiting for more of its document"},
    {"job-hold-until-specified", "Held until released"},
    {"job-printing", "Printing"},
    {"job-queued", "Waiting its turn"},
    {"printer-stopped", "The printer is stopped"},
    {"job-canceled-by-user", "Canceled by its owner"},
    {"job-canceled-by-operator", "Canceled by the operator"},
    {"aborted-by-system", "Stopped by the printer"},
    {"submission-interrupted", "The document did not arrive completely"},
    {"job-completed-successfully", "Printed"},
    {"job-completed-with-warnings", "Printed, with warnings"},
    {"job-completed-with-errors", "Printed, with errors"},
    {"document-format-error", "The document could not be read"},
    {"unsupported-document-format", "The document's format is not supported"},
    {"compression-error", "The document could not be unpacked"},
};

const char* jobStateWords(JobState s) {
    switch (s) {
    case JobState::Pending: return "Pending";
    case JobState::PendingHeld: return "Held";
    case JobState::Processing: return "Printing";
    case JobState::ProcessingStopped: return "Stopped";
    case JobState::Canceled: return "Canceled";
    case JobState::Aborted: return "Aborted";
    case JobState::Completed: return "Completed";
    }
    return "Unknown";
}

const Word kFormats[] = {
    {"application/pdf", "PDF"},           {"application/postscript", "PostScript"},
    {"image/jpeg", "JPEG"},               {"image/png", "PNG"},
    {"image/pwg-raster", "PWG Raster"},   {"image/urf", "Apple Raster"},
    {"text/plain", "plain text"},         {"application/vnd.hp-pcl", "PCL"},
};

const Word kSides[] = {
    {"one-sided", "one-sided"},
    {"two-sided-long-edge", "two-sided (long edge)"},
    {"two-sided-short-edge", "two-sided (short edge)"},
};

// Bars of the supply levels in the colorant's colour.
const Word kColorants[] = {
    {"black", "#24292f"}, {"cyan", "#00a3d9"}, {"magenta", "#d6338a"}, {"yellow", "#e3b800"},
};

// Severity suffixes of printer-state-reasons.
std::string_view withoutSeverity(std::string_view r, const char** severity) {
    *severity = nullptr;
    static const struct {
        const char* suffix;
        const char* words;
    } kSeverity[] = {{"-error", "error"}, {"-warning", "warning"}, {"-report", "note"}};
    for (const auto& s : kSeverity) {
        const size_t n = std::strlen(s.suffix);
        if (r.size() > n && r.compare(r.size() - n, n, s.suffix) == 0) {
            *severity = s.words;
            return r.substr(0, r.size() - n);
        }
    }
    return r;
}

// A PWG self-describing media name ("na_letter_8.5x11in") in words:
// "Letter (8.5 × 11 in)"; ISO and JIS sizes in capitals ("A4 (210 × 297 mm)").
void mediaInto(std::string& out, std::string_view name) {
    const size_t first = name.find('_');
    const size_t last = name.rfind('_');
    if (first == std::string_view::npos || last == first) {
        keywordInto(out, name);
        return;
    }
    const std::string_view cls = name.substr(0, first);
    const std::string_view size = name.substr(first + 1, last - first - 1);
    std::string_view dims = name.substr(last + 1);
    const size_t at = out.size();
    keywordInto(out, size);
    if (cls == "iso" || cls == "jis" || cls == "jpn" || cls == "prc" || cls == "roc") {
        for (size_t i = at; i < out.size(); ++i)
            if (out[i] >= 'a' && out[i] <= 'z') out[i] = static_cast<char>(out[i] - 'a' + 'A');
    }
    const size_t x = dims.find('x');
    std::string_view unit;
    if (dims.size() > 2) {
        unit = dims.substr(dims.size() - 2);
        if (unit == "in" || unit == "mm") dims = dims.substr(0, dims.size() - 2);
        else unit = std::string_view();
    }
    if (x == std::string_view::npos || unit.empty()) return;
    out += " (";
    escapeInto(out, dims.substr(0, x));
    out += " \xC3\x97 ";  // ×
    escapeInto(out, dims.substr(x + 1));
    out += ' ';
    out.append(unit.data(), unit.size());
    out += ')';
}

bool hasValue(const cmp_ipp_attr* a, std::string_view v) {
    if (a == nullptr) return false;
    for (int32_t i = 0; i < a->m_numValues; ++i)
        if (textViewOf(*a, i) == v) return true;
    return false;
}

// "2024-05-01 12:34 UTC"
void timeInto(std::string& out, time_t when, bool seconds) {
    struct tm t;
    gmtime_r(&when, &t);
    char buf[40];
    const size_t n = strftime(buf, sizeof buf, seconds ? "%Y-%m-%d %H:%M:%S UTC" : "%Y-%m-%d %H:%M UTC", &t);
    out.append(buf, n);
}

void numberInto(std::string& out, uint64_t v) {
    char buf[24];
    const int n = snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(v));
    out.append(buf, static_cast<size_t>(n));
}

void tableRow(std::string& out, const char* head, const std::string& cell) {
    out += "<tr><th>";
    out += head;
    out += "</th><td>";
    out += cell;
    out += "</td></tr>\n";
}

// "A, b and c" of already rendered items.
std::string listed(const std::vector<std::string>& items) {
    std::string out;
    for (size_t i = 0; i < items.size(); ++i) {
        if (i > 0) out += i + 1 == items.size() ? " and " : ", ";
        out += items[i];
    }
    if (!out.empty() && out[0] >= 'a' && out[0] <= 'z') out[0] = static_cast<char>(out[0] - 'a' + 'A');
    return out;
}

const char kStyle[] =
    "<style>\n"
    "body{font-family:system-ui,-apple-system,\"Segoe UI\",sans-serif;margin:0 auto;max-width:64em;"
    "padding:1em 2em;color:#1f2328;background:#fff;line-height:1.4}\n"
    "header{display:flex;align-items:center;gap:1em}\n"
    "header img{width:64px;height:64px}\n"
    "h1{margin:0;font-size:1.8em}\n"
    "h2{font-size:1.2em;margin-top:1.5em;border-bottom:1px solid #d0d7de;padding-bottom:.2em}\n"
    ".sub{color:#59636e;margin:.2em 0 0}\n"
    ".state{font-size:1.5em;font-weight:600;margin:.3em 0}\n"
    ".idle{color:#1a7f37}.printing{color:#0969da}.stopped{color:#cf222e}\n"
    "table{border-collapse:collapse;width:100%}\n"
    "th,td{text-align:left;padding:.3em .6em;border-bottom:1px solid #eaeef2;vertical-align:top}\n"
    "thead th{background:#f6f8fa}\n"
    ".when{white-space:nowrap}\n"
    "table.facts th{width:11em;font-weight:600}\n"
    ".level{display:inline-block;height:.8em;background:#8c959f;margin-right:.5em}\n"
    "footer{margin-top:2em;color:#59636e;font-size:.9em}\n"
    "</style>\n";

}  // namespace

void Printer::buildPageParts() {
    const cmp_ipp_attrs& a = m_obj.m_attrs;
    const auto text = [&](const char* name) -> std::string_view {
        const cmp_ipp_attr* at = findTop(a, name);
        return at != nullptr ? textViewOf(*at) : std::string_view();
    };

    // ---- head: title, icon, what the printer is ----
    std::string& h = m_pageHead;
    h = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        "<meta http-equiv=\"refresh\" content=\"30\">\n<title>";
    escapeInto(h, m_config.name);
    h += "</title>\n";
    h += kStyle;
    // Relative, so that the icon comes over whichever scheme the page did.
    h += "</head><body>\n<header><img src=\"/icon.png\" alt=\"\"><div><h1 id=\"printer-name\">";
    escapeInto(h, m_config.name);
    h += "</h1><p class=\"sub\">";
    std::vector<std::string_view> about;
    for (const char* name : {"printer-make-and-model", "printer-location", "printer-info"}) {
        const std::string_view v = text(name);
        if (!v.empty() && std::find(about.begin(), about.end(), v) == about.end()) about.push_back(v);
    }
    for (size_t i = 0; i < about.size(); ++i) {
        if (i > 0) h += " \xC2\xB7 ";  // ·
        escapeInto(h, about[i]);
    }
    h += "</p></div></header>\n";

    // ---- what it accepts ----
    std::string& f = m_pageFixed;
    f = "<section id=\"accepts\"><h2>What it accepts</h2>\n<table class=\"facts\">\n";
    if (const cmp_ipp_attr* formats = findTop(a, "document-format-supported")) {
        std::vector<std::string> items;
        bool detects = false;
        for (int32_t i = 0; i < formats->m_numValues; ++i) {
            const std::string_view v = textViewOf(*formats, i);
            if (v == "application/octet-stream") {
                detects = true;
                continue;
            }
            std::string item;
            if (const char* w = lookup(kFormats, sizeof kFormats / sizeof kFormats[0], v)) {
                item = w;
            } else {
                escapeInto(item, v);
            }
            items.push_back(item);
        }
        std::string cell = listed(items);
        if (detects) cell += "; other documents are recognised by their content";
        tableRow(f, "Documents", cell);
    }
    if (const cmp_ipp_attr* media = findTop(a, "media-supported")) {
        const cmp_ipp_attr* def = findTop(a, "media-default");
        const cmp_ipp_attr* ready = findTop(a, "media-ready");
        std::vector<std::string> items;
        for (int32_t i = 0; i < media->m_numValues; ++i) {
            const std::string_view v = textViewOf(*media, i);
            std::string item;
            mediaInto(item, v);
            const bool isDefault = def != nullptr && textViewOf(*def) == v;
            const bool loaded = hasValue(ready, v);
            if (isDefault || loaded) {
                item += " <small>[";
                item += isDefault ? (loaded ? "default, loaded" : "default") : "loaded";
                item += "]</small>";
            }
            items.push_back(item);
        }
        tableRow(f, "Paper", listed(items));
    }
    if (const cmp_ipp_attr* sides = findTop(a, "sides-supported")) {
        std::vector<std::string> items;
        for (int32_t i = 0; i < sides->m_numValues; ++i) {
            std::string item;
            const std::string_view v = textViewOf(*sides, i);
            if (const char* w = lookup(kSides, sizeof kSides / sizeof kSides[0], v)) {
                item = w;
            } else {
                keywordInto(item, v);
            }
            items.push_back(item);
        }
        tableRow(f, "Sides", listed(items));
    }
    {
        const cmp_ipp_attr* color = findTop(a, "color-supported");
        const cmp_ipp_attr* modes = findTop(a, "print-color-mode-supported");
        const bool colour = color != nullptr && color->m_numValues > 0 && wordOf(*color) != 0;
        const bool mono = modes == nullptr || hasValue(modes, "monochrome") || !colour;
        tableRow(f, "Colour", colour ? (mono ? "Colour and black &amp; white" : "Colour") : "Black &amp; white only");
    }
    if (const cmp_ipp_attr* quality = findTop(a, "print-quality-supported")) {
        std::vector<std::string> items;
        for (int32_t i = 0; i < quality->m_numValues; ++i) {
            const int32_t q = wordOf(*quality, i);
            items.push_back(q == 3 ? "draft" : q == 4 ? "normal" : q == 5 ? "high" : std::to_string(q));
        }
        tableRow(f, "Quality", listed(items));
    }
    if (const cmp_ipp_attr* res = findTop(a, "printer-resolution-supported")) {
        std::vector<std::string> items;
        for (int32_t i = 0; i < res->m_numValues; ++i) {
            const int32_t x = wordOf(*res, 3 * i), y = wordOf(*res, 3 * i + 1);
            items.push_back(x == y ? std::to_string(x) : std::to_string(x) + "\xC3\x97" + std::to_string(y));
        }
        tableRow(f, "Resolution", listed(items) + " dpi");
    }
    if (const cmp_ipp_attr* copies = findTop(a, "copies-supported")) {
        tableRow(f, "Copies", std::to_string(wordOf(*copies, 0)) + " to " + std::to_string(wordOf(*copies, 1)));
    }
    f += "</table></section>\n";

    // ---- supplies: "...;level=80;..." per printer-supply value ----
    const cmp_ipp_attr* supply = findTop(a, "printer-supply");
    const cmp_ipp_attr* supplyNames = findTop(a, "printer-supply-description");
    if (supply != nullptr && supply->m_numValues > 0) {
        f += "<section id=\"supplies\"><h2>Supplies</h2>\n<table class=\"facts\">\n";
        for (int32_t i = 0; i < supply->m_numValues; ++i) {
            const std::string_view v =
                i < supply->m_bufs.length()
                    ? std::string_view(reinterpret_cast<const char*>(supply->m_bufs[i].data()), supply->m_bufs[i].length())
                    : std::string_view();
            const size_t at = v.find("level=");
            const int level = at == std::string_view::npos ? -1 : atoi(std::string(v.substr(at + 6, 4)).c_str());
            const size_t colorantAt = v.find("colorantname=");
            std::string_view colorant =
                colorantAt == std::string_view::npos ? std::string_view() : v.substr(colorantAt + 13);
            colorant = colorant.substr(0, colorant.find(';'));
            const char* shade = lookup(kColorants, sizeof kColorants / sizeof kColorants[0], colorant);
            std::string name;
            escapeInto(name, supplyNames != nullptr ? textViewOf(*supplyNames, i) : std::string_view("Supply"));
            std::string cell;
            if (level >= 0 && level <= 100) {
                cell = "<span class=\"level\" style=\"width:" + std::to_string(level * 2) + "px" +
                       (shade != nullptr ? std::string(";background:") + shade : std::string()) + "\"></span>" +
                       std::to_string(level) + "%";
            } else {
                cell = "Unknown";
            }
            f += "<tr><th>" + name + "</th><td>" + cell + "</td></tr>\n";
        }
        f += "</table></section>\n";
    }

    // ---- addresses, as clients take them ----
    f += "<section id=\"connect\"><h2>Printing to it</h2>\n<ul>\n";
    const cmp_ipp_attr* uris = findTop(a, "printer-uri-supported");
    const cmp_ipp_attr* security = findTop(a, "uri-security-supported");
    const cmp_ipp_attr* authentication = findTop(a, "uri-authentication-supported");
    for (int32_t i = 0; uris != nullptr && i < uris->m_numValues; ++i) {
        f += "<li><code>";
        escapeInto(f, textViewOf(*uris, i));
        f += "</code>: ";
        f += security != nullptr && textViewOf(*security, i) == "tls" ? "encrypted (TLS)" : "not encrypted";
        const std::string_view auth = authentication != nullptr ? textViewOf(*authentication, i) : std::string_view();
        if (auth == "basic") f += ", printing needs a user name and password";
        f += "</li>\n";
    }
    f += "</ul></section>\n";

    // ---- footer ----
    std::string& t = m_pageTail;
    t = "<footer><a href=\"/attributes\">All printer attributes</a> \xC2\xB7 ";
    escapeInto(t, text("printer-uuid"));
    t += "</footer>\n</body></html>\n";
}

std::string Printer::statusPage() {
    std::string page;
    std::lock_guard<std::mutex> lock(m_mutex);
    const int64_t now = nowMs();
    advanceLocked(now);
    // The state as the status attributes give it, without building them.
    const StatusKey key = statusKeyLocked(now);
    // As Get-Jobs lists them: active jobs in the order they print, then
    // finished ones, latest first.
    std::vector<const Job*> rows;
    rows.reserve(m_jobs.size());
    size_t length = m_pageHead.size() + m_pageFixed.size() + m_pageTail.size() + 640;
    for (const auto& j : m_jobs) {
        rows.push_back(j.second.get());
        length += 300 + 2 * (j.second->name.size() + j.second->user.size());
    }
    std::stable_sort(rows.begin(), rows.end(), [](const Job* a, const Job* b) {
        const bool ta = isTerminal(a->state), tb = isTerminal(b->state);
        if (ta != tb) return !ta;
        if (!ta) return a->id < b->id;
        if (a->completedMs != b->completedMs) return a->completedMs > b->completedMs;
        return a->id > b->id;
    });
    page.reserve(length);
    page += m_pageHead;

    // ---- state ----
    const int32_t state = printerState(key);
    const char* stateWords = state == 4 ? "Printing" : state == 5 ? "Stopped" : "Idle";
    const char* stateClass = state == 4 ? "printing" : state == 5 ? "stopped" : "idle";
    page += "<section id=\"status\"><h2>Status</h2>\n<p class=\"state ";
    page += stateClass;
    page += "\" id=\"printer-state\">";
    page += stateWords;
    page += "</p>\n";
    // The message, when it says more than the state does.
    const std::string_view said = printerStateMessage(key);
    if (!said.empty() && said != std::string(stateWords) + ".") {
        page += "<p id=\"printer-state-message\">";
        escapeInto(page, said);
        page += "</p>\n";
    }
    page += "<ul id=\"printer-state-reasons\">";
    for (const std::string& reason : printerStateReasons(key)) {
        const char* severity = nullptr;
        const std::string_view r = withoutSeverity(reason, &severity);
        page += "<li>";
        if (const char* w = lookup(kPrinterReasons, sizeof kPrinterReasons / sizeof kPrinterReasons[0], r)) {
            page += w;
        } else {
            keywordInto(page, r);
        }
        if (severity != nullptr) {
            page += " (";
            page += severity;
            page += ')';
        }
        page += "</li>";
    }
    page += "</ul>\n<p>";
    page += key.accepting ? "Accepting jobs" : "Not accepting jobs";
    page += " \xC2\xB7 ";
    if (key.queued == 0) {
        page += "no jobs queued";
    } else {
        numberInto(page, static_cast<uint64_t>(key.queued));
        page += key.queued == 1 ? " job queued" : " jobs queued";
    }
    page += "</p></section>\n";

    // ---- jobs ----
    page += "<section id=\"jobs\"><h2>Jobs</h2>\n";
    if (rows.empty()) {
        page += "<p>No jobs yet.</p>\n";
    } else {
        page += "<table><thead><tr><th>Job</th><th>Name</th><th>Owner</th><th>State</th><th>Details</th>"
                "<th>Submitted</th><th>Size</th></tr></thead><tbody>\n";
        for (const Job* r : rows) {
            page += "<tr id=\"job-";
            numberInto(page, static_cast<uint64_t>(r->id));
            page += "\"><td><a href=\"/jobs/";
            numberInto(page, static_cast<uint64_t>(r->id));
            page += "\">";
            numberInto(page, static_cast<uint64_t>(r->id));
            page += "</a></td><td>";
            escapeInto(page, r->name);
            page += "</td><td>";
            escapeInto(page, r->user);
            page += "</td><td class=\"job-state\">";
            page += jobStateWords(r->state);
            page += "</td><td>";
            bool first = true;
            for (const std::string& reason : jobReasons(r->state, r->lastDocument, r->interrupted)) {
                const char* w = lookup(kJobReasons, sizeof kJobReasons / sizeof kJobReasons[0], reason);
                if (w != nullptr && *w == '\0') continue;
                if (!first) page += "; ";
                first = false;
                if (w != nullptr) {
                    page += w;
                } else {
                    keywordInto(page, reason);
                }
            }
            page += "</td><td class=\"when\">";
            timeInto(page, static_cast<time_t>(m_startWall + (r->createdMs - m_startMs) / 1000), false);
            page += "</td><td>";
            numberInto(page, (r->octets + 1023) / 1024);
            page += " kB</td></tr>\n";
        }
        page += "</tbody></table>\n";
    }
    page += "</section>\n";
    page += m_pageFixed;
    page += m_pageTail;
    return page;
}

bool Printer::jobPage(int32_t id, std::string* out) {
    Job copy;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        advanceLocked(nowMs());
        const Job* job = findJobLocked(id);
        if (job == nullptr) return false;
        copy.id = job->id;
        copy.state = job->state;
        copy.name = job->name;
        copy.user = job->user;
        copy.format = job->format;
        copy.documentName = job->documentName;
        copy.createdMs = job->createdMs;
        copy.processingMs = job->processingMs;
        copy.completedMs = job->completedMs;
        copy.octets = job->octets;
        copy.documents = job->documents;
        copy.lastDocument = job->lastDocument;
        copy.interrupted = job->interrupted;
    }
    const auto wall = [this](int64_t ms) { return static_cast<time_t>(m_startWall + (ms - m_startMs) / 1000); };
    std::string& p = *out;
    p.clear();
    p.reserve(m_pageHead.size() + m_pageTail.size() + 1600 + 2 * (copy.name.size() + copy.user.size()));
    p += m_pageHead;
    p += "<p><a href=\"/\">&larr; Printer status</a></p>\n<section id=\"job\"><h2>Job ";
    numberInto(p, static_cast<uint64_t>(copy.id));
    if (!copy.name.empty()) {
        p += ": ";
        escapeInto(p, copy.name);
    }
    p += "</h2>\n<table class=\"facts\">\n<tr><th>State</th><td id=\"job-state\">";
    p += jobStateWords(copy.state);
    p += "</td></tr>\n<tr><th>Details</th><td id=\"job-state-reasons\">";
    bool first = true;
    for (const std::string& reason : jobReasons(copy.state, copy.lastDocument, copy.interrupted)) {
        const char* w = lookup(kJobReasons, sizeof kJobReasons / sizeof kJobReasons[0], reason);
        if (w != nullptr && *w == '\0') continue;
        if (!first) p += "; ";
        first = false;
        if (w != nullptr) {
            p += w;
        } else {
            keywordInto(p, reason);
        }
    }
    p += "</td></tr>\n<tr><th>Message</th><td>";
    escapeInto(p, jobMessage(copy.state, copy.interrupted));
    p += "</td></tr>\n<tr><th>Owner</th><td>";
    escapeInto(p, copy.user);
    p += "</td></tr>\n<tr><th>Documents</th><td>";
    numberInto(p, static_cast<uint64_t>(copy.documents));
    if (!copy.format.empty()) {
        p += " (";
        escapeInto(p, copy.format);
        p += ')';
    }
    p += "</td></tr>\n";
    if (!copy.documentName.empty()) {
        p += "<tr><th>Document name</th><td>";
        escapeInto(p, copy.documentName);
        p += "</td></tr>\n";
    }
    p += "<tr><th>Size</th><td>";
    numberInto(p, (copy.octets + 1023) / 1024);
    p += " kB</td></tr>\n<tr><th>Submitted</th><td>";
    timeInto(p, wall(copy.createdMs), true);
    p += "</td></tr>\n<tr><th>Printing started</th><td>";
    if (copy.processingMs >= 0) {
        timeInto(p, wall(copy.processingMs), true);
    } else {
        p += "&mdash;";
    }
    p += "</td></tr>\n<tr><th>Finished</th><td>";
    if (copy.completedMs >= 0) {
        timeInto(p, wall(copy.completedMs), true);
    } else {
        p += "&mdash;";
    }
    p += "</td></tr>\n<tr><th>Job URI</th><td><code>";
    escapeInto(p, jobUri(copy.id));
    p += "</code></td></tr>\n</table></section>\n";
    p += m_pageTail;
    return true;
}

bool Printer::webPage(const std::string& path, std::string* out) {
    if (path.empty() || path == "/attributes") {
        *out = htmlPage();
        return true;
    }
    if (path == "/" || path == m_printerPath) {
        *out = statusPage();
        return true;
    }
    // "/jobs/<id>" or "<printer path>/<id>": digits only, and few enough for an id.
    std::string digits;
    const std::string prefix = m_printerPath == "/" ? "/" : m_printerPath + "/";
    if (path.compare(0, 6, "/jobs/") == 0) {
        digits = path.substr(6);
    } else if (path.size() > prefix.size() && path.compare(0, prefix.size(), prefix) == 0) {
        digits = path.substr(prefix.size());
    }
    if (digits.empty() || digits.size() > 9 || digits.find_first_not_of("0123456789") != std::string::npos) return false;
    return jobPage(static_cast<int32_t>(std::stol(digits)), out);
}

}  // namespace refprinter
