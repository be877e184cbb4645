// NCPCAPred, the scores and residuals of new observations under a fitted PCA model, and
// ScoreEstimator, the per-observation score calculator it uses.
#ifndef MVDA_MODELS_PCA_PRED_H_
#define MVDA_MODELS_PCA_PRED_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/mvda_export.h>

// The scores of one observation x (one value per variable, scaled like the model's data) under
// the loadings P' (A components x K variables). The object itself is P, the loadings transposed
// (K x A): the X of the small PLS regression that estimates the scores of an observation with
// missing values, in which the variables are the observations.
//
//   - A complete x is projected sequentially: t_a = p_a' r, r -= t_a p_a, starting from r = x.
//   - An x with missing values is regressed on P by PLS (NIPALS, one y column, the missing values
//     of x left out of every sum), at most min(present values, A) components; the scores are the
//     regression coefficients.
//
// Copies are deep: a copy shares no buffer with its source. Thread-safety: GetT only reads the
// object, so one estimator serves several threads at once; each call of the PLS path fits a
// model of its own. (Threads that score many observations are faster with a copy each: the PLS
// models share the estimator's rows, and so would the threads their reference counts.)
class MVDA_EXPORT ScoreEstimator : public NCDataMatrix<float> {
 public:
  using Matrix = NCDataMatrix<float>;
  using Vector = NCDataVector<float>;

  // maxIterations goes to the PLS model (with one y column NIPALS needs one iteration, so it
  // hardly matters). NCError for a negative maximum, nothing kept.
  ScoreEstimator(const Matrix& Pprim, int maxIterations);
  ScoreEstimator(const ScoreEstimator& other);
  ScoreEstimator& operator=(const ScoreEstimator& other);
  ~ScoreEstimator() override;

  // Writes the A scores of x into t[1..A]. Without components nothing is written. NCError, with t
  // unchanged, when x does not have K elements or t does not have A.
  void GetT(Vector& t, const Vector& x) const;

  int GetMaxIterations() const { return max_iterations_; }
  const Matrix& GetPprim() const { return pprim_; }

 private:
  friend class NCPCAPred;

  // GetT's work. `column`, when given, is a K x 1 matrix that the caller keeps from one
  // observation to the next for the PLS model's y: refilled in place, it saves allocating one
  // small row per variable for every observation. One column per thread.
  void Score(Vector& t, const Vector& x, Matrix* column) const;
  // t_a = p_a' r with r = x deflated by the components before a (the last one is not deflated).
  // A loading row that shares no present element with x gives a missing score and no deflation.
  void EstimateWhitoutMisVal(Vector& t, const Vector& x) const;
  // PLS of x on P (see the .cpp for the stop rules); t = the coefficients, or 0 everywhere when
  // none can be formed. Without a column a new one is made.
  void EstimateWhitMisVal(Vector& t, const Vector& x, Matrix* column = nullptr) const;

  Matrix pprim_;
  int max_iterations_ = 0;
};

// Applies a fitted PCA model to new observations that are scaled like the model's data. The
// constructor computes the scores of every observation for all A components at once (on the
// library's threads, NCMultiThreading); the residuals then advance one component per
// CalcNextResidual, so a host can show the residuals after 1, 2, ... components:
//
//   NCPCAPred pred(&newX, model.GetPprim(), 200, 0.5f);
//   const NCDataMatrix<float>& t = *pred.GetTPredPrim();  // A x N, column i = scores of row i
//   for (int a = 1; a <= pred.GetMaxComp(); ++a) {
//     pred.CalcNextResidual();                             // E = X - sum_{b<=a} t_b p_b'
//     ... *pred.GetXResiduals() ...
//   }
//
// An observation whose share of missing values exceeds the maximum missing fraction gets a column
// of missing scores (-99), and its residual row stays as it was, since a missing score deflates
// nothing.
//
// Copies and assignments are deep (independent): they copy the three matrices and the two
// scalars. Thread-safety: one object is used by one thread at a time.
class MVDA_EXPORT NCPCAPred {
 public:
  using Matrix = NCDataMatrix<float>;
  using Vector = NCDataVector<float>;
  using IndexVector = NCIntegralVector<int, -99>;

  // X: the new observations (N x K); Pprim: the model's loadings (A x K). Both are copied and
  // never written. A P' without rows is a model without components, whatever its column count.
  // NCError, before anything is computed, for a null X or P', a P' with rows whose column count
  // is not K, a negative maximum of iterations, or a missing fraction that is negative or NaN
  // (1 or more scores every observation, even one without any value, at 0). Any error of the
  // score computation itself reaches the caller after every thread has stopped.
  NCPCAPred(const Matrix* X, const Matrix* Pprim, int maxIterations, float maxMissingFraction);
  NCPCAPred(const NCPCAPred& other);
  NCPCAPred& operator=(const NCPCAPred& other);
  virtual ~NCPCAPred();

  // Deflates the residuals by the next component a: E = E - t_a p_a' (t_a = row a of T', p_a =
  // row a of P'; missing elements of E stay missing, a missing score leaves its row as it was).
  // NCError, with nothing changed, once all A components have been applied.
  void CalcNextResidual();
  // Removes the listed observations (1-based, any order; repeats and numbers outside 1..N are
  // ignored): their columns of T' and their rows of the residuals.
  void RemoveObservations(const IndexVector& list);

  const Matrix* GetTPredPrim() const { return &tpred_prim_; }    // A x N
  const Matrix* GetXResiduals() const { return &x_residuals_; }  // N x K
  int GetMaxComp() const { return pprim_.SizeRows(); }           // A
  int SizeObservations() const { return x_residuals_.SizeRows(); }
  int GetResidualsCompComputed() const { return computed_; }
  float GetMaxMissingFraction() const { return max_missing_fraction_; }

 private:
  void CalculateScores(int maxIterations);

  Matrix x_residuals_;
  Matrix tpred_prim_;
  Matrix pprim_;
  int computed_ = 0;
  float max_missing_fraction_ = 0.0f;
};

#endif  // MVDA_MODELS_PCA_PRED_H_
