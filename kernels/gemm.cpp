// Register-tiled matrix product. Why the bits are those of the plain loops: every C element owns one accumulator lane,
// takes its terms for k ascending, and each term is a rounded product added with a rounded sum. A lane that is stored
// and loaded again between two blocks of k is an f32 either way. Columns beyond the matrix are computed on zeros in a
// panel of their own and thrown away.
//
// One operand is spread over the lanes (the "panel": rows of columns side by side), the other is broadcast element by
// element. Usually B is the panel; a product with few columns swaps the two, since a * b = b * a.

#include "kernels/gemm.h"

#include <string.h>

#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

#if defined(OPKIT_LEVEL_avx512)
constexpr size_t kTileVectors = 4;
constexpr size_t kDepth = 192;
#else
constexpr size_t kTileVectors = 2;
constexpr size_t kDepth = 256;
#endif
constexpr size_t kDirectDepth = 512;  // of k at a time when no panel is copied
constexpr size_t kTileRows = 6;
constexpr size_t kTileColumns = kTileVectors * kLanes;
constexpr size_t kSumRows = 96;  // rows whose sums are kept apart at a time

struct Panel {
    const float* data;  // [depth, step]
    size_t step;
};

// Adds `depth` terms to kRows x kVectors vectors of c. a: rows aRow apart, terms aStep apart.
template <size_t kRows, size_t kVectors>
void Tile(size_t depth, const float* a, size_t aRow, size_t aStep, Panel b, float* c, size_t cRow)
{
    Vec sum[kRows][kVectors];
#pragma GCC unroll 8
    for (size_t i = 0; i < kRows; ++i) {
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            sum[i][v] = Load(c + i * cRow + v * kLanes);
        }
    }
    const float* row = b.data;
    for (size_t k = 0; k < depth; ++k) {
        Vec column[kVectors];
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            column[v] = Load(row + v * kLanes);
        }
#pragma GCC unroll 8
        for (size_t i = 0; i < kRows; ++i) {
            const Vec factor = Broadcast(a + i * aRow + k * aStep);
#pragma GCC unroll 4
            for (size_t v = 0; v < kVectors; ++v) {
                sum[i][v] = factor * column[v] + sum[i][v];
            }
        }
        row += b.step;
    }
#pragma GCC unroll 8
    for (size_t i = 0; i < kRows; ++i) {
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            Store(c + i * cRow + v * kLanes, sum[i][v]);
        }
    }
}

using TileFunction = void (*)(size_t, const float*, size_t, size_t, Panel, float*, size_t);

template <size_t kVectors>
constexpr TileFunction kTiles[kTileRows + 1] = {
    nullptr,           Tile<1, kVectors>, Tile<2, kVectors>, Tile<3, kVectors>,
    Tile<4, kVectors>, Tile<5, kVectors>, Tile<6, kVectors>,
};

// The kernel of so many rows and vectors, both at least 1.
template <size_t kVectors = kTileVectors>
TileFunction TileFor(size_t rows, size_t vectors)
{
    if constexpr (kVectors > 1) {
        if (vectors < kVectors) {
            return TileFor<kVectors - 1>(rows, vectors);
        }
    }
    return kTiles<kVectors>[rows];
}

// The product seen from the tiles: `rows` broadcast, `columns` across the lanes.
struct Product {
    MatrixView rows;     // element (i, k)
    MatrixView columns;  // element (k, j)
    size_t rowCount;
    size_t columnCount;
    size_t depth;
    float rowFactor;     // multiplies the elements of `rows` first
    float columnFactor;  // or those of `columns`: alpha belongs to A, wherever A stands
    float* c;
    size_t cRow;
    size_t cColumn;
};

// Copies a tile's share of the broadcast operand term by term, scaled: what stands far apart is read once.
void PackRows(const float* from, size_t rowStep, size_t step, size_t rows, size_t depth, float factor, float* to)
{
    for (size_t k = 0; k < depth; ++k) {
        for (size_t r = 0; r < rows; ++r) {
            to[k * rows + r] = from[r * rowStep + k * step] * factor;
        }
    }
}

// Columns of a matrix whose consecutive k lie together: squares are transposed in registers.
void PackTransposed(const float* from, size_t columnStep, size_t depth, size_t columns, float* to, size_t toStep)
{
    size_t j = 0;
    for (; j + kLanes <= columns; j += kLanes) {
        size_t k = 0;
        for (; k + kLanes <= depth; k += kLanes) {
            Vec square[kLanes];
#pragma GCC unroll 16
            for (size_t i = 0; i < kLanes; ++i) {
                square[i] = Load(from + (j + i) * columnStep + k);
            }
            TransposeSquare(square);
#pragma GCC unroll 16
            for (size_t i = 0; i < kLanes; ++i) {
                Store(to + (k + i) * toStep + j, square[i]);
            }
        }
        for (; k < depth; ++k) {
            for (size_t i = 0; i < kLanes; ++i) {
                to[k * toStep + j + i] = from[(j + i) * columnStep + k];
            }
        }
    }
    for (; j < columns; ++j) {
        for (size_t k = 0; k < depth; ++k) {
            to[k * toStep + j] = from[j * columnStep + k];
        }
    }
}

// Copies depth x columns of the panel operand to `to`, rows of whole vectors, zeros behind the last column.
Panel Pack(const Product& p, size_t k0, size_t depth, size_t j0, size_t columns, float* to)
{
    const size_t step = (columns + kLanes - 1) / kLanes * kLanes;
    const float* from = p.columns.data + k0 * p.columns.rowStep + j0 * p.columns.columnStep;
    if (p.columns.rowStep == 1 && p.columns.columnStep != 1) {
        PackTransposed(from, p.columns.columnStep, depth, columns, to, step);
    } else {
        for (size_t k = 0; k < depth; ++k) {
            for (size_t j = 0; j < columns; ++j) {
                to[k * step + j] = from[k * p.columns.rowStep + j * p.columns.columnStep];
            }
        }
    }
    if (p.columnFactor != 1.0f) {
        for (size_t k = 0; k < depth; ++k) {
            for (size_t j = 0; j < columns; ++j) {
                to[k * step + j] *= p.columnFactor;
            }
        }
    }
    for (size_t k = 0; k < depth && columns < step; ++k) {
        memset(to + k * step + columns, 0, (step - columns) * sizeof(float));
    }
    return {to, step};
}

// Whether a panel is read often enough, or from rows that collide in the cache, for a copy to pay.
bool WorthPacking(const Product& p)
{
    const size_t pitch = p.columns.rowStep;
    return p.rowCount >= 4 * kTileRows && (p.columnCount >= 512 || (pitch >= 128 && (pitch & (pitch - 1)) == 0));
}

// Runs the tiles of one panel over rows [first, last). `sums` is where row `first` accumulates, with its own row step;
// columns of it are dense.
void RunPanel(const Product& p, size_t k0, size_t depth, Panel panel, size_t columns, size_t first, size_t last,
              float* sums, size_t sumRow)
{
    const size_t vectors = (columns + kLanes - 1) / kLanes;
    float scaled[kTileRows * kDirectDepth];
    for (size_t i = first; i < last; i += kTileRows) {
        const size_t rows = last - i < kTileRows ? last - i : kTileRows;
        const float* a = p.rows.data + i * p.rows.rowStep + k0 * p.rows.columnStep;
        size_t aRow = p.rows.rowStep;
        size_t aStep = p.rows.columnStep;
        if (p.rowFactor != 1.0f || aStep != 1) {
            PackRows(a, aRow, aStep, rows, depth, p.rowFactor, scaled);
            a = scaled;
            aRow = 1;
            aStep = rows;
        }
        TileFor(rows, vectors)(depth, a, aRow, aStep, panel, sums + (i - first) * sumRow, sumRow);
    }
}

bool ReadsDirectly(bool direct, size_t columns)
{
    return direct && columns % kLanes == 0;
}

// How many terms of k a panel of these columns takes, from k0 on.
size_t DepthFrom(const Product& p, bool direct, size_t k0, size_t columns)
{
    const size_t limit = ReadsDirectly(direct, columns) ? kDirectDepth : kDepth;
    return p.depth - k0 < limit ? p.depth - k0 : limit;
}

Panel PanelFor(const Product& p, bool direct, size_t k0, size_t depth, size_t j0, size_t columns, float* room)
{
    if (ReadsDirectly(direct, columns)) {
        return {p.columns.data + k0 * p.columns.rowStep + j0, p.columns.rowStep};
    }
    return Pack(p, k0, depth, j0, columns, room);
}

// Sums in a block of their own: they start from 0.0 or from C, and go to C as a sum or in its place.
template <bool kApart>
void RunBlocked(const Product& p, bool direct)
{
    alignas(64) float room[kDepth * kTileColumns];
    alignas(64) float sums[kSumRows * kTileColumns];
    for (size_t j = 0; j < p.columnCount; j += kTileColumns) {
        const size_t columns = p.columnCount - j < kTileColumns ? p.columnCount - j : kTileColumns;
        for (size_t i = 0; i < p.rowCount; i += kSumRows) {
            const size_t last = p.rowCount - i < kSumRows ? p.rowCount : i + kSumRows;
            memset(sums, 0, (last - i) * kTileColumns * sizeof(float));
            if (!kApart) {
                for (size_t r = i; r < last; ++r) {
                    for (size_t q = 0; q < columns; ++q) {
                        sums[(r - i) * kTileColumns + q] = p.c[r * p.cRow + (j + q) * p.cColumn];
                    }
                }
            }
            for (size_t k = 0, depth = 0; k < p.depth; k += depth) {
                depth = DepthFrom(p, direct, k, columns);
                const Panel panel = PanelFor(p, direct, k, depth, j, columns, room);
                RunPanel(p, k, depth, panel, columns, i, last, sums, kTileColumns);
            }
            for (size_t r = i; r < last; ++r) {
                for (size_t q = 0; q < columns; ++q) {
                    float& c = p.c[r * p.cRow + (j + q) * p.cColumn];
                    const float sum = sums[(r - i) * kTileColumns + q];
                    c = kApart ? sum + c : sum;
                }
            }
        }
    }
}

// Sums that live in C itself; the last columns, less than a vector, go through a block.
void RunInPlace(const Product& p, bool direct)
{
    alignas(64) float room[kDepth * kTileColumns];
    const size_t whole = p.columnCount / kLanes * kLanes;
    for (size_t j = 0; j < whole; j += kTileColumns) {
        const size_t columns = whole - j < kTileColumns ? whole - j : kTileColumns;
        for (size_t k = 0, depth = 0; k < p.depth; k += depth) {
            depth = DepthFrom(p, direct, k, columns);
            const Panel panel = PanelFor(p, direct, k, depth, j, columns, room);
            RunPanel(p, k, depth, panel, columns, 0, p.rowCount, p.c + j, p.cRow);
        }
    }
    if (whole < p.columnCount) {
        Product rest = p;
        rest.columns.data += whole * p.columns.columnStep;
        rest.columnCount -= whole;
        rest.c += whole;
        RunBlocked<false>(rest, false);
    }
}

Product Describe(size_t M, size_t N, size_t K, float alpha, MatrixView a, MatrixView b, float* c)
{
    const bool fewColumns = N < kLanes && M > N;
    if (fewColumns) {
        return {{b.data, b.columnStep, b.rowStep}, {a.data, a.columnStep, a.rowStep}, N, M, K, 1.0f, alpha, c, 1, N};
    }
    return {a, b, M, N, K, alpha, 1.0f, c, N, 1};
}

bool MayReadDirectly(const Product& p)
{
    return p.columns.columnStep == 1 && p.columnFactor == 1.0f && !WorthPacking(p);
}

void Accumulate(size_t M, size_t N, size_t K, float alpha, MatrixView a, MatrixView b, float* c)
{
    const Product p = Describe(M, N, K, alpha, a, b, c);
    if (p.cColumn == 1) {
        RunInPlace(p, MayReadDirectly(p));
    } else {
        RunBlocked<false>(p, MayReadDirectly(p));
    }
}

void AddSums(size_t M, size_t N, size_t K, float alpha, MatrixView a, MatrixView b, float* c)
{
    const Product p = Describe(M, N, K, alpha, a, b, c);
    RunBlocked<true>(p, MayReadDirectly(p));
}

}  // namespace

extern const GemmKernels gemmKernels = {Accumulate, AddSums};

}  // namespace opkit::OPKIT_LEVEL
