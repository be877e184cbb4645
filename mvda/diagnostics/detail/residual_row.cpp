#include <mvda/containers/detail/simd_clones.h>
#include <mvda/diagnostics/detail/residual_row.h>

#include <cstring>

namespace mvda::detail {

LoadingRows::LoadingRows(const NCDataMatrix<float>& pprim)
    : a_(pprim.SizeRows()), k_(a_ > 0 ? pprim.SizeColumns() : 0) {
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
// (two SSE halves) and the AVX2 clone give the same bits. Loads go through memcpy: rows are
// aligned to a float only.
typedef float Float8 __attribute__((vector_size(32)));
typedef int Int8 __attribute__((vector_size(32)));
typedef float Float4 __attribute__((vector_size(16)));
typedef double Double4 __attribute__((vector_size(32)));

template <bool kComplete>
MVDA_AVX2_CLONES double Squares(const float* x, const float* t, const float* p, int a_count,
                                int k, int& present) {
  Double4 low = {0, 0, 0, 0}, high = {0, 0, 0, 0};
  Int8 kept = {0, 0, 0, 0, 0, 0, 0, 0};  // -1 per present cell
  int j = 0;
  for (; j + 8 <= k; j += 8) {
    Float8 xv;
    std::memcpy(&xv, x + j, sizeof xv);
    Float8 e = xv;
    for (int a = 0; a < a_count; ++a) {
      Float8 pv;
      std::memcpy(&pv, p + static_cast<std::size_t>(a) * k + j, sizeof pv);
      e -= t[a] * pv;
    }
    if (!kComplete) {
      // A gap's lane becomes +0, whose square adds nothing.
      const Int8 keep = xv != -99.0f;
      e = reinterpret_cast<Float8>(reinterpret_cast<Int8>(e) & keep);
      kept += keep;
    }
    const Double4 e_low = __builtin_convertvector(__builtin_shufflevector(e, e, 0, 1, 2, 3), Double4);
    const Double4 e_high =
        __builtin_convertvector(__builtin_shufflevector(e, e, 4, 5, 6, 7), Double4);
    low += e_low * e_low;
    high += e_high * e_high;
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
  const Double4 s = low + high;
  return ((s[0] + s[1]) + (s[2] + s[3])) + tail;
}

}  // namespace

double ResidualSquares(const float* x, const float* t, const LoadingRows& p, bool complete,
                       int& present) {
  return complete ? Squares<true>(x, t, p.Data(), p.Components(), p.Variables(), present)
                  : Squares<false>(x, t, p.Data(), p.Components(), p.Variables(), present);
}

}  // namespace mvda::detail
