#include "bench/one_layer.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "opkit/opkit.h"

namespace opkit::bench {
namespace {

modelkit::Model BuildModel(const std::string& name, const std::vector<Layout>& inputs,
                           const std::vector<Layout>& outputs, uint32_t workspace, std::span<const std::byte> attr)
{
    modelkit::ModelBuilder builder;
    modelkit::LayerBuilder& layer = builder.AddLayer(name);
    for (size_t i = 0; i < inputs.size(); ++i) {
        layer.Online(builder.AddInput({"in" + std::to_string(i), inputs[i].shape, inputs[i].strideBytes}));
    }
    for (size_t i = 0; i < outputs.size(); ++i) {
        layer.Output(builder.AddOutput({"out" + std::to_string(i), outputs[i].shape, outputs[i].strideBytes}));
    }
    layer.Workspace(workspace);
    if (!attr.empty()) {
        layer.AttrBytes(attr);
    }
    return builder.Build();
}

}  // namespace

OneLayer::OneLayer(const std::string& name, const std::vector<Layout>& inputs, const std::vector<Layout>& outputs,
                   AttrBytes attr, uint32_t workspace)
    : name_(name), request_(BuildModel(name, inputs, outputs, workspace, attr))
{
}

void OneLayer::Run()
{
    if (request_.Run(OpkitForward) != 0) {
        std::fprintf(stderr, "%s failed\n", name_.c_str());
        std::exit(1);
    }
}

void Fill(std::span<float> values, float low, float high, uint32_t seed)
{
    uint32_t state = seed * 2654435761u + 1;
    for (float& value : values) {
        state = state * 1664525u + 1013904223u;
        value = low + (high - low) * (static_cast<float>(state >> 8) * (1.0f / 16777216.0f));
    }
}

bool SameBits(std::span<const float> a, std::span<const float> b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::bit_cast<uint32_t>(a[i]) != std::bit_cast<uint32_t>(b[i]) && !(std::isnan(a[i]) && std::isnan(b[i]))) {
            std::fprintf(stderr, "element %zu: %a, plain loop: %a\n", i, static_cast<double>(a[i]),
                         static_cast<double>(b[i]));
            return false;
        }
    }
    return true;
}

std::shared_ptr<modelkit::Buffer> MakeFloats(size_t count)
{
    return std::make_shared<modelkit::Buffer>(count * sizeof(float));
}

Work CopyOf(size_t count)
{
    const auto from = MakeFloats(count);
    const auto to = MakeFloats(count);
    Fill(from->Floats());
    return [=] {
        std::memcpy(to->data(), from->data(), count * sizeof(float));
        Keep(to->data());
    };
}

Work ClearOf(size_t count)
{
    const auto to = MakeFloats(count);
    return [=] {
        std::memset(to->data(), 0, count * sizeof(float));
        Keep(to->data());
    };
}

}  // namespace opkit::bench
