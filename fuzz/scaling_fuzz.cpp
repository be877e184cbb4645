// libFuzzer target for the NCScale reader (the scaling a model file stores): a read through a
// seekable and through a one-way stream agrees, and what is read writes and reads back to the
// same bytes.
#include <mvda/preprocess/scale.h>

#include <cstdint>
#include <string>

#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  NCScale seekable, piped;
  if (fuzz::ReadEachWay(bytes, seekable, piped)) {
    fuzz::Require(fuzz::Bytes(seekable) == fuzz::Bytes(piped), "seekable and one-way reads differ");
    fuzz::Require(seekable.GetMean().Size() == seekable.Size() &&
                      seekable.GetScale().Size() == seekable.Size(),
                  "the means or scales do not match the variable count");
    NCScale again;
    fuzz::RequireStableRoundTrip(seekable, again);
  }
  return 0;
}
