#include <mvda/diagnostics/hotelling.h>
#include <mvda/diagnostics/pls_diagnostics.h>
#include <mvda/models/pls.h>
#include <mvda/platform/error.h>
#include <mvda/preprocess/scale.h>
#include <mvda/validation/pls_cross_validation.h>

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "support/csv.h"          // ReadCsv: the embedded datasets
#include "support/make_matrix.h"  // MakeMatrix

namespace {

using namespace mvda::diagnostics;
using Matrix = NCDataMatrix<float>;

// The diabetes data: ten predictors, the disease progression as the response, in the file's units.
struct Diabetes {
  std::vector<std::vector<double>> x;  // N rows of K
  std::vector<double> y;
};
Diabetes ReadDiabetes() {
  const CsvTable table = ReadCsv("diabetes.csv");
  Diabetes d;
  const int progression = table.Column("Progression");
  for (std::size_t i = 0; i < table.rows.size(); ++i) {
    std::vector<double> row;
    for (int j = 1; j < progression; ++j) row.push_back(table.Number(i, j));
    d.x.push_back(row);
    d.y.push_back(table.Number(i, progression));
  }
  return d;
}

Matrix ToMatrix(const std::vector<std::vector<double>>& rows) { return MakeMatrix(rows); }

NCScale UnitVariance(Matrix* m) {
  NCScale scale(m->SizeColumns());
  for (int j = 1; j <= m->SizeColumns(); ++j) scale.SetType(j, NCScale::kUnitVariance);
  scale.ScaleMatrix(m, true);
  return scale;
}

// Oracle: PLS1 by NIPALS in double on data centred and scaled to unit variance here (one response
// needs no iteration: w = X'y / |X'y|). Keeps the unit weights, the Y sum of squares each component
// explains, and the fitted response in the file's units.
struct Pls1 {
  std::vector<std::vector<double>> w;  // A x K
  std::vector<double> ssy_explained;   // A
  std::vector<double> fitted;          // N, original units
};
Pls1 OraclePls1(const Diabetes& d, int components) {
  const std::size_t n = d.y.size(), k = d.x[0].size();
  auto standardise = [n](std::vector<double> v, double* mean, double* sd) {
    double s = 0, ss = 0;
    for (double e : v) s += e;
    *mean = s / n;
    for (double e : v) ss += (e - *mean) * (e - *mean);
    *sd = std::sqrt(ss / (n - 1));
    for (double& e : v) e = (e - *mean) / *sd;
    return v;
  };
  std::vector<std::vector<double>> xs(k);  // columns
  for (std::size_t j = 0; j < k; ++j) {
    std::vector<double> column(n);
    for (std::size_t i = 0; i < n; ++i) column[i] = d.x[i][j];
    double mean, sd;
    xs[j] = standardise(column, &mean, &sd);
  }
  double my, sy;
  std::vector<double> y = standardise(d.y, &my, &sy);
  Pls1 out;
  std::vector<double> fitted(n, 0.0);
  for (int a = 0; a < components; ++a) {
    std::vector<double> w(k), t(n, 0.0);
    double norm = 0;
    for (std::size_t j = 0; j < k; ++j) {
      for (std::size_t i = 0; i < n; ++i) w[j] += xs[j][i] * y[i];
      norm += w[j] * w[j];
    }
    for (double& e : w) e /= std::sqrt(norm);
    for (std::size_t j = 0; j < k; ++j)
      for (std::size_t i = 0; i < n; ++i) t[i] += xs[j][i] * w[j];
    double tt = 0, yt = 0, before = 0, after = 0;
    for (std::size_t i = 0; i < n; ++i) tt += t[i] * t[i], yt += y[i] * t[i];
    const double c = yt / tt;
    for (std::size_t j = 0; j < k; ++j) {
      double pj = 0;
      for (std::size_t i = 0; i < n; ++i) pj += xs[j][i] * t[i];
      pj /= tt;
      for (std::size_t i = 0; i < n; ++i) xs[j][i] -= t[i] * pj;
    }
    for (std::size_t i = 0; i < n; ++i) {
      before += y[i] * y[i];
      y[i] -= c * t[i];
      after += y[i] * y[i];
      fitted[i] += c * t[i];
    }
    out.w.push_back(w);
    out.ssy_explained.push_back(before - after);
  }
  for (double& f : fitted) f = my + sy * f;
  out.fitted = fitted;
  return out;
}

// The library's model of the same data, A components, cross-validated with 7 groups on the way;
// q2 is the last component's own Q2 per response, press its PRESS from the prediction residuals.
struct LibraryFit {
  Matrix x, y;  // scaled
  NCScale x_scale, y_scale;
  NCPLS model;
  std::vector<double> q2, press;
  std::vector<int> present;
};
LibraryFit FitLibrary(const Matrix& x_raw, const Matrix& y_raw, int components) {
  LibraryFit fit;
  fit.x = x_raw;
  fit.y = y_raw;
  fit.x_scale = UnitVariance(&fit.x);
  fit.y_scale = UnitVariance(&fit.y);
  const int m = fit.y.SizeColumns();
  fit.model = NCPLS(&fit.x, &fit.y, 500);
  NCDataVector<float> initial_ss(m, 0.0f);
  for (int r = 1; r <= m; ++r) initial_ss(r, static_cast<float>(fit.y.GetColumnSS(r)));
  PLSCrossValidation cv(&fit.model, 7, nullptr);
  for (int a = 1; a <= components; ++a) {
    fit.model.NextComponent(nullptr, nullptr, true, true);
    cv.NextComponent(&(*fit.model.GetWprim())[a], 500, initial_ss, nullptr, true);
    fit.model.CalculateResiduals();
  }
  for (int r = 1; r <= m; ++r) {
    fit.q2.push_back((*cv.GetQ2YVar())[r]);
    fit.press.push_back(static_cast<double>(cv.GetYPredResiduals()->GetColumnSS(r)));
    int present = 0;
    for (int i = 1; i <= fit.y.SizeRows(); ++i) present += fit.y[i][r] != -99.0f;
    fit.present.push_back(present);
  }
  return fit;
}

TEST(PlsDiagnostics, DiabetesAgreesWithADoublePrecisionFit) {
  const Diabetes d = ReadDiabetes();
  const int n = static_cast<int>(d.y.size()), k = 10, components = 3;
  std::vector<std::vector<double>> y_rows;
  for (double v : d.y) y_rows.push_back({v});
  const Matrix x_raw = ToMatrix(d.x), y_raw = ToMatrix(y_rows);
  const LibraryFit fit = FitLibrary(x_raw, y_raw, components);
  const Pls1 oracle = OraclePls1(d, components);

  // VIP (Wold) from the oracle's weights and the fall of the Y sum of squares.
  const std::vector<double> vip = VIP(fit.model);
  ASSERT_EQ(vip.size(), static_cast<std::size_t>(k));
  double total = 0, mean_square = 0;
  for (double s : oracle.ssy_explained) total += s;
  for (int j = 0; j < k; ++j) {
    double sum = 0;
    for (int a = 0; a < components; ++a)
      sum += oracle.ssy_explained[a] * oracle.w[a][j] * oracle.w[a][j];
    EXPECT_NEAR(vip[j], std::sqrt(k * sum / total), 2e-4) << j;
    mean_square += vip[j] * vip[j] / k;
  }
  EXPECT_NEAR(mean_square, 1.0, 1e-6);

  // The coefficients reproduce the fitted response: in scaled units from the scaled X, and with
  // the intercept from the file's units.
  const PLSCoefficients b = RegressionCoefficients(fit.model, fit.x_scale, fit.y_scale);
  const Matrix fitted = FittedY(fit.model, fit.y_scale);
  ASSERT_EQ(b.intercepts.size(), 1u);
  const double sy = 1.0 / fit.y_scale.GetScale()[1], my = fit.y_scale.GetMean()[1];
  double ss_residual = 0;
  for (int i = 1; i <= n; ++i) {
    double scaled = 0, original = b.intercepts[0];
    for (int j = 1; j <= k; ++j) {
      scaled += double(b.scaled[j][1]) * fit.x[i][j];
      original += double(b.original[j][1]) * x_raw[i][j];
    }
    const double expected = oracle.fitted[i - 1];
    EXPECT_NEAR(my + sy * scaled, expected, 1e-4 * sy) << i;
    EXPECT_NEAR(original, expected, 1e-4 * sy) << i;
    EXPECT_NEAR(fitted[i][1], expected, 1e-4 * sy) << i;
    ss_residual += (d.y[i - 1] - expected) * (d.y[i - 1] - expected);
  }

  const std::vector<double> rmsee = RMSEE(y_raw, fitted, components);
  ASSERT_EQ(rmsee.size(), 1u);
  EXPECT_NEAR(rmsee[0], std::sqrt(ss_residual / (n - components - 1)), 1e-4 * rmsee[0]);

  // RMSECV from the reported Q2 equals the one from the cross-validation's own prediction
  // residuals, in the units of the response.
  const std::vector<double> rmsecv = RMSECV(fit.model, fit.y, fit.q2, fit.y_scale);
  EXPECT_NEAR(rmsecv[0], std::sqrt(fit.press[0] / n) * sy, 1e-4 * rmsecv[0]);
  EXPECT_GT(rmsecv[0], rmsee[0] * 0.9);  // cross-validated error is not much below the fit's
}

// Two responses, the second with gaps: RMSECV counts the present values of each response.
TEST(PlsDiagnostics, ResponsesWithGaps) {
  const Diabetes d = ReadDiabetes();
  const int n = static_cast<int>(d.y.size()), components = 2;
  std::vector<std::vector<double>> y_rows;
  for (int i = 0; i < n; ++i) {
    const bool gap = i % 9 == 4;
    y_rows.push_back({d.y[i], gap ? -99.0 : std::sqrt(d.y[i]) + 0.1 * d.x[i][2]});
  }
  const Matrix x_raw = ToMatrix(d.x), y_raw = ToMatrix(y_rows);
  const LibraryFit fit = FitLibrary(x_raw, y_raw, components);
  ASSERT_LT(fit.present[1], n);
  const std::vector<double> rmsecv = RMSECV(fit.model, fit.y, fit.q2, fit.y_scale);
  for (int r = 0; r < 2; ++r) {
    SCOPED_TRACE(r);
    const double sy = 1.0 / fit.y_scale.GetScale()[r + 1];
    EXPECT_NEAR(rmsecv[r], std::sqrt(fit.press[r] / fit.present[r]) * sy, 2e-4 * rmsecv[r]);
  }
}

TEST(PlsDiagnostics, PredictionErrorsByHand) {
  // Response 1: y = {1, 2, 3, -99}, yhat = {1.5, 2, 2, 7}: three pairs, PRESS 0.25 + 0 + 1 = 1.25,
  // mean 2 and SS 2, so RMSEP sqrt(1.25 / 3) and R² 1 - 1.25 / 2 = 0.375. Response 2: one pair
  // only (no R²). Response 3: a constant observed value (no R²).
  const Matrix observed = MakeMatrix({{1, 5, 4}, {2, -99, 4}, {3, -99, 4}, {-99, -99, 4}});
  const Matrix predicted = MakeMatrix({{1.5, 6, 4}, {2, 1, 3}, {2, 2, 4}, {7, 3, 4}});
  const PredictionErrors e = PredictionError(observed, predicted);
  ASSERT_EQ(e.rmsep.size(), 3u);
  EXPECT_EQ(e.count, (std::vector<int>{3, 1, 4}));
  EXPECT_NEAR(e.rmsep[0], std::sqrt(1.25 / 3), 1e-12);
  EXPECT_NEAR(e.r2[0], 0.375, 1e-12);
  EXPECT_NEAR(e.rmsep[1], 1.0, 1e-12);
  EXPECT_EQ(e.r2[1], kMissing);
  EXPECT_NEAR(e.rmsep[2], 0.5, 1e-12);
  EXPECT_EQ(e.r2[2], kMissing);
  // A prediction worse than the set's mean has a negative R².
  const Matrix bad = MakeMatrix({{3}, {2}, {1}});
  EXPECT_NEAR(PredictionError(MakeMatrix({{1}, {2}, {3}}), bad).r2[0], 1 - 8.0 / 2, 1e-12);
  EXPECT_THROW(PredictionError(observed, MakeMatrix({{1, 2}})), NCError);
}

TEST(PlsDiagnostics, BadArgumentsRefused) {
  const Matrix y = MakeMatrix({{1}, {2}, {3}});
  EXPECT_THROW(RMSEE(y, y, 2), NCError);  // N = 3 is not above A + 1
  EXPECT_THROW(RMSEE(y, MakeMatrix({{1}, {2}}), 0), NCError);
  EXPECT_NO_THROW(RMSEE(y, y, 1));
  EXPECT_THROW(VIP(NCPLS()), NCError);

  const Diabetes d = ReadDiabetes();
  std::vector<std::vector<double>> y_rows;
  for (double v : d.y) y_rows.push_back({v});
  const LibraryFit fit = FitLibrary(ToMatrix(d.x), ToMatrix(y_rows), 1);
  EXPECT_THROW(RMSECV(fit.model, fit.y, {0.5, 0.5}, fit.y_scale), NCError);
  EXPECT_THROW(RMSECV(fit.model, fit.x, fit.q2, fit.y_scale), NCError);
  EXPECT_THROW(RegressionCoefficients(fit.model, fit.y_scale, fit.y_scale), NCError);
  EXPECT_THROW(FittedY(fit.model, fit.x_scale), NCError);
}

}  // namespace
