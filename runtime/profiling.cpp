// Timing slots.

#include "opkit/helpers.h"

namespace {

uint64_t Microseconds(const timeval& time)
{
    return static_cast<uint64_t>(time.tv_sec) * 1000000 + static_cast<uint64_t>(time.tv_usec);
}

}  // namespace

void ProfilingLayer(ProfilingBuffer* profiling, uint32_t slotIndex, struct timeval start, struct timeval end)
{
    const uint32_t slotEnd = (slotIndex + 1) * static_cast<uint32_t>(sizeof(ProfilingSlot));  // wraps
    if (slotEnd > profiling->size) {
        return;
    }
    uint8_t* bytes = reinterpret_cast<uint8_t*>(profiling->slots);
    ProfilingSlot* slot = reinterpret_cast<ProfilingSlot*>(bytes + slotEnd - sizeof(ProfilingSlot));
    slot->slotIndex = slotIndex;
    slot->startTime = Microseconds(start);
    slot->endTime = Microseconds(end);
}
