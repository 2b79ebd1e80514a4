// Internal to the library: how the HTML renderings of attributes, groups and
// messages are built. A page is rendered twice by the same code: once to measure
// its exact length, once to write it into a text allocated with that length. So a
// page costs one allocation and one copy of each piece, where appending piece by
// piece to a string without spare capacity would copy the whole page every time.
#ifndef CMP_IPP_HTML_WRITER_H
#define CMP_IPP_HTML_WRITER_H

#include <stddef.h>
#include <stdint.h>

#include <cstring>

#include "containers/cmp_ipp_string.h"

class cmp_ipp_attr;
class cmp_ipp_attrs;
class cmp_ipp_msg;

class cmp_ipp_html_writer {
public:
    // Measures only.
    cmp_ipp_html_writer() : m_out(nullptr), m_capacity(0), m_length(0) {}
    // Writes into out, never beyond capacity characters.
    cmp_ipp_html_writer(char* out, size_t capacity) : m_out(out), m_capacity(capacity), m_length(0) {}

    // A string literal: its length is known at compile time.
    template <size_t N>
    void literal(const char (&s)[N]) {
        bytes(s, N - 1);
    }
    // A NUL-terminated text; null adds nothing.
    void text(const char* s) {
        if (s != nullptr) bytes(s, std::strlen(s));
    }
    // A string with its stored length (which may include NUL bytes).
    void string(const cmp_ipp_string& s) {
        if (s.length() > 0) bytes(s.data(), static_cast<size_t>(s.length()));
    }
    // As printf's "%d".
    void number(int32_t v);
    void bytes(const char* s, size_t n) {
        if (m_out != nullptr && n > 0) {
            const size_t room = m_length < m_capacity ? m_capacity - m_length : 0;
            std::memcpy(m_out + m_length, s, n < room ? n : room);
        }
        m_length += n;
    }

    size_t length() const { return m_length; }

    // The text that render(writer) produces; unset when it produces nothing, as a
    // string that was never appended to.
    template <class Render>
    static cmp_ipp_string build(const Render& render) {
        cmp_ipp_html_writer measure;
        render(measure);
        cmp_ipp_string out;
        const size_t n = measure.length();
        // A text's length is a 32-bit count.
        if (n == 0 || n > static_cast<size_t>(INT32_MAX - 1)) return out;
        char* text = out.assignUninitialized(static_cast<int32_t>(n));
        cmp_ipp_html_writer write(text, n);
        render(write);
        // Only a page changed under the renderer could come out shorter.
        if (write.length() < n) std::memset(text + write.length(), 0, n - write.length());
        return out;
    }

private:
    char* m_out;
    size_t m_capacity;
    size_t m_length;
};

// The renderings behind cmp_ipp_attr::toHTML, cmp_ipp_attrs::toHTML and
// cmp_ipp_msg::cmp_ipp_msg_to_html, each writing straight into the page of its
// caller.
void cmp_ipp_html_attr(cmp_ipp_html_writer& w, const cmp_ipp_attr& attr, bool lineBreak);
void cmp_ipp_html_group(cmp_ipp_html_writer& w, const cmp_ipp_attrs& group);
void cmp_ipp_html_msg(cmp_ipp_html_writer& w, const cmp_ipp_msg& msg);

#endif
