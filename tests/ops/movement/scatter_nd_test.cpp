#include "tests/ops/movement/movement_cases.h"
#include "tests/reference/scatter.h"

namespace opkit::test {
namespace {

using reference::RefScatterND;
using ::testing::ElementsAre;

LayerCase ScatterND(uint32_t workspace = 256)
{
    LayerCase layer("ScatterNDOpkitForward");
    layer.Workspace(workspace);
    return layer;
}

void ExpectRefused(const Shape& data, const Shape& indices, const Shape& updates, const std::string& messages)
{
    LayerCase layer = ScatterND();
    layer.Online(data, {}, 16).Online(indices, {}, 16).Online(updates, {}, 16).Output({4}, 16);
    ExpectRun(layer, ScatterNDOpkitForward, ~0u, messages);
}

TEST(ScatterND, SlicesAndDuplicates)
{
    LayerCase layer = ScatterND();
    layer.Online({3, 3}, Iota(9), 16).Online({3, 1}, {2, -3, 2.9f}, 16).Online({3, 3}, Iota(9, 10), 16);
    layer.Output({3, 3}, 16);
    World world(layer);
    EXPECT_EQ(world.RunDirect(ScatterNDOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(13, 14, 15, 3, 4, 5, 16, 17, 18)) << "the later update wins";
    EXPECT_THAT(world.Input(), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8)) << "nothing is compacted";
}

TEST(ScatterND, FullTuplesStepOverTheUpdatesGaps)
{
    LayerCase layer = ScatterND();
    layer.Online({2, 3}, Iota(6), 16).Online({2, 2, 2}, {0, 0, 1, 2, 0, 1, -1, -2}, 16);
    layer.Online({2, 2}, {10, 11, 12, 13}, 16).Output({2, 3}, 16);
    EXPECT_THAT(RunOutput(layer, ScatterNDOpkitForward), ElementsAre(10, 12, 2, 3, 13, 11));
}

TEST(ScatterND, OneTuple)
{
    LayerCase slice = ScatterND();
    slice.Online({2, 2}, Iota(4)).Online({1}, {1}).Online({2}, {7, 8}).Output({2, 2});
    EXPECT_THAT(RunOutput(slice, ScatterNDOpkitForward), ElementsAre(0, 1, 7, 8));
    LayerCase element = ScatterND();
    element.Online({2, 2}, Iota(4)).Online({2}, {1, -1.5f}).Online({}, {7}).Output({2, 2});
    EXPECT_THAT(RunOutput(element, ScatterNDOpkitForward), ElementsAre(0, 1, 7, 3));
}

TEST(ScatterND, WiderOutputRowsAreExpandedFirst)
{
    LayerCase layer = ScatterND();
    layer.Online({2, 2}, Iota(4)).Online({1, 1}, {1}).Online({1, 2}, {7, 8}).Output({2, 2}, 16);
    EXPECT_THAT(RunOutput(layer, ScatterNDOpkitForward), ElementsAre(0, 1, 7, 8));
}

TEST(ScatterND, AdjustsInFloatAndTruncates)
{
    LayerCase layer = ScatterND();
    layer.Online({4}, {0, 0, 0, 0}).Online({1, 1}, {-1.5f}).Online({1}, {5}).Output({4});
    EXPECT_THAT(RunOutput(layer, ScatterNDOpkitForward), ElementsAre(0, 0, 5, 0));
}

TEST(ScatterND, RefusedIndicesLeaveThePlainCopy)
{
    const auto run = [](float index, const std::string& shown) {
        LayerCase layer = ScatterND();
        layer.Online({2, 4}, Iota(8)).Online({2, 2}, {0, 1, 1, index}).Online({2}, {50, 60}).Output({2, 4});
        World world(layer);
        const RunResult result = RunCaptured(world, ScatterNDOpkitForward);
        EXPECT_EQ(result.result, ~0u);
        EXPECT_EQ(result.messages,
                  "[ScatterNDGetElementOffsets:#]Indice out of range: indiceVal=" + shown + ", dim=1, shape=4\n\n");
        EXPECT_THAT(world.Output(), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7));
    };
    run(4, "4.000000");
    run(-5, "-1.000000");
    run(-1e-9f, "4.000000");
    run(kInf, "inf");
}

// NaN passes both comparisons; its offset is the lowest number times the pitch.
TEST(ScatterND, NanIndex)
{
    LayerCase outside = ScatterND();
    outside.Online({3}, Iota(3)).Online({1, 1}, {kNan}).Online({1}, {7}).Output({3});
    World world(outside);
    EXPECT_EQ(RunCaptured(world, ScatterNDOpkitForward).messages,
              "[ScatterNDOpkitForwardInner:#]ScatterND slice at offset -2147483648 leaves the output.\n\n");
    EXPECT_THAT(world.Output(), ElementsAre(0, 1, 2));
    LayerCase inside = ScatterND();
    inside.Online({2, 2}, Iota(4)).Online({1, 1}, {kNan}).Online({1, 2}, {7, 8}).Output({2, 2});
    EXPECT_THAT(RunOutput(inside, ScatterNDOpkitForward), ElementsAre(7, 8, 2, 3));
}

TEST(ScatterND, Messages)
{
    const std::string check = "[ScatterNDOpkitCheck:#]";
    for (int32_t given = 0; given < 3; ++given) {
        LayerCase missing = ScatterND();
        for (int32_t i = 0; i < given; ++i) {
            missing.Online({2}, {0, 1});
        }
        missing.Output({2});
        ExpectRun(missing, ScatterNDOpkitForward, ~0u, "[ScatterNDOpkitForward:#]ParseInputInfo failed.\n\n");
    }
    const std::string rank = check + "data tensor and indices tensor must has rank larger than 0. ";
    ExpectRefused({}, {1, 1}, {1}, rank + "dataDimNum: 0, indicesDimNum: 2\n\n");
    ExpectRefused({2}, {}, {1}, rank + "dataDimNum: 1, indicesDimNum: 0\n\n");
    ExpectRefused({2, 2}, {1, 3}, {1},
                  check +
                      "last dimension of indices must not be larger than rank of data tensor. lastIndiceDimension: "
                      "3, dataDimNum: 2\n\n");
    ExpectRefused({2, 2}, {1, 1}, {1, 2, 1},
                  check +
                      "the rank of the update tensor should be: dataDimNum + indicesDimNum - 1 - "
                      "lastIndiceDimension.\n\n");
    ExpectRefused({2, 2}, {2, 1}, {3, 2},
                  check +
                      "The shape of the update tensor upto (indiceRank - 1) should match the shape of the indices "
                      "tensor upto (indiceRank - 1)).\n\n");
    ExpectRefused({2, 2}, {2, 1}, {2, 3},
                  check +
                      "The shape of the update tensor after (indiceRank - 1) should match the shape of the input "
                      "tensor after lastIndiceDimension.\n\n");

    LayerCase space = ScatterND(15);
    space.Online({2, 2}, Iota(4)).Online({2, 1}, {0, 1}).Online({2, 2}, Iota(4)).Output({2, 2});
    ExpectRun(space, ScatterNDOpkitForward, ~0u, "[ScatterNDOpkitForwardInner:#]opkitBuf.size[15] < required[16]\n");
    LayerCase enough = ScatterND(16);
    enough.Online({2, 2}, Iota(4)).Online({2, 1}, {0, 1}).Online({2, 2}, Iota(4)).Output({2, 2});
    ExpectRun(enough, ScatterNDOpkitForward, 0, "");

    LayerCase small = ScatterND();
    small.Online({2, 2}, Iota(4)).Online({1, 1}, {0}).Online({1, 2}, {7, 8}).Output({3});
    ExpectRun(small, ScatterNDOpkitForward, ~0u,
              "[ScatterNDOpkitForwardInner:#]memcpy_s for dataOut failed, ret = 162\n");
    LayerCase null = ScatterND();
    null.Online({2, 2}, Iota(4)).Online({1, 1}, {0}).Online({1, 2}, {7, 8}).Output({2, 2}).Tamper(NoOutputData);
    ExpectRun(null, ScatterNDOpkitForward, ~0u,
              "[ScatterNDOpkitForwardInner:#]memcpy_s for dataOut failed, ret = 22\n");
    LayerCase empty = ScatterND();
    empty.Online({0, 2}, {}).Online({1, 1}, {0}).Online({1, 2}, {7, 8}).Output({0, 2});
    ExpectRun(empty, ScatterNDOpkitForward, ~0u,
              "[ScatterNDOpkitForwardInner:#]memcpy_s for dataOut failed, ret = 34\n");
    LayerCase expand = ScatterND();
    expand.Online({2, 2}, Iota(4)).Online({1, 1}, {0}).Online({1, 2}, {7, 8}).Output({2, 2}, 16);
    World world(expand);
    const auto noShape = [](LayerParam* param) {
        param->outputs[0].shape = nullptr;
        param->outputs[0].dimNum = 0;
        return ScatterNDOpkitForward(param);
    };
    const RunResult run = RunCaptured(world, noShape);
    EXPECT_EQ(run.result, ~0u);
    EXPECT_EQ(run.messages, "");
}

// A slice has the updates' padding. Longer than the output it clears it; behind its start it may not leave it.
TEST(ScatterND, SlicesLongerThanTheOutputsRows)
{
    LayerCase cleared = ScatterND();
    cleared.Online({1, 3}, {1, 2, 3}).Online({1}, {0}).Online({3}, {7, 8, 9}, 16).Output({1, 3});
    World world(cleared);
    EXPECT_EQ(RunCaptured(world, ScatterNDOpkitForward).messages,
              "[ScatterNDOpkitForwardInner:#]memcpy_s failed at offset 0, ret = 162\n");
    EXPECT_THAT(world.Output(), ElementsAre(0, 0, 0));

    LayerCase leaves = ScatterND();
    leaves.Online({2, 3}, Iota(6)).Online({2, 1}, {0, 1}).Online({2, 3}, Iota(6, 10), 16).Output({2, 3});
    World rows(leaves);
    EXPECT_EQ(RunCaptured(rows, ScatterNDOpkitForward).messages,
              "[ScatterNDOpkitForwardInner:#]ScatterND slice at offset 3 leaves the output.\n\n");
    EXPECT_THAT(rows.OutputRows().first(3), ElementsAre(10, 11, 12)) << "what was written stays";
    ExpectSameAsReference(leaves, ScatterNDOpkitForward, RefScatterND);
}

// The rows bound a slice, not the memory that the output has behind them.
TEST(ScatterND, MemoryBehindTheRowsIsNotTheOutputs)
{
    LayerCase layer = ScatterND();
    layer.Online({2, 3}, Iota(6)).Online({2, 1}, {0, 1}).Online({2, 3}, Iota(6, 10), 16);
    CaseTensor output;
    output.shape = {3, 3};
    output.data = Iota(9, 70);
    layer.Output(output);
    layer.Tamper([](World& world) {  // the shape ends one row before the memory does
        const uint32_t table = world.ModelInfo().tables[0].layerTableOffset;
        std::byte* const model = world.ModelBytes().data() + table;
        const auto* const record = reinterpret_cast<TensorRecord*>(model + world.Layer().outputTableOffset);
        *reinterpret_cast<uint32_t*>(model + record->shapeOffset) = 2;
    });
    World world(layer);
    EXPECT_EQ(RunCaptured(world, ScatterNDOpkitForward).messages,
              "[ScatterNDOpkitForwardInner:#]ScatterND slice at offset 3 leaves the output.\n\n");
    EXPECT_EQ(world.Output()[6], 76) << "nothing behind the rows is written";
    ExpectSameAsReference(layer, ScatterNDOpkitForward, RefScatterND);
}

TEST(ScatterND, SingleUpdatesThatCannotBeCopied)
{
    const auto withoutUpdates = [](float column) {
        LayerCase layer = ScatterND();
        layer.Online({2, 2}, Iota(4, 1)).Online({1, 2}, {0, column}).Online({1}, {7}).Output({2, 2});
        return layer.Tamper([](World& world) { world.Param().inputs[2].data = nullptr; });
    };
    World first(withoutUpdates(0));
    EXPECT_EQ(RunCaptured(first, ScatterNDOpkitForward).messages,
              "[ScatterNDOpkitForwardInner:#]memcpy_s failed at offset 0, ret = 150\n");
    EXPECT_THAT(first.Output(), ElementsAre(0, 0, 0, 0)) << "cleared";
    World second(withoutUpdates(1));  // from there on, as much would reach behind the output
    EXPECT_EQ(RunCaptured(second, ScatterNDOpkitForward).messages,
              "[ScatterNDOpkitForwardInner:#]ScatterND slice at offset 1 leaves the output.\n\n");
    EXPECT_THAT(second.Output(), ElementsAre(1, 2, 3, 4));

    LayerCase narrow = ScatterND();  // a NaN passes for an index of the empty axis
    narrow.Online({0, 2}, {}).Online({1, 2}, {kNan, 0}).Online({1}, {7}).Output({1, 2});
    World small(narrow);
    const auto twoBytes = [](LayerParam* param) {
        param->outputs[0].size = 2;
        return ScatterNDOpkitForward(param);
    };
    EXPECT_EQ(RunCaptured(small, twoBytes).messages,
              "[ScatterNDOpkitForwardInner:#]memcpy_s failed at offset 0, ret = 162\n");
}

// Only the next to last axis steps by the output's alignment; one axis has none.
TEST(ScatterND, OneAxisWithoutAlignment)
{
    LayerCase layer = ScatterND();
    layer.Online({4}, Iota(4)).Online({2, 1}, {3, 0}).Online({2}, {7, 8}).Output({4}).Tamper(NoOutputStride);
    EXPECT_THAT(RunOutput(layer, ScatterNDOpkitForward), ElementsAre(8, 1, 2, 7));
}

TEST(ScatterND, EmptySlicesWriteNothing)
{
    CaseTensor output;
    output.shape = {2, 2};
    output.data = Iota(4);
    LayerCase layer = ScatterND();
    layer.Online({2, 0, 3}, {}, 16).Online({1, 1}, {1}).Online({1, 0, 3}, {}, 16).Output(output);
    EXPECT_THAT(RunOutput(layer, ScatterNDOpkitForward), ElementsAre(0, 1, 2, 3));
    ExpectSameAsReference(layer, ScatterNDOpkitForward, RefScatterND);
}

TEST(ScatterND, NoTuplesCopy)
{
    LayerCase layer = ScatterND();
    layer.Online({2, 2}, Iota(4)).Online({0, 1}, {}).Online({0, 2}, {}).Output({2, 2});
    EXPECT_THAT(RunOutput(layer, ScatterNDOpkitForward), ElementsAre(0, 1, 2, 3));
}

TEST(ScatterND, SameAsReference)
{
    ForRandomCases(600, [](Random& random) {
        const Shape data = random.Shape(1, 5, 900);
        const int32_t rank = static_cast<int32_t>(data.size());
        const int32_t length = random.Int(0, rank);
        const Shape tuples = random.Chance(0.1) ? Shape{} : random.Shape(1, 2, 12);
        Shape indices = tuples;
        indices.push_back(static_cast<uint32_t>(length));
        Shape updates = tuples;
        updates.insert(updates.end(), data.begin() + length, data.end());
        std::vector<float> values(modelkit::ElementCount(indices));
        const bool wild = random.Chance(0.1);
        for (size_t i = 0; i < values.size(); ++i) {
            const int32_t extent = static_cast<int32_t>(data[i % static_cast<size_t>(length)]);
            values[i] = static_cast<float>(random.Int(-4 * extent, 4 * extent - 1)) * 0.25f;
            if (wild && random.Chance(0.1)) {
                values[i] = random.Float(Values::kMixed);
            }
        }
        const bool matching = random.Chance(0.6);  // one stride everywhere, as a model compiler lays it out
        const uint32_t stride = random.Stride(data.back());
        LayerCase layer = ScatterND(4 * static_cast<uint32_t>(modelkit::ElementCount(tuples) + data.size()));
        layer.Online(data, random.Floats(modelkit::ElementCount(data), Values::kBits),
                     matching ? stride : random.Stride(data.back()));
        if (values.empty()) {
            layer.Online(indices, {}, 16);
        } else {
            AddInput(layer, random, indices, values);
        }
        if (updates.empty()) {
            layer.Online(updates, random.Floats(1, Values::kBits));
        } else {
            const bool same = matching && length < rank;
            layer.Online(updates, random.Floats(modelkit::ElementCount(updates), Values::kBits),
                         same ? stride : random.Stride(updates.back()));
        }
        layer.Output(data, matching ? stride : random.Stride(data.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, ScatterNDOpkitForward, RefScatterND);
    });
}

}  // namespace
}  // namespace opkit::test
