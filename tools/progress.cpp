#include "tools/progress.h"

#include <fmt/core.h>
#include <unistd.h>
#include <cstdio>

namespace opkit::tools {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr uint32_t kWidth = 40;

}  // namespace

Progress::Progress(uint32_t total)
    : total_(total), terminal_(isatty(STDERR_FILENO) == 1), next_(Clock::now() + kInterval)
{
}

Progress::~Progress()
{
    if (shown_) {
        fmt::print(stderr, "\r{:{}}\r", "", kWidth + 30);
    }
}

void Progress::Advance()
{
    ++done_;
    if (!terminal_ || Clock::now() < next_) {
        return;
    }
    next_ = Clock::now() + kInterval;
    shown_ = true;
    const auto filled = static_cast<uint32_t>(uint64_t{kWidth} * done_ / total_);
    fmt::print(stderr, "\r[{:#<{}}{:{}}] {}/{}", "", filled, "", kWidth - filled, done_, total_);
    std::fflush(stderr);
}

}  // namespace opkit::tools
