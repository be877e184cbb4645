// NCIntegralVector<T, Missing>: 1-based integer vectors (index lists, group codes, counts),
// BoolVector, the IntPool of integer cells and NDimensionalMatrix<int>.
#ifndef MVDA_CONTAINERS_INTEGRAL_VECTOR_H_
#define MVDA_CONTAINERS_INTEGRAL_VECTOR_H_

#include <mvda/mvda_export.h>

#include <vector>

#include <boost/shared_array.hpp>

// Instantiated as NCIntegralVector<int,-99>, NCIntegralVector<unsigned long,0> and
// NCIntegralVector<bool,0>. `Missing` names the instantiation's missing code, but the vector
// keeps no missing count and its statistics do not skip the code: a list of group codes sums
// like any list of integers.
//
// Copies share one array; every mutator gives this vector its own array first. Indices are not
// checked; sizes and counts are (a negative one throws NCError).
template <class T, T Missing>
class MVDA_EXPORT NCIntegralVector {
 public:
  using value_type = T;
  static constexpr T kMissingCode = Missing;

  // How Find searches: element by element, or by bisection in a vector sorted that way.
  enum SortType { kUnsorted = 0, kAscending = 1, kDescending = 2 };

  NCIntegralVector();
  NCIntegralVector(int n, T value);
  NCIntegralVector(const T* p, int n);  // p[0..n-1]
  NCIntegralVector(const NCIntegralVector& other);  // shares the array
  NCIntegralVector& operator=(const NCIntegralVector& other);
  virtual ~NCIntegralVector();
  void CopyContent(const NCIntegralVector& other);
  void Clear();
  void clear() { Clear(); }
  void ForceUnlink();

  int Size() const { return size_; }
  int size() const { return size_; }
  bool empty() const { return size_ == 0; }
  void SetSize(int n);  // keeps the first elements; new ones are the missing code
  void resize(int n, T value);
  void Reserve(int n);
  void reserve(int n) { Reserve(n); }
  void SetNumValues(int n, T value);

  T operator[](int i) const { return data_[i]; }
  T& operator()(int i);  // unlinks
  T* GetPtr();           // the 1-based array (unlinks)
  const T* GetPtr() const { return data_.get(); }
  const T* begin() const { return data_.get() + 1; }
  const T* end() const { return data_.get() + 1 + size_; }

  void push_back(T value);
  // `at` points into this vector's array (from begin()..end()); the element goes before it.
  void insert(const T* at, T value);
  void erase(const T* first, const T* last);  // [first, last)
  void InsertValues(int at, int count, T value);
  void InsertValues(int at, const NCIntegralVector& values);
  void RemoveValues(int at, int count);
  void Remove(const NCIntegralVector<int, -99>& positions);  // 1-based positions, any order
  void Reduce(const NCIntegralVector<int, -99>& positions);  // keep the listed positions
  void Concat(const NCIntegralVector& other);
  void SetAllValues(T value);
  void SetRange(int from, int to, T value);
  NCIntegralVector& operator+=(T value);

  void GenerateIndex(int start, int step);
  void Scramble();
  // Sorts ascending or descending; with `unique`, equal neighbours are dropped afterwards.
  void Sort(bool ascending = true, bool unique = false);
  void SortWithOriginalIndex(bool ascending, std::vector<int>& positions);
  bool IsSorted(bool ascending = true) const;
  // Bisection over a vector sorted ascending: the first position whose element is not less than
  // value (upper = false) or greater than value (upper = true); Size()+1 when there is none.
  int LowerBound(T value, bool upper = false) const;
  // The first position in from..to holding value, or 0 when there is none. from = 0 and to = 0
  // search the whole vector.
  int Find(T value, SortType sorted = kUnsorted, int from = 0, int to = 0) const;

  bool operator==(const NCIntegralVector& v) const;
  bool operator!=(const NCIntegralVector& v) const { return !(*this == v); }
  bool operator<(const NCIntegralVector& v) const;  // lexicographic
  bool operator<=(const NCIntegralVector& v) const { return !(v < *this); }
  bool operator>(const NCIntegralVector& v) const { return v < *this; }
  bool operator>=(const NCIntegralVector& v) const { return !(*this < v); }

  long GetSum() const;  // all elements, the missing code included
  double GetMean() const;  // -99 for an empty vector
  double GetVariance() const;
  double GetStdDev() const;

 private:
  // Gives `array` a private copy of its first `size`+1 cells when another vector shares it.
  static void UnLinkVecPointer(boost::shared_array<T>& array, int size);
  void Unlink() { UnLinkVecPointer(data_, size_); }
  void Grow(int requested);

  int size_ = 0;
  int capacity_ = 0;
  boost::shared_array<T> data_;  // size_ + 1 cells at least; cell 0 unused
};

extern template class NCIntegralVector<int, -99>;
extern template class NCIntegralVector<unsigned long, 0>;
extern template class NCIntegralVector<bool, false>;

// A vector of flags with a stream record of its own.
class MVDA_EXPORT BoolVector : public NCIntegralVector<bool, false> {
 public:
  BoolVector() = default;
  BoolVector(int n, bool value) : NCIntegralVector<bool, false>(n, value) {}
  BoolVector(const BoolVector&) = default;
  BoolVector& operator=(const BoolVector&) = default;
  ~BoolVector() override;
};

// A process-wide supply of integer cells, safe from any thread.
class MVDA_EXPORT IntPool {
 public:
  static int* GetInt();
  static void ReleaseInt(int* cell);
};

template <class T>
class NDimensionalMatrix;

// An integer array addressed by a vector of indices, one per dimension (0-based, each below its
// extent). Stored as a tree of levels so that sparse use of a large index space stays small: a
// level is created when first written. Unwritten cells read as `fill`.
template <>
class MVDA_EXPORT NDimensionalMatrix<int> {
 public:
  // `fill` is the value of cells never written; `reserved` is unused and kept for hosts that
  // pass a hint.
  explicit NDimensionalMatrix(const std::vector<int>& extents, int fill = 0, int reserved = 0);
  NDimensionalMatrix(const NDimensionalMatrix& other);
  NDimensionalMatrix& operator=(const NDimensionalMatrix& other);
  ~NDimensionalMatrix();

  // `dims` is how many leading entries of index to use (0: all of them, which must equal the
  // number of extents).
  int Get(const std::vector<int>& index, int dims = 0) const;
  void Set(const std::vector<int>& index, int value, int dims = 0);

 private:
  struct Level;
  std::vector<int> extents_;
  int fill_;
  Level* root_;
};

#endif  // MVDA_CONTAINERS_INTEGRAL_VECTOR_H_
