// NCStringVector.
#include <mvda/containers/string_vector.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream_directory.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <numeric>
#include <ostream>
#include <string>
#include <string_view>

UStreamableData NCStringVector::MyStreamableData("NCSV", 2);

namespace {

using Storage = std::vector<CString>;

[[noreturn]] void Fail(const char* where, const std::string& fault) {
  throw NCError(std::string("NCStringVector::") + where + ": " + fault);
}

void CheckCount(const char* where, int count) {
  if (count < 0) Fail(where, "negative count " + std::to_string(count));
}

void CheckString(const char* where, const char* s) {
  if (!s) Fail(where, "null string");
}

// Throws before anything changes when `count` more strings would not fit the int sizes.
void CheckGrowth(const char* where, int size, int count) {
  CheckCount(where, count);
  if (count > INT_MAX - size) {
    Fail(where, "size " + std::to_string(size) + " + " + std::to_string(count) + " exceeds " +
                    std::to_string(INT_MAX));
  }
}

// Throws before anything changes when a listed position lies outside 1..size.
void CheckPositions(const char* where, const NCIntegralVector<int, -99>& positions, int size) {
  for (int k = 1; k <= positions.Size(); ++k) {
    const int p = positions[k];
    if (p < 1 || p > size) {
      Fail(where, "position " + std::to_string(p) + " outside 1.." + std::to_string(size));
    }
  }
}

// The storage every empty vector starts from. The static reference keeps its count above 1, so
// every mutator copies before writing and the placeholder itself stays empty.
const std::shared_ptr<Storage>& EmptyStorage() {
  static const std::shared_ptr<Storage> empty = std::make_shared<Storage>();
  return empty;
}

// ---------------------------------------------------------------------------------------------
// Comparators

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

unsigned char Byte(char c, bool case_sensitive) {
  return case_sensitive ? static_cast<unsigned char>(c) : CString::FoldAscii(c);
}

// CString::Compare or CString::CompareNoCase, without building a CString.
int ComparePlain(std::string_view a, std::string_view b, bool case_sensitive) {
  if (case_sensitive) {
    const int c = a.compare(b);  // unsigned bytes, as char_traits<char> compares
    return (c > 0) - (c < 0);
  }
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) {
    const unsigned char x = CString::FoldAscii(a[i]), y = CString::FoldAscii(b[i]);
    if (x != y) return x < y ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

// Natural order: both strings are read as sequences of symbols, a maximal run of ASCII digits
// being one symbol valued by its number and every other byte a symbol of its own (folded when
// case-insensitive), and the sequences compare symbol by symbol. A number meets another byte as
// its digits would, which is consistent because no other byte lies between '0' and '9'. Digit
// runs compare by length without leading zeros and then digit by digit, so runs of any length
// work without overflow. Sequences that tie (only leading zeros differ) fall back to the plain
// comparison, which keeps the order strict: equivalent means equal under the case rule.
int CompareNatural(std::string_view a, std::string_view b, bool case_sensitive) {
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    if (IsDigit(a[i]) && IsDigit(b[j])) {
      std::size_t i_end = i, j_end = j;
      while (i_end < a.size() && IsDigit(a[i_end])) ++i_end;
      while (j_end < b.size() && IsDigit(b[j_end])) ++j_end;
      while (i < i_end && a[i] == '0') ++i;
      while (j < j_end && b[j] == '0') ++j;
      if (i_end - i != j_end - j) return i_end - i < j_end - j ? -1 : 1;
      const int c = a.substr(i, i_end - i).compare(b.substr(j, j_end - j));
      if (c != 0) return c < 0 ? -1 : 1;
      i = i_end;
      j = j_end;
      continue;
    }
    const unsigned char x = Byte(a[i], case_sensitive), y = Byte(b[j], case_sensitive);
    if (x != y) return x < y ? -1 : 1;
    ++i;
    ++j;
  }
  if (i < a.size()) return 1;
  if (j < b.size()) return -1;
  return ComparePlain(a, b, case_sensitive);
}

// One of the eight orders of the flags (ascending, case_sensitive, natural).
struct Order {
  bool ascending, case_sensitive, natural;

  int Compare(std::string_view a, std::string_view b) const {
    return natural ? CompareNatural(a, b, case_sensitive) : ComparePlain(a, b, case_sensitive);
  }
  bool operator()(std::string_view a, std::string_view b) const {
    const int c = Compare(a, b);
    return ascending ? c < 0 : c > 0;
  }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction and sharing

NCStringVector::NCStringVector() : data_(EmptyStorage()) {}

NCStringVector::NCStringVector(int n) : data_(EmptyStorage()) {
  if (n < 0) Fail("NCStringVector", "negative size " + std::to_string(n));
  if (n > 0) data_ = std::make_shared<Storage>(static_cast<std::size_t>(n));
}

NCStringVector::NCStringVector(const std::vector<CString>& strings) : data_(EmptyStorage()) {
  if (strings.size() > static_cast<std::size_t>(INT_MAX)) {
    Fail("NCStringVector",
         std::to_string(strings.size()) + " strings exceed " + std::to_string(INT_MAX));
  }
  if (!strings.empty()) data_ = std::make_shared<Storage>(strings);
}

NCStringVector::NCStringVector(const NCStringVector& other)
    : UStreamBase(other), data_(other.data_) {}

NCStringVector& NCStringVector::operator=(const NCStringVector& other) {
  data_ = other.data_;
  return *this;
}

NCStringVector::~NCStringVector() = default;

void NCStringVector::swap(NCStringVector& other) noexcept { data_.swap(other.data_); }

void NCStringVector::Clear() { data_ = EmptyStorage(); }

// Holders only ever let go of shared strings after reading them, so a count of 1 means that no
// one else can still be reading. The count is read relaxed, and the fence orders this vector's
// writes after the other holders' last reads.
void NCStringVector::ForceUnlink() {
  if (data_.use_count() > 1) {
    data_ = std::make_shared<Storage>(*data_);
  } else {
    std::atomic_thread_fence(std::memory_order_acquire);
  }
}

void NCStringVector::Reserve(int n) {
  if (n < 0) Fail("Reserve", "negative size " + std::to_string(n));
  if (static_cast<std::size_t>(n) <= data_->capacity()) return;
  Unlink();
  data_->reserve(static_cast<std::size_t>(n));
}

// ---------------------------------------------------------------------------------------------
// Access and editing

const CString& NCStringVector::operator()(int i, const CString& s) {
  Unlink();
  CString& element = (*data_)[static_cast<std::size_t>(i) - 1];
  element = s;
  return element;
}

void NCStringVector::push_back(const CString& s) {
  CheckGrowth("push_back", Size(), 1);
  Unlink();
  data_->push_back(s);
}

void NCStringVector::InsertStrings(int n) { InsertStrings(Size() + 1, n, CString()); }

void NCStringVector::InsertStrings(int at, int count) { InsertStrings(at, count, CString()); }

void NCStringVector::InsertStrings(int at, int count, const CString& s) {
  CheckGrowth("InsertStrings", Size(), count);
  if (count == 0) return;
  at = std::clamp(at, 1, Size() + 1);
  const CString value = s;  // s may be an element of the strings about to move
  Unlink();
  data_->insert(data_->begin() + (at - 1), static_cast<std::size_t>(count), value);
}

void NCStringVector::RemoveStrings(int at, int count) {
  CheckCount("RemoveStrings", count);
  const long long first = std::max(at, 1);
  const long long last = std::min<long long>(static_cast<long long>(at) + count - 1, Size());
  if (first > last) return;
  Unlink();
  data_->erase(data_->begin() + (first - 1), data_->begin() + last);
}

int NCStringVector::RemoveString(const char* s, bool case_sensitive) {
  CheckString("RemoveString", s);
  // Shared strings are copied only when something is to go.
  if (FindString(s, case_sensitive, 1) == 0) return 0;
  Unlink();
  const int before = Size();
  const std::string_view target(s);
  data_->erase(std::remove_if(
                   data_->begin(), data_->end(),
                   [&](const CString& e) { return ComparePlain(e, target, case_sensitive) == 0; }),
               data_->end());
  return before - Size();
}

void NCStringVector::Remove(const NCIntegralVector<int, -99>& positions) {
  CheckPositions("Remove", positions, Size());
  if (positions.Size() == 0) return;
  std::vector<char> drop(static_cast<std::size_t>(Size()) + 1, 0);
  for (int k = 1; k <= positions.Size(); ++k) drop[static_cast<std::size_t>(positions[k])] = 1;
  Unlink();
  Storage& x = *data_;
  std::size_t kept = 0;
  for (std::size_t i = 0; i < x.size(); ++i) {
    if (!drop[i + 1]) {
      if (kept != i) x[kept] = std::move(x[i]);
      ++kept;
    }
  }
  x.resize(kept);
}

void NCStringVector::Reduce(const NCIntegralVector<int, -99>& positions) {
  CheckPositions("Reduce", positions, Size());
  if (positions.Size() == 0) {
    Clear();
    return;
  }
  auto kept = std::make_shared<Storage>();
  kept->reserve(static_cast<std::size_t>(positions.Size()));
  for (int k = 1; k <= positions.Size(); ++k) kept->push_back((*this)[positions[k]]);
  data_ = std::move(kept);
}

void NCStringVector::Concat(const NCStringVector& other) {
  const std::shared_ptr<Storage> source = other.data_;  // holds them when other is *this
  CheckGrowth("Concat", Size(), static_cast<int>(source->size()));
  if (source->empty()) return;
  Unlink();
  data_->insert(data_->end(), source->begin(), source->end());
}

int NCStringVector::SortedInsert(const CString& s, bool ascending, bool case_sensitive,
                                 bool natural) {
  CheckGrowth("SortedInsert", Size(), 1);
  const Order order{ascending, case_sensitive, natural};
  const auto at = std::upper_bound(data_->begin(), data_->end(), s, order) - data_->begin();
  const CString value = s;
  Unlink();
  data_->insert(data_->begin() + at, value);
  return static_cast<int>(at) + 1;
}

// ---------------------------------------------------------------------------------------------
// Search and order

int NCStringVector::FindString(const char* s, bool case_sensitive, int start) const {
  CheckString("FindString", s);
  const std::string_view target(s);
  for (int i = std::max(start, 1); i <= Size(); ++i) {
    if (ComparePlain((*this)[i], target, case_sensitive) == 0) return i;
  }
  return 0;
}

int NCStringVector::SortedStringPos(const char* s, bool ascending, bool case_sensitive,
                                    bool natural) const {
  CheckString("SortedStringPos", s);
  const Order order{ascending, case_sensitive, natural};
  const auto at =
      std::lower_bound(data_->begin(), data_->end(), std::string_view(s), order) - data_->begin();
  return at < static_cast<std::ptrdiff_t>(data_->size()) ? static_cast<int>(at) + 1 : 0;
}

int NCStringVector::FindSortedString(const char* s, bool ascending, bool case_sensitive,
                                     bool natural) const {
  CheckString("FindSortedString", s);
  const int p = SortedStringPos(s, ascending, case_sensitive, natural);
  return p >= 1 && ComparePlain((*this)[p], s, case_sensitive) == 0 ? p : 0;
}

void NCStringVector::Sort(bool ascending, bool case_sensitive, bool natural) {
  if (Size() < 2) return;
  Unlink();
  std::stable_sort(data_->begin(), data_->end(), Order{ascending, case_sensitive, natural});
}

void NCStringVector::SortWithOriginalIndex(bool ascending, bool case_sensitive,
                                           std::vector<int>& positions, bool natural) {
  const Order order{ascending, case_sensitive, natural};
  std::vector<int> from(static_cast<std::size_t>(Size()));
  std::iota(from.begin(), from.end(), 1);
  std::stable_sort(from.begin(), from.end(),
                   [&](int a, int b) { return order((*this)[a], (*this)[b]); });
  if (Size() >= 2) {
    auto sorted = std::make_shared<Storage>();
    sorted->reserve(from.size());
    for (const int p : from) sorted->push_back((*this)[p]);
    data_ = std::move(sorted);
  }
  positions.swap(from);
}

// ---------------------------------------------------------------------------------------------
// Conversion and comparison

void NCStringVector::Convert(const NCStringVector& from, std::vector<CString>& to) {
  to = from.GetVector();
}

void NCStringVector::Convert(const std::vector<CString>& from, NCStringVector& to) {
  to = NCStringVector(from);
}

bool NCStringVector::operator==(const NCStringVector& v) const {
  return data_ == v.data_ || *data_ == *v.data_;
}

// ---------------------------------------------------------------------------------------------
// Stream

bool NCStringVector::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;  // already written in this pass
  return MyStreamableData.Write(os) && NCStringVector::UStreamableWriteBases(os) &&
         NCStringVector::UStreamableWrite(os);
}

bool NCStringVector::UStreamableWrite(std::ostream& os) const {
  OutputStreamDirectory dir(os, 1);
  std::ostream& out = dir.GetOutput(0);
  WriteFourBytes(static_cast<std::int32_t>(Size()), out);
  for (const CString& s : *data_) {
    if (!WriteBinaryString(s, out)) break;
  }
  return dir.Close();
}

bool NCStringVector::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;  // already read in this pass
  std::int32_t version = 0;
  const bool ok = MyStreamableData.Check(is, &version) &&
                  NCStringVector::UStreamableReadBases(is) && version == 2 &&
                  NCStringVector::UStreamableRead(is);
  if (!ok) Clear();  // a failed read leaves the vector empty
  return ok;
}

bool NCStringVector::UStreamableRead(std::istream& is) {
  Storage strings;
  InputStreamDirectory dir(is);
  std::istream* in = dir.GetInput(0);
  if (!in || !ReadVector(*in, strings) || !dir.Close()) {
    Clear();
    return false;
  }
  if (strings.empty()) {
    Clear();
  } else {
    data_ = std::make_shared<Storage>(std::move(strings));
  }
  return true;
}

bool NCStringVector::ReadVector(std::istream& in, Storage& strings) {
  std::int32_t n = 0;
  if (!ReadFourBytes(n, in) || n < 0) return false;
  // Each string takes at least its 4-byte length, so a count the entry cannot hold is refused
  // before anything is reserved; memory then stays within a fixed multiple of the entry.
  if (!StreamHolds(in, static_cast<std::uint64_t>(n), 4)) return false;
  strings.reserve(static_cast<std::size_t>(n));
  for (std::int32_t k = 0; k < n; ++k) {
    strings.emplace_back();
    if (!ReadBinaryString(strings.back(), in)) return false;
  }
  // Bytes after the last string mean that the count and the strings disagree.
  return StreamBytesLeft(in) == 0;
}
