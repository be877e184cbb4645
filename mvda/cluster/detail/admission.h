// The checks both agglomerations make before clustering: a shape, finite values, and rows that
// share enough columns for their distances to mean something.
#ifndef MVDA_CLUSTER_DETAIL_ADMISSION_H_
#define MVDA_CLUSTER_DETAIL_ADMISSION_H_

#include <mvda/containers/data_matrix.h>

namespace mvda::detail {

// NCError, naming `caller`, for data without rows or columns or holding an infinite or NaN value
// (distances that do not order).
void CheckClusterShape(const NCDataMatrix<float>& data, const char* caller);

// NCError for a row with more than half of its values missing, or two rows sharing fewer than
// sqrt(columns) present columns: their distances would rest on a handful of values scaled up to
// the full width. Call only when the data have gaps.
void CheckCommonColumns(const NCDataMatrix<float>& data);

}  // namespace mvda::detail

#endif  // MVDA_CLUSTER_DETAIL_ADMISSION_H_
