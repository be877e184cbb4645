// Contributions of the variables to the SPE and to the T² of one observation: the plots an analyst
// opens to see why an observation lies outside the limits.
#ifndef MVDA_DIAGNOSTICS_CONTRIBUTIONS_H_
#define MVDA_DIAGNOSTICS_CONTRIBUTIONS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/diagnostics/hotelling.h>
#include <mvda/mvda_export.h>

#include <vector>

namespace mvda::diagnostics {

// The arguments are those of SPE and HotellingT2: x the observations in the model's scaled units
// (N x K), tprim their scores (A x N), pprim the model's X loadings (A x K), variances the training
// score variances s_a² (A elements); `observation` is the 1-based row of x. Results have K
// elements, kMissing where x is missing or the observation could not be scored (a missing
// score). NCError for an observation outside 1..N or shapes that do not fit.

// The signed residual e_ik = x_ik - sum_a t_ia p_ka of each variable; the sum of the squares of
// the present ones, times K / (present cells), is the observation's SPE.
MVDA_EXPORT std::vector<double> SPEContributions(const NCDataMatrix<float>& x,
                                                 const NCDataMatrix<float>& tprim,
                                                 const NCDataMatrix<float>& pprim, int observation);

// sum_a (t_ia / s_a²) p_ka x_ik for each variable k. On a complete row of a PCA model (orthonormal
// loadings, so t_a = p_a' x) they add up to the observation's T²; for PLS, and for rows with gaps,
// they show each variable's pull along the loadings without adding up exactly.
MVDA_EXPORT std::vector<double> T2Contributions(const NCDataMatrix<float>& x,
                                                const NCDataMatrix<float>& tprim,
                                                const NCDataMatrix<float>& pprim,
                                                const std::vector<double>& variances,
                                                int observation);

}  // namespace mvda::diagnostics

#endif  // MVDA_DIAGNOSTICS_CONTRIBUTIONS_H_
