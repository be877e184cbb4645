#include <mvda/containers/multi_threading.h>
#include <mvda/diagnostics/contributions.h>
#include <mvda/diagnostics/hotelling.h>
#include <mvda/diagnostics/spe.h>
#include <mvda/models/pca.h>
#include <mvda/models/pca_pred.h>
#include <mvda/platform/error.h>
#include <mvda/platform/progress.h>
#include <mvda/preprocess/scale.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "support/csv.h"          // ReadCsv: the embedded datasets
#include "support/make_matrix.h"  // MakeMatrix, RandomMatrix

namespace {

using namespace mvda::diagnostics;
using Matrix = NCDataMatrix<float>;

// The 13 measured columns of the wine data (not the sample name, not the cultivar), unit-variance
// scaled as the tool scales them.
Matrix ScaledWine() {
  const CsvTable table = ReadCsv("wine.csv");
  const int n = static_cast<int>(table.rows.size()), k = 13;
  Matrix x(n, k, 0.0f);
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= k; ++j) x(i, j, static_cast<float>(table.Number(i - 1, j)));
  NCScale scale(k);
  for (int j = 1; j <= k; ++j) scale.SetType(j, NCScale::kUnitVariance);
  scale.ScaleMatrix(&x, true);
  return x;
}

NCPCA FitPca(const Matrix& x, int components) {
  NCPCA model(&x, 1000);
  for (int a = 1; a <= components; ++a) {
    NCProgress quiet;
    model.NextComponent(&quiet, nullptr, 0, nullptr);
    model.CalculateResiduals();
  }
  return model;
}

Matrix FirstRows(const Matrix& m, int rows) {
  Matrix out(rows, m.SizeColumns(), 0.0f);
  for (int r = 1; r <= rows; ++r) out.SetRow(r, m[r]);
  return out;
}

// Solves the symmetric positive definite system M z = b (A x A, double) by Cholesky.
std::vector<double> SolveSpd(std::vector<std::vector<double>> m, std::vector<double> b) {
  const std::size_t a = b.size();
  for (std::size_t j = 0; j < a; ++j) {
    for (std::size_t k = 0; k < j; ++k) m[j][j] -= m[j][k] * m[j][k];
    m[j][j] = std::sqrt(m[j][j]);
    for (std::size_t i = j + 1; i < a; ++i) {
      for (std::size_t k = 0; k < j; ++k) m[i][j] -= m[i][k] * m[j][k];
      m[i][j] /= m[j][j];
    }
  }
  for (std::size_t i = 0; i < a; ++i) {
    for (std::size_t k = 0; k < i; ++k) b[i] -= m[i][k] * b[k];
    b[i] /= m[i][i];
  }
  for (std::size_t i = a; i-- > 0;) {
    for (std::size_t k = i + 1; k < a; ++k) b[i] -= m[k][i] * b[k];
    b[i] /= m[i][i];
  }
  return b;
}

// T² is (N - 1) times the squared Mahalanobis distance t_i' (T'T)^-1 t_i, computed here with the
// full cross-product matrix (off-diagonal elements included, no reliance on orthogonal scores).
// Independently, the thin SVD X = U S V' of the scaled data in double (LAPACK): the score
// variances are s_a² / (N - 1), and SPE_i = |x_i|² - sum_a (s_a u_ia)².
TEST(HotellingAndSpe, WineAgreesWithMahalanobisAndTheSvd) {
  const Matrix x = ScaledWine();
  const int n = x.SizeRows(), k = x.SizeColumns(), components = 3;
  const NCPCA model = FitPca(x, components);
  const Matrix& tprim = *model.GetTprim();

  const std::vector<double> variances = ScoreVariances(tprim);
  const std::vector<double> t2 = HotellingT2(tprim, variances);
  const std::vector<double> spe = SPE(x, tprim, *model.GetPprim());
  ASSERT_EQ(t2.size(), static_cast<std::size_t>(n));
  ASSERT_EQ(spe.size(), static_cast<std::size_t>(n));

  std::vector<std::vector<double>> cross(components, std::vector<double>(components, 0.0));
  for (int a = 0; a < components; ++a)
    for (int b = 0; b < components; ++b)
      for (int i = 1; i <= n; ++i) cross[a][b] += double(tprim[a + 1][i]) * tprim[b + 1][i];
  for (int i = 1; i <= n; ++i) {
    std::vector<double> t(components);
    for (int a = 0; a < components; ++a) t[a] = tprim[a + 1][i];
    const std::vector<double> z = SolveSpd(cross, t);
    double d2 = 0;
    for (int a = 0; a < components; ++a) d2 += t[a] * z[a];
    EXPECT_NEAR(t2[i - 1], (n - 1) * d2, 1e-4 * (1 + t2[i - 1])) << i;
  }

  NCDataMatrix<double> xd(n, k, 0.0), u;
  for (int i = 1; i <= n; ++i)
    for (int j = 1; j <= k; ++j) xd(i, j, x[i][j]);
  const NCDataVector<double> s = xd.GetSVD(&u, nullptr);
  for (int a = 1; a <= components; ++a) {
    EXPECT_NEAR(variances[a - 1], s[a] * s[a] / (n - 1), 1e-4 * variances[a - 1]) << a;
  }
  double mean_spe = 0;
  for (int i = 1; i <= n; ++i) {
    double ss = 0, explained = 0, t2_svd = 0;
    for (int j = 1; j <= k; ++j) ss += xd[i][j] * xd[i][j];
    for (int a = 1; a <= components; ++a) {
      const double t = s[a] * u[i][a];
      explained += t * t;
      t2_svd += t * t / (s[a] * s[a] / (n - 1));
    }
    EXPECT_NEAR(spe[i - 1], ss - explained, 2e-4 * (1 + ss)) << i;
    EXPECT_NEAR(t2[i - 1], t2_svd, 2e-4 * (1 + t2_svd)) << i;
    mean_spe += (ss - explained) / n;
  }
  // The sum of the SPE values is the residual sum of squares, so their mean is K (1 - R2X).
  const SPEMoments moments = SPEMomentsOf(spe);
  EXPECT_NEAR(moments.mean, mean_spe, 1e-4 * mean_spe);
  EXPECT_EQ(moments.count, n);
}

TEST(HotellingAndSpe, FullRankModelLeavesNoResidual) {
  // A = min(N - 1, K) on complete centred data: K = 13 < N - 1 for wine; a 6 x 9 matrix has rank
  // N - 1 = 5 after centring.
  struct Case {
    const char* name;
    Matrix x;
    int components;
  };
  Matrix wide = RandomMatrix<float>(6, 9, 0.0, 7);
  NCScale centre(9);
  for (int j = 1; j <= 9; ++j) centre.SetType(j, NCScale::kCentre);
  centre.ScaleMatrix(&wide, true);
  const Case cases[] = {{"wine, A = K", ScaledWine(), 13}, {"6 x 9, A = N - 1", wide, 5}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const NCPCA model = FitPca(c.x, c.components);
    const std::vector<double> spe = SPE(c.x, *model.GetTprim(), *model.GetPprim());
    for (std::size_t i = 0; i < spe.size(); ++i) EXPECT_NEAR(spe[i], 0.0, 1e-4) << i;
    // One component fewer leaves something in some row.
    const Matrix p_less = FirstRows(*model.GetPprim(), c.components - 1);
    const Matrix t_less = FirstRows(*model.GetTprim(), c.components - 1);
    const std::vector<double> spe_less = SPE(c.x, t_less, p_less);
    EXPECT_GT(*std::max_element(spe_less.begin(), spe_less.end()), 1e-3);
  }
}

// New observations scored by NCPCAPred under the wine model. A complete row made of the model's
// plane, x = t P', is projected onto exactly its t: T² is sum t_a² / s_a² and SPE 0. Rows with
// gaps get the estimator's scores; their T² and SPE use those very scores, SPE over the present
// cells times K / (present cells). A row that cannot be scored gets no value at all.
TEST(HotellingAndSpe, RowsWithGapsUseTheirEstimatedScores) {
  const Matrix x = ScaledWine();
  const int k = x.SizeColumns();
  const NCPCA model = FitPca(x, 3);
  const Matrix& pprim = *model.GetPprim();
  const std::vector<double> variances = ScoreVariances(*model.GetTprim());

  const double t_plane[] = {1.5, -0.7, 0.3};
  Matrix fresh(5, k, 0.0f);
  for (int j = 1; j <= k; ++j) {
    double v = 0;
    for (int a = 1; a <= 3; ++a) v += t_plane[a - 1] * pprim[a][j];
    fresh(1, j, static_cast<float>(v));
    fresh(2, j, static_cast<float>(v));
    fresh(3, j, x[17][j]);
    fresh(4, j, x[90][j]);
    fresh(5, j, -99.0f);  // nothing to score
  }
  for (const int j : {2, 5, 8, 11}) fresh(2, j, -99.0f);
  for (const int j : {1, 13}) fresh(3, j, -99.0f);
  fresh(4, 6, -99.0f);
  const NCPCAPred pred(&fresh, &pprim, 1000, 0.5f);
  const Matrix& tpred = *pred.GetTPredPrim();
  const std::vector<double> t2 = HotellingT2(tpred, variances);
  const std::vector<double> spe = SPE(fresh, tpred, pprim);

  double t2_plane = 0;
  for (int a = 1; a <= 3; ++a) t2_plane += t_plane[a - 1] * t_plane[a - 1] / variances[a - 1];
  EXPECT_NEAR(t2[0], t2_plane, 1e-4 * t2_plane);
  EXPECT_NEAR(spe[0], 0.0, 1e-6);
  for (const int row : {2, 3, 4}) {
    SCOPED_TRACE(row);
    double ss = 0, t2_row = 0;
    int present = 0;
    for (int j = 1; j <= k; ++j) {
      if (fresh[row][j] == -99.0f) continue;
      double e = fresh[row][j];
      for (int a = 1; a <= 3; ++a) e -= double(tpred[a][row]) * pprim[a][j];
      ss += e * e;
      ++present;
    }
    for (int a = 1; a <= 3; ++a) {
      ASSERT_NE(tpred[a][row], -99.0f);
      t2_row += double(tpred[a][row]) * tpred[a][row] / variances[a - 1];
    }
    EXPECT_NEAR(spe[row - 1], ss * k / present, 1e-5 * (1 + spe[row - 1]));
    EXPECT_NEAR(t2[row - 1], t2_row, 1e-6 * (1 + t2_row));
  }
  EXPECT_EQ(t2[4], kMissing);
  EXPECT_EQ(spe[4], kMissing);
  for (const double c : SPEContributions(fresh, tpred, pprim, 5)) EXPECT_EQ(c, kMissing);
  for (const double c : T2Contributions(fresh, tpred, pprim, variances, 5)) EXPECT_EQ(c, kMissing);
}

// A model fitted on data with gaps: the SPE of a training row is K / (present cells) times the
// sum of squares of the model's own residual row (its deflation skips the missing cells), and the
// limit ignores no row that has a value.
TEST(HotellingAndSpe, TrainingRowsWithGapsMatchTheModelResiduals) {
  Matrix x = ScaledWine();
  const int n = x.SizeRows(), k = x.SizeColumns();
  for (int i = 1; i <= n; i += 7) x(i, 1 + (i % k), -99.0f);
  x(5, 3, -99.0f);
  x(5, 4, -99.0f);
  const NCPCA model = FitPca(x, 2);
  const std::vector<double> spe = SPE(x, *model.GetTprim(), *model.GetPprim());
  const Matrix& e = *model.GetResiduals();
  for (int i = 1; i <= n; ++i) {
    double ss = 0;
    int present = 0;
    for (int j = 1; j <= k; ++j) {
      if (e[i][j] == -99.0f) continue;
      ss += double(e[i][j]) * e[i][j];
      ++present;
    }
    EXPECT_NEAR(spe[i - 1], ss * k / present, 1e-4 * (1 + ss)) << i;
  }
  EXPECT_EQ(SPEMomentsOf(spe).count, n);
}

// Every width of row the residual kernel cuts into blocks (under 8 columns, one block of 8, 16,
// blocks with a remainder) with complete rows and rows with gaps, against residuals formed in
// double from the same float data, scores and loadings; A = 0 leaves the row itself. The SPE
// contributions are the residuals themselves, so their squares add up to SPE but for the order of
// the sum.
TEST(HotellingAndSpe, SpeAgreesWithDoubleResidualsForEveryRowWidth) {
  for (const int k : {5, 8, 13, 16, 45}) {
    for (const int components : {0, 3}) {
      SCOPED_TRACE(::testing::Message() << "K = " << k << ", A = " << components);
      const int n = 40;
      Matrix x = RandomMatrix<float>(n, k, 0.0, 11 + k);
      // Gaps in every other row, at the first and last column and in between.
      for (int i = 2; i <= n; i += 2) {
        x(i, 1 + (i * 7) % k, -99.0f);
        if (i % 4 == 0) x(i, k, -99.0f);
        if (i % 6 == 0) x(i, 1, -99.0f);
      }
      const int a_count = std::min(components, k - 1);
      const NCPCA model = FitPca(x, a_count);
      const Matrix &tprim = *model.GetTprim(), &pprim = *model.GetPprim();
      const std::vector<double> spe = SPE(x, tprim, pprim);
      for (int i = 1; i <= n; ++i) {
        double ss = 0;
        int present = 0;
        std::vector<double> e(static_cast<std::size_t>(k), kMissing);
        for (int j = 1; j <= k; ++j) {
          if (x[i][j] == -99.0f) continue;
          double r = x[i][j];
          for (int a = 1; a <= a_count; ++a) r -= double(tprim[a][i]) * pprim[a][j];
          e[j - 1] = r;
          ss += r * r;
          ++present;
        }
        const double expected = ss * k / present;
        ASSERT_NEAR(spe[i - 1], expected, 1e-5 * (1 + expected)) << i;
        const std::vector<double> c = SPEContributions(x, tprim, pprim, i);
        double sum = 0;
        for (int j = 0; j < k; ++j) {
          if (e[j] == kMissing) {
            ASSERT_EQ(c[j], kMissing) << i << ", " << j + 1;
            continue;
          }
          ASSERT_NEAR(c[j], e[j], 1e-5 * (1 + std::abs(x[i][j + 1]))) << i << ", " << j + 1;
          sum += c[j] * c[j];
        }
        EXPECT_NEAR(sum * k / present, spe[i - 1], 1e-12 * (1 + expected)) << i;
      }
    }
  }
}

// Each row's SPE goes to its own slot: one thread and four give the same bits, on rows of every
// kind (complete, with gaps, without scores).
TEST(HotellingAndSpe, SpeDoesNotDependOnTheThreadCount) {
  using NCMultiThreading::ThreadingControl;
  Matrix x = RandomMatrix<float>(300, 45, 0.0, 3);
  for (int i = 1; i <= 300; i += 3) x(i, 1 + i % 45, -99.0f);
  const NCPCA model = FitPca(x, 2);
  Matrix tprim = *model.GetTprim();
  tprim(2, 7, -99.0f);  // a row that could not be scored
  const int processors = ThreadingControl::GetNumberOfProcessors();
  const bool on = ThreadingControl::IsThreadingOn();
  ThreadingControl::SetThreadingIsOn(false);
  const std::vector<double> one = SPE(x, tprim, *model.GetPprim());
  ThreadingControl::SetNumberOfProcessors(4);
  ThreadingControl::SetThreadingIsOn(true);
  const std::vector<double> four = SPE(x, tprim, *model.GetPprim());
  ThreadingControl::SetNumberOfProcessors(processors);
  ThreadingControl::SetThreadingIsOn(on);
  EXPECT_EQ(one[6], kMissing);
  EXPECT_EQ(one, four);
}

TEST(Contributions, AddUpAndPointAtTheOffendingVariable) {
  const Matrix x = ScaledWine();
  const int k = x.SizeColumns();
  const NCPCA model = FitPca(x, 3);
  const Matrix &pprim = *model.GetPprim(), &tprim = *model.GetTprim();
  const std::vector<double> variances = ScoreVariances(tprim);
  const std::vector<double> t2 = HotellingT2(tprim, variances);
  const std::vector<double> spe = SPE(x, tprim, pprim);
  // Orthonormal loadings and t_a = p_a' x: the T² contributions add up to T², the squared SPE
  // contributions to SPE.
  for (const int i : {1, 60, 178}) {
    SCOPED_TRACE(i);
    const std::vector<double> c_t2 = T2Contributions(x, tprim, pprim, variances, i);
    const std::vector<double> c_spe = SPEContributions(x, tprim, pprim, i);
    double sum_t2 = 0, sum_spe = 0;
    for (int j = 0; j < k; ++j) {
      sum_t2 += c_t2[j];
      sum_spe += c_spe[j] * c_spe[j];
    }
    EXPECT_NEAR(sum_t2, t2[i - 1], 1e-4 * (1 + t2[i - 1]));
    EXPECT_NEAR(sum_spe, spe[i - 1], 1e-4 * (1 + spe[i - 1]));
  }

  // Row 60 pushed by +4 on variable 7 off the model, with variable 2 missing: the new row's
  // largest SPE contribution is variable 7's, positive; the gap has none.
  Matrix fresh(1, k, 0.0f);
  fresh.SetRow(1, x[60]);
  fresh(1, 7, x[60][7] + 4.0f);
  fresh(1, 2, -99.0f);
  const NCPCAPred pred(&fresh, &pprim, 1000, 0.5f);
  const std::vector<double> c = SPEContributions(fresh, *pred.GetTPredPrim(), pprim, 1);
  EXPECT_EQ(c[1], kMissing);
  int largest = 0;
  for (int j = 0; j < k; ++j)
    if (j != 1 && std::abs(c[j]) > std::abs(c[largest])) largest = j;
  EXPECT_EQ(largest, 6);
  EXPECT_GT(c[6], 0.0);
  EXPECT_EQ(T2Contributions(fresh, *pred.GetTPredPrim(), pprim, variances, 1)[1], kMissing);
}

TEST(Contributions, BadArgumentsRefused) {
  const Matrix x = ScaledWine();
  const NCPCA model = FitPca(x, 2);
  const Matrix &pprim = *model.GetPprim(), &tprim = *model.GetTprim();
  const std::vector<double> variances = ScoreVariances(tprim);
  EXPECT_THROW(SPEContributions(x, tprim, pprim, 0), NCError);
  EXPECT_THROW(SPEContributions(x, tprim, pprim, x.SizeRows() + 1), NCError);
  EXPECT_THROW(T2Contributions(x, tprim, pprim, {1.0}, 1), NCError);
  EXPECT_THROW(T2Contributions(x, tprim, pprim, {1.0, 0.0}, 1), NCError);
  EXPECT_THROW(SPE(x, FirstRows(tprim, 1), pprim), NCError);
  EXPECT_THROW(SPE(FirstRows(x, 10), tprim, pprim), NCError);
  EXPECT_THROW(HotellingT2(tprim, {variances[0]}), NCError);
  EXPECT_THROW(ScoreVariances(Matrix(0, 5, 0.0f)), NCError);
  EXPECT_THROW(ScoreVariances(MakeMatrix({{1.0, -99, -99}})), NCError);  // one present score
  EXPECT_THROW(ScoreVariances(MakeMatrix({{0.0, 0.0, 0.0}})), NCError);  // no spread
}

}  // namespace
