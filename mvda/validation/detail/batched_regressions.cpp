#include <mvda/containers/detail/parallel_for.h>
#include <mvda/validation/detail/batched_regressions.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#endif

namespace mvda::detail {

namespace {

constexpr float kMis = -99.0f;

// Rows are summed in bands of this many, each band in float, and the band sums added in band
// order in double: the cut depends on the shape alone, so any team size gives the same bits, and
// a band's float sum is short enough to keep its rounding small.
constexpr int kBandRows = 256;

// The vectors are padded to a multiple of eight lanes with zeros, so that the inner loops run over
// whole AVX2 registers and need no remainder.
int Padded(int g) { return (g + 7) / 8 * 8; }

// The regression coefficient from the paired sums, as the single-vector regressions form it: a
// paired sum of squares below 1e-30 counts as 0 (0/0 without the floor, a NaN that NIPALS reads as
// a dead component), and the floor keeps a handful of pairs from making it explode.
float Coefficient(double a, double b, double all, bool fix) {
  if (b < 1e-30) a = b = 0;
  if (fix) return static_cast<float>(a / std::max(b, all / 3));
  return static_cast<float>(a / b);
}

// The g vectors (length n, row-major n x g) with their gaps as 0, padded to gp lanes, and per
// vector the sum of squares over the present elements, in double as the single-vector forms sum.
struct Operand {
  int gp;
  std::vector<float> zeroed;
  std::vector<float> squares;  // the squares of zeroed
  std::vector<float> marks;    // 1 where the element is present, else 0 (padding included)
  std::vector<double> all;
  std::vector<int> present;  // per vector, its present elements

  Operand(const float* v, int n, int g)
      : gp(Padded(g)),
        zeroed(static_cast<std::size_t>(n) * gp, 0.0f),
        squares(zeroed.size(), 0.0f),
        marks(zeroed.size(), 0.0f),
        all(static_cast<std::size_t>(g), 0.0),
        present(static_cast<std::size_t>(g), 0) {
    for (int i = 0; i < n; ++i)
      for (int h = 0; h < g; ++h) {
        const float x = v[static_cast<std::size_t>(i) * g + h];
        if (x == kMis) continue;
        zeroed[static_cast<std::size_t>(i) * gp + h] = x;
        squares[static_cast<std::size_t>(i) * gp + h] = x * x;
        marks[static_cast<std::size_t>(i) * gp + h] = 1.0f;
        all[h] += static_cast<double>(x) * x;
        ++present[h];
      }
  }
};

// acc[j][h] += sum over rows r of x[r][j] v[r][h], for `count` rows, four at a time so that each
// accumulator is loaded and stored once per four rows. GP, the padded number of vectors, is a
// constant so that the lanes of a row live in registers.
template <int GP>
void AccumulateColumns(const float* __restrict x, const float* __restrict v, int count, int k,
                       float* __restrict acc) {
  int r = 0;
  for (; r + 4 <= count; r += 4) {
    const float* x0 = x + static_cast<std::size_t>(r) * k;
    const float *x1 = x0 + k, *x2 = x1 + k, *x3 = x2 + k;
    float v0[GP], v1[GP], v2[GP], v3[GP];
    for (int h = 0; h < GP; ++h) {
      v0[h] = v[(r + 0) * GP + h];
      v1[h] = v[(r + 1) * GP + h];
      v2[h] = v[(r + 2) * GP + h];
      v3[h] = v[(r + 3) * GP + h];
    }
    for (int j = 0; j < k; ++j) {
      float* a = acc + static_cast<std::size_t>(j) * GP;
      const float e0 = x0[j], e1 = x1[j], e2 = x2[j], e3 = x3[j];
      for (int h = 0; h < GP; ++h) a[h] = a[h] + e0 * v0[h] + e1 * v1[h] + e2 * v2[h] + e3 * v3[h];
    }
  }
  for (; r < count; ++r) {
    const float* x0 = x + static_cast<std::size_t>(r) * k;
    const float* v0 = v + static_cast<std::size_t>(r) * GP;
    for (int j = 0; j < k; ++j) {
      float* a = acc + static_cast<std::size_t>(j) * GP;
      for (int h = 0; h < GP; ++h) a[h] += x0[j] * v0[h];
    }
  }
}

// out[r][h] = sum over j of x[r][j] w[j][h], for `count` rows, four at a time.
template <int GP>
void RowProducts(const float* __restrict x, const float* __restrict w, int count, int k,
                 float* __restrict out) {
  int r = 0;
  for (; r + 4 <= count; r += 4) {
    float a0[GP] = {}, a1[GP] = {}, a2[GP] = {}, a3[GP] = {};
    const float* x0 = x + static_cast<std::size_t>(r) * k;
    const float *x1 = x0 + k, *x2 = x1 + k, *x3 = x2 + k;
    for (int j = 0; j < k; ++j) {
      const float* wj = w + static_cast<std::size_t>(j) * GP;
      const float e0 = x0[j], e1 = x1[j], e2 = x2[j], e3 = x3[j];
      for (int h = 0; h < GP; ++h) {
        a0[h] += e0 * wj[h];
        a1[h] += e1 * wj[h];
        a2[h] += e2 * wj[h];
        a3[h] += e3 * wj[h];
      }
    }
    float* o = out + static_cast<std::size_t>(r) * GP;
    for (int h = 0; h < GP; ++h) {
      o[h] = a0[h];
      o[GP + h] = a1[h];
      o[2 * GP + h] = a2[h];
      o[3 * GP + h] = a3[h];
    }
  }
  for (; r < count; ++r) {
    float a0[GP] = {};
    const float* x0 = x + static_cast<std::size_t>(r) * k;
    for (int j = 0; j < k; ++j) {
      const float* wj = w + static_cast<std::size_t>(j) * GP;
      for (int h = 0; h < GP; ++h) a0[h] += x0[j] * wj[h];
    }
    for (int h = 0; h < GP; ++h) out[static_cast<std::size_t>(r) * GP + h] = a0[h];
  }
}

// The kernels for a padded width known only at run time.
template <template <int> class Kernel, class... Args>
void ForWidth(int gp, Args... args) {
  switch (gp) {
    case 8:
      return Kernel<8>::Run(args...);
    case 16:
      return Kernel<16>::Run(args...);
    case 24:
      return Kernel<24>::Run(args...);
    case 32:
      return Kernel<32>::Run(args...);
    case 40:
      return Kernel<40>::Run(args...);
    case 48:
      return Kernel<48>::Run(args...);
    case 56:
      return Kernel<56>::Run(args...);
    default:
      return Kernel<64>::Run(args...);
  }
}
// Where the processor has AVX2 the kernels run on eight-lane registers, written out with
// intrinsics since the compiler does not vectorise these loops well by itself. The arithmetic is
// the same as the baseline loops above, operation for operation (no fused multiply-add), so the
// results do not depend on the processor.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define MVDA_HAVE_AVX2_KERNELS 1
const bool kHasAvx2 = __builtin_cpu_supports("avx2");

template <int GP>
__attribute__((target("avx2"))) void AccumulateColumnsAvx2(const float* x, const float* v,
                                                           int count, int k, float* acc) {
  constexpr int L = GP / 8;
  int r = 0;
  for (; r + 4 <= count; r += 4) {
    const float* x0 = x + static_cast<std::size_t>(r) * k;
    const float *x1 = x0 + k, *x2 = x1 + k, *x3 = x2 + k;
    __m256 v0[L], v1[L], v2[L], v3[L];
    for (int l = 0; l < L; ++l) {
      v0[l] = _mm256_loadu_ps(v + (r + 0) * GP + 8 * l);
      v1[l] = _mm256_loadu_ps(v + (r + 1) * GP + 8 * l);
      v2[l] = _mm256_loadu_ps(v + (r + 2) * GP + 8 * l);
      v3[l] = _mm256_loadu_ps(v + (r + 3) * GP + 8 * l);
    }
    for (int j = 0; j < k; ++j) {
      float* a = acc + static_cast<std::size_t>(j) * GP;
      const __m256 e0 = _mm256_set1_ps(x0[j]), e1 = _mm256_set1_ps(x1[j]),
                   e2 = _mm256_set1_ps(x2[j]), e3 = _mm256_set1_ps(x3[j]);
      for (int l = 0; l < L; ++l) {
        __m256 sum = _mm256_loadu_ps(a + 8 * l);
        sum = _mm256_add_ps(sum, _mm256_mul_ps(e0, v0[l]));
        sum = _mm256_add_ps(sum, _mm256_mul_ps(e1, v1[l]));
        sum = _mm256_add_ps(sum, _mm256_mul_ps(e2, v2[l]));
        sum = _mm256_add_ps(sum, _mm256_mul_ps(e3, v3[l]));
        _mm256_storeu_ps(a + 8 * l, sum);
      }
    }
  }
  for (; r < count; ++r) {
    const float* x0 = x + static_cast<std::size_t>(r) * k;
    for (int j = 0; j < k; ++j) {
      float* a = acc + static_cast<std::size_t>(j) * GP;
      const __m256 e0 = _mm256_set1_ps(x0[j]);
      for (int l = 0; l < L; ++l)
        _mm256_storeu_ps(a + 8 * l,
                         _mm256_add_ps(_mm256_loadu_ps(a + 8 * l),
                                       _mm256_mul_ps(e0, _mm256_loadu_ps(v + r * GP + 8 * l))));
    }
  }
}

template <int GP>
__attribute__((target("avx2"))) void RowProductsAvx2(const float* x, const float* w, int count,
                                                     int k, float* out) {
  constexpr int L = GP / 8;
  int r = 0;
  for (; r + 4 <= count; r += 4) {
    const float* x0 = x + static_cast<std::size_t>(r) * k;
    const float *x1 = x0 + k, *x2 = x1 + k, *x3 = x2 + k;
    __m256 a0[L], a1[L], a2[L], a3[L];
    for (int l = 0; l < L; ++l) a0[l] = a1[l] = a2[l] = a3[l] = _mm256_setzero_ps();
    for (int j = 0; j < k; ++j) {
      const float* wj = w + static_cast<std::size_t>(j) * GP;
      const __m256 e0 = _mm256_set1_ps(x0[j]), e1 = _mm256_set1_ps(x1[j]),
                   e2 = _mm256_set1_ps(x2[j]), e3 = _mm256_set1_ps(x3[j]);
      for (int l = 0; l < L; ++l) {
        const __m256 wl = _mm256_loadu_ps(wj + 8 * l);
        a0[l] = _mm256_add_ps(a0[l], _mm256_mul_ps(e0, wl));
        a1[l] = _mm256_add_ps(a1[l], _mm256_mul_ps(e1, wl));
        a2[l] = _mm256_add_ps(a2[l], _mm256_mul_ps(e2, wl));
        a3[l] = _mm256_add_ps(a3[l], _mm256_mul_ps(e3, wl));
      }
    }
    float* o = out + static_cast<std::size_t>(r) * GP;
    for (int l = 0; l < L; ++l) {
      _mm256_storeu_ps(o + 8 * l, a0[l]);
      _mm256_storeu_ps(o + GP + 8 * l, a1[l]);
      _mm256_storeu_ps(o + 2 * GP + 8 * l, a2[l]);
      _mm256_storeu_ps(o + 3 * GP + 8 * l, a3[l]);
    }
  }
  for (; r < count; ++r) {
    const float* x0 = x + static_cast<std::size_t>(r) * k;
    __m256 a0[L];
    for (int l = 0; l < L; ++l) a0[l] = _mm256_setzero_ps();
    for (int j = 0; j < k; ++j) {
      const __m256 e0 = _mm256_set1_ps(x0[j]);
      for (int l = 0; l < L; ++l)
        a0[l] = _mm256_add_ps(
            a0[l],
            _mm256_mul_ps(e0, _mm256_loadu_ps(w + static_cast<std::size_t>(j) * GP + 8 * l)));
    }
    for (int l = 0; l < L; ++l)
      _mm256_storeu_ps(out + static_cast<std::size_t>(r) * GP + 8 * l, a0[l]);
  }
}
#else
const bool kHasAvx2 = false;
#endif

template <int GP>
struct ColumnKernel {
  static void Run(const float* x, const float* v, int count, int k, float* acc) {
#ifdef MVDA_HAVE_AVX2_KERNELS
    if (kHasAvx2) return AccumulateColumnsAvx2<GP>(x, v, count, k, acc);
#endif
    AccumulateColumns<GP>(x, v, count, k, acc);
  }
};
template <int GP>
struct RowKernel {
  static void Run(const float* x, const float* w, int count, int k, float* out) {
#ifdef MVDA_HAVE_AVX2_KERNELS
    if (kHasAvx2) return RowProductsAvx2<GP>(x, w, count, k, out);
#endif
    RowProducts<GP>(x, w, count, k, out);
  }
};

// The squares and presence marks of the vectors summed over the gaps: per column for the rows
// first..first+count of a band (squareSums and counts are the band's k x GP blocks), or over the
// gaps of one row (missed and lost, GP lanes, are set). The width is a constant so that the lanes
// are whole registers.
template <int GP>
void SumColumnGaps(const int* gapStart, const int* gapColumns, int first, int count,
                   const float* squares, const float* marks, float* squareSums, float* counts) {
  for (int i = first; i < first + count; ++i) {
    const float* q = squares + static_cast<std::size_t>(i) * GP;
    const float* m = marks + static_cast<std::size_t>(i) * GP;
    for (int e = gapStart[i]; e < gapStart[i + 1]; ++e) {
      float* s = squareSums + static_cast<std::size_t>(gapColumns[e]) * GP;
      float* c = counts + static_cast<std::size_t>(gapColumns[e]) * GP;
      for (int h = 0; h < GP; ++h) {
        s[h] += q[h];
        c[h] += m[h];
      }
    }
  }
}

template <int GP>
void SumRowGaps(const int* gapColumns, int gaps, const float* squares, const float* marks,
                float* missed, float* lost) {
  float s[GP] = {}, c[GP] = {};
  for (int e = 0; e < gaps; ++e) {
    const float* q = squares + static_cast<std::size_t>(gapColumns[e]) * GP;
    const float* m = marks + static_cast<std::size_t>(gapColumns[e]) * GP;
    for (int h = 0; h < GP; ++h) {
      s[h] += q[h];
      c[h] += m[h];
    }
  }
  for (int h = 0; h < GP; ++h) {
    missed[h] = s[h];
    lost[h] = c[h];
  }
}

#ifdef MVDA_HAVE_AVX2_KERNELS
template <int GP>
__attribute__((target("avx2"))) void SumColumnGapsAvx2(const int* gapStart, const int* gapColumns,
                                                       int first, int count, const float* squares,
                                                       const float* marks, float* squareSums,
                                                       float* counts) {
  constexpr int L = GP / 8;
  for (int i = first; i < first + count; ++i) {
    __m256 q[L], m[L];
    for (int l = 0; l < L; ++l) {
      q[l] = _mm256_loadu_ps(squares + static_cast<std::size_t>(i) * GP + 8 * l);
      m[l] = _mm256_loadu_ps(marks + static_cast<std::size_t>(i) * GP + 8 * l);
    }
    for (int e = gapStart[i]; e < gapStart[i + 1]; ++e) {
      float* s = squareSums + static_cast<std::size_t>(gapColumns[e]) * GP;
      float* c = counts + static_cast<std::size_t>(gapColumns[e]) * GP;
      for (int l = 0; l < L; ++l) {
        _mm256_storeu_ps(s + 8 * l, _mm256_add_ps(_mm256_loadu_ps(s + 8 * l), q[l]));
        _mm256_storeu_ps(c + 8 * l, _mm256_add_ps(_mm256_loadu_ps(c + 8 * l), m[l]));
      }
    }
  }
}
template <int GP>
__attribute__((target("avx2"))) void SumRowGapsAvx2(const int* gapColumns, int gaps,
                                                    const float* squares, const float* marks,
                                                    float* missed, float* lost) {
  constexpr int L = GP / 8;
  __m256 s[L], c[L];
  for (int l = 0; l < L; ++l) s[l] = c[l] = _mm256_setzero_ps();
  for (int e = 0; e < gaps; ++e) {
    const float* q = squares + static_cast<std::size_t>(gapColumns[e]) * GP;
    const float* m = marks + static_cast<std::size_t>(gapColumns[e]) * GP;
    for (int l = 0; l < L; ++l) {
      s[l] = _mm256_add_ps(s[l], _mm256_loadu_ps(q + 8 * l));
      c[l] = _mm256_add_ps(c[l], _mm256_loadu_ps(m + 8 * l));
    }
  }
  for (int l = 0; l < L; ++l) {
    _mm256_storeu_ps(missed + 8 * l, s[l]);
    _mm256_storeu_ps(lost + 8 * l, c[l]);
  }
}
#endif

// Sets the gaps of a row from column `first` on to 0 and writes their columns, in order, to gap;
// returns the end of what it wrote.
int* FileGapsFrom(float* row, int first, int columns, int* gap) {
  for (int j = first; j < columns; ++j)
    if (row[j] == kMis) {
      row[j] = 0.0f;
      *gap++ = j;
    }
  return gap;
}

#ifdef MVDA_HAVE_AVX2_KERNELS
// Eight elements compared at a time; most blocks of a row with a tenth missing have no gap or one.
__attribute__((target("avx2"))) void FileGapsAvx2(float* row, int columns, int* gap) {
  const __m256 marker = _mm256_set1_ps(kMis);
  int j = 0;
  for (; j + 8 <= columns; j += 8) {
    const __m256 x = _mm256_loadu_ps(row + j);
    const __m256 is = _mm256_cmp_ps(x, marker, _CMP_EQ_OQ);
    unsigned bits = static_cast<unsigned>(_mm256_movemask_ps(is));
    if (bits == 0) continue;
    _mm256_storeu_ps(row + j, _mm256_andnot_ps(is, x));
    while (bits != 0) {
      *gap++ = j + __builtin_ctz(bits);
      bits &= bits - 1;
    }
  }
  FileGapsFrom(row, j, columns, gap);
}
#endif

void FileGaps(float* row, int columns, int* gap) {
#ifdef MVDA_HAVE_AVX2_KERNELS
  if (kHasAvx2) return FileGapsAvx2(row, columns, gap);
#endif
  FileGapsFrom(row, 0, columns, gap);
}

template <int GP>
struct ColumnGapKernel {
  static void Run(const int* gapStart, const int* gapColumns, int first, int count,
                  const float* squares, const float* marks, float* squareSums, float* counts) {
#ifdef MVDA_HAVE_AVX2_KERNELS
    if (kHasAvx2)
      return SumColumnGapsAvx2<GP>(gapStart, gapColumns, first, count, squares, marks, squareSums,
                                   counts);
#endif
    SumColumnGaps<GP>(gapStart, gapColumns, first, count, squares, marks, squareSums, counts);
  }
};
template <int GP>
struct RowGapKernel {
  static void Run(const int* gapColumns, int gaps, const float* squares, const float* marks,
                  float* missed, float* lost) {
#ifdef MVDA_HAVE_AVX2_KERNELS
    if (kHasAvx2) return SumRowGapsAvx2<GP>(gapColumns, gaps, squares, marks, missed, lost);
#endif
    SumRowGaps<GP>(gapColumns, gaps, squares, marks, missed, lost);
  }
};

constexpr int kMaxBatch = 64;

}  // namespace

BatchedRegressions::BatchedRegressions(const NCDataMatrix<float>& x)
    : rows_(x.SizeRows()),
      columns_(x.SizeColumns()),
      values_(new float[static_cast<std::size_t>(rows_) * columns_]),
      gap_start_(static_cast<std::size_t>(rows_) + 1, 0),
      column_gone_(static_cast<std::size_t>(columns_), 0) {
  // The gaps row by row, in column order (each row's count is known, so every row knows where its
  // list starts), and the gaps themselves set to 0 so that the products skip them.
  for (int i = 0; i < rows_; ++i) gap_start_[i + 1] = gap_start_[i] + x[i + 1].GetNumMisVal();
  gap_columns_.resize(static_cast<std::size_t>(gap_start_[rows_]));
  ParallelFor(rows_, [&](int i) {
    if (columns_ == 0) return;
    float* row = values_.get() + static_cast<std::size_t>(i) * columns_;
    std::memcpy(row, x[i + 1].GetVector() + 1, sizeof(float) * columns_);
    if (gap_start_[i + 1] > gap_start_[i])
      FileGaps(row, columns_, gap_columns_.data() + gap_start_[i]);
  });
  for (int j = 0; j < columns_; ++j) column_gone_[j] = x.GetColumnMisVal(j + 1) == rows_;
}

void BatchedRegressions::RegressColumns(const float* v, int g, bool fix, float* out) const {
  if (g > kMaxBatch) {  // wider batches in pieces
    std::vector<float> part(static_cast<std::size_t>(rows_) * kMaxBatch),
        result(static_cast<std::size_t>(columns_) * kMaxBatch);
    for (int first = 0; first < g; first += kMaxBatch) {
      const int width = std::min(kMaxBatch, g - first);
      for (int i = 0; i < rows_; ++i)
        std::memcpy(part.data() + static_cast<std::size_t>(i) * width,
                    v + static_cast<std::size_t>(i) * g + first, sizeof(float) * width);
      RegressColumns(part.data(), width, fix, result.data());
      for (int j = 0; j < columns_; ++j)
        std::memcpy(out + static_cast<std::size_t>(j) * g + first,
                    result.data() + static_cast<std::size_t>(j) * width, sizeof(float) * width);
    }
    return;
  }
  if (g < 1 || columns_ == 0) return;
  const Operand in(v, rows_, g);
  const int gp = in.gp, k = columns_;
  const int bands = (rows_ + kBandRows - 1) / kBandRows;
  const std::size_t block = static_cast<std::size_t>(k) * gp;
  // Per band: the products, and at the band's gaps the squares of the vectors and the number of
  // their present elements, which the paired sums of squares and the pair counts lack against the
  // whole vectors.
  std::vector<float> sums(static_cast<std::size_t>(bands) * block, 0.0f);
  std::vector<float> gapSquares(HasGaps() ? sums.size() : 0, 0.0f);
  std::vector<float> gapPresent(gapSquares.size(), 0.0f);  // counts, exact in a float
  ParallelFor(bands, [&](int band) {
    const int first = band * kBandRows, count = std::min(kBandRows, rows_ - first);
    ForWidth<ColumnKernel>(gp, values_.get() + static_cast<std::size_t>(first) * k,
                           in.zeroed.data() + static_cast<std::size_t>(first) * gp, count, k,
                           sums.data() + band * block);
    if (!HasGaps()) return;
    ForWidth<ColumnGapKernel>(gp, gap_start_.data(), gap_columns_.data(), first, count,
                              in.squares.data(), in.marks.data(), gapSquares.data() + band * block,
                              gapPresent.data() + band * block);
  });
  for (int j = 0; j < k; ++j)
    for (int h = 0; h < g; ++h) {
      double a = 0, missed = 0;
      int pairs = in.present[h];
      const std::size_t at = static_cast<std::size_t>(j) * gp + h;
      for (int band = 0; band < bands; ++band) {
        a += sums[band * block + at];
        if (HasGaps()) {
          missed += gapSquares[band * block + at];
          pairs -= static_cast<int>(gapPresent[band * block + at]);
        }
      }
      const std::size_t e = static_cast<std::size_t>(j) * g + h;
      if (column_gone_[j] || pairs == 0)
        out[e] = kMis;
      else
        out[e] = Coefficient(a, std::max(0.0, in.all[h] - missed), in.all[h], fix);
    }
}

void BatchedRegressions::RegressRows(const float* w, int g, bool fix, float* out) const {
  if (g > kMaxBatch) {
    std::vector<float> part(static_cast<std::size_t>(columns_) * kMaxBatch),
        result(static_cast<std::size_t>(rows_) * kMaxBatch);
    for (int first = 0; first < g; first += kMaxBatch) {
      const int width = std::min(kMaxBatch, g - first);
      for (int j = 0; j < columns_; ++j)
        std::memcpy(part.data() + static_cast<std::size_t>(j) * width,
                    w + static_cast<std::size_t>(j) * g + first, sizeof(float) * width);
      RegressRows(part.data(), width, fix, result.data());
      for (int i = 0; i < rows_; ++i)
        std::memcpy(out + static_cast<std::size_t>(i) * g + first,
                    result.data() + static_cast<std::size_t>(i) * width, sizeof(float) * width);
    }
    return;
  }
  if (g < 1 || rows_ == 0) return;
  const Operand in(w, columns_, g);
  const int gp = in.gp, k = columns_;
  const int bands = (rows_ + kBandRows - 1) / kBandRows;
  ParallelFor(bands, [&](int band) {
    const int first = band * kBandRows, count = std::min(kBandRows, rows_ - first);
    std::vector<float> products(static_cast<std::size_t>(count) * gp);
    ForWidth<RowKernel>(gp, values_.get() + static_cast<std::size_t>(first) * k, in.zeroed.data(),
                        count, k, products.data());
    std::vector<float> missed(static_cast<std::size_t>(gp)), lost(missed.size());
    for (int i = first; i < first + count; ++i) {
      ForWidth<RowGapKernel>(gp, gap_columns_.data() + gap_start_[i],
                             gap_start_[i + 1] - gap_start_[i], in.squares.data(), in.marks.data(),
                             missed.data(), lost.data());
      for (int h = 0; h < g; ++h) {
        const std::size_t e = static_cast<std::size_t>(i) * g + h;
        if (in.present[h] == static_cast<int>(lost[h]))
          out[e] = kMis;
        else
          out[e] = Coefficient(products[static_cast<std::size_t>(i - first) * gp + h],
                               std::max(0.0, in.all[h] - missed[h]), in.all[h], fix);
      }
    }
  });
}
}  // namespace mvda::detail
