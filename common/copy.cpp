#include "opkit/helpers.h"

// A plain ascending loop: ranges that overlap forward replicate, element by element.
uint32_t Copy(uint32_t count, float* src, float* dst)
{
    for (uint32_t i = 0; i < count; ++i) {
        dst[i] = src[i];
    }
    return 0;
}
