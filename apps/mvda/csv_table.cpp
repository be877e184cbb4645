#include "csv_table.h"

#include <mvda/containers/data_vector.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <limits>
#include <set>
#include <string_view>

#include <csv.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "column_names.h"
#include "fit_common.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

constexpr float kMissing = -99.0f;
constexpr float kFloatMax = std::numeric_limits<float>::max();

enum class CellKind { kNumber, kMissing, kNotANumber, kOverflow, kUnderflow, kPointInComma };

std::string_view Trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

// Whether a number's text too large or too small for a double is large (overflow) or small: the
// decimal exponent of its first significant digit.
bool TooLarge(std::string_view s) {
  long long integer_digits = 0, leading_fraction_zeros = 0;
  bool seen_digit = false, in_fraction = false;
  std::size_t i = 0;
  for (; i < s.size() && s[i] != 'e' && s[i] != 'E'; ++i) {
    const char c = s[i];
    if (c == '.') {
      in_fraction = true;
    } else if (c >= '0' && c <= '9') {
      if (!in_fraction && (seen_digit || c != '0')) ++integer_digits;
      if (in_fraction && !seen_digit && c == '0') ++leading_fraction_zeros;
      seen_digit = seen_digit || c != '0';
    }
  }
  long long exponent = 0;
  if (i < s.size()) {
    std::string_view e = s.substr(i + 1);
    const bool negative = !e.empty() && e.front() == '-';
    if (!e.empty() && (e.front() == '-' || e.front() == '+')) e.remove_prefix(1);
    for (const char c : e) exponent = std::min(exponent * 10 + (c - '0'), 1000000000LL);
    if (negative) exponent = -exponent;
  }
  const long long magnitude =
      integer_digits > 0 ? exponent + integer_digits : exponent - leading_fraction_zeros;
  return magnitude > 0;
}

// Empty, NA (in any letter case) and every spelling of -99 are missing; numbers are parsed
// without the locale, so a file reads the same on every machine. With a decimal comma, a point
// is refused rather than guessed at (1.234 may be a thousand and a bit).
CellKind ParseCell(std::string_view raw, float& value, char decimal = '.') {
  std::string_view s = Trim(raw);
  if (s.empty() || s == "NA" || s == "na" || s == "Na" || s == "nA") return CellKind::kMissing;
  if (s.front() == '+') s.remove_prefix(1);
  std::string swapped;
  if (decimal == ',') {
    if (s.find('.') != std::string_view::npos) return CellKind::kPointInComma;
    swapped.assign(s);
    std::replace(swapped.begin(), swapped.end(), ',', '.');
    s = swapped;
  }
  double v = 0.0;
  const auto [end, error] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (error == std::errc::result_out_of_range && end == s.data() + s.size())
    return TooLarge(s) ? CellKind::kOverflow : CellKind::kUnderflow;
  if (error != std::errc() || end != s.data() + s.size()) return CellKind::kNotANumber;
  // from_chars takes "inf" and "nan"; neither is a measurement.
  if (!std::isfinite(v)) return CellKind::kNotANumber;
  if (std::fabs(v) > kFloatMax) return CellKind::kOverflow;
  value = static_cast<float>(v);
  // A value that single precision rounds to zero has lost everything it said.
  if (value == 0.0f && v != 0.0) return CellKind::kUnderflow;
  return value == kMissing ? CellKind::kMissing : CellKind::kNumber;
}

// Text from the file as it may reach a terminal: C0 and C1 control characters (an escape
// sequence's ESC or its eight-bit CSI) become \xNN, so a name can never drive the terminal.
std::string Printable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  char hex[8];
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    if (c < 0x20 || c == 0x7f) {
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else if (c == 0xc2 && next >= 0x80 && next <= 0x9f) {  // U+0080..U+009F in UTF-8
      std::snprintf(hex, sizeof hex, "\\x%02x", next);
      out += hex;
      ++i;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// A cell as it may appear in a one-line message: shortened, control characters escaped.
std::string Quote(std::string_view cell) {
  std::string out = Printable(cell.substr(0, 40));
  if (cell.size() > 40) out += "...";
  return "'" + out + "'";
}

std::string SeparatorName(char c) {
  return c == '\t' ? "tab" : c == ';' ? "';'" : "','";
}

// Physical lines of `bytes` (ended by LF, CRLF or a lone CR), at most `count` non-blank ones.
std::vector<std::string_view> FirstLines(std::string_view bytes, std::size_t count) {
  std::vector<std::string_view> lines;
  std::size_t pos = 0;
  while (pos < bytes.size() && lines.size() < count) {
    const std::size_t end = std::min(bytes.find_first_of("\r\n", pos), bytes.size());
    if (!Trim(bytes.substr(pos, end - pos)).empty()) lines.push_back(bytes.substr(pos, end - pos));
    pos = end + 1;
  }
  return lines;
}

// Cells of one line split at `sep` outside double quotes (good enough to choose a dialect; the
// parser proper handles fields that span lines).
std::vector<std::string_view> SplitLine(std::string_view line, char sep) {
  std::vector<std::string_view> cells;
  bool quoted = false;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= line.size(); ++i) {
    if (i < line.size() && line[i] == '"') quoted = !quoted;
    if (i == line.size() || (line[i] == sep && !quoted)) {
      cells.push_back(line.substr(start, i - start));
      start = i + 1;
    }
  }
  return cells;
}

bool LooksLikeDecimalComma(std::string_view cell) {
  cell = Trim(cell);
  if (!cell.empty() && cell.front() == '"' && cell.back() == '"' && cell.size() >= 2)
    cell = cell.substr(1, cell.size() - 2);
  if (!cell.empty() && (cell.front() == '-' || cell.front() == '+')) cell.remove_prefix(1);
  const std::size_t comma = cell.find(',');
  if (comma == std::string_view::npos || cell.find(',', comma + 1) != std::string_view::npos)
    return false;
  std::size_t digits_after = 0;
  for (std::size_t i = 0; i < cell.size(); ++i) {
    const char c = cell[i];
    if (i == comma) continue;
    if (c == 'e' || c == 'E') break;
    if (c < '0' || c > '9') return false;
    digits_after += i > comma;
  }
  return digits_after > 0;
}

// Fills in the separator and decimal mark that `dialect` leaves to detection.
CsvDialect Detect(std::string_view bytes, CsvDialect dialect, std::string& note) {
  const std::vector<std::string_view> lines = FirstLines(bytes, 50);
  const bool sep_detected = dialect.separator == 0;
  if (sep_detected) {
    char best = ',';
    std::size_t best_cells = 0;
    bool best_consistent = false;
    for (const char sep : {',', ';', '\t'}) {
      if (lines.empty()) break;
      const std::size_t cells = SplitLine(lines[0], sep).size();
      if (cells < 2) continue;
      bool consistent = true;
      for (const std::string_view line : lines) consistent &= SplitLine(line, sep).size() == cells;
      if ((consistent && !best_consistent) ||
          (consistent == best_consistent && cells > best_cells)) {
        best = sep;
        best_cells = cells;
        best_consistent = consistent;
      }
    }
    dialect.separator = best;
  }
  const bool decimal_detected = dialect.decimal == 0;
  if (decimal_detected) {
    dialect.decimal = '.';
    if (dialect.separator != ',') {
      for (std::size_t i = 1; i < lines.size() && dialect.decimal == '.'; ++i) {
        for (const std::string_view cell : SplitLine(lines[i], dialect.separator)) {
          if (LooksLikeDecimalComma(cell)) dialect.decimal = ',';
        }
      }
    }
  }
  note = "separator " + SeparatorName(dialect.separator) + (sep_detected ? " (detected)" : "") +
         ", decimal " + (dialect.decimal == ',' ? "comma" : "point") +
         (decimal_detected ? " (detected)" : "");
  return dialect;
}

// The state of one read. libcsv calls back from C, so a fault is only recorded here and thrown
// by ParseCsv after the parse call returns.
struct Reader {
  CsvTable table;
  std::set<std::string> text_names;
  char decimal = '.';
  long line = 0;  // physical line being fed, 1-based
  bool in_header = true;
  std::vector<std::string> header;
  int names_offset = -1;  // 1: the first column holds names, 0: it does not, -1: not known yet
  int field = 0;          // fields seen in the current record
  long record_line = 0;   // the line the current record started on
  bool record_blank = true;
  std::vector<float> row;
  std::vector<std::string> row_text;  // the record's text cells, kept if it is a row
                                      // rather than a blank line
  std::string row_name;
  // Per column: the sum of squares so far, in double, which must stay within single precision.
  std::vector<double> sum_squares;
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
    row_text.assign(table.columns.size(), {});
    sum_squares.assign(table.columns.size(), 0.0);
  }

  void Field(std::string_view cell) {
    if (!error.empty()) return;
    const int c = field++;
    if (c == 0) record_line = line;
    if (!Trim(cell).empty()) record_blank = false;
    if (in_header) {
      header.push_back(Printable(Trim(cell)));
      return;
    }
    if (names_offset < 0) {
      float unused = 0.0f;
      names_offset = header[0].empty() || ParseCell(cell, unused, decimal) == CellKind::kNotANumber;
      SetUpColumns();
      if (!error.empty()) return;
    }
    if (c < names_offset) {
      row_name = Printable(Trim(cell));
      return;
    }
    const std::size_t j = static_cast<std::size_t>(c - names_offset);
    if (j >= table.columns.size()) return;  // counted, and refused at the end of the record
    if (table.is_text[j]) {
      row_text[j] = Printable(Trim(cell));
      return;
    }
    float value = kMissing;
    const std::string where = "cell " + Quote(cell) + " in column " + Quote(table.columns[j]);
    switch (ParseCell(cell, value, decimal)) {
      case CellKind::kNumber:
        sum_squares[j] += static_cast<double>(value) * value;
        // Beyond this, a mean or a variance of the column would overflow to infinity.
        if (sum_squares[j] > kFloatMax) {
          Fail(c + 1, where + " makes the sum of squares of the column exceed single precision "
                              "(about 3.4e38); rescale the column");
        }
        row[j] = value;
        break;
      case CellKind::kMissing:
        row[j] = value;
        break;
      case CellKind::kNotANumber:
        Fail(c + 1, where + " is not a number (missing values are empty, NA or -99)");
        break;
      case CellKind::kPointInComma:
        Fail(c + 1, where + " has a decimal point, but this file uses decimal commas (see --decimal)");
        break;
      case CellKind::kOverflow:
        Fail(c + 1, where + " is too large for single precision (beyond about 3.4e38)");
        break;
      case CellKind::kUnderflow:
        Fail(c + 1, where + " is too small for single precision (it would read as 0)");
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
    table.row_lines.push_back(record_line);
    table.values.insert(table.values.end(), row.begin(), row.end());
    std::fill(row.begin(), row.end(), kMissing);
    for (std::size_t j = 0; j < row_text.size(); ++j) {
      if (table.is_text[j]) table.text[j].push_back(std::move(row_text[j]));
      row_text[j].clear();
    }
    row_name.clear();
  }
};

void OnField(void* data, std::size_t size, void* self) {
  static_cast<Reader*>(self)->Field(std::string_view(static_cast<const char*>(data), size));
}

void OnRecordEnd(int, void* self) { static_cast<Reader*>(self)->EndRecord(); }

int IsBlank(unsigned char c) { return c == ' '; }

// libcsv's state inside a quoted field (its parser states are not in its header).
constexpr int kFieldBegun = 2;

class CsvParser {
 public:
  CsvParser() {
    // Strict: a stray quote is an error rather than a guess, and so is a quote never closed.
    if (csv_init(&parser_, CSV_STRICT | CSV_STRICT_FINI) != 0)
      throw ToolError("cannot start the CSV parser: out of memory");
  }
  CsvParser(const CsvParser&) = delete;
  CsvParser& operator=(const CsvParser&) = delete;
  ~CsvParser() { csv_free(&parser_); }
  csv_parser* get() { return &parser_; }

 private:
  csv_parser parser_;
};

struct Fd {
  int fd;
  ~Fd() { ::close(fd); }
};

std::string ReadWholeFile(const std::string& path) {
  Fd file{::open(path.c_str(), O_RDONLY | O_CLOEXEC)};
  if (file.fd < 0) throw ToolError(path + ": cannot open: " + std::strerror(errno));
  struct stat info {};
  if (::fstat(file.fd, &info) != 0)
    throw ToolError(path + ": cannot read: " + std::strerror(errno));
  if (S_ISDIR(info.st_mode)) throw ToolError(path + ": is a folder, not a file");
  // A pipe (a process substitution, /dev/stdin from a pipe) reads like a file; a device such as
  // /dev/zero would never end.
  if (!S_ISREG(info.st_mode) && !S_ISFIFO(info.st_mode) && !S_ISSOCK(info.st_mode))
    throw ToolError(path + ": not a regular file or a pipe");
  const std::string too_large =
      path + ": larger than " + std::to_string(kMaxCsvBytes >> 20) + " MiB, the most read";
  if (S_ISREG(info.st_mode) && static_cast<std::uint64_t>(info.st_size) > kMaxCsvBytes)
    throw ToolError(too_large);
  std::string bytes;
  if (S_ISREG(info.st_mode)) bytes.reserve(static_cast<std::size_t>(info.st_size));
  std::vector<char> chunk(1 << 16);
  for (;;) {
    const ssize_t got = ::read(file.fd, chunk.data(), chunk.size());
    if (got < 0 && errno == EINTR) {
      ThrowIfStopped();
      continue;
    }
    if (got < 0) throw ToolError(path + ": cannot read: " + std::strerror(errno));
    if (got == 0) break;
    if (bytes.size() + static_cast<std::size_t>(got) > kMaxCsvBytes) throw ToolError(too_large);
    bytes.append(chunk.data(), static_cast<std::size_t>(got));
    // Binary data (a pipe from /dev/zero) is refused at once, not after a gigabyte.
    if (std::memchr(chunk.data(), '\0', static_cast<std::size_t>(got)) != nullptr) break;
  }
  return bytes;
}

// "path:line:column" of a byte offset, counting LF, CRLF and a lone CR as line ends.
std::string Place(const std::string& path, std::string_view bytes, std::size_t offset) {
  long line = 1;
  std::size_t line_start = 0;
  for (std::size_t i = 0; i < offset; ++i) {
    if (bytes[i] == '\n' || (bytes[i] == '\r' && (i + 1 >= bytes.size() || bytes[i + 1] != '\n'))) {
      ++line;
      line_start = i + 1;
    }
  }
  return path + ":" + std::to_string(line) + ":" + std::to_string(offset - line_start + 1);
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

CsvDialect& CsvDefaults() {
  static CsvDialect dialect;
  return dialect;
}

CsvTable ReadCsv(const std::string& path, const std::vector<std::string>& text_columns) {
  return ReadCsv(path, text_columns, CsvDefaults());
}

CsvTable ReadCsv(const std::string& path, const std::vector<std::string>& text_columns,
                 const CsvDialect& dialect) {
  const std::string bytes = ReadWholeFile(path);
  CsvTable table = ParseCsv(path, bytes, text_columns, dialect);
  if (dialect.verbose) std::cerr << "mvda: " << path << ": " << table.dialect << '\n';
  return table;
}

CsvTable ParseCsv(const std::string& path, std::string_view bytes,
                  const std::vector<std::string>& text_columns, const CsvDialect& forced) {
  // A byte-order mark written by spreadsheet programs is not part of the first name.
  if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
  if (bytes.substr(0, 2) == "\xFF\xFE" || bytes.substr(0, 2) == "\xFE\xFF")
    throw ToolError(path + ": UTF-16 text; save the file as UTF-8 (or plain) CSV");
  const std::size_t nul = bytes.find('\0');
  if (nul != std::string_view::npos)
    throw ToolError(Place(path, bytes, nul) + ": a NUL byte; this is not a text file");

  Reader reader;
  reader.table.path = path;
  reader.text_names.insert(text_columns.begin(), text_columns.end());
  const CsvDialect dialect = Detect(bytes, forced, reader.table.dialect);
  reader.decimal = dialect.decimal;
  if (dialect.separator == ',' && dialect.decimal == ',' && forced.separator == 0) {
    // Only quoted cells can then hold a decimal comma; said so rather than failing obscurely.
    reader.table.dialect += " (numbers with a decimal comma must be quoted)";
  }

  CsvParser parser;
  csv_set_delim(parser.get(), static_cast<unsigned char>(dialect.separator));
  // Blanks around a cell are trimmed, but a tab that separates cells is not a blank.
  if (dialect.separator == '\t') csv_set_space_func(parser.get(), IsBlank);

  // Fed one physical line at a time, so that the callbacks know the line they are on, and a long
  // line in pieces, between which libcsv's buffer step grows with the cell it holds: it grows
  // its buffer by a fixed step, so a 1 MB cell would otherwise take thousands of copies.
  constexpr std::size_t kPiece = 1 << 16;
  long quote_line = 0;  // where the quoted field still open at the end of a line began
  int quote_column = 0;
  std::size_t pos = 0;
  while (pos < bytes.size() && reader.error.empty()) {
    std::size_t end = std::min(bytes.find_first_of("\r\n", pos), bytes.size());
    if (end < bytes.size()) end += (bytes[end] == '\r' && end + 1 < bytes.size() && bytes[end + 1] == '\n') ? 2 : 1;
    // A large file takes a while: Ctrl-C is honoured here too, not only once fitting starts.
    if (++reader.line % 4096 == 0) ThrowIfStopped();
    const int fields_before = reader.field;
    for (std::size_t piece = pos; piece < end && reader.error.empty(); piece += kPiece) {
      const std::size_t length = std::min(kPiece, end - piece);
      csv_set_blk_size(parser.get(), std::max<std::size_t>(kPiece, parser.get()->entry_size));
      if (csv_parse(parser.get(), bytes.data() + piece, length, OnField, OnRecordEnd, &reader) !=
          length) {
        const int error = csv_error(parser.get());
        throw ToolError(
            path + ":" + std::to_string(reader.line) + ":" + std::to_string(reader.field + 1) +
            (error == CSV_EPARSE ? ": a quote inside an unquoted cell or text after a closing "
                                   "quote (quote the whole cell and double the quotes in it)"
                                 : std::string(": ") + csv_strerror(error)));
      }
    }
    const bool in_quotes = parser.get()->quoted && parser.get()->pstate == kFieldBegun;
    if (!in_quotes) {
      quote_line = 0;
    } else if (quote_line == 0 || reader.field != fields_before) {
      quote_line = reader.line;
      quote_column = reader.field + 1;
    }
    pos = end;
  }
  if (reader.error.empty() && csv_fini(parser.get(), OnField, OnRecordEnd, &reader) != 0) {
    throw ToolError(path + ":" + std::to_string(quote_line) + ":" + std::to_string(quote_column) +
                    ": a quoted cell starts here and is never closed");
  }
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
