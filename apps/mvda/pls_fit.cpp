#include <mvda/diagnostics/pls_diagnostics.h>
#include <mvda/models/pls.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/validation/pls_cross_validation.h>
#include <mvda/validation/significance.h>

#include <algorithm>

#include "analysis.h"
#include "fit_common.h"
#include "tool_error.h"

namespace mvda::cli {
ModelResult FitPls(Dataset data, const FitSettings& settings) {
  const int n = data.x.SizeRows(), k = data.x.SizeColumns(), m = data.y.SizeColumns();
  if (m < 1) throw ToolError("pls: name the response columns with --y");
  Matrix x = data.x, y = data.y;
  NCScale x_scale = FitScale(x, data.x_names, settings.scaling, data.path);
  NCScale y_scale = FitScale(y, data.y_names, settings.scaling, data.path);
  const double ssx0 = static_cast<double>(x.GetSS());
  const std::vector<double> ssy0 = ColumnSS(y);
  double ssy0_total = 0;
  NCDataVector<float> initial_ss(m, 0.0f);
  for (int j = 1; j <= m; ++j) {
    ssy0_total += ssy0[static_cast<std::size_t>(j - 1)];
    initial_ss(j, static_cast<float>(ssy0[static_cast<std::size_t>(j - 1)]));
  }
  if (!(ssx0 > 0) || !(ssy0_total > 0)) {
    throw ToolError(data.path + ": X or Y has no variation to model");
  }
  const int limit = ComponentLimit(settings.components, n, k);

  ModelResult result;
  result.settings = settings;
  NCPLS model(&x, &y, settings.max_iterations);
  PLSCrossValidation cv(&model, settings.groups, nullptr);
  double ssx_prev = ssx0, ssy_prev = ssy0_total;
  for (int a = 1; a <= limit; ++a) {
    const auto progress = StepProgress(LanguageString::Format(10047, a));
    try {
      model.NextComponent(progress.get(), nullptr, false, true);
    } catch (const NCPLSDegenerateError&) {
      // Nothing left in X that relates to Y: the model ends here unless a count was demanded.
      if (settings.components > 0) throw;
      break;
    }
    const NCDataVector<float>& w = (*model.GetWprim())[a];
    cv.NextComponent(&w, settings.max_iterations, initial_ss, progress.get(), false);
    ThrowIfStopped();

    // What the component explains, from the residuals it would leave.
    const NCDataVector<float>& t = (*model.GetTprim())[a];
    Matrix ex = *model.GetXResiduals(), ey = *model.GetYResiduals();
    ex.AddVprimV(t, (*model.GetPprim())[a], -1.0f);
    ey.AddVprimV(t, (*model.GetCprim())[a], -1.0f);
    const double ssx = static_cast<double>(ex.GetSS()), ssy = static_cast<double>(ey.GetSS());
    const std::vector<double> ssy_col_before = ColumnSS(*model.GetYResiduals());
    const std::vector<double> ssy_col_after = ColumnSS(ey);
    NCDataVector<float> r2y_var(m, 0.0f);
    for (int j = 1; j <= m; ++j) {
      const std::size_t c = static_cast<std::size_t>(j - 1);
      if (ssy0[c] > 0) {
        r2y_var(j, static_cast<float>((ssy_col_before[c] - ssy_col_after[c]) / ssy0[c]));
      }
    }

    ComponentRow row;
    row.component = a;
    row.iterations = model.GetIterations();
    row.r2x = (ssx_prev - ssx) / ssx0;
    row.r2x_cum = 1.0 - ssx / ssx0;
    row.r2y = (ssy_prev - ssy) / ssy0_total;
    row.r2y_cum = 1.0 - ssy / ssy0_total;
    row.q2 = cv.GetQ2Tot();
    row.q2_cum = cv.GetQ2TotCum();
    row.q2_limit = cv.GetQ2Lim();
    for (int j = 1; j <= m; ++j) {
      row.q2_y.push_back((*cv.GetQ2YVar())[j]);
      row.q2_y_cum.push_back((*cv.GetQ2YVarCum())[j]);
    }
    const SignificanceE::Significance verdict =
        PLSCrossValidation::GetSignificance(n, k, m, a, static_cast<float>(row.r2y), r2y_var,
                                            cv.GetQ2Tot(), *cv.GetQ2YVar(), cv.GetQ2Lim());
    row.verdict = SignificanceE::GetSignificance(verdict);
    row.kept = settings.components > 0 || SignificanceE::IsSignificant(verdict);
    result.rows.push_back(row);
    if (!row.kept) break;
    model.CalculateResiduals();
    ssx_prev = ssx;
    ssy_prev = ssy;
  }

  // The saved model holds exactly the kept components: a component that was judged and dropped
  // (or half made when the fit ended) is left out of every part.
  const int kept = static_cast<int>(std::count_if(result.rows.begin(), result.rows.end(),
                                                  [](const ComponentRow& r) { return r.kept; }));
  const Matrix cprim = FirstRows(*model.GetCprim(), kept);
  const Matrix pprim = FirstRows(*model.GetPprim(), kept);
  const Matrix wprim = FirstRows(*model.GetWprim(), kept);
  const Matrix uprim = FirstRows(*model.GetUprim(), kept);
  const Matrix tprim = FirstRows(*model.GetTprim(), kept);
  NCPLS final_model(model.GetXResiduals(), model.GetYResiduals(), &cprim, &pprim, &wprim, &uprim,
                    &tprim, settings.max_iterations);

  result.components = kept;
  result.tprim = tprim;
  result.pprim = pprim;
  result.cprim = cprim;
  result.wstar_prim = final_model.GetWStarPrim();

  if (kept > 0) {
    const diagnostics::PLSCoefficients b =
        diagnostics::RegressionCoefficients(final_model, x_scale, y_scale);
    result.coefficients = b.original;
    result.scaled_coefficients = b.scaled;
    result.intercepts = b.intercepts;
    result.fitted = diagnostics::FittedY(final_model, y_scale);
    // A figure the data cannot give (a response too short for RMSEE, a Q2 that could not be
    // cross-validated) is reported as missing; the model itself stands.
    auto figure = [&](auto compute, std::size_t size) {
      try {
        return compute();
      } catch (const NCError& e) {
        if (e.GetLevel() == NCError::kStopRequested) throw;
        return std::vector<double>(size, -99.0);
      }
    };
    result.vip = figure([&] { return diagnostics::VIP(final_model); }, static_cast<std::size_t>(k));
    result.rmsee = figure([&] { return diagnostics::RMSEE(data.y, result.fitted, kept); },
                          static_cast<std::size_t>(m));
    // RMSECV comes from the cross-validated Q2 of the last kept component itself.
    const ComponentRow& last = result.rows[static_cast<std::size_t>(kept - 1)];
    result.rmsecv = figure([&] { return diagnostics::RMSECV(final_model, y, last.q2_y, y_scale); },
                           static_cast<std::size_t>(m));
  } else {
    // Nothing significant: the model is the means, every coefficient 0.
    result.coefficients = result.scaled_coefficients = Matrix(k, m, 0.0f);
    result.fitted = Matrix(n, m, -99.0f);
    for (int r = 1; r <= m; ++r) {
      const float centre = y_scale.GetMean()[r];
      result.intercepts.push_back(centre == -99.0f ? 0.0 : centre);
    }
  }
  result.diagnostics = TrainingDiagnostics(x, tprim, pprim, settings.alphas);

  auto file = std::make_shared<ModelFile>();
  file->kind = ModelFile::kPLS;
  for (const std::string& name : data.x_names) file->x_names.push_back(name);
  for (const std::string& name : data.y_names) file->y_names.push_back(name);
  file->x_scale = x_scale;
  file->y_scale = y_scale;
  file->pls = final_model;
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
