#include <mvda/diagnostics/detail/checks.h>
#include <mvda/platform/error.h>

#include <cmath>
#include <exception>
#include <sstream>

#include <boost/math/distributions/beta.hpp>
#include <boost/math/distributions/chi_squared.hpp>
#include <boost/math/distributions/fisher_f.hpp>

namespace mvda::detail {

std::string Number(double value) {
  std::ostringstream out;
  out.precision(17);
  out << value;
  return out.str();
}

void CheckAlpha(double alpha, const char* place) {
  if (!(alpha > 0.0 && alpha < 1.0)) {
    throw NCError(std::string(place) + ": alpha " + Number(alpha) +
                  " is not a probability strictly between 0 and 1");
  }
}

void CheckObservations(int n, int a, const char* place) {
  if (a < 1) {
    throw NCError(std::string(place) + ": " + std::to_string(a) +
                  " components; a limit needs at least 1");
  }
  if (n <= a + 1) {
    throw NCError(std::string(place) + ": " + std::to_string(n) + " observations are too few for " +
                  std::to_string(a) + " components (more than A + 1 = " + std::to_string(a + 1) +
                  " are needed)");
  }
}

void CheckModelShapes(const NCDataMatrix<float>& x, const NCDataMatrix<float>& tprim,
                      const NCDataMatrix<float>& pprim, const char* place) {
  const int n = x.SizeRows(), k = x.SizeColumns(), a = pprim.SizeRows();
  const bool fits = tprim.SizeRows() == a && (a == 0 || tprim.SizeColumns() == n) &&
                    (a == 0 || pprim.SizeColumns() == k);
  if (!fits) {
    throw NCError(std::string(place) + ": data " + std::to_string(n) + " x " + std::to_string(k) +
                  ", scores " + std::to_string(tprim.SizeRows()) + " x " +
                  std::to_string(tprim.SizeColumns()) + " and loadings " + std::to_string(a) +
                  " x " + std::to_string(pprim.SizeColumns()) +
                  " do not fit (expected N x K, A x N and A x K)");
  }
}

void CheckVariances(const std::vector<double>& variances, int components, const char* place) {
  if (static_cast<int>(variances.size()) != components) {
    throw NCError(std::string(place) + ": " + std::to_string(variances.size()) +
                  " score variances for " + std::to_string(components) + " components");
  }
  for (std::size_t a = 0; a < variances.size(); ++a) {
    if (!(variances[a] > 0.0 && std::isfinite(variances[a]))) {
      throw NCError(std::string(place) + ": the score variance of component " +
                    std::to_string(a + 1) + " is " + Number(variances[a]) +
                    ", not a positive finite number");
    }
  }
}

namespace {

// The distribution is made inside the try: its constructor checks the parameters too.
template <class Make>
double Quantile(Make make, double alpha, const char* place, const char* name) {
  try {
    return boost::math::quantile(make(), alpha);
  } catch (const std::exception& e) {
    throw NCError(std::string(place) + ": the " + name + " quantile at " + Number(alpha) +
                  " failed: " + e.what());
  }
}

}  // namespace

double BetaQuantile(double alpha, double a, double b, const char* place) {
  return Quantile([&] { return boost::math::beta_distribution<double>(a, b); }, alpha, place,
                  "beta");
}

double FQuantile(double alpha, double d1, double d2, const char* place) {
  return Quantile([&] { return boost::math::fisher_f_distribution<double>(d1, d2); }, alpha, place,
                  "F");
}

double ChiSquareQuantile(double alpha, double dof, const char* place) {
  return Quantile([&] { return boost::math::chi_squared_distribution<double>(dof); }, alpha, place,
                  "chi-square");
}

}  // namespace mvda::detail
