// Pooling and normalisation. Windows are clipped to the input whatever the attributes say, so only shapes count for
// what is read; the attributes count for how often.

#include "opkit/attributes/pooling.h"
#include "modelkit/check/layer_check.h"

namespace opkit::modelkit::check {
namespace {

uint64_t Planes(const Tensor& tensor)
{
    return Mul(tensor.FromEnd(4), tensor.FromEnd(3));
}

// The input's planes, each of the output's height and width.
uint64_t Results(const Tensor& in, const Tensor& out)
{
    return Mul(Planes(in), out.FromEnd(2), out.FromEnd(1));
}

// Input elements of a window along one axis, at most. A window that ends before the input counts as one without end,
// and so does one whose place is beyond 31 bits.
uint64_t WindowExtent(uint64_t size, uint64_t places, uint64_t kernel, uint64_t stride, uint64_t pad)
{
    const bool endless = kernel < pad || Add(Mul(places, stride), kernel) > INT32_MAX;
    return endless ? size : std::min(size, kernel);
}

// Windows that do not move would all be the same.
template <class Attr>
void CheckWindows(LayerCheck& layer, const Tensor& in, const Tensor& out)
{
    const Attr attr = layer.Attr<Attr>();
    constexpr const char* kStands = "windows that do not move";
    layer.AtLeast(OPKIT_ATTR_FIELD(layer, Attr, strideH), attr.strideH, out.FromEnd(2) > 1 ? 1 : 0, kStands);
    layer.AtLeast(OPKIT_ATTR_FIELD(layer, Attr, strideW), attr.strideW, out.FromEnd(1) > 1 ? 1 : 0, kStands);
    layer.Work(Mul(Results(in, out),
                   WindowExtent(in.FromEnd(2), out.FromEnd(2), attr.kernelH, attr.strideH, attr.padTop),
                   WindowExtent(in.FromEnd(1), out.FromEnd(1), attr.kernelW, attr.strideW, attr.padLeft)));
}

constexpr const char* kTooFew = "the input's planes do not fit the output";

}  // namespace

void CheckPoolingAve(LayerCheck& layer)
{
    const Tensor& in = layer.Next();
    const Tensor& out = layer.Out();
    layer.Elements(out, Results(in, out), kTooFew);
    CheckWindows<PoolingAveAttr>(layer, in, out);
}

void CheckPoolingMax(LayerCheck& layer)
{
    const Tensor& in = layer.Next();
    const Tensor& out = layer.Out();
    layer.Elements(out, Results(in, out), kTooFew);
    if (layer.OutputNum() > 1) {
        layer.Elements(layer.Out(1), Results(in, out), "fewer positions than results");
    }
    CheckWindows<PoolingMaxAttr>(layer, in, out);
}

void CheckPoolingLp(LayerCheck& layer)
{
    const Tensor& in = layer.NextCompacted();
    const Tensor& out = layer.OutExpanded();
    layer.Elements(out, Results(in, out), kTooFew);
    CheckWindows<PoolingLpAttr>(layer, in, out);
}

void CheckMaxUnpool(LayerCheck& layer)
{
    const Tensor& x = layer.Next();
    const Tensor& indices = layer.Next();
    const Tensor& y = layer.OutExpanded();
    layer.Elements(y, Results(x, y), kTooFew);
    layer.AtLeast(indices.Dim(indices.Rank() - 1), indices.Width(), x.Width(), "rows shorter than the input's");
    layer.AtLeast(indices.shapeField, indices.Rows(), Mul(Planes(x), x.FromEnd(2)), "fewer rows than the input");
}

void CheckInstanceNormalization(LayerCheck& layer)
{
    const Tensor& x = layer.NextCompacted();
    const Tensor& scale = layer.NextCompacted();
    const Tensor& bias = layer.NextCompacted();
    const Tensor& y = layer.OutExpanded();
    uint64_t planes = 1;
    uint64_t size = x.Count();
    uint64_t channels = 1;
    if (x.Rank() >= 3) {
        const bool isImage = x.Rank() >= 4;
        planes = isImage ? Planes(x) : Mul(x.dims[0], x.dims[1]);
        size = isImage ? Mul(x.FromEnd(2), x.FromEnd(1)) : x.dims[2];
        channels = isImage ? x.FromEnd(3) : x.dims[1];
    }
    layer.WorkSpace(Mul(size, 4), "the work space holds one plane");
    layer.Elements(scale, channels, "fewer scales than channels");
    layer.Elements(bias, channels, "fewer biases than channels");
    layer.Elements(y, Mul(planes, size), "the output has fewer elements than the input's planes");
    layer.MayRunInPlace(y, x);
}

void CheckLpNorm(LayerCheck& layer)
{
    const Tensor& x = layer.NextCompacted();
    const Tensor& y = layer.OutExpanded();
    const int64_t axis = layer.Attr<LpNormAttr>().axis;
    layer.Axis(OPKIT_ATTR_FIELD(layer, LpNormAttr, axis), axis < 0 ? axis + static_cast<int64_t>(x.Rank()) : axis,
               x.Rank());
    layer.Elements(y, x.Count(), "the output has fewer elements than the input");
}

}  // namespace opkit::modelkit::check
