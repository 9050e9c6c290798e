// MaxUnpool: positions inside the plane, truncation, the last of several, failures.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/max_unpool.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::Each;
using ::testing::ElementsAre;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

LayerCase Unpool(const Shape& in, const std::vector<float>& x, const std::vector<float>& indices, const Shape& out)
{
    LayerCase layer("MaxUnpoolOpkitForward");
    layer.Online(in, x, (in.back() + 3) / 4 * 16).Online(in, indices, (in.back() + 1) * 4).Output(out, 32);
    layer.Attr<LayerAttrHead>();
    return layer;
}

TEST(MaxUnpool, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        const Shape in = random.Shape(1, 5, 600);
        Shape out = in;
        out.back() += static_cast<uint32_t>(random.Int(0, 9));
        if (out.size() > 1) {
            out[out.size() - 2] *= static_cast<uint32_t>(random.Int(1, 3));
        }
        const uint32_t plane = out.back() * (out.size() > 1 ? out[out.size() - 2] : 1);
        std::vector<float> indices;
        for (uint64_t i = 0; i < ElementCount(in); ++i) {
            const bool wild = random.Chance(0.0005);
            indices.push_back(wild ? random.Float(Values::kMixed)
                                   : static_cast<float>(random.Int(0, static_cast<int32_t>(plane) - 1)) +
                                         0.75f * static_cast<float>(random.Int(0, 1)));
        }
        LayerCase layer("MaxUnpoolOpkitForward");
        const std::vector<float> x = random.Floats(ElementCount(in), Values::kBits);
        if (random.Chance(0.25)) {
            layer.Offline(in, x);
        } else {
            layer.Online(in, x, random.Stride(in.back()));
        }
        if (random.Chance(0.25)) {
            layer.Offline(in, indices);
        } else {
            layer.Online(in, indices, random.Stride(in.back()));
        }
        if (random.Chance(0.2)) {
            layer.Online({2}, {1, 2});  // a third input is ignored
        }
        layer.Output(out, random.Stride(out.back())).Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, MaxUnpoolOpkitForward, RefMaxUnpool);
    });
}

TEST(MaxUnpool, PositionsCountInsideThePlane)
{
    World world(Unpool({2, 1, 2}, {1, 2, 3, 4}, {5, 0, 3.9f, 3}, {2, 2, 3}));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(2, 0, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0));  // 3.9 is 3, where the last wins
    EXPECT_THAT(world.Input(0), ElementsAre(1, 2, 3, 4));                          // nothing is compacted
}

TEST(MaxUnpool, NegativeFractionIsZero)
{
    World world(Unpool({1, 1}, {7}, {-0.9f}, {1, 2}));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(7, 0));
}

// 2^32 wraps to 0: only the low half of the 64-bit position counts.
TEST(MaxUnpool, HugePositionWraps)
{
    World world(Unpool({1, 1}, {7}, {4294967296.0f}, {1, 2}));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(7, 0));
    // NaN and what exceeds 64 bits have a low half of 0 as well.
    for (const float position : {kNan, 1e30f}) {
        World odd(Unpool({1, 1}, {7}, {position}, {1, 2}));
        ASSERT_EQ(odd.RunRequest(), 0u);
        EXPECT_THAT(odd.Output(), ElementsAre(7, 0));
    }
}

TEST(MaxUnpool, Failures)
{
    const auto messages = [](const LayerCase& layer) {
        World world(layer);
        const RunResult run = RunCaptured(world, MaxUnpoolOpkitForward);
        EXPECT_EQ(run.result, OPKIT_FAILURE);
        return run.messages;
    };
    const std::string range = "[MaxUnpoolOpkitForward:#]Maximum index out-of-range.\n\n";
    EXPECT_EQ(messages(Unpool({1, 1}, {7}, {-1.0f}, {1, 2})), range);
    EXPECT_EQ(messages(Unpool({1, 1}, {7}, {2.0f}, {1, 2})), range);
    EXPECT_EQ(messages(Unpool({1, 1}, {7}, {0.0f}, {0, 2})), range);  // an empty plane holds no position

    // What was written stays, compactly.
    World world(Unpool({1, 3}, {7, 8, 9}, {1, 4, 0}, {1, 2}));
    EXPECT_EQ(RunCaptured(world, MaxUnpoolOpkitForward).messages, range);
    EXPECT_THAT(std::vector<float>(world.OutputRows().begin(), world.OutputRows().begin() + 2), ElementsAre(0, 7));

    EXPECT_EQ(messages(Unpool({0, 2}, {}, {}, {2, 0})), "[MaxUnpoolOpkitForward:#]widthOut can't be zero.\n\n");

    LayerCase one("MaxUnpoolOpkitForward");
    one.Online({1, 1}, {7}).Output({1, 2});
    EXPECT_EQ(messages(one), "[MaxUnpoolOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase none("MaxUnpoolOpkitForward");
    none.Output({1, 2});
    EXPECT_EQ(messages(none), "[MaxUnpoolOpkitForward:#]ParseInputInfo failed.\n\n");

    LayerCase nullOutput = Unpool({0, 2}, {}, {}, {0, 2});
    nullOutput.Tamper([](World& w) { w.Param().outputs[0].data = nullptr; });
    EXPECT_EQ(messages(nullOutput),
              "[InsertAlignSpace:#]Input data is NULL.\n\n[MaxUnpoolOpkitForward:#]InsertAlignSpace failed.\n\n");
}

// Constants without elements have a stride of 0, which nothing divides by.
TEST(MaxUnpool, EmptyConstantsClearTheOutput)
{
    for (const Shape& in : {Shape{0, 1, 2, 0}, Shape{1, 0, 2, 0}, Shape{1, 1, 0, 0}, Shape{1, 1, 2, 0}}) {
        LayerCase layer("MaxUnpoolOpkitForward");
        layer.Offline(in, {}).Offline(in, {}).Output({2, 1, 4, 4}, 16);
        layer.Attr<LayerAttrHead>();
        World world(layer);
        EXPECT_EQ(world.RunDirect(MaxUnpoolOpkitForward), 0u);
        EXPECT_THAT(world.Output(), Each(0.0f));
        ExpectSameAsReference(layer, MaxUnpoolOpkitForward, RefMaxUnpool);
    }
}

TEST(MaxUnpool, NoInputClearsTheOutput)
{
    World world(Unpool({0, 2}, {}, {}, {2, 2}));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(0, 0, 0, 0));
}

}  // namespace
}  // namespace opkit
