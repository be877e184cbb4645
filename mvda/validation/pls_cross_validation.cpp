// PLSCrossValidation: per-component cross-validation of a PLS model and the significance rules.
// PLSMissingValueEstimator is in pls_cross_validation_missing.cpp.
#include <mvda/models/pls_pred.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/progress.h>
#include <mvda/validation/cv_groups.h>
#include <mvda/validation/pls_cross_validation.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using Matrix = PLSCrossValidation::Matrix;
using Vector = PLSCrossValidation::Vector;
using GroupVector = PLSCrossValidation::GroupVector;

constexpr float kMis = -99.0f;

// Ten times the smallest normal float: a sum of squares below it is no variation at all.
constexpr double kTinySS = 1.1754943508222875e-37;
// The same bound as a float literal, for the caller's initial sums of squares (float vectors).
constexpr float kTinySSFloat = 1.1754944e-37f;

// One component cannot lower a cumulative Q2 by more than a tenth of what remains.
constexpr double kMaxPressRatio = 1.1;

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

// The updated cumulative Q2: 1 - (1 - previous) min(press / ss, 1.1).
float Cumulative(float previous, double press, double ss) {
  const double r = std::min(press / ss, kMaxPressRatio);
  return static_cast<float>(1.0 - (1.0 - previous) * r);
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

  std::vector<int> test, train;
  for (int g = 0; g < groups_; ++g) {
    if (shown) shown->SetText(LanguageString::Format(10163, g + 1));

    Matrix trainX, trainY, testX;
    SplitRows(g, test, train, trainX, trainY, testX);
    if (model_->GetComponents() == 1) ssyOriginal(g + 1, SSValue(trainY.GetSS()));

    NCPLS sub(&trainX, &trainY, maxIterations);
    sub.NextComponent(shown, w, quiet, false);
    // Only the sub-model's Y residuals are read, so only Y is deflated, by the rank-one update that
    // NCPLS::CalculateResiduals applies to it; deflating the training X as well would copy and
    // rewrite it once per group for nothing.
    const Vector& fitted = (*sub.GetTprim())[1];
    Matrix yResiduals(*sub.GetYResiduals());
    yResiduals.TransformToSub_V_x_Vt(fitted, (*sub.GetCprim())[1]);
    ssy(g + 1, SSValue(yResiduals.GetSS()));

    NCPLSPred pred(testX, *sub.GetWprim(), *sub.GetPprim(), *sub.GetCprim(), 0.9999f);
    pred.CalcNextComponent();
    const Vector& predicted = *pred.GetTPred();
    const Matrix& yPred = *pred.GetYPred();

    // The group's score row: fitted scores at the training positions, predicted ones at the test
    // positions.
    Vector scores(n, 0.0f);
    scores.Unlink();
    float* s = scores.GetVector();
    for (std::size_t f = 0; f < train.size(); ++f) s[train[f]] = fitted[static_cast<int>(f) + 1];
    for (std::size_t r = 0; r < test.size(); ++r) {
      const int i = test[r];
      const float value = predicted[static_cast<int>(r) + 1];
      s[i] = tp[i] = value;
      const Vector& yi = y[i];
      const Vector& pi = yPred[static_cast<int>(r) + 1];
      for (int j = 1; j <= m; ++j)
        yPredResiduals(i, j, yi[j] == kMis || pi[j] == kMis ? kMis : yi[j] - pi[j]);
    }
    scores.SetNumMisVal(static_cast<int>(std::count(s + 1, s + n + 1, kMis)));

    Vector wg = (*sub.GetWprim())[1], cg = (*sub.GetCprim())[1], pg = (*sub.GetPprim())[1];
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
  q2_tot_ = q2Tot;
  q2_tot_cum_ = q2TotCum;
}

// Training rows share the model's row buffers (no element is copied) and keep their own order
// only where that is fastest. With a complete X they go by residue class of their position (every
// G-th row from 1, then from 2, ...): rows filled one after another lie at one stride, and so do
// every G-th of them, which lets the products read the training X in place instead of packing a
// copy of it on every NIPALS pass; with the default groups each class is whole or left out. With
// gaps the masked kernels stream the rows themselves, fastest in their own order, and removing
// the test rows from a shared copy touches only the removed rows' counts. The order of the
// training rows changes only the rounding of the sub-model's sums.
void PLSCrossValidation::SplitRows(int g, std::vector<int>& test, std::vector<int>& train,
                                   Matrix& trainX, Matrix& trainY, Matrix& testX) const {
  const Matrix& x = *model_->GetXResiduals();
  const Matrix& y = *model_->GetYResiduals();
  const int n = x.SizeRows();
  test.clear();
  train.clear();
  for (int i = 1; i <= n; ++i)
    if (group_ids_[i] == g) test.push_back(i);
  testX = Matrix(0, x.SizeColumns(), 0.0f);
  testX.ReserveRows(static_cast<int>(test.size()));
  for (int i : test) testX.push_back(x[i]);
  if (x.GetNumMisVal() == 0) {
    trainX = Matrix(0, x.SizeColumns(), 0.0f);
    trainY = Matrix(0, y.SizeColumns(), 0.0f);
    trainX.ReserveRows(n - static_cast<int>(test.size()));
    trainY.ReserveRows(n - static_cast<int>(test.size()));
    for (int r = 0; r < groups_; ++r)
      for (int i = r == 0 ? groups_ : r; i <= n; i += groups_)
        if (group_ids_[i] != g) {
          train.push_back(i);
          trainX.push_back(x[i]);
          trainY.push_back(y[i]);
        }
  } else {
    for (int i = 1; i <= n; ++i)
      if (group_ids_[i] != g) train.push_back(i);
    const GroupVector removed(test.data(), static_cast<int>(test.size()));
    trainX = x;
    trainY = y;
    trainX.RemoveRows(removed);
    trainY.RemoveRows(removed);
  }
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
