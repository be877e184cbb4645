// The C++ side of the Python call-cost comparison (python/bench/pca_call_cost.py): the tool's PCA
// fit (5 components, each cross-validated, uv scaling, 7 groups) on the matrix the script wrote,
// exactly as mvda.PCA(n_components=5).fit calls it, but without Python around it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "analysis.h"

namespace {

// The file: rows and columns as int32, then the values row after row as float32.
mvda::cli::Dataset ReadData(const char* path) {
  std::ifstream in(path, std::ios::binary);
  std::int32_t rows = 0, cols = 0;
  if (!in.read(reinterpret_cast<char*>(&rows), 4) || !in.read(reinterpret_cast<char*>(&cols), 4) ||
      rows < 1 || cols < 1 || rows > (1 << 24) || cols > (1 << 16)) {
    throw std::runtime_error(std::string(path) + ": not a matrix written by pca_call_cost.py");
  }
  mvda::cli::Dataset data;
  data.path = "X";
  data.x = NCDataMatrix<float>(rows, cols, 0.0f);
  for (int i = 1; i <= rows; ++i) {
    NCDataVector<float> row(cols, 0.0f);  // each row a buffer of its own; no value is -99
    if (!in.read(reinterpret_cast<char*>(row.GetVector() + 1), 4 * static_cast<long>(cols))) {
      throw std::runtime_error(std::string(path) + ": truncated");
    }
    data.x.SetRow(i, row);
  }
  for (int j = 1; j <= cols; ++j) data.x_names.push_back("x" + std::to_string(j));
  return data;
}

void BM_ToolPcaFit5Components(benchmark::State& state) {
  const char* path = std::getenv("MVDA_BENCH_DATA");
  if (!path) {
    state.SkipWithError("MVDA_BENCH_DATA: run python/bench/pca_call_cost.py, which sets it");
    return;
  }
  const mvda::cli::Dataset data = ReadData(path);
  mvda::cli::FitSettings settings;
  settings.components = 5;
  // One fit before timing: thread pools started, pages touched, as in the Python process that
  // the other half times.
  benchmark::DoNotOptimize(mvda::cli::FitPca(data, settings).components);
  for (auto _ : state) {
    mvda::cli::ModelResult result = mvda::cli::FitPca(data, settings);
    benchmark::DoNotOptimize(result.components);
  }
}
BENCHMARK(BM_ToolPcaFit5Components)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
