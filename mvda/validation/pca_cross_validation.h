// PCACrossValidation: PRESS and Q2 of the components of a PCA model, each cell of the residual
// matrix predicted from a loading and a score that never saw it, and the Q2 limit of a component.
#ifndef MVDA_VALIDATION_PCA_CROSS_VALIDATION_H_
#define MVDA_VALIDATION_PCA_CROSS_VALIDATION_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/models/pca.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/progress.h>

#include <memory>

// Driven in step with the model, one object per component:
//
//   model.NextComponent(progress, nullptr, 0, nullptr);      // component a, not deflated yet
//   PCACrossValidation cv(&model, q2TotCum, q2XVarCum, 7, nullptr, nullptr);
//   cv.NextComponent(initialSS, progress);                   // reads E, p_a and t_a
//   (keep the component while cv.GetQ2Tot() > cv.GetQ2Lim(a, false))
//   model.CalculateResiduals();
//
// The observations and the variables are each dealt into G = min(groups, N, K) groups (N x K the
// shape of the model's residuals E). For group g, a loading p(-g) is fitted on the rows of E
// outside observation group g (row g+1 of GetPSet()), and scores t(-g) of every observation are
// fitted on E with the variables of variable group g left out (row g+1 of GetTSet()). Cell (i, j)
// is then predicted as t(-v)_i p(-o)_j, with o the group of observation i and v the group of
// variable j; its prediction error goes into PRESS_j, e_ij^2 into SS_j, and
//   Q2XVar_j = 1 - PRESS_j / SS_j,   Q2XVarCum_j = 1 - (1 - previous) min(PRESS_j / SS_j, 1.1),
// likewise Q2 and cumulative Q2 over all variables.
//
// The object keeps a pointer to the model (not owned; it must outlive the object) and the results
// of the latest NextComponent. Copies are independent values sharing that model pointer.
// Thread-safety: one object and its model are driven by one thread at a time; the fits and the
// PRESS pass run on the library's threads (NCMultiThreading), with the same results for any
// thread count.
class MVDA_EXPORT PCACrossValidation {
 public:
  using Matrix = NCDataMatrix<float>;
  using Vector = NCDataVector<float>;
  using GroupVector = NCIntegralVector<int, -99>;

  // Continues a validation: cumulative Q2 starts from previousQ2TotCum and previousQ2XVarCum (one
  // value per variable). observationGroups (N codes) and variableGroups (K codes) hold codes
  // 0..G-1; null means GetDeafultCVGroupsVector(N, G) and (K, G): element i in group i mod G.
  // NCError, and nothing made, for a null model, groups < 1, a previous vector or group vector of
  // the wrong length, a code outside 0..G-1, or a group that holds every observation or every
  // variable (nothing would be left to fit on; so G must be at least 2).
  PCACrossValidation(NCPCA* model, float previousQ2TotCum, const Vector& previousQ2XVarCum,
                     int groups, const GroupVector* observationGroups,
                     const GroupVector* variableGroups);
  // The first component: cumulative values start at 0.
  PCACrossValidation(NCPCA* model, int groups, const GroupVector* observationGroups,
                     const GroupVector* variableGroups);
  PCACrossValidation(const PCACrossValidation& other);
  PCACrossValidation& operator=(const PCACrossValidation& other);
  virtual ~PCACrossValidation();

  // Cross-validates the model's last component (p and t, the last rows of its P' and T') on its
  // current residuals E, which must not have been deflated by that component yet. The per-group
  // fits are NCPCA components with at most L = trunc(sqrt(A - 1) + 5 + 1e-5) iterations (A the
  // model's component count): they start from the full model's component, so a few suffice.
  // The loading fit starts from the row regression of the training rows on p, the score fit from
  // t. All 2G fits iterate together on one copy of E, each stopping on its own, so that one pass
  // over E serves every group; their sums are formed by BLAS in single precision, and the fits
  // agree with those NCPCA makes on the same starts to rounding, not to the bit. When the model
  // fitted the component on its Gram matrix (complete residuals, see NCPCA), the fits run on
  // Gram matrices instead (the one without an observation group is the whole less the group's
  // own, kept by the model) and PRESS and SS come from the groups' Gram matrices, so no pass over
  // the data is made; the figures agree with those of the fits on the data to float precision.
  // The model's SetGramIterations(false) keeps everything on the data. p(-g) is turned to
  // agree with p; t(-g) is scaled by s = sqrt(K / (K - n_g)) (n_g the variables of group g) with
  // the sign that makes it agree with t, since it was fitted on fewer variables.
  //
  // `reference` holds one value per variable, its sum of squares before the first component: a
  // variable without residual sum of squares gets Q2XVar 0 and Q2XVarCum 1 when its reference is
  // at least 1.1754943508222875e-37 (fully explained by earlier components), else 0. Without
  // residual sum of squares at all, Q2 is 0 and the cumulative Q2 is 1.
  //
  // Progress: the reporter's range becomes 0..G (a reporter with an empty text is made when none
  // is given); for group g the loading fit reports in g..g+0.5 under the text of language string
  // 10157 with g+1, the score fit in g+0.5..g+1 under language string 10158, each with the
  // SetRange and SetValue calls of an NCPCA fit. These calls are made once all fits are done, in
  // the order of the groups, so a stop takes effect when the host answers it there.
  //
  // NCError, with nothing changed, for a reference of the wrong length, a model without a
  // component or a model whose shape no longer fits the groups. Errors of the fits (a user stop,
  // a component that cannot be computed) pass through unchanged, and the results of the previous
  // call stay as they were.
  void NextComponent(const Vector& reference, NCProgress* progress);

  // The Q2 a component must exceed to count as significant: with N x K the shape of the model's
  // residuals, c = 1 with flag (one degree of freedom spent on centring), else 0, and
  // D = (N - c - a + 1)(K - a + 1): 1 - D / ((N - a + 1)(K - a + 2)) in single precision. -99 for
  // a < 1, and 1.0 (no component can pass) when D <= 0. Chosen: also 1.0 when both factors of D
  // are negative, which the product alone would let through as a positive D; a component past the
  // rank of the data is never significant.
  float GetQ2Lim(int a, bool flag) const;

  // Results of the latest NextComponent (before the first: PSet and TSet without rows, Q2XVar and
  // Q2 0, XPredResiduals all missing). XPredResiduals(i, j) is e_ij - t q, or e_ij itself where
  // e, t or q is missing.
  const Matrix* GetPSet() const { return &pset_; }
  // On complete residuals fitted on Gram matrices these two are formed at the first read after
  // NextComponent, from the residuals as they were then (later deflations of the model do not
  // change them): most hosts read only the Q2 figures. Until then the object shares the rows the
  // model's Gram matrix was formed of, which keeps them alive should the model replace them.
  const Matrix* GetTSet() const;
  const Matrix* GetXPredResiduals() const;
  const Vector* GetQ2XVar() const { return &q2_x_var_; }
  const Vector* GetQ2XVarCum() const { return &q2_x_var_cum_; }
  float GetQ2Tot() const { return q2_tot_; }
  float GetQ2TotCum() const { return q2_tot_cum_; }
  int GetGroups() const { return groups_; }  // G
  const GroupVector* GetObservationGroups() const { return &observation_groups_; }
  const GroupVector* GetVariableGroups() const { return &variable_groups_; }

 private:
  struct Deferred;  // what forms tset_ and x_pred_residuals_ when read (pca_cross_validation.cpp)
  void FormDeferred() const;

  Matrix pset_;                      // G x K after NextComponent
  mutable Matrix tset_;              // G x N after NextComponent
  Vector q2_x_var_;                  // K
  Vector q2_x_var_cum_;              // K
  mutable Matrix x_pred_residuals_;  // N x K, or without rows until read before NextComponent
  mutable std::shared_ptr<const Deferred> deferred_;
  float q2_tot_ = 0;
  float q2_tot_cum_ = 0;
  NCPCA* model_ = nullptr;
  int groups_ = 0;
  GroupVector observation_groups_;  // N codes 0..G-1
  GroupVector variable_groups_;     // K codes 0..G-1
};

#endif  // MVDA_VALIDATION_PCA_CROSS_VALIDATION_H_
