// The readers of the tools: a manifest with its buffer, a model's text, an .npy file. Each refuses with its own error
// or gives a model that can be written and read again.

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "modelkit/model_text.h"
#include "tools/npy.h"

using namespace opkit;

namespace {

void ReadManifest(const std::string& text)
{
    const size_t cut = text.find('\0');  // the buffer stands behind the manifest
    const std::string manifest = text.substr(0, cut);
    const std::string buffer = cut == std::string::npos ? std::string() : text.substr(cut + 1);
    const modelkit::Model model = modelkit::ParseModel({"m.json", "m.bin"}, manifest, buffer);
    if (modelkit::DisassembleModel(model, manifest).empty()) {
        std::abort();
    }
}

void ReadText(const std::string& text)
{
    const modelkit::AssembledModel made = modelkit::AssembleModel("m.txt", text);
    const std::string again = modelkit::DisassembleModel(made.model, made.manifest);
    const modelkit::AssembledModel same = modelkit::AssembleModel("m.txt", again);
    if (!std::ranges::equal(same.model.bytes.Span(), made.model.bytes.Span())) {
        std::abort();
    }
}

void ReadNpy(const std::string& bytes)
{
    static const std::filesystem::path file =
        std::filesystem::temp_directory_path() / ("opkit-fuzz-" + std::to_string(getpid()) + ".npy");
    std::ofstream(file, std::ios::binary) << bytes;
    const tools::NpyArray array = tools::LoadNpy(file);
    if (modelkit::ElementCount(array.shape) != array.values.size()) {
        std::abort();
    }
}

}  // namespace

// The first byte says which reader gets the rest; of the letters, 'm' for a manifest, 'n' for .npy, 'o' for text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) {
        return 0;
    }
    const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    try {
        switch (data[0] % 3) {
            case 'm' % 3:
                ReadManifest(rest);
                break;
            case 'o' % 3:
                ReadText(rest);
                break;
            default:
                ReadNpy(rest);
                break;
        }
    } catch (const modelkit::FileError&) {
    } catch (const modelkit::BuildError&) {
    }
    return 0;
}
