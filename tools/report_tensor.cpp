#include "tools/report_tensor.h"

#include <algorithm>
#include <cmath>

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
using nlohmann::ordered_json;

constexpr uint32_t kLeastPlaneSide = 8;  // cells, below which planes are left out rather than averaged further
constexpr double kLastShade = TensorPicture::kNotFinite - 1;

void SetPlanes(const Shape& shape, TensorPicture* picture)
{
    picture->planeWidth = shape.empty() ? 1 : shape.back();
    picture->planeHeight = shape.size() < 2 ? 1 : shape[shape.size() - 2];
    const uint64_t size = picture->planeWidth * picture->planeHeight;
    picture->planes = size == 0 ? 0 : ElementCount(shape) / size;
    if (size == 1) {
        std::swap(picture->planes, picture->planeWidth);
    }
}

// So many columns of planes that the planes lose least; of those that lose as much, the most square picture.
void Arrange(uint32_t side, TensorPicture* picture)
{
    const auto height = static_cast<uint32_t>(std::min<uint64_t>(picture->planeHeight, side));
    const auto width = static_cast<uint32_t>(std::min<uint64_t>(picture->planeWidth, side));
    const uint32_t mostColumns = side / std::min(width, kLeastPlaneSide);
    const uint32_t mostRows = side / std::min(height, kLeastPlaneSide);
    picture->shown = static_cast<uint32_t>(std::min<uint64_t>(picture->planes, uint64_t{mostColumns} * mostRows));
    std::pair<double, double> best = {0, 0};
    for (uint32_t columns = 1; columns <= std::min(mostColumns, picture->shown); ++columns) {
        const uint32_t rows = (picture->shown + columns - 1) / columns;
        if (rows > mostRows) {
            continue;
        }
        const uint32_t h = std::min(height, side / rows);
        const uint32_t w = std::min(width, side / columns);
        const double kept = std::min(double(h) / double(picture->planeHeight), double(w) / double(picture->planeWidth));
        const std::pair<double, double> merit = {kept, -std::abs(double(columns) * w - double(rows) * h)};
        if (picture->columns == 0 || merit > best) {
            best = merit;
            picture->columns = columns;
            picture->height = h;
            picture->width = w;
        }
    }
}

// The mean of a cell's elements, or NaN where one of them is not finite.
double CellMean(const TensorPicture& picture, const float* plane, uint32_t y, uint32_t x)
{
    double sum = 0;
    uint64_t count = 0;
    for (uint64_t row = y * picture.planeHeight / picture.height; row < (y + 1) * picture.planeHeight / picture.height;
         ++row) {
        for (uint64_t i = x * picture.planeWidth / picture.width; i < (x + 1) * picture.planeWidth / picture.width;
             ++i) {
            const float value = plane[row * picture.planeWidth + i];
            sum += std::isfinite(value) ? double{value} : std::nan("");
            ++count;
        }
    }
    return sum / static_cast<double>(count);
}

ordered_json PictureJson(const TensorPicture& picture)
{
    return {{"planes", picture.planes},         {"shown", picture.shown}, {"columns", picture.columns},
            {"height", picture.height},         {"width", picture.width}, {"planeHeight", picture.planeHeight},
            {"planeWidth", picture.planeWidth}, {"low", picture.low},     {"high", picture.high},
            {"cells", Base64(picture.cells)}};
}

}  // namespace

TensorPicture PictureOf(std::span<const float> values, const Shape& shape, uint32_t side)
{
    TensorPicture picture;
    SetPlanes(shape, &picture);
    if (picture.planes == 0) {
        return picture;
    }
    Arrange(side, &picture);
    std::vector<double> means;
    for (uint32_t p = 0; p < picture.shown; ++p) {
        const float* const plane = values.data() + p * picture.planeHeight * picture.planeWidth;
        for (uint32_t y = 0; y < picture.height; ++y) {
            for (uint32_t x = 0; x < picture.width; ++x) {
                means.push_back(CellMean(picture, plane, y, x));
            }
        }
    }
    bool first = true;
    for (const double mean : means) {
        if (!std::isnan(mean)) {
            picture.low = first ? mean : std::min(picture.low, mean);
            picture.high = first ? mean : std::max(picture.high, mean);
            first = false;
        }
    }
    const double range = picture.high - picture.low;
    for (const double mean : means) {
        const double shade = range > 0 ? std::round((mean - picture.low) / range * kLastShade) : 0;
        picture.cells.push_back(std::isnan(mean) ? TensorPicture::kNotFinite : static_cast<uint8_t>(shade));
    }
    return picture;
}

std::string Base64(std::span<const uint8_t> bytes)
{
    constexpr const char* kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t left = std::min<size_t>(bytes.size() - i, 3);
        uint32_t bits = 0;
        for (size_t k = 0; k < 3; ++k) {
            bits = bits << 8 | (k < left ? bytes[i + k] : 0U);
        }
        for (size_t k = 0; k < 4; ++k) {
            text += k <= left ? kDigits[bits >> (18 - 6 * k) & 63] : '=';
        }
    }
    return text;
}

void TensorSummary::Add(std::span<const float> values, const Shape& itemShape, uint32_t side)
{
    const bool first = count_ == 0;
    for (const float value : values) {
        nan_ += std::isnan(value) ? 1 : 0;
        infinite_ += std::isinf(value) ? 1 : 0;
        zeros_ += value == 0 ? 1 : 0;
        if (std::isfinite(value)) {
            minimum_ = finite_ == 0 ? value : std::min<double>(minimum_, value);
            maximum_ = finite_ == 0 ? value : std::max<double>(maximum_, value);
            sum_ += value;
            ++finite_;
        }
    }
    count_ += values.size();
    if (first && !values.empty()) {
        FillHistogram(values);
        picture_ = PictureOf(values.first(ElementCount(itemShape)), itemShape, side);
    }
}

// Over the range of the numbers so far. The last bin has its end, too.
void TensorSummary::FillHistogram(std::span<const float> values)
{
    binsBegin_ = minimum_;
    binsEnd_ = maximum_;
    const double range = binsEnd_ - binsBegin_;
    for (const float value : values) {
        if (std::isfinite(value)) {
            const double place = range > 0 ? (value - binsBegin_) / range * kBins : 0;
            ++bins_[std::min(static_cast<size_t>(place), kBins - 1)];
        }
    }
}

ordered_json TensorSummary::ToJson() const
{
    ordered_json json = {{"count", count_}, {"nan", nan_}, {"infinite", infinite_}, {"zeros", zeros_}};
    if (finite_ != 0) {
        json["min"] = minimum_;
        json["max"] = maximum_;
        json["mean"] = sum_ / static_cast<double>(finite_);
        json["histogram"] = {{"begin", binsBegin_}, {"end", binsEnd_}, {"bins", bins_}};
    }
    if (picture_.shown != 0) {
        json["picture"] = PictureJson(picture_);
    }
    return json;
}

}  // namespace opkit::tools
