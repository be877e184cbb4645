#include <mvda/diagnostics/pls_diagnostics.h>
#include <mvda/platform/error.h>

namespace mvda::diagnostics {

std::vector<double> VIP(const NCPLS&) { throw NCError("VIP: not implemented"); }
PLSCoefficients RegressionCoefficients(const NCPLS&, const NCScale&, const NCScale&) {
  throw NCError("RegressionCoefficients: not implemented");
}
NCDataMatrix<float> FittedY(const NCPLS&, const NCScale&) {
  throw NCError("FittedY: not implemented");
}
std::vector<double> RMSEE(const NCDataMatrix<float>&, const NCDataMatrix<float>&, int) {
  throw NCError("RMSEE: not implemented");
}
std::vector<double> RMSECV(const NCPLS&, const NCDataMatrix<float>&, const std::vector<double>&,
                           const NCScale&) {
  throw NCError("RMSECV: not implemented");
}
PredictionErrors PredictionError(const NCDataMatrix<float>&, const NCDataMatrix<float>&) {
  throw NCError("PredictionError: not implemented");
}

}  // namespace mvda::diagnostics
