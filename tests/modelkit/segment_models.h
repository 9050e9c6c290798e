// Models of several layer tables: a loop and a conditional.
#ifndef OPKIT_TESTS_MODELKIT_SEGMENT_MODELS_H
#define OPKIT_TESTS_MODELKIT_SEGMENT_MODELS_H

#include "modelkit/model_builder.h"
#include "opkit/opkit.h"

namespace opkit::test {

// x goes to the output by way of a loop: each pass of the body negates it.
inline modelkit::Model NegateInALoop(int64_t tripCount)
{
    using namespace modelkit;
    ModelBuilder builder;
    const TensorRef one = builder.AddInput({"one", {1}});
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}});
    const TensorRef condition = builder.AddScratch({"condition", {1}});
    const TensorRef inside = builder.AddScratch({"inside", {2, 3}, 16});
    const TensorRef final = builder.AddScratch({"final", {2, 3}, 16});
    const TensorRef bodyCondition = builder.AddScratch({"bodyCondition", {1}});
    const TensorRef negated = builder.AddScratch({"negated", {2, 3}, 16});
    const TensorRef next = builder.AddScratch({"next", {2, 3}, 16});

    LoopAttr loop = {};
    loop.condition = -1;
    loop.tripCount = tripCount;
    loop.inputCursor = 1;
    loop.carriedNum = 1;
    loop.exitSegId = 30;
    builder.BeginTable(10, "head");
    builder.AddLayer("LoopOpkitForward")
        .Online(one)
        .Online(x)
        .Online(bodyCondition)
        .Online(next)
        .Output(condition)
        .Output(inside)
        .Output(final)
        .Attr(loop);
    builder.NextSegment(20);

    CondEndAttr end = {};
    end.tensorNum = 2;
    end.loopBranch = 1;
    end.condValue = OPKIT_COND_FROM_INPUT;
    end.nextSegId = 10;
    builder.BeginTable(20, "body");
    builder.AddLayer("NegOpkitForward").Online(inside).Output(negated);
    builder.AddLayer("CondEndOpkitForward").Online(one).Online(negated).Output(bodyCondition).Output(next).Attr(end);

    builder.BeginTable(30, "after");
    builder.AddLayer("NegOpkitForward").Online(final).Output(y);
    return builder.Build();
}

// y = -x through the then path where x[0] is true, -(-x) through the else path.
inline modelkit::Model Branching()
{
    using namespace modelkit;
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {4}});
    const TensorRef y = builder.AddOutput({"y", {4}});
    const TensorRef flag = builder.AddScratch({"flag", {1}});
    const TensorRef negated = builder.AddScratch({"negated", {4}});
    const TensorRef joined = builder.AddScratch({"joined", {4}});

    IfAttr condition = {};
    condition.thenSegId = 1;
    condition.elseSegId = 2;
    builder.BeginTable(0, "if");
    builder.AddLayer("IfOpkitForward").Online(x).Output(flag).Attr(condition);

    ThenEndAttr thenEnd = {};
    thenEnd.tensorNum = 1;
    thenEnd.nextSegId = 3;
    builder.BeginTable(1, "then");
    builder.AddLayer("ThenEndOpkitForward").Online(x).Output(joined).Attr(thenEnd);

    ElseBeginAttr elseBegin = {};
    elseBegin.tensorNum = 1;
    builder.BeginTable(2, "else");
    builder.AddLayer("ElseBeginOpkitForward").Online(x).Output(negated).Attr(elseBegin);
    builder.AddLayer("NegOpkitForward").Online(negated).Output(joined);
    builder.NextSegment(3);

    builder.BeginTable(3, "join");
    builder.AddLayer("NegOpkitForward").Online(joined).Output(y);
    return builder.Build();
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_MODELKIT_SEGMENT_MODELS_H
