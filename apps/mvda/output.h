// How the tool shows its results: text tables for a person at a terminal (text_output.cpp),
// JSON for scripts (json_output.cpp), CSV files of scores and loadings, and the HTML report with
// its SVG pictures (report.cpp, svg.cpp).
#ifndef MVDA_APPS_MVDA_OUTPUT_H_
#define MVDA_APPS_MVDA_OUTPUT_H_

#include <iosfwd>
#include <string>

#include <nlohmann/json.hpp>

#include "analysis.h"

namespace mvda::cli {

// --- Text (numbers to 3 decimals; "-" where a value is missing)
void PrintPca(std::ostream& os, const ModelResult& r);
void PrintPls(std::ostream& os, const ModelResult& r);
void PrintPredict(std::ostream& os, const PredictResult& r);
void PrintCluster(std::ostream& os, const ClusterResult& r);
void PrintChart(std::ostream& os, const ChartResult& r);

// --- JSON: every number in full precision, null where missing
nlohmann::ordered_json PcaJson(const ModelResult& r);
nlohmann::ordered_json PlsJson(const ModelResult& r);
nlohmann::ordered_json PredictJson(const PredictResult& r);
nlohmann::ordered_json ClusterJson(const ClusterResult& r);
nlohmann::ordered_json ChartJson(const ChartResult& r);

// --- CSV of scores and loadings (--scores): one table with a Type column (score, loading,
// weight for PLS's W*, yweight for C) and a Name column, then one column per component.
std::string ScoresCsv(const ModelResult& r, bool pls);
std::string PredictionsCsv(const PredictResult& r);

// --- The HTML report: one self-contained page of sections, each with its SVG pictures.
class Report {
 public:
  explicit Report(std::string title);
  void AddPca(const ModelResult& r);
  void AddPls(const ModelResult& r);
  void AddPredict(const PredictResult& r);
  void AddCluster(const ClusterResult& r);
  void AddChart(const ChartResult& r);
  std::string Html() const;

 private:
  std::string title_;
  std::string body_;
};

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_OUTPUT_H_
