#include <mvda/containers/data_matrix.h>
#include <mvda/models/pls.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/csv.h"  // ReadCsv("name.csv"): the embedded datasets under data/

namespace {

using Columns = std::vector<std::vector<double>>;  // column-major: data[j][i]

// Centred and divided by the standard deviation (divisor n - 1), in double.
void ScaleToUnitVariance(std::vector<double>& v) {
  double mean = 0, ss = 0;
  for (double x : v) mean += x;
  mean /= v.size();
  for (double x : v) ss += (x - mean) * (x - mean);
  const double sd = std::sqrt(ss / (v.size() - 1));
  for (double& x : v) x = (x - mean) / sd;
}

// Textbook PLS1 by NIPALS (Wold), plain double precision on complete data:
//   w = E'f / |E'f|, t = E w, p = E't / t't, q = f't / t't, E -= t p', f -= t q.
struct TextbookPls1 {
  Columns w, t, p;
  std::vector<double> q;

  TextbookPls1(Columns e, std::vector<double> f, int components) {
    const std::size_t n = f.size(), k = e.size();
    for (int a = 0; a < components; ++a) {
      std::vector<double> wa(k), ta(n, 0.0), pa(k);
      double norm = 0;
      for (std::size_t j = 0; j < k; ++j) {
        for (std::size_t i = 0; i < n; ++i) wa[j] += e[j][i] * f[i];
        norm += wa[j] * wa[j];
      }
      for (double& x : wa) x /= std::sqrt(norm);
      for (std::size_t j = 0; j < k; ++j)
        for (std::size_t i = 0; i < n; ++i) ta[i] += e[j][i] * wa[j];
      double tt = 0, ft = 0;
      for (std::size_t i = 0; i < n; ++i) tt += ta[i] * ta[i], ft += f[i] * ta[i];
      for (std::size_t j = 0; j < k; ++j) {
        double et = 0;
        for (std::size_t i = 0; i < n; ++i) et += e[j][i] * ta[i];
        pa[j] = et / tt;
        for (std::size_t i = 0; i < n; ++i) e[j][i] -= ta[i] * pa[j];
      }
      q.push_back(ft / tt);
      for (std::size_t i = 0; i < n; ++i) f[i] -= ta[i] * q.back();
      w.push_back(wa), t.push_back(ta), p.push_back(pa);
    }
  }
};

double MaxAbs(const std::vector<double>& v) {
  double m = 0;
  for (double x : v) m = std::max(m, std::fabs(x));
  return m;
}

// Compares up to the component's sign, to single precision relative to the vector's largest
// element.
void ExpectSameUpToSign(const NCDataVector<float>& actual, const std::vector<double>& expected,
                        double sign, const char* what) {
  ASSERT_EQ(actual.Size(), static_cast<int>(expected.size())) << what;
  const double tolerance = 5e-6 * MaxAbs(expected);
  for (int i = 1; i <= actual.Size(); ++i)
    EXPECT_NEAR(sign * actual[i], expected[i - 1], tolerance) << what << " element " << i;
}

// The diabetes data of Efron et al. (2004): ten predictors, disease progression as the response.
TEST(PlsTextbook, SingleResponseMatchesClassicNipalsOnDiabetesData) {
  const CsvTable table = ReadCsv("diabetes.csv");
  const char* predictors[] = {"Age", "Sex", "BMI", "BP", "TC", "LDL", "HDL", "TCH", "LTG", "GLU"};
  const int n = static_cast<int>(table.rows.size()), k = 10, components = 4;
  ASSERT_EQ(n, 442);
  Columns x;
  for (const char* name : predictors) {
    std::vector<double> column;
    for (int i = 0; i < n; ++i) column.push_back(table.Number(i, table.Column(name)));
    ScaleToUnitVariance(column);
    x.push_back(column);
  }
  std::vector<double> y;
  for (int i = 0; i < n; ++i) y.push_back(table.Number(i, table.Column("Progression")));
  ScaleToUnitVariance(y);

  NCDataMatrix<float> xm(n, k, 0.0f);
  NCDataVector<float> ym(n, 0.0f);
  for (int i = 1; i <= n; ++i) {
    for (int j = 1; j <= k; ++j) xm(i, j, static_cast<float>(x[j - 1][i - 1]));
    ym(i, static_cast<float>(y[i - 1]));
  }
  NCPLS model(&xm, &ym, 100);
  for (int a = 1; a <= components; ++a) {
    model.NextComponent(nullptr, nullptr, true, true);
    EXPECT_EQ(model.GetIterations(), 1);
    model.CalculateResiduals();
  }

  const TextbookPls1 book(x, y, components);
  for (int a = 1; a <= components; ++a) {
    SCOPED_TRACE("component " + std::to_string(a));
    const NCDataVector<float>& w = (*model.GetWprim())[a];
    double dot = 0;
    for (int j = 1; j <= k; ++j) dot += w[j] * book.w[a - 1][j - 1];
    const double sign = dot < 0 ? -1 : 1;
    ExpectSameUpToSign(w, book.w[a - 1], sign, "w");
    ExpectSameUpToSign((*model.GetTprim())[a], book.t[a - 1], sign, "t");
    ExpectSameUpToSign((*model.GetPprim())[a], book.p[a - 1], sign, "p");
    EXPECT_NEAR(sign * (*model.GetCprim())[a][1], book.q[a - 1], 5e-6 * std::fabs(book.q[a - 1]));
  }

  // The coefficients reproduce the textbook fit: y_hat = T q = X W* q is an exact linear function
  // of the scaled X, so least squares of y_hat on X (in double, by the matrix algebra) recovers
  // B = W* q.
  NCDataMatrix<double> xd(n, k, 0.0), yhat(n, 1, 0.0);
  for (int i = 1; i <= n; ++i) {
    double fit = 0;
    for (int a = 0; a < components; ++a) fit += book.t[a][i - 1] * book.q[a];
    yhat(i, 1, fit);
    for (int j = 1; j <= k; ++j) xd(i, j, x[j - 1][i - 1]);
  }
  const NCDataMatrix<double> expected = xd.GetRegressionCoefficients(yhat);
  const NCDataMatrix<float> b = model.GetRegressionCoefficients(-1);
  ASSERT_EQ(b.SizeRows(), k);
  ASSERT_EQ(b.SizeColumns(), 1);
  std::vector<double> expectedB;
  for (int j = 1; j <= k; ++j) expectedB.push_back(expected[j][1]);
  ExpectSameUpToSign(b.GetColumn(1), expectedB, 1.0, "B");
}

}  // namespace
