#include "csv_table.h"

#include <mvda/containers/data_vector.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <string_view>

#include <csv.h>

#include "column_names.h"
#include "fit_common.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

constexpr float kMissing = -99.0f;

enum class CellKind { kNumber, kMissing, kNotANumber, kOutOfRange };

std::string_view Trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

// Empty, NA (in any letter case) and every spelling of -99 are missing; numbers are parsed
// without the locale, so a file reads the same on every machine.
CellKind ParseCell(std::string_view raw, float& value) {
  std::string_view s = Trim(raw);
  if (s.empty() || s == "NA" || s == "na" || s == "Na" || s == "nA") return CellKind::kMissing;
  if (s.front() == '+') s.remove_prefix(1);
  double v = 0.0;
  const auto [end, error] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (error == std::errc::result_out_of_range) return CellKind::kOutOfRange;
  if (error != std::errc() || end != s.data() + s.size()) return CellKind::kNotANumber;
  // from_chars takes "inf" and "nan"; neither is a measurement.
  if (!std::isfinite(v)) return CellKind::kNotANumber;
  if (std::fabs(v) > std::numeric_limits<float>::max()) return CellKind::kOutOfRange;
  value = static_cast<float>(v);
  return value == kMissing ? CellKind::kMissing : CellKind::kNumber;
}

// A cell as it may appear in a one-line message: shortened, control characters replaced.
std::string Quote(std::string_view cell) {
  std::string out;
  for (const char c : cell.substr(0, 40)) {
    out += std::iscntrl(static_cast<unsigned char>(c)) ? '?' : c;
  }
  if (cell.size() > 40) out += "...";
  return "'" + out + "'";
}

// The state of one read. libcsv calls back from C, so a fault is only recorded here and thrown
// by ReadCsv after the parse call returns.
struct Reader {
  CsvTable table;
  std::set<std::string> text_names;
  long line = 0;  // physical line being fed, 1-based
  bool in_header = true;
  std::vector<std::string> header;
  int names_offset = -1;  // 1: the first column holds names, 0: it does not, -1: not known yet
  int field = 0;          // fields seen in the current record
  bool record_blank = true;
  std::vector<float> row;
  std::string row_name;
  std::string error;

  void Fail(int column, const std::string& what) {
    if (!error.empty()) return;
    error = table.path + ":" + std::to_string(line) + ":" + std::to_string(column) + ": " + what;
  }

  void SetUpColumns() {
    std::set<std::string> seen;
    for (std::size_t c = static_cast<std::size_t>(names_offset); c < header.size(); ++c) {
      std::string name = header[c];
      // A header cell left empty still needs a name to be addressed by.
      if (name.empty()) name = "V" + std::to_string(c + 1);
      if (!seen.insert(name).second) {
        error = table.path + ":1:" + std::to_string(c + 1) + ": column name " + Quote(name) +
                " appears twice";
        return;
      }
      table.columns.push_back(name);
      table.is_text.push_back(false);
    }
    // Text columns are named as the user typed them: matched as every other column name is.
    for (const std::string& text_name : text_names) {
      const int j = MatchColumn(table.columns, text_name);
      if (j >= 0) table.is_text[static_cast<std::size_t>(j)] = true;
    }
    if (names_offset == 1) table.names_header = header[0];
    table.text.assign(table.columns.size(), {});
    row.assign(table.columns.size(), kMissing);
  }

  void Field(std::string_view cell) {
    if (!error.empty()) return;
    const int c = field++;
    if (!Trim(cell).empty()) record_blank = false;
    if (in_header) {
      std::string name(Trim(cell));
      // A byte-order mark written by spreadsheet programs is not part of the first name.
      if (c == 0 && name.rfind("\xEF\xBB\xBF", 0) == 0) name.erase(0, 3);
      header.push_back(std::move(name));
      return;
    }
    if (names_offset < 0) {
      float unused = 0.0f;
      names_offset = header[0].empty() || ParseCell(cell, unused) == CellKind::kNotANumber;
      SetUpColumns();
      if (!error.empty()) return;
    }
    if (c < names_offset) {
      row_name = std::string(Trim(cell));
      return;
    }
    const std::size_t j = static_cast<std::size_t>(c - names_offset);
    if (j >= table.columns.size()) return;  // counted, and refused at the end of the record
    if (table.is_text[j]) {
      table.text[j].emplace_back(Trim(cell));
      return;
    }
    float value = kMissing;
    switch (ParseCell(cell, value)) {
      case CellKind::kNumber:
      case CellKind::kMissing:
        row[j] = value;
        break;
      case CellKind::kNotANumber:
        Fail(c + 1, "cell " + Quote(cell) + " in column " + Quote(table.columns[j]) +
                        " is not a number (missing values are empty, NA or -99)");
        break;
      case CellKind::kOutOfRange:
        Fail(c + 1, "cell " + Quote(cell) + " in column " + Quote(table.columns[j]) +
                        " is beyond single precision (about 3.4e38)");
        break;
    }
  }

  void EndRecord() {
    if (!error.empty()) return;
    const int fields = field;
    const bool blank = record_blank;
    field = 0;
    record_blank = true;
    if (in_header) {
      if (blank) {  // leading blank lines before the header
        header.clear();
        return;
      }
      in_header = false;
      // An empty first header cell announces a names column even before the data say so.
      if (!header.empty() && header[0].empty()) {
        names_offset = 1;
        SetUpColumns();
      }
      return;
    }
    if (blank && fields <= 1) return;  // a blank line between rows
    const int expected = static_cast<int>(header.size());
    if (fields != expected) {
      error = table.path + ":" + std::to_string(line) + ": row has " + std::to_string(fields) +
              " cells where the header has " + std::to_string(expected);
      return;
    }
    const std::size_t rows = table.row_names.size();
    table.row_names.push_back(names_offset == 1 ? row_name : std::to_string(rows + 1));
    table.values.insert(table.values.end(), row.begin(), row.end());
    std::fill(row.begin(), row.end(), kMissing);
    row_name.clear();
  }
};

void OnField(void* data, std::size_t size, void* self) {
  static_cast<Reader*>(self)->Field(std::string_view(static_cast<const char*>(data), size));
}

void OnRecordEnd(int, void* self) { static_cast<Reader*>(self)->EndRecord(); }

class CsvParser {
 public:
  CsvParser() {
    if (csv_init(&parser_, 0) != 0) throw ToolError("cannot start the CSV parser: out of memory");
  }
  CsvParser(const CsvParser&) = delete;
  CsvParser& operator=(const CsvParser&) = delete;
  ~CsvParser() { csv_free(&parser_); }
  csv_parser* get() { return &parser_; }

 private:
  csv_parser parser_;
};

std::string ReadWholeFile(const std::string& path) {
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored))
    throw ToolError(path + ": is a folder, not a file");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ToolError(path + ": cannot open: " + std::strerror(errno));
  std::ostringstream bytes;
  // A pipe (a process substitution) reads like a file.
  if (!(bytes << in.rdbuf()) && in.bad()) {
    throw ToolError(path + ": cannot read: " + std::strerror(errno));
  }
  return std::move(bytes).str();
}

}  // namespace

int CsvTable::Find(const std::string& name) const { return MatchColumn(columns, name); }

NCDataMatrix<float> CsvTable::Matrix(const std::vector<int>& selected) const {
  NCDataMatrix<float> m;
  const int k = static_cast<int>(selected.size());
  for (int i = 0; i < Rows(); ++i) {
    NCDataVector<float> row(k, 0.0f);
    row.Unlink();
    float* p = row.GetVector();
    int missing = 0;
    for (int j = 0; j < k; ++j) {
      p[j + 1] = At(i, selected[static_cast<std::size_t>(j)]);
      missing += p[j + 1] == kMissing;
    }
    row.SetNumMisVal(missing);
    m.push_back(row);
  }
  return m;
}

CsvTable ReadCsv(const std::string& path, const std::vector<std::string>& text_columns) {
  const std::string bytes = ReadWholeFile(path);
  Reader reader;
  reader.table.path = path;
  reader.text_names.insert(text_columns.begin(), text_columns.end());

  // Fed one physical line at a time, so that the callbacks know the line they are on.
  CsvParser parser;
  std::size_t pos = 0;
  while (pos < bytes.size() && reader.error.empty()) {
    const std::size_t newline = bytes.find('\n', pos);
    const std::size_t end = newline == std::string::npos ? bytes.size() : newline + 1;
    // A large file takes a while: Ctrl-C is honoured here too, not only once fitting starts.
    if (++reader.line % 4096 == 0) ThrowIfStopped();
    const std::size_t length = end - pos;
    if (csv_parse(parser.get(), bytes.data() + pos, length, OnField, OnRecordEnd, &reader) !=
        length) {
      throw ToolError(path + ":" + std::to_string(reader.line) + ": " +
                      csv_strerror(csv_error(parser.get())));
    }
    pos = end;
  }
  if (reader.error.empty()) csv_fini(parser.get(), OnField, OnRecordEnd, &reader);
  if (!reader.error.empty()) throw ToolError(reader.error);

  CsvTable& table = reader.table;
  if (reader.header.empty()) {
    throw ToolError(path + ": the file is empty (expected a header row of variable names)");
  }
  if (table.row_names.empty()) throw ToolError(path + ": no data rows under the header");
  if (table.columns.empty()) throw ToolError(path + ": no variables besides the names column");
  return std::move(reader.table);
}

std::string CsvField(const std::string& text) {
  const bool plain = text.find_first_of(",\"\r\n") == std::string::npos &&
                     (text.empty() || (!std::isspace(static_cast<unsigned char>(text.front())) &&
                                       !std::isspace(static_cast<unsigned char>(text.back()))));
  if (plain) return text;
  std::string out(2 * text.size() + 2, '\0');
  out.resize(csv_write(out.data(), out.size(), text.data(), text.size()));
  return out;
}

}  // namespace mvda::cli
