// DetectionOutput: the three stages, both layouts, counts and dumps, the exported steps, and whole chains of layers.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

#include "opkit/opkit.h"
#include "tests/reference/dec_bbox.h"
#include "tests/reference/detection_output.h"
#include "tests/support/alloc_fault.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::Each;
using ::testing::ElementsAre;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

void SetCounts(const std::vector<uint32_t>& counts)
{
    for (size_t c = 0; c < 256; ++c) {
        g_curBoxNum[c] = c < counts.size() ? counts[c] : 7;
    }
}

void SetThresholds(float nms, float score, float height, float width)
{
    g_nmsThresh = nms;
    g_lowScoreThresh = score;
    g_maxHeight = height;
    g_maxWidth = width;
}

std::vector<uint32_t> Counts(size_t n)
{
    return std::vector<uint32_t>(g_curBoxNum, g_curBoxNum + n);
}

DetBox Box(float x1, float y1, float x2, float y2, float score = 0, int32_t classId = 0)
{
    return {x1, y1, x2, y2, score, classId, 0};
}

std::vector<float> Scores(const std::vector<DetBox>& boxes)
{
    std::vector<float> scores;
    for (const DetBox& box : boxes) {
        scores.push_back(box.score);
    }
    return scores;
}

// Boxes of the given scores; x1 tells them apart.
std::vector<DetBox> BoxesOf(const std::vector<float>& scores)
{
    std::vector<DetBox> boxes;
    for (const float score : scores) {
        boxes.push_back(Box(static_cast<float>(boxes.size()), 0, 0, 0, score));
    }
    return boxes;
}

bool SameBoxes(const std::vector<DetBox>& a, const std::vector<DetBox>& b)
{
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(DetBox)) == 0;
}

struct Stage {
    uint32_t stage = OPKIT_STAGE_SORT;
    uint32_t classNum = 1;
    uint32_t hasClassId = 0;
    uint32_t capacity = 4;
    uint32_t maxBoxNum = 100;
    uint32_t pack = 0;
    uint32_t writeCount = 0;
    uint32_t outW = 4;
    bool dump = false;

    DetectionOutputAttr Attr() const
    {
        DetectionOutputAttr attr = {};
        attr.classNum = classNum;
        attr.hasClassId = hasClassId;
        attr.stage = stage;
        attr.classCapacity = capacity;
        attr.maxBoxNum = maxBoxNum;
        attr.packOutput = pack;
        attr.writeCount = writeCount;
        return attr;
    }

    uint32_t Fields() const { return hasClassId != 0 ? 6 : 5; }
    Shape InShape() const { return {1, classNum, Fields(), capacity}; }
    Shape OutShape() const { return {1, classNum, Fields(), outW}; }

    LayerCase Layer(const std::vector<float>& in) const
    {
        CaseTensor out;
        out.shape = OutShape();
        out.data.assign(ElementCount(OutShape()), -9.0f);
        LayerCase layer("FilterBoxOpkitForward");
        layer.Online(InShape(), in).Output(out);
        if (writeCount != 0) {
            CaseTensor counts;
            counts.shape = {classNum};
            counts.data.assign(classNum, -9.0f);
            layer.Output(counts);
        }
        Finish(layer);
        return layer;
    }

    void Finish(LayerCase& layer) const
    {
        DetectionOutputAttr& attr = layer.Attr<DetectionOutputAttr>();
        attr = Attr();
        if (dump) {
            layer.Tamper([](World& world) {
                world.Param().dumpHook.dumpFunc = [](DumpRecord*) { return 0; };
                world.Param().dumpHook.dumpAll = 1;
            });
        }
    }
};

// Two classes of two boxes, capacity 3: x1, y1, x2, y2, score, class id.
const std::vector<float> kTwoClasses = {0,  20, 99, 0,  20, 99, 9,  29, 99, 9,  29, 99, 0.5f, 0.75f, 99, 3, 4, 99,
                                        40, 60, 99, 40, 60, 99, 49, 69, 99, 49, 69, 99, 0.1f, 0.2f,  99, 5, 6, 99};

Stage TwoClasses(uint32_t stage)
{
    return {.stage = stage, .classNum = 2, .hasClassId = 1, .capacity = 3, .outW = 4};
}

TEST(DetectionOutput, SameAsReference)
{
    const char* const names[] = {"FilterBoxOpkitForward", "SortOpkitForward", "NMSOpkitForward"};
    ForRandomCases(600, [&](Random& random) {
        Stage stage;
        stage.stage = random.OneOf({0u, 0u, 1u, 1u, 2u, 2u, 3u, 256u});
        stage.classNum = static_cast<uint32_t>(random.Int(1, 4));
        stage.hasClassId = random.OneOf({0u, 1u, 2u});
        stage.capacity = static_cast<uint32_t>(random.Int(1, 40));
        stage.maxBoxNum = static_cast<uint32_t>(random.OneOf({0, 1, random.Int(1, 40), 1000}));
        stage.pack = random.OneOf({0u, 1u});
        stage.writeCount = random.OneOf({0u, 2u});
        stage.dump = random.Chance(0.4);
        std::vector<uint32_t> counts;
        uint32_t sum = 0;
        for (uint32_t c = 0; c < stage.classNum; ++c) {
            counts.push_back(static_cast<uint32_t>(random.Int(0, static_cast<int32_t>(stage.capacity))));
            sum += counts.back();
        }
        stage.outW = std::max(sum, stage.capacity) + static_cast<uint32_t>(random.Int(0, 5));
        // Few distinct whole coordinates and scores, so that overlaps at the threshold and ties abound.
        const Values values = random.OneOf({Values::kIntegers, Values::kIntegers, Values::kUnit, Values::kBits});
        std::vector<float> in = random.Floats(ElementCount(stage.InShape()), values);
        for (float& value : in) {
            value = random.Chance(0.01) ? kNan : value;
        }
        LayerCase layer(names[random.Int(0, 2)]);
        if (random.Chance(0.2)) {
            layer.Offline(stage.InShape(), in);
        } else {
            layer.Online(stage.InShape(), in, random.Stride(stage.capacity));
        }
        layer.Output(stage.OutShape(), random.Stride(stage.outW));
        if (stage.writeCount != 0) {
            const Shape shape = random.OneOf<Shape>({{stage.classNum}, {stage.classNum, 1}});
            layer.Output(shape, random.Stride(shape.back()));
        }
        stage.Finish(layer);
        const std::vector<float> thresholds = {random.OneOf({0.0f, 0.25f, 0.5f, 1.0f, -1.0f, kNan}),
                                               random.Float(Values::kPlain), random.Float(Values::kIntegers),
                                               random.Float(Values::kIntegers)};
        ExpectSameAsReference(layer, DetectionOutputOpkitForward, RefDetectionOutput,
                              {.before =
                                   [counts, thresholds] {
                                       SetCounts(counts);
                                       SetThresholds(thresholds[0], thresholds[1], thresholds[2], thresholds[3]);
                                   },
                               .after = [] { return Counts(256); }});
    });
}

TEST(DetectionOutput, SortsEachClass)
{
    SetCounts({2, 2});
    World world(TwoClasses(OPKIT_STAGE_SORT).Layer(kTwoClasses));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(20, 0, -9, -9, 20, 0, -9, -9, 29, 9, -9, -9, 29, 9, -9, -9, 0.75f, 0.5f, -9,
                                            -9, 4, 3, -9, -9, 60, 40, -9, -9, 60, 40, -9, -9, 69, 49, -9, -9, 69, 49,
                                            -9, -9, 0.2f, 0.1f, -9, -9, 6, 5, -9, -9));
    EXPECT_THAT(Counts(3), ElementsAre(2, 2, 7));
}

// The filter's bounds on width and height are strict and come without the inclusive +1; the score's is not strict.
TEST(DetectionOutput, Filters)
{
    SetCounts({2, 2});
    SetThresholds(0, 0.2f, 8, 8);
    Stage stage = TwoClasses(OPKIT_STAGE_FILTER);
    World world(stage.Layer(kTwoClasses));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(Counts(2), ElementsAre(2, 1));
    EXPECT_EQ(world.Output()[24], 60);
    EXPECT_EQ(world.Output()[25], -9);
    for (const bool tooWide : {false, true}) {
        SetCounts({2, 2});
        SetThresholds(0, 0, tooWide ? 8.0f : 9.0f, tooWide ? 9.0f : 8.0f);
        World none(stage.Layer(kTwoClasses));
        ASSERT_EQ(none.RunRequest(), 0u);
        EXPECT_THAT(Counts(2), ElementsAre(0, 0));
        EXPECT_THAT(none.Output(), Each(-9));
    }
    SetCounts({2, 2});
    SetThresholds(0, 0, 0, 0);
    stage.maxBoxNum = 1;
    World one(stage.Layer(kTwoClasses));
    ASSERT_EQ(one.RunRequest(), 0u);
    EXPECT_THAT(Counts(2), ElementsAre(1, 1));
    EXPECT_EQ(one.Output()[0], 0);
}

// Packed: all boxes in one run of rows. Which flag packs decides which counts are written and what class 0 counts.
TEST(DetectionOutput, PacksAndCounts)
{
    Stage stage = TwoClasses(9);
    const auto run = [&](uint32_t pack, uint32_t writeCount) {
        stage.pack = pack;
        stage.writeCount = writeCount;
        SetCounts({1, 2});
        World world(stage.Layer(kTwoClasses));
        EXPECT_EQ(world.RunRequest(), 0u);
        const std::vector<float> out = world.Output();
        EXPECT_THAT(std::vector<float>(out.begin() + 24, out.end()), Each(-9));
        EXPECT_THAT(
            std::vector<float>(out.begin(), out.begin() + 24),
            ElementsAre(0, 40, 60, -9, 0, 40, 60, -9, 9, 49, 69, -9, 9, 49, 69, -9, 0.5f, 0.1f, 0.2f, -9, 3, 5, 6, -9));
        return writeCount != 0 ? world.Output(1) : std::vector<float>();
    };
    EXPECT_THAT(run(0, 1), ElementsAre(1, 2));
    EXPECT_THAT(Counts(2), ElementsAre(1, 2));
    EXPECT_THAT(run(1, 1), ElementsAre(3, -9));
    EXPECT_THAT(Counts(2), ElementsAre(3, 2));
    EXPECT_THAT(run(1, 0), ElementsAre());
    EXPECT_THAT(Counts(2), ElementsAre(3, 2));
}

// The clamp follows the copy-out: all boxes are written, fewer are counted. It comes before the sum.
TEST(DetectionOutput, ClampsAfterWriting)
{
    Stage stage = TwoClasses(OPKIT_STAGE_SORT);
    stage.maxBoxNum = 1;
    stage.pack = 1;
    SetCounts({2, 2});
    World world(stage.Layer(kTwoClasses));
    ASSERT_EQ(world.RunRequest(), 0u);
    const std::vector<float> out = world.Output();
    EXPECT_THAT(std::vector<float>(out.begin(), out.begin() + 4), ElementsAre(20, 0, 60, 40));
    EXPECT_THAT(Counts(2), ElementsAre(2, 1));
}

TEST(DetectionOutput, NoBoxes)
{
    for (const bool dump : {false, true}) {
        Stage stage = TwoClasses(OPKIT_STAGE_NMS);
        stage.dump = dump;
        SetCounts({0, 0});
        World world(stage.Layer(kTwoClasses));
        ASSERT_EQ(world.RunRequest(), 0u);
        EXPECT_THAT(world.Output(), Each(dump ? 0.0f : -9.0f));
        EXPECT_THAT(Counts(3), ElementsAre(0, 0, 7));
    }
}

TEST(DetectionOutput, DumpOfAnEmptyOutputClearsNothing)
{
    SetCounts({0, 0});
    World world(TwoClasses(OPKIT_STAGE_NMS).Layer(kTwoClasses));
    const auto dumpNothing = [](LayerParam* param) {
        uint32_t shape[] = {1, 0, 6, 4};
        param->outputs[0].shape = shape;
        param->dumpHook.dumpAll = 1;
        return DetectionOutputOpkitForward(param);
    };
    ASSERT_EQ(world.RunDirect(dumpNothing), 0u);
    EXPECT_THAT(world.Output(), Each(-9.0f));
}

TEST(DetectionOutput, WithoutClassIdsTheRowIsLeftOut)
{
    Stage stage;
    stage.capacity = 2;
    stage.outW = 2;
    SetCounts({2});
    World world(stage.Layer({1, 2, 3, 4, 5, 6, 7, 8, 0.5f, 1}));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(world.Output(), ElementsAre(2, 1, 4, 3, 6, 5, 8, 7, 1, 0.5f));
}

TEST(DetectionOutput, ClassIdIsTruncated)
{
    Stage stage;
    stage.hasClassId = 1;
    stage.capacity = 3;
    stage.outW = 3;
    stage.stage = 3;
    SetCounts({3});
    World world(stage.Layer({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2.9f, -1.5f, kNan}));
    ASSERT_EQ(world.RunRequest(), 0u);
    const std::vector<float> out = world.Output();
    EXPECT_THAT(std::vector<float>(out.begin() + 15, out.end()), ElementsAre(2, -1, -2147483648.0f));
}

TEST(DetectionOutput, Failures)
{
    struct Row {
        ForwardFunc function;
        const char* tail;
    };
    const Row rows[] = {{DetectionOutputOpkitForward, ""},
                        {FilterBoxOpkitForward, "[FilterBoxOpkitForward:#]FilterBoxOpkitForward falied.\n\n"},
                        {SortOpkitForward, "[SortOpkitForward:#]SortOpkitForward falied.\n\n"},
                        {NMSOpkitForward, "[NMSOpkitForward:#]NMSOpkitForward falied.\n\n"}};
    for (const Row& row : rows) {
        const auto expect = [&](const LayerCase& layer, const std::string& messages) {
            World world(layer);
            const RunResult run = RunCaptured(world, row.function);
            EXPECT_EQ(run.result, OPKIT_FAILURE);
            EXPECT_EQ(run.messages, messages + row.tail);
        };
        const Stage stage = {.capacity = 1, .outW = 1};
        SetCounts({1});
        LayerCase missing("SortOpkitForward");
        missing.Output(stage.OutShape());
        stage.Finish(missing);
        expect(missing, "[DetectionOutputOpkitForward:#]ParseInputInfo failed.\n\n");

        LayerCase nullInput("SortOpkitForward");
        nullInput.Online(stage.InShape(), {1, 2, 3, 4, 5}, 16).Output(stage.OutShape());
        stage.Finish(nullInput);
        nullInput.Tamper([](World& w) { w.Param().inputs[0].data = nullptr; });
        expect(nullInput,
               "[DelAlignSpace:#]Input data is NULL.\n\n[DetectionOutputOpkitForward:#]DelAlignSpace failed.\n\n");

        SetCounts({0});
        for (const size_t output : {size_t{0}, size_t{1}}) {
            Stage counting = stage;
            counting.writeCount = 1;
            LayerCase empty("SortOpkitForward");
            empty.Online(stage.InShape(), {1, 2, 3, 4, 5});
            empty.Output(output == 0 ? Shape{1, 1, 5, 0} : stage.OutShape()).Output({1, 1});
            counting.Finish(empty);
            if (output == 1) {  // one float of memory for the count, but a width of 0
                empty.Tamper([](World& w) {
                    const uint32_t base = w.ModelInfo().tables[0].layerTableOffset;
                    auto* records =
                        reinterpret_cast<TensorRecord*>(w.ModelBytes().data() + base + w.Layer().outputTableOffset);
                    uint32_t zeros[2] = {0, 0};
                    std::memcpy(w.ModelBytes().data() + base + records[1].shapeOffset, zeros, sizeof(zeros));
                });
            }
            expect(empty, "[DetectionOutputOpkitForward:#]widthOut can't be zero.\n\n");
        }
        LayerCase nullOutput("SortOpkitForward");
        nullOutput.Online(stage.InShape(), {1, 2, 3, 4, 5}).Output(stage.OutShape());
        stage.Finish(nullOutput);
        nullOutput.Tamper([](World& w) { w.Param().outputs[0].data = nullptr; });
        expect(
            nullOutput,
            "[InsertAlignSpace:#]Input data is NULL.\n\n[DetectionOutputOpkitForward:#]InsertAlignSpace failed.\n\n");

        SetCounts({1});
        World good(stage.Layer({1, 2, 3, 4, 5}));
        const RunResult run = RunCaptured(good, row.function);
        EXPECT_EQ(run.result, 0u);
        EXPECT_EQ(run.messages, "");
        EXPECT_THAT(good.Output(), ElementsAre(1, 2, 3, 4, 5));
    }
}

// Counts are clamped and written before an output's width is looked at.
TEST(DetectionOutput, LateFailureKeepsTheCounts)
{
    Stage stage = {.capacity = 3, .maxBoxNum = 1, .outW = 3};
    LayerCase layer("SortOpkitForward");
    layer.Online(stage.InShape(), std::vector<float>(15, 1.0f)).Output(stage.OutShape());
    stage.Finish(layer);
    layer.Tamper([](World& w) {
        const uint32_t base = w.ModelInfo().tables[0].layerTableOffset;
        auto* records = reinterpret_cast<TensorRecord*>(w.ModelBytes().data() + base + w.Layer().outputTableOffset);
        records[0].shapeSize = 20;  // a fifth dimension, whatever follows the four
        const uint32_t shape[5] = {1, 1, 5, 3, 0};
        // The layer's shapes stand one behind the other; the last one may grow over nothing that this run reads.
        std::memcpy(w.ModelBytes().data() + base + records[0].shapeOffset, shape, sizeof(shape));
    });
    SetCounts({3});
    World world(layer);
    const RunResult run = RunCaptured(world, DetectionOutputOpkitForward);
    EXPECT_EQ(run.result, OPKIT_FAILURE);
    EXPECT_EQ(run.messages, "[DetectionOutputOpkitForward:#]widthOut can't be zero.\n\n");
    EXPECT_THAT(Counts(1), ElementsAre(1));
}

TEST(DetectionOutput, OutOfMemory)
{
    if (!AllocFaultAvailable()) {
        return;
    }
    const auto fail = [](uint64_t at, auto&& run) {
        CaptureStdout capture;
        AllocFault fault(at);
        run();
        fault.Disarm();
        EXPECT_EQ(fault.Live(), 0);
        return NormalizeMessages(capture.Stop());
    };
    // The records: the layer fails and no count changes.
    Stage stage = TwoClasses(OPKIT_STAGE_NMS);
    stage.maxBoxNum = 1;
    LayerParam param = {};
    std::vector<float> in = kTwoClasses;
    std::vector<float> out(48, -9.0f);
    Shape inShape = stage.InShape();
    Shape outShape = stage.OutShape();
    TensorInfo tensors[] = {{0, 12, 1, 4, inShape.data(), in.data(), 144},
                            {0, 16, 1, 4, outShape.data(), out.data(), 192}};
    DetectionOutputAttr attr = stage.Attr();
    param.inputs = &tensors[0];
    param.inputNum = 1;
    param.outputs = &tensors[1];
    param.outputNum = 1;
    param.attr = &attr;
    SetCounts({2, 2});
    SetThresholds(0.5f, 0, 0, 0);
    uint32_t result = 0;
    EXPECT_EQ(fail(0, [&] { result = DetectionOutputOpkitForward(&param); }),
              "[DetectionOutputOpkitForward:#]Malloc failed!\n\n");
    EXPECT_EQ(result, OPKIT_FAILURE);
    EXPECT_THAT(Counts(2), ElementsAre(2, 2));
    // The flags of one class: its list stays whole, the layer succeeds. The clamp works all the same.
    EXPECT_EQ(fail(2, [&] { result = DetectionOutputOpkitForward(&param); }), "[DoNms:#]Malloc 8 failed!\n\n");
    EXPECT_EQ(result, 0u);
    EXPECT_THAT(std::vector<float>(out.begin(), out.begin() + 4), ElementsAre(0, -9, -9, -9));
    EXPECT_THAT(std::vector<float>(out.begin() + 24, out.begin() + 28), ElementsAre(40, 60, -9, -9));
    EXPECT_THAT(Counts(2), ElementsAre(1, 1));
    // Directly: the areas are set, nothing else.
    std::vector<DetBox> boxes = {Box(0, 0, 9, 9), Box(0, 0, 9, 9), Box(0, 0, 4, 9)};
    uint32_t count = 3;
    EXPECT_EQ(fail(0, [&] { result = DoNms(boxes.data(), &count, 10, 0.5f); }), "[DoNms:#]Malloc 12 failed!\n\n");
    EXPECT_EQ(result, OPKIT_FAILURE);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(boxes[2].area, 50);
}

TEST(DetectionSteps, Area)
{
    DetBox boxes[] = {Box(0, 0, 9, 4), Box(5, 5, 5, 5), Box(3, 3, 0, 0), Box(0, 0, 1, 1)};
    boxes[3].area = -1;
    uint32_t count = 3;
    InitArea(boxes, &count);
    EXPECT_EQ(boxes[0].area, 50);
    EXPECT_EQ(boxes[1].area, 1);
    EXPECT_EQ(boxes[2].area, 4);  // -2 times -2
    EXPECT_EQ(boxes[3].area, -1);
}

TEST(DetectionSteps, IntersectionAndUnion)
{
    const auto of = [](DetBox a, DetBox b) {
        uint32_t one = 1;
        InitArea(&a, &one);
        InitArea(&b, &one);
        float inter = -1, uni = -1;
        NmsOperator(&a, &b, &inter, &uni);
        return std::vector<float>{inter, uni};
    };
    EXPECT_THAT(of(Box(0, 0, 9, 9), Box(5, 0, 14, 9)), ElementsAre(50, 150));
    EXPECT_THAT(of(Box(5, 5, 14, 14), Box(0, 0, 9, 9)), ElementsAre(25, 175));   // the first one lies behind
    EXPECT_THAT(of(Box(0, 0, 9, 9), Box(9, 0, 18, 9)), ElementsAre(10, 190));    // one shared column
    EXPECT_THAT(of(Box(0, 0, 9, 9), Box(10, 0, 19, 9)), ElementsAre(0, 200));    // side by side
    EXPECT_THAT(of(Box(0, 0, 9, 9), Box(30, 30, 39, 39)), ElementsAre(0, 200));  // negative extents are 0
    EXPECT_EQ(of(Box(kNan, 0, 9, 9), Box(0, 0, 9, 9))[1] > 0, false);
}

TEST(DetectionSteps, Nms)
{
    const auto survivors = [](std::vector<DetBox> boxes, uint32_t maxKeep, float thresh) {
        auto count = static_cast<uint32_t>(boxes.size());
        EXPECT_EQ(DoNms(boxes.data(), &count, maxKeep, thresh), 0u);
        boxes.resize(count);
        return Scores(boxes);
    };
    const DetBox a = Box(0, 0, 9, 9, 1), b = Box(0, 0, 9, 9, 2), c = Box(5, 0, 14, 9, 3), d = Box(50, 50, 59, 59, 4);
    EXPECT_THAT(survivors({a, b, d}, 9, 0.5f), ElementsAre(1, 4));  // list order decides, not the score
    EXPECT_THAT(survivors({b, a, d}, 9, 0.5f), ElementsAre(2, 4));
    EXPECT_THAT(survivors({a, b, d}, 9, 1.0f), ElementsAre(1, 2, 4));  // exactly at the threshold
    EXPECT_THAT(survivors({a, c}, 9, 1 / 3.0f), ElementsAre(1, 3));    // 50 of 150 is not above a third
    EXPECT_THAT(survivors({a, c}, 9, 0.33f), ElementsAre(1));
    EXPECT_THAT(survivors({a, d, b}, 1, 0.5f), ElementsAre(1));
    EXPECT_THAT(survivors({a, d, b}, 0, 0.5f), ElementsAre());
    EXPECT_THAT(survivors({}, 4, 0.5f), ElementsAre());
    // A box sharing an edge column overlaps; a suppressed box suppresses nothing.
    EXPECT_THAT(survivors({a, Box(9, 0, 18, 9, 5)}, 9, 0.0f), ElementsAre(1));
    EXPECT_THAT(survivors({a, Box(2, 0, 11, 9, 6), Box(8, 0, 17, 9, 7)}, 9, 0.2f), ElementsAre(1, 7));
    // NaN suppresses nothing.
    EXPECT_THAT(survivors({Box(kNan, 0, 9, 9, 8), a}, 9, 0.0f), ElementsAre(8, 1));
    // Beside each other in both tests: no pair is apart by less than the sum of both.
    EXPECT_THAT(survivors({a, Box(9.5f, 0, 18, 9, 9)}, 9, 0.0f), ElementsAre(1, 9));
}

// Lists longer than what is worked on at a time, with NaN among the coordinates.
TEST(DetectionSteps, NmsOfLongLists)
{
    ForRandomCases(40, [](Random& random) {
        std::vector<DetBox> boxes(static_cast<size_t>(random.Int(1, 900)));
        const float spread = random.OneOf({40.0f, 300.0f, 2000.0f});
        for (DetBox& box : boxes) {
            const float x = random.Float(Values::kUnit) * spread;
            const float y = random.Float(Values::kUnit) * spread;
            box = Box(x, y, x + random.Float(Values::kUnit) * 40, y + random.Float(Values::kUnit) * 40, 0.5f);
            if (random.Chance(0.01)) {
                (random.Chance(0.5) ? box.x1 : box.y2) = kNan;
            }
        }
        const auto maxKeep = static_cast<uint32_t>(random.OneOf({10, 300, 1000}));
        std::vector<DetBox> expected = boxes;
        uint32_t expectedCount = static_cast<uint32_t>(boxes.size());
        RefNms(expected.data(), expectedCount, maxKeep, 0.4f);
        test::ForEachLevel([&](Level) {
            std::vector<DetBox> actual = boxes;
            uint32_t count = static_cast<uint32_t>(boxes.size());
            EXPECT_EQ(DoNms(actual.data(), &count, maxKeep, 0.4f), 0u);
            ASSERT_EQ(count, expectedCount);
            EXPECT_EQ(std::memcmp(actual.data(), expected.data(), actual.size() * sizeof(DetBox)), 0);
        });
    });
}

TEST(DetectionSteps, Filter)
{
    std::vector<DetBox> boxes = {Box(0, 0, 5, 5, 0.5f),    Box(0, 0, 4, 5, 0.9f), Box(0, 0, 5, 4, 0.9f),
                                 Box(0, 0, 5, 5, 0.49f),   Box(0, 0, 9, 9, kNan), Box(kNan, 0, 9, 9, 1),
                                 Box(0, 0, 9, kNan, 1.0f), Box(1, 1, 9, 9, 0.6f), Box(2, 2, 9, 9, 0.7f)};
    std::vector<DetBox> copy = boxes;
    uint32_t count = 9;
    DoFilterBox(copy.data(), &count, 99, 0.5f, 4, 4);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(copy[1].x1, 1);
    EXPECT_EQ(copy[2].x1, 2);
    copy = boxes;
    count = 9;
    DoFilterBox(copy.data(), &count, 2, 0.5f, 4, 4);
    EXPECT_EQ(count, 2u);
    count = 9;
    DoFilterBox(copy.data(), &count, 0, 0.5f, 4, 4);
    EXPECT_EQ(count, 0u);
    DoFilterBox(copy.data(), &count, 5, 0.5f, 4, 4);
    EXPECT_EQ(count, 0u);
}

// Lists of 0 or 1 boxes pass suppression and sort by, even where nothing may be kept.
TEST(DetectionSteps, ShortListsArePassedOver)
{
    std::vector<DetBox> boxes = BoxesOf({1, 2, 3, 4, 5, 6});
    SetCounts({1, 0, 2});
    SetThresholds(0.5f, 10, 0, 0);
    ProcessNMS(boxes.data(), 3, 5, 2, 0);
    EXPECT_THAT(Counts(3), ElementsAre(1, 0, 0));
    SetCounts({1, 0, 2});
    ProcessSort(boxes.data(), 3, 5, 2, 0);
    EXPECT_THAT(Counts(3), ElementsAre(1, 0, 2));
    EXPECT_THAT(Scores(boxes), ElementsAre(1, 2, 3, 4, 6, 5));
    ProcessFilterBox(boxes.data(), 3, 5, 2, 9);
    EXPECT_THAT(Counts(3), ElementsAre(0, 0, 0));
}

// By hand: pivot 5 at 0; 5 at the end is swapped, not skipped, and so on.
TEST(DetectionSteps, QuickSortOfEqualScores)
{
    std::vector<DetBox> boxes = BoxesOf({5, 5, 5});
    QuickSort(boxes.data(), 0, 2);
    // (0,2) swapped, then (1,2): 2 0 1 with the pivot at 1.
    EXPECT_THAT((std::vector<float>{boxes[0].x1, boxes[1].x1, boxes[2].x1}), ElementsAre(2, 0, 1));
    boxes = BoxesOf({1, 2, 2, 1});
    QuickSort(boxes.data(), 0, 3);
    // Pivot 1: swap (0,3), skip both 2s: 3 1 2 | 0. Again pivot 1: swap (0,2), skip a 2: 2 1 | 3. Pivot 2: swap (0,1).
    EXPECT_THAT((std::vector<float>{boxes[0].x1, boxes[1].x1, boxes[2].x1, boxes[3].x1}), ElementsAre(1, 2, 3, 0));
    QuickSort(boxes.data(), 2, 2);
    EXPECT_EQ(boxes[2].x1, 3);
}

TEST(DetectionSteps, QuickSortSameAsReference)
{
    ForRandomCases(600, [](Random& random) {
        const int32_t n = random.Int(1, 300);
        const int32_t distinct = random.OneOf({1, 2, 5, 50, 100000});
        std::vector<float> scores;
        for (int32_t i = 0; i < n; ++i) {
            const bool nan = random.Chance(0.02) && distinct == 50;
            scores.push_back(nan ? kNan : static_cast<float>(random.Int(0, distinct)) - 0.0f);
        }
        const int32_t order = random.Int(0, 3);
        if (order == 1) {
            std::stable_sort(scores.begin(), scores.end(), [](float a, float b) { return a > b; });
        } else if (order == 2) {
            std::stable_sort(scores.begin(), scores.end(), [](float a, float b) { return a < b; });
        } else if (order == 3) {
            std::stable_sort(scores.begin(), scores.begin() + n / 2, [](float a, float b) { return a < b; });
            std::stable_sort(scores.begin() + n / 2, scores.end(), [](float a, float b) { return a > b; });
        }
        std::vector<DetBox> actual = BoxesOf(scores);
        std::vector<DetBox> expected = actual;
        const int32_t low = random.Int(0, n / 4);
        QuickSort(actual.data(), low, n - 1);
        RefQuickSort(expected.data(), low, n - 1);
        EXPECT_TRUE(SameBoxes(actual, expected)) << testing::PrintToString(scores);
    });
}

// Long lists in the orders that a plain quick sort takes badly.
TEST(DetectionSteps, QuickSortOfLongLists)
{
    constexpr int32_t kCount = 100000;
    std::vector<float> scores(kCount, 3.0f);
    std::vector<DetBox> actual = BoxesOf(scores);
    std::vector<DetBox> expected = actual;
    QuickSort(actual.data(), 0, kCount - 1);
    RefQuickSort(expected.data(), 0, kCount - 1);
    EXPECT_TRUE(SameBoxes(actual, expected));
    for (int32_t i = 0; i < kCount; ++i) {
        scores[static_cast<size_t>(i)] = static_cast<float>(kCount - i);
    }
    std::vector<DetBox> descending = BoxesOf(scores);
    actual = descending;
    QuickSort(actual.data(), 0, kCount - 1);
    EXPECT_TRUE(SameBoxes(actual, descending));
    std::reverse_copy(descending.begin(), descending.end(), actual.begin());
    QuickSort(actual.data(), 0, kCount - 1);
    EXPECT_TRUE(SameBoxes(actual, descending));
}

// Pairs of equal scores in order take a partition for every pair; the recursion stays shallow all the same.
TEST(DetectionSteps, QuickSortNeedsLittleStack)
{
    static std::vector<DetBox> boxes;
    std::vector<float> scores;
    for (int i = 0; i < 12000; ++i) {
        scores.push_back(static_cast<float>(6000 - i / 2));
    }
    boxes = BoxesOf(scores);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 128 * 1024);
    pthread_t thread = {};
    ASSERT_EQ(pthread_create(
                  &thread, &attributes,
                  [](void*) -> void* {
                      QuickSort(boxes.data(), 0, static_cast<int32_t>(boxes.size()) - 1);
                      return nullptr;
                  },
                  nullptr),
              0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_EQ(Scores(boxes), scores);
}

TEST(DetectionSteps, SelectionSort)
{
    std::vector<DetBox> boxes = BoxesOf({1, 3, 2, 3, 0});
    uint32_t count = 5;
    DoSort(boxes.data(), &count, 2);
    EXPECT_EQ(count, 5u);
    EXPECT_THAT(Scores(boxes), ElementsAre(3, 3, 2, 1, 0));
    EXPECT_EQ(boxes[0].x1, 1);  // the first of equal maxima
    EXPECT_EQ(boxes[1].x1, 3);
    boxes = BoxesOf({kNan, 3, 2});
    count = 3;
    DoSort(boxes.data(), &count, 99);
    EXPECT_TRUE(std::isnan(boxes[0].score));  // nothing is greater than NaN
    EXPECT_EQ(boxes[1].score, 3);
    DoSort(boxes.data(), &count, 0);
    EXPECT_EQ(boxes[1].score, 3);
}

TEST(DetectionSteps, BoxesInAndOut)
{
    SetCounts({1, 2});
    std::vector<DetBox> boxes(6, Box(-1, -1, -1, -1, -1, -1));
    Input2Bbox(kTwoClasses.data(), boxes.data(), 2, 1, 3);
    EXPECT_EQ(boxes[0].y2, 9);
    EXPECT_EQ(boxes[1].x1, -1);  // beyond the count
    EXPECT_EQ(boxes[4].score, 0.2f);
    EXPECT_EQ(boxes[4].classId, 6);
    std::vector<float> out(24, -9.0f);
    Bbox2Output(boxes.data(), out.data(), 2, 1, 3, 2, 0);
    EXPECT_THAT(out, ElementsAre(0, -9, 0, -9, 9, -9, 9, -9, 0.5f, -9, 3, -9, 40, 60, 40, 60, 49, 69, 49, 69, 0.1f,
                                 0.2f, 5, 6));
    std::vector<float> packed(18, -9.0f);
    Bbox2Output(boxes.data(), packed.data(), 2, 1, 3, 3, 1);
    EXPECT_THAT(packed, ElementsAre(0, 40, 60, 0, 40, 60, 9, 49, 69, 9, 49, 69, 0.5f, 0.1f, 0.2f, 3, 5, 6));
}

// ---- chains: decoding, filter, sort and suppression in one request ----

struct Chain {
    uint32_t n, classNum, hasClassId, merge, pack, writeCount, maxBoxNum;
    bool dump;

    uint32_t Fields() const { return hasClassId != 0 ? 6 : 5; }
    // Merged classes are one list from the decoder on.
    uint32_t Lists() const { return merge != 0 ? 1 : classNum; }
    uint32_t Capacity() const { return merge != 0 ? n * classNum : n; }

    modelkit::Model Build() const
    {
        using modelkit::TensorRef;
        modelkit::ModelBuilder builder;
        const Shape lists = {1, Lists(), Fields(), Capacity()};
        const Shape last = {1, Lists(), Fields(), n * classNum};
        const TensorRef deltas = builder.AddInput({"deltas", {n, 8}});
        const TensorRef scores = builder.AddInput({"scores", {n, classNum}});
        const TensorRef thresholds = builder.AddInput({"thresholds", {4}});
        const TensorRef count = builder.AddInput({"count", {1}});
        const TensorRef proposals = builder.AddInput({"proposals", {1, 1, 4, n}});
        const uint32_t stride = (Capacity() + 7) / 4 * 16;
        const TensorRef decoded = builder.AddScratch({"decoded", lists, stride});
        const TensorRef filtered = builder.AddScratch({"filtered", lists, stride});
        const TensorRef sorted = builder.AddScratch({"sorted", lists});
        const TensorRef boxes = builder.AddOutput({"boxes", last});
        const TensorRef counts = builder.AddOutput({"counts", {classNum}});
        DecBboxAttr decode = {};
        decode.classNum = classNum;
        decode.hasClassId = hasClassId;
        decode.clipBox = 1;
        decode.imageWidth = 64;
        decode.imageHeight = 64;
        decode.mergeClasses = merge;
        builder.AddLayer("DecBboxOpkitForward")
            .Online(deltas)
            .Online(scores)
            .Online(thresholds)
            .Online(count)
            .Online(proposals)
            .Output(decoded)
            .Attr(decode);
        Stage stage = {.stage = OPKIT_STAGE_FILTER,
                       .classNum = Lists(),
                       .hasClassId = hasClassId,
                       .capacity = Capacity(),
                       .maxBoxNum = maxBoxNum};
        builder.AddLayer("FilterBoxOpkitForward").Online(decoded).Output(filtered).Attr(stage.Attr());
        stage.stage = OPKIT_STAGE_SORT;
        builder.AddLayer("SortOpkitForward").Online(filtered).Output(sorted).Attr(stage.Attr());
        stage.stage = OPKIT_STAGE_NMS;
        stage.pack = pack;
        stage.writeCount = writeCount;
        auto& nms = builder.AddLayer("NMSOpkitForward").Online(sorted).Output(boxes).Attr(stage.Attr());
        if (writeCount != 0) {
            nms.Output(counts);
        }
        return builder.Build();
    }

    World Fill(Random& random) const
    {
        World world(Build());
        std::vector<float> deltas = random.Floats(size_t{8} * n, Values::kPlain);
        for (float& delta : deltas) {
            delta *= 0.1f;
        }
        std::vector<float> scores;
        for (uint32_t i = 0; i < n * classNum; ++i) {  // few values: ties; some NaN
            scores.push_back(random.Chance(0.02) ? kNan : static_cast<float>(random.Int(0, 6)) * 0.125f);
        }
        std::vector<float> proposals(size_t{4} * n);
        for (uint32_t i = 0; i < n; ++i) {
            for (const uint32_t axis : {0u, 1u}) {
                proposals[axis * n + i] = static_cast<float>(random.Int(0, 50));
                proposals[(axis + 2) * n + i] = proposals[axis * n + i] + static_cast<float>(random.Int(0, 20));
            }
        }
        world.SetInput(0, deltas);
        world.SetInput(1, scores);
        world.SetInput(2, std::vector<float>{random.OneOf({0.3f, 0.5f, 0.9f}), 0.2f, 2, 3});
        world.SetInput(3, std::vector<float>{static_cast<float>(random.Int(0, static_cast<int32_t>(n)))});
        world.SetInput(4, proposals);
        if (dump) {
            world.Param().dumpHook.dumpFunc = [](DumpRecord*) { return 0; };
            world.Param().dumpHook.dumpAll = 1;
        }
        return world;
    }
};

Chain RandomChain(Random& random)
{
    Chain chain = {};
    chain.n = static_cast<uint32_t>(random.Int(1, 40));
    chain.merge = random.OneOf({0u, 1u});
    chain.classNum = static_cast<uint32_t>(random.Int(2, 4));
    chain.hasClassId = random.OneOf({0u, 1u});
    chain.pack = random.OneOf({0u, 1u});
    chain.writeCount = random.OneOf({0u, 1u});
    chain.maxBoxNum = static_cast<uint32_t>(random.OneOf({0, random.Int(1, 30), 1000}));
    chain.dump = random.Chance(0.5);
    return chain;
}

struct ChainResult {
    uint32_t result = 0;
    std::vector<uint32_t> counts;
};

ChainResult RunReferenceChain(World& world)
{
    ChainResult chain;
    const ForwardFunc layers[] = {RefDecBbox, RefDetectionOutput, RefDetectionOutput, RefDetectionOutput};
    for (size_t i = 0; i < 4 && chain.result == 0; ++i) {
        chain.result = world.RunDirect(layers[i], i);
    }
    chain.counts = Counts(8);
    return chain;
}

TEST(DetectionChain, SameAsReference)
{
    ForRandomCases(300, [](Random& random) {
        const Chain chain = RandomChain(random);
        World world = chain.Fill(random);
        World expected = world.Clone();
        SetCounts({});
        const ChainResult reference = RunReferenceChain(expected);
        SetCounts({});
        EXPECT_EQ(world.RunRequest(), reference.result);
        EXPECT_EQ(Counts(8), reference.counts);
        EXPECT_EQ(World::Difference(world, expected, NanPolicy::kAnyNan), "");
    });
}

// Threads keep their own counts and thresholds: chains of different data side by side do not disturb each other.
TEST(DetectionChain, SeveralThreads)
{
    struct Job {
        World start;
        World expected;
        ChainResult reference;
        std::string difference = {};
        bool sawZeros = false;
    };
    std::vector<Job> jobs;
    Random random(TestSeed());
    for (int i = 0; i < 4; ++i) {
        World start = RandomChain(random).Fill(random);
        World expected = start.Clone();
        ChainResult reference;
        std::thread([&] { reference = RunReferenceChain(expected); }).join();  // counts start at 0 there as well
        jobs.push_back({std::move(start), std::move(expected), std::move(reference)});
    }
    std::vector<std::thread> threads;
    for (Job& job : jobs) {
        threads.emplace_back([&job] {
            job.sawZeros = Counts(256) == std::vector<uint32_t>(256) && g_nmsThresh == 0.0f && g_maxWidth == 0.0f;
            for (int round = 0; round < 200 && job.difference.empty(); ++round) {
                World world = job.start.Clone();
                if (world.RunRequest() != job.reference.result || Counts(8) != job.reference.counts) {
                    job.difference = "result or counts differ";
                } else {
                    job.difference = World::Difference(world, job.expected, NanPolicy::kAnyNan);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const Job& job : jobs) {
        EXPECT_EQ(job.difference, "");
        EXPECT_TRUE(job.sawZeros);
    }
}

// Three proposals, two classes; by hand. Class 0: scores 0.3, 0.9, 0.8, the last two boxes nearly the same.
TEST(DetectionChain, ByHand)
{
    const Chain chain = {
        .n = 3, .classNum = 2, .hasClassId = 1, .merge = 0, .pack = 1, .writeCount = 1, .maxBoxNum = 5, .dump = true};
    World world(chain.Build());
    world.SetInput(0, std::vector<float>(24, 0.0f));
    world.SetInput(1, std::vector<float>{0.3f, 0.1f, 0.9f, 0.1f, 0.8f, 0.6f});
    world.SetInput(2, std::vector<float>{0.5f, 0.2f, 2, 2});
    world.SetInput(3, std::vector<float>{3});
    world.SetInput(4, std::vector<float>{0, 20, 21, 0, 20, 20, 7, 35, 35, 7, 35, 35});
    world.Param().dumpHook.dumpFunc = [](DumpRecord*) { return 0; };
    world.Param().dumpHook.dumpAll = 1;
    ASSERT_EQ(world.RunRequest(), 0u);
    // Decoded high edges lie one further: 8, 36, 36. Of class 0 the box at 20 suppresses the one at 21.
    const auto* boxes = static_cast<const float*>(world.Param().outputs[0].data);
    EXPECT_THAT(std::vector<float>(boxes, boxes + 36),
                ElementsAre(20, 0, 21, 0, 0, 0, 20, 0, 20, 0, 0, 0, 36, 8, 36, 0, 0, 0, 36, 8, 36, 0, 0, 0,  //
                            0.9f, 0.3f, 0.6f, 0, 0, 0, 0, 0, 1, 0, 0, 0));
    EXPECT_EQ(static_cast<const float*>(world.Param().outputs[1].data)[0], 3);
    EXPECT_THAT(Counts(2), ElementsAre(3, 1));
}

// Without a decoder on this thread the stages see the counts that the last chain left, packed or not.
TEST(DetectionChain, CountsOutlastTheRequest)
{
    Stage stage = TwoClasses(3);
    stage.pack = 1;
    SetCounts({1, 1});
    World world(stage.Layer(kTwoClasses));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(Counts(2), ElementsAre(2, 1));
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(Counts(2), ElementsAre(3, 1));
}

}  // namespace
}  // namespace opkit
