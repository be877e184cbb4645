// NCIntegralVector<T, Missing>: 1-based integer vectors (index lists, group codes, counts),
// BoolVector, the IntPool of integer cells and NDimensionalMatrix<int>.
#ifndef MVDA_CONTAINERS_INTEGRAL_VECTOR_H_
#define MVDA_CONTAINERS_INTEGRAL_VECTOR_H_

#include <mvda/mvda_export.h>
#include <mvda/platform/stream.h>

#include <memory>
#include <vector>

#include <boost/shared_array.hpp>

// Instantiated as NCIntegralVector<int,-99>, NCIntegralVector<unsigned long,0> and
// NCIntegralVector<bool,0>. `Missing` names the instantiation's missing code, but the vector
// keeps no missing count and its statistics do not skip the code: a list of group codes sums
// like any list of integers.
//
// Copies share one array; every mutator gives this vector its own array first. Element indices
// are not checked. Sizes and counts are: a negative one, or one that would take the vector past
// INT_MAX elements, throws NCError. Range members (InsertValues, RemoveValues, SetRange, Find)
// clip their range to the vector, and position lists (Remove, Reduce) are checked, because a
// wrong range would otherwise write far outside the array.
//
// The array is never null: an empty vector shares one process-wide placeholder cell, so begin()
// and GetPtr() are always valid pointers. Capacity grows by doubling (at least 4 elements) when
// elements are appended or inserted; shrinking keeps the capacity, Clear() releases it.
//
// Thread-safety: copies of one vector may be read, copied and destroyed from several threads;
// one vector object is never written by two threads at once.
template <class T, T Missing>
class MVDA_EXPORT NCIntegralVector : public virtual UStreamBase {
 public:
  using value_type = T;
  static constexpr T kMissingCode = Missing;

  // How Find searches: element by element, or by bisection in a vector sorted that way.
  enum SortType { kUnsorted = 0, kAscending = 1, kDescending = 2 };

  NCIntegralVector();
  NCIntegralVector(int n, T value);
  NCIntegralVector(const T* p, int n);              // p[0..n-1]
  NCIntegralVector(const NCIntegralVector& other);  // shares the array
  NCIntegralVector& operator=(const NCIntegralVector& other);
  virtual ~NCIntegralVector();
  void CopyContent(const NCIntegralVector& other);  // a private copy of other's elements
  void Clear();                                     // size 0, releases the array
  void clear() { Clear(); }
  void ForceUnlink();  // gives this vector its own array if another vector shares it

  int Size() const { return size_; }
  int size() const { return size_; }
  bool empty() const { return size_ == 0; }
  void SetSize(int n);  // keeps the first elements; new ones are the missing code
  void resize(int n, T value);
  void Reserve(int n);  // only grows; keeps the elements
  void reserve(int n) { Reserve(n); }
  void SetNumValues(int n, T value);  // a new array of n elements, all equal to value

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
  // Inserts before position `at`; at = Size()+1 (or beyond) appends, at < 1 prepends.
  void InsertValues(int at, int count, T value);
  void InsertValues(int at, const NCIntegralVector& values);
  void RemoveValues(int at, int count);  // the part of at..at+count-1 that lies in 1..Size()
  // Removes the listed 1-based positions, given in any order, repeats allowed. A position
  // outside 1..Size() throws NCError and leaves the vector unchanged.
  void Remove(const NCIntegralVector<int, -99>& positions);
  // Keeps the listed positions in the order listed (a repeated position is kept twice), so a
  // sorted list keeps the original order and any other list also rearranges. A position outside
  // 1..Size() throws NCError and leaves the vector unchanged.
  void Reduce(const NCIntegralVector<int, -99>& positions);
  void Concat(const NCIntegralVector& other);  // appends other's elements
  void SetAllValues(T value);
  void SetRange(int from, int to, T value);  // the part of from..to that lies in 1..Size()
  NCIntegralVector& operator+=(T value);     // adds value to every element

  // Element k becomes start + (k - 1) * step; an empty vector stays empty.
  void GenerateIndex(int start, int step);
  // A uniformly random permutation (Fisher-Yates) drawn from the C library's rand(), so srand
  // makes it repeatable.
  void Scramble();
  // Sorts ascending or descending; with `unique`, equal neighbours are dropped afterwards, which
  // leaves each distinct value once.
  void Sort(bool ascending = true, bool unique = false);
  // Sorts like Sort (equal elements keep their order) and sets positions to Size() entries:
  // positions[k - 1] is the original position of the element that is now at k.
  void SortWithOriginalIndex(bool ascending, std::vector<int>& positions);
  bool IsSorted(bool ascending = true) const;
  // Bisection over a vector sorted ascending: the first position whose element is not less than
  // value (upper = false) or greater than value (upper = true); Size()+1 when there is none.
  int LowerBound(T value, bool upper = false) const;
  // The first position in from..to holding value, or 0 when there is none. from = 0 and to = 0
  // search the whole vector. kAscending and kDescending bisect and need the range sorted so.
  int Find(T value, SortType sorted = kUnsorted, int from = 0, int to = 0) const;

  bool operator==(const NCIntegralVector& v) const;
  bool operator!=(const NCIntegralVector& v) const { return !(*this == v); }
  bool operator<(const NCIntegralVector& v) const;  // lexicographic
  bool operator<=(const NCIntegralVector& v) const { return !(v < *this); }
  bool operator>(const NCIntegralVector& v) const { return v < *this; }
  bool operator>=(const NCIntegralVector& v) const { return !(*this < v); }

  // All elements, the missing code included. Summed in 64 bits, so an int vector cannot
  // overflow; an unsigned long vector wraps modulo 2^64 like its elements.
  long GetSum() const;
  double GetMean() const;      // -99 for an empty vector
  double GetVariance() const;  // divisor n - 1; -99 when empty, 0 for one element
  double GetStdDev() const;    // -99 for fewer than two elements, as for NCDataVector

  // --- Stream (integral_vector_stream.cpp): record "NCIV" version 4, a directory of one entry
  // holding the count and the elements. unsigned long elements take 4 bytes on every platform, so
  // writing one above 4294967295 throws NCError before any byte is written; bool elements take
  // one byte, 0 or 1. A failed read leaves the vector empty.
  static UStreamableData MyStreamableData;
  static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
  static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableRead(std::istream& is) override;

 private:
  bool ReadVector(std::istream& is);  // entry 0 into this vector; false, and empty, on failure
  void CheckStreamable(const char* where) const;  // the 4-byte limit of unsigned long elements
  // Gives `array` a private copy of its first `size`+1 cells when another vector shares it;
  // true when it copied (the new array then holds exactly size elements).
  static bool UnLinkVecPointer(boost::shared_array<T>& array, int size);
  void Unlink() {
    if (UnLinkVecPointer(data_, size_)) capacity_ = size_;
  }
  void Grow(int requested);  // capacity for `requested` elements; call after Unlink
  void CheckGrowth(const char* where, int count) const;
  // Makes room for `count` elements before `at` (clamped to 1..n+1); returns the clamped position.
  int OpenGap(int at, int count);

  int size_ = 0;
  int capacity_ = 0;
  boost::shared_array<T> data_;  // capacity_ + 1 cells; cell 0 unused
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

  // --- Stream (integral_vector_stream.cpp): record "BoolVector" version 3; the flags go through
  // the NCIntegralVector<bool,0> base part, and its own directory has no entries.
  static UStreamableData MyStreamableData;
  static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
  static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableWriteBases(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableRead(std::istream& is) override;
  bool UStreamableReadBases(std::istream& is) override;
};

// A process-wide supply of integer cells, safe from any thread. Cells come from blocks of 1024
// that are never returned to the system, so a cell stays valid until the process ends even if
// it is released during static destruction.
class MVDA_EXPORT IntPool {
 public:
  static int* GetInt();               // a cell holding 0, held by no one else
  static void ReleaseInt(int* cell);  // a cell from GetInt, once; null is ignored
};

template <class T>
class NDimensionalMatrix;

// An integer array addressed by a vector of subscripts, one per dimension (0-based, each below
// its extent, so group codes 0..G-1 address it directly). Stored as a tree of levels, one per
// dimension, whose last level holds the integers; a level is created when first written, so
// sparse use of a large index space stays small. Unwritten cells read as `fill`.
template <>
class MVDA_EXPORT NDimensionalMatrix<int> {
 public:
  // extents: at least one, each at least 1 (else NCError). `fill` is the value of cells never
  // written; `reserved` is unused and kept for hosts that pass a size hint.
  explicit NDimensionalMatrix(const std::vector<int>& extents, int fill = 0, int reserved = 0);
  NDimensionalMatrix(const NDimensionalMatrix& other);  // deep copy
  NDimensionalMatrix& operator=(const NDimensionalMatrix& other);
  ~NDimensionalMatrix();

  int Dimensions() const { return static_cast<int>(extents_.size()); }

  // The subscripts are index[first], ..., index[first + Dimensions() - 1], so a caller can
  // address the matrix with a slice of a longer record. A subscript outside its extent, or an
  // index too short, throws NCError.
  int Get(const std::vector<int>& index, int first = 0) const;
  void Set(const std::vector<int>& index, int value, int first = 0);

 private:
  struct Level;
  void CheckIndex(const char* where, const std::vector<int>& index, int first) const;

  std::vector<int> extents_;
  int fill_;
  std::unique_ptr<Level> root_;
};

#endif  // MVDA_CONTAINERS_INTEGRAL_VECTOR_H_
