#include "bench/peers.h"

#if OPKIT_HAVE_ONEDNN
#include <dnnl.hpp>
#include <unordered_map>

namespace opkit::bench::peers {
namespace {

using Desc = dnnl::memory::desc;
using Tag = dnnl::memory::format_tag;
constexpr auto kF32 = dnnl::memory::data_type::f32;

dnnl::engine& Engine()
{
    static dnnl::engine engine(dnnl::engine::kind::cpu, 0);
    return engine;
}

dnnl::stream& Stream()
{
    static dnnl::stream stream(Engine());
    return stream;
}

dnnl::memory Wrap(const Desc& desc, const float* data)
{
    return dnnl::memory(desc, Engine(), const_cast<float*>(data));
}

Desc Dense(const Dims& dims)
{
    Dims strides(dims.size(), 1);
    for (size_t d = dims.size() - 1; d-- > 0;) {
        strides[d] = strides[d + 1] * dims[d + 1];
    }
    return Desc(dims, kF32, strides);
}

Work Execution(const dnnl::primitive& primitive, std::unordered_map<int, dnnl::memory> arguments)
{
    return [primitive, arguments] {
        primitive.execute(Stream(), arguments);
        Stream().wait();
    };
}

}  // namespace

std::string DnnlName()
{
    const dnnl_version_t* const version = dnnl_version();
    return std::to_string(version->major) + "." + std::to_string(version->minor) + "." + std::to_string(version->patch);
}

Work Convolution(const Conv& shape, const float* x, const float* w, float* y)
{
    const Desc image({1, shape.inChannels, shape.size, shape.size}, kF32, Tag::nchw);
    const Desc result({1, shape.outChannels, shape.size, shape.size}, kF32, Tag::nchw);
    const Dims weightDims = {shape.outChannels, shape.inChannels, shape.kernel, shape.kernel};
    const dnnl::convolution_forward::desc desc(dnnl::prop_kind::forward_inference, dnnl::algorithm::convolution_auto,
                                               image, Desc(weightDims, kF32, Tag::any), result, {1, 1},
                                               {shape.pad, shape.pad}, {shape.pad, shape.pad});
    const dnnl::convolution_forward::primitive_desc chosen(desc, Engine());
    dnnl::memory weights(chosen.weights_desc(), Engine());
    dnnl::memory plain = Wrap(Desc(weightDims, kF32, Tag::oihw), w);
    dnnl::reorder(plain, weights).execute(Stream(), plain, weights);
    Stream().wait();
    return Execution(dnnl::convolution_forward(chosen),
                     {{DNNL_ARG_SRC, Wrap(image, x)}, {DNNL_ARG_WEIGHTS, weights}, {DNNL_ARG_DST, Wrap(result, y)}});
}

Work Binary(BinaryOp op, const Dims& shape, const Dims& shapeB, const float* a, const float* b, float* out)
{
    constexpr dnnl::algorithm kAlgorithms[] = {dnnl::algorithm::binary_add, dnnl::algorithm::binary_mul,
                                               dnnl::algorithm::binary_div, dnnl::algorithm::binary_max,
                                               dnnl::algorithm::binary_gt};
    const dnnl::binary::desc desc(kAlgorithms[static_cast<int>(op)], Dense(shape), Dense(shapeB), Dense(shape));
    const dnnl::binary::primitive_desc chosen(desc, Engine());
    return Execution(dnnl::binary(chosen), {{DNNL_ARG_SRC_0, Wrap(Dense(shape), a)},
                                            {DNNL_ARG_SRC_1, Wrap(Dense(shapeB), b)},
                                            {DNNL_ARG_DST, Wrap(Dense(shape), out)}});
}

Work Pooling(const Pool& shape, const float* x, float* y)
{
    const int64_t out = (shape.size + 2 * shape.pad - shape.kernel) / shape.stride + 1;
    const Desc image({1, shape.channels, shape.size, shape.size}, kF32, Tag::nchw);
    const Desc result({1, shape.channels, out, out}, kF32, Tag::nchw);
    // The right edge is padded as far as the last window needs it.
    const int64_t end = (out - 1) * shape.stride + shape.kernel - shape.size - shape.pad;
    const dnnl::pooling_forward::desc desc(
        dnnl::prop_kind::forward_inference,
        shape.average ? dnnl::algorithm::pooling_avg_exclude_padding : dnnl::algorithm::pooling_max, image, result,
        {shape.stride, shape.stride}, {shape.kernel, shape.kernel}, {shape.pad, shape.pad}, {end, end});
    return Execution(dnnl::pooling_forward(dnnl::pooling_forward::primitive_desc(desc, Engine())),
                     {{DNNL_ARG_SRC, Wrap(image, x)}, {DNNL_ARG_DST, Wrap(result, y)}});
}

Work Resample(bool linear, int64_t channels, int64_t size, const float* x, float* y)
{
    const Desc image({1, channels, size, size}, kF32, Tag::nchw);
    const Desc result({1, channels, 2 * size, 2 * size}, kF32, Tag::nchw);
    const dnnl::resampling_forward::desc desc(
        dnnl::prop_kind::forward_inference,
        linear ? dnnl::algorithm::resampling_linear : dnnl::algorithm::resampling_nearest, image, result);
    return Execution(dnnl::resampling_forward(dnnl::resampling_forward::primitive_desc(desc, Engine())),
                     {{DNNL_ARG_SRC, Wrap(image, x)}, {DNNL_ARG_DST, Wrap(result, y)}});
}

Work ToNhwc(int64_t channels, int64_t size, const float* x, float* y)
{
    const Dims dims = {1, channels, size, size};
    dnnl::memory from = Wrap(Desc(dims, kF32, Tag::nchw), x);
    dnnl::memory to = Wrap(Desc(dims, kF32, Tag::nhwc), y);
    return Execution(dnnl::reorder(from, to), {{DNNL_ARG_FROM, from}, {DNNL_ARG_TO, to}});
}

Work Transpose(int64_t rows, int64_t columns, const float* x, float* y)
{
    const Dims dims = {rows, columns};
    dnnl::memory from = Wrap(Desc(dims, kF32, Tag::ab), x);
    dnnl::memory to = Wrap(Desc(dims, kF32, Tag::ba), y);
    return Execution(dnnl::reorder(from, to), {{DNNL_ARG_FROM, from}, {DNNL_ARG_TO, to}});
}

}  // namespace opkit::bench::peers

#else

namespace opkit::bench::peers {

std::string DnnlName()
{
    return "not installed";
}

Work Convolution(const Conv&, const float*, const float*, float*)
{
    return {};
}

Work Binary(BinaryOp, const Dims&, const Dims&, const float*, const float*, float*)
{
    return {};
}

Work Pooling(const Pool&, const float*, float*)
{
    return {};
}

Work Resample(bool, int64_t, int64_t, const float*, float*)
{
    return {};
}

Work ToNhwc(int64_t, int64_t, const float*, float*)
{
    return {};
}

Work Transpose(int64_t, int64_t, const float*, float*)
{
    return {};
}

}  // namespace opkit::bench::peers

#endif
