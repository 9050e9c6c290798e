// Im2col, the bounds test and the transposed index.

#include <gtest/gtest.h>

#include <limits>
#include <numeric>
#include <vector>

#include "opkit/helpers.h"
#include "tests/reference/matrix_core.h"
#include "tests/support/capture.h"
#include "tests/support/float_bits.h"
#include "tests/support/levels.h"
#include "tests/support/random.h"

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::reference;
using Floats = std::vector<float>;

constexpr uint32_t kAll = 0xFFFFFFFFu;
constexpr float kUntouched = -77.0f;

struct Image {
    uint32_t channels, height, width;
};

// Kernel, padding (top, bottom, left, right), stride, dilation; each height first.
struct Window {
    uint32_t kernel[2] = {1, 1};
    uint32_t pad[4] = {0, 0, 0, 0};
    uint32_t stride[2] = {1, 1};
    uint32_t dilation[2] = {1, 1};
};

Im2colArgs Args(float* src, Image image, const Window& w, int32_t padValue, float* dst)
{
    return {src,      image.channels, image.height, image.width, w.kernel[0],   w.kernel[1],   w.pad[0], w.pad[1],
            w.pad[2], w.pad[3],       w.stride[0],  w.stride[1], w.dilation[0], w.dilation[1], padValue, dst};
}

// Image elements are 1, 2, 3, ...
void ExpectColumns(Image image, const Window& window, int32_t padValue, const Floats& expected)
{
    Floats src(size_t{image.channels} * image.height * image.width + 1);
    std::iota(src.begin(), src.end(), 1.0f);
    Floats whole = expected;
    whole.insert(whole.end(), 4, kUntouched);
    ForEachLevel([&](Level) {
        Floats dst(expected.size() + 4, kUntouched);
        CaptureStdout capture;
        EXPECT_EQ(Im2col(Args(src.data(), image, window, padValue, dst.data())), 0u);
        EXPECT_EQ(capture.Stop(), "");
        EXPECT_TRUE(SameFloats(dst, whole));
    });
}

TEST(Im2col, ByHand)
{
    ExpectColumns({2, 2, 3}, {}, 0, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    // 2 x 2 kernel over 2 x 3
    ExpectColumns({1, 2, 3}, {{2, 2}}, 0, {1, 2, 2, 3, 4, 5, 5, 6});
    // padding all round, with its value
    ExpectColumns({1, 1, 2}, {{1, 2}, {1, 0, 1, 1}}, 128, {128, 128, 128, 128, 1, 2, 128, 128, 128, 1, 2, 128});
    ExpectColumns({1, 1, 2}, {{1, 1}, {0, 1, 2, 1}}, -3, {-3, -3, 1, 2, -3, -3, -3, -3, -3, -3});
    // stride and dilation
    ExpectColumns({1, 1, 7}, {{1, 2}, {0, 0, 0, 0}, {1, 2}, {1, 3}}, 0, {1, 3, 4, 6});
    ExpectColumns({1, 5, 1}, {{2, 1}, {1, 0, 0, 0}, {3, 1}, {2, 1}}, 9, {9, 3, 2, 5});
    ExpectColumns({1, 1, 7}, {{1, 1}, {0, 0, 2, 0}, {1, 3}}, 0, {0, 2, 5});
    // a padding value that no float holds exactly
    ExpectColumns({1, 1, 1}, {{1, 1}, {0, 0, 1, 0}}, 16777217, {16777216, 1});
}

TEST(Im2col, NumeratorJustBelowZero)
{
    // width 1 under a kernel of 2: (1 - 2) / 2 + 1 is one column
    ExpectColumns({1, 1, 1}, {{1, 2}, {0, 0, 0, 0}, {1, 2}}, 5, {1, 5});
    ExpectColumns({1, 1, 2}, {{2, 1}, {0, 0, 0, 0}, {2, 1}}, 5, {1, 2, 5, 5});
    // (1 - 3) / 2 + 1 is none
    ExpectColumns({1, 1, 1}, {{1, 3}, {0, 0, 0, 0}, {1, 2}}, 5, {});
    ExpectColumns({1, 1, 4}, {{3, 1}, {0, 0, 0, 0}, {2, 1}}, 5, {});
}

TEST(Im2col, NothingToWrite)
{
    ExpectColumns({0, 2, 2}, {}, 0, {});
    ExpectColumns({1, 2, 2}, {{0, 1}}, 0, {});
    ExpectColumns({1, 2, 2}, {{0x80000000u, 1}}, 0, {});
    ExpectColumns({1, 2, 2}, {{1, 0}}, 0, {});
}

TEST(Im2col, StrideBelowZeroWalksBackward)
{
    // (1 + 1 - 5) / -1 + 1 = 4 columns at coordinates -1 + kw, then one less each
    ExpectColumns({1, 1, 1}, {{1, 5}, {0, 0, 1, 0}, {1, 0xFFFFFFFFu}}, 7,
                  {7, 7, 7, 7, 1, 7, 7, 7, 7, 1, 7, 7, 7, 7, 1, 7, 7, 7, 7, 1});
    ExpectColumns({1, 1, 1}, {{5, 1}, {1, 0, 0, 0}, {0xFFFFFFFFu, 1}}, 7,  // the same for rows
                  {7, 7, 7, 7, 1, 7, 7, 7, 7, 1, 7, 7, 7, 7, 1, 7, 7, 7, 7, 1});
}

// Coordinates that wrap, or would: sizes whose sum passes 2^31, strides and kernels as large.
TEST(Im2col, LargeNumbers)
{
    const uint32_t half = 0x80000000u;
    ExpectColumns({1, 1, 2}, {{1, 1}, {0, 0, 0, 0}, {1, 0x7FFFFFFFu}}, 9, {1});
    ExpectColumns({1, 1, 2}, {{1, 1}, {0, 0, 0, 0}, {1, half}}, 9, {1});
    // a padded width of 2^31 - 1: positions 0, 2^30 - 1 and 2^31 - 2
    ExpectColumns({1, 1, 1}, {{1, 1}, {0, 0, half - 2, 0}, {1, half / 2 - 1}}, 9, {9, 9, 1});
    // two more, and the room of 2^31 counts as negative
    ExpectColumns({1, 1, 2}, {{1, 1}, {0, 0, half - 1, 0}, {1, half - 1}}, 9, {});
    // a dilation of 2^31 with a single place, and one of 2^32 - 1, which steps backward
    ExpectColumns({1, 1, 2}, {{1, 1}, {0, 0, 0, 0}, {1, 1}, {half, half}}, 9, {1, 2});
    ExpectColumns({1, 1, 3}, {{1, 2}, {0, 0, 0, 0}, {1, 1}, {1, 0xFFFFFFFFu}}, 9, {1, 2, 3, 9, 9, 1, 2, 3});
    // places on top of each other, more than 2^16
    ExpectColumns({1, 1, 1}, {{1, 70000}, {0, 0, 0, 0}, {1, 1}, {1, 0}}, 9, Floats(70000, 1.0f));
}

TEST(Im2col, Failures)
{
    float value = 3.0f;
    float dst[4] = {kUntouched, kUntouched, kUntouched, kUntouched};
    Window noStrideH;
    noStrideH.stride[0] = 0;
    Window noStrideW;
    noStrideW.stride[1] = 0;
    const Window tooWide = {{1, 4}};
    const Window tooHigh = {{5, 1}, {1, 1, 0, 0}};
    const char* const null = "[Im2col:#]null point error!\n\n";
    const char* const divisor = "[Im2col:#]Im2Col Error: the divisor is 0!\n\n";
    const char* const exceeds = "[Im2col:#]Im2Col Error: the kernel exceeds the padded image!\n\n";
    const struct {
        Im2colArgs args;
        const char* message;
    } rows[] = {
        {Args(nullptr, {1, 1, 1}, {}, 0, dst), null},          {Args(&value, {1, 1, 1}, {}, 0, nullptr), null},
        {Args(nullptr, {1, 1, 1}, noStrideH, 0, dst), null},   {Args(&value, {1, 1, 1}, noStrideH, 0, dst), divisor},
        {Args(&value, {0, 1, 1}, noStrideW, 0, dst), divisor}, {Args(&value, {1, 1, 1}, tooWide, 0, dst), exceeds},
        {Args(&value, {1, 1, 1}, tooHigh, 0, dst), exceeds},
    };
    for (const auto& row : rows) {
        CaptureStdout capture;
        EXPECT_EQ(Im2col(row.args), kAll);
        EXPECT_EQ(NormalizeMessages(capture.Stop()), row.message);
    }
    EXPECT_TRUE(SameFloats(dst, Floats(4, kUntouched)));
}

TEST(Im2col, SameAsReference)
{
    ForRandomCases(600, [](Random& random) {
        const auto number = [&random](int32_t least, int32_t most) {
            return static_cast<uint32_t>(random.Int(least, most));
        };
        const Image image = {random.Chance(0.1) ? number(7, 20) : number(0, 3), number(1, 9),
                             random.Chance(0.3) ? number(1, 70) : number(1, 9)};
        const bool same = random.Chance(0.3);  // kernel and padding that keep the size
        Window w = {{number(1, 4), number(1, 4)},
                    {number(0, 5), number(0, 5), number(0, 5), number(0, 5)},
                    {number(1, 4), number(1, 4)},
                    {number(0, 3), number(1, 6)}};
        if (same) {
            w = {{3, 3}, {1, 1, 1, 1}};
        }
        const int32_t outH = RefPositions(image.height, w.pad[0], w.pad[1], w.kernel[0], w.dilation[0], w.stride[0]);
        const int32_t outW = RefPositions(image.width, w.pad[2], w.pad[3], w.kernel[1], w.dilation[1], w.stride[1]);
        if (outH < 0 || outW < 0) {
            return;
        }
        Floats src = random.Floats(uint64_t{image.channels} * image.height * image.width + 1, Values::kPlain);
        const size_t size = size_t{image.channels} * w.kernel[0] * w.kernel[1] * static_cast<uint32_t>(outH * outW);
        Floats expected(size + 1, kUntouched);
        const int32_t padValue = random.OneOf({0, 128, -5, std::numeric_limits<int32_t>::min()});
        EXPECT_EQ(RefIm2col(Args(src.data(), image, w, padValue, expected.data())), 0u);
        ForEachLevel([&](Level) {
            Floats dst(size + 1, kUntouched);
            EXPECT_EQ(Im2col(Args(src.data(), image, w, padValue, dst.data())), 0u);
            EXPECT_TRUE(SameFloats(dst, expected))
                << "image " << image.channels << " " << image.height << " " << image.width << ", kernel " << w.kernel[0]
                << " " << w.kernel[1] << ", padding " << w.pad[0] << " " << w.pad[1] << " " << w.pad[2] << " "
                << w.pad[3] << ", stride " << w.stride[0] << " " << w.stride[1] << ", dilation " << w.dilation[0] << " "
                << w.dilation[1];
        });
    });
}

TEST(IsAgeZeroAndAltB, UnsignedComparison)
{
    EXPECT_TRUE(IsAgeZeroAndAltB(0, 1));
    EXPECT_FALSE(IsAgeZeroAndAltB(1, 1));
    EXPECT_FALSE(IsAgeZeroAndAltB(0, 0));
    EXPECT_FALSE(IsAgeZeroAndAltB(static_cast<uint32_t>(-1), 5));
    EXPECT_TRUE(IsAgeZeroAndAltB(5, static_cast<uint32_t>(-1)));
}

TEST(GetTransposeInd, SquareMatrix)
{
    const uint32_t expected[] = {0, 3, 6, 1, 4, 7, 2, 5, 8};
    for (uint32_t i = 0; i < 9; ++i) {
        EXPECT_EQ(GetTransposeInd(i, 3), expected[i]);
    }
    EXPECT_EQ(GetTransposeInd(7, 1), 7u);
    CaptureStdout capture;
    EXPECT_EQ(GetTransposeInd(5, 0), 0u);
    EXPECT_EQ(NormalizeMessages(capture.Stop()), "[GetTransposeInd:#]Illegal value, c is 0\n");
}

}  // namespace
}  // namespace opkit
