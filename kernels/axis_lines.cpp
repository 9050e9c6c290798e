// Loops along the lines of an axis; see kernels/level.h for the levels.

#include "kernels/axis_lines.h"

#include "common/float_compare.h"
#include "common/smaller.h"
#include "kernels/contract.h"
#include "kernels/folds.h"

namespace opkit::OPKIT_LEVEL {
namespace {

// One line per lane of the vector: squares are turned, summed and turned back.
void SumLinesSideBySide(const float* in, float* out, size_t length, bool reverse)
{
    const float* from[kLanes];
    for (size_t lane = 0; lane < kLanes; ++lane) {
        from[lane] = in + lane * length;
    }
    const size_t whole = length / kLanes * kLanes;
    const size_t rest = length - whole;
    Vec sum = {};
    bool first = true;
    const auto add = [&](Vec elements) {
        sum = first ? elements : elements + sum;
        first = false;
        return sum;
    };
    const auto sumSquare = [&](size_t column) {
        Vec square[kLanes];
        LoadTurned(from, column, square);
        for (size_t i = 0; i < kLanes; ++i) {
            const size_t place = reverse ? kLanes - 1 - i : i;
            square[place] = add(square[place]);
        }
        TransposeSquare(square);
        for (size_t lane = 0; lane < kLanes; ++lane) {
            Store(out + lane * length + column, square[lane]);
        }
    };
    const auto sumRest = [&] {
        for (size_t i = 0; i < rest; ++i) {
            const size_t column = whole + (reverse ? rest - 1 - i : i);
            Vec elements;
            for (size_t lane = 0; lane < kLanes; ++lane) {
                elements[lane] = from[lane][column];
            }
            const Vec sums = add(elements);
            for (size_t lane = 0; lane < kLanes; ++lane) {
                out[lane * length + column] = sums[lane];
            }
        }
    };
    if (reverse) {
        sumRest();
        for (size_t column = whole; column > 0; column -= kLanes) {
            sumSquare(column - kLanes);
        }
    } else {
        for (size_t column = 0; column < whole; column += kLanes) {
            sumSquare(column);
        }
        sumRest();
    }
}

void SumLine(const float* in, float* out, size_t length, bool reverse)
{
    size_t place = reverse ? length - 1 : 0;
    float sum = in[place];
    out[place] = sum;
    for (size_t j = 1; j < length; ++j) {
        place += reverse ? static_cast<size_t>(-1) : 1;
        sum = in[place] + sum;
        out[place] = sum;
    }
}

void RunningSums(const float* in, float* out, size_t count, size_t length, bool reverse)
{
    assert(length >= 1 && Present(in, count) && Present(out, count));
    assert(out == in || Apart(in, count * length, out, count * length));
    size_t line = 0;
    for (; line + kLanes <= count; line += kLanes) {
        SumLinesSideBySide(in + line * length, out + line * length, length, reverse);
    }
    for (; line < count; ++line) {
        SumLine(in + line * length, out + line * length, length, reverse);
    }
}

// The largest value first, then its first place: a value that is not above any other is the same wherever it stands.
size_t FirstLargest(const float* x, size_t count)
{
    assert(Present(x, count));
    constexpr size_t kVectors = 4;
    if (count == 0) {
        return 0;
    }
    Vec largest[kVectors];
    for (Vec& candidate : largest) {
        candidate = Vec{} + x[0];
    }
    size_t j = 0;
    for (; j + kVectors * kLanes <= count; j += kVectors * kLanes) {
        for (size_t v = 0; v < kVectors; ++v) {
            const Vec elements = Load(x + j + v * kLanes);
            largest[v] = Larger(elements, largest[v]);
        }
    }
    for (size_t v = 1; v < kVectors; ++v) {
        largest[0] = Larger(largest[v], largest[0]);
    }
    float best = x[0];
    for (size_t lane = 0; lane < kLanes; ++lane) {
        best = Larger(largest[0][lane], best);
    }
    for (; j < count; ++j) {
        best = Larger(x[j], best);
    }
    for (j = 0; j + kLanes <= count; j += kLanes) {
        const uint32_t equal = LaneBits(Load(x + j) == best);
        if (equal != 0) {
            return j + static_cast<size_t>(__builtin_ctz(equal));
        }
    }
    for (; j < count; ++j) {
        if (x[j] == best) {
            return j;
        }
    }
    return 0;  // a NaN came first
}

void FirstLargestOfColumns(const float* x, uint32_t* places, size_t count, size_t length, size_t rowStride)
{
    assert(length >= 1 && Present(x, count) && Present(places, count));
    constexpr size_t kVectors = 4;
    size_t column = 0;
    for (; column + kVectors * kLanes <= count; column += kVectors * kLanes) {
        Vec largest[kVectors];
        VecInt place[kVectors] = {};
        for (size_t v = 0; v < kVectors; ++v) {
            largest[v] = Load(x + column + v * kLanes);
        }
        for (size_t j = 1; j < length; ++j) {
            const float* const row = x + j * rowStride + column;
            const VecInt here = VecInt{} + static_cast<int32_t>(j);
            for (size_t v = 0; v < kVectors; ++v) {
                const Vec elements = Load(row + v * kLanes);
                const auto above = elements > largest[v];
                largest[v] = above ? elements : largest[v];
                place[v] = above ? here : place[v];
            }
        }
        for (size_t v = 0; v < kVectors; ++v) {
            StoreWords(places + column + v * kLanes, (VecWord)place[v]);
        }
    }
    for (; column < count; ++column) {
        size_t place = 0;
        for (size_t j = 1; j < length; ++j) {
            place = x[j * rowStride + column] > x[place * rowStride + column] ? j : place;
        }
        places[column] = static_cast<uint32_t>(place);
    }
}

uint32_t CountNonZero(const float* x, uint32_t count)
{
    assert(Present(x, count));
    uint32_t zeros = 0;
    for (uint32_t i = 0; i < count; ++i) {
        zeros += NearZero(x[i]) ? 1 : 0;
    }
    return count - zeros;
}

uint32_t PackNonZeroPlaces(const float* x, uint32_t count, float* out, uint32_t limit)
{
    assert(Present(x, count) && Present(out, limit));
    uint32_t found = 0;
    VecWord places = FirstWords();
    for (uint32_t i = 0; i < count && found < limit; i += kLanes) {
        const Vec elements = LoadTail(x + i, Smaller<size_t>(count - i, kLanes));  // zeros behind the last one
        const uint32_t large = LaneBitsNotAtMost(Magnitude(elements), Vec{} + kZeroTolerance);
        found += StorePacked(out + found, __builtin_convertvector(places, Vec), large);
        places += static_cast<uint32_t>(kLanes);
    }
    return found;
}

// What is written for an element near zero is overwritten by the next place.
uint32_t WriteNonZeroPlaces(const float* x, uint32_t count, float* out, uint32_t limit)
{
    assert(Present(x, count) && Present(out, limit));
    uint32_t found = 0;
    for (uint32_t i = 0; i < count && found < limit; ++i) {
        out[found] = static_cast<float>(i);
        found += NearZero(x[i]) ? 0 : 1;
    }
    return found;
}

}  // namespace

extern const AxisLineKernels kAxisLineKernels = {
    RunningSums, FirstLargest, FirstLargestOfColumns, CountNonZero, kPacks ? PackNonZeroPlaces : WriteNonZeroPlaces,
};

}  // namespace opkit::OPKIT_LEVEL
