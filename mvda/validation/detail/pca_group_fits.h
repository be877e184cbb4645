// PcaGroupFit, FitPcaGroups, FitPcaGroupsOnGram, GramPress: the one-component NIPALS fits of a PCA
// cross-validation, every group advanced in lockstep on one copy of the residuals or fitted on
// Gram matrices, the PRESS of the latter, and the replay of each fit's progress.
#ifndef MVDA_VALIDATION_DETAIL_PCA_GROUP_FITS_H_
#define MVDA_VALIDATION_DETAIL_PCA_GROUP_FITS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
#include <mvda/models/detail/gram.h>
#include <mvda/platform/progress.h>

#include <vector>

namespace mvda::detail {

// One group's component as NCPCA::NextComponent fits it, kept with what the fit would have told
// its progress reporter.
struct PcaGroupFit {
  NCDataVector<float> p;  // the loading at the fit's last iteration
  // The scores at the last iteration; a loading fit has -99 at the rows it leaves out.
  NCDataVector<float> t;
  std::vector<double> measures;  // the convergence measure c of every iteration, in order
  bool failed = false;           // the iteration after the last measure found no score pair

  // The progress calls and the error of the fit, as NCPCA::NextComponent makes them with a
  // reporter given: SetRange(-c, 0) after the first iteration, SetValue(-c) after each later one;
  // NCError with language string 10147 (level 2) when SetValue answers stop, "PCA component could
  // not be computed." when the fit failed. A fit without iterations (one training row) reports
  // nothing.
  void Replay(NCProgress& reporter) const;
};

struct PcaGroupFits {
  std::vector<PcaGroupFit> withoutRows;     // g: loading fitted without observation group g
  std::vector<PcaGroupFit> withoutColumns;  // g: scores fitted without variable group g
};

// The 2G fits of one cross-validated component of residuals E (N x K) with loading p and scores
// t, each with at most `limit` iterations:
//   withoutRows[g]    on the rows of E outside observation group g, from the row regression
//                     (SpecialNipalsRegressRowsFix) of those rows on p;
//   withoutColumns[g] on all rows, variables of variable group g left out, from t.
// The results are those of NCPCA fits on a training matrix (NextComponent(.., nullptr, 0, &start))
// and on E (NextComponent(.., &variableGroups, g, &t)) to float rounding: the sums are formed in
// another order. A fit that fails stops there (failed set); the others go on. Codes run 0..G-1,
// and no observation group holds every row. Thread-safety: reads its arguments only; the
// products run on the library's team with the same bits for any team size.
PcaGroupFits FitPcaGroups(const NCDataMatrix<float>& E, const NCDataVector<float>& p,
                          const NCDataVector<float>& t,
                          const NCIntegralVector<int, -99>& observationGroups,
                          const NCIntegralVector<int, -99>& variableGroups, int groups, int limit);

// The same fits of complete residuals on their Gram matrices, from a model that fits on them: the
// Gram matrix without observation group g is the whole less the group's own, the one without
// variable group g the whole with those variables left out, and every iteration a product with a
// K x K matrix, so no pass over the data is made. The fits agree with FitPcaGroups to float
// precision, iteration counts included. Their scores are not formed: scoreDirections[g] holds
// the q of withoutColumns[g] (t = E q, 0 at the variables left out), and the t of every fit is
// left empty. False, with nothing fitted, when some training set would have fewer than two rows
// (FitPcaGroups fits those on the row itself).
bool FitPcaGroupsOnGram(const PcaGramState& state, const NCDataVector<float>& p,
                        const NCIntegralVector<int, -99>& observationGroups,
                        const NCIntegralVector<int, -99>& variableGroups, int groups, int limit,
                        PcaGroupFits& fits, std::vector<std::vector<double>>& scoreDirections);

// The sums of squares SS_j and the prediction errors PRESS_j per variable over the cells of
// complete residuals, cell (i, j) predicted as t_i w_j with t = E d_v (d_v column v of
// `directions`, K x G row-major; v the group of variable j) and w row o + 1 of `loadings` (o the
// observation group of row i); from the group Gram matrices alone, the groups' sums added in
// group order.
void GramPress(const PcaGramState& state, const std::vector<double>& directions,
               const NCDataMatrix<float>& loadings,
               const NCIntegralVector<int, -99>& variableGroups, int groups,
               std::vector<double>& ss, std::vector<double>& press);

}  // namespace mvda::detail

#endif  // MVDA_VALIDATION_DETAIL_PCA_GROUP_FITS_H_
