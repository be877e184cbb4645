// NCPLS, the partial-least-squares model fitted one component at a time by NIPALS with missing
// values in X and Y, and NCPLSDegenerateError, the exception of a component that has nothing left
// to fit.
#ifndef MVDA_MODELS_PLS_H_
#define MVDA_MODELS_PLS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/error.h>
#include <mvda/platform/stream.h>

#include <memory>

class NCProgress;

// Thrown by NCPLS::NextComponent in strict mode when the new component is degenerate: its size
// sqrt(SS(w)) sqrt(SS(u)) / sqrt(SS(X)) is not a finite normal number of at least 1e-6 / sqrt(K),
// which means that X has (numerically) no variation left in the direction of Y. It is an NCError
// of level 1 (numerical failure) carrying the text of language string 10159 with the component
// number, so a host that catches NCError shows it like any other failure. Its own type lets a
// caller that fits components until something stops it (score estimation for an observation with
// missing values) take it as the end of the model, while a user stop (levels 0 and 2) or any other
// failure still reaches the host.
class MVDA_EXPORT NCPLSDegenerateError : public NCError {
 public:
  explicit NCPLSDegenerateError(int component);
  NCPLSDegenerateError(const NCPLSDegenerateError&) = default;
  NCPLSDegenerateError& operator=(const NCPLSDegenerateError&) = default;
  ~NCPLSDegenerateError() override;

  int GetComponent() const noexcept { return component_; }  // the number the model would have given

 private:
  int component_;
};

// A PLS model of a preprocessed X (N observations x K variables) on a preprocessed Y (N x M), grown
// by the host one component at a time:
//
//   NCPLS model(&X, &Y, 200);
//   for (...) {
//     model.NextComponent(progress, nullptr, false, true);  // extract, do not deflate yet
//     (cross-validate the component; stop here if it is not significant)
//     model.CalculateResiduals();                           // X -= t p', Y -= t c'
//   }
//
// Scores, weights and loadings are stored transposed ("prim"), one row per component: Cprim
// (A x M), Pprim, Wprim (A x K, every W row of unit length), Uprim, Tprim (A x N). The five always
// have the same number of rows, GetComponents(). Deflation is a call of its own so that a caller
// can inspect a component before the residuals move on.
//
// Copies share. The copy constructor and assignment copy the seven matrix handles and the three
// counters, so a copy and its source work on the same matrices: a component or a deflation made
// through one shows in the other's matrices, while each keeps its own counters. The matrices are
// held by shared ownership, so either may be destroyed first and the other stays usable.
//
// Complete data: while X and Y have no missing value and X has at least as many rows as columns,
// the NIPALS iterations run on the cross products X'X, X'Y and Y'Y instead of on X and Y: with
// t = X q and u = Y g, every regression of the iteration is a product of those (X'u = X'Y g,
// Y't = (X'Y)' q, t't = q'X'X q, and the convergence test sum (u - u_old)^2 = dg' Y'Y dg). These
// are the same iterations with the same start, test and stopping rule, so the components and
// iteration counts agree with the iterations on X and Y to float precision, and one pass over the
// data serves every component. Deflation updates the cross products; the scores T and U and the
// residuals are formed when first read, every pending component in one product. Read them
// through their accessors, which complete that work. SetGramIterations(false) keeps every fit on
// X and Y.
//
// Float only. Thread-safety: one model is never used by two threads at once, reads included;
// distinct models (score estimation runs one per observation on several threads) share nothing
// mutable.
class MVDA_EXPORT NCPLS : public virtual UStreamBase {
 public:
  using Matrix = NCDataMatrix<float>;
  using Vector = NCDataVector<float>;

  // --- Construction. X and Y are copied (cheaply: the containers share copy-on-write) and become
  // the first residuals; the caller's matrices never change. NCError for a null X or Y, row counts
  // that differ, or a negative maximum number of iterations.
  NCPLS();                                                     // seven empty matrices, counters 0
  NCPLS(const Matrix* x, const Vector* y, int maxIterations);  // Y becomes an N x 1 matrix
  NCPLS(const Matrix* x, const Matrix* y, int maxIterations);
  // Rebuilds a model from its parts, each copied; components = rows of pprim, iterations = 0.
  // NCError for a null part or for parts that do not fit together (the five "prim" matrices with
  // different row counts, W and P of different widths, or residuals whose shape disagrees with
  // the loadings, scores or Y weights).
  NCPLS(const Matrix* xResiduals, const Matrix* yResiduals, const Matrix* cprim,
        const Matrix* pprim, const Matrix* wprim, const Matrix* uprim, const Matrix* tprim,
        int maxIterations);
  NCPLS(const NCPLS& other);  // shares the matrices
  NCPLS& operator=(const NCPLS& other);
  ~NCPLS() override;

  // --- Fitting
  // Extracts one component by NIPALS and appends it; the residuals are not deflated. With start
  // weights (K elements) and more than one Y column, the iteration starts from the Y scores that
  // those X weights predict; otherwise from the Y column of largest sum of squares (start weights
  // are then ignored, whatever their length).
  //
  // Progress (not at all when quiet): after the first iteration the range is set to (-value, 0),
  // or (1.0, 0) when the convergence value is exactly 0 (one Y column); with strict, every
  // iteration then reports SetValue(-value), so the bar climbs towards 0 as the iteration
  // converges. The convergence value is 10 (log10(d) + 10), d the relative squared change of the
  // Y scores, sum (u - u_old)^2 / sum u^2 over the observations present in both, -1 when
  // d < 1e-30, and 0 for one Y column (one iteration suffices); the iteration stops when it is
  // <= 0 (d <= 1e-10) or after the maximum number of iterations. Without a
  // progress object the call makes its own (NCProgress::CreateDefault, text of language string
  // 10047 with the component number) after the first iteration, uses it as it would a given one
  // and releases it on return.
  //
  // Errors; the model is then exactly as before the call:
  //  - strict and a degenerate component: NCPLSDegenerateError (an NCError, 10159, level 1);
  //  - strict and SetValue returning false: NCError (10160, level 2);
  //  - strict and IsBreakPressed() true after the iteration: NCError (10161, level 0);
  //  - without strict none of these is raised, and a degenerate component is stored as computed;
  //  - NCError for a model without observations, X or Y columns, or start weights of a length
  //    other than K where they would be used.
  void NextComponent(NCProgress* progress, const Vector* startWeights, bool quiet, bool strict);
  // Deflates with the last component a: XResiduals -= t_a p_a' and YResiduals -= t_a c_a' (an
  // element changes only when it and both factors are present). NCError without a component.
  void CalculateResiduals();
  // Multiplies row a of Cprim, Pprim, Wprim, Uprim and Tprim by -1, a sign convention of the
  // caller; the regression coefficients do not change. NCError for a outside 1..components.
  void FlipComponent(int a);
  // For response-permutation tests: new row i of YResiduals is old row permutation[i], i = 1..N
  // (permutation[0] is not read). NCError with language string 10162 once a component exists or
  // when the model has no Y; NCError for a null array or one that is not a permutation of 1..N.
  void ShuffleYResiduals(const int* permutation);

  // --- Results
  // W* = W (P'W)^-1 as rows (A x K): the weights that give the scores from the undeflated X,
  // T = X W*'. Built by the recursion w*_a = w_a - sum_{b<a} (p_b . w_a) w*_b, without inversion.
  // No rows: a 0 x K matrix. The static form needs W and P of the same shape (NCError otherwise).
  Matrix GetWStarPrim() const;
  static Matrix GetWStarPrim(const Matrix& wprim, const Matrix& pprim);
  // B (K x M) = W*' C from the first `components` components; -1 (or the component count) means
  // all, 0 gives zeros. NCError outside -1..components. The static form takes P, W, C in this
  // order and needs equal row counts and P and W of the same width.
  Matrix GetRegressionCoefficients(int components) const;
  static Matrix GetRegressionCoefficients(const Matrix& pprim, const Matrix& wprim,
                                          const Matrix& cprim);

  int GetComponents() const { return components_; }
  int GetIterations() const { return iterations_; }  // NIPALS iterations of the last component
  int GetMaxIterations() const { return max_iterations_; }
  const Matrix* GetCprim() const { return cprim_.get(); }
  const Matrix* GetPprim() const { return pprim_.get(); }
  const Matrix* GetWprim() const { return wprim_.get(); }
  const Matrix* GetUprim() const;  // these four complete the deferred work first
  const Matrix* GetTprim() const;
  const Matrix* GetXResiduals() const;
  const Matrix* GetYResiduals() const;

  // Whether fits of complete data may iterate on the cross products (true, the default) or always
  // on X and Y (false: the fallback a host can force). Switching off completes the deferred work.
  // Per model object; copies take the setting along.
  void SetGramIterations(bool on);
  bool GetGramIterations() const { return gram_iterations_; }
  // Whether the last fit ran on the cross products and its deferred work stands.
  bool IsFittingOnGram() const;

  // --- Stream: record "NCPLS" version 2, a directory of 9 entries: 0 Cprim, 1 Pprim, 2 Wprim,
  // 3 Uprim, 4 Tprim, 5 XResiduals, 6 YResiduals (each a whole NCDataMatrix<float> object), 7 the
  // maximum iterations and 8 the iterations (i32 each). The component count is not stored: it is
  // the number of rows of Pprim. A read accepts version 2 only; it returns false, and leaves the
  // model as it was, for any other version and for a directory whose matrices do not fit together.
  // A successful read replaces the contents of the shared matrices, so copies see it too.
  static UStreamableData MyStreamableData;
  static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
  static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableRead(std::istream& is) override;  // ReadStreamDirectory(is)

 private:
  struct Kernel;  // the cross products and the deferred work, shared by copies (pls.cpp)
  bool ReadStreamDirectory(std::istream& is);
  void FitOnGram(NCProgress* progress, const Vector* startWeights, bool quiet, bool strict);
  void Complete(bool residuals) const;  // forms the deferred scores (and residuals)
  void LeaveGram() const;               // completes, and the next fit starts afresh
  void DropGram() const;                // forgets the deferred work, for matrices being replaced

  std::shared_ptr<Kernel> kernel_;
  bool gram_iterations_ = true;

  std::shared_ptr<Matrix> cprim_;
  std::shared_ptr<Matrix> pprim_;
  std::shared_ptr<Matrix> wprim_;
  std::shared_ptr<Matrix> uprim_;
  std::shared_ptr<Matrix> tprim_;
  std::shared_ptr<Matrix> x_residuals_;
  std::shared_ptr<Matrix> y_residuals_;
  int components_ = 0;
  int max_iterations_ = 0;
  int iterations_ = 0;
};

#endif  // MVDA_MODELS_PLS_H_
