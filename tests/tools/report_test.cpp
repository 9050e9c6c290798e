// opkit report: what the page holds, and that nothing in a model breaks out of it. tests/tools/page looks at it.

#include <limits>
#include <nlohmann/json.hpp>

#include "tests/tools/tool_fixture.h"

namespace {

using namespace opkit::modelkit;
using namespace opkit::test;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();

class ReportTest : public ToolTest {
protected:
    // y = -(x) over t, with a constant that nothing uses.
    void WriteModel(const std::string& inputName, const Shape& shape = {1, 2, 4})
    {
        ModelBuilder builder;
        const TensorRef x = builder.AddInput({inputName, shape});
        const TensorRef y = builder.AddOutput({"y", shape});
        const TensorRef t = builder.AddScratch({"t", shape});
        builder.AddLayer("NegOpkitForward").Online(x).Output(t);
        BinaryMathAttr attr = {};
        attr.mathType = OPKIT_BINARY_ADD;
        builder.AddLayer("BinaryMathOpkitForward")
            .Online(t)
            .Offline(builder.AddConstant("one", {1}, {1}))
            .Output(y)
            .Attr(attr);
        SaveModel(builder.Build(), At("net"));
    }

    // The text of the page's one data element.
    std::string DataOf(const std::string& page) const
    {
        const std::string text = Read(page);
        const std::string opening = "<script type=\"application/json\" id=\"data\">";
        const size_t begin = text.find(opening);
        EXPECT_NE(begin, std::string::npos);
        return text.substr(begin + opening.size(), text.find("</script", begin) - begin - opening.size());
    }
    json JsonOf(const std::string& page) const { return json::parse(DataOf(page)); }
};

size_t CountOf(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
        ++count;
    }
    return count;
}

TEST_F(ReportTest, ShowsAModelWithoutInputs)
{
    WriteModel("x");
    EXPECT_THAT(Good("report net -o page.html"), testing::StartsWith("page.html: "));
    const json data = JsonOf("page.html");
    EXPECT_EQ(data["format"], "opkit-report");
    EXPECT_EQ(data["file"], "net.json");
    EXPECT_EQ(data["check"]["refusals"], json::array());
    EXPECT_FALSE(data.contains("run"));
    const json& layers = data["model"]["tables"][0]["layers"];
    ASSERT_EQ(layers.size(), 2u);
    EXPECT_EQ(layers[0]["shortName"], "Neg");
    EXPECT_EQ(layers[1]["outputs"][0]["shape"], json({1, 2, 4}));
    EXPECT_EQ(data["model"]["tables"][0]["scratch"]["peakBytes"], 32);
    ASSERT_EQ(data["constants"].size(), 1u);
    EXPECT_EQ(data["constants"][0]["bytes"], 4);
    EXPECT_EQ(data["constants"][0]["summary"]["max"], 1.0);
    const json edges = {{{"from", {"input", 0}}, {"to", {"layer", 0, 0}}, {"label", "[1, 2, 4]"}, {"jump", false}},
                        {{"from", {"layer", 0, 0}}, {"to", {"layer", 0, 1}}, {"label", "[1, 2, 4]"}, {"jump", false}},
                        {{"from", {"constant", data["constants"][0]["offset"]}},
                         {"to", {"layer", 0, 1}},
                         {"label", "[1]"},
                         {"jump", false}},
                        {{"from", {"layer", 0, 1}}, {"to", {"output", 0}}, {"label", "[1, 2, 4]"}, {"jump", false}}};
    EXPECT_EQ(data["edges"], edges);
}

TEST_F(ReportTest, NeedsNothingFromElsewhere)
{
    WriteModel("x");
    Good("report net -o page.html");
    const std::string page = Read("page.html");
    for (const char* outside : {" src=", "@import", "<link rel=\"stylesheet", "href=\"http", "{{"}) {
        EXPECT_EQ(CountOf(page, outside), 0u) << outside;
    }
    EXPECT_EQ(CountOf(page, "url("), CountOf(page, "url(#arrow)"));  // a part of the page itself
    EXPECT_THAT(page, HasSubstr("default-src 'none'"));
    EXPECT_EQ(CountOf(page, "Permission is hereby granted"), 2u);  // the licences of both libraries
}

TEST_F(ReportTest, KeepsMarkupOfNamesInside)
{
    Good("--version");
    WriteModel("x");
    Good("report net -o plain.html");
    const std::string name = "</script><script>alert(1)</script><!-- & \"'";
    WriteModel(name);
    Good("report net -o page.html");
    for (const char* tag : {"<script", "</script", "<!--"}) {
        EXPECT_EQ(CountOf(Read("page.html"), tag), CountOf(Read("plain.html"), tag)) << tag;
    }
    EXPECT_THAT(DataOf("page.html"), Not(HasSubstr("<")));
    EXPECT_EQ(JsonOf("page.html")["model"]["inputs"][0]["name"], name);
}

TEST_F(ReportTest, SummarisesTensors)
{
    WriteModel("x");
    WriteNpy("x.npy", "(2, 2, 4)", {1, 0, -0.0F, 2, -4, kInf, kNan, 3, 9, 1, 1, 1, 1, 1, 1, 1});
    Good("report net -i x=x.npy --batch 1 --repeat 2 --warmup 0 -o page.html");
    const json data = JsonOf("page.html");
    EXPECT_EQ(data["run"]["items"], 2);
    ASSERT_EQ(data["run"]["tensors"].size(), 2u);
    const json& negated = data["run"]["tensors"][0]["summary"];  // -1 0 0 -2 4 -inf nan -3, then -9 and seven of -1
    EXPECT_EQ(negated["count"], 16);
    EXPECT_EQ(negated["nan"], 1);
    EXPECT_EQ(negated["infinite"], 1);
    EXPECT_EQ(negated["zeros"], 2);
    EXPECT_EQ(negated["min"], -9.0);
    EXPECT_EQ(negated["max"], 4.0);
    EXPECT_DOUBLE_EQ(negated["mean"], (-1 - 2 + 4 - 3 - 9 - 7) / 14.0);
    // The first request's, from -3 to 4: -3, -2, -1, twice 0, and 4.
    EXPECT_EQ(negated["histogram"]["begin"], -3.0);
    EXPECT_EQ(negated["histogram"]["end"], 4.0);
    json bins = std::vector<int>(64);
    bins[0] = bins[64 / 7] = bins[128 / 7] = bins[63] = 1;
    bins[192 / 7] = 2;
    EXPECT_EQ(negated["histogram"]["bins"], bins);
    // Shades of -1 0 0 -2 / 4 -inf nan -3 from -3 to 4: 254 * 2/7, 3/7, 3/7, 1/7 / 254, two that are not finite, 0.
    const json& picture = negated["picture"];
    EXPECT_EQ(picture["height"], 2);
    EXPECT_EQ(picture["width"], 4);
    EXPECT_EQ(picture["planes"], 1);
    EXPECT_EQ(picture["cells"], "SW1tJP7//wA=");  // 49 6d 6d 24 fe ff ff 00
    ASSERT_EQ(data["times"]["layers"].size(), 2u);
    EXPECT_EQ(data["times"]["runs"], 2);
    EXPECT_EQ(data["times"]["layers"][1]["calls"], 2);
}

TEST_F(ReportTest, AveragesLargePicturesAndStaysSmall)
{
    WriteModel("x", {300, 256, 2});  // 300 planes; two columns stay, rows are averaged
    std::vector<float> values(size_t{300} * 256 * 2);
    for (size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<float>(i % 2);
    }
    WriteNpy("x.npy", "(300, 256, 2)", values);
    Good("report net -o plain.html");
    Good("report net -i x=x.npy -o page.html");
    const json data = JsonOf("page.html");
    const json& picture = data["run"]["inputs"][0]["picture"];
    EXPECT_EQ(picture["planes"], 300);
    EXPECT_EQ(picture["width"], 2);
    EXPECT_EQ(picture["low"], 0.0);
    EXPECT_EQ(picture["high"], 1.0);
    const int columns = picture["columns"];
    const int shown = picture["shown"];
    EXPECT_EQ(shown, 300);
    EXPECT_LE(columns * 2, 128);
    EXPECT_LE((shown + columns - 1) / columns * picture["height"].get<int>(), 128);
    EXPECT_EQ(picture["cells"].get<std::string>().substr(0, 8), "AP4A/gD+");  // 00 fe 00 fe 00 fe
    EXPECT_LT(Read("page.html").size() - Read("plain.html").size(), 4u * 25000);
}

TEST_F(ReportTest, TellsWhereARunDiffers)
{
    WriteModel("x");
    WriteNpy("x.npy", "(2, 4)", {1, 2, 3, 4, 5, 6, 7, 8});
    WriteNpy("z.npy", "(2, 4)", {1, 2, 3, 4, 5, 6, 7.5, 8});
    Good("run net -i x=x.npy --dump before");
    EXPECT_EQ(Tool("report net -i x=z.npy --compare before -o page.html").code, 1);
    const json data = JsonOf("page.html");
    EXPECT_THAT(data["comparison"]["first"], HasSubstr("element [0, 1, 2]"));
    const json& difference = data["run"]["tensors"][1]["difference"];
    EXPECT_EQ(difference["elements"], 1);
    EXPECT_EQ(difference["distance"], 0.5);
    EXPECT_EQ(difference["first"], "request 0, pass 0, element [0, 1, 2]");
    Good("report net -i x=x.npy --compare before -o same.html");
    EXPECT_EQ(JsonOf("same.html")["run"]["tensors"][1]["difference"]["elements"], 0);
}

TEST_F(ReportTest, SaysWhatIsWrong)
{
    WriteModel("x");
    WriteNpy("x.npy", "(2, 4)", {1, 2, 3, 4, 5, 6, 7, 8});
    Bad("report net -o nowhere/page.html", {"nowhere/page.html"});
    Bad("report net -i x=x.npy --compare nowhere -o page.html", {"nowhere"});
    Bad("report missing -o page.html", {"missing.json"});
    for (const char* arguments : {"report net", "report net -o page.html --repeat 3", "report net -o p -i x"}) {
        const ToolResult result = Tool(arguments);
        EXPECT_EQ(result.code, 2) << arguments;
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
}

}  // namespace
