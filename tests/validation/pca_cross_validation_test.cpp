#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pca.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/progress.h>
#include <mvda/validation/pca_cross_validation.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Rows = std::vector<std::vector<double>>;
using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
using Groups = NCIntegralVector<int, -99>;
using Control = NCMultiThreading::ThreadingControl;
constexpr float kM = -99;

// A model fitted to x with one component, not deflated: what the host validates.
NCPCA Fitted(const Matrix& x) {
  NCPCA model(&x, 500);
  NCProgress quiet;
  model.NextComponent(&quiet, nullptr, 0, nullptr);
  return model;
}

// Noise plus `strength` times u v' with v_j = +-1, so that every variable group carries its share
// of |v|^2. Fixed seed.
Matrix Noisy(int rows, int cols, double strength, double noise, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> normal(0, 1);
  Matrix x(rows, cols, 0.0f);
  for (int i = 1; i <= rows; ++i) {
    const double u = normal(gen);
    for (int j = 1; j <= cols; ++j)
      x(i, j, static_cast<float>(strength * u * (j % 3 ? 1 : -1) + noise * normal(gen)));
  }
  return x;
}

// Every cell against PSet and TSet, looked up here from the group codes: the loading fitted
// without the cell's observation, the score fitted without its variable.
void ExpectCellsFromSets(const PCACrossValidation& cv, const Matrix& E) {
  const Matrix &P = *cv.GetPSet(), &T = *cv.GetTSet(), &R = *cv.GetXPredResiduals();
  const Groups &og = *cv.GetObservationGroups(), &vg = *cv.GetVariableGroups();
  for (int i = 1; i <= E.SizeRows(); ++i)
    for (int j = 1; j <= E.SizeColumns(); ++j) {
      const float e = E[i][j], t = T[vg[j] + 1][i], q = P[og[i] + 1][j];
      ASSERT_EQ(R[i][j], (e == kM || t == kM || q == kM) ? e : e - t * q) << i << ", " << j;
    }
}

// Records ranges, sub-ranges and texts at the top level and, per sub-range, the progress values of
// the fit in it (SetRange's minimum, then every SetValue: -c of each iteration); SetValue answers
// "stop" from call `stopAt` on (0: never).
class RecordingProgress : public NCProgress {
 public:
  explicit RecordingProgress(int stopAt = 0) : stop_at_(stopAt) {}
  void SetRange(double min, double max) override {
    if (depth == 0) ranges.emplace_back(min, max);
    if (depth > 0) fits.back().push_back(min);
    NCProgress::SetRange(min, max);
  }
  void PushSubRange(double from, double to) override {
    ++depth, subRanges.emplace_back(from, to), fits.emplace_back();
    NCProgress::PushSubRange(from, to);
  }
  void PopSubRange() override {
    --depth;
    NCProgress::PopSubRange();
  }
  bool SetValue(double value) override {
    ++values, fits.back().push_back(value);
    NCProgress::SetValue(value);
    return stop_at_ == 0 || values < stop_at_;
  }
  void SetText(const std::string& text) override { texts.push_back(text); }
  std::vector<std::pair<double, double>> ranges, subRanges;
  std::vector<std::string> texts;
  std::vector<std::vector<double>> fits;  // one per sub-range, one value per iteration
  int values = 0, depth = 0;

 private:
  int stop_at_;
};

// Worked by hand on 2 x 2 residuals with the default groups (observation 1 and variable 1 in
// group 1, the others in group 0). PSet row 1 is row 1 of E normalised (its only training row),
// PSet row 2 row 2, each turned to agree with p. TSet row 1 is fitted on variable 1 alone: column
// 1 of E times s = sqrt(2 / 1), with the sign of t; TSet row 2 likewise on variable 2.
TEST(PcaCrossValidation, WorkedTwoByTwoCases) {
  const double r2 = std::sqrt(2.0);
  struct Case {
    const char* name;
    Rows E;
    std::vector<double> p, t;
    float previous;
    Rows residuals;  // e_ij - TSet[vg_j + 1][i] PSet[og_i + 1][j]
  };
  const Case cases[] = {
      // PSet (0.6, 0.8), (0.8, 0.6); TSet sqrt2 (3, 8), sqrt2 (4, 6).
      {"distinct rows",
       {{3, 4}, {8, 6}},
       {0.6, 0.8},
       {5, 10},
       0,
       {{3 - 4 * r2 * 0.8, 4 - 3 * r2 * 0.6}, {8 - 6 * r2 * 0.6, 6 - 8 * r2 * 0.8}}},
      // Row 2 gives (-0.8, 0.6), turned to (0.8, -0.6) against p = (1, 0). The score fit on
      // variable 2 from t = (3, -8) ends at -(4, 6), agreeing with t (dot 36). PRESS / SS is 2.68
      // overall and 5.2 for variable 2 (both capped at 1.1), 0.89 for variable 1.
      {"flipped loading, poor prediction",
       {{3, 4}, {-8, 6}},
       {1, 0},
       {3, -8},
       0.5f,
       {{3 + 4 * r2 * 0.8, 4 + 3 * r2 * 0.6}, {-8 + 6 * r2 * 0.6, 6 + 8 * r2 * 0.8}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Matrix E = MakeMatrix(c.E), P = MakeMatrix({c.p}), T = MakeMatrix({c.t});
    NCPCA model(&E, &P, &T, 100);
    PCACrossValidation cv(&model, c.previous, Vector(2, c.previous), 7, nullptr, nullptr);
    RecordingProgress progress;
    cv.NextComponent(Vector(2, 1.0f), &progress);
    ExpectCellsFromSets(cv, E);
    // A one-row fit takes no iteration, so the loading fits report nothing.
    ASSERT_EQ(progress.fits.size(), 4u);
    EXPECT_TRUE(progress.fits[0].empty() && progress.fits[2].empty());
    double ss = 0, press = 0;
    for (int j = 1; j <= 2; ++j) {
      const double e1 = c.E[0][j - 1], e2 = c.E[1][j - 1];
      const double r1 = c.residuals[0][j - 1], r2 = c.residuals[1][j - 1];
      EXPECT_NEAR((*cv.GetXPredResiduals())[1][j], r1, 1e-5);
      EXPECT_NEAR((*cv.GetXPredResiduals())[2][j], r2, 1e-5);
      const double ssj = e1 * e1 + e2 * e2, pressj = r1 * r1 + r2 * r2;
      ss += ssj, press += pressj;
      EXPECT_NEAR((*cv.GetQ2XVar())[j], 1 - pressj / ssj, 1e-5);
      EXPECT_NEAR((*cv.GetQ2XVarCum())[j], 1 - (1 - c.previous) * std::min(pressj / ssj, 1.1),
                  1e-5);
    }
    EXPECT_NEAR(cv.GetQ2Tot(), 1 - press / ss, 1e-5);
    EXPECT_NEAR(cv.GetQ2TotCum(), 1 - (1 - c.previous) * std::min(press / ss, 1.1), 1e-5);
  }
}

// Variables 1, 3, 5 are present only in observation group 1, variables 2 and 4 only in group 0:
// a loading fitted without a row's group never has that row's present variables, so no cell is
// predicted. Every cell keeps e; without any sum of squares Q2 is 0 and the cumulative Q2 1, per
// variable 1 only where the reference is at least 1.1754943508222875e-37 (and not missing).
TEST(PcaCrossValidation, NothingLeftToPredict) {
  const Matrix E =
      MakeMatrix({{1, kM, 2, kM, 1}, {kM, 2, kM, 1, kM}, {3, kM, -1, kM, 2}, {kM, -1, kM, 3, kM}});
  NCPCA model = Fitted(E);
  PCACrossValidation cv(&model, 0.3f, Vector(5, 0.3f), 2, nullptr, nullptr);
  cv.NextComponent(MakeVector<float>({5, 1.1754943508222875e-37, 0, 1e-38, -99}), nullptr);
  EXPECT_TRUE(*cv.GetXPredResiduals() == E);
  EXPECT_EQ(cv.GetQ2Tot(), 0.0f);
  EXPECT_EQ(cv.GetQ2TotCum(), 1.0f);
  EXPECT_EQ(ToStd(*cv.GetQ2XVar()), std::vector<double>(5, 0.0));
  EXPECT_EQ(ToStd(*cv.GetQ2XVarCum()), (std::vector<double>{1, 1, 0, 0, 0}));
}

// Rank one plus tiny noise: the left-out predictions are nearly exact, and the rescaled scores of
// every group are t (v = +-1 spreads |v|^2 evenly, so s = sqrt(K / (K - n_g)) restores the length).
TEST(PcaCrossValidation, RankOneIsPredicted) {
  const Matrix x = Noisy(60, 13, 1.0, 1e-4, 5);
  NCPCA model = Fitted(x);
  PCACrossValidation cv(&model, 7, nullptr, nullptr);
  cv.NextComponent(Vector(13, 1.0f), nullptr);
  EXPECT_GT(cv.GetQ2Tot(), 0.9999f);
  EXPECT_EQ(cv.GetQ2TotCum(), cv.GetQ2Tot());
  ASSERT_EQ(cv.GetTSet()->SizeRows(), 7);
  for (int g = 1; g <= 7; ++g)
    for (int i = 1; i <= 60; ++i)
      EXPECT_NEAR((*cv.GetTSet())[g][i], (*model.GetTprim())[1][i], 2e-3) << g;
  ExpectCellsFromSets(cv, x);
}

// Pure noise with gaps and the caller's groups: the component predicts worse than nothing, and the
// cumulative Q2 uses min(PRESS / SS, 1.1), with PRESS and SS summed here from the cells.
TEST(PcaCrossValidation, NoiseAndTheCap) {
  Matrix x = Noisy(14, 6, 0.0, 1.0, 11);
  x(3, 2, kM), x(9, 5, kM), x(14, 1, kM);
  NCPCA model = Fitted(x);
  const std::vector<int> o = {2, 0, 1, 1, 2, 0, 0, 1, 2, 2, 0, 1, 1, 0}, v = {1, 1, 0, 2, 0, 2};
  const Groups og(o.data(), 14), vg(v.data(), 6);
  const Vector previous = MakeVector<float>({0.1, 0.2, 0.3, 0.4, 0.5, 0.6});
  PCACrossValidation cv(&model, 0.4f, previous, 3, &og, &vg);
  cv.NextComponent(Vector(6, 1.0f), nullptr);
  ExpectCellsFromSets(cv, x);
  EXPECT_LT(cv.GetQ2Tot(), -0.1f);  // PRESS above 1.1 SS: the total is capped too
  double ss = 0, press = 0;
  int capped = 0;
  for (int j = 1; j <= 6; ++j) {
    double ssj = 0, pressj = 0;
    for (int i = 1; i <= 14; ++i)
      if (x[i][j] != kM)
        ssj += x[i][j] * x[i][j], pressj += std::pow((*cv.GetXPredResiduals())[i][j], 2);
    ss += ssj, press += pressj;
    capped += pressj > 1.1 * ssj;
    EXPECT_NEAR((*cv.GetQ2XVarCum())[j], 1 - (1 - previous[j]) * std::min(pressj / ssj, 1.1), 1e-5);
  }
  EXPECT_TRUE(capped > 0 && capped < 6);  // both sides of the cap
  EXPECT_NEAR(cv.GetQ2TotCum(), 1 - 0.6 * std::min(press / ss, 1.1), 1e-5);
}

// Elements equal to within `relative` times the largest |expected|, missing where expected is.
void ExpectNear(const Vector& expected, const Vector& actual, double relative) {
  ASSERT_EQ(expected.Size(), actual.Size());
  double largest = 0;
  for (int i = 1; i <= expected.Size(); ++i)
    largest = std::max(largest, std::fabs(double(expected[i])));
  for (int i = 1; i <= expected.Size(); ++i) {
    if (expected[i] == kM) {
      EXPECT_EQ(actual[i], kM) << i;
    } else {
      EXPECT_NEAR(actual[i], expected[i], relative * largest) << i;
    }
  }
}

// The fits of all groups run together, each to its own stop, and must give what NCPCA fits one
// after another give from the same starts, to rounding: each loading fitted on the other rows
// (pushed here in order) from their regression on p, sign-aligned; the scores on every row from t
// without variable group g, times sqrt(9 / 6); and the same progress values, one per iteration.
// A noisy second component, where no fit converges within L = 6 iterations, so that the starts
// show in every digit (with and without gaps); and rank one with one noisy observation group
// (first component, L = 5), where the fits stop after different numbers of iterations.
TEST(PcaCrossValidation, GroupFitsMatchFitsOneAfterAnother) {
  struct Case {
    const char* name;
    Matrix x;
    bool second, apart;
  };
  Matrix gappy = Noisy(25, 9, 1.0, 1.0, 12), mixed = Noisy(25, 9, 1.0, 1e-3, 13);
  gappy(4, 4, kM), gappy(20, 8, kM);
  const Matrix noisy = Noisy(25, 9, 1.0, 0.3, 14);
  for (int i = 3; i <= 25; i += 3) mixed.SetRow(i, noisy[i]);
  const Case cases[] = {{"noise", Noisy(25, 9, 1.0, 1.0, 12), true, false},
                        {"noise with gaps", gappy, true, false},
                        {"one noisy group", mixed, false, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NCPCA model = Fitted(c.x);
    NCProgress quiet;
    if (c.second) model.CalculateResiduals(), model.NextComponent(&quiet, nullptr, 0, nullptr);
    const int limit = c.second ? 6 : 5;
    const Matrix& E = *model.GetResiduals();
    const Vector &p = model.GetPprim()->back(), &t = model.GetTprim()->back();
    PCACrossValidation cv(&model, 3, nullptr, nullptr);
    RecordingProgress progress;
    cv.NextComponent(Vector(9, 1.0f), &progress);
    ASSERT_EQ(progress.fits.size(), 6u);
    std::vector<std::size_t> iterations;
    for (int g = 0; g < 3; ++g) {
      SCOPED_TRACE(g);
      Matrix training;
      for (int i = 1; i <= 25; ++i)
        if (i % 3 != g) training.push_back(E[i]);
      const Vector start = training.SpecialNipalsRegressRowsFix(p);
      NCPCA rows(&training, limit), columns(&E, limit);
      RecordingProgress alone;  // each fit in a sub-range of its own, as in the cross-validation
      alone.PushSubRange(0, 1), rows.NextComponent(&alone, nullptr, 0, &start), alone.PopSubRange();
      alone.PushSubRange(0, 1), columns.NextComponent(&alone, cv.GetVariableGroups(), g, &t);
      alone.PopSubRange();
      Vector loading = rows.GetPprim()->back(), scores = columns.GetTprim()->back();
      if (loading * p < 0) loading *= -1.0f;
      scores *= std::sqrt(9.0f / 6.0f) * (scores * t < 0 ? -1 : 1);
      ExpectNear(loading, (*cv.GetPSet())[g + 1], 1e-4);
      ExpectNear(scores, (*cv.GetTSet())[g + 1], 1e-4);
      for (int k = 0; k < 2; ++k) {
        const std::vector<double>&expected = alone.fits[k], &actual = progress.fits[2 * g + k];
        ASSERT_EQ(actual.size(), expected.size()) << k;
        iterations.push_back(expected.size());
        // -c = -10 (log10 d + 10): 0.1 is 2% of d, far above rounding while d is above 1e-10.
        for (std::size_t i = 0; i < expected.size(); ++i) {
          if (expected[i] < 0) {
            EXPECT_NEAR(actual[i], expected[i], 0.1) << k << ", " << i;
          }
        }
      }
    }
    EXPECT_EQ(*std::min_element(iterations.begin(), iterations.end()) !=
                  *std::max_element(iterations.begin(), iterations.end()),
              c.apart);
  }
}

// Two fits per group, each in its half of the group's span under its own text. On noise no fit
// converges, so each runs to L = trunc(sqrt(A - 1) + 5 + 1e-5) iterations for A components.
TEST(PcaCrossValidation, ProgressAndIterationLimit) {
  const Matrix x = Noisy(40, 12, 0.0, 1.0, 3);
  const NCPCA first = Fitted(x);
  for (const auto& [components, limit] :
       std::vector<std::pair<int, int>>{{1, 5}, {2, 6}, {4, 6}, {5, 7}, {9, 7}, {10, 8}}) {
    SCOPED_TRACE(components);
    Matrix P, T;  // the first component repeated: only the last one and the count matter
    for (int a = 0; a < components; ++a) P.push_back(first.GetPprim()->back());
    for (int a = 0; a < components; ++a) T.push_back(first.GetTprim()->back());
    NCPCA model(&x, &P, &T, 100);
    PCACrossValidation cv(&model, 3, nullptr, nullptr);
    RecordingProgress progress;
    cv.NextComponent(Vector(12, 1.0f), &progress);
    EXPECT_EQ(progress.ranges, (std::vector<std::pair<double, double>>{{0, 3}}));
    ASSERT_EQ(progress.subRanges.size(), 6u);
    for (int g = 0; g < 3; ++g) {
      EXPECT_EQ(progress.subRanges[2 * g], std::make_pair(g + 0.0, g + 0.5));
      EXPECT_EQ(progress.subRanges[2 * g + 1], std::make_pair(g + 0.5, g + 1.0));
      EXPECT_EQ(progress.texts[2 * g], LanguageString::Format(10157, g + 1));
      EXPECT_EQ(progress.texts[2 * g + 1], LanguageString::Get(10158));
    }
    for (const auto& fit : progress.fits) EXPECT_EQ(fit.size(), static_cast<std::size_t>(limit));
  }
}

// A stop in a fit passes through as the fit raised it, and the results of the previous call and
// the host's sub-ranges stay as they were.
TEST(PcaCrossValidation, StopKeepsEarlierResults) {
  const Matrix x = Noisy(40, 12, 2.0, 1.0, 8);
  NCPCA model = Fitted(x);
  PCACrossValidation cv(&model, 4, nullptr, nullptr);
  cv.NextComponent(Vector(12, 1.0f), nullptr);
  const PCACrossValidation before = cv;
  for (const int stopAt : {1, 9}) {
    SCOPED_TRACE(stopAt);
    RecordingProgress stopper(stopAt);
    try {
      cv.NextComponent(Vector(12, 1.0f), &stopper);
      ADD_FAILURE() << "no stop";
    } catch (const NCError& e) {
      EXPECT_EQ(e.GetMessage(), LanguageString::Get(10147));
      EXPECT_EQ(e.GetLevel(), NCError::kStopRequested);
    }
    EXPECT_EQ(stopper.depth, 0);
    EXPECT_TRUE(*cv.GetPSet() == *before.GetPSet() && *cv.GetTSet() == *before.GetTSet());
    EXPECT_TRUE(*cv.GetXPredResiduals() == *before.GetXPredResiduals());
    EXPECT_TRUE(*cv.GetQ2XVarCum() == *before.GetQ2XVarCum());
    EXPECT_EQ(cv.GetQ2TotCum(), before.GetQ2TotCum());
  }
}

// Variable 2 is missing throughout, so the score fit without variable group 1 (variable 1) has
// nothing to regress on and fails at its first iteration, as NCPCA does; the host has seen the
// progress of the three fits before it in group order, and nothing of the call is kept.
TEST(PcaCrossValidation, FailedFitThrowsInGroupOrder) {
  const Matrix x = MakeMatrix({{1, kM}, {2, kM}, {-1, kM}, {3, kM}, {0.5, kM}});
  NCPCA model = Fitted(x);
  PCACrossValidation cv(&model, 2, nullptr, nullptr);
  RecordingProgress progress;
  try {
    cv.NextComponent(Vector(2, 1.0f), &progress);
    ADD_FAILURE() << "no error";
  } catch (const NCError& e) {
    EXPECT_EQ(e.GetMessage(), "PCA component could not be computed.");
    EXPECT_EQ(e.GetLevel(), NCError::kNumerical);
  }
  EXPECT_EQ(progress.depth, 0);
  ASSERT_EQ(progress.fits.size(), 4u);
  EXPECT_FALSE(progress.fits[2].empty());
  EXPECT_TRUE(progress.fits[3].empty());
  EXPECT_EQ(progress.texts.back(), LanguageString::Get(10158));
  EXPECT_EQ(cv.GetPSet()->SizeRows(), 0);
}

// The same numbers to the bit on one thread and on four (several bands of the parallel loops).
TEST(PcaCrossValidation, ThreadCountDoesNotChangeResults) {
  Matrix x = Noisy(1500, 40, 1.0, 0.5, 21);
  for (int i = 1; i <= 1500; i += 7) x(i, 1 + i % 40, kM);
  NCPCA model = Fitted(x);
  std::vector<PCACrossValidation> runs;
  const bool was = Control::IsThreadingOn();
  const int processors = Control::GetNumberOfProcessors();
  for (const int threads : {1, 4}) {
    Control::SetNumberOfProcessors(threads);
    Control::SetThreadingIsOn(threads > 1);
    runs.emplace_back(&model, 7, nullptr, nullptr);
    runs.back().NextComponent(Vector(40, 1.0f), nullptr);
  }
  Control::SetNumberOfProcessors(processors);
  Control::SetThreadingIsOn(was);
  EXPECT_TRUE(*runs[0].GetPSet() == *runs[1].GetPSet());
  EXPECT_TRUE(*runs[0].GetTSet() == *runs[1].GetTSet());
  EXPECT_TRUE(*runs[0].GetXPredResiduals() == *runs[1].GetXPredResiduals());
  EXPECT_TRUE(*runs[0].GetQ2XVar() == *runs[1].GetQ2XVar());
  EXPECT_EQ(runs[0].GetQ2Tot(), runs[1].GetQ2Tot());
}

// G = min(groups, N, K), elements dealt out as i mod G.
TEST(PcaCrossValidation, DefaultGroups) {
  for (const auto& [groups, rows, cols, expected] :
       std::vector<std::array<int, 4>>{{7, 5, 9, 5}, {7, 20, 4, 4}, {3, 20, 9, 3}}) {
    NCPCA model = Fitted(Noisy(rows, cols, 2.0, 1.0, 2));
    PCACrossValidation cv(&model, groups, nullptr, nullptr);
    EXPECT_EQ(cv.GetGroups(), expected);
    for (int i = 1; i <= rows; ++i) EXPECT_EQ((*cv.GetObservationGroups())[i], i % expected);
    for (int j = 1; j <= cols; ++j) EXPECT_EQ((*cv.GetVariableGroups())[j], j % expected);
    cv.NextComponent(Vector(cols, 1.0f), nullptr);
    EXPECT_EQ(cv.GetPSet()->SizeRows(), expected);
  }
}

// By hand for N = 10, K = 5: D = (N - c - a + 1)(K - a + 1), limit 1 - D / ((N - a + 1)(K - a +
// 2)).
TEST(PcaCrossValidation, Q2Limit) {
  NCPCA model = Fitted(Noisy(10, 5, 2.0, 1.0, 4));
  const PCACrossValidation cv(&model, 7, nullptr, nullptr);
  EXPECT_EQ(cv.GetQ2Lim(0, false), -99.0f);
  EXPECT_EQ(cv.GetQ2Lim(-1, true), -99.0f);
  EXPECT_EQ(cv.GetQ2Lim(1, false), 1 - 50.0f / 60);  // 10 * 5 / (10 * 6)
  EXPECT_EQ(cv.GetQ2Lim(1, true), 0.25f);            // 9 * 5 / 60
  EXPECT_EQ(cv.GetQ2Lim(3, false), 0.25f);           // 8 * 3 / (8 * 4)
  EXPECT_EQ(cv.GetQ2Lim(5, true), 1 - 5.0f / 12);    // 5 * 1 / (6 * 2)
  EXPECT_EQ(cv.GetQ2Lim(6, false), 1.0f);            // K - a + 1 = 0
  EXPECT_EQ(cv.GetQ2Lim(10, true), 1.0f);            // N - c - a + 1 = 0
  EXPECT_EQ(cv.GetQ2Lim(7, false), 1.0f);            // D = 4 * -1
  EXPECT_EQ(cv.GetQ2Lim(12, false), 1.0f);           // D = -1 * -6 > 0, past the rank
}

TEST(PcaCrossValidation, BadArgumentsChangeNothing) {
  NCPCA model = Fitted(Noisy(10, 5, 2.0, 1.0, 6));
  const std::vector<int> codes = {0, 1, 2, 0, 1, 2, 0, 1, 2, 3};
  const Groups shortGroups(9, 0), allInOne(10, 0), outside(codes.data(), 10);
  EXPECT_THROW(PCACrossValidation(nullptr, 7, nullptr, nullptr), NCError);
  EXPECT_THROW(PCACrossValidation(&model, 0, nullptr, nullptr), NCError);
  EXPECT_THROW(PCACrossValidation(&model, 1, nullptr, nullptr), NCError);  // nothing to fit on
  EXPECT_THROW(PCACrossValidation(&model, 3, &shortGroups, nullptr), NCError);
  EXPECT_THROW(PCACrossValidation(&model, 3, &allInOne, nullptr), NCError);
  EXPECT_THROW(PCACrossValidation(&model, 3, nullptr, &shortGroups), NCError);
  EXPECT_THROW(PCACrossValidation(&model, 0.5f, Vector(4, 0.0f), 3, nullptr, nullptr), NCError);
  try {
    PCACrossValidation(&model, 3, &outside, nullptr);
    ADD_FAILURE() << "no error";
  } catch (const NCError& e) {
    EXPECT_EQ(e.GetMessage(),
              "PCACrossValidation::PCACrossValidation: observation 10 in group 3, codes run 0..2");
  }
  NCPCA empty(model.GetResiduals(), 10);
  EXPECT_THROW(PCACrossValidation(&empty, 3, nullptr, nullptr).NextComponent(Vector(5, 1), nullptr),
               NCError);
  PCACrossValidation cv(&model, 3, nullptr, nullptr);
  EXPECT_THROW(cv.NextComponent(Vector(4, 1.0f), nullptr), NCError);
  EXPECT_EQ(cv.GetPSet()->SizeRows(), 0);
  EXPECT_EQ(cv.GetXPredResiduals()->GetNumMisVal(), 50);
}

}  // namespace
