#include <cmath>
#include <sstream>

#include "csv_table.h"
#include "output.h"

namespace mvda::cli {
namespace {

using json = nlohmann::ordered_json;
constexpr double kMissing = -99.0;

json Number(double v) { return v == kMissing || !std::isfinite(v) ? json(nullptr) : json(v); }

json Numbers(const std::vector<double>& v) {
  json out = json::array();
  for (const double x : v) out.push_back(Number(x));
  return out;
}

// A "prim" matrix (one row per component) as an object of named vectors.
json ByName(const Matrix& prim, int row, const std::vector<std::string>& names) {
  json out = json::object();
  for (std::size_t i = 0; i < names.size(); ++i) {
    out[names[i]] = Number(prim[row][static_cast<int>(i) + 1]);
  }
  return out;
}

// Component a of a prim matrix as a list in observation (or variable) order.
json Row(const Matrix& prim, int a) {
  json out = json::array();
  for (int i = 1; i <= prim.SizeColumns(); ++i) out.push_back(Number(prim[a][i]));
  return out;
}

// Values per response (or variable) as an object keyed by name.
json Keyed(const std::vector<double>& values, const std::vector<std::string>& names) {
  json out = json::object();
  for (std::size_t i = 0; i < names.size(); ++i) {
    out[names[i]] = i < values.size() ? Number(values[i]) : json(nullptr);
  }
  return out;
}

// T² and SPE per observation and their limits keyed by level ("0.95", "0.99", --alpha as written).
void AddDiagnostics(json& out, const Diagnostics& d) {
  out["t2"] = Numbers(d.t2);
  out["spe"] = Numbers(d.spe);
  json t2_limits = json::object(), spe_limits = json::object();
  for (std::size_t l = 0; l < d.levels.size(); ++l) {
    t2_limits[d.levels[l].key] = Number(d.t2_limits[l]);
    spe_limits[d.levels[l].key] = Number(d.spe_limits[l]);
  }
  out["t2_limits"] = t2_limits;
  out["spe_limits"] = spe_limits;
}

json Components(const ModelResult& r, bool pls) {
  json rows = json::array();
  for (const ComponentRow& c : r.rows) {
    json row = {{"component", c.component},     {"r2x", Number(c.r2x)},
                {"r2x_cum", Number(c.r2x_cum)}, {"q2", Number(c.q2)},
                {"q2_cum", Number(c.q2_cum)},   {"q2_limit", Number(c.q2_limit)},
                {"verdict", c.verdict},         {"kept", c.kept}};
    if (pls) {
      row["r2y"] = Number(c.r2y);
      row["r2y_cum"] = Number(c.r2y_cum);
      row["q2_per_response"] = Numbers(c.q2_y);
      row["q2_cum_per_response"] = Numbers(c.q2_y_cum);
    }
    rows.push_back(row);
  }
  return rows;
}

json ModelJson(const ModelResult& r, bool pls) {
  const Dataset& d = r.data;
  json out = {{"command", pls ? "pls" : "pca"}, {"file", d.path},
              {"observations", d.x.SizeRows()}, {"observation_names", d.row_names},
              {"x_variables", d.x_names},       {"scaling", r.settings.scaling},
              {"groups", r.settings.groups},    {"components", Components(r, pls)},
              {"kept_components", r.components}};
  if (!d.class_name.empty()) out["classes"] = {{"column", d.class_name}, {"values", d.classes}};
  json scores = json::array(), loadings = json::array();
  for (int a = 1; a <= r.components; ++a) {
    scores.push_back(Row(r.tprim, a));
    loadings.push_back(ByName(r.pprim, a, d.x_names));
  }
  out["scores"] = scores;      // scores[a-1][i-1]: component a, observation i
  out["loadings"] = loadings;  // loadings[a-1][name]
  AddDiagnostics(out, r.diagnostics);
  if (pls) {
    out["y_variables"] = d.y_names;
    json weights = json::array(), yweights = json::array();
    for (int a = 1; a <= r.components; ++a) {
      weights.push_back(ByName(r.wstar_prim, a, d.x_names));
      yweights.push_back(ByName(r.cprim, a, d.y_names));
    }
    out["weights_wstar"] = weights;
    out["y_weights"] = yweights;
    json coefficients = json::object(), fitted = json::object();
    for (std::size_t m = 0; m < d.y_names.size(); ++m) {
      const int col = static_cast<int>(m) + 1;
      json b = {{"(intercept)", Number(r.intercepts[m])}};
      for (std::size_t j = 0; j < d.x_names.size(); ++j) {
        b[d.x_names[j]] = Number(r.coefficients[static_cast<int>(j) + 1][col]);
      }
      coefficients[d.y_names[m]] = b;
      json f = json::array();
      for (int i = 1; i <= r.fitted.SizeRows(); ++i) f.push_back(Number(r.fitted[i][col]));
      fitted[d.y_names[m]] = f;
    }
    out["coefficients"] = coefficients;
    out["fitted"] = fitted;
    out["vip"] = Keyed(r.vip, d.x_names);
    out["rmsee"] = Keyed(r.rmsee, d.y_names);
    out["rmsecv"] = Keyed(r.rmsecv, d.y_names);
  }
  return out;
}

std::string Cell(double v) {
  if (v == kMissing || !std::isfinite(v)) return "";
  std::ostringstream os;
  os.precision(9);
  os << v;
  return os.str();
}

void PrimRows(std::ostringstream& os, const char* type, const Matrix& prim,
              const std::vector<std::string>& names, int components) {
  for (std::size_t i = 0; i < names.size(); ++i) {
    os << type << "," << CsvField(names[i]);
    for (int a = 1; a <= components; ++a) os << "," << Cell(prim[a][static_cast<int>(i) + 1]);
    os << "\n";
  }
}

}  // namespace

json PcaJson(const ModelResult& r) { return ModelJson(r, false); }
json PlsJson(const ModelResult& r) { return ModelJson(r, true); }

// A value of observation i of a prediction: a number whenever the observation was scored (even
// -99, which there is a result, not the missing marker), null when it was not.
json Scored(const PredictResult& r, int i, double v) {
  return r.scored[static_cast<std::size_t>(i - 1)] && std::isfinite(v) ? json(v) : json(nullptr);
}

json PredictJson(const PredictResult& r) {
  json out = {{"command", "predict"},
              {"model", r.model_path},
              {"model_type", r.kind == ModelFile::kPCA ? "pca" : "pls"},
              {"model_fitted_on", r.model_source},
              {"components", r.components},
              {"observation_names", r.row_names},
              {"max_missing", r.max_missing},
              {"missing_share", r.missing_share},
              {"scored", r.scored}};
  json scores = json::array();
  for (int a = 1; a <= r.components; ++a) {
    json row = json::array();
    for (int i = 1; i <= r.tprim.SizeColumns(); ++i) row.push_back(Scored(r, i, r.tprim[a][i]));
    scores.push_back(row);
  }
  out["scores"] = scores;
  json not_scored = json::array();
  for (std::size_t i = 0; i < r.scored.size(); ++i) {
    if (!r.scored[i]) not_scored.push_back(r.row_names[i]);
  }
  out["not_scored"] = not_scored;
  AddDiagnostics(out, r.diagnostics);
  json t2 = json::array(), spe = json::array();
  for (std::size_t i = 0; i < r.scored.size(); ++i) {
    const int row = static_cast<int>(i) + 1;
    t2.push_back(i < r.diagnostics.t2.size() ? Scored(r, row, r.diagnostics.t2[i]) : json());
    spe.push_back(i < r.diagnostics.spe.size() ? Scored(r, row, r.diagnostics.spe[i]) : json());
  }
  out["t2"] = t2;
  out["spe"] = spe;
  if (r.kind == ModelFile::kPLS) {
    json predicted = json::object(), observed = json::object();
    for (std::size_t m = 0; m < r.y_names.size(); ++m) {
      const int col = static_cast<int>(m) + 1;
      json p = json::array(), o = json::array();
      for (int i = 1; i <= r.y_pred.SizeRows(); ++i) {
        p.push_back(Scored(r, i, r.y_pred[i][col]));
        if (r.y_observed.SizeRows() > 0) o.push_back(Number(r.y_observed[i][col]));
      }
      predicted[r.y_names[m]] = p;
      if (r.y_observed.SizeRows() > 0) observed[r.y_names[m]] = o;
    }
    out["predicted"] = predicted;
    if (r.y_observed.SizeRows() > 0) {
      out["observed"] = observed;
      out["rmsep"] = Keyed(r.rmsep, r.y_names);
      out["r2_prediction"] = Keyed(r.r2_prediction, r.y_names);
    }
  }
  return out;
}

json ClusterJson(const ClusterResult& r) {
  json merges = json::array();
  for (const auto& m : r.merges) {
    merges.push_back({{"height", Number(m.height)},
                      {"joined", {m.a, m.b}},
                      {"cluster", m.merged},
                      {"size", m.size}});
  }
  json out = {{"command", "cluster"},
              {"file", r.data.path},
              {"observations", r.data.x.SizeRows()},
              {"observation_names", r.data.row_names},
              {"variables", r.data.x_names},
              {"scaling", r.scaling},
              {"method", r.method},
              {"merge_count", r.merges.size()},
              {"merges", merges},
              {"leaf_order", r.leaf_order}};
  if (r.cut > 0) out["clusters"] = {{"count", r.cut}, {"membership", r.membership}};
  return out;
}

json ChartJson(const ChartResult& r) {
  json panels = json::array();
  for (const auto& p : r.panels) {
    json panel = {{"statistic", p.name},        {"values", Numbers(p.values)},
                  {"centre", Number(p.centre)}, {"lcl", Number(p.lower)},
                  {"ucl", Number(p.upper)},     {"outside", p.outside}};
    if (!p.extra.empty()) panel[p.name == "CuSum" ? "low_sums" : "means"] = Numbers(p.extra);
    panels.push_back(panel);
  }
  return {{"command", "chart"},
          {"file", r.path},
          {"column", r.column},
          {"type", r.type},
          {"subgroup_size", r.subgroup},
          {"subgroups", r.subgroups},
          {"baseline_subgroups", r.baseline},
          {"target", Number(r.target)},
          {"sigma", Number(r.sigma)},
          {"lambda", Number(r.lambda)},
          {"panels", panels}};
}

std::string ScoresCsv(const ModelResult& r, bool pls) {
  std::ostringstream os;
  os << "Type,Name";
  for (int a = 1; a <= r.components; ++a) os << ",c" << a;
  os << "\n";
  PrimRows(os, "score", r.tprim, r.data.row_names, r.components);
  PrimRows(os, "loading", r.pprim, r.data.x_names, r.components);
  if (pls) {
    PrimRows(os, "weight", r.wstar_prim, r.data.x_names, r.components);
    PrimRows(os, "yweight", r.cprim, r.data.y_names, r.components);
  }
  return os.str();
}

std::string PredictionsCsv(const PredictResult& r) {
  std::ostringstream os;
  os << "Observation,Scored,MissingShare";
  for (int a = 1; a <= r.components; ++a) os << ",t" << a;
  for (const std::string& name : r.y_names) os << "," << CsvField(name + "_pred");
  os << "\n";
  for (std::size_t i = 0; i < r.row_names.size(); ++i) {
    const int obs = static_cast<int>(i) + 1;
    os << CsvField(r.row_names[i]) << "," << (r.scored[i] ? "yes" : "no") << ","
       << Cell(r.missing_share[i]);
    for (int a = 1; a <= r.components; ++a) os << "," << Cell(r.tprim[a][obs]);
    for (int m = 1; m <= static_cast<int>(r.y_names.size()); ++m)
      os << "," << Cell(r.y_pred[obs][m]);
    os << "\n";
  }
  return os.str();
}

}  // namespace mvda::cli
