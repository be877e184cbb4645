// The tool as a newcomer meets it, run as a real process: names typed loosely or wrongly, a class
// code left among the measurements, cluster output by name with its membership file, --version,
// the progress bar into a pipe, Ctrl-C in the middle of a long fit, --out, and bash completion.
// GCC 12 at -O2 with the sanitizers warns about std::function members inside <regex>'s own
// automaton (maybe-uninitialized, a false positive in the library's code, not in this file).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <numeric>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "run_tool.h"
#include "tool_json.h"
#include "support/csv.h"  // ReadCsv(name) of data/, DataDir(), SplitCsvLine

namespace {

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// A bad name: exit 2, one line on stderr that names the option, offers the intended column and
// lists every column of the file (read here independently), nothing on stdout.
void ExpectNameError(const ToolRun& run, const std::string& option, const std::string& meant,
                     const std::vector<std::string>& columns) {
  EXPECT_EQ(run.exit_code, 2) << run.err;
  EXPECT_TRUE(run.out.empty()) << run.out;
  ASSERT_EQ(Lines(run.err).size(), 1u) << run.err;
  EXPECT_NE(run.err.find("(" + option + ")"), std::string::npos) << run.err;
  const std::size_t offer = run.err.find("did you mean");
  ASSERT_NE(offer, std::string::npos) << run.err;
  const std::size_t list = run.err.find("columns are:");
  ASSERT_NE(list, std::string::npos) << run.err;
  EXPECT_NE(run.err.substr(offer, list - offer).find("'" + meant + "'"), std::string::npos)
      << run.err;
  for (const std::string& c : columns) {
    EXPECT_NE(run.err.find("'" + c + "'", list), std::string::npos) << c << " missing: " << run.err;
  }
  EXPECT_EQ(run.err.find("..."), std::string::npos) << run.err;
}

TEST(Newcomer, MisspelledNamesOfferTheClosestAndListEveryColumn) {
  const CsvTable wine = ReadCsv("wine.csv");
  const std::vector<std::string> wine_columns(wine.header.begin() + 1, wine.header.end());
  ExpectNameError(RunTool({"pca", Data("wine.csv"), "--class", "Cultivr"}), "--class", "Cultivar",
                  wine_columns);
  ExpectNameError(RunTool({"cluster", Data("wine.csv"), "--exclude", "Hue,Prolin"}), "--exclude",
                  "Proline", wine_columns);
  ExpectNameError(RunTool({"cluster", Data("wine.csv"), "--class", "cultivars"}), "--class",
                  "Cultivar", wine_columns);
  const CsvTable diabetes = ReadCsv("diabetes.csv");
  const std::vector<std::string> diabetes_columns(diabetes.header.begin() + 1,
                                                  diabetes.header.end());
  ExpectNameError(RunTool({"pls", Data("diabetes.csv"), "--y", "Progresion"}), "--y", "Progression",
                  diabetes_columns);
  const CsvTable filling = ReadCsv("filling.csv");
  const std::vector<std::string> filling_columns(filling.header.begin() + 1, filling.header.end());
  ExpectNameError(RunTool({"chart", Data("filling.csv"), "--column", "Wieght"}), "--column",
                  "Weight", filling_columns);
  // predict's --class is checked against the new data's columns the same way.
  ScratchDir dir("names");
  ASSERT_EQ(RunTool({"pls", Data("diabetes.csv"), "--y", "Progression", "--save", dir / "m.mvda"})
                .exit_code,
            0);
  ExpectNameError(RunTool({"predict", dir / "m.mvda", Data("diabetes.csv"), "--class", "Sexx"}),
                  "--class", "Sex", diabetes_columns);

  // The names column is no variable; the message says so rather than "no column".
  const ToolRun names = RunTool({"pca", Data("wine.csv"), "--exclude", "sample"});
  EXPECT_EQ(names.exit_code, 2);
  EXPECT_NE(names.err.find("'Sample'"), std::string::npos) << names.err;
  EXPECT_NE(names.err.find("observation names"), std::string::npos) << names.err;
}

TEST(Newcomer, NamesInAnotherLetterCaseGiveTheSameAnalysis) {
  const ToolRun exact = RunTool({"pls", Data("diabetes.csv"), "--y", "Progression", "--json"});
  const ToolRun loose = RunTool({"pls", Data("diabetes.csv"), "--y", "PROGRESSION", "--json"});
  ASSERT_EQ(exact.exit_code, 0) << exact.err;
  ASSERT_EQ(loose.exit_code, 0) << loose.err;
  EXPECT_EQ(loose.out, exact.out);
  const ToolRun chart = RunTool({"chart", Data("filling.csv"), "--column", "weight"});
  ASSERT_EQ(chart.exit_code, 0) << chart.err;
  EXPECT_NE(chart.out.find("Control chart of Weight"), std::string::npos) << chart.out;

  // Two columns that differ only in case: the exact one wins; a third spelling is ambiguous.
  ScratchDir dir("case");
  WriteText(dir / "two.csv", "name,Dose,DOSE,x\na,1,2,3\nb,2,2,5\nc,3,1,4\nd,4,7,1\n");
  const ToolRun exact_dose = RunTool({"chart", dir / "two.csv", "--column", "DOSE", "--json"});
  ASSERT_EQ(exact_dose.exit_code, 0) << exact_dose.err;
  EXPECT_NE(exact_dose.out.find("\"DOSE\""), std::string::npos) << exact_dose.out;
  const ToolRun ambiguous = RunTool({"chart", dir / "two.csv", "--column", "dose"});
  EXPECT_EQ(ambiguous.exit_code, 2);
  EXPECT_NE(ambiguous.err.find("did you mean 'Dose' or 'DOSE'?"), std::string::npos)
      << ambiguous.err;
}

// What a European spreadsheet exports: a byte-order mark, semicolons, decimal commas, quoted
// names, a non-ASCII column name and CRLF line ends. The analysis is the one of the plain file.
TEST(Newcomer, ASpreadsheetExportGivesTheSameAnalysisAsThePlainFile) {
  const CsvTable diabetes = ReadCsv("diabetes.csv");
  ScratchDir dir("export");
  std::string text = "\xEF\xBB\xBF";
  for (std::size_t j = 0; j < diabetes.header.size(); ++j) {
    text += (j ? ";" : "") +
            (j == 2 ? std::string("\"Geschlecht (m\xC3\xA4nnlich=1)\"") : diabetes.header[j]);
  }
  text += "\r\n";
  for (const std::vector<std::string>& row : diabetes.rows) {
    for (std::size_t j = 0; j < row.size(); ++j) {
      std::string cell = row[j];
      std::replace(cell.begin(), cell.end(), '.', ',');
      text += (j ? ";" : "") + (j == 0 ? "\"" + cell + "\"" : cell);
    }
    text += "\r\n";
  }
  WriteText(dir / "export.csv", text);

  const ToolRun plain = RunTool({"pls", Data("diabetes.csv"), "--y", "Progression", "--json"});
  const ToolRun spreadsheet =
      RunTool({"pls", dir / "export.csv", "--y", "progression", "--json", "--verbose"});
  ASSERT_EQ(plain.exit_code, 0) << plain.err;
  ASSERT_EQ(spreadsheet.exit_code, 0) << spreadsheet.err;
  EXPECT_NE(spreadsheet.err.find("separator ';' (detected), decimal comma (detected)"),
            std::string::npos)
      << spreadsheet.err;
  nlohmann::json a = nlohmann::json::parse(plain.out), b = nlohmann::json::parse(spreadsheet.out);
  EXPECT_EQ(b["x_variables"][1], "Geschlecht (m\xC3\xA4nnlich=1)");
  EXPECT_EQ(b["observation_names"], a["observation_names"]);
  const std::string renamed = "Geschlecht (m\xC3\xA4nnlich=1)";
  b["vip"]["Sex"] = b["vip"][renamed];
  b["vip"].erase(renamed);
  b["coefficients"]["Progression"]["Sex"] = b["coefficients"]["Progression"][renamed];
  b["coefficients"]["Progression"].erase(renamed);
  for (const char* key : {"components", "scores", "coefficients", "vip", "rmsecv"}) {
    EXPECT_EQ(b[key], a[key]) << key;
  }
  // Forcing the wrong mark is an error that says where, not a silent misreading.
  const ToolRun forced =
      RunTool({"pls", dir / "export.csv", "--y", "Progression", "--decimal", "."});
  EXPECT_EQ(forced.exit_code, 2);
  EXPECT_EQ(Lines(forced.err).size(), 1u) << forced.err;
  EXPECT_NE(forced.err.find("export.csv:2:"), std::string::npos) << forced.err;
}

TEST(Newcomer, AClassCodeAmongTheMeasurementsGetsAOneLineHint) {
  const ToolRun plain = RunTool({"pca", Data("wine.csv")});
  ASSERT_EQ(plain.exit_code, 0) << plain.err;
  const std::vector<std::string> err = Lines(plain.err);
  ASSERT_EQ(err.size(), 1u) << plain.err;
  EXPECT_EQ(err[0].rfind("mvda: hint: 'Cultivar' holds only the whole numbers 1, 2, 3", 0), 0u)
      << err[0];
  EXPECT_NE(err[0].find("--class Cultivar"), std::string::npos);
  // The hint is advice: the results are those of the same run without it.
  const ToolRun quiet = RunTool({"pca", Data("wine.csv"), "--quiet"});
  EXPECT_TRUE(quiet.err.empty()) << quiet.err;
  EXPECT_EQ(quiet.out, plain.out);
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"pca", Data("wine.csv"), "--class", "Cultivar"},
           {"pca", Data("wine.csv"), "--exclude", "Cultivar"},
           {"cluster", Data("wine.csv"), "--class", "Cultivar"},
           // Sex takes two values: a two-level factor, not flagged; Age takes dozens.
           {"pls", Data("diabetes.csv"), "--y", "Progression"}}) {
    const ToolRun run = RunTool(args);
    EXPECT_EQ(run.exit_code, 0) << run.err;
    EXPECT_TRUE(run.err.empty()) << args[1] << ": " << run.err;
  }
  EXPECT_NE(RunTool({"cluster", Data("wine.csv")}).err.find("hint: 'Cultivar'"), std::string::npos);
}

// Merges named in the text table, replayed with a union-find, give the same clusters as the
// membership file; the file and the cluster-by-class table agree with the data's own classes.
TEST(Newcomer, ClusterOutputNamesObservationsAndWritesTheMembership) {
  const CsvTable wine = ReadCsv("wine.csv");
  const std::size_t n = wine.rows.size();
  const int cultivar = wine.Column("Cultivar");
  constexpr int kClusters = 3;
  ScratchDir dir("cluster");
  const ToolRun run =
      RunTool({"cluster", Data("wine.csv"), "--class", "Cultivar", "--clusters",
               std::to_string(kClusters), "--output", "members.csv", "--out", dir.path().string()});
  ASSERT_EQ(run.exit_code, 0) << run.err;

  // The membership file: a header, then one row per observation in file order.
  const std::vector<std::string> file = Lines(ReadFile(dir / "members.csv"));
  ASSERT_EQ(file.size(), n + 1);
  EXPECT_EQ(file[0], "name,cluster,Cultivar");
  std::map<std::string, int> cluster_of;
  std::map<std::pair<int, std::string>, int> table;
  for (std::size_t i = 0; i < n; ++i) {
    const std::vector<std::string> cells = SplitCsvLine(file[i + 1]);
    ASSERT_EQ(cells.size(), 3u) << file[i + 1];
    EXPECT_EQ(cells[0], wine.rows[i][0]);
    EXPECT_EQ(cells[2], wine.rows[i][static_cast<std::size_t>(cultivar)]);
    const int c = std::stoi(cells[1]);
    EXPECT_GE(c, 1);
    EXPECT_LE(c, kClusters);
    cluster_of[cells[0]] = c;
    ++table[{c, cells[2]}];
  }

  // The merge table: "step k (m)" is the cluster made at step k; the rest are observation names.
  std::map<std::string, int> index;  // name -> union-find element
  for (std::size_t i = 0; i < n; ++i) index[wine.rows[i][0]] = static_cast<int>(i);
  std::vector<int> parent(2 * n);
  std::iota(parent.begin(), parent.end(), 0);
  auto find = [&](int x) {
    while (parent[static_cast<std::size_t>(x)] != x) x = parent[static_cast<std::size_t>(x)];
    return x;
  };
  const std::regex merge_line(
      R"(^\s+(\d+)\s+(step \d+ \(\d+\)|\S+)\s+(step \d+ \(\d+\)|\S+)\s+\S+\s+\d+$)");
  const std::regex step_name(R"(step (\d+) \(\d+\))");
  std::vector<std::pair<std::string, std::string>> merges;
  const std::size_t table_start = run.out.find("  Step  Joined");
  const std::size_t table_end = run.out.find("  (step k (m)");
  ASSERT_LT(table_start, table_end) << run.out;
  for (const std::string& line : Lines(run.out.substr(table_start, table_end - table_start))) {
    std::smatch m;
    if (std::regex_match(line, m, merge_line)) merges.emplace_back(m[2], m[3]);
  }
  ASSERT_EQ(merges.size(), n - 1) << run.out;
  auto element = [&](const std::string& name) {
    std::smatch m;
    if (std::regex_match(name, m, step_name)) return static_cast<int>(n) + std::stoi(m[1]) - 1;
    const auto it = index.find(name);
    EXPECT_NE(it, index.end()) << "not an observation: " << name;
    return it == index.end() ? 0 : it->second;
  };
  // Merges come by increasing height: the first N - K of them make the K clusters.
  for (std::size_t k = 0; k + kClusters < n; ++k) {
    const int made = static_cast<int>(n + k);
    parent[static_cast<std::size_t>(find(element(merges[k].first)))] = made;
    parent[static_cast<std::size_t>(find(element(merges[k].second)))] = made;
  }
  std::map<int, int> root_to_cluster;
  for (std::size_t i = 0; i < n; ++i) {
    const int root = find(static_cast<int>(i));
    const int c = cluster_of[wine.rows[i][0]];
    const auto it = root_to_cluster.emplace(root, c).first;
    EXPECT_EQ(it->second, c) << wine.rows[i][0] << " is split from its merge-tree cluster";
  }
  EXPECT_EQ(root_to_cluster.size(), static_cast<std::size_t>(kClusters));

  // The cluster-by-class table as printed: one row per cluster, counts, then the total.
  const std::size_t at = run.out.find("Clusters against Cultivar");
  ASSERT_NE(at, std::string::npos) << run.out;
  const std::vector<std::string> rows = Lines(run.out.substr(at));
  ASSERT_GE(rows.size(), 2u + kClusters);
  std::istringstream head(rows[1]);
  std::string word;
  std::vector<std::string> classes;
  head >> word;  // "Cluster"
  while (head >> word) classes.push_back(word);
  ASSERT_EQ(classes.back(), "Total");
  classes.pop_back();
  EXPECT_EQ(classes, (std::vector<std::string>{"1", "2", "3"}));
  for (int c = 1; c <= kClusters; ++c) {
    std::istringstream row(rows[1 + static_cast<std::size_t>(c)]);
    int number = 0, count = 0, total = 0;
    row >> number;
    EXPECT_EQ(number, c);
    for (const std::string& cls : classes) {
      row >> count;
      EXPECT_EQ(count, (table[{c, cls}])) << "cluster " << c << " class " << cls;
      total += count;
    }
    int printed_total = 0;
    row >> printed_total;
    EXPECT_EQ(printed_total, total);
  }

  // --output without a cut has nothing to write: refused before any work.
  const ToolRun uncut = RunTool({"cluster", Data("wine.csv"), "--output", dir / "x.csv"});
  EXPECT_EQ(uncut.exit_code, 2);
  EXPECT_NE(uncut.err.find("--clusters"), std::string::npos) << uncut.err;
  EXPECT_FALSE(std::filesystem::exists(dir / "x.csv"));
}

// An individual chart of Torque: sigma from the mean moving range (d2(2) = 2/sqrt(pi)), limits at
// target +- 3 sigma, the values outside named by observation, all computed here.
TEST(Newcomer, FiguresThatCanSurpriseCarryAFootnote) {
  const CsvTable filling = ReadCsv("filling.csv");
  const int torque = filling.Column("Torque");
  std::vector<double> x;  // NaN where the cell is empty; moving ranges skip those pairs
  for (std::size_t i = 0; i < filling.rows.size(); ++i) {
    const bool empty = filling.rows[i][static_cast<std::size_t>(torque)].empty();
    x.push_back(empty ? std::nan("") : filling.Number(i, torque));
  }
  double mr = 0, mean = 0;
  int ranges = 0, present = 0;
  for (std::size_t i = 1; i < x.size(); ++i) {
    if (std::isnan(x[i]) || std::isnan(x[i - 1])) continue;
    mr += std::fabs(x[i] - x[i - 1]);
    ++ranges;
  }
  mr /= ranges;
  for (const double v : x) {
    if (!std::isnan(v)) mean += v, ++present;
  }
  mean /= present;
  const double d2 = 2 / std::sqrt(std::acos(-1.0));
  const double sigma = mr / d2;
  std::string outside;
  for (std::size_t i = 0; i < x.size(); ++i) {
    if (std::fabs(x[i] - mean) > 3 * sigma) {
      outside += (outside.empty() ? "" : ", ") + filling.rows[i][0];
    }
  }
  ASSERT_FALSE(outside.empty());  // the data set has an excursion to name
  const ToolRun chart = RunTool({"chart", Data("filling.csv"), "--column", "Torque"});
  ASSERT_EQ(chart.exit_code, 0) << chart.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(chart.out, m,
                                std::regex(R"(\(sigma is the spread of single values, estimated )"
                                           R"(from the mean moving range of the baseline values: )"
                                           R"(([0-9.]+) / d2\(2\) = [0-9.]+ / ([0-9.]+)\))")))
      << chart.out;
  EXPECT_NEAR(std::stod(m[1]), mr, 1e-3 * mr);
  EXPECT_NEAR(std::stod(m[2]), d2, 1e-3);
  EXPECT_NE(chart.out.find("outside the limits: " + outside + "\n"), std::string::npos)
      << outside << "\n"
      << chart.out;
  // A chart of subgroup means shows both spreads: sigma and sigma / sqrt(n).
  const ToolRun means = RunTool({"chart", Data("filling.csv"), "--column", "Weight", "--type",
                                 "mean-range", "--subgroup", "5", "--sigma", "2"});
  ASSERT_EQ(means.exit_code, 0) << means.err;
  EXPECT_NE(means.out.find("given with --sigma; the Mean limits use sigma / sqrt(5) = 0.8944"),
            std::string::npos)
      << means.out;

  // PLS: the Q2 limit is 0 above 100 observations, and the output says why; at 100 or fewer it
  // is 0.05 and needs no note. Both say which rule kept the components.
  const ToolRun all = RunTool({"pls", Data("diabetes.csv"), "--y", "Progression"});
  ASSERT_EQ(all.exit_code, 0);
  EXPECT_NE(all.out.find("Q2 limit 0.000: with more than 100 observations (here 442)"),
            std::string::npos)
      << all.out;
  EXPECT_NE(all.out.find("Kept: components fitted one at a time while 7-group cross-validation"),
            std::string::npos);
  ScratchDir dir("footnote");
  std::ifstream in(Data("diabetes.csv"));
  std::ofstream out(dir / "small.csv");
  std::string line;
  for (int i = 0; i <= 100 && std::getline(in, line); ++i) out << line << "\n";
  out.close();
  const ToolRun small =
      RunTool({"pls", dir / "small.csv", "--y", "Progression", "--components", "2", "--json"});
  ASSERT_EQ(small.exit_code, 0) << small.err;
  EXPECT_TRUE(std::regex_search(small.out, std::regex(R"("q2_limit": 0\.0500)"))) << small.out;
  const ToolRun small_text =
      RunTool({"pls", dir / "small.csv", "--y", "Progression", "--components", "2"});
  EXPECT_EQ(small_text.out.find("Q2 limit 0.000"), std::string::npos) << small_text.out;
  EXPECT_NE(small_text.out.find("Kept: the 2 components asked for with --components"),
            std::string::npos)
      << small_text.out;
}

TEST(Newcomer, VersionNamesTheBuildTheBlasAndTheThreads) {
  const ToolRun run = RunTool({"--threads", "3", "--version"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(lines.size(), 4u) << run.out;
  EXPECT_TRUE(std::regex_match(lines[0], std::regex(R"(mvda \d+\.\d+\.\d+)"))) << lines[0];
#ifdef NDEBUG
  EXPECT_TRUE(lines[1] == "build type: Release" || lines[1] == "build type: RelWithDebInfo" ||
              lines[1] == "build type: MinSizeRel")
      << lines[1];
#else
  EXPECT_EQ(lines[1], "build type: Debug");
#endif
  // The BLAS that this very process (linked like the tool) has loaded describes itself.
  using Config = char* (*)();
  const auto config = reinterpret_cast<Config>(dlsym(RTLD_DEFAULT, "openblas_get_config"));
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(lines[2], std::string("BLAS: ") + config());
  EXPECT_EQ(lines[3].rfind("threads: 3", 0), 0u) << lines[3];
  // Without --threads, a count of at least one.
  const ToolRun plain = RunTool({"--version"});
  ASSERT_EQ(plain.exit_code, 0);
  std::smatch m;
  const std::string threads_line = Lines(plain.out).at(3);
  ASSERT_TRUE(std::regex_search(threads_line, m, std::regex(R"(^threads: (\d+))")));
  EXPECT_GE(std::stoi(m[1]), 1);
}

TEST(Newcomer, ProgressGoesToAPipeOnlyWhenAskedAndNeverToStdout) {
  const ToolRun plain = RunTool({"pca", Data("wine.csv"), "--class", "Cultivar"});
  ASSERT_EQ(plain.exit_code, 0);
  EXPECT_TRUE(plain.err.empty()) << plain.err;  // stderr is a pipe here: no bar by default
  // Before or after the command name alike.
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"--progress", "pca", Data("wine.csv"), "--class", "Cultivar"},
           {"pca", Data("wine.csv"), "--class", "Cultivar", "--progress"}}) {
    const ToolRun run = RunTool(args);
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.out, plain.out);
    // The fit reports each component and each cross-validation group, up to 100 %.
    EXPECT_NE(run.err.find("principal component 1"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("principal component 2"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("Cross-validating group 7"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("100%"), std::string::npos);
    for (const std::string& line : Lines(run.err)) {
      EXPECT_TRUE(std::regex_match(line, std::regex(R"(.{48} \[[#-]{30}\] +\d+%)"))) << line;
    }
  }
  const ToolRun cluster =
      RunTool({"cluster", Data("wine.csv"), "--class", "Cultivar", "--progress"});
  ASSERT_EQ(cluster.exit_code, 0);
  EXPECT_NE(cluster.err.find("Clustering"), std::string::npos) << cluster.err;
  // --quiet wins, wherever it stands.
  const ToolRun quiet = RunTool({"--progress", "pca", Data("wine.csv"), "--quiet"});
  ASSERT_EQ(quiet.exit_code, 0);
  EXPECT_TRUE(quiet.err.empty()) << quiet.err;
}

std::string NoiseCsv(int rows, int columns, unsigned seed) {
  std::ostringstream csv;
  std::mt19937 random(seed);
  std::normal_distribution<double> noise;
  for (int j = 0; j < columns; ++j) csv << (j ? ",v" : "v") << j;
  csv << "\n";
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < columns; ++j) csv << (j ? "," : "") << noise(random);
    csv << "\n";
  }
  return csv.str();
}

// Runs `args` (files in `dir`), interrupts it once stderr shows `marker`, and checks the clean
// stop: status 130 within kWait seconds, nothing on stdout, the old file untouched, no new file
// in the folder and none in the temporary folder (TMPDIR, where spill files go).
void ExpectCleanStop(const ScratchDir& dir, std::vector<std::string> args,
                     const std::string& marker) {
  WriteText(dir / "old.out", "the previous result");
  const std::string tmp = dir / "tmp";
  std::filesystem::create_directories(tmp);
  setenv("TMPDIR", tmp.c_str(), 1);
  args.insert(args.begin(), {MVDA_CLI_EXE, "--progress"});
  const double kWait = 20;  // seconds from the signal to the exit, at most
  const ToolRun run = RunProgramUntil(args, marker, kWait);
  unsetenv("TMPDIR");
  ASSERT_NE(run.exit_code, -1) << "not stopped within " << kWait << " s of Ctrl-C: " << run.err;
  EXPECT_EQ(run.exit_code, 130) << run.err;
  EXPECT_TRUE(run.out.empty()) << run.out;
  EXPECT_NE(run.err.find("mvda: stopped (Ctrl-C); no output written"), std::string::npos)
      << run.err;
  EXPECT_EQ(ReadFile(dir / "old.out"), "the previous result");
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
    left.push_back(entry.path().filename().string());
  }
  std::sort(left.begin(), left.end());
  EXPECT_EQ(left, (std::vector<std::string>{"data.csv", "old.out", "tmp"}));
}

// Runs long enough to be interrupted for sure: 20 cross-validated components of 20000 x 40
// noise; single linkage of 8000 observations. The signal goes when the tool reports a step well
// inside the computation (not the reading of the file), with most of the work still ahead.
TEST(Newcomer, CtrlCStopsALongFitOrClusteringCleanlyWithStatus130) {
  {
    ScratchDir dir("interrupt_fit");
    WriteText(dir / "data.csv", NoiseCsv(20000, 40, 7));
    ExpectCleanStop(dir,
                    {"pca", dir / "data.csv", "--components", "20", "--save", dir / "old.out",
                     "--report", dir / "report.html", "--scores", dir / "scores.csv"},
                    "principal component 2");
  }
  {
    ScratchDir dir("interrupt_cluster");
    WriteText(dir / "data.csv", NoiseCsv(8000, 10, 8));
    ExpectCleanStop(dir,
                    {"cluster", dir / "data.csv", "--method", "single", "--clusters", "3",
                     "--output", dir / "old.out", "--report", dir / "report.html"},
                    "distances");
  }
}

TEST(Newcomer, OutPutsEveryFileInOneFolder) {
  ScratchDir dir("out");
  const std::string out = dir / "results/new";  // made when missing
  const ToolRun run = RunTool({"--out", out, "pls", Data("diabetes.csv"), "--y", "Progression",
                               "--save", "m.mvda", "--scores", "s.csv", "--report", "r.html"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  for (const char* file : {"m.mvda", "s.csv", "r.html"}) {
    EXPECT_GT(std::filesystem::file_size(out + "/" + file), 0u) << file;
  }
  const ToolRun predict = RunTool(
      {"predict", out + "/m.mvda", Data("diabetes.csv"), "--output", "p.csv", "--out", out});
  ASSERT_EQ(predict.exit_code, 0) << predict.err;
  EXPECT_EQ(Lines(ReadFile(out + "/p.csv")).size(), ReadCsv("diabetes.csv").rows.size() + 1);
  // A folder that cannot be made is an error before any work.
  WriteText(dir / "file", "x");
  const ToolRun bad =
      RunTool({"pca", Data("wine.csv"), "--out", dir / "file/sub", "--save", "m.mvda"});
  EXPECT_EQ(bad.exit_code, 2);
  EXPECT_NE(bad.err.find("--out"), std::string::npos) << bad.err;
}

// The completion script, sourced into a real bash, completes as a user at the prompt would see.
std::string Complete(const std::string& script, const std::string& line) {
  ScratchDir dir("complete");
  WriteText(dir / "mvda.bash", script);
  // COMP_WORDS as bash splits the line; the last word is the one being completed.
  std::vector<std::string> words;
  std::istringstream in(line);
  for (std::string w; in >> w;) words.push_back(w);
  if (line.back() == ' ') words.emplace_back();
  std::string array;
  for (const std::string& w : words) array += " '" + w + "'";
  const std::string command = "source '" + (dir / "mvda.bash") + "'; COMP_WORDS=(" + array +
                              "); COMP_CWORD=" + std::to_string(words.size() - 1) +
                              "; _mvda; printf '%s\\n' \"${COMPREPLY[@]}\" | sort";
  const ToolRun run = RunProgram({"/bin/bash", "-c", command}, 60, 0, dir.path().string());
  EXPECT_EQ(run.exit_code, 0) << run.err;
  return run.out;
}

TEST(Newcomer, BashCompletionComesFromTheCommandDefinitions) {
  const ToolRun script = RunTool({"completion", "bash"});
  ASSERT_EQ(script.exit_code, 0) << script.err;
  EXPECT_EQ(Complete(script.out, "mvda p"), "pca\npls\npredict\n");
  EXPECT_EQ(Complete(script.out, "mvda pca data.csv --sc"), "--scale\n--scores\n");
  EXPECT_EQ(Complete(script.out, "mvda pca --qu"), "--quiet\n");
  EXPECT_EQ(Complete(script.out, "mvda chart x.csv --type e"), "ewma\n");
  // Every option `mvda cluster --help` lists completes, and --method offers exactly the choices
  // the help shows.
  const ToolRun help = RunTool({"cluster", "--help"});
  std::set<std::string> listed;
  std::smatch m;
  for (const std::string& line : Lines(help.out)) {
    if (std::regex_search(line, m, std::regex(R"(^\s+(--[a-z-]+))"))) listed.insert(m[1]);
  }
  ASSERT_GE(listed.size(), 6u) << help.out;
  const std::vector<std::string> offered = Lines(Complete(script.out, "mvda cluster x.csv --"));
  for (const std::string& option : listed) {
    EXPECT_NE(std::find(offered.begin(), offered.end(), option), offered.end()) << option;
  }
  ASSERT_TRUE(std::regex_search(help.out, m, std::regex(R"(--method TEXT:\{([^}]*)\})")));
  std::string choices = m[1];
  std::replace(choices.begin(), choices.end(), ',', '\n');
  std::vector<std::string> expected = Lines(choices);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Lines(Complete(script.out, "mvda cluster x.csv --method ")), expected);
}

}  // namespace
