// A PLS2 fit of 5 components (NIPALS, with deflation) on a 10000 x 500 float X and a 10000 x 4 Y,
// complete and with 10% of the X and Y cells missing, timed back to back with the memory floor of
// one NIPALS iteration in the same benchmark iteration: two bare cblas_sgemv passes (A'u and Aw)
// over a contiguous copy of the same X. The reported time and bytes (X read once per NIPALS
// iteration) are the fit's. Counters: nipals_iterations (all components together), fastest_fit_ms
// and floor_ms (the fastest of each), x_floor (fit time per NIPALS iteration over the floor,
// fastest against fastest; it carries the per-component work as well: the sum of squares of X,
// the loadings and the deflation) and x_floor_nipals (the same for the time spent inside
// NextComponent only). The second argument switches threading on (1: every processor, OpenMP's
// dynamic teams off) or off (0); ThreadingControl sets the BLAS thread count too, so the floor
// follows the same switch. The fit includes reading the scores T (GetTprim), which complete data,
// fitted on X'X, X'Y and Y'Y, form only when read.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pls.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <vector>

#include <benchmark/benchmark.h>
#include <cblas.h>

#include "latent_data.h"
#include "threading_for.h"

namespace {

constexpr int kRows = 10000;
constexpr int kColumns = 500;
constexpr int kResponses = 4;
constexpr int kComponents = 5;
constexpr int kMaxIterations = 500;

using Clock = std::chrono::steady_clock;

struct Data : CalibrationData {
  std::vector<float> u, w, xu, xw;  // the floor's vectors
};

const Data& Get() {
  static const Data data = [] {
    Data d;
    static_cast<CalibrationData&>(d) = MakeCalibrationData(kRows, kColumns, kResponses, 29);
    d.u.assign(kRows, 0.5f);
    d.w.assign(kColumns, 0.25f);
    d.xu.resize(kColumns);
    d.xw.resize(kRows);
    return d;
  }();
  return data;
}

// One NIPALS iteration's worth of reading X: X'u and X w.
void Floor(Data& d) {
  cblas_sgemv(CblasRowMajor, CblasTrans, kRows, kColumns, 1.0f, d.contiguous.data(), kColumns,
              d.u.data(), 1, 0.0f, d.xu.data(), 1);
  cblas_sgemv(CblasRowMajor, CblasNoTrans, kRows, kColumns, 1.0f, d.contiguous.data(), kColumns,
              d.w.data(), 1, 0.0f, d.xw.data(), 1);
}

void BM_PlsFit(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  Data& d = const_cast<Data&>(Get());
  const bool gappy = state.range(0) != 0;
  const NCDataMatrix<float>& x = gappy ? d.gappyX : d.x;
  const NCDataMatrix<float>& y = gappy ? d.gappyY : d.y;
  double fastestFloor = std::numeric_limits<double>::infinity();
  double fastestFit = fastestFloor, fastestNipals = fastestFloor;
  int iterations = 0;
  std::vector<int> perComponent;
  NCPLS model;
  for (auto _ : state) {
    const Clock::time_point t0 = Clock::now();
    Floor(d);
    const Clock::time_point t1 = Clock::now();
    model = NCPLS(&x, &y, kMaxIterations);
    iterations = 0;
    perComponent.clear();
    double nipals = 0;
    for (int a = 1; a <= kComponents; ++a) {
      const Clock::time_point n0 = Clock::now();
      model.NextComponent(nullptr, nullptr, true, true);
      nipals += std::chrono::duration<double>(Clock::now() - n0).count();
      iterations += model.GetIterations();
      perComponent.push_back(model.GetIterations());
      model.CalculateResiduals();
    }
    benchmark::DoNotOptimize(model.GetTprim());  // the scores, as a host reads them
    const Clock::time_point t2 = Clock::now();
    const double fit = std::chrono::duration<double>(t2 - t1).count();
    state.SetIterationTime(fit);
    fastestFloor = std::min(fastestFloor, std::chrono::duration<double>(t1 - t0).count());
    fastestFit = std::min(fastestFit, fit);
    fastestNipals = std::min(fastestNipals, nipals);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{iterations} * kRows * kColumns *
                          int64_t{sizeof(float)});
  state.counters["nipals_iterations"] = iterations;
  state.counters["fastest_fit_ms"] = fastestFit * 1e3;
  state.counters["floor_ms"] = fastestFloor * 1e3;
  state.counters["x_floor"] = fastestFit / iterations / fastestFloor;
  state.counters["x_floor_nipals"] = fastestNipals / iterations / fastestFloor;

  // The fit must be a fit: every component converged, Y lost most of its sum of squares, and
  // with complete data the weights are orthonormal.
  for (int n : perComponent)
    if (n >= kMaxIterations) state.SkipWithError("a component ran out of iterations");
  if (model.GetYResiduals()->GetSS() > 0.5 * y.GetSS())
    state.SkipWithError("5 components explain less than half of Y");
  if (!gappy) {
    const NCDataMatrix<float>& w = *model.GetWprim();
    for (int a = 1; a <= kComponents; ++a)
      for (int b = 1; b <= a; ++b)
        if (std::fabs(static_cast<double>(w[a] * w[b]) - (a == b)) > 1e-3)
          state.SkipWithError("the weights are not orthonormal");
  }
}
BENCHMARK(BM_PlsFit)
    ->Args({0, 1})
    ->Args({10, 1})
    ->Args({0, 0})
    ->Args({10, 0})
    ->MinTime(3.0)  // several fits, so that the fastest ones escape a busy machine
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
