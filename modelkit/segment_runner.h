// The caller's side of control flow: runs a model's layer tables in the order that their layers ask for.
//
// The library runs one table per call and never jumps; its control-flow layers leave a segment id in the request's
// segId. After each table
//
//   segId names a table    that table runs next;
//   segId is 0xFFFFFFFF    no jump is asked for: the table's own successor (ModelTable::next) runs next, and the run
//                          ends where it has none;
//   any other segId        is an error.
//
// segId is set to 0xFFFFFFFF before each table, so a table whose layers leave it alone asks for no jump.
//
// A loop is three tables. The head's table has the body as its successor, to which it falls through while the loop goes
// on; the body's last layer leaves the head's segment id; the head's exitSegId is the table behind the loop:
//
//     ModelBuilder builder;
//     builder.BeginTable(1, "head");    ... LoopOpkitForward, exitSegId 3
//     builder.NextSegment(2);
//     builder.BeginTable(2, "body");    ... CondEndOpkitForward, loopBranch 1, nextSegId 1
//     builder.BeginTable(3, "after");
//
//     Request request(model);
//     SegmentRunner(model).OnPass(print).Run(request, OpkitForward);
//
// A conditional is four. The first ends in IfOpkitForward and names the two paths; the then path ends in
// ThenEndOpkitForward, whose nextSegId is the table that joins the paths; the else path has that table as successor.
#ifndef OPKIT_MODELKIT_SEGMENT_RUNNER_H
#define OPKIT_MODELKIT_SEGMENT_RUNNER_H

#include <cstdint>
#include <functional>
#include <map>
#include <stdexcept>

#include "modelkit/model.h"
#include "modelkit/request.h"

namespace opkit::modelkit {

inline constexpr uint32_t kNoSegment = 0xFFFFFFFF;

// One finished pass over one table.
struct SegmentPass {
    uint32_t number = 0;  // counts from 0
    const ModelTable* table = nullptr;
    uint32_t segId = kNoSegment;  // what its layers left
};

// A failed request, a segment without a table, or more passes than allowed. Names the pass and its table.
struct SegmentError : std::runtime_error {
    SegmentError(const SegmentPass& pass, const std::string& what);

    uint32_t pass;
    uint32_t segmentId;  // of the table that ran, or was to run
};

class SegmentRunner {
public:
    // Throws BuildError when two tables share an id, or an id or successor cannot be told from "no jump" or leads
    // nowhere.
    explicit SegmentRunner(const Model& model);

    // The segment that runs first, instead of the model's first table. Throws BuildError when there is none.
    SegmentRunner& Start(uint32_t segmentId);
    SegmentRunner& MaxPasses(uint32_t count);
    // Called after each pass that succeeded.
    SegmentRunner& OnPass(std::function<void(const SegmentPass&)> onPass);

    // Runs `forward`, which is OpkitForward or has its signature, table by table. Returns the number of passes; throws
    // SegmentError.
    uint32_t Run(Request& request, uint32_t (*forward)(ForwardParam*)) const;

private:
    const ModelTable* Find(uint32_t segmentId) const;
    const ModelTable* Successor(const SegmentPass& pass) const;

    std::map<uint32_t, ModelTable> tables_;
    uint32_t start_ = 0;
    uint32_t maxPasses_ = 100000;
    std::function<void(const SegmentPass&)> onPass_;
};

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_SEGMENT_RUNNER_H
