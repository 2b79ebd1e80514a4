// The HTML renderings of attributes, groups and messages are built in one pass:
// the same text as the former piece-by-piece appending (kept below as the
// reference), with one allocation per page.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <map>
#include <string>

#include "msg/cmp_ipp_request.h"
#include "msg/msg_fixture.h"
#include "platform/emw_osw_test.h"

namespace {

// ---- reference: the former renderings, appending piece by piece ----------------

namespace reference {

void appendNumber(cmp_ipp_string& out, int32_t v) {
    char digits[16];
    int n = std::snprintf(digits, sizeof digits, "%d", static_cast<int>(v));
    if (n > 0) out.append(digits, n);
}

cmp_ipp_string attrHtml(const cmp_ipp_attr& a, bool lineBreak) {
    const auto wordAt = [&a](int32_t i) { return (i >= 0 && i < a.m_longs.length()) ? a.m_longs[i] : 0; };
    const auto stringAt = [&a](int32_t i) {
        return (i >= 0 && i < a.m_strings.length()) ? &a.m_strings[i] : nullptr;
    };
    const auto bufAt = [&a](int32_t i) { return (i >= 0 && i < a.m_bufs.length()) ? &a.m_bufs[i] : nullptr; };
    const char* lineEnd = lineBreak ? "<br>" : "\n";
    const char* name = a.cmp_ipp_attr_get_name();
    cmp_ipp_string out;
    if (a.m_type == 0x4A && a.m_numValues <= 0) {
        out.append("<font color=\"blue\">", -1);
        out.append(name, -1);
        out.append(":</font> ", -1);
        out.append(lineEnd, -1);
        return out;
    }
    if (a.m_type == 0x34) {
        if (a.m_nameId != 0) {
            out.append("<font color=\"blue\">", -1);
            out.append(name, -1);
            out.append(":</font> ", -1);
        }
        out.append("{ ", -1);
        out.append(lineEnd, -1);
        return out;
    }
    if (a.m_type == 0x37) {
        out.append("}", -1);
        out.append(lineEnd, -1);
        return out;
    }
    const int32_t tag = (a.m_type == 0x4A) ? a.m_memberType : a.m_type;
    const char* typeName = cmp_ipp_msg::getTypeName(tag);
    for (int32_t i = 0; i < a.m_numValues; ++i) {
        out.append("<font color=\"blue\">", -1);
        if (i == 0) out.append(name, -1);
        out.append(":</font> <i>", -1);
        out.append(typeName, -1);
        out.append(":</i> <font color=\"red\">", -1);
        switch (tag) {
        case 0x21:
        case 0x23:
            appendNumber(out, wordAt(i));
            break;
        case 0x22:
            out.append(wordAt(i) != 0 ? "true" : "false", -1);
            break;
        case 0x31: {
            const uint32_t w[3] = {static_cast<uint32_t>(wordAt(3 * i)), static_cast<uint32_t>(wordAt(3 * i + 1)),
                                   static_cast<uint32_t>(wordAt(3 * i + 2))};
            unsigned char b[11];
            for (int k = 0; k < 11; ++k) b[k] = static_cast<unsigned char>(w[k / 4] >> (24 - 8 * (k % 4)));
            char text[64];
            int n = (b[8] != 0) ? std::snprintf(text, sizeof text, "%d/%d/%d %d:%d:%d:%1d %c%d", (b[0] << 8) | b[1],
                                                b[2], b[3], b[4], b[5], b[6], b[7], static_cast<char>(b[8]), b[9])
                                : std::snprintf(text, sizeof text, "%d/%d/%d %d:%d:%d:%1d %d", (b[0] << 8) | b[1],
                                                b[2], b[3], b[4], b[5], b[6], b[7], b[9]);
            if (n > 0) out.append(text, n < static_cast<int>(sizeof text) ? n : static_cast<int>(sizeof text) - 1);
            break;
        }
        case 0x32:
            appendNumber(out, wordAt(3 * i));
            out.append(", ", -1);
            appendNumber(out, wordAt(3 * i + 1));
            out.append(", ", -1);
            appendNumber(out, wordAt(3 * i + 2));
            break;
        case 0x33:
            appendNumber(out, wordAt(2 * i));
            out.append(", ", -1);
            appendNumber(out, wordAt(2 * i + 1));
            break;
        case 0x35:
        case 0x36:
            if (stringAt(2 * i + 1) != nullptr) out.append(*stringAt(2 * i + 1));
            out.append(": ", -1);
            if (stringAt(2 * i) != nullptr) out.append(*stringAt(2 * i));
            break;
        case 0x10:
        case 0x12:
        case 0x13:
        case 0x41:
        case 0x42:
        case 0x44:
        case 0x45:
        case 0x46:
        case 0x47:
        case 0x48:
        case 0x49:
            if (stringAt(2 * i) != nullptr) out.append(*stringAt(2 * i));
            break;
        case 0x30:
        case 0x50:
            if (bufAt(i) != nullptr && bufAt(i)->length() != 0) {
                const char* p = reinterpret_cast<const char*>(bufAt(i)->data());
                out.append(p, static_cast<int32_t>(strnlen(p, bufAt(i)->length())));
            }
            break;
        default:
            out.append("Type incorrect", -1);
            break;
        }
        out.append("</font>", -1);
        out.append(lineEnd, -1);
    }
    return out;
}

cmp_ipp_string groupHtml(const cmp_ipp_attrs& g) {
    cmp_ipp_string out;
    if (g.count() == 0) return out;
    out.append("\n<br><big><b>Attrs group: ", -1);
    out.append(g.m_name.c_str(), -1);
    out.append("</b></big><br>\n", -1);
    int depth = 0;
    for (int32_t i = 0; i < g.count(); ++i) {
        if (g[i].m_type == 0x37 && depth > 0) --depth;
        for (int d = 0; d < depth; ++d) out.append("&nbsp;&nbsp;&nbsp;&nbsp;", -1);
        out.append(attrHtml(g[i], false));
        out.append("<br>\n", -1);
        if (g[i].m_type == 0x34) ++depth;
    }
    return out;
}

cmp_ipp_string msgHtml(const cmp_ipp_msg& m) {
    cmp_ipp_string page;
    char line[256];
    page.append("<HTML><HEAD><TITLE>IPP Attributes</TITLE></HEAD><BODY BGCOLOR=\"#FFFFFF\"><H2> Message contents </H2>\n",
                -1);
    std::snprintf(line, sizeof line, "Version=0x%2x", static_cast<unsigned>(m.m_version));
    page.append(line, -1);
    const uint16_t op = static_cast<uint16_t>(m.m_operationId);
    const char* name = cmp_ipp_msg::getOpName(op);
    if (name == nullptr || std::strcmp(name, "unknown") == 0) name = cmp_ipp_msg::getStatusCodeString(op);
    std::snprintf(line, sizeof line, "\n<br>operation id/status code=%d (0x%x) %s", m.m_operationId,
                  static_cast<unsigned>(m.m_operationId), name);
    page.append(line, -1);
    std::snprintf(line, sizeof line, "\n<br>request id=%ld (0x%lx)", static_cast<long>(m.m_requestId),
                  static_cast<unsigned long>(static_cast<uint32_t>(m.m_requestId)));
    page.append(line, -1);
    page.append("\n<H2>Attributes</H2>", -1);
    for (int32_t g = 0; g < m.groupCount(); ++g) page.append(groupHtml(*m.group(g)));
    page.append("\n<br><big><b>Data</b></big>", -1);
    if (m.m_docData.length() == 0) {
        page.append("\n<br>Data is null </BODY></HTML>", -1);
    } else {
        std::snprintf(line, sizeof line, "\n<br>Data length: %ld", static_cast<long>(m.m_docData.length()));
        page.append(line, -1);
        page.append(" Bytes </BODY></HTML>", -1);
    }
    return page;
}

}  // namespace reference

// Text, length and state (unset or not) of a string.
std::string shown(const cmp_ipp_string& s) {
    if (!s.isSet()) return "(unset)";
    return std::string(s.data(), static_cast<size_t>(s.length()));
}

// Renders with the library and counts the allocations it made.
template <class F>
cmp_ipp_string counted(F render, uint32_t* allocations) {
    const uint32_t before = emwOSWTestAllocCalls();
    cmp_ipp_string out = render();
    *allocations = emwOSWTestAllocCalls() - before;
    return out;
}

// Compares every rendering of a message with the reference; a page with text
// costs exactly one allocation, an empty one none.
void expectSameAsReference(const cmp_ipp_msg& m) {
    uint32_t allocations = 0;
    const cmp_ipp_string page = counted([&] { return m.cmp_ipp_msg_to_html(); }, &allocations);
    EXPECT_EQ(shown(page), shown(reference::msgHtml(m)));
    EXPECT_EQ(allocations, 1u) << "the page is allocated once";
    for (int32_t g = 0; g < m.groupCount(); ++g) {
        const cmp_ipp_attrs& group = *m.group(g);
        SCOPED_TRACE(group.getName());
        const cmp_ipp_string html = counted([&] { return group.toHTML(); }, &allocations);
        EXPECT_EQ(shown(html), shown(reference::groupHtml(group)));
        EXPECT_EQ(allocations, group.count() == 0 ? 0u : 1u);
        for (int32_t i = 0; i < group.count(); ++i) {
            for (bool lineBreak : {false, true}) {
                const cmp_ipp_string a = counted([&] { return group[i].toHTML(lineBreak); }, &allocations);
                EXPECT_EQ(shown(a), shown(reference::attrHtml(group[i], lineBreak))) << "attribute " << i;
                EXPECT_EQ(allocations, a.isSet() ? 1u : 0u);
            }
        }
    }
}

// Every attribute name of the corpus registered under its first value tag, so
// that names come from the registry (with an empty registry they are the
// attributes' own).
RegistryTables corpusTables(std::vector<std::string>& names) {
    std::map<std::string, int16_t> seen;
    for (const char* suffix : {".req.ipp", ".rsp.ipp"}) {
        for (const auto& m : capturedMessages(suffix)) {
            const Bytes& b = m.second;
            size_t i = 8;
            while (i + 3 <= b.size()) {
                const unsigned char tag = b[i];
                if (tag < 0x10) {
                    ++i;
                    if (tag == 3) break;
                    continue;
                }
                const size_t nl = static_cast<size_t>(b[i + 1] << 8 | b[i + 2]);
                if (i + 5 + nl > b.size()) break;
                const size_t vl = static_cast<size_t>(b[i + 3 + nl] << 8 | b[i + 4 + nl]);
                if (nl > 0 && tag != 0x4A && tag != 0x37)
                    seen.emplace(std::string(b.begin() + static_cast<long>(i + 3), b.begin() + static_cast<long>(i + 3 + nl)),
                                 static_cast<int16_t>(tag));
                i += 5 + nl + vl;
            }
        }
    }
    seen.emplace("ipp-versions-supported", 0x44);
    seen.emplace("operations-supported", 0x23);
    RegistryTables t;
    names.clear();
    for (const auto& kv : seen) names.push_back(kv.first);
    uint16_t id = 1;
    for (const std::string& n : names) t.attrs.push_back({id++, n.c_str(), seen[n], 0, INT32_MAX});
    t.operations = {{0x0002, "Print-Job"}, {0x000B, "Get-Printer-Attributes"}};
    t.statuses = {{0x0000, "successful-ok"}, {0x0400, "client-error-bad-request"}};
    return t;
}

TEST(MsgHtml, EveryCorpusMessageRendersAsBeforeInOneAllocation) {
    const auto requests = capturedMessages(".req.ipp");
    const auto responses = capturedMessages(".rsp.ipp");
    ASSERT_GE(requests.size() + responses.size(), 56u) << "corpus not found at " << CMP_IPP_CORPUS_DIR;
    std::vector<std::string> names;
    const RegistryTables corpus = corpusTables(names);
    for (bool registered : {true, false}) {
        SCOPED_TRACE(registered ? "names from the registry" : "own names");
        ScopedRegistry reg(registered ? corpus : RegistryTables());
        ScopedPrinter printer;
        TraceCapture quiet(-1);  // the malformed captures are refused with traces
        for (const auto* list : {&requests, &responses}) {
            for (const auto& m : *list) {
                SCOPED_TRACE(m.first);
                cmp_ipp_buf buf = bufOf(m.second);
                std::unique_ptr<cmp_ipp_msg> msg;
                if (list == &requests) {
                    msg.reset(new cmp_ipp_request());
                } else {
                    msg.reset(new cmp_ipp_response());
                }
                (void)msg->decode(buf, nullptr);  // refused ones render what was read
                expectSameAsReference(*msg);
            }
        }
    }
}

cmp_ipp_attr values(cmp_ipp_attr a, int32_t n) {
    a.m_numValues = n;
    return a;
}

cmp_ipp_attr words(int16_t tag, uint16_t id, std::vector<int32_t> w, int32_t n) {
    cmp_ipp_attr a(tag, id);
    for (int32_t v : w) a.m_longs.append(v);
    return values(a, n);
}

cmp_ipp_attr texts(int16_t tag, uint16_t id, std::vector<std::string> s, int32_t n) {
    cmp_ipp_attr a(tag, id);
    for (const std::string& v : s) a.m_strings.append(cmp_ipp_string(v.data(), static_cast<int32_t>(v.size())));
    return values(a, n);
}

cmp_ipp_attr octets(uint16_t id, std::vector<std::string> s, int32_t n) {
    cmp_ipp_attr a(0x30, id);
    for (const std::string& v : s)
        a.m_bufs.append(cmp_ipp_buf(reinterpret_cast<const unsigned char*>(v.data()), static_cast<uint32_t>(v.size()), true));
    return values(a, n);
}

cmp_ipp_attr member(cmp_ipp_attr a, int32_t memberType) {
    a.m_memberType = memberType;
    a.m_type = 0x4A;
    return a;
}

// Values the corpus does not hold: extreme numbers, dates with and without a
// direction, texts with NUL bytes, stores shorter than the value count, tags
// without a layout, and collections that do not balance.
TEST(MsgHtml, UnusualValuesRenderAsBefore) {
    using namespace std::string_literals;
    ScopedRegistry reg(messageTables());
    const auto date = [](uint32_t w0, uint32_t w1, uint32_t w2) {
        return std::vector<int32_t>{static_cast<int32_t>(w0), static_cast<int32_t>(w1), static_cast<int32_t>(w2)};
    };
    std::vector<int32_t> twoDates = date(0x07E80305u, 0x0E070905u, 0x2D0B1E00u);
    const std::vector<int32_t> noDirection = date(0xFFFF0C1Fu, 0x17FB3B09u, 0x000E0000u);
    twoDates.insert(twoDates.end(), noDirection.begin(), noDirection.end());

    cmp_ipp_request msg;
    cmp_ipp_attrs* g = msg.getAttrGroup("Job0");
    const cmp_ipp_attr attrs[] = {
        words(0x21, 16, {0, -1, INT32_MIN, INT32_MAX, 7}, 5),
        words(0x23, 0, {3}, 2),  // a value count beyond the store
        words(0x22, 0, {0, 2, -5}, 3),
        words(0x31, 0, twoDates, 2),
        words(0x32, 0, {600, -600, 3, INT32_MIN, 0, 4}, 2),
        words(0x33, 0, {INT32_MIN, INT32_MAX}, 1),
        texts(0x35, 0, {"hello", "en", "a\0b"s, ""}, 3),
        texts(0x36, 0, {"name"}, 1),
        texts(0x41, 0, {"a\0b\0"s, "x", "<b>&amp;", "fr"}, 2),
        texts(0x44, 20, {"one-sided", "", "two-sided-long-edge", ""}, 2),
        texts(0x13, 0, {}, 1),
        octets(0, {"AB\0C"s, "", std::string(300, 'o')}, 4),
        words(0x43, 0, {1}, 1),
        words(0x7F, 0, {}, 2),
        words(0x21, 0, {}, 0),
        member(texts(0x44, 0, {"a4"}, 1), 0x44),
        member(cmp_ipp_attr(0x4A, 19), 0),
        cmp_ipp_attr(0x37, 0),  // an endCollection without a begCollection
        cmp_ipp_attr(0x34, 18),
        cmp_ipp_attr(0x34, 19),
        member(words(0x21, 0, {21000}, 1), 0x21),
        cmp_ipp_attr(0x37, 0),
        cmp_ipp_attr(0x34, 0),  // never closed
    };
    for (const cmp_ipp_attr& a : attrs) g->cmp_ipp_attrs_set_attr_by_name(&a, false);
    msg.getAttrGroup("")->cmp_ipp_attrs_set_attr_by_name(&attrs[0], false);  // a group without a name
    (void)msg.getAttrGroup("Printer");                                        // an empty group
    const unsigned char doc[3] = {1, 2, 3};
    for (int16_t op : {int16_t{0x000B}, int16_t{0x0400}, int16_t{0x0777}, int16_t{-1}}) {
        SCOPED_TRACE(op);
        msg.m_operationId = op;
        msg.m_requestId = op < 0 ? INT32_MIN : 77;
        msg.setData(cmp_ipp_buf(doc, op < 0 ? 0u : 3u, true));
        expectSameAsReference(msg);
    }
}

TEST(MsgHtml, StringsFilledInPlace) {
    cmp_ipp_string s("old");
    const uint32_t before = emwOSWTestAllocCalls();
    char* p = s.assignUninitialized(3);
    EXPECT_EQ(emwOSWTestAllocCalls() - before, 1u);
    std::memcpy(p, "a\0b", 3);
    EXPECT_EQ(shown(s), std::string("a\0b", 3));
    EXPECT_EQ(s.data()[3], '\0') << "terminated";
    s.assignUninitialized(0);
    EXPECT_TRUE(s.isSet()) << "empty, not unset";
    EXPECT_EQ(s.length(), 0);
    s.assignUninitialized(-4);
    EXPECT_EQ(s.length(), 0);
    EXPECT_STREQ(s.c_str(), "");
}

}  // namespace
