#include <mvda/platform/error.h>
#include <mvda/platform/progress.h>
#include <mvda/preprocess/scale.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <set>
#include <string>

#include "analysis.h"
#include "column_names.h"
#include "fit_common.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

int RequireColumn(const CsvTable& table, const std::string& name, const char* role) {
  if (name.empty()) throw ToolError(std::string(role) + ": an empty column name");
  const int j = table.Find(name);
  if (j >= 0) return j;
  // The names column is no variable, but it is what a newcomer sees first in the header.
  if (!table.names_header.empty() && MatchColumn({table.names_header}, name) == 0) {
    throw ToolError(table.path + ": '" + table.names_header + "' (" + role +
                    ") holds the observation names, not a variable");
  }
  throw ToolError(NoSuchColumn(table.path, table.columns, name, role));
}

// A column of a few distinct whole numbers looks like a code for groups (a cultivar, a batch)
// rather than a measurement. Two values are left alone: a 0/1 or 1/2 column is as often a
// real two-level factor that belongs in the model.
constexpr std::size_t kMinCodes = 3, kMaxCodes = 10;

bool LooksLikeClassCode(const Matrix& x, int column, std::set<float>& codes) {
  int present = 0;
  for (int i = 1; i <= x.SizeRows(); ++i) {
    const float v = x[i][column];
    if (v == -99.0f) continue;
    if (v != std::floor(v)) return false;
    ++present;
    if (codes.insert(v).second && codes.size() > kMaxCodes) return false;
  }
  return codes.size() >= kMinCodes && present >= 4 * static_cast<int>(codes.size());
}

}  // namespace

std::string ClassLikeHint(const Dataset& data) {
  std::vector<std::string> names;
  std::string example;
  for (int j = 1; j <= data.x.SizeColumns(); ++j) {
    std::set<float> codes;
    if (!LooksLikeClassCode(data.x, j, codes)) continue;
    names.push_back(data.x_names[static_cast<std::size_t>(j - 1)]);
    if (example.empty()) {
      for (const float c : codes) {
        char code[48];
        std::snprintf(code, sizeof code, "%.0f", static_cast<double>(c));
        example += (example.empty() ? "" : ", ") + std::string(code);
      }
    }
  }
  if (names.empty()) return std::string();
  const std::string& first = names.front();
  if (names.size() == 1) {
    return "hint: '" + first + "' holds only the whole numbers " + example +
           " and is analysed as a measurement; if it is a class code, name it with --class " +
           first + " or leave it out with --exclude " + first;
  }
  std::string quoted, listed;
  for (std::size_t i = 0; i < names.size(); ++i) {
    quoted += (i ? ", '" : "'") + names[i] + "'";
    listed += (i ? "," : "") + names[i];
  }
  return "hint: " + quoted +
         " hold only a few whole numbers each and are analysed as measurements; if they are "
         "class codes, name one with --class " + first + " or leave them out with --exclude " +
         listed;
}

Dataset SelectData(const CsvTable& table, const std::vector<std::string>& y_columns,
                   const std::string& class_column, const std::vector<std::string>& excluded) {
  Dataset data;
  data.path = table.path;
  data.row_names = table.row_names;
  data.row_lines = table.row_lines;
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
    data.y_names.push_back(table.columns[static_cast<std::size_t>(j)]);
  }
  if (!class_column.empty()) {
    const int j = RequireColumn(table, class_column, "--class");
    taken.insert(j);
    data.class_name = table.columns[static_cast<std::size_t>(j)];
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
