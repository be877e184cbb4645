// CsvTable and ReadCsv: a data file as the tool reads it (variable names, observation names,
// numbers with missing values), and CsvField, the quoting of a field for the CSV files it writes.
#ifndef MVDA_APPS_MVDA_CSV_TABLE_H_
#define MVDA_APPS_MVDA_CSV_TABLE_H_

#include <mvda/containers/data_matrix.h>

#include <string>
#include <vector>

namespace mvda::cli {

// The file's layout: a header row of variable names, then one row per observation. The first
// column holds observation names when its header cell is empty or the first data row has text
// there; otherwise it is a variable and the observations are named 1, 2, ... by row. Every other
// cell is a number, or missing: empty, NA, or -99 (the library's marker). Columns read as text
// (a class column such as a cultivar) keep their cells as written.
struct CsvTable {
  std::string path;
  std::string names_header;            // header of the names column; "" when there is none
  std::vector<std::string> row_names;  // one per observation
  std::vector<std::string> columns;    // the variables, in file order
  std::vector<bool> is_text;           // per column: kept as text
  // Numbers row by row (rows x columns), -99 where missing and in text columns.
  std::vector<float> values;
  // Cells of the text columns, row by row: text[c][i]; empty for numeric columns.
  std::vector<std::vector<std::string>> text;

  int Rows() const { return static_cast<int>(row_names.size()); }
  int Columns() const { return static_cast<int>(columns.size()); }
  // 0-based index of the column called `name` (exactly, else ignoring letter case), or -1.
  int Find(const std::string& name) const;
  float At(int row, int column) const {
    return values[static_cast<std::size_t>(row) * columns.size() +
                  static_cast<std::size_t>(column)];
  }
  // The listed columns (0-based) as an observations x variables matrix.
  NCDataMatrix<float> Matrix(const std::vector<int>& columns) const;
};

// Reads `path`. Columns named in `text_columns` are kept as text; in every other column a cell
// that is neither a number nor missing throws ToolError "path:line:column: ...", the line and
// column (both 1-based) of the cell in the file. Also ToolError for a file that cannot be opened,
// an empty file, a header without data rows, repeated column names, a row with more or fewer
// cells than the header, and numbers beyond single precision. Nothing is returned half-read.
CsvTable ReadCsv(const std::string& path, const std::vector<std::string>& text_columns = {});

// A field for a CSV file the tool writes: as it is, or quoted (by libcsv) when it holds a comma,
// a quote, a line break or leading or trailing blanks.
std::string CsvField(const std::string& text);

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_CSV_TABLE_H_
