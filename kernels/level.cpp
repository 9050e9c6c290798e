// Reads the processor's features once. No constructor runs at load: the first caller detects, and callers on
// several threads at once would store the same answer.

#include "kernels/level.h"

#include <cpuid.h>

#include "kernels/gemm.h"

namespace opkit {
namespace {

constexpr int kUnknown = -1;
int activeLevel = kUnknown;
int fuses = kUnknown;

uint64_t EnabledStates()
{
    uint32_t low = 0;
    uint32_t high = 0;
    __asm__ volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return (uint64_t{high} << 32) | low;
}

Level Detect()
{
    uint32_t a = 0;
    uint32_t b = 0;
    uint32_t c = 0;
    uint32_t d = 0;
    constexpr uint32_t kOsXsaveAndFma = (1U << 27) | (1U << 12);
    if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & kOsXsaveAndFma) != kOsXsaveAndFma) {
        return Level::kBaseline;
    }
    constexpr uint64_t kAvxState = 0x6;      // xmm and the upper halves of ymm
    constexpr uint64_t kAvx512State = 0xE6;  // masks and zmm besides
    const uint64_t states = EnabledStates();
    if ((states & kAvxState) != kAvxState || __get_cpuid_count(7, 0, &a, &b, &c, &d) == 0) {
        return Level::kBaseline;
    }
    constexpr uint32_t kAvx2 = (1U << 5) | (1U << 8);  // AVX2 and BMI2
    if ((b & kAvx2) != kAvx2) {
        return Level::kBaseline;
    }
    constexpr uint32_t kAvx512 = (1U << 16) | (1U << 17) | (1U << 28) | (1U << 30) | (1U << 31);  // F DQ CD BW VL
    const bool avx512 = (b & kAvx512) == kAvx512 && (states & kAvx512State) == kAvx512State;
    constexpr uint32_t kVnni = 1U << 11;
    return !avx512 ? Level::kAvx2 : (c & kVnni) == 0 ? Level::kAvx512 : Level::kVnni;
}

// Known by the maker: Intel's processors with FMA multiply and add in the same units, at least in whole vectors; those
// of other makers have adders besides. A guess costs speed only, never a bit.
int FindWhetherItFuses()
{
    uint32_t a = 0;
    uint32_t b = 0;
    uint32_t c = 0;
    uint32_t d = 0;
    return __get_cpuid(0, &a, &b, &c, &d) != 0 && b == signature_INTEL_ebx && c == signature_INTEL_ecx &&
           d == signature_INTEL_edx;
}

}  // namespace

bool FusesAtTwiceTheRate()
{
    int known = __atomic_load_n(&fuses, __ATOMIC_RELAXED);
    if (known == kUnknown) {
        known = FindWhetherItFuses();
        __atomic_store_n(&fuses, known, __ATOMIC_RELAXED);
    }
    return known != 0;
}

void OverrideFusing(bool value)
{
    __atomic_store_n(&fuses, value ? 1 : 0, __ATOMIC_RELAXED);
}

Level DetectedLevel()
{
    return Detect();
}

Level ActiveLevel()
{
    int level = __atomic_load_n(&activeLevel, __ATOMIC_RELAXED);
    if (level == kUnknown) {
        level = static_cast<int>(Detect());
        __atomic_store_n(&activeLevel, level, __ATOMIC_RELAXED);
    }
    return static_cast<Level>(level);
}

void OverrideLevel(Level level)
{
    const Level limit = Detect();
    __atomic_store_n(&activeLevel, static_cast<int>(level < limit ? level : limit), __ATOMIC_RELAXED);
}

const char* LevelName(Level level)
{
    constexpr const char* kNames[] = {"baseline", "AVX2", "AVX-512", "AVX-512 VNNI"};
    return kNames[static_cast<int>(level)];
}

}  // namespace opkit
