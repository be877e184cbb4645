// Seeded generators of the CSV data sets that the command-line tool is measured and shown on: a
// large matrix with a few latent components (speed), and the simulated filling line of
// data/filling.csv (control charts). The numbers depend on the seed alone: std::mt19937_64 is
// specified to the bit, and the normal deviates are drawn here by Box-Muller instead of
// std::normal_distribution, whose algorithm differs between standard libraries.
#ifndef MVDA_BENCH_CSV_GENERATOR_H_
#define MVDA_BENCH_CSV_GENERATOR_H_

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace mvda::bench {

class Normal {
 public:
  explicit Normal(std::uint64_t seed) : engine_(seed) {}
  double operator()() {
    if (has_spare_) {
      has_spare_ = false;
      return spare_;
    }
    const double u1 = Uniform(), u2 = Uniform();
    const double r = std::sqrt(-2.0 * std::log(u1));
    spare_ = r * std::sin(6.283185307179586 * u2);
    has_spare_ = true;
    return r * std::cos(6.283185307179586 * u2);
  }

 private:
  // In (0, 1]: 53 random bits, never 0, so that the logarithm is finite.
  double Uniform() { return (static_cast<double>(engine_() >> 11) + 1.0) * 0x1.0p-53; }

  std::mt19937_64 engine_;
  double spare_ = 0;
  bool has_spare_ = false;
};

// rows x cols: observation names O1.., variables V1..; five latent components with standard
// deviations 10, 7, 4.9, 3.4, 2.4 times random loadings, plus unit noise, printed to 5 significant
// digits; a column of missing values every so often keeps the missing-value path honest.
inline void WriteMatrixCsv(std::FILE* out, int rows, int cols, std::uint64_t seed) {
  Normal normal(seed);
  constexpr int kLatent = 5;
  std::vector<double> loadings(static_cast<std::size_t>(kLatent) * cols);
  for (double& p : loadings) p = normal() / std::sqrt(static_cast<double>(cols)) * 4;
  std::fprintf(out, "Obs");
  for (int j = 1; j <= cols; ++j) std::fprintf(out, ",V%d", j);
  std::fprintf(out, "\n");
  std::vector<double> scores(kLatent);
  for (int i = 1; i <= rows; ++i) {
    double sd = 10;
    for (double& t : scores) {
      t = sd * normal();
      sd *= 0.7;
    }
    std::fprintf(out, "O%d", i);
    for (int j = 0; j < cols; ++j) {
      double x = normal();
      for (int a = 0; a < kLatent; ++a)
        x += scores[static_cast<std::size_t>(a)] * loadings[static_cast<std::size_t>(a * cols + j)];
      if ((i * 31 + j * 17) % 997 == 0) {
        std::fprintf(out, ",");
      } else {
        std::fprintf(out, ",%.5g", x);
      }
    }
    std::fprintf(out, "\n");
  }
}

// The filling line of data/filling.csv: 200 fills in 40 subgroups of 5 consecutive fills. Weight
// (g) has target 500 and standard deviation 2; from fill 151 (subgroup 31) on, the mean is 2 g
// higher, a shift of one standard deviation. Torque (N m) of the capper, mean 12, standard
// deviation 0.4, stays in control; the reading of fill 87 was lost (an empty cell).
inline void WriteFillingCsv(std::FILE* out, std::uint64_t seed) {
  Normal normal(seed);
  std::fprintf(out, "Sample,Subgroup,Weight,Torque\n");
  for (int i = 1; i <= 200; ++i) {
    const double weight = 500.0 + (i > 150 ? 2.0 : 0.0) + 2.0 * normal();
    const double torque = 12.0 + 0.4 * normal();
    std::fprintf(out, "F%03d,%d,%.2f,", i, (i - 1) / 5 + 1, weight);
    if (i != 87) std::fprintf(out, "%.2f", torque);
    std::fprintf(out, "\n");
  }
}

}  // namespace mvda::bench

#endif  // MVDA_BENCH_CSV_GENERATOR_H_
