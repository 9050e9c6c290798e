// Writes the seeds of one fuzz target: the models of the operator tests' random layers, and an example's.
//     opkit_fuzz_seeds request|check|reader DIRECTORY MODEL

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "fuzz/seed_format.h"
#include "modelkit/model_file.h"
#include "modelkit/model_text.h"
#include "tests/support/twin.h"

namespace opkit::test {
namespace {

constexpr int kModelsPerOperator = 12;
constexpr size_t kMostBytes = 1 << 16;

std::string target;
std::filesystem::path directory;
std::map<std::string, int> written;

void Write(const std::string& name, const std::string& bytes)
{
    if (bytes.size() <= kMostBytes) {
        std::ofstream(directory / name, std::ios::binary) << bytes;
    }
}

void Append(std::string* bytes, uint32_t word)
{
    bytes->append(reinterpret_cast<const char*>(&word), sizeof(word));
}

std::string BytesOf(const modelkit::Model& model)
{
    const auto span = model.bytes.Span();
    return {reinterpret_cast<const char*>(span.data()), span.size()};
}

std::string RequestSeed(const modelkit::Model& model)
{
    std::string seed;
    const uint32_t inputs = std::min<uint32_t>(static_cast<uint32_t>(model.inputs.size()), 3);
    const uint32_t outputs = std::min<uint32_t>(static_cast<uint32_t>(model.outputs.size()), 3);
    Append(&seed, inputs | outputs << 2);
    for (uint32_t i = 0; i < inputs + outputs; ++i) {
        const modelkit::TensorSpec& tensorSpec = i < inputs ? model.inputs[i] : model.outputs[i - inputs];
        Append(&seed, modelkit::PaddedBytes(tensorSpec.shape, tensorSpec.strideBytes));
        Append(&seed, tensorSpec.strideBytes);
        Append(&seed, 0);
    }
    for (const uint32_t word :
         {model.tables[0].layerTableOffset, model.tables[0].layerTableSize, model.scratchSize, 4u}) {
        Append(&seed, word);
    }
    return seed + BytesOf(model);
}

std::string CheckSeed(const modelkit::Model& model, uint32_t batch)
{
    std::string seed;
    for (const uint32_t word :
         {model.tables[0].layerTableOffset, model.tables[0].layerTableSize, model.scratchSize, batch,
          static_cast<uint32_t>(model.inputs.size()), static_cast<uint32_t>(model.outputs.size())}) {
        Append(&seed, word);
    }
    for (const auto* side : {&model.inputs, &model.outputs}) {
        for (const modelkit::TensorSpec& tensorSpec : *side) {
            Append(&seed, modelkit::PaddedBytes(tensorSpec.shape, tensorSpec.strideBytes) * batch);
            Append(&seed, tensorSpec.strideBytes);
        }
    }
    return seed + BytesOf(model);
}

void WriteSeeds(const std::string& name, const modelkit::Model& model, uint32_t batch)
{
    if (target == "request") {
        Write(name, RequestSeed(model));
    } else if (target == "check") {
        Write(name, CheckSeed(model, batch));
    } else {
        const std::string manifest = modelkit::ManifestText(model);
        Write(name + ".manifest", "m" + manifest + '\0' + BytesOf(model));
        Write(name + ".text", "o" + modelkit::DisassembleModel(model, manifest));
    }
}

void Visit(const LayerCase& layer, ForwardFunc, const TwinOptions&)
{
    int& count = written[layer.OperatorName()];
    const int most = target == "reader" ? 1 : kModelsPerOperator;
    if (count < most) {
        const World world(layer);
        const uint32_t batch =
            std::min(world.Param().inputNum != 0 ? world.Param().inputs[0].batch : 1, fuzz::kMaxBatch);
        WriteSeeds(layer.OperatorName() + std::to_string(count++), world.ModelInfo(), batch);
    }
}

}  // namespace
}  // namespace opkit::test

int main(int argc, char** argv)
{
    using namespace opkit::test;
    testing::InitGoogleTest(&argc, argv);
    if (argc != 4) {
        std::puts("opkit_fuzz_seeds request|check|reader DIRECTORY MODEL");
        return 2;
    }
    target = argv[1];
    directory = argv[2];
    WriteSeeds("example", opkit::modelkit::LoadModel(argv[3]), 1);
    if (target == "reader") {
        for (const char* name : {"labels.npy", "weights/conv1_bias.npy"}) {
            std::ifstream file(std::filesystem::path(argv[3]).parent_path() / name, std::ios::binary);
            Write(std::filesystem::path(name).filename().string(),
                  "n" + std::string(std::istreambuf_iterator<char>(file), {}));
        }
    }
    testing::TestEventListeners& listeners = testing::UnitTest::GetInstance()->listeners();
    delete listeners.Release(listeners.default_result_printer());
    VisitCases(Visit);
    return RUN_ALL_TESTS();
}
