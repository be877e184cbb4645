#include <mvda/containers/detail/simd_clones.h>
#include <mvda/diagnostics/detail/residual_row.h>

#include <cstring>

namespace mvda::detail {

LoadingRows::LoadingRows(const NCDataMatrix<float>& pprim, int variables)
    : a_(pprim.SizeRows()), k_(variables) {
  values_.resize(static_cast<std::size_t>(a_) * k_);
  for (int a = 1; a <= a_; ++a) {
    const float* p = pprim[a].GetVector() + 1;
    float* out = values_.data() + static_cast<std::size_t>(a - 1) * k_;
    for (int j = 0; j < k_; ++j) out[j] = p[j] == -99.0f ? 0.0f : p[j];
  }
}

bool ScoresOf(const NCDataMatrix<float>& tprim, int observation, float* t) {
  const int a_count = tprim.SizeRows();
  for (int a = 1; a <= a_count; ++a) {
    const float value = tprim[a][observation];
    if (value == -99.0f) return false;
    t[a - 1] = value;
  }
  return true;
}

namespace {

// GCC's generic vectors: eight float lanes, each operation exact per lane, so the baseline build
// (SSE halves) and the AVX2 clone give the same bits. Loads go through memcpy: rows are aligned to
// a float only.
typedef float Float8 __attribute__((vector_size(32)));
typedef int Int8 __attribute__((vector_size(32)));
typedef double Double8 __attribute__((vector_size(64)));
typedef double Double4 __attribute__((vector_size(32)));

// The sums of squares of eight lanes, kept as two halves so that they stay in registers.
struct LaneSums {
  Double4 low = {0, 0, 0, 0}, high = {0, 0, 0, 0};
  void Add(const Float8& e) {
    const Double8 d = __builtin_convertvector(e, Double8);
    const Double4 d_low = __builtin_shufflevector(d, d, 0, 1, 2, 3);
    const Double4 d_high = __builtin_shufflevector(d, d, 4, 5, 6, 7);
    low += d_low * d_low;
    high += d_high * d_high;
  }
  double Total() const {
    return ((low[0] + high[0]) + (low[1] + high[1])) + ((low[2] + high[2]) + (low[3] + high[3]));
  }
};

template <bool kComplete>
inline void AddBlock(const float* x, const float* t, const float* p, int a_count, int k,
                     LaneSums& sum, Int8& kept) {
  Float8 xv;
  std::memcpy(&xv, x, sizeof xv);
  Float8 e = xv;
  for (int a = 0; a < a_count; ++a) {
    Float8 pv;
    std::memcpy(&pv, p + static_cast<std::size_t>(a) * k, sizeof pv);
    e -= t[a] * pv;
  }
  if (!kComplete) {
    // A gap's lane becomes +0, whose square adds nothing.
    const Int8 keep = xv != -99.0f;
    e = reinterpret_cast<Float8>(reinterpret_cast<Int8>(e) & keep);
    kept += keep;
  }
  sum.Add(e);
}

// Blocks of eight columns, two at a time so that each loading row is walked once per sixteen
// columns; the sums are those of one block after the other.
template <bool kComplete>
MVDA_AVX2_CLONES double Squares(const float* x, const float* t, const float* p, int a_count,
                                int k, int& present) {
  LaneSums sum;
  Int8 kept = {0, 0, 0, 0, 0, 0, 0, 0};  // -1 per present cell
  int j = 0;
  for (; j + 16 <= k; j += 16) {
    Float8 x0, x1;
    std::memcpy(&x0, x + j, sizeof x0);
    std::memcpy(&x1, x + j + 8, sizeof x1);
    Float8 e0 = x0, e1 = x1;
    for (int a = 0; a < a_count; ++a) {
      const float* pa = p + static_cast<std::size_t>(a) * k + j;
      Float8 p0, p1;
      std::memcpy(&p0, pa, sizeof p0);
      std::memcpy(&p1, pa + 8, sizeof p1);
      e0 -= t[a] * p0;
      e1 -= t[a] * p1;
    }
    if (!kComplete) {
      const Int8 keep0 = x0 != -99.0f, keep1 = x1 != -99.0f;
      e0 = reinterpret_cast<Float8>(reinterpret_cast<Int8>(e0) & keep0);
      e1 = reinterpret_cast<Float8>(reinterpret_cast<Int8>(e1) & keep1);
      kept += keep0;
      kept += keep1;
    }
    sum.Add(e0);
    sum.Add(e1);
  }
  if (j + 8 <= k) {
    AddBlock<kComplete>(x + j, t, p + j, a_count, k, sum, kept);
    j += 8;
  }
  double tail = 0;
  int count = kComplete ? k : 0;
  for (; j < k; ++j) {
    if (!kComplete && x[j] == -99.0f) continue;
    float e = x[j];
    for (int a = 0; a < a_count; ++a) e -= t[a] * p[static_cast<std::size_t>(a) * k + j];
    tail += static_cast<double>(e) * e;
    if (!kComplete) ++count;
  }
  if (!kComplete) {
    for (int l = 0; l < 8; ++l) count -= kept[l];
  }
  present = count;
  return sum.Total() + tail;
}

}  // namespace

double ResidualSquares(const float* x, const float* t, const LoadingRows& p, bool complete,
                       int& present) {
  return complete ? Squares<true>(x, t, p.Data(), p.Components(), p.Variables(), present)
                  : Squares<false>(x, t, p.Data(), p.Components(), p.Variables(), present);
}

}  // namespace mvda::detail
