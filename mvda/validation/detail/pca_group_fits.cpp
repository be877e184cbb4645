// FitPcaGroups, FitPcaGroupsOnGram and GramPress: the NIPALS fits of all groups of a PCA
// cross-validation, on one BatchedRegressions or on Gram matrices, the PRESS from the latter, and
// the replay of their progress.
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/models/detail/gram.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/validation/detail/batched_regressions.h>
#include <mvda/validation/detail/pca_group_fits.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include <cblas.h>

namespace mvda::detail {

namespace {

using Vector = NCDataVector<float>;
using Groups = NCIntegralVector<int, -99>;

constexpr float kMis = -99.0f;

// NCPCA's convergence measure: positive while d > 1e-10, falling by 10 per decade of d.
double ConvergenceMeasure(double d) { return d > 1e-30 ? 10 * (std::log10(d) + 10) : -1.0; }

// The elements i with codes[i] == code become missing: the rows a loading fit leaves out of its
// scores, or the variables a score fit leaves out of its loading. Null codes leave v as it is.
void LeaveOut(Vector& v, const Groups* codes, int code) {
  if (!codes) return;
  for (int i = 1; i <= v.Size(); ++i)
    if ((*codes)[i] == code) v(i, kMis);
}

// Column h of a row-major block `width` wide, and back.
void TakeColumn(const std::vector<float>& block, int width, int h, std::vector<float>& scratch,
                Vector& to) {
  const std::size_t n = block.size() / static_cast<std::size_t>(width);
  scratch.resize(n);
  for (std::size_t i = 0; i < n; ++i) scratch[i] = block[i * width + h];
  to.CopyZeroBasedVector(scratch.data(), static_cast<int>(n));
}

void PutColumn(const Vector& from, int width, int h, std::vector<float>& block) {
  const float* x = from.GetVector();
  for (int i = 1; i <= from.Size(); ++i) block[static_cast<std::size_t>(i - 1) * width + h] = x[i];
}

// A fit under way. Each step is NCPCA::NextComponent's for one vector; only the regressions are
// shared with the other fits.
struct Fit {
  Fit(PcaGroupFit* fit, const Groups* rows, const Groups* columns, int group)
      : out(fit), rowsOut(rows), columnsOut(columns), code(group) {}

  PcaGroupFit* out;
  const Groups* rowsOut;     // observation codes of a loading fit, else null
  const Groups* columnsOut;  // variable codes of a score fit, else null
  int code;
  bool done = false;
  Vector previous;

  // p = the column regression on t, its left-out variables missing, normalised.
  void TakeLoading(std::vector<float>& block, int width, int h, std::vector<float>& scratch) {
    TakeColumn(block, width, h, scratch, out->p);
    LeaveOut(out->p, columnsOut, code);
    out->p.Normalise();
    PutColumn(out->p, width, h, block);
  }

  // t = the row regression on p, and the convergence test against the previous t. The rows a
  // loading fit leaves out were regressed too (the product covers every row); they are dropped
  // here, before they could count in the difference or in the next column regression.
  void TakeScores(const std::vector<float>& block, int width, int h, std::vector<float>& scratch,
                  int limit) {
    previous = out->t;
    TakeColumn(block, width, h, scratch, out->t);
    LeaveOut(out->t, rowsOut, code);
    const double d = static_cast<double>(out->t.Difference(previous));
    if (d == mvda::kMissing) {
      out->failed = done = true;
      return;
    }
    const double c = ConvergenceMeasure(d);
    out->measures.push_back(c);
    done = c <= 0 || static_cast<int>(out->measures.size()) >= limit;
  }
};

// NCPCA's fit of a one-row matrix, which takes no iteration: p is the row normalised, t its
// length.
void FitOneRow(const NCDataMatrix<float>& E, int row, PcaGroupFit& fit) {
  fit.p.CopyContent(E[row]);
  const long double length = fit.p.Normalise();
  fit.t = Vector(E.SizeRows(), kMis);
  fit.t(row, static_cast<float>(length));
}

}  // namespace

void PcaGroupFit::Replay(NCProgress& reporter) const {
  for (std::size_t k = 0; k < measures.size(); ++k) {
    if (k == 0) {
      reporter.SetRange(-measures[k], 0.0);
    } else if (!reporter.SetValue(-measures[k])) {
      throw NCError(LanguageString::Get(10147), NCError::kStopRequested);
    }
  }
  if (failed) throw NCError("PCA component could not be computed.");
}

PcaGroupFits FitPcaGroups(const NCDataMatrix<float>& E, const Vector& p, const Vector& t,
                          const Groups& observationGroups, const Groups& variableGroups, int groups,
                          int limit) {
  const int rows = E.SizeRows(), cols = E.SizeColumns();
  const BatchedRegressions x(E);
  PcaGroupFits fits;
  fits.withoutRows.resize(static_cast<std::size_t>(groups));
  fits.withoutColumns.resize(static_cast<std::size_t>(groups));

  // Every row's regression on p is its own, so one regression of all rows serves as the start of
  // every loading fit, each then dropping its left-out rows.
  std::vector<float> loadings(p.begin(), p.end()), scores(static_cast<std::size_t>(rows));
  x.RegressRows(loadings.data(), 1, true, scores.data());
  Vector start;
  start.CopyZeroBasedVector(scores.data(), rows);

  std::vector<int> members(static_cast<std::size_t>(groups), 0);
  for (int i = 1; i <= rows; ++i) ++members[static_cast<std::size_t>(observationGroups[i])];

  std::vector<Fit> running;
  running.reserve(static_cast<std::size_t>(2 * groups));
  for (int g = 0; g < groups; ++g) {
    PcaGroupFit& fit = fits.withoutRows[static_cast<std::size_t>(g)];
    if (rows - members[static_cast<std::size_t>(g)] == 1) {
      int row = 1;
      while (observationGroups[row] == g) ++row;
      FitOneRow(E, row, fit);
      continue;
    }
    fit.t.CopyContent(start);
    LeaveOut(fit.t, &observationGroups, g);
    running.emplace_back(&fit, &observationGroups, nullptr, g);
  }
  for (int g = 0; g < groups; ++g) {
    PcaGroupFit& fit = fits.withoutColumns[static_cast<std::size_t>(g)];
    fit.t.CopyContent(t);
    running.emplace_back(&fit, nullptr, &variableGroups, g);
  }

  // NIPALS (Wold) for all fits at once: one pass over E per regression serves every fit still
  // iterating; a fit that has stopped leaves the batch with its vectors as they were.
  std::vector<Fit*> active;
  std::vector<float> scratch;
  for (;;) {
    active.clear();
    for (Fit& fit : running)
      if (!fit.done) active.push_back(&fit);
    if (active.empty()) break;
    const int width = static_cast<int>(active.size());
    scores.resize(static_cast<std::size_t>(rows) * width);
    loadings.resize(static_cast<std::size_t>(cols) * width);
    for (int h = 0; h < width; ++h) PutColumn(active[h]->out->t, width, h, scores);
    x.RegressColumns(scores.data(), width, true, loadings.data());
    for (int h = 0; h < width; ++h) active[h]->TakeLoading(loadings, width, h, scratch);
    x.RegressRows(loadings.data(), width, true, scores.data());
    for (int h = 0; h < width; ++h) active[h]->TakeScores(scores, width, h, scratch, limit);
  }
  return fits;
}

bool FitPcaGroupsOnGram(const PcaGramState& state, const Vector& p, const Groups& observationGroups,
                        const Groups& variableGroups, int groups, int limit, PcaGroupFits& fits,
                        std::vector<std::vector<double>>& scoreDirections) {
  const int rows = state.residuals.base.SizeRows(), k = state.residuals.base.SizeColumns();
  const std::size_t kk = static_cast<std::size_t>(k) * k;
  std::vector<int> members(static_cast<std::size_t>(groups), 0);
  for (int i = 1; i <= rows; ++i) ++members[static_cast<std::size_t>(observationGroups[i])];
  for (int g = 0; g < groups; ++g)  // a one-row training set is fitted on its row
    if (rows - members[static_cast<std::size_t>(g)] < 2) return false;
  const std::vector<double>& whole = *state.gram;
  const std::vector<std::vector<double>>& own = *state.groupGrams;
  fits.withoutRows.assign(static_cast<std::size_t>(groups), PcaGroupFit());
  fits.withoutColumns.assign(static_cast<std::size_t>(groups), PcaGroupFit());
  scoreDirections.assign(static_cast<std::size_t>(groups), std::vector<double>());

  // Loading fits (h < groups): t_0 = the training rows regressed on p, i.e. E q0 with
  // q0 = p / p'p, on the Gram matrix of the training rows, the whole less the group's own. Score
  // fits (h >= groups): from the model's t = E q, on E without the variables of group h - groups.
  // Each fit is one task on the team, writing only its own results.
  double pp = 0;
  for (int j = 1; j <= k; ++j) pp += static_cast<double>(p[j]) * p[j];
  std::vector<double> q0(static_cast<std::size_t>(k));
  for (int j = 0; j < k; ++j) q0[j] = p[j + 1] / pp;
  ParallelFor(2 * groups, [&](int h) {
    const int g = h % groups;
    const auto count = [](PcaGroupFit& fit) {
      return [&fit](double c) {
        fit.measures.push_back(c);
        return true;
      };
    };
    if (h < groups) {
      PcaGroupFit& fit = fits.withoutRows[static_cast<std::size_t>(g)];
      const std::vector<double>& mine = own[static_cast<std::size_t>(g)];
      std::vector<double> without(kk), v0(static_cast<std::size_t>(k));
      for (std::size_t e = 0; e < kk; ++e) without[e] = whole[e] - mine[e];
      SymmetricTimes(without, k, q0.data(), v0.data());
      double tt0 = 0;
      for (int j = 0; j < k; ++j) tt0 += q0[j] * v0[j];
      const PcaGramFit result = FitPcaOnGram(without, k, nullptr, v0, tt0, &q0, limit, count(fit));
      fit.failed = result.failed;
      fit.p.CopyZeroBasedVector(result.p.data(), k);
    } else {
      PcaGroupFit& fit = fits.withoutColumns[static_cast<std::size_t>(g)];
      std::vector<char> keep(static_cast<std::size_t>(k));
      for (int j = 0; j < k; ++j) keep[j] = variableGroups[j + 1] != g;
      PcaGramFit result =
          FitPcaOnGram(whole, k, &keep, state.gq, state.tt, &state.q, limit, count(fit));
      fit.failed = result.failed;
      fit.p.CopyZeroBasedVector(result.p.data(), k);
      LeaveOut(fit.p, &variableGroups, g);
      scoreDirections[static_cast<std::size_t>(g)] = std::move(result.q);
    }
  });
  return true;
}

void GramPress(const PcaGramState& state, const std::vector<double>& directions,
               const NCDataMatrix<float>& loadings, const Groups& variableGroups, int groups,
               std::vector<double>& ss, std::vector<double>& press) {
  const int k = state.residuals.base.SizeColumns();
  const std::size_t width = static_cast<std::size_t>(k);
  std::vector<double> groupSS(static_cast<std::size_t>(groups) * width);
  std::vector<double> groupPress(groupSS.size());
  // Over the rows i of group o, with t = E_o d_v (v the group of variable j) and w = o's loading:
  // sum (e_ij - t_i w_j)^2 = G_o[j][j] - 2 w_j (G_o d_v)_j + w_j^2 d_v'G_o d_v.
  ParallelFor(groups, [&](int o) {
    const std::vector<double>& g = (*state.groupGrams)[static_cast<std::size_t>(o)];
    std::vector<double> product(width * groups);
    cblas_dgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, k, groups, k, 1.0, g.data(), k,
                directions.data(), groups, 0.0, product.data(), groups);
    std::vector<double> quad(static_cast<std::size_t>(groups), 0.0);
    for (std::size_t j = 0; j < width; ++j)
      for (int v = 0; v < groups; ++v)
        quad[v] += directions[j * groups + v] * product[j * groups + v];
    const float* w = loadings[o + 1].GetVector() + 1;
    double* s = groupSS.data() + static_cast<std::size_t>(o) * width;
    double* r = groupPress.data() + static_cast<std::size_t>(o) * width;
    for (std::size_t j = 0; j < width; ++j) {
      const int v = variableGroups[static_cast<int>(j) + 1];
      const double diagonal = g[j * width + j], wj = w[j];
      s[j] = diagonal;
      r[j] = diagonal - 2 * wj * product[j * groups + v] + wj * wj * quad[v];
    }
  });
  ss.assign(width, 0.0);
  press.assign(width, 0.0);
  for (int o = 0; o < groups; ++o)
    for (std::size_t j = 0; j < width; ++j) {
      ss[j] += groupSS[static_cast<std::size_t>(o) * width + j];
      press[j] += groupPress[static_cast<std::size_t>(o) * width + j];
    }
}

}  // namespace mvda::detail
