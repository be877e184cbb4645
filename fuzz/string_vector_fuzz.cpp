// libFuzzer target for the NCStringVector reader: whatever the input, a read either fails and
// leaves the vector empty, or gives a vector that writes and reads back unchanged, the same
// through a seekable stream and through a pipe.
#include <mvda/containers/string_vector.h>

#include <cstdint>
#include <string>

#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  NCStringVector seekable(2), piped(3);
  if (!fuzz::ReadEachWay(bytes, seekable, piped)) {
    fuzz::Require(seekable.Size() == 0 && piped.Size() == 0, "a failed read left strings behind");
    return 0;
  }
  fuzz::Require(seekable == piped, "seekable and one-way reads differ");
  NCStringVector again;
  fuzz::Require(fuzz::RoundTrip(seekable, again) && again == seekable,
                "the vector does not survive a round trip");
  return 0;
}
