// PlsGroupFit, FitPlsGroups: the one-component PLS sub-models of a PLS cross-validation, every
// group advanced in lockstep on one copy of the X residuals, and the replay of each fit's progress.
#ifndef MVDA_VALIDATION_DETAIL_PLS_GROUP_FITS_H_
#define MVDA_VALIDATION_DETAIL_PLS_GROUP_FITS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/platform/progress.h>
#include <mvda/validation/detail/pls_group_grams.h>

#include <vector>

namespace mvda::detail {

// One group's sub-model, as NCPLS::NextComponent fits it on the group's training rows, kept with
// what the fit would have told its progress reporter.
struct PlsGroupFit {
  std::vector<int> train;  // the training rows (1-based, increasing)
  std::vector<int> test;   // the group's own rows, left out of its fit (1-based, increasing)
  NCDataVector<float> w;   // K: the X weights, of unit length
  NCDataVector<float> c;   // M: the Y weights
  NCDataVector<float> p;   // K: the X loadings
  NCDataVector<float> t;   // N: the fitted scores at the training rows, -99 at the test rows
  // The test rows regressed on w (NCDataMatrix::RegressRows), in the order of `test`.
  std::vector<float> testScores;
  double firstValue = 0;  // the convergence value after the first iteration
  int iterations = 0;

  // The one progress call of NCPLS::NextComponent without strict: SetRange(-value, 0) after the
  // first iteration, (1, 0) when the value is 0 (one Y column).
  void Replay(NCProgress& reporter) const;
};

// The sub-models of one cross-validated component of the residuals X (N x K, K >= 1) and Y
// (N x M): for g = 0..groups-1, a one-component NIPALS PLS of the rows whose code in groupIds
// (N elements, codes 0..groups-1) is not g, started from the weights w (K elements) and stopped
// after maxIterations iterations at the latest, as NCPLS(trainX, trainY, maxIterations)
// .NextComponent(reporter, &w, false, false) fits it. The results agree with those fits to float
// rounding: the sums of X and Y are formed by BatchedRegressions, in single precision and in
// another order. Each group keeps its own iteration count. No group may hold every row. With
// grams (for data that PlsGroupGrams::Suits, brought up to date by its Update), the groups are
// fitted on the cross products of their training rows instead, with the same iterations to float
// precision; the products are verified against x and y in the pass that forms the scores, and
// formed again and the groups refitted should they not match. Thread-safety: reads its arguments
// only (and grams); the products and the group fits run on the library's threads and give the same
// bits for any number of them.
std::vector<PlsGroupFit> FitPlsGroups(const NCDataMatrix<float>& x, const NCDataMatrix<float>& y,
                                      const NCDataVector<float>& w,
                                      const NCIntegralVector<int, -99>& groupIds, int groups,
                                      int maxIterations, PlsGroupGrams* grams);

}  // namespace mvda::detail

#endif  // MVDA_VALIDATION_DETAIL_PLS_GROUP_FITS_H_
