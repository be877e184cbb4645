#include "csv_table.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "run_tool.h"  // ScratchDir, WriteText
#include "tool_error.h"

namespace {

using mvda::cli::CsvTable;
using mvda::cli::ReadCsv;
using mvda::cli::ToolError;

constexpr float kM = -99.0f;
using namespace std::string_literals;

TEST(CsvTable, ReadsNamesNumbersAndMissingCells) {
  struct Case {
    const char* name;
    const char* text;
    std::vector<std::string> text_columns;
    std::string names_header;
    std::vector<std::string> columns, rows;
    std::vector<float> values;  // row by row, -99 missing (and in text columns)
  };
  const Case cases[] = {
      {"names from text in the first column",
       "Sample,a,b\nS1,1,2\nS2,3,4\n",
       {},
       "Sample",
       {"a", "b"},
       {"S1", "S2"},
       {1, 2, 3, 4}},
      {"numeric first column is a variable; rows numbered",
       "a,b\n1,2\n3,4\n",
       {},
       "",
       {"a", "b"},
       {"1", "2"},
       {1, 2, 3, 4}},
      {"empty first header cell announces names even when they look numeric",
       ",a\n10,1.5\n20,2.5\n",
       {},
       "",
       {"a"},
       {"10", "20"},
       {1.5f, 2.5f}},
      {"empty, NA, na and -99 in every spelling are missing",
       "a,b,c\n,NA,-99\nna,-99.0,-9.9e1\n 7 ,+8,\"9\"\n",
       {},
       "",
       {"a", "b", "c"},
       {"1", "2", "3"},
       {kM, kM, kM, kM, kM, kM, 7, 8, 9}},
      {"quotes, CRLF, blank lines and a byte-order mark",
       "\xEF\xBB\xBF"
       "id,\"x, y\",z\r\n\r\nr1,1,2\r\n\r\nr2,3,4",
       {},
       "id",
       {"x, y", "z"},
       {"r1", "r2"},
       {1, 2, 3, 4}},
      {"a text column keeps its cells",
       "n,c,v\nA,red,1\nB,blue,2\n",
       {"c"},
       "n",
       {"c", "v"},
       {"A", "B"},
       {kM, 1, kM, 2}},
  };
  ScratchDir dir("csv_ok");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriteText(dir / "t.csv", c.text);
    const CsvTable t = ReadCsv(dir / "t.csv", c.text_columns);
    EXPECT_EQ(t.names_header, c.names_header);
    EXPECT_EQ(t.columns, c.columns);
    EXPECT_EQ(t.row_names, c.rows);
    EXPECT_EQ(t.values, c.values);
  }
  WriteText(dir / "t.csv", "n,c,v\nA,red,1\nB,blue,2\n");
  EXPECT_EQ(ReadCsv(dir / "t.csv", {"c"}).text[0], (std::vector<std::string>{"red", "blue"}));
  // A line of white space only (a vertical tab, which the CSV parser keeps as a cell) is no row,
  // and leaves nothing in a text column that comes first (no names column: the first cell is a
  // number). Found by the CSV fuzzer.
  WriteText(dir / "t.csv", "c,v\n3,1\n\v\n4,2\n");
  const CsvTable blank_lines = ReadCsv(dir / "t.csv", {"c"});
  EXPECT_EQ(blank_lines.row_names, (std::vector<std::string>{"1", "2"}));
  EXPECT_EQ(blank_lines.text[0], (std::vector<std::string>{"3", "4"}));
}

// Each fault names the file, and the line and column of the cell where there is one.
TEST(CsvTable, RefusesWhatIsNotData) {
  struct Case {
    const char* name;
    std::string text;  // may hold NUL bytes
    const char* message;  // after the file path
  };
  const Case cases[] = {
      {"empty file", "", ": the file is empty (expected a header row of variable names)"},
      {"blank lines only", "\n\n", ": the file is empty (expected a header row of variable names)"},
      {"header only", "a,b\n", ": no data rows under the header"},
      {"names column only", "n\nA\nB\n", ": no variables besides the names column"},
      {"row too short", "a,b,c\n1,2,3\n4,5\n", ":3: row has 2 cells where the header has 3"},
      {"row too long", "a,b\n1,2\n\n3,4,5\n", ":4: row has 3 cells where the header has 2"},
      {"text cell", "n,a,b\nx,1,2\ny,2,abc\n",
       ":3:3: cell 'abc' in column 'b' is not a number (missing values are empty, NA or -99)"},
      {"inf is no measurement", "a\n1\ninf\n",
       ":3:1: cell 'inf' in column 'a' is not a number (missing values are empty, NA or -99)"},
      {"decimal comma", "n,a\nx,\"1,5\"\n",
       ":2:2: cell '1,5' in column 'a' is not a number (missing values are empty, NA or -99)"},
      {"beyond float", "a\n1e39\n",
       ":2:1: cell '1e39' in column 'a' is too large for single precision (beyond about 3.4e38)"},
      {"beyond double is still too large", "a\n-1e400\n",
       ":2:1: cell '-1e400' in column 'a' is too large for single precision (beyond about 3.4e38)"},
      {"below double is too small, not too large", "a,b\n1,1e-400\n",
       ":2:2: cell '1e-400' in column 'b' is too small for single precision (it would read as 0)"},
      {"below float", "a\n0.00000000000000000000000000000000000000000000000001\n",
       ":2:1: cell '0.00000000000000000000000000000000000000...' in column 'a' is too small for "
       "single precision (it would read as 0)"},
      // 1e19 squared four times is 4e38: the fourth value is the one the sums cannot hold.
      {"sum of squares beyond float", "a,b\n1,1e19\n2,1e19\n3,-1e19\n4,1e19\n",
       ":5:2: cell '1e19' in column 'b' makes the sum of squares of the column exceed single "
       "precision (about 3.4e38); rescale the column"},
      {"quote never closed, blamed where it opens", "a,b\n1,\"2\n3,4\n5,6\n",
       ":2:2: a quoted cell starts here and is never closed"},
      {"stray quote", "a,b,c\n1,2,3\n4,5\"x,6\n",
       ":3:2: a quote inside an unquoted cell or text after a closing quote (quote the whole "
       "cell and double the quotes in it)"},
      {"lines ended by CR alone", "a,b\r1,2\r3,x\r", ":3:2: cell 'x' in column 'b' is not a number "
       "(missing values are empty, NA or -99)"},
      {"binary", "a,b\n1,2\n3,\x01\x02\0\x05\n"s, ":3:5: a NUL byte; this is not a text file"},
      {"UTF-16", "\xFF\xFE" "a\0"s, ": UTF-16 text; save the file as UTF-8 (or plain) CSV"},
      {"escape codes in a name are shown escaped", "a,\x1b[2J,\x1b[2J\n1,2,3\n",
       ":1:3: column name '\\x1b[2J' appears twice"},
      {"decimal point in a decimal-comma file", "a;b\n1,5;2\n2,5;2.5\n",
       ":3:2: cell '2.5' in column 'b' has a decimal point, but this file uses decimal commas "
       "(see --decimal)"},
      {"repeated name", "n,a,a\nx,1,2\n", ":1:3: column name 'a' appears twice"},
  };
  ScratchDir dir("csv_bad");
  const std::string path = dir / "bad.csv";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriteText(path, c.text);
    try {
      ReadCsv(path);
      ADD_FAILURE() << "no error";
    } catch (const ToolError& e) {
      EXPECT_EQ(e.what(), path + c.message);
    }
  }
  EXPECT_THROW(ReadCsv(dir / "absent.csv"), ToolError);
  // A device never ends; a folder is no file.
  for (const std::string& not_a_file : {std::string("/dev/zero"), dir.path().string()}) {
    EXPECT_THROW(ReadCsv(not_a_file), ToolError) << not_a_file;
  }
}

// What spreadsheets export: the separator and decimal mark are found, or forced, and quoted
// cells with separators, doubled quotes and non-ASCII text come through as written.
TEST(CsvTable, DetectsSeparatorAndDecimalMark) {
  using mvda::cli::CsvDialect;
  struct Case {
    const char* name;
    const char* text;
    CsvDialect forced;
    std::vector<std::string> columns;
    std::vector<float> values;
    const char* dialect;
  };
  const Case cases[] = {
      {"semicolons and decimal commas", "n;a;b\nx;1,5;-2\ny;3;4,25E1\n", {}, {"a", "b"},
       {1.5f, -2, 3, 42.5f}, "separator ';' (detected), decimal comma (detected)"},
      {"tabs, and blanks inside a name", "n\tmy a\tb\nx\t1.5\t 2 \n", {}, {"my a", "b"},
       {1.5f, 2}, "separator tab (detected), decimal point (detected)"},
      {"more commas than semicolons in a comma file", "a,b;c,d\n1,2,3\n", {}, {"a", "b;c", "d"},
       {1, 2, 3}, "separator ',' (detected), decimal point (detected)"},
      {"Excel quoting and UTF-8 names", "\"Gr\xC3\xB6\xC3\x9F\xC3\xA9\";\"say \"\"hi\"\"; ok\"\n\"3,5\";7\n",
       {}, {"Gr\xC3\xB6\xC3\x9F\xC3\xA9", "say \"hi\"; ok"}, {3.5f, 7},
       "separator ';' (detected), decimal comma (detected)"},
      {"forced: a comma file with quoted decimal commas", "a,b\n\"1,5\",2\n", {',', ',', false},
       {"a", "b"}, {1.5f, 2}, "separator ',', decimal comma"},
      {"forced semicolon over a detected comma", "a;b,c\n1;2\n", {';', 0, false}, {"a", "b,c"},
       {1, 2}, "separator ';', decimal point (detected)"},
  };
  ScratchDir dir("csv_dialect");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriteText(dir / "t.csv", c.text);
    const CsvTable t = ReadCsv(dir / "t.csv", {}, c.forced);
    EXPECT_EQ(t.columns, c.columns);
    EXPECT_EQ(t.values, c.values);
    EXPECT_EQ(t.dialect, c.dialect);
  }
}

TEST(CsvTable, QuotesOnlyFieldsThatNeedIt) {
  EXPECT_EQ(mvda::cli::CsvField("W001"), "W001");
  EXPECT_EQ(mvda::cli::CsvField("a,b"), "\"a,b\"");
  EXPECT_EQ(mvda::cli::CsvField("say \"hi\""), "\"say \"\"hi\"\"\"");
  EXPECT_EQ(mvda::cli::CsvField(" lead"), "\" lead\"");
}

}  // namespace
