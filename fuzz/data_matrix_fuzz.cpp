// libFuzzer target for the NCDataMatrix reader, float and double, with the NCDataVector and
// NCIntegralVector<int,-99> readers it calls for rows and column counts. A read either fails and
// leaves the matrix 0 x 0, or gives a matrix whose rows all have its column count and whose
// counts equal its -99 elements, and which writes and reads back unchanged. The input is also
// read as a bare directory by ReadStreamDirectory with exceptions on, which may throw only
// TwStreamError, and then leaves the matrix 0 x 0 too.
#include <mvda/containers/data_matrix.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>

#include "fuzz_input.h"

namespace {

template <class T>
bool SameBits(const NCDataMatrix<T>& a, const NCDataMatrix<T>& b) {
  if (a.SizeRows() != b.SizeRows() || a.SizeColumns() != b.SizeColumns() ||
      a.GetNumMisVal() != b.GetNumMisVal())
    return false;
  const std::size_t row_bytes = static_cast<std::size_t>(a.SizeColumns()) * sizeof(T);
  for (int i = 1; i <= a.SizeRows(); ++i)
    if (row_bytes > 0 && std::memcmp(a[i].begin(), b[i].begin(), row_bytes) != 0) return false;
  for (int j = 1; j <= a.SizeColumns(); ++j)
    if (a.GetColumnMisVal(j) != b.GetColumnMisVal(j)) return false;
  return true;
}

template <class T>
bool CountsExact(const NCDataMatrix<T>& m) {
  long long total = 0;
  for (int j = 1; j <= m.SizeColumns(); ++j) {
    int column = 0;
    for (int i = 1; i <= m.SizeRows(); ++i) column += m[i][j] == T(-99);
    if (column != m.GetColumnMisVal(j)) return false;
    total += column;
  }
  for (int i = 1; i <= m.SizeRows(); ++i) {
    int row = 0;
    for (int j = 1; j <= m.SizeColumns(); ++j) row += m[i][j] == T(-99);
    if (m[i].Size() != m.SizeColumns() || row != m[i].GetNumMisVal()) return false;
  }
  return total == m.GetNumMisVal();
}

template <class T>
bool Empty(const NCDataMatrix<T>& m) {
  return m.SizeRows() == 0 && m.SizeColumns() == 0 && m.GetNumMisVal() == 0;
}

template <class T>
void Check(const std::string& bytes) {
  NCDataMatrix<T> seekable(2, 2, T(1)), piped(1, 3, T(-99));
  if (!fuzz::ReadEachWay(bytes, seekable, piped)) {
    fuzz::Require(Empty(seekable) && Empty(piped), "a failed read left elements behind");
  } else {
    fuzz::Require(CountsExact(seekable), "the counts do not match the elements");
    fuzz::Require(SameBits(seekable, piped), "seekable and one-way reads differ");
    NCDataMatrix<T> again;
    fuzz::Require(fuzz::RoundTrip(seekable, again) && SameBits(again, seekable),
                  "the matrix does not survive a round trip");
  }

  NCDataMatrix<T> directory(1, 1, T(2));
  std::istringstream is(bytes);
  try {
    if (directory.ReadStreamDirectory(is, true)) {
      fuzz::Require(CountsExact(directory), "the counts do not match the elements");
      return;
    }
  } catch (const TwStreamError&) {
  }
  fuzz::Require(Empty(directory), "a failed directory read left elements behind");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Check<float>(bytes);
  Check<double>(bytes);
  return 0;
}
