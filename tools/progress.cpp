#include "tools/progress.h"

#include <fmt/core.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <string>

#include "tools/command.h"

namespace opkit::tools {
namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr size_t kBarWidth = 30;

// A line of the full width would move the cursor on.
size_t Columns()
{
    winsize size = {};
    return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col - 1U : 79;
}

std::string TimeText(double seconds)
{
    const auto whole = static_cast<uint64_t>(std::min(seconds, 359999.0) + 0.5);
    return whole < 3600 ? fmt::format("{}:{:02}", whole / 60, whole % 60)
                        : fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

}  // namespace

Progress::Progress(const char* unit, uint64_t total)
    : unit_(unit), total_(total), terminal_(isatty(STDERR_FILENO) == 1), begin_(Clock::now()), next_(begin_ + kInterval)
{
}

Progress::~Progress()
{
    if (shown_ != 0) {
        PrintError(fmt::format("\r{:{}}\r", "", shown_));
    }
}

void Progress::Advance()
{
    const uint64_t done = done_.fetch_add(1, std::memory_order_relaxed) + 1;
    if (!terminal_) {
        return;
    }
    const std::unique_lock lock(showing_, std::try_to_lock);
    const Clock::time_point now = Clock::now();
    if (lock.owns_lock() && now >= next_) {
        next_ = now + kInterval;
        Show(done, std::chrono::duration<double>(now - begin_).count());
    }
}

void Progress::Show(uint64_t done, double seconds)
{
    const double rate = static_cast<double>(done) / seconds;
    const size_t filled = kBarWidth * done / total_;
    std::string line = fmt::format("[{:#<{}}{:{}}] {}/{} {}  {:.1f}/s  {} left", "", filled, "", kBarWidth - filled,
                                   done, total_, unit_, rate, TimeText(static_cast<double>(total_ - done) / rate));
    const size_t room = Columns();
    line.resize(std::min(std::max(line.size(), shown_), room), ' ');
    shown_ = line.size();
    PrintError("\r" + line);
}

}  // namespace opkit::tools
