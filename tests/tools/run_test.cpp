// opkit run: what it computes, reports and refuses.

#include <cmath>
#include <nlohmann/json.hpp>

#include "modelkit/model_reader.h"
#include "tests/modelkit/segment_models.h"
#include "tests/tools/tool_fixture.h"

namespace {

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
    EXPECT_THAT(out, testing::ContainsRegex("processor level (baseline|AVX2|AVX-512)\n"));
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
    Bad("run net -i x=batch.npy --batch 4", {"--batch 4 does not divide the 6 items"});

    SaveModel(TwoOutputs(2, true), At("batched"));
    EXPECT_THAT(Good("run batched -i x=batch.npy -o y=y.npy"), HasSubstr("items   6 in 3 requests\n"));
    EXPECT_THAT(ReadNpy("y.npy").values, ElementsAreArray(expected));
    Bad("run batched -i x=batch.npy --batch 3", {"planned for 2 batch items"});
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
                                     "1 of 3 layer outputs differ: elements 1, largest distance 1 ulps\n"));

    WriteNpy("batch.npy", "(2, 2, 3)", std::vector<float>(12, 1));
    const ToolResult parted = Tool("run net -i x=batch.npy --compare d");
    EXPECT_EQ(parted.code, 1);
    EXPECT_THAT(parted.out, HasSubstr("the runs part: request 0, pass 0, segment 0, layer 0 (Reciprocal), output 0 "
                                      "[2, 2, 3] here, request 0, pass 0, segment 0, layer 0 (Reciprocal), output 0 "
                                      "[2, 3] in d\n"));

    Bad("run net -i x=x.npy --compare nowhere", {"nowhere/index.json: cannot be opened"});
    std::filesystem::remove(At("d/r0-p0-s0-l001-o0-Neg.npy"));
    Bad("run net -i x=x.npy --compare d", {"d/r0-p0-s0-l001-o0-Neg.npy: cannot be opened"});
    Write("d/index.json", "{\"format\": \"opkit-dump\", \"formatVersion\": 2}");
    Bad("run net -i x=x.npy --compare d", {"d/index.json: field formatVersion is 2"});
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
    Bad("run two -i a=a.npy -i b=b.npy", {"b.npy: field shape is [3], 1 batch items, but input \"a\" has 2"});
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
    EXPECT_THAT(dump.err, testing::ContainsRegex("^opkit: layers.new/.*npy: cannot be written: File too large\n$"));
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

TEST_F(RunTest, ShowsNoProgressBarInAFile)
{
    const ToolResult result = Tool("run net -i x=x.npy --repeat 20000");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err, "");
}

}  // namespace
