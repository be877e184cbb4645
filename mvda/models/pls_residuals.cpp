// NCPLSResiduals: scoring and deflation of observations by a fitted PLS model.
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/models/pls_residuals.h>
#include <mvda/platform/error.h>

#include <cmath>
#include <string>

namespace {

using Matrix = NCPLSResiduals::Matrix;

std::string Shape(const Matrix& m) {
  return std::to_string(m.SizeRows()) + " x " + std::to_string(m.SizeColumns());
}

Matrix* CheckedX(Matrix* x, const Matrix& wprim, const Matrix& pprim, float tolerance) {
  const char* place = "NCPLSResiduals::NCPLSResiduals: ";
  if (!x) throw NCError(std::string(place) + "X is null");
  if (wprim.SizeRows() != pprim.SizeRows() || wprim.SizeColumns() != pprim.SizeColumns())
    throw NCError(place + ("Wprim is " + Shape(wprim)) + " but Pprim is " + Shape(pprim));
  if (wprim.SizeRows() > 0 && x->SizeColumns() != wprim.SizeColumns())
    throw NCError(place + ("X is " + Shape(*x)) + " but Wprim is " + Shape(wprim));
  if (!(tolerance >= 0.0f))
    throw NCError(place + ("missing tolerance " + std::to_string(tolerance)) + " is not >= 0");
  return x;
}

}  // namespace

NCPLSResiduals::NCPLSResiduals(Matrix* x, const Matrix& wprim, const Matrix& pprim,
                               float missingTolerance)
    : Vector(CheckedX(x, wprim, pprim, missingTolerance)->SizeRows()),
      weights_(wprim),
      loadings_(pprim),
      x_(x),
      missing_tolerance_(missingTolerance) {}

NCPLSResiduals::NCPLSResiduals(const NCPLSResiduals& other) = default;
NCPLSResiduals& NCPLSResiduals::operator=(const NCPLSResiduals& other) = default;
NCPLSResiduals::~NCPLSResiduals() = default;

void NCPLSResiduals::CalcNextComponent() {
  ApplyNextComponent("NCPLSResiduals::CalcNextComponent");
}

void NCPLSResiduals::ApplyNextComponent(const char* place) {
  const int maxComp = GetMaxComp();
  if (computed_ >= maxComp)
    throw NCError(std::string(place) + ": all " + std::to_string(maxComp) +
                  " components already applied");
  Matrix& x = *x_;
  const int n = Size(), k = loadings_.SizeColumns();
  if (x.SizeRows() != n || x.SizeColumns() != k)
    throw NCError(std::string(place) + ": X is " + Shape(x) + " but was " + std::to_string(n) +
                  " x " + std::to_string(k) + " when the object was made");

  // The a-th component (from 0) asks for at least a + 1 present values, one for each score the row
  // then has; the tolerance can only ask for more. K x tolerance is rounded to single precision,
  // the tolerance's own, before it is truncated.
  const int a = computed_;
  int limit = k - a - 1;
  const float allowed = static_cast<float>(k) * missing_tolerance_;
  if (allowed < static_cast<float>(limit)) limit = static_cast<int>(allowed);

  const Vector& w = weights_[a + 1];
  Unlink();
  float* t = GetVector();
  int missing = 0;
  const int team = n > 1 ? mvda::detail::TeamSize() : 1;
  mvda::detail::FirstException first;
  // Each observation writes its own score, so the scores do not depend on the team; only the
  // missing count is combined.
#pragma omp parallel for num_threads(team) schedule(static) reduction(+ : missing) if (team > 1)
  for (int i = 1; i <= n; ++i) {
    first.Run([&] {
      const Vector& row = x[i];
      float score = -99.0f;
      if (row.GetNumMisVal() <= limit)
        score = static_cast<float>(w.SpecialNipalsRegressFix(row));  // -99 without a pair
      t[i] = score;
      if (score == -99.0f) ++missing;
    });
  }
  first.Rethrow();
  SetNumMisVal(missing);
  computed_ = a + 1;
  x.TransformToSub_V_x_Vt(*this, loadings_[computed_]);
}
