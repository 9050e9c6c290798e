// Mod: remainder of two broadcast inputs. Of whole numbers it has the divisor's sign, of floats the dividend's, and a
// zero divisor gives +0.0: one that truncates to 0 there, one within the zero tolerance here.
// Rows: expanding.

#include <cmath>

#include "common/convert.h"
#include "common/float_compare.h"
#include "kernels/map.h"
#include "opkit/attributes/elementwise.h"
#include "opkit/operators.h"
#include "ops/elementwise/binary_frame.h"

using namespace opkit;

namespace {

float WholeRemainder(float a, float b)
{
    const int32_t divisor = TruncateToI32(b);
    if (divisor == 0) {
        return 0.0f;
    }
    const int32_t remainder = TruncateToI32(a) % divisor;
    const float result = static_cast<float>(remainder);
    // The remainder bears the dividend's sign. The correction adds in f32: near 2^31 it rounds.
    const bool signsDiffer = (remainder ^ divisor) < 0;
    return remainder != 0 && signsDiffer ? result + static_cast<float>(divisor) : result;
}

float FloatRemainder(float a, float b)
{
    if (NearZero(b)) {
        return 0.0f;
    }
    return static_cast<float>(std::fmod(static_cast<double>(a), static_cast<double>(b)));
}

}  // namespace

uint32_t ModOpkitForward(LayerParam* param)
{
    Operands<2> operands;
    if (!Resolve(param, &operands, Rows::kExpanding, Messages::kAll)) {
        return kFailure;
    }
    ModAttr& attr = AttrOf<ModAttr>(param);
    RecordStrides(attr, operands);
    MapRuns(operands, Rows::kExpanding, attr.fmod != 0 ? MapBinary<FloatRemainder> : MapBinary<WholeRemainder>);
    return ExpandOutputChecked(operands.out);
}
