// opkit inspect, assemble and disassemble, usage errors and help.

#include <nlohmann/json.hpp>

#include "tests/modelkit/segment_models.h"
#include "tests/tools/tool_fixture.h"

namespace {

using namespace opkit::modelkit;
using namespace opkit::test;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;

class InspectTest : public ToolTest {
protected:
    // Scratch: t [2, 3] at 0 (32 bytes), u over it in place, v [2, 2] at 16 overlapping both, work space behind.
    InspectTest()
    {
        ModelBuilder builder(4);
        const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
        const TensorRef y = builder.AddOutput({"y", {2, 3}});
        const TensorRef t = builder.AddScratch({"t", {2, 3}, 16});
        const TensorRef v = builder.AddScratch({"v", {2, 2}}, false, 16);
        builder.AddLayer("NegOpkitForward").Online(x).Output(t);
        builder.AddLayer("NegOpkitForward").Online(t).Output(t);
        TopKAttr attr = {};
        attr.k = 2;
        attr.axis = -1;
        builder.AddLayer("TopKOpkitForward")
            .Online(t)
            .Offline(builder.AddConstant("count", {1}, {2}))
            .Output(v)
            .Attr(attr)
            .Workspace(24)
            .LayerId(77);
        builder.AddLayer("ReshapeOpkitForward").Online(v).Output(y).Attr(ReshapeAttr{});
        SaveModel(builder.Build(), At("net"));
    }
};

TEST_F(InspectTest, TellsPeopleEverything)
{
    const std::string out = Good("inspect net.bin");
    for (const char* line : {
             "opkit   3.0.0",
             "model   net.json  crc ",
             "scratch 88 bytes; batched tensors have room for 4 items\n",
             "\ninputs\n    0  x                [2, 3]             stride 16\n",
             "\n  count                [1]                4 bytes at byte 0\n",
             "\nsegment 0 (main): 4 layers, table of ",
             "  layer 2  TopK  id 77\n"
             "    in 0   scratch 0 to 32              [2, 3]             stride 16\n"
             "    in 1   constant count               [1]                at byte 0\n"
             "    out 0  scratch 16 to 32             [2, 2]             stride 8\n"
             "    work   scratch 64 to 88\n"
             "    attr   k 2, axis -1, largest 0, hasValues 0, hasIndices 0\n",
             "    out 0  y                            [2, 3]             stride 12\n",
             "           0         32         32  0-1       output 0 of layer 0\n"
             "           0         32         32  1-2       output 0 of layer 1\n"
             "          16         32         16  2-3       output 0 of layer 2\n"
             "          64         88         24  2-2       work space of layer 2\n"
             "  peak 56 bytes at layer 2; 88 of 88 bytes reached\n"
             "  output 0 of layer 0 and output 0 of layer 1 share bytes 0 to 32: in place\n"
             "  output 0 of layer 1 and output 0 of layer 2 share bytes 16 to 32 while both are in use\n",
         }) {
        EXPECT_THAT(out, HasSubstr(line));
    }
}

TEST_F(InspectTest, TellsProgramsEverything)
{
    const json report = json::parse(Good("inspect net --json"));
    EXPECT_EQ(report.at("bufferSize"), Read("net.bin").size());
    const json& table = report.at("tables").at(0);
    const json& layer = table.at("layers").at(2);
    EXPECT_EQ(layer.at("operator"), "TopKOpkitForward");
    EXPECT_EQ(layer.at("attributes").at("axis"), -1);
    EXPECT_EQ(layer.at("offline").at(0).at("constant"), "count");
    EXPECT_EQ(layer.at("outputs").at(0).at("shape"), json({2, 2}));
    EXPECT_EQ(table.at("scratch").at("peakBytes"), 56);
    EXPECT_EQ(table.at("scratch").at("peakLayer"), 2);
    EXPECT_EQ(table.at("scratch").at("overlaps").size(), 2u);
    EXPECT_EQ(table.at("scratch").at("overlaps").at(0).at("inPlace"), true);
    EXPECT_FALSE(report.at("constants").at(0).contains("data"));
}

TEST_F(InspectTest, DrawsAGraph)
{
    const std::string dot = Good("inspect net --dot");
    EXPECT_THAT(dot, AllOf(testing::StartsWith("digraph model {\n"), testing::EndsWith("}\n"),
                           HasSubstr("in0 -> t0l0 [label=\"[2, 3]\"];"), HasSubstr("t0l0 -> t0l1 "),
                           HasSubstr("t0l1 -> t0l2 "), HasSubstr("t0l2 -> t0l3 [label=\"[2, 2]\"];"),
                           HasSubstr("t0l3 -> out0 "), HasSubstr("label=\"count\"")));

    SaveModel(NegateInALoop(3), At("loop"));
    const std::string loop = Good("inspect loop --dot");
    EXPECT_THAT(
        loop, AllOf(HasSubstr("label=\"segment 20 (body)\""), HasSubstr("t0l0 -> t1l0 [style=dashed, label=\"next\"]"),
                    HasSubstr("t0l0 -> t2l0 [style=dashed, label=\"exitSegId\"]"),
                    HasSubstr("t1l1 -> t0l0 [style=dashed, label=\"nextSegId\"]"),
                    HasSubstr("t1l1 -> t0l0 [label=\"[2, 3]\"]")));
}

TEST_F(InspectTest, ShowsAnUnknownOperatorAndScratchBeyondTheEnd)
{
    ModelBuilder builder;
    const TensorRef y = builder.AddOutput({"y", {1}});
    const TensorRef t = builder.AddScratch({"t", {4}});
    builder.AddInput({"x", {1}});
    builder.AddLayer("Quilt").Online(t).Output(y);
    Model model = builder.Build();
    model.scratchSize = 8;
    SaveModel(model, At("odd"));
    const std::string out = Good("inspect odd");
    EXPECT_THAT(out, HasSubstr("  layer 0  Quilt  id 0\n"));
    EXPECT_THAT(out, HasSubstr("    not in the operator table\n"));
    EXPECT_THAT(out, HasSubstr("16 of 8 bytes reached, which is TOO MANY\n"));
}

// What a file says does not command the terminal.
TEST_F(InspectTest, NamesWithControlCharacters)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x\x1b[31m", {1}});
    const TensorRef y =
        builder.AddOutput({"y\xc2\x9b"
                           "2J\xc3\xa4",
                           {1}});
    builder.BeginTable(0, "main\x07\x7f");
    builder.AddLayer("AddOpkitForward").Online(x).Offline(builder.AddConstant("c\r", {1}, {2})).Output(y);
    SaveModel(builder.Build(), At("odd"));
    const std::string out = Good("inspect odd");
    EXPECT_THAT(out, HasSubstr("  0  x?[31m "));
    EXPECT_THAT(out, HasSubstr("  0  y?2J\xc3\xa4 "));
    EXPECT_THAT(out, HasSubstr("segment 0 (main?\?): "));
    EXPECT_THAT(out, HasSubstr("constant c?"));
    for (const std::string& text : {out, Good("inspect odd --dot"), Good("inspect odd --json")}) {
        EXPECT_EQ(text.find_first_of("\x1b\r\x07"), std::string::npos);
    }
}

// Tensors that all lie over one another: as many pairs as tensors squared.
TEST_F(InspectTest, ListsAThousandOverlaps)
{
    ModelBuilder builder;
    const TensorRef y = builder.AddOutput({"y", {1}});
    builder.AddInput({"x", {1}});
    const TensorRef t = builder.AddScratch({"t", {1000}});
    for (int i = 0; i < 60; ++i) {
        LayerBuilder& layer = builder.AddLayer("ConcatOpkitForward").Attr(ConcatAttr{}).Online(t);
        for (int output = 0; output < 30; ++output) {
            layer.Output(t);
        }
    }
    builder.AddLayer("NegOpkitForward").Online(t).Output(y);
    SaveModel(builder.Build(), At("many"));
    const std::string out = Good("inspect many");
    EXPECT_THAT(out, testing::EndsWith("  and more share bytes; 1000 are shown\n"));
    const json scratch = json::parse(Good("inspect many --json")).at("tables").at(0).at("scratch");
    EXPECT_EQ(scratch.at("overlaps").size(), 1000u);
    EXPECT_EQ(scratch.at("moreOverlaps"), true);
    EXPECT_FALSE(json::parse(Good("inspect net --json")).at("tables").at(0).at("scratch").contains("moreOverlaps"));
}

// Parts of what one layer wrote, and of what others wrote over it; and what only a later layer writes.
TEST_F(InspectTest, EdgesComeFromTheLatestWriterOfTheBytes)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {1}});
    const TensorRef y = builder.AddOutput({"y", {1}});
    const auto scratch = [&](uint32_t elements, uint32_t offset) {
        return builder.AddScratch({"t", {elements}}, false, offset);
    };
    builder.AddLayer("NegOpkitForward").Online(x).Output(scratch(16, 0));
    builder.AddLayer("NegOpkitForward").Online(x).Output(scratch(4, 16));
    builder.AddLayer("ConcatOpkitForward")
        .Online(scratch(1, 12))
        .Online(scratch(1, 16))
        .Online(scratch(1, 32))
        .Online(scratch(1, 64))
        .Output(y);
    builder.AddLayer("NegOpkitForward").Online(x).Output(scratch(1, 64));
    SaveModel(builder.Build(), At("parts"));
    const std::string dot = Good("inspect parts --dot");
    const std::string label = " -> t0l2 [label=\"[1]\"];\n  ";
    EXPECT_THAT(dot, HasSubstr("t0l0" + label + "t0l1" + label + "t0l0" + label + "t0l3" + label));
}

TEST_F(InspectTest, AssemblesWhatItDisassembled)
{
    Good("disassemble net --output net.txt.json");
    EXPECT_THAT(Good("assemble net.txt.json -o copy"), HasSubstr("copy.json, copy.bin: "));
    EXPECT_EQ(Read("copy.bin"), Read("net.bin"));
    EXPECT_EQ(Read("copy.json"), Read("net.json"));
    EXPECT_EQ(Good("disassemble copy.json"), Read("net.txt.json"));

    std::string text = Read("net.txt.json");
    text.replace(text.find("\"k\": 2"), 6, "\"k\": 1");
    Write("changed.txt", text);
    Good("assemble changed.txt --output changed");
    EXPECT_THAT(Good("inspect changed"), HasSubstr("attr   k 1, axis -1"));
}

TEST_F(InspectTest, RefusesBadInput)
{
    Bad("inspect absent", {"absent.json: cannot be opened: No such file or directory"});
    Bad("disassemble absent", {"absent.json: cannot be opened"});
    Bad("assemble absent -o out", {"absent: cannot be opened"});
    Write("bad.txt", "{\"format\": \"opkit-model-text\", \"formatVersion\": 1}");
    Bad("assemble bad.txt -o out", {"bad.txt: field scratchSize is missing"});
    Bad("assemble net.json -o out", {"net.json: field format is not \"opkit-model-text\""});
    Good("disassemble net -o text.json");
    Bad("assemble text.json -o text", {"text.json: the model's manifest would replace the text"});
    Bad("assemble text.json -o nowhere/out", {"nowhere/out.bin: cannot be written: No such file or directory"});
    Bad("disassemble net -o /dev/full", {"/dev/full: cannot be written: No space left on device"});
    const std::string bytes = Read("net.bin");
    Write("net.bin", std::string(1, bytes[0] ^ 1) + bytes.substr(1));
    Bad("inspect net", {"net.bin: its CRC-32 is"});
    for (const char* command : {"inspect net", "inspect net --json", "inspect net --dot", "disassemble net"}) {
        Write("net.bin", bytes);
        const ToolResult result = Shell(std::string("opkit ") + command + " >/dev/full");
        EXPECT_EQ(result.code, 1) << command;
        EXPECT_EQ(result.err, "opkit: standard output cannot be written: No space left on device\n") << command;
    }
}

TEST_F(InspectTest, UsageErrorsEndWithTwo)
{
    for (const char* arguments :
         {"", "fly", "run", "run net --batch 0", "run net --batch 257", "run net --batch x", "run net --input x",
          "run net -i =x.npy", "run net -i x=", "run net --repeat 0", "run net --threads 0", "run net --no-such-option",
          "run net --threads 2 --trace t.json", "inspect", "inspect net --json --dot", "assemble net.json",
          "disassemble", "disassemble net extra"}) {
        SCOPED_TRACE(arguments);
        const ToolResult result = Tool(arguments);
        EXPECT_EQ(result.code, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err, "");
    }
    EXPECT_EQ(Good("--version"), "opkit 3.0.0 (Version:4ed1745)\n");
}

}  // namespace
