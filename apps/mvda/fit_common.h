// Helpers shared by the tool's fits: scaling with errors that name the column, column sums of
// squares, the first rows of a "prim" matrix, progress reporters and the stop request.
#ifndef MVDA_APPS_MVDA_FIT_COMMON_H_
#define MVDA_APPS_MVDA_FIT_COMMON_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/platform/progress.h>
#include <mvda/preprocess/scale.h>

#include <memory>
#include <string>
#include <vector>

namespace mvda::cli {

// Fits a scaling of the given kind (none, center, pareto, uv) to x and applies it. A column that
// cannot be scaled (constant, fewer than two values) throws ToolError naming file and column.
NCScale FitScale(NCDataMatrix<float>& x, const std::vector<std::string>& names,
                 const std::string& scaling, const std::string& path);

std::vector<double> ColumnSS(const NCDataMatrix<float>& x);  // per column, over present values

// The number of components to try: the count the user asked for, else as many as the data allow
// (min(K, N - 1)). A count above that throws ToolError.
int ComponentLimit(int requested, int observations, int variables);

// Rows 1..rows of m as a matrix of its own; 0 rows keeps m's column count.
NCDataMatrix<float> FirstRows(const NCDataMatrix<float>& m, int rows);

// The reporter of one step of a long computation: a text bar on a terminal, silent otherwise.
std::shared_ptr<NCProgress> StepProgress(const std::string& text);

// Whether Ctrl-C asked the computation to stop; ThrowIfStopped throws NCError (level 2) if so, for
// the steps that the library runs without looking (cross-validation sub-models).
bool StopRequested();
void ThrowIfStopped();

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_FIT_COMMON_H_
