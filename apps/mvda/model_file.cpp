#include "model_file.h"

#include <mvda/platform/byte_io.h>
#include <mvda/platform/stream_directory.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "tool_error.h"

namespace mvda::cli {
namespace {

constexpr std::int32_t kVersion = 1;

// A model whose parts do not fit together would only fail later, deep inside a prediction.
bool Consistent(const ModelFile& m) {
  const int k = m.x_names.Size();
  if (m.x_scale.Size() != k || k == 0) return false;
  if (m.kind == ModelFile::kPCA) return m.pca.GetPprim()->SizeColumns() == k;
  return m.pls.GetPprim()->SizeColumns() == k && m.pls.GetWprim()->SizeColumns() == k &&
         m.y_names.Size() > 0 && m.y_scale.Size() == m.y_names.Size() &&
         m.pls.GetCprim()->SizeColumns() == m.y_names.Size();
}

}  // namespace

UStreamableData ModelFile::MyStreamableData("MVDAModel", kVersion);

bool ModelFile::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;
  return MyStreamableData.Write(os) && UStreamBase::UStreamableStartWrite(os) &&
         ModelFile::UStreamableWrite(os);
}

bool ModelFile::UStreamableWrite(std::ostream& os) const {
  OutputStreamDirectory dir(os, 8);
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
  return dir.Close();
}

bool ModelFile::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;
  std::int32_t version = 0;
  return MyStreamableData.Check(is, &version) && version == kVersion &&
         UStreamBase::UStreamableStartRead(is) && ModelFile::UStreamableRead(is);
}

bool ModelFile::UStreamableRead(std::istream& is) {
  InputStreamDirectory dir(is);
  std::int32_t code = 0;
  std::istream* in = dir.GetInput(0);
  if (!in || !ReadFourBytes(code, *in) || (code != kPCA && code != kPLS)) return false;
  kind = static_cast<Kind>(code);
  if (!(in = dir.GetInput(1)) || !ReadNestedObject(*in, x_names)) return false;
  if (!(in = dir.GetInput(2)) || !ReadNestedObject(*in, x_scale)) return false;
  if (!(in = dir.GetInput(3))) return false;
  if (kind == kPCA) {
    if (!ReadNestedObject(*in, pca)) return false;
  } else {
    if (!ReadNestedObject(*in, pls)) return false;
    if (!(in = dir.GetInput(4)) || !ReadNestedObject(*in, y_names)) return false;
    if (!(in = dir.GetInput(5)) || !ReadNestedObject(*in, y_scale)) return false;
  }
  if (!(in = dir.GetInput(6)) || !ReadBinaryString(scaling, *in, 64)) return false;
  if (!(in = dir.GetInput(7)) || !ReadBinaryString(source, *in, 4096)) return false;
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

ModelFile LoadModel(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ToolError(path + ": cannot open: " + std::strerror(errno));
  // The record alone first, so that a file of another kind is named as such and not as damaged.
  {
    UStreamableData probe(ModelFile::MyStreamableData.GetMagic(), kVersion);
    std::int32_t version = 0;
    if (!probe.Check(in, &version)) {
      throw ToolError(path + ": not an mvda model file (save one with pca or pls --save)");
    }
    if (version != kVersion) {
      throw ToolError(path + ": model file version " + std::to_string(version) +
                      ", this tool reads version " + std::to_string(kVersion));
    }
    in.clear();
    in.seekg(0);
  }
  ModelFile model;
  if (!StreamIn(model, in)) throw ToolError(path + ": the model file is damaged or truncated");
  return model;
}

}  // namespace mvda::cli
