// FormCrossProducts and RowProducts: blocked BLAS products over the rows of complete matrices.
#include <mvda/containers/detail/blocked_products.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/models/detail/gram.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>

#include <cblas.h>

namespace mvda::detail {

namespace {

// Up to this many multiply-adds the cross products are formed in double: there they cost little,
// and the deflated Gram matrices of later components keep more digits.
constexpr double kDoubleWork = 1 << 25;

// X'X of the listed rows in single precision: blocks of kGramBlockRows rows (fixed, so the cut
// depends on the data alone), each packed and multiplied by one single-threaded ssyrk, which does
// half the work of a general product; kWave blocks at a time on the library's team, their sums
// added in double in block order. The same bits for any team. Measured on 10000 x 500: about 1.5
// times one ssyrk of the whole, against 2.5 times for BlockedCrossProduct, whose bands recopy
// the columns and run general products.
constexpr int kWave = 4;

// Written whole before they are read, so left uninitialised: zeroing them, or mapping fresh
// pages for every set of rows, would cost as much as the products. One workspace serves every
// set of a call.
struct Slot {
  std::unique_ptr<float[]> packed, product;
};

// X'X of each set of rows (rows[s] points at element 1 of every row of set s). The blocks of all
// sets form one list, set after set, cut into waves; a wave's products are added to their sets'
// sums in list order, so each set's sum is the same bits as with the set alone, while the waves
// stay full when a set has fewer blocks than the team has threads.
std::vector<std::vector<double>> GramsBySyrk(const std::vector<std::vector<const float*>>& rows,
                                             int k, std::vector<Slot>& slots) {
  const std::size_t kk = static_cast<std::size_t>(k) * k;
  std::vector<std::vector<double>> sums(rows.size(), std::vector<double>(kk, 0.0));
  if (k == 0) return sums;
  struct Piece {
    std::size_t set;
    int first, count;
  };
  std::vector<Piece> pieces;
  for (std::size_t s = 0; s < rows.size(); ++s) {
    const int n = static_cast<int>(rows[s].size());
    for (int first = 0; first < n; first += kGramBlockRows)
      pieces.push_back({s, first, std::min(kGramBlockRows, n - first)});
  }
  if (slots.empty()) {
    slots.resize(kWave);
    for (Slot& slot : slots) {
      slot.packed.reset(new float[static_cast<std::size_t>(kGramBlockRows) * k]);
      slot.product.reset(new float[kk]);
    }
  }
  const int count = static_cast<int>(pieces.size());
  for (int wave = 0; wave < count; wave += kWave) {
    const int width = std::min(kWave, count - wave);
    ParallelFor(width, [&](int w) {
      const Piece& piece = pieces[static_cast<std::size_t>(wave + w)];
      Slot& slot = slots[static_cast<std::size_t>(w)];
      const float* const* from = rows[piece.set].data() + piece.first;
      for (int r = 0; r < piece.count; ++r)
        std::memcpy(slot.packed.get() + static_cast<std::size_t>(r) * k, from[r],
                    sizeof(float) * k);
      cblas_ssyrk(CblasRowMajor, CblasUpper, CblasTrans, k, piece.count, 1.0f, slot.packed.get(), k,
                  0.0f, slot.product.get(), k);
    });
    // Rows of the sums are independent; each adds the wave's blocks in list order.
    ParallelFor((k + 63) / 64, [&](int band) {
      for (int j = band * 64; j < std::min(k, band * 64 + 64); ++j)
        for (int w = 0; w < width; ++w) {
          const float* from =
              slots[static_cast<std::size_t>(w)].product.get() + static_cast<std::size_t>(j) * k;
          double* to = sums[pieces[static_cast<std::size_t>(wave + w)].set].data() +
                       static_cast<std::size_t>(j) * k;
          for (int l = j; l < k; ++l) to[l] += from[l];
        }
    });
  }
  for (std::vector<double>& sum : sums)
    for (int j = 0; j < k; ++j)
      for (int l = 0; l < j; ++l)
        sum[static_cast<std::size_t>(j) * k + l] = sum[static_cast<std::size_t>(l) * k + j];
  return sums;
}

template <class T>
std::vector<double> Product(const T* const* a, int aCols, const T* const* b, int bCols, int rows,
                            std::vector<Slot>& slots) {
  if constexpr (std::is_same_v<T, float>)
    if (!b)
      return std::move(GramsBySyrk({std::vector<const float*>(a, a + rows)}, aCols, slots)[0]);
  std::vector<T> out(static_cast<std::size_t>(aCols) * (b ? bCols : aCols), T(0));
  BlockedCrossProduct(a, aCols, b, bCols, rows, out.data());
  return {out.begin(), out.end()};
}

// X'X, and X'Y and Y'Y with Y, of the listed rows, in precision T.
template <class T>
void Products(const std::vector<const float*>& xs, int k, const std::vector<const float*>& ys,
              int m, bool withY, CrossProducts& to, std::vector<Slot>& slots) {
  const int n = static_cast<int>(xs.size());
  std::vector<std::vector<T>> xCopy, yCopy;
  std::vector<const T*> x(xs.size()), y(withY ? ys.size() : 0);
  if constexpr (std::is_same_v<T, float>) {
    x = xs;
    if (withY) y = ys;
  } else {
    xCopy.resize(xs.size());
    yCopy.resize(y.size());
    for (int r = 0; r < n; ++r) {
      xCopy[r].assign(xs[r], xs[r] + k);
      x[r] = xCopy[r].data();
      if (withY) {
        yCopy[r].assign(ys[r], ys[r] + m);
        y[r] = yCopy[r].data();
      }
    }
  }
  to.xx = Product<T>(x.data(), k, nullptr, 0, n, slots);
  if (withY) {
    to.xy = Product<T>(x.data(), k, y.data(), m, n, slots);
    to.yy = Product<T>(y.data(), m, nullptr, 0, n, slots);
  }
}

}  // namespace

std::vector<CrossProducts> FormCrossProducts(const NCDataMatrix<float>& x,
                                             const NCDataMatrix<float>* y,
                                             const std::vector<std::vector<int>>& rowSets) {
  const int k = x.SizeColumns(), m = y ? y->SizeColumns() : 0;
  const std::size_t sets = rowSets.empty() ? 1 : rowSets.size();
  std::vector<CrossProducts> out(sets);
  std::vector<const float*> xs, ys;
  std::vector<Slot> slots;
  const bool single = static_cast<double>(x.SizeRows()) * k * (k + m) > kDoubleWork;
  if (single && !y) {  // X'X alone, of every set in one list of blocks
    std::vector<std::vector<const float*>> rows(sets);
    for (std::size_t s = 0; s < sets; ++s) {
      const int n = rowSets.empty() ? x.SizeRows() : static_cast<int>(rowSets[s].size());
      for (int r = 0; r < n; ++r) {
        const int i = rowSets.empty() ? r + 1 : rowSets[s][static_cast<std::size_t>(r)] + 1;
        rows[s].push_back(x[i].GetVector() + 1);
      }
    }
    std::vector<std::vector<double>> grams = GramsBySyrk(rows, k, slots);
    for (std::size_t s = 0; s < sets; ++s) {
      out[s].k = k;
      out[s].xx = std::move(grams[s]);
    }
    return out;
  }
  for (std::size_t s = 0; s < sets; ++s) {
    const int n = rowSets.empty() ? x.SizeRows() : static_cast<int>(rowSets[s].size());
    xs.resize(static_cast<std::size_t>(n));
    ys.resize(static_cast<std::size_t>(n));
    for (int r = 0; r < n; ++r) {
      const int i = rowSets.empty() ? r + 1 : rowSets[s][static_cast<std::size_t>(r)] + 1;
      xs[static_cast<std::size_t>(r)] = x[i].GetVector() + 1;
      if (y) ys[static_cast<std::size_t>(r)] = (*y)[i].GetVector() + 1;
    }
    CrossProducts& to = out[s];
    to.k = k;
    to.m = m;
    if (!single)
      Products<double>(xs, k, ys, m, y != nullptr, to, slots);
    else
      Products<float>(xs, k, ys, m, y != nullptr, to, slots);
  }
  return out;
}

namespace {

// RowGram in precision T: columns [first, first + count) of every row packed into an N x count
// block, whose X X' one syrk forms.
template <class T>
std::vector<double> RowGramIn(const NCDataMatrix<float>& x) {
  const int n = x.SizeRows(), k = x.SizeColumns();
  const std::size_t nn = static_cast<std::size_t>(n) * n;
  std::vector<double> sum(nn, 0.0);
  const int blocks = (k + kGramBlockRows - 1) / kGramBlockRows;
  const int slots = std::min(kWave, blocks);
  std::vector<std::vector<T>> packed(static_cast<std::size_t>(slots)),
      product(static_cast<std::size_t>(slots));
  for (int wave = 0; wave < blocks; wave += kWave) {
    const int width = std::min(kWave, blocks - wave);
    ParallelFor(width, [&](int w) {
      const int first = (wave + w) * kGramBlockRows, count = std::min(kGramBlockRows, k - first);
      std::vector<T>& a = packed[static_cast<std::size_t>(w)];
      std::vector<T>& c = product[static_cast<std::size_t>(w)];
      a.resize(static_cast<std::size_t>(n) * count);
      c.resize(nn);
      for (int i = 0; i < n; ++i) {
        const float* row = x[i + 1].GetVector() + 1 + first;
        std::copy(row, row + count, a.begin() + static_cast<std::ptrdiff_t>(i) * count);
      }
      if constexpr (std::is_same_v<T, float>)
        cblas_ssyrk(CblasRowMajor, CblasUpper, CblasNoTrans, n, count, 1.0f, a.data(), count, 0.0f,
                    c.data(), n);
      else
        cblas_dsyrk(CblasRowMajor, CblasUpper, CblasNoTrans, n, count, 1.0, a.data(), count, 0.0,
                    c.data(), n);
    });
    ParallelFor((n + 63) / 64, [&](int band) {
      for (int i = band * 64; i < std::min(n, band * 64 + 64); ++i)
        for (int w = 0; w < width; ++w) {
          const T* from =
              product[static_cast<std::size_t>(w)].data() + static_cast<std::size_t>(i) * n;
          double* to = sum.data() + static_cast<std::size_t>(i) * n;
          for (int l = i; l < n; ++l) to[l] += from[l];
        }
    });
  }
  for (int i = 0; i < n; ++i)
    for (int l = 0; l < i; ++l)
      sum[static_cast<std::size_t>(i) * n + l] = sum[static_cast<std::size_t>(l) * n + i];
  return sum;
}

}  // namespace

std::vector<double> RowGram(const NCDataMatrix<float>& x) {
  const double work = static_cast<double>(x.SizeRows()) * x.SizeRows() * x.SizeColumns();
  return work <= kDoubleWork ? RowGramIn<double>(x) : RowGramIn<float>(x);
}

void TransposeTimes(const NCDataMatrix<float>& x, const double* v, int w, double* out) {
  const int n = x.SizeRows(), k = x.SizeColumns();
  constexpr int kBand = 256;
  ParallelFor((k + kBand - 1) / kBand, [&](int band) {
    const int first = band * kBand, count = std::min(kBand, k - first);
    // Per direction a contiguous accumulator, so that the loop over the band's columns vectorises.
    std::vector<double> acc(static_cast<std::size_t>(w) * count, 0.0);
    for (int i = 0; i < n; ++i) {
      const float* row = x[i + 1].GetVector() + 1 + first;
      for (int h = 0; h < w; ++h) {
        const double c = v[static_cast<std::size_t>(i) * w + h];
        double* a = acc.data() + static_cast<std::size_t>(h) * count;
        for (int j = 0; j < count; ++j) a[j] += row[j] * c;
      }
    }
    for (int j = 0; j < count; ++j)
      for (int h = 0; h < w; ++h)
        out[static_cast<std::size_t>(first + j) * w + h] =
            acc[static_cast<std::size_t>(h) * count + j];
  });
}

std::vector<double> ColumnSumsOfSquares(const NCDataMatrix<float>& x) {
  const int n = x.SizeRows(), k = x.SizeColumns();
  constexpr int kBand = 256;
  std::vector<double> out(static_cast<std::size_t>(k), 0.0);
  ParallelFor((k + kBand - 1) / kBand, [&](int band) {
    const int first = band * kBand, count = std::min(kBand, k - first);
    double* a = out.data() + first;
    for (int i = 0; i < n; ++i) {
      const float* row = x[i + 1].GetVector() + 1 + first;
      for (int j = 0; j < count; ++j) a[j] += static_cast<double>(row[j]) * row[j];
    }
  });
  return out;
}

void RowProducts(const NCDataMatrix<float>& x, const float* v, int q, float* out) {
  const int n = x.SizeRows(), k = x.SizeColumns();
  if (n == 0 || q == 0) return;
  if (k == 0) {
    std::fill(out, out + static_cast<std::size_t>(n) * q, 0.0f);
    return;
  }
  // Row by row, v'x_i: v (K x q) stays in cache, and the rows are read where they lie.
  const int blocks = (n + kGramBlockRows - 1) / kGramBlockRows;
  ParallelFor(blocks, [&](int b) {
    const int first = b * kGramBlockRows, last = std::min(n, first + kGramBlockRows);
    for (int i = first; i < last; ++i)
      cblas_sgemv(CblasRowMajor, CblasTrans, k, q, 1.0f, v, q, x[i + 1].GetVector() + 1, 1, 0.0f,
                  out + static_cast<std::size_t>(i) * q, 1);
  });
}

void SymmetricTimes(const std::vector<double>& g, int k, const double* x, double* y) {
  cblas_dsymv(CblasRowMajor, CblasUpper, k, 1.0, g.data(), k, x, 1, 0.0, y, 1);
}

void DeflateGram(std::vector<double>& g, int k, const float* p) {
  std::vector<double> pd(p, p + k), q(k), gq(k);
  double pp = 0;
  for (int j = 0; j < k; ++j) pp += pd[j] * pd[j];
  for (int j = 0; j < k; ++j) q[j] = pd[j] / pp;
  SymmetricTimes(g, k, q.data(), gq.data());
  double tt = 0;
  for (int j = 0; j < k; ++j) tt += q[j] * gq[j];
  // (E - t p')'(E - t p') = G - p g' - g p' + (t't) p p', with g = E't = G q.
  for (int j = 0; j < k; ++j) {
    double* row = g.data() + static_cast<std::size_t>(j) * k;
    for (int l = 0; l < k; ++l) row[l] += -pd[j] * gq[l] - gq[j] * pd[l] + tt * pd[j] * pd[l];
  }
}

void DeferredResiduals::Times(std::vector<double> v, int w, std::vector<float>& out) const {
  const int k = base.SizeColumns();
  // E v = base (I - q_1 p_1') ... (I - q_m p_m') v, applied to v from the right.
  for (std::size_t b = q.size(); b-- > 0;)
    for (int h = 0; h < w; ++h) {
      double overlap = 0;
      for (int j = 0; j < k; ++j) overlap += p[b][j] * v[static_cast<std::size_t>(j) * w + h];
      for (int j = 0; j < k; ++j) v[static_cast<std::size_t>(j) * w + h] -= q[b][j] * overlap;
    }
  const std::vector<float> vf(v.begin(), v.end());
  out.resize(static_cast<std::size_t>(base.SizeRows()) * w);
  RowProducts(base, vf.data(), w, out.data());
}

NCDataMatrix<float> DeferredResiduals::Form() const {
  NCDataMatrix<float> e = base;
  const int n = base.SizeRows(), k = base.SizeColumns(), m = static_cast<int>(q.size());
  if (m == 0) return e;
  // t_b = E_b q_b with E_b the residuals before deflation b: q_b carried back through 1..b-1.
  std::vector<double> v(static_cast<std::size_t>(k) * m, 0.0);
  for (int b = 0; b < m; ++b) {
    std::vector<double> d = q[static_cast<std::size_t>(b)];
    for (int c = b; c-- > 0;) {
      double overlap = 0;
      for (int j = 0; j < k; ++j) overlap += p[c][j] * d[j];
      for (int j = 0; j < k; ++j) d[j] -= q[c][j] * overlap;
    }
    for (int j = 0; j < k; ++j) v[static_cast<std::size_t>(j) * m + b] = d[j];
  }
  const std::vector<float> vf(v.begin(), v.end());
  std::vector<float> t(static_cast<std::size_t>(n) * m);
  RowProducts(base, vf.data(), m, t.data());
  std::vector<std::vector<float>> columns(static_cast<std::size_t>(m), std::vector<float>(n));
  std::vector<std::vector<float>> loadings(static_cast<std::size_t>(m));
  std::vector<const float*> ts, ps;
  for (int b = 0; b < m; ++b) {
    for (int i = 0; i < n; ++i) columns[b][i] = t[static_cast<std::size_t>(i) * m + b];
    loadings[b].assign(p[b].begin(), p[b].end());
    ts.push_back(columns[b].data());
    ps.push_back(loadings[b].data());
  }
  SubtractOuterProducts(e, ts, ps);
  return e;
}

void SubtractOuterProducts(NCDataMatrix<float>& m, const std::vector<const float*>& t,
                           const std::vector<const float*>& p) {
  const int n = m.SizeRows(), k = m.SizeColumns();
  if (n == 0 || k == 0 || t.empty()) return;
  m.Unlink();
  std::vector<char> marker(static_cast<std::size_t>(n), 0);
  const int blocks = (n + kGramBlockRows - 1) / kGramBlockRows;
  ParallelFor(blocks, [&](int b) {
    const int end = std::min(n, (b + 1) * kGramBlockRows);
    for (int i = b * kGramBlockRows; i < end; ++i) {
      NCDataVector<float>& row = m(i + 1);
      row.Unlink();
      float* e = row.GetVector() + 1;
      for (std::size_t l = 0; l < t.size(); ++l) {
        const float s = -t[l][i];
        const float* v = p[l];
        for (int j = 0; j < k; ++j) e[j] += s * v[j];
      }
      for (int j = 0; j < k; ++j)
        if (e[j] == -99.0f) marker[static_cast<std::size_t>(i)] = 1;
    }
  });
  for (int i = 0; i < n; ++i)
    if (marker[static_cast<std::size_t>(i)]) {
      float* e = m(i + 1).GetVector() + 1;
      for (int j = 0; j < k; ++j)
        if (e[j] == -99.0f) {
          e[j] = 0;
          m(i + 1, j + 1, -99.0f);  // through the counting write
        }
    }
}

}  // namespace mvda::detail
