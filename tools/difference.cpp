#include "tools/difference.h"

#include <fmt/core.h>
#include <algorithm>
#include <bit>
#include <cmath>
#include <optional>

namespace opkit::tools {
namespace {

// Positions on the line of all floats: the next float is 1 further. The two zeros are neighbours.
int64_t Position(float value)
{
    const auto bits = std::bit_cast<uint32_t>(value);
    return (bits >> 31) != 0 ? -int64_t{bits & 0x7fffffff} - 1 : int64_t{bits};
}

// 0 for equal bits and for any two NaNs; nothing where one of them is NaN.
std::optional<uint64_t> UlpsApart(float a, float b)
{
    if (std::isnan(a) || std::isnan(b)) {
        return std::isnan(a) && std::isnan(b) ? std::optional<uint64_t>(0) : std::nullopt;
    }
    return static_cast<uint64_t>(std::abs(Position(a) - Position(b)));
}

}  // namespace

void Difference::Add(const Difference& other)
{
    elements += other.elements;
    ulps = std::max(ulps, other.ulps);
    distance = std::max(distance, other.distance);
    nan = nan || other.nan;
}

Difference Compare(std::span<const float> here, std::span<const float> there, double tolerance)
{
    Difference difference;
    for (size_t i = 0; i < here.size(); ++i) {
        const std::optional<uint64_t> ulps = UlpsApart(here[i], there[i]);
        if (ulps == uint64_t{0}) {
            continue;
        }
        const double a = here[i];
        const double b = there[i];
        if (ulps) {
            difference.distance = std::max(difference.distance, std::abs(a - b));
        }
        // Infinities are alike only by their bits: the distance to them is no smaller than any share of it.
        const bool finite = std::isfinite(a) && std::isfinite(b);
        if (finite && tolerance > 0 && std::abs(a - b) <= tolerance * std::max({1.0, std::abs(a), std::abs(b)})) {
            continue;
        }
        difference.firstElement = difference.elements == 0 ? i : difference.firstElement;
        ++difference.elements;
        difference.nan = difference.nan || !ulps;
        difference.ulps = std::max(difference.ulps, ulps.value_or(0));
    }
    return difference;
}

std::string DistanceText(float here, float there)
{
    const std::optional<uint64_t> ulps = UlpsApart(here, there);
    return ulps ? fmt::format("{} ulp{} apart", *ulps, *ulps == 1 ? "" : "s") : "one is NaN";
}

std::string DifferenceText(const Difference& difference)
{
    return fmt::format("elements {}, largest distance {} ulp{}{}", difference.elements, difference.ulps,
                       difference.ulps == 1 ? "" : "s", difference.nan ? "; some are NaN on one side only" : "");
}

std::string AgreementText(const Difference& difference, double tolerance)
{
    return tolerance == 0 || difference.distance == 0
               ? "bit for bit"
               : fmt::format("within {}: the largest distance is {:.3g}", tolerance, difference.distance);
}

std::string ElementText(const modelkit::Shape& shape, size_t index)
{
    modelkit::Shape place(shape.size());
    for (size_t axis = shape.size(); axis-- > 0;) {
        place[axis] = static_cast<uint32_t>(index % shape[axis]);
        index /= shape[axis];
    }
    return modelkit::ShapeText(place);
}

}  // namespace opkit::tools
