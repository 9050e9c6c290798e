#include "modelkit/file_io.h"

#include <pthread.h>

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
