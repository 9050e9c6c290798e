// Loop: the head of a loop, entered again by the caller for every pass. One run moves the condition and the carried
// values to its outputs and leaves a segment id; what the loop has to remember lies in its own attribute block.
//
// Outputs: 0 the condition, 1 to N the values for the body, N + 1 to 2 * N the final values.

#include "common/convert.h"
#include "opkit/attributes/control.h"
#include "opkit/operators.h"
#include "opkit/opkit.h"
#include "runtime/frame.h"

using namespace opkit;

namespace {

constexpr int32_t kUnknownCondition = -1;

// `read` is what a pass has read last. An input that is not there leaves it as it is, and the copy takes it once more.
void ReadOnline(LayerParam* param, uint32_t online, DescribedTensor* read)
{
    ParseOnlineInputInfoLoop(&read->desc, &read->data, &read->shape, online, param);
}

void CopyTo(LayerParam* param, uint32_t output, DescribedTensor* read)
{
    if (read->data != nullptr) {  // nothing was read before the first input that is missing
        ParseInputToOutput(&param->outputs, output, read->shape, &read->desc, read->data);
    }
}

// Where the carried values go: to the body, or to the final outputs when the loop ends here.
uint32_t FirstCarriedOutput(const LoopAttr& attr)
{
    return attr.condition != 0 ? 1 : attr.carriedNum + 1;
}

}  // namespace

void Prepare(LayerParam* param)
{
    LoopAttr& attr = AttrOf<LoopAttr>(param);
    attr.iteration = 0;
    attr.inputCursor = 1;
    attr.condition = kUnknownCondition;
    attr.outputTotal = param->outputNum;
}

void SetConditionSegId(LayerParam* param, LayerAttrBlock* block)
{
    LoopAttr& attr = *reinterpret_cast<LoopAttr*>(block);
    if (attr.condition == 0) {
        Prepare(param);
    } else {
        attr.iteration = static_cast<int32_t>(static_cast<uint32_t>(attr.iteration) + 1);
    }
    // A condition other than 0 and 1 leaves the loop too, but with the pass counted and nothing reset.
    param->segId = attr.condition == 1 ? OPKIT_NO_SEGMENT : attr.exitSegId;
}

uint32_t LoopFirstTime(LayerParam* param)
{
    LoopAttr& attr = AttrOf<LoopAttr>(param);
    if (attr.tripCount != -1) {
        --attr.inputCursor;  // a trip count in the attributes takes no place among the inputs
    }
    DescribedTensor read;
    if (attr.condition != kUnknownCondition) {
        *static_cast<float*>(param->outputs[0].data) = static_cast<float>(attr.condition);
    } else {
        if (!Describe(param, attr.inputCursor, &read)) {
            return kFailure;
        }
        attr.condition = TruncateToI32(*read.data);
        attr.inputCursor += read.desc.isOffline != 0 ? 0 : 1;
    }
    const uint32_t carriedNum = attr.carriedNum;
    const uint32_t firstOutput = FirstCarriedOutput(attr);
    for (uint32_t i = 0; i < carriedNum; ++i) {
        if (attr.head.inputFlags[i + 1] == '1') {
            if (!Describe(param, i + 1, &read)) {
                return kFailure;
            }
        } else {
            ReadOnline(param, attr.inputCursor, &read);
        }
        CopyTo(param, firstOutput + i, &read);
        attr.inputCursor += attr.head.inputFlags[i + 1] == '1' ? 0 : 1;
    }
    SetConditionSegId(param, &attr.head);
    return kSuccess;
}

uint32_t LoopMiddleTime(LayerParam* param)
{
    LoopAttr& attr = AttrOf<LoopAttr>(param);
    const uint32_t cursor = attr.inputCursor;
    DescribedTensor read;
    ReadOnline(param, cursor, &read);
    if (read.data != nullptr) {
        attr.condition = TruncateToI32(*read.data);
    }
    CopyTo(param, 0, &read);
    const uint32_t carriedNum = attr.carriedNum;
    const uint32_t firstOutput = FirstCarriedOutput(attr);
    for (uint32_t i = 0; i < carriedNum; ++i) {
        ReadOnline(param, cursor + 1 + i, &read);
        CopyTo(param, firstOutput + i, &read);
    }
    SetConditionSegId(param, &attr.head);
    return kSuccess;
}

uint32_t LoopOutOfBound(LayerParam* param)
{
    const LoopAttr& attr = AttrOf<LoopAttr>(param);
    const uint32_t carriedNum = attr.carriedNum;
    DescribedTensor read;
    for (uint32_t i = 0; static_cast<int32_t>(i) < static_cast<int32_t>(carriedNum); ++i) {
        ReadOnline(param, attr.inputCursor + 1 + i, &read);
        CopyTo(param, carriedNum + 1 + i, &read);
    }
    param->segId = attr.exitSegId;
    Prepare(param);
    return kSuccess;
}

uint32_t LoopOpkitForward(LayerParam* param)
{
    const LoopAttr& attr = AttrOf<LoopAttr>(param);
    const int64_t iteration = attr.iteration;
    const int64_t tripCount = attr.tripCount;
    if (iteration == 0) {
        LoopFirstTime(param);  // a failure ends the pass, not the request
    } else if (iteration >= 1 && iteration < tripCount) {
        LoopMiddleTime(param);
    } else {
        LoopOutOfBound(param);  // also without a trip count: the head ran once, and the loop is left
    }
    return kSuccess;
}
