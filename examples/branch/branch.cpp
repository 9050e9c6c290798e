// A conditional whose two paths lie in layer tables of their own: a leveller for blocks of samples. A block whose peak
// is above 1 is scaled down to a peak of 1, any other is doubled.
//
// Runs one block of either sort and succeeds only when both come out as expected, each by its own path.

#include <fmt/core.h>
#include <CLI/CLI.hpp>
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

enum Segment : uint32_t { kDecide = 0, kLoud = 1, kQuiet = 2, kJoin = 3 };

struct Block {
    std::string name;
    std::vector<float> samples;
    std::vector<float> expected;  // by hand; powers of two, so exact
    std::vector<uint32_t> path;
};

const std::vector<Block> kBlocks = {
    {"loud",
     {0.5f, -1, 2, 4, 3, -0.25f, -2, 0},
     {0.125f, -0.25f, 0.5f, 1, 0.75f, -0.0625f, -0.5f, 0},
     {kDecide, kLoud, kJoin}},
    {"quiet",
     {0.125f, -0.25f, 0.375f, 0.5f, 0.25f, 0, -0.125f, -0.5f},
     {0.25f, -0.5f, 0.75f, 1, 0.5f, 0, -0.25f, -1},
     {kDecide, kQuiet, kJoin}},
};

Model LevellerModel(float limit)
{
    ModelBuilder model;
    const Shape shape = {8};
    const TensorRef x = model.AddInput({"x", shape});
    const TensorRef y = model.AddOutput({"y", shape});
    const TensorRef peak = model.AddScratch({"peak", {1}});
    const TensorRef condition = model.AddScratch({"condition", {1}});
    const TensorRef scaled = model.AddScratch({"scaled", shape});
    const TensorRef entered = model.AddScratch({"entered", shape});
    // One half of CondEnd's inputs for each path. Which half it takes is fixed in the model, so both lie in one place.
    const TensorRef fromLoud = model.AddScratch({"from the loud path", shape});
    const TensorRef& fromQuiet = fromLoud;

    // Leaves the segment of one path; the runner acts on it.
    model.BeginTable(kDecide, "decide");
    ReductionAttr reduction = {};
    reduction.reductionType = OPKIT_REDUCE_MAX;
    reduction.reduceAll = 1;
    model.AddLayer("ReductionOpkitForward").Online(x).Output(peak).Attr(reduction).Workspace(8);
    IfAttr above = {};
    above.cmpType = OPKIT_IF_GREATER;
    above.hasSecondOperand = 1;
    above.thenSegId = kLoud;
    above.elseSegId = kQuiet;
    model.AddLayer("IfOpkitForward").Online(peak).Offline({1}, {limit}).Output(condition).Attr(above);

    // The then path ends with a jump behind the else path.
    model.BeginTable(kLoud, "loud");
    BinaryMathAttr math = {};
    math.mathType = OPKIT_BINARY_DIV;
    model.AddLayer("BinaryMathOpkitForward").Online(x).Online(peak).Output(scaled).Attr(math);
    ThenEndAttr thenEnd = {};
    thenEnd.tensorNum = 1;
    thenEnd.nextSegId = kJoin;
    model.AddLayer("ThenEndOpkitForward").Online(scaled).Output(fromLoud).Attr(thenEnd);

    // The else path asks for no jump, so the table has a successor.
    model.BeginTable(kQuiet, "quiet");
    ElseBeginAttr elseBegin = {};
    elseBegin.tensorNum = 1;
    model.AddLayer("ElseBeginOpkitForward").Online(x).Output(entered).Attr(elseBegin);
    math.mathType = OPKIT_BINARY_ADD;
    model.AddLayer("BinaryMathOpkitForward").Online(entered).Online(entered).Output(fromQuiet).Attr(math);
    model.NextSegment(kJoin);

    // Asks for no jump and has no successor: the run ends.
    model.BeginTable(kJoin, "join");
    CondEndAttr condEnd = {};
    condEnd.ifBranch = 1;
    model.AddLayer("CondEndOpkitForward").Online(fromLoud).Online(fromQuiet).Output(y).Attr(condEnd);
    return model.Build();
}

std::string Text(const std::vector<float>& values)
{
    std::string text;
    for (const float value : values) {
        text += fmt::format(" {:>8}", value);
    }
    return text;
}

bool RunBlock(const Model& model, const Block& block)
{
    Request request(model);
    request.SetInput("x", block.samples);
    std::vector<uint32_t> path;
    fmt::print("{}\n  x    {}\n", block.name, Text(block.samples));
    const auto print = [&](const SegmentPass& pass) {
        path.push_back(pass.table->segmentId);
        fmt::print("  pass {}: segment {}, {}, leaves {}\n", pass.number, pass.table->segmentId, pass.table->name,
                   pass.segId == kNoSegment ? "no jump" : fmt::format("segment {}", pass.segId));
    };
    SegmentRunner(model).OnPass(print).Run(request, OpkitForward);
    const std::vector<float> y = request.GetOutput("y");
    fmt::print("  y    {}\n\n", Text(y));
    if (y != block.expected || path != block.path) {
        fmt::print("FAILED: expected {} by another path or with other values\n", Text(block.expected));
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Levels two blocks of samples, each by its own path of a conditional."};
    float limit = 1;
    std::string save;
    app.add_option("--limit", limit, "peak above which a block counts as loud")->capture_default_str();
    app.add_option("--save", save, "also write the model as NAME.json and NAME.bin");
    CLI11_PARSE(app, argc, argv);
    try {
        const Model model = LevellerModel(limit);
        if (!save.empty()) {
            SaveModel(model, save);
        }
        bool good = true;
        for (const Block& block : kBlocks) {
            good = RunBlock(model, block) && good;
        }
        return good ? 0 : 1;
    } catch (const std::exception& error) {
        fmt::print(stderr, "FAILED: {}\n", error.what());
        return 1;
    }
}
