// Runs a fuzz target without a fuzzer, so that any build can: each file of a directory as it is, then changed copies of
// files picked at random. The same arguments give the same inputs.
//
//     check_fuzz_smoke SEEDS RUNS [SEED]      RUNS changed copies
//     check_fuzz_smoke FILE...                these inputs alone
//
// An input that ends the program, by a sanitizer's report too, stays behind in the working directory, under the
// program's name and ".finding".

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                                                unsigned seed);
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kMaxSize = 1 << 16;
const Bytes* current = nullptr;
std::string findingName;
uint64_t state = 1;

uint32_t Random(uint32_t below)
{
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<uint32_t>((state >> 32) * below >> 32);
}

void KeepFinding()
{
    if (current != nullptr) {
        std::FILE* const file = std::fopen(findingName.c_str(), "wb");
        if (file != nullptr) {
            std::fwrite(current->data(), 1, current->size(), file);
            std::fclose(file);
            std::fprintf(stderr, "the input is in %s\n", findingName.c_str());
        }
    }
}

void OnAbort(int)
{
    KeepFinding();
    std::signal(SIGABRT, SIG_DFL);
}

Bytes ReadFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Run(const Bytes& input)
{
    current = &input;
    const Bytes exact(input.begin(), input.end());  // a heap block that ends where the input does
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
    current = nullptr;
}

}  // namespace

// Some bytes change, a piece goes, or a piece doubles.
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize)
{
    Bytes bytes(data, data + size);
    const auto random = [](size_t below) { return Random(static_cast<uint32_t>(below)); };
    switch (bytes.empty() ? 0 : Random(4)) {
        case 0:
            bytes.insert(bytes.begin() + random(size + 1), static_cast<uint8_t>(Random(256)));
            break;
        case 1: {
            const uint32_t from = random(size);
            bytes.erase(bytes.begin() + from, bytes.begin() + from + 1 + random(std::min<size_t>(size - from, 64)));
            break;
        }
        case 2: {
            const uint32_t from = random(size);
            const Bytes piece(bytes.begin() + from,
                              bytes.begin() + from + 1 + random(std::min<size_t>(size - from, 64)));
            bytes.insert(bytes.begin() + random(size + 1), piece.begin(), piece.end());
            break;
        }
        default:
            for (uint32_t changes = 1 + Random(4); changes > 0; --changes) {
                bytes[random(size)] = static_cast<uint8_t>(Random(256));
            }
            break;
    }
    bytes.resize(std::min(bytes.size(), maxSize));
    std::copy(bytes.begin(), bytes.end(), data);
    return bytes.size();
}

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fputs("SEEDS RUNS [SEED], or FILE...\n", stderr);
        return 2;
    }
    findingName = std::filesystem::path(argv[0]).filename().string() + ".finding";
    std::signal(SIGABRT, OnAbort);
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(KeepFinding);
    }
    if (!std::filesystem::is_directory(argv[1])) {
        for (int i = 1; i < argc; ++i) {
            Run(ReadFile(argv[i]));
        }
        return 0;
    }

    std::vector<std::filesystem::path> files(std::filesystem::directory_iterator{argv[1]}, {});
    std::sort(files.begin(), files.end());
    std::vector<Bytes> seeds;
    for (const std::filesystem::path& file : files) {
        seeds.push_back(ReadFile(file));
        Run(seeds.back());
    }
    if (seeds.empty()) {
        std::fputs("no seeds\n", stderr);
        return 2;
    }
    const uint64_t runs = argc > 2 ? std::strtoull(argv[2], nullptr, 0) : 0;
    state = argc > 3 ? std::strtoull(argv[3], nullptr, 0) : 1;
    for (uint64_t run = 0; run < runs; ++run) {
        Bytes input = seeds[Random(static_cast<uint32_t>(seeds.size()))];
        size_t size = input.size();
        input.resize(kMaxSize + size);
        for (uint32_t times = 1 + Random(3); times > 0; --times) {
            size = LLVMFuzzerCustomMutator != nullptr
                       ? LLVMFuzzerCustomMutator(input.data(), size, kMaxSize + size, Random(UINT32_MAX))
                       : LLVMFuzzerMutate(input.data(), size, kMaxSize + size);
        }
        input.resize(size);
        Run(input);
    }
    std::fprintf(stderr, "%zu seeds, %llu changed copies\n", seeds.size(), static_cast<unsigned long long>(runs));
    return 0;
}
