#include <mvda/diagnostics/detail/checks.h>
#include <mvda/diagnostics/pls_diagnostics.h>
#include <mvda/platform/error.h>

#include <cmath>
#include <string>

namespace mvda::diagnostics {
namespace {

constexpr float kMis = -99.0f;
using Matrix = NCDataMatrix<float>;

// Multiplier and centre of a scaled variable; a variable left unscaled or uncentred has -99 there.
double Factor(const NCScale& s, int j) {
  const float f = s.GetScale()[j];
  return f == kMis ? 1.0 : f;
}
double Centre(const NCScale& s, int j) {
  const float m = s.GetMean()[j];
  return m == kMis ? 0.0 : m;
}

void CheckComponents(const NCPLS& model, const char* place) {
  if (model.GetComponents() < 1) throw NCError(std::string(place) + ": the model has no component");
}

void CheckScale(const NCScale& scale, int variables, const char* what, const char* place) {
  if (scale.Size() != variables || scale.GetMean().Size() != variables ||
      scale.GetScale().Size() != variables) {
    throw NCError(std::string(place) + ": the " + what + " scaling has " +
                  std::to_string(scale.Size()) + " variables, the model " +
                  std::to_string(variables));
  }
}

void CheckSameShape(const Matrix& a, const Matrix& b, const char* place) {
  if (a.SizeRows() != b.SizeRows() || a.SizeColumns() != b.SizeColumns()) {
    throw NCError(std::string(place) + ": observed Y is " + std::to_string(a.SizeRows()) + " x " +
                  std::to_string(a.SizeColumns()) + ", the estimate " +
                  std::to_string(b.SizeRows()) + " x " + std::to_string(b.SizeColumns()));
  }
}

}  // namespace

std::vector<double> VIP(const NCPLS& model) {
  const char* place = "VIP";
  CheckComponents(model, place);
  const Matrix &w = *model.GetWprim(), &t = *model.GetTprim(), &c = *model.GetCprim();
  const int a_count = model.GetComponents(), k_count = w.SizeColumns();
  std::vector<double> weighted(static_cast<std::size_t>(k_count), 0.0);
  double ssy_total = 0;
  for (int a = 1; a <= a_count; ++a) {
    double tt = 0, cc = 0, ww = 0;
    for (const float v : t[a]) tt += v == kMis ? 0.0 : static_cast<double>(v) * v;
    for (const float v : c[a]) cc += v == kMis ? 0.0 : static_cast<double>(v) * v;
    for (const float v : w[a]) ww += v == kMis ? 0.0 : static_cast<double>(v) * v;
    const double ssy = tt * cc;
    // A component whose weights vanish explains nothing through any variable.
    if (!(ww > 0.0) || !(ssy > 0.0)) continue;
    ssy_total += ssy;
    for (int k = 1; k <= k_count; ++k) {
      const float v = w[a][k];
      if (v != kMis) weighted[static_cast<std::size_t>(k - 1)] += ssy * v * v / ww;
    }
  }
  if (!(ssy_total > 0.0 && std::isfinite(ssy_total))) {
    throw NCError(std::string(place) + ": the model's components explain no Y variation");
  }
  for (double& v : weighted) v = std::sqrt(k_count * v / ssy_total);
  return weighted;
}

PLSCoefficients RegressionCoefficients(const NCPLS& model, const NCScale& xScale,
                                       const NCScale& yScale) {
  const char* place = "RegressionCoefficients";
  const int k_count = model.GetWprim()->SizeColumns(), m_count = model.GetCprim()->SizeColumns();
  CheckScale(xScale, k_count, "X", place);
  CheckScale(yScale, m_count, "Y", place);
  PLSCoefficients result;
  result.scaled = model.GetRegressionCoefficients(-1);
  result.original = Matrix(k_count, m_count, 0.0f);
  // y = my + sum_k (B_k fx_k / fy) (x_k - mx_k), from x_s = (x - mx) fx and y_s = (y - my) fy.
  for (int r = 1; r <= m_count; ++r) {
    double intercept = Centre(yScale, r);
    for (int j = 1; j <= k_count; ++j) {
      const double coefficient =
          static_cast<double>(result.scaled[j][r]) * Factor(xScale, j) / Factor(yScale, r);
      result.original(j, r, static_cast<float>(coefficient));
      intercept -= coefficient * Centre(xScale, j);
    }
    result.intercepts.push_back(intercept);
  }
  return result;
}

NCDataMatrix<float> FittedY(const NCPLS& model, const NCScale& yScale) {
  const Matrix &t = *model.GetTprim(), &c = *model.GetCprim();
  const int a_count = model.GetComponents(), n = t.SizeColumns(), m_count = c.SizeColumns();
  CheckScale(yScale, m_count, "Y", "FittedY");
  Matrix fitted(n, m_count, kMis);
  for (int i = 1; i <= n; ++i) {
    for (int r = 1; r <= m_count; ++r) {
      double sum = 0;
      bool present = true;
      for (int a = 1; a <= a_count; ++a) {
        if (t[a][i] == kMis) present = false;
        if (c[a][r] != kMis) sum += static_cast<double>(t[a][i]) * c[a][r];
      }
      if (present) fitted(i, r, static_cast<float>(sum / Factor(yScale, r) + Centre(yScale, r)));
    }
  }
  return fitted;
}

std::vector<double> RMSEE(const NCDataMatrix<float>& yObserved, const NCDataMatrix<float>& yFitted,
                          int components) {
  const char* place = "RMSEE";
  CheckSameShape(yObserved, yFitted, place);
  if (components < 0) {
    throw NCError(std::string(place) + ": " + std::to_string(components) + " components");
  }
  const int n = yObserved.SizeRows(), m_count = yObserved.SizeColumns();
  if (n <= components + 1) {
    throw NCError(std::string(place) + ": " + std::to_string(n) + " observations are too few for " +
                  std::to_string(components) + " components (more than A + 1 are needed)");
  }
  std::vector<double> result(static_cast<std::size_t>(m_count), kMissing);
  for (int r = 1; r <= m_count; ++r) {
    double ss = 0;
    int count = 0;
    for (int i = 1; i <= n; ++i) {
      const float y = yObserved[i][r], f = yFitted[i][r];
      if (y == kMis || f == kMis) continue;
      ss += (static_cast<double>(y) - f) * (static_cast<double>(y) - f);
      ++count;
    }
    if (count > components + 1) {
      result[static_cast<std::size_t>(r - 1)] = std::sqrt(ss / (count - components - 1));
    }
  }
  return result;
}

std::vector<double> RMSECV(const NCPLS& model, const NCDataMatrix<float>& yScaled,
                           const std::vector<double>& q2LastComponent, const NCScale& yScale) {
  const char* place = "RMSECV";
  CheckComponents(model, place);
  const Matrix &t = *model.GetTprim(), &c = *model.GetCprim();
  const int a_count = model.GetComponents(), n = t.SizeColumns(), m_count = c.SizeColumns();
  if (yScaled.SizeRows() != n || yScaled.SizeColumns() != m_count) {
    throw NCError(std::string(place) + ": Y is " + std::to_string(yScaled.SizeRows()) + " x " +
                  std::to_string(yScaled.SizeColumns()) + ", the model has " + std::to_string(n) +
                  " observations and " + std::to_string(m_count) + " responses");
  }
  if (static_cast<int>(q2LastComponent.size()) != m_count) {
    throw NCError(std::string(place) + ": " + std::to_string(q2LastComponent.size()) +
                  " Q2 values for " + std::to_string(m_count) + " responses");
  }
  CheckScale(yScale, m_count, "Y", place);
  std::vector<double> result(static_cast<std::size_t>(m_count), kMissing);
  for (int r = 1; r <= m_count; ++r) {
    // SS of the Y residuals before the last component, deflated as the model deflates: a product
    // with a missing factor leaves the element alone.
    double ss = 0;
    int count = 0;
    for (int i = 1; i <= n; ++i) {
      const float y = yScaled[i][r];
      if (y == kMis) continue;
      double e = y;
      for (int a = 1; a < a_count; ++a) {
        if (t[a][i] != kMis && c[a][r] != kMis) e -= static_cast<double>(t[a][i]) * c[a][r];
      }
      ss += e * e;
      ++count;
    }
    if (count == 0) continue;
    const double q2 = q2LastComponent[static_cast<std::size_t>(r - 1)];
    if (!std::isfinite(q2) || q2 > 1.0) {
      throw NCError(std::string(place) + ": Q2 " + detail::Number(q2) + " of response " +
                    std::to_string(r) + " is not a Q2");
    }
    const double press = (1.0 - q2) * ss;
    result[static_cast<std::size_t>(r - 1)] = std::sqrt(press / count) / Factor(yScale, r);
  }
  return result;
}

PredictionErrors PredictionError(const NCDataMatrix<float>& yObserved,
                                 const NCDataMatrix<float>& yPredicted) {
  CheckSameShape(yObserved, yPredicted, "PredictionError");
  const int n = yObserved.SizeRows(), m_count = yObserved.SizeColumns();
  PredictionErrors result;
  for (int r = 1; r <= m_count; ++r) {
    double sum = 0, press = 0;
    int count = 0;
    for (int i = 1; i <= n; ++i) {
      const float y = yObserved[i][r], p = yPredicted[i][r];
      if (y == kMis || p == kMis) continue;
      sum += y;
      press += (static_cast<double>(y) - p) * (static_cast<double>(y) - p);
      ++count;
    }
    double ss = 0;
    if (count > 0) {
      const double mean = sum / count;
      for (int i = 1; i <= n; ++i) {
        const float y = yObserved[i][r], p = yPredicted[i][r];
        if (y != kMis && p != kMis) ss += (y - mean) * (y - mean);
      }
    }
    result.count.push_back(count);
    result.rmsep.push_back(count > 0 ? std::sqrt(press / count) : kMissing);
    result.r2.push_back(count >= 2 && ss > 0.0 ? 1.0 - press / ss : kMissing);
  }
  return result;
}

}  // namespace mvda::diagnostics
