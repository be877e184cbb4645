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

// The loadings P' (A x K) variable by variable, A values per variable, in double; a missing
// loading (a variable left out of a component) is 0, so it deflates nothing, as in the models.
class LoadingColumns {
 public:
  explicit LoadingColumns(const NCDataMatrix<float>& pprim)
      : a_(pprim.SizeRows()),
        values_(static_cast<std::size_t>(pprim.SizeRows()) *
                static_cast<std::size_t>(a_ > 0 ? pprim.SizeColumns() : 0)) {
    const int k_count = a_ > 0 ? pprim.SizeColumns() : 0;
    for (int a = 1; a <= a_; ++a)
      for (int k = 1; k <= k_count; ++k) {
        const float p = pprim[a][k];
        values_[static_cast<std::size_t>(k - 1) * a_ + (a - 1)] = p == -99.0f ? 0.0 : p;
      }
  }
  int Components() const { return a_; }
  const double* Of(int k) const { return values_.data() + static_cast<std::size_t>(k - 1) * a_; }

 private:
  int a_;
  std::vector<double> values_;
};

// Calls cell(k, e_k) for every present x_k with e_k = x_k - sum_a t_a p_ak in double, and returns
// the number of present cells.
template <class Cell>
int ResidualRow(const NCDataVector<float>& x, const std::vector<double>& t, const LoadingColumns& p,
                Cell&& cell) {
  const int k_count = x.Size(), a_count = p.Components();
  const double* tt = t.data();
  int present = 0;
  for (int k = 1; k <= k_count; ++k) {
    if (x[k] == -99.0f) continue;
    const double* pk = p.Of(k);
    double e = x[k];
    for (int a = 0; a < a_count; ++a) e -= tt[a] * pk[a];
    cell(k, e);
    ++present;
  }
  return present;
}

}  // namespace mvda::detail

#endif  // MVDA_DIAGNOSTICS_DETAIL_RESIDUAL_ROW_H_
