// Reduction: folds any set of axes by sum, norm, mean, logarithm, extreme or product. The accumulators are the
// output's own elements, and each takes its inputs in ascending flat order.
// Rows: in place.
//
// Departures from the textbook: the extremes start from the largest finite floats, so that infinities of the other sign
// and NaN never enter; the mean divides by the integer quotient of the two element counts; the sum of exponentials
// subtracts no maximum. An unknown kind leaves zeros.

#include <cmath>

#include "common/loop_nest.h"
#include "kernels/exponentials.h"
#include "kernels/reduction.h"
#include "opkit/attributes/selection.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

// Null for an unknown kind.
const FoldKernels* FoldOf(uint32_t type)
{
    switch (type) {
        case OPKIT_REDUCE_SUM:
        case OPKIT_REDUCE_MEAN:
        case OPKIT_REDUCE_LOG_SUM:
            return &Kernels<ReductionKernels>().sum;
        case OPKIT_REDUCE_L1:
            return &Kernels<ReductionKernels>().magnitude;
        case OPKIT_REDUCE_SUM_SQUARE:
        case OPKIT_REDUCE_L2:
            return &Kernels<ReductionKernels>().square;
        case OPKIT_REDUCE_LOG_SUM_EXP:
            return &Kernels<ExponentialKernels>().sum;
        case OPKIT_REDUCE_MAX:
            return &Kernels<ReductionKernels>().largest;
        case OPKIT_REDUCE_MIN:
            return &Kernels<ReductionKernels>().smallest;
        case OPKIT_REDUCE_PROD:
            return &Kernels<ReductionKernels>().product;
        default:
            return nullptr;
    }
}

float InitialOf(uint32_t type)
{
    switch (type) {
        case OPKIT_REDUCE_MAX:
            return -3.4028235e38f;
        case OPKIT_REDUCE_MIN:
            return 3.4028235e38f;
        case OPKIT_REDUCE_PROD:
            return 1.0f;
        default:
            return 0.0f;
    }
}

// Whether every padded offset of the tensor fits 32 bits and no two elements share one. With a zero width or alignment
// they do share, and every address computed is a message.
bool HasPlainRows(const Tensor& tensor)
{
    if (tensor.width == 0 || tensor.alignNum == 0 || tensor.Pitch() < tensor.width) {
        return false;
    }
    return (uint64_t{tensor.count} / tensor.width + 1) * tensor.Pitch() <= UINT32_MAX;
}

template <class Change>
void ForEachOutput(const Output& out, bool plain, Change change)
{
    if (!plain) {
        for (uint32_t i = 0; i < out.count; ++i) {
            change(out.data + GetReductionRealIdx(i, out.alignNum, out.width));
        }
        return;
    }
    ForEachRowRun(out.count, out.width, out.Pitch(), out.width, out.Pitch(), [&](size_t offset, size_t, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i) {
            change(out.data + offset + i);
        }
    });
}

void FinishOutputs(const Output& out, bool plain, uint32_t type, uint32_t inLen)
{
    const uint32_t quotient = inLen / out.count;
    const float divisor = static_cast<float>(quotient);
    switch (type) {
        case OPKIT_REDUCE_MEAN:
            ForEachOutput(out, plain, [divisor](float* acc) { *acc = *acc / divisor; });
            break;
        case OPKIT_REDUCE_L2:
            ForEachOutput(out, plain, [](float* acc) { *acc = std::sqrt(*acc); });
            break;
        case OPKIT_REDUCE_LOG_SUM:
        case OPKIT_REDUCE_LOG_SUM_EXP:
            ForEachOutput(out, plain,
                          [](float* acc) { *acc = static_cast<float>(std::log(static_cast<double>(*acc))); });
            break;
        default:
            break;
    }
}

// The definition, one element after the other.
void FoldElementwise(const Input& in, const Output& out, ReductionAttr& attr, const FoldKernels* fold,
                     const uint32_t* inDistant, const uint32_t* outDistant)
{
    for (uint32_t i = 0; i < in.count; ++i) {
        uint32_t o = 0;
        uint32_t rest = i;
        for (int32_t k = 0; inDistant != nullptr && k < in.dimNum; ++k) {
            if (!ReductionFind(attr.axes, static_cast<uint32_t>(k), static_cast<int32_t>(attr.axesNum))) {
                o += (rest / inDistant[k]) * outDistant[k];
            }
            rest %= inDistant[k];
        }
        const float* const x = in.data + GetReductionRealIdx(i, in.alignNum, in.width);
        float* const acc = out.data + GetReductionRealIdx(o, out.alignNum, out.width);
        if (fold != nullptr) {
            fold->rows(acc, x, 1, 0, 1);
        }
    }
}

constexpr uint32_t kIn = 0;   // operands of the loops: the padded input
constexpr uint32_t kOut = 1;  // and the compact output, which stands still along a reduced axis

bool IsReduced(const LoopAxis<2>& axis)
{
    return axis.steps[kOut] == 0;
}

// False unless different kept coordinates lead to different outputs in row-major order, all of which there are: entries
// of `axes` behind `axesNum` count for the distances but not for the walk, and may break that. The input's rows are
// plain, so it has at least one dimension.
bool PlanLoops(const Input& in, const Output& out, ReductionAttr& attr, const uint32_t* outDistant, LoopNest<2>* nest)
{
    size_t step = 1;
    uint64_t elements = 1;
    size_t outCount = 1;  // outputs that are reached
    for (int32_t k = in.dimNum - 1; k >= 0; --k) {
        const uint32_t extent = in.shape[k];
        const bool reduced = attr.reduceAll != 0 || ReductionFind(attr.axes, static_cast<uint32_t>(k),
                                                                  static_cast<int32_t>(attr.axesNum)) != 0;
        if (!reduced && extent > 1 && outDistant[k] != outCount) {
            return false;
        }
        const bool isRow = k == in.dimNum - 1;
        const LoopAxis<2> axis = {extent, {step, reduced ? 0 : outCount}};
        if (isRow && extent == 1 && in.Pitch() != 1) {
            nest->axes[nest->count++] = axis;  // the innermost axis is to be contiguous
        } else {
            nest->AddOuter(axis);
        }
        elements *= extent;
        if (extent == 0 || elements > UINT32_MAX) {
            return false;
        }
        step = isRow ? in.Pitch() : step * extent;
        outCount *= reduced ? 1 : extent;
    }
    return outCount <= out.count;
}

// Calls fold(accumulators, first, count) for blocks of the outputs from `begin` on; what does not lie contiguously in
// the padded rows is gathered before and scattered after.
template <class Fold>
void ForEachAccumulatorBlock(const Output& out, size_t begin, size_t count, Fold fold)
{
    constexpr size_t kBlock = 512;
    const size_t pitch = out.Pitch();
    if (pitch == out.width) {
        fold(out.data + begin, size_t{0}, count);
        return;
    }
    size_t column = begin % out.width;
    float* row = out.data + begin / out.width * pitch;
    for (size_t done = 0; done < count;) {
        if (count - done <= out.width - column) {
            fold(row + column, done, count - done);
            return;
        }
        float gathered[kBlock];
        float* places[kBlock];
        size_t n = 0;
        for (; n < kBlock && done + n < count; ++n) {
            places[n] = row + column;
            gathered[n] = *places[n];
            if (++column == out.width) {
                column = 0;
                row += pitch;
            }
        }
        fold(gathered, done, n);
        for (size_t i = 0; i < n; ++i) {
            *places[i] = gathered[i];
        }
        done += n;
    }
}

// The innermost axis and the innermost one of the other kind make one call of a kernel; the others are walked around
// it, so that every accumulator still meets its elements in ascending order.
void FoldLoops(const Input& in, const Output& out, LoopNest<2>* nest, const FoldKernels& fold)
{
    const LoopAxis<2> inner = nest->Take(0);
    uint32_t paired = 0;
    while (paired < nest->count && IsReduced(nest->axes[paired]) == IsReduced(inner)) {
        ++paired;
    }
    const LoopAxis<2> other = nest->Take(paired);
    for (LoopWalk<2> walk(*nest); !walk.Done(); walk.Next()) {
        const float* const x = in.data + walk.Offset(kIn);
        if (IsReduced(inner)) {
            ForEachAccumulatorBlock(out, walk.Offset(kOut), other.extent, [&](float* acc, size_t first, size_t count) {
                fold.rows(acc, x + first * other.steps[kIn], count, other.steps[kIn], inner.extent);
            });
        } else {
            ForEachAccumulatorBlock(out, walk.Offset(kOut), inner.extent, [&](float* acc, size_t first, size_t count) {
                fold.columns(acc, x + first, count, other.extent, other.steps[kIn]);
            });
        }
    }
}

}  // namespace

uint32_t GetReductionCount(uint32_t start, uint32_t* shape, uint32_t end)
{
    uint32_t count = 1;
    for (uint32_t i = start; i < end; ++i) {
        count *= shape[i];
    }
    return count;
}

uint32_t ReductionFind(uint32_t* axes, uint32_t axis, int32_t count)
{
    for (int32_t i = 0; i < count; ++i) {
        if (axes[i] == axis) {
            return 1;
        }
    }
    return 0;
}

// Asks for dimNum entries of `axes`, however many of them are in use.
void GetReductionDistant(uint32_t* inDistant, uint32_t* outDistant, uint32_t* axes, uint32_t* shape, uint32_t dimNum)
{
    uint32_t in = 1;
    uint32_t out = 1;
    for (uint32_t k = dimNum; k-- > 0;) {
        inDistant[k] = in;
        outDistant[k] = out;
        in *= shape[k];
        if (!ReductionFind(axes, k, static_cast<int32_t>(dimNum))) {
            out *= shape[k];
        }
    }
}

uint32_t GetReductionRealIdx(uint32_t idx, uint32_t align, uint32_t width)
{
    if (align == 0 || width == 0) {
        Report(Here(), "Illegal value, align = %u, width = %u\n", align, width);
        return 0;
    }
    return RowPitch(width, align) * (idx / width) + idx % width;
}

uint32_t ReductionOpkitForward(LayerParam* param)
{
    Input in;
    Resolve(param, {&in}, Rows::kInPlace, Messages::kNone);
    const Output out = OutputOf(param, 0);
    ReductionAttr& attr = AttrOf<ReductionAttr>(param);
    uint32_t* inDistant = nullptr;
    uint32_t* outDistant = nullptr;
    if (attr.reduceAll == 0) {
        inDistant = static_cast<uint32_t*>(param->opkitBuf);
        outDistant = inDistant + in.dimNum;
        GetReductionDistant(inDistant, outDistant, attr.axes, in.shape, static_cast<uint32_t>(in.dimNum));
    }
    if (out.count == 0) {
        Report(Here(), "Illegal value, outLen is 0\n");
        return kFailure;
    }
    const bool plain = HasPlainRows(out);
    const float initial = InitialOf(attr.reductionType);
    ForEachOutput(out, plain, [initial](float* acc) { *acc = initial; });

    const FoldKernels* const fold = FoldOf(attr.reductionType);
    const bool silent = plain && HasPlainRows(in);
    LoopNest<2> nest;
    if (silent && fold == nullptr) {
        return kSuccess;
    }
    if (silent && !TensorsOverlap(in, out) && PlanLoops(in, out, attr, outDistant, &nest)) {
        FoldLoops(in, out, &nest, *fold);
    } else {
        FoldElementwise(in, out, attr, fold, inDistant, outDistant);
    }
    FinishOutputs(out, plain, attr.reductionType, in.count);
    return kSuccess;
}
