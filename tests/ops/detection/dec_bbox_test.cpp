// DecBbox: decoding, clipping, both layouts, classes beyond the second, and the thread's state.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

#include "opkit/opkit.h"
#include "tests/reference/dec_bbox.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

constexpr const char* kName = "DecBboxOpkitForward";
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

void SetState(uint32_t counts)
{
    for (uint32_t& count : g_curBoxNum) {
        count = counts;
    }
    g_maxWidth = g_maxHeight = g_lowScoreThresh = g_nmsThresh = -1.0f;
}

std::vector<uint32_t> State()
{
    std::vector<uint32_t> state(g_curBoxNum, g_curBoxNum + 256);
    for (const float threshold : {g_maxWidth, g_maxHeight, g_lowScoreThresh, g_nmsThresh}) {
        uint32_t word = 0;
        std::memcpy(&word, &threshold, 4);
        state.push_back(word);
    }
    return state;
}

// A layer sees deltas and scores in the shape of one proposal's share: [N, 8] in memory, [8] in its record.
void DropFirstDimension(World& world, uint32_t input)
{
    const uint32_t base = world.ModelInfo().tables[0].layerTableOffset;
    auto* const records =
        reinterpret_cast<TensorRecord*>(world.ModelBytes().data() + base + world.Layer().inputTableOffset);
    records[input].shapeOffset += 4;
    records[input].shapeSize -= 4;
}

struct Decode {
    uint32_t n = 1;
    uint32_t classNum = 2;
    float count = 1;
    uint32_t hasClassId = 0;
    uint32_t clip = 0;
    uint32_t width = 100;
    uint32_t height = 50;
    uint32_t merge = 0;
    std::vector<float> deltas, scores, proposals;
    std::vector<float> thresholds = {0.5f, 0.25f, 3, 7};

    Shape OutShape() const
    {
        const uint32_t fields = hasClassId != 0 ? 6 : 5;
        const uint32_t spare = classNum == 1 ? 1 : 0;  // the second pass of a single class needs it
        return merge != 0 ? Shape{1, 1, fields + spare, n * classNum} : Shape{1, classNum + spare, fields, n};
    }

    // Everything online and compact.
    LayerCase Layer() const
    {
        LayerCase layer(kName);
        layer.Online({n, 8}, deltas).Online({static_cast<uint32_t>(scores.size())}, scores).Online({4}, thresholds);
        layer.Online({1}, {count}).Online({1, 1, 4, n}, proposals).Output(OutShape());
        SetAttr(layer);
        return layer;
    }

    void SetAttr(LayerCase& layer) const
    {
        DecBboxAttr& attr = layer.Attr<DecBboxAttr>();
        attr.classNum = classNum;
        attr.hasClassId = hasClassId;
        attr.clipBox = clip;
        attr.imageWidth = width;
        attr.imageHeight = height;
        attr.mergeClasses = merge;
    }
};

// Proposal edges 0 and 9 on both axes, shifted and scaled by nothing unless told.
Decode OneBox()
{
    Decode decode;
    decode.deltas = {0, 0, 0, 0, 0.5f, 0.25f, 0, 0};
    decode.scores = {0.75f, 0.5f};
    decode.proposals = {0, 0, 9, 9};
    return decode;
}

std::vector<float> RunOk(const LayerCase& layer)
{
    World world(layer);
    const RunResult run = RunCaptured(world, DecBboxOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "");
    return world.Output();
}

TEST(DecBbox, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        Decode decode;
        decode.n = static_cast<uint32_t>(random.Int(1, 20));
        decode.classNum = static_cast<uint32_t>(random.Int(1, 5));
        decode.hasClassId = random.OneOf({0u, 1u, 2u});
        decode.clip = random.OneOf({0u, 1u, 256u});
        decode.width = random.OneOf({0u, 1u, 20u, 1000u});
        decode.height = random.OneOf({1u, 15u, 300u});
        decode.merge = random.OneOf({0u, 1u, 2u});
        decode.count = static_cast<float>(random.Int(0, static_cast<int32_t>(decode.n)));
        const bool fraction = random.Chance(0.3) && decode.count > 0;
        if (fraction) {
            decode.count -= random.OneOf({0.5f, 0.25f, 0.001f});
        } else if (random.Chance(0.05)) {
            decode.count = decode.merge != 0 ? kNan : random.OneOf({kNan, -1.0f, -0.5f});
        }
        // A copy that ends inside a float would show the payload of a NaN, which is anything.
        const Values values = random.OneOf(
            {fraction ? Values::kPlain : Values::kMixed, Values::kPlain, Values::kPlain, Values::kIntegers});
        const auto add = [&](LayerCase& layer, const Shape& shape, const std::vector<float>& data) {
            if (random.Chance(0.3)) {
                layer.Offline(shape, data);
                return false;
            }
            layer.Online(shape, data, random.Stride(shape.back()));
            return true;
        };
        LayerCase layer(kName);
        const uint32_t n = decode.n;
        uint32_t online = 0;
        // The scores of one class reach one proposal further.
        for (const Shape& shape : {Shape{n, 8}, Shape{n + 1, decode.classNum}}) {
            if (add(layer, shape, random.Floats(ElementCount(shape), values))) {
                layer.Tamper([online](World& world) { DropFirstDimension(world, online); });
                ++online;
            }
        }
        add(layer, {4}, random.Floats(4, values));
        add(layer, {1, 1}, {decode.count});
        add(layer, {1, 1, 4, n}, random.Floats(size_t{4} * n, values));
        layer.Output(decode.OutShape(), random.Stride(decode.OutShape().back()));
        decode.SetAttr(layer);
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, DecBboxOpkitForward, RefDecBbox,
                              {.nan = NanPolicy::kAnyNan, .before = [] { SetState(77); }, .after = State});
    });
}

TEST(DecBbox, CentreAndSize)
{
    // Width 10, centre 5, half 5; the second class moves by half the width and a quarter of the height.
    EXPECT_THAT(RunOk(OneBox().Layer()), ElementsAre(0, 0, 10, 10, 0.75f, 5, 2.5f, 15, 12.5f, 0.5f));
    Decode scaled = OneBox();
    scaled.deltas = {0, 0, std::log(2.0f), std::log(0.5f), 0, 0, 0, 0};
    const std::vector<float> out = RunOk(scaled.Layer());
    EXPECT_NEAR(out[0], -5, 1e-5);
    EXPECT_NEAR(out[1], 2.5, 1e-5);
    EXPECT_NEAR(out[2], 15, 1e-5);
    EXPECT_NEAR(out[3], 7.5, 1e-5);
}

// The new size is rounded to f32 before it is halved, and the centre before it moves; both show in the low edge.
TEST(DecBbox, RoundsAtEachStep)
{
    Decode decode = OneBox();
    decode.proposals = {0.1f, 0.1f, 0.1f, 0.1f};
    decode.deltas = {0, 0, 0.3f, 0.3f, 0, 0, 0, 0};
    const double exact = std::exp(static_cast<double>(0.3f));
    volatile float size = static_cast<float>(exact);
    volatile float centre = static_cast<float>(static_cast<double>(0.1f) + 0.5);
    const double lo = static_cast<double>(centre) - 0.5 * static_cast<double>(size);
    ASSERT_NE(static_cast<float>(lo), static_cast<float>(static_cast<double>(centre) - 0.5 * exact));
    const double hi = static_cast<double>(centre) + 0.5 * static_cast<double>(size);
    const std::vector<float> out = RunOk(decode.Layer());
    EXPECT_THAT(
        std::vector<float>(out.begin(), out.begin() + 4),
        ElementsAre(static_cast<float>(lo), static_cast<float>(lo), static_cast<float>(hi), static_cast<float>(hi)));
}

TEST(DecBbox, ClassIds)
{
    Decode decode = OneBox();
    decode.hasClassId = 1;
    EXPECT_THAT(RunOk(decode.Layer()), ElementsAre(0, 0, 10, 10, 0.75f, 0, 5, 2.5f, 15, 12.5f, 0.5f, 1));
    decode.hasClassId = 2;  // the row is there, but cleared
    EXPECT_THAT(RunOk(decode.Layer()), ElementsAre(0, 0, 10, 10, 0.75f, 0, 5, 2.5f, 15, 12.5f, 0.5f, 0));
}

TEST(DecBbox, Clips)
{
    Decode decode = OneBox();
    decode.proposals = {-20, 40, 9, 70};
    decode.clip = 1;
    decode.width = 8;
    const std::vector<float> out = RunOk(decode.Layer());
    EXPECT_THAT(std::vector<float>(out.begin(), out.begin() + 4), ElementsAre(0, 40, 7, 49));
    decode.width = 0;  // wraps: no bound to speak of
    EXPECT_EQ(RunOk(decode.Layer())[2], 10);
}

TEST(DecBbox, NoProposals)
{
    Decode decode = OneBox();
    decode.count = 0;
    SetState(9);
    EXPECT_THAT(RunOk(decode.Layer()), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(g_curBoxNum[0], 0u);
    EXPECT_EQ(g_curBoxNum[1], 0u);
    EXPECT_EQ(g_curBoxNum[2], 9u);
}

// 2.5 proposals: three are decoded, two are counted, and copies move two and a half coordinates.
TEST(DecBbox, FractionOfAProposal)
{
    Decode decode;
    decode.n = 3;
    decode.classNum = 3;
    decode.count = 2.5f;
    decode.deltas.assign(24, 0.0f);
    decode.scores = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    decode.proposals = {0, 1, 2, 0, 1, 2, 9, 10, 1027, 9, 10, 1027};
    SetState(9);
    const std::vector<float> out = RunOk(decode.Layer());
    EXPECT_THAT(std::vector<float>(out.begin(), out.begin() + 15),
                ElementsAre(0, 1, 2, 0, 1, 2, 10, 11, 1028, 10, 11, 1028, 1, 4, 7));
    const std::vector<float> last(out.begin() + 30, out.end());
    float half = 0.0f;
    const float whole = 1028.0f;
    std::memcpy(&half, &whole, 2);  // the low half of 1028's word, 0x4480'8000
    EXPECT_THAT(last, ElementsAre(0, 1, 0, 0, 1, 0, 10, 11, half, 10, 11, half, 3, 6, 9));
    EXPECT_NE(half, 0.0f);
    EXPECT_EQ(g_curBoxNum[0], 2u);
    EXPECT_EQ(g_curBoxNum[2], 2u);
    EXPECT_EQ(g_curBoxNum[3], 9u);
}

// Scores are read at i + pass, and the second pass writes a block of its own.
TEST(DecBbox, SingleClassIsDecodedTwice)
{
    Decode decode = OneBox();
    decode.classNum = 1;
    EXPECT_THAT(RunOk(decode.Layer()), ElementsAre(0, 0, 10, 10, 0.75f, 5, 2.5f, 15, 12.5f, 0.5f));
}

// Rows of classNum * N; classes follow one another inside a row by the proposal count.
TEST(DecBbox, MergedClasses)
{
    Decode decode;
    decode.n = 2;
    decode.classNum = 3;
    decode.count = 2;
    decode.hasClassId = 1;
    decode.merge = 1;
    decode.deltas.assign(16, 0.0f);
    decode.scores = {1, 2, 3, 4, 5, 6};
    decode.proposals = {0, 1, 0, 1, 9, 10, 9, 10};
    SetState(9);
    EXPECT_THAT(RunOk(decode.Layer()),
                ElementsAre(0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 0, 1, 10, 11, 10, 11, 10, 11, 10, 11, 10, 11, 10, 11,  //
                            1, 4, 2, 5, 3, 6, 0, 0, 1, 1, 2, 2));
    EXPECT_EQ(g_curBoxNum[0], 6u);
    EXPECT_EQ(g_curBoxNum[1], 9u);
}

// With one of two proposals, class 2's boxes go to column 4, its score and id to column 2.
TEST(DecBbox, MergedClassesWithFewerProposals)
{
    Decode decode;
    decode.n = 2;
    decode.classNum = 3;
    decode.hasClassId = 1;
    decode.merge = 1;
    decode.deltas.assign(16, 0.0f);
    decode.scores = {1, 2, 3, 4, 5, 6};
    decode.proposals = {3, 1, 3, 1, 9, 10, 9, 10};
    EXPECT_THAT(RunOk(decode.Layer()),
                ElementsAre(3, 3, 0, 0, 3, 0, 3, 3, 0, 0, 3, 0, 10, 10, 0, 0, 10, 0, 10, 10, 0, 0, 10, 0,  //
                            1, 2, 3, 0, 2, 0, 0, 1, 2, 0, 0, 0));
    EXPECT_EQ(g_curBoxNum[0], 3u);
}

// Deltas and scores are compacted over N times the elements of their own shapes.
TEST(DecBbox, Compacting)
{
    Decode decode = OneBox();
    LayerCase layer(kName);
    layer.Online({1, 1, 2, 4}, {0, 0, 0, 0, 0.5f, 0.25f, 0, 0}, 32).Online({2, 1}, {0.75f, 0.5f}, 16);
    layer.Online({4, 1}, {0.5f, 0.25f, 3, 7}, 16).Online({1}, {1}, 16).Online({1, 1, 4, 1}, {0, 0, 9, 9}, 16);
    layer.Output(decode.OutShape(), 16);
    decode.SetAttr(layer);
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(0, 0, 10, 10, 0.75f, 5, 2.5f, 15, 12.5f, 0.5f));
    EXPECT_EQ(g_maxWidth, 7);
    EXPECT_THAT(std::vector<float>(world.InputRows(0).begin(), world.InputRows(0).begin() + 8),
                ElementsAre(0, 0, 0, 0, 0.5f, 0.25f, 0, 0));
    EXPECT_THAT(std::vector<float>(world.InputRows(4).begin(), world.InputRows(4).begin() + 4),
                ElementsAre(0, 0, 9, 9));
}

TEST(DecBbox, InitRpnSetsTheThread)
{
    float thresholds[] = {0.5f, 0.25f, 3, 7};
    float count[] = {2.75f};
    SetState(9);
    EXPECT_EQ(InitRpn(thresholds, count, 0, 256), 0u);
    EXPECT_EQ(g_nmsThresh, 0.5f);
    EXPECT_EQ(g_lowScoreThresh, 0.25f);
    EXPECT_EQ(g_maxHeight, 3);  // the third one is the height
    EXPECT_EQ(g_maxWidth, 7);
    EXPECT_EQ(g_curBoxNum[255], 2u);
    EXPECT_EQ(InitRpn(thresholds, count, 5, 257), 0u);  // merged: any number of classes
    EXPECT_EQ(g_curBoxNum[0], 706u);                    // 257 * 2.75 is 706.75
    EXPECT_EQ(g_curBoxNum[1], 2u);
    for (const uint32_t classNum : {0u, 257u, 0x80000000u}) {
        thresholds[0] = static_cast<float>(classNum & 0xFF) + 0.125f;
        CaptureStdout capture;
        EXPECT_EQ(InitRpn(thresholds, count, 0, classNum), 0xFFFFFFFFu);
        EXPECT_EQ(NormalizeMessages(capture.Stop()),
                  "[InitRpn:#]classNum(" + std::to_string(classNum) + ") must be in [1, 256]\n\n");
        EXPECT_EQ(g_nmsThresh, thresholds[0]);  // set all the same
        EXPECT_EQ(g_curBoxNum[0], 706u);
    }
    std::thread([] {
        EXPECT_EQ(g_curBoxNum[0], 0u);  // another thread starts with zeros
        EXPECT_EQ(g_nmsThresh, 0.0f);
        g_curBoxNum[0] = 5;
    }).join();
    EXPECT_EQ(g_curBoxNum[0], 706u);
}

TEST(DecBbox, ClipBoxBounds)
{
    float box[] = {-3, -0.0f, 200, kNan};
    EXPECT_EQ(ClipBox(box, 99, 49), 0u);
    EXPECT_THAT(box, ElementsAre(0, 0, 99, 49));
    EXPECT_FALSE(std::signbit(box[1]));
    float inside[] = {1, 2, 99, 49};
    EXPECT_EQ(ClipBox(inside, 99, 49), 0u);
    EXPECT_THAT(inside, ElementsAre(1, 2, 99, 49));
    EXPECT_EQ(ClipBox(nullptr, 99, 49), 0xFFFFFFFFu);
}

TEST(DecBbox, CopyNextClassInfoDirectly)
{
    std::vector<float> out(40, 9.0f);
    std::vector<float> scores = {1, 2, 3, 4, 5, 6, 7, 8};
    float count[] = {2};
    EXPECT_EQ(CopyNextClassInfo(out.data(), scores.data(), 2, 2, 0, 0, count), 0u);  // nothing below three classes
    EXPECT_EQ(out, std::vector<float>(40, 9.0f));
    for (int i = 10; i < 20; ++i) {
        out[i] = static_cast<float>(i);
    }
    EXPECT_EQ(CopyNextClassInfo(out.data(), scores.data(), 4, 2, 0, 0, count), 0u);
    EXPECT_THAT(std::vector<float>(out.begin() + 20, out.end()),
                ElementsAre(10, 11, 12, 13, 14, 15, 16, 17, 3, 7, 10, 11, 12, 13, 14, 15, 16, 17, 4, 8));
    count[0] = 0;  // a copy of no bytes fails
    EXPECT_EQ(CopyNextClassInfo(out.data(), scores.data(), 4, 2, 0, 0, count), 0xFFFFFFFFu);
    EXPECT_EQ(CopyNextClassInfo(out.data(), scores.data(), 4, 2, 1, 1, count), 0u);
    EXPECT_EQ(out[20], 10);
}

TEST(DecBbox, Failures)
{
    const auto messages = [](const LayerCase& layer) {
        World world(layer);
        const RunResult run = RunCaptured(world, DecBboxOpkitForward);
        EXPECT_EQ(run.result, OPKIT_FAILURE);
        return run.messages;
    };
    LayerCase missing(kName);
    missing.Online({1, 8}, std::vector<float>(8)).Output({1, 1, 5, 1});
    OneBox().SetAttr(missing);
    EXPECT_EQ(messages(missing), "[DecBboxOpkitForward:#]ParseInputInfo failed.\n\n");
    LayerCase noInputs(kName);
    noInputs.Output({1, 1, 5, 1});
    OneBox().SetAttr(noInputs);
    EXPECT_EQ(messages(noInputs), "[DecBboxOpkitForward:#]ParseInputInfo failed.\n\n");

    Decode many = OneBox();
    many.classNum = 257;
    LayerCase tooMany = OneBox().Layer();
    many.SetAttr(tooMany);
    EXPECT_EQ(messages(tooMany),
              "[InitRpn:#]classNum(257) must be in [1, 256]\n\n[DecBboxOpkitForward:#]init rpn falied.\n\n");

    for (uint32_t k = 0; k < 5; ++k) {
        LayerCase nullInput(kName);
        nullInput.Online({1, 8}, std::vector<float>(8), 48).Online({1, 2}, {1, 2}, 16).Online({1, 4}, {1, 2, 3, 4}, 32);
        nullInput.Online({1}, {1}, 16).Online({1, 1, 4, 1}, {0, 0, 9, 9}, 16).Output({1, 2, 5, 1});
        OneBox().SetAttr(nullInput);
        nullInput.Tamper([k](World& w) { w.Param().inputs[k].data = nullptr; });
        EXPECT_EQ(messages(nullInput),
                  "[DelAlignSpace:#]Input data is NULL.\n\n[DecBboxOpkitForward:#]DelAlignSpace failed.\n\n");
    }

    LayerCase nullOutput = OneBox().Layer();
    nullOutput.Tamper([](World& w) { w.Param().outputs[0].data = nullptr; });
    EXPECT_EQ(messages(nullOutput), "[DecBboxOpkitForward:#]init outputdata failed!\n");

    Decode none = OneBox();
    none.count = 0;
    LayerCase noWidth(kName);
    noWidth.Online({1, 8}, none.deltas).Online({2}, none.scores).Online({4}, none.thresholds).Online({1}, {0});
    noWidth.Online({1, 1, 4, 1}, none.proposals).Output({2, 0});
    none.SetAttr(noWidth);
    EXPECT_EQ(messages(noWidth), "[DecBboxOpkitForward:#]widthOut can't be zero.\n\n");
}

// Inputs 2 to 4 are compacted one by one, 0 and 1 only after the last is resolved.
TEST(DecBbox, LateFailureLeavesEarlierInputsCompacted)
{
    LayerCase layer(kName);
    layer.Online({2, 1, 8}, std::vector<float>(16, 1.0f), 48).Online({2, 2}, {1, 2, 3, 4}, 16);
    layer.Online({2, 2}, {1, 2, 3, 4}, 16).Output({1, 2, 5, 1});
    OneBox().SetAttr(layer);
    World world(layer);
    EXPECT_EQ(RunCaptured(world, DecBboxOpkitForward).messages, "[DecBboxOpkitForward:#]ParseInputInfo failed.\n\n");
    EXPECT_THAT(world.Input(1), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(std::vector<float>(world.InputRows(2).begin(), world.InputRows(2).begin() + 4),
                ElementsAre(1, 2, 3, 4));
}

}  // namespace
}  // namespace opkit
