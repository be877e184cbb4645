#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pls.h>
#include <mvda/models/pls_pred.h>
#include <mvda/models/pls_residuals.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <omp.h>

#include "support/make_vector.h"  // MakeVector<T>({...}): a vector from literals, -99 = missing

namespace {

using Matrix = NCDataMatrix<float>;
using NCMultiThreading::ThreadingControl;

// Two latent directions behind X (n x k, a share `gaps` of it missing) and Y (n x 2), fixed seed,
// and a model of `components` components.
struct Fitted {
  Matrix x, y;
  NCPLS model;
  Fitted(int n, int k, double gaps, int components) : x(n, k, 0.0f), y(n, 2, 0.0f) {
    std::mt19937 gen(11);
    std::normal_distribution<double> z;
    std::uniform_real_distribution<double> coin(0, 1);
    for (int i = 1; i <= n; ++i) {
      const double s1 = z(gen), s2 = z(gen);
      for (int j = 1; j <= k; ++j) {
        const double v = s1 * std::sin(j) + s2 * std::cos(2.0 * j) + 0.2 * z(gen);
        x(i, j, coin(gen) < gaps ? -99.0f : static_cast<float>(v));
      }
      for (int j = 1; j <= 2; ++j) y(i, j, static_cast<float>(j * s1 - s2 + 0.1 * z(gen)));
    }
    model = NCPLS(&x, &y, 500);
    for (int a = 1; a <= components; ++a) {
      model.NextComponent(nullptr, nullptr, true, true);
      model.CalculateResiduals();
    }
  }
  NCPLSPred Pred(float tolerance) const {
    return NCPLSPred(&x, model.GetWprim(), model.GetPprim(), model.GetCprim(), tolerance);
  }
};

// On its own training X, prediction retraces the fit: component a's scores are row a of Tprim
// (unit weight rows and few gaps, so the floored regression divides by what the fit divided by),
// X ends as the model's X residuals and the prediction is Y minus the model's Y residuals.
TEST(PlsPred, RetracesTheFitOnTheTrainingData) {
  for (const double gaps : {0.0, 0.03}) {
    SCOPED_TRACE(gaps);
    const Fitted f(60, 7, gaps, 3);
    Matrix original;
    original.CopyContent(f.x);  // private: a write into the shared buffers would show
    NCPLSPred pred = f.Pred(1.0f);
    for (int a = 1; a <= 3; ++a) {
      pred.CalcNextComponent();
      for (int i = 1; i <= 60; ++i)
        EXPECT_NEAR((*pred.GetTPred())[i], (*f.model.GetTprim())[a][i], 2e-5) << a << "," << i;
    }
    for (int i = 1; i <= 60; ++i) {
      for (int j = 1; j <= 7; ++j)
        EXPECT_NEAR((*pred.GetXResiduals())[i][j], (*f.model.GetXResiduals())[i][j], 2e-5);
      for (int j = 1; j <= 2; ++j)
        EXPECT_NEAR((*pred.GetYPred())[i][j], f.y[i][j] - (*f.model.GetYResiduals())[i][j], 2e-5);
    }
    EXPECT_EQ(f.x, original);
  }
}

// Weights (1/2, 1/2, 1/2, 1/2): a score is 1/2 (sum of present values) / max(sum of present
// weights squared, 1/3), so (1, 2, -, 3) scores 3 / 0.75 = 4 and (2, -, -, -) 1 / (1/3) = 3. A row
// may lack K - a - 1 values for component a (from 0), or K x tolerance truncated if fewer.
TEST(PlsPred, MissingToleranceBoundsTheGapsAScoreMayHave) {
  const Matrix w(2, 4, 0.5f), p(2, 4, 0.0f), c(2, 1, 2.0f);
  Matrix x(4, 4, 0.0f);
  const std::vector<std::vector<double>> rows = {
      {1, 2, 3, 4}, {1, 2, -99, 3}, {2, -99, -99, -99}, {-99, -99, -99, -99}};
  for (int i = 1; i <= 4; ++i) x.SetRow(i, MakeVector<float>(rows[i - 1]));
  const struct {
    float tolerance;
    std::vector<double> first, second;  // limits 3 and 2, at most 4 x tolerance
  } cases[] = {{1.0f, {5, 4, 3, -99}, {5, 4, -99, -99}},
               {0.74f, {5, 4, -99, -99}, {5, 4, -99, -99}},  // 2.96 truncates to 2
               {0.0f, {5, -99, -99, -99}, {5, -99, -99, -99}}};
  for (const auto& cs : cases) {
    SCOPED_TRACE(cs.tolerance);
    NCPLSPred pred(x, w, p, c, cs.tolerance);
    pred.CalcNextComponent();
    EXPECT_EQ(ToStd(*pred.GetTPred()), cs.first);
    for (int i = 1; i <= 4; ++i)  // t c; a row without a score keeps its zero
      EXPECT_EQ((*pred.GetYPred())[i][1], cs.first[i - 1] == -99 ? 0 : 2 * cs.first[i - 1]);
    pred.CalcNextComponent();  // P = 0 left X as it was
    EXPECT_EQ(ToStd(*pred.GetTPred()), cs.second);
    EXPECT_EQ(pred.GetTPred()->GetNumMisVal(), std::count(cs.second.begin(), cs.second.end(), -99));
  }
}

TEST(PlsPred, ThrowsPastTheLastComponentAndOnPartsThatDoNotFit) {
  const Fitted f(20, 5, 0.0, 2);
  NCPLSPred pred = f.Pred(1.0f);
  pred.CalcNextComponent();
  pred.CalcNextComponent();
  const Matrix x = *pred.GetXResiduals(), y = *pred.GetYPred();
  try {
    pred.CalcNextComponent();
    ADD_FAILURE() << "no exception";
  } catch (const NCError& e) {
    EXPECT_EQ(e.GetMessage(), "NCPLSPred::CalcNextComponent: all 2 components already applied");
  }
  EXPECT_EQ(pred.GetCompComputed(), 2);
  EXPECT_EQ(*pred.GetXResiduals(), x);
  EXPECT_EQ(*pred.GetYPred(), y);

  const Matrix w(2, 4, 0.5f), c(2, 1, 1.0f);
  Matrix x4(3, 4, 1.0f), yPred(1, 1, 7.0f);
  EXPECT_THROW(NCPLSPred(nullptr, &w, &w, &c, 1.0f), NCError);
  EXPECT_THROW(NCPLSPred(x4, w, Matrix(2, 3, 0.1f), c, 1.0f), NCError);  // P narrower than W
  EXPECT_THROW(NCPLSPred(Matrix(3, 5, 1.0f), w, w, c, 1.0f), NCError);   // X wider than W
  EXPECT_THROW(NCPLSPred(x4, w, w, c, -0.1f), NCError);
  EXPECT_THROW(NCPLSPred(true, &x4, &yPred, w, w, Matrix(1, 1, 1.0f), 1.0f), NCError);
  EXPECT_EQ(yPred, Matrix(1, 1, 7.0f));                 // untouched by the failed construction
  NCPLSPred inPlace(true, &x4, &yPred, w, w, c, 1.0f);  // the caller's matrices, Y reset
  EXPECT_EQ(yPred, Matrix(3, 1, 0.0f));
  inPlace.CalcNextComponent();
  EXPECT_EQ(x4, Matrix(3, 4, 0.0f));  // 1 - t p with t = 2, p = 1/2
}

// A copy shares X and the Y prediction with its source; either may be destroyed first (ASan checks
// the release).
TEST(PlsPred, CopiesShareAndMayBeDestroyedInEitherOrder) {
  const Fitted f(12, 4, 0.0, 2);
  for (const bool sourceFirst : {true, false}) {
    SCOPED_TRACE(sourceFirst);
    auto source = std::make_unique<NCPLSPred>(f.Pred(1.0f));
    auto copy = std::make_unique<NCPLSPred>(*source);
    NCPLSPred assigned = f.Pred(1.0f);
    assigned = *copy;
    copy->CalcNextComponent();
    EXPECT_EQ(source->GetCompComputed(), 0);  // counters are each object's own
    EXPECT_EQ(source->GetYPred(), copy->GetYPred());
    EXPECT_EQ(assigned.GetXResiduals(), copy->GetXResiduals());
    EXPECT_NE(*source->GetYPred(), Matrix(12, 2, 0.0f));
    (sourceFirst ? source : copy).reset();
    NCPLSPred& survivor = sourceFirst ? *copy : *source;
    survivor.CalcNextComponent();
    EXPECT_EQ(*assigned.GetYPred(), *survivor.GetYPred());
  }
}

// The scoring runs on several threads; four threads (dynamic teams off, so that they really run)
// give the same scores, missing counts and residuals as one.
TEST(PlsPred, ScoresDoNotDependOnThreading) {
  const int processors = ThreadingControl::GetNumberOfProcessors(), dynamic = omp_get_dynamic();
  const bool on = ThreadingControl::IsThreadingOn();
  omp_set_dynamic(0);
  ThreadingControl::SetNumberOfProcessors(4);
  const Fitted f(3000, 40, 0.2, 3);
  std::vector<std::vector<double>> scores(2);
  std::vector<Matrix> residuals;
  for (const bool threads : {false, true}) {
    ThreadingControl::SetThreadingIsOn(threads);
    NCPLSPred pred = f.Pred(0.3f);  // 12 of 40 gaps allowed: some of ~8 expected rows lack more
    for (int a = 1; a <= 3; ++a) {
      pred.CalcNextComponent();
      for (double t : ToStd(*pred.GetTPred())) scores[threads].push_back(t);
      scores[threads].push_back(pred.GetTPred()->GetNumMisVal());
    }
    residuals.push_back(*pred.GetXResiduals());
  }
  ThreadingControl::SetNumberOfProcessors(processors);
  ThreadingControl::SetThreadingIsOn(on);
  omp_set_dynamic(dynamic);
  EXPECT_EQ(scores[0], scores[1]);
  EXPECT_EQ(residuals[0], residuals[1]);
  EXPECT_GT(scores[0][3000], 0);  // component 1 did leave rows without a score
}

}  // namespace
