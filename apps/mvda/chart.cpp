#include <mvda/containers/data_vector.h>
#include <mvda/spc/control_chart.h>

#include <cmath>
#include <cstdio>

#include "analysis.h"
#include "column_names.h"
#include "tool_error.h"

namespace mvda::cli {
namespace {

constexpr double kMissing = -99.0;

// The bias factors d2(n) and c4(n) as the library's tables hold them: a chart told that the
// process standard deviation is 1 reports mean range d2 and mean standard deviation c4.
double FactorD2(int n) {
  ControlChart chart(ControlChart::kMeanRange, NCDataVector<float>(n, 0.0f), n);
  chart.SetStdDevSubgroup(1.0);
  return chart.GetRangeMean();
}

double FactorC4(int n) {
  ControlChart chart(ControlChart::kMeanStdDev, NCDataVector<float>(n, 0.0f), n);
  chart.SetStdDevSubgroup(1.0);
  return chart.GetStdDevMean();
}

ControlChart::ControlType TypeCode(const std::string& type) {
  if (type == "individual") return ControlChart::kIndividual;
  if (type == "mean-range") return ControlChart::kMeanRange;
  if (type == "mean-stddev") return ControlChart::kMeanStdDev;
  if (type == "cusum") return ControlChart::kCuSum;
  if (type == "ewma") return ControlChart::kEWMA;
  throw ToolError("--type " + type +
                  ": expected individual, mean-range, mean-stddev, cusum or ewma");
}

std::string Number(double v) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.4g", v);
  return buffer;
}

std::vector<double> Values(const NCDataVector<float>& v) { return {v.begin(), v.end()}; }

ChartResult::Panel MakePanel(const std::string& name, const NCDataVector<float>& values,
                             double centre, double lower, double upper) {
  ChartResult::Panel panel;
  panel.name = name;
  panel.values = Values(values);
  panel.centre = centre;
  panel.lower = lower;
  panel.upper = upper;
  for (std::size_t i = 0; i < panel.values.size(); ++i) {
    const double v = panel.values[i];
    if (v == kMissing) continue;
    if ((upper != kMissing && v > upper) || (lower != kMissing && v < lower)) {
      panel.outside.push_back(static_cast<int>(i) + 1);
    }
  }
  return panel;
}

// Mean of the moving ranges |x_i - x_(i-1)| of neighbours that are both present.
double MeanMovingRange(const NCDataVector<float>& x) {
  double sum = 0;
  int count = 0;
  for (int i = 2; i <= x.Size(); ++i) {
    if (x[i] == kMissing || x[i - 1] == kMissing) continue;
    sum += std::fabs(static_cast<double>(x[i]) - x[i - 1]);
    ++count;
  }
  return count > 0 ? sum / count : kMissing;
}

}  // namespace

ChartResult Chart(const CsvTable& table, const ChartSettings& settings) {
  const ControlChart::ControlType type = TypeCode(settings.type);
  const int column = table.Find(settings.column);
  if (column < 0) throw ToolError(NoSuchColumn(table.path, table.columns, settings.column, "--column"));
  const bool individual = type == ControlChart::kIndividual;
  const int n = settings.subgroup > 0 ? settings.subgroup : (individual ? 1 : 5);
  if (individual && n != 1) {
    throw ToolError("--subgroup " + std::to_string(n) +
                    ": an individual chart plots single values");
  }
  // The factor tables of the subgroup charts run from 2 to 25 values.
  if (!individual && (n < 2 || n > 25)) {
    throw ToolError("--subgroup " + std::to_string(n) + ": " + settings.type +
                    " charts need subgroups of 2 to 25 values");
  }
  const int rows = table.Rows();
  const int groups = rows / n;
  if (groups < 2) {
    throw ToolError(table.path + ": " + std::to_string(rows) +
                    " values make fewer than 2 subgroups of " + std::to_string(n));
  }
  const int baseline = settings.baseline > 0 ? settings.baseline : groups;
  if (baseline < 2 || baseline > groups) {
    throw ToolError("--baseline " + std::to_string(settings.baseline) + ": between 2 and " +
                    std::to_string(groups) + " subgroups");
  }
  NCDataVector<float> all(rows, 0.0f), first(baseline * n, 0.0f);
  for (int i = 1; i <= rows; ++i) {
    all(i, table.At(i - 1, column));
    if (i <= baseline * n) first(i, table.At(i - 1, column));
  }

  // Phase I: the limits come from the baseline subgroups (a process known to be in control), then
  // the whole series is charted against them.
  ControlChart base(type, first, n);
  const double target = settings.target != kMissing
                            ? settings.target
                            : static_cast<double>(base.GetMeanVector()->GetMean());
  if (target == kMissing)
    throw ToolError(table.path + ": column '" + settings.column + "' has no values");
  base.SetTarget(target);
  double sigma = settings.sigma;
  std::string estimate;  // how sigma was estimated, for the footnote
  if (sigma == kMissing) {
    switch (type) {
      case ControlChart::kIndividual: {
        const double mr = MeanMovingRange(first);
        if (mr != kMissing) sigma = mr / FactorD2(2);
        estimate = "the mean moving range of the baseline values: " + Number(mr) + " / d2(2) = " +
                   Number(mr) + " / " + Number(FactorD2(2));
        break;
      }
      case ControlChart::kMeanRange:
        sigma = static_cast<double>(base.GetRangeVector()->GetMean()) / FactorD2(n);
        estimate = "the mean range of the baseline subgroups: " +
                   Number(base.GetRangeVector()->GetMean()) + " / d2(" + std::to_string(n) +
                   ") = " + Number(base.GetRangeVector()->GetMean()) + " / " +
                   Number(FactorD2(n));
        break;
      case ControlChart::kMeanStdDev:
        sigma = static_cast<double>(base.GetStdDevVector()->GetMean()) / FactorC4(n);
        estimate = "the mean standard deviation of the baseline subgroups: " +
                   Number(base.GetStdDevVector()->GetMean()) + " / c4(" + std::to_string(n) +
                   ") = " + Number(base.GetStdDevVector()->GetMean()) + " / " +
                   Number(FactorC4(n));
        break;
      default:
        break;  // CuSum and EWMA take the spread of the means from their successive differences
    }
    if (type <= ControlChart::kMeanStdDev && !(sigma >= 0)) {
      throw ToolError(table.path + ": too few values in '" + settings.column +
                      "' to estimate the spread");
    }
  }
  if (sigma != kMissing) base.SetStdDevSubgroup(sigma);
  if (settings.lambda != kMissing) base.SetEWMALambda(settings.lambda);
  // ImportLimits copies what the baseline has computed; the lazy values must exist by then.
  base.GetMSSD();
  base.GetActionLimit();
  base.GetEWMAUCL();
  ControlChart chart(type, all, n);
  chart.ImportLimits(base);

  ChartResult result;
  result.path = table.path;
  result.row_names = table.row_names;
  result.column = table.columns[static_cast<std::size_t>(column)];
  result.type = settings.type;
  result.subgroup = n;
  result.baseline = baseline;
  result.subgroups = groups;
  result.target = target;
  // Charts of subgroups show two spreads: sigma of single values, and sigma / sqrt(n) of a mean.
  const std::string source =
      settings.sigma != kMissing ? "given with --sigma" : "estimated from " + estimate;
  if (type <= ControlChart::kMeanStdDev) {
    result.sigma_note = "sigma is the spread of single values, " + source;
    if (n > 1) {
      result.sigma_note += "; the Mean limits use sigma / sqrt(" + std::to_string(n) +
                           ") = " + Number(chart.GetStdDevProcess() / std::sqrt(n)) +
                           ", the spread of a subgroup mean";
    }
  } else {
    result.sigma_note =
        settings.sigma != kMissing
            ? "sigma is the spread of the subgroup means derived from the --sigma given (" +
                  Number(settings.sigma) + ")"
            : "sigma is the spread of the subgroup means, estimated from their successive "
              "differences (mean square successive difference) over the baseline";
  }
  switch (type) {
    case ControlChart::kIndividual:
      result.sigma = sigma;
      result.panels.push_back(MakePanel("Value", *chart.GetMeanVector(), target, target - 3 * sigma,
                                        target + 3 * sigma));
      break;
    case ControlChart::kMeanRange:
      result.sigma = chart.GetStdDevProcess();
      result.panels.push_back(MakePanel("Mean", *chart.GetMeanVector(), target, chart.GetMeanLCL(),
                                        chart.GetMeanUCL()));
      result.panels.push_back(MakePanel("Range", *chart.GetRangeVector(), chart.GetRangeMean(),
                                        chart.GetRangeLCL(), chart.GetRangeUCL()));
      break;
    case ControlChart::kMeanStdDev:
      result.sigma = chart.GetStdDevProcess();
      result.panels.push_back(MakePanel("Mean", *chart.GetMeanVector(), target, chart.GetMeanLCL(),
                                        chart.GetMeanUCL()));
      result.panels.push_back(MakePanel("StdDev", *chart.GetStdDevVector(), chart.GetStdDevMean(),
                                        chart.GetStdDevLCL(), chart.GetStdDevUCL()));
      break;
    case ControlChart::kCuSum: {
      // Tabular CuSum: the upper sums are drawn above zero and the lower ones below; a subgroup is
      // out when either sum passes the decision interval h.
      result.sigma = chart.GetMSSD();
      const double h = chart.GetActionLimit();
      ChartResult::Panel panel = MakePanel("CuSum", *chart.GetHighCuSum(), 0.0, kMissing, h);
      panel.extra = Values(*chart.GetLowCuSum());
      panel.lower = -h;
      for (std::size_t i = 0; i < panel.extra.size(); ++i) {
        if (panel.extra[i] != kMissing && panel.extra[i] > h &&
            (panel.values[i] == kMissing || panel.values[i] <= h)) {
          panel.outside.push_back(static_cast<int>(i) + 1);
        }
      }
      std::sort(panel.outside.begin(), panel.outside.end());
      result.panels.push_back(panel);
      break;
    }
    default: {
      // The EWMA entry of a subgroup is the forecast made from the means before it.
      result.sigma = chart.GetMSSD();
      result.lambda = chart.GetEWMALambda();
      ChartResult::Panel panel =
          MakePanel("EWMA", *chart.GetEWMA(), target, chart.GetEWMALCL(), chart.GetEWMAUCL());
      panel.extra = Values(*chart.GetMeanVector());
      result.panels.push_back(panel);
      break;
    }
  }
  return result;
}

}  // namespace mvda::cli
