#include "modelkit/request.h"

#include <gmock/gmock.h>

#include "modelkit/model_builder.h"
#include "opkit/opkit.h"

namespace {

using namespace opkit::modelkit;
using testing::Each;
using testing::ElementsAre;
using testing::SizeIs;

// y = -(-x), the middle tensor in scratch; segment 1 has the first layer's result only.
Model TwoLayers(uint32_t maxBatch, bool batched)
{
    ModelBuilder builder(maxBatch);
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}, 32});
    const TensorRef middle = builder.AddScratch({"middle", {2, 3}, 16}, batched);
    builder.AddLayer("NegOpkitForward").Online(x).Output(middle).LayerId(10);
    builder.AddLayer("NegOpkitForward").Online(middle).Output(y).LayerId(11);
    builder.BeginTable(1);
    builder.AddLayer("NegOpkitForward").Online(x).Output(y).LayerId(12);
    return builder.Build();
}

TEST(Request, RunsBatchesOverPaddedRows)
{
    Request request(TwoLayers(2, true), 2);
    request.SetInput("x", std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    EXPECT_THAT(request.InputRows(0), ElementsAre(1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9, 0, 10, 11, 12, 0));
    EXPECT_EQ(request.Param().inputs[0].size, 64u);
    EXPECT_EQ(request.Param().outputs[0].size, 128u);
    EXPECT_EQ(request.Run(OpkitForward), 0u);
    EXPECT_THAT(request.GetOutput("y"), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12));
    request.SelectSegment(1);
    EXPECT_EQ(request.Run(OpkitForward), 0u);
    EXPECT_THAT(request.GetOutput(0), ElementsAre(-1, -2, -3, -4, -5, -6, -7, -8, -9, -10, -11, -12));
}

TEST(Request, OwnsItsModelBuffer)
{
    const Model model = TwoLayers(1, false);
    Request request(model);
    request.ModelBytes()[0] = std::byte{0x55};
    EXPECT_NE(model.bytes.data()[0], std::byte{0x55});
    EXPECT_NE(static_cast<const void*>(request.ModelBytes().data()), model.bytes.data());
}

TEST(Request, ProfilesEveryLayerOfEveryItem)
{
    Request request(TwoLayers(3, false), 3);
    request.EnableProfiling();
    ASSERT_EQ(request.Run(OpkitForward), 0u);
    ASSERT_THAT(request.Profile(), SizeIs(6));
    for (uint32_t i = 0; i < 6; ++i) {
        EXPECT_EQ(request.Profile()[i].slotIndex, i);
        EXPECT_GT(request.Profile()[i].startTime, 0u);
        EXPECT_GE(request.Profile()[i].endTime, request.Profile()[i].startTime);
    }
}

TEST(Request, DumpsChosenLayers)
{
    Request request(TwoLayers(1, false));
    std::vector<uint32_t> ids;
    const auto note = [&](const DumpRecord& record) { ids.push_back(record.layerId); };
    request.OnDump(note);
    ASSERT_EQ(request.Run(OpkitForward), 0u);
    EXPECT_THAT(ids, ElementsAre(10, 11));
    ids.clear();
    request.OnDump(note, {11});
    ASSERT_EQ(request.Run(OpkitForward), 0u);
    EXPECT_THAT(ids, ElementsAre(11));
    ids.clear();
    request.OnDump(nullptr);
    ASSERT_EQ(request.Run(OpkitForward), 0u);
    EXPECT_THAT(ids, ElementsAre());
}

TEST(Request, CarriesSegIdAndStopFlag)
{
    Request request(TwoLayers(1, false));
    request.SetSegId(42);
    uint32_t stop = 0;
    request.SetStopFlag(&stop);
    ASSERT_EQ(request.Run(OpkitForward), 0u);
    EXPECT_EQ(request.SegId(), 42u);
    EXPECT_EQ(request.Param().stopFlag, &stop);
}

TEST(Request, ResetsWhatARunLeft)
{
    const Model model = TwoLayers(2, true);
    Request request(model, 2);
    request.SetInput("x", std::vector<float>(12, 3.0f));
    request.SelectSegment(1);
    ASSERT_EQ(request.Run(OpkitForward), 0u);
    request.ModelBytes()[0] = std::byte{0x55};
    request.SetSegId(42);
    request.Reset(model);
    EXPECT_EQ(request.ModelBytes()[0], model.bytes.data()[0]);
    EXPECT_THAT(request.GetOutput("y"), Each(0.0f));
    EXPECT_THAT(request.InputRows(0), Each(0.0f));
    const auto* const scratch = static_cast<const char*>(request.Param().opkitBuf);
    EXPECT_THAT(std::string(scratch, request.Param().opkitBufSize), Each('\0'));
    EXPECT_EQ(request.SegId(), 0u);
    request.SetInput("x", std::vector<float>(12, 3.0f));
    ASSERT_EQ(request.Run(OpkitForward), 0u);  // the first table again: two negations
    EXPECT_THAT(request.GetOutput("y"), Each(3.0f));
}

TEST(Request, KnowsTheLargestBatch)
{
    EXPECT_EQ(LargestBatch(TwoLayers(2, true)), 2u);
    EXPECT_EQ(LargestBatch(TwoLayers(2, false)), 256u);
    EXPECT_EQ(LargestBatch(TwoLayers(300, true)), 256u);
}

TEST(Request, RefusesWhatDoesNotFit)
{
    const Model model = TwoLayers(2, true);
    EXPECT_THROW(Request(model, 0), BuildError);
    EXPECT_THROW(Request(model, 257), BuildError);
    EXPECT_THROW(Request(model, 3), BuildError);       // batched scratch is planned for two items
    EXPECT_NO_THROW(Request(TwoLayers(1, false), 3));  // shared scratch serves any number
    Request request(model, 2);
    EXPECT_THROW(request.SetInput("x", std::vector<float>(6)), BuildError);
    EXPECT_THROW(request.SetInput("w", std::vector<float>(12)), BuildError);
    EXPECT_THROW(request.GetOutput("x"), BuildError);
    EXPECT_THROW(request.SelectSegment(9), BuildError);
}

}  // namespace
