// The Gram path of NCPCA and NCPLS against their fits on the data themselves: the same
// iterations, so every component, iteration count and figure a host reads must agree.
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/models/pca.h>
#include <mvda/models/pls.h>
#include <mvda/platform/progress.h>
#include <mvda/platform/stream.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>
#include <omp.h>

namespace {

using Matrix = NCDataMatrix<float>;
using NCMultiThreading::ThreadingControl;

// `latent` directions with singular values falling by `decay`, plus noise: NIPALS needs separated
// leading components to converge in a realistic number of iterations. Fixed seed.
Matrix LatentMatrix(int rows, int cols, unsigned seed, int latent = 6, double decay = 0.7,
                    double noise = 0.05) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> normal(0, 1);
  std::vector<std::vector<double>> a(latent, std::vector<double>(rows)),
      b(latent, std::vector<double>(cols));
  for (auto& v : a)
    for (double& x : v) x = normal(gen) / std::sqrt(rows);
  for (auto& v : b)
    for (double& x : v) x = normal(gen) / std::sqrt(cols);
  Matrix x(rows, cols, 0.0f);
  for (int i = 0; i < rows; ++i)
    for (int j = 0; j < cols; ++j) {
      double value = noise * normal(gen);
      for (int k = 0; k < latent; ++k) value += 10 * std::pow(decay, k) * a[k][i] * b[k][j];
      x(i + 1, j + 1, static_cast<float>(value));
    }
  return x;
}

// Every SetRange and SetValue, in order.
class Recorder : public NCProgress {
 public:
  void SetRange(double min, double max) override {
    calls.push_back(min);
    NCProgress::SetRange(min, max);
  }
  bool SetValue(double value) override {
    calls.push_back(value);
    return NCProgress::SetValue(value);
  }
  std::vector<double> calls;
};

// Largest |a - b| over all elements, relative to the largest |b|; both must have b's shape.
double RelativeGap(const Matrix& a, const Matrix& b) {
  EXPECT_EQ(a.SizeRows(), b.SizeRows());
  EXPECT_EQ(a.SizeColumns(), b.SizeColumns());
  double gap = 0, scale = 0;
  for (int i = 1; i <= b.SizeRows(); ++i)
    for (int j = 1; j <= b.SizeColumns(); ++j) {
      gap = std::max(gap, std::abs(double(a[i][j]) - b[i][j]));
      scale = std::max(scale, std::abs(double(b[i][j])));
    }
  return gap / std::max(scale, 1e-30);
}

// Progress values -c, c = 10 (log10 d + 10), of the two paths. The float rounding of the scores
// (about 1e-7 of their length) moves the change sqrt(d) by about 1e-7 / sqrt(d) of itself, so
// the tolerance grows by sqrt(10) per decade that d falls, from 0.05 (1 % of d) for large changes
// to 0.15 at d = 1e-10. Below d = 1e-11 d
// measures mostly that rounding, and both paths need only have converged (-c >= 0).
void ExpectSameMeasure(double gram, double data) {
  if (data < 10)
    EXPECT_NEAR(gram, data, 0.05 + 0.1 * std::pow(10.0, data / 20) + 1e-3 * std::abs(data));
  else
    EXPECT_GE(gram, 0.0);
}

// The host's loop on both paths side by side, reading every matrix between the steps: after
// NextComponent the residuals are not yet deflated, after CalculateResiduals they are.
void ExpectPcaPathsAgree(const Matrix& x, int components) {
  NCPCA gram(&x, 500), plain(&x, 500);
  plain.SetGramIterations(false);
  for (int a = 1; a <= components; ++a) {
    SCOPED_TRACE(a);
    Recorder onGram, onE;
    gram.NextComponent(&onGram, nullptr, 0, nullptr);
    plain.NextComponent(&onE, nullptr, 0, nullptr);
    EXPECT_TRUE(gram.IsFittingOnGram());
    EXPECT_FALSE(plain.IsFittingOnGram());
    // The convergence measures (progress values -c, c = 10 (log10 d + 10)) agree to the float
    // rounding of t, a few hundredths. So do the iteration counts, unless the last measure lies
    // within that rounding of the threshold 0, where one path may stop an iteration before the
    // other.
    const int iterations = gram.GetIterations(), reference = plain.GetIterations();
    const std::size_t common = std::min(onGram.calls.size(), onE.calls.size());
    for (std::size_t k = 0; k < common; ++k) ExpectSameMeasure(onGram.calls[k], onE.calls[k]);
    if (iterations != reference) {
      EXPECT_EQ(std::abs(iterations - reference), 1);
      EXPECT_NEAR(onE.calls[common - 1], 0.0, 0.05);
    }
    EXPECT_LT(RelativeGap(*gram.GetPprim(), *plain.GetPprim()), 2e-5);
    EXPECT_LT(RelativeGap(*gram.GetTprim(), *plain.GetTprim()), 2e-5);
    EXPECT_LT(RelativeGap(*gram.GetResiduals(), *plain.GetResiduals()), 2e-5);
    gram.CalculateResiduals();
    plain.CalculateResiduals();
    EXPECT_LT(RelativeGap(*gram.GetResiduals(), *plain.GetResiduals()), 5e-5);
    EXPECT_EQ(gram.GetResiduals()->GetNumMisVal(), 0);
  }
}

TEST(PcaGram, AgreesWithTheFitOnTheData) {
  {
    SCOPED_TRACE("200 x 50, the size of the singular-vector test");
    ExpectPcaPathsAgree(LatentMatrix(200, 50, 11), 5);
  }
  {
    // N K^2 above 2^25: the Gram matrix is formed in single precision, in two waves of blocks.
    SCOPED_TRACE("2600 x 120, single precision");
    ExpectPcaPathsAgree(LatentMatrix(2600, 120, 5, 8, 0.8, 0.2), 6);
  }
  {
    SCOPED_TRACE("square");
    ExpectPcaPathsAgree(LatentMatrix(40, 40, 7), 3);
  }
}

// Wide data iterate on E E' (N x N) instead.
TEST(PcaGram, WideDataAgreeWithTheFitOnTheData) {
  {
    SCOPED_TRACE("50 x 200, the first case's shape transposed");
    ExpectPcaPathsAgree(LatentMatrix(50, 200, 11), 5);
  }
  {
    // N^2 K above 2^25: E E' in single precision, from six blocks of columns in two waves.
    SCOPED_TRACE("120 x 2600, single precision");
    ExpectPcaPathsAgree(LatentMatrix(120, 2600, 5, 8, 0.8, 0.2), 6);
  }
  {
    SCOPED_TRACE("one column more than rows");
    ExpectPcaPathsAgree(LatentMatrix(39, 40, 7), 3);
  }
  {
    // No latent structure: the components are the noise's, with slow convergence and more
    // iterations; deflation must keep every later one on the same track.
    SCOPED_TRACE("pure noise");
    ExpectPcaPathsAgree(LatentMatrix(30, 90, 13, 1, 0.7, 1.0), 4);
  }
}

// Only complete data go to a Gram matrix; a start vector keeps the fit on E, and so does the
// switch.
TEST(PcaGram, TakenOnlyWhereItApplies) {
  Matrix gappy = LatentMatrix(60, 10, 3), gappyWide = LatentMatrix(10, 30, 3);
  gappy(5, 2, -99.0f);
  gappyWide(2, 5, -99.0f);
  const Matrix wide = LatentMatrix(10, 30, 3);
  const Matrix x = LatentMatrix(60, 10, 3);
  for (const Matrix* m : {&gappy, &gappyWide}) {
    NCPCA model(m, 100);
    model.NextComponent(nullptr, nullptr, 0, nullptr);
    EXPECT_FALSE(model.IsFittingOnGram());
  }
  NCPCA wideModel(&wide, 100);
  wideModel.NextComponent(nullptr, nullptr, 0, nullptr);
  EXPECT_TRUE(wideModel.IsFittingOnGram());
  NCPCA model(&x, 100);
  model.NextComponent(nullptr, nullptr, 0, nullptr);
  EXPECT_TRUE(model.IsFittingOnGram());
  const NCDataVector<float> start = (*model.GetTprim())[1];
  model.CalculateResiduals();
  model.SetGramIterations(false);
  EXPECT_FALSE(model.IsFittingOnGram());
  model.SetGramIterations(true);
  model.NextComponent(nullptr, nullptr, 0, &start);
  EXPECT_FALSE(model.IsFittingOnGram());
  model.NextComponent(nullptr, nullptr, 0, nullptr);
  EXPECT_TRUE(model.IsFittingOnGram());
}

// A host that deflates twice by the same component, or fits twice without deflating, gets what
// the fits on E give; so do copies made half-way, which share the matrices.
TEST(PcaGram, IrregularHostLoopsAndCopies) {
  for (const Matrix& x : {LatentMatrix(300, 20, 9), LatentMatrix(20, 300, 9)}) {
    SCOPED_TRACE(x.SizeRows());
    NCPCA gram(&x, 500), plain(&x, 500);
    plain.SetGramIterations(false);
    for (NCPCA* m : {&gram, &plain}) {
      m->NextComponent(nullptr, nullptr, 0, nullptr);
      m->NextComponent(nullptr, nullptr, 0, nullptr);  // the same component again
      m->CalculateResiduals();
      m->CalculateResiduals();  // and deflated twice
      m->NextComponent(nullptr, nullptr, 0, nullptr);
    }
    const NCPCA copy(gram);
    gram.CalculateResiduals();
    plain.CalculateResiduals();
    EXPECT_EQ(gram.GetIterations(), plain.GetIterations());
    EXPECT_LT(RelativeGap(*copy.GetTprim(), *plain.GetTprim()), 2e-5);
    EXPECT_LT(RelativeGap(*copy.GetResiduals(), *plain.GetResiduals()), 5e-5);
    EXPECT_LT(RelativeGap(*gram.GetPprim(), *plain.GetPprim()), 2e-5);
  }
}

// The written model holds the formed scores and residuals.
TEST(PcaGram, StreamWritesTheFormedMatrices) {
  const Matrix x = LatentMatrix(100, 12, 4);
  NCPCA model(&x, 200);
  model.NextComponent(nullptr, nullptr, 0, nullptr);
  model.CalculateResiduals();
  model.NextComponent(nullptr, nullptr, 0, nullptr);
  model.CalculateResiduals();
  ASSERT_TRUE(model.IsFittingOnGram());
  std::ostringstream os;
  os << model;
  NCPCA read;
  std::istringstream is(os.str());
  is >> read;
  ASSERT_TRUE(is);
  EXPECT_EQ(read.GetTprim()->GetNumMisVal(), 0);
  EXPECT_EQ(*read.GetTprim(), *model.GetTprim());
  EXPECT_EQ(*read.GetResiduals(), *model.GetResiduals());
  // X = T P' + E.
  double worst = 0;
  for (int i = 1; i <= 100; ++i)
    for (int j = 1; j <= 12; ++j) {
      double rebuilt = (*read.GetResiduals())[i][j];
      for (int a = 1; a <= 2; ++a)
        rebuilt += double((*read.GetTprim())[a][i]) * (*read.GetPprim())[a][j];
      worst = std::max(worst, std::abs(rebuilt - x[i][j]));
    }
  EXPECT_LT(worst, 1e-5);
}

// The blocks of the Gram matrix are fixed by the data, so the team size changes no bit.
TEST(PcaGram, SameBitsForAnyTeam) {
  const int processors = ThreadingControl::GetNumberOfProcessors();
  const bool on = ThreadingControl::IsThreadingOn();
  omp_set_dynamic(0);
  // Single precision, two waves of blocks of rows; and of columns for E E'.
  for (const Matrix& x : {LatentMatrix(2600, 120, 8), LatentMatrix(120, 2600, 8)}) {
    SCOPED_TRACE(x.SizeRows());
    const auto fit = [&] {
      NCPCA model(&x, 500);
      for (int a = 1; a <= 3; ++a) {
        model.NextComponent(nullptr, nullptr, 0, nullptr);
        model.CalculateResiduals();
      }
      return model;
    };
    ThreadingControl::SetThreadingIsOn(false);
    const NCPCA reference = fit();
    for (const int team : {2, 3}) {
      SCOPED_TRACE(team);
      ThreadingControl::SetNumberOfProcessors(team);
      ThreadingControl::SetThreadingIsOn(true);
      const NCPCA model = fit();
      EXPECT_EQ(*model.GetPprim(), *reference.GetPprim());
      EXPECT_EQ(*model.GetTprim(), *reference.GetTprim());
      EXPECT_EQ(*model.GetResiduals(), *reference.GetResiduals());
    }
  }
  omp_set_dynamic(1);
  ThreadingControl::SetNumberOfProcessors(processors);
  ThreadingControl::SetThreadingIsOn(on);
}

// Y from the latent structure of X: each column a mix of the first columns of X plus noise.
Matrix ResponsesOf(const Matrix& x, int columns, unsigned seed) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> normal(0, 1);
  Matrix y(x.SizeRows(), columns, 0.0f);
  for (int i = 1; i <= x.SizeRows(); ++i)
    for (int m = 1; m <= columns; ++m) {
      double v = 0.1 * normal(gen);
      for (int j = 1; j <= 4; ++j) v += (m + j) * 0.3 * x[i][j];
      y(i, m, static_cast<float>(v));
    }
  return y;
}

void ExpectPlsPathsAgree(const Matrix& x, const Matrix& y, int components, bool withStart) {
  NCPLS gram(&x, &y, 500), plain(&x, &y, 500);
  plain.SetGramIterations(false);
  for (int a = 1; a <= components; ++a) {
    SCOPED_TRACE(a);
    Recorder onGram, onData;
    const NCDataVector<float> start(x.SizeColumns(), 1.0f);
    gram.NextComponent(&onGram, withStart ? &start : nullptr, false, true);
    plain.NextComponent(&onData, withStart ? &start : nullptr, false, true);
    EXPECT_TRUE(gram.IsFittingOnGram());
    EXPECT_FALSE(plain.IsFittingOnGram());
    const std::size_t common = std::min(onGram.calls.size(), onData.calls.size());
    for (std::size_t k = 0; k < common; ++k) ExpectSameMeasure(onGram.calls[k], onData.calls[k]);
    if (gram.GetIterations() != plain.GetIterations()) {  // see ExpectPcaPathsAgree
      EXPECT_EQ(std::abs(gram.GetIterations() - plain.GetIterations()), 1);
      EXPECT_NEAR(onData.calls[common - 1], 0.0, 0.05);
    }
    EXPECT_LT(RelativeGap(*gram.GetWprim(), *plain.GetWprim()), 2e-5);
    EXPECT_LT(RelativeGap(*gram.GetPprim(), *plain.GetPprim()), 2e-5);
    EXPECT_LT(RelativeGap(*gram.GetCprim(), *plain.GetCprim()), 2e-5);
    EXPECT_LT(RelativeGap(*gram.GetTprim(), *plain.GetTprim()), 2e-5);
    EXPECT_LT(RelativeGap(*gram.GetUprim(), *plain.GetUprim()), 2e-5);
    EXPECT_LT(RelativeGap(*gram.GetXResiduals(), *plain.GetXResiduals()), 2e-5);
    gram.CalculateResiduals();
    plain.CalculateResiduals();
    EXPECT_LT(RelativeGap(*gram.GetXResiduals(), *plain.GetXResiduals()), 5e-5);
    EXPECT_LT(RelativeGap(*gram.GetYResiduals(), *plain.GetYResiduals()), 5e-5);
  }
  EXPECT_LT(RelativeGap(gram.GetRegressionCoefficients(-1), plain.GetRegressionCoefficients(-1)),
            5e-5);
}

TEST(PlsGram, AgreesWithTheFitOnTheData) {
  const Matrix small = LatentMatrix(200, 50, 11), large = LatentMatrix(2600, 120, 5, 8, 0.8, 0.2);
  {
    SCOPED_TRACE("200 x 50, three responses");
    ExpectPlsPathsAgree(small, ResponsesOf(small, 3, 1), 4, false);
  }
  {
    SCOPED_TRACE("one response");
    ExpectPlsPathsAgree(small, ResponsesOf(small, 1, 2), 3, false);
  }
  {
    SCOPED_TRACE("start weights");
    ExpectPlsPathsAgree(small, ResponsesOf(small, 2, 3), 3, true);
  }
  {
    SCOPED_TRACE("2600 x 120, four responses, single precision");
    ExpectPlsPathsAgree(large, ResponsesOf(large, 4, 4), 5, false);
  }
}

// A flip between extraction and deflation, copies and a Y with a gap (which keeps the fit on the
// data) all leave what the host reads as the fits on the data give it.
TEST(PlsGram, FlipsCopiesAndGaps) {
  const Matrix x = LatentMatrix(300, 20, 9);
  Matrix y = ResponsesOf(x, 2, 5);
  NCPLS gram(&x, &y, 500), plain(&x, &y, 500);
  plain.SetGramIterations(false);
  for (NCPLS* m : {&gram, &plain}) {
    m->NextComponent(nullptr, nullptr, true, false);
    m->FlipComponent(1);
    m->CalculateResiduals();
    m->NextComponent(nullptr, nullptr, true, false);
  }
  const NCPLS copy(gram);
  gram.CalculateResiduals();
  plain.CalculateResiduals();
  EXPECT_LT(RelativeGap(*copy.GetTprim(), *plain.GetTprim()), 2e-5);
  EXPECT_LT(RelativeGap(*copy.GetUprim(), *plain.GetUprim()), 2e-5);
  EXPECT_LT(RelativeGap(*copy.GetXResiduals(), *plain.GetXResiduals()), 5e-5);
  EXPECT_LT(RelativeGap(*copy.GetYResiduals(), *plain.GetYResiduals()), 5e-5);

  y(7, 2, -99.0f);
  NCPLS gappy(&x, &y, 500);
  gappy.NextComponent(nullptr, nullptr, true, false);
  EXPECT_FALSE(gappy.IsFittingOnGram());
}

}  // namespace
