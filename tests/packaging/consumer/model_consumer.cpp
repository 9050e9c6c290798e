// Writes, saves, loads and runs a model with the installed modelkit.
#include <modelkit/model_builder.h>
#include <modelkit/model_file.h>
#include <modelkit/request.h>
#include <opkit/opkit.h>
#include <cstdio>

using namespace opkit::modelkit;

int main()
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}, 16});
    BinaryMathAttr add = {};
    add.mathType = OPKIT_BINARY_ADD;
    builder.AddLayer("BinaryMathOpkitForward").Online(x).Offline({3}, {1, 2, 3}).Output(y).Attr(add);
    SaveModel(builder.Build(), "sum");

    const Model model = LoadModel("sum");
    Request request(model);
    const float values[] = {10, 20, 30, 40, 50, 60};
    request.SetInput("x", values);
    if (request.Run(OpkitForward) != 0) {
        return 1;
    }
    std::printf("modelkit");
    for (const float value : request.GetOutput("y")) {
        std::printf(" %g", static_cast<double>(value));
    }
    std::printf("\n");
    return 0;
}
