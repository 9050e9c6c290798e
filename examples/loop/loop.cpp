// A loop that runs until it has converged: Newton's square root of every element of a tensor. Three layer tables, run
// by the segment runner and printed pass by pass.
//
// Succeeds only when every root agrees with sqrtf.

#include <fmt/format.h>
#include <CLI/CLI.hpp>
#include <cmath>
#include <exception>
#include <string>
#include <vector>

#include "modelkit/model_builder.h"
#include "modelkit/model_file.h"
#include "modelkit/request.h"
#include "modelkit/segment_runner.h"
#include "opkit/opkit.h"

using namespace opkit::modelkit;

namespace {

enum Segment : uint32_t { kHead = 1, kBody = 2, kAfter = 3 };
enum LayerIds : uint32_t { kNewtonStep = 100, kStepLength = 101 };  // the layers whose outputs are shown

const Shape kShape = {2, 3};
const std::vector<float> kNumbers = {2, 3, 0.25f, 144, 1e-3f, 65536};

// The loop goes on while the relative steps of all elements together are longer than this. Newton's method squares the
// error with each step, so the last one leaves 1e-10 and less, far below what f32 can hold.
constexpr float kStillMoving = 1e-5f;

// y + a / y rounds twice and the division's error counts half: 1.5 times 2^-24. sqrtf itself rounds by up to 2^-24.
// Relative to the root that is less than 2^-22.
constexpr float kTolerance = 0x1p-22f;

class NewtonBuilder {
public:
    Model Build(int64_t tripCount)
    {
        const TensorRef a = model_.AddInput({"a", kShape});
        const TensorRef root = model_.AddOutput({"root", kShape});
        const TensorRef square = model_.AddOutput({"square", kShape});
        const TensorRef y = model_.AddScratch({"y", kShape});
        const TensorRef result = model_.AddScratch({"result", kShape});
        const TensorRef bodyCondition = model_.AddScratch({"body condition", {1}});
        const TensorRef bodyValue = model_.AddScratch({"body value", kShape});

        // First pass: condition 1, and the numbers themselves as a first guess. Later passes: what the body left.
        LoopAttr loop = {};
        loop.condition = -1;
        loop.inputCursor = 1;
        loop.tripCount = tripCount;
        loop.carriedNum = 1;
        loop.exitSegId = kAfter;
        model_.BeginTable(kHead, "head");
        model_.AddLayer("LoopOpkitForward")
            .Offline({1}, {1})
            .Online(a)
            .Online(bodyCondition)
            .Online(bodyValue)
            .Output(model_.AddScratch({"condition", {1}}))
            .Output(y)
            .Output(result)
            .Attr(loop);
        model_.NextSegment(kBody);

        model_.BeginTable(kBody, "body");
        const TensorRef quotient = Math(OPKIT_BINARY_DIV, a, y);
        const TensorRef sum = Math(OPKIT_BINARY_ADD, y, quotient);
        const TensorRef next = Scratch(kShape);
        MathLayer(OPKIT_BINARY_MUL, next).Online(sum).Offline({1}, {0.5f}).LayerId(kNewtonStep);
        const TensorRef step = Math(OPKIT_BINARY_DIV, Math(OPKIT_BINARY_SUB, next, y), next);
        const TensorRef length = Scratch({1});
        ReductionAttr norm = {};
        norm.reductionType = OPKIT_REDUCE_L2;
        norm.reduceAll = 1;
        model_.AddLayer("ReductionOpkitForward")
            .Online(step)
            .Output(length)
            .Attr(norm)
            .Workspace(8 * static_cast<uint32_t>(kShape.size()))
            .LayerId(kStepLength);
        const TensorRef moving = Scratch({1});
        CmpAttr longer = {};
        longer.cmpType = OPKIT_CMP_GREATER;
        model_.AddLayer("CmpOpkitForward").Online(length).Offline({1}, {kStillMoving}).Output(moving).Attr(longer);
        CondEndAttr end = {};
        end.loopBranch = 1;
        end.tensorNum = 2;
        end.condValue = OPKIT_COND_FROM_INPUT;
        end.nextSegId = kHead;
        model_.AddLayer("CondEndOpkitForward")
            .Online(moving)
            .Online(next)
            .Output(bodyCondition)
            .Output(bodyValue)
            .Attr(end);

        model_.BeginTable(kAfter, "after");
        ReshapeAttr same = {};
        std::copy(kShape.begin(), kShape.end(), same.reshapeDims);
        same.reshapeDimCount = static_cast<uint32_t>(kShape.size());
        model_.AddLayer("ReshapeOpkitForward").Online(result).Output(root).Attr(same);
        MathLayer(OPKIT_BINARY_MUL, square).Online(result).Online(result);
        return model_.Build();
    }

private:
    TensorRef Scratch(const Shape& shape) { return model_.AddScratch({"", shape}); }
    LayerBuilder& MathLayer(uint32_t type, const TensorRef& result)
    {
        BinaryMathAttr attr = {};
        attr.mathType = type;
        return model_.AddLayer("BinaryMathOpkitForward").Output(result).Attr(attr);
    }
    TensorRef Math(uint32_t type, const TensorRef& a, const TensorRef& b)
    {
        const TensorRef result = Scratch(kShape);
        MathLayer(type, result).Online(a).Online(b);
        return result;
    }

    ModelBuilder model_;
};

void PrintPass(const SegmentPass& pass, const std::vector<float>& y, float step)
{
    const std::string left = pass.segId == kNoSegment ? "no jump" : fmt::format("segment {}", pass.segId);
    fmt::print("{:>6}  {} {:<6}  {}", pass.number, pass.table->segmentId, pass.table->name, left);
    if (pass.table->segmentId == kBody) {
        fmt::print("  {:>9.1e} {:>11.8g}", step, fmt::join(y, " "));
    }
    fmt::print("\n");
}

bool Agrees(const std::vector<float>& roots, const std::vector<float>& squares)
{
    bool good = true;
    fmt::print("\n            a         root  root squared        sqrtf  difference\n");
    for (size_t i = 0; i < kNumbers.size(); ++i) {
        const float expected = std::sqrt(kNumbers[i]);
        const float difference = std::fabs(roots[i] - expected) / expected;
        good = good && difference <= kTolerance;  // false for NaN
        fmt::print("  {:>11.8g}  {:>11.8g}  {:>12.8g}  {:>11.8g}  {:>10.1e}\n", kNumbers[i], roots[i], squares[i],
                   expected, difference);
    }
    return good;
}

int Run(int64_t tripCount, const std::string& save)
{
    const Model model = NewtonBuilder().Build(tripCount);
    if (!save.empty()) {
        SaveModel(model, save);
    }
    Request request(model);
    request.SetInput("a", kNumbers);

    // The request shows what two layers of the body computed; the runner, which table ran and what it left.
    std::vector<float> y(kNumbers.size());
    float step = 0;
    request.OnDump(
        [&](const DumpRecord& record) {
            const auto* const data = static_cast<const float*>(record.data);
            if (record.layerId == kStepLength) {
                step = data[0];
            } else {
                y.assign(data, data + kNumbers.size());
            }
        },
        {kNewtonStep, kStepLength});
    fmt::print("  pass  table     leaves      step       y = (y + a / y) / 2\n");
    const uint32_t passes = SegmentRunner(model)
                                .OnPass([&](const SegmentPass& pass) { PrintPass(pass, y, step); })
                                .Run(request, OpkitForward);
    const bool good = Agrees(request.GetOutput("root"), request.GetOutput("square"));
    fmt::print("\n{}: {} passes, relative difference from sqrtf {} {:.1e}\n", good ? "converged" : "FAILED", passes,
               good ? "at most" : "above", kTolerance);
    return good ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Square roots by Newton's method, in a loop of layer tables."};
    int64_t tripCount = 20;
    std::string save;
    app.add_option("--trip-count", tripCount, "most runs of the loop's body")->capture_default_str();
    app.add_option("--save", save, "also write the model as NAME.json and NAME.bin");
    CLI11_PARSE(app, argc, argv);
    try {
        return Run(tripCount, save);
    } catch (const std::exception& error) {
        fmt::print(stderr, "FAILED: {}\n", error.what());
        return 1;
    }
}
