// Custom operators where no custom library is on the search path.

#include <gtest/gtest.h>

#include <cstring>

#include "opkit/opkit.h"
#include "tests/support/twin.h"

namespace opkit {
namespace {

using namespace opkit::test;

LayerCase MissingCase(uint32_t total)
{
    LayerCase layer("CustomOpkitForward");
    layer.Online({1}, {1}).Output({1});
    layer.Attr<CustomAttr>().totalInputNum = total;
    std::strcpy(layer.Attr<CustomAttr>().funcName, "Describe");
    return layer;
}

TEST(CustomMissing, LibraryIsNotFound)
{
    World world(MissingCase(1));
    const World before = world.Clone();
    const RunResult run = RunRequestCaptured(world);
    EXPECT_EQ(run.result, 0xFFFFFFFFu);
    EXPECT_EQ(run.messages,
              "[CustomOpkitForward:#]Get handle error.Not found libtvr_opkit_custom_x86.so in default library path, "
              "please set it in LD_LIBRARY_PATH\n\n[OpkitForward:#]CustomOpkitForward failed.\n\n");
    EXPECT_EQ(World::Difference(world, before, NanPolicy::kExactBits), "");
}

TEST(CustomMissing, CountsAreComparedFirst)
{
    World world(MissingCase(2));
    EXPECT_EQ(RunCaptured(world, CustomOpkitForward).messages,
              "[CustomOpkitForward:#]error: onlineinputNum(1) plus offlineinputNum(0) must equal to total input "
              "num(2)\n\n");
}

}  // namespace
}  // namespace opkit
