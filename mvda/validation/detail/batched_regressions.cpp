#include <mvda/containers/detail/blas.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/validation/detail/batched_regressions.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace mvda::detail {

namespace {

constexpr float kMis = -99.0f;

// The regression coefficient from the paired sums, as the single-vector regressions form it: a
// paired sum of squares below 1e-30 counts as 0 (0/0 without the floor, a NaN that NIPALS reads as
// a dead component), and the floor keeps a handful of pairs from making it explode.
float Coefficient(double a, double b, double all, bool fix) {
  if (b < 1e-30) a = b = 0;
  if (fix) return static_cast<float>(a / std::max(b, all / 3));
  return static_cast<float>(a / b);
}

// The g vectors with their gaps as 0, their squares, and per vector the sum of squares over the
// present elements (in double, as the single-vector forms sum it).
struct Operand {
  std::vector<float> zeroed, squares;
  std::vector<double> all;

  Operand(const float* v, int n, int g)
      : zeroed(static_cast<std::size_t>(n) * g),
        squares(zeroed.size()),
        all(static_cast<std::size_t>(g), 0.0) {
    for (std::size_t e = 0; e < zeroed.size(); ++e) {
      const float x = v[e] == kMis ? 0.0f : v[e];
      zeroed[e] = x;
      squares[e] = x * x;
      all[e % static_cast<std::size_t>(g)] += static_cast<double>(x) * x;
    }
  }
};

}  // namespace

BatchedRegressions::BatchedRegressions(const NCDataMatrix<float>& x)
    : rows_(x.SizeRows()),
      columns_(x.SizeColumns()),
      values_(static_cast<std::size_t>(rows_) * columns_),
      column_gone_(static_cast<std::size_t>(columns_), 0),
      row_has_gap_(static_cast<std::size_t>(rows_), 0) {
  const bool gaps = x.GetNumMisVal() > 0;
  if (gaps) mask_.assign(values_.size(), 1.0f);
  ParallelFor(rows_, [&](int i) {
    const NCDataVector<float>& row = x[i + 1];
    float* to = values_.data() + static_cast<std::size_t>(i) * columns_;
    if (columns_ > 0) std::memcpy(to, row.GetVector() + 1, sizeof(float) * columns_);
    if (row.GetNumMisVal() == 0) return;
    row_has_gap_[i] = 1;
    float* present = mask_.data() + static_cast<std::size_t>(i) * columns_;
    for (int j = 0; j < columns_; ++j)
      if (to[j] == kMis) to[j] = present[j] = 0.0f;
  });
  for (int j = 0; j < columns_; ++j) column_gone_[j] = x.GetColumnMisVal(j + 1) == rows_;
}

void BatchedRegressions::RegressColumns(const float* v, int g, bool fix, float* out) const {
  if (g < 1 || columns_ == 0) return;
  const Operand in(v, rows_, g);
  std::vector<float> a(static_cast<std::size_t>(columns_) * g, 0.0f), b;
  if (rows_ > 0) {
    Gemm(true, false, columns_, g, rows_, values_.data(), columns_, in.zeroed.data(), g, a.data(),
         g);
    if (HasGaps()) {
      b.assign(a.size(), 0.0f);
      Gemm(true, false, columns_, g, rows_, mask_.data(), columns_, in.squares.data(), g, b.data(),
           g);
    }
  }
  for (int j = 0; j < columns_; ++j)
    for (int h = 0; h < g; ++h) {
      const std::size_t e = static_cast<std::size_t>(j) * g + h;
      const double paired = HasGaps() ? static_cast<double>(b[e]) : in.all[h];
      if (column_gone_[j] || (paired == 0 && !ColumnHasPair(j, v, g, h))) {
        out[e] = kMis;
      } else {
        out[e] = Coefficient(a[e], paired, in.all[h], fix);
      }
    }
}

void BatchedRegressions::RegressRows(const float* w, int g, bool fix, float* out) const {
  if (g < 1 || rows_ == 0) return;
  const Operand in(w, columns_, g);
  std::vector<float> a(static_cast<std::size_t>(rows_) * g, 0.0f), b;
  if (columns_ > 0) {
    Gemm(false, false, rows_, g, columns_, values_.data(), columns_, in.zeroed.data(), g, a.data(),
         g);
    if (HasGaps()) {
      b.assign(a.size(), 0.0f);
      Gemm(false, false, rows_, g, columns_, mask_.data(), columns_, in.squares.data(), g, b.data(),
           g);
    }
  }
  for (int i = 0; i < rows_; ++i)
    for (int h = 0; h < g; ++h) {
      const std::size_t e = static_cast<std::size_t>(i) * g + h;
      const double paired = row_has_gap_[i] ? static_cast<double>(b[e]) : in.all[h];
      if (columns_ == 0 || (paired == 0 && !RowHasPair(i, w, g, h))) {
        out[e] = kMis;
      } else {
        out[e] = Coefficient(a[e], paired, in.all[h], fix);
      }
    }
}

// Asked only when a paired sum of squares came out 0, to tell "no pair" from "only zero weights".
bool BatchedRegressions::ColumnHasPair(int j, const float* v, int g, int h) const {
  for (int i = 0; i < rows_; ++i)
    if (v[static_cast<std::size_t>(i) * g + h] != kMis &&
        (mask_.empty() || mask_[static_cast<std::size_t>(i) * columns_ + j] != 0.0f))
      return true;
  return false;
}

bool BatchedRegressions::RowHasPair(int i, const float* w, int g, int h) const {
  for (int j = 0; j < columns_; ++j)
    if (w[static_cast<std::size_t>(j) * g + h] != kMis &&
        (mask_.empty() || mask_[static_cast<std::size_t>(i) * columns_ + j] != 0.0f))
      return true;
  return false;
}

}  // namespace mvda::detail
