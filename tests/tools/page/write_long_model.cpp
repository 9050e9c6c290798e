// Writes a model of 500 layers in four tables, and an input for it: write_long_model DIRECTORY.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "modelkit/model_builder.h"
#include "modelkit/model_file.h"
#include "opkit/opkit.h"

namespace {

using namespace opkit::modelkit;

constexpr uint32_t kTables = 4;
constexpr uint32_t kLayersPerTable = 125;

Model LongModel()
{
    ModelBuilder builder;
    const Shape shape = {1, 8, 16, 16};
    TensorRef before = builder.AddInput({"image", shape});
    const TensorRef result = builder.AddOutput({"result", shape});
    std::vector<TensorRef> places;
    for (uint32_t i = 0; i < 6; ++i) {
        places.push_back(builder.AddScratch({"t" + std::to_string(i), shape}));
    }
    const ConstantRef step = builder.AddConstant("step", {1}, {0.0625F});
    uint32_t number = 0;
    for (uint32_t t = 0; t < kTables; ++t) {
        builder.BeginTable(t, "part" + std::to_string(t));
        for (uint32_t i = 0; i < kLayersPerTable; ++i, ++number) {
            const bool last = number + 1 == kTables * kLayersPerTable;
            const TensorRef& output = last ? result : places[number % places.size()];
            if (i % 5 == 4) {  // joins what was written some layers ago
                BinaryMathAttr attr = {};
                attr.mathType = OPKIT_BINARY_ADD;
                builder.AddLayer("BinaryMathOpkitForward")
                    .Online(before)
                    .Online(places[(number - 3) % places.size()])
                    .Output(output)
                    .Attr(attr);
            } else if (i % 5 == 2) {
                BinaryMathAttr attr = {};
                attr.mathType = OPKIT_BINARY_ADD;
                builder.AddLayer("BinaryMathOpkitForward").Online(before).Offline(step).Output(output).Attr(attr);
            } else {
                builder.AddLayer(i % 5 == 0 ? "SigmoidOpkitForward" : "NegOpkitForward").Online(before).Output(output);
            }
            before = output;
        }
        if (t + 1 < kTables) {
            builder.NextSegment(t + 1);
        }
    }
    return builder.Build();
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: write_long_model DIRECTORY\n");
        return 2;
    }
    SaveModel(LongModel(), std::filesystem::path(argv[1]) / "long");
    return 0;
}
