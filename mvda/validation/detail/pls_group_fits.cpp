#include <mvda/containers/detail/parallel_for.h>
#include <mvda/models/detail/gram.h>
#include <mvda/validation/detail/batched_regressions.h>
#include <mvda/validation/detail/pls_group_fits.h>
#include <mvda/validation/detail/pls_group_grams.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <numeric>

#include <cblas.h>

namespace mvda::detail {

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
using Block = std::vector<float>;  // one column per group, row-major

constexpr float kMis = -99.0f;

// NCPLS::NextComponent's convergence value: 10 (log10 d + 10), which reaches 0 at d = 1e-10; -1
// below 1e-30 and for a change that could not be computed (-99).
double ConvergenceValue(double d) { return d >= 1e-30 ? 10.0 * (std::log10(d) + 10.0) : -1.0; }

// Column h of a block with g columns and `count` rows, as a vector.
Vector Gather(const Block& block, int g, int h, int count) {
  Vector v(count, 0.0f);
  v.Unlink();
  float* to = v.GetVector();
  int missing = 0;
  for (int r = 1; r <= count; ++r) {
    to[r] = block[static_cast<std::size_t>(r - 1) * g + h];
    missing += to[r] == kMis;
  }
  v.SetNumMisVal(missing);
  return v;
}

// Element r of v to row rows[r - 1] (row r when rows is null) of column h.
void Scatter(const Vector& v, Block& block, int g, int h, const int* rows = nullptr) {
  for (int r = 1; r <= v.Size(); ++r)
    block[static_cast<std::size_t>((rows ? rows[r - 1] : r) - 1) * g + h] = v[r];
}

// Column h of the block becomes -99 at the rows that group fits[batch[h]] leaves out.
void LeaveOut(Block& block, const std::vector<int>& batch, const std::vector<PlsGroupFit>& fits) {
  const int g = static_cast<int>(batch.size());
  for (int h = 0; h < g; ++h)
    for (const int i : fits[batch[h]].test) block[static_cast<std::size_t>(i - 1) * g + h] = kMis;
}

// The Y half of a NIPALS step for the groups of the batch: their X scores t (N rows) lose the
// left-out rows, then c = Y_S't / t't (M rows) and u = Y_S c / c'c (N rows, again without the
// left-out rows).
void YHalfStep(const BatchedRegressions& y, const std::vector<int>& batch,
               const std::vector<PlsGroupFit>& fits, Block& t, Block& c, Block& u) {
  const int g = static_cast<int>(batch.size());
  LeaveOut(t, batch, fits);
  c.assign(static_cast<std::size_t>(y.Columns()) * g, 0.0f);
  y.RegressColumns(t.data(), g, false, c.data());
  u.assign(static_cast<std::size_t>(y.Rows()) * g, 0.0f);
  y.RegressRows(c.data(), g, false, u.data());
  LeaveOut(u, batch, fits);
}

int Count(const std::vector<int>& rows) { return static_cast<int>(rows.size()); }

// out (N x groups, row-major) = x (N x K, complete) times q' (q: groups x K, row-major), and with
// rowSS the sum of squares of every row. Blocks of kGramBlockRows rows run on the library's team;
// within one, rows are packed a few at a time, as many as fit in 128 KiB (a buffer that malloc
// takes from its heap instead of mapping fresh pages for every block), and multiplied by one
// single-threaded sgemm: the same bits for any team.
void GroupScores(const Matrix& x, const float* q, int groups, float* out,
                 std::vector<double>* rowSS) {
  const int n = x.SizeRows(), k = x.SizeColumns();
  const int blocks = (n + kGramBlockRows - 1) / kGramBlockRows;
  const int batch = std::max(1, std::min(kGramBlockRows, (1 << 15) / std::max(k, 1)));
  ParallelFor(blocks, [&](int b) {
    const int last = std::min(n, (b + 1) * kGramBlockRows);
    std::vector<float> packed(static_cast<std::size_t>(batch) * k);
    for (int first = b * kGramBlockRows; first < last; first += batch) {
      const int rows = std::min(batch, last - first);
      for (int r = 0; r < rows; ++r) {
        const float* xi = x[first + r + 1].GetVector() + 1;
        std::copy(xi, xi + k, packed.data() + static_cast<std::size_t>(r) * k);
        if (rowSS)
          (*rowSS)[static_cast<std::size_t>(first + r)] = PlsGroupGrams::RowSumOfSquares(xi, k);
      }
      cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, rows, groups, k, 1.0f, packed.data(), k,
                  q, k, 0.0f, out + static_cast<std::size_t>(first) * groups, groups);
    }
  });
}

// The sub-models of complete X and Y with at least as many rows as columns, on the cross
// products of each group's training rows. Every iteration is then a product with K x K and K x M
// matrices, and the groups are fitted side by side, each by one thread; one more pass over X forms
// the scores of all groups, and with rowSS the sums of squares of its rows.
void FitOnGram(const Matrix& x, const Vector& w, int maxIterations,
               const std::vector<CrossProducts>& training, std::vector<PlsGroupFit>& fits,
               std::vector<double>* rowSS) {
  const int n = x.SizeRows(), k = x.SizeColumns(), m = training.front().m;
  const int groups = static_cast<int>(fits.size());
  std::vector<float> q(static_cast<std::size_t>(k) * groups);  // one row per group
  ParallelFor(groups, [&](int g) {
    const CrossProducts& products = training[g];
    PlsGroupFit& f = fits[g];
    f.firstValue = 0;
    f.iterations = 0;
    // The start as NCPLS::NextComponent(reporter, &w, false, false) takes it: w's Y scores with
    // more than one Y column, the (only) Y column otherwise.
    const PlsGramFit fit = FitPlsOnGram(products.xx, products.xy, products.yy, k, m,
                                        m > 1 ? w.GetVector() + 1 : nullptr, maxIterations, false,
                                        0.0, [&](double value) {
                                          if (f.firstValue == 0 && f.iterations == 0)
                                            f.firstValue = value;
                                          ++f.iterations;
                                        });
    f.w.CopyZeroBasedVector(fit.w.data(), k);
    f.c.CopyZeroBasedVector(fit.c.data(), m);
    f.p.CopyZeroBasedVector(fit.p.data(), k);
    for (int j = 0; j < k; ++j)
      q[static_cast<std::size_t>(g) * k + j] = static_cast<float>(fit.q[j]);
  });
  // t = X q of every group in one pass: the training rows are its scores, the test rows its
  // regressions on w (w / w'w = q).
  std::vector<float> t(static_cast<std::size_t>(n) * groups);
  GroupScores(x, q.data(), groups, t.data(), rowSS);
  for (int g = 0; g < groups; ++g) {
    PlsGroupFit& f = fits[g];
    f.testScores.resize(f.test.size());
    for (std::size_t r = 0; r < f.test.size(); ++r) {
      const std::size_t at = static_cast<std::size_t>(f.test[r] - 1) * groups + g;
      f.testScores[r] = t[at];
      t[at] = kMis;
    }
    f.t = Gather(t, groups, g, n);
  }
}

}  // namespace

void PlsGroupFit::Replay(NCProgress& reporter) const {
  reporter.SetRange(firstValue == 0.0 ? 1.0 : -firstValue, 0.0);
}

// NIPALS PLS (Wold), as NCPLS::NextComponent runs it, for every group at once: each regression is
// one batched product over all of X or Y, a group's left-out rows marked -99 in its column so that
// they take no part, and what the row regressions give for those rows dropped again. A group's
// vectors keep N elements, -99 at its left-out rows: over the pairs present in both, the
// convergence measure then sees exactly the training rows.
std::vector<PlsGroupFit> FitPlsGroups(const Matrix& x, const Matrix& y, const Vector& w,
                                      const NCIntegralVector<int, -99>& groupIds, int groups,
                                      int maxIterations, PlsGroupGrams* grams) {
  const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
  std::vector<PlsGroupFit> fits(static_cast<std::size_t>(groups));
  for (int i = 1; i <= n; ++i)
    for (int g = 0; g < groups; ++g) (groupIds[i] == g ? fits[g].test : fits[g].train).push_back(i);
  if (grams) {
    // The kept products are checked against the residuals in the pass that forms the scores,
    // and the groups fitted again should they no longer match.
    std::vector<double> rowSS(static_cast<std::size_t>(n));
    FitOnGram(x, w, maxIterations, grams->Training(), fits, &rowSS);
    if (!grams->Verify(x, y, rowSS))
      FitOnGram(x, w, maxIterations, grams->Training(), fits, nullptr);
    return fits;
  }
  const BatchedRegressions xs(x), ys(y);
  std::vector<int> batch(static_cast<std::size_t>(groups));  // the groups still iterating
  std::iota(batch.begin(), batch.end(), 0);
  Block t, c, u, wb;

  // The start: with more than one Y column, the Y scores that the X scores of w predict (those X
  // scores are the same for every group, each reading its own rows); with one, that column.
  if (m > 1) {
    Vector start;
    x.Result(&start).RegressRows(w);
    t.resize(static_cast<std::size_t>(n) * groups);
    for (int i = 1; i <= n; ++i)
      std::fill_n(t.begin() + static_cast<std::ptrdiff_t>(i - 1) * groups, groups, start[i]);
    YHalfStep(ys, batch, fits, t, c, u);
  } else {
    u.assign(static_cast<std::size_t>(n) * groups, kMis);
    for (int g = 0; g < groups; ++g) {
      Matrix training = y;  // shares the rows; removing the test rows copies no element
      training.RemoveRows(NCIntegralVector<int, -99>(fits[g].test.data(), Count(fits[g].test)));
      Scatter(training.GetNIPALSStartColumn(), u, groups, g, fits[g].train.data());
    }
  }
  std::vector<Vector> scoresY(static_cast<std::size_t>(groups));
  for (int g = 0; g < groups; ++g) scoresY[g] = Gather(u, groups, g, n);

  // A group that stops leaves the batch with the vectors of its own last iteration.
  while (!batch.empty()) {
    const int a = Count(batch);
    u.assign(static_cast<std::size_t>(n) * a, kMis);
    for (int h = 0; h < a; ++h) Scatter(scoresY[batch[h]], u, a, h);
    wb.assign(static_cast<std::size_t>(k) * a, 0.0f);
    xs.RegressColumns(u.data(), a, false, wb.data());
    for (int h = 0; h < a; ++h) {
      Vector& wg = fits[batch[h]].w;
      wg = Gather(wb, a, h, k);
      wg.Normalise();
      Scatter(wg, wb, a, h);
    }
    t.assign(static_cast<std::size_t>(n) * a, 0.0f);
    xs.RegressRows(wb.data(), a, false, t.data());
    for (int h = 0; h < a; ++h) {
      PlsGroupFit& f = fits[batch[h]];
      f.testScores.resize(f.test.size());
      for (std::size_t r = 0; r < f.test.size(); ++r)
        f.testScores[r] = t[static_cast<std::size_t>(f.test[r] - 1) * a + h];
    }
    YHalfStep(ys, batch, fits, t, c, u);
    std::vector<int> going;
    for (int h = 0; h < a; ++h) {
      const int g = batch[h];
      PlsGroupFit& f = fits[g];
      f.t = Gather(t, a, h, n);
      f.c = Gather(c, a, h, m);
      const Vector previous = scoresY[g];
      scoresY[g] = Gather(u, a, h, n);
      ++f.iterations;
      // With one Y column u is y / c whatever w is, so one iteration is the converged answer.
      const double value =
          m > 1 ? ConvergenceValue(static_cast<double>(scoresY[g].Difference(previous))) : 0.0;
      if (f.iterations == 1) f.firstValue = value;
      if (value > 0.0 && f.iterations < maxIterations) going.push_back(g);
    }
    batch.swap(going);
  }

  // The loadings p = X_S't / t't of all groups in one product.
  t.assign(static_cast<std::size_t>(n) * groups, kMis);
  for (int g = 0; g < groups; ++g) Scatter(fits[g].t, t, groups, g);
  wb.assign(static_cast<std::size_t>(k) * groups, 0.0f);
  xs.RegressColumns(t.data(), groups, false, wb.data());
  for (int g = 0; g < groups; ++g) fits[g].p = Gather(wb, groups, g, k);
  return fits;
}

}  // namespace mvda::detail
