// The literal broadcasting frame: up to three inputs against output 0.
#ifndef OPKIT_TESTS_REFERENCE_BINARY_FRAME_H
#define OPKIT_TESTS_REFERENCE_BINARY_FRAME_H

#include "tests/reference/reference_frame.h"

namespace opkit::reference {

// Byte access to a layer's attribute block.
template <class T>
T RefAttrAt(LayerParam* param, uint32_t offset)
{
    T value;
    std::memcpy(&value, static_cast<char*>(param->attr) + offset, sizeof(T));
    return value;
}

struct RefOperands {
    RefTensor in[3];
    RefTensor out;
};

// reporter: null where an unresolved input is no message. compacts: each input after its resolution.
inline bool RefOperandsOf(LayerParam* param, uint32_t inputs, const char* reporter, bool compacts,
                          RefOperands& operands)
{
    RefCursor cursor;
    for (uint32_t k = 0; k < inputs; ++k) {
        if (!RefResolve(param, cursor, operands.in[k])) {
            if (reporter != nullptr) {
                RefReport(reporter, "ParseInputInfo failed.\n\n");
            }
            return false;
        }
        if (compacts && !RefCompact(reporter, operands.in[k])) {
            return false;
        }
    }
    operands.out = RefOutput(param, 0);
    return true;
}

inline void RefStrideRecords(LayerParam* param, uint32_t inputs, uint32_t firstInput, uint32_t firstOutput,
                             const RefOperands& operands)
{
    char* const attr = static_cast<char*>(param->attr);
    RefSetStride(*reinterpret_cast<StrideRecord*>(attr + firstOutput), operands.out.shape, operands.out.dimNum);
    for (uint32_t k = 0; k < inputs; ++k) {
        const RefTensor& in = operands.in[k];
        if (RefShapesDiffer(operands.out, in)) {
            RefSetStride(*reinterpret_cast<StrideRecord*>(attr + firstInput + 44 * k), in.shape, in.dimNum);
        }
    }
}

// The element of an input that compact output index i reads.
inline float RefOperand(const RefOperands& operands, uint32_t k, uint32_t i, bool padded)
{
    const RefTensor& in = operands.in[k];
    const uint32_t n = RefShapesDiffer(operands.out, in) ? RefBroadcast(i, in, operands.out) : i;
    return padded ? RefAt(in, n) : in.data[n];
}

// A two-operand walk.
template <class Element>
void RefWalk(const RefOperands& operands, bool paddedInputs, bool paddedOutput, Element element)
{
    for (uint32_t i = 0; i < operands.out.count; ++i) {
        const float a = RefOperand(operands, 0, i, paddedInputs);
        const float b = RefOperand(operands, 1, i, paddedInputs);
        (paddedOutput ? RefAt(operands.out, i) : operands.out.data[i]) = element(a, b);
    }
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_BINARY_FRAME_H
