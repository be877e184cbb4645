#include <mvda/platform/error.h>
#include <mvda/validation/cv_groups.h>

#include <string>

NCIntegralVector<int, -99> GetDeafultCVGroupsVector(int n, int groups) {
  if (n < 0 || groups < 1)
    throw NCError("GetDeafultCVGroupsVector: " + std::to_string(n) + " elements in " +
                      std::to_string(groups) + " groups",
                  1);
  NCIntegralVector<int, -99> codes(n, 0);
  for (int i = 1; i <= n; ++i) codes(i) = i % groups;
  return codes;
}
