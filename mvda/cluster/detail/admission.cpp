// Admission checks shared by GetDendroGram and GetExactDendroGram.
#include <mvda/cluster/dendrogram.h>
#include <mvda/cluster/detail/admission.h>
#include <mvda/platform/error.h>

#include <cmath>
#include <string>
#include <utility>
#include <vector>

namespace DendroGram {

ClusterRowError::ClusterRowError(const std::string& message, int row, int other_row,
                                 std::string problem)
    : NCError(message), row_(row), other_row_(other_row), problem_(std::move(problem)) {}

ClusterRowError::~ClusterRowError() = default;

}  // namespace DendroGram

namespace mvda::detail {

using DendroGram::ClusterRowError;

void CheckClusterShape(const NCDataMatrix<float>& data, const char* caller) {
  const std::string who = caller;
  if (data.SizeRows() < 1) throw NCError(who + ": the data have no rows");
  if (data.SizeColumns() < 1) throw NCError(who + ": the data have no columns");
  for (int i = 1; i <= data.SizeRows(); ++i) {
    const float* x = data[i].begin();
    for (int j = 0; j < data.SizeColumns(); ++j)
      if (!std::isfinite(x[j]))
        throw ClusterRowError(who + ": row " + std::to_string(i) + ", column " +
                                  std::to_string(j + 1) + " holds a value that is not finite",
                              i, 0,
                              "variable " + std::to_string(j + 1) +
                                  " holds a value that is not finite (after scaling)");
  }
}

void CheckCommonColumns(const NCDataMatrix<float>& data) {
  constexpr float kMissing = -99.0f;
  const int rows = data.SizeRows(), columns = data.SizeColumns();
  std::vector<int> missing(rows);
  for (int i = 1; i <= rows; ++i) {
    missing[i - 1] = data[i].GetNumMisVal();
    if (missing[i - 1] > 0 && static_cast<double>(missing[i - 1]) / columns > 0.5)
      throw ClusterRowError(
          "Cluster analysis can not be performed on data that has rows with more than 50% missing "
          "values",
          i, 0,
          std::to_string(missing[i - 1]) + " of its " + std::to_string(columns) +
              " values are missing; clustering needs at least half of them");
  }
  const int k = static_cast<int>(std::sqrt(static_cast<double>(columns)) + 0.5);
  for (int i = 1; i <= rows; ++i) {
    const float* x = data[i].begin();
    for (int j = i + 1; j <= rows; ++j) {
      // Fewer than k common columns needs at least this many missing in row j.
      if (missing[j - 1] < columns - missing[i - 1] - k) continue;
      const float* y = data[j].begin();
      int common = 0;
      for (int c = 0; c < columns; ++c) common += x[c] != kMissing && y[c] != kMissing;
      if (common < k)
        throw ClusterRowError(
            "Cluster analysis can not be performed on data where two rows have less than\nthe "
            "square root of the number of columns common non-missing elements.",
            i, j,
            "have values in common in only " + std::to_string(common) + " of the " +
                std::to_string(columns) + " variables; their distance needs at least " +
                std::to_string(k) + " (the square root of the number of variables)");
    }
  }
}

}  // namespace mvda::detail
