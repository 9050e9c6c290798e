// Conditionals and loops. The segment ids that they leave must have tables.

#include "opkit/attributes/control.h"
#include "modelkit/check/layer_check.h"

namespace opkit::modelkit::check {
namespace {

// The first element of a tensor of any shape.
void CheckFirstElement(LayerCheck& layer, const Tensor& tensor)
{
    layer.Floats(tensor, 1, "its first element is used");
}

// A copy with row conversion: as many elements as the output has. A single one needs no rows.
void CheckCopy(LayerCheck& layer, const Tensor& in, const Tensor& out)
{
    if (out.Count() == 1) {
        CheckFirstElement(layer, in);
        CheckFirstElement(layer, out);
        return;
    }
    layer.Rows(in);
    layer.Rows(out);
    layer.Elements(in, out.Count(), "fewer elements than " + out.name + " takes");
}

// Logical input first + i to output i.
void CheckPassed(LayerCheck& layer, uint32_t first, int64_t count)
{
    layer.MayShareAll();
    for (uint32_t i = 0; i < count; ++i) {
        const Tensor& out = layer.OutRaw(i);
        CheckCopy(layer, layer.Logical(first + i), out);
    }
}

void CheckOutputCount(LayerCheck& layer, uint32_t tensorNum)
{
    if (tensorNum != layer.OutputNum()) {
        layer.Refuse(OPKIT_ATTR_FIELD(layer, CondEndAttr, tensorNum), tensorNum, layer.OutputNum(),
                     "not the number of outputs");
    }
}

void CheckLoopEnd(LayerCheck& layer, const CondEndAttr& attr)
{
    const bool fromInput = attr.condValue == OPKIT_COND_FROM_INPUT;
    if (fromInput) {
        CheckOutputCount(layer, attr.tensorNum);
    }
    const Tensor& condition = layer.Logical(0);  // needed also where its value is not
    if (fromInput) {
        CheckFirstElement(layer, condition);
    }
    CheckFirstElement(layer, layer.OutRaw(0));
    for (uint32_t i = 1; i < layer.OutputNum(); ++i) {
        const Tensor& out = layer.OutRaw(i);
        CheckCopy(layer, layer.Logical(fromInput ? i : i - 1), out);
    }
    layer.MayShareAll();
    layer.Segment(OPKIT_ATTR_FIELD(layer, CondEndAttr, nextSegId), attr.nextSegId);
}

// One way through a loop: a first pass, after which the online inputs of later passes begin where its own ended.
void CheckLoopPasses(LayerCheck& layer, const LoopAttr& attr, bool conditionKnown)
{
    constexpr const char* kMissing = "an input of a pass is missing";
    const uint32_t carried = attr.carriedNum;
    const auto copyToBoth = [&](uint32_t i, const Tensor& in) {
        CheckCopy(layer, in, layer.OutRaw(1 + i));            // for the body
        CheckCopy(layer, in, layer.OutRaw(carried + 1 + i));  // when the loop ends here
    };
    uint32_t cursor = attr.tripCount != -1 ? 0 : 1;
    if (!conditionKnown) {
        const Tensor& condition = layer.Logical(cursor);
        CheckFirstElement(layer, condition);
        cursor += condition.offline ? 0 : 1;
    }
    for (uint32_t i = 0; i < carried; ++i) {
        const bool offline = layer.Flag(i + 1) == '1';
        copyToBoth(i, offline ? layer.Logical(i + 1) : layer.OnlineRaw(cursor, kMissing));
        cursor += offline ? 0 : 1;
    }
    if (attr.tripCount > 1) {  // there are passes in the middle
        const Tensor& condition = layer.OnlineRaw(cursor, kMissing);
        CheckFirstElement(layer, condition);
        CheckCopy(layer, condition, layer.OutRaw(0));
    }
    for (uint32_t i = 0; i < carried; ++i) {
        copyToBoth(i, layer.OnlineRaw(cursor + 1 + i, kMissing));
    }
}

}  // namespace

void CheckIf(LayerCheck& layer)
{
    const IfAttr attr = layer.Attr<IfAttr>();
    CheckFirstElement(layer, layer.Logical(0));
    if (attr.hasSecondOperand != 0) {
        layer.AtMost(OPKIT_ATTR_FIELD(layer, IfAttr, cmpType), attr.cmpType, OPKIT_IF_EQUAL,
                     "the operator fails on this code");
        CheckFirstElement(layer, layer.Logical(1));
    }
    CheckFirstElement(layer, layer.OutRaw(0));
    layer.MayShareAll();
    layer.Segment(OPKIT_ATTR_FIELD(layer, IfAttr, thenSegId), attr.thenSegId);
    layer.Segment(OPKIT_ATTR_FIELD(layer, IfAttr, elseSegId), attr.elseSegId);
}

void CheckThenEnd(LayerCheck& layer)
{
    const ThenEndAttr attr = layer.Attr<ThenEndAttr>();
    CheckPassed(layer, 0, attr.tensorNum);
    layer.Segment(OPKIT_ATTR_FIELD(layer, ThenEndAttr, nextSegId), attr.nextSegId);
}

void CheckElseBegin(LayerCheck& layer)
{
    CheckPassed(layer, 0, layer.Attr<ElseBeginAttr>().tensorNum);
}

void CheckCondEnd(LayerCheck& layer)
{
    const CondEndAttr attr = layer.Attr<CondEndAttr>();
    if (attr.ifBranch != 0) {
        CheckPassed(layer, attr.ifBranch == 1 ? 0 : layer.OutputNum(), layer.OutputNum());
    } else if (attr.loopBranch != 0) {
        CheckLoopEnd(layer, attr);
    } else if (attr.scanBranch != 0) {
        CheckOutputCount(layer, attr.tensorNum);
        CheckPassed(layer, 0, layer.OutputNum());
    } else {
        layer.Refuse(OPKIT_ATTR_FIELD(layer, CondEndAttr, scanBranch), attr.scanBranch, 1, "no branch is selected");
    }
}

void CheckLoop(LayerCheck& layer)
{
    const LoopAttr attr = layer.Attr<LoopAttr>();
    const auto equals = [&](const Field& field, int64_t value, int64_t start) {
        if (value != start) {
            layer.Refuse(field, value, start, "the state of a loop that has not begun");
        }
    };
    equals(OPKIT_ATTR_FIELD(layer, LoopAttr, iteration), attr.iteration, 0);
    equals(OPKIT_ATTR_FIELD(layer, LoopAttr, inputCursor), attr.inputCursor, 1);
    layer.AtMost(OPKIT_ATTR_FIELD(layer, LoopAttr, carriedNum), attr.carriedNum, (OPKIT_MAX_LAYER_OUTPUTS - 1) / 2,
                 "two outputs for each carried value");
    CheckFirstElement(layer, layer.OutRaw(0));
    layer.MayShareAll();
    const bool preset = attr.condition != -1;
    if (preset) {
        CheckLoopPasses(layer, attr, true);
    }
    // A preset condition is gone once the loop begins anew, and then comes from an input.
    const auto checkAnew = [&] { CheckLoopPasses(layer, attr, false); };
    if (!preset || layer.Batch() > 1) {
        checkAnew();
    } else if (!layer.Holds(checkAnew)) {
        layer.Condition(
            "the model buffer is restored before the loop begins anew: its preset condition is gone then, and no input "
            "takes its place");
    }
    constexpr ModelWrite::What kState = ModelWrite::What::kState;
    layer.ModifiesAttr("iteration", offsetof(LoopAttr, iteration), 8, kState);
    layer.ModifiesAttr("outputTotal", offsetof(LoopAttr, outputTotal), 12, kState);
    layer.Segment(OPKIT_ATTR_FIELD(layer, LoopAttr, exitSegId), attr.exitSegId);
}

}  // namespace opkit::modelkit::check
