#include "common/bounded_memory.h"

#include <cstring>

#include "common/overlap.h"

namespace opkit {
namespace {

constexpr int32_t kInvalid = 22;
constexpr int32_t kOutOfRange = 34;
constexpr int32_t kInvalidAndCleared = 150;
constexpr int32_t kOutOfRangeAndFilled = 162;
constexpr int32_t kOverlapAndCleared = 182;

int32_t Clear(void* destination, int64_t size, int32_t code)
{
    std::memset(destination, 0, static_cast<uint64_t>(size));
    return code;
}

}  // namespace

int32_t memcpy_s(void* destination, int64_t destinationSize, const void* source, uint64_t count)
{
    if (destinationSize <= 0) {
        return kOutOfRange;
    }
    if (destination == nullptr) {
        return kInvalid;
    }
    if (source == nullptr) {
        return Clear(destination, destinationSize, kInvalidAndCleared);
    }
    if (count > static_cast<uint64_t>(destinationSize)) {
        return Clear(destination, destinationSize, kOutOfRangeAndFilled);
    }
    if (destination == source || count == 0) {
        return 0;
    }
    if (RangesOverlap(static_cast<const uint8_t*>(destination), count, static_cast<const uint8_t*>(source), count)) {
        return Clear(destination, destinationSize, kOverlapAndCleared);
    }
    std::memcpy(destination, source, count);
    return 0;
}

int32_t memset_s(void* destination, int64_t destinationSize, int32_t value, uint64_t count)
{
    if (destinationSize < 0) {
        return kOutOfRange;
    }
    if (destination == nullptr) {
        return destinationSize == 0 ? kOutOfRange : kInvalid;
    }
    if (count <= static_cast<uint64_t>(destinationSize)) {
        std::memset(destination, value, count);
        return 0;
    }
    if (destinationSize == 0) {
        return kOutOfRange;
    }
    std::memset(destination, value, static_cast<uint64_t>(destinationSize));
    return kOutOfRangeAndFilled;
}

}  // namespace opkit
