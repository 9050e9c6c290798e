// The moving parts of Pad's walk: an iterator over the kept rows of the input, counters that tell when an outer axis
// completes, and pitches. All offsets are 32 bits wide.

#include <cstring>

#include "opkit/helpers.h"
#include "runtime/frame.h"

using namespace opkit;

void ExtentAxisCountsInit(ExtentAxisCounts* counts, uint32_t* extents, uint32_t rank)
{
    const int32_t last = static_cast<int32_t>(rank) - 1;
    for (int32_t i = 0; i < last; ++i) {
        counts->counters[i] = 0;
    }
    counts->extents = extents;
    counts->rank = static_cast<int32_t>(rank);
    counts->resetAxis = last;
    counts->axis = last;
    counts->running = 1;
    for (uint32_t i = 0; i < rank; ++i) {
        if (extents[i] == 0) {
            counts->running = 0;
        }
    }
}

int32_t ExtentAxisCountsIncrement(ExtentAxisCounts* counts)
{
    if (counts->axis == 0) {
        counts->running = 0;
        counts->axis = -1;
        return 0;
    }
    const int32_t axis = --counts->axis;
    if (++counts->counters[axis] == counts->extents[axis]) {
        counts->counters[axis] = 0;
        return 1;
    }
    counts->axis = counts->resetAxis;
    return 0;
}

void PadSliceIteratorInit(PadSliceIterator* iterator, int32_t inputStrideFloats, int32_t innerNoPadSize)
{
    const int32_t rank = iterator->rank;
    const uint32_t rowDistance = static_cast<uint32_t>(inputStrideFloats);
    iterator->current = iterator->input;
    for (int32_t i = 0; i < iterator->positionCount; ++i) {
        iterator->positions[i] = 0;
    }
    // The offset of the first kept element takes the row distance even where inner axes are merged; the skips do not.
    uint32_t step = 1;
    for (int32_t axis = rank - 1; axis >= 0; --axis) {
        iterator->current += static_cast<int32_t>(static_cast<uint32_t>(iterator->starts[axis]) * step);
        step *= axis == rank - 1 ? rowDistance : iterator->dims[axis];
    }
    iterator->innerExtent = static_cast<int32_t>(iterator->extents[rank - 1]);
    iterator->innerStride = 1;
    iterator->skipCount = rank;
    step = 1;
    for (int32_t axis = rank - 1; axis >= 0; --axis) {
        const uint32_t length = axis == rank - 1 && innerNoPadSize == 1 ? rowDistance : iterator->dims[axis];
        iterator->skips[axis] = static_cast<int32_t>((length - iterator->extents[axis]) * step);
        step *= length;
    }
}

float* CopyInnermostAxisSolitaryInnerStepImpl(PadSliceIterator* iterator, float* output)
{
    const int32_t length = iterator->innerExtent;
    if (length > 0) {
        std::memmove(output, iterator->current, static_cast<size_t>(length) * sizeof(float));
    }
    iterator->current += length;
    iterator->current += iterator->skips[iterator->rank - 1];
    for (int32_t axis = iterator->rank - 2; axis >= 0; --axis) {
        if (++iterator->positions[axis] != iterator->extents[axis]) {
            break;
        }
        iterator->positions[axis] = 0;
        iterator->current += iterator->skips[axis];
    }
    return output + length;
}

float* CopyInnermostAxisSolitaryInnerStep(PadSliceIterator* iterator, float* output)
{
    return CopyInnermostAxisSolitaryInnerStepImpl(iterator, output);
}

void TensorPictchesInit(TensorPitches* pitches, uint32_t* dims, int32_t rank)
{
    uint32_t product = 1;
    for (int32_t i = 0; i < rank; ++i) {
        product *= dims[i];
    }
    int32_t step = static_cast<int32_t>(product);
    for (int32_t i = 0; i < rank; ++i) {
        step /= static_cast<int32_t>(dims[i]);
        pitches->pitches[i] = static_cast<uint32_t>(step);
    }
}

void PadAxisConstant(float* output, int32_t count, float value)
{
    for (int32_t i = 0; i < count; ++i) {
        output[i] = value;
    }
}
