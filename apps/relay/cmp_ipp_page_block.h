// A block of whole pages straight from the kernel, zero when it comes. A page
// costs memory only once it is written: a connection's 30 KB request record or
// 32 KB body block holds on to no more than the pages its requests used (a
// zeroed heap block would hold all of them), and the pages go back to the
// system when the connection ends.
#ifndef CMP_IPP_PAGE_BLOCK_H
#define CMP_IPP_PAGE_BLOCK_H

#include <sys/mman.h>

#include <cstddef>

namespace cmp_ipp_fe {

class PageBlock {
public:
    PageBlock() = default;
    PageBlock(const PageBlock&) = delete;
    PageBlock& operator=(const PageBlock&) = delete;
    ~PageBlock() { release(); }

    // Zero-filled room for n bytes (n > 0); false when the system has none.
    bool allocate(size_t n) {
        release();
        void* p = mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) return false;
        m_data = static_cast<unsigned char*>(p);
        m_size = n;
        return true;
    }
    void release() {
        if (m_data != nullptr) munmap(m_data, m_size);
        m_data = nullptr;
        m_size = 0;
    }
    unsigned char* data() const { return m_data; }
    size_t size() const { return m_size; }

private:
    unsigned char* m_data = nullptr;
    size_t m_size = 0;
};

}  // namespace cmp_ipp_fe

#endif
