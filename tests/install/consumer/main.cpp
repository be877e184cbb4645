// A host program that only knows the installed package: data with gaps, a PCA fitted component
// by component with a progress reporter, each component cross-validated and kept while it is
// significant, new rows predicted, the model streamed and read back. The reference guide
// (docs/guide.md) shows its parts; the install test builds and runs it and checks its last line.
#include <mvda/mvda.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <sstream>

namespace {

//! [progress]
// The host's reporter: here a count of updates and the last share done; a desktop host would
// move a progress bar and let its Cancel button call RequestBreak().
class CountingProgress : public NCProgress {
 public:
  int updates = 0;

 protected:
  void Changed() override { ++updates; }
};
//! [progress]

}  // namespace

int main() {
  //! [gaps]
  // 60 observations of 10 variables driven by two hidden factors, with every 7th value missing
  // (-99): the containers skip missing values in every statistic.
  const int n = 60, k = 10;
  NCDataMatrix<float> x(n, k, 0.0f);
  std::mt19937 noise(1);  // the raw generator: the same numbers on every platform
  for (int i = 1; i <= n; ++i) {
    const double f1 = std::sin(0.7 * i), f2 = std::cos(1.3 * i);
    for (int j = 1; j <= k; ++j) {
      const double value = (j % 2 ? f1 : f2) * j + 0.6 * j * (noise() / 4294967296.0 - 0.5);
      x(i, j, (i * k + j) % 7 == 0 ? -99.0f : static_cast<float>(value));
    }
  }
  NCDataMatrix<float> fresh = x.GetRowSubMatrix(51, n);  // rows kept back for prediction
  fresh.ForceUnlink();
  x.RemoveRows(51, n - 50);
  std::printf("missing values: %d of %d\n", x.GetNumMisVal(), 50 * k);
  //! [gaps]

  //! [fit]
  // Unit-variance scaling, fitted on the training rows and applied to them.
  NCScale scale(k);
  for (int j = 1; j <= k; ++j) scale.SetType(j, NCScale::kUnitVariance);
  scale.ScaleMatrix(&x, true);
  NCDataVector<float> reference(k, 0.0f);  // each column's sum of squares: what Q2 is relative to
  for (int j = 1; j <= k; ++j) reference(j, static_cast<float>(x.GetColumnSS(j)));

  NCPCA model(&x, 500);
  CountingProgress progress;
  float q2_cum = 0.0f;
  NCDataVector<float> q2_var_cum(k, 0.0f);
  int kept = 0;
  while (model.GetComponents() < k - 1) {
    model.NextComponent(&progress, nullptr, 0, nullptr);  // throws NCError when stopped
    const int a = model.GetComponents();
    //! [fit]
    //! [cross-validate]
    // Seven groups of rows and variables left out in turn; the component is kept while its Q2
    // exceeds the limit for its size.
    PCACrossValidation cv = a == 1 ? PCACrossValidation(&model, 7, nullptr, nullptr)
                                   : PCACrossValidation(&model, q2_cum, q2_var_cum, 7, nullptr,
                                                        nullptr);
    cv.NextComponent(reference, &progress);
    std::printf("component %d: Q2 %.3f, limit %.3f\n", a, cv.GetQ2Tot(), cv.GetQ2Lim(a, true));
    if (!(cv.GetQ2Tot() > cv.GetQ2Lim(a, true))) break;
    kept = a;
    q2_cum = cv.GetQ2TotCum();
    q2_var_cum = *cv.GetQ2XVarCum();
    model.CalculateResiduals();  // deflate before the next component
  }
  //! [cross-validate]

  //! [predict]
  // The model of the kept components, then scores of rows it has not seen (gaps included).
  NCDataMatrix<float> p = model.GetPprim()->GetRowSubMatrix(1, kept);
  NCDataMatrix<float> t = model.GetTprim()->GetRowSubMatrix(1, kept);
  p.ForceUnlink();
  t.ForceUnlink();
  const NCPCA final_model(model.GetResiduals(), &p, &t, 500);
  scale.ScaleMatrix(&fresh, false);  // the training scaling, not refitted
  const NCPCAPred predicted(&fresh, final_model.GetPprim(), 500, 0.5f);
  const NCDataMatrix<float>& scores = *predicted.GetTPredPrim();  // components x rows
  //! [predict]

  //! [stream]
  // Scaling and model to bytes (a file, a database field) and back: the same scores to the bit.
  std::stringstream bytes;
  if (!StreamOut(scale, bytes) || !StreamOut(final_model, bytes)) return 1;
  NCScale scale2;
  NCPCA model2;
  if (!StreamIn(scale2, bytes) || !StreamIn(model2, bytes)) return 1;
  const NCPCAPred again(&fresh, model2.GetPprim(), 500, 0.5f);
  bool same = true;
  for (int a = 1; a <= kept; ++a)
    for (int i = 1; i <= fresh.SizeRows(); ++i)
      same = same && (*again.GetTPredPrim())[a][i] == scores[a][i];
  //! [stream]

  // Two factors make the data: two components are significant, the third is noise.
  std::printf("kept %d, progress updates %s, streamed model %s\n", kept,
              progress.updates > 0 ? "seen" : "none", same ? "identical" : "different");
  return kept == 2 && progress.updates > 0 && same ? 0 : 1;
}
