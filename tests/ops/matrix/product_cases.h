// Products and the ways they go, for the tests of the matrix product.
#ifndef OPKIT_TESTS_OPS_MATRIX_PRODUCT_CASES_H
#define OPKIT_TESTS_OPS_MATRIX_PRODUCT_CASES_H

#include <gtest/gtest.h>

#include "ops/matrix/product_plan.h"
#include "tests/ops/matrix/matrix_cases.h"
#include "tests/reference/matrix_core.h"

namespace opkit::test {

struct Sizes {
    uint32_t M;
    uint32_t N;
    uint32_t K;
};

struct Flags {
    uint8_t transA = 0;
    uint8_t transB = 0;
};

// C = alpha * A * B onto `start`, or onto a cleared C that holds something else; how it went, and the bits of the loop.
struct Problem {
    Sizes sizes;
    Floats a;
    Floats b;
    Floats start;
    bool cleared = true;
    float alpha = 1.0f;
    Flags flags = {};  // of a cleared C only
};

inline Ways RunAsReference(Problem p)
{
    const Sizes& s = p.sizes;
    Floats expected = p.start;
    reference::RefGemm({p.flags.transA, p.flags.transB, s.M, s.N, s.K, p.alpha, p.a.data(), p.b.data(),
                        p.cleared ? 0.0f : 1.0f, expected.data()});
    const MatrixView a = p.flags.transA != 0 ? MatrixView{p.a.data(), 1, s.M} : MatrixView{p.a.data(), s.K, 1};
    const MatrixView b = p.flags.transB != 0 ? MatrixView{p.b.data(), 1, s.K} : MatrixView{p.b.data(), s.N, 1};
    const Ways ways = RunProduct(
        {s.M, s.N, s.K, p.alpha, a, b, nullptr, p.cleared ? Start::kCleared : Start::kFromC, p.start.data()});
    EXPECT_TRUE(SameFloats(p.start, expected)) << "M " << s.M << " N " << s.N << " K " << s.K;
    return ways;
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_OPS_MATRIX_PRODUCT_CASES_H
