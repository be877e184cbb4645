// Streaming of NCIntegralVector<T, Missing> and BoolVector. The bytes are laid out in
// docs/stream-format.md.
#include <mvda/containers/integral_vector.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream.h>
#include <mvda/platform/stream_directory.h>

#include <algorithm>
#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <type_traits>

namespace {

static_assert(sizeof(int) == 4 && sizeof(bool) == 1,
              "stream widths assume 4-byte int, 1-byte bool");

// Bytes per element in a stream. unsigned long is 8 bytes on 64-bit Linux and 4 on Windows; a
// project file must read on both, so it always takes 4.
template <class T>
constexpr std::size_t kStreamWidth = std::is_same_v<T, bool> ? 1 : 4;

// Elements that change width on the way go through a buffer of this many, so that a long vector
// costs no second copy of itself.
constexpr int kChunk = 4096;

template <class T>
bool WriteElements(const T* p, int n, std::ostream& os) {
  if constexpr (sizeof(T) == kStreamWidth<T>) {
    // int, bool (held as 0 or 1) and a 4-byte unsigned long go out as they are held.
    return WriteArray(p, static_cast<std::size_t>(n), sizeof(T), os);
  } else {
    std::uint32_t narrow[kChunk];
    for (int done = 0; done < n && os;) {
      const int k = std::min(kChunk, n - done);
      for (int i = 0; i < k; ++i) narrow[i] = static_cast<std::uint32_t>(p[done + i]);
      WriteArray(narrow, static_cast<std::size_t>(k), 4, os);
      done += k;
    }
    return static_cast<bool>(os);
  }
}

template <class T>
bool ReadElements(T* p, int n, std::istream& is) {
  if constexpr (std::is_same_v<T, bool>) {
    // A byte other than 0 or 1 is damage, and storing it in a bool would be undefined.
    unsigned char bytes[kChunk];
    for (int done = 0; done < n;) {
      const int k = std::min(kChunk, n - done);
      if (!ReadArray(bytes, static_cast<std::size_t>(k), 1, is)) return false;
      for (int i = 0; i < k; ++i) {
        if (bytes[i] > 1) {
          is.setstate(std::ios::failbit);
          return false;
        }
        p[done + i] = bytes[i] == 1;
      }
      done += k;
    }
    return true;
  } else if constexpr (sizeof(T) == kStreamWidth<T>) {
    return ReadArray(p, static_cast<std::size_t>(n), sizeof(T), is);
  } else {
    std::uint32_t narrow[kChunk];
    for (int done = 0; done < n;) {
      const int k = std::min(kChunk, n - done);
      if (!ReadArray(narrow, static_cast<std::size_t>(k), 4, is)) return false;
      std::copy(narrow, narrow + k, p + done);
      done += k;
    }
    return true;
  }
}

}  // namespace

template <class T, T Missing>
UStreamableData NCIntegralVector<T, Missing>::MyStreamableData("NCIV", 4);

template <class T, T Missing>
void NCIntegralVector<T, Missing>::CheckStreamable(const char* where) const {
  if constexpr (sizeof(T) > kStreamWidth<T>) {
    for (int i = 1; i <= size_; ++i) {
      if (data_[i] > 0xffffffffu)
        throw NCError(std::string("NCIntegralVector<unsigned long,0>::") + where + ": element " +
                      std::to_string(i) + " is " + std::to_string(data_[i]) +
                      ", above 4294967295, the largest value a stream holds");
    }
  }
}

template <class T, T Missing>
bool NCIntegralVector<T, Missing>::UStreamableStartWrite(std::ostream& os) const {
  CheckStreamable("UStreamableStartWrite");  // before the record, so a refusal writes nothing
  if (!MarkUStreamWritten(MyStreamableData)) return true;
  return MyStreamableData.Write(os) && NCIntegralVector::UStreamableWriteBases(os) &&
         NCIntegralVector::UStreamableWrite(os);
}

template <class T, T Missing>
bool NCIntegralVector<T, Missing>::UStreamableWrite(std::ostream& os) const {
  CheckStreamable("UStreamableWrite");
  OutputStreamDirectory dir(os, 1);
  std::ostream& out = dir.GetOutput(0);
  WriteFourBytes(static_cast<std::int32_t>(size_), out);
  WriteElements(begin(), size_, out);
  return dir.Close();
}

template <class T, T Missing>
bool NCIntegralVector<T, Missing>::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;
  std::int32_t version = 0;
  const bool ok = MyStreamableData.Check(is, &version) &&
                  NCIntegralVector::UStreamableReadBases(is) &&
                  version == MyStreamableData.GetMyUStreamVersionNumber() &&
                  NCIntegralVector::UStreamableRead(is);
  if (!ok) Clear();
  return ok;
}

template <class T, T Missing>
bool NCIntegralVector<T, Missing>::UStreamableRead(std::istream& is) {
  return ReadVector(is);
}

template <class T, T Missing>
bool NCIntegralVector<T, Missing>::ReadVector(std::istream& is) {
  Clear();
  InputStreamDirectory dir(is);
  std::istream* in = dir.GetInput(0);
  std::int32_t n = 0;
  // The count is held against the bytes of the entry before anything is allocated.
  bool ok = in && ReadFourBytes(n, *in) && n >= 0 &&
            StreamHolds(*in, static_cast<std::uint64_t>(n), kStreamWidth<T>);
  if (ok && n > 0) {
    *this = NCIntegralVector(n, Missing);
    ok = ReadElements(data_.get() + 1, n, *in);
  }
  ok = ok && dir.Close();
  if (!ok) Clear();
  return ok;
}

#define MVDA_INSTANTIATE_INTEGRAL_STREAM(T, M)                                      \
  template UStreamableData NCIntegralVector<T, M>::MyStreamableData;                \
  template void NCIntegralVector<T, M>::CheckStreamable(const char*) const;         \
  template bool NCIntegralVector<T, M>::UStreamableStartWrite(std::ostream&) const; \
  template bool NCIntegralVector<T, M>::UStreamableWrite(std::ostream&) const;      \
  template bool NCIntegralVector<T, M>::UStreamableStartRead(std::istream&);        \
  template bool NCIntegralVector<T, M>::UStreamableRead(std::istream&);             \
  template bool NCIntegralVector<T, M>::ReadVector(std::istream&);

MVDA_INSTANTIATE_INTEGRAL_STREAM(int, -99)
MVDA_INSTANTIATE_INTEGRAL_STREAM(unsigned long, 0)
MVDA_INSTANTIATE_INTEGRAL_STREAM(bool, false)
#undef MVDA_INSTANTIATE_INTEGRAL_STREAM

// --- BoolVector: the flags are the NCIntegralVector<bool,0> part, written before BoolVector's
// own (empty) directory. The pass flags are keyed by record, so the base part is not taken for
// a second visit of the same object.

UStreamableData BoolVector::MyStreamableData("BoolVector", 3);

bool BoolVector::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;
  return MyStreamableData.Write(os) && BoolVector::UStreamableWriteBases(os) &&
         BoolVector::UStreamableWrite(os);
}

bool BoolVector::UStreamableWriteBases(std::ostream& os) const {
  return NCIntegralVector<bool, false>::UStreamableStartWrite(os);
}

bool BoolVector::UStreamableWrite(std::ostream& os) const {
  OutputStreamDirectory dir(os, 0);
  return dir.Close();
}

bool BoolVector::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;
  std::int32_t version = 0;
  const bool ok = MyStreamableData.Check(is, &version) && BoolVector::UStreamableReadBases(is) &&
                  version == MyStreamableData.GetMyUStreamVersionNumber() &&
                  BoolVector::UStreamableRead(is);
  if (!ok) Clear();
  return ok;
}

bool BoolVector::UStreamableReadBases(std::istream& is) {
  return NCIntegralVector<bool, false>::UStreamableStartRead(is);
}

bool BoolVector::UStreamableRead(std::istream& is) {
  InputStreamDirectory dir(is);
  return dir.Close();
}
