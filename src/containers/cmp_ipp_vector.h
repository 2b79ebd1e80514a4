// Growable array whose visible shape favours memory: capacity 2 at construction,
// then a fixed step (5) per growth; emptying keeps the elements and the
// capacity; assignment takes the other's capacity and never shrinks.
//
// Inside, four things keep it cheap:
// - the vector itself is one pointer: its length and capacity live in a small
//   head at the front of its array, so an attribute's three value stores and a
//   group's array of attributes take a third of the room they would otherwise;
// - an empty vector allocates nothing until an element is stored or a spare is
//   asked for (no array: length 0, capacity 2);
// - when the array is replaced the elements are moved, never copied;
// - past 16 elements the array keeps some room beyond the reported capacity
//   (the next of 24, 32, 48, 64, ...), so that a long vector is moved to a new
//   array only about twice per doubling instead of at every step of 5.
// The elements from length() to capacity() are default-constructed spares; the
// room beyond capacity() holds no elements.
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
    static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "arrays come from the plain operator new");

public:
    static const int32_t kInitialCapacity = 2;
    static const int32_t kDefaultGrowBy = 5;

    // Every vector grows by kDefaultGrowBy: nothing in the library asks for
    // another step, and keeping one per vector would cost a word in each of
    // them, so the step is not the user's to set.
    cmp_ipp_vector() noexcept : m_head(nullptr) {}

    cmp_ipp_vector(const cmp_ipp_vector& other) : m_head(nullptr) { *this = other; }

    // Takes the other's array; the other is left empty with the initial capacity.
    cmp_ipp_vector(cmp_ipp_vector&& other) noexcept : m_head(other.m_head) { other.m_head = nullptr; }

    ~cmp_ipp_vector() { release(); }

    cmp_ipp_vector& operator=(const cmp_ipp_vector& other) {
        if (this == &other) return *this;
        reserve(other.capacity());
        const int32_t n = other.length();
        if (n > 0 && m_head == nullptr) materialize();
        if (m_head != nullptr) m_head->length = n;
        T* to = elements();
        const T* from = other.elements();
        for (int32_t i = 0; i < n; ++i) to[i] = from[i];
        return *this;
    }

    // Takes the other's array, length and capacity (which may be smaller than
    // this one's); the other is left empty with the initial capacity.
    cmp_ipp_vector& operator=(cmp_ipp_vector&& other) noexcept {
        if (this == &other) return *this;
        release();
        m_head = other.m_head;
        other.m_head = nullptr;
        return *this;
    }

    void append(const T& x) {
        if (m_head != nullptr && m_head->length >= m_head->size && &x >= elements() &&
            &x < elements() + m_head->size) {
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
        if (m_head == nullptr) {
            materialize();
        } else if (m_head->length >= m_head->size) {
            grow(m_head->size + kDefaultGrowBy);
        }
        return elements()[m_head->length++];
    }

    void reserve(int32_t n) {
        if (n > capacity()) grow(n);
    }

    // Sets the count to 0; elements and capacity stay.
    void clear() {
        if (m_head != nullptr) m_head->length = 0;
    }

    // Any index below capacity() is valid; from length() on it is a spare.
    // Reading a spare of an empty vector makes its array (the spares are there
    // in principle from the start), so do not do that on a vector that other
    // tasks read at the same time; elements below length() are always there.
    T& operator[](int32_t i) {
        if (m_head == nullptr) materialize();
        return elements()[i];
    }
    const T& operator[](int32_t i) const {
        if (m_head == nullptr) const_cast<cmp_ipp_vector*>(this)->materialize();
        return elements()[i];
    }

    int32_t length() const { return m_head != nullptr ? m_head->length : 0; }
    int32_t capacity() const { return m_head != nullptr ? m_head->size : kInitialCapacity; }
    int32_t growBy() const { return kDefaultGrowBy; }
    // Whether an array has been made yet (an empty vector has none).
    bool hasStorage() const { return m_head != nullptr; }

private:
    // Front of every array: elements in use, and the reported capacity (the
    // number of constructed elements).
    struct Head {
        int32_t length;
        int32_t size;
    };
    // The elements start after the head, aligned for T.
    static constexpr size_t kElementsAt = (sizeof(Head) + alignof(T) - 1) / alignof(T) * alignof(T);

    static int32_t roomFor(int32_t n) { return n <= 16 ? n : cmp_ipp_vector_room(n); }

    static T* elementsOf(Head* h) { return reinterpret_cast<T*>(reinterpret_cast<char*>(h) + kElementsAt); }
    T* elements() const { return m_head != nullptr ? elementsOf(m_head) : nullptr; }

    // An array with room for n elements, none constructed yet.
    static Head* allocate(int32_t n) {
        if (n < 0 || static_cast<size_t>(n) > (SIZE_MAX - kElementsAt) / sizeof(T)) throw std::bad_alloc();
        return static_cast<Head*>(::operator new(kElementsAt + sizeof(T) * static_cast<size_t>(n)));
    }

    void materialize() {
        Head* fresh = allocate(roomFor(kInitialCapacity));
        T* e = elementsOf(fresh);
        for (int32_t i = 0; i < kInitialCapacity; ++i) ::new (static_cast<void*>(e + i)) T();
        fresh->length = 0;
        fresh->size = kInitialCapacity;
        m_head = fresh;
    }

    // Raises the capacity to n, constructing the new spares; replaces the array
    // (moving the elements in use) only when it has no room for them.
    void grow(int32_t n) {
        if (m_head != nullptr && n <= roomFor(m_head->size)) {
            T* e = elementsOf(m_head);
            for (int32_t i = m_head->size; i < n; ++i) ::new (static_cast<void*>(e + i)) T();
            m_head->size = n;
            return;
        }
        Head* fresh = allocate(roomFor(n));  // the only step that can fail: nothing has changed yet
        T* to = elementsOf(fresh);
        const int32_t used = length();
        T* from = elements();
        for (int32_t i = 0; i < used; ++i) ::new (static_cast<void*>(to + i)) T(std::move(from[i]));
        for (int32_t i = used; i < n; ++i) ::new (static_cast<void*>(to + i)) T();
        release();
        fresh->length = used;
        fresh->size = n;
        m_head = fresh;
    }

    // Destroys every element, spares included, last to first, and frees the array.
    void release() {
        if (m_head == nullptr) return;
        T* e = elementsOf(m_head);
        for (int32_t i = m_head->size; i > 0; --i) e[i - 1].~T();
        ::operator delete(m_head);
        m_head = nullptr;
    }

    // Null for an empty vector that has made no array yet.
    Head* m_head;
};

#endif
