#include <mvda/diagnostics/spe.h>
#include <mvda/platform/error.h>

namespace mvda::diagnostics {

std::vector<double> SPE(const NCDataMatrix<float>&, const NCDataMatrix<float>&,
                        const NCDataMatrix<float>&) {
  throw NCError("SPE: not implemented");
}
SPEMoments SPEMomentsOf(const std::vector<double>&) {
  throw NCError("SPEMomentsOf: not implemented");
}
double SPELimit(const SPEMoments&, double) { throw NCError("SPELimit: not implemented"); }

}  // namespace mvda::diagnostics
