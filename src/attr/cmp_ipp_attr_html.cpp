// One attribute as HTML for the diagnostic pages: a line per value with the
// name in blue, the value type in italics and the value in red. Texts go in as
// they are, without escaping.
#include <cstring>

#include "attr/cmp_ipp_attr.h"
#include "attr/cmp_ipp_html_writer.h"

namespace {

// Stored values are read without ever leaving the stores: a value the stores do
// not hold reads as 0 or as nothing.
int32_t wordOf(const cmp_ipp_attr& a, int32_t i) { return (i >= 0 && i < a.m_longs.length()) ? a.m_longs[i] : 0; }
const cmp_ipp_string* stringOf(const cmp_ipp_attr& a, int32_t i) {
    return (i >= 0 && i < a.m_strings.length()) ? &a.m_strings[i] : nullptr;
}
const cmp_ipp_buf* bufOf(const cmp_ipp_attr& a, int32_t i) {
    return (i >= 0 && i < a.m_bufs.length()) ? &a.m_bufs[i] : nullptr;
}

void putString(cmp_ipp_html_writer& w, const cmp_ipp_string* s) {
    if (s != nullptr) w.string(*s);
}

// The eleven dateTime bytes from the three words that hold them.
void dateBytes(int32_t w0, int32_t w1, int32_t w2, unsigned char b[11]) {
    const uint32_t w[3] = {static_cast<uint32_t>(w0), static_cast<uint32_t>(w1), static_cast<uint32_t>(w2)};
    for (int i = 0; i < 11; ++i) b[i] = static_cast<unsigned char>(w[i / 4] >> (24 - 8 * (i % 4)));
}

// "%d/%d/%d %d:%d:%d:%1d %c%d": year, month, day, hours, minutes, seconds,
// deci-seconds, direction from UTC, hours from UTC.
void putDate(cmp_ipp_html_writer& w, const unsigned char b[11]) {
    w.number((b[0] << 8) | b[1]);
    w.literal("/");
    w.number(b[2]);
    w.literal("/");
    w.number(b[3]);
    w.literal(" ");
    w.number(b[4]);
    w.literal(":");
    w.number(b[5]);
    w.literal(":");
    w.number(b[6]);
    w.literal(":");
    w.number(b[7]);
    w.literal(" ");
    // A zero direction byte (a date never set) is left out rather than put into
    // the page as a NUL that would cut it short.
    if (b[8] != 0) w.bytes(reinterpret_cast<const char*>(&b[8]), 1);
    w.number(b[9]);
}

}  // namespace

void cmp_ipp_html_writer::number(int32_t v) {
    char digits[12];
    char* const end = digits + sizeof digits;
    char* p = end;
    uint32_t u = v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v);
    do {
        *--p = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (v < 0) *--p = '-';
    bytes(p, static_cast<size_t>(end - p));
}

void cmp_ipp_html_attr(cmp_ipp_html_writer& w, const cmp_ipp_attr& a, bool lineBreak) {
    const char* const name = a.cmp_ipp_attr_get_name();
    const auto lineEnd = [&w, lineBreak] {
        if (lineBreak) {
            w.literal("<br>");
        } else {
            w.literal("\n");
        }
    };

    if (a.m_type == CMP_IPP_TAG_MEMBERNAME && a.m_numValues <= 0) {
        w.literal("<font color=\"blue\">");
        w.text(name);
        w.literal(":</font> ");
        lineEnd();
        return;
    }
    if (a.m_type == CMP_IPP_TAG_BEGIN_COLLECTION) {
        if (a.m_nameId != 0) {
            w.literal("<font color=\"blue\">");
            w.text(name);
            w.literal(":</font> ");
        }
        w.literal("{ ");
        lineEnd();
        return;
    }
    if (a.m_type == CMP_IPP_TAG_END_COLLECTION) {
        w.literal("}");
        lineEnd();
        return;
    }

    const int32_t tag = (a.m_type == CMP_IPP_TAG_MEMBERNAME) ? a.m_memberType : a.m_type;
    const char* const typeName = cmp_ipp_attr_type_name(tag);
    for (int32_t i = 0; i < a.m_numValues; ++i) {
        w.literal("<font color=\"blue\">");
        if (i == 0) w.text(name);
        w.literal(":</font> <i>");
        w.text(typeName);
        w.literal(":</i> <font color=\"red\">");
        switch (tag) {
        case CMP_IPP_TAG_INTEGER:
        case CMP_IPP_TAG_ENUM:
            w.number(wordOf(a, i));
            break;
        case CMP_IPP_TAG_BOOLEAN:
            if (wordOf(a, i) != 0) {
                w.literal("true");
            } else {
                w.literal("false");
            }
            break;
        case CMP_IPP_TAG_DATETIME: {
            unsigned char b[11];
            dateBytes(wordOf(a, 3 * i), wordOf(a, 3 * i + 1), wordOf(a, 3 * i + 2), b);
            putDate(w, b);
            break;
        }
        case CMP_IPP_TAG_RESOLUTION:
            w.number(wordOf(a, 3 * i));
            w.literal(", ");
            w.number(wordOf(a, 3 * i + 1));
            w.literal(", ");
            w.number(wordOf(a, 3 * i + 2));
            break;
        case CMP_IPP_TAG_RANGE:
            w.number(wordOf(a, 2 * i));
            w.literal(", ");
            w.number(wordOf(a, 2 * i + 1));
            break;
        case CMP_IPP_TAG_TEXTLANG:
        case CMP_IPP_TAG_NAMELANG:
            putString(w, stringOf(a, 2 * i + 1));
            w.literal(": ");
            putString(w, stringOf(a, 2 * i));
            break;
        case CMP_IPP_TAG_UNSUPPORTED:
        case CMP_IPP_TAG_UNKNOWN:
        case CMP_IPP_TAG_NOVALUE:
        case CMP_IPP_TAG_TEXT:
        case CMP_IPP_TAG_NAME:
        case CMP_IPP_TAG_KEYWORD:
        case CMP_IPP_TAG_URI:
        case CMP_IPP_TAG_URISCHEME:
        case CMP_IPP_TAG_CHARSET:
        case CMP_IPP_TAG_LANGUAGE:
        case CMP_IPP_TAG_MIMETYPE:
            putString(w, stringOf(a, 2 * i));
            break;
        case CMP_IPP_TAG_OCTETSTRING:
        case CMP_IPP_TAG_OCTET32K: {
            // Up to the first zero byte, as a C text would read it.
            const cmp_ipp_buf* bytes = bufOf(a, i);
            if (bytes != nullptr && bytes->length() != 0) {
                const char* p = reinterpret_cast<const char*>(bytes->data());
                w.bytes(p, strnlen(p, bytes->length()));
            }
            break;
        }
        default:
            w.literal("Type incorrect");
            break;
        }
        w.literal("</font>");
        lineEnd();
    }
}

cmp_ipp_string cmp_ipp_attr::toHTML(bool lineBreak) const {
    return cmp_ipp_html_writer::build([this, lineBreak](cmp_ipp_html_writer& w) { cmp_ipp_html_attr(w, *this, lineBreak); });
}
