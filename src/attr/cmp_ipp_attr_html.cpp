// One attribute as HTML for the diagnostic pages: a line per value with the
// name in blue, the value type in italics and the value in red. Texts go in as
// they are, without escaping.
#include <cstdio>
#include <cstring>

#include "attr/cmp_ipp_attr.h"

namespace {

void appendText(cmp_ipp_string& out, const char* text) { out.append(text, -1); }

void appendNumber(cmp_ipp_string& out, int32_t v) {
    char digits[16];
    int n = std::snprintf(digits, sizeof digits, "%d", static_cast<int>(v));
    if (n > 0) out.append(digits, n);
}

// The eleven dateTime bytes from the three words that hold them.
void dateBytes(int32_t w0, int32_t w1, int32_t w2, unsigned char b[11]) {
    const uint32_t w[3] = {static_cast<uint32_t>(w0), static_cast<uint32_t>(w1), static_cast<uint32_t>(w2)};
    for (int i = 0; i < 11; ++i) b[i] = static_cast<unsigned char>(w[i / 4] >> (24 - 8 * (i % 4)));
}

}  // namespace

cmp_ipp_string cmp_ipp_attr::toHTML(bool lineBreak) const {
    const char* lineEnd = lineBreak ? "<br>" : "\n";
    const char* name = cmp_ipp_attr_get_name();
    cmp_ipp_string out;

    if (m_type == CMP_IPP_TAG_MEMBERNAME && m_numValues <= 0) {
        appendText(out, "<font color=\"blue\">");
        appendText(out, name);
        appendText(out, ":</font> ");
        appendText(out, lineEnd);
        return out;
    }
    if (m_type == CMP_IPP_TAG_BEGIN_COLLECTION) {
        if (m_nameId != 0) {
            appendText(out, "<font color=\"blue\">");
            appendText(out, name);
            appendText(out, ":</font> ");
        }
        appendText(out, "{ ");
        appendText(out, lineEnd);
        return out;
    }
    if (m_type == CMP_IPP_TAG_END_COLLECTION) {
        appendText(out, "}");
        appendText(out, lineEnd);
        return out;
    }

    const int32_t tag = (m_type == CMP_IPP_TAG_MEMBERNAME) ? m_memberType : m_type;
    const char* typeName = cmp_ipp_attr_type_name(tag);
    for (int32_t i = 0; i < m_numValues; ++i) {
        appendText(out, "<font color=\"blue\">");
        if (i == 0) appendText(out, name);
        appendText(out, ":</font> <i>");
        appendText(out, typeName);
        appendText(out, ":</i> <font color=\"red\">");
        switch (tag) {
        case CMP_IPP_TAG_INTEGER:
        case CMP_IPP_TAG_ENUM:
            appendNumber(out, wordAt(i));
            break;
        case CMP_IPP_TAG_BOOLEAN:
            appendText(out, wordAt(i) != 0 ? "true" : "false");
            break;
        case CMP_IPP_TAG_DATETIME: {
            unsigned char b[11];
            dateBytes(wordAt(3 * i), wordAt(3 * i + 1), wordAt(3 * i + 2), b);
            // A zero direction byte (a date never set) is left out rather than
            // put into the page as a NUL that would cut it short.
            char text[64];
            int n = (b[8] != 0) ? std::snprintf(text, sizeof text, "%d/%d/%d %d:%d:%d:%1d %c%d", (b[0] << 8) | b[1],
                                                b[2], b[3], b[4], b[5], b[6], b[7], static_cast<char>(b[8]), b[9])
                                : std::snprintf(text, sizeof text, "%d/%d/%d %d:%d:%d:%1d %d", (b[0] << 8) | b[1],
                                                b[2], b[3], b[4], b[5], b[6], b[7], b[9]);
            if (n > 0) out.append(text, n < static_cast<int>(sizeof text) ? n : static_cast<int>(sizeof text) - 1);
            break;
        }
        case CMP_IPP_TAG_RESOLUTION:
            appendNumber(out, wordAt(3 * i));
            appendText(out, ", ");
            appendNumber(out, wordAt(3 * i + 1));
            appendText(out, ", ");
            appendNumber(out, wordAt(3 * i + 2));
            break;
        case CMP_IPP_TAG_RANGE:
            appendNumber(out, wordAt(2 * i));
            appendText(out, ", ");
            appendNumber(out, wordAt(2 * i + 1));
            break;
        case CMP_IPP_TAG_TEXTLANG:
        case CMP_IPP_TAG_NAMELANG: {
            const cmp_ipp_string* text = stringAt(2 * i);
            const cmp_ipp_string* language = stringAt(2 * i + 1);
            if (language != nullptr) out.append(*language);
            appendText(out, ": ");
            if (text != nullptr) out.append(*text);
            break;
        }
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
        case CMP_IPP_TAG_MIMETYPE: {
            const cmp_ipp_string* text = stringAt(2 * i);
            if (text != nullptr) out.append(*text);
            break;
        }
        case CMP_IPP_TAG_OCTETSTRING:
        case CMP_IPP_TAG_OCTET32K: {
            const cmp_ipp_buf* bytes = bufAt(i);
            if (bytes != nullptr && bytes->length() != 0) {
                const char* p = reinterpret_cast<const char*>(bytes->data());
                out.append(p, static_cast<int32_t>(strnlen(p, bytes->length())));
            }
            break;
        }
        default:
            appendText(out, "Type incorrect");
            break;
        }
        appendText(out, "</font>");
        appendText(out, lineEnd);
    }
    return out;
}
