// Argument checks and the quantiles shared by the diagnostics: each error names the function and
// the value at fault.
#ifndef MVDA_DIAGNOSTICS_DETAIL_CHECKS_H_
#define MVDA_DIAGNOSTICS_DETAIL_CHECKS_H_

#include <mvda/containers/data_matrix.h>

#include <string>
#include <vector>

namespace mvda::detail {

std::string Number(double value);  // shortest round-trip text, "nan" and "inf" included

// NCError "<place>: alpha <value> is not a probability strictly between 0 and 1".
void CheckAlpha(double alpha, const char* place);
// NCError unless a >= 1 and n > a + 1 (the degrees of freedom N - A - 1 must be positive).
void CheckObservations(int n, int a, const char* place);
// NCError unless x is N x K, tprim A x N and pprim A x K for one N, K and A.
void CheckModelShapes(const NCDataMatrix<float>& x, const NCDataMatrix<float>& tprim,
                      const NCDataMatrix<float>& pprim, const char* place);
// NCError unless every variance is positive and finite and there are `components` of them.
void CheckVariances(const std::vector<double>& variances, int components, const char* place);

// Quantiles by Boost.Math; any failure of the library becomes an NCError naming the place.
double BetaQuantile(double alpha, double a, double b, const char* place);
double FQuantile(double alpha, double d1, double d2, const char* place);
double ChiSquareQuantile(double alpha, double dof, const char* place);

}  // namespace mvda::detail

#endif  // MVDA_DIAGNOSTICS_DETAIL_CHECKS_H_
