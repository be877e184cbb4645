// Scoring 10000 new observations of 500 variables by a 5-component PCA model (NCPCAPred's
// constructor, which computes every score), complete and with 10% of the values missing. The
// baseline in the same binary is the floor: the same rows projected by a plain float loop
// (t_a = p_a' r, r -= t_a p_a, missing values taken as 0), which is the work of the complete-row
// path without any container. With values missing nearly every row (1 - 0.9^500) goes through the
// PLS estimate instead, so the gap to the floor is the price of that estimate. The second argument
// switches threading on (1) or off (0). Counters: per_row, the time per observation, and
// rel_error, the scores' distance from the floor's scores of the complete rows.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pca.h>
#include <mvda/models/pca_pred.h>

#include <cmath>
#include <optional>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "threading_for.h"

namespace {

constexpr int kTrainRows = 2000;
constexpr int kRows = 10000;
constexpr int kColumns = 500;
constexpr int kComponents = 5;
constexpr int kMaxIterations = 500;

using Matrix = NCDataMatrix<float>;

struct Data {
  Matrix pprim;          // the fitted model's loadings
  Matrix x, gappyX;      // the new observations, complete and with 10% missing
  std::vector<float> p;  // pprim, row after row, for the floor
};

// Eight latent directions of falling strength plus noise, as in a spectroscopic data set, for the
// training rows and the new rows alike; fixed seed.
const Data& Get() {
  static const Data data = [] {
    Data d;
    constexpr int kLatent = 8;
    std::mt19937 gen(31);
    std::normal_distribution<double> z;
    std::uniform_real_distribution<double> coin(0, 1);
    std::vector<double> loadings(kLatent * kColumns), t(kLatent);
    for (double& v : loadings) v = z(gen);
    const auto fill = [&](Matrix& m, Matrix* gappy, int rows) {
      m = Matrix(rows, kColumns, 0.0f);
      if (gappy) *gappy = m;
      for (int i = 1; i <= rows; ++i) {
        for (int a = 0; a < kLatent; ++a) t[a] = z(gen) * (kLatent - a);
        for (int j = 1; j <= kColumns; ++j) {
          double v = 0.5 * z(gen);
          for (int a = 0; a < kLatent; ++a) v += t[a] * loadings[a * kColumns + j - 1] / kLatent;
          m(i, j, static_cast<float>(v));
          if (gappy) (*gappy)(i, j, coin(gen) < 0.1 ? -99.0f : static_cast<float>(v));
        }
      }
    };
    Matrix train;
    fill(train, nullptr, kTrainRows);
    fill(d.x, &d.gappyX, kRows);
    NCPCA model(&train, kMaxIterations);
    for (int a = 1; a <= kComponents; ++a) {
      model.NextComponent(nullptr, nullptr, 0, nullptr);
      model.CalculateResiduals();
    }
    d.pprim = *model.GetPprim();
    for (int a = 1; a <= kComponents; ++a)
      for (int j = 1; j <= kColumns; ++j) d.p.push_back(d.pprim[a][j]);
    return d;
  }();
  return data;
}

// The time per row (printed in seconds with an SI prefix): rows per second, inverted.
benchmark::Counter TimePerRow() {
  return benchmark::Counter(
      kRows, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// The floor: scores[(i - 1) * A + a - 1] for every row, by the sequential projection.
void Project(const Data& d, const Matrix& x, std::vector<float>& scores) {
  std::vector<float> r(kColumns);
  for (int i = 1; i <= kRows; ++i) {
    const float* row = x[i].GetVector() + 1;
    for (int j = 0; j < kColumns; ++j) r[j] = row[j] == -99.0f ? 0.0f : row[j];
    for (int a = 0; a < kComponents; ++a) {
      const float* p = d.p.data() + a * kColumns;
      float t = 0;
      for (int j = 0; j < kColumns; ++j) t += p[j] * r[j];
      if (a + 1 < kComponents)
        for (int j = 0; j < kColumns; ++j) r[j] -= t * p[j];
      scores[static_cast<size_t>(i - 1) * kComponents + a] = t;
    }
  }
}

// Root mean square difference between the scores and the floor's scores of the complete rows,
// relative to the root mean square of the latter.
double RelativeError(const Matrix& tprim, const std::vector<float>& reference) {
  double diff = 0, size = 0;
  for (int i = 1; i <= kRows; ++i)
    for (int a = 1; a <= kComponents; ++a) {
      const double r = reference[static_cast<size_t>(i - 1) * kComponents + a - 1];
      diff += (tprim[a][i] - r) * (tprim[a][i] - r);
      size += r * r;
    }
  return std::sqrt(diff / size);
}

void BM_PcaPredScores(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const Data& d = Get();
  const bool gappy = state.range(0) != 0;
  const Matrix& x = gappy ? d.gappyX : d.x;
  std::optional<NCPCAPred> pred;
  const Matrix* tprim = nullptr;
  for (auto _ : state) {
    pred.emplace(&x, &d.pprim, kMaxIterations, 0.5f);
    tprim = pred->GetTPredPrim();
    benchmark::DoNotOptimize(tprim);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kRows} * kColumns * sizeof(float));
  state.counters["per_row"] = TimePerRow();

  // Checked against the floor's scores of the complete rows: equal up to float round-off without
  // missing values, and within a few percent with them (the PLS estimate is an approximation).
  std::vector<float> reference(static_cast<size_t>(kRows) * kComponents);
  Project(d, d.x, reference);
  const double error = RelativeError(*tprim, reference);
  state.counters["rel_error"] = error;
  if (tprim->GetNumMisVal() != 0) state.SkipWithError("an observation was not scored");
  if (error > (gappy ? 0.1 : 1e-4)) state.SkipWithError("the scores are off");
}
BENCHMARK(BM_PcaPredScores)
    ->Args({0, 1})
    ->Args({10, 1})
    ->Args({0, 0})
    ->Args({10, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_ProjectionFloor(benchmark::State& state) {
  const ThreadingFor threading(state, 1);
  const Data& d = Get();
  const Matrix& x = state.range(0) != 0 ? d.gappyX : d.x;
  std::vector<float> scores(static_cast<size_t>(kRows) * kComponents);
  for (auto _ : state) {
    Project(d, x, scores);
    benchmark::DoNotOptimize(scores.data());
  }
  state.SetBytesProcessed(state.iterations() * int64_t{kRows} * kColumns * sizeof(float));
  state.counters["per_row"] = TimePerRow();
  std::vector<float> reference(scores.size());
  Project(d, d.x, reference);
  if (state.range(0) == 0 && scores != reference)
    state.SkipWithError("the floor is not repeatable");
}
BENCHMARK(BM_ProjectionFloor)->Args({0, 0})->Args({10, 0})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
