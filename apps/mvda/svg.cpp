#include "svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace mvda::cli {
namespace {

std::string Num(double v) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.1f", v);
  return buffer;
}

std::string TickText(double v, double step) {
  if (std::fabs(v) < step * 1e-9) v = 0;  // no "-0" or "1e-17" at the origin
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.4g", v);
  return buffer;
}

}  // namespace

std::string Escape(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

const char* SeriesColour(std::size_t k) {
  static const char* const kColours[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e", "#9467bd",
                                         "#8c564b", "#e377c2", "#17becf", "#7f7f7f", "#bcbd22"};
  return kColours[k % 10];
}

SvgPlot::SvgPlot(int width, int height, std::string title, std::string x_label, std::string y_label)
    : width_(width),
      height_(height),
      title_(std::move(title)),
      x_label_(std::move(x_label)),
      y_label_(std::move(y_label)) {}

std::vector<double> SvgPlot::Ticks(double lo, double hi) {
  const double span = hi - lo;
  const double raw = span / 6;
  const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
  double step = magnitude;
  for (const double m : {1.0, 2.0, 2.5, 5.0, 10.0}) {
    step = m * magnitude;
    if (span / step <= 7) break;
  }
  std::vector<double> ticks;
  for (double t = std::ceil(lo / step - 1e-9) * step; t <= hi + step * 1e-9; t += step) {
    ticks.push_back(t);
  }
  return ticks;
}

static void Widen(double& lo, double& hi) {
  if (!(hi > lo)) {
    const double pad = lo != 0 ? std::fabs(lo) * 0.1 : 1.0;
    lo -= pad;
    hi += pad;
  }
}

static void MakeNice(double& lo, double& hi) {
  const double pad = (hi - lo) * 0.04;  // points on the frame are hard to see
  lo -= pad;
  hi += pad;
  const double span = hi - lo;
  const double step = std::pow(10.0, std::floor(std::log10(span / 6)));
  lo = std::floor(lo / step) * step;
  hi = std::ceil(hi / step) * step;
}

void SvgPlot::SetXRange(double lo, double hi, bool nice) {
  Widen(lo, hi);
  if (nice) MakeNice(lo, hi);
  x_lo_ = lo;
  x_hi_ = hi;
}

void SvgPlot::SetYRange(double lo, double hi, bool nice) {
  Widen(lo, hi);
  if (nice) MakeNice(lo, hi);
  y_lo_ = lo;
  y_hi_ = hi;
}

void SvgPlot::SetXCategories(std::vector<std::string> names) {
  categories_ = std::move(names);
  x_lo_ = 0.4;
  x_hi_ = static_cast<double>(categories_.size()) + 0.6;
}

void SvgPlot::SetMargins(int left, int right, int top, int bottom) {
  left_ = left;
  right_ = right;
  top_ = top;
  bottom_ = bottom;
}

double SvgPlot::X(double x) const {
  return Left() + (x - x_lo_) / (x_hi_ - x_lo_) * (Right() - Left());
}

double SvgPlot::Y(double y) const {
  return Bottom() - (y - y_lo_) / (y_hi_ - y_lo_) * (Bottom() - Top());
}

void SvgPlot::Point(double x, double y, const char* colour, const std::string& tip, double radius) {
  body_ << "<circle cx=\"" << Num(X(x)) << "\" cy=\"" << Num(Y(y)) << "\" r=\"" << radius
        << "\" fill=\"" << colour << "\" fill-opacity=\"0.8\" stroke=\"#333\" stroke-width=\"0.4\">"
        << "<title>" << Escape(tip) << "</title></circle>\n";
}

void SvgPlot::Label(double x, double y, const std::string& text, const char* colour, int dx) {
  body_ << "<text x=\"" << Num(X(x) + dx) << "\" y=\"" << Num(Y(y) - 4) << "\" fill=\"" << colour
        << "\" font-size=\"11\">" << Escape(text) << "</text>\n";
}

void SvgPlot::Line(double x1, double y1, double x2, double y2, const char* colour, const char* dash,
                   double width) {
  body_ << "<line x1=\"" << Num(X(x1)) << "\" y1=\"" << Num(Y(y1)) << "\" x2=\"" << Num(X(x2))
        << "\" y2=\"" << Num(Y(y2)) << "\" stroke=\"" << colour << "\" stroke-width=\"" << width
        << "\"" << (*dash ? std::string(" stroke-dasharray=\"") + dash + "\"" : "") << "/>\n";
}

void SvgPlot::Polyline(const std::vector<std::pair<double, double>>& points, const char* colour,
                       double width) {
  if (points.size() < 2) return;
  body_ << "<polyline fill=\"none\" stroke=\"" << colour << "\" stroke-width=\"" << width
        << "\" points=\"";
  for (const auto& [x, y] : points) body_ << Num(X(x)) << "," << Num(Y(y)) << " ";
  body_ << "\"/>\n";
}

void SvgPlot::Bar(double x_lo, double x_hi, double y, const char* colour, const std::string& tip,
                  double opacity) {
  const double base = Y(std::clamp(0.0, y_lo_, y_hi_));
  const double top = Y(y);
  body_ << "<rect x=\"" << Num(X(x_lo)) << "\" y=\"" << Num(std::min(base, top)) << "\" width=\""
        << Num(X(x_hi) - X(x_lo)) << "\" height=\"" << Num(std::fabs(base - top)) << "\" fill=\""
        << colour << "\" fill-opacity=\"" << opacity << "\"><title>" << Escape(tip)
        << "</title></rect>\n";
}

bool SvgPlot::Free(double x0, double y0, double x1, double y1) const {
  return std::none_of(taken_.begin(), taken_.end(), [&](const std::array<double, 4>& r) {
    return x0 < r[2] && x1 > r[0] && y0 < r[3] && y1 > r[1];
  });
}

namespace {
double TextWidth(const std::string& text) { return 6.2 * static_cast<double>(text.size()); }
}  // namespace

void SvgPlot::HLine(double y, const char* colour, const char* dash, const std::string& label) {
  const double py = Y(y);
  body_ << "<line x1=\"" << Left() << "\" y1=\"" << Num(py) << "\" x2=\"" << Right() << "\" y2=\""
        << Num(py) << "\" stroke=\"" << colour << "\" stroke-width=\"1.2\""
        << (*dash ? std::string(" stroke-dasharray=\"") + dash + "\"" : "") << "/>\n";
  if (label.empty()) return;
  // Baselines tried in turn: above the line, below it, then further away on either side.
  const double w = TextWidth(label), x1 = Right() - 4, x0 = x1 - w;
  double chosen = py - 4;
  for (const double base : {py - 4, py + 13, py - 17, py + 26, py - 30, py + 39}) {
    if (base - 10 < Top() || base > Bottom()) continue;
    if (Free(x0, base - 10, x1, base + 2)) {
      chosen = base;
      break;
    }
  }
  taken_.push_back({x0, chosen - 10, x1, chosen + 2});
  body_ << "<text x=\"" << Num(x1) << "\" y=\"" << Num(chosen) << "\" fill=\"" << colour
        << "\" font-size=\"11\" text-anchor=\"end\">" << Escape(label) << "</text>\n";
}

void SvgPlot::VLine(double x, const char* colour, const char* dash, const std::string& label) {
  const double px = X(x);
  body_ << "<line x1=\"" << Num(px) << "\" y1=\"" << Top() << "\" x2=\"" << Num(px) << "\" y2=\""
        << Bottom() << "\" stroke=\"" << colour << "\" stroke-width=\"1.2\""
        << (*dash ? std::string(" stroke-dasharray=\"") + dash + "\"" : "") << "/>\n";
  if (label.empty()) return;
  const double w = TextWidth(label);
  double chosen = Top() + 14;
  for (double base = Top() + 14; base < Bottom(); base += 13) {
    if (Free(px + 4, base - 10, px + 4 + w, base + 2)) {
      chosen = base;
      break;
    }
  }
  taken_.push_back({px + 4, chosen - 10, px + 4 + w, chosen + 2});
  body_ << "<text x=\"" << Num(px + 4) << "\" y=\"" << Num(chosen) << "\" fill=\"" << colour
        << "\" font-size=\"11\">" << Escape(label) << "</text>\n";
}

void SvgPlot::Ellipse(double cx, double cy, double rx, double ry, const char* colour,
                      const char* dash, const std::string& tip) {
  body_ << "<ellipse cx=\"" << Num(X(cx)) << "\" cy=\"" << Num(Y(cy)) << "\" rx=\""
        << Num(std::fabs(X(cx + rx) - X(cx))) << "\" ry=\"" << Num(std::fabs(Y(cy + ry) - Y(cy)))
        << "\" fill=\"none\" stroke=\"" << colour << "\" stroke-width=\"1.2\""
        << (*dash ? std::string(" stroke-dasharray=\"") + dash + "\"" : "") << "><title>"
        << Escape(tip) << "</title></ellipse>\n";
}

void SvgPlot::Reserve(double px, double py, double radius) {
  taken_.push_back({px - radius, py - radius, px + radius, py + radius});
}

bool SvgPlot::PlaceLabel(double px, double py, const std::string& text, const char* colour,
                         bool force) {
  const double w = TextWidth(text), h = 11;
  constexpr int kSpots = 6;  // with force, where every spot is taken the last one is used
  const double offsets[kSpots][2] = {{5, -4},      {5, 11},  {-5 - w, -4},
                                     {-5 - w, 11}, {5, -15}, {5, 22}};
  int spot = -1;
  for (int k = 0; k < kSpots && spot < 0; ++k) {
    const double x0 = px + offsets[k][0], y0 = py + offsets[k][1] - h;
    const bool inside = x0 >= Left() && x0 + w <= Right() && y0 >= Top() && y0 + h <= Bottom();
    if (inside && Free(x0, y0, x0 + w, y0 + h)) spot = k;
  }
  if (spot < 0) {
    if (!force) return false;
    spot = kSpots - 1;
  }
  const double x0 = px + offsets[spot][0], y0 = py + offsets[spot][1] - h;
  taken_.push_back({x0, y0, x0 + w, y0 + h});
  TextAt(x0, py + offsets[spot][1], text, colour);
  return true;
}

void SvgPlot::TextAt(double px, double py, const std::string& text, const char* colour, int size,
                     const char* anchor) {
  body_ << "<text x=\"" << Num(px) << "\" y=\"" << Num(py) << "\" fill=\"" << colour
        << "\" font-size=\"" << size << "\" text-anchor=\"" << anchor << "\">" << Escape(text)
        << "</text>\n";
}

void SvgPlot::AddLegend(const std::string& name, const char* colour, bool line) {
  legend_.push_back({name, {colour, line}});
}

std::string SvgPlot::Axes() const {
  std::ostringstream os;
  os << "<rect x=\"" << Left() << "\" y=\"" << Top() << "\" width=\"" << Right() - Left()
     << "\" height=\"" << Bottom() - Top() << "\" fill=\"#fcfcfc\" stroke=\"#444\"/>\n";
  const std::vector<double> y_ticks = Ticks(y_lo_, y_hi_);
  const double y_step = y_ticks.size() > 1 ? y_ticks[1] - y_ticks[0] : 1;
  for (const double t : y_ticks) {
    os << "<line x1=\"" << Left() << "\" y1=\"" << Num(Y(t)) << "\" x2=\"" << Right() << "\" y2=\""
       << Num(Y(t)) << "\" stroke=\"#e4e4e4\"/>"
       << "<text x=\"" << Left() - 6 << "\" y=\"" << Num(Y(t) + 4)
       << "\" text-anchor=\"end\" font-size=\"11\">" << TickText(t, y_step) << "</text>\n";
  }
  if (!categories_.empty()) {
    for (std::size_t k = 0; k < categories_.size(); ++k) {
      os << "<text x=\"" << Num(X(static_cast<double>(k) + 1)) << "\" y=\"" << Bottom() + 16
         << "\" text-anchor=\"middle\" font-size=\"11\">" << Escape(categories_[k]) << "</text>\n";
    }
  } else if (!hide_x_ticks_) {
    const std::vector<double> x_ticks = Ticks(x_lo_, x_hi_);
    const double x_step = x_ticks.size() > 1 ? x_ticks[1] - x_ticks[0] : 1;
    for (const double t : x_ticks) {
      os << "<line x1=\"" << Num(X(t)) << "\" y1=\"" << Top() << "\" x2=\"" << Num(X(t))
         << "\" y2=\"" << Bottom() << "\" stroke=\"#e4e4e4\"/>"
         << "<text x=\"" << Num(X(t)) << "\" y=\"" << Bottom() + 16
         << "\" text-anchor=\"middle\" font-size=\"11\">" << TickText(t, x_step) << "</text>\n";
    }
  }
  os << "<text x=\"" << (Left() + Right()) / 2 << "\" y=\"" << height_ - 10
     << "\" text-anchor=\"middle\" font-size=\"13\">" << Escape(x_label_) << "</text>\n"
     << "<text transform=\"translate(16," << (Top() + Bottom()) / 2
     << ") rotate(-90)\" text-anchor=\"middle\" font-size=\"13\">" << Escape(y_label_)
     << "</text>\n"
     << "<text x=\"" << Left() << "\" y=\"20\" font-size=\"14\" font-weight=\"bold\">"
     << Escape(title_) << "</text>\n";
  return os.str();
}

std::string SvgPlot::Svg() const {
  std::ostringstream os;
  os << "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " << width_ << " " << height_
     << "\" width=\"" << width_ << "\" height=\"" << height_ << "\" role=\"img\" "
     << "font-family=\"Helvetica, Arial, sans-serif\"><title>" << Escape(title_) << "</title>\n"
     << Axes() << body_.str();
  for (std::size_t k = 0; k < legend_.size(); ++k) {
    const auto& [name, style] = legend_[k];
    const int x = Right() + 12, y = Top() + 8 + 18 * static_cast<int>(k);
    if (style.second) {
      os << "<line x1=\"" << x << "\" y1=\"" << y << "\" x2=\"" << x + 14 << "\" y2=\"" << y
         << "\" stroke=\"" << style.first << "\" stroke-width=\"2.5\"/>";
    } else {
      os << "<rect x=\"" << x << "\" y=\"" << y - 6 << "\" width=\"12\" height=\"12\" fill=\""
         << style.first << "\"/>";
    }
    os << "<text x=\"" << x + 18 << "\" y=\"" << y + 4 << "\" font-size=\"12\">" << Escape(name)
       << "</text>\n";
  }
  os << "</svg>";
  return os.str();
}

}  // namespace mvda::cli
