#include <mvda/diagnostics/hotelling.h>
#include <mvda/diagnostics/spe.h>
#include <mvda/platform/error.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace mvda::diagnostics;

// Upper percentage points from the printed F and chi-square tables (three decimals). A beta
// quantile follows from F: X ~ Beta(d1/2, d2/2) is d1 F / (d1 F + d2) with F ~ F(d1, d2).
double BetaFromF(double f, double d1, double d2) { return d1 * f / (d1 * f + d2); }

TEST(T2Limits, MatchPublishedTables) {
  struct Case {
    const char* name;
    int n, a;
    double alpha, f;  // the table's F(alpha; d1, d2) for the limit's degrees of freedom
  };
  // Training: F(alpha; A, N - A - 1). N = 13, A = 2 -> F(0.95; 2, 10) = 4.103;
  // N = 24, A = 3 -> F(0.99; 3, 20) = 4.938; N = 36, A = 5 -> F(0.95; 5, 30) = 2.534.
  const Case training[] = {
      {"N 13 A 2 95%", 13, 2, 0.95, 4.103},
      {"N 24 A 3 99%", 24, 3, 0.99, 4.938},
      {"N 36 A 5 95%", 36, 5, 0.95, 2.534},
  };
  for (const Case& c : training) {
    SCOPED_TRACE(c.name);
    const double n = c.n, a = c.a;
    const double expected = (n - 1) * (n - 1) / n * BetaFromF(c.f, a, n - a - 1);
    EXPECT_NEAR(T2LimitTraining(c.n, c.a, c.alpha), expected, 5e-4 * expected);
  }
  // New observations: F(alpha; A, N - A). N = 12, A = 2 -> F(0.95; 2, 10) = 4.103;
  // N = 23, A = 3 -> F(0.99; 3, 20) = 4.938; N = 35, A = 5 -> F(0.95; 5, 30) = 2.534.
  const Case prediction[] = {
      {"N 12 A 2 95%", 12, 2, 0.95, 4.103},
      {"N 23 A 3 99%", 23, 3, 0.99, 4.938},
      {"N 35 A 5 95%", 35, 5, 0.95, 2.534},
  };
  for (const Case& c : prediction) {
    SCOPED_TRACE(c.name);
    const double n = c.n, a = c.a;
    const double expected = a * (n * n - 1) / (n * (n - a)) * c.f;
    EXPECT_NEAR(T2LimitPrediction(c.n, c.a, c.alpha), expected, 5e-4 * expected);
  }
  // A new observation carries its own uncertainty besides the model's: its limit is the wider.
  EXPECT_GT(T2LimitPrediction(50, 3, 0.95), T2LimitTraining(50, 3, 0.95));
  // Large N: both approach the chi-square quantile with A degrees of freedom (9.488 for A = 4).
  EXPECT_NEAR(T2LimitPrediction(200000, 4, 0.95), 9.488, 2e-3);
  EXPECT_NEAR(T2LimitTraining(200000, 4, 0.95), 9.488, 2e-3);
}

TEST(T2Limits, EllipseUsesTheTwoComponentTrainingLimit) {
  // N = 13: the limit for A = 2 is 144 / 13 * Beta(0.95; 1, 5), from F(0.95; 2, 10) = 4.103.
  const std::vector<double> variances = {9.0, 1.0, 4.0};
  const double limit = 144.0 / 13 * BetaFromF(4.103, 2, 10);
  const EllipseAxes axes = T2Ellipse(variances, 3, 1, 13, 0.95);
  EXPECT_NEAR(axes.horizontal, 2 * std::sqrt(limit), 1e-3);
  EXPECT_NEAR(axes.vertical, 3 * std::sqrt(limit), 1e-3);
  EXPECT_THROW(T2Ellipse(variances, 4, 1, 13, 0.95), NCError);
  EXPECT_THROW(T2Ellipse(variances, 1, 0, 13, 0.95), NCError);
}

TEST(SpeLimit, BoxApproximationMatchesChiSquareTables) {
  // {0, 2}: m = 1, v = 2, g = 1, h = 1 -> chi2(0.95; 1) = 3.841, chi2(0.99; 1) = 6.635.
  // {1, 3}: m = 2, v = 2, g = 0.5, h = 4 -> 0.5 chi2(0.95; 4) = 0.5 * 9.488.
  // {1, 3, -99}: the missing marker is not a value.
  struct Case {
    const char* name;
    std::vector<double> values;
    double alpha, expected;
  };
  const Case cases[] = {
      {"h 1 95%", {0, 2}, 0.95, 3.841},
      {"h 1 99%", {0, 2}, 0.99, 6.635},
      {"h 4 95%", {1, 3}, 0.95, 0.5 * 9.488},
      {"h 4 99% with a gap", {1, 3, -99}, 0.99, 0.5 * 13.277},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const SPEMoments moments = SPEMomentsOf(c.values);
    EXPECT_EQ(moments.count, 2);
    EXPECT_NEAR(SPELimit(moments, c.alpha), c.expected, 5e-4 * c.expected);
  }
  // No spread: every training value was 2.5, and so is the limit; a perfect model gives 0.
  EXPECT_EQ(SPELimit(SPEMomentsOf({2.5, 2.5, 2.5}), 0.99), 2.5);
  EXPECT_EQ(SPELimit(SPEMomentsOf({0, 0}), 0.99), 0.0);
}

TEST(DiagnosticLimits, AnyAlphaInsideTheUnitIntervalOthersRefused) {
  const SPEMoments moments = SPEMomentsOf({1, 2, 4, 7});
  // Lower levels give lower limits; 0.5 and 0.9 are as valid as the customary levels.
  EXPECT_LT(T2LimitTraining(30, 2, 0.5), T2LimitTraining(30, 2, 0.9));
  EXPECT_LT(T2LimitPrediction(30, 2, 0.9), T2LimitPrediction(30, 2, 0.95));
  EXPECT_LT(SPELimit(moments, 0.5), SPELimit(moments, 0.9));
  const double bad[] = {0.0,
                        1.0,
                        -0.1,
                        1.5,
                        95.0,
                        std::numeric_limits<double>::quiet_NaN(),
                        std::numeric_limits<double>::infinity()};
  for (const double alpha : bad) {
    SCOPED_TRACE(alpha);
    for (auto call : {+[](double a) { T2LimitTraining(30, 2, a); },
                      +[](double a) { T2LimitPrediction(30, 2, a); },
                      +[](double a) {
                        SPELimit(SPEMomentsOf({1, 2, 4, 7}), a);
                      }}) {
      try {
        call(alpha);
        ADD_FAILURE() << "accepted";
      } catch (const NCError& e) {
        EXPECT_NE(std::string(e.what()).find("alpha"), std::string::npos) << e.what();
      }
    }
  }
}

TEST(DiagnosticLimits, TooFewObservationsOrComponentsRefused) {
  // N must exceed A + 1: the beta and F degrees of freedom would not be positive.
  EXPECT_THROW(T2LimitTraining(3, 2, 0.95), NCError);
  EXPECT_THROW(T2LimitPrediction(3, 2, 0.95), NCError);
  EXPECT_THROW(T2LimitTraining(10, 0, 0.95), NCError);
  EXPECT_NO_THROW(T2LimitTraining(4, 2, 0.95));
  try {
    T2LimitTraining(2, 1, 0.95);
    ADD_FAILURE() << "accepted";
  } catch (const NCError& e) {
    EXPECT_NE(std::string(e.what()).find("2 observations"), std::string::npos) << e.what();
  }
  EXPECT_THROW(SPEMomentsOf({1.0}), NCError);
  EXPECT_THROW(SPEMomentsOf({1.0, -99, -99}), NCError);
  EXPECT_THROW(SPEMomentsOf({1.0, -2.0, 3.0}), NCError);
  EXPECT_THROW(SPEMomentsOf({1.0, std::numeric_limits<double>::quiet_NaN()}), NCError);
}

}  // namespace
