// GetDeafultCVGroupsVector: the cross-validation groups a host gets when it names none.
#ifndef MVDA_VALIDATION_CV_GROUPS_H_
#define MVDA_VALIDATION_CV_GROUPS_H_

#include <mvda/containers/integral_vector.h>
#include <mvda/mvda_export.h>

// Element i (1-based, i = 1..n) is i mod groups: the elements are dealt out in turn, so that
// elements groups, 2 groups, ... fall in group 0 and every group spans the whole data set (data
// sorted by time or by class still give representative groups). NCError for n < 0 or groups < 1.
// Spelled as the host applications call it.
MVDA_EXPORT NCIntegralVector<int, -99> GetDeafultCVGroupsVector(int n, int groups);

#endif  // MVDA_VALIDATION_CV_GROUPS_H_
