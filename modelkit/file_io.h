// Whole files in and out.
#ifndef OPKIT_MODELKIT_FILE_IO_H
#define OPKIT_MODELKIT_FILE_IO_H

#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace opkit::modelkit {

// Names the file, and the field or the byte offset where it is at fault.
struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// While one lives, what would end this thread from a terminal waits: a file in the making becomes whole first. What the
// process ignores anyway does not count.
class HoldInterrupts {
public:
    HoldInterrupts();
    ~HoldInterrupts();
    HoldInterrupts(const HoldInterrupts&) = delete;
    HoldInterrupts& operator=(const HoldInterrupts&) = delete;

    // Whether something waits: long work that can be taken back stops then.
    static bool Waiting();

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

// Leaves either the old file or the whole new one, and touches no other: writes under a new name beside it, renames,
// and holds interrupts meanwhile. The file takes the old one's permissions. A symbolic link is followed; a device or a
// pipe is written in place.
void WriteFile(const std::filesystem::path& file, std::string_view content);

// Throws as WriteFile would, before there is something to write, and changes nothing.
void CheckWritable(const std::filesystem::path& file);

// What a symbolic link leads to in the end, whether or not that exists.
std::filesystem::path FollowLinks(std::filesystem::path file);

// A new name, which nothing else uses, for work in progress in a directory: calls `create` with names until it no
// longer fails with EEXIST. Returns the name, or nothing and leaves errno. Such names begin with kAsidePrefix.
inline constexpr std::string_view kAsidePrefix = ".opkit-";
std::string CreateAside(const std::function<bool(const std::string& name)>& create);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_FILE_IO_H
