// Verifies a model before a process trusts it: everything that the library takes on trust.
//
// The claim: a model that is accepted without conditions runs, for any tensor data, without reading or writing outside
// its tensors, scratch and model buffer, and without a hardware fault. It may still fail a layer cleanly, where an
// index tensor leads outside or memory runs out. How long that takes is bounded by the report's work. A condition
// names, in words, what data or code must keep to besides.
//
// What it relies on: every tensor of the request is a block of its own, of the size given here, aligned to 4 bytes like
// the scratch and the model buffer, and the model buffer is writable and unchanged until the run.
//
//     const CheckReport report = CheckModel(LoadModel("digits"), batch);
//     for (const CheckRefusal& refusal : report.refusals) {
//         std::puts(refusal.Text().c_str());
//     }
#ifndef OPKIT_MODELKIT_CHECK_H
#define OPKIT_MODELKIT_CHECK_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "modelkit/model.h"

namespace opkit::modelkit {

// A tensor that the caller will bind: bytes of all batch items, and the row stride in bytes.
struct CheckTensor {
    uint64_t size = 0;
    uint32_t stride = 0;
};

// The request that the model is to run in. What holds for `batch` items holds for fewer, if the slices stay as large.
struct CheckRequest {
    std::vector<CheckTensor> inputs;
    std::vector<CheckTensor> outputs;
    uint64_t scratchSize = 0;
    uint32_t batch = 1;
};

// Where something was found. Without a layer it is the table, without a segment the request or the whole model.
struct CheckPlace {
    int64_t segment = -1;
    int layer = -1;
    std::string operatorName = {};

    std::string Text() const;
};

struct CheckRefusal {
    CheckPlace place;
    std::string field;        // such as "attrSize", "inputs[2].memIndex" or the name of an attribute
    uint64_t byteOffset = 0;  // of the field, from the start of the model buffer
    int64_t value = 0;        // what the field holds, or what it leads to
    int64_t limit = 0;        // the nearest value that would do
    std::string reason;
    bool leadsNowhere = false;  // the layer is sound, but leaves a segment id that no table has

    std::string Text() const;  // one line
};

struct CheckCondition {
    CheckPlace place;
    std::string condition;

    std::string Text() const;  // one line
};

// An upper bound of what a layer does for the request. An element operation reads one element, computes with it or
// writes it; what that costs is nearly the same for all layers of one operator.
struct CheckWork {
    CheckPlace place;
    uint64_t operations = 0;
};

struct CheckReport {
    uint32_t batch = 0;                  // the batch items of the request
    uint64_t work = 0;                   // element operations of all tables, each run once, without refused layers
    CheckWork mostWork;                  // the layer with the most of them
    std::vector<CheckRefusal> refusals;  // at most one per layer, and one of those that lead nowhere
    std::vector<CheckCondition> conditions;

    bool Accepted() const { return refusals.empty(); }
    bool Unconditional() const { return refusals.empty() && conditions.empty(); }
};

// A request as the model describes it, for `batch` items; 0 stands for 256, as far as tensors stay below 4 GiB, or,
// where that is refused, for what the model's scratch is planned for.
CheckReport CheckModel(const Model& model, uint32_t batch = 0);

// Any bytes, safe whatever they hold. Of a table its name does not count.
CheckReport CheckBuffer(std::span<const std::byte> buffer, std::span<const ModelTable> tables,
                        const CheckRequest& request);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_CHECK_H
