#include "bench/peers.h"

#if OPKIT_HAVE_OPENBLAS
#include <cblas.h>

namespace opkit::bench::peers {

bool HaveBlas()
{
    return true;
}

std::string BlasName()
{
    return std::string(openblas_get_config()) + ", kernels of " + openblas_get_corename();
}

void UseOneThread()
{
    openblas_set_num_threads(1);
}

Work Sgemm(bool transA, bool transB, int64_t m, int64_t n, int64_t k, const float* a, const float* b, float* c)
{
    return [=] {
        cblas_sgemm(CblasRowMajor, transA ? CblasTrans : CblasNoTrans, transB ? CblasTrans : CblasNoTrans,
                    static_cast<int>(m), static_cast<int>(n), static_cast<int>(k), 1.0f, a,
                    static_cast<int>(transA ? m : k), b, static_cast<int>(transB ? k : n), 0.0f, c,
                    static_cast<int>(n));
    };
}

}  // namespace opkit::bench::peers

#else

namespace opkit::bench::peers {

bool HaveBlas()
{
    return false;
}

std::string BlasName()
{
    return "not installed";
}

void UseOneThread() {}

Work Sgemm(bool, bool, int64_t, int64_t, int64_t, const float*, const float*, float*)
{
    return {};
}

}  // namespace opkit::bench::peers

#endif
