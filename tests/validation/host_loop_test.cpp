// What a host application does with the library, end to end on the embedded data: scale, fit one
// component at a time, cross-validate each, keep it (and deflate) only when it is significant,
// stop at the first one that is not, then predict rows the model never saw, with and without
// missing values, and again after the model went through a stream.
#include <mvda/models/pca.h>
#include <mvda/models/pca_pred.h>
#include <mvda/models/pls.h>
#include <mvda/models/pls_pred.h>
#include <mvda/platform/stream.h>
#include <mvda/preprocess/scale.h>
#include <mvda/validation/pca_cross_validation.h>
#include <mvda/validation/pls_cross_validation.h>
#include <mvda/validation/significance.h>

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/csv.h"  // ReadCsv(name): the embedded datasets under data/

namespace {

using Matrix = NCDataMatrix<float>;
using Vector = NCDataVector<float>;

// Rows of `table` (every `holdEvery`-th row held out when `heldOut`, the others otherwise) and the
// named columns, as a float matrix.
Matrix Rows(const CsvTable& table, const std::vector<std::string>& columns, int holdEvery,
            bool heldOut) {
  std::vector<int> rows;
  for (int i = 0; i < static_cast<int>(table.rows.size()); ++i)
    if ((i % holdEvery == holdEvery - 1) == heldOut) rows.push_back(i);
  Matrix m(static_cast<int>(rows.size()), static_cast<int>(columns.size()), 0.0f);
  for (std::size_t r = 0; r < rows.size(); ++r)
    for (std::size_t c = 0; c < columns.size(); ++c)
      m(static_cast<int>(r) + 1, static_cast<int>(c) + 1,
        static_cast<float>(table.Number(rows[r], table.Column(columns[c]))));
  return m;
}

Vector ColumnSS(const Matrix& m) {
  Vector ss(m.SizeColumns(), 0.0f);
  for (int j = 1; j <= m.SizeColumns(); ++j) ss(j, static_cast<float>(m.GetColumnSS(j)));
  return ss;
}

// Each held-out row with one value removed (a different variable for each row).
Matrix WithHoles(const Matrix& m) {
  Matrix holes = m;
  holes.ForceUnlink();
  for (int i = 1; i <= holes.SizeRows(); ++i) holes(i, 1 + (i * 5) % holes.SizeColumns(), -99.0f);
  return holes;
}

template <class Model>
std::string Streamed(const NCScale& scale, const Model& model) {
  std::ostringstream out;
  EXPECT_TRUE(StreamOut(scale, out));
  EXPECT_TRUE(StreamOut(model, out));
  return out.str();
}

const std::vector<std::string> kWine = {
    "Alcohol",         "MalicAcid",      "Ash",        "AlcalinityOfAsh",
    "Magnesium",       "TotalPhenols",   "Flavanoids", "NonflavanoidPhenols",
    "Proanthocyanins", "ColorIntensity", "Hue",        "OD280_OD315",
    "Proline"};

TEST(HostLoop, PcaOnWineKeepsSignificantComponentsAndPredictsAfterStreaming) {
  const CsvTable wine = ReadCsv("wine.csv");
  Matrix X = Rows(wine, kWine, 6, false);
  const Matrix rawNew = Rows(wine, kWine, 6, true);
  NCScale scale(X.SizeColumns());
  for (int j = 1; j <= scale.Size(); ++j) scale.SetType(j, NCScale::kUnitVariance);
  scale.ScaleMatrix(&X, true);
  const Vector reference = ColumnSS(X);

  NCPCA model(&X, 200);
  float q2cum = 0;
  Vector q2VarCum(X.SizeColumns(), 0.0f);
  std::vector<float> q2s, limits;
  bool stopped = false;
  while (!stopped && model.GetComponents() < X.SizeColumns()) {
    model.NextComponent(nullptr, nullptr, 0, nullptr);
    const int a = model.GetComponents();
    PCACrossValidation cv = a == 1
                                ? PCACrossValidation(&model, 7, nullptr, nullptr)
                                : PCACrossValidation(&model, q2cum, q2VarCum, 7, nullptr, nullptr);
    cv.NextComponent(reference, nullptr);
    q2s.push_back(cv.GetQ2Tot());
    limits.push_back(cv.GetQ2Lim(a, false));
    if (cv.GetQ2Tot() > limits.back()) {
      q2cum = cv.GetQ2TotCum();
      q2VarCum = *cv.GetQ2XVarCum();
      model.CalculateResiduals();
    } else {
      stopped = true;
    }
  }
  // The three cultivars differ along more than one direction, and 13 variables cannot all be
  // predicted from the others: the loop must keep a few components and stop by the verdict.
  ASSERT_TRUE(stopped);
  const int kept = model.GetComponents() - 1;
  EXPECT_GE(kept, 2);
  EXPECT_LT(kept, 13);
  for (int a = 0; a < kept; ++a) EXPECT_GT(q2s[a], limits[a]) << "component " << a + 1;
  EXPECT_LE(q2s[kept], limits[kept]);
  EXPECT_GT(q2cum, 0.2f);  // a wine is far better described by the kept components than by 0

  // The host drops the rejected component by rebuilding the model from the kept rows.
  Matrix P = *model.GetPprim(), T = *model.GetTprim();
  P.RemoveRows(kept + 1, 1);
  T.RemoveRows(kept + 1, 1);
  const NCPCA keptModel(model.GetResiduals(), &P, &T, 200);

  Matrix fresh = rawNew;
  scale.ScaleMatrix(&fresh, false);
  const NCPCAPred complete(&fresh, keptModel.GetPprim(), 200, 0.5f);
  // Complete rows are projected in sequence; check against the same projection in double.
  for (int i = 1; i <= fresh.SizeRows(); ++i) {
    std::vector<double> r;
    for (int j = 1; j <= fresh.SizeColumns(); ++j) r.push_back(fresh[i][j]);
    for (int a = 1; a <= kept; ++a) {
      double t = 0;
      for (int j = 1; j <= fresh.SizeColumns(); ++j) t += P[a][j] * r[j - 1];
      for (int j = 1; j <= fresh.SizeColumns(); ++j) r[j - 1] -= t * P[a][j];
      EXPECT_NEAR((*complete.GetTPredPrim())[a][i], t, 1e-4 * (1 + std::fabs(t)));
    }
  }
  // One value missing of 13: the estimate stays close to the complete-row score (within a third
  // of the score's spread over the training set).
  const Matrix freshHoled = WithHoles(fresh);
  const NCPCAPred holed(&freshHoled, keptModel.GetPprim(), 200, 0.5f);
  for (int a = 1; a <= kept; ++a) {
    const double spread = std::sqrt((*keptModel.GetTprim())[a].GetVariance());
    for (int i = 1; i <= fresh.SizeRows(); ++i)
      EXPECT_NEAR((*holed.GetTPredPrim())[a][i], (*complete.GetTPredPrim())[a][i], spread / 3)
          << "component " << a << ", row " << i;
  }

  // Through a stream and back: the same scaling and loadings, the same scores to the bit.
  std::istringstream in(Streamed(scale, keptModel));
  NCScale scale2;
  NCPCA model2;
  ASSERT_TRUE(StreamIn(scale2, in));
  ASSERT_TRUE(StreamIn(model2, in));
  Matrix fresh2 = WithHoles(rawNew);
  scale2.ScaleMatrix(&fresh2, false);
  const NCPCAPred again(&fresh2, model2.GetPprim(), 200, 0.5f);
  EXPECT_TRUE(*again.GetTPredPrim() == *holed.GetTPredPrim());
}

TEST(HostLoop, PlsOnDiabetesKeepsSignificantComponentsAndPredictsAfterStreaming) {
  const CsvTable diabetes = ReadCsv("diabetes.csv");
  const std::vector<std::string> xNames = {"Age", "Sex", "BMI", "BP",  "TC",
                                           "LDL", "HDL", "TCH", "LTG", "GLU"};
  Matrix X = Rows(diabetes, xNames, 5, false);
  Matrix Y = Rows(diabetes, {"Progression"}, 5, false);
  const Matrix rawNewX = Rows(diabetes, xNames, 5, true);
  const Matrix newY = Rows(diabetes, {"Progression"}, 5, true);
  NCScale xScale(X.SizeColumns()), yScale(1);
  for (int j = 1; j <= xScale.Size(); ++j) xScale.SetType(j, NCScale::kUnitVariance);
  yScale.SetType(1, NCScale::kUnitVariance);
  xScale.ScaleMatrix(&X, true);
  yScale.ScaleMatrix(&Y, true);
  const Vector ySS = ColumnSS(Y);
  const double ySSTotal = Y.GetSS();

  NCPLS model(&X, &Y, 200);
  PLSCrossValidation cv(&model, 7, nullptr);
  std::vector<int> verdicts;
  while (model.GetComponents() < X.SizeColumns()) {
    model.NextComponent(nullptr, nullptr, true, true);
    const int a = model.GetComponents();
    cv.NextComponent(&(*model.GetWprim())[a], 200, ySS, nullptr, true);
    // R2Y of the component: the share of the initial Y sum of squares that its deflation removes.
    Matrix rest = *model.GetYResiduals();
    const double before = rest.GetSS();
    rest.TransformToSub_V_x_Vt((*model.GetTprim())[a], (*model.GetCprim())[a]);
    const float r2y = static_cast<float>((before - rest.GetSS()) / ySSTotal);
    const Vector r2yVar(1, r2y);
    const int verdict =
        PLSCrossValidation::GetSignificance(X.SizeRows(), X.SizeColumns(), 1, a, r2y, r2yVar,
                                            cv.GetQ2Tot(), *cv.GetQ2YVar(), cv.GetQ2Lim());
    verdicts.push_back(verdict);
    if (!SignificanceE::IsSignificant(verdict)) break;
    model.CalculateResiduals();
  }
  // BMI, blood pressure and LTG predict progression well beyond chance (Q2 of the first component
  // far above the limit 0 for 354 patients); ten variables cannot all add predictive power.
  ASSERT_GE(verdicts.size(), 2u);
  EXPECT_EQ(verdicts.front(), SignificanceE::R1);
  EXPECT_FALSE(SignificanceE::IsSignificant(verdicts.back()));
  const int kept = static_cast<int>(verdicts.size()) - 1;
  EXPECT_GT(cv.GetQ2TotCum(), 0.3f);

  auto keptRows = [&](const Matrix* m) {
    Matrix k = *m;
    k.RemoveRows(kept + 1, 1);
    return k;
  };
  const Matrix W = keptRows(model.GetWprim()), P = keptRows(model.GetPprim()),
               C = keptRows(model.GetCprim());

  Matrix fresh = rawNewX;
  xScale.ScaleMatrix(&fresh, false);
  NCPLSPred pred(&fresh, &W, &P, &C, 0.5f);
  for (int a = 1; a <= kept; ++a) pred.CalcNextComponent();
  EXPECT_THROW(pred.CalcNextComponent(), NCError);
  // Sequential deflation of complete rows equals the regression coefficients B = W*'C.
  const Matrix B = NCPLS::GetRegressionCoefficients(P, W, C);
  double press = 0, ss = 0;
  for (int i = 1; i <= fresh.SizeRows(); ++i) {
    double yhat = 0;
    for (int j = 1; j <= fresh.SizeColumns(); ++j) yhat += fresh[i][j] * B[j][1];
    EXPECT_NEAR((*pred.GetYPred())[i][1], yhat, 1e-4);
    // Unscaled, the prediction of a held-out patient beats the mean of the training patients.
    const double y = yhat / yScale.GetScale()[1] + yScale.GetMean()[1];
    press += (newY[i][1] - y) * (newY[i][1] - y);
    ss += (newY[i][1] - yScale.GetMean()[1]) * (newY[i][1] - yScale.GetMean()[1]);
  }
  EXPECT_LT(press, 0.7 * ss);

  Matrix holedX = WithHoles(fresh);
  NCPLSPred holed(&holedX, &W, &P, &C, 0.5f);
  for (int a = 1; a <= kept; ++a) holed.CalcNextComponent();
  for (int i = 1; i <= fresh.SizeRows(); ++i)
    EXPECT_NE((*holed.GetYPred())[i][1], -99.0f) << "row " << i;

  // Through a stream: the model read back predicts the same, to the bit.
  const Matrix U = keptRows(model.GetUprim()), T = keptRows(model.GetTprim());
  const NCPLS keptModel(model.GetXResiduals(), model.GetYResiduals(), &C, &P, &W, &U, &T, 200);
  std::istringstream in(Streamed(xScale, keptModel));
  NCScale xScale2;
  NCPLS model2;
  ASSERT_TRUE(StreamIn(xScale2, in));
  ASSERT_TRUE(StreamIn(model2, in));
  Matrix holedX2 = rawNewX;
  xScale2.ScaleMatrix(&holedX2, false);
  holedX2 = WithHoles(holedX2);
  NCPLSPred again(&holedX2, model2.GetWprim(), model2.GetPprim(), model2.GetCprim(), 0.5f);
  for (int a = 1; a <= kept; ++a) again.CalcNextComponent();
  EXPECT_TRUE(*again.GetYPred() == *holed.GetYPred());
}

}  // namespace
