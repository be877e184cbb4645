// The Q2 arithmetic that the PCA and PLS cross-validations share.
#ifndef MVDA_VALIDATION_DETAIL_Q2_H_
#define MVDA_VALIDATION_DETAIL_Q2_H_

#include <algorithm>

namespace mvda::detail {

// Sums of squares below this (ten times the smallest normal float) count as no variation left.
inline constexpr double kNoVariation = 1.1754943508222875e-37;

// One component that predicts worse than nothing lowers the cumulative Q2 by at most a tenth of
// what remains, as if its PRESS were 1.1 times its SS.
inline constexpr double kMaxPressRatio = 1.1;

// The cumulative Q2 after a component: 1 - (1 - previous) min(press / ss, 1.1).
inline double CumulativeQ2(double previous, double press, double ss) {
  return 1.0 - (1.0 - previous) * std::min(press / ss, kMaxPressRatio);
}

}  // namespace mvda::detail

#endif  // MVDA_VALIDATION_DETAIL_Q2_H_
