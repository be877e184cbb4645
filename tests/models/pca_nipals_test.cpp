#include <mvda/containers/data_matrix.h>
#include <mvda/models/pca.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/progress.h>
#include <mvda/preprocess/scale.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Rows = std::vector<std::vector<double>>;
using Matrix = NCDataMatrix<float>;
constexpr double kM = -99;

// Records what a computation reports; SetValue answers "stop" from call `stopAt` on (0: never).
class RecordingProgress : public NCProgress {
 public:
  explicit RecordingProgress(std::size_t stopAt = 0) : stop_at_(stopAt) {}
  void SetRange(double min, double max) override {
    ranges.emplace_back(min, max);
    NCProgress::SetRange(min, max);
  }
  bool SetValue(double value) override {
    values.push_back(value);
    NCProgress::SetValue(value);
    return stop_at_ == 0 || values.size() < stop_at_;
  }
  std::vector<std::pair<double, double>> ranges;
  std::vector<double> values;

 private:
  std::size_t stop_at_;
};

// Six latent components with singular values 10, 7, 4.9, ... and a little noise, unit-variance
// scaled: well separated leading components, as NIPALS needs them. Fixed seed.
Matrix ScaledTestMatrix(int rows, int cols) {
  std::mt19937 gen(11);
  std::normal_distribution<double> normal(0, 1);
  std::vector<std::vector<double>> a(6, std::vector<double>(rows)), b(6, std::vector<double>(cols));
  for (auto& v : a)
    for (double& x : v) x = normal(gen) / std::sqrt(rows);
  for (auto& v : b)
    for (double& x : v) x = normal(gen) / std::sqrt(cols);
  Matrix x(rows, cols, 0.0f);
  for (int i = 0; i < rows; ++i)
    for (int j = 0; j < cols; ++j) {
      double value = 0.05 * normal(gen);
      for (int k = 0; k < 6; ++k) value += 10 * std::pow(0.7, k) * a[k][i] * b[k][j];
      x(i + 1, j + 1, static_cast<float>(value));
    }
  NCScale scale(cols);
  for (int j = 1; j <= cols; ++j) scale.SetType(j, NCScale::kUnitVariance);
  scale.ScaleMatrix(&x, true);
  return x;
}

// Oracle: the thin SVD X = U S V' of the scaled matrix in double precision (LAPACK). Without
// missing values component a of NIPALS is p = +-v_a and t = +-s_a u_a; sign aligned on p.
// Also X = T P' + E after every deflation, and the progress of each component: one SetRange and
// one SetValue per later iteration, -c negative (not converged) until the last.
TEST(PcaNipals, ReproducesTheLeadingSingularVectors) {
  const int rows = 200, cols = 50, components = 5;
  const Matrix x = ScaledTestMatrix(rows, cols);
  NCDataMatrix<double> xd(rows, cols, 0.0), u, v;
  for (int i = 1; i <= rows; ++i)
    for (int j = 1; j <= cols; ++j) xd(i, j, x[i][j]);
  const NCDataVector<double> s = xd.GetSVD(&u, &v);

  NCPCA model(&x, 500);
  for (int a = 1; a <= components; ++a) {
    SCOPED_TRACE(a);
    RecordingProgress progress;
    ASSERT_TRUE(model.NextComponent(&progress, nullptr, 0, nullptr));
    const int iterations = model.GetIterations();
    EXPECT_LT(iterations, 500);
    ASSERT_EQ(progress.ranges.size(), 1u);
    EXPECT_EQ(progress.ranges[0].second, 0.0);
    ASSERT_EQ(progress.values.size(), static_cast<std::size_t>(iterations - 1));
    for (int k = 0; k + 1 < iterations - 1; ++k) EXPECT_LT(progress.values[k], 0) << k;
    EXPECT_GE(progress.values.back(), 0);

    const auto& p = (*model.GetPprim())[a];
    const auto& t = (*model.GetTprim())[a];
    double dot = 0;
    for (int j = 1; j <= cols; ++j) dot += p[j] * v[j][a];
    const double sign = dot < 0 ? -1 : 1;
    for (int j = 1; j <= cols; ++j) EXPECT_NEAR(p[j], sign * v[j][a], 5e-5) << j;
    for (int i = 1; i <= rows; ++i) EXPECT_NEAR(t[i], sign * s[a] * u[i][a], 5e-5 * s[a]) << i;
    model.CalculateResiduals();
  }
  EXPECT_EQ(model.GetComponents(), components);
  const Matrix& P = *model.GetPprim();
  const Matrix& T = *model.GetTprim();
  const Matrix& E = *model.GetResiduals();
  for (int i = 1; i <= rows; ++i)
    for (int j = 1; j <= cols; ++j) {
      double rebuilt = E[i][j];
      for (int a = 1; a <= components; ++a) rebuilt += double(T[a][i]) * P[a][j];
      ASSERT_NEAR(rebuilt, x[i][j], 1e-5) << i << ", " << j;
    }
}

// X = u (1, 1)' with u = 1..4. Both columns have SS 30, so the first starts: t0 = u. Then
// p = (1, 1) normalised = (a, a), a = 1/sqrt(2), and t = u / a, so d = (1 - a)^2 and
// c = 10 (log10 d + 10) = 89.33. The second iteration gives the same p and t: d = 0, c = -1.
TEST(PcaNipals, RankOneConvergesAtTheSecondIteration) {
  const Matrix x = MakeMatrix({{1, 1}, {2, 2}, {3, 3}, {4, 4}});
  NCPCA model(&x, 100);
  RecordingProgress progress;
  model.NextComponent(&progress, nullptr, 0, nullptr);
  EXPECT_EQ(model.GetIterations(), 2);
  const double a = 1 / std::sqrt(2.0), c = 10 * (std::log10((1 - a) * (1 - a)) + 10);
  ASSERT_EQ(progress.ranges.size(), 1u);
  EXPECT_NEAR(progress.ranges[0].first, -c, 1e-3);
  EXPECT_EQ(progress.values, std::vector<double>{1.0});
  EXPECT_NEAR((*model.GetTprim())[1][4], 4 * std::sqrt(2.0), 1e-5);
}

TEST(PcaNipals, OneObservationAndOneIteration) {
  const Matrix row = MakeMatrix({{3, kM, 4}});  // length 5
  NCPCA single(&row, 100);
  RecordingProgress quiet;
  single.NextComponent(&quiet, nullptr, 0, nullptr);
  EXPECT_EQ(ToStd((*single.GetPprim())[1]), (std::vector<double>{0.6f, kM, 0.8f}));
  EXPECT_EQ(ToStd((*single.GetTprim())[1]), std::vector<double>{5});
  EXPECT_EQ(single.GetIterations(), 1);
  EXPECT_TRUE(quiet.ranges.empty() && quiet.values.empty());

  const Matrix x = ScaledTestMatrix(20, 6);
  NCPCA once(&x, 1);
  RecordingProgress progress;
  once.NextComponent(&progress, nullptr, 0, nullptr);
  EXPECT_EQ(once.GetIterations(), 1);
  EXPECT_EQ(progress.ranges.size(), 1u);
  EXPECT_TRUE(progress.values.empty());
}

// A stop on the second iteration (the first SetValue) and a score vector without any pair: both
// throw after counting the component, leaving the earlier component and the residuals intact.
TEST(PcaNipals, FailuresKeepEarlierComponents) {
  const Matrix x = ScaledTestMatrix(30, 8);
  NCPCA model(&x, 100);
  RecordingProgress progress;
  model.NextComponent(&progress, nullptr, 0, nullptr);
  model.CalculateResiduals();
  const Matrix P = *model.GetPprim(), T = *model.GetTprim(), E = *model.GetResiduals();

  RecordingProgress stopper(1);
  try {
    model.NextComponent(&stopper, nullptr, 0, nullptr);
    ADD_FAILURE() << "no stop";
  } catch (const NCError& e) {
    EXPECT_EQ(e.GetMessage(), LanguageString::Get(10147));
    EXPECT_EQ(e.GetLevel(), NCError::kStopRequested);
  }
  EXPECT_EQ(stopper.values.size(), 1u);
  EXPECT_EQ(model.GetComponents(), 2);

  const NCDataVector<float> nothing(30, -99.0f);
  try {
    model.NextComponent(&progress, nullptr, 0, &nothing);
    ADD_FAILURE() << "no failure";
  } catch (const NCError& e) {
    EXPECT_EQ(e.GetMessage(), "PCA component could not be computed.");
    EXPECT_EQ(e.GetLevel(), NCError::kNumerical);
  }
  EXPECT_EQ(model.GetComponents(), 3);
  EXPECT_TRUE(*model.GetPprim() == P && *model.GetTprim() == T && *model.GetResiduals() == E);
}

// Without a reporter the call makes its own, named for the component, and reports to it from the
// second iteration on.
TEST(PcaNipals, MakesItsOwnReporterWhenGivenNone) {
  const Matrix x = ScaledTestMatrix(30, 8);
  std::vector<std::string> texts;
  std::shared_ptr<RecordingProgress> made;
  NCProgress::SetDefaultFactory([&](const std::string& text, double min, double max) {
    texts.push_back(text);
    made = std::make_shared<RecordingProgress>();
    made->SetRange(min, max);
    return made;
  });
  NCPCA model(&x, 100);
  model.NextComponent(nullptr, nullptr, 0, nullptr);
  model.CalculateResiduals();
  model.NextComponent(nullptr, nullptr, 0, nullptr);
  NCProgress::SetDefaultFactory({});
  EXPECT_EQ(texts, (std::vector<std::string>{LanguageString::Format(10041, 1),
                                             LanguageString::Format(10041, 2)}));
  ASSERT_TRUE(made);
  EXPECT_EQ(made->values.size(), static_cast<std::size_t>(model.GetIterations() - 1));
  EXPECT_EQ(made->ranges.at(0).second, 0.0);
}

// Variables of the left-out group have no loading and do not enter the scores: the same as a fit
// on the matrix with those columns missing. The groups vector is shorter than the number of
// observations, so it cannot be taken for observation codes.
TEST(PcaNipals, VariableGroupTakesNoPart) {
  const Matrix x = ScaledTestMatrix(12, 4);
  NCIntegralVector<int, -99> groups(4, 0);
  groups(2) = 1;
  groups(4) = 1;
  Matrix gapped = x;
  gapped.SetColumn(2, -99.0f);
  gapped.SetColumn(4, -99.0f);
  const NCDataVector<float> start = x.GetColumn(1);
  NCPCA excluded(&x, 50), reference(&gapped, 50);
  RecordingProgress progress;
  excluded.NextComponent(&progress, &groups, 1, &start);
  reference.NextComponent(&progress, nullptr, 0, &start);
  EXPECT_EQ(excluded.GetIterations(), reference.GetIterations());
  const auto &p = (*excluded.GetPprim())[1], &pr = (*reference.GetPprim())[1];
  EXPECT_EQ(p[2], -99.0f);
  EXPECT_EQ(p[4], -99.0f);
  for (int j : {1, 3}) EXPECT_NEAR(p[j], pr[j], 1e-6);
  for (int i = 1; i <= 12; ++i)
    EXPECT_NEAR((*excluded.GetTprim())[1][i], (*reference.GetTprim())[1][i], 1e-5);
}

TEST(PcaNipals, BadArgumentsChangeNothing) {
  const Matrix x = ScaledTestMatrix(10, 4);
  EXPECT_THROW(NCPCA(nullptr, 10), NCError);
  EXPECT_THROW(NCPCA(&x, 0), NCError);
  EXPECT_THROW(NCPCA().NextComponent(nullptr, nullptr, 0, nullptr), NCError);
  EXPECT_THROW(NCPCA(&x, 10).CalculateResiduals(), NCError);
  NCPCA model(&x, 10);
  const NCDataVector<float> shortStart(9, 1.0f);
  const NCIntegralVector<int, -99> shortGroups(3, 0);
  EXPECT_THROW(model.NextComponent(nullptr, nullptr, 0, &shortStart), NCError);
  EXPECT_THROW(model.NextComponent(nullptr, &shortGroups, 0, nullptr), NCError);
  EXPECT_EQ(model.GetComponents(), 0);
  EXPECT_EQ(model.GetPprim()->SizeRows(), 0);
  const Matrix wrongP(1, 3, 0.0f), rightT(1, 10, 0.0f);
  EXPECT_THROW(NCPCA(&x, &wrongP, &rightT, 10), NCError);
}

TEST(PcaModel, CopiesShareTheMatricesRebuildsCopyThem) {
  const Matrix x = ScaledTestMatrix(15, 5);
  auto first = std::make_unique<NCPCA>(&x, 100);
  NCPCA copy(*first), assigned;
  assigned = *first;
  RecordingProgress progress;
  first->NextComponent(&progress, nullptr, 0, nullptr);
  EXPECT_EQ(copy.GetPprim(), first->GetPprim());
  EXPECT_EQ(assigned.GetResiduals(), first->GetResiduals());
  EXPECT_EQ(copy.GetPprim()->SizeRows(), 1);
  first.reset();
  copy.CalculateResiduals();  // deflates the matrices that `assigned` shares
  EXPECT_EQ(*assigned.GetResiduals(), *copy.GetResiduals());
  EXPECT_FALSE(*copy.GetResiduals() == x);

  const NCPCA rebuilt(copy.GetResiduals(), copy.GetPprim(), copy.GetTprim(), 7);
  EXPECT_EQ(rebuilt.GetComponents(), 1);
  EXPECT_NE(rebuilt.GetPprim(), copy.GetPprim());
  EXPECT_EQ(*rebuilt.GetPprim(), *copy.GetPprim());
  EXPECT_EQ(*rebuilt.GetTprim(), *copy.GetTprim());
  EXPECT_EQ(*rebuilt.GetResiduals(), *copy.GetResiduals());
}

}  // namespace
