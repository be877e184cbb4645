// The sub-commands of the tool: what each takes from the command line, and Run, which parses the
// command line, runs one sub-command and turns every failure into one line on stderr and an exit
// code (tool_error.h).
#ifndef MVDA_APPS_MVDA_COMMANDS_H_
#define MVDA_APPS_MVDA_COMMANDS_H_

#include <iosfwd>
#include <string>
#include <vector>

#include "analysis.h"

namespace CLI {
class App;
}

namespace mvda::cli {

struct Outputs {
  bool json = false;   // results as JSON on stdout instead of tables
  std::string report;  // HTML report path, or empty
};

struct ModelOptions {
  std::string file;
  FitSettings fit;
  std::vector<std::string> y;  // PLS responses
  std::string class_column;
  std::vector<std::string> exclude;
  std::string save, scores;
  Outputs out;
};

struct PredictOptions {
  std::string model, file;
  double max_missing = 0.5;
  std::string class_column;
  std::string output;  // CSV of scores and predictions
  // Extra levels of the T² and SPE limits (--alpha), as written.
  std::vector<std::string> alphas;
  Outputs out;
};

struct ClusterOptions {
  std::string file;
  std::string method = "ward";
  std::string scaling = "uv";
  std::string class_column;
  std::vector<std::string> exclude;
  std::string cache;
  int clusters = 0;
  std::string output;  // with clusters: the membership CSV
  Outputs out;
};

struct ChartOptions {
  std::string file;
  ChartSettings chart;
  Outputs out;
};

struct DemoOptions {
  std::string data_dir;
  std::string report = "mvda-demo-report.html";
};

void RunPca(const ModelOptions& o, std::ostream& os);
void RunPls(const ModelOptions& o, std::ostream& os);
void RunPredict(const PredictOptions& o, std::ostream& os);
void RunCluster(const ClusterOptions& o, std::ostream& os);
void RunChart(const ChartOptions& o, std::ostream& os);
void RunDemo(const DemoOptions& o, std::ostream& os);

// The bash completion script for the commands and options defined in `app`.
std::string BashCompletion(const CLI::App& app);

// The whole tool: parses argv, runs the sub-command, prints results to stdout and one line per
// failure to stderr; returns the exit code.
int Run(int argc, char** argv);

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_COMMANDS_H_
