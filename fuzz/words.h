// What the fuzz targets share: bytes as a run of 32-bit words, and a mutator that changes them as words, since nearly
// every field of a model is one.
#ifndef OPKIT_FUZZ_WORDS_H
#define OPKIT_FUZZ_WORDS_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace opkit::fuzz {

// Takes words off the front of the input; zeros when it is used up.
class Words {
public:
    Words(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    uint32_t Next()
    {
        uint32_t word = 0;
        const size_t taken = size_ < sizeof(word) ? size_ : sizeof(word);
        std::memcpy(&word, data_, taken);
        data_ += taken;
        size_ -= taken;
        return word;
    }
    const uint8_t* Rest() const { return data_; }
    size_t RestSize() const { return size_; }

private:
    const uint8_t* data_;
    size_t size_;
};

// One word takes a telling value, that of another word, or one nearby; every third time bytes change at random.
inline size_t MutateWords(uint8_t* data, size_t size, size_t maxSize, unsigned seed)
{
    uint64_t state = seed * 0x9e3779b97f4a7c15ULL + 1;
    const auto next = [&state] {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        return static_cast<uint32_t>(state >> 32);
    };
    const size_t words = size / 4;
    if (words == 0 || next() % 3 == 0) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    static constexpr uint32_t kTelling[] = {
        0,  1,  2,   3,   4,    7,          8,          10,         11,         16,         30,         31,
        80, 81, 255, 256, 4096, 0x7fffffff, 0x80000000, 0xffffffff, 0xfffffffc, 0x40000000, 0x3f800000, 0x7fc00000};
    for (uint32_t changes = 1 + next() % 3; changes > 0; --changes) {
        uint8_t* const target = data + next() % words * 4;
        uint32_t value = 0;
        std::memcpy(&value, target, 4);
        switch (next() % 4) {
            case 0:
                value = kTelling[next() % (sizeof(kTelling) / sizeof(kTelling[0]))];
                break;
            case 1:
                std::memcpy(&value, data + next() % words * 4, 4);
                break;
            case 2:
                value += next() % 17 - 8;
                break;
            default:
                value ^= 1u << next() % 32;
                break;
        }
        std::memcpy(target, &value, 4);
    }
    return size;
}

// The library prints to standard output; the fuzzer reports on standard error.
inline void Silence()
{
    static const bool done = std::freopen("/dev/null", "w", stdout) != nullptr;
    (void)done;
}

}  // namespace opkit::fuzz

#endif  // OPKIT_FUZZ_WORDS_H
