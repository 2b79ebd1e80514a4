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

class page_block {
public:
    page_block() = default;
    page_block(const page_block&) = delete;
    page_block& operator=(const page_block&) = delete;
    ~page_block() { release(); }

    // Zero-filled room for n bytes (n > 0); false when the system has none.
    bool allocate(size_t n) {
        release();
        void* p = mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) return false;
        data_ = static_cast<unsigned char*>(p);
        size_ = n;
        return true;
    }
    void release() {
        if (data_ != nullptr) munmap(data_, size_);
        data_ = nullptr;
        size_ = 0;
    }
    unsigned char* data() const { return data_; }
    size_t size() const { return size_; }

private:
    unsigned char* data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace cmp_ipp_fe

#endif
