#include <mvda/spc/detail/line_search.h>

#include <cmath>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

namespace {

using mvda::detail::MinimiseFromStart;

constexpr double kTolerance = 0.0005;
constexpr double kEps = 1.1920928955078125e-7;

TEST(LineSearch, FindsTheMinimumTheStartLeadsTo) {
  // (x-0.2)^2 (x-0.8)^2 has minima at 0.2 and 0.8 and a hump at 0.5; with the tilt 0.01 x the
  // minima are the roots of f' = 2(x-0.2)(x-0.8)(2x-1) + 0.01 near them, 0.186972 and 0.785006
  // (bisection on f'), and the left one is lower.
  auto two_minima = [](double x) {
    return (x - 0.2) * (x - 0.2) * (x - 0.8) * (x - 0.8) + 0.01 * x;
  };
  struct Case {
    const char* name;
    std::function<double(double)> f;
    double start, step, expected;
  };
  const Case cases[] = {
      {"interior, walking up", [](double x) { return (x - 0.37) * (x - 0.37); }, 0.1, 0.1, 0.37},
      {"interior, walking down", [](double x) { return (x - 0.37) * (x - 0.37); }, 1.0, -0.1, 0.37},
      {"first step climbs", [](double x) { return (x - 0.05) * (x - 0.05); }, 0.1, 0.1, 0.05},
      {"left of two", two_minima, 0.1, 0.1, 0.186972},
      {"right of two", two_minima, 1.0, -0.1, 0.785006},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const auto m = MinimiseFromStart(c.f, c.start, c.step, 0.0, 1.0, kTolerance, kEps);
    EXPECT_NEAR(m.x, c.expected, kTolerance);
    EXPECT_EQ(m.value, c.f(m.x));
  }
}

TEST(LineSearch, MinimumOnABoundIsReturnedExactly) {
  auto rising = [](double x) { return x; };
  auto falling = [](double x) { return -x; };
  EXPECT_EQ(MinimiseFromStart(rising, 0.1, 0.1, 0.0, 1.0, kTolerance, kEps).x, 0.0);
  EXPECT_EQ(MinimiseFromStart(rising, 1.0, -0.1, 0.0, 1.0, kTolerance, kEps).x, 0.0);
  EXPECT_EQ(MinimiseFromStart(falling, 0.1, 0.1, 0.0, 1.0, kTolerance, kEps).x, 1.0);
  // Start on the bound with a step out of range: the step is turned round.
  EXPECT_EQ(MinimiseFromStart(rising, 1.0, 0.1, 0.0, 1.0, kTolerance, kEps).x, 0.0);
}

TEST(LineSearch, FlatOrUndefinedFunctionsEndQuickly) {
  struct Case {
    const char* name;
    double value;
  };
  const Case cases[] = {{"flat", 3.0}, {"NaN", std::numeric_limits<double>::quiet_NaN()}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    int calls = 0;
    const auto m = MinimiseFromStart(
        [&](double) {
          ++calls;
          return c.value;
        },
        0.1, 0.1, 0.0, 1.0, kTolerance, kEps);
    EXPECT_EQ(m.x, 0.1);  // nothing is lower than the start
    EXPECT_LT(calls, 40);
  }
  // A slope below float resolution is a plateau: the walk stops at its first bracket
  // [0.1, 0.2 + 1.618 * 0.1] instead of running to the bound 1.
  const auto m = MinimiseFromStart([](double x) { return 1.0 - 1e-9 * x; }, 0.1, 0.1, 0.0, 1.0,
                                   kTolerance, kEps);
  EXPECT_LE(m.x, 0.2 + 0.1618034);
}

}  // namespace
