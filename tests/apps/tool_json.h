// Shared by the tool's end-to-end suites: a run whose JSON output is the result, the path of a
// file in the project's data/ folder, and numeric columns of a CSV the tool wrote.
#ifndef MVDA_TESTS_APPS_TOOL_JSON_H_
#define MVDA_TESTS_APPS_TOOL_JSON_H_

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "run_tool.h"
#include "support/csv.h"  // DataDir()

using Json = nlohmann::json;

// Runs the tool, expects exit code 0 (the failure shows stderr) and parses stdout.
inline Json RunJson(const std::vector<std::string>& args) {
  const ToolRun run = RunTool(args);
  EXPECT_EQ(run.exit_code, 0) << run.err;
  return Json::parse(run.out);
}

inline std::string Data(const std::string& name) { return DataDir() + "/" + name; }

using Columns = std::vector<std::vector<double>>;  // column by column

// The named columns of a table read back from the tool's output, as numbers.
inline Columns NumericColumns(const CsvTable& t, const std::vector<std::string>& names) {
  Columns out;
  for (const std::string& name : names) {
    std::vector<double> c;
    for (std::size_t i = 0; i < t.rows.size(); ++i) c.push_back(t.Number(i, t.Column(name)));
    out.push_back(c);
  }
  return out;
}

#endif  // MVDA_TESTS_APPS_TOOL_JSON_H_
