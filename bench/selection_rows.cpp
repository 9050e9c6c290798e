// Reductions, sorting, search and running sums.

#include <cmath>
#include <limits>

#include "bench/one_layer.h"
#include "bench/plain_loops.h"
#include "bench/table.h"
#include "opkit/attributes/selection.h"

namespace opkit::bench {
namespace {

using plain::Fold;

constexpr uint32_t kRows = 1000;
constexpr uint32_t kColumns = 1000;

std::shared_ptr<OneLayer> ReductionLayer(uint32_t type, const Shape& shape, uint32_t axis)
{
    ReductionAttr attr = {};
    attr.axes[0] = axis;
    for (uint32_t& entry : attr.axes) {
        entry = axis;
    }
    attr.axesNum = 1;
    attr.reductionType = type;
    Shape out = shape;
    out.erase(out.begin() + axis);
    return MakeLayer("ReductionOpkitForward", std::vector<Layout>{{shape}}, std::vector<Layout>{{out}}, attr,
                     static_cast<uint32_t>(shape.size() * 8));
}

Row AgainstRead(uint32_t type, const Shape& shape, uint32_t axis, double target)
{
    const auto layer = ReductionLayer(type, shape, axis);
    Fill(layer->In());
    Row row;
    row.work = static_cast<double>(layer->In().size()) * 4;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"memory read",
                  [=] {
                      const float sum = plain::Read(layer->In().data(), layer->In().size());
                      Keep(&sum);
                  },
                  Ratio::kSpeed, target}};
    return row;
}

// `finish` is what the kind does to each sum.
Row AgainstLiteral(uint32_t type, Fold fold, double target, float (*finish)(float))
{
    const auto layer = ReductionLayer(type, {kRows, kColumns}, 1);
    Fill(layer->In(), 0.5f, 1.5f);
    const auto other = MakeFloats(kRows);
    Row row;
    row.work = 4e6;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    const Work literal = [=] {
        plain::FoldRowsLiteral(fold, layer->In().data(), other->Floats().data(), kRows, kColumns, kColumns);
    };
    row.peers = {
        {"literal loop", literal, Ratio::kSpeed, target},
        {"row by row", [=] { plain::FoldRows(fold, layer->In().data(), other->Floats().data(), kRows, kColumns); },
         Ratio::kSpeed, 0}};
    row.same = [=] {
        literal();
        for (float& value : other->Floats()) {
            value = finish != nullptr ? finish(value) : value;
        }
        return SameBits(layer->Out(), other->Floats());
    };
    return row;
}

Row TopK(uint32_t lanes, uint32_t length, uint32_t k, bool withNan, double target)
{
    TopKAttr attr = {};
    attr.k = k;
    attr.axis = 1;
    attr.largest = attr.hasValues = attr.hasIndices = 1;
    const auto layer = MakeLayer("TopKOpkitForward", std::vector<Layout>{{{lanes, length}}},
                                 std::vector<Layout>{{{lanes, k}}, {{lanes, k}}}, attr, length * 8);
    Fill(layer->In());
    for (size_t i = 50; withNan && i < layer->In().size(); i += 101) {
        layer->In()[i] = std::numeric_limits<float>::quiet_NaN();
    }
    const auto values = MakeFloats(size_t{lanes} * k);
    const auto indices = MakeFloats(size_t{lanes} * k);
    Row row;
    row.work = static_cast<double>(lanes) * length;
    row.unit = "G elements/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"qsort",
                  [=] {
                      plain::TopKQsort(layer->In().data(), values->Floats().data(), indices->Floats().data(), lanes,
                                       length, k);
                  },
                  Ratio::kSpeed, target}};
    row.same = [=] { return SameBits(layer->Out(0), values->Floats()) && SameBits(layer->Out(1), indices->Floats()); };
    return row;
}

Row Unique()
{
    constexpr uint32_t kCount = 100000;
    UniqueAttr attr = {};
    attr.axis = OPKIT_UNIQUE_FLAT;
    const Layout flat = {{kCount}};
    const auto layer =
        MakeLayer("UniqueOpkitForward", std::vector<Layout>{flat}, std::vector<Layout>{flat, flat, flat, flat}, attr);
    Fill(layer->In());
    const auto outputs = MakeFloats(size_t{4} * kCount);
    float* const out = outputs->Floats().data();
    Row row;
    row.work = kCount;
    row.unit = "G elements/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"literal search",
                  [=] {
                      (void)outputs;
                      plain::UniqueSearch(layer->In().data(), out, out + kCount, out + 2 * kCount, out + 3 * kCount,
                                          kCount);
                  },
                  Ratio::kSpeed, 1000, true}};
    return row;
}

Row AgainstLoop(const std::shared_ptr<OneLayer>& layer, const Work& loop,
                const std::shared_ptr<modelkit::Buffer>& other)
{
    Row row;
    row.work = 8e6;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"literal loop", loop, Ratio::kSpeed, 4.0}};
    row.same = [=] { return SameBits(layer->Out(), other->Floats()); };
    return row;
}

Row CumSum(const Shape& shape, int32_t axis, size_t outer, size_t length, size_t inner)
{
    CumSumAttr attr = {};
    attr.axis = axis;
    const auto layer =
        MakeLayer("CumSumOpkitForward", std::vector<Layout>{{shape}}, std::vector<Layout>{{shape}}, attr);
    Fill(layer->In());
    const auto other = MakeFloats(layer->Out().size());
    return AgainstLoop(
        layer, [=] { plain::CumSum(layer->In().data(), other->Floats().data(), outer, length, inner); }, other);
}

Row Hardmax(const Shape& shape, int32_t axis, size_t outer, size_t length, size_t inner)
{
    HardmaxAttr attr = {};
    attr.axis = axis;
    attr.opsetVersion = 13;
    const auto layer =
        MakeLayer("HardmaxOpkitForward", std::vector<Layout>{{shape}}, std::vector<Layout>{{shape}}, attr);
    Fill(layer->In());
    const auto other = MakeFloats(layer->Out().size());
    Row row = AgainstLoop(
        layer, [=] { plain::HardmaxColumns(layer->In().data(), other->Floats().data(), outer, length, inner); }, other);
    row.peers.push_back({"memcpy of the output", CopyOf(layer->Out().size()), Ratio::kTime});
    return row;
}

Row NonZero()
{
    const auto layer = MakeLayer("NonZeroOpkitForward", std::vector<Layout>{{{kRows, kColumns}}},
                                 std::vector<Layout>{{{2, kRows * kColumns}}});
    Fill(layer->In());
    for (size_t i = 0; i < layer->In().size(); ++i) {
        layer->In()[i] = i * 2654435761u >> 7 & 1 ? layer->In()[i] : 0.0f;
    }
    const auto other = MakeFloats(layer->Out().size());
    Row row = AgainstLoop(
        layer,
        [=] { plain::NonZero(layer->In().data(), other->Floats().data(), kRows, kColumns, other->Floats().size()); },
        other);
    row.peers.push_back({"memcpy of the input", CopyOf(layer->In().size()), Ratio::kTime});
    return row;
}

}  // namespace

std::vector<RowMaker> SelectionRows()
{
    std::vector<RowMaker> rows;
    const auto reduction = [&rows](const char* name, std::function<Row()> make) {
        rows.push_back({"Reduction", name, std::move(make)});
    };
    const Shape plane = {kRows, kColumns};
    const Shape cube = {16, 250, 256};
    constexpr float (*kRoot)(float) = [](float x) { return std::sqrt(x); };
    constexpr float (*kLog)(float) = [](float x) { return static_cast<float>(std::log(static_cast<double>(x))); };
    reduction("rows 1000x1000, maximum", [=] { return AgainstRead(OPKIT_REDUCE_MAX, plane, 1, 0.7); });
    reduction("rows 1000x1000, minimum", [=] { return AgainstRead(OPKIT_REDUCE_MIN, plane, 1, 0.7); });
    reduction("rows 1000x1000, sum", [=] { return AgainstLiteral(OPKIT_REDUCE_SUM, Fold::kSum, 20, nullptr); });
    reduction("rows 1000x1000, L2 norm", [=] { return AgainstLiteral(OPKIT_REDUCE_L2, Fold::kSumSquare, 20, kRoot); });
    reduction("rows 1000x1000, product",
              [=] { return AgainstLiteral(OPKIT_REDUCE_PROD, Fold::kProduct, 20, nullptr); });
    reduction("rows 1000x1000, log of sum of exp",
              [=] { return AgainstLiteral(OPKIT_REDUCE_LOG_SUM_EXP, Fold::kSumExp, 4, kLog); });
    reduction("columns 1000x1000, sum", [=] { return AgainstRead(OPKIT_REDUCE_SUM, plane, 0, 0.5); });
    reduction("columns 1000x1000, maximum", [=] { return AgainstRead(OPKIT_REDUCE_MAX, plane, 0, 0.5); });
    reduction("middle axis 16x250x256, sum", [=] { return AgainstRead(OPKIT_REDUCE_SUM, cube, 1, 0.5); });
    rows.push_back({"TopK", "1000 lanes of 1000, k = 5", [] { return TopK(1000, 1000, 5, false, 60); }});
    rows.push_back({"TopK", "the same, 1 % NaN", [] { return TopK(1000, 1000, 5, true, 2); }});
    rows.push_back({"Unique", "100,000 random values, flat", Unique});
    rows.push_back({"Lanes", "CumSum, rows 1000x1000", [=] { return CumSum(plane, 1, 1000, 1000, 1); }});
    rows.push_back({"Lanes", "CumSum, columns 1000x1000", [=] { return CumSum(plane, 0, 1, 1000, 1000); }});
    rows.push_back({"Lanes", "Hardmax, rows 1000x1000", [=] { return Hardmax(plane, 1, 1000, 1000, 1); }});
    rows.push_back({"Lanes", "Hardmax, columns 1000x1000", [=] { return Hardmax(plane, 0, 1, 1000, 1000); }});
    rows.push_back({"Lanes", "NonZero 1000x1000, half of them", NonZero});
    return rows;
}

}  // namespace opkit::bench
