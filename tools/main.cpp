// opkit: runs models, looks into them, and turns them into text and back. One line per subcommand.

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>
#include <algorithm>
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
    {"report", "Draws a model and a run of it on a page for a browser", SetUpReport},
    {"check", "Verifies a model before a process trusts it", SetUpCheck},
    {"assemble", "Makes a model of its text form", SetUpAssemble},
    {"disassemble", "Writes a model as text", SetUpDisassemble},
};

// A file that is opened must not become the standard output or error that is missing. What stands in for one cannot be
// written either.
void OpenStandardStreams()
{
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) < 0) {
            open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);  // the lowest free number
        }
    }
}

// What went wrong with a command line, in one line. A word that nothing knows explains more than what is missing
// because of it.
std::string UsageText(const CLI::App& app, const CLI::ParseError& error)
{
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    const CLI::App& command = chosen.empty() ? app : *chosen.front();
    std::vector<std::string> unknown = app.remaining(true);
    std::erase_if(unknown, [&](const std::string& word) { return !chosen.empty() && !word.starts_with("-"); });
    if (unknown.empty()) {
        return error.what();
    }
    const std::string word = unknown.front().substr(0, unknown.front().find('='));
    const bool isOption = word.starts_with("-");
    std::vector<std::string> words;
    if (isOption) {
        for (const CLI::Option* option :
             command.get_options([](const CLI::Option* o) { return !o->get_positional(); })) {
            words.push_back("--" + option->get_lnames().front());
        }
    } else {
        for (const Command& candidate : kCommands) {
            words.emplace_back(candidate.name);
        }
    }
    const std::string nearest = Nearest(word, words);
    return fmt::format("there is no {} {}{}", isOption ? "option" : "command", word,
                       nearest.empty() ? "" : fmt::format("; is it {}?", nearest));
}

int Parse(CLI::App& app, int argc, char** argv)
{
    try {
        app.parse(argc, argv);
        return -1;
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::string text = UsageText(app, error);
        std::replace(text.begin(), text.end(), '\n', ' ');
        PrintError(fmt::format("opkit: {} (opkit {}--help tells)\n", text,
                               app.get_subcommands().empty() ? "" : app.get_subcommands().front()->get_name() + " "));
        return kUsage;
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

}  // namespace opkit::tools

int main(int argc, char** argv)
{
    return opkit::tools::Main(argc, argv);
}
