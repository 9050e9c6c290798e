#include "tools/show.h"

#include <fmt/core.h>
#include <algorithm>
#include <cmath>

#include "tools/difference.h"

namespace opkit::tools {
namespace {

using modelkit::Shape;

constexpr size_t kRowsShown = 8;    // at either end
constexpr size_t kValuesShown = 8;  // at either end of a row

// Minimum, maximum and mean are those of the finite elements.
void PrintSummary(const std::string& name, const Shape& shape, std::span<const float> values)
{
    size_t finite = 0;
    size_t nan = 0;
    size_t zeros = 0;
    double sum = 0;
    float least = INFINITY;
    float most = -INFINITY;
    for (const float value : values) {
        nan += std::isnan(value) ? 1 : 0;
        zeros += value == 0 ? 1 : 0;
        if (std::isfinite(value)) {
            ++finite;
            sum += value;
            least = std::min(least, value);
            most = std::max(most, value);
        }
    }
    const std::string range =
        finite == 0 ? "none finite"
                    : fmt::format("min {}  max {}  mean {:.6g}", least, most, sum / static_cast<double>(finite));
    fmt::print("\n{} {}  {}  NaN {}  infinite {}  zeros {}\n", name, modelkit::ShapeText(shape), range, nan,
               values.size() - finite - nan, zeros);
}

void PrintRow(std::span<const float> row)
{
    for (size_t i = 0; i < row.size(); ++i) {
        if (i == kValuesShown && row.size() > 2 * kValuesShown) {
            i = row.size() - kValuesShown;
            fmt::print(" ...");
        }
        fmt::print(" {:>12}", std::isnan(row[i]) ? "nan" : fmt::format("{:.6g}", row[i]));
    }
    fmt::print("\n");
}

}  // namespace

void ShowTensor(const std::string& name, const Shape& shape, std::span<const float> values)
{
    PrintSummary(name, shape, values);
    const size_t width = shape.empty() ? 1 : shape.back();
    const size_t rows = width == 0 ? 0 : values.size() / width;
    const Shape outer(shape.begin(), shape.end() - (shape.empty() ? 0 : 1));
    const size_t labelWidth = ElementText(outer, rows == 0 ? 0 : rows - 1).size();
    for (size_t row = 0; row < rows; ++row) {
        if (row == kRowsShown && rows > 2 * kRowsShown) {
            row = rows - kRowsShown;
            fmt::print("  ...\n");
        }
        fmt::print("  {:{}}", ElementText(outer, row), labelWidth);
        PrintRow(values.subspan(row * width, width));
    }
}

}  // namespace opkit::tools
