#include <mvda/containers/detail/parallel_for.h>
#include <mvda/diagnostics/detail/checks.h>
#include <mvda/diagnostics/detail/residual_row.h>
#include <mvda/diagnostics/spe.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <cmath>
#include <string>

namespace mvda::diagnostics {

std::vector<double> SPE(const NCDataMatrix<float>& x, const NCDataMatrix<float>& tprim,
                        const NCDataMatrix<float>& pprim) {
  detail::CheckModelShapes(x, tprim, pprim, "SPE");
  const int n = x.SizeRows(), k = x.SizeColumns();
  const detail::LoadingRows loadings(pprim, x.SizeColumns());
  std::vector<double> spe(static_cast<std::size_t>(n), kMissing);
  // Pieces of a fixed number of rows: enough of them to share out, few enough that handing them
  // out costs nothing. Each row's value depends on that row alone.
  constexpr int kRowsPerPiece = 64;
  mvda::detail::ParallelFor((n + kRowsPerPiece - 1) / kRowsPerPiece, [&](int piece) {
    std::vector<float> t(static_cast<std::size_t>(loadings.Components()));
    const int end = std::min(n, (piece + 1) * kRowsPerPiece);
    for (int row = piece * kRowsPerPiece + 1; row <= end; ++row) {
      if (!detail::ScoresOf(tprim, row, t.data())) continue;
      const NCDataVector<float>& xi = x[row];
      int present = 0;
      const double ss = detail::ResidualSquares(xi.GetVector() + 1, t.data(), loadings,
                                                xi.GetNumMisVal() == 0, present);
      if (present > 0) spe[static_cast<std::size_t>(row - 1)] = ss * k / present;
    }
  });
  return spe;
}

SPEMoments SPEMomentsOf(const std::vector<double>& trainingSpe) {
  const char* place = "SPEMomentsOf";
  double sum = 0;
  int count = 0;
  for (std::size_t i = 0; i < trainingSpe.size(); ++i) {
    const double v = trainingSpe[i];
    if (v == kMissing) continue;
    if (!(v >= 0.0 && std::isfinite(v))) {
      throw NCError(std::string(place) + ": value " + std::to_string(i + 1) + " is " +
                    detail::Number(v) + ", not a finite SPE");
    }
    sum += v;
    ++count;
  }
  if (count < 2) {
    throw NCError(std::string(place) + ": " + std::to_string(count) +
                  " present training values; the limit needs at least 2");
  }
  SPEMoments moments;
  moments.count = count;
  moments.mean = sum / count;
  double ss = 0;
  for (const double v : trainingSpe) {
    if (v != kMissing) ss += (v - moments.mean) * (v - moments.mean);
  }
  moments.variance = ss / (count - 1);
  return moments;
}

double SPELimit(const SPEMoments& moments, double alpha) {
  const char* place = "SPELimit";
  detail::CheckAlpha(alpha, place);
  const double m = moments.mean, v = moments.variance;
  if (!(m >= 0.0 && std::isfinite(m) && v >= 0.0 && std::isfinite(v))) {
    throw NCError(std::string(place) + ": mean " + detail::Number(m) + " and variance " +
                  detail::Number(v) + " are not the moments of SPE values");
  }
  // Without spread the scaled chi-square degenerates to a point: every training value was m.
  if (m == 0.0 || v == 0.0) return m;
  const double g = v / (2 * m), h = 2 * m * m / v;
  return g * detail::ChiSquareQuantile(alpha, h, place);
}

}  // namespace mvda::diagnostics
