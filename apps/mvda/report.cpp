#include <mvda/diagnostics/hotelling.h>
#include <mvda/diagnostics/pls_diagnostics.h>
#include <mvda/platform/error.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <sstream>

#include "output.h"
#include "svg.h"

namespace mvda::cli {
namespace {

constexpr double kMissing = -99.0;

bool Present(double v) { return v != kMissing && std::isfinite(v); }

std::string Fixed(double v, int decimals = 3) {
  if (!Present(v)) return "&ndash;";
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.*f", decimals, v);
  return buffer;
}

std::string Percent(double fraction) { return Fixed(100 * fraction, 1) + "%"; }

struct Range {
  double lo = HUGE_VAL, hi = -HUGE_VAL;
  void Add(double v) {
    if (!Present(v)) return;
    lo = std::min(lo, v);
    hi = std::max(hi, v);
  }
  bool Empty() const { return lo > hi; }
};

// Classes in order of first appearance, each with its colour.
std::map<std::string, const char*> ClassColours(const std::vector<std::string>& classes,
                                                std::vector<std::string>& order) {
  std::map<std::string, const char*> colours;
  for (const std::string& c : classes) {
    if (colours.count(c)) continue;
    colours[c] = SeriesColour(order.size());
    order.push_back(c);
  }
  return colours;
}

std::string Figure(const std::string& svg, const std::string& caption) {
  return "<figure>" + svg + "<figcaption>" + caption + "</figcaption></figure>\n";
}

// Scores of components a and b (b = 0: against the observation number), coloured by class, with
// the 95 % and 99 % T² ellipses of the training set (for b = 0, the band |t| <= sqrt(s² L)) when
// d is given; observations outside the 99 % ellipse (or band) are named.
std::string ScorePlot(const std::string& title, const Matrix& tprim, int a, int b,
                      const std::vector<std::string>& names,
                      const std::vector<std::string>& classes, const std::string& class_name,
                      const std::string& x_label, const std::string& y_label,
                      const Diagnostics* d) {
  const int n = tprim.SizeColumns();
  std::vector<std::string> order;
  const auto colours = ClassColours(classes, order);
  SvgPlot plot(640, 440, title, x_label, y_label);
  plot.SetMargins(64, 130, 34, 50);
  Range xr, yr;
  for (int i = 1; i <= n; ++i) {
    xr.Add(b > 0 ? tprim[a][i] : i);
    yr.Add(b > 0 ? tprim[b][i] : tprim[a][i]);
  }
  if (xr.Empty() || yr.Empty()) return "";
  // The semi-axes at each level: the 2-D ellipse, or the band of one component's T².
  std::vector<std::pair<double, double>> axes;  // (horizontal, vertical) for 95 %, 99 %
  if (d && !d->score_variances.empty()) {
    for (const double alpha : {0.95, 0.99}) {
      try {
        if (b > 0) {
          const auto e =
              diagnostics::T2Ellipse(d->score_variances, a, b, d->training_observations, alpha);
          axes.emplace_back(e.horizontal, e.vertical);
        } else if (d->score_variances.size() == 1 && Present(d->T2Limit(alpha))) {
          axes.emplace_back(0, std::sqrt(d->score_variances[0] * d->T2Limit(alpha)));
        }
      } catch (const NCError&) {
        // Too few training observations for a limit: no ellipse.
      }
    }
  }
  for (const auto& [h, v] : axes) {
    if (b > 0) {
      xr.Add(-h);
      xr.Add(h);
    }
    yr.Add(-v);
    yr.Add(v);
  }
  xr.Add(0);
  yr.Add(0);
  plot.SetXRange(xr.lo, xr.hi);
  plot.SetYRange(yr.lo, yr.hi);
  // Observations outside the 99 % ellipse (or band) are named; their points are reserved first so
  // that no label lands on them.
  auto position = [&](int i) {
    const double x = b > 0 ? tprim[a][i] : i, y = b > 0 ? tprim[b][i] : tprim[a][i];
    return std::make_pair(plot.X(x), plot.Y(y));
  };
  std::vector<int> outside;
  for (int i = 1; i <= n && axes.size() == 2; ++i) {
    const double x = b > 0 ? tprim[a][i] : i, y = b > 0 ? tprim[b][i] : tprim[a][i];
    if (!Present(x) || !Present(y)) continue;
    const auto [h, v] = axes[1];
    const double reach = b > 0 ? (x / h) * (x / h) + (y / v) * (y / v) : (y / v) * (y / v);
    if (reach > 1) {
      outside.push_back(i);
      plot.Reserve(position(i).first, position(i).second, 3.5);
    }
  }
  plot.Line(plot.XLo(), 0, plot.XHi(), 0, "#999", "4 3", 1);
  if (b > 0) plot.Line(0, plot.YLo(), 0, plot.YHi(), "#999", "4 3", 1);
  const char* const kColour[] = {"#ff7f0e", "#d62728"};  // as on the T² and SPE charts
  for (std::size_t l = 0; l < axes.size(); ++l) {
    const char* level = l == 0 ? "95%" : "99%";
    if (b > 0) {
      plot.Ellipse(0, 0, axes[l].first, axes[l].second, kColour[l], "6 4",
                   std::string("T2 ") + level + " ellipse");
    } else {
      plot.HLine(axes[l].second, kColour[l], "6 4", std::string("T2 ") + level);
      plot.HLine(-axes[l].second, kColour[l], "6 4", "");
    }
  }
  for (int i = 1; i <= n; ++i) {
    const double x = b > 0 ? tprim[a][i] : i, y = b > 0 ? tprim[b][i] : tprim[a][i];
    if (!Present(x) || !Present(y)) continue;
    const std::string& name = names[static_cast<std::size_t>(i - 1)];
    const std::string cls = classes.empty() ? "" : classes[static_cast<std::size_t>(i - 1)];
    plot.Point(x, y, classes.empty() ? SeriesColour(0) : colours.at(cls),
               name + (cls.empty() ? "" : " (" + class_name + " " + cls + ")"));
  }
  for (const int i : outside) {
    const auto [px, py] = position(i);
    plot.PlaceLabel(px, py, names[static_cast<std::size_t>(i - 1)], "#a00", false);
  }
  for (const std::string& c : order) plot.AddLegend(class_name + " " + c, colours.at(c));
  if (axes.size() == 2) {
    plot.AddLegend("T2 95%", kColour[0], true);
    plot.AddLegend("T2 99%", kColour[1], true);
  }
  return plot.Svg();
}

// One statistic per observation (T² or SPE) with its 95 % and 99 % limits; observations beyond
// the 99 % limit are red and named.
std::string StatisticChart(const std::string& title, const std::string& statistic,
                           const std::vector<double>& values, double limit95, double limit99,
                           const std::vector<std::string>& names) {
  SvgPlot plot(860, 340, title, "Observation", statistic);
  plot.SetMargins(64, 130, 34, 50);
  Range yr;
  yr.Add(0);
  for (const double v : values) yr.Add(v);
  yr.Add(limit95);
  yr.Add(limit99);
  if (yr.Empty()) return "";
  const int n = static_cast<int>(values.size());
  plot.SetXRange(0.5, n + 0.5, false);
  plot.SetYRange(0, yr.hi);
  // The named points first, so that the limit labels keep off them.
  for (int i = 1; i <= n; ++i) {
    const double v = values[static_cast<std::size_t>(i - 1)];
    if (Present(v) && Present(limit99) && v > limit99) plot.Reserve(plot.X(i), plot.Y(v), 3);
  }
  if (Present(limit95)) plot.HLine(limit95, "#ff7f0e", "6 4", "95% " + Fixed(limit95));
  if (Present(limit99)) plot.HLine(limit99, "#d62728", "6 4", "99% " + Fixed(limit99));
  std::vector<std::pair<double, double>> line;
  for (int i = 1; i <= n; ++i) {
    const double v = values[static_cast<std::size_t>(i - 1)];
    if (Present(v)) line.emplace_back(i, v);
  }
  plot.Polyline(line, "#9ab", 0.8);
  std::vector<int> out;
  for (const auto& [i, v] : line) {
    const bool beyond = Present(limit99) && v > limit99;
    const int obs = static_cast<int>(i);
    plot.Point(i, v, beyond ? "#d62728" : SeriesColour(0),
               names[static_cast<std::size_t>(obs - 1)] + ": " + statistic + " " + Fixed(v),
               n > 200 ? 2.2 : 3);
    if (beyond) out.push_back(obs);
  }
  for (const int i : out) {
    plot.PlaceLabel(plot.X(i), plot.Y(values[static_cast<std::size_t>(i - 1)]),
                    names[static_cast<std::size_t>(i - 1)], "#a00", false);
  }
  plot.AddLegend("95% limit", "#ff7f0e", true);
  plot.AddLegend("99% limit", "#d62728", true);
  plot.AddLegend("Beyond 99%", "#d62728");
  return plot.Svg();
}

// T² against SPE: an observation outside the box of the 99 % limits is far from the model's
// centre, far from its plane, or both. The 95 % box is drawn lighter.
std::string InfluencePlot(const std::string& title, const Diagnostics& d,
                          const std::vector<std::string>& names) {
  SvgPlot plot(640, 440, title, "Hotelling's T2", "SPE");
  plot.SetMargins(64, 130, 34, 50);
  Range xr, yr;
  xr.Add(0);
  yr.Add(0);
  for (std::size_t i = 0; i < d.t2.size(); ++i) {
    if (!Present(d.t2[i]) || !Present(d.spe[i])) continue;
    xr.Add(d.t2[i]);
    yr.Add(d.spe[i]);
  }
  const double t95 = d.T2Limit(0.95), t99 = d.T2Limit(0.99);
  const double s95 = d.SPELimit(0.95), s99 = d.SPELimit(0.99);
  for (const double v : {t95, t99}) xr.Add(v);
  for (const double v : {s95, s99}) yr.Add(v);
  if (xr.hi <= 0 && yr.hi <= 0) return "";
  plot.SetXRange(0, xr.hi);
  plot.SetYRange(0, yr.hi);
  // The named points first, so that the limit labels keep off them.
  auto beyond = [&](std::size_t i) {
    return Present(d.t2[i]) && Present(d.spe[i]) &&
           ((Present(t99) && d.t2[i] > t99) || (Present(s99) && d.spe[i] > s99));
  };
  for (std::size_t i = 0; i < d.t2.size(); ++i) {
    if (beyond(i)) plot.Reserve(plot.X(d.t2[i]), plot.Y(d.spe[i]), 3.5);
  }
  if (Present(t95)) plot.VLine(t95, "#ff7f0e", "6 4", "T2 95%");
  if (Present(t99)) plot.VLine(t99, "#d62728", "6 4", "T2 99%");
  if (Present(s95)) plot.HLine(s95, "#ff7f0e", "6 4", "SPE 95%");
  if (Present(s99)) plot.HLine(s99, "#d62728", "6 4", "SPE 99%");
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < d.t2.size(); ++i) {
    if (!Present(d.t2[i]) || !Present(d.spe[i])) continue;
    plot.Point(d.t2[i], d.spe[i], beyond(i) ? "#d62728" : SeriesColour(0),
               names[i] + ": T2 " + Fixed(d.t2[i]) + ", SPE " + Fixed(d.spe[i]));
    if (beyond(i)) out.push_back(i);
  }
  for (const std::size_t i : out) {
    plot.PlaceLabel(plot.X(d.t2[i]), plot.Y(d.spe[i]), names[i], "#a00", false);
  }
  plot.AddLegend("95% limits", "#ff7f0e", true);
  plot.AddLegend("99% limits", "#d62728", true);
  plot.AddLegend("Beyond 99%", "#d62728");
  return plot.Svg();
}

// One bar per variable (or response), in the given order, with optional reference lines.
std::string VariableBars(const std::string& title, const std::string& y_label,
                         const std::vector<std::string>& names, const std::vector<double>& values,
                         const std::vector<std::size_t>& order, double reference,
                         const std::string& reference_label) {
  const std::size_t k = order.size();
  // Names under the bars when they fit, else only in the hover text.
  std::size_t longest = 0;
  for (const std::size_t j : order) longest = std::max(longest, names[j].size());
  const int width = static_cast<int>(std::clamp<std::size_t>(64 + 40 + 22 * k, 520, 1080));
  const double slot = (width - 64.0 - 40) / static_cast<double>(k);
  const bool labels = slot >= 12;
  const int room =
      labels ? 16 + static_cast<int>(6.6 * static_cast<double>(std::min<std::size_t>(longest, 24)))
             : 0;
  SvgPlot plot(width, 320 + room, title, labels ? "Variable" : "Variables (hover for names)",
               y_label);
  plot.SetMargins(64, 40, 34, labels ? room + 24 : 50);
  Range yr;
  yr.Add(0);
  yr.Add(reference);
  for (const double v : values) yr.Add(v);
  plot.SetXRange(0.5, static_cast<double>(k) + 0.5, false);
  plot.SetYRange(yr.lo, yr.hi);
  plot.SetXTickLabelsHidden();
  for (std::size_t s = 0; s < k; ++s) {
    const std::size_t j = order[s];
    const double x = static_cast<double>(s) + 1;
    const double v = values[j];
    if (!Present(v)) continue;
    plot.Bar(x - 0.4, x + 0.4, v, v >= 0 ? SeriesColour(0) : SeriesColour(1),
             names[j] + ": " + Fixed(v, 4));
    if (labels) {
      std::string name = names[j].size() > 24 ? names[j].substr(0, 23) + "\u2026" : names[j];
      char head[128];
      std::snprintf(head, sizeof head, "<text transform=\"translate(%.1f,%.1f) rotate(-90)\" ",
                    plot.X(x) + 4, plot.Bottom() + 6.0);
      plot.Raw(std::string(head) + "text-anchor=\"end\" font-size=\"11\">" + Escape(name) +
               "</text>\n");
    }
  }
  plot.Line(0.5, 0, static_cast<double>(k) + 0.5, 0, "#444", "", 1);
  if (!reference_label.empty()) plot.HLine(reference, "#d62728", "6 4", reference_label);
  return plot.Svg();
}

std::vector<std::size_t> NaturalOrder(std::size_t k) {
  std::vector<std::size_t> order(k);
  for (std::size_t j = 0; j < k; ++j) order[j] = j;
  return order;
}

// The contributions of the variables to the statistic that puts the most extreme observation
// furthest out, with a caption naming it.
std::string ContributionFigure(const Diagnostics& d, const std::vector<std::string>& row_names,
                               const std::vector<std::string>& x_names) {
  if (d.extreme == 0 || d.contributions.empty()) return "";
  const std::size_t i = static_cast<std::size_t>(d.extreme - 1);
  const std::string& name = row_names[i];
  const std::string statistic = d.extreme_by_spe ? "SPE" : "T2";
  const double value = d.extreme_by_spe ? d.spe[i] : d.t2[i];
  const double limit = d.extreme_by_spe ? d.SPELimit(0.99) : d.T2Limit(0.99);
  return Figure(VariableBars("Contributions to the " + statistic + " of " + name,
                             d.extreme_by_spe ? "Residual (scaled units)" : "Contribution to T2",
                             x_names, d.contributions, NaturalOrder(x_names.size()), 0, ""),
                "The most extreme observation, " + Escape(name) + ": " + statistic + " " +
                    Fixed(value) + " against a 99% limit of " + Fixed(limit) +
                    (d.extreme_by_spe
                         ? ". Each bar is the variable's residual after the model (scaled units); "
                           "the tallest bars are what the model does not explain."
                         : ". Each bar is the variable's pull along the model's components "
                           "(scaled units); the tallest bars put the observation far from the "
                           "centre."));
}

// The pictures of T² and SPE: the two charts per observation and the influence plot.
std::string DiagnosticsFigures(const Diagnostics& d, const std::vector<std::string>& names,
                               const std::string& whose) {
  std::string out;
  if (std::any_of(d.t2.begin(), d.t2.end(), Present)) {
    out += Figure(StatisticChart("Hotelling's T2" + whose, "T2", d.t2, d.T2Limit(0.95),
                                 d.T2Limit(0.99), names),
                  "Distance of each observation from the centre of the model, within its "
                  "plane, with the 95% and 99% limits.");
  }
  out +=
      Figure(StatisticChart("SPE" + whose, "SPE", d.spe, d.SPELimit(0.95), d.SPELimit(0.99), names),
             "Squared distance of each observation from the model's plane (residual after the "
             "components, scaled units), with the 95% and 99% limits.");
  if (std::any_of(d.t2.begin(), d.t2.end(), Present)) {
    out += Figure(InfluencePlot("T2 against SPE" + whose, d, names),
                  "Observations outside the box of the 99% limits are named: to the right they "
                  "are extreme within the model, above it the model does not describe them.");
  }
  return out;
}

// Loadings (or weights) of components a and b, one labelled point per variable; a second set
// (the Y weights of PLS) in another colour.
std::string LoadingPlot(const std::string& title, const Matrix& xprim,
                        const std::vector<std::string>& x_names, const Matrix* yprim,
                        const std::vector<std::string>& y_names, int a, int b,
                        const std::string& x_label, const std::string& y_label) {
  SvgPlot plot(640, 440, title, x_label, y_label);
  Range xr, yr;
  auto extend = [&](const Matrix& m) {
    for (int j = 1; j <= m.SizeColumns(); ++j) {
      xr.Add(b > 0 ? m[a][j] : j);
      yr.Add(b > 0 ? m[b][j] : m[a][j]);
    }
  };
  extend(xprim);
  if (yprim) extend(*yprim);
  if (xr.Empty() || yr.Empty()) return "";
  xr.Add(0);
  yr.Add(0);
  // Room for the names to the right of the points.
  plot.SetXRange(xr.lo, xr.hi + 0.15 * (xr.hi - xr.lo));
  plot.SetYRange(yr.lo, yr.hi);
  if (yprim) plot.SetMargins(64, 120, 34, 50);
  plot.Line(plot.XLo(), 0, plot.XHi(), 0, "#999", "4 3", 1);
  if (b > 0) plot.Line(0, plot.YLo(), 0, plot.YHi(), "#999", "4 3", 1);
  auto draw = [&](const Matrix& m, const std::vector<std::string>& names, const char* colour) {
    for (int j = 1; j <= m.SizeColumns(); ++j) {
      const double x = b > 0 ? m[a][j] : j, y = b > 0 ? m[b][j] : m[a][j];
      if (!Present(x) || !Present(y)) continue;
      const std::string& name = names[static_cast<std::size_t>(j - 1)];
      plot.Point(x, y, colour, name);
      plot.PlaceLabel(plot.X(x), plot.Y(y), name, "#333");
    }
  };
  draw(xprim, x_names, SeriesColour(0));
  if (yprim) {
    draw(*yprim, y_names, SeriesColour(1));
    plot.AddLegend("X (w*)", SeriesColour(0));
    plot.AddLegend("Y (c)", SeriesColour(1));
  }
  return plot.Svg();
}

// Cumulative R2 and Q2 per component, and each component's own Q2 with the limit it has to pass
// to be kept.
std::string SummaryBars(const ModelResult& r, bool pls) {
  std::vector<std::string> names;
  Range yr;
  yr.Add(0);
  yr.Add(1);
  for (const ComponentRow& row : r.rows) {
    names.push_back(std::to_string(row.component) + (row.kept ? "" : " (" + row.verdict + ")"));
    for (const double v : {row.q2_cum, row.q2, row.q2_limit}) yr.Add(v);
  }
  SvgPlot plot(600, 360, "Explained and predicted variation", "Component", "Fraction");
  plot.SetMargins(64, 150, 34, 50);
  plot.SetXCategories(names);
  plot.SetYRange(std::max(yr.lo, -1.0), yr.hi, false);
  const char* r2_name = pls ? "R2Y(cum)" : "R2X(cum)";
  for (const ComponentRow& row : r.rows) {
    const double x = row.component;
    const double r2 = pls ? row.r2y_cum : row.r2x_cum;
    plot.Bar(x - 0.39, x - 0.13, r2, SeriesColour(0), std::string(r2_name) + " " + Fixed(r2));
    plot.Bar(x - 0.13, x + 0.13, std::max(row.q2_cum, -1.0), SeriesColour(2),
             "Q2(cum) " + Fixed(row.q2_cum));
    plot.Bar(x + 0.13, x + 0.39, std::max(row.q2, -1.0), SeriesColour(7),
             "Q2 of component " + std::to_string(row.component) + " " + Fixed(row.q2) + ", limit " +
                 Fixed(row.q2_limit));
    plot.Line(x + 0.09, row.q2_limit, x + 0.43, row.q2_limit, "#222", "", 2.5);
  }
  plot.Line(0.4, 0, static_cast<double>(names.size()) + 0.6, 0, "#444", "", 1);
  plot.AddLegend(r2_name, SeriesColour(0));
  plot.AddLegend("Q2(cum)", SeriesColour(2));
  plot.AddLegend("Q2 (component)", SeriesColour(7));
  plot.AddLegend("Q2 limit", "#222", true);
  return plot.Svg();
}

// Predicted (or fitted: `what`) against observed values of one response, with the figures of merit
// written in the top left corner.
std::string ObservedPredicted(const std::string& title, const Matrix& observed,
                              const Matrix& predicted, int column,
                              const std::vector<std::string>& names, const std::string& y_name,
                              const std::string& what, const std::vector<std::string>& notes) {
  SvgPlot plot(520, 440, title, "Observed " + y_name, what + " " + y_name);
  Range r;
  for (int i = 1; i <= observed.SizeRows(); ++i) {
    if (!Present(observed[i][column]) || !Present(predicted[i][column])) continue;
    r.Add(observed[i][column]);
    r.Add(predicted[i][column]);
  }
  if (r.Empty()) return "";
  plot.SetXRange(r.lo, r.hi);
  plot.SetYRange(r.lo, r.hi);
  plot.Line(r.lo, r.lo, r.hi, r.hi, "#999", "5 4", 1.2);  // perfect prediction
  for (int i = 1; i <= observed.SizeRows(); ++i) {
    const double o = observed[i][column], p = predicted[i][column];
    if (!Present(o) || !Present(p)) continue;
    plot.Point(o, p, SeriesColour(0),
               names[static_cast<std::size_t>(i - 1)] + ": " + Fixed(o, 4) + " observed, " +
                   Fixed(p, 4) + " " + what);
  }
  for (std::size_t k = 0; k < notes.size(); ++k) {
    plot.TextAt(plot.Left() + 8, plot.Top() + 16 + 15 * static_cast<double>(k), notes[k], "#222",
                12);
  }
  return plot.Svg();
}

std::string ComponentTable(const ModelResult& r, bool pls) {
  std::ostringstream os;
  os << "<table><tr><th>Component</th><th>R2X</th><th>R2X(cum)</th>";
  if (pls) os << "<th>R2Y</th><th>R2Y(cum)</th>";
  os << "<th>Q2</th><th>Q2(cum)</th><th>Q2 limit</th><th>Verdict</th></tr>\n";
  for (const ComponentRow& row : r.rows) {
    os << "<tr" << (row.kept ? "" : " class=\"dropped\"") << "><td>" << row.component << "</td><td>"
       << Fixed(row.r2x) << "</td><td>" << Fixed(row.r2x_cum) << "</td>";
    if (pls) os << "<td>" << Fixed(row.r2y) << "</td><td>" << Fixed(row.r2y_cum) << "</td>";
    os << "<td>" << Fixed(row.q2) << "</td><td>" << Fixed(row.q2_cum) << "</td><td>"
       << Fixed(row.q2_limit) << "</td><td>" << Escape(row.verdict)
       << (row.kept ? "" : " (dropped)") << "</td></tr>\n";
  }
  os << "</table>\n";
  return os.str();
}

// The name of component a on an axis with the share of X it explains: for PLS too, since the
// scores and loadings are of X.
std::string AxisName(const std::string& letter, int a, const ModelResult& r) {
  const ComponentRow& row = r.rows[static_cast<std::size_t>(a - 1)];
  return letter + std::to_string(a) + " (R2X " + Percent(row.r2x) + ")";
}

// The merge tree with leaves along the bottom, coloured by class (or, without classes, by the
// clusters of a cut); the branches of each cluster of a cut have the cluster's colour, and the
// cut itself is a dashed line between the merges it undoes and keeps. Leaf names are drawn where
// they fit at a readable size (every name, or every second, third... one); every leaf has its
// name as hover text over its whole column.
std::string Dendrogram(const ClusterResult& r) {
  const std::size_t n = r.leaf_order.size();
  constexpr int kWidth = 1080, kLeft = 64, kRight = 130, kFont = 10;
  const double spacing = static_cast<double>(kWidth - kLeft - kRight) / static_cast<double>(n);
  // Rotated names sit side by side: one per slot when the slots are as wide as the text is high.
  const std::size_t stride = static_cast<std::size_t>(std::ceil((kFont + 1.0) / spacing));
  const bool labels = stride <= 8;  // sparser than that, a few names do not help
  std::size_t longest = 0;
  for (const std::string& name : r.data.row_names) longest = std::max(longest, name.size());
  const int label_room =
      labels ? 12 + static_cast<int>(0.6 * kFont *
                                     static_cast<double>(std::min<std::size_t>(longest, 40)))
             : 0;
  const int bottom = labels ? label_room + 40 : 50;
  std::string x_label = "Observations (" + std::to_string(n) + ")";
  if (labels && stride > 1) {
    x_label += ", every " + std::to_string(stride) +
               (stride == 2   ? "nd"
                : stride == 3 ? "rd"
                              : "th") +
               " named; hover for the others";
  }
  SvgPlot plot(kWidth, 350 + bottom, "Dendrogram (" + r.method + ")", x_label, "Merge height");
  std::vector<std::string> groups = r.data.classes;
  std::string group_name = r.data.class_name;
  std::vector<std::string> order;
  if (groups.empty() && r.cut > 0) {
    // Clusters in number order (1 is not always the leftmost), for the legend and the colours.
    for (int c = 1; c <= r.cut; ++c) order.push_back(std::to_string(c));
    for (const int c : r.membership) groups.push_back(std::to_string(c));
    group_name = "Cluster";
  }
  std::vector<std::string> seen;
  auto colours = ClassColours(order.empty() ? groups : order, seen);
  order = seen;
  plot.SetMargins(kLeft, kRight, 34, bottom);
  const double top = r.nodes.back().height;
  plot.SetXRange(-0.5, static_cast<double>(n) - 0.5, false);
  plot.SetYRange(0, top > 0 ? top * 1.04 : 1, false);
  plot.SetXTickLabelsHidden();
  // The colour of every node's branches: that of the cut cluster it belongs to, else dark grey.
  // Cluster colours follow the class colours so that the two never share one.
  std::vector<const char*> branch(r.nodes.size(), "#333");
  const bool by_class = !r.data.classes.empty();
  auto cluster_colour = [&](int c) {
    return by_class ? SeriesColour(order.size() + static_cast<std::size_t>(c) - 1)
                    : colours.at(std::to_string(c));
  };
  if (r.cut > 1) {
    for (const int root : TopClusters(r, r.cut)) {
      std::vector<int> stack = {root}, inside;
      int cluster = 0;
      while (!stack.empty()) {
        const int at = stack.back();
        stack.pop_back();
        inside.push_back(at);
        const auto& node = r.nodes[static_cast<std::size_t>(at)];
        if (node.left < 0) {
          cluster = r.membership[static_cast<std::size_t>(node.row)];
        } else {
          stack.push_back(node.left);
          stack.push_back(node.right);
        }
      }
      for (const int at : inside) branch[static_cast<std::size_t>(at)] = cluster_colour(cluster);
    }
  }
  for (std::size_t at = 0; at < r.nodes.size(); ++at) {
    const auto& node = r.nodes[at];
    if (node.left < 0) continue;
    const auto& l = r.nodes[static_cast<std::size_t>(node.left)];
    const auto& rt = r.nodes[static_cast<std::size_t>(node.right)];
    plot.Line(l.x, l.height, l.x, node.height, branch[static_cast<std::size_t>(node.left)], "", 1);
    plot.Line(rt.x, rt.height, rt.x, node.height, branch[static_cast<std::size_t>(node.right)], "",
              1);
    plot.Line(l.x, node.height, rt.x, node.height, branch[at], "", 1);
  }
  if (r.cut > 1) {
    // Midway between the highest merge kept and the lowest one undone.
    std::vector<double> heights;
    for (const auto& node : r.nodes) {
      if (node.left >= 0) heights.push_back(node.height);
    }
    std::sort(heights.rbegin(), heights.rend());
    const std::size_t undone = static_cast<std::size_t>(r.cut) - 1;
    if (undone < heights.size()) {
      const double kept = undone < heights.size() - 1 ? heights[undone] : 0;
      plot.HLine(0.5 * (kept + heights[undone - 1]), "#d62728", "6 4",
                 "cut: " + std::to_string(r.cut) + " clusters");
    }
  }
  for (std::size_t s = 0; s < n; ++s) {
    const std::size_t obs = static_cast<std::size_t>(r.leaf_order[s]);
    const char* colour = groups.empty() ? "#333" : colours.at(groups[obs]);
    std::string tip = r.data.row_names[obs];
    if (!r.data.classes.empty()) tip += " (" + r.data.class_name + " " + r.data.classes[obs] + ")";
    if (r.cut > 0) tip += ", cluster " + std::to_string(r.membership[obs]);
    plot.Point(static_cast<double>(s), 0, colour, tip, std::min(3.0, 0.45 * spacing));
    const double px = plot.X(static_cast<double>(s));
    char box[160];
    // The hover target: the leaf's slot from the axis down through the names.
    std::snprintf(box, sizeof box,
                  "<rect x=\"%.1f\" y=\"%d\" width=\"%.2f\" height=\"%d\" fill=\"#000\" "
                  "fill-opacity=\"0\"><title>",
                  px - 0.5 * spacing, plot.Bottom(), spacing, label_room + 8);
    plot.Raw(std::string(box) + Escape(tip) + "</title></rect>\n");
    if (labels && s % stride == 0) {
      std::string name = r.data.row_names[obs];
      if (name.size() > 40) name = name.substr(0, 39) + "\u2026";
      char head[128];
      std::snprintf(head, sizeof head, "<text transform=\"translate(%.1f,%.1f) rotate(-90)\" ",
                    px + 0.35 * kFont, plot.Bottom() + 6.0);
      plot.Raw(std::string(head) + "text-anchor=\"end\" font-size=\"" + std::to_string(kFont) +
               "\" fill=\"" + colour + "\" pointer-events=\"none\">" + Escape(name) + "</text>\n");
    }
  }
  for (const std::string& c : order) plot.AddLegend(group_name + " " + c, colours.at(c));
  if (by_class && r.cut > 1) {
    for (int c = 1; c <= r.cut; ++c) {
      plot.AddLegend("Cluster " + std::to_string(c), cluster_colour(c), true);
    }
  }
  return plot.Svg();
}

std::string ChartPanel(const ChartResult& r, const ChartResult::Panel& p) {
  const std::string unit = r.subgroup == 1 ? "Observation" : "Subgroup";
  SvgPlot plot(860, 360, p.name + " chart of " + r.column, unit, p.name);
  plot.SetMargins(64, 150, 34, 50);
  const bool cusum = p.name == "CuSum";
  Range yr;
  for (const double v : p.values) yr.Add(v);
  for (const double v : p.extra) yr.Add(cusum && Present(v) ? -v : v);
  for (const double v : {p.centre, p.lower, p.upper}) yr.Add(v);
  if (yr.Empty()) return "";
  const int count = static_cast<int>(p.values.size());
  plot.SetXRange(0.5, count + 0.5, false);
  plot.SetYRange(yr.lo, yr.hi);
  if (r.baseline < count) {
    const double edge = r.baseline + 0.5;
    plot.VLine(edge, "#777", "2 3", "end of baseline");
  }
  if (Present(p.upper))
    plot.HLine(p.upper, "#d62728", "6 4", (cusum ? "h " : "UCL ") + Fixed(p.upper));
  if (Present(p.lower))
    plot.HLine(p.lower, "#d62728", "6 4", (cusum ? "-h " : "LCL ") + Fixed(p.lower));
  if (Present(p.centre))
    plot.HLine(p.centre, "#2ca02c", "", (cusum ? "0" : "CL ") + (cusum ? "" : Fixed(p.centre)));
  auto series = [&](const std::vector<double>& values, double sign, const char* colour) {
    std::vector<std::pair<double, double>> line;
    for (int i = 1; i <= count; ++i) {
      const double v = values[static_cast<std::size_t>(i - 1)];
      if (Present(v)) line.emplace_back(i, sign * v);
    }
    plot.Polyline(line, colour, 1.2);
  };
  if (!p.extra.empty()) {
    series(p.extra, cusum ? -1.0 : 1.0, cusum ? SeriesColour(4) : "#aaa");
    plot.AddLegend(cusum ? "Lower sum (down)" : "Subgroup mean", cusum ? SeriesColour(4) : "#aaa",
                   true);
  }
  series(p.values, 1.0, SeriesColour(0));
  plot.AddLegend(cusum ? "Upper sum" : p.name, SeriesColour(0), true);
  std::vector<bool> out(static_cast<std::size_t>(count) + 1, false);
  for (const int i : p.outside) out[static_cast<std::size_t>(i)] = true;
  for (int i = 1; i <= count; ++i) {
    const double v = p.values[static_cast<std::size_t>(i - 1)];
    if (!Present(v)) continue;
    plot.Point(i, v, out[static_cast<std::size_t>(i)] ? "#d62728" : SeriesColour(0),
               unit + " " + std::to_string(i) + ": " + Fixed(v, 4),
               out[static_cast<std::size_t>(i)] ? 4.5 : 2.5);
  }
  plot.AddLegend("Outside limits", "#d62728");
  return plot.Svg();
}

}  // namespace

Report::Report(std::string title) : title_(std::move(title)) {}

void Report::AddPca(const ModelResult& r) {
  std::ostringstream os;
  const Dataset& d = r.data;
  os << "<section><h2>PCA of " << Escape(d.path) << "</h2>\n<p>" << d.x.SizeRows()
     << " observations, " << d.x.SizeColumns() << " variables, scaling "
     << Escape(r.settings.scaling) << ", " << r.settings.groups << " cross-validation groups: <b>"
     << r.components << " significant component" << (r.components == 1 ? "" : "s") << "</b>.</p>\n"
     << ComponentTable(r, false);
  if (r.components >= 1) {
    const int b = r.components >= 2 ? 2 : 0;
    os << Figure(
              ScorePlot("Scores", r.tprim, 1, b, d.row_names, d.classes, d.class_name,
                        b ? AxisName("t", 1, r) : "Observation", AxisName("t", b ? 2 : 1, r),
                        &r.diagnostics),
              "Score plot: each point is an observation" +
                  (d.class_name.empty() ? std::string() : ", coloured by " + Escape(d.class_name)) +
                  "; the 95% and 99% T2 limits (ellipses; lines for a single component) hold "
                  "that share of the observations a model like this expects, and those "
                  "outside the 99% one are named.")
       << Figure(LoadingPlot("Loadings", r.pprim, d.x_names, nullptr, {}, 1, b,
                             b ? AxisName("p", 1, r) : "Variable", AxisName("p", b ? 2 : 1, r)),
                 "Loading plot: variables far from the origin shape the components; variables "
                 "close together are correlated.");
  }
  os << DiagnosticsFigures(r.diagnostics, d.row_names, "")
     << ContributionFigure(r.diagnostics, d.row_names, d.x_names)
     << Figure(SummaryBars(r, false),
               "Cumulative R2X and Q2, and each component's Q2 against the limit it must exceed "
               "to be kept.")
     << "</section>\n";
  body_ += os.str();
}

void Report::AddPls(const ModelResult& r) {
  std::ostringstream os;
  const Dataset& d = r.data;
  os << "<section><h2>PLS of " << Escape(d.path) << "</h2>\n<p>" << d.x.SizeRows()
     << " observations, " << d.x.SizeColumns() << " X variables, responses ";
  for (std::size_t m = 0; m < d.y_names.size(); ++m) os << (m ? ", " : "") << Escape(d.y_names[m]);
  os << "; scaling " << Escape(r.settings.scaling) << ": <b>" << r.components
     << " significant component" << (r.components == 1 ? "" : "s") << "</b>.</p>\n"
     << ComponentTable(r, true);
  if (r.components >= 1) {
    const int b = r.components >= 2 ? 2 : 0;
    os << Figure(ScorePlot("X scores", r.tprim, 1, b, d.row_names, d.classes, d.class_name,
                           b ? AxisName("t", 1, r) : "Observation", AxisName("t", b ? 2 : 1, r),
                           &r.diagnostics),
                 "Score plot of the X scores with the 95% and 99% T2 ellipses; observations "
                 "outside the 99% one are named.")
       << Figure(LoadingPlot("Weights w* and c", r.wstar_prim, d.x_names, &r.cprim, d.y_names, 1, b,
                             b ? AxisName("w*c", 1, r) : "Variable", AxisName("w*c", b ? 2 : 1, r)),
                 "X variables near a response relate to it positively; opposite it, negatively.");
    const diagnostics::PredictionErrors fit = diagnostics::PredictionError(d.y, r.fitted);
    for (std::size_t m = 0; m < d.y_names.size() && m < 4; ++m) {
      const std::vector<std::string> notes = {"R2 " + Fixed(fit.r2[m]),
                                              "RMSEE " + Fixed(r.rmsee[m], 4),
                                              "RMSECV " + Fixed(r.rmsecv[m], 4)};
      os << Figure(
          ObservedPredicted("Observed and fitted " + d.y_names[m], d.y, r.fitted,
                            static_cast<int>(m) + 1, d.row_names, d.y_names[m], "Fitted", notes),
          "Fitted against observed " + Escape(d.y_names[m]) +
              "; the dashed line is a perfect fit. RMSEE is the error of the fit, RMSECV "
              "that of cross-validation, both in the units of " +
              Escape(d.y_names[m]) + ".");
    }
    // Most important first; 1 is the customary threshold (the squares average to 1).
    std::vector<std::size_t> order = NaturalOrder(d.x_names.size());
    std::stable_sort(order.begin(), order.end(),
                     [&](std::size_t i, std::size_t j) { return r.vip[i] > r.vip[j]; });
    os << Figure(
        VariableBars("Variable importance (VIP)", "VIP", d.x_names, r.vip, order, 1, "VIP 1"),
        "Variables above 1 matter most to the model of all responses; those well below "
        "1 could be left out.");
    for (std::size_t m = 0; m < d.y_names.size() && m < 4; ++m) {
      std::vector<double> b_m;
      for (int j = 1; j <= r.scaled_coefficients.SizeRows(); ++j) {
        b_m.push_back(r.scaled_coefficients[j][static_cast<int>(m) + 1]);
      }
      os << Figure(VariableBars("Coefficients for " + d.y_names[m], "Coefficient (scaled)",
                                d.x_names, b_m, NaturalOrder(d.x_names.size()), 0, ""),
                   "Regression coefficients of " + Escape(d.y_names[m]) +
                       " in scaled units, so that variables compare; the table of coefficients "
                       "in the units of the data is in the text and JSON output.");
    }
  }
  os << DiagnosticsFigures(r.diagnostics, d.row_names, "")
     << ContributionFigure(r.diagnostics, d.row_names, d.x_names)
     << Figure(SummaryBars(r, true),
               "Cumulative R2Y and Q2, and each component's Q2 against the limit it must exceed "
               "to be kept.")
     << "</section>\n";
  body_ += os.str();
}

void Report::AddPredict(const PredictResult& r) {
  std::ostringstream os;
  int skipped = 0;
  for (const bool s : r.scored) skipped += !s;
  const Diagnostics& d = r.diagnostics;
  os << "<section><h2>Prediction with " << Escape(r.model_path) << "</h2>\n<p>"
     << r.row_names.size() << " observations scored by a "
     << (r.kind == ModelFile::kPCA ? "PCA" : "PLS") << " model of " << r.components
     << " components fitted on " << Escape(r.model_source) << " (" << d.training_observations
     << " observations); " << skipped << " not scored (more than " << Fixed(100 * r.max_missing, 0)
     << "% missing); " << d.Beyond99().size()
     << " beyond the 99% limits of T2 or SPE. The limits are those of the training set: T2 in "
        "the form for new observations, SPE from the training residuals.</p>\n";
  const int b = r.components >= 2 ? 2 : 0;
  os << Figure(ScorePlot("Predicted scores", r.tprim, 1, b, r.row_names, r.classes, r.class_name,
                         b ? "t1" : "Observation", b ? "t2" : "t1", &d),
               "Scores of the new observations within the training set's 95% and 99% T2 "
               "ellipses; those outside the 99% one are named.")
     << DiagnosticsFigures(d, r.row_names, " of the new observations")
     << ContributionFigure(d, r.row_names, r.x_names);
  if (r.y_observed.SizeRows() > 0) {
    for (std::size_t m = 0; m < r.y_names.size() && m < 4; ++m) {
      std::vector<std::string> notes;
      if (m < r.rmsep.size()) {
        notes = {"RMSEP " + Fixed(r.rmsep[m], 4), "R2 of prediction " + Fixed(r.r2_prediction[m])};
      }
      os << Figure(
          ObservedPredicted("Observed and predicted " + r.y_names[m], r.y_observed, r.y_pred,
                            static_cast<int>(m) + 1, r.row_names, r.y_names[m], "Predicted", notes),
          "Predicted against observed " + Escape(r.y_names[m]) +
              "; RMSEP is the error of prediction in its units.");
    }
  }
  os << "</section>\n";
  body_ += os.str();
}

void Report::AddCluster(const ClusterResult& r) {
  std::ostringstream os;
  os << "<section><h2>Cluster analysis of " << Escape(r.data.path) << "</h2>\n<p>"
     << r.data.x.SizeRows() << " observations, " << r.data.x.SizeColumns() << " variables, scaling "
     << Escape(r.scaling) << ", method " << Escape(r.method) << ": " << r.merges.size()
     << " merges.</p>\n"
     << Figure(Dendrogram(r),
               "Each join is drawn at the height of its merge; the leaves are the "
               "observations.")
     << "</section>\n";
  body_ += os.str();
}

void Report::AddChart(const ChartResult& r) {
  std::ostringstream os;
  os << "<section><h2>Control chart of " << Escape(r.column) << " in " << Escape(r.path)
     << "</h2>\n<p>" << Escape(r.type) << ", "
     << (r.subgroup == 1 ? "single values" : "subgroups of " + std::to_string(r.subgroup))
     << "; limits from the first " << r.baseline << " of " << r.subgroups << "; target "
     << Fixed(r.target, 4) << ", sigma " << Fixed(r.sigma, 4) << ".</p>\n";
  for (const auto& p : r.panels) {
    std::string outside;
    for (std::size_t i = 0; i < p.outside.size(); ++i) {
      outside += (i ? ", " : "") + std::to_string(p.outside[i]);
    }
    os << Figure(ChartPanel(r, p), Escape(p.name) + ": outside the limits: " +
                                       (outside.empty() ? "none" : outside) + ".");
  }
  os << "</section>\n";
  body_ += os.str();
}

std::string Report::Html() const {
  return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" +
         Escape(title_) +
         "</title>\n<style>\n"
         "body{font-family:Helvetica,Arial,sans-serif;margin:2em "
         "auto;max-width:1100px;color:#222}\n"
         "section{margin-bottom:3em;border-top:1px solid #ccc}\n"
         "table{border-collapse:collapse;margin:1em 0}\n"
         "td,th{border:1px solid #ccc;padding:3px 10px;text-align:right}\n"
         "tr.dropped{color:#999}\n"
         "figure{margin:1.5em 0;overflow-x:auto}\n"
         "figcaption{color:#555;font-size:90%}\n"
         "</style></head>\n<body>\n<h1>" +
         Escape(title_) + "</h1>\n" + body_ + "</body></html>\n";
}

}  // namespace mvda::cli
