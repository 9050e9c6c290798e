// A model that calls operators of one's own: SampleClamp and SampleRowSoftmax of custom_library.c, which the dynamic
// loader has to find as libtvr_opkit_custom_x86.so.
//
// Succeeds only when the result agrees with the same two steps in f64.

#include <fmt/core.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "modelkit/model_builder.h"
#include "modelkit/model_file.h"
#include "modelkit/request.h"
#include "opkit/opkit.h"

using namespace opkit::modelkit;

namespace {

constexpr float kLimits[2] = {-2, 3};
constexpr float kTemperature = 0.5f;
const Shape kShape = {3, 5};
const std::vector<float> kInput = {0, 0, 0, 0, 0, 1, 2, 3, 4, 100, -100, -2, -1.5f, -1, 0.25f};

// A probability is at most 1. expf, four additions and a division round by a few 2^-24, its argument, below 10, by one.
constexpr double kTolerance = 2e-6;

CustomAttr Call(const std::string& function)
{
    CustomAttr attr = {};
    attr.totalInputNum = 1;
    function.copy(attr.funcName, sizeof(attr.funcName) - 1);
    return attr;
}

Model CustomModel(const std::string& first)
{
    ModelBuilder model;
    const TensorRef x = model.AddInput({"x", kShape, 32});  // rows of 5 padded to 8 floats
    const TensorRef y = model.AddOutput({"y", kShape});
    const TensorRef clamped = model.AddScratch({"clamped", kShape, 24});

    // The sized form says how long the parameters are in front of them; they may be of any length.
    CustomAttr clamp = Call(first);
    clamp.params.sized.sizedSize = sizeof(kLimits) + sizeof(clamp.params.sized.marker);
    clamp.params.sized.marker = OPKIT_CUSTOM_SIZED_MARKER;
    std::memcpy(clamp.params.sized.params, kLimits, sizeof(kLimits));
    model.AddLayer("CustomOpkitForward").Online(x).Output(clamped).Attr(clamp);

    // The fixed form has room for 80 bytes; their number stands behind them.
    CustomAttr softmax = Call("SampleRowSoftmax");
    std::memcpy(softmax.params.fixed, &kTemperature, sizeof(kTemperature));
    softmax.fixedSize = sizeof(kTemperature);
    model.AddLayer("CustomOpkitForward").Online(clamped).Output(y).Attr(softmax);
    return model.Build();
}

std::vector<double> Expected()
{
    std::vector<double> y;
    for (size_t row = 0; row < kShape[0]; ++row) {
        double sum = 0;
        for (size_t i = 0; i < kShape[1]; ++i) {
            const double x = std::clamp(kInput[row * kShape[1] + i], kLimits[0], kLimits[1]);
            y.push_back(std::exp(x / kTemperature));
            sum += y.back();
        }
        std::for_each(y.end() - kShape[1], y.end(), [sum](double& value) { value /= sum; });
    }
    return y;
}

bool Compare(const std::vector<float>& y)
{
    const std::vector<double> expected = Expected();
    bool good = true;
    double largest = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        const double difference = std::fabs(y[i] - expected[i]);
        good = good && difference <= kTolerance;  // false for NaN
        largest = std::max(largest, difference);
        fmt::print("{:>10.7f}{}", y[i], (i + 1) % kShape[1] == 0 ? "\n" : "");
    }
    fmt::print("\n{}: largest difference from f64 {:.1e}, allowed {:.0e}\n", good ? "as expected" : "FAILED", largest,
               kTolerance);
    return good;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Clamps a matrix and takes the softmax of its rows, with two operators of a custom library."};
    std::string clamp = "SampleClamp";
    std::string save;
    app.add_option("--clamp", clamp, "the function that the first layer calls")->capture_default_str();
    app.add_option("--save", save, "also write the model as NAME.json and NAME.bin");
    CLI11_PARSE(app, argc, argv);
    try {
        const Model model = CustomModel(clamp);
        if (!save.empty()) {
            SaveModel(model, save);
        }
        Request request(model);
        request.SetInput("x", kInput);
        if (request.Run(OpkitForward) != 0) {
            throw std::runtime_error("the request failed; is the custom library's directory in LD_LIBRARY_PATH?");
        }
        return Compare(request.GetOutput("y")) ? 0 : 1;
    } catch (const std::exception& error) {
        fmt::print(stderr, "FAILED: {}\n", error.what());
        return 1;
    }
}
