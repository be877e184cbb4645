// The umbrella header: every public header of the library.
#ifndef MVDA_MVDA_H_
#define MVDA_MVDA_H_

#include <mvda/cluster/dendrogram.h>
#include <mvda/cluster/distance_calculators.h>
#include <mvda/cluster/mega_distances.h>
#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/containers/multi_threading.h>
#include <mvda/containers/string_vector.h>
#include <mvda/diagnostics/contributions.h>
#include <mvda/diagnostics/hotelling.h>
#include <mvda/diagnostics/pls_diagnostics.h>
#include <mvda/diagnostics/spe.h>
#include <mvda/models/pca.h>
#include <mvda/models/pca_pred.h>
#include <mvda/models/pls.h>
#include <mvda/models/pls_pred.h>
#include <mvda/models/pls_residuals.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/error.h>
#include <mvda/platform/language_string.h>
#include <mvda/platform/md5.h>
#include <mvda/platform/progress.h>
#include <mvda/platform/sta.h>
#include <mvda/platform/stream.h>
#include <mvda/platform/stream_directory.h>
#include <mvda/platform/stream_source.h>
#include <mvda/platform/temp_file.h>
#include <mvda/platform/user_comm.h>
#include <mvda/preprocess/scale.h>
#include <mvda/spc/control_chart.h>
#include <mvda/validation/component_validators.h>
#include <mvda/validation/cv_groups.h>
#include <mvda/validation/pca_cross_validation.h>
#include <mvda/validation/pls_cross_validation.h>
#include <mvda/validation/significance.h>

#endif  // MVDA_MVDA_H_
