#include <mvda/validation/detail/batched_regressions.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
using mvda::detail::BatchedRegressions;

constexpr float kMis = -99.0f;

Matrix Random(int r, int c, double gaps, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<float> z;
  std::bernoulli_distribution gap(gaps);
  Matrix m(r, c, 0.0f);
  for (int i = 1; i <= r; ++i)
    for (int j = 1; j <= c; ++j) m(i, j, gap(gen) ? kMis : z(gen));
  return m;
}

// Column h of a row-major n x g block as a vector.
Vector Column(const std::vector<float>& block, int n, int g, int h) {
  Vector v(n, 0.0f);
  for (int i = 1; i <= n; ++i) v(i, block[static_cast<std::size_t>(i - 1) * g + h]);
  return v;
}

void ExpectSame(const Vector& expected, const std::vector<float>& block, int g, int h) {
  for (int i = 1; i <= expected.Size(); ++i) {
    const float got = block[static_cast<std::size_t>(i - 1) * g + h];
    if (std::isnan(expected[i])) {
      EXPECT_TRUE(std::isnan(got)) << "element " << i;
    } else if (expected[i] == kMis) {
      EXPECT_EQ(got, kMis) << "element " << i;
    } else {
      EXPECT_NEAR(got, expected[i], 1e-5 * (1 + std::fabs(expected[i]))) << "element " << i;
    }
  }
}

// Every vector of the batch must give what the single-vector regressions of the matrix give, for
// vectors with gaps, with whole groups of rows or columns marked out, with only zeros, and on
// matrices with and without gaps, a column and a row missing throughout, and a sparse column and
// row.
TEST(BatchedRegressions, AgreeWithTheSingleVectorRegressions) {
  for (const double gaps : {0.0, 0.1}) {
    SCOPED_TRACE("gaps " + std::to_string(gaps));
    Matrix x = Random(300, 43, gaps, 7);
    if (gaps > 0) {
      for (int i = 1; i <= x.SizeRows(); ++i) x(i, 3, kMis);  // a column without any value
      for (int j = 1; j <= x.SizeColumns(); ++j) x(5, j, kMis);
      // A sparse column and a sparse row, where the floor of the fixed regressions binds.
      for (int i = 1; i <= x.SizeRows(); ++i)
        if (i % 5 != 0) x(i, 7, kMis);
      for (int j = 1; j <= x.SizeColumns(); ++j)
        if (j % 5 != 0) x(9, j, kMis);
    }
    const int n = x.SizeRows(), k = x.SizeColumns(), g = 4;
    std::mt19937 gen(11);
    std::normal_distribution<float> z;
    std::vector<float> v(static_cast<std::size_t>(n) * g), w(static_cast<std::size_t>(k) * g);
    for (int i = 0; i < n; ++i)
      for (int h = 0; h < g; ++h)
        v[static_cast<std::size_t>(i) * g + h] = h == 3                  ? 0.0f  // only zeros
                                                 : h == 1 && i % 3 == 0  ? kMis  // rows left out
                                                 : h == 2 && i % 17 == 0 ? kMis
                                                                         : z(gen);
    for (int j = 0; j < k; ++j)
      for (int h = 0; h < g; ++h)
        w[static_cast<std::size_t>(j) * g + h] = h == 3                 ? 0.0f
                                                 : h == 1 && j % 4 == 0 ? kMis
                                                                        : z(gen);

    const BatchedRegressions batch(x);
    EXPECT_EQ(batch.HasGaps(), gaps > 0);
    for (const bool fix : {false, true}) {
      SCOPED_TRACE(fix ? "fix" : "plain");
      std::vector<float> cols(static_cast<std::size_t>(k) * g),
          rows(static_cast<std::size_t>(n) * g);
      batch.RegressColumns(v.data(), g, fix, cols.data());
      batch.RegressRows(w.data(), g, fix, rows.data());
      for (int h = 0; h < g; ++h) {
        SCOPED_TRACE("vector " + std::to_string(h));
        const Vector t = Column(v, n, g, h), p = Column(w, k, g, h);
        ExpectSame(fix ? x.SpecialNipalsRegressColumnsFix(t) : x.RegressColumns(t), cols, g, h);
        ExpectSame(fix ? x.SpecialNipalsRegressRowsFix(p) : x.RegressRows(p), rows, g, h);
      }
    }
  }
}

}  // namespace
