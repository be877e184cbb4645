// NCPCA: a principal component model of single-precision data, fitted one component at a time by
// NIPALS with missing values.
#ifndef MVDA_MODELS_PCA_H_
#define MVDA_MODELS_PCA_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/mvda_export.h>
#include <mvda/platform/progress.h>
#include <mvda/platform/stream.h>

#include <memory>
#include <vector>

namespace mvda::detail {
struct PcaGramState;
}

// The model keeps the loadings P' (one row per component, one column per variable), the scores T'
// (one row per component, one column per observation) and the residual matrix E, which starts as
// a copy of the (already scaled) data. A host fits a component with NextComponent, judges it, and
// deflates with CalculateResiduals before the next one; deflation is a call of its own because the
// cross-validation reads the residuals between the two.
//
// Sharing: copies and assignments refer to the same three matrices (the counters are copied), so
// a component added or a deflation made through one is seen by the other; either may be destroyed
// first.
//
// Complete data: while E has no missing value and at least as many rows as columns, the NIPALS
// iterations run on the Gram matrix E'E (K x K) instead of on E: p is proportional to E'E times
// the previous p, and the convergence measure is formed from it, sum (t - t_old)^2 = dq' E'E dq
// with t = E q. With fewer rows than columns (wide data, e.g. spectra) they run on EE' (N x N)
// instead: t is proportional to EE' times the previous t, and the loading is formed from the last
// scores by one pass over the data. These are the same iterations, with the same start, measure
// and stopping rule, so components and iteration counts agree with the iterations on E to float
// precision, while one pass over the data (forming the Gram matrix) serves every component.
// Deflation then updates the Gram matrix, and the scores (on E'E) and residuals are formed when
// first read, all components in one product. The matrices are therefore to be read through
// GetTprim and GetResiduals, which complete that work (a pointer kept from an earlier call sees
// it once any of them has been called again). SetGramIterations(false) keeps every fit on E.
//
// Thread-safety: one model, with every copy sharing its matrices, is driven by one thread at a
// time, reads included. The projections inside NextComponent run on the library's threads
// (NCMultiThreading), with the same results for any thread count.
class MVDA_EXPORT NCPCA : public UStreamBase {
 public:
  using Matrix = NCDataMatrix<float>;
  using Vector = NCDataVector<float>;
  using GroupVector = NCIntegralVector<int, -99>;

  NCPCA();  // three empty matrices, every counter 0
  // E = a copy of *X (shared copy-on-write, X is never written); P' with X's columns and T' with
  // X's rows, both without rows. NCError for a null X or a maximum below 1 iteration.
  NCPCA(const Matrix* X, int maxIterations);
  // A model rebuilt from its parts (deep copies): the component count is the rows of *Pprim.
  // NCError for a null part, for P' and T' of different row counts, or for parts that do not fit
  // E (P' needs E's columns, T' E's rows unless they have no rows).
  NCPCA(const Matrix* residuals, const Matrix* Pprim, const Matrix* Tprim, int maxIterations);
  NCPCA(const NCPCA& other);
  NCPCA& operator=(const NCPCA& other);
  ~NCPCA() override;

  // Fits one more component by NIPALS and appends p as the last row of P' and t as the last row
  // of T'; returns true. From a score vector t (a copy of *start when given, else E's NIPALS start
  // column):
  //   p = column regression of E on t (the floored regression of SpecialNipalsRegressColumnsFix),
  //       normalised to unit length;
  //   t = row regression of E on p (SpecialNipalsRegressRowsFix);
  //   d = sum (t - t_old)^2 / sum t^2 over the observations present in both vectors (-99 when no
  //       pair is present or a sum is not finite, 1e30 when sum t^2 <= 1e-30);
  //   c = 10 (log10 d + 10) when d > 1e-30, else -1,
  // repeated until c <= 0 (d <= 1e-10) or the maximum of iterations is spent; GetIterations() is
  // then the number made. A one-observation E takes no iteration: p is its row normalised, t its
  // length, and 1 iteration is counted.
  //
  // Variable groups: with `groups` given, the variables j with (*groups)[j] == group take no part:
  // their loading is missing (-99) and the score regression skips them, as if those columns of E
  // were missing. `groups` is a vector of VARIABLE codes (at least as many elements as E has
  // columns); observations are never excluded through it: a caller that leaves observations out
  // fits on a matrix of the remaining rows. This is how the PCA cross-validation computes scores
  // without a group of variables. Null: every variable takes part.
  //
  // Progress: after the first iteration progress->SetRange(-c, 0), after every later one
  // progress->SetValue(-c), so the bar fills as d falls towards 1e-10. Without a reporter the call
  // makes its own through NCProgress::CreateDefault, with the text of language string 10041 for
  // the component number and the range -c..0, and reports to it from the second iteration on.
  //
  // Failures throw NCError: "PCA component could not be computed." (level 1) when d is -99; the
  // text of language string 10147 (level 2) when SetValue returns false. In both cases the
  // component count has already grown by one and P', T' and E are unchanged. Arguments are
  // checked first and throw NCError with nothing changed: an E without rows or columns, a start
  // vector whose length is not E's rows, groups shorter than E's columns, a maximum below 1.
  bool NextComponent(NCProgress* progress, const GroupVector* groups, int group,
                     const Vector* start);

  // Deflation by the last component: E = E - t p', with t and p the last rows of T' and P'
  // (missing elements of E stay missing). NCError when there is no component.
  virtual void CalculateResiduals();

  int GetComponents() const { return components_; }
  int GetMaxIterations() const { return max_iterations_; }
  int GetIterations() const { return iterations_; }  // spent on the last component
  const Matrix* GetPprim() const { return pprim_.get(); }
  const Matrix* GetTprim() const;      // completes the deferred scores first
  const Matrix* GetResiduals() const;  // completes the deferred scores and deflations first

  // Whether fits of complete data may iterate on the Gram matrix (true, the default) or always
  // iterate on E (false: the fallback a host can force, e.g. to compare). Switching off completes
  // the deferred work. Per model object; copies take the setting along.
  void SetGramIterations(bool on);
  bool GetGramIterations() const { return gram_iterations_; }
  // Whether the last fit ran on the Gram matrix and its deferred work stands (false after a fit
  // on E).
  bool IsFittingOnGram() const;
  // The shape of the residuals (observations x variables), without completing deferred work.
  int GetResidualRows() const { return residuals_->SizeRows(); }
  int GetResidualColumns() const { return residuals_->SizeColumns(); }
  // For the cross-validation of the last component: when it was fitted on the Gram matrix and the
  // model has not been deflated by it, fills `state` and returns true; else false. The group Gram
  // matrices are those of the residual rows of each observation group (codes 0..groups-1, one per
  // row): formed at the first call from the rows the Gram matrix was formed of, kept with the
  // model and brought up to its deflations at each call, so that later components need no pass
  // over the data for them. The pointers are valid until the next call on the model.
  bool GetGramState(const GroupVector& codes, int groups, mvda::detail::PcaGramState& state) const;

  // --- Stream (pca_stream.cpp): record "NCPCA" version 2 and a directory of P' (entry 0), T' (1)
  // and E (2) as NCDataMatrix<float> objects, the maximum of iterations (3) and the iterations of
  // the last component (4), four bytes each. The matrices are written in full by every model, also
  // by copies sharing them in one pass. A read accepts version 2 only, keeps the component count
  // as it was (callers take it from the rows of P'), and on failure returns false (a TwStreamError
  // is caught) with the model unchanged.
  static UStreamableData MyStreamableData;
  static int GetUStreamVersionNumber() { return MyStreamableData.GetUStreamVersionNumber(); }
  static int GetMyUStreamVersionNumber() { return MyStreamableData.GetMyUStreamVersionNumber(); }
  bool UStreamableStartWrite(std::ostream& os) const override;
  bool UStreamableWrite(std::ostream& os) const override;
  bool UStreamableStartRead(std::istream& is) override;
  bool UStreamableRead(std::istream& is) override;  // ReadStreamDirectory(is)
  bool ReadStreamDirectory(std::istream& is);

 private:
  struct Kernel;  // the Gram matrix and the deferred work, shared by copies (pca.cpp)
  bool FitOnGram(NCProgress* progress);
  bool FitOnRowGram(NCProgress* progress);
  void Complete(bool residuals) const;  // forms the deferred scores (and residuals)
  void LeaveGram() const;               // completes, and the next fit starts afresh
  void DropGram() const;                // forgets the deferred work, for matrices being replaced

  std::shared_ptr<Kernel> kernel_;
  bool gram_iterations_ = true;
  std::shared_ptr<Matrix> pprim_;
  std::shared_ptr<Matrix> tprim_;
  std::shared_ptr<Matrix> residuals_;
  int components_ = 0;
  int max_iterations_ = 0;
  int iterations_ = 0;
};

#endif  // MVDA_MODELS_PCA_H_
