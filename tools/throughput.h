// Several independent request streams, each on a thread and a model buffer of its own.
#ifndef OPKIT_TOOLS_THROUGHPUT_H
#define OPKIT_TOOLS_THROUGHPUT_H

#include "modelkit/model.h"
#include "tools/stream.h"

namespace opkit::tools {

struct ThroughputOptions {
    uint32_t threads = 2;
    uint32_t repeat = 100;  // times that each stream runs all the data
    uint32_t warmup = 3;
};

// Throws ToolError where a model's requests must not run side by side.
void RefuseUnique(const modelkit::Model& model);

// Prints the throughput of one thread and of all, and checks that every stream gives `expected` first. Throws
// ToolError.
void MeasureThroughput(const modelkit::Model& model, const RunData& inputs, const RunData& expected,
                       const StreamOptions& streamOptions, const ThroughputOptions& options);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_THROUGHPUT_H
