// The X residual of one observation under given scores, shared by SPE and its contributions so the
// two always agree.
#ifndef MVDA_DIAGNOSTICS_DETAIL_RESIDUAL_ROW_H_
#define MVDA_DIAGNOSTICS_DETAIL_RESIDUAL_ROW_H_

#include <mvda/containers/data_matrix.h>

#include <vector>

namespace mvda::detail {

// Residuals are formed in float, e_k = x_k - t_1 p_1k - ... - t_A p_Ak in this order, one rounding
// per operation and no fused multiply-add, so a cell has the same bits in the vector kernel and in
// the scalar code of the contributions. x, t and p are floats already: their own rounding is of
// the same order as that of the float arithmetic. The squares are added in double.

// The loadings P' (A x K) as A contiguous rows of floats; a missing loading (a variable left out
// of a component) is 0, so it deflates nothing, as in the models. K is given, as the data's
// column count, since a P' without rows (A = 0) may have any number of columns.
class LoadingRows {
 public:
  LoadingRows(const NCDataMatrix<float>& pprim, int variables);
  int Components() const { return a_; }
  int Variables() const { return k_; }
  const float* Data() const { return values_.data(); }  // row a (0-based) at Data() + a * K
  // e of the 0-based column j as described above.
  float Residual(float x, const float* t, int j) const {
    float e = x;
    for (int a = 0; a < a_; ++a) e -= t[a] * values_[static_cast<std::size_t>(a) * k_ + j];
    return e;
  }

 private:
  int a_ = 0, k_ = 0;
  std::vector<float> values_;
};

// Copies the scores of one observation (1-based) out of T' (A x N) into t[0..A); false when one
// of them is missing.
bool ScoresOf(const NCDataMatrix<float>& tprim, int observation, float* t);

// The sum of e_k² in double over the K cells of x (0-based, K = p.Variables()) and, through
// present, their number. With complete, x holds no -99 and every cell counts; otherwise -99
// cells are skipped. The sum's order is fixed by K alone (eight lanes, then a scalar tail), so it
// is the same on every processor, for any thread count and on both paths for a complete row.
double ResidualSquares(const float* x, const float* t, const LoadingRows& p, bool complete,
                       int& present);

}  // namespace mvda::detail

#endif  // MVDA_DIAGNOSTICS_DETAIL_RESIDUAL_ROW_H_
