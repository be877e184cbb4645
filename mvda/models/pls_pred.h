// NCPLSPred: predicts Y for new observations with a fitted PLS model, one component at a time.
#ifndef MVDA_MODELS_PLS_PRED_H_
#define MVDA_MODELS_PLS_PRED_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/models/pls_residuals.h>
#include <mvda/mvda_export.h>

#include <memory>

// Scores and deflates X like NCPLSResiduals and accumulates the prediction Y = sum_a t_a c_a' in
// the scaled units of the model's Y (unscaling is the caller's business). Cross-validation uses it
// to predict a left-out group, so that the prediction with a components costs one step more than
// the one with a - 1:
//
//   NCPLSPred pred(&x, model.GetWprim(), model.GetPprim(), model.GetCprim(), 0.5f);
//   for (int a = 1; a <= pred.GetMaxComp(); ++a) {
//     pred.CalcNextComponent();
//     Use(*pred.GetYPred());  // the prediction with a components
//   }
//
// Ownership: the constructors without the leading bool copy X into a matrix of their own and make
// a Y prediction of their own (owns); the one with the bool works on the caller's X and Y
// prediction, which the caller keeps alive while the object is used. Copies and assignment share X
// and the Y prediction with their source, so that a copy taken after some components goes on from
// the same state. The owned pair is held by shared ownership: whichever of the sharing objects is
// destroyed last releases it, so they may be destroyed in any order.
//
// Thread-safety: as NCPLSResiduals; objects that share X are used by one thread at a time.
class MVDA_EXPORT NCPLSPred : public NCPLSResiduals {
 public:
  // X is copied (shared copy-on-write: the caller's X never changes) and a Y prediction of N x M
  // zeros is made, M the columns of Cprim. NCError, as for NCPLSResiduals, for a null argument or
  // parts that do not fit (Cprim must have the rows of Wprim).
  NCPLSPred(const Matrix* x, const Matrix* wprim, const Matrix* pprim, const Matrix* cprim,
            float missingTolerance);
  NCPLSPred(const Matrix& x, const Matrix& wprim, const Matrix& pprim, const Matrix& cprim,
            float missingTolerance);
  // Deflates the caller's *x in place and accumulates into the caller's *yPred, which becomes
  // N x M zeros here whatever it held. The bool has no effect; it tells this form from the
  // copying one. NCError for a null x or yPred and for parts that do not fit.
  NCPLSPred(bool, Matrix* x, Matrix* yPred, const Matrix& wprim, const Matrix& pprim,
            const Matrix& cprim, float missingTolerance);
  NCPLSPred(const NCPLSPred& other);  // shares X and the Y prediction
  NCPLSPred& operator=(const NCPLSPred& other);
  ~NCPLSPred() override;

  // NCPLSResiduals::CalcNextComponent, then Y prediction += t c' with c the component's row of
  // Cprim; an observation with a missing score keeps its prediction. NCError, with nothing
  // changed, once every component has been applied.
  void CalcNextComponent();

  const Vector* GetTPred() const { return this; }  // the scores of the latest component
  const Matrix* GetXResiduals() const { return GetX(); }
  const Matrix* GetYPred() const { return y_pred_; }
  int SizeObservations() const { return GetX()->SizeRows(); }

 private:
  // The owning form when ownedX is set, else the caller's form.
  NCPLSPred(std::shared_ptr<Matrix> ownedX, Matrix* x, Matrix* yPred, const Matrix& wprim,
            const Matrix& pprim, const Matrix& cprim, float missingTolerance);

  std::shared_ptr<Matrix> owned_x_;       // set only when owns_
  std::shared_ptr<Matrix> owned_y_pred_;  // set only when owns_
  Matrix* y_pred_;                        // N x M
  Matrix y_weights_;                      // A x M, the model's Cprim
  bool owns_;
};

#endif  // MVDA_MODELS_PLS_PRED_H_
