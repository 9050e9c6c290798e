// DecBbox: decodes region proposals into boxes by centre-and-size deltas, clips them, and lays them out per class in
// field rows. Starts the detection chain: thresholds and counts go to this thread's objects.
// Rows: compacting.
//
// There are deltas for two classes, and both are decoded even where classNum is 1; further classes take the second
// one's boxes and their own scores. A proposal count with a fraction decodes one box more than it counts.

#include <cmath>
#include <cstring>

#include "common/bounded_memory.h"
#include "common/convert.h"
#include "opkit/attributes/detection.h"
#include "opkit/operators.h"
#include "ops/detection/chain_state.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

constexpr uint32_t kDecodedClasses = 2;
constexpr uint32_t kCoordinates = 4;
constexpr uint32_t kScoreRow = 4;
constexpr uint32_t kClassIdRow = 5;
constexpr uint32_t kMaxClasses = 256;

// Decodes [lo, hi] by a shift and a logarithmic size. Sizes include both ends, but the new high edge takes no -1.
void DecodeAxis(float lo, float hi, float shift, float logSize, float* newLo, float* newHi)
{
    const float size = (hi - lo) + 1.0f;
    const float centre = RoundToF32(static_cast<double>(lo) + 0.5 * static_cast<double>(size));
    const float newCentre = size * shift + centre;
    const float newSize = RoundToF32(static_cast<double>(size) * std::exp(static_cast<double>(logSize)));
    const double half = 0.5 * static_cast<double>(newSize);
    *newLo = RoundToF32(static_cast<double>(newCentre) - half);
    *newHi = RoundToF32(half + static_cast<double>(newCentre));
}

// Clips to [0, limit]; the order of both comparisons decides for NaN.
float Clip(float value, float limit)
{
    const float low = value < limit ? value : limit;
    return low > 0.0f ? low : 0.0f;
}

// One pass: the boxes of class `pass` for every proposal. The count is read again for each, as the output might hold
// it.
void DecodeClass(const Input* inputs, const DecBboxAttr& attr, uint32_t pass, uint32_t proposalNum, uint32_t rowLength,
                 float* block)
{
    const float* const deltas = inputs[0].data;
    const float* const scores = inputs[1].data;
    const float* const count = inputs[3].data;
    const float* const proposals = inputs[4].data;
    const size_t n = proposalNum;
    for (uint32_t i = 0; *count > static_cast<float>(i); ++i) {
        const float* const delta = deltas + size_t{8} * i + size_t{4} * pass;
        const float score = scores[size_t{i} * attr.classNum + pass];
        float box[kCoordinates];
        DecodeAxis(proposals[i], proposals[2 * n + i], delta[0], delta[2], &box[0], &box[2]);
        DecodeAxis(proposals[n + i], proposals[3 * n + i], delta[1], delta[3], &box[1], &box[3]);
        if (attr.clipBox != 0) {
            ClipBox(box, static_cast<float>(attr.imageWidth - 1), static_cast<float>(attr.imageHeight - 1));
        }
        for (uint32_t k = 0; k < kCoordinates; ++k) {
            block[size_t{k} * rowLength + i] = box[k];
        }
        block[size_t{kScoreRow} * rowLength + i] = score;
        if (attr.hasClassId == 1) {
            block[size_t{kClassIdRow} * rowLength + i] = static_cast<float>(pass);
        }
    }
}

// Scores and class ids of class c while keepGoing(i).
template <class KeepGoing>
void WriteScores(float* row, float* idRow, const float* scores, uint32_t classNum, uint32_t c, KeepGoing keepGoing)
{
    for (uint32_t i = 0; keepGoing(i); ++i) {
        row[i] = scores[c + size_t{i} * classNum];
    }
    for (uint32_t i = 0; idRow != nullptr && keepGoing(i); ++i) {
        idRow[i] = static_cast<float>(c);
    }
}

uint32_t CopyIntoBlocks(float* out, const float* scores, uint32_t classNum, uint32_t rowLength, uint32_t hasClassId,
                        const float* count)
{
    const size_t blockSize = size_t{FieldCount(hasClassId)} * rowLength;
    const float* const firstClass = out + blockSize;
    for (uint32_t c = 2; c < classNum; ++c) {
        float* const block = out + c * blockSize;
        for (uint32_t k = 0; k < kCoordinates; ++k) {
            // Bytes, not floats: a count of 2.5 copies two and a half.
            const int64_t bytes = TruncateToI64(*count * 4.0f);
            const size_t row = size_t{k} * rowLength;
            if (memcpy_s(block + row, bytes, firstClass + row, static_cast<uint64_t>(bytes)) != 0) {
                return kFailure;
            }
        }
        float* const idRow = hasClassId == 1 ? block + size_t{kClassIdRow} * rowLength : nullptr;
        WriteScores(block + size_t{kScoreRow} * rowLength, idRow, scores, classNum, c,
                    [count](uint32_t i) { return *count > static_cast<float>(i); });
    }
    return kSuccess;
}

// Boxes of class c go to element c * N of the merged rows, but its scores to c * count: the two agree only when every
// proposal counts.
uint32_t CopyIntoMergedRows(float* out, const float* scores, uint32_t classNum, uint32_t proposalNum,
                            uint32_t hasClassId, const float* count)
{
    const uint32_t boxes = TruncateToU32(*count);
    const size_t rowLength = size_t{classNum} * proposalNum;
    for (uint32_t k = 0; k <= kScoreRow; ++k) {
        float* const row = out + k * rowLength;
        for (uint32_t c = 2; c < classNum; ++c) {
            Copy(boxes, row + boxes, row + size_t{c} * proposalNum);
        }
    }
    if (boxes == 0) {
        return kSuccess;
    }
    for (uint32_t c = 2; c < classNum; ++c) {
        const size_t run = size_t{c} * boxes;
        float* const idRow = hasClassId == 1 ? out + kClassIdRow * rowLength + run : nullptr;
        WriteScores(out + kScoreRow * rowLength + run, idRow, scores, classNum, c,
                    [boxes](uint32_t i) { return i < boxes; });
    }
    return kSuccess;
}

}  // namespace

uint32_t ClipBox(float* box, float maxX, float maxY)
{
    if (box == nullptr) {
        return kFailure;
    }
    box[0] = Clip(box[0], maxX);
    box[1] = Clip(box[1], maxY);
    box[2] = Clip(box[2], maxX);
    box[3] = Clip(box[3], maxY);
    return kSuccess;
}

uint32_t InitRpn(float* thresholds, float* count, uint32_t merge, uint32_t classNum)
{
    g_nmsThresh = thresholds[0];
    g_lowScoreThresh = thresholds[1];
    g_maxHeight = thresholds[2];
    g_maxWidth = thresholds[3];
    if (merge != 0) {
        g_curBoxNum[0] = TruncateToU32(static_cast<float>(classNum) * count[0]);
        return kSuccess;
    }
    if (static_cast<int32_t>(classNum) < 1 || classNum > kMaxClasses) {
        Report(Here(), "classNum(%u) must be in [1, %d]\n\n", classNum, static_cast<int>(kMaxClasses));
        return kFailure;
    }
    for (uint32_t c = 0; c < classNum; ++c) {
        g_curBoxNum[c] = TruncateToU32(count[0]);
    }
    return kSuccess;
}

uint32_t CopyNextClassInfo(float* out, float* scores, uint32_t classNum, uint32_t N, uint32_t merge,
                           uint32_t hasClassId, float* count)
{
    if (classNum <= kDecodedClasses) {
        return kSuccess;
    }
    return merge != 0 ? CopyIntoMergedRows(out, scores, classNum, N, hasClassId, count)
                      : CopyIntoBlocks(out, scores, classNum, N, hasClassId, count);
}

uint32_t DecBboxOpkitForward(LayerParam* param)
{
    InputCursor cursor = {param};
    Input inputs[5];
    for (uint32_t k = 0; k < 5; ++k) {
        if (!ResolveNext(&cursor, &inputs[k], k < 2 ? Rows::kInPlace : Rows::kCompacting, Messages::kAll)) {
            return kFailure;
        }
    }
    // Deltas and scores have the shape of one proposal's share, and are compacted for all proposals.
    const uint32_t proposalNum = inputs[4].shape[3];
    for (uint32_t k = 0; k < 2; ++k) {
        inputs[k].count *= proposalNum;
        if (!CompactInput(inputs[k])) {
            return kFailure;
        }
    }
    const DecBboxAttr& attr = AttrOf<DecBboxAttr>(param);
    const Output out = OutputOf(param, 0);
    float* const count = inputs[3].data;
    if (InitRpn(inputs[2].data, count, attr.mergeClasses, attr.classNum) != kSuccess) {
        Report(Here(), "init rpn falied.\n\n");  // spelt so
        return kFailure;
    }
    if (memset_s(out.data, out.size, 0, out.size) != 0) {
        Report(Here(), "init outputdata failed!\n");
        return kFailure;
    }
    const bool merge = attr.mergeClasses != 0;
    const uint32_t rowLength = merge ? proposalNum * attr.classNum : proposalNum;
    for (uint32_t pass = 0; pass < kDecodedClasses; ++pass) {
        const size_t block =
            merge ? size_t{TruncateToU32(*count)} * pass : size_t{pass} * FieldCount(attr.hasClassId) * rowLength;
        DecodeClass(inputs, attr, pass, proposalNum, rowLength, out.data + block);
    }
    if (attr.classNum > kDecodedClasses) {
        CopyNextClassInfo(out.data, inputs[1].data, attr.classNum, proposalNum, attr.mergeClasses, attr.hasClassId,
                          count);
    }
    return ExpandOutputChecked(out);
}
