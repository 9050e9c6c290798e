// opkit: runs models, looks into them, and turns them into text and back. One line per subcommand.

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>
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

// A file that is opened must not become the standard output or error that is missing. What stands in for one cannot be
// written either.
void OpenStandardStreams()
{
    int descriptor = 0;
    do {
        descriptor = open("/dev/null", descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY);
    } while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    close(descriptor);
}

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
    } catch (const UsageError& error) {
        PrintError(fmt::format("opkit: {}\n", error.what()));
        return kUsage;
    } catch (const std::bad_alloc&) {
        PrintError("opkit: there is not enough memory\n");
    } catch (const std::exception& error) {
        if (std::ferror(stdout) == 0) {  // otherwise Finish tells
            PrintError(fmt::format("opkit: {}\n", error.what()));
        }
    }
    return kFailure;
}

// What was printed may still not have arrived.
int Finish(int code)
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        if (errno != EPIPE) {  // whoever read it wanted no more
            PrintError(fmt::format("opkit: standard output cannot be written: {}\n", std::strerror(errno)));
        }
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
    OpenStandardStreams();
    std::signal(SIGXFSZ, SIG_IGN);  // a file beyond the limit is an error of its own
    std::signal(SIGPIPE, SIG_IGN);  // and so is output that nobody reads
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

void PrintError(const std::string& text)
{
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
}

}  // namespace opkit::tools

int main(int argc, char** argv)
{
    return opkit::tools::Main(argc, argv);
}
