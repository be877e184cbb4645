// PLSCrossValidation: per-component cross-validation of a PLS model and the significance rules.
// PLSMissingValueEstimator is in pls_cross_validation_missing.cpp.
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/progress.h>
#include <mvda/validation/cv_groups.h>
#include <mvda/validation/detail/pls_group_fits.h>
#include <mvda/validation/detail/pls_group_grams.h>
#include <mvda/validation/detail/q2.h>
#include <mvda/validation/pls_cross_validation.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace {

using Matrix = PLSCrossValidation::Matrix;
using Vector = PLSCrossValidation::Vector;
using GroupVector = PLSCrossValidation::GroupVector;
using GroupFit = mvda::detail::PlsGroupFit;

constexpr float kMis = -99.0f;

constexpr double kTinySS = mvda::detail::kNoVariation;
// The same bound as a float literal, for the caller's initial sums of squares (float vectors).
constexpr float kTinySSFloat = 1.1754944e-37f;

std::string Str(int n) { return std::to_string(n); }

// A sum of squares as the float vectors hold it: -99 when nothing was present.
float SSValue(long double ss) { return ss == kMis ? kMis : static_cast<float>(ss); }

// w1 . w2 over the pairs present in both, in double; 0 without a pair, so that a sub-model that
// shares no variable with the full model's weights keeps its sign.
double Dot(const Vector& a, const Vector& b) {
  double sum = 0.0;
  for (int j = 1; j <= a.Size(); ++j)
    if (a[j] != kMis && b[j] != kMis) sum += static_cast<double>(a[j]) * b[j];
  return sum;
}

// The most missing X values a left-out row may have and still be scored: NCPLSResiduals' rule for
// a first component with the tolerance 0.9999 of the predictions, K - 1 and at most K x 0.9999
// (rounded to float, then truncated), so that one present value suffices up to K = 10000.
int LeftOutLimit(int k) {
  const float allowed = static_cast<float>(k) * 0.9999f;
  return allowed < static_cast<float>(k - 1) ? static_cast<int>(allowed) : k - 1;
}

// The sum of squares of the group's training rows of y (-99 when none is present); with deflate,
// of the sub-model's Y residuals, y - t c' wherever the element and both factors are present as
// NCPLS::CalculateResiduals leaves them.
long double TrainingSS(const Matrix& y, const GroupFit& fit, bool deflate) {
  long double ss = 0;
  bool present = false;
  for (const int i : fit.train) {
    const Vector& yi = y[i];
    const float t = deflate ? fit.t[i] : kMis;
    for (int j = 1; j <= yi.Size(); ++j) {
      float e = yi[j];
      if (e == kMis) continue;
      present = true;
      if (t != kMis && fit.c[j] != kMis) e -= t * fit.c[j];
      ss += static_cast<long double>(e) * e;
    }
  }
  return present ? ss : kMis;
}

// The squares of w (0 where it is missing) and their sum w'w, which tell the rows whose floored
// regression on w is the plain one.
class Squares {
 public:
  explicit Squares(const Vector& w) : of_(static_cast<std::size_t>(w.Size()) + 1, 0.0f) {
    for (int j = 1; j <= w.Size(); ++j)
      if (w[j] != kMis) all_ += static_cast<double>(of_[j] = w[j] * w[j]);
  }
  // Whether the floor of a third of w'w binds for the row, its paired sum of squares being w'w
  // less the squares at its gaps; true also when w'w is too small, or not a number, for the floor
  // to be told apart from the paired sum.
  bool FloorBinds(const Vector& row) const {
    if (!(all_ / 3 >= 1e-30) || !std::isfinite(all_)) return true;
    if (row.GetNumMisVal() == 0) return false;
    const float *z = row.GetVector() + 1, *squares = of_.data() + 1;
    const int k = row.Size();
    float lost = 0;
    // A product rather than a choice, so that the loop vectorises: every square is finite here.
#pragma omp simd reduction(+ : lost)
    for (int j = 0; j < k; ++j) lost += (z[j] == kMis ? 1.0f : 0.0f) * squares[j];
    return all_ - lost < all_ / 3;
  }

 private:
  std::vector<float> of_;
  double all_ = 0;
};

float Cumulative(float previous, double press, double ss) {
  return static_cast<float>(mvda::detail::CumulativeQ2(previous, press, ss));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction

PLSCrossValidation::PLSCrossValidation(NCPLS* model, int groups, const GroupVector* groupIds)
    : model_(model) {
  Init(groups, groupIds, "PLSCrossValidation::PLSCrossValidation: ");
  q2_y_var_cum_ = Vector(q2_y_var_.Size(), 0.0f);
}

PLSCrossValidation::PLSCrossValidation(NCPLS* model, float q2Cum, const Vector& q2VarCum,
                                       int groups, const GroupVector* groupIds)
    : model_(model) {
  const char* place = "PLSCrossValidation::PLSCrossValidation: ";
  Init(groups, groupIds, place);
  if (q2VarCum.Size() != q2_y_var_.Size())
    throw NCError(place + ("cumulative Q2 of " + Str(q2VarCum.Size())) + " Y columns for " +
                  Str(q2_y_var_.Size()));
  q2_tot_cum_ = q2Cum;
  q2_y_var_cum_ = q2VarCum;
}

void PLSCrossValidation::Init(int groups, const GroupVector* groupIds, const char* place) {
  if (!model_) throw NCError(std::string(place) + "the model is null");
  const int n = model_->GetXResiduals()->SizeRows();
  const int k = model_->GetXResiduals()->SizeColumns();
  const int m = model_->GetYResiduals()->SizeColumns();
  if (n < 1 || m < 1)
    throw NCError(place + ("the model has " + Str(n)) + " observations and " + Str(m) +
                  " Y columns; it needs both");
  if (groups < 1) throw NCError(place + ("groups " + Str(groups)) + " below 1");
  const int g = std::min(n, groups);
  GroupVector ids;
  if (groupIds) {
    if (groupIds->Size() < n)
      throw NCError(place + ("group identifiers for " + Str(groupIds->Size())) + " of " + Str(n) +
                    " observations");
    ids = GroupVector(groupIds->begin(), n);
  } else {
    ids = GetDeafultCVGroupsVector(n, g);
  }
  std::vector<int> sizes(static_cast<std::size_t>(g), 0);
  for (int i = 1; i <= n; ++i) {
    if (ids[i] < 0 || ids[i] >= g)
      throw NCError(place + ("observation " + Str(i)) + " is in group " + Str(ids[i]) +
                    ", outside 0.." + Str(g - 1));
    if (++sizes[static_cast<std::size_t>(ids[i])] == n)
      throw NCError(place + ("group " + Str(ids[i])) + " holds all " + Str(n) +
                    " observations, leaving none to fit");
  }
  group_ids_ = ids;
  groups_ = g;
  y_pred_residuals_ = Matrix(n, m, kMis);
  w_set_ = Matrix(0, k, 0.0f);
  c_set_ = Matrix(0, m, 0.0f);
  p_set_ = Matrix(0, k, 0.0f);
  t_pred_ = Vector(n);
  t_set_ = Matrix(0, n, 0.0f);
  q2_y_var_ = Vector(m, 0.0f);
  ssy_ = Vector(g);
  ssy_original_ = Vector(g);
}

PLSCrossValidation::PLSCrossValidation(const PLSCrossValidation& other) = default;
PLSCrossValidation& PLSCrossValidation::operator=(const PLSCrossValidation& other) = default;
PLSCrossValidation::~PLSCrossValidation() = default;

// ---------------------------------------------------------------------------------------------
// One component

void PLSCrossValidation::NextComponent(const Vector* w, int maxIterations,
                                       const Vector& initialColumnSS, NCProgress* progress,
                                       bool quiet) {
  const char* place = "PLSCrossValidation::NextComponent: ";
  const Matrix& x = *model_->GetXResiduals();
  const Matrix& y = *model_->GetYResiduals();
  const int n = t_pred_.Size(), k = w_set_.SizeColumns(), m = q2_y_var_.Size();
  if (x.SizeRows() != n || x.SizeColumns() != k || y.SizeRows() != n || y.SizeColumns() != m)
    throw NCError(place + ("the model's residuals are " + Str(x.SizeRows())) + " x " +
                  Str(x.SizeColumns()) + " and " + Str(y.SizeRows()) + " x " +
                  Str(y.SizeColumns()) + " but were " + Str(n) + " x " + Str(k) + " and " + Str(n) +
                  " x " + Str(m) + " when the validation was made");
  if (k < 1) throw NCError(std::string(place) + "the model's X residuals have no columns");
  if (model_->GetComponents() < 1)
    throw NCError(std::string(place) + "the model has no component to validate");
  if (!w) throw NCError(std::string(place) + "the weight vector is null");
  if (w->Size() != k)
    throw NCError(place + ("the weight vector has " + Str(w->Size())) + " elements for " + Str(k) +
                  " X columns");
  if (initialColumnSS.Size() != m)
    throw NCError(place + ("initial sums of squares of " + Str(initialColumnSS.Size())) +
                  " Y columns for " + Str(m));
  if (maxIterations < 0)
    throw NCError(place + ("negative maximum iterations " + Str(maxIterations)));

  // Everything is built aside and swapped in at the end, so a failure leaves the validation of
  // the previous component intact.
  Matrix wSet(0, k, 0.0f), cSet(0, m, 0.0f), pSet(0, k, 0.0f), tSet(0, n, 0.0f);
  wSet.ReserveRows(groups_);
  cSet.ReserveRows(groups_);
  pSet.ReserveRows(groups_);
  tSet.ReserveRows(groups_);
  Matrix yPredResiduals(n, m, kMis);
  Vector tPred(n);
  Vector ssy(ssy_);
  Vector ssyOriginal(ssy_);
  tPred.Unlink();
  float* tp = tPred.GetVector();

  std::shared_ptr<NCProgress> own;
  NCProgress* shown = quiet ? nullptr : progress;
  if (!quiet && !progress) {
    own = NCProgress::CreateDefault("", 0.0, 1.0);
    shown = own.get();
  }

  // Complete data go through the groups' cross products, kept from the previous component.
  std::shared_ptr<mvda::detail::PlsGroupGrams> grams;
  if (model_->GetGramIterations() && mvda::detail::PlsGroupGrams::Suits(x, y, *w, groups_)) {
    grams = grams_ && grams_.use_count() == 1
                ? grams_
                : std::make_shared<mvda::detail::PlsGroupGrams>(
                      grams_ ? *grams_ : mvda::detail::PlsGroupGrams());
    const int level = model_->GetComponents() - 1;
    grams->Update(x, y, group_ids_, groups_, level, *model_->GetWprim(), *model_->GetPprim(),
                  *model_->GetCprim());
  }
  const std::vector<GroupFit> fits = mvda::detail::FitPlsGroups(
      x, y, *w, group_ids_, groups_, maxIterations, grams.get());

  // Each observation scored by the sub-model that left it out, as NCPLSPred(its group's X, W, P,
  // C, 0.9999) scores it with one component: the floored regression of the row on w. Where the
  // floor of a third of w'w cannot bind, that is the plain row regression of the fit's last
  // iteration; only the other rows are regressed again. NCPLSPred would also deflate a copy of
  // the rows, which nothing here reads.
  std::vector<float> regressed(static_cast<std::size_t>(n) + 1);
  std::vector<Squares> squares;
  for (const GroupFit& fit : fits) {
    for (std::size_t r = 0; r < fit.test.size(); ++r) regressed[fit.test[r]] = fit.testScores[r];
    squares.emplace_back(fit.w);
  }
  const int limit = LeftOutLimit(k);
  // By blocks of rows: most rows take the plain regression, too little work to hand out alone.
  constexpr int kRows = 256;
  mvda::detail::ParallelFor((n + kRows - 1) / kRows, [&](int b) {
    for (int i = b * kRows + 1; i <= std::min(n, (b + 1) * kRows); ++i) {
      const int g = group_ids_[i];
      const Vector& row = x[i];
      if (row.GetNumMisVal() > limit)
        tp[i] = kMis;
      else if (!squares[g].FloorBinds(row))
        tp[i] = regressed[i];
      else
        tp[i] = static_cast<float>(fits[g].w.SpecialNipalsRegressFix(row));
    }
  });

  for (int g = 0; g < groups_; ++g) {
    const GroupFit& fit = fits[g];
    // The groups were fitted together, so the calls that their fits would have made one after
    // the other come now, group by group. At the sizes where progress matters the batch of all
    // groups takes a fraction of a second, so hearing of it afterwards costs the host nothing in
    // responsiveness.
    if (shown) {
      shown->SetText(LanguageString::Format(10163, g + 1));
      fit.Replay(*shown);
    }
    if (model_->GetComponents() == 1) ssyOriginal(g + 1, SSValue(TrainingSS(y, fit, false)));
    ssy(g + 1, SSValue(TrainingSS(y, fit, true)));

    // The group's score row: fitted scores at the training positions, predicted ones at the test
    // positions.
    Vector scores = fit.t;
    scores.Unlink();
    float* s = scores.GetVector();
    for (const int i : fit.test) {
      s[i] = tp[i];
      const Vector& yi = y[i];
      for (int j = 1; j <= m; ++j) {
        // The prediction t c_j, left at 0 where either factor is missing, as NCPLSPred leaves it.
        const float predicted = tp[i] == kMis || fit.c[j] == kMis ? 0.0f : tp[i] * fit.c[j];
        yPredResiduals(i, j, yi[j] == kMis || predicted == kMis ? kMis : yi[j] - predicted);
      }
    }
    scores.SetNumMisVal(static_cast<int>(std::count(s + 1, s + n + 1, kMis)));

    Vector wg = fit.w, cg = fit.c, pg = fit.p;
    // Each sub-model takes the sign NIPALS happens to give it; aligning the sets with the full
    // model's w lets a caller compare the groups' weights and loadings directly. TPred stays as
    // the sub-models gave it.
    if (Dot(wg, *w) < 0.0) {
      wg *= -1.0f;
      cg *= -1.0f;
      pg *= -1.0f;
      scores *= -1.0f;
    }
    wSet.push_back(wg);
    cSet.push_back(cg);
    pSet.push_back(pg);
    tSet.push_back(scores);
  }
  int tMissing = 0;
  for (int i = 1; i <= n; ++i) tMissing += tp[i] == kMis;
  tPred.SetNumMisVal(tMissing);

  // PRESS and Q2 per Y column, then over the whole of Y.
  Vector q2YVar(m, 0.0f), q2YVarCum(q2_y_var_cum_);
  double press = 0.0;
  for (int j = 1; j <= m; ++j) {
    const long double pressJ = yPredResiduals.GetColumnSS(j);
    // Missing only for a column without any present Y, whose SS is missing too.
    const double pj = pressJ == kMis ? 0.0 : static_cast<double>(pressJ);
    press += pj;
    const long double ssJ = y.GetColumnSS(j);
    if (ssJ != kMis && ssJ >= kTinySS) {
      const double sj = static_cast<double>(ssJ);
      q2YVar(j, static_cast<float>((sj - pj) / sj));
      q2YVarCum(j, Cumulative(q2YVarCum[j], pj, sj));
    } else {
      // Nothing left to predict: a column that had variation is fully explained already.
      const float initial = initialColumnSS[j];
      q2YVar(j, 0.0f);
      q2YVarCum(j, initial != kMis && initial >= kTinySSFloat ? 1.0f : 0.0f);
    }
  }
  float q2Tot = 0.0f, q2TotCum = 1.0f;
  const long double ssAll = y.GetSS();
  if (ssAll != kMis && ssAll >= kTinySS) {
    const double ss = static_cast<double>(ssAll);
    q2Tot = static_cast<float>((ss - press) / ss);
    q2TotCum = Cumulative(q2_tot_cum_, press, ss);
  }

  y_pred_residuals_.swap(yPredResiduals);
  w_set_.swap(wSet);
  c_set_.swap(cSet);
  p_set_.swap(pSet);
  t_set_.swap(tSet);
  t_pred_ = tPred;
  q2_y_var_ = q2YVar;
  q2_y_var_cum_ = q2YVarCum;
  ssy_ = ssy;
  ssy_original_ = ssyOriginal;
  if (grams) grams_ = grams;
  q2_tot_ = q2Tot;
  q2_tot_cum_ = q2TotCum;
}

// ---------------------------------------------------------------------------------------------
// Significance

float PLSCrossValidation::GetQ2Lim() const {
  return model_->GetXResiduals()->SizeRows() <= 100 ? 0.05f : 0.0f;
}

SignificanceE::Significance PLSCrossValidation::GetSignificance(int n, int k, int m, int a,
                                                                float r2y, const Vector& r2yVar,
                                                                float q2, const Vector& q2Var,
                                                                float limit) {
  const char* place = "PLSCrossValidation::GetSignificance: ";
  if (m < 1) throw NCError(place + ("M = " + Str(m)) + " Y columns");
  if (r2yVar.Size() < m || q2Var.Size() < m)
    throw NCError(place + ("R2 of " + Str(r2yVar.Size())) + " and Q2 of " + Str(q2Var.Size()) +
                  " columns for M = " + Str(m));
  if (a >= std::min(k, n - 3)) return SignificanceE::N3;
  // The bounds are compared in double, so a float R2 of exactly 0.01f counts as below 0.01.
  bool explains = !(r2y < 0.01);
  for (int j = 1; j <= m && !explains; ++j) explains = r2yVar[j] > 0.03;
  if (!explains) return SignificanceE::N4;
  if (q2 > limit) return SignificanceE::R1;
  int above = 0;
  for (int j = 1; j <= m; ++j) above += q2Var[j] > limit;
  const double wanted = m < 25 ? std::sqrt(static_cast<double>(m)) : 0.2 * m;
  const int required = static_cast<int>(wanted + 0.5);
  return above >= required ? SignificanceE::R2 : SignificanceE::NS;
}
