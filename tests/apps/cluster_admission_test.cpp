// Rows that clustering refuses are named the way the user finds them: the file, the line and the
// observation's name, for the host list (single, Ward) and the exact linkages alike.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "run_tool.h"

namespace {

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(text.substr(start, end - start));
  if (start < text.size()) lines.push_back(text.substr(start));
  return lines;
}

TEST(ClusterAdmission, RefusedRowsAreNamedByFileLineAndName) {
  ScratchDir dir("cluster_admission");
  // A blank line and a CRLF line end before the refused row: its line is 5, its index 3.
  WriteText(dir / "sparse.csv", "name,a,b,c,d\nr1,1,2,3,4\n\nr2,2,3,4,5\r\nr3,NA,NA,NA,1\n"
                                "r4,1,1,1,2\n");
  // r2 and r3 have no variable in common; 4 variables need sqrt(4) = 2.
  WriteText(dir / "apart.csv", "name,a,b,c,d\nr1,1,2,3,4\nr2,1.5,2.5,,\nr3,,,3.5,4.5\n"
                               "r4,2,1,2,3\n");
  // Without a names column the observations are numbered from 1 in file order.
  WriteText(dir / "numbered.csv", "a,b,c\n1,2,3\n2,3,1\n-99,-99,4\n");
  struct Case {
    std::string file, message;
  };
  const std::vector<Case> cases = {
      {dir / "sparse.csv",
       "row 5 ('r3'): 3 of its 4 values are missing; clustering needs at least half of them"},
      {dir / "apart.csv",
       "row 3 ('r2') and row 4 ('r3'): have values in common in only 0 of the 4 variables; their "
       "distance needs at least 2 (the square root of the number of variables)"},
      {dir / "numbered.csv",
       "row 4 ('3'): 2 of its 3 values are missing; clustering needs at least half of them"},
  };
  for (const Case& c : cases) {
    for (const char* method : {"single", "ward", "average", "single-exact"}) {
      SCOPED_TRACE(c.file + " --method " + method);
      const ToolRun run = RunTool({"cluster", "--method", method, c.file});
      EXPECT_EQ(run.exit_code, 2);
      EXPECT_EQ(run.out, "");
      const std::vector<std::string> lines = Lines(run.err);
      ASSERT_EQ(lines.size(), 1u) << run.err;
      EXPECT_EQ(lines[0], "mvda: " + c.file + ": " + c.message);
    }
  }
}

}  // namespace
