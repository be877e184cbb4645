// SPE, the squared prediction error (Q residual) of observations under a fitted PCA or PLS model,
// and its limit from the training values by Box's approximation.
#ifndef MVDA_DIAGNOSTICS_SPE_H_
#define MVDA_DIAGNOSTICS_SPE_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/diagnostics/hotelling.h>
#include <mvda/mvda_export.h>

#include <vector>

namespace mvda::diagnostics {

// SPE_i = K / k_i · sum_k e_ik² over the k_i present cells of row i, with e_i = x_i - t_i P' the
// residual of the row under the very scores that are reported for it (column i of T'), all in the
// model's scaled units. The factor K / k_i keeps rows with gaps comparable with complete rows.
// e is formed in float, like the data, scores and loadings it comes from; its squares are summed
// in double.
//
// x: the observations scaled like the model's data (N x K, -99 = missing); tprim: their scores
// (A x N), training scores from the model or scores of new observations from NCPCAPred /
// NCPLSPred; pprim: the model's X loadings (A x K). kMissing for a row with a missing score or no
// present cell. A = 0 is allowed (SPE is then the scaled sum of squares of the row). NCError when
// the shapes do not fit together. Rows are computed on the library's threads (NCMultiThreading);
// the result does not depend on the thread count.
MVDA_EXPORT std::vector<double> SPE(const NCDataMatrix<float>& x, const NCDataMatrix<float>& tprim,
                                    const NCDataMatrix<float>& pprim);

// What the SPE limit needs from the training set: the mean m and the variance v (divisor n - 1) of
// the present training SPE values. A model file keeps these two numbers, so a limit at any alpha
// can be drawn for new observations later.
struct SPEMoments {
  double mean = 0;
  double variance = 0;
  int count = 0;  // training values used
};
// NCError for fewer than 2 present values (kMissing is skipped) or a value that is negative or
// not finite.
MVDA_EXPORT SPEMoments SPEMomentsOf(const std::vector<double>& trainingSpe);

// Box's approximation of the SPE distribution as used by Nomikos and MacGregor: g = v / (2m),
// h = 2m² / v, limit = g · chi-square quantile(alpha; h). The same limit serves new observations.
// With no spread (v = 0) every training value equals m, and m is returned; with m = 0 (a model
// that leaves no residual) 0. NCError for alpha outside (0, 1) and for moments that are negative
// or not finite.
MVDA_EXPORT double SPELimit(const SPEMoments& moments, double alpha);

}  // namespace mvda::diagnostics

#endif  // MVDA_DIAGNOSTICS_SPE_H_
