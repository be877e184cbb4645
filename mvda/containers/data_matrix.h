// NCDataMatrix<T>: the dense 1-based matrix of measurements with missing values, for T = float
// and double. A list of NCDataVector rows with per-column missing counts, shared copy-on-write.
#ifndef MVDA_CONTAINERS_DATA_MATRIX_H_
#define MVDA_CONTAINERS_DATA_MATRIX_H_

#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/mvda_export.h>

#include <vector>

namespace mvda::detail {
struct SharedBlock;
}

// A matrix addressed (i, j), 1 <= i <= SizeRows(), 1 <= j <= SizeColumns(), stored as an array of
// row vectors. Every row has SizeColumns() elements and keeps its own missing count; the matrix
// keeps the number of -99 elements of every column and in total, exact after every member call.
//
// Copies share the row array. The first write to a shared matrix gives it a row array of its own
// whose rows still share their buffers (O(rows)); the row that is then written copies only its
// own elements. Indices are not checked; sizes and counts are (a negative one throws NCError
// before anything changes), and so are the lengths of rows and columns passed in, since a row of
// the wrong length would break every later product.
//
// Thread-safety: copies of one matrix may be read and copied from several threads; one matrix
// object is never written by two threads at once.
template <class T>
class MVDA_EXPORT NCDataMatrix {
 public:
  using value_type = T;
  using Row = NCDataVector<T>;
  using IndexVector = NCIntegralVector<int, -99>;

  // --- Construction
  NCDataMatrix();
  NCDataMatrix(int rows, int cols, T fill);
  NCDataMatrix(const NCDataMatrix& other);  // shares the row array
  NCDataMatrix& operator=(const NCDataMatrix& other);
  virtual ~NCDataMatrix();

  void swap(NCDataMatrix& other) noexcept;
  void Clear();                                 // 0 x 0
  void CopyContent(const NCDataMatrix& other);  // private deep copy of every element

  // --- Size
  int SizeRows() const { return rows_; }
  int SizeColumns() const { return columns_; }
  void SetSize(int rows, int cols);  // every element becomes missing
  // Keeps the elements (i, j) with i <= min(rows, old rows), j <= min(cols, old cols); the new
  // ones are missing.
  void Resize(int rows, int cols);
  void ReserveRows(int rows);
  void ReserveColumns(int cols);

  // --- Element (read through a row: m[i][j])
  T operator()(int i, int j, T value);  // write; keeps every count

  // --- Row
  const Row& operator[](int i) const { return row_array_[i]; }
  // Row i for writing: the matrix stops sharing its row array first, and the row's own writes
  // unlink its buffer. Writing it keeps the row's count but NOT the column counts: a caller that
  // may change whether an element is -99 writes through (i, j, value) instead. Like every row
  // reference, it is invalid after a call that changes the shape.
  Row& operator()(int i);
  const Row* begin() const { return row_array_ + 1; }
  const Row* end() const { return row_array_ + 1 + rows_; }
  const Row& back() const { return row_array_[rows_]; }
  // Rows passed in must have SizeColumns() elements, except into a matrix without rows, whose
  // column count becomes the row's length. They share the caller's buffer until written.
  void push_back(const Row& row);
  void SetRow(int i, const Row& row);
  void SetRow(int i, T value);
  void InsertRow(int at, const Row& row);    // at > rows + 1 is taken as rows + 1
  void InsertRows(int at, int count);        // count missing rows
  void RemoveRows(int at, int count);        // rows past the end are ignored
  void RemoveRows(const IndexVector& rows);  // any order; repeats and non-rows are ignored
  void SwapRows(int a, int b);
  void CopyRow(int to, int from);  // the rows then share one buffer
  // Rows first..last (clamped to the matrix), sharing their buffers; no rows when last < first.
  NCDataMatrix GetRowSubMatrix(int first, int last) const;
  bool GetRowMinMax(int i, T& min, T& max) const;  // false, outputs untouched, if none present

  // --- Column
  Row GetColumn(int j) const;
  void SetColumn(int j, const Row& column);  // column.Size() must equal SizeRows()
  void SetColumn(int j, const T* p);         // p[1..SizeRows()]
  // Writes value into every row. Setting -99 is skipped when column j already holds as many
  // missing elements as the matrix has COLUMNS (not rows): hosts rely on that exact shortcut.
  void SetColumn(int j, T value);
  void InsertColumn(int at, const Row& column);  // at > cols + 1 is taken as cols + 1
  void InsertColumns(int at, int count);         // count missing columns
  // Inserts other's columns; other must have as many rows as this matrix, unless this one is
  // 0 x 0, which then becomes a shared copy of other.
  void InsertColumns(int at, const NCDataMatrix& other);
  void RemoveColumns(int at, int count);        // columns past the end are ignored
  void RemoveColumns(const IndexVector& cols);  // any order; repeats and non-columns are ignored
  void ReduceColumns(const IndexVector& cols);  // keep the listed columns, in list order
  // Column k of the result is old column order[k - 1] (column numbers are 1-based like every
  // index). A shorter list moves the listed columns to the front and keeps the others after them
  // in their old order, so no column is lost. A value outside 1..cols or a repeat throws NCError.
  void RearrangeColumns(const std::vector<int>& order);
  void SwapColumns(int a, int b);
  void CopyColumn(int to, int from);
  void CopyColumn(int to, const NCDataMatrix& src, int from);  // src must have SizeRows() rows
  // Element i becomes old element i - k (k > 0 moves values down the column); positions left
  // empty become missing. With |k| >= rows every element becomes missing; nothing wraps round.
  void LagColumn(int j, int k);
  bool GetColumnMinMax(int j, T& min, T& max) const;  // false, outputs untouched, if none present

  // --- Whole
  // Appends other's rows, sharing their buffers. Throws NCError when both have rows and columns
  // and the column counts differ; onto a matrix without rows or columns it makes a shared copy.
  void ConcatRows(const NCDataMatrix& other);
  // Appends other's columns to every row and checks nothing: matching row counts are the
  // caller's business. Rows of this matrix beyond other's get missing elements, other's extra
  // rows are dropped, and the counts describe what was actually appended.
  void ConcatColumns(const NCDataMatrix& other);
  void Transpose();
  void SetAllValues(T value);
  bool operator==(const NCDataMatrix& other) const;  // same shape, element-wise equal
  bool operator!=(const NCDataMatrix& other) const { return !(*this == other); }

  // --- Missing
  int GetNumMisVal() const { return missing_; }
  int GetColumnMisVal(int j) const { return (*column_missing_)[j]; }

  // --- Sharing
  void Unlink();       // a row array of its own (rows still share buffers)
  void ForceUnlink();  // a row array, row buffers and column counts of its own

 protected:
  // Zeroes every row's count, the column counts and the total without reading an element, for
  // callers that know no element is -99.
  void SetNoMisVal();
  // Recounts every row, the column counts and the total from the elements, for callers that
  // wrote the buffers directly.
  void RecountMissing();
  // Row pointers for the singular value decomposition, which writes through them: the matrix is
  // made entirely private first. With oneBased, p[i][j] is element (i, j) and p[0] is null;
  // otherwise p[i - 1][j - 1] is. The caller recounts the missing values after writing.
  static std::vector<T*> GetMatrixAsPointerPointer(NCDataMatrix& m, bool oneBased);

 private:
  void UnlinkMe();  // under the shared block's flag: a row array of its own, rows still shared
  // Unshared matrices only. The first grows by the array's growth policy, the second exactly.
  void EnsureRowCapacity(int rows);
  void GrowRowArray(int capacity);
  void AddRowToCounts(const Row& row, int sign);  // sign -1 before a row leaves, +1 after it came
  void SelectColumns(const IndexVector& keep);    // distinct columns, in their new order
  int* ColumnCounts();                            // the 1-based column counts, for writing
  void Release() noexcept;

  mvda::detail::SharedBlock* shared_ = nullptr;  // shared with copies: row array, column counts
  int columns_ = 0;
  int rows_ = 0;
  Row* row_array_ = nullptr;  // row_capacity_ + 1 entries; entry 0 and entries past rows_ empty
  IndexVector* column_missing_ = nullptr;  // 1-based, columns_ entries
  int missing_ = 0;
  int row_capacity_ = 0;
};

extern template class NCDataMatrix<float>;
extern template class NCDataMatrix<double>;

#endif  // MVDA_CONTAINERS_DATA_MATRIX_H_
