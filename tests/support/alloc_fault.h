// Makes the n-th allocation fail and counts what stays allocated. Link opkit_test_alloc_fault; it replaces malloc in
// the test program. With a sanitizer or under valgrind, which have a malloc of their own, all of this does nothing and
// AllocFaultAvailable() says so.
//
//     for (uint64_t n = 0;; ++n) {
//         AllocFault fault(n);
//         const uint32_t result = OpkitForward(&param);
//         fault.Disarm();
//         EXPECT_EQ(fault.Live(), 0);
//         if (fault.Seen() <= n) break;      // the sweep went past the last allocation
//         EXPECT_EQ(result, ~0u);
//     }
#ifndef OPKIT_TESTS_SUPPORT_ALLOC_FAULT_H
#define OPKIT_TESTS_SUPPORT_ALLOC_FAULT_H

#include <cstdint>

namespace opkit::test {

bool AllocFaultAvailable();

// Watches the allocations of the calling thread from construction to Disarm(). One at a time.
class AllocFault {
public:
    static constexpr uint64_t kNever = UINT64_MAX;

    // failAt: how many allocations succeed before the one that fails; later ones succeed again.
    explicit AllocFault(uint64_t failAt = kNever);
    ~AllocFault();
    AllocFault(const AllocFault&) = delete;
    AllocFault& operator=(const AllocFault&) = delete;

    void Disarm();
    uint64_t Seen() const;       // allocations asked for, the failed one included
    int64_t Live() const;        // of those, still allocated
    uint64_t LiveBytes() const;  // as asked for
    void FreeLive();             // frees them, for tests that assert a required leak
};

// While one lives, what is allocated may stay so: the leak sanitizer keeps quiet. For tests of a required leak.
class RequiredLeak {
public:
    RequiredLeak();
    ~RequiredLeak();
    RequiredLeak(const RequiredLeak&) = delete;
    RequiredLeak& operator=(const RequiredLeak&) = delete;
};

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_ALLOC_FAULT_H
