#include <mvda/diagnostics/contributions.h>
#include <mvda/diagnostics/detail/checks.h>
#include <mvda/diagnostics/detail/residual_row.h>
#include <mvda/platform/error.h>

#include <string>

namespace mvda::diagnostics {
namespace {

void CheckObservation(int observation, int n, const char* place) {
  if (observation < 1 || observation > n) {
    throw NCError(std::string(place) + ": observation " + std::to_string(observation) +
                  " outside 1.." + std::to_string(n));
  }
}

}  // namespace

std::vector<double> SPEContributions(const NCDataMatrix<float>& x, const NCDataMatrix<float>& tprim,
                                     const NCDataMatrix<float>& pprim, int observation) {
  const char* place = "SPEContributions";
  detail::CheckModelShapes(x, tprim, pprim, place);
  CheckObservation(observation, x.SizeRows(), place);
  std::vector<double> result(static_cast<std::size_t>(x.SizeColumns()), kMissing);
  const detail::LoadingRows loadings(pprim, x.SizeColumns());
  std::vector<float> t(static_cast<std::size_t>(loadings.Components()));
  if (!detail::ScoresOf(tprim, observation, t.data())) return result;
  const NCDataVector<float>& row = x[observation];
  for (int k = 1; k <= x.SizeColumns(); ++k) {
    if (row[k] == -99.0f) continue;
    result[static_cast<std::size_t>(k - 1)] = loadings.Residual(row[k], t.data(), k - 1);
  }
  return result;
}

std::vector<double> T2Contributions(const NCDataMatrix<float>& x, const NCDataMatrix<float>& tprim,
                                    const NCDataMatrix<float>& pprim,
                                    const std::vector<double>& variances, int observation) {
  const char* place = "T2Contributions";
  detail::CheckModelShapes(x, tprim, pprim, place);
  detail::CheckVariances(variances, pprim.SizeRows(), place);
  CheckObservation(observation, x.SizeRows(), place);
  const int k_count = x.SizeColumns(), a_count = pprim.SizeRows();
  std::vector<double> result(static_cast<std::size_t>(k_count), kMissing);
  std::vector<float> t(static_cast<std::size_t>(a_count));
  if (!detail::ScoresOf(tprim, observation, t.data())) return result;
  const NCDataVector<float>& row = x[observation];
  for (int k = 1; k <= k_count; ++k) {
    if (row[k] == -99.0f) continue;
    double sum = 0;
    for (int a = 1; a <= a_count; ++a) {
      const float p = pprim[a][k];
      if (p == -99.0f) continue;
      sum += t[static_cast<std::size_t>(a - 1)] / variances[static_cast<std::size_t>(a - 1)] * p;
    }
    result[static_cast<std::size_t>(k - 1)] = sum * row[k];
  }
  return result;
}

}  // namespace mvda::diagnostics
