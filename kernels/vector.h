// Float vectors of a level's natural width, by the compiler's vector extension. Arithmetic on them is lane by lane and
// rounds as the scalar operators do; products and sums are never fused, since the whole build forbids contraction.
#ifndef OPKIT_KERNELS_VECTOR_H
#define OPKIT_KERNELS_VECTOR_H

#include <stddef.h>
#include <stdint.h>

namespace opkit {
namespace {  // internal linkage: levels must not share code

#if defined(OPKIT_LEVEL_avx512)
constexpr size_t kLanes = 16;
#elif defined(OPKIT_LEVEL_avx2)
constexpr size_t kLanes = 8;
#else
constexpr size_t kLanes = 4;
#endif

typedef float Vec __attribute__((vector_size(kLanes * sizeof(float))));

// The same in memory. Never the type of a local or an argument: Clang forgets its alignment behind a reference.
typedef float VecInMemory __attribute__((vector_size(kLanes * sizeof(float)), aligned(sizeof(float)), may_alias));

typedef int32_t VecIndex __attribute__((vector_size(kLanes * sizeof(int32_t))));

inline Vec Load(const float* from)
{
    return *reinterpret_cast<const VecInMemory*>(from);
}

inline void Store(float* to, Vec value)
{
    *reinterpret_cast<VecInMemory*>(to) = value;
}

// One float in every lane. The integer form of the instruction: it loads at full rate everywhere, the float form costs
// an extra operation on some processors.
inline Vec Broadcast(const float* from)
{
#if defined(OPKIT_LEVEL_avx512)
    Vec value;
    __asm__("vpbroadcastd %1, %0" : "=v"(value) : "m"(*from));
    return value;
#elif defined(OPKIT_LEVEL_avx2)
    Vec value;
    __asm__("vpbroadcastd %1, %0" : "=x"(value) : "m"(*from));
    return value;
#else
    return Vec{} + *from;
#endif
}

// 0 to kLanes - 1, as a pack of constants.
template <int... kIndex>
struct LaneNumbers {
};

template <int kCount, int... kIndex>
struct CountLanes : CountLanes<kCount - 1, kCount - 1, kIndex...> {
};

template <int... kIndex>
struct CountLanes<0, kIndex...> {
    using Numbers = LaneNumbers<kIndex...>;
};

// Exchanges the upper right block of two groups of rows with the lower left one; blocks are kBlock wide.
template <int kBlock, int... kLane>
inline void ExchangeBlocks(Vec& upper, Vec& lower, LaneNumbers<kLane...>)
{
    constexpr int kSecond = static_cast<int>(kLanes);
    const Vec first =
        __builtin_shufflevector(upper, lower, ((kLane & kBlock) == 0 ? kLane : kSecond + kLane - kBlock)...);
    const Vec second =
        __builtin_shufflevector(upper, lower, ((kLane & kBlock) == 0 ? kLane + kBlock : kSecond + kLane)...);
    upper = first;
    lower = second;
}

// Transposes the square held in rows: each step exchanges the off-diagonal blocks of half the size.
template <int kBlock = static_cast<int>(kLanes) / 2>
inline void TransposeSquare(Vec (&rows)[kLanes])
{
#pragma GCC unroll 16
    for (size_t i = 0; i < kLanes; ++i) {
        if ((i & kBlock) == 0) {
            ExchangeBlocks<kBlock>(rows[i], rows[i + kBlock], CountLanes<kLanes>::Numbers());
        }
    }
    if constexpr (kBlock > 1) {
        TransposeSquare<kBlock / 2>(rows);
    }
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_VECTOR_H
