// The smaller and the larger of two values; of vectors, lane by lane.
//
// With a NaN on either side both give `second`: Larger(NaN, 1) is 1, Larger(1, NaN) is NaN. So do two zeros.
// Kernel files include this: see kernels/level.h for the linkage.
#ifndef OPKIT_COMMON_SMALLER_H
#define OPKIT_COMMON_SMALLER_H

namespace opkit {
namespace {

template <class T>
inline T Smaller(T first, T second)
{
    return first < second ? first : second;
}

template <class T>
inline T Larger(T first, T second)
{
    return first > second ? first : second;
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_COMMON_SMALLER_H
