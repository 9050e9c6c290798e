// Turns the trained weights into the model pair digits.json and digits.bin. Only needed after training anew: the pair
// is kept beside the data.

#include <fmt/core.h>
#include <CLI/CLI.hpp>
#include <exception>
#include <string>
#include <vector>

#include "examples/digits/npy.h"
#include "modelkit/model_builder.h"
#include "modelkit/model_file.h"
#include "opkit/opkit.h"

using namespace opkit::modelkit;

namespace {

class NetworkBuilder {
public:
    explicit NetworkBuilder(std::filesystem::path weights) : weights_(std::move(weights)) {}

    Model Build()
    {
        // Rows are padded wherever a row is short, as hardware with wide rows would lay them out.
        const TensorRef pixels = model_.AddInput({"pixels", {1, 1, 8, 8}, 64});
        const TensorRef logitsOut = model_.AddOutput({"logits", {10}});
        const TensorRef scores = model_.AddOutput({"scores", {1, 3}, 16});
        const TensorRef classes = model_.AddOutput({"classes", {1, 3}, 16});

        const TensorRef half = Block("1", pixels, 16, 64);
        const TensorRef quarter = Block("2", half, 32, 32);

        const TensorRef flat = model_.AddScratch({"flat", {1, 128}});
        Reshape(quarter, flat);

        const TensorRef logits = model_.AddScratch({"logits", {1, 10}, 64});
        GemmAttr dense = {};
        dense.inputCount = 3;
        dense.alpha = 1.0f;
        dense.beta = 1.0f;
        model_.AddLayer("GemmOpkitForward")
            .Online(flat)
            .Offline(Weight("dense_weight"))
            .Offline(Weight("dense_bias"))
            .Output(logits)
            .Attr(dense)
            .Workspace(10 * sizeof(float));
        // A layer cannot read a request output, so the logits leave the scratch by a Reshape.
        Reshape(logits, logitsOut);

        TopKAttr best = {};
        best.k = 3;
        best.axis = 1;
        best.largest = 1;
        best.hasValues = 1;
        best.hasIndices = 1;
        model_.AddLayer("TopKOpkitForward")
            .Online(logits)
            .Output(scores)
            .Output(classes)
            .Attr(best)
            .Workspace(10 * 2 * sizeof(float));
        return model_.Build();
    }

private:
    ConstantRef Weight(const std::string& name)
    {
        const auto array = LoadNpy<float>(weights_ / (name + ".npy"));
        return model_.AddConstant(name, Shape(array.shape().begin(), array.shape().end()),
                                  std::vector<float>(array.begin(), array.end()));
    }

    // Convolution 3 x 3, bias, rectifier, max pooling 2 x 2. `strideBytes` is the row stride before the pooling.
    TensorRef Block(const std::string& number, const TensorRef& in, uint32_t outChannels, uint32_t strideBytes)
    {
        const uint32_t channels = in.shape[1];
        const uint32_t size = in.shape[2];
        const auto scratch = [&](const char* name, uint32_t side, uint32_t stride) {
            return model_.AddScratch({name + number, {1, outChannels, side, side}, stride});
        };
        const TensorRef convolved = scratch("convolved", size, strideBytes);
        const TensorRef biased = scratch("biased", size, strideBytes);
        const TensorRef rectified = scratch("rectified", size, strideBytes);
        const TensorRef pooled = scratch("pooled", size / 2, strideBytes / 2);

        // Two inputs, images and weights: no zero points, so the result is the plain float convolution.
        ConvolutionAttr convolution = {};
        convolution.inputCount = 2;
        convolution.channels = channels;
        convolution.height = size;
        convolution.width = size;
        convolution.kernelH = 3;
        convolution.kernelW = 3;
        convolution.padTop = 1;
        convolution.padBottom = 1;
        convolution.padLeft = 1;
        convolution.padRight = 1;
        convolution.strideH = 1;
        convolution.strideW = 1;
        convolution.dilationH = 1;
        convolution.dilationW = 1;
        convolution.outHeight = size;
        convolution.outWidth = size;
        convolution.colChannels = channels * 9;
        convolution.groupNum = 1;
        convolution.outChannels = outChannels;
        convolution.gemmM = outChannels;
        convolution.gemmN = size * size;
        convolution.gemmK = channels * 9;
        model_.AddLayer("ConvolutionOpkitForward")
            .Online(in)
            .Offline(Weight("conv" + number + "_weight"))
            .Output(convolved)
            .Attr(convolution)
            .Workspace(size * size * convolution.colChannels * sizeof(float) + size * size);

        BinaryMathAttr bias = {};
        bias.mathType = OPKIT_BINARY_ADD;
        model_.AddLayer("BinaryMathOpkitForward")
            .Online(convolved)
            .Offline(Weight("conv" + number + "_bias"))
            .Output(biased)
            .Attr(bias);

        ThresholdedReluAttr rectifier = {};
        rectifier.alpha = 0.0f;
        model_.AddLayer("ThresholdedReluOpkitForward").Online(biased).Output(rectified).Attr(rectifier);

        PoolingMaxAttr pooling = {};
        pooling.kernelH = 2;
        pooling.kernelW = 2;
        pooling.strideH = 2;
        pooling.strideW = 2;
        model_.AddLayer("PoolingMaxOpkitForward").Online(rectified).Output(pooled).Attr(pooling);
        return pooled;
    }

    void Reshape(const TensorRef& in, const TensorRef& out)
    {
        ReshapeAttr reshape = {};
        std::copy(out.shape.begin(), out.shape.end(), reshape.reshapeDims);
        reshape.reshapeDimCount = static_cast<uint32_t>(out.shape.size());
        model_.AddLayer("ReshapeOpkitForward").Online(in).Output(out).Attr(reshape);
    }

    std::filesystem::path weights_;
    ModelBuilder model_;
};

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Writes the model pair of the digits example from the trained weights."};
    std::filesystem::path data = "examples/digits/data";
    std::filesystem::path out;
    app.add_option("--data", data, "folder with weights/*.npy")->check(CLI::ExistingDirectory)->capture_default_str();
    app.add_option("--out", out, "where digits.json and digits.bin go (default: the data folder)");
    CLI11_PARSE(app, argc, argv);
    try {
        const Model model = NetworkBuilder(data / "weights").Build();
        SaveModel(model, (out.empty() ? data : out) / "digits");
        fmt::print("digits.bin: {} bytes, layer table at {}, scratch {} bytes\n", model.bytes.size(),
                   model.tables.front().layerTableOffset, model.scratchSize);
    } catch (const std::exception& error) {
        fmt::print(stderr, "make_model: {}\n", error.what());
        return 1;
    }
    return 0;
}
