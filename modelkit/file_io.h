// Whole files in and out.
#ifndef OPKIT_MODELKIT_FILE_IO_H
#define OPKIT_MODELKIT_FILE_IO_H

#include <signal.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>

namespace opkit::modelkit {

// Names the file, and the field or the byte offset where it is at fault.
struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// While one lives, what would end this thread from a terminal waits: a file in the making becomes whole first.
class HoldInterrupts {
public:
    HoldInterrupts();
    ~HoldInterrupts();
    HoldInterrupts(const HoldInterrupts&) = delete;
    HoldInterrupts& operator=(const HoldInterrupts&) = delete;

private:
    sigset_t before_;
};

std::string ReadFile(const std::filesystem::path& file);

// Leaves either the old file or the whole new one: writes aside and renames, and holds interrupts meanwhile. A device
// or a pipe is written in place.
void WriteFile(const std::filesystem::path& file, std::string_view content);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_FILE_IO_H
