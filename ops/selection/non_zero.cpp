// NonZero: the coordinates of all elements whose magnitude exceeds 1e-6, NaN included.
// Rows: expanding.
//
// The result [dimNum, count] is packed by the count that is found, not by the output's last dimension; zeros fill the
// rest of the output. Nothing reports the count.

#include "common/bounded_memory.h"
#include "kernels/axis_lines.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

void WriteCoordinates(const Input& in, float* out, uint32_t count)
{
    const size_t pitch = in.Pitch();
    float* const columns = out + size_t{count} * static_cast<uint32_t>(in.dimNum - 1);
    const uint32_t rows = in.count / in.width;
    for (uint32_t row = 0, done = 0; row < rows && done < count; ++row) {
        // What is found is never more than is still to come.
        const uint32_t found =
            Kernels<AxisLineKernels>().nonZeroPlaces(in.data + row * pitch, in.width, columns + done, count - done);
        if (found == 0) {
            continue;
        }
        uint32_t rest = row;
        for (int32_t k = in.dimNum - 2; k >= 0; --k) {
            const float coordinate = static_cast<float>(rest % in.shape[k]);
            rest /= in.shape[k];
            float* const to = out + size_t{count} * static_cast<uint32_t>(k) + done;
            for (uint32_t u = 0; u < found; ++u) {
                to[u] = coordinate;
            }
        }
        done += found;
    }
}

}  // namespace

uint32_t NonZeroOpkitForward(LayerParam* param)
{
    Input in;
    if (!Resolve(param, {&in}, Rows::kExpanding, Messages::kAll)) {
        return kFailure;
    }
    const Output out = OutputOf(param, 0);
    uint32_t count = 0;
    if (in.count != 0) {
        ForEachRowRun(in.count, in.width, in.Pitch(), in.width, in.Pitch(), [&](size_t from, size_t, uint32_t n) {
            count += Kernels<AxisLineKernels>().countNonZero(in.data + from, n);
        });
    }
    const uint64_t packed = uint64_t{static_cast<uint32_t>(in.dimNum)} * count;
    const uint32_t restBytes = (out.count - static_cast<uint32_t>(packed)) * static_cast<uint32_t>(sizeof(float));
    // With more coordinates than the output holds the rest would wrap, and the fill run far behind the output.
    if (packed > out.count || memset_s(out.data + packed, restBytes, 0, restBytes) != 0) {
        Report(Here(), "nonZero memset error.\n\n");
        return kFailure;
    }
    if (count != 0) {
        WriteCoordinates(in, out.data, count);
    }
    return ExpandOutputChecked(out);
}
