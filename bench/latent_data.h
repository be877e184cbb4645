// The data of the model benchmarks, made from a fixed seed: matrices with a few latent directions
// of falling strength plus noise, as spectra are, so that NIPALS meets real structure.
#ifndef MVDA_BENCH_LATENT_DATA_H_
#define MVDA_BENCH_LATENT_DATA_H_

#include <mvda/containers/data_matrix.h>

#include <cstddef>
#include <random>
#include <vector>

// One matrix; a copy with about 10% of its cells missing; and the complete matrix row after row
// for the BLAS floors.
struct LatentData {
  NCDataMatrix<float> complete, gappy;  // gappy: about 10% of the cells missing
  std::vector<float> contiguous;        // the complete matrix, row after row
};

// x_ij = sum_k decay^k t_ik p_jk + noise z_ij, with t, p and z standard normal.
inline LatentData MakeLatentData(int rows, int columns, int latent, float decay, float noise,
                                 unsigned seed) {
  LatentData d;
  std::mt19937 gen(seed);
  std::normal_distribution<float> normal(0, 1);
  std::uniform_real_distribution<float> coin(0, 1);
  std::vector<float> t(static_cast<std::size_t>(rows) * latent),
      p(static_cast<std::size_t>(columns) * latent);
  for (float& x : t) x = normal(gen);
  for (float& x : p) x = normal(gen);
  d.complete = NCDataMatrix<float>(rows, columns, 0.0f);
  d.gappy = NCDataMatrix<float>(rows, columns, 0.0f);
  d.contiguous.resize(static_cast<std::size_t>(rows) * columns);
  for (int i = 0; i < rows; ++i)
    for (int j = 0; j < columns; ++j) {
      float x = noise * normal(gen);
      float s = 1;
      for (int k = 0; k < latent; ++k, s *= decay)
        x += s * t[static_cast<std::size_t>(i) * latent + k] *
             p[static_cast<std::size_t>(j) * latent + k];
      d.complete(i + 1, j + 1, x);
      d.gappy(i + 1, j + 1, coin(gen) < 0.1f ? -99.0f : x);
      d.contiguous[static_cast<std::size_t>(i) * columns + j] = x;
    }
  return d;
}

// A calibration: eight latent directions of falling strength drive both X and Y, plus noise, as in
// a spectroscopic calibration, so that the first components are real structure that NIPALS
// separates quickly and cross-validation confirms. Each matrix has a copy with about 10% of its
// cells missing; X also row after row for the BLAS floors.
struct CalibrationData {
  NCDataMatrix<float> x, y, gappyX, gappyY;
  std::vector<float> contiguous;  // x, row after row
};

inline CalibrationData MakeCalibrationData(int rows, int columns, int responses, unsigned seed) {
  constexpr int kLatent = 8;
  CalibrationData d;
  std::mt19937 gen(seed);
  std::normal_distribution<double> z;
  std::uniform_real_distribution<double> coin(0, 1);
  std::vector<double> p(static_cast<std::size_t>(kLatent) * columns),
      c(static_cast<std::size_t>(kLatent) * responses), t(kLatent);
  for (double& v : p) v = z(gen);
  for (double& v : c) v = z(gen);
  d.x = NCDataMatrix<float>(rows, columns, 0.0f);
  d.y = NCDataMatrix<float>(rows, responses, 0.0f);
  d.gappyX = NCDataMatrix<float>(rows, columns, 0.0f);
  d.gappyY = NCDataMatrix<float>(rows, responses, 0.0f);
  d.contiguous.resize(static_cast<std::size_t>(rows) * columns);
  for (int i = 1; i <= rows; ++i) {
    for (int a = 0; a < kLatent; ++a) t[a] = z(gen) * (kLatent - a);
    for (int j = 1; j <= columns; ++j) {
      double v = 0.5 * z(gen);
      for (int a = 0; a < kLatent; ++a) v += t[a] * p[a * columns + j - 1] / kLatent;
      d.x(i, j, static_cast<float>(v));
      d.gappyX(i, j, coin(gen) < 0.1 ? -99.0f : static_cast<float>(v));
      d.contiguous[static_cast<std::size_t>(i - 1) * columns + (j - 1)] = static_cast<float>(v);
    }
    for (int m = 1; m <= responses; ++m) {
      double v = 0.5 * z(gen);
      for (int a = 0; a < kLatent; ++a) v += t[a] * c[a * responses + m - 1] / kLatent;
      d.y(i, m, static_cast<float>(v));
      d.gappyY(i, m, coin(gen) < 0.1 ? -99.0f : static_cast<float>(v));
    }
  }
  return d;
}

#endif  // MVDA_BENCH_LATENT_DATA_H_
