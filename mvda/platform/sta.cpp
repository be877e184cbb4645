#include <mvda/platform/error.h>
#include <mvda/platform/sta.h>

#include <cmath>
#include <string>

#include <boost/math/distributions/students_t.hpp>

double Sta::GetStudentsT(double p, double degreesOfFreedom, bool twoSided) {
  if (!(p > 0.0 && p < 1.0))
    throw NCError("Sta::GetStudentsT: probability " + std::to_string(p) + " outside (0, 1)");
  if (!(degreesOfFreedom > 0.0 && std::isfinite(degreesOfFreedom)))
    throw NCError("Sta::GetStudentsT: degrees of freedom " + std::to_string(degreesOfFreedom) +
                  " not a positive finite number");
  const boost::math::students_t distribution(degreesOfFreedom);
  return boost::math::quantile(distribution, twoSided ? 0.5 + 0.5 * p : p);
}
