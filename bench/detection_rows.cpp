// NonMaxSuppression and the detection chain against plain loops over the same steps.

#include <cstdio>
#include <cstdlib>

#include "bench/one_layer.h"
#include "bench/plain_loops.h"
#include "bench/table.h"
#include "opkit/attributes/detection.h"
#include "opkit/opkit.h"

namespace opkit::bench {
namespace {

constexpr uint32_t kBoxes = 1000;

Row NonMaxSuppression()
{
    constexpr uint32_t kClasses = 10;
    constexpr uint32_t kLimit = 100;
    NonMaxSuppressionAttr attr = {};
    attr.inputCount = 5;
    const auto layer = MakeLayer("NonMaxSuppressionOpkitForward",
                                 std::vector<Layout>{{{1, kBoxes, 4}}, {{1, kClasses, kBoxes}}, {{1}}, {{1}}, {{1}}},
                                 std::vector<Layout>{{{kClasses * kLimit, 3}}}, attr, uint32_t{(kBoxes + 1) * 8});
    for (size_t i = 0; i < kBoxes; ++i) {
        float random[4];
        Fill(random, 0, 1, static_cast<uint32_t>(i + 1));
        float* const box = layer->In(0).data() + i * 4;
        box[0] = random[0] * 400;
        box[1] = random[1] * 400;
        box[2] = box[0] + 10 + random[2] * 90;
        box[3] = box[1] + 10 + random[3] * 90;
    }
    Fill(layer->In(1), 0, 1, 7);
    layer->In(2)[0] = kLimit;
    layer->In(3)[0] = 0.5f;
    layer->In(4)[0] = 0.05f;
    const auto other = MakeFloats(kClasses * kLimit * 3);
    Row row;
    row.work = kBoxes * kClasses;
    row.unit = "G boxes/s";
    row.ours = [=] { layer->Run(); };
    const auto plain = [=] {
        return plain::NonMaxSuppression(layer->In(0).data(), layer->In(1).data(), kBoxes, kClasses, kLimit, 0.5f, 0.05f,
                                        other->Floats().data());
    };
    row.peers = {{"plain loop", [=] { plain(); }, Ratio::kTime, 1.0}};
    row.same = [=] {
        const size_t rows = plain();
        return SameBits(layer->Out().first(rows * 3), other->Floats().first(rows * 3));
    };
    return row;
}

struct ChainData {
    static constexpr uint32_t kClasses = 4;
    static constexpr uint32_t kImage = 600;
    std::unique_ptr<modelkit::Request> request;
    std::vector<float> deltas, scores, proposals;
    std::vector<float> thresholds = {0.5f, 0.05f, 3.0f, 3.0f};

    ChainData() : deltas(8 * kBoxes), scores(kClasses * kBoxes), proposals(4 * kBoxes)
    {
        Fill(deltas, -0.2f, 0.2f, 1);
        Fill(scores, 0, 1, 2);
        for (size_t i = 0; i < kBoxes; ++i) {
            float random[4];
            Fill(random, 0, 1, static_cast<uint32_t>(i + 1));
            for (size_t axis = 0; axis < 2; ++axis) {
                proposals[axis * kBoxes + i] = random[axis] * 500;
                proposals[(axis + 2) * kBoxes + i] = random[axis] * 500 + 10 + random[axis + 2] * 90;
            }
        }
        modelkit::ModelBuilder builder;
        const Shape lists = {1, kClasses, 5, kBoxes};
        const auto deltasIn = builder.AddInput({"deltas", {kBoxes, 8}});
        const auto scoresIn = builder.AddInput({"scores", {kBoxes, kClasses}});
        const auto thresholdsIn = builder.AddInput({"thresholds", {4}});
        const auto countIn = builder.AddInput({"count", {1}});
        const auto proposalsIn = builder.AddInput({"proposals", {1, 1, 4, kBoxes}});
        const auto decoded = builder.AddScratch({"decoded", lists});
        const auto filtered = builder.AddScratch({"filtered", lists});
        const auto sorted = builder.AddScratch({"sorted", lists});
        const auto boxes = builder.AddOutput({"boxes", lists});
        DecBboxAttr decode = {};
        decode.classNum = kClasses;
        decode.clipBox = 1;
        decode.imageWidth = decode.imageHeight = kImage;
        // Deltas and scores are described by one proposal's share.
        builder.AddLayer("DecBboxOpkitForward")
            .Online(deltasIn.As({8}))
            .Online(scoresIn.As({kClasses}))
            .Online(thresholdsIn)
            .Online(countIn)
            .Online(proposalsIn)
            .Output(decoded)
            .Attr(decode);
        const auto stage = [&](const char* name, uint32_t code, const modelkit::TensorRef& in,
                               const modelkit::TensorRef& out) {
            DetectionOutputAttr attr = {};
            attr.classNum = kClasses;
            attr.stage = code;
            attr.classCapacity = kBoxes;
            attr.maxBoxNum = kBoxes;
            builder.AddLayer(name).Online(in).Output(out).Attr(attr);
        };
        stage("FilterBoxOpkitForward", OPKIT_STAGE_FILTER, decoded, filtered);
        stage("SortOpkitForward", OPKIT_STAGE_SORT, filtered, sorted);
        stage("NMSOpkitForward", OPKIT_STAGE_NMS, sorted, boxes);
        request = std::make_unique<modelkit::Request>(builder.Build());
        request->SetInput("deltas", deltas);
        request->SetInput("scores", scores);
        request->SetInput("thresholds", thresholds);
        const float count[] = {static_cast<float>(kBoxes)};
        request->SetInput("count", count);
        request->SetInput("proposals", proposals);
    }
};

Row DetectionChain()
{
    const auto data = std::make_shared<ChainData>();
    const auto other = MakeFloats(size_t{5} * kBoxes * ChainData::kClasses);
    const auto counts = std::make_shared<std::vector<uint32_t>>(ChainData::kClasses);
    Row row;
    row.work = kBoxes * ChainData::kClasses;
    row.unit = "G boxes/s";
    row.ours = [=] {
        if (data->request->Run(OpkitForward) != 0) {
            std::fprintf(stderr, "the detection chain failed\n");
            std::exit(1);
        }
    };
    row.peers = {{"plain loop",
                  [=] {
                      const plain::Chain chain = {kBoxes,
                                                  ChainData::kClasses,
                                                  ChainData::kImage,
                                                  data->deltas.data(),
                                                  data->scores.data(),
                                                  data->thresholds.data(),
                                                  data->proposals.data()};
                      plain::DetectionChain(chain, other->Floats().data(), counts->data());
                  },
                  Ratio::kTime, 1.0}};
    row.same = [=] {
        for (size_t c = 0; c < ChainData::kClasses; ++c) {
            const uint32_t count = (*counts)[c];
            if (count != g_curBoxNum[c]) {
                std::fprintf(stderr, "class %zu: %u boxes, plain loop: %u\n", c, g_curBoxNum[c], count);
                return false;
            }
            for (size_t k = 0; k < 5; ++k) {
                const size_t at = (c * 5 + k) * kBoxes;
                if (!SameBits(data->request->OutputRows(0).subspan(at, count), other->Floats().subspan(at, count))) {
                    return false;
                }
            }
        }
        return true;
    };
    return row;
}

}  // namespace

std::vector<RowMaker> DetectionRows()
{
    return {
        {"Detection", "NonMaxSuppression, 1000 boxes x 10 classes", NonMaxSuppression},
        {"Detection", "chain, 1000 proposals x 4 classes", DetectionChain},
    };
}

}  // namespace opkit::bench
