#include "cmp_ipp_buf.h"

#include <cstdio>
#include <cstring>

#include "platform/emw_osw.h"

namespace {
unsigned char g_zeroByte = 0;
const uint32_t kTraceModule = 0x510A;
const uint32_t kTraceCode = 0x102;
const int kTraceInfo = 2;
}  // namespace

unsigned char* const cmp_ipp_buf::m_1charbuf = &g_zeroByte;

cmp_ipp_buf::cmp_ipp_buf(bool owner) noexcept
    : m_length(0), m_size(1), m_data(m_1charbuf), m_owner(owner), m_port(nullptr) {}

cmp_ipp_buf::cmp_ipp_buf(uint32_t size, bool owner)
    : m_length(0), m_size(size + 1), m_data(m_1charbuf), m_owner(owner), m_port(nullptr) {
    if (size == 0 || size == UINT32_MAX) {
        m_size = 1;
        return;
    }
    // Zeroed, so bytes a writer skips never carry old heap contents onto the wire.
    m_data = new unsigned char[m_size]();
}

cmp_ipp_buf::cmp_ipp_buf(const cmp_ipp_buf& other, bool owner)
    : m_length(other.m_length), m_size(other.m_size), m_data(m_1charbuf), m_owner(owner), m_port(nullptr) {
    if (other.m_data == m_1charbuf || other.m_size <= 1) {
        // Nothing to hold: stay on the shared block rather than allocate.
        m_length = 0;
        m_size = 1;
        return;
    }
    m_data = new unsigned char[m_size];
    if (m_length != 0) std::memcpy(m_data, other.m_data, m_length);
    m_data[m_length] = 0;
}

cmp_ipp_buf::cmp_ipp_buf(const char* s, bool owner)
    : m_length(0), m_size(1), m_data(m_1charbuf), m_owner(owner), m_port(nullptr) {
    if (s == nullptr) return;
    m_length = static_cast<uint32_t>(std::strlen(s));
    m_size = m_length + 1;
    if (owner) {
        m_data = new unsigned char[m_size];
        std::memcpy(m_data, s, m_size);
    } else {
        m_data = reinterpret_cast<unsigned char*>(const_cast<char*>(s));
    }
}

cmp_ipp_buf::cmp_ipp_buf(const unsigned char* p, uint32_t len, bool owner)
    : m_length(len), m_size(len + 1), m_data(m_1charbuf), m_owner(owner), m_port(nullptr) {
    if (p == nullptr || len == 0 || len == UINT32_MAX) {
        m_length = 0;
        m_size = 1;
        return;
    }
    if (owner) {
        m_data = new unsigned char[m_size];
        std::memcpy(m_data, p, len);
        m_data[len] = 0;
    } else {
        m_data = const_cast<unsigned char*>(p);
    }
}

cmp_ipp_buf::cmp_ipp_buf(cmp_ipp_buf&& other) noexcept
    : m_length(other.m_length), m_size(other.m_size), m_data(other.m_data), m_owner(other.m_owner),
      m_port(nullptr) {
    other.m_length = 0;
    other.m_size = 1;
    other.m_data = m_1charbuf;
}

cmp_ipp_buf::~cmp_ipp_buf() { release(); }

void cmp_ipp_buf::release() {
    if (m_data != nullptr && m_data != m_1charbuf && m_owner) delete[] m_data;
}

cmp_ipp_buf& cmp_ipp_buf::operator=(const cmp_ipp_buf& other) {
    if (this == &other) return *this;
    m_length = 0;
    append(other.m_data, other.m_length);
    return *this;
}

cmp_ipp_buf& cmp_ipp_buf::operator+=(const char* s) {
    if (s != nullptr) append(reinterpret_cast<const unsigned char*>(s), static_cast<uint32_t>(std::strlen(s)));
    return *this;
}

int cmp_ipp_buf::getMoreDataFromPort() {
    if (m_port == nullptr || m_port->pfnGetMoreData == nullptr) return -1;
    // A wrapped block is the caller's, and a transport may well read its next
    // piece into that very block: keep what we hold before asking for more.
    if (!m_owner && m_data != m_1charbuf && m_length != 0) {
        unsigned char* own = new unsigned char[m_length + 1];
        std::memcpy(own, m_data, m_length);
        own[m_length] = 0;
        m_data = own;
        m_size = m_length + 1;
        m_owner = true;
    }
    unsigned char* piece = nullptr;
    int pieceLength = 0;
    int rc = m_port->pfnGetMoreData(m_port->ctx, -1, &piece, &pieceLength);
    if (rc < 1) return rc;
    if (piece != nullptr && pieceLength > 0) append(piece, static_cast<uint32_t>(pieceLength));
    return rc;
}

bool cmp_ipp_buf::ensure(uint32_t pos, uint32_t need) {
    uint64_t end = static_cast<uint64_t>(pos) + need;
    if (end > m_length) getMoreDataFromPort();
    return end <= m_length;
}

unsigned char cmp_ipp_buf::getByteAt(uint32_t pos) {
    if (!ensure(pos, 1)) return 0;
    return m_data[pos];
}

int16_t cmp_ipp_buf::getShortAt(uint32_t pos) {
    if (!ensure(pos, 2)) return 0;
    return static_cast<int16_t>(static_cast<uint16_t>((m_data[pos] << 8) | m_data[pos + 1]));
}

int32_t cmp_ipp_buf::getIntAt(uint32_t pos) {
    if (!ensure(pos, 4)) return 0;
    uint32_t v = (static_cast<uint32_t>(m_data[pos]) << 24) | (static_cast<uint32_t>(m_data[pos + 1]) << 16) |
                 (static_cast<uint32_t>(m_data[pos + 2]) << 8) | static_cast<uint32_t>(m_data[pos + 3]);
    return static_cast<int32_t>(v);
}

const unsigned char* cmp_ipp_buf::getBytesAt(uint32_t pos, int32_t len) {
    if (len < 0) return nullptr;
    uint64_t end = static_cast<uint64_t>(pos) + static_cast<uint32_t>(len);
    if (end > m_length) getMoreDataFromPort();
    if (end > m_size) std::printf("There STILL is not enough data in the buffer!\n");
    if (end > m_length) return nullptr;
    return m_data + pos;
}

cmp_ipp_string cmp_ipp_buf::getStringAt(uint32_t pos, int32_t len) {
    cmp_ipp_string out;
    if (const unsigned char* p = getBytesAt(pos, len)) out.assignBytes(reinterpret_cast<const char*>(p), len);
    return out;
}

void cmp_ipp_buf::setByteAt(uint32_t pos, int32_t v) {
    if (static_cast<uint64_t>(pos) + 1 > m_size || m_data == m_1charbuf) return;
    m_data[pos] = static_cast<unsigned char>(v & 0xFF);
}

void cmp_ipp_buf::setShortAt(uint32_t pos, int32_t v) {
    if (static_cast<uint64_t>(pos) + 2 > m_size) return;
    m_data[pos] = static_cast<unsigned char>((v >> 8) & 0xFF);
    m_data[pos + 1] = static_cast<unsigned char>(v & 0xFF);
}

void cmp_ipp_buf::setIntAt(uint32_t pos, int32_t v) {
    if (static_cast<uint64_t>(pos) + 4 > m_size) return;
    uint32_t u = static_cast<uint32_t>(v);
    m_data[pos] = static_cast<unsigned char>(u >> 24);
    m_data[pos + 1] = static_cast<unsigned char>(u >> 16);
    m_data[pos + 2] = static_cast<unsigned char>(u >> 8);
    m_data[pos + 3] = static_cast<unsigned char>(u);
}

int32_t cmp_ipp_buf::setStringAt(uint32_t pos, const char* s) {
    if (s == nullptr) return 0;
    size_t n = std::strlen(s);
    if (static_cast<uint64_t>(pos) + n > m_size || n == 0 || m_data == m_1charbuf) return 0;
    std::memcpy(m_data + pos, s, n);
    return static_cast<int32_t>(n);
}

int32_t cmp_ipp_buf::setBufferAt(uint32_t pos, const cmp_ipp_buf& b) {
    if (static_cast<uint64_t>(pos) + b.m_length > m_size || b.m_length == 0 || m_data == m_1charbuf) return 0;
    std::memmove(m_data + pos, b.m_data, b.m_length);
    return static_cast<int32_t>(b.m_length);
}

void cmp_ipp_buf::reserve(uint32_t size) {
    if (m_size >= size) return;
    unsigned char* block = new unsigned char[size];
    // The whole old block is kept, so bytes a writer set past the content
    // survive; a wrapped caller block is only known up to its content.
    uint32_t keep = (m_owner || m_data == m_1charbuf) ? m_size : m_length;
    if (keep != 0) std::memcpy(block, m_data, keep);
    std::memset(block + keep, 0, size - keep);
    release();
    m_data = block;
    m_size = size;
    m_owner = true;
}

void cmp_ipp_buf::append(const unsigned char* p, uint32_t n) {
    if (n == 0 || p == nullptr) return;
    if (static_cast<uint64_t>(m_size) > static_cast<uint64_t>(m_length) + n) {
        std::memmove(m_data + m_length, p, n);
        m_length += n;
        return;
    }
    uint32_t total = m_length + n;
    unsigned char* block = new unsigned char[total + 1];
    if (m_length != 0) std::memcpy(block, m_data, m_length);
    std::memcpy(block + m_length, p, n);
    block[total] = 0;
    release();
    m_data = block;
    m_length = total;
    m_size = total + 1;
    m_owner = true;
}

void cmp_ipp_buf::resizeBeyondCapacity(uint32_t len) {
    emwGENTrcPrintf(kTraceModule, kTraceCode, kTraceInfo, "[INFO  ]:cmp_ipp_buf::%s(%d): length[%d] > capacity()[%d].\n",
                    "resize", 211, static_cast<int>(len), static_cast<int>(m_size));
    // Grow first so the content never claims bytes outside the block.
    if (len != UINT32_MAX) {
        reserve(len + 1);
        m_length = len;
    }
}

char* cmp_ipp_buf::c_str() {
    if (m_size <= m_length) {
        emwGENTrcPrintf(kTraceModule, kTraceCode, kTraceInfo, "[INFO  ]:cmp_ipp_buf::%s(%d): m_size[%d] > m_length[%d].\n",
                        "c_str", 158, static_cast<int>(m_size), static_cast<int>(m_length));
        reserve(m_length + 1);
    }
    if (m_data != m_1charbuf) m_data[m_length] = 0;
    return reinterpret_cast<char*>(m_data);
}

int32_t cmp_ipp_buf::find(const char* s, uint32_t start) const {
    if (m_data == nullptr || s == nullptr) return -1;
    uint64_t n = std::strlen(s);
    if (n == 0) return -1;
    const unsigned char first = static_cast<unsigned char>(s[0]);
    for (;;) {
        if (start + n > m_length) return -1;
        uint32_t examine = m_length - 1 - start;
        const void* hit = std::memchr(m_data + start, first, examine);
        if (hit == nullptr) return -1;
        uint32_t i = static_cast<uint32_t>(static_cast<const unsigned char*>(hit) - m_data);
        if (i + n > m_length) return -1;
        if (std::memcmp(m_data + i, s, n) == 0) return static_cast<int32_t>(i);
        start = static_cast<uint32_t>(i + n);
    }
}

int32_t cmp_ipp_buf::find(char c) const {
    if (m_data == nullptr || m_length == 0) return -1;
    const void* hit = std::memchr(m_data, static_cast<unsigned char>(c), m_length);
    return hit == nullptr ? -1 : static_cast<int32_t>(static_cast<const unsigned char*>(hit) - m_data);
}

void cmp_ipp_buf::ShiftLeft(uint32_t n) {
    if (n > m_length) n = m_length;
    if (n == 0) return;
    std::memmove(m_data, m_data + n, m_length - n);
    m_length -= n;
}

cmp_ipp_buf cmp_ipp_buf::Divide(uint32_t n) {
    if (n > m_length) n = m_length;
    cmp_ipp_buf head(n, true);
    head.append(m_data, n);
    ShiftLeft(n);
    return head;
}

cmp_ipp_buf cmp_ipp_buf::Divide(const char* sep) {
    int32_t i = find(sep, 0);
    if (i < 0) return cmp_ipp_buf(true);
    return Divide(static_cast<uint32_t>(i));
}
