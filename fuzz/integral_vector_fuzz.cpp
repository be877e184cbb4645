// libFuzzer target for the NCIntegralVector readers (<int,-99>, <unsigned long,0>, <bool,0>) and
// the BoolVector reader on top of the last: whatever the input, a read either fails and leaves
// the vector empty, or gives a vector that writes and reads back unchanged. unsigned long
// elements come from four bytes, so they never exceed 4294967295.
#include <mvda/containers/integral_vector.h>

#include <cstdint>
#include <string>

#include "fuzz_input.h"

namespace {

template <class V>
void Check(const std::string& bytes) {
  using T = typename V::value_type;
  V seekable(3, T(1)), piped(2, T(0));
  if (!fuzz::ReadEachWay(bytes, seekable, piped)) {
    fuzz::Require(seekable.Size() == 0 && piped.Size() == 0, "a failed read left elements");
    return;
  }
  fuzz::Require(seekable == piped, "seekable and one-way reads differ");
  for (const T x : seekable)
    fuzz::Require(static_cast<unsigned long long>(x) <= 0xffffffffull || sizeof(T) == 4,
                  "an element wider than four bytes");
  V again;
  fuzz::Require(fuzz::RoundTrip(seekable, again) && again == seekable,
                "the vector does not survive a round trip");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Check<NCIntegralVector<int, -99>>(bytes);
  Check<NCIntegralVector<unsigned long, 0>>(bytes);
  Check<NCIntegralVector<bool, false>>(bytes);
  Check<BoolVector>(bytes);
  return 0;
}
