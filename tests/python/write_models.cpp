// Writes small models for the tests of the Python module into the directory given.

#include <filesystem>

#include "modelkit/model_file.h"
#include "tests/modelkit/segment_models.h"

using namespace opkit::modelkit;

namespace {

// y = -(x + 10) by way of scratch with a slice per item, for at most 4 items; rows of 3 are padded to 4 and 8 floats.
Model Batched()
{
    ModelBuilder builder(4);
    const TensorRef x = builder.AddInput({"x", {1, 2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}, 32});
    const TensorRef sum = builder.AddScratch({"sum", {2, 3}, 16}, true);
    BinaryMathAttr add = {};
    add.mathType = OPKIT_BINARY_ADD;
    const ConstantRef ten = builder.AddConstant("ten", {1}, {10});
    builder.AddLayer("BinaryMathOpkitForward").Online(x.As({2, 3})).Offline(ten).Output(sum).Attr(add);
    builder.AddLayer("NegOpkitForward").Online(sum).Output(y);
    return builder.Build();
}

// Two layers share an id, and the second fails: its output has no room for the dimensions of its input.
Model Failing()
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2}});
    const TensorRef y = builder.AddOutput({"y", {2}});
    const TensorRef between = builder.AddScratch({"between", {2}});
    builder.AddLayer("NegOpkitForward").Online(x).Output(between).LayerId(7);
    builder.AddLayer("CeluOpkitForward").Online(between).Output(y.As({1, 2})).Attr(CeluAttr{}).LayerId(7);
    return builder.Build();
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        return 2;
    }
    const std::filesystem::path folder = argv[1];
    SaveModel(opkit::test::NegateInALoop(3), folder / "loop");
    SaveModel(opkit::test::Branching(), folder / "branch");
    SaveModel(Batched(), folder / "batched");
    SaveModel(Failing(), folder / "failing");
    return 0;
}
