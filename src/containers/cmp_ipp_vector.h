// Growable array that favours memory over speed: capacity 2 at construction,
// then a fixed step (5) per growth; every growth copies the elements by
// assignment. Emptying keeps the elements and the capacity.
#ifndef CMP_IPP_VECTOR_H
#define CMP_IPP_VECTOR_H

#include <stdint.h>

template <typename T>
class cmp_ipp_vector {
public:
    static const int32_t kInitialCapacity = 2;
    static const int32_t kDefaultGrowBy = 5;

    explicit cmp_ipp_vector(int32_t growBy = kDefaultGrowBy)
        : m_length(0), m_data(new T[kInitialCapacity]()), m_size(kInitialCapacity),
          m_growBy(growBy > 0 ? growBy : kDefaultGrowBy) {}

    cmp_ipp_vector(const cmp_ipp_vector& other) : cmp_ipp_vector(other.m_growBy) { *this = other; }

    ~cmp_ipp_vector() {
        delete[] m_data;  // destroys every element, spares included, last to first
        m_length = 0;
        m_data = nullptr;
        m_size = 0;
    }

    cmp_ipp_vector& operator=(const cmp_ipp_vector& other) {
        if (this == &other) return *this;
        reserve(other.m_size);
        m_length = other.m_length;
        m_growBy = other.m_growBy;
        for (int32_t i = 0; i < m_length; ++i) m_data[i] = other.m_data[i];
        return *this;
    }

    void append(const T& x) {
        if (m_length >= m_size) regrow(m_size + m_growBy);
        m_data[m_length] = x;
        ++m_length;
    }

    // Makes room for one more element and returns it for assignment in place,
    // which saves the temporary that append(x) would copy from.
    T& appendSlot() {
        if (m_length >= m_size) regrow(m_size + m_growBy);
        return m_data[m_length++];
    }

    void reserve(int32_t n) {
        if (n > m_size) regrow(n);
    }

    // Sets the count to 0; elements and capacity stay.
    void clear() { m_length = 0; }

    T& operator[](int32_t i) { return m_data[i]; }
    const T& operator[](int32_t i) const { return m_data[i]; }

    int32_t length() const { return m_length; }
    int32_t capacity() const { return m_size; }
    int32_t growBy() const { return m_growBy; }

private:
    void regrow(int32_t n) {
        T* fresh = new T[n]();
        try {
            for (int32_t i = 0; i < m_length; ++i) fresh[i] = m_data[i];
        } catch (...) {
            delete[] fresh;  // the vector keeps its earlier contents
            throw;
        }
        delete[] m_data;
        m_data = fresh;
        m_size = n;
    }

    int32_t m_length;
    T* m_data;
    int32_t m_size;
    int32_t m_growBy;
};

#endif
