// Box detection, from proposals to a picture: decoding, filter, sort and suppression in one request.
//
// Succeeds only when the surviving boxes are those of expected.csv, which make_scene.py worked out without opkit.

#include <fmt/core.h>
#include <CLI/CLI.hpp>
#include <cmath>
#include <exception>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "examples/detection/csv.h"
#include "examples/detection/picture.h"
#include "modelkit/model_builder.h"
#include "modelkit/model_file.h"
#include "modelkit/request.h"
#include "opkit/opkit.h"

using namespace opkit::modelkit;

namespace {

constexpr uint32_t kWidth = 160;
constexpr uint32_t kHeight = 120;
constexpr uint32_t kClasses = 2;
constexpr uint32_t kFields = 6;                             // x1, y1, x2, y2, score, class
const std::vector<float> kThresholds = {0.5f, 0.3f, 6, 8};  // overlap, score, then height before width

// expected.csv is rounded to 5e-5, and coordinates below 256 carry a few roundings of 2^-17 in f32.
constexpr float kTolerance = 1e-3f;

struct Box {
    std::vector<float> corners;  // x1, y1, x2, y2
    float score = 0;
    uint32_t classId = 0;
};

// Each stage takes the lists of all classes from the tensor of the one before; how long they are, it finds in the
// thread's own variables. The row's name does not matter to it, the stage field does.
Model DetectorModel(uint32_t proposals)
{
    ModelBuilder model;
    const Shape lists = {1, kClasses, kFields, proposals};
    const TensorRef deltas = model.AddInput({"deltas", {proposals, 4 * kClasses}});
    const TensorRef scores = model.AddInput({"scores", {proposals, kClasses}});
    const TensorRef edges = model.AddInput({"proposals", {1, 1, 4, proposals}});
    const TensorRef boxes = model.AddOutput({"boxes", {1, 1, kFields, proposals * kClasses}});
    const TensorRef counts = model.AddOutput({"counts", {kClasses}});
    const TensorRef decoded = model.AddScratch({"decoded", lists});
    const TensorRef filtered = model.AddScratch({"filtered", lists});
    const TensorRef sorted = model.AddScratch({"sorted", lists});

    DecBboxAttr decode = {};
    decode.classNum = kClasses;
    decode.hasClassId = 1;
    decode.clipBox = 1;
    decode.imageWidth = kWidth;
    decode.imageHeight = kHeight;
    model.AddLayer("DecBboxOpkitForward")
        .Online(deltas)
        .Online(scores)
        .Offline({4}, kThresholds)
        .Offline({1}, {static_cast<float>(proposals)})
        .Online(edges)
        .Output(decoded)
        .Attr(decode);

    DetectionOutputAttr stage = {};
    stage.classNum = kClasses;
    stage.hasClassId = 1;
    stage.classCapacity = proposals;
    stage.maxBoxNum = proposals;
    stage.stage = OPKIT_STAGE_FILTER;
    model.AddLayer("FilterBoxOpkitForward").Online(decoded).Output(filtered).Attr(stage);
    stage.stage = OPKIT_STAGE_SORT;
    model.AddLayer("SortOpkitForward").Online(filtered).Output(sorted).Attr(stage);
    stage.stage = OPKIT_STAGE_NMS;
    stage.writeCount = 1;  // one run of boxes, class after class, and a count for each
    model.AddLayer("NMSOpkitForward").Online(sorted).Output(boxes).Output(counts).Attr(stage);
    return model.Build();
}

std::vector<Box> Detect(const Model& model, const Rows& rows)
{
    std::vector<float> deltas, scores, edges(4 * rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        for (size_t k = 0; k < 4; ++k) {
            edges[k * rows.size() + i] = rows[i][k];
        }
        deltas.insert(deltas.end(), rows[i].begin() + 4, rows[i].begin() + 12);
        scores.insert(scores.end(), rows[i].begin() + 12, rows[i].end());
    }
    Request request(model);
    request.SetInput("deltas", deltas);
    request.SetInput("scores", scores);
    request.SetInput("proposals", edges);
    // The library calls back on the thread of the request, so the thread's counts are those that the layer left.
    request.OnDump([](const DumpRecord& record) {
        static const char* const names[] = {"decode", "filter", "sort", "suppress"};
        if (record.outputIndex == 0) {
            fmt::print("  {:<8}  {:>7}  {:>7}\n", names[record.layerId], g_curBoxNum[0], g_curBoxNum[1]);
        }
    });
    fmt::print("boxes after   class 0  class 1\n");
    if (request.Run(OpkitForward) != 0) {
        throw std::runtime_error("the request failed");
    }

    const std::vector<float> fields = request.GetOutput("boxes");
    const std::vector<float> counts = request.GetOutput("counts");
    const size_t width = fields.size() / kFields;
    std::vector<Box> boxes(static_cast<size_t>(counts[0] + counts[1]));
    for (size_t i = 0; i < boxes.size(); ++i) {
        for (size_t k = 0; k < 4; ++k) {
            boxes[i].corners.push_back(fields[k * width + i]);
        }
        boxes[i].score = fields[4 * width + i];
        boxes[i].classId = static_cast<uint32_t>(fields[5 * width + i]);
    }
    return boxes;
}

// One row of expected.csv: class, x1, y1, x2, y2, score.
bool Agrees(const Box& box, const std::vector<float>& row)
{
    bool good = static_cast<float>(box.classId) == row[0] && box.score == row[5];
    for (size_t k = 0; k < 4; ++k) {
        good = good && std::fabs(box.corners[k] - row[k + 1]) <= kTolerance;  // false for NaN
    }
    return good;
}

bool Compare(const std::vector<Box>& boxes, const Rows& expected)
{
    bool good = boxes.size() == expected.size();
    fmt::print("\nclass  score        x1        y1        x2        y2\n");
    for (size_t i = 0; i < boxes.size(); ++i) {
        const Box& box = boxes[i];
        const bool same = i < expected.size() && Agrees(box, expected[i]);
        good = good && same;
        fmt::print("{:>5}  {:>5.2f}  {:>8.3f}  {:>8.3f}  {:>8.3f}  {:>8.3f}{}\n", box.classId, box.score,
                   box.corners[0], box.corners[1], box.corners[2], box.corners[3], same ? "" : "  not as expected");
    }
    fmt::print("\n{}: {} boxes, {} expected\n", good ? "as expected" : "FAILED", boxes.size(), expected.size());
    return good;
}

// Objects filled, proposals grey, survivors framed in their class's colour.
void Draw(const std::filesystem::path& file, const Rows& objects, const Rows& proposals, const std::vector<Box>& boxes)
{
    constexpr Colour filled[] = {{90, 60, 20}, {20, 60, 100}};
    constexpr Colour framed[] = {{255, 170, 40}, {70, 190, 255}};
    Picture picture(kWidth, kHeight, 4);
    for (const std::vector<float>& object : objects) {
        picture.Fill(&object[1], filled[object[0] == 0 ? 0 : 1]);
    }
    for (const std::vector<float>& proposal : proposals) {
        picture.Frame(proposal.data(), 1, {110, 110, 110});
    }
    for (const Box& box : boxes) {
        picture.Frame(box.corners.data(), 3, framed[box.classId]);
    }
    WriteFile(file, picture.Ppm());
    fmt::print("picture: {}\n", file.string());
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Finds the boxes of a scene and draws them."};
    std::filesystem::path data = "examples/detection/data";
    std::filesystem::path picture = std::filesystem::path(argv[0]).replace_filename("detection.ppm");
    std::filesystem::path save;
    app.add_option("--data", data, "folder with proposals.csv, objects.csv and expected.csv")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
    app.add_option("--picture", picture, "PPM file to write")->capture_default_str();
    app.add_option("--save", save, "also write the model as NAME.json and NAME.bin");
    CLI11_PARSE(app, argc, argv);
    try {
        const auto proposals = ReadCsv(data / "proposals.csv", 14);
        const Model model = DetectorModel(static_cast<uint32_t>(proposals.size()));
        if (!save.empty()) {
            SaveModel(model, save);
        }
        const std::vector<Box> boxes = Detect(model, proposals);
        const bool good = Compare(boxes, ReadCsv(data / "expected.csv", 6));
        Draw(picture, ReadCsv(data / "objects.csv", 5), proposals, boxes);
        return good ? 0 : 1;
    } catch (const std::exception& error) {
        fmt::print(stderr, "FAILED: {}\n", error.what());
        return 1;
    }
}
