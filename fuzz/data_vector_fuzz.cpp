// libFuzzer target for the NCDataVector reader, float and double: whatever the input, a read
// either fails and leaves the vector empty, or gives a vector whose missing count is exact and
// whose buffer holds exactly its elements, and which writes and reads back unchanged.
#include <mvda/containers/data_vector.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_input.h"

namespace {

template <class T>
bool SameBits(const NCDataVector<T>& a, const NCDataVector<T>& b) {
  return a.Size() == b.Size() && a.GetNumMisVal() == b.GetNumMisVal() &&
         (a.Size() == 0 ||
          std::memcmp(a.begin(), b.begin(), static_cast<std::size_t>(a.Size()) * sizeof(T)) == 0);
}

template <class T>
void Check(const std::string& bytes) {
  NCDataVector<T> seekable(3, T(1)), piped(2, T(-99));
  if (!fuzz::ReadEachWay(bytes, seekable, piped)) {
    fuzz::Require(seekable.Size() == 0 && seekable.GetVector() == nullptr &&
                      seekable.GetNumMisVal() == 0 && piped.Size() == 0,
                  "a failed read left elements behind");
    return;
  }
  int missing = 0;
  for (int i = 1; i <= seekable.Size(); ++i) missing += seekable[i] == T(-99);
  fuzz::Require(missing == seekable.GetNumMisVal(), "the missing count is not exact");
  fuzz::Require(seekable.Capacity() == seekable.Size(), "the buffer is not exactly the elements");
  fuzz::Require(SameBits(seekable, piped), "seekable and one-way reads differ");
  NCDataVector<T> again;
  fuzz::Require(fuzz::RoundTrip(seekable, again) && SameBits(again, seekable),
                "the vector does not survive a round trip");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Check<float>(bytes);
  Check<double>(bytes);
  return 0;
}
