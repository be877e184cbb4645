// 7-group cross-validation (PCACrossValidation) of the first 5 principal components of a
// 10000 x 500 float matrix, complete and with 10% of its cells missing, against the baseline of
// fitting the same 5 components (NCPCA, at most 500 NIPALS iterations each) without validating
// them, and against the memory floor of one NIPALS iteration (BM_FloorTwoSgemv: two bare
// cblas_sgemv passes over a contiguous copy).
//
// BM_PcaCv5Components fits, validates and deflates component after component, as a host does; its
// reported time is the 5 cross-validations alone (manual time), the fits are reported beside it.
// The second argument switches threading off (0) or on with every processor (1); the third keeps
// the model on the Gram matrix where the data allow it (1, the default) or forces every fit of
// model and validation onto the data (0, NCPCA::SetGramIterations(false)), the comparison for the
// complete data.
// Counters:
//   fit_ms           the 5 model components of the same run (NextComponent + CalculateResiduals)
//   cv_iterations    NIPALS iterations of the 70 group fits (2 per group and component; at most
//                    7 * 2 * (5 + 6 + 6 + 6 + 7) = 420), as their progress reports them
//   cv_ms_per_iter   fastest cross-validation time / cv_iterations: what one group-fit iteration
//                    costs, everything around the fits included; the fits of all groups share
//                    each pass over the matrix. Compare with BM_FloorTwoSgemv, the floor of one
//                    fit iteration on its own
//   q2_1, q2cum_5    Q2 of component 1 and cumulative Q2 after component 5
// Times are wall-clock times with the library's default threading (on, with every processor).
#include <mvda/containers/data_matrix.h>
#include <mvda/models/pca.h>
#include <mvda/platform/progress.h>
#include <mvda/validation/pca_cross_validation.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>

#include <benchmark/benchmark.h>
#include <cblas.h>

#include "latent_data.h"
#include "threading_for.h"

namespace {

constexpr int kRows = 10000;
constexpr int kColumns = 500;
constexpr int kComponents = 5;
constexpr int kGroups = 7;
constexpr int kMaxIterations = 500;

// Six latent directions with singular values falling by a factor 0.75 each, plus noise. Fixed
// seed.
const LatentData& Get() {
  static const LatentData data = MakeLatentData(kRows, kColumns, 6, 0.75f, 0.3f, 41);
  return data;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// Counts the NIPALS iterations reported to it: a fit calls SetRange after its first iteration and
// SetValue after every later one. Draws nothing.
class IterationCounter : public NCProgress {
 public:
  void SetRange(double min, double max) override {
    ++iterations;
    NCProgress::SetRange(min, max);
  }
  bool SetValue(double value) override {
    ++iterations;
    return NCProgress::SetValue(value);
  }
  long iterations = 0;
};

void BM_FloorTwoSgemv(benchmark::State& state) {
  const LatentData& d = Get();
  const std::vector<float> t(kRows, 1.0f);
  std::vector<float> p(kColumns), u(kRows);
  for (auto _ : state) {
    cblas_sgemv(CblasRowMajor, CblasTrans, kRows, kColumns, 1.0f, d.contiguous.data(), kColumns,
                t.data(), 1, 0.0f, p.data(), 1);
    cblas_sgemv(CblasRowMajor, CblasNoTrans, kRows, kColumns, 1.0f, d.contiguous.data(), kColumns,
                p.data(), 1, 0.0f, u.data(), 1);
    benchmark::DoNotOptimize(u.data());
  }
  state.SetBytesProcessed(state.iterations() * 2 * int64_t(sizeof(float)) * kRows * kColumns);
  double expected = 0;  // u_1 = row 1 of X times p, formed here directly
  for (int j = 0; j < kColumns; ++j) expected += double(d.contiguous[j]) * p[j];
  if (std::abs(u[0] - expected) > 1e-3 * (std::abs(expected) + 1))
    state.SkipWithError("the baseline passes computed something else");
}
BENCHMARK(BM_FloorTwoSgemv)->Unit(benchmark::kMillisecond)->UseRealTime();

// The baseline: the 5 components alone.
void BM_Pca5FitOnly(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const NCDataMatrix<float>& x = state.range(0) ? Get().gappy : Get().complete;
  NCProgress silent;
  NCPCA model;
  for (auto _ : state) {
    model = NCPCA(&x, kMaxIterations);
    for (int a = 1; a <= kComponents; ++a) {
      model.NextComponent(&silent, nullptr, 0, nullptr);
      model.CalculateResiduals();
    }
  }
  if (model.GetComponents() != kComponents) state.SkipWithError("the fit did not finish");
}
BENCHMARK(BM_Pca5FitOnly)
    ->ArgNames({"missing10pct", "threads"})
    ->ArgsProduct({{0, 1}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Largest |XPredResiduals(i, j) - (e - t q)| over a spread of cells, with t and q looked up here
// in TSet and PSet by the cell's variable and observation group: the cells must come from the
// left-out fits.
double CellError(const PCACrossValidation& cv, const NCDataMatrix<float>& E) {
  const NCDataMatrix<float>&P = *cv.GetPSet(), &T = *cv.GetTSet(), &R = *cv.GetXPredResiduals();
  double worst = 0;
  for (int i = 1; i <= kRows; i += 101)
    for (int j = 1; j <= kColumns; j += 11) {
      const float e = E[i][j], t = T[j % kGroups + 1][i], q = P[i % kGroups + 1][j];
      const double expected = (e == -99.0f || t == -99.0f || q == -99.0f) ? e : e - t * q;
      worst = std::max(worst, std::abs(R[i][j] - expected));
    }
  return worst;
}

void BM_PcaCv5Components(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const NCDataMatrix<float>& x = state.range(0) ? Get().gappy : Get().complete;
  NCProgress silent;
  IterationCounter counter;
  NCDataVector<float> reference(kColumns, 0.0f);
  for (int j = 1; j <= kColumns; ++j) reference(j, static_cast<float>(x.GetColumnSS(j)));
  double fastestCv = 1e30, fit = 0, q2First = 0, q2Cum = 0, cellError = 0;
  NCPCA model;
  for (auto _ : state) {
    double cv = 0;
    fit = 0;
    counter.iterations = 0;
    model = NCPCA(&x, kMaxIterations);
    model.SetGramIterations(state.range(2) != 0);
    float q2TotCum = 0;
    NCDataVector<float> q2XVarCum(kColumns, 0.0f);
    for (int a = 1; a <= kComponents; ++a) {
      auto begin = std::chrono::steady_clock::now();
      model.NextComponent(&silent, nullptr, 0, nullptr);
      fit += Seconds(begin);
      begin = std::chrono::steady_clock::now();
      PCACrossValidation validation(&model, q2TotCum, q2XVarCum, kGroups, nullptr, nullptr);
      validation.NextComponent(reference, &counter);
      cv += Seconds(begin);
      q2TotCum = validation.GetQ2TotCum();
      q2XVarCum = *validation.GetQ2XVarCum();
      if (a == 1) q2First = validation.GetQ2Tot();
      if (a == kComponents) cellError = CellError(validation, *model.GetResiduals());
      begin = std::chrono::steady_clock::now();
      model.CalculateResiduals();
      fit += Seconds(begin);
    }
    q2Cum = q2TotCum;
    state.SetIterationTime(cv);
    fastestCv = std::min(fastestCv, cv);
  }
  // One SetRange per cross-validation is its own, not a fit's.
  const long iterations = counter.iterations - kComponents;
  state.counters["fit_ms"] = fit * 1e3;
  state.counters["cv_iterations"] = static_cast<double>(iterations);
  state.counters["cv_ms_per_iter"] = fastestCv / static_cast<double>(iterations) * 1e3;
  state.counters["q2_1"] = q2First;
  state.counters["q2cum_5"] = q2Cum;
  // The first component carries about 44% of the data's variation and is well predicted; the
  // cells are the left-out predictions.
  if (!(q2First > 0.3 && q2Cum > q2First && cellError < 1e-4))
    state.SkipWithError("the cross-validation computed something else");
}
BENCHMARK(BM_PcaCv5Components)
    ->ArgNames({"missing10pct", "threads", "gram"})
    ->Args({0, 1, 1})
    ->Args({0, 1, 0})
    ->Args({1, 1, 1})
    ->Args({0, 0, 1})
    ->Args({0, 0, 0})
    ->Args({1, 0, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
