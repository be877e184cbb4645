// Shared by the tool's end-to-end suites: a run whose JSON output is the result, and the path of a
// file in the project's data/ folder.
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

#endif  // MVDA_TESTS_APPS_TOOL_JSON_H_
