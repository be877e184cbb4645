#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>

#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Precisions = ::testing::Types<float, double>;
template <class T>
class DataVectorStatistics : public ::testing::Test {};
TYPED_TEST_SUITE(DataVectorStatistics, Precisions);

constexpr long double kNone = -99;
constexpr double kInf = std::numeric_limits<double>::infinity();

TYPED_TEST(DataVectorStatistics, MomentsUsePresentElementsOnly) {
  struct Case {
    const char* name;
    std::vector<double> values;
    long double sum, mean, variance, sd;
  };
  const Case cases[] = {
      // squared deviations 4 + 0 + 4 over m - 1 = 2
      {"skips missing", {1, -99, 3, 5}, 9, 3, 4, 2},
      {"empty", {}, kNone, kNone, kNone, kNone},
      {"all missing", {-99, -99}, kNone, kNone, kNone, kNone},
      {"one present", {-99, 7}, 7, 7, 0, kNone},  // variance 0 but no standard deviation
      // The mean -99 is moved to -99.00001 and the variance uses the moved mean:
      // 1.00001^2 + 0.99999^2 = 2.0000000002 over m - 1 = 1.
      {"mean on the marker",
       {-98, -100},
       -198,
       -99.00001L,
       2.0000000002L,
       std::sqrt(2.0000000002L)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto v = MakeVector<TypeParam>(c.values);
    EXPECT_EQ(v.GetSum(), c.sum);
    EXPECT_NEAR(v.GetMean(), c.mean, 1e-12);
    EXPECT_NEAR(v.GetVariance(), c.variance, 1e-12);
    EXPECT_NEAR(v.GetStdDev(), c.sd, 1e-12);
  }
}

// Every length around the unroll width, with and without gaps, against a plain loop.
TYPED_TEST(DataVectorStatistics, UnrolledSumsMatchPlainLoop) {
  for (int n : {1, 7, 8, 9, 17, 33, 100}) {
    for (int gap : {0, 3, 1}) {  // none, every third, all but the first
      SCOPED_TRACE(testing::Message() << "n " << n << " gap " << gap);
      NCDataVector<TypeParam> v(n, TypeParam(0));
      for (int i = 1; i <= n; ++i) {
        const bool missing = gap == 1 ? i > 1 : gap > 0 && i % gap == 0;
        v(i, missing ? TypeParam(-99) : static_cast<TypeParam>(0.37 * i - 3));
      }
      std::vector<long double> present;
      for (TypeParam x : v)
        if (x != TypeParam(-99)) present.push_back(x);
      const int m = static_cast<int>(present.size());
      long double sum = 0, ss = 0, ss2 = 0, dev = 0;
      for (long double x : present) sum += x, ss += x * x, ss2 += (x - 2) * (x - 2);
      for (long double x : present) dev += (x - sum / m) * (x - sum / m);
      EXPECT_NEAR(v.GetSum(), sum, 1e-9);
      EXPECT_NEAR(v.GetSS(), ss, 1e-9);
      EXPECT_NEAR(v.GetSS(TypeParam(2)), ss2, 1e-9);
      EXPECT_NEAR(v.GetVariance(), m < 2 ? 0 : dev / (m - 1), 1e-9);
    }
  }
}

TYPED_TEST(DataVectorStatistics, NonFiniteValuesArePresent) {
  const TypeParam inf = std::numeric_limits<TypeParam>::infinity();
  const TypeParam nan = std::numeric_limits<TypeParam>::quiet_NaN();
  // Nine elements so that both the unrolled loop and the tail see a gap.
  auto v = MakeVector<TypeParam>({1, -99, 1, 1, 1, 1, 1, 1, -99});
  EXPECT_EQ(v.GetSum(), 7);
  v(2, inf);  // a gap elsewhere must not turn the infinity into NaN
  EXPECT_EQ(v.GetSum(), inf);
  v(2, nan);
  EXPECT_EQ(v.GetNumMisVal(), 1);
  EXPECT_TRUE(std::isnan(v.GetSum()));
  EXPECT_TRUE(std::isnan(NCMatUtilities::NCGetQuietNaN()));
}

TYPED_TEST(DataVectorStatistics, QuartilesAndMedian) {
  struct Case {
    const char* name;
    std::vector<double> values;
    bool ok;
    long double q1, median, q3;
  };
  const Case cases[] = {
      {"even", {4, 2, 1, 3}, true, 1.5, 2.5, 3.5},       // halves {1,2} and {3,4}
      {"odd", {5, 1, -99, 3, 2, 4}, true, 1.5, 3, 4.5},  // 3 belongs to neither half
      {"one present", {-99, 7}, false, 0, 7, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto v = MakeVector<TypeParam>(c.values);
    long double q1 = -1, median = -1, q3 = -1;
    ASSERT_EQ(v.GetInterquartiles(q1, median, q3), c.ok);
    EXPECT_EQ(v.GetMedian(), c.median);
    if (!c.ok) {
      EXPECT_EQ(q1, -1);  // outputs untouched
      EXPECT_EQ(v.GetInterquartileRange(), kNone);
      EXPECT_EQ(v.GetRobustStdDev(), kNone);
      continue;
    }
    EXPECT_EQ(q1, c.q1);
    EXPECT_EQ(median, c.median);
    EXPECT_EQ(q3, c.q3);
    EXPECT_EQ(v.GetInterquartileRange(), c.q3 - c.q1);
    EXPECT_NEAR(v.GetRobustStdDev(), (c.q3 - c.q1) / 1.075L, 1e-15);
  }
  EXPECT_EQ(NCDataVector<TypeParam>().GetMedian(), kNone);
}

TYPED_TEST(DataVectorStatistics, SkewnessAndKurtosis) {
  // {1, 2, 3, 6}: mean 3, deviations -2 -1 0 3; sum d^2 = 14 so s^2 = 14/3; sum d^3 = 18;
  // sum d^4 = 98 so sum z^4 = 98 / (14/3)^2 = 4.5.
  // G1 = 4/(3*2) * 18 / s^3; G2 = 4*5/(3*2*1) * 4.5 - 3*3^2/(2*1) = 15 - 13.5.
  const auto v = MakeVector<TypeParam>({1, 2, -99, 3, 6});
  const long double g1 = 12 / std::pow(14.0L / 3, 1.5L);
  EXPECT_NEAR(v.GetSkewness(), g1, 1e-6);
  EXPECT_NEAR(v.GetKurtosis(), 1.5, 1e-5);  // the factor goes through float
  EXPECT_NEAR(v.GetSkewnessTest(), g1 / std::sqrt(72.0L / 70), 1e-6);  // 6*4*3 / (2*5*7)
  EXPECT_EQ(MakeVector<TypeParam>({1, 2}).GetSkewness(), kNone);
  EXPECT_EQ(MakeVector<TypeParam>({1, 2}).GetSkewnessTest(), kNone);
  EXPECT_EQ(MakeVector<TypeParam>({2, 2, 2, 2}).GetKurtosis(), kNone);  // no spread
}

TYPED_TEST(DataVectorStatistics, PairwiseStatistics) {
  // Pairs (0,1), (1,3), (3,7) lie on y = 2x + 1; the gap in y drops x = 2.
  const auto y = MakeVector<TypeParam>({1, 3, -99, 7});
  const auto x = MakeVector<TypeParam>({0, 1, 2, 3});
  TypeParam slope = 0, intercept = 0;
  ASSERT_TRUE(y.LeastSquare(x, slope, intercept));
  EXPECT_NEAR(slope, 2, 1e-6);
  EXPECT_NEAR(intercept, 1, 1e-6);
  EXPECT_NEAR(y.Correlation(x), 1, 1e-12);
  // Pairs (1,0), (3,1), (7,3): (1 + 4 + 16) / (1 + 9 + 49) = 21/59.
  EXPECT_NEAR(y.Difference(x), 21.0L / 59.0L, 1e-12);
  // A vector that is still zero has no direction yet: far from converged, not "no change".
  EXPECT_EQ(MakeVector<TypeParam>({0, -99}).Difference(MakeVector<TypeParam>({4, 1})), 1e30L);
  const auto gaps = MakeVector<TypeParam>({-99, -99, 5, -99});
  EXPECT_EQ(y.Correlation(gaps), kNone);
  EXPECT_EQ(y.Difference(gaps), kNone);
  EXPECT_FALSE(y.LeastSquare(gaps, slope, intercept));
}

TYPED_TEST(DataVectorStatistics, ProjectionSums) {
  struct Case {
    const char* name;
    std::vector<double> v1, v2, exclude;  // exclude: code 5 marks a skipped position
    double a, b, c;
    long double regress, fix;
  };
  const Case cases[] = {
      // pairs at 1 and 5: a = 1*2 + 3*1, b = 1 + 9; c adds the unpaired 2^2 and 4^2.
      {"gaps on both sides", {1, 2, 4, -99, 3}, {2, -99, -99, 1, 1}, {}, 5, 10, 30, 0.5, 5.0L / 10},
      // c/3 = 19/3 outweighs b = 1 when most of v1 has no partner.
      {"few pairs", {1, 3, 3}, {2, -99, -99}, {}, 2, 1, 19, 2, 6.0L / 19},
      {"excluded", {1, 2, 3}, {1, 1, 1}, {0, 5, 0}, 4, 10, 10, 0.4L, 0.4L},
      // An infinity without a partner must not reach the paired sums; c is infinite, so the
      // fixed regression divides by it.
      {"lone infinity", {1, 1, 1, 1, kInf}, {1, 1, 1, 1, -99}, {}, 4, 4, kInf, 1, 0},
      {"no pair", {1, 2}, {-99, -99}, {}, -99, -99, 5, kNone, kNone},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto v1 = MakeVector<TypeParam>(c.v1);
    const auto v2 = MakeVector<TypeParam>(c.v2);
    NCIntegralVector<int, -99> exclude(static_cast<int>(c.exclude.size()), 0);
    for (int i = 1; i <= exclude.Size(); ++i) exclude(i) = static_cast<int>(c.exclude[i - 1]);
    double a = 0, b = 0, cc = 0;
    v1.Calculate_V1txV2_and_V1txV1(a, b, cc, v2, c.exclude.empty() ? nullptr : &exclude, 5);
    EXPECT_EQ(a, c.a);
    EXPECT_EQ(b, c.b);
    EXPECT_EQ(cc, c.c);
    if (c.exclude.empty()) {
      EXPECT_EQ(v1.Regress(v2), c.regress);
      EXPECT_NEAR(v1.SpecialNipalsRegressFix(v2), c.fix, 1e-15);
      EXPECT_EQ(v1 * v2, c.a);
    } else {
      EXPECT_NEAR(v1.SpecialNipalsRegressFixWithExclude(v2, exclude, 5), c.fix, 1e-15);
    }
  }
  // A paired sum of squares below 1e-30 is no signal: a and b become 0 and Regress is 0/0.
  const auto tiny = MakeVector<TypeParam>({TypeParam(1e-20), 5});
  double a = 1, b = 1, c = 0;
  tiny.Calculate_V1txV2_and_V1txV1(a, b, c, MakeVector<TypeParam>({1, -99}));
  EXPECT_EQ(a, 0);
  EXPECT_EQ(b, 0);
  EXPECT_TRUE(std::isnan(tiny.Regress(MakeVector<TypeParam>({1, -99}))));
}

}  // namespace
