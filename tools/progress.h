// A bar on standard error while a long run goes on; silent when that is no terminal.
#ifndef OPKIT_TOOLS_PROGRESS_H
#define OPKIT_TOOLS_PROGRESS_H

#include <chrono>
#include <cstdint>

namespace opkit::tools {

class Progress {
public:
    explicit Progress(uint32_t total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Advance();

private:
    using Clock = std::chrono::steady_clock;

    uint32_t total_;
    uint32_t done_ = 0;
    bool terminal_;
    bool shown_ = false;
    Clock::time_point next_;
};

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_PROGRESS_H
