// NCPCA: construction, sharing, the NIPALS component and deflation. Streaming is in
// pca_stream.cpp.
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/models/detail/gram.h>
#include <mvda/models/pca.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr float kMis = -99.0f;

[[noreturn]] void Fail(const char* place, const std::string& fault) {
  throw NCError(std::string("NCPCA::") + place + ": " + fault);
}

std::string Shape(const NCDataMatrix<float>& m) {
  return std::to_string(m.SizeRows()) + " x " + std::to_string(m.SizeColumns());
}

// Positive while d > 1e-10 and falling by 10 per decade of d, so that -c climbs to 0 as the
// iteration converges and serves directly as a progress value.
double ConvergenceMeasure(double d) { return d > 1e-30 ? 10 * (std::log10(d) + 10) : -1.0; }

// The loading of every variable of the left-out group becomes missing, which also keeps those
// variables out of the score regression and out of the loading's length.
void ExcludeVariables(NCDataVector<float>& p, const NCIntegralVector<int, -99>* groups, int group) {
  if (!groups) return;
  for (int j = 1; j <= p.Size(); ++j)
    if ((*groups)[j] == group) p(j, kMis);
}

// One NIPALS iteration's progress, the same on E and on the Gram matrix: the first convergence
// measure sets the range (on a reporter of our own when the host gave none), later ones move it,
// and a stop request ends the fit.
void ReportIteration(int count, double c, int a, NCProgress*& reporter,
                     std::shared_ptr<NCProgress>& own) {
  if (count == 1) {
    if (reporter) {
      reporter->SetRange(-c, 0.0);
    } else {
      own = NCProgress::CreateDefault(LanguageString::Format(10041, a), -c, 0.0);
      reporter = own.get();
    }
  } else if (reporter && !reporter->SetValue(-c)) {
    throw NCError(LanguageString::Get(10147), NCError::kStopRequested);
  }
}

}  // namespace

// The Gram path's state, shared by a model and its copies like the matrices it stands for.
struct NCPCA::Kernel {
  bool live = false;
  Matrix base;  // the residuals when the Gram matrix was formed (shares their rows)
  int k = 0;
  std::vector<double> gram;  // E'E of the residuals as the host sees them, deflations included
  // Components fitted on the Gram matrix, by row of P' and T', with the deflations made before
  // each; their T' rows are formed when read.
  std::vector<int> fitted, levelAt;
  std::size_t scored = 0;     // fitted[0..scored) have their T' rows
  std::vector<int> deflated;  // components deflated since the Gram matrix was formed, in order
  std::size_t applied = 0;    // deflated[0..applied) applied to the residual matrix
  // Of the last fit: E'E q with t = E q, and t't, which deflate the Gram matrix.
  std::vector<double> gq;
  double tt = 0;
  // Wide data (fewer rows than columns): gram is E E' (N x N), the scores are written at the fit,
  // gq is E't, and the column sums of squares of E pick each start column.
  bool wide = false;
  std::vector<double> columnSS;
  // The cross-validation's Gram matrices of the observation groups, deflated[0..groupLevel)
  // applied to them.
  std::vector<int> groupCodes;
  std::vector<std::vector<double>> groupGrams;
  std::size_t groupLevel = 0;
};

// ---------------------------------------------------------------------------------------------
// Construction and sharing

NCPCA::NCPCA()
    : kernel_(std::make_shared<Kernel>()),
      pprim_(std::make_shared<Matrix>()),
      tprim_(std::make_shared<Matrix>()),
      residuals_(std::make_shared<Matrix>()) {}

NCPCA::NCPCA(const Matrix* X, int maxIterations) {
  if (!X) Fail("NCPCA", "null data matrix");
  if (maxIterations < 1)
    Fail("NCPCA", "maximum of iterations " + std::to_string(maxIterations) + ", at least 1 needed");
  kernel_ = std::make_shared<Kernel>();
  residuals_ = std::make_shared<Matrix>(*X);
  pprim_ = std::make_shared<Matrix>(0, X->SizeColumns(), 0.0f);
  tprim_ = std::make_shared<Matrix>(0, X->SizeRows(), 0.0f);
  max_iterations_ = maxIterations;
}

NCPCA::NCPCA(const Matrix* residuals, const Matrix* Pprim, const Matrix* Tprim, int maxIterations) {
  if (!residuals || !Pprim || !Tprim) Fail("NCPCA", "null model part");
  if (maxIterations < 1)
    Fail("NCPCA", "maximum of iterations " + std::to_string(maxIterations) + ", at least 1 needed");
  if (Pprim->SizeRows() != Tprim->SizeRows() ||
      (Pprim->SizeRows() > 0 && (Pprim->SizeColumns() != residuals->SizeColumns() ||
                                 Tprim->SizeColumns() != residuals->SizeRows())))
    Fail("NCPCA", "loadings of " + Shape(*Pprim) + " and scores of " + Shape(*Tprim) +
                      " for residuals of " + Shape(*residuals));
  kernel_ = std::make_shared<Kernel>();
  residuals_ = std::make_shared<Matrix>();
  pprim_ = std::make_shared<Matrix>();
  tprim_ = std::make_shared<Matrix>();
  residuals_->CopyContent(*residuals);
  pprim_->CopyContent(*Pprim);
  tprim_->CopyContent(*Tprim);
  components_ = Pprim->SizeRows();
  max_iterations_ = maxIterations;
}

NCPCA::NCPCA(const NCPCA& other)
    : UStreamBase(other),
      kernel_(other.kernel_),
      gram_iterations_(other.gram_iterations_),
      pprim_(other.pprim_),
      tprim_(other.tprim_),
      residuals_(other.residuals_),
      components_(other.components_),
      max_iterations_(other.max_iterations_),
      iterations_(other.iterations_) {}

NCPCA& NCPCA::operator=(const NCPCA& other) {
  UStreamBase::operator=(other);
  kernel_ = other.kernel_;
  gram_iterations_ = other.gram_iterations_;
  pprim_ = other.pprim_;
  tprim_ = other.tprim_;
  residuals_ = other.residuals_;
  components_ = other.components_;
  max_iterations_ = other.max_iterations_;
  iterations_ = other.iterations_;
  return *this;
}

NCPCA::~NCPCA() = default;

// ---------------------------------------------------------------------------------------------
// NIPALS

bool NCPCA::NextComponent(NCProgress* progress, const GroupVector* groups, int group,
                          const Vector* start) {
  const Matrix& E = *residuals_;
  const int rows = E.SizeRows(), cols = E.SizeColumns();
  if (rows == 0 || cols == 0) Fail("NextComponent", "no data in residuals of " + Shape(E));
  if (max_iterations_ < 1)
    Fail("NextComponent",
         "maximum of iterations " + std::to_string(max_iterations_) + ", at least 1 needed");
  if (start && start->Size() != rows)
    Fail("NextComponent", "start vector of length " + std::to_string(start->Size()) + " for " +
                              std::to_string(rows) + " observations");
  if (groups && groups->Size() < cols)
    Fail("NextComponent", "variable groups of length " + std::to_string(groups->Size()) + " for " +
                              std::to_string(cols) + " variables");

  // The Gram paths need complete data: E'E with at least as many rows as columns, E E' with fewer,
  // whichever is the smaller matrix. A start vector or a group of variables left out keep the fit
  // on E.
  Kernel& kernel = *kernel_;
  if (gram_iterations_ && !groups && !start && rows > 1 && (kernel.live || E.GetNumMisVal() == 0)) {
    if (rows >= cols) return FitOnGram(progress);
    if (FitOnRowGram(progress)) return true;  // false: E without signal, fitted on E below
  }
  if (kernel.live) LeaveGram();

  const int a = ++components_;
  iterations_ = 0;
  Vector p, t;
  if (rows == 1) {
    p.CopyContent(E[1]);
    ExcludeVariables(p, groups, group);
    const long double length = p.Normalise();
    t = Vector(1, static_cast<float>(length));
    iterations_ = 1;
  } else {
    // NIPALS (Wold): alternate the two masked regressions until the scores stop changing.
    p = Vector(cols, kMis);
    if (start) {
      t.CopyContent(*start);
    } else {
      E.Result(&t).GetNIPALSStartColumn();
    }
    Vector previous;
    std::shared_ptr<NCProgress> own;  // the call's own reporter, when the host gave none
    NCProgress* reporter = progress;
    int count = 0;
    for (;;) {
      previous.CopyContent(t);
      E.Result(&p).SpecialNipalsRegressColumnsFix(t);
      ExcludeVariables(p, groups, group);
      p.Normalise();
      E.Result(&t).SpecialNipalsRegressRowsFix(p, groups, group);
      const double d = static_cast<double>(t.Difference(previous));
      if (d == mvda::kMissing) throw NCError("PCA component could not be computed.");
      const double c = ConvergenceMeasure(d);
      ReportIteration(++count, c, a, reporter, own);
      if (c <= 0 || count >= max_iterations_) break;
    }
    iterations_ = count;
  }
  pprim_->InsertRow(a, p);
  tprim_->InsertRow(a, t);
  return true;
}

void NCPCA::CalculateResiduals() {
  if (pprim_->SizeRows() == 0 || tprim_->SizeRows() == 0)
    Fail("CalculateResiduals", "the model has no component");
  Kernel& kn = *kernel_;
  if (kn.live) {
    const int a = pprim_->SizeRows();
    // The Gram matrix follows a deflation by a component fitted on it at the present deflation;
    // anything else (a second deflation by the same component) is done on E.
    if (!kn.fitted.empty() && kn.fitted.back() == a &&
        kn.levelAt.back() == static_cast<int>(kn.deflated.size()) &&
        (kn.deflated.empty() || kn.deflated.back() != a) && kn.wide) {
      // (E - t p')(E - t p')' = EE' - (s t) t' - t (s t)' + s t t' = EE' - s t t', since
      // E p = s t with s = p'p; and each column's sum of squares loses 2 p_j (E't)_j - p_j^2 t't.
      const int n = kn.base.SizeRows(), k = kn.k;
      const float* pf = (*pprim_)[a].GetVector() + 1;
      const float* tf = (*tprim_)[a].GetVector() + 1;
      double s = 0;
      for (int j = 0; j < k; ++j) s += static_cast<double>(pf[j]) * pf[j];
      mvda::detail::ParallelFor(n, [&](int i) {
        double* row = kn.gram.data() + static_cast<std::size_t>(i) * n;
        const double ti = s * tf[i];
        for (int l = 0; l < n; ++l) row[l] -= ti * tf[l];
      });
      for (int j = 0; j < k; ++j) kn.columnSS[j] += (-2 * kn.gq[j] + kn.tt * pf[j]) * pf[j];
      kn.deflated.push_back(a);
      return;
    }
    if (!kn.fitted.empty() && kn.fitted.back() == a &&
        kn.levelAt.back() == static_cast<int>(kn.deflated.size()) &&
        (kn.deflated.empty() || kn.deflated.back() != a)) {
      // (E - t p')'(E - t p') = G - p g' - g p' + (t't) p p', with g = E't = G q.
      const int k = kn.k;
      const float* pf = (*pprim_)[a].GetVector() + 1;
      std::vector<double> pd(pf, pf + k);
      const double* g = kn.gq.data();
      mvda::detail::ParallelFor(k, [&](int j) {
        double* row = kn.gram.data() + static_cast<std::size_t>(j) * k;
        for (int l = 0; l < k; ++l) row[l] += -pd[j] * g[l] - g[j] * pd[l] + kn.tt * pd[j] * pd[l];
      });
      kn.deflated.push_back(a);
      return;
    }
    LeaveGram();
  }
  residuals_->TransformToSub_V_x_Vt(tprim_->back(), pprim_->back());
}

// ---------------------------------------------------------------------------------------------
// NIPALS on the Gram matrix

// NIPALS (Wold) as NextComponent runs it on E, with every product of E replaced by one of G =
// E'E: with t = E q, the column regression E't / t't is G q / q'G q, and sum t^2 = q'G q. The
// start column j of E is t = E e_j.
bool NCPCA::FitOnGram(NCProgress* progress) {
  Kernel& kn = *kernel_;
  if (!kn.live) {
    kn = Kernel();
    kn.base = *residuals_;
    kn.k = kn.base.SizeColumns();
    kn.gram = std::move(mvda::detail::FormCrossProducts(kn.base, nullptr, {}).front().xx);
    kn.live = true;
  }
  const int k = kn.k, rows = kn.base.SizeRows();
  const std::vector<double>& G = kn.gram;
  const int a = ++components_;
  iterations_ = 0;

  // The start column: the largest sum of squares, a later one winning only by more than one
  // part in a million, as GetNIPALSStartColumn picks it.
  int index = 0;
  if (k > 1) {
    double best = 0;
    for (int j = 0; j < k; ++j) {
      const double ss = G[static_cast<std::size_t>(j) * k + j];
      if (ss > best * 1.000001) {
        best = ss;
        index = j;
      }
    }
  }
  std::vector<double> q0(k, 0.0), v0(k);
  q0[index] = 1.0;
  for (int j = 0; j < k; ++j) v0[j] = G[static_cast<std::size_t>(j) * k + index];
  const double tt0 = G[static_cast<std::size_t>(index) * k + index];

  std::shared_ptr<NCProgress> own;
  NCProgress* reporter = progress;
  int count = 0;
  const mvda::detail::PcaGramFit fit =
      mvda::detail::FitPcaOnGram(G, k, nullptr, v0, tt0, &q0, max_iterations_, [&](double c) {
        ReportIteration(++count, c, a, reporter, own);
        return true;
      });
  if (fit.failed) throw NCError("PCA component could not be computed.");
  const std::vector<float>& p = fit.p;
  iterations_ = count;
  Vector loading;
  loading.CopyZeroBasedVector(p.data(), k);
  pprim_->InsertRow(a, loading);
  tprim_->InsertRow(a, Vector(rows, kMis));  // formed when read
  kn.fitted.push_back(a);
  kn.levelAt.push_back(static_cast<int>(kn.deflated.size()));
  kn.gq = fit.gq;
  kn.tt = fit.tt;
  return true;
}

// NIPALS as NextComponent runs it on E, in the space of the rows, for wide complete data: with
// K = EE', the column regression p = E't / t't normalised is E't / sqrt(t'K t), and the row
// regression t = E p / p'p is then K t / sqrt(t'K t) (p'p = 1). The loading of the last score
// vector is formed at the end by one pass over the data, which also gives E't for the deflation.
bool NCPCA::FitOnRowGram(NCProgress* progress) {
  Kernel& kn = *kernel_;
  if (!kn.live) {
    kn = Kernel();
    kn.base = *residuals_;
    kn.k = kn.base.SizeColumns();
    kn.wide = true;
    kn.gram = mvda::detail::RowGram(kn.base);
    kn.columnSS = mvda::detail::ColumnSumsOfSquares(kn.base);
    kn.live = true;
  }
  const int k = kn.k, n = kn.base.SizeRows();
  const std::vector<double>& K = kn.gram;

  // The start column as GetNIPALSStartColumn picks it; without a sum of squares the regressions
  // have nothing to divide by, which the fit on E handles.
  int index = 0;
  if (k > 1) {
    long double best = 0;
    for (int j = 0; j < k; ++j)
      if (kn.columnSS[j] > best * 1.000001) {
        best = kn.columnSS[j];
        index = j;
      }
  }
  if (!(kn.columnSS[index] >= 1e-30)) return false;
  // Column `index` of E = base less the deflations made since.
  std::vector<double> t(static_cast<std::size_t>(n)), previous(static_cast<std::size_t>(n)),
      kt(static_cast<std::size_t>(n));
  for (int i = 0; i < n; ++i) t[i] = kn.base[i + 1][index + 1];
  for (const int b : kn.deflated) {
    const float* tb = (*tprim_)[b].GetVector() + 1;
    const double pb = (*pprim_)[b][index + 1];
    for (int i = 0; i < n; ++i) t[i] -= tb[i] * pb;
  }
  for (int i = 0; i < n; ++i) t[i] = static_cast<float>(t[i]);

  const int a = ++components_;
  iterations_ = 0;
  std::shared_ptr<NCProgress> own;
  NCProgress* reporter = progress;
  int count = 0;
  for (;;) {
    mvda::detail::SymmetricTimes(K, n, t.data(), kt.data());
    double tkt = 0;
    for (int i = 0; i < n; ++i) tkt += t[i] * kt[i];
    const double root = std::sqrt(tkt);
    double change = 0, length = 0;
    for (int i = 0; i < n; ++i) {
      const double next = kt[i] / root;
      change += (next - t[i]) * (next - t[i]);
      length += next * next;
      previous[i] = t[i];
      t[i] = next;
    }
    if (!std::isfinite(change) || !std::isfinite(length) || !(tkt > 0))
      throw NCError("PCA component could not be computed.");
    const double c = ConvergenceMeasure(length <= 1e-30 ? 1e30 : change / length);
    ReportIteration(++count, c, a, reporter, own);
    if (c <= 0 || count >= max_iterations_) break;
  }
  iterations_ = count;

  // E'[previous t] for the loading, E'[t] for the deflation: base' less the deflations' parts.
  std::vector<double> both(static_cast<std::size_t>(n) * 2),
      products(static_cast<std::size_t>(k) * 2);
  for (int i = 0; i < n; ++i) {
    both[static_cast<std::size_t>(i) * 2] = previous[i];
    both[static_cast<std::size_t>(i) * 2 + 1] = t[i];
  }
  mvda::detail::TransposeTimes(kn.base, both.data(), 2, products.data());
  for (const int b : kn.deflated) {
    const float* tb = (*tprim_)[b].GetVector() + 1;
    const float* pb = (*pprim_)[b].GetVector() + 1;
    double o1 = 0, o2 = 0;
    for (int i = 0; i < n; ++i) {
      o1 += tb[i] * previous[i];
      o2 += tb[i] * t[i];
    }
    for (int j = 0; j < k; ++j) {
      products[static_cast<std::size_t>(j) * 2] -= pb[j] * o1;
      products[static_cast<std::size_t>(j) * 2 + 1] -= pb[j] * o2;
    }
  }
  double ttPrevious = 0, tt = 0;
  for (int i = 0; i < n; ++i) {
    ttPrevious += previous[i] * previous[i];
    tt += t[i] * t[i];
  }
  std::vector<float> p(static_cast<std::size_t>(k));
  double ss = 0;
  for (int j = 0; j < k; ++j) {
    p[j] = mvda::detail::FixedCoefficient(products[static_cast<std::size_t>(j) * 2], ttPrevious);
    ss += static_cast<double>(p[j]) * p[j];
  }
  const double norm = std::sqrt(ss);
  if (norm != 0)
    for (int j = 0; j < k; ++j) p[j] = static_cast<float>(p[j] / norm);
  kn.gq.resize(static_cast<std::size_t>(k));
  for (int j = 0; j < k; ++j) kn.gq[j] = products[static_cast<std::size_t>(j) * 2 + 1];
  kn.tt = tt;

  Vector loading, scores;
  loading.CopyZeroBasedVector(p.data(), k);
  std::vector<float> tf(t.begin(), t.end());
  scores.CopyZeroBasedVector(tf.data(), n);
  pprim_->InsertRow(a, loading);
  tprim_->InsertRow(a, scores);
  kn.fitted.push_back(a);
  kn.levelAt.push_back(static_cast<int>(kn.deflated.size()));
  kn.scored = kn.fitted.size();
  return true;
}

// t_a = E_a p_a / p_a'p_a with E_a = base - sum of t_b p_b' over the deflations made before a:
// base times every pending loading in one product, then the small corrections.
void NCPCA::Complete(bool residuals) const {
  Kernel& kn = *kernel_;
  if (!kn.live) return;
  const int n = kn.base.SizeRows(), k = kn.k;
  if (kn.scored < kn.fitted.size()) {
    const std::size_t first = kn.scored;
    const int width = static_cast<int>(kn.fitted.size() - first);
    std::vector<float> directions(static_cast<std::size_t>(k) * width);
    for (int h = 0; h < width; ++h) {
      const float* p = (*pprim_)[kn.fitted[first + h]].GetVector() + 1;
      for (int j = 0; j < k; ++j) directions[static_cast<std::size_t>(j) * width + h] = p[j];
    }
    std::vector<float> z(static_cast<std::size_t>(n) * width);
    mvda::detail::RowProducts(kn.base, directions.data(), width, z.data());
    std::vector<double> t(static_cast<std::size_t>(n));
    std::vector<float> tf(static_cast<std::size_t>(n));
    for (int h = 0; h < width; ++h) {
      const int a = kn.fitted[first + h];
      const float* pa = (*pprim_)[a].GetVector() + 1;
      double s = 0;
      for (int j = 0; j < k; ++j) s += static_cast<double>(pa[j]) * pa[j];
      for (int i = 0; i < n; ++i) t[i] = z[static_cast<std::size_t>(i) * width + h];
      for (int l = 0; l < kn.levelAt[first + h]; ++l) {
        const int b = kn.deflated[l];
        const float* pb = (*pprim_)[b].GetVector() + 1;
        const float* tb = (*tprim_)[b].GetVector() + 1;
        double overlap = 0;
        for (int j = 0; j < k; ++j) overlap += static_cast<double>(pb[j]) * pa[j];
        for (int i = 0; i < n; ++i) t[i] -= tb[i] * overlap;
      }
      for (int i = 0; i < n; ++i) tf[i] = static_cast<float>(t[i] / s);
      Vector scores;
      scores.CopyZeroBasedVector(tf.data(), n);
      tprim_->SetRow(a, scores);
    }
    kn.scored = kn.fitted.size();
  }
  if (!residuals || kn.applied == kn.deflated.size()) return;
  std::vector<const float*> ts, ps;
  for (std::size_t l = kn.applied; l < kn.deflated.size(); ++l) {
    ts.push_back((*tprim_)[kn.deflated[l]].GetVector() + 1);
    ps.push_back((*pprim_)[kn.deflated[l]].GetVector() + 1);
  }
  mvda::detail::SubtractOuterProducts(*residuals_, ts, ps);
  kn.applied = kn.deflated.size();
}

void NCPCA::LeaveGram() const {
  Complete(true);
  DropGram();
}

void NCPCA::DropGram() const { *kernel_ = Kernel(); }

const NCPCA::Matrix* NCPCA::GetTprim() const {
  Complete(false);
  return tprim_.get();
}

const NCPCA::Matrix* NCPCA::GetResiduals() const {
  Complete(true);
  return residuals_.get();
}

bool NCPCA::IsFittingOnGram() const { return kernel_->live; }

bool NCPCA::GetGramState(const GroupVector& codes, int groups,
                         mvda::detail::PcaGramState& state) const {
  Kernel& kn = *kernel_;
  const int a = pprim_->SizeRows();
  if (!kn.live || kn.wide || groups < 1 || kn.fitted.empty() || kn.fitted.back() != a ||
      kn.levelAt.back() != static_cast<int>(kn.deflated.size()))
    return false;
  const int rows = kn.base.SizeRows(), k = kn.k;
  if (codes.Size() != rows) return false;
  const std::vector<int> wanted(codes.GetPtr() + 1, codes.GetPtr() + 1 + rows);
  if (wanted != kn.groupCodes || static_cast<int>(kn.groupGrams.size()) != groups) {
    std::vector<std::vector<int>> sets(static_cast<std::size_t>(groups));
    for (int i = 0; i < rows; ++i) {
      if (wanted[i] < 0 || wanted[i] >= groups) return false;
      sets[static_cast<std::size_t>(wanted[i])].push_back(i);
    }
    std::vector<mvda::detail::CrossProducts> own =
        mvda::detail::FormCrossProducts(kn.base, nullptr, sets);
    kn.groupGrams.clear();
    for (mvda::detail::CrossProducts& c : own) kn.groupGrams.push_back(std::move(c.xx));
    kn.groupCodes = wanted;
    kn.groupLevel = 0;
  }
  // Each group's rows are deflated as the whole: E_g - t_g p' with t_g = E_g p / p'p.
  for (; kn.groupLevel < kn.deflated.size(); ++kn.groupLevel) {
    const float* p = (*pprim_)[kn.deflated[kn.groupLevel]].GetVector() + 1;
    mvda::detail::ParallelFor(groups, [&](int g) {
      mvda::detail::DeflateGram(kn.groupGrams[static_cast<std::size_t>(g)], k, p);
    });
  }
  state.gram = &kn.gram;
  state.groupGrams = &kn.groupGrams;
  const float* p = (*pprim_)[a].GetVector() + 1;
  double pp = 0;
  for (int j = 0; j < k; ++j) pp += static_cast<double>(p[j]) * p[j];
  state.q.resize(static_cast<std::size_t>(k));
  for (int j = 0; j < k; ++j) state.q[j] = p[j] / pp;
  state.gq = kn.gq;
  state.tt = kn.tt;
  mvda::detail::DeferredResiduals& r = state.residuals;
  r.base = kn.base;
  r.q.clear();
  r.p.clear();
  for (const int b : kn.deflated) {
    const float* pb = (*pprim_)[b].GetVector() + 1;
    std::vector<double> pd(pb, pb + k), qd(static_cast<std::size_t>(k));
    double s = 0;
    for (int j = 0; j < k; ++j) s += pd[j] * pd[j];
    for (int j = 0; j < k; ++j) qd[j] = pd[j] / s;
    r.p.push_back(std::move(pd));
    r.q.push_back(std::move(qd));
  }
  return true;
}

void NCPCA::SetGramIterations(bool on) {
  if (!on) LeaveGram();
  gram_iterations_ = on;
}
