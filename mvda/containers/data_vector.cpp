// NCDataVector<T>: storage and copy-on-write, element access, ranges, element-wise arithmetic,
// statistics, projections and transforms. NCMatUtilities::NCGetQuietNaN.
#include <mvda/containers/data_vector.h>
#include <mvda/containers/detail/present_sums.h>
#include <mvda/containers/detail/shared_block.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <numeric>
#include <string>
#include <vector>

using mvda::detail::SharedBlock;
using mvda::detail::SpinFlag;

double NCMatUtilities::NCGetQuietNaN() { return std::numeric_limits<double>::quiet_NaN(); }

namespace {

template <class T>
constexpr T kMis = T(-99);

template <class T>
inline bool IsMissing(T value) {
  return value == kMis<T>;
}

[[noreturn]] void Fail(const char* where, const std::string& fault) {
  throw NCError(std::string("NCDataVector::") + where + ": " + fault);
}

void CheckNotNegative(const char* where, const char* what, int n) {
  if (n < 0) Fail(where, std::string("negative ") + what + " " + std::to_string(n));
}

void CheckSameSize(const char* where, int a, int b) {
  if (a != b) Fail(where, "sizes " + std::to_string(a) + " and " + std::to_string(b) + " differ");
}

// Missing elements in p[0..n-1]; a branch-free count the compiler vectorises.
template <class T>
int CountMissing(const T* p, int n) {
  int count = 0;
  for (int i = 0; i < n; ++i) count += IsMissing(p[i]);
  return count;
}

// Small vectors double until 3000 elements, larger ones grow by 3000 at a time, so that a vector
// filled by push_back reallocates O(log n) times while small and wastes at most 3000 elements
// when large. A request beyond those steps is taken as it stands.
int GrowthCapacity(int capacity, int requested) {
  if (requested <= capacity) return capacity;
  if (capacity == 0) return requested < 4 ? 4 : requested;
  long long next = requested;
  if (capacity < 3000 && 2LL * capacity >= requested) {
    next = 2LL * capacity;
  } else if (capacity >= 3000 && capacity + 3000LL >= requested) {
    next = capacity + 3000LL;
  }
  return static_cast<int>(std::min<long long>(next, INT_MAX));
}

// Calls f(x[i]) for every present element of x[1..n].
template <class T, class F>
void ForPresent(const T* x, int n, F f) {
  for (int i = 1; i <= n; ++i)
    if (!IsMissing(x[i])) f(x[i]);
}

// Calls f(a[i], b[i]) where both are present, i in 1..n.
template <class T, class F>
void ForPairs(const T* a, const T* b, int n, F f) {
  for (int i = 1; i <= n; ++i)
    if (!IsMissing(a[i]) && !IsMissing(b[i])) f(a[i], b[i]);
}

// Replaces every present x[i] (1..n) by op(x[i]) and returns the new missing count: a result that
// lands exactly on -99 reads as missing from then on, and the count has to say so.
template <class T, class Op>
int MapPresent(T* x, int n, Op op) {
  int missing = 0;
  for (int i = 1; i <= n; ++i) {
    if (!IsMissing(x[i])) x[i] = op(x[i]);
    missing += IsMissing(x[i]);
  }
  return missing;
}

// x[i] = op(x[i], y[i]) where both are present, -99 where either is missing; returns the new
// missing count.
template <class T, class Op>
int ZipPresent(T* x, const T* y, int n, Op op) {
  int missing = 0;
  for (int i = 1; i <= n; ++i) {
    const T a = x[i], b = y[i];
    x[i] = IsMissing(a) || IsMissing(b) ? kMis<T> : op(a, b);
    missing += IsMissing(x[i]);
  }
  return missing;
}

// Ascending order with NaN after every number; NaNs are equivalent to one another. std::sort
// needs a strict weak order, which a plain < over data with NaN is not.
template <class T>
bool NumberLess(T a, T b) {
  return a < b || (std::isnan(b) && !std::isnan(a));
}

// The present elements of x[1..n], sorted by NumberLess.
template <class T>
std::vector<T> SortedPresent(const T* x, int n, int present) {
  std::vector<T> values;
  values.reserve(static_cast<std::size_t>(present));
  ForPresent(x, n, [&](T v) { values.push_back(v); });
  std::sort(values.begin(), values.end(), NumberLess<T>);
  return values;
}

// Median of sorted s[first..first+count-1], count >= 1: the middle element, or the mean of the
// two middle ones.
template <class T>
long double MedianOfSorted(const std::vector<T>& s, int first, int count) {
  const int mid = first + count / 2;
  if (count % 2 == 1) return s[mid];
  return (static_cast<long double>(s[mid - 1]) + s[mid]) / 2;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Buffer

template <class T>
T* NCDataVector<T>::NewVec(int n, int& offset) {
  offset = 0;
  if (n <= 0) return nullptr;
  // One element slot before element 1 (data points there) and up to 15 bytes to align.
  constexpr std::size_t kSlack = 24;
  if (static_cast<std::size_t>(n) > (std::numeric_limits<std::size_t>::max() - kSlack) / sizeof(T))
    Fail("NewVec", "a buffer of " + std::to_string(n) + " elements exceeds the address space");
  char* raw = static_cast<char*>(::operator new(static_cast<std::size_t>(n) * sizeof(T) + kSlack));
  // Element 1 on a 16-byte boundary: the unrolled sums then start on aligned vector loads.
  const auto first = reinterpret_cast<std::uintptr_t>(raw) + sizeof(T);
  offset = static_cast<int>((16 - first % 16) % 16);
  return reinterpret_cast<T*>(raw + offset);
}

template <class T>
void NCDataVector<T>::DeleteVec(T* p, int offset) {
  if (p) ::operator delete(reinterpret_cast<char*>(p) - offset);
}

template <class T>
bool NCDataVector<T>::IsShared() const {
  return shared_ && shared_->references.load(std::memory_order_acquire) > 1;
}

template <class T>
void NCDataVector<T>::Unlink() {
  if (IsShared()) ForceUnlink();
}

// The reference count only ever falls under the spin flag, so a count above 1 seen under the flag
// means that the other holders keep the old buffer alive after this one lets go of it. The block
// itself is freed only outside the flag, by the holder that took the count to 0.
template <class T>
void NCDataVector<T>::ForceUnlink() {
  if (!shared_) return;
  std::unique_lock<SpinFlag> lock(shared_->spin);
  if (shared_->references.load(std::memory_order_acquire) <= 1) return;
  std::unique_ptr<SharedBlock> block;
  T* data = nullptr;
  int offset = 0;
  if (size_ > 0) {
    block = std::make_unique<SharedBlock>();
    data = NewVec(size_, offset);
    std::memcpy(data + 1, data_ + 1, static_cast<std::size_t>(size_) * sizeof(T));
  }
  shared_->references.fetch_sub(1, std::memory_order_acq_rel);
  lock.unlock();
  data_ = data;
  offset_ = offset;
  capacity_ = size_;
  shared_ = block.release();
}

template <class T>
void NCDataVector<T>::Release() noexcept {
  if (shared_) {
    int previous;
    {
      std::lock_guard<SpinFlag> lock(shared_->spin);
      previous = shared_->references.fetch_sub(1, std::memory_order_acq_rel);
    }
    if (previous == 1) {
      DeleteVec(data_, offset_);
      delete shared_;
    }
  }
  data_ = nullptr;
  shared_ = nullptr;
  offset_ = 0;
  capacity_ = 0;
}

template <class T>
void NCDataVector<T>::Replace(int capacity, const T* src, int keep) {
  std::unique_ptr<SharedBlock> block;
  T* data = nullptr;
  int offset = 0;
  if (capacity > 0) {
    block = std::make_unique<SharedBlock>();
    data = NewVec(capacity, offset);
  }
  if (keep > 0) std::memcpy(data + 1, src, static_cast<std::size_t>(keep) * sizeof(T));
  Release();
  data_ = data;
  offset_ = offset;
  capacity_ = capacity;
  shared_ = block.release();
}

template <class T>
void NCDataVector<T>::Grow(int requested) {
  const int capacity = GrowthCapacity(capacity_, requested);
  if (capacity != capacity_ || IsShared()) Replace(capacity, begin(), size_);
}

template <class T>
void NCDataVector<T>::Assign(const T* src, int n, int missing) {
  const int count = missing >= 0 ? missing : CountMissing(src, n);
  if (n <= capacity_ && !IsShared()) {
    if (n > 0) std::memmove(data_ + 1, src, static_cast<std::size_t>(n) * sizeof(T));
  } else {
    Replace(n, src, n);
  }
  size_ = n;
  missing_ = count;
}

// ---------------------------------------------------------------------------------------------
// Construction

template <class T>
NCDataVector<T>::NCDataVector() = default;

template <class T>
NCDataVector<T>::NCDataVector(int n) {
  CheckNotNegative("NCDataVector", "size", n);
  SetSize(n);
}

template <class T>
NCDataVector<T>::NCDataVector(int n, T value) {
  CheckNotNegative("NCDataVector", "size", n);
  Grow(n);
  size_ = n;
  if (n > 0) std::fill_n(data_ + 1, n, value);
  missing_ = IsMissing(value) ? n : 0;
}

template <class T>
NCDataVector<T>::NCDataVector(const NCDataVector& other) : UStreamBase(other) {
  ShareFrom(other);
}

template <class T>
void NCDataVector<T>::ShareFrom(const NCDataVector& other) {
  size_ = other.size_;
  missing_ = other.missing_;
  if (!other.shared_) return;
  std::lock_guard<SpinFlag> lock(other.shared_->spin);
  offset_ = other.offset_;
  data_ = other.data_;
  capacity_ = other.capacity_;
  other.shared_->references.fetch_add(1, std::memory_order_relaxed);
  shared_ = other.shared_;
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator=(const NCDataVector& other) {
  if (this != &other) {
    NCDataVector copy(other);
    std::swap(offset_, copy.offset_);
    std::swap(size_, copy.size_);
    std::swap(data_, copy.data_);
    std::swap(shared_, copy.shared_);
    std::swap(missing_, copy.missing_);
    std::swap(capacity_, copy.capacity_);
  }
  return *this;
}

template <class T>
NCDataVector<T>::~NCDataVector() {
  Release();
}

template <class T>
void NCDataVector<T>::Clear() {
  Release();
  size_ = 0;
  missing_ = 0;
}

template <class T>
void NCDataVector<T>::CopyContent(const NCDataVector& other) {
  if (this == &other) {
    Unlink();
    return;
  }
  // `other` holds its buffer for the whole call, so copying out of it stays valid even when
  // this vector shared it and lets go first.
  Assign(other.begin(), other.size_, other.missing_);
}

template <class T>
void NCDataVector<T>::CopyVector(const T* p, int n) {
  CheckNotNegative("CopyVector", "size", n);
  Assign(n > 0 ? p + 1 : nullptr, n, -1);
}

template <class T>
void NCDataVector<T>::CopyZeroBasedVector(const T* p, int n) {
  CheckNotNegative("CopyZeroBasedVector", "size", n);
  Assign(p, n, -1);
}

// ---------------------------------------------------------------------------------------------
// Size

template <class T>
void NCDataVector<T>::SetSize(int n) {
  CheckNotNegative("SetSize", "size", n);
  const int capacity = GrowthCapacity(capacity_, n);
  // Every element is overwritten, so a shared or outgrown buffer is replaced without copying.
  if (capacity != capacity_ || IsShared()) Replace(capacity, nullptr, 0);
  size_ = n;
  if (n > 0) std::fill_n(data_ + 1, n, kMis<T>);
  missing_ = n;
}

template <class T>
void NCDataVector<T>::Resize(int n, T fill) {
  CheckNotNegative("Resize", "size", n);
  if (n <= size_) {
    Unlink();
    missing_ -= CountMissing(begin() + n, size_ - n);
    size_ = n;
    return;
  }
  Grow(n);
  std::fill(data_ + size_ + 1, data_ + n + 1, fill);
  if (IsMissing(fill)) missing_ += n - size_;
  size_ = n;
}

template <class T>
void NCDataVector<T>::Reserve(int n) {
  CheckNotNegative("Reserve", "size", n);
  // Exactly n: whoever reserves knows the final size better than the growth rule does.
  if (n > capacity_) Replace(n, begin(), size_);
}

template <class T>
void NCDataVector<T>::push_back(T value) {
  if (size_ == INT_MAX) Fail("push_back", "the vector already holds the largest size");
  Grow(size_ + 1);
  data_[++size_] = value;
  missing_ += IsMissing(value);
}

// ---------------------------------------------------------------------------------------------
// Access and ranges

template <class T>
T NCDataVector<T>::operator()(int i, T value) {
  SetAndReturn_dMisVal(i, value);
  return value;
}

template <class T>
int NCDataVector<T>::SetAndReturn_dMisVal(int i, T value) {
  Unlink();
  const int change = static_cast<int>(IsMissing(value)) - static_cast<int>(IsMissing(data_[i]));
  data_[i] = value;
  missing_ += change;
  return change;
}

template <class T>
void NCDataVector<T>::SetRange(int at, const NCDataVector& src, int from, int to) {
  if (to < from) return;
  const int count = to - from + 1;
  Unlink();
  // src may be this vector (overlapping ranges) or share the old buffer; in both cases its data
  // pointer is valid after the unlink above.
  const T* source = src.data_ + from;
  const int added = CountMissing(source, count);
  missing_ += added - CountMissing(data_ + at, count);
  std::memmove(data_ + at, source, static_cast<std::size_t>(count) * sizeof(T));
}

template <class T>
void NCDataVector<T>::SetRange(int at, const T* p, int n) {
  CheckNotNegative("SetRange", "count", n);
  if (n == 0) return;
  Unlink();
  missing_ += CountMissing(p, n) - CountMissing(data_ + at, n);
  std::memmove(data_ + at, p, static_cast<std::size_t>(n) * sizeof(T));
}

template <class T>
void NCDataVector<T>::InsertValues(int at, int count, T value) {
  CheckNotNegative("InsertValues", "count", count);
  if (count == 0) return;
  at = OpenGap(at, count);
  std::fill_n(data_ + at, count, value);
  if (IsMissing(value)) missing_ += count;
}

template <class T>
void NCDataVector<T>::InsertValues(int at, const NCDataVector& src) {
  // Holding a share of src keeps its elements unchanged while this vector grows, also when src
  // is this vector.
  const NCDataVector source(src);
  const int count = source.size_;
  if (count == 0) return;
  at = OpenGap(at, count);
  std::memcpy(data_ + at, source.data_ + 1, static_cast<std::size_t>(count) * sizeof(T));
  missing_ += source.missing_;
}

template <class T>
int NCDataVector<T>::OpenGap(int at, int count) {
  if (count > INT_MAX - size_)
    Fail("InsertValues", "size " + std::to_string(size_) + " + " + std::to_string(count) +
                             " exceeds the largest size");
  // A position past the end appends; one before the start inserts at the front.
  at = std::clamp(at, 1, size_ + 1);
  Grow(size_ + count);
  std::memmove(data_ + at + count, data_ + at,
               static_cast<std::size_t>(size_ - at + 1) * sizeof(T));
  size_ += count;
  return at;
}

template <class T>
void NCDataVector<T>::RemoveValues(int at, int count) {
  CheckNotNegative("RemoveValues", "count", count);
  if (count == 0 || at < 1 || at > size_) return;
  count = std::min(count, size_ - at + 1);
  Unlink();
  missing_ -= CountMissing(data_ + at, count);
  std::memmove(data_ + at, data_ + at + count,
               static_cast<std::size_t>(size_ - at - count + 1) * sizeof(T));
  size_ -= count;
}

template <class T>
void NCDataVector<T>::SetAllValues(T value) {
  Unlink();
  if (size_ == 0) return;
  if (IsMissing(value)) {
    if (missing_ == size_) return;
    missing_ = size_;
    std::fill_n(data_ + 1, size_, value);
    return;
  }
  missing_ = 0;
  if (value == T(0)) {
    std::memset(static_cast<void*>(data_ + 1), 0, static_cast<std::size_t>(size_) * sizeof(T));
  } else {
    std::fill_n(data_ + 1, size_, value);
  }
}

// ---------------------------------------------------------------------------------------------
// Removal

template <class T>
int NCDataVector<T>::Remove(T value) {
  Unlink();
  int kept = 0;
  for (int i = 1; i <= size_; ++i)
    if (!(data_[i] == value)) data_[++kept] = data_[i];
  const int removed = size_ - kept;
  if (IsMissing(value)) missing_ = 0;
  size_ = kept;
  return removed;
}

template <class T>
void NCDataVector<T>::Remove(const IndexVector& positions) {
  if (positions.Size() == 0 || size_ == 0) return;
  // Positions outside 1..n name nothing to remove and are passed over; a position listed twice
  // is removed once.
  std::vector<char> drop(static_cast<std::size_t>(size_) + 1, 0);
  for (int k = 1; k <= positions.Size(); ++k) {
    const int p = positions[k];
    if (p >= 1 && p <= size_) drop[static_cast<std::size_t>(p)] = 1;
  }
  Unlink();
  int kept = 0;
  for (int i = 1; i <= size_; ++i) {
    if (drop[static_cast<std::size_t>(i)])
      missing_ -= IsMissing(data_[i]);
    else
      data_[++kept] = data_[i];
  }
  size_ = kept;
}

template <class T>
void NCDataVector<T>::Reduce(const IndexVector& positions) {
  std::vector<T> kept(static_cast<std::size_t>(positions.Size()));
  for (int k = 1; k <= positions.Size(); ++k)
    kept[static_cast<std::size_t>(k - 1)] = data_[positions[k]];
  Assign(kept.data(), positions.Size(), -1);
}

template <class T>
void NCDataVector<T>::Lag(int k) {
  if (k == 0 || size_ == 0) return;
  Unlink();
  const long long shift = k < 0 ? -static_cast<long long>(k) : k;
  if (shift >= size_) {
    std::fill_n(data_ + 1, size_, kMis<T>);
  } else {
    const int s = static_cast<int>(shift), kept = size_ - s;
    if (k > 0) {  // x[i] moves to i + k; the first k positions have no past value
      std::memmove(data_ + 1 + s, data_ + 1, static_cast<std::size_t>(kept) * sizeof(T));
      std::fill_n(data_ + 1, s, kMis<T>);
    } else {  // x[i] moves to i - |k|; the last |k| positions have no future value
      std::memmove(data_ + 1, data_ + 1 + s, static_cast<std::size_t>(kept) * sizeof(T));
      std::fill_n(data_ + 1 + kept, s, kMis<T>);
    }
  }
  missing_ = CountMissing(data_ + 1, size_);
}

// ---------------------------------------------------------------------------------------------
// Element-wise

template <class T>
void NCDataVector<T>::Abs() {
  Unlink();
  missing_ = MapPresent(data_, size_, [](T x) { return std::abs(x); });
}

template <class T>
void NCDataVector<T>::Sqrt() {
  Unlink();
  missing_ = MapPresent(data_, size_, [](T x) { return std::sqrt(x); });
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator+=(const NCDataVector& v) {
  CheckSameSize("operator+=", size_, v.size_);
  Unlink();
  missing_ = ZipPresent(data_, v.data_, size_, [](T a, T b) { return a + b; });
  return *this;
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator-=(const NCDataVector& v) {
  CheckSameSize("operator-=", size_, v.size_);
  Unlink();
  missing_ = ZipPresent(data_, v.data_, size_, [](T a, T b) { return a - b; });
  return *this;
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator+=(T value) {
  Unlink();
  missing_ = MapPresent(data_, size_, [value](T x) { return x + value; });
  return *this;
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator-=(T value) {
  Unlink();
  missing_ = MapPresent(data_, size_, [value](T x) { return x - value; });
  return *this;
}

template <class T>
NCDataVector<T>& NCDataVector<T>::operator*=(T value) {
  Unlink();
  missing_ = MapPresent(data_, size_, [value](T x) { return x * value; });
  return *this;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator+(const NCDataVector& v) const {
  NCDataVector result(*this);
  return result += v;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator-(const NCDataVector& v) const {
  NCDataVector result(*this);
  return result -= v;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator+(T value) const {
  NCDataVector result(*this);
  return result += value;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator-(T value) const {
  NCDataVector result(*this);
  return result -= value;
}

template <class T>
NCDataVector<T> NCDataVector<T>::operator*(T value) const {
  NCDataVector result(*this);
  return result *= value;
}

template <class T>
void NCDataVector<T>::VectorDivide(T value) {
  Unlink();
  missing_ = MapPresent(data_, size_, [value](T x) { return x / value; });
}

template <class T>
NCDataVector<T> NCDataVector<T>::DotMultiplication(const NCDataVector& v) const {
  CheckSameSize("DotMultiplication", size_, v.size_);
  NCDataVector result(*this);
  result.Unlink();
  result.missing_ = ZipPresent(result.data_, v.data_, size_, [](T a, T b) { return a * b; });
  return result;
}

// The count is that of the result's -99 elements: the gaps, the zero divisors, and any quotient
// that lands exactly on -99.
template <class T>
NCDataVector<T> NCDataVector<T>::DotDivide(const NCDataVector& v) const {
  CheckSameSize("DotDivide", size_, v.size_);
  NCDataVector result(*this);
  result.Unlink();
  result.missing_ = ZipPresent(result.data_, v.data_, size_,
                               [](T a, T b) { return b == T(0) ? kMis<T> : a / b; });
  return result;
}

namespace {

// x[i] += d*v[i] where both are present; where v is missing x keeps its element, as nothing is
// known to add or take away. Returns the new missing count.
template <class T>
int AddScaled(T* x, T d, const T* v, int n) {
  int missing = 0;
  for (int i = 1; i <= n; ++i) {
    if (!IsMissing(x[i]) && !IsMissing(v[i])) x[i] += d * v[i];
    missing += IsMissing(x[i]);
  }
  return missing;
}

}  // namespace

template <class T>
void NCDataVector<T>::TransformTo_Add_d_x_Vt(T d, const NCDataVector& v) {
  CheckSameSize("TransformTo_Add_d_x_Vt", size_, v.size_);
  Unlink();
  missing_ = AddScaled(data_, d, v.data_, size_);
}

template <class T>
void NCDataVector<T>::TransformTo_Sub_d_x_Vt(T d, const NCDataVector& v) {
  CheckSameSize("TransformTo_Sub_d_x_Vt", size_, v.size_);
  Unlink();
  missing_ = AddScaled(data_, T(-d), v.data_, size_);
}

template <class T>
bool NCDataVector<T>::operator==(const NCDataVector& v) const {
  return size_ == v.size_ && std::equal(begin(), end(), v.begin());
}

// ---------------------------------------------------------------------------------------------
// Statistics

template <class T>
long double NCDataVector<T>::GetSum() const {
  if (size_ - missing_ <= 0) return kMis<long double>;
  return mvda::detail::SumPresent(data_, size_, missing_);
}

template <class T>
long double NCDataVector<T>::GetMean() const {
  const int present = size_ - missing_;
  if (present <= 0) return kMis<long double>;
  long double mean = mvda::detail::SumPresent(data_, size_, missing_) / present;
  // A mean that lands exactly on -99 would read as "not computable" to every caller, so it is
  // moved just off the marker.
  if (mean == kMis<long double>) mean -= 1e-5;
  return mean;
}

template <class T>
long double NCDataVector<T>::GetVariance() const {
  const int present = size_ - missing_;
  if (present <= 0) return kMis<long double>;
  if (present < 2) return 0.0L;
  const long double mean = GetMean();
  return mvda::detail::SumSquaredDeviations(data_, size_, missing_, static_cast<double>(mean)) /
         (present - 1);
}

// One present element has variance 0 but no standard deviation: hosts divide by this value, and
// -99 keeps them from scaling a column by a spread that was never observed.
template <class T>
long double NCDataVector<T>::GetStdDev() const {
  if (size_ - missing_ < 2) return kMis<long double>;
  const long double variance = GetVariance();
  if (variance == kMis<long double>) return kMis<long double>;
  return std::sqrt(variance);
}

template <class T>
long double NCDataVector<T>::GetSS() const {
  if (size_ - missing_ <= 0) return kMis<long double>;
  return mvda::detail::SumSquaredDeviations(data_, size_, missing_, 0.0);
}

template <class T>
long double NCDataVector<T>::GetSS(T centre) const {
  if (size_ - missing_ <= 0) return kMis<long double>;
  return mvda::detail::SumSquaredDeviations(data_, size_, missing_, static_cast<double>(centre));
}

template <class T>
bool NCDataVector<T>::GetMinMax(T& min, T& max) const {
  bool found = false;
  T lo = 0, hi = 0;
  ForPresent(data_, size_, [&](T x) {
    if (!found) {
      lo = hi = x;
      found = true;
    } else {
      lo = std::min(lo, x);
      hi = std::max(hi, x);
    }
  });
  if (found) {
    min = lo;
    max = hi;
  }
  return found;
}

template <class T>
long double NCDataVector<T>::GetMedian() const {
  const int present = size_ - missing_;
  if (present <= 0) return kMis<long double>;
  return MedianOfSorted(SortedPresent(data_, size_, present), 0, present);
}

// Tukey's hinges without the middle element: for odd m it belongs to neither half.
template <class T>
bool NCDataVector<T>::GetInterquartiles(long double& q1, long double& median,
                                        long double& q3) const {
  const int present = size_ - missing_;
  if (present < 2) return false;
  const std::vector<T> sorted = SortedPresent(data_, size_, present);
  const int half = present / 2;
  median = MedianOfSorted(sorted, 0, present);
  q1 = MedianOfSorted(sorted, 0, half);
  q3 = MedianOfSorted(sorted, present - half, half);
  return true;
}

template <class T>
long double NCDataVector<T>::GetInterquartileRange() const {
  long double q1, median, q3;
  if (!GetInterquartiles(q1, median, q3)) return kMis<long double>;
  return q3 - q1;
}

// The divisor 1.075 is the one the host applications have always used for this robust spread.
template <class T>
long double NCDataVector<T>::GetRobustStdDev() const {
  const long double range = GetInterquartileRange();
  if (range == kMis<long double>) return kMis<long double>;
  return range / 1.075L;
}

namespace {

// Sum of ((x - mean)/s)^power over the present elements of x[1..n].
template <class T>
long double SumStandardisedPower(const T* x, int n, long double mean, long double s, int power) {
  long double sum = 0;
  ForPresent(x, n, [&](T v) {
    const long double z = (v - mean) / s;
    const long double z2 = z * z;
    sum += power == 3 ? z2 * z : z2 * z2;
  });
  return sum;
}

}  // namespace

// Sample skewness G1 (the adjusted Fisher-Pearson coefficient). The count goes through single
// precision into the correction factor, as the hosts' tables were computed that way. -99 below
// three present elements or without spread.
template <class T>
long double NCDataVector<T>::GetSkewness() const {
  const int present = size_ - missing_;
  if (present < 3) return kMis<long double>;
  const long double s = GetStdDev();
  if (s == kMis<long double> || s == 0 || std::isnan(s)) return kMis<long double>;
  const float m = static_cast<float>(present);
  const float factor = m / ((m - 1.0f) * (m - 2.0f));
  return factor * SumStandardisedPower(data_, size_, GetMean(), s, 3);
}

template <class T>
long double NCDataVector<T>::GetSkewnessTest() const {
  const long double g = GetSkewness();
  const long double m = size_ - missing_;
  if (m < 3 || g == kMis<long double>) return g;
  return g / std::sqrt(6 * m * (m - 1) / ((m - 2) * (m + 1) * (m + 3)));
}

// Sample excess kurtosis G2; -99 below four present elements or without spread.
template <class T>
long double NCDataVector<T>::GetKurtosis() const {
  const int present = size_ - missing_;
  if (present < 4) return kMis<long double>;
  const long double s = GetStdDev();
  if (s == kMis<long double> || s == 0 || std::isnan(s)) return kMis<long double>;
  const float m = static_cast<float>(present);
  const float factor = m * (m + 1.0f) / ((m - 1.0f) * (m - 2.0f) * (m - 3.0f));
  const float offset = 3.0f * (m - 1.0f) * (m - 1.0f) / ((m - 2.0f) * (m - 3.0f));
  return factor * SumStandardisedPower(data_, size_, GetMean(), s, 4) - offset;
}

namespace {

// Centred sums of the pairs present in both a (y) and b (x), i in 1..n.
struct PairMoments {
  int pairs = 0;
  long double mean_a = 0, mean_b = 0, saa = 0, sbb = 0, sab = 0;
};

template <class T>
PairMoments CentredPairSums(const T* a, const T* b, int n) {
  PairMoments m;
  ForPairs(a, b, n, [&](T x, T y) {
    ++m.pairs;
    m.mean_a += x;
    m.mean_b += y;
  });
  if (m.pairs == 0) return m;
  m.mean_a /= m.pairs;
  m.mean_b /= m.pairs;
  ForPairs(a, b, n, [&](T x, T y) {
    const long double da = x - m.mean_a, db = y - m.mean_b;
    m.saa += da * da;
    m.sbb += db * db;
    m.sab += da * db;
  });
  return m;
}

}  // namespace

// Pearson's r over the pairs present in both; -99 below two pairs or when either side is
// constant over them.
template <class T>
long double NCDataVector<T>::Correlation(const NCDataVector& v) const {
  CheckSameSize("Correlation", size_, v.size_);
  const PairMoments m = CentredPairSums(data_, v.data_, size_);
  if (m.pairs < 2 || m.saa == 0 || m.sbb == 0) return kMis<long double>;
  return m.sab / std::sqrt(m.saa * m.sbb);
}

// The convergence measure of NIPALS: the change from v (the previous iterate) to this vector,
// relative to this vector and squared, so that it does not depend on the units and the jitter of
// single precision (about 1e-14 squared) lies far below the usual threshold of 1e-10.
template <class T>
long double NCDataVector<T>::Difference(const NCDataVector& v) const {
  CheckSameSize("Difference", size_, v.size_);
  double change = 0, length = 0;
  int pairs = 0;
  ForPairs(data_, v.data_, size_, [&](T a, T b) {
    const double d = static_cast<double>(a) - b;
    change += d * d;
    length += static_cast<double>(a) * a;
    ++pairs;
  });
  if (pairs == 0 || !std::isfinite(change) || !std::isfinite(length)) return kMis<long double>;
  // A vector that is practically zero has not settled on a direction yet.
  if (length <= 1e-30) return 1e30L;
  return change / length;
}

template <class T>
bool NCDataVector<T>::LeastSquare(const NCDataVector& x, T& slope, T& intercept) const {
  CheckSameSize("LeastSquare", size_, x.size_);
  const PairMoments m = CentredPairSums(data_, x.data_, size_);
  if (m.pairs < 2 || m.sbb == 0) return false;
  const long double b = m.sab / m.sbb;
  slope = static_cast<T>(b);
  intercept = static_cast<T>(m.mean_a - b * m.mean_b);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Projection

// Like GetSum, -99 when there is no pair to sum over.
template <class T>
long double NCDataVector<T>::operator*(const NCDataVector& v) const {
  CheckSameSize("operator*", size_, v.size_);
  if (size_ == 0) return kMis<long double>;
  const mvda::detail::PairSums s =
      mvda::detail::SumPairs(data_, missing_, v.data_, v.missing_, size_, nullptr, 0);
  return s.pairs == 0 ? kMis<long double> : static_cast<long double>(s.xv);
}

// a = sum V2[i]*V1[i] and b = sum V1[i]^2 over the positions where both are present, c = sum
// V1[i]^2 over every present V1[i]; excluded positions (exclude[i] == code) count nowhere. No pair
// at all gives a = b = -99; a b below 1e-30 is taken as no signal and gives a = b = 0.
template <class T>
void NCDataVector<T>::Calculate_V1txV2_and_V1txV1(double& a, double& b, double& c,
                                                  const NCDataVector& v, const IndexVector* exclude,
                                                  int code) const {
  CheckSameSize("Calculate_V1txV2_and_V1txV1", size_, v.size_);
  if (exclude && exclude->Size() < size_)
    Fail("Calculate_V1txV2_and_V1txV1", "exclusion list of " + std::to_string(exclude->Size()) +
                                            " for " + std::to_string(size_) + " elements");
  mvda::detail::PairSums s;
  if (size_ > 0)
    s = mvda::detail::SumPairs(data_, missing_, v.data_, v.missing_, size_,
                               exclude ? exclude->GetPtr() : nullptr, code);
  c = s.all;
  if (s.pairs == 0) {
    a = b = kMis<double>;
  } else if (s.xx < 1e-30) {
    a = b = 0;
  } else {
    a = s.xv;
    b = s.xx;
  }
}

// -99 when no pair is present (b is then -99; a sum of squares is never -99 otherwise). When b
// was forced to 0 the quotient is 0/0, a NaN that the NIPALS loop reads as a dead component.
template <class T>
long double NCDataVector<T>::Regress(const NCDataVector& v) const {
  double a, b, c;
  Calculate_V1txV2_and_V1txV1(a, b, c, v);
  if (b == kMis<double>) return kMis<long double>;
  return static_cast<long double>(a) / b;
}

namespace {

// With many gaps the paired sum of squares b can be tiny while the vector is not; one third of
// the full sum c keeps the regression coefficient from exploding on a handful of pairs.
long double RegressFixed(double a, double b, double c) {
  if (b == kMis<double>) return kMis<long double>;
  return static_cast<long double>(a) / std::max(b, c / 3);
}

}  // namespace

template <class T>
long double NCDataVector<T>::SpecialNipalsRegressFix(const NCDataVector& v) const {
  double a, b, c;
  Calculate_V1txV2_and_V1txV1(a, b, c, v);
  return RegressFixed(a, b, c);
}

template <class T>
long double NCDataVector<T>::SpecialNipalsRegressFixWithExclude(const NCDataVector& v,
                                                                const IndexVector& exclude,
                                                                int code) const {
  double a, b, c;
  Calculate_V1txV2_and_V1txV1(a, b, c, v, &exclude, code);
  return RegressFixed(a, b, c);
}

template <class T>
long double NCDataVector<T>::Normalise() {
  const long double ss = GetSS();
  if (ss == kMis<long double>) return kMis<long double>;
  const long double norm = std::sqrt(ss);
  if (norm != 0) {
    Unlink();
    const double divisor = static_cast<double>(norm);
    missing_ = MapPresent(data_, size_, [divisor](T x) { return static_cast<T>(x / divisor); });
  }
  return norm;
}

// ---------------------------------------------------------------------------------------------
// Transforms

// Without a spread (fewer than two present elements, or all equal) the elements are only centred,
// which leaves them 0: there is nothing to scale.
template <class T>
NCDataVector<T> NCDataVector<T>::SNV() const {
  NCDataVector result(*this);
  if (size_ - missing_ <= 0) return result;
  const long double mean = GetMean();
  const long double s = GetStdDev();
  const bool scale = s != kMis<long double> && s != 0;
  result.Unlink();
  result.missing_ = MapPresent(result.data_, size_, [&](T x) {
    const long double centred = x - mean;
    return static_cast<T>(scale ? centred / s : centred);
  });
  return result;
}

template <class T>
bool NCDataVector<T>::DetrendMean(T& mean) {
  const long double m = GetMean();
  if (size_ - missing_ <= 0) return false;
  Unlink();
  missing_ = MapPresent(data_, size_, [m](T x) { return static_cast<T>(x - m); });
  mean = static_cast<T>(m);
  return true;
}

// Least squares of the present elements on their positions 1..n; false below two present.
template <class T>
bool NCDataVector<T>::DetrendLinear(T& slope, T& intercept) {
  const int present = size_ - missing_;
  if (present < 2) return false;
  long double mean_i = 0, mean_x = 0;
  for (int i = 1; i <= size_; ++i)
    if (!IsMissing(data_[i])) {
      mean_i += i;
      mean_x += data_[i];
    }
  mean_i /= present;
  mean_x /= present;
  long double sii = 0, six = 0;
  for (int i = 1; i <= size_; ++i)
    if (!IsMissing(data_[i])) {
      sii += (i - mean_i) * (i - mean_i);
      six += (i - mean_i) * (data_[i] - mean_x);
    }
  const long double b = six / sii, a = mean_x - b * mean_i;
  Unlink();
  int missing = 0;
  for (int i = 1; i <= size_; ++i) {
    if (!IsMissing(data_[i])) data_[i] = static_cast<T>(data_[i] - (a + b * i));
    missing += IsMissing(data_[i]);
  }
  missing_ = missing;
  slope = static_cast<T>(b);
  intercept = static_cast<T>(a);
  return true;
}

template <class T>
bool NCDataVector<T>::InterpolateMisVals(const NCDataVector* x) {
  if (missing_ == 0) return true;
  if (missing_ >= size_) return false;
  if (x) CheckSameSize("InterpolateMisVals", size_, x->size_);
  Unlink();
  T* v = data_;
  int first = 1, last = size_;
  while (IsMissing(v[first])) ++first;
  while (IsMissing(v[last])) --last;
  std::fill(v + 1, v + first, v[first]);
  std::fill(v + last + 1, v + size_ + 1, v[last]);
  const auto abscissa = [x](int i) -> long double { return x ? x->data_[i] : i; };
  bool complete = true;
  for (int i = first + 1; i <= last && complete; ++i) {
    if (!IsMissing(v[i])) continue;
    int j = i;
    while (IsMissing(v[j])) ++j;  // v[last] is present, so the run ends at j <= last
    if (x) {
      for (int k = i - 1; k <= j; ++k)
        if (IsMissing(x->data_[k])) complete = false;
      if (!complete) break;
    }
    const long double x0 = abscissa(i - 1), x1 = abscissa(j);
    const long double v0 = v[i - 1], v1 = v[j];
    for (int k = i; k < j; ++k)
      v[k] = static_cast<T>((abscissa(k) - x0) / (x1 - x0) * (v1 - v0) + v0);
    i = j;
  }
  // Counted rather than set to 0: an interpolated value can land exactly on -99, and a failed
  // run stays missing.
  missing_ = CountMissing(v + 1, size_);
  return complete;
}

// Equal values keep their original order (a stable sort); NaN follows the numbers and the
// missing elements come last, in either direction.
template <class T>
typename NCDataVector<T>::IndexVector NCDataVector<T>::Sort(NCDataVector* target, bool ascending) {
  std::vector<int> order(static_cast<std::size_t>(size_));
  std::iota(order.begin(), order.end(), 1);
  const auto rank = [](T value) { return IsMissing(value) ? 2 : std::isnan(value) ? 1 : 0; };
  const T* v = data_;
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    const int ra = rank(v[a]), rb = rank(v[b]);
    if (ra != rb) return ra < rb;
    if (ra != 0) return false;
    return ascending ? v[a] < v[b] : v[b] < v[a];
  });
  std::vector<T> sorted(order.size());
  for (std::size_t k = 0; k < order.size(); ++k) sorted[k] = v[order[k]];
  IndexVector positions(size_, 0);
  if (size_ > 0) std::copy(order.begin(), order.end(), positions.GetPtr() + 1);
  (target ? target : this)->Assign(sorted.data(), size_, missing_);
  return positions;
}

template class NCDataVector<float>;
template class NCDataVector<double>;
