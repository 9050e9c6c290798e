// A block of bytes of exactly the size asked for, aligned to 64 bytes, so that address checkers see the first byte
// beyond its end. Copies deeply. A size of 0 still has an address of its own.
#ifndef OPKIT_MODELKIT_BUFFER_H
#define OPKIT_MODELKIT_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <span>
#include <utility>

namespace opkit::modelkit {

class Buffer {
public:
    static constexpr size_t kAlignment = 64;

    Buffer() = default;
    explicit Buffer(size_t size) : size_(size)
    {
        void* block = nullptr;
        if (posix_memalign(&block, kAlignment, size) != 0 || block == nullptr) {
            throw std::bad_alloc();
        }
        data_ = static_cast<std::byte*>(block);
        std::memset(data_, 0, size);
    }
    explicit Buffer(std::span<const std::byte> content) : Buffer(content.size())
    {
        if (!content.empty()) {
            std::memcpy(data_, content.data(), content.size());
        }
    }
    Buffer(const Buffer& other)
    {
        if (other.data_ != nullptr) {
            Buffer copy{std::span<const std::byte>(other.data_, other.size_)};
            swap(copy);
        }
    }
    Buffer(Buffer&& other) noexcept { swap(other); }
    Buffer& operator=(Buffer other) noexcept
    {
        swap(other);
        return *this;
    }
    ~Buffer() { std::free(data_); }

    void swap(Buffer& other) noexcept
    {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
    }

    std::byte* data() { return data_; }
    const std::byte* data() const { return data_; }
    size_t size() const { return size_; }
    std::span<std::byte> Span() { return {data_, size_}; }
    std::span<const std::byte> Span() const { return {data_, size_}; }
    std::span<float> Floats() { return {reinterpret_cast<float*>(data_), size_ / sizeof(float)}; }
    std::span<const float> Floats() const { return {reinterpret_cast<const float*>(data_), size_ / sizeof(float)}; }
    std::span<uint32_t> Words() { return {reinterpret_cast<uint32_t*>(data_), size_ / sizeof(uint32_t)}; }
    std::span<const uint32_t> Words() const
    {
        return {reinterpret_cast<const uint32_t*>(data_), size_ / sizeof(uint32_t)};
    }

    // A record at a byte offset that lies inside the buffer and is aligned for it.
    template <class T>
    T& At(size_t offset)
    {
        return *reinterpret_cast<T*>(data_ + offset);
    }
    template <class T>
    const T& At(size_t offset) const
    {
        return *reinterpret_cast<const T*>(data_ + offset);
    }

private:
    std::byte* data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_BUFFER_H
