// Sums over the present elements of a 1-based buffer.
#include <mvda/containers/detail/present_sums.h>

#include <cstdint>
#include <cstring>

namespace mvda::detail {
namespace {

// Independent partial sums: they let the compiler keep several additions in flight and pack
// them into vector registers, and they shorten each sum's chain, which helps accuracy too.
constexpr int kLanes = 8;

// `value` where keep is true, +0 otherwise, without a branch or a select. Multiplying by a 0/1
// mask would turn a present infinity or NaN paired with a gap into NaN; clearing the bits does
// not, and it still compiles to a plain AND on vector registers.
inline double KeepIf(double value, bool keep) {
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  bits &= std::uint64_t{0} - static_cast<std::uint64_t>(keep);
  std::memcpy(&value, &bits, sizeof bits);
  return value;
}

template <class T>
inline bool Present(T value) {
  return value != T(-99);
}

double Combine(const double (&lanes)[kLanes]) {
  return ((lanes[0] + lanes[1]) + (lanes[2] + lanes[3])) +
         ((lanes[4] + lanes[5]) + (lanes[6] + lanes[7]));
}

}  // namespace

template <class T>
long double SumPresent(const T* x, int n, int missing) {
  const T* p = x + 1;
  double lanes[kLanes] = {};
  int i = 0;
  if (missing == 0) {
    for (; i + kLanes <= n; i += kLanes)
      for (int k = 0; k < kLanes; ++k) lanes[k] += static_cast<double>(p[i + k]);
  } else {
    for (; i + kLanes <= n; i += kLanes)
      for (int k = 0; k < kLanes; ++k) {
        const T value = p[i + k];
        lanes[k] += KeepIf(static_cast<double>(value), Present(value));
      }
  }
  double tail = 0;
  for (; i < n; ++i)
    if (Present(p[i])) tail += static_cast<double>(p[i]);
  return static_cast<long double>(Combine(lanes)) + tail;
}

template <class T>
long double SumSquaredDeviations(const T* x, int n, int missing, double centre) {
  const T* p = x + 1;
  double lanes[kLanes] = {};
  int i = 0;
  if (missing == 0) {
    for (; i + kLanes <= n; i += kLanes)
      for (int k = 0; k < kLanes; ++k) {
        const double d = static_cast<double>(p[i + k]) - centre;
        lanes[k] += d * d;
      }
  } else {
    for (; i + kLanes <= n; i += kLanes)
      for (int k = 0; k < kLanes; ++k) {
        const T value = p[i + k];
        const double d = KeepIf(static_cast<double>(value) - centre, Present(value));
        lanes[k] += d * d;
      }
  }
  double tail = 0;
  for (; i < n; ++i)
    if (Present(p[i])) {
      const double d = static_cast<double>(p[i]) - centre;
      tail += d * d;
    }
  return static_cast<long double>(Combine(lanes)) + tail;
}

namespace {

constexpr int kPairLanes = 4;

// One masked loop serves the three cases with gaps (only x, only v, both): the masks cost the
// same whichever side has them, and a branch per element would cost more than all three sums.
template <class T, bool kExclude>
PairSums SumPairsMasked(const T* p, const T* q, int n, const int* e, int code) {
  double xv[kPairLanes] = {}, xx[kPairLanes] = {}, all[kPairLanes] = {};
  int pairs[kPairLanes] = {};
  const auto accumulate = [&](int k, T a, T b, int excluded) {
    const bool x_in = Present(a) & !excluded;
    const bool both = x_in & Present(b);
    const double a_pair = KeepIf(static_cast<double>(a), both);
    const double b_pair = KeepIf(static_cast<double>(b), both);
    const double a_in = KeepIf(static_cast<double>(a), x_in);
    xv[k] += a_pair * b_pair;
    xx[k] += a_pair * a_pair;
    all[k] += a_in * a_in;
    pairs[k] += both;
  };
  int i = 0;
  for (; i + kPairLanes <= n; i += kPairLanes)
    for (int k = 0; k < kPairLanes; ++k)
      accumulate(k, p[i + k], q[i + k], kExclude ? e[i + k] == code : 0);
  for (; i < n; ++i) accumulate(0, p[i], q[i], kExclude ? e[i] == code : 0);
  PairSums s;
  for (int k = 0; k < kPairLanes; ++k) {
    s.xv += xv[k];
    s.xx += xx[k];
    s.all += all[k];
    s.pairs += pairs[k];
  }
  return s;
}

}  // namespace

template <class T>
PairSums SumPairs(const T* x, int xMissing, const T* v, int vMissing, int n, const int* exclude,
                  int code) {
  const T* p = x + 1;
  const T* q = v + 1;
  if (exclude) return SumPairsMasked<T, true>(p, q, n, exclude + 1, code);
  if (xMissing > 0 || vMissing > 0) return SumPairsMasked<T, false>(p, q, n, nullptr, 0);
  double xv[kLanes] = {}, xx[kLanes] = {};
  int i = 0;
  for (; i + kLanes <= n; i += kLanes)
    for (int k = 0; k < kLanes; ++k) {
      const double a = static_cast<double>(p[i + k]);
      xv[k] += a * static_cast<double>(q[i + k]);
      xx[k] += a * a;
    }
  PairSums s;
  for (; i < n; ++i) {
    const double a = static_cast<double>(p[i]);
    s.xv += a * static_cast<double>(q[i]);
    s.xx += a * a;
  }
  s.xv += Combine(xv);
  s.xx += Combine(xx);
  s.all = s.xx;
  s.pairs = n;
  return s;
}

template long double SumPresent<float>(const float*, int, int);
template long double SumPresent<double>(const double*, int, int);
template long double SumSquaredDeviations<float>(const float*, int, int, double);
template long double SumSquaredDeviations<double>(const double*, int, int, double);
template PairSums SumPairs<float>(const float*, int, const float*, int, int, const int*, int);
template PairSums SumPairs<double>(const double*, int, const double*, int, int, const int*, int);

}  // namespace mvda::detail
