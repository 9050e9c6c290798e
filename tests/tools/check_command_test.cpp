// opkit check: exit codes, findings and options.

#include "tests/tools/tool_fixture.h"

namespace {

using namespace opkit::modelkit;
using namespace opkit::test;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

class CheckCommand : public ToolTest {
protected:
    // Layer 0 takes the remainder of whole numbers, which depends on the data; layer 1 takes `taken` elements.
    void Save(const std::string& name, bool wholeNumbers, uint32_t taken)
    {
        ModelBuilder builder(4);
        const TensorRef x = builder.AddInput({"x", {6}});
        const TensorRef y = builder.AddOutput({"y", {6}});
        const TensorRef t = builder.AddScratch({"t", {6}}, true);
        ModAttr attr = {};
        attr.fmod = wholeNumbers ? 0 : 1;
        builder.AddLayer("ModOpkitForward").Online(x).Offline({1}, {3}).Output(t).Attr(attr);
        builder.AddLayer("NegOpkitForward").Online(t).Output(y.As({taken}));
        SaveModel(builder.Build(), At(name));
    }
};

TEST_F(CheckCommand, Accepts)
{
    Save("net", false, 6);
    EXPECT_EQ(Good("check net"),
              "work       up to 100 element operations, 52 of them in segment 0, layer 0 (ModOpkitForward)\n"
              "net.json for 1 to 4 batch items: accepted, safe for any data\n");
    EXPECT_EQ(Good("check net.bin --batch 1 --strict"),
              "work       up to 25 element operations, 13 of them in segment 0, layer 0 (ModOpkitForward)\n"
              "net.json for 1 batch item: accepted, safe for any data\n");
}

TEST_F(CheckCommand, MaxWork)
{
    Save("net", false, 6);
    EXPECT_THAT(Good("check net --max-work 100"), HasSubstr("accepted, safe for any data\n"));
    const ToolResult result = Tool("check net --max-work 99");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out,
              "refused    work of up to 100 element operations, 52 of them in segment 0, layer 0 (ModOpkitForward)\n"
              "net.json for 1 to 4 batch items: refused, 1 finding\n");
    EXPECT_EQ(Tool("check net --max-work 0").code, 2);
}

TEST_F(CheckCommand, Conditions)
{
    Save("net", true, 6);
    EXPECT_THAT(Good("check net"),
                AllOf(StartsWith("condition  segment 0, layer 0 (ModOpkitForward): safe if no element of input 0"),
                      HasSubstr("\nnet.json for 1 to 4 batch items: accepted with 1 condition\n")));
    const ToolResult strict = Tool("check net --strict");
    EXPECT_EQ(strict.code, 1);
    EXPECT_THAT(strict.out, AllOf(StartsWith("refused    segment 0, layer 0 (ModOpkitForward): safe if"),
                                  HasSubstr("\nnet.json for 1 to 4 batch items: refused, 1 finding\n")));
}

TEST_F(CheckCommand, Refusals)
{
    Save("net", true, 5);
    const ToolResult result = Tool("check net");
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "");
    EXPECT_THAT(result.out,
                AllOf(HasSubstr("refused    segment 0, layer 1 (NegOpkitForward): outputs[0].shape at byte "),
                      HasSubstr(" is 5, limit 6: the output has fewer elements than the input\n"),
                      HasSubstr("net.json for 1 to 4 batch items: refused, 1 finding\n")));
}

// The scratch is planned for four items.
TEST_F(CheckCommand, Batch)
{
    Save("net", false, 6);
    const ToolResult result = Tool("check net --batch 5");
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.out, HasSubstr("outputs[0].memIndex at byte "));
    EXPECT_THAT(result.out, HasSubstr("net.json for 1 to 5 batch items: refused, 2 findings\n"));
    EXPECT_EQ(Tool("check net --batch 0").code, 2);
    EXPECT_EQ(Tool("check net --batch 257").code, 2);
    EXPECT_EQ(Tool("check").code, 2);
}

TEST_F(CheckCommand, NoModel)
{
    Bad("check missing", {"missing.json"});
}

}  // namespace
