// Row counts of the dictionary tables, checked to fit the registry's 16-bit counts.
#ifndef CMP_IPP_DICTIONARY_COUNT_H
#define CMP_IPP_DICTIONARY_COUNT_H

#include <stddef.h>
#include <stdint.h>

template <typename T, size_t N>
constexpr int16_t countOf(const T (&)[N]) {
    static_assert(N <= INT16_MAX, "registry counts are 16-bit");
    return static_cast<int16_t>(N);
}

#endif
