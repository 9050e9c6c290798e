// Requests over the digits model from several threads, each with its own copy of the model, until so many have run:
// every pass over the images must leave the same outputs as the first, and the process must not grow.
//
//     opkit_soak DATA [requests [threads]]       DATA: examples/digits/data; 1,000,000 requests and 4 threads by
//     default

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "examples/digits/npy.h"
#include "modelkit/model_file.h"
#include "modelkit/request.h"
#include "opkit/opkit.h"

using namespace opkit;

namespace {

using Images = std::vector<std::vector<float>>;

Images LoadImages(const std::filesystem::path& file)
{
    const xt::xarray<uint8_t> array = LoadNpy<uint8_t>(file);
    Images images(array.shape(0));
    const size_t pixels = array.size() / images.size();
    for (size_t i = 0; i < array.size(); ++i) {
        images[i / pixels].push_back(static_cast<float>(array.flat(i)) / 16.0f);
    }
    return images;
}

uint64_t HashOf(uint64_t hash, const std::vector<float>& values)
{
    for (const float value : values) {
        uint32_t bits = 0;
        __builtin_memcpy(&bits, &value, sizeof(bits));
        hash = (hash ^ bits) * 0x100000001b3ULL;
    }
    return hash;
}

// One pass over all images, an item each.
uint64_t PassHash(modelkit::Request& request, const modelkit::Model& model, const Images& images)
{
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (const std::vector<float>& image : images) {
        request.SetInput(0, image);
        if (request.Run(OpkitForward) != 0) {
            return 0;
        }
        for (size_t k = 0; k < model.outputs.size(); ++k) {
            hash = HashOf(hash, request.GetOutput(k));
        }
    }
    return hash;
}

uint64_t ResidentKilobytes()
{
    uint64_t pages = 0;
    uint64_t resident = 0;
    std::FILE* const file = std::fopen("/proc/self/statm", "r");
    const bool read = file != nullptr && std::fscanf(file, "%lu %lu", &pages, &resident) == 2;
    if (file != nullptr) {
        std::fclose(file);
    }
    return read ? resident * 4 : 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::puts("opkit_soak DATA [requests [threads]]");
        return 2;
    }
    const std::filesystem::path data = argv[1];
    const modelkit::Model model = modelkit::LoadModel(data / "digits");
    const Images images = LoadImages(data / "images.npy");
    const uint64_t requests = argc > 2 ? std::strtoull(argv[2], nullptr, 0) : 1000000;
    const unsigned threadCount = argc > 3 ? static_cast<unsigned>(std::atoi(argv[3])) : 4;

    modelkit::Request first(model);
    const uint64_t expected = PassHash(first, model, images);
    std::atomic<uint64_t> done = 0;
    std::atomic<uint64_t> differing = 0;
    std::atomic<uint64_t> early = 0;  // resident after a tenth of the work, when every thread has its memory
    {
        std::vector<std::jthread> threads;
        for (unsigned t = 0; t < threadCount; ++t) {
            threads.emplace_back([&] {
                modelkit::Request request(model);
                while (done < requests) {
                    differing += PassHash(request, model, images) != expected;
                    done += images.size();
                    if (early == 0 && done > requests / 10) {
                        early = ResidentKilobytes();
                    }
                }
            });
        }
    }
    const uint64_t late = ResidentKilobytes();
    const uint64_t last = PassHash(first, model, images);
    std::printf(
        "%lu requests on %u threads; outputs %016lx first, %016lx last, %lu passes differ; resident %lu KiB early, "
        "%lu KiB at the end\n",
        done.load(), threadCount, expected, last, differing.load(), early.load(), late);
    const bool grown = late > early + 1024;
    return expected != 0 && last == expected && differing == 0 && !grown ? 0 : 1;
}
