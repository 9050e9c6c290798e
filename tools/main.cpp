// opkit: runs models, looks into them, and turns them into text and back. One line per subcommand.

#include <fmt/core.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

#include "opkit/opkit.h"
#include "tools/command.h"

namespace opkit::tools {
namespace {

struct Command {
    const char* name;
    const char* summary;
    Action (*setUp)(CLI::App& app);
};

constexpr Command kCommands[] = {
    {"run", "Runs a model on .npy files; times, traces, dumps and compares its layers", SetUpRun},
    {"inspect", "Shows what a model consists of", SetUpInspect},
    {"check", "Verifies a model before a process trusts it", SetUpCheck},
    {"assemble", "Makes a model of its text form", SetUpAssemble},
    {"disassemble", "Writes a model as text", SetUpDisassemble},
};

int Parse(CLI::App& app, int argc, char** argv)
{
    try {
        app.parse(argc, argv);
        return -1;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kSuccess : kUsage;
    }
}

int Perform(const Action& action)
{
    try {
        return action();
    } catch (const std::bad_alloc&) {
        fmt::print(stderr, "opkit: there is not enough memory\n");
    } catch (const std::exception& error) {
        if (std::ferror(stdout) == 0) {  // otherwise Finish tells
            fmt::print(stderr, "opkit: {}\n", error.what());
        }
    }
    return kFailure;
}

// What was printed may still not have arrived.
int Finish(int code)
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        fmt::print(stderr, "opkit: standard output cannot be written: {}\n", std::strerror(errno));
        return kFailure;
    }
    return code;
}

int Main(int argc, char** argv)
{
    CLI::App app{"Works with models of the opkit library. A model is a pair of files, NAME.json and NAME.bin.",
                 "opkit"};
    app.set_version_flag("--version",
                         fmt::format("opkit {}.{}.{} ({})", OpkitGetVersion() >> 16, OpkitGetVersion() >> 8 & 0xff,
                                     OpkitGetVersion() & 0xff, OPKIT_GIT_VERSION));
    std::signal(SIGXFSZ, SIG_IGN);  // a file beyond the limit is an error of its own
    app.require_subcommand(1);
    Action action;
    for (const Command& command : kCommands) {
        CLI::App* const sub = app.add_subcommand(command.name, command.summary);
        sub->callback([&action, chosen = command.setUp(*sub)] { action = chosen; });
    }
    const int code = Parse(app, argc, argv);
    return Finish(code >= 0 ? code : Perform(action));
}

}  // namespace
}  // namespace opkit::tools

int main(int argc, char** argv)
{
    return opkit::tools::Main(argc, argv);
}
