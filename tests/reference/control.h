// Literal forms of the conditional operators and of the loop.
#ifndef OPKIT_TESTS_REFERENCE_CONTROL_H
#define OPKIT_TESTS_REFERENCE_CONTROL_H

#include "opkit/attributes/control.h"
#include "opkit/helpers/control.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

struct RefDesc {
    TensorDesc desc = {};
    float* data = nullptr;
    uint32_t* shape = nullptr;
};

inline bool RefParse2(RefDesc& t, uint32_t k, LayerParam* param)
{
    auto* head = static_cast<LayerAttrHead*>(param->attr);
    uint32_t ones = 0;
    uint32_t others = 0;
    for (uint32_t i = 0; i < k; ++i) {
        if (head->inputFlags[i] == '1') {
            ++ones;
        } else {
            ++others;
        }
    }
    if (head->inputFlags[k] == '1') {
        t.data = reinterpret_cast<float*>(static_cast<char*>(param->model) + head->offlineOffset[ones]);
        t.desc.dimNum = static_cast<int32_t>(head->offlineShape[ones].dimNum);
        t.shape = head->offlineShape[ones].dims;
        t.desc.stride = t.shape[t.desc.dimNum - 1] * 4;
        t.desc.isOffline = 1;
    } else {
        if (others >= param->inputNum) {
            return false;
        }
        t.data = static_cast<float*>(param->inputs[others].data);
        t.desc.dimNum = static_cast<int32_t>(param->inputs[others].dimNum);
        t.shape = param->inputs[others].shape;
        t.desc.stride = param->inputs[others].stride;
        t.desc.isOffline = 0;
    }
    uint32_t count = 1;
    for (int32_t i = 0; i < t.desc.dimNum; ++i) {
        count *= t.shape[i];
    }
    t.desc.count = static_cast<int32_t>(count);
    return true;
}

inline bool RefParseOnline(RefDesc& t, uint32_t online, LayerParam* param)
{
    if (online >= param->inputNum) {
        return false;
    }
    t.data = static_cast<float*>(param->inputs[online].data);
    t.desc.dimNum = static_cast<int32_t>(param->inputs[online].dimNum);
    t.shape = param->inputs[online].shape;
    t.desc.stride = param->inputs[online].stride;
    return true;
}

inline void RefConvertRows(const RefDesc& in, LayerParam* param, uint32_t output)
{
    const RefTensor out = RefOutput(param, output);
    if (static_cast<int32_t>(out.count) <= 0) {
        return;
    }
    const uint32_t w = in.shape[in.desc.dimNum - 1];
    for (int32_t i = 0; i < static_cast<int32_t>(out.count); ++i) {
        const uint32_t n = static_cast<uint32_t>(i);
        RefMove(&RefAt(out, n), in.data + RefPadded(n, w, in.desc.stride / 4));
    }
}

inline uint32_t RefIf(LayerParam* param)
{
    auto* attr = static_cast<IfAttr*>(param->attr);
    uint32_t online = 0;
    uint32_t offline = 0;
    const auto operand = [&](uint32_t k) {
        if (attr->head.inputFlags[k] == '1') {
            return *reinterpret_cast<float*>(static_cast<char*>(param->model) + attr->head.offlineOffset[offline++]);
        }
        return *static_cast<float*>(param->inputs[online++].data);
    };
    bool condition = false;
    const float a = operand(0);
    if (attr->hasSecondOperand == 0) {
        condition = !RefIsZero(a);
    } else {
        const float b = operand(1);
        if (attr->cmpType == 0) {
            condition = a > b;
        } else if (attr->cmpType == 1) {
            condition = RefIsEqual(a, b);
        } else {
            RefReport("IfOpkitForward", "Unrecong cmp type for if opkit propagation.\n");
            return 1;
        }
    }
    static_cast<float*>(param->outputs[0].data)[0] = condition ? 1.0f : 0.0f;
    param->segId = condition ? attr->thenSegId : attr->elseSegId;
    return 0;
}

inline uint32_t RefThenEnd(LayerParam* param)
{
    auto* attr = static_cast<ThenEndAttr*>(param->attr);
    for (int32_t i = 0; i < attr->tensorNum; ++i) {
        RefDesc in;
        if (!RefParse2(in, static_cast<uint32_t>(i), param)) {
            return kAllOnes;
        }
        RefConvertRows(in, param, static_cast<uint32_t>(i));
    }
    param->segId = attr->nextSegId;
    return 0;
}

inline uint32_t RefElseBegin(LayerParam* param)
{
    auto* attr = static_cast<ElseBeginAttr*>(param->attr);
    for (int32_t i = 0; i < attr->tensorNum; ++i) {
        RefDesc in;
        if (!RefParse2(in, static_cast<uint32_t>(i), param)) {
            return kAllOnes;
        }
        RefConvertRows(in, param, static_cast<uint32_t>(i));
    }
    return 0;
}

inline uint32_t RefCondEnd(LayerParam* param)
{
    auto* attr = static_cast<CondEndAttr*>(param->attr);
    const uint32_t n = param->outputNum;
    RefDesc in;
    if (attr->ifBranch != 0) {
        param->segId = 0xFFFFFFFFu;
        for (uint32_t i = 0; i < n; ++i) {
            if (!RefParse2(in, attr->ifBranch == 1 ? i : n + i, param)) {
                return kAllOnes;
            }
            RefConvertRows(in, param, i);
        }
        return 0;
    }
    if (attr->loopBranch != 0) {
        if (attr->condValue == 0xFFFFFFFFu && attr->tensorNum != n) {
            RefReport("LoopBranch", "cond end for loop input size is not equal to output size.\n");
            return 1;
        }
        if (!RefParse2(in, 0, param)) {
            return kAllOnes;
        }
        uint32_t next = 0;
        float value = static_cast<float>(static_cast<int32_t>(attr->condValue));
        if (attr->condValue == 0xFFFFFFFFu) {
            RefMove(&value, in.data);
            next = 1;
        }
        RefMove(static_cast<float*>(param->outputs[0].data), &value);
        for (uint32_t o = 1; o < n; ++o) {
            if (!RefParse2(in, next, param)) {
                return kAllOnes;
            }
            RefConvertRows(in, param, o);
            ++next;
        }
        param->segId = attr->nextSegId;
        return 0;
    }
    if (attr->scanBranch == 0) {
        RefReport("CondEndOpkitForward", "Unrecong cmp type for if opkit propagation.\n");
        return 1;
    }
    if (attr->tensorNum != n) {
        RefReport("ScanBranch", "cond end for loop input size is not equal to output size.\n");
        return 1;
    }
    for (uint32_t i = 0; i < n; ++i) {
        if (!RefParse2(in, i, param)) {
            return kAllOnes;
        }
        RefConvertRows(in, param, i);
    }
    return 0;
}

// Toward zero; what an i32 cannot hold is its lowest number.
inline int32_t RefToI32(float x)
{
    const double wide = std::trunc(static_cast<double>(x));
    return wide >= -2147483648.0 && wide <= 2147483647.0 ? static_cast<int32_t>(wide) : INT32_MIN;
}

inline void RefPrepare(LayerParam* param)
{
    auto* attr = static_cast<LoopAttr*>(param->attr);
    attr->iteration = 0;
    attr->inputCursor = 1;
    attr->condition = -1;
    attr->outputTotal = param->outputNum;
}

inline void RefSetCondition(LayerParam* param)
{
    auto* attr = static_cast<LoopAttr*>(param->attr);
    if (attr->condition == 0) {
        RefPrepare(param);
    } else {
        attr->iteration = attr->iteration + 1;
    }
    param->segId = attr->condition == 1 ? 0xFFFFFFFFu : attr->exitSegId;
}

inline void RefLoopFirst(LayerParam* param)
{
    auto* attr = static_cast<LoopAttr*>(param->attr);
    RefDesc in;
    if (attr->tripCount != -1) {
        attr->inputCursor = attr->inputCursor - 1;
    }
    if (attr->condition != -1) {
        static_cast<float*>(param->outputs[0].data)[0] = static_cast<float>(attr->condition);
    } else {
        if (!RefParse2(in, attr->inputCursor, param)) {
            return;
        }
        attr->condition = RefToI32(in.data[0]);
        if (in.desc.isOffline == 0) {
            attr->inputCursor = attr->inputCursor + 1;
        }
    }
    uint32_t c = attr->inputCursor;
    const uint32_t base = attr->condition != 0 ? 1 : attr->carriedNum + 1;
    for (uint32_t i = 0; i < attr->carriedNum; ++i) {
        if (attr->head.inputFlags[i + 1] == '1') {
            if (!RefParse2(in, i + 1, param)) {
                return;
            }
            RefConvertRows(in, param, base + i);
        } else {
            RefParseOnline(in, c, param);
            RefConvertRows(in, param, base + i);
            c += 1;
            attr->inputCursor = attr->inputCursor + 1;
        }
    }
    RefSetCondition(param);
}

inline uint32_t RefLoop(LayerParam* param)
{
    auto* attr = static_cast<LoopAttr*>(param->attr);
    const int64_t iteration = attr->iteration;
    const uint32_t n = attr->carriedNum;
    RefDesc in;
    if (iteration == 0) {
        RefLoopFirst(param);
    } else if (iteration >= 1 && iteration < attr->tripCount) {
        const uint32_t c = attr->inputCursor;
        RefParseOnline(in, c, param);
        attr->condition = RefToI32(in.data[0]);
        RefConvertRows(in, param, 0);
        const uint32_t base = attr->condition != 0 ? 1 : n + 1;
        for (uint32_t j = 0; j < n; ++j) {
            RefParseOnline(in, c + 1 + j, param);
            RefConvertRows(in, param, base + j);
        }
        RefSetCondition(param);
    } else {
        for (int32_t j = 0; j < static_cast<int32_t>(n); ++j) {
            RefParseOnline(in, attr->inputCursor + 1 + static_cast<uint32_t>(j), param);
            RefConvertRows(in, param, n + 1 + static_cast<uint32_t>(j));
        }
        param->segId = attr->exitSegId;
        RefPrepare(param);
    }
    return 0;
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_CONTROL_H
