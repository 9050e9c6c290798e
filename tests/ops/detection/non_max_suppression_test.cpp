// NonMaxSuppression: selection, thresholds, limits, the heap's exact steps, overlaps.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "opkit/opkit.h"
#include "tests/reference/non_max_suppression.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using ::testing::ElementsAre;

constexpr const char* kName = "NonMaxSuppressionOpkitForward";
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// One batch of boxes with one class of scores, and as many of limit, overlap and score threshold as given.
LayerCase Suppress(const std::vector<float>& boxes, const std::vector<float>& scores,
                   const std::vector<float>& settings = {}, uint32_t center = 0)
{
    const auto boxNum = static_cast<uint32_t>(scores.size());
    LayerCase layer(kName);
    layer.Online({1, boxNum, 4}, boxes).Online({1, 1, boxNum}, scores);
    for (const float setting : settings) {
        layer.Online({1}, {setting}, 16);
    }
    layer.Output({boxNum + 1, 3}, 16).Workspace((boxNum + 1) * 8);
    layer.Attr<NonMaxSuppressionAttr>().inputCount = static_cast<int32_t>(2 + settings.size());
    layer.Attr<NonMaxSuppressionAttr>().centerPointBox = center;
    return layer;
}

// Rows up to the first unused one.
std::vector<std::vector<float>> Rows(const LayerCase& layer)
{
    World world(layer);
    const RunResult run = RunCaptured(world, NonMaxSuppressionOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "");
    const std::vector<float> out = world.Output();
    std::vector<std::vector<float>> rows;
    for (size_t i = 0; i + 3 <= out.size(); i += 3) {
        uint32_t word = 0;
        std::memcpy(&word, &out[i], 4);
        if (word == 0xFFFFFFFFu) {
            break;
        }
        rows.push_back({out[i], out[i + 1], out[i + 2]});
    }
    return rows;
}

std::vector<float> Selected(const LayerCase& layer)
{
    std::vector<float> boxes;
    for (const std::vector<float>& row : Rows(layer)) {
        EXPECT_EQ(row[0], 0);
        EXPECT_EQ(row[1], 0);
        boxes.push_back(row[2]);
    }
    return boxes;
}

// Unit squares in a row, 2 apart.
std::vector<float> Disjoint(uint32_t n)
{
    std::vector<float> boxes;
    for (uint32_t i = 0; i < n; ++i) {
        const auto x = static_cast<float>(2 * i);
        for (const float edge : {0.0f, x, 1.0f, x + 1}) {
            boxes.push_back(edge);
        }
    }
    return boxes;
}

TEST(NonMaxSuppression, SameAsReference)
{
    ForRandomCases(500, [](Random& random) {
        const auto batches = static_cast<uint32_t>(random.Int(random.Chance(0.05) ? 0 : 1, 2));
        const auto classes = static_cast<uint32_t>(random.Int(random.Chance(0.05) ? 0 : 1, 3));
        const auto boxNum = static_cast<uint32_t>(random.Int(random.Chance(0.05) ? 0 : 1, 40));
        const Values boxValues = random.OneOf({Values::kIntegers, Values::kIntegers, Values::kPlain, Values::kMixed});
        const Values scoreValues = random.OneOf({Values::kIntegers, Values::kUnit, Values::kMixed});
        LayerCase layer(kName);
        const auto add = [&](const Shape& shape, const std::vector<float>& data) {
            if (random.Chance(0.25)) {
                layer.Offline(shape, data);
            } else if (shape.back() == 0) {
                layer.Online(shape, data, 4);  // rows of nothing
            } else {
                layer.Online(shape, data, random.Stride(shape.back()));
            }
        };
        const Shape boxShape = {batches, boxNum, 4};
        const Shape scoreShape = {batches, classes, std::max(boxNum, 1u)};
        add(boxShape, random.Floats(ElementCount(boxShape), boxValues));
        add(scoreShape, random.Floats(ElementCount(scoreShape), scoreValues));
        add({1}, {random.OneOf({0.0f, 1.0f, 2.9f, 5.0f, -1.0f, 1e10f, kNan})});
        add({1, 1}, {random.OneOf({0.0f, 0.25f, 0.5f, 1.0f, -1.0f, kNan})});
        add({1}, {random.OneOf({0.0f, -3.0f, 0.5f, 2.0f, -kInf, kNan})});
        layer.Output({batches * classes * boxNum + 1, 3}, random.OneOf({12u, 16u, 32u}));
        layer.Workspace((boxNum + 1) * 8);
        layer.Attr<NonMaxSuppressionAttr>().inputCount = random.Int(-1, 7);
        layer.Attr<NonMaxSuppressionAttr>().centerPointBox = random.OneOf({0u, 1u, 256u});
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, NonMaxSuppressionOpkitForward, RefNonMaxSuppression);
    });
}

// More boxes are selected than are compared from memory of their own.
TEST(NonMaxSuppression, ManySelected)
{
    ForRandomCases(12, [](Random& random) {
        const auto boxNum = static_cast<uint32_t>(random.Int(300, 700));
        std::vector<float> boxes;
        for (uint32_t i = 0; i < boxNum; ++i) {
            const float x = random.Float(Values::kUnit) * 900;
            const float y = random.Float(Values::kUnit) * 900;
            for (const float edge :
                 {y, x, y + random.Float(Values::kUnit) * 60, x + random.Float(Values::kUnit) * 60}) {
                boxes.push_back(edge);
            }
        }
        LayerCase layer(kName);
        layer.Online({1, boxNum, 4}, boxes);
        layer.Online({1, 2, boxNum}, random.Floats(uint64_t{2} * boxNum, Values::kUnit));
        layer.Online({1}, {random.OneOf({0.0f, 280.0f})})
            .Online({1}, {random.OneOf({0.05f, 0.5f})})
            .Online({1}, {0.01f});
        layer.Output({2 * boxNum, 3}).Workspace((boxNum + 1) * 8);
        layer.Attr<NonMaxSuppressionAttr>().inputCount = 5;
        ExpectSameAsReference(layer, NonMaxSuppressionOpkitForward, RefNonMaxSuppression);
    });
}

TEST(NonMaxSuppression, ByDescendingScore)
{
    EXPECT_THAT(Selected(Suppress(Disjoint(3), {0.2f, 0.9f, 0.5f})), ElementsAre(1, 2, 0));
}

// The boxes of score 10, 8, 5: with two entries left the last one is the root, and 5 comes before 8.
TEST(NonMaxSuppression, NearlySortedOrder)
{
    EXPECT_THAT(Selected(Suppress(Disjoint(3), {10, 8, 5})), ElementsAre(0, 2, 1));
}

TEST(NonMaxSuppression, ScoreThresholdIsStrict)
{
    EXPECT_THAT(Selected(Suppress(Disjoint(4), {0, -1, 1, kNan})), ElementsAre(2));
    EXPECT_THAT(Selected(Suppress(Disjoint(3), {0.5f, 0.75f, 0.25f}, {0, 0.5f, 0.5f})), ElementsAre(1));
    EXPECT_THAT(Selected(Suppress(Disjoint(2), {-2, -1}, {0, 0.5f, -3})), ElementsAre(1, 0));
}

TEST(NonMaxSuppression, OverlapThreshold)
{
    const std::vector<float> same = {0, 0, 2, 2, 2, 2, 0, 0};  // opposite corners, either way round
    EXPECT_THAT(Selected(Suppress(same, {1, 2}, {0, 0.5f})), ElementsAre(1));
    EXPECT_THAT(Selected(Suppress(same, {1, 2}, {0, 1.0f})), ElementsAre(1, 0));  // exactly at the threshold
    // Half over each other: a third of the union. The default threshold is 0.
    const std::vector<float> half = {0, 0, 2, 2, 0, 1, 2, 3};
    EXPECT_THAT(Selected(Suppress(half, {1, 2})), ElementsAre(1));
    EXPECT_THAT(Selected(Suppress(half, {1, 2}, {0, 0.33f})), ElementsAre(1));
    EXPECT_THAT(Selected(Suppress(half, {1, 2}, {0, 0.34f})), ElementsAre(1, 0));
    // Touching edges share no area; a box without area overlaps nothing.
    EXPECT_THAT(Selected(Suppress({0, 0, 2, 2, 0, 2, 2, 4}, {1, 2})), ElementsAre(1, 0));
    EXPECT_THAT(Selected(Suppress({0, 0, 2, 2, 1, 0, 1, 2}, {1, 2})), ElementsAre(1, 0));
}

TEST(NonMaxSuppression, Limit)
{
    EXPECT_THAT(Selected(Suppress(Disjoint(2), {1, 2}, {1})), ElementsAre(1));
    EXPECT_THAT(Selected(Suppress(Disjoint(2), {1, 2}, {1.9f})), ElementsAre(1));
    EXPECT_THAT(Selected(Suppress(Disjoint(2), {1, 2}, {0})), ElementsAre(1, 0));
    EXPECT_THAT(Selected(Suppress(Disjoint(2), {1, 2}, {-5})), ElementsAre(1, 0));
    EXPECT_THAT(Selected(Suppress(Disjoint(2), {1, 2}, {1e10f})), ElementsAre(1, 0));  // does not fit: below 1
}

// centerPointBox: centre (1, 1), size 2 by 2, against corners (0, 0) and (2, 2).
TEST(NonMaxSuppression, CentreBoxes)
{
    const std::vector<float> boxes = {1, 1, 2, 2, 2, 1, 2, 2};
    EXPECT_THAT(Selected(Suppress(boxes, {1, 2}, {0, 0.33f}, 1)), ElementsAre(1));
    EXPECT_THAT(Selected(Suppress(boxes, {1, 2}, {0, 0.34f}, 7)), ElementsAre(1, 0));
}

// Rows run on over classes and batches, each selection of its own.
TEST(NonMaxSuppression, BatchesAndClasses)
{
    LayerCase layer(kName);
    layer.Online({2, 2, 4}, {0, 0, 1, 1, 0, 0, 1, 1, 0, 0, 1, 1, 5, 5, 6, 6});
    layer.Online({2, 2, 2}, {0.5f, 0.6f, 0.9f, 0.8f, -1, -1, 0.3f, 0.2f}).Output({6, 3}, 16).Workspace(24);
    layer.Attr<NonMaxSuppressionAttr>().inputCount = 2;
    EXPECT_THAT(Rows(layer),
                ElementsAre(ElementsAre(0, 0, 1), ElementsAre(0, 1, 0), ElementsAre(1, 1, 0), ElementsAre(1, 1, 1)));
}

TEST(NonMaxSuppression, NothingSelected)
{
    World world(Suppress(Disjoint(3), {-1, -1, -1}));
    ASSERT_EQ(world.RunRequest(), 0u);
    for (const float& value : world.OutputRows()) {
        uint32_t word = 0;
        std::memcpy(&word, &value, 4);
        EXPECT_EQ(word, 0xFFFFFFFFu);
    }
    LayerCase noBoxes(kName);
    noBoxes.Online({1, 0, 4}, {}).Online({1, 1, 1}, {5}).Output({1, 3}).Workspace(8);
    noBoxes.Attr<NonMaxSuppressionAttr>();
    EXPECT_THAT(Rows(noBoxes), ElementsAre());
}

TEST(NonMaxSuppression, Compacting)
{
    LayerCase layer(kName);
    layer.Online({2, 1, 4}, {0, 0, 1, 1, 5, 5, 6, 6}, 32).Online({2, 1, 1}, {0.5f, 0.6f}, 16);
    layer.Output({3, 3}, 16).Workspace(16);
    layer.Attr<NonMaxSuppressionAttr>();
    EXPECT_THAT(Rows(layer), ElementsAre(ElementsAre(0, 0, 0), ElementsAre(1, 0, 0)));
    World world(layer);
    ASSERT_EQ(world.RunRequest(), 0u);
    EXPECT_THAT(std::vector<float>(world.InputRows(0).begin(), world.InputRows(0).begin() + 8),
                ElementsAre(0, 0, 1, 1, 5, 5, 6, 6));
    EXPECT_THAT(std::vector<float>(world.InputRows(1).begin(), world.InputRows(1).begin() + 2),
                ElementsAre(0.5f, 0.6f));
}

TEST(NonMaxSuppression, Failures)
{
    const auto messages = [](const LayerCase& layer) {
        World world(layer);
        const RunResult run = RunCaptured(world, NonMaxSuppressionOpkitForward);
        EXPECT_EQ(run.result, OPKIT_FAILURE);
        return run.messages;
    };
    const std::string unresolved = "[NonMaxSuppressionOpkitForward:#]ParseInputInfo failed.\n\n";
    LayerCase one(kName);
    one.Online({1, 1, 4}, {0, 0, 1, 1}).Output({2, 3}).Workspace(16);
    one.Attr<NonMaxSuppressionAttr>().inputCount = -3;  // boxes and scores are read all the same
    EXPECT_EQ(messages(one), unresolved);
    for (const int32_t inputCount : {3, 4, 5, 6}) {
        LayerCase few =
            Suppress(Disjoint(1), {1}, std::vector<float>(static_cast<size_t>(std::min(inputCount, 5) - 3)));
        few.Attr<NonMaxSuppressionAttr>().inputCount = inputCount;
        EXPECT_EQ(messages(few), unresolved);
    }
    for (const uint32_t k : {0u, 1u, 2u, 3u, 4u}) {
        LayerCase nullInput(kName);
        nullInput.Online({1, 1, 4}, {0, 0, 1, 1}, 32).Online({1, 1, 1}, {1}, 16);
        nullInput.Online({1}, {0}, 16).Online({1}, {0}, 16).Online({1}, {0}, 16).Output({2, 3}).Workspace(16);
        nullInput.Attr<NonMaxSuppressionAttr>().inputCount = 5;
        nullInput.Tamper([k](World& w) { w.Param().inputs[k].data = nullptr; });
        EXPECT_EQ(messages(nullInput),
                  "[DelAlignSpace:#]Input data is NULL.\n\n[NonMaxSuppressionOpkitForward:#]DelAlignSpace failed.\n\n");
    }
    LayerCase nullOutput = Suppress(Disjoint(1), {1});
    nullOutput.Tamper([](World& w) { w.Param().outputs[0].data = nullptr; });
    EXPECT_EQ(messages(nullOutput), "[NonMaxSuppressionOpkitForward:#]init outputdata failed!\n");
    LayerCase noWidth(kName);
    noWidth.Online({1, 1, 4}, {0, 0, 1, 1}).Online({1, 1, 1}, {-1}).Output({2, 0}).Workspace(16);
    noWidth.Attr<NonMaxSuppressionAttr>();
    EXPECT_EQ(messages(noWidth), "[NonMaxSuppressionOpkitForward:#]widthOut can't be zero.\n\n");
}

// ---- the heap ----

struct Heap {
    explicit Heap(int32_t capacity) : memory(static_cast<size_t>(capacity) + 2, {99, 99})
    {
        LayerParam param = {};
        param.opkitBuf = memory.data();
        Init(&heap, &param, capacity);
    }

    std::vector<float> PopAll()
    {
        std::vector<float> scores;
        while (!IsEmpty(&heap)) {
            float score = 0;
            Pop(&heap, &score);
            scores.push_back(score);
        }
        return scores;
    }

    std::vector<HeapSlot> memory;
    BoxHeap heap = {};
};

TEST(BoxHeap, InitClearsAndNumbers)
{
    const Heap heap(2);
    EXPECT_EQ(heap.heap.capacity, 2);
    EXPECT_EQ(heap.heap.size, 0);
    EXPECT_EQ(heap.heap.slots, heap.memory.data());
    for (uint32_t k = 0; k < 3; ++k) {
        EXPECT_EQ(heap.memory[k].score, 0);
        EXPECT_EQ(heap.memory[k].index, k);
    }
    EXPECT_EQ(heap.memory[3].index, 99u);
    LayerParam param = {};
    BoxHeap untouched = {7, 8, nullptr};
    Init(&untouched, &param, 0);
    Init(&untouched, &param, -1);
    EXPECT_EQ(untouched.capacity, 7);
    EXPECT_EQ(untouched.size, 8);
}

TEST(BoxHeap, EmptyAndFull)
{
    EXPECT_FALSE(IsEmpty(nullptr));
    EXPECT_FALSE(IsFull(nullptr));
    Heap heap(1);
    EXPECT_TRUE(IsEmpty(&heap.heap));
    EXPECT_FALSE(IsFull(&heap.heap));
    float score = 42;
    EXPECT_EQ(FindMax(&heap.heap, &score), 0u);
    EXPECT_EQ(Pop(&heap.heap, &score), 0u);
    EXPECT_EQ(score, 42);  // nothing is stored
    EXPECT_EQ(Push(5, &heap.heap, 0.5f), 1u);
    EXPECT_FALSE(IsEmpty(&heap.heap));
    EXPECT_TRUE(IsFull(&heap.heap));
    EXPECT_EQ(Push(6, &heap.heap, 0.75f), 0u);
    EXPECT_EQ(FindMax(&heap.heap, &score), 5u);
    EXPECT_EQ(score, 0.5f);
    score = 0;
    EXPECT_EQ(Pop(&heap.heap, &score), 1u);  // the last entry: 1, whatever its index
    EXPECT_EQ(score, 0.5f);
    EXPECT_EQ(heap.memory[1].score, 0);
    EXPECT_EQ(heap.memory[1].index, 5u);
    EXPECT_EQ(heap.heap.size, 0);
}

TEST(BoxHeap, PushKeepsEqualsBelow)
{
    Heap heap(3);
    for (const uint32_t index : {10u, 11u, 12u}) {
        Push(index, &heap.heap, index == 12 ? 2.0f : 1.0f);
    }
    // 12 rose above 10; 11 stayed below its equal.
    EXPECT_EQ(heap.memory[1].index, 12u);
    EXPECT_EQ(heap.memory[2].index, 11u);
    EXPECT_EQ(heap.memory[3].index, 10u);
}

TEST(BoxHeap, PopReturnsTheMovedEntry)
{
    Heap heap(4);
    Push(20, &heap.heap, 10);
    Push(21, &heap.heap, 8);
    Push(22, &heap.heap, 5);
    float score = 0;
    EXPECT_EQ(Pop(&heap.heap, &score), 22u);  // 5 is the root, 8 below it
    EXPECT_EQ(score, 10);
    EXPECT_EQ(FindMax(&heap.heap, &score), 22u);
    EXPECT_THAT(heap.PopAll(), ElementsAre(5, 8));
}

// Five entries 9 8 7 6 5 in slots 1 to 5. The first pop leaves four: 5 replaces 9, 8 rises, and 6, the left child in
// the very last slot, is not compared with 5.
TEST(BoxHeap, LastLeftChildIsNotCompared)
{
    Heap heap(5);
    for (const float score : {9.0f, 8.0f, 7.0f, 6.0f, 5.0f}) {
        Push(static_cast<uint32_t>(score), &heap.heap, score);
    }
    float score = 0;
    Pop(&heap.heap, &score);
    EXPECT_EQ(heap.memory[1].score, 8);
    EXPECT_EQ(heap.memory[2].score, 5);
    EXPECT_EQ(heap.memory[4].score, 6);
    // Then 6 against 5 and 7: 7 rises and ends at 3; two entries left are swapped blindly.
    EXPECT_THAT(heap.PopAll(), ElementsAre(8, 7, 6, 5));
}

TEST(BoxHeap, SameAsReference)
{
    ForRandomCases(500, [](Random& random) {
        const int32_t capacity = random.Int(1, 60);
        const int32_t distinct = random.OneOf({1, 4, 1000});
        Heap heap(capacity);
        RefHeap expected;
        expected.slots.resize(static_cast<size_t>(capacity) + 1);
        for (int step = 0; step < 200; ++step) {
            if (random.Chance(0.55) && !IsFull(&heap.heap)) {
                const auto score = static_cast<float>(random.Int(-distinct, distinct));
                const uint32_t index = random.Word() % 1000;
                EXPECT_EQ(Push(index, &heap.heap, score), 1u);
                expected.Push(index, score);
            } else if (!IsEmpty(&heap.heap)) {
                float found = 0, popped = 0;
                EXPECT_EQ(FindMax(&heap.heap, &found), expected.slots[1].index);
                EXPECT_EQ(found, expected.slots[1].score);
                Pop(&heap.heap, &popped);
                EXPECT_EQ(popped, found);
                expected.Pop();
            }
            ASSERT_EQ(static_cast<uint32_t>(heap.heap.size), expected.size);
        }
    });
}

// ---- overlaps ----

TEST(SuppressByIou, Corners)
{
    float boxes[] = {0, 0, 2, 2, 2, 3, 0, 1, 0, 2, 2, 4, 0, 0, 0, 2, 0, 0, kInf, kInf};
    EXPECT_TRUE(SuppressByIOU(boxes, 0, 1, 0, 0.33f));
    EXPECT_FALSE(SuppressByIOU(boxes, 0, 1, 0, 0.34f));
    EXPECT_FALSE(SuppressByIOU(boxes, 0, 2, 0, 0.0f));
    EXPECT_FALSE(SuppressByIOU(boxes, 0, 2, 0, -1.0f));  // no overlap is none, whatever the threshold
    EXPECT_TRUE(SuppressByIOU(boxes, 0, 0, 0, 0.99f));
    EXPECT_FALSE(SuppressByIOU(boxes, 0, 0, 0, 1.0f));
    EXPECT_FALSE(SuppressByIOU(boxes, 3, 3, 0, 0.0f));  // no area
    EXPECT_FALSE(SuppressByIOU(boxes, 0, 4, 0, 0.0f));  // 4 of infinitely much
    EXPECT_TRUE(SuppressByIOU(boxes, 0, 4, 0, -1.0f));
}

TEST(SuppressByIou, SameAsReference)
{
    ForRandomCases(3000, [](Random& random) {
        std::vector<float> boxes = random.Floats(12, random.OneOf({Values::kIntegers, Values::kPlain, Values::kMixed}));
        const uint32_t center = random.OneOf({0u, 1u});
        const float threshold = random.OneOf({0.0f, 0.1f, 0.5f, 1.0f, -1.0f});
        EXPECT_EQ(SuppressByIOU(boxes.data(), 2, 0, center, threshold),
                  RefSuppressByIou(boxes.data(), 2, 0, center, threshold))
            << testing::PrintToString(boxes);
    });
}

TEST(SuppressByIou, MinAndMax)
{
    float min = 0, max = 0;
    MaxMin(&min, &max, 3, 1);
    EXPECT_EQ(min, 1);
    EXPECT_EQ(max, 3);
    MaxMin(&min, &max, 1, 3);
    EXPECT_EQ(min, 1);
    EXPECT_EQ(max, 3);
    MaxMin(&min, &max, 0.0f, -0.0f);  // equal: b is the minimum
    EXPECT_TRUE(std::signbit(min));
    EXPECT_FALSE(std::signbit(max));
    MaxMin(&min, &max, kNan, 3);
    EXPECT_TRUE(std::isnan(min));
    EXPECT_EQ(max, 3);
    EXPECT_EQ(HelperMin(1, 2), 1);
    EXPECT_EQ(HelperMin(2, 1), 1);
    EXPECT_EQ(HelperMin(kNan, 1), 1);
    EXPECT_TRUE(std::isnan(HelperMin(1, kNan)));
    EXPECT_EQ(HelperMax(1, 2), 2);
    EXPECT_EQ(HelperMax(2, 1), 2);
    EXPECT_TRUE(std::isnan(HelperMax(kNan, 1)));
    EXPECT_EQ(HelperMax(1, kNan), 1);
}

}  // namespace
}  // namespace opkit
