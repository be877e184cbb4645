// The tool's outlier diagnostics: the limit levels it reports and T², SPE, their limits and the
// contributions of the most extreme observation, for a fit and for a prediction, all computed by
// the library's diagnostics.
#include <mvda/diagnostics/contributions.h>
#include <mvda/diagnostics/hotelling.h>
#include <mvda/diagnostics/spe.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "analysis.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

constexpr double kMissing = -99.0;

bool Present(double v) { return v != kMissing && std::isfinite(v); }

// A limit that cannot be computed (too few observations for the components, a training set
// without spread) is shown as missing rather than ending the run: the model itself is fine.
template <class F>
double LimitOrMissing(F compute) {
  try {
    return compute();
  } catch (const NCError& e) {
    if (e.GetLevel() == NCError::kStopRequested) throw;
    return kMissing;
  }
}

double LimitAt(const std::vector<Level>& levels, const std::vector<double>& limits, double alpha) {
  for (std::size_t l = 0; l < levels.size(); ++l) {
    if (levels[l].alpha == alpha) return limits[l];
  }
  return kMissing;
}

// T², SPE and their limits at every level; the variances and training figures already set in d.
void Fill(Diagnostics& d, const Matrix& x, const Matrix& tprim, const Matrix& pprim,
          bool training) {
  const int n = x.SizeRows(), a = tprim.SizeRows();
  if (d.spe.empty()) d.spe = diagnostics::SPE(x, tprim, pprim);
  d.t2.assign(static_cast<std::size_t>(n), kMissing);
  if (a > 0 && static_cast<int>(d.score_variances.size()) == a) {
    d.t2 = diagnostics::HotellingT2(tprim, d.score_variances);
  }
  for (const Level& level : d.levels) {
    d.t2_limits.push_back(a == 0 ? kMissing : LimitOrMissing([&] {
      return training ? diagnostics::T2LimitTraining(d.training_observations, a, level.alpha)
                      : diagnostics::T2LimitPrediction(d.training_observations, a, level.alpha);
    }));
    d.spe_limits.push_back(
        LimitOrMissing([&] { return diagnostics::SPELimit(d.spe_moments, level.alpha); }));
  }
  // The most extreme observation: the largest ratio of T² or SPE to its 99 % limit.
  const double t2_limit = d.T2Limit(0.99), spe_limit = d.SPELimit(0.99);
  double worst = -1;
  for (int i = 1; i <= n; ++i) {
    const double t2 = d.t2[static_cast<std::size_t>(i - 1)];
    const double spe = d.spe[static_cast<std::size_t>(i - 1)];
    if (Present(t2) && Present(t2_limit) && t2_limit > 0 && t2 / t2_limit > worst) {
      worst = t2 / t2_limit;
      d.extreme = i;
      d.extreme_by_spe = false;
    }
    if (Present(spe) && Present(spe_limit) && spe_limit > 0 && spe / spe_limit > worst) {
      worst = spe / spe_limit;
      d.extreme = i;
      d.extreme_by_spe = true;
    }
  }
  if (d.extreme > 0) {
    d.contributions = d.extreme_by_spe ? diagnostics::SPEContributions(x, tprim, pprim, d.extreme)
                                       : diagnostics::T2Contributions(x, tprim, pprim,
                                                                      d.score_variances, d.extreme);
  }
}

}  // namespace

std::vector<Level> Levels(const std::vector<std::string>& extra) {
  std::vector<Level> levels = {{0.95, "0.95"}, {0.99, "0.99"}};
  for (const std::string& word : extra) {
    errno = 0;
    char* end = nullptr;
    const double alpha = std::strtod(word.c_str(), &end);
    if (word.empty() || end != word.c_str() + word.size() || errno != 0 || !(alpha > 0) ||
        !(alpha < 1)) {
      throw ToolError("--alpha " + word + ": a fraction between 0 and 1 is expected (e.g. 0.9)");
    }
    const bool known =
        std::any_of(levels.begin(), levels.end(), [&](const Level& l) { return l.alpha == alpha; });
    if (!known) levels.push_back({alpha, word});
  }
  std::sort(levels.begin(), levels.end(),
            [](const Level& a, const Level& b) { return a.alpha < b.alpha; });
  return levels;
}

double Diagnostics::T2Limit(double alpha) const { return LimitAt(levels, t2_limits, alpha); }
double Diagnostics::SPELimit(double alpha) const { return LimitAt(levels, spe_limits, alpha); }

std::vector<std::size_t> Diagnostics::Beyond99() const {
  const double t2_limit = T2Limit(0.99), spe_limit = SPELimit(0.99);
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < spe.size(); ++i) {
    if ((Present(t2[i]) && Present(t2_limit) && t2[i] > t2_limit) ||
        (Present(spe[i]) && Present(spe_limit) && spe[i] > spe_limit)) {
      out.push_back(i);
    }
  }
  return out;
}

Diagnostics TrainingDiagnostics(const Matrix& x, const Matrix& tprim, const Matrix& pprim,
                                const std::vector<std::string>& alphas) {
  Diagnostics d;
  d.levels = Levels(alphas);
  d.training_observations = x.SizeRows();
  if (tprim.SizeRows() > 0) d.score_variances = diagnostics::ScoreVariances(tprim);
  // The SPE limit comes from the training values themselves.
  d.spe = diagnostics::SPE(x, tprim, pprim);
  try {
    d.spe_moments = diagnostics::SPEMomentsOf(d.spe);
  } catch (const NCError& e) {
    if (e.GetLevel() == NCError::kStopRequested) throw;
    d.spe_moments = {kMissing, kMissing, 0};  // fewer than 2 rows with an SPE: no limit
  }
  Fill(d, x, tprim, pprim, true);
  return d;
}

Diagnostics PredictionDiagnostics(const Matrix& x, const Matrix& tprim, const Matrix& pprim,
                                  const ModelFile& model, const std::vector<std::string>& alphas) {
  Diagnostics d;
  d.levels = Levels(alphas);
  d.training_observations = model.training_observations;
  d.score_variances = model.score_variances;
  d.spe_moments = model.spe;
  Fill(d, x, tprim, pprim, false);
  return d;
}

}  // namespace mvda::cli
