#include <mvda/containers/multi_threading.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <new>

#include <dlfcn.h>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "console.h"
#include "csv_table.h"
#include "fit_common.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

// Library messages may span lines (the cluster admission texts); a failure is one line here.
std::string OneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

#ifndef MVDA_VERSION
#define MVDA_VERSION "unknown"
#endif
#ifndef MVDA_BUILD_TYPE
#define MVDA_BUILD_TYPE "unknown"
#endif

// What a bug report needs: which build of which version, on which BLAS, with how many threads.
std::string VersionText(int threads) {
  using NCMultiThreading::ThreadingControl;
  const int count = threads > 0 ? threads
                    : ThreadingControl::IsThreadingOn() ? ThreadingControl::GetNumberOfProcessors()
                                                        : 1;
  // OpenBLAS describes itself (version, kernel, thread limit); it comes in through the library,
  // so it is looked up rather than linked, and another BLAS is named as unknown.
  using ConfigFunction = char* (*)();
  const auto config =
      reinterpret_cast<ConfigFunction>(::dlsym(RTLD_DEFAULT, "openblas_get_config"));
  const std::string blas = config != nullptr ? config() : "not OpenBLAS (no version known)";
  return std::string("mvda ") + MVDA_VERSION + "\nbuild type: " + MVDA_BUILD_TYPE +
         "\nBLAS: " + blas + "\nthreads: " + std::to_string(count) +
         (threads > 0 ? " (--threads)" : " (default: every processor; --threads N sets it)");
}

std::string MissingFolder(const std::string& path) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  if (folder.empty() || std::filesystem::is_directory(folder)) return std::string();
  return "no folder " + folder.string() + " to write " + path + " in";
}

// An output file whose folder does not exist is refused before the analysis runs, rather than
// found out after it. A relative path may still go under --out, given later on the line: it is
// checked once --out is known (PlaceOutputs).
const CLI::Validator kInExistingFolder(
    [](std::string& path) -> std::string {
      return std::filesystem::path(path).is_relative() ? std::string() : MissingFolder(path);
    },
    "FILE");

// Every file a command writes, by option: relative paths go under --out DIR (made if missing).
void PlaceOutputs(const std::string& out_dir,
                  const std::vector<std::pair<const char*, std::string*>>& outputs) {
  if (!out_dir.empty()) {
    std::error_code error;
    std::filesystem::create_directories(out_dir, error);
    if (error || !std::filesystem::is_directory(out_dir)) {
      throw ToolError("--out " + out_dir + ": cannot make the folder" +
                      (error ? ": " + error.message() : std::string()));
    }
  }
  for (const auto& [option, path] : outputs) {
    if (path->empty()) continue;
    if (!out_dir.empty() && std::filesystem::path(*path).is_relative()) {
      *path = (std::filesystem::path(out_dir) / *path).string();
    }
    const std::string missing = MissingFolder(*path);
    if (!missing.empty()) throw ToolError(std::string(option) + ": " + missing);
  }
}

// How CSV files are read; every command that reads one takes these (csv_table.h).
void AddCsvDialect(CLI::App* app) {
  CsvDialect& d = CsvDefaults();
  app->add_option_function<std::string>(
         "--sep", [&d](const std::string& s) { d.separator = s == "tab" ? '\t' : s[0]; },
         "CSV separator (default: detected)")
      ->check(CLI::IsMember({",", ";", "tab"}));
  app->add_option_function<std::string>(
         "--decimal", [&d](const std::string& s) { d.decimal = s[0]; },
         "Decimal mark of the CSV numbers (default: detected)")
      ->check(CLI::IsMember({".", ","}));
  app->add_flag_callback("--verbose", [&d] { d.verbose = true; }, "Say how each CSV was read");
}

void AddOutputs(CLI::App* app, Outputs& out) {
  AddCsvDialect(app);
  app->add_flag("--json", out.json, "Print the results as JSON instead of tables");
  app->add_option("--report", out.report, "Write an HTML report with pictures to this file")
      ->check(kInExistingFolder);
}

void AddFitOptions(CLI::App* app, ModelOptions& o) {
  app->add_option("file", o.file, "CSV file: a header row, optionally a first column of names")
      ->required();
  app->add_option("--scale", o.fit.scaling, "Scaling of every variable")
      ->check(CLI::IsMember({"none", "center", "pareto", "uv"}))
      ->capture_default_str();
  app->add_option("--groups", o.fit.groups, "Cross-validation groups")
      ->check(CLI::Range(2, 100000))
      ->capture_default_str();
  app->add_option("--components", o.fit.components,
                  "Fit exactly this many components (default: until one is not significant)")
      ->check(CLI::Range(1, 100000));
  app->add_option("--max-iter", o.fit.max_iterations, "NIPALS iterations per component")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
  app->add_option("--class", o.class_column, "Column of classes that colour the score plot");
  app->add_option("--exclude", o.exclude, "Columns to leave out (comma-separated)")->delimiter(',');
  app->add_option("--save", o.save, "Save the scaling and the model to this file")
      ->check(kInExistingFolder);
  app->add_option("--scores", o.scores, "Write scores and loadings to this CSV file")
      ->check(kInExistingFolder);
  app->add_option("--alpha", o.fit.alphas, "Extra level of the T2 and SPE limits, e.g. 0.9")
      ->delimiter(',');
  AddOutputs(app, o.out);
}

}  // namespace

int Run(int argc, char** argv) {
  CLI::App app{
      "mvda: multivariate data analysis of CSV files (PCA, PLS, prediction, clustering, "
      "control charts)"};
  app.require_subcommand(0, 1);
  // The options of the tool as a whole are taken before or after the command name.
  app.fallthrough();
  app.footer(
      "CSV files: a header row of variable names; a first column of observation names when its "
      "header cell is empty or it holds text; missing values are empty cells, NA or -99. Column "
      "names are matched exactly, else ignoring letter case.\n"
      "Exit codes: 0 done; 2 bad input or options (one line on stderr); 130 stopped with "
      "Ctrl-C (no output written); 1 internal failure.");
  int threads = 0;
  // Taken as soon as it is parsed, so that --version after it reports the count.
  app.add_option("--threads", threads, "Processors to use (default: all)")
      ->check(CLI::Range(1, 4096))
      ->trigger_on_parse();
  bool progress = false, quiet = false;
  app.add_flag("--progress", progress,
               "Show the progress bar on stderr even when it is not a terminal");
  app.add_flag("--quiet", quiet, "No progress bar and no hints on stderr (errors still show)");
  std::string out_dir;
  app.add_option("--out", out_dir,
                 "Folder for every file the command writes (relative paths go there; made if "
                 "missing)");
  app.set_version_flag("--version", [&threads] { return VersionText(threads); },
                       "Version, build type, BLAS and thread count");

  ModelOptions pca_options, pls_options;
  CLI::App* pca = app.add_subcommand("pca", "Principal component analysis with cross-validation");
  AddFitOptions(pca, pca_options);

  CLI::App* pls = app.add_subcommand("pls", "Partial least squares regression of Y on X");
  AddFitOptions(pls, pls_options);
  pls->add_option("--y", pls_options.y, "Response columns (comma-separated)")
      ->required()
      ->delimiter(',');

  PredictOptions predict_options;
  CLI::App* predict = app.add_subcommand("predict", "Score new observations with a saved model");
  predict->add_option("model", predict_options.model, "Model file (pca or pls --save)")->required();
  predict->add_option("file", predict_options.file, "CSV file with the model's variables")
      ->required();
  predict
      ->add_option("--max-missing", predict_options.max_missing,
                   "Largest share of missing values a row may have and still be scored")
      ->check(CLI::Range(0.0, 1.0))
      ->capture_default_str();
  predict->add_option("--class", predict_options.class_column, "Column of classes for the plot");
  predict->add_option("--output", predict_options.output, "Write scores and predictions as CSV")
      ->check(kInExistingFolder);
  predict
      ->add_option("--alpha", predict_options.alphas,
                   "Extra level of the T2 and SPE limits, e.g. 0.9")
      ->delimiter(',');
  AddOutputs(predict, predict_options.out);

  ClusterOptions cluster_options;
  CLI::App* cluster = app.add_subcommand("cluster", "Hierarchical clustering of the observations");
  cluster->add_option("file", cluster_options.file, "CSV file")->required();
  cluster->add_option("--method", cluster_options.method, "Merge criterion")
      ->check(CLI::IsMember({"ward", "ward-sqrt", "single", "ward-exact", "average", "complete",
                             "weighted", "single-exact"}))
      ->capture_default_str();
  cluster->add_option("--scale", cluster_options.scaling, "Scaling of every variable")
      ->check(CLI::IsMember({"none", "center", "pareto", "uv"}))
      ->capture_default_str();
  cluster->add_option("--class", cluster_options.class_column, "Column of classes for the plot");
  cluster->add_option("--exclude", cluster_options.exclude, "Columns to leave out")->delimiter(',');
  cluster->add_option("--cache", cluster_options.cache, "Folder that keeps computed dendrograms");
  cluster
      ->add_option("--clusters", cluster_options.clusters, "Cut the tree into this many clusters")
      ->check(CLI::Range(1, 1000000));
  cluster->add_option("--output", cluster_options.output,
                      "With --clusters: write each observation's cluster (and class) as CSV")
      ->check(kInExistingFolder);
  AddOutputs(cluster, cluster_options.out);

  ChartOptions chart_options;
  ChartSettings& c = chart_options.chart;
  CLI::App* chart = app.add_subcommand("chart", "Control chart of one column");
  chart->add_option("file", chart_options.file, "CSV file, one row per measurement in time order")
      ->required();
  chart->add_option("--column", c.column, "The measured variable")->required();
  chart->add_option("--type", c.type, "Chart type")
      ->check(CLI::IsMember({"individual", "mean-range", "mean-stddev", "cusum", "ewma"}))
      ->capture_default_str();
  chart
      ->add_option("--subgroup", c.subgroup,
                   "Values per subgroup (default 1 for individual, else 5)")
      ->check(CLI::Range(1, 1000000));
  chart->add_option("--baseline", c.baseline, "Subgroups that set the limits (default: all)")
      ->check(CLI::Range(1, 100000000));
  chart->add_option("--target", c.target, "Target (default: the mean of the baseline)");
  chart->add_option("--sigma", c.sigma, "Process standard deviation (default: estimated)")
      ->check(CLI::PositiveNumber);
  chart->add_option("--lambda", c.lambda, "EWMA weight in (0, 1] (default: estimated)")
      ->check(CLI::Range(1e-6, 1.0));
  AddOutputs(chart, chart_options.out);

  DemoOptions demo_options;
  CLI::App* demo = app.add_subcommand("demo", "All of the above on the embedded datasets");
  demo->add_option("--data", demo_options.data_dir, "Folder of the embedded datasets");
  demo->add_option("--report", demo_options.report, "Where to write the report")
      ->check(kInExistingFolder)
      ->capture_default_str();

  CLI::App* completion = app.add_subcommand("completion", "Shell completion script");
  completion->group("");  // hidden: `source <(mvda completion bash)`
  std::string shell;
  completion->add_option("shell", shell, "bash")->required()->check(CLI::IsMember({"bash"}));

  for (CLI::App* command : app.get_subcommands({})) command->fallthrough();

  try {
    app.parse(argc, argv);
    if (app.get_subcommands().empty()) {
      throw CLI::ParseError("name a command: pca, pls, predict, cluster, chart or demo",
                            kExitBadInput);
    }
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    std::cerr << "mvda: " << OneLine(e.what()) << " (see mvda --help)\n";
    return kExitBadInput;
  }

  try {
    if (completion->parsed()) {
      std::cout << BashCompletion(app);
      return kExitOk;
    }
    SetUpConsole(progress, quiet);
    PlaceOutputs(out_dir, {{"--save", &pca_options.save},
                           {"--scores", &pca_options.scores},
                           {"--report", &pca_options.out.report},
                           {"--save", &pls_options.save},
                           {"--scores", &pls_options.scores},
                           {"--report", &pls_options.out.report},
                           {"--output", &predict_options.output},
                           {"--report", &predict_options.out.report},
                           {"--output", &cluster_options.output},
                           {"--report", &cluster_options.out.report},
                           {"--report", &chart_options.out.report},
                           {"--report", &demo_options.report}});
    if (threads > 0) {
      NCMultiThreading::ThreadingControl::SetNumberOfProcessors(threads);
      NCMultiThreading::ThreadingControl::SetThreadingIsOn(threads > 1);
    }
    if (pca->parsed()) RunPca(pca_options, std::cout);
    if (pls->parsed()) RunPls(pls_options, std::cout);
    if (predict->parsed()) RunPredict(predict_options, std::cout);
    if (cluster->parsed()) RunCluster(cluster_options, std::cout);
    if (chart->parsed()) RunChart(chart_options, std::cout);
    if (demo->parsed()) RunDemo(demo_options, std::cout);
    std::cout.flush();
    return kExitOk;
  } catch (...) {
    // A stop shows up as whatever the computation was doing when it saw the request.
    if (StopRequested()) {
      std::cerr << "mvda: stopped (Ctrl-C); no output written\n";
      return kExitStopped;
    }
    try {
      throw;
    } catch (const ToolError& e) {
      std::cerr << "mvda: " << OneLine(e.what()) << "\n";
      return kExitBadInput;
    } catch (const NCError& e) {
      // The library's own messages are about the data it was given.
      std::cerr << "mvda: " << OneLine(e.what()) << "\n";
      return kExitBadInput;
    } catch (const std::bad_alloc&) {
      std::cerr << "mvda: out of memory\n";
      return kExitFailure;
    } catch (const std::exception& e) {
      std::cerr << "mvda: internal error: " << OneLine(e.what()) << "\n";
      return kExitFailure;
    }
  }
}

}  // namespace mvda::cli
