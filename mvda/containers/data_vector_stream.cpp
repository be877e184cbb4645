// Streaming of NCDataVector<T>. The bytes are laid out in docs/stream-format.md.
#include <mvda/containers/data_vector.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/stream.h>
#include <mvda/platform/stream_directory.h>

#include <cstdint>
#include <istream>
#include <ostream>

namespace {

// Missing elements in p[0..n-1]; branch-free, so it vectorises.
template <class T>
int CountMissing(const T* p, int n) {
  int count = 0;
  for (int i = 0; i < n; ++i) count += p[i] == T(-99);
  return count;
}

}  // namespace

// Float and double write the same record: a stream does not say which precision it holds.
template <class T>
UStreamableData NCDataVector<T>::MyStreamableData("NCDV", 4);

template <class T>
bool NCDataVector<T>::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;  // already written in this pass
  return MyStreamableData.Write(os) && NCDataVector::UStreamableWriteBases(os) &&
         NCDataVector::UStreamableWrite(os);
}

template <class T>
bool NCDataVector<T>::UStreamableWrite(std::ostream& os) const {
  OutputStreamDirectory dir(os, 3);
  WriteFourBytes(static_cast<std::int32_t>(size_), dir.GetOutput(0));
  WriteFourBytes(static_cast<std::int32_t>(missing_), dir.GetOutput(1));
  if (size_ > 0) WriteArray(begin(), static_cast<std::size_t>(size_), sizeof(T), dir.GetOutput(2));
  return dir.Close();
}

template <class T>
bool NCDataVector<T>::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;  // already read in this pass
  std::int32_t version = 0;
  const bool ok = MyStreamableData.Check(is, &version) && NCDataVector::UStreamableReadBases(is) &&
                  version == MyStreamableData.GetMyUStreamVersionNumber() &&
                  NCDataVector::UStreamableRead(is);
  if (!ok) Clear();
  return ok;
}

// The vector is emptied first and filled only from what the stream proves: the size is held
// against the bytes of entry 2 before the buffer is allocated, and the missing count must match
// the elements, since every statistic trusts it to pick its loop.
template <class T>
bool NCDataVector<T>::UStreamableRead(std::istream& is) {
  Clear();
  InputStreamDirectory dir(is);
  std::int32_t n = 0, missing = 0;
  std::istream* in = dir.GetInput(0);
  bool ok = in && ReadFourBytes(n, *in) && n >= 0;
  ok = ok && (in = dir.GetInput(1)) && ReadFourBytes(missing, *in) && missing >= 0 && missing <= n;
  if (ok && n > 0) {
    ok = (in = dir.GetInput(2)) && StreamHolds(*in, static_cast<std::uint64_t>(n), sizeof(T));
    if (ok) {
      Replace(n, nullptr, 0);  // exactly n elements, aligned
      size_ = n;
      ok = ReadArray(data_ + 1, static_cast<std::size_t>(n), sizeof(T), *in) &&
           CountMissing(data_ + 1, n) == missing;
    }
  }
  ok = ok && dir.Close();
  if (ok) {
    missing_ = missing;
  } else {
    Clear();
  }
  return ok;
}

#define MVDA_INSTANTIATE_VECTOR_STREAM(T)                                    \
  template UStreamableData NCDataVector<T>::MyStreamableData;                \
  template bool NCDataVector<T>::UStreamableStartWrite(std::ostream&) const; \
  template bool NCDataVector<T>::UStreamableWrite(std::ostream&) const;      \
  template bool NCDataVector<T>::UStreamableStartRead(std::istream&);        \
  template bool NCDataVector<T>::UStreamableRead(std::istream&);

MVDA_INSTANTIATE_VECTOR_STREAM(float)
MVDA_INSTANTIATE_VECTOR_STREAM(double)
#undef MVDA_INSTANTIATE_VECTOR_STREAM
