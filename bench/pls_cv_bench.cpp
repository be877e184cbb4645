// 7-group cross-validation of a 5-component PLS2 model (10000 x 500 float X, 4 Y columns),
// complete and with 10% of the X and Y cells missing, driven as a host drives it: for every
// component NCPLS::NextComponent, PLSCrossValidation::NextComponent, NCPLS::CalculateResiduals.
// BM_PlsFitWithCrossValidation times that whole loop; its counter cv_ms is the fastest time spent
// in the cross-validation calls (all five together), fit_ms the rest. BM_PlsFitOnly, the baseline,
// is the same loop without the cross-validation. Arguments: 0 complete or 1 with missing values;
// threading on (1, the library's default on a multi-core machine) or off (0), which
// ThreadingControl applies to the BLAS products too.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pls.h>
#include <mvda/validation/pls_cross_validation.h>
#include <mvda/validation/significance.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <vector>

#include <benchmark/benchmark.h>

#include "latent_data.h"
#include "threading_for.h"

namespace {

constexpr int kRows = 10000;
constexpr int kColumns = 500;
constexpr int kResponses = 4;
constexpr int kComponents = 5;
constexpr int kMaxIterations = 500;
constexpr int kGroups = 7;

using Clock = std::chrono::steady_clock;
using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

const CalibrationData& Get() {
  static const CalibrationData data = MakeCalibrationData(kRows, kColumns, kResponses, 31);
  return data;
}

Vector ColumnSS(const Matrix& y) {
  Vector ss(y.SizeColumns(), 0.0f);
  for (int j = 1; j <= y.SizeColumns(); ++j) ss(j, static_cast<float>(y.GetColumnSS(j)));
  return ss;
}

void BM_PlsFitOnly(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const CalibrationData& d = Get();
  const bool gappy = state.range(0) != 0;
  const Matrix& x = gappy ? d.gappyX : d.x;
  const Matrix& y = gappy ? d.gappyY : d.y;
  double fastest = std::numeric_limits<double>::infinity();
  NCPLS model;
  for (auto _ : state) {
    const Clock::time_point t0 = Clock::now();
    model = NCPLS(&x, &y, kMaxIterations);
    for (int a = 1; a <= kComponents; ++a) {
      model.NextComponent(nullptr, nullptr, true, true);
      model.CalculateResiduals();
    }
    const double s = Seconds(Clock::now() - t0);
    state.SetIterationTime(s);
    fastest = std::min(fastest, s);
  }
  state.counters["fit_ms"] = fastest * 1e3;
  if (model.GetComponents() != kComponents) state.SkipWithError("the fit is short of components");
}

void BM_PlsFitWithCrossValidation(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const CalibrationData& d = Get();
  const bool gappy = state.range(0) != 0;
  const Matrix& x = gappy ? d.gappyX : d.x;
  const Matrix& y = gappy ? d.gappyY : d.y;
  const Vector initialSS = ColumnSS(y);
  double fastestCv = std::numeric_limits<double>::infinity(), fastestFit = fastestCv;
  NCPLS model;
  std::vector<int> verdicts;
  float q2Cum = 0;
  for (auto _ : state) {
    const Clock::time_point t0 = Clock::now();
    model = NCPLS(&x, &y, kMaxIterations);
    PLSCrossValidation cv(&model, kGroups, nullptr);
    double cvTime = 0;
    verdicts.clear();
    for (int a = 1; a <= kComponents; ++a) {
      model.NextComponent(nullptr, nullptr, true, true);
      const Clock::time_point c0 = Clock::now();
      cv.NextComponent(&(*model.GetWprim())[a], kMaxIterations, initialSS, nullptr, true);
      cvTime += Seconds(Clock::now() - c0);
      const Vector before = ColumnSS(*model.GetYResiduals());
      model.CalculateResiduals();
      const Vector after = ColumnSS(*model.GetYResiduals());
      double explained = 0, initial = 0;
      Vector r2yVar(kResponses, 0.0f);
      for (int m = 1; m <= kResponses; ++m) {
        explained += before[m] - after[m];
        initial += initialSS[m];
        r2yVar(m, (before[m] - after[m]) / initialSS[m]);
      }
      verdicts.push_back(PLSCrossValidation::GetSignificance(
          kRows, kColumns, kResponses, a, static_cast<float>(explained / initial), r2yVar,
          cv.GetQ2Tot(), *cv.GetQ2YVar(), cv.GetQ2Lim()));
    }
    const double total = Seconds(Clock::now() - t0);
    state.SetIterationTime(total);
    fastestCv = std::min(fastestCv, cvTime);
    fastestFit = std::min(fastestFit, total - cvTime);
    q2Cum = cv.GetQ2TotCum();
  }
  state.counters["cv_ms"] = fastestCv * 1e3;
  state.counters["fit_ms"] = fastestFit * 1e3;
  state.counters["q2_cum"] = q2Cum;
  // The validation must have validated: structure of eight strong directions gives a high
  // cumulative Q2 and keeps every one of the five components.
  for (int v : verdicts)
    if (!SignificanceE::IsSignificant(v)) state.SkipWithError("a component was not significant");
  if (!(q2Cum > 0.5f)) state.SkipWithError("cumulative Q2 too low for the data");
}

BENCHMARK(BM_PlsFitOnly)
    ->ArgsProduct({{0, 1}, {1, 0}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PlsFitWithCrossValidation)
    ->ArgsProduct({{0, 1}, {1, 0}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
