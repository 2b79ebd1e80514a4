// A group and a whole message as HTML, for the diagnostic pages. Each page is
// built in one pass of copying (see cmp_ipp_html_writer.h).
#include <cstdio>
#include <cstring>

#include "attr/cmp_ipp_html_writer.h"
#include "msg/cmp_ipp_attrs.h"
#include "msg/cmp_ipp_ippmsg.h"

void cmp_ipp_html_group(cmp_ipp_html_writer& w, const cmp_ipp_attrs& group) {
    if (group.count() == 0) return;
    w.literal("\n<br><big><b>Attrs group: ");
    w.text(group.m_name.c_str());
    w.literal("</b></big><br>\n");
    // Collection members are indented one step per level; an endCollection line
    // stands at the level of its begCollection line.
    int depth = 0;
    for (int32_t i = 0; i < group.count(); ++i) {
        const cmp_ipp_attr& a = group[i];
        if (a.m_type == CMP_IPP_TAG_END_COLLECTION && depth > 0) --depth;
        for (int d = 0; d < depth; ++d) w.literal("&nbsp;&nbsp;&nbsp;&nbsp;");
        cmp_ipp_html_attr(w, a, false);
        w.literal("<br>\n");
        if (a.m_type == CMP_IPP_TAG_BEGIN_COLLECTION) ++depth;
    }
}

void cmp_ipp_html_msg(cmp_ipp_html_writer& w, const cmp_ipp_msg& msg) {
    // The formatted lines are cut at 255 characters, as they always were.
    char line[256];
    const auto formatted = [&w, &line](int n) {
        if (n > 0) w.text(line);
    };
    w.literal("<HTML><HEAD><TITLE>IPP Attributes</TITLE></HEAD><BODY BGCOLOR=\"#FFFFFF\"><H2> Message contents </H2>\n");
    formatted(std::snprintf(line, sizeof line, "Version=0x%2x", static_cast<unsigned>(msg.m_version)));
    const uint16_t op = static_cast<uint16_t>(msg.m_operationId);
    const char* name = cmp_ipp_msg::getOpName(op);
    if (name == nullptr || std::strcmp(name, "unknown") == 0) name = cmp_ipp_msg::getStatusCodeString(op);
    formatted(std::snprintf(line, sizeof line, "\n<br>operation id/status code=%d (0x%x) %s", msg.m_operationId,
                            static_cast<unsigned>(msg.m_operationId), name));
    formatted(std::snprintf(line, sizeof line, "\n<br>request id=%ld (0x%lx)", static_cast<long>(msg.m_requestId),
                            static_cast<unsigned long>(static_cast<uint32_t>(msg.m_requestId))));
    w.literal("\n<H2>Attributes</H2>");
    for (int32_t g = 0; g < msg.groupCount(); ++g) cmp_ipp_html_group(w, *msg.group(g));
    w.literal("\n<br><big><b>Data</b></big>");
    if (msg.m_docData.length() == 0) {
        w.literal("\n<br>Data is null </BODY></HTML>");
    } else {
        formatted(std::snprintf(line, sizeof line, "\n<br>Data length: %ld", static_cast<long>(msg.m_docData.length())));
        w.literal(" Bytes </BODY></HTML>");
    }
}

cmp_ipp_string cmp_ipp_attrs::toHTML() const {
    return cmp_ipp_html_writer::build([this](cmp_ipp_html_writer& w) { cmp_ipp_html_group(w, *this); });
}

cmp_ipp_string cmp_ipp_msg::cmp_ipp_msg_to_html() const {
    return cmp_ipp_html_writer::build([this](cmp_ipp_html_writer& w) { cmp_ipp_html_msg(w, *this); });
}
