// Element-wise operators: broadcast shapes on padded rows against oneDNN and memcpy, formulas against plain loops.

#include "bench/one_layer.h"
#include "bench/peers.h"
#include "bench/plain_loops.h"
#include "bench/table.h"
#include "opkit/attributes/elementwise.h"

namespace opkit::bench {
namespace {

// A million elements; rows of 1000 lie 1024 apart.
constexpr uint32_t kWidth = 1000;
constexpr uint32_t kPaddedBytes = 4096;
const Shape kShape = {1, 10, 100, kWidth};

struct Other {
    const char* name;
    Shape shape;
    double memcpyTarget;
};

const Other kOthers[] = {
    {"same shape", kShape, 2.2},
    {"row", {1, 1, 1, kWidth}, 1.5},
    {"channel", {1, 10, 1, 1}, 1.5},
    {"scalar", {1, 1, 1, 1}, 1.5},
};

Layout Padded(const Shape& shape)
{
    return {shape, shape.back() == 1 ? 16 : kPaddedBytes};
}

peers::Dims DimsOf(const Shape& shape)
{
    return {shape.begin(), shape.end()};
}

Row Broadcast(const std::shared_ptr<OneLayer>& layer, const Other& other, const peers::BinaryOp* op)
{
    for (size_t k = 0; k < 2; ++k) {
        Fill(layer->In(k), 0.5f, 2.0f, static_cast<uint32_t>(k + 1));
    }
    Row row;
    row.work = 1e6 * 4 * (other.shape == kShape ? 3 : 2);
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    if (op != nullptr) {
        const auto a = MakeFloats(1000000);
        const auto b = MakeFloats(1000000);
        const auto out = MakeFloats(1000000);
        Fill(a->Floats(), 0.5f, 2.0f, 1);
        Fill(b->Floats(), 0.5f, 2.0f, 2);
        Work dnnl = peers::Binary(*op, DimsOf(kShape), DimsOf(other.shape), a->Floats().data(), b->Floats().data(),
                                  out->Floats().data());
        if (dnnl) {
            dnnl = [=] {
                (void)a, (void)b, (void)out;
                dnnl();
            };
        }
        row.peers.push_back({"oneDNN", dnnl, Ratio::kTime, 1.1});
    }
    row.peers.push_back({"memcpy of the output", CopyOf(1000000), Ratio::kTime, other.memcpyTarget});
    return row;
}

template <class Attr>
std::shared_ptr<OneLayer> TwoOperands(const char* name, const Shape& second, const Attr& attr)
{
    return MakeLayer(name, std::vector<Layout>{Padded(kShape), Padded(second)}, std::vector<Layout>{Padded(kShape)},
                     attr);
}

Row Math(uint32_t type, const Other& other, peers::BinaryOp op)
{
    BinaryMathAttr attr = {};
    attr.mathType = type;
    return Broadcast(TwoOperands("BinaryMathOpkitForward", other.shape, attr), other, &op);
}

Row Compare(const Other& other)
{
    CmpAttr attr = {};
    attr.cmpType = OPKIT_CMP_GREATER;
    const peers::BinaryOp op = peers::BinaryOp::kGreater;
    return Broadcast(TwoOperands("CmpOpkitForward", other.shape, attr), other, &op);
}

Row LogicAnd(const Other& other)
{
    LogicalAttr attr = {};
    attr.logicalType = OPKIT_LOGICAL_AND;
    return Broadcast(TwoOperands("LogicalOpkitForward", other.shape, attr), other, nullptr);
}

Row WhereBroadcast(const Other& other)
{
    WhereAttr attr = {};
    attr.inputCount = 3;
    const auto layer =
        MakeLayer("WhereOpkitForward", std::vector<Layout>{Padded(kShape), Padded(kShape), Padded(other.shape)},
                  std::vector<Layout>{Padded(kShape)}, attr);
    Fill(layer->In(2), 3, 4, 3);
    Row row = Broadcast(layer, other, nullptr);
    row.work = 1e6 * 4 * (other.shape == kShape ? 4 : 3);
    return row;
}

// The layer on compact rows against a plain loop with the same result.
template <class Attr>
Row AgainstLoop(const char* name, const Attr& attr, plain::BinaryLoop loop, float low, float high, float lowB,
                float highB)
{
    const Shape shape = {1000, kWidth};
    const auto layer = MakeLayer(name, std::vector<Layout>{{shape}, {shape}}, std::vector<Layout>{{shape}}, attr);
    Fill(layer->In(0), low, high, 1);
    Fill(layer->In(1), lowB, highB, 2);
    const auto other = MakeFloats(1000000);
    Row row;
    row.work = 12e6;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"plain vectorised loop",
                  [=] { loop(layer->In(0).data(), layer->In(1).data(), other->Floats().data(), 1000000); },
                  Ratio::kTime, 1.2}};
    row.same = [=] { return SameBits(layer->Out(), other->Floats()); };
    return row;
}

Row WhereAgainstLoop()
{
    const Shape shape = {1000, kWidth};
    WhereAttr attr = {};
    attr.inputCount = 3;
    const auto layer = MakeLayer("WhereOpkitForward", std::vector<Layout>{{shape}, {shape}, {shape}},
                                 std::vector<Layout>{{shape}}, attr);
    for (size_t k = 0; k < 3; ++k) {
        Fill(layer->In(k), 0, 1, static_cast<uint32_t>(k + 1));
    }
    for (size_t i = 0; i < layer->In(0).size(); i += 3) {
        layer->In(0)[i] = 0;
    }
    const auto other = MakeFloats(1000000);
    Row row;
    row.work = 16e6;
    row.unit = "GB/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"plain vectorised loop",
                  [=] {
                      plain::Where(layer->In(0).data(), layer->In(1).data(), layer->In(2).data(),
                                   other->Floats().data(), 1000000);
                  },
                  Ratio::kTime, 1.2}};
    row.same = [=] { return SameBits(layer->Out(), other->Floats()); };
    return row;
}

constexpr uint32_t kFormulaCount = 65536;

Row Formula(const std::shared_ptr<OneLayer>& layer, plain::UnaryLoop loop, double target, float low, float high)
{
    Fill(layer->In(), low, high);
    const auto other = MakeFloats(kFormulaCount);
    Row row;
    row.work = kFormulaCount;
    row.unit = "G elements/s";
    row.ours = [=] { layer->Run(); };
    row.peers = {{"literal loop over libm", [=] { loop(layer->In().data(), other->Floats().data(), kFormulaCount); },
                  Ratio::kSpeed, target}};
    row.same = [=] { return SameBits(layer->Out(), other->Floats()); };
    return row;
}

template <class... Attr>
std::shared_ptr<OneLayer> FormulaLayer(const char* name, const Attr&... attr)
{
    const std::vector<Layout> layout = {{{64, 1024}}};
    return MakeLayer(name, layout, layout, attr...);
}

CeluAttr CeluOf(float alpha)
{
    CeluAttr attr = {};
    attr.alpha = alpha;
    return attr;
}

SeluAttr SeluOf(float alpha, float gamma)
{
    SeluAttr attr = {};
    attr.alpha = alpha;
    attr.gamma = gamma;
    return attr;
}

}  // namespace

std::vector<RowMaker> ElementwiseRows()
{
    std::vector<RowMaker> rows;
    for (const Other& other : kOthers) {
        const auto add = [&rows, &other](const char* name, std::function<Row()> make) {
            rows.push_back({"Broadcast", std::string(name) + ", " + other.name, std::move(make)});
        };
        add("Add", [&other] { return Math(OPKIT_BINARY_ADD, other, peers::BinaryOp::kAdd); });
        add("Multiply", [&other] { return Math(OPKIT_BINARY_MUL, other, peers::BinaryOp::kMultiply); });
        add("Divide", [&other] { return Math(OPKIT_BINARY_DIV, other, peers::BinaryOp::kDivide); });
        add("Maximum", [&other] { return Math(OPKIT_BINARY_MAX, other, peers::BinaryOp::kMaximum); });
        add("Greater", [&other] { return Compare(other); });
        add("And", [&other] { return LogicAnd(other); });
        add("Where", [&other] { return WhereBroadcast(other); });
    }

    const auto loop = [&rows](const char* name, std::function<Row()> make) {
        rows.push_back({"Formula", name, std::move(make)});
    };
    CmpAttr greater = {};
    greater.cmpType = OPKIT_CMP_GREATER;
    CmpAttr equal = {};
    equal.cmpType = OPKIT_CMP_EQUAL;
    LogicalAttr both = {};
    both.logicalType = OPKIT_LOGICAL_AND;
    LogicalAttr either = {};
    either.logicalType = OPKIT_LOGICAL_XOR;
    ModAttr whole = {};
    ModAttr floats = {};
    floats.fmod = 1;
    BitShiftAttr left = {};
    left.shiftLeft = 1;
    loop("Greater", [=] { return AgainstLoop("CmpOpkitForward", greater, plain::Greater, -1, 1, -1, 1); });
    loop("Equal", [=] { return AgainstLoop("CmpOpkitForward", equal, plain::Equal, -1, 1, -1, 1); });
    loop("And", [=] { return AgainstLoop("LogicalOpkitForward", both, plain::And, -1, 1, -1, 1); });
    loop("Xor", [=] { return AgainstLoop("LogicalOpkitForward", either, plain::Xor, -1, 1, -1, 1); });
    loop("Where", WhereAgainstLoop);
    loop("Mod, whole", [=] { return AgainstLoop("ModOpkitForward", whole, plain::WholeMod, -1000, 1000, -30, 30); });
    loop("Mod, float", [=] { return AgainstLoop("ModOpkitForward", floats, plain::FloatMod, -1000, 1000, 1, 30); });
    loop("BitShift", [=] { return AgainstLoop("BitShiftOpkitForward", left, plain::ShiftLeft, 0, 1000, 0, 8); });

    const auto formula = [&rows](const char* name, std::function<Row()> make) {
        rows.push_back({"Exponentials", name, std::move(make)});
    };
    formula("Sigmoid", [] { return Formula(FormulaLayer("SigmoidOpkitForward"), plain::Sigmoid, 6, -8, 8); });
    formula("Softplus", [] { return Formula(FormulaLayer("SoftplusOpkitForward"), plain::Softplus, 5, -8, 8); });
    formula("Celu", [] { return Formula(FormulaLayer("CeluOpkitForward", CeluOf(1)), plain::Celu, 4, -8, 4); });
    formula("Selu",
            [] { return Formula(FormulaLayer("SeluOpkitForward", SeluOf(1.67326f, 1.0507f)), plain::Selu, 4, -8, 4); });
    formula("Sinh", [] { return Formula(FormulaLayer("SinhOpkitForward"), plain::Sinh, 4, -8, 8); });
    formula("Acosh", [] { return Formula(FormulaLayer("AcoshOpkitForward"), plain::Acosh, 4, 1, 20); });
    return rows;
}

}  // namespace opkit::bench
