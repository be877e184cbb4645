// The X residual of one observation under given scores, shared by SPE and its contributions so the
// two always agree.
#ifndef MVDA_DIAGNOSTICS_DETAIL_RESIDUAL_ROW_H_
#define MVDA_DIAGNOSTICS_DETAIL_RESIDUAL_ROW_H_

#include <mvda/containers/data_matrix.h>

#include <vector>

namespace mvda::detail {

// Reads the scores of one observation out of T' (A x N); false when one of them is missing.
class ScoreColumns {
 public:
  explicit ScoreColumns(const NCDataMatrix<float>& tprim) : tprim_(tprim) {}
  bool Get(int observation, std::vector<double>& t) const {
    const int a_count = tprim_.SizeRows();
    t.resize(static_cast<std::size_t>(a_count));
    for (int a = 1; a <= a_count; ++a) {
      const float value = tprim_[a][observation];
      if (value == -99.0f) return false;
      t[static_cast<std::size_t>(a - 1)] = value;
    }
    return true;
  }

 private:
  const NCDataMatrix<float>& tprim_;
};

// Calls cell(k, e_k) for every present x_k with e_k = x_k - sum_a t_a p_ak in double, and returns
// the number of present cells. A loading that is missing (a variable left out of a component)
// contributes nothing, as in the models' deflation.
template <class Cell>
int ResidualRow(const NCDataVector<float>& x, const std::vector<double>& t,
                const NCDataMatrix<float>& pprim, Cell&& cell) {
  const int k_count = x.Size(), a_count = static_cast<int>(t.size());
  int present = 0;
  for (int k = 1; k <= k_count; ++k) {
    if (x[k] == -99.0f) continue;
    double e = x[k];
    for (int a = 1; a <= a_count; ++a) {
      const float p = pprim[a][k];
      if (p != -99.0f) e -= t[static_cast<std::size_t>(a - 1)] * p;
    }
    cell(k, e);
    ++present;
  }
  return present;
}

}  // namespace mvda::detail

#endif  // MVDA_DIAGNOSTICS_DETAIL_RESIDUAL_ROW_H_
