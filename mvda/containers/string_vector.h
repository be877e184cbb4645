// CString, the narrow string of the library's interface, and NCStringVector, the streamable
// 1-based list of names (variable names, class names, observation labels).
#ifndef MVDA_CONTAINERS_STRING_VECTOR_H_
#define MVDA_CONTAINERS_STRING_VECTOR_H_

#include <mvda/containers/integral_vector.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/stream.h>

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// A std::string with the comparison members the hosts call. Bytes are 8-bit and uninterpreted:
// names come from files in whatever code page the user had, so nothing here decodes them.
class CString : public std::string {
 public:
  using std::string::string;
  CString() = default;
  CString(const std::string& s) : std::string(s) {}                 // NOLINT: converts implicitly
  CString(std::string&& s) noexcept : std::string(std::move(s)) {}  // NOLINT

  // Negative, zero or positive as *this sorts before, equal to or after s, byte by byte with
  // bytes taken as unsigned; a proper prefix sorts first.
  int Compare(std::string_view s) const { return Sign(std::string_view(*this).compare(s)); }

  // The same with ASCII letters folded to lower case first, so "abc" equals "ABC" and '_' (which
  // lies between 'Z' and 'a') sorts before every letter. Bytes above 127 are not folded and
  // compare by value: folding them would need a code page the bytes do not carry, and a portable
  // fold must not depend on the process locale.
  int CompareNoCase(std::string_view s) const {
    const std::string_view t(*this);
    const std::size_t n = t.size() < s.size() ? t.size() : s.size();
    for (std::size_t i = 0; i < n; ++i) {
      const unsigned char a = FoldAscii(t[i]), b = FoldAscii(s[i]);
      if (a != b) return a < b ? -1 : 1;
    }
    return t.size() == s.size() ? 0 : (t.size() < s.size() ? -1 : 1);
  }

  static unsigned char FoldAscii(char c) {
    const auto u = static_cast<unsigned char>(c);
    return u >= 'A' && u <= 'Z' ? static_cast<unsigned char>(u + ('a' - 'A')) : u;
  }

 private:
  static int Sign(int c) { return (c > 0) - (c < 0); }
};

// Copies share one std::vector of strings; every mutator gives this vector its own copy first.
// Element i (1 <= i <= Size()) is GetVector()[i - 1]; element indices are not checked. Sizes and
// counts are: a negative one, or one that would take the vector past INT_MAX strings, throws
// NCError, as does a null string pointer. Range members (InsertStrings, RemoveStrings) clip
// their range to the vector, and position lists (Remove, Reduce) are checked.
//
// Orders. Sort, SortWithOriginalIndex, SortedInsert, SortedStringPos and FindSortedString take
// the same flags in the same order, (ascending, case_sensitive, natural), and pick the same
// comparator for the same flags, so a vector sorted with some flags is searched with the same:
//  - ascending: true sorts first to last by the comparator, false reverses it.
//  - case_sensitive: true compares bytes (CString::Compare); false folds ASCII letters first
//    (CString::CompareNoCase).
//  - natural: false compares byte by byte. true compares each run of ASCII digits by its number,
//    so "x2" sorts before "x10" and "Run 9" before "Run 10", as users number their samples;
//    runs of equal value ("x01", "x1") are then ordered by the plain comparison, so that two
//    strings are equivalent only when they are equal under the case rule.
// Sorting is stable: equivalent strings keep their order.
//
// Thread-safety: copies of one vector may be read, copied and destroyed from several threads;
// one vector object is never written by two threads at once.
class MVDA_EXPORT NCStringVector : public virtual UStreamBase {
 public:
  using const_iterator = std::vector<CString>::const_iterator;

  static UStreamableData MyStreamableData;  // "NCSV", version 2

  NCStringVector();
  explicit NCStringVector(int n);                       // n empty strings
  NCStringVector(const std::vector<CString>& strings);  // NOLINT: converts implicitly
  NCStringVector(const NCStringVector& other);          // shares the strings
  NCStringVector& operator=(const NCStringVector& other);
  ~NCStringVector() override;
  void swap(NCStringVector& other) noexcept;
  void Clear();        // size 0, releases the strings
  void ForceUnlink();  // gives this vector its own strings if another vector shares them

  int Size() const { return static_cast<int>(data_->size()); }
  int size() const { return Size(); }
  bool empty() const { return data_->empty(); }
  void Reserve(int n);  // only grows
  void reserve(int n) { Reserve(n); }

  const CString& operator[](int i) const { return (*data_)[static_cast<std::size_t>(i) - 1]; }
  // Sets element i to s and returns it. The reference is read-only: writing through it would
  // reach the copies that share the strings later.
  const CString& operator()(int i, const CString& s);
  const_iterator begin() const { return data_->cbegin(); }
  const_iterator end() const { return data_->cend(); }
  const std::vector<CString>& GetVector() const { return *data_; }

  void push_back(const CString& s);
  void InsertStrings(int n);  // appends n empty strings
  // Inserts before position `at`; at = Size()+1 (or beyond) appends, at < 1 prepends.
  void InsertStrings(int at, int count);  // empty strings
  void InsertStrings(int at, int count, const CString& s);
  void RemoveStrings(int at, int count);  // the part of at..at+count-1 that lies in 1..Size()
  // Removes every element equal to s under the case rule; returns how many went.
  int RemoveString(const char* s, bool case_sensitive = true);
  // Removes the listed 1-based positions, given in any order, repeats allowed. A position
  // outside 1..Size() throws NCError and leaves the vector unchanged.
  void Remove(const NCIntegralVector<int, -99>& positions);
  // Keeps the listed positions in the order listed (a repeated position is kept twice). A
  // position outside 1..Size() throws NCError and leaves the vector unchanged.
  void Reduce(const NCIntegralVector<int, -99>& positions);
  void Concat(const NCStringVector& other);  // appends other's strings
  // Inserts s into a vector sorted with the same flags, after the strings equivalent to it, and
  // returns its position.
  int SortedInsert(const CString& s, bool ascending = true, bool case_sensitive = true,
                   bool natural = false);

  // The first position from `start` on (start < 1 searches from 1) whose element equals s under
  // the case rule; 0 when there is none or start lies beyond the end.
  int FindString(const char* s, bool case_sensitive = true, int start = 1) const;
  // Bisection over a vector sorted with the same flags: the first position whose element is not
  // ordered before s, or 0 when every element is.
  int SortedStringPos(const char* s, bool ascending = true, bool case_sensitive = true,
                      bool natural = false) const;
  // SortedStringPos when the element there equals s under the case rule, else 0.
  int FindSortedString(const char* s, bool ascending = true, bool case_sensitive = true,
                       bool natural = false) const;

  void Sort(bool ascending = true, bool case_sensitive = true, bool natural = false);
  // Sorts like Sort and sets positions to Size() entries: positions[k - 1] is the original
  // position of the string that is now at k.
  void SortWithOriginalIndex(bool ascending, bool case_sensitive, std::vector<int>& positions,
                             bool natural = false);

  static void Convert(const NCStringVector& from, std::vector<CString>& to);
  static void Convert(const std::vector<CString>& from, NCStringVector& to);

  bool operator==(const NCStringVector& v) const;  // same strings, byte for byte
  bool operator!=(const NCStringVector& v) const { return !(*this == v); }

  // Stream: record "NCSV" version 2, one directory entry 0 holding the count (4 bytes) and the
  // strings, each as a 4-byte length and its bytes. Any other version, or a damaged stream,
  // makes the read return false and leaves the vector empty.
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableRead(std::istream& is) override;
  static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
  static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }

 private:
  using Storage = std::vector<CString>;
  void Unlink() { ForceUnlink(); }
  // Reads the count and the strings of entry 0 into `strings`; false on any damage.
  static bool ReadVector(std::istream& in, Storage& strings);

  std::shared_ptr<Storage> data_;  // never null; empty vectors share one placeholder
};

inline void swap(NCStringVector& a, NCStringVector& b) noexcept { a.swap(b); }

#endif  // MVDA_CONTAINERS_STRING_VECTOR_H_
