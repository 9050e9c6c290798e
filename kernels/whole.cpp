// A product is computed block by block of k. For each, B's part is examined; then, for each block of rows, A's part is
// examined and laid out as words, B's columns are laid out as panels of words, and tiles of C take the block's terms in
// registers, as in gemm.cpp. What is read here is still near when it is read again.

#include "kernels/whole.h"

#include <string.h>

#include "kernels/contract.h"
#include "kernels/tile_columns.h"
#include "kernels/whole_words.h"

namespace opkit::OPKIT_LEVEL {
namespace {

#if defined(OPKIT_LEVEL_vnni)
constexpr bool kHasBytes = true;
#else
constexpr bool kHasBytes = false;
#endif
constexpr double kExact = 0x1p24;
constexpr size_t kWords = 128;      // of a row or column in a block of k
constexpr size_t kBlockRows = 192;  // laid out at a time
constexpr size_t kSourceRows = 64;  // taken from a source at a time
static_assert(kBlockRows % kTileRows == 0 && kBlockRows % kLanes == 0 && kWords % kLanes == 0 && kSourceRows % 4 == 0);

// Rows of words, and the steps from row to row and from word to word.
struct RowWords {
    const uint32_t* data;
    size_t row;
    size_t step;
};

// What a product goes through; the rooms are written before they are read.
struct State {
    const WholeProduct* product;
    size_t k;      // the block's first term
    size_t terms;  // and how many it has
    size_t words;
    double reach;   // no C is larger
    bool measured;  // by a look at C in this block
    double largestB;
    int32_t offsetA;
    int32_t offsetB;
    bool wide;
    RowWords rows;
    alignas(64) uint32_t rowTerms[kBlockRows];       // what offsets have taken off, by rows
    alignas(64) uint32_t columnTerms[kTileColumns];  // and by columns
    alignas(64) uint32_t rowRoom[kBlockRows * kWords];
    alignas(64) uint32_t panel[kWords * kTileColumns];
};

// ---- Tiles ----------------------------------------------------------------------------------------------------------

struct TileStart {
    bool fromC;
    const uint32_t* rowTerms;
    const uint32_t* columnTerms;
};

// The block's terms of kRows x kVectors vectors of c, of the last of which `tail` lanes are in use.
template <WordForm kForm, size_t kRows, size_t kVectors>
void Tile(size_t words, RowWords a, const uint32_t* panel, const TileStart& start, float* c, size_t cRow, size_t tail)
{
    VecWord sum[kRows][kVectors];
#pragma GCC unroll 8
    for (size_t i = 0; i < kRows; ++i) {
        const VecWord term = Splat(start.rowTerms[i]);
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            float* const from = c + i * cRow + v * kLanes;
            __builtin_prefetch(from, 1);
            sum[i][v] = term + LoadWords(start.columnTerms + v * kLanes);
            if (start.fromC) {
                sum[i][v] += (VecWord)TruncateToInts(v + 1 < kVectors ? Load(from) : LoadSome(from, tail));
            }
        }
    }
    const uint32_t* word = a.data;
    for (size_t w = 0; w < words; ++w, word += a.step, panel += kTileColumns) {
        VecWord column[kVectors];
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            column[v] = LoadWords(panel + v * kLanes);
        }
#pragma GCC unroll 8
        for (size_t i = 0; i < kRows; ++i) {
            const VecWord factor = BroadcastWord(word + i * a.row);
#pragma GCC unroll 4
            for (size_t v = 0; v < kVectors; ++v) {
                sum[i][v] = AddProducts<kForm>(sum[i][v], column[v], factor);
            }
        }
    }
#pragma GCC unroll 8
    for (size_t i = 0; i < kRows; ++i) {
#pragma GCC unroll 4
        for (size_t v = 0; v < kVectors; ++v) {
            float* const to = c + i * cRow + v * kLanes;
            const Vec value = __builtin_convertvector((VecInt)sum[i][v], Vec);
            if (v + 1 < kVectors || tail >= kLanes) {
                Store(to, value);
            } else {
                StoreTail(to, value, tail);
            }
        }
    }
}

using TileFunction = void (*)(size_t, RowWords, const uint32_t*, const TileStart&, float*, size_t, size_t);

template <WordForm kForm, size_t kVectors>
constexpr TileFunction kTiles[kTileRows + 1] = {
    nullptr,
    Tile<kForm, 1, kVectors>,
    Tile<kForm, 2, kVectors>,
    Tile<kForm, 3, kVectors>,
    Tile<kForm, 4, kVectors>,
    Tile<kForm, 5, kVectors>,
    Tile<kForm, 6, kVectors>,
};

// The kernel of so many rows and vectors, both at least 1.
template <WordForm kForm, size_t kVectors = kTileVectors>
TileFunction TileFor(size_t rows, size_t vectors)
{
    if constexpr (kVectors > 1) {
        if (vectors < kVectors) {
            return TileFor<kForm, kVectors - 1>(rows, vectors);
        }
    }
    return kTiles<kForm, kVectors>[rows];
}

// ---- Ranges of the operands -----------------------------------------------------------------------------------------

double Largest(const WholeRange& range)
{
    return -range.lowest > range.highest ? -range.lowest : range.highest;
}

template <WordForm kForm>
bool Fits(State& s, const WholeRange& range)
{
    constexpr int32_t kMostInByte = 255;
    const bool fits = range.whole && (kForm == WordForm::kShorts || range.highest - range.lowest <= kMostInByte);
    s.wide = range.whole && !fits;
    return fits;
}

template <WordForm kForm>
int32_t SignedOffset(const WholeRange& range)
{
    const bool signedBytes = range.lowest >= INT8_MIN && range.highest <= INT8_MAX;
    return kForm == WordForm::kShorts || signedBytes ? 0 : range.lowest - INT8_MIN;
}

template <WordForm kForm>
int32_t UnsignedOffset(const WholeRange& range)
{
    return kForm == WordForm::kShorts || range.lowest >= 0 ? 0 : range.lowest;
}

WholeRange ExamineColumns(const State& s)
{
    const WholeProduct& p = *s.product;
    if (p.source != nullptr) {
        return p.sourceRange;
    }
    const float* const from = p.b.data + s.k * p.b.rowStep;
    return p.b.columnStep == 1 ? ExamineRows(from, s.terms, p.b.rowStep, p.N)
                               : ExamineRows(from, p.N, p.b.columnStep, s.terms);
}

WholeRange ExamineRowBlock(const State& s, const float* from, size_t rows)
{
    const MatrixView& a = s.product->a;
    return a.columnStep == 1 ? ExamineRows(from, rows, a.rowStep, s.terms)
                             : ExamineRows(from, s.terms, a.columnStep, rows);
}

// ---- Rows -----------------------------------------------------------------------------------------------------------

template <WordForm kForm>
void LayOutRows(State& s, const float* from, size_t rows)
{
    const MatrixView& a = s.product->a;
    if (a.columnStep == 1) {
        for (size_t r = 0; r < rows; ++r) {
            WordsAlong<kForm>(from + r * a.rowStep, s.terms, s.offsetA, s.rowRoom + r * kWords);
        }
        s.rows = {s.rowRoom, kWords, 1};
        return;
    }
    for (size_t w = 0; w < s.words; ++w) {
        const size_t t = w * kPerWord<kForm>;
        WordsAcross<kForm, true>(from + t * a.columnStep, a.columnStep, s.terms - t, rows, s.offsetA,
                                 s.rowRoom + w * kBlockRows);
    }
    s.rows = {s.rowRoom, 1, kBlockRows};
}

template <WordForm kForm>
VecWord PartMagnitudes(VecWord word)
{
#if defined(OPKIT_LEVEL_vnni)
    return (VecWord)(kForm == WordForm::kBytes ? _mm512_abs_epi8((__m512i)word) : _mm512_abs_epi16((__m512i)word));
#else
    return (VecWord)_mm256_abs_epi16((__m256i)word);
#endif
}

// Sums of the words' parts and of their magnitudes, lane by lane.
struct WordSums {
    VecWord values = {};
    VecWord magnitudes = {};
};

template <WordForm kForm>
void Add(WordSums& sums, VecWord word)
{
    sums.values = AddProducts<kForm>(sums.values, Ones<kForm>(), word);
    sums.magnitudes = AddProducts<kForm>(sums.magnitudes, PartMagnitudes<kForm>(word), Ones<kForm>());
}

// Of one row whose words lie together.
template <WordForm kForm>
WordSums SumsOfRow(const uint32_t* words, size_t count)
{
    WordSums sums;
    for (size_t w = 0; w < count; w += kLanes) {
        const VecWord used = (VecWord)(FirstWords() < static_cast<uint32_t>(count - w));
        Add<kForm>(sums, LoadWords(words + w) & used);
    }
    return sums;
}

// Sets the row's term, and returns a bound of the sum of its magnitudes.
double SetRowTerm(State& s, size_t r, const WholeRange& range, int32_t values, int32_t magnitudes)
{
    const int32_t terms = static_cast<int32_t>(s.terms);
    const int32_t sum = values + terms * s.offsetA;
    s.rowTerms[r] = static_cast<uint32_t>(s.offsetB) * static_cast<uint32_t>(sum);
    if (range.lowest >= 0) {
        return sum;
    }
    return magnitudes + static_cast<double>(terms) * (s.offsetA < 0 ? -s.offsetA : s.offsetA);
}

// The terms of a block of rows, and the largest of the bounds.
template <WordForm kForm>
double SumRows(State& s, size_t rows, const WholeRange& range)
{
    double largest = 0;
    const auto set = [&](size_t r, int32_t values, int32_t magnitudes) {
        const double bound = SetRowTerm(s, r, range, values, magnitudes);
        largest = bound > largest ? bound : largest;
    };
    if (s.rows.step == 1) {
        for (size_t r = 0; r < rows; ++r) {
            const WordSums sums = SumsOfRow<kForm>(s.rows.data + r * s.rows.row, s.words);
            set(r, SumOf(sums.values), SumOf(sums.magnitudes));
        }
        return largest;
    }
    for (size_t r = 0; r < rows; r += kLanes) {
        WordSums sums;
        for (size_t w = 0; w < s.words; ++w) {
            Add<kForm>(sums, LoadWords(s.rows.data + w * s.rows.step + r));
        }
        for (size_t i = 0; i < Smaller(rows - r, kLanes); ++i) {
            set(r + i, static_cast<int32_t>(sums.values[i]), static_cast<int32_t>(sums.magnitudes[i]));
        }
    }
    return largest;
}

// Lays out a block of rows. Whether its values fit and the bound holds; `most` is what the block may add to any C.
// Sums are taken where all that is still to come, if nothing were larger, would break the bound.
template <WordForm kForm>
bool PrepareRows(State& s, size_t row, size_t rows, double* most)
{
    const WholeProduct& p = *s.product;
    const float* const from = p.a.data + row * p.a.rowStep + s.k * p.a.columnStep;
    const WholeRange range = ExamineRowBlock(s, from, rows);
    if (!Fits<kForm>(s, range)) {
        return false;
    }
    s.offsetA = SignedOffset<kForm>(range);
    LayOutRows<kForm>(s, from, rows);
    const double largest = Largest(range);
    double sum = static_cast<double>(s.terms) * largest;
    memset(s.rowTerms, 0, sizeof s.rowTerms);
    if (s.offsetB != 0 || s.reach + static_cast<double>(p.K - s.k) * largest * s.largestB > kExact) {
        const double taken = SumRows<kForm>(s, rows, range);
        sum = taken < sum ? taken : sum;
    }
    *most = sum * s.largestB;
    if (s.reach + *most > kExact && !s.measured) {
        s.reach = LargestMagnitude(p.c, p.M * p.N);
        s.measured = true;
    }
    return s.reach + *most <= kExact;
}

// ---- Columns --------------------------------------------------------------------------------------------------------

// Rows of B that lie as floats, laid out as the words from `word` on.
template <WordForm kForm>
void LayOutPanelRows(State& s, const float* from, size_t step, size_t terms, size_t columns, size_t word)
{
    for (size_t t = 0; t < terms; t += kPerWord<kForm>, ++word) {
        WordsAcross<kForm, false>(from + t * step, step, terms - t, columns, s.offsetB, s.panel + word * kTileColumns);
    }
}

template <WordForm kForm>
void LayOutPanelFromSource(State& s, size_t j, size_t columns)
{
    alignas(64) float room[kSourceRows * kTileColumns];
    const PanelSource& source = *s.product->source;
    for (size_t t = 0; t < s.terms; t += kSourceRows) {
        const size_t terms = Smaller(s.terms - t, kSourceRows);
        source.fill(source.context, s.k + t, terms, j, columns, room, kTileColumns);
        LayOutPanelRows<kForm>(s, room, kTileColumns, terms, columns, t / kPerWord<kForm>);
    }
}

// Columns whose terms lie together: words of as many columns as there are lanes, then squares are transposed.
template <WordForm kForm>
void LayOutTransposedPanel(State& s, const float* from, size_t step, size_t columns)
{
    alignas(64) uint32_t runs[kLanes * kWords];
    for (size_t j = 0; j < columns; j += kLanes) {
        const size_t count = Smaller(columns - j, kLanes);
        for (size_t q = 0; q < count; ++q) {
            WordsAlong<kForm>(from + (j + q) * step, s.terms, s.offsetB, runs + q * kWords);
        }
        memset(runs + count * kWords, 0, (kLanes - count) * kWords * sizeof(uint32_t));
        for (size_t w = 0; w < s.words; w += kLanes) {
            TransposeWords(runs + w, kWords, s.panel + w * kTileColumns + j, kTileColumns);
        }
    }
}

template <WordForm kForm>
void LayOutPanel(State& s, size_t j, size_t columns)
{
    const MatrixView& b = s.product->b;
    const float* const from = b.data + s.k * b.rowStep + j * b.columnStep;
    if (s.product->source != nullptr) {
        LayOutPanelFromSource<kForm>(s, j, columns);
    } else if (b.columnStep == 1) {
        LayOutPanelRows<kForm>(s, from, b.rowStep, s.terms, columns, 0);
    } else {
        LayOutTransposedPanel<kForm>(s, from, b.columnStep, columns);
    }
}

template <WordForm kForm>
void SetColumnTerms(State& s, size_t vectors)
{
    memset(s.columnTerms, 0, sizeof s.columnTerms);
    for (size_t v = 0; v < vectors && s.offsetA != 0; ++v) {
        VecWord sum = {};
        for (size_t w = 0; w < s.words; ++w) {
            sum = AddProducts<kForm>(sum, LoadWords(s.panel + w * kTileColumns + v * kLanes), Ones<kForm>());
        }
        StoreWords(s.columnTerms + v * kLanes, sum * static_cast<uint32_t>(s.offsetA));
    }
}

// ---- The product ----------------------------------------------------------------------------------------------------

template <WordForm kForm>
void MultiplyRows(State& s, size_t row, size_t rows)
{
    const WholeProduct& p = *s.product;
    const bool fromC = s.k != 0 || !p.cleared;
    for (size_t j = 0, columns = 0; j < p.N; j += columns) {
        columns = EvenColumns(j, p.N);
        const size_t vectors = (columns + kLanes - 1) / kLanes;
        LayOutPanel<kForm>(s, j, columns);
        SetColumnTerms<kForm>(s, vectors);
        for (size_t r = 0; r < rows; r += kTileRows) {
            const RowWords a = {s.rows.data + r * s.rows.row, s.rows.row, s.rows.step};
            TileFor<kForm>(Smaller(rows - r, kTileRows), vectors)(
                s.words, a, s.panel, {fromC, s.rowTerms + r, s.columnTerms}, p.c + (row + r) * p.N + j, p.N,
                columns - (vectors - 1) * kLanes);
        }
    }
}

// The block of k at s.k; returns the rows done, which are all if nothing stands against it.
template <WordForm kForm>
size_t MultiplyBlock(State& s)
{
    const WholeRange range = ExamineColumns(s);
    if (!Fits<kForm>(s, range)) {
        return 0;
    }
    s.offsetB = UnsignedOffset<kForm>(range);
    s.largestB = Largest(range);
    s.measured = s.k == 0;
    double most = 0;
    for (size_t row = 0, rows = 0; row < s.product->M; row += rows) {
        rows = Smaller(s.product->M - row, kBlockRows);
        double more = 0;
        if (!PrepareRows<kForm>(s, row, rows, &more)) {
            return row;
        }
        most = more > most ? more : most;
        MultiplyRows<kForm>(s, row, rows);
    }
    s.reach += most;
    return s.product->M;
}

template <WordForm kForm>
WholeProgress MultiplyWords(const WholeProduct& p)
{
    State s;
    s.product = &p;
    s.wide = false;
    s.reach = 0;
    if (!p.cleared) {
        if (!MayStartFrom(p.c, p.M * p.N)) {
            return {0, 0, 0, false};
        }
        s.reach = LargestMagnitude(p.c, p.M * p.N);
    }
    for (s.k = 0; s.k < p.K; s.k += s.terms) {
        s.terms = Smaller(p.K - s.k, kWords * kPerWord<kForm>);
        s.words = (s.terms + kPerWord<kForm> - 1) / kPerWord<kForm>;
        const size_t rows = MultiplyBlock<kForm>(s);
        if (rows < p.M) {
            return {rows, s.k, rows == 0 ? s.k : s.k + s.terms, s.wide};
        }
    }
    return {p.M, p.K, p.K, false};
}

WholeRange Examine(const float* values, size_t count)
{
    assert(Present(values, count));
    return ExamineRows(values, 1, count, count);
}

WholeProgress Multiply(const WholeProduct& p)
{
    assert(p.M != 0 && p.N != 0 && Present(p.a.data, p.K) && Present(p.c, p.M * p.N));
    assert(p.a.rowStep == 1 || p.a.columnStep == 1);
    assert(p.source != nullptr ? p.source->fill != nullptr : p.b.rowStep == 1 || p.b.columnStep == 1);
    assert(Apart(p.a.data, p.M * p.K, p.c, p.M * p.N));
    assert(p.source != nullptr || Apart(p.b.data, p.K * p.N, p.c, p.M * p.N));
    assert(kHasBytes || p.form == WordForm::kShorts);
    if constexpr (kHasBytes) {
        if (p.form == WordForm::kBytes) {
            return MultiplyWords<WordForm::kBytes>(p);
        }
    }
    return MultiplyWords<WordForm::kShorts>(p);
}

}  // namespace

extern const WholeKernels kWholeKernels = {Examine, Multiply, kHasBytes};

}  // namespace opkit::OPKIT_LEVEL
