// NCDataVector<T>: the dense 1-based vector of measurements with missing values, for T = float
// and double. Also the missing-value marker and NCMatUtilities::NCGetQuietNaN.
#ifndef MVDA_CONTAINERS_DATA_VECTOR_H_
#define MVDA_CONTAINERS_DATA_VECTOR_H_

#include <mvda/containers/integral_vector.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/stream.h>

namespace mvda::detail {
struct SharedBlock;
}

// Exported already here: clang fixes the visibility of a specialization where it is first
// named, and NCDataVector<float> names NCDataMatrix<float> before data_matrix.h defines it.
template <class T>
class MVDA_EXPORT NCDataMatrix;
template <class T>
class MVDA_EXPORT NCVecOpResultProxy;

namespace mvda {
// The missing-value marker of float and double containers: an element is missing exactly when
// it compares equal to -99. A NaN is an ordinary (present) value. Statistics that cannot be
// computed return the same marker.
inline constexpr double kMissing = -99.0;
}  // namespace mvda

namespace NCMatUtilities {
// A quiet NaN for callers that need one; it is not a missing marker.
MVDA_EXPORT double NCGetQuietNaN();
}  // namespace NCMatUtilities

// A vector of measurements addressed 1..Size(). It keeps an exact count of its missing elements
// and shares its buffer with its copies until one of them is written (copy-on-write). Indices
// are not checked; sizes and counts are (a negative one throws NCError). Statistics return
// long double, and -99 where they cannot be computed.
//
// Thread-safety: copies of one vector may be read and copied from several threads; one vector
// object is never written by two threads at once.
template <class T>
class MVDA_EXPORT NCDataVector : public virtual UStreamBase {
 public:
  using value_type = T;
  using IndexVector = NCIntegralVector<int, -99>;

  // --- Construction
  NCDataVector();
  explicit NCDataVector(int n);  // n missing elements
  NCDataVector(int n, T value);
  NCDataVector(const NCDataVector& other);  // shares the buffer
  NCDataVector& operator=(const NCDataVector& other);
  virtual ~NCDataVector();

  void Clear();
  void CopyContent(const NCDataVector& other);  // private deep copy
  void CopyVector(const T* p, int n);           // p[1..n]
  void CopyZeroBasedVector(const T* p, int n);  // p[0..n-1]

  // --- Size
  int Size() const { return size_; }
  int size() const { return size_; }
  int Capacity() const { return capacity_; }  // elements allocated
  void SetSize(int n);                        // all elements become missing
  void Resize(int n, T fill);
  void resize(int n, T fill) { Resize(n, fill); }
  void Reserve(int n);  // only grows; keeps the elements
  void push_back(T value);

  // --- Access
  T operator[](int i) const { return data_[i]; }
  T operator()(int i, T value);              // write; keeps the missing count
  int SetAndReturn_dMisVal(int i, T value);  // +1 became missing, -1 became present, else 0
  T back() const { return data_[size_]; }
  // Null for a vector without a buffer (size 0), so that empty ranges never offset a null pointer.
  const T* begin() const { return data_ ? data_ + 1 : nullptr; }
  const T* end() const { return data_ ? data_ + 1 + size_ : nullptr; }
  // The 1-based buffer: element i is GetVector()[i]. Writing through it requires Unlink()
  // first and SetNumMisVal afterwards.
  T* GetVector() { return data_; }
  const T* GetVector() const { return data_; }
  int GetNumMisVal() const { return missing_; }
  void SetNumMisVal(int count) { missing_ = count; }

  // --- Ranges
  void SetRange(int at, const NCDataVector& src, int from, int to);  // src[from..to] -> this[at..]
  void operator()(int at, const NCDataVector& src, int from, int to) {
    SetRange(at, src, from, to);
  }
  void SetRange(int at, const T* p, int n);  // p[0..n-1] -> this[at..at+n-1]
  void operator()(int at, const T* p, int n) { SetRange(at, p, n); }
  void InsertValues(int at, int count, T value);
  void InsertValues(int at, const NCDataVector& src);  // at > n+1 is taken as n+1
  void RemoveValues(int at, int count);
  void SetAllValues(T value);

  // --- Removal
  int Remove(T value);  // every element equal to value; returns how many went
  void Remove(const IndexVector& positions);
  void Reduce(const IndexVector& positions);  // keep only the listed positions, in list order
  // Shifts by k positions (k > 0 towards the end, k < 0 towards the start); vacated positions
  // become missing.
  void Lag(int k);

  // --- Element-wise (missing elements stay missing; a missing operand makes the result missing)
  void Abs();
  void Sqrt();
  NCDataVector& operator+=(const NCDataVector& v);
  NCDataVector& operator-=(const NCDataVector& v);
  NCDataVector& operator+=(T value);
  NCDataVector& operator-=(T value);
  NCDataVector& operator*=(T value);
  NCDataVector operator+(const NCDataVector& v) const;
  NCDataVector operator-(const NCDataVector& v) const;
  NCDataVector operator+(T value) const;
  NCDataVector operator-(T value) const;
  NCDataVector operator*(T value) const;
  void VectorDivide(T value);
  NCDataVector DotMultiplication(const NCDataVector& v) const;
  NCDataVector DotDivide(const NCDataVector& v) const;      // x/0 is missing
  void TransformTo_Add_d_x_Vt(T d, const NCDataVector& v);  // this += d*v where both present
  void TransformTo_Sub_d_x_Vt(T d, const NCDataVector& v);  // this -= d*v where both present

  // --- Comparison (same size, element-wise equal)
  bool operator==(const NCDataVector& v) const;
  bool operator!=(const NCDataVector& v) const { return !(*this == v); }

  // --- Statistics over the present elements
  long double GetSum() const;
  long double GetMean() const;
  long double GetVariance() const;
  long double GetStdDev() const;
  long double GetSS() const;
  long double GetSS(T centre) const;
  bool GetMinMax(T& min, T& max) const;  // false when nothing is present
  long double GetMedian() const;
  bool GetInterquartiles(long double& q1, long double& median, long double& q3) const;
  long double GetInterquartileRange() const;
  long double GetRobustStdDev() const;
  long double GetSkewness() const;
  long double GetSkewnessTest() const;
  long double GetKurtosis() const;
  long double Correlation(const NCDataVector& v) const;  // Pearson, over pairs present in both
  // How far this vector moved from v (its previous value): sum (this - v)^2 / sum this^2 over the
  // pairs present in both. -99 when there is no pair or a sum is not finite; 1e30 when this is
  // practically zero there (sum this^2 <= 1e-30). NIPALS stops when it reaches 1e-10.
  long double Difference(const NCDataVector& v) const;
  // Ordinary least squares of this (y) on x over the pairs present in both; false when fewer
  // than two pairs or x does not vary.
  bool LeastSquare(const NCDataVector& x, T& slope, T& intercept) const;

  // --- Projection (the masked sums of NIPALS)
  long double operator*(const NCDataVector& v) const;  // dot product over pairs present in both
  // V1 = this, V2 = v; see the .cpp for the exact sums. exclude may be null.
  void Calculate_V1txV2_and_V1txV1(double& a, double& b, double& c, const NCDataVector& v,
                                   const IndexVector* exclude = nullptr, int code = 0) const;
  long double Regress(const NCDataVector& v) const;
  long double SpecialNipalsRegressFix(const NCDataVector& v) const;
  long double SpecialNipalsRegressFixWithExclude(const NCDataVector& v, const IndexVector& exclude,
                                                 int code) const;
  long double Normalise();

  // --- Transforms
  NCDataVector SNV() const;
  bool DetrendMean(T& mean);  // false when nothing is present
  // Subtracts the least-squares line of the present elements on their positions 1..n; false
  // below two present elements.
  bool DetrendLinear(T& slope, T& intercept);
  bool InterpolateMisVals(const NCDataVector* x = nullptr);
  // Sorts ascending (or descending) into *target, or in place when target is null. Equal values
  // keep their order; NaN follows the numbers and missing elements go last, in either direction.
  // Returns the source position of every sorted element.
  IndexVector Sort(NCDataVector* target, bool ascending = true);

  // --- Buffer
  void Unlink();
  void ForceUnlink();

  // --- Stream (data_vector_stream.cpp): record "NCDV" version 4, a directory of the size
  // (entry 0), the missing count (1) and, for a non-empty vector, the elements (2). A read
  // recounts the missing elements and refuses a stream that disagrees; a failed read leaves the
  // vector empty.
  static UStreamableData MyStreamableData;
  static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
  static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableRead(std::istream& is) override;

 protected:
  static T* NewVec(int n, int& offset);
  static void DeleteVec(T* p, int offset);

 private:
  bool IsShared() const;
  void ShareFrom(const NCDataVector& other);  // the copy constructor's work
  // Drops this vector's hold on its buffer (freeing it when this was the last holder); size and
  // missing count are left for the caller.
  void Release() noexcept;
  // Gives this vector a private buffer of `capacity` elements that starts with src[0..keep-1];
  // src may point into the old buffer.
  void Replace(int capacity, const T* src, int keep);
  // Capacity by the growth rule, contents kept; afterwards the buffer is private.
  void Grow(int requested);
  // Makes room for `count` elements before position `at` (clamped to 1..n+1), grows the size and
  // returns the clamped position; the caller fills the gap and its missing count.
  int OpenGap(int at, int count);
  // Deep copy of src[0..n-1]; `missing` is its missing count, or -1 to count it here.
  void Assign(const T* src, int n, int missing);

  int offset_ = 0;     // bytes from the raw allocation to data_
  int size_ = 0;       // n
  T* data_ = nullptr;  // one before element 1
  mvda::detail::SharedBlock* shared_ = nullptr;
  int missing_ = 0;
  int capacity_ = 0;

  // ============================================================================================
  // Algebra and statistics (with matrices; data_matrix_algebra.cpp, needs data_matrix.h)
 public:
  // This vector (SizeRows() elements) as a row times m: v'm, as m.PreMultiply(v).
  NCDataVector operator*(const NCDataMatrix<T>& m) const;
  // v.Result(&out) * m writes v'm into out, reusing its buffer; NCError when target is null.
  NCVecOpResultProxy<T> Result(NCDataVector* target) const;
};

extern template class NCDataVector<float>;
extern template class NCDataVector<double>;

#endif  // MVDA_CONTAINERS_DATA_VECTOR_H_
