// opkit run: what it computes, reports and refuses.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <nlohmann/json.hpp>
#include <numeric>
#include <sstream>
#include <thread>

#include "kernels/level.h"
#include "modelkit/model_reader.h"
#include "modelkit/segment_runner.h"
#include "tests/modelkit/segment_models.h"
#include "tests/tools/tool_fixture.h"

namespace {

using namespace opkit;
using namespace opkit::modelkit;
using namespace opkit::test;
using nlohmann::json;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::Not;

// y = -x by way of two layers with padded rows; z = |1 / x| ... as 1 / x.
Model TwoOutputs(uint32_t maxBatch = 1, bool batched = false)
{
    ModelBuilder builder(maxBatch);
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}, 32});
    const TensorRef z = builder.AddOutput({"z", {2, 3}});
    const TensorRef t = builder.AddScratch({"t", {2, 3}, 16}, batched);
    builder.AddLayer("ReciprocalOpkitForward").Online(x).Output(t).LayerId(7);
    builder.AddLayer("NegOpkitForward").Online(x).Output(y).LayerId(7);
    builder.AddLayer("ReciprocalOpkitForward").Online(t).Output(z).LayerId(8);
    return builder.Build();
}

class RunTest : public ToolTest {
protected:
    RunTest()
    {
        SaveModel(TwoOutputs(), At("net"));
        WriteNpy("x.npy", "(2, 3)", {1, 2, 4, -1, 8, -0.5f});
    }
};

TEST_F(RunTest, ComputesAndReports)
{
    const std::string out = Good("run net -i x=x.npy -o y=y.npy --output z=z.npy");
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAre(-1, -2, -4, 1, -8, 0.5f));
    EXPECT_THAT(ReadNpy("y.npy").header, HasSubstr("'descr': '<f4', 'fortran_order': False, 'shape': (2, 3)"));
    EXPECT_THAT(ReadNpy("z.npy").values, ElementsAre(1, 2, 4, -1, 8, -0.5f));

    const std::string bytes = Read("net.bin");
    char crc[16];
    std::snprintf(crc, sizeof(crc), "%08x", Crc32(std::as_bytes(std::span(bytes))));
    EXPECT_THAT(out, HasSubstr("opkit   3.0.0 (Version:4ed1745), "));
    EXPECT_THAT(out, testing::ContainsRegex("processor level (baseline|AVX2|AVX-512|AVX-512 VNNI)\n"));
    EXPECT_THAT(out, HasSubstr("model   net.json  crc " + std::string(crc)));
    const float x[] = {1, 2, 4, -1, 8, -0.5f};
    std::snprintf(crc, sizeof(crc), "%08x", Crc32(std::as_bytes(std::span(x))));
    EXPECT_THAT(out, HasSubstr("input   x [2, 3]  crc " + std::string(crc) + "  x.npy\n"));
    EXPECT_THAT(out, HasSubstr("output  z [2, 3]  crc " + std::string(crc) + "  z.npy\n"));
    EXPECT_THAT(out, HasSubstr("items   1 in 1 request\n"));
    EXPECT_THAT(out, Not(HasSubstr("median")));
    EXPECT_THAT(Files(), testing::SizeIs(5));
}

TEST_F(RunTest, TakesBatches)
{
    std::vector<float> x(6 * 6);
    std::vector<float> expected;
    for (size_t i = 0; i < x.size(); ++i) {
        x[i] = static_cast<float>(i) + 1;
        expected.push_back(-x[i]);
    }
    for (const char* shape : {"(6, 2, 3)", "(12, 3)", "(2, 3, 2, 3)"}) {
        WriteNpy("batch.npy", shape, x);
        for (const char* batch : {"", "--batch 1", "--batch 3"}) {
            SCOPED_TRACE(std::string(shape) + " " + batch);
            const std::string out = Good(std::string("run net.json -i x=batch.npy -o y=y.npy ") + batch);
            EXPECT_THAT(ReadNpy("y.npy").values, ElementsAreArray(expected));
            EXPECT_THAT(ReadNpy("y.npy").header, HasSubstr("'shape': (6, 2, 3)"));
            EXPECT_THAT(out, HasSubstr(*batch == '\0'                      ? "items   6 in 1 request\n"
                                       : batch == std::string("--batch 1") ? "items   6 in 6 requests\n"
                                                                           : "items   6 in 2 requests\n"));
        }
    }
    // The last request has what is left.
    EXPECT_THAT(Good("run net -i x=batch.npy -o y=y.npy --batch 4"), HasSubstr("items   6 in 2 requests\n"));
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAreArray(expected));
    const std::string many = Good("run net -i x=batch.npy --batch 4 --repeat 2 --threads 2");
    EXPECT_THAT(many, HasSubstr("first outputs are those above, bit for bit"));
    EXPECT_THAT(Good("run net -i x=batch.npy --batch 4 --repeat 2"), testing::ContainsRegex("all layers +18 "));
    EXPECT_THAT(Good("run net -i x=batch.npy --batch 200"), HasSubstr("items   6 in 1 request\n"));

    SaveModel(TwoOutputs(2, true), At("batched"));
    EXPECT_THAT(Good("run batched -i x=batch.npy -o y=y.npy"), HasSubstr("items   6 in 3 requests\n"));
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAreArray(expected));
    Bad("run batched -i x=batch.npy --batch 3", {"--batch 3: the model's scratch is planned for 2 batch items"});
}

TEST_F(RunTest, FollowsSegments)
{
    SaveModel(Branching(), At("branch"));
    WriteNpy("a.npy", "(2, 4)", {1, 2, 3, 4, 0, 2, 3, 4});
    EXPECT_THAT(Good("run branch -i x=a.npy -o y=y.npy"), HasSubstr("items   2 in 2 requests\n"));
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAre(-1, -2, -3, -4, 0, 2, 3, 4));
    Good("run branch -i x=a.npy -o y=y.npy --segment 2");
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAre(1, 2, 3, 4, 0, 2, 3, 4));
    Bad("run branch -i x=a.npy --segment 9", {"the model has no segment 9"});

    SaveModel(NegateInALoop(3), At("loop"));
    WriteNpy("one.npy", "(1,)", {1});
    const std::string out = Good("run loop -i x=x.npy -i one=one.npy -o y=y.npy --repeat 2 --warmup 0");
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAre(1, 2, 4, -1, 8, -0.5f));
    EXPECT_THAT(out, HasSubstr("segment 20 (body)\n"));
    EXPECT_THAT(out, testing::ContainsRegex("    0  Loop  +\\[1\\]  +4 "));
    EXPECT_THAT(out, testing::ContainsRegex("    1  CondEnd  +\\[1\\]  +3 "));
    Bad("run loop -i x=x.npy -i one=one.npy --max-passes 5",
        {"request 0, pass 5, segment 20 (body): given up after 5 passes"});
}

TEST_F(RunTest, TellsWhereASingleTableWantsToGo)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {1}});
    const TensorRef y = builder.AddOutput({"y", {1}});
    IfAttr attr = {};
    attr.thenSegId = 12;
    builder.AddLayer("IfOpkitForward").Online(x).Output(y).Attr(attr);
    SaveModel(builder.Build(), At("if"));
    WriteNpy("one.npy", "(1,)", {1});
    EXPECT_THAT(Good("run if -i x=one.npy"), HasSubstr("segment 12 is what the last layer asked for\n"));
}

TEST_F(RunTest, TimesLayers)
{
    const std::string out = Good("run net -i x=x.npy --repeat 4 --warmup 1 --trace t.json");
    EXPECT_THAT(out, HasSubstr("layer  operator              output              calls    min us median us    share\n"
                               "    0  Reciprocal            [2, 3]                  1 "));
    EXPECT_THAT(out, testing::ContainsRegex("    1  Neg  +\\[2, 3\\] +1 +[0-9]+ +[0-9.]+ +[0-9.]+ %\n"));
    EXPECT_THAT(out, testing::ContainsRegex("       all layers +3 +[0-9]+ +[0-9.]+ +100.0 %\n4 runs;"));

    const json trace = json::parse(Read("t.json"));
    std::vector<std::string> names;
    std::vector<int> runs;
    for (const json& event : trace.at("traceEvents")) {
        if (event.at("ph") == "X") {
            names.push_back(event.at("name"));
            runs.push_back(event.at("args").at("run"));
            EXPECT_TRUE(event.at("ts").is_number_unsigned());
            EXPECT_TRUE(event.at("dur").is_number_unsigned());
            EXPECT_TRUE(event.contains("pid") && event.contains("tid"));
        }
    }
    EXPECT_THAT(runs, ElementsAre(0, 0, 0, 1, 1, 1, 2, 2, 2, 3, 3, 3));
    EXPECT_THAT(std::vector(names.begin(), names.begin() + 3), ElementsAre("Reciprocal", "Neg", "Reciprocal"));

    EXPECT_THAT(Good("run net -i x=x.npy --trace t.json"), Not(HasSubstr("median")));
    EXPECT_EQ(json::parse(Read("t.json")).at("traceEvents").size(), 1u + 3u);
}

TEST_F(RunTest, DumpsLayers)
{
    Good("run net -i x=x.npy --dump d");
    const json index = json::parse(Read("d/index.json"));
    EXPECT_EQ(index.at("format"), "opkit-dump");
    ASSERT_EQ(index.at("tensors").size(), 3u);
    const json& second = index.at("tensors")[1];
    EXPECT_EQ(second.at("operator"), "Neg");
    EXPECT_EQ(second.at("layer"), 1);
    EXPECT_EQ(second.at("layerId"), 7);
    EXPECT_EQ(second.at("shape"), json({2, 3}));
    EXPECT_THAT(ReadNpy("d/" + second.at("file").get<std::string>()).values, ElementsAre(-1, -2, -4, 1, -8, 0.5f));
    EXPECT_THAT(ReadNpy("d/" + index.at("tensors")[0].at("file").get<std::string>()).values,
                ElementsAre(1, 0.5f, 0.25f, -1, 0.125f, -2));

    // Again, with items one behind the other; the old dump goes.
    WriteNpy("batch.npy", "(2, 2, 3)", {1, 2, 4, -1, 8, -0.5f, 2, 2, 2, 2, 2, 2});
    Good("run net -i x=batch.npy --dump d");
    EXPECT_THAT(ReadNpy("d/r0-p0-s0-l001-o0-Neg.npy").values,
                ElementsAre(-1, -2, -4, 1, -8, 0.5f, -2, -2, -2, -2, -2, -2));
    EXPECT_THAT(ReadNpy("d/r0-p0-s0-l001-o0-Neg.npy").header, HasSubstr("(2, 2, 3)"));
    Good("run net -i x=batch.npy --batch 1 --dump d");
    EXPECT_THAT(ReadNpy("d/r1-p0-s0-l001-o0-Neg.npy").values, ElementsAre(-2, -2, -2, -2, -2, -2));

    std::filesystem::create_directory(At("other"));
    Write("other/precious.txt", "keep me");
    Bad("run net -i x=x.npy --dump other", {"other: exists and holds no dump"});
    EXPECT_EQ(Read("other/precious.txt"), "keep me");
}

TEST_F(RunTest, DumpsLoopLayersOnlyOnTheirWayOut)
{
    SaveModel(NegateInALoop(2), At("loop"));
    WriteNpy("one.npy", "(1,)", {1});
    Good("run loop -i x=x.npy -i one=one.npy --dump d");
    std::vector<std::string> seen;
    const json index = json::parse(Read("d/index.json"));
    for (const json& entry : index.at("tensors")) {
        seen.push_back(entry.at("pass").dump() + entry.at("operator").get<std::string>() + entry.at("output").dump());
    }
    EXPECT_THAT(seen, ElementsAre("1Neg0", "1CondEnd0", "1CondEnd1", "3Neg0", "3CondEnd0", "3CondEnd1", "4Loop0",
                                  "4Loop1", "4Loop2", "5Neg0"));
}

TEST_F(RunTest, ComparesWithADump)
{
    Good("run net -i x=x.npy --dump d");
    EXPECT_THAT(Good("run net -i x=x.npy --compare d"), HasSubstr("all 3 layer outputs are those in d, bit for bit\n"));

    WriteNpy("other.npy", "(2, 3)", {1, 2, 4, -1, std::nextafterf(8, 9), std::nanf("")});
    const ToolResult result = Tool("run net -i x=other.npy --compare d");
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.out, HasSubstr("first difference: request 0, pass 0, segment 0, layer 0 (Reciprocal), output 0 "
                                      "[2, 3], element [1, 1]\n  0.124999985 here, 0.125 in d: 2 ulps apart\n"));
    EXPECT_THAT(result.out,
                HasSubstr("3 of 3 layer outputs differ: elements 6, largest distance 2 ulps; some are NaN on "
                          "one side only\n"));

    // A zero of the other sign is one step away, two NaNs are alike.
    WriteNpy("zero.npy", "(2, 3)", {0.0f, std::nanf(""), 1, 1, 1, 1});
    Good("run net -i x=zero.npy --dump d");
    WriteNpy("zero.npy", "(2, 3)", {-0.0f, -std::nanf("1"), 1, 1, 1, 1});
    const ToolResult zeros = Tool("run net -i x=zero.npy --compare d");
    EXPECT_EQ(zeros.code, 1);
    EXPECT_THAT(zeros.out, HasSubstr("layer 1 (Neg), output 0 [2, 3], element [0, 0]\n  0 here, -0 in d: 1 ulp apart\n"
                                     "1 of 3 layer outputs differ: elements 1, largest distance 1 ulp\n"));

    WriteNpy("batch.npy", "(2, 2, 3)", {0.0f, std::nanf(""), 1, 1, 1, 1, 1, 1, 1, 1, 1, 1});
    const ToolResult parted = Tool("run net -i x=batch.npy --compare d");
    EXPECT_EQ(parted.code, 1);
    EXPECT_THAT(parted.out, HasSubstr("the runs part: request 0, pass 0, segment 0, layer 0 (Reciprocal), output 0 "
                                      "[2, 2, 3] here, nothing more in d\n"));
    EXPECT_THAT(parted.out, Not(HasSubstr("first difference")));
    Good("run net -i x=batch.npy --dump e");
    const ToolResult less = Tool("run net -i x=zero.npy --compare e");
    EXPECT_EQ(less.code, 1);
    EXPECT_THAT(less.out, HasSubstr("the runs part: nothing more here, request 0, pass 0, segment 0, layer 0 "));

    Bad("run net -i x=x.npy --compare nowhere", {"nowhere/index.json: cannot be opened"});
    std::filesystem::remove(At("d/r0-p0-s0-l001-o0-Neg.npy"));
    Bad("run net -i x=x.npy --compare d", {"d/r0-p0-s0-l001-o0-Neg.npy: cannot be opened"});
    Write("d/index.json", R"({"format": "opkit-dump", "formatVersion": 1, "incomplete": true, "tensors": []})");
    Bad("run net -i x=x.npy --compare d", {"d: the run that wrote it was killed; dump once more"});
    Write("d/index.json", "{\"format\": \"opkit-dump\", \"formatVersion\": 2}");
    Bad("run net -i x=x.npy --compare d", {"d/index.json: field formatVersion is 2"});
}

// Dumped in one batch, compared in another.
TEST_F(RunTest, ComparesAcrossBatchSizes)
{
    std::vector<float> x(5 * 6);
    std::iota(x.begin(), x.end(), 1.0f);
    WriteNpy("batch.npy", "(5, 2, 3)", x);
    Good("run net -i x=batch.npy --batch 2 --dump two");
    EXPECT_EQ(json::parse(Read("two/index.json")).at("tensors").back().at("firstItem"), 4);
    EXPECT_EQ(json::parse(Read("two/index.json")).at("tensors").back().at("items"), 1);
    for (const char* batch : {"1", "2", "3", "5"}) {
        EXPECT_THAT(Good("run net -i x=batch.npy --compare two --batch " + std::string(batch)),
                    HasSubstr("layer outputs are those in two, bit for bit\n"));
    }
    x[3 * 6 + 2] = -77;
    WriteNpy("batch.npy", "(5, 2, 3)", x);
    const ToolResult result = Tool("run net -i x=batch.npy --compare two --batch 5");
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.out, HasSubstr("layer 0 (Reciprocal), output 0 [5, 2, 3], element [3, 0, 2]\n"));
    EXPECT_THAT(result.out, HasSubstr("3 of 3 layer outputs differ: elements 3,"));
}

TEST_F(RunTest, ComparesWithinATolerance)
{
    Good("run net -i x=x.npy --dump d");
    WriteNpy("near.npy", "(2, 3)", {1, 2, 4.004f, -1, 8.008f, -0.5f});
    EXPECT_EQ(Tool("run net -i x=near.npy --compare d").code, 1);
    EXPECT_THAT(Good("run net -i x=near.npy --compare d --tolerance 0.002"),
                HasSubstr("all 3 layer outputs are those in d, within 0.002: the largest distance is 0.008\n"));
    const ToolResult result = Tool("run net -i x=near.npy --compare d --tolerance 0.0005");
    EXPECT_EQ(result.code, 1);
    // 1 / 4.004 and 1 / 8.008 differ by less than that from 0.25 and 0.125.
    EXPECT_THAT(result.out, HasSubstr("layer 1 (Neg), output 0 [2, 3], element [0, 2]\n  -4.004 here, -4 in d: "));
    EXPECT_THAT(result.out, HasSubstr("2 of 3 layer outputs differ: elements 4,"));
    const float infinity = std::numeric_limits<float>::infinity();
    WriteNpy("far.npy", "(2, 3)", {1, 2, infinity, -1, std::nanf(""), -0.5f});
    const ToolResult far = Tool("run net -i x=far.npy --compare d --tolerance 1e30");
    EXPECT_EQ(far.code, 1);
    EXPECT_THAT(far.out, HasSubstr("elements 4, "));  // 1 / infinity is near to 0.25
    EXPECT_EQ(Tool("run net -i x=x.npy --tolerance 1").code, 2);
    EXPECT_EQ(Tool("run net -i x=x.npy --compare d --tolerance -1").code, 2);
}

// Tensors of another program: an index by hand that says only what is needed, and files for outputs.
TEST_F(RunTest, ComparesWithFilesFromOutside)
{
    std::filesystem::create_directory(At("other"));
    WriteNpy("other/neg.npy", "(2, 3)", {-1, -2, -4, 1, -8, 0.5f});
    const std::string head = R"({"format": "opkit-dump", "formatVersion": 1, )";
    Write("other/index.json", head + R"("partial": true, "tensors": [{"file": "neg.npy", "layer": 1}]})");
    EXPECT_THAT(Good("run net -i x=x.npy --compare other"),
                HasSubstr("all 1 layer outputs are those in other, bit for bit\n"));
    Write("other/index.json", head + R"("tensors": [{"file": "neg.npy", "layer": 1}]})");
    EXPECT_THAT(Tool("run net -i x=x.npy --compare other").out, HasSubstr("the runs part: request 0, "));
    Write("other/index.json", head + R"("partial": true, "tensors": [{"file": "neg.npy", "layer": 3}]})");
    EXPECT_THAT(Tool("run net -i x=x.npy --compare other").out, HasSubstr("the runs part: nothing more here, "));
    Write("other/index.json", head + R"("partial": true, "tensors": [{"file": "neg.npy", "layer": 1, "items": 2,
                                       "shape": [3]}]})");
    EXPECT_EQ(Tool("run net -i x=x.npy --compare other").code, 1);

    WriteNpy("z.npy", "(1, 2, 3)", {1, 2, 4, -1, 8, -0.5f});
    EXPECT_THAT(Good("run net -i x=x.npy --compare z=z.npy --compare y=other/neg.npy"),
                HasSubstr("output z is that in z.npy, bit for bit\noutput y is that in other/neg.npy, bit for bit\n"));
    WriteNpy("z.npy", "(2, 3)", {1, 2, 4, -1, 8, -0.25f});
    const ToolResult result = Tool("run net -i x=x.npy --compare z=z.npy");
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.out, HasSubstr("first difference: output z, element [1, 2]\n  -0.5 here, -0.25 in z.npy: "));
    EXPECT_THAT(result.out, HasSubstr("output z differs: elements 1, largest distance 8388608 ulps\n"));
    Bad("run net -i x=x.npy --compare q=z.npy", {"the model has no output to compare named \"q\"; it has y, z"});
    WriteNpy("z.npy", "(2, 2, 3)", std::vector<float>(12));
    Bad("run net -i x=x.npy --compare z=z.npy", {"z.npy: field shape is [2, 2, 3], 2 batch items, but the run has 1"});
}

TEST_F(RunTest, FollowsNoIndexOutOfItsDirectory)
{
    Good("run net -i x=x.npy --dump d");
    for (const std::string name : {"/etc/hostname", "../x.npy", "sub/x.npy", "..", ""}) {
        Write("d/index.json", R"({"format": "opkit-dump", "formatVersion": 1, "tensors": [{"layer": 0, "shape": [2, 3],
                                "file": ")" +
                                  name + "\"}]}");
        Bad("run net -i x=x.npy --compare d", {"d/index.json: field tensors[0].file is no name of a file in that"});
        Bad("run net -i x=x.npy --dump d", {"d: exists and holds no dump (d/index.json: field tensors[0].file"});
    }
    EXPECT_TRUE(std::filesystem::exists(At("x.npy")));
}

TEST_F(RunTest, RunsStreamsSideBySide)
{
    const std::string out = Good("run net -i x=x.npy --threads 3 --repeat 5");
    EXPECT_THAT(out, testing::ContainsRegex("threads +items/s +ratio\n      1 +[0-9.]+ +1.00\n      3 +[0-9.]+ +[0-9.]+"
                                            "\n5 runs per stream"));

    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2, 3}});
    UniqueAttr flat = {};
    flat.axis = OPKIT_UNIQUE_FLAT;
    auto& unique = builder.AddLayer("UniqueOpkitForward").Online(x).Attr(flat);
    for (const char* name : {"y", "first", "inverse", "counts"}) {
        unique.Output(builder.AddOutput({name, {6}}));
    }
    SaveModel(builder.Build(), At("unique"));
    Bad("run unique -i x=x.npy --threads 2", {"--threads: layer 0 of segment 0 is UniqueOpkitForward"});
}

TEST_F(RunTest, NamesWhatIsWrongWithAFile)
{
    WriteNpy("f8.npy", "(2, 3)", std::vector<float>(12), "<f8");
    WriteNpy("f4be.npy", "(2, 3)", std::vector<float>(6), ">f4");
    WriteNpy("fortran.npy", "(2, 3)", std::vector<float>(6), "<f4", "True");
    WriteNpy("shape.npy", "(3, 2)", std::vector<float>(6));
    WriteNpy("short.npy", "(2, 3)", std::vector<float>(5));
    WriteNpy("long.npy", "(2, 3)", std::vector<float>(7));
    WriteNpy("huge.npy", "(4294967296, 3)", std::vector<float>(6));
    WriteNpy("overflow.npy", "(65536, 65536, 2, 3)", std::vector<float>(6));
    WriteNpy("empty.npy", "(0, 2, 3)", {});
    WriteNpy("text.npy", "(2, 3), 'x': 1", std::vector<float>(6));
    Write("none.npy", "");
    Write("magic.npy", "nothing of the kind");
    Write("cut.npy", Read("x.npy").substr(0, 40));
    Bad("run net -i x=absent.npy", {"absent.npy: cannot be opened: No such file or directory"});
    Bad("run net -i x=.", {"cannot be read: Is a directory"});
    Bad("run net -i x=f8.npy", {"f8.npy: field descr is '<f8'", "'<f4'"});
    Bad("run net -i x=f4be.npy", {"f4be.npy: field descr is '>f4'"});
    Bad("run net -i x=fortran.npy", {"fortran.npy: field fortran_order is True"});
    Bad("run net -i x=shape.npy", {"shape.npy: field shape is [3, 2], input \"x\" takes [2, 3] or a batch of it"});
    Bad("run net -i x=short.npy", {"short.npy: has 20 bytes of elements, field shape [2, 3] takes 24"});
    Bad("run net -i x=long.npy", {"long.npy: has 28 bytes of elements"});
    Bad("run net -i x=huge.npy", {"huge.npy: field shape: a dimension of 4294967296 is too large"});
    Bad("run net -i x=overflow.npy", {"overflow.npy: field shape: shape [65536, 65536, 2, 3] holds too many"});
    Bad("run net -i x=empty.npy", {"empty.npy: field shape is [0, 2, 3]"});
    Bad("run net -i x=text.npy", {"text.npy: its header is not that of a plain array"});
    Bad("run net -i x=none.npy", {"none.npy: is no .npy file"});
    Bad("run net -i x=magic.npy", {"magic.npy: is no .npy file"});
    Bad("run net -i x=cut.npy", {"cut.npy: ends within its header"});
}

TEST_F(RunTest, NamesWhatIsWrongWithNamesAndModels)
{
    Bad("run net", {"input \"x\" [2, 3] has no file: give --input x=FILE.npy"});
    Bad("run net -i q=x.npy", {"the model has no input named \"q\"; it has x"});
    Bad("run net -i x=x.npy -i x=x.npy", {"input \"x\" is given twice"});
    Bad("run net -i x=x.npy -o x=y.npy", {"the model has no output named \"x\"; it has y, z"});
    Bad("run net -i x=x.npy -o y=out.npy -o z=./out.npy", {"./out.npy: is to take two outputs"});
    Bad("run absent -i x=x.npy", {"absent.json: cannot be opened"});
    const std::string bytes = Read("net.bin");
    Write("net.bin", bytes.substr(0, bytes.size() - 100));
    Bad("run net -i x=x.npy", {"net.bin: has " + std::to_string(bytes.size() - 100) +
                               " bytes, field bufferSize of "
                               "net.json says " +
                               std::to_string(bytes.size())});
    Write("net.bin", bytes);
    Write("net.json", Read("net.json").substr(0, 100));
    Bad("run net -i x=x.npy", {"net.json: no JSON at byte"});

    // Two inputs that hold different numbers of items.
    ModelBuilder builder;
    const TensorRef a = builder.AddInput({"a", {3}});
    builder.AddInput({"b", {3}});
    builder.AddLayer("NegOpkitForward").Online(a).Output(builder.AddOutput({"y", {3}}));
    SaveModel(builder.Build(), At("two"));
    WriteNpy("a.npy", "(2, 3)", std::vector<float>(6));
    WriteNpy("b.npy", "(3,)", std::vector<float>(3));
    Bad("run two -i a=a.npy -i b=b.npy", {"b.npy: field shape is [3], 1 batch item, but input \"a\" has 2"});
}

// Without elements a file of no length may claim any number of batch items.
TEST_F(RunTest, CountsItemsWithoutElementsUpToOneRequest)
{
    ModelBuilder builder;
    builder.AddInput({"z", {0}, 4});
    const TensorRef y = builder.AddOutput({"y", {4}, 16});
    builder.AddLayer("NegOpkitForward").Offline({4}, {1, 2, 3, 4}).Output(y);
    SaveModel(builder.Build(), At("zero"));
    WriteNpy("z.npy", "(4294967295, 0)", {});
    Bad("run zero -i z=z.npy", {"z.npy: field shape is [4294967295, 0], 4294967295 batch items without elements"});
    WriteNpy("z.npy", "(257, 0)", {});
    Bad("run zero -i z=z.npy", {"z.npy: field shape is [257, 0], 257 batch items without elements"});
    WriteNpy("z.npy", "(3, 0)", {});
    Good("run zero -i z=z.npy -o y=y.npy");
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAre(-1, -2, -3, -4, -1, -2, -3, -4, -1, -2, -3, -4));
}

TEST_F(RunTest, ReportsAFailedRequest)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2, 3}});
    builder.BeginTable(5, "only");
    builder.AddLayer("NoSuchOperator").Online(x).Output(builder.AddOutput({"y", {2, 3}}));
    SaveModel(builder.Build(), At("bad"));
    Write("y.npy", "old");
    Bad("run bad -i x=x.npy -o y=y.npy",
        {"bad.bin: segment 5, layer 0 (NoSuchOperator): nameOffset at byte ", "the library has no such operator"});
    Bad("run bad -i x=x.npy -o y=y.npy --unchecked", {"request 0, pass 0, segment 5 (only): the request failed"});
    EXPECT_EQ(Read("y.npy"), "old");
    EXPECT_THAT(Tool("run bad -i x=x.npy --unchecked").out, HasSubstr("Get NoSuchOperator func failed."));
}

// The first layer writes more than its output's shape holds, the second divides by zero.
TEST_F(RunTest, RefusesAModelThatWouldFault)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2, 3}});
    const TensorRef y = builder.AddOutput({"y", {2, 3}});
    builder.AddLayer("NegOpkitForward").Online(x).Output(y.As({2, 2}));
    builder.AddLayer("NegOpkitForward").Online(x).Output(y.As({0, 3}));
    SaveModel(builder.Build(), At("unsound"));
    Bad("run unsound -i x=x.npy -o y=y.npy",
        {"unsound.bin: segment 0, layer 0 (NegOpkitForward): outputs[0].shape at byte ",
         "; and 1 more (opkit check tells all, --unchecked runs it nevertheless)"});
}

// A k of TopK that the caller gives is a condition on data, which a run does not test; one out of the model itself is
// refused by the check already.
TEST_F(RunTest, RefusesConditionsThatItCannotKeepTo)
{
    const auto save = [this](const char* name, bool fromRequest) {
        ModelBuilder builder;
        const TensorRef x = builder.AddInput({"x", {4}, 16});
        const TensorRef y = builder.AddOutput({"y", {4}, 16});
        const TensorRef given = builder.AddInput({"k", {1}, 4});
        const TensorRef k = fromRequest ? given : builder.AddScratch({"negated", {1}, 4});
        if (!fromRequest) {
            builder.AddLayer("NegOpkitForward").Online(given).Output(k);
        }
        TopKAttr attr = {};
        attr.k = OPKIT_TOPK_K_FROM_INPUT;
        attr.hasValues = 1;
        builder.AddLayer("TopKOpkitForward").Online(x).Online(k).Output(y).Attr(attr).Workspace(32);
        SaveModel(builder.Build(), At(name));
    };
    save("topk", true);
    save("inside", false);
    WriteNpy("four.npy", "(4,)", {4, 2, 3, 1});
    WriteNpy("two.npy", "(1,)", {2});
    EXPECT_EQ(Tool("check topk").code, 0);
    Bad("run topk -i x=four.npy -i k=two.npy -o y=y.npy",
        {"topk.bin: segment 0, layer 0 (TopKOpkitForward): safe if the first element of inputs[1], k, lies from 0 to 4",
         "which a run does not test (opkit check tells all, --unchecked runs it nevertheless)"});
    Good("run topk -i x=four.npy -i k=two.npy -o y=y.npy --unchecked");
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAre(1, 2, 0, 0));
    Bad("run inside -i x=four.npy -i k=two.npy -o y=y.npy",
        {"inside.bin: segment 0, layer 1 (TopKOpkitForward)", "k lies in scratch"});
}

// A sort stage that packs its boxes writes them all before it cuts their number.
TEST_F(RunTest, RefusesABoxStageWhoseCountsOthersSet)
{
    ModelBuilder builder;
    DetectionOutputAttr attr = {};
    attr.classNum = 1;
    attr.classCapacity = 100;
    attr.stage = OPKIT_STAGE_SORT;
    attr.maxBoxNum = 10;
    attr.packOutput = 1;
    builder.AddLayer("SortOpkitForward")
        .Online(builder.AddInput({"x", {1, 1, 5, 100}, 400}))
        .Output(builder.AddOutput({"y", {1, 1, 5, 10}, 40}))
        .Attr(attr);
    SaveModel(builder.Build(), At("sort"));
    WriteNpy("boxes.npy", "(1, 1, 5, 100)", std::vector<float>(500, 1));
    Bad("run sort -i x=boxes.npy", {"layer 0 (SortOpkitForward)", "--unchecked runs it nevertheless"});
}

// A loop with a preset condition of 1, which no input replaces: it leaves at the second pass and begins anew.
LayerBuilder& AddPresetLoop(ModelBuilder& builder)
{
    LoopAttr attr = {};
    attr.condition = 1;
    attr.tripCount = -1;
    attr.inputCursor = 1;
    attr.carriedNum = 1;
    attr.exitSegId = kNoSegment;
    constexpr uint32_t kMany = 100000;
    LayerBuilder& loop = builder.AddLayer("LoopOpkitForward").Attr(attr);
    const std::pair<const char*, uint32_t> inputs[] = {{"a", 1}, {"b", kMany}, {"c", 1}, {"d", kMany}};
    for (const auto& [name, size] : inputs) {
        loop.Online(builder.AddInput({name, {size}}));
    }
    const std::pair<const char*, uint32_t> outputs[] = {{"x", 1}, {"y", kMany}, {"z", kMany}};
    for (const auto& [name, size] : outputs) {
        loop.Output(builder.AddOutput({name, {size}}));
    }
    return loop;
}

TEST_F(RunTest, RestoresALoopsPresetCondition)
{
    WriteNpy("one.npy", "(1,)", {1});
    WriteNpy("b.npy", "(100000,)", std::vector<float>(100000, 2));
    WriteNpy("d.npy", "(100000,)", std::vector<float>(100000, 3));
    const std::string inputs = " -i a=one.npy -i b=b.npy -i c=one.npy -i d=d.npy ";
    ModelBuilder alone;
    AddPresetLoop(alone);
    SaveModel(alone.Build(), At("loop"));
    EXPECT_THAT(Tool("check loop").out, HasSubstr("accepted with 1 condition\n"));
    EXPECT_THAT(Good("run loop" + inputs + "-o y=y.npy --threads 2 --repeat 6 --warmup 3"), HasSubstr("bit for bit"));
    EXPECT_THAT(ReadNpy("y.npy").values, testing::Each(2));
    Good("run loop" + inputs + "--repeat 3 --warmup 3");

    // The body counts, and ends it all in its third pass, when the loop has begun anew.
    ModelBuilder again;
    again.BeginTable(0, "head");
    again.NextSegment(1);
    AddPresetLoop(again);
    again.BeginTable(1, "body");
    const TensorRef count = again.AddScratch({"count", {1}});
    again.AddLayer("BinaryMathOpkitForward").Online(count).Offline({1}, {1}).Output(count).Attr(BinaryMathAttr{});
    IfAttr enough = {};
    enough.hasSecondOperand = 1;
    enough.cmpType = OPKIT_IF_GREATER;
    enough.thenSegId = 2;
    enough.elseSegId = 0;
    again.AddLayer("IfOpkitForward")
        .Online(count)
        .Offline({1}, {2.5f})
        .Output(again.AddOutput({"w", {1}}))
        .Attr(enough);
    again.BeginTable(2, "end");
    again.AddLayer("NegOpkitForward").Online(count).Output(again.AddOutput({"v", {1}}));
    SaveModel(again.Build(), At("again"));
    EXPECT_THAT(Tool("check again").out, HasSubstr("accepted with 1 condition\n"));
    Good("run again" + inputs + "-o y=y.npy -o z=z.npy -o v=v.npy");
    EXPECT_THAT(ReadNpy("v.npy").values, ElementsAre(-3));
    EXPECT_THAT(ReadNpy("z.npy").values, testing::Each(3));  // of the second pass
    EXPECT_THAT(ReadNpy("y.npy").values, testing::Each(2));  // of the third
    EXPECT_EQ(ReadNpy("y.npy").values.size(), 100000u);
    Bad("run again" + inputs + "--max-passes 4", {"pass 4, segment 0 (head): given up after 4 passes"});
}

TEST_F(RunTest, NeverHalfWritesAnOutput)
{
    Bad("run net -i x=x.npy -o y=/dev/full", {"/dev/full: cannot be written: No space left on device"});
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/full"));
    Bad("run net -i x=x.npy -o y=nowhere/y.npy", {"nowhere/y.npy: cannot be written: No such file or directory"});
    Bad("run net -i x=x.npy --trace /dev/full", {"/dev/full: cannot be written: No space left on device"});
    Bad("run net -i x=x.npy --dump nowhere/deep/../../x.npy", {"x.npy: exists and holds no dump"});
    const ToolResult result = Shell("opkit run net -i x=x.npy >/dev/full");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "opkit: standard output cannot be written: No space left on device\n");
    Good("run net -i x=x.npy -o y=/dev/null -o z=/dev/null");
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

// A file beyond the limit.
TEST_F(RunTest, LeavesNothingOfAFileThatDoesNotFit)
{
    WriteNpy("many.npy", "(100, 2, 3)", std::vector<float>(600));
    const auto before = Files();
    const ToolResult result = Shell("ulimit -f 4; opkit run net -i x=many.npy -o y=y.npy");  // 2048 bytes
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "opkit: y.npy: cannot be written: File too large\n");
    const ToolResult dump = Shell("ulimit -f 4; opkit run net -i x=many.npy --dump layers");
    EXPECT_EQ(dump.code, 1);
    EXPECT_THAT(dump.err, testing::ContainsRegex("^opkit: layers/.*npy: cannot be written: File too large\n$"));
    EXPECT_EQ(Files(), before);
}

// Whenever the interrupt comes, the dump is there as a whole or not at all.
TEST_F(RunTest, AnInterruptLeavesNoPieces)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2, 3}});
    TensorRef last = x;
    for (int i = 0; i < 100; ++i) {
        const TensorRef next = builder.AddScratch({"t" + std::to_string(i), {2, 3}});
        builder.AddLayer("NegOpkitForward").Online(last).Output(next);
        last = next;
    }
    builder.AddLayer("NegOpkitForward").Online(last).Output(builder.AddOutput({"y", {2, 3}}));
    SaveModel(builder.Build(), At("long"));
    const auto before = Files();
    Good("run long -i x=x.npy --dump layers");
    const auto whole = Files();
    for (int milliseconds = 0; milliseconds < 40; milliseconds += 2) {
        std::filesystem::remove_all(At("layers"));
        Shell("timeout -s INT 0.0" + std::to_string(10 + milliseconds) + " opkit run long -i x=x.npy --dump layers");
        EXPECT_THAT(Files(), testing::AnyOf(before, whole)) << milliseconds;
    }
}

TEST_F(RunTest, RunsAtAChosenLevel)
{
    Good("run net -i x=x.npy --dump d");
    const std::pair<const char*, const char*> levels[] = {
        {"baseline", "baseline"}, {"avx2", "AVX2"}, {"avx512", "AVX-512"}};
    // --level has no name for VNNI.
    for (int i = 0; i <= std::min(static_cast<int>(DetectedLevel()), 2); ++i) {
        const std::string out = Good(std::string("run net -i x=x.npy --compare d --level ") + levels[i].first);
        EXPECT_THAT(out, HasSubstr(std::string(", run at ") + levels[i].second + "\n"));
        EXPECT_THAT(out, HasSubstr("all 3 layer outputs are those in d, bit for bit\n"));
    }
    for (int i = static_cast<int>(DetectedLevel()) + 1; i < 3; ++i) {
        Bad(std::string("run net -i x=x.npy --level ") + levels[i].first, {"this machine has no more than"});
    }
    EXPECT_THAT(Tool("run net -i x=x.npy --level sse").err,
                HasSubstr("opkit: --level: sse not in {baseline,avx2,avx5"));
    EXPECT_THAT(Good("run net -i x=x.npy --level baseline --threads 2 --repeat 3"), HasSubstr("bit for bit"));
}

TEST_F(RunTest, TestsItself)
{
    const std::string out = Good("run --selftest");
    EXPECT_THAT(out, testing::ContainsRegex("\nConvolution +[0-9a-f]{8}\n"));
    EXPECT_THAT(out, HasSubstr("\n72 operators: the same bits at all levels of this machine\n"));
    EXPECT_EQ(out, Good("run --selftest"));
    EXPECT_EQ(Tool("run net --selftest").code, 2);
    EXPECT_EQ(Tool("run --selftest --level avx2").code, 2);
}

TEST_F(RunTest, ShowsOutputs)
{
    const float infinity = std::numeric_limits<float>::infinity();
    WriteNpy("x.npy", "(2, 3)", {1, -2.5f, 0, std::nanf(""), -infinity, 4});
    const std::string out = Good("run net -i x=x.npy --show");
    EXPECT_THAT(out, HasSubstr("\ny [2, 3]  min -4  max 2.5  mean -0.625  NaN 1  infinite 1  zeros 1\n"
                               "  [0]           -1          2.5           -0\n"
                               "  [1]          nan          inf           -4\n"));
    EXPECT_THAT(out, HasSubstr("\nz [2, 3]  min "));
    WriteNpy("x.npy", "(2, 3)", std::vector<float>(6, infinity));
    EXPECT_THAT(Good("run net -i x=x.npy --show"), HasSubstr("\ny [2, 3]  none finite  NaN 0  infinite 6  zeros 0\n"));
    std::vector<float> many(30 * 6);
    std::iota(many.begin(), many.end(), 0.0f);
    WriteNpy("x.npy", "(30, 2, 3)", many);
    const std::string long_ = Good("run net -i x=x.npy --show");
    EXPECT_THAT(long_, HasSubstr("\ny [30, 2, 3]  min -179  max -0  mean -89.5  NaN 0  infinite 0  zeros 1\n"));
    EXPECT_THAT(long_, HasSubstr("  [3, 1]           -21          -22          -23\n  ...\n"
                                 "  [26, 0]         -156         -157         -158\n"));
    EXPECT_THAT(Good("run net -i x=x.npy"), Not(HasSubstr("zeros")));
}

// An error that nobody can read is an error as any other, and no file takes the place of the missing stream.
TEST_F(RunTest, DoesWithoutStandardStreams)
{
    EXPECT_EQ(Shell("opkit run net -i q=x.npy 2>&-").code, 1);
    EXPECT_EQ(Shell("opkit rum 2>&-").code, 2);
    EXPECT_EQ(Shell("opkit run net -i q=x.npy 2>/dev/full").code, 1);
    EXPECT_EQ(Shell("opkit run net -i x=x.npy -o y=y.npy <&- 2>&-").code, 0);
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAre(-1, -2, -4, 1, -8, 0.5f));
    const ToolResult closed = Shell("opkit run net -i x=x.npy -o z=z.npy >&-");
    EXPECT_EQ(closed.code, 1);
    EXPECT_EQ(closed.err, "opkit: standard output cannot be written: Bad file descriptor\n");
    EXPECT_THAT(ReadNpy("z.npy").values, ElementsAre(1, 2, 4, -1, 8, -0.5f));

    // Whoever reads the other end of a pipe may have seen enough.
    for (const char* command : {"run net -i x=x.npy -o z=piped.npy", "inspect net", "disassemble net", "--help"}) {
        const ToolResult result = Shell("(sleep 0.1; opkit " + std::string(command) + "; echo $? >code) | true");
        EXPECT_EQ(Read("code"), "1\n") << command;
        EXPECT_EQ(result.err, "") << command;
    }
    EXPECT_THAT(ReadNpy("piped.npy").values, ElementsAre(1, 2, 4, -1, 8, -0.5f));
    EXPECT_EQ(Shell("(sleep 0.1; opkit run net -i q=x.npy; echo $? >code) 2>&1 | true").code, 0);
    EXPECT_EQ(Read("code"), "1\n");
}

TEST_F(RunTest, SaysInOneLineWhatACommandLineShouldHaveBeen)
{
    const std::pair<const char*, const char*> wrong[] = {
        {"", "opkit: A subcommand is required (opkit --help tells)\n"},
        {"rum net", "opkit: there is no command rum; is it run? (opkit --help tells)\n"},
        {"chekc net", "opkit: there is no command chekc; is it check? (opkit --help tells)\n"},
        {"something", "opkit: there is no command something (opkit --help tells)\n"},
        {"--versoin", "opkit: there is no option --versoin; is it --version? (opkit --help tells)\n"},
        {"run", "opkit: MODEL is required (opkit run --help tells)\n"},
        {"run net --inptu x=x.npy", "opkit: there is no option --inptu; is it --input? (opkit run --help tells)\n"},
        {"run --bach=3 net", "opkit: there is no option --bach; is it --batch? (opkit run --help tells)\n"},
        {"check net --strickt", "opkit: there is no option --strickt; is it --strict? (opkit check --help tells)\n"},
        {"run net -i x=x.npy --warmup 3", "opkit: --warmup requires --repeat (opkit run --help tells)\n"},
        {"run net -i x=x.npy --max-passes 0",
         "opkit: --max-passes: Value 0 not in range 1 to 4294967295 (opkit run --help tells)\n"},
        {"run net -i x.npy", "opkit: --input: \"x.npy\" is not of the form NAME=FILE (opkit run --help tells)\n"},
    };
    for (const auto& [arguments, line] : wrong) {
        const ToolResult result = Tool(arguments);
        EXPECT_EQ(result.code, 2) << arguments;
        EXPECT_EQ(result.err, line) << arguments;
        EXPECT_EQ(result.out, "") << arguments;
    }
    Good("run -o y=y.npy -i x=x.npy net");  // a list ends with its option
}

// What stands beside a destination is somebody else's.
TEST_F(RunTest, TouchesNothingButItsOwn)
{
    Write("y.npy.new", "precious");
    std::filesystem::create_directory(At("d.new"));
    Write("d.new/thesis.txt", "precious");
    Good("run net -i x=x.npy -o y=y.npy --dump d");
    EXPECT_EQ(Read("y.npy.new"), "precious");
    EXPECT_EQ(Read("d.new/thesis.txt"), "precious");

    // A directory of some other program with an index.json.
    std::filesystem::create_directories(At("site/pages"));
    Write("site/index.json", "{\"pages\": 3}");
    Write("site/pages/one.html", "precious");
    Bad("run net -i x=x.npy --dump site", {"site: exists and holds no dump (site/index.json: "});
    EXPECT_EQ(Read("site/pages/one.html"), "precious");
    EXPECT_EQ(Read("site/index.json"), "{\"pages\": 3}");

    // What was added to a dump stays, and what a dump listed goes.
    Write("d/notes.txt", "precious");
    std::filesystem::create_directory(At("d/more"));
    Write("d/more/index.json", "precious");
    SaveModel(NegateInALoop(2), At("loop"));
    WriteNpy("one.npy", "(1,)", {1});
    Good("run loop -i x=x.npy -i one=one.npy --dump d");
    EXPECT_EQ(Read("d/notes.txt"), "precious");
    EXPECT_EQ(Read("d/more/index.json"), "precious");
    EXPECT_FALSE(std::filesystem::exists(At("d/r0-p0-s0-l001-o0-Neg.npy")));
    const json index = json::parse(Read("d/index.json"));
    for (const json& entry : index.at("tensors")) {
        EXPECT_TRUE(std::filesystem::exists(At("d") / entry.at("file").get<std::string>())) << entry;
    }
    Write("d/r0-p0-s0-l001-o0-Neg.npy", "precious");  // a name that the next dump needs
    Bad("run net -i x=x.npy --dump d", {"d/r0-p0-s0-l001-o0-Neg.npy: is not of the earlier dump, and would be repl"});
    EXPECT_EQ(Read("d/r0-p0-s0-l001-o0-Neg.npy"), "precious");
    EXPECT_EQ(json::parse(Read("d/index.json")), index);
}

TEST_F(RunTest, FollowsLinksToItsDestinations)
{
    std::filesystem::create_directory(At("disk"));
    std::filesystem::create_symlink("disk/real.npy", At("y.npy"));
    std::filesystem::create_symlink("y.npy", At("again.npy"));
    Good("run net -i x=x.npy -o y=again.npy");  // the file is not there yet
    EXPECT_TRUE(std::filesystem::is_symlink(At("y.npy")) && std::filesystem::is_symlink(At("again.npy")));
    EXPECT_THAT(ReadNpy("disk/real.npy").values, ElementsAre(-1, -2, -4, 1, -8, 0.5f));
    Write("disk/real.npy", "old");
    std::filesystem::permissions(At("disk/real.npy"), std::filesystem::perms(0640));
    Good("run net -i x=x.npy -o y=y.npy");
    EXPECT_THAT(ReadNpy("disk/real.npy").values, ElementsAre(-1, -2, -4, 1, -8, 0.5f));
    EXPECT_EQ(std::filesystem::status(At("disk/real.npy")).permissions(), std::filesystem::perms(0640));
    Bad("run net -i x=x.npy -o y=y.npy -o z=disk/real.npy", {"disk/real.npy: is to take two outputs"});

    std::filesystem::create_directory_symlink("disk/dump", At("d"));
    Good("run net -i x=x.npy --dump d");
    Good("run net -i x=x.npy --dump d");
    EXPECT_TRUE(std::filesystem::is_symlink(At("d")));
    EXPECT_TRUE(std::filesystem::exists(At("disk/dump/index.json")));
    std::filesystem::create_symlink("round.npy", At("round.npy"));
    Bad("run net -i x=x.npy -o y=round.npy", {"round.npy: cannot be followed: Too many levels of symbolic links"});
}

TEST_F(RunTest, TakesNamesAsLongAsTheyCanBe)
{
    const std::string longest(255, 'n');
    Good("run net -i x=x.npy -o y=" + longest);
    EXPECT_THAT(ReadNpy(longest).values, ElementsAre(-1, -2, -4, 1, -8, 0.5f));
    std::filesystem::remove(At(longest));
    Good("run net -i x=x.npy --dump " + longest);
    Good("run net -i x=x.npy --compare " + longest);
    Bad("run net -i x=x.npy -o y=n" + longest, {"cannot be written: File name too long"});
    Good("run net -i x=x.npy --trace " + std::string(250, 't') + ".json");
}

// Each of eight writes a file of its own length under one name.
TEST_F(RunTest, WritersOfOneFileDoNotMeet)
{
    constexpr int kWriters = 8;
    std::string line;
    for (int i = 1; i <= kWriters; ++i) {
        const std::string name = "x" + std::to_string(i) + ".npy";
        WriteNpy(name, "(" + std::to_string(1000 * i) + ", 2, 3)",
                 std::vector<float>(6000 * static_cast<size_t>(i), static_cast<float>(i)));
        line += "(opkit run net -i x=" + name + " -o y=same.npy >/dev/null || echo failed) & ";
    }
    for (int round = 0; round < 5; ++round) {
        const ToolResult result = Shell(line + "wait");
        EXPECT_EQ(result.out + result.err, "");
        const std::vector<float> values = ReadNpy("same.npy").values;
        ASSERT_FALSE(values.empty());
        EXPECT_EQ(values.size(), 6000 * static_cast<size_t>(-values[0]));
        EXPECT_THAT(values, testing::Each(values[0]));
    }
    EXPECT_THAT(Files(), Not(testing::Contains(HasSubstr(".opkit-"))));
}

TEST_F(RunTest, WritersOfOneDumpDoNotMeet)
{
    constexpr int kWriters = 6;
    std::string line;
    for (int i = 1; i <= kWriters; ++i) {
        const std::string name = "x" + std::to_string(i) + ".npy";
        WriteNpy(name, "(" + std::to_string(i) + ", 2, 3)",
                 std::vector<float>(6 * static_cast<size_t>(i), static_cast<float>(i)));
        line += "(opkit run net --batch 1 -i x=" + name + " --dump d >/dev/null || echo failed) & ";
    }
    for (int round = 0; round < 8; ++round) {
        if (round % 2 == 0) {
            std::filesystem::remove_all(At("d"));
        }
        const ToolResult result = Shell(line + "wait");
        EXPECT_EQ(result.out + result.err, "");
        const json index = json::parse(Read("d/index.json"));
        const size_t writer = index.at("tensors").size() / 3;
        size_t files = 1;
        for (const json& entry : index.at("tensors")) {
            const float value = entry.at("layer") == 0
                                    ? 1.0f / static_cast<float>(writer)
                                    : (entry.at("layer") == 1 ? -1.0f : 1.0f) * static_cast<float>(writer);
            const float exact = entry.at("layer") == 2 ? 1.0f / (1.0f / static_cast<float>(writer)) : value;
            EXPECT_THAT(ReadNpy("d/" + entry.at("file").get<std::string>()).values, testing::Each(exact));
            ++files;
        }
        const std::filesystem::directory_iterator entries(At("d"));
        EXPECT_EQ(static_cast<size_t>(std::distance(begin(entries), end(entries))), files);
        Good("run net --batch 1 -i x=x" + std::to_string(writer) + ".npy --compare d");
    }
}

// A run that is killed while its dump replaces another leaves something that the next run can replace.
TEST_F(RunTest, ADumpSurvivesItsWriter)
{
    Good("run net -i x=x.npy --dump d");
    json index = json::parse(Read("d/index.json"));
    json incomplete = {
        {"format", "opkit-dump"}, {"formatVersion", 1}, {"incomplete", true}, {"tensors", json::array()}};
    for (const json& entry : index.at("tensors")) {
        incomplete["tensors"].push_back({{"file", entry.at("file")}});
    }
    incomplete["tensors"].push_back({{"file", "gone.npy"}});
    Write("d/index.json", incomplete.dump());
    std::filesystem::create_directory(At("d/.opkit-1-0"));  // where the other one worked
    Good("run net -i x=x.npy --dump d");
    EXPECT_EQ(json::parse(Read("d/index.json")), index);
    std::filesystem::create_directories(At("e/.opkit-1-0"));
    Good("run net -i x=x.npy --dump e");
}

// 160 MB of dump take the memory of one request's part of it.
TEST_F(RunTest, WritesADumpAsItComes)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's own memory counts as well";
#endif
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {16, 1024}});
    const TensorRef t = builder.AddScratch({"t", {16, 1024}});
    builder.AddLayer("NegOpkitForward").Online(x).Output(t);
    for (int i = 0; i < 98; ++i) {
        builder.AddLayer("NegOpkitForward").Online(t).Output(t);
    }
    builder.AddLayer("NegOpkitForward").Online(t).Output(builder.AddOutput({"y", {16, 1024}}));
    SaveModel(builder.Build(), At("deep"));
    WriteNpy("many.npy", "(25, 16, 1024)", std::vector<float>(25 * 16 * 1024, 1));
    const pid_t child = fork();
    if (child == 0) {
        std::filesystem::current_path(directory_);
        std::freopen("/dev/null", "w", stdout);
        execl(OPKIT_TOOL, "opkit", "run", "deep", "-i", "x=many.npy", "--batch", "1", "--dump", "d", nullptr);
        _exit(127);
    }
    int status = 0;
    rusage usage = {};
    ASSERT_EQ(wait4(child, &status, 0, &usage), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(json::parse(Read("d/index.json")).at("tensors").size(), 2500u);
#if !defined(OPKIT_TESTS_UNDER_SANITIZER)   // which takes memory of its own
    EXPECT_LT(usage.ru_maxrss, 80 * 1024);  // KiB
#endif
}

// Every destination is looked at before anything is computed.
TEST_F(RunTest, TriesDestinationsFirst)
{
    ModelBuilder builder;  // fails when it is run
    const TensorRef x = builder.AddInput({"x", {2, 3}});
    builder.AddLayer("NoSuchOperator").Online(x).Output(builder.AddOutput({"y", {2, 3}}));
    SaveModel(builder.Build(), At("bad"));
    std::filesystem::create_directory(At("full"));
    Write("full/file", "");
    const std::string run = "run bad --unchecked -i x=x.npy ";
    Bad(run, {"the request failed"});
    Bad(run + "-o y=nowhere/y.npy", {"nowhere/y.npy: cannot be written: No such file or directory"});
    Bad(run + "-o y=full", {"full: cannot be written: Is a directory"});
    Bad(run + "-o y=full/", {"full/: cannot be written: Is a directory"});
    Bad(run + "--trace nowhere/t.json", {"nowhere/t.json: cannot be written: No such file or directory"});
    Bad(run + "--dump full", {"full: exists and holds no dump"});
    Bad(run + "--dump nowhere/d", {"nowhere/d: cannot be written: No such file or directory"});
    Bad(run + "--dump x.npy", {"x.npy: exists and holds no dump"});
    Bad(run + "--compare nowhere", {"nowhere/index.json: cannot be opened"});
    Bad(run + "--compare y=nowhere.npy", {"nowhere.npy: cannot be opened: No such file or directory"});
    Bad(run + "--dump d", {"the request failed"});  // and leaves nothing behind
    if (geteuid() != 0) {
        std::filesystem::permissions(At("x.npy"), std::filesystem::perms::owner_read);
        Bad(run + "-o y=x.npy", {"x.npy: cannot be written: Permission denied"});
    }
}

// Standard error on a terminal of that width; returns what stood there.
std::string OnATerminal(unsigned short columns, const std::function<void(const std::string& terminal)>& run)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    EXPECT_TRUE(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0);
    const std::string name = ptsname(master);
    const int held = open(name.c_str(), O_RDWR | O_NOCTTY);  // so that reading ends when this is closed
    const winsize size = {24, columns, 0, 0};
    EXPECT_EQ(ioctl(master, TIOCSWINSZ, &size), 0);
    std::string text;
    std::thread reader([&] {
        char block[4096];
        for (ssize_t count = 0; (count = read(master, block, sizeof(block))) > 0;) {
            text.append(block, static_cast<size_t>(count));
        }
    });
    run(name);
    close(held);
    reader.join();
    close(master);
    return text;
}

// Every long work says how far it is, how fast, and how long it will take, on one line that is gone in the end.
TEST_F(RunTest, ShowsProgressOnATerminal)
{
    WriteNpy("many.npy", "(300000, 2, 3)", std::vector<float>(1800000, 1));
    WriteNpy("some.npy", "(400, 2, 3)", std::vector<float>(2400, 1));
    Good("run net -i x=some.npy --batch 1 --dump d");
    const std::pair<const char*, const char*> works[] = {
        {"-i x=many.npy --batch 1", "/300000 requests"},
        {"-i x=many.npy --repeat 5 --warmup 0", "/5860 requests"},
        {"-i x=x.npy --threads 2 --repeat 300000", "/600008 requests"},
        {"-i x=some.npy --batch 1 --dump e", "/400 requests"},
        {"-i x=some.npy --batch 1 --compare d", "/400 requests"},
    };
    for (const unsigned short columns : {120, 33}) {
        for (const auto& [arguments, total] : std::span(works).first(columns == 120 ? std::size(works) : 1)) {
            SCOPED_TRACE(std::string(arguments) + " on " + std::to_string(columns) + " columns");
            const auto begin = std::chrono::steady_clock::now();
            const std::string text = OnATerminal(columns, [&](const std::string& terminal) {
                EXPECT_EQ(Shell(std::string("opkit run net ") + arguments + " 2>" + terminal).code, 0);
            });
            const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
            if (text.empty() && taken.count() < 0.5 && arguments != works[0].first) {
                continue;  // the machine was done before there was anything to show
            }
            ASSERT_FALSE(text.empty());
            EXPECT_EQ(text.find('\n'), std::string::npos);
            EXPECT_EQ(text.back(), '\r');
            std::istringstream lines(text.substr(1));
            std::string line;
            std::string last;
            while (std::getline(lines, line, '\r')) {
                EXPECT_LT(line.size(), columns);
                last = line;
            }
            EXPECT_EQ(last.find_first_not_of(' '), std::string::npos);  // wiped
            if (columns == 120) {
                EXPECT_THAT(text, testing::ContainsRegex("\\[#* *\\] [0-9]+" + std::string(total) +
                                                         "  [0-9.]+/s  [0-9]+:[0-9][0-9] left"));
            }
        }
    }
}

TEST_F(RunTest, ShowsNoProgressBarInAFile)
{
    const ToolResult result = Tool("run net -i x=x.npy --repeat 20000");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
}

}  // namespace
