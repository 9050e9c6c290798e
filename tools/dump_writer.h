// Writes a dump as a run goes on, aside; at the end it replaces an earlier dump, and nothing else.
#ifndef OPKIT_TOOLS_DUMP_WRITER_H
#define OPKIT_TOOLS_DUMP_WRITER_H

#include <filesystem>

#include "modelkit/file_io.h"
#include "tools/dump_index.h"

namespace opkit::tools {

// While one lives, interrupts are held back. Without Finish, everything is as it was.
class DumpWriter {
public:
    // Throws ToolError where a dump must not or cannot be written.
    explicit DumpWriter(const std::filesystem::path& path);
    ~DumpWriter();
    DumpWriter(const DumpWriter&) = delete;
    DumpWriter& operator=(const DumpWriter&) = delete;

    void Add(const DumpedTensor& tensor);
    // Puts the dump into its place, also where others do the same at that moment. Files that no dump listed stay.
    void Finish();

private:
    void Replace();
    void RefuseForeign(const DumpIndex& old) const;

    modelkit::HoldInterrupts hold_;  // until all else is gone
    std::filesystem::path directory_;
    std::filesystem::path aside_;
    bool created_ = false;
    DumpIndex index_;
};

}  // namespace opkit::tools

#endif  // OPKIT_TOOLS_DUMP_WRITER_H
