// Counted, NUL-terminated text on the library's allocator. Three states: unset
// (null text), empty (a zero-length text) and text. A length of -1 means
// "NUL-terminated, measure it". No spare capacity is ever kept. Every empty
// string shares one static zero-length text, so emptiness costs no allocation
// (every text value of an attribute carries an empty language).
#ifndef CMP_IPP_STRING_H
#define CMP_IPP_STRING_H

#include <stdint.h>

class cmp_ipp_string {
public:
    cmp_ipp_string() noexcept : m_data(nullptr), m_length(0) {}
    explicit cmp_ipp_string(const char* s, int32_t n = -1) : m_data(nullptr), m_length(0) {
        assignBytes(s, n);
    }
    cmp_ipp_string(const cmp_ipp_string& other) : m_data(nullptr), m_length(0) {
        assignBytes(other.m_data, other.m_length);
    }
    cmp_ipp_string(cmp_ipp_string&& other) noexcept : m_data(other.m_data), m_length(other.m_length) {
        other.m_data = nullptr;
        other.m_length = 0;
    }
    ~cmp_ipp_string();

    // Copying an unset string yields an empty one.
    cmp_ipp_string& operator=(const cmp_ipp_string& other) {
        if (this != &other) assignBytes(other.m_data, other.m_length);
        return *this;
    }
    cmp_ipp_string& operator=(cmp_ipp_string&& other) noexcept;

    void assignBytes(const char* s, int32_t n);
    void append(const char* s, int32_t n);
    void append(const cmp_ipp_string& s) { append(s.m_data, s.m_length); }
    // Replaces the text with n (>= 0) characters for the caller to fill in, and
    // the NUL after them: how a text whose exact length is known up front is
    // built with one allocation and no copy.
    char* assignUninitialized(int32_t n);

    bool isEqualTo(const char* s, int32_t n) const;
    bool isLessThan(const char* s, int32_t n) const;
    bool isGreaterThan(const char* s, int32_t n) const;
    int32_t find(const char* s, int32_t n, int32_t start) const;
    int32_t rfind(const char* s, int32_t n, int32_t start) const;
    cmp_ipp_string substr(int32_t pos, int32_t len) const;

    // The text, or null when unset.
    const char* data() const { return m_data; }
    // The text, or "" when unset: always safe to print.
    const char* c_str() const { return m_data != nullptr ? m_data : ""; }
    int32_t length() const { return m_length; }
    bool isSet() const { return m_data != nullptr; }
    bool isEmpty() const { return m_length == 0; }

    friend cmp_ipp_string operator+(const cmp_ipp_string& a, const char* s);
    friend cmp_ipp_string operator+(const cmp_ipp_string& a, const cmp_ipp_string& b);

private:
    static cmp_ipp_string concat(const cmp_ipp_string& a, const char* s, int32_t n);
    // Frees the text unless it is the shared empty one.
    static void release(char* data);

    char* m_data;
    int32_t m_length;
};

cmp_ipp_string operator+(const cmp_ipp_string& a, const char* s);
cmp_ipp_string operator+(const cmp_ipp_string& a, const cmp_ipp_string& b);

#endif
