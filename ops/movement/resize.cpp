// Resize: resamples a tensor [N, C, H, W] to the shape of the output. Scales and output shape are not checked against
// each other. Here: which region of interest and which scales count; the two sampling modes have files of their own.
// Rows: in place.

#include "ops/movement/resize.h"

#include <cstdlib>

#include "opkit/operators.h"

using namespace opkit;

namespace {

bool IsTiny(float x)
{
    return __builtin_fabs(static_cast<double>(x)) < 1e-6;
}

bool ScalesAbsent(const ResizeAttr& attr)
{
    return IsTiny(1.0f + attr.scales[0]);
}

bool TakesSizesFromInput(const ResizeAttr& attr)
{
    return attr.useSizes == 1 && attr.sizes[0] == -1;
}

bool DeclaresRegion(const ResizeAttr& attr)
{
    return attr.hasRoi == 1 && attr.roiCount > 10;
}

// Resolves the scales and samples.
uint32_t ResizeWithRegion(LayerParam* param, int32_t rank, const float* region, uint32_t scalesInput, Caller caller)
{
    ResizeAttr& attr = AttrOf<ResizeAttr>(param);
    // Scales made of sizes go through these pointers; every other kind replaces the first of them.
    float ownScales[OPKIT_MAX_DIMS] = {};
    float* slots[OPKIT_MAX_DIMS];
    for (int32_t i = 0; i < OPKIT_MAX_DIMS; ++i) {
        slots[i] = &ownScales[i];
    }
    if (TakesSizesFromInput(attr) && rank > OPKIT_MAX_DIMS) {
        Report(caller, "Resize rank %d larger than %d!\n\n", rank, OPKIT_MAX_DIMS);
        return kFailure;
    }
    if (ParseAttrInput(param, &attr.head, slots, scalesInput) != kSuccess) {
        return kFailure;
    }
    const ResizeLayer layer = {param, &attr, slots[0], region};
    if (attr.resizeMode == OPKIT_RESIZE_NEAREST) {
        return ResizeNearest(layer, caller);
    }
    if (attr.resizeMode == OPKIT_RESIZE_LINEAR) {
        return ResizeLinear(layer);
    }
    return kSuccess;
}

uint32_t ResizeDeclaredRegion(LayerParam* param, int32_t rank, Caller caller)
{
    ResizeAttr& attr = AttrOf<ResizeAttr>(param);
    DescribedTensor region;
    region.data = attr.roi;
    if (IsTiny(attr.roi[0]) && !Describe(param, 1, &region)) {
        return kFailure;
    }
    // Behind a region that is a constant of the model the scales are looked for in its own place.
    return ResizeWithRegion(param, rank, region.data, region.desc.isOffline != 0 ? 1 : 2, caller);
}

uint32_t ResizeWholeRegion(LayerParam* param, int32_t rank, Caller caller)
{
    const size_t bytes = size_t{static_cast<uint32_t>(rank)} * 2 * sizeof(float);
    if (bytes == 0) {
        Report(caller, "Malloc failed!\n\n");
        return kFailure;
    }
    float* const region = static_cast<float*>(std::malloc(bytes));
    if (region == nullptr) {
        Report(caller, "Malloc %ld failed!\n\n", static_cast<long>(bytes));
        return kFailure;
    }
    for (int32_t i = 0; i < rank; ++i) {
        region[i] = 0.0f;
        region[rank + i] = 1.0f;
    }
    const uint32_t result = ResizeWithRegion(param, rank, region, 1, caller);
    std::free(region);
    return result;
}

}  // namespace

uint32_t ParseAttrInput(LayerParam* param, LayerAttrBlock* block, float** scalesOut, uint32_t inputIndex)
{
    ResizeAttr& attr = *reinterpret_cast<ResizeAttr*>(block);
    DescribedTensor in;
    if (!Describe(param, 0, &in)) {
        return kFailure;
    }
    const bool sizes = TakesSizesFromInput(attr);
    if (!sizes && (attr.useSizes == 1 || !ScalesAbsent(attr))) {
        *scalesOut = attr.scales;
        return kSuccess;
    }
    DescribedTensor values;
    if (!Describe(param, inputIndex, &values)) {
        return kFailure;
    }
    if (!sizes) {
        *scalesOut = values.data;
        return kSuccess;
    }
    for (int32_t i = 0; i < in.desc.dimNum; ++i) {
        *scalesOut[i] = values.data[i] / static_cast<float>(in.shape[i]);
    }
    return kSuccess;
}

uint32_t ResizeOpkitForward(LayerParam* param)
{
    DescribedTensor in;
    if (!Describe(param, 0, &in)) {
        return kFailure;
    }
    const int32_t rank = in.desc.dimNum;
    return DeclaresRegion(AttrOf<ResizeAttr>(param)) ? ResizeDeclaredRegion(param, rank, Here())
                                                     : ResizeWholeRegion(param, rank, Here());
}
