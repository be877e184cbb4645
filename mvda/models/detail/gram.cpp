// FormCrossProducts and RowProducts: blocked BLAS products over the rows of complete matrices.
#include <mvda/containers/detail/blocked_products.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/models/detail/gram.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#include <cblas.h>

namespace mvda::detail {

namespace {

std::vector<double> Widened(const std::vector<float>& v) { return {v.begin(), v.end()}; }

}  // namespace

std::vector<CrossProducts> FormCrossProducts(const NCDataMatrix<float>& x,
                                             const NCDataMatrix<float>* y,
                                             const std::vector<std::vector<int>>& rowSets) {
  const int k = x.SizeColumns(), m = y ? y->SizeColumns() : 0;
  const std::size_t sets = rowSets.empty() ? 1 : rowSets.size();
  std::vector<CrossProducts> out(sets);
  std::vector<const float*> xs, ys;
  std::vector<float> product;
  for (std::size_t s = 0; s < sets; ++s) {
    const int n = rowSets.empty() ? x.SizeRows() : static_cast<int>(rowSets[s].size());
    xs.resize(static_cast<std::size_t>(n));
    ys.resize(static_cast<std::size_t>(n));
    for (int r = 0; r < n; ++r) {
      const int i = rowSets.empty() ? r + 1 : rowSets[s][static_cast<std::size_t>(r)] + 1;
      xs[static_cast<std::size_t>(r)] = k > 0 ? x[i].GetVector() + 1 : nullptr;
      if (y) ys[static_cast<std::size_t>(r)] = m > 0 ? (*y)[i].GetVector() + 1 : nullptr;
    }
    CrossProducts& to = out[s];
    to.k = k;
    to.m = m;
    product.assign(static_cast<std::size_t>(k) * k, 0.0f);
    BlockedCrossProduct(xs.data(), k, static_cast<const float* const*>(nullptr), 0, n,
                        product.data());
    to.xx = Widened(product);
    if (y) {
      product.assign(static_cast<std::size_t>(k) * m, 0.0f);
      BlockedCrossProduct(xs.data(), k, ys.data(), m, n, product.data());
      to.xy = Widened(product);
      product.assign(static_cast<std::size_t>(m) * m, 0.0f);
      BlockedCrossProduct(ys.data(), m, static_cast<const float* const*>(nullptr), 0, n,
                          product.data());
      to.yy = Widened(product);
    }
  }
  return out;
}

void RowProducts(const NCDataMatrix<float>& x, const float* v, int q, float* out) {
  const int n = x.SizeRows(), k = x.SizeColumns();
  if (n == 0 || q == 0) return;
  if (k == 0) {
    std::fill(out, out + static_cast<std::size_t>(n) * q, 0.0f);
    return;
  }
  const int blocks = (n + kGramBlockRows - 1) / kGramBlockRows;
  ParallelFor(blocks, [&](int b) {
    const int first = b * kGramBlockRows, count = std::min(kGramBlockRows, n - first);
    std::vector<float> packed(static_cast<std::size_t>(count) * k);
    for (int r = 0; r < count; ++r)
      std::memcpy(packed.data() + static_cast<std::size_t>(r) * k, x[first + r + 1].GetVector() + 1,
                  sizeof(float) * k);
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, count, q, k, 1.0f, packed.data(), k, v,
                q, 0.0f, out + static_cast<std::size_t>(first) * q, q);
  });
}

}  // namespace mvda::detail
