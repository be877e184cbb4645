// Streaming of NCPCA: record "NCPCA" version 2. The container bytes are laid out in
// docs/stream-format.md.
#include <mvda/models/pca.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/stream_directory.h>

#include <cstdint>
#include <istream>
#include <ostream>

UStreamableData NCPCA::MyStreamableData("NCPCA", 2);

bool NCPCA::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;  // already written in this pass
  return MyStreamableData.Write(os) && NCPCA::UStreamableWriteBases(os) &&
         NCPCA::UStreamableWrite(os);
}

bool NCPCA::UStreamableWrite(std::ostream& os) const {
  Complete(true);
  OutputStreamDirectory dir(os, 5);
  WriteWhole(*pprim_, dir.GetOutput(0));
  WriteWhole(*tprim_, dir.GetOutput(1));
  WriteWhole(*residuals_, dir.GetOutput(2));
  WriteFourBytes(static_cast<std::int32_t>(max_iterations_), dir.GetOutput(3));
  WriteFourBytes(static_cast<std::int32_t>(iterations_), dir.GetOutput(4));
  return dir.Close();
}

bool NCPCA::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;  // already read in this pass
  std::int32_t version = 0;
  return MyStreamableData.Check(is, &version) && NCPCA::UStreamableReadBases(is) &&
         version == MyStreamableData.GetMyUStreamVersionNumber() && NCPCA::UStreamableRead(is);
}

bool NCPCA::UStreamableRead(std::istream& is) { return ReadStreamDirectory(is); }

// The parts are read aside and taken together once the directory has been read whole, so a
// failed read leaves the model, and every copy sharing its matrices, as it was. They are
// assigned into the shared matrices, so those copies see a successful read.
bool NCPCA::ReadStreamDirectory(std::istream& is) {
  try {
    Matrix pprim, tprim, residuals;
    std::int32_t maxIterations = 0, iterations = 0;
    InputStreamDirectory dir(is);
    std::istream* in = dir.GetInput(0);
    if (!in || !ReadNestedObject(*in, pprim)) return false;
    if (!(in = dir.GetInput(1)) || !ReadNestedObject(*in, tprim)) return false;
    if (!(in = dir.GetInput(2)) || !ReadNestedObject(*in, residuals)) return false;
    if (!(in = dir.GetInput(3)) || !ReadFourBytes(maxIterations, *in)) return false;
    if (!(in = dir.GetInput(4)) || !ReadFourBytes(iterations, *in)) return false;
    if (!dir.Close()) return false;
    DropGram();  // the deferred work belonged to the matrices being replaced
    *pprim_ = pprim;
    *tprim_ = tprim;
    *residuals_ = residuals;
    max_iterations_ = maxIterations;
    iterations_ = iterations;
    return true;
  } catch (const TwStreamError&) {
    is.setstate(std::ios::failbit);
    return false;
  }
}
