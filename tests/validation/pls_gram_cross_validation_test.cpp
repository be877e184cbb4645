// PLS cross-validation of complete data on the groups' kept cross products: the products against
// sums formed directly from the residuals, the figures against the fits on the data, and the same
// bits on any number of threads.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pls.h>
#include <mvda/validation/detail/pls_group_grams.h>
#include <mvda/validation/pls_cross_validation.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
using Groups = NCIntegralVector<int, -99>;

// X: three latent directions plus noise; Y (m columns): mixtures of them plus noise. Fixed seed.
void MakeData(int n, int k, int m, unsigned seed, Matrix& x, Matrix& y) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> z;
  std::vector<std::vector<double>> loads(3, std::vector<double>(static_cast<std::size_t>(k)));
  for (auto& v : loads)
    for (double& e : v) e = z(gen);
  x = Matrix(n, k, 0.0f);
  y = Matrix(n, m, 0.0f);
  for (int i = 1; i <= n; ++i) {
    const double t[3] = {3 * z(gen), 2 * z(gen), z(gen)};
    for (int j = 1; j <= k; ++j)
      x(i, j, static_cast<float>(t[0] * loads[0][j - 1] + t[1] * loads[1][j - 1] +
                                 t[2] * loads[2][j - 1] + 0.5 * z(gen)));
    for (int l = 1; l <= m; ++l)
      y(i, l, static_cast<float>(std::cos(l) * t[0] + std::sin(l) * t[1] + 0.3 * t[2] +
                                 0.4 * z(gen)));
  }
}

// Groups of unequal sizes: row i goes to group (i * i) mod g, which fills some groups far more
// than others.
Groups Uneven(int n, int g) {
  std::vector<int> ids(static_cast<std::size_t>(n));
  for (int i = 1; i <= n; ++i) ids[i - 1] = static_cast<int>((static_cast<long>(i) * i) % g);
  return Groups(ids.data(), n);
}

double Gap(const Matrix& a, const Matrix& b) {
  EXPECT_EQ(a.SizeRows(), b.SizeRows());
  EXPECT_EQ(a.SizeColumns(), b.SizeColumns());
  double gap = 0, scale = 0;
  for (int i = 1; i <= std::min(a.SizeRows(), b.SizeRows()); ++i)
    for (int j = 1; j <= std::min(a.SizeColumns(), b.SizeColumns()); ++j) {
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

// The largest difference between the kept products of every group and X_S'X_S, X_S'Y_S, Y_S'Y_S
// summed in long double over the training rows S of the residuals, relative to the largest
// element of each.
double ProductGap(const mvda::detail::PlsGroupGrams& grams, const Matrix& x, const Matrix& y,
                  const Groups& ids, int groups) {
  const int n = x.SizeRows();
  double worst = 0;
  EXPECT_EQ(static_cast<int>(grams.Training().size()), groups);
  for (int g = 0; g < groups && g < static_cast<int>(grams.Training().size()); ++g) {
    const auto& kept = grams.Training()[static_cast<std::size_t>(g)];
    const auto compare = [&](const std::vector<double>& have, const Matrix& a, const Matrix& b) {
      const int p = a.SizeColumns(), q = b.SizeColumns();
      std::vector<long double> want(static_cast<std::size_t>(p) * q, 0.0L);
      for (int i = 1; i <= n; ++i)
        if (ids[i] != g)
          for (int r = 0; r < p; ++r)
            for (int c = 0; c < q; ++c)
              want[static_cast<std::size_t>(r) * q + c] +=
                  static_cast<long double>(a[i][r + 1]) * b[i][c + 1];
      long double scale = 0, gap = 0;
      for (std::size_t e = 0; e < want.size(); ++e) {
        scale = std::max(scale, std::abs(want[e]));
        gap = std::max(gap, std::abs(want[e] - static_cast<long double>(have[e])));
      }
      worst = std::max(worst, static_cast<double>(gap / scale));
    };
    compare(kept.xx, x, x);
    compare(kept.xy, x, y);
    compare(kept.yy, y, y);
  }
  return worst;
}

// Verify with the rows' sums of squares formed here.
bool Verify(mvda::detail::PlsGroupGrams& grams, const Matrix& x, const Matrix& y) {
  std::vector<double> ss;
  for (int i = 1; i <= x.SizeRows(); ++i) {
    double s = 0;
    for (int j = 1; j <= x.SizeColumns(); ++j) s += double(x[i][j]) * x[i][j];
    ss.push_back(s);
  }
  return grams.Verify(x, y, ss);
}

// Deflated component by component, the kept products stay those of the residuals without being
// formed again; residuals that moved by more than the one component they expect fail the check
// and are formed afresh, as are those of a level that skips one, and they match again.
TEST(PlsGroupGrams, FollowTheResidualsThroughDeflationAndReformWhenTheyDoNot) {
  Matrix x0, y0;
  MakeData(240, 11, 3, 3, x0, y0);
  const Groups ids = Uneven(240, 5);
  NCPLS model(&x0, &y0, 200);
  mvda::detail::PlsGroupGrams grams;
  for (int a = 1; a <= 3; ++a) {
    SCOPED_TRACE(a);
    model.NextComponent(nullptr, nullptr, true, true);
    const Matrix x = *model.GetXResiduals(), y = *model.GetYResiduals();
    grams.Update(x, y, ids, 5, a - 1, *model.GetWprim(), *model.GetPprim(), *model.GetCprim());
    EXPECT_TRUE(Verify(grams, x, y));
    EXPECT_EQ(grams.Formations(), 1);
    EXPECT_LT(ProductGap(grams, x, y, ids, 5), 1e-5);
    // A second call at the same level keeps them as they are.
    grams.Update(x, y, ids, 5, a - 1, *model.GetWprim(), *model.GetPprim(), *model.GetCprim());
    EXPECT_TRUE(Verify(grams, x, y));
    EXPECT_EQ(grams.Formations(), 1);
    model.CalculateResiduals();
  }
  // The host deflates and validates out of turn: the residuals are one deflation further than
  // the level says.
  model.NextComponent(nullptr, nullptr, true, true);
  model.CalculateResiduals();
  Matrix x = *model.GetXResiduals(), y = *model.GetYResiduals();
  grams.Update(x, y, ids, 5, 3, *model.GetWprim(), *model.GetPprim(), *model.GetCprim());
  EXPECT_EQ(grams.Formations(), 1);
  EXPECT_FALSE(Verify(grams, x, y));
  EXPECT_EQ(grams.Formations(), 2);
  EXPECT_TRUE(Verify(grams, x, y));
  EXPECT_LT(ProductGap(grams, x, y, ids, 5), 1e-5);
  // A level that skips a deflation.
  model.NextComponent(nullptr, nullptr, true, true);
  model.CalculateResiduals();
  model.NextComponent(nullptr, nullptr, true, true);
  x = *model.GetXResiduals(), y = *model.GetYResiduals();
  grams.Update(x, y, ids, 5, 5, *model.GetWprim(), *model.GetPprim(), *model.GetCprim());
  EXPECT_EQ(grams.Formations(), 3);
  EXPECT_TRUE(Verify(grams, x, y));
  EXPECT_LT(ProductGap(grams, x, y, ids, 5), 1e-5);
  // Another group layout.
  const Groups other = Uneven(240, 4);
  grams.Update(x, y, other, 4, 5, *model.GetWprim(), *model.GetPprim(), *model.GetCprim());
  EXPECT_EQ(grams.Formations(), 4);
  EXPECT_TRUE(Verify(grams, x, y));
  EXPECT_LT(ProductGap(grams, x, y, other, 4), 1e-5);
}

// The host loop on the kept products and on the data, several Y columns and unequal groups: every
// figure agrees to float precision, component after component, and a copy made half-way goes on
// as the original does.
TEST(PlsGramCrossValidation, AgreesWithTheFitsOnTheDataForUnequalGroups) {
  Matrix x, y;
  MakeData(900, 40, 4, 7, x, y);
  const Groups ids = Uneven(900, 7);
  Vector ySS(4, 0.0f);
  for (int m = 1; m <= 4; ++m) ySS(m, static_cast<float>(y.GetColumnSS(m)));
  NCPLS gram(&x, &y, 300), plain(&x, &y, 300);
  plain.SetGramIterations(false);
  PLSCrossValidation onGram(&gram, 7, &ids), onData(&plain, 7, &ids);
  std::vector<PLSCrossValidation> copies;
  for (int a = 1; a <= 4; ++a) {
    SCOPED_TRACE(a);
    gram.NextComponent(nullptr, nullptr, true, true);
    plain.NextComponent(nullptr, nullptr, true, true);
    onGram.NextComponent(&(*gram.GetWprim())[a], 300, ySS, nullptr, true);
    onData.NextComponent(&(*plain.GetWprim())[a], 300, ySS, nullptr, true);
    EXPECT_TRUE(gram.IsFittingOnGram());
    EXPECT_LT(Gap(*onGram.GetWSet(), *onData.GetWSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetCSet(), *onData.GetCSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetPSet(), *onData.GetPSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetTSet(), *onData.GetTSet()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetTPred(), *onData.GetTPred()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetYPredResiduals(), *onData.GetYPredResiduals()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetSSY(), *onData.GetSSY()), 1e-4);
    EXPECT_LT(Gap(*onGram.GetQ2YVar(), *onData.GetQ2YVar()), 1e-4);
    EXPECT_NEAR(onGram.GetQ2Tot(), onData.GetQ2Tot(), 1e-5);
    EXPECT_NEAR(onGram.GetQ2TotCum(), onData.GetQ2TotCum(), 1e-5);
    if (a == 2) copies.push_back(onGram);
    if (a > 2) {
      // The copy validates the same component of the same model; it must not see the original's
      // products deflated past its own.
      copies.front().NextComponent(&(*gram.GetWprim())[a], 300, ySS, nullptr, true);
      EXPECT_TRUE(*copies.front().GetYPredResiduals() == *onGram.GetYPredResiduals());
      EXPECT_EQ(copies.front().GetQ2TotCum(), onGram.GetQ2TotCum());
    }
    gram.CalculateResiduals();
    plain.CalculateResiduals();
  }
  EXPECT_GT(onGram.GetQ2TotCum(), 0.5f);
}

// A host that deflates before validating, or skips a component, gets the fits of the residuals it
// has, as on the data. (Validated after its own deflation, a component leaves the sub-models
// nothing along w, so their weights and signs are arbitrary: only the predictions are compared.)
TEST(PlsGramCrossValidation, OutOfTurnValidationFollowsTheResiduals) {
  Matrix x, y;
  MakeData(500, 30, 3, 9, x, y);
  const Vector ySS(3, 1.0f);
  NCPLS gram(&x, &y, 300), plain(&x, &y, 300);
  plain.SetGramIterations(false);
  PLSCrossValidation onGram(&gram, 7, nullptr), onData(&plain, 7, nullptr);
  for (int a = 1; a <= 4; ++a) {
    SCOPED_TRACE(a);
    gram.NextComponent(nullptr, nullptr, true, true);
    plain.NextComponent(nullptr, nullptr, true, true);
    if (a == 2) {
      gram.CalculateResiduals();
      plain.CalculateResiduals();
    }
    if (a != 3) {
      onGram.NextComponent(&(*gram.GetWprim())[a], 300, ySS, nullptr, true);
      onData.NextComponent(&(*plain.GetWprim())[a], 300, ySS, nullptr, true);
      if (a != 2) {
        EXPECT_LT(Gap(*onGram.GetWSet(), *onData.GetWSet()), 1e-4);
        EXPECT_LT(Gap(*onGram.GetTSet(), *onData.GetTSet()), 1e-4);
      }
      EXPECT_LT(Gap(*onGram.GetYPredResiduals(), *onData.GetYPredResiduals()), 1e-4);
      EXPECT_NEAR(onGram.GetQ2Tot(), onData.GetQ2Tot(), 1e-5);
    }
    if (a != 2) {
      gram.CalculateResiduals();
      plain.CalculateResiduals();
    }
  }
}

// The same bits with threading off and on, for data large enough that the products are formed in
// single precision by blocks and the groups run on several threads.
TEST(PlsGramCrossValidation, ThreadCountDoesNotChangeResults) {
  Matrix x, y;
  MakeData(2600, 130, 3, 11, x, y);
  const Groups ids = Uneven(2600, 7);
  const Vector ySS(3, 1.0f);
  using Control = NCMultiThreading::ThreadingControl;
  std::vector<std::vector<PLSCrossValidation>> runs(2);
  for (const int threads : {1, 4}) {
    Control::SetNumberOfProcessors(threads);
    Control::SetThreadingIsOn(threads > 1);
    NCPLS model(&x, &y, 100);
    PLSCrossValidation cv(&model, 7, &ids);
    for (int a = 1; a <= 3; ++a) {
      model.NextComponent(nullptr, nullptr, true, true);
      cv.NextComponent(&model.GetWprim()->back(), 100, ySS, nullptr, true);
      runs[threads > 1].push_back(cv);
      model.CalculateResiduals();
    }
  }
  Control::Reset();
  using CV = PLSCrossValidation;
  for (int a = 0; a < 3; ++a) {
    SCOPED_TRACE(a + 1);
    const CV &one = runs[0][a], &four = runs[1][a];
    for (const auto get :
         {&CV::GetWSet, &CV::GetCSet, &CV::GetPSet, &CV::GetTSet, &CV::GetYPredResiduals})
      EXPECT_TRUE(*(one.*get)() == *(four.*get)());
    for (const auto get :
         {&CV::GetTPred, &CV::GetQ2YVar, &CV::GetQ2YVarCum, &CV::GetSSY, &CV::GetSSYOriginal})
      EXPECT_TRUE(*(one.*get)() == *(four.*get)());
    EXPECT_EQ(one.GetQ2Tot(), four.GetQ2Tot());
    EXPECT_EQ(one.GetQ2TotCum(), four.GetQ2TotCum());
  }
}

}  // namespace
