// Streaming of NCPLS: record "NCPLS" version 2 and its directory of nine entries.
#include <mvda/models/detail/pls_parts.h>
#include <mvda/models/pls.h>

#include <cstdint>
#include <istream>
#include <ostream>

namespace {

using Matrix = NCPLS::Matrix;

constexpr int kEntries = 9;
constexpr int kMaxIterationsEntry = 7;
constexpr int kIterationsEntry = 8;

bool ReadCount(InputStreamDirectory& dir, int id, int& value) {
  std::int32_t v = 0;
  std::istream* in = dir.GetInput(id);
  if (!in || !ReadFourBytes(v, *in) || v < 0) return false;
  value = v;
  return true;
}

}  // namespace

// The tag is the class name, like the PCA model's record.
UStreamableData NCPLS::MyStreamableData("NCPLS", 2);

bool NCPLS::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;  // already written in this pass
  return MyStreamableData.Write(os) && NCPLS::UStreamableWriteBases(os) &&
         NCPLS::UStreamableWrite(os);
}

bool NCPLS::UStreamableWrite(std::ostream& os) const {
  Complete(true);
  OutputStreamDirectory dir(os, kEntries);
  const Matrix* const parts[] = {cprim_.get(), pprim_.get(),       wprim_.get(),      uprim_.get(),
                                 tprim_.get(), x_residuals_.get(), y_residuals_.get()};
  for (int id = 0; id < 7; ++id)
    if (!WriteWhole(*parts[id], dir.GetOutput(id))) break;
  WriteFourBytes(static_cast<std::int32_t>(max_iterations_), dir.GetOutput(kMaxIterationsEntry));
  WriteFourBytes(static_cast<std::int32_t>(iterations_), dir.GetOutput(kIterationsEntry));
  return dir.Close();
}

bool NCPLS::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;  // already read in this pass
  std::int32_t version = 0;
  return MyStreamableData.Check(is, &version) && NCPLS::UStreamableReadBases(is) &&
         version == MyStreamableData.GetMyUStreamVersionNumber() && NCPLS::UStreamableRead(is);
}

bool NCPLS::UStreamableRead(std::istream& is) { return ReadStreamDirectory(is); }

// Reads every part aside and takes them only when the whole directory has been read and the parts
// fit together, so that a damaged stream leaves the model as it was.
bool NCPLS::ReadStreamDirectory(std::istream& is) {
  InputStreamDirectory dir(is);
  Matrix parts[7];
  for (int id = 0; id < 7; ++id) {
    std::istream* in = dir.GetInput(id);
    if (!in || !ReadNestedObject(*in, parts[id])) return false;
  }
  int maxIterations = 0, iterations = 0;
  if (!ReadCount(dir, kMaxIterationsEntry, maxIterations) ||
      !ReadCount(dir, kIterationsEntry, iterations) || !dir.Close())
    return false;
  Matrix &c = parts[0], &p = parts[1], &w = parts[2], &u = parts[3], &t = parts[4], &x = parts[5],
         &y = parts[6];
  if (!mvda::detail::CheckPlsParts(x, y, c, p, w, u, t).empty()) return false;
  DropGram();  // the deferred work belonged to the matrices being replaced
  *cprim_ = c;
  *pprim_ = p;
  *wprim_ = w;
  *uprim_ = u;
  *tprim_ = t;
  *x_residuals_ = x;
  *y_residuals_ = y;
  components_ = p.SizeRows();
  max_iterations_ = maxIterations;
  iterations_ = iterations;
  return true;
}
