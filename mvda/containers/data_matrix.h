// NCDataMatrix<T>: the dense 1-based matrix of measurements with missing values, for T = float
// and double. A list of NCDataVector rows with per-column missing counts, shared copy-on-write.
#ifndef MVDA_CONTAINERS_DATA_MATRIX_H_
#define MVDA_CONTAINERS_DATA_MATRIX_H_

#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/stream.h>

#include <vector>

namespace mvda::detail {
struct SharedBlock;
}

// Exported here already: clang takes a template's visibility from its first declaration.
template <class T>
class MVDA_EXPORT NCMatOpResultProxy;
template <class T>
class MVDA_EXPORT NCVecOpResultProxy;

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
class MVDA_EXPORT NCDataMatrix : public virtual UStreamBase {
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

  // --- Stream (data_matrix_stream.cpp): record "NCDM" version 4, a directory of the rows (entry
  // 0), columns (1), total missing count (2), the rows as NCDataVector objects (3, only with rows)
  // and the column missing counts as an NCIntegralVector<int,-99> object (4). A read checks every
  // row length and recounts the missing elements, refusing a stream that disagrees; a failed read
  // leaves the matrix 0 x 0.
  static UStreamableData MyStreamableData;
  static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
  static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableRead(std::istream& is) override;  // ReadStreamDirectory(is, false)
  void UStreamableReset() const override;           // also the rows and the column counts
  // Reads the directory that follows the record. With throwOnError, a row or column-count
  // object that cannot be read throws TwStreamError ("Error when reading from stream") instead
  // of returning false.
  bool ReadStreamDirectory(std::istream& is, bool throwOnError = false);

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

  // ============================================================================================
  // Algebra and statistics (data_matrix_algebra.cpp, data_matrix_statistics.cpp)
  //
  // Missing elements: every product takes a fast path when neither operand holds a missing element
  // and a skipping path otherwise, which sums over the pairs where both factors are present, with
  // no rescaling unless asked for. A result element is -99 when its whole row of the left factor
  // or its whole column of the right factor is missing; a sum over no pair but from factors that
  // are not entirely missing is 0. Shapes that do not fit throw NCError before anything changes.
  // Results do not depend on the number of threads: every sum runs in an order fixed by the shape.
 public:
  // --- Products (each returns a new object; the proxies of Result() write into an existing one)
  NCDataMatrix operator*(const NCDataMatrix& b) const;
  // out = this * b. With rescale, a sum over fewer pairs than the inner dimension k is scaled by
  // k / pairs, estimating the full product as if the missing terms were like the present ones; a
  // sum over no pair is then -99.
  void MulMat(const NCDataMatrix& b, NCDataMatrix& out, bool rescale = false) const;
  // op(this) * op(b), op transposing where asked; rescale as for MulMat.
  NCDataMatrix MatrixMultiply(const NCDataMatrix& b, bool transposeThis, bool transposeOther,
                              bool rescale = false) const;
  NCDataMatrix MultiplyTransposeThis(const NCDataMatrix& b, bool rescale = false) const;   // A'B
  NCDataMatrix MultiplyTransposeOther(const NCDataMatrix& b, bool rescale = false) const;  // AB'
  NCDataMatrix MultiplyTransposeBoth(const NCDataMatrix& b, bool rescale = false) const;   // A'B'
  Row operator*(const Row& v) const;          // A v, SizeRows() elements
  void MulMat(const Row& v, Row& out) const;  // out = A v
  Row PreMultiply(const Row& v) const;        // v'A, SizeColumns() elements
  // Element-wise; a missing element stays missing, and a pair with a missing element gives one.
  NCDataMatrix operator*(T s) const;
  void MulMat(T s, NCDataMatrix& out) const;
  NCDataMatrix operator+(const NCDataMatrix& b) const;
  NCDataMatrix operator-(const NCDataMatrix& b) const;
  NCDataMatrix& operator+=(const NCDataMatrix& b);
  NCDataMatrix& operator-=(const NCDataMatrix& b);

  // --- In-place scaling; missing elements stay missing, and a result that lands exactly on -99
  // counts as missing from then on, like every write.
  void MultiplyRow(int i, T s, int fromColumn = 1);  // elements fromColumn..SizeColumns() of row i
  void MultiplyColumn(int j, T s, int fromRow = 1);  // elements fromRow..SizeRows() of column j
  // Column `to` becomes the element-wise product of columns a and b (a cross or square term),
  // missing where either factor is.
  void MultiplyColumns(int to, int a, int b);
  void SubtractFromColumn(int j, T s);
  // Every row times / divided by v (SizeColumns() elements) element-wise; every column times /
  // divided by v (SizeRows() elements). A missing factor or a zero divisor gives a missing element.
  void DotMultiplyVector(const Row& v);
  void DotDivideVector(const Row& v);
  void DotPreMultiplyVector(const Row& v);
  void DotPreDivideVector(const Row& v);
  // Rank-one updates A + a b', A - a b', A + factor a b' (a: SizeRows(), b: SizeColumns()), used
  // for deflation. An element changes only when it and both of its factors are present: a missing
  // element stays missing, and a missing a_i or b_j leaves its row or column as it was.
  void TransformToAdd_V_x_Vt(const Row& a, const Row& b);
  void TransformToSub_V_x_Vt(const Row& a, const Row& b);
  void AddVprimV(const Row& a, const Row& b, float factor);
  void TransformToDotSubRowVector(const Row& v);  // every row minus v, element-wise
  void TransformToColumnScaled(const Row& w);     // column j times w_j, as DotMultiplyVector
  void TransformToMprim_mul_M();                  // A becomes A'A
  // A becomes its inverse. False, and A unchanged, when A is singular or holds a missing element;
  // NCError when it is not square.
  bool TransformToInverse();
  // Thin singular value decomposition A = U diag(s) V' with k = min(rows, columns): returns the k
  // singular values in descending order; u (rows x k) and v (columns x k) receive the singular
  // vectors when given. NCError when A holds a missing element. The signs of a pair of singular
  // vectors are LAPACK's.
  Row GetSVD(NCDataMatrix* u = nullptr, NCDataMatrix* v = nullptr) const;
  Row TransformToSVD(NCDataMatrix* v = nullptr);  // A becomes U
  static Row SVD(NCDataMatrix* a);                // *a becomes U; NCError when a is null
  // (A'A)^-1 A'Y for A and Y without missing values and with equal row counts: NCError "Internal
  // error in GetRegressionCoefficients" when either holds a missing value, NCError when A'A is
  // singular.
  NCDataMatrix GetRegressionCoefficients(const NCDataMatrix& y) const;

  // --- Projections (NIPALS), as NCDataVector::Regress forms them: over the pairs where both
  // elements are present; -99 where there is no pair; a paired sum of squares below 1e-30 counts
  // as 0, which gives 0/0 (NaN) unless a floor applies. Lengths are checked (NCError).
  Row RegressColumns(const Row& t) const;  // per column j: sum t_i x_ij / sum t_i^2
  Row RegressRows(const Row& p) const;     // per row i: sum p_j x_ij / sum p_j^2
  // As RegressColumns, with the denominator never below a third of the sum of t_i^2 over all
  // present t_i. With an exclusion list (at least SizeRows() entries), the rows i with
  // exclude[i] == code take no part; the columns are then computed by the column workers.
  Row SpecialNipalsRegressColumnsFix(const Row& t) const;
  Row SpecialNipalsRegressColumnsFix(const Row& t, const IndexVector* exclude, int code) const;
  // The row counterpart: the columns j with exclude[j] == code (at least SizeColumns() entries)
  // take no part in any row's regression.
  Row SpecialNipalsRegressRowsFix(const Row& p, const IndexVector* exclude = nullptr,
                                  int code = 0) const;
  // The column with the largest sum of squares (a later one must exceed the best so far by more
  // than one part in a million), its missing elements filled with +a/100, -a/100, ... in turn, a
  // being its largest absolute value.
  Row GetNIPALSStartColumn() const;
  // Pearson correlation of every column with y over the pairs present in both, -99 where it cannot
  // be computed; with absolute, its absolute value.
  Row GetColumnCorrelation(const Row& y, bool absolute = false) const;

  // --- Statistics over present elements; -99 where a value cannot be computed
  long double GetColumnMean(int j) const;
  // sqrt(SS / divisor) around the column mean; a divisor <= 0 means (present count - 1).
  long double GetColumnStdDev(int j, float divisor = 0) const;
  long double GetColumnSS(int j, T centre = 0) const;  // sum of (x - centre)^2
  long double GetColumnMedian(int j) const;
  // Sample skewness of column j and its test statistic (as NCDataVector), -99 when the column has
  // fewer than minPresent present elements (never fewer than the three the statistic needs).
  long double GetColumnSkewness(int j, int minPresent = 3) const;
  long double GetColumnSkewnessTest(int j, int minPresent = 3) const;
  long double GetColumnKurtosis(int j) const;
  // Process capability against the limits: Cp = (upper - lower) / 6s, Cpk = min(upper - mean,
  // mean - lower) / 3s, s the column's standard deviation. Cpk with one limit missing (-99) is the
  // one-sided index of the other; Cp needs both limits.
  long double GetColumnCp(int j, T lower, T upper) const;
  long double GetColumnCpk(int j, T lower, T upper) const;
  long double GetMean() const;
  long double GetSS() const;
  long double GetSSAroundColumnMeans() const;  // sum over columns of SS around the column mean
  void SNV();  // every row replaced by its standard normal variate (NCDataVector::SNV)
  // The share of present elements in columns first..last (clamped to the matrix); as a percentage
  // with percent. -99 for an empty range or a matrix without rows.
  long double GetDensity(int first, int last, bool percent = false) const;

  // --- Result proxies: A.Result(&C) * B writes A B into C, A.Result(&p).RegressColumns(t) writes
  // the regression into p, reusing the target's buffers. NCError when the target is null.
  NCMatOpResultProxy<T> Result(NCDataMatrix* target) const;
  NCMatOpResultProxy<T> Result(Row* target) const;

 private:
  friend class NCMatOpResultProxy<T>;
  friend class NCVecOpResultProxy<T>;
  // The work of the members above, writing into a target of any previous shape (it is resized and
  // made private first). A target that is one of the operands gets the result all the same.
  void MultiplyImpl(const NCDataMatrix& b, bool transposeThis, bool transposeOther, bool rescale,
                    NCDataMatrix& out) const;
  void MulVecImpl(const Row& v, Row& out) const;
  void PreMultiplyImpl(const Row& v, Row& out) const;
  void ScaleImpl(T s, NCDataMatrix& out) const;
  void AddMat(const NCDataMatrix& b, NCDataMatrix& out) const;
  void SubMat(const NCDataMatrix& b, NCDataMatrix& out) const;
  void RegressColumnsImpl(const Row& t, const IndexVector* exclude, int code, bool fix,
                          Row& out) const;
  void RegressRowsImpl(const Row& p, const IndexVector* exclude, int code, bool fix,
                       Row& out) const;
  void GetNIPALSStartColumnImpl(Row& out) const;
  // Sums of (x - centre_j)^2 over the present elements of columns first..last (1-based), in an
  // order fixed by the shape; centre null means 0.
  std::vector<double> ColumnSquares(int first, int last, const double* centre) const;
  void RankOneUpdate(const Row& a, const Row& b, T factor, const char* place);
  bool IsOneOfMyRows(const Row* v) const;
  void PrepareTarget(NCDataMatrix& out, int rows, int cols) const;
};

// Writes the result of an operation of a matrix into an existing matrix or vector instead of a
// temporary, reusing the target's buffers (an iteration that computes the same shapes again and
// again allocates nothing). Made by NCDataMatrix::Result; each member runs the operation of the
// same name with the target as output and returns the target. A matrix result needs a matrix
// target and a vector result a vector target (NCError otherwise). The target may be one of the
// operands. Lives for one expression: it refers to the matrix it was made from.
template <class T>
class MVDA_EXPORT NCMatOpResultProxy {
 public:
  using Matrix = NCDataMatrix<T>;
  using Vector = NCDataVector<T>;
  using IndexVector = NCIntegralVector<int, -99>;

  NCMatOpResultProxy(const Matrix& operand, Matrix* target);
  NCMatOpResultProxy(const Matrix& operand, Vector* target);

  Matrix& operator*(const Matrix& b) const;
  Matrix& MatrixMultiply(const Matrix& b, bool transposeThis, bool transposeOther,
                         bool rescale = false) const;
  Matrix& operator*(T s) const;
  Matrix& operator+(const Matrix& b) const;
  Matrix& operator-(const Matrix& b) const;

  Vector& operator*(const Vector& v) const;
  Vector& PreMultiply(const Vector& v) const;
  Vector& RegressColumns(const Vector& t) const;
  Vector& RegressRows(const Vector& p) const;
  Vector& SpecialNipalsRegressColumnsFix(const Vector& t, const IndexVector* exclude = nullptr,
                                         int code = 0) const;
  Vector& SpecialNipalsRegressRowsFix(const Vector& p, const IndexVector* exclude = nullptr,
                                      int code = 0) const;
  Vector& GetNIPALSStartColumn() const;

 private:
  Matrix& MatrixTarget(const char* operation) const;
  Vector& VectorTarget(const char* operation) const;

  const Matrix& operand_;
  Matrix* matrix_ = nullptr;
  Vector* vector_ = nullptr;
};

// The vector counterpart, made by NCDataVector::Result: v.Result(&out) * A writes v'A into out.
template <class T>
class MVDA_EXPORT NCVecOpResultProxy {
 public:
  NCVecOpResultProxy(const NCDataVector<T>& operand, NCDataVector<T>* target);

  NCDataVector<T>& operator*(const NCDataMatrix<T>& m) const;

 private:
  const NCDataVector<T>& operand_;
  NCDataVector<T>* target_;
};

extern template class NCDataMatrix<float>;
extern template class NCDataMatrix<double>;
extern template class NCMatOpResultProxy<float>;
extern template class NCMatOpResultProxy<double>;
extern template class NCVecOpResultProxy<float>;
extern template class NCVecOpResultProxy<double>;

#endif  // MVDA_CONTAINERS_DATA_MATRIX_H_
