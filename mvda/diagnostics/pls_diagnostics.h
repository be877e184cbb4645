// The PLS figures of merit: variable importance (VIP), regression coefficients in scaled and
// original units with intercepts, the fitted responses, and the errors of estimation (RMSEE),
// cross-validation (RMSECV) and prediction (RMSEP with R² of prediction).
#ifndef MVDA_DIAGNOSTICS_PLS_DIAGNOSTICS_H_
#define MVDA_DIAGNOSTICS_PLS_DIAGNOSTICS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/diagnostics/hotelling.h>
#include <mvda/models/pls.h>
#include <mvda/mvda_export.h>
#include <mvda/preprocess/scale.h>

#include <vector>

namespace mvda::diagnostics {

// Every function uses all the components of the model it is given (A = model.GetComponents()); a
// caller that judged the last extracted component not significant passes the model rebuilt from
// the kept components. Y values are -99 where missing. Thread-safety: read-only.

// Variable importance in the projection (Wold), K elements:
//   VIP_k = sqrt(K · sum_a SSY_a (w_ka / |w_a|)² / sum_a SSY_a),
// with w_a the X weights of component a and SSY_a = (sum_i t_ia²) (sum_m c_am²) the Y sum of
// squares (scaled units, all responses) that the component explains: on complete data exactly the
// fall of the Y residual sum of squares, and with gaps its estimate from the scores. The squares
// average to 1 over the variables, so 1 is the customary threshold. A weight missing for a variable
// counts as 0. NCError for a model without components or whose components explain nothing.
MVDA_EXPORT std::vector<double> VIP(const NCPLS& model);

// The regression y = b0 + sum_k b_k x_k of each response. `scaled` is B = W*' C (K x M) in the
// model's scaled units; `original` and `intercepts` are in the units of the data:
//   b_km (original) = B_km fx_k / fy_m,   b0_m = my_m - sum_k b_km (original) mx_k,
// fx, fy the scale factors and mx, my the centres of xScale and yScale (a variable left unscaled
// counts with factor 1, one left uncentred with centre 0). Computed in double, stored as float in
// the matrices. NCError when the scales do not have the model's K and M variables.
struct PLSCoefficients {
  NCDataMatrix<float> scaled;      // K x M
  NCDataMatrix<float> original;    // K x M
  std::vector<double> intercepts;  // M
};
MVDA_EXPORT PLSCoefficients RegressionCoefficients(const NCPLS& model, const NCScale& xScale,
                                                   const NCScale& yScale);

// The fitted responses of the training observations in the units of Y: T C' unscaled by yScale
// (N x M); -99 for an observation with a missing score. NCError when yScale does not have M
// variables.
MVDA_EXPORT NCDataMatrix<float> FittedY(const NCPLS& model, const NCScale& yScale);

// Root mean squared error of estimation per response m (M elements), in the units of Y:
//   RMSEE_m = sqrt(sum_i (y_im - yfit_im)² / (n_m - A - 1))
// over the n_m observations with both y_im and yfit_im present (n_m = N on complete data).
// kMissing for a response with n_m <= A + 1. yObserved and yFitted are N x M in the units of Y
// (yFitted as from FittedY). NCError when their shapes differ, A < 0, or N <= A + 1.
MVDA_EXPORT std::vector<double> RMSEE(const NCDataMatrix<float>& yObserved,
                                      const NCDataMatrix<float>& yFitted, int components);

// Root mean squared error of cross-validation per response m, in the units of Y:
//   RMSECV_m = sqrt(PRESS_Am / n_m) / fy_m,   PRESS_Am = (1 - Q2_Am) · SS_(A-1)m,
// where PRESS_Am is the prediction error sum of squares that the cross-validation computed for
// the last component A itself (PLSCrossValidation::GetQ2YVar() right after that component, not
// the cumulative Q2), SS_(A-1)m the sum of squares of the scaled Y residuals of response m before
// component A (recomputed here from yScaled and the model's T and C, deflating as the model does),
// n_m the present values of response m and fy_m its scale factor (1 when unscaled).
// yScaled: the training Y scaled like the model's (N x M). q2LastComponent: M elements.
// kMissing for a response without present values. NCError for a model without components, shapes
// that do not fit, yScale without M variables, or a Q2 above 1 or not finite.
MVDA_EXPORT std::vector<double> RMSECV(const NCPLS& model, const NCDataMatrix<float>& yScaled,
                                       const std::vector<double>& q2LastComponent,
                                       const NCScale& yScale);

// The errors of a predicted set whose responses were observed, per response m, over the n_m rows
// with both the observed and the predicted value present (both N x M in the units of Y):
//   rmsep_m = sqrt(sum (y - yhat)² / n_m),
//   r2_m    = 1 - sum (y - yhat)² / sum (y - mean y)², mean over the same n_m rows.
// rmsep is kMissing when n_m = 0, r2 when n_m < 2 or the observed values do not vary. r2 can be
// negative: a prediction worse than the set's own mean. NCError when the shapes differ.
struct PredictionErrors {
  std::vector<double> rmsep;  // M
  std::vector<double> r2;     // M
  std::vector<int> count;     // n_m
};
MVDA_EXPORT PredictionErrors PredictionError(const NCDataMatrix<float>& yObserved,
                                             const NCDataMatrix<float>& yPredicted);

}  // namespace mvda::diagnostics

#endif  // MVDA_DIAGNOSTICS_PLS_DIAGNOSTICS_H_
