// PLSCrossValidation, which cross-validates each component of a PLS model as the host extracts
// it and judges its significance, and PLSMissingValueEstimator, which fills the missing values of
// an X matrix from a cross-validated PLS model of X and Y.
#ifndef MVDA_VALIDATION_PLS_CROSS_VALIDATION_H_
#define MVDA_VALIDATION_PLS_CROSS_VALIDATION_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/models/pls.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/stream.h>
#include <mvda/validation/significance.h>

#include <memory>

class NCProgress;
namespace mvda::detail {
class PlsGroupGrams;
}

// Driven in step with the model, between extracting a component and deflating with it:
//
//   PLSCrossValidation cv(&model, 7, nullptr);  // default groups: observation i in group i mod 7
//   for (int a = 1; ...; ++a) {
//     model.NextComponent(progress, nullptr, false, true);
//     cv.NextComponent(&(*model.GetWprim())[a], 200, initialColumnSS, progress, false);
//     const auto verdict = PLSCrossValidation::GetSignificance(
//         N, K, M, a, r2y, r2yPerColumn, cv.GetQ2Tot(), *cv.GetQ2YVar(), cv.GetQ2Lim());
//     if (!SignificanceE::IsSignificant(verdict)) break;
//     model.CalculateResiduals();
//   }
//
// For every group g the component is refitted without the group's observations (a one-component
// PLS of the other rows of the model's current residuals, started from the full model's weights),
// the group is predicted by that sub-model, and the prediction residuals give PRESS and Q2, per Y
// column and in total, for this component and cumulated over the components so far. The
// sub-models of all groups are fitted in lockstep, each NIPALS step of every group from one pass
// over the X residuals; they agree with separate NCPLS fits of the training rows to float
// rounding, and each stops at its own iteration. Complete residuals with at least G (K + M) rows
// (so that the products take no more memory than the data) are fitted on cross products instead,
// as the model fits them (those without a group are the whole less the group's own), unless the
// model's SetGramIterations(false) keeps its fits on the data. The cross products are formed at
// the first such component and deflated with the model's components from then on, so that later
// components cost two passes over the residuals rather than a product; they are formed again when
// the residuals no longer match them (a component validated out of turn, or residuals that moved
// otherwise).
//
// The W, C, P and T sets hold one row per group for the latest component, sign-aligned with the
// full model's w; TPred holds each observation's score from the sub-model that left it out, in
// that sub-model's own sign (it is written before the alignment), so a TPred element and the same
// observation's element of its group's TSet row may differ in sign.
//
// The model is not owned and must outlive the object. Copies and assignment copy every matrix
// and vector (cheaply, copy-on-write) and the pointer to the model; the groups' cross products are
// shared until one of the copies validates a component, which then takes its own. Thread-safety:
// one object and its model are used by one thread at a time.
class MVDA_EXPORT PLSCrossValidation : public UStreamBase {
 public:
  using Matrix = NCDataMatrix<float>;
  using Vector = NCDataVector<float>;
  using GroupVector = NCIntegralVector<int, -99>;

  // G = min(N, groups) groups, N the rows of the model's X residuals. groupIds gives each
  // observation's group, 0..G-1 (at least N elements; elements past N are not read); null means
  // the default GetDeafultCVGroupsVector(N, G). The cumulative Q2 start at 0. NCError for a null
  // model, a model without observations or Y columns, groups < 1, a group code outside 0..G-1
  // (such an observation would never be predicted, yet its Y would count in every Q2), or a group
  // that holds every observation (nothing would be left to fit).
  PLSCrossValidation(NCPLS* model, int groups, const GroupVector* groupIds);
  // Continues a validation: the cumulative Q2 start at q2Cum and q2VarCum (M elements, else
  // NCError).
  PLSCrossValidation(NCPLS* model, float q2Cum, const Vector& q2VarCum, int groups,
                     const GroupVector* groupIds);
  PLSCrossValidation(const PLSCrossValidation& other);
  PLSCrossValidation& operator=(const PLSCrossValidation& other);
  ~PLSCrossValidation() override;

  // Cross-validates the component the model has just extracted, on the model's residuals before
  // deflation: w is the component's weight vector (K elements), maxIterations bounds each
  // sub-model's NIPALS, initialColumnSS holds the sum of squares of each Y column before the first
  // component (M elements). A Y column with no variation left gets Q2YVar 0 and cumulative Q2 1.0
  // when initialColumnSS says that it had some. Each cumulative Q2 is updated as
  // 1 - (1 - previous) min(PRESS / SS, 1.1): the cap keeps one poor component from driving it far
  // below zero.
  //
  // Progress: with quiet, none at all. Otherwise each group shows the text of language string
  // 10163 with its number, on the given reporter or on one the call makes (NCProgress::
  // CreateDefault, range 0..1) and releases, followed by the range that the group's sub-model
  // sets after its first iteration (NCPLS::NextComponent); these calls come group by group once
  // all groups have been fitted. The sub-models are fitted without strict, so a degenerate group
  // does not throw; its numbers go into PRESS as computed.
  //
  // NCError, before anything changes, for a null w, sizes that do not fit, a model without a
  // component or without X columns, or a model whose shape differs from the one at construction.
  void NextComponent(const Vector* w, int maxIterations, const Vector& initialColumnSS,
                     NCProgress* progress, bool quiet);

  // The verdict on component a, tested in this order:
  //   N3 when a >= min(K, N - 3) (too many components for the data);
  //   N4 when r2y < 0.01 and no element of r2yVar exceeds 0.03 (the component explains
  //      practically nothing);
  //   R1 when q2 > limit;
  //   R2 when enough Y columns have q2Var above the limit: round(sqrt(M)) of them for M < 25,
  //      round(0.2 M) from 25 on (rounded by adding 0.5 and truncating);
  //   NS otherwise.
  // r2y is the share of the initial Y sum of squares that the component explains, r2yVar the same
  // per Y column, q2 and q2Var its GetQ2Tot and GetQ2YVar, limit GetQ2Lim. NCError for M < 1 or a
  // vector with fewer than M elements.
  static SignificanceE::Significance GetSignificance(int n, int k, int m, int a, float r2y,
                                                     const Vector& r2yVar, float q2,
                                                     const Vector& q2Var, float limit);
  // 0.05 for a model of at most 100 observations, else 0.0: with many observations any positive
  // Q2 is real.
  float GetQ2Lim() const;

  const Matrix* GetYPredResiduals() const { return &y_pred_residuals_; }  // N x M
  const Matrix* GetWSet() const { return &w_set_; }                       // G x K
  const Matrix* GetCSet() const { return &c_set_; }                       // G x M
  const Matrix* GetPSet() const { return &p_set_; }                       // G x K
  const Vector* GetTPred() const { return &t_pred_; }                     // N
  const Matrix* GetTSet() const { return &t_set_; }                       // G x N
  const Vector* GetQ2YVar() const { return &q2_y_var_; }                  // M
  const Vector* GetQ2YVarCum() const { return &q2_y_var_cum_; }           // M
  // Sum of squares of each group's sub-model Y residuals after the latest component, and the same
  // before it (the training Y at the first component); G elements, missing until computed.
  const Vector* GetSSY() const { return &ssy_; }
  const Vector* GetSSYOriginal() const { return &ssy_original_; }
  float GetQ2Tot() const { return q2_tot_; }
  float GetQ2TotCum() const { return q2_tot_cum_; }
  int GetNumberOfGroups() const { return groups_; }
  const GroupVector* GetGroupIds() const { return &group_ids_; }

 private:
  void Init(int groups, const GroupVector* groupIds, const char* place);

  Matrix y_pred_residuals_;
  Matrix w_set_;
  Matrix c_set_;
  Matrix p_set_;
  Vector t_pred_;
  Matrix t_set_;
  Vector q2_y_var_;
  Vector q2_y_var_cum_;
  // One element per group formed (G), not per group requested: a request larger than N would
  // otherwise size them for groups that never exist.
  Vector ssy_;
  Vector ssy_original_;
  NCPLS* model_;
  int groups_ = 0;
  float q2_tot_ = 0.0f;
  float q2_tot_cum_ = 0.0f;
  GroupVector group_ids_;
  // The groups' cross products on the complete-data path; shared by copies until one of them
  // moves on, which then takes its own.
  std::shared_ptr<mvda::detail::PlsGroupGrams> grams_;
};

// Fills the missing cells of X from a PLS model of X on Y, when X has any. The model (at most 200
// NIPALS iterations per component) grows while PLSCrossValidation with 7 groups (sub-models also
// limited to 200 iterations) finds each new component significant; the first component found not
// significant is dropped, and every missing X[i][j] becomes sum_a t_a[i] p_a[j] over the
// components kept (0 with none), a product being skipped when either factor is missing. A
// component that comes out degenerate ends the model like one that is not significant.
//
// scale: true takes X and Y as raw data and centres and scales every column to unit variance
// (copies; a column without spread is only centred) before the fit, and the estimates are returned
// in X's units; a column of X without any present value then stays missing, having no mean to
// return to. false takes them as already preprocessed.
//
// Y: N x M, missing values allowed; it is not changed. progress is used by the cross-validation
// steps; the fits show their own progress (NCPLS::NextComponent without a reporter). NCError for
// a Y whose row count is not X's or that has no columns; errors of the fits (a user stop) pass
// through. X changes only at the end, so on any error it is as it was.
MVDA_EXPORT void PLSMissingValueEstimator(NCDataMatrix<float>& x, NCDataMatrix<float>& y,
                                          bool scale, NCProgress* progress);

#endif  // MVDA_VALIDATION_PLS_CROSS_VALIDATION_H_
