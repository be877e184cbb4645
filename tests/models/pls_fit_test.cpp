#include <mvda/models/pls.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/progress.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
using Rows = std::vector<std::vector<double>>;

// Random data with a little structure (two latent directions); fixed seed.
Matrix RandomMatrix(int r, int c, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> z;
  const double a = z(gen), b = z(gen);
  Matrix m(r, c, 0.0f);
  for (int i = 1; i <= r; ++i) {
    const double s1 = z(gen), s2 = z(gen);
    for (int j = 1; j <= c; ++j) m(i, j, static_cast<float>(s1 * (a + j) + s2 * (b - j) + z(gen)));
  }
  return m;
}

void ExpectRow(const Vector& actual, const std::vector<double>& expected, double tolerance) {
  ASSERT_EQ(actual.Size(), static_cast<int>(expected.size()));
  for (int i = 1; i <= actual.Size(); ++i)
    EXPECT_NEAR(actual[i], expected[i - 1], tolerance) << "element " << i;
}

// Records every call the fit makes; SetValue number `stop_at` answers "stop".
class RecordingProgress : public NCProgress {
 public:
  struct Call {
    std::string name;
    double a, b;
  };
  std::vector<Call> calls;
  int stop_at = 0;
  bool break_pressed = false;

  void SetRange(double min, double max) override { calls.push_back({"SetRange", min, max}); }
  bool SetValue(double value) override {
    calls.push_back({"SetValue", value, 0});
    return ++values_ != stop_at;
  }
  bool IsBreakPressed() override {
    calls.push_back({"IsBreakPressed", 0, 0});
    return break_pressed;
  }

 private:
  int values_ = 0;
};

// PLS1 with a gap in X, worked by hand. X = [2 1; -99 2; 0 1], y = (1, 1, -1); u starts as y.
//   w = regress-columns(X, u): column 1 over rows 1, 3: (2 + 0) / 2 = 1; column 2: 2 / 3;
//       normalised (3, 2) / sqrt 13.
//   t = regress-rows(X, w): row 1 (6 + 2) / sqrt 13 = 8 / sqrt 13; row 2 from column 2 alone:
//       2 / w_2 = sqrt 13; row 3: 2 / sqrt 13.  t't = 237 / 13, y't = 19 / sqrt 13.
//   c = 19 sqrt 13 / 237, u = y / c, p = (16 / sqrt 13) / (68 / 13) = 4 sqrt 13 / 17 and
//       (36 / sqrt 13) / (237 / 13) = 12 sqrt 13 / 79.
// Deflation: E(1,1) = 2 - 32/17 = 2/17, E(2,2) = 2 - 156/79 = 2/79, E(2,1) stays missing;
// F(1) = 1 - 152/237 = 85/237.
TEST(PlsNipals, SingleResponseWithGapMatchesHandWork) {
  const Matrix x = MakeMatrix({{2, 1}, {-99, 2}, {0, 1}});
  const Vector y = MakeVector<float>({1, 1, -1});
  NCPLS model(&x, &y, 100);
  RecordingProgress progress;
  model.NextComponent(&progress, nullptr, false, true);
  const double r13 = std::sqrt(13.0), c = 19 * r13 / 237;
  ExpectRow((*model.GetWprim())[1], {3 / r13, 2 / r13}, 1e-6);
  ExpectRow((*model.GetTprim())[1], {8 / r13, r13, 2 / r13}, 1e-5);
  ExpectRow((*model.GetCprim())[1], {c}, 1e-6);
  ExpectRow((*model.GetUprim())[1], {1 / c, 1 / c, -1 / c}, 1e-5);
  ExpectRow((*model.GetPprim())[1], {4 * r13 / 17, 12 * r13 / 79}, 1e-6);
  EXPECT_EQ(model.GetIterations(), 1);
  // One Y column: value 0, so the range runs from 1 to 0.
  ASSERT_EQ(progress.calls.size(), 3u);
  EXPECT_EQ(progress.calls[0].name, "SetRange");
  EXPECT_EQ(progress.calls[0].a, 1.0);
  EXPECT_EQ(progress.calls[0].b, 0.0);
  EXPECT_EQ(progress.calls[1].name, "SetValue");
  EXPECT_EQ(progress.calls[1].a, 0.0);
  EXPECT_EQ(progress.calls[2].name, "IsBreakPressed");

  model.CalculateResiduals();
  const Matrix& e = *model.GetXResiduals();
  EXPECT_NEAR(e[1][1], 2.0 / 17, 1e-6);
  EXPECT_NEAR(e[2][2], 2.0 / 79, 1e-6);
  EXPECT_EQ(e[2][1], -99.0f);
  EXPECT_EQ(e.GetNumMisVal(), 1);
  EXPECT_NEAR((*model.GetYResiduals())[1][1], 85.0 / 237, 1e-6);
  EXPECT_EQ(x[1][1], 2.0f);  // the caller's X is not deflated

  // Start weights are ignored with one Y column, even all-missing ones that would ruin the start.
  NCPLS ignoring(&x, &y, 100);
  const Vector nothing = MakeVector<float>({-99, -99});
  ignoring.NextComponent(nullptr, &nothing, true, true);
  EXPECT_EQ(*ignoring.GetTprim(), *model.GetTprim());
  EXPECT_EQ(*ignoring.GetWprim(), *model.GetWprim());
}

// PLS2 in exact arithmetic: X = t0 = (1, -1, 2)' (one column), Y = t0 (2, 1). u starts as Y's
// column 1 (SS 24 against 6) = 2 t0; w = 12/24 normalised = 1, t = t0, c = (12, 6)/6 = (2, 1),
// u = Y c / 5 = t0. d = |t0 - 2 t0|^2 / |t0|^2 = 1, value 10 (log10 1 + 10) = 100; the second
// iteration repeats every vector, d = 0, value -1: two iterations.
TEST(PlsNipals, TwoResponsesConvergeAsWorkedByHand) {
  const Matrix x = MakeMatrix({{1}, {-1}, {2}});
  const Matrix y = MakeMatrix({{2, 1}, {-2, -1}, {4, 2}});
  const double first = 100;
  struct Case {
    const char* name;
    bool start, strict, pressed;
    int iterations;
    std::vector<std::string> calls;
    std::vector<double> values;  // a, per call
  };
  const Case cases[] = {
      {"strict",
       false,
       true,
       false,
       2,
       {"SetRange", "SetValue", "SetValue", "IsBreakPressed"},
       {-first, -first, 1.0, 0}},
      {"not strict: range only", false, false, true, 2, {"SetRange"}, {-first}},
      // From the start weight 1: t0 = X, c0 = (2, 1), u = t0, so the first iteration moves
      // nothing: value -1 and the range (1, 0).
      {"start weights",
       true,
       true,
       false,
       1,
       {"SetRange", "SetValue", "IsBreakPressed"},
       {1.0, 1.0, 0}},
  };
  const Vector start = MakeVector<float>({1});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NCPLS model(&x, &y, 50);
    RecordingProgress progress;
    progress.break_pressed = c.pressed;
    model.NextComponent(&progress, c.start ? &start : nullptr, false, c.strict);
    EXPECT_EQ(model.GetIterations(), c.iterations);
    ASSERT_EQ(progress.calls.size(), c.calls.size());
    for (std::size_t k = 0; k < c.calls.size(); ++k) {
      EXPECT_EQ(progress.calls[k].name, c.calls[k]);
      EXPECT_NEAR(progress.calls[k].a, c.values[k], 1e-4) << "call " << k;
    }
    ExpectRow((*model.GetWprim())[1], {1}, 0);
    ExpectRow((*model.GetTprim())[1], {1, -1, 2}, 0);
    ExpectRow((*model.GetCprim())[1], {2, 1}, 0);
    ExpectRow((*model.GetPprim())[1], {1}, 0);
  }

  // Everything is fitted: the residuals vanish, and a second strict component is degenerate.
  NCPLS model(&x, &y, 50);
  model.NextComponent(nullptr, nullptr, true, true);
  model.CalculateResiduals();
  EXPECT_EQ(model.GetXResiduals()->GetSS(), 0);
  EXPECT_EQ(model.GetYResiduals()->GetSS(), 0);
  try {
    model.NextComponent(nullptr, nullptr, true, true);
    FAIL() << "no exception";
  } catch (const NCPLSDegenerateError& e) {
    EXPECT_EQ(e.GetLevel(), NCError::kNumerical);
    EXPECT_EQ(e.GetComponent(), 2);
    EXPECT_EQ(e.GetMessage(), LanguageString::Format(10159, 2));
  }
  EXPECT_EQ(model.GetComponents(), 1);
  EXPECT_EQ(model.GetPprim()->SizeRows(), 1);
  model.NextComponent(nullptr, nullptr, true, false);  // not strict: stored as computed
  EXPECT_EQ(model.GetComponents(), 2);
  EXPECT_EQ(model.GetWprim()->SizeRows(), 2);
}

// The size of a component is |cos| between y and the X direction: X = (1, 1)', y = (1 + d, -1)
// gives size d / (sqrt 2 |y|), about d / 2, against the floor 1e-6 / sqrt K = 1e-6.
TEST(PlsNipals, StrictSizeTestHasItsFloorAtOneMillionth) {
  struct Case {
    const char* name;
    double d;
    bool degenerate;
  };
  const Case cases[] = {{"size 2e-6", 4e-6, false}, {"size 5e-7", 1e-6, true}};
  const Matrix x = MakeMatrix({{1}, {1}});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Vector y = MakeVector<float>({1 + c.d, -1});
    NCPLS model(&x, &y, 10);
    if (c.degenerate) {
      EXPECT_THROW(model.NextComponent(nullptr, nullptr, true, true), NCPLSDegenerateError);
    } else {
      EXPECT_NO_THROW(model.NextComponent(nullptr, nullptr, true, true));
    }
    EXPECT_EQ(model.GetComponents(), c.degenerate ? 0 : 1);
  }
}

TEST(PlsNipals, StopsLeaveEarlierComponentsIntact) {
  const Matrix x = RandomMatrix(12, 4, 7), y = RandomMatrix(12, 3, 8);
  struct Case {
    const char* name;
    int stop_at;
    bool pressed;
    int id, level;
  };
  const Case cases[] = {{"SetValue false on the second iteration", 2, false, 10160, 2},
                        {"break seen after the loop", 0, true, 10161, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NCPLS model(&x, &y, 500);
    model.NextComponent(nullptr, nullptr, true, true);
    model.CalculateResiduals();
    const Matrix w = *model.GetWprim(), t = *model.GetTprim(), e = *model.GetXResiduals();
    RecordingProgress progress;
    progress.stop_at = c.stop_at;
    progress.break_pressed = c.pressed;
    try {
      model.NextComponent(&progress, nullptr, false, true);
      FAIL() << "no exception";
    } catch (const NCError& error) {
      EXPECT_EQ(error.GetLevel(), c.level);
      EXPECT_EQ(error.GetMessage(), LanguageString::Get(c.id));
    }
    if (c.stop_at) {
      EXPECT_EQ(progress.calls.size(), 3u);  // SetRange, SetValue, SetValue
    }
    EXPECT_EQ(model.GetComponents(), 1);
    EXPECT_EQ(*model.GetWprim(), w);
    EXPECT_EQ(*model.GetTprim(), t);
    EXPECT_EQ(model.GetCprim()->SizeRows(), 1);
    EXPECT_EQ(*model.GetXResiduals(), e);
    // The same call without a stop goes through, and needed the iteration that was stopped.
    model.NextComponent(nullptr, nullptr, true, true);
    EXPECT_GE(model.GetIterations(), 2);
    EXPECT_EQ(model.GetComponents(), 2);
  }
}

TEST(PlsNipals, MakesItsOwnProgressOnlyWhenNotQuiet) {
  struct Made {
    std::string text;
    double min, max;
    std::shared_ptr<RecordingProgress> progress;
  };
  std::vector<Made> made;
  NCProgress::SetDefaultFactory([&made](const std::string& text, double min, double max) {
    made.push_back({text, min, max, std::make_shared<RecordingProgress>()});
    return made.back().progress;
  });
  const Matrix x = MakeMatrix({{2, 1}, {-99, 2}, {0, 1}});
  const Vector y = MakeVector<float>({1, 1, -1});
  NCPLS model(&x, &y, 100);
  model.NextComponent(nullptr, nullptr, true, true);
  EXPECT_TRUE(made.empty());
  model.NextComponent(nullptr, nullptr, false, true);
  NCProgress::SetDefaultFactory({});
  ASSERT_EQ(made.size(), 1u);
  EXPECT_EQ(made[0].text, "Computing PLS component 2");  // built-in text of 10047
  EXPECT_EQ(made[0].min, 1.0);
  EXPECT_EQ(made[0].max, 0.0);
  ASSERT_EQ(made[0].progress->calls.size(), 2u);  // SetValue(-0), IsBreakPressed
  EXPECT_EQ(made[0].progress->calls[0].name, "SetValue");
}

TEST(PlsNipals, IterationBoundAndBadInput) {
  const Matrix x = RandomMatrix(10, 4, 3), y = RandomMatrix(10, 3, 4);
  NCPLS free(&x, &y, 500);
  free.NextComponent(nullptr, nullptr, true, false);
  ASSERT_GT(free.GetIterations(), 3);
  for (const int bound : {0, 1, 3}) {
    SCOPED_TRACE(bound);
    NCPLS model(&x, &y, bound);
    model.NextComponent(nullptr, nullptr, true, false);
    EXPECT_EQ(model.GetIterations(), std::max(bound, 1));  // the first iteration always runs
  }
  NCPLS model(&x, &y, 10);
  const Vector three = MakeVector<float>({1, 2, 3});
  EXPECT_THROW(model.NextComponent(nullptr, &three, true, true), NCError);
  EXPECT_THROW(NCPLS().NextComponent(nullptr, nullptr, true, false), NCError);
  EXPECT_EQ(model.GetComponents(), 0);
}

}  // namespace
