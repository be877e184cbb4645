// PcaGroupFit, FitPcaGroups: the one-component NIPALS fits of a PCA cross-validation, every group
// advanced in lockstep on one copy of the residuals, and the replay of each fit's progress.
#ifndef MVDA_VALIDATION_DETAIL_PCA_GROUP_FITS_H_
#define MVDA_VALIDATION_DETAIL_PCA_GROUP_FITS_H_

#include <mvda/containers/data_matrix.h>
#include <mvda/containers/data_vector.h>
#include <mvda/containers/integral_vector.h>
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
// and no observation group holds every row. With gram, complete residuals with at least as many
// rows as columns are fitted on Gram matrices instead (the Gram matrix without a group is the whole
// one less the group's own), with the same iterations to float precision. Thread-safety: reads its
// arguments only; the products run on the library's team with the same bits for any team size.
// groupGrams, when given, are the Gram matrices of E's rows of each observation group (as
// NCPCA::GetGroupGrams keeps them); else they are formed here.
PcaGroupFits FitPcaGroups(const NCDataMatrix<float>& E, const NCDataVector<float>& p,
                          const NCDataVector<float>& t,
                          const NCIntegralVector<int, -99>& observationGroups,
                          const NCIntegralVector<int, -99>& variableGroups, int groups, int limit,
                          bool gram, const std::vector<std::vector<double>>* groupGrams);

}  // namespace mvda::detail

#endif  // MVDA_VALIDATION_DETAIL_PCA_GROUP_FITS_H_
