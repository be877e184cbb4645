// CrossProducts, FormCrossProducts: the Gram matrices X'X, X'Y and Y'Y of complete data, on which
// the models iterate instead of on the data themselves, and RowProducts, the one pass over the
// data that turns their results back into scores.
#ifndef MVDA_MODELS_DETAIL_GRAM_H_
#define MVDA_MODELS_DETAIL_GRAM_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/mvda_export.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace mvda::detail {

// Rows per block of the passes over the data that form scores and residuals.
inline constexpr int kGramBlockRows = 512;

// The cross products of one set of rows, in double, row-major: xx is K x K (full, symmetric), xy
// K x M and yy M x M (empty without Y).
struct CrossProducts {
  int k = 0, m = 0;
  std::vector<double> xx, xy, yy;
};

// The cross products of every set of rows (0-based row numbers, any order; an empty list of sets
// means one set of all rows in order) of x and, when given, y (same row count). x and y must have
// no missing value: the caller checks. Formed by BlockedCrossProduct (blocks of rows cut by the
// sizes alone, single-threaded BLAS per block, block sums added in a fixed order), so the result
// is the same bits for any number of threads. Small data (N K (K + M) up to 2^25) are multiplied
// in double, larger ones in single precision; the results are widened to double for the
// iterations.
MVDA_EXPORT std::vector<CrossProducts> FormCrossProducts(
    const NCDataMatrix<float>& x, const NCDataMatrix<float>* y,
    const std::vector<std::vector<int>>& rowSets);

// out (N x q, row-major) = x (N x K, complete) times v (K x q, row-major): the scores of q
// directions in one pass over x, by blocks of rows on the library's team.
MVDA_EXPORT void RowProducts(const NCDataMatrix<float>& x, const float* v, int q, float* out);

// X X' (N x N, row-major, full, in double) of a complete x: the Gram matrix of the rows, on which
// the PCA of wide data (more columns than rows) iterates. Blocks of kGramBlockRows columns cut by
// the sizes alone, one single-threaded syrk each, their sums added in double in block order: the
// same bits for any team. Small data (N N K up to 2^25) in double, larger in single precision.
MVDA_EXPORT std::vector<double> RowGram(const NCDataMatrix<float>& x);

// out (K x w, row-major) = x' v for a complete x (N x K) and v (N x w, row-major), in double:
// bands of 256 columns on the library's team, each summing its rows in order.
MVDA_EXPORT void TransposeTimes(const NCDataMatrix<float>& x, const double* v, int w, double* out);

// The sum of squares of each column of a complete x, in double, bands of columns on the team.
MVDA_EXPORT std::vector<double> ColumnSumsOfSquares(const NCDataMatrix<float>& x);

// y = G x for a symmetric K x K matrix G (row-major, both halves present).
MVDA_EXPORT void SymmetricTimes(const std::vector<double>& g, int k, const double* x, double* y);

// m (complete) less sum over l of t[l] p[l]' (t[l]: one element per row of m, p[l]: one per
// column), the terms taken in order of l, row by row in one pass over m on the library's team. A
// result that lands exactly on the missing marker counts as missing, as after every write.
void SubtractOuterProducts(NCDataMatrix<float>& m, const std::vector<const float*>& t,
                           const std::vector<const float*>& p);

// G (K x K, row-major, both halves) of rows E becomes that of E - t p' with t = E p / p'p: the
// deflation by a component whose scores are the rows' own regression on p. In double, on the
// calling thread (callers deflate several matrices in parallel).
MVDA_EXPORT void DeflateGram(std::vector<double>& g, int k, const float* p);

// Residuals kept deferred as base (I - q_1 p_1') ... (I - q_m p_m'), q = p / p'p: E after m
// deflations by components whose scores are E's own regressions on their loadings. A value: base
// shares its rows copy-on-write, so later writes to the model's residuals do not reach it.
struct DeferredResiduals {
  NCDataMatrix<float> base;
  std::vector<std::vector<double>> q, p;  // of each deflation, in order

  // out (N x w, row-major) = E v for v (K x w, row-major): the directions carried back through
  // the deflations, then one pass over base.
  MVDA_EXPORT void Times(std::vector<double> v, int w, std::vector<float>& out) const;
  // E itself: the scores of every deflation in one pass, subtracted from a copy of base.
  MVDA_EXPORT NCDataMatrix<float> Form() const;
};

// What the cross-validation of the last component reads of a model fitted on the Gram matrix.
struct PcaGramState {
  const std::vector<double>* gram = nullptr;                     // E'E, K x K
  const std::vector<std::vector<double>>* groupGrams = nullptr;  // E_g'E_g of each row group
  std::vector<double> q, gq;  // the last component: t = E q, E't = gq
  double tt = 0;              // t't
  DeferredResiduals residuals;
};

// One PCA component by NIPALS on a Gram matrix G = E'E (K x K), as NCPCA::NextComponent iterates
// on E: p = the floored column regression E't / t't normalised, t = E p / p'p, until the
// measure c = 10 (log10 d + 10) of d = sum (t - t_old)^2 / sum t^2 reaches 0 or maxIterations
// are spent. Scores are carried as t = E q. The start t_0 enters through v0 = E't_0 and
// tt0 = t_0't_0, and through q0 when t_0 = E q0 (then the first change is formed as dq'G dq,
// free of cancellation; else as q'G q - 2 q'v0 + tt0). Variables with keep[j] == 0 take no part
// (their loading is 0 here; the caller marks it missing). measure(c) is called after every
// iteration and may stop the fit by returning false. failed: a change or length that is not
// finite (the fit then stops).
struct PcaGramFit {
  std::vector<float> p;       // the last loading, of unit length
  std::vector<double> q, gq;  // its t = E q, and G q = E't
  double tt = 0;              // t't
  int iterations = 0;
  bool failed = false;
};
template <class Measure>
PcaGramFit FitPcaOnGram(const std::vector<double>& g, int k, const std::vector<char>* keep,
                        const std::vector<double>& v0, double tt0, const std::vector<double>* q0,
                        int maxIterations, Measure&& measure);

// The floored column regression coefficient of SpecialNipalsRegressColumnsFix for a complete
// column: a sum of squares b below 1e-30 counts as no signal.
inline float FixedCoefficient(double a, double b) {
  const double all = b;
  if (b < 1e-30) a = b = 0;
  return static_cast<float>(static_cast<long double>(a) / std::max(b, all / 3));
}

template <class Measure>
PcaGramFit FitPcaOnGram(const std::vector<double>& g, int k, const std::vector<char>* keep,
                        const std::vector<double>& v0, double tt0, const std::vector<double>* q0,
                        int maxIterations, Measure&& measure) {
  PcaGramFit fit;
  fit.p.assign(static_cast<std::size_t>(k), 0.0f);
  std::vector<double> q(k), gq(k), qOld(k, 0.0), gqOld = v0;
  if (q0) qOld = *q0;
  double tt = tt0;
  const auto in = [&](int j) { return !keep || (*keep)[static_cast<std::size_t>(j)]; };
  for (;;) {
    double ss = 0;
    for (int j = 0; j < k; ++j) {
      fit.p[j] = in(j) ? FixedCoefficient(gqOld[j], tt) : 0.0f;
      ss += static_cast<double>(fit.p[j]) * fit.p[j];
    }
    const double norm = std::sqrt(ss);
    if (norm != 0)
      for (int j = 0; j < k; ++j) fit.p[j] = static_cast<float>(fit.p[j] / norm);
    double s = 0;
    for (int j = 0; j < k; ++j) s += static_cast<double>(fit.p[j]) * fit.p[j];
    for (int j = 0; j < k; ++j) q[j] = fit.p[j] / s;
    SymmetricTimes(g, k, q.data(), gq.data());
    double length = 0, change = 0;
    for (int j = 0; j < k; ++j) length += q[j] * gq[j];
    if (fit.iterations == 0 && !q0) {
      double cross = 0;
      for (int j = 0; j < k; ++j) cross += q[j] * v0[j];
      change = length - 2 * cross + tt0;
    } else {
      for (int j = 0; j < k; ++j) change += (q[j] - qOld[j]) * (gq[j] - gqOld[j]);
    }
    ++fit.iterations;
    q.swap(qOld);
    gq.swap(gqOld);
    tt = length;
    if (!std::isfinite(change) || !std::isfinite(length)) {
      fit.failed = true;
      break;
    }
    const double d = length <= 1e-30 ? 1e30 : change / length;
    const double c = d > 1e-30 ? 10 * (std::log10(d) + 10) : -1.0;
    if (!measure(c) || c <= 0 || fit.iterations >= maxIterations) break;
  }
  fit.q = std::move(qOld);
  fit.gq = std::move(gqOld);
  fit.tt = tt;
  return fit;
}

// One PLS component by NIPALS on the cross products XX = X'X (K x K), XY = X'Y (K x M) and
// YY = Y'Y (M x M), as NCPLS::NextComponent iterates on X and Y, with t = X q (q = w / w'w) and
// u = Y g (g = c / c'c): X'u = XY g, u'u = g'YY g, Y't = XY'q, t't = q'XX q, X't = XX q. The
// start: with start weights (K floats, complete) the Y scores their X scores predict, else the
// Y column of largest sum of squares. value(v) is called after every iteration with the
// convergence value (0 for one Y column). With strict, the size test sqrt(w'w) sqrt(u'u) / rootSSX
// (rootSSX = sqrt(SS(X))) is made before each normalisation; a degenerate component stops the fit
// at once.
struct PlsGramFit {
  std::vector<float> w, c, p;  // the last weights and Y weights, and p = X't / t't
  std::vector<double> q, g;    // t = X q, u = Y g
  double tt = 0;               // t't
  int iterations = 0;
  bool degenerate = false;
};

// A plain regression coefficient as RegressColumns and RegressRows form it for complete data: a
// sum of squares below 1e-30 counts as no signal, which gives 0/0.
inline double PlainCoefficient(double a, double b) {
  if (b < 1e-30) a = b = 0;
  return a / b;
}

// NCDataVector::Difference of u = Y g and u_old = Y old: sum (u - u_old)^2 / sum u^2, -99 when not
// finite, 1e30 for a u of practically no length.
inline double ScoreChange(const std::vector<double>& yy, const std::vector<double>& g,
                          const std::vector<double>& old) {
  const int m = static_cast<int>(g.size());
  double change = 0, length = 0;
  for (int j = 0; j < m; ++j)
    for (int l = 0; l < m; ++l) {
      const double y = yy[static_cast<std::size_t>(j) * m + l];
      change += (g[j] - old[j]) * y * (g[l] - old[l]);
      length += g[j] * y * g[l];
    }
  if (!std::isfinite(change) || !std::isfinite(length)) return -99.0;
  if (length <= 1e-30) return 1e30;
  return change / length;
}

template <class Value>
PlsGramFit FitPlsOnGram(const std::vector<double>& XX, const std::vector<double>& XY,
                        const std::vector<double>& YY, int k, int m, const float* startWeights,
                        int maxIterations, bool strict, double rootSSX, Value&& value) {
  PlsGramFit fit;
  std::vector<float>&w = fit.w, &c = fit.c;
  w.assign(static_cast<std::size_t>(k), 0.0f);
  c.assign(static_cast<std::size_t>(m), 0.0f);
  std::vector<double> q(k), gq(k), g(m, 0.0), gOld(m);
  double tt = 0;
  const auto yWeights = [&] {  // from q: t't, c = Y't / t't, g = c / c'c
    SymmetricTimes(XX, k, q.data(), gq.data());
    tt = 0;
    for (int j = 0; j < k; ++j) tt += q[j] * gq[j];
    for (int l = 0; l < m; ++l) {
      double s = 0;
      for (int j = 0; j < k; ++j) s += XY[static_cast<std::size_t>(j) * m + l] * q[j];
      c[l] = static_cast<float>(PlainCoefficient(s, tt));
    }
    double cc = 0;
    for (int l = 0; l < m; ++l) cc += static_cast<double>(c[l]) * c[l];
    for (int l = 0; l < m; ++l) g[l] = PlainCoefficient(c[l], cc);
  };
  if (startWeights) {
    double ww = 0;
    for (int j = 0; j < k; ++j) ww += static_cast<double>(startWeights[j]) * startWeights[j];
    for (int j = 0; j < k; ++j) q[j] = PlainCoefficient(startWeights[j], ww);
    yWeights();
  } else {
    int index = 0;  // as GetNIPALSStartColumn picks it
    if (m > 1) {
      double best = 0;
      for (int l = 0; l < m; ++l) {
        const double ss = YY[static_cast<std::size_t>(l) * m + l];
        if (ss > best * 1.000001) {
          best = ss;
          index = l;
        }
      }
    }
    g[index] = 1.0;
  }
  const double smallest = 1e-6 / std::sqrt(static_cast<double>(k));
  double v = 0;
  do {
    gOld = g;
    double uu = 0;
    for (int j = 0; j < m; ++j)
      for (int l = 0; l < m; ++l) uu += g[j] * YY[static_cast<std::size_t>(j) * m + l] * g[l];
    double ss = 0;
    for (int j = 0; j < k; ++j) {
      double s = 0;
      for (int l = 0; l < m; ++l) s += XY[static_cast<std::size_t>(j) * m + l] * g[l];
      w[j] = static_cast<float>(PlainCoefficient(s, uu));
      ss += static_cast<double>(w[j]) * w[j];
    }
    if (strict) {
      const double size = std::sqrt(ss) * std::sqrt(uu) / rootSSX;
      if (!(std::isnormal(size) && size >= smallest)) {
        fit.degenerate = true;
        return fit;
      }
    }
    const double norm = std::sqrt(ss);
    if (norm != 0)
      for (int j = 0; j < k; ++j) w[j] = static_cast<float>(w[j] / norm);
    double ww = 0;
    for (int j = 0; j < k; ++j) ww += static_cast<double>(w[j]) * w[j];
    for (int j = 0; j < k; ++j) q[j] = PlainCoefficient(w[j], ww);
    yWeights();
    ++fit.iterations;
    const double d = m > 1 ? ScoreChange(YY, g, gOld) : 0.0;
    v = m > 1 ? (d >= 1e-30 ? 10.0 * (std::log10(d) + 10.0) : -1.0) : 0.0;
    value(v);
  } while (v > 0.0 && fit.iterations < maxIterations);
  fit.p.resize(static_cast<std::size_t>(k));
  for (int j = 0; j < k; ++j) fit.p[j] = static_cast<float>(PlainCoefficient(gq[j], tt));
  fit.q = std::move(q);
  fit.g = std::move(g);
  fit.tt = tt;
  return fit;
}

}  // namespace mvda::detail

#endif  // MVDA_MODELS_DETAIL_GRAM_H_
