// Reads handwritten digits: runs every held-out image through libopkit.so, in batches, and shows what came out.
//
// Succeeds only when at least 97 % of the images are recognised and every logit agrees with the forward pass that the
// training script computed by itself.

#include <fmt/core.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <exception>
#include <set>
#include <string>
#include <vector>

#include "examples/digits/npy.h"
#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "modelkit/request.h"
#include "opkit/opkit.h"

using namespace opkit::modelkit;

namespace {

constexpr double kAccuracyBar = 0.97;

// The stored logits were computed in f64 and rounded once; here every addition rounds to f32. The longest sums have 145
// terms and stay below 64, so one rounding errs by at most 2^-19, and 145 that do not conspire by about 2.3e-5. Four
// times that passes; a wrong weight, index or order of layers moves a logit by far more.
constexpr float kTolerance = 1e-4f;

struct Digits {
    uint32_t count = 0;
    std::vector<float> pixels;  // [count, 8, 8], 0 to 1
    std::vector<int32_t> labels;
    std::vector<float> logits;  // [count, 10], the training script's own
};

struct Results {
    std::vector<float> logits;                           // [count, 10]
    std::vector<float> scores;                           // [count, 3]
    std::vector<float> classes;                          // [count, 3]
    std::vector<std::vector<double>> layerMicroseconds;  // per layer: one mean per request, of one image
};

Digits LoadDigits(const std::filesystem::path& folder)
{
    const auto images = LoadNpy<uint8_t>(folder / "images.npy");
    const auto labels = LoadNpy<int32_t>(folder / "labels.npy");
    const auto logits = LoadNpy<float>(folder / "logits.npy");
    const size_t count = labels.size();
    if (count == 0 || images.size() != count * 64 || logits.size() != count * 10) {
        throw std::runtime_error("images.npy, labels.npy and logits.npy differ in length");
    }
    Digits digits;
    digits.count = static_cast<uint32_t>(count);
    std::transform(images.begin(), images.end(), std::back_inserter(digits.pixels),
                   [](uint8_t pixel) { return static_cast<float>(pixel) / 16.0f; });
    digits.labels.assign(labels.begin(), labels.end());
    digits.logits.assign(logits.begin(), logits.end());
    return digits;
}

void Append(std::vector<float>* all, const std::vector<float>& more)
{
    all->insert(all->end(), more.begin(), more.end());
}

Results RunAll(const Model& model, const Digits& digits, uint32_t batch)
{
    const size_t layerCount = ReadLayerTable(model).layers.size();
    Results results;
    results.layerMicroseconds.resize(layerCount);
    for (uint32_t first = 0; first < digits.count; first += batch) {
        const uint32_t items = std::min(batch, digits.count - first);
        Request request(model, items);
        request.EnableProfiling();
        request.SetInput("pixels", std::span(digits.pixels).subspan(size_t{first} * 64, size_t{items} * 64));
        if (request.Run(OpkitForward) != 0) {
            throw std::runtime_error(fmt::format("the request from image {} on failed", first));
        }
        Append(&results.logits, request.GetOutput("logits"));
        Append(&results.scores, request.GetOutput("scores"));
        Append(&results.classes, request.GetOutput("classes"));
        for (size_t layer = 0; layer < layerCount; ++layer) {
            uint64_t sum = 0;
            for (uint32_t item = 0; item < items; ++item) {
                const ProfilingSlot& slot = request.Profile()[item * layerCount + layer];
                sum += slot.endTime - slot.startTime;
            }
            results.layerMicroseconds[layer].push_back(static_cast<double>(sum) / items);
        }
    }
    return results;
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t half = values.size() / 2;
    return values.size() % 2 == 1 ? values[half] : (values[half - 1] + values[half]) / 2;
}

void PrintLayers(const Model& model, const Results& results)
{
    fmt::print("\n  layer  operator          output           time per image, median of the requests\n");
    double sum = 0;
    const ReadTable table = ReadLayerTable(model);
    for (size_t i = 0; i < table.layers.size(); ++i) {
        const ReadLayer& layer = table.layers[i];
        const double time = Median(results.layerMicroseconds[i]);
        sum += time;
        const std::string name = layer.name.substr(0, layer.name.find("OpkitForward"));
        fmt::print("  {:>5}  {:<16}  {:<15}  {:>11.2f} us\n", i, name, ShapeText(layer.outputs[0].shape), time);
    }
    fmt::print("  {:>5}  {:<16}  {:<15}  {:>11.2f} us\n", "", "together", "", sum);
}

// Four images side by side, each pixel two characters wide.
void Draw(const Digits& digits, const Results& results, const std::vector<uint32_t>& chosen)
{
    static const char* const shades[] = {"  ", "░░", "▒▒", "▓▓", "██"};
    fmt::print("\n");
    for (uint32_t y = 0; y < 8; ++y) {
        std::string line = " ";
        for (const uint32_t image : chosen) {
            for (uint32_t x = 0; x < 8; ++x) {
                line += shades[std::lround(digits.pixels[size_t{image} * 64 + y * 8 + x] * 4)];
            }
            line += "    ";
        }
        fmt::print("{}\n", line.substr(0, line.find_last_not_of(' ') + 1));
    }
    const auto row = [&](auto text) {
        std::string line = " ";
        for (const uint32_t image : chosen) {
            line += fmt::format("{:<20}", text(image));
        }
        fmt::print("{}\n", line.substr(0, line.find_last_not_of(' ') + 1));
    };
    row([&](uint32_t image) {
        const bool right = static_cast<int32_t>(results.classes[size_t{image} * 3]) == digits.labels[image];
        return right ? fmt::format("a {:.0f}", results.classes[size_t{image} * 3])
                     : fmt::format("a {:.0f}? no: a {}", results.classes[size_t{image} * 3], digits.labels[image]);
    });
    for (uint32_t j = 0; j < 3; ++j) {
        row([&](uint32_t image) {
            const size_t at = size_t{image} * 3 + j;
            return fmt::format("  {:.0f} scores {:6.2f}", results.classes[at], results.scores[at]);
        });
    }
}

// Three recognised images of different digits, and the first one that was misread.
std::vector<uint32_t> ImagesWorthSeeing(const Digits& digits, const Results& results)
{
    std::vector<uint32_t> chosen;
    std::set<int32_t> seen;
    uint32_t misread = digits.count;
    for (uint32_t image = 0; image < digits.count; ++image) {
        if (static_cast<int32_t>(results.classes[size_t{image} * 3]) != digits.labels[image]) {
            misread = std::min(misread, image);
        } else if (chosen.size() < 3 && seen.insert(digits.labels[image]).second) {
            chosen.push_back(image);
        }
    }
    if (misread < digits.count) {
        chosen.push_back(misread);
    }
    return chosen;
}

bool CheckLogits(const Digits& digits, const Results& results)
{
    float largest = 0.0f;
    for (size_t i = 0; i < digits.logits.size(); ++i) {
        const float difference = std::fabs(results.logits[i] - digits.logits[i]);
        if (!(difference <= kTolerance)) {  // also for NaN
            fmt::print("FAILED: logit {} of image {} is {}, the training script has {}\n", i % 10, i / 10,
                       results.logits[i], digits.logits[i]);
            return false;
        }
        largest = std::max(largest, difference);
    }
    fmt::print(
        "  {} logits agree with the training script's own forward pass: largest difference {:.1e}, allowed {:.0e}\n",
        digits.logits.size(), largest, kTolerance);
    return true;
}

bool CheckAccuracy(const Digits& digits, const Results& results)
{
    uint32_t right = 0;
    for (uint32_t image = 0; image < digits.count; ++image) {
        right += static_cast<int32_t>(results.classes[size_t{image} * 3]) == digits.labels[image] ? 1 : 0;
    }
    const double accuracy = static_cast<double>(right) / digits.count;
    fmt::print("  accuracy {:.2f} %: {} of {} images the network has never seen\n", 100 * accuracy, right,
               digits.count);
    if (accuracy < kAccuracyBar) {
        fmt::print("FAILED: the accuracy is below {:.0f} %\n", 100 * kAccuracyBar);
        return false;
    }
    return true;
}

int Run(const std::filesystem::path& data, uint32_t batch)
{
    const Model model = LoadModel(data / "digits");
    const Digits digits = LoadDigits(data);
    fmt::print("opkit {:#x}: handwritten digits, {} images in requests of {}\n\n", OpkitGetVersion(), digits.count,
               batch);
    const Results results = RunAll(model, digits, batch);

    const bool accurate = CheckAccuracy(digits, results);
    const bool exact = CheckLogits(digits, results);
    PrintLayers(model, results);
    Draw(digits, results, ImagesWorthSeeing(digits, results));
    fmt::print(
        "\nWhat to try next\n"
        "  script/test                       every test of the library, sanitizer builds included\n"
        "  examples/c/hello.c                the same model from a short C program\n"
        "  examples/digits/make_model.cpp    how a model is written; train.py beside it trains this one\n"
        "  docs/overview.md                  what happens between a request and its answer\n");
    return accurate && exact ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Recognises handwritten digits with a small convolutional network."};
    std::filesystem::path data = "examples/digits/data";
    uint32_t batch = 30;
    app.add_option("--data", data, "folder with digits.json, digits.bin, images.npy, labels.npy and logits.npy")
        ->check(CLI::ExistingDirectory)
        ->capture_default_str();
    app.add_option("--batch", batch, "images per request")->check(CLI::Range(1u, 256u))->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        return Run(data, batch);
    } catch (const std::exception& error) {
        fmt::print(stderr, "FAILED: {}\n", error.what());
        return 1;
    }
}
