// The tool's analyses: Dataset (the part of a CSV file an analysis works on), the settings and
// results of PCA, PLS, prediction, clustering and control charts, and the functions that compute
// them with the library. Printing, JSON and the report read these results and compute nothing.
#ifndef MVDA_APPS_MVDA_ANALYSIS_H_
#define MVDA_APPS_MVDA_ANALYSIS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/diagnostics/spe.h>

#include <memory>
#include <string>
#include <vector>

#include "csv_table.h"
#include "model_file.h"

namespace mvda::cli {

using Matrix = NCDataMatrix<float>;

// X (and Y for PLS) taken from a table by column name, with the observation names and the class
// of each observation when a class column was named.
struct Dataset {
  std::string path;
  std::vector<std::string> row_names;
  std::vector<long> row_lines;  // per observation, its line in the file (for messages)
  std::vector<std::string> x_names;
  Matrix x;
  std::vector<std::string> y_names;
  Matrix y;
  std::string class_name;
  std::vector<std::string> classes;  // one per observation, or empty
};

// X is every column of the table except the Y columns, the class column and the excluded ones.
// ToolError for a name that is not a column, a Y column named twice or also excluded, and a data
// set left without X variables.
Dataset SelectData(const CsvTable& table, const std::vector<std::string>& y_columns,
                   const std::string& class_column, const std::vector<std::string>& excluded);

// A one-line hint (without the "mvda: " prefix) naming the X columns that hold only a few
// distinct whole numbers, like a class code analysed as a measurement by mistake; "" for none.
std::string ClassLikeHint(const Dataset& data);

// "none", "center", "pareto", "uv" as NCScale codes; ToolError for another word.
int ScalingCode(const std::string& name);

struct FitSettings {
  std::string scaling = "uv";
  int groups = 7;
  int components = 0;  // 0: as many as cross-validation finds significant
  int max_iterations = 500;
  std::vector<std::string> alphas;  // limit levels besides 0.95 and 0.99 (--alpha), as written
};

// A confidence level of the T² and SPE limits with its key in the output: 0.95 and 0.99 always,
// and each --alpha level keyed as the user wrote it.
struct Level {
  double alpha = 0;
  std::string key;
};

// 0.95, 0.99 and the extra levels, ascending; a level equal to one already there is not repeated.
// ToolError for a word that is not a fraction strictly between 0 and 1.
std::vector<Level> Levels(const std::vector<std::string>& extra);

// The outlier diagnostics of a set of observations under a model (training observations of a fit,
// or new ones scored by a saved model): Hotelling's T² and SPE per observation, -99 where a row
// could not be scored (or a figure cannot be computed), and their limits at every level (T² in the
// form for the training set or for new observations; SPE from the training values).
struct Diagnostics {
  std::vector<Level> levels;
  std::vector<double> t2, spe;                // per observation
  std::vector<double> t2_limits, spe_limits;  // per level, -99 where not computable
  std::vector<double> score_variances;        // of the training scores, per component
  int training_observations = 0;
  diagnostics::SPEMoments spe_moments;  // of the training SPE values
  // The observation furthest out relative to its 99 % limits (1-based, 0 for none) and the
  // contributions of the X variables to the statistic (T² or SPE) that puts it furthest out.
  int extreme = 0;
  bool extreme_by_spe = false;
  std::vector<double> contributions;

  double T2Limit(double alpha) const;  // -99 when alpha is not one of the levels
  double SPELimit(double alpha) const;
  // Observations (0-based) beyond the 99 % limit of T² or of SPE.
  std::vector<std::size_t> Beyond99() const;
};

// Diagnostics of the training set: x the scaled training data (N x K), T' and P' of the kept
// components.
Diagnostics TrainingDiagnostics(const Matrix& x, const Matrix& tprim, const Matrix& pprim,
                                const std::vector<std::string>& alphas);
// Diagnostics of new observations: x scaled by the model's scaling, T' their predicted scores,
// the training figures from the model file.
Diagnostics PredictionDiagnostics(const Matrix& x, const Matrix& tprim, const Matrix& pprim,
                                  const ModelFile& model, const std::vector<std::string>& alphas);

// One row of the component table. Fractions are of the scaled data's sum of squares.
struct ComponentRow {
  int component = 0;
  double r2x = 0, r2x_cum = 0;
  double r2y = 0, r2y_cum = 0;  // PLS only
  double q2 = 0, q2_cum = 0, q2_limit = 0;
  std::vector<double> q2_y, q2_y_cum;  // PLS only: per response
  std::string verdict;
  bool kept = false;
  int iterations = 0;  // NIPALS iterations of the component's fit
};

struct ModelResult {
  Dataset data;
  FitSettings settings;
  std::vector<ComponentRow> rows;
  int components = 0;  // kept
  Matrix tprim;        // components x observations
  Matrix pprim;        // components x variables (PLS: the X loadings)
  // PLS only
  Matrix wstar_prim;                 // components x variables
  Matrix cprim;                      // components x responses
  Matrix coefficients;               // variables x responses, in the units of the data
  std::vector<double> intercepts;    // per response
  Matrix fitted;                     // observations x responses, in the units of Y
  std::shared_ptr<ModelFile> model;  // what --save writes
  // Coefficients in scaled units (variables x responses); VIP per X variable; RMSEE and RMSECV
  // per response in the units of Y. T² and SPE of the training observations (PCA too).
  Matrix scaled_coefficients;
  std::vector<double> vip;
  std::vector<double> rmsee, rmsecv;
  Diagnostics diagnostics;
};

ModelResult FitPca(Dataset data, const FitSettings& settings);
ModelResult FitPls(Dataset data, const FitSettings& settings);

struct PredictResult {
  std::string model_path;
  ModelFile::Kind kind = ModelFile::kPCA;
  std::string model_source;
  int components = 0;
  std::vector<std::string> row_names;
  std::vector<std::string> x_names;   // the model's X variables
  std::vector<double> missing_share;  // per observation
  std::vector<bool> scored;           // false: too many missing values, no scores
  double max_missing = 0.5;
  Matrix tprim;  // components x observations, -99 for rows not scored
  std::vector<std::string> y_names;
  Matrix y_pred;      // observations x responses, in the units of Y (PLS)
  Matrix y_observed;  // the same columns when the file has them, else no rows
  std::vector<std::string> classes;
  std::string class_name;
  Diagnostics diagnostics;
  std::vector<double> rmsep, r2_prediction;  // per response, when the file holds the responses
};

// The file's columns are matched to the model's variables by name; other columns are ignored.
// ToolError when a variable of the model is not in the file.
PredictResult Predict(const ModelFile& model, const std::string& model_path, const CsvTable& table,
                      double max_missing, const std::string& class_column,
                      const std::vector<std::string>& alphas = {});

struct ClusterResult {
  Dataset data;
  std::string method;  // ward, ward-sqrt, single
  std::string scaling;
  std::vector<int> leaf_order;  // 0-based observations, left to right
  // Merges by increasing height: clusters numbered as in CreateMergeData (leaf = row 1..N,
  // merge k makes N + k), with their sizes.
  struct Merge {
    double height;
    long a, b, merged;
    int size;
  };
  std::vector<Merge> merges;
  // The drawing of the tree: every node's x position (leaf slots 0..N-1) and height, children
  // first; inner nodes refer to the two nodes they join.
  struct Node {
    double x, height;
    int left = -1, right = -1;  // indices into nodes; -1 for a leaf
    int row = -1;               // 0-based observation of a leaf
  };
  std::vector<Node> nodes;
  int cut = 0;                  // clusters asked for with --clusters, 0 for none
  std::vector<int> membership;  // per observation, 1..cut, when cut > 0
};

// The `count` clusters left when the highest merges are undone (fewer for a smaller tree), as
// indices into nodes, from left to right.
std::vector<int> TopClusters(const ClusterResult& result, int count);

ClusterResult Cluster(Dataset data, const std::string& method, const std::string& scaling,
                      const std::string& cache_dir, int cut);

struct ChartSettings {
  std::string column;
  std::string type = "individual";  // individual, mean-range, mean-stddev, cusum, ewma
  int subgroup = 0;                 // 0: 1 for individual, else 5
  int baseline = 0;                 // subgroups that set the limits; 0: all
  double target = -99, sigma = -99, lambda = -99;  // -99: estimated
};

struct ChartResult {
  std::string path, column, type;
  int subgroup = 1, baseline = 0, subgroups = 0;
  double target = -99, sigma = -99, lambda = -99;
  std::string sigma_note;  // which spread sigma is and where it came from, one line
  std::vector<std::string> row_names;  // the observations, in file order
  // Each panel: one statistic per subgroup with its centre line and limits (-99 where the chart
  // has none), and the subgroups (1-based) outside them.
  struct Panel {
    std::string name;
    std::vector<double> values;
    std::vector<double> extra;  // CuSum: the low sums, drawn below; EWMA: the subgroup means
    double centre = -99, lower = -99, upper = -99;
    std::vector<int> outside;
  };
  std::vector<Panel> panels;
};

ChartResult Chart(const CsvTable& table, const ChartSettings& settings);

}  // namespace mvda::cli

#endif  // MVDA_APPS_MVDA_ANALYSIS_H_
