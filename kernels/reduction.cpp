// Reduction folds; see kernels/level.h for the levels.

#include "kernels/reduction.h"

#include "kernels/folds.h"

namespace opkit::OPKIT_LEVEL {
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
    static Vec Step(Vec acc, Vec x) { return acc + (Vec)((VecIndex)x & 0x7fffffff); }
};

struct AddSquare {
    template <class T>
    static T Step(T acc, T x)
    {
        return acc + x * x;
    }
};

struct Largest {
    template <class T>
    static T Step(T acc, T x)
    {
        return x > acc ? x : acc;
    }
};

struct Smallest {
    template <class T>
    static T Step(T acc, T x)
    {
        return x < acc ? x : acc;
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

extern const ReductionKernels kReductionKernels = {
    kFold<Add>, kFold<AddMagnitude>, kFold<AddSquare>, kFold<Largest>, kFold<Smallest>, kFold<Multiply>,
};

}  // namespace opkit::OPKIT_LEVEL
