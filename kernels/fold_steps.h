// The steps of folds: what an accumulator becomes when it takes an element, for floats and lane by lane for vectors.
#ifndef OPKIT_KERNELS_FOLD_STEPS_H
#define OPKIT_KERNELS_FOLD_STEPS_H

#include "common/smaller.h"
#include "kernels/vector.h"

namespace opkit {
namespace {

struct Add {
    template <class T>
    static T Step(T acc, T x)
    {
        return acc + x;
    }
};

struct AddMagnitude {
    static float Step(float acc, float x) { return acc + __builtin_fabsf(x); }
    static Vec Step(Vec acc, Vec x) { return acc + Magnitude(x); }
};

struct AddSquare {
    template <class T>
    static T Step(T acc, T x)
    {
        return acc + x * x;
    }
};

// An element replaces the accumulator only when it is above it: NaN never does.
struct TakeLarger {
    template <class T>
    static T Step(T acc, T x)
    {
        return Larger(x, acc);
    }
};

struct TakeSmaller {
    template <class T>
    static T Step(T acc, T x)
    {
        return Smaller(x, acc);
    }
};

struct Multiply {
    template <class T>
    static T Step(T acc, T x)
    {
        return acc * x;
    }
};

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_FOLD_STEPS_H
