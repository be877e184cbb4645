// ModelFile: a fitted PCA or PLS model together with the scaling and the variable names it needs
// to score new data, as one file written with the library's stream layer (docs/model-file.md).
#ifndef MVDA_APPS_MVDA_MODEL_FILE_H_
#define MVDA_APPS_MVDA_MODEL_FILE_H_

#include <mvda/containers/string_vector.h>
#include <mvda/diagnostics/spe.h>
#include <mvda/models/pca.h>
#include <mvda/models/pls.h>
#include <mvda/platform/stream.h>
#include <mvda/preprocess/scale.h>

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace mvda::cli {

// Record "MVDAModel", version 2 (version 1 still reads), then a directory:
//   0  kind, i32: 1 PCA, 2 PLS
//   1  X variable names, NCStringVector     2  X scaling, NCScale
//   3  the model, NCPCA or NCPLS
//   4  Y variable names (PLS only)          5  Y scaling (PLS only)
//   6  the scaling option as typed (uv, pareto, ...), string
//   7  the file the model was fitted on, string
//   8  training observations N, i32         9  score variances s_a², A f64
//  10  training SPE mean and variance, 2 f64, and the count of values behind them, i32
// Version 1 files lack 8-10; reading one derives them from the training scores and residuals the
// model keeps.
// From version 2 on the file ends in a trailer "MVDAsum:" and the MD5 (32 hexadecimal digits) of every
// byte before it, so that a damaged or edited file is refused rather than used.
class ModelFile : public UStreamBase {
 public:
  enum Kind : std::int32_t { kPCA = 1, kPLS = 2 };

  Kind kind = kPCA;
  NCStringVector x_names;
  NCScale x_scale;
  NCPCA pca;
  NCPLS pls;
  NCStringVector y_names;
  NCScale y_scale;
  std::string scaling;
  std::string source;
  // What T² and SPE of new observations and their limits need from the training set.
  std::int32_t training_observations = 0;
  std::vector<double> score_variances;  // one per component
  diagnostics::SPEMoments spe;          // of the training SPE values
  // After a failed read: why, when the file's kind and the model it holds disagree; else "".
  std::string kind_problem;

  int Components() const {
    return kind == kPCA ? pca.GetPprim()->SizeRows() : pls.GetPprim()->SizeRows();
  }

  static UStreamableData MyStreamableData;
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableRead(std::istream& is) override;
  void UStreamableReset() const override;

 private:
  std::int32_t read_version_ = 0;  // of the file being read
};

// Reads a model file, also from a pipe; ToolError naming the file for one that cannot be opened,
// a file of another kind (a CSV file, a dendrogram cache entry), a newer version, a wrong
// checksum, a damaged one, values that are not finite or an iteration limit below 1.
ModelFile LoadModel(const std::string& path);
// The same for the bytes of a model file; `path` only names them in messages.
ModelFile ParseModel(const std::string& path, const std::string& bytes);

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_MODEL_FILE_H_
