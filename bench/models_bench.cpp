// Fitting 5 principal components (NCPCA, at most 500 NIPALS iterations each, each component
// deflated before the next) on a 10000 x 500 float matrix, complete and with 10% of its cells
// missing, against the memory floor of one NIPALS iteration: two bare cblas_sgemv passes (one
// transposed, one plain) over a contiguous copy of the same elements.
//
// The floor has a benchmark of its own, and every fit is followed by as many floor iterations as
// the fit made, timed as one block, so that a busy machine disturbs both sides alike. The
// reported time is the fit's. Counters of a fit:
//   iterations      NIPALS iterations of the 5 components (fixed by the data)
//   floor_ms        the floor of one iteration (fastest block / iterations)
//   x_floor         fastest fit / fastest floor block: the whole fit, start columns and
//                   deflations included, against the bare passes its iterations need
//   xtx_ms, x_xtx   one X'X of the contiguous copy by one BLAS call (BM_GramByBlas), timed
//                   after every fit, and the fastest fit over the fastest of those: complete data
//                   are fitted on the Gram matrix, so one X'X is their floor
// The fit includes reading the scores (GetTprim), which forms them.
// Bytes processed: two passes over the matrix per iteration. Times are wall-clock times with the
// library's default threading (on, with every processor).
// BM_Pca5ComponentsWide: the same fit of wide data (200 x 5000), on E E' against on the data.
#include <mvda/containers/data_matrix.h>
#include <mvda/models/pca.h>
#include <mvda/platform/progress.h>

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
constexpr int kMaxIterations = 500;

// Eight latent components with singular values falling by a factor 0.78 each, plus noise: the
// eigenvalue ratio of about 0.6 between neighbours gives NIPALS a realistic 20 to 30 iterations
// per component. Fixed seed.
const LatentData& Get() {
  static const LatentData data = MakeLatentData(kRows, kColumns, 8, 0.78f, 0.1f, 29);
  return data;
}

// One NIPALS iteration's memory traffic and nothing else: p = X't, then u = X p.
void TwoPasses(const LatentData& d, const std::vector<float>& t, std::vector<float>& p,
               std::vector<float>& u) {
  cblas_sgemv(CblasRowMajor, CblasTrans, kRows, kColumns, 1.0f, d.contiguous.data(), kColumns,
              t.data(), 1, 0.0f, p.data(), 1);
  cblas_sgemv(CblasRowMajor, CblasNoTrans, kRows, kColumns, 1.0f, d.contiguous.data(), kColumns,
              p.data(), 1, 0.0f, u.data(), 1);
}

void BM_FloorTwoSgemv(benchmark::State& state) {
  const LatentData& d = Get();
  const std::vector<float> t(kRows, 1.0f);
  std::vector<float> p(kColumns), u(kRows);
  for (auto _ : state) {
    TwoPasses(d, t, p, u);
    benchmark::DoNotOptimize(u.data());
  }
  state.SetBytesProcessed(state.iterations() * 2 * int64_t(sizeof(float)) * kRows * kColumns);
  // u_1 is row 1 of X times p; formed here directly.
  double expected = 0;
  for (int j = 0; j < kColumns; ++j) expected += double(d.contiguous[j]) * p[j];
  if (std::abs(u[0] - expected) > 1e-3 * (std::abs(expected) + 1))
    state.SkipWithError("the baseline passes computed something else");
}
BENCHMARK(BM_FloorTwoSgemv)->Unit(benchmark::kMillisecond)->UseRealTime();

// One X'X of the contiguous copy by a single BLAS call (its upper triangle, ssyrk), with the BLAS's
// own threading as the library leaves it: the cost the fit of complete data is measured against.
void GramByBlas(const LatentData& d, std::vector<float>& gram) {
  cblas_ssyrk(CblasRowMajor, CblasUpper, CblasTrans, kColumns, kRows, 1.0f, d.contiguous.data(),
              kColumns, 0.0f, gram.data(), kColumns);
  benchmark::DoNotOptimize(gram.data());
}

void BM_GramByBlas(benchmark::State& state) {
  const LatentData& d = Get();
  std::vector<float> gram(static_cast<std::size_t>(kColumns) * kColumns);
  for (auto _ : state) GramByBlas(d, gram);
  double expected = 0;  // element (1, 1): the first column's sum of squares
  for (int i = 0; i < kRows; ++i)
    expected +=
        double(d.contiguous[std::size_t(i) * kColumns]) * d.contiguous[std::size_t(i) * kColumns];
  if (std::abs(gram[0] - expected) > 1e-4 * expected)
    state.SkipWithError("the baseline product computed something else");
}
BENCHMARK(BM_GramByBlas)->Unit(benchmark::kMillisecond)->UseRealTime();

// Largest |X - (T P' + E)| over a spread of present cells: the fit must account for the data.
double RebuildError(const NCDataMatrix<float>& x, const NCPCA& model) {
  const NCDataMatrix<float>& P = *model.GetPprim();
  const NCDataMatrix<float>& T = *model.GetTprim();
  const NCDataMatrix<float>& E = *model.GetResiduals();
  double worst = 0;
  for (int i = 1; i <= kRows; i += 97)
    for (int j = 1; j <= kColumns; j += 13) {
      if (x[i][j] == -99.0f) continue;
      double rebuilt = E[i][j];
      for (int a = 1; a <= P.SizeRows(); ++a) rebuilt += double(T[a][i]) * P[a][j];
      worst = std::max(worst, std::abs(rebuilt - x[i][j]));
    }
  return worst;
}

double Seconds(std::chrono::steady_clock::time_point since) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

void BM_Pca5Components(benchmark::State& state) {
  const LatentData& d = Get();
  const NCDataMatrix<float>& x = state.range(0) ? d.gappy : d.complete;
  NCProgress silent;  // the base class draws nothing
  const std::vector<float> t(kRows, 1.0f);
  std::vector<float> p(kColumns), u(kRows);
  int iterations = 0;
  double fastestFit = 1e30, fastestFloor = 1e30, fastestGram = 1e30;
  std::vector<float> gram(static_cast<std::size_t>(kColumns) * kColumns);
  NCPCA model;
  for (auto _ : state) {
    auto begin = std::chrono::steady_clock::now();
    model = NCPCA(&x, kMaxIterations);
    iterations = 0;
    for (int a = 1; a <= kComponents; ++a) {
      model.NextComponent(&silent, nullptr, 0, nullptr);
      model.CalculateResiduals();
      iterations += model.GetIterations();
    }
    benchmark::DoNotOptimize(model.GetTprim());  // the scores, as a host reads them
    const double fit = Seconds(begin);
    state.SetIterationTime(fit);
    fastestFit = std::min(fastestFit, fit);
    // The floor of the same number of iterations, right after the fit.
    begin = std::chrono::steady_clock::now();
    for (int k = 0; k < iterations; ++k) TwoPasses(d, t, p, u);
    benchmark::DoNotOptimize(u.data());
    fastestFloor = std::min(fastestFloor, Seconds(begin));
    // One X'X by the BLAS, right after.
    begin = std::chrono::steady_clock::now();
    GramByBlas(d, gram);
    fastestGram = std::min(fastestGram, Seconds(begin));
  }
  state.SetBytesProcessed(state.iterations() * iterations * 2 * int64_t(sizeof(float)) * kRows *
                          kColumns);
  state.counters["iterations"] = iterations;
  state.counters["floor_ms"] = fastestFloor / iterations * 1e3;
  state.counters["x_floor"] = fastestFit / fastestFloor;
  state.counters["fastest_fit_ms"] = fastestFit * 1e3;
  state.counters["xtx_ms"] = fastestGram * 1e3;
  state.counters["x_xtx"] = fastestFit / fastestGram;
  if (model.GetComponents() != kComponents || RebuildError(x, model) > 1e-3)
    state.SkipWithError("the fitted model does not rebuild the data");
}
BENCHMARK(BM_Pca5Components)
    ->ArgName("missing10pct")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

// The calls a fit is made of, each timed back to back with the BLAS call that moves the same
// memory over the contiguous copy: the column regression (SpecialNipalsRegressColumnsFix) against
// sgemv X't, the row regression (SpecialNipalsRegressRowsFix) against sgemv X p, the start column
// (GetNIPALSStartColumn, one reading pass) against sgemv X't, and the deflation
// (TransformToSub_V_x_Vt on a private matrix) against sger. Reported time: one library call;
// x_blas: its fastest call over the baseline's fastest.
void BM_FitStep(benchmark::State& state) {
  const LatentData& d = Get();
  const int step = static_cast<int>(state.range(0));
  const NCDataMatrix<float>& x = state.range(1) ? d.gappy : d.complete;
  NCDataMatrix<float> e;
  e.CopyContent(x);  // private, so that the deflation writes in place
  std::vector<float> a = d.contiguous;
  NCDataVector<float> t(kRows, 0.0f), p(kColumns, 0.0f), out;
  std::vector<float> tb(kRows), pb(kColumns), ub(std::max(kRows, kColumns));
  for (int i = 1; i <= kRows; ++i) t(i, tb[i - 1] = 1e-3f * static_cast<float>(i % 17 - 8));
  for (int j = 1; j <= kColumns; ++j) p(j, pb[j - 1] = 1e-3f * static_cast<float>(j % 5 + 1));
  double fastestLibrary = 1e30, fastestBlas = 1e30;
  int deflations = 0;
  const auto library = [&] {
    switch (step) {
      case 0:
        x.Result(&out).SpecialNipalsRegressColumnsFix(t);
        break;
      case 1:
        x.Result(&out).SpecialNipalsRegressRowsFix(p);
        break;
      case 2:
        x.Result(&out).GetNIPALSStartColumn();
        break;
      default:
        e.TransformToSub_V_x_Vt(t, p);
        ++deflations;
    }
  };
  const auto blas = [&] {
    if (step == 1) {
      cblas_sgemv(CblasRowMajor, CblasNoTrans, kRows, kColumns, 1.0f, a.data(), kColumns, pb.data(),
                  1, 0.0f, ub.data(), 1);
    } else if (step == 3) {
      cblas_sger(CblasRowMajor, kRows, kColumns, -1.0f, tb.data(), 1, pb.data(), 1, a.data(),
                 kColumns);
    } else {
      cblas_sgemv(CblasRowMajor, CblasTrans, kRows, kColumns, 1.0f, a.data(), kColumns, tb.data(),
                  1, 0.0f, ub.data(), 1);
    }
  };
  // Each side runs kRepeats times in a row and only the repeats after the first are timed: in a
  // fit the matrix is read again and again and stays in the cache, which the two 20 MB copies
  // would not if the calls alternated one by one.
  constexpr int kRepeats = 4;
  for (auto _ : state) {
    double sum = 0;
    for (int k = 0; k < kRepeats; ++k) {
      const auto begin = std::chrono::steady_clock::now();
      library();
      const double seconds = Seconds(begin);
      if (k == 0) continue;
      sum += seconds;
      fastestLibrary = std::min(fastestLibrary, seconds);
    }
    state.SetIterationTime(sum / (kRepeats - 1));
    for (int k = 0; k < kRepeats; ++k) {
      const auto begin = std::chrono::steady_clock::now();
      blas();
      if (k > 0) fastestBlas = std::min(fastestBlas, Seconds(begin));
    }
  }
  state.SetBytesProcessed(state.iterations() * int64_t(sizeof(float)) * kRows * kColumns);
  state.counters["x_blas"] = fastestLibrary / fastestBlas;
  // Element 1 of each result, formed here directly over the present pairs.
  double num = 0, den = 0, all = 0, expected = 0, got = 0;
  switch (step) {
    case 0:
      for (int i = 1; i <= kRows; ++i) {
        all += double(t[i]) * t[i];
        if (x[i][1] != -99.0f) num += double(t[i]) * x[i][1], den += double(t[i]) * t[i];
      }
      expected = num / std::max(den, all / 3), got = out[1];
      break;
    case 1:
      for (int j = 1; j <= kColumns; ++j)
        if (x[1][j] != -99.0f) num += double(p[j]) * x[1][j], den += double(p[j]) * p[j];
      expected = num / den, got = out[1];
      break;
    case 2:
      expected = kRows, got = out.Size() - out.GetNumMisVal();  // every gap filled
      break;
    default:
      expected = x[1][1] == -99.0f ? -99.0 : x[1][1] - deflations * double(t[1]) * p[1];
      got = e[1][1];
  }
  if (std::abs(got - expected) > 1e-3 * (std::abs(expected) + 1))
    state.SkipWithError("the library call computed something else");
}
BENCHMARK(BM_FitStep)
    ->ArgNames({"step", "missing10pct"})
    ->ArgsProduct({{0, 1, 2, 3}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

// Wide data, as spectra are: 5 components of a complete 200 x 5000 matrix, on E E' (gram:1, the
// default for complete wide data) against the iterations on the data (gram:0,
// SetGramIterations(false)), in the same run; threading on with every processor (threads:1) or
// off (threads:0). Counters: iterations of the 5 components, which
// must be the same on both paths (the reported figures agree to float precision).
constexpr int kWideRows = 200;
constexpr int kWideColumns = 5000;

const LatentData& GetWide() {
  static const LatentData data = MakeLatentData(kWideRows, kWideColumns, 6, 0.75f, 0.3f, 43);
  return data;
}

void BM_Pca5ComponentsWide(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const NCDataMatrix<float>& x = GetWide().complete;
  NCProgress silent;
  NCPCA model;
  int iterations = 0;
  for (auto _ : state) {
    model = NCPCA(&x, kMaxIterations);
    model.SetGramIterations(state.range(0) != 0);
    iterations = 0;
    for (int a = 1; a <= kComponents; ++a) {
      model.NextComponent(&silent, nullptr, 0, nullptr);
      iterations += model.GetIterations();
      model.CalculateResiduals();
    }
    benchmark::DoNotOptimize(model.GetTprim());
  }
  state.counters["iterations"] = iterations;
  // X = T P' + E at one cell: the scores, loadings and residuals belong together.
  const NCDataMatrix<float>&t = *model.GetTprim(), &p = *model.GetPprim();
  double rebuilt = (*model.GetResiduals())[7][11];
  for (int a = 1; a <= kComponents; ++a) rebuilt += double(t[a][7]) * p[a][11];
  if (model.IsFittingOnGram() != (state.range(0) != 0) ||
      std::abs(rebuilt - x[7][11]) > 1e-3 * (std::abs(x[7][11]) + 1))
    state.SkipWithError("the fit computed something else");
}
BENCHMARK(BM_Pca5ComponentsWide)
    ->ArgNames({"gram", "threads"})
    ->ArgsProduct({{1, 0}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
