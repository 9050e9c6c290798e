// Instruction-set levels: which variant of the hot kernels runs.
//
// A kernel file is compiled once per level, with OPKIT_LEVEL naming it. The linker must never keep one compilation's
// code for all of them: AVX-512 code would then run where there is none. So a kernel file's functions stand in an
// anonymous namespace inside of opkit::OPKIT_LEVEL, and all code of a header that kernel files include (kernels/,
// common/) stands in an anonymous namespace, too, its functions `inline` there only to spare warnings about unused
// ones. All that a kernel object shares is its table, and all that it calls is libc and libm; the test of the binary
// interface looks.
//
//     // kernels/unary.h
//     struct UnaryKernels { void (*neg)(const float* in, float* out, size_t count); };
//     OPKIT_KERNEL_TABLE(UnaryKernels)   // three tables, and Kernels<UnaryKernels>() for the one in use
//
//     // kernels/unary.cpp
//     namespace opkit::OPKIT_LEVEL {
//     namespace {
//     void Neg(const float* in, float* out, size_t count) { ... }
//     }  // namespace
//     extern const UnaryKernels kUnaryKernels = {Neg};
//     }
//
// All levels give identical bits. A kernel's record says what it demands of its arguments, and its entry asserts that
// in builds without NDEBUG (kernels/contract.h); pointers may be null only where nothing is read or written.
#ifndef OPKIT_KERNELS_LEVEL_H
#define OPKIT_KERNELS_LEVEL_H

#include <stddef.h>
#include <stdint.h>

namespace opkit {

enum class Level { kBaseline = 0, kAvx2 = 1, kAvx512 = 2, kVnni = 3 };  // VNNI: AVX-512 with products of small integers

// What the processor and the operating system can run.
Level DetectedLevel();

// The level in use: the detected one, unless a lower one was chosen.
Level ActiveLevel();

// Chooses a level for tests and benchmarks; a level above the detected one is cut to it. Not exported.
void OverrideLevel(Level level);

const char* LevelName(Level level);

// Whether a fused multiply-add takes the place of two operations in the same units. Elsewhere sums have units of their
// own beside those of products, and the two apart are as fast.
bool FusesAtTwiceTheRate();

// The table of a record for the level in use: Kernels<UnaryKernels>().neg(in, out, count).
template <class Record>
const Record& Kernels();

// Declares a record's table at every level, named after it: kUnaryKernels of UnaryKernels. With VNNI that of AVX-512 is
// used: what is compiled for VNNI alone, kernels/whole.h, has a choice of its own.
#define OPKIT_KERNEL_TABLE(Record)                                                                         \
    namespace baseline {                                                                                   \
    extern const Record k##Record;                                                                         \
    }                                                                                                      \
    namespace avx2 {                                                                                       \
    extern const Record k##Record;                                                                         \
    }                                                                                                      \
    namespace avx512 {                                                                                     \
    extern const Record k##Record;                                                                         \
    }                                                                                                      \
    template <>                                                                                            \
    inline const Record& Kernels<Record>()                                                                 \
    {                                                                                                      \
        static const Record* const tables[] = {&baseline::k##Record, &avx2::k##Record, &avx512::k##Record, \
                                               &avx512::k##Record};                                        \
        return *tables[static_cast<int>(ActiveLevel())];                                                   \
    }

}  // namespace opkit

#endif  // OPKIT_KERNELS_LEVEL_H
