// NCPLSResiduals: applies a fitted PLS model to a matrix of observations one component at a time,
// scoring every observation and deflating the matrix, as the model itself was built.
#ifndef MVDA_MODELS_PLS_RESIDUALS_H_
#define MVDA_MODELS_PLS_RESIDUALS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/mvda_export.h>

// The object is the score vector t of the latest component applied, one element per observation
// of X; X (N x K, scaled like the model's X) is deflated in place and belongs to the caller, who
// keeps it alive while the object is used. The weights are the model's W, not W*: X is deflated
// after every component, so row a of W meets X exactly as it did during the fit.
//
//   NCPLSResiduals t(&x, *model.GetWprim(), *model.GetPprim(), 0.5f);
//   t.CalcNextComponent();  // t = scores of component 1; x -= t p_1'
//   t.CalcNextComponent();  // component 2 on the deflated x
//
// Missing values: an observation lacking more X values than the limit of the component (K - a - 1
// for the a-th component counted from 0, and at most K times the missing tolerance) gets a missing
// score for it; its row of X then stays as it was (the rank-one update leaves a row with a missing
// factor alone).
//
// Copies share X: the copy constructor and assignment copy the scores, weights, loadings and
// counters but only the pointer to X.
//
// Thread-safety: one object, and the X it deflates, is used by one thread at a time; the scoring
// runs on the library's threads (NCMultiThreading::ThreadingControl) and gives the same scores
// with threading on or off.
class MVDA_EXPORT NCPLSResiduals : public NCDataVector<float> {
 public:
  using Matrix = NCDataMatrix<float>;
  using Vector = NCDataVector<float>;

  // W and P are copied (cheaply: shared copy-on-write); the score vector gets N missing elements
  // until the first component is applied. NCError, with nothing kept, for a null X, W and P of
  // different shapes, X whose column count is not W's (when W has rows), or a missing tolerance
  // that is negative or not a number. A tolerance above 1 restricts nothing beyond the limit
  // K - a - 1.
  NCPLSResiduals(Matrix* x, const Matrix& wprim, const Matrix& pprim, float missingTolerance);
  NCPLSResiduals(const NCPLSResiduals& other);  // shares X
  NCPLSResiduals& operator=(const NCPLSResiduals& other);
  ~NCPLSResiduals() override;

  // Scores the observations on the next component and deflates X with it: t_i = the masked
  // regression of row i on the weight row (NCDataVector::SpecialNipalsRegressFix, divided by at
  // least a third of the weights' sum of squares), then X -= t p'. NCError, with nothing changed,
  // once every component of the model has been applied, or when X no longer has the shape it had
  // at construction.
  void CalcNextComponent();

  int GetCompComputed() const { return computed_; }
  int GetMaxComp() const { return loadings_.SizeRows(); }

 protected:
  // The work of CalcNextComponent; `place` names the caller in error messages.
  void ApplyNextComponent(const char* place);
  Matrix* GetX() const { return x_; }

 private:
  Matrix weights_;   // A x K, the model's Wprim
  Matrix loadings_;  // A x K, the model's Pprim
  Matrix* x_;        // N x K, the caller's (or an owning subclass's); deflated in place
  int computed_ = 0;
  float missing_tolerance_;
};

#endif  // MVDA_MODELS_PLS_RESIDUALS_H_
