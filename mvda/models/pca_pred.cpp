// ScoreEstimator (projection and PLS estimate of one observation's scores) and NCPCAPred (the
// scores of all new observations, computed in parallel, and their stepwise residuals).
#include <mvda/containers/detail/critical_section.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/models/pca_pred.h>
#include <mvda/models/pls.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <string>

namespace {

using Matrix = NCPCAPred::Matrix;
using Vector = NCPCAPred::Vector;

constexpr float kMis = -99.0f;

[[noreturn]] void Fail(const char* place, const std::string& fault) {
  throw NCError(std::string(place) + ": " + fault);
}

// The transpose of P' as a new matrix: the estimator is P, one row per variable.
Matrix Transposed(const Matrix& pprim) {
  Matrix p;
  p.CopyContent(pprim);
  p.Transpose();
  return p;
}

void CheckIterations(const char* place, int maxIterations) {
  if (maxIterations < 0)
    Fail(place, "negative maximum of iterations " + std::to_string(maxIterations));
}

// Column i of T' (the scores of observation i, or missing scores when it was not scored), written
// by one thread of the score loop at a time.
struct ScoreColumn {
  Matrix* tprim;
  const Vector* t;
  int i;
  bool scored;
};

void WriteScoreColumn(void* context) {
  const ScoreColumn& c = *static_cast<const ScoreColumn*>(context);
  for (int a = 1; a <= c.tprim->SizeRows(); ++a) (*c.tprim)(a, c.i, c.scored ? (*c.t)[a] : kMis);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// ScoreEstimator

ScoreEstimator::ScoreEstimator(const Matrix& Pprim, int maxIterations)
    : Matrix((CheckIterations("ScoreEstimator::ScoreEstimator", maxIterations), Transposed(Pprim))),
      pprim_(Pprim),
      max_iterations_(maxIterations) {}

// Deep: a copy shares no buffer with its source, so that threads that each work with their own
// copy never touch the same reference counts (the PLS models made from an estimator share its
// rows until they deflate them).
ScoreEstimator::ScoreEstimator(const ScoreEstimator& other)
    : UStreamBase(other), Matrix(), max_iterations_(other.max_iterations_) {
  CopyContent(other);
  pprim_.CopyContent(other.pprim_);
}

ScoreEstimator& ScoreEstimator::operator=(const ScoreEstimator& other) {
  if (this != &other) {
    ScoreEstimator copy(other);
    Matrix::swap(copy);
    pprim_.swap(copy.pprim_);
    max_iterations_ = copy.max_iterations_;
  }
  return *this;
}

ScoreEstimator::~ScoreEstimator() = default;

void ScoreEstimator::GetT(Vector& t, const Vector& x) const { Score(t, x, nullptr); }

void ScoreEstimator::Score(Vector& t, const Vector& x, Matrix* column) const {
  const int a = pprim_.SizeRows();
  if (a == 0) return;
  if (x.Size() != pprim_.SizeColumns() || t.Size() != a)
    Fail("ScoreEstimator::GetT", "an observation of " + std::to_string(x.Size()) + " values and " +
                                     std::to_string(t.Size()) + " scores for a model of " +
                                     std::to_string(a) + " components and " +
                                     std::to_string(pprim_.SizeColumns()) + " variables");
  if (x.GetNumMisVal() == 0)
    EstimateWhitoutMisVal(t, x);
  else
    EstimateWhitMisVal(t, x, column);
}

void ScoreEstimator::EstimateWhitoutMisVal(Vector& t, const Vector& x) const {
  const int components = pprim_.SizeRows();
  Vector r = x;  // shares x's buffer until the first deflation
  for (int a = 1; a <= components; ++a) {
    const long double score = pprim_[a] * r;
    if (score == kMis) {  // no variable in common: nothing to project on
      t(a, kMis);
      continue;
    }
    t(a, static_cast<float>(score));
    if (a < components) r.TransformTo_Sub_d_x_Vt(static_cast<float>(score), pprim_[a]);
  }
}

// PLS (NIPALS) of the observation on the loadings: the variables are the observations of the
// regression, P (K x A) is its X and x its one y column, whose missing values take no part. The
// coefficients estimate the scores that the complete row would have. They are the least-squares
// scores of the present values when the loadings vanish on the missing variables and the fit
// runs to A components; otherwise an approximation, since the start y fills the gaps with small
// values and the components are fitted one after another. Components are added until one of
// these holds, tested in this order:
//   1. the component count reaches min(present values, A): no more components than the present
//      values can determine;
//   2. the new Y weight c is at least 2.0, or NaN: the observation lies far out along the new
//      direction, which then carries it, and later components would fit what little is left;
//   3. the X residuals keep at most 1e-5 of SS(x): the loadings are used up.
// A degenerate component (NCPLSDegenerateError in the strict fit: the y residual has nothing left
// along the X residuals, e.g. a row whose present values lie exactly in the loading space) is one
// more stop: the components before it are kept. When it is the first, there are no components and
// every score is 0, as it is for an observation without a present value, which is the least
// squares answer for a y that nothing in P explains: the model's centre.
void ScoreEstimator::EstimateWhitMisVal(Vector& t, const Vector& x, Matrix* column) const {
  const int components = pprim_.SizeRows();
  const int present = x.Size() - x.GetNumMisVal();
  const int limit = std::min(present, components);
  if (limit == 0) {
    for (int a = 1; a <= components; ++a) t(a, 0.0f);
    return;
  }
  const long double s = x.GetSS();
  // A NaN or infinite value would make the first component degenerate and so score the row 0,
  // a plausible number from an impossible row; NaN scores show it, as projection does.
  if (!std::isfinite(s)) {
    for (int a = 1; a <= components; ++a) t(a, std::numeric_limits<float>::quiet_NaN());
    return;
  }
  Matrix own;
  if (!column) column = &own;
  if (column->SizeRows() != x.Size() || column->SizeColumns() != 1)
    *column = Matrix(x.Size(), 1, 0.0f);
  column->SetColumn(1, x);
  NCPLS pls(this, column, max_iterations_);
  for (int count = 0;;) {
    try {
      // Quiet: a null progress that is not quiet would make a default progress object (a text
      // bar on a terminal) for every component of every observation, on a worker thread, where
      // only the calling thread may talk to a progress object.
      pls.NextComponent(nullptr, nullptr, true, true);
    } catch (const NCPLSDegenerateError&) {
      break;  // only this one: a stop or any other failure reaches the caller
    }
    ++count;
    if (count >= limit) break;
    const float c = (*pls.GetCprim())[count][1];
    if (!(c < 2.0f)) break;
    // Deflated only now: the coefficients do not depend on the residuals, so a fit that stops on
    // the first two rules skips a deflation, which copies every row of the model's X and Y (one
    // small buffer per variable) and costs more than the component itself.
    pls.CalculateResiduals();
    if (pls.GetXResiduals()->GetSS() <= 1e-5L * s) break;
  }
  const Matrix b = pls.GetRegressionCoefficients(-1);
  const bool none = b.GetNumMisVal() == b.SizeRows() * b.SizeColumns();
  for (int a = 1; a <= b.SizeRows(); ++a) t(a, none ? 0.0f : b[a][1]);
}

// ---------------------------------------------------------------------------------------------
// NCPCAPred

NCPCAPred::NCPCAPred(const Matrix* X, const Matrix* Pprim, int maxIterations,
                     float maxMissingFraction) {
  constexpr const char* place = "NCPCAPred::NCPCAPred";
  if (!X) Fail(place, "null data matrix");
  if (!Pprim) Fail(place, "null loading matrix");
  if (Pprim->SizeRows() > 0 && Pprim->SizeColumns() != X->SizeColumns())
    Fail(place, "loadings of " + std::to_string(Pprim->SizeColumns()) + " variables for data of " +
                    std::to_string(X->SizeColumns()));
  CheckIterations(place, maxIterations);
  if (!(maxMissingFraction >= 0.0f))
    Fail(place,
         "maximum missing fraction " + std::to_string(maxMissingFraction) + " (0 or more needed)");
  x_residuals_ = *X;  // copy on write: X's rows are shared until the first deflation
  pprim_.CopyContent(*Pprim);
  tpred_prim_ = Matrix(pprim_.SizeRows(), X->SizeRows(), kMis);
  max_missing_fraction_ = maxMissingFraction;
  CalculateScores(maxIterations);
}

// The containers copy on write, so member-wise copies are independent: a deflation or removal
// through one object never shows in the other.
NCPCAPred::NCPCAPred(const NCPCAPred& other) = default;
NCPCAPred& NCPCAPred::operator=(const NCPCAPred& other) = default;
NCPCAPred::~NCPCAPred() = default;

void NCPCAPred::CalculateScores(int maxIterations) {
  const int n = x_residuals_.SizeRows();
  const int components = pprim_.SizeRows();
  if (n == 0 || components == 0) return;
  const ScoreEstimator shared(pprim_, maxIterations);
  const int k = x_residuals_[1].Size();
  const float limit = max_missing_fraction_;
  tpred_prim_.ForceUnlink();  // so that no write in the loop allocates
  Matrix* tprim = &tpred_prim_;
  const Matrix& x = x_residuals_;

  const int team = n > 1 ? mvda::detail::TeamSize() : 1;
  mvda::detail::FirstException first;
#pragma omp parallel num_threads(team) if (team > 1)
  {
    // This thread's own estimator, scores and PLS y column, reused from one observation to the
    // next. A private estimator keeps the threads off each other's reference counts: the vector
    // operations and the PLS models take shares of the estimator's rows, and with one estimator
    // for all threads the counts' cache lines bounce between the processors (on two cores that
    // made the loop about twice as slow). Made inside Run, like every step here, so that not even
    // a failed allocation leaves the parallel region.
    std::unique_ptr<ScoreEstimator> estimator;
    Vector t;
    Matrix column;
    first.Run([&] {
      estimator = std::make_unique<ScoreEstimator>(shared);
      t.SetSize(components);
    });
#pragma omp for schedule(static)
    for (int i = 1; i <= n; ++i) {
      // After any failure, on any thread, Run returns at once: no estimator is used unmade.
      first.Run([&] {
        // In single precision, as the host computes the share it shows; a NaN (no variables)
        // fails the test and so counts as too many missing values.
        const float share = static_cast<float>(x[i].GetNumMisVal()) / static_cast<float>(k);
        const bool scored = share <= limit;
        if (scored) estimator->Score(t, x[i], &column);
        ScoreColumn write{tprim, &t, i, scored};
        // T' rows are shared by all observations (a write updates their missing counts).
        mvda::detail::RunInCriticalSection(WriteScoreColumn, &write);
      });
    }
  }
  first.Rethrow();
}

void NCPCAPred::CalcNextResidual() {
  const int components = pprim_.SizeRows();
  if (computed_ >= components)
    Fail("NCPCAPred::CalcNextResidual",
         "all " + std::to_string(components) + " components already applied");
  const int a = computed_ + 1;
  x_residuals_.TransformToSub_V_x_Vt(tpred_prim_[a], pprim_[a]);
  computed_ = a;
}

void NCPCAPred::RemoveObservations(const IndexVector& list) {
  // Columns first: a failure there leaves both matrices as they were.
  Matrix tprim = tpred_prim_;
  tprim.RemoveColumns(list);
  x_residuals_.RemoveRows(list);
  tpred_prim_.swap(tprim);
}
