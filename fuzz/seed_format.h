// A model and the request for it as one run of words, for the fuzz target that checks and executes models:
//
//     table offset, table size, scratch size, batch, input count, output count, then size and stride of each tensor,
//     then the model buffer up to the end
#ifndef OPKIT_FUZZ_SEED_FORMAT_H
#define OPKIT_FUZZ_SEED_FORMAT_H

#include <cstdint>

namespace opkit::fuzz {

constexpr uint32_t kMaxTensors = 8;
constexpr uint32_t kMaxBatch = 4;
constexpr uint32_t kMaxBytes = 1 << 16;  // of a tensor, and of the scratch

}  // namespace opkit::fuzz

#endif  // OPKIT_FUZZ_SEED_FORMAT_H
