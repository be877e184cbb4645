#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pls.h>
#include <mvda/models/pls_pred.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/progress.h>
#include <mvda/validation/cv_groups.h>
#include <mvda/validation/pls_cross_validation.h>
#include <mvda/validation/significance.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <utility>
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

// X (n x 7) and Y (n x m) driven by two latent directions plus noise: t1 with spread s, t2 with
// spread 1, Y column j by t1 for odd j and by t2 for even j, plus `mixed` j t2 (without it, and
// with s = 1, the two directions compete and NIPALS takes many iterations to choose). Gaps: X row
// 5 lacks everything (no score can be predicted for it), row 8 all but column 1 (its score is
// divided by a third of w'w rather than by w_1^2), X column 7 is present only in the rows of group
// 0 of three (its sub-model has no weight there), and a few single cells of X and Y are missing.
void Gappy(int n, int m, double s, double mixed, unsigned seed, Matrix& x, Matrix& y) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> z;
  x = Matrix(n, 7, 0.0f), y = Matrix(n, m, 0.0f);
  for (int i = 1; i <= n; ++i) {
    const double t1 = s * z(gen), t2 = z(gen);
    for (int j = 1; j <= 7; ++j)
      x(i, j, static_cast<float>(t1 * std::cos(j) + t2 * std::sin(2.0 * j) + 0.3 * z(gen)));
    for (int j = 1; j <= m; ++j)
      y(i, j, static_cast<float>((j % 2 ? t1 : t2) + mixed * j * t2 + 0.5 * z(gen)));
    if (i % 3 != 0) x(i, 7, -99.0f);
  }
  for (int j = 1; j <= 7; ++j) x(5, j, -99.0f);
  for (int j = 2; j <= 6; ++j) x(8, j, -99.0f);
  x(2, 3, -99.0f), x(11, 1, -99.0f), x(20, 6, -99.0f), y(4, 1, -99.0f), y(n, m, -99.0f);
}

// The largest |expected - actual| relative to the largest |expected|; infinite where one of a pair
// is missing and the other is not.
double Deviation(const Vector& expected, const Vector& actual) {
  if (expected.Size() != actual.Size()) return std::numeric_limits<double>::infinity();
  double largest = 0, deviation = 0;
  for (int i = 1; i <= expected.Size(); ++i) {
    if ((expected[i] == -99.0f) != (actual[i] == -99.0f))
      return std::numeric_limits<double>::infinity();
    if (expected[i] == -99.0f) continue;
    largest = std::max(largest, std::fabs(double(expected[i])));
    deviation = std::max(deviation, std::fabs(double(expected[i]) - actual[i]));
  }
  return deviation / std::max(largest, 1e-30);
}

// Every result of the latest component and the cumulative Q2, to the bit.
void ExpectSame(const PLSCrossValidation& a, const PLSCrossValidation& b) {
  using CV = PLSCrossValidation;
  for (const auto get :
       {&CV::GetWSet, &CV::GetCSet, &CV::GetPSet, &CV::GetTSet, &CV::GetYPredResiduals})
    EXPECT_TRUE(*(a.*get)() == *(b.*get)());
  for (const auto get :
       {&CV::GetTPred, &CV::GetQ2YVar, &CV::GetQ2YVarCum, &CV::GetSSY, &CV::GetSSYOriginal})
    EXPECT_TRUE(*(a.*get)() == *(b.*get)());
  EXPECT_EQ(a.GetQ2Tot(), b.GetQ2Tot());
  EXPECT_EQ(a.GetQ2TotCum(), b.GetQ2TotCum());
}

// Records texts and ranges; SetRange throws from call `throwAt` on (0: never).
class RecordingProgress : public NCProgress {
 public:
  explicit RecordingProgress(int throwAt = 0) : throw_at_(throwAt) {}
  void SetRange(double min, double max) override {
    ranges.emplace_back(min, max);
    if (throw_at_ > 0 && static_cast<int>(ranges.size()) >= throw_at_)
      throw NCError("host failure", NCError::kStopRequested);
  }
  void SetText(const std::string& text) override { texts.push_back(text); }
  bool SetValue(double) override { return ++values, true; }
  std::vector<std::pair<double, double>> ranges;
  std::vector<std::string> texts;
  int values = 0;

 private:
  int throw_at_;
};

// The groups are fitted together, each to its own stop, and must give what one NCPLS sub-model
// per group on the training rows and an NCPLSPred of the group give, fitted one after another as
// the cross-validation once did: sets (sign-aligned with w), scores, predictions, sums of squares
// and the range each fit reports after its first iteration, to rounding. Three Y columns (the
// start from w's scores) on the first component and on the deflated residuals, one Y column (the
// start from that column, its gap filled), an iteration limit that stops the fits before they
// converge, and two Y columns that compete for the component, where the groups need 6 to 19
// iterations. (A component that Y hardly determines would magnify the rounding beyond any
// tolerance.)
TEST(PlsCrossValidation, GroupFitsMatchSubModelsFittedOneAfterAnother) {
  const struct {
    const char* name;
    int m, limit, component;
    bool apart;  // the groups need different numbers of iterations
    double s, mixed;
  } cases[] = {{"three Y", 3, 100, 1, true, 2, 0.5},
               {"three Y, second component", 3, 100, 2, false, 2, 0.5},
               {"one Y", 1, 100, 1, false, 2, 0.5},
               {"limit 2", 3, 2, 1, false, 2, 0.5},
               {"competing directions", 2, 100, 1, true, 1, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Matrix xm, ym;
    Gappy(30, c.m, c.s, c.mixed, 7, xm, ym);
    NCPLS model(&xm, &ym, 100);
    for (int a = 1; a < c.component; ++a)
      model.NextComponent(nullptr, nullptr, true, true), model.CalculateResiduals();
    model.NextComponent(nullptr, nullptr, true, true);
    const Matrix x = *model.GetXResiduals(), y = *model.GetYResiduals();
    const Vector& w = model.GetWprim()->back();
    PLSCrossValidation cv(&model, 3, nullptr);
    RecordingProgress progress;
    cv.NextComponent(&w, c.limit, Vector(c.m, 1.0f), &progress, false);
    ASSERT_EQ(progress.ranges.size(), 3u);
    std::vector<int> iterations;
    for (int g = 0; g < 3; ++g) {
      SCOPED_TRACE(g);
      std::vector<int> test;  // observation i is in group i mod 3
      for (int i = g == 0 ? 3 : g; i <= 30; i += 3) test.push_back(i);
      const NCIntegralVector<int, -99> removed(test.data(), 10);
      Matrix trainX = x, trainY = y, testX;
      trainX.RemoveRows(removed), trainY.RemoveRows(removed);
      for (int r = 0; r < 10; ++r) testX.push_back(x[test[r]]);
      NCPLS sub(&trainX, &trainY, c.limit);
      RecordingProgress alone;
      sub.NextComponent(&alone, &w, false, false);
      iterations.push_back(sub.GetIterations());
      NCPLSPred pred(testX, *sub.GetWprim(), *sub.GetPprim(), *sub.GetCprim(), 0.9999f);
      pred.CalcNextComponent();
      const float sign = (*sub.GetWprim())[1] * w < 0 ? -1.0f : 1.0f;
      EXPECT_LT(Deviation((*sub.GetWprim())[1] * sign, (*cv.GetWSet())[g + 1]), 1e-4);
      EXPECT_LT(Deviation((*sub.GetCprim())[1] * sign, (*cv.GetCSet())[g + 1]), 1e-4);
      EXPECT_LT(Deviation((*sub.GetPprim())[1] * sign, (*cv.GetPSet())[g + 1]), 1e-4);
      Vector scores(30), tPred(10), residuals(10 * c.m);
      for (int r = 1, f = 1; r <= 30; ++r)
        if ((r % 3) != g) scores(r, (*sub.GetTprim())[1][f++]);
      for (int r = 1; r <= 10; ++r) {
        const int i = test[r - 1];
        scores(i, (*pred.GetTPred())[r]);
        tPred(r, (*pred.GetTPred())[r]);
        for (int j = 1; j <= c.m; ++j) {
          const float yij = y[i][j];
          residuals((r - 1) * c.m + j, yij == -99.0f ? -99.0f : yij - (*pred.GetYPred())[r][j]);
        }
      }
      EXPECT_LT(Deviation(scores * sign, (*cv.GetTSet())[g + 1]),
                1e-4);  // a missing score stays so
      Vector cvTPred(10), cvResiduals(10 * c.m);
      for (int r = 1; r <= 10; ++r) {
        cvTPred(r, (*cv.GetTPred())[test[r - 1]]);
        for (int j = 1; j <= c.m; ++j)
          cvResiduals((r - 1) * c.m + j, (*cv.GetYPredResiduals())[test[r - 1]][j]);
      }
      EXPECT_LT(Deviation(tPred, cvTPred), 1e-4);
      EXPECT_LT(Deviation(residuals, cvResiduals), 1e-4);
      if (c.component == 1) {
        EXPECT_NEAR((*cv.GetSSYOriginal())[g + 1], trainY.GetSS(), 1e-4 * trainY.GetSS());
      }
      Matrix subResiduals = trainY;
      subResiduals.TransformToSub_V_x_Vt((*sub.GetTprim())[1], (*sub.GetCprim())[1]);
      EXPECT_NEAR((*cv.GetSSY())[g + 1], subResiduals.GetSS(), 1e-4 * subResiduals.GetSS());
      // The text, then the sub-model's range: -c = -10 (log10 d + 10), where 0.01 is 0.2% of d.
      EXPECT_EQ(progress.texts[g], LanguageString::Format(10163, g + 1));
      ASSERT_EQ(alone.ranges.size(), 1u);
      EXPECT_NEAR(progress.ranges[g].first, alone.ranges[0].first, 0.01);
      EXPECT_EQ(progress.ranges[g].second, 0.0);
    }
    EXPECT_EQ(progress.values, 0);  // sub-models without strict report no values
    EXPECT_EQ(*std::min_element(iterations.begin(), iterations.end()) !=
                  *std::max_element(iterations.begin(), iterations.end()),
              c.apart);
  }
}

// Without a reporter the call makes its own (text "", range 0..1) and shows on it what it shows on
// a given one; quiet shows nothing and makes none. A host reporter that fails in the second group
// passes its error through, and the validation of the first component stays as it was.
TEST(PlsCrossValidation, OwnReporterQuietAndFailingHost) {
  Matrix xm, ym;
  Gappy(30, 2, 2, 0.5, 7, xm, ym);
  NCPLS model(&xm, &ym, 100);
  model.NextComponent(nullptr, nullptr, true, true);
  const Vector w = model.GetWprim()->back(), ss(2, 1.0f);
  std::vector<std::tuple<std::string, double, double>> made;  // what the factory was asked for
  const auto own = std::make_shared<RecordingProgress>();
  NCProgress::SetDefaultFactory([&](const std::string& text, double min, double max) {
    made.emplace_back(text, min, max);
    return own;
  });
  PLSCrossValidation cv(&model, 3, nullptr);
  cv.NextComponent(&w, 100, ss, nullptr, true);
  EXPECT_TRUE(made.empty());
  cv.NextComponent(&w, 100, ss, nullptr, false);
  NCProgress::SetDefaultFactory({});
  EXPECT_EQ(made, (std::vector<std::tuple<std::string, double, double>>{{"", 0.0, 1.0}}));
  RecordingProgress given;
  PLSCrossValidation(&model, 3, nullptr).NextComponent(&w, 100, ss, &given, false);
  EXPECT_EQ(own->texts, given.texts);
  EXPECT_EQ(own->ranges, given.ranges);
  EXPECT_EQ(given.texts.size(), 3u);

  const PLSCrossValidation before = cv;
  model.CalculateResiduals();
  model.NextComponent(nullptr, nullptr, true, true);
  RecordingProgress failing(2);
  EXPECT_THROW(cv.NextComponent(&model.GetWprim()->back(), 100, ss, &failing, false), NCError);
  EXPECT_EQ(failing.texts.size(), 2u);
  ExpectSame(cv, before);
}

// A left-out row is scored as NCPLSPred scores it: up to K = 10000 one present value suffices, and
// beyond, at most int(0.9999 K) may be missing: 19998 of K = 20000, so a row with one present
// value has no score and no prediction (its residual is Y itself) and a row with two has both.
TEST(PlsCrossValidation, WideRowsNeedTwoPresentValuesBeyondTenThousandColumns) {
  std::mt19937 gen(9);
  std::normal_distribution<float> z;
  Matrix x(8, 20000, 0.0f), y(8, 2, 0.0f);
  for (int i = 1; i <= 8; ++i) {
    for (int j = 1; j <= 20000; ++j) x(i, j, i <= 2 && j > i ? -99.0f : z(gen));
    y(i, 1, x[i][1]), y(i, 2, z(gen));
  }
  NCPLS model(&x, &y, 50);
  model.NextComponent(nullptr, nullptr, true, true);
  PLSCrossValidation cv(&model, 4, nullptr);
  cv.NextComponent(&model.GetWprim()->back(), 50, Vector(2, 1.0f), nullptr, true);
  EXPECT_EQ((*cv.GetTPred())[1], -99.0f);
  EXPECT_EQ((*cv.GetYPredResiduals())[1], y[1]);
  EXPECT_NE((*cv.GetTPred())[2], -99.0f);
  EXPECT_NE((*cv.GetYPredResiduals())[2][1], y[2][1]);
}

// The same numbers to the bit on one thread and on four, on data large enough for the products to
// run on several threads.
TEST(PlsCrossValidation, ThreadCountDoesNotChangeResults) {
  std::mt19937 gen(5);
  std::normal_distribution<double> z;
  Matrix x(2000, 60, 0.0f), y(2000, 3, 0.0f);
  for (int i = 1; i <= 2000; ++i) {
    const double t1 = 2 * z(gen), t2 = z(gen);
    for (int j = 1; j <= 60; ++j)
      x(i, j, i % 7 == j % 5 ? -99.0f : static_cast<float>(t1 * std::cos(j) + t2 + z(gen)));
    for (int j = 1; j <= 3; ++j) y(i, j, static_cast<float>(j * t1 - t2 + z(gen)));
  }
  NCPLS model(&x, &y, 100);
  model.NextComponent(nullptr, nullptr, true, true);
  using Control = NCMultiThreading::ThreadingControl;
  std::vector<PLSCrossValidation> runs;
  for (const int threads : {1, 4}) {
    Control::SetNumberOfProcessors(threads);
    Control::SetThreadingIsOn(threads > 1);
    runs.emplace_back(&model, 7, nullptr);
    runs.back().NextComponent(&model.GetWprim()->back(), 100, Vector(3, 1.0f), nullptr, true);
  }
  Control::Reset();
  ExpectSame(runs[0], runs[1]);
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
