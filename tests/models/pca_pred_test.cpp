#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pca_pred.h>
#include <mvda/platform/error.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <omp.h>

#include "support/make_matrix.h"
#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Rows = std::vector<std::vector<double>>;
using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;
constexpr double kM = -99;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Normal values with a share of missing ones; fixed seed.
Matrix RandomMatrix(int rows, int cols, double missing, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> z;
  std::uniform_real_distribution<double> coin(0, 1);
  Matrix m(rows, cols, 0.0f);
  for (int i = 1; i <= rows; ++i)
    for (int j = 1; j <= cols; ++j) m(i, j, coin(gen) < missing ? -99.0f : float(z(gen)));
  return m;
}

void ExpectNear(const std::vector<double>& actual, const std::vector<double>& expected,
                double tolerance) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t k = 0; k < actual.size(); ++k) {
    if (std::isnan(expected[k]))
      EXPECT_TRUE(std::isnan(actual[k])) << "element " << k + 1;
    else
      EXPECT_NEAR(actual[k], expected[k], tolerance) << "element " << k + 1;
  }
}

// Oracle: the sequential projection in double, t_a = p_a' r, r -= t_a p_a, for complete rows;
// then the residuals X - sum t_a p_a' after all A components. Row 3 misses 2 of 6 values, over
// the limit of 0.2: missing scores, and its residual row stays as it was.
TEST(PcaPred, CompleteRowsAreProjectedAndDeflatedSequentially) {
  const int n = 5, k = 6, components = 3;
  Matrix x = RandomMatrix(n, k, 0, 1);
  x(3, 2, -99.0f);
  x(3, 5, -99.0f);
  const Matrix p = RandomMatrix(components, k, 0, 2);
  NCPCAPred pred(&x, &p, 100, 0.2f);
  ASSERT_EQ(pred.GetTPredPrim()->SizeRows(), components);
  ASSERT_EQ(pred.GetTPredPrim()->SizeColumns(), n);
  std::vector<std::vector<double>> e(n + 1, std::vector<double>(k + 1));
  for (int i = 1; i <= n; ++i) {
    SCOPED_TRACE(i);
    std::vector<double> r(x[i].begin(), x[i].end()), t(components);
    for (int a = 1; a <= components; ++a) {
      for (int j = 1; j <= k; ++j) t[a - 1] += p[a][j] * r[j - 1];
      for (int j = 1; j <= k; ++j) r[j - 1] -= t[a - 1] * p[a][j];
    }
    for (int j = 1; j <= k; ++j) e[i][j] = i == 3 ? x[i][j] : r[j - 1];
    std::vector<double> actual;
    for (int a = 1; a <= components; ++a) actual.push_back((*pred.GetTPredPrim())[a][i]);
    if (i == 3) t.assign(components, kM);
    ExpectNear(actual, t, 1e-5);
  }
  for (int a = 1; a <= components; ++a) pred.CalcNextResidual();
  EXPECT_EQ(pred.GetResidualsCompComputed(), components);
  for (int i = 1; i <= n; ++i)
    ExpectNear(ToStd((*pred.GetXResiduals())[i]), {e[i].begin() + 1, e[i].end()}, 1e-5);
  const Matrix before = *pred.GetXResiduals();
  try {
    pred.CalcNextResidual();
    FAIL() << "no exception";
  } catch (const NCError& error) {
    EXPECT_EQ(error.GetMessage(), "NCPCAPred::CalcNextResidual: all 3 components already applied");
  }
  EXPECT_EQ(*pred.GetXResiduals(), before);
  EXPECT_EQ(pred.GetResidualsCompComputed(), components);
}

// Rows with missing values: PLS of the present values on the loadings, worked by hand.
TEST(PcaPred, RowsWithMissingValuesAreEstimatedByPls) {
  struct Case {
    const char* name;
    Rows pprim;
    std::vector<double> x, t;
  };
  const double r2 = std::sqrt(0.5);
  const Case cases[] = {
      // One component: least squares over the present values, sum p_j x_j / sum p_j^2 =
      // (0.5 * 2 + 0.5 * 4) / 0.5 = 6 (the projection would give 3).
      {"A = 1", {{0.5, 0.5, -0.5, 0.5}}, {2, -99, -99, 4}, {6}},
      // Orthonormal loadings that are zero on the missing variable, x = P (0.6, 0.8) on the
      // present ones: w = P'x / |P'x|, c = |t| = 1, B = w c = (0.6, 0.8) after one component; the
      // second fits only round-off.
      {"in the loading space",
       {{r2, r2, 0, 0}, {0, 0, 1, 0}},
       {0.6 * r2, 0.6 * r2, 0.8, -99},
       {0.6, 0.8}},
      // Loadings zero on the missing variable make this plain PLS1 on the present ones; with c
      // below 2 it takes both components and so ends at least squares, (P'P)^-1 P'x with
      // P'P = [1 0.48; 0.48 1] and P'x = (0.46, -0.2): t = (0.556, -0.4208) / 0.7696.
      {"two components: least squares",
       {{0.6, 0.8, 0, 0}, {0, 0.6, 0.8, 0}},
       {0.5, 0.2, -0.4, -99},
       {0.556 / 0.7696, -0.4208 / 0.7696}},
      // Ten times that x: c = 7.7 >= 2 ends the fit after one component, B = w c = P'x |P'x|^2 /
      // (x'P P'P P'x) with P'x = (4.6, -2): 25.16 / 16.328 times P'x.
      {"c >= 2 stops",
       {{0.6, 0.8, 0, 0}, {0, 0.6, 0.8, 0}},
       {5, 2, -4, -99},
       {4.6 * 25.16 / 16.328, -2 * 25.16 / 16.328}},
      // One present value allows one component. The start y fills the gaps with +-|x_1| / 100:
      // u = (1, 0.01, -0.01), w ~ P'u = (0.608, -0.01), and c = x_1 / (P_1 w) fits x_1 exactly:
      // t = w / (0.6 w_1) = (1 / 0.6, -0.01 / (0.608 * 0.6)). A second component would fit only
      // the round-off left in x_1.
      {"one present value", {{0.6, 0.8, 0}, {0, 0, 1}}, {1, -99, -99}, {1 / 0.6, -0.01 / 0.3648}},
      // x = 1 * p_1 exactly (c = 1 < 2): the y residual is exactly 0, so the second component is
      // degenerate (0 / 0); the first one is kept.
      {"degenerate second component", {{1, 0, 0}, {0, 1, 0}}, {1, 0, -99}, {1, 0}},
      // Nothing to explain: the first component is degenerate, the scores are 0.
      {"degenerate first component", {{1, 0, 0}, {0, 1, 0}}, {0, 0, -99}, {0, 0}},
      // A NaN among the present values: no estimate (projection gives NaN as well).
      {"NaN", {{1, 0, 0}, {0, 1, 0}}, {kNaN, 1, -99}, {kNaN, kNaN}},
      // No present value at all (scored since the limit is 1): the centre.
      {"no present value", {{1, 0, 0}, {0, 1, 0}}, {-99, -99, -99}, {0, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Matrix p = MakeMatrix(c.pprim);
    const Matrix x = MakeMatrix({c.x});
    NCPCAPred pred(&x, &p, 100, 1.0f);
    std::vector<double> t;
    for (int a = 1; a <= p.SizeRows(); ++a) t.push_back((*pred.GetTPredPrim())[a][1]);
    ExpectNear(t, c.t, 1e-5);

    Vector direct(p.SizeRows(), 7.0f);
    ScoreEstimator(p, 100).GetT(direct, x[1]);
    ExpectNear(ToStd(direct), c.t, 1e-5);
  }
}

TEST(PcaPred, ScoresOnlyRowsWithinTheMissingShare) {
  const Matrix p = MakeMatrix({{0.5, 0.5, 0.5, 0.5}});
  // Missing shares 0, 1/4, 2/4 and 4/4. With limit 0.25 the first two are scored (exactly at the
  // limit counts), with 0 only the complete row.
  const Matrix x = MakeMatrix({{1, 1, 1, 1}, {1, -99, 1, 1}, {1, -99, -99, 1}, {kM, kM, kM, kM}});
  struct Case {
    float limit;
    std::vector<double> t;
  };
  const Case cases[] = {{0.25f, {2, 2, kM, kM}}, {0.0f, {2, kM, kM, kM}}, {1.0f, {2, 2, 2, 0}}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.limit);
    NCPCAPred pred(&x, &p, 100, c.limit);
    EXPECT_EQ(ToStd((*pred.GetTPredPrim())[1]), c.t);
  }
}

TEST(PcaPred, ModelWithoutComponents) {
  const Matrix x = MakeMatrix({{1, 2}, {3, -99}});
  for (const Matrix& p : {Matrix(0, 2, 0.0f), Matrix()}) {
    NCPCAPred pred(&x, &p, 100, 0.5f);
    EXPECT_EQ(pred.GetMaxComp(), 0);
    EXPECT_EQ(pred.GetTPredPrim()->SizeRows(), 0);
    EXPECT_THROW(pred.CalcNextResidual(), NCError);
    EXPECT_EQ(*pred.GetXResiduals(), x);
  }
  Vector t = MakeVector<float>({5});  // left as the caller gave it
  ScoreEstimator(Matrix(0, 2, 0.0f), 10).GetT(t, x[1]);
  EXPECT_EQ(ToStd(t), std::vector<double>{5});
}

TEST(PcaPred, RejectsBadArguments) {
  const Matrix x = MakeMatrix({{1, 2}, {3, 4}});
  const Matrix p = MakeMatrix({{1, 0}}), wide = MakeMatrix({{1, 0, 0}});
  struct Case {
    const Matrix *x, *p;
    int iterations;
    float limit;
    std::string message;
  };
  const std::string place = "NCPCAPred::NCPCAPred: ";
  const Case cases[] = {
      {nullptr, &p, 10, 0.5f, "null data matrix"},
      {&x, nullptr, 10, 0.5f, "null loading matrix"},
      {&x, &wide, 10, 0.5f, "loadings of 3 variables for data of 2"},
      {&x, &p, -1, 0.5f, "negative maximum of iterations -1"},
      {&x, &p, 10, -0.5f, "maximum missing fraction -0.500000 (0 or more needed)"},
      {&x, &p, 10, std::numeric_limits<float>::quiet_NaN(),
       "maximum missing fraction nan (0 or more needed)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    try {
      NCPCAPred(c.x, c.p, c.iterations, c.limit);
      ADD_FAILURE() << "no exception";
    } catch (const NCError& error) {
      EXPECT_EQ(error.GetMessage(), place + c.message);
    }
  }
  Vector t(1);
  EXPECT_THROW(ScoreEstimator(p, 10).GetT(t, MakeVector<float>({1, 2, 3})), NCError);
}

// Scores 2, 4, 6, 8 along p = (1, 0); removing observations 1 and 3 keeps 4 and 8. A copy is
// independent of its source in both directions.
TEST(PcaPred, RemovesObservationsAndCopiesDeeply) {
  const Matrix x = MakeMatrix({{2, 1}, {4, 1}, {6, 1}, {8, 1}});
  const Matrix p = MakeMatrix({{1, 0}});
  NCPCAPred pred(&x, &p, 100, 0.5f);
  NCPCAPred copy = pred;
  pred.RemoveObservations(NCIntegralVector<int, -99>(std::vector<int>{3, 1}.data(), 2));
  EXPECT_EQ(pred.SizeObservations(), 2);
  EXPECT_EQ(ToStd((*pred.GetTPredPrim())[1]), (std::vector<double>{4, 8}));
  EXPECT_EQ(*pred.GetXResiduals(), MakeMatrix({{4, 1}, {8, 1}}));
  pred.CalcNextResidual();
  EXPECT_EQ(*pred.GetXResiduals(), MakeMatrix({{0, 1}, {0, 1}}));

  EXPECT_EQ(copy.SizeObservations(), 4);
  EXPECT_EQ(copy.GetResidualsCompComputed(), 0);
  EXPECT_EQ(*copy.GetXResiduals(), x);
  copy.CalcNextResidual();
  NCPCAPred assigned(&x, &p, 100, 0.5f);
  assigned = copy;
  copy.RemoveObservations(NCIntegralVector<int, -99>(1, 2));
  EXPECT_EQ(assigned.SizeObservations(), 4);
  EXPECT_EQ(assigned.GetResidualsCompComputed(), 1);
  EXPECT_EQ(*assigned.GetXResiduals(), MakeMatrix({{0, 1}, {0, 1}, {0, 1}, {0, 1}}));
  EXPECT_EQ(*pred.GetXResiduals(), MakeMatrix({{0, 1}, {0, 1}}));
}

// Exact equality whatever the team: each observation is scored on its own. OpenMP's dynamic
// teams are switched off so that the teams are real.
TEST(PcaPred, ScoresDoNotDependOnThreads) {
  using NCMultiThreading::ThreadingControl;
  const int processors = ThreadingControl::GetNumberOfProcessors();
  const bool on = ThreadingControl::IsThreadingOn();
  omp_set_dynamic(0);
  const Matrix x = RandomMatrix(600, 30, 0.1, 3);
  const Matrix p = RandomMatrix(4, 30, 0, 4);
  ThreadingControl::SetThreadingIsOn(false);
  const NCPCAPred reference(&x, &p, 100, 0.2f);
  EXPECT_GT(reference.GetTPredPrim()->GetNumMisVal(), 0);  // some rows are over the limit
  for (const int team : {2, 3, 4}) {
    SCOPED_TRACE(team);
    ThreadingControl::SetNumberOfProcessors(team);
    ThreadingControl::SetThreadingIsOn(true);
    EXPECT_EQ(*NCPCAPred(&x, &p, 100, 0.2f).GetTPredPrim(), *reference.GetTPredPrim());
  }
  omp_set_dynamic(1);
  ThreadingControl::SetNumberOfProcessors(processors);
  ThreadingControl::SetThreadingIsOn(on);
}

}  // namespace
