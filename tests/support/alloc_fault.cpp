#include "tests/support/alloc_fault.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#else
static void __lsan_disable() {}
static void __lsan_enable() {}
#endif

namespace opkit::test {
namespace {

// Plain words without constructors, since malloc runs before any.
constexpr size_t kMaxLive = 4096;

struct LiveBlock {
    void* address;
    size_t size;
};

__thread bool armed = false;
[[maybe_unused]] __thread bool reached = false;  // a malloc of this program came by
uint64_t failAt = 0;
uint64_t seen = 0;
size_t liveCount = 0;
LiveBlock live[kMaxLive];

}  // namespace
}  // namespace opkit::test

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

namespace opkit::test {

bool AllocFaultAvailable()
{
    return false;
}

}  // namespace opkit::test

#else

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}

namespace opkit::test {
namespace {

bool Refused()
{
    reached = true;
    if (!armed || seen++ != failAt) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

void* Noted(void* block, size_t size)
{
    if (armed && block != nullptr) {
        if (liveCount == kMaxLive) {
            abort();
        }
        live[liveCount++] = {block, size};
    }
    return block;
}

void Forget(void* block)
{
    for (size_t i = 0; i < liveCount; ++i) {
        if (live[i].address == block) {
            live[i] = live[--liveCount];
            return;
        }
    }
}

}  // namespace

bool AllocFaultAvailable()
{
    const bool wasArmed = armed;
    armed = false;
    reached = false;
    void* volatile block = malloc(1);
    free(block);
    armed = wasArmed;
    return reached;
}

}  // namespace opkit::test

extern "C" {

void* malloc(size_t size)
{
    return opkit::test::Refused() ? nullptr : opkit::test::Noted(__libc_malloc(size), size);
}

void* calloc(size_t count, size_t size)
{
    return opkit::test::Refused() ? nullptr : opkit::test::Noted(__libc_calloc(count, size), count * size);
}

void* realloc(void* block, size_t size)
{
    if (opkit::test::Refused()) {
        return nullptr;
    }
    if (opkit::test::armed) {
        opkit::test::Forget(block);
    }
    return opkit::test::Noted(__libc_realloc(block, size), size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    return opkit::test::Refused() ? nullptr : opkit::test::Noted(__libc_memalign(alignment, size), size);
}

void* memalign(size_t alignment, size_t size)
{
    return aligned_alloc(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size)
{
    void* const result = aligned_alloc(alignment, size);
    if (result == nullptr) {
        return ENOMEM;
    }
    *block = result;
    return 0;
}

void free(void* block)
{
    if (block != nullptr && opkit::test::armed) {
        opkit::test::Forget(block);
    }
    __libc_free(block);
}

}  // extern "C"

#endif

namespace opkit::test {

AllocFault::AllocFault(uint64_t failAtCount)
{
    failAt = failAtCount;
    seen = 0;
    liveCount = 0;
    armed = true;
}

AllocFault::~AllocFault()
{
    Disarm();
}

void AllocFault::Disarm()
{
    armed = false;
}

uint64_t AllocFault::Seen() const
{
    return seen;
}

int64_t AllocFault::Live() const
{
    return static_cast<int64_t>(liveCount);
}

uint64_t AllocFault::LiveBytes() const
{
    uint64_t bytes = 0;
    for (size_t i = 0; i < liveCount; ++i) {
        bytes += live[i].size;
    }
    return bytes;
}

void AllocFault::FreeLive()
{
    Disarm();
    while (liveCount > 0) {
        free(live[--liveCount].address);
    }
}

RequiredLeak::RequiredLeak()
{
    __lsan_disable();
}

RequiredLeak::~RequiredLeak()
{
    __lsan_enable();
}

}  // namespace opkit::test
