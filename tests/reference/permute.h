// Literal form of Permute. The pitches lie side by side, as an entry of perm may reach into the output's.
#ifndef OPKIT_TESTS_REFERENCE_PERMUTE_H
#define OPKIT_TESTS_REFERENCE_PERMUTE_H

#include <vector>

#include "opkit/attributes/movement.h"
#include "tests/reference/reference_frame.h"

namespace opkit::reference {

inline uint32_t RefSuffixProduct(const RefTensor& tensor, int32_t first)
{
    uint32_t product = 1;
    for (int32_t d = first; d < tensor.dimNum; ++d) {
        product *= tensor.shape[d];
    }
    return product;
}

inline uint32_t RefPermute(LayerParam* param)
{
    const char* const name = "PermuteOpkitForward";
    const auto* attr = static_cast<const PermuteAttr*>(param->attr);
    RefCursor cursor;
    RefTensor in;
    if (!RefResolve(param, cursor, in)) {
        RefReport(name, "ParseInputInfo failed.\n\n");
        return kAllOnes;
    }
    const RefTensor out = RefOutput(param, 0);
    const uint32_t rank = static_cast<uint32_t>(in.dimNum);
    if (attr->permLength > rank || attr->permOutDimCount != rank || attr->permDimCount != rank) {
        return kAllOnes;
    }
    std::vector<uint32_t> pitches(2 * rank, 1);
    for (uint32_t i = 0; i + 1 < rank; ++i) {
        pitches[i] = RefSuffixProduct(in, static_cast<int32_t>(i) + 1);
        pitches[rank + i] = RefSuffixProduct(out, static_cast<int32_t>(i) + 1);
    }
    const uint32_t inExtent = in.count / in.Width() * RefPitch(in.Width(), in.AlignNum());
    for (int32_t i = 0; i < static_cast<int32_t>(in.count); ++i) {
        uint32_t r = static_cast<uint32_t>(i);
        uint32_t src = 0;
        for (uint32_t d = 0; d < rank; ++d) {
            const uint32_t q = r / pitches[rank + d];
            src += q * pitches[attr->perm[d]];
            r = r % pitches[rank + d];
        }
        const uint32_t from = RefPadded(src, in.Width(), in.AlignNum());
        if (from >= inExtent) {
            RefReport(name, "perm leads outside the tensor.\n\n");
            return kAllOnes;
        }
        RefMove(out.data + i, in.data + from);
    }
    return RefExpandChecked(name, out);
}

}  // namespace opkit::reference

#endif  // OPKIT_TESTS_REFERENCE_PERMUTE_H
