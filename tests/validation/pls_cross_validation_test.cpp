#include <mvda/containers/data_matrix.h>
#include <mvda/models/pls.h>
#include <mvda/platform/error.h>
#include <mvda/validation/cv_groups.h>
#include <mvda/validation/pls_cross_validation.h>
#include <mvda/validation/significance.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/csv.h"          // ReadCsv("name.csv"): the embedded datasets under data/
#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
using Rows = std::vector<std::vector<double>>;  // row-major

Matrix ToMatrix(const Rows& rows) {
  Matrix m(static_cast<int>(rows.size()), static_cast<int>(rows[0].size()), 0.0f);
  for (int i = 1; i <= m.SizeRows(); ++i)
    for (int j = 1; j <= m.SizeColumns(); ++j) m(i, j, static_cast<float>(rows[i - 1][j - 1]));
  return m;
}

Rows ToRows(const Matrix& m) {
  Rows rows;
  for (const Vector& row : m) rows.push_back(ToStd(row));
  return rows;
}

// The first n rows of the diabetes data (Efron et al. 2004), each column centred and scaled to
// unit variance and rounded to float: ten predictors in x, the disease progression in y.
void Diabetes(int n, Rows& x, Rows& y) {
  const CsvTable table = ReadCsv("diabetes.csv");
  x.assign(n, {});
  y.assign(n, {});
  for (int j = 1; j < static_cast<int>(table.header.size()); ++j) {  // column 0 names patients
    double mean = 0, ss = 0;
    for (int i = 0; i < n; ++i) mean += table.Number(i, j) / n;
    for (int i = 0; i < n; ++i) ss += std::pow(table.Number(i, j) - mean, 2);
    for (int i = 0; i < n; ++i)
      (table.header[j] == "Progression" ? y : x)[i].push_back(
          static_cast<float>((table.Number(i, j) - mean) / std::sqrt(ss / (n - 1))));
  }
}

// Leave-group-out for one PLS1 component in plain double NIPALS, observation i (1-based) in group
// i mod G: on the training rows w = X'y / |X'y|, t = X w, c = y't / t't; a left-out row x scores
// t = x'w and is predicted t c.
struct Pls1Oracle {
  std::vector<double> tPred, residual;
  Rows w;  // per group
  double press = 0, ss = 0;

  Pls1Oracle(const Rows& x, const Rows& y, int groups) : tPred(x.size()), residual(x.size()) {
    const std::size_t n = x.size(), k = x[0].size();
    for (int g = 0; g < groups; ++g) {
      const auto out = [&](std::size_t i) { return static_cast<int>((i + 1) % groups) == g; };
      std::vector<double> wg(k, 0.0);
      double norm = 0, tt = 0, yt = 0;
      for (std::size_t j = 0; j < k; ++j) {
        for (std::size_t i = 0; i < n; ++i) wg[j] += out(i) ? 0 : x[i][j] * y[i][0];
        norm += wg[j] * wg[j];
      }
      for (double& e : wg) e /= std::sqrt(norm);
      for (std::size_t i = 0; i < n; ++i) {
        double t = 0;
        for (std::size_t j = 0; j < k; ++j) t += x[i][j] * wg[j];
        if (out(i))
          tPred[i] = t;
        else
          tt += t * t, yt += y[i][0] * t;
      }
      for (std::size_t i = 0; i < n; ++i)
        if (out(i)) residual[i] = y[i][0] - tPred[i] * yt / tt;
      w.push_back(wg);
    }
    for (std::size_t i = 0; i < n; ++i) press += residual[i] * residual[i], ss += y[i][0] * y[i][0];
  }
};

// Two components of a PLS1 model of 40 patients, 7 groups: scores, prediction residuals, weights,
// PRESS and Q2 match the oracle run on the model's residuals, and the cumulative Q2 compounds as
// 1 - (1 - previous) PRESS / SS.
TEST(PlsCrossValidation, SingleResponseMatchesLeaveGroupOutOracle) {
  Rows x, y;
  Diabetes(40, x, y);
  const Matrix xm = ToMatrix(x), ym = ToMatrix(y);
  NCPLS model(&xm, &ym, 100);
  PLSCrossValidation cv(&model, 7, nullptr);
  double cumulative = 0;
  for (int a = 1; a <= 2; ++a) {
    SCOPED_TRACE(a);
    const Pls1Oracle oracle(ToRows(*model.GetXResiduals()), ToRows(*model.GetYResiduals()), 7);
    model.NextComponent(nullptr, nullptr, true, true);
    cv.NextComponent(&(*model.GetWprim())[a], 100, MakeVector<float>({39}), nullptr, true);
    for (int i = 1; i <= 40; ++i) {
      EXPECT_NEAR((*cv.GetTPred())[i], oracle.tPred[i - 1], 6e-5) << i;
      EXPECT_NEAR((*cv.GetYPredResiduals())[i][1], oracle.residual[i - 1], 6e-5) << i;
    }
    for (int g = 1; g <= 7; ++g)  // the full model's w, like the oracle's, points along X'y
      for (int j = 1; j <= 10; ++j)
        EXPECT_NEAR((*cv.GetWSet())[g][j], oracle.w[g - 1][j - 1], 2e-5);
    cumulative = 1 - (1 - cumulative) * std::min(oracle.press / oracle.ss, 1.1);
    EXPECT_NEAR(cv.GetQ2Tot(), 1 - oracle.press / oracle.ss, 1e-5);
    EXPECT_NEAR((*cv.GetQ2YVar())[1], 1 - oracle.press / oracle.ss, 1e-5);
    EXPECT_NEAR(cv.GetQ2TotCum(), cumulative, 1e-5);
    EXPECT_NEAR((*cv.GetQ2YVarCum())[1], cumulative, 1e-5);
    model.CalculateResiduals();
  }
  EXPECT_GT(cumulative, 0.2);  // the data do predict progression
}

// A host that flips the component hands over the flipped w, while every sub-model still comes out
// along X'y: the sets are turned round to match w, TPred keeps each sub-model's own sign.
TEST(PlsCrossValidation, SetsFollowTheModelsSignButTPredKeepsTheSubModels) {
  Rows x, y;
  Diabetes(30, x, y);
  const Matrix xm = ToMatrix(x), ym = ToMatrix(y);
  NCPLS model(&xm, &ym, 100);
  model.NextComponent(nullptr, nullptr, true, true);
  model.FlipComponent(1);
  const Vector& w = (*model.GetWprim())[1];
  PLSCrossValidation cv(&model, 5, nullptr);
  cv.NextComponent(&w, 100, MakeVector<float>({29}), nullptr, true);
  const Pls1Oracle oracle(x, y, 5);
  for (int g = 1; g <= 5; ++g) {
    SCOPED_TRACE(g);
    EXPECT_GT((*cv.GetWSet())[g] * w, 0);
    EXPECT_LT((*cv.GetCSet())[g][1], 0);                 // y't / t't < 0 for t along -X'y
    for (int i = g == 1 ? 5 : g - 1; i <= 30; i += 5) {  // group g - 1
      EXPECT_NEAR((*cv.GetTPred())[i], oracle.tPred[i - 1], 1e-4) << i;
      EXPECT_EQ((*cv.GetTSet())[g][i], -(*cv.GetTPred())[i]) << i;
    }
  }
}

// 7 groups asked of 5 observations: 5 groups, each observation alone in group i mod 5.
TEST(PlsCrossValidation, NoMoreGroupsThanObservations) {
  const Matrix x = ToMatrix({{1, 2}, {2, 1}, {-1, 0}, {0, -2}, {-2, -1}});
  const Matrix y = ToMatrix({{1}, {1}, {-1}, {0}, {-1}});
  NCPLS model(&x, &y, 50);
  model.NextComponent(nullptr, nullptr, true, true);
  PLSCrossValidation cv(&model, 7, nullptr);
  EXPECT_EQ(cv.GetNumberOfGroups(), 5);
  EXPECT_EQ(*cv.GetGroupIds(), GetDeafultCVGroupsVector(5, 5));
  cv.NextComponent(&(*model.GetWprim())[1], 50, MakeVector<float>({4}), nullptr, true);
  EXPECT_EQ(cv.GetTSet()->SizeRows(), 5);
  EXPECT_EQ(cv.GetSSY()->Size(), 5);
  EXPECT_EQ(cv.GetYPredResiduals()->GetNumMisVal(), 0);  // each observation predicted once
}

// A Y column without variance: Q2 0, and a cumulative Q2 of 1 exactly when its initial sum of
// squares was at least 1.1754944e-37.
TEST(PlsCrossValidation, ColumnWithoutVarianceCountsAsExplainedIfItHadSome) {
  Rows x, y;
  Diabetes(21, x, y);
  for (auto& row : y) row.push_back(0.0);
  const Matrix xm = ToMatrix(x), ym = ToMatrix(y);
  NCPLS model(&xm, &ym, 100);
  model.NextComponent(nullptr, nullptr, true, true);
  for (const auto& [initial, cumulative] :
       {std::pair{5.0f, 1.0f}, {1.1754944e-37f, 1.0f}, {1e-37f, 0.0f}, {-99.0f, 0.0f}}) {
    SCOPED_TRACE(initial);
    PLSCrossValidation cv(&model, 7, nullptr);
    cv.NextComponent(&(*model.GetWprim())[1], 100, MakeVector<float>({20, initial}), nullptr, true);
    EXPECT_EQ((*cv.GetQ2YVar())[2], 0.0f);
    EXPECT_EQ((*cv.GetQ2YVarCum())[2], cumulative);
    EXPECT_GT((*cv.GetQ2YVar())[1], 0.0f);
  }
}

// Noise for Y: leave-one-out predicts worse than nothing, and the cumulative Q2 (continued from
// 0.6 and 0.5) falls as if PRESS were 1.1 SS.
TEST(PlsCrossValidation, OnePoorComponentCostsAtMostATenthOfWhatRemains) {
  std::mt19937 gen(4);
  std::normal_distribution<double> z;
  Rows x(12, std::vector<double>(3)), y(12, std::vector<double>(1));
  for (int i = 0; i < 12; ++i) x[i] = {z(gen), z(gen), z(gen)}, y[i][0] = z(gen);
  const Pls1Oracle oracle(x, y, 12);
  ASSERT_GT(oracle.press, 1.1 * oracle.ss);  // the premise
  const Matrix xm = ToMatrix(x), ym = ToMatrix(y);
  NCPLS model(&xm, &ym, 100);
  model.NextComponent(nullptr, nullptr, true, true);
  PLSCrossValidation cv(&model, 0.6f, MakeVector<float>({0.5}), 12, nullptr);
  cv.NextComponent(&(*model.GetWprim())[1], 100, MakeVector<float>({11}), nullptr, true);
  EXPECT_NEAR(cv.GetQ2Tot(), 1 - oracle.press / oracle.ss, 1e-4);
  EXPECT_NEAR(cv.GetQ2TotCum(), 1 - 0.4 * 1.1, 1e-6);
  EXPECT_NEAR((*cv.GetQ2YVarCum())[1], 1 - 0.5 * 1.1, 1e-6);
}

TEST(PlsCrossValidation, SignificanceRulesInTheirOrder) {
  const auto above = [](int m, int count, double value) {  // count elements of value, then 0
    std::vector<double> v(m, 0.0);
    std::fill_n(v.begin(), count, value);
    return MakeVector<float>(v);
  };
  const struct {
    const char* name;
    int n, k, m, a;
    float r2y;
    Vector r2yVar;
    float q2;
    Vector q2Var;
    SignificanceE::Significance expected;
  } cases[] = {
      // min(K, N - 3) = min(10, 9): component 9 is too many whatever Q2 says, 8 is not.
      {"N3", 12, 10, 1, 9, .5f, above(1, 1, .5), .9f, above(1, 1, .9), SignificanceE::N3},
      {"below N3", 12, 10, 1, 8, .5f, above(1, 1, .5), .9f, above(1, 1, .9), SignificanceE::R1},
      {"N3 by K", 50, 4, 1, 4, .5f, above(1, 1, .5), .9f, above(1, 1, .9), SignificanceE::N3},
      {"N4", 50, 10, 3, 1, .009f, above(3, 3, .03), .9f, above(3, 3, .9), SignificanceE::N4},
      {"a column > 3%", 50, 10, 3, 1, .009f, above(3, 1, .031), .9f, above(3, 0, 0),
       SignificanceE::R1},
      {"Q2 = limit", 50, 10, 1, 1, .5f, above(1, 1, .5), .05f, above(1, 0, 0), SignificanceE::NS},
      // round(sqrt 9) = 3, round(sqrt 24) = 5, round(0.2 30) = 6 columns above the limit.
      {"9: 3", 50, 10, 9, 1, .5f, above(9, 1, .5), 0, above(9, 3, .06), SignificanceE::R2},
      {"9: 2", 50, 10, 9, 1, .5f, above(9, 1, .5), 0, above(9, 2, .06), SignificanceE::NS},
      {"24: 5", 50, 10, 24, 1, .5f, above(24, 1, .5), 0, above(24, 5, .06), SignificanceE::R2},
      {"24: 4", 50, 10, 24, 1, .5f, above(24, 1, .5), 0, above(24, 4, .06), SignificanceE::NS},
      {"30: 6", 50, 10, 30, 1, .5f, above(30, 1, .5), 0, above(30, 6, .06), SignificanceE::R2},
      {"30: 5 and one at the limit", 50, 10, 30, 1, .5f, above(30, 1, .5), 0,
       MakeVector<float>({.06, .06, .06, .06, .06, .05, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                          0,   0,   0,   0,   0,   0,   0, 0, 0, 0, 0, 0, 0, 0, 0}),
       SignificanceE::NS},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(PLSCrossValidation::GetSignificance(c.n, c.k, c.m, c.a, c.r2y, c.r2yVar, c.q2,
                                                  c.q2Var, 0.05f),
              c.expected);
  }
  EXPECT_THROW(PLSCrossValidation::GetSignificance(50, 10, 3, 1, .5f, above(2, 0, 0), .1f,
                                                   above(3, 0, 0), .05f),
               NCError);
}

TEST(PlsCrossValidation, LimitIsFivePercentUpToAHundredObservations) {
  for (const int n : {100, 101}) {
    Matrix x(n, 2, 0.0f), y(n, 1, 1.0f);
    NCPLS model(&x, &y, 10);
    EXPECT_EQ(PLSCrossValidation(&model, 7, nullptr).GetQ2Lim(), n == 100 ? 0.05f : 0.0f) << n;
  }
}

TEST(PlsCrossValidation, BadArgumentsThrowAndChangeNothing) {
  Rows x, y;
  Diabetes(14, x, y);
  const Matrix xm = ToMatrix(x), ym = ToMatrix(y);
  NCPLS model(&xm, &ym, 100);
  using Ids = NCIntegralVector<int, -99>;
  const Ids outside(14, 3), allInOne(14, 0);
  EXPECT_THROW(PLSCrossValidation(nullptr, 7, nullptr), NCError);
  EXPECT_THROW(PLSCrossValidation(&model, 3, &outside), NCError);   // codes 0..2 only
  EXPECT_THROW(PLSCrossValidation(&model, 3, &allInOne), NCError);  // nothing left to fit
  PLSCrossValidation cv(&model, 7, nullptr);
  const Vector ss = MakeVector<float>({13});
  EXPECT_THROW(cv.NextComponent(&ss, 100, ss, nullptr, true), NCError);  // no component yet
  model.NextComponent(nullptr, nullptr, true, true);
  const Vector& w = (*model.GetWprim())[1];
  cv.NextComponent(&w, 100, ss, nullptr, true);
  const PLSCrossValidation before = cv;
  EXPECT_THROW(cv.NextComponent(&ss, 100, ss, nullptr, true), NCError);  // w too short
  EXPECT_THROW(cv.NextComponent(&w, 100, MakeVector<float>({1, 1}), nullptr, true), NCError);
  EXPECT_EQ(*cv.GetTSet(), *before.GetTSet());
  EXPECT_EQ(cv.GetQ2TotCum(), before.GetQ2TotCum());
}

// X = T P' of rank two plus a shift per column, Y = T C' + a little noise, seven X cells removed.
// Components 1 and 2 are significant and component 3 explains almost nothing of Y (N4), so the
// cells come from two components: close to the removed values though not exact, a row's score
// being regressed on its present values only. A complete X is left exactly as it was.
TEST(PlsMissingValueEstimator, RefillsLowRankDataAndLeavesCompleteDataAlone) {
  std::mt19937 gen(21);
  std::normal_distribution<double> z;
  Rows xr(40, std::vector<double>(8)), yr(40);
  for (int i = 0; i < 40; ++i) {
    const double t1 = 2 * z(gen), t2 = z(gen);
    for (int j = 0; j < 8; ++j) xr[i][j] = t1 * std::cos(j) + t2 * std::sin(3.0 * j) + 5 * j;
    yr[i] = {t1 + 0.01 * z(gen), t2 - t1 + 0.01 * z(gen)};
  }
  const std::vector<std::pair<int, int>> removed = {{1, 2},  {5, 7},  {9, 1}, {17, 4},
                                                    {30, 8}, {31, 8}, {40, 3}};
  for (const bool scale : {true, false}) {
    SCOPED_TRACE(scale ? "scaled here" : "centred by the caller");
    Matrix complete = ToMatrix(xr), y = ToMatrix(yr);
    for (Matrix* m : {&complete, &y})
      for (int j = 1; j <= m->SizeColumns() && !scale; ++j)
        m->SubtractFromColumn(j, static_cast<float>(m->GetColumnMean(j)));
    Matrix x = complete;
    for (const auto& [i, j] : removed) x(i, j, -99.0f);
    const Matrix gappy = x, yBefore = y;
    PLSMissingValueEstimator(x, y, scale, nullptr);
    EXPECT_EQ(y, yBefore);
    double error = 0, meanError = 0;  // squared; against filling in column means
    for (const auto& [i, j] : removed) {
      const double truth = complete[i][j], mean = static_cast<double>(complete.GetColumnMean(j));
      EXPECT_NEAR(x[i][j], truth, 0.2 * static_cast<double>(complete.GetColumnStdDev(j)));
      error += std::pow(x[i][j] - truth, 2);
      meanError += std::pow(mean - truth, 2);
      x(i, j, complete[i][j]);
    }
    EXPECT_LT(error, 0.02 * meanError);
    EXPECT_EQ(x, complete);  // every present cell as it was

    if (!scale) {  // the two-component reconstruction t1 p1 + t2 p2, not three components
      x = gappy;
      PLSMissingValueEstimator(x, y, false, nullptr);
      NCPLS model(&gappy, &y, 200);
      for (int a = 1; a <= 2; ++a) {
        model.NextComponent(nullptr, nullptr, true, true);
        model.CalculateResiduals();
      }
      for (const auto& [i, j] : removed)
        EXPECT_NEAR(x[i][j],
                    (*model.GetTprim())[1][i] * (*model.GetPprim())[1][j] +
                        (*model.GetTprim())[2][i] * (*model.GetPprim())[2][j],
                    1e-5);
    }
    Matrix untouched = complete;
    PLSMissingValueEstimator(untouched, y, scale, nullptr);
    EXPECT_EQ(untouched, complete);
  }
  Matrix x(5, 3, 1.0f), y(4, 1, 1.0f);
  x(1, 1, -99.0f);
  EXPECT_THROW(PLSMissingValueEstimator(x, y, false, nullptr), NCError);  // rows differ
  EXPECT_EQ(x[1][1], -99.0f);
}

}  // namespace
