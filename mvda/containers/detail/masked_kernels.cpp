// The masked loops of the matrix algebra.
#include <mvda/containers/detail/masked_kernels.h>
#include <mvda/containers/detail/simd_clones.h>

namespace mvda::detail {

// One pass over each row with the column accumulators in L1: the rows stream through once, which
// is what a transposed matrix-vector product costs too. The product and the square go through the
// mask before the addition, so no compiler can fuse them into one rounding in some lanes only.
// Four rows per sweep of the accumulators, each column's terms still added one row after the
// other, so the sums are those of the row-by-row loop while the accumulators are loaded and
// stored a quarter as often (the row-by-row loop was bound by those stores). The AVX2 clone does
// the same operations on wider lanes, so it gives the same sums.
template <class T>
MVDA_AVX2_CLONES void AccumulateWeightedRows(const T* const* rows, const T* weights, int count,
                                             int n, T* num, T* den) {
  T* __restrict a = num;
  int k = 0;
  if (den) {
    T* __restrict b = den;
    for (; k + 4 <= count; k += 4) {
      const T* __restrict x0 = rows[k], * __restrict x1 = rows[k + 1];
      const T* __restrict x2 = rows[k + 2], * __restrict x3 = rows[k + 3];
      const T w0 = weights[k], w1 = weights[k + 1], w2 = weights[k + 2], w3 = weights[k + 3];
      const T v0 = w0 * w0, v1 = w1 * w1, v2 = w2 * w2, v3 = w3 * w3;
      for (int j = 0; j < n; ++j) {
        const MaskOf<T> m0 = PresentMask(x0[j]), m1 = PresentMask(x1[j]);
        const MaskOf<T> m2 = PresentMask(x2[j]), m3 = PresentMask(x3[j]);
        T s = a[j], q = b[j];
        s += KeepBits(w0 * x0[j], m0);
        q += KeepBits(v0, m0);
        s += KeepBits(w1 * x1[j], m1);
        q += KeepBits(v1, m1);
        s += KeepBits(w2 * x2[j], m2);
        q += KeepBits(v2, m2);
        s += KeepBits(w3 * x3[j], m3);
        q += KeepBits(v3, m3);
        a[j] = s;
        b[j] = q;
      }
    }
    for (; k < count; ++k) {
      const T* __restrict x = rows[k];
      const T w = weights[k], ww = w * w;
      for (int j = 0; j < n; ++j) {
        const MaskOf<T> m = PresentMask(x[j]);
        a[j] += KeepBits(w * x[j], m);
        b[j] += KeepBits(ww, m);
      }
    }
    return;
  }
  for (; k + 4 <= count; k += 4) {
    const T* __restrict x0 = rows[k], * __restrict x1 = rows[k + 1];
    const T* __restrict x2 = rows[k + 2], * __restrict x3 = rows[k + 3];
    const T w0 = weights[k], w1 = weights[k + 1], w2 = weights[k + 2], w3 = weights[k + 3];
    for (int j = 0; j < n; ++j) {
      T s = a[j];
      s += KeepBits(w0 * x0[j], PresentMask(x0[j]));
      s += KeepBits(w1 * x1[j], PresentMask(x1[j]));
      s += KeepBits(w2 * x2[j], PresentMask(x2[j]));
      s += KeepBits(w3 * x3[j], PresentMask(x3[j]));
      a[j] = s;
    }
  }
  for (; k < count; ++k) {
    const T* __restrict x = rows[k];
    const T w = weights[k];
    for (int j = 0; j < n; ++j) a[j] += KeepBits(w * x[j], PresentMask(x[j]));
  }
}

// An OpenMP simd reduction: GCC keeps hand-written lane arrays in memory here and runs three
// times slower. The reduction's order is fixed by the build and the processor (vector width: an
// AVX2 clone is chosen once at load time where the processor has it), not by the data's place in
// memory or by any thread.
template <class T>
MVDA_AVX2_CLONES void MaskedDot(const T* x, const T* p, const T* q, const MaskOf<T>* keep, int n,
                                T& xv, T& xx) {
  T a = 0, b = 0;
#pragma omp simd reduction(+ : a, b)
  for (int j = 0; j < n; ++j) {
    const MaskOf<T> m = keep[j] & PresentMask(x[j]);
    a += KeepBits(p[j] * x[j], m);
    b += KeepBits(q[j], m);
  }
  xv = a;
  xx = b;
}

template <class T>
MVDA_AVX2_CLONES int MaskedAxpy(int n, T s, const T* b, T* y) {
  int missing = 0;
  for (int j = 0; j < n; ++j) {
    const MaskOf<T> m = PresentMask(y[j]) & PresentMask(b[j]);
    y[j] += KeepBits(s * b[j], m);
    missing += y[j] == T(-99);
  }
  return missing;
}

template <class T>
void AccumulateColumnSums(const T* const* rows, int count, int n, double* sum) {
  for (int k = 0; k < count; ++k) {
    const T* __restrict x = rows[k];
    double* __restrict a = sum;
    for (int j = 0; j < n; ++j) {
      const MaskOf<double> m = MaskOf<double>(0) - static_cast<MaskOf<double>>(x[j] != T(-99));
      a[j] += KeepBits(static_cast<double>(x[j]), m);
    }
  }
}

// Four rows per sweep of the accumulators, each column's terms still added one row after the
// other, so the sums are those of the row-by-row loop while the accumulators are loaded and
// stored a quarter as often. The marker test is made on the double, which is exact (-99 converts
// to -99 and nothing else does), and keeps every lane of the loop as wide as a double. A clone for
// AVX2 is picked at load time where the processor has it; the sums do not change with it, as
// every element goes through the same operations in the same order.
template <class T>
MVDA_AVX2_CLONES void AccumulateColumnSquares(const T* const* rows, int count, int n,
                                              const double* centre, double* ss) {
  double* __restrict a = ss;
  int k = 0;
  if (!centre) {
    // Around 0 a gap can be cleared in the float itself: +0 squares to the +0 the mask gives.
    const auto square = [](T x) {
      const double v = static_cast<double>(KeepBits(x, PresentMask(x)));
      return v * v;
    };
    for (; k + 4 <= count; k += 4) {
      const T* __restrict x0 = rows[k], * __restrict x1 = rows[k + 1];
      const T* __restrict x2 = rows[k + 2], * __restrict x3 = rows[k + 3];
      for (int j = 0; j < n; ++j) {
        double s = a[j];
        s += square(x0[j]);
        s += square(x1[j]);
        s += square(x2[j]);
        s += square(x3[j]);
        a[j] = s;
      }
    }
    for (; k < count; ++k) {
      const T* __restrict x = rows[k];
      for (int j = 0; j < n; ++j) a[j] += square(x[j]);
    }
    return;
  }
  const auto term = [](T x, double centred) {
    const double v = static_cast<double>(x);
    const double d = v - centred;
    return KeepBits(d * d, MaskOf<double>(0) - static_cast<MaskOf<double>>(v != -99.0));
  };
  const double* __restrict c = centre;
  for (; k + 4 <= count; k += 4) {
    const T* __restrict x0 = rows[k], * __restrict x1 = rows[k + 1];
    const T* __restrict x2 = rows[k + 2], * __restrict x3 = rows[k + 3];
    for (int j = 0; j < n; ++j) {
      double s = a[j];
      s += term(x0[j], c[j]);
      s += term(x1[j], c[j]);
      s += term(x2[j], c[j]);
      s += term(x3[j], c[j]);
      a[j] = s;
    }
  }
  for (; k < count; ++k) {
    const T* __restrict x = rows[k];
    for (int j = 0; j < n; ++j) a[j] += term(x[j], c[j]);
  }
}

template <class T>
MVDA_AVX2_CLONES int CountMissing(const T* x, int n) {
  int missing = 0;
  for (int j = 0; j < n; ++j) missing += x[j] == T(-99);
  return missing;
}

#define MVDA_INSTANTIATE(T)                                                                    \
  template void AccumulateWeightedRows<T>(const T* const*, const T*, int, int, T*, T*);        \
  template void MaskedDot<T>(const T*, const T*, const T*, const MaskOf<T>*, int, T&, T&);     \
  template int MaskedAxpy<T>(int, T, const T*, T*);                                            \
  template void AccumulateColumnSums<T>(const T* const*, int, int, double*);                   \
  template void AccumulateColumnSquares<T>(const T* const*, int, int, const double*, double*); \
  template int CountMissing<T>(const T*, int);
MVDA_INSTANTIATE(float)
MVDA_INSTANTIATE(double)
#undef MVDA_INSTANTIATE

}  // namespace mvda::detail
