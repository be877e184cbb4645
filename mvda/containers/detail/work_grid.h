// WorkGrid: the fixed cut of a matrix into bands of rows and blocks of columns that the parallel
// loops of the matrix algebra share out, and RowStarts, the raw rows those loops read.
#ifndef MVDA_CONTAINERS_DETAIL_WORK_GRID_H_
#define MVDA_CONTAINERS_DETAIL_WORK_GRID_H_

#include <mvda/containers/data_matrix.h>

#include <algorithm>
#include <vector>

namespace mvda::detail {

// The cut depends on the shape alone. Column sums are formed band by band, each band's rows in
// order, and the band sums are then added in band order; so a column's sum is the same whichever
// thread computed which band, whatever the team size. Bands are at least 512 rows, and there are
// at most 64 of them, which bounds the band sums kept in memory; a block's accumulators stay in
// the first-level cache.
struct WorkGrid {
  static constexpr int kMinBandRows = 512;
  static constexpr int kMaxBands = 64;
  static constexpr int kBlockColumns = 1024;

  int rows = 0, cols = 0;
  int band_rows = 0, bands = 0;
  int blocks = 0;

  WorkGrid(int r, int c) : rows(r), cols(c) {
    if (r > 0) {
      band_rows = static_cast<int>(std::max<long long>(
          kMinBandRows, (static_cast<long long>(r) + kMaxBands - 1) / kMaxBands));
      bands = static_cast<int>((static_cast<long long>(r) + band_rows - 1) / band_rows);
    }
    if (c > 0) blocks = (c - 1) / kBlockColumns + 1;
  }
  // 0-based row positions [BandBegin, BandEnd) and column positions [BlockBegin, BlockEnd).
  int BandBegin(int b) const { return b * band_rows; }
  int BandEnd(int b) const {
    return static_cast<int>(std::min<long long>(rows, (b + 1LL) * band_rows));
  }
  int BlockBegin(int k) const { return k * kBlockColumns; }
  int BlockEnd(int k) const { return std::min(cols, (k + 1) * kBlockColumns); }
};

// Element 1 of every row, in a 0-based list; null for rows without elements.
template <class T>
std::vector<const T*> RowStarts(const NCDataMatrix<T>& m) {
  std::vector<const T*> starts(static_cast<std::size_t>(m.SizeRows()), nullptr);
  if (m.SizeColumns() > 0)
    for (int i = 1; i <= m.SizeRows(); ++i) starts[i - 1] = m[i].GetVector() + 1;
  return starts;
}

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_WORK_GRID_H_
