// libFuzzer target for the tool's model file reader (what `mvda predict` opens). The input is
// read as a file as it is, and with a checksum trailer made right for it (so that the fuzzer
// reaches the payload behind the checksum). Either it is refused with ToolError, or it gives a
// model whose parts fit together and hold finite values only; nothing else is thrown.
#include <mvda/platform/md5.h>

#include <cmath>
#include <cstdint>
#include <string>

#include "fuzz_input.h"
#include "model_file.h"
#include "tool_error.h"

namespace {

void Check(const std::string& bytes) {
  try {
    const mvda::cli::ModelFile m = mvda::cli::ParseModel("fuzz", bytes);
    const int k = m.x_names.Size();
    fuzz::Require(k > 0 && m.x_scale.Size() == k, "an accepted model has no X variables");
    for (int j = 1; j <= k; ++j) {
      fuzz::Require(std::isfinite(m.x_scale.GetMean()[j]) && std::isfinite(m.x_scale.GetScale()[j]),
                    "an accepted model has a value that is not finite");
    }
    fuzz::Require(m.Components() >= 0, "negative component count");
  } catch (const mvda::cli::ToolError&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Check(bytes);
  MD5 sum;
  sum.Update(bytes);
  Check(bytes + "MVDAsum:" + sum.HexDigest());
  return 0;
}
