#include <mvda/platform/error.h>
#include <mvda/spc/control_chart.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Type = ControlChart::ControlType;

ControlChart Chart(Type type, const std::vector<double>& values, int n) {
  return ControlChart(type, MakeVector<float>(values), n);
}

void ExpectVector(const NCDataVector<float>* actual, const std::vector<double>& expected) {
  ASSERT_EQ(actual->Size(), static_cast<int>(expected.size()));
  for (int i = 1; i <= actual->Size(); ++i) {
    SCOPED_TRACE(i);
    if (expected[i - 1] == -99) {
      EXPECT_EQ((*actual)[i], -99.0f);
    } else {
      EXPECT_NEAR((*actual)[i], expected[i - 1], 1e-5);
    }
  }
}

struct Check {
  const char* what;
  double actual, expected;
};
void ExpectValues(const std::vector<Check>& checks) {
  for (const Check& c : checks) {
    SCOPED_TRACE(c.what);
    EXPECT_NEAR(c.actual, c.expected, 1e-6);
  }
}

TEST(ControlChartTypes, TextsAreExactAndUnknownsMeanIndividual) {
  const char* texts[] = {"Individual", "Mean/Range", "Mean/StdDev", "CuSum"};
  for (int code = 0; code <= 3; ++code) {
    EXPECT_EQ(ControlChart::FromControlType(Type(code)), texts[code]);
    EXPECT_EQ(ControlChart::ToControlType(texts[code]), code);
  }
  for (int code : {4, 5, -1, 9}) EXPECT_EQ(ControlChart::FromControlType(Type(code)), "Individual");
  for (const char* text : {"mean/range", "MEAN/RANGE", "CuSum ", "", "EWMA"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(ControlChart::ToControlType(text), ControlChart::kIndividual);
  }
}

TEST(ControlChartSubgroups, StatisticsOverPresentValues) {
  struct Case {
    const char* name;
    std::vector<double> values;
    int n;
    std::vector<double> means, ranges, sds;
    double individual_sd;
  };
  const Case cases[] = {
      // 1..5 and 6..10: variance 2.5 each; 1..11 has variance 11.
      {"trailing group dropped",
       {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11},
       5,
       {3, 8},
       {4, 4},
       {std::sqrt(2.5), std::sqrt(2.5)},
       std::sqrt(11.0)},
      // {1, 3}: (2*10 - 16) / (2*1) = 2; {1, 3, 7}: squares about 11/3 sum to 168/9, over 2.
      {"missing skipped",
       {1, -99, 3, -99, -99, -99, -99, 7, -99},
       3,
       {2, -99, 7},
       {2, -99, 0},
       {std::sqrt(2.0), -99, -99},
       std::sqrt(84.0 / 9)},
      // Squared deviations from 5: 9+1+1+1+0+0+4+16 = 32, over 7.
      {"one group of eight",
       {2, 4, 4, 4, 5, 5, 7, 9},
       8,
       {5},
       {7},
       {std::sqrt(32.0 / 7)},
       std::sqrt(32.0 / 7)},
      {"single values", {4, -99, 6}, 1, {4, -99, 6}, {0, -99, 0}, {-99, -99, -99}, std::sqrt(2.0)},
      {"fewer values than a subgroup", {1, 2}, 3, {}, {}, {}, std::sqrt(0.5)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const ControlChart chart = Chart(ControlChart::kMeanRange, c.values, c.n);
    ExpectVector(chart.GetMeanVector(), c.means);
    ExpectVector(chart.GetRangeVector(), c.ranges);
    ExpectVector(chart.GetStdDevVector(), c.sds);
    EXPECT_NEAR(chart.GetStdDevIndividual(), c.individual_sd, 1e-6);
  }
}

TEST(ControlChartLimits, FromAKnownStandardDeviation) {
  const std::vector<double> none;
  {
    SCOPED_TRACE("Mean/Range, n = 5, mean range 2, target then sigma and sigma then target");
    // A2 * 2 = 1.154, D4 * 2 = 4.228, D3 = 0, sigma = 2 / d2 = 2 / 2.326.
    ControlChart first = Chart(ControlChart::kMeanRange, none, 5);
    first.SetTarget(10);
    first.SetStdDevSubgroup(2 / 2.326);
    ControlChart second = Chart(ControlChart::kMeanRange, none, 5);
    second.SetStdDevSubgroup(2 / 2.326);
    EXPECT_EQ(second.GetMeanUCL(), -99.0);  // no centre line yet
    second.SetTarget(10);
    for (const ControlChart* c : {&first, &second}) {
      ExpectValues({{"range mean", c->GetRangeMean(), 2},
                    {"mean UCL", c->GetMeanUCL(), 11.154},
                    {"mean LCL", c->GetMeanLCL(), 8.846},
                    {"range UCL", c->GetRangeUCL(), 4.228},
                    {"range LCL", c->GetRangeLCL(), 0},
                    {"process", c->GetStdDevProcess(), 2 / 2.326}});
    }
  }
  {
    SCOPED_TRACE("Mean/StdDev, n = 5, sigma 2");
    // s = c4 sigma = 0.94 * 2 = 1.88; B4 s = 2.089 * 1.88 = 3.92732; A3 s = 1.427 * 1.88 = 2.68276.
    ControlChart c = Chart(ControlChart::kMeanStdDev, none, 5);
    c.SetTarget(10);
    c.SetStdDevSubgroup(2);
    ExpectValues({{"mean sd", c.GetStdDevMean(), 1.88},
                  {"sd UCL", c.GetStdDevUCL(), 3.92732},
                  {"sd LCL", c.GetStdDevLCL(), 0},
                  {"mean UCL", c.GetMeanUCL(), 12.68276},
                  {"mean LCL", c.GetMeanLCL(), 7.31724},
                  {"process", c.GetStdDevProcess(), 2}});
  }
  {
    SCOPED_TRACE("CuSum, n = 2, sigma 1: the set spread wins over the means' own MSSD of 1");
    // c4(2) = 0.7979: MSSD 0.7979, k = 0.39895, h = 3.59055, B4 s = 3.267 * 0.7979 = 2.6067393.
    ControlChart c = Chart(ControlChart::kCuSum, {10, 10, 12, 12, 12, 12}, 2);
    c.SetStdDevSubgroup(1);
    ExpectValues({{"MSSD", c.GetMSSD(), 0.7979},
                  {"dead band", c.GetDeadBand(), 0.39895},
                  {"action limit", c.GetActionLimit(), 3.59055},
                  {"sd UCL", c.GetStdDevUCL(), 2.6067393},
                  {"process", c.GetStdDevProcess(), 1}});
  }
  {
    SCOPED_TRACE("Individual, n = 1");
    ControlChart c = Chart(ControlChart::kIndividual, {1, 2, 4}, 1);
    c.SetStdDevSubgroup(3);
    ExpectValues({{"process", c.GetStdDevProcess(), 3}, {"MSSD", c.GetMSSD(), 3}});
  }
}

TEST(ControlChartLimits, SetTargetMovesWhatDependsOnItByType) {
  // Means 10, 12, 12 (n = 2), sigma 1, lambda 0.5, every cache filled at target 11, then target
  // 21. Mean limits: 21 + A2 d2 = 21 + 1.880 * 1.128 (type 1), 21 + A3 c4 = 21 + 2.659 * 0.7979
  // (type 2); types 3..5 keep 11 + A3 c4 from SetStdDevSubgroup. Only type 3 redraws its
  // deviations (10 - 21) and only type 4 its EWMA (start 21, limits 10 higher).
  struct Case {
    Type type;
    double mean_ucl, first_deviation, first_ewma, ewma_ucl_shift;
  };
  const Case cases[] = {
      {ControlChart::kIndividual, -99, -1, 11, 0},
      {ControlChart::kMeanRange, 23.12064, -1, 11, 0},
      {ControlChart::kMeanStdDev, 23.1216161, -1, 11, 0},
      {ControlChart::kCuSum, 13.1216161, -11, 11, 0},
      {ControlChart::kEWMA, 13.1216161, -1, 21, 10},
      {ControlChart::kEWMAOther, 13.1216161, -1, 11, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.type);
    ControlChart chart = Chart(c.type, {10, 10, 12, 12, 12, 12}, 2);
    chart.SetTarget(11);
    chart.SetStdDevSubgroup(1);
    chart.SetEWMALambda(0.5);
    const double ewma_ucl = chart.GetEWMAUCL();
    chart.GetDevFromTarget();
    chart.GetEWMA();
    chart.SetTarget(21);
    for (const char* step : {"target 21", "then -99, which is ignored"}) {
      SCOPED_TRACE(step);
      EXPECT_EQ(chart.GetTarget(), 21);
      EXPECT_NEAR(chart.GetMeanUCL(), c.mean_ucl, 1e-5);
      EXPECT_EQ((*chart.GetDevFromTarget())[1], c.first_deviation);
      EXPECT_EQ((*chart.GetEWMA())[1], c.first_ewma);
      EXPECT_NEAR(chart.GetEWMAUCL(), ewma_ucl + c.ewma_ucl_shift, 1e-6);
      chart.SetTarget(-99);
    }
  }
}

TEST(ControlChartCuSum, TabularSumsByHand) {
  // Means -99, 10, 12, -99, 12: MSSD = sqrt((12-10)^2 / (2*3 - 2)) = 1, so k = 0.5, h = 4.5.
  // Target 11: deviations -1, 1, 1; low -= dev + k, high += dev - k, both floored at 0, carried
  // over the missing means.
  const std::vector<double> data = {-99, -99, 10, 10, 12, 12, -99, -99, 12, 12};
  ControlChart chart = Chart(ControlChart::kCuSum, data, 2);
  chart.SetTarget(11);
  EXPECT_EQ(chart.GetActionLimit(), 4.5);
  EXPECT_EQ(chart.GetDeadBand(), 0.5);
  ExpectVector(chart.GetDevFromTarget(), {-99, -1, 1, -99, 1});
  ExpectVector(chart.GetLowCuSum(), {0, 0.5, 0, 0, 0});
  ExpectVector(chart.GetHighCuSum(), {0, 0, 0.5, 0.5, 1});
  // Start values 2 and 3: low 2, 2 + 0.5, 2.5 - 1.5, 1, max(0, 1 - 1.5); high 3, 3 - 1.5, +0.5, 2,
  // +0.5.
  chart.SetPrevious(2, 3);
  ExpectVector(chart.GetLowCuSum(), {2, 2.5, 1, 1, 0});
  ExpectVector(chart.GetHighCuSum(), {3, 1.5, 2, 2, 2.5});

  ControlChart on_target = Chart(ControlChart::kCuSum, {11, 11, 11, 11, 11, 11}, 2);
  on_target.SetTarget(11);
  ExpectVector(on_target.GetLowCuSum(), {0, 0, 0});
  ExpectVector(on_target.GetHighCuSum(), {0, 0, 0});

  // No target yet: nothing to accumulate, and nothing stale is kept once one is set.
  ControlChart no_target = Chart(ControlChart::kCuSum, data, 2);
  EXPECT_EQ(no_target.GetHighCuSum()->Size(), 0);
  no_target.SetTarget(11);
  ExpectVector(no_target.GetHighCuSum(), {0, 0, 0.5, 0.5, 1});
}

TEST(ControlChartEWMA, EachEntryForecastsFromTheMeansBeforeIt) {
  // lambda 0.5, target 0: z1 = 0, z2 = 0 + 0.5 (2 - 0) = 1, z3 = 1 + 0.5 (4 - 1) = 2.5, and the
  // missing third mean carries z3 to z4. Start 1: 1, 1.5, 2.75, 2.75.
  ControlChart chart = Chart(ControlChart::kEWMA, {2, 4, -99, 8}, 1);
  chart.SetEWMALambda(0.5);
  EXPECT_EQ(chart.GetEWMA()->Size(), 0);  // neither target nor start value yet
  chart.SetTarget(0);
  ExpectVector(chart.GetEWMA(), {0, 1, 2.5, 2.5});
  chart.SetPrevious(1);
  ExpectVector(chart.GetEWMA(), {1, 1.5, 2.75, 2.75});
  chart.SetPrevious(-99);
  ExpectVector(chart.GetEWMA(), {0, 1, 2.5, 2.5});
  chart.SetEWMALambda(1);
  ExpectVector(chart.GetEWMA(), {0, 2, 4, 4});

  ControlChart cusum = Chart(ControlChart::kCuSum, {2, 4, -99, 8}, 1);
  cusum.SetTarget(0);
  cusum.SetEWMALambda(0.5);
  cusum.SetPrevious(1);  // an EWMA start value only counts for the EWMA types
  EXPECT_EQ((*cusum.GetEWMA())[1], 0.0f);
}

TEST(ControlChartEWMA, LimitsFromTheMeansSpread) {
  // n = 5, sigma 2: MSSD = c4 sigma = 1.88; lambda 0.2: sqrt(0.2 / 1.8) = 1/3, so the EWMA
  // spread is 0.626667 and the limits 10 +/- 1.88.
  ControlChart chart = Chart(ControlChart::kEWMA, {}, 5);
  chart.SetTarget(10);
  chart.SetStdDevSubgroup(2);
  chart.SetEWMALambda(0.2);
  ExpectValues({{"MSSD", chart.GetMSSD(), 1.88},
                {"process", chart.GetStdDevProcess(), 2},
                {"EWMA sd", chart.GetEWMAStdDev(), 1.88 / 3},
                {"UCL", chart.GetEWMAUCL(), 11.88},
                {"LCL", chart.GetEWMALCL(), 8.12}});
  chart.SetStdDevSubgroup(1);  // the limits follow the new spread
  EXPECT_NEAR(chart.GetEWMAUCL(), 10.94, 1e-6);
}

// Sum of squared one-step forecast errors, written out independently of the chart.
double SumErr(const NCDataVector<float>& x, double target, double lambda) {
  double z = target;
  double sum = 0;
  for (int i = 1; i <= x.Size(); ++i) {
    if (i > 1) z += lambda * (x[i - 1] - z);
    sum += (x[i] - z) * (x[i] - z);
  }
  return sum;
}

TEST(ControlChartEWMA, LambdaEstimate) {
  // A noisy upward drift: the sum of errors has one minimum inside (0, 1); brute force over a
  // grid of 1e-5 finds it, and the estimate must lie within the search tolerance 0.0005.
  const std::vector<double> drift = {0.6, -0.4, 0.9, 0.2, 1.5, 0.7, 1.9, 1.1, 2.2, 1.4, 2.5, 1.8};
  ControlChart chart = Chart(ControlChart::kEWMA, drift, 1);
  EXPECT_EQ(chart.GetEWMALambda(), -99.0);  // nothing to forecast from without a target
  chart.SetTarget(0);
  double best = 0;
  double best_err = SumErr(*chart.GetMeanVector(), 0, 0);
  for (int k = 1; k <= 100000; ++k) {
    const double err = SumErr(*chart.GetMeanVector(), 0, k * 1e-5);
    if (err < best_err) {
      best = k * 1e-5;
      best_err = err;
    }
  }
  ASSERT_GT(best, 0.1);
  ASSERT_LT(best, 0.9);
  EXPECT_NEAR(chart.GetEWMALambda(), best, 0.0005 + 1e-5);

  // A step that stays: following the last mean fully (lambda 1) leaves a single error of 10.
  ControlChart step = Chart(ControlChart::kEWMA, {0, 0, 0, 10, 10, 10, 10}, 1);
  step.SetTarget(0);
  EXPECT_EQ(step.GetEWMALambda(), 1.0);
  // Means alternating about the target are forecast best by the target itself (lambda 0): the
  // estimate falls back to 0.2.
  ControlChart alternating = Chart(ControlChart::kEWMA, {1, -1, 1, -1, 1, -1}, 1);
  alternating.SetTarget(0);
  EXPECT_EQ(alternating.GetEWMALambda(), 0.2);
  // A set weight is kept as it is; -99 asks for the estimate again.
  alternating.SetEWMALambda(0.35);
  EXPECT_EQ(alternating.GetEWMALambda(), 0.35);
  alternating.SetEWMALambda(-99);
  EXPECT_EQ(alternating.GetEWMALambda(), 0.2);
}

TEST(ControlChartImport, TakesOverLimitsButKeepsItsOwnData) {
  // The source: CuSum chart, n = 5, target 0, sigma 2 (s = 1.88, k = 0.94, h = 8.46). Its means
  // 0, 0, 10, 10 leave the errors 100 + 100 (1 - lambda)^2, so its estimated lambda is 1.
  std::vector<double> source_data(10, 0.0);
  source_data.insert(source_data.end(), 10, 10.0);
  ControlChart source = Chart(ControlChart::kCuSum, source_data, 5);
  source.SetTarget(0);
  source.SetStdDevSubgroup(2);
  const double source_ucl = source.GetEWMAUCL();

  ControlChart chart = Chart(ControlChart::kMeanRange, {3, 4, 5, 6, 7, 13, 14, 15, 16, 17}, 5);
  chart.SetTarget(3);
  chart.SetStdDevSubgroup(1);  // a mean range of its own, overwritten by the source's -99
  chart.GetDevFromTarget();    // deviations from 3, to be redrawn against 0
  chart.ImportLimits(source);
  ExpectValues({{"target", chart.GetTarget(), 0},
                {"mean UCL", chart.GetMeanUCL(), 1.427 * 1.88},
                {"range mean", chart.GetRangeMean(), -99},
                {"range UCL", chart.GetRangeUCL(), -99},
                {"mean sd", chart.GetStdDevMean(), 1.88},
                {"sd UCL", chart.GetStdDevUCL(), 2.089 * 1.88},
                {"process", chart.GetStdDevProcess(), 2},
                {"individual sd", chart.GetStdDevIndividual(), source.GetStdDevIndividual()},
                {"dead band", chart.GetDeadBand(), 0.94},
                {"action limit", chart.GetActionLimit(), 8.46},
                {"lambda", chart.GetEWMALambda(), 1},
                {"EWMA UCL", chart.GetEWMAUCL(), source_ucl},
                {"MSSD", chart.GetMSSD(), 1.88}});
  ExpectVector(chart.GetMeanVector(), {5, 15});
  ExpectVector(chart.GetDevFromTarget(), {5, 15});
}

TEST(ControlChartErrors, BadInputThrowsAndChangesNothing) {
  using testing::HasSubstr;
  auto message = [](const std::function<void()>& call) -> std::string {
    try {
      call();
    } catch (const NCError& e) {
      return e.what();
    }
    return "no exception";
  };
  const NCDataVector<float> data = MakeVector<float>({1, 2, 3, 4});
  EXPECT_THAT(message([&] { ControlChart(Type(6), data, 2); }), HasSubstr("control type 6"));
  EXPECT_THAT(message([&] { ControlChart(Type(-1), data, 2); }), HasSubstr("control type -1"));
  EXPECT_THAT(message([&] { ControlChart(ControlChart::kMeanRange, data, 0); }),
              HasSubstr("subgroup size 0"));
  EXPECT_THAT(message([&] { ControlChart(ControlChart::kMeanRange, data, -3); }),
              HasSubstr("subgroup size -3"));

  struct Case {
    const char* name;
    Type type;
    int n;
    std::function<void(ControlChart&)> call;
    const char* fault;
  };
  const Case cases[] = {
      {"d2 for single values", ControlChart::kMeanRange, 1,
       [](ControlChart& c) { c.SetStdDevSubgroup(1); }, "SetStdDevSubgroup: subgroup size 1"},
      {"c4 beyond the tables", ControlChart::kMeanStdDev, 26,
       [](ControlChart& c) { c.SetStdDevSubgroup(1); }, "subgroup size 26"},
      {"c4 for an EWMA of single values", ControlChart::kEWMA, 1,
       [](ControlChart& c) { c.SetStdDevSubgroup(1); }, "subgroup size 1"},
      {"negative sigma", ControlChart::kMeanRange, 2,
       [](ControlChart& c) { c.SetStdDevSubgroup(-2); }, "standard deviation -2"},
      {"NaN sigma", ControlChart::kMeanRange, 2,
       [](ControlChart& c) { c.SetStdDevSubgroup(std::nan("")); }, "not finite"},
      {"infinite target", ControlChart::kMeanRange, 2,
       [](ControlChart& c) { c.SetTarget(INFINITY); }, "SetTarget: target inf"},
      {"lambda 0", ControlChart::kEWMA, 2, [](ControlChart& c) { c.SetEWMALambda(0); },
       "lambda 0 is outside (0, 1]"},
      {"lambda 1.5", ControlChart::kEWMA, 2, [](ControlChart& c) { c.SetEWMALambda(1.5); },
       "lambda 1.5"},
      {"negative CuSum start", ControlChart::kCuSum, 2,
       [](ControlChart& c) { c.SetPrevious(0, -1); }, "CuSum start value -1"},
      {"mean limits with A2 beyond the tables", ControlChart::kMeanRange, 26,
       [](ControlChart& c) {
         ControlChart with_range = Chart(ControlChart::kMeanRange, {}, 5);
         with_range.SetStdDevSubgroup(1);
         c.ImportLimits(with_range);
         c.SetTarget(7);
       },
       "SetTarget: subgroup size 26"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ControlChart chart = Chart(c.type, {1, 2, 3, 4, 5, 6}, c.n);
    EXPECT_THAT(message([&] { c.call(chart); }), HasSubstr(c.fault));
    EXPECT_EQ(chart.GetTarget(), -99.0);
    EXPECT_EQ(chart.GetMeanUCL(), -99.0);
    EXPECT_EQ(chart.GetStdDevMean(), -99.0);
  }
}

}  // namespace
