// The control-chart factor tables, read back through the limits a chart draws from a known
// standard deviation of 1, against the published rows and against the normal-theory definitions.
#include <mvda/spc/control_chart.h>

#include <algorithm>
#include <cmath>

#include <boost/math/quadrature/gauss.hpp>
#include <gtest/gtest.h>

namespace {

struct Factors {
  double a2, a3, b3, b4, c4, d2, d3, d4;
};

// With sigma = 1 and target 0: mean range = d2, mean UCL = A2 d2, range limits = D3 d2 and D4 d2;
// mean standard deviation = c4, its limits B3 c4 and B4 c4, mean UCL = A3 c4.
Factors ReadFactors(int n) {
  const NCDataVector<float> none;
  ControlChart range(ControlChart::kMeanRange, none, n);
  range.SetTarget(0);
  range.SetStdDevSubgroup(1);
  ControlChart sd(ControlChart::kMeanStdDev, none, n);
  sd.SetTarget(0);
  sd.SetStdDevSubgroup(1);
  Factors f;
  f.d2 = range.GetRangeMean();
  f.a2 = range.GetMeanUCL() / f.d2;
  f.d3 = range.GetRangeLCL() / f.d2;
  f.d4 = range.GetRangeUCL() / f.d2;
  f.c4 = sd.GetStdDevMean();
  f.a3 = sd.GetMeanUCL() / f.c4;
  f.b3 = sd.GetStdDevLCL() / f.c4;
  f.b4 = sd.GetStdDevUCL() / f.c4;
  return f;
}

TEST(ChartFactors, PublishedRows) {
  struct Row {
    int n;
    double a2, a3, b3, b4, c4, d2, d3, d4;
  };
  // The first, last and three inner rows of the standard tables of control-chart factors.
  const Row rows[] = {
      {2, 1.880, 2.659, 0, 3.267, 0.7979, 1.128, 0, 3.267},
      {3, 1.023, 1.954, 0, 2.568, 0.8862, 1.693, 0, 2.574},
      {5, 0.577, 1.427, 0, 2.089, 0.9400, 2.326, 0, 2.114},
      {6, 0.483, 1.287, 0.030, 1.970, 0.9515, 2.534, 0, 2.004},
      {7, 0.419, 1.182, 0.118, 1.882, 0.9594, 2.704, 0.076, 1.924},
      {10, 0.308, 0.975, 0.284, 1.716, 0.9727, 3.078, 0.223, 1.777},
      {20, 0.180, 0.680, 0.510, 1.490, 0.9869, 3.735, 0.415, 1.585},
      {25, 0.153, 0.606, 0.565, 1.435, 0.9896, 3.931, 0.459, 1.541},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.n);
    const Factors f = ReadFactors(r.n);
    EXPECT_NEAR(f.a2, r.a2, 1e-6);
    EXPECT_NEAR(f.a3, r.a3, 1e-6);
    EXPECT_NEAR(f.b3, r.b3, 1e-6);
    EXPECT_NEAR(f.b4, r.b4, 1e-6);
    EXPECT_NEAR(f.c4, r.c4, 1e-6);
    EXPECT_NEAR(f.d2, r.d2, 1e-6);
    EXPECT_NEAR(f.d3, r.d3, 1e-6);
    EXPECT_NEAR(f.d4, r.d4, 1e-6);
  }
  for (int n = 2; n <= 6; ++n) {
    SCOPED_TRACE(n);
    if (n <= 5) {
      EXPECT_EQ(ReadFactors(n).b3, 0.0);
    }
    EXPECT_EQ(ReadFactors(n).d3, 0.0);
  }
}

double Phi(double x) { return 0.5 * std::erfc(-x / std::sqrt(2.0)); }

// Composite 15-point Gauss-Legendre over [a, b]; the integrands below are smooth and vanish
// beyond |x| = 9 to double precision.
template <class F>
double Integrate(F f, double a, double b) {
  using Gauss = boost::math::quadrature::gauss<double, 15>;
  const int pieces = std::max(1, static_cast<int>(std::ceil((b - a) / 0.75)));
  const double h = (b - a) / pieces;
  double sum = 0;
  for (int i = 0; i < pieces; ++i) sum += Gauss::integrate(f, a + i * h, a + (i + 1) * h);
  return sum;
}

// Every row against the definitions for normal data: c4 = sqrt(2/(n-1)) G(n/2)/G((n-1)/2);
// d2 = E[range] = int 1 - Phi^n - (1-Phi)^n; d3^2 = Var[range] from
// E[range^2] = 2 int int_{x<y} 1 - Phi(y)^n - (1-Phi(x))^n + (Phi(y)-Phi(x))^n; A2 = 3/(d2 sqrt n),
// A3 = 3/(c4 sqrt n), B3,B4 = 1 -/+ 3 sqrt(1-c4^2)/c4, D3,D4 = 1 -/+ 3 d3/d2 (lower ones cut
// at 0). The printed tables were partly built from rounded intermediates (D4(3) is printed
// 2.574 for 2.5746), so a row may be one unit off in its last decimal, never more: a swapped row
// or a mistyped digit is caught.
TEST(ChartFactors, AgreeWithNormalTheoryToTheLastPrintedDecimal) {
  for (int n = 2; n <= 25; ++n) {
    SCOPED_TRACE(n);
    const double c4 =
        std::sqrt(2.0 / (n - 1)) * std::exp(std::lgamma(n / 2.0) - std::lgamma((n - 1) / 2.0));
    const double d2 = Integrate(
        [n](double x) { return 1 - std::pow(Phi(x), n) - std::pow(1 - Phi(x), n); }, -9, 9);
    const double range_sq = 2 * Integrate(
                                    [n](double y) {
                                      return Integrate(
                                          [n, y](double x) {
                                            return 1 - std::pow(Phi(y), n) -
                                                   std::pow(1 - Phi(x), n) +
                                                   std::pow(Phi(y) - Phi(x), n);
                                          },
                                          -9, y);
                                    },
                                    -9, 9);
    const double d3 = std::sqrt(range_sq - d2 * d2);
    const double s_spread = 3 * std::sqrt(1 - c4 * c4) / c4;
    const Factors f = ReadFactors(n);
    EXPECT_NEAR(f.c4, c4, 1e-4);
    EXPECT_NEAR(f.d2, d2, 1e-3);
    EXPECT_NEAR(f.a2, 3 / (d2 * std::sqrt(n)), 1e-3);
    EXPECT_NEAR(f.a3, 3 / (c4 * std::sqrt(n)), 1e-3);
    EXPECT_NEAR(f.b3, std::max(0.0, 1 - s_spread), 1e-3);
    EXPECT_NEAR(f.b4, 1 + s_spread, 1e-3);
    EXPECT_NEAR(f.d3, std::max(0.0, 1 - 3 * d3 / d2), 1e-3);
    EXPECT_NEAR(f.d4, 1 + 3 * d3 / d2, 1e-3);
  }
}

}  // namespace
