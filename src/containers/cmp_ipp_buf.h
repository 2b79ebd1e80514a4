// Byte container through which every IPP message passes: big-endian getters that
// pull one more piece from an attached port when they run past the content,
// setters bounded by the block, and exact-fit growth (one spare byte, no slack).
#ifndef CMP_IPP_BUF_H
#define CMP_IPP_BUF_H

#include <stdint.h>

#include "cmp_ipp_if.h"
#include "cmp_ipp_string.h"

class cmp_ipp_buf {
public:
    // Empty buffers share this one zero byte; it is never released or written.
    static unsigned char* const m_1charbuf;

    cmp_ipp_buf() noexcept : cmp_ipp_buf(true) {}
    explicit cmp_ipp_buf(bool owner) noexcept;
    cmp_ipp_buf(uint32_t size, bool owner);
    cmp_ipp_buf(int size, bool owner) : cmp_ipp_buf(static_cast<uint32_t>(size < 0 ? 0 : size), owner) {}
    cmp_ipp_buf(const cmp_ipp_buf& other, bool owner);
    cmp_ipp_buf(const char* s, bool owner);
    cmp_ipp_buf(const unsigned char* p, uint32_t len, bool owner);
    // A copy owns its block; the port is never copied.
    cmp_ipp_buf(const cmp_ipp_buf& other) : cmp_ipp_buf(other, true) {}
    // Hands the block over; the other is left empty on the shared block.
    cmp_ipp_buf(cmp_ipp_buf&& other) noexcept;
    ~cmp_ipp_buf();

    // Clears and appends, reusing the block when it is large enough; the
    // ownership flag and the port stay as they are.
    // Also for a source about to vanish: assignment is defined by what it keeps
    // (the block when large enough, the ownership flag), so there is no moving
    // assignment; moving happens by construction, which is what the containers use.
    cmp_ipp_buf& operator=(const cmp_ipp_buf& other);
    cmp_ipp_buf& operator+=(const cmp_ipp_buf& other) {
        append(other.m_data, other.m_length);
        return *this;
    }
    // Appends the characters of s (without its NUL); null appends nothing.
    cmp_ipp_buf& operator+=(const char* s);

    unsigned char getByteAt(uint32_t pos);
    int16_t getShortAt(uint32_t pos);
    int32_t getIntAt(uint32_t pos);
    // A negative length gives an empty string.
    cmp_ipp_string getStringAt(uint32_t pos, int32_t len);
    // The len bytes at pos where they stand in the block, read by the rule of
    // getStringAt (one refill, the same message); null when they are not all
    // there or len is negative. Valid until the buffer next grows.
    const unsigned char* getBytesAt(uint32_t pos, int32_t len);

    void setByteAt(uint32_t pos, int32_t v);
    void setShortAt(uint32_t pos, int32_t v);
    void setIntAt(uint32_t pos, int32_t v);
    int32_t setStringAt(uint32_t pos, const char* s);
    int32_t setBufferAt(uint32_t pos, const cmp_ipp_buf& b);

    void reserve(uint32_t size);
    void append(const unsigned char* p, uint32_t n);

    // A length at or beyond the capacity is traced and the block grown to hold it.
    void resize(uint32_t len) {
        if (len >= m_size) {
            resizeBeyondCapacity(len);
            return;
        }
        m_length = len;
    }
    uint32_t capacity() const { return m_size; }
    uint32_t length() const { return m_length; }
    const unsigned char* data() const { return m_data; }
    unsigned char* data() { return m_data; }
    bool owner() const { return m_owner; }
    // NUL-terminates the content in the spare byte.
    char* c_str();

    // Index of the first occurrence of s at or after start, or -1. The last
    // content byte never starts a match, and after a mismatch the scan resumes
    // past the compared bytes. An empty pattern is never found.
    int32_t find(const char* s, uint32_t start) const;
    // Index of the first content byte equal to c, or -1.
    int32_t find(char c) const;
    void ShiftLeft(uint32_t n);
    // Splits off the first n content bytes (at most the whole content).
    cmp_ipp_buf Divide(uint32_t n);
    // Splits off everything before sep; without sep, an empty buffer and no change.
    cmp_ipp_buf Divide(const char* sep);

    // 1: a piece was appended and more may follow; 2: the body is complete;
    // otherwise the port's result, or -1 without a port.
    int getMoreDataFromPort();
    void setPort(cmp_ipp_if_info_s* port) { m_port = port; }
    cmp_ipp_if_info_s* getPort() const { return m_port; }

private:
    // True when pos + need bytes are available, after at most one refill.
    bool ensure(uint32_t pos, uint32_t need);
    void release();
    void resizeBeyondCapacity(uint32_t len);

    uint32_t m_length;
    uint32_t m_size;
    unsigned char* m_data;
    bool m_owner;
    cmp_ipp_if_info_s* m_port;
};

#endif
