// A one-dimensional minimiser that starts from a given point and step: a downhill walk with
// growing steps brackets a minimum, and a golden-section search narrows the bracket.
#ifndef MVDA_SPC_DETAIL_LINE_SEARCH_H_
#define MVDA_SPC_DETAIL_LINE_SEARCH_H_

#include <algorithm>
#include <cmath>
#include <utility>

namespace mvda::detail {

struct LineMinimum {
  double x;
  double value;
};

// Minimises f over [lo, hi] (lo < hi) from `start` with the signed first step `step`: the walk
// goes the way f falls (reversing once when the first step climbs), growing each step by the
// golden ratio, until f stops falling by more than `relative_eps` of its size or a bound is
// reached. Golden-section search then narrows that bracket to `tolerance` in x. Returns the lowest
// point evaluated, so a minimum on a bound comes back exactly on the bound, and a flat f returns
// the start. The start decides which of several local minima is found. A NaN value never counts
// as lower; the evaluations are bounded (about 40 for a bracket of 1 and a tolerance of 5e-4).
template <class F>
LineMinimum MinimiseFromStart(F&& f, double start, double step, double lo, double hi,
                              double tolerance, double relative_eps) {
  constexpr double kGrow = 1.618033988749895;    // the golden ratio
  constexpr double kInner = 0.6180339887498949;  // its inverse: golden-section placement
  constexpr int kMaxSteps = 100;
  auto clamp = [&](double x) { return std::min(hi, std::max(lo, x)); };
  // u is clearly below v: float noise in a sum must not keep the walk going on a plateau.
  auto lower = [&](double u, double v) { return u < v - relative_eps * std::fabs(v); };

  LineMinimum best{clamp(start), 0.0};
  bool have_best = false;
  auto eval = [&](double x) {
    const double v = f(x);
    if (!have_best || v < best.value || (std::isnan(best.value) && !std::isnan(v))) {
      best = {x, v};
      have_best = true;
    }
    return v;
  };

  double a = clamp(start);
  double fa = eval(a);
  double b = clamp(start + step);
  if (b == a) b = clamp(start - step);  // a start on a bound with a step pointing out of range
  if (b == a) return best;
  double fb = eval(b);
  if (lower(fa, fb)) {  // the first step climbs: walk the other way from the start
    std::swap(a, b);
    std::swap(fa, fb);
  }
  double c = b;
  for (int k = 0; k < kMaxSteps; ++k) {
    const double next = clamp(b + kGrow * (b - a));
    if (next == b) break;  // on a bound: the minimum is there or between a and b
    c = next;
    const double fc = eval(c);
    if (!lower(fc, fb)) break;  // f rises again past b: [a, c] brackets a minimum
    a = b;
    fa = fb;
    b = c;
    fb = fc;
  }

  double left = std::min(a, c);
  double right = std::max(a, c);
  double x1 = right - kInner * (right - left);
  double x2 = left + kInner * (right - left);
  double f1 = eval(x1);
  double f2 = eval(x2);
  for (int k = 0; k < kMaxSteps && right - left > tolerance; ++k) {
    if (f1 < f2) {
      right = x2;
      x2 = x1;
      f2 = f1;
      x1 = right - kInner * (right - left);
      f1 = eval(x1);
    } else {
      left = x1;
      x1 = x2;
      f1 = f2;
      x2 = left + kInner * (right - left);
      f2 = eval(x2);
    }
  }
  return best;
}

}  // namespace mvda::detail

#endif  // MVDA_SPC_DETAIL_LINE_SEARCH_H_
