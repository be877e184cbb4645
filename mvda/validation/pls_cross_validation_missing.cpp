// PLSMissingValueEstimator: missing X values from a cross-validated PLS model of X and Y.
#include <mvda/platform/error.h>
#include <mvda/validation/pls_cross_validation.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;

constexpr float kMis = -99.0f;
constexpr int kMaxIterations = 200;
constexpr int kGroups = 7;

// Column centres and spreads of an autoscaling; a column without present values has no centre.
struct ColumnScaling {
  std::vector<double> mean, sd;
};

// Centres every column and divides it by its standard deviation (divisor n - 1); a column without
// spread is only centred, one without present values stays missing.
ColumnScaling Autoscale(Matrix& a) {
  const int k = a.SizeColumns();
  ColumnScaling s{std::vector<double>(static_cast<std::size_t>(k) + 1, kMis),
                  std::vector<double>(static_cast<std::size_t>(k) + 1, 1.0)};
  Vector centre(k, kMis), factor(k, kMis);
  for (int j = 1; j <= k; ++j) {
    const long double mean = a.GetColumnMean(j);
    if (mean == kMis) continue;
    const long double sd = a.GetColumnStdDev(j);
    s.mean[j] = static_cast<double>(mean);
    if (sd != kMis && sd > 0) s.sd[j] = static_cast<double>(sd);
    centre(j, static_cast<float>(s.mean[j]));
    factor(j, static_cast<float>(1.0 / s.sd[j]));
  }
  a.TransformToDotSubRowVector(centre);
  a.DotMultiplyVector(factor);
  return s;
}

Vector ColumnSS(const Matrix& a) {
  Vector ss(a.SizeColumns(), 0.0f);
  for (int j = 1; j <= a.SizeColumns(); ++j) ss(j, static_cast<float>(a.GetColumnSS(j)));
  return ss;
}

// The share of `initial` that the step from `before` to `after` took away; 0 where there was
// nothing to explain.
double Explained(long double before, long double after, long double initial) {
  if (initial == kMis || !(initial > 0) || before == kMis || after == kMis) return 0.0;
  return static_cast<double>((before - after) / initial);
}

// Grows a model of x on y while the cross-validation keeps each component; returns how many are
// kept (the first one found not significant is not).
int FitSignificantComponents(NCPLS& model, NCProgress* progress) {
  const Matrix& x = *model.GetXResiduals();
  const Matrix& y = *model.GetYResiduals();
  const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
  const Vector initialSS = ColumnSS(y);
  const long double initialTotal = y.GetSS();
  PLSCrossValidation cv(&model, kGroups, nullptr);
  int kept = 0;
  // Ends at the latest when a reaches min(K, N - 3), which GetSignificance calls N3.
  for (int a = 1;; ++a) {
    try {
      model.NextComponent(nullptr, nullptr, false, true);
    } catch (const NCPLSDegenerateError&) {
      break;  // nothing left in X that relates to Y
    }
    cv.NextComponent(&(*model.GetWprim())[a], kMaxIterations, initialSS, progress, false);
    const long double before = y.GetSS();
    const Vector columnsBefore = ColumnSS(y);
    model.CalculateResiduals();
    const float r2y = static_cast<float>(Explained(before, y.GetSS(), initialTotal));
    Vector r2yVar(m, 0.0f);
    for (int j = 1; j <= m; ++j)
      r2yVar(j, static_cast<float>(Explained(columnsBefore[j], y.GetColumnSS(j), initialSS[j])));
    const SignificanceE::Significance verdict = PLSCrossValidation::GetSignificance(
        n, k, m, a, r2y, r2yVar, cv.GetQ2Tot(), *cv.GetQ2YVar(), cv.GetQ2Lim());
    if (!SignificanceE::IsSignificant(verdict)) break;
    kept = a;
  }
  return kept;
}

}  // namespace

void PLSMissingValueEstimator(NCDataMatrix<float>& x, NCDataMatrix<float>& y, bool scale,
                              NCProgress* progress) {
  const char* place = "PLSMissingValueEstimator: ";
  if (y.SizeRows() != x.SizeRows())
    throw NCError(place + ("X has " + std::to_string(x.SizeRows())) + " rows but Y has " +
                  std::to_string(y.SizeRows()));
  if (y.SizeColumns() < 1) throw NCError(std::string(place) + "Y has no columns");
  if (x.GetNumMisVal() == 0) return;

  const int n = x.SizeRows(), k = x.SizeColumns();
  Matrix xs(x), ys(y);
  ColumnScaling xScaling;
  if (scale) {
    xScaling = Autoscale(xs);
    Autoscale(ys);
  }

  // With min(K, N - 3) <= 1 even the first component counts as too many (N3), so no fit is
  // needed: every estimate is the empty sum 0, the column mean of scaled data.
  NCPLS model(&xs, &ys, kMaxIterations);
  const int kept = std::min(k, n - 3) > 1 ? FitSignificantComponents(model, progress) : 0;

  const Matrix& tprim = *model.GetTprim();
  const Matrix& pprim = *model.GetPprim();
  std::vector<std::pair<int, int>> cells;  // the missing cells of X, as (i, j)
  for (int i = 1; i <= n; ++i) {
    const Vector& row = x[i];
    if (row.GetNumMisVal() == 0) continue;
    for (int j = 1; j <= k; ++j)
      if (row[j] == kMis) cells.emplace_back(i, j);
  }
  for (const auto& [i, j] : cells) {
    if (scale && xScaling.mean[j] == kMis) continue;  // no value to return to
    double sum = 0.0;
    for (int a = 1; a <= kept; ++a) {
      const float t = tprim[a][i], p = pprim[a][j];
      if (t != kMis && p != kMis) sum += static_cast<double>(t) * p;
    }
    if (scale) sum = sum * xScaling.sd[j] + xScaling.mean[j];
    x(i, j, static_cast<float>(sum));
  }
}
