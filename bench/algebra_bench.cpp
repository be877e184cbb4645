// The products and NIPALS projections of NCDataMatrix<float> on a 10000 x 500 matrix, complete and
// with 10% of its elements missing, each timed back to back with a bare BLAS call over a
// contiguous copy of the same elements in the same iteration: cblas_sgemv (transposed for the
// column sums, plain for the row sums) and cblas_sgemm for A'B. The reported time and bytes
// (matrix elements read) are the library call's; the counter x_blas is the library call's fastest
// iteration over the baseline's fastest, which a busy machine disturbs far less than two
// separate benchmarks would. Every benchmark takes a second argument: 1 runs with threading on
// (the library's default on a multi-core machine), 0 with it off. The library keeps the BLAS at one
// thread either way, so the baseline is always one single-threaded BLAS call, and with threading on
// x_blas below 1 is what the library's own threads gain. Times are wall-clock times.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <cblas.h>

#include "threading_for.h"

namespace {

constexpr int kRows = 10000;
constexpr int kColumns = 500;

struct Data {
  NCDataMatrix<float> complete, gappy;  // gappy: about 10% missing
  std::vector<float> contiguous;        // the complete matrix, row after row
  std::vector<float> contiguous2;       // a second complete matrix for A'B
  NCDataMatrix<float> complete2;
  NCDataVector<float> t, p;
  NCIntegralVector<int, -99> groups;  // a cross-validation group code per row
};

const Data& Get() {
  static const Data data = [] {
    Data d;
    std::mt19937 gen(17);
    std::uniform_real_distribution<float> value(-1, 1), coin(0, 1);
    d.complete = NCDataMatrix<float>(kRows, kColumns, 0.0f);
    d.gappy = NCDataMatrix<float>(kRows, kColumns, 0.0f);
    d.complete2 = NCDataMatrix<float>(kRows, kColumns, 0.0f);
    d.contiguous.resize(static_cast<size_t>(kRows) * kColumns);
    d.contiguous2.resize(d.contiguous.size());
    for (int i = 1; i <= kRows; ++i)
      for (int j = 1; j <= kColumns; ++j) {
        const float x = value(gen), y = value(gen);
        d.complete(i, j, x);
        d.gappy(i, j, coin(gen) < 0.1f ? -99.0f : x);
        d.complete2(i, j, y);
        d.contiguous[static_cast<size_t>(i - 1) * kColumns + (j - 1)] = x;
        d.contiguous2[static_cast<size_t>(i - 1) * kColumns + (j - 1)] = y;
      }
    d.t = NCDataVector<float>(kRows, 0.0f);
    d.groups = NCIntegralVector<int, -99>(kRows, 0);
    for (int i = 1; i <= kRows; ++i) {
      d.t(i, value(gen));
      d.groups(i) = i % 7;
    }
    d.p = NCDataVector<float>(kColumns, 0.0f);
    for (int j = 1; j <= kColumns; ++j) d.p(j, value(gen));
    return d;
  }();
  return data;
}

void SetMatrixBytes(benchmark::State& state, int matrices = 1) {
  state.SetBytesProcessed(state.iterations() * int64_t{matrices} * kRows * kColumns *
                          int64_t{sizeof(float)});
}

// The largest difference relative to the largest magnitude: float sums over 10000 rows in a
// different order agree to a few units in 1e-5 of that.
double RelativeDifference(const std::vector<float>& a, const std::vector<float>& b) {
  double scale = 0, worst = 0;
  for (size_t k = 0; k < a.size(); ++k) {
    scale = std::max(scale, std::fabs(static_cast<double>(b[k])));
    worst = std::max(worst, std::fabs(static_cast<double>(a[k]) - b[k]));
  }
  return scale > 0 ? worst / scale : worst;
}

std::vector<float> Elements(const NCDataVector<float>& v) {
  return std::vector<float>(v.begin(), v.end());
}

void SgemvTransposed(std::vector<float>& y) {  // t'A
  const Data& d = Get();
  cblas_sgemv(CblasRowMajor, CblasTrans, kRows, kColumns, 1.0f, d.contiguous.data(), kColumns,
              d.t.begin(), 1, 0.0f, y.data(), 1);
}

void Sgemv(std::vector<float>& y) {  // A p
  const Data& d = Get();
  cblas_sgemv(CblasRowMajor, CblasNoTrans, kRows, kColumns, 1.0f, d.contiguous.data(), kColumns,
              d.p.begin(), 1, 0.0f, y.data(), 1);
}

// Runs baseline() and work() back to back in every iteration and reports work's time.
template <class Baseline, class Work>
void Paired(benchmark::State& state, Baseline baseline, Work work) {
  using Clock = std::chrono::steady_clock;
  double fastestBaseline = std::numeric_limits<double>::infinity();
  double fastestWork = fastestBaseline;
  for (auto _ : state) {
    const Clock::time_point t0 = Clock::now();
    baseline();
    const Clock::time_point t1 = Clock::now();
    work();
    const Clock::time_point t2 = Clock::now();
    const double b = std::chrono::duration<double>(t1 - t0).count();
    const double w = std::chrono::duration<double>(t2 - t1).count();
    state.SetIterationTime(w);
    fastestBaseline = std::min(fastestBaseline, b);
    fastestWork = std::min(fastestWork, w);
  }
  state.counters["x_blas"] = fastestWork / fastestBaseline;
}

const NCDataMatrix<float>& MatrixFor(const benchmark::State& state) {
  return state.range(0) == 0 ? Get().complete : Get().gappy;
}

void BM_PreMultiply(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const NCDataMatrix<float>& m = MatrixFor(state);
  NCDataVector<float> result;
  std::vector<float> y(kColumns);
  Paired(
      state, [&] { SgemvTransposed(y); }, [&] { m.Result(&result).PreMultiply(Get().t); });
  SetMatrixBytes(state);
  if (state.range(0) == 0 && RelativeDifference(Elements(result), y) > 1e-4)
    state.SkipWithError("PreMultiply differs from sgemv");
}

void BM_RegressColumns(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const NCDataMatrix<float>& m = MatrixFor(state);
  NCDataVector<float> result;
  std::vector<float> y(kColumns);
  Paired(
      state, [&] { SgemvTransposed(y); }, [&] { m.Result(&result).RegressColumns(Get().t); });
  SetMatrixBytes(state);
  if (state.range(0) == 0) {
    const double tt = Get().t.GetSS();
    for (float& x : y) x = static_cast<float>(x / tt);
    if (RelativeDifference(Elements(result), y) > 1e-4)
      state.SkipWithError("RegressColumns differs from sgemv / t't");
  }
  if (result.GetNumMisVal() != 0) state.SkipWithError("unexpected missing coefficients");
}

void BM_SpecialNipalsRegressColumnsFix(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const NCDataMatrix<float>& m = MatrixFor(state);
  NCDataVector<float> result;
  std::vector<float> y(kColumns);
  Paired(
      state, [&] { SgemvTransposed(y); },
      [&] { m.Result(&result).SpecialNipalsRegressColumnsFix(Get().t); });
  SetMatrixBytes(state);
  // Without gaps the floor never binds, so the result is the plain regression.
  if (state.range(0) == 0 &&
      RelativeDifference(Elements(result), Elements(m.RegressColumns(Get().t))) > 1e-6)
    state.SkipWithError("the floor changed a complete regression");
}

// With an exclusion list the masked band sums serve complete matrices too, since excluded rows
// break up the rows BLAS would read.
void BM_SpecialNipalsRegressColumnsFixExcluding(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const NCDataMatrix<float>& m = MatrixFor(state);
  NCDataVector<float> result;
  std::vector<float> y(kColumns);
  Paired(
      state, [&] { SgemvTransposed(y); },
      [&] { m.Result(&result).SpecialNipalsRegressColumnsFix(Get().t, &Get().groups, 3); });
  SetMatrixBytes(state);
  const NCDataVector<float> column = m.GetColumn(kColumns / 2);
  const long double expected = Get().t.SpecialNipalsRegressFixWithExclude(column, Get().groups, 3);
  if (std::fabs(result[kColumns / 2] - expected) > 1e-4 * (1 + std::fabs(expected)))
    state.SkipWithError("the excluding regression differs from the vector regression");
}

void BM_RegressRows(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const NCDataMatrix<float>& m = MatrixFor(state);
  NCDataVector<float> result;
  std::vector<float> y(kRows);
  Paired(
      state, [&] { Sgemv(y); }, [&] { m.Result(&result).RegressRows(Get().p); });
  SetMatrixBytes(state);
  const long double expected = Get().p.Regress(m[kRows / 2]);
  if (std::fabs(result[kRows / 2] - expected) > 1e-4 * (1 + std::fabs(expected)))
    state.SkipWithError("RegressRows differs from the vector regression");
}

#define MVDA_PROJECTION_BENCHMARK(name) \
  BENCHMARK(name)->Args({0, 1})->Args({10, 1})->Args({0, 0})->Args({10, 0})->UseManualTime()
MVDA_PROJECTION_BENCHMARK(BM_PreMultiply);
MVDA_PROJECTION_BENCHMARK(BM_RegressColumns);
MVDA_PROJECTION_BENCHMARK(BM_SpecialNipalsRegressColumnsFix);
MVDA_PROJECTION_BENCHMARK(BM_SpecialNipalsRegressColumnsFixExcluding);
MVDA_PROJECTION_BENCHMARK(BM_RegressRows);

// A'B of two complete 10000 x 500 matrices: 500 x 500, 2.5 GFLOP.
void BM_MatrixMultiplyTransposeThis(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const Data& d = Get();
  NCDataMatrix<float> c;
  std::vector<float> bare(static_cast<size_t>(kColumns) * kColumns);
  Paired(
      state,
      [&] {
        cblas_sgemm(CblasRowMajor, CblasTrans, CblasNoTrans, kColumns, kColumns, kRows, 1.0f,
                    d.contiguous.data(), kColumns, d.contiguous2.data(), kColumns, 0.0f,
                    bare.data(), kColumns);
      },
      [&] { d.complete.Result(&c).MatrixMultiply(d.complete2, true, false); });
  SetMatrixBytes(state, 2);
  double expected = 0;  // element (7, 9) summed in double
  for (int i = 1; i <= kRows; ++i) expected += double{d.complete[i][7]} * d.complete2[i][9];
  if (std::fabs(c[7][9] - expected) > 1e-3 * (1 + std::fabs(expected)))
    state.SkipWithError("A'B differs from the element sum");
}
BENCHMARK(BM_MatrixMultiplyTransposeThis)
    ->Args({0, 1})
    ->Args({0, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
