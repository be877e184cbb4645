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
}

// Each fault names the file, and the line and column of the cell where there is one.
TEST(CsvTable, RefusesWhatIsNotData) {
  struct Case {
    const char* name;
    const char* text;
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
       ":2:1: cell '1e39' in column 'a' is beyond single precision (about 3.4e38)"},
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
}

TEST(CsvTable, QuotesOnlyFieldsThatNeedIt) {
  EXPECT_EQ(mvda::cli::CsvField("W001"), "W001");
  EXPECT_EQ(mvda::cli::CsvField("a,b"), "\"a,b\"");
  EXPECT_EQ(mvda::cli::CsvField("say \"hi\""), "\"say \"\"hi\"\"\"");
  EXPECT_EQ(mvda::cli::CsvField(" lead"), "\" lead\"");
}

}  // namespace
