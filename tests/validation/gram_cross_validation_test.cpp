// Cross-validation of complete data on Gram matrices against the fits on the data, driven as a host
// drives it: every figure the host reads must agree to float precision.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
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
#include <omp.h>

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

// The host loop on both paths: fit, validate, deflate, component after component. The left-out
// scores and cells of the Gram path are read only after the model has been deflated, when they
// must still be those of the residuals the component was validated on.
void ExpectPcaPathsAgree(const Matrix& x, int components) {
  const int cols = x.SizeColumns();
  Vector reference(cols, 0.0f);
  for (int j = 1; j <= cols; ++j) reference(j, static_cast<float>(x.GetColumnSS(j)));
  NCPCA gram(&x, 500), plain(&x, 500);
  plain.SetGramIterations(false);
  float cumGram = 0, cumPlain = 0;
  Vector varGram(cols, 0.0f), varPlain(cols, 0.0f);
  for (int a = 1; a <= components; ++a) {
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
    EXPECT_NEAR(onGram.GetQ2Tot(), onData.GetQ2Tot(), 1e-5);
    EXPECT_LT(Gap(*onGram.GetQ2XVar(), *onData.GetQ2XVar()), 1e-4);
    cumGram = onGram.GetQ2TotCum();
    cumPlain = onData.GetQ2TotCum();
    EXPECT_NEAR(cumGram, cumPlain, 1e-5);
    EXPECT_EQ(cumGram > onGram.GetQ2Lim(a, false), cumPlain > onData.GetQ2Lim(a, false));
    varGram = *onGram.GetQ2XVarCum();
    varPlain = *onData.GetQ2XVarCum();
    EXPECT_LT(Gap(varGram, varPlain), 1e-4);
    gram.CalculateResiduals();
    plain.CalculateResiduals();
    gram.GetResiduals();                    // the model's residuals are now written
    const PCACrossValidation copy(onGram);  // forms its own
    EXPECT_LT(Gap(*copy.GetTSet(), *onData.GetTSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetTSet(), *onData.GetTSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetXPredResiduals(), *onData.GetXPredResiduals()), 1e-4);
    EXPECT_EQ(*copy.GetXPredResiduals(), *onGram.GetXPredResiduals());
  }
}

TEST(GramCrossValidation, PcaAgreesWithTheFitsOnTheData) {
  {
    SCOPED_TRACE("700 x 45");
    ExpectPcaPathsAgree(Latent(700, 45, 21), 4);
  }
  {
    // N K^2 above 2^25: the group Gram matrices are formed in single precision.
    SCOPED_TRACE("2400 x 120");
    ExpectPcaPathsAgree(Latent(2400, 120, 23), 3);
  }
  {
    // Noise alone: Q2 near or below 0, where the cumulative figure is clipped.
    SCOPED_TRACE("random");
    std::mt19937 gen(3);
    std::normal_distribution<float> normal(0, 1);
    Matrix x(400, 30, 0.0f);
    for (int i = 1; i <= 400; ++i)
      for (int j = 1; j <= 30; ++j) x(i, j, normal(gen));
    ExpectPcaPathsAgree(x, 3);
  }
  {
    // Wide models fit on E E'; their cross-validation runs on the residuals they form.
    SCOPED_TRACE("60 x 150");
    ExpectPcaPathsAgree(Latent(60, 150, 24), 3);
  }
}

// The first figures by hand: PRESS and SS summed over the cells predicted from the sets the
// validation reports, on a model whose component 1 is known.
TEST(GramCrossValidation, PcaQ2IsOneLessPressOverSS) {
  const Matrix x = Latent(300, 20, 25);
  NCPCA model(&x, 500);
  model.NextComponent(nullptr, nullptr, 0, nullptr);
  PCACrossValidation cv(&model, 7, nullptr, nullptr);
  cv.NextComponent(Vector(20, 1.0f), nullptr);
  ASSERT_TRUE(model.IsFittingOnGram());
  const Matrix& P = *cv.GetPSet();
  const Matrix& T = *cv.GetTSet();
  double press = 0, ss = 0;
  for (int i = 1; i <= 300; ++i)
    for (int j = 1; j <= 20; ++j) {
      // Default groups: element i in group i mod 7.
      const double e = x[i][j], r = e - double(T[j % 7 + 1][i]) * P[i % 7 + 1][j];
      press += r * r;
      ss += e * e;
    }
  EXPECT_NEAR(cv.GetQ2Tot(), 1 - press / ss, 1e-5);
  EXPECT_GT(cv.GetQ2Tot(), 0.3f);
}

// The group fits and the group sums run on the library's team; every figure must come out the
// same bits for any team, on E'E and on E E'.
TEST(GramCrossValidation, PcaSameBitsForAnyTeam) {
  using NCMultiThreading::ThreadingControl;
  const int processors = ThreadingControl::GetNumberOfProcessors();
  const bool on = ThreadingControl::IsThreadingOn();
  omp_set_dynamic(0);
  for (const Matrix& x : {Latent(2400, 120, 26), Latent(60, 700, 26)}) {
    SCOPED_TRACE(x.SizeRows());
    const auto validate = [&] {
      NCPCA model(&x, 500);
      std::vector<PCACrossValidation> runs;
      for (int a = 1; a <= 3; ++a) {
        model.NextComponent(nullptr, nullptr, 0, nullptr);
        runs.emplace_back(&model, 7, nullptr, nullptr);
        runs.back().NextComponent(Vector(x.SizeColumns(), 1.0f), nullptr);
        model.CalculateResiduals();
      }
      return runs;
    };
    ThreadingControl::SetThreadingIsOn(false);
    const std::vector<PCACrossValidation> reference = validate();
    for (const int team : {2, 3}) {
      SCOPED_TRACE(team);
      ThreadingControl::SetNumberOfProcessors(team);
      ThreadingControl::SetThreadingIsOn(true);
      const std::vector<PCACrossValidation> runs = validate();
      for (std::size_t a = 0; a < runs.size(); ++a) {
        EXPECT_EQ(runs[a].GetQ2Tot(), reference[a].GetQ2Tot());
        EXPECT_EQ(*runs[a].GetQ2XVar(), *reference[a].GetQ2XVar());
        EXPECT_EQ(*runs[a].GetPSet(), *reference[a].GetPSet());
        EXPECT_EQ(*runs[a].GetTSet(), *reference[a].GetTSet());
        EXPECT_EQ(*runs[a].GetXPredResiduals(), *reference[a].GetXPredResiduals());
      }
    }
  }
  omp_set_dynamic(1);
  ThreadingControl::SetNumberOfProcessors(processors);
  ThreadingControl::SetThreadingIsOn(on);
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
