// A worked X-bar/R example from the literature, reproduced to its printed precision.
#include <mvda/spc/control_chart.h>

#include <vector>

#include <gtest/gtest.h>

#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

// Inside diameters (mm) of forged automobile piston rings, 25 samples of 5: the X-bar/R example
// that opens the chapter on control charts for variables in D. C. Montgomery, "Introduction to
// Statistical Quality Control" (Wiley). Each row: the five measurements, then the printed sample
// mean and range. The printed column sums are 1850.028 and 0.581.
struct Sample {
  double x[5];
  double mean, range;
};
const Sample kPistonRings[] = {
    {{74.030, 74.002, 74.019, 73.992, 74.008}, 74.010, 0.038},
    {{73.995, 73.992, 74.001, 74.011, 74.004}, 74.001, 0.019},
    {{73.988, 74.024, 74.021, 74.005, 74.002}, 74.008, 0.036},
    {{74.002, 73.996, 73.993, 74.015, 74.009}, 74.003, 0.022},
    {{73.992, 74.007, 74.015, 73.989, 74.014}, 74.003, 0.026},
    {{74.009, 73.994, 73.997, 73.985, 73.993}, 73.996, 0.024},
    {{73.995, 74.006, 73.994, 74.000, 74.005}, 74.000, 0.012},
    {{73.985, 74.003, 73.993, 74.015, 73.988}, 73.997, 0.030},
    {{74.008, 73.995, 74.009, 74.005, 74.004}, 74.004, 0.014},
    {{73.998, 74.000, 73.990, 74.007, 73.995}, 73.998, 0.017},
    {{73.994, 73.998, 73.994, 73.995, 73.990}, 73.994, 0.008},
    {{74.004, 74.000, 74.007, 74.000, 73.996}, 74.001, 0.011},
    {{73.983, 74.002, 73.998, 73.997, 74.012}, 73.998, 0.029},
    {{74.006, 73.967, 73.994, 74.000, 73.984}, 73.990, 0.039},
    {{74.012, 74.014, 73.998, 73.999, 74.007}, 74.006, 0.016},
    {{74.000, 73.984, 74.005, 73.998, 73.996}, 73.997, 0.021},
    {{73.994, 74.012, 73.986, 74.005, 74.007}, 74.001, 0.026},
    {{74.006, 74.010, 74.018, 74.003, 74.000}, 74.007, 0.018},
    {{73.984, 74.002, 74.003, 74.005, 73.997}, 73.998, 0.021},
    {{74.000, 74.010, 74.013, 74.020, 74.003}, 74.009, 0.020},
    {{73.982, 74.001, 74.015, 74.005, 73.996}, 74.000, 0.033},
    {{74.004, 73.999, 73.990, 74.006, 74.009}, 74.002, 0.019},
    {{74.010, 73.989, 73.990, 74.009, 74.014}, 74.002, 0.025},
    {{74.015, 74.008, 73.993, 74.000, 74.010}, 74.005, 0.022},
    {{73.982, 73.984, 73.995, 74.017, 74.013}, 73.998, 0.035},
};

TEST(TextbookChart, PistonRingMeanRangeChart) {
  std::vector<double> values;
  for (const Sample& s : kPistonRings) values.insert(values.end(), s.x, s.x + 5);
  ControlChart chart(ControlChart::kMeanRange, MakeVector<float>(values), 5);

  const NCDataVector<float>& means = *chart.GetMeanVector();
  const NCDataVector<float>& ranges = *chart.GetRangeVector();
  ASSERT_EQ(means.Size(), 25);
  ASSERT_EQ(ranges.Size(), 25);
  for (int i = 1; i <= 25; ++i) {
    SCOPED_TRACE(i);
    EXPECT_NEAR(means[i], kPistonRings[i - 1].mean, 0.0005);
    EXPECT_NEAR(ranges[i], kPistonRings[i - 1].range, 0.0005);
  }
  // Grand mean 1850.028 / 25 = 74.001, mean range 0.581 / 25 = 0.023 as printed.
  EXPECT_NEAR(static_cast<double>(means.GetMean()), 74.001, 0.0005);
  EXPECT_NEAR(static_cast<double>(ranges.GetMean()), 0.023, 0.0005);

  // The book draws the limits from the rounded 74.001 and 0.023, entered here as the target and
  // as sigma = 0.023 / d2(5) = 0.023 / 2.326 (printed 0.0099):
  //   X-bar: 74.001 +/- A2 R = 74.001 +/- 0.577 * 0.023 = 74.001 +/- 0.013 -> 74.014, 73.988;
  //   R: D4 R = 2.114 * 0.023 = 0.049, D3 R = 0.
  chart.SetTarget(74.001);
  chart.SetStdDevSubgroup(0.023 / 2.326);
  EXPECT_NEAR(chart.GetMeanUCL(), 74.014, 0.0005);
  EXPECT_NEAR(chart.GetMeanLCL(), 73.988, 0.0005);
  EXPECT_NEAR(chart.GetRangeMean(), 0.023, 1e-9);
  EXPECT_NEAR(chart.GetRangeUCL(), 0.049, 0.0005);
  EXPECT_EQ(chart.GetRangeLCL(), 0.0);
  EXPECT_NEAR(chart.GetStdDevProcess(), 0.0099, 0.00005);
}

}  // namespace
