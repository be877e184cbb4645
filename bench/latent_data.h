// The data of the model benchmarks: a matrix with a few latent directions of falling strength plus
// noise, as spectra are, so that NIPALS meets real structure; a copy with about 10% of its cells
// missing; and the complete matrix row after row for the BLAS floors. Fixed seed.
#ifndef MVDA_BENCH_LATENT_DATA_H_
#define MVDA_BENCH_LATENT_DATA_H_

#include <mvda/containers/data_matrix.h>

#include <cstddef>
#include <random>
#include <vector>

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

#endif  // MVDA_BENCH_LATENT_DATA_H_
