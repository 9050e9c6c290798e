/* Loads and unloads the library a thousand times, runs a request each time, and the process does not grow. */

#include <dlfcn.h>
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>

#include "opkit/opkit.h"

enum { kRounds = 1000, kWarmUp = 20 };

/* Without a model a request fails with a message, after all of the library that holds state was touched. */
static int LoadOnce(const char* file)
{
    void* const library = dlopen(file, RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    uint32_t (*version)(void) = (uint32_t(*)(void))dlsym(library, "OpkitGetVersion");
    uint32_t (*forward)(ForwardParam*) = (uint32_t(*)(ForwardParam*))dlsym(library, "OpkitForward");
    const float* const threshold = (const float*)dlsym(library, "g_nmsThresh"); /* thread-local: allocates its block */
    const int wrong = version == NULL || forward == NULL || threshold == NULL || version() != 0x30000 ||
                      forward(NULL) != 0xFFFFFFFFu || *threshold != 0.0f;
    return dlclose(library) != 0 || wrong || dlopen(file, RTLD_NOW | RTLD_NOLOAD) != NULL;
}

int main(int argc, char** argv)
{
    size_t before = 0;
    for (int round = 0; round < kRounds; ++round) {
        if (argc != 2 || LoadOnce(argv[1]) != 0) {
            fprintf(stderr, "round %d fails\n", round);
            return 1;
        }
        if (round == kWarmUp) {
            before = mallinfo2().uordblks;
        }
    }
    const size_t after = mallinfo2().uordblks;
    fprintf(stderr, "%d rounds, %zu bytes in use after %d, %zu at the end\n", kRounds, before, kWarmUp, after);
    return after > before ? 1 : 0;
}
