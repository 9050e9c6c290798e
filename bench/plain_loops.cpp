#include "bench/plain_loops.h"

#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace opkit::bench::plain {
namespace {

bool NearZero(float x)
{
    return std::fabs(x) <= 1e-6f;
}

int32_t ToI32(float x)
{
    return x >= -2147483648.0f && x < 2147483648.0f ? static_cast<int32_t>(x) : INT32_MIN;
}

template <class Element>
void Map(const float* in, float* out, size_t count, Element element)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = element(in[i]);
    }
}

template <class Element>
void Map2(const float* a, const float* b, float* out, size_t count, Element element)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = element(a[i], b[i]);
    }
}

float Start(Fold fold)
{
    return fold == Fold::kProduct ? 1.0f : fold == Fold::kMaximum ? -FLT_MAX : fold == Fold::kMinimum ? FLT_MAX : 0.0f;
}

template <Fold kFold>
float Step(float acc, float x)
{
    switch (kFold) {
        case Fold::kSum:
            return acc + x;
        case Fold::kSumSquare:
            return acc + x * x;
        case Fold::kProduct:
            return acc * x;
        case Fold::kMaximum:
            return x > acc ? x : acc;
        case Fold::kMinimum:
            return x < acc ? x : acc;
        case Fold::kSumExp:
            return static_cast<float>(std::exp(static_cast<double>(x)) + static_cast<double>(acc));
    }
}

template <Fold kFold>
void FoldRowsOf(const float* in, float* out, size_t rows, size_t length)
{
    for (size_t r = 0; r < rows; ++r) {
        float acc = Start(kFold);
        for (size_t i = 0; i < length; ++i) {
            acc = Step<kFold>(acc, in[r * length + i]);
        }
        out[r] = acc;
    }
}

// The distances come from memory, as an operator reads them.
template <Fold kFold>
void FoldRowsLiteralOf(const float* in, float* out, uint32_t rows, uint32_t length, const volatile uint32_t* layout)
{
    const uint32_t align = layout[0];
    const uint32_t width = layout[1];
    for (uint32_t r = 0; r < rows; ++r) {
        out[r] = Start(kFold);
    }
    for (uint32_t i = 0; i < rows * length; ++i) {
        const uint32_t o = i / layout[2] * layout[3];
        const float x = in[(width + align - 1) / align * (i / width * align) + i % width];
        out[o] = Step<kFold>(out[o], x);
    }
}

struct Entry {
    float value;
    int32_t index;
};

int Descending(const void* left, const void* right)
{
    const Entry& a = *static_cast<const Entry*>(left);
    const Entry& b = *static_cast<const Entry*>(right);
    return b.value > a.value || (NearZero(a.value - b.value) && a.index > b.index) ? 1 : -1;
}

}  // namespace

void Gemm(const float* a, const float* b, float* c, size_t m, size_t n, size_t k)
{
    for (size_t i = 0; i < m; ++i) {
        for (size_t j = 0; j < n; ++j) {
            for (size_t p = 0; p < k; ++p) {
                c[i * n + j] += a[i * k + p] * b[p * n + j];
            }
        }
    }
}

void GemmTransB(const float* a, const float* b, float* c, size_t m, size_t n, size_t k)
{
    for (size_t i = 0; i < m; ++i) {
        for (size_t j = 0; j < n; ++j) {
            float sum = 0.0f;
            for (size_t p = 0; p < k; ++p) {
                sum += a[i * k + p] * b[j * k + p];
            }
            c[i * n + j] += sum;
        }
    }
}

void Sigmoid(const float* in, float* out, size_t count)
{
    Map(in, out, count, [](float x) { return static_cast<float>(1.0 / (std::exp(static_cast<double>(-x)) + 1.0)); });
}

void Softplus(const float* in, float* out, size_t count)
{
    Map(in, out, count, [](float x) { return static_cast<float>(std::log(std::exp(static_cast<double>(x)) + 1.0)); });
}

void Celu(const float* in, float* out, size_t count)
{
    Map(in, out, count, [](float x) {
        const float term = static_cast<float>(std::exp(static_cast<double>(x)) - 1.0);
        return (x >= 0.0f ? x : 0.0f) + (term < 0.0f ? term : 0.0f);
    });
}

void Selu(const float* in, float* out, size_t count)
{
    constexpr float kAlpha = 1.67326f;
    constexpr float kGamma = 1.0507f;
    Map(in, out, count, [](float x) {
        return x <= 0.0f ? static_cast<float>(std::exp(static_cast<double>(x - kAlpha)) * static_cast<double>(kAlpha) *
                                              static_cast<double>(kGamma))
                         : x * kGamma;
    });
}

void Sinh(const float* in, float* out, size_t count)
{
    Map(in, out, count, [](float x) { return static_cast<float>(std::sinh(static_cast<double>(x))); });
}

void Acosh(const float* in, float* out, size_t count)
{
    Map(in, out, count, [](float x) { return static_cast<float>(std::acosh(static_cast<double>(x))); });
}

void FoldRows(Fold fold, const float* in, float* out, size_t rows, size_t length)
{
    constexpr void (*kLoops[])(const float*, float*, size_t, size_t) = {
        FoldRowsOf<Fold::kSum>,     FoldRowsOf<Fold::kSumSquare>, FoldRowsOf<Fold::kProduct>,
        FoldRowsOf<Fold::kMaximum>, FoldRowsOf<Fold::kMinimum>,   FoldRowsOf<Fold::kSumExp>};
    kLoops[static_cast<int>(fold)](in, out, rows, length);
}

void FoldRowsLiteral(Fold fold, const float* in, float* out, uint32_t rows, uint32_t length, uint32_t alignNum)
{
    constexpr void (*kLoops[])(const float*, float*, uint32_t, uint32_t, const volatile uint32_t*) = {
        FoldRowsLiteralOf<Fold::kSum>,     FoldRowsLiteralOf<Fold::kSumSquare>, FoldRowsLiteralOf<Fold::kProduct>,
        FoldRowsLiteralOf<Fold::kMaximum>, FoldRowsLiteralOf<Fold::kMinimum>,   FoldRowsLiteralOf<Fold::kSumExp>};
    const volatile uint32_t layout[] = {alignNum, length, length, 1};
    kLoops[static_cast<int>(fold)](in, out, rows, length, layout);
}

float Read(const float* in, size_t count)
{
    float sums[128] = {};
    for (size_t i = 0; i + 128 <= count; i += 128) {
        for (size_t lane = 0; lane < 128; ++lane) {
            sums[lane] += in[i + lane];
        }
    }
    float sum = 0.0f;
    for (const float part : sums) {
        sum += part;
    }
    return sum;
}

void Greater(const float* a, const float* b, float* out, size_t count)
{
    Map2(a, b, out, count, [](float x, float y) { return x > y ? 1.0f : 0.0f; });
}

void Equal(const float* a, const float* b, float* out, size_t count)
{
    Map2(a, b, out, count, [](float x, float y) { return NearZero(x - y) ? 1.0f : 0.0f; });
}

void And(const float* a, const float* b, float* out, size_t count)
{
    Map2(a, b, out, count, [](float x, float y) { return !NearZero(x) & !NearZero(y) ? 1.0f : 0.0f; });
}

void Xor(const float* a, const float* b, float* out, size_t count)
{
    Map2(a, b, out, count, [](float x, float y) { return NearZero(x) != NearZero(y) ? 1.0f : 0.0f; });
}

void WholeMod(const float* a, const float* b, float* out, size_t count)
{
    Map2(a, b, out, count, [](float x, float y) {
        const int32_t divisor = ToI32(y);
        if (divisor == 0) {
            return 0.0f;
        }
        const int32_t remainder = ToI32(x) % divisor;
        const float result = static_cast<float>(remainder);
        return remainder != 0 && (remainder ^ divisor) < 0 ? result + static_cast<float>(divisor) : result;
    });
}

void FloatMod(const float* a, const float* b, float* out, size_t count)
{
    Map2(a, b, out, count, [](float x, float y) {
        return NearZero(y) ? 0.0f : static_cast<float>(std::fmod(static_cast<double>(x), static_cast<double>(y)));
    });
}

// Operands that are not negative.
void ShiftLeft(const float* a, const float* b, float* out, size_t count)
{
    Map2(a, b, out, count, [](float x, float y) {
        return static_cast<float>(static_cast<uint64_t>(x) << (static_cast<uint64_t>(y) & 63));
    });
}

void Where(const float* condition, const float* x, const float* y, float* out, size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        out[i] = NearZero(condition[i]) ? y[i] : x[i];
    }
}

void InstanceNormalization(const float* x, const float* scale, const float* bias, float* y, size_t planes, size_t size)
{
    for (size_t p = 0; p < planes; ++p, x += size, y += size) {
        float sum = 0.0f;
        for (size_t i = 0; i < size; ++i) {
            sum += x[i];
        }
        const float mean = sum / static_cast<float>(size);
        sum = 0.0f;
        for (size_t i = 0; i < size; ++i) {
            const float distance = x[i] - mean;
            sum += distance * distance;
        }
        const float variance = sum / static_cast<float>(size) + 1.0f;
        const float a = static_cast<float>(1.0 / std::sqrt(static_cast<double>(variance))) * scale[p];
        const float shift = bias[p] - mean * a;
        for (size_t i = 0; i < size; ++i) {
            y[i] = x[i] * a + shift;
        }
    }
}

void LpNorm(const float* x, float* y, size_t outer, size_t length, size_t inner)
{
    for (size_t o = 0; o < outer; ++o) {
        for (size_t v = 0; v < inner; ++v) {
            const float* const from = x + o * length * inner + v;
            float* const to = y + o * length * inner + v;
            float norm = 0.0f;
            for (size_t j = 0; j < length; ++j) {
                const double n = std::abs(ToI32(from[j * inner]));
                norm = static_cast<float>(static_cast<double>(norm) + n * n);
            }
            norm = static_cast<float>(std::sqrt(static_cast<double>(norm)));
            for (size_t j = 0; j < length; ++j) {
                to[j * inner] = from[j * inner] / norm;
            }
        }
    }
}

void CumSum(const float* x, float* y, size_t outer, size_t length, size_t inner)
{
    for (size_t o = 0; o < outer; ++o) {
        for (size_t v = 0; v < inner; ++v) {
            const size_t first = o * length * inner + v;
            y[first] = x[first];
            for (size_t j = 1; j < length; ++j) {
                y[first + j * inner] = x[first + j * inner] + y[first + (j - 1) * inner];
            }
        }
    }
}

void Hardmax(const float* x, float* y, size_t lanes, size_t length)
{
    HardmaxColumns(x, y, lanes, length, 1);
}

void HardmaxColumns(const float* x, float* y, size_t outer, size_t length, size_t inner)
{
    std::memset(y, 0, outer * length * inner * sizeof(float));
    for (size_t o = 0; o < outer; ++o) {
        for (size_t v = 0; v < inner; ++v) {
            const size_t first = o * length * inner + v;
            size_t place = first;
            for (size_t j = 1; j < length; ++j) {
                place = x[first + j * inner] > x[place] ? first + j * inner : place;
            }
            y[place] = 1.0f;
        }
    }
}

void MaxUnpool(const float* x, const float* indices, float* y, size_t planes, size_t in, size_t out)
{
    std::memset(y, 0, planes * out * sizeof(float));
    for (size_t p = 0; p < planes; ++p) {
        for (size_t i = 0; i < in; ++i) {
            const uint32_t index = static_cast<uint32_t>(static_cast<int64_t>(indices[p * in + i]));
            if (index >= out) {
                return;
            }
            y[p * out + index] = x[p * in + i];
        }
    }
}

void NonZero(const float* x, float* y, size_t rows, size_t columns, size_t outCount)
{
    size_t count = 0;
    for (size_t i = 0; i < rows * columns; ++i) {
        count += NearZero(x[i]) ? 0 : 1;
    }
    std::memset(y + 2 * count, 0, (outCount - 2 * count) * sizeof(float));
    size_t found = 0;
    for (size_t r = 0; r < rows; ++r) {
        for (size_t c = 0; c < columns; ++c) {
            if (!NearZero(x[r * columns + c])) {
                y[found] = static_cast<float>(r);
                y[count + found] = static_cast<float>(c);
                ++found;
            }
        }
    }
}

void ScatterNd(const float* data, const float* indices, const float* updates, float* y, size_t rows, size_t columns,
               size_t tuples)
{
    std::memcpy(y, data, rows * columns * sizeof(float));
    for (size_t t = 0; t < tuples; ++t) {
        const float r = indices[2 * t] < 0.0f ? indices[2 * t] + static_cast<float>(rows) : indices[2 * t];
        const float c =
            indices[2 * t + 1] < 0.0f ? indices[2 * t + 1] + static_cast<float>(columns) : indices[2 * t + 1];
        if (r < 0.0f || c < 0.0f || r >= static_cast<float>(rows) || c >= static_cast<float>(columns)) {
            return;
        }
        y[static_cast<size_t>(static_cast<int32_t>(r)) * columns + static_cast<size_t>(static_cast<int32_t>(c))] =
            updates[t];
    }
}

void TransposeBlocks(const float* in, float* out, size_t rows, size_t columns)
{
    constexpr size_t kBlock = 16;
    for (size_t r = 0; r < rows; r += kBlock) {
        for (size_t c = 0; c < columns; c += kBlock) {
            const size_t rowEnd = r + kBlock < rows ? r + kBlock : rows;
            const size_t columnEnd = c + kBlock < columns ? c + kBlock : columns;
            for (size_t i = r; i < rowEnd; ++i) {
                for (size_t j = c; j < columnEnd; ++j) {
                    out[j * rows + i] = in[i * columns + j];
                }
            }
        }
    }
}

void DepthToSpace(const float* in, float* out, size_t channels, size_t height, size_t width)
{
    const size_t depth = channels / 4;
    for (size_t c = 0; c < depth; ++c) {
        for (size_t h = 0; h < 2 * height; ++h) {
            for (size_t w = 0; w < 2 * width; ++w) {
                const size_t source = ((h % 2) * 2 + w % 2) * depth + c;
                out[(c * 2 * height + h) * 2 * width + w] = in[(source * height + h / 2) * width + w / 2];
            }
        }
    }
}

void TopKQsort(const float* in, float* values, float* indices, size_t lanes, size_t length, size_t k)
{
    Entry* const entries = static_cast<Entry*>(std::malloc(length * sizeof(Entry)));
    for (size_t lane = 0; lane < lanes; ++lane) {
        for (size_t i = 0; i < length; ++i) {
            entries[i] = {in[lane * length + i], static_cast<int32_t>(i)};
        }
        std::qsort(entries, length, sizeof(Entry), Descending);
        for (size_t j = 0; j < k; ++j) {
            values[lane * k + j] = entries[j].value;
            indices[lane * k + j] = static_cast<float>(entries[j].index);
        }
    }
    std::free(entries);
}

// First-seen order.
size_t UniqueSearch(const float* in, float* values, float* firsts, float* inverse, float* counts, size_t count)
{
    size_t found = 0;
    for (size_t i = 0; i < count; ++i) {
        size_t j = 0;
        while (j < found && values[j] != in[i]) {
            ++j;
        }
        if (j == found) {
            values[found] = in[i];
            firsts[found] = static_cast<float>(i);
            counts[found++] = 0.0f;
        }
        counts[j] += 1.0f;
        inverse[i] = static_cast<float>(j);
    }
    return found;
}

}  // namespace opkit::bench::plain
