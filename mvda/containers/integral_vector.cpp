// NCIntegralVector<T, Missing>, BoolVector, IntPool and NDimensionalMatrix<int>.
#include <mvda/containers/detail/random_draw.h>
#include <mvda/containers/detail/shared_block.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <mutex>
#include <numeric>
#include <string>
#include <type_traits>

namespace {

[[noreturn]] void Fail(const char* where, const std::string& fault) {
  throw NCError(std::string("NCIntegralVector::") + where + ": " + fault);
}

void CheckSize(const char* where, int n) {
  if (n < 0) Fail(where, "negative size " + std::to_string(n));
}

void CheckCount(const char* where, int count) {
  if (count < 0) Fail(where, "negative count " + std::to_string(count));
}

// A fresh array of n elements plus the unused cell 0, which is set so that copying it never
// reads an indeterminate value.
template <class T>
boost::shared_array<T> Allocate(int n, T cell0) {
  boost::shared_array<T> array(new T[static_cast<size_t>(n) + 1]);
  array[0] = cell0;
  return array;
}

// The one cell every empty vector shares; nobody writes to it, because every mutator unlinks
// first and the placeholder is never held by one vector alone.
template <class T, T Missing>
const boost::shared_array<T>& EmptyArray() {
  static const boost::shared_array<T> empty = Allocate<T>(0, Missing);
  return empty;
}

// The sums run in 64 bits whatever T is: an int vector of two billion elements cannot overflow,
// and unsigned long elements wrap modulo 2^64 as they would on their own.
template <class T>
using Accumulator = std::conditional_t<std::is_signed_v<T>, long long, unsigned long long>;

template <class T>
Accumulator<T> SumAll(const T* x, int n) {
  Accumulator<T> s0 = 0, s1 = 0;
  int i = 1;
  for (; i < n; i += 2) {  // two independent chains, so the adds overlap
    s0 += x[i];
    s1 += x[i + 1];
  }
  if (i == n) s0 += x[i];
  return s0 + s1;
}

}  // namespace

// --- Construction

template <class T, T Missing>
NCIntegralVector<T, Missing>::NCIntegralVector() : data_(EmptyArray<T, Missing>()) {}

template <class T, T Missing>
NCIntegralVector<T, Missing>::NCIntegralVector(int n, T value) {
  CheckSize("NCIntegralVector", n);
  data_ = n == 0 ? EmptyArray<T, Missing>() : Allocate<T>(n, Missing);
  std::fill(data_.get() + 1, data_.get() + 1 + n, value);
  size_ = capacity_ = n;
}

template <class T, T Missing>
NCIntegralVector<T, Missing>::NCIntegralVector(const T* p, int n) {
  CheckSize("NCIntegralVector", n);
  if (n > 0 && p == nullptr)
    Fail("NCIntegralVector", "null source for " + std::to_string(n) + " elements");
  data_ = n == 0 ? EmptyArray<T, Missing>() : Allocate<T>(n, Missing);
  std::copy(p, p + n, data_.get() + 1);
  size_ = capacity_ = n;
}

template <class T, T Missing>
NCIntegralVector<T, Missing>::NCIntegralVector(const NCIntegralVector& other)
    : UStreamBase(other), size_(other.size_), capacity_(other.capacity_), data_(other.data_) {}

template <class T, T Missing>
NCIntegralVector<T, Missing>& NCIntegralVector<T, Missing>::operator=(
    const NCIntegralVector& other) {
  data_ = other.data_;
  size_ = other.size_;
  capacity_ = other.capacity_;
  return *this;
}

template <class T, T Missing>
NCIntegralVector<T, Missing>::~NCIntegralVector() = default;

template <class T, T Missing>
void NCIntegralVector<T, Missing>::CopyContent(const NCIntegralVector& other) {
  const int n = other.size_;
  boost::shared_array<T> fresh = n == 0 ? EmptyArray<T, Missing>() : Allocate<T>(n, Missing);
  std::copy(other.begin(), other.end(), fresh.get() + 1);
  data_.swap(fresh);
  size_ = capacity_ = n;
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::Clear() {
  data_ = EmptyArray<T, Missing>();
  size_ = capacity_ = 0;
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::ForceUnlink() {
  Unlink();
}

template <class T, T Missing>
bool NCIntegralVector<T, Missing>::UnLinkVecPointer(boost::shared_array<T>& array, int size) {
  if (array.use_count() <= 1) return false;
  boost::shared_array<T> fresh(new T[static_cast<size_t>(size) + 1]);
  std::copy(array.get(), array.get() + size + 1, fresh.get());
  array.swap(fresh);
  return true;
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::CheckGrowth(const char* where, int count) const {
  CheckCount(where, count);
  if (count > INT_MAX - size_) {
    Fail(where, std::to_string(size_) + " + " + std::to_string(count) +
                    " elements exceed the largest size " + std::to_string(INT_MAX));
  }
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::Grow(int requested) {
  if (requested <= capacity_) return;
  // Doubling keeps a run of push_back calls linear; small vectors start at 4.
  long long grown = std::max<long long>(4, 2LL * capacity_);
  const int target =
      static_cast<int>(std::min<long long>(INT_MAX, std::max<long long>(grown, requested)));
  boost::shared_array<T> fresh = Allocate<T>(target, Missing);
  std::copy(data_.get() + 1, data_.get() + 1 + size_, fresh.get() + 1);
  data_.swap(fresh);
  capacity_ = target;
}

// --- Size

template <class T, T Missing>
void NCIntegralVector<T, Missing>::SetSize(int n) {
  CheckSize("SetSize", n);
  resize(n, Missing);
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::resize(int n, T value) {
  CheckSize("resize", n);
  if (n <= size_) {
    size_ = n;  // set first, so that unlinking copies only the elements that stay
    Unlink();
    return;
  }
  Unlink();
  Grow(n);
  std::fill(data_.get() + 1 + size_, data_.get() + 1 + n, value);
  size_ = n;
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::Reserve(int n) {
  CheckSize("Reserve", n);
  Unlink();
  if (n <= capacity_) return;
  boost::shared_array<T> fresh = Allocate<T>(n, Missing);
  std::copy(data_.get() + 1, data_.get() + 1 + size_, fresh.get() + 1);
  data_.swap(fresh);
  capacity_ = n;
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::SetNumValues(int n, T value) {
  CheckSize("SetNumValues", n);
  *this = NCIntegralVector(n, value);
}

// --- Access

template <class T, T Missing>
T& NCIntegralVector<T, Missing>::operator()(int i) {
  Unlink();
  return data_[i];
}

template <class T, T Missing>
T* NCIntegralVector<T, Missing>::GetPtr() {
  Unlink();
  return data_.get();
}

// --- Editing

template <class T, T Missing>
void NCIntegralVector<T, Missing>::push_back(T value) {
  CheckGrowth("push_back", 1);
  Unlink();
  Grow(size_ + 1);
  data_[++size_] = value;
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::insert(const T* at, T value) {
  InsertValues(static_cast<int>(at - begin()) + 1, 1, value);
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::erase(const T* first, const T* last) {
  RemoveValues(static_cast<int>(first - begin()) + 1, static_cast<int>(last - first));
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::InsertValues(int at, int count, T value) {
  CheckGrowth("InsertValues", count);
  if (count == 0) return;
  at = OpenGap(at, count);
  std::fill(data_.get() + at, data_.get() + at + count, value);
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::InsertValues(int at, const NCIntegralVector& values) {
  const NCIntegralVector source = values;  // holds the elements even when values is *this
  const int count = source.size_;
  CheckGrowth("InsertValues", count);
  if (count == 0) return;
  at = OpenGap(at, count);
  std::copy(source.begin(), source.end(), data_.get() + at);
}

template <class T, T Missing>
int NCIntegralVector<T, Missing>::OpenGap(int at, int count) {
  at = std::clamp(at, 1, size_ + 1);
  Unlink();
  Grow(size_ + count);
  T* x = data_.get();
  std::copy_backward(x + at, x + 1 + size_, x + 1 + size_ + count);
  size_ += count;
  return at;
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::RemoveValues(int at, int count) {
  CheckCount("RemoveValues", count);
  const long long first = std::max(at, 1);
  const long long last = std::min<long long>(static_cast<long long>(at) + count - 1, size_);
  if (first > last) return;
  Unlink();
  T* x = data_.get();
  std::copy(x + last + 1, x + 1 + size_, x + first);
  size_ -= static_cast<int>(last - first + 1);
}

namespace {

// Throws before anything changes when a listed position lies outside 1..size.
void CheckPositions(const char* where, const NCIntegralVector<int, -99>& positions, int size) {
  for (int k = 1; k <= positions.Size(); ++k) {
    const int p = positions[k];
    if (p < 1 || p > size) {
      Fail(where, "position " + std::to_string(p) + " outside 1.." + std::to_string(size));
    }
  }
}

}  // namespace

template <class T, T Missing>
void NCIntegralVector<T, Missing>::Remove(const NCIntegralVector<int, -99>& positions) {
  CheckPositions("Remove", positions, size_);
  if (positions.Size() == 0) return;
  std::vector<char> drop(static_cast<size_t>(size_) + 1, 0);
  for (int k = 1; k <= positions.Size(); ++k) drop[positions[k]] = 1;
  Unlink();
  T* x = data_.get();
  int kept = 0;
  for (int i = 1; i <= size_; ++i) {
    if (!drop[i]) x[++kept] = x[i];
  }
  size_ = kept;
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::Reduce(const NCIntegralVector<int, -99>& positions) {
  CheckPositions("Reduce", positions, size_);
  const int n = positions.Size();
  boost::shared_array<T> fresh = n == 0 ? EmptyArray<T, Missing>() : Allocate<T>(n, Missing);
  for (int k = 1; k <= n; ++k) fresh[k] = data_[positions[k]];
  data_.swap(fresh);
  size_ = capacity_ = n;
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::Concat(const NCIntegralVector& other) {
  InsertValues(size_ + 1, other);
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::SetAllValues(T value) {
  Unlink();
  std::fill(data_.get() + 1, data_.get() + 1 + size_, value);
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::SetRange(int from, int to, T value) {
  from = std::max(from, 1);
  to = std::min(to, size_);
  if (from > to) return;
  Unlink();
  std::fill(data_.get() + from, data_.get() + to + 1, value);
}

template <class T, T Missing>
NCIntegralVector<T, Missing>& NCIntegralVector<T, Missing>::operator+=(T value) {
  Unlink();
  T* x = data_.get();
  for (int i = 1; i <= size_; ++i) x[i] = static_cast<T>(x[i] + value);
  return *this;
}

// --- Index lists

template <class T, T Missing>
void NCIntegralVector<T, Missing>::GenerateIndex(int start, int step) {
  if (size_ == 0) return;
  Unlink();
  T* x = data_.get();
  // Computed in 64 bits so that a long run with a large step cannot overflow an int midway.
  for (int k = 1; k <= size_; ++k)
    x[k] = static_cast<T>(start + static_cast<long long>(k - 1) * step);
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::Scramble() {
  if (size_ < 2) return;
  Unlink();
  T* x = data_.get();
  // Fisher-Yates: position i swaps with a position drawn uniformly from 1..i, including itself.
  for (int i = size_; i > 1; --i) {
    const int j =
        1 + static_cast<int>(mvda::detail::UniformBelow(static_cast<unsigned long long>(i),
                                                        RAND_MAX, [] { return std::rand(); }));
    std::swap(x[i], x[j]);
  }
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::Sort(bool ascending, bool unique) {
  if (size_ < 2) return;
  Unlink();
  T* first = data_.get() + 1;
  T* last = first + size_;
  if (ascending) {
    std::sort(first, last);
  } else {
    std::sort(first, last, [](T a, T b) { return b < a; });
  }
  if (unique) size_ = static_cast<int>(std::unique(first, last) - first);
}

template <class T, T Missing>
void NCIntegralVector<T, Missing>::SortWithOriginalIndex(bool ascending,
                                                         std::vector<int>& positions) {
  std::vector<int> order(static_cast<size_t>(size_));
  std::iota(order.begin(), order.end(), 1);
  const T* x = data_.get();
  if (ascending) {
    std::stable_sort(order.begin(), order.end(), [x](int a, int b) { return x[a] < x[b]; });
  } else {
    std::stable_sort(order.begin(), order.end(), [x](int a, int b) { return x[b] < x[a]; });
  }
  boost::shared_array<T> fresh =
      size_ == 0 ? EmptyArray<T, Missing>() : Allocate<T>(size_, Missing);
  for (int k = 1; k <= size_; ++k) fresh[k] = x[order[k - 1]];
  data_.swap(fresh);
  capacity_ = size_;
  positions.swap(order);
}

template <class T, T Missing>
bool NCIntegralVector<T, Missing>::IsSorted(bool ascending) const {
  const T* x = data_.get();
  for (int i = 1; i < size_; ++i) {
    if (ascending ? x[i + 1] < x[i] : x[i] < x[i + 1]) return false;
  }
  return true;
}

template <class T, T Missing>
int NCIntegralVector<T, Missing>::LowerBound(T value, bool upper) const {
  const T* found =
      upper ? std::upper_bound(begin(), end(), value) : std::lower_bound(begin(), end(), value);
  return static_cast<int>(found - begin()) + 1;
}

template <class T, T Missing>
int NCIntegralVector<T, Missing>::Find(T value, SortType sorted, int from, int to) const {
  from = from == 0 ? 1 : std::max(from, 1);
  to = to == 0 ? size_ : std::min(to, size_);
  if (from > to) return 0;
  const T* first = data_.get() + from;
  const T* last = data_.get() + to + 1;
  const T* found = last;
  switch (sorted) {
    case kAscending:
      found = std::lower_bound(first, last, value);
      break;
    case kDescending:
      found = std::lower_bound(first, last, value, [](T a, T b) { return b < a; });
      break;
    default:
      found = std::find(first, last, value);
      break;
  }
  if (found == last || *found != value) return 0;
  return static_cast<int>(found - data_.get());
}

// --- Comparison

template <class T, T Missing>
bool NCIntegralVector<T, Missing>::operator==(const NCIntegralVector& v) const {
  return size_ == v.size_ && std::equal(begin(), end(), v.begin());
}

template <class T, T Missing>
bool NCIntegralVector<T, Missing>::operator<(const NCIntegralVector& v) const {
  return std::lexicographical_compare(begin(), end(), v.begin(), v.end());
}

// --- Statistics

template <class T, T Missing>
long NCIntegralVector<T, Missing>::GetSum() const {
  return static_cast<long>(SumAll(data_.get(), size_));
}

template <class T, T Missing>
double NCIntegralVector<T, Missing>::GetMean() const {
  if (size_ == 0) return -99.0;
  return static_cast<double>(SumAll(data_.get(), size_)) / size_;
}

template <class T, T Missing>
double NCIntegralVector<T, Missing>::GetVariance() const {
  if (size_ == 0) return -99.0;
  if (size_ < 2) return 0.0;
  const double mean = GetMean();
  const T* x = data_.get();
  double ss = 0;
  for (int i = 1; i <= size_; ++i) {
    const double d = static_cast<double>(x[i]) - mean;
    ss += d * d;
  }
  return ss / (size_ - 1);
}

template <class T, T Missing>
double NCIntegralVector<T, Missing>::GetStdDev() const {
  if (size_ < 2) return -99.0;
  return std::sqrt(GetVariance());
}

template class NCIntegralVector<int, -99>;
template class NCIntegralVector<unsigned long, 0>;
template class NCIntegralVector<bool, false>;

BoolVector::~BoolVector() = default;

// --- IntPool

namespace {

// Cells are handed out from blocks of this many ints: one allocation serves a thousand calls.
constexpr int kIntPoolBlock = 1024;

struct IntPoolState {
  mvda::detail::SpinFlag spin;  // guards free and blocks
  std::vector<int*> free;
  std::vector<int*> blocks;  // every block ever allocated; kept so they stay reachable
};

// Created on first use and never destroyed, so cells stay valid during static destruction.
IntPoolState& Pool() {
  static IntPoolState* const state = new IntPoolState;
  return *state;
}

}  // namespace

int* IntPool::GetInt() {
  IntPoolState& pool = Pool();
  std::lock_guard<mvda::detail::SpinFlag> hold(pool.spin);
  if (pool.free.empty()) {
    pool.blocks.reserve(pool.blocks.size() + 1);
    pool.free.reserve(kIntPoolBlock);
    int* block = new int[kIntPoolBlock];
    pool.blocks.push_back(block);
    // Pushed from the top so that cells leave the block in address order.
    for (int k = kIntPoolBlock - 1; k >= 0; --k) pool.free.push_back(block + k);
  }
  int* cell = pool.free.back();
  pool.free.pop_back();
  *cell = 0;
  return cell;
}

void IntPool::ReleaseInt(int* cell) {
  if (cell == nullptr) return;
  IntPoolState& pool = Pool();
  std::lock_guard<mvda::detail::SpinFlag> hold(pool.spin);
  pool.free.push_back(cell);
}

// --- NDimensionalMatrix<int>

// An inner level holds one child per subscript (null until written); the last level holds the
// integers themselves.
struct NDimensionalMatrix<int>::Level {
  std::vector<std::unique_ptr<Level>> children;
  std::vector<int> values;

  std::unique_ptr<Level> Clone() const {
    auto copy = std::make_unique<Level>();
    copy->values = values;
    copy->children.resize(children.size());
    for (size_t k = 0; k < children.size(); ++k) {
      if (children[k]) copy->children[k] = children[k]->Clone();
    }
    return copy;
  }
};

NDimensionalMatrix<int>::NDimensionalMatrix(const std::vector<int>& extents, int fill,
                                            int /*reserved*/)
    : extents_(extents), fill_(fill) {
  if (extents.empty()) throw NCError("NDimensionalMatrix: no extents given");
  for (size_t d = 0; d < extents.size(); ++d) {
    if (extents[d] < 1) {
      throw NCError("NDimensionalMatrix: extent " + std::to_string(extents[d]) + " of dimension " +
                    std::to_string(d + 1) + " is below 1");
    }
  }
}

NDimensionalMatrix<int>::NDimensionalMatrix(const NDimensionalMatrix& other)
    : extents_(other.extents_),
      fill_(other.fill_),
      root_(other.root_ ? other.root_->Clone() : nullptr) {}

NDimensionalMatrix<int>& NDimensionalMatrix<int>::operator=(const NDimensionalMatrix& other) {
  if (this != &other) {
    std::unique_ptr<Level> root = other.root_ ? other.root_->Clone() : nullptr;
    extents_ = other.extents_;
    fill_ = other.fill_;
    root_ = std::move(root);
  }
  return *this;
}

NDimensionalMatrix<int>::~NDimensionalMatrix() = default;

void NDimensionalMatrix<int>::CheckIndex(const char* where, const std::vector<int>& index,
                                         int first) const {
  const long long dims = static_cast<long long>(extents_.size());
  if (first < 0 || static_cast<long long>(index.size()) < first + dims) {
    throw NCError(std::string("NDimensionalMatrix::") + where + ": " +
                  std::to_string(index.size()) + " subscripts do not reach " +
                  std::to_string(dims) + " dimensions from position " + std::to_string(first));
  }
  for (long long d = 0; d < dims; ++d) {
    const int i = index[static_cast<size_t>(first + d)];
    if (i < 0 || i >= extents_[static_cast<size_t>(d)]) {
      throw NCError(std::string("NDimensionalMatrix::") + where + ": subscript " +
                    std::to_string(i) + " outside 0.." +
                    std::to_string(extents_[static_cast<size_t>(d)] - 1) + " in dimension " +
                    std::to_string(d + 1));
    }
  }
}

int NDimensionalMatrix<int>::Get(const std::vector<int>& index, int first) const {
  CheckIndex("Get", index, first);
  const size_t last = extents_.size() - 1;
  const Level* level = root_.get();
  for (size_t d = 0; level != nullptr && d < last; ++d) {
    level = level->children[static_cast<size_t>(index[first + d])].get();
  }
  return level == nullptr ? fill_ : level->values[static_cast<size_t>(index[first + last])];
}

void NDimensionalMatrix<int>::Set(const std::vector<int>& index, int value, int first) {
  CheckIndex("Set", index, first);
  const size_t last = extents_.size() - 1;
  std::unique_ptr<Level>* slot = &root_;
  for (size_t d = 0;; ++d) {
    if (!*slot) {
      *slot = std::make_unique<Level>();
      if (d < last) {
        (*slot)->children.resize(static_cast<size_t>(extents_[d]));
      } else {
        (*slot)->values.assign(static_cast<size_t>(extents_[d]), fill_);
      }
    }
    if (d == last) break;
    slot = &(*slot)->children[static_cast<size_t>(index[first + d])];
  }
  (*slot)->values[static_cast<size_t>(index[first + last])] = value;
}
