// Sums of the normalisations; see kernels/level.h for the levels.

#include "kernels/normalization.h"

#include "common/convert.h"
#include "kernels/contract.h"
#include "kernels/folds.h"
#include "kernels/wide.h"

namespace opkit::OPKIT_LEVEL {
namespace {

inline float WholeMagnitude(float x)
{
    const int32_t n = TruncateToI32(x);
    const uint32_t magnitude = n < 0 ? 0u - static_cast<uint32_t>(n) : static_cast<uint32_t>(n);
    return static_cast<float>(static_cast<int32_t>(magnitude));
}

inline Vec WholeMagnitude(Vec x)
{
    return __builtin_convertvector(Magnitude(TruncateToInts(x)), Vec);
}

// An f64 sum of two f32 values rounds to the same f32 as their f32 sum.
struct AddWholeMagnitude {
    template <class T>
    static T Step(T acc, T x)
    {
        return acc + WholeMagnitude(x);
    }
};

// The square of an f32 is exact in f64; the sum rounds there, and again to f32.
struct AddWholeSquare {
    static float Step(float acc, float x)
    {
        const double n = WholeMagnitude(x);
        return RoundToF32(static_cast<double>(acc) + n * n);
    }

    static Vec Step(Vec acc, Vec x)
    {
        return InF64(acc, WholeMagnitude(x), [](Wide sums, Wide n) { return sums + n * n; });
    }
};

template <class Kind>
constexpr FoldKernels kWholeFold = {VectorColumns<Kind>, Rows<Kind>};

void SquaredDistances(float* acc, const float* centres, const float* x, size_t count, size_t rowStride, size_t length)
{
    assert(Present(centres, count) && MayFoldRows(acc, x, count, rowStride, length));
    for (size_t begin = 0; begin < count; begin += kLanes) {
        const size_t rows = Smaller(count - begin, kLanes);
        Vec centre;
        for (size_t lane = 0; lane < kLanes; ++lane) {
            centre[lane] = centres[begin + Smaller(lane, rows - 1)];
        }
        FoldRowGroup(acc + begin, x + begin * rowStride, rows, rowStride, length, [centre](Vec sum, Vec element) {
            const Vec distance = element - centre;
            return sum + distance * distance;
        });
    }
}

void ScaleAndShift(const float* x, float* out, size_t count, float scale, float shift)
{
    assert(MayMap(x, out, count));
    for (size_t i = 0; i < count; ++i) {
        out[i] = x[i] * scale + shift;
    }
}

}  // namespace

extern const NormalizationKernels kNormalizationKernels = {kWholeFold<AddWholeMagnitude>, kWholeFold<AddWholeSquare>,
                                                           SquaredDistances, ScaleAndShift};

}  // namespace opkit::OPKIT_LEVEL
