// libFuzzer target for the NCPLS reader (the model a model file stores): a read through a
// seekable and through a one-way stream agrees, and what is read writes and reads back to the
// same bytes.
#include <mvda/models/pls.h>

#include <cstdint>
#include <string>

#include "fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  NCPLS seekable, piped;
  if (fuzz::ReadEachWay(bytes, seekable, piped)) {
    fuzz::Require(fuzz::Bytes(seekable) == fuzz::Bytes(piped), "seekable and one-way reads differ");
    NCPLS again;
    fuzz::RequireStableRoundTrip(seekable, again);
  }
  return 0;
}
