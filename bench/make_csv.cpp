// make_csv: writes a generated CSV data set to stdout.
//   make_csv matrix ROWS COLS SEED   a large matrix with five latent components (speed tests)
//   make_csv filling SEED            the simulated filling line (data/filling.csv uses seed 2024)
#include <cstdio>
#include <cstdlib>
#include <string>

#include "csv_generator.h"

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "matrix" && argc == 5) {
    const int rows = std::atoi(argv[2]), cols = std::atoi(argv[3]);
    if (rows < 1 || cols < 1) {
      std::fprintf(stderr, "make_csv: ROWS and COLS must be positive\n");
      return 2;
    }
    mvda::bench::WriteMatrixCsv(stdout, rows, cols, std::strtoull(argv[4], nullptr, 10));
    return 0;
  }
  if (mode == "filling" && argc == 3) {
    mvda::bench::WriteFillingCsv(stdout, std::strtoull(argv[2], nullptr, 10));
    return 0;
  }
  std::fprintf(stderr, "usage: make_csv matrix ROWS COLS SEED | make_csv filling SEED\n");
  return 2;
}
