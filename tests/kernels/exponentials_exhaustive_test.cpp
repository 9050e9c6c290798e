// The exponential formulas over all floats.

#include <gtest/gtest.h>

#include "tests/kernels/exponentials_check.h"

namespace opkit {
namespace {

using namespace opkit::test;

class ExponentialsExhaustive : public testing::TestWithParam<size_t> {};

TEST_P(ExponentialsExhaustive, SameAsLibm)
{
    ExpectSameForPatterns(Formulas()[GetParam()], 1);
}

INSTANTIATE_TEST_SUITE_P(, ExponentialsExhaustive, testing::Range<size_t>(0, 8));

}  // namespace
}  // namespace opkit
