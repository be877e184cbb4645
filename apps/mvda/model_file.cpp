#include "model_file.h"

#include <mvda/diagnostics/hotelling.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream_directory.h>

#include <mvda/platform/md5.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>
#include <vector>

#include "tool_error.h"

namespace mvda::cli {
namespace {

constexpr std::int32_t kVersion = 2;
constexpr std::int32_t kOldestVersion = 1;  // still read

bool Readable(std::int32_t version) { return version >= kOldestVersion && version <= kVersion; }

// A version-1 file has no diagnostics fields; its model keeps the training scores and residuals,
// from which they follow as the fit computes them. False when they do not (damaged).
bool DeriveDiagnostics(ModelFile& m) {
  const NCDataMatrix<float>* scores =
      m.kind == ModelFile::kPCA ? m.pca.GetTprim() : m.pls.GetTprim();
  const NCDataMatrix<float>* residuals =
      m.kind == ModelFile::kPCA ? m.pca.GetResiduals() : m.pls.GetXResiduals();
  if (!scores || !residuals || residuals->SizeRows() != scores->SizeColumns()) return false;
  const NCDataMatrix<float>& tprim = *scores;
  try {
    m.training_observations = tprim.SizeColumns();
    m.score_variances = diagnostics::ScoreVariances(tprim);
    // With no components the residuals are the scaled data: SPE over zero components.
    const NCDataMatrix<float> none_t(0, tprim.SizeColumns(), 0.0f),
        none_p(0, residuals->SizeColumns(), 0.0f);
    m.spe = diagnostics::SPEMomentsOf(diagnostics::SPE(*residuals, none_t, none_p));
  } catch (const NCError&) {
    return false;
  }
  return true;
}

bool FiniteAtLeast(double v, double low) { return std::isfinite(v) && v >= low; }

// Version 2 ends in a checksum trailer: kSumTag and the 32 hexadecimal digits of the MD5 of every
// byte before it. Version 1 files (no trailer) still read.
constexpr char kSumTag[] = "MVDAsum:";
constexpr std::size_t kTrailerSize = sizeof kSumTag - 1 + 32;
// Far above any model of real data; a longer file or pipe is refused before it fills the memory.
constexpr std::size_t kMaxModelBytes = std::size_t{1} << 28;

// A model whose parts do not fit together would only fail later, deep inside a prediction.
bool Consistent(const ModelFile& m) {
  const int k = m.x_names.Size();
  if (m.x_scale.Size() != k || k == 0) return false;
  if (static_cast<int>(m.score_variances.size()) != m.Components() || m.training_observations < 2 ||
      !FiniteAtLeast(m.spe.mean, 0) || !FiniteAtLeast(m.spe.variance, 0) || m.spe.count < 2) {
    return false;
  }
  for (const double v : m.score_variances) {
    if (!(FiniteAtLeast(v, 0) && v > 0)) return false;
  }
  if (m.kind == ModelFile::kPCA) return m.pca.GetPprim()->SizeColumns() == k;
  return m.pls.GetPprim()->SizeColumns() == k && m.pls.GetWprim()->SizeColumns() == k &&
         m.y_names.Size() > 0 && m.y_scale.Size() == m.y_names.Size() &&
         m.pls.GetCprim()->SizeColumns() == m.y_names.Size();
}

}  // namespace

UStreamableData ModelFile::MyStreamableData("MVDAModel", kVersion);

bool ModelFile::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;
  // The whole record first, so that its checksum can follow it.
  std::ostringstream body;
  if (!(MyStreamableData.Write(body) && UStreamBase::UStreamableStartWrite(body) &&
        ModelFile::UStreamableWrite(body))) {
    return false;
  }
  const std::string bytes = std::move(body).str();
  MD5 sum;
  sum.Update(bytes);
  os << bytes << kSumTag << sum.HexDigest();
  return static_cast<bool>(os);
}

bool ModelFile::UStreamableWrite(std::ostream& os) const {
  OutputStreamDirectory dir(os, 11);
  WriteFourBytes(static_cast<std::int32_t>(kind), dir.GetOutput(0));
  WriteWhole(x_names, dir.GetOutput(1));
  WriteWhole(x_scale, dir.GetOutput(2));
  if (kind == kPCA) {
    WriteWhole(pca, dir.GetOutput(3));
  } else {
    WriteWhole(pls, dir.GetOutput(3));
    WriteWhole(y_names, dir.GetOutput(4));
    WriteWhole(y_scale, dir.GetOutput(5));
  }
  WriteBinaryString(scaling, dir.GetOutput(6));
  WriteBinaryString(source, dir.GetOutput(7));
  WriteFourBytes(training_observations, dir.GetOutput(8));
  WriteArray(score_variances.data(), score_variances.size(), sizeof(double), dir.GetOutput(9));
  std::ostream& spe_out = dir.GetOutput(10);
  WriteArray(&spe.mean, 1, sizeof(double), spe_out);
  WriteArray(&spe.variance, 1, sizeof(double), spe_out);
  WriteFourBytes(static_cast<std::int32_t>(spe.count), spe_out);
  return dir.Close();
}

bool ModelFile::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;
  read_version_ = 0;
  return MyStreamableData.Check(is, &read_version_) && Readable(read_version_) &&
         UStreamBase::UStreamableStartRead(is) && ModelFile::UStreamableRead(is);
}

namespace {

// What entry 3 holds, told by the record it starts with, the stream left where it was: 0 when
// neither model's record is there.
std::int32_t HeldKind(std::istream& in) {
  const std::istream::pos_type at = in.tellg();
  if (at == std::istream::pos_type(-1)) return 0;
  std::int32_t held = 0;
  for (const auto& [magic, kind] : {std::make_pair(&NCPCA::MyStreamableData, ModelFile::kPCA),
                                    std::make_pair(&NCPLS::MyStreamableData, ModelFile::kPLS)}) {
    UStreamableData probe(magic->GetMagic(), 1);
    in.clear();
    in.seekg(at);
    if (probe.Check(in)) held = kind;
  }
  in.clear();
  in.seekg(at);
  return in ? held : 0;
}

std::string KindName(std::int32_t kind) {
  if (kind == ModelFile::kPCA) return "a PCA model";
  if (kind == ModelFile::kPLS) return "a PLS model";
  return "a model of unknown kind " + std::to_string(kind);
}

}  // namespace

bool ModelFile::UStreamableRead(std::istream& is) {
  InputStreamDirectory dir(is);
  std::int32_t code = 0;
  std::istream* in = dir.GetInput(0);
  if (!in || !ReadFourBytes(code, *in)) return false;
  if (!(in = dir.GetInput(1)) || !ReadNestedObject(*in, x_names)) return false;
  if (!(in = dir.GetInput(2)) || !ReadNestedObject(*in, x_scale)) return false;
  if (!(in = dir.GetInput(3))) return false;
  // A kind that does not match the model stored (a version-1 file, without checksum, edited) is
  // named as such: "damaged" alone would not tell the user which of the two to believe.
  const std::int32_t held = HeldKind(*in);
  if (held != 0 && held != code) {
    kind_problem =
        "the file is marked as holding " + KindName(code) + " but holds " + KindName(held);
    return false;
  }
  if (code != kPCA && code != kPLS) return false;
  kind = static_cast<Kind>(code);
  if (kind == kPCA) {
    if (!ReadNestedObject(*in, pca)) return false;
  } else {
    if (!ReadNestedObject(*in, pls)) return false;
    if (!(in = dir.GetInput(4)) || !ReadNestedObject(*in, y_names)) return false;
    if (!(in = dir.GetInput(5)) || !ReadNestedObject(*in, y_scale)) return false;
  }
  if (!(in = dir.GetInput(6)) || !ReadBinaryString(scaling, *in, 64)) return false;
  if (!(in = dir.GetInput(7)) || !ReadBinaryString(source, *in, 4096)) return false;
  if (read_version_ < 2) return dir.Close() && DeriveDiagnostics(*this) && Consistent(*this);
  if (!(in = dir.GetInput(8)) || !ReadFourBytes(training_observations, *in)) return false;
  // Exactly A variances: the entry must hold A doubles and nothing else.
  if (!(in = dir.GetInput(9))) return false;
  const std::size_t a = static_cast<std::size_t>(Components());
  if (StreamBytesLeft(*in) != static_cast<long long>(a * sizeof(double))) return false;
  score_variances.assign(a, 0.0);
  if (!ReadArray(score_variances.data(), a, sizeof(double), *in)) return false;
  std::int32_t count = 0;
  if (!(in = dir.GetInput(10)) || !ReadArray(&spe.mean, 1, sizeof(double), *in) ||
      !ReadArray(&spe.variance, 1, sizeof(double), *in) || !ReadFourBytes(count, *in)) {
    return false;
  }
  spe.count = count;
  return dir.Close() && Consistent(*this);
}

void ModelFile::UStreamableReset() const {
  UStreamBase::UStreamableReset();
  for (const UStreamBase* part :
       {static_cast<const UStreamBase*>(&x_names), static_cast<const UStreamBase*>(&x_scale),
        static_cast<const UStreamBase*>(&pca), static_cast<const UStreamBase*>(&pls),
        static_cast<const UStreamBase*>(&y_names), static_cast<const UStreamBase*>(&y_scale)}) {
    part->UStreamableReset();
  }
}

namespace {

bool AllFinite(const NCDataMatrix<float>* m) {
  if (m == nullptr) return true;
  for (int i = 1; i <= m->SizeRows(); ++i) {
    for (int j = 1; j <= m->SizeColumns(); ++j) {
      if (!std::isfinite((*m)[i][j])) return false;
    }
  }
  return true;
}

bool AllFinite(const NCDataVector<float>& v) {
  for (int j = 1; j <= v.Size(); ++j) {
    if (!std::isfinite(v[j])) return false;
  }
  return true;
}

// What the stream layer cannot know: values a prediction would turn into silent gaps, and
// settings a later fit step would fail on with a message that names no file.
void CheckValues(const ModelFile& m, const std::string& path) {
  const auto refuse = [&path](const std::string& what) {
    throw ToolError(path + ": " + what + "; the model file is damaged");
  };
  if (!AllFinite(m.x_scale.GetMean()) || !AllFinite(m.x_scale.GetScale()))
    refuse("the X scaling holds a value that is not finite");
  if (m.kind == ModelFile::kPCA) {
    if (!AllFinite(m.pca.GetPprim()) || !AllFinite(m.pca.GetTprim()))
      refuse("the PCA loadings or scores hold a value that is not finite");
    if (m.pca.GetMaxIterations() < 1)
      refuse("the iteration limit is " + std::to_string(m.pca.GetMaxIterations()));
    return;
  }
  if (!AllFinite(m.y_scale.GetMean()) || !AllFinite(m.y_scale.GetScale()))
    refuse("the Y scaling holds a value that is not finite");
  if (!AllFinite(m.pls.GetPprim()) || !AllFinite(m.pls.GetWprim()) ||
      !AllFinite(m.pls.GetCprim()) || !AllFinite(m.pls.GetTprim()))
    refuse("the PLS weights, loadings or scores hold a value that is not finite");
  if (m.pls.GetMaxIterations() < 1)
    refuse("the iteration limit is " + std::to_string(m.pls.GetMaxIterations()));
}

// The whole file, also from a pipe (predict <(cat m.mvda), /dev/stdin, a FIFO), which cannot
// seek back; bounded so that /dev/zero or a huge file is refused rather than read.
std::string ReadModelBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ToolError(path + ": cannot open: " + std::strerror(errno));
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored))
    throw ToolError(path + ": is a folder, not a model file");
  std::string bytes;
  std::vector<char> chunk(1 << 16);
  while (in.read(chunk.data(), static_cast<std::streamsize>(chunk.size())) || in.gcount() > 0) {
    bytes.append(chunk.data(), static_cast<std::size_t>(in.gcount()));
    if (bytes.size() > kMaxModelBytes) {
      throw ToolError(path + ": larger than " + std::to_string(kMaxModelBytes >> 20) +
                      " MiB: not an mvda model file");
    }
  }
  if (in.bad()) throw ToolError(path + ": cannot read: " + std::strerror(errno));
  return bytes;
}

}  // namespace

ModelFile ParseModel(const std::string& path, const std::string& bytes) {
  // The record alone first, so that a file of another kind is named as such and not as damaged.
  std::int32_t version = 0;
  {
    std::istringstream in(bytes);
    UStreamableData probe(ModelFile::MyStreamableData.GetMagic(), kVersion);
    if (!probe.Check(in, &version)) {
      throw ToolError(path + ": not an mvda model file (save one with pca or pls --save)");
    }
  }
  if (version > kVersion) {
    throw ToolError(path + ": model file version " + std::to_string(version) +
                    " is newer than this tool, which reads versions 1 to " +
                    std::to_string(kVersion));
  }
  if (version < 1) {
    throw ToolError(path + ": model file version " + std::to_string(version) + " is not valid");
  }
  std::size_t content = bytes.size();
  if (version >= 2) {
    const std::size_t tag = sizeof kSumTag - 1;
    if (bytes.size() < kTrailerSize ||
        bytes.compare(bytes.size() - kTrailerSize, tag, kSumTag) != 0) {
      throw ToolError(path + ": the model file is truncated (its checksum is missing)");
    }
    content = bytes.size() - kTrailerSize;
    MD5 sum;
    sum.Update(bytes.data(), content);
    if (bytes.compare(content + tag, 32, sum.HexDigest()) != 0) {
      throw ToolError(path + ": the checksum does not match: the model file is damaged or was "
                             "edited");
    }
  }
  std::istringstream in(bytes.substr(0, content));
  ModelFile model;
  if (!StreamIn(model, in)) {
    if (!model.kind_problem.empty()) {
      throw ToolError(path + ": " + model.kind_problem + "; the model file is damaged or was "
                      "edited");
    }
    throw ToolError(path + ": the model file is damaged or truncated");
  }
  CheckValues(model, path);
  return model;
}

ModelFile LoadModel(const std::string& path) { return ParseModel(path, ReadModelBytes(path)); }

}  // namespace mvda::cli
