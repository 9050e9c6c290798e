// Unique and its exported helpers.

#include "tests/reference/unique.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <time.h>

#include <limits>
#include <numeric>

#include "tests/support/alloc_fault.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using modelkit::ElementCount;
using modelkit::Shape;
using ::testing::ElementsAre;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

const TwinOptions kWithSize = {.before = [] { g_size = -77; },
                               .after = [] { return std::vector<uint32_t>{static_cast<uint32_t>(g_size)}; }};

void SetUnique(LayerCase& layer, int32_t axis, uint32_t sorted)
{
    layer.Attr<UniqueAttr>().axis = axis;
    layer.Attr<UniqueAttr>().sorted = sorted;
}

LayerCase UniqueCase(const Shape& shape, const std::vector<float>& data, int32_t axis, uint32_t sorted,
                     const Shape& values, uint32_t entries)
{
    const bool flat = axis == OPKIT_UNIQUE_FLAT;
    const auto positions = flat ? static_cast<uint32_t>(ElementCount(shape)) : shape[static_cast<size_t>(axis)];
    LayerCase layer("UniqueOpkitForward");
    layer.Online(shape, data).Output(values).Output({entries}).Output({positions}).Output({entries});
    SetUnique(layer, axis, sorted);
    return layer;
}

struct UniqueResult {
    std::vector<float> values, firsts, inverse, counts;
};

UniqueResult ResultOf(const LayerCase& layer)
{
    World world(layer);
    EXPECT_EQ(world.RunDirect(UniqueOpkitForward), 0u);
    return {world.Output(0), world.Output(1), world.Output(2), world.Output(3)};
}

TEST(Unique, Flat)
{
    const std::vector<float> data = {2, 1, 1, 3, 2};
    const UniqueResult seen = ResultOf(UniqueCase({5}, data, OPKIT_UNIQUE_FLAT, 0, {3}, 3));
    EXPECT_THAT(seen.values, ElementsAre(2, 1, 3));
    EXPECT_THAT(seen.firsts, ElementsAre(0, 1, 3));
    EXPECT_THAT(seen.inverse, ElementsAre(0, 1, 1, 2, 0));
    EXPECT_THAT(seen.counts, ElementsAre(2, 2, 1));
    for (const uint32_t sorted : {1u, 2u, 0x101u}) {
        const UniqueResult result = ResultOf(UniqueCase({5}, data, OPKIT_UNIQUE_FLAT, sorted, {3}, 3));
        EXPECT_THAT(result.values, ElementsAre(1, 2, 3));
        EXPECT_THAT(result.firsts, ElementsAre(1, 0, 3));
        EXPECT_THAT(result.counts, ElementsAre(2, 2, 1));
        if (sorted == 1) {
            EXPECT_THAT(result.inverse, ElementsAre(1, 0, 0, 2, 1));
        } else {
            EXPECT_THAT(result.inverse, ElementsAre(0, 1, 1, 2, 0));
        }
    }
}

TEST(Unique, NanAndSignedZeros)
{
    const UniqueResult nans = ResultOf(UniqueCase({3}, {kNan, 1, kNan}, OPKIT_UNIQUE_FLAT, 0, {3}, 3));
    EXPECT_THAT(nans.inverse, ElementsAre(0, 1, 2));
    EXPECT_THAT(nans.counts, ElementsAre(1, 1, 1));
    const UniqueResult zeros = ResultOf(UniqueCase({3}, {-0.0f, 0.0f, -0.0f}, OPKIT_UNIQUE_FLAT, 1, {1}, 1));
    EXPECT_TRUE(std::signbit(zeros.values[0]));
    EXPECT_THAT(zeros.counts, ElementsAre(3));
    EXPECT_THAT(zeros.inverse, ElementsAre(0, 0, 0));
    // A NaN orders like an equal: the merge takes the right one. {2} against {NaN 1}: NaN and 1 change places, 1 goes
    // before 2, then the NaN before 2.
    const UniqueResult sorted = ResultOf(UniqueCase({3}, {2, kNan, 1}, OPKIT_UNIQUE_FLAT, 1, {3}, 3));
    EXPECT_THAT(sorted.firsts, ElementsAre(2, 1, 0));
    EXPECT_THAT(sorted.inverse, ElementsAre(2, 1, 0));
}

TEST(Unique, Slices)
{
    // Columns (1 4), (2 5), (1 4).
    const UniqueResult columns = ResultOf(UniqueCase({2, 3}, {1, 2, 1, 4, 5, 4}, 1, 0, {2, 2}, 2));
    EXPECT_THAT(columns.values, ElementsAre(1, 2, 4, 5));
    EXPECT_THAT(columns.firsts, ElementsAre(0, 1));
    EXPECT_THAT(columns.inverse, ElementsAre(0, 1, 0));
    EXPECT_THAT(columns.counts, ElementsAre(2, 1));
    EXPECT_EQ(g_size, 2);
    // Rows, in lexicographic order: the first float decides, then the second.
    const UniqueResult rows = ResultOf(UniqueCase({3, 2}, {2, 1, 1, 9, 1, 3}, 0, 1, {3, 2}, 3));
    EXPECT_THAT(rows.values, ElementsAre(1, 3, 1, 9, 2, 1));
    EXPECT_THAT(rows.firsts, ElementsAre(2, 1, 0));
    EXPECT_THAT(rows.inverse, ElementsAre(2, 1, 0));
    // Slices of the middle axis: {1 2, 5 6} and {3 4, 7 8} alternate.
    const UniqueResult middle =
        ResultOf(UniqueCase({2, 3, 2}, {3, 4, 1, 2, 3, 4, 7, 8, 5, 6, 7, 8}, 1, 1, {2, 2, 2}, 2));
    EXPECT_THAT(middle.values, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_THAT(middle.counts, ElementsAre(1, 2));
    EXPECT_THAT(middle.inverse, ElementsAre(1, 0, 1));
}

// The shapes come from the model: what lies behind the entries is moved by the expansion.
TEST(Unique, OutputsLargerThanTheResult)
{
    LayerCase layer("UniqueOpkitForward");
    layer.Online({2, 2}, {7, 7, 7, 5}, 12).Output({2, 2}, 12).Output({1, 4}, 20).Output({2, 2}, 16).Output({4}, 16);
    SetUnique(layer, OPKIT_UNIQUE_FLAT, 1);
    World world(layer);
    World before = world.Clone();
    EXPECT_EQ(world.RunDirect(UniqueOpkitForward), 0u);
    EXPECT_EQ(world.OutputRows(0)[0], 5.0f);
    EXPECT_EQ(world.OutputRows(0)[1], 7.0f);
    const auto old = before.OutputRows(0);  // compact elements 2 and 3 moved to the second row
    EXPECT_EQ(memcmp(&world.OutputRows(0)[3], &old[2], 8), 0);
    EXPECT_THAT(world.Output(2), ElementsAre(1, 1, 1, 0));
    const auto in = world.InputRows();  // compacted, and left so
    EXPECT_THAT(std::vector<float>(in.begin(), in.begin() + 4), ElementsAre(7, 7, 7, 5));
    ExpectSameAsReference(layer, UniqueOpkitForward, RefUnique, kWithSize);
}

TEST(Unique, NoPositions)
{
    LayerCase layer("UniqueOpkitForward");
    layer.Online({0, 3}, {}).Output({2, 3}, 16).Output({2}).Output({0}).Output({2});
    SetUnique(layer, 0, 1);
    ExpectSameAsReference(layer, UniqueOpkitForward, RefUnique, kWithSize);
    World world(layer);
    const RunResult run = RunCaptured(world, UniqueOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, "");
    EXPECT_EQ(g_size, 3);
}

// Slices without elements: each copy reports, all slices are equal, and the values cannot be written.
TEST(Unique, EmptySlices)
{
    const std::string slice = "[GetSubTensor:#]memcpy failed, errnum = 34\n";
    LayerCase fits("UniqueOpkitForward");
    fits.Online({2, 3, 0}, {}).Output({2, 3}).Output({1}).Output({3}).Output({1});
    SetUnique(fits, 1, 1);
    fits.Tamper([](World& world) { world.Param().inputs[0].stride = 0; });
    World world(fits);
    const RunResult run = RunCaptured(world, UniqueOpkitForward);
    EXPECT_EQ(run.result, 0u);
    EXPECT_EQ(run.messages, slice + slice + slice);
    EXPECT_THAT(world.Output(1), ElementsAre(0));
    EXPECT_THAT(world.Output(2), ElementsAre(0, 0, 0));
    EXPECT_THAT(world.Output(3), ElementsAre(3));
    ExpectSameAsReference(fits, UniqueOpkitForward, RefUnique, kWithSize);

    LayerCase empty("UniqueOpkitForward");
    empty.Online({2, 3, 0}, {}).Output({2, 0}).Output({1}).Output({3}).Output({1});
    SetUnique(empty, 1, 1);
    empty.Tamper([](World& w) { w.Param().inputs[0].stride = 0; });
    World emptyWorld(empty);
    const RunResult emptyRun = RunCaptured(emptyWorld, UniqueOpkitForward);
    EXPECT_EQ(emptyRun.result, UINT32_MAX);
    EXPECT_EQ(emptyRun.messages, slice + slice + slice + "[UniqueOpkitForward:#]memcpy failed, errnum = 34\n");
    ExpectSameAsReference(empty, UniqueOpkitForward, RefUnique, kWithSize);
}

// The values are bounded by the tensor's size: what fits is written, the first copy that does not fit clears the rest.
TEST(Unique, ValuesBeyondSize)
{
    LayerCase layer("UniqueOpkitForward");
    layer.Online({3, 2}, {1, 2, 3, 4, 5, 6}).Output({5}).Output({3}).Output({3}).Output({3});
    SetUnique(layer, 0, 0);
    World world(layer);
    const RunResult run = RunCaptured(world, UniqueOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages, "[UniqueOpkitForward:#]memcpy failed, errnum = 162\n");
    EXPECT_THAT(world.Output(0), ElementsAre(1, 2, 3, 4, 0));
    EXPECT_EQ(world.Output(1)[0], 0.0f);
    EXPECT_EQ(world.Output(1)[1], 1.0f);
    ExpectSameAsReference(layer, UniqueOpkitForward, RefUnique, kWithSize);

    // The sizes of the other outputs do not matter.
    LayerCase roomy("UniqueOpkitForward");
    roomy.Online({3, 2}, {1, 2, 3, 4, 5, 6}).Output({5}).Output({16}).Output({16}).Output({16});
    SetUnique(roomy, 0, 0);
    World roomyWorld(roomy);
    EXPECT_EQ(RunCaptured(roomyWorld, UniqueOpkitForward).messages,
              "[UniqueOpkitForward:#]memcpy failed, errnum = 162\n");
    EXPECT_THAT(roomyWorld.Output(0), ElementsAre(1, 2, 3, 4, 0));

    LayerCase none("UniqueOpkitForward");
    none.Online({3, 2}, {1, 2, 3, 4, 5, 6}).Output({4}).Output({3}).Output({3}).Output({3});
    SetUnique(none, 0, 0);
    World noneWorld(none);
    EXPECT_EQ(RunCaptured(noneWorld, UniqueOpkitForward).messages,
              "[UniqueOpkitForward:#]memcpy failed, errnum = 34\n");
    ExpectSameAsReference(none, UniqueOpkitForward, RefUnique, kWithSize);
}

TEST(Unique, Failures)
{
    LayerCase unresolved("UniqueOpkitForward");
    unresolved.Offline({2}, {1, 2}).Output({2}).Output({2}).Output({2}).Output({2});
    unresolved.Tamper([](World& world) { world.Attr<UniqueAttr>().head.offlineShape[0].dimNum = 0; });
    World world(unresolved);
    RunResult run = RunCaptured(world, UniqueOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages, "");

    LayerCase compact = UniqueCase({2, 2}, {1, 2, 3, 4}, 0, 0, {2, 2}, 2);
    compact.Tamper([](World& w) { w.Param().inputs[0].stride = 0; });
    World compactWorld(compact);
    g_size = 0;
    run = RunCaptured(compactWorld, UniqueOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages,
              "[DelAlignSpace:#]Illegal value, widthIn = 2, alignNumIn = 0\n"
              "[UniqueOpkitForward:#]DelAlignSpace failed.\n\n");
    EXPECT_EQ(g_size, 2);

    LayerCase expand("UniqueOpkitForward");
    expand.Online({0}, {}).Output({2}).Output({2}).Output({1}).Output({2});
    SetUnique(expand, OPKIT_UNIQUE_FLAT, 0);
    expand.Tamper([](World& w) { w.Param().outputs[3].data = nullptr; });
    World expandWorld(expand);
    run = RunCaptured(expandWorld, UniqueOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages,
              "[DelAlignSpace:#]Illegal value, widthIn = 0, alignNumIn = 1\n"
              "[UniqueOpkitForward:#]DelAlignSpace failed.\n\n");
    expand.Tamper([](World& w) { w.Param().inputs[0].stride = 0; });
    World expandWorld2(expand);
    run = RunCaptured(expandWorld2, UniqueOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages,
              "[InsertAlignSpace:#]Input data is NULL.\n\n"
              "[UniqueOpkitForward:#]InsertAlignSpace failed.\n\n");
}

TEST(Unique, OutOfMemory)
{
    if (!AllocFaultAvailable()) {
        return;
    }
    const LayerCase layer = UniqueCase({2, 2}, {1, 2, 1, 4}, OPKIT_UNIQUE_FLAT, 1, {4}, 4);
    World world(layer);
    const World before = world.Clone();
    LayerParam param = {};
    ASSERT_EQ(ParseLayerParam(&world.Param(),
                              reinterpret_cast<const uint32_t*>(world.ModelBytes().data() +
                                                                world.ModelInfo().tables[0].layerTableOffset)[1],
                              &param, 0),
              0u);
    CaptureStdout capture;
    AllocFault fault(0);
    const uint32_t result = UniqueOpkitForward(&param);
    fault.Disarm();
    EXPECT_THAT(NormalizeMessages(capture.Stop()),
                ::testing::MatchesRegex("\\[UniqueOpkitForward:#\\]Malloc [0-9]+ failed!\n\n"));
    EXPECT_EQ(result, UINT32_MAX);
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
    AllocFault all;
    EXPECT_EQ(UniqueOpkitForward(&param), 0u);
    all.Disarm();
    EXPECT_EQ(all.Seen(), 1u);  // all tables in one piece
    EXPECT_EQ(all.Live(), 0);
    ReleaseLayerParam(&param);
}

TEST(Unique, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const Shape shape = random.Shape(1, 4, 400);
        const auto rank = static_cast<int32_t>(shape.size());
        const int32_t axis = random.Chance(0.4) ? OPKIT_UNIQUE_FLAT : random.Int(0, rank - 1);
        const bool flat = axis == OPKIT_UNIQUE_FLAT;
        const auto positions = flat ? static_cast<uint32_t>(ElementCount(shape)) : shape[static_cast<size_t>(axis)];
        auto data =
            random.Floats(ElementCount(shape), random.OneOf({Values::kMixed, Values::kIntegers, Values::kBits}));
        if (random.Chance(0.5)) {  // so that whole slices are equal
            for (float& x : data) {
                x = random.Chance(0.03) ? kNan : random.OneOf({0.0f, -0.0f, 1.0f});
            }
        }
        LayerCase layer("UniqueOpkitForward");
        if (random.Chance(0.3)) {
            layer.Offline(shape, data);
        } else {
            layer.Online(shape, data, random.Stride(shape.back()));
        }
        const Shape values = flat ? Shape{positions} : shape;
        const Shape mapped = {positions};
        for (const Shape& out : {values, mapped, mapped, mapped}) {
            layer.Output(out, random.Stride(out.back()));
        }
        SetUnique(layer, axis, random.OneOf({0u, 1u, 1u, 2u}));
        layer.Batch(static_cast<uint32_t>(random.Int(1, 2)));
        ExpectSameAsReference(layer, UniqueOpkitForward, RefUnique, kWithSize);
    });
}

// Many entries, many of them NaN: a search that compared all with all would take minutes.
TEST(Unique, ManyEntries)
{
    constexpr uint32_t kCount = 400000;
    std::vector<float> data(kCount);
    for (uint32_t i = 0; i < kCount; ++i) {
        data[i] = i % 2 == 0 ? kNan : static_cast<float>(i / 4);
    }
    const UniqueResult result = ResultOf(UniqueCase({kCount}, data, OPKIT_UNIQUE_FLAT, 0, {kCount}, kCount));
    uint32_t next = 0;
    std::vector<float> expected(kCount);
    for (uint32_t i = 0; i < kCount; ++i) {
        const bool again = i % 4 == 3;  // i / 4 was seen at i - 2
        expected[i] = again ? expected[i - 2] : static_cast<float>(next++);
    }
    EXPECT_EQ(result.inverse, expected);
}

// Two pairs whose hashes meet, in the table's own hash: 0x29cfb4c5 and 0x3562c579.
TEST(Unique, EqualHashesAreNotEqualSlices)
{
    const std::vector<float> data = {101962, 3670, 101962, 123190, 3670, 68455};
    const UniqueResult result = ResultOf(UniqueCase({6}, data, OPKIT_UNIQUE_FLAT, 0, {4}, 4));
    EXPECT_THAT(result.values, ElementsAre(101962, 3670, 123190, 68455));
    EXPECT_THAT(result.inverse, ElementsAre(0, 1, 0, 2, 1, 3));
    EXPECT_THAT(result.counts, ElementsAre(2, 2, 1, 1));
}

// Slices of two floats that the table's own hash leads to the first 32 slots of `slots`.
std::vector<float> CrowdingSlices(uint32_t count, uint32_t slots)
{
    const auto mix = [](uint64_t state, float x) {
        state = (state ^ __builtin_bit_cast(uint32_t, x)) * 0xff51afd7ed558ccdu;
        return state ^ (state >> 32);
    };
    std::vector<float> data;
    for (uint32_t bits = 0x3f800000; data.size() < 2 * size_t{count}; ++bits) {
        const float x = __builtin_bit_cast(float, bits);
        const uint64_t hash = mix(mix(0x9e3779b97f4a7c15u, x), -x) * 0xc4ceb9fe1a85ec53u >> 32;
        if (hash % slots < 32) {
            data.insert(data.end(), {x, -x});
        }
    }
    return data;
}

TEST(Unique, CrowdedTable)
{
    constexpr uint32_t kCount = 512;
    std::vector<float> data = CrowdingSlices(kCount, 2 * kCount);
    Random random(1);
    for (const uint32_t sorted : {0u, 1u, 2u}) {
        for (uint32_t k = 0; k < 20; ++k) {  // some anywhere again, some NaN or a zero of either sign
            const auto from = data.begin() + 2 * random.Int(0, kCount - 1);
            std::copy(from, from + 2, data.begin() + 2 * random.Int(0, kCount - 1));
            data[static_cast<size_t>(random.Int(0, 2 * kCount - 1))] = random.OneOf({kNan, 0.0f, -0.0f});
        }
        ExpectSameAsReference(UniqueCase({kCount, 2}, data, 0, sorted, {kCount, 2}, kCount), UniqueOpkitForward,
                              RefUnique, kWithSize);
    }
}

// Data must not decide how long it takes: more than a hundred times as long when each search passes over all others.
TEST(Unique, CrowdedTableTakesNoLonger)
{
    constexpr uint32_t kCount = 1 << 15;
    const auto secondsWith = [](const std::vector<float>& data) {
        World world(UniqueCase({kCount, 2}, data, 0, 0, {kCount, 2}, kCount));
        timespec begin = {};
        timespec end = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &begin);
        EXPECT_EQ(world.RunDirect(UniqueOpkitForward), 0u);
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &end);
        EXPECT_EQ(world.Output(3), std::vector<float>(kCount, 1));
        return static_cast<double>(end.tv_sec - begin.tv_sec) + 1e-9 * static_cast<double>(end.tv_nsec - begin.tv_nsec);
    };
    std::vector<float> plain(2 * kCount);
    std::iota(plain.begin(), plain.end(), 0.0f);
    const double usual = secondsWith(plain);
    EXPECT_LT(secondsWith(CrowdingSlices(kCount, 2 * kCount)), 40 * usual + 0.005);
}

TEST(Unique, NoMemoryForValues)
{
    LayerCase layer = UniqueCase({2, 2}, {1, 2, 3, 4}, 0, 0, {2, 2}, 2);
    layer.Tamper([](World& world) { world.Param().outputs[0].data = nullptr; });
    World world(layer);
    const RunResult run = RunCaptured(world, UniqueOpkitForward);
    EXPECT_EQ(run.result, UINT32_MAX);
    EXPECT_EQ(run.messages, "[UniqueOpkitForward:#]memcpy failed, errnum = 22\n");
}

TEST(Unique, Helpers)
{
    float a[] = {1, 0.0f, 3};
    float b[] = {1, -0.0f, 4};
    float nan[] = {kNan};
    EXPECT_EQ(IsEqualTwoArray(a, b, 2), 1);
    EXPECT_EQ(IsEqualTwoArray(a, b, 3), 0);
    EXPECT_EQ(IsEqualTwoArray(a, b, 0), 1);
    EXPECT_EQ(IsEqualTwoArray(nullptr, nullptr, -1), 1);
    EXPECT_EQ(IsEqualTwoArray(nan, nan, 1), 0);

    UniqueEntry table[] = {{nan, 0, 0, 1}, {b, 1, 1, 1}, {a, 2, 2, 1}};
    EXPECT_EQ(FindKey(table, a, 3, 2), 1u);
    EXPECT_EQ(FindKey(table + 1, a, 2, 3), 1u);
    EXPECT_EQ(FindKey(table, a, 1, 1), UINT32_MAX);
    EXPECT_EQ(FindKey(table, a, 0, 1), UINT32_MAX);
    EXPECT_EQ(FindKey(table, nan, 1, 1), UINT32_MAX);
    EXPECT_EQ(FindKey(table, nan, 1, 0), 0u);

    const auto compare = [](float* x, float* y, int32_t size) {
        g_size = size;
        const UniqueEntry left = {x, 0, 0, 0};
        const UniqueEntry right = {y, 0, 0, 0};
        return CompareUniqueVal(&left, &right);
    };
    EXPECT_EQ(compare(a, b, 3), 0);
    EXPECT_EQ(compare(b, a, 3), 1);
    EXPECT_EQ(compare(a, b, 2), 1);  // equal
    EXPECT_EQ(compare(a, b, 0), 1);
    EXPECT_EQ(compare(a, b, -1), 1);
    EXPECT_EQ(compare(nan, a, 1), 1);
    float withNan[] = {kNan, 2, 9};
    EXPECT_EQ(compare(a, withNan, 3), 0);  // the NaN is passed over, 0 is below 2

    float src[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};  // [2, 3, 2]
    float dst[] = {-1, -1, -1, -1, -1};
    GetSubTensor(src, dst, 1, 2, 2, 3);
    EXPECT_THAT(dst, ElementsAre(2, 3, 8, 9, -1));
    CaptureStdout capture;
    GetSubTensor(nullptr, dst, 0, 2, 2, 3);
    GetSubTensor(src, nullptr, 0, 2, 2, 3);
    GetSubTensor(src, dst, 0, 0, 2, 3);
    GetSubTensor(src, dst, 0, 2, 0, 3);
    EXPECT_EQ(NormalizeMessages(capture.Stop()),
              "[GetSubTensor:#]memcpy failed, errnum = 150\n"
              "[GetSubTensor:#]memcpy failed, errnum = 22\n"
              "[GetSubTensor:#]memcpy failed, errnum = 34\n");
    EXPECT_THAT(dst, ElementsAre(0, 0, 0, 0, -1));
}

}  // namespace
}  // namespace opkit
