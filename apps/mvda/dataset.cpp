#include <mvda/platform/error.h>
#include <mvda/platform/progress.h>
#include <mvda/preprocess/scale.h>

#include <algorithm>
#include <set>
#include <string>

#include "analysis.h"
#include "fit_common.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

std::string ColumnList(const CsvTable& table) {
  std::string list;
  for (int j = 0; j < table.Columns() && j < 12; ++j) list += (j ? ", " : "") + table.columns[j];
  if (table.Columns() > 12) list += ", ...";
  return list;
}

int RequireColumn(const CsvTable& table, const std::string& name, const char* role) {
  const int j = table.Find(name);
  if (j < 0) {
    throw ToolError(table.path + ": no column '" + name + "' (" + role + "); the columns are " +
                    ColumnList(table));
  }
  return j;
}

}  // namespace

Dataset SelectData(const CsvTable& table, const std::vector<std::string>& y_columns,
                   const std::string& class_column, const std::vector<std::string>& excluded) {
  Dataset data;
  data.path = table.path;
  data.row_names = table.row_names;
  std::set<int> taken;
  for (const std::string& name : excluded) taken.insert(RequireColumn(table, name, "--exclude"));
  std::vector<int> y;
  for (const std::string& name : y_columns) {
    const int j = RequireColumn(table, name, "--y");
    if (table.is_text[static_cast<std::size_t>(j)]) {
      throw ToolError("--y " + name + ": the column is also the class column");
    }
    if (!taken.insert(j).second) {
      throw ToolError("--y " + name + ": the column is named twice or also excluded");
    }
    y.push_back(j);
    data.y_names.push_back(name);
  }
  if (!class_column.empty()) {
    const int j = RequireColumn(table, class_column, "--class");
    taken.insert(j);
    data.class_name = class_column;
    data.classes = table.text[static_cast<std::size_t>(j)];
  }
  std::vector<int> x;
  for (int j = 0; j < table.Columns(); ++j) {
    if (taken.count(j) || table.is_text[static_cast<std::size_t>(j)]) continue;
    x.push_back(j);
    data.x_names.push_back(table.columns[static_cast<std::size_t>(j)]);
  }
  if (x.empty()) throw ToolError(table.path + ": no X variables left to analyse");
  data.x = table.Matrix(x);
  if (!y.empty()) data.y = table.Matrix(y);
  return data;
}

int ScalingCode(const std::string& name) {
  if (name == "none") return NCScale::kNone;
  if (name == "center" || name == "centre") return NCScale::kCentre;
  if (name == "pareto") return NCScale::kPareto;
  if (name == "uv") return NCScale::kUnitVariance;
  throw ToolError("--scale " + name + ": expected none, center, pareto or uv");
}

NCScale FitScale(Matrix& x, const std::vector<std::string>& names, const std::string& scaling,
                 const std::string& path) {
  const int code = ScalingCode(scaling);
  NCScale scale(x.SizeColumns());
  for (int j = 1; j <= x.SizeColumns(); ++j) scale.SetType(j, static_cast<NCScale::Scaling>(code));
  try {
    scale.ScaleMatrix(&x, true);
  } catch (const NCScaleError& e) {
    const int j = e.GetVariable();
    const std::string column = j >= 1 && j <= static_cast<int>(names.size())
                                   ? names[static_cast<std::size_t>(j - 1)]
                                   : "?";
    throw ToolError(path + ": column '" + column + "': " + e.what() +
                    " (leave it out with --exclude)");
  }
  return scale;
}

std::vector<double> ColumnSS(const Matrix& x) {
  std::vector<double> ss(static_cast<std::size_t>(x.SizeColumns()));
  for (int j = 1; j <= x.SizeColumns(); ++j) {
    ss[static_cast<std::size_t>(j - 1)] = static_cast<double>(x.GetColumnSS(j));
  }
  return ss;
}

int ComponentLimit(int requested, int observations, int variables) {
  const int most = std::min(variables, observations - 1);
  if (requested > most)
    throw ToolError("--components " + std::to_string(requested) + ": this data set has at most " +
                    std::to_string(most));
  return requested > 0 ? requested : most;
}

Matrix FirstRows(const Matrix& m, int rows) {
  if (rows <= 0) return Matrix(0, m.SizeColumns(), 0.0f);
  Matrix out = m.GetRowSubMatrix(1, rows);
  out.ForceUnlink();
  return out;
}

std::shared_ptr<NCProgress> StepProgress(const std::string& text) {
  return NCProgress::CreateDefault(text, 0.0, 1.0);
}

bool StopRequested() {
  // The Ctrl-C handler asks every reporter to stop at once; a fresh one shows whether it did.
  NCProgress probe;
  return probe.IsBreakPressed();
}

void ThrowIfStopped() {
  if (StopRequested()) throw NCError("stopped by the user", NCError::kStopRequested);
}

}  // namespace mvda::cli
