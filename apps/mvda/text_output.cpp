#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ostream>
#include <string>

#include "output.h"

namespace mvda::cli {
namespace {

constexpr double kMissing = -99.0;

std::string Fixed(double v, int decimals = 3) {
  if (v == kMissing || std::isnan(v)) return "-";
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.*f", decimals, v);
  return buffer;
}

std::string General(double v) {
  if (v == kMissing || std::isnan(v)) return "-";
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.6g", v);
  return buffer;
}

std::string Pad(const std::string& s, std::size_t width, bool left = false) {
  if (s.size() >= width) return s;
  return left ? s + std::string(width - s.size(), ' ') : std::string(width - s.size(), ' ') + s;
}

std::size_t Widest(const std::vector<std::string>& names, std::size_t at_least) {
  std::size_t w = at_least;
  for (const std::string& s : names) w = std::max(w, s.size());
  return std::min<std::size_t>(w, 24);
}

const char* VerdictLegend(bool pls) {
  return pls ? "  R1: Q2 above the limit   R2: enough responses with Q2 above it   NS: not "
               "significant\n  N3: too many components for the data   N4: explains almost "
               "nothing\n"
             : "  R1: Q2 above the limit   NS: not significant   N3: too many components for "
               "the data\n";
}

void PrintComponentTable(std::ostream& os, const ModelResult& r, bool pls) {
  os << "  Comp     R2X  R2X(cum)";
  if (pls) os << "     R2Y  R2Y(cum)";
  os << "      Q2   Q2(cum)  Q2 limit  Verdict\n";
  for (const ComponentRow& row : r.rows) {
    os << Pad(std::to_string(row.component), 6) << Pad(Fixed(row.r2x), 8)
       << Pad(Fixed(row.r2x_cum), 10);
    if (pls) os << Pad(Fixed(row.r2y), 8) << Pad(Fixed(row.r2y_cum), 10);
    os << Pad(Fixed(row.q2), 8) << Pad(Fixed(row.q2_cum), 10) << Pad(Fixed(row.q2_limit), 10)
       << "  " << row.verdict << (row.kept ? "" : "  (dropped)") << "\n";
  }
}

void PrintHeader(std::ostream& os, const char* what, const ModelResult& r) {
  const Dataset& d = r.data;
  os << what << " of " << d.path << "\n  " << d.x.SizeRows() << " observations, "
     << d.x.SizeColumns() << " X variables";
  if (!d.y_names.empty()) os << ", " << d.y_names.size() << " Y variables";
  os << "; scaling " << r.settings.scaling << ", " << r.settings.groups
     << " cross-validation groups";
  const int missing = d.x.GetNumMisVal() + (d.y.SizeRows() > 0 ? d.y.GetNumMisVal() : 0);
  if (missing > 0) os << "; " << missing << " missing values";
  os << "\n\n";
}

void PrintModelLine(std::ostream& os, const ModelResult& r, bool pls) {
  os << "\n  Model: " << r.components << (r.components == 1 ? " component" : " components");
  if (r.components > 0) {
    const ComponentRow& last = r.rows[static_cast<std::size_t>(r.components - 1)];
    os << ", R2X(cum) " << Fixed(last.r2x_cum);
    if (pls) os << ", R2Y(cum) " << Fixed(last.r2y_cum);
    os << ", Q2(cum) " << Fixed(last.q2_cum);
  } else {
    os << " (not even the first component is significant)";
  }
  os << "\n" << VerdictLegend(pls);
  // Why this many components, and why a limit of zero, each in one line.
  if (r.settings.components > 0) {
    os << "  Kept: the " << r.settings.components
       << " components asked for with --components, whatever their verdict.\n";
  } else {
    os << "  Kept: components fitted one at a time while " << r.settings.groups
       << "-group cross-validation judged them significant (" << (pls ? "R1 or R2" : "R1")
       << "); the first one that was not ends the model.\n";
  }
  const std::size_t n = static_cast<std::size_t>(r.data.x.SizeRows());
  const bool zero_limit = std::any_of(r.rows.begin(), r.rows.end(),
                                      [](const ComponentRow& row) { return row.q2_limit == 0; });
  if (pls && zero_limit && n > 100) {
    os << "  Q2 limit 0.000: with more than 100 observations (here " << n
       << ") any Q2 above 0 counts; with 100 or fewer a component must pass 0.05.\n";
  }
}

// A dendrogram on its side: leaves down the left, merge heights growing to the right. A large
// tree is shown from its top kMaxLeaves clusters up, each cluster one line with its size.
constexpr int kMaxLeaves = 30;

void PrintDendrogram(std::ostream& os, const ClusterResult& r) {
  const int width = 56;
  const auto& nodes = r.nodes;
  const std::vector<int> tops = TopClusters(r, kMaxLeaves);
  // The nodes drawn: the tops and every merge above them.
  std::vector<int> row(nodes.size(), -1);
  for (std::size_t t = 0; t < tops.size(); ++t)
    row[static_cast<std::size_t>(tops[t])] = static_cast<int>(t);
  std::vector<bool> drawn(nodes.size(), false);
  std::vector<int> stack = {static_cast<int>(nodes.size()) - 1};
  while (!stack.empty()) {
    const std::size_t i = static_cast<std::size_t>(stack.back());
    stack.pop_back();
    drawn[i] = true;
    if (row[i] >= 0) continue;  // a top: its subtree is one line
    stack.push_back(nodes[i].left);
    stack.push_back(nodes[i].right);
  }
  const double top = nodes.back().height;
  // Ward heights are increases of a sum of squares, which crowd the low merges into the first
  // columns; their square roots are on the scale of distances, as for the other methods.
  const bool root_scale = r.method == "ward";
  auto column = [&](std::size_t i) {
    if (row[i] >= 0 && row[i] < static_cast<int>(tops.size()) &&
        tops[static_cast<std::size_t>(row[i])] == static_cast<int>(i))
      return 0;
    const double share = top > 0 ? nodes[i].height / top : 0;
    return static_cast<int>(std::lround((root_scale ? std::sqrt(share) : share) * width));
  };
  std::vector<std::string> grid(tops.size(), std::string(width + 1, ' '));
  auto put = [&](int y, int x, char c) {
    char& cell = grid[static_cast<std::size_t>(y)][static_cast<std::size_t>(x)];
    if (cell == ' ' || c == '+') cell = c;
  };
  // Children come before their parents in the node list, so their rows are known when needed.
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    if (!drawn[i] || row[i] >= 0) continue;
    const std::size_t a = static_cast<std::size_t>(nodes[i].left),
                      b = static_cast<std::size_t>(nodes[i].right);
    const int x = column(i);
    row[i] = (row[a] + row[b]) / 2;
    for (const std::size_t child : {a, b}) {
      for (int c = column(child); c < x; ++c) put(row[child], c, '-');
    }
    for (int y = row[a] + 1; y < row[b]; ++y) put(y, x, '|');
    put(row[a], x, '+');
    put(row[b], x, '+');
  }
  std::vector<std::string> labels;
  for (const int t : tops) {
    const auto& node = nodes[static_cast<std::size_t>(t)];
    std::string label;
    if (node.left < 0) {
      label = r.data.row_names[static_cast<std::size_t>(node.row)];
      if (!r.membership.empty())
        label += " (" + std::to_string(r.membership[static_cast<std::size_t>(node.row)]) + ")";
    } else {
      int size = 0, first = -1;
      std::vector<int> walk = {t};
      while (!walk.empty()) {
        const auto& n = nodes[static_cast<std::size_t>(walk.back())];
        walk.pop_back();
        if (n.left < 0) {
          ++size;
          first = n.row;
        } else {
          walk.push_back(n.left);
          walk.push_back(n.right);
        }
      }
      label = std::to_string(size) + " observations";
      if (!r.membership.empty())
        label += " (" + std::to_string(r.membership[static_cast<std::size_t>(first)]) + ")";
    }
    labels.push_back(label.substr(0, 28));
  }
  const std::size_t label_width = Widest(labels, 4);
  for (std::size_t y = 0; y < tops.size(); ++y) {
    std::string line = grid[y];
    line.erase(line.find_last_not_of(' ') + 1);
    os << "  " << Pad(labels[y], label_width, true) << " " << line << "\n";
  }
  os << "  " << std::string(label_width, ' ') << " 0" << Pad(General(top), width)
     << (root_scale ? "  (merge height, square-root scale)\n" : "  (merge height)\n");
}

// Every observation beyond the 99 % limit of T² or of SPE, by name, with the figures that are out.
void PrintOutliers(std::ostream& os, const Diagnostics& d, const std::vector<std::string>& names) {
  const double t2_limit = d.T2Limit(0.99), spe_limit = d.SPELimit(0.99);
  if (t2_limit == -99 && spe_limit == -99) return;
  const std::vector<std::size_t> out = d.Beyond99();
  const std::string count =
      std::to_string(out.size()) + (out.size() == 1 ? " observation" : " observations");
  os << "\n  Beyond the 99% limits (T2 " << Fixed(t2_limit) << ", SPE " << Fixed(spe_limit)
     << "): " << (out.empty() ? "none" : count) << "\n";
  for (const std::size_t i : out) {
    os << "    " << names[i] << "  T2 " << Fixed(d.t2[i]) << (d.t2[i] > t2_limit ? " *" : "")
       << "  SPE " << Fixed(d.spe[i]) << (d.spe[i] > spe_limit ? " *" : "") << "\n";
  }
}

}  // namespace

void PrintPca(std::ostream& os, const ModelResult& r) {
  PrintHeader(os, "PCA", r);
  PrintComponentTable(os, r, false);
  PrintModelLine(os, r, false);
  PrintOutliers(os, r.diagnostics, r.data.row_names);
}

void PrintPls(std::ostream& os, const ModelResult& r) {
  PrintHeader(os, "PLS", r);
  PrintComponentTable(os, r, true);
  const auto& y = r.data.y_names;
  os << "\n  Q2 per response, component (cumulative)\n  Comp";
  const std::size_t w = std::max<std::size_t>(Widest(y, 8) + 2, 18);
  for (const std::string& name : y) os << Pad(name.substr(0, w - 2), w);
  os << "\n";
  for (const ComponentRow& row : r.rows) {
    os << Pad(std::to_string(row.component), 6);
    for (std::size_t m = 0; m < y.size(); ++m) {
      os << Pad(Fixed(row.q2_y[m]) + " (" + Fixed(row.q2_y_cum[m]) + ")", w);
    }
    os << "\n";
  }
  PrintModelLine(os, r, true);
  if (r.components == 0) return;
  os << "\n  Regression coefficients in the units of the data (" << r.components
     << (r.components == 1 ? " component" : " components") << ")\n";
  const std::size_t label = Widest(r.data.x_names, 11);
  os << "  " << Pad("", label, true);
  for (const std::string& name : y) os << Pad(name.substr(0, 14), 15);
  os << "\n  " << Pad("(intercept)", label, true);
  for (const double b : r.intercepts) os << Pad(General(b), 15);
  os << "\n";
  for (int j = 1; j <= r.coefficients.SizeRows(); ++j) {
    os << "  "
       << Pad(r.data.x_names[static_cast<std::size_t>(j - 1)].substr(0, label), label, true);
    for (int m = 1; m <= r.coefficients.SizeColumns(); ++m)
      os << Pad(General(r.coefficients[j][m]), 15);
    os << "\n";
  }
  PrintOutliers(os, r.diagnostics, r.data.row_names);
}

void PrintPredict(std::ostream& os, const PredictResult& r) {
  os << "Prediction with " << r.model_path << " (" << (r.kind == ModelFile::kPCA ? "PCA" : "PLS")
     << ", " << r.components << (r.components == 1 ? " component" : " components") << ", fitted on "
     << r.model_source << ")\n\n";
  const std::size_t label = Widest(r.row_names, 11);
  os << "  " << Pad("Observation", label, true);
  for (int a = 1; a <= r.components; ++a) os << Pad("t" + std::to_string(a), 10);
  for (const std::string& name : r.y_names) {
    os << Pad(name.substr(0, 12) + " pred", 18);
    if (r.y_observed.SizeRows() > 0) os << Pad("observed", 10);
  }
  os << "\n";
  std::vector<std::string> skipped;
  for (std::size_t i = 0; i < r.row_names.size(); ++i) {
    const int obs = static_cast<int>(i) + 1;
    os << "  " << Pad(r.row_names[i].substr(0, label), label, true);
    for (int a = 1; a <= r.components; ++a) os << Pad(Fixed(r.tprim[a][obs]), 10);
    for (int m = 1; m <= static_cast<int>(r.y_names.size()); ++m) {
      os << Pad(General(r.y_pred[obs][m]), 18);
      if (r.y_observed.SizeRows() > 0) os << Pad(General(r.y_observed[obs][m]), 10);
    }
    os << "\n";
    if (!r.scored[i]) {
      skipped.push_back(r.row_names[i] + " (" + Fixed(100 * r.missing_share[i], 0) + "% missing)");
    }
  }
  if (!skipped.empty()) {
    os << "\n  Not scored, more than " << Fixed(100 * r.max_missing, 0)
       << "% of the model's variables missing (--max-missing): " << skipped.size() << "\n";
    for (const std::string& s : skipped) os << "    " << s << "\n";
  }
  PrintOutliers(os, r.diagnostics, r.row_names);
}

void PrintCluster(std::ostream& os, const ClusterResult& r) {
  const Dataset& d = r.data;
  const std::size_t n = d.row_names.size();
  // A cluster by name: an observation's own, or the step that made it with its size.
  auto name = [&](long cluster) {
    if (cluster >= 1 && static_cast<std::size_t>(cluster) <= n) {
      return d.row_names[static_cast<std::size_t>(cluster - 1)];
    }
    const std::size_t step = static_cast<std::size_t>(cluster) - n;
    return "step " + std::to_string(step) + " (" + std::to_string(r.merges[step - 1].size) + ")";
  };
  std::vector<std::string> labels = d.row_names;
  labels.push_back("step " + std::to_string(r.merges.size()) + " (" + std::to_string(n) + ")");
  const std::size_t w = Widest(labels, 6) + 2;
  os << "Cluster analysis of " << d.path << "\n  " << d.x.SizeRows() << " observations, "
     << d.x.SizeColumns() << " variables; scaling " << r.scaling << ", method " << r.method
     << "\n\n  Merges: " << r.merges.size() << "\n  Step  " << Pad("Joined", w, true)
     << Pad("with", w, true) << "      Height   Size\n";
  for (std::size_t k = 0; k < r.merges.size(); ++k) {
    const auto& m = r.merges[k];
    os << Pad(std::to_string(k + 1), 6) << "  " << Pad(name(m.a), w, true)
       << Pad(name(m.b), w, true) << Pad(General(m.height), 12) << Pad(std::to_string(m.size), 7)
       << "\n";
  }
  os << "  (step k (m): the cluster of m observations made at step k)\n\n";
  os << "  Dendrogram";
  if (r.leaf_order.size() > static_cast<std::size_t>(kMaxLeaves)) {
    os << ", its top " << kMaxLeaves << " clusters (every leaf: --report)";
  }
  os << (r.cut > 0 ? "; (k): cluster k of the cut" : "") << "\n";
  PrintDendrogram(os, r);
  if (r.membership.empty()) {
    if (!d.classes.empty()) {
      os << "\n  (--clusters K cuts the tree into K clusters and shows them against "
         << d.class_name << ")\n";
    }
    return;
  }

  int clusters = 0;
  for (const int c : r.membership) clusters = std::max(clusters, c);
  std::vector<int> sizes(static_cast<std::size_t>(clusters) + 1, 0);
  for (const int c : r.membership) ++sizes[static_cast<std::size_t>(c)];
  os << "\n  " << clusters << " clusters, numbered from left to right in the dendrogram; sizes ";
  for (int c = 1; c <= clusters; ++c) {
    os << (c > 1 ? ", " : "") << c << ": " << sizes[static_cast<std::size_t>(c)];
  }
  os << "\n";
  if (d.classes.empty()) return;
  // Cluster by class: how well the cut finds the known groups. Classes in the order they first
  // appear in the file.
  std::vector<std::string> classes;
  for (const std::string& c : d.classes) {
    if (std::find(classes.begin(), classes.end(), c) == classes.end()) classes.push_back(c);
  }
  const std::size_t cw = std::max<std::size_t>(Widest(classes, 5) + 2, 7);
  os << "\n  Clusters against " << d.class_name << " (observations)\n  Cluster";
  for (const std::string& c : classes) os << Pad(c, cw);
  os << Pad("Total", cw) << "\n";
  for (int c = 1; c <= clusters; ++c) {
    os << Pad(std::to_string(c), 9);
    for (const std::string& cls : classes) {
      int count = 0;
      for (std::size_t i = 0; i < n; ++i) {
        count += r.membership[i] == c && d.classes[i] == cls;
      }
      os << Pad(std::to_string(count), cw);
    }
    os << Pad(std::to_string(sizes[static_cast<std::size_t>(c)]), cw) << "\n";
  }
}

void PrintChart(std::ostream& os, const ChartResult& r) {
  os << "Control chart of " << r.column << " in " << r.path << "\n  " << r.type << ", "
     << r.subgroups << (r.subgroup == 1 ? " values" : " subgroups of " + std::to_string(r.subgroup))
     << "; limits from the first " << r.baseline << "\n  target " << General(r.target) << ", sigma "
     << General(r.sigma);
  if (r.lambda != kMissing) os << ", lambda " << General(r.lambda);
  os << "\n";
  if (!r.sigma_note.empty()) os << "  (" << r.sigma_note << ")\n";
  os << "\n";
  for (const auto& p : r.panels) {
    os << "  " << Pad(p.name, 7, true) << " centre " << Pad(General(p.centre), 10) << "   LCL "
       << Pad(General(p.lower), 10) << "   UCL " << Pad(General(p.upper), 10) << "\n";
    os << "          outside the limits: ";
    if (p.outside.empty()) os << "none";
    // By name: a single value is an observation; a subgroup, its number and its first and last.
    for (std::size_t i = 0; i < p.outside.size(); ++i) {
      const std::size_t first = static_cast<std::size_t>(p.outside[i] - 1) *
                                static_cast<std::size_t>(r.subgroup);
      const std::size_t last = first + static_cast<std::size_t>(r.subgroup) - 1;
      os << (i ? ", " : "");
      if (last >= r.row_names.size()) {
        os << p.outside[i];
      } else if (r.subgroup == 1) {
        os << r.row_names[first];
      } else {
        os << p.outside[i] << " (" << r.row_names[first] << "-" << r.row_names[last] << ")";
      }
    }
    os << "\n";
  }
}

}  // namespace mvda::cli
