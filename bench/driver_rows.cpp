// What a layer costs besides its work, and the digits model as a whole.

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "bench/one_layer.h"
#include "bench/table.h"
#include "modelkit/model_file.h"
#include "opkit/opkit.h"

namespace opkit::bench {
namespace {

constexpr size_t kLayers = 128;

struct NegChain {
    std::unique_ptr<modelkit::Request> request;

    NegChain()
    {
        modelkit::ModelBuilder builder;
        const auto in = builder.AddInput({"x", {1}});
        const auto out = builder.AddOutput({"y", {1}});
        const auto middle = builder.AddScratch({"middle", {1}});
        for (size_t i = 0; i < kLayers; ++i) {
            builder.AddLayer("NegOpkitForward").Online(i == 0 ? in : middle).Output(i + 1 == kLayers ? out : middle);
        }
        request = std::make_unique<modelkit::Request>(builder.Build());
    }
};

// The names of the operator table, in its order.
constexpr const char* kNames[] = {
#define OPKIT_OPERATOR(name, forward, record, check) #name "OpkitForward",
#include "opkit/operators.def"
};

void Negate(const TensorInfo* in, TensorInfo* out)
{
    *static_cast<float*>(out->data) = -*static_cast<const float*>(in->data);
}

// Two allocations, the search for the name, one call through a pointer; per layer.
void PlainLayers(const char* name, float* x, float* y)
{
    for (size_t i = 0; i < kLayers; ++i) {
        TensorInfo* const in = static_cast<TensorInfo*>(std::malloc(sizeof(TensorInfo)));
        TensorInfo* const out = static_cast<TensorInfo*>(std::malloc(sizeof(TensorInfo)));
        in->data = x;
        out->data = y;
        void (*call)(const TensorInfo*, TensorInfo*) = nullptr;
        for (const char* const known : kNames) {
            if (std::strcmp(known, name) == 0) {
                call = Negate;
                break;
            }
        }
        Keep(&call);
        if (call != nullptr) {
            call(in, out);
        }
        std::free(in);
        std::free(out);
    }
}

Row Overhead()
{
    const auto chain = std::make_shared<NegChain>();
    const auto memory = MakeFloats(32);
    Row row;
    row.work = kLayers;
    row.unit = "G layers/s";
    row.ours = [=] { chain->request->Run(OpkitForward); };
    row.peers = {{"allocations, search and call, plainly",
                  [=] { PlainLayers("NegOpkitForward", memory->Floats().data(), memory->Floats().data() + 16); },
                  Ratio::kTime, 1.5}};
    return row;
}

Row Digits(uint32_t batch)
{
    const modelkit::Model model =
        modelkit::LoadModel(std::filesystem::path(OPKIT_SOURCE_DIR) / "examples/digits/data/digits");
    const auto request = std::make_shared<modelkit::Request>(model, batch);
    for (size_t k = 0; k < model.inputs.size(); ++k) {
        Fill(request->InputRows(k), 0, 1);
    }
    Row row;
    row.work = batch * 1e3;
    row.unit = "thousand images/ms";
    row.ours = [=] { request->Run(OpkitForward); };
    return row;
}

}  // namespace

std::vector<RowMaker> DriverRows()
{
    return {
        {"Driver", "128 layers of Neg on one element", Overhead},
        {"Driver", "the digits model, 1 image", [] { return Digits(1); }},
        {"Driver", "the digits model, 64 images", [] { return Digits(64); }},
    };
}

}  // namespace opkit::bench
