// The words in which kernels assert their preconditions. Assertions are active without NDEBUG, so in debug builds and
// under the sanitizers.
#ifndef OPKIT_KERNELS_CONTRACT_H
#define OPKIT_KERNELS_CONTRACT_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

namespace opkit {
namespace {

// There is memory wherever there are elements.
inline bool Present(const void* elements, size_t count)
{
    return elements != nullptr || count == 0;
}

// Floats from the first of `rows` rows to the end of the last.
inline size_t FloatsSpanned(size_t rows, size_t rowStride, size_t width)
{
    return rows == 0 || width == 0 ? 0 : (rows - 1) * rowStride + width;
}

// No float belongs to both.
inline bool Apart(const float* a, size_t countA, const float* b, size_t countB)
{
    const uintptr_t beginA = reinterpret_cast<uintptr_t>(a);
    const uintptr_t beginB = reinterpret_cast<uintptr_t>(b);
    return countA == 0 || countB == 0 || beginA + countA * sizeof(float) <= beginB ||
           beginB + countB * sizeof(float) <= beginA;
}

// Both are there, and elements that are taken in ascending order are read before they are overwritten: out is in, lies
// in front of it, or apart.
inline bool MayMap(const float* in, const float* out, size_t count)
{
    return Present(in, count) && Present(out, count) && (out <= in || Apart(in, count, out, count));
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_CONTRACT_H
