// Hotelling's T² of observations under a fitted PCA or PLS model: the score variances of the
// training set, T² per observation, its two limits (training and new observations) and the
// semi-axes of the confidence ellipse of a score plot.
#ifndef MVDA_DIAGNOSTICS_HOTELLING_H_
#define MVDA_DIAGNOSTICS_HOTELLING_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/mvda_export.h>

#include <vector>

namespace mvda::diagnostics {

// The marker of a value that cannot be computed, as in the containers. T² and SPE are never
// negative, so it cannot be mistaken for one of them.
inline constexpr double kMissing = -99.0;

// Every function here works on scores stored like the models store them, T' (A components x N
// observations, column i = the scores of observation i), with -99 for a missing score. Results are
// in observation order. Thread-safety: the functions read their arguments only.

// s_a² = sum_i t_ia² / (n_a - 1) over the n_a training observations whose score a is present
// (n_a = N when none is missing); A elements. The scores of a centred model have mean zero, so
// this is their variance. NCError for a T' without components, or a component with fewer than 2
// present scores or no spread (s_a² = 0), which would make T² infinite.
MVDA_EXPORT std::vector<double> ScoreVariances(const NCDataMatrix<float>& tprim);

// T²_i = sum_a t_ia² / s_a² for every column i of T' (training or new observations scored by the
// same model); kMissing for an observation with any missing score (it could not be scored, and a
// T² over fewer components would look better than it is). NCError when T' has another number of
// rows than variances has elements, or a variance is not positive and finite.
MVDA_EXPORT std::vector<double> HotellingT2(const NCDataMatrix<float>& tprim,
                                            const std::vector<double>& variances);

// The alpha quantile of T² for the observations the model was fitted on, N of them, A components:
//   (N - 1)² / N · Beta quantile(alpha; A / 2, (N - A - 1) / 2).
// NCError for alpha outside the open interval (0, 1) (NaN included), A < 1 or N <= A + 1.
MVDA_EXPORT double T2LimitTraining(int observations, int components, double alpha);

// The alpha quantile of T² for a new observation scored by a model of N observations and A
// components:  A (N² - 1) / (N (N - A)) · F quantile(alpha; A, N - A). Errors as above.
MVDA_EXPORT double T2LimitPrediction(int observations, int components, double alpha);

// Semi-axes of the alpha confidence ellipse in the plot of score a (horizontal) against score b
// (vertical), centred at the origin: sqrt(s_a² L) and sqrt(s_b² L) with L = T2LimitTraining(N, 2,
// alpha), the limit of a two-component T². a and b are 1-based component numbers and may be
// equal. NCError for a or b outside 1..variances.size(), a variance that is not positive and
// finite, and for the errors of T2LimitTraining.
struct EllipseAxes {
  double horizontal = 0;  // along score a
  double vertical = 0;    // along score b
};
MVDA_EXPORT EllipseAxes T2Ellipse(const std::vector<double>& variances, int a, int b,
                                  int observations, double alpha);

}  // namespace mvda::diagnostics

#endif  // MVDA_DIAGNOSTICS_HOTELLING_H_
