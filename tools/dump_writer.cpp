#include "tools/dump_writer.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "tools/command.h"
#include "tools/npy.h"
#include "tools/run_data.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
namespace fs = std::filesystem;

// "a" for "b/../a/", so that what is replaced is what was looked at.
fs::path WithoutDetours(const fs::path& path)
{
    const fs::path normal = path.lexically_normal();
    return normal.has_filename() ? normal : normal.parent_path();
}

// One writer at a time; the others wait.
class DirectoryLock {
public:
    explicit DirectoryLock(const fs::path& directory)
        : descriptor_(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        flock(descriptor_, LOCK_EX);
    }
    ~DirectoryLock() { close(descriptor_); }
    DirectoryLock(const DirectoryLock&) = delete;
    DirectoryLock& operator=(const DirectoryLock&) = delete;

private:
    int descriptor_;
};

// The earlier dump's index; an empty one where nothing lies in the directory but what other writers are about.
DumpIndex EarlierDump(const fs::path& directory)
{
    if (fs::is_directory(directory)) {
        const fs::path index = directory / kDumpIndexName;
        if (fs::is_regular_file(fs::symlink_status(index))) {
            try {
                return ReadDumpIndex(directory);
            } catch (const FileError& error) {
                throw ToolError(fmt::format("{}: exists and holds no dump ({})", directory.string(), error.what()));
            }
        }
        const auto isAside = [](const fs::directory_entry& entry) {
            return entry.path().filename().string().starts_with(kAsidePrefix);
        };
        if (std::all_of(fs::directory_iterator(directory), fs::directory_iterator(), isAside)) {
            return {};
        }
    }
    throw ToolError(directory.string() + ": exists and holds no dump");
}

}  // namespace

DumpWriter::DumpWriter(const fs::path& path) : directory_(WithoutDetours(FollowLinks(WithoutDetours(path))))
{
    try {
        created_ = fs::create_directory(directory_);
    } catch (const fs::filesystem_error& error) {
        if (!fs::exists(directory_)) {
            throw ToolError(fmt::format("{}: cannot be written: {}", directory_.string(), error.code().message()));
        }
    }
    {
        const DirectoryLock lock(directory_);
        EarlierDump(directory_);
    }
    const std::string name =
        CreateAside([&](const std::string& aside) { return mkdir((directory_ / aside).c_str(), 0777) == 0; });
    if (name.empty()) {
        throw ToolError(fmt::format("{}: cannot be written: {}", directory_.string(), std::strerror(errno)));
    }
    aside_ = directory_ / name;
}

DumpWriter::~DumpWriter()
{
    std::error_code ignored;
    fs::remove_all(aside_, ignored);
    if (created_) {
        fs::remove(directory_, ignored);  // only when empty
    }
}

void DumpWriter::Add(const DumpedTensor& tensor)
{
    DumpEntry entry = tensor.entry;
    entry.file = DumpFileName(entry);
    SaveNpy(aside_ / entry.file, BatchedShape(entry.shape, entry.items), tensor.values);
    index_.entries.push_back(std::move(entry));
}

void DumpWriter::RefuseForeign(const DumpIndex& old) const
{
    std::set<std::string> earlier;
    for (const DumpEntry& entry : old.entries) {
        earlier.insert(entry.file);
    }
    for (const DumpEntry& entry : index_.entries) {
        const fs::path file = directory_ / entry.file;
        const fs::file_status status = fs::symlink_status(file);
        if (fs::exists(status) && (!earlier.contains(entry.file) || fs::is_directory(status))) {
            throw ToolError(fmt::format("{}: is not of the earlier dump, and would be replaced", file.string()));
        }
    }
}

// The index tells at every moment which files are a dump's, so that whatever ends this, a later run can go on.
void DumpWriter::Replace()
{
    const DirectoryLock lock(directory_);
    const DumpIndex old = EarlierDump(directory_);
    RefuseForeign(old);
    DumpIndex both = {old.entries, false, true};
    both.entries.insert(both.entries.end(), index_.entries.begin(), index_.entries.end());
    WriteFile(directory_ / kDumpIndexName, DumpIndexText(both));
    std::set<std::string> current;
    for (const DumpEntry& entry : index_.entries) {
        fs::rename(aside_ / entry.file, directory_ / entry.file);
        current.insert(entry.file);
    }
    for (const DumpEntry& entry : old.entries) {
        const fs::path file = directory_ / entry.file;
        if (!current.contains(entry.file) && !fs::is_directory(fs::symlink_status(file))) {
            fs::remove(file);
        }
    }
    WriteFile(directory_ / kDumpIndexName, DumpIndexText(index_));
}

void DumpWriter::Finish()
{
    try {
        Replace();
    } catch (const fs::filesystem_error& error) {
        throw ToolError(fmt::format("{}: cannot be written: {}", directory_.string(), error.code().message()));
    }
    created_ = false;
}

}  // namespace opkit::tools
