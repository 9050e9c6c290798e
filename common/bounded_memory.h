// Bounded memory operations that answer with a code instead of writing too far. The two differ at their edges, and
// operators rely on it: a size of 0 fails the copy even with nothing to copy, and is fine for a fill of nothing.
#ifndef OPKIT_COMMON_BOUNDED_MEMORY_H
#define OPKIT_COMMON_BOUNDED_MEMORY_H

#include <stdint.h>

namespace opkit {

// Copies `count` bytes. Returns 0; 34 for a size of 0 or below; 22 for a null destination. A null source (150), a count
// above the size (162) and overlapping ranges (182) clear the whole destination. Equal pointers and a count of 0 are
// fine.
int32_t memcpy_s(void* destination, int64_t destinationSize, const void* source, uint64_t count);

// Fills `count` bytes. Returns 0; 34 for a negative size, a null destination of size 0 or a count above a size of 0;
// 22 for a null destination. A count above the size fills the size and returns 162.
int32_t memset_s(void* destination, int64_t destinationSize, int32_t value, uint64_t count);

}  // namespace opkit

#endif  // OPKIT_COMMON_BOUNDED_MEMORY_H
