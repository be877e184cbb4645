// NCDataMatrix<T> statistics: column statistics, whole-matrix sums, SNV, data density and the
// correlation of every column with a vector.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/detail/masked_kernels.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/containers/detail/present_sums.h>
#include <mvda/containers/detail/work_grid.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

using mvda::detail::ParallelFor;

namespace {

template <class T>
constexpr T kMis = T(-99);

constexpr long double kNotComputable = -99;

// Sums one value per row into per-row slots, then adds the slots in row order: the same total
// whatever the team.
template <class T, class F>
long double SumOverRows(const NCDataMatrix<T>& m, F perRow) {
  std::vector<long double> slots(static_cast<std::size_t>(m.SizeRows()), 0);
  const mvda::detail::WorkGrid grid(m.SizeRows(), m.SizeColumns());
  ParallelFor(grid.bands, static_cast<long long>(m.SizeRows()) * m.SizeColumns(), [&](int band) {
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i) slots[i] = perRow(m[i + 1]);
  });
  long double total = 0;
  for (const long double s : slots) total += s;
  return total;
}

}  // namespace

template <class T>
long double NCDataMatrix<T>::GetColumnMean(int j) const {
  return GetColumn(j).GetMean();
}

template <class T>
long double NCDataMatrix<T>::GetColumnStdDev(int j, float divisor) const {
  const long double mean = GetColumnMean(j);
  if (mean == kNotComputable) return kNotComputable;
  const double centre = static_cast<double>(mean);
  const long double ss = ColumnSquares(j, j, &centre)[0];
  if (divisor > 0) return std::sqrt(ss / divisor);
  // The count goes through single precision, as in the hosts' own tables.
  const float m = static_cast<float>(rows_ - GetColumnMisVal(j) - 1);
  if (m <= 0) return kNotComputable;
  return std::sqrt(ss / m);
}

// Formed in the same order as the sums of GetNIPALSStartColumn, so that both see the same value.
template <class T>
long double NCDataMatrix<T>::GetColumnSS(int j, T centre) const {
  if (rows_ - GetColumnMisVal(j) <= 0) return kNotComputable;
  const double c = static_cast<double>(centre);
  return ColumnSquares(j, j, c == 0 ? nullptr : &c)[0];
}

template <class T>
long double NCDataMatrix<T>::GetColumnMedian(int j) const {
  return GetColumn(j).GetMedian();
}

template <class T>
long double NCDataMatrix<T>::GetColumnSkewness(int j, int minPresent) const {
  if (rows_ - GetColumnMisVal(j) < std::max(3, minPresent)) return kNotComputable;
  return GetColumn(j).GetSkewness();
}

template <class T>
long double NCDataMatrix<T>::GetColumnSkewnessTest(int j, int minPresent) const {
  if (rows_ - GetColumnMisVal(j) < std::max(3, minPresent)) return kNotComputable;
  return GetColumn(j).GetSkewnessTest();
}

template <class T>
long double NCDataMatrix<T>::GetColumnKurtosis(int j) const {
  return GetColumn(j).GetKurtosis();
}

// The usual capability indices with the sample standard deviation (divisor m - 1). Limits that do
// not enclose any interval, and columns without spread, have no capability.
template <class T>
long double NCDataMatrix<T>::GetColumnCp(int j, T lower, T upper) const {
  if (lower == kMis<T> || upper == kMis<T> || !(upper > lower)) return kNotComputable;
  const long double s = GetColumnStdDev(j, 0);
  if (s == kNotComputable || !(s > 0)) return kNotComputable;
  return (static_cast<long double>(upper) - lower) / (6 * s);
}

template <class T>
long double NCDataMatrix<T>::GetColumnCpk(int j, T lower, T upper) const {
  const bool hasLower = lower != kMis<T>, hasUpper = upper != kMis<T>;
  if (!hasLower && !hasUpper) return kNotComputable;
  if (hasLower && hasUpper && !(upper > lower)) return kNotComputable;
  const long double mean = GetColumnMean(j);
  const long double s = GetColumnStdDev(j, 0);
  if (mean == kNotComputable || s == kNotComputable || !(s > 0)) return kNotComputable;
  long double distance = hasUpper ? upper - mean : mean - lower;
  if (hasLower && hasUpper) distance = std::min(distance, mean - lower);
  return distance / (3 * s);
}

template <class T>
long double NCDataMatrix<T>::GetMean() const {
  const long double present = static_cast<long double>(rows_) * columns_ - missing_;
  if (present <= 0) return kNotComputable;
  const int c = columns_;
  long double mean =
      SumOverRows(*this,
                  [c](const Row& row) {
                    return mvda::detail::SumPresent(row.GetVector(), c, row.GetNumMisVal());
                  }) /
      present;
  // A mean that lands exactly on -99 would read as "not computable", so it is moved just off the
  // marker, as NCDataVector::GetMean does.
  if (mean == kNotComputable) mean -= 1e-5;
  return mean;
}

template <class T>
long double NCDataMatrix<T>::GetSS() const {
  if (static_cast<long long>(rows_) * columns_ - missing_ <= 0) return kNotComputable;
  const int c = columns_;
  return SumOverRows(*this, [c](const Row& row) {
    return mvda::detail::SumSquaredDeviations(row.GetVector(), c, row.GetNumMisVal(), 0.0);
  });
}

template <class T>
long double NCDataMatrix<T>::GetSSAroundColumnMeans() const {
  if (static_cast<long long>(rows_) * columns_ - missing_ <= 0) return kNotComputable;
  const std::vector<const T*> rows = mvda::detail::RowStarts(*this);
  const mvda::detail::WorkGrid grid(rows_, columns_);
  const int c = columns_;
  std::vector<double> bandSums(static_cast<std::size_t>(grid.bands) * c, 0.0);
  ParallelFor(grid.bands * grid.blocks, static_cast<long long>(rows_) * c, [&](int task) {
    const int band = task / grid.blocks, block = task % grid.blocks;
    const int j0 = grid.BlockBegin(block);
    std::vector<const T*> starts;
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i) starts.push_back(rows[i] + j0);
    mvda::detail::AccumulateColumnSums(starts.data(), static_cast<int>(starts.size()),
                                       grid.BlockEnd(block) - j0,
                                       bandSums.data() + static_cast<std::size_t>(band) * c + j0);
  });
  std::vector<double> means(static_cast<std::size_t>(c), 0.0);
  for (int b = 0; b < grid.bands; ++b)
    for (int j = 0; j < c; ++j) means[j] += bandSums[static_cast<std::size_t>(b) * c + j];
  for (int j = 0; j < c; ++j) {
    const int present = rows_ - GetColumnMisVal(j + 1);
    means[j] = present > 0 ? means[j] / present : 0.0;  // an empty column adds nothing anyway
  }
  const std::vector<double> ss = ColumnSquares(1, c, means.data());
  long double total = 0;
  for (const double s : ss) total += s;
  return total;
}

template <class T>
void NCDataMatrix<T>::SNV() {
  Unlink();
  const mvda::detail::WorkGrid grid(rows_, columns_);
  ParallelFor(grid.bands, static_cast<long long>(rows_) * columns_, [&](int band) {
    for (int i = grid.BandBegin(band); i < grid.BandEnd(band); ++i)
      row_array_[i + 1] = row_array_[i + 1].SNV();
  });
  RecountMissing();
}

template <class T>
long double NCDataMatrix<T>::GetDensity(int first, int last, bool percent) const {
  first = std::max(first, 1);
  last = std::min(last, columns_);
  if (rows_ == 0 || first > last) return kNotComputable;
  long long present = 0;
  for (int j = first; j <= last; ++j) present += rows_ - GetColumnMisVal(j);
  const long double share =
      static_cast<long double>(present) / (static_cast<long double>(rows_) * (last - first + 1));
  return percent ? 100 * share : share;
}

template <class T>
typename NCDataMatrix<T>::Row NCDataMatrix<T>::GetColumnCorrelation(const Row& y,
                                                                    bool absolute) const {
  if (y.Size() != rows_)
    throw NCError("NCDataMatrix::GetColumnCorrelation: y of length " + std::to_string(y.Size()) +
                  " for " + std::to_string(rows_) + " rows");
  Row out(columns_, T(0));
  out.Unlink();
  T* result = out.GetVector();
  ParallelFor(columns_, static_cast<long long>(rows_) * columns_, [&](int k) {
    long double r = y.Correlation(GetColumn(k + 1));
    if (absolute && r != kNotComputable) r = std::fabs(r);
    result[k + 1] = static_cast<T>(r);
  });
  out.SetNumMisVal(columns_ > 0 ? mvda::detail::CountMissing(result + 1, columns_) : 0);
  return out;
}

#define MVDA_INSTANTIATE_STATISTICS(T)                                         \
  template long double NCDataMatrix<T>::GetColumnMean(int) const;              \
  template long double NCDataMatrix<T>::GetColumnStdDev(int, float) const;     \
  template long double NCDataMatrix<T>::GetColumnSS(int, T) const;             \
  template long double NCDataMatrix<T>::GetColumnMedian(int) const;            \
  template long double NCDataMatrix<T>::GetColumnSkewness(int, int) const;     \
  template long double NCDataMatrix<T>::GetColumnSkewnessTest(int, int) const; \
  template long double NCDataMatrix<T>::GetColumnKurtosis(int) const;          \
  template long double NCDataMatrix<T>::GetColumnCp(int, T, T) const;          \
  template long double NCDataMatrix<T>::GetColumnCpk(int, T, T) const;         \
  template long double NCDataMatrix<T>::GetMean() const;                       \
  template long double NCDataMatrix<T>::GetSS() const;                         \
  template long double NCDataMatrix<T>::GetSSAroundColumnMeans() const;        \
  template void NCDataMatrix<T>::SNV();                                        \
  template long double NCDataMatrix<T>::GetDensity(int, int, bool) const;      \
  template NCDataMatrix<T>::Row NCDataMatrix<T>::GetColumnCorrelation(const Row&, bool) const;
MVDA_INSTANTIATE_STATISTICS(float)
MVDA_INSTANTIATE_STATISTICS(double)
#undef MVDA_INSTANTIATE_STATISTICS
