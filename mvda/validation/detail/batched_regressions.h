// BatchedRegressions: the masked NIPALS regressions of one residual matrix on many vectors at
// once, so that the cross-validation fits of all groups advance together and every pass over the
// matrix serves every group.
#ifndef MVDA_VALIDATION_DETAIL_BATCHED_REGRESSIONS_H_
#define MVDA_VALIDATION_DETAIL_BATCHED_REGRESSIONS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/mvda_export.h>

#include <memory>
#include <vector>

namespace mvda::detail {

// A cross-validation fits one short NIPALS component per group, each on the same residual matrix
// with some rows (or columns) left out. One group at a time, each iteration streams the whole
// matrix twice for a vector or two of arithmetic: the fits are bound by memory. Here the matrix is
// laid out once as a contiguous copy with its gaps as 0 and a list of the gaps, and the
// regressions of all groups are one product each, reading the matrix once for all of them. The
// products run over fixed bands of rows on the library's threads, so the results are the same
// bits for any number of threads.
//
// The vectors of the groups are the columns of a row-major block: element (i, h) at [i * g + h].
// An element of -99 takes no part, exactly like a missing element of the vector passed to the
// single-vector regressions of NCDataMatrix, so a group leaves rows (or columns) out of its fit by
// marking them -99 in its own column. The results follow NCDataMatrix::RegressColumns /
// SpecialNipalsRegressColumnsFix and RegressRows / SpecialNipalsRegressRowsFix element for
// element: over the present pairs, -99 where there is no pair (or the column is missing
// throughout), a paired sum of squares below 1e-30 taken as 0, and with `fix` the denominator
// never below a third of the vector's sum of squares. They agree with those to rounding, not to
// the bit: the products are summed in single precision within bands of rows, in another order, and
// the paired sums of squares are the whole sums less the squares at the gaps.
//
// Thread-safety: const members may run on several threads; the products use the library's team,
// sized by NCMultiThreading::ThreadingControl.
class MVDA_EXPORT BatchedRegressions {  // exported for its tests only
 public:
  explicit BatchedRegressions(const NCDataMatrix<float>& x);
  BatchedRegressions(const BatchedRegressions&) = delete;
  BatchedRegressions& operator=(const BatchedRegressions&) = delete;

  int Rows() const { return rows_; }
  int Columns() const { return columns_; }
  bool HasGaps() const { return !gap_columns_.empty(); }

  // out (Columns() x g, row-major) = every column of x regressed on each of the g vectors in v
  // (Rows() x g, row-major).
  void RegressColumns(const float* v, int g, bool fix, float* out) const;
  // out (Rows() x g, row-major) = every row of x regressed on each of the g vectors in w
  // (Columns() x g, row-major).
  void RegressRows(const float* w, int g, bool fix, float* out) const;

 private:
  int rows_ = 0, columns_ = 0;
  std::unique_ptr<float[]> values_;  // rows_ x columns_, gaps as 0; written once, in parallel
  std::vector<int> gap_start_;       // the gaps of row i: gap_columns_[gap_start_[i] ..
  std::vector<int> gap_columns_;     //   gap_start_[i + 1]), 0-based columns in order
  std::vector<char> column_gone_;    // columns missing throughout
};

}  // namespace mvda::detail

#endif  // MVDA_VALIDATION_DETAIL_BATCHED_REGRESSIONS_H_
