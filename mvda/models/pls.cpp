// NCPLS: construction, the NIPALS step, deflation and the derived weights and coefficients.
// Streaming is in pls_stream.cpp.
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/models/detail/gram.h>
#include <mvda/models/detail/pls_parts.h>
#include <mvda/models/pls.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/progress.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
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

// The Gram path's state, shared by a model and its copies like the matrices it stands for.
struct NCPLS::Kernel {
  bool live = false;
  Matrix xbase, ybase;  // the residuals when the cross products were formed (sharing their rows)
  int k = 0, m = 0;
  std::vector<double> xx, xy, yy;  // of the residuals as the host sees them, deflations included
  // Components fitted on the cross products, by row of the prim matrices, with the deflations made
  // before each and the Y weights g of their Y scores u = Y g; their T and U rows are formed when
  // read.
  std::vector<int> fitted, levelAt;
  std::vector<std::vector<double>> g;
  std::size_t scored = 0;
  std::vector<int> deflated;  // components deflated since the cross products were formed
  std::size_t applied = 0;    // deflated[0..applied) applied to the residual matrices
  double tt = 0;              // t't of the last fit, which deflates the cross products
};

// ---------------------------------------------------------------------------------------------
// Construction

NCPLS::NCPLS()
    : kernel_(std::make_shared<Kernel>()),
      cprim_(NewMatrix(0, 0)),
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
  kernel_ = std::make_shared<Kernel>();
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
    : kernel_(std::make_shared<Kernel>()),
      cprim_(CopyOf(cprim, "Cprim")),
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

  // The cross products need complete data, and pay when X has at least as many rows as columns.
  Kernel& kernel = *kernel_;
  if (gram_iterations_ && (!useStart || startWeights->GetNumMisVal() == 0) && n >= k &&
      (kernel.live || (x.GetNumMisVal() == 0 && y.GetNumMisVal() == 0))) {
    FitOnGram(progress, useStart ? startWeights : nullptr, quiet, strict);
    return;
  }
  if (kernel.live) LeaveGram();

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
  Kernel& kn = *kernel_;
  if (kn.live) {
    const int a = components_;
    // The cross products follow a deflation by a component fitted on them at the present
    // deflation; anything else is done on X and Y.
    if (!kn.fitted.empty() && kn.fitted.back() == a &&
        kn.levelAt.back() == static_cast<int>(kn.deflated.size()) &&
        (kn.deflated.empty() || kn.deflated.back() != a)) {
      // With p = X't / t't and c = Y't / t't: X'X -= t't p p', X'Y -= t't p c', Y'Y -= t't c c'.
      const int k = kn.k, m = kn.m;
      const float* pf = (*pprim_)[a].GetVector() + 1;
      const float* cf = (*cprim_)[a].GetVector() + 1;
      const std::vector<double> p(pf, pf + k), c(cf, cf + m);
      const double tt = kn.tt;
      mvda::detail::ParallelFor(k, [&](int j) {
        double* row = kn.xx.data() + static_cast<std::size_t>(j) * k;
        for (int l = 0; l < k; ++l) row[l] -= tt * p[j] * p[l];
        double* cross = kn.xy.data() + static_cast<std::size_t>(j) * m;
        for (int l = 0; l < m; ++l) cross[l] -= tt * p[j] * c[l];
      });
      for (int j = 0; j < m; ++j)
        for (int l = 0; l < m; ++l) kn.yy[static_cast<std::size_t>(j) * m + l] -= tt * c[j] * c[l];
      kn.deflated.push_back(a);
      return;
    }
    LeaveGram();
  }
  const Vector& t = (*tprim_)[components_];
  x_residuals_->TransformToSub_V_x_Vt(t, (*pprim_)[components_]);
  y_residuals_->TransformToSub_V_x_Vt(t, (*cprim_)[components_]);
}

void NCPLS::FlipComponent(int a) {
  if (a < 1 || a > components_)
    throw NCError("NCPLS::FlipComponent: component " + std::to_string(a) + " outside 1.." +
                  std::to_string(components_));
  Complete(false);  // the rows of T and U to be flipped; t p' and t c' keep their signs
  for (Matrix* prim : {cprim_.get(), pprim_.get(), wprim_.get(), uprim_.get(), tprim_.get()})
    prim->MultiplyRow(a, -1.0f);
}

void NCPLS::ShuffleYResiduals(const int* permutation) {
  Matrix& y = *y_residuals_;
  const int n = y.SizeRows();
  if (components_ > 0 || n == 0 || y.SizeColumns() == 0)
    throw NCError(LanguageString::Get(10162), NCError::kNumerical);
  if (!permutation) throw NCError("NCPLS::ShuffleYResiduals: the permutation is null");
  LeaveGram();
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
// NIPALS on the cross products

// NIPALS PLS as NextComponent runs it on X and Y, with t = X q (q = w / w'w) and u = Y g
// (g = c / c'c) kept as their coefficient vectors q and g: X'u = X'Y g, u'u = g'Y'Y g,
// Y't = (X'Y)'q, t't = q'X'X q, and X't = X'X q.
void NCPLS::FitOnGram(NCProgress* progress, const Vector* startWeights, bool quiet, bool strict) {
  Kernel& kn = *kernel_;
  if (!kn.live) {
    kn = Kernel();
    kn.xbase = *x_residuals_;
    kn.ybase = *y_residuals_;
    kn.k = kn.xbase.SizeColumns();
    kn.m = kn.ybase.SizeColumns();
    mvda::detail::CrossProducts products =
        std::move(mvda::detail::FormCrossProducts(kn.xbase, &kn.ybase, {}).front());
    kn.xx = std::move(products.xx);
    kn.xy = std::move(products.xy);
    kn.yy = std::move(products.yy);
    kn.live = true;
  }
  const int k = kn.k, m = kn.m, n = kn.xbase.SizeRows();
  const std::vector<double>&XX = kn.xx, &XY = kn.xy, &YY = kn.yy;

  double traceX = 0;
  for (int j = 0; j < k; ++j) traceX += XX[static_cast<std::size_t>(j) * k + j];
  const double rootSSX = strict ? std::sqrt(traceX) : 0.0;

  std::shared_ptr<NCProgress> own;  // the call's own reporter, released on every path
  NCProgress* shown = nullptr;
  int iteration = 0;
  mvda::detail::PlsGramFit fit = mvda::detail::FitPlsOnGram(
      XX, XY, YY, k, m, startWeights ? startWeights->GetVector() + 1 : nullptr, max_iterations_,
      strict, rootSSX, [&](double value) {
        ++iteration;
        if (quiet) return;
        if (iteration == 1) {
          const double from = value == 0.0 ? 1.0 : -value;
          if (progress) {
            progress->SetRange(from, 0.0);
            shown = progress;
          } else {
            own = NCProgress::CreateDefault(LanguageString::Format(10047, components_ + 1), from,
                                            0.0);
            shown = own.get();
          }
        }
        if (strict && shown && !shown->SetValue(-value))
          throw NCError(LanguageString::Get(10160), NCError::kStopRequested);
      });
  if (fit.degenerate) throw NCPLSDegenerateError(components_ + 1);

  if (strict && shown && shown->IsBreakPressed())
    throw NCError(LanguageString::Get(10161), NCError::kUserStop);

  Vector wv, pv, cv;
  wv.CopyZeroBasedVector(fit.w.data(), k);
  pv.CopyZeroBasedVector(fit.p.data(), k);
  cv.CopyZeroBasedVector(fit.c.data(), m);
  const Vector later(n, kMis);  // t and u, formed when read
  Matrix grown[] = {*wprim_, *pprim_, *tprim_, *uprim_, *cprim_};
  const Vector* rows[] = {&wv, &pv, &later, &later, &cv};
  Matrix* targets[] = {wprim_.get(), pprim_.get(), tprim_.get(), uprim_.get(), cprim_.get()};
  for (int i = 0; i < 5; ++i) grown[i].push_back(*rows[i]);
  kn.fitted.reserve(kn.fitted.size() + 1);
  kn.levelAt.reserve(kn.levelAt.size() + 1);
  kn.g.reserve(kn.g.size() + 1);
  for (int i = 0; i < 5; ++i) targets[i]->swap(grown[i]);
  ++components_;
  iterations_ = fit.iterations;
  kn.fitted.push_back(components_);
  kn.levelAt.push_back(static_cast<int>(kn.deflated.size()));
  kn.g.push_back(std::move(fit.g));
  kn.tt = fit.tt;
}

// t_a = X_a q_a and u_a = Y_a g_a, with X_a, Y_a the data less t_b p_b' and t_b c_b' of the
// deflations made before a: the data times every pending q in one product, then the small
// corrections.
void NCPLS::Complete(bool residuals) const {
  Kernel& kn = *kernel_;
  if (!kn.live) return;
  const int n = kn.xbase.SizeRows(), k = kn.k, m = kn.m;
  if (kn.scored < kn.fitted.size()) {
    const std::size_t first = kn.scored;
    const int width = static_cast<int>(kn.fitted.size() - first);
    std::vector<float> directions(static_cast<std::size_t>(k) * width);
    std::vector<double> scale(static_cast<std::size_t>(width));
    for (int h = 0; h < width; ++h) {
      const float* w = (*wprim_)[kn.fitted[first + h]].GetVector() + 1;
      double ww = 0;
      for (int j = 0; j < k; ++j) {
        directions[static_cast<std::size_t>(j) * width + h] = w[j];
        ww += static_cast<double>(w[j]) * w[j];
      }
      scale[static_cast<std::size_t>(h)] = ww;
    }
    std::vector<float> z(static_cast<std::size_t>(n) * width);
    mvda::detail::RowProducts(kn.xbase, directions.data(), width, z.data());
    std::vector<double> t(static_cast<std::size_t>(n)), u(static_cast<std::size_t>(n));
    std::vector<float> tf(static_cast<std::size_t>(n)), uf(static_cast<std::size_t>(n));
    for (int h = 0; h < width; ++h) {
      const std::size_t f = first + static_cast<std::size_t>(h);
      const int a = kn.fitted[f];
      const float* w = (*wprim_)[a].GetVector() + 1;
      const std::vector<double>& g = kn.g[f];
      for (int i = 0; i < n; ++i) {
        t[i] = z[static_cast<std::size_t>(i) * width + h];
        const float* yi = kn.ybase[i + 1].GetVector() + 1;
        double s = 0;
        for (int l = 0; l < m; ++l) s += yi[l] * g[l];
        u[i] = s;
      }
      for (int level = 0; level < kn.levelAt[f]; ++level) {
        const int b = kn.deflated[static_cast<std::size_t>(level)];
        const float* pb = (*pprim_)[b].GetVector() + 1;
        const float* cb = (*cprim_)[b].GetVector() + 1;
        const float* tb = (*tprim_)[b].GetVector() + 1;
        double pw = 0, cg = 0;
        for (int j = 0; j < k; ++j) pw += static_cast<double>(pb[j]) * w[j];
        for (int l = 0; l < m; ++l) cg += cb[l] * g[l];
        for (int i = 0; i < n; ++i) {
          t[i] -= tb[i] * pw;
          u[i] -= tb[i] * cg;
        }
      }
      const double ww = scale[static_cast<std::size_t>(h)];
      for (int i = 0; i < n; ++i) {
        tf[i] = static_cast<float>(t[i] / ww);
        uf[i] = static_cast<float>(u[i]);
      }
      Vector tv, uv;
      tv.CopyZeroBasedVector(tf.data(), n);
      uv.CopyZeroBasedVector(uf.data(), n);
      tprim_->SetRow(a, tv);
      uprim_->SetRow(a, uv);
    }
    kn.scored = kn.fitted.size();
  }
  if (!residuals || kn.applied == kn.deflated.size()) return;
  std::vector<const float*> ts, ps, cs;
  for (std::size_t l = kn.applied; l < kn.deflated.size(); ++l) {
    ts.push_back((*tprim_)[kn.deflated[l]].GetVector() + 1);
    ps.push_back((*pprim_)[kn.deflated[l]].GetVector() + 1);
    cs.push_back((*cprim_)[kn.deflated[l]].GetVector() + 1);
  }
  mvda::detail::SubtractOuterProducts(*x_residuals_, ts, ps);
  mvda::detail::SubtractOuterProducts(*y_residuals_, ts, cs);
  kn.applied = kn.deflated.size();
}

void NCPLS::LeaveGram() const {
  Complete(true);
  DropGram();
}

void NCPLS::DropGram() const { *kernel_ = Kernel(); }

bool NCPLS::IsFittingOnGram() const { return kernel_->live; }

void NCPLS::SetGramIterations(bool on) {
  if (!on) LeaveGram();
  gram_iterations_ = on;
}

const Matrix* NCPLS::GetTprim() const {
  Complete(false);
  return tprim_.get();
}

const Matrix* NCPLS::GetUprim() const {
  Complete(false);
  return uprim_.get();
}

const Matrix* NCPLS::GetXResiduals() const {
  Complete(true);
  return x_residuals_.get();
}

const Matrix* NCPLS::GetYResiduals() const {
  Complete(true);
  return y_residuals_.get();
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
