/* A host program with functions of its own under the library's common names: the library must never call them. */
#include <stdio.h>
#include <string.h>

#include "opkit/opkit.h"

static int called;

/* The host's own, exported from the executable under the library's names. */
__attribute__((visibility("default"))) void HostGemm(GemmArgs args) __asm__("Gemm");
__attribute__((visibility("default"))) void HostGemm(GemmArgs args)
{
    (void)args;
    ++called;
}
__attribute__((visibility("default"))) uint32_t HostCopy(uint32_t count, float* src, float* dst) __asm__("Copy");
__attribute__((visibility("default"))) uint32_t HostCopy(uint32_t count, float* src, float* dst)
{
    (void)count;
    (void)src;
    (void)dst;
    ++called;
    return 1;
}
__attribute__((visibility("default"))) uint32_t HostCheck(ForwardParam* param) __asm__("CheckForwardParam");
__attribute__((visibility("default"))) uint32_t HostCheck(ForwardParam* param)
{
    (void)param;
    ++called;
    return 0;
}
__attribute__((visibility("default"))) ForwardFunc HostGet(const char* name) __asm__("GetForwardFunc");
__attribute__((visibility("default"))) ForwardFunc HostGet(const char* name)
{
    (void)name;
    ++called;
    return 0;
}

int main(void)
{
    float a = 3.0f;
    float b = 4.0f;
    float c = 0.0f;
    ForwardParam request;
    memset(&request, 0, sizeof request);
    if (OpkitForward(&request) != OPKIT_FAILURE) {
        printf("the host's CheckForwardParam answered\n");
        return 1;
    }
    QGemmWithoutEigen(&a, &b, &c, 1, 1, 1, 1.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f);
    if (c != 12.0f || called != 0) {
        printf("c = %g, host functions called %d times\n", (double)c, called);
        return 1;
    }
    return 0;
}
