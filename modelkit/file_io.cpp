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
#include <utility>

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
bool WriteAll(Stream stream, std::string_view content)
{
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

// A file in the making. Names are looked up in the open directory, so that a path as long as can be leaves room for
// the new name.
class AsideFile {
public:
    explicit AsideFile(const fs::path& file) : file_(file)
    {
        const fs::path target = FollowLinks(file);
        const fs::path parent = target.has_parent_path() ? target.parent_path() : ".";
        name_ = target.has_filename() ? target.filename() : ".";
        directory_ = open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        struct stat old = {};
        const bool exists = directory_ >= 0 && fstatat(directory_, name_.c_str(), &old, 0) == 0;
        if (exists ? !MayReplace(old) : errno != ENOENT || directory_ < 0) {
            Abandon("cannot be written");
        }
        aside_ = CreateAside([&](const std::string& name) {
            descriptor_ = openat(directory_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            return descriptor_ >= 0;
        });
        if (aside_.empty()) {
            Abandon("cannot be written");
        }
        if (exists) {
            fchmod(descriptor_, old.st_mode & 0777);
        }
    }
    ~AsideFile() { Close(); }
    AsideFile(const AsideFile&) = delete;
    AsideFile& operator=(const AsideFile&) = delete;

    void Replace(std::string_view content)
    {
        if (!WriteAll(Stream(fdopen(std::exchange(descriptor_, -1), "wb")), content)) {
            Abandon("cannot be written");
        }
        if (renameat(directory_, aside_.c_str(), directory_, name_.c_str()) != 0) {
            Abandon("cannot be replaced");
        }
        aside_.clear();
    }

private:
    bool MayReplace(const struct stat& old)
    {
        if (S_ISDIR(old.st_mode)) {
            errno = EISDIR;
            return false;
        }
        return faccessat(directory_, name_.c_str(), W_OK, AT_EACCESS) == 0;
    }
    void Close()
    {
        if (descriptor_ >= 0) {
            close(std::exchange(descriptor_, -1));
        }
        if (!aside_.empty()) {
            unlinkat(directory_, std::exchange(aside_, {}).c_str(), 0);
        }
        if (directory_ >= 0) {
            close(std::exchange(directory_, -1));
        }
    }
    [[noreturn]] void Abandon(const std::string& what)
    {
        const int reason = errno;
        Close();
        errno = reason;
        FailWithReason(file_, what);
    }

    fs::path file_;
    fs::path name_;
    std::string aside_;
    int directory_ = -1;
    int descriptor_ = -1;
};

sigset_t Interrupts()
{
    sigset_t interrupts;
    sigemptyset(&interrupts);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction action = {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN) {
            sigaddset(&interrupts, signal);
        }
    }
    return interrupts;
}

}  // namespace

HoldInterrupts::HoldInterrupts()
{
    const sigset_t interrupts = Interrupts();
    pthread_sigmask(SIG_BLOCK, &interrupts, &before_);
}

HoldInterrupts::~HoldInterrupts()
{
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

bool HoldInterrupts::Waiting()
{
    sigset_t waiting = Interrupts();
    sigset_t pending;
    sigpending(&pending);
    sigandset(&waiting, &waiting, &pending);
    return sigisemptyset(&waiting) == 0;
}

fs::path FollowLinks(fs::path file)
{
    constexpr int kMostLinks = 40;
    std::error_code error;
    for (int links = 0; fs::is_symlink(file, error); ++links) {
        const fs::path next = fs::read_symlink(file, error);
        if (error || links == kMostLinks) {
            Fail(file, "cannot be followed: " + (error ? error.message() : std::strerror(ELOOP)));
        }
        file = file.parent_path() / next;
    }
    return file;
}

std::string CreateAside(const std::function<bool(const std::string& name)>& create)
{
    for (unsigned attempt = 0;; ++attempt) {
        std::string name = std::string(kAsidePrefix) + std::to_string(getpid()) + "-" + std::to_string(attempt);
        if (create(name)) {
            return name;
        }
        if (errno != EEXIST) {
            return {};
        }
    }
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
        if (!WriteAll(Stream(std::fopen(file.c_str(), "wb")), content)) {
            FailWithReason(file, "cannot be written");
        }
        return;
    }
    const HoldInterrupts hold;
    AsideFile(file).Replace(content);
}

void CheckWritable(const fs::path& file)
{
    if (!HasNoOldContent(file)) {
        const HoldInterrupts hold;
        const AsideFile tried(file);
    } else if (access(file.c_str(), W_OK) != 0) {
        FailWithReason(file, "cannot be written");
    }
}

}  // namespace opkit::modelkit
