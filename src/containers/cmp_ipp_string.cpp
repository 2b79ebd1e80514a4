#include "cmp_ipp_string.h"

#include <cstring>

#include "cmp_ipp_malloc.h"

namespace {

// The text of every empty string; never written (nothing writes into a
// zero-length text) and never freed.
char g_emptyText[1] = {'\0'};

// Unsigned byte-wise compare of the common prefix.
int comparePrefix(const char* a, const char* b, int32_t n) {
    return std::memcmp(a, b, static_cast<size_t>(n));
}

}  // namespace

void cmp_ipp_string::release(char* data) {
    if (data != g_emptyText) cmp_ipp_free(data);
}

cmp_ipp_string::~cmp_ipp_string() {
    if (m_data != nullptr) {
        release(m_data);
        m_data = nullptr;
    }
}

cmp_ipp_string& cmp_ipp_string::operator=(cmp_ipp_string&& other) noexcept {
    if (this != &other) {
        release(m_data);
        m_data = other.m_data;
        m_length = other.m_length;
        other.m_data = nullptr;
        other.m_length = 0;
    }
    return *this;
}

void cmp_ipp_string::assignBytes(const char* s, int32_t n) {
    release(m_data);
    m_data = nullptr;
    m_length = 0;
    if (n == -1) {
        n = (s == nullptr) ? 0 : static_cast<int32_t>(std::strlen(s));
    } else if (n < 0 || s == nullptr) {
        n = 0;  // caller error: keep a valid empty text rather than read anything
    }
    if (n == 0) {
        m_data = g_emptyText;
        return;
    }
    m_data = static_cast<char*>(cmp_ipp_malloc(static_cast<uint32_t>(n) + 1));
    if (n > 0) std::memcpy(m_data, s, static_cast<size_t>(n));
    m_data[n] = '\0';
    m_length = n;
}

char* cmp_ipp_string::assignUninitialized(int32_t n) {
    cmp_ipp_free(m_data);
    if (n < 0) n = 0;
    m_data = static_cast<char*>(cmp_ipp_malloc(static_cast<uint32_t>(n) + 1));
    m_data[n] = '\0';
    m_length = n;
    return m_data;
}

void cmp_ipp_string::append(const char* s, int32_t n) {
    if (n == -1) {
        if (s == nullptr) return;
        n = static_cast<int32_t>(std::strlen(s));
    }
    if (n <= 0 || s == nullptr) return;
    char* block = static_cast<char*>(cmp_ipp_malloc(static_cast<uint32_t>(m_length + n) + 1));
    if (m_length != 0) std::memcpy(block, m_data, static_cast<size_t>(m_length));
    std::memcpy(block + m_length, s, static_cast<size_t>(n));
    block[m_length + n] = '\0';
    release(m_data);
    m_data = block;
    m_length += n;
}

static int32_t otherLength(const char* s, int32_t n) {
    if (n == -1) return s == nullptr ? 0 : static_cast<int32_t>(std::strlen(s));
    if (n < 0 || s == nullptr) return 0;
    return n;
}

bool cmp_ipp_string::isEqualTo(const char* s, int32_t n) const {
    n = otherLength(s, n);
    if (m_length != n) return false;
    return n == 0 || comparePrefix(m_data, s, n) == 0;
}

bool cmp_ipp_string::isLessThan(const char* s, int32_t n) const {
    n = otherLength(s, n);
    if (m_length == 0) return n != 0;
    if (n == 0) return false;
    int32_t common = m_length < n ? m_length : n;
    int c = comparePrefix(m_data, s, common);
    if (c != 0) return c < 0;
    return m_length < n;
}

bool cmp_ipp_string::isGreaterThan(const char* s, int32_t n) const {
    n = otherLength(s, n);
    if (n == 0) return m_length != 0;
    if (m_length == 0) return false;
    int32_t common = m_length < n ? m_length : n;
    int c = comparePrefix(m_data, s, common);
    if (c != 0) return c > 0;
    return m_length > n;
}

int32_t cmp_ipp_string::find(const char* s, int32_t n, int32_t start) const {
    if (start < 0) start = 0;
    if (m_length == 0 || s == nullptr || n < 0 || start > m_length - n) return -1;
    for (int32_t i = start; i <= m_length - n; ++i) {
        if (comparePrefix(m_data + i, s, n) == 0) return i;
    }
    return -1;
}

int32_t cmp_ipp_string::rfind(const char* s, int32_t n, int32_t start) const {
    if (n < 0) return -1;
    if (start < 0 || start > m_length - n) start = m_length - n;
    if (m_length == 0 || s == nullptr || start < 0) return -1;
    for (int32_t i = start; i >= 0; --i) {
        if (comparePrefix(m_data + i, s, n) == 0) return i;
    }
    return -1;
}

cmp_ipp_string cmp_ipp_string::substr(int32_t pos, int32_t len) const {
    cmp_ipp_string out;
    if (pos < 0 || pos >= m_length) return out;
    if (len == -1 || len > m_length - pos) len = m_length - pos;
    if (len < 0) len = 0;
    out.assignBytes(m_data + pos, len);
    return out;
}

cmp_ipp_string cmp_ipp_string::concat(const cmp_ipp_string& a, const char* s, int32_t n) {
    cmp_ipp_string out;
    int32_t total = a.m_length + n;
    if (total == 0) return out;
    out.m_data = static_cast<char*>(cmp_ipp_malloc(static_cast<uint32_t>(total) + 1));
    if (a.m_length != 0) std::memcpy(out.m_data, a.m_data, static_cast<size_t>(a.m_length));
    if (n != 0) std::memcpy(out.m_data + a.m_length, s, static_cast<size_t>(n));
    out.m_data[total] = '\0';
    out.m_length = total;
    return out;
}

cmp_ipp_string operator+(const cmp_ipp_string& a, const char* s) {
    return cmp_ipp_string::concat(a, s, s == nullptr ? 0 : static_cast<int32_t>(std::strlen(s)));
}

cmp_ipp_string operator+(const cmp_ipp_string& a, const cmp_ipp_string& b) {
    return cmp_ipp_string::concat(a, b.m_data, b.m_length);
}
