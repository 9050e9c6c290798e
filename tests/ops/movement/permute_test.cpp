#include <algorithm>
#include <numeric>

#include "tests/ops/movement/movement_cases.h"
#include "tests/reference/permute.h"

namespace opkit::test {
namespace {

using reference::RefPermute;
using ::testing::ElementsAre;

LayerCase Permute(const std::vector<uint32_t>& perm)
{
    LayerCase layer("PermuteOpkitForward");
    auto& attr = layer.Attr<PermuteAttr>();
    const auto rank = static_cast<uint32_t>(perm.size());
    attr.permDimCount = attr.permOutDimCount = attr.permLength = rank;
    std::copy(perm.begin(), perm.end(), attr.perm);
    layer.Workspace(8 * rank);
    return layer;
}

TEST(Permute, Transposes)
{
    LayerCase layer = Permute({1, 0});
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({3, 2}, 16);
    World world(layer);
    EXPECT_EQ(world.RunDirect(PermuteOpkitForward), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(1, 4, 2, 5, 3, 6));
    EXPECT_THAT(world.Input(), ElementsAre(1, 2, 3, 4, 5, 6)) << "the input stays padded";

    LayerCase deep = Permute({2, 0, 1});
    deep.Offline({2, 2, 3}, Iota(12)).Output({3, 2, 2}, 16);
    EXPECT_THAT(RunOutput(deep, PermuteOpkitForward), ElementsAre(0, 3, 6, 9, 1, 4, 7, 10, 2, 5, 8, 11));
}

TEST(Permute, IdentityGoesFromPaddingToPadding)
{
    LayerCase layer = Permute({0, 1});
    layer.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).Output({2, 3}, 32);
    EXPECT_THAT(RunOutput(layer, PermuteOpkitForward), ElementsAre(1, 2, 3, 4, 5, 6));
    LayerCase inPlace = Permute({0, 1});
    inPlace.Online({2, 3}, {1, 2, 3, 4, 5, 6}, 16).OutputInPlace(0, {2, 3});
    EXPECT_THAT(RunOutput(inPlace, PermuteOpkitForward), ElementsAre(1, 2, 3, 4, 5, 6));
    ExpectSameAsReference(inPlace, PermuteOpkitForward, RefPermute);
}

TEST(Permute, CountsAreCheckedSilently)
{
    const auto run = [](auto change, uint32_t result) {
        LayerCase layer = Permute({1, 0});
        layer.Online({2, 3}, Iota(6)).Output({3, 2}, 16);
        change(layer.Attr<PermuteAttr>());
        ExpectRun(layer, PermuteOpkitForward, result, "");
    };
    run([](PermuteAttr& attr) { attr.permLength = 3; }, ~0u);
    run([](PermuteAttr& attr) { attr.permLength = 1; }, 0);
    run([](PermuteAttr& attr) { attr.permLength = 0; }, 0);
    run([](PermuteAttr& attr) { attr.permOutDimCount = 1; }, ~0u);
    run([](PermuteAttr& attr) { attr.permOutDimCount = 3; }, ~0u);
    run([](PermuteAttr& attr) { attr.permDimCount = 3; }, ~0u);
}

TEST(Permute, Messages)
{
    LayerCase missing = Permute({0});
    missing.Output({3});
    ExpectRun(missing, PermuteOpkitForward, ~0u, "[PermuteOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase width = Permute({0, 1});
    width.Online({2, 0}, {}, 16).Output({2, 0}, 16);
    ExpectRun(width, PermuteOpkitForward, ~0u, "[PermuteOpkitForward:#]widthOut can't be zero.\n\n");
    LayerCase output = Permute({0, 1});
    output.Online({0, 2}, {}).Output({0, 2}).Tamper(NoOutputData);
    ExpectRun(output, PermuteOpkitForward, ~0u,
              kNullInsertAlign + "[PermuteOpkitForward:#]InsertAlignSpace failed.\n\n");
    LayerCase outside = Permute({0, 0});
    outside.Online({2, 3}, Iota(6)).Output({1, 6});
    ExpectRun(outside, PermuteOpkitForward, ~0u, "[PermuteOpkitForward:#]perm leads outside the tensor.\n\n");
}

TEST(Permute, SameAsReference)
{
    ForRandomCases(500, [](Random& random) {
        const Shape in = random.Shape(1, 5, 6000);
        std::vector<uint32_t> perm(in.size());
        std::iota(perm.begin(), perm.end(), 0u);
        for (size_t i = perm.size(); i > 1; --i) {
            std::swap(perm[i - 1], perm[static_cast<size_t>(random.Int(0, static_cast<int32_t>(i) - 1))]);
        }
        Shape out;
        for (const uint32_t axis : perm) {
            out.push_back(in[axis]);
        }
        LayerCase layer = Permute(perm);
        AddInput(layer, random, in, Values::kBits);
        layer.Output(out, random.Stride(out.back())).Batch(RandomBatch(random));
        ExpectSameAsReference(layer, PermuteOpkitForward, RefPermute);
    });
}

// Shapes and perm that do not belong together still follow the index arithmetic.
TEST(Permute, SameAsReferenceForContradictoryShapes)
{
    ForRandomCases(300, [](Random& random) {
        const Shape in = random.Shape(1, 4, 200);
        const auto rank = static_cast<int32_t>(in.size());
        Shape out = in;
        std::reverse(out.begin(), out.end());
        if (random.Chance(0.3)) {
            out.insert(out.begin() + random.Int(0, rank), static_cast<uint32_t>(random.Int(1, 2)));
        }
        out.front() *= 2;
        std::vector<uint32_t> perm;
        for (int32_t d = 0; d < rank; ++d) {
            perm.push_back(static_cast<uint32_t>(random.Int(0, random.Chance(0.2) ? 2 * rank - 1 : rank - 1)));
        }
        LayerCase layer = Permute(perm);
        AddInput(layer, random, in, Values::kBits);
        layer.Output(out, random.Stride(out.back()));
        ExpectSameAsReference(layer, PermuteOpkitForward, RefPermute);
    });
}

TEST(Permute, LargePlane)
{
    LayerCase layer = Permute({0, 2, 1});
    const Shape in = {2, 67, 131};
    Random random(TestSeed());
    layer.Online(in, random.Floats(modelkit::ElementCount(in), Values::kBits), 132 * 4).Output({2, 131, 67}, 68 * 4);
    ExpectSameAsReference(layer, PermuteOpkitForward, RefPermute);
}

const std::string kPermLeadsOutside = "[PermuteOpkitForward:#]perm leads outside the tensor.\n\n";

// 65537 * 65536 elements wrap to a count of one row, and no more than that moves.
TEST(Permute, CountsBeyond32Bits)
{
    constexpr uint32_t kWidth = 65536;
    LayerCase layer = Permute({0, 1});
    layer.Online({1, kWidth}, Iota(kWidth)).Output({1, kWidth});
    World world(layer);
    const auto manyRows = [](LayerParam* param) {
        uint32_t shape[] = {kWidth + 1, kWidth};
        param->inputs[0].shape = param->outputs[0].shape = shape;
        return PermuteOpkitForward(param);
    };
    EXPECT_EQ(world.RunDirect(manyRows), 0u);
    const auto rows = world.OutputRows().first(kWidth);
    EXPECT_EQ(std::vector<float>(rows.begin(), rows.end()), Iota(kWidth));
}

TEST(Permute, OutputsThatAreTooSmall)
{
    LayerCase row = Permute({0, 1});
    row.Online({2, 3}, {1, 2, 3, 4, 5, 6}).Output({1, 3});
    World world(row);
    const RunResult run = RunCaptured(world, PermuteOpkitForward);
    EXPECT_EQ(run.result, ~0u);
    EXPECT_EQ(run.messages, kPermLeadsOutside);
    EXPECT_THAT(world.Output(), ElementsAre(1, 2, 3)) << "what was written stays";
    LayerCase nothing = Permute({0});
    nothing.Online({1}, {1}).Output(Shape{});
    ExpectRun(nothing, PermuteOpkitForward, ~0u, kPermLeadsOutside);
}

// An entry behind both arrays of pitches, and more axes than perm has entries.
TEST(Permute, EntriesAndRanksBeyondTheLast)
{
    LayerCase entry = Permute({0, 4});
    entry.Online({2, 3}, Iota(6)).Output({2, 3});
    ExpectRun(entry, PermuteOpkitForward, ~0u, kPermLeadsOutside);
    LayerCase rank = Permute({0, 1, 2, 3, 4, 5, 6, 7, 8, 9});
    rank.Online(Shape(11, 1), {5}).Output(Shape(11, 1));
    rank.Attr<PermuteAttr>().permDimCount = rank.Attr<PermuteAttr>().permOutDimCount = 11;
    ExpectRun(rank, PermuteOpkitForward, ~0u, "");
}

}  // namespace
}  // namespace opkit::test
