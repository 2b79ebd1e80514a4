// Growable array whose visible shape favours memory: capacity 2 at construction,
// then a fixed step (5) per growth; emptying keeps the elements and the
// capacity; assignment takes the other's capacity and never shrinks.
//
// Inside, three things keep it cheap: an empty vector allocates nothing until
// an element is stored or a spare is asked for; when the array is replaced the
// elements are moved, never copied; and past 16 elements the array keeps some
// room beyond the reported capacity (the next of 24, 32, 48, 64, ...), so that
// a long vector is moved to a new array only about twice per doubling instead
// of at every step of 5. The elements from length() to capacity() are
// default-constructed spares; the room beyond capacity() holds no elements.
#ifndef CMP_IPP_VECTOR_H
#define CMP_IPP_VECTOR_H

#include <stddef.h>
#include <stdint.h>

#include <new>
#include <type_traits>
#include <utility>

// Slots to allocate for a reported capacity of n above 16: the next of 24, 32,
// 48, 64, 96, ... (one copy for every element type).
inline int32_t cmp_ipp_vector_room(int32_t n) {
    int32_t r = 16;
    while (r < n && r <= INT32_MAX / 2) r = (r & (r - 1)) != 0 ? r / 3 * 4 : r + r / 2;
    return r < n ? n : r;
}

template <typename T>
class cmp_ipp_vector {
    static_assert(std::is_nothrow_default_constructible<T>::value && std::is_nothrow_move_constructible<T>::value,
                  "spares are made and elements moved while the array is replaced; neither may fail");

public:
    static const int32_t kInitialCapacity = 2;
    static const int32_t kDefaultGrowBy = 5;

    explicit cmp_ipp_vector(int32_t growBy = kDefaultGrowBy) noexcept
        : m_length(0), m_data(nullptr), m_size(kInitialCapacity), m_growBy(growBy > 0 ? growBy : kDefaultGrowBy) {}

    cmp_ipp_vector(const cmp_ipp_vector& other) : cmp_ipp_vector(other.m_growBy) { *this = other; }

    // Takes the other's array; the other is left empty with the initial capacity.
    cmp_ipp_vector(cmp_ipp_vector&& other) noexcept
        : m_length(other.m_length), m_data(other.m_data), m_size(other.m_size), m_growBy(other.m_growBy) {
        other.forget();
    }

    ~cmp_ipp_vector() {
        release();
        m_length = 0;
        m_size = 0;
    }

    cmp_ipp_vector& operator=(const cmp_ipp_vector& other) {
        if (this == &other) return *this;
        reserve(other.m_size);
        if (other.m_length > 0 && m_data == nullptr) materialize();
        m_length = other.m_length;
        m_growBy = other.m_growBy;
        for (int32_t i = 0; i < m_length; ++i) m_data[i] = other.m_data[i];
        return *this;
    }

    // Takes the other's array, length and capacity (which may be smaller than
    // this one's); the other is left empty with the initial capacity.
    cmp_ipp_vector& operator=(cmp_ipp_vector&& other) noexcept {
        if (this == &other) return *this;
        release();
        m_length = other.m_length;
        m_data = other.m_data;
        m_size = other.m_size;
        m_growBy = other.m_growBy;
        other.forget();
        return *this;
    }

    void append(const T& x) {
        if (m_length >= m_size && m_data != nullptr && &x >= m_data && &x < m_data + m_size) {
            T copy(x);  // x lives in the array about to be replaced
            appendSlot() = std::move(copy);
            return;
        }
        appendSlot() = x;
    }
    void append(T&& x) { appendSlot() = std::move(x); }

    // Makes room for one more element and returns it (a spare, or what an
    // earlier element left there) for assignment in place.
    T& appendSlot() {
        if (m_length >= m_size) {
            grow(m_size + m_growBy);
        } else if (m_data == nullptr) {
            materialize();
        }
        return m_data[m_length++];
    }

    void reserve(int32_t n) {
        if (n > m_size) grow(n);
    }

    // Sets the count to 0; elements and capacity stay.
    void clear() { m_length = 0; }

    // Any index below capacity() is valid; from length() on it is a spare.
    // Reading a spare of an empty vector makes its array (the spares are there
    // in principle from the start), so do not do that on a vector that other
    // tasks read at the same time; elements below length() are always there.
    T& operator[](int32_t i) {
        if (m_data == nullptr) materialize();
        return m_data[i];
    }
    const T& operator[](int32_t i) const {
        if (m_data == nullptr) const_cast<cmp_ipp_vector*>(this)->materialize();
        return m_data[i];
    }

    int32_t length() const { return m_length; }
    int32_t capacity() const { return m_size; }
    int32_t growBy() const { return m_growBy; }
    // Whether an array has been made yet (an empty vector has none).
    bool hasStorage() const { return m_data != nullptr; }

private:
    static int32_t roomFor(int32_t n) { return n <= 16 ? n : cmp_ipp_vector_room(n); }

    static T* allocate(int32_t n) { return static_cast<T*>(::operator new(sizeof(T) * static_cast<size_t>(n))); }

    void materialize() {
        T* fresh = allocate(roomFor(m_size));
        for (int32_t i = 0; i < m_size; ++i) ::new (static_cast<void*>(fresh + i)) T();
        m_data = fresh;
    }

    // Raises the capacity to n, constructing the new spares; replaces the array
    // (moving the elements in use) only when it has no room for them.
    void grow(int32_t n) {
        if (m_data != nullptr && n <= roomFor(m_size)) {
            for (int32_t i = m_size; i < n; ++i) ::new (static_cast<void*>(m_data + i)) T();
            m_size = n;
            return;
        }
        T* fresh = allocate(roomFor(n));  // the only step that can fail: nothing has changed yet
        for (int32_t i = 0; i < m_length; ++i) ::new (static_cast<void*>(fresh + i)) T(std::move(m_data[i]));
        for (int32_t i = m_length; i < n; ++i) ::new (static_cast<void*>(fresh + i)) T();
        release();
        m_data = fresh;
        m_size = n;
    }

    // Destroys every element, spares included, last to first, and frees the array.
    void release() {
        if (m_data == nullptr) return;
        for (int32_t i = m_size; i > 0; --i) m_data[i - 1].~T();
        ::operator delete(m_data);
        m_data = nullptr;
    }

    void forget() {
        m_length = 0;
        m_data = nullptr;
        m_size = kInitialCapacity;
    }

    int32_t m_length;
    T* m_data;
    int32_t m_size;
    int32_t m_growBy;
};

#endif
