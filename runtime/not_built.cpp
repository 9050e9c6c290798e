// Rows of the operator table whose operator is not built yet: each fails its layer plainly. An operator's file takes
// its line out of this list; a test names what is left.

#include "common/report.h"
#include "opkit/operators.h"
#include "runtime/frame.h"

#define OPKIT_NOT_BUILT(name)                            \
    uint32_t name(LayerParam* /*param*/)                 \
    {                                                    \
        opkit::Report(opkit::Here(), "not built yet\n\n"); \
        return opkit::kFailure;                          \
    }

OPKIT_NOT_BUILT(ArgminOpkitForward)
OPKIT_NOT_BUILT(CumSumOpkitForward)
OPKIT_NOT_BUILT(DecBboxOpkitForward)
OPKIT_NOT_BUILT(DetectionOutputOpkitForward)
OPKIT_NOT_BUILT(HardmaxOpkitForward)
OPKIT_NOT_BUILT(NonMaxSuppressionOpkitForward)
OPKIT_NOT_BUILT(NonZeroOpkitForward)
OPKIT_NOT_BUILT(ReductionOpkitForward)
OPKIT_NOT_BUILT(TopKOpkitForward)
OPKIT_NOT_BUILT(UniqueOpkitForward)
