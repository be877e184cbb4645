// ControlChart: the statistics of the control charts of one measured variable: Shewhart charts of
// individual values, of subgroup means with range or standard-deviation charts, a tabular CuSum
// and an EWMA, with their centre lines and limits.
#ifndef MVDA_SPC_CONTROL_CHART_H_
#define MVDA_SPC_CONTROL_CHART_H_

#include <mvda/containers/data_vector.h>
#include <mvda/mvda_export.h>

#include <string>

// One chart is built from the data of one variable cut into consecutive subgroups. Limits come
// from a known process standard deviation (SetStdDevSubgroup) or from another chart
// (ImportLimits); the CuSum and EWMA quantities are computed on first request and kept. Missing
// values (-99) in the data are skipped by every statistic, and every value that cannot be
// computed is -99.
//
// The factor tables hold subgroup sizes 2..25: a call that needs a factor for another size throws
// NCError (so SetStdDevSubgroup works on charts of single values only for the type Individual).
//
// Thread-safety: the const getters fill caches, so one chart is read by one thread at a time.
class MVDA_EXPORT ControlChart {
 public:
  // Codes 0..3 have texts (FromControlType). 4 and 5 are the hosts' two EWMA chart codes, which
  // have none; they differ only in SetTarget, which leaves the EWMA of code 5 alone. The type is
  // int-based so that any code a host passes is a valid value.
  enum ControlType : int {
    kIndividual = 0,
    kMeanRange = 1,
    kMeanStdDev = 2,
    kCuSum = 3,
    kEWMA = 4,
    kEWMAOther = 5,
  };

  // "Individual", "Mean/Range", "Mean/StdDev" or "CuSum"; "Individual" for every other code.
  static std::string FromControlType(ControlType type);
  // The code of one of the four texts, compared case-sensitively; 0 for any other text.
  static ControlType ToControlType(const std::string& text);

  // Cuts data into floor(size / subgroup_size) consecutive subgroups (a trailing incomplete one
  // is dropped) and computes their means, ranges and standard deviations over the present values.
  // Throws NCError for a type outside 0..5 or a subgroup size below 1.
  ControlChart(ControlType type, const NCDataVector<float>& data, int subgroup_size);
  ControlChart(const ControlChart& other);
  ControlChart& operator=(const ControlChart& other);
  virtual ~ControlChart();

  ControlType GetControlType() const { return type_; }

  // --- Setters (-99 is ignored where it would mean "no value")
  // Stores the target and moves what depends on it: the mean limits of types 1 and 2 (once a
  // spread is known), the CuSum vectors of type 3 and the EWMA limits and vector of type 4.
  // Throws NCError when not finite.
  void SetTarget(double target);
  // Sets the limits from a known process standard deviation sigma: type 0 only stores it; type 1
  // draws mean and range limits from the mean range sigma d2; types 2..5 draw mean and standard-
  // deviation limits from sigma c4, type 3 also its dead band and action limit, types 4 and 5
  // drop their EWMA limits. CuSum vectors already drawn are kept. Throws NCError when sigma is
  // negative or not finite, or when the type needs a factor that the tables lack for the
  // subgroup size.
  void SetStdDevSubgroup(double sigma);
  // A fixed EWMA weight in (0, 1]; -99 asks for the weight to be estimated from the data again.
  // The EWMA vector and limits are recomputed on their next request. Throws NCError otherwise.
  void SetEWMALambda(double lambda);
  // The EWMA start value of types 4 and 5 (ignored for the others; -99 restores the target).
  void SetPrevious(double previous);
  // The low and high CuSum start values of type 3 (ignored for the others; -99 restores 0).
  // Throws NCError for a negative or non-finite start value: tabular sums are never negative.
  void SetPrevious(double previous_low, double previous_high);
  // Takes over target, limits, spreads, dead band, action limit, EWMA weight and EWMA limits of
  // other; this chart keeps its own data, and its CuSum and EWMA vectors follow the new values.
  void ImportLimits(const ControlChart& other);

  // --- Centre lines and limits
  double GetTarget() const { return target_; }
  double GetMeanUCL() const { return mean_ucl_; }
  double GetMeanLCL() const { return mean_lcl_; }
  double GetRangeMean() const { return mean_range_; }
  double GetRangeUCL() const { return range_ucl_; }
  double GetRangeLCL() const { return range_lcl_; }
  double GetStdDevMean() const { return mean_std_dev_; }
  double GetStdDevUCL() const { return std_dev_ucl_; }
  double GetStdDevLCL() const { return std_dev_lcl_; }
  double GetStdDevProcess() const { return process_std_dev_; }
  // The standard deviation of the present data values the chart was built from.
  double GetStdDevIndividual() const { return individual_std_dev_; }
  // The spread of the subgroup means from successive differences (mean square successive
  // difference); the process standard deviation for subgroups of one.
  double GetMSSD() const;
  double GetActionLimit() const;  // CuSum decision interval h
  double GetDeadBand() const;     // CuSum reference value k
  // The weight set with SetEWMALambda, or else the one (estimated once, to 0.0005) that
  // minimises the squared one-step forecast errors of the means; -99 without target or start.
  double GetEWMALambda() const;
  double GetEWMAStdDev() const;
  double GetEWMAUCL() const;
  double GetEWMALCL() const;

  // --- Vectors, one entry per subgroup (-99 where the subgroup has no value). A CuSum or EWMA
  // vector that cannot be computed yet (no target, no spread) is returned empty.
  const NCDataVector<float>* GetMeanVector() const { return &means_; }
  const NCDataVector<float>* GetRangeVector() const { return &ranges_; }
  const NCDataVector<float>* GetStdDevVector() const { return &std_devs_; }
  const NCDataVector<float>* GetDevFromTarget() const;
  const NCDataVector<float>* GetHighCuSum() const;
  const NCDataVector<float>* GetLowCuSum() const;
  // Entry i is the EWMA forecast of mean i made from the means before it.
  const NCDataVector<float>* GetEWMA() const;

 private:
  void SubgroupMean(const NCDataVector<float>& data, int n);
  void SubgroupRange(const NCDataVector<float>& data, int n);
  void SubgroupStdDev(const NCDataVector<float>& data, int n);
  // Both need the factors for the subgroup size; they throw NCError, naming caller, before
  // changing anything when the tables have no row for it.
  void SetMeanRangeValues(double mean_range, const char* caller);
  void SetStdDevValues(double mean_std_dev, const char* caller);
  void CalculateCuSum() const;
  // Fills out with the EWMA forecasts for lambda and returns the sum of squared one-step errors
  // over the present means; out may be null. Returns -99 (and leaves out empty) without a start.
  double RunEWMA(double lambda, NCDataVector<float>* out) const;
  bool CalculateEWMA(NCDataVector<float>& out, double lambda) const;
  void CalculateEWMALimits() const;
  double CalculateSumErr(double lambda) const { return RunEWMA(lambda, nullptr); }
  double CalculateLambda(double start, double step, double* sum_err) const;
  double EWMAStart() const;
  void ForgetCuSum() const;
  void ForgetEWMA() const;

  ControlType type_;
  int subgroup_size_;
  NCDataVector<float> means_;
  NCDataVector<float> ranges_;
  NCDataVector<float> std_devs_;
  double target_ = mvda::kMissing;
  double mean_ucl_ = mvda::kMissing;
  double mean_lcl_ = mvda::kMissing;
  double mean_range_ = mvda::kMissing;
  double range_ucl_ = mvda::kMissing;
  double range_lcl_ = mvda::kMissing;
  double process_std_dev_ = mvda::kMissing;
  double individual_std_dev_ = mvda::kMissing;
  double mean_std_dev_ = mvda::kMissing;
  double std_dev_ucl_ = mvda::kMissing;
  double std_dev_lcl_ = mvda::kMissing;
  // Computed on request by the const getters, hence mutable.
  mutable double action_limit_ = mvda::kMissing;
  mutable double dead_band_ = mvda::kMissing;
  mutable NCDataVector<float> dev_from_target_;
  mutable NCDataVector<float> high_cusum_;
  mutable NCDataVector<float> low_cusum_;
  mutable double ewma_lambda_ = mvda::kMissing;
  mutable NCDataVector<float> ewma_;
  mutable bool ewma_computed_ = false;
  mutable double ewma_ucl_ = mvda::kMissing;
  mutable double ewma_lcl_ = mvda::kMissing;
  mutable double ewma_std_dev_ = mvda::kMissing;
  mutable double mssd_std_dev_ = mvda::kMissing;
  double ewma_previous_ = mvda::kMissing;
  double cusum_previous_low_ = mvda::kMissing;
  double cusum_previous_high_ = mvda::kMissing;
};

#endif  // MVDA_SPC_CONTROL_CHART_H_
