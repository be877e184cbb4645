// Copy-on-write of NCDataMatrix: a copy of a 10000 x 500 float matrix and the first write to one
// element of that copy, next to a deep CopyContent of the same matrix in the same run. Bytes are
// the matrix's element bytes per iteration, so the deep copy shows memory bandwidth and the
// shared copy shows how much element traffic it avoids.
#include <mvda/containers/data_matrix.h>

#include <benchmark/benchmark.h>

namespace {

constexpr int kRows = 10000;
constexpr int kColumns = 500;
constexpr int kWriteRow = 5000;
constexpr int kWriteColumn = 250;

const NCDataMatrix<float>& Source() {
  static const NCDataMatrix<float> source = [] {
    NCDataMatrix<float> m(kRows, kColumns, 0.0f);
    for (int i = 1; i <= kRows; ++i)
      for (int j = 1; j <= kColumns; ++j) m(i, j, static_cast<float>((i * 31 + j) % 97));
    return m;
  }();
  return source;
}

int RowsSharedWith(const NCDataMatrix<float>& a, const NCDataMatrix<float>& b) {
  int shared = 0;
  for (int i = 1; i <= a.SizeRows(); ++i) shared += a[i].GetVector() == b[i].GetVector();
  return shared;
}

void SetMatrixBytes(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * int64_t{kRows} * kColumns * sizeof(float));
}

void BM_SharedCopy(benchmark::State& state) {
  const NCDataMatrix<float>& source = Source();
  for (auto _ : state) {
    NCDataMatrix<float> copy(source);
    benchmark::DoNotOptimize(copy);
  }
  SetMatrixBytes(state);
  const NCDataMatrix<float> copy(source);
  state.counters["rows_shared"] = RowsSharedWith(copy, source);
  if (RowsSharedWith(copy, source) != kRows) state.SkipWithError("the copy does not share rows");
}
BENCHMARK(BM_SharedCopy);

// The write gives the copy a row array of its own (O(rows)) and copies the one row written.
void BM_SharedCopyThenFirstWrite(benchmark::State& state) {
  const NCDataMatrix<float>& source = Source();
  for (auto _ : state) {
    NCDataMatrix<float> copy(source);
    copy(kWriteRow, kWriteColumn, -99.0f);
    benchmark::DoNotOptimize(copy);
  }
  SetMatrixBytes(state);
  NCDataMatrix<float> copy(source);
  copy(kWriteRow, kWriteColumn, -99.0f);
  state.counters["rows_shared"] = RowsSharedWith(copy, source);
  if (RowsSharedWith(copy, source) != kRows - 1 || source[kWriteRow][kWriteColumn] == -99.0f ||
      copy.GetNumMisVal() != 1 || source.GetNumMisVal() != 0)
    state.SkipWithError("the first write did not unlink exactly one row");
}
BENCHMARK(BM_SharedCopyThenFirstWrite);

// Baseline: every element copied.
void BM_DeepCopyContent(benchmark::State& state) {
  const NCDataMatrix<float>& source = Source();
  NCDataMatrix<float> copy;
  for (auto _ : state) {
    copy.CopyContent(source);
    benchmark::DoNotOptimize(copy);
  }
  SetMatrixBytes(state);
  state.counters["rows_shared"] = RowsSharedWith(copy, source);
  if (!(copy == source) || RowsSharedWith(copy, source) != 0)
    state.SkipWithError("the deep copy differs from its source or shares a row");
}
BENCHMARK(BM_DeepCopyContent)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
