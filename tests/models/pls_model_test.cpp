#include <mvda/models/pls.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/stream.h>

#include <cmath>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;

// Y and X driven by three latent scores plus noise, with about `share` of the cells missing.
void MakeData(int n, int k, int m, double share, unsigned seed, Matrix& x, Matrix& y) {
  std::mt19937 gen(seed);
  std::normal_distribution<double> z;
  std::uniform_real_distribution<double> coin(0, 1);
  std::vector<double> p(3 * (k + m));
  for (double& v : p) v = z(gen);
  x = Matrix(n, k, 0.0f);
  y = Matrix(n, m, 0.0f);
  for (int i = 1; i <= n; ++i) {
    const double t[3] = {3 * z(gen), 2 * z(gen), z(gen)};
    for (int j = 1; j <= k + m; ++j) {
      double v = 0.3 * z(gen);
      for (int a = 0; a < 3; ++a) v += t[a] * p[a * (k + m) + j - 1];
      const float cell = coin(gen) < share ? -99.0f : static_cast<float>(v);
      if (j <= k)
        x(i, j, cell);
      else
        y(i, j - k, cell);
    }
  }
}

NCPLS Fit(const Matrix& x, const Matrix& y, int components, bool deflateLast = true) {
  NCPLS model(&x, &y, 500);
  for (int a = 1; a <= components; ++a) {
    model.NextComponent(nullptr, nullptr, true, false);
    if (a < components || deflateLast) model.CalculateResiduals();
  }
  return model;
}

// sum_a left[a][i] * right[a][j] over the components, in double.
double Product(const Matrix& left, int i, const Matrix& right, int j) {
  double s = 0;
  for (int a = 1; a <= left.SizeRows(); ++a) s += double{left[a][i]} * right[a][j];
  return s;
}

// X = T P' + E and Y = T C' + F at every present cell, and the residuals missing exactly where
// the data are: deflation subtracts t p' cell by cell and leaves gaps alone.
TEST(PlsModel, ScoresAndLoadingsRebuildTheDataWithGaps) {
  for (const double share : {0.0, 0.1}) {
    SCOPED_TRACE(share);
    Matrix x, y;
    MakeData(40, 8, 3, share, 11, x, y);
    const NCPLS model = Fit(x, y, 3);
    const Matrix &t = *model.GetTprim(), &e = *model.GetXResiduals(), &f = *model.GetYResiduals();
    for (int i = 1; i <= 40; ++i) {
      for (int j = 1; j <= 8; ++j) {
        if (x[i][j] == -99.0f)
          EXPECT_EQ(e[i][j], -99.0f);
        else
          EXPECT_NEAR(x[i][j], Product(t, i, *model.GetPprim(), j) + e[i][j], 1e-4);
      }
      for (int j = 1; j <= 3; ++j) {
        if (y[i][j] == -99.0f)
          EXPECT_EQ(f[i][j], -99.0f);
        else
          EXPECT_NEAR(y[i][j], Product(t, i, *model.GetCprim(), j) + f[i][j], 1e-4);
      }
    }
    EXPECT_EQ(e.GetNumMisVal(), x.GetNumMisVal());
    for (int a = 1; a <= 3; ++a) EXPECT_NEAR((*model.GetWprim())[a].GetSS(), 1.0, 1e-5);
  }
}

// With complete data: W'W = I and T'T diagonal (each w_{a+1} is built from residuals that w_a
// annihilates), T = X W*' from the undeflated X, and X B = T C', so that Y - X B = F.
TEST(PlsModel, CompleteDataInvariantsAndCoefficients) {
  Matrix x, y;
  MakeData(30, 6, 3, 0.0, 5, x, y);
  NCPLS model = Fit(x, y, 3);
  const Matrix &w = *model.GetWprim(), &t = *model.GetTprim();
  for (int a = 1; a <= 3; ++a)
    for (int b = 1; b < a; ++b) {
      EXPECT_NEAR(w[a] * w[b], 0.0, 1e-5);
      EXPECT_NEAR(t[a] * t[b], 0.0, 1e-3 * std::sqrt(t[a].GetSS() * t[b].GetSS()));
    }
  const Matrix wstar = model.GetWStarPrim();
  const Matrix b = model.GetRegressionCoefficients(-1);
  ASSERT_EQ(b.SizeRows(), 6);
  ASSERT_EQ(b.SizeColumns(), 3);
  for (int i = 1; i <= 30; ++i) {
    for (int a = 1; a <= 3; ++a) {
      double s = 0;
      for (int j = 1; j <= 6; ++j) s += double{x[i][j]} * wstar[a][j];
      EXPECT_NEAR(s, t[a][i], 1e-4 * (1 + std::fabs(s)));
    }
    for (int m = 1; m <= 3; ++m) {
      double s = 0;
      for (int j = 1; j <= 6; ++j) s += double{x[i][j]} * b[j][m];
      EXPECT_NEAR(y[i][m] - s, (*model.GetYResiduals())[i][m], 1e-3);
    }
  }
  EXPECT_EQ(model.GetRegressionCoefficients(3), b);
  // Two components: the coefficients of the model after two deflations.
  const NCPLS two = Fit(x, y, 2);
  EXPECT_EQ(model.GetRegressionCoefficients(2), two.GetRegressionCoefficients(-1));
  const Matrix zero = model.GetRegressionCoefficients(0);
  EXPECT_EQ(zero, Matrix(6, 3, 0.0f));
  EXPECT_THROW(model.GetRegressionCoefficients(4), NCError);

  // Flipping negates t, u, w, p and c together, which leaves B as it was. The two-component
  // model has the same first components, unflipped.
  model.FlipComponent(2);
  const auto parts = [](const NCPLS& m) {
    return std::vector<const Matrix*>{m.GetCprim(), m.GetPprim(), m.GetWprim(), m.GetUprim(),
                                      m.GetTprim()};
  };
  for (int k = 0; k < 5; ++k) {
    const Vector& flippedRow = (*parts(model)[k])[2];
    const Vector& row = (*parts(two)[k])[2];
    for (int j = 1; j <= row.Size(); ++j) EXPECT_EQ(flippedRow[j], -row[j]) << k << " " << j;
    EXPECT_EQ((*parts(model)[k])[1], (*parts(two)[k])[1]);
  }
  const Matrix flipped = model.GetRegressionCoefficients(-1);
  for (int j = 1; j <= 6; ++j)
    for (int m = 1; m <= 3; ++m) EXPECT_NEAR(flipped[j][m], b[j][m], 1e-6);
  EXPECT_THROW(model.FlipComponent(4), NCError);

  const NCPLS empty(&x, &y, 10);
  EXPECT_EQ(empty.GetWStarPrim().SizeRows(), 0);
  EXPECT_EQ(empty.GetWStarPrim().SizeColumns(), 6);
}

TEST(PlsModel, CopiesShareTheirMatrices) {
  Matrix x, y;
  MakeData(12, 4, 2, 0.0, 3, x, y);
  auto* source = new NCPLS(&x, &y, 100);
  NCPLS copy(*source);
  NCPLS assigned;
  assigned = *source;
  source->NextComponent(nullptr, nullptr, true, false);
  source->CalculateResiduals();
  for (const NCPLS* other : {&copy, &assigned}) {
    EXPECT_EQ(other->GetXResiduals(), source->GetXResiduals());
    EXPECT_EQ(other->GetPprim()->SizeRows(), 1);  // the component shows in the shared matrices
    EXPECT_EQ(other->GetComponents(), 0);         // while the counters are each its own
  }
  const Matrix residuals = *source->GetXResiduals();
  delete source;  // the others still hold the matrices
  EXPECT_EQ(*copy.GetXResiduals(), residuals);
  EXPECT_EQ(*assigned.GetXResiduals(), residuals);
}

TEST(PlsModel, ShuffleReordersYBeforeTheFirstComponentOnly) {
  Matrix x(3, 1, 1.0f), y(3, 2, 0.0f);
  for (int i = 1; i <= 3; ++i) y(i, 1, static_cast<float>(i)), y(i, 2, static_cast<float>(-i));
  NCPLS model(&x, &y, 10);
  const int permutation[] = {0, 3, 1, 2};  // new row i = old row permutation[i]
  model.ShuffleYResiduals(permutation);
  const Matrix& shuffled = *model.GetYResiduals();
  EXPECT_EQ(shuffled[1][1], 3.0f);
  EXPECT_EQ(shuffled[2][2], -1.0f);
  EXPECT_EQ(shuffled[3][1], 2.0f);
  EXPECT_EQ(y[1][1], 1.0f);
  const int repeated[] = {0, 1, 1, 3};
  EXPECT_THROW(model.ShuffleYResiduals(repeated), NCError);
  EXPECT_THROW(model.ShuffleYResiduals(nullptr), NCError);
  EXPECT_EQ(*model.GetYResiduals(), shuffled);

  model.NextComponent(nullptr, nullptr, true, false);
  for (NCPLS* m : {&model, new NCPLS()}) {
    try {
      m->ShuffleYResiduals(permutation);
      ADD_FAILURE() << "no exception";
    } catch (const NCError& e) {
      EXPECT_EQ(e.GetMessage(), LanguageString::Get(10162));
    }
    if (m != &model) delete m;
  }
}

TEST(PlsModel, ConstructionChecksItsArguments) {
  Matrix x(4, 2, 1.0f), y(3, 1, 1.0f);
  const Vector y4(4, 1.0f), y3(3, 1.0f);
  EXPECT_THROW(NCPLS(&x, &y, 10), NCError);
  EXPECT_THROW(NCPLS(&x, &y3, 10), NCError);
  EXPECT_THROW(NCPLS(&x, static_cast<const Matrix*>(nullptr), 10), NCError);
  EXPECT_THROW(NCPLS(&x, &y4, -1), NCError);
  const NCPLS fromVector(&x, &y4, 10);
  EXPECT_EQ(fromVector.GetYResiduals()->SizeColumns(), 1);
  EXPECT_EQ(fromVector.GetCprim()->SizeColumns(), 1);
  EXPECT_EQ(fromVector.GetPprim()->SizeColumns(), 2);
  EXPECT_EQ(fromVector.GetTprim()->SizeColumns(), 4);
}

// Rebuilt from its parts, a model continues exactly as the original does.
TEST(PlsModel, RebuiltModelContinuesLikeTheOriginal) {
  Matrix x, y;
  MakeData(20, 5, 3, 0.1, 8, x, y);
  NCPLS model = Fit(x, y, 2);
  NCPLS rebuilt(model.GetXResiduals(), model.GetYResiduals(), model.GetCprim(), model.GetPprim(),
                model.GetWprim(), model.GetUprim(), model.GetTprim(), 500);
  EXPECT_EQ(rebuilt.GetComponents(), 2);
  model.NextComponent(nullptr, nullptr, true, false);
  rebuilt.NextComponent(nullptr, nullptr, true, false);
  EXPECT_EQ(*rebuilt.GetWprim(), *model.GetWprim());
  EXPECT_EQ(*rebuilt.GetTprim(), *model.GetTprim());
  const Matrix wrongRows(1, 5, 0.0f);
  EXPECT_THROW(NCPLS(model.GetXResiduals(), model.GetYResiduals(), model.GetCprim(), &wrongRows,
                     model.GetWprim(), model.GetUprim(), model.GetTprim(), 10),
               NCError);
}

void ExpectSameModel(const NCPLS& a, const NCPLS& b) {
  EXPECT_EQ(*a.GetCprim(), *b.GetCprim());
  EXPECT_EQ(*a.GetPprim(), *b.GetPprim());
  EXPECT_EQ(*a.GetWprim(), *b.GetWprim());
  EXPECT_EQ(*a.GetUprim(), *b.GetUprim());
  EXPECT_EQ(*a.GetTprim(), *b.GetTprim());
  EXPECT_EQ(*a.GetXResiduals(), *b.GetXResiduals());
  EXPECT_EQ(*a.GetYResiduals(), *b.GetYResiduals());
  EXPECT_EQ(a.GetComponents(), b.GetComponents());
  EXPECT_EQ(a.GetIterations(), b.GetIterations());
  EXPECT_EQ(a.GetMaxIterations(), b.GetMaxIterations());
}

TEST(PlsModel, StreamsOutAndBack) {
  Matrix x, y;
  MakeData(10, 4, 2, 0.1, 21, x, y);
  const NCPLS model = Fit(x, y, 2, false);  // the second component not deflated yet
  std::stringstream out;
  ASSERT_TRUE(StreamOut(model, out));
  const std::string bytes = out.str();
  // Record: magic length 5, "NCPLS", version 2; then a directory of all 9 entries.
  EXPECT_EQ(bytes.substr(0, 17), std::string("\x05\0\0\0NCPLS\x02\0\0\0\x09\0\0\0", 17));

  NCPLS read;
  std::istringstream in(bytes);
  ASSERT_TRUE(StreamIn(read, in));
  ExpectSameModel(read, model);

  // Another version, and every truncation: false or an exception, and the model untouched.
  const NCPLS reference = Fit(x, y, 1);
  std::string other = bytes;
  other[9] = '\x03';
  std::vector<std::string> damaged = {other};
  for (std::size_t n = 0; n < bytes.size(); ++n) damaged.push_back(bytes.substr(0, n));
  NCPLS target = Fit(x, y, 1);
  for (const std::string& d : damaged) {
    SCOPED_TRACE(d.size());
    std::istringstream damagedIn(d);
    bool ok = false;
    try {
      ok = StreamIn(target, damagedIn);
    } catch (const std::exception&) {
    }
    EXPECT_FALSE(ok);
    ExpectSameModel(target, reference);
    if (HasFailure()) break;
  }
}

}  // namespace
