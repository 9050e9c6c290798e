// Matrix product by tiles of C, each held in registers while it takes its terms. The bits are those of the plain loops:
// every element of C is one lane of one vector, takes its terms for k ascending, and rounds each product and each sum.
// Storing it between two blocks of terms and loading it again changes nothing, as it is an f32 all the time. Lanes
// beyond the last column work on zeros and are not stored.
//
// In a tile, a vector holds neighbouring columns of one operand (the "panel") and is multiplied by one element of the
// other, which is broadcast. B is the panel; a product with few columns computes the transposed C with A as the panel
// instead, since a * b = b * a.
//
// Compiled once more with OPKIT_FUSED, for products that are known to be exact: then one fused step has the bits of
// two.

#include "kernels/gemm.h"

#include <immintrin.h>
#include <string.h>

#include "common/smaller.h"
#include "kernels/contract.h"
#include "kernels/tile_columns.h"
#include "kernels/vector.h"

namespace opkit::OPKIT_LEVEL {
namespace {

constexpr size_t kDepth = 512 / kTileVectors;
constexpr size_t kBlockRows = 96;     // copied at a time, or their sums kept apart
constexpr size_t kManyRows = 24;      // read a panel often enough for a copy of it to pay
constexpr size_t kLine = 16;          // floats in a cache line
constexpr size_t kAhead = 2 * kLine;  // how far ahead columns are fetched that are read along their own memory

inline Vec MultiplyAdd(Vec a, Vec b, Vec c)
{
#if defined(OPKIT_FUSED) && defined(OPKIT_LEVEL_avx512)
    return (Vec)_mm512_fmadd_ps((__m512)a, (__m512)b, (__m512)c);
#elif defined(OPKIT_FUSED)
    return (Vec)_mm256_fmadd_ps((__m256)a, (__m256)b, (__m256)c);
#else
    return a * b + c;
#endif
}

struct Panel {
    const float* data;  // [depth, step]
    size_t step;
    size_t tail;  // lanes in use in the last vector, where not all are
};

// Adds `depth` terms to kRows x kVectors vectors of c, of the last of which only a tail may be in use. a: rows aRow
// apart, terms aStep apart.
template <size_t kRows, size_t kVectors, bool kTail>
void Tile(size_t depth, const float* a, size_t aRow, size_t aStep, Panel b, float* c, size_t cRow)
{
    Vec sum[kRows][kVectors];
#pragma GCC unroll 8
    for (size_t i = 0; i < kRows; ++i) {
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            const float* const from = c + i * cRow + v * kLanes;
            sum[i][v] = kTail && v + 1 == kVectors ? LoadTail(from, b.tail) : Load(from);
        }
    }
    const float* row = b.data;
    for (size_t k = 0; k < depth; ++k) {
        Vec column[kVectors];
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            const float* const from = row + v * kLanes;
            column[v] = kTail && v + 1 == kVectors ? LoadTail(from, b.tail) : Load(from);
        }
#pragma GCC unroll 8
        for (size_t i = 0; i < kRows; ++i) {
            const Vec factor = Broadcast(a + i * aRow + k * aStep);
#pragma GCC unroll 4
            for (size_t v = 0; v < kVectors; ++v) {
                sum[i][v] = MultiplyAdd(factor, column[v], sum[i][v]);
            }
        }
        row += b.step;
    }
#pragma GCC unroll 8
    for (size_t i = 0; i < kRows; ++i) {
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            float* const to = c + i * cRow + v * kLanes;
            if (kTail && v + 1 == kVectors) {
                StoreTail(to, sum[i][v], b.tail);
            } else {
                Store(to, sum[i][v]);
            }
        }
    }
}

using TileFunction = void (*)(size_t, const float*, size_t, size_t, Panel, float*, size_t);

template <size_t kVectors, bool kTail>
constexpr TileFunction kTiles[kTileRows + 1] = {
    nullptr,
    Tile<1, kVectors, kTail>,
    Tile<2, kVectors, kTail>,
    Tile<3, kVectors, kTail>,
    Tile<4, kVectors, kTail>,
    Tile<5, kVectors, kTail>,
    Tile<6, kVectors, kTail>,
};

// The kernel of so many rows and vectors, both at least 1.
template <size_t kVectors = kTileVectors>
TileFunction TileFor(size_t rows, size_t vectors, bool tail)
{
    if constexpr (kVectors > 1) {
        if (vectors < kVectors) {
            return TileFor<kVectors - 1>(rows, vectors, tail);
        }
    }
    return tail ? kTiles<kVectors, true>[rows] : kTiles<kVectors, false>[rows];
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
    const PanelSource* source = nullptr;  // in place of `columns`
};

// Rows of the broadcast operand, in strips of kTileRows.
struct RowBlock {
    const float* data;
    size_t row;
    size_t step;  // from term to term
    size_t strip;
};

// A strip of six rows whose terms lie together, four terms at a time.
void PackStrip(const float* from, size_t row, size_t depth, float factor, float* to)
{
    size_t k = 0;
    for (; k + 4 <= depth; k += 4, to += 4 * kTileRows) {
        __m128 four[4];
        __m128 two[2];
        for (size_t r = 0; r < 4; ++r) {
            four[r] = _mm_mul_ps(_mm_loadu_ps(from + r * row + k), _mm_set1_ps(factor));
        }
        for (size_t r = 0; r < 2; ++r) {
            two[r] = _mm_mul_ps(_mm_loadu_ps(from + (4 + r) * row + k), _mm_set1_ps(factor));
        }
        _MM_TRANSPOSE4_PS(four[0], four[1], four[2], four[3]);
        const __m128 low = _mm_unpacklo_ps(two[0], two[1]);
        const __m128 high = _mm_unpackhi_ps(two[0], two[1]);
        for (size_t i = 0; i < 4; ++i) {
            _mm_storeu_ps(to + i * kTileRows, four[i]);
        }
        _mm_storel_pi(reinterpret_cast<__m64*>(to + 4), low);
        _mm_storeh_pi(reinterpret_cast<__m64*>(to + kTileRows + 4), low);
        _mm_storel_pi(reinterpret_cast<__m64*>(to + 2 * kTileRows + 4), high);
        _mm_storeh_pi(reinterpret_cast<__m64*>(to + 3 * kTileRows + 4), high);
    }
    for (; k < depth; ++k, to += kTileRows) {
        for (size_t r = 0; r < kTileRows; ++r) {
            to[r] = from[r * row + k] * factor;
        }
    }
}

// A strip of six rows that lie side by side in each term.
void PackTransposedStrip(const float* from, size_t step, size_t depth, float factor, float* to)
{
    const __m128 factors = _mm_set1_ps(factor);
    for (size_t k = 0; k < depth; ++k, from += step, to += kTileRows) {
        const __m128 four = _mm_mul_ps(_mm_loadu_ps(from), factors);
        const __m128 two =
            _mm_mul_ps(_mm_loadl_pi(_mm_setzero_ps(), reinterpret_cast<const __m64*>(from + 4)), factors);
        _mm_storeu_ps(to, four);
        _mm_storel_pi(reinterpret_cast<__m64*>(to + 4), two);
    }
}

// Whether the rows cannot be used as they stand: they are scaled, or their terms lie apart.
bool MustCopyRows(const Product& p)
{
    return p.rowFactor != 1.0f || p.rows.columnStep != 1;
}

// Whether a copy of the rows pays in any case: they are many, or often read.
bool WorthCopyingRows(const Product& p)
{
    return p.rowCount >= kTileRows &&
           (p.columnCount >= 512 || (p.columnCount > kTileColumns && p.rowCount * p.depth > (1 << 17)));
}

// Prefetches what will soon be read or written.
void FetchRows(const float* from, size_t step, size_t rows, size_t columns)
{
    for (size_t r = 0; r < rows; ++r) {
        for (size_t j = 0; j < columns; j += kLine) {
            __builtin_prefetch(from + r * step + j);
        }
    }
}

// Rows [first, first + rows), terms [k0, k0 + depth): a scaled copy in `room`, strip by strip and term by term, or the
// rows as they stand.
RowBlock BlockOf(const Product& p, bool copied, size_t first, size_t rows, size_t k0, size_t depth, float* room)
{
    const float* const from = p.rows.data + first * p.rows.rowStep + k0 * p.rows.columnStep;
    if (!copied) {
        return {from, p.rows.rowStep, p.rows.columnStep, kTileRows * p.rows.rowStep};
    }
    for (size_t i = 0; i < rows; i += kTileRows) {
        const float* const strip = from + i * p.rows.rowStep;
        float* const to = room + i * depth;
        const size_t count = Smaller(rows - i, kTileRows);
        if (p.rows.columnStep == 1 && rows - i >= 2 * kTileRows) {
            FetchRows(strip + kTileRows * p.rows.rowStep, p.rows.rowStep, kTileRows, depth);
        }
        if (count == kTileRows && p.rows.rowStep == 1) {
            PackTransposedStrip(strip, p.rows.columnStep, depth, p.rowFactor, to);
        } else if (count == kTileRows && p.rows.columnStep == 1) {
            PackStrip(strip, p.rows.rowStep, depth, p.rowFactor, to);
        } else {
            for (size_t r = 0; r < count; ++r) {
                for (size_t k = 0; k < depth; ++k) {
                    to[k * kTileRows + r] = strip[r * p.rows.rowStep + k * p.rows.columnStep] * p.rowFactor;
                }
            }
        }
    }
    return {room, 1, kTileRows, kTileRows * depth};
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
    for (size_t k = 0; k < depth && columns < step; ++k) {
        Store(to + k * step + step - kLanes, Vec{});
    }
    if (p.source != nullptr) {
        p.source->fill(p.source->context, k0, depth, j0, columns, to, step);
    } else if (p.columns.rowStep == 1 && p.columns.columnStep != 1) {
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
    return {to, step, 0};
}

// The panel operand where it stands.
Panel Where(const Product& p, size_t k0, size_t j0)
{
    return {p.columns.data + k0 * p.columns.rowStep + j0, p.columns.rowStep, 0};
}

// The same if it stands in rows and is not at its end, for fetching.
Panel NextFrom(const Product& p, size_t k, size_t j)
{
    return p.columns.columnStep == 1 && k < p.depth && j < p.columnCount ? Where(p, k, j) : Panel{nullptr, 0, 0};
}

// Whether a panel is read often enough, or from rows that collide in the cache, for a copy to pay.
bool WorthPacking(const Product& p)
{
    const size_t pitch = p.columns.rowStep;
    return p.rowCount >= kManyRows && (p.columnCount >= 512 || (pitch >= 128 && (pitch & (pitch - 1)) == 0));
}

// Runs the tiles of one panel over `rows` rows. `sums` is where the first of them accumulates, with its own row step;
// columns of it are dense. Meanwhile as many columns of the next panel are fetched, a share of its rows by each strip.
void RunPanel(const RowBlock& a, size_t rows, size_t depth, const Panel& panel, size_t columns, float* sums,
              size_t sumRow, const Panel& next)
{
    const size_t vectors = (columns + kLanes - 1) / kLanes;
    const size_t share = (depth * kTileRows + rows - 1) / rows;
    for (size_t i = 0, k = 0; i < rows; i += kTileRows, k += share) {
        float* const c = sums + i * sumRow;
        if (i + 2 * kTileRows <= rows) {
            FetchRows(c + kTileRows * sumRow, sumRow, kTileRows, columns);
        }
        if (next.data != nullptr && k < depth) {
            FetchRows(next.data + k * next.step, next.step, Smaller(share, depth - k), columns);
        }
        const TileFunction tile = TileFor(Smaller(rows - i, kTileRows), vectors, panel.tail != 0);
        tile(depth, a.data + i / kTileRows * a.strip, a.row, a.step, panel, c, sumRow);
    }
}

// Sums in a block beside C. Apart, they start from 0.0 and are added to C at the end; else they start from C and
// replace it, where C's columns do not lie side by side.
template <bool kApart>
void RunBlocked(const Product& p, bool direct)
{
    alignas(64) float panelRoom[kDepth * kTileColumns];
    alignas(64) float rowRoom[kDepth * kBlockRows];
    alignas(64) float sums[kBlockRows * kTileColumns];
    const bool copied = MustCopyRows(p);
    for (size_t j = 0; j < p.columnCount; j += kTileColumns) {
        const size_t columns = Smaller(p.columnCount - j, kTileColumns);
        for (size_t i = 0; i < p.rowCount; i += kBlockRows) {
            const size_t rows = Smaller(p.rowCount - i, kBlockRows);
            memset(sums, 0, rows * kTileColumns * sizeof(float));
            if (!kApart) {
                for (size_t r = 0; r < rows; ++r) {
                    for (size_t q = 0; q < columns; ++q) {
                        sums[r * kTileColumns + q] = p.c[(i + r) * p.cRow + (j + q) * p.cColumn];
                    }
                }
            }
            for (size_t k = 0, depth = 0; k < p.depth; k += depth) {
                depth = Smaller(p.depth - k, kDepth);
                const Panel panel =
                    direct && columns % kLanes == 0 ? Where(p, k, j) : Pack(p, k, depth, j, columns, panelRoom);
                const RowBlock a = BlockOf(p, copied, i, rows, k, depth, rowRoom);
                RunPanel(a, rows, depth, panel, columns, sums, kTileColumns, {});
            }
            for (size_t r = 0; r < rows; ++r) {
                for (size_t q = 0; q < columns; ++q) {
                    float& c = p.c[(i + r) * p.cRow + (j + q) * p.cColumn];
                    const float sum = sums[r * kTileColumns + q];
                    c = kApart ? sum + c : sum;
                }
            }
        }
    }
}

// Sums in C itself. All of C takes one block of terms before the next block, so that packed rows stay in the cache.
void RunInPlace(const Product& p, bool direct)
{
    alignas(64) float panelRoom[kDepth * kTileColumns];
    alignas(64) float rowRoom[kDepth * kBlockRows];
    const bool copied = MustCopyRows(p) || WorthCopyingRows(p);
    const size_t block = copied ? kBlockRows : p.rowCount;
    for (size_t k = 0, depth = 0; k < p.depth; k += depth) {
        depth = Smaller(p.depth - k, kDepth);
        for (size_t i = 0, rows = 0; i < p.rowCount; i += rows) {
            rows = Smaller(p.rowCount - i, block);
            const RowBlock a = BlockOf(p, copied, i, rows, k, depth, rowRoom);
            for (size_t j = 0, columns = 0; j < p.columnCount; j += columns) {
                columns = EvenColumns(j, p.columnCount);
                Panel panel = direct ? Where(p, k, j) : Pack(p, k, depth, j, columns, panelRoom);
                panel.tail = columns % kLanes;
                const Panel next = direct ? NextFrom(p, k + depth, j) : NextFrom(p, k, j + columns);
                RunPanel(a, rows, depth, panel, columns, p.c + i * p.cRow + j, p.cRow, next);
            }
        }
    }
}

// Few rows: a tile's columns take all of their terms before the next, so that columns whose terms lie together are read
// along their own memory.
void RunByColumns(const Product& p, bool direct)
{
    Product part = p;
    for (size_t j = 0; j < p.columnCount; j += kTileColumns) {
        part.columns.data = p.columns.data + j * p.columns.columnStep;
        part.columnCount = Smaller(p.columnCount - j, kTileColumns);
        part.c = p.c + j;
        RunInPlace(part, direct);
    }
}

// A single row times columns whose terms lie together: squares of columns are transposed in registers, and each is read
// along its own memory. Leaves columns to do that do not fill a vector.
template <bool kApart>
void RunOneRow(Product& p)
{
    size_t j = 0;
    for (; j + kLanes <= p.columnCount; j += kLanes) {
        const float* const from = p.columns.data + j * p.columns.columnStep;
        const float* row = p.rows.data;
        Vec sum = kApart ? Vec{} : Load(p.c + j);
        size_t k = 0;
        for (; k + kLanes <= p.depth; k += kLanes) {
            Vec square[kLanes];
#pragma GCC unroll 16
            for (size_t i = 0; i < kLanes; ++i) {
                const float* const column = from + i * p.columns.columnStep + k;
                square[i] = Load(column);
                __builtin_prefetch(column + kAhead);
            }
            TransposeSquare(square);
#pragma GCC unroll 16
            for (size_t i = 0; i < kLanes; ++i, row += p.rows.columnStep) {
                sum = MultiplyAdd(Broadcast(row), square[i], sum);
            }
        }
        for (; k < p.depth; ++k, row += p.rows.columnStep) {
            Vec column = {};
            for (size_t i = 0; i < kLanes; ++i) {
                column[i] = from[i * p.columns.columnStep + k];
            }
            sum = MultiplyAdd(Broadcast(row), column, sum);
        }
        Store(p.c + j, kApart ? sum + Load(p.c + j) : sum);
    }
    p.columns.data += j * p.columns.columnStep;
    p.columnCount -= j;
    p.c += j;
}

Product Describe(size_t M, size_t N, size_t K, float alpha, MatrixView a, MatrixView b, float* c)
{
    const bool fewColumns = N < kLanes && M > N;
    if (fewColumns) {
        return {{b.data, b.columnStep, b.rowStep}, {a.data, a.columnStep, a.rowStep}, N, M, K, 1.0f, alpha, c, 1, N};
    }
    return {a, b, M, N, K, alpha, 1.0f, c, N, 1};
}

bool IsOneRow(const Product& p)
{
    return p.rowCount == 1 && p.columns.rowStep == 1 && p.rowFactor == 1.0f && p.columnFactor == 1.0f;
}

bool MayReadDirectly(const Product& p)
{
    return p.columns.columnStep == 1 && p.columnFactor == 1.0f && !WorthPacking(p);
}

void Accumulate(size_t M, size_t N, size_t K, float alpha, MatrixView a, MatrixView b, float* c)
{
    assert(Present(a.data, M * K) && Present(b.data, K * N) && Present(c, M * N));
    Product p = Describe(M, N, K, alpha, a, b, c);
    if (IsOneRow(p)) {
        RunOneRow<false>(p);
    }
    const bool direct = MayReadDirectly(p);
    if (p.cColumn != 1) {
        RunBlocked<false>(p, direct);
    } else if (p.rowCount < kManyRows && p.columns.rowStep == 1) {
        RunByColumns(p, direct);
    } else {
        RunInPlace(p, direct);
    }
}

void AccumulateFrom(size_t M, size_t N, size_t K, float alpha, MatrixView a, const PanelSource& b, float* c)
{
    assert(Present(a.data, M * K) && b.fill != nullptr && Present(c, M * N));
    Product p = {a, {nullptr, 0, 0}, M, N, K, alpha, 1.0f, c, N, 1};
    p.source = &b;
    RunInPlace(p, false);
}

void AddSums(size_t M, size_t N, size_t K, float alpha, MatrixView a, MatrixView b, float* c)
{
    assert(Present(a.data, M * K) && Present(b.data, K * N) && Present(c, M * N));
    Product p = Describe(M, N, K, alpha, a, b, c);
    if (IsOneRow(p)) {
        RunOneRow<true>(p);
    }
    RunBlocked<true>(p, MayReadDirectly(p));
}

}  // namespace

extern const GemmKernels kGemmKernels = {Accumulate, AccumulateFrom, AddSums};

}  // namespace opkit::OPKIT_LEVEL
