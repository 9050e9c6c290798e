// Whole files in and out.
#ifndef OPKIT_MODELKIT_FILE_IO_H
#define OPKIT_MODELKIT_FILE_IO_H

#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
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

// A regular file, of which nothing is read but what is asked for. All throw FileError.
class RegularFile {
public:
    // Refuses whatever else there may be under that name: a directory, a device, a pipe.
    explicit RegularFile(std::filesystem::path file);
    RegularFile(const RegularFile&) = delete;
    RegularFile& operator=(const RegularFile&) = delete;
    ~RegularFile();

    uint64_t Size() const { return size_; }
    // From the start on; refuses a file that has become shorter meanwhile.
    void ReadInto(std::span<std::byte> content) const;

private:
    std::filesystem::path file_;
    int descriptor_;
    uint64_t size_ = 0;
};

// Leaves either the old file or the whole new one: writes aside and renames, and holds interrupts meanwhile. A device
// or a pipe is written in place.
void WriteFile(const std::filesystem::path& file, std::string_view content);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_FILE_IO_H
