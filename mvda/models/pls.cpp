// NCPLS: construction, the NIPALS step, deflation and the derived weights and coefficients.
// Streaming is in pls_stream.cpp.
#include <mvda/models/detail/pls_parts.h>
#include <mvda/models/pls.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/progress.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace {

using Matrix = NCPLS::Matrix;
using Vector = NCPLS::Vector;

constexpr float kMis = -99.0f;

// Sums of squares that cannot be computed (nothing present) count as no variation.
double SumOfSquares(long double ss) { return ss == kMis ? 0.0 : static_cast<double>(ss); }

// The convergence value: 10 (log10 d + 10), which reaches 0 at d = 1e-10, falls by 10 per decade
// and serves as the progress value; -1 below 1e-30 (and for a change that could not be
// computed), where the logarithm means nothing.
double ConvergenceValue(double d) { return d >= 1e-30 ? 10.0 * (std::log10(d) + 10.0) : -1.0; }

std::shared_ptr<Matrix> NewMatrix(int rows, int cols) {
  return std::make_shared<Matrix>(rows, cols, 0.0f);
}

std::shared_ptr<Matrix> CopyOf(const Matrix* m, const char* name) {
  if (!m) throw NCError(std::string("NCPLS::NCPLS: ") + name + " is null", NCError::kNumerical);
  return std::make_shared<Matrix>(*m);
}

// y as an N x 1 matrix, after the checks that the matrix constructor cannot make on a vector.
Matrix AsColumn(const Matrix* x, const Vector* y) {
  if (!y) throw NCError("NCPLS::NCPLS: y is null");
  if (x && y->Size() != x->SizeRows())
    throw NCError("NCPLS::NCPLS: X has " + std::to_string(x->SizeRows()) + " rows but y has " +
                  std::to_string(y->Size()) + " elements");
  Matrix column(y->Size(), 1, 0.0f);
  column.SetColumn(1, *y);
  return column;
}

// A temporary as a pointer argument; it lives to the end of the full expression.
const Matrix* Keep(const Matrix& m) { return &m; }

void CheckIterations(int maxIterations) {
  if (maxIterations < 0)
    throw NCError("NCPLS::NCPLS: negative maximum iterations " + std::to_string(maxIterations));
}

}  // namespace

namespace mvda::detail {

std::string CheckPlsParts(const Matrix& xResiduals, const Matrix& yResiduals, const Matrix& cprim,
                          const Matrix& pprim, const Matrix& wprim, const Matrix& uprim,
                          const Matrix& tprim) {
  const auto shape = [](const char* name, const Matrix& m) {
    return std::string(name) + " is " + std::to_string(m.SizeRows()) + " x " +
           std::to_string(m.SizeColumns());
  };
  const int a = pprim.SizeRows();
  for (const auto& [name, m] : {std::pair<const char*, const Matrix*>{"Cprim", &cprim},
                                {"Wprim", &wprim},
                                {"Uprim", &uprim},
                                {"Tprim", &tprim}})
    if (m->SizeRows() != a) return shape(name, *m) + " but " + shape("Pprim", pprim);
  if (a > 0 && wprim.SizeColumns() != pprim.SizeColumns())
    return shape("Wprim", wprim) + " but " + shape("Pprim", pprim);
  if (a > 0 && uprim.SizeColumns() != tprim.SizeColumns())
    return shape("Uprim", uprim) + " but " + shape("Tprim", tprim);
  if (xResiduals.SizeRows() != yResiduals.SizeRows())
    return shape("XResiduals", xResiduals) + " but " + shape("YResiduals", yResiduals);
  if (a == 0) return std::string();
  if (xResiduals.SizeColumns() > 0 && xResiduals.SizeColumns() != pprim.SizeColumns())
    return shape("XResiduals", xResiduals) + " but " + shape("Pprim", pprim);
  if (yResiduals.SizeColumns() > 0 && yResiduals.SizeColumns() != cprim.SizeColumns())
    return shape("YResiduals", yResiduals) + " but " + shape("Cprim", cprim);
  if (xResiduals.SizeColumns() > 0 && xResiduals.SizeRows() != tprim.SizeColumns())
    return shape("XResiduals", xResiduals) + " but " + shape("Tprim", tprim);
  return std::string();
}

}  // namespace mvda::detail

NCPLSDegenerateError::NCPLSDegenerateError(int component)
    : NCError(LanguageString::Format(10159, component), kNumerical), component_(component) {}

NCPLSDegenerateError::~NCPLSDegenerateError() = default;

// ---------------------------------------------------------------------------------------------
// Construction

NCPLS::NCPLS()
    : cprim_(NewMatrix(0, 0)),
      pprim_(NewMatrix(0, 0)),
      wprim_(NewMatrix(0, 0)),
      uprim_(NewMatrix(0, 0)),
      tprim_(NewMatrix(0, 0)),
      x_residuals_(NewMatrix(0, 0)),
      y_residuals_(NewMatrix(0, 0)) {}

NCPLS::NCPLS(const Matrix* x, const Vector* y, int maxIterations)
    : NCPLS(x, Keep(AsColumn(x, y)), maxIterations) {}

NCPLS::NCPLS(const Matrix* x, const Matrix* y, int maxIterations) {
  if (!x || !y) throw NCError(std::string("NCPLS::NCPLS: ") + (x ? "Y" : "X") + " is null");
  if (y->SizeRows() != x->SizeRows())
    throw NCError("NCPLS::NCPLS: X has " + std::to_string(x->SizeRows()) + " rows but Y has " +
                  std::to_string(y->SizeRows()));
  CheckIterations(maxIterations);
  const int n = x->SizeRows(), k = x->SizeColumns(), m = y->SizeColumns();
  cprim_ = NewMatrix(0, m);
  pprim_ = NewMatrix(0, k);
  wprim_ = NewMatrix(0, k);
  uprim_ = NewMatrix(0, n);
  tprim_ = NewMatrix(0, n);
  x_residuals_ = std::make_shared<Matrix>(*x);
  y_residuals_ = std::make_shared<Matrix>(*y);
  max_iterations_ = maxIterations;
}

NCPLS::NCPLS(const Matrix* xResiduals, const Matrix* yResiduals, const Matrix* cprim,
             const Matrix* pprim, const Matrix* wprim, const Matrix* uprim, const Matrix* tprim,
             int maxIterations)
    : cprim_(CopyOf(cprim, "Cprim")),
      pprim_(CopyOf(pprim, "Pprim")),
      wprim_(CopyOf(wprim, "Wprim")),
      uprim_(CopyOf(uprim, "Uprim")),
      tprim_(CopyOf(tprim, "Tprim")),
      x_residuals_(CopyOf(xResiduals, "XResiduals")),
      y_residuals_(CopyOf(yResiduals, "YResiduals")),
      components_(pprim_->SizeRows()),
      max_iterations_(maxIterations) {
  CheckIterations(maxIterations);
  const std::string fault = mvda::detail::CheckPlsParts(*x_residuals_, *y_residuals_, *cprim_,
                                                        *pprim_, *wprim_, *uprim_, *tprim_);
  if (!fault.empty()) throw NCError("NCPLS::NCPLS: " + fault);
}

NCPLS::NCPLS(const NCPLS& other) = default;
NCPLS& NCPLS::operator=(const NCPLS& other) = default;
NCPLS::~NCPLS() = default;

// ---------------------------------------------------------------------------------------------
// Fitting

// NIPALS PLS (Wold): alternate the X weights w = X'u / u'u, the X scores t = Xw, the Y weights
// c = Y't / t't and the Y scores u = Yc / c'c until u stops moving. Every product is one of the
// masked regressions of the matrix, which sum over the present pairs only, so missing values in X
// and Y take no part. The vectors are reused across iterations through the result proxies, so an
// iteration allocates nothing of the size of X.
void NCPLS::NextComponent(NCProgress* progress, const Vector* startWeights, bool quiet,
                          bool strict) {
  const Matrix& x = *x_residuals_;
  const Matrix& y = *y_residuals_;
  const int n = x.SizeRows(), k = x.SizeColumns(), m = y.SizeColumns();
  if (n == 0 || k == 0 || m == 0 || y.SizeRows() != n)
    throw NCError("NCPLS::NextComponent: the model has " + std::to_string(n) + " x " +
                  std::to_string(k) + " X and " + std::to_string(y.SizeRows()) + " x " +
                  std::to_string(m) + " Y residuals; it needs observations and columns in both");
  const bool useStart = startWeights && m > 1;
  if (useStart && startWeights->Size() != k)
    throw NCError("NCPLS::NextComponent: start weights have " +
                  std::to_string(startWeights->Size()) + " elements for " + std::to_string(k) +
                  " X columns");

  // Only the strict size test needs SS(X); it costs a pass over X, so it is skipped otherwise.
  const double rootSSX = strict ? std::sqrt(SumOfSquares(x.GetSS())) : 0.0;
  const double smallest = 1e-6 / std::sqrt(static_cast<double>(k));

  Vector u, uOld, w, t, c;
  if (useStart) {
    x.Result(&t).RegressRows(*startWeights);
    y.Result(&c).RegressColumns(t);
    y.Result(&u).RegressRows(c);
  } else {
    y.Result(&u).GetNIPALSStartColumn();
  }

  std::shared_ptr<NCProgress> own;  // the call's own reporter, released on every path
  NCProgress* shown = nullptr;      // the reporter in use: none when quiet
  int iteration = 0;
  double value = 0.0;
  do {
    uOld = u;  // shares the buffer; writing u below gives u a buffer of its own
    x.Result(&w).RegressColumns(u);
    // The size of the component relative to X: the share of X that lies along the Y scores. A
    // NaN (no X variation left, or no pairs), an infinity or a vanishing size means that there
    // is nothing left to fit.
    if (strict) {
      const double size =
          std::sqrt(SumOfSquares(w.GetSS())) * std::sqrt(SumOfSquares(u.GetSS())) / rootSSX;
      if (!(std::isnormal(size) && size >= smallest)) throw NCPLSDegenerateError(components_ + 1);
    }
    w.Normalise();
    x.Result(&t).RegressRows(w);
    y.Result(&c).RegressColumns(t);
    y.Result(&u).RegressRows(c);
    ++iteration;
    // With one Y column u is y / c whatever w is, so one iteration is the converged answer.
    value = m > 1 ? ConvergenceValue(static_cast<double>(u.Difference(uOld))) : 0.0;

    if (!quiet) {
      if (iteration == 1) {
        // A zero value would give an empty range; the bar then runs from 1 to 0 instead.
        const double from = value == 0.0 ? 1.0 : -value;
        if (progress) {
          progress->SetRange(from, 0.0);
          shown = progress;
        } else {
          // Made only once the first value sets its range; then used as a host's would be, so
          // that a host's factory sees the same calls and a stop through it works.
          own =
              NCProgress::CreateDefault(LanguageString::Format(10047, components_ + 1), from, 0.0);
          shown = own.get();
        }
      }
      if (strict && shown && !shown->SetValue(-value))
        throw NCError(LanguageString::Get(10160), NCError::kStopRequested);
    }
  } while (value > 0.0 && iteration < max_iterations_);

  if (strict && shown && shown->IsBreakPressed())
    throw NCError(LanguageString::Get(10161), NCError::kUserStop);

  // A component that ran out of iterations is taken as it stands.
  Vector p;
  x.Result(&p).RegressColumns(t);
  // Grown aside (the copies share their rows) and swapped in, so that a failed allocation
  // leaves the five matrices with equal row counts.
  Matrix grown[] = {*wprim_, *pprim_, *tprim_, *uprim_, *cprim_};
  const Vector* rows[] = {&w, &p, &t, &u, &c};
  Matrix* targets[] = {wprim_.get(), pprim_.get(), tprim_.get(), uprim_.get(), cprim_.get()};
  for (int i = 0; i < 5; ++i) grown[i].push_back(*rows[i]);
  for (int i = 0; i < 5; ++i) targets[i]->swap(grown[i]);
  ++components_;
  iterations_ = iteration;
}

void NCPLS::CalculateResiduals() {
  if (components_ < 1 || tprim_->SizeRows() < components_)
    throw NCError("NCPLS::CalculateResiduals: the model has no component to deflate with");
  const Vector& t = (*tprim_)[components_];
  x_residuals_->TransformToSub_V_x_Vt(t, (*pprim_)[components_]);
  y_residuals_->TransformToSub_V_x_Vt(t, (*cprim_)[components_]);
}

void NCPLS::FlipComponent(int a) {
  if (a < 1 || a > components_)
    throw NCError("NCPLS::FlipComponent: component " + std::to_string(a) + " outside 1.." +
                  std::to_string(components_));
  for (Matrix* prim : {cprim_.get(), pprim_.get(), wprim_.get(), uprim_.get(), tprim_.get()})
    prim->MultiplyRow(a, -1.0f);
}

void NCPLS::ShuffleYResiduals(const int* permutation) {
  Matrix& y = *y_residuals_;
  const int n = y.SizeRows();
  if (components_ > 0 || n == 0 || y.SizeColumns() == 0)
    throw NCError(LanguageString::Get(10162), NCError::kNumerical);
  if (!permutation) throw NCError("NCPLS::ShuffleYResiduals: the permutation is null");
  std::vector<char> seen(static_cast<std::size_t>(n) + 1, 0);
  for (int i = 1; i <= n; ++i) {
    const int from = permutation[i];
    if (from < 1 || from > n || seen[from])
      throw NCError("NCPLS::ShuffleYResiduals: element " + std::to_string(i) + " (" +
                    std::to_string(from) + ") makes it no permutation of 1.." + std::to_string(n));
    seen[from] = 1;
  }
  Matrix shuffled;
  shuffled.ReserveRows(n);
  for (int i = 1; i <= n; ++i) shuffled.push_back(y[permutation[i]]);  // rows share buffers
  y = shuffled;
}

// ---------------------------------------------------------------------------------------------
// Results

Matrix NCPLS::GetWStarPrim() const { return GetWStarPrim(*wprim_, *pprim_); }

Matrix NCPLS::GetWStarPrim(const Matrix& wprim, const Matrix& pprim) {
  if (wprim.SizeRows() != pprim.SizeRows() ||
      (wprim.SizeRows() > 0 && wprim.SizeColumns() != pprim.SizeColumns()))
    throw NCError("NCPLS::GetWStarPrim: W is " + std::to_string(wprim.SizeRows()) + " x " +
                  std::to_string(wprim.SizeColumns()) + " but P is " +
                  std::to_string(pprim.SizeRows()) + " x " + std::to_string(pprim.SizeColumns()));
  Matrix wstar(wprim);
  for (int a = 2; a <= wprim.SizeRows(); ++a) {
    Vector row = wprim[a];
    for (int b = 1; b < a; ++b) {
      // p_b . w_a over the present pairs; with none the rows share no variable, so there is
      // nothing to take out.
      const long double d = pprim[b] * wprim[a];
      if (d != kMis) row.TransformTo_Sub_d_x_Vt(static_cast<float>(d), wstar[b]);
    }
    wstar.SetRow(a, row);
  }
  return wstar;
}

Matrix NCPLS::GetRegressionCoefficients(int components) const {
  if (components < -1 || components > components_)
    throw NCError("NCPLS::GetRegressionCoefficients: " + std::to_string(components) +
                  " components asked of a model with " + std::to_string(components_));
  if (components == -1 || components == components_)
    return GetRegressionCoefficients(*pprim_, *wprim_, *cprim_);
  return GetRegressionCoefficients(pprim_->GetRowSubMatrix(1, components),
                                   wprim_->GetRowSubMatrix(1, components),
                                   cprim_->GetRowSubMatrix(1, components));
}

Matrix NCPLS::GetRegressionCoefficients(const Matrix& pprim, const Matrix& wprim,
                                        const Matrix& cprim) {
  if (cprim.SizeRows() != pprim.SizeRows())
    throw NCError("NCPLS::GetRegressionCoefficients: C has " + std::to_string(cprim.SizeRows()) +
                  " rows but P has " + std::to_string(pprim.SizeRows()));
  const Matrix wstar = GetWStarPrim(wprim, pprim);
  // Without components nothing is predicted: B = 0.
  if (wstar.SizeRows() == 0) return Matrix(wstar.SizeColumns(), cprim.SizeColumns(), 0.0f);
  return wstar.MatrixMultiply(cprim, true, false);
}
