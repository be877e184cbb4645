// Streaming of NCScale: record "NCS" version 2. The container bytes are laid out in
// docs/stream-format.md.
#include <mvda/platform/byte_io.h>
#include <mvda/platform/stream_directory.h>
#include <mvda/preprocess/scale.h>

#include <cstdint>
#include <istream>
#include <ostream>

UStreamableData NCScale::MyStreamableData("NCS", 2);

bool NCScale::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;  // already written in this pass
  return MyStreamableData.Write(os) && NCScale::UStreamableWriteBases(os) &&
         NCScale::UStreamableWrite(os);
}

bool NCScale::UStreamableWrite(std::ostream& os) const {
  OutputStreamDirectory dir(os, 3);
  WriteWhole(*mean_, dir.GetOutput(0));
  WriteWhole(*scale_, dir.GetOutput(1));
  std::ostream& types = dir.GetOutput(2);
  for (int j = 1; j <= n_; ++j) WriteFourBytes((*types_)[j], types);
  return dir.Close();
}

bool NCScale::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;  // already read in this pass
  std::int32_t version = 0;
  return MyStreamableData.Check(is, &version) && NCScale::UStreamableReadBases(is) &&
         version == MyStreamableData.GetMyUStreamVersionNumber() && NCScale::UStreamableRead(is);
}

// Everything is read aside and taken only when the whole directory agrees with itself, so a
// failed read leaves the model, and every model sharing its arrays, as it was.
bool NCScale::UStreamableRead(std::istream& is) {
  try {
    NCDataVector<float> mean, scale;
    std::vector<std::int32_t> types;
    InputStreamDirectory dir(is);
    std::istream* in = dir.GetInput(0);
    if (!in || !ReadNestedObject(*in, mean)) return false;
    const int n = mean.Size();
    if (!(in = dir.GetInput(1)) || !ReadNestedObject(*in, scale) || scale.Size() != n) return false;
    // The codes are checked against the bytes of the entry before the array grows.
    if (!(in = dir.GetInput(2)) || !StreamHolds(*in, static_cast<std::uint64_t>(n), 4))
      return false;
    types.assign(static_cast<std::size_t>(n) + 1, 0);
    for (int j = 1; j <= n; ++j)
      if (!ReadFourBytes(types[j], *in)) return false;
    if (!dir.Close()) return false;
    *mean_ = mean;
    *scale_ = scale;
    *types_ = std::move(types);
    n_ = n;
    return true;
  } catch (const TwStreamError&) {
    is.setstate(std::ios::failbit);
    return false;
  }
}
