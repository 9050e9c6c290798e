// script/demo and script/bootstrap say what they are doing, here in a tree whose cmake and packages are made up.

#include "tests/tools/tool_fixture.h"

namespace {

using namespace opkit::test;
namespace fs = std::filesystem;

class ScriptTest : public ToolTest {
protected:
    ScriptTest()
    {
        fs::create_directories(At("script"));
        fs::create_directories(At("bin"));
        for (const char* name : {"demo", "bootstrap"}) {
            fs::copy_file(fs::path(OPKIT_SOURCE_DIR) / "script" / name, At("script") / name);
        }
        Stub("cmake",
             "echo \"[1/1] cmake $*\"; [ -e broken ] && exit 1; mkdir -p build/demo/examples\n"
             "printf '#!/bin/sh\\necho read: $*\\n' >build/demo/examples/digits; chmod +x build/demo/examples/digits");
        Stub("dpkg-query", "for name; do :; done; grep -qx \"$name\" missing 2>/dev/null || echo install ok installed");
        Stub("apt-get", "echo \"$*\" >>apt.log");
        Stub("sudo", "[ \"$1\" = -n ] && shift; \"$@\"");
    }
    void Stub(const std::string& name, const std::string& body) const
    {
        Write("bin/" + name, "#!/bin/sh\n" + body + "\n");
        fs::permissions(At("bin/" + name), fs::perms::owner_all);
    }
    ToolResult Script(const std::string& line) const { return Shell("PATH=\"$PWD/bin:$PATH\" script/" + line); }
};

TEST_F(ScriptTest, DemoSaysItsSteps)
{
    const ToolResult first = Script("demo --batch 1");
    EXPECT_EQ(first.code, 0);
    EXPECT_EQ(first.out, "read: --batch 1\n");
    EXPECT_EQ(first.err,
              "demo: 1 of 3: packages that the build needs\n"
              "demo: 2 of 3: building libopkit.so and the demo in build/demo, which takes a minute or a few\n"
              "demo: 3 of 3: build/demo/examples/digits --batch 1\n");
    EXPECT_THAT(Read("build/demo.log"), testing::HasSubstr("[1/1] cmake --build build/demo --target digits\n"));
    EXPECT_THAT(Script("demo").err, testing::HasSubstr("2 of 3: building in build/demo what has changed\n"));

    Write("broken", "");
    const ToolResult broken = Script("demo");
    EXPECT_EQ(broken.code, 1);
    EXPECT_THAT(broken.out, testing::StartsWith("[1/1] cmake -S . -B build/demo"));
}

TEST_F(ScriptTest, BootstrapSaysWhatItInstalls)
{
    const ToolResult quiet = Script("bootstrap");
    EXPECT_EQ(quiet.code, 0);
    EXPECT_EQ(quiet.out + quiet.err, "");
    Write("missing", "cmake\nlibfmt-dev\n");
    const ToolResult result = Script("bootstrap");
    EXPECT_EQ(result.code, 0);
    EXPECT_EQ(result.err,
              "bootstrap: fetching the lists of packages (apt-get update)\n"
              "bootstrap: installing 2 packages, which may take minutes: cmake libfmt-dev\n"
              "bootstrap: done\n");
    EXPECT_EQ(Read("apt.log"), "update -qq\ninstall -y -qq --no-install-recommends cmake libfmt-dev\n");
}

}  // namespace
