// Whether two ranges share memory.
#ifndef OPKIT_COMMON_OVERLAP_H
#define OPKIT_COMMON_OVERLAP_H

#include <stddef.h>
#include <stdint.h>

namespace opkit {

// Pointers and counts as they are, whatever objects they belong to.
template <class T>
bool RangesOverlap(const T* a, size_t countA, const T* b, size_t countB)
{
    const uintptr_t beginA = reinterpret_cast<uintptr_t>(a);
    const uintptr_t beginB = reinterpret_cast<uintptr_t>(b);
    return beginA < beginB ? beginB - beginA < countA * sizeof(T) : beginA - beginB < countB * sizeof(T);
}

}  // namespace opkit

#endif  // OPKIT_COMMON_OVERLAP_H
