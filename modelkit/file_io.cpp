#include "modelkit/file_io.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>

namespace opkit::modelkit {
namespace {

namespace fs = std::filesystem;

struct Close {
    void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, Close>;

[[noreturn]] void Fail(const fs::path& file, const std::string& what)
{
    throw FileError(file.string() + ": " + what);
}

[[noreturn]] void FailWithReason(const fs::path& file, const std::string& what)
{
    Fail(file, what + ": " + std::strerror(errno));
}

// Tells whether everything arrived; errno says why not.
bool WriteAll(const fs::path& file, std::string_view content)
{
    Stream stream(std::fopen(file.c_str(), "wb"));
    if (stream == nullptr) {
        return false;
    }
    const bool written = std::fwrite(content.data(), 1, content.size(), stream.get()) == content.size();
    return std::fclose(stream.release()) == 0 && written;
}

bool HasNoOldContent(const fs::path& file)
{
    std::error_code ignored;
    const fs::file_status status = fs::status(file, ignored);
    return fs::is_character_file(status) || fs::is_fifo(status) || fs::is_socket(status);
}

}  // namespace

HoldInterrupts::HoldInterrupts()
{
    sigset_t interrupts;
    sigemptyset(&interrupts);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        sigaddset(&interrupts, signal);
    }
    pthread_sigmask(SIG_BLOCK, &interrupts, &before_);
}

HoldInterrupts::~HoldInterrupts()
{
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

std::string ReadFile(const fs::path& file)
{
    const Stream stream(std::fopen(file.c_str(), "rb"));
    if (stream == nullptr) {
        FailWithReason(file, "cannot be opened");
    }
    std::string content;
    char block[65536];
    while (const size_t count = std::fread(block, 1, sizeof(block), stream.get())) {
        content.append(block, count);
    }
    if (std::ferror(stream.get()) != 0) {
        FailWithReason(file, "cannot be read");
    }
    return content;
}

// A pipe is opened without waiting for somebody to write to it.
RegularFile::RegularFile(fs::path file)
    : file_(std::move(file)), descriptor_(open(file_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC))
{
    if (descriptor_ < 0) {
        FailWithReason(file_, "cannot be opened");
    }
    struct stat status = {};
    if (fstat(descriptor_, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(descriptor_);
        Fail(file_, "is not a regular file");
    }
    size_ = static_cast<uint64_t>(status.st_size);
}

RegularFile::~RegularFile()
{
    close(descriptor_);
}

void RegularFile::ReadInto(std::span<std::byte> content) const
{
    while (!content.empty()) {
        const ssize_t count = read(descriptor_, content.data(), content.size());
        if (count < 0) {
            FailWithReason(file_, "cannot be read");
        }
        if (count == 0) {
            Fail(file_, "ends before its size");
        }
        content = content.subspan(static_cast<size_t>(count));
    }
}

void WriteFile(const fs::path& file, std::string_view content)
{
    if (HasNoOldContent(file)) {
        if (!WriteAll(file, content)) {
            FailWithReason(file, "cannot be written");
        }
        return;
    }
    const HoldInterrupts hold;
    fs::path aside = file;
    aside += ".new";
    std::error_code error;
    if (!WriteAll(aside, content)) {
        const std::string reason = std::strerror(errno);
        fs::remove(aside, error);
        Fail(file, "cannot be written: " + reason);
    }
    fs::rename(aside, file, error);
    if (error) {
        const std::string reason = error.message();
        fs::remove(aside, error);
        Fail(file, "cannot be replaced: " + reason);
    }
}

}  // namespace opkit::modelkit
