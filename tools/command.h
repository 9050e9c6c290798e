// What a subcommand is: a function that declares its options and returns what to do once they are read.
#ifndef OPKIT_TOOLS_COMMAND_H
#define OPKIT_TOOLS_COMMAND_H

#include <CLI/CLI.hpp>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace opkit::tools {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

// Ends the program with kFailure and one line on standard error.
struct ToolError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Ends it with kUsage, in the same way.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The word that was probably meant, if one is near.
std::string Nearest(const std::string& word, const std::vector<std::string>& words);

// To standard error. Where that cannot be written, nobody is there to read it, and nothing follows from it.
void PrintError(const std::string& text);

using Action = std::function<int()>;  // returns the exit code

Action SetUpRun(CLI::App& app);
Action SetUpInspect(CLI::App& app);
Action SetUpReport(CLI::App& app);
Action SetUpCheck(CLI::App& app);
Action SetUpAssemble(CLI::App& app);
Action SetUpDisassemble(CLI::App& app);

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_COMMAND_H
