#include <mvda/diagnostics/hotelling.h>
#include <mvda/platform/error.h>

namespace mvda::diagnostics {

std::vector<double> ScoreVariances(const NCDataMatrix<float>&) {
  throw NCError("ScoreVariances: not implemented");
}
std::vector<double> HotellingT2(const NCDataMatrix<float>&, const std::vector<double>&) {
  throw NCError("HotellingT2: not implemented");
}
double T2LimitTraining(int, int, double) { throw NCError("T2LimitTraining: not implemented"); }
double T2LimitPrediction(int, int, double) { throw NCError("T2LimitPrediction: not implemented"); }
EllipseAxes T2Ellipse(const std::vector<double>&, int, int, int, double) {
  throw NCError("T2Ellipse: not implemented");
}

}  // namespace mvda::diagnostics
