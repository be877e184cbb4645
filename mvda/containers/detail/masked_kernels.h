// The masked loops of the matrix algebra: sums that skip the missing marker -99 without a branch
// per element, over raw row buffers so that parallel loops and column workers run them on any
// band of rows or columns. A missing element is masked by clearing its bits, which compiles to a
// plain AND on vector registers; multiplying by a 0/1 mask instead would turn an infinity or NaN
// paired with a gap into NaN. Every element is computed by the same operations whether it falls
// in the vectorised body or the scalar tail, so a column's result does not depend on how the
// columns were cut into ranges. Thread-safe: each call writes only its own outputs.
#ifndef MVDA_CONTAINERS_DETAIL_MASKED_KERNELS_H_
#define MVDA_CONTAINERS_DETAIL_MASKED_KERNELS_H_

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace mvda::detail {

// An unsigned integer as wide as T, for bit masks over T.
template <class T>
using MaskOf = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;

// All ones where x is present, 0 where it is the missing marker.
template <class T>
inline MaskOf<T> PresentMask(T x) {
  return MaskOf<T>(0) - static_cast<MaskOf<T>>(x != T(-99));
}

// value where mask is all ones, +0 where it is 0.
template <class T>
inline T KeepBits(T value, MaskOf<T> mask) {
  MaskOf<T> bits;
  std::memcpy(&bits, &value, sizeof bits);
  bits &= mask;
  std::memcpy(&value, &bits, sizeof bits);
  return value;
}

// For every row k in [0, count) with weight w = weights[k] and elements x = rows[k][0..n-1]:
//   num[j] += w * x[j]  and  den[j] += w * w  wherever x[j] is present.
// Rows are added in order, each column in its own accumulator; den may be null. Callers pass only
// rows whose weight is present.
template <class T>
void AccumulateWeightedRows(const T* const* rows, const T* weights, int count, int n, T* num,
                            T* den);

// Over the positions j in [0, n) where x[j] is present and keep[j] is all ones:
//   xv = sum p[j] * x[j]  and  xx = sum q[j].
// Callers pass p with 0 and q = 0 where keep is 0, and q = p^2 elsewhere. The partial sums are
// combined in an order fixed by the build, so the result depends only on the data.
template <class T>
void MaskedDot(const T* x, const T* p, const T* q, const MaskOf<T>* keep, int n, T& xv, T& xx);

// y[j] += s * b[j] wherever both y[j] and b[j] are present; a missing y[j] stays missing.
// Returns how many elements of y[0..n-1] are missing afterwards (a sum can land on -99).
template <class T>
int MaskedAxpy(int n, T s, const T* b, T* y);

// sum[j] += x[j] over the present elements of rows[k][0..n-1], k in [0, count), in double.
template <class T>
void AccumulateColumnSums(const T* const* rows, int count, int n, double* sum);

// ss[j] += (x[j] - centre[j])^2 over the present elements, in double; centre null means 0.
template <class T>
void AccumulateColumnSquares(const T* const* rows, int count, int n, const double* centre,
                             double* ss);

// Number of missing elements in x[0..n-1].
template <class T>
int CountMissing(const T* x, int n);

}  // namespace mvda::detail

#endif  // MVDA_CONTAINERS_DETAIL_MASKED_KERNELS_H_
