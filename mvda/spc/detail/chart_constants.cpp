#include <mvda/platform/error.h>
#include <mvda/spc/detail/chart_constants.h>

#include <string>

namespace mvda::detail {
namespace {

constexpr int kRows = kMaxFactorSubgroup - kMinFactorSubgroup + 1;

// Rows n = 2..25 of the published tables of control-chart factors. B3 is 0 up to n = 5 and D3 up
// to n = 6, where the three-sigma lower limit of the spread chart would be negative.
// clang-format off
constexpr float kA2[kRows] = {
    1.880f, 1.023f, 0.729f, 0.577f, 0.483f, 0.419f, 0.373f, 0.337f, 0.308f, 0.285f, 0.266f, 0.249f,
    0.235f, 0.223f, 0.212f, 0.203f, 0.194f, 0.187f, 0.180f, 0.173f, 0.167f, 0.162f, 0.157f, 0.153f};
constexpr float kA3[kRows] = {
    2.659f, 1.954f, 1.628f, 1.427f, 1.287f, 1.182f, 1.099f, 1.032f, 0.975f, 0.927f, 0.886f, 0.850f,
    0.817f, 0.789f, 0.763f, 0.739f, 0.718f, 0.698f, 0.680f, 0.663f, 0.647f, 0.633f, 0.619f, 0.606f};
constexpr float kB3[kRows] = {
    0.000f, 0.000f, 0.000f, 0.000f, 0.030f, 0.118f, 0.185f, 0.239f, 0.284f, 0.321f, 0.354f, 0.382f,
    0.406f, 0.428f, 0.448f, 0.466f, 0.482f, 0.497f, 0.510f, 0.523f, 0.534f, 0.545f, 0.555f, 0.565f};
constexpr float kB4[kRows] = {
    3.267f, 2.568f, 2.266f, 2.089f, 1.970f, 1.882f, 1.815f, 1.761f, 1.716f, 1.679f, 1.646f, 1.618f,
    1.594f, 1.572f, 1.552f, 1.534f, 1.518f, 1.503f, 1.490f, 1.477f, 1.466f, 1.455f, 1.445f, 1.435f};
constexpr float kC4[kRows] = {
    0.7979f, 0.8862f, 0.9213f, 0.9400f, 0.9515f, 0.9594f, 0.9650f, 0.9693f,
    0.9727f, 0.9754f, 0.9776f, 0.9794f, 0.9810f, 0.9823f, 0.9835f, 0.9845f,
    0.9854f, 0.9862f, 0.9869f, 0.9876f, 0.9882f, 0.9887f, 0.9892f, 0.9896f};
constexpr float kD2[kRows] = {
    1.128f, 1.693f, 2.059f, 2.326f, 2.534f, 2.704f, 2.847f, 2.970f, 3.078f, 3.173f, 3.258f, 3.336f,
    3.407f, 3.472f, 3.532f, 3.588f, 3.640f, 3.689f, 3.735f, 3.778f, 3.819f, 3.858f, 3.895f, 3.931f};
constexpr float kD3[kRows] = {
    0.000f, 0.000f, 0.000f, 0.000f, 0.000f, 0.076f, 0.136f, 0.184f, 0.223f, 0.256f, 0.283f, 0.307f,
    0.328f, 0.347f, 0.363f, 0.378f, 0.391f, 0.403f, 0.415f, 0.425f, 0.434f, 0.443f, 0.451f, 0.459f};
constexpr float kD4[kRows] = {
    3.267f, 2.574f, 2.282f, 2.114f, 2.004f, 1.924f, 1.864f, 1.816f, 1.777f, 1.744f, 1.717f, 1.693f,
    1.672f, 1.653f, 1.637f, 1.622f, 1.608f, 1.597f, 1.585f, 1.575f, 1.566f, 1.557f, 1.548f, 1.541f};
// clang-format on

const float* Table(ChartFactor factor) {
  switch (factor) {
    case ChartFactor::kA2:
      return kA2;
    case ChartFactor::kA3:
      return kA3;
    case ChartFactor::kB3:
      return kB3;
    case ChartFactor::kB4:
      return kB4;
    case ChartFactor::kC4:
      return kC4;
    case ChartFactor::kD2:
      return kD2;
    case ChartFactor::kD3:
      return kD3;
    case ChartFactor::kD4:
      return kD4;
  }
  return kA2;  // not reached: every enumerator is listed above
}

}  // namespace

double GetChartFactor(ChartFactor factor, int n, const char* caller) {
  if (n < kMinFactorSubgroup || n > kMaxFactorSubgroup) {
    throw NCError(std::string(caller) + ": subgroup size " + std::to_string(n) +
                  " is outside the control-chart factor tables (2..25)");
  }
  return Table(factor)[n - kMinFactorSubgroup];
}

}  // namespace mvda::detail
