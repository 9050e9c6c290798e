// A bar on standard error while a long run goes on, with its rate and the time left; silent when that is no terminal.
#ifndef OPKIT_TOOLS_PROGRESS_H
#define OPKIT_TOOLS_PROGRESS_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

namespace opkit::tools {

class Progress {
public:
    // `unit` names what is counted: "requests".
    Progress(const char* unit, uint64_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // From any thread.
    void Advance();

private:
    using Clock = std::chrono::steady_clock;

    void Show(uint64_t done, double seconds);

    const char* unit_;
    uint64_t total_;
    bool terminal_;
    std::atomic<uint64_t> done_ = 0;
    std::mutex showing_;
    Clock::time_point begin_;
    Clock::time_point next_;
    size_t shown_ = 0;  // columns
};

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_PROGRESS_H
