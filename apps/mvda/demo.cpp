#include <mvda/platform/stream.h>
#include <mvda/platform/temp_file.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <ostream>

#include "commands.h"
#include "fit_common.h"
#include "model_file.h"
#include "output.h"
#include "output_files.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

namespace fs = std::filesystem;

bool HasData(const fs::path& dir) {
  std::error_code ignored;
  return fs::exists(dir / "wine.csv", ignored);
}

// --data, then $MVDA_DATA_DIR, then the source tree the tool was built from, then the data
// installed beside the tool (<prefix>/share/mvda/data).
fs::path DataDir(const std::string& given) {
  if (!given.empty()) {
    if (!HasData(given)) throw ToolError("--data " + given + ": no wine.csv there");
    return given;
  }
  if (const char* env = std::getenv("MVDA_DATA_DIR"); env && HasData(env)) return env;
  if (HasData(MVDA_SOURCE_DATA_DIR)) return MVDA_SOURCE_DATA_DIR;
  std::error_code error;
  const fs::path exe = fs::read_symlink("/proc/self/exe", error);
  if (!error) {
    const fs::path installed = exe.parent_path().parent_path() / "share" / "mvda" / "data";
    if (HasData(installed)) return installed;
  }
  throw ToolError("demo: the embedded datasets were not found; name their folder with --data");
}

// Removes the demo's model file on every path out.
struct RemoveOnExit {
  fs::path path;
  ~RemoveOnExit() {
    std::error_code ignored;
    fs::remove(path, ignored);
  }
};

// Rows first..last (0-based, last excluded) of a table, as a table of their own.
CsvTable Rows(const CsvTable& t, int first, int last) {
  CsvTable out = t;
  const std::size_t width = t.columns.size();
  out.row_names.assign(t.row_names.begin() + first, t.row_names.begin() + last);
  out.values.assign(t.values.begin() + static_cast<std::ptrdiff_t>(width) * first,
                    t.values.begin() + static_cast<std::ptrdiff_t>(width) * last);
  for (auto& column : out.text) {
    if (!column.empty()) column.assign(column.begin() + first, column.begin() + last);
  }
  return out;
}

void Rule(std::ostream& os, const std::string& title) {
  os << "\n== " << title << " " << std::string(title.size() < 70 ? 70 - title.size() : 3, '=')
     << "\n\n";
}

}  // namespace

void RunDemo(const DemoOptions& o, std::ostream& os) {
  const fs::path data = DataDir(o.data_dir);
  const std::string wine = (data / "wine.csv").string();
  const std::string diabetes = (data / "diabetes.csv").string();
  const std::string filling = (data / "filling.csv").string();
  Report report("mvda demo: the embedded datasets");

  Rule(os, "PCA: wine, 13 chemical measurements of 178 wines from 3 cultivars");
  const CsvTable wine_table = ReadCsv(wine, {"Cultivar"});
  const ModelResult pca = FitPca(SelectData(wine_table, {}, "Cultivar", {}), FitSettings{});
  PrintPca(os, pca);
  report.AddPca(pca);

  Rule(os, "Clustering: wine, Ward's method, cut into 3 clusters");
  const ClusterResult cluster =
      Cluster(SelectData(wine_table, {}, "Cultivar", {}), "ward", "uv", "", 3);
  os << "Cluster analysis of " << wine << ": " << cluster.merges.size()
     << " merges (the full merge table and dendrogram: mvda cluster FILE)\n  Cultivar per cluster:";
  for (int c = 1; c <= 3; ++c) {
    std::map<std::string, int> counts;
    for (std::size_t i = 0; i < cluster.membership.size(); ++i) {
      if (cluster.membership[i] == c)
        ++counts[wine_table.text[static_cast<std::size_t>(wine_table.Find("Cultivar"))][i]];
    }
    os << "\n    cluster " << c << ":";
    for (const auto& [cultivar, count] : counts)
      os << " " << count << " of cultivar " << cultivar << ";";
  }
  os << "\n";
  report.AddCluster(cluster);

  Rule(os, "PLS: diabetes, disease progression of 442 patients from 10 baseline measurements");
  const CsvTable diabetes_table = ReadCsv(diabetes);
  const ModelResult pls =
      FitPls(SelectData(diabetes_table, {"Progression"}, "", {}), FitSettings{});
  PrintPls(os, pls);
  report.AddPls(pls);

  // A prediction shows new observations against the training limits, so the model that is
  // saved is fitted on the first patients only and predicts the others.
  constexpr int kTraining = 342;
  Rule(os, "Prediction: a PLS model of the first " + std::to_string(kTraining) +
               " patients, saved, read back and applied to the other " +
               std::to_string(diabetes_table.Rows() - kTraining));
  {
    const ModelResult first = FitPls(
        SelectData(Rows(diabetes_table, 0, kTraining), {"Progression"}, "", {}), FitSettings{});
    first.model->source = diabetes + " (rows 1-" + std::to_string(kTraining) + ")";
    const RemoveOnExit model_file{TwGetTempFileName("mvda-demo-", "mvda")};
    const std::string model_path = model_file.path.string();
    {
      OutputFiles files;
      if (!StreamOut(*first.model, files.Open(model_path))) throw ToolError("demo: saving failed");
      files.CommitAll();
    }
    const PredictResult predicted =
        Predict(LoadModel(model_path), "diabetes-first-" + std::to_string(kTraining) + ".mvda",
                Rows(diabetes_table, kTraining, diabetes_table.Rows()), 0.5, "");
    os << "Model of " << kTraining << " patients: " << first.components << " components, RMSECV "
       << first.rmsecv.at(0) << "\n"
       << predicted.row_names.size() << " other patients predicted: RMSEP " << predicted.rmsep.at(0)
       << ", R2 of prediction " << predicted.r2_prediction.at(0)
       << "\nBeyond the training set's 99% limits of T2 or SPE:";
    const std::vector<std::size_t> out = predicted.diagnostics.Beyond99();
    for (const std::size_t i : out) os << " " << predicted.row_names[i];
    os << (out.empty() ? " none\n" : "\n");
    report.AddPredict(predicted);
  }

  Rule(os, "Control charts: fill weight of a simulated filling line, shifted after fill 150");
  ChartSettings settings;
  settings.column = "Weight";
  settings.type = "mean-range";
  settings.subgroup = 5;
  settings.baseline = 30;
  const CsvTable filling_table = ReadCsv(filling);
  const ChartResult shewhart = Chart(filling_table, settings);
  PrintChart(os, shewhart);
  report.AddChart(shewhart);
  settings.type = "cusum";
  const ChartResult cusum = Chart(filling_table, settings);
  os << "\n";
  PrintChart(os, cusum);
  report.AddChart(cusum);

  OutputFiles files;
  files.Write(o.report, report.Html());
  ThrowIfStopped();
  files.CommitAll();
  os << "\nReport: " << fs::absolute(o.report).string() << "\n";
}

}  // namespace mvda::cli
