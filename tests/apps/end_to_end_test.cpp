// The tool run on the embedded data sets, its key numbers checked against oracles computed here in
// double precision: LAPACK's eigenvalues for PCA, a plain PLS1 for PLS, a minimum spanning tree
// for single linkage, the textbook control-chart formulas; plus the invariants between outputs
// (cumulative values, a saved model that predicts what the fit gave).
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "run_tool.h"
#include "tool_json.h"
#include "support/csv.h"  // ReadCsv(name) of data/, DataDir()

extern "C" void dsyev_(const char* jobz, const char* uplo, const int* n, double* a, const int* lda,
                       double* w, double* work, const int* lwork, int* info);

namespace {

// Unit-variance scaling with the n - 1 divisor.
void Autoscale(std::vector<double>& c) {
  double mean = 0, ss = 0;
  for (const double x : c) mean += x / static_cast<double>(c.size());
  for (const double x : c) ss += (x - mean) * (x - mean);
  const double sd = std::sqrt(ss / static_cast<double>(c.size() - 1));
  for (double& x : c) x = (x - mean) / sd;
}

double Dot(const std::vector<double>& a, const std::vector<double>& b) {
  double s = 0;
  for (std::size_t i = 0; i < a.size(); ++i) s += a[i] * b[i];
  return s;
}

// Round to the 3 decimals the tables show: the tool's number and the oracle's must agree there.
void ExpectSame3(double tool, double oracle, const std::string& what) {
  EXPECT_NEAR(tool, oracle, 6e-4) << what;
}

TEST(EndToEnd, PcaOfWineMatchesTheEigenvaluesAndItsOwnRules) {
  const CsvTable wine = ReadCsv("wine.csv");
  std::vector<std::string> vars(wine.header.begin() + 1, wine.header.end() - 1);
  Columns x = NumericColumns(wine, vars);
  for (auto& c : x) Autoscale(c);
  // Eigenvalues of X'X: component a explains lambda_a / trace of the scaled data.
  const int k = static_cast<int>(x.size()), n = static_cast<int>(x[0].size());
  std::vector<double> xtx(static_cast<std::size_t>(k * k)), lambda(static_cast<std::size_t>(k));
  for (int a = 0; a < k; ++a)
    for (int b = 0; b < k; ++b) xtx[static_cast<std::size_t>(a * k + b)] = Dot(x[a], x[b]);
  double trace = 0;
  for (int a = 0; a < k; ++a) trace += xtx[static_cast<std::size_t>(a * k + a)];
  int lwork = 10 * k, info = 0;
  std::vector<double> work(static_cast<std::size_t>(lwork));
  dsyev_("N", "U", &k, xtx.data(), &k, lambda.data(), work.data(), &lwork, &info);
  ASSERT_EQ(info, 0);
  std::sort(lambda.rbegin(), lambda.rend());

  ScratchDir dir("pca");
  const Json r = RunJson({"pca", Data("wine.csv"), "--class", "Cultivar", "--json", "--save",
                          dir / "wine.mvda", "--scores", dir / "scores.csv"});
  ASSERT_EQ(r["x_variables"].size(), 13u);
  const Json& rows = r["components"];
  double r2x_cum = 0, q2_cum = 0;
  int kept = 0;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const Json& row = rows[i];
    const int a = static_cast<int>(i) + 1;
    SCOPED_TRACE("component " + std::to_string(a));
    ExpectSame3(row["r2x"], lambda[i] / trace, "R2X");
    r2x_cum += row["r2x"].get<double>();
    ExpectSame3(row["r2x_cum"], r2x_cum, "R2X(cum) is the sum");
    // Q2 limit by hand, centred data: 1 - (N-1-a+1)(K-a+1) / ((N-a+1)(K-a+2)).
    const double limit = 1.0 - double(n - a) * (k - a + 1) / (double(n - a + 1) * (k - a + 2));
    ExpectSame3(row["q2_limit"], limit, "Q2 limit");
    const double q2 = row["q2"];
    q2_cum = 1 - (1 - q2_cum) * std::min(1 - q2, 1.1);
    EXPECT_NEAR(row["q2_cum"].get<double>(), q2_cum, 1e-5);
    EXPECT_EQ(row["verdict"], q2 > limit ? "R1" : "NS");
    EXPECT_EQ(row["kept"], q2 > limit);
    kept += q2 > limit;
  }
  // The fit stops at the first component that is not significant.
  EXPECT_EQ(rows.back()["kept"], false);
  EXPECT_EQ(r["kept_components"], kept);
  ASSERT_GE(kept, 2);

  // The saved model scores the training rows as the fit did, and the scores file says the same.
  const Json p = RunJson({"predict", dir / "wine.mvda", Data("wine.csv"), "--json"});
  std::ifstream scores(dir / "scores.csv");
  std::string line;
  std::getline(scores, line);
  std::string header = "Type,Name";
  for (int a = 1; a <= kept; ++a) header += ",c" + std::to_string(a);
  EXPECT_EQ(line, header);
  for (int a = 0; a < kept; ++a) {
    for (int i = 0; i < n; ++i) {
      const double fitted = r["scores"][a][i];
      EXPECT_NEAR(p["scores"][a][i].get<double>(), fitted, 2e-4 * (1 + std::fabs(fitted)));
    }
  }
  std::getline(scores, line);  // score,W001,<t1>,<t2>
  EXPECT_NEAR(std::stod(line.substr(line.find(',', 6) + 1)), r["scores"][0][0].get<double>(), 1e-6);
}

// PLS1 by hand: w = X'y / |X'y|, t = X w, c = y't / t't, p = X't / t't, then deflate; one
// NIPALS iteration is exact for a single response.
TEST(EndToEnd, PlsOfDiabetesMatchesAPlainPls1) {
  const CsvTable d = ReadCsv("diabetes.csv");
  std::vector<std::string> vars(d.header.begin() + 1, d.header.end() - 1);
  Columns x = NumericColumns(d, vars);
  std::vector<double> y = NumericColumns(d, {"Progression"})[0];
  const std::vector<double> y_raw = y;
  double y_mean = 0, y_ss = 0;
  for (const double v : y) y_mean += v / static_cast<double>(y.size());
  for (const double v : y) y_ss += (v - y_mean) * (v - y_mean);
  const double y_sd = std::sqrt(y_ss / static_cast<double>(y.size() - 1));
  for (auto& c : x) Autoscale(c);
  Autoscale(y);
  const std::size_t n = y.size();
  double ssx = 0;
  for (const auto& c : x) ssx += Dot(c, c);
  const double ssy = Dot(y, y);
  std::vector<double> r2x, r2y;
  std::vector<std::vector<double>> parts;  // t_a c_a, the part of fitted Y of each component
  for (int a = 0; a < 3; ++a) {
    std::vector<double> w;
    for (const auto& c : x) w.push_back(Dot(c, y));
    const double norm = std::sqrt(Dot(w, w));
    std::vector<double> t(n, 0.0);
    for (std::size_t j = 0; j < x.size(); ++j)
      for (std::size_t i = 0; i < n; ++i) t[i] += x[j][i] * w[j] / norm;
    const double tt = Dot(t, t), c = Dot(y, t) / tt;
    double explained_x = 0;
    for (auto& col : x) {
      const double p = Dot(col, t) / tt;
      explained_x += p * p * tt;
      for (std::size_t i = 0; i < n; ++i) col[i] -= t[i] * p;
    }
    for (std::size_t i = 0; i < n; ++i) y[i] -= t[i] * c;
    r2x.push_back(explained_x / ssx);
    r2y.push_back(c * c * tt / ssy);
    parts.emplace_back(n);
    for (std::size_t i = 0; i < n; ++i) parts.back()[i] = t[i] * c;
  }

  ScratchDir dir("pls");
  const Json r = RunJson({"pls", Data("diabetes.csv"), "--y", "Progression", "--json", "--save",
                          dir / "diabetes.mvda"});
  const Json& rows = r["components"];
  // With more than 100 observations the limit is 0: R1 while Q2 > 0, unless the component
  // explains under 1% of Y (N4). The fit ends at the first component that is not R1.
  std::size_t kept = 0;
  for (std::size_t a = 0; a < rows.size(); ++a) {
    SCOPED_TRACE("component " + std::to_string(a + 1));
    ASSERT_LT(a, r2x.size());
    ExpectSame3(rows[a]["r2x"], r2x[a], "R2X");
    ExpectSame3(rows[a]["r2y"], r2y[a], "R2Y");
    const std::string expected =
        r2y[a] < 0.01 ? "N4" : (rows[a]["q2"].get<double>() > 0 ? "R1" : "NS");
    EXPECT_EQ(rows[a]["verdict"], expected);
    EXPECT_EQ(rows[a]["kept"], expected == "R1");
    EXPECT_EQ(expected == "R1", a + 1 < rows.size()) << "the fit goes on exactly while R1";
    kept += expected == "R1";
  }
  ASSERT_GE(kept, 1u);
  ASSERT_EQ(r["kept_components"], kept);
  std::vector<double> fitted(n, 0.0);
  for (std::size_t a = 0; a < kept; ++a)
    for (std::size_t i = 0; i < n; ++i) fitted[i] += parts[a][i];

  // Fitted values in the units of Y, from the oracle, from the tool, from the tool's
  // coefficients, and from the saved model applied to the same rows.
  const Json p = RunJson({"predict", dir / "diabetes.mvda", Data("diabetes.csv"), "--json"});
  const Json& b = r["coefficients"]["Progression"];
  for (std::size_t i = 0; i < n; ++i) {
    const double oracle = y_mean + y_sd * fitted[i];
    const double tool = r["fitted"]["Progression"][i];
    EXPECT_NEAR(tool, oracle, 1e-3 * y_sd) << "row " << i;
    double from_b = b["(intercept)"];
    for (const std::string& v : vars) from_b += b[v].get<double>() * d.Number(i, d.Column(v));
    EXPECT_NEAR(from_b, tool, 1e-3 * y_sd) << "row " << i;
    EXPECT_NEAR(p["predicted"]["Progression"][i].get<double>(), tool, 1e-3 * y_sd) << "row " << i;
    EXPECT_EQ(p["observed"]["Progression"][i].get<double>(), y_raw[i]);
  }
}

// Single linkage merges at the edges of a minimum spanning tree of the observations (Prim's
// algorithm on the uv-scaled rows, brute force over all pairs).
TEST(EndToEnd, SingleLinkageHeightsAreTheSpanningTreeEdges) {
  ScratchDir dir("cluster");
  std::string csv = "name,a,b,c\n";
  Columns x(3);
  for (int i = 0; i < 12; ++i) {
    const double row[3] = {std::sin(i * 1.7) * 3, std::cos(i * 0.9) + i * 0.1, double(i % 4)};
    csv += "r" + std::to_string(i) + "," + std::to_string(row[0]) + "," + std::to_string(row[1]) +
           "," + std::to_string(row[2]) + "\n";
    for (int j = 0; j < 3; ++j) x[j].push_back(std::stod(std::to_string(row[j])));
  }
  WriteText(dir / "small.csv", csv);
  for (auto& c : x) Autoscale(c);
  auto distance = [&](int i, int j) {
    double s = 0;
    for (const auto& c : x) s += (c[i] - c[j]) * (c[i] - c[j]);
    return std::sqrt(s);
  };
  std::vector<double> edges;
  std::vector<bool> in_tree(12, false);
  std::vector<double> best(12, HUGE_VAL);
  best[0] = 0;
  for (int step = 0; step < 12; ++step) {
    int next = -1;
    for (int i = 0; i < 12; ++i)
      if (!in_tree[i] && (next < 0 || best[i] < best[next])) next = i;
    if (step > 0) edges.push_back(best[next]);
    in_tree[next] = true;
    for (int i = 0; i < 12; ++i) best[i] = std::min(best[i], distance(next, i));
  }
  std::sort(edges.begin(), edges.end());
  const Json r = RunJson({"cluster", dir / "small.csv", "--method", "single", "--json"});
  ASSERT_EQ(r["merge_count"], 11);
  for (std::size_t k = 0; k < edges.size(); ++k) {
    EXPECT_NEAR(r["merges"][k]["height"].get<double>(), edges[k], 1e-4) << "merge " << k + 1;
  }
}

TEST(EndToEnd, WardOnWineMergesEveryRowAndCachesTheTree) {
  ScratchDir dir("ward");
  const std::vector<std::string> args = {"cluster",  Data("wine.csv"), "--class",
                                         "Cultivar", "--clusters",     "3",
                                         "--json",   "--cache",        dir / "cache"};
  const Json first = RunJson(args);
  EXPECT_EQ(first["merge_count"], 177);  // N - 1
  double previous = 0;
  for (const Json& m : first["merges"]) {
    EXPECT_GE(m["height"].get<double>(), previous);
    previous = m["height"];
  }
  EXPECT_EQ(first["merges"].back()["size"], 178);
  std::vector<int> sizes(4, 0);
  for (const Json& c : first["clusters"]["membership"]) ++sizes.at(c.get<std::size_t>());
  EXPECT_EQ(sizes[0], 0);
  EXPECT_EQ(sizes[1] + sizes[2] + sizes[3], 178);
  // The second run reads the cached tree: the same answer, one cache entry.
  EXPECT_EQ(RunJson(args), first);
  int entries = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir.path() / "cache")) {
    EXPECT_EQ(e.path().filename().string().rfind("Dendro_178_13_", 0), 0u);
    ++entries;
  }
  EXPECT_EQ(entries, 1);
}

// Limits from the first 30 subgroups of 5 by the textbook formulas: mean chart x-double-bar +-
// A2 R-bar (A2(5) = 0.577), range chart D3 R-bar .. D4 R-bar (0 and 2.114); individuals chart
// mean +- 3 MR-bar / 1.128; CuSum with sigma from successive differences of the baseline means,
// k = sigma / 2, h = 4.5 sigma.
TEST(EndToEnd, ControlChartsOfTheFillingLine) {
  const CsvTable f = ReadCsv("filling.csv");
  std::vector<double> means, ranges;
  for (int g = 0; g < 40; ++g) {
    double sum = 0, lo = HUGE_VAL, hi = -HUGE_VAL;
    for (int i = 5 * g; i < 5 * g + 5; ++i) {
      const double v = f.Number(static_cast<std::size_t>(i), f.Column("Weight"));
      sum += v;
      lo = std::min(lo, v);
      hi = std::max(hi, v);
    }
    means.push_back(sum / 5);
    ranges.push_back(hi - lo);
  }
  double grand = 0, r_bar = 0;
  for (int g = 0; g < 30; ++g) {
    grand += means[g] / 30;
    r_bar += ranges[g] / 30;
  }
  auto outside = [](const std::vector<double>& v, double lo, double hi) {
    std::vector<int> out;
    for (std::size_t i = 0; i < v.size(); ++i)
      if (v[i] < lo || v[i] > hi) out.push_back(static_cast<int>(i) + 1);
    return out;
  };
  const std::string filling = Data("filling.csv");
  const Json xr = RunJson({"chart", filling, "--column", "Weight", "--type", "mean-range",
                           "--subgroup", "5", "--baseline", "30", "--json"});
  const Json& mean = xr["panels"][0];
  const Json& range = xr["panels"][1];
  ExpectSame3(mean["centre"], grand, "centre");
  ExpectSame3(mean["ucl"], grand + 0.577 * r_bar, "mean UCL");
  ExpectSame3(mean["lcl"], grand - 0.577 * r_bar, "mean LCL");
  ExpectSame3(range["centre"], r_bar, "mean range");
  ExpectSame3(range["ucl"], 2.114 * r_bar, "range UCL");
  ExpectSame3(range["lcl"], 0.0, "range LCL");
  EXPECT_EQ(mean["outside"], outside(means, mean["lcl"], mean["ucl"]));
  EXPECT_EQ(range["outside"], outside(ranges, range["lcl"], range["ucl"]));

  // Individuals chart of the torque; fill 87 lost its reading, so its moving ranges are skipped.
  std::vector<double> torque;
  for (std::size_t i = 0; i < f.rows.size(); ++i) {
    const std::string& cell = f.rows[i][static_cast<std::size_t>(f.Column("Torque"))];
    torque.push_back(cell.empty() ? NAN : std::stod(cell));
  }
  double total = 0, mr = 0;
  int present = 0, pairs = 0;
  for (std::size_t i = 0; i < torque.size(); ++i) {
    if (std::isnan(torque[i])) continue;
    total += torque[i];
    ++present;
    if (i > 0 && !std::isnan(torque[i - 1])) {
      mr += std::fabs(torque[i] - torque[i - 1]);
      ++pairs;
    }
  }
  const double centre = total / present, sigma = mr / pairs / 1.128;
  const Json ind = RunJson({"chart", filling, "--column", "Torque", "--json"});
  ExpectSame3(ind["panels"][0]["centre"], centre, "torque centre");
  ExpectSame3(ind["panels"][0]["ucl"], centre + 3 * sigma, "torque UCL");
  ExpectSame3(ind["panels"][0]["lcl"], centre - 3 * sigma, "torque LCL");
  EXPECT_EQ(ind["panels"][0]["outside"], outside(torque, centre - 3 * sigma, centre + 3 * sigma));

  double mssd = 0;
  for (int g = 1; g < 30; ++g) mssd += (means[g] - means[g - 1]) * (means[g] - means[g - 1]);
  const double s = std::sqrt(mssd / (2.0 * 30 - 2)), k = 0.5 * s, h = 4.5 * s;
  std::vector<int> alarms;
  double low = 0, high = 0;
  for (int g = 0; g < 40; ++g) {
    low = std::max(0.0, low - (means[g] - grand + k));
    high = std::max(0.0, high + (means[g] - grand - k));
    if (low > h || high > h) alarms.push_back(g + 1);
  }
  const Json cusum = RunJson(
      {"chart", filling, "--column", "Weight", "--type", "cusum", "--baseline", "30", "--json"});
  ExpectSame3(cusum["panels"][0]["ucl"], h, "decision interval");
  EXPECT_EQ(cusum["panels"][0]["outside"], alarms);
  EXPECT_FALSE(alarms.empty());  // the one-sigma shift after fill 150 is caught
}

}  // namespace
