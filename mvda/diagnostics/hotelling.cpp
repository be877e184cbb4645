#include <mvda/diagnostics/detail/checks.h>
#include <mvda/diagnostics/hotelling.h>
#include <mvda/platform/error.h>

#include <cmath>
#include <string>

namespace mvda::diagnostics {
namespace {

constexpr float kMis = -99.0f;

}  // namespace

std::vector<double> ScoreVariances(const NCDataMatrix<float>& tprim) {
  const char* place = "ScoreVariances";
  const int a_count = tprim.SizeRows(), n = tprim.SizeColumns();
  if (a_count < 1) throw NCError(std::string(place) + ": the scores have no component");
  std::vector<double> variances(static_cast<std::size_t>(a_count));
  for (int a = 1; a <= a_count; ++a) {
    const NCDataVector<float>& t = tprim[a];
    double ss = 0;
    int present = 0;
    for (int i = 1; i <= n; ++i) {
      if (t[i] == kMis) continue;
      ss += static_cast<double>(t[i]) * t[i];
      ++present;
    }
    if (present < 2) {
      throw NCError(std::string(place) + ": component " + std::to_string(a) + " has " +
                    std::to_string(present) + " present scores; a variance needs 2");
    }
    const double variance = ss / (present - 1);
    if (!(variance > 0.0 && std::isfinite(variance))) {
      throw NCError(std::string(place) + ": the scores of component " + std::to_string(a) +
                    " have variance " + detail::Number(variance) + "; T² needs a positive one");
    }
    variances[static_cast<std::size_t>(a - 1)] = variance;
  }
  return variances;
}

std::vector<double> HotellingT2(const NCDataMatrix<float>& tprim,
                                const std::vector<double>& variances) {
  const int a_count = tprim.SizeRows(), n = tprim.SizeColumns();
  detail::CheckVariances(variances, a_count, "HotellingT2");
  std::vector<double> t2(static_cast<std::size_t>(n), 0.0);
  for (int a = 1; a <= a_count; ++a) {
    const NCDataVector<float>& t = tprim[a];
    const double s2 = variances[static_cast<std::size_t>(a - 1)];
    for (int i = 1; i <= n; ++i) {
      double& value = t2[static_cast<std::size_t>(i - 1)];
      if (value == kMissing) continue;
      value = t[i] == kMis ? kMissing : value + static_cast<double>(t[i]) * t[i] / s2;
    }
  }
  return t2;
}

double T2LimitTraining(int observations, int components, double alpha) {
  const char* place = "T2LimitTraining";
  detail::CheckAlpha(alpha, place);
  detail::CheckObservations(observations, components, place);
  const double n = observations, a = components;
  return (n - 1) * (n - 1) / n * detail::BetaQuantile(alpha, a / 2, (n - a - 1) / 2, place);
}

double T2LimitPrediction(int observations, int components, double alpha) {
  const char* place = "T2LimitPrediction";
  detail::CheckAlpha(alpha, place);
  detail::CheckObservations(observations, components, place);
  const double n = observations, a = components;
  return a * (n * n - 1) / (n * (n - a)) * detail::FQuantile(alpha, a, n - a, place);
}

EllipseAxes T2Ellipse(const std::vector<double>& variances, int a, int b, int observations,
                      double alpha) {
  const char* place = "T2Ellipse";
  const int a_count = static_cast<int>(variances.size());
  for (const int c : {a, b}) {
    if (c < 1 || c > a_count) {
      throw NCError(std::string(place) + ": component " + std::to_string(c) + " outside 1.." +
                    std::to_string(a_count));
    }
  }
  detail::CheckVariances(variances, a_count, place);
  // Two components are plotted, so the limit is that of a two-component T², whatever A is.
  const double limit = T2LimitTraining(observations, 2, alpha);
  return {std::sqrt(variances[static_cast<std::size_t>(a - 1)] * limit),
          std::sqrt(variances[static_cast<std::size_t>(b - 1)] * limit)};
}

}  // namespace mvda::diagnostics
