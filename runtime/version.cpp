// Version, and the exported objects.

#include "opkit/opkit.h"

const char* OPKIT_GIT_VERSION = "Version:4ed1745";

int32_t g_size = 0;

__thread uint32_t g_curBoxNum[256];
__thread float g_maxWidth;
__thread float g_maxHeight;
__thread float g_lowScoreThresh;
__thread float g_nmsThresh;

uint32_t OpkitGetVersion(void)
{
    return OPKIT_VERSION;
}
