// The main tool of the operator tests: an operator and its reference twin run on copies of the same memory, and
// everything a caller can see must come out the same: result, messages, segment id, every word of memory.
//
// A twin is the literal, slow form of the operator, in tests/reference/, with the same LayerParam* signature and no
// helper of the library. A complete test of a two-operand operator:
//
//     #include "opkit/opkit.h"
//     #include "tests/reference/binary_math.h"   // uint32_t RefBinaryMath(LayerParam*);
//     #include "tests/support/twin.h"
//
//     using namespace opkit::test;
//
//     TEST(BinaryMath, SameAsReference)
//     {
//         ForRandomCases(300, [](Random& random) {
//             const Shape shape = random.Shape(1, 4);
//             const Shape other = random.Chance(0.5) ? shape : Shape{shape.back()};
//             LayerCase layer("BinaryMathOpkitForward");
//             layer.Online(shape, random.Floats(ElementCount(shape), Values::kMixed), random.Stride(shape.back()));
//             if (random.Chance(0.5)) {
//                 layer.Offline(other, random.Floats(ElementCount(other), Values::kMixed));
//             } else {
//                 layer.Online(other, random.Floats(ElementCount(other), Values::kMixed), random.Stride(other.back()));
//             }
//             layer.Output(shape, random.Stride(shape.back())).Batch(random.Int(1, 3));
//             layer.Attr<BinaryMathAttr>().mathType = random.Int(0, 10);
//             ExpectSameAsReference(layer, BinaryMathOpkitForward, RefBinaryMath, {.nan = NanPolicy::kAnyNan});
//         });
//     }
//
// Inside the twin: RefReport("BinaryMathOpkitForward", "ParseInputInfo failed.\n\n").
#ifndef OPKIT_TESTS_SUPPORT_TWIN_H
#define OPKIT_TESTS_SUPPORT_TWIN_H

#include <functional>
#include <vector>

#include "tests/support/capture.h"
#include "tests/support/layer_case.h"
#include "tests/support/levels.h"
#include "tests/support/random.h"

namespace opkit::test {

struct TwinOptions {
    NanPolicy nan = NanPolicy::kExactBits;
    // Also once through OpkitForward; the operator's name must then lead to `actual` in the operator table.
    bool throughRequest = true;
    // State outside the request (thread-locals, g_size): set before each run, read and compared after it.
    std::function<void()> before = {};
    std::function<std::vector<uint32_t>()> after = {};
};

// At every instruction-set level. Prints the case when something differs.
void ExpectSameAsReference(const LayerCase& layer, ForwardFunc actual, ForwardFunc reference,
                           const TwinOptions& options = {});

// For programs that put the tests' cases to another use: instead of a comparison with the reference, `visitor` gets
// every case from now on. Null ends it.
using CaseVisitor = void (*)(const LayerCase& layer, ForwardFunc function, const TwinOptions& options);
void VisitCases(CaseVisitor visitor);

// What one direct run did, for tests of single messages and results.
struct RunResult {
    uint32_t result = 0;
    std::string messages;  // normalised
};
RunResult RunCaptured(World& world, ForwardFunc function);
RunResult RunRequestCaptured(World& world);

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_TWIN_H
