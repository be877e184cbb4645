// SvgPlot, a chart on a pair of numeric axes drawn as an SVG element, and the escaping of text
// for HTML and SVG. The report's pictures are all built from it.
#ifndef MVDA_APPS_MVDA_SVG_H_
#define MVDA_APPS_MVDA_SVG_H_

#include <array>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace mvda::cli {

std::string Escape(const std::string& text);  // & < > " for HTML text and attributes

// The colour of series or class k (0-based): ten colours that stay apart for colour-blind eyes,
// then round again.
const char* SeriesColour(std::size_t k);

// A plot area with axes. Data coordinates go through X() and Y(); the ranges are widened to
// round tick values. Everything drawn is kept in order and Svg() wraps it with the frame, the
// ticks, the axis labels, the title and the legend.
class SvgPlot {
 public:
  SvgPlot(int width, int height, std::string title, std::string x_label, std::string y_label);

  // Data ranges; a range of zero width is widened around its value. With `nice` the ends move
  // out to the nearest ticks.
  void SetXRange(double lo, double hi, bool nice = true);
  void SetYRange(double lo, double hi, bool nice = true);
  // Tick labels on the x axis at 1..n taken from names (categories) instead of numbers.
  void SetXCategories(std::vector<std::string> names);
  void SetXTickLabelsHidden() { hide_x_ticks_ = true; }

  double XLo() const { return x_lo_; }
  double XHi() const { return x_hi_; }
  double YLo() const { return y_lo_; }
  double YHi() const { return y_hi_; }
  double X(double x) const;
  double Y(double y) const;
  int Left() const { return left_; }
  int Right() const { return width_ - right_; }
  int Top() const { return top_; }
  int Bottom() const { return height_ - bottom_; }

  void Point(double x, double y, const char* colour, const std::string& tip, double radius = 3.5);
  void Label(double x, double y, const std::string& text, const char* colour, int dx = 5);
  // A line in data coordinates; dash "" for a solid one.
  void Line(double x1, double y1, double x2, double y2, const char* colour, const char* dash = "",
            double width = 1.5);
  void Polyline(const std::vector<std::pair<double, double>>& points, const char* colour,
                double width = 1.5);
  void Bar(double x_lo, double x_hi, double y, const char* colour, const std::string& tip,
           double opacity = 1.0);
  // A horizontal reference line across the plot with its name and value inside the plot at its
  // right end: just above the line, or below it where another label already sits there.
  void HLine(double y, const char* colour, const char* dash, const std::string& label);
  // A vertical reference line with its label just right of it at the top of the plot (or lower
  // down where that spot is taken).
  void VLine(double x, const char* colour, const char* dash, const std::string& label);
  // An ellipse in data coordinates (centre and semi-axes), unfilled.
  void Ellipse(double cx, double cy, double rx, double ry, const char* colour, const char* dash,
               const std::string& tip);
  // A name beside the point at pixel (px, py): right of it, or left, above or below it where
  // another placed label (or a reference-line label, or a reserved point) already is, always
  // inside the plot area. Returns false, drawing nothing, when every spot is taken (with force,
  // the last spot is used anyway).
  bool PlaceLabel(double px, double py, const std::string& text, const char* colour,
                  bool force = true);
  // Keeps later labels off a point (pixel centre and radius), e.g. the other named points.
  void Reserve(double px, double py, double radius);
  // Text at a pixel position (labels placed by the caller).
  void TextAt(double px, double py, const std::string& text, const char* colour, int size = 11,
              const char* anchor = "start");
  // Raw SVG in pixel coordinates (dendrogram leaf labels).
  void Raw(const std::string& svg) { body_ << svg; }
  void AddLegend(const std::string& name, const char* colour, bool line = false);
  // Extra room under the plot (rotated leaf labels) and at the right (legend, limit labels).
  void SetMargins(int left, int right, int top, int bottom);

  std::string Svg() const;

 private:
  static std::vector<double> Ticks(double lo, double hi);
  std::string Axes() const;

  int width_, height_;
  int left_ = 64, right_ = 24, top_ = 34, bottom_ = 50;
  std::string title_, x_label_, y_label_;
  double x_lo_ = 0, x_hi_ = 1, y_lo_ = 0, y_hi_ = 1;
  std::vector<std::string> categories_;
  bool hide_x_ticks_ = false;
  std::vector<std::pair<std::string, std::pair<const char*, bool>>> legend_;
  std::ostringstream body_;
  // Pixel boxes (x0, y0, x1, y1) of the labels placed so far, which later labels keep clear of.
  std::vector<std::array<double, 4>> taken_;
  bool Free(double x0, double y0, double x1, double y1) const;
};

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_SVG_H_
