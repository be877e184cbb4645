#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing
#include "support/stream_bytes.h"

namespace {

using Rows = std::vector<std::vector<double>>;
using Ids = std::vector<std::uint32_t>;

template <class T>
NCDataMatrix<T> MakeMatrix(const Rows& rows, int columns) {
  NCDataMatrix<T> m(0, columns, T(0));
  for (const auto& row : rows) m.push_back(MakeVector<T>(row));
  return m;
}

std::uint32_t U32(const std::string& bytes, std::size_t at) {  // little-endian
  std::uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(bytes.at(at + i));
  return v;
}

// The ids of the directory at `at`: a count, then per entry a 4-byte id, an 8-byte length and
// the bytes (docs/stream-format.md); lengths stay below 2^32 here.
Ids EntryIds(const std::string& bytes, std::size_t at) {
  Ids ids;
  const std::uint32_t count = U32(bytes, at);
  at += 4;
  for (std::uint32_t k = 0; k < count; ++k) {
    ids.push_back(U32(bytes, at));
    at += 12 + U32(bytes, at + 4);
  }
  EXPECT_EQ(at, bytes.size());
  return ids;
}

template <class T>
bool Cleared(const NCDataVector<T>& v) {
  return v.Size() == 0 && v.GetNumMisVal() == 0 && v.GetVector() == nullptr;
}
template <class T>
bool Cleared(const NCDataMatrix<T>& m) {
  return m.SizeRows() == 0 && m.SizeColumns() == 0 && m.GetNumMisVal() == 0;
}
template <class T, T M>
bool Cleared(const NCIntegralVector<T, M>& v) {
  return v.Size() == 0;
}

// Every missing count equals the -99 elements counted one by one.
template <class T>
bool CountsExact(const NCDataMatrix<T>& m) {
  int total = 0;
  for (int j = 1; j <= m.SizeColumns(); ++j) {
    int column = 0;
    for (int i = 1; i <= m.SizeRows(); ++i) column += m[i][j] == T(-99);
    if (m.GetColumnMisVal(j) != column) return false;
    total += column;
  }
  for (int i = 1; i <= m.SizeRows(); ++i)
    if (m[i].Size() != m.SizeColumns()) return false;
  return total == m.GetNumMisVal();
}

// Every prefix of a valid stream, and 2000 copies with one to three bytes replaced (fixed seed),
// read into an object that holds something: a refused read leaves it cleared, an accepted one
// passes `sound`. Each damaged stream is also read through ReadNestedObject with exceptions.
template <class Object>
void ExpectDamageHandled(const Object& filled, const std::string& valid,
                         const std::function<bool(const Object&)>& sound) {
  for (std::size_t k = 0; k < valid.size(); ++k) {
    Object read = filled;
    if (ReadInto(valid.substr(0, k), read) || !Cleared(read)) {
      ADD_FAILURE() << "prefix of " << k << " bytes";
      break;
    }
  }
  std::mt19937 random(20240607);
  int refused = 0;
  for (int trial = 0; trial < 2000; ++trial) {
    std::string bytes = valid;
    for (int flips = 1 + trial % 3; flips > 0; --flips)
      bytes[random() % bytes.size()] = static_cast<char>(random() & 0xff);
    Object read = filled, thrown = filled;
    const bool ok = ReadInto(bytes, read);
    refused += !ok;
    EXPECT_TRUE(ok ? sound(read) : Cleared(read)) << "trial " << trial;
    std::istringstream is(bytes);
    try {
      EXPECT_EQ(ReadNestedObject(is, thrown, true), ok);
    } catch (const TwStreamError&) {
      EXPECT_FALSE(ok);
      EXPECT_TRUE(Cleared(thrown));
    }
  }
  EXPECT_GT(refused, 0);
}

using Precisions = ::testing::Types<float, double>;
template <class T>
class ContainerStream : public ::testing::Test {};
TYPED_TEST_SUITE(ContainerStream, Precisions);

TYPED_TEST(ContainerStream, VectorRoundTripsAndEmptyVectorWritesTwoEntries) {
  using T = TypeParam;
  for (const std::vector<double>& values :
       {std::vector<double>{1.5, -99, 3, -99, 1e-30, NAN}, std::vector<double>{}}) {
    SCOPED_TRACE(values.size());
    const auto source = MakeVector<T>(values);
    const std::string bytes = Bytes(source);
    // Record 12 bytes, then the directory: entries 0 and 1 always, 2 only with elements.
    const Ids ids = values.empty() ? Ids{0, 1} : Ids{0, 1, 2};
    EXPECT_EQ(EntryIds(bytes, 12), ids);
    NCDataVector<T> read = MakeVector<T>({4, 5});
    ASSERT_TRUE(ReadInto(bytes, read));
    EXPECT_EQ(read.Size(), source.Size());
    EXPECT_EQ(read.GetNumMisVal(), source.GetNumMisVal());
    EXPECT_EQ(read.Capacity(), source.Size());  // an exact buffer, none for an empty vector
    for (int i = 1; i <= read.Size(); ++i)
      EXPECT_TRUE(read[i] == source[i] || (std::isnan(read[i]) && std::isnan(source[i])));
    if (values.empty()) {
      EXPECT_TRUE(Cleared(read));
    }
  }
  // Float and double write the same record: "NCDV", version 4.
  EXPECT_EQ(Bytes(MakeVector<T>({1})).substr(0, 12), std::string("\4\0\0\0NCDV\4\0\0\0", 12));
}

TYPED_TEST(ContainerStream, VectorRefusesOtherVersionsAndCountsThatDisagree) {
  using T = TypeParam;
  const std::string valid = Bytes(MakeVector<T>({2, -99, 4}));
  struct Case {
    const char* name;
    std::size_t at;  // version at 8; the missing count of entry 1 at 12 + 4 + 16 + 12 = 44
    char value;
  };
  for (const Case& c : {Case{"version 3", 8, 3}, Case{"version 5", 8, 5},
                        Case{"two missing", 44, 2}, Case{"none missing", 44, 0}}) {
    SCOPED_TRACE(c.name);
    std::string bytes = valid;
    bytes[c.at] = c.value;
    NCDataVector<T> read = MakeVector<T>({1});
    EXPECT_FALSE(ReadInto(bytes, read));
    EXPECT_TRUE(Cleared(read));
  }
  ExpectDamageHandled<NCDataVector<T>>(MakeVector<T>({3, 3}), valid, [](const NCDataVector<T>& v) {
    int missing = 0;
    for (int i = 1; i <= v.Size(); ++i) missing += v[i] == T(-99);
    return missing == v.GetNumMisVal();
  });
}

TYPED_TEST(ContainerStream, MatrixRoundTripsWithAndWithoutRows) {
  using T = TypeParam;
  const NCDataMatrix<T> with_rows = MakeMatrix<T>({{1, -99, 3}, {-99, -99, 6}}, 3);
  const NCDataMatrix<T> no_rows(0, 4, T(0));
  for (const NCDataMatrix<T>* m : {&with_rows, &no_rows}) {
    SCOPED_TRACE(m->SizeRows());
    const std::string bytes = Bytes(*m);
    const Ids ids = m->SizeRows() > 0 ? Ids{0, 1, 2, 3, 4} : Ids{0, 1, 2, 4};
    EXPECT_EQ(EntryIds(bytes, 12), ids);
    NCDataMatrix<T> read(2, 2, T(1));
    ASSERT_TRUE(ReadInto(bytes, read));
    EXPECT_TRUE(read == *m);
    EXPECT_EQ(read.SizeColumns(), m->SizeColumns());
    EXPECT_EQ(read.GetNumMisVal(), m->GetNumMisVal());
    EXPECT_TRUE(CountsExact(read));
  }
  // 12 + 4 + 3 * 16 (record, count, entries 0-2), entry 4: a 12-byte header and the counts
  // object of 12 + 4 + 12 + 4 + 4 * 4 bytes.
  EXPECT_EQ(Bytes(no_rows).size(), 64u + 12u + 48u);
}

TYPED_TEST(ContainerStream, MatrixCopiesSharingRowsBothWriteTheirRows) {
  using T = TypeParam;
  const NCDataMatrix<T> a = MakeMatrix<T>({{1, 2}, {-99, 4}}, 2);
  const NCDataMatrix<T> b = a;  // shares a's rows and column counts
  std::ostringstream os;
  os << a << b;  // one pass: two objects, each written in full
  a.UStreamableReset();
  b.UStreamableReset();
  std::istringstream is(os.str());
  NCDataMatrix<T> ra, rb;
  EXPECT_TRUE(static_cast<bool>(is >> ra >> rb));
  EXPECT_TRUE(ra == a && rb == a);
  EXPECT_TRUE(CountsExact(rb));
}

// A matrix stream put together entry by entry, to state what the writer never would.
template <class T>
std::string MatrixStream(int r, int c, int missing, const Rows& rows,
                         const std::vector<int>& counts) {
  std::ostringstream os;
  NCDataMatrix<T>::MyStreamableData.Write(os);
  OutputStreamDirectory dir(os, 5);
  WriteFourBytes(std::int32_t(r), dir.GetOutput(0));
  WriteFourBytes(std::int32_t(c), dir.GetOutput(1));
  WriteFourBytes(std::int32_t(missing), dir.GetOutput(2));
  for (const auto& row : rows) dir.GetOutput(3) << MakeVector<T>(row);
  dir.GetOutput(4) << NCIntegralVector<int, -99>(counts.data(), static_cast<int>(counts.size()));
  EXPECT_TRUE(dir.Close());
  return os.str();
}

TYPED_TEST(ContainerStream, MatrixRefusesAStreamThatDisagreesWithItself) {
  using T = TypeParam;
  struct Case {
    const char* name;
    int r, c, missing;
    Rows rows;
    std::vector<int> counts;
    bool accepted;
  };
  const Case cases[] = {
      {"consistent", 2, 2, 1, {{1, -99}, {3, 4}}, {0, 1}, true},
      {"row longer than the columns", 1, 2, 0, {{1, 2, 3}}, {0, 0}, false},
      {"fewer rows than stated", 2, 2, 0, {{1, 2}}, {0, 0}, false},
      {"total disagrees", 2, 2, 0, {{1, -99}, {3, 4}}, {0, 1}, false},
      {"column counts disagree", 2, 2, 1, {{1, -99}, {3, 4}}, {1, 0}, false},
      {"column counts too short", 2, 2, 1, {{1, -99}, {3, 4}}, {1}, false},
      {"huge row count", INT_MAX, 1, 0, {{1}}, {0}, false},
      {"no rows but columns", 0, 3, 0, {}, {0, 0, 0}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    NCDataMatrix<T> read(1, 1, T(5));
    const std::string bytes = MatrixStream<T>(c.r, c.c, c.missing, c.rows, c.counts);
    EXPECT_EQ(ReadInto(bytes, read), c.accepted);
    EXPECT_TRUE(c.accepted ? read.SizeRows() == c.r && CountsExact(read) : Cleared(read));
  }
}

TYPED_TEST(ContainerStream, MatrixDamageIsRefusedOrThrownAndClears) {
  using T = TypeParam;
  const NCDataMatrix<T> m = MakeMatrix<T>({{1, -99}, {3, 4}, {-99, 6}}, 2);
  const std::string valid = Bytes(m);
  ExpectDamageHandled<NCDataMatrix<T>>(m, valid, CountsExact<T>);

  // A row object with a foreign record: false, or TwStreamError when asked for, after the
  // matrix record that ReadStreamDirectory does not read.
  std::string bytes = valid.substr(12);
  bytes[bytes.find("NCDV") + 3] = 'X';
  for (const bool throw_error : {false, true}) {
    NCDataMatrix<T> read(1, 1, T(5));
    std::istringstream is(bytes);
    if (throw_error)
      EXPECT_THROW(read.ReadStreamDirectory(is, true), TwStreamError);
    else
      EXPECT_FALSE(read.ReadStreamDirectory(is));
    EXPECT_TRUE(Cleared(read));
  }
}

template <class V>
class IntegralStream : public ::testing::Test {};
using Integrals = ::testing::Types<NCIntegralVector<int, -99>, NCIntegralVector<unsigned long, 0>,
                                   NCIntegralVector<bool, false>, BoolVector>;
TYPED_TEST_SUITE(IntegralStream, Integrals);

TYPED_TEST(IntegralStream, RoundTripsWithFourByteIntegersAndOneByteFlags) {
  using V = TypeParam;
  using T = typename V::value_type;
  const std::vector<long long> literals =
      std::is_same_v<T, int>    ? std::vector<long long>{-99, INT_MIN, 0, INT_MAX}
      : std::is_same_v<T, bool> ? std::vector<long long>{1, 0, 1}
                                : std::vector<long long>{0, 1, 4294967295};
  V source;
  for (long long x : literals) source.push_back(static_cast<T>(x));
  const std::string bytes = Bytes(source);
  // An NCIV object: record 12, count 4, entry header 12, element count 4, then the elements;
  // a BoolVector adds its own record (4 + 10 + 4) before and an empty directory (4) after.
  const std::size_t width = std::is_same_v<T, bool> ? 1 : 4;
  const std::size_t own = std::is_same_v<V, BoolVector> ? 18 + 4 : 0;
  EXPECT_EQ(bytes.size(), own + 32 + width * literals.size());
  V read(2, T(1));
  ASSERT_TRUE(ReadInto(bytes, read));
  EXPECT_TRUE(read == source);
  V empty;
  ASSERT_TRUE(ReadInto(Bytes(V()), read));
  EXPECT_TRUE(read == empty);

  ExpectDamageHandled<V>(V(3, T(1)), bytes, [](const V&) { return true; });
  std::string other = bytes;
  // The last element's last byte: not a flag for bool, still a number for the others.
  other[other.size() - (own > 0 ? 4 : 0) - 1] = 2;
  const bool number = !std::is_same_v<T, bool>;
  EXPECT_EQ(ReadInto(other, read), number);
}

TEST(IntegralStreamLimits, UnsignedLongAboveFourBytesIsRefusedBeforeWriting) {
  NCIntegralVector<unsigned long, 0> v(2, 1);
  if (sizeof(unsigned long) == 4) GTEST_SKIP() << "every unsigned long fits";
  v(2) = std::numeric_limits<unsigned long>::max();
  std::ostringstream os;
  EXPECT_THROW(StreamOut(v, os), NCError);
  EXPECT_TRUE(os.str().empty());
}

TEST(IntegralStreamLimits, BoolVectorRefusesOtherVersions) {
  std::string bytes = Bytes(BoolVector(2, true));
  bytes[14] = 2;  // the version after the length and "BoolVector"
  BoolVector read(1, true);
  EXPECT_FALSE(ReadInto(bytes, read));
  EXPECT_TRUE(Cleared(read));
}

}  // namespace
