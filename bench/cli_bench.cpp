// The command-line tool on a 10000 x 500 CSV file: reading the file (libcsv and from_chars into a
// table) against fitting 5 PCA components with 7-group cross-validation. Reading must stay the
// smaller part, so a user waits for the analysis and not for the parser. The plain read of the
// file's bytes is the floor any parser stands on.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include <benchmark/benchmark.h>

#include "analysis.h"
#include "csv_generator.h"
#include "csv_table.h"

namespace {

constexpr int kRows = 10000, kCols = 500;

// Written once per run into the temporary directory and removed at exit.
const std::string& DataFile() {
  static const struct File {
    std::string path;
    File() {
      path = (std::filesystem::temp_directory_path() / "mvda_cli_bench_10000x500.csv").string();
      std::FILE* out = std::fopen(path.c_str(), "w");
      if (!out) throw std::runtime_error("cli_bench: cannot write " + path);
      mvda::bench::WriteMatrixCsv(out, kRows, kCols, 7);
      std::fclose(out);
    }
    ~File() { std::remove(path.c_str()); }
  } file;
  return file.path;
}

void BM_ReadBytes(benchmark::State& state) {
  DataFile();  // made before the clock runs
  std::size_t bytes = 0;
  for (auto _ : state) {
    std::ifstream in(DataFile(), std::ios::binary);
    std::string all(static_cast<std::size_t>(std::filesystem::file_size(DataFile())), '\0');
    in.read(all.data(), static_cast<std::streamsize>(all.size()));
    bytes = static_cast<std::size_t>(in.gcount());
    benchmark::DoNotOptimize(all.data());
  }
  if (bytes < static_cast<std::size_t>(kRows) * kCols) state.SkipWithError("file too short");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
}

void BM_ReadCsv(benchmark::State& state) {
  DataFile();
  mvda::cli::CsvTable table;
  for (auto _ : state) table = mvda::cli::ReadCsv(DataFile());
  if (table.Rows() != kRows || table.Columns() != kCols) state.SkipWithError("wrong shape");
  state.SetBytesProcessed(
      static_cast<std::int64_t>(state.iterations() * std::filesystem::file_size(DataFile())));
}

void BM_FitPca5(benchmark::State& state) {
  const mvda::cli::CsvTable table = mvda::cli::ReadCsv(DataFile());
  mvda::cli::FitSettings settings;
  settings.components = 5;
  int components = 0;
  double r2x = 0;
  for (auto _ : state) {
    const mvda::cli::ModelResult result =
        mvda::cli::FitPca(mvda::cli::SelectData(table, {}, "", {}), settings);
    components = result.components;
    r2x = result.rows.back().r2x_cum;
  }
  // Five strong latent components over unit noise: they explain most of the variation.
  if (components != 5 || !(r2x > 0.5)) state.SkipWithError("unexpected fit");
}

BENCHMARK(BM_ReadBytes)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_ReadCsv)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_FitPca5)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
