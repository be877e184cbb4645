// The standard control-chart factors A2, A3, B3, B4, c4, d2, D3 and D4 for subgroup sizes 2..25,
// which turn a mean range or a mean standard deviation into Shewhart limits.
#ifndef MVDA_SPC_DETAIL_CHART_CONSTANTS_H_
#define MVDA_SPC_DETAIL_CHART_CONSTANTS_H_

namespace mvda::detail {

enum class ChartFactor { kA2, kA3, kB3, kB4, kC4, kD2, kD3, kD4 };

inline constexpr int kMinFactorSubgroup = 2;
inline constexpr int kMaxFactorSubgroup = 25;

// The factor for subgroup size n as printed in the published tables (three decimals, c4 four),
// held as float. Throws NCError naming `caller` when n is outside 2..25: the tables have no row
// for it, and a chart of single values has no range or standard deviation to scale.
double GetChartFactor(ChartFactor factor, int n, const char* caller);

}  // namespace mvda::detail

#endif  // MVDA_SPC_DETAIL_CHART_CONSTANTS_H_
