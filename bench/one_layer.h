// A request of one layer, run through OpkitForward: what a row measures includes the driver and the frame.
#ifndef OPKIT_BENCH_ONE_LAYER_H
#define OPKIT_BENCH_ONE_LAYER_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "bench/table.h"
#include "modelkit/model_builder.h"
#include "modelkit/request.h"

namespace opkit::bench {

using modelkit::Shape;

// Compact without a stride.
struct Layout {
    Shape shape;
    uint32_t strideBytes = 0;
};

class OneLayer {
public:
    template <class Attr>
    OneLayer(const std::string& name, const std::vector<Layout>& inputs, const std::vector<Layout>& outputs,
             const Attr& attr, uint32_t workspace = 0)
        : OneLayer(name, inputs, outputs,
                   AttrBytes(reinterpret_cast<const std::byte*>(&attr) + sizeof(LayerAttrHead),
                             sizeof(Attr) - sizeof(LayerAttrHead)),
                   workspace)
    {
    }
    OneLayer(const std::string& name, const std::vector<Layout>& inputs, const std::vector<Layout>& outputs)
        : OneLayer(name, inputs, outputs, AttrBytes(), 0)
    {
    }

    std::span<float> In(size_t k = 0) { return request_.InputRows(k); }
    std::span<float> Out(size_t k = 0) { return request_.OutputRows(k); }
    // Ends the program when the request fails.
    void Run();

private:
    using AttrBytes = std::span<const std::byte>;

    OneLayer(const std::string& name, const std::vector<Layout>& inputs, const std::vector<Layout>& outputs,
             AttrBytes attr, uint32_t workspace);

    std::string name_;
    modelkit::Request request_;
};

template <class... Args>
std::shared_ptr<OneLayer> MakeLayer(Args&&... args)
{
    return std::make_shared<OneLayer>(std::forward<Args>(args)...);
}

// Reproducible values in [low, high).
void Fill(std::span<float> values, float low = -1.0f, float high = 1.0f, uint32_t seed = 1);

// Bit for bit; any NaN is as good as another.
bool SameBits(std::span<const float> a, std::span<const float> b);

// Memory for candidates that are no layers, aligned for every instruction set.
std::shared_ptr<modelkit::Buffer> MakeFloats(size_t count);

// Moving or clearing so many floats: what work on memory cannot beat.
Work CopyOf(size_t count);
Work ClearOf(size_t count);

}  // namespace opkit::bench

#endif  // OPKIT_BENCH_ONE_LAYER_H
