// What a user who gets something wrong sees: one line on stderr naming the place and the fault,
// exit code 2, nothing on stdout and no file written; and Ctrl-C, which ends a long fit with exit
// code 130 and leaves nothing behind.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <cmath>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "model_file.h"
#include "run_tool.h"
#include "tool_error.h"
#include <mvda/platform/md5.h>
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

// Ctrl-C while the fit is under way (the third component has begun, with seventeen and the
// cross-validation to go; a fifth of the values are missing, so the fit takes the slower path)
// stops it through the library's stop request. The signal follows the progress text rather than
// a clock: a clock races against a fit that gets faster.
TEST(BadInput, CtrlCStopsCleanlyAndWritesNothing) {
  ScratchDir dir("interrupt");
  std::mt19937 gen(3);
  std::normal_distribution<double> normal(0, 1);
  std::uniform_real_distribution<double> uniform(0, 1);
  std::string csv = "id";
  for (int j = 1; j <= 300; ++j) csv += ",v" + std::to_string(j);
  csv += "\n";
  for (int i = 1; i <= 4000; ++i) {
    const double t1 = 3 * normal(gen), t2 = 2 * normal(gen);
    csv += "o" + std::to_string(i);
    for (int j = 1; j <= 300; ++j) {
      const double value = t1 * std::sin(j) + t2 * std::cos(j) + normal(gen);
      csv += uniform(gen) < 0.2 ? std::string(",") : "," + std::to_string(value);
    }
    csv += "\n";
  }
  WriteText(dir / "big.csv", csv);
  const ToolRun run = RunProgramUntil({MVDA_CLI_EXE, "pca", dir / "big.csv", "--components",
                                       "20", "--progress", "--save", dir / "big.mvda", "--report",
                                       dir / "big.html"},
                                      "principal component 3 ", 60);
  const std::string stopped = "mvda: stopped (Ctrl-C); no output written\n";
  EXPECT_EQ(run.exit_code, 130);
  EXPECT_EQ(run.out, "");
  ASSERT_GE(run.err.size(), stopped.size()) << run.err;
  EXPECT_EQ(run.err.substr(run.err.size() - stopped.size()), stopped);
  EXPECT_EQ(FilesIn(dir.path()), std::vector<std::string>{"big.csv"});
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

// The message ParseModel throws for `bytes`, or "" when it reads them.
std::string ParseError(const std::string& bytes) {
  try {
    mvda::cli::ParseModel("m", bytes);
  } catch (const mvda::cli::ToolError& e) {
    return e.what();
  }
  return "";
}

// The version-1 framing of a version-2 file: no checksum trailer, version field 1.
std::string AsVersion1(std::string bytes) {
  bytes.resize(bytes.size() - 40);
  const std::int32_t one = 1;
  std::memcpy(&bytes[4 + 9], &one, 4);  // after the magic's length and "MVDAModel"
  return bytes;
}

std::string Replace(std::string bytes, const void* from, const void* to, std::size_t n) {
  const std::size_t at = bytes.find(std::string(static_cast<const char*>(from), n));
  EXPECT_NE(at, std::string::npos);
  if (at != std::string::npos) bytes.replace(at, n, static_cast<const char*>(to), n);
  return bytes;
}

// A model file is read whole or refused: every truncation and every flipped byte is caught by
// the checksum, version-1 files still read, values that pass the checksum of an older file but
// would give silent gaps are refused, and the file reads the same through a pipe.
TEST(BadInput, DamagedModelFilesAreRefusedAndPipesRead) {
  ScratchDir dir("model");
  const std::string diabetes = DataDir() + "/diabetes.csv", wine = DataDir() + "/wine.csv";
  const std::string pls = dir / "pls.mvda", pca = dir / "pca.mvda";
  ASSERT_EQ(RunTool({"pls", diabetes, "--y", "Progression", "--save", pls}).exit_code, 0);
  ASSERT_EQ(RunTool({"pca", wine, "--max-iter", "4321", "--save", pca}).exit_code, 0);
  const std::string good = Slurp(pls);
  EXPECT_EQ(ParseError(good), "");
  EXPECT_EQ(ParseError(AsVersion1(good)), "");

  // Every byte of the head and the tail (record, directory, trailer), a stride in between.
  const std::size_t stride = std::max<std::size_t>(1, good.size() / 400);
  for (std::size_t n = 0; n < good.size(); n += (n < 200 || n + 200 > good.size()) ? 1 : stride) {
    ASSERT_NE(ParseError(good.substr(0, n)), "") << "truncated to " << n << " bytes";
    std::string flipped = good;
    flipped[n] = static_cast<char>(flipped[n] ^ (1 << (n % 8)));
    ASSERT_NE(ParseError(flipped), "") << "byte " << n << " flipped";
  }
  std::string edited = good;
  edited[good.size() / 2] ^= 0x10;
  EXPECT_EQ(ParseError(edited),
            "m: the checksum does not match: the model file is damaged or was edited");

  std::string newer = good;
  const std::int32_t three = 3;
  std::memcpy(&newer[13], &three, 4);
  EXPECT_EQ(ParseError(newer),
            "m: model file version 3 is newer than this tool, which reads versions 1 to 2");

  // Edits a checksum cannot see: a version-1 file, or a version-2 file signed again.
  const mvda::cli::ModelFile model = mvda::cli::ParseModel("m", good);
  const float mean = model.y_scale.GetMean()[1], nan = std::nanf("");
  const std::string nan_y = Replace(AsVersion1(good), &mean, &nan, 4);
  EXPECT_EQ(ParseError(nan_y),
            "m: the Y scaling holds a value that is not finite; the model file is damaged");
  MD5 resigned;
  resigned.Update(nan_y.substr(0, 13) + std::string("\x02\0\0\0", 4) + nan_y.substr(17));
  std::string v2 = nan_y;
  std::memcpy(&v2[13], "\x02\0\0\0", 4);
  EXPECT_EQ(ParseError(v2 + "MVDAsum:" + resigned.HexDigest()),
            "m: the Y scaling holds a value that is not finite; the model file is damaged");
  const std::int32_t limit = 4321, negative = -5;
  EXPECT_EQ(ParseError(Replace(AsVersion1(Slurp(pca)), &limit, &negative, 4)),
            "m: the iteration limit is -5; the model file is damaged");

  // Through a pipe and a FIFO, the same prediction as from the file.
  const ToolRun direct = RunTool({"predict", pls, diabetes, "--json"});
  ASSERT_EQ(direct.exit_code, 0);
  const ToolRun piped = RunProgram(
      {"/bin/bash", "-c", std::string(MVDA_CLI_EXE) + " predict <(cat \"$0\") \"$1\" --json",
       pls, diabetes});
  EXPECT_EQ(piped.exit_code, 0) << piped.err;
  const ToolRun stdin_run = RunProgram(
      {"/bin/bash", "-c", std::string(MVDA_CLI_EXE) + " predict /dev/stdin \"$1\" --json < \"$0\"",
       pls, diabetes});
  EXPECT_EQ(stdin_run.exit_code, 0) << stdin_run.err;
  // The model path is part of the output; everything else must agree.
  const auto without_path = [](std::string text) {
    const std::size_t at = text.find("\"model\"");
    if (at != std::string::npos) text.erase(at, text.find('\n', at) - at);
    return text;
  };
  EXPECT_EQ(without_path(piped.out), without_path(direct.out));
  EXPECT_EQ(without_path(stdin_run.out), without_path(direct.out));
}

// Every command given a hostile CSV: one line on stderr that names the file, exit code 2, nothing
// on stdout, no file written, whatever the command.
TEST(BadInput, HostileCsvFilesGiveOneLineForEveryCommand) {
  ScratchDir dir("hostile");
  std::string wide = "a";
  for (int j = 1; j < 1000000; ++j) wide += ",v" + std::to_string(j);
  const std::vector<std::pair<std::string, std::string>> files = {
      {"empty.csv", ""},
      {"header_only.csv", "a,b,c\r\n"},
      {"ragged.csv", "a,b\n1,2\n3\n"},
      {"binary.csv", std::string("a,b\n\x7f" "ELF\x02\x01\x01\0\0\0", 14)},
      {"nan.csv", "a,b\n1,NaN\n2,3\n4,5\n"},
      {"inf.csv", "a,b\n1,-inf\n2,3\n4,5\n"},
      {"huge.csv", "a,b\n1,1e400\n2,3\n4,5\n"},
      {"tiny.csv", "a,b\n1,1e-400\n2,3\n4,5\n"},
      {"overflowing.csv", "a,b\n1,3e38\n2,-3e38\n4,5\n"},
      {"duplicate.csv", "\xEF\xBB\xBFn,a,a\r\nx,1,2\r\ny,2,3\r\nz,4,4\r\n"},
      {"all_missing.csv", "a,b,c\n1,,2\n2,NA,3\n3,-99,5\n4,,1\n"},
      {"unclosed.csv", "a,b\n1,\"2\n3,4\n5,6\n"},
      {"wide.csv", wide + "\n1,2\n"},
  };
  for (const auto& [name, text] : files) WriteText(dir / name, text);
  const std::vector<std::string> before = FilesIn(dir.path());
  std::vector<std::string> inputs;
  for (const auto& file : files) inputs.push_back(dir / file.first);
  inputs.push_back(dir.path().string());  // a folder
  inputs.push_back("/dev/zero");
  for (const std::string& input : inputs) {
    for (const std::vector<std::string>& command :
         {std::vector<std::string>{"pca", input, "--save", dir / "m.mvda"},
          std::vector<std::string>{"cluster", input, "--cache", dir / "cache"},
          std::vector<std::string>{"chart", input, "--column", "b"}}) {
      // The 10^6-column header costs seconds a run; one command shows it.
      if (input == dir / "wide.csv" && command[0] != "pca") continue;
      SCOPED_TRACE(command[0] + " " + input);
      std::vector<std::string> args = command;
      args.insert(args.end(), {"--report", dir / "r.html"});
      const ToolRun run = RunTool(args, 60);
      EXPECT_EQ(run.exit_code, 2) << run.err;
      EXPECT_EQ(run.out, "");
      EXPECT_EQ(run.err.rfind("mvda: " + input, 0), 0u) << run.err;
      EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
      EXPECT_EQ(FilesIn(dir.path()), before);
    }
  }
}

}  // namespace
