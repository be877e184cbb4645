#include "commands.h"

#include <mvda/platform/stream.h>

#include <ostream>

#include "column_names.h"
#include "console.h"
#include "csv_table.h"
#include "fit_common.h"
#include "output.h"
#include "output_files.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

std::vector<std::string> TextColumns(const std::string& class_column) {
  if (class_column.empty()) return {};
  return {class_column};
}

// Writes the files of one run together, then the results to the terminal: a run that fails or
// is stopped leaves neither a file nor a partial table behind.
template <class Result>
void Finish(const Outputs& out, OutputFiles& files, const Result& result,
            void (*print)(std::ostream&, const Result&),
            nlohmann::ordered_json (*to_json)(const Result&), void (Report::*add)(const Result&),
            const std::string& title, std::ostream& os) {
  if (!out.report.empty()) {
    Report report(title);
    (report.*add)(result);
    files.Write(out.report, report.Html());
  }
  ThrowIfStopped();
  files.CommitAll();
  if (out.json) {
    // Names come in whatever encoding the file had; bytes that are not UTF-8 become U+FFFD
    // rather than an error after the work is done.
    os << to_json(result).dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
       << "\n";
    return;
  }
  print(os, result);
  const std::vector<std::string> written = files.Paths();
  for (std::size_t i = 0; i < written.size(); ++i) {
    os << (i == 0 ? "\nWritten: " : ", ") << written[i];
  }
  if (!written.empty()) os << "\n";
}

// One row per observation: its name, its cluster and, with --class, its class.
std::string MembershipCsv(const ClusterResult& r) {
  const Dataset& d = r.data;
  std::string csv = "name,cluster";
  if (!d.classes.empty()) csv += "," + CsvField(d.class_name);
  csv += "\n";
  for (std::size_t i = 0; i < d.row_names.size(); ++i) {
    csv += CsvField(d.row_names[i]) + "," + std::to_string(r.membership[i]);
    if (!d.classes.empty()) csv += "," + CsvField(d.classes[i]);
    csv += "\n";
  }
  return csv;
}

void RunModel(const ModelOptions& o, std::ostream& os, bool pls) {
  const CsvTable table = ReadCsv(o.file, TextColumns(o.class_column));
  Dataset data = SelectData(table, o.y, o.class_column, o.exclude);
  Note(ClassLikeHint(data));
  const ModelResult result = pls ? FitPls(std::move(data), o.fit) : FitPca(std::move(data), o.fit);
  OutputFiles files;
  if (!o.save.empty()) {
    std::ostream& stream = files.Open(o.save);
    if (!StreamOut(*result.model, stream)) throw ToolError(o.save + ": writing the model failed");
  }
  if (!o.scores.empty()) files.Write(o.scores, ScoresCsv(result, pls));
  if (pls) {
    Finish(o.out, files, result, PrintPls, PlsJson, &Report::AddPls, "mvda: PLS of " + o.file, os);
  } else {
    Finish(o.out, files, result, PrintPca, PcaJson, &Report::AddPca, "mvda: PCA of " + o.file, os);
  }
}

}  // namespace

void RunPca(const ModelOptions& o, std::ostream& os) {
  if (!o.y.empty()) throw ToolError("pca: --y belongs to pls");
  RunModel(o, os, false);
}

void RunPls(const ModelOptions& o, std::ostream& os) {
  if (o.y.empty()) throw ToolError("pls: name the response columns with --y");
  RunModel(o, os, true);
}

void RunPredict(const PredictOptions& o, std::ostream& os) {
  const ModelFile model = LoadModel(o.model);
  const CsvTable table = ReadCsv(o.file, TextColumns(o.class_column));
  if (!o.class_column.empty() && table.Find(o.class_column) < 0) {
    throw ToolError(NoSuchColumn(table.path, table.columns, o.class_column, "--class"));
  }
  const PredictResult result =
      Predict(model, o.model, table, o.max_missing, o.class_column, o.alphas);
  OutputFiles files;
  if (!o.output.empty()) files.Write(o.output, PredictionsCsv(result));
  Finish(o.out, files, result, PrintPredict, PredictJson, &Report::AddPredict,
         "mvda: prediction of " + o.file, os);
}

void RunCluster(const ClusterOptions& o, std::ostream& os) {
  if (!o.output.empty() && o.clusters <= 0) {
    throw ToolError("cluster --output " + o.output + ": say how many clusters with --clusters K");
  }
  const CsvTable table = ReadCsv(o.file, TextColumns(o.class_column));
  Dataset data = SelectData(table, {}, o.class_column, o.exclude);
  Note(ClassLikeHint(data));
  const ClusterResult result = Cluster(std::move(data), o.method, o.scaling, o.cache, o.clusters);
  OutputFiles files;
  if (!o.output.empty()) files.Write(o.output, MembershipCsv(result));
  Finish(o.out, files, result, PrintCluster, ClusterJson, &Report::AddCluster,
         "mvda: cluster analysis of " + o.file, os);
}

void RunChart(const ChartOptions& o, std::ostream& os) {
  const CsvTable table = ReadCsv(o.file);
  const ChartResult result = Chart(table, o.chart);
  OutputFiles files;
  Finish(o.out, files, result, PrintChart, ChartJson, &Report::AddChart,
         "mvda: control chart of " + o.chart.column, os);
}

}  // namespace mvda::cli
