#include <mvda/platform/error.h>
#include <mvda/spc/control_chart.h>
#include <mvda/spc/detail/chart_constants.h>
#include <mvda/spc/detail/line_search.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <sstream>
#include <string>

namespace {

using mvda::kMissing;
using mvda::detail::ChartFactor;

constexpr float kMissingF = static_cast<float>(kMissing);
// Precision of the EWMA weight search. The sum of errors is flat near its minimum, so a finer
// weight would change the forecasts by far less than the noise in the means.
constexpr double kLambdaTolerance = 0.0005;
// Sums of errors are built from float means; differences below float resolution are noise.
constexpr double kFloatEpsilon = std::numeric_limits<float>::epsilon();

bool Present(float x) { return x != kMissingF; }

// A statistic that lands exactly on -99 would read as "not computable" to every caller, so it is
// moved one float step towards zero.
float Store(double value) {
  float f = static_cast<float>(value);
  if (f == kMissingF) f = std::nextafter(f, 0.0f);
  return f;
}

std::string Text(double value) {
  std::ostringstream os;
  os << value;
  return os.str();
}

double Factor(ChartFactor factor, int n, const char* caller) {
  return mvda::detail::GetChartFactor(factor, n, caller);
}

ControlChart::ControlType CheckedType(ControlChart::ControlType type) {
  const int code = static_cast<int>(type);
  if (code < ControlChart::kIndividual || code > ControlChart::kEWMAOther) {
    throw NCError("ControlChart::ControlChart: control type " + std::to_string(code) +
                  " is not one of 0..5");
  }
  return type;
}

int CheckedSubgroupSize(int n) {
  if (n < 1) {
    throw NCError("ControlChart::ControlChart: subgroup size " + std::to_string(n) + " is below 1");
  }
  return n;
}

}  // namespace

// --- Type texts

std::string ControlChart::FromControlType(ControlType type) {
  switch (static_cast<int>(type)) {
    case kMeanRange:
      return "Mean/Range";
    case kMeanStdDev:
      return "Mean/StdDev";
    case kCuSum:
      return "CuSum";
    default:
      return "Individual";
  }
}

ControlChart::ControlType ControlChart::ToControlType(const std::string& text) {
  if (text == "Mean/Range") return kMeanRange;
  if (text == "Mean/StdDev") return kMeanStdDev;
  if (text == "CuSum") return kCuSum;
  return kIndividual;
}

// --- Construction and subgroups

ControlChart::ControlChart(ControlType type, const NCDataVector<float>& data, int subgroup_size)
    : type_(CheckedType(type)), subgroup_size_(CheckedSubgroupSize(subgroup_size)) {
  SubgroupMean(data, subgroup_size_);
  SubgroupRange(data, subgroup_size_);
  SubgroupStdDev(data, subgroup_size_);
  // No other setter writes this spread: it is the plain standard deviation of the values the
  // chart was built from, which is what an individuals chart shows beside the moving spread.
  individual_std_dev_ = static_cast<double>(data.GetStdDev());
}

ControlChart::ControlChart(const ControlChart& other) = default;
ControlChart& ControlChart::operator=(const ControlChart& other) = default;
ControlChart::~ControlChart() = default;

void ControlChart::SubgroupMean(const NCDataVector<float>& data, int n) {
  const int groups = data.Size() / n;
  means_.SetSize(groups);
  for (int g = 1; g <= groups; ++g) {
    double sum = 0.0;
    int m = 0;
    for (int i = (g - 1) * n + 1; i <= g * n; ++i) {
      if (Present(data[i])) {
        sum += data[i];
        ++m;
      }
    }
    if (m > 0) means_(g, Store(sum / m));
  }
}

void ControlChart::SubgroupRange(const NCDataVector<float>& data, int n) {
  const int groups = data.Size() / n;
  ranges_.SetSize(groups);
  for (int g = 1; g <= groups; ++g) {
    double lo = 0.0;
    double hi = 0.0;
    int m = 0;
    bool nan = false;
    for (int i = (g - 1) * n + 1; i <= g * n; ++i) {
      const float x = data[i];
      if (!Present(x)) continue;
      nan = nan || std::isnan(x);
      if (m == 0 || x < lo) lo = x;
      if (m == 0 || x > hi) hi = x;
      ++m;
    }
    if (m > 0) ranges_(g, nan ? std::numeric_limits<float>::quiet_NaN() : Store(hi - lo));
  }
}

void ControlChart::SubgroupStdDev(const NCDataVector<float>& data, int n) {
  const int groups = data.Size() / n;
  std_devs_.SetSize(groups);
  for (int g = 1; g <= groups; ++g) {
    double sum = 0.0;
    double sum_sq = 0.0;
    int m = 0;
    for (int i = (g - 1) * n + 1; i <= g * n; ++i) {
      if (Present(data[i])) {
        sum += data[i];
        sum_sq += static_cast<double>(data[i]) * data[i];
        ++m;
      }
    }
    if (m < 2) continue;
    // The one-pass formula can cancel to a tiny negative for equal values; that spread is 0.
    const double variance = std::max(0.0, (m * sum_sq - sum * sum) / (double(m) * (m - 1)));
    std_devs_(g, Store(std::sqrt(variance)));
  }
}

// --- Setters

void ControlChart::SetTarget(double target) {
  if (target == kMissing) return;
  if (!std::isfinite(target)) {
    throw NCError("ControlChart::SetTarget: target " + Text(target) + " is not finite");
  }
  const char* where = "ControlChart::SetTarget";
  switch (type_) {
    case kMeanRange:
      if (mean_range_ != kMissing) {
        const double half_width = Factor(ChartFactor::kA2, subgroup_size_, where) * mean_range_;
        mean_ucl_ = target + half_width;
        mean_lcl_ = target - half_width;
      }
      break;
    case kMeanStdDev:
      if (mean_std_dev_ != kMissing) {
        const double half_width = Factor(ChartFactor::kA3, subgroup_size_, where) * mean_std_dev_;
        mean_ucl_ = target + half_width;
        mean_lcl_ = target - half_width;
      }
      break;
    case kCuSum:
      ForgetCuSum();
      break;
    case kEWMA:
      ewma_ucl_ = ewma_lcl_ = ewma_std_dev_ = kMissing;
      ForgetEWMA();
      break;
    case kIndividual:
    case kEWMAOther:
      // The hosts' second EWMA code keeps its EWMA limits and vector when the target moves.
      break;
  }
  target_ = target;
}

void ControlChart::SetStdDevSubgroup(double sigma) {
  if (sigma == kMissing) return;
  if (!std::isfinite(sigma) || sigma < 0) {
    throw NCError("ControlChart::SetStdDevSubgroup: standard deviation " + Text(sigma) +
                  " is negative or not finite");
  }
  const char* where = "ControlChart::SetStdDevSubgroup";
  switch (type_) {
    case kIndividual:
      process_std_dev_ = sigma;
      break;
    case kMeanRange:
      SetMeanRangeValues(sigma * Factor(ChartFactor::kD2, subgroup_size_, where), where);
      break;
    case kMeanStdDev:
      SetStdDevValues(sigma * Factor(ChartFactor::kC4, subgroup_size_, where), where);
      break;
    case kCuSum: {
      const double s = sigma * Factor(ChartFactor::kC4, subgroup_size_, where);
      SetStdDevValues(s, where);
      mssd_std_dev_ = s;
      dead_band_ = 0.5 * s;
      action_limit_ = 4.5 * s;
      break;
    }
    case kEWMA:
    case kEWMAOther: {
      const double s = sigma * Factor(ChartFactor::kC4, subgroup_size_, where);
      SetStdDevValues(s, where);
      mssd_std_dev_ = s;
      process_std_dev_ = sigma;
      ewma_ucl_ = ewma_lcl_ = ewma_std_dev_ = kMissing;
      break;
    }
  }
}

void ControlChart::SetMeanRangeValues(double mean_range, const char* caller) {
  const double a2 = Factor(ChartFactor::kA2, subgroup_size_, caller);
  const double d2 = Factor(ChartFactor::kD2, subgroup_size_, caller);
  const double d3 = Factor(ChartFactor::kD3, subgroup_size_, caller);
  const double d4 = Factor(ChartFactor::kD4, subgroup_size_, caller);
  mean_range_ = mean_range;
  // Without a target the mean chart has no centre yet; SetTarget draws its limits later.
  if (target_ != kMissing) {
    mean_ucl_ = target_ + a2 * mean_range;
    mean_lcl_ = target_ - a2 * mean_range;
  }
  range_ucl_ = d4 * mean_range;
  range_lcl_ = d3 * mean_range;
  process_std_dev_ = mean_range / d2;
}

void ControlChart::SetStdDevValues(double mean_std_dev, const char* caller) {
  const double a3 = Factor(ChartFactor::kA3, subgroup_size_, caller);
  const double b3 = Factor(ChartFactor::kB3, subgroup_size_, caller);
  const double b4 = Factor(ChartFactor::kB4, subgroup_size_, caller);
  const double c4 = Factor(ChartFactor::kC4, subgroup_size_, caller);
  mean_std_dev_ = mean_std_dev;
  std_dev_ucl_ = b4 * mean_std_dev;
  std_dev_lcl_ = b3 * mean_std_dev;
  if (target_ != kMissing) {
    mean_ucl_ = target_ + a3 * mean_std_dev;
    mean_lcl_ = target_ - a3 * mean_std_dev;
  }
  process_std_dev_ = mean_std_dev / c4;
}

void ControlChart::SetEWMALambda(double lambda) {
  if (lambda != kMissing && !(lambda > 0 && lambda <= 1)) {
    throw NCError("ControlChart::SetEWMALambda: lambda " + Text(lambda) + " is outside (0, 1]");
  }
  ewma_lambda_ = lambda;
  // The EWMA and its limits were drawn with the old weight.
  ewma_ucl_ = ewma_lcl_ = ewma_std_dev_ = kMissing;
  ForgetEWMA();
}

void ControlChart::SetPrevious(double previous) {
  if (type_ != kEWMA && type_ != kEWMAOther) return;
  if (!std::isfinite(previous)) {
    throw NCError("ControlChart::SetPrevious: EWMA start value " + Text(previous) +
                  " is not finite");
  }
  ewma_previous_ = previous;
  ForgetEWMA();
}

void ControlChart::SetPrevious(double previous_low, double previous_high) {
  if (type_ != kCuSum) return;
  for (const double v : {previous_low, previous_high}) {
    if (v != kMissing && !(std::isfinite(v) && v >= 0)) {
      throw NCError("ControlChart::SetPrevious: CuSum start value " + Text(v) +
                    " is negative or not finite");
    }
  }
  cusum_previous_low_ = previous_low;
  cusum_previous_high_ = previous_high;
  ForgetCuSum();
}

void ControlChart::ImportLimits(const ControlChart& other) {
  const double lambda = other.GetEWMALambda();  // may estimate it from other's data first
  target_ = other.target_;
  mean_ucl_ = other.mean_ucl_;
  mean_lcl_ = other.mean_lcl_;
  mean_range_ = other.mean_range_;
  range_ucl_ = other.range_ucl_;
  range_lcl_ = other.range_lcl_;
  process_std_dev_ = other.process_std_dev_;
  individual_std_dev_ = other.individual_std_dev_;
  mean_std_dev_ = other.mean_std_dev_;
  std_dev_ucl_ = other.std_dev_ucl_;
  std_dev_lcl_ = other.std_dev_lcl_;
  action_limit_ = other.action_limit_;
  dead_band_ = other.dead_band_;
  ewma_lambda_ = lambda;
  ewma_ucl_ = other.ewma_ucl_;
  ewma_lcl_ = other.ewma_lcl_;
  ewma_std_dev_ = other.ewma_std_dev_;
  mssd_std_dev_ = other.mssd_std_dev_;
  // This chart's own means are charted against the new target, weight and dead band.
  ForgetCuSum();
  ForgetEWMA();
}

void ControlChart::ForgetCuSum() const {
  dev_from_target_.SetSize(0);
  high_cusum_.SetSize(0);
  low_cusum_.SetSize(0);
}

void ControlChart::ForgetEWMA() const {
  ewma_.SetSize(0);
  ewma_computed_ = false;
}

// --- Spread of the means

double ControlChart::GetMSSD() const {
  if (subgroup_size_ == 1) return process_std_dev_;
  if (mssd_std_dev_ != kMissing) return mssd_std_dev_;
  // Mean square successive difference: only neighbours that are both present contribute, while
  // the divisor counts every present mean.
  double sum_sq = 0.0;
  int m = 0;
  for (int i = 1; i <= means_.Size(); ++i) {
    if (!Present(means_[i])) continue;
    ++m;
    if (i > 1 && Present(means_[i - 1])) {
      const double d = static_cast<double>(means_[i]) - means_[i - 1];
      sum_sq += d * d;
    }
  }
  if (m < 2) return kMissing;
  mssd_std_dev_ = std::sqrt(sum_sq / (2.0 * m - 2.0));
  return mssd_std_dev_;
}

// --- Tabular CuSum

void ControlChart::CalculateCuSum() const {
  const double sigma = GetMSSD();
  if (sigma != kMissing) {
    dead_band_ = 0.5 * sigma;
    action_limit_ = 4.5 * sigma;
  }
  ForgetCuSum();
  if (target_ == kMissing) return;
  const int n = means_.Size();
  dev_from_target_.SetSize(n);
  for (int i = 1; i <= n; ++i) {
    if (Present(means_[i])) dev_from_target_(i, Store(means_[i] - target_));
  }
  if (dead_band_ == kMissing) return;
  const double k = dead_band_;
  double low = cusum_previous_low_ != kMissing ? cusum_previous_low_ : 0.0;
  double high = cusum_previous_high_ != kMissing ? cusum_previous_high_ : 0.0;
  low_cusum_.SetSize(n);
  high_cusum_.SetSize(n);
  for (int i = 1; i <= n; ++i) {
    // A missing mean carries both sums over unchanged, so leading gaps show the start values.
    if (Present(means_[i])) {
      const double deviation = means_[i] - target_;
      low = std::max(0.0, low - (deviation + k));
      high = std::max(0.0, high + (deviation - k));
    }
    low_cusum_(i, Store(low));
    high_cusum_(i, Store(high));
  }
}

double ControlChart::GetActionLimit() const {
  if (action_limit_ == kMissing) CalculateCuSum();
  return action_limit_;
}

double ControlChart::GetDeadBand() const {
  if (dead_band_ == kMissing) CalculateCuSum();
  return dead_band_;
}

const NCDataVector<float>* ControlChart::GetDevFromTarget() const {
  if (dev_from_target_.Size() == 0) CalculateCuSum();
  return &dev_from_target_;
}

const NCDataVector<float>* ControlChart::GetHighCuSum() const {
  if (high_cusum_.Size() == 0) CalculateCuSum();
  return &high_cusum_;
}

const NCDataVector<float>* ControlChart::GetLowCuSum() const {
  if (low_cusum_.Size() == 0) CalculateCuSum();
  return &low_cusum_;
}

// --- EWMA

double ControlChart::EWMAStart() const {
  return ewma_previous_ != kMissing ? ewma_previous_ : target_;
}

double ControlChart::RunEWMA(double lambda, NCDataVector<float>* out) const {
  const double start = EWMAStart();
  if (start == kMissing || lambda == kMissing) {
    if (out != nullptr) out->SetSize(0);
    return kMissing;
  }
  const int n = means_.Size();
  if (out != nullptr) out->SetSize(n);
  // Exponentially weighted moving average (EWMA) as a forecast: entry i is built from the means
  // before i only, so each mean is compared with a prediction it did not influence.
  double z = start;
  double sum_err = 0.0;
  for (int i = 1; i <= n; ++i) {
    if (i > 1 && Present(means_[i - 1])) z += lambda * (means_[i - 1] - z);
    if (out != nullptr) (*out)(i, Store(z));
    if (Present(means_[i])) sum_err += (means_[i] - z) * (means_[i] - z);
  }
  return sum_err;
}

bool ControlChart::CalculateEWMA(NCDataVector<float>& out, double lambda) const {
  return RunEWMA(lambda, &out) != kMissing;
}

double ControlChart::CalculateLambda(double start, double step, double* sum_err) const {
  // The weight only means something in [0, 1]: a minimum beyond 1 would be cut back to 1, and
  // one at 0 falls back to the default weight below.
  const mvda::detail::LineMinimum best =
      mvda::detail::MinimiseFromStart([this](double lambda) { return CalculateSumErr(lambda); },
                                      start, step, 0.0, 1.0, kLambdaTolerance, kFloatEpsilon);
  *sum_err = best.value;
  return best.x;
}

double ControlChart::GetEWMALambda() const {
  if (ewma_lambda_ != kMissing) return ewma_lambda_;
  // Without a target or start value there is no forecast to fit; estimate once one is set.
  if (EWMAStart() == kMissing) return kMissing;
  // Two searches, from a light and from a full weight, since the sum of errors can have a
  // minimum at each end; the heavier one wins only when strictly better.
  double err_light = 0.0;
  double err_full = 0.0;
  const double light = CalculateLambda(0.1, 0.1, &err_light);
  const double full = CalculateLambda(1.0, -0.1, &err_full);
  double lambda = err_full < err_light ? full : light;
  // A weight of (almost) 0 would never move off the start; 0.2 is the customary weight.
  if (lambda < 1e-5) lambda = 0.2;
  if (lambda > 1) lambda = 1;
  ewma_lambda_ = lambda;
  return lambda;
}

void ControlChart::CalculateEWMALimits() const {
  const double lambda = GetEWMALambda();
  const double sigma = subgroup_size_ == 1 ? process_std_dev_ : GetMSSD();
  if (lambda == kMissing || sigma == kMissing || target_ == kMissing) return;
  // Asymptotic spread of the EWMA statistic: sigma * sqrt(lambda / (2 - lambda)).
  ewma_std_dev_ = std::sqrt(lambda / (2.0 - lambda)) * sigma;
  ewma_ucl_ = target_ + 3.0 * ewma_std_dev_;
  ewma_lcl_ = target_ - 3.0 * ewma_std_dev_;
}

double ControlChart::GetEWMAStdDev() const {
  if (ewma_std_dev_ == kMissing) CalculateEWMALimits();
  return ewma_std_dev_;
}

double ControlChart::GetEWMAUCL() const {
  if (ewma_ucl_ == kMissing) CalculateEWMALimits();
  return ewma_ucl_;
}

double ControlChart::GetEWMALCL() const {
  if (ewma_lcl_ == kMissing) CalculateEWMALimits();
  return ewma_lcl_;
}

const NCDataVector<float>* ControlChart::GetEWMA() const {
  if (!ewma_computed_) ewma_computed_ = CalculateEWMA(ewma_, GetEWMALambda());
  return &ewma_;
}
