// What a user who gets something wrong sees: one line on stderr naming the place and the fault,
// exit code 2, nothing on stdout and no file written; and Ctrl-C, which ends a long fit with exit
// code 130 and leaves nothing behind.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "run_tool.h"
#include "support/csv.h"  // DataDir()

namespace {

namespace fs = std::filesystem;

std::vector<std::string> FilesIn(const fs::path& dir) {
  std::vector<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

TEST(BadInput, OneLineOnStderrExitCodeTwoAndNoFiles) {
  ScratchDir dir("bad");
  WriteText(dir / "empty.csv", "");
  WriteText(dir / "ragged.csv", "id,a,b\nx,1,2\ny,3\n");
  WriteText(dir / "text.csv", "id,a,b\nx,1,2\ny,3,4\nz,oops,5\n");
  WriteText(dir / "constant.csv", "id,a,b\nx,1,2\ny,1,3\nz,1,5\nw,1,4\n");
  const std::string wine = DataDir() + "/wine.csv", diabetes = DataDir() + "/diabetes.csv";
  // A dendrogram cache entry is a file of the library's stream format, but not a model.
  ASSERT_EQ(RunTool({"cluster", wine, "--cache", dir / "cache", "--json"}).exit_code, 0);
  const std::string dendrogram = (dir.path() / "cache" / FilesIn(dir.path() / "cache")[0]).string();
  const std::vector<std::string> before = FilesIn(dir.path());
  const std::string nowhere = dir / "nowhere";

  struct Case {
    const char* name;
    std::vector<std::string> args;
    std::string message;  // the whole line after "mvda: ", or its start when it ends in "..."
  };
  const std::vector<Case> cases = {
      {"missing file",
       {"pca", dir / "absent.csv"},
       dir / "absent.csv" + ": cannot open: No such file or directory"},
      {"empty file",
       {"pca", dir / "empty.csv"},
       dir / "empty.csv" + ": the file is empty (expected a header row of variable names)"},
      {"ragged row",
       {"pca", dir / "ragged.csv"},
       dir / "ragged.csv" + ":3: row has 2 cells where the header has 3"},
      {"non-numeric cell",
       {"pca", dir / "text.csv"},
       dir / "text.csv" +
           ":4:2: cell 'oops' in column 'a' is not a number (missing values are empty, NA or -99)"},
      {"unknown Y column",
       {"pls", diabetes, "--y", "Progresion"},
       diabetes + ": no column 'Progresion' (--y); did you mean 'Progression'? The 11 columns "
                  "are: 'Age', 'Sex', 'BMI', 'BP', 'TC', 'LDL', 'HDL', 'TCH', 'LTG', 'GLU', "
                  "'Progression'"},
      {"CSV file given as a model",
       {"predict", wine, wine},
       wine + ": not an mvda model file (save one with pca or pls --save)"},
      {"dendrogram given as a model",
       {"predict", dendrogram, wine},
       dendrogram + ": not an mvda model file (save one with pca or pls --save)"},
      {"constant column",
       {"pca", dir / "constant.csv"},
       dir / "constant.csv" + ": column 'a': The variable has no variation and cannot be scaled "
                              "(leave it out with --exclude)"},
      {"unknown option value",
       {"pca", wine, "--scale", "log"},
       "--scale: log not in {none,center,pareto,uv} (see mvda --help)"},
      {"report into a folder that does not exist",
       {"pca", wine, "--report", nowhere + "/r.html"},
       "--report: no folder " + nowhere + " to write " + nowhere + "/r.html in (see mvda --help)"},
      {"subgroups of one for a mean chart",
       {"chart", wine, "--column", "Ash", "--type", "mean-range", "--subgroup", "1"},
       "--subgroup 1: mean-range charts need subgroups of 2 to 25 values"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> args = c.args;
    // Every run also asks for files, which must not appear.
    if (args[0] == "pca" || args[0] == "pls") {
      args.insert(args.end(), {"--save", dir / "model.mvda", "--scores", dir / "scores.csv"});
    }
    args.insert(args.end(), {"--report", dir / "report.html"});
    const ToolRun run = RunTool(args);
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "mvda: " + c.message + "\n");
    EXPECT_EQ(FilesIn(dir.path()), before);
  }
}

// A fit of 20 components with cross-validation on 4000 x 300 values takes seconds; Ctrl-C after
// one second stops it through the library's stop request.
TEST(BadInput, CtrlCStopsCleanlyAndWritesNothing) {
  ScratchDir dir("interrupt");
  std::mt19937 gen(3);
  std::normal_distribution<double> normal(0, 1);
  std::string csv = "id";
  for (int j = 1; j <= 300; ++j) csv += ",v" + std::to_string(j);
  csv += "\n";
  for (int i = 1; i <= 4000; ++i) {
    const double t1 = 3 * normal(gen), t2 = 2 * normal(gen);
    csv += "o" + std::to_string(i);
    for (int j = 1; j <= 300; ++j) {
      csv += "," + std::to_string(t1 * std::sin(j) + t2 * std::cos(j) + normal(gen));
    }
    csv += "\n";
  }
  WriteText(dir / "big.csv", csv);
  const ToolRun run = RunProgram({MVDA_CLI_EXE, "pca", dir / "big.csv", "--components", "20",
                                  "--save", dir / "big.mvda", "--report", dir / "big.html"},
                                 120, 1.0);
  EXPECT_EQ(run.exit_code, 130);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "mvda: stopped (Ctrl-C); no output written\n");
  EXPECT_EQ(FilesIn(dir.path()), std::vector<std::string>{"big.csv"});
}

}  // namespace
