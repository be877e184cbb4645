#include <mvda/diagnostics/contributions.h>
#include <mvda/platform/error.h>

namespace mvda::diagnostics {

std::vector<double> SPEContributions(const NCDataMatrix<float>&, const NCDataMatrix<float>&,
                                     const NCDataMatrix<float>&, int) {
  throw NCError("SPEContributions: not implemented");
}
std::vector<double> T2Contributions(const NCDataMatrix<float>&, const NCDataMatrix<float>&,
                                    const NCDataMatrix<float>&, const std::vector<double>&, int) {
  throw NCError("T2Contributions: not implemented");
}

}  // namespace mvda::diagnostics
