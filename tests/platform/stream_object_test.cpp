#include <mvda/platform/error.h>
#include <mvda/platform/stream.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/one_way_buf.h"
#include "support/stream_bytes.h"

namespace {

// Streams itself the way NCDataVector does: record "NCDV" version 4, then a directory with the
// size (entry 0), the missing count (entry 1) and, for a non-empty vector, the elements (entry 2).
template <class T>
class SampleVector : public virtual UStreamBase {
 public:
  static UStreamableData MyStreamableData;
  SampleVector() = default;
  explicit SampleVector(std::vector<T> v) : values(std::move(v)), missing(CountMissing(values)) {}

  bool UStreamableStartWrite(std::ostream& os) const override {
    if (!MarkUStreamWritten(MyStreamableData)) return true;
    return MyStreamableData.Write(os) && SampleVector::UStreamableWriteBases(os) &&
           SampleVector::UStreamableWrite(os);
  }
  bool UStreamableWrite(std::ostream& os) const override {
    OutputStreamDirectory dir(os, 3);
    WriteFourBytes(static_cast<std::int32_t>(values.size()), dir.GetOutput(0));
    WriteFourBytes(static_cast<std::int32_t>(missing), dir.GetOutput(1));
    if (!values.empty()) WriteArray(values.data(), values.size(), sizeof(T), dir.GetOutput(2));
    return dir.Close();
  }
  bool UStreamableStartRead(std::istream& is) override {
    if (!MarkUStreamRead(MyStreamableData)) return true;
    std::int32_t version = 0;
    const bool ok = MyStreamableData.Check(is, &version) &&
                    SampleVector::UStreamableReadBases(is) && version == 4 &&
                    SampleVector::UStreamableRead(is);
    if (!ok) values.clear(), missing = 0;
    return ok;
  }
  bool UStreamableRead(std::istream& is) override {
    InputStreamDirectory dir(is);
    std::int32_t n = 0, m = 0;
    std::istream* in = dir.GetInput(0);
    if (!in || !ReadFourBytes(n, *in) || n < 0) return false;
    if (!(in = dir.GetInput(1)) || !ReadFourBytes(m, *in) || m < 0 || m > n) return false;
    std::vector<T> read;
    if (n > 0) {
      in = dir.GetInput(2);
      if (!in || !StreamHolds(*in, static_cast<std::uint64_t>(n), sizeof(T))) return false;
      read.resize(static_cast<std::size_t>(n));
      if (!ReadArray(read.data(), read.size(), sizeof(T), *in) || CountMissing(read) != m)
        return false;
    }
    if (!dir.Close()) return false;
    values.swap(read);
    missing = m;
    return true;
  }

  static int CountMissing(const std::vector<T>& v) {
    return static_cast<int>(std::count(v.begin(), v.end(), T(-99)));
  }
  std::vector<T> values;
  int missing = 0;
};
template <class T>
UStreamableData SampleVector<T>::MyStreamableData("NCDV", 4);

// Like BoolVector: the streamable base writes the values; its own directory has no entries.
class SampleFlags : public SampleVector<float> {
 public:
  static UStreamableData MyStreamableData;
  using SampleVector<float>::SampleVector;
  bool UStreamableStartWrite(std::ostream& os) const override {
    if (!MarkUStreamWritten(MyStreamableData)) return true;
    return MyStreamableData.Write(os) && SampleFlags::UStreamableWriteBases(os) &&
           SampleFlags::UStreamableWrite(os);
  }
  bool UStreamableWriteBases(std::ostream& os) const override {
    return SampleVector<float>::UStreamableStartWrite(os);
  }
  bool UStreamableWrite(std::ostream& os) const override {
    return OutputStreamDirectory(os, 0).Close();
  }
  bool UStreamableStartRead(std::istream& is) override {
    if (!MarkUStreamRead(MyStreamableData)) return true;
    std::int32_t version = 0;
    return MyStreamableData.Check(is, &version) && SampleFlags::UStreamableReadBases(is) &&
           version == 3 && SampleFlags::UStreamableRead(is);
  }
  bool UStreamableReadBases(std::istream& is) override {
    return SampleVector<float>::UStreamableStartRead(is);
  }
  bool UStreamableRead(std::istream& is) override { return InputStreamDirectory(is).Close(); }
};
UStreamableData SampleFlags::MyStreamableData("SampleFlags", 3);

// Holds two vectors that may be one object; embedded objects go through operator<< and
// ReadNestedObject, as a matrix writes its rows.
class SamplePair : public virtual UStreamBase {
 public:
  static UStreamableData MyStreamableData;
  SamplePair(SampleVector<float>* a, SampleVector<float>* b) : first(a), second(b) {}
  bool UStreamableStartWrite(std::ostream& os) const override {
    if (!MarkUStreamWritten(MyStreamableData)) return true;
    if (!MyStreamableData.Write(os)) return false;
    OutputStreamDirectory dir(os, 2);
    dir.GetOutput(0) << *first;
    dir.GetOutput(1) << *second;
    return dir.Close();
  }
  bool UStreamableStartRead(std::istream& is) override {
    if (!MarkUStreamRead(MyStreamableData)) return true;
    if (!MyStreamableData.Check(is)) return false;
    InputStreamDirectory dir(is);
    std::istream* in = dir.GetInput(0);
    if (!in || !ReadNestedObject(*in, *first, true)) return false;
    in = dir.GetInput(1);
    return in && ReadNestedObject(*in, *second, true) && dir.Close();
  }
  void UStreamableReset() const override {
    UStreamBase::UStreamableReset();
    first->UStreamableReset();
    second->UStreamableReset();
  }
  SampleVector<float>* first;
  SampleVector<float>* second;
};
UStreamableData SamplePair::MyStreamableData("SamplePair", 1);

template <class T>
std::string ElementBytes(const std::vector<T>& v) {
  return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T));
}

// Reads `bytes` through a seekable stream and through a one-way stream; both must agree.
template <class T>
bool ReadBoth(const std::string& bytes, SampleVector<T>& result) {
  SampleVector<T> one_way({T(7)});
  std::istringstream seekable(bytes);
  OneWayBuf pipe(bytes);
  std::istream piped(&pipe);
  const bool ok = StreamIn(result, seekable);
  EXPECT_EQ(StreamIn(one_way, piped), ok);
  EXPECT_EQ(ElementBytes(one_way.values), ElementBytes(result.values));  // NaN-proof
  EXPECT_EQ(result.missing, SampleVector<T>::CountMissing(result.values));
  return ok;
}

using Precisions = ::testing::Types<float, double>;
template <class T>
class StreamObject : public ::testing::Test {};
TYPED_TEST_SUITE(StreamObject, Precisions);

TYPED_TEST(StreamObject, RoundTripsAndEmptyVectorLeavesOutTheElements) {
  for (const std::vector<TypeParam>& values :
       {std::vector<TypeParam>{1.5, -99, 3, -99, 1e-30}, std::vector<TypeParam>{}}) {
    SCOPED_TRACE(values.size());
    const SampleVector<TypeParam> source(values);
    const std::string bytes = Bytes(source);
    // 12 bytes of record, a 4-byte entry count, 12-byte entry headers, 4 + 4 + n * width.
    const std::size_t entries = values.empty() ? 2 : 3;
    EXPECT_EQ(bytes.size(), 12 + 4 + 12 * entries + 8 + values.size() * sizeof(TypeParam));
    SampleVector<TypeParam> read({TypeParam(5)});
    EXPECT_TRUE(ReadBoth(bytes, read));
    EXPECT_EQ(read.values, values);
    EXPECT_EQ(read.missing, source.missing);
  }
}

TYPED_TEST(StreamObject, EveryTruncationFailsAndClears) {
  const std::string bytes = Bytes(SampleVector<TypeParam>({2, -99, 4}));
  for (std::size_t k = 0; k < bytes.size(); ++k) {
    SCOPED_TRACE(k);
    SampleVector<TypeParam> read({TypeParam(9)});
    EXPECT_FALSE(ReadBoth(bytes.substr(0, k), read));
    EXPECT_TRUE(read.values.empty());
  }
}

TYPED_TEST(StreamObject, FlippedBytesNeverBreakTheReader) {
  const std::string valid = Bytes(SampleVector<TypeParam>({2, -99, 4, 8}));
  std::mt19937 random(20240601);
  int accepted = 0;
  for (int trial = 0; trial < 3000; ++trial) {
    std::string bytes = valid;
    for (int flips = 1 + trial % 3; flips > 0; --flips)
      bytes[random() % bytes.size()] = static_cast<char>(random() & 0xff);
    SampleVector<TypeParam> read;
    accepted += ReadBoth(bytes, read);
  }
  // Flips inside the element bytes still give valid vectors; flips in any size field must not.
  EXPECT_GT(accepted, 0);
  EXPECT_LT(accepted, 3000);
}

TYPED_TEST(StreamObject, RefusesOtherVersionsAndRecords) {
  const std::string valid = Bytes(SampleVector<TypeParam>({1}));
  for (const char version : {3, 5}) {
    std::string bytes = valid;
    bytes[8] = version;  // the version follows the 4-byte length and "NCDV"
    SampleVector<TypeParam> read({TypeParam(1)});
    EXPECT_FALSE(ReadBoth(bytes, read));
  }
  std::string other = valid;
  other[7] = 'M';  // "NCDM"
  SampleVector<TypeParam> read;
  EXPECT_FALSE(ReadBoth(other, read));
}

TEST(StreamObjectBytes, VectorMatchesTheDocumentedLayout) {
  // 1.5f is 0x3FC00000 and -99.0f is 0xC2C60000 (1.546875 * 2^6), least significant byte first.
  const unsigned char expected[] = {
      4, 0, 0,    0,    'N', 'C', 'D',  'V', 4, 0, 0, 0,  // record: magic length, magic, version
      3, 0, 0,    0,                                      // entries present
      0, 0, 0,    0,    4,   0,   0,    0,   0, 0, 0, 0, 2, 0, 0, 0,  // entry 0: size 2
      1, 0, 0,    0,    4,   0,   0,    0,   0, 0, 0, 0, 1, 0, 0, 0,  // entry 1: one missing
      2, 0, 0,    0,    8,   0,   0,    0,   0, 0, 0, 0,  // entry 2: 8 bytes of elements
      0, 0, 0xC0, 0x3F, 0,   0,   0xC6, 0xC2};
  EXPECT_EQ(Bytes(SampleVector<float>({1.5f, -99.0f})),
            std::string(reinterpret_cast<const char*>(expected), sizeof expected));
}

TEST(StreamObjectPass, ObjectReachedTwiceIsWrittenOnce) {
  SampleVector<float> shared({1, 2, -99});
  const SamplePair pair(&shared, &shared);
  const std::string bytes = Bytes(pair);
  std::size_t records = 0;
  for (std::size_t at = bytes.find("NCDV"); at != std::string::npos;
       at = bytes.find("NCDV", at + 1))
    ++records;
  EXPECT_EQ(records, 1u);
  SampleVector<float> target;
  SamplePair read(&target, &target);
  std::istringstream is(bytes);
  EXPECT_TRUE(StreamIn(read, is));
  EXPECT_EQ(target.values, shared.values);
  // The pass flags are clear again, so a second pass writes the same bytes.
  EXPECT_FALSE(shared.IsUStreamWritten());
  EXPECT_EQ(Bytes(pair), bytes);
}

TEST(StreamObjectPass, ResetStartsANewPass) {
  const SampleVector<float> v({1, 2});
  std::ostringstream os;
  os << v;
  const std::string once = os.str();
  os << v;  // same pass: nothing
  EXPECT_EQ(os.str(), once);
  v.UStreamableReset();
  os << v;
  EXPECT_EQ(os.str(), once + once);
}

TEST(StreamObjectPass, StreamableBaseWritesItsPartOnce) {
  const SampleFlags flags({1, 0, 1});
  const std::string bytes = Bytes(flags);
  // "SampleFlags" record (4 + 11 + 4), the vector as above (12 + 4 + 3 * 12 + 8 + 12), then an
  // empty directory (4).
  EXPECT_EQ(bytes.size(), 19u + 72u + 4u);
  SampleFlags read;
  std::istringstream is(bytes);
  EXPECT_TRUE(StreamIn(read, is));
  EXPECT_EQ(read.values, flags.values);
}

TEST(StreamObjectPass, NestedReadFailureThrowsWhenAsked) {
  std::istringstream is("not a vector");
  SampleVector<float> v;
  EXPECT_FALSE(ReadNestedObject(is, v, false));
  is.clear();
  v.UStreamableReset();
  try {
    ReadNestedObject(is, v, true);
    ADD_FAILURE() << "no exception";
  } catch (const TwStreamError& e) {
    EXPECT_STREQ(e.what(), "Error when reading from stream");
  }
}

TEST(StreamObjectRecord, ChecksMagicAndKeepsTheVersionRead) {
  UStreamableData record("NCDM", 4);
  EXPECT_THROW(UStreamableData("", 1), NCError);
  EXPECT_THROW(UStreamableData(std::string(65, 'x'), 1), NCError);
  std::ostringstream os;
  UStreamableData("NCDM", 7).Write(os);
  std::istringstream is(os.str());
  std::int32_t version = 0;
  EXPECT_TRUE(record.Check(is, &version));
  EXPECT_EQ(version, 7);
  EXPECT_EQ(record.GetUStreamVersionNumber(), 7);
  EXPECT_EQ(record.GetMyUStreamVersionNumber(), 4);
  std::istringstream longer(std::string("\x05\0\0\0NCDMX\x04\0\0\0", 13));
  EXPECT_FALSE(record.Check(longer));
  EXPECT_TRUE(longer.fail());
}

}  // namespace
