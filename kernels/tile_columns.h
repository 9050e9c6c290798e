// How the columns of a product are shared out among tiles.
#ifndef OPKIT_KERNELS_TILE_COLUMNS_H
#define OPKIT_KERNELS_TILE_COLUMNS_H

#include "common/smaller.h"
#include "kernels/vector.h"

namespace opkit {
namespace {

constexpr size_t kTileRows = 6;
constexpr size_t kTileVectors = kVectorRegisters / 8;  // times six rows: sums take three quarters of the registers
constexpr size_t kTileColumns = kTileVectors * kLanes;

// Columns of the tile at j: as many vectors in each tile as in the others, but for one, so that none is narrow.
inline size_t EvenColumns(size_t j, size_t columnCount)
{
    const size_t vectors = (columnCount - j + kLanes - 1) / kLanes;
    const size_t tiles = (vectors + kTileVectors - 1) / kTileVectors;
    const size_t columns = (vectors + tiles - 1) / tiles * kLanes;
    return Smaller(columns, columnCount - j);
}

}  // namespace
}  // namespace opkit

#endif  // OPKIT_KERNELS_TILE_COLUMNS_H
