// Sta: the statistical-test routines the library draws on; here the Student t quantile that places
// the distance bands of the cluster analysis's disk store.
#ifndef MVDA_PLATFORM_STA_H_
#define MVDA_PLATFORM_STA_H_

#include <mvda/mvda_export.h>

class MVDA_EXPORT Sta {
 public:
  Sta() = delete;

  // The quantile of Student's t distribution with `degreesOfFreedom` degrees of freedom: the t
  // with P(T <= t) = p when `twoSided` is false, the t with P(|T| <= t) = p when it is true (the
  // half-width of a central interval of probability p). Throws NCError for p outside (0, 1) or
  // degrees of freedom that are not a positive finite number.
  static double GetStudentsT(double p, double degreesOfFreedom, bool twoSided);
};

#endif  // MVDA_PLATFORM_STA_H_
