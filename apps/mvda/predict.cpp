#include <mvda/diagnostics/pls_diagnostics.h>
#include <mvda/models/pca_pred.h>
#include <mvda/models/pls_pred.h>

#include <cmath>

#include "analysis.h"
#include "fit_common.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

constexpr float kMissing = -99.0f;

// The model's variables in the model's order, found in the file by name.
std::vector<int> MatchColumns(const CsvTable& table, const NCStringVector& names,
                              const std::string& model_path) {
  std::vector<int> columns;
  for (int j = 1; j <= names.Size(); ++j) {
    const int c = table.Find(names[j]);
    if (c < 0 || table.is_text[static_cast<std::size_t>(c)]) {
      throw ToolError(table.path + ": no column '" + names[j] + "', which the model " + model_path +
                      " needs");
    }
    columns.push_back(c);
  }
  return columns;
}

}  // namespace

PredictResult Predict(const ModelFile& model, const std::string& model_path, const CsvTable& table,
                      double max_missing, const std::string& class_column,
                      const std::vector<std::string>& alphas) {
  if (!(max_missing >= 0 && max_missing <= 1)) {
    throw ToolError("--max-missing: a share between 0 and 1 is expected");
  }
  if (model.Components() == 0) {
    throw ToolError(model_path + ": the model has no components to score with");
  }
  PredictResult result;
  result.model_path = model_path;
  result.kind = model.kind;
  result.model_source = model.source;
  result.components = model.Components();
  result.row_names = table.row_names;
  for (int j = 1; j <= model.x_names.Size(); ++j) result.x_names.push_back(model.x_names[j]);
  result.max_missing = max_missing;
  if (!class_column.empty()) {
    const int c = table.Find(class_column);
    if (c < 0) throw ToolError(table.path + ": no column '" + class_column + "' (--class)");
    result.class_name = class_column;
    result.classes = table.text[static_cast<std::size_t>(c)];
  }

  Matrix x = table.Matrix(MatchColumns(table, model.x_names, model_path));
  const int n = x.SizeRows(), k = x.SizeColumns(), a_count = result.components;
  for (int i = 1; i <= n; ++i) {
    result.missing_share.push_back(static_cast<double>(x[i].GetNumMisVal()) / k);
  }
  NCScale x_scale = model.x_scale;  // applying a scaling is not const
  x_scale.ScaleMatrix(&x, false);

  if (model.kind == ModelFile::kPCA) {
    const NCPCAPred pred(&x, model.pca.GetPprim(), model.pca.GetMaxIterations(),
                         static_cast<float>(max_missing));
    result.tprim = *pred.GetTPredPrim();
  } else {
    const NCPLS& pls = model.pls;
    NCPLSPred pred(&x, pls.GetWprim(), pls.GetPprim(), pls.GetCprim(),
                   static_cast<float>(max_missing));
    result.tprim = Matrix(a_count, n, kMissing);
    for (int a = 1; a <= a_count; ++a) {
      pred.CalcNextComponent();
      result.tprim.SetRow(a, *pred.GetTPred());
    }
    const int m = model.y_names.Size();
    result.y_pred = Matrix(n, m, kMissing);
    const Matrix& y_scaled = *pred.GetYPred();
    for (int r = 1; r <= m; ++r) {
      const float f = model.y_scale.GetScale()[r], centre = model.y_scale.GetMean()[r];
      for (int i = 1; i <= n; ++i) {
        // Rows left unscored are blanked below; in a scored row even -99 is a prediction.
        const float v = y_scaled[i][r];
        const double unscaled = (f == kMissing ? v : v / f) + (centre == kMissing ? 0 : centre);
        result.y_pred(i, r, static_cast<float>(unscaled));
      }
      result.y_names.push_back(model.y_names[r]);
    }
    // The observed responses, when the file has them, for observed-against-predicted.
    std::vector<int> y_columns;
    for (const std::string& name : result.y_names) {
      const int c = table.Find(name);
      if (c < 0 || table.is_text[static_cast<std::size_t>(c)]) {
        y_columns.clear();
        break;
      }
      y_columns.push_back(c);
    }
    if (!y_columns.empty()) result.y_observed = table.Matrix(y_columns);
  }

  // A row is scored when every component gave it a score; the others are reported by name.
  for (int i = 1; i <= n; ++i) {
    bool scored = true;
    for (int a = 1; a <= a_count; ++a) scored = scored && result.tprim[a][i] != kMissing;
    if (!scored) {
      for (int r = 1; r <= result.y_pred.SizeColumns(); ++r) result.y_pred(i, r, kMissing);
    }
    result.scored.push_back(scored);
  }
  const Matrix& pprim =
      model.kind == ModelFile::kPCA ? *model.pca.GetPprim() : *model.pls.GetPprim();
  result.diagnostics = PredictionDiagnostics(x, result.tprim, pprim, model, alphas);
  // A scored row shows numbers only: values beyond single precision (an observation far outside
  // anything the model knows) are an error naming it, never a silent gap next to "scored".
  for (int i = 1; i <= n; ++i) {
    if (!result.scored[static_cast<std::size_t>(i - 1)]) continue;
    bool finite = std::isfinite(result.diagnostics.t2[static_cast<std::size_t>(i - 1)]) &&
                  std::isfinite(result.diagnostics.spe[static_cast<std::size_t>(i - 1)]);
    for (int a = 1; a <= a_count; ++a) finite = finite && std::isfinite(result.tprim[a][i]);
    for (int r = 1; r <= result.y_pred.SizeColumns(); ++r)
      finite = finite && std::isfinite(result.y_pred[i][r]);
    if (!finite) {
      const std::size_t at = static_cast<std::size_t>(i - 1);
      const std::string line = at < table.row_lines.size() ? std::to_string(table.row_lines[at])
                                                            : "#" + std::to_string(i);
      throw ToolError(table.path + ": row " + line + " ('" + table.row_names[at] +
                      "'): its scores or predictions pass single precision (about 3.4e38); the "
                      "values are far outside what " + model_path + " was fitted on");
    }
  }
  if (result.y_observed.SizeRows() > 0) {
    const diagnostics::PredictionErrors errors =
        diagnostics::PredictionError(result.y_observed, result.y_pred);
    result.rmsep = errors.rmsep;
    result.r2_prediction = errors.r2;
  }
  return result;
}

}  // namespace mvda::cli
