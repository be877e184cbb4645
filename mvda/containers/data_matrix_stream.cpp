// Streaming of NCDataMatrix<T>. The bytes are laid out in docs/stream-format.md.
#include <mvda/containers/data_matrix.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/stream.h>
#include <mvda/platform/stream_directory.h>

#include <climits>
#include <cstdint>
#include <istream>
#include <ostream>
#include <vector>

namespace {

// The fewest bytes an NCDataVector object takes: its record (4 + 4 + 4), the entry count (4)
// and entries 0 and 1 (12-byte header and 4 bytes each). A row with elements adds the header of
// entry 2 and the elements.
constexpr std::uint64_t kEmptyVectorBytes = 12 + 4 + 2 * (12 + 4);
constexpr std::uint64_t kEntryHeaderBytes = 12;

}  // namespace

template <class T>
UStreamableData NCDataMatrix<T>::MyStreamableData("NCDM", 4);

template <class T>
bool NCDataMatrix<T>::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;  // already written in this pass
  return MyStreamableData.Write(os) && NCDataMatrix::UStreamableWriteBases(os) &&
         NCDataMatrix::UStreamableWrite(os);
}

template <class T>
bool NCDataMatrix<T>::UStreamableWrite(std::ostream& os) const {
  OutputStreamDirectory dir(os, 5);
  WriteFourBytes(static_cast<std::int32_t>(rows_), dir.GetOutput(0));
  WriteFourBytes(static_cast<std::int32_t>(columns_), dir.GetOutput(1));
  WriteFourBytes(static_cast<std::int32_t>(missing_), dir.GetOutput(2));
  if (rows_ > 0) {
    std::ostream& out = dir.GetOutput(3);
    for (int i = 1; i <= rows_; ++i)
      if (!WriteWhole(row_array_[i], out)) break;
  }
  WriteWhole(*column_missing_, dir.GetOutput(4));
  return dir.Close();
}

template <class T>
bool NCDataMatrix<T>::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;  // already read in this pass
  std::int32_t version = 0;
  const bool ok = MyStreamableData.Check(is, &version) && NCDataMatrix::UStreamableReadBases(is) &&
                  version == MyStreamableData.GetMyUStreamVersionNumber() &&
                  NCDataMatrix::UStreamableRead(is);
  if (!ok) Clear();
  return ok;
}

template <class T>
bool NCDataMatrix<T>::UStreamableRead(std::istream& is) {
  return ReadStreamDirectory(is, false);
}

template <class T>
void NCDataMatrix<T>::UStreamableReset() const {
  UStreamBase::UStreamableReset();
  for (int i = 1; i <= rows_; ++i) row_array_[i].UStreamableReset();
  column_missing_->UStreamableReset();
}

// Builds the matrix aside and takes it only when the whole directory has been read and agrees
// with itself: every row has c elements, and the column counts and the total equal the -99
// elements counted here. Products and statistics pick their loops by these counts, so a stream
// that states them wrongly is refused rather than repaired.
template <class T>
bool NCDataMatrix<T>::ReadStreamDirectory(std::istream& is, bool throwOnError) {
  Clear();  // what a failure or a TwStreamError leaves behind
  NCDataMatrix read;
  InputStreamDirectory dir(is);
  std::int32_t r = 0, c = 0, missing = 0;
  std::istream* in = dir.GetInput(0);
  if (!in || !ReadFourBytes(r, *in) || r < 0) return false;
  if (!(in = dir.GetInput(1)) || !ReadFourBytes(c, *in) || c < 0) return false;
  if (!(in = dir.GetInput(2)) || !ReadFourBytes(missing, *in) || missing < 0) return false;
  const long long elements = static_cast<long long>(r) * c;
  if (elements > INT_MAX || missing > elements) return false;

  if (r > 0) {
    // Every row takes at least kEmptyVectorBytes of the entry, plus its elements, so the row
    // array is allocated only for rows that the entry can hold; a row object in memory is about
    // as large as the smallest row in the stream (64 against 48 bytes on a 64-bit build).
    in = dir.GetInput(3);
    const std::uint64_t row_bytes =
        kEmptyVectorBytes + (c > 0 ? kEntryHeaderBytes + std::uint64_t(c) * sizeof(T) : 0);
    const long long left = in ? StreamBytesLeft(*in) : -1;
    if (left < 0 || static_cast<std::uint64_t>(r) > static_cast<std::uint64_t>(left) / row_bytes)
      return false;
    read.GrowRowArray(r);
    for (int i = 1; i <= r; ++i) {
      if (!ReadNestedObject(*in, read.row_array_[i], throwOnError) ||
          read.row_array_[i].Size() != c)
        return false;
    }
  }

  if (!(in = dir.GetInput(4))) return false;
  IndexVector& counts = *read.column_missing_;
  if (!ReadNestedObject(*in, counts, throwOnError) || counts.Size() != c) return false;
  if (!dir.Close()) return false;

  // Each row has already checked its own count against its elements.
  long long total = 0;
  std::vector<int> counted(static_cast<std::size_t>(c) + 1, 0);
  for (int i = 1; i <= r; ++i) {
    const Row& row = read.row_array_[i];
    if (row.GetNumMisVal() == 0) continue;
    total += row.GetNumMisVal();
    const T* x = row.GetVector();
    for (int j = 1; j <= c; ++j) counted[j] += x[j] == T(-99);
  }
  if (total != missing) return false;
  for (int j = 1; j <= c; ++j)
    if (counts[j] != counted[j]) return false;

  read.rows_ = r;
  read.columns_ = c;
  read.missing_ = missing;
  swap(read);
  return true;
}

#define MVDA_INSTANTIATE_MATRIX_STREAM(T)                                    \
  template UStreamableData NCDataMatrix<T>::MyStreamableData;                \
  template bool NCDataMatrix<T>::UStreamableStartWrite(std::ostream&) const; \
  template bool NCDataMatrix<T>::UStreamableWrite(std::ostream&) const;      \
  template bool NCDataMatrix<T>::UStreamableStartRead(std::istream&);        \
  template bool NCDataMatrix<T>::UStreamableRead(std::istream&);             \
  template void NCDataMatrix<T>::UStreamableReset() const;                   \
  template bool NCDataMatrix<T>::ReadStreamDirectory(std::istream&, bool);

MVDA_INSTANTIATE_MATRIX_STREAM(float)
MVDA_INSTANTIATE_MATRIX_STREAM(double)
#undef MVDA_INSTANTIATE_MATRIX_STREAM
