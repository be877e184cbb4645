// NCDataMatrix<T> storage, shape and missing-value counting.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/detail/shared_block.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <utility>

using mvda::detail::SharedBlock;

namespace {

template <class T>
constexpr T kMis = static_cast<T>(mvda::kMissing);

std::string Shape(long long rows, long long cols) {
  return std::to_string(rows) + " x " + std::to_string(cols);
}

// The total missing count is an int, so a matrix may hold at most INT_MAX elements; checking it
// here also keeps a typo in a size from reserving gigabytes.
void CheckShape(const char* place, long long rows, long long cols) {
  if (rows < 0 || cols < 0)
    throw NCError(std::string(place) + ": negative size " + Shape(rows, cols));
  if (rows * cols > INT_MAX)
    throw NCError(std::string(place) + ": " + Shape(rows, cols) +
                  " elements exceed the largest matrix (" + std::to_string(INT_MAX) + " elements)");
}

void CheckCount(const char* place, int count) {
  if (count < 0) throw NCError(std::string(place) + ": negative count " + std::to_string(count));
}

void CheckLength(const char* place, const char* what, int length, int expected, const char* of) {
  if (length != expected)
    throw NCError(std::string(place) + ": " + what + " of length " + std::to_string(length) +
                  " for " + std::to_string(expected) + " " + of);
}

template <class T>
void FreeShared(SharedBlock* block, NCDataVector<T>* rows, NCIntegralVector<int, -99>* counts) {
  delete[] rows;
  delete counts;
  delete block;
}

}  // namespace

// --- Construction

template <class T>
NCDataMatrix<T>::NCDataMatrix() {
  auto block = std::make_unique<SharedBlock>();
  std::unique_ptr<Row[]> rows(new Row[1]);
  auto counts = std::make_unique<IndexVector>();
  shared_ = block.release();
  row_array_ = rows.release();
  column_missing_ = counts.release();
}

template <class T>
NCDataMatrix<T>::NCDataMatrix(int rows, int cols, T fill) : NCDataMatrix() {
  CheckShape("NCDataMatrix::NCDataMatrix", rows, cols);
  GrowRowArray(rows);
  for (int i = 1; i <= rows; ++i) row_array_[i] = Row(cols, fill);
  const bool missing = fill == kMis<T>;
  column_missing_->SetNumValues(cols, missing ? rows : 0);
  rows_ = rows;
  columns_ = cols;
  missing_ = missing ? rows * cols : 0;
}

template <class T>
NCDataMatrix<T>::NCDataMatrix(const NCDataMatrix& other) : UStreamBase(other) {
  SharedBlock* block = other.shared_;
  block->spin.lock();
  shared_ = block;
  columns_ = other.columns_;
  rows_ = other.rows_;
  row_array_ = other.row_array_;
  column_missing_ = other.column_missing_;
  missing_ = other.missing_;
  row_capacity_ = other.row_capacity_;
  block->references.fetch_add(1, std::memory_order_relaxed);
  block->spin.unlock();
}

template <class T>
NCDataMatrix<T>& NCDataMatrix<T>::operator=(const NCDataMatrix& other) {
  NCDataMatrix copy(other);
  swap(copy);
  return *this;
}

template <class T>
NCDataMatrix<T>::~NCDataMatrix() {
  Release();
}

template <class T>
void NCDataMatrix<T>::Release() noexcept {
  if (shared_ == nullptr) return;
  // Whoever drops the last reference frees, also when a sharer that is unlinking and one that
  // is being destroyed race for it.
  if (shared_->references.fetch_sub(1, std::memory_order_acq_rel) == 1)
    FreeShared(shared_, row_array_, column_missing_);
  shared_ = nullptr;
  row_array_ = nullptr;
  column_missing_ = nullptr;
}

template <class T>
void NCDataMatrix<T>::swap(NCDataMatrix& other) noexcept {
  std::swap(shared_, other.shared_);
  std::swap(columns_, other.columns_);
  std::swap(rows_, other.rows_);
  std::swap(row_array_, other.row_array_);
  std::swap(column_missing_, other.column_missing_);
  std::swap(missing_, other.missing_);
  std::swap(row_capacity_, other.row_capacity_);
}

template <class T>
void NCDataMatrix<T>::Clear() {
  NCDataMatrix empty;
  swap(empty);
}

template <class T>
void NCDataMatrix<T>::CopyContent(const NCDataMatrix& other) {
  NCDataMatrix copy;
  copy.GrowRowArray(other.rows_);
  for (int i = 1; i <= other.rows_; ++i) copy.row_array_[i].CopyContent(other.row_array_[i]);
  copy.column_missing_->CopyContent(*other.column_missing_);
  copy.rows_ = other.rows_;
  copy.columns_ = other.columns_;
  copy.missing_ = other.missing_;
  swap(copy);
}

// --- Sharing

template <class T>
void NCDataMatrix<T>::Unlink() {
  if (shared_->references.load(std::memory_order_acquire) > 1) UnlinkMe();
}

template <class T>
void NCDataMatrix<T>::UnlinkMe() {
  SharedBlock* old = shared_;
  old->spin.lock();
  // A sharer may have unlinked or gone since the caller looked.
  if (old->references.load(std::memory_order_acquire) <= 1) {
    old->spin.unlock();
    return;
  }
  Row* old_rows = row_array_;
  IndexVector* old_counts = column_missing_;
  try {
    auto block = std::make_unique<SharedBlock>();
    std::unique_ptr<Row[]> rows(new Row[rows_ + 1]);
    for (int i = 1; i <= rows_; ++i) rows[i] = old_rows[i];  // shares the buffer: O(1) a row
    auto counts = std::make_unique<IndexVector>(*old_counts);
    shared_ = block.release();
    row_array_ = rows.release();
    column_missing_ = counts.release();
  } catch (...) {
    old->spin.unlock();
    throw;
  }
  row_capacity_ = rows_;
  const bool last = old->references.fetch_sub(1, std::memory_order_acq_rel) == 1;
  old->spin.unlock();
  if (last) FreeShared(old, old_rows, old_counts);
}

template <class T>
void NCDataMatrix<T>::ForceUnlink() {
  UnlinkMe();
  for (int i = 1; i <= rows_; ++i) row_array_[i].ForceUnlink();
  column_missing_->ForceUnlink();
}

template <class T>
void NCDataMatrix<T>::GrowRowArray(int capacity) {
  if (capacity <= row_capacity_) return;
  std::unique_ptr<Row[]> rows(new Row[static_cast<size_t>(capacity) + 1]);
  for (int i = 1; i <= rows_; ++i) rows[i] = row_array_[i];
  delete[] row_array_;
  row_array_ = rows.release();
  row_capacity_ = capacity;
}

// The row array doubles (at least 4 rows), so appending rows one by one costs O(1) per row on
// average; a row entry is small, and the elements never move with it.
template <class T>
void NCDataMatrix<T>::EnsureRowCapacity(int rows) {
  if (rows <= row_capacity_) return;
  const long long grown = std::max<long long>({rows, 2LL * row_capacity_, 4});
  GrowRowArray(static_cast<int>(std::min<long long>(grown, INT_MAX - 1)));
}

template <class T>
int* NCDataMatrix<T>::ColumnCounts() {
  return column_missing_->GetPtr();
}

template <class T>
void NCDataMatrix<T>::AddRowToCounts(const Row& row, int sign) {
  if (row.GetNumMisVal() == 0) return;
  int* counts = ColumnCounts();
  const T* p = row.GetVector();
  int missing = 0;
  for (int j = 1; j <= columns_; ++j) {
    if (p[j] == kMis<T>) {
      counts[j] += sign;
      ++missing;
    }
  }
  missing_ += sign * missing;
}

template <class T>
void NCDataMatrix<T>::SetNoMisVal() {
  Unlink();
  for (int i = 1; i <= rows_; ++i) row_array_[i].SetNumMisVal(0);
  column_missing_->SetNumValues(columns_, 0);
  missing_ = 0;
}

template <class T>
void NCDataMatrix<T>::RecountMissing() {
  Unlink();
  column_missing_->SetNumValues(columns_, 0);
  int* counts = ColumnCounts();
  int total = 0;
  for (int i = 1; i <= rows_; ++i) {
    const T* p = static_cast<const Row&>(row_array_[i]).GetVector();
    int missing = 0;
    for (int j = 1; j <= columns_; ++j) {
      if (p[j] == kMis<T>) {
        ++counts[j];
        ++missing;
      }
    }
    row_array_[i].SetNumMisVal(missing);
    total += missing;
  }
  missing_ = total;
}

template <class T>
std::vector<T*> NCDataMatrix<T>::GetMatrixAsPointerPointer(NCDataMatrix& m, bool oneBased) {
  m.ForceUnlink();
  std::vector<T*> pointers(static_cast<size_t>(m.rows_) + (oneBased ? 1 : 0), nullptr);
  for (int i = 1; i <= m.rows_; ++i) {
    T* row = m.row_array_[i].GetVector();
    if (oneBased)
      pointers[i] = row;
    else
      pointers[i - 1] = row + 1;
  }
  return pointers;
}

// --- Size

template <class T>
void NCDataMatrix<T>::SetSize(int rows, int cols) {
  CheckShape("NCDataMatrix::SetSize", rows, cols);
  Unlink();
  GrowRowArray(rows);
  for (int i = rows + 1; i <= rows_; ++i) row_array_[i] = Row();
  for (int i = 1; i <= rows; ++i) row_array_[i].SetSize(cols);
  column_missing_->SetNumValues(cols, rows);
  rows_ = rows;
  columns_ = cols;
  missing_ = rows * cols;
}

template <class T>
void NCDataMatrix<T>::Resize(int rows, int cols) {
  CheckShape("NCDataMatrix::Resize", rows, cols);
  // Shrinking first keeps every intermediate shape within the final one.
  if (rows < rows_) RemoveRows(rows + 1, rows_ - rows);
  if (cols < columns_) RemoveColumns(cols + 1, columns_ - cols);
  if (cols > columns_) InsertColumns(columns_ + 1, cols - columns_);
  if (rows > rows_) InsertRows(rows_ + 1, rows - rows_);
}

template <class T>
void NCDataMatrix<T>::ReserveRows(int rows) {
  CheckCount("NCDataMatrix::ReserveRows", rows);
  Unlink();
  GrowRowArray(rows);
}

template <class T>
void NCDataMatrix<T>::ReserveColumns(int cols) {
  CheckCount("NCDataMatrix::ReserveColumns", cols);
  Unlink();
  for (int i = 1; i <= rows_; ++i) row_array_[i].Reserve(cols);
  column_missing_->Reserve(cols);
}

// --- Element and row

template <class T>
T NCDataMatrix<T>::operator()(int i, int j, T value) {
  Unlink();
  const int delta = row_array_[i].SetAndReturn_dMisVal(j, value);
  if (delta != 0) {
    ColumnCounts()[j] += delta;
    missing_ += delta;
  }
  return value;
}

template <class T>
NCDataVector<T>& NCDataMatrix<T>::operator()(int i) {
  Unlink();
  return row_array_[i];
}

template <class T>
void NCDataMatrix<T>::push_back(const Row& row) {
  if (rows_ > 0) CheckLength("NCDataMatrix::push_back", "row", row.Size(), columns_, "columns");
  InsertRow(rows_ + 1, row);
}

template <class T>
void NCDataMatrix<T>::SetRow(int i, const Row& row) {
  CheckLength("NCDataMatrix::SetRow", "row", row.Size(), columns_, "columns");
  const Row source(row);  // the argument may be a row of this matrix
  Unlink();
  AddRowToCounts(row_array_[i], -1);
  row_array_[i] = source;
  AddRowToCounts(source, +1);
}

template <class T>
void NCDataMatrix<T>::SetRow(int i, T value) {
  Unlink();
  AddRowToCounts(row_array_[i], -1);
  row_array_[i].SetAllValues(value);
  AddRowToCounts(row_array_[i], +1);
}

template <class T>
void NCDataMatrix<T>::InsertRow(int at, const Row& row) {
  const char* place = "NCDataMatrix::InsertRow";
  if (rows_ > 0) CheckLength(place, "row", row.Size(), columns_, "columns");
  CheckShape(place, rows_ + 1LL, row.Size());
  at = std::clamp(at, 1, rows_ + 1);
  const Row source(row);  // the argument may be a row of this matrix, which is about to move
  Unlink();
  EnsureRowCapacity(rows_ + 1);
  if (rows_ == 0 && columns_ != source.Size()) {
    columns_ = source.Size();
    column_missing_->SetNumValues(columns_, 0);
  }
  for (int i = rows_; i >= at; --i) row_array_[i + 1] = row_array_[i];
  row_array_[at] = source;
  ++rows_;
  AddRowToCounts(source, +1);
}

template <class T>
void NCDataMatrix<T>::InsertRows(int at, int count) {
  CheckCount("NCDataMatrix::InsertRows", count);
  CheckShape("NCDataMatrix::InsertRows", static_cast<long long>(rows_) + count, columns_);
  if (count == 0) return;
  at = std::clamp(at, 1, rows_ + 1);
  Unlink();
  EnsureRowCapacity(rows_ + count);
  for (int i = rows_; i >= at; --i) row_array_[i + count] = row_array_[i];
  for (int i = at; i < at + count; ++i) row_array_[i] = Row(columns_);
  int* counts = ColumnCounts();
  for (int j = 1; j <= columns_; ++j) counts[j] += count;
  rows_ += count;
  missing_ += count * columns_;
}

template <class T>
void NCDataMatrix<T>::RemoveRows(int at, int count) {
  CheckCount("NCDataMatrix::RemoveRows", count);
  const int first = std::max(at, 1);
  const int last =
      static_cast<int>(std::min<long long>(static_cast<long long>(at) + count - 1, rows_));
  if (last < first) return;
  Unlink();
  for (int i = first; i <= last; ++i) AddRowToCounts(row_array_[i], -1);
  const int removed = last - first + 1;
  for (int i = first; i + removed <= rows_; ++i) row_array_[i] = row_array_[i + removed];
  for (int i = rows_ - removed + 1; i <= rows_; ++i) row_array_[i] = Row();
  rows_ -= removed;
}

template <class T>
void NCDataMatrix<T>::RemoveRows(const IndexVector& rows) {
  std::vector<char> remove(static_cast<size_t>(rows_) + 1, 0);
  bool any = false;
  for (int k = 1; k <= rows.Size(); ++k) {
    const int i = rows[k];
    if (i >= 1 && i <= rows_) remove[i] = any = true;
  }
  if (!any) return;
  Unlink();
  int kept = 0;
  for (int i = 1; i <= rows_; ++i) {
    if (remove[i])
      AddRowToCounts(row_array_[i], -1);
    else if (++kept != i)
      row_array_[kept] = row_array_[i];
  }
  for (int i = kept + 1; i <= rows_; ++i) row_array_[i] = Row();
  rows_ = kept;
}

template <class T>
void NCDataMatrix<T>::SwapRows(int a, int b) {
  if (a == b) return;
  Unlink();
  std::swap(row_array_[a], row_array_[b]);
}

template <class T>
void NCDataMatrix<T>::CopyRow(int to, int from) {
  if (to == from) return;
  Unlink();
  AddRowToCounts(row_array_[to], -1);
  row_array_[to] = row_array_[from];
  AddRowToCounts(row_array_[to], +1);
}

template <class T>
NCDataMatrix<T> NCDataMatrix<T>::GetRowSubMatrix(int first, int last) const {
  first = std::max(first, 1);
  last = std::min(last, rows_);
  NCDataMatrix sub;
  sub.columns_ = columns_;
  sub.column_missing_->SetNumValues(columns_, 0);
  if (last < first) return sub;
  sub.GrowRowArray(last - first + 1);
  for (int i = first; i <= last; ++i) {
    sub.row_array_[++sub.rows_] = row_array_[i];
    sub.AddRowToCounts(row_array_[i], +1);
  }
  return sub;
}

template <class T>
bool NCDataMatrix<T>::GetRowMinMax(int i, T& min, T& max) const {
  return row_array_[i].GetMinMax(min, max);
}

// --- Column

template <class T>
NCDataVector<T> NCDataMatrix<T>::GetColumn(int j) const {
  Row column(rows_, T(0));
  column.Unlink();
  T* p = column.GetVector();
  int missing = 0;
  for (int i = 1; i <= rows_; ++i) {
    p[i] = row_array_[i][j];
    if (p[i] == kMis<T>) ++missing;
  }
  column.SetNumMisVal(missing);
  return column;
}

template <class T>
void NCDataMatrix<T>::SetColumn(int j, const Row& column) {
  CheckLength("NCDataMatrix::SetColumn", "column", column.Size(), rows_, "rows");
  const Row source(column);  // the argument may be a row of this matrix
  SetColumn(j, source.GetVector());
}

template <class T>
void NCDataMatrix<T>::SetColumn(int j, const T* p) {
  Unlink();
  int delta = 0;
  for (int i = 1; i <= rows_; ++i) delta += row_array_[i].SetAndReturn_dMisVal(j, p[i]);
  if (delta != 0) {
    ColumnCounts()[j] += delta;
    missing_ += delta;
  }
}

template <class T>
void NCDataMatrix<T>::SetColumn(int j, T value) {
  if (value == kMis<T> && (*column_missing_)[j] == columns_) return;
  Unlink();
  int delta = 0;
  for (int i = 1; i <= rows_; ++i) delta += row_array_[i].SetAndReturn_dMisVal(j, value);
  if (delta != 0) {
    ColumnCounts()[j] += delta;
    missing_ += delta;
  }
}

template <class T>
void NCDataMatrix<T>::InsertColumn(int at, const Row& column) {
  const char* place = "NCDataMatrix::InsertColumn";
  if (columns_ > 0) CheckLength(place, "column", column.Size(), rows_, "rows");
  CheckShape(place, column.Size(), columns_ + 1LL);
  const Row source(column);  // the argument may be a row of this matrix
  // A matrix without columns takes its row count from the column.
  if (columns_ == 0 && rows_ != source.Size()) Resize(source.Size(), 0);
  at = std::clamp(at, 1, columns_ + 1);
  Unlink();
  for (int i = 1; i <= rows_; ++i) row_array_[i].InsertValues(at, 1, source[i]);
  column_missing_->InsertValues(at, 1, source.GetNumMisVal());
  ++columns_;
  missing_ += source.GetNumMisVal();
}

template <class T>
void NCDataMatrix<T>::InsertColumns(int at, int count) {
  CheckCount("NCDataMatrix::InsertColumns", count);
  CheckShape("NCDataMatrix::InsertColumns", rows_, static_cast<long long>(columns_) + count);
  if (count == 0) return;
  at = std::clamp(at, 1, columns_ + 1);
  Unlink();
  for (int i = 1; i <= rows_; ++i) row_array_[i].InsertValues(at, count, kMis<T>);
  column_missing_->InsertValues(at, count, rows_);
  columns_ += count;
  missing_ += rows_ * count;
}

template <class T>
void NCDataMatrix<T>::InsertColumns(int at, const NCDataMatrix& other) {
  if (rows_ == 0 && columns_ == 0) {
    *this = other;
    return;
  }
  const char* place = "NCDataMatrix::InsertColumns";
  if (other.rows_ != rows_)
    throw NCError(std::string(place) + ": matrix of " + std::to_string(other.rows_) + " rows for " +
                  std::to_string(rows_) + " rows");
  CheckShape(place, rows_, static_cast<long long>(columns_) + other.columns_);
  if (other.columns_ == 0) return;
  const NCDataMatrix source(other);  // other may be this matrix
  at = std::clamp(at, 1, columns_ + 1);
  Unlink();
  for (int i = 1; i <= rows_; ++i) row_array_[i].InsertValues(at, source.row_array_[i]);
  column_missing_->InsertValues(at, *source.column_missing_);
  columns_ += source.columns_;
  missing_ += source.missing_;
}

template <class T>
void NCDataMatrix<T>::RemoveColumns(int at, int count) {
  CheckCount("NCDataMatrix::RemoveColumns", count);
  const int first = std::max(at, 1);
  const int last =
      static_cast<int>(std::min<long long>(static_cast<long long>(at) + count - 1, columns_));
  if (last < first) return;
  Unlink();
  const int removed = last - first + 1;
  for (int i = 1; i <= rows_; ++i) row_array_[i].RemoveValues(first, removed);
  for (int j = first; j <= last; ++j) missing_ -= (*column_missing_)[j];
  column_missing_->RemoveValues(first, removed);
  columns_ -= removed;
}

template <class T>
void NCDataMatrix<T>::SelectColumns(const IndexVector& keep) {
  Unlink();
  for (int i = 1; i <= rows_; ++i) row_array_[i].Reduce(keep);
  IndexVector counts(keep.Size(), 0);
  int* c = counts.GetPtr();
  int total = 0;
  for (int k = 1; k <= keep.Size(); ++k) total += c[k] = (*column_missing_)[keep[k]];
  *column_missing_ = counts;
  columns_ = keep.Size();
  missing_ = total;
}

template <class T>
void NCDataMatrix<T>::RemoveColumns(const IndexVector& cols) {
  std::vector<char> remove(static_cast<size_t>(columns_) + 1, 0);
  for (int k = 1; k <= cols.Size(); ++k) {
    const int j = cols[k];
    if (j >= 1 && j <= columns_) remove[j] = 1;
  }
  IndexVector keep;
  keep.Reserve(columns_);
  for (int j = 1; j <= columns_; ++j)
    if (!remove[j]) keep.push_back(j);
  if (keep.Size() != columns_) SelectColumns(keep);
}

template <class T>
void NCDataMatrix<T>::ReduceColumns(const IndexVector& cols) {
  Unlink();
  for (int i = 1; i <= rows_; ++i) row_array_[i].Reduce(cols);
  columns_ = cols.Size();
  // Without a missing element every count stays 0; otherwise a column may be listed twice, and
  // counting the elements again is as cheap as the reduction itself.
  if (missing_ == 0)
    column_missing_->SetNumValues(columns_, 0);
  else
    RecountMissing();
}

template <class T>
void NCDataMatrix<T>::RearrangeColumns(const std::vector<int>& order) {
  const std::string place = "NCDataMatrix::RearrangeColumns: ";
  if (order.size() > static_cast<size_t>(columns_))
    throw NCError(place + std::to_string(order.size()) + " columns listed for " +
                  std::to_string(columns_) + " columns");
  std::vector<char> listed(static_cast<size_t>(columns_) + 1, 0);
  IndexVector keep;
  keep.Reserve(columns_);
  for (int j : order) {
    if (j < 1 || j > columns_ || listed[j])
      throw NCError(place + "column " + std::to_string(j) + " is outside 1.." +
                    std::to_string(columns_) + " or listed twice");
    listed[j] = 1;
    keep.push_back(j);
  }
  for (int j = 1; j <= columns_; ++j)
    if (!listed[j]) keep.push_back(j);
  SelectColumns(keep);
}

template <class T>
void NCDataMatrix<T>::SwapColumns(int a, int b) {
  if (a == b) return;
  Unlink();
  for (int i = 1; i <= rows_; ++i) {
    Row& row = row_array_[i];
    row.Unlink();
    T* p = row.GetVector();
    std::swap(p[a], p[b]);
  }
  int* counts = ColumnCounts();
  std::swap(counts[a], counts[b]);
}

template <class T>
void NCDataMatrix<T>::CopyColumn(int to, int from) {
  if (to != from) CopyColumn(to, *this, from);
}

template <class T>
void NCDataMatrix<T>::CopyColumn(int to, const NCDataMatrix& src, int from) {
  CheckLength("NCDataMatrix::CopyColumn", "source column", src.rows_, rows_, "rows");
  // Reading src while writing is safe even when src is this matrix: each row reads column from
  // before it writes column to.
  Unlink();
  int delta = 0;
  for (int i = 1; i <= rows_; ++i)
    delta += row_array_[i].SetAndReturn_dMisVal(to, src.row_array_[i][from]);
  if (delta != 0) {
    ColumnCounts()[to] += delta;
    missing_ += delta;
  }
}

template <class T>
void NCDataMatrix<T>::LagColumn(int j, int k) {
  if (k == 0 || rows_ == 0) return;
  const Row old = GetColumn(j);
  Unlink();
  int delta = 0;
  for (int i = 1; i <= rows_; ++i) {
    const long long source = static_cast<long long>(i) - k;
    const T value = source >= 1 && source <= rows_ ? old[static_cast<int>(source)] : kMis<T>;
    delta += row_array_[i].SetAndReturn_dMisVal(j, value);
  }
  if (delta != 0) {
    ColumnCounts()[j] += delta;
    missing_ += delta;
  }
}

template <class T>
bool NCDataMatrix<T>::GetColumnMinMax(int j, T& min, T& max) const {
  bool found = false;
  T lo = T(0), hi = T(0);
  for (int i = 1; i <= rows_; ++i) {
    const T x = row_array_[i][j];
    if (x == kMis<T>) continue;
    if (!found || x < lo) lo = x;
    if (!found || x > hi) hi = x;
    found = true;
  }
  if (found) {
    min = lo;
    max = hi;
  }
  return found;
}

// --- Whole

template <class T>
void NCDataMatrix<T>::ConcatRows(const NCDataMatrix& other) {
  if (other.rows_ == 0) return;
  if (columns_ > 0 && rows_ > 0 && columns_ != other.columns_)
    throw NCError("Error in NCDataMatrix<FloatType>::ConcatRows.\nMatrices are different size");
  if (columns_ == 0 || rows_ == 0) {
    *this = other;
    return;
  }
  CheckShape("NCDataMatrix::ConcatRows", static_cast<long long>(rows_) + other.rows_, columns_);
  // other may be this matrix: its rows 1..r are read before rows_ changes.
  const NCDataMatrix& source = other;
  Unlink();
  EnsureRowCapacity(rows_ + source.rows_);
  for (int k = 1; k <= source.rows_; ++k) row_array_[rows_ + k] = source.row_array_[k];
  int* counts = ColumnCounts();
  for (int j = 1; j <= columns_; ++j) counts[j] += (*source.column_missing_)[j];
  rows_ += source.rows_;
  missing_ += source.missing_;
}

template <class T>
void NCDataMatrix<T>::ConcatColumns(const NCDataMatrix& other) {
  if (other.columns_ == 0) return;
  CheckShape("NCDataMatrix::ConcatColumns", rows_,
             static_cast<long long>(columns_) + other.columns_);
  const NCDataMatrix source(other);  // other may be this matrix
  Unlink();
  const int at = columns_ + 1;
  const int added = source.columns_;
  const int common = std::min(rows_, source.rows_);
  for (int i = 1; i <= common; ++i) row_array_[i].InsertValues(at, source.row_array_[i]);
  for (int i = common + 1; i <= rows_; ++i) row_array_[i].InsertValues(at, added, kMis<T>);
  if (source.rows_ == rows_) {
    column_missing_->InsertValues(at, *source.column_missing_);
    missing_ += source.missing_;
  } else {
    column_missing_->InsertValues(at, added, 0);
    int* counts = ColumnCounts();
    for (int i = 1; i <= rows_; ++i) {
      const T* p = static_cast<const Row&>(row_array_[i]).GetVector();
      for (int j = at; j < at + added; ++j) {
        if (p[j] == kMis<T>) {
          ++counts[j];
          ++missing_;
        }
      }
    }
  }
  columns_ += added;
}

// Copies tile by tile so that both the rows read and the rows written stay in cache; a direct
// row-by-row copy would touch a new cache line of the result for every element.
template <class T>
void NCDataMatrix<T>::Transpose() {
  constexpr int kTile = 32;
  NCDataMatrix t;
  t.GrowRowArray(columns_);
  std::vector<T*> out(static_cast<size_t>(columns_) + 1, nullptr);
  for (int j = 1; j <= columns_; ++j) {
    t.row_array_[j] = Row(rows_, T(0));
    t.row_array_[j].Unlink();
    out[j] = t.row_array_[j].GetVector();
  }
  for (int i0 = 1; i0 <= rows_; i0 += kTile) {
    const int i1 = std::min(i0 + kTile - 1, rows_);
    for (int j0 = 1; j0 <= columns_; j0 += kTile) {
      const int j1 = std::min(j0 + kTile - 1, columns_);
      for (int i = i0; i <= i1; ++i) {
        const T* in = static_cast<const Row&>(row_array_[i]).GetVector();
        for (int j = j0; j <= j1; ++j) out[j][i] = in[j];
      }
    }
  }
  // A row of the result is a column here and the other way round, so the counts carry over.
  for (int j = 1; j <= columns_; ++j) t.row_array_[j].SetNumMisVal((*column_missing_)[j]);
  t.column_missing_->SetNumValues(rows_, 0);
  int* counts = t.ColumnCounts();
  for (int i = 1; i <= rows_; ++i) counts[i] = row_array_[i].GetNumMisVal();
  t.rows_ = columns_;
  t.columns_ = rows_;
  t.missing_ = missing_;
  swap(t);
}

template <class T>
void NCDataMatrix<T>::SetAllValues(T value) {
  const bool missing = value == kMis<T>;
  if (missing && missing_ == rows_ * columns_) return;
  Unlink();
  for (int i = 1; i <= rows_; ++i) row_array_[i].SetAllValues(value);
  column_missing_->SetNumValues(columns_, missing ? rows_ : 0);
  missing_ = missing ? rows_ * columns_ : 0;
}

template <class T>
bool NCDataMatrix<T>::operator==(const NCDataMatrix& other) const {
  if (rows_ != other.rows_ || columns_ != other.columns_) return false;
  for (int i = 1; i <= rows_; ++i)
    if (row_array_[i] != other.row_array_[i]) return false;
  return true;
}

template class NCDataMatrix<float>;
template class NCDataMatrix<double>;
