// PCACrossValidation: the per-group fits, the cell predictions, Q2 and the Q2 limit.
#include <mvda/containers/detail/masked_kernels.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/containers/detail/work_grid.h>
#include <mvda/models/detail/gram.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/validation/cv_groups.h>
#include <mvda/validation/detail/pca_group_fits.h>
#include <mvda/validation/detail/q2.h>
#include <mvda/validation/pca_cross_validation.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using Matrix = PCACrossValidation::Matrix;
using Vector = PCACrossValidation::Vector;
using GroupVector = PCACrossValidation::GroupVector;

constexpr float kMis = -99.0f;
using mvda::detail::CumulativeQ2;
constexpr double kNoSS = mvda::detail::kNoVariation;

[[noreturn]] void Fail(const char* place, const std::string& fault) {
  throw NCError(std::string("PCACrossValidation::") + place + ": " + fault);
}

std::string Shape(long long rows, long long cols) {
  return std::to_string(rows) + " x " + std::to_string(cols);
}

const NCPCA& Checked(const NCPCA* model) {
  if (!model) Fail("PCACrossValidation", "null model");
  return *model;
}

// The caller's codes (copied, so that later changes of theirs do not reach this object) or the
// default ones; checked for length and range, and every group must leave something outside it
// to fit on.
GroupVector MakeGroups(const GroupVector* given, int n, int groups, const char* what) {
  if (!given) return GetDeafultCVGroupsVector(n, groups);
  if (given->Size() != n)
    Fail("PCACrossValidation", std::string(what) + " groups of length " +
                                   std::to_string(given->Size()) + " for " + std::to_string(n) +
                                   " " + what + "s");
  std::vector<int> members(static_cast<std::size_t>(groups), 0);
  for (int i = 1; i <= n; ++i) {
    const int code = (*given)[i];
    if (code < 0 || code >= groups)
      Fail("PCACrossValidation", std::string(what) + " " + std::to_string(i) + " in group " +
                                     std::to_string(code) + ", codes run 0.." +
                                     std::to_string(groups - 1));
    ++members[static_cast<std::size_t>(code)];
  }
  for (int g = 0; g < groups; ++g)
    if (members[static_cast<std::size_t>(g)] == n)
      Fail("PCACrossValidation", std::string(what) + " group " + std::to_string(g) + " holds all " +
                                     std::to_string(n) + " " + what + "s, none left to fit on");
  GroupVector codes;
  codes.CopyContent(*given);
  return codes;
}

// Runs fit() with the reporter's next range confined to from..to, and pops that range on every
// path, so that a stop leaves the host's reporter as it found it.
template <class Fit>
void InSubRange(NCProgress* reporter, double from, double to, Fit&& fit) {
  reporter->PushSubRange(from, to);
  try {
    fit();
  } catch (...) {
    reporter->PopSubRange();
    throw;
  }
  reporter->PopSubRange();
}

using Mask = mvda::detail::MaskOf<float>;
using mvda::detail::KeepBits;
using mvda::detail::PresentMask;

// a where mask is all ones, b where it is 0.
inline float Select(float a, float b, Mask mask) {
  Mask x, y;
  std::memcpy(&x, &a, sizeof x);
  std::memcpy(&y, &b, sizeof y);
  x = (x & mask) | (y & ~mask);
  std::memcpy(&a, &x, sizeof a);
  return a;
}

// Cell (i, j) predicted as t(-v)_i q(-o)_j, v the group of variable j and o that of observation
// i, written into out[i - 1]; ss and press receive the sums per variable over the cells predicted.
// The rows of `out` are written in place (a buffer shared with someone else is copied first, and a
// row of another length replaced), so that a caller can hand in the buffers of earlier results.
// Rows run in parallel in the fixed bands of WorkGrid; each band sums its own columns and the band
// sums are added in band order, so the thread count does not change a sum.
void PredictCells(const Matrix& E, const Matrix& pset, const Matrix& tset,
                  const GroupVector& observationGroups, const GroupVector& variableGroups,
                  int groups, std::vector<Vector>& out, std::vector<double>& ss,
                  std::vector<double>& press) {
  const int rows = E.SizeRows(), cols = E.SizeColumns();
  const mvda::detail::WorkGrid grid(rows, cols);
  const std::size_t width = static_cast<std::size_t>(cols);
  std::vector<double> bandSS(static_cast<std::size_t>(grid.bands) * width, 0.0);
  std::vector<double> bandPress(bandSS.size(), 0.0);
  const int* og = observationGroups.GetPtr();
  const int* vg = variableGroups.GetPtr();
  mvda::detail::ParallelFor(grid.bands, [&](int band) {
    double* bs = bandSS.data() + static_cast<std::size_t>(band) * width;
    double* bp = bandPress.data() + static_cast<std::size_t>(band) * width;
    std::vector<float> scores(width);  // t(-v)_i of every variable's group v
    for (int i = grid.BandBegin(band) + 1; i <= grid.BandEnd(band); ++i) {
      const float* e = E[i].GetVector() + 1;
      const Vector& loading = pset[og[i] + 1];
      const float* q = loading.GetVector() + 1;
      bool complete = E[i].GetNumMisVal() == 0 && loading.GetNumMisVal() == 0;
      for (int v = 0; v < groups; ++v) complete = complete && tset[v + 1][i] != kMis;
      for (std::size_t j = 0; j < width; ++j) scores[j] = tset[vg[j + 1] + 1][i];
      Vector& row = out[static_cast<std::size_t>(i - 1)];
      if (row.Size() != cols) row = Vector(cols);
      row.Unlink();
      float* r = row.GetVector() + 1;
      int missing = 0;
      if (complete) {  // the common case, without a test per cell
        for (std::size_t j = 0; j < width; ++j) {
          r[j] = e[j] - scores[j] * q[j];
          bs[j] += static_cast<double>(e[j]) * e[j];
          bp[j] += static_cast<double>(r[j]) * r[j];
          missing += r[j] == kMis;
        }
      } else {
        // Bit masks instead of branches, as in the library's masked kernels, so that the loop
        // still vectorises: a skipped cell adds +0 to both sums and keeps e.
        for (std::size_t j = 0; j < width; ++j) {
          const float residual = e[j] - scores[j] * q[j];
          const Mask keep = PresentMask(e[j]) & PresentMask(scores[j]) & PresentMask(q[j]);
          const float x = KeepBits(e[j], keep), y = KeepBits(residual, keep);
          r[j] = Select(residual, e[j], keep);
          bs[j] += static_cast<double>(x) * x;
          bp[j] += static_cast<double>(y) * y;
          missing += r[j] == kMis;
        }
      }
      row.SetNumMisVal(missing);
    }
  });
  ss.assign(width, 0.0);
  press.assign(width, 0.0);
  for (int b = 0; b < grid.bands; ++b)
    for (std::size_t j = 0; j < width; ++j) {
      ss[j] += bandSS[b * width + j];
      press[j] += bandPress[b * width + j];
    }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction

PCACrossValidation::PCACrossValidation(NCPCA* model, float previousQ2TotCum,
                                       const Vector& previousQ2XVarCum, int groups,
                                       const GroupVector* observationGroups,
                                       const GroupVector* variableGroups)
    : model_(model) {
  const int rows = Checked(model).GetResidualRows(), cols = model->GetResidualColumns();
  if (groups < 1) Fail("PCACrossValidation", std::to_string(groups) + " groups, at least 1 needed");
  const int g = std::min({groups, rows, cols});
  // One group would leave every cell out of every fit.
  if (g < 2)
    Fail("PCACrossValidation", std::to_string(groups) + " groups asked for residuals of " +
                                   Shape(rows, cols) + " make " + std::to_string(g) +
                                   ", at least 2 needed");
  if (previousQ2XVarCum.Size() != cols)
    Fail("PCACrossValidation", "previous cumulative Q2 of length " +
                                   std::to_string(previousQ2XVarCum.Size()) + " for " +
                                   std::to_string(cols) + " variables");
  observation_groups_ = MakeGroups(observationGroups, rows, g, "observation");
  variable_groups_ = MakeGroups(variableGroups, cols, g, "variable");
  groups_ = g;
  pset_ = Matrix(0, cols, 0.0f);
  tset_ = Matrix(0, rows, 0.0f);
  pset_.ReserveRows(g);
  tset_.ReserveRows(g);
  q2_x_var_ = Vector(cols, 0.0f);
  q2_x_var_cum_.CopyContent(previousQ2XVarCum);
  x_pred_residuals_ = Matrix(0, cols, 0.0f);  // all missing when read
  q2_tot_cum_ = previousQ2TotCum;
}

PCACrossValidation::PCACrossValidation(NCPCA* model, int groups,
                                       const GroupVector* observationGroups,
                                       const GroupVector* variableGroups)
    : PCACrossValidation(model, 0.0f, Vector(Checked(model).GetResidualColumns(), 0.0f), groups,
                         observationGroups, variableGroups) {}

// The left-out scores and the cells of a component validated on Gram matrices: the residuals at
// the time, the score directions (t(-g) = E d_g, scale and sign included, K x G row-major).
struct PCACrossValidation::Deferred {
  mvda::detail::DeferredResiduals residuals;
  std::vector<double> directions;
};

PCACrossValidation::PCACrossValidation(const PCACrossValidation& other) = default;
PCACrossValidation& PCACrossValidation::operator=(const PCACrossValidation& other) = default;
PCACrossValidation::~PCACrossValidation() = default;

// ---------------------------------------------------------------------------------------------
// Cross-validation of one component

void PCACrossValidation::NextComponent(const Vector& reference, NCProgress* progress) {
  const int rows = model_->GetResidualRows(), cols = model_->GetResidualColumns(), G = groups_;
  if (model_->GetComponents() < 1 || model_->GetPprim()->SizeRows() < 1)
    Fail("NextComponent", "the model has no component to validate");
  if (rows != observation_groups_.Size() || cols != variable_groups_.Size())
    Fail("NextComponent", "residuals of " + Shape(rows, cols) + " for groups made for " +
                              Shape(observation_groups_.Size(), variable_groups_.Size()));
  // T' is read only on the data: on the Gram matrix reading it would form deferred scores, and
  // its rows were made for these residuals.
  const Vector& p = model_->GetPprim()->back();
  const auto checkShapes = [&](int scoreLength) {
    if (p.Size() != cols || scoreLength != rows)
      Fail("NextComponent", "last loading of length " + std::to_string(p.Size()) +
                                " and scores of length " + std::to_string(scoreLength) +
                                " for residuals of " + Shape(rows, cols));
  };
  checkShapes(rows);
  if (reference.Size() != cols)
    Fail("NextComponent", "reference of length " + std::to_string(reference.Size()) + " for " +
                              std::to_string(cols) + " variables");

  // The per-group fits start from the full model's component, so a few iterations suffice; a
  // later component, nearer the noise, gets a few more.
  const int A = model_->GetComponents();
  const int limit = static_cast<int>(std::sqrt(static_cast<double>(A - 1)) + 5.0 + 1e-5);

  std::shared_ptr<NCProgress> own;
  NCProgress* reporter = progress;
  if (!reporter) {
    own = NCProgress::CreateDefault("", 0.0, 1.0);
    reporter = own.get();
  }
  reporter->SetRange(0.0, G);

  // The size of each variable group, for the score scale.
  std::vector<int> groupColumns(static_cast<std::size_t>(G), 0);
  for (int j = 1; j <= cols; ++j) ++groupColumns[static_cast<std::size_t>(variable_groups_[j])];
  const auto scaleOf = [&](int g) {
    return std::sqrt(static_cast<float>(cols) /
                     static_cast<float>(cols - groupColumns[static_cast<std::size_t>(g)]));
  };

  // All 2G fits advance together, one pass over E serving every group, and the host then sees
  // each fit's progress replayed group by group, as the fits one after another would have made
  // it: at the sizes where progress matters, the batch for one component takes a fraction of a
  // second, so the replay costs the host no responsiveness. A stop answered in the replay, or a
  // fit that failed, throws where that fit would have. A model that fits on the Gram matrix has
  // the fits made on Gram matrices too, and the cells summed from them: no pass over the data.
  mvda::detail::PcaGramState state;
  mvda::detail::PcaGroupFits fits;
  std::vector<std::vector<double>> scoreDirections;
  const bool gram =
      model_->GetGramState(observation_groups_, G, state) &&
      mvda::detail::FitPcaGroupsOnGram(state, p, observation_groups_, variable_groups_, G, limit,
                                       fits, scoreDirections);
  const Matrix* E = gram ? nullptr : model_->GetResiduals();
  const Vector* t = gram ? nullptr : &model_->GetTprim()->back();
  if (!gram) {
    checkShapes(t->Size());
    fits = mvda::detail::FitPcaGroups(*E, p, *t, observation_groups_, variable_groups_, G, limit);
  }

  // Built aside, so that a stop leaves the previous results in place.
  Matrix pset(0, cols, 0.0f), tset(0, rows, 0.0f);
  pset.ReserveRows(G);
  tset.ReserveRows(G);
  auto deferred = std::make_shared<Deferred>();
  if (gram) deferred->directions.assign(static_cast<std::size_t>(cols) * G, 0.0);
  for (int g = 0; g < G; ++g) {
    const std::size_t k = static_cast<std::size_t>(g);
    // The loading without observation group g.
    reporter->SetText(LanguageString::Format(10157, g + 1));
    InSubRange(reporter, g, g + 0.5, [&] { fits.withoutRows[k].Replay(*reporter); });
    Vector loading = fits.withoutRows[k].p;
    if (loading * p < 0) loading *= -1.0f;
    pset.push_back(loading);

    // The scores without variable group g, scaled up for the variables they lack.
    reporter->SetText(LanguageString::Get(10158));
    InSubRange(reporter, g + 0.5, g + 1.0, [&] { fits.withoutColumns[k].Replay(*reporter); });
    float scale = scaleOf(g);
    if (gram) {
      // t(-g)'t = d'E'E q = d'(E't).
      const std::vector<double>& d = scoreDirections[k];
      double agreement = 0;
      for (int j = 0; j < cols; ++j) agreement += d[j] * state.gq[j];
      if (agreement < 0) scale = -scale;
      for (int j = 0; j < cols; ++j)
        deferred->directions[static_cast<std::size_t>(j) * G + k] = d[j] * scale;
    } else {
      Vector scores = fits.withoutColumns[k].t;
      if (scores * *t < 0) scale = -scale;
      scores *= scale;
      tset.push_back(scores);
    }
  }

  std::vector<double> ssj, pressj;
  Matrix cells(0, cols, 0.0f);
  if (gram) {
    mvda::detail::GramPress(state, deferred->directions, pset, variable_groups_, G, ssj, pressj);
    deferred->residuals = std::move(state.residuals);
  } else {
    // The cells go into the buffers of the previous results, which this object alone holds
    // unless the host kept a copy: no second N x K allocation per call. From here on only an
    // allocation failure could stop the call, and it would leave the cells incomplete.
    std::vector<Vector> cellRows(x_pred_residuals_.begin(), x_pred_residuals_.end());
    cellRows.resize(static_cast<std::size_t>(rows));
    x_pred_residuals_.Clear();
    PredictCells(*E, pset, tset, observation_groups_, variable_groups_, G, cellRows, ssj, pressj);
    cells.ReserveRows(rows);
    for (const Vector& row : cellRows) cells.push_back(row);
    cellRows.clear();
  }

  Vector q2(cols, 0.0f), q2Cum(cols, 0.0f);
  double ss = 0, press = 0;
  for (int j = 1; j <= cols; ++j) {
    const double ssv = ssj[static_cast<std::size_t>(j - 1)];
    const double pressv = pressj[static_cast<std::size_t>(j - 1)];
    ss += ssv;
    press += pressv;
    if (ssv >= kNoSS) {
      q2(j, static_cast<float>((ssv - pressv) / ssv));
      q2Cum(j, static_cast<float>(CumulativeQ2(q2_x_var_cum_[j], pressv, ssv)));
    } else {
      // Nothing left to predict: fully explained by earlier components if there was something.
      const double r = reference[j];
      q2Cum(j, r != mvda::kMissing && r >= kNoSS ? 1.0f : 0.0f);
    }
  }
  float q2Tot = 0, q2TotCum = 1;
  if (!(ss < kNoSS)) {
    q2Tot = static_cast<float>((ss - press) / ss);
    q2TotCum = static_cast<float>(CumulativeQ2(q2_tot_cum_, press, ss));
  }

  pset_.swap(pset);
  tset_.swap(tset);
  x_pred_residuals_.swap(cells);
  if (gram)
    deferred_ = std::move(deferred);
  else
    deferred_.reset();
  q2_x_var_ = q2;
  q2_x_var_cum_ = q2Cum;
  q2_tot_ = q2Tot;
  q2_tot_cum_ = q2TotCum;
}

const Matrix* PCACrossValidation::GetTSet() const {
  if (deferred_) FormDeferred();
  return &tset_;
}

const Matrix* PCACrossValidation::GetXPredResiduals() const {
  if (deferred_) FormDeferred();
  const int rows = observation_groups_.Size();
  if (x_pred_residuals_.SizeRows() != rows)  // before the first NextComponent
    x_pred_residuals_ = Matrix(rows, variable_groups_.Size(), kMis);
  return &x_pred_residuals_;
}

void PCACrossValidation::FormDeferred() const {
  const Deferred& d = *deferred_;
  const int rows = observation_groups_.Size(), cols = variable_groups_.Size(), G = groups_;
  std::vector<float> scores;
  d.residuals.Times(d.directions, G, scores);
  Matrix tset(0, rows, 0.0f);
  tset.ReserveRows(G);
  std::vector<float> column(static_cast<std::size_t>(rows));
  for (int g = 0; g < G; ++g) {
    for (int i = 0; i < rows; ++i) column[i] = scores[static_cast<std::size_t>(i) * G + g];
    Vector row;
    row.CopyZeroBasedVector(column.data(), rows);
    tset.push_back(row);
  }
  const Matrix E = d.residuals.Form();
  std::vector<Vector> cellRows(static_cast<std::size_t>(rows));
  std::vector<double> ss, press;
  PredictCells(E, pset_, tset, observation_groups_, variable_groups_, G, cellRows, ss, press);
  Matrix cells(0, cols, 0.0f);
  cells.ReserveRows(rows);
  for (const Vector& row : cellRows) cells.push_back(row);
  tset_.swap(tset);
  x_pred_residuals_.swap(cells);
  deferred_.reset();
}

// ---------------------------------------------------------------------------------------------
// Significance limit

float PCACrossValidation::GetQ2Lim(int a, bool flag) const {
  if (a < 1) return kMis;
  const long long rows = model_->GetResidualRows(), cols = model_->GetResidualColumns();
  const long long c = flag ? 1 : 0;
  const long long left = rows - c - a + 1, right = cols - a + 1;
  if (left <= 0 || right <= 0) return 1.0f;
  const float d = static_cast<float>(left * right);
  return 1.0f - d / static_cast<float>((rows - a + 1) * (cols - a + 2));
}
