// Celu, Selu, Shrink, HardSigmoid, ThresholdedRelu and Sinh.

#include "tests/reference/activations.h"
#include "opkit/attributes/elementwise.h"
#include "tests/ops/elementwise/elementwise_cases.h"
#include "tests/support/overlap.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

enum class Rows { kStepping, kExpanding, kCompacting };  // Sinh is the one that compacts

struct Row {
    const char* name;
    ForwardFunc forward;
    ForwardFunc reference;
    Rows rows;
};

const Row kRows[] = {
    {"CeluOpkitForward", CeluOpkitForward, RefCelu, Rows::kStepping},
    {"ThresholdedReluOpkitForward", ThresholdedReluOpkitForward, RefThresholdedRelu, Rows::kStepping},
    {"SeluOpkitForward", SeluOpkitForward, RefSelu, Rows::kExpanding},
    {"ShrinkOpkitForward", ShrinkOpkitForward, RefShrink, Rows::kExpanding},
    {"HardSigmoidOpkitForward", HardSigmoidOpkitForward, RefHardSigmoid, Rows::kExpanding},
    {"SinhOpkitForward", SinhOpkitForward, RefSinh, Rows::kCompacting},
};

// SeluAttr: two floats, of which the operators with one attribute read the first, and Sinh none.
LayerCase Case(const char* name, float first = 1.0f, float second = 2.0f)
{
    LayerCase layer(name);
    layer.Attr<SeluAttr>().alpha = first;
    layer.Attr<SeluAttr>().gamma = second;
    return layer;
}

struct ElementRow {
    const char* name;
    float first;
    float second;
    float x;
    float result;
};

TEST(Activations, Elements)
{
    const float narrow = 1.1f * 1.1f;  // rounds before the sum takes it
    const ElementRow rows[] = {
        {"Celu", 1, 0, -1, static_cast<float>(std::exp(-1.0) - 1.0)},
        {"Celu", 1, 0, 2, 2},
        {"Celu", 1, 0, kNan, 0},
        {"Celu", 1, 0, -0.0f, 0},
        {"Celu", 1, 0, kInf, kInf},
        {"Celu", 2, 0, -kInf, -2},
        {"Celu", -1, 0, 2, 2},
        {"Celu", -1, 0, -1, static_cast<float>(-(std::exp(1.0) - 1.0))},
        {"Celu", 3, 0, -1, static_cast<float>((std::exp(static_cast<double>(-1.0f / 3.0f)) - 1.0) * 3.0)},
        {"Celu", kNan, 0, -1, 0},
        {"Celu", kInf, 0, kInf, kInf},
        {"Selu", 1, 2, 0, static_cast<float>(std::exp(-1.0) * 2.0)},
        {"Selu", 1, 2, 1, 2},
        {"Selu", 1, 2, -0.0f, static_cast<float>(std::exp(-1.0) * 2.0)},
        {"Selu", 1, 2, -kInf, 0},
        {"Selu", 1, 2, kNan, kNan},
        {"Selu", -3, 2, -1, static_cast<float>(std::exp(2.0) * -3.0 * 2.0)},
        {"Shrink", 0.25f, 0.5f, -1, -0.75f},
        {"Shrink", 0.25f, 0.5f, 1, 0.75f},
        {"Shrink", 0.25f, 0.5f, 0.5f, 0},
        {"Shrink", 0.25f, 0.5f, -0.5f, 0},
        {"Shrink", 0.25f, 0.5f, -0.0f, 0},
        {"Shrink", 0.25f, 0.5f, kNan, 0},
        {"Shrink", 0.25f, -1, 0, 0.25f},  // both tests hold: the first wins
        {"Shrink", 0.25f, kNan, 7, 0},
        {"HardSigmoid", 0.2f, 0.5f, 0, 0.5f},
        {"HardSigmoid", 0.2f, 0.5f, 10, 1},
        {"HardSigmoid", 0.2f, 0.5f, -10, 0},
        {"HardSigmoid", 0.2f, 0.5f, kNan, kNan},
        {"HardSigmoid", 0.2f, 0.5f, kInf, 1},
        {"HardSigmoid", 1, 0, -0.0f, 0},
        {"HardSigmoid", 1, -0.0f, -0.0f, -0.0f},
        {"HardSigmoid", 1.1f, -1.21f, 1.1f, narrow - 1.21f},
        {"ThresholdedRelu", 1, 0, 1, 0},
        {"ThresholdedRelu", 1, 0, 1.5f, 1.5f},
        {"ThresholdedRelu", -1, 0, -0.0f, -0.0f},
        {"ThresholdedRelu", -1, 0, -2, 0},
        {"ThresholdedRelu", 1, 0, kNan, 0},
        {"ThresholdedRelu", kNan, 0, 5, 0},
        {"Sinh", 0, 0, 1, static_cast<float>(std::sinh(1.0))},
        {"Sinh", 0, 0, -0.0f, -0.0f},
        {"Sinh", 0, 0, 90, kInf},
        {"Sinh", 0, 0, kNan, kNan},
    };
    ForEachLevel([&](Level) {
        for (const ElementRow& row : rows) {
            SCOPED_TRACE(testing::Message() << row.name << "(" << row.first << ", " << row.second << "): " << row.x);
            const std::string name = std::string(row.name) + "OpkitForward";
            LayerCase layer = Case(name.c_str(), row.first, row.second);
            layer.Online({19}, std::vector<float>(19, row.x)).Output({19});
            EXPECT_EQ(Bits(RunCase(layer)), Bits(std::vector<float>(19, row.result)));
        }
    });
}

float Parameter(Random& random)
{
    const float value = random.Float(random.Chance(0.3) ? Values::kMixed : Values::kPlain);
    return std::fabs(value) < 1e-30f ? 1.0f : value;  // Celu refuses zero
}

void AddInput(Random& random, LayerCase& layer, const Shape& shape)
{
    const std::vector<float> data = random.Floats(ElementCount(shape), Values::kMixed);
    if (random.Chance(0.25)) {
        layer.Offline(shape, data);
    } else {
        layer.Online(shape, data, random.Chance(0.1) ? 16 : random.Stride(shape.back()));
    }
}

TEST(Activations, OutputOverlapsTheInput)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        ForRandomCases(30, [&](Random& random) {
            const Shape shape = random.Shape(1, 4, 300);
            LayerCase layer = Case(row.name, 1.5f, 0.75f);
            AddOverlapping(layer, random, shape, random.Floats(ElementCount(shape), Values::kPlain));
            ExpectSameAsReference(layer, row.forward, row.reference, {.nan = NanPolicy::kAnyNan});
        });
    }
}

TEST(Activations, SameAsReference)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        ForRandomCases(100, [&](Random& random) {
            const Shape shape = random.Shape(1, 5, 1500);
            LayerCase layer = Case(row.name, Parameter(random), Parameter(random));
            AddInput(random, layer, shape);
            // An expanding operator takes any output of as many elements.
            const bool flat = row.rows != Rows::kStepping && random.Chance(0.1);
            const Shape outShape = flat ? Shape{static_cast<uint32_t>(ElementCount(shape))} : shape;
            layer.Output(outShape, random.Chance(0.1) ? 16 : random.Stride(outShape.back()));
            layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
            ExpectSameAsReference(layer, row.forward, row.reference, {.nan = NanPolicy::kAnyNan});
        });
    }
}

TEST(Activations, OutputIsAnInput)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        ForRandomCases(25, [&](Random& random) {
            const Shape shape = random.Shape(1, 3, 1500);
            LayerCase layer = Case(row.name, Parameter(random), Parameter(random));
            layer.Online(shape, random.Floats(ElementCount(shape), Values::kMixed), random.Stride(shape.back()));
            layer.OutputInPlace(0, shape);
            ExpectSameAsReference(layer, row.forward, row.reference, {.nan = NanPolicy::kAnyNan});
        });
    }
}

// Padded input and output of two rows of three: who compacts, and who writes the gap.
TEST(Activations, TreatmentOfRows)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        LayerCase layer = Case(row.name);
        CaseTensor out;
        out.shape = {2, 3};
        out.strideBytes = 16;
        out.raw.assign(8, 0x12345678);
        layer.Online({2, 3}, {11, 12, 13, 14, 15, 16}, 16).Output(out);
        World world(layer);
        ASSERT_EQ(world.RunRequest(), 0u);
        const bool gapWritten = std::bit_cast<uint32_t>(world.OutputRows()[3]) != 0x12345678;
        EXPECT_EQ(gapWritten, row.rows != Rows::kStepping);
        EXPECT_EQ(std::bit_cast<uint32_t>(world.OutputRows()[7]), 0x12345678u);
        EXPECT_EQ(world.InputRows()[3] == 14.0f, row.rows == Rows::kCompacting);
    }
}

// What a layer record locates in the model buffer.
template <class T>
T& At(World& world, uint32_t offset)
{
    std::byte* const base = world.ModelBytes().data() + world.ModelInfo().tables[0].layerTableOffset;
    return *reinterpret_cast<T*>(base + offset);
}

TEST(Activations, DifferentDimensions)
{
    const auto layer = [](const char* name, Shape in, Shape out) {
        LayerCase made = Case(name);
        made.Online(in, std::vector<float>(ElementCount(in), 1.0f)).Output(out);
        return made;
    };
    for (const Row& row : kRows) {
        if (row.rows != Rows::kStepping) {
            continue;
        }
        const std::string name = row.name;
        ExpectUntouchedFailure(layer(row.name, {2, 3}, {6}), row.forward, "[" + name + ":#]Invalid dim:2, 1\n\n");
        ExpectUntouchedFailure(layer(row.name, {2, 3}, {2, 4}), row.forward,
                               "[" + name + ":#]Invalid shape:1, 4, 3\n\n");
        LayerCase scalar = layer(row.name, {1}, {1});
        scalar.Tamper([](World& world) { At<TensorRecord>(world, world.Layer().inputTableOffset).shapeSize = 0; });
        ExpectUntouchedFailure(scalar, row.forward, "[" + name + ":#]Invalid dim:0, 1\n\n");
        LayerCase huge = layer(row.name, {1, 2}, {1, 2});
        huge.Tamper([](World& world) {
            const TensorRecord& record = At<TensorRecord>(world, world.Layer().outputTableOffset);
            At<uint32_t>(world, record.shapeOffset) = 0xFFFFFFFFu;
        });
        ExpectUntouchedFailure(
            huge, row.forward,
            "[" + name + ":#]Invalid shape:0, " + (name[0] == 'C' ? "-1" : "4294967295") + ", 1\n\n");
    }
}

TEST(Activations, CeluRefusesZeroAlpha)
{
    for (const float alpha : {0.0f, -0.0f, 1e-40f, -1e-40f}) {
        LayerCase layer = Case("CeluOpkitForward", alpha);
        layer.Online({2}, {1, 2}).Output({2});
        ExpectUntouchedFailure(layer, CeluOpkitForward, "[CeluOpkitForward:#]alpha is zero! \n\n");
    }
    LayerCase small = Case("CeluOpkitForward", 1e-7f);
    small.Online({2}, {1, -2}).Output({2});
    EXPECT_EQ(RunCase(small), (std::vector<float>{1.0f, -1e-7f}));
}

TEST(Activations, Unresolved)
{
    for (const Row& row : kRows) {
        if (row.rows != Rows::kCompacting) {
            const std::string name = row.name;
            ExpectUnresolved(row.name, row.forward,
                             row.rows == Rows::kStepping ? "" : "[" + name + ":#]ParseInputInfo failed.\n\n");
        }
    }
}

TEST(Activations, EmptyOutputs)
{
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        const std::string name = row.name;
        LayerCase empty = Case(row.name);
        empty.Online({0, 2}, {}).Output({0, 2});
        ExpectRun(empty, row.forward, 0, "");
        if (row.rows != Rows::kExpanding) {
            continue;
        }
        empty.Tamper([](World& world) { world.Param().inputs[0].stride = 0; });  // no pitch is computed
        ExpectRun(empty, row.forward, 0, "");
        LayerCase narrow = Case(row.name);
        narrow.Online({0, 2}, {}).Output({2, 0});
        ExpectUntouchedFailure(narrow, row.forward, "[" + name + ":#]widthOut can't be zero.\n\n");
        LayerCase null = Case(row.name);
        null.Online({0, 2}, {}).Output({0, 2}).Tamper([](World& world) { world.Param().outputs[0].data = nullptr; });
        ExpectUntouchedFailure(
            null, row.forward,
            "[InsertAlignSpace:#]Input data is NULL.\n\n[" + name + ":#]InsertAlignSpace failed.\n\n");
    }
}

}  // namespace
}  // namespace opkit
