// Cross-validation of complete data on Gram matrices against the fits on the data, driven as a host
// drives it: every figure the host reads must agree to float precision.
#include <mvda/containers/data_matrix.h>
#include <mvda/models/pca.h>
#include <mvda/models/pls.h>
#include <mvda/platform/progress.h>
#include <mvda/validation/pca_cross_validation.h>
#include <mvda/validation/pls_cross_validation.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;

// Five latent directions, singular values falling by 0.75, plus noise; fixed seed.
Matrix Latent(int rows, int cols, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> normal(0, 1);
  std::vector<std::vector<double>> a(5, std::vector<double>(rows)), b(5, std::vector<double>(cols));
  for (auto& v : a)
    for (double& x : v) x = normal(gen);
  for (auto& v : b)
    for (double& x : v) x = normal(gen);
  Matrix x(rows, cols, 0.0f);
  for (int i = 0; i < rows; ++i)
    for (int j = 0; j < cols; ++j) {
      double value = 0.3 * normal(gen);
      for (int k = 0; k < 5; ++k) value += std::pow(0.75, k) * a[k][i] * b[k][j];
      x(i + 1, j + 1, static_cast<float>(value));
    }
  return x;
}

// Counts the iterations the group fits report (SetRange after the first, SetValue after others).
class Counter : public NCProgress {
 public:
  void SetRange(double min, double max) override {
    ++calls;
    NCProgress::SetRange(min, max);
  }
  bool SetValue(double value) override {
    ++calls;
    return NCProgress::SetValue(value);
  }
  int calls = 0;
};

double Gap(const Matrix& a, const Matrix& b) {
  EXPECT_EQ(a.SizeRows(), b.SizeRows());
  EXPECT_EQ(a.SizeColumns(), b.SizeColumns());
  double gap = 0, scale = 0;
  for (int i = 1; i <= b.SizeRows(); ++i)
    for (int j = 1; j <= b.SizeColumns(); ++j) {
      gap = std::max(gap, std::abs(double(a[i][j]) - b[i][j]));
      scale = std::max(scale, std::abs(double(b[i][j])));
    }
  return gap / std::max(scale, 1e-30);
}

double Gap(const Vector& a, const Vector& b) {
  Matrix x(0, a.Size(), 0.0f), y(0, b.Size(), 0.0f);
  x.push_back(a);
  y.push_back(b);
  return Gap(x, y);
}

// The host loop on both paths: fit, validate, deflate, component after component.
TEST(GramCrossValidation, PcaAgreesWithTheFitsOnTheData) {
  const Matrix x = Latent(700, 45, 21);
  Vector reference(45, 0.0f);
  for (int j = 1; j <= 45; ++j) reference(j, static_cast<float>(x.GetColumnSS(j)));
  NCPCA gram(&x, 500), plain(&x, 500);
  plain.SetGramIterations(false);
  float cumGram = 0, cumPlain = 0;
  Vector varGram(45, 0.0f), varPlain(45, 0.0f);
  for (int a = 1; a <= 4; ++a) {
    SCOPED_TRACE(a);
    gram.NextComponent(nullptr, nullptr, 0, nullptr);
    plain.NextComponent(nullptr, nullptr, 0, nullptr);
    PCACrossValidation onGram(&gram, cumGram, varGram, 7, nullptr, nullptr);
    PCACrossValidation onData(&plain, cumPlain, varPlain, 7, nullptr, nullptr);
    Counter countGram, countData;
    onGram.NextComponent(reference, &countGram);
    onData.NextComponent(reference, &countData);
    EXPECT_TRUE(gram.IsFittingOnGram());
    // A fit of at most 5 to 7 iterations rarely ends near the threshold; allow one per group fit.
    EXPECT_NEAR(countGram.calls, countData.calls, 2);
    EXPECT_LT(Gap(*onGram.GetPSet(), *onData.GetPSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetTSet(), *onData.GetTSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetXPredResiduals(), *onData.GetXPredResiduals()), 1e-4);
    EXPECT_NEAR(onGram.GetQ2Tot(), onData.GetQ2Tot(), 1e-5);
    EXPECT_LT(Gap(*onGram.GetQ2XVar(), *onData.GetQ2XVar()), 1e-4);
    cumGram = onGram.GetQ2TotCum();
    cumPlain = onData.GetQ2TotCum();
    EXPECT_NEAR(cumGram, cumPlain, 1e-5);
    varGram = *onGram.GetQ2XVarCum();
    varPlain = *onData.GetQ2XVarCum();
    gram.CalculateResiduals();
    plain.CalculateResiduals();
  }
  EXPECT_GT(cumGram, 0.5f);  // the latent structure is predictable
}

TEST(GramCrossValidation, PlsAgreesWithTheFitsOnTheData) {
  const Matrix x = Latent(800, 30, 22);
  std::mt19937 gen(5);
  std::normal_distribution<double> normal(0, 1);
  Matrix y(800, 3, 0.0f);
  for (int i = 1; i <= 800; ++i)
    for (int m = 1; m <= 3; ++m)
      y(i, m, static_cast<float>(x[i][m] + 0.5 * x[i][m + 5] + 0.2 * normal(gen)));
  Vector ySS(3, 0.0f);
  for (int m = 1; m <= 3; ++m) ySS(m, static_cast<float>(y.GetColumnSS(m)));
  NCPLS gram(&x, &y, 200), plain(&x, &y, 200);
  plain.SetGramIterations(false);
  PLSCrossValidation onGram(&gram, 7, nullptr), onData(&plain, 7, nullptr);
  for (int a = 1; a <= 3; ++a) {
    SCOPED_TRACE(a);
    gram.NextComponent(nullptr, nullptr, true, true);
    plain.NextComponent(nullptr, nullptr, true, true);
    onGram.NextComponent(&(*gram.GetWprim())[a], 200, ySS, nullptr, true);
    onData.NextComponent(&(*plain.GetWprim())[a], 200, ySS, nullptr, true);
    EXPECT_TRUE(gram.IsFittingOnGram());
    EXPECT_LT(Gap(*onGram.GetWSet(), *onData.GetWSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetCSet(), *onData.GetCSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetPSet(), *onData.GetPSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetTSet(), *onData.GetTSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetTPred(), *onData.GetTPred()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetYPredResiduals(), *onData.GetYPredResiduals()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetSSY(), *onData.GetSSY()), 1e-4);
    EXPECT_NEAR(onGram.GetQ2Tot(), onData.GetQ2Tot(), 1e-5);
    EXPECT_NEAR(onGram.GetQ2TotCum(), onData.GetQ2TotCum(), 1e-5);
    gram.CalculateResiduals();
    plain.CalculateResiduals();
  }
  EXPECT_GT(onGram.GetQ2TotCum(), 0.5f);
}

}  // namespace
