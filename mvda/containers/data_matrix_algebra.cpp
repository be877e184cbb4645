// NCDataMatrix<T> algebra: products, rank-one updates, inverse, SVD and regression coefficients,
// the NIPALS projections and start column, and the result proxies NCMatOpResultProxy and
// NCVecOpResultProxy.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/detail/blas.h>
#include <mvda/containers/detail/blocked_products.h>
#include <mvda/containers/detail/masked_kernels.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/containers/detail/work_grid.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using mvda::detail::MaskOf;
using mvda::detail::ParallelFor;

namespace {

template <class T>
constexpr T kMis = T(-99);

[[noreturn]] void Fail(const char* place, const std::string& fault) {
  throw NCError(std::string("NCDataMatrix::") + place + ": " + fault);
}

std::string Shape(long long rows, long long cols) {
  return std::to_string(rows) + " x " + std::to_string(cols);
}

void CheckLength(const char* place, const char* what, int length, int expected, const char* of) {
  if (length != expected)
    Fail(place, std::string(what) + " of length " + std::to_string(length) + " for " +
                    std::to_string(expected) + " " + of);
}

void CheckExclusion(const char* place, const NCIntegralVector<int, -99>* exclude, int needed,
                    const char* of) {
  if (exclude && exclude->Size() < needed)
    Fail(place, "exclusion list of " + std::to_string(exclude->Size()) + " for " +
                    std::to_string(needed) + " " + of);
}

// ---------------------------------------------------------------------------------------------
// Raw rows for BLAS

using Grid = mvda::detail::WorkGrid;
using mvda::detail::RowStarts;
constexpr int kBlockColumns = Grid::kBlockColumns;

// The elements a loop over a rows x cols matrix reads: what decides how many threads it is worth.
inline long long Work(long long rows, long long cols) { return rows * cols; }

// The BLAS never reads a matrix's rows in place as one matrix. The rows are allocated one by one,
// and whether they happen to lie at one fixed distance changes from run to run (the sanitizer's
// quarantine makes it plain); a matrix-vector product over them in place would take that distance
// as its leading dimension, and OpenBLAS's kernels sum in another order for lda > n than for
// lda = n, so the answer would depend on where the allocator put the rows. Instead, rows of at
// least kRowCallWidth elements go through level-1 calls one row at a time (dot products and axpy,
// which have no leading dimension, whose results were checked not to depend on the alignment of
// their operands, and which run as fast as the matrix-vector product on these memory-bound sums);
// narrower rows, where a call per row would cost more than its arithmetic, are copied in groups
// into a buffer and read with the leading dimension equal to the width. Which of the two runs
// depends on the width alone.
constexpr int kRowCallWidth = 256;

// Copies rows[0..count-1] (width elements each) one after another into `to`.
template <class T>
void PackRows(const T* const* rows, int count, int width, T* to) {
  for (int k = 0; k < count; ++k)
    std::memcpy(to + static_cast<std::size_t>(k) * width, rows[k], sizeof(T) * width);
}

// Rows per packed group: small enough for the BLAS call to stay on the calling thread.
inline int PackedGroup(int width) {
  return std::max(1, std::min(64, mvda::detail::kBlasSingleThreadElements / std::max(1, width)));
}

// BLAS dot product in pieces small enough to run on the calling thread; pieces added in order.
template <class T>
double DotInPieces(int n, const T* x, const T* y) {
  if (n <= mvda::detail::kBlasSingleThreadElements)
    return static_cast<double>(mvda::detail::Dot(n, x, y));
  double sum = 0;
  for (int j = 0; j < n; j += mvda::detail::kBlasSingleThreadElements)
    sum += static_cast<double>(
        mvda::detail::Dot(std::min(mvda::detail::kBlasSingleThreadElements, n - j), x + j, y + j));
  return sum;
}

template <class T>
void AxpyInPieces(int n, T alpha, const T* x, T* y) {
  for (int j = 0; j < n; j += mvda::detail::kBlasSingleThreadElements)
    mvda::detail::Axpy(std::min(mvda::detail::kBlasSingleThreadElements, n - j), alpha, x + j,
                       y + j);
}

// ---------------------------------------------------------------------------------------------
// Weighted column sums: the core of PreMultiply and of the column regressions

// For every column j: num_j = sum w_i x_ij and (when den is wanted) den_j = sum w_i^2, over the
// rows i with use[i] where x_ij is present. `complete` says that no element of the matrix or of w
// is missing and every row is used: then num is formed by one BLAS axpy per row, or one transposed
// matrix-vector product per packed group of narrow rows, and den_j is the same sum of w_i^2 for
// every column.
struct ColumnSums {
  std::vector<double> num, den;
};

template <class T>
ColumnSums WeightedColumnSums(const std::vector<const T*>& rows, const T* w,
                              const std::vector<char>& use, int cols, bool complete, bool wantDen) {
  const int r = static_cast<int>(rows.size());
  const Grid grid(r, cols);
  const std::size_t cells = static_cast<std::size_t>(grid.bands) * cols;
  std::vector<T> bandNum(cells, T(0));
  std::vector<T> bandDen(wantDen && !complete ? cells : 0, T(0));
  ParallelFor(grid.bands * grid.blocks, Work(r, cols), [&](int task) {
    const int band = task / grid.blocks, block = task % grid.blocks;
    const int i0 = grid.BandBegin(band), i1 = grid.BandEnd(band);
    const int j0 = grid.BlockBegin(block), width = grid.BlockEnd(block) - j0;
    T* num = bandNum.data() + static_cast<std::size_t>(band) * cols + j0;
    if (complete && width >= kRowCallWidth) {
      // Row after row in order, each one axpy on this thread (width <= one call's share).
      for (int i = i0; i < i1; ++i) mvda::detail::Axpy(width, w[i], rows[i] + j0, num);
      return;
    }
    if (complete) {
      const int group = PackedGroup(width);
      std::vector<const T*> starts(static_cast<std::size_t>(group));
      std::vector<T> packed(static_cast<std::size_t>(group) * width);
      for (int g = i0; g < i1; g += group) {
        const int count = std::min(group, i1 - g);
        for (int k = 0; k < count; ++k) starts[k] = rows[g + k] + j0;
        PackRows(starts.data(), count, width, packed.data());
        mvda::detail::Gemv(true, count, width, T(1), packed.data(), width, w + g, T(1), num);
      }
      return;
    }
    std::vector<const T*> used;
    std::vector<T> weights;
    used.reserve(static_cast<std::size_t>(i1 - i0));
    weights.reserve(static_cast<std::size_t>(i1 - i0));
    for (int i = i0; i < i1; ++i)
      if (use[i]) {
        used.push_back(rows[i] + j0);
        weights.push_back(w[i]);
      }
    T* den = wantDen ? bandDen.data() + static_cast<std::size_t>(band) * cols + j0 : nullptr;
    mvda::detail::AccumulateWeightedRows(used.data(), weights.data(), static_cast<int>(used.size()),
                                         width, num, den);
  });
  ColumnSums sums;
  sums.num.assign(static_cast<std::size_t>(cols), 0.0);
  for (int b = 0; b < grid.bands; ++b)
    for (int j = 0; j < cols; ++j) sums.num[j] += bandNum[static_cast<std::size_t>(b) * cols + j];
  if (wantDen) {
    sums.den.assign(static_cast<std::size_t>(cols), 0.0);
    if (complete) {
      double all = 0;
      for (int i = 0; i < r; ++i) all += static_cast<double>(w[i]) * w[i];
      std::fill(sums.den.begin(), sums.den.end(), all);
    } else {
      for (int b = 0; b < grid.bands; ++b)
        for (int j = 0; j < cols; ++j)
          sums.den[j] += bandDen[static_cast<std::size_t>(b) * cols + j];
    }
  }
  return sums;
}

// A regression coefficient from its sums, as NCDataVector::Regress and
// SpecialNipalsRegressFix form it: a paired sum of squares below 1e-30 is taken as no signal
// (0/0 for the plain regression), and the floored variant never divides by less than a third of
// the full sum of squares.
long double Coefficient(double a, double b, double all, bool fix) {
  if (b < 1e-30) a = b = 0;
  if (fix) return static_cast<long double>(a) / std::max(b, all / 3);
  return static_cast<long double>(a) / b;
}

// Whether some row i with use[i] has column j (0-based) present: asked only when the paired sum
// of squares came out 0, to tell "no pair" from "only zero weights".
template <class T>
bool ColumnHasPair(const std::vector<const T*>& rows, const std::vector<char>& use, int j) {
  for (std::size_t i = 0; i < rows.size(); ++i)
    if (use[i] && rows[i][j] != kMis<T>) return true;
  return false;
}

// Gives out n elements and a private buffer; the caller writes every element and the count.
template <class T>
T* PrepareVector(NCDataVector<T>& out, int n) {
  if (out.Size() != n) out.SetSize(n);
  out.ForceUnlink();
  return out.GetVector();
}

template <class T>
void SetCountFromElements(NCDataVector<T>& v) {
  v.SetNumMisVal(v.Size() > 0 ? mvda::detail::CountMissing(v.GetVector() + 1, v.Size()) : 0);
}

// ---------------------------------------------------------------------------------------------
// Products through BLAS

// A product operand as BLAS reads it: a packed copy of the rows, with missing elements replaced
// by 0 when asked. Always a copy, never the rows in place (see above).
template <class T>
struct BlasOperand {
  std::vector<T> packed;
  const T* data = nullptr;
  int ld = 1;
};

template <class T>
BlasOperand<T> MakeOperand(const NCDataMatrix<T>& m, bool zeroMissing) {
  BlasOperand<T> op;
  const int r = m.SizeRows(), c = m.SizeColumns();
  op.ld = std::max(1, c);
  if (r == 0 || c == 0) return op;
  const std::vector<const T*> rows = RowStarts(m);
  op.packed.resize(static_cast<std::size_t>(r) * c);
  const Grid grid(r, c);
  ParallelFor(grid.bands, Work(r, c), [&](int band) {
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i) {
      T* to = op.packed.data() + static_cast<std::size_t>(i) * c;
      const T* from = rows[i];
      if (zeroMissing) {
        for (int j = 0; j < c; ++j)
          to[j] = mvda::detail::KeepBits(from[j], mvda::detail::PresentMask(from[j]));
      } else {
        std::memcpy(to, from, sizeof(T) * c);
      }
    }
  });
  op.data = op.packed.data();
  return op;
}

// 1 where present, 0 where missing: the operand whose product counts the pairs.
template <class T>
BlasOperand<T> MakePresenceOperand(const NCDataMatrix<T>& m) {
  BlasOperand<T> op;
  const int r = m.SizeRows(), c = m.SizeColumns();
  op.ld = std::max(1, c);
  op.packed.resize(static_cast<std::size_t>(r) * c);
  for (int i = 1; i <= r; ++i)
    for (int j = 1; j <= c; ++j)
      op.packed[static_cast<std::size_t>(i - 1) * c + (j - 1)] = m[i][j] == kMis<T> ? T(0) : T(1);
  op.data = op.packed.data();
  return op;
}

template <class T>
bool HasNonFinitePresent(const NCDataMatrix<T>& m) {
  for (const NCDataVector<T>& row : m)
    for (const T x : row)
      if (!std::isfinite(x)) return true;
  return false;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Target handling

template <class T>
bool NCDataMatrix<T>::IsOneOfMyRows(const Row* v) const {
  const std::less<const Row*> before;
  return !before(v, row_array_ + 1) && !before(row_array_ + rows_, v);
}

template <class T>
void NCDataMatrix<T>::PrepareTarget(NCDataMatrix& out, int rows, int cols) const {
  if (out.rows_ != rows || out.columns_ != cols) out.SetSize(rows, cols);
  out.ForceUnlink();
}

// ---------------------------------------------------------------------------------------------
// Products

template <class T>
void NCDataMatrix<T>::MultiplyImpl(const NCDataMatrix& b, bool transposeThis, bool transposeOther,
                                   bool rescale, NCDataMatrix& out) const {
  const int m = transposeThis ? columns_ : rows_;
  const int k = transposeThis ? rows_ : columns_;
  const int kb = transposeOther ? b.columns_ : b.rows_;
  const int n = transposeOther ? b.rows_ : b.columns_;
  if (k != kb)
    Fail("MatrixMultiply", Shape(rows_, columns_) + (transposeThis ? " transposed" : "") +
                               " times " + Shape(b.rows_, b.columns_) +
                               (transposeOther ? " transposed" : "") + ": inner sizes differ");
  if (static_cast<long long>(m) * n > INT_MAX)
    Fail("MatrixMultiply", "a result of " + Shape(m, n) + " elements is too large");
  if (&out == this || &out == &b) {
    NCDataMatrix result;
    MultiplyImpl(b, transposeThis, transposeOther, rescale, result);
    out.swap(result);
    return;
  }
  const bool skipping = missing_ > 0 || b.missing_ > 0;
  std::vector<T> c(static_cast<std::size_t>(m) * n, T(0));
  std::vector<T> pairs;
  if (skipping && (HasNonFinitePresent(*this) || HasNonFinitePresent(b))) {
    // Replacing gaps by 0 would pair an infinity or NaN with a gap into NaN, so these products
    // take the element-by-element loop, which skips such pairs.
    pairs.assign(c.size(), T(0));
    const auto a_at = [&](int i, int l) { return transposeThis ? (*this)[l][i] : (*this)[i][l]; };
    const auto b_at = [&](int l, int j) { return transposeOther ? b[j][l] : b[l][j]; };
    ParallelFor(m, Work(m, n) * k, [&](int i) {
      for (int l = 1; l <= k; ++l) {
        const T x = a_at(i + 1, l);
        if (x == kMis<T>) continue;
        for (int j = 0; j < n; ++j) {
          const T y = b_at(l, j + 1);
          if (y == kMis<T>) continue;
          c[static_cast<std::size_t>(i) * n + j] += x * y;
          pairs[static_cast<std::size_t>(i) * n + j] += 1;
        }
      }
    });
  } else if (m > 0 && n > 0 && k > 0 && transposeThis && !transposeOther && !skipping) {
    // A'B and A'A of complete matrices straight from the rows, in row blocks; A'A exactly
    // symmetric and at half the work.
    const std::vector<const T*> x = RowStarts(*this);
    const std::vector<const T*> y = &b == this ? std::vector<const T*>() : RowStarts(b);
    mvda::detail::BlockedCrossProduct(x.data(), m, y.empty() ? nullptr : y.data(), n, k, c.data());
  } else if (m > 0 && n > 0 && k > 0) {
    const BlasOperand<T> a = MakeOperand(*this, missing_ > 0);
    const BlasOperand<T> bb = MakeOperand(b, b.missing_ > 0);
    mvda::detail::BlockedGemm(transposeThis, transposeOther, m, n, k, a.data, a.ld, bb.data,
                              bb.ld, c.data(), n);
    if (skipping && rescale) {
      pairs.assign(c.size(), T(0));
      const BlasOperand<T> pa = MakePresenceOperand(*this), pb = MakePresenceOperand(b);
      mvda::detail::BlockedGemm(transposeThis, transposeOther, m, n, k, pa.data, pa.ld, pb.data,
                                pb.ld, pairs.data(), n);
    }
  }
  // Rows of op(A) and columns of op(B) that are missing throughout give missing results.
  std::vector<char> rowGone(static_cast<std::size_t>(m), 0),
      columnGone(static_cast<std::size_t>(n), 0);
  if (skipping && k > 0) {
    for (int i = 1; i <= m; ++i)
      rowGone[i - 1] =
          transposeThis ? GetColumnMisVal(i) == rows_ : (*this)[i].GetNumMisVal() == columns_;
    for (int j = 1; j <= n; ++j)
      columnGone[j - 1] =
          transposeOther ? b[j].GetNumMisVal() == b.columns_ : b.GetColumnMisVal(j) == b.rows_;
  }
  PrepareTarget(out, m, n);
  if (n == 0) return;
  const bool scale = skipping && rescale && !pairs.empty();
  const Grid grid(m, n);
  ParallelFor(grid.bands, Work(m, n), [&](int band) {
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i) {
      T* row = out.row_array_[i + 1].GetVector() + 1;
      const T* from = c.data() + static_cast<std::size_t>(i) * n;
      for (int j = 0; j < n; ++j) {
        T value = from[j];
        if (scale) {
          const T count = pairs[static_cast<std::size_t>(i) * n + j];
          value = count > 0 ? static_cast<T>(value * (static_cast<T>(k) / count)) : kMis<T>;
        }
        row[j] = rowGone[i] || columnGone[j] ? kMis<T> : value;
      }
    }
  });
  out.RecountMissing();
}

template <class T>
void NCDataMatrix<T>::MulMat(const NCDataMatrix& b, NCDataMatrix& out, bool rescale) const {
  MultiplyImpl(b, false, false, rescale, out);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::operator*(const NCDataMatrix& b) const {
  NCDataMatrix out;
  MultiplyImpl(b, false, false, false, out);
  return out;
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::MatrixMultiply(const NCDataMatrix& b, bool transposeThis,
                                                bool transposeOther, bool rescale) const {
  NCDataMatrix out;
  MultiplyImpl(b, transposeThis, transposeOther, rescale, out);
  return out;
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeThis(const NCDataMatrix& b, bool rescale) const {
  return MatrixMultiply(b, true, false, rescale);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeOther(const NCDataMatrix& b, bool rescale) const {
  return MatrixMultiply(b, false, true, rescale);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeBoth(const NCDataMatrix& b, bool rescale) const {
  return MatrixMultiply(b, true, true, rescale);
}

// A v: one BLAS dot product per complete row, the masked sum over the pairs otherwise.
template <class T>
void NCDataMatrix<T>::MulVecImpl(const Row& v, Row& out) const {
  CheckLength("operator*", "vector", v.Size(), columns_, "columns");
  if (&out == &v || IsOneOfMyRows(&out)) {
    Row result;
    MulVecImpl(v, result);
    out = result;
    return;
  }
  T* result = PrepareVector(out, rows_);
  const int c = columns_;
  const T* x = c > 0 ? v.GetVector() + 1 : nullptr;
  const bool vGone = c > 0 && v.GetNumMisVal() == c;
  std::vector<T> pz(static_cast<std::size_t>(c));
  std::vector<MaskOf<T>> keep(static_cast<std::size_t>(c));
  for (int j = 0; j < c; ++j) {
    keep[j] = mvda::detail::PresentMask(x[j]);
    pz[j] = mvda::detail::KeepBits(x[j], keep[j]);
  }
  const Grid grid(rows_, c);
  ParallelFor(grid.bands, Work(rows_, c), [&](int band) {
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i) {
      const Row& row = row_array_[i + 1];
      const T* z = c > 0 ? row.GetVector() + 1 : nullptr;
      if (c > 0 && (vGone || row.GetNumMisVal() == c)) {
        result[i + 1] = kMis<T>;
      } else if (row.GetNumMisVal() == 0 && v.GetNumMisVal() == 0) {
        result[i + 1] = static_cast<T>(DotInPieces(c, z, x));
      } else {
        T xv, xx;
        mvda::detail::MaskedDot(z, pz.data(), pz.data(), keep.data(), c, xv, xx);
        result[i + 1] = xv;
      }
    }
  });
  SetCountFromElements(out);
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::operator*(const Row& v) const {
  Row out;
  MulVecImpl(v, out);
  return out;
}

template <class T>
void NCDataMatrix<T>::MulMat(const Row& v, Row& out) const {
  MulVecImpl(v, out);
}

// v'A as a sum of the rows weighted by v: the transposed matrix-vector product of BLAS when nothing
// is missing, the masked sums over the pairs otherwise.
template <class T>
void NCDataMatrix<T>::PreMultiplyImpl(const Row& v, Row& out) const {
  CheckLength("PreMultiply", "vector", v.Size(), rows_, "rows");
  if (&out == &v || IsOneOfMyRows(&out)) {
    Row result;
    PreMultiplyImpl(v, result);
    out = result;
    return;
  }
  T* result = PrepareVector(out, columns_);
  const int r = rows_;
  const T* w = r > 0 ? v.GetVector() + 1 : nullptr;
  std::vector<char> use(static_cast<std::size_t>(r));
  for (int i = 0; i < r; ++i) use[i] = w[i] != kMis<T>;
  const bool complete = missing_ == 0 && v.GetNumMisVal() == 0;
  const ColumnSums sums = WeightedColumnSums(RowStarts(*this), w, use, columns_, complete, false);
  const bool vGone = r > 0 && v.GetNumMisVal() == r;
  for (int j = 1; j <= columns_; ++j)
    result[j] =
        r > 0 && (vGone || GetColumnMisVal(j) == r) ? kMis<T> : static_cast<T>(sums.num[j - 1]);
  SetCountFromElements(out);
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::PreMultiply(const Row& v) const {
  Row out;
  PreMultiplyImpl(v, out);
  return out;
}

// ---------------------------------------------------------------------------------------------
// Element-wise arithmetic

namespace {

// out(i, j) = f(a(i, j), b(i, j)) row by row over equally shaped matrices; out may be a or b,
// since each element is read before it is written.
template <class T, class F>
void ZipRows(const NCDataMatrix<T>& a, const NCDataMatrix<T>* b, std::vector<T*>& outRows, F f) {
  const int r = a.SizeRows(), c = a.SizeColumns();
  const Grid grid(r, c);
  ParallelFor(grid.bands, Work(r, c), [&](int band) {
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i) {
      const T* x = a[i + 1].GetVector() + 1;
      const T* y = b ? (*b)[i + 1].GetVector() + 1 : nullptr;
      T* to = outRows[i];
      for (int j = 0; j < c; ++j) to[j] = f(x[j], y ? y[j] : T(0));
    }
  });
}

}  // namespace

template <class T>
void NCDataMatrix<T>::ScaleImpl(T s, NCDataMatrix& out) const {
  // A copy of the operand keeps its elements readable when out is this very matrix.
  const NCDataMatrix source(*this);
  PrepareTarget(out, rows_, columns_);
  std::vector<T*> to(static_cast<std::size_t>(rows_));
  for (int i = 0; i < rows_; ++i)
    to[i] = columns_ > 0 ? out.row_array_[i + 1].GetVector() + 1 : nullptr;
  if (columns_ > 0)
    ZipRows(source, static_cast<const NCDataMatrix*>(nullptr), to,
            [s](T x, T) { return x == kMis<T> ? x : static_cast<T>(x * s); });
  out.RecountMissing();
}

template <class T>
void NCDataMatrix<T>::AddMat(const NCDataMatrix& b, NCDataMatrix& out) const {
  if (b.rows_ != rows_ || b.columns_ != columns_)
    Fail("operator+", Shape(rows_, columns_) + " plus " + Shape(b.rows_, b.columns_));
  const NCDataMatrix x(*this), y(b);
  PrepareTarget(out, rows_, columns_);
  std::vector<T*> to(static_cast<std::size_t>(rows_));
  for (int i = 0; i < rows_; ++i)
    to[i] = columns_ > 0 ? out.row_array_[i + 1].GetVector() + 1 : nullptr;
  if (columns_ > 0)
    ZipRows(x, &y, to, [](T p, T q) {
      return p == kMis<T> || q == kMis<T> ? kMis<T> : static_cast<T>(p + q);
    });
  out.RecountMissing();
}

template <class T>
void NCDataMatrix<T>::SubMat(const NCDataMatrix& b, NCDataMatrix& out) const {
  if (b.rows_ != rows_ || b.columns_ != columns_)
    Fail("operator-", Shape(rows_, columns_) + " minus " + Shape(b.rows_, b.columns_));
  const NCDataMatrix x(*this), y(b);
  PrepareTarget(out, rows_, columns_);
  std::vector<T*> to(static_cast<std::size_t>(rows_));
  for (int i = 0; i < rows_; ++i)
    to[i] = columns_ > 0 ? out.row_array_[i + 1].GetVector() + 1 : nullptr;
  if (columns_ > 0)
    ZipRows(x, &y, to, [](T p, T q) {
      return p == kMis<T> || q == kMis<T> ? kMis<T> : static_cast<T>(p - q);
    });
  out.RecountMissing();
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::operator*(T s) const {
  NCDataMatrix out;
  ScaleImpl(s, out);
  return out;
}

template <class T>
void NCDataMatrix<T>::MulMat(T s, NCDataMatrix& out) const {
  ScaleImpl(s, out);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::operator+(const NCDataMatrix& b) const {
  NCDataMatrix out;
  AddMat(b, out);
  return out;
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::operator-(const NCDataMatrix& b) const {
  NCDataMatrix out;
  SubMat(b, out);
  return out;
}

template <class T>
NCDataMatrix<T>& NCDataMatrix<T>::operator+=(const NCDataMatrix& b) {
  AddMat(b, *this);
  return *this;
}

template <class T>
NCDataMatrix<T>& NCDataMatrix<T>::operator-=(const NCDataMatrix& b) {
  SubMat(b, *this);
  return *this;
}

// ---------------------------------------------------------------------------------------------
// Rank-one updates

// Each row i with a present a_i gets factor * a_i * b added where both the element and b_j are
// present: BLAS axpy for a complete row and a complete b, the masked loop otherwise. Sums that land
// on -99 become missing, and the counts are then rebuilt.
template <class T>
void NCDataMatrix<T>::RankOneUpdate(const Row& a, const Row& b, T factor, const char* place) {
  CheckLength(place, "a", a.Size(), rows_, "rows");
  CheckLength(place, "b", b.Size(), columns_, "columns");
  // Shared copies: a factor that is a row of this matrix keeps its old elements while that row is
  // written, since writing unlinks the row from the copy.
  const Row av(a), bv(b);
  if (rows_ == 0 || columns_ == 0) return;
  Unlink();
  const T* x = av.GetVector() + 1;
  const T* y = bv.GetVector() + 1;
  const bool bComplete = bv.GetNumMisVal() == 0;
  const int c = columns_;
  std::vector<char> changed(static_cast<std::size_t>(rows_), 0);
  const Grid grid(rows_, c);
  ParallelFor(grid.bands, Work(rows_, c), [&](int band) {
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i) {
      if (x[i] == kMis<T>) continue;
      Row& row = row_array_[i + 1];
      const int before = row.GetNumMisVal();
      if (before == c) continue;
      row.Unlink();
      T* z = row.GetVector() + 1;
      const T s = factor * x[i];
      int after;
      if (bComplete && before == 0) {
        AxpyInPieces(c, s, y, z);
        after = mvda::detail::CountMissing(z, c);
      } else {
        after = mvda::detail::MaskedAxpy(c, s, y, z);
      }
      row.SetNumMisVal(after);
      changed[i] = after != before;
    }
  });
  if (std::find(changed.begin(), changed.end(), 1) != changed.end()) RecountMissing();
}

template <class T>
void NCDataMatrix<T>::TransformToAdd_V_x_Vt(const Row& a, const Row& b) {
  RankOneUpdate(a, b, T(1), "TransformToAdd_V_x_Vt");
}

template <class T>
void NCDataMatrix<T>::TransformToSub_V_x_Vt(const Row& a, const Row& b) {
  RankOneUpdate(a, b, T(-1), "TransformToSub_V_x_Vt");
}

template <class T>
void NCDataMatrix<T>::AddVprimV(const Row& a, const Row& b, float factor) {
  RankOneUpdate(a, b, static_cast<T>(factor), "AddVprimV");
}

// ---------------------------------------------------------------------------------------------
// In-place scaling

template <class T>
void NCDataMatrix<T>::MultiplyRow(int i, T s, int fromColumn) {
  for (int j = std::max(1, fromColumn); j <= columns_; ++j) {
    const T x = row_array_[i][j];
    if (x != kMis<T>) (*this)(i, j, static_cast<T>(x * s));
  }
}

template <class T>
void NCDataMatrix<T>::MultiplyColumn(int j, T s, int fromRow) {
  for (int i = std::max(1, fromRow); i <= rows_; ++i) {
    const T x = row_array_[i][j];
    if (x != kMis<T>) (*this)(i, j, static_cast<T>(x * s));
  }
}

template <class T>
void NCDataMatrix<T>::MultiplyColumns(int to, int a, int b) {
  for (int i = 1; i <= rows_; ++i) {
    const T x = row_array_[i][a], y = row_array_[i][b];
    (*this)(i, to, x == kMis<T> || y == kMis<T> ? kMis<T> : static_cast<T>(x * y));
  }
}

template <class T>
void NCDataMatrix<T>::SubtractFromColumn(int j, T s) {
  for (int i = 1; i <= rows_; ++i) {
    const T x = row_array_[i][j];
    if (x != kMis<T>) (*this)(i, j, static_cast<T>(x - s));
  }
}

namespace {

// Calls f(z, i) on the elements z[0..c-1] of every row i (1-based) in place, each row made private
// first; the caller recounts the missing elements afterwards.
template <class T, class F>
void ForEachRowInPlace(NCDataMatrix<T>& m, F f) {
  m.Unlink();
  const int c = m.SizeColumns();
  if (c == 0) return;
  const Grid grid(m.SizeRows(), c);
  ParallelFor(grid.bands, Work(m.SizeRows(), c), [&](int band) {
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i) {
      NCDataVector<T>& row = m(i + 1);
      row.Unlink();
      f(row.GetVector() + 1, i + 1);
    }
  });
}

}  // namespace

template <class T>
void NCDataMatrix<T>::DotMultiplyVector(const Row& v) {
  CheckLength("DotMultiplyVector", "vector", v.Size(), columns_, "columns");
  const Row factors(v);  // keeps its elements should v be a row of this matrix
  const T* y = factors.begin();
  ForEachRowInPlace(*this, [&](T* z, int) {
    for (int j = 0; j < columns_; ++j)
      z[j] = z[j] == kMis<T> || y[j] == kMis<T> ? kMis<T> : static_cast<T>(z[j] * y[j]);
  });
  RecountMissing();
}

template <class T>
void NCDataMatrix<T>::DotDivideVector(const Row& v) {
  CheckLength("DotDivideVector", "vector", v.Size(), columns_, "columns");
  const Row divisors(v);
  const T* y = divisors.begin();
  ForEachRowInPlace(*this, [&](T* z, int) {
    for (int j = 0; j < columns_; ++j)
      z[j] =
          z[j] == kMis<T> || y[j] == kMis<T> || y[j] == 0 ? kMis<T> : static_cast<T>(z[j] / y[j]);
  });
  RecountMissing();
}

template <class T>
void NCDataMatrix<T>::DotPreMultiplyVector(const Row& v) {
  CheckLength("DotPreMultiplyVector", "vector", v.Size(), rows_, "rows");
  const Row factors(v);
  ForEachRowInPlace(*this, [&](T* z, int i) {
    const T s = factors[i];
    for (int j = 0; j < columns_; ++j)
      z[j] = z[j] == kMis<T> || s == kMis<T> ? kMis<T> : static_cast<T>(z[j] * s);
  });
  RecountMissing();
}

template <class T>
void NCDataMatrix<T>::DotPreDivideVector(const Row& v) {
  CheckLength("DotPreDivideVector", "vector", v.Size(), rows_, "rows");
  const Row divisors(v);
  ForEachRowInPlace(*this, [&](T* z, int i) {
    const T s = divisors[i];
    for (int j = 0; j < columns_; ++j)
      z[j] = z[j] == kMis<T> || s == kMis<T> || s == 0 ? kMis<T> : static_cast<T>(z[j] / s);
  });
  RecountMissing();
}

template <class T>
void NCDataMatrix<T>::TransformToDotSubRowVector(const Row& v) {
  CheckLength("TransformToDotSubRowVector", "vector", v.Size(), columns_, "columns");
  const Row centre(v);
  const T* y = centre.begin();
  ForEachRowInPlace(*this, [&](T* z, int) {
    for (int j = 0; j < columns_; ++j)
      z[j] = z[j] == kMis<T> || y[j] == kMis<T> ? kMis<T> : static_cast<T>(z[j] - y[j]);
  });
  RecountMissing();
}

template <class T>
void NCDataMatrix<T>::TransformToColumnScaled(const Row& w) {
  CheckLength("TransformToColumnScaled", "weights", w.Size(), columns_, "columns");
  DotMultiplyVector(w);
}

// ---------------------------------------------------------------------------------------------
// Square matrices: A'A, inverse, SVD, regression coefficients

template <class T>
void NCDataMatrix<T>::TransformToMprim_mul_M() {
  NCDataMatrix product;
  MultiplyImpl(*this, true, false, false, product);
  swap(product);
}

namespace {

// The elements row after row in one contiguous buffer.
template <class T>
std::vector<T> Contiguous(const NCDataMatrix<T>& m) {
  const int r = m.SizeRows(), c = m.SizeColumns();
  std::vector<T> buffer(static_cast<std::size_t>(r) * c);
  if (c > 0)
    for (int i = 1; i <= r; ++i)
      std::memcpy(buffer.data() + static_cast<std::size_t>(i - 1) * c, m[i].GetVector() + 1,
                  sizeof(T) * c);
  return buffer;
}

}  // namespace

// LU with partial pivoting in LAPACK. A pivot of exactly 0, or an inverse that overflows, counts
// as singular.
template <class T>
bool NCDataMatrix<T>::TransformToInverse() {
  if (rows_ != columns_)
    Fail("TransformToInverse", "a " + Shape(rows_, columns_) + " matrix is not square");
  if (missing_ > 0) return false;
  std::vector<T> a = Contiguous(*this);
  if (!mvda::detail::Invert(a.data(), rows_)) return false;
  for (const T x : a)
    if (!std::isfinite(x)) return false;
  const std::vector<T*> rows = GetMatrixAsPointerPointer(*this, false);
  for (int i = 0; i < rows_; ++i)
    std::memcpy(rows[i], a.data() + static_cast<std::size_t>(i) * columns_, sizeof(T) * columns_);
  RecountMissing();
  return true;
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::GetSVD(NCDataMatrix* u, NCDataMatrix* v) const {
  if (missing_ > 0)
    Fail("GetSVD", "the matrix holds " + std::to_string(missing_) + " missing values");
  const int m = rows_, n = columns_, k = std::min(rows_, columns_);
  std::vector<T> a = Contiguous(*this);
  std::vector<T> s(static_cast<std::size_t>(k)), uu(static_cast<std::size_t>(m) * k),
      vv(static_cast<std::size_t>(n) * k);
  mvda::detail::ThinSvd(a.data(), m, n, s.data(), uu.data(), vv.data());
  const auto fill = [this](NCDataMatrix* target, const std::vector<T>& from, int rows, int cols) {
    if (!target) return;
    PrepareTarget(*target, rows, cols);
    for (int i = 1; i <= rows && cols > 0; ++i)
      std::memcpy(target->row_array_[i].GetVector() + 1,
                  from.data() + static_cast<std::size_t>(i - 1) * cols, sizeof(T) * cols);
    target->RecountMissing();
  };
  fill(u, uu, m, k);
  fill(v, vv, n, k);
  Row values;
  values.CopyZeroBasedVector(s.data(), k);
  return values;
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::TransformToSVD(NCDataMatrix* v) {
  return GetSVD(this, v);
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::SVD(NCDataMatrix* a) {
  if (!a) Fail("SVD", "null matrix");
  return a->TransformToSVD(nullptr);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::GetRegressionCoefficients(const NCDataMatrix& y) const {
  if (missing_ > 0 || y.missing_ > 0) throw NCError("Internal error in GetRegressionCoefficients");
  if (y.rows_ != rows_)
    Fail("GetRegressionCoefficients",
         "X of " + Shape(rows_, columns_) + " and Y of " + Shape(y.rows_, y.columns_));
  NCDataMatrix xtx = MultiplyTransposeThis(*this);
  if (!xtx.TransformToInverse()) Fail("GetRegressionCoefficients", "X'X is singular");
  return xtx * MultiplyTransposeThis(y);
}

// ---------------------------------------------------------------------------------------------
// Projections

template <class T>
void NCDataMatrix<T>::RegressColumnsImpl(const Row& t, const IndexVector* exclude, int code,
                                         bool fix, Row& out) const {
  const char* place = fix ? "SpecialNipalsRegressColumnsFix" : "RegressColumns";
  CheckLength(place, "t", t.Size(), rows_, "rows");
  CheckExclusion(place, exclude, rows_, "rows");
  if (&out == &t || IsOneOfMyRows(&out)) {
    Row result;
    RegressColumnsImpl(t, exclude, code, fix, result);
    out = result;
    return;
  }
  T* result = PrepareVector(out, columns_);
  const int r = rows_, c = columns_;
  const T* w = r > 0 ? t.GetVector() + 1 : nullptr;
  const int* e = exclude ? exclude->GetPtr() : nullptr;
  std::vector<char> use(static_cast<std::size_t>(r));
  double all = 0;  // sum of t_i^2 over every row that takes part, present or not in a column
  for (int i = 0; i < r; ++i) {
    use[i] = w[i] != kMis<T> && !(e && e[i + 1] == code);
    if (use[i]) all += static_cast<double>(w[i]) * w[i];
  }
  const std::vector<const T*> rows = RowStarts(*this);
  const bool complete = missing_ == 0 && t.GetNumMisVal() == 0 && !exclude;
  const auto finish = [&](int j, double a, double b) -> T {  // j 1-based
    if (GetColumnMisVal(j) == r) return kMis<T>;
    if (b == 0 && !complete && !ColumnHasPair(rows, use, j - 1)) return kMis<T>;
    return static_cast<T>(Coefficient(a, b, all, fix));
  };
  // Rows left out by the exclusion list take no part, as rows whose weight is missing.
  const ColumnSums sums = WeightedColumnSums(rows, w, use, c, complete, true);
  for (int j = 1; j <= c; ++j) result[j] = finish(j, sums.num[j - 1], sums.den[j - 1]);
  SetCountFromElements(out);
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::RegressColumns(const Row& t) const {
  Row out;
  RegressColumnsImpl(t, nullptr, 0, false, out);
  return out;
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(const Row& t) const {
  Row out;
  RegressColumnsImpl(t, nullptr, 0, true, out);
  return out;
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(
    const Row& t, const IndexVector* exclude, int code) const {
  Row out;
  RegressColumnsImpl(t, exclude, code, true, out);
  return out;
}

// Per row: the plain product with p when neither the row nor p has a gap and no column is
// excluded, the masked sums otherwise.
template <class T>
void NCDataMatrix<T>::RegressRowsImpl(const Row& p, const IndexVector* exclude, int code, bool fix,
                                      Row& out) const {
  const char* place = fix ? "SpecialNipalsRegressRowsFix" : "RegressRows";
  CheckLength(place, "p", p.Size(), columns_, "columns");
  CheckExclusion(place, exclude, columns_, "columns");
  if (&out == &p || IsOneOfMyRows(&out)) {
    Row result;
    RegressRowsImpl(p, exclude, code, fix, result);
    out = result;
    return;
  }
  T* result = PrepareVector(out, rows_);
  const int c = columns_;
  const T* x = c > 0 ? p.GetVector() + 1 : nullptr;
  const int* e = exclude ? exclude->GetPtr() : nullptr;
  // p with 0 where it takes no part, its squares, and the mask of the columns that take part.
  std::vector<T> pz(static_cast<std::size_t>(c)), q(static_cast<std::size_t>(c));
  std::vector<MaskOf<T>> keep(static_cast<std::size_t>(c));
  double all = 0;
  for (int j = 0; j < c; ++j) {
    const bool in = x[j] != kMis<T> && !(e && e[j + 1] == code);
    keep[j] = in ? ~MaskOf<T>(0) : MaskOf<T>(0);
    pz[j] = in ? x[j] : T(0);
    q[j] = pz[j] * pz[j];
    if (in) all += static_cast<double>(x[j]) * x[j];
  }
  const bool fast = p.GetNumMisVal() == 0 && !exclude;
  const Grid grid(rows_, c);
  // Each row's result comes from that row alone, so any team gives the same result.
  ParallelFor(grid.bands, Work(rows_, c), [&](int band) {
    std::vector<int> plain, masked;  // 0-based rows
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i)
      (fast && row_array_[i + 1].GetNumMisVal() == 0 ? plain : masked).push_back(i);
    // The complete rows: one BLAS dot product each, read in place, or for narrow rows one
    // matrix-vector product per packed group.
    if (c >= kRowCallWidth) {
      for (const int i : plain)
        result[i + 1] = static_cast<T>(Coefficient(
            static_cast<T>(DotInPieces(c, row_array_[i + 1].GetVector() + 1, x)), all, all, fix));
    } else if (c > 0) {
      const int group = PackedGroup(c);
      std::vector<const T*> starts(static_cast<std::size_t>(group));
      std::vector<T> packed(static_cast<std::size_t>(group) * c), dots(starts.size());
      for (std::size_t k = 0; k < plain.size(); k += starts.size()) {
        const int count = static_cast<int>(std::min(starts.size(), plain.size() - k));
        for (int u = 0; u < count; ++u) starts[u] = row_array_[plain[k + u] + 1].GetVector() + 1;
        PackRows(starts.data(), count, c, packed.data());
        mvda::detail::Gemv(false, count, c, T(1), packed.data(), c, x, T(0), dots.data());
        for (int u = 0; u < count; ++u)
          result[plain[k + u] + 1] = static_cast<T>(Coefficient(dots[u], all, all, fix));
      }
    } else {
      for (const int i : plain) result[i + 1] = kMis<T>;
    }
    // The others through the masked sums, row by row.
    for (const int i : masked) {
      const T* z = c > 0 ? row_array_[i + 1].GetVector() + 1 : nullptr;
      T xv, xx;
      mvda::detail::MaskedDot(z, pz.data(), q.data(), keep.data(), c, xv, xx);
      bool pairs = xx != 0;
      for (int j = 0; j < c && !pairs; ++j) pairs = keep[j] && z[j] != kMis<T>;
      result[i + 1] = pairs ? static_cast<T>(Coefficient(xv, xx, all, fix)) : kMis<T>;
    }
  });
  SetCountFromElements(out);
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::RegressRows(const Row& p) const {
  Row out;
  RegressRowsImpl(p, nullptr, 0, false, out);
  return out;
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::SpecialNipalsRegressRowsFix(
    const Row& p, const IndexVector* exclude, int code) const {
  Row out;
  RegressRowsImpl(p, exclude, code, true, out);
  return out;
}

template <class T>
std::vector<double> NCDataMatrix<T>::ColumnSquares(int first, int last,
                                                   const double* centre) const {
  const int width = last - first + 1;
  const std::vector<const T*> rows = RowStarts(*this);
  const Grid grid(rows_, columns_);
  const int blocks = (width - 1) / kBlockColumns + 1;
  std::vector<double> bandSums(static_cast<std::size_t>(grid.bands) * width, 0.0);
  ParallelFor(grid.bands * blocks, Work(rows_, width), [&](int task) {
    const int band = task / blocks, block = task % blocks;
    const int j0 = block * kBlockColumns, n = std::min(width, j0 + kBlockColumns) - j0;
    std::vector<const T*> starts;
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i)
      starts.push_back(rows[i] + (first - 1) + j0);
    mvda::detail::AccumulateColumnSquares(
        starts.data(), static_cast<int>(starts.size()), n, centre ? centre + j0 : nullptr,
        bandSums.data() + static_cast<std::size_t>(band) * width + j0);
  });
  std::vector<double> sums(static_cast<std::size_t>(width), 0.0);
  for (int b = 0; b < grid.bands; ++b)
    for (int j = 0; j < width; ++j) sums[j] += bandSums[static_cast<std::size_t>(b) * width + j];
  return sums;
}

// NIPALS start vector: the column with the most variation (sum of squares around 0), so that the
// first iterations already point along the strongest direction. Its gaps get small values of
// alternating sign, which start the scores without pulling them any way.
template <class T>
void NCDataMatrix<T>::GetNIPALSStartColumnImpl(Row& out) const {
  if (IsOneOfMyRows(&out)) {
    Row result;
    GetNIPALSStartColumnImpl(result);
    out = result;
    return;
  }
  const int r = rows_;
  T* to = PrepareVector(out, r);
  if (columns_ == 0) {
    std::fill(to + 1, to + 1 + r, kMis<T>);
    out.SetNumMisVal(r);
    return;
  }
  int index = 1;
  if (columns_ > 1) {
    const std::vector<double> ss = ColumnSquares(1, columns_, nullptr);
    long double best = 0;
    for (int j = 1; j <= columns_; ++j) {
      const long double s = GetColumnMisVal(j) == r ? kMis<long double> : ss[j - 1];
      if (s > best * 1.000001) {
        best = s;
        index = j;
      }
    }
  }
  int missing = 0;
  T largest = 0;
  for (int i = 1; i <= r; ++i) {
    to[i] = (*this)[i][index];
    if (to[i] == kMis<T>)
      ++missing;
    else
      largest = std::max(largest, static_cast<T>(std::fabs(to[i])));
  }
  if (missing > 0 && missing < r) {
    T fill = largest / T(100);
    for (int i = 1; i <= r; ++i)
      if (to[i] == kMis<T>) {
        to[i] = fill;
        fill = -fill;
      }
  }
  SetCountFromElements(out);
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::GetNIPALSStartColumn() const {
  Row out;
  GetNIPALSStartColumnImpl(out);
  return out;
}

// ---------------------------------------------------------------------------------------------
// Result proxies

template <class T>
NCMatOpResultProxy<T> NCDataMatrix<T>::Result(NCDataMatrix* target) const {
  return NCMatOpResultProxy<T>(*this, target);
}

template <class T>
NCMatOpResultProxy<T> NCDataMatrix<T>::Result(Row* target) const {
  return NCMatOpResultProxy<T>(*this, target);
}

namespace {
const char kNullTarget[] = "Internal error in NCMatOpResultProxy:\npResult can not be NULL";
}

template <class T>
NCMatOpResultProxy<T>::NCMatOpResultProxy(const Matrix& operand, Matrix* target)
    : operand_(operand), matrix_(target) {
  if (!target) throw NCError(kNullTarget);
}

template <class T>
NCMatOpResultProxy<T>::NCMatOpResultProxy(const Matrix& operand, Vector* target)
    : operand_(operand), vector_(target) {
  if (!target) throw NCError(kNullTarget);
}

template <class T>
typename NCMatOpResultProxy<T>::Matrix& NCMatOpResultProxy<T>::MatrixTarget(
    const char* operation) const {
  if (!matrix_)
    throw NCError(std::string("NCMatOpResultProxy::") + operation +
                  ": the result is a matrix but the target is a vector");
  return *matrix_;
}

template <class T>
typename NCMatOpResultProxy<T>::Vector& NCMatOpResultProxy<T>::VectorTarget(
    const char* operation) const {
  if (!vector_)
    throw NCError(std::string("NCMatOpResultProxy::") + operation +
                  ": the result is a vector but the target is a matrix");
  return *vector_;
}

template <class T>
typename NCMatOpResultProxy<T>::Matrix& NCMatOpResultProxy<T>::operator*(const Matrix& b) const {
  Matrix& out = MatrixTarget("operator*");
  operand_.MultiplyImpl(b, false, false, false, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Matrix& NCMatOpResultProxy<T>::MatrixMultiply(const Matrix& b,
                                                                              bool transposeThis,
                                                                              bool transposeOther,
                                                                              bool rescale) const {
  Matrix& out = MatrixTarget("MatrixMultiply");
  operand_.MultiplyImpl(b, transposeThis, transposeOther, rescale, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Matrix& NCMatOpResultProxy<T>::operator*(T s) const {
  Matrix& out = MatrixTarget("operator*");
  operand_.ScaleImpl(s, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Matrix& NCMatOpResultProxy<T>::operator+(const Matrix& b) const {
  Matrix& out = MatrixTarget("operator+");
  operand_.AddMat(b, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Matrix& NCMatOpResultProxy<T>::operator-(const Matrix& b) const {
  Matrix& out = MatrixTarget("operator-");
  operand_.SubMat(b, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Vector& NCMatOpResultProxy<T>::operator*(const Vector& v) const {
  Vector& out = VectorTarget("operator*");
  operand_.MulVecImpl(v, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Vector& NCMatOpResultProxy<T>::PreMultiply(const Vector& v) const {
  Vector& out = VectorTarget("PreMultiply");
  operand_.PreMultiplyImpl(v, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Vector& NCMatOpResultProxy<T>::RegressColumns(
    const Vector& t) const {
  Vector& out = VectorTarget("RegressColumns");
  operand_.RegressColumnsImpl(t, nullptr, 0, false, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Vector& NCMatOpResultProxy<T>::RegressRows(const Vector& p) const {
  Vector& out = VectorTarget("RegressRows");
  operand_.RegressRowsImpl(p, nullptr, 0, false, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Vector& NCMatOpResultProxy<T>::SpecialNipalsRegressColumnsFix(
    const Vector& t, const IndexVector* exclude, int code) const {
  Vector& out = VectorTarget("SpecialNipalsRegressColumnsFix");
  operand_.RegressColumnsImpl(t, exclude, code, true, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Vector& NCMatOpResultProxy<T>::SpecialNipalsRegressRowsFix(
    const Vector& p, const IndexVector* exclude, int code) const {
  Vector& out = VectorTarget("SpecialNipalsRegressRowsFix");
  operand_.RegressRowsImpl(p, exclude, code, true, out);
  return out;
}

template <class T>
typename NCMatOpResultProxy<T>::Vector& NCMatOpResultProxy<T>::GetNIPALSStartColumn() const {
  Vector& out = VectorTarget("GetNIPALSStartColumn");
  operand_.GetNIPALSStartColumnImpl(out);
  return out;
}

template <class T>
NCVecOpResultProxy<T>::NCVecOpResultProxy(const NCDataVector<T>& operand, NCDataVector<T>* target)
    : operand_(operand), target_(target) {
  if (!target) throw NCError("Internal error in NCVecOpResultProxy:\npResult can not be NULL");
}

template <class T>
NCDataVector<T>& NCVecOpResultProxy<T>::operator*(const NCDataMatrix<T>& m) const {
  m.PreMultiplyImpl(operand_, *target_);
  return *target_;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator*(const NCDataMatrix<T>& m) const {
  return m.PreMultiply(*this);
}

template <class T>
NCVecOpResultProxy<T> NCDataVector<T>::Result(NCDataVector* target) const {
  return NCVecOpResultProxy<T>(*this, target);
}

template NCDataVector<float> NCDataVector<float>::operator*(const NCDataMatrix<float>&) const;
template NCDataVector<double> NCDataVector<double>::operator*(const NCDataMatrix<double>&) const;
template NCVecOpResultProxy<float> NCDataVector<float>::Result(NCDataVector*) const;
template NCVecOpResultProxy<double> NCDataVector<double>::Result(NCDataVector*) const;

template class NCMatOpResultProxy<float>;
template class NCMatOpResultProxy<double>;
template class NCVecOpResultProxy<float>;
template class NCVecOpResultProxy<double>;

// The members defined in this file, instantiated one by one: the class itself is instantiated
// with its storage members in data_matrix.cpp.
#define MVDA_INSTANTIATE_ALGEBRA(T)                                                                \
  template bool NCDataMatrix<T>::IsOneOfMyRows(const Row*) const;                                  \
  template void NCDataMatrix<T>::PrepareTarget(NCDataMatrix&, int, int) const;                     \
  template void NCDataMatrix<T>::MultiplyImpl(const NCDataMatrix&, bool, bool, bool,               \
                                              NCDataMatrix&) const;                                \
  template void NCDataMatrix<T>::MulMat(const NCDataMatrix&, NCDataMatrix&, bool) const;           \
  template NCDataMatrix<T> NCDataMatrix<T>::operator*(const NCDataMatrix&) const;                  \
  template NCDataMatrix<T> NCDataMatrix<T>::MatrixMultiply(const NCDataMatrix&, bool, bool, bool)  \
      const;                                                                                       \
  template NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeThis(const NCDataMatrix&, bool)       \
      const;                                                                                       \
  template NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeOther(const NCDataMatrix&, bool)      \
      const;                                                                                       \
  template NCDataMatrix<T> NCDataMatrix<T>::MultiplyTransposeBoth(const NCDataMatrix&, bool)       \
      const;                                                                                       \
  template void NCDataMatrix<T>::MulVecImpl(const Row&, Row&) const;                               \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::operator*(const Row&) const;                      \
  template void NCDataMatrix<T>::MulMat(const Row&, Row&) const;                                   \
  template void NCDataMatrix<T>::PreMultiplyImpl(const Row&, Row&) const;                          \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::PreMultiply(const Row&) const;                    \
  template void NCDataMatrix<T>::ScaleImpl(T, NCDataMatrix&) const;                                \
  template void NCDataMatrix<T>::AddMat(const NCDataMatrix&, NCDataMatrix&) const;                 \
  template void NCDataMatrix<T>::SubMat(const NCDataMatrix&, NCDataMatrix&) const;                 \
  template NCDataMatrix<T> NCDataMatrix<T>::operator*(T) const;                                    \
  template void NCDataMatrix<T>::MulMat(T, NCDataMatrix&) const;                                   \
  template NCDataMatrix<T> NCDataMatrix<T>::operator+(const NCDataMatrix&) const;                  \
  template NCDataMatrix<T> NCDataMatrix<T>::operator-(const NCDataMatrix&) const;                  \
  template NCDataMatrix<T>& NCDataMatrix<T>::operator+=(const NCDataMatrix&);                      \
  template NCDataMatrix<T>& NCDataMatrix<T>::operator-=(const NCDataMatrix&);                      \
  template void NCDataMatrix<T>::RankOneUpdate(const Row&, const Row&, T, const char*);            \
  template void NCDataMatrix<T>::TransformToAdd_V_x_Vt(const Row&, const Row&);                    \
  template void NCDataMatrix<T>::TransformToSub_V_x_Vt(const Row&, const Row&);                    \
  template void NCDataMatrix<T>::AddVprimV(const Row&, const Row&, float);                         \
  template void NCDataMatrix<T>::TransformToMprim_mul_M();                                         \
  template void NCDataMatrix<T>::MultiplyRow(int, T, int);                                         \
  template void NCDataMatrix<T>::MultiplyColumn(int, T, int);                                      \
  template void NCDataMatrix<T>::MultiplyColumns(int, int, int);                                   \
  template void NCDataMatrix<T>::SubtractFromColumn(int, T);                                       \
  template void NCDataMatrix<T>::DotMultiplyVector(const Row&);                                    \
  template void NCDataMatrix<T>::DotDivideVector(const Row&);                                      \
  template void NCDataMatrix<T>::DotPreMultiplyVector(const Row&);                                 \
  template void NCDataMatrix<T>::DotPreDivideVector(const Row&);                                   \
  template void NCDataMatrix<T>::TransformToDotSubRowVector(const Row&);                           \
  template void NCDataMatrix<T>::TransformToColumnScaled(const Row&);                              \
  template bool NCDataMatrix<T>::TransformToInverse();                                             \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::GetSVD(NCDataMatrix*, NCDataMatrix*) const;       \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::TransformToSVD(NCDataMatrix*);                    \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::SVD(NCDataMatrix*);                               \
  template NCDataMatrix<T> NCDataMatrix<T>::GetRegressionCoefficients(const NCDataMatrix&) const;  \
  template void NCDataMatrix<T>::RegressColumnsImpl(const Row&, const IndexVector*, int, bool,     \
                                                    Row&) const;                                   \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::RegressColumns(const Row&) const;                 \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(const Row&) const; \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::SpecialNipalsRegressColumnsFix(                   \
      const Row&, const IndexVector*, int) const;                                                  \
  template void NCDataMatrix<T>::RegressRowsImpl(const Row&, const IndexVector*, int, bool, Row&)  \
      const;                                                                                       \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::RegressRows(const Row&) const;                    \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::SpecialNipalsRegressRowsFix(                      \
      const Row&, const IndexVector*, int) const;                                                  \
  template std::vector<double> NCDataMatrix<T>::ColumnSquares(int, int, const double*) const;      \
  template void NCDataMatrix<T>::GetNIPALSStartColumnImpl(Row&) const;                             \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::GetNIPALSStartColumn() const;                     \
  template NCMatOpResultProxy<T> NCDataMatrix<T>::Result(NCDataMatrix*) const;                     \
  template NCMatOpResultProxy<T> NCDataMatrix<T>::Result(Row*) const;
MVDA_INSTANTIATE_ALGEBRA(float)
MVDA_INSTANTIATE_ALGEBRA(double)
#undef MVDA_INSTANTIATE_ALGEBRA
