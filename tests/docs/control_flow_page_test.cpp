// The loop that docs/control-flow.md walks through, run: every row of its table stands there as it happened.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "modelkit/model_builder.h"
#include "modelkit/model_reader.h"
#include "modelkit/request.h"
#include "modelkit/segment_runner.h"
#include "opkit/opkit.h"

namespace {

using namespace opkit::modelkit;

class ControlFlowPage : public testing::Test {
protected:
    Model Doubling()
    {
        ModelBuilder model;
        const Shape one = {1};
        const TensorRef first = model.AddInput({"one", one});
        const TensorRef start = model.AddInput({"start", one});
        const TensorRef y = model.AddOutput({"y", one});
        x_ = model.AddScratch({"x", one});
        next_ = model.AddScratch({"next", one});
        result_ = model.AddScratch({"result", one});
        const TensorRef on = model.AddScratch({"on", one});
        const TensorRef sum = model.AddScratch({"sum", one});

        LoopAttr loop = {};
        loop.condition = -1;
        loop.inputCursor = 1;
        loop.tripCount = 3;
        loop.carriedNum = 1;
        loop.exitSegId = 3;
        model.BeginTable(1, "head");
        LayerBuilder& head = model.AddLayer("LoopOpkitForward").Online(first).Online(start).Online(on).Online(next_);
        head.Output(model.AddScratch({"condition", one})).Output(x_).Output(result_).Attr(loop);
        model.NextSegment(2);
        model.BeginTable(2, "body");
        BinaryMathAttr add = {};
        add.mathType = OPKIT_BINARY_ADD;
        model.AddLayer("BinaryMathOpkitForward").Online(x_).Online(x_).Output(sum).Attr(add);
        CondEndAttr end = {};
        end.loopBranch = 1;
        end.tensorNum = 2;
        end.condValue = OPKIT_COND_FROM_INPUT;
        end.nextSegId = 1;
        model.AddLayer("CondEndOpkitForward").Online(first).Online(sum).Output(on).Output(next_).Attr(end);
        model.BeginTable(3, "after");
        model.AddLayer("NegOpkitForward").Online(result_).Output(y);
        return model.Build();
    }

    static std::string Value(Request& request, const TensorRef& scratch)
    {
        std::ostringstream text;
        text << *reinterpret_cast<const float*>(static_cast<const char*>(request.Param().opkitBuf) + scratch.memIndex);
        return text.str();
    }

    TensorRef x_, next_, result_;
};

TEST_F(ControlFlowPage, TheLoopGoesAsTheTableSays)
{
    std::ifstream stream(std::string(OPKIT_SOURCE_DIR) + "/docs/control-flow.md");
    const std::string page{std::istreambuf_iterator<char>(stream), {}};
    const Model model = Doubling();
    const uint32_t block = ReadLayerTable(model, 0).layers[0].attrOffset;
    Request request(model);
    request.SetInput("one", std::vector<float>{1});
    request.SetInput("start", std::vector<float>{1});
    const auto check = [&](const SegmentPass& pass) {
        const auto& loop = *reinterpret_cast<const LoopAttr*>(request.ModelBytes().data() + block);
        const int32_t state[] = {loop.iteration, static_cast<int32_t>(loop.inputCursor), loop.condition};
        std::string row = "\n| " + std::to_string(pass.number) + " | " + std::to_string(pass.table->segmentId) + " " +
                          pass.table->name;
        for (const int32_t value : state) {
            row += " | " + std::to_string(value);
        }
        for (const TensorRef& tensor : {x_, next_, result_}) {
            row += " | " + Value(request, tensor);
        }
        row += pass.segId == kNoSegment ? " | no jump | " : " | segment " + std::to_string(pass.segId) + " | ";
        EXPECT_NE(page.find(row), std::string::npos) << row;
    };
    EXPECT_EQ(SegmentRunner(model).OnPass(check).Run(request, OpkitForward), 8u);
    EXPECT_EQ(request.GetOutput("y")[0], -8.0f);
    EXPECT_EQ(page.find("\n| 8 | "), std::string::npos);
}

}  // namespace
