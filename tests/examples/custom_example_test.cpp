// The custom example, with its library on the search path and without, and the two functions by themselves.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "opkit/helpers/custom.h"
#include "tests/examples/example_program.h"

namespace {

using namespace opkit::test;
using testing::ElementsAre;
using testing::HasSubstr;

const std::string kFolder = OPKIT_CUSTOM_FOLDER;

Outcome Custom(const std::string& folder, const std::string& options = "")
{
    return RunProgram("LD_LIBRARY_PATH='" + folder + "' " + OPKIT_CUSTOM + " " + options);
}

TEST(CustomExample, CallsBothFunctionsAsItsPageShows)
{
    const Outcome outcome = Custom(kFolder);
    EXPECT_EQ(outcome.status, 0) << outcome.text;
    EXPECT_EQ(outcome.text, FencedBlock(kRoot / "examples/custom/README.md", "\nprints\n"));
    EXPECT_THAT(outcome.text, HasSubstr("\n\nas expected: largest difference"));
}

TEST(CustomExample, WithoutTheLibraryItFails)
{
    const Outcome outcome = Custom("");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.text, HasSubstr("Not found libtvr_opkit_custom_x86.so in default library path"));
    EXPECT_THAT(outcome.text, HasSubstr("is the custom library's directory in LD_LIBRARY_PATH?"));
}

TEST(CustomExample, AnotherFunctionFails)
{
    const Outcome missing = Custom(kFolder, "--clamp NoSuchFunction");
    EXPECT_EQ(missing.status, 1);
    EXPECT_THAT(missing.text, HasSubstr("Not found function(NoSuchFunction) in libtvr_opkit_custom_x86.so"));
    const Outcome wrong = Custom(kFolder, "--clamp SampleRowSoftmax");  // leaves eight parameter bytes alone
    EXPECT_EQ(wrong.status, 1);
    EXPECT_THAT(wrong.text, HasSubstr("FAILED: largest difference"));
}

class SampleLibrary : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(handle_, nullptr) << dlerror(); }

    // Input rows of 3 padded to 4 floats, output rows padded to 5.
    std::vector<float> Call(const char* name, std::vector<float> params, uint32_t inputNum = 1)
    {
        const auto function = reinterpret_cast<CustomFunc>(dlsym(handle_.get(), name));
        EXPECT_NE(function, nullptr) << name;
        std::vector<float> in = {-5, 0, 5, 77, 1, std::numeric_limits<float>::quiet_NaN(), 2, 77};
        std::vector<float> out(10, -9.0f);
        uint32_t shape[] = {2, 3};
        CustomTensor input = {};
        input.stride = 16;
        input.dimNum = 2;
        input.shape = shape;
        input.data = in.data();
        input.size = 32;
        CustomTensor output = input;
        output.stride = 20;
        output.data = out.data();
        output.size = 40;
        CustomCall call = {};
        call.inputs = &input;
        call.inputNum = inputNum;
        call.outputs = &output;
        call.outputNum = 1;
        call.params = params.data();
        call.paramSize = static_cast<uint32_t>(params.size() * sizeof(float));
        function(&call);
        return out;
    }

    const std::unique_ptr<void, int (*)(void*)> handle_{
        dlopen((kFolder + "/libtvr_opkit_custom_x86.so").c_str(), RTLD_NOW), dlclose};
};

TEST_F(SampleLibrary, ClampStepsByTheRowPitch)
{
    EXPECT_THAT(Call("SampleClamp", {-1, 1.5f}), ElementsAre(-1, 0, 1.5f, -9, -9, 1, testing::IsNan(), 1.5f, -9, -9));
}

TEST_F(SampleLibrary, SoftmaxOfARow)
{
    const std::vector<float> out = Call("SampleRowSoftmax", {5});
    const double e = 2.718281828459045;
    const double sum = 1 / e + 1 + e;
    EXPECT_NEAR(out[0], 1 / e / sum, 1e-6);
    EXPECT_NEAR(out[1], 1 / sum, 1e-6);
    EXPECT_NEAR(out[2], e / sum, 1e-6);
    EXPECT_EQ(out[3], -9);
    EXPECT_EQ(out[9], -9);
}

TEST_F(SampleLibrary, CallsThatDoNotFitAreLeftAlone)
{
    const std::vector<float> untouched(10, -9.0f);
    EXPECT_EQ(Call("SampleClamp", {1}), untouched);
    EXPECT_EQ(Call("SampleRowSoftmax", {1, 2}), untouched);
    EXPECT_EQ(Call("SampleClamp", {-1, 1}, 0), untouched);
}

}  // namespace
