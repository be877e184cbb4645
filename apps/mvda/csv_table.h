// CsvTable and ReadCsv: a data file as the tool reads it (variable names, observation names,
// numbers with missing values), and CsvField, the quoting of a field for the CSV files it writes.
#ifndef MVDA_APPS_MVDA_CSV_TABLE_H_
#define MVDA_APPS_MVDA_CSV_TABLE_H_

#include <mvda/containers/data_matrix.h>

#include <cstddef>
#include <string>
#include <string_view>
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
  // Per observation, its line in the file (where its first cell ends), for messages.
  std::vector<long> row_lines;
  std::vector<std::string> columns;    // the variables, in file order
  std::vector<bool> is_text;           // per column: kept as text
  // Numbers row by row (rows x columns), -99 where missing and in text columns.
  std::vector<float> values;
  // Cells of the text columns, row by row: text[c][i]; empty for numeric columns.
  std::vector<std::vector<std::string>> text;
  // How the file was read, for --verbose: "separator ';' (detected), decimal comma (detected)".
  std::string dialect;

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

// How cells are separated and which decimal mark numbers use. 0 means "detect from the file":
// the separator is the one of comma, semicolon and tab that splits the first lines into the same
// number of cells (the most cells wins, comma on a tie); the decimal mark is a comma when the
// separator is not a comma and a data cell is written like 1,5 (a European spreadsheet's export).
struct CsvDialect {
  char separator = 0;  // ',', ';', '\t' or 0
  char decimal = 0;    // '.', ',' or 0
  bool verbose = false;  // say on stderr what was detected
};
// The dialect every ReadCsv of this run uses unless given one: set once from the command line.
CsvDialect& CsvDefaults();

// The largest CSV file (or pipe) read, in bytes: beyond it the file is refused rather than read
// into memory without bound (a device such as /dev/zero is refused outright).
inline constexpr std::size_t kMaxCsvBytes = std::size_t{1} << 30;

// Reads `path`. Columns named in `text_columns` are kept as text; in every other column a cell
// that is neither a number nor missing throws ToolError "path:line:column: ...", the line and
// column (both 1-based) of the cell in the file. Also ToolError for a file that cannot be opened,
// an empty file, a header without data rows, repeated column names, a row with more or fewer
// cells than the header, binary data, broken quoting (blamed where the quoted field starts),
// numbers beyond single precision or so large that a column's sum of squares is, and a file
// that is not a regular file or a pipe or is larger than kMaxCsvBytes. Nothing is returned
// half-read. Control characters in names and text cells are kept as escapes (\x1b), so that no
// file can send codes to the terminal through a message or a table.
CsvTable ReadCsv(const std::string& path, const std::vector<std::string>& text_columns = {});
CsvTable ReadCsv(const std::string& path, const std::vector<std::string>& text_columns,
                 const CsvDialect& dialect);
// The same for bytes already in memory; `path` only names them in messages.
CsvTable ParseCsv(const std::string& path, std::string_view bytes,
                  const std::vector<std::string>& text_columns, const CsvDialect& dialect);

// A field for a CSV file the tool writes: as it is, or quoted (by libcsv) when it holds a comma,
// a quote, a line break or leading or trailing blanks.
std::string CsvField(const std::string& text);

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_CSV_TABLE_H_
