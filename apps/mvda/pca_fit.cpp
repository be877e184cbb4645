#include <mvda/models/pca.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/validation/pca_cross_validation.h>
#include <mvda/validation/significance.h>

#include <algorithm>
#include <cmath>
#include <memory>

#include "analysis.h"
#include "fit_common.h"
#include "tool_error.h"

namespace mvda::cli {

// The verdict on PCA component a. The tool keeps a component when its cross-validated Q2 exceeds
// the limit for its size (R1); a component that does not is NS. As for PLS, a component at or
// beyond min(K, N - 3) is N3: what is left then is noise that Q2 can no longer judge.
static SignificanceE::Significance PcaVerdict(int n, int k, int a, double q2, double limit) {
  if (a >= std::min(k, n - 3)) return SignificanceE::N3;
  return q2 > limit ? SignificanceE::R1 : SignificanceE::NS;
}

ModelResult FitPca(Dataset data, const FitSettings& settings) {
  const int n = data.x.SizeRows(), k = data.x.SizeColumns();
  // Cross-validation leaves groups of variables out: with one variable nothing would be left.
  if (k < 2 || n < 3) {
    throw ToolError(data.path + ": PCA needs at least 2 variables and 3 observations");
  }
  Matrix x = data.x;
  NCScale scale = FitScale(x, data.x_names, settings.scaling, data.path);
  const std::vector<double> column_ss = ColumnSS(x);
  NCDataVector<float> reference(k, 0.0f);
  double ss0 = 0;
  for (int j = 1; j <= k; ++j) {
    reference(j, static_cast<float>(column_ss[static_cast<std::size_t>(j - 1)]));
    ss0 += column_ss[static_cast<std::size_t>(j - 1)];
  }
  if (!(ss0 > 0)) throw ToolError(data.path + ": the data have no variation to model");
  const int limit = ComponentLimit(settings.components, n, k);

  ModelResult result;
  result.settings = settings;
  NCPCA model(&x, settings.max_iterations);
  float q2_cum = 0.0f;
  NCDataVector<float> q2_var_cum(k, 0.0f);
  double ss_prev = ss0;
  for (int a = 1; a <= limit; ++a) {
    const auto progress = StepProgress(LanguageString::Format(10041, a));
    try {
      model.NextComponent(progress.get(), nullptr, 0, nullptr);
    } catch (const NCError& e) {
      // "PCA component could not be computed.": nothing left to fit. It ends an automatic fit;
      // a user stop, or a count the user demanded, goes up.
      if (e.GetLevel() != NCError::kNumerical || settings.components > 0) throw;
      break;
    }
    std::unique_ptr<PCACrossValidation> cv =
        a == 1 ? std::make_unique<PCACrossValidation>(&model, settings.groups, nullptr, nullptr)
               : std::make_unique<PCACrossValidation>(&model, q2_cum, q2_var_cum, settings.groups,
                                                      nullptr, nullptr);
    cv->NextComponent(reference, progress.get());
    ThrowIfStopped();

    Matrix e = *model.GetResiduals();
    e.AddVprimV((*model.GetTprim())[a], (*model.GetPprim())[a], -1.0f);
    const double ss = static_cast<double>(e.GetSS());
    ComponentRow row;
    row.component = a;
    row.iterations = model.GetIterations();
    row.r2x = (ss_prev - ss) / ss0;
    row.r2x_cum = 1.0 - ss / ss0;
    row.q2 = cv->GetQ2Tot();
    row.q2_cum = cv->GetQ2TotCum();
    // Centred data have spent one degree of freedom per variable on the means.
    row.q2_limit = cv->GetQ2Lim(a, settings.scaling != "none");
    const auto verdict = PcaVerdict(n, k, a, row.q2, row.q2_limit);
    row.verdict = SignificanceE::GetSignificance(verdict);
    row.kept = settings.components > 0 || SignificanceE::IsSignificant(verdict);
    result.rows.push_back(row);
    if (!row.kept) break;
    model.CalculateResiduals();
    ss_prev = ss;
    q2_cum = cv->GetQ2TotCum();
    q2_var_cum = *cv->GetQ2XVarCum();
  }

  // The saved model holds exactly the kept components (the residuals are those they leave).
  const int kept = static_cast<int>(std::count_if(result.rows.begin(), result.rows.end(),
                                                  [](const ComponentRow& r) { return r.kept; }));
  result.components = kept;
  result.pprim = FirstRows(*model.GetPprim(), kept);
  result.tprim = FirstRows(*model.GetTprim(), kept);
  result.diagnostics = TrainingDiagnostics(x, result.tprim, result.pprim, settings.alphas);

  auto file = std::make_shared<ModelFile>();
  file->kind = ModelFile::kPCA;
  for (const std::string& name : data.x_names) file->x_names.push_back(name);
  file->x_scale = scale;
  file->pca = NCPCA(model.GetResiduals(), &result.pprim, &result.tprim, settings.max_iterations);
  file->scaling = settings.scaling;
  file->source = data.path;
  file->training_observations = n;
  file->score_variances = result.diagnostics.score_variances;
  file->spe = result.diagnostics.spe_moments;
  result.model = file;
  result.data = std::move(data);
  return result;
}

}  // namespace mvda::cli
