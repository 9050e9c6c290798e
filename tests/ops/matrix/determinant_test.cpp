#include "tests/reference/determinant.h"
#include "tests/ops/matrix/matrix_cases.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;

constexpr const char* kName = "DetOpkitForward";

struct Row {
    uint32_t n;
    Floats matrix;
    float det;
    Floats after;  // the eliminated matrix
};

TEST(CalculateDet, ByHand)
{
    const float tiny = 1e-6f;
    const float aboveTiny = std::nextafterf(tiny, 1.0f);
    const Row rows[] = {
        {0, {}, 1, {}},
        {1, {-3}, -3, {-3}},
        {1, {kNan}, kNan, {kNan}},
        {2, {0, 1, 1, 0}, -1, {1, 0, 0, 1}},
        {2, {4, 2, 2, 3}, 8, {4, 2, 0, 2}},
        {2, {0, 0, 0, 0}, 0, {0, 0, 0, 0}},
        {2, {2, 2, 2, 2}, 0, {2, 2, 0, 0}},        // the diagonal entry is not beaten by its equals
        {2, {1, -4, 4, 2}, 18, {-4, 1, 0, 4.5f}},  // the first of equal magnitudes: row 0, column 1
        {2, {1, 2, -4, 4}, 12, {-4, 4, 0, 3}},     // ... and the leftmost in a row; one swap of rows
        {2, {1, 2, 3, 8}, 2, {8, 3, 0, 0.25f}},    // two swaps
        {3, {2, 0, 0, 0, 3, 0, 0, 0, 4}, 24, {4, 0, 0, 0, 3, 0, 0, 0, 2}},
        {2, {1, 0.5f, tiny, 1}, 1, {1, 0.5f, tiny, 1}},  // within the tolerance: not eliminated
        {2, {1, 0.5f, aboveTiny, 1}, 1 - 0.5f * aboveTiny, {1, 0.5f, 0, 1 - 0.5f * aboveTiny}},
        {2, {kNan, 9, 1, 2}, kNan, {kNan, 9, kNan, kNan}},  // a NaN on the diagonal is not beaten
        {2, {1, kNan, 0, 2}, kNan, {2, 0, kNan, kNan}},     // elsewhere it does not become one, yet it spreads
    };
    ForEachLevel([&](Level) {
        for (const Row& row : rows) {
            Floats matrix = row.matrix;
            matrix.resize(row.matrix.size() + 1, 77.0f);
            float det = -1;
            EXPECT_EQ(CalculateDet(matrix.data(), &det, row.n), 0u);
            EXPECT_TRUE(SameFloats(Floats{det}, Floats{row.det})) << testing::PrintToString(row.matrix);
            matrix.pop_back();
            EXPECT_TRUE(SameFloats(matrix, row.after)) << testing::PrintToString(row.matrix);
        }
    });
}

TEST(CalculateDet, ProductInDoubles)
{
    // 1e30 * 1e30 * 1e-30 * 1e-30: the partial products leave the range of f32
    Floats matrix(16);
    matrix[0] = matrix[5] = 1e30f;
    matrix[10] = matrix[15] = 1e-30f;
    float det = 0;
    EXPECT_EQ(CalculateDet(matrix.data(), &det, 4), 0u);
    const double up = static_cast<double>(1e30f);
    const double down = static_cast<double>(1e-30f);
    EXPECT_EQ(det, static_cast<float>(up * up * down * down));
    EXPECT_NEAR(det, 1.0f, 1e-6f);
}

TEST(CalculateDet, NullPointers)
{
    float value = 5;
    for (const bool noMatrix : {false, true}) {
        CaptureStdout capture;
        EXPECT_EQ(CalculateDet(noMatrix ? nullptr : &value, noMatrix ? &value : nullptr, 0), kAll);
        EXPECT_EQ(NormalizeMessages(capture.Stop()), Message("CalculateDet", "input/output pointer is empty.\n\n"));
    }
    EXPECT_EQ(value, 5);
}

TEST(GetMaxRowAndCol, ScanOrder)
{
    const struct {
        Floats matrix;
        uint32_t k, row, col;
    } rows[] = {
        {{1, 2, 3, 4, 5, -9, 7, 9, 8}, 0, 1, 2},   // the first of two nines
        {{1, 2, 3, 4, 5, 5, 7, -5, 5}, 1, 1, 1},   // equals do not beat the diagonal
        {{1, 2, 30, 4, 5, 6, 70, 8, 7}, 1, 2, 1},  // only from row and column k on
        {{1, 2, 3, 4, 5, 6, 7, 8, 9}, 2, 2, 2},          {{1, 2, 3, 4, 5, 6, 7, 8, 9}, 3, 3, 3},  // k at n: nothing
        {{kNan, 2, 3, 4, 5, 6, 7, 8, kInf}, 0, 0, 0},    {{1, kNan, -kInf, kInf, 5, 6, 7, 8, 9}, 0, 0, 2},
        {{-0.0f, 0, 0, 1e-45f, 0, 0, 0, 0, 0}, 0, 1, 0}, {{0, -0.0f, 0, 0, 0, 0, 0, 0, 0}, 0, 0, 0},
    };
    ForEachLevel([&](Level) {
        for (const auto& expected : rows) {
            Floats matrix = expected.matrix;
            uint32_t row = expected.k;
            uint32_t col = expected.k;
            GetMaxRowAndCol(matrix.data(), 3, expected.k, &row, &col);
            EXPECT_EQ(row, expected.row) << testing::PrintToString(matrix);
            EXPECT_EQ(col, expected.col) << testing::PrintToString(matrix);
        }
    });
}

TEST(SwapRowAndCol, WholeRowsAndColumns)
{
    Floats matrix = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    SwapRow(matrix.data(), 3, 0, 2);
    EXPECT_TRUE(SameFloats(matrix, Floats{7, 8, 9, 4, 5, 6, 1, 2, 3}));
    SwapCol(matrix.data(), 3, 1, 0);
    EXPECT_TRUE(SameFloats(matrix, Floats{8, 7, 9, 5, 4, 6, 2, 1, 3}));
    SwapRow(matrix.data(), 3, 1, 1);
    SwapCol(matrix.data(), 3, 2, 2);
    EXPECT_TRUE(SameFloats(matrix, Floats{8, 7, 9, 5, 4, 6, 2, 1, 3}));
}

TEST(Det, StackWhoseOutputIsTheInput)
{
    LayerCase layer(kName);
    layer.Online({2, 2, 2}, {4, 2, 2, 3, 0, 1, 1, 0}, 16).Output({2, 1}, 8);
    ForEachLevel([&](Level) {
        World world(layer);
        const float gap = world.OutputRows(0)[1];
        ExpectSuccess(RunCaptured(world, DetOpkitForward));
        EXPECT_TRUE(SameFloats(world.Output(0), Floats{8, -1}));
        EXPECT_TRUE(SameFloats(world.InputRows(0).first(8), Floats{4, 2, 0, 2, 1, 0, 0, 1}));  // compact, eliminated
        EXPECT_NE(gap, world.OutputRows(0)[2]);
    });
    LayerCase constant(kName);
    constant.Offline({2, 2}, {4, 2, 2, 3}).Online({1}, {0}).Output({1}).Batch(2);
    World world(constant);
    ExpectSuccess(RunCaptured(world, DetOpkitForward));
    EXPECT_TRUE(SameFloats(world.OfflineData(0), Floats{4, 2, 0, 2}));
    EXPECT_TRUE(SameFloats(world.Output(0, 1), Floats{8}));
}

TEST(Det, EmptyMatricesAndOutputs)
{
    LayerCase none(kName);
    none.Online({2, 2}, {4, 2, 2, 3}, 12).Output({0, 2});
    World world(none);
    ExpectSuccess(RunCaptured(world, DetOpkitForward));
    EXPECT_TRUE(SameFloats(world.InputRows(0).first(4), Floats{4, 2, 2, 3}));
    LayerCase ones(kName);  // matrices of no rows
    ones.Offline({3, 0, 0}, {}).Online({1}, {0}).Output({3});
    ExpectOutput(ones, DetOpkitForward, {1, 1, 1});
}

TEST(Det, Failures)
{
    LayerCase missing(kName);
    missing.Online({1}, {1}).Output({1}).Tamper([](World& world) { world.Layer().inputNum = 0; });
    ExpectFailure(missing, DetOpkitForward, Message(kName, "ParseInputInfo failed.\n\n"));
    LayerCase null(kName);
    null.Online({2, 2}, {1, 2, 3, 4}, 12).Output({1});
    NullInput(null, 0);
    ExpectFailure(null, DetOpkitForward,
                  Message("DelAlignSpace", "Input data is NULL.\n\n") + Message(kName, "DelAlignSpace failed.\n\n"));
    LayerCase nullCompact(kName);
    nullCompact.Online({2, 2}, {1, 2, 3, 4}).Output({1});
    NullInput(nullCompact, 0);
    ExpectFailure(nullCompact, DetOpkitForward, Message("CalculateDet", "input/output pointer is empty.\n\n"));
    LayerCase noWidth(kName);
    noWidth.Online({2, 2}, {1, 2, 3, 4}).Output({2, 0});
    ExpectFailure(noWidth, DetOpkitForward, Message(kName, "widthOut can't be zero.\n\n"));
    LayerCase nullOutput(kName);
    nullOutput.Online({2, 2}, {1, 2, 3, 4}).Output({0, 2});
    NullOutput(nullOutput);
    ExpectFailure(
        nullOutput, DetOpkitForward,
        Message("InsertAlignSpace", "Input data is NULL.\n\n") + Message(kName, "InsertAlignSpace failed.\n\n"));
}

TEST(Det, SameAsReference)
{
    ForRandomCases(400, [](Random& random) {
        const auto size = [&random](int32_t most) { return static_cast<uint32_t>(random.Int(1, most)); };
        const uint32_t n = random.Chance(0.2) ? size(40) : size(8);
        const Shape result = random.OneOf<Shape>({{1}, {size(5)}, {size(3), size(4)}});
        const Values kind = random.OneOf({Values::kPlain, Values::kIntegers, Values::kUnit, Values::kMixed});
        Floats data = random.Floats(ElementCount(result) * n * n, kind);
        if (random.Chance(0.3)) {  // nearly singular
            for (float& x : data) {
                x = std::floor(x) + static_cast<float>(random.Int(-2, 2)) * 6e-7f;
            }
        }
        LayerCase layer(kName);
        const Shape shape = Stacked(result, n, n);
        random.Chance(0.4) ? layer.Offline(shape, data).Online({1}, {0}) : layer.Online(shape, data, random.Stride(n));
        layer.Output(result, random.Stride(result.back())).Batch(size(2));
        ExpectSameAsReference(layer, DetOpkitForward, RefDet, {.nan = NanPolicy::kAnyNan});
    });
}

}  // namespace
}  // namespace opkit
